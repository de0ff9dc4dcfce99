// Signal handlers of a tool run. The handler only counts (an atomic that is free of locks) and
// re-raises the second signal with its default action; the shell's main loop does the rest.
#include "host/signals.h"

#include <signal.h>

#include <atomic>

namespace {

std::atomic<uint32_t> g_stops{0};
struct sigaction g_oldInt, g_oldTerm;
bool g_installed = false;

static_assert(std::atomic<uint32_t>::is_always_lock_free, "the handler's counter takes no lock");

void OnStop(int number) {
  if (g_stops.fetch_add(1) >= 1) {
    signal(number, SIG_DFL);
    raise(number);  // delivered as the handler returns
  }
}

}  // namespace

void SignalsInstall() {
  signal(SIGXFSZ, SIG_IGN);
  g_stops = 0;
  struct sigaction action {};
  action.sa_handler = OnStop;
  sigemptyset(&action.sa_mask);
  // Interrupted waits and reads start again: the tool goes on until it sees its cancel.
  action.sa_flags = SA_RESTART;
  if (g_installed) return;
  sigaction(SIGINT, &action, &g_oldInt);
  sigaction(SIGTERM, &action, &g_oldTerm);
  g_installed = true;
}

namespace {

// Puts back the old action unless someone has set another since (a front end closing).
void PutBack(int number, const struct sigaction& old) {
  struct sigaction now {};
  if (sigaction(number, nullptr, &now) == 0 && now.sa_handler == OnStop)
    sigaction(number, &old, nullptr);
}

}  // namespace

void SignalsRestore() {
  if (!g_installed) return;
  PutBack(SIGINT, g_oldInt);
  PutBack(SIGTERM, g_oldTerm);
  g_installed = false;
}

uint32_t SignalStopRequests() { return g_stops.load(); }
