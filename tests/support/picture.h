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

}  // namespace test_support
