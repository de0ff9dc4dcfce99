// Sound tracks of an open file: the back end registration, opening the asked tracks with their
// rings, decoding each frame's packets into the rings, feeding the back ends from the rings,
// switching sound on and off with the ring alignment, speaker volumes, and closing.
//
// The ring between decoder and device has two owners: the frame thread moves RingWrite, the
// feeder moves RingRead; each reads the other's pointer atomically. The feeder runs on the
// "Velmo Snd" thread (velmo_sound_thread.cpp), on the host's tick, or on the frame thread, and
// always with the handle's sound lock, which the frame thread also holds while it switches
// sound on or off, seeks, or pauses.
#include "reader/velmo_sound.h"

#include "format/container.h"

#include <algorithm>
#include <atomic>
#include <cstring>
#include <new>

namespace {

constexpr uint32_t RecordBytes = 448;
static_assert(sizeof(VelmoTrack) == RecordBytes, "the track record is 448 bytes");
constexpr uint32_t MaxOutputRate = 256000;
constexpr uint32_t PrefillMs = 750;
constexpr uint32_t FeedRounds = 256;  // a back end that always takes 0 bytes cannot hold us

uint8_t* LoadPointer(uint8_t* const& field) {
  return std::atomic_ref<uint8_t* const>(field).load(std::memory_order_acquire);
}
void StorePointer(uint8_t*& field, uint8_t* value) {
  std::atomic_ref<uint8_t*>(field).store(value, std::memory_order_release);
}

uint32_t RingHeld(const VelmoTrack* t, const uint8_t* read, const uint8_t* write) {
  const int64_t d = write - read;
  return uint32_t(d < 0 ? d + t->RingSize : d);
}

uint8_t* RingStep(const VelmoTrack* t, uint8_t* at, int64_t bytes) {
  int64_t offset = ((at - t->RingStart) + bytes) % int64_t(t->RingSize);
  if (offset < 0) offset += t->RingSize;
  return t->RingStart + offset;
}

// The handle's sound lock is needed unless the frame walk feeds the tracks itself.
bool UsesLock(const VelmoState* h) { return h->SoundService != 1; }

// Aligning after an on: the ring is made to hold Prefill bytes, with silence in front when it
// holds less, dropping the oldest sound when it holds more. RingRead moves in whole 64-byte
// steps, so what the ring held beyond a multiple of 64 stays on top of Prefill.
void AlignRing(VelmoTrack* t) {
  uint8_t* read = t->RingRead;
  const uint32_t held = RingHeld(t, read, t->RingWrite) & ~63u;
  if (held < t->Prefill) {
    // Never so far back that the ring would seem full or pass RingWrite.
    const uint32_t all = RingHeld(t, read, t->RingWrite);
    uint32_t back = std::min(t->Prefill - held, t->RingSize - 16 - std::min(all, t->RingSize - 16));
    uint8_t* start = RingStep(t, read, -int64_t(back));
    uint8_t* at = start;
    while (back) {
      const uint32_t part = std::min<uint32_t>(back, uint32_t(t->RingEnd - at));
      std::memset(at, 0, part);
      back -= part;
      at = at + part == t->RingEnd ? t->RingStart : at + part;
    }
    StorePointer(t->RingRead, start);
  } else if (held > t->Prefill) {
    StorePointer(t->RingRead, RingStep(t, read, held - t->Prefill));
  }
}

// Feeds one track while its device is ready. `nearEnd`: less than 3/4 s of the file is left.
void FeedTrack(VelmoTrack* t, uint32_t frame) {
  const bool beforeEnd = frame <= t->EndFrame;
  for (uint32_t round = 0; round < FeedRounds && t->Ops.Ready(t); ++round) {
    uint8_t* read = t->RingRead;
    const uint32_t held = RingHeld(t, read, LoadPointer(t->RingWrite));
    // Near the end the last bytes go out even when they fill less than one device block.
    if (held <= t->DeviceBlock && (beforeEnd || held == 0)) break;
    void* address = nullptr;
    uint32_t given = 0;
    if (!t->Ops.Lock(t, &address, &given) || !address) break;
    uint32_t amount = std::min(held, given);
    if (beforeEnd) amount &= t->BlockMask;
    uint8_t* dest = static_cast<uint8_t*>(address);
    const uint32_t first = std::min<uint32_t>(amount, uint32_t(t->RingEnd - read));
    std::memcpy(dest, read, first);
    if (amount > first) std::memcpy(dest + first, t->RingStart, amount - first);
    StorePointer(t->RingRead, RingStep(t, read, amount));
    if (t->Ops.Unlock) t->Ops.Unlock(t, amount);
    if (amount == 0) break;
  }
}

// Step 2 of opening a track: everything a kept track needs. False drops it.
// The ring of a track: 5/4 of the most one frame decodes to, in whole 256-byte steps. A ring
// longer than four bytes a sample of one second (a track that cannot be played from it) gets
// no memory: the track is dropped.
uint32_t RingBytesOf(const VelmoState* h, uint32_t index) {
  const uint32_t format = h->TrackFormats[index];
  const uint64_t rate = format & VelmoTrackRateMask;
  const uint64_t channels = (format & VelmoTrackStereo) ? 2 : 1;
  const uint64_t ring = (uint64_t(h->TrackMaxBytes[index]) * 5 / 4 + 255) & ~uint64_t(255);
  return ring <= 4 * rate * channels ? uint32_t(ring) : 0;
}

uint32_t DecoderBytesOf(const VelmoState* h, uint32_t index) {
  const uint32_t format = h->TrackFormats[index];
  const uint32_t channels = (format & VelmoTrackStereo) ? 2 : 1;
  return (VelmoSoundDecoderBytes(format & VelmoTrackRateMask, channels) + 63) & ~63u;
}

bool OpenOneTrack(VelmoState* h, VelmoTrack* t, uint32_t index, uint8_t* memory,
                  uint32_t decoderBytes, uint32_t ringBytes) {
  const uint32_t format = h->TrackFormats[index];
  const VelmoOpenBackEnd open = VelmoSoundBackEnd();
  if (!VelmoTrackUsable(format) || !open) return false;
  const uint32_t rate = format & VelmoTrackRateMask;
  const uint32_t channels = (format & VelmoTrackStereo) ? 2 : 1;
  if (rate == 0 || ringBytes <= 16) return false;
  uint32_t outputRate = rate;
  if (h->FrameRate != h->FileRate || h->FrameRateDiv != h->FileRateDiv) {
    const double forced = double(rate) * h->FileRateDiv * h->FrameRate /
                          (double(h->FileRate) * h->FrameRateDiv);
    outputRate = uint32_t(std::min<double>(forced, MaxOutputRate));
  }
  if (outputRate == 0) return false;

  std::memset(static_cast<void*>(t), 0, offsetof(VelmoTrack, BackEndArea));
  t->FileRate = rate;
  t->OutputRate = outputRate;
  t->Channels = channels;
  t->RingSize = ringBytes;
  const uint32_t left = uint32_t(uint64_t(h->FileRate) * 3 / (uint64_t(h->FileRateDiv) * 4));
  t->EndFrame = h->Frames > left ? h->Frames - left : 0;
  LockEnter(VelmoSoundServiceLock());
  const uint32_t opened = open(t, outputRate, channels, h->OpenFlags, h);
  LockLeave(VelmoSoundServiceLock());
  if (!opened) return false;

  t->RingStart = memory + decoderBytes;
  t->RingEnd = t->RingStart + ringBytes;
  t->RingWrite = t->RingStart;
  t->RingRead = t->RingStart;
  if (t->BlockMask == 0) t->BlockMask = 0xFFFFFFFFu;
  const uint32_t ms = t->Latency < PrefillMs ? PrefillMs - t->Latency : 0;
  const uint64_t prefill = (uint64_t(ms) * outputRate * channels * 2 / 1000) & ~uint64_t(63);
  t->Prefill = uint32_t(std::min<uint64_t>(prefill, ringBytes - 16));
  t->Decoder = VelmoSoundDecoderCreate(memory, format);
  if (!t->Decoder) {
    LockEnter(VelmoSoundServiceLock());
    if (t->Ops.Close) t->Ops.Close(t);
    LockLeave(VelmoSoundServiceLock());
    return false;
  }
  if (t->ClockScale == 0) t->ClockScale = 0x10000;
  return true;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Steps of the open and the close

void VelmoOpenTracks(VelmoState* h, const uint32_t* ids, uint32_t count) {
  h->OpenTracks = 0;
  h->SoundOn = 0;
  h->SoundService = 1;
  if (h->TrackCount == 0 || !ids || count == 0 || !h->Tracks || !h->TrackIndexes) return;
  // Each asked id once, in the order asked; ids the file does not have are skipped. The
  // planned block holds a record and an index for each asked id.
  uint32_t chosen = 0;
  for (uint32_t a = 0; a < count; ++a) {
    bool seen = false;
    for (uint32_t b = 0; b < a && !seen; ++b) seen = ids[b] == ids[a];
    if (seen) continue;
    for (uint32_t i = 0; i < h->TrackCount; ++i) {
      if (h->TrackIds[i] == ids[a]) {
        h->TrackIndexes[chosen++] = i;
        break;
      }
    }
  }
  if (chosen == 0) return;

  // One block for all decoders and rings.
  uint64_t total = 0;
  for (uint32_t c = 0; c < chosen; ++c)
    total += uint64_t(DecoderBytesOf(h, h->TrackIndexes[c])) + RingBytesOf(h, h->TrackIndexes[c]);
  uint8_t* block = static_cast<uint8_t*>(
      ::operator new(size_t(std::max<uint64_t>(total, 64)), std::align_val_t(64), std::nothrow));
  if (!block) return;

  uint8_t* memory = block;
  uint32_t kept = 0;
  for (uint32_t c = 0; c < chosen; ++c) {
    const uint32_t index = h->TrackIndexes[c];
    const uint32_t decoderBytes = DecoderBytesOf(h, index);
    const uint32_t ring = RingBytesOf(h, index);
    VelmoTrack* t = &h->Tracks[kept];
    if (OpenOneTrack(h, t, index, memory, decoderBytes, ring)) h->TrackIndexes[kept++] = index;
    memory += decoderBytes + ring;
  }
  if (kept == 0) {
    ::operator delete(block, std::align_val_t(64));
    return;
  }
  h->TrackBlock = block;
  h->TotalMemory += total;
  h->OpenTracks = kept;
  h->SoundOn = 1;
  h->LastSoundFrame = 0;
  VelmoSoundServiceAdd(h, kept);
}

void VelmoCloseTracks(VelmoState* h) {
  if (h->OpenTracks) {
    LockEnter(VelmoSoundServiceLock());
    for (uint32_t i = 0; i < h->OpenTracks; ++i)
      if (h->Tracks[i].Ops.Close) h->Tracks[i].Ops.Close(&h->Tracks[i]);
    LockLeave(VelmoSoundServiceLock());
  }
  VelmoSoundServiceRemove(h, h->OpenTracks);
  if (h->TrackBlock) ::operator delete(h->TrackBlock, std::align_val_t(64));
  h->TrackBlock = nullptr;
  h->OpenTracks = 0;
  h->SoundOn = 0;
}

// ---------------------------------------------------------------------------------------------
// The frame walk's sound steps

void VelmoDecodeFrameSound(VelmoState* h) {
  if (!h->OpenTracks || !h->FrameData) return;
  VelmoSoundPacket sounds[VelmoMaxTracks];
  const VelmoPacketLayout layout =
      VelmoWalkFramePacket(h->FrameData, h->FrameSize, h->TrackCount, sounds);
  // A frame that does not follow the last decoded one starts each decoder anew.
  const bool follows = h->FrameNum == h->LastSoundFrame + 1;
  h->LastSoundFrame = h->FrameNum;
  for (uint32_t i = 0; i < h->OpenTracks; ++i) {
    VelmoTrack* t = &h->Tracks[i];
    if (!follows) VelmoSoundDecoderReset(t->Decoder);
    const uint32_t index = h->TrackIndexes[i];
    if (index >= layout.TracksFound) continue;
    const VelmoSoundPacket& p = sounds[index];
    if (p.PacketSize == 0) continue;
    // While sound is off nothing reads the ring: the newest sound overwrites the oldest.
    VelmoSoundDecodeToRing(t, h->FrameData + p.DataOffset, p.DataSize, p.DecodedBytes,
                           h->SoundOn != 0);
  }
}

uint32_t VelmoSoundClockScale(const VelmoState* h) {
  if (!h->OpenTracks) return 0x10000;
  const uint32_t scale =
      std::atomic_ref<const uint32_t>(h->Tracks[0].ClockScale).load(std::memory_order_relaxed);
  return scale ? scale : 0x10000;
}

bool VelmoSoundUnderrun(VelmoState* h) {
  bool counts = false;
  for (uint32_t i = 0; i < h->OpenTracks; ++i) {
    VelmoTrack* t = &h->Tracks[i];
    if (std::atomic_ref<uint32_t>(t->Underrun).exchange(0) && h->FrameNum > 1 &&
        h->FrameNum <= t->EndFrame)
      counts = true;
  }
  return counts;
}

void VelmoSoundPause(VelmoState* h, uint32_t pause) {
  if (!h->OpenTracks) return;
  if (UsesLock(h)) LockEnter(&h->SoundLock);
  for (uint32_t i = 0; i < h->OpenTracks; ++i)
    if (h->Tracks[i].Ops.Pause) h->Tracks[i].Ops.Pause(&h->Tracks[i], pause);
  if (UsesLock(h)) LockLeave(&h->SoundLock);
}

void VelmoFeedSound(VelmoState* h) {
  const uint32_t tracks = h->OpenTracks;
  if (tracks == 0 || !AtomicRead(&h->FeedPlayed)) return;
  // The lock comes before the device is asked: a back end's Ready may look at state that
  // its OnOff and Pause change, and those run under this lock.
  if (!LockTry(&h->SoundLock, 0)) return;
  VelmoTrack* last = &h->Tracks[tracks - 1];
  if (h->SoundOn && last->Ops.Ready && last->Ops.Ready(last)) {
    const uint32_t frame = AtomicRead(&h->FeedFrame);
    for (uint32_t i = 0; i < tracks; ++i) {
      VelmoTrack* t = &h->Tracks[i];
      if (t->Ops.Ready && t->Ops.Lock) FeedTrack(t, frame);
    }
  }
  LockLeave(&h->SoundLock);
}

void VelmoFeedPolledSound(VelmoState* h) {
  if (h->OpenTracks && h->SoundService == 1) VelmoFeedSound(h);
}

void VelmoSoundRestart(VelmoState* h) {
  VelmoSetSoundOn(h, 0);
  h->StartTime = 0;
  h->PauseOffset = 0;
  VelmoSetSoundOn(h, 1);
}

// ---------------------------------------------------------------------------------------------
// Public calls

extern "C" {

uint32_t VelmoSetSoundOn(HVELMO handle, uint32_t on) {
  if (!handle) return 0;
  VelmoState* h = VelmoStateOf(handle);
  if (h->OpenTracks == 0) {
    h->SoundOn = 0;
    return 0;
  }
  const bool locked = UsesLock(h);
  if (locked) LockEnter(&h->SoundLock);
  const uint32_t wasOn = h->SoundOn;
  // Alignment only where sound was already heard: not at the file's start before any frame.
  const bool started = h->FrameNum != 1 || h->FramesPlayed != 0;
  bool anyOn = false;
  for (uint32_t i = 0; i < h->OpenTracks; ++i) {
    VelmoTrack* t = &h->Tracks[i];
    const uint32_t state = t->Ops.OnOff ? t->Ops.OnOff(t, on ? 1 : 0) : (on ? 1 : 0);
    if (state) {
      anyOn = true;
      if (!wasOn && started) AlignRing(t);
    } else if (wasOn) {
      StorePointer(t->RingRead, t->RingStart);
      StorePointer(t->RingWrite, t->RingStart);
    }
  }
  if (anyOn && !wasOn) {
    h->SoundOn = 1;
    h->StartTime = 0;
  } else if (!anyOn && wasOn) {
    h->SoundOn = 0;
  }
  if (locked) LockLeave(&h->SoundLock);
  return anyOn ? 1 : 0;
}

void VelmoSetTrackVolumes(HVELMO handle, uint32_t trackId, const uint32_t* bins,
                          const uint32_t* volumes, uint32_t count) {
  if (!handle) return;
  VelmoState* h = VelmoStateOf(handle);
  VelmoTrack* t = nullptr;
  for (uint32_t i = 0; i < h->OpenTracks && !t; ++i)
    if (h->TrackIds[h->TrackIndexes[i]] == trackId) t = &h->Tracks[i];
  if (!t || !t->Ops.SetMix) return;
  count = std::min<uint32_t>(count, 8);
  if (count == 0) count = 1;
  float v[8];
  for (uint32_t i = 0; i < count; ++i) {
    if (!volumes) v[i] = 1.0f;
    else if (volumes[i] >= 65536) v[i] = 2.0f;
    else v[i] = float(volumes[i]) * 3.0517578e-5f;
  }
  const bool stereo = t->Channels == 2;
  float mix[8] = {};
  if (bins) {
    for (uint32_t i = 0; i < count; ++i) {
      const uint32_t bin = stereo ? bins[i] * 2 + (i & 1) : bins[i];
      if (bin < 8) mix[bin] = v[i];
    }
  } else if (count == 1) {
    mix[0] = mix[1] = v[0];
  } else {
    // Speaker order: front left and right, centre, LFE, back pair, side pair.
    mix[0] = v[0];
    mix[1] = v[1];
    if (count <= 2) {
      mix[4] = v[0] * 0.5f;
      mix[5] = v[1] * 0.5f;
    } else {
      mix[4] = v[2];
      if (count > 3) mix[5] = v[3];
      if (count > 4) mix[2] = v[4];
      if (count > 5) mix[3] = v[5];
      if (count > 6) mix[6] = v[6];
      if (count > 7) mix[7] = v[7];
    }
  }
  const bool locked = UsesLock(h);
  if (locked) LockEnter(&h->SoundLock);
  t->Ops.SetMix(t, mix, count, stereo ? 1 : 0, v[0]);
  if (locked) LockLeave(&h->SoundLock);
}

}  // extern "C"
