#include "process_test_util.h"

#include <mutex>
#include <thread>

namespace processtest {

void RecordingRun(const ProcessJobRunner* runner, const char* name, PoolFunction function,
                  void* context) {
  auto* r = static_cast<RecordingRunner*>(runner->Owner);
  r->Names.push_back(name);
  std::vector<std::thread> threads;
  for (uint32_t i = 1; i < r->Threads; ++i) threads.emplace_back(function, context, i);
  function(context, 0);
  for (auto& t : threads) t.join();
}

}  // namespace processtest
