// The async slice service: worker threads addressed by small numbers (0 to 63) decode the slices
// of a frame while the caller goes on. Each worker has two message queues: handle | share to
// the worker, and (message, result) back. A handle's AsyncSlots say which slices were given
// away; the wait collects the answers and then runs the frame's end work on the waiting thread,
// so that VelmoEndFrame stays single-threaded.
//
// Slot words: thread number | 0x300 while a slice runs; 0x100 means "answer not yet collected"
// and is cleared by whoever reads the answer; 0x200 marks a slice given out for decoding.
#include "reader/velmo_async.h"

#include "reader/velmo_handle.h"

#include <cstring>

namespace {

constexpr uint32_t WorkerCount = 64;
constexpr size_t WorkerStackBytes = 0x18000;
constexpr uint32_t MessageBytes = 8;  // handle address | share
constexpr uint32_t AnswerBytes = 16;  // the message, then the result
constexpr uint32_t SlotCount = 8;
constexpr uint32_t SlotUncollected = 0x100;
constexpr uint32_t SlotGiven = 0x300;
constexpr uint32_t CollectStepMs = 20;  // see Collect

enum : uint32_t { WorkerNotStarted = 0, WorkerRunning = 1, WorkerStopAsked = 2 };

const char* const TextOutOfRange = "Out of range thread number.";
const char* const TextAlreadyLoaded = "Already loaded on this thread number.";
const char* const TextNotStarted = "Thread number not started.";
const char* const TextQueueFull = "Async queue full.";
const char* const TextBrokenQueue = "Broken async queue.";
const char* const TextThreadFailed = "CreateThread failed.";
const char* const TextSemaphoreFailed = "CreateSemaphore failed.";
const char* const TextMutexFailed = "CreateMutex failed.";
const char* const TextInProgress =
    "There is already an async decompression in progress on this HVELMO.";

struct AsyncWorker {
  volatile uint32_t State;
  uint32_t Number;
  PlatformThread Thread;
  AsyncQueue ToWorker;    // 8-byte messages; a zero message stops the worker
  AsyncQueue FromWorker;  // 16-byte answers
};

AsyncWorker Workers[WorkerCount];

// The service's last error, set from any thread; the caller's calls copy it to VelmoGetError.
const char* PendingError = nullptr;

void NoteError(const char* text) { __atomic_store_n(&PendingError, text, __ATOMIC_SEQ_CST); }

void CopyError() {
  if (const char* text = __atomic_exchange_n(&PendingError, nullptr, __ATOMIC_SEQ_CST))
    VelmoSetError(text);
}

// Sets the error and hands it to VelmoGetError at once; for calls made on the caller's thread.
uint32_t Fail(const char* text) {
  NoteError(text);
  CopyError();
  return 0;
}

const char* CheckNumber(uint32_t number) {
  return number < WorkerCount ? nullptr : TextOutOfRange;
}

uint32_t StateOf(uint32_t number) { return AtomicRead(&Workers[number].State); }

void ClearSlotBits(uint32_t* slot, uint32_t bits) {
  uint32_t seen = AtomicRead(slot);
  while (!AtomicCompareExchange(slot, &seen, seen & ~bits)) {
  }
}

bool AnyUncollected(const VelmoState* h) {
  for (uint32_t s = 0; s < SlotCount; ++s)
    if (AtomicRead(&h->AsyncSlots[s]) & SlotUncollected) return true;
  return false;
}

uint32_t LimitMs(int32_t microseconds) {
  return microseconds < 0 ? WaitForever : uint32_t((int64_t(microseconds) + 999) / 1000);
}

// Reads the answers that thread `number` has sent back: the first within `milliseconds`, the
// rest only if already there. An answer for another handle clears that handle's slot and wakes
// its own waiter, which may be blocked on the same queue. Callers check their slots again after
// each call, and a wait without limit is cut into steps: when several threads wait on one
// queue, a wake-up meant for one of them can be taken by another.
void Collect(uint32_t number, uint32_t milliseconds, VelmoState* h) {
  AsyncWorker& w = Workers[number % WorkerCount];
  if (number >= WorkerCount || !AtomicRead(&w.FromWorker.Made)) {
    // No answer can ever come from there: give those slices up.
    NoteError(TextBrokenQueue);
    for (uint32_t s = 0; s < SlotCount; ++s)
      if ((AtomicRead(&h->AsyncSlots[s]) & 0xFF) == number)
        ClearSlotBits(&h->AsyncSlots[s], SlotUncollected);
    return;
  }
  uint32_t wait = milliseconds == WaitForever ? CollectStepMs : milliseconds;
  for (;;) {
    if (wait == 0 && AsyncQueueUsed(&w.FromWorker) < AnswerBytes) return;
    uint64_t answer[2];
    if (!AsyncQueueRead(&w.FromWorker, answer, AnswerBytes, wait)) return;
    wait = 0;
    VelmoState* owner = reinterpret_cast<VelmoState*>(uintptr_t(answer[0] & ~uint64_t(0xFF)));
    ClearSlotBits(&owner->AsyncSlots[answer[0] & 0xF], SlotUncollected);
    // After the clear the owner may be closed and gone: only its number is passed on.
    if (owner != h) AsyncQueueNudge(&w.FromWorker);
  }
}

uint32_t WorkerMain(void* argument) {
  AsyncWorker* w = static_cast<AsyncWorker*>(argument);
  for (;;) {
    uint64_t message = 0;
    if (!AsyncQueueRead(&w->ToWorker, &message, MessageBytes, WaitForever)) continue;
    if (message == 0) break;
    HVELMO handle = reinterpret_cast<HVELMO>(uintptr_t(message & ~uint64_t(0xFF)));
    const uint64_t answer[2] = {message, VelmoDoSlices(handle, uint32_t(message & 0xFF))};
    while (!AsyncQueueWrite(&w->FromWorker, answer, AnswerBytes))
      SemaphoreWait(&w->FromWorker.SpaceReady, WaitForever);
  }
  return 0;
}

const char* MakeQueues(AsyncWorker* w) {
  if (AtomicRead(&w->ToWorker.Made)) return nullptr;  // kept from an earlier start
  if (const char* e = AsyncQueueCreate(&w->ToWorker)) return e;
  if (const char* e = AsyncQueueCreate(&w->FromWorker)) {
    AsyncQueueDestroy(&w->ToWorker);
    return e;
  }
  return nullptr;
}

// Sends one message, waiting for room if the worker is behind.
void SendWaiting(AsyncWorker* w, uint64_t message) {
  while (!AsyncQueueWrite(&w->ToWorker, &message, MessageBytes))
    SemaphoreWait(&w->ToWorker.SpaceReady, WaitForever);
}

// Orders the thread numbers by the free space of their queues, most free first; equal ones
// keep their order.
void SortByFreeSpace(uint32_t* numbers, uint32_t count) {
  uint32_t free[WorkerCount];
  for (uint32_t i = 0; i < count; ++i) free[i] = AsyncQueueFree(&Workers[numbers[i]].ToWorker);
  for (uint32_t i = 1; i < count; ++i) {
    const uint32_t number = numbers[i], space = free[i];
    uint32_t j = i;
    for (; j > 0 && free[j - 1] < space; --j) {
      numbers[j] = numbers[j - 1];
      free[j] = free[j - 1];
    }
    numbers[j] = number;
    free[j] = space;
  }
}

// Gives one share to a worker. The slot is marked before the message goes out, since any
// waiter on that thread's answers may collect it at once.
bool GiveShare(VelmoState* h, uint32_t number, uint32_t share) {
  AsyncWorker& w = Workers[number];
  uint32_t* slot = &h->AsyncSlots[share & 0xF];
  AtomicStore(slot, number | SlotGiven);
  const uint64_t message = uint64_t(uintptr_t(h)) | share;
  // Full: the worker takes its next message before it answers that one, so reading its
  // answers back makes room, as long as it runs.
  while (!AsyncQueueWrite(&w.ToWorker, &message, MessageBytes)) {
    if (StateOf(number) != WorkerRunning) {
      AtomicStore(slot, 0);
      NoteError(TextQueueFull);
      return false;
    }
    Collect(number, WaitForever, h);
  }
  return true;
}

// VelmoClose: waits until every slice given away has answered. The worker sees Closing and
// leaves a slice that has not begun.
void DrainSlices(VelmoState* h) {
  while (AnyUncollected(h)) {
    for (uint32_t s = 0; s < SlotCount; ++s) {
      const uint32_t slot = AtomicRead(&h->AsyncSlots[s]);
      if (slot & SlotUncollected) Collect(slot & 0xFF, WaitForever, h);
    }
  }
  for (uint32_t s = 0; s < SlotCount; ++s) AtomicStore(&h->AsyncSlots[s], 0);
}

// The drain is there from the start, before any thread exists.
[[maybe_unused]] const bool DrainInstalled = (VelmoServices.DrainAsync = DrainSlices, true);

}  // namespace

// ---------------------------------------------------------------------------------------------
// The message queue

const char* AsyncQueueCreate(AsyncQueue* queue) {
  queue->Head = queue->Tail = queue->Pending = queue->Nudges = 0;
  queue->SpaceSignalled = 1;
  if (!SemaphoreCreate(&queue->DataReady, 0, 0x7fffffff)) return TextSemaphoreFailed;
  if (!SemaphoreCreate(&queue->SpaceReady, 1, 1)) {
    SemaphoreDestroy(&queue->DataReady);
    return TextSemaphoreFailed;
  }
  if (!LockCreate(&queue->Lock, LockModePlain)) {
    SemaphoreDestroy(&queue->SpaceReady);
    SemaphoreDestroy(&queue->DataReady);
    return TextMutexFailed;
  }
  AtomicStore(&queue->Made, 1);
  return nullptr;
}

void AsyncQueueDestroy(AsyncQueue* queue) {
  if (!AtomicRead(&queue->Made)) return;
  AtomicStore(&queue->Made, 0);
  LockDestroy(&queue->Lock);
  SemaphoreDestroy(&queue->SpaceReady);
  SemaphoreDestroy(&queue->DataReady);
}

bool AsyncQueueWrite(AsyncQueue* queue, const void* message, uint32_t bytes) {
  LockEnter(&queue->Lock);
  if (queue->Tail - queue->Head + AsyncQueueBytes < bytes) {
    queue->SpaceSignalled = 0;  // the next taker signals SpaceReady
    LockLeave(&queue->Lock);
    return false;
  }
  const uint32_t at = queue->Head % AsyncQueueBytes;
  const uint32_t first = bytes < AsyncQueueBytes - at ? bytes : AsyncQueueBytes - at;
  std::memcpy(queue->Ring + at, message, first);
  std::memcpy(queue->Ring, static_cast<const uint8_t*>(message) + first, bytes - first);
  queue->Head += bytes;
  ++queue->Pending;
  SemaphoreSignal(&queue->DataReady, 1);
  LockLeave(&queue->Lock);
  return true;
}

bool AsyncQueueRead(AsyncQueue* queue, void* message, uint32_t bytes, uint32_t milliseconds) {
  if (!SemaphoreWait(&queue->DataReady, milliseconds)) return false;
  LockEnter(&queue->Lock);
  bool taken = false;
  if (queue->Head - queue->Tail >= bytes) {
    const uint32_t at = queue->Tail % AsyncQueueBytes;
    const uint32_t first = bytes < AsyncQueueBytes - at ? bytes : AsyncQueueBytes - at;
    std::memcpy(message, queue->Ring + at, first);
    std::memcpy(static_cast<uint8_t*>(message) + first, queue->Ring, bytes - first);
    queue->Tail += bytes;
    --queue->Pending;
    taken = true;
    if (queue->SpaceSignalled == 0) {
      queue->SpaceSignalled = 1;
      SemaphoreSignal(&queue->SpaceReady, 1);
    }
  } else if (queue->Nudges) {
    --queue->Nudges;
  }
  LockLeave(&queue->Lock);
  return taken;
}

void AsyncQueueNudge(AsyncQueue* queue) {
  LockEnter(&queue->Lock);
  if (queue->Nudges < AsyncQueueMaxNudges) {
    ++queue->Nudges;
    SemaphoreSignal(&queue->DataReady, 1);
  }
  LockLeave(&queue->Lock);
}

uint32_t AsyncQueueFree(AsyncQueue* queue) {
  if (!AtomicRead(&queue->Made)) return 0;
  LockEnter(&queue->Lock);
  const uint32_t free = queue->Tail - queue->Head + AsyncQueueBytes;
  LockLeave(&queue->Lock);
  return free;
}

uint32_t AsyncQueueUsed(AsyncQueue* queue) {
  if (!AtomicRead(&queue->Made)) return 0;
  LockEnter(&queue->Lock);
  const uint32_t used = queue->Head - queue->Tail;
  LockLeave(&queue->Lock);
  return used;
}

// ---------------------------------------------------------------------------------------------
// Public calls

extern "C" {

uint32_t VelmoStartAsyncThread(uint32_t number) {
  if (const char* e = CheckNumber(number)) return Fail(e);
  AsyncWorker& w = Workers[number];
  uint32_t expected = WorkerNotStarted;
  if (!AtomicCompareExchange(&w.State, &expected, WorkerRunning)) return Fail(TextAlreadyLoaded);
  if (const char* e = MakeQueues(&w)) {
    AtomicStore(&w.State, WorkerNotStarted);
    return Fail(e);
  }
  // "VelmoAsy" and one byte: the number + '0' (past 9 that goes on into ':' and beyond).
  char name[10] = "VelmoAsy";
  name[8] = char('0' + number);
  w.Number = number;
  if (!ThreadStart(&w.Thread, WorkerMain, &w, WorkerStackBytes, PriorityNormal, 0, name)) {
    AtomicStore(&w.State, WorkerNotStarted);
    return Fail(TextThreadFailed);
  }
  return 1;
}

uint32_t VelmoRequestStopAsyncThread(uint32_t number) {
  if (const char* e = CheckNumber(number)) return Fail(e);
  AsyncWorker& w = Workers[number];
  uint32_t expected = WorkerRunning;
  if (!AtomicCompareExchange(&w.State, &expected, WorkerStopAsked)) {
    if (expected == WorkerStopAsked) return 1;  // already asked
    return Fail(TextNotStarted);
  }
  // Behind whatever is queued: earlier slices are still decoded and answered.
  SendWaiting(&w, 0);
  return 1;
}

uint32_t VelmoWaitStopAsyncThread(uint32_t number) {
  if (const char* e = CheckNumber(number)) return Fail(e);
  AsyncWorker& w = Workers[number];
  if (StateOf(number) == WorkerNotStarted) return Fail(TextNotStarted);
  if (StateOf(number) == WorkerRunning && !VelmoRequestStopAsyncThread(number)) return 0;
  ThreadJoin(&w.Thread);
  // The queues stay: answers still in them can be collected, and a restart uses them again.
  AtomicStore(&w.State, WorkerNotStarted);
  return 1;
}

uint32_t VelmoAsyncQueueFree(uint32_t number) {
  if (const char* e = CheckNumber(number)) return Fail(e);
  return AsyncQueueFree(&Workers[number].ToWorker);
}

uint32_t VelmoDoFrameAsync(HVELMO handle, const uint32_t* threadNumbers, uint32_t count) {
  if (!handle || !threadNumbers || count == 0) return 0;
  VelmoState* h = VelmoStateOf(handle);
  uint32_t numbers[WorkerCount];
  if (count > WorkerCount) count = WorkerCount;
  for (uint32_t i = 0; i < count; ++i) {
    numbers[i] = threadNumbers[i];
    if (const char* e = CheckNumber(numbers[i])) return Fail(e);
    if (StateOf(numbers[i]) != WorkerRunning) return Fail(TextNotStarted);
  }
  // Checked before the start step, which must not touch a frame whose slices still run.
  for (uint32_t s = 0; s < SlotCount; ++s)
    if (AtomicRead(&h->AsyncSlots[s])) return Fail(TextInProgress);
  if (!VelmoStartFrame(handle, h->Clock())) return 0;

  SortByFreeSpace(numbers, count);
  uint32_t given = 0;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t share = VelmoTakeShare(h, count);
    if (share == 0 || AtomicRead(&h->AsyncSlots[share & 0xF])) break;
    if (!GiveShare(h, numbers[i], share)) break;
    ++given;
  }
  CopyError();
  return given ? 1 : 0;
}

uint32_t VelmoDoFrameAsyncWait(HVELMO handle, int32_t microseconds) {
  if (!handle) return 1;
  VelmoState* h = VelmoStateOf(handle);
  bool inUse = false;
  for (uint32_t s = 0; s < SlotCount; ++s) inUse = inUse || AtomicRead(&h->AsyncSlots[s]) != 0;
  if (!inUse) return 1;

  // Real time, whatever clock the handle keeps for its frames.
  const uint32_t start = microseconds > 0 ? TimerMs() : 0;
  const uint32_t limit = microseconds > 0 ? uint32_t(microseconds / 1000) : 0;
  uint32_t wait = LimitMs(microseconds);
  for (;;) {
    for (uint32_t s = 0; s < SlotCount; ++s) {
      const uint32_t slot = AtomicRead(&h->AsyncSlots[s]);
      if (slot & SlotUncollected) Collect(slot & 0xFF, wait, h);
    }
    CopyError();
    if (!AnyUncollected(h)) {
      for (uint32_t s = 0; s < SlotCount; ++s) AtomicStore(&h->AsyncSlots[s], 0);
      VelmoEndFrame(handle, h->Clock());
      return 1;
    }
    if (microseconds == 0) return 0;
    if (microseconds > 0) {
      const uint32_t spent = TimerMs() - start;
      if (spent >= limit) return 0;
      wait = limit - spent;
    }
  }
}

}  // extern "C"
