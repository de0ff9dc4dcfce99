// Whole-sound reads for the sound input tests; wave files and noise come from support/wave.h.
#pragma once
#include <cstdint>
#include <string>
#include <vector>

#include "media/sound.h"
#include "support/files.h"
#include "support/wave.h"

namespace sound_test {

using namespace test_support;

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

// Samples as floats of 32 or 64 bits.
inline std::vector<uint8_t> FloatBytes(const std::vector<double>& values, uint32_t bits) {
  std::vector<uint8_t> out;
  for (const double v : values) {
    const float f = float(v);
    const uint8_t* raw = bits == 32 ? reinterpret_cast<const uint8_t*>(&f) : reinterpret_cast<const uint8_t*>(&v);
    out.insert(out.end(), raw, raw + bits / 8);
  }
  return out;
}

}  // namespace sound_test
