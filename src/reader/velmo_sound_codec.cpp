// The reader library's side of the sound codec: decoder set-up from a track's format, and the
// decoding of one track packet into a caller's buffer or into a track's ring.
//
// The ring has two owners: the frame thread moves RingWrite, the feeder (possibly the sound
// thread) moves RingRead. Each side reads the other's pointer through an atomic load.
#include "audio/velmo_audio.h"
#include "format/container.h"
#include "reader/velmo_sound.h"

#include <algorithm>
#include <atomic>

namespace {

uint8_t* LoadPointer(uint8_t* const& field) {
  return std::atomic_ref<uint8_t* const>(field).load(std::memory_order_acquire);
}
void StorePointer(uint8_t*& field, uint8_t* value) {
  std::atomic_ref<uint8_t*>(field).store(value, std::memory_order_release);
}

// Distance from `from` forward to `to` in a ring of `size` bytes.
uint32_t RingDistance(const uint8_t* from, const uint8_t* to, uint32_t size) {
  const int64_t d = to - from;
  return uint32_t(d < 0 ? d + size : d);
}

uint8_t* RingStep(const VelmoTrack* t, uint8_t* at, int64_t bytes) {
  int64_t offset = (at - t->RingStart) + bytes;
  offset %= int64_t(t->RingSize);
  if (offset < 0) offset += t->RingSize;
  return t->RingStart + offset;
}

}  // namespace

uint32_t VelmoSoundDecoderBytes(uint32_t rate, uint32_t channels) {
  return VelmoAudioDecoderSize(rate, channels);
}

void* VelmoSoundDecoderCreate(void* memory, uint32_t trackFormat) {
  uint32_t mode = 0;
  if (!VelmoAudioTrackMode(trackFormat, &mode)) return nullptr;
  const uint32_t rate = trackFormat & VelmoTrackRateMask;
  if (rate == 0) return nullptr;
  const uint32_t channels = (trackFormat & VelmoTrackStereo) ? 2 : 1;
  return VelmoAudioDecoderOpen(memory, rate, channels, mode);
}

uint32_t VelmoSoundDecoderBlockBytes(const void* decoder) {
  return VelmoAudioDecoderBlockBytes(static_cast<const VelmoAudioDecoder*>(decoder));
}

void VelmoSoundDecoderReset(void* decoder) {
  VelmoAudioDecoderReset(static_cast<VelmoAudioDecoder*>(decoder));
}

uint32_t VelmoSoundDecodeToBuffer(void* decoder, const uint8_t* data, uint32_t size,
                                  uint32_t decodedBytes, uint8_t* dest, uint32_t room) {
  decodedBytes &= ~15u;
  if (!decoder || !data || !dest || decodedBytes == 0 || room == 0) return 0;
  auto* d = static_cast<VelmoAudioDecoder*>(decoder);
  VelmoAudioInput input{data, size, 0};
  const uint32_t limit = std::min(room, decodedBytes);
  VelmoAudioRing ring{dest, dest + room, dest, limit, 0, 0, 16};
  while (ring.Offered < decodedBytes && input.Position < input.Size) {
    const size_t before = input.Position;
    VelmoAudioDecodeBlock(d, &ring, &input);
    if (input.Position == before) break;  // the blocks are used up
  }
  return limit - ring.Limit;
}

uint32_t VelmoSoundDecodeToRing(VelmoTrack* t, const uint8_t* data, uint32_t size,
                                uint32_t decodedBytes, bool protect) {
  decodedBytes &= ~15u;
  if (!t || !t->Decoder || !t->RingStart || t->RingSize <= 16 || !data || decodedBytes == 0)
    return 0;
  auto* d = static_cast<VelmoAudioDecoder*>(t->Decoder);
  VelmoAudioInput input{data, size, 0};
  uint8_t* write = t->RingWrite;
  const uint32_t heldBefore = RingDistance(LoadPointer(t->RingRead), write, t->RingSize);
  uint32_t remain = decodedBytes;
  uint32_t stored = 0;
  while (remain > 0 && input.Position < input.Size) {
    uint32_t limit = remain;
    if (protect) {
      // Free space up to RingRead, in whole 64-byte steps, keeping 16 bytes between.
      uint32_t free = RingDistance(write, LoadPointer(t->RingRead), t->RingSize);
      if (free == 0) free = t->RingSize;
      free &= ~63u;
      if (free > 16) free -= 16;
      limit = std::min(limit, free);
    }
    VelmoAudioRing ring{t->RingStart, t->RingEnd, write, limit, 0, 0, 16};
    const size_t before = input.Position;
    VelmoAudioDecodeBlock(d, &ring, &input);
    write = ring.Write;
    StorePointer(t->RingWrite, write);
    stored += limit - ring.Limit;
    // A last block that gives more than the packet's count adds only what remains.
    remain -= std::min(ring.Offered, remain);
    if (input.Position == before) break;
  }
  if (!protect && uint64_t(heldBefore) + stored > t->RingSize - 16) {
    // The oldest sound was overwritten: keep the newest RingSize - 16 bytes.
    StorePointer(t->RingRead, RingStep(t, write, -int64_t(t->RingSize - 16)));
  }
  return stored;
}
