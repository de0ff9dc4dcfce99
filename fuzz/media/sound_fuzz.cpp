// Fuzz target for sound input: the wave header walk on its own, then the bytes as a file
// opened through SoundOpen (wave, AVI, FLAC and Ogg Vorbis trials, then as a raw file of the
// type that the first byte picks), read in conversion to another rate and format, rewound and read
// again. The output is capped so that a tiny source rate raised to a huge one ends quickly.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <vector>

#include "media/sound_source.h"

namespace {

constexpr uint32_t MaxReads = 8;

const char* TempName() {
  static char name[64];
  if (!name[0]) snprintf(name, sizeof name, "/tmp/orn_sound_fuzz_%d.bin", static_cast<int>(getpid()));
  return name;
}

void ReadSome(SoundInput* sound) {
  std::vector<uint8_t> buffer(4096);
  for (uint32_t i = 0; i < MaxReads && SoundRead(sound, buffer.data(), 4095) != 0; ++i) {
  }
}

void Exercise(const char* name, uint32_t rate, uint32_t bits, uint32_t channels, uint32_t start,
              uint32_t force, uint32_t skip) {
  SoundInput* sound = SoundOpen(name, rate, bits, channels, start, 0, 0, force, skip, {});
  if (!sound) return;
  ReadSome(sound);
  SoundRewind(sound);
  ReadSome(sound);
  SoundClose(sound);
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  FILE* memory = fmemopen(const_cast<uint8_t*>(data), size, "rb");
  if (memory) {
    SoundWaveHeader header;
    SoundReadWaveHeader(memory, size, &header);
    fclose(memory);
  }
  const char* name = TempName();
  FILE* file = fopen(name, "wb");
  if (!file) return 0;
  const bool written = fwrite(data, 1, size, file) == size;
  fclose(file);
  if (written) {
    Exercise(name, 0, 0, 0, 0, 0, 0);
    Exercise(name, 7000 + data[0] * 150, 8, 1, data[size - 1], 0, 0);
    // A raw type (1 to 4) and rate from the first byte, the skip from the second.
    const uint32_t force = 1 + (data[0] & 3) + (data[0] * 40 + 1) * 8 - 1;
    Exercise(name, 44100, 16, 2, 0, force, size > 1 ? data[1] : 0);
  }
  unlink(name);
  return 0;
}
