// The job pool: every index once per run, on the workers and the calling thread.
#include "host/platform.h"

#include <gtest/gtest.h>
#include <pthread.h>

#include <vector>

namespace {

struct Tally {
  uint32_t Hits[ProcessorMax];
  pthread_t Threads[ProcessorMax];
  uint32_t Finished;
};

void CountIndex(void* context, uint32_t workerIndex) {
  auto* tally = static_cast<Tally*>(context);
  if (workerIndex >= ProcessorMax) return;
  AtomicAdd(&tally->Hits[workerIndex], 1);
  tally->Threads[workerIndex] = pthread_self();
  // Uneven work, so that the caller does not always finish last.
  if (workerIndex % 2 == 1) ThreadPause();
  AtomicAdd(&tally->Finished, 1);
}

class Pool : public ::testing::Test {
 protected:
  void TearDown() override { PoolSetThreads(0); }
};

TEST_F(Pool, EveryIndexRunsExactlyOncePerRun) {
  for (uint32_t count : {1u, 2u, 3u, 4u, 8u}) {
    PoolSetThreads(count);
    ASSERT_EQ(PoolThreadCount(), count);
    Tally tally{};
    const uint32_t runs = 300;
    for (uint32_t run = 1; run <= runs; ++run) {
      PoolRun(CountIndex, &tally);
      ASSERT_EQ(tally.Finished, run * count) << "PoolRun returned before all had finished";
    }
    for (uint32_t i = 0; i < ProcessorMax; ++i)
      EXPECT_EQ(tally.Hits[i], i < count ? runs : 0u) << "count " << count << " index " << i;
    // The caller takes part with the highest index, the one no worker was given; the workers'
    // indices run on threads of their own.
    EXPECT_TRUE(pthread_equal(tally.Threads[count - 1], pthread_self()));
    for (uint32_t i = 0; i + 1 < count; ++i)
      EXPECT_FALSE(pthread_equal(tally.Threads[i], pthread_self())) << "index " << i;
  }
}

TEST_F(Pool, CountsOutOfRangeTakeTheProcessorCount) {
  PoolSetThreads(0);
  EXPECT_EQ(PoolThreadCount(), ProcessorCount());
  PoolSetThreads(65);
  EXPECT_EQ(PoolThreadCount(), ProcessorCount());
  PoolSetThreads(64);
  EXPECT_EQ(PoolThreadCount(), 64u);
}

void SlowFirstIndex(void* context, uint32_t workerIndex) {
  auto* done = static_cast<uint32_t*>(context);
  if (workerIndex == 0) ThreadSleep(30);
  AtomicStore(&done[workerIndex], 1);
}

TEST_F(Pool, RunWaitsForTheSlowestWorker) {
  PoolSetThreads(4);
  uint32_t done[4] = {};
  PoolRun(SlowFirstIndex, done);
  for (uint32_t flag : done) EXPECT_EQ(flag, 1u);
}

void NestedRun(void* context, uint32_t workerIndex) {
  auto* tallies = static_cast<Tally*>(context);
  PoolRun(CountIndex, &tallies[workerIndex]);
}

TEST_F(Pool, RunFromInsideAPoolFunctionRunsOnThatThread) {
  PoolSetThreads(3);
  std::vector<Tally> tallies(3, Tally{});
  PoolRun(NestedRun, tallies.data());
  for (const Tally& tally : tallies) {
    EXPECT_EQ(tally.Finished, 3u);
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(tally.Hits[i], 1u);
    EXPECT_TRUE(pthread_equal(tally.Threads[0], tally.Threads[2]));
  }
}

uint32_t RunManyTimes(void* argument) {
  auto* tally = static_cast<Tally*>(argument);
  for (int i = 0; i < 100; ++i) PoolRun(CountIndex, tally);
  return 0;
}

TEST_F(Pool, TwoCallersAtOnceBothGetWholeRuns) {
  PoolSetThreads(3);
  Tally mine{}, theirs{};
  PlatformThread other;
  ASSERT_TRUE(ThreadStart(&other, RunManyTimes, &theirs, 0, PriorityNormal, 0, "second caller"));
  RunManyTimes(&mine);
  ThreadJoin(&other);
  for (const Tally* tally : {&mine, &theirs})
    for (uint32_t i = 0; i < 3; ++i) EXPECT_EQ(tally->Hits[i], 100u);
}

TEST_F(Pool, GrowingTheLimitAddsWorkers) {
  PoolSetThreads(2);
  PoolStart();
  Tally small{};
  PoolRun(CountIndex, &small);
  PoolSetThreads(6);
  Tally large{};
  PoolRun(CountIndex, &large);
  for (uint32_t i = 0; i < 6; ++i) EXPECT_EQ(large.Hits[i], 1u);
  EXPECT_EQ(large.Hits[6], 0u);
  PoolRun(nullptr, nullptr);  // nothing to run is no fault
}

}  // namespace
