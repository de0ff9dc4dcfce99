// Pixel fetches for every frame depth, integer and float.
#include <gtest/gtest.h>

#include "process_test_util.h"

using namespace processtest;

namespace {

std::vector<uint32_t> FetchAll(const PixelFetch& fetch, const uint8_t* row, uint32_t x,
                               uint32_t count) {
  std::vector<uint32_t> out(count);
  fetch.Row(&fetch, row, x, count, out.data());
  return out;
}

TEST(PixelFetch, Depth16SpreadsFiveBitChannels) {
  // 1-5-5-5: bit 15 unused, R in bits 10-14, G in 5-9, B in 0-4.
  const uint16_t pixels[3] = {0x7FFF, 0x8000 | (1 << 10) | (2 << 5) | 3, 0x001F};
  PixelFetch fetch;
  ASSERT_TRUE(PixelFetchSelect(&fetch, 16, nullptr, false));
  const std::vector<uint32_t> out = FetchAll(fetch, Bytes(pixels), 0, 3);
  EXPECT_EQ(out[0], Argb(0, 248, 248, 248));
  EXPECT_EQ(out[1], Argb(0, 8, 16, 24));
  EXPECT_EQ(out[2], Argb(0, 0, 0, 248));
  EXPECT_EQ(FetchAll(fetch, Bytes(pixels), 1, 1)[0], out[1]);
}

TEST(PixelFetch, Depth24And32) {
  const uint8_t bgr[6] = {1, 2, 3, 4, 5, 6};
  PixelFetch fetch;
  ASSERT_TRUE(PixelFetchSelect(&fetch, 24, nullptr, true));  // no alpha: premultiply ignored
  EXPECT_EQ(fetch.Premultiply, 0u);
  EXPECT_EQ(FetchAll(fetch, bgr, 1, 1)[0], Argb(0, 6, 5, 4));
  const uint32_t argb[2] = {Argb(255, 9, 8, 7), Argb(128, 200, 100, 1)};
  ASSERT_TRUE(PixelFetchSelect(&fetch, 32, nullptr, false));
  EXPECT_TRUE(PixelFetchIsPlain32(&fetch));
  EXPECT_EQ(FetchAll(fetch, Bytes(argb), 0, 2), std::vector<uint32_t>(argb, argb + 2));
  ASSERT_TRUE(PixelFetchSelect(&fetch, 32, nullptr, true));
  EXPECT_FALSE(PixelFetchIsPlain32(&fetch));
  // 200 × 128 ÷ 255 = 100.4 → 100; 100 × 128 ÷ 255 = 50.2 → 50; 1 × 128 ÷ 255 = 0.5 → 1.
  EXPECT_EQ(FetchAll(fetch, Bytes(argb), 1, 1)[0], Argb(128, 100, 50, 1));
}

TEST(PixelFetch, Depth64TakesHighBytesOfBigEndianChannels) {
  const uint8_t wide[8] = {0xAA, 0x01, 0xBB, 0x02, 0xCC, 0x03, 0xDD, 0x04};  // A R G B
  PixelFetch fetch;
  ASSERT_TRUE(PixelFetchSelect(&fetch, 64, nullptr, false));
  EXPECT_EQ(FetchAll(fetch, wide, 0, 1)[0], Argb(0xAA, 0xBB, 0xCC, 0xDD));
  ASSERT_TRUE(PixelFetchSelect(&fetch, 64, nullptr, true));
  EXPECT_EQ(FetchAll(fetch, wide, 0, 1)[0], PremultiplyPixel(Argb(0xAA, 0xBB, 0xCC, 0xDD)));
}

TEST(PixelFetch, PaletteDepthsUnpackFromTheHighBits) {
  uint32_t palette[256];
  for (uint32_t i = 0; i < 256; ++i) palette[i] = 0xFF000000u | i * 0x010101u;
  PixelFetch fetch;
  const uint8_t bits[2] = {0b10110000, 0b00000001};
  ASSERT_TRUE(PixelFetchSelect(&fetch, 1, palette, false));
  const std::vector<uint32_t> one = FetchAll(fetch, bits, 0, 16);
  EXPECT_EQ(one[0], 0x010101u);  // top byte cleared: 0RGB
  EXPECT_EQ(one[1], 0u);
  EXPECT_EQ(one[2], 0x010101u);
  EXPECT_EQ(one[15], 0x010101u);
  ASSERT_TRUE(PixelFetchSelect(&fetch, 4, palette, false));
  EXPECT_EQ(FetchAll(fetch, bits, 1, 2), (std::vector<uint32_t>{0, 0}));
  EXPECT_EQ(FetchAll(fetch, bits, 0, 1)[0], 11 * 0x010101u);
  ASSERT_TRUE(PixelFetchSelect(&fetch, 2, palette, false));
  EXPECT_EQ(FetchAll(fetch, bits, 0, 4), (std::vector<uint32_t>{0x020202, 0x030303, 0, 0}));
  ASSERT_TRUE(PixelFetchSelect(&fetch, 8, palette, false));
  EXPECT_EQ(FetchAll(fetch, bits, 1, 1)[0], 0x010101u);
  EXPECT_FALSE(PixelFetchSelect(&fetch, 8, nullptr, false));
  EXPECT_FALSE(PixelFetchSelect(&fetch, 12, palette, false));
}

TEST(PixelFetchFloat, DepthsAndPremultiplying) {
  PixelFetchFloat fetch;
  float out[4];
  const uint8_t wide[8] = {0xFF, 0xFF, 0x80, 0x00, 0x00, 0x00, 0x00, 0x01};  // A R G B
  ASSERT_TRUE(PixelFetchFloatSelect(&fetch, 64, false));
  fetch.Row(&fetch, wide, 0, 1, out);
  EXPECT_FLOAT_EQ(out[0], 32768.0f / 65535.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_FLOAT_EQ(out[2], 1.0f / 65535.0f);
  EXPECT_FLOAT_EQ(out[3], 1.0f);
  const float quad[8] = {0.5f, 2.0f, 1e-6f, 0.25f, 9.0f, 9.0f, 9.0f, 0.0f};
  ASSERT_TRUE(PixelFetchFloatSelect(&fetch, 128, true));
  fetch.Row(&fetch, Bytes(quad), 0, 1, out);
  EXPECT_FLOAT_EQ(out[0], 0.125f);
  EXPECT_FLOAT_EQ(out[1], 0.5f);
  EXPECT_EQ(out[2], 0.0f);  // under 1e-5
  EXPECT_FLOAT_EQ(out[3], 0.25f);
  ASSERT_TRUE(PixelFetchFloatSelect(&fetch, 128, false));
  fetch.Row(&fetch, Bytes(quad), 1, 1, out);
  EXPECT_EQ(out[0], 9.0f);
  const uint32_t argb = Argb(51, 255, 0, 102);
  ASSERT_TRUE(PixelFetchFloatSelect(&fetch, 32, false));
  fetch.Row(&fetch, Bytes(&argb), 0, 1, out);
  EXPECT_FLOAT_EQ(out[0], 1.0f);
  EXPECT_EQ(out[1], 0.0f);
  EXPECT_FLOAT_EQ(out[2], 0.4f);
  EXPECT_FLOAT_EQ(out[3], 0.2f);
  EXPECT_FALSE(PixelFetchFloatSelect(&fetch, 24, false));
}

}  // namespace
