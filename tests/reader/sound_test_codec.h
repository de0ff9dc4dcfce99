// Sound for the reader library's track tests: tracks coded with the sound codec's encoder and
// laid into frames as a writer does, and a decode of such packets with the codec's decoder
// alone, which the library's output is checked against.
#pragma once
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

}  // namespace sound_test
