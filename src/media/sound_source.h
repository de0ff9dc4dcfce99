// The readers behind a SoundInput: each one delivers interleaved samples in its own format
// (a SoundFormat) through a small table of operations. The conversion to the caller's format
// happens in sound_convert.cpp; these files know nothing of it.
#pragma once
#include <cstdint>
#include <cstdio>

#include "host/progress.h"
#include "media/sound.h"

// Highest rate accepted from a file or a caller; keeps all sample arithmetic in 64 bits.
inline constexpr uint32_t SoundMaxRate = 1000000;

struct SoundFormat {
  uint32_t rate;
  uint32_t channels;          // 1 or 2
  uint32_t bits;              // 8 (unsigned), 16, 24, 32 (signed little-endian); 32, 64 float
  bool is_float;
  uint32_t bytes_per_sample;  // of one sample over all channels
  uint64_t total_samples;
};

// Fills in bytes_per_sample; false when the format is not one that the layer converts.
bool SoundFormatValid(SoundFormat* format);

struct SoundSourceOps {
  // Up to `bytes` (whole samples) into dest; fewer only at the end of the data.
  uint32_t (*read)(void* state, uint8_t* dest, uint32_t bytes);
  // Puts the next read at `sample`; false when the reader cannot get there.
  bool (*seek)(void* state, uint64_t sample);
  void (*close)(void* state);
  // Set for readers that run a foreign decoder: their calls go through the crash guard.
  bool guarded;
};

// What an opened reader hands back: its operations, state and format.
struct SoundReader {
  const SoundSourceOps* ops;
  void* state;
  SoundFormat format;
  SoundKind kind;
  const char* type_name;
};

// What the openers of the readers are given.
struct SoundOpenRequest {
  const char* name;
  uint32_t rate, bits, channels;  // the asked output format (0: as the source)
  uint32_t track;
  uint32_t force, skip;
  ProgressSink progress;
};

// Wave files: the header walk on its own (for the fuzz target and the tests).
struct SoundWaveHeader {
  uint32_t format_tag;  // 1 PCM or 3 float, after WAVE_FORMAT_EXTENSIBLE is resolved
  uint32_t channels, rate, bits, block_align;
  uint64_t data_offset, data_bytes;
  uint64_t data_claimed;  // what the data chunk states; more than data_bytes when the file is cut
};
// Reads "RIFF", a length, "WAVE" and walks the chunks for "fmt " and "data". `file_size`
// bounds the data. False for anything that is not a wave of a format the layer reads.
bool SoundReadWaveHeader(FILE* file, uint64_t file_size, SoundWaveHeader* header);
// A WAVEFORMATEX of `size` bytes (a wave's "fmt " chunk, an AVI sound stream's "strf") into
// the header's format fields, WAVE_FORMAT_EXTENSIBLE resolved to its sub-format. False for a
// format other than PCM or float, or one too short to tell.
bool SoundParseWaveFormat(const uint8_t* fmt, uint32_t size, SoundWaveHeader* header);
// The converter's format for a header (total_samples from data_bytes); false when the layer
// does not convert it.
bool SoundWaveFormat(const SoundWaveHeader& header, SoundFormat* format);

// A file of the kind that holds less than it should, or a part of it that cannot be read: a
// warning through the request's progress (printf-style; the text names the file).
void SoundWarn(const SoundOpenRequest& request, const char* format, ...)
    __attribute__((format(printf, 2, 3)));

// The openers, one per kind; each returns false when the name is not of its kind.
bool SoundOpenRaw(const SoundOpenRequest& request, SoundReader* reader);
bool SoundOpenWave(const SoundOpenRequest& request, SoundReader* reader);
bool SoundOpenAvi(const SoundOpenRequest& request, SoundReader* reader);
bool SoundOpenFlac(const SoundOpenRequest& request, SoundReader* reader);
bool SoundOpenVorbis(const SoundOpenRequest& request, SoundReader* reader);
bool SoundOpenList(const SoundOpenRequest& request, SoundReader* reader);
bool SoundOpenVelmo(const SoundOpenRequest& request, SoundReader* reader);
// Whether the name is a list file (".lst") or a series pattern.
bool SoundIsListName(const char* name);

// The private part of a SoundInput: the reader and the conversion state.
struct SoundSource {
  SoundReader reader;
  uint64_t first_sample;  // where the asked range starts in the reader
  uint8_t* block;         // source bytes read ahead
  uint32_t block_bytes, block_fill, block_at;
  bool short_read;        // the reader gave out before the promised end
  bool short_warned;      // ... and that was said (once for the input)
  bool primed;            // the first sample was read ahead for the interpolator
  bool drained;           // the interpolator has no further source sample
};

// Conversion (sound_convert.cpp): fills `count` output samples; returns how many it made.
uint32_t SoundConvert(SoundInput* sound, uint8_t* out, uint32_t count);
// Scales a finished block of output by sound->gain.
void SoundApplyGain(const SoundInput* sound, uint8_t* out, uint32_t samples);
