// Speed of each second-generation decoder kernel at each level: the two inverse transforms,
// the luma fetch at each fraction, the chroma fetch at each fraction pair, the residual add of
// a quadrant, the edge filter and the residual seam filter across vertical and horizontal
// edges, and the flat-block interpolation.
#include "decode/velmo2_kernels.h"
#include "host/cpu_features.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

namespace {

// The table at the level of the benchmark's first argument, or false (and the benchmark
// skipped) where the processor lacks it.
bool KernelsAt(benchmark::State& state, Velmo2Kernels* kernels) {
  const ProcessorLevel& level = ProcessorLevels[state.range(0)];
  if (!ProcessorHas(level.Features)) {
    state.SkipWithError("processor lacks the level");
    return false;
  }
  Velmo2KernelsInit(kernels, level.Features | CpuValid);
  state.SetLabel(level.Name);
  return true;
}

void Levels(benchmark::internal::Benchmark* b) {
  b->DenseRange(ProcessorLevelPlain, ProcessorLevelCount - 1);
}

// Levels by a second argument from 0 to count - 1.
void LevelsBy(benchmark::internal::Benchmark* b, int count) {
  for (int level = ProcessorLevelPlain; level < ProcessorLevelCount; ++level)
    for (int k = 0; k < count; ++k) b->Args({level, k});
}

std::vector<uint8_t> RandomBytes(size_t count, uint32_t seed) {
  std::mt19937 rng(seed);
  std::vector<uint8_t> out(count);
  for (uint8_t& v : out) v = uint8_t(rng());
  return out;
}

// 256 blocks of coefficients as real blocks have them: small values, most of them zero, in the
// corner only when `corner`.
std::vector<int16_t> Blocks(bool corner) {
  std::mt19937 rng(1);
  std::vector<int16_t> blocks(64 * 256, 0);
  for (size_t i = 0; i < blocks.size(); ++i) {
    const size_t row = (i % 64) / 8, column = i % 8;
    if (!corner || (row < 4 && column < 4))
      if (rng() % 3 == 0) blocks[i] = int16_t(int(rng() % 161) - 80);
  }
  return blocks;
}

void TransformBench(benchmark::State& state, bool corner) {
  Velmo2Kernels k;
  if (!KernelsAt(state, &k)) return;
  const Velmo2TransformKernel kernel = corner ? k.TransformCorner : k.Transform;
  const std::vector<int16_t> blocks = Blocks(corner);
  int16_t out[64];
  size_t b = 0;
  for (auto _ : state) {
    kernel(&blocks[(b++ & 255) * 64], out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}

void BM_Transform(benchmark::State& state) { TransformBench(state, false); }
void BM_TransformCorner(benchmark::State& state) { TransformBench(state, true); }
BENCHMARK(BM_Transform)->Apply(Levels);
BENCHMARK(BM_TransformCorner)->Apply(Levels);

// A fetch from a 64x64 plane into a block, at the fraction of the second argument.
constexpr ptrdiff_t PlanePitch = 64;

void BM_FetchLuma(benchmark::State& state) {
  Velmo2Kernels k;
  if (!KernelsAt(state, &k)) return;
  const Velmo2FetchKernel kernel = k.FetchLuma[state.range(1)];
  const std::vector<uint8_t> plane = RandomBytes(PlanePitch * 64, 2);
  uint8_t out[16 * 16];
  size_t n = 0;
  for (auto _ : state) {
    const size_t x = 2 + (n & 15), y = 2 + ((n >> 4) & 15);
    kernel(plane.data() + y * PlanePitch + x, PlanePitch, out, 16);
    benchmark::DoNotOptimize(out);
    ++n;
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_FetchLuma)->Apply([](benchmark::internal::Benchmark* b) { LevelsBy(b, 4); });

void BM_FetchChroma(benchmark::State& state) {
  Velmo2Kernels k;
  if (!KernelsAt(state, &k)) return;
  const Velmo2FetchKernel kernel = k.FetchChroma[state.range(1)];
  const std::vector<uint8_t> plane = RandomBytes(PlanePitch * 64, 3);
  uint8_t out[8 * 8];
  size_t n = 0;
  for (auto _ : state) {
    const size_t x = n & 15, y = (n >> 4) & 15;
    kernel(plane.data() + y * PlanePitch + x, PlanePitch, out, 8);
    benchmark::DoNotOptimize(out);
    ++n;
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_FetchChroma)->Apply([](benchmark::internal::Benchmark* b) { LevelsBy(b, 16); });

// One 16x16 quadrant's residual added to its prediction.
void BM_AddResidual(benchmark::State& state) {
  Velmo2Kernels k;
  if (!KernelsAt(state, &k)) return;
  std::mt19937 rng(4);
  std::vector<int16_t> residual(32 * 32);
  for (int16_t& v : residual) v = int16_t(int(rng() % 121) - 60);
  std::vector<uint8_t> block = RandomBytes(16 * 16, 5);
  for (auto _ : state) {
    k.AddResidual(block.data(), 16, residual.data(), 32, 16, 16);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_AddResidual)->Apply(Levels);

// One edge of 8 pixels (second argument: 0 vertical, 1 horizontal) with a code that changes
// both pixels on each side.
void BM_FilterEdge(benchmark::State& state) {
  Velmo2Kernels k;
  if (!KernelsAt(state, &k)) return;
  const bool horizontal = state.range(1) != 0;
  std::vector<uint8_t> plane = RandomBytes(PlanePitch * 16, 6);
  uint8_t* q0 = plane.data() + 8 * PlanePitch + 8;
  for (auto _ : state) {
    if (horizontal) k.FilterEdge(q0, PlanePitch, 1, 10, 8);
    else k.FilterEdge(q0, 1, PlanePitch, 10, 8);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_FilterEdge)->Apply([](benchmark::internal::Benchmark* b) { LevelsBy(b, 2); });

// The residual seam filter between two blocks of class 2, across a vertical or horizontal edge
// of a 32x32 residual.
void BM_ResidualSeamEdge(benchmark::State& state) {
  Velmo2Kernels k;
  if (!KernelsAt(state, &k)) return;
  const bool horizontal = state.range(1) != 0;
  std::mt19937 rng(7);
  std::vector<int16_t> residual(32 * 32);
  for (int16_t& v : residual) v = int16_t(int(rng() % 121) - 60);
  int16_t* q0 = residual.data() + 8 * 32 + 8;
  const uint16_t word = 2 << Velmo2InfoClassShift;
  for (auto _ : state) {
    if (horizontal) k.ResidualSeamEdge(q0, 32, 1, word, word);
    else k.ResidualSeamEdge(q0, 1, 32, word, word);
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_ResidualSeamEdge)->Apply([](benchmark::internal::Benchmark* b) { LevelsBy(b, 2); });

void BM_FlatBlock(benchmark::State& state) {
  Velmo2Kernels k;
  if (!KernelsAt(state, &k)) return;
  std::mt19937 rng(8);
  int32_t dc[16][3][3];
  for (auto& block : dc)
    for (auto& row : block)
      for (int32_t& v : row) v = int32_t(rng() % 401) - 200;
  uint8_t out[8 * 8];
  size_t n = 0;
  for (auto _ : state) {
    k.FlatBlock(dc[n++ & 15], out, 8, 8, 8);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_FlatBlock)->Apply(Levels);

}  // namespace

BENCHMARK_MAIN();
