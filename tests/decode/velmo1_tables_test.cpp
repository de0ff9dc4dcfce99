// Constant tables and the inverse transform of the first-generation format.
#include "decode/velmo1_decoder.h"
#include "decode/velmo1_tables.h"
#include "velmo1_stream_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <tuple>

namespace {

TEST(Velmo1Huffman, EveryTableIsACompletePrefixCode) {
  for (uint32_t t = 0; t < 16; ++t) {
    double kraft = 0;
    for (uint32_t i = 0; i < 16; ++i) kraft += std::ldexp(1.0, -Velmo1CodeLengths[t][i]);
    EXPECT_DOUBLE_EQ(kraft, 1.0) << "table " << t;
    EXPECT_EQ(Velmo1LongestCode[t], *std::max_element(Velmo1CodeLengths[t], Velmo1CodeLengths[t] + 16));
    for (uint32_t i = 0; i < 16; ++i)
      for (uint32_t j = i + 1; j < 16; ++j) {
        const uint32_t li = Velmo1CodeLengths[t][i], lj = Velmo1CodeLengths[t][j];
        // The shorter code must not be a prefix of the longer one.
        EXPECT_NE(Velmo1CanonicalCode(t, i), Velmo1CanonicalCode(t, j) >> (lj - li))
            << "table " << t << " codes " << i << "," << j;
      }
  }
}

TEST(Velmo1Huffman, CanonicalCodesCountUpShortestFirst) {
  // Table 1: "0", then "1000", "10010" ... "11111".
  const uint32_t canonical[][3] = {{0, 0, 0},       {0, 15, 15},     {1, 0, 0},          {1, 1, 0b1000},
                                   {1, 2, 0b10010}, {1, 15, 0b11111}, {15, 2, 0b100},    {15, 15, 0b1111111},
                                   {3, 3, 0b1000}};
  for (const auto& [table, symbol, code] : canonical)
    EXPECT_EQ(Velmo1CanonicalCode(table, symbol), code) << table << " " << symbol;
  // The stream form is the code reversed: the code's first (top) bit is read first; "010"
  // reads the same both ways.
  for (auto [table, symbol, code] : {std::tuple{1u, 1u, 0b0001u}, {3u, 1u, 0b010u}, {3u, 3u, 0b0001u}})
    EXPECT_EQ(Velmo1StreamCode(table, symbol), code) << table << " " << symbol;
}

TEST(Velmo1Huffman, LookupFindsTheCodeThatPrefixesEveryIndex) {
  for (uint32_t t = 0; t < 16; ++t) {
    const uint32_t longest = Velmo1LongestCode[t];
    const uint8_t* lookup = Velmo1HuffLookup(t);
    for (uint32_t index = 0; index < (1u << longest); ++index) {
      const uint32_t code = lookup[index] & 15, len = lookup[index] >> 4;
      ASSERT_EQ(len, Velmo1CodeLengths[t][code]);
      EXPECT_EQ(index & ((1u << len) - 1), Velmo1StreamCode(t, code)) << t << " " << index;
    }
  }
}

TEST(Velmo1Scans, ScansAndOrderArePermutations) {
  auto isPermutation = [](const uint8_t* v) {
    bool seen[64] = {};
    for (int i = 0; i < 64; ++i) {
      if (v[i] > 63 || seen[v[i]]) return false;
      seen[v[i]] = true;
    }
    return true;
  };
  for (int s = 0; s < 16; ++s) EXPECT_TRUE(isPermutation(Velmo1RunScans[s])) << s;
  EXPECT_TRUE(isPermutation(Velmo1CoefficientOrder));
}

TEST(Velmo1Bundles, SizesFollowTheWidth) {
  uint32_t sizes[Velmo1BundleCount];
  Velmo1BundleSizes(640, sizes);  // 80 blocks across
  const std::pair<uint32_t, uint32_t> expected[] = {
      {Velmo1BlockTypes, 592},      {Velmo1SubBlockTypes, 560}, {Velmo1Colors, 5632 + 64},
      {Velmo1Patterns, 1152 + 8},   {Velmo1XMotion, 592},       {Velmo1YMotion, 592},
      {Velmo1IntraDC, 1184},        {Velmo1InterDC, 1184},      {Velmo1Runs, 4352 + 64}};
  for (const auto& [bundle, size] : expected) EXPECT_EQ(sizes[bundle], size) << bundle;

  EXPECT_EQ(Velmo1LimitsFor(Velmo1BlockTypes, 640).CountBits, 10u);
  EXPECT_EQ(Velmo1LimitsFor(Velmo1Colors, 640).CountBits, 13u);
  EXPECT_EQ(Velmo1LimitsFor(Velmo1Patterns, 640).CountBits, 11u);
  EXPECT_EQ(Velmo1LimitsFor(Velmo1IntraDC, 640).Largest, 592u);
  EXPECT_EQ(Velmo1LimitsFor(Velmo1BlockTypes, 4096).CountBits, 10u);  // 512 + 511
  EXPECT_EQ(Velmo1LimitsFor(Velmo1BlockTypes, 4104).CountBits, 11u);  // 513 + 511
  EXPECT_EQ(Velmo1LimitsFor(Velmo1BlockTypes, 8).Largest, 528u);
}

// ---------------------------------------------------------------------------------------------
// Dequantisation

TEST(Velmo1Dequant, BasesAreScaledIntegerWeights) {
  // Each printed base is 65536 * a(u) * a(v) * w / 16 with a the transform's scale factors and
  // w a whole weight; a mistyped digit breaks this.
  for (const uint32_t* base : {Velmo1IntraBaseMilli, Velmo1InterBaseMilli}) {
    for (int k = 0; k < 64; ++k) {
      const double w = base[k] / 1000.0 / 65536.0 / Velmo1AanScale(k / 8) / Velmo1AanScale(k % 8) * 16;
      EXPECT_NEAR(w, std::round(w), 2e-5) << k;
      EXPECT_GE(std::round(w), 16);
    }
  }
  EXPECT_EQ(Velmo1IntraBaseMilli[0], 65536000u);
  EXPECT_EQ(Velmo1InterBaseMilli[4], 73728000u);  // weight 18 at (0, 4)
}

TEST(Velmo1Dequant, TablesAreBaseTimesScaleRounded) {
  for (int inter = 0; inter < 2; ++inter) {
    const uint32_t* base = inter ? Velmo1InterBaseMilli : Velmo1IntraBaseMilli;
    for (uint32_t s = 0; s < 16; ++s) {
      const double f = double(Velmo1ScaleFactors[s].Num) / Velmo1ScaleFactors[s].Den;
      const uint32_t* t = Velmo1DequantTable(inter != 0, s);
      for (int k = 0; k < 64; ++k) EXPECT_LE(std::fabs(t[k] - base[k] / 1000.0 * f), 0.5) << s << " " << k;
    }
  }
  // Hand-worked entries.
  EXPECT_EQ(Velmo1DequantTable(false, 0)[1], 90901u);
  EXPECT_EQ(Velmo1DequantTable(false, 1)[0], 87381u);    // 65536 * 4 / 3
  EXPECT_EQ(Velmo1DequantTable(false, 5)[0], 229376u);   // 65536 * 7 / 2
  EXPECT_EQ(Velmo1DequantTable(false, 15)[63], 1138655u);
  EXPECT_EQ(Velmo1DequantTable(true, 2)[9], 249540u);    // 149724 * 5 / 3
  EXPECT_EQ(Velmo1DequantTable(true, 15)[0], 2883584u);  // 65536 * 44
}

// ---------------------------------------------------------------------------------------------
// Inverse transform

// A lone DC gives (DC * t[0] >> 11) + 127 >> 8 everywhere, with the product wrapping at 32 bits
// and no clamp: 2047 at scale 15 lands far above 255.
TEST(Velmo1Idct, LoneDcRoundsWith127) {
  int16_t c[64] = {};
  int32_t out[64];
  Velmo1IdctPlain(c, Velmo1DequantTable(false, 0), out);
  for (int32_t v : out) EXPECT_EQ(v, 0);  // 127 >> 8
  for (int dc : {1, 7, 8, 9, 1024, 2047, -1, -9}) {
    for (uint32_t s : {0u, 1u, 5u, 15u}) {
      c[0] = int16_t(dc);
      const uint32_t* t = Velmo1DequantTable(false, s);
      Velmo1IdctPlain(c, t, out);
      const int32_t d = int32_t(uint32_t(dc) * t[0]) >> 11;
      for (int32_t v : out) EXPECT_EQ(v, (d + 127) >> 8) << dc << " " << s;
      if (std::abs(int64_t(dc) * t[0]) < (int64_t(1) << 31)) {  // products that do not wrap
        double ref[64];
        Velmo1FloatIdct(c, t, ref);
        EXPECT_NEAR(out[0], ref[0], 1.0);
      }
    }
  }
}

TEST(Velmo1Idct, MatchesFloatReferenceOnRandomBlocks) {
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    int16_t c[64] = {};
    c[0] = int16_t(rng() % 2048);
    for (int n = 0; n < 10; ++n) c[rng() % 64] = int16_t(int(rng() % 61) - 30);
    const uint32_t* t = Velmo1DequantTable(round & 1, rng() % 4);
    int32_t out[64];
    double ref[64];
    Velmo1IdctPlain(c, t, out);
    Velmo1FloatIdct(c, t, ref);
    for (int k = 0; k < 64; ++k) ASSERT_NEAR(out[k], ref[k], 2.0) << round << " " << k;
  }
}

}  // namespace
