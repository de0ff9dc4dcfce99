// The tools on inputs that end early or lie in their headers, run as the real program with a
// memory cap: each run ends with the input error and a message naming the file, and no run
// needs more memory than an honest file of that size would. (Cut files of every kind through
// every tool: hostile/hostile_input_test.)
#include <gtest/gtest.h>

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

// Runs the program on `args` with no display, 60 seconds at most and, unless sanitized, 1 GiB
// of address space; its standard input is `input`. No run may need more memory than an honest
// file of a few kilobytes would.
CappedOutcome RunTool(const std::vector<std::string>& args, const std::string& input = "/dev/null") {
  RunCaps caps;
  caps.time_ms = 60000;
  caps.input = input;
  const CappedOutcome r = RunCapped(ORN_PROGRAM_PATH, args, caps);
  EXPECT_FALSE(r.timed_out) << args[0] << " " << args[1];
  if (!kAddressSanitizer) {
    EXPECT_LT(r.peak_kb, 256 * 1024) << args[0] << " " << args[1];
  }
  return r;
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

// A YUV4MPEG2 stream that ends inside its last frame, read from a file or from a pipe: the
// whole frames are converted, each once, with one warning; a whole stream through a pipe
// gives just its frames.
TEST_F(TruncatedToolsTest, StreamEndingInsideAFrameWarnsOnceAndConverts) {
  std::string y4m = "YUV4MPEG2 W8 H4 F25:1 C444\n";
  for (int f = 0; f < 5; ++f) y4m += "FRAME\n" + std::string(8 * 4 * 3, char(40 + 20 * f));
  WriteText(dir / "cut.y4m", y4m.substr(0, y4m.size() - 30));
  for (const bool pipe : {false, true}) {
    const CappedOutcome outcome = pipe ? RunTool({"velmoconv", "-", dir / "p.avi"}, dir / "cut.y4m")
                                       : RunTool({"velmoconv", dir / "cut.y4m", dir / "f.avi"});
    EXPECT_EQ(outcome.code, 0) << outcome.output;
    EXPECT_EQ(outcome.Times("ends early"), 1u) << outcome.output;
    EXPECT_TRUE(outcome.Says("4 total frames converted")) << outcome.output;
  }
  WriteText(dir / "whole.y4m", y4m);
  const CappedOutcome whole = RunTool({"velmoconv", "-", dir / "w.avi"}, dir / "whole.y4m");
  EXPECT_EQ(whole.code, 0) << whole.output;
  EXPECT_TRUE(whole.Says("5 total frames converted")) << whole.output;
  // The compressor plans its frame index whole, so a pipe of unknown length is refused by name.
  const CappedOutcome compressed = RunTool({"velmoc", "-", dir / "w.vlm"}, dir / "whole.y4m");
  EXPECT_EQ(compressed.code, InputError) << compressed.output;
  EXPECT_TRUE(compressed.Says("The standard input has too many frames")) << compressed.output;
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
  EXPECT_EQ(RunTool({"velmoconv", dir / "honest.vlm", dir / "honest.avi"}).code, 0);
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
    for (const auto& [tool, output] : {std::pair{"velmoconv", "x.avi"}, std::pair{"velmoc", "x.vlm"}}) {
      const CappedOutcome outcome = RunTool({tool, name, dir / output});
      EXPECT_EQ(outcome.code, InputError) << tool << "\n" << outcome.output;
    }
    const CappedOutcome info = RunTool({"orninfo", name});
    EXPECT_TRUE(info.Says(lie.name)) << info.output;
    EXPECT_FALSE(Exists(dir / "x.avi"));
    const CappedOutcome mix = RunTool({"velmomix", name, dir / "s.wav", dir / "m.vlm", "/O"});
    if (!lie.mixerRefuses) continue;
    EXPECT_NE(mix.code, 0) << mix.output;
    EXPECT_TRUE(mix.Says("corrupt header")) << mix.output;
    EXPECT_FALSE(Exists(dir / "m.vlm"));
  }
}

}  // namespace
