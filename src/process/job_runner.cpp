// The two built-in job runners and the process-wide choice between them and a tool's own.
#include "process/job_runner.h"

#include <atomic>

namespace {

void RunOnPool(const ProcessJobRunner*, const char*, PoolFunction function, void* context) {
  PoolRun(function, context);
}

void RunInline(const ProcessJobRunner*, const char*, PoolFunction function, void* context) {
  function(context, 0);
}

const ProcessJobRunner poolRunner = {RunOnPool, nullptr};
const ProcessJobRunner inlineRunner = {RunInline, nullptr};
std::atomic<const ProcessJobRunner*> installedRunner{nullptr};

}  // namespace

const ProcessJobRunner* ProcessPoolRunner() { return &poolRunner; }
const ProcessJobRunner* ProcessInlineRunner() { return &inlineRunner; }

void ProcessSetJobRunner(const ProcessJobRunner* runner) { installedRunner.store(runner); }

const ProcessJobRunner* ProcessInstalledRunner() {
  const ProcessJobRunner* runner = installedRunner.load();
  return runner ? runner : &poolRunner;
}

void ProcessRunJob(const ProcessJobRunner* runner, const char* name, PoolFunction function,
                   void* context) {
  if (!runner) runner = ProcessInstalledRunner();
  runner->Run(runner, name, function, context);
}
