// TGA files built byte by byte: each image type, depth, origin and run-length packets.
#include "test_support.h"

using namespace imagefile_test;

namespace {

struct TgaSpec {
  int image_type = 2;
  int width = 1, height = 1, depth = 24;
  int descriptor = 0;
  int map_first = 0, map_bits = 0;
  std::vector<uint8_t> map;  // colour map bytes
  int map_length = 0;
  std::string id;
};

std::vector<uint8_t> MakeTga(const TgaSpec& s, const std::vector<uint8_t>& data) {
  Bytes b;
  b.u8(unsigned(s.id.size())).u8(s.map_length ? 1 : 0).u8(unsigned(s.image_type));
  b.u16(unsigned(s.map_first)).u16(unsigned(s.map_length)).u8(unsigned(s.map_bits));
  b.u16(0).u16(0).u16(unsigned(s.width)).u16(unsigned(s.height)).u8(unsigned(s.depth)).u8(unsigned(s.descriptor));
  b.str(s.id.c_str()).raw(s.map).raw(data);
  return b.v;
}

const uint32_t R = 0xFFFF0000, G = 0xFF00FF00, B = 0xFF0000FF, W = 0xFFFFFFFF;

TEST(Tga, UncompressedTrueColourIsBottomUpByDefault) {
  TgaSpec s;
  s.width = 2, s.height = 2, s.id = "made by hand";
  const std::vector<uint8_t> data = {0, 0, 255, 0, 255, 0,  // stored first: the bottom row, red green
                                     255, 0, 0, 255, 255, 255};
  ImageInfo info{};
  const Picture p = Read(MakeTga(s, data), "x.tga", 0, nullptr, &info);
  EXPECT_EQ(info.format, IMAGE_FORMAT_TGA);
  EXPECT_FALSE(info.has_alpha);
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{B, W, R, G}));
}

TEST(Tga, OriginBitsFlipRowsAndColumns) {
  TgaSpec s;
  s.width = 2, s.height = 2;
  const std::vector<uint8_t> data = {0, 0, 255, 0, 255, 0, 255, 0, 0, 255, 255, 255};
  s.descriptor = 0x20;  // top-down
  EXPECT_EQ(Read(MakeTga(s, data), "x.tga").pixels, (std::vector<uint32_t>{R, G, B, W}));
  s.descriptor = 0x30;  // top-down, right to left
  EXPECT_EQ(Read(MakeTga(s, data), "x.tga").pixels, (std::vector<uint32_t>{G, R, W, B}));
}

TEST(Tga, ThirtyTwoBitAlphaNeedsAttributeBits) {
  TgaSpec s;
  s.width = 2, s.depth = 32, s.descriptor = 0x28;
  const std::vector<uint8_t> data = {1, 2, 3, 0x40, 4, 5, 6, 0xC0};
  ImageInfo info{};
  EXPECT_EQ(Read(MakeTga(s, data), "a.tga", 0, nullptr, &info).pixels, (std::vector<uint32_t>{0x40030201, 0xC0060504}));
  EXPECT_TRUE(info.has_alpha);
  EXPECT_EQ(info.alpha_bits, 8);
  s.descriptor = 0x20;  // no attribute bits: the fourth byte is not alpha
  EXPECT_EQ(Read(MakeTga(s, data), "a.tga", 0, nullptr, &info).pixels, (std::vector<uint32_t>{0xFF030201, 0xFF060504}));
  EXPECT_FALSE(info.has_alpha);
}

TEST(Tga, FifteenAndSixteenBitColour) {
  TgaSpec s;
  s.width = 2, s.depth = 16, s.descriptor = 0x21;
  // 0x7C00 red with the attribute bit clear (transparent), 0x83E0 green with it set.
  const std::vector<uint8_t> data = {0x00, 0x7C, 0xE0, 0x83};
  EXPECT_EQ(Read(MakeTga(s, data), "a.tga").pixels, (std::vector<uint32_t>{0x00FF0000, 0xFF00FF00}));
  s.depth = 15, s.descriptor = 0x20;
  EXPECT_EQ(Read(MakeTga(s, data), "a.tga").pixels, (std::vector<uint32_t>{R, G}));
}

TEST(Tga, ColourMappedWithFirstEntryOffset) {
  TgaSpec s;
  s.image_type = 1, s.width = 3, s.depth = 8, s.descriptor = 0x20;
  s.map_first = 10, s.map_length = 2, s.map_bits = 24;
  s.map = {0, 0, 255, 255, 0, 0};  // entry 10 red, entry 11 blue
  const std::vector<uint8_t> data = {11, 10, 3};  // 3 lies below the first entry: black
  ImageInfo info{};
  EXPECT_EQ(Read(MakeTga(s, data), "m.tga", 0, nullptr, &info).pixels, (std::vector<uint32_t>{B, R, 0xFF000000}));
  EXPECT_TRUE(info.is_palette);
  uint32_t palette[256];
  ImageFile* file = ImageFileOpenMemory(MakeTga(s, data).data(), MakeTga(s, data).size(), "m.tga", nullptr);
  ASSERT_NE(file, nullptr);
  ASSERT_EQ(ImageFilePalette(file, palette), 256);
  EXPECT_EQ(palette[10], R);
  EXPECT_EQ(palette[11], B);
  ImageFileClose(file);
}

TEST(Tga, GreyAndGreyWithAlpha) {
  TgaSpec s;
  s.image_type = 3, s.width = 2, s.depth = 8, s.descriptor = 0x20;
  EXPECT_EQ(Read(MakeTga(s, {0x10, 0xF0}), "g.tga").pixels, (std::vector<uint32_t>{0xFF101010, 0xFFF0F0F0}));
  s.depth = 16;
  ImageInfo info{};
  EXPECT_EQ(Read(MakeTga(s, {0x10, 0x80, 0xF0, 0x00}), "g.tga", 0, nullptr, &info).pixels,
            (std::vector<uint32_t>{0x80101010, 0x00F0F0F0}));
  EXPECT_TRUE(info.has_alpha);
  EXPECT_TRUE(info.is_gray);
}

TEST(Tga, RunLengthPacketsMayCrossRows) {
  TgaSpec s;
  s.image_type = 10, s.width = 3, s.height = 2, s.descriptor = 0x20;
  // A run of 4 red (crosses into row 2), then a raw packet of 2: green, blue.
  const std::vector<uint8_t> data = {0x83, 0, 0, 255, 0x01, 0, 255, 0, 255, 0, 0};
  ImageInfo info{};
  EXPECT_EQ(Read(MakeTga(s, data), "r.tga", 0, nullptr, &info).pixels, (std::vector<uint32_t>{R, R, R, R, G, B}));
  EXPECT_EQ(info.compression, 1);
}

TEST(Tga, RunLengthColourMappedAndGrey) {
  TgaSpec s;
  s.image_type = 9, s.width = 4, s.depth = 8, s.descriptor = 0x20;
  s.map_length = 2, s.map_bits = 16;
  s.map = {0x00, 0x7C, 0x1F, 0x00};  // 15-bit red, blue
  EXPECT_EQ(Read(MakeTga(s, {0x82, 1, 0x00, 0}), "r.tga").pixels, (std::vector<uint32_t>{B, B, B, R}));
  TgaSpec grey;
  grey.image_type = 11, grey.width = 3, grey.depth = 8, grey.descriptor = 0x20;
  EXPECT_EQ(Read(MakeTga(grey, {0x82, 0x7F}), "r.tga").pixels, (std::vector<uint32_t>(3, 0xFF7F7F7F)));
}

TEST(Tga, RunsLongerThanThePictureStopAtItsEnd) {
  TgaSpec s;
  s.image_type = 10, s.width = 2, s.descriptor = 0x20;
  EXPECT_EQ(Read(MakeTga(s, {0xFF, 0, 255, 0}), "r.tga").pixels, (std::vector<uint32_t>{G, G}));
}

TEST(Tga, TruncatedDataGivesAnErrorAndAPartialPicture) {
  TgaSpec s;
  s.image_type = 10, s.width = 4, s.descriptor = 0x20;
  bool ok = true;
  const Picture p = Read(MakeTga(s, {0x81, 0, 0, 255, 0x01, 255}), "t.tga", 0, &ok);
  EXPECT_FALSE(ok);
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{R, R, 0xFF000000, 0xFF000000}));
  TgaSpec raw;
  raw.width = 3, raw.descriptor = 0x20;
  ok = true;
  Read(MakeTga(raw, {1, 2, 3, 4}), "t.tga", 0, &ok);
  EXPECT_FALSE(ok);
}

TEST(Tga, BadHeadersAreRefused) {
  ImageError error{};
  TgaSpec s;
  s.depth = 12;
  std::vector<uint8_t> bad_depth = MakeTga(s, {1, 2});
  EXPECT_EQ(ImageFileOpenMemory(bad_depth.data(), bad_depth.size(), "x.tga", &error), nullptr);
  TgaSpec mapped;
  mapped.image_type = 1, mapped.depth = 8, mapped.map_length = 200, mapped.map_bits = 24;
  mapped.map = {1, 2, 3};  // far fewer entries than stated
  std::vector<uint8_t> short_map = MakeTga(mapped, {});
  EXPECT_EQ(ImageFileOpenMemory(short_map.data(), short_map.size(), "x.tga", &error), nullptr);
  EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT);
}

}  // namespace
