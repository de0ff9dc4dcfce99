// Read-ahead through the library's open: real Velmo files on disk, walked with the "Velmo IO"
// thread and without it, preloaded, inside a larger file, through a handle passed in, with
// jumps, several files at once, a file cut short, a simulated slow medium, and closes while a
// read is pending.
#include "io_test_medium.h"
#include "support/files.h"
#include "velmo_test_files.h"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>

namespace {

using namespace velmo_test;

constexpr uint32_t Frames = 60;

// Frames of 20 to 50 KB, so a small ring goes round many times and packets straddle its end.
std::vector<uint8_t> BigVideo(uint32_t i) {
  std::vector<uint8_t> v(20000 + (i * 7919) % 30000);
  for (size_t k = 0; k < v.size(); ++k) v[k] = uint8_t(i * 31 + k * 7 + (k >> 9));
  return v;
}

std::vector<uint8_t> BigFile(uint32_t frames = Frames) {
  FilePlan s;
  s.Frames = frames;
  s.Video = BigVideo;
  return BuildFile(s);
}

class ReadAheadOpenTest : public VelmoTest {
 protected:
  test_support::ScratchDir Dir;
  std::vector<uint8_t> File;  // the last one Open wrote
  uint32_t Written = 0;
  void SetUp() override {
    VelmoTest::SetUp();
    VelmoSetFileCalls(nullptr);
  }
  void TearDown() override {
    VelmoIOStopUnused();
    EXPECT_FALSE(VelmoIOThreadRunning());
    VelmoTest::TearDown();
  }
  // Writes `bytes` to a new file behind `prefix` bytes of something else; its path.
  std::string Write(const std::vector<uint8_t>& bytes, size_t prefix = 0) {
    std::vector<uint8_t> all(prefix, 0x5A);
    all.insert(all.end(), bytes.begin(), bytes.end());
    const std::string path = Dir / std::to_string(++Written);
    test_support::WriteFile(path, all);
    return path;
  }
  // Writes File, `frames` big frames, and opens it by path with a ring of `ioSize` bytes
  // (0: the default).
  HVELMO Open(uint32_t flags, uint32_t frames = Frames, uint32_t ioSize = 0x40000) {
    File = BigFile(frames);
    VelmoSetIOSize(ioSize);
    HVELMO h = VelmoOpen(Write(File).c_str(), flags | VelmoOpenNoBuffers);
    EXPECT_NE(h, nullptr) << VelmoGetError();
    return h;
  }
  // The selected frame's packet, read to the end, matches the file.
  static ::testing::AssertionResult PacketMatches(HVELMO h, const std::vector<uint8_t>& file) {
    if (!VelmoDoFrame(h)) return ::testing::AssertionFailure() << "frame " << h->FrameNum;
    const uint64_t start = VelmoEntryOffset(h->FrameTable[h->FrameNum - 1]);
    const uint64_t end = VelmoEntryOffset(h->FrameTable[h->FrameNum]);
    if (h->FramePosition != start || h->FrameSize != end - start)
      return ::testing::AssertionFailure() << "packet bounds of frame " << h->FrameNum;
    if (std::memcmp(h->FrameData, file.data() + start, h->FrameSize) != 0)
      return ::testing::AssertionFailure() << "bytes of frame " << h->FrameNum;
    return ::testing::AssertionSuccess();
  }
  static ::testing::AssertionResult WalkAll(HVELMO h, const std::vector<uint8_t>& file,
                                            uint32_t frames) {
    for (uint32_t n = 0; n < frames; ++n) {
      if (auto r = PacketMatches(h, file); !r) return r;
      VelmoNextFrame(h);
    }
    return ::testing::AssertionSuccess();
  }
};

TEST_F(ReadAheadOpenTest, TheReaderThreadServesAWalk) {
  HVELMO h = Open(0);  // a ring far smaller than the file
  ASSERT_NE(h, nullptr);
  const std::vector<uint8_t>& file = File;
  VelmoState* s = VelmoStateOf(h);
  EXPECT_EQ(s->OnReaderList, 1u);
  EXPECT_EQ(h->OpenFlags & VelmoOpenNoBackground, 0u);
  EXPECT_TRUE(VelmoIOThreadRunning());
  EXPECT_EQ(h->IOProvider.BufferSize, 2 * io_test::Unit);
  EXPECT_LT(h->IOProvider.BufferSize, file.size());
  // Twice round, over the loop back to frame 1.
  ASSERT_TRUE(WalkAll(h, file, 2 * Frames + 3));
  // The thread does a selected frame's read by itself.
  for (int i = 0; i < 5; ++i) {
    VelmoNextFrame(h);
    ASSERT_TRUE(io_test::WaitFor([&] { return AtomicRead(&h->FrameReadPending) == 0; }));
    ASSERT_TRUE(PacketMatches(h, file));
  }
  EXPECT_EQ(h->ReadError, 0u);
  VelmoSummary sum;
  VelmoGetSummary(h, &sum);
  EXPECT_EQ(sum.ReadBufferSize, 2 * io_test::Unit);
  EXPECT_GT(sum.HighestBufferUsed, 0u);
  EXPECT_LE(sum.HighestBufferUsed, 2 * io_test::Unit);
  VelmoClose(h);
  EXPECT_FALSE(VelmoIOThreadRunning());
}

TEST_F(ReadAheadOpenTest, WithoutBackgroundReadingTheCallerReads) {
  HVELMO h = Open(VelmoOpenNoBackground);
  ASSERT_NE(h, nullptr);
  EXPECT_EQ(VelmoStateOf(h)->OnReaderList, 0u);
  EXPECT_FALSE(VelmoIOThreadRunning());
  // The open filled the ring.
  EXPECT_EQ(h->IOProvider.RingFree, h->IOProvider.BufferSize - h->IOProvider.BufferUsed);
  EXPECT_GT(h->IOProvider.BytesRead, 0x30000u);
  ASSERT_TRUE(WalkAll(h, File, Frames + 5));
  VelmoClose(h);
}

TEST_F(ReadAheadOpenTest, ASmallFileIsReadWhole) {
  HVELMO h = Open(VelmoOpenNoBackground, 6, 0);
  ASSERT_NE(h, nullptr);
  const std::vector<uint8_t>& file = File;
  EXPECT_EQ(h->ReadBufferSize, file.size() + 16);
  EXPECT_GE(h->IOProvider.BufferSize, file.size());
  const uint64_t read = h->IOProvider.BytesRead;
  EXPECT_EQ(read, file.size());  // header, tables and every frame once
  ASSERT_TRUE(WalkAll(h, file, 3 * 6));
  VelmoGoto(h, 2, VelmoGotoExact | VelmoGotoDirect);
  ASSERT_TRUE(PacketMatches(h, file));
  EXPECT_EQ(h->IOProvider.BytesRead, read);  // never again from the disk
  VelmoClose(h);
}

TEST_F(ReadAheadOpenTest, PreloadReadsTheFramesAtOpenAndClosesTheFile) {
  HVELMO h = Open(VelmoOpenPreload, Frames, 0);
  ASSERT_NE(h, nullptr);
  EXPECT_NE(h->PreloadData, nullptr);
  EXPECT_NE(h->OpenFlags & VelmoOpenNoBackground, 0u);
  EXPECT_EQ(VelmoStateOf(h)->ProviderOpen, 0u);
  EXPECT_FALSE(VelmoIOThreadRunning());
  ASSERT_TRUE(WalkAll(h, File, Frames + 2));
  VelmoClose(h);
}

// The Velmo file inside a larger one: its offset set for the next open of a path, or given in
// the options with a handle passed in, which the close leaves open.
TEST_F(ReadAheadOpenTest, AFileInsideAnotherFileByPathOrHandle) {
  const std::vector<uint8_t> file = BigFile();
  const std::string path = Write(file, 12345);
  VelmoSetFileOffset(12345);
  VelmoSetIOSize(0x80000);
  HVELMO h = VelmoOpen(path.c_str(), VelmoOpenNoBuffers);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_EQ(h->IOProvider.BaseOffset, 12345u);
  EXPECT_EQ(h->IOProvider.OwnsHandle, 1u);
  ASSERT_TRUE(WalkAll(h, file, Frames));
  VelmoClose(h);

  const int fd = open(path.c_str(), O_RDONLY);
  ASSERT_GE(fd, 0);
  VelmoOpenOptions o{};
  o.FileOffset = 12345;
  h = VelmoOpenWithOptions(reinterpret_cast<const char*>(uintptr_t(fd)), &o,
                           VelmoOpenNoBuffers | VelmoOpenFileHandle | VelmoOpenFileOffset);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_EQ(h->IOProvider.OwnsHandle, 0u);
  ASSERT_TRUE(WalkAll(h, file, 10));
  VelmoClose(h);
  EXPECT_NE(fcntl(fd, F_GETFD), -1);
  close(fd);
}

TEST_F(ReadAheadOpenTest, JumpsSeekThroughTheRing) {
  HVELMO h = Open(0);
  ASSERT_NE(h, nullptr);
  for (uint32_t target : {40u, 5u, 41u, 59u, 58u, 1u, 60u, 30u}) {
    VelmoGoto(h, target, VelmoGotoExact | VelmoGotoDirect);
    ASSERT_EQ(h->FrameNum, target);
    ASSERT_TRUE(PacketMatches(h, File));
    VelmoNextFrame(h);
    ASSERT_TRUE(PacketMatches(h, File));
  }
  VelmoClose(h);
}

TEST_F(ReadAheadOpenTest, SeveralFilesPlayAtOnce) {
  std::vector<std::vector<uint8_t>> files;
  std::vector<HVELMO> handles;
  for (uint32_t i = 0; i < 3; ++i) {
    handles.push_back(Open(0, Frames - 10 * i, 0x40000 + i * 0x20000));
    ASSERT_NE(handles.back(), nullptr);
    files.push_back(File);
  }
  EXPECT_EQ(VelmoIOUserCount(), 3u);
  for (uint32_t n = 0; n < 2 * Frames; ++n) {
    for (size_t i = 0; i < handles.size(); ++i) {
      ASSERT_TRUE(PacketMatches(handles[i], files[i])) << "file " << i;
      VelmoNextFrame(handles[i]);
    }
  }
  VelmoClose(handles[1]);
  EXPECT_EQ(VelmoIOUserCount(), 2u);
  VelmoClose(handles[0]);
  VelmoClose(handles[2]);
  EXPECT_EQ(VelmoIOUserCount(), 0u);
}

TEST_F(ReadAheadOpenTest, AFileCutShortStopsWithAReadError) {
  std::vector<uint8_t> file = BigFile();
  file.resize(file.size() * 2 / 3);  // the frames area ends early; the tables are whole
  const std::string path = Write(file);
  VelmoSetIOSize(0x40000);
  HVELMO h = VelmoOpen(path.c_str(), VelmoOpenNoBuffers);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  uint32_t good = 0;
  for (uint32_t n = 0; n < Frames && VelmoDoFrame(h); ++n) {
    ++good;
    VelmoNextFrame(h);
  }
  EXPECT_GT(good, 10u);
  EXPECT_LT(good, Frames);
  EXPECT_NE(h->ReadError, 0u);
  EXPECT_NE(h->IOProvider.ReadError, 0u);
  // From now on the handle does nothing, and closing is safe.
  VelmoNextFrame(h);
  EXPECT_EQ(VelmoDoFrame(h), 0u);
  EXPECT_EQ(VelmoWait(h), 0u);
  VelmoClose(h);
}

TEST_F(ReadAheadOpenTest, ASimulatedSlowMediumTakesItsTime) {
  VelmoSetClockForTest(nullptr);  // the simulation sleeps on the real clock
  const std::vector<uint8_t> file = BigFile(20);
  const std::string path = Write(file);
  const uint32_t rate = 8000000;  // 8 MB/s: the frames take about 90 ms
  VelmoSetSimulate(rate);
  VelmoSetIOSize(0x40000);
  const uint32_t beforeOpen = TimerMs();
  HVELMO h = VelmoOpen(path.c_str(), VelmoOpenNoBuffers | VelmoOpenNoBackground);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  const IOProvider& io = h->IOProvider;
  EXPECT_EQ(io.Simulate.Rate, rate);
  // A read that took longer than the medium's rate (a busy machine) leaves credit, a debt
  // below 0, which the walk's reads use up before they sleep.
  EXPECT_LE(io.Simulate.Owed, 0);
  const int64_t creditFromOpen = -io.Simulate.Owed;
  const uint64_t readAtOpen = io.BytesRead;
  const uint32_t start = TimerMs();
  ASSERT_TRUE(WalkAll(h, file, 20));
  const uint32_t end = TimerMs();
  // Every read paid at the simulated rate, by its own time or by sleeping; the slack covers the
  // whole ms that each read's cost is rounded down to. Load only makes the times longer.
  const uint64_t owedAll = io.BytesRead * 1000 / rate;
  const int64_t owedWalk = int64_t((io.BytesRead - readAtOpen) * 1000 / rate);
  EXPECT_GT(owedWalk, 25);  // the walk itself has a good part to pay
  EXPECT_GE(uint64_t(io.IOTime) + 5, owedAll);
  EXPECT_GE(uint64_t(end - beforeOpen) + 5, owedAll);
  EXPECT_GE(int64_t(end - start) + 5, owedWalk - creditFromOpen);
  VelmoClose(h);
}

// A clock that moves on by itself, a second at every reading: the simulated medium's waits then
// take no real time, and every wait it owes shows on the library's clock.
std::atomic<uint32_t> SteppingNow{1000};
uint32_t SteppingClock() { return SteppingNow.fetch_add(1000); }

TEST_F(ReadAheadOpenTest, AThousandBytesASecondStarveTheRing) {
  VelmoSetClockForTest(SteppingClock);
  // About 630 KB of frames at 30 a second (too much for the ring to take all), some 1 MB a
  // second wanted and 1000 bytes given. On the caller's thread, so that each read falls between
  // the same two frames every run.
  VelmoSetSimulate(1000);
  HVELMO h = Open(VelmoOpenNoFill | VelmoOpenNoBackground, 18);
  ASSERT_NE(h, nullptr);
  const std::vector<uint8_t>& file = File;
  const IOProvider& io = h->IOProvider;
  EXPECT_EQ(io.BufferUsed, 0u);
  // Every frame is late, so the waits never read ahead: each packet is read when it is wanted,
  // and the ring runs dry at every unit. The walk still gets every packet right, round the loop.
  EXPECT_LT(io.BufferSize, file.size());
  uint64_t lowest = ~uint64_t(0);
  for (uint32_t n = 0; n < 21; ++n) {
    ASSERT_EQ(h->FrameNum, n % 18 + 1);
    EXPECT_EQ(VelmoWait(h), 0u);
    ASSERT_TRUE(PacketMatches(h, file)) << "frame " << h->FrameNum;
    EXPECT_LE(io.BufferUsed, VelmoIOUnit);  // never a unit ahead
    lowest = std::min(lowest, AtomicRead64(&io.BufferUsed));
    VelmoNextFrame(h);
  }
  EXPECT_EQ(lowest, 0u);  // the ring ran dry: a frame took all it held
  EXPECT_EQ(h->ReadError, 0u);
  VelmoSummary sum;
  VelmoGetSummary(h, &sum);
  EXPECT_EQ(sum.SkippedFrames, 0u);  // no sound: late frames are shown, not skipped
  // Every byte cost at least its ms of the simulated medium, on the library's clock; a frame
  // that waited for a whole unit shows it in the longest gap between frames.
  EXPECT_GE(io.BytesRead, file.size());
  EXPECT_GE(uint64_t(sum.ReadTime), io.BytesRead);
  EXPECT_LE(sum.ReadSpeed, 1000u);
  EXPECT_GE(sum.Slowest, VelmoIOUnit - 0x1000);
  VelmoClose(h);
}

TEST_F(ReadAheadOpenTest, ClosingWhileAReadIsPending) {
  const std::string path = Write(BigFile());
  for (int i = 0; i < 20; ++i) {
    VelmoSetIOSize(0x40000);
    const uint32_t keep = i % 3 == 0 ? uint32_t(VelmoOpenKeepThreads) : 0u;
    HVELMO h = VelmoOpen(path.c_str(), VelmoOpenNoBuffers | keep);
    ASSERT_NE(h, nullptr) << VelmoGetError();
    for (int k = 0; k < i % 7; ++k) VelmoNextFrame(h);
    VelmoGoto(h, 1 + (i * 13) % Frames, VelmoGotoExact | VelmoGotoDirect);
    VelmoClose(h);  // the thread may be in the middle of the packet
  }
  EXPECT_EQ(VelmoIOUserCount(), 0u);
}

}  // namespace
