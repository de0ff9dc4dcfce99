// BMP files built byte by byte: every bit depth, bit fields, both row orders, RLE4 and RLE8.
#include "test_support.h"

using namespace imagefile_test;

namespace {

// A BMP with a 40-byte header (or `header_size` with masks inside it), palette and pixel data.
std::vector<uint8_t> MakeBmp(int width, int height, int bits, uint32_t compression,
                             const std::vector<uint32_t>& palette, const std::vector<uint8_t>& data,
                             const std::vector<uint32_t>& masks = {}, uint32_t header_size = 40) {
  const uint32_t extra_masks = header_size == 40 ? uint32_t(masks.size()) * 4 : 0;
  const uint32_t offset = 14 + header_size + extra_masks + uint32_t(palette.size()) * 4;
  Bytes b;
  b.str("BM").u32(offset + uint32_t(data.size())).u32(0).u32(offset);
  b.u32(header_size).u32(uint32_t(width)).u32(uint32_t(height)).u16(1).u16(unsigned(bits)).u32(compression);
  b.u32(uint32_t(data.size())).u32(2835).u32(2835).u32(uint32_t(palette.size())).u32(0);
  for (uint32_t m : masks) b.u32(m);
  while (b.v.size() < 14 + header_size) b.u8(0);
  for (uint32_t c : palette) b.u32(c & 0xFFFFFF);
  b.raw(data);
  return b.v;
}

const std::vector<uint32_t> kFourColours = {0x000000, 0xFF0000, 0x00FF00, 0x0000FF};

TEST(Bmp, OneBitRowsArePaddedAndBottomUp) {
  // 3x2: bottom row 1,0,1 ; top row 0,1,1. Rows padded to 4 bytes.
  const std::vector<uint8_t> data = {0xA0, 0, 0, 0, 0x60, 0, 0, 0};
  ImageInfo info{};
  const Picture p = Read(MakeBmp(3, 2, 1, 0, {0x101010, 0xF0F0F0}, data), nullptr, 0, nullptr, &info);
  EXPECT_EQ(info.bits_per_pixel, 1);
  EXPECT_TRUE(info.is_palette);
  EXPECT_EQ(info.palette_size, 2);
  const uint32_t dark = 0xFF101010, light = 0xFFF0F0F0;
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{dark, light, light, light, dark, light}));
}

TEST(Bmp, FourAndEightBitPalettesAndIndicesPastThem) {
  const std::vector<uint8_t> four = {0x12, 0x30, 0, 0};  // 3x1: indices 1,2,3
  EXPECT_EQ(Read(MakeBmp(3, 1, 4, 0, kFourColours, four)).pixels,
            (std::vector<uint32_t>{0xFFFF0000, 0xFF00FF00, 0xFF0000FF}));
  const std::vector<uint8_t> eight = {3, 0, 1, 0};
  EXPECT_EQ(Read(MakeBmp(3, 1, 8, 0, kFourColours, eight)).pixels,
            (std::vector<uint32_t>{0xFF0000FF, 0xFF000000, 0xFFFF0000}));
  const std::vector<uint8_t> beyond = {200, 1, 0, 0};  // an index past the palette reads black
  EXPECT_EQ(Read(MakeBmp(2, 1, 8, 0, kFourColours, beyond)).pixels, (std::vector<uint32_t>{0xFF000000, 0xFFFF0000}));
}

TEST(Bmp, SixteenBitDefaultAndBitFields) {
  // 5-5-5 default: 0x7FFF white, 0x7C00 red.
  const std::vector<uint8_t> d555 = {0xFF, 0x7F, 0x00, 0x7C};
  EXPECT_EQ(Read(MakeBmp(2, 1, 16, 0, {}, d555)).pixels, (std::vector<uint32_t>{0xFFFFFFFF, 0xFFFF0000}));
  // 5-6-5 bit fields: 0x07E0 full green, 0x001F full blue.
  const std::vector<uint8_t> d565 = {0xE0, 0x07, 0x1F, 0x00};
  EXPECT_EQ(Read(MakeBmp(2, 1, 16, 3, {}, d565, {0xF800, 0x07E0, 0x001F})).pixels,
            (std::vector<uint32_t>{0xFF00FF00, 0xFF0000FF}));
}

TEST(Bmp, ThirtyTwoBitAlphaMaskAndPlainRgb) {
  const std::vector<uint8_t> pixels = {0x11, 0x22, 0x33, 0x80, 0x44, 0x55, 0x66, 0x00};
  ImageInfo info{};
  const Picture with_alpha =
      Read(MakeBmp(2, 1, 32, 3, {}, pixels, {0xFF0000, 0xFF00, 0xFF, 0xFF000000u}, 108), nullptr, 0, nullptr, &info);
  EXPECT_TRUE(info.has_alpha);
  EXPECT_EQ(with_alpha.pixels, (std::vector<uint32_t>{0x80332211, 0x00665544}));
  // Without masks the fourth byte is unused and the picture is opaque.
  const Picture plain = Read(MakeBmp(2, 1, 32, 0, {}, pixels), nullptr, 0, nullptr, &info);
  EXPECT_FALSE(info.has_alpha);
  EXPECT_EQ(plain.pixels, (std::vector<uint32_t>{0xFF332211, 0xFF665544}));
}

TEST(Bmp, TopDownAndBottomUpTwentyFourBit) {
  // 1x2 pixels, each row padded to 4 bytes: first stored row blue, second red.
  const std::vector<uint8_t> data = {0xFF, 0, 0, 0, 0, 0, 0xFF, 0};
  const Picture bottom_up = Read(MakeBmp(1, 2, 24, 0, {}, data));
  EXPECT_EQ(bottom_up.pixels, (std::vector<uint32_t>{0xFFFF0000, 0xFF0000FF}));
  const Picture top_down = Read(MakeBmp(1, -2, 24, 0, {}, data));
  EXPECT_EQ(top_down.pixels, (std::vector<uint32_t>{0xFF0000FF, 0xFFFF0000}));
}

TEST(Bmp, Rle8RunsAbsoluteRunsDeltaAndEndOfLine) {
  // 6x3, bottom-up. Stored row 0: run of 3 x idx1, absolute 2,3,1 (odd count padded). End of
  // line, then a delta of 2 right and 1 up lands on stored row 2, x 2: a run of 2 x idx3.
  // Pixels that no code reaches read as index 0.
  const std::vector<uint8_t> rle = {3, 1, 0, 3, 2, 3, 1, 0, 0, 0, 0, 2, 2, 1, 2, 3, 0, 1};
  ImageInfo info{};
  const Picture p = Read(MakeBmp(6, 3, 8, 1, kFourColours, rle), nullptr, 0, nullptr, &info);
  EXPECT_EQ(info.compression, 1);
  const uint32_t k = 0xFF000000, r = 0xFFFF0000, g = 0xFF00FF00, b = 0xFF0000FF;
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{k, k, b, b, k, k,  // stored row 2, after the delta
                                             k, k, k, k, k, k,  // stored row 1, skipped
                                             r, r, r, g, b, r}));
}

TEST(Bmp, Rle4AlternatesNibbles) {
  // 5x1: run of 5 alternating 1,2; then end of bitmap.
  const std::vector<uint8_t> rle = {5, 0x12, 0, 1};
  const uint32_t r = 0xFFFF0000, g = 0xFF00FF00;
  EXPECT_EQ(Read(MakeBmp(5, 1, 4, 2, kFourColours, rle)).pixels, (std::vector<uint32_t>{r, g, r, g, r}));
  // Absolute mode with three nibbles: 3,1,2 then padding to 16 bits.
  const std::vector<uint8_t> absolute = {0, 3, 0x31, 0x20, 0, 1};
  EXPECT_EQ(Read(MakeBmp(3, 1, 4, 2, kFourColours, absolute)).pixels,
            (std::vector<uint32_t>{0xFF0000FF, r, g}));
}

TEST(Bmp, RleRunsBeyondTheRowAreClipped) {
  const std::vector<uint8_t> rle = {200, 2, 0, 0, 255, 3, 0, 1};  // far too long runs
  const Picture p = Read(MakeBmp(2, 2, 8, 1, kFourColours, rle));
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{0xFF0000FF, 0xFF0000FF, 0xFF00FF00, 0xFF00FF00}));
}

TEST(Bmp, TruncatedPixelsGiveAnErrorAndAPartialPicture) {
  std::vector<uint8_t> data(4 * 3, 0xFF);  // 1x3 of white, rows padded to 4
  std::vector<uint8_t> file = MakeBmp(1, 3, 24, 0, {}, data);
  file.resize(file.size() - 3);  // part of the last stored (top) row is gone
  bool ok = true;
  const Picture p = Read(file, nullptr, 0, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{0xFF000000, 0xFFFFFFFF, 0xFFFFFFFF}));
}

TEST(Bmp, UnsupportedAndInconsistentHeadersAreRefused) {
  ImageError error{};
  std::vector<uint8_t> bad_bits = MakeBmp(2, 2, 7, 0, {}, std::vector<uint8_t>(16));
  EXPECT_EQ(ImageFileOpenMemory(bad_bits.data(), bad_bits.size(), nullptr, &error), nullptr);
  EXPECT_EQ(error.code, IMAGE_ERROR_UNSUPPORTED);
  std::vector<uint8_t> rle_top_down = MakeBmp(2, -2, 8, 1, kFourColours, {0, 1});
  EXPECT_EQ(ImageFileOpenMemory(rle_top_down.data(), rle_top_down.size(), nullptr, &error), nullptr);
  std::vector<uint8_t> giant = MakeBmp(40000, 2, 24, 0, {}, std::vector<uint8_t>(16));
  EXPECT_EQ(ImageFileOpenMemory(giant.data(), giant.size(), nullptr, &error), nullptr);
  EXPECT_EQ(error.code, IMAGE_ERROR_TOO_LARGE);
  std::vector<uint8_t> bad_offset = MakeBmp(1, 1, 24, 0, {}, {1, 2, 3, 0});
  bad_offset[10] = 0xF0;  // pixel data offset beyond the file
  EXPECT_EQ(ImageFileOpenMemory(bad_offset.data(), bad_offset.size(), nullptr, &error), nullptr);
  EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT);
}

TEST(Bmp, CoreHeaderWithThreeBytePalette) {
  Bytes b;
  b.str("BM").u32(14 + 12 + 6 + 4).u32(0).u32(14 + 12 + 6);
  b.u32(12).u16(2).u16(1).u16(1).u16(8);
  b.u8(0x30).u8(0x20).u8(0x10).u8(0x60).u8(0x50).u8(0x40);  // two B, G, R entries
  b.u8(1).u8(0).u8(0).u8(0);
  EXPECT_EQ(Read(b.v).pixels, (std::vector<uint32_t>{0xFF405060, 0xFF102030}));
}

}  // namespace
