// Output writers of the converter: finished frames and sound go into an AVI file, a numbered
// series of still images (PNG, TGA, BMP, JPEG, TIFF, OpenEXR), or a YUV4MPEG2 stream. The
// extension of the output name alone picks the kind.
//
// Every file is written under a temporary name (host/outfile.h) and takes its target's place
// only when the writer closes after a run that went well: the files of a still series are
// renamed together at the close, so a failed or cancelled run leaves the old files as they were.
//
// Frames come as 32-bit ARGB pixels (A in the top byte), or four floats R, G, B, A a pixel
// with flag 0x10. `pixels` points at the top row in display order and `pitch` counts pixels
// from one display row to the next (negative for bottom-up memory).
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/outfile.h"
#include "host/progress.h"

// Asks whether an existing file may be replaced; true for yes.
typedef bool (*OutputAskFn)(const char* question, void* context);

enum OutputOpenFlags : uint32_t {
  OutputFlagQuietUnknown = 0x01,  // no message for an unknown type
  OutputFlagPromptDone = 0x02,    // the overwrite question has been dealt with
  OutputFlagFloat = 0x10,         // frames are four floats a pixel
  OutputFlagAlpha = 0x20,         // keep the alpha channel where the format can
  OutputFlagPalette = 0x40,       // palette frames
};

enum OutputKind {
  OutputKindJpeg = 2,
  OutputKindTiff = 4,
  OutputKindGif = 6,
  OutputKindPng = 32,
  OutputKindTga = 33,
  OutputKindBmp = 34,
  OutputKindExr = 40,
  OutputKindY4m = 96,
  OutputKindAvi = 128,
};

// The video codec of an AVI file.
enum OutputCodec {
  OutputCodecRaw = 0,    // uncompressed BGR (BGRA with alpha), bottom-up rows, all key frames
  OutputCodecMjpeg = 1,  // Motion-JPEG, one JPEG picture a frame
};

inline constexpr uint64_t OutputDefaultRiffLimit = 1ull << 30;

// Choices that a dialog or the command line would make; a null pointer takes the defaults.
struct OutputOptions {
  int codec;            // an OutputCodec
  int jpeg_level;       // JPEG quality 0..100; negative: the "JPEGLevel" setting (default 100)
  int y4m_chroma;       // 420 (default) or 444
  uint64_t riff_limit;  // AVI: bytes a RIFF segment may hold before an AVIX follows; 0 default
  uint32_t index_capacity;  // AVI: super index entries reserved a stream; 0 default (1024)
  OutputAskFn ask;      // the overwrite question; null asks through the tool frame
  void* ask_context;
};

struct AviFile;

inline constexpr size_t OutputNameBytes = PathBytes + 16;  // a series adds its number

struct OutputWriter {
  char name_pattern[OutputNameBytes];  // printf pattern of the series, or the file name
  char first_name[OutputNameBytes];
  char last_name[OutputNameBytes];
  char status[2 * OutputNameBytes + 8];
  int true_colour;
  int keep_alpha;
  int width, height;
  int frames;
  uint32_t rate_num, rate_den;
  ptrdiff_t pitch;  // pixels
  int next_number;
  int kind;
  int depth;
  uint64_t bytes_written;
  int failed;
  int takes_sound;
  ProgressSink message;
  OutputOptions options;
  int jpeg_level;
  int supports_alpha;
  int float_frames;
  int float_output;
  uint32_t* conversion;  // float frames turned to 32-bit, for non-float writers
  float* float_buffer;   // 32-bit frames turned to floats, for OpenEXR
  uint8_t* frame_bytes;  // AVI and y4m frame data
  // AVI
  AviFile* avi;
  // Sound
  int sound_open;
  uint32_t sound_rate, sound_bits, sound_channels, block_align, bytes_per_second;
  uint64_t sound_allowance, sound_lead, sound_written;
  // Stills: files 0 to stills_made - 1 wait under their temporary names.
  int stills_made;
  // y4m
  OutFile y4m_out;
  struct BufferedFile* y4m_file;  // y4m_out.File
  int y4m_stdout;
};

OutputWriter* OutputOpen(const char* name, int frames, uint32_t rate_num, uint32_t rate_den,
                         int width, int height, ptrdiff_t pitch, ProgressSink message, uint32_t flags,
                         const OutputOptions* options = nullptr);
// Writes one frame; `palette` is for palette frames (not taken yet). 0 when the write failed.
int OutputWriteFrame(OutputWriter* writer, const void* pixels, const uint32_t* palette);
// Bytes of sound wanted now, whole samples; 0 for a writer that takes no sound.
uint32_t OutputSoundWanted(OutputWriter* writer, uint32_t rate, uint32_t bits, uint32_t channels);
int OutputWriteSound(OutputWriter* writer, const void* bytes, uint32_t count);
// Finishes and frees the writer: the files take their targets' places. Returns the bytes of
// output, 0 when that failed (the old files are then as they were). With `discard` (a cancel or
// a failure of the run) nothing is put in place. `result`, when given, tells how the files went
// (an OutFileResult).
uint64_t OutputClose(OutputWriter* writer, bool discard = false, uint32_t* result = nullptr);

// The series name rule: `name` with every occurrence of its extension removed, a number field
// sized by the frame count, then the extension. Returns false when dest is too small.
bool OutputSeriesPattern(char* dest, size_t destSize, const char* name, int frames);

// Wave (or raw sample) files of the sound-only conversion: a 44-byte header with zero lengths,
// the data, and the lengths filled in at the end. Written under a temporary name like the rest.
struct WaveFile;
WaveFile* WaveCreate(const char* name, uint32_t rate, uint32_t bits, uint32_t channels, bool raw);
bool WaveWrite(WaveFile* wave, const void* data, size_t bytes);
// Returns the file's size, 0 when a write or the rename failed or with `discard`; `result` as
// for OutputClose.
uint64_t WaveClose(WaveFile* wave, bool discard = false, uint32_t* result = nullptr);
