// Measures one compressed clip against its source for scripts/velmoc_bench.sh: decodes the file
// through the reader library (velmo.h) in the caller's thread, compares each decoded Y, Cr and Cb
// plane with the source frame converted by the writer's own colour matrix, and prints one line:
//   frames bytes seconds bytes_per_second psnr_y psnr_cr psnr_cb decode_fps
// The decode speed comes from separate passes over the file with nothing but the reader's own
// calls (the best of three), so that the comparison's cost stays out of it.
// Usage: velmoc_rates <source> <file.vlm> [--sizes]   (--sizes: each frame's packet bytes to stderr)
#include <chrono>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "compress/frame_planes.h"
#include "compress/tool/velmoc_source.h"
#include "format/frame_buffers.h"
#include "velmo.h"

namespace {

// FNV-1a over the picture area of the current luma plane: ties the timed passes to the picture
// the measured pass decoded.
uint64_t LumaHash(HVELMO h) {
  const VelmoFrameBuffers& fb = *h->FrameBuffers;
  const uint8_t* y = fb.Sets[fb.Current].Planes[VelmoPlaneY];
  uint64_t v = 1469598103934665603ull;
  for (uint32_t r = 0; r < h->Height; ++r)
    for (uint32_t x = 0; x < h->Width; ++x) v = (v ^ y[size_t(r) * size_t(fb.LumaPitch) + x]) * 1099511628211ull;
  return v;
}

struct PlaneError {
  double Squared = 0.0;
  uint64_t Samples = 0;
  void Add(const uint8_t* decoded, int32_t pitch, const uint8_t* ref, uint32_t w, uint32_t h) {
    for (uint32_t r = 0; r < h; ++r)
      for (uint32_t x = 0; x < w; ++x) {
        const double d = double(decoded[size_t(r) * size_t(pitch) + x]) - ref[size_t(r) * w + x];
        Squared += d * d;
      }
    Samples += uint64_t(w) * h;
  }
  double Psnr() const {
    if (!Samples) return -1.0;
    const double mse = Squared / double(Samples);
    return mse <= 0.0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
  }
};

}  // namespace

int main(int argc, char** argv) {
  const bool sizes = argc == 4 && std::strcmp(argv[3], "--sizes") == 0;
  if (argc != 3 && !sizes) {
    std::fprintf(stderr, "usage: velmoc_rates <source> <file.vlm> [--sizes]\n");
    return 2;
  }
  const VelmocSourceOps* ops = VelmocBuiltinSource();
  char error[256] = {0};
  VelmocSource* source = ops->open(argv[1], 0, ~0u, error, sizeof error);
  if (!source) {
    std::fprintf(stderr, "Couldn't open %s: %s\n", argv[1], error);
    return 1;
  }
  VelmocSourceInfo info{};
  ops->info(source, &info);

  HVELMO h = VelmoOpen(argv[2], VelmoOpenNoBackground | VelmoOpenNeverSkip);
  if (!h) {
    std::fprintf(stderr, "Couldn't open %s: %s\n", argv[2], VelmoGetError());
    ops->close(source);
    return 1;
  }
  if (h->Width != info.Width || h->Height != info.Height || !h->FrameBuffers) {
    std::fprintf(stderr, "%s is %ux%u, its source %ux%u\n", argv[2], h->Width, h->Height,
                 info.Width, info.Height);
    VelmoClose(h);
    ops->close(source);
    return 1;
  }
  const uint32_t w = info.Width, ht = info.Height, cw = (w + 1) / 2, ch = (ht + 1) / 2;
  const bool fullRange = (h->OpenFlags & VelmoOpenFullRange) != 0;
  std::vector<uint8_t> y(size_t(w) * ht), cr(size_t(cw) * ch), cb(size_t(cw) * ch);
  PlaneError ey, ecr, ecb;
  double decodeSeconds = 0.0;
  uint32_t decoded = 0;
  const uint32_t frames = h->Frames;
  for (uint32_t n = 0; n < frames; ++n) {
    if (!VelmoDoFrame(h)) {
      std::fprintf(stderr, "frame %u did not decode: %s\n", n + 1, VelmoGetError());
      break;
    }
    const uint32_t* pixels = nullptr;
    int32_t pitch = 0;
    if (!ops->frame(source, n, &pixels, &pitch)) {
      std::fprintf(stderr, "source frame %u unreadable\n", n);
      break;
    }
    VelmoConvertPixels(pixels, pitch, false, w, ht, fullRange,
                       {y.data(), cr.data(), cb.data(), nullptr, w, cw});
    const VelmoFrameBuffers& fb = *h->FrameBuffers;
    const VelmoFrameBufferSet& set = fb.Sets[fb.Current];
    ey.Add(set.Planes[VelmoPlaneY], fb.LumaPitch, y.data(), w, ht);
    ecr.Add(set.Planes[VelmoPlaneCr], fb.ChromaPitch, cr.data(), cw, ch);
    ecb.Add(set.Planes[VelmoPlaneCb], fb.ChromaPitch, cb.data(), cw, ch);
    if (sizes) std::fprintf(stderr, "frame %u: %u bytes%s\n", n + 1, h->FrameSize, h->FrameIsKey ? " (key)" : "");
    ++decoded;
    VelmoNextFrame(h);
  }
  const uint64_t lastPicture = decoded == frames && frames ? LumaHash(h) : 0;
  // Decode speed: the whole file, open to close, in the caller's thread; the best of three.
  for (int pass = 0; pass < 3 && decoded == frames; ++pass) {
    const auto start = std::chrono::steady_clock::now();
    HVELMO d = VelmoOpen(argv[2], VelmoOpenNoBackground | VelmoOpenNeverSkip);
    uint32_t got = 0;
    while (d && got < frames && VelmoDoFrame(d)) {
      ++got;
      VelmoNextFrame(d);
    }
    const double t = std::chrono::duration<double>(std::chrono::steady_clock::now() - start).count();
    const bool same = d && d->FrameBuffers && got == frames && LumaHash(d) == lastPicture;
    if (d) VelmoClose(d);
    if (!same) {
      std::fprintf(stderr, "decode pass stopped after %u frames or ended on another picture\n", got);
      decoded = got < frames ? got : 0;
      break;
    }
    if (decodeSeconds == 0.0 || t < decodeSeconds) decodeSeconds = t;
  }
  const double seconds = h->FrameRate ? double(frames) * h->FrameRateDiv / h->FrameRate : 0.0;
  const uint32_t rate = h->FrameRate;
  VelmoClose(h);
  ops->close(source);

  std::FILE* f = std::fopen(argv[2], "rb");
  long bytes = -1;
  if (f && std::fseek(f, 0, SEEK_END) == 0) bytes = std::ftell(f);
  if (f) std::fclose(f);
  if (decoded != frames || !rate || bytes < 0) {
    std::fprintf(stderr, "%u of %u frames decoded\n", decoded, frames);
    return 1;
  }
  std::printf("%u %ld %.4f %.0f %.2f %.2f %.2f %.1f\n", frames, bytes, seconds,
              double(bytes) / seconds, ey.Psnr(), ecr.Psnr(), ecb.Psnr(),
              decodeSeconds > 0.0 ? frames / decodeSeconds : 0.0);
  return 0;
}
