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

std::string Joined(const std::vector<std::string>& args) {
  std::string line;
  for (const std::string& a : args) line += "[" + a + "]";
  return line;
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

// Each word, in any case, reaches its tool (or the message that the tool is missing), and the
// exit status tells which: 1 for a refusal, 8005 & 255 for a tool's syntax help, 8006 & 255 for
// the missing second-generation compressor.
TEST_F(Dispatch, WordsPickTheirToolWithItsExitCode) {
  const std::string missing = " is not part of this build yet.";
  const std::string velmoSyntax = "Syntax:  Velmo <Input Graphics File>";
  const std::string convSyntax = "Syntax:  VelmoConv <Input File> <Output File> [/Switches]";
  const std::string mixSyntax =
      "Syntax:  VelmoMix <Input Velmo File>[.VLM] <Input Sound File> <Output Velmo "
      "File>[.VLM] [/Switches]";
  const std::string velmo2 = "Velmo 2 compression (version 200 and up)" + missing;
  struct Case {
    std::vector<std::string> words, tail;
    int code;
    std::string said;
    bool built;  // "not part of this build" must not be said
  } cases[] = {
      {{"velmoplay", "VELMOPLAY", "VelmoPl64"}, {"in.avi"}, 1, "VelmoPlay" + missing, false},
      {{"ORNBatch"}, {"in.avi"}, 1, "ORNBatch" + missing, false},
      {{"orn2exe"}, {"in.avi"}, 1, "ORN2EXE" + missing, false},
      {{"TarvMix"}, {"in.avi"}, 1, "TarvMix" + missing, false},
      {{"tarv"}, {"in.avi"}, 1, "Tarv" + missing, false},
      {{"ornana"}, {"in.avi"}, 1, "ORNAna" + missing, false},
      {{"tarvplay"}, {"a.trv"}, 1, "TarvPlw", false},
      {{"Velmo", "VELMOC"}, {"in.avi"}, 8005 & 255, velmoSyntax, false},
      {{"velmo2c", "Velmo2C64"}, {"in.avi", "out.vm2"}, 8006 & 255, velmo2, false},
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
      const Outcome o = RunTool(args);
      EXPECT_EQ(o.code, c.code) << o.output;
      EXPECT_TRUE(Has(o, c.said)) << o.output;
      if (c.built) {
        EXPECT_FALSE(Has(o, "not part of this build")) << o.output;
      }
    }
}

TEST_F(Dispatch, UnknownWordsAreRefusedAndAnEmptyLineOpensTheLauncher) {
  for (const char* word : {"velmoplayer", "velm", "velmoc2", "launcher", "/v100"}) {
    SCOPED_TRACE(word);
    Outcome o = RunTool({word, "a.vlm"});
    EXPECT_EQ(o.code, 1);
    EXPECT_TRUE(Has(o, "ORN Video Tools")) << o.output;
    EXPECT_TRUE(Has(o, "Unknown command line command.")) << o.output;
    EXPECT_FALSE(Has(o, "ORN dispatch:"));
  }
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {}, {""}, {"   "}, {" ", "\t"}}) {
    SCOPED_TRACE(Joined(args));
    Outcome o = RunTool(args);
    EXPECT_EQ(o.code, 1);
    EXPECT_TRUE(Has(o, "The launcher is not part of this build yet.")) << o.output;
    EXPECT_FALSE(Has(o, "Unknown command")) << o.output;
  }
}

// The tail each tool is handed: compressors get their default version at the very end unless
// one is given, parent window switches leave it, a comma behind the word is swallowed.
TEST_F(Dispatch, TailsHandedToTheTools) {
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
    const Outcome o = RunTool(c.args);
    EXPECT_TRUE(Has(o, c.trace)) << o.output;
  }
}

TEST_F(Dispatch, VersionCheckStoresItsSetting) {
  setenv("XDG_CONFIG_HOME", g_config.c_str(), 1);
  const struct {
    std::vector<std::string> args;
    const char* said;
    const char* stored;
  } cases[] = {{{"versioncheck", "off"}, "Velmo version will be not checked.", "1"},
               {{"VersionCheck"}, "Velmo version will be checked.", ""}};
  for (const auto& c : cases) {
    SCOPED_TRACE(Joined(c.args));
    const Outcome o = RunTool(c.args);
    EXPECT_EQ(o.code, 0);
    EXPECT_TRUE(Has(o, "ORN File Info...")) << o.output;
    EXPECT_TRUE(Has(o, c.said)) << o.output;
    char value[16] = "?";
    SettingsReadText(SettingsMainSection, "NoLastVersionCheck", value, sizeof value, "unset");
    EXPECT_STREQ(value, c.stored);
  }
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
