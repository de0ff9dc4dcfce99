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

TEST(Bmp, EveryDepthLayoutAndCompressionGivesItsPixels) {
  const uint32_t dark = 0xFF101010, light = 0xFFF0F0F0;
  const std::vector<uint8_t> argb = {0x11, 0x22, 0x33, 0x80, 0x44, 0x55, 0x66, 0x00};
  const std::vector<uint8_t> rows24 = {0xFF, 0, 0, 0, 0, 0, 0xFF, 0};  // 1x2 padded: blue stored first
  Bytes core;  // a 12-byte header with two B, G, R palette entries
  core.str("BM").u32(14 + 12 + 6 + 4).u32(0).u32(14 + 12 + 6).u32(12).u16(2).u16(1).u16(1).u16(8);
  core.u8(0x30).u8(0x20).u8(0x10).u8(0x60).u8(0x50).u8(0x40).u8(1).u8(0).u8(0).u8(0);
  const struct {
    const char* what;
    std::vector<uint8_t> file;
    std::vector<uint32_t> want;
  } cases[] = {
      // 3x2, rows padded to 4 bytes: bottom row 1,0,1; top row 0,1,1.
      {"1 bit, bottom-up", MakeBmp(3, 2, 1, 0, {0x101010, 0xF0F0F0}, {0xA0, 0, 0, 0, 0x60, 0, 0, 0}),
       {dark, light, light, light, dark, light}},
      {"4 bit", MakeBmp(3, 1, 4, 0, kFourColours, {0x12, 0x30, 0, 0}), {R, G, B}},
      {"8 bit", MakeBmp(3, 1, 8, 0, kFourColours, {3, 0, 1, 0}), {B, K, R}},
      {"an index past the palette reads black", MakeBmp(2, 1, 8, 0, kFourColours, {200, 1, 0, 0}), {K, R}},
      {"16 bit 5-5-5 default", MakeBmp(2, 1, 16, 0, {}, {0xFF, 0x7F, 0x00, 0x7C}), {W, R}},
      {"16 bit 5-6-5 fields", MakeBmp(2, 1, 16, 3, {}, {0xE0, 0x07, 0x1F, 0x00}, {0xF800, 0x07E0, 0x001F}), {G, B}},
      {"32 bit with an alpha mask", MakeBmp(2, 1, 32, 3, {}, argb, {0xFF0000, 0xFF00, 0xFF, 0xFF000000u}, 108),
       {0x80332211, 0x00665544}},
      {"32 bit without masks is opaque", MakeBmp(2, 1, 32, 0, {}, argb), {0xFF332211, 0xFF665544}},
      {"24 bit bottom-up", MakeBmp(1, 2, 24, 0, {}, rows24), {R, B}},
      {"24 bit top-down", MakeBmp(1, -2, 24, 0, {}, rows24), {B, R}},
      // 6x3, bottom-up. Stored row 0: a run of 3 x 1, absolute 2,3,1 (odd count padded). End of
      // line, then a delta of 2 right and 1 up lands on stored row 2, x 2: a run of 2 x 3.
      // Pixels that no code reaches read as index 0.
      {"RLE8 runs, absolute runs, delta and end of line",
       MakeBmp(6, 3, 8, 1, kFourColours, {3, 1, 0, 3, 2, 3, 1, 0, 0, 0, 0, 2, 2, 1, 2, 3, 0, 1}),
       {K, K, B, B, K, K, K, K, K, K, K, K, R, R, R, G, B, R}},
      {"RLE4 run alternates nibbles", MakeBmp(5, 1, 4, 2, kFourColours, {5, 0x12, 0, 1}), {R, G, R, G, R}},
      {"RLE4 absolute nibbles padded to 16 bits", MakeBmp(3, 1, 4, 2, kFourColours, {0, 3, 0x31, 0x20, 0, 1}),
       {B, R, G}},
      {"RLE runs beyond the row are clipped", MakeBmp(2, 2, 8, 1, kFourColours, {200, 2, 0, 0, 255, 3, 0, 1}),
       {B, B, G, G}},
      {"core header with a three-byte palette", core.v, {0xFF405060, 0xFF102030}},
  };
  for (const auto& c : cases) EXPECT_EQ(Read(c.file).pixels, c.want) << c.what;

  const ImageInfo one = InfoOf(cases[0].file);
  EXPECT_EQ(one.bits_per_pixel, 1);
  EXPECT_TRUE(one.is_palette);
  EXPECT_EQ(one.palette_size, 2);
  EXPECT_TRUE(InfoOf(cases[6].file).has_alpha);
  EXPECT_FALSE(InfoOf(cases[7].file).has_alpha);
  EXPECT_EQ(InfoOf(cases[10].file).compression, 1);
}

TEST(Bmp, TruncatedPixelsGiveAnErrorAndAPartialPicture) {
  std::vector<uint8_t> file = MakeBmp(1, 3, 24, 0, {}, std::vector<uint8_t>(4 * 3, 0xFF));  // 1x3 white
  file.resize(file.size() - 3);  // part of the last stored (top) row is gone
  bool ok = true;
  const Picture p = Read(file, nullptr, 0, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{K, W, W}));
}

TEST(Bmp, UnsupportedAndInconsistentHeadersAreRefused) {
  std::vector<uint8_t> bad_offset = MakeBmp(1, 1, 24, 0, {}, {1, 2, 3, 0});
  bad_offset[10] = 0xF0;  // pixel data offset beyond the file
  EXPECT_EQ(OpenError(MakeBmp(2, 2, 7, 0, {}, std::vector<uint8_t>(16))), IMAGE_ERROR_UNSUPPORTED);
  EXPECT_EQ(OpenError(MakeBmp(2, -2, 8, 1, kFourColours, {0, 1})), IMAGE_ERROR_CORRUPT);  // top-down RLE
  EXPECT_EQ(OpenError(MakeBmp(40000, 2, 24, 0, {}, std::vector<uint8_t>(16))), IMAGE_ERROR_TOO_LARGE);
  EXPECT_EQ(OpenError(bad_offset), IMAGE_ERROR_CORRUPT);
}

}  // namespace
