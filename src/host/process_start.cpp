// Starting programs with posix_spawn; the lowered priority is set from here, on the child.
#include "host/process_start.h"

#include <spawn.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <thread>

extern char** environ;

namespace {

constexpr int LowestPriority = 19;  // the niceness of a program that runs only when nothing else does

int64_t Spawn(const char* program, const char* const* arguments, bool searchPath) {
  pid_t pid = -1;
  char* const* argv = const_cast<char* const*>(arguments);
  const int failed = searchPath ? posix_spawnp(&pid, program, nullptr, nullptr, argv, environ)
                                : posix_spawn(&pid, program, nullptr, nullptr, argv, environ);
  return failed ? -1 : int64_t(pid);
}

}  // namespace

int64_t ProcessStart(const char* program, const char* const* arguments, bool lowPriority) {
  if (!program || !arguments || !arguments[0]) return -1;
  const int64_t id = Spawn(program, arguments, false);
  if (id > 0 && lowPriority) setpriority(PRIO_PROCESS, id_t(id), LowestPriority);
  return id;
}

int ProcessWait(int64_t id) {
  if (id <= 0) return -1;
  int status = 0;
  pid_t got;
  do got = waitpid(pid_t(id), &status, 0);
  while (got < 0 && errno == EINTR);
  if (got != pid_t(id) || !WIFEXITED(status)) return -1;
  return WEXITSTATUS(status);
}

bool ProcessOpenAddress(const char* address) {
  if (!address || !*address) return false;
  const char* arguments[] = {"xdg-open", address, nullptr};
  const int64_t id = Spawn("xdg-open", arguments, true);
  if (id <= 0) return false;
  std::thread([id] { ProcessWait(id); }).detach();
  return true;
}
