// Velmo files with coded sound tracks for the reader library's track tests, written with the
// container's writer functions.
#pragma once
#include "container_test_util.h"
#include "sound_test_codec.h"

#include <vector>

namespace sound_test {

struct TrackDef {
  uint32_t Rate = 22050;
  uint32_t Channels = 1;
  bool Older = false;
  uint32_t Id = 0;
  uint32_t LeadBlocks = 1;
  uint32_t DropFormatBits = 0;  // TrackFormat bits to clear in the file (0x90000000: unusable)
};

struct SoundFile {
  std::vector<uint8_t> File;
  std::vector<TrackStream> Streams;  // one per track, in file order
};

inline SoundFile BuildSoundFile(uint32_t frames, uint32_t fps, uint32_t fpsDiv,
                                const std::vector<TrackDef>& tracks) {
  SoundFile out;
  std::vector<VelmoTrackInfo> infos;
  for (size_t t = 0; t < tracks.size(); ++t) {
    const TrackDef& d = tracks[t];
    out.Streams.push_back(EncodeTrack(d.Rate, d.Channels, d.Older, frames, fps, fpsDiv,
                                      d.LeadBlocks, uint32_t(t + 11)));
    infos.push_back({0, out.Streams.back().Format & ~d.DropFormatBits, d.Id});
  }
  VelmoWriteParams p{};
  p.Version = 100;
  p.Width = 16;
  p.Height = 16;
  p.FrameRate = fps;
  p.FrameRateDiv = fpsDiv;
  p.IndexFrames = frames;
  p.TrackCount = uint32_t(infos.size());
  p.Tracks = infos.empty() ? nullptr : infos.data();
  velmo_test::TestWriter w;
  EXPECT_TRUE(velmo_test::StartWriter(p, &w));
  for (uint32_t f = 0; f < frames; ++f) {
    std::vector<std::vector<uint8_t>> sounds;
    std::vector<uint32_t> decoded;
    for (const TrackStream& s : out.Streams) {
      sounds.push_back(s.Packets[f]);
      decoded.push_back(s.Packets[f].empty() ? 0 : s.Decoded[f]);
    }
    velmo_test::AddFrame(&w, f % 5 == 0, sounds, decoded, std::vector<uint8_t>(8, uint8_t(f)));
  }
  velmo_test::Checkpoint(&w);
  out.File = w.File;
  return out;
}

}  // namespace sound_test
