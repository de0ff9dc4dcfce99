// TGA files built byte by byte: each image type, depth, origin and run-length packets.
#include "test_support.h"

using namespace imagefile_test;

namespace {

struct TgaFields {
  int image_type = 2;
  int width = 1, height = 1, depth = 24;
  int descriptor = 0;
  int map_length = 0, map_bits = 0, map_first = 0;
  std::vector<uint8_t> map;  // colour map bytes
  std::string id;
};

std::vector<uint8_t> MakeTga(const TgaFields& s, const std::vector<uint8_t>& data) {
  Bytes b;
  b.u8(unsigned(s.id.size())).u8(s.map_length ? 1 : 0).u8(unsigned(s.image_type));
  b.u16(unsigned(s.map_first)).u16(unsigned(s.map_length)).u8(unsigned(s.map_bits));
  b.u16(0).u16(0).u16(unsigned(s.width)).u16(unsigned(s.height)).u8(unsigned(s.depth)).u8(unsigned(s.descriptor));
  b.str(s.id.c_str()).raw(s.map).raw(data);
  return b.v;
}

// The header fields of a picture of `width` x `height` pixels of the type and depth, top-down unless `descriptor` says.
TgaFields Fields(int type, int width, int height, int depth, int descriptor = 0x20) {
  TgaFields s;
  s.image_type = type, s.width = width, s.height = height, s.depth = depth, s.descriptor = descriptor;
  return s;
}

TEST(Tga, EveryTypeDepthAndOriginGivesItsPixels) {
  // 2x2: stored first red green, then blue white.
  const std::vector<uint8_t> square = {0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 255};
  const std::vector<uint8_t> argb = {1, 2, 3, 0x40, 4, 5, 6, 0xC0};
  // 0x7C00 red with the attribute bit clear (transparent), 0x83E0 green with it set.
  const std::vector<uint8_t> hicolour = {0x00, 0x7C, 0xE0, 0x83};
  TgaFields with_id = Fields(2, 2, 2, 24, 0);
  with_id.id = "made by hand";
  TgaFields mapped = Fields(1, 3, 1, 8);
  mapped.map_first = 10, mapped.map_length = 2, mapped.map_bits = 24;
  mapped.map = {0, 0, 255, 255, 0, 0};  // entry 10 red, entry 11 blue
  TgaFields rle_mapped = Fields(9, 4, 1, 8);
  rle_mapped.map_length = 2, rle_mapped.map_bits = 16;
  rle_mapped.map = {0x00, 0x7C, 0x1F, 0x00};  // 15-bit red, blue
  const struct {
    const char* what;
    std::vector<uint8_t> file;
    std::vector<uint32_t> want;
  } cases[] = {
      {"bottom-up by default", MakeTga(with_id, square), {B, W, R, G}},
      {"top-down", MakeTga(Fields(2, 2, 2, 24), square), {R, G, B, W}},
      {"top-down, right to left", MakeTga(Fields(2, 2, 2, 24, 0x30), square), {G, R, W, B}},
      {"32 bit with attribute bits", MakeTga(Fields(2, 2, 1, 32, 0x28), argb), {0x40030201, 0xC0060504}},
      {"32 bit without attribute bits is opaque", MakeTga(Fields(2, 2, 1, 32), argb), {0xFF030201, 0xFF060504}},
      {"16 bit with an attribute bit", MakeTga(Fields(2, 2, 1, 16, 0x21), hicolour), {0x00FF0000, G}},
      {"15 bit", MakeTga(Fields(2, 2, 1, 15), hicolour), {R, G}},
      {"colour mapped, below the first entry black", MakeTga(mapped, {11, 10, 3}), {B, R, K}},
      {"grey", MakeTga(Fields(3, 2, 1, 8), {0x10, 0xF0}), {0xFF101010, 0xFFF0F0F0}},
      {"grey with alpha", MakeTga(Fields(3, 2, 1, 16), {0x10, 0x80, 0xF0, 0x00}), {0x80101010, 0x00F0F0F0}},
      // A run of 4 red crosses into row 2, then a raw packet of 2: green, blue.
      {"runs cross rows", MakeTga(Fields(10, 3, 2, 24), {0x83, 0, 0, 255, 0x01, 0, 255, 0, 255, 0, 0}),
       {R, R, R, R, G, B}},
      {"colour mapped runs", MakeTga(rle_mapped, {0x82, 1, 0x00, 0}), {B, B, B, R}},
      {"grey runs", MakeTga(Fields(11, 3, 1, 8), {0x82, 0x7F}), {0xFF7F7F7F, 0xFF7F7F7F, 0xFF7F7F7F}},
      {"runs longer than the picture stop at its end", MakeTga(Fields(10, 2, 1, 24), {0xFF, 0, 255, 0}), {G, G}},
  };
  for (const auto& c : cases) EXPECT_EQ(Read(c.file, "x.tga").pixels, c.want) << c.what;

  ImageInfo info = InfoOf(cases[0].file, "x.tga");
  EXPECT_EQ(info.format, IMAGE_FORMAT_TGA);
  EXPECT_FALSE(info.has_alpha);
  info = InfoOf(cases[3].file, "x.tga");
  EXPECT_TRUE(info.has_alpha);
  EXPECT_EQ(info.alpha_bits, 8);
  EXPECT_FALSE(InfoOf(cases[4].file, "x.tga").has_alpha);
  EXPECT_TRUE(InfoOf(cases[7].file, "x.tga").is_palette);
  info = InfoOf(cases[9].file, "x.tga");
  EXPECT_TRUE(info.has_alpha);
  EXPECT_TRUE(info.is_gray);
  EXPECT_EQ(InfoOf(cases[10].file, "x.tga").compression, 1);

  uint32_t palette[256];
  const OpenFile file = Open(cases[7].file, "m.tga");
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(ImageFilePalette(file.get(), palette), 256);
  EXPECT_EQ(palette[10], R);
  EXPECT_EQ(palette[11], B);
}

TEST(Tga, TruncatedDataGivesAnErrorAndAPartialPicture) {
  bool ok = true;
  const Picture p = Read(MakeTga(Fields(10, 4, 1, 24), {0x81, 0, 0, 255, 0x01, 255}), "t.tga", 0, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{R, R, K, K}));
  ok = true;
  Read(MakeTga(Fields(2, 3, 1, 24), {1, 2, 3, 4}), "t.tga", 0, &ok);
  EXPECT_FALSE(ok);
}

TEST(Tga, BadHeadersAreRefused) {
  TgaFields s;
  s.depth = 12;
  EXPECT_NE(OpenError(MakeTga(s, {1, 2}), "x.tga"), IMAGE_OK);
  TgaFields mapped = Fields(1, 1, 1, 8, 0);
  mapped.map_length = 200, mapped.map_bits = 24;
  mapped.map = {1, 2, 3};  // far fewer entries than stated
  EXPECT_EQ(OpenError(MakeTga(mapped, {}), "x.tga"), IMAGE_ERROR_CORRUPT);
}

}  // namespace
