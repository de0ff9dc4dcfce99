// The screen saver's rules: what a program whose file name ends in "scr" does with its
// arguments, and with the window a screen-saver daemon hands to its hacks.
#pragma once
#include <cstdint>

#include "player/player_options.h"

enum PlayerSaverKind {
  PlayerSaverNone,      // not a screen saver: a plain player run
  PlayerSaverFull,      // "/s" or nothing, or "-root" with no window given: full screen
  PlayerSaverSettings,  // "/c": there are no settings
  PlayerSaverPreview,   // "/p n": a silent preview inside window n
  PlayerSaverInWindow,  // a daemon's window (XSCREENSAVER_WINDOW): full screen in it
};

struct PlayerSaverMode {
  PlayerSaverKind Kind = PlayerSaverNone;
  uint64_t Window = 0;  // the preview's parent or the daemon's window
};

// The mode for a program started as `programName` with the command tail `args`;
// `daemonWindow` is the XSCREENSAVER_WINDOW variable's value (null when unset).
PlayerSaverMode PlayerDecideSaver(const char* programName, const char* args,
                                  const char* daemonWindow);

// The player state's screen saver value for a mode: 0 none, 1 full screen, 2 full screen in a
// given window, 3 settings, above 15 a preview (the parent window).
int64_t PlayerSaverValue(const PlayerSaverMode& mode);

// The options a mode plays with: full screen, on top, no caption, black around the video, no
// cursor and all controls off; a preview has no tracks (silent) and fills its parent.
void PlayerApplySaver(const PlayerSaverMode& mode, PlayerOptions* options);
