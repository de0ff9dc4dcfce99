// Shared body of the image reader fuzz targets: open the input as one format and decode it
// into each pixel kind; animated GIFs also step forwards and back.
#pragma once

#include "imagefile/imagefile.h"

#include <cstdint>
#include <vector>

inline int FuzzImage(const uint8_t* data, size_t size, int format) {
  // Small limits keep each input fast and within the fuzzer's memory budget.
  ImageSetLimits(2048, uint64_t(1) << 20);
  ImageError error{};
  ImageFile* file = ImageFileOpenMemoryAs(data, size, format, &error);
  if (!file) return 0;
  const ImageInfo* info = ImageFileInfo(file);
  const size_t pixels = size_t(info->width) * size_t(info->height);
  std::vector<float> buffer(pixels * 4);
  ImagePixels argb{buffer.data(), ptrdiff_t(info->width) * 4, info->width, info->height, IMAGE_PIXELS_ARGB32};
  ImagePixels wide{buffer.data(), ptrdiff_t(info->width) * 8, info->width, info->height, IMAGE_PIXELS_RGBA16};
  ImagePixels floats{buffer.data(), ptrdiff_t(info->width) * 16, info->width, info->height, IMAGE_PIXELS_FLOAT};
  ImagePixels bottom_up = argb;
  bottom_up.base = reinterpret_cast<uint8_t*>(buffer.data()) + (info->height - 1) * argb.pitch;
  bottom_up.pitch = -argb.pitch;
  ImageFileReadFrame(file, 0, &argb, &error);
  ImageFileReadFrame(file, 0, &wide, &error);
  ImageFileReadFrame(file, 0, &floats, &error);
  ImageFileReadFrame(file, 0, &bottom_up, &error);
  const int frames = info->frame_count < 4 ? info->frame_count : 4;
  for (int i = 1; i < frames; ++i) ImageFileReadFrame(file, i, &argb, &error);
  if (frames > 1) ImageFileReadFrame(file, info->frame_count - 1, &argb, &error);
  uint32_t palette[256];
  ImageFilePalette(file, palette);
  ImageFileFrameDelay(file, 0);
  ImageFileClose(file);
  return 0;
}

#define ORN_IMAGE_FUZZER(format)                                              \
  extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) { \
    return FuzzImage(data, size, format);                                     \
  }
