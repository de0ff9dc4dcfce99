// The fetch for each frame depth, integer and float.
#include "process/pixel_fetch.h"

#include <cstring>

namespace {

uint32_t Load32(const uint8_t* p) {
  uint32_t v;
  std::memcpy(&v, p, 4);
  return v;
}

void FetchPalette(const PixelFetch* fetch, const uint8_t* row, uint32_t x, uint32_t count,
                  uint32_t* out) {
  const uint32_t depth = fetch->Depth;
  const uint32_t perByte = 8 / depth;
  const uint32_t mask = (1u << depth) - 1;
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t at = x + i;
    const uint32_t shift = 8 - depth * (at % perByte + 1);
    const uint32_t index = (row[at / perByte] >> shift) & mask;
    out[i] = fetch->Palette[index] & 0x00FFFFFFu;
  }
}

void Fetch16(const PixelFetch*, const uint8_t* row, uint32_t x, uint32_t count, uint32_t* out) {
  const uint8_t* p = row + size_t(x) * 2;
  for (uint32_t i = 0; i < count; ++i, p += 2) {
    const uint32_t v = p[0] | uint32_t(p[1]) << 8;
    out[i] = ((v >> 10) & 31) << 19 | ((v >> 5) & 31) << 11 | (v & 31) << 3;
  }
}

void Fetch24(const PixelFetch*, const uint8_t* row, uint32_t x, uint32_t count, uint32_t* out) {
  const uint8_t* p = row + size_t(x) * 3;
  for (uint32_t i = 0; i < count; ++i, p += 3)
    out[i] = p[0] | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16;
}

void Fetch32(const PixelFetch*, const uint8_t* row, uint32_t x, uint32_t count, uint32_t* out) {
  std::memcpy(out, row + size_t(x) * 4, size_t(count) * 4);
}

void Fetch32Premultiplied(const PixelFetch*, const uint8_t* row, uint32_t x, uint32_t count,
                          uint32_t* out) {
  const uint8_t* p = row + size_t(x) * 4;
  for (uint32_t i = 0; i < count; ++i, p += 4) out[i] = PremultiplyPixel(Load32(p));
}

// 16-bit big-endian A, R, G, B: the first byte of each channel is its high byte.
uint32_t High64(const uint8_t* p) {
  return uint32_t(p[0]) << 24 | uint32_t(p[2]) << 16 | uint32_t(p[4]) << 8 | p[6];
}

void Fetch64(const PixelFetch*, const uint8_t* row, uint32_t x, uint32_t count, uint32_t* out) {
  const uint8_t* p = row + size_t(x) * 8;
  for (uint32_t i = 0; i < count; ++i, p += 8) out[i] = High64(p);
}

void Fetch64Premultiplied(const PixelFetch*, const uint8_t* row, uint32_t x, uint32_t count,
                          uint32_t* out) {
  const uint8_t* p = row + size_t(x) * 8;
  for (uint32_t i = 0; i < count; ++i, p += 8) out[i] = PremultiplyPixel(High64(p));
}

// ---------------------------------------------------------------------------------------------
// Float

void PremultiplyFloat(float* px) {
  for (int c = 0; c < 3; ++c) {
    const float v = px[c] * px[3];
    px[c] = v < FloatColourFloor ? 0.0f : v;
  }
}

void FetchFloat128(const PixelFetchFloat* fetch, const uint8_t* row, uint32_t x, uint32_t count,
                   float* out) {
  std::memcpy(out, row + size_t(x) * 16, size_t(count) * 16);
  if (fetch->Premultiply)
    for (uint32_t i = 0; i < count; ++i) PremultiplyFloat(out + 4 * i);
}

float Wide(const uint8_t* p) { return float(uint32_t(p[0]) << 8 | p[1]) * 1.5259022e-5f; }

void FetchFloat64(const PixelFetchFloat* fetch, const uint8_t* row, uint32_t x, uint32_t count,
                  float* out) {
  const uint8_t* p = row + size_t(x) * 8;
  for (uint32_t i = 0; i < count; ++i, p += 8) {
    float* px = out + 4 * i;
    px[0] = Wide(p + 2);
    px[1] = Wide(p + 4);
    px[2] = Wide(p + 6);
    px[3] = Wide(p);
    if (fetch->Premultiply) PremultiplyFloat(px);
  }
}

void FetchFloat32(const PixelFetchFloat* fetch, const uint8_t* row, uint32_t x, uint32_t count,
                  float* out) {
  const uint8_t* p = row + size_t(x) * 4;
  for (uint32_t i = 0; i < count; ++i, p += 4) {
    float* px = out + 4 * i;
    px[0] = float(p[2]) / 255.0f;
    px[1] = float(p[1]) / 255.0f;
    px[2] = float(p[0]) / 255.0f;
    px[3] = float(p[3]) / 255.0f;
    if (fetch->Premultiply) PremultiplyFloat(px);
  }
}

}  // namespace

bool PixelFetchSelect(PixelFetch* fetch, uint32_t depth, const uint32_t* palette,
                      bool premultiply) {
  *fetch = PixelFetch{nullptr, palette, depth, 0};
  switch (depth) {
    case 1:
    case 2:
    case 4:
    case 8:
      if (!palette) return false;
      fetch->Row = FetchPalette;
      return true;
    case 16:
      fetch->Row = Fetch16;
      return true;
    case 24:
      fetch->Row = Fetch24;
      return true;
    case 32:
      fetch->Premultiply = premultiply;
      fetch->Row = premultiply ? Fetch32Premultiplied : Fetch32;
      return true;
    case 64:
      fetch->Premultiply = premultiply;
      fetch->Row = premultiply ? Fetch64Premultiplied : Fetch64;
      return true;
    default:
      return false;
  }
}

bool PixelFetchFloatSelect(PixelFetchFloat* fetch, uint32_t depth, bool premultiply) {
  *fetch = PixelFetchFloat{nullptr, depth, premultiply ? 1u : 0u};
  switch (depth) {
    case 32:
      fetch->Row = FetchFloat32;
      return true;
    case 64:
      fetch->Row = FetchFloat64;
      return true;
    case 128:
      fetch->Row = FetchFloat128;
      return true;
    default:
      return false;
  }
}
