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

// One input frame as 8-bit BT.601 Y, Cb, Cr planes, with chroma at half width and height
// (rounded up) or full size, and an optional alpha plane (null: opaque).
struct VelmoYuvFrame {
  const uint8_t* Y;
  const uint8_t* Cb;
  const uint8_t* Cr;
  const uint8_t* Alpha;
  int32_t LumaPitch, ChromaPitch, AlphaPitch;
  bool HalfChroma;  // 4:2:0; else 4:4:4, averaged over 2x2 as the pixel conversion does
  bool FullRange;   // samples 0..255; else Y 16..235 and chroma 16..240
};

// Brings planes straight into the encoders' planes: both sides use the BT.601 matrix, so only
// the range changes (`fullRange` is the output's), and the colours take no trip through RGB.
void VelmoConvertYuv(const VelmoYuvFrame& in, uint32_t width, uint32_t height, bool fullRange,
                     const VelmoPlaneTargets& out);
