// ORNSI: the report's lines, and the program run with the console front end.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdio>
#include <cstdlib>
#include <regex>
#include <string>

#include "tools/ornsi.h"

namespace {

// Runs a shell command line; returns its exit code and stdout.
int RunCommand(const std::string& command, std::string* out) {
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return -1;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof buf, pipe)) > 0) out->append(buf, n);
  const int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

TEST(OrnSystemInfoTest, LinesInOrderAndWellFormed) {
  const std::string text = OrnSystemInfoText();
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  EXPECT_EQ(text.find("\n\n"), std::string::npos);
  const size_t version = text.find("\nVersion: ");
  const size_t features = text.find("Processor features: ");
  const size_t count = text.find(" CPUs ");
  const size_t memory = text.find("Physical memory: ");
  const size_t disk = text.find("Space on current disk: ");
  ASSERT_NE(version, std::string::npos);
  ASSERT_NE(features, std::string::npos);
  ASSERT_NE(count, std::string::npos);
  ASSERT_NE(memory, std::string::npos);
  ASSERT_NE(disk, std::string::npos);
  EXPECT_LT(version, features);
  EXPECT_LT(features, count);
  EXPECT_LT(count, memory);
  EXPECT_LT(memory, disk);
  // Grouped megabytes, and a processor count consistent with itself.
  EXPECT_TRUE(std::regex_search(
      text, std::regex("Physical memory: [1-9][0-9]{0,2}(,[0-9]{3})* MB  Total memory: "
                       "[1-9][0-9]{0,2}(,[0-9]{3})* MB\n")));
  std::smatch m;
  ASSERT_TRUE(std::regex_search(text, m, std::regex("(\\d+) CPUs (over \\d+ sockets )?with (\\d+) "
                                                    "cores and (\\d+) hyperthreads\n")));
  const int logical = std::stoi(m[1]), cores = std::stoi(m[3]), extra = std::stoi(m[4]);
  EXPECT_GE(logical, 1);
  EXPECT_LE(cores, logical);
  EXPECT_EQ(cores + extra, logical);
  EXPECT_NE(text.find("SSE2"), std::string::npos);  // every x86-64 processor has it
}

TEST(OrnSystemInfoTest, ProgramPrintsTheReportAndTheBox) {
  std::string out;
  const std::string command = std::string("env -u DISPLAY -u WAYLAND_DISPLAY ORN_CONSOLE=1 '") +
                              ORN_PROGRAM_PATH + "' ornsi 2>&1 </dev/null";
  ASSERT_EQ(RunCommand(command, &out), 0) << out;
  EXPECT_NE(out.find("ORN System Info..."), std::string::npos) << out;
  EXPECT_NE(out.find("Physical memory: "), std::string::npos) << out;
  EXPECT_NE(out.find("CPUs with"), std::string::npos) << out;
  EXPECT_NE(out.find("Version: "), std::string::npos) << out;
  EXPECT_EQ(out.find("not part of this build"), std::string::npos) << out;
}

}  // namespace
