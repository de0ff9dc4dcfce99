// Sound input: one call opens a sound from a wave file, a raw file, the PCM sound of an AVI
// file, a FLAC or Ogg Vorbis file, a Velmo file's track or a list of these; the caller then reads interleaved PCM in the
// format it asked for. Rate, bit and channel conversion happen on the fly.
#pragma once
#include <cstdint>
#include <cstdio>

#include "host/outfile.h"
#include "host/progress.h"

struct SwitchErrors;
struct SwitchRule;

struct SoundSource;  // the open reader behind a SoundInput (file, list entry, track)

enum SoundKind : uint32_t {
  SoundKindFile = 1,   // wave, raw, AVI, FLAC, Vorbis
  SoundKindList = 4,
  SoundKindVelmo = 6,  // a track of a Velmo file
};

struct SoundInput {
  char file_name[PathBytes];
  // "Wave", "Raw", "AVI", "FLAC", "Ogg Vorbis", "Velmo track", "List"
  const char* type_name;
  int at_end;

  // The output format, and the bytes of one output sample over all channels.
  uint32_t rate, bits, channels;
  uint32_t bytes_per_sample;
  uint64_t output_count;  // samples delivered

  // The source format.
  uint32_t source_rate, source_bits, source_channels;
  uint32_t source_bytes_per_sample;
  int source_float;  // the source samples are IEEE floats (source_bits 32 or 64)
  uint64_t total_source_samples;
  uint64_t source_index;  // samples read from the source

  SoundKind kind;

  // Linear interpolation state for raising the rate: the last source sample read (left,
  // right), and the value delivered and its step per output sample in 22.10 fixed point.
  int32_t interp_left, interp_right;
  int32_t interp_value_left, interp_value_right;
  int32_t interp_step_left, interp_step_right;

  ProgressSink progress;
  int reported;  // "Processing sound data" was said once (level 1 first, then 0)

  uint64_t remaining_bytes, total_bytes;  // output bytes left and promised
  uint64_t skip_bytes;                    // not used: a list seeks entry by entry

  int64_t gain;  // normalising: each output value becomes value * gain >> 32; 0 or 0x10000: none

  SoundSource* source;  // private
};

// Opens `name`. rate, bits, channels of 0 mean "as the source". The output is 8 bits
// (unsigned) when 8 is asked or the source has 8-bit integer samples, else 16 bits (signed);
// one or two channels. Sources have one or two channels. bits / 100 is a normalising
// level in percent of full scale (16 + 100 * level); 0 means no normalising. start_ms/end_ms
// bound the span (end 0: to the end). track chooses a Velmo file's sound track (index). force
// is a raw type + rate * 8 - 1 (0: none) and skip the bytes before a raw file's samples.
// Returns null when no reader opens the name; nothing is reported.
SoundInput* SoundOpen(const char* name, uint32_t rate, uint32_t bits, uint32_t channels,
                      uint32_t start_ms, uint32_t end_ms, uint32_t track, uint32_t force,
                      uint32_t skip, ProgressSink progress);

// Fills buffer with up to count bytes (rounded down to whole samples); 0 at the end. With a
// progress function, each call reports "Processing sound data (%i%%)..."; a non-zero answer
// (cancel) ends the sound. A source that gives out early ends it too (at_end).
uint32_t SoundRead(SoundInput* sound, void* buffer, uint32_t count);
void SoundRewind(SoundInput* sound);
void SoundClose(SoundInput* sound);

// The sound switches of a command line (/R rate, /B bits, /C channels, /S start, /E end,
// /T track, /Y raw type 1-4, /D raw rate (default 11025), /K skip), consumed from the line.
struct SoundSwitches {
  uint32_t rate, bits, channels;
  uint32_t start_ms, end_ms;
  uint32_t track;
  uint32_t force, skip;
};
// Returns false with a syntax error, which `errors` (when given; see host/switches.h) names;
// `line` keeps what it did not consume.
bool SoundParseSwitches(char* line, SoundSwitches* out, SwitchErrors* errors = nullptr);
// The letters SoundParseSwitches asks for, for a tool's SwitchLetters.
inline constexpr char SoundSwitchLetters[] = "RBCSETKYD";
// The rules of /R, /B and /C, for the tools that read them on their own.
extern const SwitchRule SoundRateRule, SoundBitsRule, SoundChannelsRule;
