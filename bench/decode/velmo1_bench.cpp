// Speed of the first-generation decoder: the inverse transform per block (each kernel), and
// whole 640x360 frames of mixed content, intra and inter.
#include "decode/velmo1_decoder.h"
#include "decode/velmo1_tables.h"
#include "host/cpu_features.h"

#include <benchmark/benchmark.h>

#include <random>
#include <vector>

#ifndef ORN_NO_STREAM_BUILDER
#include "velmo1_stream_builder.h"
#include "velmo1_test_frames.h"
#endif

namespace {

// The inverse transform of the kernel table at a level (plain or AVX2).
void BM_Idct(benchmark::State& state) {
  const ProcessorLevel& level = ProcessorLevels[state.range(0)];
  if (!ProcessorHas(level.Features)) {
    state.SkipWithError("processor lacks the level");
    return;
  }
  Velmo1Kernels kernels;
  Velmo1KernelsInit(&kernels, level.Features | CpuValid);
  state.SetLabel(level.Name);
  std::mt19937 rng(1);
  std::vector<int16_t> blocks(64 * 256);
  for (size_t i = 0; i < blocks.size(); ++i) blocks[i] = int16_t(i % 64 < 10 ? int(rng() % 81) - 40 : 0);
  const uint32_t* table = Velmo1DequantTable(false, 3);
  int32_t out[64];
  size_t b = 0;
  for (auto _ : state) {
    kernels.Idct(&blocks[(b++ & 255) * 64], table, out);
    benchmark::DoNotOptimize(out);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
}
BENCHMARK(BM_Idct)->Arg(ProcessorLevelPlain)->Arg(ProcessorLevelAvx2);

#ifndef ORN_NO_STREAM_BUILDER
constexpr uint32_t TagVLMk = 'V' | 'L' << 8 | 'M' << 16 | uint32_t('k') << 24;

void FrameBench(benchmark::State& state, bool inter) {
  const uint32_t w = 640, h = 360, cw = 320, ch = 184;
  Velmo1EncPlaneOptions o;
  o.VlmK = true;
  o.ChooseTables = true;
  const std::vector<uint8_t> section = Velmo1EncBuildSection(
      false, false, {}, Velmo1EncBuildPlane(Velmo1MixedPlane(w, h, 1, inter), o),
      Velmo1EncBuildPlane(Velmo1MixedPlane(cw, ch, 2, inter), o), Velmo1EncBuildPlane(Velmo1MixedPlane(cw, ch, 3, inter), o));
  Velmo1TestFrames frames(w, h, cw, ch, false);
  uint32_t sizes[Velmo1BundleCount];
  Velmo1BundleSizes(w, sizes);
  for (auto _ : state) {
    benchmark::DoNotOptimize(Velmo1DecodeFrame(&frames.Fb, section.data(), section.data() + section.size() + 4,
                                               sizes, 0, 0, TagVLMk));
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.SetBytesProcessed(int64_t(state.iterations() * section.size()));
  state.counters["section_bytes"] = double(section.size());
}

void BM_Frame640x360Intra(benchmark::State& state) { FrameBench(state, false); }
void BM_Frame640x360Inter(benchmark::State& state) { FrameBench(state, true); }
BENCHMARK(BM_Frame640x360Intra)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Frame640x360Inter)->Unit(benchmark::kMicrosecond);
#endif

}  // namespace

BENCHMARK_MAIN();
