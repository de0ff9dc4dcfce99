// Platform layer: threads, locks, semaphores, atomic operations, the millisecond timer and the
// job pool. The reader library and the encoders never call the system's thread services
// directly; everything goes through these records and functions, so that a port only has to
// replace the small system wrappers in platform.cpp, timer.cpp and pool.cpp.
#pragma once
#include <cstddef>
#include <cstdint>

// ---------------------------------------------------------------------------------------------
// Locks and semaphores
//
// Both are caller-owned blocks of 128 bytes. `Body` points inside the block at the 16-byte
// aligned part that is actually used; its first field is the kind, which tells the form that
// was picked at creation. Locks are recursive in every form.

enum : uint32_t {
  LockKindMutex = 0x10000,  // recursive system mutex; timed waits through the system
  LockKindSpin = 0x20000,   // recursive system mutex entered after a bounded spin on try-lock
  LockKindWord = 0x30000,   // atomic owner word, then mutex + condition variable for waiters
};

// Lock modes, passed at creation.
enum : uint32_t {
  LockModePlain = 0,  // LockTry is never used
  LockModeTry = 1,    // LockTry(lock, 0) is used
  LockModeTimed = 2,  // LockTry with a time limit is used
};

// Waits for ever.
inline constexpr uint32_t WaitForever = 0xFFFFFFFFu;

struct alignas(16) PlatformLock {
  void* Body;
  unsigned char Space[120];
};

struct alignas(16) PlatformSemaphore {
  void* Body;
  unsigned char Space[120];
};

static_assert(sizeof(PlatformLock) == 128 && sizeof(PlatformSemaphore) == 128);

bool LockCreate(PlatformLock* lock, uint32_t mode);
void LockDestroy(PlatformLock* lock);
void LockEnter(PlatformLock* lock);
// Enters within `milliseconds` (0 = only if free now, WaitForever = as long as needed).
bool LockTry(PlatformLock* lock, uint32_t milliseconds);
void LockLeave(PlatformLock* lock);
// The form the lock took (one of LockKind...), 0 when not created.
uint32_t LockKind(const PlatformLock* lock);
// Picks the form that later LockCreate calls take; 0 restores the automatic choice. For tests
// and for ruling out a form in the field.
void LockForceKind(uint32_t kind);

bool SemaphoreCreate(PlatformSemaphore* semaphore, uint32_t initial, uint32_t maximum);
void SemaphoreDestroy(PlatformSemaphore* semaphore);
// Takes one count within `milliseconds` (WaitForever = as long as needed).
bool SemaphoreWait(PlatformSemaphore* semaphore, uint32_t milliseconds);
// Adds `count`; the count never goes above the maximum given at creation. False when the
// signal would pass the maximum (nothing is added then).
bool SemaphoreSignal(PlatformSemaphore* semaphore, uint32_t count);

// ---------------------------------------------------------------------------------------------
// Threads

typedef uint32_t (*ThreadEntry)(void* argument);

inline constexpr size_t ThreadNameBytes = 32;  // 31 characters and the zero

// Caller-owned; filled by ThreadStart and cleared by ThreadJoin.
struct PlatformThread {
  ThreadEntry Entry;
  void* Argument;
  char Name[ThreadNameBytes];
  uint64_t Handle;    // system thread handle
  uint64_t ThreadId;  // system thread id, known once the thread runs
  uint32_t Result;
  uint32_t Priority;
  uint32_t Processor;
  uint32_t Started;
};

// Priority values: 1 lowest, 2 below normal, 3 normal, 4 above normal, 5 highest, 6 the
// caller's. A value whose low four bits are 15 carries a system level in the bits above
// (signed), e.g. 15 << 4 | 15 for time critical.
enum : uint32_t {
  PriorityLowest = 1,
  PriorityBelowNormal = 2,
  PriorityNormal = 3,
  PriorityAboveNormal = 4,
  PriorityHighest = 5,
  PriorityCaller = 6,
};

// Processor values: 0 = the system chooses; (n << 8) | 0xF0 = processor n;
// (n << 16) | 0xFFF0 = ProcessorPick(n). Adding ProcessorHard binds the thread to it.
inline constexpr uint32_t ProcessorHard = 2;
inline constexpr uint32_t ProcessorNumber(uint32_t n) { return (n << 8) | 0xF0; }
inline constexpr uint32_t ProcessorPicked(uint32_t n) { return (n << 16) | 0xFFF0; }

// Starts `entry(argument)` on a new thread. `stackBytes` 0 takes the system default. The name
// is cut at 31 bytes. True only if the thread exists.
bool ThreadStart(PlatformThread* thread, ThreadEntry entry, void* argument, size_t stackBytes,
                 uint32_t priority, uint32_t processor, const char* name);
// Waits for the thread to end and returns its entry's result.
uint32_t ThreadJoin(PlatformThread* thread);
// Sleeps; waits of 1 to 30 ms run at raised priority so the thread comes back on time.
void ThreadSleep(uint32_t milliseconds);
// A hint for spin loops.
void ThreadPause();
// The priority value `delta` levels away from `base` (ThreadPriorityAdjust(3, 1) == 4).
uint32_t ThreadPriorityAdjust(uint32_t base, int32_t delta);

// System priority levels: -2 lowest ... 0 normal ... 2 highest, 15 time critical.
// The current thread's level, as last set through this layer.
int32_t ThreadPriorityLevel();
// Sets the current thread's level; the system may refuse a raise (unprivileged), which is
// ignored, but the level is remembered so it can be restored.
void ThreadSetPriorityLevel(int32_t level);
// Lets a test see and replace priority changes: `set` is called for every change; null
// restores the system call.
typedef void (*ThreadPrioritySetter)(int32_t level);
void ThreadSetPrioritySetterForTest(ThreadPrioritySetter set);

// The level a priority value maps to for the calling thread, and false when it has none in
// the range the layer sets (-2 to 2).
bool PriorityLevelOf(uint32_t priority, int32_t* level);

// ---------------------------------------------------------------------------------------------
// Processors

inline constexpr uint32_t ProcessorMax = 64;

// Logical processors in the order threads should get them: one per core first, then the
// second threads of cores. At most 64 entries.
const uint8_t* ProcessorTable();
uint32_t ProcessorCount();
// ProcessorTable()[index % ProcessorCount()].
uint32_t ProcessorPick(uint32_t index);

// One logical processor as the system describes it, for building the table.
struct ProcessorTopology {
  uint32_t Cpu;
  int32_t Package;
  int32_t Core;
};
// Builds the table from `count` descriptions: each pass takes the next thread of every core,
// cores in order of package and core id. Returns the number of entries (at most 64).
uint32_t ProcessorOrder(const ProcessorTopology* cpus, uint32_t count, uint8_t* table);

// ---------------------------------------------------------------------------------------------
// Atomic operations, all full barriers.

inline uint32_t AtomicRead(const volatile uint32_t* address) {
  return __atomic_load_n(address, __ATOMIC_SEQ_CST);
}
inline void AtomicStore(volatile uint32_t* address, uint32_t value) {
  __atomic_store_n(address, value, __ATOMIC_SEQ_CST);
}
// Adds and returns the value before the addition.
inline uint32_t AtomicAdd(volatile uint32_t* address, int32_t delta) {
  return __atomic_fetch_add(address, static_cast<uint32_t>(delta), __ATOMIC_SEQ_CST);
}
// Stores `value` if the word holds *expected; otherwise puts the word's value in *expected.
inline bool AtomicCompareExchange(volatile uint32_t* address, uint32_t* expected,
                                  uint32_t value) {
  return __atomic_compare_exchange_n(address, expected, value, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}
inline uint64_t AtomicRead64(const volatile uint64_t* address) {
  return __atomic_load_n(address, __ATOMIC_SEQ_CST);
}
inline uint64_t AtomicAdd64(volatile uint64_t* address, int64_t delta) {
  return __atomic_fetch_add(address, static_cast<uint64_t>(delta), __ATOMIC_SEQ_CST);
}
inline bool AtomicCompareExchange64(volatile uint64_t* address, uint64_t* expected,
                                    uint64_t value) {
  return __atomic_compare_exchange_n(address, expected, value, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}

// ---------------------------------------------------------------------------------------------
// Millisecond timer

// 32-bit milliseconds since the first call; compare two readings by subtraction. Never runs
// backward. Follows the tick source when the fine counter jumps.
uint32_t TimerMs();

// The clock sources behind TimerMs, replaceable for tests.
struct TimerSources {
  // The fine counter and its frequency per second; Frequency 0 = no counter.
  uint64_t (*Counter)();
  uint64_t Frequency;
  // The coarse check source, in ms, that the counter is compared with.
  uint32_t (*TickCount)();
  // The simple ms source used when there is no counter or ORN_USE_TGT is "1".
  uint32_t (*SimpleMs)();
};
// Installs `sources` (null = the system's) and starts over, so the next TimerMs is a first
// call again and reads ORN_USE_TGT anew.
void TimerSetSourcesForTest(const TimerSources* sources);

// ---------------------------------------------------------------------------------------------
// Job pool: a fixed set of workers that all run one function.

typedef void (*PoolFunction)(void* context, uint32_t workerIndex);

// Limits the pool to `count` threads, the caller included (1 to 64); other values take the
// processor count.
void PoolSetThreads(uint32_t count);
// The number of threads a run uses, the caller included.
uint32_t PoolThreadCount();
// Creates the workers that are missing. Safe to call more than once.
void PoolStart();
// Runs function(context, i) once for every i below PoolThreadCount(), on the workers and the
// calling thread, and returns when all have finished. Runs from two threads take turns; a run
// started from inside a pool function runs every index on that thread.
void PoolRun(PoolFunction function, void* context);

// ---------------------------------------------------------------------------------------------
// Service threads: a background thread that sleeps on its semaphore until signalled (or a wait
// runs out) and leaves once Run is cleared. The entry checks AtomicRead(&service->Run) after
// every wait.
struct ServiceThread {
  PlatformSemaphore Wake;
  PlatformThread Thread;
  volatile uint32_t Run;
  volatile uint32_t Running;  // the thread exists and Wake can be signalled
  volatile uint32_t Starts;   // threads started so far
};
// Creates the semaphore (at most `wakeLimit` signals pending) and starts the thread with
// `service` as its argument. False, with nothing left behind, when either fails.
bool ServiceThreadStart(ServiceThread* service, ThreadEntry entry, uint32_t wakeLimit,
                        size_t stackBytes, uint32_t priority, const char* name);
// Clears Run, wakes the thread, waits for it and frees the semaphore.
void ServiceThreadStop(ServiceThread* service);
