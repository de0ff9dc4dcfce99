// The job pool: worker threads that each run the same function with their own index, for the
// encoders' plane passes and macroblock rows and for the filters. The caller takes part in
// every run, so a pool of n threads has n - 1 workers.
#include "host/platform.h"

#include <cstdio>
#include <mutex>

namespace {

constexpr uint32_t WorkerMax = ProcessorMax - 1;
// A waiting thread blocks no one, so it may wake with priority and pass work on at once.
constexpr int32_t WaitingLevel = 15;

struct PoolWorker {
  PlatformThread Thread;
  PlatformSemaphore Start;  // one count per job handed over
  uint32_t Idle;            // 1 while the worker has no job; set by the worker, cleared by the caller
  uint32_t Index;
  PoolFunction Function;
  void* Context;
};

struct Pool {
  uint32_t Count;  // threads per run, the caller included; 0 until first asked
  uint32_t Created;
  PoolWorker Workers[WorkerMax];
  PlatformLock RunLock;       // one run at a time
  PlatformSemaphore Done;     // one count per finished job
  bool Ready;
};

Pool pool;
std::mutex startMutex;
thread_local bool insideRun = false;

uint32_t CountOrProcessors(uint32_t count) {
  return count >= 1 && count <= ProcessorMax ? count : ProcessorCount();
}

uint32_t WorkerMain(void* argument) {
  auto* worker = static_cast<PoolWorker*>(argument);
  const int32_t ownLevel = ThreadPriorityLevel();
  insideRun = true;  // a pool function that calls PoolRun runs it by itself
  for (;;) {
    ThreadSetPriorityLevel(WaitingLevel);
    SemaphoreWait(&worker->Start, WaitForever);
    ThreadSetPriorityLevel(ownLevel);
    worker->Function(worker->Context, worker->Index);
    // Idle before done: once the caller has all its signals, every worker can take a job.
    AtomicStore(&worker->Idle, 1);
    SemaphoreSignal(&pool.Done, 1);
  }
  return 0;
}

// The lock and the done semaphore live for the whole process.
bool PreparePool() {
  if (pool.Ready) return true;
  if (!LockCreate(&pool.RunLock, LockModePlain)) return false;
  if (!SemaphoreCreate(&pool.Done, 0, WorkerMax)) {
    LockDestroy(&pool.RunLock);
    return false;
  }
  pool.Ready = true;
  return true;
}

bool StartWorker(PoolWorker* worker, uint32_t index) {
  if (!SemaphoreCreate(&worker->Start, 0, 1)) return false;
  worker->Index = index;
  worker->Idle = 1;
  char name[ThreadNameBytes];
  std::snprintf(name, sizeof(name), "ORN Pool %u", index);
  if (ThreadStart(&worker->Thread, WorkerMain, worker, 0, PriorityCaller, ProcessorPicked(index),
                  name))
    return true;
  SemaphoreDestroy(&worker->Start);
  return false;
}

// Waits for the worker to be free, at raised priority, in steps of 1 ms.
void WaitIdle(PoolWorker* worker) {
  if (AtomicRead(&worker->Idle)) return;
  const int32_t saved = ThreadPriorityLevel();
  ThreadSetPriorityLevel(WaitingLevel);
  while (!AtomicRead(&worker->Idle)) ThreadSleep(1);
  ThreadSetPriorityLevel(saved);
}

void RunAlone(PoolFunction function, void* context, uint32_t count) {
  for (uint32_t index = 0; index < count; ++index) function(context, index);
}

}  // namespace

void PoolSetThreads(uint32_t count) {
  std::lock_guard<std::mutex> hold(startMutex);
  pool.Count = CountOrProcessors(count);
}

uint32_t PoolThreadCount() {
  std::lock_guard<std::mutex> hold(startMutex);
  if (pool.Count == 0) pool.Count = CountOrProcessors(0);
  return pool.Count;
}

void PoolStart() {
  const uint32_t count = PoolThreadCount();
  std::lock_guard<std::mutex> hold(startMutex);
  if (!PreparePool()) return;
  while (pool.Created + 1 < count) {
    if (!StartWorker(&pool.Workers[pool.Created], pool.Created)) return;
    pool.Created++;
  }
}

void PoolRun(PoolFunction function, void* context) {
  if (!function) return;
  const uint32_t count = PoolThreadCount();
  if (insideRun || count == 1) {
    RunAlone(function, context, count);
    return;
  }
  PoolStart();
  if (!pool.Ready) {
    RunAlone(function, context, count);
    return;
  }
  LockEnter(&pool.RunLock);
  insideRun = true;
  uint32_t created;
  {
    std::lock_guard<std::mutex> hold(startMutex);
    created = pool.Created;
  }
  // Workers take the indices below `handed`; the caller takes the lowest free one, and any
  // that missing workers would have had.
  uint32_t handed = 0;
  while (handed + 1 < count && handed < created) {
    PoolWorker* worker = &pool.Workers[handed];
    WaitIdle(worker);
    AtomicStore(&worker->Idle, 0);
    worker->Function = function;
    worker->Context = context;
    SemaphoreSignal(&worker->Start, 1);
    handed++;
  }
  for (uint32_t index = handed; index < count; ++index) function(context, index);
  for (uint32_t i = 0; i < handed; ++i) SemaphoreWait(&pool.Done, WaitForever);
  insideRun = false;
  LockLeave(&pool.RunLock);
}
