// Helpers of the sound codec tests: synthetic signals, a whole-sound encode and decode in the
// writer's manner, and a signal-to-noise figure.
#pragma once
#include "audio/velmo_audio.h"
#include "support/sound_codec.h"

#include <gtest/gtest.h>

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

// `hzRight`, when given, is the second channel's frequency.
inline Samples Sine(uint32_t rate, uint32_t channels, size_t frames, double hz, double amplitude,
                    double hzRight = 0) {
  Samples out(frames * channels);
  for (size_t i = 0; i < out.size(); ++i) {
    const double f = (i % channels == 1 && hzRight > 0) ? hzRight : hz;
    out[i] = Clip(amplitude * std::sin(2 * Pi * f * (i / channels) / rate));
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
    const double since = t - std::floor(t * 4) / 4;
    const double note = notes[static_cast<size_t>(t * 4) % 4];
    v += 6000 * std::exp(-since * 12) * std::sin(2 * Pi * note * t);
    for (uint32_t c = 0; c < channels; ++c) out[i * channels + c] = Clip(c ? v * 0.7 : v);
  }
  return out;
}

using test_support::EncodeAll;
using test_support::Encoded;

inline uint32_t ModeOf(int level) {
  return VelmoAudioLevelIsCurrentForm(level) ? VelmoAudioCurrentForm : 0;
}

// Decodes every block of an encoded stream; returns all the samples handed out. Each block is
// a whole number of words and takes exactly its size. With `asPackets` each block is decoded
// as the last of its packet: the input ends where the block does.
inline Samples DecodeAll(const Encoded& encoded, uint32_t rate, uint32_t channels, uint32_t mode,
                         bool asPackets = false) {
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(rate, channels));
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), rate, channels, mode);
  if (!decoder) return {};
  std::vector<uint8_t> out(encoded.BlockSizes.size() * VelmoAudioDecoderStepBytes(decoder) + 16);
  VelmoAudioRing ring{out.data(), out.data() + out.size(), out.data(),
                      static_cast<uint32_t>(out.size()), 0, 0, 16};
  VelmoAudioInput input{encoded.Stream.data(), asPackets ? 0 : encoded.Stream.size(), 0};
  for (uint32_t size : encoded.BlockSizes) {
    if (asPackets) input.Size += size;
    EXPECT_EQ(size % 4, 0u);
    EXPECT_EQ(VelmoAudioDecodeBlock(decoder, &ring, &input), size);
  }
  EXPECT_EQ(input.Position, encoded.Stream.size());
  Samples pcm(ring.Offered / 2);
  std::memcpy(pcm.data(), out.data(), pcm.size() * 2);
  return pcm;
}

inline Samples RoundTrip(const Samples& pcm, uint32_t rate, uint32_t channels, int level,
                         Encoded* encodedOut = nullptr) {
  Encoded encoded = EncodeAll(pcm, rate, channels, level);
  Samples decoded = DecodeAll(encoded, rate, channels, ModeOf(level));
  if (encodedOut) *encodedOut = std::move(encoded);
  return decoded;
}

// SNR in dB of `decoded` against `source` over the source's length; 200 for an exact match.
inline double Snr(const Samples& source, const Samples& decoded) {
  double signal = 0, noise = 0;
  for (size_t i = 0; i < std::min(source.size(), decoded.size()); ++i) {
    const double d = static_cast<double>(source[i]) - decoded[i];
    signal += static_cast<double>(source[i]) * source[i];
    noise += d * d;
  }
  return noise == 0 ? 200 : 10 * std::log10(signal / noise);
}

// Direct sums of the inverse transforms, times `scale`: the cosine sum of the current form
// (element 0 whole), or the older form's real inverse FFT of a packed spectrum (element 1 the
// Nyquist term), both with no 2 / L.
template <typename Value>
std::vector<double> DirectInverse(const std::vector<Value>& c, bool cosine, double scale = 1) {
  const size_t length = c.size();
  std::vector<double> x(length);
  for (size_t t = 0; t < length; ++t) {
    double sum = cosine ? 0 : 0.5 * (c[0] + c[1] * ((t & 1) ? -1 : 1));
    for (size_t k = 0; cosine && k < length; ++k)
      sum += c[k] * std::cos(Pi * (2 * t + 1) * k / (2.0 * length));
    for (size_t k = 1; !cosine && k < length / 2; ++k)
      sum += c[2 * k] * std::cos(2 * Pi * k * t / length) -
             c[2 * k + 1] * std::sin(2 * Pi * k * t / length);
    x[t] = sum * scale;
  }
  return x;
}

}  // namespace audio_test
