#include "decode/velmo2_predict.h"

#include <algorithm>

namespace {

uint8_t ToPixel(int32_t v) { return uint8_t(std::clamp(v, 0, 255)); }

// The six-tap half-pixel filter on p[-2] .. p[3], `step` apart, before its final clamp.
int32_t HalfTap(const uint8_t* p, ptrdiff_t step) {
  const int32_t t = ((p[-2 * step] + p[3 * step]) >> 1) + (((p[0] + p[step]) * 19) >> 1) -
                    (p[-step] + p[2 * step]) * 2 + 8;
  return t >> 4;
}

// The same filter on the 16-bit intermediate rows of the two-pass case.
int32_t HalfTap(const int16_t* p, ptrdiff_t step) {
  const int32_t t = ((p[-2 * step] + p[3 * step]) >> 1) + (((p[0] + p[step]) * 19) >> 1) -
                    (p[-step] + p[2 * step]) * 2 + 8;
  return t >> 4;
}

// Both fractions odd: 21 rows (-2 .. 18) filtered horizontally, then the columns vertically.
void FetchLumaBoth(const uint8_t* s, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  int16_t rows[21 * 16];
  for (int r = 0; r < 21; ++r)
    for (int c = 0; c < 16; ++c) rows[r * 16 + c] = int16_t(HalfTap(s + (r - 2) * pitch + c, 1));
  for (int r = 0; r < 16; ++r)
    for (int c = 0; c < 16; ++c) dst[r * dstPitch + c] = ToPixel(HalfTap(rows + (r + 2) * 16 + c, 16));
}

// One quarter-pixel step between two samples (already scaled by 16).
int32_t Quarter(int32_t a, int32_t b, int32_t fraction) {
  switch (fraction) {
    case 1: return a + ((b - a) >> 2);
    case 2: return (a | b) - ((a ^ b) >> 1);
    case 3: return b + ((a - b) >> 2);
    default: return a;
  }
}

}  // namespace

int32_t Velmo2ClampPosition(int64_t value, int32_t lim, bool keepParity) {
  const int32_t oddLo = keepParity ? 5 : 4;
  const int32_t oddHi = keepParity ? oddLo + lim - 42 : lim - 42;
  // A plane too narrow for the six taps around an odd position (under 21 pixels) has no
  // room for one: the position is taken as the even one below it, which reads no neighbours.
  if ((value & 1) && oddHi >= oddLo) return int32_t(std::clamp<int64_t>(value, oddLo, oddHi));
  const int64_t even = value & ~int64_t(1);
  // A plane too small for the block leaves only the low bound.
  return int32_t(std::clamp<int64_t>(even, 0, std::max(0, lim - 32)));
}

void Velmo2MotionPositions(uint32_t mbX, uint32_t mbY, const int32_t vx[4], const int32_t vy[4],
                           uint32_t width, uint32_t height, Velmo2FrameWord word, int32_t outX[4],
                           int32_t outY[4]) {
  const bool keep = word.ClampKeepsParity();
  for (int q = 0; q < 4; ++q) {
    const int64_t x = 2 * (int64_t(mbX) + (q & 1) * 16) + vx[q];
    const int64_t y = 2 * (int64_t(mbY) + (q >> 1) * 16) + vy[q];
    outX[q] = Velmo2ClampPosition(x, int32_t(2 * width), keep);
    outY[q] = Velmo2ClampPosition(y, int32_t(2 * height), keep);
  }
}

void Velmo2FetchLuma(const uint8_t* src, ptrdiff_t pitch, int32_t x, int32_t y, uint8_t* dst,
                     ptrdiff_t dstPitch) {
  const uint8_t* s = src + ptrdiff_t(y >> 1) * pitch + (x >> 1);
  const bool hx = x & 1, hy = y & 1;
  if (hx && hy) return FetchLumaBoth(s, pitch, dst, dstPitch);
  for (int r = 0; r < 16; ++r) {
    const uint8_t* line = s + r * pitch;
    uint8_t* out = dst + r * dstPitch;
    for (int c = 0; c < 16; ++c) {
      if (hx) out[c] = ToPixel(HalfTap(line + c, 1));
      else if (hy) out[c] = ToPixel(HalfTap(line + c, pitch));
      else out[c] = line[c];
    }
  }
}

void Velmo2FetchChroma(const uint8_t* src, ptrdiff_t pitch, int32_t x, int32_t y, uint8_t* dst,
                       ptrdiff_t dstPitch) {
  const uint8_t* s = src + ptrdiff_t(y >> 2) * pitch + (x >> 2);
  const int32_t fx = x & 3, fy = y & 3;
  // The horizontal pass on 9 lines when the vertical one needs the line below, else 8; a
  // zero fraction reads no neighbour.
  int32_t rows[9 * 8];
  const int lines = fy ? 9 : 8;
  for (int r = 0; r < lines; ++r)
    for (int c = 0; c < 8; ++c) {
      const int32_t a = s[r * pitch + c] * 16;
      rows[r * 8 + c] = fx ? Quarter(a, s[r * pitch + c + 1] * 16, fx) : a;
    }
  for (int r = 0; r < 8; ++r)
    for (int c = 0; c < 8; ++c) {
      const int32_t a = rows[r * 8 + c];
      const int32_t v = fy ? Quarter(a, rows[(r + 1) * 8 + c], fy) : a;
      dst[r * dstPitch + c] = ToPixel((v + 8) >> 4);
    }
}

void Velmo2AddResidual(uint8_t* dst, ptrdiff_t dstPitch, const int16_t* residual,
                       ptrdiff_t residualPitch, int w, int h) {
  for (int r = 0; r < h; ++r)
    for (int c = 0; c < w; ++c)
      dst[r * dstPitch + c] = ToPixel(dst[r * dstPitch + c] + residual[r * residualPitch + c]);
}

void Velmo2StoreIntra(const int16_t out[64], uint8_t* dst, ptrdiff_t dstPitch) {
  for (int r = 0; r < 8; ++r)
    for (int c = 0; c < 8; ++c) dst[r * dstPitch + c] = ToPixel(out[r * 8 + c]);
}

int32_t Velmo2BlockMean(const uint8_t* p, ptrdiff_t pitch) {
  int32_t col[8][8];
  for (int r = 0; r < 8; ++r)
    for (int x = 0; x < 8; ++x) col[r][x] = p[r * pitch + x];
  for (int step = 1; step < 8; step *= 2)
    for (int r = 0; r < 8; r += 2 * step)
      for (int x = 0; x < 8; ++x) col[r][x] = (col[r][x] + col[r + step][x] + 1) >> 1;
  int32_t sum = 0;
  for (int x = 0; x < 8; ++x) sum += col[0][x];
  return sum;
}
