// Pictures for tests, written and read back with the image file library as ARGB pixels.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "imagefile/imagefile.h"

namespace test_support {

// Writes `pixels` (width × height, ARGB) as an image file of `format`; false when it fails.
inline bool WriteImage(const std::string& name, int format, int width, int height,
                       const std::vector<uint32_t>& pixels, bool alpha = false) {
  ImagePixels p = {const_cast<uint32_t*>(pixels.data()), ptrdiff_t(width) * 4, width, height,
                   IMAGE_PIXELS_ARGB32};
  ImageWriteParams params = {format, alpha ? 1 : 0, 95, 0};
  return ImageWriteFile(name.c_str(), &params, &p, nullptr) != 0;
}

struct Picture {
  int width = 0, height = 0, has_alpha = 0;
  std::vector<uint32_t> pixels;
};

// Frame 0 of a picture file as ARGB; false when it cannot be opened or read.
inline bool ReadPicture(const std::string& name, Picture* out) {
  ImageFile* file = ImageFileOpen(name.c_str(), nullptr);
  if (!file) return false;
  const ImageInfo* info = ImageFileInfo(file);
  out->width = info->width;
  out->height = info->height;
  out->has_alpha = info->has_alpha;
  out->pixels.assign(size_t(out->width) * out->height, 0);
  ImagePixels p{out->pixels.data(), ptrdiff_t(out->width) * 4, out->width, out->height,
                IMAGE_PIXELS_ARGB32};
  const bool ok = ImageFileReadFrame(file, 0, &p, nullptr) != 0;
  ImageFileClose(file);
  return ok;
}

// A GIF file's bytes: `frames` frames of width × height over one ramp palette, each frame its
// own index pattern, `delay` hundredths of a second each, `loop` as the writer takes it. Empty
// when the writer refuses.
inline std::vector<uint8_t> GifAnimation(int width, int height, int frames, int delay = 10,
                                         int loop = 0) {
  ImageGifWriter* writer = ImageGifWriterOpen(width, height, loop, nullptr);
  if (!writer) return {};
  uint32_t palette[256];
  for (int i = 0; i < 256; ++i) palette[i] = uint32_t(i) << 16 | uint32_t(255 - i) << 8 | uint32_t(i / 3);
  std::vector<uint8_t> indices(size_t(width) * height);
  bool ok = true;
  for (int f = 0; f < frames && ok; ++f) {
    for (size_t i = 0; i < indices.size(); ++i) indices[i] = uint8_t(i * 7 + size_t(f) * 50);
    const ImageGifFrame frame{indices.data(), width, palette, delay, 1, -1, 0, 0, 0, 0, 0};
    ok = ImageGifWriterAddFrame(writer, &frame, nullptr) == 1;
  }
  void* data = nullptr;
  size_t size = 0;
  if (ImageGifWriterFinish(writer, nullptr, &data, &size, nullptr) != 1) return {};
  std::vector<uint8_t> bytes(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
  ImageFreeMemory(data);
  return ok ? bytes : std::vector<uint8_t>{};
}

}  // namespace test_support
