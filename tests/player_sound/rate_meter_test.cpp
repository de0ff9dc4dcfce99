// The device-rate meter against simulated devices: consumed bytes that follow a device playing
// a given fraction off its nominal rate, moving in whole device periods as real devices do.
#include "player/sound/rate_meter.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

namespace {

constexpr RateMeterTiming Timing{1600, 500};

// A device that plays `speed` times its nominal rate from time 0 on and moves its position in
// periods of `period` samples. The meter is called every `stepMs` as the sound thread would.
struct SimulatedDevice {
  uint32_t Rate, FrameBytes, Period;
  double Speed;
  uint64_t Reported = 0;  // bytes told to the meter so far

  uint64_t ConsumedAt(double ms) const {
    const uint64_t samples = uint64_t(ms * Rate * Speed / 1000.0);
    return samples / Period * Period * FrameBytes;
  }
  // Runs the meter from `fromMs` to `toMs`; returns its last factor.
  uint32_t Run(RateMeter* m, uint32_t fromMs, uint32_t toMs, uint32_t stepMs = 13) {
    uint32_t scale = m->ClockScale;
    for (uint32_t now = fromMs; now <= toMs; now += stepMs) {
      const uint64_t consumed = std::max(ConsumedAt(now), Reported);
      scale = RateMeterConsumed(m, uint32_t(consumed - Reported), now);
      Reported = consumed;
    }
    return scale;
  }
};

uint32_t Ideal(double speed) { return uint32_t(std::lround(65536.0 / speed)); }

TEST(RateMeterTest, FollowsADeviceOffNominalToTheNearestStep) {
  struct Case {
    uint32_t Rate, Channels, Period;
    double Speed;
  };
  const Case cases[] = {{44100, 2, 1024, 1.001},  {44100, 2, 1024, 0.999},
                        {48000, 2, 480, 1.0},     {22050, 1, 256, 1.0005},
                        {32000, 1, 1, 0.9973}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.Rate << " Hz at " << c.Speed);
    RateMeter m;
    RateMeterInit(&m, c.Rate, c.Channels * 2, Timing);
    RateMeterBegin(&m, 1000);
    SimulatedDevice d{c.Rate, c.Channels * 2, c.Period, c.Speed};
    const uint32_t scale = d.Run(&m, 1000, 1000 + 3600000);
    EXPECT_NEAR(double(scale), double(Ideal(c.Speed)), 1.0);
    // After an hour, the scale's error is the drift between picture and sound in that hour.
    const double driftMs = std::fabs(65536.0 / scale - c.Speed) / c.Speed * 3600000.0;
    EXPECT_LT(driftMs, 33.0) << scale;
  }
}

TEST(RateMeterTest, WaitsForTheDeviceToSettleAndForAWholeMeasure) {
  RateMeter m;
  RateMeterInit(&m, 44100, 4, Timing);
  SimulatedDevice d{44100, 4, 1, 1.01};
  // Not begun: nothing is measured however long it plays.
  EXPECT_EQ(d.Run(&m, 0, 10000), 0x10000u);
  RateMeterBegin(&m, 10000);
  // Settling (1600 ms) and the first measure (500 ms): still nominal.
  EXPECT_EQ(d.Run(&m, 10000, 10000 + 1600 + 500), 0x10000u);
  // The next look gives the first step.
  const uint32_t first = d.Run(&m, 12110, 12130);
  EXPECT_LT(first, 0x10000u);
  EXPECT_GT(first, Ideal(1.01));
  // Stopped: the estimate stays where it was.
  RateMeterStop(&m);
  d.Speed = 2.0;
  EXPECT_EQ(d.Run(&m, 12130, 20000), first);
}

TEST(RateMeterTest, StepsAreAOneSixtyFourthOfTheDifference) {
  RateMeter m;
  RateMeterInit(&m, 40000, 2, Timing);
  RateMeterBegin(&m, 0);
  EXPECT_EQ(RateMeterConsumed(&m, 0, 1601), 0x10000u);  // the measure starts here
  const uint64_t before = m.MeasuredRate;
  // 1000 ms later the device has played 41000 samples: 1000 more than nominal.
  RateMeterConsumed(&m, 41000 * 2, 2601);
  const uint64_t difference = (uint64_t(1000) << RateFractionBits);
  EXPECT_EQ(m.MeasuredRate - before, (difference + 63) / 64);
  EXPECT_EQ(m.ClockScale, uint32_t(std::lround(65536.0 * 40000 / (double(m.MeasuredRate) / 256))));
}

TEST(RateMeterTest, StaysTrueOverHoursOfCounting) {
  // Two hours of CD sound pass the count where the measure halves itself, more than once.
  RateMeter m;
  RateMeterInit(&m, 44100, 4, Timing);
  RateMeterBegin(&m, 0);
  SimulatedDevice d{44100, 4, 940, 1.0007};
  const uint32_t scale = d.Run(&m, 0, 2 * 3600 * 1000, 47);
  EXPECT_NEAR(double(scale), double(Ideal(1.0007)), 1.0);
  EXPECT_LT(m.Sent, uint64_t(1) << 28);  // it was halved
}

}  // namespace
