// Job runners for frame processing. A stage hands its work to a runner as one named job: a
// function that keeps taking work items (slices, row bands, tiles) from a shared atomic counter
// in its context until none are left. The runner decides how many threads call it; every call
// must find the whole job done when the runner returns. Results never depend on that number.
#pragma once
#include <cstdint>

#include "host/platform.h"

struct ProcessJobRunner {
  // Calls function(context, i) for one or more i, possibly at the same time on several threads,
  // and returns once all calls have ended. `name` tells the job for progress and profiling.
  void (*Run)(const ProcessJobRunner* runner, const char* name, PoolFunction function,
              void* context);
  void* Owner;  // the tool's own data, for its Run
};

// Spreads jobs over the job pool (PoolRun): every pool thread takes part.
const ProcessJobRunner* ProcessPoolRunner();
// Runs jobs in turn on the calling thread.
const ProcessJobRunner* ProcessInlineRunner();

// Installs the runner that stages use when they are given none; null restores the pool runner.
// A tool installs its own before it starts reading frames.
void ProcessSetJobRunner(const ProcessJobRunner* runner);
const ProcessJobRunner* ProcessInstalledRunner();

// Hands a job to `runner`, or to the installed runner when `runner` is null.
void ProcessRunJob(const ProcessJobRunner* runner, const char* name, PoolFunction function,
                   void* context);

// Takes the next work item below `count` from a shared counter; false when none is left.
inline bool ProcessTakeItem(volatile uint32_t* counter, uint32_t count, uint32_t* item) {
  if (AtomicRead(counter) >= count) return false;  // keeps the counter from wrapping
  *item = AtomicAdd(counter, 1);
  return *item < count;
}
