// Macroblock activity and the adaptive quantisation factor by level.
#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <vector>

#include "encode2/velmo2_vaq.h"

namespace {

constexpr Velmo2VaqLevel kLevels[] = {Velmo2VaqLevel::Medium, Velmo2VaqLevel::Off,
                                      Velmo2VaqLevel::Light, Velmo2VaqLevel::Heavy};

// A macroblock's coefficients: 16 luma blocks, 4 blocks of each chroma plane.
struct Coefficients {
  std::vector<int16_t> Luma = std::vector<int16_t>(16 * 64), Cr = std::vector<int16_t>(4 * 64),
                       Cb = std::vector<int16_t>(4 * 64);
  uint64_t Activity() const {
    const Velmo2ActivityPlane planes[] = {
        {Luma.data(), 16, false}, {Cr.data(), 4, true}, {Cb.data(), 4, true}};
    return Velmo2MacroblockActivity(planes, 3);
  }
};

TEST(Velmo2Vaq, ActivityWeighsLumaTwiceAndLeavesOutDc) {
  Coefficients c;
  // DC terms alone: a flat macroblock of any brightness.
  for (size_t b = 0; b < 16; ++b) c.Luma[b * 64] = 1000;
  for (size_t b = 0; b < 4; ++b) c.Cr[b * 64] = c.Cb[b * 64] = -700;
  EXPECT_EQ(c.Activity(), 0u);
  c.Luma[5 * 64 + 9] = 3;  // 2 * 9
  c.Cr[2 * 64 + 63] = -4;  // 16
  c.Cb[1] = 5;             // 25
  EXPECT_EQ(c.Activity(), 18u + 16u + 25u);
  // Every value at the 16-bit extreme does not overflow.
  for (auto* v : {&c.Luma, &c.Cr, &c.Cb})
    for (int16_t& x : *v) x = -32768;
  const uint64_t square = 32768ull * 32768ull;
  EXPECT_EQ(c.Activity(), square * 63 * (2 * 16 + 4 + 4));
}

// Between the bounds the factor is sqrt(E) / 1024; outside them it is held (a flat macroblock
// gets the lower bound, a busy one the upper); it never falls as the activity rises. Off gives
// exactly 1 at any activity.
TEST(Velmo2Vaq, FactorFollowsTheRootOfActivityWithinBounds) {
  for (Velmo2VaqLevel level : kLevels) {
    const Velmo2VaqBounds& b = Velmo2VaqBoundsOf(level);
    EXPECT_LE(b.Lower, b.Upper);
    EXPECT_EQ(Velmo2VaqFactor(0, level), b.Lower);
    EXPECT_EQ(Velmo2VaqFactor(uint64_t(1) << 50, level), b.Upper);
    double last = 0;
    for (uint64_t e = 0; e < (uint64_t(1) << 50); e = e * 5 / 4 + 1) {
      const double f = Velmo2VaqFactor(e, level);
      if (level == Velmo2VaqLevel::Off) {
        ASSERT_EQ(f, 1.0) << e;
      }
      EXPECT_GE(f, b.Lower);
      EXPECT_LE(f, b.Upper);
      EXPECT_GE(f, last);
      last = f;
      const double a = std::sqrt(double(e)) / 1024.0;
      if (a > b.Lower && a < b.Upper) {
        EXPECT_DOUBLE_EQ(f, a) << e;
      }
    }
  }
  // A factor of 1 at an activity of 1024^2: the medium level's middle.
  EXPECT_EQ(Velmo2VaqFactor(1024 * 1024, Velmo2VaqLevel::Medium), 1.0);
  EXPECT_EQ(Velmo2VaqFactor(4 * 1024 * 1024, Velmo2VaqLevel::Heavy), 2.0);
}

TEST(Velmo2Vaq, LevelFromTheVersionNumber) {
  const std::pair<uint32_t, Velmo2VaqLevel> cases[] = {{200, Velmo2VaqLevel::Medium},
                                                       {270 + 8192, Velmo2VaqLevel::Medium},
                                                       {200 + 65536, Velmo2VaqLevel::Off},
                                                       {200 + 131072, Velmo2VaqLevel::Light},
                                                       {200 + 196608 + 49152, Velmo2VaqLevel::Heavy}};
  for (const auto& [version, level] : cases) EXPECT_EQ(Velmo2VaqLevelOfVersion(version), level) << version;
}

TEST(Velmo2Vaq, BoundsAndWordsOfTheLevels) {
  const Velmo2VaqBounds& medium = Velmo2VaqBoundsOf(Velmo2VaqLevel::Medium);
  const Velmo2VaqBounds& light = Velmo2VaqBoundsOf(Velmo2VaqLevel::Light);
  const Velmo2VaqBounds& heavy = Velmo2VaqBoundsOf(Velmo2VaqLevel::Heavy);
  const Velmo2VaqBounds& off = Velmo2VaqBoundsOf(Velmo2VaqLevel::Off);
  EXPECT_STREQ(medium.Word, "Use default of median VAQ");
  EXPECT_STREQ(off.Word, "No VAQ (best videos with mix of static and moving data)");
  EXPECT_STREQ(light.Word, "Light VAQ (best on easy to compress videos)");
  EXPECT_STREQ(heavy.Word, "Heavy VAQ (best on fast moving videos)");
  // Each stronger level's range holds the weaker one's.
  EXPECT_LT(heavy.Lower, medium.Lower);
  EXPECT_LT(medium.Lower, light.Lower);
  EXPECT_LT(light.Lower, off.Lower);
  EXPECT_GT(heavy.Upper, medium.Upper);
  EXPECT_GT(medium.Upper, light.Upper);
  EXPECT_GT(light.Upper, off.Upper);
}

}  // namespace
