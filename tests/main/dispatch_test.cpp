// The entry's dispatch, seen from outside: the real program run with command lines, its
// messages read from its output and its tails from its dispatch trace.
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <string>
#include <vector>

#include "host/settings.h"
#include "support/files.h"
#include "support/run.h"

namespace {

using test_support::ReadText;
using test_support::ToolOutcome;

// The runs' XDG_CONFIG_HOME, removed when the program ends.
const std::string& Config() {
  static const test_support::ScratchDir dir;
  return dir.path;
}

ToolOutcome RunTool(const std::vector<std::string>& args, const std::string& program = ORN_PROGRAM_PATH) {
  return test_support::RunProgram(program, args, {"ORN_TRACE_DISPATCH=1", "XDG_CONFIG_HOME=" + Config()});
}

std::string Joined(const std::vector<std::string>& args) {
  std::string line;
  for (const std::string& a : args) line += "[" + a + "]";
  return line;
}

// Each word, in any case, reaches its tool (or the message that the tool is missing), and the
// exit status tells which: 1 for a refusal, 8005 & 255 for a tool's syntax help, 8002 & 255 for
// an input the second-generation compressor cannot open.
TEST(Dispatch, WordsPickTheirToolWithItsExitCode) {
  const std::string missing = " is not part of this build yet.";
  const std::string velmoSyntax = "Syntax:  Velmo <Input Graphics File>";
  const std::string convSyntax = "Syntax:  VelmoConv <Input File> <Output File> [/Switches]";
  const std::string mixSyntax =
      "Syntax:  VelmoMix <Input Velmo File>[.VLM] <Input Sound File> <Output Velmo "
      "File>[.VLM] [/Switches]";
  struct Case {
    std::vector<std::string> words, tail;
    int code;
    std::string said;
    bool built;  // "not part of this build" must not be said
  } cases[] = {
      {{"velmoplay", "VELMOPLAY", "VelmoPl64"}, {"in.avi"}, 1, "Velmo Error", true},
      {{"ORNBatch"}, {"in.avi"}, 1, "ORNBatch" + missing, false},
      {{"orn2exe"}, {"in.avi"}, 1, "ORN2EXE" + missing, false},
      {{"TarvMix"}, {"in.avi"}, 1, "TarvMix" + missing, false},
      {{"tarv"}, {"in.avi"}, 1, "Tarv" + missing, false},
      {{"ornana"}, {"in.avi"}, 1, "ORNAna" + missing, false},
      {{"tarvplay"}, {"a.trv"}, 1, "TarvPlw", false},
      {{"Velmo", "VELMOC"}, {"in.avi"}, 8005 & 255, velmoSyntax, false},
      {{"velmo2c", "Velmo2C64"}, {"in.avi", "out.vm2"}, 8002 & 255,
       "Couldn't open the input file 'in.avi'", true},
      {{"VelmoConv", "VELMOCONV"}, {"in.avi"}, 8005 & 255, convSyntax, true},
      {{"velmomix", "VELMOMIX"}, {"in.vlm"}, 8005 & 255, mixSyntax, true},
      {{"ORNINFO"}, {"/tmp"}, 0, "Information on /tmp", true},
      {{"ornsi", "OrnSi", "ORNSI"}, {}, 0, "ORN System Info...", true},
  };
  for (const Case& c : cases)
    for (const std::string& word : c.words) {
      std::vector<std::string> args = {word};
      args.insert(args.end(), c.tail.begin(), c.tail.end());
      SCOPED_TRACE(Joined(args));
      const ToolOutcome o = RunTool(args);
      EXPECT_EQ(o.code, c.code) << o.output;
      EXPECT_TRUE(o.Says(c.said)) << o.output;
      if (c.built) {
        EXPECT_FALSE(o.Says("not part of this build")) << o.output;
      }
    }
}

TEST(Dispatch, UnknownWordsAreRefused) {
  for (const char* word : {"velmoplayer", "velm", "velmoc2", "launcher", "/v100", "--helpme", "/??"}) {
    SCOPED_TRACE(word);
    ToolOutcome o = RunTool({word, "a.vlm"});
    EXPECT_EQ(o.code, 1);
    EXPECT_TRUE(o.Says("ORN Video Tools")) << o.output;
    EXPECT_TRUE(o.Says("Unknown command line command.")) << o.output;
    EXPECT_FALSE(o.Says("ORN dispatch:"));
    EXPECT_FALSE(o.Says("Usage:")) << o.output;
  }
}

// The usage: how to run a tool, each tool word of this build with what it does, and the words
// of the tools still missing.
void ExpectUsage(const ToolOutcome& o) {
  EXPECT_TRUE(o.Says("Usage: ORNVideo64 <tool word> [files and switches]")) << o.output;
  for (const char* row : {"\n  velmoconv ", "\n  velmomix ", "\n  velmo, velmoc ",
                          "\n  velmo2c, velmo2c64 ", "\n  orninfo ", "\n  ornsi ",
                          "\n  versioncheck ", "\n  tarvplw, tarvply, tarvplay ",
                          "\n  velmoplay, velmopl64 "})
    EXPECT_TRUE(o.Says(row)) << row << "\n" << o.output;
  const size_t missing = o.output.find("Not in this build yet: ");
  ASSERT_NE(missing, std::string::npos) << o.output;
  const std::string line = o.output.substr(missing, o.output.find('\n', missing) - missing);
  for (const char* word : {"ornbatch", "orn2exe", "tarvmix", "tarv", "ornana"})
    EXPECT_NE(line.find(word), std::string::npos) << word << " in " << line;
  EXPECT_EQ(line.find("velmoconv"), std::string::npos) << line;
  EXPECT_EQ(line.find("velmoplay"), std::string::npos) << line;
}

// --help, -h and /? print the usage on standard output and end with 0; an empty line opens
// the launcher, which without a display prints the usage on standard error and ends with 1.
TEST(Dispatch, HelpWordsAndAnEmptyLineWithoutADisplayShowTheUsage) {
  for (const char* word : {"--help", "-h", "/?", "--HELP", "-H"}) {
    SCOPED_TRACE(word);
    const ToolOutcome o = RunTool({word});
    EXPECT_EQ(o.code, 0);
    ExpectUsage(o);
    EXPECT_FALSE(o.Says("Unknown command")) << o.output;
    EXPECT_FALSE(o.Says("ORN dispatch:")) << o.output;
    const ToolOutcome out = test_support::RunShell(std::string(ORN_PROGRAM_PATH) + " '" + word +
                                                   "' 2>/dev/null");
    EXPECT_EQ(out.code, 0);
    EXPECT_TRUE(out.Says("Usage: ORNVideo64")) << "not on standard output: " << out.output;
  }
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {""}, {"   "}, {" ", "\t"}}) {
    SCOPED_TRACE(Joined(args));
    ToolOutcome o = RunTool(args);
    EXPECT_EQ(o.code, 1);
    ExpectUsage(o);
    EXPECT_FALSE(o.Says("The launcher is not part of this build yet.")) << o.output;
    EXPECT_FALSE(o.Says("Unknown command")) << o.output;
  }
  const ToolOutcome bare =
      test_support::RunShell("ORN_CONSOLE=1 " + std::string(ORN_PROGRAM_PATH) + " 2>/dev/null");
  EXPECT_EQ(bare.code, 1);
  EXPECT_EQ(bare.output, "") << "the usage of a refused line goes to standard error";
}

// The tail each tool is handed: compressors get their default version at the very end unless
// one is given, parent window switches leave it, a comma behind the word is swallowed.
TEST(Dispatch, TailsHandedToTheTools) {
  const struct {
    std::vector<std::string> args;
    const char* trace;
  } cases[] = {
      {{"velmoc", "in.avi", "out.vlm", "/d5000"},
       "ORN dispatch: Velmoc tail \"in.avi out.vlm /d5000 /v100\""},
      {{"velmo", "in.avi", "out.vlm"}, "tail \"in.avi out.vlm /v100\""},
      {{"velmo2c", "in.avi", "out.vm2"}, "ORN dispatch: Velmo2c tail \"in.avi out.vm2 /v200\""},
      {{"VELMO2C64", "in.avi"}, "tail \"in.avi /v200\""},
      // Names with blanks keep their quotes; the switch still goes behind them.
      {{"velmoc", "my movie.avi", "out file.vlm"},
       "tail \"\"my movie.avi\" \"out file.vlm\" /v100\""},
      {{"velmoc", "in.avi", "/v210", "out.vm2"}, "tail \"in.avi /v210 out.vm2\""},
      {{"velmo2c", "/V150", "in.avi"}, "tail \"/V150 in.avi\""},
      {{"velmoc", "in.avi", "/v"}, "/v100\""},  // a /V with no number is no version
      {{"velmoconv", "in.vlm", "out.avi", "/#4242", "/#"},
       "ORN dispatch: VelmoConv tail \"in.vlm out.avi\""},
      {{"tarv", "/#", "in.flc", "out.trv"}, "tail \"in.flc out.trv\""},
      {{"velmomix", ",", "a.vlm"}, "ORN dispatch: VelmoMix tail \"a.vlm\""},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(Joined(c.args));
    const ToolOutcome o = RunTool(c.args);
    EXPECT_TRUE(o.Says(c.trace)) << o.output;
  }
}

TEST(Dispatch, VersionCheckStoresItsSetting) {
  setenv("XDG_CONFIG_HOME", Config().c_str(), 1);
  const struct {
    std::vector<std::string> args;
    const char* said;
    const char* stored;
  } cases[] = {{{"versioncheck", "off"}, "Velmo version will be not checked.", "1"},
               {{"VersionCheck"}, "Velmo version will be checked.", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(Joined(c.args));
    const ToolOutcome o = RunTool(c.args);
    EXPECT_EQ(o.code, 0);
    EXPECT_TRUE(o.Says("ORN File Info...")) << o.output;
    EXPECT_TRUE(o.Says(c.said)) << o.output;
    char value[16] = "?";
    SettingsReadText(SettingsMainSection, "NoLastVersionCheck", value, sizeof value, "unset");
    EXPECT_STREQ(value, c.stored);
  }
}

// A copy of the program beside a stand-in "TarvPlw" that records its arguments.
TEST(Dispatch, PalettePlayerStartsFromTheProgramDirectory) {
  const std::string dir = Config() + "/bin", record = dir + "/args.txt";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  ASSERT_TRUE(std::filesystem::copy_file(ORN_PROGRAM_PATH, dir + "/ORNVideo64"));
  test_support::WriteText(dir + "/TarvPlw", "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done > '" +
                                                record + ".tmp'\nmv '" + record + ".tmp' '" + record + "'\n");
  ASSERT_EQ(chmod((dir + "/TarvPlw").c_str(), 0755), 0);
  for (const char* word : {"tarvplw", "TarvPly", "TARVPLAY"}) {
    ::unlink(record.c_str());
    const ToolOutcome o = RunTool({word, "my clip.trv", "/l104"}, dir + "/ORNVideo64");
    EXPECT_EQ(o.code, 0) << word << "\n" << o.output;
    std::string seen;
    for (int i = 0; i < 200 && (seen = ReadText(record)).empty(); i++) usleep(10000);
    EXPECT_EQ(seen, "[my clip.trv]\n[/l104]\n") << word;
  }
}

}  // namespace
