// Pixel conversion of the compressor's input frames into the planes its encoders take.
#include "compress/frame_planes.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "host/platform.h"

namespace {

inline uint8_t Clip255(int32_t v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

struct RgbSum {
  int32_t R, G, B;
};

// Integer pixel at (x, y), clamped into the picture (odd edges count their neighbour again).
inline uint32_t PixelAt(const uint8_t* base, int32_t pitch, uint32_t x, uint32_t y) {
  uint32_t v;
  std::memcpy(&v, base + int64_t(pitch) * y + size_t(x) * 4, 4);
  return v;
}

inline void FloatAt(const uint8_t* base, int32_t pitch, uint32_t x, uint32_t y, float out[4]) {
  std::memcpy(out, base + int64_t(pitch) * y + size_t(x) * 16, 16);
}

uint8_t LumaOld(uint32_t p) {
  int32_t r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
  return uint8_t(((67371 * r + 132120 * g + 25690 * b + 0x1ffff) >> 18) + 16);
}
uint8_t LumaFull(uint32_t p) {
  int32_t r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
  return uint8_t((78381 * r + 153879 * g + 29884 * b + 0x20000) >> 18);
}
void ChromaOld(const RgbSum& s, uint8_t* cr, uint8_t* cb) {
  *cr = Clip255((-18612 * s.B - 96468 * s.G + 115080 * s.R + 0x807ffff) >> 20);
  *cb = Clip255((115080 * s.B - 38797 * s.R - 76283 * s.G + 0x807ffff) >> 20);
}
uint8_t FullChromaValue(int32_t v) {
  v -= v >> 31;  // the sign is subtracted: negative values move one towards zero
  return Clip255((v + 0x8080000) >> 20);
}
void ChromaFull(const RgbSum& s, uint8_t* cr, uint8_t* cb) {
  *cr = FullChromaValue(131072 * s.R - 109757 * s.G - 21315 * s.B);
  *cb = FullChromaValue(131072 * s.B - 86839 * s.G - 44233 * s.R);
}

uint8_t UnitToByte(float v) {
  float x = v * 255.0f + 0.5f;
  return x <= 0.0f ? 0 : x >= 255.0f ? 255 : uint8_t(x);
}

struct ConvertJob {
  const uint8_t* Base;
  int32_t Pitch;
  bool IsFloat, FullRange;
  uint32_t Width, Height;
  VelmoPlaneTargets Out;
  volatile uint32_t NextPair;
};

// One pair of lines: two luma rows and the chroma row between them.
void ConvertLinePair(const ConvertJob& job, uint32_t pair) {
  const uint32_t w = job.Width, h = job.Height;
  const uint32_t y0 = pair * 2, y1 = std::min(y0 + 1, h - 1);
  for (uint32_t y = y0; y < std::min(y0 + 2, h); ++y) {
    uint8_t* ly = job.Out.Y + size_t(y) * job.Out.LumaPitch;
    uint8_t* la = job.Out.Alpha ? job.Out.Alpha + size_t(y) * job.Out.LumaPitch : nullptr;
    for (uint32_t x = 0; x < w; ++x) {
      if (job.IsFloat) {
        float f[4];
        FloatAt(job.Base, job.Pitch, x, y, f);
        ly[x] = UnitToByte(0.299f * f[0] + 0.587f * f[1] + 0.114f * f[2]);
        if (la) la[x] = UnitToByte(f[3]);
      } else {
        uint32_t p = PixelAt(job.Base, job.Pitch, x, y);
        ly[x] = job.FullRange ? LumaFull(p) : LumaOld(p);
        if (la) la[x] = uint8_t(p >> 24);
      }
    }
  }
  uint8_t* cr = job.Out.Cr + size_t(pair) * job.Out.ChromaPitch;
  uint8_t* cb = job.Out.Cb + size_t(pair) * job.Out.ChromaPitch;
  for (uint32_t cx = 0; cx < (w + 1) / 2; ++cx) {
    const uint32_t x0 = cx * 2, x1 = std::min(x0 + 1, w - 1);
    if (job.IsFloat) {
      float s[3] = {0, 0, 0};
      for (uint32_t y : {y0, y1})
        for (uint32_t x : {x0, x1}) {
          float f[4];
          FloatAt(job.Base, job.Pitch, x, y, f);
          for (int c = 0; c < 3; ++c) s[c] += f[c];
        }
      cr[cx] = UnitToByte((0.5f * s[0] - 0.418688f * s[1] - 0.081312f * s[2]) / 4 + 128.0f / 255.0f);
      cb[cx] = UnitToByte((0.5f * s[2] - 0.331264f * s[1] - 0.168736f * s[0]) / 4 + 128.0f / 255.0f);
      continue;
    }
    RgbSum s{0, 0, 0};
    for (uint32_t y : {y0, y1})
      for (uint32_t x : {x0, x1}) {
        uint32_t p = PixelAt(job.Base, job.Pitch, x, y);
        s.R += (p >> 16) & 255;
        s.G += (p >> 8) & 255;
        s.B += p & 255;
      }
    if (job.FullRange) ChromaFull(s, cr + cx, cb + cx);
    else ChromaOld(s, cr + cx, cb + cx);
  }
}

void ConvertWorker(void* context, uint32_t) {
  ConvertJob& job = *static_cast<ConvertJob*>(context);
  const uint32_t pairs = (job.Height + 1) / 2;
  for (;;) {
    uint32_t pair = AtomicAdd(&job.NextPair, 1);
    if (pair >= pairs) return;
    ConvertLinePair(job, pair);
  }
}

}  // namespace

void VelmoConvertPixels(const void* pixels, int32_t pitch, bool isFloat, uint32_t width,
                        uint32_t height, bool fullRange, const VelmoPlaneTargets& out) {
  if (!pixels || !width || !height) return;
  ConvertJob job{static_cast<const uint8_t*>(pixels), pitch, isFloat, fullRange, width, height, out, 0};
  PoolRun(ConvertWorker, &job);
}

namespace {

// Sample maps between the ranges: luma spans 219 steps from 16 in limited range, chroma 224
// steps around 128; full range spans 255. The chroma map takes the sum of four samples.
struct RangeMaps {
  uint8_t Luma[256];
  uint8_t ChromaSum[1021];
};

uint8_t RoundClip(double v) { return Clip255(int32_t(std::floor(v + 0.5))); }

void BuildRangeMaps(bool fullIn, bool fullOut, RangeMaps* m) {
  const double lumaScale = fullIn == fullOut ? 1.0 : fullOut ? 255.0 / 219.0 : 219.0 / 255.0;
  const double chromaScale = fullIn == fullOut ? 1.0 : fullOut ? 255.0 / 224.0 : 224.0 / 255.0;
  const double lumaFrom = fullIn ? 0.0 : 16.0, lumaTo = fullOut ? 0.0 : 16.0;
  for (int v = 0; v < 256; ++v) m->Luma[v] = RoundClip((v - lumaFrom) * lumaScale + lumaTo);
  for (int s = 0; s <= 1020; ++s) m->ChromaSum[s] = RoundClip((s / 4.0 - 128.0) * chromaScale + 128.0);
}

// The sum of the 2x2 samples behind output chroma sample (cx, cy); odd edges count their
// neighbour again.
uint32_t ChromaSum(const uint8_t* plane, int32_t pitch, bool half, uint32_t cx, uint32_t cy,
                   uint32_t width, uint32_t height) {
  if (half) return 4u * plane[int64_t(pitch) * cy + cx];
  const uint32_t x0 = cx * 2, x1 = std::min(x0 + 1, width - 1);
  const uint32_t y0 = cy * 2, y1 = std::min(y0 + 1, height - 1);
  const uint8_t* r0 = plane + int64_t(pitch) * y0;
  const uint8_t* r1 = plane + int64_t(pitch) * y1;
  return uint32_t(r0[x0]) + r0[x1] + r1[x0] + r1[x1];
}

}  // namespace

void VelmoConvertYuv(const VelmoYuvFrame& in, uint32_t width, uint32_t height, bool fullRange,
                     const VelmoPlaneTargets& out) {
  if (!in.Y || !in.Cb || !in.Cr || !width || !height) return;
  RangeMaps maps;
  BuildRangeMaps(in.FullRange, fullRange, &maps);
  for (uint32_t y = 0; y < height; ++y) {
    const uint8_t* src = in.Y + int64_t(in.LumaPitch) * y;
    uint8_t* dst = out.Y + size_t(y) * out.LumaPitch;
    for (uint32_t x = 0; x < width; ++x) dst[x] = maps.Luma[src[x]];
    if (!out.Alpha) continue;
    uint8_t* alpha = out.Alpha + size_t(y) * out.LumaPitch;
    if (in.Alpha) std::memcpy(alpha, in.Alpha + int64_t(in.AlphaPitch) * y, width);
    else std::memset(alpha, 255, width);
  }
  const uint32_t chromaWidth = (width + 1) / 2, chromaHeight = (height + 1) / 2;
  for (uint32_t cy = 0; cy < chromaHeight; ++cy) {
    uint8_t* cr = out.Cr + size_t(cy) * out.ChromaPitch;
    uint8_t* cb = out.Cb + size_t(cy) * out.ChromaPitch;
    for (uint32_t cx = 0; cx < chromaWidth; ++cx) {
      cr[cx] = maps.ChromaSum[ChromaSum(in.Cr, in.ChromaPitch, in.HalfChroma, cx, cy, width, height)];
      cb[cx] = maps.ChromaSum[ChromaSum(in.Cb, in.ChromaPitch, in.HalfChroma, cx, cy, width, height)];
    }
  }
}
