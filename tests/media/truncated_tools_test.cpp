// The tools on inputs that end early or lie in their headers, run as the real program with a
// memory cap: each run ends with the input error and a message naming the file, and no run
// needs more memory than an honest file of that size would. (Cut files of every kind through
// every tool: hostile/hostile_input_test.)
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>
#include <vector>

#include "format/container.h"
#include "support/files.h"
#include "support/run.h"
#include "support/velmo_file.h"
#include "support/wave.h"

namespace {

using namespace test_support;

constexpr int InputError = 8002 & 255;  // what a shell sees of the tools' input error

#if defined(__SANITIZE_ADDRESS__)
constexpr bool MemoryCap = false;  // the sanitizer's shadow memory needs the address space
#else
constexpr bool MemoryCap = true;
#endif

constexpr int TimedOut = 124;  // what `timeout` gives a run that it stopped

// Runs the program on `tail` with no display, 60 seconds at most and, unless sanitized, 1 GiB
// of address space; its standard input is `input`.
ToolOutcome RunCapped(const std::string& tail, const std::string& input = "/dev/null") {
  std::string command = "env -u DISPLAY -u WAYLAND_DISPLAY ORN_CONSOLE=1 timeout 60 ";
  if (MemoryCap) command = "ulimit -v 1048576; " + command;
  return RunShell("(" + command + ORN_PROGRAM_PATH + " " + tail + ") <" + input + " 2>&1");
}

class TruncatedToolsTest : public ::testing::Test {
 protected:
  ScratchDir dir;
};

velmo_test::FilePlan SmallVelmo() {
  velmo_test::FilePlan plan;
  plan.Width = 32;
  plan.Height = 16;
  plan.Frames = 12;
  plan.Rate = 24;
  return plan;
}

// The largest resident size of any finished child of this test program, in KiB.
long PeakChildKiB() {
  rusage usage{};
  getrusage(RUSAGE_CHILDREN, &usage);
  return usage.ru_maxrss;
}

// A YUV4MPEG2 stream that ends inside its last frame, read from a file or from a pipe: the
// whole frames are converted, with one warning. (A pipe's end is only met by a read that finds
// nothing, which repeats the last frame: its count is not compared.)
TEST_F(TruncatedToolsTest, StreamEndingInsideAFrameWarnsOnceAndConverts) {
  std::string y4m = "YUV4MPEG2 W8 H4 F25:1 C444\n";
  for (int f = 0; f < 5; ++f) y4m += "FRAME\n" + std::string(8 * 4 * 3, char(40 + 20 * f));
  WriteText(dir / "cut.y4m", y4m.substr(0, y4m.size() - 30));
  for (const bool pipe : {false, true}) {
    const ToolOutcome outcome =
        pipe ? RunCapped("velmoconv - " + dir / "p.avi", dir / "cut.y4m")
             : RunCapped("velmoconv " + dir / "cut.y4m" + " " + dir / "f.avi");
    EXPECT_EQ(outcome.code, 0) << outcome.output;
    EXPECT_EQ(outcome.Times("ends early"), 1u) << outcome.output;
    if (!pipe) {
      EXPECT_TRUE(outcome.Says("4 total frames converted")) << outcome.output;
    }
  }
}

// Header fields that would size giant buffers or loops: each run ends with the input error
// inside the memory and time caps, for every tool that reads the file; the mixer refuses the
// file as corrupt (its own failure code) instead of mixing sound for frames that last for ages.
TEST_F(TruncatedToolsTest, InflatedVelmoHeadersStayWithinTheCap) {
  WriteWave16(dir / "s.wav", 8000, 1, Noise(8000, 4));
  const std::vector<uint8_t> file = velmo_test::BuildFile(SmallVelmo());
  VelmoHeader header{};
  ASSERT_TRUE(VelmoParseHeader(file.data(), file.size(), &header));
  WriteFile(dir / "honest.vlm", file);
  EXPECT_EQ(RunCapped("velmoconv " + dir / "honest.vlm" + " " + dir / "honest.avi").code, 0);
  // The mixer copies packets by the frame table and writes its own largest-packet field: only
  // the rate matters to it.
  const struct {
    const char* name;
    void (*lie)(VelmoHeader*);
    bool mixerRefuses;
  } lies[] = {
      {"divisor.vlm", [](VelmoHeader* h) { h->FrameRateDiv = 0xFFFFFFFFu; }, true},
      {"rate.vlm", [](VelmoHeader* h) { h->FrameRate = 0xFFFFFFFFu; }, true},
      {"packet.vlm", [](VelmoHeader* h) { h->LargestFrameSize = 0xFFFFFFFFu; }, false},
      {"huge.vlm", [](VelmoHeader* h) { h->Width = h->Height = 32767; }, false},
  };
  for (const auto& lie : lies) {
    VelmoHeader told = header;
    lie.lie(&told);
    std::vector<uint8_t> bytes = file;
    VelmoStoreHeader(told, bytes.data());
    const std::string name = dir / lie.name;
    WriteFile(name, bytes);
    for (const std::string& tail : {"velmoconv " + name + " " + dir / "x.avi",
                                    "velmoc " + name + " " + dir / "x.vlm"}) {
      const ToolOutcome outcome = RunCapped(tail);
      EXPECT_EQ(outcome.code, InputError) << tail << "\n" << outcome.output;
    }
    const ToolOutcome info = RunCapped("orninfo " + name);
    EXPECT_NE(info.code, TimedOut) << info.output;
    EXPECT_TRUE(info.Says(lie.name)) << info.output;
    EXPECT_FALSE(Exists(dir / "x.avi"));
    const ToolOutcome mix = RunCapped("velmomix " + name + " " + dir / "s.wav" + " " + dir / "m.vlm /O");
    EXPECT_NE(mix.code, TimedOut) << mix.output;
    if (!lie.mixerRefuses) continue;
    EXPECT_NE(mix.code, 0) << mix.output;
    EXPECT_TRUE(mix.Says("corrupt header")) << mix.output;
    EXPECT_FALSE(Exists(dir / "m.vlm"));
  }
  // No run came near a size that the lies stated (the file itself is a few kilobytes).
  if (MemoryCap) {
    EXPECT_LT(PeakChildKiB(), 256 * 1024);
  }
}

}  // namespace
