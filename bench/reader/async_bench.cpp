// Frames per second through the async slice service next to VelmoDoFrame on the caller's
// thread: a 1280x720 first-generation file (mixed block content, a key frame every fourth
// frame) with 1, 2 and 4 worker threads, and 1920x1080 second-generation files of 2, 4 and 8
// slices (generated frames of about 0.3 bits per pixel, a key frame of about 1.5 every eighth
// frame) with 1, 2, 4 and 8 threads. The files are built in memory and opened as images, so no
// reading is measured; each iteration is one complete frame: decode (or give out and wait) and
// select the next one.
#include <benchmark/benchmark.h>

#include <vector>

#include "support/velmo1_mixed_file.h"
#include "support/velmo2_file.h"
#include "velmo.h"

namespace {

constexpr int32_t Width = 1280, Height = 720;
constexpr uint32_t Frames = 8;

const std::vector<uint8_t>& FirstGenerationFile() {
  static const std::vector<uint8_t> file =
      velmo_test::BuildFile(velmo_test::MixedFirstGenerationPlan(Width, Height, Frames));
  return file;
}

// Slice mode of the file flags for 2, 4 and 8 slices.
uint32_t ModeFor(uint32_t slices) { return slices == 8 ? 3 : slices == 4 ? 2 : 0; }

const std::vector<uint8_t>& SecondGenerationFile(uint32_t slices) {
  static std::vector<uint8_t> files[4];
  std::vector<uint8_t>& file = files[ModeFor(slices)];
  if (file.empty()) {
    velmo2_test::FileFrames f;
    f.Width = 1920;
    f.Height = 1080;
    f.SliceMode = ModeFor(slices);
    for (uint32_t i = 0; i < Frames; ++i) {
      const bool key = i == 0;
      f.Sections.push_back(velmo2_test::GenerateSection(
          velmo2_test::RealisticPlan(1920, 1080, key, f.SliceMode, key ? 1.5 : 0.3, 20 + i)));
      f.Key.push_back(key);
    }
    file = velmo2_test::BuildFile(f);
  }
  return file;
}

// range(1): 0 for the first-generation file, else the second-generation one of that many slices.
const std::vector<uint8_t>& File(const benchmark::State& state) {
  return state.range(1) ? SecondGenerationFile(uint32_t(state.range(1))) : FirstGenerationFile();
}

HVELMO OpenFile(benchmark::State& state) {
  VelmoOpenOptions o{};
  o.ImageSize = File(state).size();
  HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(File(state).data()), &o,
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
BENCHMARK(BM_DoFrame)
    ->Args({0, 0})
    ->Args({0, 2})
    ->Args({0, 4})
    ->Args({0, 8})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

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
// Threads, then the file as for BM_DoFrame.
BENCHMARK(BM_Async)
    ->ArgsProduct({{1, 2, 4}, {0}})
    ->ArgsProduct({{1, 2, 4, 8}, {2, 4, 8}})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
