// Helpers for the reader library's tests: Velmo files built in memory with the container's
// writer functions, a clock the tests move by hand, and opens from memory through the image
// flag or the memory provider.
#pragma once
#include "../format/container_test_util.h"
#include "reader/velmo_handle.h"
#include "velmo.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <vector>

namespace velmo_test {

// The clock the library reads in these tests.
inline uint32_t FakeNow = 1000;
inline uint32_t FakeClock() { return FakeNow; }

struct FileSpec {
  uint32_t Version = 100;  // "VLMi"
  int32_t Width = 16, Height = 16;
  uint32_t Rate = 30, RateDiv = 1;
  uint32_t Frames = 10;
  uint32_t IndexFrames = 0;  // 0: Frames
  uint32_t KeyEvery = 5;     // frames 1, 1 + KeyEvery, ... are key frames
  uint32_t Flags = 0;
  std::vector<VelmoTrackInfo> Tracks;
  // Video bytes of frame i (from 0); by default 8 bytes of the frame's number.
  std::function<std::vector<uint8_t>(uint32_t)> Video;
  // Coded sound of track t in frame i (empty: none) and its DecodedBytes; by default none.
  std::function<std::vector<uint8_t>(uint32_t i, size_t t, uint32_t* decoded)> Sound;
};

inline std::vector<uint8_t> DefaultVideo(uint32_t i) {
  std::vector<uint8_t> v(8);
  for (uint32_t k = 0; k < 8; ++k) v[k] = uint8_t(i * 8 + k);
  return v;
}

inline TestWriter BuildWriter(const FileSpec& s) {
  VelmoWriteParams p{};
  p.Version = s.Version;
  p.Width = s.Width;
  p.Height = s.Height;
  p.FrameRate = s.Rate;
  p.FrameRateDiv = s.RateDiv;
  p.IndexFrames = s.IndexFrames ? s.IndexFrames : s.Frames;
  p.Flags = s.Flags;
  p.TrackCount = uint32_t(s.Tracks.size());
  p.Tracks = s.Tracks.empty() ? nullptr : s.Tracks.data();
  TestWriter w;
  EXPECT_TRUE(StartWriter(p, &w));
  for (uint32_t i = 0; i < s.Frames; ++i) {
    std::vector<std::vector<uint8_t>> sounds(s.Tracks.size());
    std::vector<uint32_t> decoded(s.Tracks.size(), 0);
    for (size_t t = 0; s.Sound && t < s.Tracks.size(); ++t) sounds[t] = s.Sound(i, t, &decoded[t]);
    AddFrame(&w, s.KeyEvery && i % s.KeyEvery == 0, sounds, decoded,
             s.Video ? s.Video(i) : DefaultVideo(i));
  }
  Checkpoint(&w);
  return w;
}

inline std::vector<uint8_t> BuildFile(const FileSpec& s) { return BuildWriter(s).File; }

inline void Store32(std::vector<uint8_t>* file, size_t at, uint32_t value) {
  std::memcpy(file->data() + at, &value, 4);
}
inline uint32_t Load32(const std::vector<uint8_t>& file, size_t at) {
  uint32_t v;
  std::memcpy(&v, file.data() + at, 4);
  return v;
}

// Opens an image in memory (the image flag); the bytes must outlive the handle.
inline HVELMO OpenImage(const std::vector<uint8_t>& file, uint32_t flags = 0) {
  VelmoOpenOptions o{};
  o.ImageSize = file.size();
  return VelmoOpenWithOptions(reinterpret_cast<const char*>(file.data()), &o,
                              flags | VelmoOpenImage);
}

// Opens through the memory provider as a custom provider: the path of a file on disk, with a
// packet buffer and reads on the caller's thread.
struct ProviderOpen {
  VelmoMemorySpan Span{};
  HVELMO Open(const std::vector<uint8_t>& file, uint32_t flags = 0, VelmoOpenOptions o = {}) {
    Span = {file.data(), file.size()};
    o.CustomIO = VelmoMemoryProviderOpen;
    return VelmoOpenWithOptions(reinterpret_cast<const char*>(&Span), &o,
                                flags | VelmoOpenCustomIO | VelmoOpenNoBackground);
  }
};

// Every test starts with the fake clock and no read-ahead service (reads on the caller's
// thread), and leaves the process-wide settings as it found them.
class VelmoTest : public ::testing::Test {
 protected:
  void SetUp() override {
    FakeNow = 1000;
    VelmoSetClockForTest(FakeClock);
    VelmoSetFrameRate(0xFFFFFFFFu, 0xFFFFFFFFu);
    VelmoSetFileOffset(0);
    VelmoSetIOSize(0);
    VelmoSetSimulate(0);
    const uint32_t zero = 0;
    VelmoSetSoundTracks(1, &zero);
  }
  void TearDown() override { VelmoSetClockForTest(nullptr); }
};

}  // namespace velmo_test
