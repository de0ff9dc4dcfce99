// RLA stills and raw 8-bit frame files, built here byte by byte; the common table and probes.
#include "media/readers/rla_codec.h"
#include "media/readers/stream_readers.h"

#include "avi_test_util.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

namespace {

using orn::media::RlaDecodeChannel;

void Be16(std::vector<uint8_t>& v, size_t at, int x) {
  v[at] = uint8_t(x >> 8);
  v[at + 1] = uint8_t(x);
}

// Run-length coding of one channel in literal packets of up to 128 values (runs are read in
// RunLengthCounts).
std::vector<uint8_t> Encode(const std::vector<uint8_t>& s) {
  std::vector<uint8_t> out;
  for (size_t i = 0; i < s.size(); i += 128) {
    const size_t n = std::min<size_t>(128, s.size() - i);
    out.push_back(uint8_t(-int(n)));
    out.insert(out.end(), s.begin() + ptrdiff_t(i), s.begin() + ptrdiff_t(i + n));
  }
  return out;
}

struct Rla {
  int w = 5, h = 3, mattes = 1, channels = 3, bits = 8, storage = 0, left = 10, bottom = 2;
};

// channel values of file row r (0 = bottom), channel c, column x.
uint8_t Value(int r, int c, int x) { return uint8_t(x < 2 ? 200 : r * 50 + c * 20 + x * 3); }

std::vector<uint8_t> BuildRla(const Rla& s) {
  std::vector<uint8_t> f(740, 0);
  Be16(f, 0, s.left), Be16(f, 2, s.left + s.w - 1), Be16(f, 4, s.bottom), Be16(f, 6, s.bottom + s.h - 1);
  Be16(f, 8, s.left), Be16(f, 10, s.left + s.w - 1), Be16(f, 12, s.bottom), Be16(f, 14, s.bottom + s.h - 1);
  Be16(f, 18, s.storage), Be16(f, 20, s.channels), Be16(f, 22, s.mattes);
  Be16(f, 658, s.bits), Be16(f, 662, 8);
  const size_t table = f.size();
  f.resize(table + size_t(s.h) * 4);
  for (int r = 0; r < s.h; ++r) {
    const uint32_t at = uint32_t(f.size());
    for (int i = 0; i < 4; ++i) f[table + size_t(r) * 4 + size_t(i)] = uint8_t(at >> (24 - 8 * i));
    for (int c = 0; c < s.channels + s.mattes; ++c) {
      std::vector<uint8_t> line(size_t(s.w));
      for (int x = 0; x < s.w; ++x) line[size_t(x)] = Value(r, c, x);
      const std::vector<uint8_t> coded = Encode(line);
      f.push_back(uint8_t(coded.size() >> 8));
      f.push_back(uint8_t(coded.size()));
      f.insert(f.end(), coded.begin(), coded.end());
    }
  }
  return f;
}

StreamReader* OpenRla(const std::vector<uint8_t>& f, StreamError* error) {
  return StreamReaderOpenMemory(&kStreamReaderRla, f.data(), f.size(), error);
}

TEST(RlaReader, DecodesBottomUpWithMatte) {
  for (int mattes : {1, 0}) {
    Rla s;
    s.mattes = mattes;
    s.w = 140;  // more than one literal packet a line
    const std::vector<uint8_t> file = BuildRla(s);
    StreamError error{};
    StreamReader* r = OpenRla(file, &error);
    ASSERT_NE(r, nullptr) << error.text;
    const StreamInfo* info = StreamReaderInfo(r);
    EXPECT_STREQ(info->type_name, "RLA still image");
    EXPECT_EQ(std::tuple(info->width, info->height, info->frame_count, info->rate_num, info->rate_den, info->has_alpha),
              std::tuple(140u, 3u, 1u, 15u, 1u, uint32_t(mattes)));
    StreamFrame f{};
    ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);
    EXPECT_EQ(std::tuple(f.depth, f.pitch), std::tuple(32u, -140 * 4));
    for (int y = 0; y < 3; ++y) {
      const int row = 2 - y;  // display row y is file row h-1-y
      for (int x = 0; x < 140; ++x) {
        const uint8_t* p = f.pixels + ptrdiff_t(y) * f.pitch + x * 4;
        ASSERT_EQ(std::tuple(p[2], p[1], p[0], p[3]),
                  std::tuple(Value(row, 0, x), Value(row, 1, x), Value(row, 2, x), mattes ? Value(row, 3, x) : 255))
            << x << "," << y;
      }
    }
    EXPECT_EQ(StreamReaderRead(r, 1, &f, &error), 0);
    EXPECT_EQ(error.code, STREAM_ERROR_END);
    StreamReaderClose(r);
  }
}

TEST(RlaReader, RunLengthCounts) {
  uint8_t out[8];
  std::memset(out, 0xEE, sizeof out);
  const uint8_t a[] = {0, 7, 0xFF, 9, 2, 4};  // one 7, one literal 9, three 4s
  EXPECT_EQ(RlaDecodeChannel(a, sizeof a, out, 8), 5u);
  const uint8_t want[] = {7, 9, 4, 4, 4, 0xEE};
  EXPECT_EQ(0, std::memcmp(out, want, sizeof want));
  // Counts past the width or the data stop at either end.
  const uint8_t b[] = {100, 1, 0x80, 2, 3};
  EXPECT_EQ(RlaDecodeChannel(b, sizeof b, out, 4), 4u);
  EXPECT_EQ(RlaDecodeChannel(b + 2, 3, out, 8), 2u);
  EXPECT_EQ(out[1], 3);
  EXPECT_EQ(RlaDecodeChannel(b, 1, out, 8), 0u);
}

// A scanline whose data the file does not hold (an offset past the end, a cut last row) makes
// the picture unreadable: an error naming the row, not a picture with black rows.
TEST(RlaReader, ScanlinesPastTheEndAreErrors) {
  Rla s;
  const std::vector<uint8_t> whole = BuildRla(s);
  for (int damage = 0; damage < 2; ++damage) {
    std::vector<uint8_t> file = whole;
    if (damage == 0) file[740 + 4] = 0x7F;  // row 1's offset points past the end
    else file.resize(file.size() - 3);      // row 2's data is cut short
    StreamError error{};
    StreamReader* r = OpenRla(file, &error);
    ASSERT_NE(r, nullptr) << error.text;
    StreamFrame f{};
    EXPECT_EQ(StreamReaderRead(r, 0, &f, &error), 0);
    EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
    EXPECT_NE(std::string(error.text).find(damage == 0 ? "row 1" : "row 2"), std::string::npos)
        << error.text;
    StreamReaderClose(r);
  }
}

TEST(RlaReader, CleanErrors) {
  StreamError error{};
  struct Case {
    Rla s;
    int code;
  } cases[] = {{{5, 3, 1, 4}, STREAM_ERROR_UNSUPPORTED},         {{5, 3, 1, 3, 16}, STREAM_ERROR_UNSUPPORTED},
               {{5, 3, 2}, STREAM_ERROR_UNSUPPORTED},            {{5, 3, 1, 3, 8, 2}, STREAM_ERROR_UNSUPPORTED},
               {{5000, 3}, STREAM_ERROR_TOO_LARGE},              {{5, 4097}, STREAM_ERROR_TOO_LARGE}};
  for (const Case& c : cases) {
    const std::vector<uint8_t> file = BuildRla(c.s);
    EXPECT_EQ(OpenRla(file, &error), nullptr);
    EXPECT_EQ(error.code, c.code) << error.text;
  }
  std::vector<uint8_t> file = BuildRla(Rla{});
  EXPECT_EQ(OpenRla(std::vector<uint8_t>(file.begin(), file.begin() + 700), &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_FORMAT);
  EXPECT_EQ(OpenRla(std::vector<uint8_t>(file.begin(), file.begin() + 745), &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
  std::vector<uint8_t> inverted = file;
  Be16(inverted, 10, 0);  // active right left of active left
  EXPECT_EQ(OpenRla(inverted, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_FORMAT);
}

TEST(RlaReader, ProbeNeedsTheExtension) {
  const std::vector<uint8_t> file = BuildRla(Rla{});
  EXPECT_TRUE(kStreamReaderRla.probe(file.data(), file.size(), "still.RLA"));
  EXPECT_FALSE(kStreamReaderRla.probe(file.data(), file.size(), "still.bin"));
  EXPECT_FALSE(kStreamReaderRla.probe(file.data(), file.size(), nullptr));
  EXPECT_EQ(StreamReaderProbe(file.data(), file.size(), "a.rla"), &kStreamReaderRla);
  Rla deep;
  deep.bits = 16;
  const std::vector<uint8_t> other = BuildRla(deep);
  EXPECT_FALSE(kStreamReaderRla.probe(other.data(), other.size(), "a.rla"));
}

// Raw frames: "RAWB", frames, width, height, speed, then per frame its markers.
struct Raw : avi_test::Bytes {
  void Palette(uint8_t seed) {
    U32(0);
    for (int i = 0; i < 768; ++i) v.push_back(uint8_t(i * seed));
  }
  void Pixels(int w, int h, uint8_t seed) {
    U32(1);
    for (int i = 0; i < w * h; ++i) v.push_back(uint8_t(i + seed));
  }
};

Raw RawHeader(uint32_t frames, uint32_t w, uint32_t h, int32_t speed) {
  Raw r;
  r.v = {'R', 'A', 'W', 'B'};
  r.U32(frames), r.U32(w), r.U32(h), r.U32(uint32_t(speed));
  return r;
}

StreamReader* OpenRaw(const Raw& r, StreamError* error) {
  return StreamReaderOpenMemory(&kStreamReaderRaw, r.v.data(), r.v.size(), error);
}

void ExpectRawFrame(const StreamFrame& f, int w, int h, uint8_t seed) {
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) ASSERT_EQ(f.pixels[y * f.pitch + x], uint8_t(y * w + x + seed)) << x << "," << y;
}

TEST(RawReader, MarkersPalettesAndEmptyFrames) {
  const int w = 5, h = 3;
  Raw r = RawHeader(4, w, h, 4000);
  r.Palette(3), r.Pixels(w, h, 10);  // frame 0
  r.Pixels(w, h, 20);                // frame 1
  r.U32(7);                          // frame 2: no data
  r.Palette(5), r.Palette(3), r.Pixels(w, h, 40);  // frame 3: two palettes, the last one counts
  StreamError error{};
  StreamReader* reader = OpenRaw(r, &error);
  ASSERT_NE(reader, nullptr) << error.text;
  const StreamInfo* info = StreamReaderInfo(reader);
  EXPECT_STREQ(info->type_name, "");
  EXPECT_EQ(std::tuple(info->frame_count, info->rate_num, info->rate_den, info->palette[3]),
            std::tuple(4u, 100000u, 4000u, 9));
  const uint8_t seeds[4] = {10, 20, 20, 40};
  const uint32_t changed[4] = {1, 0, 0, 0};  // frame 3's palettes end where they began
  for (uint32_t i = 0; i < 4; ++i) {
    StreamFrame f{};
    ASSERT_EQ(StreamReaderRead(reader, i, &f, &error), 1) << error.text;
    EXPECT_EQ(std::tuple(f.pitch, f.depth, f.palette[3], f.palette_changed), std::tuple(8, 8u, 9, changed[i])) << i;
    ExpectRawFrame(f, w, h, seeds[i]);
  }
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(reader, 2, &f, &error), 1);  // back: replayed from the start
  ExpectRawFrame(f, w, h, 20);
  EXPECT_EQ(f.bytes, 4u);
  StreamReaderClose(reader);
}

TEST(RawReader, RatesAndErrors) {
  StreamError error{};
  for (auto [speed, num, den] : {std::tuple{-40, 1000u, 40u}, std::tuple{0, 15u, 1u}, std::tuple{2000, 100000u, 2000u}}) {
    Raw r = RawHeader(1, 2, 2, speed);
    r.Pixels(2, 2, 0);
    StreamReader* reader = OpenRaw(r, &error);
    ASSERT_NE(reader, nullptr) << error.text;
    EXPECT_EQ(std::tuple(StreamReaderInfo(reader)->rate_num, StreamReaderInfo(reader)->rate_den), std::tuple(num, den));
    StreamReaderClose(reader);
  }
  Raw two = RawHeader(2, 4, 2, 10);
  two.Pixels(4, 2, 1);
  two.U32(0);  // a palette marker with the palette cut off
  two.v.resize(two.v.size() + 100);
  StreamReader* reader = OpenRaw(two, &error);
  ASSERT_NE(reader, nullptr);
  StreamFrame f{};
  EXPECT_EQ(StreamReaderRead(reader, 1, &f, &error), 0);
  EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
  ASSERT_EQ(StreamReaderRead(reader, 0, &f, &error), 1);
  ExpectRawFrame(f, 4, 2, 1);
  StreamReaderClose(reader);
  // No frames, an over-large picture, a frame count with no frame behind it.
  for (auto [raw, code] : {std::pair{RawHeader(0, 4, 2, 10), STREAM_ERROR_CORRUPT},
                           {RawHeader(1, 100000, 2, 10), STREAM_ERROR_TOO_LARGE},
                           {RawHeader(1, 4, 2, 10), STREAM_ERROR_CORRUPT}}) {
    EXPECT_EQ(OpenRaw(raw, &error), nullptr);
    EXPECT_EQ(error.code, code);
  }
  const uint8_t junk[] = {'R', 'A', 'W'};
  EXPECT_EQ(StreamReaderOpenMemory(&kStreamReaderRaw, junk, sizeof junk, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_FORMAT);
}

// Only the last frame may be cut by the end of the file (a stopped capture): it is delivered as
// far as it goes and marked so; a cut frame before it is an error. A frame count that the file
// cannot hold (4 bytes of marker at least for each) is refused at the open.
TEST(RawReader, CutFramesAndImpossibleCounts) {
  const int w = 4, h = 3;
  Raw r = RawHeader(3, w, h, 10);
  r.Pixels(w, h, 1), r.Pixels(w, h, 2), r.Pixels(w, h, 3);
  for (const bool lastOnly : {true, false}) {
    Raw cut = r;
    // Cut into frame 3's second row, or frame 2's (and leave frame 3 out).
    const size_t frame = lastOnly ? 2 : 1;
    cut.v.resize(20 + frame * (4 + w * h) + 4 + w + 2);
    StreamError error{};
    StreamReader* reader = OpenRaw(cut, &error);
    ASSERT_NE(reader, nullptr) << error.text;
    StreamFrame f{};
    ASSERT_EQ(StreamReaderRead(reader, 0, &f, &error), 1);
    EXPECT_EQ(f.cut_short, 0u);
    if (lastOnly) {
      ASSERT_EQ(StreamReaderRead(reader, 1, &f, &error), 1);
      EXPECT_EQ(f.cut_short, 0u);
      ASSERT_EQ(StreamReaderRead(reader, 2, &f, &error), 1) << error.text;
      EXPECT_EQ(f.cut_short, 1u);
      for (int x = 0; x < w; ++x) EXPECT_EQ(f.pixels[x], uint8_t(x + 3));  // its first row is there
    } else {
      EXPECT_EQ(StreamReaderRead(reader, 1, &f, &error), 0);
      EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
      EXPECT_NE(std::string(error.text).find("frame 2 is cut short"), std::string::npos) << error.text;
    }
    StreamReaderClose(reader);
  }
  Raw claims = RawHeader(1000, w, h, 10);
  claims.Pixels(w, h, 1);
  StreamError error{};
  EXPECT_EQ(OpenRaw(claims, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
  EXPECT_NE(std::string(error.text).find("1000 frames"), std::string::npos) << error.text;
}

TEST(StreamTable, RowsAndProbeOrder) {
  size_t count = 0;
  const StreamReaderOps* const* table = StreamReaderTable(&count);
  ASSERT_EQ(count, 5u);
  for (size_t i = 0; i < count; ++i) {
    EXPECT_EQ(StreamReaderFind(table[i]->format), table[i]);
    EXPECT_NE(table[i]->open, nullptr);
    EXPECT_NE(table[i]->open_memory, nullptr);
    EXPECT_FALSE(table[i]->probe(nullptr, 0, nullptr));
  }
  EXPECT_EQ(StreamReaderFind(12345), nullptr);
  const uint8_t y4m[] = "YUV4MPEG2 W2 H2\n";
  const uint8_t raw[] = "RAWB\1\0\0\0";
  EXPECT_EQ(StreamReaderProbe(y4m, sizeof y4m, "x"), &kStreamReaderY4m);
  EXPECT_EQ(StreamReaderProbe(raw, sizeof raw, "x"), &kStreamReaderRaw);
  EXPECT_EQ(StreamReaderProbe(raw, 2, "x.raw"), nullptr);
  StreamError error{};
  EXPECT_EQ(StreamReaderOpen(nullptr, "x", &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_ARGUMENT);
  EXPECT_EQ(StreamReaderOpen(&kStreamReaderFlic, "/nonexistent/clip.flc", &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_OPEN);
  EXPECT_EQ(StreamReaderOpen(&kStreamReaderRaw, "", &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_ARGUMENT);
}

}  // namespace
