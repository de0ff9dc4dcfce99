// Where the compressor's frames come from: a small table of functions (open, info, frame,
// close) so that the tool does not care which input layer serves it. The built-in source
// reads YUV4MPEG2 streams and still images or numbered image series through the image file
// library; tests install sources of their own.
#pragma once
#include <cstddef>
#include <cstdint>

struct VelmocSourceInfo {
  uint32_t Width, Height;
  uint32_t RateNumerator, RateDenominator;  // frames per second
  uint32_t Frames;                          // frames of the run (after /S and /E)
  uint32_t SkippedFrames;                   // input frames before the run's first
  uint64_t InputBytes;                      // the input's size, for percentage rates
  uint32_t InputFrames;                     // all frames of the input
  bool HasAlpha, HasSound, IsHdr, IsImage;
  char TypeName[64];
};

struct VelmocSource;

struct VelmocSourceOps {
  // Opens `name` for the frames first..last (from 0; last ~0u = to the end). Null on failure,
  // with a readable reason in `error`.
  VelmocSource* (*open)(const char* name, uint32_t first, uint32_t last, char* error,
                        size_t errorSize);
  void (*info)(const VelmocSource* source, VelmocSourceInfo* out);
  // Frame `index` of the run as 32-bit ARGB; the pixels stay valid until the next call.
  bool (*frame)(VelmocSource* source, uint32_t index, const uint32_t** pixels, int32_t* pitch);
  void (*close)(VelmocSource* source);
};

// The source in use: a test's, or the built-in one.
const VelmocSourceOps* VelmocCurrentSource();
// Installs a source for the next runs (null = the built-in one).
void VelmocSetSource(const VelmocSourceOps* ops);
const VelmocSourceOps* VelmocBuiltinSource();
