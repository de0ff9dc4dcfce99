// OpenEXR files as other programs write them: made here with the OpenEXR library itself in every
// compression, as tiles and as several parts, and read back as float pixels.
#include "test_support.h"

#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfMultiPartOutputFile.h>
#include <ImfOutputFile.h>
#include <ImfOutputPart.h>
#include <ImfPartType.h>
#include <ImfTiledOutputFile.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <half.h>

using namespace imagefile_test;

namespace {

// The library's output stream, into memory.
class MemoryOut : public Imf::OStream {
 public:
  MemoryOut() : Imf::OStream("test") {}
  void write(const char c[], int n) override {
    if (at_ + size_t(n) > bytes.size()) bytes.resize(at_ + size_t(n));
    std::memcpy(bytes.data() + at_, c, size_t(n));
    at_ += size_t(n);
  }
  uint64_t tellp() override { return at_; }
  void seekp(uint64_t pos) override { at_ = size_t(pos); }
  std::vector<uint8_t> bytes;

 private:
  size_t at_ = 0;
};

// A picture of four half channels over a data window that does not start at 0,0: smooth ramps
// in R, G and B (so that the lossy compressions stay close) and a stepped alpha.
struct HalfPicture {
  Imath::Box2i window{Imath::V2i(5, -3), Imath::V2i(5 + 41 - 1, -3 + 70 - 1)};
  int width() const { return window.max.x - window.min.x + 1; }
  int height() const { return window.max.y - window.min.y + 1; }
  float Value(int channel, int x, int y) const {
    switch (channel) {
      case 0: return float(x) / float(width());
      case 1: return 2.0f * float(y) / float(height());
      case 2: return 0.25f + float(x + y) / float(4 * (width() + height()));
      default: return (x / 8 + y / 8) % 2 ? 1.0f : 0.5f;
    }
  }
  std::vector<half> Plane(int channel) const {
    std::vector<half> plane(size_t(width()) * size_t(height()));
    for (int y = 0; y < height(); ++y)
      for (int x = 0; x < width(); ++x) plane[size_t(y) * size_t(width()) + size_t(x)] = half(Value(channel, x, y));
    return plane;
  }
};

Imf::Header MakeHeader(const HalfPicture& picture, Imf::Compression compression, const char* channels = "RGBA") {
  Imf::Header header(picture.window, picture.window);
  header.compression() = compression;
  for (const char* c = channels; *c; ++c) header.channels().insert(std::string(1, *c), Imf::Channel(Imf::HALF));
  return header;
}

// A frame buffer over the picture's planes, for the channels named in `channels`.
Imf::FrameBuffer Buffer(const HalfPicture& picture, std::vector<std::vector<half>>* planes,
                        const char* channels = "RGBA") {
  Imf::FrameBuffer buffer;
  planes->clear();
  for (const char* c = channels; *c; ++c) {
    const int index = *c == 'Y' ? 0 : int(std::strchr("RGBA", *c) - "RGBA");
    planes->push_back(picture.Plane(index));
    buffer.insert(std::string(1, *c), Imf::Slice::Make(Imf::HALF, planes->back().data(), picture.window));
  }
  return buffer;
}

std::vector<uint8_t> ScanLines(const HalfPicture& picture, Imf::Compression compression,
                               const char* channels = "RGBA") {
  MemoryOut out;
  {  // the line offsets are written when the file object goes
    Imf::OutputFile file(out, MakeHeader(picture, compression, channels));
    std::vector<std::vector<half>> planes;
    planes.reserve(4);
    file.setFrameBuffer(Buffer(picture, &planes, channels));
    file.writePixels(picture.height());
  }
  return out.bytes;
}

std::vector<uint8_t> Tiles(const HalfPicture& picture, Imf::Compression compression,
                           Imf::LevelMode levels = Imf::ONE_LEVEL) {
  MemoryOut out;
  Imf::Header header = MakeHeader(picture, compression);
  header.setTileDescription(Imf::TileDescription(16, 12, levels));
  {  // the tile offsets are written when the file object goes
    Imf::TiledOutputFile file(out, header);
    std::vector<std::vector<half>> planes;
    planes.reserve(4);
    file.setFrameBuffer(Buffer(picture, &planes));
    file.writeTiles(0, file.numXTiles() - 1, 0, file.numYTiles() - 1);
    // Smaller levels (of a mipmapped file) hold other content; only the full level is read.
    std::vector<std::vector<half>> flat;
    flat.reserve(4);
    for (int level = 1; level < file.numLevels(); ++level) {
      const Imath::Box2i window = file.dataWindowForLevel(level);
      HalfPicture small;
      small.window = window;
      file.setFrameBuffer(Buffer(small, &flat));
      for (auto& plane : flat) std::fill(plane.begin(), plane.end(), half(9.0f));
      file.writeTiles(0, file.numXTiles(level) - 1, 0, file.numYTiles(level) - 1, level);
    }
  }
  return out.bytes;
}

// Two parts: the picture first, then a second picture of other content, which is not read.
std::vector<uint8_t> TwoParts(const HalfPicture& picture) {
  MemoryOut out;
  Imf::Header first = MakeHeader(picture, Imf::ZIP_COMPRESSION);
  first.setName("beauty");
  first.setType(Imf::SCANLINEIMAGE);
  Imf::Header second = MakeHeader(picture, Imf::PIZ_COMPRESSION, "G");
  second.setName("other");
  second.setType(Imf::SCANLINEIMAGE);
  const Imf::Header headers[2] = {first, second};
  {  // the chunk offsets are written when the file object goes
    Imf::MultiPartOutputFile file(out, headers, 2);
    std::vector<std::vector<half>> planes;
    planes.reserve(4);
    Imf::OutputPart part0(file, 0);
    part0.setFrameBuffer(Buffer(picture, &planes));
    part0.writePixels(picture.height());
    std::vector<std::vector<half>> other;
    other.reserve(1);
    Imf::OutputPart part1(file, 1);
    part1.setFrameBuffer(Buffer(picture, &other, "G"));
    for (half& v : other[0]) v = half(7.0f);
    part1.writePixels(picture.height());
  }
  return out.bytes;
}

// Reads the file as float RGBA; empty with a failure when it does not open or read.
std::vector<float> ReadFloats(const std::vector<uint8_t>& bytes, ImageInfo* info) {
  ImageError error{};
  const OpenFile file = Open(bytes, "x.exr", &error);
  EXPECT_TRUE(file) << error.text;
  if (!file) return {};
  *info = *ImageFileInfo(file.get());
  std::vector<float> pixels(size_t(info->width) * size_t(info->height) * 4, -100.0f);
  ImagePixels view{pixels.data(), ptrdiff_t(info->width) * 16, info->width, info->height, IMAGE_PIXELS_FLOAT};
  EXPECT_EQ(ImageFileReadFrame(file.get(), 0, &view, &error), 1) << error.text;
  return pixels;
}

// The largest difference between what was read and what was written, over every channel.
// `grey`: the file held Y only, which all three colours show, with an opaque alpha.
float LargestError(const HalfPicture& picture, const std::vector<float>& pixels, bool grey = false) {
  float largest = 0.0f;
  for (int y = 0; y < picture.height(); ++y)
    for (int x = 0; x < picture.width(); ++x)
      for (int c = 0; c < 4; ++c) {
        const float want = grey ? (c == 3 ? 1.0f : float(half(picture.Value(0, x, y))))
                                : float(half(picture.Value(c, x, y)));
        const float got = pixels[(size_t(y) * size_t(picture.width()) + size_t(x)) * 4 + size_t(c)];
        largest = std::max(largest, std::fabs(got - want));
      }
  return largest;
}

// Scan lines in every compression (the info reports its number; lossless ones give the stored
// halves exactly), tiles, mipmapped tiles, the first of two parts, and luminance alone.
TEST(OpenExr, EveryCompressionLayoutAndChannelSetReadsBack) {
  const HalfPicture picture;
  struct Case {
    std::string label;
    std::function<std::vector<uint8_t>()> make;
    int sub_format;   // -1: not checked
    float tolerance;
    bool grey;
  };
  std::vector<Case> cases = {
      {"tiles, zip", [&] { return Tiles(picture, Imf::ZIP_COMPRESSION); }, -1, 0.0f, false},
      {"tiles, piz", [&] { return Tiles(picture, Imf::PIZ_COMPRESSION); }, -1, 0.0f, false},
      {"mipmapped tiles", [&] { return Tiles(picture, Imf::ZIP_COMPRESSION, Imf::MIPMAP_LEVELS); }, -1, 0.0f, false},
      {"first of two parts", [&] { return TwoParts(picture); }, -1, 0.0f, false},
      {"luminance only", [&] { return ScanLines(picture, Imf::ZIP_COMPRESSION, "Y"); }, -1, 0.0f, true},
  };
  const Imf::Compression compressions[] = {Imf::NO_COMPRESSION,    Imf::RLE_COMPRESSION,  Imf::ZIPS_COMPRESSION,
                                           Imf::ZIP_COMPRESSION,   Imf::PIZ_COMPRESSION,  Imf::PXR24_COMPRESSION,
                                           Imf::B44_COMPRESSION,   Imf::B44A_COMPRESSION, Imf::DWAA_COMPRESSION,
                                           Imf::DWAB_COMPRESSION};
  for (int n = 0; n < 10; ++n)
    cases.push_back({"compression " + std::to_string(n), [&, n] { return ScanLines(picture, compressions[n]); }, n,
                     n < 6 ? 0.0f : 0.02f, false});
  for (const Case& c : cases) {
    SCOPED_TRACE(c.label);
    ImageInfo info{};
    const std::vector<float> pixels = ReadFloats(c.make(), &info);
    ASSERT_FALSE(pixels.empty());
    EXPECT_EQ(info.format, IMAGE_FORMAT_EXR);
    EXPECT_EQ(info.width, picture.width());
    EXPECT_EQ(info.height, picture.height());
    if (c.sub_format >= 0) {
      EXPECT_EQ(info.sub_format, c.sub_format);
      EXPECT_EQ(info.bits_per_pixel, 64);
    }
    EXPECT_EQ(info.is_gray, c.grey ? 1 : 0);
    EXPECT_EQ(info.has_alpha, c.grey ? 0 : 1);
    EXPECT_LE(LargestError(picture, pixels, c.grey), c.tolerance);
  }
}

// A file cut anywhere after its header, or with a damaged chunk, is refused at open with a
// reason: it never reads as a black or half-drawn picture.
TEST(OpenExr, CutAndDamagedFilesAreRefusedAtOpen) {
  const HalfPicture picture;
  for (const Imf::Compression compression : {Imf::NO_COMPRESSION, Imf::ZIP_COMPRESSION, Imf::DWAB_COMPRESSION}) {
    const std::vector<uint8_t> whole = ScanLines(picture, compression);
    ASSERT_GT(whole.size(), 600u);
    for (const size_t size : {size_t(40), size_t(400), whole.size() / 2, whole.size() - 1}) {
      SCOPED_TRACE(std::to_string(int(compression)) + " cut to " + std::to_string(size));
      const std::vector<uint8_t> cut(whole.begin(), whole.begin() + std::ptrdiff_t(size));
      ImageError error{};
      EXPECT_FALSE(Open(cut, "x.exr", &error));
      EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT);
      EXPECT_NE(error.text[0], 0);
    }
  }
  // The last chunk's data overwritten: the size field stays, the compressed bytes do not.
  std::vector<uint8_t> damaged = ScanLines(picture, Imf::ZIP_COMPRESSION);
  for (size_t i = damaged.size() - 40; i < damaged.size(); ++i) damaged[i] = uint8_t(i * 13);
  ImageError error{};
  EXPECT_FALSE(Open(damaged, "x.exr", &error));
  EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT);
}

// A data window over the limits is refused before the library allocates for it.
TEST(OpenExr, LimitsApplyBeforeTheLibraryReads) {
  HalfPicture picture;
  const std::vector<uint8_t> bytes = ScanLines(picture, Imf::ZIP_COMPRESSION);
  uint32_t side = 0;
  uint64_t pixels = 0;
  ImageGetLimits(&side, &pixels);
  ImageSetLimits(40, pixels);
  ImageError error{};
  EXPECT_FALSE(Open(bytes, "x.exr", &error));
  EXPECT_EQ(error.code, IMAGE_ERROR_TOO_LARGE) << error.text;
  ImageSetLimits(side, pixels);
  EXPECT_TRUE(Open(bytes, "x.exr", &error)) << error.text;
}

// Where `name` and its type name stand in the file, the position of the value behind them.
size_t ValueOf(const std::vector<uint8_t>& bytes, const std::string& name, const std::string& type, size_t from = 0) {
  const std::string key = name + std::string(1, '\0') + type + std::string(1, '\0');
  const std::string text(bytes.begin(), bytes.end());
  const size_t at = text.find(key, from);
  return at == std::string::npos ? at : at + key.size() + 4;
}

// Tile sizes and chunk counts that the file's length cannot hold are refused before the library
// makes its offset tables for them.
TEST(OpenExr, ClaimsBeyondTheFileAreRefused) {
  const HalfPicture picture;
  std::vector<uint8_t> tiles = Tiles(picture, Imf::ZIP_COMPRESSION);
  const size_t desc = ValueOf(tiles, "tiles", "tiledesc");
  ASSERT_NE(desc, std::string::npos);
  // A window of 30000 × 8000 in tiles of 1 × 1: 240 million offsets.
  const size_t window = ValueOf(tiles, "dataWindow", "box2i");
  ASSERT_NE(window, std::string::npos);
  const uint32_t corners[4] = {0, 0, 29999, 7999};
  for (int i = 0; i < 4; ++i)
    for (int b = 0; b < 4; ++b) tiles[window + size_t(i) * 4 + size_t(b)] = uint8_t(corners[i] >> (8 * b));
  for (int i = 0; i < 8; ++i) tiles[desc + size_t(i)] = i % 4 == 0 ? 1 : 0;
  ImageError error{};
  EXPECT_FALSE(Open(tiles, "x.exr", &error));
  EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT);
  EXPECT_NE(std::strstr(error.text, "tiles"), nullptr) << error.text;

  // The second part of two claims two billion chunks.
  std::vector<uint8_t> parts = TwoParts(picture);
  const size_t first = ValueOf(parts, "chunkCount", "int");
  const size_t second = ValueOf(parts, "chunkCount", "int", first);
  ASSERT_NE(second, std::string::npos);
  parts[second + 3] = 0x7F;
  EXPECT_FALSE(Open(parts, "x.exr", &error));
  EXPECT_EQ(error.code, IMAGE_ERROR_CORRUPT);
  EXPECT_NE(std::strstr(error.text, "chunks"), nullptr) << error.text;
}

}  // namespace
