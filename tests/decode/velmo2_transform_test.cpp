// The second-generation inverse transform: its full and corner forms against a reference built
// straight from the format's steps in 32-bit arithmetic, reduced to 16 bits after every step.
#include "decode/velmo2_tables.h"
#include "decode/velmo2_kernels.h"
#include "decode/velmo2_transform.h"

#include <gtest/gtest.h>

#include <array>
#include <random>

namespace {

using Block = std::array<int16_t, 64>;

// Two's complement reduction of any int32 to the 16-bit range.
int32_t Wrap(int32_t v) { return ((v + 32768) & 0xFFFF) - 32768; }

void ReferencePass(int32_t x[8]) {
  const int32_t a = Wrap(x[2] + (x[2] >> 2) + (x[6] >> 1));
  const int32_t b = Wrap((x[2] >> 1) - x[6] - (x[6] >> 2));
  const int32_t e0 = Wrap(x[0] + x[4] + a), e3 = Wrap(x[0] + x[4] - a);
  const int32_t e1 = Wrap(x[0] - x[4] + b), e2 = Wrap(x[0] - x[4] - b);
  const int32_t p = Wrap(x[3] - x[5] + x[7]), q = Wrap(x[1] + x[3] + x[5]);
  const int32_t r = Wrap(x[1] - x[3] - x[5]), s = Wrap(x[3] - x[5] - x[7]);
  const int32_t o0 = Wrap((p >> 2) + q + (q >> 2) - (q >> 4));
  const int32_t o3 = Wrap((q >> 2) - p - (p >> 2) + (p >> 4));
  const int32_t o1 = Wrap(s - (s >> 2) - (s >> 4) + r);
  const int32_t o2 = Wrap(r - (r >> 2) - (r >> 4) - s);
  const int32_t y[8] = {e0 + o0, e1 + o1, e2 + o2, e3 + o3, e3 - o3, e2 - o2, e1 - o1, e0 - o0};
  for (int i = 0; i < 8; ++i) x[i] = Wrap(y[i]);
}

Block Reference(const Block& in) {
  int32_t m[8][8];
  for (int k = 0; k < 64; ++k) m[k / 8][k % 8] = in[k];
  m[0][0] = Wrap((m[0][0] + 4) * 8);
  for (int c = 0; c < 8; ++c) {
    int32_t column[8];
    for (int r = 0; r < 8; ++r) column[r] = m[r][c];
    ReferencePass(column);
    for (int r = 0; r < 8; ++r) m[r][c] = column[r];
  }
  for (int r = 0; r < 8; ++r) ReferencePass(m[r]);
  Block out;
  for (int k = 0; k < 64; ++k) out[k] = int16_t(m[k / 8][k % 8] >> 6);
  return out;
}

Block Full(const Block& in) {
  Block out;
  Velmo2TransformPlain(in.data(), out.data());
  return out;
}

Block Corner(const Block& in) {
  Block out;
  Velmo2TransformCornerPlain(in.data(), out.data());
  return out;
}

bool InCorner(int k) { return k / 8 < 4 && k % 8 < 4; }

// A block with a DC in the intra or residual range and AC values drawn from `ac`.
template <class Dist>
Block RandomBlock(std::mt19937& rng, Dist& ac, bool cornerOnly, int acCount) {
  Block b{};
  b[0] = int16_t(std::uniform_int_distribution<int>(-2047, 2047)(rng));
  std::uniform_int_distribution<int> pos(1, 63);
  for (int i = 0; i < acCount; ++i) {
    int k = pos(rng);
    if (cornerOnly && !InCorner(k)) k = (k / 8 % 4) * 8 + k % 4;
    if (k != 0) b[k] = int16_t(ac(rng));
  }
  return b;
}

TEST(Velmo2Transform, FullFormMatchesTheFormatsStepsOnTypicalBlocks) {
  std::mt19937 rng(1234);
  std::uniform_int_distribution<int> ac(-3000, 3000);
  for (int n = 0; n < 4000; ++n) {
    const Block in = RandomBlock(rng, ac, false, 1 + n % 40);
    ASSERT_EQ(Full(in), Reference(in)) << "block " << n;
  }
}

TEST(Velmo2Transform, WrapsLikeSixteenBitArithmeticOnExtremeInputs) {
  std::mt19937 rng(99);
  const int16_t extremes[] = {-32768, 32767, -32767, 32766, 16384, -16384, -1, 1, 0};
  std::uniform_int_distribution<int> pick(0, 8), full(-32768, 32767);
  for (int n = 0; n < 4000; ++n) {
    Block in;
    for (auto& v : in) v = n % 2 ? extremes[pick(rng)] : int16_t(full(rng));
    ASSERT_EQ(Full(in), Reference(in)) << "block " << n;
  }
  // A DC whose scaled input passes the 16-bit range wraps too.
  Block in{};
  in[0] = 4092;  // (4092 + 4) * 8 = 32768 wraps to -32768
  in[9] = 32767;
  EXPECT_EQ(Full(in), Reference(in));
  EXPECT_LT(Full(Block{4092})[0], 0);
}

TEST(Velmo2Transform, CornerFormGivesTheFullFormsResult) {
  std::mt19937 rng(7);
  std::uniform_int_distribution<int> typical(-3000, 3000), full(-32768, 32767);
  for (int n = 0; n < 4000; ++n) {
    const Block in = n % 3 == 2 ? RandomBlock(rng, full, true, 16)
                                : RandomBlock(rng, typical, true, 1 + n % 16);
    ASSERT_EQ(Corner(in), Full(in)) << "block " << n;
  }
}

TEST(Velmo2Transform, CornerFormReadsOnlyTheCorner) {
  std::mt19937 rng(8);
  std::uniform_int_distribution<int> typical(-3000, 3000), any(-32768, 32767);
  Block in = RandomBlock(rng, typical, true, 10);
  const Block expected = Full(in);
  for (int k = 0; k < 64; ++k)
    if (!InCorner(k)) in[k] = int16_t(any(rng));
  EXPECT_EQ(Corner(in), expected);
}

TEST(Velmo2Transform, TheCornerHoldsTheFirstTenScanPositions) {
  for (uint32_t p = 0; p <= Velmo2CornerLastIndex; ++p) EXPECT_TRUE(InCorner(Velmo2Scan[p])) << p;
  EXPECT_FALSE(InCorner(Velmo2Scan[Velmo2CornerLastIndex + 1]));
}

TEST(Velmo2Transform, DcOnlyBlocksAreFlat) {
  for (int dc = -4096; dc <= 4091; ++dc) {
    const int expected = ((dc + 4) * 8) >> 6;
    ASSERT_EQ(Velmo2TransformDcOnly(int16_t(dc)), expected) << dc;
    const Block out = Full(Block{int16_t(dc)});
    for (int k = 0; k < 64; ++k) ASSERT_EQ(out[k], expected) << dc << " at " << k;
    ASSERT_EQ(Corner(Block{int16_t(dc)}), out) << dc;
  }
  // The rounding offset rides on the DC: 0 gives 0, 4 is the first DC to reach 1.
  EXPECT_EQ(Full(Block{0})[27], 0);
  EXPECT_EQ(Full(Block{3})[27], 0);
  EXPECT_EQ(Full(Block{4})[27], 1);
  EXPECT_EQ(Full(Block{-5})[27], -1);
}

TEST(Velmo2Transform, KernelTableHoldsFormsThatAgreeWithThePlainOnes) {
  Velmo2Kernels kernels{};
  Velmo2KernelsInit(&kernels, ~0u);
  ASSERT_NE(kernels.Transform, nullptr);
  ASSERT_NE(kernels.TransformCorner, nullptr);
  std::mt19937 rng(5);
  std::uniform_int_distribution<int> ac(-32768, 32767);
  for (int n = 0; n < 500; ++n) {
    const Block in = RandomBlock(rng, ac, true, 1 + n % 16);
    Block a, b;
    kernels.Transform(in.data(), a.data());
    kernels.TransformCorner(in.data(), b.data());
    ASSERT_EQ(a, Full(in));
    ASSERT_EQ(b, Full(in));
  }
}

}  // namespace
