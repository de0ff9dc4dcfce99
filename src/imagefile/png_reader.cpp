// PNG reader through libpng: palette, grey, grey with alpha, RGB and RGBA at 1 to 16 bits, tRNS
// transparency, interlaced files. 16-bit files keep their precision for 16-bit and float reads.
#include "imagefile/imagefile_internal.h"

#include <csetjmp>
#include <cstdio>

#include <png.h>

namespace orn::imagefile {

namespace {

constexpr png_alloc_size_t kMaxChunkBytes = 32u << 20;

struct MemoryReader {
  const uint8_t* data;
  size_t size;
  size_t at;
  char text[160];
};

void ReadBytes(png_structp png, png_bytep out, size_t length) {
  auto* r = static_cast<MemoryReader*>(png_get_io_ptr(png));
  if (length > r->size - r->at) png_error(png, "file is truncated");
  std::memcpy(out, r->data + r->at, length);
  r->at += length;
}

void OnError(png_structp png, png_const_charp message) {
  auto* r = static_cast<MemoryReader*>(png_get_io_ptr(png));
  std::snprintf(r->text, sizeof r->text, "%s", message ? message : "error");
  png_longjmp(png, 1);
}

void OnWarning(png_structp, png_const_charp) {}

// Creates the reader; the caller sets its jump point before any other call.
png_structp CreateReader(MemoryReader* reader, png_infop* info) {
  png_structp png = png_create_read_struct(PNG_LIBPNG_VER_STRING, reader, OnError, OnWarning);
  if (!png) return nullptr;
  *info = png_create_info_struct(png);
  if (!*info) {
    png_destroy_read_struct(&png, nullptr, nullptr);
    return nullptr;
  }
  png_set_read_fn(png, reader, ReadBytes);
  uint32_t max_side = 0;
  ImageGetLimits(&max_side, nullptr);
  png_set_user_limits(png, max_side, max_side);
  png_set_chunk_malloc_max(png, kMaxChunkBytes);
  return png;
}

void ReadPalette(ImageFile* file, png_structp png, png_infop info) {
  png_colorp colours = nullptr;
  int count = 0;
  if (!png_get_PLTE(png, info, &colours, &count)) return;
  png_bytep alpha = nullptr;
  int alpha_count = 0;
  png_color_16p unused = nullptr;
  png_get_tRNS(png, info, &alpha, &alpha_count, &unused);
  for (int i = 0; i < count && i < 256; ++i) {
    const uint32_t a = alpha && i < alpha_count ? alpha[i] : 255;
    file->palette.push_back(a << 24 | uint32_t(colours[i].red) << 16 | uint32_t(colours[i].green) << 8 | colours[i].blue);
  }
}

// The size in the IHDR chunk, checked before libpng sees it so that the limits give their own error.
bool HeaderSizeAllowed(const std::vector<uint8_t>& d, ImageError* error) {
  if (d.size() < 24 || std::memcmp(&d[12], "IHDR", 4) != 0) return true;  // libpng will complain
  auto be32 = [&](size_t at) { return uint32_t(d[at]) << 24 | uint32_t(d[at + 1]) << 16 | uint32_t(d[at + 2]) << 8 | d[at + 3]; };
  const uint32_t width = be32(16), height = be32(20);
  return width == 0 || height == 0 || width > 0x7FFFFFFF || height > 0x7FFFFFFF || SizeAllowed(width, height, error);
}

int PngOpen(ImageFile* file, ImageError* error) {
  if (!HeaderSizeAllowed(file->data, error)) return 0;
  MemoryReader reader{file->data.data(), file->data.size(), 0, {}};
  png_infop info = nullptr;
  png_structp png = CreateReader(&reader, &info);
  if (!png) return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return Fail(error, IMAGE_ERROR_CORRUPT, "PNG: %s", reader.text);
  }
  png_read_info(png, info);
  const int colour_type = png_get_color_type(png, info);
  const int depth = png_get_bit_depth(png, info);
  ImageInfo& out = file->info;
  out.width = int(png_get_image_width(png, info));
  out.height = int(png_get_image_height(png, info));
  out.sub_format = colour_type;
  out.bits_per_channel = depth == 16 ? 16 : 8;
  out.bits_per_pixel = depth * png_get_channels(png, info);
  out.is_palette = colour_type == PNG_COLOR_TYPE_PALETTE;
  out.is_gray = !(colour_type & PNG_COLOR_MASK_COLOR);
  out.has_alpha = (colour_type & PNG_COLOR_MASK_ALPHA) || png_get_valid(png, info, PNG_INFO_tRNS);
  out.alpha_bits = (colour_type & PNG_COLOR_MASK_ALPHA) ? depth : 0;
  ReadPalette(file, png, info);
  out.palette_size = int(file->palette.size());
  png_destroy_read_struct(&png, &info, nullptr);
  return SizeAllowed(uint64_t(out.width), uint64_t(out.height), error) ? 1 : 0;
}

// Hands decoded RGBA rows (8 or 16 bits a channel) to the destination.
void StoreRows(const ImagePixels* dest, const std::vector<uint8_t>& image, size_t stride, bool wide) {
  std::vector<uint32_t> argb(wide ? 0 : size_t(dest->width));
  for (int y = 0; y < dest->height; ++y) {
    const uint8_t* src = &image[size_t(y) * stride];
    if (wide) {
      StoreRowRgba16(dest, y, reinterpret_cast<const uint16_t*>(src));
      continue;
    }
    for (int x = 0; x < dest->width; ++x) {
      const uint8_t* p = src + 4 * x;
      argb[size_t(x)] = uint32_t(p[3]) << 24 | uint32_t(p[0]) << 16 | uint32_t(p[1]) << 8 | p[2];
    }
    StoreRowArgb(dest, y, argb.data());
  }
}

// Decodes into `rows` (RGBA, 8 or 16 bits a channel); only plain data lives in this frame.
int DecodePng(ImageFile* file, const ImagePixels* dest, bool wide, size_t stride, png_bytep* rows, ImageError* error) {
  MemoryReader reader{file->data.data(), file->data.size(), 0, {}};
  png_infop info = nullptr;
  png_structp png = CreateReader(&reader, &info);
  if (!png) return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  if (setjmp(png_jmpbuf(png))) {
    png_destroy_read_struct(&png, &info, nullptr);
    return Fail(error, IMAGE_ERROR_CORRUPT, "PNG: %s", reader.text);
  }
  png_read_info(png, info);
  if (int(png_get_image_width(png, info)) != dest->width || int(png_get_image_height(png, info)) != dest->height)
    png_error(png, "size changed");
  const int colour_type = png_get_color_type(png, info);
  png_set_expand(png);  // palette to RGB, grey below 8 bits to 8, tRNS to alpha
  if (!(colour_type & PNG_COLOR_MASK_COLOR)) png_set_gray_to_rgb(png);
  if (png_get_bit_depth(png, info) == 16) {
    if (wide) {
      png_set_swap(png);  // host order
    } else {
      png_set_scale_16(png);
    }
  }
  png_set_add_alpha(png, 0xFFFF, PNG_FILLER_AFTER);
  png_set_interlace_handling(png);
  png_read_update_info(png, info);
  if (png_get_rowbytes(png, info) != stride) png_error(png, "unexpected row layout");
  png_read_image(png, rows);
  png_read_end(png, nullptr);
  png_destroy_read_struct(&png, &info, nullptr);
  return 1;
}

int PngRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  // 16-bit data keeps its precision unless the caller wants 8-bit pixels anyway.
  const bool wide = file->info.bits_per_channel == 16 && dest->kind != IMAGE_PIXELS_ARGB32;
  const size_t stride = size_t(dest->width) * (wide ? 8 : 4);
  std::vector<uint8_t> image(stride * size_t(dest->height), 0);
  std::vector<png_bytep> rows(size_t(dest->height));
  for (size_t y = 0; y < rows.size(); ++y) rows[y] = &image[y * stride];
  const int ok = DecodePng(file, dest, wide, stride, rows.data(), error);
  StoreRows(dest, image, stride, wide);  // on failure, the rows decoded so far
  return ok;
}

}  // namespace

const ImageCodec kPngCodec = {IMAGE_FORMAT_PNG, PngOpen, PngRead};

}  // namespace orn::imagefile
