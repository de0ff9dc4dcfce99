// BMP reader: core (OS/2) and Windows headers up to version 5; 1, 4, 8, 16, 24 and 32 bits;
// RLE4 and RLE8; bit-field masks with or without alpha; bottom-up and top-down rows.
#include "imagefile/imagefile_internal.h"

#include <algorithm>
#include <bit>

namespace orn::imagefile {

namespace {

enum : uint32_t { kBiRgb = 0, kBiRle8 = 1, kBiRle4 = 2, kBiBitfields = 3, kBiAlphaBitfields = 6 };

struct Channel {
  uint32_t mask = 0;
  int shift = 0;
  uint32_t max = 0;  // largest value after the shift

  void Set(uint32_t m) {
    mask = m;
    shift = m ? std::countr_zero(m) : 0;
    max = m >> shift;
  }
  uint32_t To8(uint32_t pixel, uint32_t absent) const {
    if (!mask) return absent;
    return uint32_t((uint64_t((pixel & mask) >> shift) * 255 + max / 2) / max);
  }
};

struct BmpState : ReaderState {
  uint32_t compression = 0;
  int bits = 0;
  bool top_down = false;
  size_t pixel_offset = 0;
  Channel red, green, blue, alpha;
  uint32_t palette[256];
};

BmpState* State(ImageFile* file) { return static_cast<BmpState*>(file->state); }

// Palette entries of 3 (core header) or 4 bytes, B, G, R order.
void ReadPalette(ImageFile* file, BmpState* st, size_t at, size_t entry_size, uint32_t count) {
  for (uint32_t& c : st->palette) c = 0xFF000000u;
  const std::vector<uint8_t>& d = file->data;
  uint32_t available = 0;
  for (uint32_t i = 0; i < count && i < 256; ++i) {
    const size_t p = at + i * entry_size;
    if (p + 3 > d.size()) break;
    st->palette[i] = 0xFF000000u | uint32_t(d[p + 2]) << 16 | uint32_t(d[p + 1]) << 8 | d[p];
    available = i + 1;
  }
  file->palette.assign(st->palette, st->palette + available);
}

int BmpOpen(ImageFile* file, ImageError* error) {
  const std::vector<uint8_t>& d = file->data;
  if (d.size() < 26) return Fail(error, IMAGE_ERROR_CORRUPT, "BMP header is truncated");
  auto* st = new BmpState;
  file->state = st;
  const uint32_t header_size = Le32(&d[14]);
  const size_t info_at = 14;
  int64_t width = 0, height = 0;
  uint32_t colours_used = 0;
  size_t entry_size = 4;
  if (header_size == 12) {
    width = Le16(&d[18]);
    height = int16_t(Le16(&d[20]));
    st->bits = Le16(&d[24]);
    entry_size = 3;
  } else if (header_size >= 16 && header_size <= 124) {
    if (d.size() < info_at + std::max<uint32_t>(header_size, 40u))
      return Fail(error, IMAGE_ERROR_CORRUPT, "BMP header is truncated");
    width = int32_t(Le32(&d[18]));
    height = int32_t(Le32(&d[22]));
    st->bits = Le16(&d[28]);
    st->compression = header_size >= 20 ? Le32(&d[30]) : 0;
    colours_used = header_size >= 36 ? Le32(&d[46]) : 0;
  } else {
    return Fail(error, IMAGE_ERROR_UNSUPPORTED, "BMP header of %u bytes", header_size);
  }
  if (height < 0) {
    st->top_down = true;
    height = -height;
  }
  if (width <= 0) return Fail(error, IMAGE_ERROR_CORRUPT, "BMP width %lld", (long long)width);
  if (!SizeAllowed(uint64_t(width), uint64_t(height), error)) return 0;

  const int bits = st->bits;
  const uint32_t comp = st->compression;
  const bool known_bits = bits == 1 || bits == 4 || bits == 8 || bits == 16 || bits == 24 || bits == 32;
  const bool ok = known_bits && (comp == kBiRgb || (comp == kBiRle8 && bits == 8) ||
                                 (comp == kBiRle4 && bits == 4) ||
                                 ((comp == kBiBitfields || comp == kBiAlphaBitfields) && (bits == 16 || bits == 32)));
  if (!ok) return Fail(error, IMAGE_ERROR_UNSUPPORTED, "BMP of %d bits with compression %u", bits, comp);
  if ((comp == kBiRle8 || comp == kBiRle4) && st->top_down)
    return Fail(error, IMAGE_ERROR_CORRUPT, "Top-down BMP cannot be run-length coded");

  size_t after_header = info_at + header_size;
  // Masks: in the header from version 2 on, else in 12 or 16 bytes behind a 40-byte header.
  if (comp == kBiBitfields || comp == kBiAlphaBitfields) {
    const size_t mask_at = info_at + 40;
    const size_t mask_count = header_size >= 56 || comp == kBiAlphaBitfields ? 4 : 3;
    if (d.size() < mask_at + mask_count * 4) return Fail(error, IMAGE_ERROR_CORRUPT, "BMP masks are truncated");
    st->red.Set(Le32(&d[mask_at]));
    st->green.Set(Le32(&d[mask_at + 4]));
    st->blue.Set(Le32(&d[mask_at + 8]));
    if (mask_count == 4) st->alpha.Set(Le32(&d[mask_at + 12]));
    if (header_size == 40) after_header += mask_count * 4;
  } else if (bits == 16) {
    st->red.Set(0x7C00);
    st->green.Set(0x03E0);
    st->blue.Set(0x001F);
  } else if (bits == 32) {
    st->red.Set(0x00FF0000);
    st->green.Set(0x0000FF00);
    st->blue.Set(0x000000FF);
  }
  st->pixel_offset = Le32(&d[10]);
  if (st->pixel_offset < after_header || st->pixel_offset >= d.size())
    return Fail(error, IMAGE_ERROR_CORRUPT, "BMP pixel data lies outside the file");
  if (bits <= 8) {  // the palette lies between the header and the pixels
    uint32_t count = colours_used && colours_used < (1u << bits) ? colours_used : (1u << bits);
    count = std::min<uint32_t>(count, uint32_t((st->pixel_offset - after_header) / entry_size));
    ReadPalette(file, st, after_header, entry_size, count);
  }

  ImageInfo& info = file->info;
  info.width = int(width);
  info.height = int(height);
  info.bits_per_pixel = bits;
  info.is_palette = bits <= 8;
  info.palette_size = int(file->palette.size());
  info.sub_format = int(comp);
  info.compression = int(comp);
  info.has_alpha = st->alpha.mask != 0;
  info.alpha_bits = st->alpha.mask ? std::popcount(st->alpha.mask) : 0;
  return 1;
}

// Pixel at column x of an uncompressed row.
uint32_t RowPixel(const BmpState* st, const uint8_t* row, int x) {
  switch (st->bits) {
    case 1: return st->palette[(row[x >> 3] >> (7 - (x & 7))) & 1];
    case 4: return st->palette[(row[x >> 1] >> ((x & 1) ? 0 : 4)) & 15];
    case 8: return st->palette[row[x]];
    case 24: return 0xFF000000u | uint32_t(row[3 * x + 2]) << 16 | uint32_t(row[3 * x + 1]) << 8 | row[3 * x];
    default: {
      const uint32_t v = st->bits == 16 ? Le16(row + 2 * x) : Le32(row + 4 * x);
      return st->alpha.To8(v, 255) << 24 | st->red.To8(v, 0) << 16 | st->green.To8(v, 0) << 8 |
             st->blue.To8(v, 0);
    }
  }
}

int ReadUncompressed(ImageFile* file, const ImagePixels* dest, ImageError* error) {
  const BmpState* st = State(file);
  const int w = file->info.width, h = file->info.height;
  const size_t stride = ((size_t(w) * size_t(st->bits) + 31) / 32) * 4;
  std::vector<uint32_t> row(static_cast<size_t>(w));
  const size_t available = file->data.size() - st->pixel_offset;
  const size_t whole_rows = available / stride;
  for (int i = 0; i < h; ++i) {
    const int y = st->top_down ? i : h - 1 - i;
    if (size_t(i) >= whole_rows) {
      // Rows the file does not hold stay black; the picture is returned as far as it goes.
      std::fill(row.begin(), row.end(), 0xFF000000u);
      for (int j = i; j < h; ++j) StoreRowArgb(dest, st->top_down ? j : h - 1 - j, row.data());
      return Fail(error, IMAGE_ERROR_CORRUPT, "BMP pixel data is truncated at row %d", i);
    }
    const uint8_t* src = file->data.data() + st->pixel_offset + size_t(i) * stride;
    for (int x = 0; x < w; ++x) row[size_t(x)] = RowPixel(st, src, x);
    StoreRowArgb(dest, y, row.data());
  }
  return 1;
}

// Decodes RLE4 or RLE8 into palette indices, rows bottom-up; pixels outside the picture are
// dropped. Returns false when the data ends before the end-of-bitmap mark.
bool DecodeRle(const uint8_t* p, size_t size, bool four_bit, int w, int h, std::vector<uint8_t>& idx) {
  size_t at = 0;
  int x = 0, y = 0;
  auto put = [&](uint8_t v) {
    if (x < w && y < h) idx[size_t(y) * size_t(w) + size_t(x)] = v;
    ++x;
  };
  while (y < h) {
    if (at + 2 > size) return false;
    const uint8_t count = p[at], value = p[at + 1];
    at += 2;
    if (count > 0) {
      for (int i = 0; i < count && x < w; ++i) put(four_bit ? ((i & 1) ? value & 15 : value >> 4) : value);
      continue;
    }
    if (value == 0) {  // end of line
      x = 0;
      ++y;
    } else if (value == 1) {  // end of bitmap
      return true;
    } else if (value == 2) {  // delta
      if (at + 2 > size) return false;
      x += p[at];
      y += p[at + 1];
      at += 2;
    } else {  // absolute run, padded to a 16-bit boundary
      const size_t bytes = four_bit ? (size_t(value) + 1) / 2 : value;
      if (at + bytes > size) return false;
      for (int i = 0; i < value; ++i) {
        const uint8_t b = p[at + (four_bit ? size_t(i) / 2 : size_t(i))];
        put(four_bit ? ((i & 1) ? b & 15 : b >> 4) : b);
      }
      at += (bytes + 1) & ~size_t(1);
    }
  }
  return true;
}

int ReadRle(ImageFile* file, const ImagePixels* dest, ImageError* error) {
  const BmpState* st = State(file);
  const int w = file->info.width, h = file->info.height;
  std::vector<uint8_t> idx(size_t(w) * size_t(h), 0);
  const bool complete = DecodeRle(file->data.data() + st->pixel_offset, file->data.size() - st->pixel_offset,
                                  st->compression == kBiRle4, w, h, idx);
  std::vector<uint32_t> row(static_cast<size_t>(w));
  for (int y = 0; y < h; ++y) {
    const uint8_t* src = &idx[size_t(h - 1 - y) * size_t(w)];
    for (int x = 0; x < w; ++x) row[size_t(x)] = st->palette[src[x]];
    StoreRowArgb(dest, y, row.data());
  }
  return complete ? 1 : Fail(error, IMAGE_ERROR_CORRUPT, "BMP run-length data is truncated");
}

int BmpRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  const uint32_t comp = State(file)->compression;
  return comp == kBiRle4 || comp == kBiRle8 ? ReadRle(file, dest, error) : ReadUncompressed(file, dest, error);
}

}  // namespace

const ImageCodec kBmpCodec = {IMAGE_FORMAT_BMP, BmpOpen, BmpRead};

}  // namespace orn::imagefile
