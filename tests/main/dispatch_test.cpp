// The entry's dispatch, seen from outside: the real program run with command lines, its
// messages read from its output and its tails from its dispatch trace.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <spawn.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "host/settings.h"

extern char** environ;

namespace {

struct Outcome {
  int code = -1;
  std::string output;  // stdout and stderr together
};

std::string g_config;  // XDG_CONFIG_HOME of the runs

Outcome RunProgram(const std::string& program, const std::vector<std::string>& args) {
  std::vector<std::string> env;
  for (char** e = environ; *e; e++) {
    std::string v = *e;
    if (v.rfind("DISPLAY=", 0) == 0 || v.rfind("WAYLAND_DISPLAY=", 0) == 0 ||
        v.rfind("XDG_CONFIG_HOME=", 0) == 0 || v.rfind("ORN_", 0) == 0)
      continue;
    env.push_back(v);
  }
  env.push_back("ORN_CONSOLE=1");
  env.push_back("ORN_TRACE_DISPATCH=1");
  env.push_back("XDG_CONFIG_HOME=" + g_config);
  std::vector<char*> envp;
  for (std::string& v : env) envp.push_back(v.data());
  envp.push_back(nullptr);

  std::vector<std::string> argStore = {program};
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv;
  for (std::string& a : argStore) argv.push_back(a.data());
  argv.push_back(nullptr);

  int out[2];
  Outcome result;
  if (pipe(out) != 0) return result;
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  posix_spawn_file_actions_adddup2(&actions, out[1], 1);
  posix_spawn_file_actions_adddup2(&actions, out[1], 2);
  posix_spawn_file_actions_addclose(&actions, out[0]);
  pid_t pid;
  int rc = posix_spawn(&pid, program.c_str(), &actions, nullptr, argv.data(), envp.data());
  posix_spawn_file_actions_destroy(&actions);
  close(out[1]);
  if (rc != 0) {
    close(out[0]);
    return result;
  }
  char buf[4096];
  ssize_t n;
  while ((n = read(out[0], buf, sizeof buf)) > 0) result.output.append(buf, size_t(n));
  close(out[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

Outcome RunTool(const std::vector<std::string>& args) { return RunProgram(ORN_PROGRAM_PATH, args); }

bool Has(const Outcome& o, const std::string& text) {
  return o.output.find(text) != std::string::npos;
}

class Dispatch : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    char dir[] = "/tmp/orn_dispatch_XXXXXX";
    ASSERT_NE(mkdtemp(dir), nullptr);
    g_config = dir;
  }
  static void TearDownTestSuite() {
    std::string cmd = "rm -rf '" + g_config + "'";
    ASSERT_EQ(std::system(cmd.c_str()), 0);
  }
};

TEST_F(Dispatch, WordsIgnoreCaseAndPickTheirTool) {
  struct Case {
    const char* word;
    const char* tool;
  } cases[] = {
      {"velmoplay", "VelmoPlay"}, {"VELMOPLAY", "VelmoPlay"}, {"VelmoPl64", "VelmoPlay"},
      {"ORNBatch", "ORNBatch"},   {"orn2exe", "ORN2EXE"},
      {"TarvMix", "TarvMix"},
      {"tarv", "Tarv"},           {"ornana", "ORNAna"},
  };
  for (const Case& c : cases) {
    Outcome o = RunTool({c.word, "in.avi"});
    EXPECT_EQ(o.code, 1) << c.word;
    EXPECT_TRUE(Has(o, std::string(c.tool) + " is not part of this build yet.")) << c.word << "\n"
                                                                                  << o.output;
  }
}

TEST_F(Dispatch, CompressorWordsReachTheCompressor) {
  // A tail without an output name is a syntax error of the compressor (8005, 69 as a status).
  for (const char* word : {"Velmo", "VELMOC"}) {
    Outcome o = RunTool({word, "in.avi"});
    EXPECT_EQ(o.code, 8005 & 255) << word << "\n" << o.output;
    EXPECT_TRUE(Has(o, "Syntax:  Velmo <Input Graphics File>")) << o.output;
  }
  // The second generation says plainly that it is missing (8006, 70 as a status).
  for (const char* word : {"velmo2c", "Velmo2C64"}) {
    Outcome o = RunTool({word, "in.avi", "out.vm2"});
    EXPECT_EQ(o.code, 8006 & 255) << word << "\n" << o.output;
    EXPECT_TRUE(Has(o, "Velmo 2 compression (version 200 and up) is not part of this build yet."))
        << o.output;
  }
}

TEST_F(Dispatch, ConverterAndFileInfoAreBuilt) {
  // The converter with no output name shows its help (8005, 69 as a status).
  for (const char* word : {"VelmoConv", "VELMOCONV"}) {
    Outcome o = RunTool({word, "in.avi"});
    EXPECT_EQ(o.code, 8005 & 255) << word << "\n" << o.output;
    EXPECT_TRUE(Has(o, "Syntax:  VelmoConv <Input File> <Output File> [/Switches]")) << o.output;
  }
  Outcome o = RunTool({"ORNINFO", "/tmp"});
  EXPECT_EQ(o.code, 0) << o.output;
  EXPECT_TRUE(Has(o, "Information on /tmp")) << o.output;
  EXPECT_FALSE(Has(o, "not part of this build"));
}

TEST_F(Dispatch, MixerIsBuilt) {
  // The mixer with no sound or output name shows its help (8005, 69 as a status).
  for (const char* word : {"velmomix", "VELMOMIX"}) {
    Outcome o = RunTool({word, "in.vlm"});
    EXPECT_EQ(o.code, 8005 & 255) << word << "\n" << o.output;
    EXPECT_TRUE(Has(o, "Syntax:  VelmoMix <Input Velmo File>[.VLM] <Input Sound File> "
                       "<Output Velmo File>[.VLM] [/Switches]")) << o.output;
    EXPECT_FALSE(Has(o, "not part of this build")) << o.output;
  }
}

TEST_F(Dispatch, BuiltToolWordsIgnoreCase) {
  for (const char* word : {"ornsi", "OrnSi", "ORNSI"}) {
    Outcome o = RunTool({word});
    EXPECT_EQ(o.code, 0) << word << "\n" << o.output;
    EXPECT_TRUE(Has(o, "ORN System Info...")) << word << "\n" << o.output;
    EXPECT_FALSE(Has(o, "not part of this build")) << word;
  }
}

TEST_F(Dispatch, UnknownWordsAreRefused) {
  for (const char* word : {"velmoplayer", "velm", "velmoc2", "launcher", "/v100"}) {
    Outcome o = RunTool({word, "a.vlm"});
    EXPECT_EQ(o.code, 1) << word;
    EXPECT_TRUE(Has(o, "ORN Video Tools")) << o.output;
    EXPECT_TRUE(Has(o, "Unknown command line command.")) << word << "\n" << o.output;
    EXPECT_FALSE(Has(o, "ORN dispatch:")) << word;
  }
}

TEST_F(Dispatch, EmptyLineOpensTheLauncher) {
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {""}, {"   "}, {" ", "\t"}}) {
    Outcome o = RunTool(args);
    EXPECT_EQ(o.code, 1);
    EXPECT_TRUE(Has(o, "The launcher is not part of this build yet.")) << o.output;
    EXPECT_FALSE(Has(o, "Unknown command")) << o.output;
  }
}

TEST_F(Dispatch, CompressorsGetTheirVersionAtTheVeryEnd) {
  Outcome o = RunTool({"velmoc", "in.avi", "out.vlm", "/d5000"});
  EXPECT_TRUE(Has(o, "ORN dispatch: Velmoc tail \"in.avi out.vlm /d5000 /v100\"")) << o.output;
  o = RunTool({"velmo", "in.avi", "out.vlm"});
  EXPECT_TRUE(Has(o, "tail \"in.avi out.vlm /v100\"")) << o.output;
  o = RunTool({"velmo2c", "in.avi", "out.vm2"});
  EXPECT_TRUE(Has(o, "ORN dispatch: Velmo2c tail \"in.avi out.vm2 /v200\"")) << o.output;
  o = RunTool({"VELMO2C64", "in.avi"});
  EXPECT_TRUE(Has(o, "tail \"in.avi /v200\"")) << o.output;
  // Names with blanks keep their quotes; the switch still goes behind them.
  o = RunTool({"velmoc", "my movie.avi", "out file.vlm"});
  EXPECT_TRUE(Has(o, "tail \"\"my movie.avi\" \"out file.vlm\" /v100\"")) << o.output;
}

TEST_F(Dispatch, AGivenVersionStands) {
  Outcome o = RunTool({"velmoc", "in.avi", "/v210", "out.vm2"});
  EXPECT_TRUE(Has(o, "tail \"in.avi /v210 out.vm2\"")) << o.output;
  o = RunTool({"velmo2c", "/V150", "in.avi"});
  EXPECT_TRUE(Has(o, "tail \"/V150 in.avi\"")) << o.output;
  // A /V with no number is no version: the default still comes.
  o = RunTool({"velmoc", "in.avi", "/v"});
  EXPECT_TRUE(Has(o, "/v100\"")) << o.output;
}

TEST_F(Dispatch, ParentWindowSwitchesLeaveTheTail) {
  Outcome o = RunTool({"velmoconv", "in.vlm", "out.avi", "/#4242", "/#"});
  EXPECT_TRUE(Has(o, "ORN dispatch: VelmoConv tail \"in.vlm out.avi\"")) << o.output;
  o = RunTool({"tarv", "/#", "in.flc", "out.trv"});
  EXPECT_TRUE(Has(o, "tail \"in.flc out.trv\"")) << o.output;
}

TEST_F(Dispatch, CommaBehindTheWordIsSwallowed) {
  Outcome o = RunTool({"velmomix", ",", "a.vlm"});
  EXPECT_TRUE(Has(o, "ORN dispatch: VelmoMix tail \"a.vlm\"")) << o.output;
}

TEST_F(Dispatch, VersionCheckStoresItsSetting) {
  setenv("XDG_CONFIG_HOME", g_config.c_str(), 1);
  Outcome o = RunTool({"versioncheck", "off"});
  EXPECT_EQ(o.code, 0);
  EXPECT_TRUE(Has(o, "ORN File Info...")) << o.output;
  EXPECT_TRUE(Has(o, "Velmo version will be not checked.")) << o.output;
  char value[16] = "?";
  SettingsReadText(SettingsMainSection, "NoLastVersionCheck", value, sizeof value, "unset");
  EXPECT_STREQ(value, "1");

  o = RunTool({"VersionCheck"});
  EXPECT_EQ(o.code, 0);
  EXPECT_TRUE(Has(o, "Velmo version will be checked.")) << o.output;
  SettingsReadText(SettingsMainSection, "NoLastVersionCheck", value, sizeof value, "unset");
  EXPECT_STREQ(value, "");
}

TEST_F(Dispatch, PalettePlayerMissingFails) {
  Outcome o = RunTool({"tarvplay", "a.trv"});
  EXPECT_EQ(o.code, 1);
  EXPECT_TRUE(Has(o, "TarvPlw")) << o.output;
}

// A copy of the program beside a stand-in "TarvPlw" that records its arguments.
TEST_F(Dispatch, PalettePlayerStartsFromTheProgramDirectory) {
  std::string dir = g_config + "/bin";
  ASSERT_EQ(mkdir(dir.c_str(), 0755), 0);
  std::string copy = "cp '" + std::string(ORN_PROGRAM_PATH) + "' '" + dir + "/ORNVideo64'";
  ASSERT_EQ(std::system(copy.c_str()), 0);
  std::string record = dir + "/args.txt";
  {
    std::ofstream player(dir + "/TarvPlw");
    player << "#!/bin/sh\nfor a in \"$@\"; do echo \"[$a]\"; done > '" << record << ".tmp'\n"
           << "mv '" << record << ".tmp' '" << record << "'\n";
  }
  ASSERT_EQ(chmod((dir + "/TarvPlw").c_str(), 0755), 0);
  for (const char* word : {"tarvplw", "TarvPly", "TARVPLAY"}) {
    ::unlink(record.c_str());
    Outcome o = RunProgram(dir + "/ORNVideo64", {word, "my clip.trv", "/l104"});
    EXPECT_EQ(o.code, 0) << word << "\n" << o.output;
    std::string seen;
    for (int i = 0; i < 200 && seen.empty(); i++) {
      std::ifstream in(record);
      std::stringstream s;
      s << in.rdbuf();
      seen = s.str();
      if (seen.empty()) usleep(10000);
    }
    EXPECT_EQ(seen, "[my clip.trv]\n[/l104]\n") << word;
  }
}

}  // namespace
