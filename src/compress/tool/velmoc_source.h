// Where the compressor's frames come from: a small table of functions (open, info, frame,
// close) so that the tool does not care which input layer serves it. The built-in source is
// the media input layer (every type it reads, with its scaling, crop, rate and filter
// stages); tests install sources of their own.
#pragma once
#include <cstddef>
#include <cstdint>

#include "media/media.h"

struct VelmocSourceInfo {
  uint32_t Width, Height;
  uint32_t RateNumerator, RateDenominator;  // frames per second
  uint32_t Frames;                          // frames of the run (after /S and /E)
  uint32_t SkippedFrames;                   // input frames before the run's first
  uint64_t InputBytes;                      // the input's size, for percentage rates
  uint32_t InputFrames;                     // all frames of the input
  bool HasAlpha, HasSound, IsHdr, IsImage;
  bool FloatFrames;  // frames come as four floats a pixel (R, G, B, A), not ARGB words
  uint32_t PeakNits;  // a wide-range input's peak in nits; 0 when it names none
  char TypeName[64];
  // The input's own frame rate (after /F, before /A), which times the skipped frames, and the
  // name the input was found under (a name without extension gets the one that opened), which
  // the sound input opens when the input has sound. Empty for sources without a file.
  uint32_t InputRateNumerator, InputRateDenominator;
  char FileName[PathBytes];
};

struct VelmocSource;

struct VelmocSourceOps {
  // Opens `name` for the frames first..last (from 0; last ~0u = to the end) with no frame
  // processing. Null on failure, with a readable reason in `error`.
  VelmocSource* (*open)(const char* name, uint32_t first, uint32_t last, char* error,
                        size_t errorSize);
  void (*info)(const VelmocSource* source, VelmocSourceInfo* out);
  // Frame `index` of the run as 32-bit ARGB, or four floats a pixel when the info says
  // FloatFrames; the pixels stay valid until the next call.
  bool (*frame)(VelmocSource* source, uint32_t index, const uint32_t** pixels, int32_t* pitch);
  void (*close)(VelmocSource* source);
  // Optional: opens with the video switches of a command line (range, rates, scaling, crop,
  // open flags); questions and messages go to `progress`. Null: `open` with /S and /E.
  VelmocSource* (*openWith)(const char* name, const MediaSwitches* switches,
                            ProgressSink progress, char* error, size_t errorSize);
  // Optional: a frame with its own filter values. Null: `frame`, without filters.
  bool (*filteredFrame)(VelmocSource* source, uint32_t index, const MediaFrameArgs* filters,
                        const uint32_t** pixels, int32_t* pitch);
  // Optional: the frame the last call delivered as the input's own Y, Cb, Cr planes, when the
  // input holds them and nothing changed the picture; the compressor then takes them as they
  // are. Valid until the next call. Null or false: the pixels only. Once a caller has taken
  // planes, a later frame that has them may come as planes alone: `frame`'s pixels are then
  // not that frame's.
  bool (*planes)(VelmocSource* source, MediaPlanes* out);
};

// The source in use: a test's, or the built-in one.
const VelmocSourceOps* VelmocCurrentSource();
// Installs a source for the next runs (null = the built-in one). A process-wide setting for
// tests, not run state: every run started after the call reads frames from it.
void VelmocSetSource(const VelmocSourceOps* ops);
// The media layer's source.
const VelmocSourceOps* VelmocBuiltinSource();
