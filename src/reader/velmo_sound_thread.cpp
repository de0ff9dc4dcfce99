// The sound service: the registered back end, the list of handles open for sound, and the
// process-wide "Velmo Snd" thread that feeds their tracks every 13 ms (2 ms after it met a
// busy handle), or the host's VelmoSoundTick for back ends that want to be fed from outside.
// A back end that asks for a negative service mode serves its devices itself: the walk does
// not feed its tracks but calls its Tick once afterwards, under the sound service lock.
//
// Locks. The thread walks the list under the list lock and only tries a handle's sound lock;
// it lets the list lock go while it feeds, and takes it back with a try only, beginning the
// walk anew when that fails or the handle has left the list meanwhile. A closer takes the
// handle off the list under the list lock and then waits for the handle's sound lock, so the
// thread has let go of the handle when the closer goes on. Starting and stopping the thread is
// serialised by a lock of its own, taken before the list lock.
#include "reader/velmo_sound.h"

#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <mutex>

namespace {

constexpr uint32_t DefaultSleepMs = 13;
constexpr uint32_t BusySleepMs = 2;
constexpr size_t ThreadStack = 32768;
constexpr uint32_t WakeLimit = 64;
constexpr uint32_t WalkRestarts = 8;

struct SoundService {
  PlatformLock ListLock;       // the list of handles open for sound
  PlatformLock Control;        // start and stop of the thread
  ServiceThread Worker{};       // the thread, its semaphore and run flags
  VelmoState* First = nullptr;  // under ListLock
  uint32_t ThreadUsers = 0;     // handles fed by the thread; changed under Control and ListLock
  volatile uint32_t Tracks = 0; // tracks open in the process
  volatile uint32_t SleepMs = DefaultSleepMs;
  std::atomic<VelmoOpenBackEnd> OpenBackEnd{nullptr};
  uintptr_t Select = 0;         // the select function the back end came from
};

SoundService Service;
std::once_flag ServiceMade;

void EnsureService() {
  std::call_once(ServiceMade, [] {
    if (!LockCreate(&Service.ListLock, LockModeTry) || !LockCreate(&Service.Control, LockModePlain))
      std::abort();  // the library cannot run without its locks
  });
}

// Serves one handle whose lock the walk holds: feeds its tracks, or for a back end that serves
// itself notes its tick in `tick`.
void Serve(VelmoState* h, void (**tick)(void)) {
  const VelmoTrack& first = h->Tracks[0];
  if (first.ServiceMode < 0) {
    if (first.Ops.Tick) *tick = first.Ops.Tick;
  } else {
    VelmoFeedSound(h);
  }
}

// Calls a back end's own tick under the sound service lock, which its open and close take, so
// the tick never meets a device in the middle of either. A busy lock shortens the next sleep.
void CallTick(void (*tick)(void), uint32_t* sleep) {
  if (!tick) return;
  if (!LockTry(VelmoSoundServiceLock(), 0)) {
    *sleep = std::min(*sleep, BusySleepMs);
    return;
  }
  tick();
  LockLeave(VelmoSoundServiceLock());
}

// One walk over the handles: each that is open for sound and whose lock is free is served.
// `sleep` receives the time the thread should sleep next.
void WalkHandles(uint32_t* sleep, void (**tick)(void)) {
  for (uint32_t pass = 0; pass < WalkRestarts; ++pass) {
    bool again = false;
    LockEnter(&Service.ListLock);
    for (VelmoState* h = Service.First; h;) {
      if (AtomicRead(&h->Closing) || h->OpenTracks == 0 || h->SoundService == 1) {
        h = h->NextSound;
        continue;
      }
      if (!LockTry(&h->SoundLock, 0)) {
        *sleep = std::min(*sleep, BusySleepMs);
        h = h->NextSound;
        continue;
      }
      LockLeave(&Service.ListLock);
      Serve(h, tick);
      *sleep = std::min(*sleep, h->SoundSleep);
      const bool back = LockTry(&Service.ListLock, 0);
      const bool listed = back && AtomicRead(&h->OnSoundList);
      VelmoState* next = listed ? h->NextSound : nullptr;
      LockLeave(&h->SoundLock);
      if (!listed) {
        if (back) LockLeave(&Service.ListLock);
        again = true;
        break;
      }
      h = next;
    }
    if (!again) {
      LockLeave(&Service.ListLock);
      return;
    }
  }
}

// A walk, then the tick that a back end serving itself asked for.
void ServeAll(uint32_t* sleep) {
  void (*tick)(void) = nullptr;
  WalkHandles(sleep, &tick);
  CallTick(tick, sleep);
}

uint32_t SoundThread(void*) {
  for (;;) {
    SemaphoreWait(&Service.Worker.Wake, AtomicRead(&Service.SleepMs));
    if (!AtomicRead(&Service.Worker.Run)) return 0;
    uint32_t sleep = DefaultSleepMs;
    ServeAll(&sleep);
    AtomicStore(&Service.SleepMs, sleep);
  }
}

bool StartThread() {
  return ServiceThreadStart(&Service.Worker, SoundThread, WakeLimit, ThreadStack, PriorityHighest,
                            "Velmo Snd");
}

void StopThread() { ServiceThreadStop(&Service.Worker); }

// Puts the handle on the list; the caller holds Control.
void AddToList(VelmoState* h, bool thread) {
  LockEnter(&Service.ListLock);
  const bool wasEmpty = Service.First == nullptr;
  h->NextSound = Service.First;
  Service.First = h;
  AtomicStore(&h->OnSoundList, 1);
  if (thread) {
    ++Service.ThreadUsers;
    if (wasEmpty) AtomicStore(&Service.SleepMs, DefaultSleepMs);
    if (h->SoundSleep < AtomicRead(&Service.SleepMs)) AtomicStore(&Service.SleepMs, h->SoundSleep);
  }
  LockLeave(&Service.ListLock);
}

uint32_t Register(uintptr_t select, VelmoOpenBackEnd (*choose)(uintptr_t, uintptr_t, uintptr_t),
                  uintptr_t a, uintptr_t b) {
  EnsureService();
  LockEnter(VelmoSoundServiceLock());
  const bool tracksOpen = AtomicRead(&Service.Tracks) != 0;
  if (tracksOpen && select != Service.Select) {
    LockLeave(VelmoSoundServiceLock());
    return 0;
  }
  const VelmoOpenBackEnd open = select ? choose(select, a, b) : nullptr;
  if (tracksOpen && open != Service.OpenBackEnd.load()) {
    LockLeave(VelmoSoundServiceLock());
    return 0;
  }
  Service.Select = select;
  Service.OpenBackEnd.store(open);
  LockLeave(VelmoSoundServiceLock());
  return open ? 1 : 0;
}

VelmoOpenBackEnd CallSelect1(uintptr_t select, uintptr_t a, uintptr_t) {
  return reinterpret_cast<VelmoSoundSelect>(select)(a);
}
VelmoOpenBackEnd CallSelect2(uintptr_t select, uintptr_t a, uintptr_t b) {
  return reinterpret_cast<VelmoSoundSelect2>(select)(a, b);
}

}  // namespace

// ---------------------------------------------------------------------------------------------

VelmoOpenBackEnd VelmoSoundBackEnd() { return Service.OpenBackEnd.load(); }

void VelmoSoundServiceAdd(VelmoState* h, uint32_t tracks) {
  EnsureService();
  AtomicAdd(&Service.Tracks, int32_t(tracks));
  const int32_t mode = h->Tracks[0].ServiceMode;
  h->SoundService = 1;
  h->SoundSleep = DefaultSleepMs;
  if (mode == 1 || mode > 2) return;  // the frame walk feeds
  LockEnter(&Service.Control);
  if (mode == 2) {
    h->SoundService = 2;
    AddToList(h, false);
  } else if (AtomicRead(&Service.Worker.Running) || StartThread()) {
    h->SoundService = 0;
    if (mode < 0)
      h->SoundSleep = uint32_t(std::min<int64_t>(-int64_t(mode), DefaultSleepMs));
    AddToList(h, true);
  } else {
    h->Tracks[0].ServiceMode = 1;  // no thread to be had: the frame walk feeds
  }
  LockLeave(&Service.Control);
}

void VelmoSoundUnregister(VelmoState* h) {
  if (!AtomicRead(&h->OnSoundList)) return;
  LockEnter(&Service.Control);
  LockEnter(&Service.ListLock);
  for (VelmoState** link = &Service.First; *link; link = &(*link)->NextSound) {
    if (*link == h) {
      *link = h->NextSound;
      break;
    }
  }
  h->NextSound = nullptr;
  AtomicStore(&h->OnSoundList, 0);
  if (h->SoundService == 0 && Service.ThreadUsers) --Service.ThreadUsers;
  LockLeave(&Service.ListLock);
  LockLeave(&Service.Control);
  // The thread or a tick may be feeding the handle right now: wait until it has let go.
  LockEnter(&h->SoundLock);
  LockLeave(&h->SoundLock);
}

void VelmoSoundServiceRemove(VelmoState* h, uint32_t tracks) {
  if (tracks == 0) return;
  AtomicAdd(&Service.Tracks, -int32_t(tracks));
  if (h->SoundService != 0 || (h->OpenFlags & VelmoOpenKeepThreads)) return;
  LockEnter(&Service.Control);
  if (Service.ThreadUsers == 0 && AtomicRead(&Service.Worker.Running)) StopThread();
  LockLeave(&Service.Control);
}

void VelmoSoundWake(VelmoState* h) {
  if (h->SoundService == 0 && AtomicRead(&h->OnSoundList) && AtomicRead(&Service.Worker.Running))
    SemaphoreSignal(&Service.Worker.Wake, 1);
}

bool VelmoSoundThreadRunning() { return AtomicRead(&Service.Worker.Running) != 0; }
uint32_t VelmoSoundThreadStarts() { return AtomicRead(&Service.Worker.Starts); }

extern "C" {

uint32_t VelmoSetSoundSystem(VelmoSoundSelect select, uintptr_t parameter) {
  return Register(reinterpret_cast<uintptr_t>(select), CallSelect1, parameter, 0);
}

uint32_t VelmoSetSoundSystem2(VelmoSoundSelect2 select, uintptr_t parameter,
                              uintptr_t parameter2) {
  return Register(reinterpret_cast<uintptr_t>(select), CallSelect2, parameter, parameter2);
}

void VelmoSoundTick(void) {
  EnsureService();
  uint32_t sleep = DefaultSleepMs;
  ServeAll(&sleep);
}

}  // extern "C"
