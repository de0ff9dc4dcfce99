// The player's window on a real display (Xvfb in the suite): each presented frame's pixels, read
// back from the window, equal the library's copy-out of that frame; the window is titled after
// the file; an HDR file on the 2-D path gives its message. Skips without a display.
#include "player/player_loop.h"
#include "player/player_window.h"
#include "support/files.h"
#include "support/leak_check.h"
#include "support/velmo1_mixed_file.h"

#include <SDL.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <string>
#include <vector>

namespace {

struct Check {
  PlayerHost Window;
  PlayerWindow* Handle = nullptr;
  uint32_t Presents = 0, Compared = 0, Mismatches = 0;
  uint32_t StopAfter = 3;
  std::string Title;
};
Check G;

void ComparingPresent(void* context, PlayerState* s) {
  G.Window.Present(context, s);
  ++G.Presents;
  HVELMO h = s->Handle;
  std::vector<uint32_t> reference(size_t(h->Width) * h->Height);
  VelmoCopyToBuffer(h, reference.data(), int32_t(h->Width * 4), int32_t(h->Height), 0, 0,
                    VelmoSurfaceArgb32 | VelmoCopyNeverSkip);
  std::vector<uint32_t> screen;
  int32_t w = 0, hgt = 0;
  ASSERT_TRUE(PlayerWindowReadPixels(G.Handle, &screen, &w, &hgt)) << SDL_GetError();
  if (w != int32_t(h->Width) || hgt != int32_t(h->Height)) {
    ++G.Mismatches;
  } else {
    for (size_t i = 0; i < reference.size(); ++i)
      if ((reference[i] ^ screen[i]) & 0xFFFFFF) {
        ADD_FAILURE() << "pixel " << i << ": " << std::hex << screen[i] << " for " << reference[i];
        ++G.Mismatches;
        break;
      }
    ++G.Compared;
  }
  G.Title = SDL_GetWindowTitle(SDL_GetWindowFromID(1)) ? SDL_GetWindowTitle(SDL_GetWindowFromID(1)) : "";
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
  }
  void TearDown() override { LeakCheckResume(); }
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
    PlayerWindowDestroy(G.Handle);
    return code;
  }
  test_support::ScratchDir dir;
};

TEST_F(PlayerWindowTest, WindowPixelsEqualTheCopyOut) {
  const std::string path = dir / "clip.vlm";
  test_support::WriteFile(path, velmo_test::BuildFile(velmo_test::MixedFirstGenerationPlan(96, 64, 6)));
  PlayerState state;
  state.Options.OpenFlags |= VelmoOpenNoBackground;
  // The pointer may sit on the window as it appears, which would show the slider.
  state.Options.DisabledControls = PlayerDisableSlider;
  EXPECT_EQ(Play(path, &state), 0) << state.Error;
  EXPECT_EQ(G.Presents, 3u);
  EXPECT_EQ(G.Compared, 3u);
  EXPECT_EQ(G.Mismatches, 0u);
  EXPECT_EQ(G.Title, "clip.vlm - Velmo Video Player");
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
