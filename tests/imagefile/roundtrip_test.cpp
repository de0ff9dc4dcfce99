// Writer to reader round trips for every format, alpha handling, pixel kinds and pitches.
#include "test_support.h"

#include "support/files.h"

#include <cmath>
#include <cstring>

using namespace imagefile_test;

namespace {

// An odd width gives row padding in BMP and TGA. Without alpha kept, the pattern's alpha must
// be dropped and the colours come back exactly.
TEST(RoundTrip, LosslessFormatsGiveThePixelsBack) {
  Picture original = Pattern(37, 23, true);
  for (int format : {IMAGE_FORMAT_PNG, IMAGE_FORMAT_TGA, IMAGE_FORMAT_BMP, IMAGE_FORMAT_TIFF})
    for (int alpha : {0, 1}) {
      SCOPED_TRACE(std::string(ImageFormatName(format)) + (alpha ? " with alpha" : " without alpha"));
      ImageInfo info{};
      const Picture back = Read(Write(ImageWriteParams{format, alpha, 90, 0}, original), nullptr, 0, nullptr, &info);
      EXPECT_EQ(info.format, format);
      EXPECT_EQ(info.has_alpha, alpha);
      EXPECT_EQ(back, Pattern(37, 23, alpha));
    }
}

double Psnr(const Picture& a, const Picture& b) {
  double sum = 0;
  for (size_t i = 0; i < a.pixels.size(); ++i)
    for (int shift = 0; shift < 24; shift += 8) {
      const double d = double((a.pixels[i] >> shift) & 255) - double((b.pixels[i] >> shift) & 255);
      sum += d * d;
    }
  const double mse = sum / (3.0 * double(a.pixels.size()));
  return mse == 0 ? 99.0 : 10.0 * std::log10(255.0 * 255.0 / mse);
}

TEST(RoundTrip, JpegQualityControlsFidelityAndIsClamped) {
  Picture original = Smooth(64, 48);
  const std::vector<uint8_t> high = Write(ImageWriteParams{IMAGE_FORMAT_JPEG, 0, 95, 0}, original);
  const std::vector<uint8_t> low = Write(ImageWriteParams{IMAGE_FORMAT_JPEG, 0, 5, 0}, original);
  ImageInfo info{};
  const Picture back_high = Read(high, nullptr, 0, nullptr, &info);
  const Picture back_low = Read(low);
  EXPECT_EQ(info.format, IMAGE_FORMAT_JPEG);
  EXPECT_FALSE(info.has_alpha);
  EXPECT_GT(Psnr(original, back_high), 38.0);
  EXPECT_GT(Psnr(original, back_low), 20.0);
  EXPECT_LT(Psnr(original, back_low), Psnr(original, back_high));
  EXPECT_LT(low.size(), high.size());
  for (uint32_t p : back_high.pixels) ASSERT_EQ(p >> 24, 255u);
  EXPECT_EQ(Write(ImageWriteParams{IMAGE_FORMAT_JPEG, 0, 400, 0}, original),
            Write(ImageWriteParams{IMAGE_FORMAT_JPEG, 0, 100, 0}, original));
}

// Float pictures written as EXR with `params` and read back as floats: 32-bit values with alpha
// exactly, half values without alpha closely and opaque.
TEST(RoundTrip, ExrFloatAndHalfValues) {
  const struct {
    int w, h;
    ImageWriteParams params;
    int alpha, bits;
  } cases[] = {{13, 7, {IMAGE_FORMAT_EXR, 1, 0, 0}, 1, 128}, {9, 5, {IMAGE_FORMAT_EXR, 0, 0, 1}, 0, 48}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.bits);
    std::vector<float> values(size_t(c.w) * size_t(c.h) * 4);
    for (size_t i = 0; i < values.size(); ++i) values[i] = float(i % 97) * 0.37f - 3.5f + (i % 4 == 3 ? 4.0f : 0.0f);
    const ImagePixels view{values.data(), ptrdiff_t(c.w) * 16, c.w, c.h, IMAGE_PIXELS_FLOAT};
    ImageInfo info{};
    const std::vector<float> back = ReadSamples<float>(WriteView(c.params, view), IMAGE_PIXELS_FLOAT, &info);
    EXPECT_EQ(info.format, IMAGE_FORMAT_EXR);
    EXPECT_TRUE(info.is_hdr);
    EXPECT_EQ(info.has_alpha, c.alpha);
    EXPECT_EQ(info.bits_per_pixel, c.bits);
    ASSERT_EQ(back.size(), values.size());
    for (size_t i = 0; i < back.size(); ++i) {
      if (c.alpha || i % 4 == 3) {
        ASSERT_EQ(back[i], c.alpha ? values[i] : 1.0f) << i;
      } else {
        ASSERT_NEAR(back[i], values[i], std::fabs(values[i]) / 1024.0f + 1e-3f) << i;
      }
    }
  }
  // An ARGB picture is scaled to the unit range and reads back as the same bytes.
  Picture original = Pattern(8, 4, true);
  EXPECT_EQ(Read(Write(ImageWriteParams{IMAGE_FORMAT_EXR, 1, 0, 0}, original)), original);
}

TEST(Pixels, BottomUpDestinationWithNegativePitch) {
  Picture original = Pattern(10, 6, false);
  const OpenFile file = Open(Write(ImageWriteParams{IMAGE_FORMAT_PNG, 0, 0, 0}, original));
  ASSERT_NE(file, nullptr);
  // Memory holds the bottom row first; rows are 48 bytes apart (padding beyond 40).
  std::vector<uint8_t> memory(48 * 6, 0xEE);
  ImagePixels view{memory.data() + 48 * 5, -48, 10, 6, IMAGE_PIXELS_ARGB32};
  ASSERT_EQ(ImageFileReadFrame(file.get(), 0, &view, nullptr), 1);
  for (int y = 0; y < 6; ++y) {
    const uint8_t* row = memory.data() + 48 * (5 - y);
    for (int x = 0; x < 10; ++x) {
      uint32_t p;
      std::memcpy(&p, row + 4 * x, 4);
      ASSERT_EQ(p, original.at(x, y)) << x << "," << y;
    }
    for (int pad = 40; pad < 48; ++pad) ASSERT_EQ(row[pad], 0xEE);  // padding untouched
  }
}

TEST(Pixels, EightBitSourcesWidenExactlyToSixteenBitAndFloat) {
  Picture original = Pattern(5, 3, true);
  const OpenFile file = Open(Write(ImageWriteParams{IMAGE_FORMAT_TGA, 1, 0, 0}, original));
  ASSERT_NE(file, nullptr);
  std::vector<uint16_t> wide(5 * 3 * 4);
  std::vector<float> floats(5 * 3 * 4);
  ImagePixels wide_view{wide.data(), 40, 5, 3, IMAGE_PIXELS_RGBA16};
  ImagePixels float_view{floats.data(), 80, 5, 3, IMAGE_PIXELS_FLOAT};
  ASSERT_EQ(ImageFileReadFrame(file.get(), 0, &wide_view, nullptr), 1);
  ASSERT_EQ(ImageFileReadFrame(file.get(), 0, &float_view, nullptr), 1);
  for (int i = 0; i < 15; ++i) {
    const uint32_t p = original.pixels[size_t(i)];
    const uint32_t channel[4] = {(p >> 16) & 255, (p >> 8) & 255, p & 255, p >> 24};
    for (int c = 0; c < 4; ++c) {
      EXPECT_EQ(wide[size_t(i) * 4 + size_t(c)], channel[c] * 257);
      EXPECT_FLOAT_EQ(floats[size_t(i) * 4 + size_t(c)], float(channel[c]) / 255.0f);
    }
  }
}

TEST(Pixels, DestinationMustMatchThePicture) {
  Picture original = Pattern(4, 4, false);
  const OpenFile file = Open(Write(ImageWriteParams{IMAGE_FORMAT_BMP, 0, 0, 0}, original));
  ASSERT_NE(file, nullptr);
  std::vector<uint32_t> memory(64);
  ImageError error{};
  ImagePixels wrong_size{memory.data(), 16, 5, 4, IMAGE_PIXELS_ARGB32};
  EXPECT_EQ(ImageFileReadFrame(file.get(), 0, &wrong_size, &error), 0);
  EXPECT_EQ(error.code, IMAGE_ERROR_ARGUMENT);
  ImagePixels short_pitch{memory.data(), 8, 4, 4, IMAGE_PIXELS_ARGB32};
  EXPECT_EQ(ImageFileReadFrame(file.get(), 0, &short_pitch, &error), 0);
  ImagePixels right{memory.data(), 16, 4, 4, IMAGE_PIXELS_ARGB32};
  EXPECT_EQ(ImageFileReadFrame(file.get(), 1, &right, &error), 0);  // one frame only
  EXPECT_EQ(ImageFileReadFrame(file.get(), 0, &right, &error), 1);
}

TEST(Files, WriteAndOpenByName) {
  const test_support::ScratchDir dir;
  const std::string name = dir / "picture";
  Picture original = Pattern(12, 9, true);
  ImagePixels view = original.View();
  const ImageWriteParams params{IMAGE_FORMAT_TGA, 1, 0, 0};
  ImageError error{};
  ASSERT_EQ(ImageWriteFile(name.c_str(), &params, &view, &error), 1) << error.text;
  // No extension and no signature: the strict TGA header test recognises it.
  ImageFile* file = ImageFileOpen(name.c_str(), &error);
  ASSERT_NE(file, nullptr) << error.text;
  EXPECT_EQ(ImageFileInfo(file)->format, IMAGE_FORMAT_TGA);
  Picture back(12, 9);
  ImagePixels back_view = back.View();
  EXPECT_EQ(ImageFileReadFrame(file, 0, &back_view, &error), 1);
  EXPECT_EQ(back, original);
  ImageFileClose(file);
  EXPECT_EQ(ImageFileOpen((dir / "missing").c_str(), &error), nullptr);
  EXPECT_EQ(error.code, IMAGE_ERROR_OPEN);
}

TEST(Files, WriterRejectsBadArguments) {
  Picture original = Pattern(4, 4, false);
  ImagePixels view = original.View();
  void* data = nullptr;
  size_t size = 0;
  ImageError error{};
  const ImageWriteParams gif_params{IMAGE_FORMAT_GIF, 0, 0, 0};  // GIF has its own writer
  EXPECT_EQ(ImageWriteMemory(&gif_params, &view, &data, &size, &error), 0);
  EXPECT_EQ(error.code, IMAGE_ERROR_ARGUMENT);
  ImagePixels empty = view;
  empty.width = 0;
  const ImageWriteParams png_params{IMAGE_FORMAT_PNG, 0, 0, 0};
  EXPECT_EQ(ImageWriteMemory(&png_params, &empty, &data, &size, &error), 0);
  EXPECT_EQ(ImageWriteFile("/nonexistent-dir/x.png", &png_params, &view, &error), 0);
  EXPECT_EQ(error.code, IMAGE_ERROR_WRITE);
}

}  // namespace
