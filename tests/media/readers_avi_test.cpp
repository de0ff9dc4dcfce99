// AVI reader: files written here with uncompressed 8/16/24/32-bit and Motion-JPEG video, idx1
// in both offset forms, no index at all, OpenDML super and standard indexes across an AVIX
// extension, dropped frames, sound chunk lists, and damaged files.
#include "media/readers/mjpeg_codec.h"
#include "media/readers/stream_readers.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <cstring>
#include <jpeglib.h>
#include <random>
#include <string>
#include <vector>

namespace {

struct Bytes {
  std::vector<uint8_t> v;
  size_t size() const { return v.size(); }
  void U8(int x) { v.push_back(uint8_t(x)); }
  void U16(int x) { U8(x & 0xFF), U8(x >> 8 & 0xFF); }
  void U32(uint32_t x) { U16(int(x & 0xFFFF)), U16(int(x >> 16)); }
  void U64(uint64_t x) { U32(uint32_t(x)), U32(uint32_t(x >> 32)); }
  void Id(const char* s) { v.insert(v.end(), s, s + 4); }
  void Put(const std::vector<uint8_t>& d) { v.insert(v.end(), d.begin(), d.end()); }
  void Patch32(size_t at, uint32_t x) {
    for (int i = 0; i < 4; ++i) v[at + size_t(i)] = uint8_t(x >> (8 * i));
  }
  void Patch64(size_t at, uint64_t x) { Patch32(at, uint32_t(x)), Patch32(at + 4, uint32_t(x >> 32)); }
  // Opens a RIFF or LIST; returns the position of its size field.
  size_t Begin(const char* id, const char* kind) {
    Id(id);
    const size_t at = size();
    U32(0);
    Id(kind);
    return at;
  }
  void End(size_t at) {
    if (size() & 1) U8(0);
    Patch32(at, uint32_t(size() - at - 4));
  }
  // A chunk; returns the position of its data.
  size_t Chunk(const char* id, const std::vector<uint8_t>& data) {
    Id(id);
    U32(uint32_t(data.size()));
    const size_t at = size();
    Put(data);
    if (data.size() & 1) U8(0);
    return at;
  }
};

uint32_t FourCC(const char* s) { return uint32_t(s[0]) | uint32_t(s[1]) << 8 | uint32_t(s[2]) << 16 | uint32_t(s[3]) << 24; }

struct AviSpec {
  int32_t width = 6, height = 4;  // negative height: rows top down
  int bits = 24;
  uint32_t compression = 0;
  std::vector<uint8_t> palette;  // RGBQUAD entries for 8-bit
  std::vector<std::vector<uint8_t>> frames;
  std::vector<std::vector<uint8_t>> sound;  // one sound chunk after each frame, while there are any
  enum Index { kIdx1, kIdx1Absolute, kNone, kOpenDml } index = kIdx1;
  bool stray_chunk = false;  // a video chunk in movi that no index names
  bool looping_super_index = false;
};

std::vector<uint8_t> BitmapHeader(const AviSpec& s) {
  Bytes b;
  b.U32(40);
  b.U32(uint32_t(s.width));
  b.U32(uint32_t(s.height));
  b.U16(1);
  b.U16(s.bits);
  b.U32(s.compression);
  b.U32(0);
  b.U32(0), b.U32(0);
  b.U32(uint32_t(s.palette.size() / 4));
  b.U32(0);
  b.Put(s.palette);
  return b.v;
}

std::vector<uint8_t> StreamHeader(const char* type, const char* handler, uint32_t scale, uint32_t rate,
                                  uint32_t length, uint32_t sample_size) {
  Bytes b;
  b.Id(type);
  b.Id(handler);
  b.U32(0), b.U32(0), b.U32(0);
  b.U32(scale), b.U32(rate), b.U32(0), b.U32(length), b.U32(0), b.U32(0), b.U32(sample_size);
  b.U32(0), b.U32(0);
  return b.v;
}

std::vector<uint8_t> WaveFormat() {
  Bytes b;
  b.U16(1), b.U16(2), b.U32(22050), b.U32(88200), b.U16(4), b.U16(16), b.U16(2), b.U16(0xBEEF);
  return b.v;
}

struct Built {
  std::vector<uint8_t> file;
  std::vector<size_t> sound_at;  // data positions of the sound chunks
};

Built BuildAvi(const AviSpec& s) {
  Built out;
  Bytes b;
  const size_t riff = b.Begin("RIFF", "AVI ");
  const size_t hdrl = b.Begin("LIST", "hdrl");
  Bytes avih;
  avih.U32(40000);
  for (int i = 0; i < 3; ++i) avih.U32(0);
  avih.U32(uint32_t(s.frames.size()));
  avih.U32(0), avih.U32(s.sound.empty() ? 1 : 2), avih.U32(0), avih.U32(uint32_t(s.width)), avih.U32(uint32_t(s.height));
  for (int i = 0; i < 4; ++i) avih.U32(0);
  b.Chunk("avih", avih.v);
  const size_t strl = b.Begin("LIST", "strl");
  b.Chunk("strh", StreamHeader("vids", "    ", 1001, 30000, uint32_t(s.frames.size()), 0));
  b.Chunk("strf", BitmapHeader(s));
  size_t indx_at = 0;
  const size_t split = s.frames.size() / 2 + 1;  // OpenDML: frames from here go into AVIX
  if (s.index == AviSpec::kOpenDml) {
    Bytes x;
    x.U16(4), x.U8(0), x.U8(0), x.U32(2), x.Id("00dc"), x.U32(0), x.U32(0), x.U32(0);
    for (int i = 0; i < 4; ++i) x.U64(0), x.U32(0), x.U32(0);  // room for four entries
    indx_at = b.Chunk("indx", x.v);
  }
  b.End(strl);
  if (!s.sound.empty()) {
    const size_t strl2 = b.Begin("LIST", "strl");
    b.Chunk("strh", StreamHeader("auds", "\0\0\0\0", 4, 88200, 0, 4));
    b.Chunk("strf", WaveFormat());
    b.End(strl2);
  }
  b.End(hdrl);

  struct Written {
    const char* id;
    size_t data;
    uint32_t size;
  };
  std::vector<Written> written;
  std::vector<size_t> frame_data;
  size_t movi = b.Begin("LIST", "movi");
  const size_t movi_word = movi + 4;
  size_t base = movi_word;
  std::vector<std::pair<size_t, uint32_t>> ix;  // position and size of each ix00 chunk
  auto write_ix = [&](size_t first, size_t last) {
    Bytes x;
    x.U16(2), x.U8(0), x.U8(1), x.U32(uint32_t(last - first)), x.Id("00dc"), x.U64(base), x.U32(0);
    for (size_t i = first; i < last; ++i) x.U32(uint32_t(frame_data[i] - base)), x.U32(uint32_t(s.frames[i].size()));
    const size_t at = b.Chunk("ix00", x.v) - 8;
    ix.push_back({at, uint32_t(x.v.size() + 8)});
  };
  size_t avix = 0;  // size field of the AVIX RIFF, once there is one
  for (size_t i = 0; i < s.frames.size(); ++i) {
    if (s.index == AviSpec::kOpenDml && i == split) {
      write_ix(0, split);
      b.End(movi);
      b.End(riff);
      avix = b.Begin("RIFF", "AVIX");
      movi = b.Begin("LIST", "movi");
      base = movi + 4;
    }
    if (s.stray_chunk && i == 1) b.Chunk("00dc", std::vector<uint8_t>(s.frames[0].size(), 0x5A));
    const size_t at = b.Chunk("00dc", s.frames[i]);
    frame_data.push_back(at);
    written.push_back({"00dc", at, uint32_t(s.frames[i].size())});
    if (i < s.sound.size()) {
      const size_t sat = b.Chunk("01wb", s.sound[i]);
      out.sound_at.push_back(sat);
      written.push_back({"01wb", sat, uint32_t(s.sound[i].size())});
    }
  }
  if (s.index == AviSpec::kOpenDml) write_ix(avix ? split : 0, s.frames.size());
  b.End(movi);
  if (s.index == AviSpec::kIdx1 || s.index == AviSpec::kIdx1Absolute) {
    Bytes idx;
    for (const Written& w : written) {
      idx.Id(w.id);
      idx.U32(0x10);
      const size_t header = w.data - 8;
      idx.U32(uint32_t(s.index == AviSpec::kIdx1 ? header - movi_word : header));
      idx.U32(w.size);
    }
    b.Chunk("idx1", idx.v);
  }
  b.End(avix ? avix : riff);
  if (s.index == AviSpec::kOpenDml) {
    size_t entry = indx_at + 24;
    for (size_t i = 0; i < ix.size(); ++i, entry += 16) {
      b.Patch64(entry, ix[i].first);
      b.Patch32(entry + 8, ix[i].second);
    }
    uint32_t entries = uint32_t(ix.size());
    if (s.looping_super_index) {
      // The same standard indexes named again.
      for (size_t i = 0; i < ix.size(); ++i, entry += 16) b.Patch64(entry, ix[i].first), b.Patch32(entry + 8, ix[i].second);
      entries *= 2;
    }
    b.Patch32(indx_at + 4, entries);
  }
  out.file = b.v;
  return out;
}

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

TEST(AviReader, UncompressedDepthsAndOrders) {
  struct Case {
    int bits;
    bool top_down;
    AviSpec::Index index;
  } cases[] = {{24, false, AviSpec::kIdx1},        {32, true, AviSpec::kNone}, {16, false, AviSpec::kIdx1Absolute},
               {8, false, AviSpec::kIdx1},         {24, true, AviSpec::kOpenDml}, {32, false, AviSpec::kIdx1}};
  for (const Case& c : cases) {
    AviSpec s;
    s.width = 7;  // rows need padding at 8, 16 and 24 bits
    s.height = c.top_down ? -5 : 5;
    s.bits = c.bits;
    s.index = c.index;
    if (c.bits == 8)
      for (int i = 0; i < 256; ++i) s.palette.insert(s.palette.end(), {uint8_t(i), uint8_t(255 - i), uint8_t(i / 2), 0});
    for (int i = 0; i < 4; ++i) s.frames.push_back(RawFrame(i, 7, 5, c.bits, c.top_down));
    const Built built = BuildAvi(s);
    StreamError error{};
    StreamReader* r = Open(built.file, &error);
    ASSERT_NE(r, nullptr) << c.bits << ": " << error.text;
    const StreamInfo* info = StreamReaderInfo(r);
    EXPECT_STREQ(info->type_name, "AVI (uncompressed)");
    EXPECT_EQ(info->width, 7u);
    EXPECT_EQ(info->height, 5u);
    EXPECT_EQ(info->depth, uint32_t(c.bits));
    EXPECT_EQ(info->frame_count, 4u) << c.bits << " index " << c.index;
    EXPECT_EQ(info->rate_num, 30000u);
    EXPECT_EQ(info->rate_den, 1001u);
    EXPECT_EQ(info->has_sound, 0u);
    if (c.bits == 8) {
      EXPECT_EQ(info->palette[3 * 10 + 0], 10 / 2);  // RGBQUAD is B, G, R
      EXPECT_EQ(info->palette[3 * 10 + 1], 245);
      EXPECT_EQ(info->palette[3 * 10 + 2], 10);
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
    StreamReaderClose(r);
  }
}

// With an index, a chunk the index does not name is no frame; walking finds it.
TEST(AviReader, IndexesDecideTheFrames) {
  for (AviSpec::Index index : {AviSpec::kIdx1, AviSpec::kOpenDml, AviSpec::kNone}) {
    AviSpec s;
    s.index = index;
    s.stray_chunk = true;
    for (int i = 0; i < 5; ++i) s.frames.push_back(RawFrame(i, 6, 4, 24, false));
    StreamError error{};
    const std::vector<uint8_t> file = BuildAvi(s).file;
    StreamReader* r = Open(file, &error);
    ASSERT_NE(r, nullptr) << error.text;
    EXPECT_EQ(StreamReaderInfo(r)->frame_count, index == AviSpec::kNone ? 6u : 5u);
    StreamFrame f{};
    ASSERT_EQ(StreamReaderRead(r, 4, &f, &error), 1);
    ExpectFrame(f, s.frames[index == AviSpec::kNone ? 3 : 4], 6, 4, 24, false);
    StreamReaderClose(r);
  }
}

TEST(AviReader, OpenDmlSuperIndexNamedTwiceCountsOnce) {
  AviSpec s;
  s.index = AviSpec::kOpenDml;
  s.looping_super_index = true;
  s.bits = 32;
  for (int i = 0; i < 6; ++i) s.frames.push_back(RawFrame(i, 6, 4, 32, false));
  StreamError error{};
  const std::vector<uint8_t> file = BuildAvi(s).file;
  StreamReader* r = Open(file, &error);
  ASSERT_NE(r, nullptr) << error.text;
  EXPECT_EQ(StreamReaderInfo(r)->frame_count, 6u);
  for (uint32_t i = 0; i < 6; ++i) {
    StreamFrame f{};
    ASSERT_EQ(StreamReaderRead(r, i, &f, &error), 1);
    SCOPED_TRACE(i);
    ExpectFrame(f, s.frames[i], 6, 4, 32, false);
  }
  StreamReaderClose(r);
}

TEST(AviReader, EmptyChunkRepeatsThePreviousPicture) {
  AviSpec s;
  s.frames = {RawFrame(0, 6, 4, 24, false), {}, {}, RawFrame(3, 6, 4, 24, false)};
  StreamError error{};
  const std::vector<uint8_t> file = BuildAvi(s).file;
  StreamReader* r = Open(file, &error);
  ASSERT_NE(r, nullptr) << error.text;
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 3, &f, &error), 1);
  ASSERT_EQ(StreamReaderRead(r, 2, &f, &error), 1);  // reached directly: goes back to frame 0
  ExpectFrame(f, s.frames[0], 6, 4, 24, false);
  EXPECT_EQ(f.bytes, 0u);
  StreamReaderClose(r);
}

TEST(AviReader, ShortChunkGivesBlackBelow) {
  AviSpec s;
  std::vector<uint8_t> full = RawFrame(1, 6, 4, 24, false);
  s.frames = {std::vector<uint8_t>(full.begin(), full.begin() + 18 * 2)};  // the bottom two rows only
  StreamError error{};
  const std::vector<uint8_t> file = BuildAvi(s).file;
  StreamReader* r = Open(file, &error);
  ASSERT_NE(r, nullptr) << error.text;
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);
  EXPECT_EQ(0, std::memcmp(f.pixels + 3 * f.pitch, full.data(), 18));
  for (int y = 0; y < 2; ++y)
    for (int i = 0; i < 18; ++i) EXPECT_EQ(f.pixels[y * f.pitch + i], 0);
  StreamReaderClose(r);
}

TEST(AviReader, SoundChunksAreListed) {
  for (AviSpec::Index index : {AviSpec::kIdx1, AviSpec::kNone}) {
    AviSpec s;
    s.index = index;
    for (int i = 0; i < 3; ++i) {
      s.frames.push_back(RawFrame(i, 6, 4, 24, false));
      s.sound.push_back(std::vector<uint8_t>(size_t(100 + i * 7), uint8_t(i + 1)));
    }
    const Built built = BuildAvi(s);
    StreamError error{};
    StreamReader* r = Open(built.file, &error);
    ASSERT_NE(r, nullptr) << error.text;
    EXPECT_EQ(StreamReaderInfo(r)->has_sound, 1u);
    ASSERT_EQ(StreamReaderAudioTrackCount(r), 1u);
    StreamAudioTrack t{};
    ASSERT_TRUE(StreamReaderAudioTrack(r, 0, &t));
    StreamAudioTrack none{};
    EXPECT_EQ(StreamReaderAudioTrack(r, 1, &none), 0);
    EXPECT_EQ(t.format_tag, 1);
    EXPECT_EQ(t.channels, 2);
    EXPECT_EQ(t.samples_per_second, 22050u);
    EXPECT_EQ(t.bytes_per_second, 88200u);
    EXPECT_EQ(t.block_align, 4);
    EXPECT_EQ(t.bits_per_sample, 16);
    ASSERT_EQ(t.extra_size, 2);
    EXPECT_EQ(t.extra[0], 0xEF);
    EXPECT_EQ(t.rate, 88200u);
    EXPECT_EQ(t.scale, 4u);
    ASSERT_EQ(t.chunk_count, 3u);
    EXPECT_EQ(t.total_bytes, 100u + 107u + 114u);
    for (uint32_t i = 0; i < 3; ++i) {
      EXPECT_EQ(t.chunks[i].offset, built.sound_at[i]);
      std::vector<uint8_t> data(200, 0);
      ASSERT_EQ(StreamReaderReadAudio(r, 0, i, data.data(), data.size()), s.sound[i].size());
      EXPECT_EQ(data[0], i + 1);
      EXPECT_EQ(data[s.sound[i].size() - 1], i + 1);
    }
    EXPECT_EQ(StreamReaderReadAudio(r, 0, 3, nullptr, 0), 0u);
    StreamReaderClose(r);
  }
}

// JPEG coding through libjpeg into memory, for Motion-JPEG frames.
std::vector<uint8_t> EncodeJpeg(const std::vector<uint8_t>& rgb, int w, int h) {
  jpeg_compress_struct c;
  jpeg_error_mgr err;
  c.err = jpeg_std_error(&err);
  jpeg_create_compress(&c);
  unsigned char* out = nullptr;
  unsigned long size = 0;
  jpeg_mem_dest(&c, &out, &size);
  c.image_width = JDIMENSION(w);
  c.image_height = JDIMENSION(h);
  c.input_components = 3;
  c.in_color_space = JCS_RGB;
  jpeg_set_defaults(&c);
  jpeg_set_quality(&c, 90, TRUE);
  jpeg_start_compress(&c, TRUE);
  while (c.next_scanline < c.image_height) {
    JSAMPROW row = const_cast<uint8_t*>(&rgb[size_t(c.next_scanline) * size_t(w) * 3]);
    jpeg_write_scanlines(&c, &row, 1);
  }
  jpeg_finish_compress(&c);
  std::vector<uint8_t> v(out, out + size);
  jpeg_destroy_compress(&c);
  std::free(out);
  return v;
}

// libjpeg's own decode of a picture, as B, G, R, A rows.
std::vector<uint8_t> DecodeJpeg(const std::vector<uint8_t>& jpg, int* w, int* h) {
  jpeg_decompress_struct d;
  jpeg_error_mgr err;
  d.err = jpeg_std_error(&err);
  jpeg_create_decompress(&d);
  jpeg_mem_src(&d, jpg.data(), static_cast<unsigned long>(jpg.size()));
  jpeg_read_header(&d, TRUE);
  d.out_color_space = JCS_EXT_BGRA;
  jpeg_start_decompress(&d);
  *w = int(d.output_width), *h = int(d.output_height);
  std::vector<uint8_t> v(size_t(*w) * size_t(*h) * 4);
  while (d.output_scanline < d.output_height) {
    JSAMPROW row = &v[size_t(d.output_scanline) * size_t(*w) * 4];
    jpeg_read_scanlines(&d, &row, 1);
  }
  jpeg_finish_decompress(&d);
  jpeg_destroy_decompress(&d);
  return v;
}

std::vector<uint8_t> RgbPicture(int frame, int w, int h) {
  std::vector<uint8_t> v(size_t(w * h * 3));
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x)
      for (int c = 0; c < 3; ++c) v[size_t((y * w + x) * 3 + c)] = uint8_t((x * 8 + frame * 50) * (c + 1) + y * 4);
  return v;
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

TEST(AviReader, MotionJpegFramesMatchLibjpeg) {
  const int w = 40, h = 24;
  for (bool strip : {false, true}) {
    AviSpec s;
    s.width = w, s.height = h, s.bits = 24, s.compression = FourCC("MJPG");
    std::vector<std::vector<uint8_t>> reference;
    for (int i = 0; i < 3; ++i) {
      const std::vector<uint8_t> jpg = EncodeJpeg(RgbPicture(i, w, h), w, h);
      int dw = 0, dh = 0;
      reference.push_back(DecodeJpeg(jpg, &dw, &dh));
      s.frames.push_back(strip ? StripTables(jpg) : jpg);
    }
    if (strip) {
      ASSERT_FALSE(orn::media::MjpegHasHuffmanTables(s.frames[0].data(), s.frames[0].size()));
    }
    StreamError error{};
    const std::vector<uint8_t> file = BuildAvi(s).file;
    StreamReader* r = Open(file, &error);
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
    StreamReaderClose(r);
  }
}

TEST(AviReader, MotionJpegFieldPairsAreInterleaved) {
  const int w = 16, h = 16;
  AviSpec s;
  s.width = w, s.height = h, s.compression = FourCC("MJPG");
  const std::vector<uint8_t> top = EncodeJpeg(RgbPicture(0, w, h / 2), w, h / 2);
  const std::vector<uint8_t> bottom = EncodeJpeg(RgbPicture(3, w, h / 2), w, h / 2);
  std::vector<uint8_t> pair = StripTables(top);
  const std::vector<uint8_t> second = StripTables(bottom);
  pair.insert(pair.end(), second.begin(), second.end());
  s.frames = {pair};
  int dw = 0, dh = 0;
  const std::vector<uint8_t> even = DecodeJpeg(top, &dw, &dh), odd = DecodeJpeg(bottom, &dw, &dh);
  StreamError error{};
  const std::vector<uint8_t> file = BuildAvi(s).file;
  StreamReader* r = Open(file, &error);
  ASSERT_NE(r, nullptr) << error.text;
  StreamFrame f{};
  ASSERT_EQ(StreamReaderRead(r, 0, &f, &error), 1);
  for (int y = 0; y < h; ++y) {
    const std::vector<uint8_t>& field = (y & 1) ? odd : even;
    ASSERT_EQ(0, std::memcmp(f.pixels + y * f.pitch, &field[size_t((y / 2) * w * 4)], size_t(w * 4))) << y;
  }
  StreamReaderClose(r);
}

// The inserted tables are the ones libjpeg writes by default: its tables, read from its own
// file, equal what the insertion puts in.
TEST(MjpegTables, InsertedTablesAreTheStandardOnes) {
  const std::vector<uint8_t> jpg = EncodeJpeg(RgbPicture(1, 16, 16), 16, 16);
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
  StreamError error{};
  // Not RIFF; cut inside the header list; no frames; an unknown coding; an over-large picture.
  std::vector<uint8_t> not_riff = good;
  not_riff[0] = 'X';
  EXPECT_EQ(Open(not_riff, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_FORMAT);
  EXPECT_EQ(Open(std::vector<uint8_t>(good.begin(), good.begin() + 11), &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_FORMAT);
  EXPECT_EQ(Open(std::vector<uint8_t>(good.begin(), good.begin() + 100), &error), nullptr);
  EXPECT_NE(error.code, STREAM_OK);
  AviSpec empty;
  EXPECT_EQ(Open(BuildAvi(empty).file, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_CORRUPT);
  AviSpec xvid = s;
  xvid.compression = FourCC("XVID");
  EXPECT_EQ(Open(BuildAvi(xvid).file, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_UNSUPPORTED);
  EXPECT_NE(std::string(error.text).find("XVID"), std::string::npos);
  AviSpec huge = s;
  huge.width = 100000;
  EXPECT_EQ(Open(BuildAvi(huge).file, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_TOO_LARGE);
  AviSpec four_bit = s;
  four_bit.bits = 4;
  EXPECT_EQ(Open(BuildAvi(four_bit).file, &error), nullptr);
  EXPECT_EQ(error.code, STREAM_ERROR_UNSUPPORTED);
}

TEST(AviReader, RandomDamageNeverBreaksTheReader) {
  AviSpec s;
  s.index = AviSpec::kOpenDml;
  for (int i = 0; i < 4; ++i) s.frames.push_back(EncodeJpeg(RgbPicture(i, 16, 8), 16, 8));
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
