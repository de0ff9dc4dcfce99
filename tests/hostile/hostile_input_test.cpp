// The tools under hostile input, run as the real program: every tool over a corpus of damaged
// files of every input type. Each run has a memory cap and a time cap; the checks are its exit
// code, that an older output under the target name survives any failure, and that no temporary
// file stays behind. (Full disks, signals and long output names: convert/output_safety_test.)
#include <gtest/gtest.h>

#include <cstdio>
#include <filesystem>
#include <memory>

#include "corpus.h"
#include "support/files.h"
#include "support/run.h"
#include "tool_runs.h"

namespace hostile {
namespace {

using test_support::ScratchDir;

// The figures of every test that ran in this process, printed once at its end.
Tally& Total() {
  static Tally total;
  return total;
}

class SummaryPrinter : public ::testing::Environment {
 public:
  void TearDown() override {
    if (Total().runs) std::printf("%s\n", Total().Summary().c_str());
  }
};
const auto* const kSummary = ::testing::AddGlobalTestEnvironment(new SummaryPrinter);

// Corpus, runner and figures of one test.
class HostileTest : public ::testing::Test {
 protected:
  void SetUp() override {
    seeds_.dir = scratch_ / "corpus";
    std::filesystem::create_directories(seeds_.dir);
    std::filesystem::create_directories(scratch_ / "config");
    std::filesystem::create_directories(scratch_ / "out");
    runner_ = std::make_unique<Runner>(ORN_PROGRAM_PATH, scratch_ / "out", scratch_ / "config");
  }

  void BuildCases() {
    std::string error;
    cases_ = BuildCorpus(ORN_PROGRAM_PATH, scratch_ / "config", &seeds_, &error);
    ASSERT_FALSE(cases_.empty()) << error;
    tally_.cases = int(cases_.size());
  }

  void Run(RunPlan plan) { runner_->Run(plan, &tally_); }

  // Prints every failure and this test's figures, adds them to the process's, and fails the test
  // when anything went wrong.
  void Report() {
    for (const std::string& line : tally_.failures) std::printf("FAIL %s\n", line.c_str());
    std::printf("%s\n", tally_.Summary().c_str());
    Tally& t = Total();
    t.cases = std::max(t.cases, tally_.cases), t.runs += tally_.runs, t.crashes += tally_.crashes, t.hangs += tally_.hangs;
    t.overMemory += tally_.overMemory, t.wrongCodes += tally_.wrongCodes, t.filesLost += tally_.filesLost;
    t.leftovers += tally_.leftovers, t.peakKb = std::max(t.peakKb, tally_.peakKb);
    EXPECT_TRUE(tally_.failures.empty()) << tally_.failures.size() << " failing runs (listed above)";
  }

  static RunPlan Plan(const std::string& tool, const Case& c, std::vector<std::string> args,
                      const std::string& output) {
    RunPlan p;
    p.tool = tool;
    p.caseName = c.name;
    p.args = std::move(args);
    p.outputName = output;
    p.expect = c.expect;
    // An input error names the file at fault; a list's fault lies in one of its entries.
    if (c.role != Role::List) p.named = std::filesystem::path(c.file).filename().string();
    return p;
  }

  ScratchDir scratch_;
  Seeds seeds_;
  std::vector<Case> cases_;
  std::unique_ptr<Runner> runner_;
  Tally tally_;
};

std::vector<std::string> With(std::vector<std::string> args, const std::vector<std::string>& more) {
  args.insert(args.end(), more.begin(), more.end());
  return args;
}

bool HasSound(const Case& c) { return c.role == Role::Sound || c.name.rfind("vlm/sound", 0) == 0; }

// A picture series output is tried on the seeds and on two kinds of cut.
bool PictureOutputToo(const Case& c) {
  return c.role == Role::Video && (c.expect == Expect::Valid || c.name.find("/cut50%") != std::string::npos ||
                                   c.name.find("/header-only") != std::string::npos);
}

// ---- The corpus -----------------------------------------------------------------------------

// The information tool reads any input; what it cannot read at all, or what cannot be true, is
// the input error, named.
TEST_F(HostileTest, InformationOnEveryCase) {
  BuildCases();
  for (const Case& c : cases_) {
    RunPlan p = Plan("ORNInfo", c, {c.file}, "");
    // It reads no frames, so a cut that leaves the header whole may still be described; and it
    // takes no switches, so raw samples are nothing it can know.
    if (c.expect != Expect::Valid || !c.convertSwitches.empty())
      p.expect = c.mustFailInfo ? Expect::Reject : Expect::Any;
    Run(p);
  }
  Report();
}

TEST_F(HostileTest, ConverterOnEveryCase) {
  BuildCases();
  for (const Case& c : cases_) {
    const std::vector<std::string> tail = With({"{out}", "/O"}, c.convertSwitches);
    if (c.role != Role::Sound) Run(Plan("VelmoConv", c, With({c.file}, tail), "out.avi"));
    if (HasSound(c)) Run(Plan("VelmoConv", c, With({c.file}, tail), "out.wav"));
    if (PictureOutputToo(c)) Run(Plan("VelmoConv", c, With({c.file}, tail), "out.png"));
  }
  Report();
}

TEST_F(HostileTest, CompressorOnEveryCase) {
  BuildCases();
  for (const Case& c : cases_)
    if (c.role != Role::Sound) Run(Plan("Velmoc", c, {c.file, "{out}", "/O"}, "out.vlm"));
  Report();
}

// The mixer over damaged Velmo files with a good sound, and over damaged sounds with a good
// Velmo file.
TEST_F(HostileTest, MixerOnEveryCase) {
  BuildCases();
  for (const Case& c : cases_) {
    if (c.role == Role::Velmo) {
      // A Velmo file the mixer cannot take is its own failure (8004), not a sound it could not
      // open; a lying sound table is rebuilt, since the mixer writes the tracks anew.
      RunPlan p = Plan("VelmoMix", c, {c.file, seeds_.wave, "{out}", "/O"}, "out.vlm");
      if (c.expect == Expect::Reject) p.codes = {8004};
      if (c.expect == Expect::SaidOnce || c.expect == Expect::Trailer) p.codes = {0, 8004}, p.expect = Expect::Any;
      Run(p);
    }
    if (c.role == Role::Sound)
      Run(Plan("VelmoMix", c, With({seeds_.vlm, c.file, "{out}", "/O"}, c.mixSwitches), "out.vlm"));
  }
  Report();
}

}  // namespace
}  // namespace hostile
