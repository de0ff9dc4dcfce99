// The player's command line: switches and the open flags they set, the file-name rules, and
// where the window goes.
#include "player/player_gl.h"
#include "player/player_loop.h"
#include "player/player_options.h"
#include "player/player_picture.h"
#include "player/player_text.h"
#include "support/files.h"

#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

namespace {

struct Read {
  bool ok = false;
  PlayerOptions options;
  std::vector<std::string> names;
};

Read ReadLine(const std::string& text, const char* quickPlay = "") {
  std::vector<char> line(text.begin(), text.end());
  line.resize(text.size() + 256, 0);
  Read r;
  r.ok = PlayerReadLine(line.data(), line.size(), quickPlay, &r.options, &r.names);
  return r;
}

TEST(PlayerSwitches, FlagSwitchesSetTheirOpenFlags) {
  struct Case {
    const char* line;
    uint32_t flag;
  } cases[] = {{"a.vlm /P", 0x2000},    {"a.vlm /G", 0x200000},  {"a.vlm /K", 0x8000000},
               {"a.vlm /N", 0x80000},   {"a.vlm /M5000", 0x400000}, {"a.vlm /E65536", 0x1000000},
               {"a.vlm /T1;2", 0x4000}, {"a.vlm /F25", 0x1000}};
  for (const Case& c : cases) {
    const Read r = ReadLine(c.line);
    ASSERT_TRUE(r.ok) << c.line;
    EXPECT_EQ(r.options.OpenFlags & c.flag, c.flag) << c.line;
    EXPECT_EQ(r.options.OpenFlags & ~(c.flag | VelmoOpenAlpha), 0u) << c.line;
  }
  EXPECT_EQ(ReadLine("a.vlm").options.OpenFlags, uint32_t(VelmoOpenAlpha));
}

TEST(PlayerSwitches, ValuesOfNumberSwitches) {
  const Read r = ReadLine("clip /L3 /Z2 /X10 /Y-20 /U9 /M12345 /E65536 /I101 /D800 /B600 /#77 /!1");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.options.LoopCount, 3);
  EXPECT_EQ(r.options.SoundOutput, 2);
  EXPECT_EQ(r.options.X, 10);
  EXPECT_EQ(r.options.Y, -20);
  EXPECT_EQ(r.options.DisabledControls, 9u);
  EXPECT_EQ(r.options.SimulateRate, 12345u);
  EXPECT_EQ(r.options.ReadBufferSize, 65536u);
  EXPECT_EQ(r.options.WindowStyle, 1);
  EXPECT_TRUE(r.options.AlwaysOnTop);
  EXPECT_EQ(r.options.DisplayWidth, 800);
  EXPECT_EQ(r.options.DisplayHeight, 600);
  EXPECT_EQ(r.options.Parent, 77);
  EXPECT_EQ(r.options.DrawType, PlayerDraw2D);
  EXPECT_EQ(r.names, std::vector<std::string>{"clip"});
  const Read d = ReadLine("clip");
  EXPECT_EQ(d.options.LoopCount, 1);
  EXPECT_EQ(d.options.X, PlayerCentred);
  EXPECT_EQ(d.options.Y, PlayerCentred);
}

TEST(PlayerSwitches, BareSwitchesAndFlags) {
  const Read r = ReadLine("clip /L /F /S /R /C /Q /J");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.options.LoopCount, 0);
  EXPECT_TRUE(r.options.ForceRate);
  EXPECT_EQ(r.options.Rate, 0u);
  EXPECT_TRUE(r.options.Summary);
  EXPECT_TRUE(r.options.BlackScreen);
  EXPECT_EQ(r.options.WindowStyle, 2);  // /R takes the window's frame away
  EXPECT_TRUE(r.options.HideCursor);
  EXPECT_TRUE(r.options.Statistics);
  EXPECT_TRUE(r.options.PauseOnFocusLoss);
}

TEST(PlayerSwitches, RatesTracksAndSizes) {
  const Read r = ReadLine("clip /F29.97 /T3;1;7 /W-2 /H480");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.options.Rate, 2997u);
  EXPECT_EQ(r.options.RateDiv, 100u);
  ASSERT_EQ(r.options.TrackCount, 3u);
  EXPECT_EQ(r.options.TrackIds[0], 3u);
  EXPECT_EQ(r.options.TrackIds[1], 1u);
  EXPECT_EQ(r.options.TrackIds[2], 7u);
  EXPECT_EQ(r.options.WidthNum, -2);
  EXPECT_EQ(r.options.HeightNum, 480);
  const Read many = ReadLine("clip /T1;2;3;4;5;6;7;8;9;10");
  EXPECT_EQ(many.options.TrackCount, PlayerMaxTracks);
}

TEST(PlayerSwitches, AlphaSwitchDigitsAddUp) {
  EXPECT_EQ(ReadLine("c /A100").options.OpenFlags, uint32_t(VelmoOpenAlpha | VelmoOpenGrayscale));
  EXPECT_EQ(ReadLine("c /A1000").options.OpenFlags, uint32_t(VelmoOpenAlpha) | uint32_t(VelmoCopyFlipAlpha));
  EXPECT_EQ(ReadLine("c /A10000").options.OpenFlags, 0u);
  EXPECT_EQ(ReadLine("c /A10100").options.OpenFlags, uint32_t(VelmoOpenGrayscale));
}

TEST(PlayerSwitches, LeftoversAndEmptyLinesAskForHelp) {
  EXPECT_FALSE(ReadLine("").ok);
  EXPECT_FALSE(ReadLine("/S").ok);
  EXPECT_FALSE(ReadLine("clip /V3").ok);
  // Taken off the line with nothing to use them for.
  EXPECT_TRUE(ReadLine("clip /+name /$12").ok);
  EXPECT_NE(std::strstr(PlayerHelpText(), "/U##"), nullptr);
}

TEST(PlayerSwitches, CancelsAndQuickPlay) {
  const Read r = ReadLine("clip /S /Q /-S");
  ASSERT_TRUE(r.ok);
  EXPECT_FALSE(r.options.Summary);
  EXPECT_TRUE(r.options.Statistics);
  const Read q = ReadLine("clip /!", "/Q /L2");
  ASSERT_TRUE(q.ok);
  EXPECT_TRUE(q.options.Statistics);
  EXPECT_EQ(q.options.LoopCount, 2);
  EXPECT_FALSE(ReadLine("clip /!2", "/Q").options.Statistics);
}

TEST(PlayerSwitches, SeveralNamesInOrder) {
  const Read r = ReadLine("one.vlm \"two words.vm2\" three /S");
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.names, (std::vector<std::string>{"one.vlm", "two words.vm2", "three"}));
}

// ---- File names -----------------------------------------------------------------------------

TEST(PlayerNames, ExtensionsAreTriedInTurn) {
  test_support::FakeFiles files;
  files.names = {"a", "b.vm2", "b.vlm", "c.vlm"};
  auto plan = [&](const char* name) { return PlayerPlanName(name, test_support::FakeExists, &files); };
  EXPECT_EQ(plan("a").Path, "a");
  EXPECT_EQ(plan("b").Path, "b.vm2");
  EXPECT_EQ(plan("c").Path, "c.vlm");
  const PlayerNamePlan missing = plan("d");
  EXPECT_EQ(missing.Path, "d");
  EXPECT_FALSE(missing.Exists);
  EXPECT_TRUE(plan("c").Exists);
  EXPECT_FALSE(plan("a").UseOffset);
}

TEST(PlayerNames, OffsetNames) {
  test_support::FakeFiles files;
  files.names = {"movie.vlm", "raw"};
  const PlayerNamePlan own = PlayerPlanName(":123456", test_support::FakeExists, &files);
  EXPECT_TRUE(own.OwnFile);
  EXPECT_TRUE(own.UseOffset);
  EXPECT_EQ(own.Offset, 123456u);
  const PlayerNamePlan bar = PlayerPlanName("movie|4096", test_support::FakeExists, &files);
  EXPECT_EQ(bar.Path, "movie.vlm");
  EXPECT_TRUE(bar.UseOffset);
  EXPECT_EQ(bar.Offset, 4096u);
  const PlayerNamePlan plain = PlayerPlanName("raw|8", test_support::FakeExists, &files);
  EXPECT_EQ(plain.Path, "raw");
  EXPECT_EQ(plain.Offset, 8u);
}

TEST(PlayerNames, MissingFileGivesTheLibrarysText) {
  test_support::ScratchDir dir;
  const PlayerNamePlan plan = PlayerPlanName(dir / "none", PlayerFileExists, nullptr);
  int own = 0;
  EXPECT_EQ(PlayerOpenPlan(plan, PlayerOptions{}, &own), nullptr);
  EXPECT_EQ(own, -1);
  EXPECT_STRNE(VelmoGetError(), "");
}

// ---- The window -----------------------------------------------------------------------------

TEST(PlayerWindow, SizesAndCentring) {
  PlayerOptions o;
  PlayerWindowPlan p = PlayerPlanWindow(o, 320, 240, 1366, 768);
  EXPECT_EQ(p.Width, 320);
  EXPECT_EQ(p.Height, 240);
  EXPECT_TRUE(p.Simple);
  EXPECT_EQ(p.X, 520);  // (1366 - 320) / 2 = 523, down to a multiple of 4
  EXPECT_EQ(p.Y, 264);
  o.WidthNum = -2;
  o.HeightNum = -3;
  o.HeightDiv = 2;
  p = PlayerPlanWindow(o, 320, 240, 1366, 768);
  EXPECT_EQ(p.Width, 640);
  EXPECT_EQ(p.Height, 360);
  EXPECT_FALSE(p.Simple);
  p = PlayerPlanWindow(o, 1000, 240, 1366, 768);
  EXPECT_EQ(p.X, 0);  // wider than the screen
  o.X = 17;
  EXPECT_EQ(PlayerPlanWindow(o, 320, 240, 1366, 768).X, 17);
}

// With a parent window, /X and /Y count from its corner and centring is over it; without one,
// from the screen's. Full screen stays the screen's size either way.
TEST(PlayerWindow, PlacedRelativeToTheParent) {
  PlayerOptions o;
  const PlayerArea parent{300, 200, 500, 401};
  PlayerWindowPlan p = PlayerPlanWindow(o, 320, 240, 1366, 768, &parent);
  EXPECT_EQ(p.X, 300 + 88);  // (500 - 320) / 2 = 90, down to a multiple of 4
  EXPECT_EQ(p.Y, 200 + 80);  // (401 - 240) / 2
  p = PlayerPlanWindow(o, 640, 480, 1366, 768, &parent);
  EXPECT_EQ(p.X, 300);  // larger than the parent: at its corner
  EXPECT_EQ(p.Y, 200);
  o.X = 17;
  o.Y = -5;
  p = PlayerPlanWindow(o, 320, 240, 1366, 768, &parent);
  EXPECT_EQ(p.X, 317);
  EXPECT_EQ(p.Y, 195);
  p = PlayerPlanWindow(o, 320, 240, 1366, 768);
  EXPECT_EQ(p.X, 17);
  EXPECT_EQ(p.Y, -5);
  o.X = o.Y = PlayerCentred;
  o.WidthNum = o.HeightNum = -1;
  p = PlayerPlanWindow(o, 320, 240, 1366, 768, &parent);
  EXPECT_EQ(p.VideoHeight, 768);
  EXPECT_EQ(p.VideoWidth, 1024);
  EXPECT_EQ(p.X, 300);
}

TEST(PlayerWindow, FullScreenKeepsTheAspect) {
  PlayerOptions o;
  o.WidthNum = o.HeightNum = -1;
  PlayerWindowPlan wide = PlayerPlanWindow(o, 320, 240, 1920, 1080);
  EXPECT_EQ(wide.VideoHeight, 1080);
  EXPECT_EQ(wide.VideoWidth, 1440);
  PlayerWindowPlan flat = PlayerPlanWindow(o, 400, 100, 1920, 1080);
  EXPECT_EQ(flat.VideoWidth, 1920);
  EXPECT_EQ(flat.VideoHeight, 480);
}

TEST(PlayerWindow, StatisticsStripAboveTheVideo) {
  PlayerOptions o;
  o.Statistics = true;
  const PlayerWindowPlan p = PlayerPlanWindow(o, 64, 64, 1920, 1080);
  EXPECT_EQ(p.StripHeight, PlayerFontHeight + 8);
  EXPECT_EQ(p.Height, 64 + p.StripHeight);
  EXPECT_GE(p.Width, PlayerTextWidth(PlayerStatisticsSample));
  EXPECT_EQ(p.VideoWidth, 64);
}

// The OpenGL path waits for the vertical sync below 62 frames per second, and not at 62 and up
// or as fast as possible (rate 0); fractions compare exactly.
TEST(PlayerWindow, SwapIntervalByRate) {
  EXPECT_EQ(PlayerSwapInterval(30, 1), 1);
  EXPECT_EQ(PlayerSwapInterval(30000, 1001), 1);
  EXPECT_EQ(PlayerSwapInterval(61999, 1000), 1);
  EXPECT_EQ(PlayerSwapInterval(62, 1), 0);
  EXPECT_EQ(PlayerSwapInterval(12400, 200), 0);
  EXPECT_EQ(PlayerSwapInterval(120, 1), 0);
  EXPECT_EQ(PlayerSwapInterval(0, 1), 0);
  EXPECT_EQ(PlayerSwapInterval(0, 0), 0);
}

}  // namespace
