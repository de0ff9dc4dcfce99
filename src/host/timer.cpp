// TimerMs: the one time source of the tools and the library. The fine counter can jump (a
// machine that was suspended, a broken counter), so every reading is checked against a coarse
// tick source, and a jump of more than 200 ms is folded into the base so the clock follows the
// ticks. The result never runs backward.
#include "host/platform.h"

#include <time.h>

#include <cstdlib>
#include <cstring>
#include <mutex>

namespace {

// ---------------------------------------------------------------------------------------------
// System sources

uint64_t ClockNs(clockid_t clock) {
  timespec t;
  clock_gettime(clock, &t);
  return static_cast<uint64_t>(t.tv_sec) * 1000000000ull + static_cast<uint64_t>(t.tv_nsec);
}

uint64_t SystemCounter() { return ClockNs(CLOCK_MONOTONIC_RAW); }
// The tick source counts time asleep too, like the counter it checks should.
uint32_t SystemTickCount() { return static_cast<uint32_t>(ClockNs(CLOCK_BOOTTIME) / 1000000u); }
uint32_t SystemSimpleMs() { return static_cast<uint32_t>(ClockNs(CLOCK_MONOTONIC) / 1000000u); }

const TimerSources systemSources = {SystemCounter, 1000000000ull, SystemTickCount, SystemSimpleMs};

// ---------------------------------------------------------------------------------------------
// State

constexpr int64_t JumpLimitMs = 200;
constexpr uint32_t BackwardLimit = 0xC0000000u;

struct TimerState {
  TimerSources Sources = systemSources;
  bool Started = false;
  bool Simple = false;      // on the simple source for good
  uint64_t CounterStart = 0;
  int64_t Base = 0;         // ms added to the counter's time (counter path), or subtracted
                            // from the simple source (simple path)
  int64_t LastCounterMs = 0;
  uint32_t LastTick = 0;
  uint32_t Last = 0;        // the last result
};

std::mutex timerMutex;
TimerState timer;

bool SimpleSourceAsked() {
  const char* value = std::getenv("ORN_USE_TGT");
  return value && std::strcmp(value, "1") == 0;
}

// Counter ticks to ms without overflow for any span the 64-bit counter can hold.
int64_t CounterToMs(uint64_t ticks, uint64_t frequency) {
  return static_cast<int64_t>((ticks / frequency) * 1000 + (ticks % frequency) * 1000 / frequency);
}

void StartTimer(TimerState& t) {
  t.Started = true;
  t.Last = 0;
  t.Simple = SimpleSourceAsked() || t.Sources.Frequency == 0 || !t.Sources.Counter;
  if (t.Simple) {
    t.Base = t.Sources.SimpleMs();
    return;
  }
  t.CounterStart = t.Sources.Counter();
  t.LastTick = t.Sources.TickCount();
  t.Base = 0;
  t.LastCounterMs = 0;
}

uint32_t Monotonic(TimerState& t, uint32_t now) {
  if (now - t.Last > BackwardLimit) return t.Last;
  t.Last = now;
  return now;
}

uint32_t CounterReading(TimerState& t) {
  const uint64_t counter = t.Sources.Counter();
  const uint32_t tick = t.Sources.TickCount();
  int64_t ms = t.Base + CounterToMs(counter - t.CounterStart, t.Sources.Frequency);
  const int64_t counterMoved = ms - t.LastCounterMs;
  const int64_t tickMoved = static_cast<int32_t>(tick - t.LastTick);
  if (counterMoved - tickMoved > JumpLimitMs || tickMoved - counterMoved > JumpLimitMs) {
    // The counter jumped: from here on it runs offset so the clock moved as the ticks did.
    t.Base += tickMoved - counterMoved;
    ms = t.LastCounterMs + tickMoved;
  }
  t.LastCounterMs = ms;
  t.LastTick = tick;
  return Monotonic(t, static_cast<uint32_t>(ms));
}

}  // namespace

uint32_t TimerMs() {
  std::lock_guard<std::mutex> hold(timerMutex);
  if (!timer.Started) {
    StartTimer(timer);
    return 0;
  }
  if (timer.Simple)
    return Monotonic(timer, timer.Sources.SimpleMs() - static_cast<uint32_t>(timer.Base));
  return CounterReading(timer);
}

void TimerSetSourcesForTest(const TimerSources* sources) {
  std::lock_guard<std::mutex> hold(timerMutex);
  timer = TimerState{};
  if (!sources) return;
  timer.Sources = *sources;
  if (!timer.Sources.TickCount) timer.Sources.TickCount = SystemTickCount;
  if (!timer.Sources.SimpleMs) timer.Sources.SimpleMs = SystemSimpleMs;
}
