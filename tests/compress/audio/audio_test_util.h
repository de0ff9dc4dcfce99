// Helpers of the sound codec tests: synthetic signals, a whole-sound encode and decode in the
// writer's manner, and signal-to-noise figures.
#pragma once
#include "compress/audio/velmo_audio.h"

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <random>
#include <vector>

namespace audio_test {

constexpr double Pi = 3.14159265358979323846;

using Samples = std::vector<int16_t>;  // interleaved

inline int16_t Clip(double v) {
  return static_cast<int16_t>(std::lround(std::fmax(-32768.0, std::fmin(32767.0, v))));
}

inline Samples Sine(uint32_t rate, uint32_t channels, size_t frames, double hz, double amplitude,
                    double hzRight = 0) {
  Samples out(frames * channels);
  for (size_t i = 0; i < frames; ++i)
    for (uint32_t c = 0; c < channels; ++c) {
      const double f = (c == 1 && hzRight > 0) ? hzRight : hz;
      out[i * channels + c] = Clip(amplitude * std::sin(2 * Pi * f * i / rate));
    }
  return out;
}

inline Samples Noise(uint32_t channels, size_t frames, double amplitude, uint32_t seed) {
  std::mt19937 random(seed);
  std::normal_distribution<double> normal(0.0, amplitude);
  Samples out(frames * channels);
  for (auto& s : out) s = Clip(normal(random));
  return out;
}

// A few decaying plucked notes over a held chord.
inline Samples Music(uint32_t rate, uint32_t channels, size_t frames) {
  Samples out(frames * channels);
  const double chord[3] = {220.0, 277.18, 329.63};
  const double notes[4] = {440.0, 523.25, 659.26, 880.0};
  for (size_t i = 0; i < frames; ++i) {
    const double t = static_cast<double>(i) / rate;
    double v = 0;
    for (double f : chord) v += 2500 * std::sin(2 * Pi * f * t) + 600 * std::sin(4 * Pi * f * t);
    const size_t note = static_cast<size_t>(t * 4) % 4;
    const double since = t - std::floor(t * 4) / 4;
    v += 6000 * std::exp(-since * 12) * std::sin(2 * Pi * notes[note] * t);
    for (uint32_t c = 0; c < channels; ++c) out[i * channels + c] = Clip(c ? v * 0.7 : v);
  }
  return out;
}

struct Encoded {
  std::vector<uint8_t> Stream;  // all blocks, one after another
  std::vector<uint32_t> BlockSizes;
  uint64_t Consumed = 0;
};

// Encodes a whole sound. With `padShort` the last reads are completed with zeros, as the
// writer does; without, the short count is handed on and the encoder repeats the last sample.
inline Encoded EncodeAll(const Samples& pcm, uint32_t rate, uint32_t channels, int level,
                         bool padShort = true) {
  Encoded result;
  VelmoAudioEncoder* encoder =
      VelmoAudioEncoderOpen(rate, channels, VelmoAudioLevelIsCurrentForm(level));
  if (!encoder) return result;
  const uint64_t total = pcm.size() * 2;
  const auto* source = reinterpret_cast<const uint8_t*>(pcm.data());
  uint64_t read = 0;
  do {
    uint8_t* buffer;
    uint32_t want;
    VelmoAudioEncoderBuffer(encoder, &buffer, &want);
    const uint32_t got = static_cast<uint32_t>(std::min<uint64_t>(want, total - read));
    std::memcpy(buffer, source + read, got);
    read += got;
    uint32_t given = got;
    if (padShort && got < want) {
      std::memset(buffer + got, 0, want - got);
      given = want;
    }
    const uint8_t* out;
    uint32_t size, consumed;
    VelmoAudioEncodeBlock(encoder, VelmoAudioLevelQuality(level), given, &out, &size, &consumed);
    result.Stream.insert(result.Stream.end(), out, out + size);
    result.BlockSizes.push_back(size);
    result.Consumed += consumed;
  } while (result.Consumed < total);
  VelmoAudioEncoderClose(encoder);
  return result;
}

// Decodes every block of a stream; returns all the samples handed out.
inline Samples DecodeAll(const std::vector<uint8_t>& stream, uint32_t rate, uint32_t channels,
                         uint32_t mode, size_t blocks) {
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(rate, channels));
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), rate, channels, mode);
  if (!decoder) return {};
  std::vector<uint8_t> out(blocks * VelmoAudioDecoderStepBytes(decoder) + 16);
  VelmoAudioRing ring{out.data(), out.data() + out.size(), out.data(),
                      static_cast<uint32_t>(out.size()), 0, 0, 16};
  VelmoAudioInput input{stream.data(), stream.size(), 0};
  for (size_t b = 0; b < blocks; ++b) VelmoAudioDecodeBlock(decoder, &ring, &input);
  Samples pcm(ring.Offered / 2);
  std::memcpy(pcm.data(), out.data(), pcm.size() * 2);
  return pcm;
}

inline Samples RoundTrip(const Samples& pcm, uint32_t rate, uint32_t channels, int level,
                         Encoded* encodedOut = nullptr) {
  Encoded encoded = EncodeAll(pcm, rate, channels, level);
  Samples decoded = DecodeAll(encoded.Stream, rate, channels,
                              VelmoAudioLevelIsCurrentForm(level) ? VelmoAudioCurrentForm : 0,
                              encoded.BlockSizes.size());
  if (encodedOut) *encodedOut = std::move(encoded);
  return decoded;
}

// SNR in dB of `decoded` against `source` over the source's length; 200 for an exact match.
inline double Snr(const Samples& source, const Samples& decoded, size_t from = 0,
                  size_t to = SIZE_MAX) {
  to = std::min({to, source.size(), decoded.size()});
  double signal = 0, noise = 0;
  for (size_t i = from; i < to; ++i) {
    const double d = static_cast<double>(source[i]) - decoded[i];
    signal += static_cast<double>(source[i]) * source[i];
    noise += d * d;
  }
  if (noise == 0) return 200;
  return 10 * std::log10(signal / noise);
}

// Mean of per-segment SNRs, each held within -10..35 dB, over segments with some signal.
inline double SegmentalSnr(const Samples& source, const Samples& decoded, size_t segment = 256) {
  const size_t count = std::min(source.size(), decoded.size());
  double sum = 0;
  size_t segments = 0;
  for (size_t from = 0; from + segment <= count; from += segment) {
    double signal = 0, noise = 0;
    for (size_t i = from; i < from + segment; ++i) {
      const double d = static_cast<double>(source[i]) - decoded[i];
      signal += static_cast<double>(source[i]) * source[i];
      noise += d * d;
    }
    if (signal < segment * 100.0) continue;  // near silence
    const double snr = noise == 0 ? 35 : 10 * std::log10(signal / noise);
    sum += std::fmax(-10.0, std::fmin(35.0, snr));
    ++segments;
  }
  return segments ? sum / segments : 35;
}

}  // namespace audio_test
