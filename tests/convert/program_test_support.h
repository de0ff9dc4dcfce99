// Helpers for the tests that run the real program or read what it wrote: shell runs, temporary
// folders, little-endian fields, PNG and wave inputs made here, and pictures read back.
#pragma once

#include <gtest/gtest.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "imagefile/imagefile.h"
#include "media/sound.h"

namespace program_test {

// Runs a shell command line; returns its exit status and appends its stdout to *out if given.
inline int RunShell(const std::string& command, std::string* out = nullptr) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0)
    if (out) out->append(buffer, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

inline std::string ReadAll(const std::string& name) {
  std::string data;
  FILE* f = std::fopen(name.c_str(), "rb");
  if (!f) return data;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, f)) > 0) data.append(buffer, n);
  std::fclose(f);
  return data;
}

inline bool Exists(const std::string& name) {
  struct stat st;
  return stat(name.c_str(), &st) == 0;
}

// Little-endian fields of a byte string or byte vector; zero past the end.
template <typename Bytes>
uint32_t Le16(const Bytes& d, size_t at) {
  return at + 2 > d.size() ? 0 : uint32_t(uint8_t(d[at])) | uint32_t(uint8_t(d[at + 1])) << 8;
}
template <typename Bytes>
uint32_t Le32(const Bytes& d, size_t at) {
  return at + 4 > d.size() ? 0 : Le16(d, at) | Le16(d, at + 2) << 16;
}

// A test's own folder under /tmp, removed with everything in it at the end.
class TempDirTest : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/orn_prog_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir = pattern;
  }
  void TearDown() override {
    const std::string command = "rm -rf '" + dir + "'";
    EXPECT_EQ(std::system(command.c_str()), 0);
  }
  std::string dir;
};

inline void WritePng(const std::string& name, std::vector<uint32_t>& pixels, int width, int height,
                     bool alpha) {
  ImagePixels p{pixels.data(), ptrdiff_t(width) * 4, width, height, IMAGE_PIXELS_ARGB32};
  ImageWriteParams params{IMAGE_FORMAT_PNG, alpha ? 1 : 0, 90, 0};
  ImageError error{};
  ASSERT_TRUE(ImageWriteFile(name.c_str(), &params, &p, &error)) << error.text;
}

struct Picture {
  int width = 0, height = 0, has_alpha = 0;
  std::vector<uint32_t> pixels;
};

// Reads frame 0 of a picture file as ARGB; false when it cannot be opened or read.
inline bool ReadPicture(const std::string& name, Picture* out) {
  ImageFile* file = ImageFileOpen(name.c_str(), nullptr);
  if (!file) return false;
  const ImageInfo* info = ImageFileInfo(file);
  out->width = info->width;
  out->height = info->height;
  out->has_alpha = info->has_alpha;
  out->pixels.assign(size_t(out->width) * out->height, 0);
  ImagePixels p{out->pixels.data(), ptrdiff_t(out->width) * 4, out->width, out->height,
                IMAGE_PIXELS_ARGB32};
  const bool ok = ImageFileReadFrame(file, 0, &p, nullptr) != 0;
  ImageFileClose(file);
  return ok;
}

// The 44-byte header of a wave file with one 16-byte "fmt " chunk and `bytes` of sample data.
inline std::string WaveHeader(uint16_t tag, uint16_t channels, uint32_t rate, uint16_t bits,
                              uint32_t bytes) {
  std::string h;
  const auto put = [&h](uint32_t v, int size) {
    h.append(reinterpret_cast<const char*>(&v), size);
  };
  h += "RIFF", put(36 + bytes, 4), h += "WAVEfmt ";
  put(16, 4), put(tag, 2), put(channels, 2), put(rate, 4), put(rate * channels * bits / 8, 4);
  put(channels * bits / 8, 2), put(bits, 2), h += "data", put(bytes, 4);
  return h;
}

inline void WriteWave(const std::string& name, uint16_t tag, uint16_t channels, uint32_t rate,
                      uint16_t bits, const void* data, uint32_t bytes) {
  FILE* f = std::fopen(name.c_str(), "wb");
  ASSERT_TRUE(f);
  const std::string header = WaveHeader(tag, channels, rate, bits, bytes);
  std::fwrite(header.data(), 1, header.size(), f);
  std::fwrite(data, 1, bytes, f);
  std::fclose(f);
}

// A written PCM wave file: its header has the given format and data length, and it holds
// exactly that much data.
template <typename Bytes>
void ExpectWaveHeader(const Bytes& data, uint32_t rate, uint32_t bits, uint32_t channels,
                      uint32_t dataBytes) {
  ASSERT_EQ(data.size(), 44u + dataBytes);
  EXPECT_EQ(std::string(data.begin(), data.begin() + 44),
            WaveHeader(1, uint16_t(channels), rate, uint16_t(bits), dataBytes));
}

// The read function the mixer takes, over an open sound input.
inline uint32_t ReadSoundInput(void* source, void* buffer, uint32_t bytes) {
  return SoundRead(static_cast<SoundInput*>(source), buffer, bytes);
}

}  // namespace program_test
