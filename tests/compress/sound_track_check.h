// Helpers of the sound track tests: a sound in memory as a track's source, and the reader's
// way of decoding a track's packets (blocks of each packet until its decoded count is met).
#pragma once
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <vector>

#include "audio/audio_test_util.h"
#include "compress/audio/velmo_audio.h"

namespace sound_check {

struct MemorySound {
  const uint8_t* Data;
  size_t Size, Position;
};

inline uint32_t ReadMemory(void* source, void* buffer, uint32_t bytes) {
  MemorySound* s = static_cast<MemorySound*>(source);
  const size_t n = std::min<size_t>(bytes, s->Size - s->Position);
  if (n) std::memcpy(buffer, s->Data + s->Position, n);
  s->Position += n;
  return uint32_t(n);
}

// One frame's packet of a track: its sound blocks and the count the reader takes from them.
struct SoundSpan {
  const uint8_t* Data;
  size_t Size;
  uint32_t DecodedBytes;  // already rounded down to 16, as the packet walk gives it
};

// Decodes a track as the reader does. Each packet must hold the blocks its count asks for.
inline audio_test::Samples DecodeSpans(uint32_t format, uint32_t rate, uint32_t channels,
                                       const std::vector<SoundSpan>& spans) {
  uint32_t mode = 0;
  EXPECT_TRUE(VelmoAudioTrackMode(format, &mode));
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(rate, channels));
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), rate, channels, mode);
  EXPECT_NE(decoder, nullptr);
  if (!decoder) return {};
  std::vector<uint8_t> out;
  std::vector<uint8_t> block(VelmoAudioDecoderBlockBytes(decoder));
  for (size_t f = 0; f < spans.size(); ++f) {
    VelmoAudioInput input{spans[f].Data, spans[f].Size, 0};
    uint32_t remain = spans[f].DecodedBytes;
    while (remain && input.Position < input.Size) {
      VelmoAudioRing ring{block.data(), block.data() + block.size(), block.data(),
                          uint32_t(block.size()), 0, 0, 16};
      VelmoAudioDecodeBlock(decoder, &ring, &input);
      const uint32_t take = std::min(remain, ring.Offered);
      out.insert(out.end(), block.begin(), block.begin() + take);
      remain -= take;
    }
    EXPECT_EQ(remain, 0u) << "packet " << f << " holds fewer blocks than its decoded count";
  }
  audio_test::Samples pcm(out.size() / 2);
  std::memcpy(pcm.data(), out.data(), pcm.size() * 2);
  return pcm;
}

}  // namespace sound_check
