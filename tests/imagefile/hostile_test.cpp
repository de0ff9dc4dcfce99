// Damaged input: truncation at every stage, random garbage behind a real signature, size limits,
// and the type probe.
#include "test_support.h"

#include <cstring>
#include <random>

#include "support/picture.h"

using namespace imagefile_test;

namespace {

struct Sample {
  const char* label;
  std::vector<uint8_t> bytes;
};

std::vector<Sample> Samples() {
  Picture picture = Pattern(37, 23, true);
  std::vector<Sample> samples;
  samples.push_back({"png", Write({IMAGE_FORMAT_PNG, 1, 0, 0}, picture)});
  samples.push_back({"tga", Write({IMAGE_FORMAT_TGA, 1, 0, 0}, picture)});
  samples.push_back({"bmp", Write({IMAGE_FORMAT_BMP, 1, 0, 0}, picture)});
  samples.push_back({"jpg", Write({IMAGE_FORMAT_JPEG, 0, 80, 0}, picture)});
  samples.push_back({"tif", Write({IMAGE_FORMAT_TIFF, 1, 0, 0}, picture)});
  samples.push_back({"exr", Write({IMAGE_FORMAT_EXR, 1, 0, 1}, picture)});
  samples.push_back({"gif", test_support::GifAnimation(16, 12, 1, 0, -1)});
  return samples;
}

// Opens and reads frame 0; returns true when both succeeded. Failures must say why.
bool OpenAndRead(const std::vector<uint8_t>& bytes, const std::string& name) {
  ImageError error{};
  int ok = 0;
  if (const OpenFile file = Open(bytes, name.c_str(), &error)) {
    const ImageInfo* info = ImageFileInfo(file.get());
    std::vector<float> pixels(size_t(info->width) * size_t(info->height) * 4);
    ImagePixels view{pixels.data(), ptrdiff_t(info->width) * 16, info->width, info->height, IMAGE_PIXELS_FLOAT};
    ok = ImageFileReadFrame(file.get(), 0, &view, &error);
  }
  if (!ok) {
    EXPECT_NE(error.code, IMAGE_OK);
    EXPECT_NE(error.text[0], 0);
  }
  return ok == 1;
}

TEST(Hostile, EverySampleIsReadableWhole) {
  for (const Sample& s : Samples()) EXPECT_TRUE(OpenAndRead(s.bytes, std::string("x.") + s.label)) << s.label;
}

TEST(Hostile, TruncationAnywhereFailsCleanly) {
  for (const Sample& s : Samples()) {
    const std::string name = std::string("x.") + s.label;
    const size_t size = s.bytes.size();
    for (size_t cut = 0; cut < size; cut += std::max<size_t>(1, size / 97)) {
      std::vector<uint8_t> part(s.bytes.begin(), s.bytes.begin() + ptrdiff_t(cut));
      const bool ok = OpenAndRead(part, name);
      // Cut in the middle, every format must notice.
      if (cut >= 8 && cut <= size / 2) {
        EXPECT_FALSE(ok) << s.label << " cut at " << cut << " of " << size;
      }
    }
  }
}

TEST(Hostile, RandomBytesBehindTheHeaderNeverCrash) {
  std::mt19937 random(1234);
  for (const Sample& s : Samples()) {
    const std::string name = std::string("x.") + s.label;
    for (int round = 0; round < 60; ++round) {
      std::vector<uint8_t> bytes = s.bytes;
      // Flip a handful of bytes; keep the first four so the type is still found.
      const int flips = 1 + int(random() % 8);
      for (int i = 0; i < flips && bytes.size() > 4; ++i) bytes[4 + random() % (bytes.size() - 4)] = uint8_t(random());
      OpenAndRead(bytes, name);
    }
    std::vector<uint8_t> noise(s.bytes.begin(), s.bytes.begin() + std::min<ptrdiff_t>(8, ptrdiff_t(s.bytes.size())));
    for (int i = 0; i < 400; ++i) noise.push_back(uint8_t(random()));
    OpenAndRead(noise, name);
  }
}

class SmallLimits : public ::testing::Test {
 protected:
  void SetUp() override { ImageGetLimits(&side_, &pixels_); }
  void TearDown() override { ImageSetLimits(side_, pixels_); }
  uint32_t side_ = 0;
  uint64_t pixels_ = 0;
};

TEST_F(SmallLimits, EveryReaderRefusesPicturesOverTheLimits) {
  const std::vector<Sample> samples = Samples();
  ImageSetLimits(15, 1u << 20);  // the samples are 37 or 16 wide
  for (const Sample& s : samples) EXPECT_EQ(OpenError(s.bytes), IMAGE_ERROR_TOO_LARGE) << s.label;
  ImageSetLimits(1000, 100);  // total pixels too
  for (const Sample& s : samples) EXPECT_NE(OpenError(s.bytes), IMAGE_OK) << s.label;
}

TEST(Hostile, GiantHeadersAreRefusedBeforeAllocating) {
  // TGA of 65535x65535 with almost no data.
  Bytes tga;
  tga.u8(0).u8(0).u8(2).u16(0).u16(0).u8(0).u16(0).u16(0).u16(65535).u16(65535).u8(24).u8(0).u32(0);
  EXPECT_EQ(OpenError(tga.v, "x.tga"), IMAGE_ERROR_TOO_LARGE);
  // GIF screen of 65535x65535.
  Bytes gif;
  gif.str("GIF89a").u16(65535).u16(65535).u8(0).u8(0).u8(0).u8(0x3B);
  EXPECT_EQ(OpenError(gif.v), IMAGE_ERROR_TOO_LARGE);
  // JPEG start of frame claiming 65000x65000.
  Bytes jpeg;
  jpeg.u8(0xFF).u8(0xD8).u8(0xFF).u8(0xC0).u8(0).u8(11).u8(8).u8(0xFD).u8(0xE8).u8(0xFD).u8(0xE8).u8(1);
  jpeg.u8(1).u8(0x11).u8(0).u8(0xFF).u8(0xD9);
  EXPECT_NE(OpenError(jpeg.v), IMAGE_OK);
}

// OpenEXR headers of parts that are not read (deep data, unknown types) are refused by the part
// type's name; a tile type in a file of scan lines, and a channel whose sample type has no
// decoder, are damaged files.
TEST(Hostile, ExrHeadersOfPartsNotReadAreRefused) {
  Picture picture = Pattern(9, 7, false);
  const std::vector<uint8_t> good = Write({IMAGE_FORMAT_EXR, 1, 0, 1}, picture);
  ASSERT_GT(good.size(), 8u);
  // Every type given counts; an empty or good one before doesn't hide a bad one.
  const auto withTypes = [&](const char* types, std::string* last) {
    Bytes typed;
    typed.raw({good.begin(), good.begin() + 8});
    std::string list = types, type;
    for (size_t from = 0; from <= list.size();) {
      const size_t comma = std::min(list.find(',', from), list.size());
      type = list.substr(from, comma - from);
      typed.str("type").u8(0).str("string").u8(0).u32(uint32_t(type.size())).str(type.c_str());
      from = comma + 1;
    }
    typed.raw({good.begin() + 8, good.end()});
    *last = type;
    return typed;
  };
  for (const char* types : {"deeptile", "mystery", ",deepscanline", "scanlineimage,deepscanline"}) {
    std::string type;
    const Bytes typed = withTypes(types, &type);
    ImageError error{};
    EXPECT_EQ(ImageFileOpenMemory(typed.v.data(), typed.v.size(), "x.exr", &error), nullptr) << types;
    EXPECT_EQ(error.code, IMAGE_ERROR_UNSUPPORTED) << types << ": " << error.text;
    EXPECT_NE(std::strstr(error.text, type.c_str()), nullptr) << error.text;
  }
  {
    std::string type;
    const Bytes tiles = withTypes("tiledimage", &type);
    ImageError error{};
    EXPECT_EQ(ImageFileOpenMemory(tiles.v.data(), tiles.v.size(), "x.exr", &error), nullptr);
    EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT) << error.text;
  }
  // The first channel record follows "chlist" and its size: a name, then the sample type.
  std::vector<uint8_t> bad = good;
  const std::string text(bad.begin(), bad.end());
  const size_t list = text.find(std::string("chlist\0", 7));
  ASSERT_NE(list, std::string::npos);
  const size_t sampleType = text.find('\0', list + 7 + 4) + 1;
  ASSERT_LT(sampleType + 4, bad.size());
  bad[sampleType] = 7;
  ImageError error{};
  EXPECT_EQ(ImageFileOpenMemory(bad.data(), bad.size(), "x.exr", &error), nullptr);
  EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT) << error.text;
}

TEST(Probe, SignaturesWinOverExtensions) {
  Picture p = Pattern(4, 4, false);
  const struct {
    int format;
    const char* name;
  } cases[] = {{IMAGE_FORMAT_PNG, "looks_like.tga"}, {IMAGE_FORMAT_BMP, "file.jpg"},
               {IMAGE_FORMAT_JPEG, nullptr},         {IMAGE_FORMAT_TIFF, nullptr},
               {IMAGE_FORMAT_EXR, nullptr}};
  for (const auto& c : cases) {
    const std::vector<uint8_t> bytes = Write({c.format, 0, 50, 0}, p);
    EXPECT_EQ(ImageProbeFormat(bytes.data(), bytes.size(), c.name), c.format) << ImageFormatName(c.format);
  }
}

TEST(Probe, TgaNeedsItsExtensionOrAConvincingHeader) {
  // A run-length TGA header with two attribute bits set in the reserved field: only the
  // extension makes it a TGA.
  Bytes tga;
  tga.u8(0).u8(0).u8(10).u16(0).u16(0).u8(0).u16(0).u16(0).u16(2).u16(1).u8(24).u8(0xC0).u8(0x81).u8(1).u8(2).u8(3);
  EXPECT_EQ(ImageProbeFormat(tga.v.data(), tga.v.size(), "pic.TGA"), IMAGE_FORMAT_TGA);
  EXPECT_EQ(ImageProbeFormat(tga.v.data(), tga.v.size(), "pic.dat"), IMAGE_FORMAT_UNKNOWN);
  tga.v[17] = 0x20;
  EXPECT_EQ(ImageProbeFormat(tga.v.data(), tga.v.size(), nullptr), IMAGE_FORMAT_TGA);
  // Text is nothing.
  const char text[] = "Hello, this is not a picture at all.";
  EXPECT_EQ(OpenError({text, text + sizeof text}, "x.png"), IMAGE_ERROR_UNKNOWN_TYPE);
  EXPECT_EQ(ImageFileOpenMemory(text, 0, nullptr, nullptr), nullptr);
}

TEST(Probe, ExtensionsMapToFormats) {
  EXPECT_EQ(ImageFormatFromName("a/b/c.JPEG"), IMAGE_FORMAT_JPEG);
  EXPECT_EQ(ImageFormatFromName("c.tif"), IMAGE_FORMAT_TIFF);
  EXPECT_EQ(ImageFormatFromName("c.Exr"), IMAGE_FORMAT_EXR);
  EXPECT_EQ(ImageFormatFromName("dir.png/file"), IMAGE_FORMAT_UNKNOWN);
  EXPECT_EQ(ImageFormatFromName("noext"), IMAGE_FORMAT_UNKNOWN);
  EXPECT_EQ(ImageFormatFromName(nullptr), IMAGE_FORMAT_UNKNOWN);
}

}  // namespace
