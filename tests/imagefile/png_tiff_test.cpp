// PNG and TIFF variants written with libpng and libtiff directly: 16-bit channels, palettes with
// transparency, grey, interlacing, associated alpha, and pictures read through libtiff's RGBA path.
#include "test_support.h"

#include "support/files.h"

#include <png.h>
#include <tiffio.h>

using namespace imagefile_test;

namespace {

struct PngSpec {
  int width, height, depth, colour_type;
  bool interlace = false;
  std::vector<png_color> palette;
  std::vector<uint8_t> trns;
};

void AppendPng(png_structp png, png_bytep data, size_t length) {
  auto* out = static_cast<std::vector<uint8_t>*>(png_get_io_ptr(png));
  out->insert(out->end(), data, data + length);
}
void FlushPng(png_structp) {}

// `rows` hold the samples as libpng expects them (big-endian for 16 bits).
std::vector<uint8_t> EncodePng(const PngSpec& s, std::vector<std::vector<uint8_t>> rows) {
  std::vector<uint8_t> out;
  png_structp png = png_create_write_struct(PNG_LIBPNG_VER_STRING, nullptr, nullptr, nullptr);
  png_infop info = png_create_info_struct(png);
  if (setjmp(png_jmpbuf(png))) {
    ADD_FAILURE() << "libpng failed";
    png_destroy_write_struct(&png, &info);
    return {};
  }
  png_set_write_fn(png, &out, AppendPng, FlushPng);
  png_set_IHDR(png, info, png_uint_32(s.width), png_uint_32(s.height), s.depth, s.colour_type,
               s.interlace ? PNG_INTERLACE_ADAM7 : PNG_INTERLACE_NONE, PNG_COMPRESSION_TYPE_DEFAULT, PNG_FILTER_TYPE_DEFAULT);
  if (!s.palette.empty()) png_set_PLTE(png, info, s.palette.data(), int(s.palette.size()));
  if (!s.trns.empty()) png_set_tRNS(png, info, s.trns.data(), int(s.trns.size()), nullptr);
  std::vector<png_bytep> pointers;
  for (auto& r : rows) pointers.push_back(r.data());
  png_set_rows(png, info, pointers.data());
  png_write_png(png, info, PNG_TRANSFORM_IDENTITY, nullptr);
  png_destroy_write_struct(&png, &info);
  return out;
}

TEST(Png, SixteenBitRgbaKeepsItsPrecision) {
  const uint16_t samples[8] = {0x1234, 0xFEDC, 0x0001, 0x8000, 0xFFFF, 0x0000, 0x7FFF, 0x0101};
  std::vector<uint8_t> row;
  for (uint16_t v : samples) row.push_back(uint8_t(v >> 8)), row.push_back(uint8_t(v));
  const std::vector<uint8_t> bytes = EncodePng({2, 1, 16, PNG_COLOR_TYPE_RGB_ALPHA, false, {}, {}}, {row});
  ImageInfo info{};
  const std::vector<uint16_t> wide = ReadSamples<uint16_t>(bytes, IMAGE_PIXELS_RGBA16, &info);
  EXPECT_EQ(info.bits_per_channel, 16);
  EXPECT_EQ(info.bits_per_pixel, 64);
  EXPECT_EQ(info.sub_format, PNG_COLOR_TYPE_RGB_ALPHA);
  EXPECT_TRUE(info.has_alpha);
  EXPECT_EQ(wide, std::vector<uint16_t>(samples, samples + 8));
  // Read as ARGB the channels are rounded to 8 bits: 0x1234 -> 0x12, 0xFEDC -> 0xFE, 0x8000 -> 0x80.
  const Picture narrow = Read(bytes);
  EXPECT_EQ(narrow.pixels[0], 0x8012FE00u);
  EXPECT_EQ(narrow.pixels[1], 0x01FF007Fu);
}

TEST(Png, SixteenBitGreyToFloat) {
  const std::vector<uint8_t> bytes = EncodePng({2, 1, 16, PNG_COLOR_TYPE_GRAY, false, {}, {}}, {{0xFF, 0xFF, 0x40, 0x00}});
  ImageInfo info{};
  const std::vector<float> px = ReadSamples<float>(bytes, IMAGE_PIXELS_FLOAT, &info);
  EXPECT_TRUE(info.is_gray);
  ASSERT_EQ(px.size(), 8u);
  EXPECT_FLOAT_EQ(px[0], 1.0f);
  EXPECT_FLOAT_EQ(px[4], float(0x4000) / 65535.0f);
  EXPECT_FLOAT_EQ(px[6], float(0x4000) / 65535.0f);
  EXPECT_FLOAT_EQ(px[7], 1.0f);
}

TEST(Png, PaletteWithTransparencyChunk) {
  PngSpec s{4, 1, 2, PNG_COLOR_TYPE_PALETTE, false, {}, {}};
  s.palette = {{255, 0, 0}, {0, 255, 0}, {0, 0, 255}, {9, 9, 9}};
  s.trns = {0, 128};  // entry 0 clear, entry 1 half, the rest opaque
  const std::vector<uint8_t> bytes = EncodePng(s, {{0x1B}});  // 2-bit indices 0,1,2,3
  ImageInfo info{};
  const Picture p = Read(bytes, nullptr, 0, nullptr, &info);
  EXPECT_TRUE(info.is_palette);
  EXPECT_TRUE(info.has_alpha);
  EXPECT_EQ(info.palette_size, 4);
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>{0x00FF0000, 0x8000FF00, 0xFF0000FF, 0xFF090909}));
}

TEST(Png, LowBitGreyAndAdam7Interlace) {
  PngSpec s{9, 9, 1, PNG_COLOR_TYPE_GRAY, true, {}, {}};
  std::vector<std::vector<uint8_t>> rows;
  for (int y = 0; y < 9; ++y) {
    std::vector<uint8_t> row(2, 0);
    for (int x = 0; x < 9; ++x)
      if ((x + y) % 3 == 0) row[size_t(x / 8)] |= uint8_t(0x80 >> (x % 8));
    rows.push_back(row);
  }
  const Picture p = Read(EncodePng(s, rows));
  for (int y = 0; y < 9; ++y)
    for (int x = 0; x < 9; ++x) ASSERT_EQ(p.at(x, y), (x + y) % 3 == 0 ? 0xFFFFFFFFu : 0xFF000000u) << x << "," << y;
}

// A one-strip TIFF with the given layout; `extra` is the extra-sample kind or -1.
std::vector<uint8_t> EncodeTiff(int w, int h, int bits, int samples, int photometric, int extra,
                                std::vector<uint8_t> data, const std::vector<uint16_t>& colour_map = {}) {
  const test_support::ScratchDir dir;
  TIFF* tif = TIFFOpen((dir / "t.tif").c_str(), "w");
  EXPECT_NE(tif, nullptr);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, uint32_t(w));
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, uint32_t(h));
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, bits);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, photometric);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, uint32_t(h));
  if (extra >= 0) {
    const uint16_t kind = uint16_t(extra);
    TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &kind);
  }
  if (!colour_map.empty()) {
    const size_t n = colour_map.size() / 3;
    TIFFSetField(tif, TIFFTAG_COLORMAP, colour_map.data(), colour_map.data() + n, colour_map.data() + 2 * n);
  }
  EXPECT_GE(TIFFWriteEncodedStrip(tif, 0, data.data(), tmsize_t(data.size())), 0);
  TIFFClose(tif);
  return test_support::ReadFile(dir / "t.tif");
}

TEST(Tiff, SixteenBitRgbKeepsItsPrecision) {
  const uint16_t samples[6] = {0x0102, 0xA0B0, 0xFFFF, 0x0000, 0x7FFF, 0x1234};
  const uint8_t* raw = reinterpret_cast<const uint8_t*>(samples);  // in this machine's order
  const std::vector<uint8_t> bytes = EncodeTiff(2, 1, 16, 3, PHOTOMETRIC_RGB, -1, {raw, raw + sizeof samples});
  ImageInfo info{};
  const std::vector<uint16_t> wide = ReadSamples<uint16_t>(bytes, IMAGE_PIXELS_RGBA16, &info);
  EXPECT_EQ(info.format, IMAGE_FORMAT_TIFF);
  EXPECT_EQ(info.bits_per_channel, 16);
  EXPECT_FALSE(info.has_alpha);
  EXPECT_EQ(wide, (std::vector<uint16_t>{0x0102, 0xA0B0, 0xFFFF, 0xFFFF, 0x0000, 0x7FFF, 0x1234, 0xFFFF}));
}

// Associated alpha is made straight; palettes and bilevel pictures go through the RGBA path.
TEST(Tiff, LayoutsGiveTheirPixels) {
  std::vector<uint16_t> map(3 * 16, 0);
  map[1] = 0xFFFF;       // entry 1 red
  map[16 + 2] = 0xFFFF;  // entry 2 green
  const struct {
    const char* what;
    std::vector<uint8_t> file;
    std::vector<uint32_t> want;
  } cases[] = {
      {"premultiplied colour at alpha 128", EncodeTiff(1, 1, 8, 4, PHOTOMETRIC_RGB, EXTRASAMPLE_ASSOCALPHA, {64, 32, 0, 128}),
       {0x80804000u}},
      {"grey with alpha", EncodeTiff(2, 1, 8, 2, PHOTOMETRIC_MINISBLACK, EXTRASAMPLE_UNASSALPHA, {200, 255, 10, 0}),
       {0xFFC8C8C8, 0x000A0A0A}},
      {"4-bit palette indices 1, 2", EncodeTiff(2, 1, 4, 1, PHOTOMETRIC_PALETTE, -1, {0x12}, map), {R, G}},
      {"min-is-white: 1 is black", EncodeTiff(3, 1, 1, 1, PHOTOMETRIC_MINISWHITE, -1, {0xA0}), {K, W, K}},
  };
  for (const auto& c : cases) EXPECT_EQ(Read(c.file).pixels, c.want) << c.what;
  const ImageInfo associated = InfoOf(cases[0].file);
  EXPECT_TRUE(associated.has_alpha);
  EXPECT_EQ(associated.extra_samples, 1);
  EXPECT_TRUE(InfoOf(cases[2].file).is_palette);
}

}  // namespace
