// VelmoConv: the converter tool. Reads any input of the media layer and writes it through the
// output writers: AVI, y4m (also "-" for standard output), still-image series, or (from a wave
// input) a wave or raw sample file. Runs behind the tool shell.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/switches.h"
#include "host/outfile.h"
#include "host/toolframe.h"
#include "media/media.h"

// The switches of one run after parsing.
struct VelmoConvSettings {
  MediaSwitches video;
  int32_t track;          // /N (0; -1 no audio)
  bool overwrite;         // /O
  bool sound_only;        // /V, or a ".WAV"/".RAW" output name
  uint32_t forced_input;  // /L - 1 in the low three bits, /G << 3 above (0: none)
  int32_t skip_bytes;     // /M
  int32_t start_ms, end_ms;  // /J /K
  int32_t rate, bits, channels;  // /R /B /C
  int32_t format_option;  // /P: AVI codec (0 raw, 1 Motion-JPEG) or y4m chroma (420, 444)
  char input[PathBytes];
  char output[PathBytes];
  SwitchErrors errors;    // the value of a switch that was refused, by name
};

// Parses a command tail (changed in place). False when the help is due: no input, no output,
// or an output name that holds a "/".
bool VelmoConvParseSwitches(char* line, VelmoConvSettings* settings);
// Adds ".wav" (sound input or /V) or ".avi" when the output name has no extension, and sets
// `sound_only` for ".WAV" and ".RAW" outputs.
void VelmoConvCompleteOutput(VelmoConvSettings* settings);
// True when both names reach the same file (or are equal names).
bool VelmoConvSameFile(const char* a, const char* b);

// The tool's routines for the tool shell.
int VelmoConvMain(char* commandTail, ToolDialog* dialog);
int VelmoConvCommand(int commandId, ToolDialog* dialog);
// Registers the "velmoconv" dialog (also done when the program starts).
void VelmoConvRegisterDialog();

// Dialog control ids.
enum VelmoConvControl {
  VelmoConvIdType = 300,
  VelmoConvIdOutput = 301,
  VelmoConvIdVideo = 302,
  VelmoConvIdStatus = 303,
  VelmoConvIdElapsed = 304,
  VelmoConvIdRemaining = 305,
  VelmoConvIdSpare = 306,
  VelmoConvIdProjected = 307,
  VelmoConvIdAudio = 308,
  VelmoConvIdCaption = 105,
};
