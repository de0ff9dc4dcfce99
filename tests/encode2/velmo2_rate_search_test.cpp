// The quality search: the values it hands out for synthetic size functions, where it ends
// when driven by the frame loop (tolerance max(budget / 10, 10) bytes, at most 16 passes),
// what carries over to the next frame, and the floor sizes against frames written bit by bit.
#include "encode2/velmo2_rate_search.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <functional>
#include <vector>

#include "decode/velmo2_decoder.h"
#include "host/cpu_features.h"
#include "support/velmo2_stream.h"

namespace {

// Bytes a pass comes to at a log-quality x.
using SizeAt = std::function<double(double x)>;

// Size 2^(base + slope * x), never below `floor` bytes.
SizeAt LogLinear(double base, double slope, double floor = 0.0) {
  return [=](double x) { return std::max(floor, std::exp2(base + slope * x)); };
}

struct Drive {
  std::vector<double> Values;  // x of each pass
  std::vector<double> Sizes;
  bool Within = false;         // the last pass came within the tolerance
  bool SearchEnded = false;    // the search wanted no further pass
};

// The encoder's frame loop for one frame: take the quality from the search, code a pass, give
// size and distortion back; stop when the search wants no more, when the size is within
// max(budget / 10, 10) bytes of the budget, or after 16 passes.
Drive RunFrame(Velmo2RateSearch& s, const SizeAt& size, double budget,
               uint32_t floor = Velmo2FloorInter) {
  Drive d;
  const double tolerance = std::max(budget / 10, 10.0);
  int more = Velmo2RateSearchStart(s, floor, budget);
  while (more) {
    const double quality = std::exp2(s.Value);
    const double bytes = std::ceil(size(s.Value));
    d.Values.push_back(s.Value);
    d.Sizes.push_back(bytes);
    more = Velmo2RateSearchAdd(s, quality, bytes, bytes * 0.5);
    if (!more) d.SearchEnded = true;
    if (std::fabs(bytes - budget) <= tolerance) {
      d.Within = true;
      break;
    }
    if (d.Values.size() == 16) break;
  }
  return d;
}

TEST(Velmo2RateSearch, FreshSearchStartsAtMinusThreeWithSlopeSixTenths) {
  Velmo2RateSearch s = Velmo2RateSearchCreate(100, 1000);
  EXPECT_DOUBLE_EQ(s.LastValue, -3.0);
  EXPECT_DOUBLE_EQ(s.Slope, 0.6);
  EXPECT_DOUBLE_EQ(s.FloorLog[Velmo2FloorInter], std::log2(100.0));
  EXPECT_DOUBLE_EQ(s.FloorLog[Velmo2FloorKey], std::log2(1000.0));
  ASSERT_EQ(Velmo2RateSearchStart(s, Velmo2FloorKey, 65536), 1);
  EXPECT_EQ(s.FloorIndex, uint32_t(Velmo2FloorKey));
  EXPECT_DOUBLE_EQ(s.TargetLog, 16.0);
  EXPECT_DOUBLE_EQ(s.Value, -3.0);
  EXPECT_EQ(s.Count, 0u);
}

TEST(Velmo2RateSearch, SecondPassFollowsTheSlopeFromTheFirst) {
  // Sizes grow by 2^0.6 per step of x, as the search's first guess of the slope says: the
  // second pass lands on the budget.
  Velmo2RateSearch s = Velmo2RateSearchCreate(16, 16);
  const SizeAt size = LogLinear(12.0, 0.6);
  const double budget = std::exp2(15.0);
  const Drive d = RunFrame(s, size, budget);
  ASSERT_EQ(d.Values.size(), 2u);
  EXPECT_DOUBLE_EQ(d.Values[0], -3.0);
  const double y0 = std::log2(d.Sizes[0]);
  EXPECT_DOUBLE_EQ(d.Values[1], -3.0 + (15.0 - y0) / 0.6);
  EXPECT_TRUE(d.Within);
}

TEST(Velmo2RateSearch, SizesBelowTheBudgetClimbByTwoThenJumpToTheTop) {
  // Sizes stay at a floor of 2^10 bytes until x = 1.25, then grow with slope 0.8. Budget 2^14.
  Velmo2RateSearch s = Velmo2RateSearchCreate(1024, 4096);
  const SizeAt size = LogLinear(9.0, 0.8, 1024);
  const double t = 14.0;
  const Drive d = RunFrame(s, size, std::exp2(t));
  ASSERT_GE(d.Values.size(), 5u);
  EXPECT_DOUBLE_EQ(d.Values[0], -3.0);
  // At the floor: not above floor + 1, so two steps up; then again with two samples.
  EXPECT_DOUBLE_EQ(d.Values[1], -3.0 + 2.0);
  EXPECT_DOUBLE_EQ(d.Values[2], -3.0 + 2.0 + 2.0);
  // Still below with three samples: the top of the range.
  EXPECT_DOUBLE_EQ(d.Values[3], 15.0);
  // Passed the budget: a secant through the last two.
  const double fa = std::log2(d.Sizes[2]) - t, fb = std::log2(d.Sizes[3]) - t;
  EXPECT_DOUBLE_EQ(d.Values[4], 15.0 - (15.0 - d.Values[2]) * fb / (fb - fa));
  // The slope is refreshed from the new sample and the one above it, not from the samples
  // at the floor: it is the function's own.
  EXPECT_NEAR(s.Slope, 0.8, 1e-3);
  EXPECT_TRUE(d.Within);
  EXPECT_LE(d.Values.size(), 16u);
}

TEST(Velmo2RateSearch, BudgetBelowTheFloorGivesOnePassAtTheLowestQuality) {
  Velmo2RateSearch s = Velmo2RateSearchCreate(5000, 20000);
  const Drive d = RunFrame(s, LogLinear(13.0, 0.6, 5000), 3000);
  ASSERT_EQ(d.Values.size(), 1u);
  EXPECT_DOUBLE_EQ(d.Values[0], -12.0);
  EXPECT_TRUE(d.SearchEnded);
  // The key floor is used for a key frame: with a budget between the two floors the inter
  // search runs normally while the key search gives up at once.
  Velmo2RateSearch k = Velmo2RateSearchCreate(5000, 20000);
  ASSERT_EQ(Velmo2RateSearchStart(k, Velmo2FloorInter, 10000), 1);
  EXPECT_DOUBLE_EQ(k.Value, -3.0);
  ASSERT_EQ(Velmo2RateSearchStart(k, Velmo2FloorKey, 10000), 1);
  EXPECT_DOUBLE_EQ(k.Value, -12.0);
  EXPECT_EQ(Velmo2RateSearchAdd(k, std::exp2(-12.0), 20000, 0), 0);
}

TEST(Velmo2RateSearch, StopsAtTheTopWhenTheBudgetIsNeverReached) {
  Velmo2RateSearch s = Velmo2RateSearchCreate(16, 16);
  const Drive d = RunFrame(s, LogLinear(8.0, 0.6), std::exp2(30.0));
  ASSERT_EQ(d.Values.size(), 2u);
  EXPECT_DOUBLE_EQ(d.Values[1], 15.0);  // the slope's guess clamped to the top
  EXPECT_TRUE(d.SearchEnded);
  EXPECT_FALSE(d.Within);
}

TEST(Velmo2RateSearch, StopsAtTheBottomWhenEvenTheLowestQualityIsTooLarge) {
  // The declared floor is small, but this picture never comes below 2^20 bytes.
  Velmo2RateSearch s = Velmo2RateSearchCreate(16, 16);
  const Drive d = RunFrame(s, LogLinear(22.0, 0.6, std::exp2(20.0)), 4096);
  ASSERT_EQ(d.Values.size(), 2u);
  EXPECT_DOUBLE_EQ(d.Values[1], -12.0);
  EXPECT_TRUE(d.SearchEnded);
}

TEST(Velmo2RateSearch, BothFirstPassesTooLargeBracketAgainstTheFloor) {
  // Slope 0.05 against the guess 0.6: the second pass is still far too large. The bracket
  // runs from the floor at -12 to the lower of the two passes.
  Velmo2RateSearch s = Velmo2RateSearchCreate(64, 64);
  ASSERT_EQ(Velmo2RateSearchStart(s, Velmo2FloorInter, 4096), 1);
  const SizeAt size = LogLinear(14.0, 0.05);
  ASSERT_EQ(Velmo2RateSearchAdd(s, std::exp2(s.Value), size(s.Value), 0), 1);
  const double second = s.Value;
  ASSERT_EQ(Velmo2RateSearchAdd(s, std::exp2(second), size(second), 0), 1);
  EXPECT_DOUBLE_EQ(s.A, -12.0);
  EXPECT_DOUBLE_EQ(s.FA, 6.0 - 12.0);
  EXPECT_DOUBLE_EQ(s.B, std::min(second, -3.0));
  EXPECT_DOUBLE_EQ(s.Value, s.B - (s.B - s.A) * s.FB / (s.FB - s.FA));
}

// Drives frames at many budgets and checks the bracket after every pass once it is formed:
// it holds the root (the F values at its ends differ in sign) and every interpolated value
// lies inside it.
void CheckBracketedSearch(const SizeAt& size, double floorBytes, double lo, double hi,
                          bool wantWithin) {
  for (double tl = lo; tl <= hi; tl += 0.37) {
    Velmo2RateSearch s = Velmo2RateSearchCreate(floorBytes, floorBytes);
    const double budget = std::exp2(tl);
    const double tolerance = std::max(budget / 10, 10.0);
    int more = Velmo2RateSearchStart(s, Velmo2FloorInter, budget);
    int passes = 0;
    bool within = false;
    while (more && passes < 16) {
      const double bytes = std::ceil(size(s.Value));
      ++passes;
      more = Velmo2RateSearchAdd(s, std::exp2(s.Value), bytes, 0);
      if (std::fabs(bytes - budget) <= tolerance) {
        within = true;
        break;
      }
      EXPECT_GE(s.Value, -12.0);
      EXPECT_LE(s.Value, 15.0);
      if (more && (s.State == 7 || s.State == 9)) {  // a value inside the bracket is out
        EXPECT_LE(s.FA * s.FB, 0.0) << "budget 2^" << tl;
        EXPECT_GE(s.Value, std::min(s.A, s.B) - 1e-12) << "budget 2^" << tl;
        EXPECT_LE(s.Value, std::max(s.A, s.B) + 1e-12) << "budget 2^" << tl;
      }
    }
    EXPECT_LE(passes, 16);
    if (wantWithin) {
      EXPECT_TRUE(within) << "budget 2^" << tl << " after " << passes;
    }
  }
}

TEST(Velmo2RateSearch, SteepSmoothAndFlatSizesEndWithinTolerance) {
  CheckBracketedSearch(LogLinear(10.0, 2.5, 64), 64, 8.0, 40.0, true);    // steep
  CheckBracketedSearch(LogLinear(12.0, 0.6, 64), 64, 7.0, 20.0, true);    // smooth
  CheckBracketedSearch(LogLinear(12.0, 0.05, 64), 64, 11.5, 12.6, true);  // flat
  // Smooth but curved: the slope itself changes along x.
  CheckBracketedSearch([](double x) { return std::exp2(11.0 + 0.4 * x + 0.01 * x * x); }, 64,
                       8.0, 19.0, true);
}

TEST(Velmo2RateSearch, NoisySizesKeepTheBracketAndTheLimit) {
  // Sizes of real passes are not monotone in detail: a few percent of noise on a smooth rise.
  const SizeAt noisy = [](double x) {
    const double wobble = 1.0 + 0.04 * std::sin(x * 37.0) * std::cos(x * 11.0);
    return std::exp2(12.0 + 0.7 * x) * wobble;
  };
  CheckBracketedSearch(noisy, 64, 7.0, 20.0, true);
}

TEST(Velmo2RateSearch, LastValueAndSlopeCarryOverToTheNextFrame) {
  Velmo2RateSearch s = Velmo2RateSearchCreate(1024, 4096);
  const SizeAt size = LogLinear(9.0, 0.8, 1024);
  const Drive first = RunFrame(s, size, std::exp2(14.0));
  ASSERT_TRUE(first.Within);
  const double last = first.Values.back();
  EXPECT_DOUBLE_EQ(s.LastValue, last);
  EXPECT_NEAR(s.Slope, 0.8, 1e-3);
  const double slope = s.Slope;
  // The next frame starts where this one ended and steps with the learned slope: with the
  // same picture and a budget four times as large, the second pass is on the spot.
  const Drive second = RunFrame(s, size, std::exp2(16.0));
  ASSERT_GE(second.Values.size(), 1u);
  EXPECT_DOUBLE_EQ(second.Values[0], last);
  if (second.Values.size() > 1) {
    EXPECT_NEAR(second.Values[1], last + (16.0 - std::log2(second.Sizes[0])) / slope, 1e-12);
  }
  EXPECT_TRUE(second.Within);
  EXPECT_LE(second.Values.size(), 2u);
}

// ---- Floors ---------------------------------------------------------------------------------

// The smallest frame of a picture, written with the stream's own codes: all SKIPPED through the
// kind list, or (key) all INTRA with an unchanged quantiser, empty masks and no DC residual.
std::vector<uint8_t> SmallestSection(const Velmo2SliceLayout& layout, uint32_t width,
                                     uint32_t height, bool key, uint32_t* frameWord) {
  *frameWord = 0x2000 | 0x20000 | 0x40000 | 0xC000;
  const uint32_t columns = (width + 31) / 32;
  const uint32_t padded = (height + 31) / 32 * 32;
  std::vector<std::vector<uint8_t>> slices;
  uint32_t start = 0;
  for (uint32_t k = 0; k < layout.Slices; ++k) {
    BitWriter w;
    const uint32_t end = std::min(layout.Ends[k], padded);
    for (uint32_t row = start; row < end; row += 32) {
      velmo2_test::KindListModel kinds;
      uint32_t previous[3] = {0, 0, 0};
      for (uint32_t mb = 0; mb < columns; ++mb) {
        if (!key) {
          kinds.Put(w, Velmo2Skipped);
          continue;
        }
        const int32_t none[16] = {};
        velmo2_test::PutQuantiserDiff(w, 0);
        velmo2_test::PutLumaMask(w, &previous[0], 0, false, *frameWord);
        velmo2_test::PutDcResiduals(w, none, 16);
        for (int c = 1; c < 3; ++c) {
          velmo2_test::PutChromaMask(w, &previous[c], velmo2_test::ChromaMaskChoice{true});
          velmo2_test::PutDcResiduals(w, none, 4);
        }
      }
    }
    start = end;
    slices.push_back(w.Bytes());
  }
  return velmo2_test::AssembleSection(*frameWord, slices);
}

TEST(Velmo2RateSearch, FloorsAreTheSizesOfTheSmallestFramesAndThoseDecode) {
  struct Case {
    uint32_t Width, Height, Flags;
  };
  // One to eight slices; one, two and many macroblocks a row; heights not a multiple of 32.
  const Case cases[] = {{32, 32, 0}, {64, 96, 0}, {200, 130, 0}, {640, 480, 1},
                        {1920, 1080, 2}, {352, 288, 3}, {33, 250, 3}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.Width << "x" << c.Height << " flags " << c.Flags);
    const Velmo2SliceLayout layout = Velmo2LayoutFor("VM2j", c.Flags, c.Width, c.Height);
    for (bool key : {false, true}) {
      uint32_t word = 0;
      const std::vector<uint8_t> section = SmallestSection(layout, c.Width, c.Height, key, &word);
      EXPECT_EQ(Velmo2FloorBytes(layout, c.Width, c.Height, key, 0), double(section.size()))
          << (key ? "key" : "inter");

      Velmo2DecoderSetup setup{c.Width, c.Height, {'V', 'M', '2', 'j'}, c.Flags, false, false,
                               ProcessorFeatures(), nullptr};
      Velmo2Decoder* decoder = Velmo2DecoderCreate(setup);
      ASSERT_NE(decoder, nullptr);
      velmo2_test::Frames frames(c.Width, c.Height, false, false);
      frames.Fill(0, 77);
      EXPECT_EQ(Velmo2DecodeFrame(decoder, &frames.Fb, section.data(), section.size(), key, 0,
                                  layout.Slices),
                Velmo2FrameDecoded);
      Velmo2DecoderDestroy(decoder);
    }
  }
  // A key macroblock also codes its alpha and HDR planes: two bits each.
  const Velmo2SliceLayout one = Velmo2LayoutFor("VM2j", 0, 32 * 32, 32);
  EXPECT_EQ(Velmo2FloorBytes(one, 32 * 32, 32, true, 2) - Velmo2FloorBytes(one, 32 * 32, 32, true, 0),
            double(32 * 2 * 2 / 8));
}

}  // namespace
