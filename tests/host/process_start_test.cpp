// Started programs: their exit codes come back through the wait, a low-priority start really
// lowers the child's priority, what cannot be started or waited for says so, and a web
// address reaches the handler on the path.
#include "host/process_start.h"
#include "support/files.h"

#include <gtest/gtest.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <unistd.h>

#include <chrono>
#include <cstdlib>
#include <thread>

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

// An address goes to the handler found on the path, as one argument, without waiting for it.
TEST(ProcessStart, AnAddressGoesToTheDesktopsHandler) {
  const test_support::ScratchDir dir;
  const std::string handler = dir / "xdg-open", seen = dir / "seen";
  test_support::WriteText(handler, "#!/bin/sh\nsleep 1\nprintf '%s|%s' \"$1\" \"$#\" > \"" +
                                       seen + ".part\"\nmv \"" + seen + ".part\" \"" + seen +
                                       "\"\n");
  ASSERT_EQ(chmod(handler.c_str(), 0755), 0);
  const char* old = std::getenv("PATH");
  const std::string path = old ? std::string(old) : std::string();
  setenv("PATH", (dir.path + ":" + path).c_str(), 1);
  const auto start = std::chrono::steady_clock::now();
  const std::string address = "https://example.org/page?from=a&ver=1 2";
  EXPECT_TRUE(ProcessOpenAddress(address.c_str()));
  EXPECT_LT(std::chrono::steady_clock::now() - start, std::chrono::milliseconds(800));
  setenv("PATH", path.c_str(), 1);
  for (int i = 0; i < 500 && !test_support::Exists(seen); ++i)
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  EXPECT_EQ(test_support::ReadText(seen), address + "|1");
}

}  // namespace
