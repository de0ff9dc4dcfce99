// The read-ahead service: one process-wide thread, "Velmo IO", serves all open handles. It does
// the pending frame reads first, then keeps the rings full, staying with the handle it serves
// until another one is clearly emptier.
//
// Locks. The thread holds the list lock for a whole round, and only tries the locks of a handle
// (frame read lock with a wait of 1 ms, provider lock not at all), so it never blocks inside a
// handle. A handle leaves the list only while its closer holds both the list lock and its
// provider lock; the closer goes back and forth between the two, never waiting for one while it
// holds the other. Starting and stopping the thread is serialised by a lock of its own, taken
// before either.
#include "reader/velmo_io_internal.h"

#include <algorithm>
#include <cstdlib>
#include <mutex>

namespace {

constexpr uint32_t WakeLimit = 16384;
constexpr size_t ThreadStack = 32768;
constexpr uint32_t NotReadable = 129;

struct ReaderService {
  PlatformLock Control;       // start and stop of the thread
  ServiceThread Worker;       // the thread, its semaphore and run flags
  VelmoIOReaderList List;     // under VelmoListLock()
  uint32_t Users;             // handles on the list
  volatile uint32_t Waiters;  // opens and closes waiting for the locks
};

ReaderService Service;

// Marks an open or close that waits for the service's locks, for as long as it lives.
struct WaitingForService {
  WaitingForService() { AtomicAdd(&Service.Waiters, 1); }
  ~WaitingForService() { AtomicAdd(&Service.Waiters, -1); }
};
std::once_flag ServiceMade;

PlatformLock* ControlLock() {
  std::call_once(ServiceMade, [] {
    if (!LockCreate(&Service.Control, LockModePlain)) std::abort();
  });
  return &Service.Control;
}

// ---------------------------------------------------------------------------------------------
// A handle seen from the thread

bool ServedInBackground(const VelmoState* h) {
  return AtomicRead(&h->OnReaderList) && !(AtomicRead(&h->OpenFlags) & VelmoOpenNoBackground) &&
         !h->PreloadData && !AtomicRead(&h->Closing);
}

bool FrameReadPending(const VelmoState* h) {
  return AtomicRead(&h->FrameReadPending) != 0 && ServedInBackground(h);
}

// The pending packet read, with both locks of the handle held; as on the caller's thread.
void ReadPendingPacket(VelmoState* h) {
  IOProvider* io = &h->IOProvider;
  const uint64_t position =
      h->FramePosition == h->NextReadPosition ? VELMO_IO_CONTINUE : h->FramePosition;
  const uint64_t got =
      h->FrameSize ? io->ReadFrame(io, h->PendingFrame, position, h->FrameData, h->FrameSize) : 0;
  if (got != h->FrameSize || io->ReadError) h->ReadError = io->ReadError ? io->ReadError : 1;
  h->NextReadPosition = h->FramePosition + h->FrameSize;
  AtomicStore(&h->FrameReadPending, 0);
}

// Does the handle's pending frame read if both of its locks can be had. True if it read.
bool TryPendingRead(VelmoHandle* handle) {
  VelmoState* h = VelmoStateOf(handle);
  if (!FrameReadPending(h)) return false;
  if (!LockTry(&h->FrameReadLock, 1)) return false;
  bool done = false;
  if (LockTry(&h->ProviderLock, 0)) {
    if (FrameReadPending(h)) {
      ReadPendingPacket(h);
      done = true;
    }
    LockLeave(&h->ProviderLock);
  }
  LockLeave(&h->FrameReadLock);
  return done;
}

// One background step of reading ahead. True if bytes came in.
bool ReadAhead(VelmoHandle* handle) {
  VelmoState* h = VelmoStateOf(handle);
  IOProvider* io = &h->IOProvider;
  if (!ServedInBackground(h) || !io->Idle) return false;
  const uint32_t got = io->Idle(io);
  return got != 0 && got != VELMO_IO_BUSY;
}

uint32_t FullnessOf(const VelmoHandle* handle) {
  const VelmoState* h = VelmoStateOf(const_cast<VelmoHandle*>(handle));
  return ServedInBackground(h) ? VelmoIOFullness(&h->IOProvider) : NotReadable;
}

// Step 4 of a round: where to read ahead when no frame read is pending.
bool ChooseAndReadAhead(VelmoIOReaderList* list) {
  VelmoHandle* current = list->Current;
  VelmoHandle* emptiest = nullptr;
  uint32_t lowest = NotReadable;
  for (VelmoHandle* h = list->First; h; h = h->NextOpen) {
    if (h == current || !ServedInBackground(VelmoStateOf(h))) continue;
    const uint32_t f = FullnessOf(h);
    if (f < lowest) {
      lowest = f;
      emptiest = h;
    }
  }
  if (!emptiest) return false;
  if (current && VelmoIOStayWithCurrent(FullnessOf(current), lowest)) return false;
  list->Current = emptiest;
  return ReadAhead(emptiest);
}

// ---------------------------------------------------------------------------------------------
// The thread

uint32_t ReaderThread(void*) {
  for (;;) {
    SemaphoreWait(&Service.Worker.Wake, WaitForever);
    if (!AtomicRead(&Service.Worker.Run)) return 0;
    for (;;) {
      bool read = false;
      LockEnter(VelmoListLock());
      const uint32_t pending = VelmoIORound(&Service.List, &read);
      LockLeave(VelmoListLock());
      if (!AtomicRead(&Service.Worker.Run)) return 0;
      if (!read && pending == 0) break;
      // A pending read whose locks are taken: give its owner a moment.
      if (!read) ThreadSleep(1);
    }
  }
}

bool StartThread() {
  return ServiceThreadStart(&Service.Worker, ReaderThread, WakeLimit, ThreadStack,
                            PriorityAboveNormal, "Velmo IO");
}

void StopThread() { ServiceThreadStop(&Service.Worker); }

// Takes the list lock and the handle's provider lock, back and forth, never waiting for one
// while holding the other.
void EnterListAndProvider(VelmoState* h) {
  PlatformLock* list = VelmoListLock();
  LockEnter(list);
  while (!LockTry(&h->ProviderLock, 0)) {
    LockLeave(list);
    LockEnter(&h->ProviderLock);
    if (LockTry(list, 0)) return;
    LockLeave(&h->ProviderLock);
    LockEnter(list);
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------

const VelmoIOService VelmoFileIOService = {VelmoFileProviderOpen, VelmoIORegister,
                                           VelmoIOUnregister, VelmoIOWake};

uint32_t VelmoIOFullness(const IOProvider* io) {
  if (io->BufferSize == 0 || AtomicRead(&io->ReadError) || AtomicRead(&io->Suspended))
    return NotReadable;
  const uint64_t room = __atomic_load_n(&io->BufferFree, __ATOMIC_SEQ_CST);
  if (room == 0) return 128;
  const uint64_t used = AtomicRead64(&io->BufferUsed);
  return uint32_t(std::min<uint64_t>(used * 128 / room, 128));
}

bool VelmoIOStayWithCurrent(uint32_t current, uint32_t lowestOther) {
  return (current < 103 || lowestOther >= 25) && (current < 122 || lowestOther >= 64) &&
         lowestOther >= 12;
}

uint32_t VelmoIORound(VelmoIOReaderList* list, bool* didRead) {
  bool read = false;
  // Frame pass: the handle served now, then every handle; one that read becomes the current.
  if (list->Current && TryPendingRead(list->Current)) read = true;
  uint32_t pending = 0;
  for (VelmoHandle* h = list->First; h; h = h->NextOpen) {
    if (TryPendingRead(h)) {
      read = true;
      list->Current = h;
    }
    if (FrameReadPending(VelmoStateOf(h))) ++pending;
  }
  VelmoHandle* current = list->Current;
  if (!read && current && !FrameReadPending(VelmoStateOf(current)) && ReadAhead(current))
    read = true;
  if (pending == 0 && ChooseAndReadAhead(list)) read = true;
  *didRead = read;
  return pending;
}

bool VelmoIOServiceWanted() { return AtomicRead(&Service.Waiters) != 0; }

bool VelmoIORegister(VelmoState* h) {
  if (!h) return false;
  const WaitingForService waiting;
  PlatformLock* control = ControlLock();
  LockEnter(control);
  if (!AtomicRead(&Service.Worker.Running) && !StartThread()) {
    LockLeave(control);
    return false;
  }
  LockEnter(VelmoListLock());
  h->NextOpen = Service.List.First;
  Service.List.First = h;
  ++Service.Users;
  LockLeave(VelmoListLock());
  LockLeave(control);
  return true;
}

void VelmoIOUnregister(VelmoState* h) {
  if (!h) return;
  const WaitingForService waiting;
  PlatformLock* control = ControlLock();
  LockEnter(control);
  EnterListAndProvider(h);
  bool found = false;
  for (VelmoHandle** link = &Service.List.First; *link; link = &(*link)->NextOpen) {
    if (*link == h) {
      *link = h->NextOpen;
      found = true;
      break;
    }
  }
  if (Service.List.Current == h) Service.List.Current = nullptr;
  h->NextOpen = nullptr;
  if (found) --Service.Users;
  const bool stop = found && Service.Users == 0 && !(h->OpenFlags & VelmoOpenKeepThreads);
  LockLeave(&h->ProviderLock);
  LockLeave(VelmoListLock());
  if (stop && AtomicRead(&Service.Worker.Running)) StopThread();
  LockLeave(control);
}

void VelmoIOWake(uint32_t count) {
  if (count && AtomicRead(&Service.Worker.Running))
    SemaphoreSignal(&Service.Worker.Wake, count);
}

bool VelmoIOThreadRunning() { return AtomicRead(&Service.Worker.Running) != 0; }

uint32_t VelmoIOUserCount() {
  LockEnter(VelmoListLock());
  const uint32_t users = Service.Users;
  LockLeave(VelmoListLock());
  return users;
}

uint32_t VelmoIOThreadStarts() { return AtomicRead(&Service.Worker.Starts); }

void VelmoIOStopUnused() {
  PlatformLock* control = ControlLock();
  LockEnter(control);
  LockEnter(VelmoListLock());
  const bool unused = Service.Users == 0;
  LockLeave(VelmoListLock());
  if (unused && AtomicRead(&Service.Worker.Running)) StopThread();
  LockLeave(control);
}
