// Speed of the second-generation decoder on generated 1280x720 and 1920x1080 frames: key frames
// of about 1.5 bits per pixel and inter frames of about 0.3 (each benchmark reports the bits per
// pixel of its frame), single thread at each kernel level, and frames of 2, 4 and 8 slices
// shared among 1, 2, 4 and 8 threads, seams filtered after the threads end.
#include "decode/velmo2_decoder.h"
#include "host/cpu_features.h"
#include "support/velmo2_stream.h"

#include <benchmark/benchmark.h>

#include <algorithm>
#include <map>
#include <thread>
#include <tuple>
#include <vector>

namespace {

struct Picture {
  uint32_t Width, Height;
};
constexpr Picture kPictures[2] = {{1280, 720}, {1920, 1080}};

// Slice mode of the file flags for 2, 4 and 8 slices.
uint32_t ModeFor(uint32_t slices) { return slices == 8 ? 3 : slices == 4 ? 2 : slices == 3 ? 1 : 0; }

double BitsPerPixel(const std::vector<uint8_t>& section, const Picture& p) {
  return double(section.size()) * 8 / (double(p.Width) * p.Height);
}

// Key frames of about 1.5 bits per pixel, inter frames of about 0.3.
velmo2_test::StreamPlan PlanFor(const Picture& p, bool key, uint32_t slices) {
  return velmo2_test::RealisticPlan(p.Width, p.Height, key, ModeFor(slices), key ? 1.5 : 0.3,
                                    key ? 11 : 12);
}

// The key and inter sections of a picture and slice count, generated once.
struct Stream {
  std::vector<uint8_t> Key, Inter;
};
const Stream& StreamFor(int picture, uint32_t slices) {
  static std::map<std::pair<int, uint32_t>, Stream> streams;
  Stream& s = streams[{picture, slices}];
  if (s.Key.empty()) {
    s.Key = velmo2_test::GenerateSection(PlanFor(kPictures[picture], true, slices));
    s.Inter = velmo2_test::GenerateSection(PlanFor(kPictures[picture], false, slices));
  }
  return s;
}

Velmo2Decoder* CreateDecoder(const Picture& p, uint32_t slices, uint32_t features) {
  Velmo2DecoderSetup setup{};
  setup.Width = p.Width;
  setup.Height = p.Height;
  setup.Tag[0] = 'V';
  setup.Tag[1] = 'M';
  setup.Tag[2] = '2';
  setup.Tag[3] = 'j';
  setup.FileFlags = ModeFor(slices);
  setup.Features = features;
  return Velmo2DecoderCreate(setup);
}

// Decodes the key frame once so that an inter frame has its previous picture; the frame the
// benchmark times is decoded from the same previous picture each time.
bool Prepare(Velmo2Decoder* decoder, velmo2_test::Frames& frames, const Stream& s, bool key,
             uint32_t slices) {
  if (key) return true;
  const Velmo2FrameResult r =
      Velmo2DecodeFrame(decoder, &frames.Fb, s.Key.data(), s.Key.size(), true, 0, slices);
  frames.Fb.Current ^= 1;
  return r == Velmo2FrameDecoded;
}

// Args: picture (0: 1280x720, 1: 1920x1080), key (1) or inter (0), kernel level.
void BM_Velmo2Frame(benchmark::State& state) {
  const int picture = int(state.range(0));
  const bool key = state.range(1) != 0;
  const ProcessorLevel& level = ProcessorLevels[state.range(2)];
  if (!ProcessorHas(level.Features)) {
    state.SkipWithError("the processor lacks this level");
    return;
  }
  const Picture& p = kPictures[picture];
  const uint32_t slices = 2;
  const Stream& s = StreamFor(picture, slices);
  const std::vector<uint8_t>& section = key ? s.Key : s.Inter;
  Velmo2Decoder* decoder = CreateDecoder(p, slices, level.Features | CpuValid);
  velmo2_test::Frames frames(p.Width, p.Height, false, false);
  if (!decoder || !Prepare(decoder, frames, s, key, slices)) {
    state.SkipWithError("the decoder does not decode at this level");
    Velmo2DecoderDestroy(decoder);
    return;
  }
  state.SetLabel(level.Name);
  for (auto _ : state) {
    benchmark::DoNotOptimize(
        Velmo2DecodeFrame(decoder, &frames.Fb, section.data(), section.size(), key, 0, slices));
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["fps"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["bpp"] = BitsPerPixel(section, p);
  Velmo2DecoderDestroy(decoder);
}

void FrameArgs(benchmark::internal::Benchmark* b) {
  for (int picture = 0; picture < 2; ++picture)
    for (int key = 1; key >= 0; --key)
      for (int level = 0; level < ProcessorLevelCount; ++level) b->Args({picture, key, level});
}
BENCHMARK(BM_Velmo2Frame)->Apply(FrameArgs)->Unit(benchmark::kMillisecond);

// Args: picture, key or inter, slices (2, 4, 8), threads (1, 2, 4, 8; at most one per slice).
// Each thread decodes a run of whole slices; the seams follow when all have ended.
void BM_Velmo2Shares(benchmark::State& state) {
  const int picture = int(state.range(0));
  const bool key = state.range(1) != 0;
  const uint32_t slices = uint32_t(state.range(2)), threads = uint32_t(state.range(3));
  const Picture& p = kPictures[picture];
  const Stream& s = StreamFor(picture, slices);
  const std::vector<uint8_t>& section = key ? s.Key : s.Inter;
  Velmo2Decoder* decoder = CreateDecoder(p, slices, ProcessorFeatures());
  velmo2_test::Frames frames(p.Width, p.Height, false, false);
  if (!decoder || Velmo2DecoderLayout(decoder).Slices != slices ||
      !Prepare(decoder, frames, s, key, slices)) {
    state.SkipWithError("the decoder does not decode this frame");
    Velmo2DecoderDestroy(decoder);
    return;
  }
  for (auto _ : state) {
    std::vector<std::thread> workers;
    for (uint32_t t = 0; t < threads; ++t) {
      const uint32_t first = slices * t / threads, end = slices * (t + 1) / threads;
      workers.emplace_back([&, first, end] {
        Velmo2DecodeFrame(decoder, &frames.Fb, section.data(), section.size(), key, first,
                          end - first);
      });
    }
    for (std::thread& w : workers) w.join();
    Velmo2DecoderFinishSeams(decoder, &frames.Fb);
  }
  state.SetItemsProcessed(int64_t(state.iterations()));
  state.counters["fps"] = benchmark::Counter(double(state.iterations()), benchmark::Counter::kIsRate);
  state.counters["bpp"] = BitsPerPixel(section, p);
  Velmo2DecoderDestroy(decoder);
}

void ShareArgs(benchmark::internal::Benchmark* b) {
  for (int picture = 0; picture < 2; ++picture)
    for (int key = 1; key >= 0; --key)
      for (int slices : {2, 4, 8})
        for (int threads : {1, 2, 4, 8})
          if (threads <= slices) b->Args({picture, key, slices, threads});
}
BENCHMARK(BM_Velmo2Shares)->Apply(ShareArgs)->Unit(benchmark::kMillisecond)->UseRealTime();

}  // namespace

BENCHMARK_MAIN();
