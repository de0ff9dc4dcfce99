// VelmoMix: lays a sound into a Velmo file that already exists without touching its video.
// Every frame's video bytes are copied as they are; each sound track of the input is copied
// packet by packet, dropped, or replaced by a newly encoded one, and new tracks go last.
#pragma once
#include <cstddef>
#include <cstdint>

#include "compress/velmo_writer.h"
#include "host/switches.h"
#include "host/outfile.h"
#include "host/toolframe.h"

// The caller's description of one track to lay in (or, with no sound, to remove).
struct VelmoMixTrack {
  uint32_t TrackId;
  uint32_t SampleRate;  // 0: no sound, the input's track of this id is removed
  uint32_t Bits, Channels;
  int32_t Level;        // sound level as the compressor's /L (0-199)
  void* Source;
  VelmoReadSamplesFn ReadSamples;  // 16-bit samples of SampleRate and Channels
};

// Progress kinds: 1 a label for the status line (once a frame), 3 a failure to show.
typedef int (*VelmoMixProgressFn)(uint32_t kind, const char* text, void* user);

// What the mixer tells its caller while it runs. The counters are written by the mixer and
// read by the tool's timer tick on another thread.
struct VelmoMixProgress {
  VelmoMixProgressFn Report;  // a non-zero answer to kind 1 stops after the current frame
  void* User;
  volatile uint32_t FramesDone;
  volatile uint32_t TotalFrames;
  volatile uint64_t FileSize;  // output bytes so far
  uint32_t Width, Height;      // of the input, once its header was read
  uint32_t Cancelled;          // the run stopped at a non-zero answer; the output was deleted
  uint32_t Failure;            // why a run that returned 0 failed (VelmoMixFailure)
};

// What ended a failed mix.
enum VelmoMixFailure : uint32_t {
  VelmoMixFailedInput = 1,   // the input or the sound could not be used
  VelmoMixFailedOutput = 2,  // the output could not be made or put in place
  VelmoMixFailedWrite = 3,   // a write fell short (full disk)
};

// Mixes `inputPath` (its Velmo data `inputOffset` bytes in) into `outputPath`, through
// "<outputPath>.tmp". A zero rate keeps the input's frame rate. `start` is the new sound's
// start: 0 at once, negative a lead of that many milliseconds of silence, positive a frame
// number from 1. Returns the output's size, or 0 after a failure (told through `progress`,
// which may be null), a cancel, or when trackCount is 0.
uint64_t VelmoMixFile(const char* inputPath, const char* outputPath, uint64_t inputOffset,
                      uint32_t rateNumerator, uint32_t rateDenominator, int32_t start,
                      uint32_t trackCount, const VelmoMixTrack* tracks,
                      VelmoMixProgress* progress);

// The zero bytes a new track starts with: `start` as for VelmoMixFile, at `bytesPerSecond`
// and a frame rate of rateNumerator / rateDenominator; a multiple of 4.
uint32_t VelmoMixSilenceBytes(int32_t start, uint32_t bytesPerSecond, uint32_t rateNumerator,
                              uint32_t rateDenominator);

// The switches of a mix after parsing.
struct VelmoMixSettings {
  int32_t Level = 4;         // /L
  uint32_t TrackId = 0;      // /T
  int32_t Start = 0;         // /N: a frame from 1, or negative milliseconds
  bool Loop = false;         // /P
  uint32_t RateNumerator = 0, RateDenominator = 0;  // /F; 0: the file's
  uint32_t SoundRate = 0, SoundBits = 0, SoundChannels = 0;  // /R /B /C
  uint32_t SoundTrack = 0;   // /I
  uint32_t StartMs = 0, EndMs = 0;  // /S /E
  uint32_t Force = 0, Skip = 0;     // /Y with /D, and /K
  bool Overwrite = false;    // /O
  uint64_t InputOffset = 0;  // "|offset" behind the input name
  char Input[PathBytes] = {};
  char Sound[PathBytes] = {};
  char Output[PathBytes] = {};
  SwitchErrors Errors;       // the value of a switch that was refused, by name
};

// Parses a command tail (changed in place). False on a syntax error: a bad level, a missing
// name or a switch the mixer does not know.
bool VelmoMixParseSwitches(char* line, VelmoMixSettings* settings);
// Adds ".vlm" to an input name without an extension; an output name without one gets ".vm2"
// when the input (read at `offset`) is of the second generation, else ".vlm".
void VelmoMixInputExtension(char* name, size_t size);
void VelmoMixOutputExtension(char* name, size_t size, const char* input, uint64_t offset);

// The tool's routines for the tool shell.
int VelmoMixMain(char* commandTail, ToolDialog* dialog);
int VelmoMixCommand(int commandId, ToolDialog* dialog);
// Registers the "velmomix" dialog (also done when the program starts).
void VelmoMixRegisterDialog();

// Dialog control ids.
enum VelmoMixControl {
  VelmoMixIdInput = 301,
  VelmoMixIdOutput = 302,
  VelmoMixIdSoundFile = 304,
  VelmoMixIdSound = 305,
  VelmoMixIdElapsed = 306,
  VelmoMixIdRemaining = 307,
  VelmoMixIdFinal = 308,
};
