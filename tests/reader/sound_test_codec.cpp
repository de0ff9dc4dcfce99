#include "sound_test_files.h"

#include "audio/velmo_audio.h"
#include "support/sound_codec.h"

#include <algorithm>
#include <cmath>
#include <random>

namespace sound_test {

namespace {

std::vector<int16_t> ToneMix(uint32_t rate, uint32_t channels, size_t samples, uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> pitch(180.0, 900.0);
  const double a = pitch(random), b = pitch(random);
  std::normal_distribution<double> noise(0.0, 300.0);
  std::vector<int16_t> out(samples * channels);
  for (size_t i = 0; i < samples; ++i) {
    const double t = double(i) / rate;
    for (uint32_t c = 0; c < channels; ++c) {
      const double v = 7000 * std::sin(2 * M_PI * (c ? b : a) * t) +
                       3000 * std::sin(2 * M_PI * 2.5 * a * t) + noise(random);
      out[i * channels + c] = int16_t(std::clamp(v, -32768.0, 32767.0));
    }
  }
  return out;
}

}  // namespace

TrackStream EncodeTrack(uint32_t rate, uint32_t channels, bool older, uint32_t frames,
                        uint32_t fps, uint32_t fpsDiv, uint32_t leadBlocks, uint32_t seed) {
  TrackStream track;
  const int level = older ? 104 : 4;
  track.Format = VelmoAudioTrackFlags(rate, channels, level);
  // Sound for the frames, their lead and two more, each with a block of the longest kind (2048
  // samples); the blocks hand out `step` bytes each.
  const uint64_t frameBytes = uint64_t(rate) * fpsDiv / fps * channels * 2;
  const size_t samples = (frames + leadBlocks + 2) * (frameBytes / 2 / channels + 2048);
  const test_support::Encoded coded =
      test_support::EncodeAll(ToneMix(rate, channels, samples, seed), rate, channels, level);
  track.BlockBytes = coded.BlockBytes;
  const uint32_t step = coded.StepBytes;
  size_t block = 0, at = 0;
  uint64_t decoded = 0;
  for (uint32_t f = 0; f < frames; ++f) {
    std::vector<uint8_t> packet;
    uint32_t packetDecoded = 0;
    const uint64_t need = uint64_t(f + 1) * frameBytes + uint64_t(leadBlocks) * step;
    for (; decoded < need; decoded += step, packetDecoded += step) {
      const uint32_t size = coded.BlockSizes.at(block++);
      packet.insert(packet.end(), coded.Stream.begin() + at, coded.Stream.begin() + at + size);
      at += size;
    }
    track.Packets.push_back(packet);
    track.Decoded.push_back(packetDecoded);
    track.MaxDecoded = std::max(track.MaxDecoded, packetDecoded);
  }
  return track;
}

std::vector<uint8_t> DecodeFrames(const TrackStream& track, uint32_t from, uint32_t to) {
  const uint32_t rate = track.Format & 0xFFFF;
  const uint32_t channels = (track.Format & VelmoTrackStereo) ? 2 : 1;
  uint32_t mode = 0;
  VelmoAudioTrackMode(track.Format, &mode);
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(rate, channels) + 16);
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), rate, channels, mode);
  std::vector<uint8_t> out;
  for (uint32_t f = from; f < to && f < track.Packets.size(); ++f) {
    const std::vector<uint8_t>& p = track.Packets[f];
    if (p.empty()) continue;
    std::vector<uint8_t> part(track.Decoded[f]);
    VelmoAudioRing ring{part.data(), part.data() + part.size(), part.data(),
                        uint32_t(part.size()), 0, 0, 16};
    VelmoAudioInput input{p.data(), p.size(), 0};
    while (input.Position < input.Size) VelmoAudioDecodeBlock(decoder, &ring, &input);
    part.resize(part.size() - ring.Limit);
    out.insert(out.end(), part.begin(), part.end());
  }
  return out;
}

}  // namespace sound_test
