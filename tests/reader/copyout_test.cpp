// Pixel copy-out: the conversion state, the plain C++ kernels against an independent float
// model, the rectangle rules and the bounds of the planes and the destination. (The vector
// kernels are compared with the plain ones in tests/kernels.)
#include "reader/copyout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <random>
#include <vector>

#include "copyout_frames.h"
#include "format/frame_buffers.h"
#include "kernel_levels.h"

using namespace copyouttest;

namespace {


struct Rgba {
  int R, G, B, A;
};

// Channels of a stored pixel, each with its own width.
Rgba Decode(uint32_t format, uint32_t px) {
  switch (format) {
    case 3: case 5: case 12:
      return {int(px >> 16 & 255), int(px >> 8 & 255), int(px & 255), int(px >> 24)};
    case 4: case 6:
      return {int(px & 255), int(px >> 8 & 255), int(px >> 16 & 255), int(px >> 24)};
    case 8: case 9:
      return {int(px >> 10 & 31), int(px >> 5 & 31), int(px & 31), int(px >> 15 & 1)};
    case 10:
      return {int(px >> 11 & 31), int(px >> 5 & 63), int(px & 31), -1};
  }
  return {-1, -1, -1, -1};
}

int MaxOf(int bits) { return (1 << bits) - 1; }
int GreenBits(uint32_t format) { return format == 10 ? 6 : format >= 8 && format <= 9 ? 5 : 8; }
int RedBits(uint32_t format) { return format >= 8 && format <= 10 ? 5 : 8; }

// The conversion in floating point: the colour table applied to values in 0..1.
void FloatModel(const float t[16], double y, double cr, double cb, double out[3]) {
  for (int c = 0; c < 3; ++c) {
    const double v = y / 255 * t[12 + c] + cr / 255 * t[0 + c] + cb / 255 * t[4 + c] + t[8 + c];
    out[c] = std::clamp(v, 0.0, 1.0);
  }
}

const VelmoCopyKernels Plain = kerneltest::TableAt(VelmoCopyKernelsInit, ProcessorLevelPlain);

int Copy(const VelmoCopyKernels& kernels, const VelmoCopySource& src, Surface& s, int32_t destX,
         int32_t destY, int32_t srcX, int32_t srcY, int32_t w, int32_t h, uint32_t flags) {
  return VelmoCopyPlanesRectWith(&kernels, &src, s.Base(), s.Pitch, s.Lines, destX, destY, srcX,
                                 srcY, w, h, flags);
}

// ---------------------------------------------------------------------------------------------

TEST(CopyOutState, FixedPointWeightsOffsetsAndDither) {
  VelmoConversionState s;
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 3, 0, &Plain, &s));
  EXPECT_EQ(s.YWeight, 4768);   // 1.164124 × 4096 = 4768.25
  EXPECT_EQ(s.CrToR, 6536);     // 6536.38
  EXPECT_EQ(s.CrToG, -3332);    // −3331.99
  EXPECT_EQ(s.CbToG, -1603);    // −1603.38
  EXPECT_EQ(s.CbToB, 8265);     // 8264.998
  EXPECT_EQ(s.PixelBytes, 4u);
  EXPECT_EQ(s.ShiftR, 3);
  EXPECT_EQ(s.CopyFlags, 0u);
  // Red offset −0.874069 × 2048 = −1790.09; 8-bit steps O, O+4, O+6, O+2.
  EXPECT_EQ(s.OffsetR[0][0], -1790);
  EXPECT_EQ(s.OffsetR[0][1], -1786);
  EXPECT_EQ(s.OffsetR[1][0], -1784);
  EXPECT_EQ(s.OffsetR[1][1], -1788);
  EXPECT_EQ(s.OffsetR[0][6], -1790);
  EXPECT_EQ(s.OffsetB[0][0], -2224);  // −2223.95

  // 5-6-5: five-bit channels step by 16, the six-bit green by 8.
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 10, 0, &Plain, &s));
  EXPECT_EQ(s.PixelBytes, 2u);
  EXPECT_EQ(s.ShiftR, 6);
  EXPECT_EQ(s.ShiftG, 5);
  EXPECT_EQ(s.ShiftA, 11);  // no alpha bits
  EXPECT_EQ(s.OffsetR[0][1] - s.OffsetR[0][0], 32);
  EXPECT_EQ(s.OffsetR[1][0] - s.OffsetR[0][0], 48);
  EXPECT_EQ(s.OffsetR[1][1] - s.OffsetR[0][0], 16);
  EXPECT_EQ(s.OffsetG[0][1] - s.OffsetG[0][0], 16);
  EXPECT_EQ(s.OffsetG[1][0] - s.OffsetG[0][0], 24);
  EXPECT_EQ(s.OffsetG[1][1] - s.OffsetG[0][0], 8);

  for (uint32_t bad : {0u, 1u, 2u, 7u, 11u, 13u, 14u, 15u})
    EXPECT_FALSE(VelmoBuildConversionState(VideoTable, bad, 0, &Plain, &s)) << bad;
}

TEST(CopyOutState, ChannelOrderAndGrayscale) {
  VelmoConversionState s;
  // Red at bit 0: red and blue roles change places and the chroma planes are exchanged.
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 4, 0, &Plain, &s));
  EXPECT_EQ(s.CrToR, 8265);
  EXPECT_EQ(s.CbToB, 6536);
  EXPECT_EQ(s.CrToG, -1603);
  EXPECT_EQ(s.CbToG, -3332);
  EXPECT_EQ(s.OffsetR[0][0], -2224);
  EXPECT_EQ(s.CopyFlags, uint32_t(VelmoCopySwapChroma));
  // Asking for the reversed order of a reversed format undoes it.
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 4, VelmoCopyReverseOrder, &Plain, &s));
  EXPECT_EQ(s.CrToR, 6536);
  EXPECT_EQ(s.CopyFlags & VelmoCopySwapChroma, 0u);

  // (Tables with Cr and Cb the other way round, and other shapes, are checked on the pixels.)
  // Grayscale folds neutral chroma into the offsets.
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 3, VelmoCopyGray, &Plain, &s));
  EXPECT_EQ(s.CrToR | s.CrToG | s.CbToG | s.CbToB, 0);
  EXPECT_EQ(s.OffsetR[0][0], int(std::lround((-0.874069 + 1.595795 * 0.5019608) * 2048)));
  EXPECT_EQ(s.OffsetG[0][0],
            int(std::lround((0.531782 + (-0.813477 - 0.391449) * 0.5019608) * 2048)));
}

// ---------------------------------------------------------------------------------------------
// Against the float model.

struct KnownColour {
  const char* Name;
  const float* Table;
  uint8_t Y, Cr, Cb;
  int R, G, B;  // expected 8-bit result, or −1 to check against the model only
};

TEST(CopyOutModel, KnownColoursInEveryFormat) {
  const KnownColour colours[] = {
      {"video black", VideoTable, 16, 128, 128, 0, 0, 0},
      {"video white", VideoTable, 235, 128, 128, 255, 255, 255},
      {"full black", FullTable, 0, 128, 128, 0, 0, 0},
      {"full white", FullTable, 255, 128, 128, 255, 255, 255},
      {"video red", VideoTable, 81, 240, 90, -1, -1, -1},
      {"full red", FullTable, 76, 255, 85, -1, -1, -1},
  };
  for (const KnownColour& c : colours) {
    Frame frame(37, 9, false);
    frame.Fill(c.Y, c.Cr, c.Cb);
    const VelmoCopySource src = frame.Source(c.Table);
    double model[3];
    FloatModel(c.Table, c.Y, c.Cr, c.Cb, model);
    if (c.R >= 0) {
      EXPECT_NEAR(model[0] * 255, c.R, 0.6) << c.Name;
      EXPECT_NEAR(model[2] * 255, c.B, 0.6) << c.Name;
    }
    for (uint32_t format : ValidFormats) {
      const int bytes = BytesOf(format);
      Surface out(37 * bytes, 9);
      Copy(Plain, src, out, 0, 0, 0, 0, 37, 9, format);
      const int bits[3] = {RedBits(format), GreenBits(format), RedBits(format)};
      for (int y = 0; y < 9; ++y) {
        for (int x = 0; x < 37; ++x) {
          const Rgba px = Decode(format, out.Pixel(x, y, bytes));
          const int got[3] = {px.R, px.G, px.B};
          for (int ch = 0; ch < 3; ++ch) {
            const int max = MaxOf(bits[ch]);
            const int want = int(std::lround(model[ch] * max));
            if (c.R >= 0) {
              // Full black and white hold whatever the dither value.
              ASSERT_EQ(got[ch], (c.R ? max : 0))
                  << c.Name << " format " << format << " at " << x << "," << y;
            } else if ((x | y) % 2 == 0) {
              // Dither 0 at even columns of even lines: within one step of the model.
              ASSERT_NEAR(got[ch], want, 1) << c.Name << " format " << format;
            } else {
              ASSERT_GE(got[ch], want - 1) << c.Name << " format " << format;
              ASSERT_LE(got[ch], want + 2) << c.Name << " format " << format;
            }
          }
          if (format == 10) continue;
          EXPECT_EQ(px.A, BytesOf(format) == 2 ? 1 : 255);  // no alpha plane: opaque
        }
      }
    }
  }
}

TEST(CopyOutModel, RandomColoursWithinOneStepBeforeDither) {
  std::mt19937 rng(777);
  for (int iter = 0; iter < 400; ++iter) {
    const float* table = iter % 2 ? VideoTable : FullTable;
    const uint8_t y = uint8_t(rng()), cr = uint8_t(rng()), cb = uint8_t(rng());
    Frame frame(18, 2, false);
    frame.Fill(y, cr, cb);
    double model[3];
    FloatModel(table, y, cr, cb, model);
    for (uint32_t format : ValidFormats) {
      const int bytes = BytesOf(format);
      Surface out(18 * bytes, 2);
      Copy(Plain, frame.Source(table), out, 0, 0, 0, 0, 18, 2, format);
      const Rgba px = Decode(format, out.Pixel(4, 0, bytes));
      EXPECT_NEAR(px.R, model[0] * MaxOf(RedBits(format)), 1.5) << int(y) << "," << int(cr) << "," << int(cb);
      EXPECT_NEAR(px.G, model[1] * MaxOf(GreenBits(format)), 1.5) << format;
      EXPECT_NEAR(px.B, model[2] * MaxOf(RedBits(format)), 1.5) << format;
    }
  }
}

// 9:3:3:1 upsampling, with the frame's edges repeating their last chroma sample, checked with
// a table that shows Cr as red and Cb as blue.
TEST(CopyOutModel, ChromaUpsamplingWeightsAndEdges) {
  const float identity[16] = {1, 0, 0, 0, 0, 0, 1, 0, 0, 0, 0, 1, 0, 0, 0, 0};
  std::mt19937 rng(99);
  for (auto [w, h] : {std::pair{33u, 7u}, {32u, 8u}, {1u, 1u}, {2u, 3u}, {47u, 5u}}) {
    Frame frame(w, h, false);
    frame.Randomize(rng);
    Surface out(int32_t(w) * 4, int32_t(h));
    Copy(Plain, frame.Source(identity), out, 0, 0, 0, 0, int32_t(w), int32_t(h), 3);
    const uint32_t cw = (w + 1) / 2;
    for (uint32_t y = 0; y < h; ++y) {
      uint32_t far = y / 2;
      if (y + 1 < h) far = (y & 1) ? y / 2 + 1 : (y >= 2 ? y / 2 - 1 : y / 2);
      for (uint32_t x = 0; x < w; ++x) {
        const uint32_t nc = x / 2;
        const uint32_t fc = (x & 1) ? std::min(nc + 1, cw - 1) : (nc > 0 ? nc - 1 : 0);
        auto up = [&](std::vector<uint8_t>& p) {
          return (9.0 * frame.ChromaAt(p, nc, y / 2) + 3.0 * frame.ChromaAt(p, fc, y / 2) +
                  3.0 * frame.ChromaAt(p, nc, far) + frame.ChromaAt(p, fc, far)) / 16;
        };
        // Within one step of the rounded model where the dither is 0, else up to the dither.
        const Rgba px = Decode(3, out.Pixel(int32_t(x), int32_t(y), 4));
        const int lo = -1, hi = (x | y) % 2 == 0 ? 1 : 2;
        const long r = std::lround(up(frame.Cr)), b = std::lround(up(frame.Cb));
        ASSERT_TRUE(px.R - r >= lo && px.R - r <= hi)
            << w << "x" << h << " at " << x << "," << y << ": " << px.R << " for " << up(frame.Cr);
        ASSERT_TRUE(px.B - b >= lo && px.B - b <= hi)
            << w << "x" << h << " at " << x << "," << y << ": " << px.B << " for " << up(frame.Cb);
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// The rectangle.

// Any part of the frame gives the pixels of a full copy, odd left edges and short widths
// included, and nothing outside the rectangle is written.
TEST(CopyOutRect, PartsMatchTheFullCopyAndStayInside) {
  std::mt19937 rng(4242);
  for (int iter = 0; iter < 120; ++iter) {
    const uint32_t w = 1 + rng() % 90, h = 1 + rng() % 12;
    Frame frame(w, h, rng() % 2);
    frame.Randomize(rng);
    const VelmoCopySource src = frame.Source(iter % 2 ? VideoTable : FullTable);
    const uint32_t format = ValidFormats[rng() % 8] | (rng() % 2 ? 0x800 : 0);
    const int bytes = BytesOf(format & 15);
    const int32_t sign = rng() % 2 ? 1 : -1;
    Surface full(sign * int32_t(w) * bytes, int32_t(h));
    Copy(Plain, src, full, 0, 0, 0, 0, int32_t(w), int32_t(h), format);

    const int32_t sx = rng() % w, sy = rng() % h;
    const int32_t rw = 1 + rng() % (w - sx), rh = 1 + rng() % (h - sy);
    const int32_t dx = rng() % 3, dy = rng() % 3;
    const int32_t pitch = sign * (int32_t(w) + 4) * bytes;
    Surface part(pitch, int32_t(h) + 3);
    Copy(Plain, src, part, dx, dy, sx, sy, rw, rh, format);
    for (int32_t y = 0; y < part.Lines; ++y) {
      for (int32_t x = 0; x < std::abs(pitch) / bytes; ++x) {
        const bool inside = x >= dx && x < dx + rw && y >= dy && y < dy + rh;
        if (inside) {
          ASSERT_EQ(part.Pixel(x, y, bytes), full.Pixel(x - dx + sx, y - dy + sy, bytes))
              << "rect " << sx << "," << sy << " " << rw << "x" << rh;
        } else {
          const uint32_t guard = bytes == 4 ? 0xA5A5A5A5u : 0xA5A5u;
          ASSERT_EQ(part.Pixel(x, y, bytes), guard) << "written outside at " << x << "," << y;
        }
      }
    }
    for (size_t i = 0; i < Guard; ++i) {
      ASSERT_EQ(part.Mem[i], GuardByte);
      ASSERT_EQ(part.Mem[part.Mem.size() - 1 - i], GuardByte);
    }
  }
}

// Planes exactly as large as the picture, each in its own allocation: no kernel reads past
// the end of a plane at any kernel level (the sanitizer build turns such a read into a failure).
TEST(CopyOutRect, TightPlanesAreNotReadPastTheirEnd) {
  std::mt19937 rng(61);
  kerneltest::ForEachLevel(VelmoCopyKernelsInit, [&](const VelmoCopyKernels& kernels) {
    for (auto [w, h] : {std::pair{1u, 1u}, {16u, 2u}, {17u, 3u}, {32u, 4u}, {33u, 5u}, {64u, 1u}}) {
      Frame frame(w, h, true, true);
      frame.Randomize(rng);
      const VelmoCopySource src = frame.Source();
      for (uint32_t format : ValidFormats) {
        for (uint32_t extra : {0u, 0x800u, 0x20000u}) {
          Surface out(int32_t(w) * 4, int32_t(h));
          Copy(kernels, src, out, 0, 0, 0, 0, int32_t(w), int32_t(h), format | extra);
          const int32_t sx = int32_t(rng() % w);
          Copy(kernels, src, out, 0, 0, sx, int32_t(rng() % h), int32_t(w) - sx, 1, format | extra);
          ASSERT_EQ(out.Mem.back(), GuardByte);
        }
      }
    }
  });
}

TEST(CopyOutRect, LimitsToFrameAndDestination) {
  Frame frame(20, 10, false);
  std::mt19937 rng(5);
  frame.Randomize(rng);
  const VelmoCopySource src = frame.Source();
  Surface full(20 * 4, 10);
  VelmoCopyPlanesRect(&src, full.Base(), full.Pitch, 10, 0, 0, 0, 0, 20, 10, 3);

  // A rectangle past the frame's right and bottom edges is cut at them.
  Surface cut(20 * 4, 10);
  VelmoCopyPlanesRect(&src, cut.Base(), cut.Pitch, 10, 0, 0, 15, 7, 100, 100, 3);
  for (int32_t y = 0; y < 10; ++y)
    for (int32_t x = 0; x < 20; ++x)
      EXPECT_EQ(cut.Pixel(x, y, 4), x < 5 && y < 3 ? full.Pixel(x + 15, y + 7, 4) : 0xA5A5A5A5u);

  // The destination's height and line length limit the copy too.
  Surface small(8 * 4, 4);
  VelmoCopyPlanesRect(&src, small.Base(), small.Pitch, 4, 3, 1, 0, 0, 20, 10, 3);
  for (int32_t y = 0; y < 4; ++y)
    for (int32_t x = 0; x < 8; ++x)
      EXPECT_EQ(small.Pixel(x, y, 4), x >= 3 && y >= 1 ? full.Pixel(x - 3, y - 1, 4) : 0xA5A5A5A5u);
  EXPECT_EQ(small.Mem[small.Mem.size() - Guard], GuardByte);

  // Nothing for empty rectangles, a left edge past the frame or a negative destination.
  Surface none(20 * 4, 10);
  const std::vector<uint8_t> untouched = none.Mem;
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, 0, 0, 20, 0, 5, 5, 3);
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, 0, 0, 0, 0, 0, 5, 3);
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, 0, 0, 0, 0, 5, -1, 3);
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, -1, 0, 0, 0, 5, 5, 3);
  EXPECT_EQ(none.Mem, untouched);
}

TEST(CopyOutRect, NegativePitchStoresBottomUp) {
  Frame frame(29, 7, true);
  std::mt19937 rng(8);
  frame.Randomize(rng);
  const VelmoCopySource src = frame.Source();
  for (uint32_t format : ValidFormats) {
    const int bytes = BytesOf(format);
    Surface down(29 * bytes, 7), up(-29 * bytes, 7);
    VelmoCopyPlanes(&src, down.Base(), down.Pitch, 7, 0, 0, format);
    VelmoCopyPlanes(&src, up.Base(), up.Pitch, 7, 0, 0, format);
    // The first picture line is the last line in memory.
    EXPECT_EQ(0, std::memcmp(up.Base() + 6 * 29 * bytes, down.Base(), 29 * bytes));
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 0; x < 29; ++x)
        ASSERT_EQ(up.Pixel(x, y, bytes), down.Pixel(x, y, bytes)) << format;
  }
}

// ---------------------------------------------------------------------------------------------
// Formats and flags.

TEST(CopyOutFlags, BadFormatsHdrAndMissingPlanesCopyNothing) {
  Frame frame(16, 4, false);
  VelmoCopySource src = frame.Source();
  Surface s(16 * 4, 4);
  const std::vector<uint8_t> untouched = s.Mem;
  for (uint32_t bad : {0u, 1u, 2u, 7u, 11u, 13u, 14u, 15u})
    EXPECT_EQ(VelmoCopyPlanes(&src, s.Base(), s.Pitch, 4, 0, 0, bad), 0);
  src.IsHdr = 1;
  EXPECT_EQ(VelmoCopyPlanes(&src, s.Base(), s.Pitch, 4, 0, 0, 3), 0);
  src.IsHdr = 0;
  src.Y = nullptr;
  EXPECT_EQ(VelmoCopyPlanes(&src, s.Base(), s.Pitch, 4, 0, 0, 3), 0);
  EXPECT_EQ(s.Mem, untouched);
  src = frame.Source();
  EXPECT_EQ(VelmoCopyPlanes(&src, nullptr, s.Pitch, 4, 0, 0, 3), 0);
  EXPECT_EQ(VelmoCopyPlanes(nullptr, s.Base(), s.Pitch, 4, 0, 0, 3), 0);
}

TEST(CopyOutFlags, FormatPairsAndChannelOrder) {
  Frame frame(40, 6, true);
  std::mt19937 rng(31);
  frame.Randomize(rng);
  const VelmoCopySource src = frame.Source();
  auto copy = [&](uint32_t format) {
    Surface s(40 * BytesOf(format), 6);
    VelmoCopyPlanes(&src, s.Base(), s.Pitch, 6, 0, 0, format);
    return s;
  };
  const Surface f3 = copy(3), f4 = copy(4);
  EXPECT_EQ(copy(5).Mem, f3.Mem);
  EXPECT_EQ(copy(12).Mem, f3.Mem);
  EXPECT_EQ(copy(6).Mem, f4.Mem);
  EXPECT_EQ(copy(9).Mem, copy(8).Mem);
  for (int32_t y = 0; y < 6; ++y) {
    for (int32_t x = 0; x < 40; ++x) {
      const Rgba a = Decode(3, f3.Pixel(x, y, 4)), b = Decode(4, f4.Pixel(x, y, 4));
      ASSERT_EQ(a.R, b.R);
      ASSERT_EQ(a.G, b.G);
      ASSERT_EQ(a.B, b.B);
      ASSERT_EQ(a.A, b.A);
    }
  }
}

TEST(CopyOutFlags, AlphaPlaneOpaqueFillAndFlip) {
  Frame frame(35, 5, true);
  std::mt19937 rng(17);
  frame.Randomize(rng);
  VelmoCopySource src = frame.Source();
  for (uint32_t format : {3u, 9u, 10u}) {
    const int bytes = BytesOf(format);
    Surface s(35 * bytes, 5);
    VelmoCopyPlanes(&src, s.Base(), s.Pitch, 5, 0, 0, format);
    for (int32_t y = 0; y < 5; ++y) {
      for (int32_t x = 0; x < 35; ++x) {
        const Rgba px = Decode(format, s.Pixel(x, y, bytes));
        const uint8_t a = frame.A[size_t(y) * frame.LumaPitch + x];
        if (format == 3) {
          ASSERT_EQ(px.A, a);
        } else if (format == 9) {
          ASSERT_EQ(px.A, a >> 7);
        }
      }
    }
    if (format == 10) {
      // No alpha bits: the same as a frame without an alpha plane.
      VelmoCopySource plain = src;
      plain.Alpha = nullptr;
      Surface t(35 * bytes, 5);
      VelmoCopyPlanes(&plain, t.Base(), t.Pitch, 5, 0, 0, format);
      EXPECT_EQ(t.Mem, s.Mem);
    }
  }

  // The flip, from the flags or the open flags, equals a frame with the planes exchanged.
  Frame swapped = frame;
  std::swap(swapped.Y, swapped.A);
  const VelmoCopySource swappedSrc = swapped.Source();
  Surface want(35 * 4, 5), byFlag(35 * 4, 5), byOpen(35 * 4, 5);
  VelmoCopyPlanes(&swappedSrc, want.Base(), want.Pitch, 5, 0, 0, 5);
  VelmoCopyPlanes(&src, byFlag.Base(), byFlag.Pitch, 5, 0, 0, 5 | VelmoCopyFlipAlpha);
  src.OpenFlags = VelmoCopyFlipAlpha;
  VelmoCopyPlanes(&src, byOpen.Base(), byOpen.Pitch, 5, 0, 0, 5);
  EXPECT_EQ(byFlag.Mem, want.Mem);
  EXPECT_EQ(byOpen.Mem, want.Mem);

  // Without an alpha plane the flip is ignored.
  src = frame.Source();
  src.Alpha = nullptr;
  Surface plain(35 * 4, 5), flipped(35 * 4, 5);
  VelmoCopyPlanes(&src, plain.Base(), plain.Pitch, 5, 0, 0, 5);
  VelmoCopyPlanes(&src, flipped.Base(), flipped.Pitch, 5, 0, 0, 5 | VelmoCopyFlipAlpha);
  EXPECT_EQ(plain.Mem, flipped.Mem);
}

TEST(CopyOutFlags, GrayscaleAndTableShapes) {
  Frame frame(26, 6, false);
  std::mt19937 rng(23);
  frame.Randomize(rng);
  // Grayscale at full range: every channel is Y, chroma is never read.
  VelmoCopySource src = frame.Source(FullTable);
  src.Cr = src.Cb = nullptr;
  Surface gray(26 * 4, 6);
  VelmoCopyPlanes(&src, gray.Base(), gray.Pitch, 6, 0, 0, 3 | VelmoCopyGrayscale);
  for (int32_t y = 0; y < 6; y += 2) {
    for (int32_t x = 0; x < 26; x += 2) {
      const Rgba px = Decode(3, gray.Pixel(x, y, 4));
      const int yv = frame.Y[size_t(y) * frame.LumaPitch + x];
      ASSERT_NEAR(px.R, yv, 1);
      ASSERT_EQ(px.R, px.G);
      ASSERT_EQ(px.R, px.B);
    }
  }
  src = frame.Source(FullTable);
  src.OpenFlags = VelmoCopyGrayscale;
  Surface grayByOpen(26 * 4, 6);
  VelmoCopyPlanes(&src, grayByOpen.Base(), grayByOpen.Pitch, 6, 0, 0, 3);
  EXPECT_EQ(grayByOpen.Mem, gray.Mem);

  // A table with Cr and Cb the other way round, over exchanged planes, gives the same picture.
  Frame exchanged = frame;
  std::swap(exchanged.Cr, exchanged.Cb);
  const Table swappedTable = SwappedChroma(VideoTable);
  const VelmoCopySource normal = frame.Source(VideoTable), other = exchanged.Source(swappedTable.V);
  Surface a(26 * 4, 6), b(26 * 4, 6);
  VelmoCopyPlanes(&normal, a.Base(), a.Pitch, 6, 0, 0, 3);
  VelmoCopyPlanes(&other, b.Base(), b.Pitch, 6, 0, 0, 3);
  EXPECT_EQ(a.Mem, b.Mem);

  // Any other shape shows plain Y: the chroma planes make no difference.
  float oddTable[16];
  std::memcpy(oddTable, FullTable, sizeof oddTable);
  oddTable[12] = 0.5f;
  const VelmoCopySource oddA = frame.Source(oddTable), oddB = exchanged.Source(oddTable);
  Surface c(26 * 4, 6), d(26 * 4, 6);
  VelmoCopyPlanes(&oddA, c.Base(), c.Pitch, 6, 0, 0, 3);
  VelmoCopyPlanes(&oddB, d.Base(), d.Pitch, 6, 0, 0, 3);
  EXPECT_EQ(c.Mem, d.Mem);
  for (int32_t y = 0; y < 6; y += 2)  // where the dither is 0: half of Y, nothing else
    for (int32_t x = 0; x < 26; x += 2)
      ASSERT_NEAR(Decode(3, c.Pixel(x, y, 4)).R, frame.Y[size_t(y) * frame.LumaPitch + x] / 2.0, 1.0);
}

// ---------------------------------------------------------------------------------------------
// Bookkeeping hooks.

struct HookLog {
  int Begins = 0, Ends = 0, Checks = 0, Answer = 0;
  uint32_t Flags = 0;
};

TEST(CopyOutHooks, SkipCheckDecidesAndNeverSkipPassesThrough) {
  Frame frame(16, 4, false);
  HookLog log;
  VelmoCopyHooks hooks{&log, [](void* c) { ++static_cast<HookLog*>(c)->Begins; },
                       [](void* c, uint32_t flags) {
                         auto* l = static_cast<HookLog*>(c);
                         ++l->Checks;
                         l->Flags = flags;
                         return l->Answer;
                       },
                       [](void* c) { ++static_cast<HookLog*>(c)->Ends; }};
  VelmoCopySource src = frame.Source();
  src.Hooks = &hooks;

  Surface s(64, 4);
  const std::vector<uint8_t> untouched = s.Mem;
  log.Answer = 2;  // skip
  EXPECT_EQ(VelmoCopyPlanes(&src, s.Base(), s.Pitch, 4, 0, 0, 3), 1);
  EXPECT_EQ(s.Mem, untouched);
  log.Answer = 1;  // report only
  EXPECT_EQ(VelmoCopyPlanes(&src, s.Base(), s.Pitch, 4, 0, 0, 3 | VelmoCopyNeverSkip), 1);
  EXPECT_NE(s.Mem, untouched);
  EXPECT_EQ(log.Flags, 3u | VelmoCopyNeverSkip);
  log.Answer = 0;
  EXPECT_EQ(VelmoCopyPlanes(&src, s.Base(), s.Pitch, 4, 0, 0, 3), 0);
  EXPECT_EQ(log.Begins, 3);
  EXPECT_EQ(log.Ends, 3);
  EXPECT_EQ(log.Checks, 3);
  // An empty rectangle does not count as a copy.
  EXPECT_EQ(VelmoCopyPlanesRect(&src, s.Base(), s.Pitch, 4, 0, 0, 0, 0, 0, 0, 3), 0);
  EXPECT_EQ(log.Begins, 3);
}

TEST(CopyOutSource, FromTheCurrentFrameBufferSet) {
  Frame frame(24, 6, true);
  std::mt19937 rng(3);
  frame.Randomize(rng);
  std::vector<uint8_t> other(frame.Y.size(), 0);
  VelmoFrameBuffers buffers{};
  buffers.Count = 2;
  buffers.Current = 1;
  buffers.Width = 24;
  buffers.Height = 6;
  buffers.LumaPitch = frame.LumaPitch;
  buffers.ChromaPitch = frame.ChromaPitch;
  buffers.HasAlpha = 1;
  for (uint32_t i = 0; i < VelmoPlaneCount; ++i) buffers.Sets[0].Planes[i] = other.data();
  buffers.Sets[1].Planes[VelmoPlaneY] = frame.Y.data();
  buffers.Sets[1].Planes[VelmoPlaneCr] = frame.Cr.data();
  buffers.Sets[1].Planes[VelmoPlaneCb] = frame.Cb.data();
  buffers.Sets[1].Planes[VelmoPlaneAlpha] = frame.A.data();
  VelmoCopySource src;
  VelmoCopySourceFromBuffers(buffers, FullTable, 0xFFFFFFFFu, false, &src);
  EXPECT_EQ(src.OpenFlags, uint32_t(VelmoCopyOpenFlagsMask));
  src.OpenFlags = 0;
  const VelmoCopySource direct = frame.Source(FullTable);
  Surface a(24 * 4, 6), b(24 * 4, 6);
  VelmoCopyPlanes(&src, a.Base(), a.Pitch, 6, 0, 0, 5);
  VelmoCopyPlanes(&direct, b.Base(), b.Pitch, 6, 0, 0, 5);
  EXPECT_EQ(a.Mem, b.Mem);
  VelmoCopySourceFromBuffers(buffers, FullTable, 0, true, &src);
  Surface c(24 * 4, 6);
  EXPECT_EQ(VelmoCopyPlanes(&src, c.Base(), c.Pitch, 6, 0, 0, 5), 0);
  EXPECT_EQ(c.Mem, Surface(24 * 4, 6).Mem);  // HDR frames are not copied here
}

}  // namespace
