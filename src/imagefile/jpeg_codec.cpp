// JPEG through libjpeg-turbo: reading grey, colour and CMYK pictures from memory, and writing
// 8-bit colour with a quality from 0 to 100. Library errors jump back here instead of exiting.
#include "imagefile/imagefile_internal.h"

#include <algorithm>
#include <csetjmp>
#include <cstdio>
#include <cstdlib>

#include <jpeglib.h>

namespace orn::imagefile {

namespace {

// Progressive files with absurd numbers of scans can take very long; stop there.
constexpr long kMaxScans = 1000;

struct ErrorManager {
  jpeg_error_mgr base;
  jmp_buf jump;
  char text[JMSG_LENGTH_MAX];
};

void OnError(j_common_ptr info) {
  auto* mgr = reinterpret_cast<ErrorManager*>(info->err);
  (*info->err->format_message)(info, mgr->text);
  longjmp(mgr->jump, 1);
}

void OnMessage(j_common_ptr) {}

void OnProgress(j_common_ptr info) {
  if (info->is_decompressor) {
    auto* d = reinterpret_cast<j_decompress_ptr>(info);
    if (d->input_scan_number > kMaxScans) {
      auto* mgr = reinterpret_cast<ErrorManager*>(info->err);
      std::snprintf(mgr->text, sizeof mgr->text, "too many scans");
      longjmp(mgr->jump, 1);
    }
  }
}

void InstallErrors(ErrorManager* mgr) {
  jpeg_std_error(&mgr->base);
  mgr->base.error_exit = OnError;
  mgr->base.output_message = OnMessage;
  mgr->text[0] = 0;
}

// Reads the header into file->info; fails when the library rejects the data.
int JpegOpen(ImageFile* file, ImageError* error) {
  jpeg_decompress_struct cinfo;
  ErrorManager mgr;
  InstallErrors(&mgr);
  cinfo.err = &mgr.base;
  jpeg_create_decompress(&cinfo);
  if (setjmp(mgr.jump)) {
    jpeg_destroy_decompress(&cinfo);
    return Fail(error, IMAGE_ERROR_CORRUPT, "JPEG: %s", mgr.text);
  }
  jpeg_mem_src(&cinfo, file->data.data(), static_cast<unsigned long>(file->data.size()));
  jpeg_read_header(&cinfo, TRUE);
  ImageInfo& info = file->info;
  info.width = int(cinfo.image_width);
  info.height = int(cinfo.image_height);
  info.sub_format = int(cinfo.jpeg_color_space);
  info.bits_per_pixel = 8 * cinfo.num_components;
  info.is_gray = cinfo.jpeg_color_space == JCS_GRAYSCALE;
  const bool known = cinfo.num_components == 1 || cinfo.num_components == 3 || cinfo.num_components == 4;
  jpeg_destroy_decompress(&cinfo);
  if (!known) return Fail(error, IMAGE_ERROR_UNSUPPORTED, "JPEG with %d components", info.bits_per_pixel / 8);
  return SizeAllowed(uint64_t(info.width), uint64_t(info.height), error) ? 1 : 0;
}

// One decoded scanline as ARGB, from grey, RGB or CMYK samples (Adobe files store CMYK inverted).
void ToArgb(const jpeg_decompress_struct& cinfo, const uint8_t* s, uint32_t* out, bool inverted_cmyk) {
  const int w = int(cinfo.output_width);
  switch (cinfo.out_color_space) {
    case JCS_GRAYSCALE:
      for (int x = 0; x < w; ++x) out[x] = 0xFF000000u | uint32_t(s[x]) * 0x010101u;
      break;
    case JCS_CMYK:
      for (int x = 0; x < w; ++x) {
        const uint8_t* p = s + 4 * x;
        uint32_t c = p[0], m = p[1], y = p[2], k = p[3];
        if (!inverted_cmyk) c = 255 - c, m = 255 - m, y = 255 - y, k = 255 - k;
        const uint32_t r = (c * k + 127) / 255, g = (m * k + 127) / 255, b = (y * k + 127) / 255;
        out[x] = 0xFF000000u | r << 16 | g << 8 | b;
      }
      break;
    default:
      for (int x = 0; x < w; ++x) {
        const uint8_t* p = s + 3 * x;
        out[x] = 0xFF000000u | uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
      }
      break;
  }
}

// The decoding proper; only plain data lives in this frame, since errors jump back into it.
// `row` holds one line of ARGB pixels; `rows_done` counts the lines stored.
int DecodeJpeg(ImageFile* file, const ImagePixels* dest, uint32_t* row, int* rows_done, ImageError* error) {
  jpeg_decompress_struct cinfo;
  ErrorManager mgr;
  jpeg_progress_mgr progress{};
  InstallErrors(&mgr);
  cinfo.err = &mgr.base;
  jpeg_create_decompress(&cinfo);
  if (setjmp(mgr.jump)) {
    jpeg_destroy_decompress(&cinfo);
    return Fail(error, IMAGE_ERROR_CORRUPT, "JPEG: %s", mgr.text);
  }
  progress.progress_monitor = OnProgress;
  cinfo.progress = &progress;
  jpeg_mem_src(&cinfo, file->data.data(), static_cast<unsigned long>(file->data.size()));
  jpeg_read_header(&cinfo, TRUE);
  const bool inverted_cmyk = cinfo.saw_Adobe_marker;
  if (cinfo.jpeg_color_space == JCS_GRAYSCALE) {
    cinfo.out_color_space = JCS_GRAYSCALE;
  } else if (cinfo.jpeg_color_space == JCS_CMYK || cinfo.jpeg_color_space == JCS_YCCK) {
    cinfo.out_color_space = JCS_CMYK;
  } else {
    cinfo.out_color_space = JCS_RGB;
  }
  jpeg_start_decompress(&cinfo);
  if (int(cinfo.output_width) != dest->width || int(cinfo.output_height) != dest->height) {
    std::snprintf(mgr.text, sizeof mgr.text, "size changed");
    longjmp(mgr.jump, 1);
  }
  const int stride = int(cinfo.output_width) * cinfo.output_components;
  JSAMPARRAY line = (*cinfo.mem->alloc_sarray)(reinterpret_cast<j_common_ptr>(&cinfo), JPOOL_IMAGE, JDIMENSION(stride), 1);
  while (cinfo.output_scanline < cinfo.output_height) {
    const int y = int(cinfo.output_scanline);
    if (jpeg_read_scanlines(&cinfo, line, 1) != 1) break;
    ToArgb(cinfo, line[0], row, inverted_cmyk);
    StoreRowArgb(dest, y, row);
    *rows_done = y + 1;
  }
  // A truncated file decodes to the end with grey filler and a warning: report it.
  const bool damaged = cinfo.err->num_warnings > 0;
  jpeg_finish_decompress(&cinfo);
  jpeg_destroy_decompress(&cinfo);
  return damaged ? Fail(error, IMAGE_ERROR_CORRUPT, "JPEG data is damaged or truncated") : 1;
}

int JpegRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  std::vector<uint32_t> row(static_cast<size_t>(file->info.width));
  int rows_done = 0;
  if (DecodeJpeg(file, dest, row.data(), &rows_done, error)) return 1;
  // What was decoded stands; the rest of the picture is black.
  std::fill(row.begin(), row.end(), 0xFF000000u);
  for (int y = rows_done; y < dest->height; ++y) StoreRowArgb(dest, y, row.data());
  return 0;
}

}  // namespace

namespace {

// Compresses into a buffer that libjpeg allocates; `line` holds one row of R, G, B bytes.
int CompressJpeg(const ImageWriteParams* params, const ImagePixels* pixels, uint8_t* line,
                 unsigned char** buffer, unsigned long* size, ImageError* error) {
  jpeg_compress_struct cinfo;
  ErrorManager mgr;
  InstallErrors(&mgr);
  cinfo.err = &mgr.base;
  jpeg_create_compress(&cinfo);
  if (setjmp(mgr.jump)) {
    jpeg_destroy_compress(&cinfo);
    return Fail(error, IMAGE_ERROR_WRITE, "JPEG: %s", mgr.text);
  }
  jpeg_mem_dest(&cinfo, buffer, size);
  cinfo.image_width = JDIMENSION(pixels->width);
  cinfo.image_height = JDIMENSION(pixels->height);
  cinfo.input_components = 3;
  cinfo.in_color_space = JCS_RGB;
  jpeg_set_defaults(&cinfo);
  jpeg_set_quality(&cinfo, std::clamp(params->jpeg_quality, 0, 100), TRUE);
  jpeg_start_compress(&cinfo, TRUE);
  while (cinfo.next_scanline < cinfo.image_height) {
    const int y = int(cinfo.next_scanline);
    for (int x = 0; x < pixels->width; ++x) {
      const uint32_t p = LoadArgb(pixels, x, y);
      line[3 * x] = uint8_t(p >> 16);
      line[3 * x + 1] = uint8_t(p >> 8);
      line[3 * x + 2] = uint8_t(p);
    }
    JSAMPROW row = line;
    jpeg_write_scanlines(&cinfo, &row, 1);
  }
  jpeg_finish_compress(&cinfo);
  jpeg_destroy_compress(&cinfo);
  return 1;
}

}  // namespace

int WriteJpeg(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out, ImageError* error) {
  std::vector<uint8_t> line(size_t(pixels->width) * 3);
  unsigned char* buffer = nullptr;
  unsigned long size = 0;
  const int ok = CompressJpeg(params, pixels, line.data(), &buffer, &size, error);
  if (ok) out->bytes.assign(buffer, buffer + size);
  std::free(buffer);
  return ok;
}

const ImageCodec kJpegCodec = {IMAGE_FORMAT_JPEG, JpegOpen, JpegRead};

}  // namespace orn::imagefile
