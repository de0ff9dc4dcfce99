// Velmo files with coded sound tracks for the reader library's track tests: tracks coded with
// the sound codec's encoder and laid into frames as a writer does, and a decode of such packets
// with the codec's decoder alone, which the library's output is checked against.
#pragma once
#include "velmo_test_files.h"

#include <cstdint>
#include <vector>

namespace sound_test {

struct TrackStream {
  uint32_t Format = 0;                        // TrackFormat: rate, channels, coding form
  uint32_t BlockBytes = 0;                    // PCM bytes of one decoded block
  std::vector<std::vector<uint8_t>> Packets;  // per frame: the coded blocks (may be empty)
  std::vector<uint32_t> Decoded;              // per frame: DecodedBytes
  uint32_t MaxDecoded = 0;                    // the largest DecodedBytes
};

// Codes a tone mix for `frames` frames at fps / fpsDiv. Each frame gets as many blocks as keep
// the decoded sound at least `leadBlocks` blocks ahead of the frame's end; a frame may get
// none. `older` codes the older form.
TrackStream EncodeTrack(uint32_t rate, uint32_t channels, bool older, uint32_t frames,
                        uint32_t fps, uint32_t fpsDiv, uint32_t leadBlocks, uint32_t seed);

// Decodes frames [from, to) of the stream with a decoder of its own, started at `from`.
std::vector<uint8_t> DecodeFrames(const TrackStream& track, uint32_t from, uint32_t to);

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
  velmo_test::FilePlan s;
  s.Frames = frames;
  s.Rate = fps;
  s.RateDiv = fpsDiv;
  for (size_t t = 0; t < tracks.size(); ++t) {
    const TrackDef& d = tracks[t];
    out.Streams.push_back(EncodeTrack(d.Rate, d.Channels, d.Older, frames, fps, fpsDiv,
                                      d.LeadBlocks, uint32_t(t + 11)));
    s.Tracks.push_back({0, out.Streams.back().Format & ~d.DropFormatBits, d.Id});
  }
  s.Video = [](uint32_t f) { return std::vector<uint8_t>(8, uint8_t(f)); };
  s.Sound = [&out](uint32_t f, size_t t, uint32_t* decoded) {
    const TrackStream& stream = out.Streams[t];
    *decoded = stream.Packets[f].empty() ? 0 : stream.Decoded[f];
    return stream.Packets[f];
  };
  out.File = velmo_test::BuildFile(s);
  return out;
}

}  // namespace sound_test
