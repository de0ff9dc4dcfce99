// Helpers for the media layer's tests: a temporary folder, pictures written with the image file
// library, and the log that the test's inputs report to.
#pragma once
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "imagefile/imagefile.h"
#include "media/media.h"
#include "support/progress_log.h"

namespace media_test {

// A folder that is removed with everything in it at the end of the test.
struct TempDir {
  std::string path;
  TempDir() {
    char name[] = "/tmp/orn_media_XXXXXX";
    if (mkdtemp(name)) path = name;
  }
  ~TempDir() {
    if (!path.empty()) {
      std::string command = "rm -rf '" + path + "'";
      if (system(command.c_str()) != 0) fprintf(stderr, "could not remove %s\n", path.c_str());
    }
  }
  std::string operator/(const std::string& name) const { return path + "/" + name; }
};

// The test picture: red holds the frame's tag, green x, blue y (each & 255).
inline uint32_t PatternPixel(uint32_t tag, uint32_t x, uint32_t y, uint32_t alpha = 255) {
  return alpha << 24 | (tag & 255) << 16 | (x & 255) << 8 | (y & 255);
}

inline std::vector<uint32_t> Pattern(int width, int height, uint32_t tag, uint32_t alpha = 255) {
  std::vector<uint32_t> pixels(size_t(width) * height);
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x) pixels[size_t(y) * width + x] = PatternPixel(tag, x, y, alpha);
  return pixels;
}

inline bool WriteImage(const std::string& name, int format, int width, int height,
                       const std::vector<uint32_t>& pixels, bool alpha = false) {
  ImagePixels p = {const_cast<uint32_t*>(pixels.data()), ptrdiff_t(width) * 4, width, height,
                   IMAGE_PIXELS_ARGB32};
  ImageWriteParams params = {format, alpha ? 1 : 0, 95, 0};
  return ImageWriteFile(name.c_str(), &params, &p, nullptr) != 0;
}

inline bool WritePng(const std::string& name, int width, int height, uint32_t tag) {
  return WriteImage(name, IMAGE_FORMAT_PNG, width, height, Pattern(width, height, tag));
}

inline void WriteText(const std::string& name, const std::string& text) {
  FILE* f = fopen(name.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  fwrite(text.data(), 1, text.size(), f);
  fclose(f);
}

// What the inputs that Open opens were told; its `answer` decides the replies.
inline test_support::ProgressLog Log;

class MediaTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Log.Clear();
    Log.answer = nullptr;
  }
  void TearDown() override { Log.answer = nullptr; }
  // A numbered PNG series f001.png .. f<count>.png, each tagged with its number.
  void Series(int count, int width = 8, int height = 6) {
    for (int i = 1; i <= count; ++i) {
      char name[32];
      snprintf(name, sizeof name, "f%03d.png", i);
      ASSERT_TRUE(WritePng(dir / name, width, height, uint32_t(i)));
    }
  }
  std::string SeriesName(int count) { return dir / ("f???.png*1-" + std::to_string(count)); }
  TempDir dir;
};

// Opens with all arguments from a record whose progress goes to Log.
inline MediaInput* Open(const std::string& name, MediaOpenArgs args = {}) {
  args.progress = Log.Sink();
  return MediaOpenWith(name.c_str(), &args);
}

// The pixel at (x, y) of the delivered 32-bit frame.
inline uint32_t OutPixel(const MediaInput* input, uint32_t x, uint32_t y) {
  return reinterpret_cast<const uint32_t*>(input->output_buffer + size_t(y) * input->output_pitch)[x];
}

inline bool NextFrame(MediaInput* input) {
  return MediaGetFrame(input, 0, 0, 0, 100, 1.0, 0);
}

// The red tag of every frame delivered until the end.
inline std::vector<uint32_t> FrameTags(MediaInput* input, uint32_t limit = 1000) {
  std::vector<uint32_t> tags;
  while (!input->at_end && tags.size() < limit) {
    if (!NextFrame(input)) break;
    tags.push_back((OutPixel(input, 0, 0) >> 16) & 255);
  }
  return tags;
}

}  // namespace media_test
