// Test-side helpers for first-generation streams. The stream writer itself is the encoder's
// (compress/velmo1_stream.h); this adds generated content that exercises every block kind, and
// the inverse transform worked out in floating point.
#pragma once
#include <algorithm>
#include <cstdint>
#include <memory>
#include <vector>

#include "compress/velmo1_stream.h"

// A plane of random rows mixing all block kinds (inter kinds only when `inter`), with DOUBLED
// pairs where they fit.
Velmo1EncPlaneSpec Velmo1MixedPlane(uint32_t width, uint32_t height, uint32_t seed, bool inter);

// The transform's scale factor of frequency k: 1 for k = 0, else sqrt(2) cos(k pi / 16).
double Velmo1AanScale(int k);

// The inverse transform as a plain float DCT: coefficient c at (u, v) stands for
// c * t / (65536 a(u) a(v)) of an orthonormal 8x8 DCT whose DC gives pixels of DC / 8.
void Velmo1FloatIdct(const int16_t coeffs[64], const uint32_t table[64], double out[64]);

// A copy of `bytes` on the heap of exactly their size (one byte when empty), so that the address
// sanitizer sees any read past them.
inline std::unique_ptr<uint8_t[]> Velmo1ExactCopy(const std::vector<uint8_t>& bytes) {
  std::unique_ptr<uint8_t[]> copy(new uint8_t[std::max<size_t>(bytes.size(), 1)]);
  std::copy(bytes.begin(), bytes.end(), copy.get());
  return copy;
}
