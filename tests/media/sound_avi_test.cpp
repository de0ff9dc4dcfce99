// Sound input from AVI files: PCM sound streams written here beside a small video stream, found
// through idx1, an OpenDML index or a walk over movi; the samples against what was written and
// against the same samples in a wave file; ranges; chunk sizes that lie; files whose sound is
// compressed or missing, which the AVI trial hands on.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "avi_test_util.h"
#include "media_test_util.h"
#include "sound_test_util.h"

namespace {

using namespace sound_test;

using avi_test::AviSpec;
using avi_test::WaveFormat;

// A 6 x 4 picture's worth of video frames, and the sound streams after it.
AviSpec Shape(AviSpec::Index index, std::vector<avi_test::AviSound> sound, size_t frames = 3) {
  AviSpec shape;
  shape.index = index;
  shape.sound = std::move(sound);
  for (size_t i = 0; i < frames; ++i) shape.frames.emplace_back(72, uint8_t(i * 40));
  return shape;
}

std::vector<uint8_t> AviFile(const AviSpec& shape) { return avi_test::BuildAvi(shape).file; }

// The "fmt " body of the wave file that WaveBytes makes for a shape.
std::vector<uint8_t> FormatOf(const WaveShape& shape) {
  const std::vector<uint8_t> wave = WaveBytes(shape, {});
  const uint32_t size = wave[28] | wave[29] << 8;
  return std::vector<uint8_t>(wave.begin() + 32, wave.begin() + 32 + size);
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

void PatchLe32(std::vector<uint8_t>* out, size_t at, uint32_t v) {
  for (int i = 0; i < 4; ++i) (*out)[at + i] = static_cast<uint8_t>(v >> (8 * i));
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
  ScratchDir dir;
  struct Case {
    uint32_t channels, bits;
  };
  for (const Case c : {Case{1, 8}, Case{2, 8}, Case{1, 16}, Case{2, 16}}) {
    for (AviSpec::Index index : {AviSpec::kIdx1, AviSpec::kNone, AviSpec::kOpenDml}) {
      SCOPED_TRACE(testing::Message() << c.channels << " ch " << c.bits << " bit, index " << index);
      std::vector<uint8_t> pcm;
      if (c.bits == 8) {
        for (int i = 0; i < 1500; ++i) pcm.push_back(static_cast<uint8_t>(i * 7 + (i >> 3)));
      } else {
        pcm = Pcm16(Noise(1500, 5 + c.channels));
      }
      pcm.resize(pcm.size() - pcm.size() % (c.channels * c.bits / 8));
      // Odd sizes: samples straddle chunks, and chunks are padded in movi.
      AviSpec shape = Shape(index, {{WaveFormat(1, c.channels, 11025, c.bits), Split(pcm, {301, 77, 512})}});
      shape.stray_sound = index != AviSpec::kNone;  // an index leaves it out; a walk would not
      const std::string name = dir / "a.avi";
      WriteFile(name, AviFile(shape));
      SoundInput* sound = Open(name);
      ASSERT_NE(sound, nullptr);
      EXPECT_STREQ(sound->type_name, "AVI");
      EXPECT_EQ(std::tuple(sound->kind, sound->source_rate, sound->source_bits, sound->source_channels,
                           sound->bits, sound->total_bytes),
                std::tuple(SoundKindFile, 11025u, c.bits, c.channels, c.bits, uint64_t(pcm.size())));
      EXPECT_EQ(ReadAll(sound, 998), pcm);
      // Rewound, the same bytes again.
      SoundRewind(sound);
      EXPECT_EQ(ReadAll(sound, 4096), pcm);
      SoundClose(sound);
    }
  }
}

TEST(SoundAvi, RangesStartAndEndInsideChunks) {
  ScratchDir dir;
  // Stereo at 1000 Hz for two seconds: the left channel counts up, the right down.
  std::vector<int16_t> ramp;
  for (int i = 0; i < 2000; ++i) ramp.push_back(int16_t(i)), ramp.push_back(int16_t(-i));
  const std::string name = dir / "r.avi";
  WriteFile(name, AviFile(Shape(AviSpec::kIdx1, {{WaveFormat(1, 2, 1000, 16), Split(Pcm16(ramp), {1000, 444})}})));
  SoundInput* sound = SoundOpen(name.c_str(), 0, 16, 0, 250, 1300, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 1050u * 4);
  const std::vector<int16_t> span(ramp.begin() + 2 * 250, ramp.begin() + 2 * 1300);
  EXPECT_EQ(As16(ReadAll(sound, 700)), span);
  SoundRewind(sound);
  EXPECT_EQ(As16(ReadAll(sound, 4)), span);
  SoundClose(sound);
  // A start past the end leaves nothing; an end past it reads to the end, here in mono, where
  // left and right cancel.
  sound = SoundOpen(name.c_str(), 0, 16, 0, 5000, 0, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 0u);
  SoundClose(sound);
  sound = SoundOpen(name.c_str(), 0, 16, 1, 1990, 9000, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(As16(ReadAll(sound)), std::vector<int16_t>(10, 0));
  SoundClose(sound);
}

TEST(SoundAvi, WideAndFloatFormatsReadAsTheSameWave) {
  ScratchDir dir;
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
    WriteFile(dir / "w.wav", WaveBytes(shape, pcm));
    WriteFile(dir / "w.avi", AviFile(Shape(AviSpec::kNone, {{FormatOf(shape), Split(pcm, {999, 1001})}})));
    const std::vector<uint8_t> wave = ReadAllBytes(dir / "w.wav", 16);
    ASSERT_EQ(wave.size(), pcm.size() / (c.bits / 8) * 2);
    EXPECT_EQ(ReadAllBytes(dir / "w.avi", 16), wave);
  }
}

TEST(SoundAvi, FirstSoundStreamEvenBehindAVideoNotDecoded) {
  ScratchDir dir;
  const std::vector<uint8_t> first = Pcm16(Noise(800, 1)), second = Pcm16(Noise(600, 2));
  for (uint32_t coding : {0u, 0x44495658u /* 'XVID' */}) {
    for (bool video : {true, false}) {
      SCOPED_TRACE(testing::Message() << "coding " << coding << " video " << video);
      AviSpec shape = Shape(video ? AviSpec::kIdx1 : AviSpec::kNone,
                            {{WaveFormat(1, 1, 8000, 16), Split(first, {300})},
                             {WaveFormat(1, 2, 22050, 8), Split(second, {100})}});
      shape.video = video;
      shape.compression = coding;
      WriteFile(dir / "t.avi", AviFile(shape));
      EXPECT_EQ(ReadAllBytes(dir / "t.avi"), first);
    }
  }
}

TEST(SoundAvi, ChunkSizesThatLieAreCutAtTheEndOfTheFile) {
  ScratchDir dir;
  const std::vector<uint8_t> pcm = Pcm16(Noise(700, 3));  // two chunks: 800 and 600 bytes
  AviSpec shape = Shape(AviSpec::kNone, {{WaveFormat(1, 1, 8000, 16), Split(pcm, {800, 600})}}, 1);
  std::vector<uint8_t> file = AviFile(shape);
  // The last chunk ends the file; its header now claims two gigabytes.
  const size_t last = file.size() - 600 - 4;
  ASSERT_EQ(memcmp(&file[last - 4], "01wb", 4), 0);
  PatchLe32(&file, last, 0x7FFFFFF0u);
  // And one byte of the last chunk is lost: the broken sample is dropped.
  file.pop_back();
  WriteFile(dir / "walk.avi", file);
  std::vector<uint8_t> expect(pcm.begin(), pcm.end() - 2);
  SoundInput* sound = Open(dir / "walk.avi");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, expect.size());
  EXPECT_EQ(ReadAll(sound, 512), expect);
  SoundClose(sound);

  // idx1 entries: one far past the end of the file, one whose size runs past it.
  shape.index = AviSpec::kIdx1;
  file = AviFile(shape);
  const size_t idx1 = file.size() - 3 * 16;
  ASSERT_EQ(memcmp(&file[idx1 - 8], "idx1", 4), 0);
  ASSERT_EQ(memcmp(&file[idx1 + 16], "01wb", 4), 0);
  PatchLe32(&file, idx1 + 16 + 8, 0x70000000u);
  PatchLe32(&file, idx1 + 32 + 12, 0xFFFFFFF0u);
  WriteFile(dir / "idx1.avi", file);
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
  ScratchDir dir;
  WriteFile(dir / "silent.avi", AviFile(Shape(AviSpec::kIdx1, {})));
  EXPECT_EQ(Open(dir / "silent.avi"), nullptr);

  // MPEG layer 3, ADPCM, and PCM of a width the layer does not read.
  const std::vector<uint8_t> data(400, 0x55);
  for (const std::vector<uint8_t>& format :
       {WaveFormat(0x55, 2, 44100, 0), WaveFormat(2, 1, 22050, 4), WaveFormat(1, 1, 22050, 12),
        WaveFormat(1, 3, 22050, 16), std::vector<uint8_t>(10, 1)}) {
    WriteFile(dir / "packed.avi", AviFile(Shape(AviSpec::kIdx1, {{format, {data}}})));
    EXPECT_EQ(Open(dir / "packed.avi"), nullptr);
  }
  // A PCM stream without any chunk has no sound either.
  WriteFile(dir / "empty.avi", AviFile(Shape(AviSpec::kIdx1, {{WaveFormat(1, 1, 8000, 16), {}}})));
  EXPECT_EQ(Open(dir / "empty.avi"), nullptr);
}

}  // namespace
