// Second-generation motion compensation: the position clamp, the luma and chroma fetches and
// the stores, each against a reference written here from the format's formulas with plain loops
// over a bounds-checked plane. Planes sit inside a poisoned guard band: a fetch must give the
// same result whatever the guard holds and must leave it unchanged.
#include "decode/velmo2_predict.h"
#include "decode/velmo2_tables.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <random>
#include <vector>

namespace {

// A width x height plane with `guard` poisoned bytes on every side; the buffer is exactly that
// size, so a read past the guard (any read above or below a plane without one) also goes past
// the allocation, which the address sanitizer reports.
struct GuardedPlane {
  int width, height, guard;
  ptrdiff_t pitch;
  std::vector<uint8_t> bytes;

  GuardedPlane(int w, int h, std::mt19937& rng, int g = 24)
      : width(w), height(h), guard(g), pitch(w + 2 * g) {
    bytes.assign(size_t(pitch) * (h + 2 * guard), 0);
    Poison(0xA5);
    // Runs of extremes as well as noise, so that the filters' clamps are reached.
    std::uniform_int_distribution<int> any(0, 255), pick(0, 3);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        const int k = pick(rng);
        Set(x, y, k == 0 ? 0 : k == 1 ? 255 : any(rng));
      }
  }
  uint8_t* Origin() { return bytes.data() + guard * pitch + guard; }
  bool Inside(int x, int y) const { return x >= 0 && y >= 0 && x < width && y < height; }
  void Set(int x, int y, uint8_t v) { bytes[size_t((y + guard) * pitch + x + guard)] = v; }
  // The reference's only way to read: fails the test for a sample outside the plane.
  int At(int x, int y) const {
    if (!Inside(x, y)) {
      ADD_FAILURE() << "reference read outside the plane at " << x << "," << y;
      return 0;
    }
    return bytes[size_t((y + guard) * pitch + x + guard)];
  }
  void Poison(uint8_t v) {
    for (int y = -guard; y < height + guard; ++y)
      for (int x = -guard; x < width + guard; ++x)
        if (!Inside(x, y)) bytes[size_t((y + guard) * pitch + x + guard)] = v;
  }
  bool GuardHolds(uint8_t v) const {
    for (int y = -guard; y < height + guard; ++y)
      for (int x = -guard; x < width + guard; ++x)
        if (!Inside(x, y) && bytes[size_t((y + guard) * pitch + x + guard)] != v) return false;
    return true;
  }
};

using Block16 = std::vector<uint8_t>;  // 16 x 16, or 8 x 8 for chroma

int Clamp255(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

// Division rounding down, as the arithmetic shifts of the formulas do for negative values.
int FloorDiv(int v, int d) { return int(std::floor(double(v) / d)); }

// The half-pixel filter, written from its formula: p holds p[-2] .. p[3].
int Tap(const int p[6]) {
  const int t = FloorDiv(p[0] + p[5], 2) + FloorDiv((p[2] + p[3]) * 19, 2) - 2 * (p[1] + p[4]) + 8;
  return FloorDiv(t, 16);
}

Block16 ReferenceLuma(const GuardedPlane& plane, int x, int y) {
  const int bx = x / 2, by = y / 2;  // positions here are never negative
  const bool hx = x % 2 == 1, hy = y % 2 == 1;
  // Horizontal pass (or the plain samples) for rows -2 .. 18 where they exist in the plane.
  auto horizontal = [&](int r, int c) {
    if (!hx) return plane.At(bx + c, by + r);
    int p[6];
    for (int k = 0; k < 6; ++k) p[k] = plane.At(bx + c + k - 2, by + r);
    return Tap(p);
  };
  Block16 out(256);
  for (int r = 0; r < 16; ++r)
    for (int c = 0; c < 16; ++c) {
      int v;
      if (hy) {
        int p[6];
        for (int k = 0; k < 6; ++k) p[k] = horizontal(r + k - 2, c);
        v = Tap(p);
      } else {
        v = horizontal(r, c);
      }
      out[size_t(r * 16 + c)] = uint8_t(Clamp255(v));
    }
  return out;
}

// One quarter step by the table, for non-negative a and b, with floor and ceiling spelt out.
int QuarterStep(int a, int b, int f) {
  switch (f) {
    case 0: return a;
    case 1: return a + int(std::floor((b - a) / 4.0));
    case 2: return int(std::ceil((a + b) / 2.0));
    default: return b + int(std::floor((a - b) / 4.0));
  }
}

Block16 ReferenceChroma(const GuardedPlane& plane, int x, int y) {
  const int bx = x / 4, by = y / 4, fx = x % 4, fy = y % 4;
  auto horizontal = [&](int r, int c) {
    const int a = plane.At(bx + c, by + r) * 16;
    return fx ? QuarterStep(a, plane.At(bx + c + 1, by + r) * 16, fx) : a;
  };
  Block16 out(64);
  for (int r = 0; r < 8; ++r)
    for (int c = 0; c < 8; ++c) {
      const int a = horizontal(r, c);
      const int v = fy ? QuarterStep(a, horizontal(r + 1, c), fy) : a;
      out[size_t(r * 8 + c)] = uint8_t(Clamp255(int(std::floor((v + 8) / 16.0))));
    }
  return out;
}

Block16 FetchLuma(GuardedPlane& plane, int x, int y) {
  Block16 out(256);
  Velmo2FetchLuma(plane.Origin(), plane.pitch, x, y, out.data(), 16);
  return out;
}

Block16 FetchChroma(GuardedPlane& plane, int x, int y) {
  Block16 out(64);
  Velmo2FetchChroma(plane.Origin(), plane.pitch, x, y, out.data(), 8);
  return out;
}

// ---- Luma fetch ------------------------------------------------------------------------------

TEST(Velmo2FetchLuma, EachParityCaseMatchesTheFormatsFilter) {
  std::mt19937 rng(11);
  GuardedPlane plane(96, 64, rng);
  std::uniform_int_distribution<int> px(4, 2 * (96 - 20)), py(4, 2 * (64 - 20));
  for (int i = 0; i < 200; ++i) {
    // Every parity pair in turn (whole pixels among them: plain copies), at random places away
    // from the edges; the edges are those of the clamp, below.
    const int x = (px(rng) & ~1) | (i & 1), y = (py(rng) & ~1) | (i >> 1 & 1);
    ASSERT_EQ(FetchLuma(plane, x, y), ReferenceLuma(plane, x, y)) << "at " << x << "," << y;
  }
}

TEST(Velmo2FetchLuma, BothHalvesKeepTheIntermediateUnclamped) {
  // A bright line between dark ones overshoots past 255 in the horizontal pass; clamping
  // it there would change the vertical result.
  std::mt19937 rng(3);
  GuardedPlane plane(64, 64, rng);
  for (int y = 0; y < 64; ++y)
    for (int x = 0; x < 64; ++x) plane.Set(x, y, ((x / 2) % 3 == 0) != ((y / 2) % 3 == 0) ? 255 : 0);
  for (int x = 9; x < 20; x += 2)
    for (int y = 9; y < 20; y += 2) ASSERT_EQ(FetchLuma(plane, x, y), ReferenceLuma(plane, x, y));
}

// ---- Chroma fetch ----------------------------------------------------------------------------

TEST(Velmo2FetchChroma, AllSixteenFractionPairsMatchTheTable) {
  std::mt19937 rng(17);
  GuardedPlane plane(48, 40, rng);
  std::uniform_int_distribution<int> px(0, 4 * (48 - 9)), py(0, 4 * (40 - 9));
  for (int i = 0; i < 320; ++i) {
    // Zero fractions among them: plain copies.
    const int x = (px(rng) & ~3) | (i & 3), y = (py(rng) & ~3) | (i >> 2 & 3);
    ASSERT_EQ(FetchChroma(plane, x, y), ReferenceChroma(plane, x, y)) << "at " << x << "," << y;
  }
}

TEST(Velmo2FetchChroma, QuarterStepsLeanToTheirSideAndHalvesRoundUp) {
  // Columns alternating 0 and 1, scaled to 0 and 16: the steps from a 0 column are 4, 8 and
  // 12, which the final rounding takes to 0, 1 and 1.
  std::mt19937 rng(23);
  GuardedPlane plane(32, 32, rng);
  for (int y = 0; y < 32; ++y)
    for (int x = 0; x < 32; ++x) plane.Set(x, y, uint8_t(x % 2));
  const int expected[4] = {0, 0, 1, 1};
  for (int f = 0; f < 4; ++f) EXPECT_EQ(FetchChroma(plane, 8 + f, 8)[0], expected[f]) << f;
}

// ---- Position clamp --------------------------------------------------------------------------

struct Positions {
  int32_t x[4], y[4];
};

Positions Place(uint32_t mbX, uint32_t mbY, int32_t vx, int32_t vy, uint32_t w, uint32_t h,
                uint32_t word) {
  const int32_t vxs[4] = {vx, vx, vx, vx}, vys[4] = {vy, vy, vy, vy};
  Positions p;
  Velmo2MotionPositions(mbX, mbY, vxs, vys, w, h, Velmo2FrameWord{word}, p.x, p.y);
  return p;
}

TEST(Velmo2MotionPositions, InsideThePlaneTheyAreMacroblockQuadrantAndVector) {
  const Positions p = Place(32, 64, 3, -5, 128, 160, Velmo2ParityClamp);
  const int32_t qx[4] = {0, 16, 0, 16}, qy[4] = {0, 0, 16, 16};
  for (int q = 0; q < 4; ++q) {
    EXPECT_EQ(p.x[q], 64 + 2 * qx[q] + 3);
    EXPECT_EQ(p.y[q], 128 + 2 * qy[q] - 5);
  }
  // Each quadrant takes its own vector.
  const int32_t vx[4] = {-2, 4, 7, -9}, vy[4] = {1, 0, -6, 2};
  int32_t x[4], y[4];
  Velmo2MotionPositions(32, 32, vx, vy, 128, 128, Velmo2FrameWord{0}, x, y);
  for (int q = 0; q < 4; ++q) {
    EXPECT_EQ(x[q], 64 + 2 * qx[q] + vx[q]);
    EXPECT_EQ(y[q], 64 + 2 * qy[q] + vy[q]);
  }
}

TEST(Velmo2MotionPositions, AllFourEdgesWithAndWithoutParityKept) {
  const uint32_t w = 96, h = 64;
  const int32_t limX = 2 * w, limY = 2 * h;
  for (uint32_t word : {0u, uint32_t(Velmo2ParityClamp)}) {
    const bool keep = word != 0;
    const int32_t oddLo = keep ? 5 : 4;
    const int32_t oddHiX = keep ? 5 + limX - 42 : limX - 42, oddHiY = keep ? 5 + limY - 42 : limY - 42;
    for (int32_t big : {1000, 1001, 2000000000, 2000000001}) {
      const bool odd = big % 2 == 1;
      // Left and top.
      Positions p = Place(0, 0, -big, -big, w, h, word);
      for (int q = 0; q < 4; ++q) {
        EXPECT_EQ(p.x[q], odd ? oddLo : 0) << word << " " << big;
        EXPECT_EQ(p.y[q], odd ? oddLo : 0) << word << " " << big;
      }
      // Right and bottom, from the last macroblock.
      p = Place(w - 32, h - 32, big, big, w, h, word);
      for (int q = 0; q < 4; ++q) {
        EXPECT_EQ(p.x[q], odd ? oddHiX : limX - 32) << word << " " << big;
        EXPECT_EQ(p.y[q], odd ? oddHiY : limY - 32) << word << " " << big;
      }
    }
  }
}

TEST(Velmo2MotionPositions, ParityKeptOnlyWithTheFlag) {
  std::mt19937 rng(29);
  std::uniform_int_distribution<int32_t> v(-400, 400);
  bool changed = false;
  for (int i = 0; i < 2000; ++i) {
    const int32_t vx = v(rng), vy = v(rng);
    const Positions kept = Place(32, 0, vx, vy, 128, 96, Velmo2ParityClamp);
    const Positions free = Place(32, 0, vx, vy, 128, 96, 0);
    for (int q = 0; q < 4; ++q) {
      EXPECT_EQ(kept.x[q] & 1, vx & 1);
      EXPECT_EQ(kept.y[q] & 1, vy & 1);
      changed |= (free.x[q] & 1) != (vx & 1) || (free.y[q] & 1) != (vy & 1);
    }
  }
  // Odd values clamped at the low bound 4 or the high bound lim - 42 become even.
  EXPECT_TRUE(changed);
}

// ---- Fetches at any vector stay inside the plane -----------------------------------------------

// Fetches at the clamped positions of random vectors, near and far, for a w x h luma plane and
// its chroma plane of (w + 1) / 2 x (h + 1) / 2: each result must not depend on the guard
// band, must leave it alone and must match the reference.
void CheckFetchesStayInside(int w, int h, unsigned seed, int guard) {
  std::mt19937 rng(seed);
  GuardedPlane luma(w, h, rng, guard), chroma((w + 1) / 2, (h + 1) / 2, rng, guard);
  std::uniform_int_distribution<int32_t> near(-80, 80), far(-100000, 100000),
      mbx(0, (w - 1) / 32), mby(0, (h - 1) / 32);
  for (int i = 0; i < 400; ++i) {
    const bool wild = i % 3 == 0;
    int32_t vx[4], vy[4];
    for (int q = 0; q < 4; ++q) {
      vx[q] = wild ? far(rng) : near(rng);
      vy[q] = wild ? far(rng) : near(rng);
    }
    int32_t x[4], y[4];
    const uint32_t word = i % 2 ? uint32_t(Velmo2ParityClamp) : 0u;
    Velmo2MotionPositions(uint32_t(mbx(rng) * 32), uint32_t(mby(rng) * 32), vx, vy, w, h,
                          Velmo2FrameWord{word}, x, y);
    for (int q = 0; q < 4; ++q) {
      luma.Poison(0x00);
      chroma.Poison(0x00);
      const Block16 l0 = FetchLuma(luma, x[q], y[q]), c0 = FetchChroma(chroma, x[q], y[q]);
      luma.Poison(0xFF);
      chroma.Poison(0xFF);
      const Block16 l1 = FetchLuma(luma, x[q], y[q]), c1 = FetchChroma(chroma, x[q], y[q]);
      ASSERT_EQ(l0, l1) << w << "x" << h << " " << "luma at " << x[q] << "," << y[q];
      ASSERT_EQ(c0, c1) << "chroma at " << x[q] << "," << y[q];
      ASSERT_TRUE(luma.GuardHolds(0xFF) && chroma.GuardHolds(0xFF));
      ASSERT_EQ(l1, ReferenceLuma(luma, x[q], y[q]));
      ASSERT_EQ(c1, ReferenceChroma(chroma, x[q], y[q]));
    }
  }
}

TEST(Velmo2Fetch, AnyVectorReadsOnlyThePlane) {
  CheckFetchesStayInside(96, 64, 31, 24);
  // A picture size off the macroblock grid, odd in both directions.
  CheckFetchesStayInside(75, 45, 37, 24);
  // Planes with nothing around them.
  CheckFetchesStayInside(96, 64, 41, 0);
  CheckFetchesStayInside(75, 45, 43, 0);
}

// ---- Stores ----------------------------------------------------------------------------------

TEST(Velmo2Stores, ResidualAndIntraAreHeldToPixelRange) {
  std::mt19937 rng(37);
  std::uniform_int_distribution<int> pixel(0, 255), res(-600, 600);
  // A 16x16 prediction inside a wider destination, a residual with its own pitch.
  std::vector<uint8_t> dst(20 * 18), before;
  std::vector<int16_t> residual(32 * 16);
  for (auto& p : dst) p = uint8_t(pixel(rng));
  for (auto& r : residual) r = int16_t(res(rng));
  before = dst;
  Velmo2AddResidual(dst.data() + 20 + 2, 20, residual.data(), 32, 16, 16);
  for (int y = 0; y < 18; ++y)
    for (int x = 0; x < 20; ++x) {
      const size_t i = size_t(y * 20 + x);
      const bool in = y >= 1 && y < 17 && x >= 2 && x < 18;
      const int want = in ? Clamp255(before[i] + residual[size_t((y - 1) * 32 + x - 2)]) : before[i];
      ASSERT_EQ(dst[i], want) << x << "," << y;
    }

  int16_t out[64];
  for (auto& v : out) v = int16_t(res(rng));
  std::vector<uint8_t> block(10 * 8, 7);
  Velmo2StoreIntra(out, block.data(), 10);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 10; ++x)
      ASSERT_EQ(block[size_t(y * 10 + x)], x < 8 ? Clamp255(out[y * 8 + x]) : 7);
}

}  // namespace
