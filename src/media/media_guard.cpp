// How a fault is survived on POSIX.
//
// The choice was between running decoders in a child process and recovering in place. A child
// process keeps the parent's memory clean but costs a fork and a copy of every frame, and the
// readers keep state (an open animated GIF, a Velmo handle) that would have to live in the
// child. So the guard recovers in place: while a guarded call runs, handlers for SIGSEGV,
// SIGBUS, SIGFPE and SIGILL are installed; a fault on a thread inside a guarded call jumps
// back to its sigsetjmp point with siglongjmp, and the call counts as failed. The handlers are
// installed by the first guard that enters and the previous ones restored by the last that
// leaves, so outside guarded calls the process behaves as it did before. A fault on a thread
// that is not inside a guard puts the previous handler back and returns; the faulting
// instruction then runs again and meets that handler, as if we had never been there.
//
// The price of recovering in place: the abandoned call may leave its own state half updated
// and may leak what it allocated. The readers therefore treat their buffers as possibly
// partial after a fault, and a decoder that faulted inside the allocator (holding its lock)
// could still hang the process; that is accepted as the rare case. Each guarded thread gets a
// small alternate signal stack so that a runaway recursion is caught too.
#include "media/media_guard.h"

#include <pthread.h>
#include <setjmp.h>
#include <signal.h>

#include <cstdlib>
#include <cstring>

namespace {

constexpr int GuardedSignals[] = {SIGSEGV, SIGBUS, SIGFPE, SIGILL};
constexpr int SignalCount = sizeof GuardedSignals / sizeof GuardedSignals[0];

pthread_mutex_t InstallLock = PTHREAD_MUTEX_INITIALIZER;
int ActiveGuards = 0;
struct sigaction Previous[SignalCount];

// The jump point of the guarded call running on this thread, null outside one.
thread_local sigjmp_buf* ActiveJump = nullptr;

int SignalIndex(int sig) {
  for (int i = 0; i < SignalCount; ++i)
    if (GuardedSignals[i] == sig) return i;
  return -1;
}

void OnFault(int sig, siginfo_t*, void*) {
  sigjmp_buf* jump = ActiveJump;
  if (jump) {
    ActiveJump = nullptr;
    siglongjmp(*jump, 1);
  }
  // Not ours: hand the signal back to whoever had it before.
  const int i = SignalIndex(sig);
  if (i >= 0) sigaction(sig, &Previous[i], nullptr);
}

void InstallHandlers() {
  pthread_mutex_lock(&InstallLock);
  if (ActiveGuards++ == 0) {
    struct sigaction action;
    memset(&action, 0, sizeof action);
    action.sa_sigaction = OnFault;
    action.sa_flags = SA_SIGINFO | SA_ONSTACK | SA_NODEFER;
    sigemptyset(&action.sa_mask);
    for (int i = 0; i < SignalCount; ++i) sigaction(GuardedSignals[i], &action, &Previous[i]);
  }
  pthread_mutex_unlock(&InstallLock);
}

void RemoveHandlers() {
  pthread_mutex_lock(&InstallLock);
  if (--ActiveGuards == 0)
    for (int i = 0; i < SignalCount; ++i) sigaction(GuardedSignals[i], &Previous[i], nullptr);
  pthread_mutex_unlock(&InstallLock);
}

// One alternate stack per thread, made at the thread's first guarded call and kept.
constexpr size_t AltStackBytes = 64 * 1024;
thread_local void* AltStack = nullptr;

void EnsureAltStack() {
  if (AltStack) return;
  stack_t current;
  if (sigaltstack(nullptr, &current) == 0 && !(current.ss_flags & SS_DISABLE)) {
    AltStack = current.ss_sp;  // the thread already has one (a sanitizer's, say)
    return;
  }
  void* block = malloc(AltStackBytes);
  if (!block) return;
  stack_t stack;
  stack.ss_sp = block;
  stack.ss_size = AltStackBytes;
  stack.ss_flags = 0;
  if (sigaltstack(&stack, nullptr) == 0)
    AltStack = block;
  else
    free(block);
}

// Kept out of line so that the sigsetjmp frame holds nothing that the jump could clobber.
__attribute__((noinline)) bool RunWithJump(MediaGuardedCall call, void* context) {
  sigjmp_buf jump;
  sigjmp_buf* volatile outer = ActiveJump;
  if (sigsetjmp(jump, 1) != 0) {
    ActiveJump = outer;
    return false;
  }
  ActiveJump = &jump;
  call(context);
  ActiveJump = outer;
  return true;
}

}  // namespace

bool MediaGuardRun(MediaGuardedCall call, void* context) {
  EnsureAltStack();
  InstallHandlers();
  const bool ok = RunWithJump(call, context);
  RemoveHandlers();
  return ok;
}
