// Wave files for tests: the plain 44-byte form the writers produce, and a general builder for
// the reader's cases (float and extensible formats, a chunk of odd length before "fmt ").
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "support/files.h"

namespace test_support {

// The 44-byte header of a wave file with one 16-byte "fmt " chunk and `bytes` of sample data.
inline std::vector<uint8_t> WaveHeader(uint32_t tag, uint32_t channels, uint32_t rate,
                                       uint32_t bits, uint32_t bytes) {
  std::vector<uint8_t> h;
  PutTag(&h, "RIFF");
  Put32(&h, 36 + bytes);
  PutTag(&h, "WAVE");
  PutTag(&h, "fmt ");
  Put32(&h, 16);
  Put16(&h, tag);
  Put16(&h, channels);
  Put32(&h, rate);
  Put32(&h, rate * channels * bits / 8);
  Put16(&h, channels * bits / 8);
  Put16(&h, bits);
  PutTag(&h, "data");
  Put32(&h, bytes);
  return h;
}

inline std::vector<uint8_t> Pcm16(const std::vector<int16_t>& values) {
  std::vector<uint8_t> out;
  for (int16_t v : values) Put16(&out, uint16_t(v));
  return out;
}

inline std::vector<int16_t> As16(const std::vector<uint8_t>& bytes) {
  std::vector<int16_t> out(bytes.size() / 2);
  for (size_t i = 0; i < out.size(); ++i) out[i] = int16_t(bytes[2 * i] | bytes[2 * i + 1] << 8);
  return out;
}

// A 16-bit PCM wave file of interleaved samples.
inline void WriteWave16(const std::string& name, uint32_t rate, uint32_t channels,
                        const std::vector<int16_t>& samples) {
  std::vector<uint8_t> file = WaveHeader(1, channels, rate, 16, uint32_t(samples.size() * 2));
  const std::vector<uint8_t> data = Pcm16(samples);
  file.insert(file.end(), data.begin(), data.end());
  WriteFile(name, file);
}

struct WaveShape {
  uint32_t tag = 1;      // 1 PCM, 3 float, 0xFFFE extensible
  uint32_t sub_tag = 1;  // the extensible sub-format
  uint32_t channels = 1, rate = 22050, bits = 16;
};

// A whole wave file around `data`, with an odd-length chunk before "fmt " that the reader must
// step over with its padding byte.
inline std::vector<uint8_t> WaveBytes(const WaveShape& w, const std::vector<uint8_t>& data) {
  std::vector<uint8_t> fmt;
  Put16(&fmt, w.tag);
  Put16(&fmt, w.channels);
  Put32(&fmt, w.rate);
  Put32(&fmt, w.rate * w.channels * w.bits / 8);
  Put16(&fmt, w.channels * w.bits / 8);
  Put16(&fmt, w.bits);
  if (w.tag == 0xFFFE) {
    Put16(&fmt, 22);
    Put16(&fmt, w.bits);
    Put32(&fmt, w.channels == 2 ? 3 : 4);
    Put16(&fmt, w.sub_tag);
    const uint8_t tail[14] = {0, 0, 0, 0, 0x10, 0, 0x80, 0, 0, 0xAA, 0, 0x38, 0x9B, 0x71};
    fmt.insert(fmt.end(), tail, tail + 14);
  }
  std::vector<uint8_t> out;
  PutTag(&out, "RIFF");
  Put32(&out, 0);
  PutTag(&out, "WAVE");
  PutTag(&out, "LIST");
  Put32(&out, 3);
  out.insert(out.end(), {'a', 'b', 'c', 0});
  PutTag(&out, "fmt ");
  Put32(&out, uint32_t(fmt.size()));
  out.insert(out.end(), fmt.begin(), fmt.end());
  PutTag(&out, "data");
  Put32(&out, uint32_t(data.size()));
  out.insert(out.end(), data.begin(), data.end());
  const uint32_t riff = uint32_t(out.size() - 8);
  for (int i = 0; i < 4; ++i) out[4 + i] = uint8_t(riff >> (8 * i));
  return out;
}

// Repeatable noise over the whole 16-bit range.
inline std::vector<int16_t> Noise(size_t count, uint32_t seed) {
  std::vector<int16_t> out(count);
  for (auto& v : out) {
    seed = seed * 1664525u + 1013904223u;
    v = int16_t(seed >> 16);
  }
  return out;
}

}  // namespace test_support
