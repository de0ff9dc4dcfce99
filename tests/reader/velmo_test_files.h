// Helpers for the reader library's tests: a clock the tests move by hand, and opens of files
// built in memory (support/velmo_file.h) through the image flag or the memory provider.
#pragma once
#include "support/velmo_file.h"
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

inline void Store32(std::vector<uint8_t>* file, size_t at, uint32_t value) {
  std::memcpy(file->data() + at, &value, 4);
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
  // Builds `s` into File and opens it as an image.
  HVELMO Open(const FilePlan& s = {}, uint32_t flags = 0) {
    File = BuildFile(s);
    HVELMO h = OpenImage(File, flags);
    EXPECT_NE(h, nullptr) << VelmoGetError();
    return h;
  }
  std::vector<uint8_t> File;
};

}  // namespace velmo_test
