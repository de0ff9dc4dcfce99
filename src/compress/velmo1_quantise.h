// The first-generation encoder's forward transform and quantiser. The forward transform is the
// inverse of the decoder's two transform passes, in integers, scaled so that a block's DC
// coefficient is 256 times the sum of its samples. Sixteen quantiser rows of 64 entries in
// 30-bit fixed point turn coefficients into the values the decoder dequantises: row 0 is the
// reciprocal of the intra dequantisation base, and row s is row 0 over the scale factor f[s].
#pragma once
#include <cstdint>

// The forward transform of an 8x8 block (samples or differences, by position row * 8 + column,
// each within -255..255). Coefficients by position, at the quantiser rows' scale.
void Velmo1ForwardTransform(const int32_t block[64], int32_t coeffs[64]);

// Row `scale` (0 to 15) of the forward quantiser, by position. Intra and inter blocks share it.
const uint32_t* Velmo1QuantiserRow(uint32_t scale);

// One coefficient through one row entry: (entry * coefficient + 0x1fffffff) >> 30, that is the
// nearest whole number, an exact half going down.
inline int32_t Velmo1QuantiseCoefficient(int32_t coeff, uint32_t entry) {
  return int32_t((int64_t(entry) * coeff + 0x1fffffff) >> 30);
}

// The DC value held to its stream range: 0..2047 intra, -1023..1023 inter.
inline int16_t Velmo1HeldDc(int32_t dc, bool inter) {
  const int32_t low = inter ? -1023 : 0, high = inter ? 1023 : 2047;
  return int16_t(dc < low ? low : dc > high ? high : dc);
}

// Quantises the coefficients of a block with row `scale`, held to the stream's ranges: the AC
// values to +-16383, the intra DC to 0..2047, the inter DC to -1023..1023. Returns whether any
// AC value is not zero.
bool Velmo1Quantise(const int32_t coeffs[64], uint32_t scale, bool inter, int16_t out[64]);

// The encoder's second operating point at each scale: the same, except that each AC magnitude is
// rounded up only from two thirds of a step (its rounding is about a third of a step), and takes
// its sign back after. Values a little past half a step fall to the one below and cost fewer bits.
constexpr int32_t Velmo1DeadZoneRounding = 341 << 20;
bool Velmo1QuantiseDeadZone(const int32_t coeffs[64], uint32_t scale, bool inter, int16_t out[64]);
