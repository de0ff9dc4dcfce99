// Helpers for the sound input tests: wave files built byte by byte, and whole-sound reads.
#pragma once
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "media/sound.h"

namespace sound_test {

inline void Put16(std::vector<uint8_t>* out, uint32_t v) {
  out->push_back(static_cast<uint8_t>(v));
  out->push_back(static_cast<uint8_t>(v >> 8));
}
inline void Put32(std::vector<uint8_t>* out, uint32_t v) {
  Put16(out, v & 0xFFFF);
  Put16(out, v >> 16);
}
inline void PutText(std::vector<uint8_t>* out, const char* four) {
  for (int i = 0; i < 4; ++i) out->push_back(static_cast<uint8_t>(four[i]));
}

struct WaveShape {
  uint32_t tag = 1;  // 1 PCM, 3 float, 0xFFFE extensible
  uint32_t sub_tag = 1;  // the extensible sub-format
  uint32_t channels = 1, rate = 22050, bits = 16;
};

// A whole wave file around `data`, with an odd-length chunk before "fmt " to test the padding.
inline std::vector<uint8_t> Wave(const WaveShape& w, const std::vector<uint8_t>& data) {
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
  PutText(&out, "RIFF");
  Put32(&out, 0);
  PutText(&out, "WAVE");
  PutText(&out, "LIST");
  Put32(&out, 3);
  out.insert(out.end(), {'a', 'b', 'c', 0});
  PutText(&out, "fmt ");
  Put32(&out, static_cast<uint32_t>(fmt.size()));
  out.insert(out.end(), fmt.begin(), fmt.end());
  PutText(&out, "data");
  Put32(&out, static_cast<uint32_t>(data.size()));
  out.insert(out.end(), data.begin(), data.end());
  const uint32_t riff = static_cast<uint32_t>(out.size() - 8);
  for (int i = 0; i < 4; ++i) out[4 + i] = static_cast<uint8_t>(riff >> (8 * i));
  return out;
}

inline std::vector<uint8_t> Pcm16(const std::vector<int16_t>& values) {
  std::vector<uint8_t> out;
  for (int16_t v : values) Put16(&out, static_cast<uint16_t>(v));
  return out;
}

inline void WriteBytes(const std::string& name, const std::vector<uint8_t>& bytes) {
  FILE* file = fopen(name.c_str(), "wb");
  if (!file) return;
  if (!bytes.empty()) fwrite(bytes.data(), 1, bytes.size(), file);
  fclose(file);
}

inline void WriteWave16(const std::string& name, uint32_t rate, uint32_t channels,
                        const std::vector<int16_t>& values) {
  WaveShape w;
  w.rate = rate;
  w.channels = channels;
  WriteBytes(name, Wave(w, Pcm16(values)));
}

// Reads the sound to its end in uneven pieces; the bytes as they came.
inline std::vector<uint8_t> ReadAll(SoundInput* sound, uint32_t piece = 1000) {
  std::vector<uint8_t> out;
  std::vector<uint8_t> buffer(piece);
  for (int guard = 0; guard < 1000000; ++guard) {
    const uint32_t got = SoundRead(sound, buffer.data(), piece);
    if (got == 0) break;
    out.insert(out.end(), buffer.begin(), buffer.begin() + got);
  }
  return out;
}

inline std::vector<int16_t> As16(const std::vector<uint8_t>& bytes) {
  std::vector<int16_t> out(bytes.size() / 2);
  for (size_t i = 0; i < out.size(); ++i)
    out[i] = static_cast<int16_t>(bytes[2 * i] | bytes[2 * i + 1] << 8);
  return out;
}

// Opens with only the format arguments given.
inline SoundInput* Open(const std::string& name, uint32_t rate = 0, uint32_t bits = 0,
                        uint32_t channels = 0) {
  return SoundOpen(name.c_str(), rate, bits, channels, 0, 0, 0, 0, 0, {});
}

inline std::vector<int16_t> ReadAll16(const std::string& name, uint32_t rate = 0,
                                      uint32_t channels = 0) {
  SoundInput* sound = Open(name, rate, 16, channels);
  if (!sound) return {};
  std::vector<int16_t> out = As16(ReadAll(sound));
  SoundClose(sound);
  return out;
}

// Repeatable noise over the whole 16-bit range.
inline std::vector<int16_t> Noise(size_t count, uint32_t seed) {
  std::vector<int16_t> out(count);
  for (auto& v : out) {
    seed = seed * 1664525u + 1013904223u;
    v = static_cast<int16_t>(seed >> 16);
  }
  return out;
}

}  // namespace sound_test
