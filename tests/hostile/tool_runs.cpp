// Judging a run of a tool from the outside.
#include "tool_runs.h"

#include <signal.h>

#include <algorithm>
#include <filesystem>
#include <sstream>

#include "support/files.h"

namespace hostile {

std::string Tally::Summary() const {
  std::ostringstream s;
  s << "hostile input: " << cases << " cases, " << runs << " runs, " << crashes << " crashes, " << hangs
    << " hangs, peak memory " << (peakKb + 1023) / 1024 << " MiB, " << overMemory << " over the memory cap, "
    << wrongCodes << " wrong codes, " << filesLost << " files lost, " << leftovers << " files left behind";
  return s.str();
}

const std::set<int>& ToolCodes(const std::string& tool) {
  static const std::set<int> info = {0, 8002};
  static const std::set<int> convert = {0, 8001, 8002, 8003, 8005, 8006, 8007, 8008};
  static const std::set<int> compress = {0, 8001, 8002, 8003, 8004, 8005, 8006, 8007, 8010};
  if (tool == "ORNInfo") return info;
  if (tool == "VelmoConv") return convert;
  return compress;  // Velmoc, and VelmoMix, whose table is the compressor's
}

const std::vector<uint8_t>& Runner::OldBytes() {
  static const std::vector<uint8_t> bytes = [] {
    const std::string text = "an older output that a failed run must leave as it is\n";
    return std::vector<uint8_t>(text.begin(), text.end());
  }();
  return bytes;
}

std::string Runner::PrepareFolder(const std::string& outputName) {
  const std::string folder = scratch_ + "/run" + std::to_string(++folders_);
  std::filesystem::create_directories(folder);
  if (!outputName.empty()) test_support::WriteFile(folder + "/" + outputName, OldBytes());
  return folder;
}

FolderCheck Runner::CheckFolder(const std::string& folder, const std::string& outputName, bool succeeded) const {
  FolderCheck check;
  if (outputName.empty()) return check;
  const std::string ext = std::filesystem::path(outputName).extension().string();
  if (!succeeded) check.oldKept = test_support::ReadFile(folder + "/" + outputName) == OldBytes();
  std::error_code ignored;
  for (const auto& entry : std::filesystem::directory_iterator(folder, ignored)) {
    const std::string name = entry.path().filename().string();
    if (name == outputName) continue;
    const bool sameKind = entry.path().extension().string() == ext;
    if (!succeeded || !sameKind) check.leftovers.push_back(name);
  }
  return check;
}

std::vector<std::string> Runner::Arguments(const RunPlan& plan, const std::string& folder) const {
  std::vector<std::string> args = {plan.tool};
  for (const std::string& a : plan.args) args.push_back(a == "{out}" ? folder + "/" + plan.outputName : a);
  return args;
}

namespace {

std::set<int> Allowed(const RunPlan& plan) {
  if (!plan.codes.empty()) return plan.codes;
  switch (plan.expect) {
    case Expect::Valid: return {0};
    case Expect::Reject: return {8002};
    case Expect::SaidOnce:
    case Expect::Trailer: return {0, 8002};
    default: return ToolCodes(plan.tool);
  }
}

std::string Codes(const std::set<int>& codes) {
  std::string s;
  for (int c : codes) s += (s.empty() ? "" : "/") + std::to_string(c);
  return s;
}

// The tool's code from the low 8 bits a parent sees; -1 when none of its codes has them.
int ToolCode(const std::string& tool, int status) {
  for (int c : ToolCodes(tool))
    if ((c & 0xFF) == status) return c;
  return -1;
}

}  // namespace

// The line that says most about a run: its error, else its first warning, else its last line.
std::string TellingLine(const std::string& output) {
  size_t at = output.find(" - Error: ");
  if (at == std::string::npos) at = output.find(" - Warning: ");
  std::string line;
  if (at != std::string::npos) {
    const size_t start = output.rfind('\n', at);
    line = output.substr(start == std::string::npos ? 0 : start + 1);
  } else {
    const size_t end = output.find_last_not_of("\r\n ");
    const size_t start = end == std::string::npos ? std::string::npos : output.rfind('\n', end);
    line = end == std::string::npos ? "" : output.substr(start == std::string::npos ? 0 : start + 1);
  }
  line = line.substr(0, line.find('\n'));
  return line.size() > 100 ? line.substr(0, 100) + "..." : line;
}

test_support::CappedOutcome Runner::Run(const RunPlan& plan, Tally* tally) {
  const std::string folder = PrepareFolder(plan.outputName);
  const test_support::CappedOutcome r =
      test_support::RunCapped(program_, Arguments(plan, folder), plan.caps, Env());
  ++tally->runs;
  tally->peakKb = std::max(tally->peakKb, r.peak_kb);
  const std::string who = plan.tool + " " + plan.caseName + (plan.outputName.empty() ? "" : " -> " + plan.outputName);
  auto fail = [&](const std::string& what) { tally->failures.push_back(who + ": " + what); };

  const int code = ToolCode(plan.tool, r.code);
  if (r.timed_out) {
    ++tally->hangs;
    fail("expected an end within " + std::to_string(plan.caps.time_ms) + " ms, got a hang");
  } else if (r.signal == SIGABRT && r.output.find("bad_alloc") != std::string::npos) {
    ++tally->overMemory;
    fail("expected " + Codes(Allowed(plan)) + ", got an allocation over the memory cap");
  } else if (r.signal) {
    ++tally->crashes;
    fail("expected " + Codes(Allowed(plan)) + ", got signal " + std::to_string(r.signal));
  } else {
    const std::set<int> allowed = Allowed(plan);
    const int warnings = int(r.Times(" - Warning: "));
    std::string wrong;
    if (!allowed.count(code))
      wrong = "got " + (code < 0 ? "status " + std::to_string(r.code) : std::to_string(code));
    else if (code == 0 && plan.expect == Expect::SaidOnce && warnings != 1)
      wrong = "got 0 with " + std::to_string(warnings) + " warnings";
    else if (code == 0 && plan.expect == Expect::Trailer && warnings > 1)
      wrong = "got 0 with " + std::to_string(warnings) + " warnings";
    else if (code == 8002 && !plan.named.empty() && r.output.find(plan.named) == std::string::npos)
      wrong = "got 8002 with no message naming " + plan.named;
    if (!wrong.empty()) {
      ++tally->wrongCodes;
      fail("expected " + (plan.codes.empty() ? std::string(ExpectName(plan.expect)) : Codes(allowed)) + ", " +
           wrong + " (" + TellingLine(r.output) + ")");
    }
  }
  if (!test_support::kAddressSanitizer && r.peak_kb > kPeakLimitKb) {
    ++tally->overMemory;
    fail("expected a peak under " + std::to_string(kPeakLimitKb / 1024) + " MiB, got " +
         std::to_string(r.peak_kb / 1024) + " MiB");
  }
  const bool succeeded = !r.timed_out && !r.signal && code == 0;
  const FolderCheck files = CheckFolder(folder, plan.outputName, succeeded);
  if (!files.oldKept) {
    ++tally->filesLost;
    fail("expected the older " + plan.outputName + " untouched after a failed run, got it changed");
  }
  for (const std::string& name : files.leftovers) {
    ++tally->leftovers;
    fail("expected no other file in the output folder, got " + name);
  }
  std::error_code ignored;
  std::filesystem::remove_all(folder, ignored);
  return r;
}

}  // namespace hostile
