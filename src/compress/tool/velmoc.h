// Velmoc: the compressor tool. Reads frames from a source, plans each frame's bytes and hands
// the frames to VelmoWriter; runs behind the tool shell (progress dialog, cancel, summary).
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host/switches.h"
#include "host/outfile.h"
#include "host/toolframe.h"
#include "media/media.h"

// The compress switches after parsing.
struct VelmocSettings {
  int32_t DataRate = 0;          // /D
  uint32_t PeakSetting = 300;    // /M: times 100 up to 1000, bytes per second above
  uint32_t KeyPromotion = 100;   // /J: read, and always held as 100
  uint32_t KeyInterval = 0x10000000;  // /K
  uint32_t PreviewFrames = 8;    // /P
  // /S /E /F /A as the media layer read them (the same values are in Media).
  int32_t StartFrame = 0, EndFrame = 0;  // /S /E (from 1; 0 = not given; negative from the end)
  int32_t ForceRateNum = 0, ForceRateDen = 0;   // /F
  int32_t AdjustRateNum = 0, AdjustRateDen = 0; // /A
  int32_t TrackId = 0;           // /T
  int32_t SoundLevel = 4;        // /L
  int32_t SoundRate = 0, SoundBits = 0, SoundChannels = 0;  // /R /B /C
  bool Grayscale = false;        // /I
  uint32_t KeyRate = 0;          // /N
  uint32_t Graphics = 0;         // /Z (also read by the media layer, as open flags)
  uint32_t Cpus = 0;             // /U (0 = all)
  uint32_t VersionSwitch = 200;  // /V as given, with its added bits
  uint32_t Nits = 10000;         // /$
  bool Overwrite = false;        // /O
  char HintFile[PathBytes] = {};      // /@
  char ExtraText[1024] = {};     // /*
  uint32_t ExtraTextLength = 0;  // with its terminating zero; 0 when none
  MediaSwitches Media{};         // the video switches, read after the compressor's own
  char Input[PathBytes] = {};
  char Output[PathBytes] = {};
  SwitchErrors Errors;           // the value of a switch that was refused, by name
};

// Parses a command tail (changed in place): the compressor's switches first, then the media
// layer's video switches from what is left (several letters mean different things to the two,
// and the compressor's meaning wins). False on a syntax error.
bool VelmocParseSwitches(char* line, VelmocSettings* settings);
// The version written: /V's low ten bits, 0 meaning 200, HDR versions stored as 200.
uint32_t VelmocVersion(const VelmocSettings& settings);
bool VelmocWantsHdr(const VelmocSettings& settings);
// The flag word for VelmoWriterOpen (before alpha is checked against the input).
uint32_t VelmocFlagWord(const VelmocSettings& settings);
// Adds ".vlm" or ".vm2" when the name has no extension.
void VelmocDefaultExtension(char* name, size_t size, uint32_t version);

// The hint file's per-frame tables, one entry per frame of the run.
struct VelmocHints {
  std::vector<uint32_t> Rate, Peak, Bright, Contrast, Smooth, BlackClamp;
  std::vector<float> Gamma;
  std::vector<uint8_t> Key, Denoise;
};
// Reads a hint file for a run of `runFrames` frames starting at input frame `runStart` (from
// 0). `inputRate` is the input's bytes per second, for percentage rates. The filter tables
// start at the values of `filters` (the switches; null gives zeros), so that a hint column
// replaces the switch for its frames, 0 included. False when the file cannot be read.
bool VelmocLoadHints(const char* path, uint32_t runStart, uint32_t runFrames, uint32_t inputRate,
                     const MediaSwitches* filters, VelmocHints* hints);
// Parses one hint line into the tables (exposed for tests).
void VelmocApplyHintLine(const char* line, uint32_t runStart, uint32_t runFrames,
                         uint32_t inputRate, VelmocHints* hints);
// The filter values that frame `frame` of the run is read with: the tables' (which start at
// the switches' values), with gamma from the switches unless the hint file gives one.
MediaFrameArgs VelmocFrameFilters(const MediaSwitches& switches, const VelmocHints& hints,
                                  uint32_t frame);

// The View button's preview: plays `file` (the program's own player, `ORNVideo64 velmoplay
// "<file>" /!`), at the lowest priority when asked, and returns when the player has ended.
// Tests install their own starter; null goes back to the player.
typedef int (*VelmocPreviewStarter)(const char* file, bool lowPriority);
void VelmocSetPreviewStarter(VelmocPreviewStarter starter);

// The tool's routines for the tool shell.
int VelmocMain(char* commandTail, ToolDialog* dialog);
int VelmocCommand(int commandId, ToolDialog* dialog);
// Registers the "velmoc" dialog (also done when the program starts).
void VelmocRegisterDialog();

// Dialog control ids.
enum VelmocControl {
  VelmocIdInput = 301,
  VelmocIdOutput = 302,
  VelmocIdFormat = 304,
  VelmocIdSound = 305,
  VelmocIdElapsed = 306,
  VelmocIdRemaining = 307,
  VelmocIdProjected = 308,
  VelmocIdRate = 309,
  VelmocIdView = 500,
};
