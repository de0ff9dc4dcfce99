// Pixel copy-out: the conversion state, the plain C++ kernels against an independent float
// model, the rectangle rules and the bounds of the planes and the destination. (The vector
// kernels are compared with the plain ones in tests/kernels.)
#include "reader/copyout.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
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

Frame RandomFrame(uint32_t w, uint32_t h, bool alpha, uint32_t seed) {
  Frame frame(w, h, alpha);
  std::mt19937 rng(seed);
  frame.Randomize(rng);
  return frame;
}

// A surface just large enough, bottom up for `sign` -1, with the whole frame copied in.
Surface CopyWhole(const VelmoCopySource& src, uint32_t format, int32_t sign = 1) {
  Surface s(sign * int32_t(src.Width) * BytesOf(format & 15), int32_t(src.Height));
  VelmoCopyPlanes(&src, s.Base(), s.Pitch, s.Lines, 0, 0, format);
  return s;
}

// Every pixel of `s` (`bytes` each, counted from the top line) is the full copy's pixel
// (x - dx + sx, y - dy + sy) inside the w x h rectangle at (dx, dy), and the guard outside it.
::testing::AssertionResult HoldsOnly(const Surface& s, const Surface& full, int bytes, int32_t dx,
                                     int32_t dy, int32_t w, int32_t h, int32_t sx, int32_t sy) {
  for (int32_t y = 0; y < s.Lines; ++y) {
    for (int32_t x = 0; x < std::abs(s.Pitch) / bytes; ++x) {
      const bool inside = x >= dx && x < dx + w && y >= dy && y < dy + h;
      const uint32_t want = inside ? full.Pixel(x - dx + sx, y - dy + sy, bytes)
                                   : (bytes == 4 ? 0xA5A5A5A5u : 0xA5A5u);
      if (s.Pixel(x, y, bytes) != want)
        return ::testing::AssertionFailure() << (inside ? "wrong pixel" : "written outside")
                                             << " at " << x << "," << y;
    }
  }
  return ::testing::AssertionSuccess();
}

constexpr uint32_t BadFormats[] = {0, 1, 2, 7, 11, 13, 14, 15};

using Five = std::array<int, 5>;
Five Weights(const VelmoConversionState& s) {
  return {s.YWeight, s.CrToR, s.CrToG, s.CbToG, s.CbToB};
}
// The dither values of pixels 0 and 1 on even and odd lines, and of pixel 6 on an even line.
Five Dither(const int16_t (&o)[2][8]) { return {o[0][0], o[0][1], o[1][0], o[1][1], o[0][6]}; }

// ---------------------------------------------------------------------------------------------

TEST(CopyOutState, FixedPointWeightsOffsetsAndDither) {
  VelmoConversionState s;
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 3, 0, &Plain, &s));
  // × 4096: 1.164124 → 4768.25, 6536.38, −3331.99, −1603.38, 8264.998.
  EXPECT_EQ(Weights(s), (Five{4768, 6536, -3332, -1603, 8265}));
  EXPECT_EQ(s.PixelBytes, 4u);
  EXPECT_EQ(s.ShiftR, 3);
  EXPECT_EQ(s.CopyFlags, 0u);
  // Red offset −0.874069 × 2048 = −1790.09; 8-bit steps O, O+4, O+6, O+2, repeating.
  EXPECT_EQ(Dither(s.OffsetR), (Five{-1790, -1786, -1784, -1788, -1790}));
  EXPECT_EQ(s.OffsetB[0][0], -2224);  // −2223.95

  // 5-6-5: five-bit channels step by 16, the six-bit green by 8; no alpha bits.
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 10, 0, &Plain, &s));
  EXPECT_EQ(s.PixelBytes, 2u);
  EXPECT_EQ(std::vector<int>({s.ShiftR, s.ShiftG, s.ShiftA}), std::vector<int>({6, 5, 11}));
  const int r = s.OffsetR[0][0], g = s.OffsetG[0][0];
  EXPECT_EQ(Dither(s.OffsetR), (Five{r, r + 32, r + 48, r + 16, r}));
  EXPECT_EQ(Dither(s.OffsetG), (Five{g, g + 16, g + 24, g + 8, g}));

  for (uint32_t bad : BadFormats)
    EXPECT_FALSE(VelmoBuildConversionState(VideoTable, bad, 0, &Plain, &s)) << bad;
}

TEST(CopyOutState, ChannelOrderAndGrayscale) {
  VelmoConversionState s;
  // Red at bit 0: red and blue roles change places and the chroma planes are exchanged.
  ASSERT_TRUE(VelmoBuildConversionState(VideoTable, 4, 0, &Plain, &s));
  EXPECT_EQ(Weights(s), (Five{4768, 8265, -1603, -3332, 6536}));
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

// Black and white of both tables, and 400 random colours, in every format at every pixel of a
// frame whose width is no whole number of 16-pixel groups. Black and white hold whatever the
// dither value; any other colour is within one step of the rounded model where the dither is 0
// (even columns of even lines), and within the dither's reach elsewhere.
TEST(CopyOutModel, ColoursMatchTheModelInEveryFormat) {
  struct Colour {
    const float* Table;
    uint8_t Y, Cr, Cb;
    int Exact;  // 0 black, 1 white, -1 the model only
  };
  std::vector<Colour> colours = {{VideoTable, 16, 128, 128, 0}, {VideoTable, 235, 128, 128, 1},
                                 {FullTable, 0, 128, 128, 0},   {FullTable, 255, 128, 128, 1},
                                 {VideoTable, 81, 240, 90, -1}, {FullTable, 76, 255, 85, -1}};
  std::mt19937 rng(777);
  for (int i = 0; i < 400; ++i)
    colours.push_back({i % 2 ? VideoTable : FullTable, uint8_t(rng()), uint8_t(rng()),
                       uint8_t(rng()), -1});
  for (const Colour& c : colours) {
    SCOPED_TRACE(testing::Message() << int(c.Y) << "," << int(c.Cr) << "," << int(c.Cb)
                                    << (c.Table == VideoTable ? " video" : " full"));
    Frame frame(37, 9, false);
    frame.Fill(c.Y, c.Cr, c.Cb);
    double model[3];
    FloatModel(c.Table, c.Y, c.Cr, c.Cb, model);
    if (c.Exact >= 0) {
      for (double m : model) EXPECT_NEAR(m * 255, c.Exact * 255, 0.6);
    }
    for (uint32_t format : ValidFormats) {
      SCOPED_TRACE(format);
      const int bytes = BytesOf(format);
      Surface out(37 * bytes, 9);
      Copy(Plain, frame.Source(c.Table), out, 0, 0, 0, 0, 37, 9, format);
      const int bits[3] = {RedBits(format), GreenBits(format), RedBits(format)};
      for (int y = 0; y < 9; ++y) {
        for (int x = 0; x < 37; ++x) {
          const Rgba px = Decode(format, out.Pixel(x, y, bytes));
          const int got[3] = {px.R, px.G, px.B};
          for (int ch = 0; ch < 3; ++ch) {
            const int max = MaxOf(bits[ch]), want = int(std::lround(model[ch] * max));
            const int low = c.Exact >= 0 ? c.Exact * max : want - 1;
            const int high = c.Exact >= 0 ? low : want + ((x | y) % 2 ? 2 : 1);
            ASSERT_TRUE(got[ch] >= low && got[ch] <= high)
                << got[ch] << " not in " << low << ".." << high << ", channel " << ch << " at "
                << x << "," << y;
          }
          if (format != 10) {
            ASSERT_EQ(px.A, bytes == 2 ? 1 : 255);  // no alpha plane: opaque
          }
        }
      }
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
        for (auto [got, plane] : {std::pair{px.R, &frame.Cr}, {px.B, &frame.Cb}}) {
          const long want = std::lround(up(*plane));
          ASSERT_TRUE(got >= want - 1 && got <= want + ((x | y) % 2 == 0 ? 1 : 2))
              << w << "x" << h << " at " << x << "," << y << ": " << got << " for " << up(*plane);
        }
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
    // Bottom-up, dy counts lines up from the lowest address: seen from the top, the rectangle
    // ends dy lines above the surface's last line.
    const int32_t top = sign > 0 ? dy : part.Lines - dy - rh;
    ASSERT_TRUE(HoldsOnly(part, full, bytes, dx, top, rw, rh, sx, sy))
        << "rect " << sx << "," << sy << " " << rw << "x" << rh;
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

TEST(CopyOutRect, OnlyTheFrameLimitsTheRectangle) {
  const Frame frame = RandomFrame(20, 10, false, 5);
  const VelmoCopySource src = frame.Source();
  const Surface full = CopyWhole(src, 3);

  // A rectangle past the frame's right and bottom edges is cut at them.
  Surface cut(20 * 4, 10);
  VelmoCopyPlanesRect(&src, cut.Base(), cut.Pitch, 10, 0, 0, 15, 7, 100, 100, 3);
  EXPECT_TRUE(HoldsOnly(cut, full, 4, 0, 0, 5, 3, 15, 7));

  // The destination's height does not limit the copy: all ten lines arrive though it says 4.
  Surface tall(20 * 4, 12);
  VelmoCopyPlanesRect(&src, tall.Base(), tall.Pitch, 4, 0, 1, 0, 0, 20, 10, 3);
  EXPECT_TRUE(HoldsOnly(tall, full, 4, 0, 1, 20, 10, 0, 0));

  // Nor does the pitch: one line of 20 pixels at x 3 of 8-pixel lines runs on into the next
  // line of memory.
  Surface narrow(8 * 4, 4);
  VelmoCopyPlanesRect(&src, narrow.Base(), narrow.Pitch, 4, 3, 0, 0, 2, 20, 1, 3);
  for (int32_t i = 0; i < 32; ++i)
    EXPECT_EQ(narrow.Pixel(i % 8, i / 8, 4), i >= 3 && i < 23 ? full.Pixel(i - 3, 2, 4) : 0xA5A5A5A5u)
        << i;

  // Negative offsets address pixels before `dest`: here one line up and two pixels to the left.
  Surface around(20 * 4, 6);
  uint8_t* dest = around.Base() + 2 * around.Pitch + 4 * 4;  // (4, 2)
  VelmoCopyPlanesRect(&src, dest, around.Pitch, 4, -2, -1, 0, 0, 5, 2, 3);
  EXPECT_TRUE(HoldsOnly(around, full, 4, 2, 1, 5, 2, 0, 0));

  // Nothing for empty rectangles or a left edge past the frame.
  Surface none(20 * 4, 10);
  const std::vector<uint8_t> untouched = none.Mem;
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, 0, 0, 20, 0, 5, 5, 3);
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, 0, 0, 0, 0, 0, 5, 3);
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, 0, 0, 0, 0, 5, -1, 3);
  VelmoCopyPlanesRect(&src, none.Base(), none.Pitch, 10, 0, 0, 0, 10, 5, 5, 3);
  EXPECT_EQ(none.Mem, untouched);
}

TEST(CopyOutRect, NegativePitchStoresBottomUp) {
  const Frame frame = RandomFrame(29, 7, true, 8);
  const VelmoCopySource src = frame.Source();
  for (uint32_t format : ValidFormats) {
    const int bytes = BytesOf(format);
    Surface down = CopyWhole(src, format), up = CopyWhole(src, format, -1);
    // The first picture line is the last line in memory.
    EXPECT_EQ(0, std::memcmp(up.Base() + 6 * 29 * bytes, down.Base(), 29 * bytes));
    for (int32_t y = 0; y < 7; ++y)
      for (int32_t x = 0; x < 29; ++x)
        ASSERT_EQ(up.Pixel(x, y, bytes), down.Pixel(x, y, bytes)) << format;

    // A rectangle of 3 lines at destY 2 in memory of 10 lines (whatever the destination height
    // says): its first line is memory line 4, its last memory line 2; nothing else is written.
    const int32_t lineBytes = 29 * bytes;
    std::vector<uint8_t> mem(size_t(lineBytes) * 10, GuardByte);
    VelmoCopyPlanesRect(&src, mem.data(), -lineBytes, 10, 0, 2, 0, 1, 29, 3, format);
    for (int32_t line = 0; line < 10; ++line) {
      const uint8_t* got = mem.data() + size_t(line) * lineBytes;
      if (line >= 2 && line <= 4) {
        const int32_t picture = 1 + (4 - line);  // frame line shown there
        ASSERT_EQ(0, std::memcmp(got, down.Base() + size_t(picture) * lineBytes, lineBytes))
            << format << " line " << line;
      } else {
        ASSERT_TRUE(std::all_of(got, got + lineBytes, [](uint8_t b) { return b == GuardByte; }))
            << format << " line " << line;
      }
    }
  }
}

// ---------------------------------------------------------------------------------------------
// Formats and flags.

TEST(CopyOutFlags, BadFormatsHdrAndMissingPlanesCopyNothing) {
  Frame frame(16, 4, false);
  VelmoCopySource src = frame.Source();
  Surface s(16 * 4, 4);
  const std::vector<uint8_t> untouched = s.Mem;
  for (uint32_t bad : BadFormats)
    EXPECT_EQ(VelmoCopyPlanes(&src, s.Base(), s.Pitch, 4, 0, 0, bad), 0) << bad;
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
  const Frame frame = RandomFrame(40, 6, true, 31);
  const VelmoCopySource src = frame.Source();
  const Surface f3 = CopyWhole(src, 3), f4 = CopyWhole(src, 4);
  EXPECT_EQ(CopyWhole(src, 5).Mem, f3.Mem);
  EXPECT_EQ(CopyWhole(src, 12).Mem, f3.Mem);
  EXPECT_EQ(CopyWhole(src, 6).Mem, f4.Mem);
  EXPECT_EQ(CopyWhole(src, 9).Mem, CopyWhole(src, 8).Mem);
  for (int32_t y = 0; y < 6; ++y) {
    for (int32_t x = 0; x < 40; ++x) {
      const Rgba a = Decode(3, f3.Pixel(x, y, 4)), b = Decode(4, f4.Pixel(x, y, 4));
      ASSERT_EQ(std::vector<int>({a.R, a.G, a.B, a.A}), std::vector<int>({b.R, b.G, b.B, b.A}));
    }
  }
}

TEST(CopyOutFlags, AlphaPlaneOpaqueFillAndFlip) {
  const Frame frame = RandomFrame(35, 5, true, 17);
  const VelmoCopySource src = frame.Source();
  VelmoCopySource noAlpha = src;
  noAlpha.Alpha = nullptr;
  for (uint32_t format : {3u, 9u}) {
    const Surface s = CopyWhole(src, format);
    for (int32_t y = 0; y < 5; ++y) {
      for (int32_t x = 0; x < 35; ++x) {
        const uint8_t a = frame.A[size_t(y) * frame.LumaPitch + x];
        ASSERT_EQ(Decode(format, s.Pixel(x, y, BytesOf(format))).A, format == 3 ? a : a >> 7);
      }
    }
  }
  // 5-6-5 has no alpha bits: the same as a frame without an alpha plane.
  EXPECT_EQ(CopyWhole(src, 10).Mem, CopyWhole(noAlpha, 10).Mem);

  // The flip, from the flags or the open flags, equals a frame with the planes exchanged.
  Frame swapped = frame;
  std::swap(swapped.Y, swapped.A);
  const Surface want = CopyWhole(swapped.Source(), 5);
  EXPECT_EQ(CopyWhole(src, 5 | VelmoCopyFlipAlpha).Mem, want.Mem);
  VelmoCopySource byOpen = src;
  byOpen.OpenFlags = VelmoCopyFlipAlpha;
  EXPECT_EQ(CopyWhole(byOpen, 5).Mem, want.Mem);
  // Without an alpha plane the flip is ignored.
  EXPECT_EQ(CopyWhole(noAlpha, 5 | VelmoCopyFlipAlpha).Mem, CopyWhole(noAlpha, 5).Mem);
}

TEST(CopyOutFlags, GrayscaleAndTableShapes) {
  const Frame frame = RandomFrame(26, 6, false, 23);
  auto lumaAt = [&](int32_t x, int32_t y) { return frame.Y[size_t(y) * frame.LumaPitch + x]; };
  // Grayscale at full range: every channel is Y, chroma is never read.
  VelmoCopySource src = frame.Source(FullTable);
  src.Cr = src.Cb = nullptr;
  const Surface gray = CopyWhole(src, 3 | VelmoCopyGrayscale);
  for (int32_t y = 0; y < 6; y += 2) {
    for (int32_t x = 0; x < 26; x += 2) {
      const Rgba px = Decode(3, gray.Pixel(x, y, 4));
      ASSERT_NEAR(px.R, lumaAt(x, y), 1);
      ASSERT_EQ(px.R, px.G);
      ASSERT_EQ(px.R, px.B);
    }
  }
  src = frame.Source(FullTable);
  src.OpenFlags = VelmoCopyGrayscale;
  EXPECT_EQ(CopyWhole(src, 3).Mem, gray.Mem);

  // A table with Cr and Cb the other way round, over exchanged planes, gives the same picture.
  Frame exchanged = frame;
  std::swap(exchanged.Cr, exchanged.Cb);
  EXPECT_EQ(CopyWhole(frame.Source(VideoTable), 3).Mem,
            CopyWhole(exchanged.Source(SwappedChroma(VideoTable).V), 3).Mem);

  // Any other shape shows plain Y with a full red offset: the chroma planes and the table's
  // own offsets make no difference, red is full, green and blue are Y by the first weight.
  float oddTable[16];
  std::memcpy(oddTable, FullTable, sizeof oddTable);
  oddTable[12] = 0.5f;
  oddTable[9] = 0.25f;  // an offset of the table, not used
  const Surface odd = CopyWhole(frame.Source(oddTable), 3);
  EXPECT_EQ(odd.Mem, CopyWhole(exchanged.Source(oddTable), 3).Mem);
  for (int32_t y = 0; y < 6; y += 2) {  // where the dither is 0: half of Y, nothing else
    for (int32_t x = 0; x < 26; x += 2) {
      const Rgba px = Decode(3, odd.Pixel(x, y, 4));
      ASSERT_EQ(px.R, 255);
      ASSERT_NEAR(px.G, lumaAt(x, y) / 2.0, 1.0);
      ASSERT_NEAR(px.B, lumaAt(x, y) / 2.0, 1.0);
    }
  }
  // The red offset stays with red in the formats that store it at the other end.
  const Surface oddReversed = CopyWhole(frame.Source(oddTable), 4);
  for (int32_t x = 0; x < 26; x += 2) {
    const Rgba a = Decode(3, odd.Pixel(x, 0, 4)), b = Decode(4, oddReversed.Pixel(x, 0, 4));
    ASSERT_EQ(std::vector<int>({a.R, a.G, a.B}), std::vector<int>({b.R, b.G, b.B}));
  }
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
  EXPECT_EQ(std::vector<int>({log.Begins, log.Ends, log.Checks}), std::vector<int>({3, 3, 3}));
  // An empty rectangle does not count as a copy.
  EXPECT_EQ(VelmoCopyPlanesRect(&src, s.Base(), s.Pitch, 4, 0, 0, 0, 0, 0, 0, 3), 0);
  EXPECT_EQ(log.Begins, 3);
}

TEST(CopyOutSource, FromTheCurrentFrameBufferSet) {
  Frame frame = RandomFrame(24, 6, true, 3);
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
  EXPECT_EQ(CopyWhole(src, 5).Mem, CopyWhole(frame.Source(FullTable), 5).Mem);
  VelmoCopySourceFromBuffers(buffers, FullTable, 0, true, &src);
  Surface c(24 * 4, 6);
  EXPECT_EQ(VelmoCopyPlanes(&src, c.Base(), c.Pitch, 6, 0, 0, 5), 0);
  EXPECT_EQ(c.Mem, Surface(24 * 4, 6).Mem);  // HDR frames are not copied here
}

}  // namespace
