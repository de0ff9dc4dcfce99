// Running tools in tests: the real program as a child process on the console front end (at
// once, or started and collected later so that a test can signal it meanwhile), or a tool's
// routines behind the tool shell in this process. Either way the result is the exit code
// and what the tool printed (its message boxes included). A child can also run under caps on
// memory, file size and time.
#pragma once
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/resource.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

#include "host/toolframe.h"

extern char** environ;

namespace test_support {

struct ToolOutcome {
  int code = -1;
  std::string output;  // stdout and stderr together
  bool Says(const std::string& text) const { return output.find(text) != std::string::npos; }
  // How many times the output holds `text`.
  size_t Times(const std::string& text) const {
    size_t n = 0;
    for (size_t at = output.find(text); at != std::string::npos; at = output.find(text, at + 1)) n++;
    return n;
  }
};

// The environment of a program run by a test: this process's, less the settings that pick a
// display or the program's own settings (DISPLAY, WAYLAND_DISPLAY, XDG_CONFIG_HOME, ORN_*),
// with ORN_CONSOLE=1 and then `env` ("NAME=value" entries).
inline std::vector<std::string> ProgramEnvironment(const std::vector<std::string>& env) {
  std::vector<std::string> vars;
  for (char** e = environ; *e; e++) {
    const std::string v = *e;
    if (v.rfind("DISPLAY=", 0) == 0 || v.rfind("WAYLAND_DISPLAY=", 0) == 0 ||
        v.rfind("XDG_CONFIG_HOME=", 0) == 0 || v.rfind("ORN_", 0) == 0)
      continue;
    vars.push_back(v);
  }
  vars.push_back("ORN_CONSOLE=1");
  vars.insert(vars.end(), env.begin(), env.end());
  return vars;
}

// A null-terminated array of the strings' texts, for exec and spawn calls.
inline std::vector<char*> CStrings(std::vector<std::string>& strings) {
  std::vector<char*> out;
  for (std::string& s : strings) out.push_back(s.data());
  out.push_back(nullptr);
  return out;
}

// ---- Runs under caps ---------------------------------------------------------------------------
// A child process with limits on memory, written file size and time, its peak memory taken from
// the kernel's account of it, and control of its life for tests that stop a tool midway.

// True when the tests are built with the address sanitizer, whose shadow memory does not fit
// under an address-space cap.
#if defined(__SANITIZE_ADDRESS__)
inline constexpr bool kAddressSanitizer = true;
#elif defined(__has_feature)
#if __has_feature(address_sanitizer)
inline constexpr bool kAddressSanitizer = true;
#else
inline constexpr bool kAddressSanitizer = false;
#endif
#else
inline constexpr bool kAddressSanitizer = false;
#endif

struct RunCaps {
  uint64_t memory_bytes = 1ull << 30;  // address space; 0 or an ASan build: none
  uint64_t file_bytes = 0;             // largest file the child may write; 0: no limit
  int time_ms = kAddressSanitizer ? 20000 : 5000;  // killed when it runs longer
  std::string input = "/dev/null";     // the child's standard input
};

// The code is the exit status (its low 8 bits), -1 when a signal ended the child.
struct CappedOutcome : ToolOutcome {
  int signal = 0;        // the signal that ended it, 0 when it exited
  bool timed_out = false;
  long peak_kb = 0;      // largest resident size
  // The tool's exit code as a POSIX shell sees it (the low 8 bits).
  bool ExitedWith(int toolCode) const { return signal == 0 && code == (toolCode & 0xFF); }
};

// A started child: its process id and the read end of its output pipe.
struct Child {
  pid_t pid = -1;
  int out = -1;
  std::string output;
};

// Starts `program` with `args` and no display, standard input from `caps.input`, in the
// environment of ProgramEnvironment(env) and its own process group, under `caps`' memory and
// file-size limits; returns at once.
inline Child StartCapped(const std::string& program, const std::vector<std::string>& args,
                          const RunCaps& caps, const std::vector<std::string>& env = {}) {
  std::vector<std::string> vars = ProgramEnvironment(env);
  std::vector<std::string> argStore = {program};
  argStore.insert(argStore.end(), args.begin(), args.end());
  std::vector<char*> envp = CStrings(vars), argv = CStrings(argStore);

  Child child;
  int out[2];
  if (pipe(out) != 0) return child;
  const uint64_t memory = kAddressSanitizer ? 0 : caps.memory_bytes;
  const char* const input = caps.input.c_str();
  const pid_t pid = fork();
  if (pid == 0) {
    // Only calls that are safe between fork and exec.
    setpgid(0, 0);
    const int in = open(input, O_RDONLY);
    dup2(in, 0);
    dup2(out[1], 1);
    dup2(out[1], 2);
    close(out[0]);
    if (memory) {
      const rlimit m = {rlim_t(memory), rlim_t(memory)};
      setrlimit(RLIMIT_AS, &m);
    }
    if (caps.file_bytes) {
      const rlimit f = {rlim_t(caps.file_bytes), rlim_t(caps.file_bytes)};
      setrlimit(RLIMIT_FSIZE, &f);
    }
    execve(program.c_str(), argv.data(), envp.data());
    _exit(127);
  }
  close(out[1]);
  if (pid < 0) {
    close(out[0]);
    return child;
  }
  setpgid(pid, pid);
  child.pid = pid;
  child.out = out[0];
  return child;
}

// Reads what the child printed for up to `ms` milliseconds; true once its output has ended.
inline bool DrainChild(Child* child, int ms) {
  const auto end = std::chrono::steady_clock::now() + std::chrono::milliseconds(ms);
  for (;;) {
    const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
        end - std::chrono::steady_clock::now()).count();
    pollfd p{child->out, POLLIN, 0};
    if (poll(&p, 1, int(std::max<long long>(0, left))) <= 0) return false;
    char buffer[4096];
    const ssize_t n = read(child->out, buffer, sizeof buffer);
    if (n <= 0) return true;
    child->output.append(buffer, size_t(n));
  }
}

// Sends `sig` to the child's whole process group.
inline void SignalChild(const Child& child, int sig) {
  if (child.pid > 0) kill(-child.pid, sig);
}

// Waits for the child to end, killing it (and its group) when it outlives `ms` milliseconds.
inline CappedOutcome FinishChild(Child* child, int ms) {
  CappedOutcome result;
  if (child->pid <= 0) return result;
  if (!DrainChild(child, ms)) {
    result.timed_out = true;
    SignalChild(*child, SIGKILL);
    DrainChild(child, 2000);
  }
  close(child->out);
  int status = 0;
  rusage usage{};
  wait4(child->pid, &status, 0, &usage);
  result.peak_kb = usage.ru_maxrss;
  if (WIFSIGNALED(status)) result.signal = WTERMSIG(status);
  result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  result.output = std::move(child->output);
  child->pid = -1;
  return result;
}

// Runs `program` to its end under `caps`.
inline CappedOutcome RunCapped(const std::string& program, const std::vector<std::string>& args,
                               const RunCaps& caps = {}, const std::vector<std::string>& env = {}) {
  Child child = StartCapped(program, args, caps, env);
  return FinishChild(&child, caps.time_ms);
}

// ---- Runs without caps ------------------------------------------------------------------------

// A program started by StartProgram: a child with no memory or time cap.
using RunningProgram = Child;

// Starts `program` like StartCapped but with no memory cap; with `fileSizeLimit` (bytes) it runs
// under that file size limit. FinishProgram collects it.
inline RunningProgram StartProgram(const std::string& program, const std::vector<std::string>& args,
                                   const std::vector<std::string>& env = {},
                                   uint64_t fileSizeLimit = 0) {
  RunCaps caps;
  caps.memory_bytes = 0;
  caps.file_bytes = fileSizeLimit;
  return StartCapped(program, args, caps, env);
}

// Reads what the program prints until it ends (ten minutes at most), and waits for it. The
// code is its exit status, or 128 plus the signal that ended it.
inline ToolOutcome FinishProgram(RunningProgram& running) {
  if (running.pid < 0) return {};
  const CappedOutcome r = FinishChild(&running, 600000);
  return {r.signal ? 128 + r.signal : r.code, r.output};
}

// StartProgram and FinishProgram in one.
inline ToolOutcome RunProgram(const std::string& program, const std::vector<std::string>& args,
                              const std::vector<std::string>& env = {}, uint64_t fileSizeLimit = 0) {
  RunningProgram running = StartProgram(program, args, env, fileSizeLimit);
  return FinishProgram(running);
}

// Runs a shell command line; its exit status, with its standard output in `output`.
inline ToolOutcome RunShell(const std::string& command) {
  ToolOutcome result;
  FILE* pipe = popen(command.c_str(), "r");
  if (!pipe) return result;
  char buffer[4096];
  size_t n;
  while ((n = fread(buffer, 1, sizeof buffer, pipe)) > 0) result.output.append(buffer, n);
  const int status = pclose(pipe);
  result.code = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
  return result;
}

// Runs a tool's main routine and command handler behind the tool shell in this process, on the
// console front end; `output` is what the console printed. The dialog must be registered.
inline ToolOutcome RunToolHere(ToolMainRoutine mainRoutine, ToolCommandHandler handler,
                               const char* dialog, const std::string& tail) {
  ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
  testing::internal::CaptureStderr();
  ToolOutcome result;
  result.code = ToolFrameRun(nullptr, 0, tail.c_str(), 1, true, mainRoutine, handler, dialog);
  result.output = testing::internal::GetCapturedStderr();
  return result;
}

}  // namespace test_support
