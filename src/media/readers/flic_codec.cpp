// Flic sub-chunk decoders. Counts in the data are trusted only as far as the chunk and the
// canvas reach: every loop consumes input or ends, and every write is clipped to the canvas.
#include "media/readers/flic_codec.h"

#include <algorithm>
#include <cstring>

namespace orn::media {

namespace {

// Bounded little-endian reads; past the end they give 0 and mark the cursor spent.
struct Cursor {
  const uint8_t* p;
  const uint8_t* end;
  bool spent = false;

  bool Has(size_t n) const { return size_t(end - p) >= n; }
  uint8_t U8() {
    if (p >= end) {
      spent = true;
      return 0;
    }
    return *p++;
  }
  int8_t S8() { return int8_t(U8()); }
  uint16_t U16() {
    if (!Has(2)) {
      p = end;
      spent = true;
      return 0;
    }
    const uint16_t v = uint16_t(p[0] | p[1] << 8);
    p += 2;
    return v;
  }
  // Copies up to n bytes into dest (if not null), only as many as the cursor holds.
  void Copy(uint8_t* dest, size_t n) {
    const size_t take = std::min(n, size_t(end - p));
    if (dest) std::memcpy(dest, p, take);
    p += take;
    if (take < n) spent = true;
  }
};

bool ApplyPalette(FlicCanvas* c, Cursor in, bool six_bit) {
  uint8_t before[768];
  std::memcpy(before, c->palette, sizeof before);
  uint32_t packets = in.U16();
  uint32_t index = 0;
  while (packets-- && !in.spent) {
    index += in.U8();
    uint32_t count = in.U8();
    if (count == 0) count = 256;
    for (uint32_t i = 0; i < count && in.Has(3); ++i, ++index) {
      uint8_t rgb[3] = {in.U8(), in.U8(), in.U8()};
      if (index >= 256) continue;
      for (int k = 0; k < 3; ++k) {
        const uint8_t v = six_bit ? uint8_t((rgb[k] & 63) << 2 | (rgb[k] & 63) >> 4) : rgb[k];
        c->palette[index * 3 + k] = v;
      }
    }
  }
  return std::memcmp(before, c->palette, sizeof before) != 0;
}

// BRUN: each line starts with an obsolete packet count; runs are read until the line is full.
// A positive count repeats the next byte, a negative one copies that many bytes.
void ApplyByteRun(FlicCanvas* c, Cursor in) {
  for (uint32_t y = 0; y < c->height && !in.spent; ++y) {
    uint8_t* row = c->pixels + size_t(y) * c->width;
    in.U8();
    uint32_t x = 0;
    while (x < c->width && !in.spent) {
      const int count = in.S8();
      if (count > 0) {
        const uint8_t v = in.U8();
        const uint32_t n = std::min<uint32_t>(uint32_t(count), c->width - x);
        std::memset(row + x, v, n);
        x += uint32_t(count);
      } else if (count < 0) {
        const uint32_t want = uint32_t(-count);
        const uint32_t n = std::min<uint32_t>(want, c->width - x);
        in.Copy(row + x, n);
        in.Copy(nullptr, want - n);
        x += want;
      }
    }
  }
}

// LC: skip lines, count of lines; per line packets of (column skip, count). A positive count
// copies bytes, a negative one repeats a byte.
void ApplyDeltaFli(FlicCanvas* c, Cursor in) {
  uint32_t y = in.U16();
  uint32_t lines = in.U16();
  for (; lines && y < c->height && !in.spent; --lines, ++y) {
    uint8_t* row = c->pixels + size_t(y) * c->width;
    uint32_t packets = in.U8();
    uint32_t x = 0;
    while (packets-- && !in.spent) {
      x += in.U8();
      const int count = in.S8();
      const uint32_t n = uint32_t(count < 0 ? -count : count);
      const uint32_t fit = x < c->width ? std::min(n, c->width - x) : 0;
      if (count > 0) {
        in.Copy(fit ? row + x : nullptr, fit);
        in.Copy(nullptr, n - fit);
      } else if (count < 0) {
        const uint8_t v = in.U8();
        if (fit) std::memset(row + x, v, fit);
      }
      x += n;
    }
  }
}

// SS2: a count of coded lines; each starts with words whose top bits say what they are:
// 11 skip lines, 10 the last pixel of the line, 00 the packet count. Packets hold a column skip
// and a count of pixel pairs: positive copies pairs, negative repeats one pair.
void ApplyDeltaFlc(FlicCanvas* c, Cursor in) {
  uint32_t lines = in.U16();
  uint32_t y = 0;
  while (lines && y < c->height && !in.spent) {
    const uint16_t word = in.U16();
    const uint32_t kind = word >> 14;
    if (kind == 3) {
      y += uint32_t(0x10000 - word);
      continue;
    }
    uint8_t* row = c->pixels + size_t(y) * c->width;
    if (kind == 2) {
      row[c->width - 1] = uint8_t(word);
      continue;
    }
    if (kind == 1) return;  // undefined: the rest of the chunk cannot be trusted
    uint32_t packets = word;
    uint32_t x = 0;
    while (packets-- && !in.spent) {
      x += in.U8();
      const int count = in.S8();
      const uint32_t n = 2 * uint32_t(count < 0 ? -count : count);
      const uint32_t fit = x < c->width ? std::min(n, c->width - x) : 0;
      if (count > 0) {
        in.Copy(fit ? row + x : nullptr, fit);
        in.Copy(nullptr, n - fit);
      } else if (count < 0) {
        const uint8_t pair[2] = {in.U8(), in.U8()};
        for (uint32_t i = 0; i < fit; ++i) row[x + i] = pair[i & 1];
      }
      x += n;
    }
    ++y;
    --lines;
  }
}

void ApplyCopy(FlicCanvas* c, Cursor in) {
  for (uint32_t y = 0; y < c->height && !in.spent; ++y) in.Copy(c->pixels + size_t(y) * c->width, c->width);
}

}  // namespace

bool FlicApplyChunk(FlicCanvas* canvas, int type, const uint8_t* data, size_t size) {
  const Cursor in{data, data + size};
  switch (type) {
    case FLIC_COLOR_256:
      return ApplyPalette(canvas, in, false);
    case FLIC_COLOR_64:
      return ApplyPalette(canvas, in, true);
    case FLIC_BLACK:
      std::memset(canvas->pixels, 0, size_t(canvas->width) * canvas->height);
      break;
    case FLIC_BYTE_RUN:
      ApplyByteRun(canvas, in);
      break;
    case FLIC_DELTA_FLI:
      ApplyDeltaFli(canvas, in);
      break;
    case FLIC_DELTA_FLC:
      ApplyDeltaFlc(canvas, in);
      break;
    case FLIC_COPY:
      ApplyCopy(canvas, in);
      break;
    default:  // postage stamps and kinds this reader does not show
      break;
  }
  return false;
}

bool FlicDecodeFrame(FlicCanvas* canvas, const uint8_t* chunk, size_t size) {
  if (size < 16) return false;
  const uint32_t stated = uint32_t(chunk[0] | chunk[1] << 8 | chunk[2] << 16) | uint32_t(chunk[3]) << 24;
  size = std::min<size_t>(size, stated);
  uint32_t count = uint32_t(chunk[6] | chunk[7] << 8);
  bool changed = false;
  size_t at = 16;
  while (count-- && at + 6 <= size) {
    const uint8_t* h = chunk + at;
    const uint32_t length = uint32_t(h[0] | h[1] << 8 | h[2] << 16) | uint32_t(h[3]) << 24;
    const int type = h[4] | h[5] << 8;
    if (length < 6) break;
    const size_t body = std::min<size_t>(length, size - at) - 6;
    if (FlicApplyChunk(canvas, type, h + 6, body)) changed = true;
    at += std::min<size_t>(length, size - at);
  }
  return changed;
}

}  // namespace orn::media
