// AVI reader: files written here with uncompressed 8/16/24/32-bit and Motion-JPEG video, idx1
// in both offset forms, no index at all, OpenDML super and standard indexes across an AVIX
// extension, dropped frames, sound chunk lists, and damaged files.
#include "media/readers/mjpeg_codec.h"
#include "media/readers/stream_readers.h"

#include "avi_test_util.h"
#include "imagefile/imagefile.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

namespace {

using namespace avi_test;

// A picture that differs by position, channel and frame number.
uint8_t Sample(int frame, int x, int y, int c) { return uint8_t(frame * 40 + x * 17 + y * 29 + c * 71); }

// Uncompressed frame data for `bits` with rows stored bottom-up unless top_down.
std::vector<uint8_t> RawFrame(int frame, int w, int h, int bits, bool top_down) {
  const int stride = ((w * bits + 31) / 32) * 4;
  std::vector<uint8_t> d(size_t(stride * h), 0);
  for (int y = 0; y < h; ++y) {
    uint8_t* row = &d[size_t((top_down ? y : h - 1 - y) * stride)];
    for (int x = 0; x < w; ++x) {
      if (bits == 8) row[x] = Sample(frame, x, y, 0);
      if (bits == 16) {
        const int v = (Sample(frame, x, y, 0) & 0x7FFF) | (Sample(frame, x, y, 1) << 8 & 0x7F00);
        row[x * 2] = uint8_t(v), row[x * 2 + 1] = uint8_t(v >> 8);
      }
      if (bits >= 24)
        for (int c = 0; c < bits / 8; ++c) row[x * (bits / 8) + c] = Sample(frame, x, y, c);
    }
  }
  return d;
}

StreamReader* Open(const std::vector<uint8_t>& file, StreamError* error) {
  return StreamReaderOpenMemory(&kStreamReaderAvi, file.data(), file.size(), error);
}

// Checks that a delivered frame holds `expected` (display rows, stride of the format).
void ExpectFrame(const StreamFrame& f, const std::vector<uint8_t>& stored, int w, int h, int bits, bool top_down) {
  const int stride = ((w * bits + 31) / 32) * 4;
  for (int y = 0; y < h; ++y) {
    const uint8_t* want = &stored[size_t((top_down ? y : h - 1 - y) * stride)];
    ASSERT_EQ(0, std::memcmp(f.pixels + ptrdiff_t(y) * f.pitch, want, size_t(w * bits / 8))) << "row " << y;
  }
}

// Opens built files; the reader open last is closed at the end.
class AviReaderTest : public ::testing::Test {
 protected:
  void OpenSpec(const AviSpec& s) {
    if (r) StreamReaderClose(r);
    built = BuildAvi(s);
    r = Open(built.file, &error);
  }
  void TearDown() override {
    if (r) StreamReaderClose(r);
  }
  Built built;
  StreamError error{};
  StreamReader* r = nullptr;
};

TEST_F(AviReaderTest, UncompressedDepthsAndOrders) {
  struct Case {
    int bits;
    bool top_down;
    AviSpec::Index index;
    bool looping = false;  // the OpenDML super index names its standard indexes twice
  } cases[] = {{24, false, AviSpec::kIdx1},  {32, true, AviSpec::kNone},     {16, false, AviSpec::kIdx1Absolute},
               {8, false, AviSpec::kIdx1},   {24, true, AviSpec::kOpenDml},  {32, false, AviSpec::kIdx1},
               {32, false, AviSpec::kOpenDml, true}};
  for (const Case& c : cases) {
    AviSpec s;
    s.width = 7;  // rows need padding at 8, 16 and 24 bits
    s.height = c.top_down ? -5 : 5;
    s.bits = c.bits;
    s.index = c.index;
    s.looping_super_index = c.looping;
    if (c.bits == 8)
      for (int i = 0; i < 256; ++i) s.palette.insert(s.palette.end(), {uint8_t(i), uint8_t(255 - i), uint8_t(i / 2), 0});
    for (int i = 0; i < 4; ++i) s.frames.push_back(RawFrame(i, 7, 5, c.bits, c.top_down));
    OpenSpec(s);
    ASSERT_NE(r, nullptr) << c.bits << ": " << error.text;
    const StreamInfo* info = StreamReaderInfo(r);
    SCOPED_TRACE(testing::Message() << c.bits << " bits, index " << c.index);
    EXPECT_STREQ(info->type_name, "AVI (uncompressed)");
    EXPECT_EQ(std::tuple(info->width, info->height, info->depth, info->frame_count, info->rate_num,
                         info->rate_den, info->has_sound),
              std::tuple(7u, 5u, uint32_t(c.bits), 4u, 30000u, 1001u, 0u));
    if (c.bits == 8) {  // RGBQUAD is B, G, R
      EXPECT_EQ(std::tuple(info->palette[30], info->palette[31], info->palette[32]), std::tuple(5, 245, 10));
    }
    for (uint32_t i : {0u, 1u, 3u, 2u}) {
      StreamFrame f{};
      ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1) << error.text;
      EXPECT_EQ(f.depth, uint32_t(c.bits));
      EXPECT_EQ(f.pitch < 0, !c.top_down);
      EXPECT_EQ(f.bytes, s.frames[i].size());
      if (c.bits == 8) {
        EXPECT_EQ(0, std::memcmp(f.palette, info->palette, 768));
      }
      ExpectFrame(f, s.frames[i], 7, 5, c.bits, c.top_down);
    }
    StreamFrame f{};
    EXPECT_EQ(StreamReaderRead(r, 4, &f, &error), 0);
    EXPECT_EQ(error.code, STREAM_ERROR_END);
  }
}

// With an index, a chunk the index does not name is no frame; walking finds it.
TEST_F(AviReaderTest, IndexesDecideTheFrames) {
  for (AviSpec::Index index : {AviSpec::kIdx1, AviSpec::kOpenDml, AviSpec::kNone}) {
    AviSpec s;
    s.index = index;
    s.stray_frame = true;
    for (int i = 0; i < 5; ++i) s.frames.push_back(RawFrame(i, 6, 4, 24, false));
    OpenSpec(s);
    ASSERT_NE(r, nullptr) << error.text;
    EXPECT_EQ(StreamReaderInfo(r)->frame_count, index == AviSpec::kNone ? 6u : 5u);
    StreamFrame f{};
    ASSERT_EQ(StreamReaderRead(r, 4, &f, &error), 1);
    ExpectFrame(f, s.frames[index == AviSpec::kNone ? 3 : 4], 6, 4, 24, false);
  }
}

TEST_F(AviReaderTest, EmptyChunkRepeatsThePreviousPicture) {
  AviSpec s;
  s.frames = {RawFrame(0, 6, 4, 24, false), {}, {}, RawFrame(3, 6, 4, 24, false)};
  OpenSpec(s);
  ASSERT_NE(r, nullptr) << error.text;
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 3, &f, &error), 1);
  ASSERT_EQ(StreamReaderRead(r, 2, &f, &error), 1);  // reached directly: goes back to frame 0
  ExpectFrame(f, s.frames[0], 6, 4, 24, false);
  EXPECT_EQ(f.bytes, 0u);
}

TEST_F(AviReaderTest, ShortChunkGivesBlackBelow) {
  AviSpec s;
  std::vector<uint8_t> full = RawFrame(1, 6, 4, 24, false);
  s.frames = {std::vector<uint8_t>(full.begin(), full.begin() + 18 * 2)};  // the bottom two rows only
  OpenSpec(s);
  ASSERT_NE(r, nullptr) << error.text;
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);
  EXPECT_EQ(0, std::memcmp(f.pixels + 3 * f.pitch, full.data(), 18));
  for (int y = 0; y < 2; ++y)
    for (int i = 0; i < 18; ++i) EXPECT_EQ(f.pixels[y * f.pitch + i], 0);
}

TEST_F(AviReaderTest, SoundChunksAreListed) {
  for (AviSpec::Index index : {AviSpec::kIdx1, AviSpec::kNone}) {
    AviSpec s;
    s.index = index;
    // 16-bit stereo with two extra format bytes.
    s.sound.push_back({WaveFormat(1, 2, 22050, 16), {}});
    s.sound[0].format[16] = 2;
    s.sound[0].format.insert(s.sound[0].format.end(), {0xEF, 0xBE});
    for (int i = 0; i < 3; ++i) {
      s.frames.push_back(RawFrame(i, 6, 4, 24, false));
      s.sound[0].chunks.push_back(std::vector<uint8_t>(size_t(100 + i * 7), uint8_t(i + 1)));
    }
    OpenSpec(s);
    ASSERT_NE(r, nullptr) << error.text;
    EXPECT_EQ(StreamReaderInfo(r)->has_sound, 1u);
    ASSERT_EQ(StreamReaderAudioTrackCount(r), 1u);
    StreamAudioTrack t{};
    ASSERT_TRUE(StreamReaderAudioTrack(r, 0, &t));
    StreamAudioTrack none{};
    EXPECT_EQ(StreamReaderAudioTrack(r, 1, &none), 0);
    EXPECT_EQ(std::tuple(t.format_tag, t.channels, t.samples_per_second, t.bytes_per_second, t.block_align,
                         t.bits_per_sample, t.rate, t.scale, t.total_bytes),
              std::tuple(1, 2, 22050u, 88200u, 4, 16, 88200u, 4u, 100u + 107u + 114u));
    ASSERT_EQ(t.extra_size, 2);
    EXPECT_EQ(t.extra[0], 0xEF);
    ASSERT_EQ(t.chunk_count, 3u);
    for (uint32_t i = 0; i < 3; ++i) {
      EXPECT_EQ(t.chunks[i].offset, built.sound_at[i]);
      std::vector<uint8_t> data(200, 0);
      ASSERT_EQ(StreamReaderReadAudio(r, 0, i, data.data(), data.size()), s.sound[0].chunks[i].size());
      EXPECT_EQ(data[0], i + 1);
      EXPECT_EQ(data[s.sound[0].chunks[i].size() - 1], i + 1);
    }
    EXPECT_EQ(StreamReaderReadAudio(r, 0, 3, nullptr, 0), 0u);
  }
}

// A picture that differs by position, channel and frame number, as ARGB.
std::vector<uint32_t> ArgbPicture(int frame, int w, int h) {
  std::vector<uint32_t> v(size_t(w * h), 0xFF000000u);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c) v[size_t(y * w + x)] |= uint32_t(uint8_t((x * 8 + frame * 50) * (c + 1) + y * 4)) << (16 - 8 * c);
  return v;
}

// A JPEG of picture `frame`, written by the image file library through libjpeg with its
// standard tables, for Motion-JPEG frames.
std::vector<uint8_t> EncodeJpeg(int frame, int w, int h) {
  std::vector<uint32_t> px = ArgbPicture(frame, w, h);
  const ImagePixels p{px.data(), ptrdiff_t(w) * 4, w, h, IMAGE_PIXELS_ARGB32};
  const ImageWriteParams params{IMAGE_FORMAT_JPEG, 0, 90, 0};
  void* data = nullptr;
  size_t size = 0;
  EXPECT_TRUE(ImageWriteMemory(&params, &p, &data, &size, nullptr));
  const std::vector<uint8_t> out(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
  ImageFreeMemory(data);
  return out;
}

// The image file library's decoding of a JPEG, as rows of B, G, R, A.
std::vector<uint8_t> DecodeJpeg(const std::vector<uint8_t>& jpg, int w, int h) {
  std::vector<uint8_t> out(size_t(w) * h * 4);
  const ImagePixels p{out.data(), ptrdiff_t(w) * 4, w, h, IMAGE_PIXELS_ARGB32};
  ImageFile* f = ImageFileOpenMemoryAs(jpg.data(), jpg.size(), IMAGE_FORMAT_JPEG, nullptr);
  EXPECT_TRUE(f && ImageFileReadFrame(f, 0, &p, nullptr));
  if (f) ImageFileClose(f);
  return out;
}

// Removes every DHT segment, as AVI1 Motion-JPEG writers do.
std::vector<uint8_t> StripTables(const std::vector<uint8_t>& jpg) {
  std::vector<uint8_t> out(jpg.begin(), jpg.begin() + 2);
  size_t at = 2;
  while (at + 4 <= jpg.size() && jpg[at] == 0xFF && jpg[at + 1] != 0xDA) {
    const size_t len = size_t(jpg[at + 2] << 8 | jpg[at + 3]) + 2;
    if (jpg[at + 1] != 0xC4) out.insert(out.end(), jpg.begin() + ptrdiff_t(at), jpg.begin() + ptrdiff_t(at + len));
    at += len;
  }
  out.insert(out.end(), jpg.begin() + ptrdiff_t(at), jpg.end());
  return out;
}

TEST_F(AviReaderTest, MotionJpegFramesMatchAPlainDecode) {
  const int w = 40, h = 24;
  for (bool strip : {false, true}) {
    AviSpec s;
    s.width = w, s.height = h, s.bits = 24, s.compression = FourCC("MJPG");
    std::vector<std::vector<uint8_t>> reference;
    for (int i = 0; i < 3; ++i) {
      const std::vector<uint8_t> jpg = EncodeJpeg(i, w, h);
      reference.push_back(DecodeJpeg(jpg, w, h));
      s.frames.push_back(strip ? StripTables(jpg) : jpg);
    }
    if (strip) {
      ASSERT_FALSE(orn::media::MjpegHasHuffmanTables(s.frames[0].data(), s.frames[0].size()));
    }
    OpenSpec(s);
    ASSERT_NE(r, nullptr) << error.text;
    EXPECT_STREQ(StreamReaderInfo(r)->type_name, "AVI (Motion-JPEG)");
    EXPECT_EQ(StreamReaderInfo(r)->depth, 32u);
    for (uint32_t i : {0u, 2u, 1u}) {
      StreamFrame f{};
      ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1);
      EXPECT_EQ(f.pitch, w * 4);
      for (int y = 0; y < h; ++y)
        ASSERT_EQ(0, std::memcmp(f.pixels + y * f.pitch, &reference[i][size_t(y * w * 4)], size_t(w * 4)))
            << "strip " << strip << " frame " << i << " row " << y;
    }
  }
}

TEST_F(AviReaderTest, MotionJpegFieldPairsAreInterleaved) {
  const int w = 16, h = 16;
  AviSpec s;
  s.width = w, s.height = h, s.compression = FourCC("MJPG");
  const std::vector<uint8_t> top = EncodeJpeg(0, w, h / 2), bottom = EncodeJpeg(3, w, h / 2);
  std::vector<uint8_t> pair = StripTables(top);
  const std::vector<uint8_t> second = StripTables(bottom);
  pair.insert(pair.end(), second.begin(), second.end());
  s.frames = {pair};
  const std::vector<uint8_t> even = DecodeJpeg(top, w, h / 2), odd = DecodeJpeg(bottom, w, h / 2);
  OpenSpec(s);
  ASSERT_NE(r, nullptr) << error.text;
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);
  for (int y = 0; y < h; ++y) {
    const std::vector<uint8_t>& field = (y & 1) ? odd : even;
    ASSERT_EQ(0, std::memcmp(f.pixels + y * f.pitch, &field[size_t((y / 2) * w * 4)], size_t(w * 4))) << y;
  }
}

// The inserted tables are the ones libjpeg writes by default: its tables, read from a file it
// wrote, equal what the insertion puts in.
TEST(MjpegTables, InsertedTablesAreTheStandardOnes) {
  const std::vector<uint8_t> jpg = EncodeJpeg(1, 16, 16);
  auto tables_of = [](const std::vector<uint8_t>& j) {
    std::vector<uint8_t> all;
    size_t at = 2;
    while (at + 4 <= j.size() && j[at + 1] != 0xDA) {
      const size_t len = size_t(j[at + 2] << 8 | j[at + 3]);
      if (j[at + 1] == 0xC4) all.insert(all.end(), j.begin() + ptrdiff_t(at + 4), j.begin() + ptrdiff_t(at + 2 + len));
      at += 2 + len;
    }
    return all;
  };
  std::vector<uint8_t> fixed;
  ASSERT_TRUE(orn::media::MjpegInsertStandardTables(StripTables(jpg).data(), StripTables(jpg).size(), &fixed));
  EXPECT_TRUE(orn::media::MjpegHasHuffmanTables(fixed.data(), fixed.size()));
  // libjpeg writes DC luma, AC luma, DC chroma, AC chroma, as the insertion does.
  EXPECT_EQ(tables_of(fixed), tables_of(jpg));
  std::vector<uint8_t> none;
  const uint8_t not_jpeg[] = {1, 2, 3, 4, 5};
  EXPECT_FALSE(orn::media::MjpegInsertStandardTables(not_jpeg, sizeof not_jpeg, &none));
}

TEST(AviReader, CleanErrors) {
  AviSpec s;
  s.frames = {RawFrame(0, 6, 4, 24, false)};
  const std::vector<uint8_t> good = BuildAvi(s).file;
  std::vector<uint8_t> not_riff = good;
  not_riff[0] = 'X';
  AviSpec empty, xvid = s, huge = s, four_bit = s;
  xvid.compression = FourCC("XVID");
  huge.width = 100000;
  four_bit.bits = 4;
  // Not RIFF; cut inside the header list; no frames; an unknown coding; an over-large picture;
  // 4-bit pixels.
  const struct {
    std::vector<uint8_t> file;
    int code;
  } cases[] = {{not_riff, STREAM_ERROR_FORMAT},
               {{good.begin(), good.begin() + 11}, STREAM_ERROR_FORMAT},
               {{good.begin(), good.begin() + 100}, STREAM_OK},  // any error
               {BuildAvi(empty).file, STREAM_ERROR_CORRUPT},
               {BuildAvi(xvid).file, STREAM_ERROR_UNSUPPORTED},
               {BuildAvi(huge).file, STREAM_ERROR_TOO_LARGE},
               {BuildAvi(four_bit).file, STREAM_ERROR_UNSUPPORTED}};
  for (const auto& c : cases) {
    StreamError error{};
    EXPECT_EQ(Open(c.file, &error), nullptr) << c.file.size();
    if (c.code == STREAM_OK) {
      EXPECT_NE(error.code, STREAM_OK);
    } else {
      EXPECT_EQ(error.code, c.code) << c.file.size();
    }
  }
  StreamError error{};
  EXPECT_EQ(Open(BuildAvi(xvid).file, &error), nullptr);
  EXPECT_NE(std::string(error.text).find("XVID"), std::string::npos);
}

TEST(AviReader, RandomDamageNeverBreaksTheReader) {
  AviSpec s;
  s.index = AviSpec::kOpenDml;
  for (int i = 0; i < 4; ++i) s.frames.push_back(EncodeJpeg(i, 16, 8));
  s.width = 16, s.height = 8, s.compression = FourCC("MJPG");
  const std::vector<uint8_t> good = BuildAvi(s).file;
  std::mt19937 rng(11);
  for (int round = 0; round < 300; ++round) {
    std::vector<uint8_t> file = good;
    for (int k = 0; k < 4; ++k) file[rng() % file.size()] = uint8_t(rng());
    if (round % 3 == 0) file.resize(rng() % file.size());
    StreamError error{};
    StreamReader* r = Open(file, &error);
    if (!r) continue;
    StreamFrame f{};
    for (uint32_t i = 0; i < 5; ++i) StreamReaderRead(r, i, &f, &error);
    StreamReaderClose(r);
  }
}

TEST(AviReader, ProbeAndTable) {
  AviSpec s;
  s.frames = {RawFrame(0, 6, 4, 24, false)};
  const std::vector<uint8_t> file = BuildAvi(s).file;
  EXPECT_EQ(StreamReaderProbe(file.data(), file.size(), "a.avi"), &kStreamReaderAvi);
  EXPECT_EQ(StreamReaderFind(STREAM_FORMAT_AVI), &kStreamReaderAvi);
  std::vector<uint8_t> wave = file;
  std::memcpy(&wave[8], "WAVE", 4);
  EXPECT_FALSE(kStreamReaderAvi.probe(wave.data(), wave.size(), nullptr));
}

}  // namespace
