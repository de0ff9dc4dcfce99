// The screen saver's rules: the mode a program name, its arguments and the daemon's window
// variable give, the options each mode plays with, and what ends a full-screen run.
#include <gtest/gtest.h>

#include "player/player_loop.h"
#include "player/player_saver.h"

namespace {

PlayerSaverMode Decide(const char* name, const char* args, const char* window = nullptr) {
  return PlayerDecideSaver(name, args, window);
}

TEST(PlayerSaverRules, OnlyAProgramNamedScrIsAScreenSaver) {
  EXPECT_EQ(Decide("/usr/bin/ORNVideo64", "/s").Kind, PlayerSaverNone);
  EXPECT_EQ(Decide("ORNVideo64", "-root", "0x1400007").Kind, PlayerSaverNone);
  EXPECT_EQ(Decide("/opt/velmo.scr", "/s").Kind, PlayerSaverFull);
  EXPECT_EQ(Decide("VELMO.SCR", "").Kind, PlayerSaverFull);
}

TEST(PlayerSaverRules, TheFirstSwitchDecides) {
  EXPECT_EQ(Decide("velmo.scr", "/c").Kind, PlayerSaverSettings);
  EXPECT_EQ(Decide("velmo.scr", "/C:3344").Kind, PlayerSaverSettings);
  EXPECT_EQ(Decide("velmo.scr", "/s /c").Kind, PlayerSaverFull);
  const PlayerSaverMode preview = Decide("velmo.scr", "/p 4567");
  EXPECT_EQ(preview.Kind, PlayerSaverPreview);
  EXPECT_EQ(preview.Window, 4567u);
  const PlayerSaverMode colon = Decide("velmo.scr", "/P:99");
  EXPECT_EQ(colon.Kind, PlayerSaverPreview);
  EXPECT_EQ(colon.Window, 99u);
  // A preview with no window to go in plays full screen.
  EXPECT_EQ(Decide("velmo.scr", "/p").Kind, PlayerSaverFull);
  EXPECT_EQ(PlayerSaverValue(Decide("velmo.scr", "/s")), 1);
  EXPECT_EQ(PlayerSaverValue(Decide("velmo.scr", "/c")), 3);
  EXPECT_EQ(PlayerSaverValue(preview), 4567);
}

TEST(PlayerSaverRules, ADaemonsWindowIsFilled) {
  const PlayerSaverMode given = Decide("velmo.scr", "-root", "0x1400007");
  EXPECT_EQ(given.Kind, PlayerSaverInWindow);
  EXPECT_EQ(given.Window, 0x1400007u);
  // The variable alone is enough, in decimal too.
  EXPECT_EQ(Decide("velmo.scr", "", "20971527").Window, 20971527u);
  // -root without a window: the whole screen in a window of our own.
  EXPECT_EQ(Decide("velmo.scr", "-root").Kind, PlayerSaverFull);
  EXPECT_EQ(Decide("velmo.scr", "-root", "junk").Kind, PlayerSaverFull);
  EXPECT_EQ(PlayerSaverValue(given), 2);
}

TEST(PlayerSaverRules, EachModePlaysWithItsOptions) {
  PlayerOptions full;
  PlayerApplySaver(Decide("velmo.scr", "/s"), &full);
  EXPECT_EQ(full.DisabledControls, 15u);
  EXPECT_TRUE(full.BlackScreen && full.HideCursor && full.AlwaysOnTop);
  EXPECT_EQ(full.WindowStyle, 2);
  EXPECT_EQ(full.WidthNum, -1);
  EXPECT_EQ(full.HeightNum, -1);
  EXPECT_EQ(full.InWindow, 0u);
  PlayerOptions preview;
  PlayerApplySaver(Decide("velmo.scr", "/p 4567"), &preview);
  EXPECT_EQ(preview.InWindow, 4567u);
  EXPECT_TRUE(preview.OpenFlags & VelmoOpenTrackList) << "a preview is silent";
  EXPECT_EQ(preview.TrackCount, 0u);
  EXPECT_FALSE(preview.AlwaysOnTop);
  PlayerOptions daemon;
  PlayerApplySaver(Decide("velmo.scr", "-root", "0x1400007"), &daemon);
  EXPECT_EQ(daemon.InWindow, 0x1400007u);
  EXPECT_EQ(daemon.DisabledControls, 15u);
  // A plain run keeps what its switches said.
  PlayerOptions plain;
  plain.Statistics = true;
  PlayerApplySaver(Decide("ORNVideo64", ""), &plain);
  EXPECT_TRUE(plain.Statistics);
  EXPECT_EQ(plain.DisabledControls, 0u);
}

PlayerEvent Event(PlayerEventType type, int32_t value = 0, int32_t x = 0, int32_t y = 0) {
  PlayerEvent e;
  e.Type = type;
  e.Value = value;
  e.X = x;
  e.Y = y;
  return e;
}

uint32_t Zero(void*) { return 0; }

TEST(PlayerSaverRules, AFullScreenRunEndsOnInputButNotOnANudge) {
  PlayerHost host;
  host.Now = Zero;
  for (const PlayerEvent& e : {Event(PlayerEventKey, PlayerKeyOther), Event(PlayerEventClick),
                               Event(PlayerEventFocus, 0)}) {
    PlayerState s;
    s.ScreenSaver = 1;
    PlayerHandleEvent(&s, host, e);
    EXPECT_EQ(s.QuitState, 1) << "event " << int(e.Type);
  }
  // The first report tells where the pointer is; reports of the same place are not movements;
  // the sixth movement to another place ends the run.
  PlayerState moved;
  moved.ScreenSaver = 2;
  PlayerHandleEvent(&moved, host, Event(PlayerEventMouseMove, 0, 100, 100));
  for (int i = 1; i <= 5; i++) {
    PlayerHandleEvent(&moved, host, Event(PlayerEventMouseMove, 0, 100 + i, 100));
    PlayerHandleEvent(&moved, host, Event(PlayerEventMouseMove, 0, 100 + i, 100));
  }
  EXPECT_EQ(moved.QuitState, 0) << "five movements do not end it";
  PlayerHandleEvent(&moved, host, Event(PlayerEventMouseMove, 0, 105, 99));
  EXPECT_EQ(moved.QuitState, 1);
  // Gaining the focus, a preview's input, and a plain run's key without a file do not quit.
  PlayerState focused;
  focused.ScreenSaver = 1;
  PlayerHandleEvent(&focused, host, Event(PlayerEventFocus, 1));
  EXPECT_EQ(focused.QuitState, 0);
  PlayerState preview;
  preview.ScreenSaver = 4567;
  PlayerHandleEvent(&preview, host, Event(PlayerEventKey, PlayerKeyOther));
  EXPECT_EQ(preview.QuitState, 0);
  PlayerState plain;
  PlayerHandleEvent(&plain, host, Event(PlayerEventKey, PlayerKeyOther));
  EXPECT_EQ(plain.QuitState, 0);
}

}  // namespace
