// TimerMs against clock sources the test drives by hand.
#include "host/platform.h"

#include <gtest/gtest.h>

#include <cstdlib>

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
  static void Advance(int64_t counterMs, int32_t tickMs) {
    fakeCounter += static_cast<uint64_t>(counterMs * 1000);
    fakeTick += static_cast<uint32_t>(tickMs);
  }
};

TEST_F(Timer, FollowsTheCounterWhileTheSourcesAgree) {
  EXPECT_EQ(TimerMs(), 0u);
  Advance(1234, 1234);
  EXPECT_EQ(TimerMs(), 1234u);
  fakeCounter += 500;  // half a ms is not a ms yet
  EXPECT_EQ(TimerMs(), 1234u);
  fakeCounter += 500;
  EXPECT_EQ(TimerMs(), 1235u);
  // Within 200 ms of each other the counter is trusted, whatever the ticks say.
  Advance(1000, 820);
  EXPECT_EQ(TimerMs(), 2235u);
  Advance(1000, 1190);
  EXPECT_EQ(TimerMs(), 3235u);
}

TEST_F(Timer, ForwardJumpOfTheCounterMovesOnlyAsFarAsTheTicks) {
  TimerMs();
  Advance(100, 100);
  EXPECT_EQ(TimerMs(), 100u);
  Advance(10000, 16);
  EXPECT_EQ(TimerMs(), 116u);
  // The jump stays folded into the base; later readings go on from there.
  Advance(250, 250);
  EXPECT_EQ(TimerMs(), 366u);
  Advance(1, 1);
  EXPECT_EQ(TimerMs(), 367u);
}

TEST_F(Timer, BackwardJumpOfTheCounterIsCorrectedByTheTicks) {
  TimerMs();
  Advance(5000, 5000);
  EXPECT_EQ(TimerMs(), 5000u);
  Advance(-3000, 20);
  EXPECT_EQ(TimerMs(), 5020u);
  Advance(10, 10);
  EXPECT_EQ(TimerMs(), 5030u);
}

TEST_F(Timer, NeverRunsBackward) {
  TimerMs();
  Advance(1000, 1000);
  EXPECT_EQ(TimerMs(), 1000u);
  // 150 ms back is inside the tolerance, so the counter is believed; the result holds.
  Advance(-150, 0);
  EXPECT_EQ(TimerMs(), 1000u);
  Advance(100, 100);
  EXPECT_EQ(TimerMs(), 1000u);
  Advance(100, 100);
  EXPECT_EQ(TimerMs(), 1050u);
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
