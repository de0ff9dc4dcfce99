// Locks, semaphores, threads, priorities, processors and atomic operations.
#include "host/platform.h"

#include <gtest/gtest.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <functional>
#include <set>
#include <string>
#include <vector>

namespace {

using Clock = std::chrono::steady_clock;

int64_t MsSince(Clock::time_point start) {
  return std::chrono::duration_cast<std::chrono::milliseconds>(Clock::now() - start).count();
}

// Runs `body` on a platform thread. A join gives up after 20 s and ends the test program, so a
// lost wake-up fails instead of hanging.
struct Runner {
  PlatformThread Thread;
  std::function<uint32_t()> Body;
  uint32_t Done;

  static uint32_t Trampoline(void* self) {
    auto* runner = static_cast<Runner*>(self);
    const uint32_t result = runner->Body();
    AtomicStore(&runner->Done, 1);
    return result;
  }
  bool Start(std::function<uint32_t()> body) {
    Body = std::move(body);
    Done = 0;
    return ThreadStart(&Thread, Trampoline, this, 0, PriorityNormal, 0, "test");
  }
  uint32_t Join() {
    const auto start = Clock::now();
    while (!AtomicRead(&Done)) {
      if (MsSince(start) > 20000) {
        ADD_FAILURE() << "a thread never finished: a wake-up was lost";
        std::_Exit(1);
      }
      ThreadSleep(1);
    }
    return ThreadJoin(&Thread);
  }
};

// ---------------------------------------------------------------------------------------------
// Locks, in each of their forms

class LockForms : public ::testing::TestWithParam<uint32_t> {
 protected:
  void SetUp() override {
    LockForceKind(GetParam());
    ASSERT_TRUE(LockCreate(&lock, LockModeTimed));
    ASSERT_EQ(LockKind(&lock), GetParam());
  }
  void TearDown() override {
    LockDestroy(&lock);
    LockForceKind(0);
  }
  PlatformLock lock;
};

// Tries `lock` for `ms` on the calling thread, leaves it again when entered; 1 when entered, and
// the time the try took in *elapsed.
uint32_t TryFor(PlatformLock* lock, uint32_t ms, int64_t* elapsed = nullptr) {
  const auto start = Clock::now();
  const bool entered = LockTry(lock, ms);
  if (elapsed) *elapsed = MsSince(start);
  if (entered) LockLeave(lock);
  return entered ? 1 : 0;
}

TEST_P(LockForms, BodyIsAlignedInsideTheBlock) {
  const auto start = reinterpret_cast<uintptr_t>(&lock);
  const auto body = reinterpret_cast<uintptr_t>(lock.Body);
  EXPECT_EQ(body % 16, 0u);
  EXPECT_GE(body, start + sizeof(void*));
  EXPECT_LT(body, start + sizeof(lock));
}

TEST_P(LockForms, IsRecursiveAndHeldUntilTheLastLeave) {
  LockEnter(&lock);
  EXPECT_TRUE(LockTry(&lock, 0));
  EXPECT_TRUE(LockTry(&lock, 50));
  Runner other;
  ASSERT_TRUE(other.Start([&] { return LockTry(&lock, 0) ? 1u : 0u; }));
  EXPECT_EQ(other.Join(), 0u);
  LockLeave(&lock);
  LockLeave(&lock);
  ASSERT_TRUE(other.Start([&] { return LockTry(&lock, 0) ? 1u : 0u; }));
  EXPECT_EQ(other.Join(), 0u) << "still held once";
  LockLeave(&lock);
  ASSERT_TRUE(other.Start([&] { return TryFor(&lock, 0); }));
  EXPECT_EQ(other.Join(), 1u);
}

TEST_P(LockForms, TryGivesUpAfterItsTimeAndSucceedsWhenFreed) {
  LockEnter(&lock);
  int64_t elapsed = 0;
  Runner other;
  ASSERT_TRUE(other.Start([&] { return TryFor(&lock, 40, &elapsed); }));
  EXPECT_EQ(other.Join(), 0u);
  EXPECT_GE(elapsed, 35);
  EXPECT_LT(elapsed, 1000);
  ASSERT_TRUE(other.Start([&] { return TryFor(&lock, 5000, &elapsed); }));
  ThreadSleep(20);
  LockLeave(&lock);
  EXPECT_EQ(other.Join(), 1u);
  EXPECT_LT(elapsed, 2000);
}

TEST_P(LockForms, FourThreadsCountWithoutLosingAnIncrement) {
  uint64_t counter = 0;  // guarded by the lock only
  const uint32_t rounds = 20000;
  Runner threads[4];
  for (auto& t : threads)
    ASSERT_TRUE(t.Start([&] {
      for (uint32_t i = 0; i < rounds; ++i) {
        LockEnter(&lock);
        const uint64_t seen = counter;
        if (i % 64 == 0) {
          LockEnter(&lock);  // a nested enter while others wait
          ThreadPause();
          LockLeave(&lock);
        }
        counter = seen + 1;
        LockLeave(&lock);
      }
      return 0u;
    }));
  for (auto& t : threads) t.Join();
  EXPECT_EQ(counter, 4u * rounds);
}

// Sleepers that wait for ever must still be woken after a timed waiter gave up between them.
TEST_P(LockForms, TimedWaiterGivingUpDoesNotStrandOthers) {
  LockEnter(&lock);
  uint32_t entered = 0;
  Runner sleepers[2];
  for (auto& t : sleepers)
    ASSERT_TRUE(t.Start([&] {
      LockEnter(&lock);
      AtomicAdd(&entered, 1);
      LockLeave(&lock);
      return 0u;
    }));
  ThreadSleep(20);
  Runner quitter;
  ASSERT_TRUE(quitter.Start([&] { return TryFor(&lock, 30); }));
  EXPECT_EQ(quitter.Join(), 0u);
  EXPECT_EQ(AtomicRead(&entered), 0u);
  LockLeave(&lock);
  for (auto& t : sleepers) t.Join();
  EXPECT_EQ(entered, 2u);
}

// Sleepers, spinners and waiters that give up, all at once; never two threads inside.
TEST_P(LockForms, TimedAndUntimedEntersMixWithoutLostWakeups) {
  uint32_t inside = 0, overlaps = 0;
  Runner threads[5];
  for (auto& t : threads)
    ASSERT_TRUE(t.Start([&] {
      uint32_t seed = static_cast<uint32_t>(reinterpret_cast<uintptr_t>(&seed));
      for (int i = 0; i < 1500; ++i) {
        seed = seed * 1664525u + 1013904223u;
        const bool timed = seed & 0x100;
        if (timed ? LockTry(&lock, (seed >> 12) % 2) : (LockEnter(&lock), true)) {
          if (AtomicAdd(&inside, 1) != 0) AtomicAdd(&overlaps, 1);
          for (uint32_t spin = (seed >> 20) % 200; spin > 0; --spin) ThreadPause();
          AtomicAdd(&inside, -1);
          LockLeave(&lock);
        }
      }
      return 0u;
    }));
  for (auto& t : threads) t.Join();
  EXPECT_EQ(overlaps, 0u);
}

INSTANTIATE_TEST_SUITE_P(Platform, LockForms,
                         ::testing::Values(LockKindMutex, LockKindSpin, LockKindWord),
                         [](const ::testing::TestParamInfo<uint32_t>& info) {
                           return info.param == LockKindMutex  ? std::string("Mutex")
                                  : info.param == LockKindSpin ? std::string("Spin")
                                                               : std::string("Word");
                         });

TEST(Locks, EveryModeGetsTheWordFormByDefault) {
  for (uint32_t mode : {LockModePlain, LockModeTry, LockModeTimed}) {
    PlatformLock lock;
    ASSERT_TRUE(LockCreate(&lock, mode));
    EXPECT_EQ(LockKind(&lock), LockKindWord);
    LockEnter(&lock);
    LockLeave(&lock);
    LockDestroy(&lock);
    EXPECT_EQ(LockKind(&lock), 0u);
  }
}

// ---------------------------------------------------------------------------------------------
// Semaphores

TEST(Semaphores, CountStaysWithinItsMaximum) {
  PlatformSemaphore semaphore;
  EXPECT_FALSE(SemaphoreCreate(&semaphore, 4, 3));
  ASSERT_TRUE(SemaphoreCreate(&semaphore, 2, 3));
  EXPECT_TRUE(SemaphoreWait(&semaphore, 0));
  EXPECT_TRUE(SemaphoreWait(&semaphore, 0));
  EXPECT_FALSE(SemaphoreWait(&semaphore, 0));
  EXPECT_TRUE(SemaphoreSignal(&semaphore, 2));
  EXPECT_FALSE(SemaphoreSignal(&semaphore, 2)) << "2 + 2 passes the maximum of 3";
  EXPECT_TRUE(SemaphoreSignal(&semaphore, 1));
  for (int i = 0; i < 3; ++i) EXPECT_TRUE(SemaphoreWait(&semaphore, 0));
  EXPECT_FALSE(SemaphoreWait(&semaphore, 0));
  SemaphoreDestroy(&semaphore);
}

TEST(Semaphores, TimedWaitExpiresAndForeverWaitIsWoken) {
  PlatformSemaphore semaphore;
  ASSERT_TRUE(SemaphoreCreate(&semaphore, 0, 10));
  auto start = Clock::now();
  EXPECT_FALSE(SemaphoreWait(&semaphore, 40));
  EXPECT_GE(MsSince(start), 35);

  Runner signaller;
  ASSERT_TRUE(signaller.Start([&] {
    ThreadSleep(20);
    return SemaphoreSignal(&semaphore, 1) ? 1u : 0u;
  }));
  start = Clock::now();
  EXPECT_TRUE(SemaphoreWait(&semaphore, WaitForever));
  EXPECT_LT(MsSince(start), 2000);
  EXPECT_EQ(signaller.Join(), 1u);
  EXPECT_FALSE(SemaphoreWait(&semaphore, 0));
  SemaphoreDestroy(&semaphore);
}

TEST(Semaphores, ConsumersTakeExactlyWhatWasSignalled) {
  PlatformSemaphore semaphore;
  ASSERT_TRUE(SemaphoreCreate(&semaphore, 0, 100000));
  uint32_t taken = 0;
  Runner consumers[4];
  for (auto& t : consumers)
    ASSERT_TRUE(t.Start([&] {
      uint32_t got = 0;
      for (uint32_t i = 0; i < 2500; ++i) got += SemaphoreWait(&semaphore, 5000);
      AtomicAdd(&taken, static_cast<int32_t>(got));
      return got;
    }));
  for (uint32_t sent = 0; sent < 10000;) {
    const uint32_t batch = std::min(sent % 3 + 1, 10000 - sent);
    ASSERT_TRUE(SemaphoreSignal(&semaphore, batch));
    sent += batch;
    if (sent % 1000 == 0) ThreadSleep(1);  // let consumers fall asleep now and then
  }
  for (auto& t : consumers) EXPECT_EQ(t.Join(), 2500u);
  EXPECT_EQ(taken, 10000u);
  EXPECT_FALSE(SemaphoreWait(&semaphore, 0));
  SemaphoreDestroy(&semaphore);
}

// ---------------------------------------------------------------------------------------------
// Threads

struct Seen {
  char Name[16];
  int Nice;
  int32_t Level;
  int Cpu;
  int AllowedCpus;
};

uint32_t ReportSelf(void* argument) {
  auto* seen = static_cast<Seen*>(argument);
  pthread_getname_np(pthread_self(), seen->Name, sizeof(seen->Name));
  errno = 0;
  seen->Nice = getpriority(PRIO_PROCESS, static_cast<id_t>(syscall(SYS_gettid)));
  seen->Level = ThreadPriorityLevel();
  seen->Cpu = sched_getcpu();
  cpu_set_t set;
  CPU_ZERO(&set);
  sched_getaffinity(0, sizeof(set), &set);
  seen->AllowedCpus = CPU_COUNT(&set);
  return 0xC0FFEE;
}

// Starts ReportSelf on a thread of its own with the given settings and joins it.
Seen RunReport(PlatformThread* thread, const char* name, uint32_t priority = PriorityNormal,
               uint32_t processor = 0, uint32_t stack = 0) {
  Seen seen{};
  EXPECT_TRUE(ThreadStart(thread, ReportSelf, &seen, stack, priority, processor, name));
  EXPECT_EQ(ThreadJoin(thread), 0xC0FFEEu);
  return seen;
}

// The argument reaches the thread and the join gives its result (RunReport checks both); a long
// name is cut at 31 bytes, and the system gets its short form.
TEST(Threads, StartPassesArgumentJoinGivesResultAndLongNamesAreCut) {
  PlatformThread thread;
  RunReport(&thread, "worker", PriorityNormal, 0, 256 * 1024);
  EXPECT_EQ(thread.Started, 0u);
  EXPECT_EQ(ThreadJoin(&thread), 0u) << "a second join has nothing to wait for";
  EXPECT_FALSE(ThreadStart(&thread, nullptr, nullptr, 0, PriorityNormal, 0, "none"));

  const char* name = "Velmo IO reading ahead for every open file";
  const Seen seen = RunReport(&thread, name);
  EXPECT_EQ(std::string(thread.Name), std::string(name, 31));
  const char* off = std::getenv("ORN_NO_SET_THREAD_NAMES");
  if (!(off && std::strcmp(off, "1") == 0)) {
    EXPECT_EQ(std::string(seen.Name), std::string(name, 15));
  }
}

TEST(ThreadsDeathStyle, NamingCanBeTurnedOffFromTheEnvironment) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // a fresh process reads the variable anew
  EXPECT_EXIT(
      {
        setenv("ORN_NO_SET_THREAD_NAMES", "1", 1);
        Seen seen{};
        PlatformThread thread;
        if (!ThreadStart(&thread, ReportSelf, &seen, 0, PriorityNormal, 0, "NamedWorker")) _exit(2);
        ThreadJoin(&thread);
        _exit(std::strcmp(seen.Name, "NamedWorker") == 0 ? 1 : 0);
      },
      ::testing::ExitedWithCode(0), "");
}

TEST(Threads, LowestPriorityLowersAndAHardProcessorBinds) {
  PlatformThread thread;
  Seen seen = RunReport(&thread, "low", PriorityLowest);
  EXPECT_EQ(seen.Level, -2);
  EXPECT_GE(seen.Nice, 10);  // lowering is always allowed

  const uint32_t cpu = ProcessorTable()[ProcessorCount() - 1];
  seen = RunReport(&thread, "bound", PriorityNormal, ProcessorNumber(cpu) | ProcessorHard);
  EXPECT_EQ(seen.AllowedCpus, 1);
  EXPECT_EQ(seen.Cpu, static_cast<int>(cpu));
  seen = RunReport(&thread, "picked", PriorityNormal, ProcessorPicked(0) | ProcessorHard);
  EXPECT_EQ(seen.Cpu, static_cast<int>(ProcessorPick(0)));
}

TEST(Priorities, ValuesMapToLevelsAndCarryOffsets) {
  int32_t level = 99;
  EXPECT_TRUE(PriorityLevelOf(PriorityLowest, &level));
  EXPECT_EQ(level, -2);
  EXPECT_TRUE(PriorityLevelOf(PriorityHighest, &level));
  EXPECT_EQ(level, 2);
  EXPECT_FALSE(PriorityLevelOf(0, &level));
  EXPECT_FALSE(PriorityLevelOf(7, &level));
  EXPECT_TRUE(PriorityLevelOf((1u << 4) | 15, &level));
  EXPECT_EQ(level, 1);
  EXPECT_FALSE(PriorityLevelOf((15u << 4) | 15, &level)) << "time critical is not set";

  EXPECT_EQ(ThreadPriorityAdjust(PriorityNormal, 1), PriorityAboveNormal);
  EXPECT_EQ(ThreadPriorityAdjust(PriorityNormal, 2), PriorityHighest);
  EXPECT_EQ(ThreadPriorityAdjust(PriorityBelowNormal, -1), PriorityLowest);
  const uint32_t carried = ThreadPriorityAdjust(PriorityHighest, 1);
  EXPECT_EQ(carried & 15, 15u);
  EXPECT_EQ(static_cast<int32_t>(carried) >> 4, 3);
  EXPECT_EQ(ThreadPriorityAdjust(carried, -2), PriorityAboveNormal);
  const uint32_t below = ThreadPriorityAdjust(PriorityLowest, -1);
  EXPECT_EQ(static_cast<int32_t>(below) >> 4, -3);
  EXPECT_EQ(ThreadPriorityAdjust(PriorityCaller, 0), ThreadPriorityLevel() + 3u);
}

std::vector<int32_t> prioritySets;
void RecordPriority(int32_t level) { prioritySets.push_back(level); }

TEST(Priorities, ShortSleepsRunRaisedAndLongOnesLeavePriorityAlone) {
  ThreadSetPrioritySetterForTest(RecordPriority);
  prioritySets.clear();
  ThreadSleep(31);
  ThreadSleep(0);
  EXPECT_TRUE(prioritySets.empty());
  ThreadSleep(1);
  EXPECT_EQ(prioritySets, (std::vector<int32_t>{2, 0}));
  prioritySets.clear();
  ThreadSetPriorityLevel(-1);
  ThreadSleep(30);
  ThreadSetPriorityLevel(0);
  EXPECT_EQ(prioritySets, (std::vector<int32_t>{-1, 2, -1, 0}));
  ThreadSetPrioritySetterForTest(nullptr);
  EXPECT_EQ(ThreadPriorityLevel(), 0);
}

// ---------------------------------------------------------------------------------------------
// Processors

std::vector<uint8_t> Order(const std::vector<ProcessorTopology>& cpus) {
  uint8_t table[ProcessorMax];
  const uint32_t n = ProcessorOrder(cpus.data(), static_cast<uint32_t>(cpus.size()), table);
  return std::vector<uint8_t>(table, table + n);
}

TEST(Processors, OneThreadPerCoreComesBeforeSecondThreads) {
  // Siblings numbered apart (0 and 4 share a core)...
  std::vector<ProcessorTopology> apart;
  for (uint32_t cpu = 0; cpu < 8; ++cpu) apart.push_back({cpu, 0, static_cast<int32_t>(cpu % 4)});
  EXPECT_EQ(Order(apart), (std::vector<uint8_t>{0, 1, 2, 3, 4, 5, 6, 7}));
  // ...and side by side (0 and 1 share a core), on two packages with repeating core ids.
  std::vector<ProcessorTopology> adjacent;
  for (uint32_t cpu = 0; cpu < 8; ++cpu)
    adjacent.push_back({cpu, static_cast<int32_t>(cpu / 4), static_cast<int32_t>(cpu % 4 / 2)});
  EXPECT_EQ(Order(adjacent), (std::vector<uint8_t>{0, 2, 4, 6, 1, 3, 5, 7}));
  // No more than 64 entries, and only distinct cores in them when there are that many.
  std::vector<ProcessorTopology> many;
  for (uint32_t cpu = 0; cpu < 160; ++cpu) many.push_back({cpu, 0, static_cast<int32_t>(cpu % 80)});
  const auto table = Order(many);
  ASSERT_EQ(table.size(), 64u);
  EXPECT_EQ(std::set<uint8_t>(table.begin(), table.end()).size(), 64u);
  EXPECT_LT(*std::max_element(table.begin(), table.end()), 80);
  EXPECT_TRUE(Order({}).empty());
}

TEST(Processors, TableOfThisMachineIsUsable) {
  const uint32_t count = ProcessorCount();
  ASSERT_GE(count, 1u);
  ASSERT_LE(count, ProcessorMax);
  const uint8_t* table = ProcessorTable();
  EXPECT_EQ(std::set<uint8_t>(table, table + count).size(), count);
  for (uint32_t i = 0; i < 3 * count; ++i) EXPECT_EQ(ProcessorPick(i), table[i % count]);
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  ASSERT_EQ(sched_getaffinity(0, sizeof(allowed), &allowed), 0);
  for (uint32_t i = 0; i < count; ++i) EXPECT_TRUE(CPU_ISSET(table[i], &allowed));
}

// ---------------------------------------------------------------------------------------------
// Atomic operations

TEST(Atomics, OperationsReturnWhatTheyPromise) {
  volatile uint32_t word = 5;
  EXPECT_EQ(AtomicAdd(&word, 3), 5u);
  EXPECT_EQ(AtomicAdd(&word, -10), 8u);
  EXPECT_EQ(AtomicRead(&word), 0xFFFFFFFEu);
  AtomicStore(&word, 7);
  uint32_t expected = 6;
  EXPECT_FALSE(AtomicCompareExchange(&word, &expected, 9));
  EXPECT_EQ(expected, 7u) << "a failed exchange reports the value found";
  EXPECT_TRUE(AtomicCompareExchange(&word, &expected, 9));
  EXPECT_EQ(word, 9u);

  volatile uint64_t wide = 0xFFFFFFFFull;
  EXPECT_EQ(AtomicAdd64(&wide, 1), 0xFFFFFFFFull);
  EXPECT_EQ(AtomicRead64(&wide), 0x100000000ull);
  uint64_t old = 1;
  EXPECT_FALSE(AtomicCompareExchange64(&wide, &old, 2));
  EXPECT_EQ(old, 0x100000000ull);
  EXPECT_TRUE(AtomicCompareExchange64(&wide, &old, 1ull << 63));
  EXPECT_EQ(wide, 1ull << 63);
}

TEST(Atomics, FourThreadsAddWithoutLoss) {
  uint32_t count = 0;
  uint64_t wide = 0;
  Runner threads[4];
  for (auto& t : threads)
    ASSERT_TRUE(t.Start([&] {
      for (int i = 0; i < 50000; ++i) {
        AtomicAdd(&count, 1);
        uint64_t seen = AtomicRead64(&wide);
        while (!AtomicCompareExchange64(&wide, &seen, seen + 3)) {
        }
      }
      return 0u;
    }));
  for (auto& t : threads) t.Join();
  EXPECT_EQ(count, 200000u);
  EXPECT_EQ(wide, 600000u);
}

}  // namespace
