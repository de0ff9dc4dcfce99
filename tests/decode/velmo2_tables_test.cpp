// Constant tables of the second-generation format: known entries of the format's tables,
// the rules the derived tables follow, and the structure of the scan and the run codes.
#include "decode/velmo2_tables.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>

namespace {

// ---------------------------------------------------------------------------------------------
// Dequantisation

TEST(Velmo2Dequant, RowZeroHoldsTheFormatsEntries) {
  struct Entry {
    Velmo2DequantKind Kind;
    uint32_t Row, Column, Value;
  };
  const Entry known[] = {
      {Velmo2DequantIntraLuma, 0, 0, 1024},   {Velmo2DequantIntraLuma, 0, 1, 1432},
      {Velmo2DequantIntraLuma, 1, 0, 1313},   {Velmo2DequantIntraLuma, 0, 7, 8592},
      {Velmo2DequantIntraLuma, 1, 7, 12794},  {Velmo2DequantIntraLuma, 5, 1, 5704},
      {Velmo2DequantIntraLuma, 6, 4, 11079},  {Velmo2DequantIntraLuma, 7, 7, 13768},
      {Velmo2DequantIntraChroma, 0, 3, 2203}, {Velmo2DequantIntraChroma, 2, 2, 3515},
      {Velmo2DequantIntraChroma, 4, 0, 5632}, {Velmo2DequantIntraChroma, 7, 7, 7649},
      {Velmo2DequantInter, 0, 1, 1193},       {Velmo2DequantInter, 3, 3, 811},
      {Velmo2DequantInter, 5, 7, 2486},       {Velmo2DequantInter, 7, 7, 5679},
  };
  for (const Entry& e : known) {
    const uint32_t k = e.Row * 8 + e.Column;
    EXPECT_EQ(Velmo2DequantRow0[e.Kind][k], e.Value) << e.Kind << " " << k;
    EXPECT_EQ(Velmo2Dequant(e.Kind)[0][k], e.Value) << e.Kind << " " << k;
  }
}

TEST(Velmo2Dequant, ChromaAndInterTablesAreSymmetricAndLumaIsNot) {
  for (uint32_t r = 0; r < 8; ++r)
    for (uint32_t c = 0; c < 8; ++c) {
      EXPECT_EQ(Velmo2DequantRow0[Velmo2DequantIntraChroma][r * 8 + c],
                Velmo2DequantRow0[Velmo2DequantIntraChroma][c * 8 + r]);
      EXPECT_EQ(Velmo2DequantRow0[Velmo2DequantInter][r * 8 + c],
                Velmo2DequantRow0[Velmo2DequantInter][c * 8 + r]);
    }
  EXPECT_NE(Velmo2DequantRow0[Velmo2DequantIntraLuma][1], Velmo2DequantRow0[Velmo2DequantIntraLuma][8]);
}

TEST(Velmo2Dequant, LaterRowsStepByAQuarterOctave) {
  for (uint32_t kind = 0; kind < Velmo2DequantKindCount; ++kind) {
    const Velmo2DequantTable& t = Velmo2Dequant(Velmo2DequantKind(kind));
    for (uint32_t k = 0; k < 64; ++k) {
      for (uint32_t i = 1; i < 4; ++i) {
        const double exact = Velmo2DequantRow0[kind][k] * std::pow(2.0, i / 4.0);
        EXPECT_LE(std::abs(t[i][k] - exact), 0.5 + 1e-9) << kind << " row " << i << " at " << k;
        EXPECT_GT(t[i][k], t[i - 1][k]);
      }
      // The next quantiser after row 3 is row 0 shifted left once: the scale keeps rising.
      EXPECT_LT(t[3][k], 2 * t[0][k]);
    }
  }
}

TEST(Velmo2Dequant, CoefficientsScaleRoundAndWrapIn32Bits) {
  const Velmo2DequantTable& luma = Velmo2Dequant(Velmo2DequantIntraLuma);
  // (1 * 1024 + 64) >> 7 = 8; (-1024 + 64) >> 7 = -8; (1 * 8592 + 64) >> 7 = 67.
  EXPECT_EQ(Velmo2DequantCoefficient(1, luma, 0, 0), 8);
  EXPECT_EQ(Velmo2DequantCoefficient(-1, luma, 0, 0), -8);
  EXPECT_EQ(Velmo2DequantCoefficient(1, luma, 0, 7), 67);
  // Q = 8 shifts the product left by 2: (4096 + 64) >> 7 = 32.
  EXPECT_EQ(Velmo2DequantCoefficient(1, luma, 8, 0), 32);
  // Four quantiser steps double the value (up to the rounding), while it fits in 16 bits.
  for (int32_t m : {1, 5, -7, 100})
    for (uint32_t q = 0; q < 24; ++q) {
      const int32_t a = Velmo2DequantCoefficient(m, luma, q, 9);
      if (std::abs(a) > 16000) break;
      const int32_t b = Velmo2DequantCoefficient(m, luma, q + 4, 9);
      EXPECT_LE(std::abs(b - 2 * a), 1) << m << " " << q;
    }
  // A product past 32 bits wraps there before the shift, and the result keeps the low 16 bits.
  const uint64_t wide = (uint64_t(1023) * luma[0][63]) << 9;
  const int32_t low32 = int32_t(uint32_t(wide + 64));
  EXPECT_EQ(Velmo2DequantCoefficient(1023, luma, 36, 63), int16_t(low32 >> 7));
}

// ---------------------------------------------------------------------------------------------
// DC residual scales

TEST(Velmo2DcScales, AreRoundedQuarterOctavesWithQuantiserAtLeastEight) {
  for (uint32_t q = 0; q < Velmo2DcScaleCount; ++q) {
    const double used = q < 8 ? 8 : q;
    EXPECT_EQ(double(Velmo2DcScales[q]), std::round(std::pow(2.0, 10 + used / 4))) << q;
  }
  EXPECT_EQ(Velmo2DcScales[0], 4096u);
  EXPECT_EQ(Velmo2DcScales[8], 4096u);
  EXPECT_EQ(Velmo2DcScales[9], 4871u);
  EXPECT_EQ(Velmo2DcScales[36], 524288u);
  // A residual magnitude m at Q = 8 is (m * 4096 + 512) >> 10 = 4m.
  EXPECT_EQ((3 * Velmo2DcScale(8) + 512) >> 10, 12u);
}

TEST(Velmo2DcScales, OutOfRangeQuantisersStayInTheTable) {
  for (auto [q, entry] : {std::pair{-3, 0}, {3, 8}, {20, 20}, {37, 36}, {1000, 36}})
    EXPECT_EQ(Velmo2DcScale(q), Velmo2DcScales[entry]) << q;
}

// ---------------------------------------------------------------------------------------------
// Scan and block order

TEST(Velmo2Scan, IsAZigzagStartingDownward) {
  bool seen[64] = {};
  for (uint32_t p = 0; p < 64; ++p) {
    ASSERT_LT(Velmo2Scan[p], 64);
    EXPECT_FALSE(seen[Velmo2Scan[p]]) << p;
    seen[Velmo2Scan[p]] = true;
  }
  EXPECT_EQ(Velmo2Scan[0], 0);
  EXPECT_EQ(Velmo2Scan[1], 8);  // row 1, column 0
  EXPECT_EQ(Velmo2Scan[63], 63);
  for (uint32_t p = 1; p < 64; ++p) {
    const int r0 = Velmo2Scan[p - 1] / 8, c0 = Velmo2Scan[p - 1] % 8;
    const int r1 = Velmo2Scan[p] / 8, c1 = Velmo2Scan[p] % 8;
    EXPECT_LE(std::abs(r1 - r0), 1) << p;  // each step goes to a neighbour
    EXPECT_LE(std::abs(c1 - c0), 1) << p;
    EXPECT_GE(r1 + c1, r0 + c0) << p;      // anti-diagonals in order
  }
}

TEST(Velmo2Blocks, IndexBitsAreY1X1Y0X0) {
  bool seen[4][4] = {};
  for (uint32_t i = 0; i < 16; ++i) {
    const uint32_t x = Velmo2BlockColumn(i), y = Velmo2BlockRow(i);
    ASSERT_LT(x, 4u);
    ASSERT_LT(y, 4u);
    EXPECT_FALSE(seen[y][x]) << i;
    seen[y][x] = true;
    // Blocks 4q .. 4q + 3 fill quadrant q in the order top left, top right, bottom left, right.
    const uint32_t quadrant = i / 4;
    EXPECT_EQ(x / 2, quadrant % 2) << i;
    EXPECT_EQ(y / 2, quadrant / 2) << i;
  }
  // Velmo2BlockIndex is the inverse mapping.
  for (uint32_t i = 0; i < 16; ++i)
    EXPECT_EQ(Velmo2BlockIndex(Velmo2BlockColumn(i), Velmo2BlockRow(i)), i) << i;
  EXPECT_EQ(Velmo2BlockIndex(3, 3), 15u);
  EXPECT_EQ(Velmo2BlockColumn(1), 1u);
  EXPECT_EQ(Velmo2BlockRow(1), 0u);
  EXPECT_EQ(Velmo2BlockColumn(2), 0u);
  EXPECT_EQ(Velmo2BlockRow(2), 1u);
  EXPECT_EQ(Velmo2BlockColumn(4), 2u);
  EXPECT_EQ(Velmo2BlockRow(8), 2u);
}

// ---------------------------------------------------------------------------------------------
// Quantiser codes (read through the stream reader in velmo2_syntax_test)

TEST(Velmo2Quantiser, CodesFormACompletePrefixCodeThatTheLookupFollows) {
  double kraft = 0;
  for (const Velmo2QuantiserCode& c : Velmo2QuantiserCodes) kraft += std::ldexp(1.0, -c.Length);
  EXPECT_DOUBLE_EQ(kraft, 1.0);
  for (uint32_t peek = 0; peek < (1u << Velmo2QuantiserLongestCode); ++peek) {
    const Velmo2QuantiserCode& c = Velmo2QuantiserCodes[Velmo2QuantiserCodeOf(peek)];
    EXPECT_EQ(peek & ((1u << c.Length) - 1), c.Bits) << peek;
  }
  EXPECT_EQ(Velmo2QuantiserCodes[Velmo2QuantiserEscape].Length, 4);
}

// ---------------------------------------------------------------------------------------------
// Run codes (each symbol is read through the stream reader in velmo2_syntax_test)

TEST(Velmo2RunCodes, BothTablesAreCompletePrefixCodes) {
  for (uint32_t t = 0; t < 2; ++t) {
    double kraft = 0;
    for (uint32_t s = 0; s < Velmo2RunSymbolCount; ++s) {
      const Velmo2RunCode& a = Velmo2RunCodes[t][s];
      ASSERT_GE(a.Length, 1);
      ASSERT_LE(a.Length, Velmo2RunLongestCode);
      kraft += std::ldexp(1.0, -a.Length);
      for (uint32_t u = 0; u < Velmo2RunSymbolCount; ++u) {
        const Velmo2RunCode& b = Velmo2RunCodes[t][u];
        if (u == s || b.Length < a.Length) continue;
        EXPECT_NE(b.Bits & ((1u << a.Length) - 1), a.Bits) << t << ": " << s << " prefixes " << u;
      }
    }
    EXPECT_DOUBLE_EQ(kraft, 1.0) << t;
    // Every 9-bit window of the stream starts with the code of the symbol the lookup gives.
    for (uint32_t peek = 0; peek < (1u << Velmo2RunLongestCode); ++peek) {
      const uint8_t entry = Velmo2RunLookup(t)[peek];
      const Velmo2RunCode& c = Velmo2RunCodes[t][entry & 15];
      ASSERT_EQ(uint32_t(entry >> 4), c.Length) << t << " " << peek;
      EXPECT_EQ(peek & ((1u << c.Length) - 1), c.Bits) << t << " " << peek;
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Flat blocks (the edge filter's taps by class are checked on pixels in velmo2_filter_test)

TEST(Velmo2FlatBlocks, TapersWeighTheNearSideAndMirror) {
  for (uint32_t i = 0; i < 8; ++i) EXPECT_EQ(Velmo2FlatTaper(i, 0, 0), 0) << i;
  // Column 0: (dl * 26624) >> 16 alone; -64 * 26624 / 65536 is exactly -26.
  EXPECT_EQ(Velmo2FlatTaper(0, -64, 1000), -26);
  // Column 3: ((64 * 7168) >> 16) + (32 >> 4) = 7 + 2.
  EXPECT_EQ(Velmo2FlatTaper(3, 64, 32), 9);
  // Column 1 rounds both parts down: (-10 * 18432) >> 16 = -3, -200 >> 7 = -2.
  EXPECT_EQ(Velmo2FlatTaper(1, -10, -200), -5);
  for (int32_t dl : {-700, -33, 0, 5, 129, 2047})
    for (int32_t dr : {-2047, -1, 0, 64, 900})
      for (uint32_t i = 0; i < 8; ++i)
        EXPECT_EQ(Velmo2FlatTaper(7 - i, dl, dr), Velmo2FlatTaper(i, dr, dl)) << i;
  // The weights fall off away from each side.
  for (uint32_t i = 1; i < 4; ++i) EXPECT_LT(Velmo2FlatNearWeights[i], Velmo2FlatNearWeights[i - 1]);
}

}  // namespace
