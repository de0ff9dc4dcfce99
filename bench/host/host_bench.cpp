// Costs of the platform layer: lock enter and leave in each form, alone and contended,
// semaphores, the timer, an empty pool run, and buffered byte writes.
#include "host/bfile.h"
#include "host/platform.h"

#include <benchmark/benchmark.h>

#include <cstdio>
#include <cstdlib>
#include <string>

namespace {

PlatformLock sharedLock;
uint64_t sharedCounter;

void CreateShared(uint32_t kind) {
  LockForceKind(kind);
  LockCreate(&sharedLock, LockModeTry);
  LockForceKind(0);
}

void LockUncontended(benchmark::State& state) {
  PlatformLock lock;
  LockForceKind(static_cast<uint32_t>(state.range(0)));
  LockCreate(&lock, LockModeTry);
  LockForceKind(0);
  uint64_t counter = 0;
  for (auto _ : state) {
    LockEnter(&lock);
    benchmark::DoNotOptimize(++counter);
    LockLeave(&lock);
  }
  LockDestroy(&lock);
}
BENCHMARK(LockUncontended)->Arg(LockKindMutex)->Arg(LockKindSpin)->Arg(LockKindWord);

// All benchmark threads hammer one lock; thread 0 creates and destroys it.
void LockContended(benchmark::State& state) {
  if (state.thread_index() == 0) CreateShared(static_cast<uint32_t>(state.range(0)));
  for (auto _ : state) {
    LockEnter(&sharedLock);
    benchmark::DoNotOptimize(++sharedCounter);
    LockLeave(&sharedLock);
  }
  if (state.thread_index() == 0) LockDestroy(&sharedLock);
}
BENCHMARK(LockContended)->Arg(LockKindMutex)->Arg(LockKindSpin)->Arg(LockKindWord)->Threads(2)->Threads(4)->UseRealTime();

void SemaphoreSignalWait(benchmark::State& state) {
  PlatformSemaphore semaphore;
  SemaphoreCreate(&semaphore, 0, 1);
  for (auto _ : state) {
    SemaphoreSignal(&semaphore, 1);
    SemaphoreWait(&semaphore, WaitForever);
  }
  SemaphoreDestroy(&semaphore);
}
BENCHMARK(SemaphoreSignalWait);

void TimerRead(benchmark::State& state) {
  for (auto _ : state) benchmark::DoNotOptimize(TimerMs());
}
BENCHMARK(TimerRead);

void Nothing(void*, uint32_t) {}

void PoolEmptyRun(benchmark::State& state) {
  PoolSetThreads(static_cast<uint32_t>(state.range(0)));
  PoolStart();
  for (auto _ : state) PoolRun(Nothing, nullptr);
  PoolSetThreads(0);
}
BENCHMARK(PoolEmptyRun)->Arg(2)->Arg(4)->UseRealTime();

// Bytes through the inlined fast path into a 0x20000 buffer, written to a scratch file.
void FileWriteBytes(benchmark::State& state) {
  const char* base = std::getenv("TMPDIR");
  const std::string name = std::string(base && *base ? base : "/tmp") + "/orn_host_bench.tmp";
  BufferedFile* file = FileCreate(0x20000, name.c_str(), 0);
  if (!file) {
    state.SkipWithError("cannot create the scratch file");
    return;
  }
  const uint32_t perRound = 1 << 20;
  for (auto _ : state) {
    FileSeek(file, 0);
    for (uint32_t i = 0; i < perRound; ++i) FileWriteByte(file, i);
  }
  state.SetBytesProcessed(int64_t(state.iterations()) * perRound);
  FileClose(file);
  FileDelete(name.c_str());
}
BENCHMARK(FileWriteBytes);

void FileWriteBitFields(benchmark::State& state) {
  const char* base = std::getenv("TMPDIR");
  const std::string name = std::string(base && *base ? base : "/tmp") + "/orn_host_bench_bits.tmp";
  BufferedFile* file = FileCreate(0x20000, name.c_str(), 0);
  if (!file) {
    state.SkipWithError("cannot create the scratch file");
    return;
  }
  const uint32_t perRound = 1 << 18;
  for (auto _ : state) {
    FileSeek(file, 0);
    for (uint32_t i = 0; i < perRound; ++i) FileWriteBits(file, i, 13);
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * perRound);
  FileClose(file);
  FileDelete(name.c_str());
}
BENCHMARK(FileWriteBitFields);

}  // namespace

BENCHMARK_MAIN();
