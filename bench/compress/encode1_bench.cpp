// First-generation encoder: a 640x360 moving synthetic sequence at a typical rate, frames per
// second, with bytes and PSNR reported as counters.
#include "compress/velmo1_encoder.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstdlib>
#include <vector>

namespace {

constexpr uint32_t W = 640, H = 360;

// Textured background with two moving shapes; chroma drifts.
void MakeFrame(int t, std::vector<uint8_t> planes[3]) {
  const uint32_t cw = W / 2, ch = H / 2;
  planes[0].resize(W * H);
  planes[1].resize(cw * ch);
  planes[2].resize(cw * ch);
  for (uint32_t y = 0; y < H; ++y)
    for (uint32_t x = 0; x < W; ++x) {
      int v = 40 + int((x + 2 * t) * 100 / W) + int(((x + 2 * t) / 8 + y / 8) & 1) * 18;
      const int dx = int(x) - (100 + 5 * t), dy = int(y) - (120 + 2 * t);
      if (dx * dx + dy * dy < 2500) v = 200 + (int(x) & 15);
      if (std::abs(int(x) - (500 - 3 * t)) < 40 && std::abs(int(y) - 250) < 30) v = 30;
      planes[0][y * W + x] = uint8_t(v);
    }
  for (uint32_t y = 0; y < ch; ++y)
    for (uint32_t x = 0; x < cw; ++x) {
      planes[1][y * cw + x] = uint8_t(120 + (x + t) / 10);
      planes[2][y * cw + x] = uint8_t(110 + y / 8);
    }
}

void BM_Encode640x360(benchmark::State& state) {
  const uint32_t budget = uint32_t(state.range(0));  // bytes per frame
  constexpr int Frames = 30;
  std::vector<std::vector<uint8_t>> seq[3];
  for (auto& s : seq) s.resize(Frames);
  for (int t = 0; t < Frames; ++t) {
    std::vector<uint8_t> p[3];
    MakeFrame(t, p);
    for (int i = 0; i < 3; ++i) seq[i][t] = std::move(p[i]);
  }
  uint64_t bytes = 0, error = 0, frames = 0;
  VelmoEncoder* enc = VelmoEncoderCreate({W, H, 101, 0});
  int t = 0;
  for (auto _ : state) {
    VelmoEncodeInput in{};
    for (int i = 0; i < 3; ++i) in.Planes[i] = seq[i][t].data();
    in.Pitches[0] = W;
    in.Pitches[1] = in.Pitches[2] = W / 2;
    in.Key = t == 0;
    VelmoEncodeResult r{};
    VelmoEncodeFrame(enc, in, budget, &r);
    bytes += r.Section.size();
    error += r.Errors[0];
    ++frames;
    t = (t + 1) % Frames;
  }
  VelmoEncoderFree(enc);
  state.counters["fps"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
  state.counters["bytes/frame"] = double(bytes) / double(frames);
  state.counters["psnrY"] = 10 * std::log10(255.0 * 255.0 * W * H * double(frames) / double(error ? error : 1));
}

}  // namespace

// 345600 bytes per second at 30 fps is the default rate of this size: 11520 a frame.
BENCHMARK(BM_Encode640x360)->Arg(4000)->Arg(11520)->Arg(30000)->Unit(benchmark::kMillisecond)->Iterations(30);
BENCHMARK_MAIN();
