// First-generation encoder: a moving synthetic sequence at 640x360 and 1280x720 at typical
// rates, frames per second, with bytes and PSNR reported as counters, and the processor time
// of every thread of the job pool per frame: on a quiet machine each thread's time comes near
// the wall time per frame when no thread idles while another works.
#include "compress/velmo1_encoder.h"

#include <benchmark/benchmark.h>
#include <sys/resource.h>

#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "host/platform.h"

namespace {

// Processor seconds (user and system) of each thread of the job pool, the caller's first.
struct PoolTimes {
  double Seconds[64] = {};
};

void ThreadTimeWorker(void* context, uint32_t index) {
  rusage usage{};
  getrusage(RUSAGE_THREAD, &usage);
  static_cast<PoolTimes*>(context)->Seconds[index] =
      double(usage.ru_utime.tv_sec + usage.ru_stime.tv_sec) +
      double(usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) * 1e-6;
}

// A pool run of its own gives each thread its index; the caller takes the highest.
PoolTimes ReadPoolTimes() {
  PoolTimes times;
  PoolRun(ThreadTimeWorker, &times);
  return times;
}

// Textured background with two moving shapes; chroma drifts.
void MakeFrame(uint32_t W, uint32_t H, int t, std::vector<uint8_t> planes[3]) {
  const uint32_t cw = W / 2, ch = H / 2;
  planes[0].resize(W * H);
  planes[1].resize(cw * ch);
  planes[2].resize(cw * ch);
  for (uint32_t y = 0; y < H; ++y)
    for (uint32_t x = 0; x < W; ++x) {
      int v = 40 + int((x + 2 * t) * 100 / W) + int(((x + 2 * t) / 8 + y / 8) & 1) * 18;
      v += int((x * 7 + y * 13 + uint32_t(t) * 5) % 11);  // grain, so that blocks need coefficients
      const int dx = int(x) - (100 + 5 * t), dy = int(y) - (120 + 2 * t);
      if (dx * dx + dy * dy < 2500) v = 200 + (int(x) & 15);
      if (std::abs(int(x) - (int(W) - 140 - 3 * t)) < 40 && std::abs(int(y) - int(H) + 110) < 30) v = 30;
      planes[0][y * W + x] = uint8_t(v);
    }
  for (uint32_t y = 0; y < ch; ++y)
    for (uint32_t x = 0; x < cw; ++x) {
      planes[1][y * cw + x] = uint8_t(120 + (x + t) / 10);
      planes[2][y * cw + x] = uint8_t(110 + y / 8);
    }
}

// Arguments: width, height, bytes per frame.
void BM_Encode(benchmark::State& state) {
  const uint32_t W = uint32_t(state.range(0)), H = uint32_t(state.range(1));
  const uint32_t budget = uint32_t(state.range(2));
  constexpr int Frames = 30;
  std::vector<std::vector<uint8_t>> seq[3];
  for (auto& s : seq) s.resize(Frames);
  for (int t = 0; t < Frames; ++t) {
    std::vector<uint8_t> p[3];
    MakeFrame(W, H, t, p);
    for (int i = 0; i < 3; ++i) seq[i][t] = std::move(p[i]);
  }
  uint64_t bytes = 0, error = 0, frames = 0;
  VelmoEncoder* enc = VelmoEncoderCreate({W, H, 101, 0});
  int t = 0;
  const PoolTimes before = ReadPoolTimes();
  const auto start = std::chrono::steady_clock::now();
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
  const double wall = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
  const PoolTimes after = ReadPoolTimes();
  VelmoEncoderFree(enc);
  state.counters["wall/frame"] = wall / double(frames);
  for (uint32_t i = 0; i < PoolThreadCount(); ++i)
    state.counters["cpu" + std::to_string(i) + "/frame"] =
        (after.Seconds[i] - before.Seconds[i]) / double(frames);
  state.counters["fps"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
  state.counters["bytes/frame"] = double(bytes) / double(frames);
  state.counters["psnrY"] = 10 * std::log10(255.0 * 255.0 * W * H * double(frames) / double(error ? error : 1));
}

}  // namespace

// 345600 bytes per second at 30 fps is the default rate of 640x360: 11520 a frame; four times
// that at 1280x720. Times are wall times, so that "fps" counts frames per second of the clock.
BENCHMARK(BM_Encode)
    ->Args({640, 360, 4000})
    ->Args({640, 360, 11520})
    ->Args({640, 360, 30000})
    ->Args({1280, 720, 46080})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime()
    ->Iterations(30);
BENCHMARK_MAIN();
