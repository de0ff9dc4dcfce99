// Frame processing speed: the scaler per kernel and vector variant, and a chain of filters per
// frame, integer and float.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "host/cpu_features.h"
#include "process/filters.h"
#include "process/scaler.h"

namespace {

std::vector<uint32_t> NoisyFrame(uint32_t width, uint32_t height) {
  std::vector<uint32_t> frame(size_t(width) * height);
  std::mt19937 random(7);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x)
      frame[size_t(y) * width + x] =
          (random() & 0x0F0F0F0Fu) + ((x * 255 / width) * 0x010101u) + (y * 255 / height << 24);
  return frame;
}

std::vector<float> FloatFrame(const std::vector<uint32_t>& frame) {
  std::vector<float> out(frame.size() * 4);
  for (size_t i = 0; i < frame.size(); ++i) {
    out[4 * i + 0] = float((frame[i] >> 16) & 255) / 255.0f;
    out[4 * i + 1] = float((frame[i] >> 8) & 255) / 255.0f;
    out[4 * i + 2] = float(frame[i] & 255) / 255.0f;
    out[4 * i + 3] = float(frame[i] >> 24) / 255.0f;
  }
  return out;
}

// Variants 0, 1 and 2 are the kernel levels plain, SSE2 and AVX2, picked by switching the
// higher levels' features off; threads 0 = the calling thread only, 1 = the job pool.
constexpr int VariantLevels[] = {ProcessorLevelPlain, ProcessorLevelSse2, ProcessorLevelAvx2};

void SetVariant(benchmark::State& state, int variant) {
  const ProcessorLevel& level = ProcessorLevels[VariantLevels[variant]];
  FeatureMask(ProcessorLevels[ProcessorLevelCount - 1].Features & ~level.Features);
  if (!ProcessorHas(level.Features)) state.SkipWithError("processor lacks the level");
}

const char* VariantName(int variant) { return ProcessorLevels[VariantLevels[variant]].Name; }

void BM_Scale(benchmark::State& state, uint32_t srcW, uint32_t srcH, bool useFloat) {
  const uint32_t kernel = uint32_t(state.range(0));
  const int variant = int(state.range(1));
  const bool pool = state.range(2) != 0;
  const uint32_t dstW = 1280, dstH = 720;
  SetVariant(state, variant);
  state.SetLabel(std::string(VariantName(variant)) + (pool ? " pool" : " 1 thread"));
  Scaler* scaler = ScalerCreate(kernel, dstW, dstH, srcW, srcH);
  const std::vector<uint32_t> src = NoisyFrame(srcW, srcH);
  const ProcessJobRunner* runner = pool ? ProcessPoolRunner() : ProcessInlineRunner();
  if (useFloat) {
    const std::vector<float> srcF = FloatFrame(src);
    std::vector<float> dst(size_t(dstW) * dstH * 4);
    PixelFetchFloat fetch;
    PixelFetchFloatSelect(&fetch, 128, false);
    for (auto _ : state)
      ScalerRunFloat(scaler, reinterpret_cast<uint8_t*>(dst.data()), dstW * 16,
                     reinterpret_cast<const uint8_t*>(srcF.data()), srcW * 16, &fetch, runner);
  } else {
    std::vector<uint32_t> dst(size_t(dstW) * dstH);
    PixelFetch fetch;
    PixelFetchSelect(&fetch, 32, nullptr, false);
    for (auto _ : state)
      ScalerRun(scaler, reinterpret_cast<uint8_t*>(dst.data()), dstW * 4,
                reinterpret_cast<const uint8_t*>(src.data()), srcW * 4, &fetch, runner);
  }
  ScalerFree(scaler);
  FeatureMask(0);
  state.SetItemsProcessed(state.iterations());
}

void ScaleArgs(benchmark::internal::Benchmark* b) {
  for (int kernel = 0; kernel < 3; ++kernel)
    for (int variant = 0; variant < 3; ++variant) b->Args({kernel, variant, 0});
  for (int kernel = 0; kernel < 3; ++kernel) b->Args({kernel, 2, 1});
  b->ArgNames({"kernel", "variant", "pool"})->Unit(benchmark::kMillisecond);
}

BENCHMARK_CAPTURE(BM_Scale, down_1080_to_720, 1920, 1080, false)->Apply(ScaleArgs);
BENCHMARK_CAPTURE(BM_Scale, up_360_to_720, 640, 360, false)->Apply(ScaleArgs);
BENCHMARK_CAPTURE(BM_Scale, down_1080_to_720_float, 1920, 1080, true)->Apply(ScaleArgs);
BENCHMARK_CAPTURE(BM_Scale, up_360_to_720_float, 640, 360, true)->Apply(ScaleArgs);

// Gamma, black clamp, contrast, brightness, denoise and un-premultiply with fill on one 720p
// frame, ping-ponging between two buffers as the pipeline does.
void BM_FilterChain(benchmark::State& state) {
  const bool useFloat = state.range(0) != 0;
  const bool pool = state.range(1) != 0;
  state.SetLabel(std::string(useFloat ? "float" : "integer") + (pool ? " pool" : " 1 thread"));
  const uint32_t w = 1280, h = 720;
  std::vector<uint32_t> frame = NoisyFrame(w, h);
  for (size_t i = 0; i < frame.size(); i += 7) frame[i] &= 0x00FFFFFFu;  // some transparency
  const size_t bytes = useFloat ? 16 : 4;
  std::vector<uint8_t> a(size_t(w) * h * bytes), b(a.size());
  if (useFloat) {
    const std::vector<float> f = FloatFrame(frame);
    std::memcpy(a.data(), f.data(), a.size());
  } else {
    std::memcpy(a.data(), frame.data(), a.size());
  }
  PixelFetch fetch;
  PixelFetchSelect(&fetch, 32, nullptr, false);
  PixelFetchFloat fetchFloat;
  PixelFetchFloatSelect(&fetchFloat, 128, false);
  StageFrames forward{a.data(), ptrdiff_t(w * bytes),
                      &fetch,   &fetchFloat,
                      b.data(), ptrdiff_t(w * bytes),
                      w,        h,
                      false,    pool ? ProcessPoolRunner() : ProcessInlineRunner()};
  StageFrames back = forward;
  back.Source = b.data();
  back.Target = a.data();
  for (auto _ : state) {
    if (useFloat) {
      StageGammaFloat(&forward, 0.8);
      StageBlackClampFloat(&back, 8);
      StageContrastFloat(&forward, 10);
      StageBrightnessFloat(&back, 110);
      StageDenoiseFloat(&forward);
      StageUnpremultiplyFillFloat(&back);
    } else {
      StageGamma(&forward, 0.8);
      StageBlackClamp(&back, 8);
      StageContrast(&forward, 10);
      StageBrightness(&back, 110);
      StageDenoise(&forward);
      StageUnpremultiplyFill(&back);
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_FilterChain)
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->ArgNames({"float", "pool"})
    ->Unit(benchmark::kMillisecond);

// One stage at a time on a 720p integer frame, on the calling thread.
void BM_Stage(benchmark::State& state) {
  const int stage = int(state.range(0));
  static const char* names[] = {"gamma",   "black clamp",  "contrast",           "brightness",
                                "denoise", "de-interlace", "unpremultiply+fill", "premultiply"};
  state.SetLabel(names[stage]);
  const uint32_t w = 1280, h = 720;
  std::vector<uint32_t> src = NoisyFrame(w, h);
  for (size_t i = 0; i < src.size(); i += 7) src[i] &= 0x00FFFFFFu;
  std::vector<uint32_t> dst(src.size());
  PixelFetch fetch;
  PixelFetchSelect(&fetch, 32, nullptr, false);
  const StageFrames f{reinterpret_cast<const uint8_t*>(src.data()),
                      w * 4,
                      &fetch,
                      nullptr,
                      reinterpret_cast<uint8_t*>(dst.data()),
                      w * 4,
                      w,
                      h,
                      false,
                      ProcessInlineRunner()};
  for (auto _ : state) {
    switch (stage) {
      case 0:
        StageGamma(&f, 0.8);
        break;
      case 1:
        StageBlackClamp(&f, 8);
        break;
      case 2:
        StageContrast(&f, 10);
        break;
      case 3:
        StageBrightness(&f, 110);
        break;
      case 4:
        StageDenoise(&f);
        break;
      case 5:
        StageDeinterlace(&f, 9);
        break;
      case 6:
        StageUnpremultiplyFill(&f);
        break;
      default:
        StagePremultiply(&f);
        break;
    }
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_Stage)->DenseRange(0, 7)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
