// TimerMs against clock sources the test drives by hand.
#include "host/platform.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <vector>

namespace {

// The fine counter runs in microseconds, the tick and simple sources in ms.
uint64_t fakeCounter;
uint32_t fakeTick;
uint32_t fakeSimple;

uint64_t FakeCounter() { return fakeCounter; }
uint32_t FakeTick() { return fakeTick; }
uint32_t FakeSimple() { return fakeSimple; }

class Timer : public ::testing::Test {
 protected:
  void SetUp() override {
    unsetenv("ORN_USE_TGT");
    fakeCounter = 987654321000ull;
    fakeTick = 0xFFFFF000u;  // close to wrapping, which must not matter
    fakeSimple = 5000;
    Install(1000000);
  }
  void TearDown() override {
    unsetenv("ORN_USE_TGT");
    TimerSetSourcesForTest(nullptr);
  }
  static void Install(uint64_t frequency) {
    const TimerSources sources{FakeCounter, frequency, FakeTick, FakeSimple};
    TimerSetSourcesForTest(&sources);
  }
  // Moves the counter and the tick source by their own amounts, in ms.
  static void Advance(double counterMs, int32_t tickMs) {
    fakeCounter += static_cast<uint64_t>(static_cast<int64_t>(counterMs * 1000));
    fakeTick += static_cast<uint32_t>(tickMs);
  }
};

// From a fresh start, readings after the counter and the ticks moved by their own amounts.
TEST_F(Timer, CounterIsTrustedWithinTheToleranceOfTheTicks) {
  struct Step {
    double Counter;  // ms
    int32_t Ticks;
    uint32_t Want;
  };
  const struct {
    const char* What;
    std::vector<Step> Steps;
  } cases[] = {
      // Half a ms is not a ms yet; within 200 ms of each other the counter is trusted,
      // whatever the ticks say.
      {"agreeing", {{1234, 1234, 1234}, {0.5, 0, 1234}, {0.5, 0, 1235}, {1000, 820, 2235},
                    {1000, 1190, 3235}}},
      // A jump forward moves only as far as the ticks; it stays folded into the base.
      {"forward jump", {{100, 100, 100}, {10000, 16, 116}, {250, 250, 366}, {1, 1, 367}}},
      {"backward jump", {{5000, 5000, 5000}, {-3000, 20, 5020}, {10, 10, 5030}}},
      // 150 ms back is inside the tolerance, so the counter is believed; the result holds.
      {"never backward",
       {{1000, 1000, 1000}, {-150, 0, 1000}, {100, 100, 1000}, {100, 100, 1050}}},
  };
  for (const auto& c : cases) {
    SetUp();
    EXPECT_EQ(TimerMs(), 0u) << c.What;
    for (const Step& step : c.Steps) {
      Advance(step.Counter, step.Ticks);
      EXPECT_EQ(TimerMs(), step.Want) << c.What << ": counter " << step.Counter << " ms, ticks "
                                      << step.Ticks;
    }
  }
}

TEST_F(Timer, SimpleSourceWhenAskedForObeysTheSameRule) {
  setenv("ORN_USE_TGT", "1", 1);
  Install(1000000);
  EXPECT_EQ(TimerMs(), 0u);
  fakeSimple += 40;
  Advance(10000, 0);  // the counter is not consulted at all
  EXPECT_EQ(TimerMs(), 40u);
  fakeSimple -= 15;
  EXPECT_EQ(TimerMs(), 40u);
  fakeSimple += 25;
  EXPECT_EQ(TimerMs(), 50u);
  // The source wraps its 32 bits; the result goes on.
  fakeSimple = 0xFFFFFFF0u;
  Install(1000000);
  EXPECT_EQ(TimerMs(), 0u);
  fakeSimple += 0x20;
  EXPECT_EQ(TimerMs(), 0x20u);
  // Other values of the variable keep the counter.
  setenv("ORN_USE_TGT", "0", 1);
  Install(1000000);
  TimerMs();
  Advance(70, 70);
  fakeSimple += 9999;
  EXPECT_EQ(TimerMs(), 70u);
}

TEST_F(Timer, MissingCounterFallsBackToTheSimpleSource) {
  Install(0);
  EXPECT_EQ(TimerMs(), 0u);
  fakeSimple += 33;
  Advance(500, 500);
  EXPECT_EQ(TimerMs(), 33u);
}

TEST_F(Timer, LongSpansDoNotOverflowTheConversion) {
  // A nanosecond counter far from its start: 300 days in, conversion in 64 bits must hold.
  fakeCounter = 0;
  Install(1000000000ull);
  TimerMs();
  const uint64_t day = 86400000ull;
  for (int d = 0; d < 300; ++d) {
    fakeCounter += day * 1000000ull;
    fakeTick += static_cast<uint32_t>(day);
    TimerMs();
  }
  fakeCounter += 1000000000ull;
  fakeTick += 1000;
  EXPECT_EQ(TimerMs(), static_cast<uint32_t>(300 * day + 1000));
}

TEST_F(Timer, SystemSourcesMoveWithRealTime) {
  TimerSetSourcesForTest(nullptr);
  const uint32_t start = TimerMs();
  ThreadSleep(25);
  const uint32_t moved = TimerMs() - start;
  EXPECT_GE(moved, 20u);
  EXPECT_LT(moved, 2000u);
}

}  // namespace
