// Sound input from AVI files: PCM sound streams written here beside a small video stream, found
// through idx1, an OpenDML index or a walk over movi; the samples against what was written and
// against the same samples in a wave file; ranges; chunk sizes that lie; files whose sound is
// compressed or missing, which the AVI trial hands on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include "media_test_util.h"
#include "sound_test_util.h"

namespace {

using namespace sound_test;
using media_test::TempDir;

struct AviSound {
  std::vector<uint8_t> format;               // strf: a WAVEFORMATEX
  std::vector<std::vector<uint8_t>> chunks;  // in movi order
};

struct AviShape {
  enum Index { kIdx1, kNone, kOpenDml } index = kIdx1;
  uint32_t video_coding = 0;  // BI_RGB; anything else is a coding the reader cannot decode
  bool video = true;
  bool stray = false;  // a sound chunk in movi after the first frame that no index names
  uint32_t frames = 3;
  std::vector<AviSound> sound;
};

std::vector<uint8_t> Format(uint32_t tag, uint32_t channels, uint32_t rate, uint32_t bits) {
  std::vector<uint8_t> f;
  Put16(&f, tag);
  Put16(&f, channels);
  Put32(&f, rate);
  Put32(&f, rate * channels * bits / 8);
  Put16(&f, channels * bits / 8);
  Put16(&f, bits);
  Put16(&f, 0);
  return f;
}

// The "fmt " body of the wave that sound_test_util writes for a shape.
std::vector<uint8_t> FormatOf(const WaveShape& shape) {
  const std::vector<uint8_t> wave = Wave(shape, {});
  const uint32_t size = wave[28] | wave[29] << 8;
  return std::vector<uint8_t>(wave.begin() + 32, wave.begin() + 32 + size);
}

void Chunk(std::vector<uint8_t>* out, const char* id, const std::vector<uint8_t>& data) {
  PutText(out, id);
  Put32(out, static_cast<uint32_t>(data.size()));
  out->insert(out->end(), data.begin(), data.end());
  if (data.size() & 1) out->push_back(0);
}

size_t BeginList(std::vector<uint8_t>* out, const char* id, const char* kind) {
  PutText(out, id);
  const size_t at = out->size();
  Put32(out, 0);
  PutText(out, kind);
  return at;
}

void Patch32(std::vector<uint8_t>* out, size_t at, uint64_t v) {
  for (int i = 0; i < 4; ++i) (*out)[at + i] = static_cast<uint8_t>(v >> (8 * i));
}

void EndList(std::vector<uint8_t>* out, size_t at) { Patch32(out, at, out->size() - at - 4); }

std::vector<uint8_t> StreamHeader(const char* type, uint32_t scale, uint32_t rate) {
  std::vector<uint8_t> h;
  PutText(&h, type);
  Put32(&h, 0);
  for (int i = 0; i < 3; ++i) Put32(&h, 0);
  Put32(&h, scale);
  Put32(&h, rate);
  for (int i = 0; i < 7; ++i) Put32(&h, 0);
  return h;
}

std::string StreamId(size_t stream, const char* kind) {
  return std::string{char('0' + stream / 10), char('0' + stream % 10), kind[0], kind[1]};
}

// Stream 0 is the video (when there is one), the sound streams follow. A 4 x 2 picture; frames
// and sound chunks alternate in movi.
std::vector<uint8_t> BuildAvi(const AviShape& shape) {
  std::vector<uint8_t> out;
  const size_t riff = BeginList(&out, "RIFF", "AVI ");
  const size_t hdrl = BeginList(&out, "LIST", "hdrl");
  std::vector<uint8_t> avih(56, 0);
  Patch32(&avih, 0, 66666);
  Chunk(&out, "avih", avih);
  const size_t first_sound = shape.video ? 1 : 0;
  const size_t streams = first_sound + shape.sound.size();
  std::vector<size_t> indx_at(streams);
  for (size_t s = 0; s < streams; ++s) {
    const size_t strl = BeginList(&out, "LIST", "strl");
    if (s < first_sound) {
      Chunk(&out, "strh", StreamHeader("vids", 1, 15));
      std::vector<uint8_t> bitmap(40, 0);
      Patch32(&bitmap, 0, 40);
      Patch32(&bitmap, 4, 4);
      Patch32(&bitmap, 8, 2);
      bitmap[12] = 1;
      bitmap[14] = 24;
      Patch32(&bitmap, 16, shape.video_coding);
      Chunk(&out, "strf", bitmap);
    } else {
      const std::vector<uint8_t>& f = shape.sound[s - first_sound].format;
      const uint32_t align = f.size() >= 14 ? (f[12] | f[13] << 8) : 1;
      Chunk(&out, "strh", StreamHeader("auds", align, align * 8000));
      Chunk(&out, "strf", f);
    }
    if (shape.index == AviShape::kOpenDml) {
      std::vector<uint8_t> indx(24 + 16, 0);
      indx[0] = 4;
      Patch32(&indx, 4, 1);
      indx_at[s] = out.size() + 8;
      Chunk(&out, "indx", indx);
    }
    EndList(&out, strl);
  }
  EndList(&out, hdrl);

  struct Entry {
    std::string id;
    size_t data;
    uint32_t size;
  };
  std::vector<Entry> entries;
  const size_t movi = BeginList(&out, "LIST", "movi");
  size_t rounds = shape.video ? shape.frames : 0;
  for (const AviSound& sound : shape.sound) rounds = std::max(rounds, sound.chunks.size());
  for (size_t i = 0; i < rounds; ++i) {
    if (shape.video && i < shape.frames) {
      const std::vector<uint8_t> frame(24, static_cast<uint8_t>(i * 40));
      Chunk(&out, "00db", frame);
      entries.push_back({"00db", out.size() - 24, 24});
    }
    if (shape.stray && i == 0 && !shape.sound.empty())
      Chunk(&out, StreamId(first_sound, "wb").c_str(), std::vector<uint8_t>(6, 0xEE));
    for (size_t s = 0; s < shape.sound.size(); ++s) {
      if (i >= shape.sound[s].chunks.size()) continue;
      const std::vector<uint8_t>& data = shape.sound[s].chunks[i];
      const std::string id = StreamId(first_sound + s, "wb");
      Chunk(&out, id.c_str(), data);
      entries.push_back({id, out.size() - data.size() - (data.size() & 1), uint32_t(data.size())});
    }
  }
  if (shape.index == AviShape::kOpenDml) {
    // One standard index per stream inside movi, named by the stream's super index.
    for (size_t s = 0; s < streams; ++s) {
      const std::string id = s < first_sound ? "00db" : StreamId(s, "wb");
      std::vector<uint8_t> ix;
      Put16(&ix, 2);
      ix.push_back(0);
      ix.push_back(1);
      const size_t count_at = ix.size();
      Put32(&ix, 0);
      PutText(&ix, id.c_str());
      Put32(&ix, 0);  // base offset: 0, so entries hold file positions
      Put32(&ix, 0);
      Put32(&ix, 0);
      uint32_t count = 0;
      for (const Entry& e : entries)
        if (e.id == id) {
          Put32(&ix, static_cast<uint32_t>(e.data));
          Put32(&ix, e.size);
          ++count;
        }
      Patch32(&ix, count_at, count);
      const std::string ix_id = "ix" + StreamId(s, "ix").substr(0, 2);
      const size_t at = out.size();
      Chunk(&out, ix_id.c_str(), ix);
      Patch32(&out, indx_at[s] + 24, at);
      Patch32(&out, indx_at[s] + 32, ix.size() + 8);
    }
  }
  EndList(&out, movi);
  if (shape.index == AviShape::kIdx1) {
    std::vector<uint8_t> idx1;
    for (const Entry& e : entries) {
      PutText(&idx1, e.id.c_str());
      Put32(&idx1, 0x10);
      Put32(&idx1, static_cast<uint32_t>(e.data - 8 - (movi + 4)));  // from the 'movi' word
      Put32(&idx1, e.size);
    }
    Chunk(&out, "idx1", idx1);
  }
  EndList(&out, riff);
  return out;
}

// Splits bytes into chunks of the given sizes in turn (the last one takes the rest).
std::vector<std::vector<uint8_t>> Split(const std::vector<uint8_t>& bytes,
                                        const std::vector<size_t>& sizes) {
  std::vector<std::vector<uint8_t>> out;
  size_t at = 0;
  for (size_t i = 0; at < bytes.size(); ++i) {
    const size_t n = std::min(sizes[i % sizes.size()], bytes.size() - at);
    out.emplace_back(bytes.begin() + long(at), bytes.begin() + long(at + n));
    at += n;
  }
  return out;
}

std::vector<uint8_t> ReadAllBytes(const std::string& name, uint32_t bits = 0) {
  SoundInput* sound = Open(name, 0, bits);
  if (!sound) return {};
  std::vector<uint8_t> out = ReadAll(sound, 999);
  SoundClose(sound);
  return out;
}

// ---------------------------------------------------------------------------------------------

TEST(SoundAvi, PcmComesBackAsWrittenWithEveryIndexForm) {
  TempDir dir;
  struct Case {
    uint32_t channels, bits;
  };
  for (const Case c : {Case{1, 8}, Case{2, 8}, Case{1, 16}, Case{2, 16}}) {
    for (AviShape::Index index : {AviShape::kIdx1, AviShape::kNone, AviShape::kOpenDml}) {
      SCOPED_TRACE(testing::Message() << c.channels << " ch " << c.bits << " bit, index " << index);
      std::vector<uint8_t> pcm;
      if (c.bits == 8) {
        for (int i = 0; i < 1500; ++i) pcm.push_back(static_cast<uint8_t>(i * 7 + (i >> 3)));
      } else {
        pcm = Pcm16(Noise(1500, 5 + c.channels));
      }
      pcm.resize(pcm.size() - pcm.size() % (c.channels * c.bits / 8));
      AviShape shape;
      shape.index = index;
      shape.stray = index != AviShape::kNone;  // an index leaves it out; a walk would not
      // Odd sizes: samples straddle chunks, and chunks are padded in movi.
      shape.sound.push_back({Format(1, c.channels, 11025, c.bits), Split(pcm, {301, 77, 512})});
      const std::string name = dir / "a.avi";
      WriteBytes(name, BuildAvi(shape));
      SoundInput* sound = Open(name);
      ASSERT_NE(sound, nullptr);
      EXPECT_STREQ(sound->type_name, "AVI");
      EXPECT_EQ(sound->kind, SoundKindFile);
      EXPECT_EQ(sound->source_rate, 11025u);
      EXPECT_EQ(sound->source_bits, c.bits);
      EXPECT_EQ(sound->source_channels, c.channels);
      EXPECT_EQ(sound->bits, c.bits);
      EXPECT_EQ(sound->total_bytes, pcm.size());
      EXPECT_EQ(ReadAll(sound, 998), pcm);
      // Rewound, the same bytes again.
      SoundRewind(sound);
      EXPECT_EQ(ReadAll(sound, 4096), pcm);
      SoundClose(sound);
    }
  }
}

TEST(SoundAvi, RangesStartAndEndInsideChunks) {
  TempDir dir;
  std::vector<int16_t> ramp(2 * 2000);  // stereo, 1000 Hz: two seconds
  for (size_t i = 0; i < ramp.size(); ++i) ramp[i] = static_cast<int16_t>(i % 2 ? -int(i / 2) : int(i / 2));
  AviShape shape;
  shape.sound.push_back({Format(1, 2, 1000, 16), Split(Pcm16(ramp), {1000, 444})});
  const std::string name = dir / "r.avi";
  WriteBytes(name, BuildAvi(shape));
  SoundInput* sound = SoundOpen(name.c_str(), 0, 16, 0, 250, 1300, 0, 0, 0, nullptr);
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 1050u * 4);
  std::vector<int16_t> out = As16(ReadAll(sound, 700));
  ASSERT_EQ(out.size(), 2100u);
  EXPECT_EQ(out[0], 250);
  EXPECT_EQ(out[1], -250);
  EXPECT_EQ(out[2098], 1299);
  EXPECT_EQ(out[2099], -1299);
  SoundRewind(sound);
  out = As16(ReadAll(sound, 4));
  ASSERT_EQ(out.size(), 2100u);
  EXPECT_EQ(out[2], 251);
  SoundClose(sound);
  // A start past the end leaves nothing; an end past it reads to the end.
  sound = SoundOpen(name.c_str(), 0, 16, 0, 5000, 0, 0, 0, 0, nullptr);
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 0u);
  SoundClose(sound);
  sound = SoundOpen(name.c_str(), 0, 16, 1, 1990, 9000, 0, 0, 0, nullptr);
  ASSERT_NE(sound, nullptr);
  out = As16(ReadAll(sound));
  ASSERT_EQ(out.size(), 10u);
  EXPECT_EQ(out[0], 0);  // mono: left and right of the ramp cancel
  SoundClose(sound);
}

TEST(SoundAvi, WideAndFloatFormatsReadAsTheSameWave) {
  TempDir dir;
  const std::vector<uint8_t> bytes = Pcm16(Noise(2400, 9));
  struct Case {
    uint32_t tag, sub_tag, channels, bits;
  };
  for (const Case c : {Case{1, 1, 2, 24}, Case{1, 1, 1, 32}, Case{3, 3, 2, 32},
                       Case{0xFFFE, 1, 2, 24}, Case{0xFFFE, 3, 1, 32}}) {
    SCOPED_TRACE(testing::Message() << c.tag << "/" << c.sub_tag << " " << c.bits);
    WaveShape shape;
    shape.tag = c.tag;
    shape.sub_tag = c.sub_tag;
    shape.channels = c.channels;
    shape.bits = c.bits;
    shape.rate = 16000;
    std::vector<uint8_t> pcm = bytes;
    if (c.sub_tag == 3) {
      // Floats within [-1, 1]: the noise scaled down.
      for (size_t i = 0; i + 4 <= pcm.size(); i += 4) {
        const float v = static_cast<int16_t>(pcm[i] | pcm[i + 1] << 8) / 40000.0f;
        memcpy(&pcm[i], &v, 4);
      }
    }
    pcm.resize(pcm.size() - pcm.size() % (c.channels * c.bits / 8));
    WriteBytes(dir / "w.wav", Wave(shape, pcm));
    AviShape avi;
    avi.index = AviShape::kNone;
    avi.sound.push_back({FormatOf(shape), Split(pcm, {999, 1001})});
    WriteBytes(dir / "w.avi", BuildAvi(avi));
    const std::vector<uint8_t> wave = ReadAllBytes(dir / "w.wav", 16);
    ASSERT_EQ(wave.size(), pcm.size() / (c.bits / 8) * 2);
    EXPECT_EQ(ReadAllBytes(dir / "w.avi", 16), wave);
  }
}

TEST(SoundAvi, FirstSoundStreamEvenBehindAVideoNotDecoded) {
  TempDir dir;
  const std::vector<uint8_t> first = Pcm16(Noise(800, 1)), second = Pcm16(Noise(600, 2));
  for (uint32_t coding : {0u, 0x44495658u /* 'XVID' */}) {
    for (bool video : {true, false}) {
      SCOPED_TRACE(testing::Message() << "coding " << coding << " video " << video);
      AviShape shape;
      shape.video = video;
      shape.video_coding = coding;
      shape.index = video ? AviShape::kIdx1 : AviShape::kNone;
      shape.sound.push_back({Format(1, 1, 8000, 16), Split(first, {300})});
      shape.sound.push_back({Format(1, 2, 22050, 8), Split(second, {100})});
      WriteBytes(dir / "t.avi", BuildAvi(shape));
      EXPECT_EQ(ReadAllBytes(dir / "t.avi"), first);
    }
  }
}

TEST(SoundAvi, ChunkSizesThatLieAreCutAtTheEndOfTheFile) {
  TempDir dir;
  const std::vector<uint8_t> pcm = Pcm16(Noise(700, 3));  // two chunks: 800 and 600 bytes
  AviShape shape;
  shape.index = AviShape::kNone;
  shape.frames = 1;
  shape.sound.push_back({Format(1, 1, 8000, 16), Split(pcm, {800, 600})});
  std::vector<uint8_t> file = BuildAvi(shape);
  // The last chunk ends the file; its header now claims two gigabytes.
  const size_t last = file.size() - 600 - 4;
  ASSERT_EQ(memcmp(&file[last - 4], "01wb", 4), 0);
  Patch32(&file, last, 0x7FFFFFF0u);
  // And one byte of the last chunk is lost: the broken sample is dropped.
  file.pop_back();
  WriteBytes(dir / "walk.avi", file);
  std::vector<uint8_t> expect(pcm.begin(), pcm.end() - 2);
  SoundInput* sound = Open(dir / "walk.avi");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, expect.size());
  EXPECT_EQ(ReadAll(sound, 512), expect);
  SoundClose(sound);

  // idx1 entries: one far past the end of the file, one whose size runs past it.
  shape.index = AviShape::kIdx1;
  file = BuildAvi(shape);
  const size_t idx1 = file.size() - 3 * 16;
  ASSERT_EQ(memcmp(&file[idx1 - 8], "idx1", 4), 0);
  ASSERT_EQ(memcmp(&file[idx1 + 16], "01wb", 4), 0);
  Patch32(&file, idx1 + 16 + 8, 0x70000000u);
  Patch32(&file, idx1 + 32 + 12, 0xFFFFFFF0u);
  WriteBytes(dir / "idx1.avi", file);
  sound = Open(dir / "idx1.avi");
  ASSERT_NE(sound, nullptr);
  // The second chunk is read from its place to the end of the file.
  const size_t second_at = file.size() - 3 * 16 - 8 - 600;
  ASSERT_EQ(memcmp(&file[second_at], &pcm[800], 600), 0);
  EXPECT_EQ(sound->total_bytes, (file.size() - second_at) & ~size_t(1));
  const std::vector<uint8_t> got = ReadAll(sound, 1000);
  SoundClose(sound);
  ASSERT_EQ(got.size(), (file.size() - second_at) & ~size_t(1));
  EXPECT_EQ(memcmp(got.data(), &pcm[800], 600), 0);
}

TEST(SoundAvi, FilesWithoutPcmSoundAreHandedOn) {
  TempDir dir;
  AviShape none;
  WriteBytes(dir / "silent.avi", BuildAvi(none));
  EXPECT_EQ(Open(dir / "silent.avi"), nullptr);

  // MPEG layer 3, ADPCM, and PCM of a width the layer does not read.
  const std::vector<uint8_t> data(400, 0x55);
  for (const std::vector<uint8_t>& format :
       {Format(0x55, 2, 44100, 0), Format(2, 1, 22050, 4), Format(1, 1, 22050, 12),
        Format(1, 3, 22050, 16), std::vector<uint8_t>(10, 1)}) {
    AviShape shape;
    shape.sound.push_back({format, {data}});
    WriteBytes(dir / "packed.avi", BuildAvi(shape));
    EXPECT_EQ(Open(dir / "packed.avi"), nullptr);
  }
  // A PCM stream without any chunk has no sound either.
  AviShape empty;
  empty.sound.push_back({Format(1, 1, 8000, 16), {}});
  WriteBytes(dir / "empty.avi", BuildAvi(empty));
  EXPECT_EQ(Open(dir / "empty.avi"), nullptr);
}

}  // namespace
