// Locks, semaphores, threads and the processor table on POSIX threads. Every system call sits
// in a small static function at the top of its section, so a port replaces only those.
#include "host/platform.h"

#include <errno.h>
#include <pthread.h>
#include <sched.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <new>

#if defined(__x86_64__) || defined(__i386__)
#include <immintrin.h>
#endif

namespace {

// ---------------------------------------------------------------------------------------------
// System wrappers

timespec DeadlineAfter(uint32_t milliseconds) {
  timespec t;
  clock_gettime(CLOCK_MONOTONIC, &t);
  t.tv_sec += milliseconds / 1000;
  t.tv_nsec += static_cast<long>(milliseconds % 1000) * 1000000L;
  if (t.tv_nsec >= 1000000000L) {
    t.tv_sec += 1;
    t.tv_nsec -= 1000000000L;
  }
  return t;
}

bool SystemMutexInit(pthread_mutex_t* mutex, bool recursive) {
  pthread_mutexattr_t attr;
  if (pthread_mutexattr_init(&attr) != 0) return false;
  if (recursive) pthread_mutexattr_settype(&attr, PTHREAD_MUTEX_RECURSIVE);
  const bool ok = pthread_mutex_init(mutex, &attr) == 0;
  pthread_mutexattr_destroy(&attr);
  return ok;
}

// Condition variables wait against the monotonic clock, so a change of the wall clock does not
// stretch or cut a timed wait.
bool SystemCondInit(pthread_cond_t* cond) {
  pthread_condattr_t attr;
  if (pthread_condattr_init(&attr) != 0) return false;
  pthread_condattr_setclock(&attr, CLOCK_MONOTONIC);
  const bool ok = pthread_cond_init(cond, &attr) == 0;
  pthread_condattr_destroy(&attr);
  return ok;
}

// Waits on `cond`; with a deadline, false once it has passed.
bool SystemCondWait(pthread_cond_t* cond, pthread_mutex_t* mutex, const timespec* deadline) {
  if (!deadline) return pthread_cond_wait(cond, mutex) == 0;
  return pthread_cond_timedwait(cond, mutex, deadline) != ETIMEDOUT;
}

bool SystemMutexTimedLock(pthread_mutex_t* mutex, uint32_t milliseconds) {
  const timespec deadline = DeadlineAfter(milliseconds);
  return pthread_mutex_clocklock(mutex, CLOCK_MONOTONIC, &deadline) == 0;
}

uint32_t OnlineProcessorCount() {
  const long n = sysconf(_SC_NPROCESSORS_ONLN);
  return n > 0 ? static_cast<uint32_t>(n) : 1;
}

// ---------------------------------------------------------------------------------------------
// Lock bodies

constexpr uint32_t SpinRounds = 102;
constexpr uint64_t WaitersBit = 1ull << 63;

struct alignas(16) MutexBody {
  uint32_t Kind;
  uint32_t SpinCount;
  pthread_mutex_t Mutex;
};

// The word form: `Word` holds the owner's id, 0 when free, and WaitersBit while a thread sleeps
// on the condition variable. `Waiters` counts the sleepers; it is guarded by `Mutex`.
struct alignas(16) WordBody {
  uint32_t Kind;
  uint32_t Recursion;
  uint64_t Word;
  uint32_t Waiters;
  pthread_mutex_t Mutex;
  pthread_cond_t Cond;
};

struct alignas(16) SemaphoreBody {
  uint32_t Kind;
  uint32_t Maximum;
  uint32_t Count;
  uint32_t Waiters;
  pthread_mutex_t Mutex;
  pthread_cond_t Cond;
};

constexpr size_t BodyRoom = sizeof(PlatformLock) - 16;
static_assert(sizeof(MutexBody) <= BodyRoom && sizeof(WordBody) <= BodyRoom &&
              sizeof(SemaphoreBody) <= BodyRoom);

template <typename Block>
void* AlignedBody(Block* block) {
  const uintptr_t start = reinterpret_cast<uintptr_t>(block) + sizeof(void*);
  return reinterpret_cast<void*>((start + 15) & ~uintptr_t(15));
}

std::atomic<uint32_t> forcedLockKind{0};

// A process-wide id for the calling thread, never 0 and never using the waiters bit.
uint64_t CurrentOwnerId() {
  static std::atomic<uint64_t> next{1};
  thread_local uint64_t id = 0;
  if (id == 0) id = next.fetch_add(1);
  return id;
}

uint32_t SpinCountForSystem() { return OnlineProcessorCount() > 1 ? 500 : 1; }

// ---------------------------------------------------------------------------------------------
// The word form

bool WordTakeFree(WordBody* body, uint64_t me) {
  uint64_t expected = 0;
  return __atomic_compare_exchange_n(&body->Word, &expected, me, false, __ATOMIC_SEQ_CST,
                                     __ATOMIC_SEQ_CST);
}

// Enters under the body's mutex, sleeping on the condition variable. A waiter that takes the
// lock while others still sleep keeps the waiters bit set, so its leave wakes the next one.
bool WordEnterSlow(WordBody* body, uint64_t me, const timespec* deadline) {
  pthread_mutex_lock(&body->Mutex);
  body->Waiters++;
  bool entered = false, expired = false;
  for (;;) {
    uint64_t word = __atomic_load_n(&body->Word, __ATOMIC_SEQ_CST);
    if (word == 0) {
      const uint64_t mine = me | (body->Waiters > 1 ? WaitersBit : 0);
      if (__atomic_compare_exchange_n(&body->Word, &word, mine, false, __ATOMIC_SEQ_CST,
                                      __ATOMIC_SEQ_CST)) {
        entered = true;
        break;
      }
      continue;
    }
    // Owned: make sure the owner's leave will wake a sleeper. A waiter that gives up does this
    // too, for those that stay.
    if (!(word & WaitersBit) && (!expired || body->Waiters > 1)) {
      if (!__atomic_compare_exchange_n(&body->Word, &word, word | WaitersBit, false,
                                       __ATOMIC_SEQ_CST, __ATOMIC_SEQ_CST))
        continue;
    }
    if (expired) break;
    if (!SystemCondWait(&body->Cond, &body->Mutex, deadline)) expired = true;
  }
  body->Waiters--;
  pthread_mutex_unlock(&body->Mutex);
  return entered;
}

bool WordEnter(WordBody* body, uint32_t milliseconds) {
  const uint64_t me = CurrentOwnerId();
  const uint64_t word = __atomic_load_n(&body->Word, __ATOMIC_SEQ_CST);
  if ((word & ~WaitersBit) == me) {
    body->Recursion++;
    return true;
  }
  for (uint32_t round = 0; round < SpinRounds; ++round) {
    if (WordTakeFree(body, me)) return true;
    if (milliseconds == 0) return false;
    ThreadPause();
  }
  if (milliseconds == WaitForever) return WordEnterSlow(body, me, nullptr);
  const timespec deadline = DeadlineAfter(milliseconds);
  return WordEnterSlow(body, me, &deadline);
}

void WordLeave(WordBody* body) {
  if (body->Recursion > 0) {
    body->Recursion--;
    return;
  }
  uint64_t expected = CurrentOwnerId();
  if (__atomic_compare_exchange_n(&body->Word, &expected, 0, false, __ATOMIC_SEQ_CST,
                                  __ATOMIC_SEQ_CST))
    return;
  // The waiters bit is set: free the word under the mutex and wake one sleeper.
  pthread_mutex_lock(&body->Mutex);
  __atomic_store_n(&body->Word, 0, __ATOMIC_SEQ_CST);
  pthread_cond_signal(&body->Cond);
  pthread_mutex_unlock(&body->Mutex);
}

// ---------------------------------------------------------------------------------------------
// The mutex forms

bool MutexEnter(MutexBody* body, uint32_t milliseconds) {
  if (pthread_mutex_trylock(&body->Mutex) == 0) return true;
  if (milliseconds == 0) return false;
  if (body->Kind == LockKindSpin) {
    for (uint32_t round = 0; round < body->SpinCount; ++round) {
      ThreadPause();
      if (pthread_mutex_trylock(&body->Mutex) == 0) return true;
    }
  }
  if (milliseconds == WaitForever) return pthread_mutex_lock(&body->Mutex) == 0;
  return SystemMutexTimedLock(&body->Mutex, milliseconds);
}

uint32_t BodyKind(const void* body) { return body ? *static_cast<const uint32_t*>(body) : 0; }

}  // namespace

// ---------------------------------------------------------------------------------------------
// Locks

void LockForceKind(uint32_t kind) { forcedLockKind.store(kind); }

uint32_t LockKind(const PlatformLock* lock) { return BodyKind(lock->Body); }

bool LockCreate(PlatformLock* lock, uint32_t mode) {
  std::memset(lock, 0, sizeof(*lock));
  void* place = AlignedBody(lock);
  // Condition variables always exist here, so every mode gets the word form unless a form is
  // forced. Mode 2 needs timed waits, which the mutex forms also give on this system.
  uint32_t kind = forcedLockKind.load();
  if (kind != LockKindMutex && kind != LockKindSpin) kind = LockKindWord;
  if (kind == LockKindWord) {
    auto* body = new (place) WordBody{};
    body->Kind = kind;
    if (!SystemMutexInit(&body->Mutex, false)) return false;
    if (!SystemCondInit(&body->Cond)) {
      pthread_mutex_destroy(&body->Mutex);
      return false;
    }
  } else {
    auto* body = new (place) MutexBody{};
    body->Kind = kind;
    body->SpinCount = kind == LockKindSpin ? SpinCountForSystem() : 0;
    if (!SystemMutexInit(&body->Mutex, true)) return false;
  }
  lock->Body = place;
  return true;
}

void LockDestroy(PlatformLock* lock) {
  if (!lock->Body) return;
  if (LockKind(lock) == LockKindWord) {
    auto* body = static_cast<WordBody*>(lock->Body);
    pthread_cond_destroy(&body->Cond);
    pthread_mutex_destroy(&body->Mutex);
  } else {
    pthread_mutex_destroy(&static_cast<MutexBody*>(lock->Body)->Mutex);
  }
  lock->Body = nullptr;
}

bool LockTry(PlatformLock* lock, uint32_t milliseconds) {
  if (LockKind(lock) == LockKindWord) return WordEnter(static_cast<WordBody*>(lock->Body), milliseconds);
  return MutexEnter(static_cast<MutexBody*>(lock->Body), milliseconds);
}

void LockEnter(PlatformLock* lock) { LockTry(lock, WaitForever); }

void LockLeave(PlatformLock* lock) {
  if (LockKind(lock) == LockKindWord) {
    WordLeave(static_cast<WordBody*>(lock->Body));
  } else {
    pthread_mutex_unlock(&static_cast<MutexBody*>(lock->Body)->Mutex);
  }
}

// ---------------------------------------------------------------------------------------------
// Semaphores: an atomic count taken without the kernel when it is positive, and a mutex and
// condition variable for those that have to wait.

namespace {

bool SemaphoreTake(SemaphoreBody* body) {
  uint32_t count = __atomic_load_n(&body->Count, __ATOMIC_SEQ_CST);
  while (count > 0) {
    if (__atomic_compare_exchange_n(&body->Count, &count, count - 1, false, __ATOMIC_SEQ_CST,
                                    __ATOMIC_SEQ_CST))
      return true;
  }
  return false;
}

}  // namespace

bool SemaphoreCreate(PlatformSemaphore* semaphore, uint32_t initial, uint32_t maximum) {
  std::memset(semaphore, 0, sizeof(*semaphore));
  if (maximum == 0 || initial > maximum) return false;
  auto* body = new (AlignedBody(semaphore)) SemaphoreBody{};
  body->Kind = LockKindWord;
  body->Maximum = maximum;
  body->Count = initial;
  if (!SystemMutexInit(&body->Mutex, false)) return false;
  if (!SystemCondInit(&body->Cond)) {
    pthread_mutex_destroy(&body->Mutex);
    return false;
  }
  semaphore->Body = body;
  return true;
}

void SemaphoreDestroy(PlatformSemaphore* semaphore) {
  auto* body = static_cast<SemaphoreBody*>(semaphore->Body);
  if (!body) return;
  pthread_cond_destroy(&body->Cond);
  pthread_mutex_destroy(&body->Mutex);
  semaphore->Body = nullptr;
}

bool SemaphoreWait(PlatformSemaphore* semaphore, uint32_t milliseconds) {
  auto* body = static_cast<SemaphoreBody*>(semaphore->Body);
  for (uint32_t round = 0; round < SpinRounds; ++round) {
    if (SemaphoreTake(body)) return true;
    if (milliseconds == 0) return false;
    ThreadPause();
  }
  timespec deadline{};
  const bool timed = milliseconds != WaitForever;
  if (timed) deadline = DeadlineAfter(milliseconds);
  pthread_mutex_lock(&body->Mutex);
  __atomic_add_fetch(&body->Waiters, 1, __ATOMIC_SEQ_CST);
  bool taken = false;
  for (;;) {
    if ((taken = SemaphoreTake(body))) break;
    if (!SystemCondWait(&body->Cond, &body->Mutex, timed ? &deadline : nullptr)) {
      taken = SemaphoreTake(body);
      break;
    }
  }
  __atomic_sub_fetch(&body->Waiters, 1, __ATOMIC_SEQ_CST);
  pthread_mutex_unlock(&body->Mutex);
  return taken;
}

bool SemaphoreSignal(PlatformSemaphore* semaphore, uint32_t count) {
  auto* body = static_cast<SemaphoreBody*>(semaphore->Body);
  if (count == 0) return true;
  uint32_t now = __atomic_load_n(&body->Count, __ATOMIC_SEQ_CST);
  do {
    if (count > body->Maximum - now) return false;
  } while (!__atomic_compare_exchange_n(&body->Count, &now, now + count, false, __ATOMIC_SEQ_CST,
                                        __ATOMIC_SEQ_CST));
  // A waiter counts itself before it looks at the count, so either it sees the new count or
  // this sees it and wakes it under the mutex.
  if (__atomic_load_n(&body->Waiters, __ATOMIC_SEQ_CST) > 0) {
    pthread_mutex_lock(&body->Mutex);
    if (count == 1) pthread_cond_signal(&body->Cond);
    else pthread_cond_broadcast(&body->Cond);
    pthread_mutex_unlock(&body->Mutex);
  }
  return true;
}

// ---------------------------------------------------------------------------------------------
// Priorities

namespace {

uint64_t SystemThreadId() { return static_cast<uint64_t>(syscall(SYS_gettid)); }

// Levels map to nice values of the calling thread. A raise above the process's limit is
// refused for unprivileged users; the layer goes on without it.
int NiceOfLevel(int32_t level) {
  if (level >= 15) return -20;
  if (level <= -15) return 19;
  return -5 * std::clamp(level, -2, 2);
}

void SystemSetPriority(int32_t level) {
  setpriority(PRIO_PROCESS, static_cast<id_t>(SystemThreadId()), NiceOfLevel(level));
}

std::atomic<ThreadPrioritySetter> prioritySetter{nullptr};
thread_local int32_t currentLevel = 0;

// Any level a priority value names, in range or not.
bool RawLevelOf(uint32_t priority, int32_t* level) {
  if (priority >= PriorityLowest && priority <= PriorityHighest) {
    *level = static_cast<int32_t>(priority) - 3;
    return true;
  }
  if (priority == PriorityCaller) {
    *level = currentLevel;
    return true;
  }
  if ((priority & 15) == 15) {
    *level = static_cast<int32_t>(priority) >> 4;
    return true;
  }
  return false;
}

}  // namespace

int32_t ThreadPriorityLevel() { return currentLevel; }

namespace {

void ApplyPriorityLevel(int32_t level) {
  currentLevel = level;
  if (ThreadPrioritySetter set = prioritySetter.load()) set(level);
  else SystemSetPriority(level);
}

}  // namespace

void ThreadSetPriorityLevel(int32_t level) {
  if (level != currentLevel) ApplyPriorityLevel(level);
}

void ThreadSetPrioritySetterForTest(ThreadPrioritySetter set) { prioritySetter.store(set); }

bool PriorityLevelOf(uint32_t priority, int32_t* level) {
  int32_t raw;
  if (!RawLevelOf(priority, &raw) || raw < -2 || raw > 2) return false;
  *level = raw;
  return true;
}

uint32_t ThreadPriorityAdjust(uint32_t base, int32_t delta) {
  int32_t level = 0;
  RawLevelOf(base, &level);
  level += delta;
  if (level >= -2 && level <= 2) return static_cast<uint32_t>(level + 3);
  return (static_cast<uint32_t>(level) << 4) | 15;
}

// ---------------------------------------------------------------------------------------------
// Threads

namespace {

bool ThreadNamesWanted() {
  static const bool wanted = [] {
    const char* value = std::getenv("ORN_NO_SET_THREAD_NAMES");
    return !(value && std::strcmp(value, "1") == 0);
  }();
  return wanted;
}

// The kernel keeps 15 characters of a name; the record keeps all 31.
void SystemSetThreadName(const char* name) {
  char shortName[16];
  const size_t length = strnlen(name, sizeof(shortName) - 1);
  std::memcpy(shortName, name, length);
  shortName[length] = 0;
  pthread_setname_np(pthread_self(), shortName);
}

void* ThreadMain(void* argument) {
  auto* thread = static_cast<PlatformThread*>(argument);
  __atomic_store_n(&thread->ThreadId, SystemThreadId(), __ATOMIC_SEQ_CST);
  if (thread->Name[0] && ThreadNamesWanted()) SystemSetThreadName(thread->Name);
  int32_t level;
  // Set even when it equals the default: the system copied the creator's priority.
  if (PriorityLevelOf(thread->Priority, &level)) ApplyPriorityLevel(level);
  thread->Result = thread->Entry(thread->Argument);
  return nullptr;
}

// The processor a processor value names, or -1 for none.
int ProcessorOfValue(uint32_t processor) {
  if ((processor & 0xFFF0) == 0xFFF0) return static_cast<int>(ProcessorPick(processor >> 16));
  if ((processor & 0xF0) == 0xF0) return static_cast<int>((processor >> 8) & 0xFF);
  return -1;
}

// Only a hard binding is honoured; the scheduler here has no ideal-processor hint.
void SystemBindProcessor(pthread_attr_t* attr, int cpu) {
  cpu_set_t set;
  CPU_ZERO(&set);
  CPU_SET(cpu, &set);
  pthread_attr_setaffinity_np(attr, sizeof(set), &set);
}

}  // namespace

bool ThreadStart(PlatformThread* thread, ThreadEntry entry, void* argument, size_t stackBytes,
                 uint32_t priority, uint32_t processor, const char* name) {
  std::memset(thread, 0, sizeof(*thread));
  if (!entry) return false;
  thread->Entry = entry;
  thread->Argument = argument;
  if (name) std::snprintf(thread->Name, sizeof(thread->Name), "%s", name);
  // The caller's priority is resolved now, on the caller's thread.
  thread->Priority =
      priority == PriorityCaller ? ThreadPriorityAdjust(PriorityCaller, 0) : priority;
  thread->Processor = processor;

  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return false;
  if (stackBytes) {
    const size_t minimum = 65536;
    pthread_attr_setstacksize(&attr, std::max(stackBytes, minimum));
  }
  const int cpu = ProcessorOfValue(processor);
  if (cpu >= 0 && cpu < CPU_SETSIZE && (processor & ProcessorHard)) SystemBindProcessor(&attr, cpu);
  pthread_t handle;
  int rc = pthread_create(&handle, &attr, ThreadMain, thread);
  if (rc != 0 && cpu >= 0) {
    // A processor outside the allowed set makes the start fail; start unbound instead.
    pthread_attr_destroy(&attr);
    pthread_attr_init(&attr);
    if (stackBytes) pthread_attr_setstacksize(&attr, std::max(stackBytes, size_t(65536)));
    rc = pthread_create(&handle, &attr, ThreadMain, thread);
  }
  pthread_attr_destroy(&attr);
  // The system puts the static thread-local blocks of all modules on the thread's stack, and
  // refuses a stack that cannot hold them (a linked library may bring large ones): a small stack
  // is grown until it does.
  for (size_t grown = std::max(stackBytes, size_t(65536)) * 4;
       rc == EINVAL && stackBytes && grown <= (size_t(16) << 20); grown *= 4) {
    pthread_attr_init(&attr);
    pthread_attr_setstacksize(&attr, grown);
    if (cpu >= 0 && cpu < CPU_SETSIZE && (processor & ProcessorHard)) SystemBindProcessor(&attr, cpu);
    rc = pthread_create(&handle, &attr, ThreadMain, thread);
    pthread_attr_destroy(&attr);
  }
  if (rc != 0) return false;
  static_assert(sizeof(pthread_t) <= sizeof(thread->Handle));
  thread->Handle = static_cast<uint64_t>(handle);
  thread->Started = 1;
  return true;
}

uint32_t ThreadJoin(PlatformThread* thread) {
  if (!thread->Started) return 0;
  pthread_join(static_cast<pthread_t>(thread->Handle), nullptr);
  thread->Started = 0;
  thread->Handle = 0;
  return thread->Result;
}

bool ServiceThreadStart(ServiceThread* service, ThreadEntry entry, uint32_t wakeLimit,
                        size_t stackBytes, uint32_t priority, const char* name) {
  if (!SemaphoreCreate(&service->Wake, 0, wakeLimit)) return false;
  AtomicStore(&service->Run, 1);
  if (!ThreadStart(&service->Thread, entry, service, stackBytes, priority, 0, name)) {
    AtomicStore(&service->Run, 0);
    SemaphoreDestroy(&service->Wake);
    return false;
  }
  AtomicAdd(&service->Starts, 1);
  AtomicStore(&service->Running, 1);
  return true;
}

void ServiceThreadStop(ServiceThread* service) {
  constexpr uint32_t StopSignals = 4;  // enough to wake the thread from any wait
  AtomicStore(&service->Run, 0);
  SemaphoreSignal(&service->Wake, StopSignals);
  ThreadJoin(&service->Thread);
  AtomicStore(&service->Running, 0);
  SemaphoreDestroy(&service->Wake);
}

void ThreadSleep(uint32_t milliseconds) {
  const bool raise = milliseconds >= 1 && milliseconds <= 30;
  const int32_t saved = ThreadPriorityLevel();
  if (raise) ThreadSetPriorityLevel(2);
  timespec wait{static_cast<time_t>(milliseconds / 1000),
                static_cast<long>(milliseconds % 1000) * 1000000L};
  while (nanosleep(&wait, &wait) != 0 && errno == EINTR) {
  }
  if (raise) ThreadSetPriorityLevel(saved);
}

void ThreadPause() {
#if defined(__x86_64__) || defined(__i386__)
  _mm_pause();
#endif
}

// ---------------------------------------------------------------------------------------------
// Processors

uint32_t ProcessorOrder(const ProcessorTopology* cpus, uint32_t count, uint8_t* table) {
  ProcessorTopology sorted[256];
  uint32_t n = 0;
  for (uint32_t i = 0; i < count && n < 256; ++i)
    if (cpus[i].Cpu < 256) sorted[n++] = cpus[i];
  std::sort(sorted, sorted + n, [](const ProcessorTopology& a, const ProcessorTopology& b) {
    if (a.Package != b.Package) return a.Package < b.Package;
    if (a.Core != b.Core) return a.Core < b.Core;
    return a.Cpu < b.Cpu;
  });
  // rank[i] = which thread of its core processor i is.
  uint32_t rank[256];
  uint32_t maxRank = 0;
  for (uint32_t i = 0; i < n; ++i) {
    const bool sameCore = i > 0 && sorted[i].Package == sorted[i - 1].Package &&
                          sorted[i].Core == sorted[i - 1].Core;
    rank[i] = sameCore ? rank[i - 1] + 1 : 0;
    maxRank = std::max(maxRank, rank[i]);
  }
  uint32_t entries = 0;
  for (uint32_t pass = 0; pass <= maxRank && entries < ProcessorMax; ++pass)
    for (uint32_t i = 0; i < n && entries < ProcessorMax; ++i)
      if (rank[i] == pass) table[entries++] = static_cast<uint8_t>(sorted[i].Cpu);
  return entries;
}

namespace {

bool ReadTopologyNumber(uint32_t cpu, const char* field, int32_t* value) {
  char path[128];
  std::snprintf(path, sizeof(path), "/sys/devices/system/cpu/cpu%u/topology/%s", cpu, field);
  FILE* file = std::fopen(path, "r");
  if (!file) return false;
  const bool ok = std::fscanf(file, "%d", value) == 1;
  std::fclose(file);
  return ok;
}

// The processors this process may run on, with their core and package.
uint32_t SystemTopology(ProcessorTopology* cpus, uint32_t room) {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (sched_getaffinity(0, sizeof(allowed), &allowed) != 0) return 0;
  uint32_t n = 0;
  for (uint32_t cpu = 0; cpu < CPU_SETSIZE && n < room; ++cpu) {
    if (!CPU_ISSET(cpu, &allowed)) continue;
    ProcessorTopology& entry = cpus[n++];
    entry.Cpu = cpu;
    if (!ReadTopologyNumber(cpu, "physical_package_id", &entry.Package)) entry.Package = 0;
    // Without a core id each processor counts as a core of its own.
    if (!ReadTopologyNumber(cpu, "core_id", &entry.Core)) entry.Core = static_cast<int32_t>(cpu);
  }
  return n;
}

struct ProcessorList {
  uint8_t Table[ProcessorMax];
  uint32_t Count;
};

const ProcessorList& Processors() {
  static const ProcessorList list = [] {
    ProcessorList built{};
    ProcessorTopology cpus[256];
    const uint32_t n = SystemTopology(cpus, 256);
    built.Count = ProcessorOrder(cpus, n, built.Table);
    if (built.Count == 0) {
      built.Count = std::min(OnlineProcessorCount(), ProcessorMax);
      for (uint32_t i = 0; i < built.Count; ++i) built.Table[i] = static_cast<uint8_t>(i);
    }
    return built;
  }();
  return list;
}

}  // namespace

const uint8_t* ProcessorTable() { return Processors().Table; }
uint32_t ProcessorCount() { return Processors().Count; }
uint32_t ProcessorPick(uint32_t index) {
  const ProcessorList& list = Processors();
  return list.Table[index % list.Count];
}
