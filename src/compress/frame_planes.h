// Pixel conversion of one input frame into the encoders' planes: Y at luma pitch, Cr and Cb
// from 2x2 sums at chroma pitch, alpha (may be null) from the top byte. Integer pixels are
// ARGB words, float pixels four floats R, G, B, A; `fullRange` picks the full-range matrix.
#pragma once
#include <cstdint>

struct VelmoPlaneTargets {
  uint8_t* Y;
  uint8_t* Cr;
  uint8_t* Cb;
  uint8_t* Alpha;
  uint32_t LumaPitch, ChromaPitch;
};

// `pitch` is signed bytes between display rows. The rows run on the job pool.
void VelmoConvertPixels(const void* pixels, int32_t pitch, bool isFloat, uint32_t width,
                        uint32_t height, bool fullRange, const VelmoPlaneTargets& out);
