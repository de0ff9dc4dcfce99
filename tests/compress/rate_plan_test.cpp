// Data-rate plan: default and overall rates, frame figures, entropy estimate, complexity, pump.
#include "compress/rate_plan.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

TEST(DefaultRate, FirstGenerationSmallAndLargeFrames) {
  // 640x360 = 230400 pixels, 3/2 per pixel; above 31 fps another 3/2.
  EXPECT_EQ(VelmoDefaultRate(1, 640, 360, 30, 1, 100, 0, 0), 345600u);
  EXPECT_EQ(VelmoDefaultRate(1, 640, 360, 60, 1, 100, 0, 0), 518400u);
  // 1920x1080 is above 0x140000: 9/8, then 5/4 above 31 fps.
  EXPECT_EQ(VelmoDefaultRate(1, 1920, 1080, 25, 1, 100, 0, 0), 2332800u);
  EXPECT_EQ(VelmoDefaultRate(1, 1920, 1080, 50, 1, 100, 0, 0), 2916000u);
  // Exactly 0x140000 pixels counts as small.
  EXPECT_EQ(VelmoDefaultRate(1, 1280, 1024, 25, 1, 100, 0, 0), 1966080u);
}

TEST(DefaultRate, SecondGenerationAndShortRuns) {
  EXPECT_EQ(VelmoDefaultRate(2, 640, 360, 30, 1, 100, 0, 0), 230400u);
  EXPECT_EQ(VelmoDefaultRate(2, 1920, 1080, 60, 1, 100, 0, 0), 1944000u);
  // Under a second of video triples the rate.
  EXPECT_EQ(VelmoDefaultRate(1, 640, 360, 30, 1, 1, 0, 0), 3 * 345600u);
  EXPECT_EQ(VelmoDefaultRate(1, 640, 360, 30, 1, 30, 0, 0), 345600u);
  // The second generation is capped by the input's own rate: 1000 bytes a frame at 30 fps.
  EXPECT_EQ(VelmoDefaultRate(2, 640, 360, 30, 1, 100, 100000, 100), 30000u);
  EXPECT_EQ(VelmoDefaultRate(1, 640, 360, 30, 1, 100, 100000, 100), 345600u);
}

TEST(OverallRate, PercentBytesAndNone) {
  EXPECT_EQ(VelmoOverallRate(0, 30, 1, 1000000, 100), 0u);
  EXPECT_EQ(VelmoOverallRate(-5, 30, 1, 1000000, 100), 0u);
  // Input: 10000 bytes a frame at 30 fps = 300000 bytes per second.
  EXPECT_EQ(VelmoOverallRate(50, 30, 1, 1000000, 100), 150000u);
  EXPECT_EQ(VelmoOverallRate(200, 30, 1, 1000000, 100), 600000u);
  EXPECT_EQ(VelmoOverallRate(5000, 30, 1, 1000000, 100), 5000u);
  // NTSC rate: 30000/1001.
  EXPECT_EQ(VelmoOverallRate(100, 30000, 1001, 1001000, 1000), 30000u);
}

TEST(FrameRateFor, PeaksDefaultsAndHints) {
  VelmoRateSettings s{300000, 0, 0, 30, 1};
  VelmoFrameHint none;
  VelmoFrameRate r = VelmoFrameRateFor(s, none);
  EXPECT_EQ(r.TargetBytes, 10000u);  // default rate
  EXPECT_EQ(r.PeakBytes, 30000u);    // peak unset: three times the rate
  EXPECT_EQ(r.IsKey, 0u);
  s.OverallRate = 60000;
  s.PeakSetting = 250;  // /M2.5
  r = VelmoFrameRateFor(s, none);
  EXPECT_EQ(r.TargetBytes, 2000u);
  EXPECT_EQ(r.PeakBytes, 5000u);
  s.PeakSetting = 100;  // a peak of 100 or less is the rate itself
  EXPECT_EQ(VelmoFrameRateFor(s, none).PeakBytes, 2000u);
  s.PeakSetting = 90000;  // bytes per second
  EXPECT_EQ(VelmoFrameRateFor(s, none).PeakBytes, 3000u);
  VelmoFrameHint hint;
  hint.Rate = 0;  // a hint rate of 0 takes the default, not zero
  hint.Peak = 1000;
  hint.Key = 1;
  r = VelmoFrameRateFor(s, hint);
  EXPECT_EQ(r.TargetBytes, 10000u);
  EXPECT_EQ(r.PeakBytes, 100000u);
  EXPECT_EQ(r.IsKey, 1u);
  EXPECT_EQ(VelmoKeyFrameBytes(0, 30, 1), 0u);
  EXPECT_EQ(VelmoKeyFrameBytes(90000, 30, 1), 3001u);
}

TEST(EstimateBytes, UniformSpikeAndEmpty) {
  uint32_t h[256] = {};
  for (uint32_t& c : h) c = 16;
  EXPECT_EQ(EstimateBytes(h, 4096), 4096u);  // 8 bits each
  uint32_t spike[256] = {};
  spike[100] = 1000;
  // Bins 0 and 255 are given one sample each: 1000 * log2(1002/1000) + 2 * log2(1002).
  const double expected = (1000 * std::log2(1002.0 / 1000) + 2 * std::log2(1002.0)) / 8;
  EXPECT_EQ(EstimateBytes(spike, 1000), uint32_t(expected));
  uint32_t empty[256] = {};
  EXPECT_EQ(EstimateBytes(empty, 0), 0u);
}

TEST(EstimateBytes, MergesAWindowHoldingHalfTheSamples) {
  uint32_t h[256] = {};
  h[10] = 30, h[11] = 30, h[12] = 30;  // 90 of 100 samples in one window
  h[200] = 10;
  uint32_t copy[256];
  std::copy(h, h + 256, copy);
  const uint32_t merged = EstimateBytes(copy, 100);
  // The first window to reach half (bins 8 to 11) takes its sum; scanning goes on after it.
  EXPECT_EQ(copy[8], 60u);
  EXPECT_EQ(copy[10], 0u);
  EXPECT_EQ(copy[11], 0u);
  EXPECT_EQ(copy[12], 30u);
  // Without the merge three symbols of 30 would cost far more.
  const double plain = (90 * std::log2(102.0 / 30) + 10 * std::log2(10.2) + 2 * std::log2(102.0)) / 8;
  EXPECT_LT(merged, uint32_t(plain));
}

TEST(Complexity, KeyFramesWeighMoreAndStillFramesNothing) {
  const uint32_t w = 64, h = 32;
  std::vector<uint8_t> a(w * h), b(w * h);
  for (uint32_t i = 0; i < w * h; ++i) a[i] = uint8_t((i * 37 + (i >> 5)) % 250), b[i] = a[i];
  VelmoComplexityPlane luma{a.data(), b.data(), w, h, int32_t(w)};
  VelmoComplexityPlane none{nullptr, nullptr, 0, 0, 0};
  const uint32_t key = MeasureFrameComplexity(luma, none, none, none, none, true);
  EXPECT_EQ(key, (VelmoPlaneComplexity(luma, true) * 9) >> 1);
  EXPECT_GT(key, 0u);
  EXPECT_EQ(MeasureFrameComplexity(luma, none, none, none, none, false), 0u);
  for (uint32_t i = 0; i < w * h; i += 3) b[i] = uint8_t(a[i] + 2);  // within the tolerance
  EXPECT_EQ(VelmoPlaneComplexity(luma, false), 0u);
  for (uint32_t i = 0; i < w * h; i += 3) b[i] = uint8_t(a[i] + 3);
  EXPECT_GT(VelmoPlaneComplexity(luma, false), 0u);
  // Chroma adds in.
  VelmoComplexityPlane cr{a.data(), nullptr, w / 2, h / 2, int32_t(w)};
  EXPECT_GT(MeasureFrameComplexity(luma, cr, cr, none, none, true), key);
}

namespace {

VelmoRateGeometry Geometry(uint32_t generation, uint32_t version = 100) {
  return VelmoRateGeometry{generation, version, 640 * 360, 320 * 184, false, false};
}

}  // namespace

TEST(Pump, SharesByComplexityAndCarriesOver) {
  VelmoRateSlot slots[3] = {{10000, 30000, 0, 100}, {10000, 30000, 0, 300}, {10000, 30000, 0, 0}};
  int64_t carry = 0;
  VelmoPumpState s = VelmoPumpBegin(slots, 3, carry, 0);
  EXPECT_EQ(s.Total, 30000);
  EXPECT_EQ(s.WeightSum, 400u);
  EXPECT_EQ(VelmoPumpBudget(s, slots[0], 0, 0, 0, 0, Geometry(1)), 7500u);
  VelmoPumpUsed(s, carry, slots[0], 0, 9000);
  EXPECT_EQ(carry, 1000);
  EXPECT_EQ(s.Pool, 21000);
  // The next slot shares what is left by its weight among those remaining.
  EXPECT_EQ(VelmoPumpBudget(s, slots[1], 1, 0, 0, 0, Geometry(1)), 21000u);
  VelmoPumpUsed(s, carry, slots[1], 1, 60000);
  VelmoPumpEnd(s, carry);
  EXPECT_EQ(carry, -30000);  // held to the queue's total
  // A carry enlarges the next pump's pool.
  VelmoPumpState t = VelmoPumpBegin(slots, 3, 500, 0);
  EXPECT_EQ(t.Pool, 30500);
}

TEST(Pump, ZeroWeightsShareEquallyWithoutShrinking) {
  VelmoRateSlot slots[4] = {{10000, 90000, 0, 0}, {10000, 90000, 0, 0}, {10000, 90000, 0, 0}, {10000, 90000, 0, 0}};
  int64_t carry = 0;
  VelmoPumpState s = VelmoPumpBegin(slots, 4, carry, 0);
  for (uint32_t i = 0; i < 4; ++i) {
    EXPECT_EQ(VelmoPumpBudget(s, slots[i], i, 0, 0, 0, Geometry(2)), s.Pool / 4) << i;
    VelmoPumpUsed(s, carry, slots[i], i, 10000);
  }
}

TEST(Pump, FloorsCeilingsAndAlternation) {
  VelmoRateSlot slot{10000, 12000, 0, 5};
  VelmoPumpState s = VelmoPumpBegin(&slot, 1, 50000, 0);  // pool 60000
  EXPECT_EQ(VelmoPumpBudget(s, slot, 0, 0, 0, 0, Geometry(1)), 12000u);  // peak cap
  VelmoPumpState poor = VelmoPumpBegin(&slot, 1, -10000, 0);  // pool 0
  const uint32_t l = (230400 >> 8) + (230400 >> 6), k = (58880 >> 8) + (58880 >> 6);
  EXPECT_EQ(VelmoPumpBudget(poor, slot, 0, 0, 0, 0, Geometry(1)), std::max(1000u, (3 * l + 4 * k) * 2 >> 4));
  EXPECT_EQ(VelmoPumpBudget(poor, slot, 0, 0, 0, 0, Geometry(2)), 500u);
  VelmoRateSlot key{10000, 12000, 1, 5};
  EXPECT_EQ(VelmoPumpBudget(poor, key, 0, 0, 0, 0, Geometry(2)), std::max(500u, (230400 + k) / 930));
  // Later first-generation versions alternate by 256.
  VelmoRateSlot mid{10000, 30000, 0, 5};
  VelmoPumpState m = VelmoPumpBegin(&mid, 1, 0, 0);
  EXPECT_EQ(VelmoPumpBudget(m, mid, 0, 0, 0, 1, Geometry(1, 101)), 10256u);
  EXPECT_EQ(VelmoPumpBudget(m, mid, 0, 0, 0, 2, Geometry(1, 101)), 9744u);
  EXPECT_EQ(VelmoPumpBudget(m, mid, 0, 0, 0, 1, Geometry(1, 100)), 10000u);
  // A reservation above the pool leaves nothing but the floors.
  EXPECT_EQ(VelmoPumpBudget(m, mid, 0, 20000, 0, 0, Geometry(2)), 500u);
}

// The lowest rate is the first generation's floor at the frame rate; alpha raises it, a gray
// picture lowers it, and the second generation has none.
TEST(Pump, LowestRateIsTheFloorAtTheFrameRate) {
  const uint32_t l = (230400 >> 8) + (230400 >> 6), k = (58880 >> 8) + (58880 >> 6);
  VelmoRateGeometry g = Geometry(1);
  EXPECT_EQ(VelmoFloorBytes(g), (3 * l + 4 * k) * 2 >> 4);
  EXPECT_EQ(VelmoLowestRate(g, 30000, 1001), uint32_t(uint64_t((3 * l + 4 * k) * 2 >> 4) * 30000 / 1001));
  g.Alpha = true;
  EXPECT_EQ(VelmoFloorBytes(g), (6 * l + 4 * k) * 2 >> 4);
  g.Alpha = false;
  g.Grayscale = true;
  EXPECT_EQ(VelmoFloorBytes(g), (3 * l) * 2 >> 4);
  EXPECT_EQ(VelmoLowestRate(Geometry(2), 25, 1), 0u);
  EXPECT_EQ(VelmoLowestRate(Geometry(1), 25, 0), 0u);
}

TEST(Pump, KeyFrameRateFollowsTargetsAndSkipsThePeak) {
  VelmoRateSlot slots[2] = {{1000, 1500, 1, 999999}, {1000, 1500, 0, 1}};
  int64_t carry = 0;
  VelmoPumpState s = VelmoPumpBegin(slots, 2, carry, 3000);
  EXPECT_EQ(s.Total, 5000);
  EXPECT_EQ(VelmoPumpBudget(s, slots[0], 0, 0, 3000, 0, Geometry(2)), 4000u);  // no peak cap
  EXPECT_EQ(VelmoPumpBudget(s, slots[1], 1, 0, 3000, 0, Geometry(2)), 1000u);
}

TEST(SoundReservation, RatioAndBytesLeft) {
  VelmoRateTrack t{45, 10, 176400, 0x7fffffff};
  // Two frames at 30 fps: 11760 bytes of sound at 10/45.
  EXPECT_EQ(VelmoSoundReservation(&t, 1, 2, 0, 30, 1), 11760u * 10 / 45);
  EXPECT_EQ(VelmoSoundReservation(&t, 1, 2, 1, 30, 1), 5880u * 10 / 45);
  t.BytesLeft = 0;
  EXPECT_EQ(VelmoSoundReservation(&t, 1, 2, 0, 30, 1), 0u);
}
