// Copy-out speed per surface format and kernel level on a 1280x720 frame, in pixels per
// second, next to a plain memcpy of the same number of output bytes.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "host/cpu_features.h"
#include "reader/copyout.h"

namespace {

constexpr uint32_t Width = 1280, Height = 720;

const float VideoTable[16] = {
    1.595795f,  -0.813477f, 0.0f,       0.0f,  //
    0.0f,       -0.391449f, 2.017822f,  0.0f,  //
    -0.874069f, 0.531782f,  -1.085911f, 1.0f,  //
    1.164124f,  1.164124f,  1.164124f,  0.0f,
};

struct BenchFrame {
  std::vector<uint8_t> Y, Cr, Cb, A;
  VelmoCopySource Source{};
  BenchFrame() : Y(Width * Height), Cr(Width / 2 * Height / 2), Cb(Cr.size()), A(Y.size()) {
    std::mt19937 rng(1);
    for (auto* p : {&Y, &Cr, &Cb, &A})
      for (auto& v : *p) v = uint8_t(rng());
    Source.Y = Y.data();
    Source.Cr = Cr.data();
    Source.Cb = Cb.data();
    Source.Alpha = A.data();
    Source.LumaPitch = Width;
    Source.ChromaPitch = Width / 2;
    Source.Width = Width;
    Source.Height = Height;
    std::memcpy(Source.ColourTable, VideoTable, sizeof VideoTable);
  }
};

const BenchFrame& Frame() {
  static const BenchFrame frame;
  return frame;
}

void BM_CopyOut(benchmark::State& state) {
  const ProcessorLevel& level = ProcessorLevels[state.range(0)];
  const uint32_t format = uint32_t(state.range(1));
  if (!ProcessorHas(level.Features)) {
    state.SkipWithError("processor lacks the level");
    return;
  }
  VelmoCopyKernels kernels;
  VelmoCopyKernelsInit(&kernels, level.Features | CpuValid);
  const int bytes = format >= 8 && format <= 10 ? 2 : 4;
  std::vector<uint8_t> dest(size_t(Width) * Height * bytes);
  state.SetLabel(std::string(level.Name) + " format " + std::to_string(format));
  for (auto _ : state) {
    VelmoCopyPlanesRectWith(&kernels, &Frame().Source, dest.data(), int32_t(Width) * bytes,
                            Height, 0, 0, 0, 0, Width, Height, format);
    benchmark::DoNotOptimize(dest.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * Width * Height);
}

void BM_Memcpy(benchmark::State& state) {
  const int bytes = int(state.range(0));
  std::vector<uint8_t> src(size_t(Width) * Height * bytes, 1), dest(src.size());
  state.SetLabel("memcpy " + std::to_string(bytes) + " bytes per pixel");
  for (auto _ : state) {
    std::memcpy(dest.data(), src.data(), src.size());
    benchmark::DoNotOptimize(dest.data());
    benchmark::ClobberMemory();
  }
  state.SetItemsProcessed(int64_t(state.iterations()) * Width * Height);
}

// The levels that have copy-out kernels of their own.
void LevelArgs(benchmark::internal::Benchmark* b) {
  for (int level : {ProcessorLevelPlain, ProcessorLevelSse2, ProcessorLevelAvx2})
    for (int format : {3, 4, 12, 9, 10}) b->Args({level, format});
}

}  // namespace

BENCHMARK(BM_CopyOut)->Apply(LevelArgs)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_Memcpy)->Arg(4)->Arg(2)->Unit(benchmark::kMicrosecond);

BENCHMARK_MAIN();
