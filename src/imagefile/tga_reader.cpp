// TGA reader: colour-mapped, true-colour and grey pictures, uncompressed or run-length coded,
// 8, 15, 16, 24 and 32 bits, with both origin bits honoured.
#include "imagefile/imagefile_internal.h"

namespace orn::imagefile {

namespace {

constexpr size_t kHeaderSize = 18;

struct TgaHeader {
  uint8_t id_length, map_type, image_type;
  uint16_t map_first, map_length;
  uint8_t map_entry_bits;
  uint16_t width, height;
  uint8_t depth, descriptor;
};

TgaHeader ParseHeader(const uint8_t* p) {
  return TgaHeader{p[0], p[1], p[2], Le16(p + 3), Le16(p + 5), p[7], Le16(p + 12), Le16(p + 14), p[16], p[17]};
}

bool EntryBitsValid(int bits) { return bits == 15 || bits == 16 || bits == 24 || bits == 32; }

int BaseType(const TgaHeader& h) { return h.image_type & 7; }  // 1 mapped, 2 true colour, 3 grey

bool HeaderValid(const TgaHeader& h) {
  if (h.map_type > 1 || h.width == 0 || h.height == 0) return false;
  const int base = BaseType(h);
  if ((h.image_type & ~8) < 1 || (h.image_type & ~8) > 3) return false;
  if (h.map_type == 1 && (!EntryBitsValid(h.map_entry_bits) || h.map_length == 0)) return false;
  switch (base) {
    case 1: return h.map_type == 1 && (h.depth == 8 || h.depth == 16);
    case 2: return EntryBitsValid(h.depth);
    default: return h.depth == 8 || h.depth == 16;
  }
}

size_t MapBytes(const TgaHeader& h) {
  return h.map_type == 1 ? size_t(h.map_length) * ((h.map_entry_bits + 7) / 8) : 0;
}

struct TgaState : ReaderState {
  TgaHeader header{};
  size_t data_at = 0;
  int alpha_bits = 0;
  std::vector<uint32_t> map;  // the colour map as ARGB, indexed from map_first
};

// A 15/16/24/32-bit colour in B, G, R(, A) little-endian order as ARGB.
uint32_t DecodeColour(const uint8_t* p, int bits, bool use_alpha) {
  if (bits == 15 || bits == 16) {
    const uint32_t v = Le16(p);
    const uint32_t r = (v >> 10) & 31, g = (v >> 5) & 31, b = v & 31;
    const uint32_t a = (use_alpha && bits == 16) ? ((v & 0x8000) ? 255 : 0) : 255;
    return a << 24 | ((r << 3) | (r >> 2)) << 16 | ((g << 3) | (g >> 2)) << 8 | ((b << 3) | (b >> 2));
  }
  const uint32_t a = (bits == 32 && use_alpha) ? p[3] : 255;
  return a << 24 | uint32_t(p[2]) << 16 | uint32_t(p[1]) << 8 | p[0];
}

int TgaOpen(ImageFile* file, ImageError* error) {
  const std::vector<uint8_t>& d = file->data;
  if (d.size() < kHeaderSize) return Fail(error, IMAGE_ERROR_CORRUPT, "TGA header is truncated");
  auto* st = new TgaState;
  file->state = st;
  const TgaHeader h = st->header = ParseHeader(d.data());
  if (!HeaderValid(h)) return Fail(error, IMAGE_ERROR_UNSUPPORTED, "TGA image type %d of %d bits", h.image_type, h.depth);
  if (!SizeAllowed(h.width, h.height, error)) return 0;
  const size_t map_at = kHeaderSize + h.id_length;
  st->data_at = map_at + MapBytes(h);
  if (st->data_at > d.size()) return Fail(error, IMAGE_ERROR_CORRUPT, "TGA colour map is truncated");
  st->alpha_bits = h.descriptor & 15;
  const bool use_alpha = st->alpha_bits > 0;
  if (h.map_type == 1) {
    const int entry_bytes = (h.map_entry_bits + 7) / 8;
    st->map.resize(h.map_length);
    for (size_t i = 0; i < h.map_length; ++i)
      st->map[i] = DecodeColour(&d[map_at + i * size_t(entry_bytes)], h.map_entry_bits, use_alpha);
  }
  ImageInfo& info = file->info;
  info.width = h.width;
  info.height = h.height;
  info.bits_per_pixel = h.depth;
  info.sub_format = h.image_type;
  info.compression = (h.image_type & 8) ? 1 : 0;
  info.alpha_bits = st->alpha_bits;
  info.is_gray = BaseType(h) == 3;
  info.is_palette = BaseType(h) == 1;
  const int colour_bits = BaseType(h) == 1 ? h.map_entry_bits : h.depth;
  info.has_alpha = (use_alpha && (colour_bits == 32 || colour_bits == 16)) || (info.is_gray && h.depth == 16);
  if (info.is_palette) {
    for (size_t i = 0; i < 256; ++i) {
      const size_t at = i >= h.map_first ? i - h.map_first : st->map.size();
      file->palette.push_back(at < st->map.size() ? st->map[at] : 0xFF000000u);
    }
    info.palette_size = 256;
  }
  return 1;
}

// Turns one stored pixel of `bytes` bytes into ARGB.
uint32_t StoredPixel(const TgaState* st, const uint8_t* p) {
  const TgaHeader& h = st->header;
  switch (BaseType(h)) {
    case 1: {
      const uint32_t index = h.depth == 8 ? p[0] : Le16(p);
      const uint32_t at = index - h.map_first;  // wraps below the first entry
      return at < st->map.size() ? st->map[at] : 0xFF000000u;
    }
    case 2:
      return DecodeColour(p, h.depth, st->alpha_bits > 0);
    default: {
      const uint32_t a = h.depth == 16 ? p[1] : 255;
      return a << 24 | uint32_t(p[0]) * 0x010101u;
    }
  }
}

// Decodes the pixel stream in stored order; returns the number of pixels obtained.
size_t DecodePixels(const TgaState* st, const uint8_t* p, size_t size, std::vector<uint32_t>& out) {
  const TgaHeader& h = st->header;
  const size_t bytes = (h.depth + 7) / 8;
  const size_t total = out.size();
  size_t n = 0, at = 0;
  if (!(h.image_type & 8)) {
    for (; n < total && at + bytes <= size; ++n, at += bytes) out[n] = StoredPixel(st, p + at);
    return n;
  }
  while (n < total && at < size) {
    const uint8_t packet = p[at++];
    const size_t count = std::min<size_t>((packet & 127) + 1, total - n);
    if (packet & 128) {
      if (at + bytes > size) break;
      const uint32_t v = StoredPixel(st, p + at);
      at += bytes;
      for (size_t i = 0; i < count; ++i) out[n++] = v;
    } else {
      for (size_t i = 0; i < count && at + bytes <= size; ++i, at += bytes) out[n++] = StoredPixel(st, p + at);
      if (at + bytes > size && n < total) break;
    }
  }
  return n;
}

int TgaRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  const TgaState* st = static_cast<const TgaState*>(file->state);
  const int w = file->info.width, h = file->info.height;
  std::vector<uint32_t> pixels(size_t(w) * size_t(h), 0xFF000000u);
  const size_t got = DecodePixels(st, file->data.data() + st->data_at, file->data.size() - st->data_at, pixels);
  const bool top_down = st->header.descriptor & 0x20;
  const bool right_to_left = st->header.descriptor & 0x10;
  std::vector<uint32_t> row(static_cast<size_t>(w));
  for (int i = 0; i < h; ++i) {
    const uint32_t* src = &pixels[size_t(i) * size_t(w)];
    if (right_to_left) {
      for (int x = 0; x < w; ++x) row[size_t(x)] = src[w - 1 - x];
      src = row.data();
    }
    StoreRowArgb(dest, top_down ? i : h - 1 - i, src);
  }
  return got == pixels.size() ? 1 : Fail(error, IMAGE_ERROR_CORRUPT, "TGA pixel data is truncated");
}

}  // namespace

bool LooksLikeTga(const uint8_t* data, size_t size, bool strict) {
  if (size < kHeaderSize) return false;
  const TgaHeader h = ParseHeader(data);
  if (!HeaderValid(h)) return false;
  if (!strict) return true;
  static const char kFooter[] = "TRUEVISION-XFILE.";
  if (size >= 26 && std::memcmp(data + size - 18, kFooter, 18) == 0) return true;
  if ((h.descriptor & 0xC0) || (h.descriptor & 15) > 8) return false;
  const size_t data_at = kHeaderSize + h.id_length + MapBytes(h);
  const size_t pixel_bytes = size_t(h.width) * h.height * ((h.depth + 7) / 8);
  return (h.image_type & 8) ? size > data_at : size >= data_at + pixel_bytes;
}

const ImageCodec kTgaCodec = {IMAGE_FORMAT_TGA, TgaOpen, TgaRead};

}  // namespace orn::imagefile
