// The tools under hostile input, run as the real program: every tool over a corpus of damaged
// files of every input type, a disk that fills up, and runs stopped midway by signals. Each run
// has a memory cap and a time cap; the checks are its exit code, that an older output under the
// target name survives any failure, and that no temporary file stays behind.
#include <gtest/gtest.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <memory>

#include "corpus.h"
#include "support/files.h"
#include "support/run.h"
#include "tool_runs.h"

namespace hostile {
namespace {

using test_support::CappedOutcome;
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
  void BuildLong() {
    std::string error;
    ASSERT_TRUE(BuildLongInputs(&seeds_, &error)) << error;
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
      if (c.expect == Expect::SaidOnce) p.codes = {0, 8004}, p.expect = Expect::Any;
      Run(p);
    }
    if (c.role == Role::Sound)
      Run(Plan("VelmoMix", c, With({seeds_.vlm, c.file, "{out}", "/O"}, c.mixSwitches), "out.vlm"));
  }
  Report();
}

// ---- A full disk ----------------------------------------------------------------------------

// Each writing tool under a file-size limit far below its output: the failed write is a full
// disk (its code and message), never the signal that the limit raises by default.
TEST_F(HostileTest, FullDiskIsADiskError) {
  BuildLong();
  const Case input{"long", seeds_.bigY4m, Role::Video, Expect::Any, {}, {}, false};
  struct Writer {
    std::string tool, output;
    std::vector<std::string> args;
    const char* message;  // the tool's own words for it, when it has them
  } writers[] = {
      {"VelmoConv", "out.avi", {seeds_.bigY4m, "{out}", "/O", "/(640", "/)480"}, "Error writing to disk - probably out of disk space."},
      {"VelmoConv", "out.wav", {seeds_.longWave, "{out}", "/O"}, "Error writing to disk - probably out of disk space."},
      // A rate whose first frame alone passes the limit, so that the run fails at its first
      // checkpoint rather than when the close flushes the last buffer.
      {"Velmoc", "out.vlm", {seeds_.bigY4m, "{out}", "/O", "/D2000000"}, "Error writing to disk - probably out of disk space."},
      {"VelmoMix", "out.vlm", {seeds_.bigVlm, seeds_.longWave, "{out}", "/O"}, nullptr},
  };
  for (const Writer& w : writers) {
    RunPlan p = Plan(w.tool, input, w.args, w.output);
    p.caseName = "full disk";
    p.codes = {8007};
    p.caps.file_bytes = 16 * 1024;
    const CappedOutcome r = runner_->Run(p, &tally_);
    if (w.message && r.ExitedWith(8007) && r.output.find(w.message) == std::string::npos)
      tally_.failures.push_back(w.tool + " full disk -> " + w.output + ": expected \"" + w.message + "\", got: " + TellingLine(r.output));
  }
  Report();
}

// ---- Stopped midway -------------------------------------------------------------------------

struct Stopper {
  std::string tool, output;
  std::vector<std::string> args;
};

// Starts the tool, waits until its output folder shows the run writing, and sends `sig`.
// False when the run ended before it could be stopped.
bool StopMidway(const Runner& runner, const Stopper& s, const std::string& folder, int sig, CappedOutcome* out) {
  RunPlan plan;
  plan.tool = s.tool;
  plan.args = s.args;
  plan.outputName = s.output;
  test_support::Child child =
      test_support::StartCapped(runner.Program(), runner.Arguments(plan, folder), test_support::RunCaps{}, runner.Env());
  const std::string target = folder + "/" + s.output;
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  bool writing = false;
  while (!writing && std::chrono::steady_clock::now() < give_up) {
    std::error_code ignored;
    int entries = 0;
    for (const auto& e : std::filesystem::directory_iterator(folder, ignored)) (void)e, ++entries;
    writing = entries > 1 || std::filesystem::file_size(target, ignored) != Runner::OldBytes().size();
    if (!writing) {
      if (test_support::DrainChild(&child, 2)) break;  // it ended (or closed its output)
    }
  }
  if (writing) test_support::SignalChild(child, sig);
  *out = test_support::FinishChild(&child, 20000);
  return writing;
}

class StopTest : public HostileTest, public ::testing::WithParamInterface<int> {};

// SIGKILL cannot be caught: whatever the run had written, the older output is still there.
// SIGINT and SIGTERM are a cancel: the cancel code, the older output, no temporary file.
TEST_P(StopTest, WritingToolsKeepTheOlderOutput) {
  BuildLong();
  const int sig = GetParam();
  const Stopper stoppers[] = {
      {"VelmoConv", "out.avi", {seeds_.bigY4m, "{out}", "/O", "/(640", "/)480"}},
      {"Velmoc", "out.vlm", {seeds_.bigY4m, "{out}", "/O"}},
      {"VelmoMix", "out.vlm", {seeds_.bigVlm, seeds_.longWave, "{out}", "/O"}},
  };
  for (const Stopper& s : stoppers) {
    const std::string folder = runner_->PrepareFolder(s.output);
    const std::string who = s.tool + " stopped by signal " + std::to_string(sig) + " -> " + s.output;
    CappedOutcome r;
    ++tally_.runs;
    if (!StopMidway(*runner_, s, folder, sig, &r)) {
      tally_.failures.push_back(who + ": expected a run long enough to stop, got its end first (code " +
                                std::to_string(r.code) + ")");
      continue;
    }
    tally_.peakKb = std::max(tally_.peakKb, r.peak_kb);
    if (r.timed_out) ++tally_.hangs, tally_.failures.push_back(who + ": expected an end, got a hang");
    if (sig != SIGKILL && !r.ExitedWith(8001)) {
      ++tally_.wrongCodes;
      tally_.failures.push_back(who + ": expected 8001, got " +
                                (r.signal ? "signal " + std::to_string(r.signal) : "status " + std::to_string(r.code)));
    }
    const FolderCheck files = runner_->CheckFolder(folder, s.output, false);
    if (!files.oldKept) ++tally_.filesLost, tally_.failures.push_back(who + ": expected the older output untouched, got it changed");
    if (sig != SIGKILL)
      for (const std::string& name : files.leftovers)
        ++tally_.leftovers, tally_.failures.push_back(who + ": expected no other file, got " + name);
  }
  Report();
}

// A compression killed a second after it began leaves a temporary file that opens: the first
// frame is on disk with a header that says so.
TEST_F(HostileTest, KilledCompressionLeavesAFileThatOpens) {
  if (test_support::kAddressSanitizer) GTEST_SKIP() << "a second of a sanitized run is not a second of a plain one";
  BuildLong();
  const std::string folder = runner_->PrepareFolder("out.vlm");
  RunPlan plan;
  plan.tool = "Velmoc";
  plan.outputName = "out.vlm";
  // Scaled up, so that the run lasts well beyond the second.
  plan.args = {seeds_.bigY4m, "{out}", "/O", "/(640", "/)480"};
  test_support::Child child = test_support::StartCapped(runner_->Program(), runner_->Arguments(plan, folder),
                                                         test_support::RunCaps{}, runner_->Env());
  const std::string temporary = folder + "/out.vlm.tmp";
  const auto give_up = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  while (!test_support::Exists(temporary) && std::chrono::steady_clock::now() < give_up)
    if (test_support::DrainChild(&child, 2)) break;
  const bool started = test_support::Exists(temporary);
  const bool ended = started && test_support::DrainChild(&child, 1100);
  test_support::SignalChild(child, SIGKILL);
  test_support::FinishChild(&child, 5000);
  ASSERT_TRUE(started) << "Velmoc wrote no out.vlm.tmp";
  ASSERT_FALSE(ended) << "Velmoc ended within a second; the input is too short for this check";
  // Read under a Velmo file's own name, so that only its content decides.
  const std::string copy = scratch_ / "killed.vlm";
  std::filesystem::copy_file(temporary, copy);
  RunPlan info;
  info.tool = "ORNInfo";
  info.caseName = "out.vlm.tmp of a run killed after a second";
  info.args = {copy};
  info.expect = Expect::Valid;
  const CappedOutcome r = runner_->Run(info, &tally_);
  const size_t at = r.output.find("Frames: ");
  const long frames = at == std::string::npos ? 0 : std::strtol(r.output.c_str() + at + 8, nullptr, 10);
  if (frames < 1)
    tally_.failures.push_back("ORNInfo " + info.caseName + ": expected at least one frame, got " +
                              (at == std::string::npos ? "no video" : std::to_string(frames)));
  Report();
}

// An output name longer than any fixed name buffer but one the system takes: the output is
// written under exactly that name, or the run is refused as an output error; never a cut name.
TEST_F(HostileTest, LongOutputNamesAreKeptWholeOrRefused) {
  BuildCases();
  const std::string deep = scratch_ / (std::string(120, 'd') + "/" + std::string(120, 'e') + "/" + std::string(60, 'f'));
  std::filesystem::create_directories(deep);
  struct Writer {
    std::string tool;
    std::vector<std::string> inputs;
    std::string output;
  } writers[] = {
      {"VelmoConv", {seeds_.dir + "/seed.y4m"}, "out.avi"},
      {"VelmoConv", {seeds_.wave}, "out.wav"},
      {"Velmoc", {seeds_.dir + "/seed.y4m"}, "out.vlm"},
      {"VelmoMix", {seeds_.vlm, seeds_.wave}, "out.vlm"},
  };
  for (const Writer& w : writers) {
    const std::string target = deep + "/" + w.output;
    std::vector<std::string> args = {w.tool};
    args.insert(args.end(), w.inputs.begin(), w.inputs.end());
    args.insert(args.end(), {target, "/O"});
    const CappedOutcome r = test_support::RunCapped(runner_->Program(), args, {}, runner_->Env());
    ++tally_.runs;
    tally_.peakKb = std::max(tally_.peakKb, r.peak_kb);
    const std::string who = w.tool + " to a " + std::to_string(target.size()) + "-byte name";
    std::vector<std::string> written;
    std::error_code ignored;
    for (const auto& e : std::filesystem::recursive_directory_iterator(scratch_ / std::string(120, 'd'), ignored))
      if (e.is_regular_file()) written.push_back(e.path().string());
    const bool whole = written.size() == 1 && written[0] == target;
    if (r.ExitedWith(0) && !whole)
      ++tally_.filesLost, tally_.failures.push_back(who + ": expected the output under its whole name, got " +
                                                    (written.empty() ? "no file at all" : written[0]));
    if (!r.ExitedWith(0) && !r.ExitedWith(8006))
      ++tally_.wrongCodes, tally_.failures.push_back(who + ": expected 0 or 8006, got status " + std::to_string(r.code) +
                                                     " (" + TellingLine(r.output) + ")");
    if (!r.ExitedWith(0) && !written.empty())
      ++tally_.leftovers, tally_.failures.push_back(who + ": expected nothing written after a refusal, got " + written[0]);
    for (const std::string& f : written) std::filesystem::remove(f, ignored);
  }
  Report();
}

INSTANTIATE_TEST_SUITE_P(Signals, StopTest, ::testing::Values(SIGKILL, SIGINT, SIGTERM),
                         [](const ::testing::TestParamInfo<int>& info) {
                           return std::string(info.param == SIGKILL ? "Kill" : info.param == SIGINT ? "Interrupt" : "Terminate");
                         });

}  // namespace
}  // namespace hostile
