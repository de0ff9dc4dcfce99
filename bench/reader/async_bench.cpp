// Frames per second of a 1280x720 first-generation file decoded through the async slice service
// with 1, 2 and 4 worker threads, next to VelmoDoFrame on the caller's thread. The file (mixed
// block content, a key frame every fourth frame) is built in memory and opened as an image, so
// no reading is measured; each iteration is one complete frame: decode (or give out and wait)
// and select the next one.
#include <benchmark/benchmark.h>

#include <vector>

#include "support/velmo1_mixed_file.h"
#include "velmo.h"

namespace {

constexpr int32_t Width = 1280, Height = 720;
constexpr uint32_t Frames = 8;

const std::vector<uint8_t>& File() {
  static const std::vector<uint8_t> file =
      velmo_test::BuildFile(velmo_test::MixedFirstGenerationPlan(Width, Height, Frames));
  return file;
}

HVELMO OpenFile(benchmark::State& state) {
  VelmoOpenOptions o{};
  o.ImageSize = File().size();
  HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(File().data()), &o,
                                  VelmoOpenImage | VelmoOpenNeverSkip);
  if (!h) state.SkipWithError(VelmoGetError());
  return h;
}

void Report(benchmark::State& state) {
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["fps"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
}

void BM_DoFrame(benchmark::State& state) {
  HVELMO h = OpenFile(state);
  if (!h) return;
  for (auto _ : state) {
    VelmoDoFrame(h);
    VelmoNextFrame(h);
  }
  Report(state);
  VelmoClose(h);
}
BENCHMARK(BM_DoFrame)->Unit(benchmark::kMillisecond)->UseRealTime();

void BM_Async(benchmark::State& state) {
  const uint32_t count = uint32_t(state.range(0));
  std::vector<uint32_t> numbers;
  for (uint32_t n = 0; n < count; ++n) {
    if (!VelmoStartAsyncThread(n)) {
      state.SkipWithError(VelmoGetError());
      return;
    }
    numbers.push_back(n);
  }
  HVELMO h = OpenFile(state);
  for (auto _ : state) {
    if (!h) break;
    VelmoDoFrameAsync(h, numbers.data(), count);
    VelmoDoFrameAsyncWait(h, -1);
    VelmoNextFrame(h);
  }
  Report(state);
  VelmoClose(h);
  for (uint32_t n : numbers) VelmoWaitStopAsyncThread(n);
}
BENCHMARK(BM_Async)->Arg(1)->Arg(2)->Arg(4)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
