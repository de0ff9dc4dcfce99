// Shared parts of the sound back ends.
#include "player/sound/sound_output.h"

#include <algorithm>
#include <atomic>
#include <new>

uint32_t SoundBytesOf(uint32_t bytesPerSecond, uint32_t ms) {
  return uint32_t((uint64_t(bytesPerSecond) * ms / 1000 + 31) & ~uint64_t(31));
}

uint32_t SoundStartBytes(uint32_t bytesPerSecond, uint32_t ms, HVELMO handle) {
  uint64_t bytes = SoundBytesOf(bytesPerSecond, ms);
  if (handle && handle->FrameRate) {
    const uint64_t whole =
        uint64_t(handle->Frames) * handle->FrameRateDiv * bytesPerSecond / handle->FrameRate;
    bytes = std::min(bytes, std::max<uint64_t>(whole & ~uint64_t(3), 4));
  }
  return uint32_t(bytes);
}

void SoundGains(uint32_t volume, uint32_t pan, int32_t* left, int32_t* right) {
  const int64_t v = std::min<uint32_t>(volume, 65536);
  pan = std::min<uint32_t>(pan, 65536);
  *left = int32_t(pan <= 32768 ? v : v * (65536 - pan) / 32768);
  *right = int32_t(pan >= 32768 ? v : v * pan / 32768);
}

bool SoundOutputInit(SoundOutput* o, uint32_t rate, uint32_t trackChannels,
                     uint32_t deviceChannels, uint32_t blockMs, uint32_t stagingBlocks,
                     RateMeterTiming timing) {
  o->Rate = rate;
  o->TrackChannels = trackChannels == 2 ? 2 : 1;
  o->DeviceChannels = std::clamp<uint32_t>(deviceChannels, 1, MaxDeviceChannels);
  o->TrackFrameBytes = o->TrackChannels * 2;
  o->DeviceFrameBytes = o->DeviceChannels * 2;
  const uint32_t perSecond = rate * o->TrackFrameBytes;
  o->BlockBytes = std::max<uint32_t>(SoundBytesOf(perSecond, blockMs), 32);
  o->StagingBytes = o->BlockBytes * stagingBlocks;
  o->Staging.reset(new (std::nothrow) uint8_t[o->StagingBytes]);
  const uint32_t samples = o->StagingBytes / o->TrackFrameBytes;
  o->Converted.reset(new (std::nothrow) int16_t[size_t(samples) * o->DeviceChannels]);
  if (!o->Staging || !o->Converted) return false;
  RateMeterInit(&o->Meter, rate, o->DeviceFrameBytes, timing);
  SoundOutputUpdateMatrix(o);
  return true;
}

void SoundOutputSetVolume(VelmoTrack* t, uint32_t volume) {
  SoundOutput* o = SoundOutputOf(t);
  o->Volume = std::min<uint32_t>(volume, 65536);
  SoundOutputUpdateMatrix(o);
}

void SoundOutputSetPan(VelmoTrack* t, uint32_t pan) {
  SoundOutput* o = SoundOutputOf(t);
  o->Pan = std::min<uint32_t>(pan, 65536);
  SoundOutputUpdateMatrix(o);
}

void SoundOutputUpdateMatrix(SoundOutput* o) {
  int32_t left, right;
  SoundGains(o->Volume, o->Pan, &left, &right);
  float bins[SpeakerBins] = {};
  if (o->HasMix) {
    // The speaker volumes, under the track's volume (its pan has no say in a speaker mix).
    for (uint32_t k = 0; k < SpeakerBins; ++k) bins[k] = o->Mix[k] * float(o->Volume) / 65536.0f;
  } else {
    bins[0] = float(left) / 65536.0f;
    bins[1] = float(right) / 65536.0f;
  }
  o->Matrix = SpeakerMatrixFor(bins, o->TrackChannels, o->DeviceChannels);
  bool same = o->TrackChannels == o->DeviceChannels;
  for (uint32_t c = 0; same && c < o->DeviceChannels; ++c)
    for (uint32_t s = 0; s < o->TrackChannels; ++s)
      same = same && o->Matrix.Gain[c][s] == (c == s ? 0x10000 : 0);
  o->Passthrough = same ? 1 : 0;
}

const uint8_t* SoundOutputConvert(SoundOutput* o, uint32_t bytes, uint32_t* deviceBytes) {
  const uint32_t samples = bytes / o->TrackFrameBytes;
  if (o->Passthrough) {
    *deviceBytes = samples * o->TrackFrameBytes;
    return o->Staging.get();
  }
  SpeakerMix(o->Matrix, reinterpret_cast<const int16_t*>(o->Staging.get()), o->Converted.get(),
             samples);
  *deviceBytes = samples * o->DeviceFrameBytes;
  return reinterpret_cast<const uint8_t*>(o->Converted.get());
}

void SoundOutputReportScale(VelmoTrack* t, uint32_t scale) {
  std::atomic_ref<uint32_t>(t->ClockScale).store(scale, std::memory_order_relaxed);
}

void SoundOutputReportUnderrun(VelmoTrack* t) { std::atomic_ref<uint32_t>(t->Underrun).store(1); }
