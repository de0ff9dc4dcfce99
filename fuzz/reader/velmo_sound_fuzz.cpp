// Fuzzes the reader library's sound tracks: arbitrary bytes are opened as a file image with the
// null back end registered and every track of the file asked for, so that each frame's sound
// packets go through the ring decoder and the feeder; sound is switched off and on, a goto runs
// up the sound, volumes are routed, and each track is also decoded into caller memory.
#include "format/container.h"
#include "reader/velmo_handle.h"
#include "reader/velmo_sound_null.h"
#include "velmo.h"

#include <algorithm>
#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

namespace {

uint32_t FakeTime = 1000;
uint32_t FakeClock() { return FakeTime += 7; }

// The same limits as the open fuzzer: headers whose honest needs only measure the machine.
bool Affordable(const std::vector<uint8_t>& input) {
  VelmoHeader h;
  if (!VelmoParseHeader(input.data(), input.size(), &h)) return true;
  if (h.FrameRateDiv == 0 || h.FrameRate == 0) return true;
  if ((uint64_t(h.FrameRate) + h.FrameRateDiv / 2) / h.FrameRateDiv > 100000) return false;
  if (h.LargestFrameSize > (64u << 20)) return false;
  return true;
}

void DecodeTracks(HVELMO h) {
  const uint32_t tracks = std::min<uint32_t>(h->TrackCount, 4);
  std::vector<VelmoTrackReader*> readers;
  for (uint32_t i = 0; i < tracks; ++i)
    if (VelmoTrackReader* t = VelmoOpenTrack(h, i)) readers.push_back(t);
  std::vector<uint8_t> buffer;
  const uint32_t steps = std::min<uint32_t>(h->Frames, 24);
  for (uint32_t f = 0; f < steps; ++f) {
    for (VelmoTrackReader* t : readers) {
      const uint32_t room = std::min<uint32_t>(VelmoTrackReaderBufferSize(t), 1u << 20);
      buffer.resize(room);
      if (VelmoGetTrackData(t, buffer.data(), room) > room) std::abort();
    }
    VelmoNextFrame(h);
  }
  for (VelmoTrackReader* t : readers) VelmoCloseTrack(t);
}

void Play(HVELMO h) {
  const uint32_t steps = std::min<uint32_t>(h->Frames + 1, 40);
  for (uint32_t i = 0; i < steps; ++i) {
    VelmoWait(h);
    VelmoDoFrame(h);
    if (i == 5) {
      VelmoSetSoundOn(h, 0);
      VelmoSetSoundOn(h, 1);
    }
    VelmoNextFrame(h);
    for (uint32_t t = 0; t < h->OpenTracks; ++t) {
      const VelmoTrack& track = h->Tracks[t];
      if (track.RingRead < track.RingStart || track.RingRead >= track.RingEnd ||
          track.RingWrite < track.RingStart || track.RingWrite >= track.RingEnd)
        std::abort();
    }
  }
  const uint32_t volumes[3] = {65535, 70000, 1};
  const uint32_t bins[3] = {7, 0xFFFFFFFFu, 2};
  if (h->TrackCount) {
    VelmoSetTrackVolumes(h, h->TrackIds[0], nullptr, volumes, 3);
    VelmoSetTrackVolumes(h, h->TrackIds[0], bins, volumes, 3);
  }
  VelmoGoto(h, h->Frames / 2 + 1, 0);
  VelmoPause(h, 1);
  VelmoPause(h, 0);
  VelmoSoundTick();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  // An exact-size copy, so that any read past the input is caught.
  std::vector<uint8_t> input(data, data + size);
  if (!Affordable(input)) return 0;
  VelmoSetClockForTest(FakeClock);
  static VelmoNullSoundConfig config;
  config = VelmoNullSoundConfig{};
  config.Clock = FakeClock;
  config.ServiceMode = size % 2 ? 1 : 2;  // fed by the walk, or by the tick
  config.DeviceBlock = size % 3 ? 512 : 0;
  config.BlockMask = size % 3 ? ~511u : 0;
  config.RateScale = 0x10000 + uint32_t(size % 5) * 0x4000;
  if (!VelmoSetSoundSystem(VelmoNullSoundSelect, uintptr_t(&config))) std::abort();

  // Every id of the file's tables, as far as the tables are there.
  std::vector<uint32_t> ids;
  VelmoHeader header;
  if (VelmoParseHeader(input.data(), input.size(), &header)) {
    const uint32_t all = VelmoHeaderTrackCount(header);
    const uint32_t tracks = std::min<uint32_t>(all, 32);
    const uint64_t at = VelmoHeaderSize + VelmoExtrasSize(header.Magic, header.Flags) +
                        uint64_t(all) * 8;  // behind TrackMaxBytes and TrackFormat
    for (uint32_t t = 0; t < tracks && at + (t + 1) * 4 <= input.size(); ++t) {
      uint32_t id;
      std::memcpy(&id, input.data() + at + t * 4, 4);
      ids.push_back(id);
    }
  }
  ids.push_back(0);
  VelmoOpenOptions options{};
  options.ImageSize = input.size();
  options.TrackCount = uint32_t(ids.size());
  options.TrackIds = ids.data();
  const uint32_t flags = VelmoOpenImage | VelmoOpenTrackList | VelmoOpenNoBuffers;
  if (HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(input.data()), &options, flags)) {
    Play(h);
    DecodeTracks(h);
    VelmoClose(h);
  }
  VelmoSetSoundSystem(nullptr, 0);
  return 0;
}
