// Whole sounds through the Velmo sound codec's encoder, read in as a writer does: each read
// fills the encoder's buffer, and the last ones are completed with zeros (or handed on short).
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstring>
#include <vector>

#include "audio/velmo_audio.h"

namespace test_support {

struct Encoded {
  std::vector<uint8_t> Stream;  // all blocks, one after another
  std::vector<uint32_t> BlockSizes;
  uint64_t Consumed = 0;
  uint32_t BlockBytes = 0, StepBytes = 0;  // PCM bytes of a block, and of a block less its overlap
};

// Encodes interleaved 16-bit `pcm` at a level (0..99 the current form, 100..199 the older one).
// With `padShort` the last reads are completed with zeros, as the writer does; without, the
// short count is handed on and the encoder repeats the last sample.
inline Encoded EncodeAll(const std::vector<int16_t>& pcm, uint32_t rate, uint32_t channels,
                         int level, bool padShort = true) {
  Encoded result;
  VelmoAudioEncoder* encoder =
      VelmoAudioEncoderOpen(rate, channels, VelmoAudioLevelIsCurrentForm(level));
  if (!encoder) return result;
  result.BlockBytes = VelmoAudioEncoderBlockBytes(encoder);
  result.StepBytes = result.BlockBytes - VelmoAudioEncoderOverlapBytes(encoder);
  const uint64_t total = pcm.size() * 2;
  uint64_t read = 0;
  do {
    uint8_t* buffer;
    uint32_t want, size, consumed;
    VelmoAudioEncoderBuffer(encoder, &buffer, &want);
    const uint32_t got = static_cast<uint32_t>(std::min<uint64_t>(want, total - read));
    std::memcpy(buffer, reinterpret_cast<const uint8_t*>(pcm.data()) + read, got);
    read += got;
    if (padShort) std::memset(buffer + got, 0, want - got);
    const uint8_t* out;
    VelmoAudioEncodeBlock(encoder, VelmoAudioLevelQuality(level), padShort ? want : got, &out,
                          &size, &consumed);
    result.Stream.insert(result.Stream.end(), out, out + size);
    result.BlockSizes.push_back(size);
    result.Consumed += consumed;
  } while (result.Consumed < total);
  VelmoAudioEncoderClose(encoder);
  return result;
}

}  // namespace test_support
