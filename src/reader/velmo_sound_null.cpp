// The null sound back end: a simulated device with a buffer, a playing rate and a clock.
#include "reader/velmo_sound_null.h"

#include "host/platform.h"
#include "reader/velmo_handle.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <mutex>
#include <new>

namespace {

// The device's state, kept in the track record's back-end area.
struct NullDevice {
  VelmoNullSoundConfig* Config;
  VelmoNullSoundLog* Log;
  VelmoState* Handle;
  uint8_t* Buffer;          // where Lock lets the library write
  uint32_t Capacity;        // bytes the device holds
  uint32_t Held;            // bytes waiting to be played
  uint32_t BytesPerSecond;  // at nominal speed
  uint32_t LastTime;
  uint64_t Carry;           // the part of a byte that elapsed time has played, in 1/(1000 << 16)
  uint32_t Playing;         // fed since it was switched on or last ran dry
};
static_assert(sizeof(NullDevice) <= sizeof(VelmoTrack::BackEndArea));

VelmoNullSoundConfig* Selected = nullptr;

// The devices open now, for the tick of a device that serves itself. Changed by open and close
// and read by the tick, all of them under the library's sound service lock.
constexpr uint32_t MaxOpenDevices = 64;
VelmoTrack* OpenDevices[MaxOpenDevices] = {};

// A device that serves itself is played on by its tick on the sound thread while the program's
// own calls (pause, switching off, closing) reach it from theirs: every entry that moves a
// device's state takes this lock.
std::mutex DeviceLock;

NullDevice* DeviceOf(VelmoTrack* t) { return reinterpret_cast<NullDevice*>(t->BackEndArea); }

uint32_t Now(const NullDevice* d) { return d->Config->Clock ? d->Config->Clock() : TimerMs(); }

void Play(VelmoTrack* t, NullDevice* d) {
  const uint32_t now = Now(d);
  const uint32_t elapsed = now - d->LastTime;
  d->LastTime = now;
  if (!d->Log->State || d->Log->Paused || !d->Playing) {
    d->Carry = 0;
    return;
  }
  const uint64_t units = uint64_t(elapsed) * d->BytesPerSecond * d->Config->RateScale + d->Carry;
  const uint64_t unit = uint64_t(1000) << 16;
  const uint64_t bytes = units / unit;
  d->Carry = units % unit;
  if (bytes > d->Held) {
    // Dry: what was there is played, then the device waits to be fed again.
    d->Log->Played += d->Held;
    d->Held = 0;
    d->Playing = 0;
    d->Carry = 0;
    ++d->Log->Underruns;
    std::atomic_ref<uint32_t>(t->Underrun).store(1);
  } else {
    d->Held -= uint32_t(bytes);
    d->Log->Played += bytes;
  }
}

uint32_t Room(const NullDevice* d) { return d->Capacity - d->Held; }

uint32_t NullReady(VelmoTrack* t) {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  NullDevice* d = DeviceOf(t);
  Play(t, d);
  return d->Log->State && !d->Log->Paused && Room(d) >= std::max(t->DeviceBlock, 4u);
}

uint32_t NullLock(VelmoTrack* t, void** address, uint32_t* bytes) {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  NullDevice* d = DeviceOf(t);
  Play(t, d);
  if (!d->Log->State || Room(d) == 0) return 0;
  *address = d->Buffer;
  *bytes = Room(d);
  return 1;
}

void NullUnlock(VelmoTrack* t, uint32_t bytes) {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  NullDevice* d = DeviceOf(t);
  VelmoNullSoundLog* log = d->Log;
  bytes = std::min(bytes, Room(d));
  if (bytes == 0) return;
  uint64_t sum = log->Received ? log->Checksum : 0xcbf29ce484222325ull;
  for (uint32_t i = 0; i < bytes; ++i) sum = (sum ^ d->Buffer[i]) * 0x100000001b3ull;
  log->Checksum = sum;
  if (log->Capture && log->CaptureUsed < log->CaptureSize) {
    const uint32_t part = std::min(bytes, log->CaptureSize - log->CaptureUsed);
    std::memcpy(log->Capture + log->CaptureUsed, d->Buffer, part);
    log->CaptureUsed += part;
  }
  log->Received += bytes;
  ++log->Unlocks;
  if (t->DeviceBlock && bytes % t->DeviceBlock) {
    ++log->ShortUnlocks;
    if (AtomicRead(&d->Handle->FeedFrame) <= t->EndFrame) ++log->ShortEarly;
  }
  d->Held += bytes;
  if (!d->Playing) {
    d->Playing = 1;
    d->LastTime = Now(d);
    d->Carry = 0;
  }
}

void NullSetVolume(VelmoTrack* t, uint32_t volume) { DeviceOf(t)->Log->Volume = volume; }
void NullSetPan(VelmoTrack* t, uint32_t pan) { DeviceOf(t)->Log->Pan = pan; }

uint32_t NullPause(VelmoTrack* t, uint32_t pause) {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  NullDevice* d = DeviceOf(t);
  Play(t, d);
  d->Log->Paused = pause ? 1 : 0;
  ++d->Log->Pauses;
  return d->Log->Paused;
}

uint32_t NullOnOff(VelmoTrack* t, uint32_t on) {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  NullDevice* d = DeviceOf(t);
  Play(t, d);
  ++d->Log->OnOffCalls;
  d->Log->State = on ? 1 : 0;
  if (!on) {  // a device switched off forgets what it held
    d->Held = 0;
    d->Playing = 0;
  }
  return d->Log->State;
}

void NullClose(VelmoTrack* t) {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  for (VelmoTrack*& open : OpenDevices)
    if (open == t) open = nullptr;
  NullDevice* d = DeviceOf(t);
  delete[] d->Buffer;
  d->Buffer = nullptr;
  ++d->Log->Closed;
}

void NullSetMix(VelmoTrack* t, const float* volumes, uint32_t count, uint32_t stereo,
                float volume) {
  VelmoNullSoundLog* log = DeviceOf(t)->Log;
  std::memcpy(log->Mix, volumes, sizeof log->Mix);
  log->MixCount = count;
  log->MixStereo = stereo;
  log->MixVolume = volume;
}

// Service mode below 0: the device's own service. It plays each open device on to its clock's
// present; it is fed by nobody (a device like this would fetch its sound itself).
void NullTick() {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  for (VelmoTrack* t : OpenDevices) {
    if (!t) continue;
    NullDevice* d = DeviceOf(t);
    Play(t, d);
    AtomicAdd(&d->Config->Ticks, 1);
  }
}

uint32_t NullOpen(VelmoTrack* t, uint32_t rate, uint32_t channels, uint32_t, HVELMO handle) {
  VelmoNullSoundConfig* c = Selected;
  if (!c || c->RefuseOpen || !handle || c->RateScale == 0) return 0;
  const uint32_t slot = std::min(c->TracksOpened, VelmoNullSoundMaxLogs - 1);
  NullDevice* d = DeviceOf(t);
  std::memset(static_cast<void*>(d), 0, sizeof *d);
  d->Config = c;
  d->Log = &c->Logs[slot];
  d->Handle = VelmoStateOf(handle);
  d->BytesPerSecond = rate * channels * 2;
  const uint64_t latencyBytes = (uint64_t(c->Latency) * d->BytesPerSecond / 1000) & ~uint64_t(3);
  d->Capacity = uint32_t(std::min<uint64_t>(
      std::max<uint64_t>({latencyBytes, uint64_t(c->DeviceBlock) * 2, 64}), 1u << 26));
  d->Buffer = new (std::nothrow) uint8_t[d->Capacity];
  if (!d->Buffer) return 0;
  // Only a device that serves itself is ticked; the others are played on by their own calls.
  const std::lock_guard<std::mutex> hold(DeviceLock);
  for (VelmoTrack*& open : OpenDevices) {
    if (c->ServiceMode >= 0 || open) continue;
    open = t;
    break;
  }
  d->LastTime = Now(d);
  if (c->TracksOpened < VelmoNullSoundMaxLogs) ++c->TracksOpened;
  ++d->Log->Opened;
  d->Log->State = 1;
  t->DeviceBlock = c->DeviceBlock;
  t->BlockMask = c->BlockMask;
  t->Latency = c->Latency;
  t->ServiceMode = c->ServiceMode;
  t->ClockScale =
      c->ReportScale ? uint32_t(std::min<uint64_t>((uint64_t(1) << 32) / c->RateScale, 0xFFFFFFFFu))
                     : 0x10000;
  t->Ops = VelmoTrackOps{NullReady, NullLock,  NullUnlock, NullSetVolume, NullSetPan,
                         NullPause, NullOnOff, NullClose,  NullSetMix, NullTick};
  return 1;
}

}  // namespace

VelmoOpenBackEnd VelmoNullSoundSelect(uintptr_t parameter) {
  Selected = reinterpret_cast<VelmoNullSoundConfig*>(parameter);
  return Selected ? NullOpen : nullptr;
}

void VelmoNullSoundAdvance(VelmoTrack* track) {
  const std::lock_guard<std::mutex> hold(DeviceLock);
  if (track) Play(track, DeviceOf(track));
}
