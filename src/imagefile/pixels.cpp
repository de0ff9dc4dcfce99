// Row stores and pixel loads between the three pixel kinds.
#include "imagefile/imagefile_internal.h"

#include <cmath>

namespace orn::imagefile {

namespace {

uint8_t FloatTo8(float v) {
  if (!(v > 0.0f)) return 0;  // also catches NaN
  if (v >= 1.0f) return 255;
  return uint8_t(v * 255.0f + 0.5f);
}

uint16_t FloatTo16(float v) {
  if (!(v > 0.0f)) return 0;
  if (v >= 1.0f) return 65535;
  return uint16_t(v * 65535.0f + 0.5f);
}

uint8_t Narrow16(uint16_t v) { return uint8_t((uint32_t(v) * 255 + 32767) / 65535); }

}  // namespace

uint8_t* RowAddress(const ImagePixels* dest, int y) {
  return static_cast<uint8_t*>(dest->base) + ptrdiff_t(y) * dest->pitch;
}

void StoreRowArgb(const ImagePixels* dest, int y, const uint32_t* argb) {
  uint8_t* row = RowAddress(dest, y);
  const int w = dest->width;
  switch (dest->kind) {
    case IMAGE_PIXELS_ARGB32:
      std::memcpy(row, argb, size_t(w) * 4);
      break;
    case IMAGE_PIXELS_RGBA16: {
      uint16_t* out = reinterpret_cast<uint16_t*>(row);
      for (int x = 0; x < w; ++x) {
        const uint32_t p = argb[x];
        out[4 * x + 0] = uint16_t(((p >> 16) & 255) * 257);
        out[4 * x + 1] = uint16_t(((p >> 8) & 255) * 257);
        out[4 * x + 2] = uint16_t((p & 255) * 257);
        out[4 * x + 3] = uint16_t((p >> 24) * 257);
      }
      break;
    }
    default: {
      float* out = reinterpret_cast<float*>(row);
      for (int x = 0; x < w; ++x) {
        const uint32_t p = argb[x];
        out[4 * x + 0] = float((p >> 16) & 255) / 255.0f;
        out[4 * x + 1] = float((p >> 8) & 255) / 255.0f;
        out[4 * x + 2] = float(p & 255) / 255.0f;
        out[4 * x + 3] = float(p >> 24) / 255.0f;
      }
      break;
    }
  }
}

void StoreRowRgba16(const ImagePixels* dest, int y, const uint16_t* rgba) {
  uint8_t* row = RowAddress(dest, y);
  const int w = dest->width;
  switch (dest->kind) {
    case IMAGE_PIXELS_ARGB32: {
      uint32_t* out = reinterpret_cast<uint32_t*>(row);
      for (int x = 0; x < w; ++x) {
        const uint16_t* s = rgba + 4 * x;
        out[x] = uint32_t(Narrow16(s[3])) << 24 | uint32_t(Narrow16(s[0])) << 16 |
                 uint32_t(Narrow16(s[1])) << 8 | Narrow16(s[2]);
      }
      break;
    }
    case IMAGE_PIXELS_RGBA16:
      std::memcpy(row, rgba, size_t(w) * 8);
      break;
    default: {
      float* out = reinterpret_cast<float*>(row);
      for (int i = 0; i < 4 * w; ++i) out[i] = float(rgba[i]) / 65535.0f;
      break;
    }
  }
}

void StoreRowFloat(const ImagePixels* dest, int y, const float* rgba) {
  uint8_t* row = RowAddress(dest, y);
  const int w = dest->width;
  switch (dest->kind) {
    case IMAGE_PIXELS_ARGB32: {
      uint32_t* out = reinterpret_cast<uint32_t*>(row);
      for (int x = 0; x < w; ++x) {
        const float* s = rgba + 4 * x;
        out[x] = uint32_t(FloatTo8(s[3])) << 24 | uint32_t(FloatTo8(s[0])) << 16 |
                 uint32_t(FloatTo8(s[1])) << 8 | FloatTo8(s[2]);
      }
      break;
    }
    case IMAGE_PIXELS_RGBA16: {
      uint16_t* out = reinterpret_cast<uint16_t*>(row);
      for (int i = 0; i < 4 * w; ++i) out[i] = FloatTo16(rgba[i]);
      break;
    }
    default:
      std::memcpy(row, rgba, size_t(w) * 16);
      break;
  }
}

void FillPixels(const ImagePixels* dest, uint32_t argb) {
  std::vector<uint32_t> row(size_t(dest->width), argb);
  for (int y = 0; y < dest->height; ++y) StoreRowArgb(dest, y, row.data());
}

uint32_t LoadArgb(const ImagePixels* pixels, int x, int y) {
  const uint8_t* row = RowAddress(pixels, y);
  switch (pixels->kind) {
    case IMAGE_PIXELS_ARGB32:
      return reinterpret_cast<const uint32_t*>(row)[x];
    case IMAGE_PIXELS_RGBA16: {
      const uint16_t* s = reinterpret_cast<const uint16_t*>(row) + 4 * x;
      return uint32_t(Narrow16(s[3])) << 24 | uint32_t(Narrow16(s[0])) << 16 |
             uint32_t(Narrow16(s[1])) << 8 | Narrow16(s[2]);
    }
    default: {
      const float* s = reinterpret_cast<const float*>(row) + 4 * x;
      return uint32_t(FloatTo8(s[3])) << 24 | uint32_t(FloatTo8(s[0])) << 16 |
             uint32_t(FloatTo8(s[1])) << 8 | FloatTo8(s[2]);
    }
  }
}

void LoadFloat(const ImagePixels* pixels, int x, int y, float rgba[4]) {
  const uint8_t* row = RowAddress(pixels, y);
  switch (pixels->kind) {
    case IMAGE_PIXELS_ARGB32: {
      const uint32_t p = reinterpret_cast<const uint32_t*>(row)[x];
      rgba[0] = float((p >> 16) & 255) / 255.0f;
      rgba[1] = float((p >> 8) & 255) / 255.0f;
      rgba[2] = float(p & 255) / 255.0f;
      rgba[3] = float(p >> 24) / 255.0f;
      break;
    }
    case IMAGE_PIXELS_RGBA16: {
      const uint16_t* s = reinterpret_cast<const uint16_t*>(row) + 4 * x;
      for (int c = 0; c < 4; ++c) rgba[c] = float(s[c]) / 65535.0f;
      break;
    }
    default:
      std::memcpy(rgba, reinterpret_cast<const float*>(row) + 4 * x, 16);
      break;
  }
}

}  // namespace orn::imagefile
