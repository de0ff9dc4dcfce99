// Signals while a tool runs: a write past the file size limit is a short write (not the end of
// the process), and SIGINT and SIGTERM are counted as requests to stop, a second one ending the
// process as the signal does by default.
#include "host/signals.h"

#include <gtest/gtest.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>
#include <vector>

#include "host/bfile.h"
#include "support/files.h"

namespace {

using namespace test_support;

// Runs `body` in a forked child and returns how it ended: its exit code, or 128 + signal.
template <typename Body>
int InChild(Body body) {
  const pid_t pid = fork();
  if (pid == 0) _exit(body());
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

// Writes 64 KiB under a 16 KiB file size limit: 0 when the write fell short and the file layer
// said so, 1 when it went through.
int WritePastTheLimit(const std::string& name) {
  rlimit limit{16384, 16384};
  if (setrlimit(RLIMIT_FSIZE, &limit) != 0) return 3;
  BufferedFile* f = FileCreate(4096, name.c_str(), 1);
  if (!f) return 4;
  const std::vector<uint8_t> data(65536, 0x5a);
  FileWrite(f, data.data(), data.size());
  const bool ok = FileFlush(f, false) && !f->WriteError;
  FileClose(f);
  return ok ? 1 : 0;
}

TEST(Signals, AWritePastTheFileSizeLimitFailsInsteadOfKilling) {
  const ScratchDir dir;
  // Without the handlers the system ends the process at the write.
  EXPECT_EQ(InChild([&] {
              signal(SIGXFSZ, SIG_DFL);
              return WritePastTheLimit(dir / "plain.bin");
            }),
            128 + SIGXFSZ);
  EXPECT_EQ(InChild([&] {
              SignalsInstall();
              return WritePastTheLimit(dir / "limited.bin");
            }),
            0);
  EXPECT_EQ(ReadFile(dir / "limited.bin").size(), 16384u);
}

TEST(Signals, StopRequestsAreCountedAndASecondOneEndsTheProcess) {
  for (const int number : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(number);
    EXPECT_EQ(InChild([number] {
                SignalsInstall();
                if (SignalStopRequests() != 0) return 2;
                raise(number);
                if (SignalStopRequests() != 1) return 3;
                // Installing again starts a fresh count for the next run.
                SignalsInstall();
                if (SignalStopRequests() != 0) return 4;
                raise(number);
                raise(number);  // the second of this run: the default action
                return 5;
              }),
              128 + number);
    // Restored, the signal has its old action again.
    EXPECT_EQ(InChild([number] {
                SignalsInstall();
                SignalsRestore();
                raise(number);
                return 6;
              }),
              128 + number);
  }
}

}  // namespace
