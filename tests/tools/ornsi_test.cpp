// ORNSI: the report's lines, and the program run with the console front end.
#include <regex>

#include "support/run.h"
#include "tools/ornsi.h"

namespace {

TEST(OrnSystemInfoTest, LinesInOrderAndWellFormed) {
  const std::string text = OrnSystemInfoText();
  ASSERT_FALSE(text.empty());
  EXPECT_EQ(text.back(), '\n');
  EXPECT_EQ(text.find("\n\n"), std::string::npos);
  size_t previous = 0;
  for (const char* part : {"\nVersion: ", "Processor features: ", " CPUs ", "Physical memory: ",
                           "Space on current disk: "}) {
    const size_t found = text.find(part);
    ASSERT_NE(found, std::string::npos) << part;
    EXPECT_GT(found, previous) << part << " comes after the line before it";
    previous = found;
  }
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
  const test_support::ToolOutcome run = test_support::RunProgram(ORN_PROGRAM_PATH, {"ornsi"});
  ASSERT_EQ(run.code, 0) << run.output;
  // Each part once: the text is not printed a second time as a box.
  for (const char* part : {"ORN System Info...", "Physical memory: ", "CPUs with", "Version: "})
    EXPECT_EQ(run.Times(part), 1u) << part << "\n" << run.output;
  EXPECT_FALSE(run.Says("not part of this build")) << run.output;
}

}  // namespace
