// One run of a tool over a hostile input, judged from the outside: how it ended, within what
// memory, with which exit code and warnings, and what it left in its output folder.
#pragma once

#include <set>
#include <string>
#include <vector>

#include "corpus.h"
#include "support/run.h"

namespace hostile {

// Figures over all runs, for the closing summary line.
struct Tally {
  int cases = 0, runs = 0, crashes = 0, hangs = 0, overMemory = 0, wrongCodes = 0, filesLost = 0,
      leftovers = 0;
  long peakKb = 0;
  std::vector<std::string> failures;  // one short line each
  std::string Summary() const;
};

// A tool's documented exit codes.
const std::set<int>& ToolCodes(const std::string& tool);

// A run's description: the tool word, its arguments (the output name is `output` in its own
// folder, which already holds an older file of that name), and what the input deserves.
struct RunPlan {
  std::string tool;
  std::string caseName;
  std::vector<std::string> args;  // behind the tool word; "{out}" stands for the output path
  std::string outputName;         // empty: the tool writes nothing (ORNInfo)
  Expect expect = Expect::Any;
  std::set<int> codes;            // the codes the expectation allows; empty: from `expect`
  std::string named;              // a name that the message of an input error must hold
  test_support::RunCaps caps;
};

// What one run did to its output folder.
struct FolderCheck {
  bool oldKept = true;                // the older output is byte-identical
  std::vector<std::string> leftovers; // files that no run should leave
};

// The peak resident size above which a run counts as over its memory cap (not checked under
// the address sanitizer, whose shadow memory counts too).
constexpr long kPeakLimitKb = 256 * 1024;

// The line that says most about a run: its error, else its first warning, else its last line.
std::string TellingLine(const std::string& output);

class Runner {
 public:
  Runner(std::string program, std::string scratch, std::string configDir)
      : program_(std::move(program)), scratch_(std::move(scratch)), config_(std::move(configDir)) {}

  // Runs the plan in a fresh output folder, records figures and failures in `tally`; returns the
  // outcome for further checks.
  test_support::CappedOutcome Run(const RunPlan& plan, Tally* tally);

  // A fresh output folder holding an older file under `outputName`; its path.
  std::string PrepareFolder(const std::string& outputName);
  // Compares the folder with what PrepareFolder left; `succeeded`: the run may have replaced the
  // output and added files of the output's type (a numbered picture series).
  FolderCheck CheckFolder(const std::string& folder, const std::string& outputName, bool succeeded) const;

  std::vector<std::string> Arguments(const RunPlan& plan, const std::string& folder) const;
  const std::string& Program() const { return program_; }
  std::vector<std::string> Env() const { return {"XDG_CONFIG_HOME=" + config_}; }

  static const std::vector<uint8_t>& OldBytes();

 private:
  std::string program_, scratch_, config_;
  int folders_ = 0;
};

}  // namespace hostile
