// The end-card clip that the build made with the compressor and that the program carries: a
// first-generation file that the reader opens from memory and plays whole, long enough for the
// card's time, showing a picture that fades in (not a flat or empty frame).
#include "main/endcard_clip.h"
#include "player/player_loop.h"
#include "reader/velmo_handle.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstring>
#include <string>
#include <vector>

namespace {

std::atomic<uint32_t> FakeMs{5000};
uint32_t FakeClock() { return FakeMs.load(); }

struct Light {
  uint64_t Sum = 0;
  uint32_t Amber = 0, White = 0, Dark = 0;  // the name, the line below it, the ground
};

Light Measure(const std::vector<uint32_t>& pixels) {
  Light l;
  for (const uint32_t p : pixels) {
    const uint32_t r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
    l.Sum += r + g + b;
    l.Amber += r > 200 && b < 100;
    l.White += r > 200 && g > 200 && b > 200;
    l.Dark += r < 80 && g < 100 && b < 140;
  }
  return l;
}

TEST(PlayerEndCardClip, IsAFirstGenerationFileThatPlaysFromMemory) {
  ASSERT_GT(OrnEndCardClipSize, 64u);
  const std::string magic(reinterpret_cast<const char*>(OrnEndCardClip), 4);
  EXPECT_TRUE(magic == "VLMi" || magic == "VLMk") << magic;

  VelmoSetClockForTest(FakeClock);
  VelmoOpenOptions options{};
  options.ImageSize = OrnEndCardClipSize;
  HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(OrnEndCardClip), &options,
                                  VelmoOpenImage | VelmoOpenNoBackground | VelmoOpenNeverSkip);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  ASSERT_GE(h->Frames, 2u);
  ASSERT_GT(h->FrameRate, 0u);
  // It lasts the card's time, so it does not start over while it shows.
  EXPECT_GE(uint64_t(h->Frames) * 1000 * h->FrameRateDiv / h->FrameRate, PlayerEndCardMs);

  const uint32_t width = h->Width, height = h->Height;
  std::vector<uint32_t> pixels(size_t(width) * height);
  std::vector<Light> frames;
  for (uint32_t n = 1; n <= h->Frames; ++n) {
    for (int i = 0; i < 10000 && VelmoWait(h); ++i) FakeMs += 1;
    ASSERT_EQ(h->FrameNum, n);
    ASSERT_NE(VelmoDoFrame(h), 0u) << "frame " << n;
    std::fill(pixels.begin(), pixels.end(), 0u);
    ASSERT_EQ(VelmoCopyToBuffer(h, pixels.data(), int32_t(width * 4), height, 0, 0,
                                VelmoSurfaceArgb32),
              0u)
        << "frame " << n;
    frames.push_back(Measure(pixels));
    VelmoNextFrame(h);
  }
  VelmoClose(h);
  VelmoSetClockForTest(nullptr);
  // The picture comes up from dark, then shows amber and white letters on a dark ground.
  EXPECT_LT(frames.front().Sum * 2, frames.back().Sum);
  const size_t area = size_t(width) * height;
  EXPECT_GT(frames.back().Amber, area / 50);
  EXPECT_GT(frames.back().White, area / 200);
  EXPECT_GT(frames.back().Dark, area / 2);
}

}  // namespace
