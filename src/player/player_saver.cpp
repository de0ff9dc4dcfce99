// The screen saver's rules.
#include "player/player_saver.h"

#include <cstdlib>
#include <cstring>

#include "player/player_builtin.h"

namespace {

// The first word of `text` (blanks skipped) into `word`; returns what follows it.
const char* Word(const char* text, char* word, size_t size) {
  while (*text == ' ' || *text == '\t') text++;
  size_t n = 0;
  while (*text && *text != ' ' && *text != '\t') {
    if (n + 1 < size) word[n++] = *text;
    text++;
  }
  word[n] = 0;
  return text;
}

bool HasWord(const char* text, const char* wanted) {
  char word[64];
  for (;;) {
    text = Word(text, word, sizeof word);
    if (!word[0]) return false;
    if (std::strcmp(word, wanted) == 0) return true;
  }
}

// A window id as the daemon writes it: decimal or "0x" hexadecimal.
uint64_t WindowId(const char* text) {
  if (!text) return 0;
  char* end = nullptr;
  const unsigned long long id = std::strtoull(text, &end, 0);
  return end != text ? uint64_t(id) : 0;
}

}  // namespace

PlayerSaverMode PlayerDecideSaver(const char* programName, const char* args,
                                  const char* daemonWindow) {
  PlayerSaverMode mode;
  if (!PlayerIsScreenSaverName(programName ? programName : "")) return mode;
  args = args ? args : "";
  const uint64_t daemon = WindowId(daemonWindow);
  if (daemon) return {PlayerSaverInWindow, daemon};
  mode.Kind = PlayerSaverFull;
  if (HasWord(args, "-root")) return mode;
  // The first switch decides; its letter may carry its value behind a colon ("/p:1234").
  char word[64];
  const char* rest = Word(args, word, sizeof word);
  if ((word[0] != '/' && word[0] != '-') || !word[1]) return mode;
  const char letter = char(word[1] | 0x20);
  if (letter == 'c') mode.Kind = PlayerSaverSettings;
  if (letter == 'p') {
    char value[64];
    Word(rest, value, sizeof value);
    const uint64_t parent = WindowId(word[2] == ':' ? word + 3 : value);
    // A preview with no window to go in has nowhere to play: full screen then.
    if (parent) mode = {PlayerSaverPreview, parent};
  }
  return mode;
}

int64_t PlayerSaverValue(const PlayerSaverMode& mode) {
  switch (mode.Kind) {
    case PlayerSaverNone: return 0;
    case PlayerSaverFull: return 1;
    case PlayerSaverInWindow: return 2;
    case PlayerSaverSettings: return 3;
    case PlayerSaverPreview: return int64_t(mode.Window > 15 ? mode.Window : 16);
  }
  return 0;
}

void PlayerApplySaver(const PlayerSaverMode& mode, PlayerOptions* o) {
  if (mode.Kind == PlayerSaverNone || mode.Kind == PlayerSaverSettings) return;
  // The whole screen, or the whole of the window given.
  o->WidthNum = o->HeightNum = -1;
  o->WidthDiv = o->HeightDiv = 1;
  o->X = o->Y = PlayerCentred;
  o->DisabledControls = PlayerDisablePause | PlayerDisableSkip | PlayerDisableQuit |
                        PlayerDisableSlider;
  o->Statistics = false;
  o->InWindow = mode.Kind == PlayerSaverFull ? 0 : mode.Window;
  if (mode.Kind == PlayerSaverPreview) {
    // Silent: a track list that names no track.
    o->OpenFlags |= VelmoOpenTrackList;
    o->TrackCount = 0;
    o->Parent = intptr_t(mode.Window);
    return;
  }
  o->BlackScreen = true;
  o->WindowStyle = 2;
  o->AlwaysOnTop = true;
  o->HideCursor = true;
}
