// Shared pieces of the image file library: the open-file record, the reader table, error
// helpers, bounded byte access and the row stores that turn decoded rows into the caller's kind.
#pragma once

#include "imagefile/imagefile.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <vector>

namespace orn::imagefile {

// Sets `error` (when given) and returns 0, so that readers can `return Fail(...)`.
int Fail(ImageError* error, int code, const char* format, ...) __attribute__((format(printf, 3, 4)));

// Checks a picture size against the process-wide limits.
bool SizeAllowed(uint64_t width, uint64_t height, ImageError* error);

// Reader state owned by an open file; each format derives its own.
struct ReaderState {
  virtual ~ReaderState() = default;
};

}  // namespace orn::imagefile

struct ImageFile {
  std::vector<uint8_t> data;
  ImageInfo info{};
  std::vector<int> delays;         // per frame, 1/100 s
  std::vector<uint32_t> palette;   // palette pictures
  orn::imagefile::ReaderState* state = nullptr;
  const struct ImageCodec* codec = nullptr;
};

// One row of the reader table.
struct ImageCodec {
  int format;
  // Fills file->info (and delays, palette, state). Must check the size limits.
  int (*open)(ImageFile* file, ImageError* error);
  // Decodes a frame; `dest` has been checked against the picture size.
  int (*read)(ImageFile* file, int frame, const ImagePixels* dest, ImageError* error);
};

namespace orn::imagefile {

extern const ImageCodec kBmpCodec, kGifCodec, kJpegCodec, kPngCodec, kTiffCodec, kTgaCodec,
    kExrCodec;

// Content tests used by the probe.
bool LooksLikeTga(const uint8_t* data, size_t size, bool strict);

// Little- and big-endian loads from a buffer the caller has bounded.
inline uint16_t Le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline uint32_t Le32(const uint8_t* p) {
  return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24;
}

// Row stores: write decoded row `y` (display order) of `dest` from a source row of dest->width
// pixels in one of three forms, converting to the destination kind.
void StoreRowArgb(const ImagePixels* dest, int y, const uint32_t* argb);
void StoreRowRgba16(const ImagePixels* dest, int y, const uint16_t* rgba);
void StoreRowFloat(const ImagePixels* dest, int y, const float* rgba);
uint8_t* RowAddress(const ImagePixels* dest, int y);
// Fills a whole destination with one ARGB value.
void FillPixels(const ImagePixels* dest, uint32_t argb);

// Output sink for the writers.
struct ByteSink {
  std::vector<uint8_t> bytes;
};
int WriteFileBytes(const char* name, const std::vector<uint8_t>& bytes, ImageError* error);

int WriteJpeg(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out,
              ImageError* error);
int WriteTiff(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out,
              ImageError* error);
int WriteExr(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out,
             ImageError* error);

// Reads pixel (x, y) of any kind as ARGB32 or as float RGBA.
uint32_t LoadArgb(const ImagePixels* pixels, int x, int y);
void LoadFloat(const ImagePixels* pixels, int x, int y, float rgba[4]);

}  // namespace orn::imagefile
