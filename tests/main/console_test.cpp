// The program's console, seen from outside: on a terminal, where a binary stream to standard
// output is refused, and redirected, where the stream flows and the converter ends with its
// summary lines.
#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "support/files.h"
#include "support/run.h"
#include "support/terminal.h"

namespace {

using test_support::ReadText;
using test_support::ScratchDir;
using test_support::ToolOutcome;

constexpr int Frames = 3;

// A small y4m clip: 16 x 16 at 30 frames per second, each frame a different grey.
std::string WriteClip(const ScratchDir& dir) {
  std::string y4m = "YUV4MPEG2 W16 H16 F30:1 Ip A1:1 C420jpeg\n";
  for (int t = 0; t < Frames; ++t)
    y4m += "FRAME\n" + std::string(256, char(60 + t * 40)) + std::string(128, char(128));
  test_support::WriteText(dir / "clip.y4m", y4m);
  return dir / "clip.y4m";
}

TEST(ConsoleProgram, Y4mToStandardOutputIsRefusedOnATerminal) {
  const ScratchDir dir;
  const std::string clip = WriteClip(dir);
  const ToolOutcome o = test_support::RunProgramInTerminal(
      ORN_PROGRAM_PATH, {"VelmoConv", clip, "-"}, {"XDG_CONFIG_HOME=" + dir.path});
  EXPECT_EQ(o.code, 8006 & 255) << o.output;
  EXPECT_TRUE(o.Says("Standard output is a terminal")) << o.output;
  EXPECT_FALSE(o.Says("FRAME")) << o.output;
  // Into a pipe the same line writes the stream.
  const ToolOutcome piped = test_support::RunShell("XDG_CONFIG_HOME='" + dir.path +
                                                   "' ORN_CONSOLE=1 " ORN_PROGRAM_PATH
                                                   " VelmoConv '" + clip + "' - 2>/dev/null");
  EXPECT_EQ(piped.code, 0);
  EXPECT_EQ(piped.output.rfind("YUV4MPEG2 W16 H16 F30:1", 0), 0u) << piped.output.substr(0, 80);
  EXPECT_EQ(piped.Times("FRAME\n"), size_t(Frames));
}

// Redirected, the converter's facts and its summary are lines of their own, each value with
// its label; the label of the total time stands on the time's line.
TEST(ConsoleProgram, ConverterSummaryIsOneLabelledLineEach) {
  const ScratchDir dir;
  const std::string clip = WriteClip(dir);
  const ToolOutcome o = test_support::RunProgram(
      ORN_PROGRAM_PATH, {"VelmoConv", clip, dir / "out.avi"}, {"XDG_CONFIG_HOME=" + dir.path});
  ASSERT_EQ(o.code, 0) << o.output;
  std::vector<std::string> lines;
  for (size_t at = 0, end; (end = o.output.find('\n', at)) != std::string::npos; at = end + 1)
    lines.push_back(o.output.substr(at, end - at));
  const auto has = [&](const std::string& line) {
    return std::find(lines.begin(), lines.end(), line) != lines.end();
  };
  EXPECT_TRUE(has("Output: " + dir / "out.avi")) << o.output;
  EXPECT_TRUE(has("Video: 16 x 16, 30.00 frames per second")) << o.output;
  EXPECT_TRUE(has(std::to_string(Frames) + " total frames converted.")) << o.output;
  EXPECT_TRUE(has("Velmo Converter - Done!")) << o.output;
  EXPECT_FALSE(has("Total time:")) << "a label alone on its line:\n" << o.output;
  EXPECT_EQ(std::count_if(lines.begin(), lines.end(),
                          [](const std::string& l) { return l.rfind("Total time: ", 0) == 0; }),
            1)
      << o.output;
  EXPECT_EQ(o.output.find('\r'), std::string::npos) << o.output;
  EXPECT_FALSE(o.Says("progress")) << o.output;
}

}  // namespace
