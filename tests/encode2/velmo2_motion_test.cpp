// The motion search: known shifts are found exactly, every vector stays where the decoder's
// clamp leaves it unchanged, static and flat pictures, ties, the outside mask, and the cost
// against the decoder's vector prediction and code lengths.
#include <gtest/gtest.h>

#include <cstdlib>
#include <random>
#include <vector>

#include "decode/velmo1_bits.h"
#include "decode/velmo2_predict.h"
#include "decode/velmo2_syntax.h"
#include "encode2/velmo2_motion.h"
#include "bit_writer.h"
#include "velmo2_motion_frames.h"
#include "velmo2_stream.h"

using namespace test_support;

namespace {

struct Tables {
  Velmo2Kernels Fetch;
  Velmo2EncodeKernels Diff;
  Tables() {
    Velmo2KernelsInit(&Fetch, ProcessorFeatures());
    Velmo2EncodeKernelsInit(&Diff, ProcessorFeatures());
  }
};

const Tables& Kernels() {
  static const Tables t;
  return t;
}

Velmo2MotionInput Input(const MotionFrames& f, uint32_t mbX, uint32_t mbY, double invLambda = 16) {
  return MotionInputFor(f, mbX, mbY, &Kernels().Fetch, &Kernels().Diff, invLambda);
}

// Neighbour vectors: one component of each of the three macroblocks.
struct Neighbours {
  int32_t X[3][4], Y[3][4];
  void Set(Velmo2MotionInput& in, bool above, bool left) const {
    in.NeighbourX = {above ? X[0] : nullptr, left ? X[1] : nullptr, X[2]};
    in.NeighbourY = {above ? Y[0] : nullptr, left ? Y[1] : nullptr, Y[2]};
  }
  static Neighbours All(int32_t x, int32_t y) {
    Neighbours n;
    for (auto& v : n.X) std::fill(v, v + 4, x);
    for (auto& v : n.Y) std::fill(v, v + 4, y);
    return n;
  }
};

// The differences that the decoder's prediction turns into the vectors v: each pass fixes the
// quadrants whose predictions depend only on vectors already right.
void DiffsFor(const Velmo2VectorNeighbours& n, const int32_t v[4], int32_t diff[4]) {
  std::fill(diff, diff + 4, 0);
  for (int pass = 0; pass < 4; ++pass) {
    int32_t out[4];
    Velmo2PredictVectors(n, false, diff, out);
    for (int q = 0; q < 4; ++q) diff[q] += v[q] - out[q];
  }
}

// The vector bits of the result under the decoder's prediction.
double VectorCost(const Velmo2MotionInput& in, const Velmo2MotionResult& r) {
  int32_t dx[4], dy[4];
  DiffsFor(in.NeighbourX, r.Vx, dx);
  DiffsFor(in.NeighbourY, r.Vy, dy);
  double bits = 0;
  for (int q = 0; q < 4; ++q) bits += Velmo2VectorBits(dx[q], dy[q]);
  return bits * in.InverseLambda;
}

// Fetches the macroblock as the decoder would with the result's vectors and compares every
// plane with the source: the number of differing samples.
size_t Mismatches(const MotionFrames& f, const Velmo2MotionInput& in,
                  const Velmo2MotionResult& r) {
  int32_t px[4], py[4];
  Velmo2MotionPositions(in.MbX, in.MbY, r.Vx, r.Vy, f.Width, f.Height,
                        Velmo2FrameWord{Velmo2ParityClamp}, px, py);
  size_t bad = 0;
  for (uint32_t p = 0; p < Velmo2MotionPlanes; ++p) {
    const MotionPlane& ref = f.Reference.Planes[p];
    const MotionPlane& src = f.Source.Planes[p];
    if (ref.Pixels.empty()) continue;
    const bool chroma = IsChromaPlane(p);
    const uint32_t n = chroma ? 8 : 16;
    for (uint32_t q = 0; q < 4; ++q) {
      uint8_t block[256];
      if (chroma) Velmo2FetchChroma(ref.Line(0), ref.Pitch, px[q], py[q], block, 8);
      else Velmo2FetchLuma(ref.Line(0), ref.Pitch, px[q], py[q], block, 16);
      const uint32_t x = (in.MbX >> (chroma ? 1 : 0)) + (q & 1) * n;
      const uint32_t y = (in.MbY >> (chroma ? 1 : 0)) + (q >> 1) * n;
      for (uint32_t j = 0; j < n; ++j)
        for (uint32_t i = 0; i < n; ++i) bad += block[j * n + i] != src.Line(y + j)[x + i];
    }
  }
  return bad;
}

// The vectors of the quadrants in `quadrants` (bit q for quadrant q) are all (x, y).
void ExpectVectors(const Velmo2MotionResult& r, int32_t x, int32_t y, uint32_t quadrants = 15) {
  for (int q = 0; q < 4; ++q)
    if (quadrants >> q & 1) {
      EXPECT_EQ(r.Vx[q], x) << "quadrant " << q;
      EXPECT_EQ(r.Vy[q], y) << "quadrant " << q;
    }
}

// Every vector's absolute position is one the decoder's clamp leaves as it is.
void ExpectInsideClamp(const Velmo2MotionInput& in, const Velmo2MotionResult& r) {
  for (uint32_t q = 0; q < 4; ++q) {
    const int64_t x = 2 * int64_t(in.MbX + (q & 1) * 16) + r.Vx[q];
    const int64_t y = 2 * int64_t(in.MbY + (q >> 1) * 16) + r.Vy[q];
    EXPECT_EQ(Velmo2ClampPosition(x, int32_t(2 * in.Width), true), x) << "quadrant " << q;
    EXPECT_EQ(Velmo2ClampPosition(y, int32_t(2 * in.Height), true), y) << "quadrant " << q;
  }
}

// Whole-pixel and half-pixel shifts, with and without the extra planes, found exactly at
// macroblocks away from the edges, with neighbours absent, left only, above only and all.
TEST(Velmo2MotionSearch, FindsKnownShiftsExactly) {
  struct Shift {
    int32_t X, Y;
  };
  for (Shift s : {Shift{12, -6}, Shift{7, 3}, Shift{-5, -9}, Shift{40, 22}, Shift{-1, 0}}) {
    for (bool extra : {false, true}) {
      const MotionFrames f = ShiftedFrames(224, 160, s.X, s.Y, extra);
      const Neighbours n = Neighbours::All(0, 0);
      for (int layout = 0; layout < 4; ++layout) {
        SCOPED_TRACE(testing::Message() << "shift " << s.X << "," << s.Y << " extra " << extra
                                        << " layout " << layout);
        Velmo2MotionInput in = Input(f, 96, 64);
        n.Set(in, layout & 1, layout & 2);
        Velmo2MotionResult r;
        ASSERT_TRUE(Velmo2MotionSearch(in, &r));
        ExpectVectors(r, s.X, s.Y);
        EXPECT_EQ(Mismatches(f, in, r), 0u);
        // No distortion left: the cost is the vector bits alone.
        EXPECT_DOUBLE_EQ(r.Cost, VectorCost(in, r));
      }
    }
  }
}

// With noise on the source the shift is still found and the cost holds the distortion.
TEST(Velmo2MotionSearch, FindsShiftUnderNoise) {
  const MotionFrames f = ShiftedFrames(192, 128, 9, -4, false, 6);
  Velmo2MotionResult r;
  const Velmo2MotionInput in = Input(f, 64, 32, 4.0);
  ASSERT_TRUE(Velmo2MotionSearch(in, &r));
  ExpectVectors(r, 9, -4);
  EXPECT_GT(r.Cost, VectorCost(in, r) + 1000.0);
}

TEST(Velmo2MotionSearch, StaticPictureGivesZeroVectors) {
  const MotionFrames f = ShiftedFrames(160, 96, 0, 0, true);
  for (int32_t predicted : {0, 6, -13}) {
    const Neighbours n = Neighbours::All(predicted, -predicted);
    for (uint32_t mb : {0u, 32u, 128u}) {
      Velmo2MotionInput in = Input(f, mb, mb / 2);
      n.Set(in, true, true);
      Velmo2MotionResult r;
      ASSERT_TRUE(Velmo2MotionSearch(in, &r));
      SCOPED_TRACE(testing::Message() << "prediction " << predicted << ", mb " << mb);
      ExpectVectors(r, 0, 0);
      EXPECT_DOUBLE_EQ(r.Cost, VectorCost(in, r));
    }
  }
}

// Vectors near every edge, with predictions and shifts far outside the picture, stay inside
// the decoder's bounds for their parity, at odd picture sizes too.
TEST(Velmo2MotionSearch, StaysInsideClampBounds) {
  std::mt19937 rng(5);
  struct Size {
    uint32_t W, H;
  };
  for (Size size : {Size{96, 64}, Size{100, 70}, Size{45, 33}, Size{130, 40}}) {
    for (int32_t shift : {0, 9, -30, 300}) {
      const MotionFrames f = ShiftedFrames(size.W, size.H, shift, -shift, false, 3);
      for (int trial = 0; trial < 6; ++trial) {
        Neighbours n;
        for (auto& v : n.X)
          for (int32_t& c : v) c = int32_t(rng() % 20001) - 10000;
        for (auto& v : n.Y)
          for (int32_t& c : v) c = trial % 2 ? int32_t(rng()) : int32_t(rng() % 201) - 100;
        for (uint32_t my = 0; my < size.H; my += 32)
          for (uint32_t mx = 0; mx < size.W; mx += 32) {
            SCOPED_TRACE(testing::Message() << size.W << "x" << size.H << " shift " << shift
                                            << " mb " << mx << "," << my << " trial " << trial);
            Velmo2MotionInput in = Input(f, mx, my, trial < 3 ? 16.0 : 0.5);
            n.Set(in, my > 0, mx > 0);
            Velmo2MotionResult r;
            ASSERT_TRUE(Velmo2MotionSearch(in, &r));
            ExpectInsideClamp(in, r);
          }
      }
    }
  }
}

// A picture too small for any odd position (under 21 pixels) gets whole-pixel vectors only.
TEST(Velmo2MotionSearch, TinyPictureKeepsWholePixels) {
  const MotionFrames f = ShiftedFrames(18, 12, 0, 0);
  const Neighbours n = Neighbours::All(3, 5);
  Velmo2MotionInput in = Input(f, 0, 0);
  n.Set(in, true, true);
  Velmo2MotionResult r;
  ASSERT_TRUE(Velmo2MotionSearch(in, &r));
  ExpectInsideClamp(in, r);
  for (int q = 0; q < 4; ++q) EXPECT_EQ((r.Vx[q] | r.Vy[q]) & 1, 0);
}

// On a flat picture with no weight on vector bits every candidate costs exactly 0, so the
// first one tested must stay: the prediction held even and inside the bounds.
TEST(Velmo2MotionSearch, TiesKeepTheEarlierCandidate) {
  MotionFrames f = ShiftedFrames(160, 128, 0, 0);
  for (MotionPicture* pic : {&f.Reference, &f.Source})
    for (MotionPlane& p : pic->Planes) std::fill(p.Pixels.begin(), p.Pixels.end(), uint8_t(90));
  struct Case {
    int32_t PredX, PredY, WantX, WantY;
  };
  // Macroblock at (64, 32): x = 128 + v within 0 .. 288, y = 64 + v within 0 .. 224.
  for (Case c : {Case{6, -4, 6, -4}, Case{7, -3, 6, -4}, Case{-9, 11, -10, 10},
                 Case{5000, -800, 160, -64}}) {
    const Neighbours n = Neighbours::All(c.PredX, c.PredY);
    Velmo2MotionInput in = Input(f, 64, 32, 0.0);
    n.Set(in, true, true);
    Velmo2MotionResult r;
    ASSERT_TRUE(Velmo2MotionSearch(in, &r));
    // Quadrant 0 is predicted from the neighbours alone.
    EXPECT_EQ(r.Vx[0], c.WantX) << "prediction " << c.PredX << "," << c.PredY;
    EXPECT_EQ(r.Vy[0], c.WantY) << "prediction " << c.PredX << "," << c.PredY;
    EXPECT_EQ(r.Cost, 0.0);
  }
}

// A quadrant marked outside is chosen by its vector bits alone: with no neighbours its
// prediction is zero and it keeps zero although the picture moved; the others follow the
// motion. With all four outside, the vector bits shrink by the same factor as the distortion:
// the choice is that of the unmarked search, at almost no cost.
TEST(Velmo2MotionSearch, OutsideMaskLeavesOnlyVectorBits) {
  const MotionFrames f = ShiftedFrames(192, 128, 10, 6);
  Velmo2MotionInput in = Input(f, 64, 32);
  Velmo2MotionResult moved, masked, all;
  ASSERT_TRUE(Velmo2MotionSearch(in, &moved));
  EXPECT_EQ(moved.Vx[0], 10);
  in.OutsideMask = 1;
  ASSERT_TRUE(Velmo2MotionSearch(in, &masked));
  ExpectVectors(masked, 0, 0, 1);
  ExpectVectors(masked, 10, 6, 14);
  in.OutsideMask = 15;
  ASSERT_TRUE(Velmo2MotionSearch(in, &all));
  EXPECT_LT(all.Cost, 1e-6);
  EXPECT_GT(all.Cost, 0.0);
  for (int q = 0; q < 4; ++q) {
    EXPECT_EQ(all.Vx[q], moved.Vx[q]) << q;
    EXPECT_EQ(all.Vy[q], moved.Vy[q]) << q;
  }
}

// With only a left neighbour, vector 1 is predicted from vector 2, so vector 2 must be chosen
// first: a quadrant 1 chosen by its bits alone then takes the median of the vectors 0 and 2
// found (both the motion) and the left one, the motion, not the left vector.
TEST(Velmo2MotionSearch, LeftNeighbourOnlySearchesVectorTwoFirst) {
  const MotionFrames f = ShiftedFrames(192, 128, 8, -6);
  const Neighbours n = Neighbours::All(-20, 14);
  // A macroblock below the top, as in the first row of a slice, where there is none above.
  Velmo2MotionInput in = Input(f, 64, 32);
  n.Set(in, false, true);
  in.OutsideMask = 2;
  Velmo2MotionResult r;
  ASSERT_TRUE(Velmo2MotionSearch(in, &r));
  ExpectVectors(r, 8, -6);
  EXPECT_NEAR(r.Cost, VectorCost(in, r), 1e-6);
}

TEST(Velmo2MotionSearch, OutsideMaskOfPictureEdges) {
  const uint32_t cases[][5] = {{64, 64, 32, 32, 0}, {40, 40, 32, 32, 14}, {50, 40, 32, 32, 12},
                               {40, 50, 32, 32, 10}, {40, 50, 64, 0, 15}};
  for (const auto& c : cases) EXPECT_EQ(Velmo2OutsideMask(c[0], c[1], c[2], c[3]), c[4]) << c[0] << "x" << c[1] << " at " << c[2] << "," << c[3];
}

// The kernels of every processor level give the same vectors and costs as the plain ones, on
// noisy frames where many candidates tie closely.
TEST(Velmo2MotionSearch, SameResultAtEveryKernelLevel) {
  const MotionFrames f = ShiftedFrames(192, 128, 13, -7, true, 12, 4);
  const auto searchAt = [&](int level, uint32_t mbX, uint32_t mbY, Velmo2MotionResult* r) {
    Velmo2Kernels fetch;
    Velmo2EncodeKernels diff;
    Velmo2KernelsInit(&fetch, ProcessorLevels[level].Features | CpuValid);
    Velmo2EncodeKernelsInit(&diff, ProcessorLevels[level].Features | CpuValid);
    const Velmo2MotionInput in = MotionInputFor(f, mbX, mbY, &fetch, &diff, 2.0);
    return Velmo2MotionSearch(in, r);
  };
  for (int level = 1; level < ProcessorLevelCount; ++level) {
    if (!ProcessorHas(ProcessorLevels[level].Features)) continue;
    for (uint32_t mb = 0; mb < 6; ++mb) {
      Velmo2MotionResult want, got;
      ASSERT_TRUE(searchAt(ProcessorLevelPlain, mb * 32, (mb % 4) * 32, &want));
      ASSERT_TRUE(searchAt(level, mb * 32, (mb % 4) * 32, &got));
      EXPECT_EQ(got.Cost, want.Cost) << ProcessorLevels[level].Name << " mb " << mb;
      for (int q = 0; q < 4; ++q) {
        EXPECT_EQ(got.Vx[q], want.Vx[q]);
        EXPECT_EQ(got.Vy[q], want.Vy[q]);
      }
    }
  }
}

// The vector bits are the length of the decoder's difference codes for the pair.
TEST(Velmo2MotionSearch, VectorBitsMatchTheDecoderCodes) {
  for (int32_t dx : {0, 1, -1, 2, -2, 3, 7, -8, 100, -1000, 30000})
    for (int32_t dy : {0, -1, 5, -64, 4095}) {
      BitWriter w;
      velmo2_test::PutVectorDiff(w, dx);
      velmo2_test::PutVectorDiff(w, dy);
      EXPECT_EQ(Velmo2VectorBits(dx, dy), w.Size()) << dx << "," << dy;
      const std::vector<uint8_t> bytes = w.Bytes();
      Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size());
      EXPECT_EQ(Velmo2ReadVectorDiff(r), dx);
      EXPECT_EQ(Velmo2ReadVectorDiff(r), dy);
    }
}

}  // namespace
