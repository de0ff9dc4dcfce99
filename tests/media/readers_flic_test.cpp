// Flic reader: a hand-built file with every chunk kind, the ring frame, seeks, rates, and
// damaged files.
#include "media/readers/flic_codec.h"
#include "media/readers/stream_readers.h"

#include "avi_test_util.h"

#include <gtest/gtest.h>

#include <array>
#include <cstring>
#include <random>
#include <tuple>
#include <vector>

namespace {

using orn::media::FlicApplyChunk;
using orn::media::FlicCanvas;
using avi_test::Bytes;

constexpr int kW = 8, kH = 4;
using Picture = std::array<uint8_t, kW * kH>;

// A sub-chunk: 32-bit size, 16-bit type, data.
std::vector<uint8_t> Chunk(int type, const Bytes& data) {
  Bytes c;
  c.U32(uint32_t(6 + data.v.size())), c.U16(type), c.Put(data.v);
  return c.v;
}

// A frame chunk holding the given sub-chunks.
std::vector<uint8_t> Frame(const std::vector<std::vector<uint8_t>>& chunks) {
  Bytes f;
  size_t size = 16;
  for (const auto& c : chunks) size += c.size();
  f.U32(uint32_t(size)), f.U16(0xF1FA), f.U16(int(chunks.size())), f.Put({0, 0, 0, 0, 0, 0, 0, 0});
  for (const auto& c : chunks) f.Put(c);
  return f.v;
}

// BRUN of a whole picture: each row as one literal run (negative count), except rows that
// are one colour, which are one repeat run.
Bytes ByteRun(const Picture& p) {
  Bytes b;
  for (int y = 0; y < kH; ++y) {
    const uint8_t* row = &p[size_t(y * kW)];
    b.U8(1);
    if (std::all_of(row, row + kW, [&](uint8_t c) { return c == row[0]; })) {
      b.U8(kW);
      b.U8(row[0]);
    } else {
      b.U8(-kW & 0xFF);
      for (int x = 0; x < kW; ++x) b.U8(row[x]);
    }
  }
  return b;
}

std::vector<uint8_t> Header(uint16_t magic, int frames, int32_t speed) {
  Bytes h;
  h.U32(0), h.U16(magic), h.U16(frames), h.U16(kW), h.U16(kH), h.U16(8), h.U16(0);
  if (magic == 0xAF11) {
    h.U16(speed), h.U16(0);
  } else {
    h.U32(uint32_t(speed));
  }
  h.v.resize(128);
  return h.v;
}

struct TestFlic {
  std::vector<uint8_t> file;
  std::vector<Picture> pictures;  // expected picture of each frame
  std::vector<std::array<uint8_t, 768>> palettes;
};

// Frames: 0 palette + BRUN; 1 LC; 2 SS2; 3 COLOR_64 + BLACK; 4 COPY + PSTAMP; 5 empty; then the
// ring frame. A prefix chunk stands before frame 0.
TestFlic BuildFlic() {
  TestFlic t;
  std::array<uint8_t, 768> pal{};
  Picture p{};

  Bytes c256;
  c256.Put({2, 0});  // two packets
  c256.Put({0, 2, 10, 20, 30, 40, 50, 60});
  c256.Put({1, 1, 70, 80, 90});  // skip index 2
  pal[0] = 10, pal[1] = 20, pal[2] = 30, pal[3] = 40, pal[4] = 50, pal[5] = 60, pal[9] = 70, pal[10] = 80,
  pal[11] = 90;
  const Picture first = {1, 1, 1, 1, 1, 1, 1, 1,  //
                         0, 1, 2, 3, 4, 5, 6, 7,  //
                         2, 2, 2, 9, 8, 7, 6, 5,  //
                         3, 3, 3, 3, 3, 3, 3, 3};
  p = first;
  t.pictures.push_back(p), t.palettes.push_back(pal);
  std::vector<std::vector<uint8_t>> frames;
  frames.push_back(Frame({Chunk(4, c256), Chunk(15, ByteRun(first))}));

  Bytes lc;
  lc.U16(1), lc.U16(2);  // skip 1 line, 2 lines
  lc.Put({1, 2, 3, 20, 21, 22});           // line 1: skip 2, copy 3
  lc.Put({2, 0, 0xFE, 44, 3, 1, 55});      // line 2: repeat 44 twice, skip 3, copy 1
  p[8 + 2] = 20, p[8 + 3] = 21, p[8 + 4] = 22;
  p[16 + 0] = 44, p[16 + 1] = 44, p[16 + 5] = 55;
  t.pictures.push_back(p), t.palettes.push_back(pal);
  frames.push_back(Frame({Chunk(12, lc)}));

  Bytes ss2;
  // Two coded lines: skip one line, the last pixel of line 1 = 0x77, one packet; skip line 2,
  // one packet: skip 4, the pair 5,6 twice.
  ss2.U16(2), ss2.U16(0xFFFF), ss2.U16(0x8077), ss2.U16(1), ss2.Put({0, 1, 91, 92});
  ss2.U16(0xFFFF), ss2.U16(1), ss2.Put({4, 0xFE, 5, 6});
  p[8 + 7] = 0x77, p[8 + 0] = 91, p[8 + 1] = 92;
  p[24 + 4] = 5, p[24 + 5] = 6, p[24 + 6] = 5, p[24 + 7] = 6;
  t.pictures.push_back(p), t.palettes.push_back(pal);
  frames.push_back(Frame({Chunk(7, ss2)}));

  Bytes c64;
  c64.Put({1, 0, 0, 1, 63, 0, 32});
  pal[0] = 255, pal[1] = 0, pal[2] = 130;
  p.fill(0);
  t.pictures.push_back(p), t.palettes.push_back(pal);
  frames.push_back(Frame({Chunk(11, c64), Chunk(13, Bytes{})}));

  Bytes copy, stamp;
  for (int i = 0; i < kW * kH; ++i) copy.U8(100 + i), p[size_t(i)] = uint8_t(100 + i);
  stamp.Put({4, 0, 4, 0, 15, 0, 1, 2, 3, 4});
  t.pictures.push_back(p), t.palettes.push_back(pal);
  frames.push_back(Frame({Chunk(16, copy), Chunk(18, stamp)}));

  t.pictures.push_back(p), t.palettes.push_back(pal);
  frames.push_back(Frame({}));

  Bytes ring_pal;
  ring_pal.Put({1, 0, 0, 1, 10, 20, 30});
  frames.push_back(Frame({Chunk(4, ring_pal), Chunk(15, ByteRun(first))}));

  Bytes file{Header(0xAF12, 6, 50)};
  file.U32(12), file.U16(0xF100), file.Put({0, 0, 0, 0, 0, 0});  // the prefix chunk
  for (const auto& f : frames) file.Put(f);
  file.Patch32(0, uint32_t(file.size())), file.Patch32(80, 128);
  t.file = file.v;
  return t;
}

Picture Copy(const StreamFrame& f) {
  Picture p{};
  for (int y = 0; y < kH; ++y) std::memcpy(&p[size_t(y * kW)], f.pixels + ptrdiff_t(y) * f.pitch, kW);
  return p;
}

StreamReader* OpenBytes(const std::vector<uint8_t>& bytes, StreamError* error) {
  return StreamReaderOpenMemory(&kStreamReaderFlic, bytes.data(), bytes.size(), error);
}

TEST(FlicReader, EveryChunkKindInOrderThenTheRingAndSeeks) {
  const TestFlic t = BuildFlic();
  StreamError error{};
  StreamReader* r = OpenBytes(t.file, &error);
  ASSERT_NE(r, nullptr) << error.text;
  const StreamInfo* info = StreamReaderInfo(r);
  EXPECT_STREQ(info->type_name, "Flic");
  EXPECT_EQ(std::tuple(info->width, info->height, info->frame_count, info->depth, info->rate_num, info->rate_den),
            std::tuple(uint32_t(kW), uint32_t(kH), 6u, 8u, 1000u, 50u));
  EXPECT_EQ(0, std::memcmp(info->palette, t.palettes[0].data(), 768));
  const uint32_t expected_changed[6] = {1, 0, 0, 1, 0, 0};
  for (uint32_t i = 0; i < 6; ++i) {
    StreamFrame f{};
    ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1) << i << ": " << error.text;
    EXPECT_EQ(std::tuple(f.depth, f.pitch), std::tuple(8u, kW));
    EXPECT_EQ(Copy(f), t.pictures[i]) << "frame " << i;
    EXPECT_EQ(0, std::memcmp(f.palette, t.palettes[i].data(), 768)) << "frame " << i;
    EXPECT_EQ(f.palette_changed, expected_changed[i]) << "frame " << i;
    EXPECT_GE(f.bytes, 16u);
  }
  StreamFrame f{};
  EXPECT_EQ(StreamReaderRead(r, 6, &f, &error), 0);
  EXPECT_EQ(error.code, STREAM_ERROR_END);
  // After the last frame the ring frame leads back to frame 0.
  ASSERT_EQ(StreamReaderRead(r, 5, &f, &error), 1);
  ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);
  EXPECT_EQ(Copy(f), t.pictures[0]);
  EXPECT_EQ(0, std::memcmp(f.palette, t.palettes[0].data(), 768));
  EXPECT_EQ(f.palette_changed, 1u);
  // Backwards and forwards in jumps.
  for (uint32_t i : {4u, 2u, 5u, 1u, 3u, 3u, 0u}) {
    ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1) << i;
    EXPECT_EQ(Copy(f), t.pictures[i]) << "frame " << i;
    EXPECT_EQ(0, std::memcmp(f.palette, t.palettes[i].data(), 768)) << "frame " << i;
  }
  StreamReaderClose(r);
}

TEST(FlicReader, RatesOfBothKinds) {
  struct Case {
    uint16_t magic;
    int32_t speed;
    uint32_t num, den;
  } cases[] = {{0xAF12, 40, 1000, 40}, {0xAF12, -4000, 100000, 4000}, {0xAF11, 5, 70, 5}, {0xAF12, 0, 15, 1}};
  for (const Case& c : cases) {
    std::vector<uint8_t> file = Header(c.magic, 1, c.speed);
    const auto frame = Frame({Chunk(13, Bytes{})});
    file.insert(file.end(), frame.begin(), frame.end());
    StreamError error{};
    StreamReader* r = OpenBytes(file, &error);
    ASSERT_NE(r, nullptr) << error.text;
    EXPECT_EQ(std::tuple(StreamReaderInfo(r)->rate_num, StreamReaderInfo(r)->rate_den), std::tuple(c.num, c.den))
        << c.speed;
    StreamReaderClose(r);
  }
}

TEST(FlicReader, TruncatedFileReadsTheWholeFramesAndRefusesTheCutOne) {
  const TestFlic t = BuildFlic();
  // Where frame `n` starts (behind the prefix chunk).
  auto frameAt = [&t](int n) {
    size_t at = 128 + 12;
    for (int i = 0; i < n; ++i) at += t.file[at] | t.file[at + 1] << 8;
    return at;
  };
  // Cut inside frame 4's raw copy: frame 5 is not in the file, so the count is refused.
  std::vector<uint8_t> cut(t.file.begin(), t.file.begin() + ptrdiff_t(frameAt(4) + 16 + 6 + 10));
  StreamError error{};
  EXPECT_EQ(OpenBytes(cut, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
  EXPECT_NE(std::string(error.text).find("claims 6 frames; the file holds 5"), std::string::npos) << error.text;

  // Cut inside the last frame's chunk: the whole frames read, the cut one is damage, not a
  // picture to guess at.
  cut.assign(t.file.begin(), t.file.begin() + ptrdiff_t(frameAt(5) + 10));
  StreamReader* r = OpenBytes(cut, &error);
  ASSERT_NE(r, nullptr) << error.text;
  StreamFrame f{};
  for (uint32_t i = 0; i < 5; ++i) {
    ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1);
    EXPECT_EQ(Copy(f), t.pictures[i]);
  }
  EXPECT_EQ(StreamReaderRead(r, 5, &f, &error), 0);
  EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
  EXPECT_NE(std::string(error.text).find("frame 6 is cut short"), std::string::npos) << error.text;
  StreamReaderClose(r);
}

// A cut header, a wrong magic, 16-bit pixels, an over-large picture, no frame behind the header.
TEST(FlicReader, RejectsBadHeaders) {
  const std::vector<uint8_t> file = Header(0xAF12, 1, 10);
  std::vector<uint8_t> bad_magic = file, deep = file, huge = file;
  bad_magic[4] = 0x34;
  deep[12] = 16;
  huge[8] = huge[9] = huge[10] = huge[11] = 0xFF;
  for (auto [bytes, code] : {std::pair{std::vector<uint8_t>(file.begin(), file.begin() + 60), STREAM_ERROR_FORMAT},
                             {bad_magic, STREAM_ERROR_FORMAT}, {deep, STREAM_ERROR_UNSUPPORTED},
                             {huge, STREAM_ERROR_TOO_LARGE}, {file, STREAM_ERROR_CORRUPT}}) {
    StreamError error{};
    EXPECT_EQ(OpenBytes(bytes, &error), nullptr);
    EXPECT_EQ(error.code, code) << error.text;
  }
}

TEST(FlicReader, ProbeLooksAtMagicAndSizes) {
  const TestFlic t = BuildFlic();
  EXPECT_TRUE(kStreamReaderFlic.probe(t.file.data(), 128, "x.bin"));
  EXPECT_EQ(StreamReaderProbe(t.file.data(), 128, nullptr), &kStreamReaderFlic);
  std::vector<uint8_t> zero_frames = t.file;
  zero_frames[6] = zero_frames[7] = 0;
  EXPECT_FALSE(kStreamReaderFlic.probe(zero_frames.data(), 128, nullptr));
  EXPECT_FALSE(kStreamReaderFlic.probe(t.file.data(), 8, nullptr));
}

// Chunk decoders fed with counts that run past the data or the canvas stay inside both.
TEST(FlicChunks, HostileCountsStayInBounds) {
  std::vector<uint8_t> pixels(kW * kH + 16, 0xEE);  // guard bytes behind the canvas
  FlicCanvas canvas{kW, kH, pixels.data(), {}};
  std::fill(pixels.begin(), pixels.begin() + kW * kH, 0);
  const uint8_t brun[] = {0, 0x7F, 9, 0x80, 1, 2};                // run of 127, literal of 128 cut short
  const uint8_t lc[] = {3, 0, 0xFF, 0xFF, 1, 250, 0x7F, 1, 2};    // start at the last line, far skip
  const uint8_t ss2[] = {0xFF, 0xFF, 0x00, 0x80, 0xFF, 0xFF, 0x00, 0x40};  // far line skip, kind 01
  const uint8_t ss2_long[] = {0xFF, 0x00, 0xFF, 0x00, 6, 0x7F, 1, 2};       // 255 packets, data ends
  const uint8_t pal[] = {0xFF, 0xFF, 250, 0, 1, 2, 3};             // 256 entries from 250, data ends
  FlicApplyChunk(&canvas, 15, brun, sizeof brun);
  FlicApplyChunk(&canvas, 12, lc, sizeof lc);
  FlicApplyChunk(&canvas, 7, ss2, sizeof ss2);
  FlicApplyChunk(&canvas, 7, ss2_long, sizeof ss2_long);
  EXPECT_TRUE(FlicApplyChunk(&canvas, 4, pal, sizeof pal));
  for (size_t i = kW * kH; i < pixels.size(); ++i) EXPECT_EQ(pixels[i], 0xEE);
  EXPECT_EQ(pixels[0], 9);  // the run filled the first row
  EXPECT_EQ(canvas.palette[250 * 3], 1);
}

TEST(FlicReader, RandomDamageNeverBreaksTheReader) {
  const TestFlic t = BuildFlic();
  std::mt19937 rng(7);
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> file = t.file;
    for (int k = 0; k < 6; ++k) file[128 + rng() % (file.size() - 128)] = uint8_t(rng());
    StreamError error{};
    StreamReader* r = OpenBytes(file, &error);
    if (!r) continue;
    StreamFrame f{};
    for (uint32_t i : {0u, 3u, 5u, 1u}) StreamReaderRead(r, i, &f, &error);
    StreamReaderClose(r);
  }
}

}  // namespace
