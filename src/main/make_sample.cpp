// The demo's helper: writes a built-in sample clip (a moving, detailed picture) as a
// YUV4MPEG2 stream, and measures a compressed Velmo 1 file against its source.
//   orn_make_sample <out.y4m> [frames] [width] [height]
//   orn_make_sample --compare <source> <file.vlm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "compress/velmo1_file_check.h"
#include "compress/velmoc_source.h"

namespace {

// RGB of pixel (x, y) in frame t: a drifting gradient, a rotating checker disc, fine stripes
// and a moving bright bar, so that the clip has both detail and motion.
void SamplePixel(int x, int y, int t, int w, int h, int rgb[3]) {
  const double cx = w * (0.5 + 0.25 * std::sin(t * 0.07)), cy = h * (0.5 + 0.2 * std::cos(t * 0.05));
  const double dx = x - cx, dy = y - cy, r = std::sqrt(dx * dx + dy * dy);
  const double angle = std::atan2(dy, dx) + t * 0.05;
  int base[3] = {(x + t * 2) * 255 / (w + 1) % 256, (y + t) * 255 / (h + 1) % 256, 128 + int(60 * std::sin((x + y) * 0.05))};
  if (r < h * 0.3) {
    const bool check = (int(std::floor(angle * 6 / 3.14159265)) + int(r / 8)) & 1;
    base[0] = check ? 230 : 30;
    base[1] = check ? 200 : 60;
    base[2] = check ? 40 : 180;
  }
  if (((x / 2) & 1) && y > h * 3 / 4) base[1] = std::min(255, base[1] + 50);
  if (std::abs(x - (t * 5) % w) < 6) base[0] = base[1] = base[2] = 250;
  for (int c = 0; c < 3; ++c) rgb[c] = base[c];
}

int Clip(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

int WriteSample(const char* path, int frames, int w, int h) {
  FILE* f = std::fopen(path, "wb");
  if (!f) {
    std::fprintf(stderr, "Couldn't create %s\n", path);
    return 1;
  }
  std::fprintf(f, "YUV4MPEG2 W%d H%d F30:1 Ip A1:1 C420jpeg\n", w, h);
  const int cw = (w + 1) / 2, ch = (h + 1) / 2;
  std::vector<unsigned char> y(size_t(w) * h), cb(size_t(cw) * ch), cr(size_t(cw) * ch);
  std::vector<int> rgb(size_t(w) * h * 3);
  for (int t = 0; t < frames; ++t) {
    for (int j = 0; j < h; ++j)
      for (int i = 0; i < w; ++i) {
        int* p = &rgb[(size_t(j) * w + i) * 3];
        SamplePixel(i, j, t, w, h, p);
        y[size_t(j) * w + i] = (unsigned char)Clip((66 * p[0] + 129 * p[1] + 25 * p[2] + 128) / 256 + 16);
      }
    for (int j = 0; j < ch; ++j)
      for (int i = 0; i < cw; ++i) {
        const int* p = &rgb[(size_t(std::min(j * 2, h - 1)) * w + std::min(i * 2, w - 1)) * 3];
        cb[size_t(j) * cw + i] = (unsigned char)Clip((-38 * p[0] - 74 * p[1] + 112 * p[2] + 128) / 256 + 128);
        cr[size_t(j) * cw + i] = (unsigned char)Clip((112 * p[0] - 94 * p[1] - 18 * p[2] + 128) / 256 + 128);
      }
    std::fputs("FRAME\n", f);
    std::fwrite(y.data(), 1, y.size(), f);
    std::fwrite(cb.data(), 1, cb.size(), f);
    std::fwrite(cr.data(), 1, cr.size(), f);
  }
  std::fclose(f);
  std::printf("Wrote %s: %d frames of %dx%d at 30 frames per second.\n", path, frames, w, h);
  return 0;
}

int Compare(const char* source, const char* file) {
  Velmo1FileCheck check;
  if (const char* e = Velmo1CheckOpen(file, &check)) {
    std::fprintf(stderr, "%s: %s\n", file, e);
    return 1;
  }
  uint32_t frames = 0;
  const double psnr = Velmo1CheckPsnr(check, VelmocBuiltinSource(), source, 0, &frames);
  const VelmoHeader& h = check.Info.Header;
  const double seconds = double(h.Frames) * h.FrameRateDiv / h.FrameRate;
  std::printf("%s: %u frames of %ux%u, %zu bytes, %.0f bytes per second\n", file, h.Frames,
              check.Info.Width, check.Info.Height, check.Bytes.size(),
              seconds > 0 ? check.Bytes.size() / seconds : 0.0);
  if (psnr < 0) {
    std::fprintf(stderr, "Couldn't compare with %s\n", source);
    return 1;
  }
  std::printf("PSNR against the source (Y, Cr, Cb over %u decoded frames): %.2f dB\n", frames, psnr);
  return 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc == 4 && std::strcmp(argv[1], "--compare") == 0) return Compare(argv[2], argv[3]);
  if (argc < 2 || argv[1][0] == '-') {
    std::fprintf(stderr, "usage: orn_make_sample <out.y4m> [frames] [width] [height]\n"
                         "       orn_make_sample --compare <source> <file.vlm>\n");
    return 2;
  }
  const int frames = argc > 2 ? std::atoi(argv[2]) : 90;
  const int w = argc > 3 ? std::atoi(argv[3]) : 320;
  const int h = argc > 4 ? std::atoi(argv[4]) : 240;
  if (frames < 1 || w < 8 || h < 8 || w > 4096 || h > 4096) return 2;
  return WriteSample(argv[1], frames, w, h);
}
