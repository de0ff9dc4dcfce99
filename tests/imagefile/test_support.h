// Helpers for the image file tests: pictures held in memory and byte builders.
#pragma once

#include "imagefile/imagefile.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <cstdio>
#include <cstring>
#include <algorithm>
#include <string>
#include <vector>

namespace imagefile_test {

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
};

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

// Opens bytes and reads frame 0 as four samples a pixel: IMAGE_PIXELS_RGBA16 into uint16_t,
// IMAGE_PIXELS_FLOAT into float.
template <typename Sample>
std::vector<Sample> ReadSamples(const std::vector<uint8_t>& bytes, int kind, ImageInfo* info) {
  ImageError error{};
  ImageFile* file = ImageFileOpenMemory(bytes.data(), bytes.size(), nullptr, &error);
  EXPECT_NE(file, nullptr) << error.text;
  if (!file) return {};
  *info = *ImageFileInfo(file);
  std::vector<Sample> out(size_t(info->width) * size_t(info->height) * 4);
  ImagePixels view{out.data(), ptrdiff_t(info->width) * 4 * ptrdiff_t(sizeof(Sample)), info->width,
                   info->height, kind};
  EXPECT_EQ(ImageFileReadFrame(file, 0, &view, &error), 1) << error.text;
  ImageFileClose(file);
  return out;
}

// Opens bytes and reads frame `frame` as ARGB; `ok` reports the read's result.
inline Picture Read(const std::vector<uint8_t>& bytes, const char* name = nullptr, int frame = 0, bool* ok = nullptr,
                    ImageInfo* info_out = nullptr) {
  ImageError error{};
  ImageFile* file = ImageFileOpenMemory(bytes.data(), bytes.size(), name, &error);
  if (!file) {
    ADD_FAILURE() << "open failed: " << error.text;
    if (ok) *ok = false;
    return {};
  }
  const ImageInfo* info = ImageFileInfo(file);
  if (info_out) *info_out = *info;
  Picture p(info->width, info->height);
  ImagePixels view = p.View();
  const int result = ImageFileReadFrame(file, frame, &view, &error);
  if (ok) {
    *ok = result == 1;
  } else {
    EXPECT_EQ(result, 1) << error.text;
  }
  ImageFileClose(file);
  return p;
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

inline bool SamePictures(const Picture& a, const Picture& b, std::string* where = nullptr) {
  if (a.width != b.width || a.height != b.height) return false;
  for (int y = 0; y < a.height; ++y)
    for (int x = 0; x < a.width; ++x)
      if (a.at(x, y) != b.at(x, y)) {
        if (where) {
          char text[96];
          std::snprintf(text, sizeof text, "(%d,%d): %08x vs %08x", x, y, a.at(x, y), b.at(x, y));
          *where = text;
        }
        return false;
      }
  return true;
}

}  // namespace imagefile_test
