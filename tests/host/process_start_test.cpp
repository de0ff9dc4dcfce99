// Started programs: their exit codes come back through the wait, a low-priority start really
// lowers the child's priority, and what cannot be started or waited for says so.
#include "host/process_start.h"

#include <gtest/gtest.h>
#include <sys/resource.h>

#include <string>

namespace {

// Runs `script` with /bin/sh and returns what the wait gives.
int RunShell(const std::string& script, bool lowPriority) {
  const char* arguments[] = {"sh", "-c", script.c_str(), nullptr};
  const int64_t id = ProcessStart("/bin/sh", arguments, lowPriority);
  EXPECT_GT(id, 0);
  return ProcessWait(id);
}

TEST(ProcessStart, ExitCodesComeBackThroughTheWait) {
  EXPECT_EQ(RunShell("exit 0", false), 0);
  EXPECT_EQ(RunShell("exit 7", false), 7);
  // A program that a signal ends has no exit code.
  EXPECT_EQ(RunShell("kill -TERM $$", false), -1);
}

TEST(ProcessStart, LowPriorityLowersTheChildOnly) {
  const int own = getpriority(PRIO_PROCESS, 0);
  // The child reports its niceness as its exit code.
  EXPECT_EQ(RunShell("exit $(nice)", false), own);
  EXPECT_EQ(RunShell("exit $(nice)", true), 19);
  EXPECT_EQ(getpriority(PRIO_PROCESS, 0), own);
}

TEST(ProcessStart, FailuresAreTold) {
  const char* arguments[] = {"none", nullptr};
  EXPECT_EQ(ProcessStart("/nonexistent/program", arguments, false), -1);
  EXPECT_EQ(ProcessStart(nullptr, arguments, false), -1);
  EXPECT_EQ(ProcessWait(-1), -1);
  EXPECT_FALSE(ProcessOpenAddress(""));
  EXPECT_FALSE(ProcessOpenAddress(nullptr));
}

}  // namespace
