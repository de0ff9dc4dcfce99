// Frame pairs for motion search tests and benchmarks: a textured reference picture in the
// decoder's frame buffer geometry (luma planes rounded up to 32 pixels each way, chroma half),
// and a source picture that is the decoder's own motion fetch of it at a known vector, so that
// the vector reproduces the source exactly in luma and chroma. Noise may be added after.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>
#include <random>
#include <vector>

#include "decode/velmo2_kernels.h"
#include "decode/velmo2_predict.h"
#include "encode2/velmo2_encode_kernels.h"
#include "encode2/velmo2_motion.h"

namespace test_support {

struct MotionPlane {
  std::vector<uint8_t> Pixels;
  ptrdiff_t Pitch = 0;
  uint32_t Lines = 0;
  uint8_t* Line(uint32_t y) { return Pixels.data() + ptrdiff_t(y) * Pitch; }
  const uint8_t* Line(uint32_t y) const { return Pixels.data() + ptrdiff_t(y) * Pitch; }
};

// Luma, Cr, Cb (alpha and HDR planes only when asked for).
struct MotionPicture {
  MotionPlane Planes[Velmo2MotionPlanes];
};

struct MotionFrames {
  uint32_t Width = 0, Height = 0;
  MotionPicture Reference, Source;
};

inline uint32_t Aligned32(uint32_t v) { return (v + 31) & ~31u; }

inline bool IsChromaPlane(uint32_t p) { return p == Velmo2MotionCr || p == Velmo2MotionCb; }

// Value noise: random levels on a grid `cell` pixels apart, smoothly blended between grid
// points; the same in every direction, so a shift has one clear best match.
inline std::vector<double> ValueNoise(uint32_t width, uint32_t height, uint32_t cell,
                                      std::mt19937& rng) {
  const uint32_t gw = width / cell + 2, gh = height / cell + 2;
  std::vector<double> grid(size_t(gw) * gh);
  for (double& g : grid) g = double(rng() % 1001) / 1000.0 - 0.5;
  const auto smooth = [](double t) { return t * t * (3 - 2 * t); };
  std::vector<double> out(size_t(width) * height);
  for (uint32_t y = 0; y < height; ++y)
    for (uint32_t x = 0; x < width; ++x) {
      const uint32_t gx = x / cell, gy = y / cell;
      const double tx = smooth(double(x % cell) / cell), ty = smooth(double(y % cell) / cell);
      const double* r0 = &grid[size_t(gy) * gw + gx];
      const double* r1 = r0 + gw;
      const double top = r0[0] + (r0[1] - r0[0]) * tx, bottom = r1[0] + (r1[1] - r1[0]) * tx;
      out[size_t(y) * width + x] = top + (bottom - top) * ty;
    }
  return out;
}

// A textured plane: two octaves of value noise around mid grey, different per seed.
inline MotionPlane TexturePlane(uint32_t width, uint32_t height, uint32_t seed) {
  MotionPlane p;
  p.Pitch = ptrdiff_t(width);
  p.Lines = height;
  p.Pixels.resize(size_t(width) * height);
  std::mt19937 rng(seed);
  const std::vector<double> coarse = ValueNoise(width, height, 16, rng);
  const std::vector<double> fine = ValueNoise(width, height, 6, rng);
  for (size_t i = 0; i < p.Pixels.size(); ++i) {
    const double v = 128 + 300 * coarse[i] + 90 * fine[i];
    p.Pixels[i] = uint8_t(std::lround(std::fmin(255.0, std::fmax(0.0, v))));
  }
  return p;
}

// A reference picture of width x height pixels (planes of the aligned size) and a source that
// is its motion fetch at the vector (vx, vy) half pixels for every quadrant; alpha and HDR too
// when `extra`. Then `noise` (0: none) is added to every source sample, up to +-noise.
inline MotionFrames ShiftedFrames(uint32_t width, uint32_t height, int32_t vx, int32_t vy,
                                  bool extra = false, int noise = 0, uint32_t seed = 1) {
  MotionFrames f;
  f.Width = width;
  f.Height = height;
  const uint32_t w = Aligned32(width), h = Aligned32(height);
  Velmo2Kernels k;
  Velmo2KernelsInit(&k, 0);
  for (uint32_t p = 0; p < Velmo2MotionPlanes; ++p) {
    if (!extra && (p == Velmo2MotionAlpha || p == Velmo2MotionHdr)) continue;
    const uint32_t s = IsChromaPlane(p) ? 1 : 0;
    f.Reference.Planes[p] = TexturePlane(w >> s, h >> s, seed * 7 + p);
    f.Source.Planes[p] = f.Reference.Planes[p];
  }
  const int32_t v4x[4] = {vx, vx, vx, vx}, v4y[4] = {vy, vy, vy, vy};
  for (uint32_t my = 0; my < h; my += 32)
    for (uint32_t mx = 0; mx < w; mx += 32) {
      int32_t px[4], py[4];
      Velmo2MotionPositions(mx, my, v4x, v4y, width, height,
                            Velmo2FrameWord{Velmo2ParityClamp}, px, py);
      for (uint32_t p = 0; p < Velmo2MotionPlanes; ++p) {
        const MotionPlane& r = f.Reference.Planes[p];
        MotionPlane& d = f.Source.Planes[p];
        if (r.Pixels.empty()) continue;
        for (uint32_t q = 0; q < 4; ++q) {
          const uint32_t qx = mx + (q & 1) * 16, qy = my + (q >> 1) * 16;
          if (IsChromaPlane(p))
            Velmo2FetchChroma(r.Line(0), r.Pitch, px[q], py[q], d.Line(qy / 2) + qx / 2, d.Pitch);
          else
            Velmo2FetchLuma(r.Line(0), r.Pitch, px[q], py[q], d.Line(qy) + qx, d.Pitch);
        }
      }
    }
  if (noise > 0) {
    std::mt19937 rng(seed + 99);
    for (MotionPlane& p : f.Source.Planes)
      for (uint8_t& v : p.Pixels)
        v = uint8_t(std::clamp(int(v) + int(rng() % (2 * noise + 1)) - noise, 0, 255));
  }
  return f;
}

// The search input of the macroblock at (mbX, mbY) of the frames, no neighbours, all planes
// weighted 1, the vector bit weight `inverseLambda`.
inline Velmo2MotionInput MotionInputFor(const MotionFrames& f, uint32_t mbX, uint32_t mbY,
                                        const Velmo2Kernels* fetch,
                                        const Velmo2EncodeKernels* diff,
                                        double inverseLambda = 16.0) {
  Velmo2MotionInput in{};
  for (uint32_t p = 0; p < Velmo2MotionPlanes; ++p) {
    const MotionPlane& s = f.Source.Planes[p];
    const MotionPlane& r = f.Reference.Planes[p];
    if (s.Pixels.empty()) continue;
    in.Source[p] = {s.Line(0), s.Pitch};
    in.Reference[p] = {r.Line(0), r.Pitch};
  }
  in.Width = f.Width;
  in.Height = f.Height;
  in.MbX = mbX;
  in.MbY = mbY;
  in.InverseLambda = inverseLambda;
  in.LumaWeight = in.AlphaWeight = in.HdrWeight = in.ChromaWeight = 1.0;
  in.OutsideMask = Velmo2OutsideMask(f.Width, f.Height, mbX, mbY);
  in.Fetch = fetch;
  in.Diff = diff;
  return in;
}

}  // namespace test_support
