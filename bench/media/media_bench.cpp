// Frames per second of MediaGetFrame for 1920x1080 input: a numbered PNG series and a
// YUV4MPEG2 file of the same pictures, each at its own size and scaled to 1280x720 (bi-cubic).
// The inputs are written into a temporary folder at start. Each timed pass opens the input,
// reads every frame and closes it, so the open and the PNG decodes are in the figure; the
// "fps" counter is output frames per second of wall time.
#include <benchmark/benchmark.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <random>
#include <string>
#include <vector>

#include "imagefile/imagefile.h"
#include "media/media.h"

namespace {

constexpr int Width = 1920;
constexpr int Height = 1080;
constexpr int FrameCount = 4;

std::string Folder;

// A picture with something for the PNG filters and the scaler to work on: diagonal gradients,
// a moving disc and bars, and fine noise over all of it.
std::vector<uint32_t> Picture(int frame) {
  std::vector<uint32_t> pixels(size_t(Width) * Height);
  std::mt19937 random(uint32_t(frame) * 7919u + 1u);
  const int discX = 400 + frame * 120, discY = 540, radius = 260;
  for (int y = 0; y < Height; ++y) {
    for (int x = 0; x < Width; ++x) {
      int r = (x * 255) / Width, g = (y * 255) / Height, b = ((x + y + frame * 40) * 255) / (Width + Height);
      const int dx = x - discX, dy = y - discY;
      if (dx * dx + dy * dy < radius * radius) {
        r = 240 - r / 3;
        g = 200 - g / 2;
        b = 40 + (dx & 63);
      }
      if (((x + frame * 16) / 48) % 7 == 0 && y > 700) r = g = b = (y & 1) ? 230 : 20;
      const uint32_t noise = random();
      r = std::clamp(r + int(noise & 15) - 8, 0, 255);
      g = std::clamp(g + int((noise >> 4) & 15) - 8, 0, 255);
      b = std::clamp(b + int((noise >> 8) & 15) - 8, 0, 255);
      pixels[size_t(y) * Width + x] = 0xFF000000u | uint32_t(r) << 16 | uint32_t(g) << 8 | uint32_t(b);
    }
  }
  return pixels;
}

uint8_t Clamp8(double v) { return uint8_t(std::lround(std::clamp(v, 0.0, 255.0))); }

// Full-range BT.601 4:2:0, chroma from the mean of each 2x2 block.
void AppendY4mFrame(FILE* file, const std::vector<uint32_t>& pixels) {
  std::vector<uint8_t> luma(size_t(Width) * Height);
  std::vector<uint8_t> cb(size_t(Width / 2) * (Height / 2)), cr(cb.size());
  for (size_t i = 0; i < luma.size(); ++i) {
    const uint32_t p = pixels[i];
    luma[i] = Clamp8(0.299 * ((p >> 16) & 255) + 0.587 * ((p >> 8) & 255) + 0.114 * (p & 255));
  }
  for (int y = 0; y < Height / 2; ++y) {
    for (int x = 0; x < Width / 2; ++x) {
      double r = 0, g = 0, b = 0;
      for (int k = 0; k < 4; ++k) {
        const uint32_t p = pixels[size_t(2 * y + k / 2) * Width + 2 * x + k % 2];
        r += (p >> 16) & 255;
        g += (p >> 8) & 255;
        b += p & 255;
      }
      r /= 4, g /= 4, b /= 4;
      cb[size_t(y) * (Width / 2) + x] = Clamp8(128 - 0.168736 * r - 0.331264 * g + 0.5 * b);
      cr[size_t(y) * (Width / 2) + x] = Clamp8(128 + 0.5 * r - 0.418688 * g - 0.081312 * b);
    }
  }
  fputs("FRAME\n", file);
  fwrite(luma.data(), 1, luma.size(), file);
  fwrite(cb.data(), 1, cb.size(), file);
  fwrite(cr.data(), 1, cr.size(), file);
}

bool WriteInputs() {
  char name[] = "/tmp/orn_media_bench_XXXXXX";
  if (!mkdtemp(name)) return false;
  Folder = name;
  FILE* y4m = fopen((Folder + "/clip.y4m").c_str(), "wb");
  if (!y4m) return false;
  fprintf(y4m, "YUV4MPEG2 W%d H%d F25:1 Ip A1:1 C420jpeg\n", Width, Height);
  for (int frame = 0; frame < FrameCount; ++frame) {
    std::vector<uint32_t> pixels = Picture(frame);
    char png[64];
    snprintf(png, sizeof png, "/frame%03d.png", frame + 1);
    ImagePixels image = {pixels.data(), ptrdiff_t(Width) * 4, Width, Height, IMAGE_PIXELS_ARGB32};
    ImageWriteParams params = {IMAGE_FORMAT_PNG, 0, 95, 0};
    if (!ImageWriteFile((Folder + png).c_str(), &params, &image, nullptr)) return false;
    AppendY4mFrame(y4m, pixels);
  }
  return fclose(y4m) == 0;
}

void RemoveInputs() {
  if (Folder.empty()) return;
  for (int frame = 0; frame < FrameCount; ++frame) {
    char png[64];
    snprintf(png, sizeof png, "/frame%03d.png", frame + 1);
    unlink((Folder + png).c_str());
  }
  unlink((Folder + "/clip.y4m").c_str());
  rmdir(Folder.c_str());
}

int Quiet(void*, const char* text, int level) {
  if (level == MediaLevelError || level == MediaLevelWarning) fprintf(stderr, "%s\n", text ? text : "");
  return 0;
}

// range(0): 0 the PNG series, 1 the Y4M file, 2 the Y4M file read by a caller that takes
// planes (as the compressor does); range(1): 1 scales to 1280x720.
void BM_MediaGetFrame(benchmark::State& state) {
  const bool series = state.range(0) == 0;
  const bool planes = state.range(0) == 2;
  const bool scale = state.range(1) != 0;
  char seriesName[64];
  snprintf(seriesName, sizeof seriesName, "frame???.png*1-%d", FrameCount);
  const std::string name = Folder + "/" + (series ? seriesName : "clip.y4m");
  MediaOpenArgs args{};
  args.progress = {Quiet, nullptr};
  if (scale) {
    args.scale_w = 1280;
    args.scale_h = 720;
  }
  state.SetLabel(std::string(series ? "PNG series" : planes ? "Y4M 4:2:0 as planes" : "Y4M 4:2:0") +
                 (scale ? " -> 1280x720" : " 1920x1080"));
  int64_t frames = 0;
  for (auto _ : state) {
    MediaInput* input = MediaOpenWith(name.c_str(), &args);
    if (!input) {
      state.SkipWithError("open failed");
      return;
    }
    MediaPreferPlanes(input, planes);
    while (!input->at_end) {
      if (!MediaGetFrame(input, 0, 0, 0, 100, 1.0, 0)) {
        state.SkipWithError("frame failed");
        break;
      }
      MediaPlanes p;
      if (planes && !MediaFramePlanes(input, &p)) {
        state.SkipWithError("no planes");
        break;
      }
      benchmark::DoNotOptimize(planes ? p.plane[0][0] : input->output_buffer[0]);
      ++frames;
    }
    MediaClose(input);
  }
  state.counters["fps"] = benchmark::Counter(double(frames), benchmark::Counter::kIsRate);
}

BENCHMARK(BM_MediaGetFrame)
    ->ArgNames({"y4m", "scale"})
    ->Args({0, 0})
    ->Args({0, 1})
    ->Args({1, 0})
    ->Args({1, 1})
    ->Args({2, 0})
    ->Unit(benchmark::kMillisecond)
    ->UseRealTime();

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (!WriteInputs()) {
    fprintf(stderr, "could not write the inputs\n");
    RemoveInputs();
    return 1;
  }
  benchmark::RunSpecifiedBenchmarks();
  benchmark::Shutdown();
  RemoveInputs();
  return 0;
}
