// Speed of the motion search at each kernel level: every macroblock of a 1280x720 frame pair
// with a known global motion (whole and half pixels) plus noise, searched in raster order with
// the vectors already chosen above and to the left as neighbours, as the encoder does.
#include <benchmark/benchmark.h>

#include <string>
#include <vector>

#include "encode2/velmo2_motion.h"
#include "host/cpu_features.h"
#include "support/velmo2_motion_frames.h"

namespace {

using test_support::MotionFrames;

const MotionFrames& Frames(int motion) {
  static const MotionFrames still = test_support::ShiftedFrames(1280, 720, 0, 0, false, 2, 3);
  static const MotionFrames moved = test_support::ShiftedFrames(1280, 720, 23, -9, false, 4, 3);
  return motion ? moved : still;
}

// Searches the whole frame once; the vectors of each macroblock row are kept for the next.
double SearchFrame(const MotionFrames& f, const Velmo2Kernels& fetch,
                   const Velmo2EncodeKernels& diff, std::vector<int32_t>& vx,
                   std::vector<int32_t>& vy) {
  const uint32_t cols = (f.Width + 31) / 32, rows = (f.Height + 31) / 32;
  double total = 0;
  for (uint32_t r = 0; r < rows; ++r)
    for (uint32_t c = 0; c < cols; ++c) {
      Velmo2MotionInput in =
          test_support::MotionInputFor(f, c * 32, r * 32, &fetch, &diff, 8.0);
      const auto at = [&](std::vector<int32_t>& v, uint32_t rr, uint32_t cc) {
        return &v[(size_t(rr) * cols + cc) * 4];
      };
      const bool above = r > 0, left = c > 0;
      in.NeighbourX = {above ? at(vx, r - 1, c) : nullptr, left ? at(vx, r, c - 1) : nullptr,
                       above && left ? at(vx, r - 1, c - 1) : nullptr};
      in.NeighbourY = {above ? at(vy, r - 1, c) : nullptr, left ? at(vy, r, c - 1) : nullptr,
                       above && left ? at(vy, r - 1, c - 1) : nullptr};
      Velmo2MotionResult out;
      if (!Velmo2MotionSearch(in, &out)) continue;
      std::copy(out.Vx, out.Vx + 4, at(vx, r, c));
      std::copy(out.Vy, out.Vy + 4, at(vy, r, c));
      total += out.Cost;
    }
  return total;
}

// Arguments: the kernel level, and 0 for a still picture or 1 for the moving one.
void BM_MotionSearchFrame(benchmark::State& state) {
  const ProcessorLevel& level = ProcessorLevels[state.range(0)];
  if (!ProcessorHas(level.Features)) {
    state.SkipWithError("processor lacks the level");
    return;
  }
  Velmo2Kernels fetch;
  Velmo2EncodeKernels diff;
  Velmo2KernelsInit(&fetch, level.Features | CpuValid);
  Velmo2EncodeKernelsInit(&diff, level.Features | CpuValid);
  state.SetLabel(std::string(level.Name) + (state.range(1) ? " moving" : " still"));
  const MotionFrames& f = Frames(int(state.range(1)));
  const size_t mbs = size_t((f.Width + 31) / 32) * ((f.Height + 31) / 32);
  std::vector<int32_t> vx(mbs * 4), vy(mbs * 4);
  for (auto _ : state) benchmark::DoNotOptimize(SearchFrame(f, fetch, diff, vx, vy));
  state.counters["macroblocks/s"] =
      benchmark::Counter(double(mbs), benchmark::Counter::kIsIterationInvariantRate);
}

void Levels(benchmark::internal::Benchmark* b) {
  for (int level = ProcessorLevelPlain; level < ProcessorLevelCount; ++level)
    for (int motion = 0; motion < 2; ++motion) b->Args({level, motion});
}

}  // namespace

BENCHMARK(BM_MotionSearchFrame)->Apply(Levels)->Unit(benchmark::kMillisecond);

BENCHMARK_MAIN();
