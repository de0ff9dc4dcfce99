// The player's loop: the files of the command line one after another in one window, the message
// loop with its sleep debt, the play step that presents frame N while frame N + 1 decodes on the
// async threads, pausing, seeking by keys and by the slider, loops and repeats.
//
// Everything outside the process's own state comes through a host record of functions: the
// clock and sleep, the event source, and presentation. The program's host is the SDL window;
// tests give a fake clock, a scripted list of events and a presentation that only records, so
// that the loop runs without a display and without sleeping.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "player/player_options.h"
#include "velmo.h"

enum PlayerKey : int32_t {
  PlayerKeyOther = 0,
  PlayerKeySpace,
  PlayerKeyEnter,
  PlayerKeyEscape,
  PlayerKeyHome,
  PlayerKeyEnd,
  PlayerKeyLeft,
  PlayerKeyRight,
  PlayerKeyUp,
  PlayerKeyDown,
  PlayerKeyDot,         // "."
  PlayerKeyBackground,  // "b" or "B"
  PlayerKeyLook,        // "h" or "H": the next of the HDR looks
};

enum PlayerEventType : int32_t {
  PlayerEventKey,
  PlayerEventClick,      // left, right or middle button at (X, Y)
  PlayerEventMouseMove,  // the pointer now at (X, Y)
  PlayerEventFocus,      // Value 1 gained, 0 lost
  PlayerEventClose,      // the window's close box
};

struct PlayerEvent {
  PlayerEventType Type = PlayerEventKey;
  int32_t Value = 0;  // the PlayerKey, or the focus state
  int32_t X = 0, Y = 0;
};

constexpr int32_t PlayerExposureLow = -40, PlayerExposureHigh = 4;
constexpr int32_t PlayerHdrLooks = 3;
// A screen saver shows its first frame this long after it starts, so that the mouse movement
// that started it has passed.
constexpr uint32_t PlayerSaverStartDelay = 501;
constexpr int32_t PlayerSleepDebtLimit = 100;
// The end-card: how long it shows, the passes it is given (more than it can play in that
// time), and the query that a click adds to the maker's address.
constexpr uint32_t PlayerEndCardMs = 2250;
constexpr int32_t PlayerEndCardLoops = 0x10000;
constexpr const char* PlayerMakerQuery = "?from=velmoplay64&ver=2020.06.2";

// The process's player state. Tests read it after a run.
struct PlayerState {
  PlayerOptions Options;
  std::vector<std::string> Names;
  size_t NextName = 0;
  HVELMO Handle = nullptr;
  int OwnHandle = -1;           // a file handle the player opened itself, closed with the file
  std::string FileTitle;        // the file name without its path
  int32_t LoopCount = 1;        // passes left of this file; below 1 (from 0) is forever
  uint32_t RepeatAll = 1;       // passes over the list of names
  bool Paused = false;
  uint32_t Seeking = 0;         // target frame, 0 when not seeking
  uint32_t ShownFrame = 0;
  int32_t SleepDebt = 0;
  int32_t QuitState = 0;        // 1 the user quits; 2 the user leaves the end-card
  bool GoNextFile = false;
  bool Leaving = false;
  int32_t Exposure = 0;         // quarter stops
  int32_t HdrLook = 1;          // HDR display curve: 0 clips, 1 and 2 roll off near the peak
  bool LightBackground = false;
  uint32_t MouseTime = 0;
  bool MouseMoved = false;
  bool HasFocus = true;
  bool UserPaused = false;      // the pause to restore when the focus comes back (/J)
  bool SoundOffBySeek = false;  // sound was switched off by a seek; on again at the next Space
  uint32_t AsyncThreads[8] = {};
  uint32_t AsyncCount = 0;
  uint32_t SkippedBlits = 0;
  uint32_t FramesPresented = 0;
  int32_t ScreenWidth = 0, ScreenHeight = 0;  // the display's mode, for the summary
  bool UsesGpu = false;
  bool DisplaySwitched = false;  // /D and /B changed the display's mode; put back when leaving
  // Screen saver: 0 none, 1 or 2 full screen (any key, click, focus loss or mouse travel ends
  // the run), 3 settings, above 15 a preview in that window.
  int64_t ScreenSaver = 0;
  int32_t SaverMoves = 0;       // mouse movements to another place while a full-screen saver runs
  bool SaverMouseKnown = false; // where the mouse was last seen by the saver
  int32_t SaverMouseX = 0, SaverMouseY = 0;
  uint32_t StartTime = 0;       // when the run began: a screen saver's first frame waits
  std::string Error;            // the text of a failure, shown in "Velmo Error"
  std::string Summary;          // with /S, formed before the last handle closed
  // The end-card that follows the last file: a clip in memory (none when null), and the
  // maker's page that a click on it opens (nothing when empty).
  const void* EndCardClip = nullptr;
  size_t EndCardSize = 0;
  std::string MakerPage;
  bool EndCard = false;         // the end-card plays
  uint32_t EndCardStart = 0;    // when it began
};

// The host's services. `Context` is handed back to each.
struct PlayerHost {
  void* Context = nullptr;
  uint32_t (*Now)(void* context) = nullptr;
  void (*Sleep)(void* context, uint32_t milliseconds) = nullptr;
  // The next waiting event; false when none waits.
  bool (*NextEvent)(void* context, PlayerEvent* event) = nullptr;
  // After each open: make the presentation for the file (size the window, title). False with
  // state->Error set when the file cannot be shown this way.
  bool (*Setup)(void* context, PlayerState* state) = nullptr;
  // Presents the frame just completed (state->ShownFrame); while state->Seeking the 2-D path
  // leaves its picture as it is.
  void (*Present)(void* context, PlayerState* state) = nullptr;
  // Whether the slider shows now, and the frame a click at (x, y) seeks to (0: not on it).
  uint32_t (*SliderFrame)(void* context, const PlayerState* state, int32_t x, int32_t y) = nullptr;
  // Called once when leaving, with the handle still open.
  void (*Leave)(void* context, PlayerState* state) = nullptr;
  // The sound back end: registered once before the first open; a null select plays silently
  // (or the caller registered one itself).
  VelmoSoundSelect SoundSelect = nullptr;
  uintptr_t SoundParameter = 0;
  // Called with each file just opened, before Setup (several speakers route its tracks here).
  void (*Opened)(HVELMO handle) = nullptr;
  // Opens a web address with the desktop's handler (the end-card's click).
  void (*OpenPage)(void* context, const char* address) = nullptr;
  // Async threads to start (0: one per processor, at most 8).
  uint32_t AsyncThreadCount = 0;
  // The display mode of /D and /B: switches the display to width x height, its depth kept;
  // false when the display has no such mode. RestoreDisplay puts back the mode found before.
  bool (*SwitchDisplay)(void* context, int32_t width, int32_t height) = nullptr;
  void (*RestoreDisplay)(void* context) = nullptr;
};

// Runs the player over state->Names with state->Options. Returns the exit code: 0, or 1 when a
// file could not be opened or shown (state->Error holds the text).
int PlayerRun(PlayerState* state, const PlayerHost& host);

// The pieces of the loop, for the tests and the window host.
void PlayerHandleEvent(PlayerState* state, const PlayerHost& host, const PlayerEvent& event);
void PlayerPlayStep(PlayerState* state, const PlayerHost& host);
// Seeks to `target`, or with `relative` to the frame last shown plus `target`.
void PlayerSeek(PlayerState* state, const PlayerHost& host, int32_t target, bool relative);

// Window placement after each open.
struct PlayerWindowPlan {
  int32_t X = 0, Y = 0;                     // window position on the screen
  int32_t Width = 0, Height = 0;            // client size, statistics strip included
  int32_t VideoWidth = 0, VideoHeight = 0;  // the picture's shown size
  int32_t StripHeight = 0;                  // the statistics strip above the video
  bool Simple = true;                       // shown at the frame's own size
};
// A rectangle on the screen: the parent window that /# names, for placing.
struct PlayerArea {
  int32_t X = 0, Y = 0, Width = 0, Height = 0;
};
// The window for a frame: its size by /W, /H and /Q, and its place by /X and /Y (or centred).
// With a `parent`, the place is taken relative to that window and centring is over it;
// without one, relative to the screen. Full screen always means the screen's size.
PlayerWindowPlan PlayerPlanWindow(const PlayerOptions& options, int32_t frameWidth,
                                  int32_t frameHeight, int32_t screenWidth, int32_t screenHeight,
                                  const PlayerArea* parent = nullptr);
