// The demo's helper: writes a built-in sample clip (a moving, detailed picture) as a
// YUV4MPEG2 stream and a sound to go with it (tones and chirps) as a wave file, and measures a
// compressed Velmo 1 file or a sound that came back from one against its source.
//   orn_make_sample <out.y4m> [frames] [width] [height]
//   orn_make_sample --wav <out.wav> [seconds] [rate]
//   orn_make_sample --compare <source> <file.vlm>
//   orn_make_sample --compare-wav <source.wav> <sound>
#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "compress/tool/velmo1_file_check.h"
#include "compress/tool/velmoc_source.h"
#include "media/sound.h"

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

// Left and right of sample i at `rate`: a chord that swells, a rising and a falling chirp, then
// three beeps that go from left to right, each second of the sound one part.
void SoundSample(uint32_t i, uint32_t rate, double lr[2]) {
  const double pi = 3.14159265358979, t = double(i) / rate;
  const int part = int(t) % 3;
  const double u = t - std::floor(t);  // time within the part
  double left = 0, right = 0;
  if (part == 0) {
    const double swell = std::sin(pi * u);
    left = swell * (0.3 * std::sin(2 * pi * 440 * t) + 0.15 * std::sin(2 * pi * 554.37 * t));
    right = swell * (0.3 * std::sin(2 * pi * 440 * t) + 0.15 * std::sin(2 * pi * 659.26 * t));
  } else if (part == 1) {
    // The phase of a linear sweep from f0 to f1 over one second: f0 u + (f1 - f0) u² / 2.
    left = 0.35 * std::sin(2 * pi * (300 * u + 900 * u * u / 2));
    right = 0.35 * std::sin(2 * pi * (1200 * u - 900 * u * u / 2));
  } else {
    const int beep = int(u * 3);
    const double v = u * 3 - beep, freq[3] = {660, 880, 990};
    const double level = v < 0.6 ? 0.4 * std::sin(pi * v / 0.6) : 0.0;
    const double tone = level * std::sin(2 * pi * freq[beep] * t);
    left = tone * (1.0 - beep * 0.45);
    right = tone * (0.1 + beep * 0.45);
  }
  lr[0] = left;
  lr[1] = right;
}

void Put16(FILE* f, uint32_t v) {
  const unsigned char b[2] = {(unsigned char)v, (unsigned char)(v >> 8)};
  std::fwrite(b, 1, 2, f);
}
void Put32(FILE* f, uint32_t v) {
  Put16(f, v & 0xFFFF);
  Put16(f, v >> 16);
}

int WriteSound(const char* path, double seconds, uint32_t rate) {
  FILE* f = std::fopen(path, "wb");
  if (!f) {
    std::fprintf(stderr, "Couldn't create %s\n", path);
    return 1;
  }
  const uint32_t samples = uint32_t(seconds * rate), bytes = samples * 4;
  std::fwrite("RIFF", 1, 4, f);
  Put32(f, 36 + bytes);
  std::fwrite("WAVEfmt ", 1, 8, f);
  Put32(f, 16);
  Put16(f, 1);
  Put16(f, 2);
  Put32(f, rate);
  Put32(f, rate * 4);
  Put16(f, 4);
  Put16(f, 16);
  std::fwrite("data", 1, 4, f);
  Put32(f, bytes);
  // Short fades at each end of the whole sound keep it free of clicks.
  const uint32_t fade = rate / 100;
  for (uint32_t i = 0; i < samples; ++i) {
    double lr[2];
    SoundSample(i, rate, lr);
    const double edge = std::min(1.0, std::min(double(i), double(samples - 1 - i)) / fade);
    for (double v : lr) Put16(f, uint32_t(int(std::lround(v * edge * 32767)) & 0xFFFF));
  }
  const bool ok = std::fclose(f) == 0;
  std::printf("Wrote %s: %.1f seconds of 16-bit stereo sound at %u Hz (a chord, chirps, beeps).\n",
              path, seconds, rate);
  return ok ? 0 : 1;
}

// Reads a whole sound as 16-bit samples of the given format through the sound input layer.
bool ReadSound(const char* name, uint32_t rate, uint32_t channels, std::vector<int16_t>* out,
               SoundInput** format) {
  SoundInput* sound = SoundOpen(name, rate, 16, channels, 0, 0, 0, 0, 0, {});
  if (!sound) return false;
  std::vector<int16_t> block(8192);
  uint32_t got;
  while ((got = SoundRead(sound, block.data(), uint32_t(block.size() * 2))) > 0)
    out->insert(out->end(), block.begin(), block.begin() + got / 2);
  if (format)
    *format = sound;
  else
    SoundClose(sound);
  return true;
}

int CompareSound(const char* source, const char* copy) {
  std::vector<int16_t> a, b;
  SoundInput* format = nullptr;
  if (!ReadSound(source, 0, 0, &a, &format)) {
    std::fprintf(stderr, "Couldn't read the sound of %s\n", source);
    return 1;
  }
  const uint32_t rate = format->rate, channels = format->channels;
  SoundClose(format);
  if (!ReadSound(copy, rate, channels, &b, nullptr)) {
    std::fprintf(stderr, "Couldn't read the sound of %s\n", copy);
    return 1;
  }
  const size_t n = std::min(a.size(), b.size());
  double signal = 0, noise = 0;
  for (size_t i = 0; i < n; ++i) {
    signal += double(a[i]) * a[i];
    noise += (double(a[i]) - b[i]) * (double(a[i]) - b[i]);
  }
  std::printf("%s: %.3f seconds of %u Hz %s sound against %.3f seconds in the source\n", copy,
              double(b.size()) / channels / rate, rate, channels == 2 ? "stereo" : "mono",
              double(a.size()) / channels / rate);
  if (noise == 0)
    std::printf("Signal to noise ratio over %.3f seconds: identical samples\n",
                double(n) / channels / rate);
  else
    std::printf("Signal to noise ratio over %.3f seconds: %.2f dB\n", double(n) / channels / rate,
                10 * std::log10(signal / noise));
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
  if (argc == 4 && std::strcmp(argv[1], "--compare-wav") == 0) return CompareSound(argv[2], argv[3]);
  if (argc >= 3 && std::strcmp(argv[1], "--wav") == 0) {
    const double seconds = argc > 3 ? std::atof(argv[3]) : 3.0;
    const long rate = argc > 4 ? std::atol(argv[4]) : 22050;
    if (!(seconds > 0 && seconds <= 600) || rate < 8000 || rate > 192000) return 2;
    return WriteSound(argv[2], seconds, uint32_t(rate));
  }
  if (argc < 2 || argv[1][0] == '-') {
    std::fprintf(stderr, "usage: orn_make_sample <out.y4m> [frames] [width] [height]\n"
                         "       orn_make_sample --wav <out.wav> [seconds] [rate]\n"
                         "       orn_make_sample --compare <source> <file.vlm>\n"
                         "       orn_make_sample --compare-wav <source.wav> <sound>\n");
    return 2;
  }
  const int frames = argc > 2 ? std::atoi(argv[2]) : 90;
  const int w = argc > 3 ? std::atoi(argv[3]) : 320;
  const int h = argc > 4 ? std::atoi(argv[4]) : 240;
  if (frames < 1 || w < 8 || h < 8 || w > 4096 || h > 4096) return 2;
  return WriteSample(argv[1], frames, w, h);
}
