// The first-generation encoder's forward transform and quantiser rows: the stated row values,
// the rounding of one coefficient on random and edge inputs, and the round trip through the
// decoder's own dequantisation and inverse transform.
#include "compress/velmo1_quantise.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>

#include "decode/velmo1_tables.h"

namespace {

TEST(Velmo1Quantiser, RowsHoldTheGivenValuesAndUndoTheDequantisationAtEveryScale) {
  const uint32_t first[8] = {0x80000, 0x5c487, 0x61f79, 0x5baae, 0x80000, 0x8930a, 0xac027, 0x15168b};
  const uint32_t last[8] = {0x2e8c, 0x218f, 0x23a0, 0x2155, 0x2e8c, 0x31e3, 0x3e8d, 0x7ab2};
  for (int k = 0; k < 8; ++k) {
    EXPECT_EQ(Velmo1QuantiserRow(0)[k], first[k]) << k;
    EXPECT_EQ(Velmo1QuantiserRow(15)[k], last[k]) << k;
  }
  // A row entry times the intra dequantisation entry of the same scale and position is 2^35 (30 bits
  // of the row, 16 of the table, less the 11 the decoder shifts away), to the rounding of both;
  // higher rows quantise harder.
  for (uint32_t s = 0; s < 16; ++s)
    for (int k = 0; k < 64; ++k) {
      const double product = double(Velmo1QuantiserRow(s)[k]) * Velmo1DequantTable(false, s)[k];
      EXPECT_NEAR(product / std::ldexp(1.0, 35), 1.0, 1.5e-4) << s << " " << k;
      if (s) {
        EXPECT_LT(Velmo1QuantiserRow(s)[k], Velmo1QuantiserRow(s - 1)[k]);
      }
    }
}

// The stated rounding, checked from its definition: the result q is the whole number with
// q * 2^30 - 2^29 < entry * coefficient <= q * 2^30 + 2^29 (the nearest, an exact half down).
void ExpectNearestHalfDown(int32_t coeff, uint32_t entry) {
  const int64_t product = int64_t(entry) * coeff;
  const int64_t q = Velmo1QuantiseCoefficient(coeff, entry);
  const int64_t half = int64_t(1) << 29;
  EXPECT_GT(product, q * (half * 2) - half) << coeff << " * " << entry;
  EXPECT_LE(product, q * (half * 2) + half) << coeff << " * " << entry;
}

TEST(Velmo1Quantiser, OneCoefficientRoundsToTheNearestWithHalvesDown) {
  std::mt19937 rng(17);
  std::uniform_int_distribution<int32_t> coeff(-(1 << 23), 1 << 23);
  std::uniform_int_distribution<uint32_t> entry(1, 0x400000);
  for (int i = 0; i < 20000; ++i) ExpectNearestHalfDown(coeff(rng), entry(rng));
  for (int32_t c : {0, 1, -1, 2047, -2048, (1 << 23), -(1 << 23)})
    for (uint32_t s = 0; s < 16; ++s)
      for (int k = 0; k < 64; ++k) ExpectNearestHalfDown(c, Velmo1QuantiserRow(s)[k]);
  // Exact halves, on both sides of zero: 2^19 times an odd multiple of 2^10 is an odd number of
  // halves.
  for (int32_t odd : {1, -1, 3, -3, 5, -5, 2047, -2047}) {
    const int32_t q = Velmo1QuantiseCoefficient(odd * 1024, 0x80000);
    EXPECT_EQ(q, int32_t(std::floor(odd / 2.0))) << odd;
    ExpectNearestHalfDown(odd * 1024, 0x80000);
  }
}

// A block that the decoder builds from a DC and one AC value comes back as those two values:
// the forward transform is the inverse of the decoder's, at the rows' scale, with positions in
// the same order. Coarse scales make the decoder's rounding to whole samples too small to count.
TEST(Velmo1Quantiser, ForwardTransformAndRowsUndoTheDecodersTransform) {
  for (uint32_t s = 11; s < 16; ++s)
    for (int k = 1; k < 64; ++k)
      for (int16_t value : {1, -1, 2, -3}) {
        int16_t coeffs[64] = {};
        coeffs[0] = int16_t(1024 / Velmo1ScaleFactors[s].Num * Velmo1ScaleFactors[s].Den);  // near mid-grey
        coeffs[k] = value;
        int32_t pixels[64];
        Velmo1IdctPlain(coeffs, Velmo1DequantTable(false, s), pixels);
        int32_t forward[64];
        Velmo1ForwardTransform(pixels, forward);
        int16_t back[64];
        const bool any = Velmo1Quantise(forward, s, false, back);
        EXPECT_TRUE(any);
        for (int i = 0; i < 64; ++i)
          ASSERT_EQ(back[i], coeffs[i]) << "scale " << s << " position " << k
                                        << " value " << value << " at " << i;
      }
}

// A flat block is a DC alone, 256 times the sum of its samples; the stream's ranges hold.
TEST(Velmo1Quantiser, FlatBlocksAreDcAloneAndValuesStayInTheStreamsRanges) {
  for (int32_t v : {0, 1, 77, 128, 255, -255}) {
    int32_t block[64], forward[64];
    for (int32_t& b : block) b = v;
    Velmo1ForwardTransform(block, forward);
    EXPECT_EQ(forward[0], 256 * 64 * v);
    for (int k = 1; k < 64; ++k) EXPECT_EQ(forward[k], 0) << v << " " << k;
    int16_t q[64];
    EXPECT_FALSE(Velmo1Quantise(forward, 0, false, q));
    EXPECT_EQ(q[0], v < 0 ? 0 : 8 * v);
    EXPECT_FALSE(Velmo1Quantise(forward, 0, true, q));
    EXPECT_EQ(q[0], std::clamp(8 * v, -1023, 1023));
  }
  // The largest differences of a checkerboard: every value within its range.
  int32_t block[64], forward[64];
  for (int i = 0; i < 64; ++i) block[i] = ((i >> 3) + i) & 1 ? 255 : -255;
  Velmo1ForwardTransform(block, forward);
  int16_t q[64];
  EXPECT_TRUE(Velmo1Quantise(forward, 0, true, q));
  for (int k = 1; k < 64; ++k) EXPECT_LE(std::abs(q[k]), 16383);
  EXPECT_LE(std::abs(q[0]), 1023);
}

}  // namespace

namespace {

// The dead-zone form from its definition: |q| * 2^30 - r <= entry * |c| < (|q| + 1) * 2^30 - r
// with r the dead-zone rounding, the sign of c, and never more than the plain form's magnitude.
void ExpectDeadZone(const int32_t coeffs[64], uint32_t scale, bool inter) {
  int16_t zone[64], plain[64];
  const bool anyZone = Velmo1QuantiseDeadZone(coeffs, scale, inter, zone);
  const bool anyPlain = Velmo1Quantise(coeffs, scale, inter, plain);
  EXPECT_EQ(zone[0], plain[0]);
  bool any = false;
  for (int k = 1; k < 64; ++k) {
    const int64_t product = int64_t(Velmo1QuantiserRow(scale)[k]) * std::abs(coeffs[k]);
    const int64_t q = std::abs(zone[k]), step = int64_t(1) << 30;
    if (q < 16383) {
      EXPECT_LE(q * step - Velmo1DeadZoneRounding, product) << k;
      EXPECT_LT(product, (q + 1) * step - Velmo1DeadZoneRounding) << k;
    }
    EXPECT_GE(int64_t(zone[k]) * coeffs[k], 0) << k;  // no sign turns
    EXPECT_LE(std::abs(zone[k]), std::abs(plain[k])) << k;
    any |= zone[k] != 0;
  }
  EXPECT_EQ(anyZone, any);
  EXPECT_TRUE(anyPlain || !anyZone);
}

}  // namespace

TEST(Velmo1Quantiser, DeadZoneRoundsSmallValuesDownAndKeepsSignsAndDc) {
  std::mt19937 rng(5);
  std::uniform_int_distribution<int32_t> pixel(-255, 255);
  for (int i = 0; i < 400; ++i) {
    int32_t block[64], coeffs[64];
    for (int32_t& b : block) b = pixel(rng);
    Velmo1ForwardTransform(block, coeffs);
    ExpectDeadZone(coeffs, uint32_t(i % 16), i & 1);
  }
  // A value of 0.6 steps: the plain form rounds it to one, the dead zone to zero, on both sides.
  int32_t coeffs[64] = {2048 * 128};
  coeffs[9] = int32_t(0.6 * (1 << 30) / Velmo1QuantiserRow(0)[9]);
  coeffs[10] = -coeffs[9];
  int16_t plain[64], zone[64];
  EXPECT_TRUE(Velmo1Quantise(coeffs, 0, false, plain));
  EXPECT_EQ(plain[9], 1);
  EXPECT_EQ(plain[10], -1);
  EXPECT_FALSE(Velmo1QuantiseDeadZone(coeffs, 0, false, zone));
  EXPECT_EQ(zone[0], plain[0]);
  ExpectDeadZone(coeffs, 0, false);
}
