// The player's window on a real display (Xvfb in the suite): each presented frame's pixels, read
// back from the window, equal the 2-D path's picture of that frame (the library's copy-out, and
// alpha over the checker for files with alpha) exactly on the 2-D path and within a small
// tolerance on the OpenGL path; the statistics strip sits above the video; the window is titled
// after the file; an HDR file on the 2-D path gives its message. Skips without a display, and
// the OpenGL cases without an OpenGL 3.3 core context.
#include "player/player_loop.h"
#include "player/player_text.h"
#include "player/player_window.h"
#include "support/files.h"
#include "support/hdr_forward.h"
#include "support/leak_check.h"
#include "support/velmo1_mixed_file.h"
#include "support/velmo2_flat_file.h"

#include <SDL.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Check {
  PlayerHost Window;
  PlayerWindow* Handle = nullptr;
  uint32_t Presents = 0, Compared = 0, Mismatches = 0;
  uint32_t StopAfter = 3;
  bool CompareWithCopyOut = true;  // off for HDR frames, which the copy-out does not copy
  uint32_t Centre = 0;    // the window's centre pixel at the last present
  int Tolerance = 0;      // per channel
  int LargestDiff = 0;
  bool StripChecked = false, StripYellowFrom16 = false, StripOnlyBlackAndYellow = true;
  bool FullScreen = false;  // a present found the display switched by /D and /B
  uint32_t Corner = 0;      // the window's top-left pixel
  std::string Title;
  uint32_t CardPresents = 0;        // presents of the end-card
  int32_t LastWidth = 0, LastHeight = 0;  // the window's size at the last present
};
Check G;

int ChannelDiff(uint32_t a, uint32_t b) {
  int most = 0;
  for (int shift = 0; shift < 24; shift += 8)
    most = std::max(most, std::abs(int((a >> shift) & 0xFF) - int((b >> shift) & 0xFF)));
  return most;
}

// The strip's rows: yellow text from column 16 on, over black.
void CheckStrip(const std::vector<uint32_t>& screen, int32_t width, int32_t stripHeight) {
  G.StripChecked = true;
  int32_t firstYellow = width;
  for (int32_t y = 0; y < stripHeight; ++y)
    for (int32_t x = 0; x < width; ++x) {
      const uint32_t px = screen[size_t(y) * width + x] & 0xFFFFFF;
      if (px == 0xFFFF00) firstYellow = std::min(firstYellow, x);
      else if (px != 0) G.StripOnlyBlackAndYellow = false;
    }
  G.StripYellowFrom16 = firstYellow == 16;
}

void ComparingPresent(void* context, PlayerState* s) {
  G.Window.Present(context, s);
  ++G.Presents;
  G.CardPresents += s->EndCard;
  HVELMO h = s->Handle;
  if (!G.CompareWithCopyOut) {
    std::vector<uint32_t> screen;
    int32_t w = 0, hgt = 0;
    if (PlayerWindowReadPixels(G.Handle, &screen, &w, &hgt))
      G.Centre = screen[size_t(hgt / 2) * w + w / 2];
    if (G.Presents >= G.StopAfter) s->QuitState = 1;
    return;
  }
  // The 2-D path's picture of this frame is the reference for both paths.
  PlayerPicture reference;
  ASSERT_TRUE(reference.Make(int32_t(h->Width), int32_t(h->Height)));
  PlayerCompose2D(s, &reference, false);
  const PlayerWindowPlan plan = PlayerPlanWindow(s->Options, int32_t(h->Width),
                                                 int32_t(h->Height), 1024, 768);
  std::vector<uint32_t> screen;
  int32_t w = 0, hgt = 0;
  ASSERT_TRUE(PlayerWindowReadPixels(G.Handle, &screen, &w, &hgt)) << SDL_GetError();
  G.LastWidth = w;
  G.LastHeight = hgt;
  // With the display's mode switched the window covers the screen, and the video sits where
  // the plan puts the window.
  G.FullScreen = s->DisplaySwitched;
  const int32_t wantWidth = G.FullScreen ? 1024 : plan.Width;
  const int32_t wantHeight = G.FullScreen ? 768 : plan.Height;
  const int32_t originX = G.FullScreen ? plan.X : 0, originY = G.FullScreen ? plan.Y : 0;
  if (w != wantWidth || hgt != wantHeight) {
    ADD_FAILURE() << "window " << w << " x " << hgt << ", planned " << wantWidth << " x "
                  << wantHeight;
    ++G.Mismatches;
  } else {
    G.Corner = screen[0];
    const int32_t left = originX + (plan.Width - plan.VideoWidth) / 2;
    const int32_t top = originY + plan.StripHeight;
    bool reported = false;
    for (int32_t y = 0; y < reference.Height; ++y)
      for (int32_t x = 0; x < reference.Width; ++x) {
        const uint32_t want = reference.Row(y)[x];
        const uint32_t got = screen[size_t(top + y) * w + left + x];
        const int diff = ChannelDiff(want, got);
        G.LargestDiff = std::max(G.LargestDiff, diff);
        if (diff > G.Tolerance && !reported) {
          ADD_FAILURE() << "pixel (" << x << ", " << y << "): " << std::hex << got << " for "
                        << want;
          ++G.Mismatches;
          reported = true;
        }
      }
    if (plan.StripHeight) CheckStrip(screen, w, plan.StripHeight);
    ++G.Compared;
  }
  G.Title = PlayerWindowTitle(G.Handle);
  if (G.Presents >= G.StopAfter) s->QuitState = 1;
}

class PlayerWindowTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!std::getenv("DISPLAY") || !*std::getenv("DISPLAY"))
      GTEST_SKIP() << "no display: the window tests run under xvfb-run (ctest runs them so)";
    G = Check{};
    // The loop itself is leak-checked by the headless loop tests.
    LeakCheckPause();
    LeakCheckPaused = true;
  }
  void TearDown() override {
    if (LeakCheckPaused) LeakCheckResume();
  }
  bool LeakCheckPaused = false;
  // Plays `name` through the path `drawType` asks for; `usedGl` tells which one ran.
  int Play(const std::string& name, PlayerState* state) {
    state->Names = {name};
    G.Handle = PlayerWindowCreate(state->Options);
    EXPECT_NE(G.Handle, nullptr) << SDL_GetError();
    if (!G.Handle) return -1;
    PlayerWindowCapture(G.Handle, true);
    G.Window = PlayerWindowHost(G.Handle);
    PlayerHost host = G.Window;
    host.Present = ComparingPresent;
    host.AsyncThreadCount = 2;
    const int code = PlayerRun(state, host);
    UsedGl = PlayerWindowUsesGl(G.Handle);
    PlayerWindowDestroy(G.Handle);
    return code;
  }
  // Options for a comparison: reads in this thread, and no slider (the pointer may sit on the
  // window as it appears, which would show it).
  static PlayerState Quiet(int32_t drawType) {
    PlayerState state;
    state.Options.OpenFlags |= VelmoOpenNoBackground;
    state.Options.DisabledControls = PlayerDisableSlider;
    state.Options.DrawType = drawType;
    return state;
  }
  std::string FirstGeneration() {
    const std::string path = dir / "clip.vlm";
    test_support::WriteFile(path, velmo_test::BuildFile(velmo_test::MixedFirstGenerationPlan(96, 64, 6)));
    return path;
  }
  // Four flat frames of a second-generation file with alpha, each a different colour and
  // coverage, 40 x 24 so that the chroma planes have an odd edge to repeat.
  std::string SecondGeneration() {
    velmo_test::FlatFilePlan plan;
    plan.Width = 40;
    plan.Height = 24;
    plan.Alpha = true;
    plan.Frames = {{180, 90, 40, 255, 0}, {60, 200, 120, 128, 0}, {120, 30, 220, 0, 0},
                   {240, 128, 128, 64, 0}};
    const std::string path = dir / "flat.vm2";
    velmo_test::WriteFlatFile(path, plan);
    return path;
  }
  void SkipWithoutGl() {
    if (!UsedGl) GTEST_SKIP() << "no OpenGL 3.3 core context on this display: the player fell "
                                 "back to the 2-D path";
  }
  test_support::ScratchDir dir;
  bool UsedGl = false;
};

TEST_F(PlayerWindowTest, TwoDPathPixelsEqualTheCopyOut) {
  PlayerState state = Quiet(PlayerDraw2D);
  EXPECT_EQ(Play(FirstGeneration(), &state), 0) << state.Error;
  EXPECT_FALSE(UsedGl);
  EXPECT_FALSE(state.UsesGpu);
  EXPECT_EQ(G.Presents, 3u);
  EXPECT_EQ(G.Compared, 3u);
  EXPECT_EQ(G.Mismatches, 0u);
  EXPECT_EQ(G.Title, "clip.vlm - Velmo Video Player");
}

TEST_F(PlayerWindowTest, TwoDPathShowsSecondGenerationFramesWithAlphaExactly) {
  PlayerState state = Quiet(PlayerDraw2D);
  G.StopAfter = 4;
  EXPECT_EQ(Play(SecondGeneration(), &state), 0) << state.Error;
  EXPECT_EQ(G.Compared, 4u);
  EXPECT_EQ(G.Mismatches, 0u);
  EXPECT_EQ(G.Title, "flat.vm2 - Velmo Video Player");
}

// Within 2 per channel: the shader computes the copy-out's conversion in floating point where
// the copy-out rounds each product in fixed point.
TEST_F(PlayerWindowTest, OpenGLPathMatchesTheCopyOutWithinTwo) {
  PlayerState state = Quiet(PlayerDrawGL);
  G.Tolerance = 2;
  EXPECT_EQ(Play(FirstGeneration(), &state), 0) << state.Error;
  SkipWithoutGl();
  EXPECT_TRUE(state.UsesGpu);
  EXPECT_EQ(G.Compared, 3u);
  EXPECT_EQ(G.Mismatches, 0u) << "largest difference " << G.LargestDiff;
  EXPECT_EQ(G.Title, "clip.vlm - Velmo Video Player");
}

TEST_F(PlayerWindowTest, OpenGLPathLaysSecondGenerationAlphaOverTheChecker) {
  for (const bool light : {false, true}) {
    SCOPED_TRACE(light ? "light cells" : "dark cells");
    G = Check{};
    PlayerState state = Quiet(PlayerDrawGL);
    state.LightBackground = light;
    G.Tolerance = 2;
    G.StopAfter = 4;
    EXPECT_EQ(Play(SecondGeneration(), &state), 0) << state.Error;
    SkipWithoutGl();
    EXPECT_EQ(G.Compared, 4u);
    EXPECT_EQ(G.Mismatches, 0u) << "largest difference " << G.LargestDiff;
  }
}

// With /Q the statistics strip takes its own rows above the video, its text yellow on black
// from column 16; the video below it still matches.
TEST_F(PlayerWindowTest, StatisticsStripSitsAboveTheVideoOnBothPaths) {
  for (const int32_t draw : {int32_t(PlayerDraw2D), int32_t(PlayerDrawGL)}) {
    SCOPED_TRACE(draw == PlayerDraw2D ? "2-D path" : "OpenGL path");
    G = Check{};
    PlayerState state = Quiet(draw);
    state.Options.Statistics = true;
    G.Tolerance = draw == PlayerDraw2D ? 0 : 2;
    EXPECT_EQ(Play(FirstGeneration(), &state), 0) << state.Error;
    if (draw == PlayerDrawGL) SkipWithoutGl();
    EXPECT_EQ(G.Compared, 3u);
    EXPECT_EQ(G.Mismatches, 0u);
    EXPECT_TRUE(G.StripChecked);
    EXPECT_TRUE(G.StripYellowFrom16);
    EXPECT_TRUE(G.StripOnlyBlackAndYellow);
  }
}

// /D and /B with the display's own size (the only mode Xvfb has): the window covers the
// screen in that mode, black, with the video exactly where the centred window would be.
TEST_F(PlayerWindowTest, SwitchedDisplayModeShowsTheVideoInPlaceOnBothPaths) {
  for (const int32_t draw : {int32_t(PlayerDraw2D), int32_t(PlayerDrawGL)}) {
    SCOPED_TRACE(draw == PlayerDraw2D ? "2-D path" : "OpenGL path");
    G = Check{};
    PlayerState state = Quiet(draw);
    state.Options.DisplayWidth = 1024;
    state.Options.DisplayHeight = 768;
    G.Tolerance = draw == PlayerDraw2D ? 0 : 2;
    EXPECT_EQ(Play(FirstGeneration(), &state), 0) << state.Error;
    if (draw == PlayerDrawGL) SkipWithoutGl();
    if (!G.FullScreen) GTEST_SKIP() << "this display did not switch to its own mode full screen";
    EXPECT_EQ(G.Compared, 3u);
    EXPECT_EQ(G.Mismatches, 0u) << "largest difference " << G.LargestDiff;
    EXPECT_EQ(G.Corner & 0xFFFFFF, 0u);
    EXPECT_FALSE(state.DisplaySwitched) << "restored when leaving";
  }
}

// A two-frame wide-range file of a flat grey of 40 nits (half of a 1000-nit tone block's scale).
std::string WriteHdrGrey(const test_support::ScratchDir& dir, const char* name, bool alpha) {
  using namespace test_support;
  velmo_test::FlatFilePlan plan;
  plan.Hdr = true;
  plan.Alpha = alpha;
  MakeHdrBlock(1000, Tone1000, plan.HdrBlock);
  const double grey[3] = {0.5, 0.5, 0.5};
  const HdrPlaneValues v = ForwardHdr(grey, 1000, Tone1000);
  velmo_test::FlatFrame frame;
  frame.Y = velmo_test::FlatValue(v.Y);
  frame.Hdr = velmo_test::FlatValue(v.Hdr);
  frame.Cr = velmo_test::FlatValue(v.Ct);
  frame.Cb = velmo_test::FlatValue(v.Cp);
  plan.Frames = {frame, frame};
  const std::string path = dir / name;
  velmo_test::WriteFlatFile(path, plan);
  return path;
}

// A wide-range file of a flat grey of 40 nits (half the window's full scale) shows, through the
// ST 2084 curve and the sRGB encoding, as a neutral grey near 188; one stop less exposure (four
// quarter stops down) halves the light, near 137.
TEST_F(PlayerWindowTest, OpenGLPathShowsWideRangeGreyByExposure) {
  const std::string path = WriteHdrGrey(dir, "grey.vm2", true);
  for (const auto& [exposure, expected] : {std::pair{0, 188}, std::pair{-4, 137}}) {
    SCOPED_TRACE(exposure);
    G = Check{};
    G.CompareWithCopyOut = false;
    G.StopAfter = 2;
    PlayerState state = Quiet(PlayerDrawGL);
    state.Exposure = exposure;
    ASSERT_EQ(Play(path, &state), 0) << state.Error;
    SkipWithoutGl();
    ASSERT_EQ(G.Presents, 2u);
    // The planes hold even levels only, which moves the grey by a few steps.
    for (int shift = 0; shift < 24; shift += 8)
      EXPECT_NEAR(int((G.Centre >> shift) & 0xFF), expected, 8) << std::hex << G.Centre;
  }
}

// After the last file the end-card plays in the same window, which takes the card's own size,
// with its frames as the copy-out makes them, for its time.
TEST_F(PlayerWindowTest, EndCardFollowsInTheSameWindowAtItsOwnSize) {
  const std::vector<uint8_t> card =
      velmo_test::BuildFile(velmo_test::MixedFirstGenerationPlan(48, 32, 12));
  for (const int32_t draw : {int32_t(PlayerDraw2D), int32_t(PlayerDrawGL)}) {
    SCOPED_TRACE(draw == PlayerDraw2D ? "2-D path" : "OpenGL path");
    G = Check{};
    G.Tolerance = draw == PlayerDraw2D ? 0 : 2;
    G.StopAfter = 1000;  // the card's time ends the run
    PlayerState state = Quiet(draw);
    state.EndCardClip = card.data();
    state.EndCardSize = card.size();
    const uint32_t start = SDL_GetTicks();
    EXPECT_EQ(Play(FirstGeneration(), &state), 0) << state.Error;
    if (draw == PlayerDrawGL) SkipWithoutGl();
    EXPECT_GE(SDL_GetTicks() - start, PlayerEndCardMs);
    EXPECT_EQ(G.Presents - G.CardPresents, 6u);
    EXPECT_GE(G.CardPresents, 5u);
    EXPECT_EQ(G.Compared, G.Presents);
    EXPECT_EQ(G.Mismatches, 0u) << "largest difference " << G.LargestDiff;
    EXPECT_EQ(G.LastWidth, 48);
    EXPECT_EQ(G.LastHeight, 32);
    EXPECT_EQ(G.Title, "clip.vlm - Velmo Video Player");
  }
}

// The three HDR looks on the same grey: well below the peak, the clip (look 0) and the soft
// knee (look 1) leave it alone, and the compressing look 2 darkens it; at the peak, the clip is
// full white, the knee below it, and look 2 lower still.
TEST_F(PlayerWindowTest, OpenGLPathShowsEachHdrLook) {
  const std::string path = WriteHdrGrey(dir, "looks.vm2", false);
  int level[2][PlayerHdrLooks] = {};  // [exposure below, at the peak][look], green channel
  for (int e = 0; e < 2; ++e)
    for (int look = 0; look < PlayerHdrLooks; ++look) {
      SCOPED_TRACE(testing::Message() << "exposure " << e << " look " << look);
      G = Check{};
      G.CompareWithCopyOut = false;
      G.StopAfter = 2;
      PlayerState state = Quiet(PlayerDrawGL);
      state.Exposure = e == 0 ? -4 : 4;  // a quarter, and all, of the window's full scale
      state.HdrLook = look;
      ASSERT_EQ(Play(path, &state), 0) << state.Error;
      SkipWithoutGl();
      level[e][look] = int((G.Centre >> 8) & 0xFF);
    }
  EXPECT_NEAR(level[0][0], level[0][1], 1);
  EXPECT_LT(level[0][2], level[0][1] - 5);
  EXPECT_GE(level[1][0], 250);
  EXPECT_LT(level[1][1], level[1][0] - 5);
  EXPECT_LT(level[1][2], level[1][1] - 5);
}

TEST_F(PlayerWindowTest, HdrFileOnThe2DPathGivesItsMessage) {
  static const int16_t hdr[6] = {1000, 2000, 3000, 4000, 5000, 6000};
  velmo_test::FilePlan plan;
  plan.Version = 200;
  plan.Flags = VelmoFlagHdr;
  plan.HdrBlock = hdr;
  plan.Frames = 2;
  const std::string path = dir / "hdr.vm2";
  test_support::WriteFile(path, velmo_test::BuildFile(plan));
  PlayerState state;
  state.Options.DrawType = PlayerDraw2D;
  const int code = Play(path, &state);
  if (code == 1 && state.Error.rfind("You need", 0) != 0)
    GTEST_SKIP() << "the HDR test file did not open: " << state.Error;
  EXPECT_EQ(code, 1);
  EXPECT_EQ(state.Error, "You need to use Direct3D 11 for viewing Velmo HDR videos.");
  EXPECT_EQ(G.Presents, 0u);
}

}  // namespace
