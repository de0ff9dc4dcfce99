// Running code and programs on a pseudo-terminal, as a user at a terminal sees them: standard
// output and error are a terminal 80 columns wide, standard input is /dev/null (so that no
// question waits for an answer). The outcome's output is what reached the terminal, with its
// line ends as the terminal sends them ("\r\n").
#pragma once
#include <fcntl.h>
#include <pty.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <functional>
#include <string>
#include <vector>

#include "support/run.h"

namespace test_support {

constexpr int TerminalColumns = 80;

// Reads what the child wrote until the terminal's other side is closed, then waits for it.
inline ToolOutcome CollectTerminal(pid_t pid, int master) {
  ToolOutcome result;
  char buffer[4096];
  for (;;) {
    const ssize_t n = read(master, buffer, sizeof buffer);
    if (n > 0) {
      result.output.append(buffer, size_t(n));
    } else if (n < 0 && errno == EINTR) {
      continue;
    } else {
      break;  // EIO once every copy of the terminal's other side is closed
    }
  }
  close(master);
  int status = 0;
  waitpid(pid, &status, 0);
  result.code = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
  return result;
}

// Runs `body` in a child process on a new terminal; its value is the child's exit code.
inline ToolOutcome RunInTerminal(const std::function<int()>& body) {
  winsize size{};
  size.ws_row = 24;
  size.ws_col = TerminalColumns;
  int master = -1;
  const pid_t pid = forkpty(&master, nullptr, nullptr, &size);
  if (pid < 0) return ToolOutcome{};
  if (pid == 0) {
    const int in = open("/dev/null", O_RDONLY);
    if (in >= 0) dup2(in, 0);
    const int code = body();
    std::fflush(stdout);
    std::fflush(stderr);
    _exit(code & 255);
  }
  return CollectTerminal(pid, master);
}

// Runs `program` with `args` on a terminal, in the environment of ProgramEnvironment(env).
inline ToolOutcome RunProgramInTerminal(const std::string& program,
                                        const std::vector<std::string>& args,
                                        const std::vector<std::string>& env = {}) {
  std::vector<std::string> vars = ProgramEnvironment(env);
  std::vector<char*> envp = CStrings(vars);
  std::vector<std::string> argStore = {program};
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> argv = CStrings(argStore);
  return RunInTerminal([&] {
    execve(program.c_str(), argv.data(), envp.data());
    return 127;
  });
}

}  // namespace test_support
