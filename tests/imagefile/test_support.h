// Helpers for the image file tests: pictures held in memory, opening and reading bytes, and a
// byte builder for hand-made files.
#pragma once

#include "imagefile/imagefile.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <memory>
#include <string>
#include <vector>

namespace imagefile_test {

// Opaque black, red, green, blue and white, and transparent black.
constexpr uint32_t K = 0xFF000000, R = 0xFFFF0000, G = 0xFF00FF00, B = 0xFF0000FF, W = 0xFFFFFFFF, T = 0;

// A top-down ARGB picture.
struct Picture {
  int width = 0, height = 0;
  std::vector<uint32_t> pixels;

  Picture() = default;
  Picture(int w, int h, uint32_t fill = 0) : width(w), height(h), pixels(size_t(w) * size_t(h), fill) {}
  uint32_t& at(int x, int y) { return pixels[size_t(y) * size_t(width) + size_t(x)]; }
  uint32_t at(int x, int y) const { return pixels[size_t(y) * size_t(width) + size_t(x)]; }
  ImagePixels View() {
    return ImagePixels{pixels.data(), ptrdiff_t(width) * 4, width, height, IMAGE_PIXELS_ARGB32};
  }
  bool operator==(const Picture& o) const { return width == o.width && height == o.height && pixels == o.pixels; }
};
inline void PrintTo(const Picture& p, std::ostream* os) {
  *os << p.width << "x" << p.height << " " << ::testing::PrintToString(p.pixels);
}

// A colourful test pattern; `alpha` false gives opaque pixels.
inline Picture Pattern(int w, int h, bool alpha) {
  Picture p(w, h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const uint32_t a = alpha ? uint32_t((x * 37 + y * 11) & 255) : 255;
      p.at(x, y) = a << 24 | uint32_t((x * 255) / std::max(1, w - 1)) << 16 |
                   uint32_t((y * 255) / std::max(1, h - 1)) << 8 | uint32_t((x * y * 7) & 255);
    }
  return p;
}

// A smooth pattern that survives JPEG compression well.
inline Picture Smooth(int w, int h) {
  Picture p(w, h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      p.at(x, y) = 0xFF000000u | uint32_t(x * 255 / (w - 1)) << 16 | uint32_t(y * 255 / (h - 1)) << 8 |
                   uint32_t((x + y) * 255 / (w + h - 2));
  return p;
}

// Writes the pixels of any kind to memory; empty when the writer refuses them.
inline std::vector<uint8_t> WriteView(const ImageWriteParams& params, const ImagePixels& view) {
  void* data = nullptr;
  size_t size = 0;
  ImageError error{};
  EXPECT_EQ(ImageWriteMemory(&params, &view, &data, &size, &error), 1) << error.text;
  std::vector<uint8_t> bytes(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
  ImageFreeMemory(data);
  return bytes;
}

inline std::vector<uint8_t> Write(const ImageWriteParams& params, Picture& picture) {
  return WriteView(params, picture.View());
}

using OpenFile = std::unique_ptr<ImageFile, void (*)(ImageFile*)>;

// Opens bytes; null (with the reason in `error` when given) when they do not open.
inline OpenFile Open(const std::vector<uint8_t>& bytes, const char* name = nullptr, ImageError* error = nullptr) {
  return OpenFile(ImageFileOpenMemory(bytes.data(), bytes.size(), name, error), ImageFileClose);
}

// The code with which opening bytes fails; IMAGE_OK when they open.
inline int OpenError(const std::vector<uint8_t>& bytes, const char* name = nullptr) {
  ImageError error{};
  return Open(bytes, name, &error) ? IMAGE_OK : error.code;
}

// Opens bytes and reads frame 0 as four samples a pixel: IMAGE_PIXELS_RGBA16 into uint16_t,
// IMAGE_PIXELS_FLOAT into float.
template <typename Sample>
std::vector<Sample> ReadSamples(const std::vector<uint8_t>& bytes, int kind, ImageInfo* info) {
  ImageError error{};
  const OpenFile file = Open(bytes, nullptr, &error);
  EXPECT_NE(file, nullptr) << error.text;
  if (!file) return {};
  *info = *ImageFileInfo(file.get());
  std::vector<Sample> out(size_t(info->width) * size_t(info->height) * 4);
  ImagePixels view{out.data(), ptrdiff_t(info->width) * 4 * ptrdiff_t(sizeof(Sample)), info->width,
                   info->height, kind};
  EXPECT_EQ(ImageFileReadFrame(file.get(), 0, &view, &error), 1) << error.text;
  return out;
}

// Opens bytes and reads frame `frame` as ARGB; `ok` reports the read's result (a failed read
// fails the test when `ok` is not given).
inline Picture Read(const std::vector<uint8_t>& bytes, const char* name = nullptr, int frame = 0, bool* ok = nullptr,
                    ImageInfo* info_out = nullptr) {
  ImageError error{};
  const OpenFile file = Open(bytes, name, &error);
  if (!file) {
    ADD_FAILURE() << "open failed: " << error.text;
    if (ok) *ok = false;
    return {};
  }
  const ImageInfo* info = ImageFileInfo(file.get());
  if (info_out) *info_out = *info;
  Picture p(info->width, info->height);
  ImagePixels view = p.View();
  const int result = ImageFileReadFrame(file.get(), frame, &view, &error);
  if (ok) {
    *ok = result == 1;
  } else {
    EXPECT_EQ(result, 1) << error.text;
  }
  return p;
}

// The information of bytes that open.
inline ImageInfo InfoOf(const std::vector<uint8_t>& bytes, const char* name = nullptr) {
  ImageInfo info{};
  Read(bytes, name, 0, nullptr, &info);
  return info;
}

// Little-endian byte builder for hand-made files.
struct Bytes {
  std::vector<uint8_t> v;
  Bytes& u8(unsigned x) { v.push_back(uint8_t(x)); return *this; }
  Bytes& u16(unsigned x) { return u8(x & 255).u8((x >> 8) & 255); }
  Bytes& u32(uint32_t x) { return u16(x & 0xFFFF).u16(x >> 16); }
  Bytes& str(const char* s) { while (*s) u8(uint8_t(*s++)); return *this; }
  Bytes& raw(const std::vector<uint8_t>& bytes) { v.insert(v.end(), bytes.begin(), bytes.end()); return *this; }
};

}  // namespace imagefile_test
