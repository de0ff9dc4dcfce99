// VelmoPlay's command line: the switches with the open flags they set, and the rules that turn a
// file name into what the reader library opens (offset names, tried extensions, a shared reopen
// of a file that a compressor is still writing).
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "velmo.h"

// Bits of /U: controls the user cannot use.
enum PlayerDisabled : uint32_t {
  PlayerDisablePause = 1,
  PlayerDisableSkip = 2,
  PlayerDisableQuit = 4,
  PlayerDisableSlider = 8,
};

// Draw types of /! (low five bits).
enum PlayerDrawType : int32_t { PlayerDrawChoose = 0, PlayerDraw2D = 1, PlayerDrawGL = 2 };

constexpr int32_t PlayerCentred = -3000;
constexpr uint32_t PlayerMaxTracks = 8;

struct PlayerOptions {
  uint32_t OpenFlags = VelmoOpenAlpha;  // alpha is decoded unless /A10000 says no
  int32_t LoopCount = 1;                // 1 once, 0 forever
  bool ForceRate = false;               // /F: Rate / RateDiv, rate 0 as fast as possible
  uint32_t Rate = 0, RateDiv = 1;
  uint32_t TrackCount = 0;              // /T
  uint32_t TrackIds[PlayerMaxTracks] = {};
  int32_t SoundOutput = 0;              // /Z
  bool Summary = false;                 // /S
  int32_t X = PlayerCentred, Y = PlayerCentred;
  // /W and /H: a size in pixels, or a negative scale factor (-1 full screen); 0 unchanged.
  int32_t WidthNum = 0, WidthDiv = 1, HeightNum = 0, HeightDiv = 1;
  bool BlackScreen = false;             // /R
  bool HideCursor = false;              // /C
  uint32_t SimulateRate = 0;            // /M, bytes per second
  uint64_t ReadBufferSize = 0;          // /E
  uint32_t DisabledControls = 0;        // /U
  bool Statistics = false;              // /Q
  bool PauseOnFocusLoss = false;        // /J
  int32_t WindowStyle = 0;              // /I: 0 normal, 1 no caption, 2 nothing
  bool AlwaysOnTop = false;             // /I plus 100
  int32_t DrawType = PlayerDrawChoose;  // /!
  int32_t DisplayWidth = 0, DisplayHeight = 0;  // /D, /B
  intptr_t Parent = 0;                  // /#
  uint64_t InWindow = 0;                // a window of another program to fill (screen saver)
};

// Reads the switches of `line` (the command tail, changed in place: each switch read is taken
// off) into `options`, and the file names left into `names`. Returns false when a switch no
// rule takes is left, or when no name is given: the caller then shows the help text.
// `quickPlay` is the stored text that a bare "/!" appends first.
bool PlayerReadLine(char* line, size_t lineSize, const char* quickPlay, PlayerOptions* options,
                    std::vector<std::string>* names);

// The help text of the player.
const char* PlayerHelpText();

// ---- File names -----------------------------------------------------------------------------

// What one name on the command line opens.
struct PlayerNamePlan {
  std::string Path;          // the file to open ("" for the program's own file)
  bool OwnFile = false;      // ":offset": the program's own file
  bool UseOffset = false;    // open flag 0x20 with Offset
  uint64_t Offset = 0;
  bool Exists = false;       // Path names an existing file (else the plain open reports why)
};

// Existence check for the name rules; the player passes the file system's.
typedef bool (*PlayerExistsFn)(const char* path, void* context);
bool PlayerFileExists(const char* path, void* context);

// Applies the name rules: ":n" is the program's own file at offset n; "name|n" is name at offset
// n, with ".vlm" added when the name as given does not exist; a name that does not exist is
// tried with ".vm2" and then ".vlm" behind it.
PlayerNamePlan PlayerPlanName(const std::string& name, PlayerExistsFn exists, void* context);

// The open of one plan with the options' flags and values: the plain open first; an existing
// file that does not open is opened again through a handle of the player's own, shared for
// reading and writing (open flag 0x800000), so that a file still being written plays. That
// handle is stored in `*ownHandle` (else -1), and the caller closes it after the file. Returns
// null with VelmoGetError's text set when neither works.
HVELMO PlayerOpenPlan(const PlayerNamePlan& plan, const PlayerOptions& options, int* ownHandle);
