// Driving a sound back end directly, as the reader library does while it plays: a track record
// opened through the back end's open, fed through Ready, Lock and Unlock from a buffer of
// 16-bit samples, and closed at the end.
#pragma once
#include "velmo.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <thread>
#include <vector>

namespace test_support {

class SoundTrackRig {
 public:
  SoundTrackRig() { std::memset(static_cast<void*>(&Track), 0, sizeof Track); }
  ~SoundTrackRig() { Close(); }
  SoundTrackRig(const SoundTrackRig&) = delete;
  SoundTrackRig& operator=(const SoundTrackRig&) = delete;

  bool Open(VelmoOpenBackEnd open, uint32_t rate, uint32_t channels, HVELMO handle = nullptr) {
    Opened = open && open(&Track, rate, channels, 0, handle) != 0;
    return Opened;
  }
  void Close() {
    if (Opened && Track.Ops.Close) Track.Ops.Close(&Track);
    Opened = false;
  }

  // One round of the feeder: while the device is ready, hands it what it takes of `data` from
  // `*at` on. Returns the bytes given.
  uint32_t FeedOnce(const std::vector<int16_t>& data, size_t* at) {
    uint32_t given = 0;
    const size_t total = data.size() * 2;
    while (*at < total && Track.Ops.Ready(&Track)) {
      void* address = nullptr;
      uint32_t room = 0;
      if (!Track.Ops.Lock(&Track, &address, &room) || !address || room == 0) break;
      const uint32_t amount = uint32_t(std::min<size_t>(room, total - *at));
      std::memcpy(address, reinterpret_cast<const uint8_t*>(data.data()) + *at, amount);
      Track.Ops.Unlock(&Track, amount);
      *at += amount;
      given += amount;
    }
    return given;
  }

  // Feeds all of `data`, one round every `periodMs`, for at most `limitMs`. True when all went.
  bool FeedAll(const std::vector<int16_t>& data, uint32_t periodMs = 5, uint32_t limitMs = 10000) {
    size_t at = 0;
    for (uint32_t waited = 0; at < data.size() * 2 && waited <= limitMs; waited += periodMs) {
      FeedOnce(data, &at);
      if (at < data.size() * 2) std::this_thread::sleep_for(std::chrono::milliseconds(periodMs));
    }
    return at == data.size() * 2;
  }

  VelmoTrack Track;
  bool Opened = false;
};

// Samples that are never 0, so that they can be found among a device's silence: a ramp that
// differs between channels.
inline std::vector<int16_t> SoundPattern(uint32_t samples, uint32_t channels) {
  std::vector<int16_t> out(size_t(samples) * channels);
  for (uint32_t i = 0; i < samples; ++i)
    for (uint32_t c = 0; c < channels; ++c)
      out[size_t(i) * channels + c] = int16_t(((i * 37 + c * 1111) % 20000) + 100) *
                                      (c % 2 ? -1 : 1);
  return out;
}

}  // namespace test_support
