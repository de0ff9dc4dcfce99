// Helpers for the media layer's tests: pictures written with the image file library, and the log
// that the test's inputs report to.
#pragma once
#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "media/media.h"
#include "support/files.h"
#include "support/picture.h"
#include "support/progress_log.h"

namespace media_test {

using test_support::ScratchDir;
using test_support::WriteImage;
using test_support::WriteText;

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

inline bool WritePng(const std::string& name, int width, int height, uint32_t tag) {
  return WriteImage(name, IMAGE_FORMAT_PNG, width, height, Pattern(width, height, tag));
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
  ScratchDir dir;
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
