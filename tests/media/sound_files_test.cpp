// Sound input from lists, series, FLAC and Ogg Vorbis files, a Velmo file's sound tracks (against
// the codec's own decode of the packets), damaged waves, and the sound switches of a command line.
#include <FLAC/stream_encoder.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vorbis/vorbisenc.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "host/switches.h"
#include "media_test_util.h"
#include "sound_test_files.h"
#include "sound_test_util.h"

namespace {

using namespace sound_test;
using media_test::TempDir;
using media_test::WriteText;

// ---------------------------------------------------------------------------------------------
// Lists and series

TEST(SoundList, EntriesOfOtherRatesReadAsOneSoundAtTheFirstRate) {
  TempDir dir;
  const std::vector<int16_t> a = Noise(300, 1), b = Noise(2 * 400, 2), c = Noise(150, 3);
  WriteWave16(dir / "a.wav", 22050, 1, a);
  WriteWave16(dir / "b.wav", 44100, 1, b);
  WriteWave16(dir / "c.wav", 11025, 1, c);
  WriteText(dir / "l.lst", "# three takes\na.wav\n\"b.wav\"\nc.wav\n");
  SoundInput* sound = Open(dir / "l.lst");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->kind, SoundKindList);
  EXPECT_EQ(sound->rate, 22050u);
  const size_t expect = a.size() + b.size() / 2 + c.size() * 2;
  EXPECT_EQ(sound->total_bytes, expect * 2);
  const std::vector<int16_t> out = As16(ReadAll(sound, 777));
  SoundClose(sound);
  ASSERT_EQ(out.size(), expect);
  // Each entry as it reads on its own at 22050 Hz, one after the other.
  std::vector<int16_t> joined = ReadAll16(dir / "a.wav", 22050);
  for (const char* name : {"b.wav", "c.wav"}) {
    const std::vector<int16_t> part = ReadAll16(dir / name, 22050);
    joined.insert(joined.end(), part.begin(), part.end());
  }
  EXPECT_EQ(out, joined);
  EXPECT_LT(std::abs(out[a.size()] - (b[0] + b[1]) / 2), 1);
}

TEST(SoundList, LineRangesAndAStartInsideTheSecondEntry) {
  TempDir dir;
  std::vector<int16_t> index(1000), negative(1000);
  for (int i = 0; i < 1000; ++i) {
    index[i] = static_cast<int16_t>(i);
    negative[i] = static_cast<int16_t>(-i);
  }
  WriteWave16(dir / "p.wav", 1000, 1, index);
  WriteWave16(dir / "n.wav", 1000, 1, negative);
  WriteText(dir / "r.lst", "p.wav /S200 /E300\nn.wav\np.wav /E50\n");
  std::vector<int16_t> out = ReadAll16(dir / "r.lst");
  ASSERT_EQ(out.size(), 100u + 1000u + 50u);
  EXPECT_EQ(out[0], 200);
  EXPECT_EQ(out[99], 299);
  EXPECT_EQ(out[100], 0);
  EXPECT_EQ(out[1099], -999);
  EXPECT_EQ(out[1100], 0);
  EXPECT_EQ(out[1149], 49);

  // 350 ms in: the first entry (100 ms) is passed over, the second opens 250 ms in; the end
  // lands in the third.
  SoundInput* sound =
      SoundOpen((dir / "r.lst").c_str(), 0, 16, 0, 350, 1120, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  out = As16(ReadAll(sound));
  ASSERT_EQ(out.size(), 770u);
  EXPECT_EQ(out[0], -250);
  EXPECT_EQ(out[749], -999);
  EXPECT_EQ(out[769], 19);
  // Rewinding goes back to the same start.
  SoundRewind(sound);
  EXPECT_EQ(As16(ReadAll(sound)), out);
  SoundClose(sound);
}

TEST(SoundList, SeriesSelfReferenceAndMissingEntries) {
  TempDir dir;
  std::vector<int16_t> all;
  for (int n = 1; n <= 3; ++n) {
    const std::vector<int16_t> part(10 * n, static_cast<int16_t>(n * 100));
    WriteWave16(dir / ("take" + std::to_string(n) + ".wav"), 8000, 2, part);
    all.insert(all.end(), part.begin(), part.end());
  }
  EXPECT_EQ(ReadAll16(dir / "take?.wav*1-3"), all);
  EXPECT_EQ(ReadAll16(dir / "take?.wav"), all);  // an open end: as long as the files exist

  WriteText(dir / "self.lst", "self.lst\n");
  EXPECT_EQ(Open(dir / "self.lst"), nullptr);
  WriteText(dir / "gap.lst", "take1.wav\nmissing.wav\n");
  EXPECT_EQ(Open(dir / "gap.lst"), nullptr);
  WriteText(dir / "empty.lst", "# nothing\n\n");
  EXPECT_EQ(Open(dir / "empty.lst"), nullptr);
  EXPECT_EQ(Open(dir / "absent.lst"), nullptr);
}

TEST(SoundList, ARawTypeAppliesToEveryEntry) {
  TempDir dir;
  const std::vector<int16_t> a = Noise(2 * 100, 31), b = Noise(2 * 60, 32);
  std::vector<uint8_t> bytes(6, 0x77);  // a header to skip
  const std::vector<uint8_t> pa = Pcm16(a), pb = Pcm16(b);
  std::vector<uint8_t> fa = bytes, fb = bytes;
  fa.insert(fa.end(), pa.begin(), pa.end());
  fb.insert(fb.end(), pb.begin(), pb.end());
  WriteBytes(dir / "a.raw", fa);
  WriteBytes(dir / "b.raw", fb);
  WriteText(dir / "r.lst", "a.raw\nb.raw\n");
  const uint32_t force = 4 + 8000 * 8 - 1;
  SoundInput* sound = SoundOpen((dir / "r.lst").c_str(), 0, 0, 0, 0, 0, 0, force, 6, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->rate, 8000u);
  std::vector<int16_t> joined = a;
  joined.insert(joined.end(), b.begin(), b.end());
  EXPECT_EQ(As16(ReadAll(sound)), joined);
  SoundClose(sound);
}

// ---------------------------------------------------------------------------------------------
// Damaged and hostile waves

TEST(SoundDamaged, EveryTruncationOpensSafelyOrNotAtAll) {
  TempDir dir;
  WaveShape w;
  w.channels = 2;
  const std::vector<uint8_t> whole = Wave(w, Pcm16(Noise(200, 4)));
  for (size_t size = 0; size <= whole.size(); size += (size < 80 ? 1 : 37)) {
    WriteBytes(dir / "t.wav", std::vector<uint8_t>(whole.begin(), whole.begin() + size));
    SoundInput* sound = SoundOpen((dir / "t.wav").c_str(), 44100, 8, 1, 0, 0, 0, 0, 0, {});
    if (!sound) continue;
    // A data chunk cut short holds what is there, in whole samples.
    const size_t header = whole.size() - 400;  // 200 values of two bytes
    EXPECT_EQ(sound->total_bytes, (size - header) / 4 * 2) << size;
    EXPECT_EQ(ReadAll(sound).size(), sound->total_bytes) << size;
    SoundClose(sound);
  }
}

TEST(SoundDamaged, HostileChunkWalksEnd) {
  TempDir dir;
  WaveShape w;
  std::vector<uint8_t> bytes = Wave(w, Pcm16(Noise(50, 5)));
  // The first chunk claims 4 GB: the walk steps past the end and finds nothing.
  std::vector<uint8_t> big = bytes;
  big[16] = big[17] = big[18] = big[19] = 0xFF;
  WriteBytes(dir / "big.wav", big);
  EXPECT_EQ(Open(dir / "big.wav"), nullptr);
  // "data" before "fmt ", zero channels, zero rate, a format chunk too short.
  std::vector<uint8_t> early;
  PutText(&early, "RIFF");
  Put32(&early, 100);
  PutText(&early, "WAVE");
  PutText(&early, "data");
  Put32(&early, 4);
  Put32(&early, 0);
  WriteBytes(dir / "early.wav", early);
  EXPECT_EQ(Open(dir / "early.wav"), nullptr);
  for (uint32_t channels : {0u, 3u}) {
    WaveShape c;
    c.channels = channels;
    WriteBytes(dir / "c.wav", Wave(c, Pcm16(Noise(12, 6))));
    EXPECT_EQ(Open(dir / "c.wav"), nullptr) << channels;
  }
  WaveShape r;
  r.rate = 0;
  WriteBytes(dir / "r.wav", Wave(r, Pcm16(Noise(12, 6))));
  EXPECT_EQ(Open(dir / "r.wav"), nullptr);
  // Thousands of empty chunks before the format: the walk gives up.
  std::vector<uint8_t> many;
  PutText(&many, "RIFF");
  Put32(&many, 0);
  PutText(&many, "WAVE");
  for (int i = 0; i < 5000; ++i) {
    PutText(&many, "junk");
    Put32(&many, 0);
  }
  many.insert(many.end(), bytes.begin() + 12, bytes.end());
  WriteBytes(dir / "many.wav", many);
  EXPECT_EQ(Open(dir / "many.wav"), nullptr);
  // Random bytes behind a good header start.
  std::vector<uint8_t> noise(bytes.begin(), bytes.begin() + 12);
  for (int16_t v : Noise(3000, 8)) noise.push_back(static_cast<uint8_t>(v));
  WriteBytes(dir / "noise.wav", noise);
  SoundInput* sound = Open(dir / "noise.wav");
  if (sound) {
    ReadAll(sound);
    SoundClose(sound);
  }
}

TEST(SoundDamaged, AShortReadEndsTheSound) {
  TempDir dir;
  WriteWave16(dir / "s.wav", 8000, 1, Noise(20000, 9));
  SoundInput* sound = Open(dir / "s.wav");
  ASSERT_NE(sound, nullptr);
  ASSERT_EQ(truncate((dir / "s.wav").c_str(), 10000), 0);  // the file shrinks while open
  const std::vector<uint8_t> got = ReadAll(sound, 4096);
  EXPECT_TRUE(sound->at_end);
  EXPECT_LT(got.size(), 10000u);
  EXPECT_GT(got.size(), 0u);
  EXPECT_EQ(SoundRead(sound, sound, 2), 0u);
  SoundClose(sound);
}

// ---------------------------------------------------------------------------------------------
// FLAC and Ogg Vorbis, made here with their encoders

bool WriteFlac(const std::string& name, uint32_t rate, uint32_t channels, uint32_t bits,
               const std::vector<int32_t>& interleaved) {
  FLAC__StreamEncoder* encoder = FLAC__stream_encoder_new();
  if (!encoder) return false;
  FLAC__stream_encoder_set_channels(encoder, channels);
  FLAC__stream_encoder_set_bits_per_sample(encoder, bits);
  FLAC__stream_encoder_set_sample_rate(encoder, rate);
  FLAC__stream_encoder_set_compression_level(encoder, 5);
  bool ok = FLAC__stream_encoder_init_file(encoder, name.c_str(), nullptr, nullptr) ==
            FLAC__STREAM_ENCODER_INIT_STATUS_OK;
  ok = ok && FLAC__stream_encoder_process_interleaved(
                 encoder, interleaved.data(), static_cast<uint32_t>(interleaved.size() / channels));
  ok = FLAC__stream_encoder_finish(encoder) && ok;
  FLAC__stream_encoder_delete(encoder);
  return ok;
}

TEST(SoundFlac, SixteenBitStereoRoundTripWithRange) {
  TempDir dir;
  const std::vector<int16_t> values = Noise(2 * 9000, 10);
  const std::vector<int32_t> wide(values.begin(), values.end());
  ASSERT_TRUE(WriteFlac(dir / "s.flac", 16000, 2, 16, wide));
  SoundInput* sound = Open(dir / "s.flac");
  ASSERT_NE(sound, nullptr);
  EXPECT_STREQ(sound->type_name, "FLAC");
  EXPECT_EQ(sound->source_rate, 16000u);
  EXPECT_EQ(sound->channels, 2u);
  EXPECT_EQ(As16(ReadAll(sound, 1234)), values);
  SoundClose(sound);
  // 250 ms in (a seek into the middle of a frame), 100 ms long.
  sound = SoundOpen((dir / "s.flac").c_str(), 0, 16, 0, 250, 350, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  const std::vector<int16_t> part = As16(ReadAll(sound));
  SoundClose(sound);
  EXPECT_EQ(part, std::vector<int16_t>(values.begin() + 2 * 4000, values.begin() + 2 * 5600));
}

TEST(SoundFlac, TwentyFourAndEightBitSamples) {
  TempDir dir;
  const std::vector<int16_t> top = Noise(3000, 12);
  std::vector<int32_t> wide;
  for (size_t i = 0; i < top.size(); ++i) wide.push_back(top[i] * 256 + static_cast<int32_t>(i % 256));
  ASSERT_TRUE(WriteFlac(dir / "w.flac", 48000, 1, 24, wide));
  EXPECT_EQ(ReadAll16(dir / "w.flac"), top);

  std::vector<int32_t> small;
  for (int16_t v : top) small.push_back(v >> 8);
  ASSERT_TRUE(WriteFlac(dir / "b.flac", 8000, 1, 8, small));
  SoundInput* sound = Open(dir / "b.flac");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->bits, 8u);
  const std::vector<uint8_t> bytes = ReadAll(sound);
  SoundClose(sound);
  ASSERT_EQ(bytes.size(), small.size());
  for (size_t i = 0; i < small.size(); ++i) ASSERT_EQ(bytes[i], small[i] + 128) << i;
}

TEST(SoundFlac, DamagedStreamsEndWithoutHarm) {
  TempDir dir;
  const std::vector<int16_t> values = Noise(4000, 14);
  ASSERT_TRUE(WriteFlac(dir / "d.flac", 8000, 1, 16, std::vector<int32_t>(values.begin(), values.end())));
  FILE* file = fopen((dir / "d.flac").c_str(), "rb");
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> bytes(1 << 16);
  bytes.resize(fread(bytes.data(), 1, bytes.size(), file));
  fclose(file);
  for (size_t cut : {size_t(3), size_t(30), bytes.size() / 2}) {
    WriteBytes(dir / "c.flac", std::vector<uint8_t>(bytes.begin(), bytes.begin() + cut));
    SoundInput* sound = Open(dir / "c.flac");
    if (!sound) continue;
    EXPECT_LT(ReadAll(sound).size(), values.size() * 2);
    EXPECT_TRUE(sound->at_end);
    SoundClose(sound);
  }
  std::vector<uint8_t> scrambled = bytes;
  for (size_t i = 200; i < scrambled.size(); i += 7) scrambled[i] ^= 0x5A;
  WriteBytes(dir / "x.flac", scrambled);
  SoundInput* sound = Open(dir / "x.flac");
  ASSERT_NE(sound, nullptr);  // the header stands; the frames are noise
  EXPECT_LE(ReadAll(sound).size(), values.size() * 2);
  SoundClose(sound);
}

bool WriteVorbis(const std::string& name, uint32_t rate, uint32_t channels,
                 const std::vector<float>& interleaved) {
  FILE* file = fopen(name.c_str(), "wb");
  if (!file) return false;
  vorbis_info info;
  vorbis_info_init(&info);
  if (vorbis_encode_init_vbr(&info, channels, rate, 0.6f) != 0) {
    fclose(file);
    return false;
  }
  vorbis_comment comment;
  vorbis_comment_init(&comment);
  vorbis_dsp_state dsp;
  vorbis_block block;
  vorbis_analysis_init(&dsp, &info);
  vorbis_block_init(&dsp, &block);
  ogg_stream_state stream;
  ogg_stream_init(&stream, 1234);
  ogg_packet head, comments, codebooks;
  vorbis_analysis_headerout(&dsp, &comment, &head, &comments, &codebooks);
  ogg_stream_packetin(&stream, &head);
  ogg_stream_packetin(&stream, &comments);
  ogg_stream_packetin(&stream, &codebooks);
  ogg_page page;
  auto write = [&](ogg_page* p) {
    fwrite(p->header, 1, p->header_len, file);
    fwrite(p->body, 1, p->body_len, file);
  };
  while (ogg_stream_flush(&stream, &page)) write(&page);
  const size_t frames = interleaved.size() / channels;
  for (size_t at = 0, n = 0;; at += n) {
    n = std::min<size_t>(1024, frames - at);
    if (n > 0) {
      float** buffer = vorbis_analysis_buffer(&dsp, static_cast<int>(n));
      for (size_t i = 0; i < n; ++i)
        for (uint32_t c = 0; c < channels; ++c) buffer[c][i] = interleaved[(at + i) * channels + c];
    }
    vorbis_analysis_wrote(&dsp, static_cast<int>(n));  // 0 marks the end
    while (vorbis_analysis_blockout(&dsp, &block) == 1) {
      vorbis_analysis(&block, nullptr);
      vorbis_bitrate_addblock(&block);
      ogg_packet packet;
      while (vorbis_bitrate_flushpacket(&dsp, &packet)) {
        ogg_stream_packetin(&stream, &packet);
        while (ogg_stream_pageout(&stream, &page)) write(&page);
      }
    }
    if (n == 0) break;
  }
  while (ogg_stream_flush(&stream, &page)) write(&page);
  ogg_stream_clear(&stream);
  vorbis_block_clear(&block);
  vorbis_dsp_clear(&dsp);
  vorbis_comment_clear(&comment);
  vorbis_info_clear(&info);
  return fclose(file) == 0;
}

TEST(SoundVorbis, StereoToneRoundTripKeepsLengthAndShape) {
  TempDir dir;
  const uint32_t rate = 22050, count = 11025;
  std::vector<float> tone;
  for (uint32_t i = 0; i < count; ++i) {
    tone.push_back(0.5f * std::sin(i * 2 * M_PI * 440 / rate));
    tone.push_back(0.25f * std::sin(i * 2 * M_PI * 660 / rate));
  }
  ASSERT_TRUE(WriteVorbis(dir / "t.ogg", rate, 2, tone));
  SoundInput* sound = Open(dir / "t.ogg");
  ASSERT_NE(sound, nullptr);
  EXPECT_STREQ(sound->type_name, "Ogg Vorbis");
  EXPECT_EQ(sound->source_rate, rate);
  EXPECT_EQ(sound->channels, 2u);
  const std::vector<int16_t> out = As16(ReadAll(sound));
  SoundClose(sound);
  ASSERT_EQ(out.size(), tone.size());
  double error = 0, power = 0;
  for (size_t i = 0; i < out.size(); ++i) {
    const double want = tone[i] * 32768;
    error += (out[i] - want) * (out[i] - want);
    power += want * want;
  }
  EXPECT_LT(error / power, 0.01);  // better than 20 dB signal to noise

  // Mono at 11025 Hz from a 500 ms start: the range seeks within the stream.
  sound = SoundOpen((dir / "t.ogg").c_str(), 11025, 16, 1, 250, 0, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(As16(ReadAll(sound)).size(), (count - rate / 4) / 2);
  SoundClose(sound);

  // Cut in half: the length from the last page no longer holds; a short read ends it.
  FILE* file = fopen((dir / "t.ogg").c_str(), "rb");
  ASSERT_NE(file, nullptr);
  std::vector<uint8_t> bytes(1 << 20);
  bytes.resize(fread(bytes.data(), 1, bytes.size(), file));
  fclose(file);
  WriteBytes(dir / "h.ogg", std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
  sound = Open(dir / "h.ogg");
  if (sound) {
    EXPECT_LE(ReadAll(sound).size(), tone.size() * 2);
    SoundClose(sound);
  }
}

// ---------------------------------------------------------------------------------------------
// Velmo sound tracks

class SoundVelmo : public ::testing::Test {
 protected:
  void SetUp() override {
    // A stereo track whose blocks outrun the frames (some frames carry none), and a mono track.
    file_ = sound_test::BuildSoundFile(12, 25, 1, {{22050, 2, false, 7, 1, 0}, {16000, 1, false, 3, 1, 0}});
    WriteBytes(dir_ / "s.vlm", file_.File);
  }
  std::vector<uint8_t> Decoded(size_t track) const {
    const sound_test::TrackStream& s = file_.Streams[track];
    return sound_test::DecodeFrames(s, 0, static_cast<uint32_t>(s.Packets.size()));
  }
  TempDir dir_;
  sound_test::SoundFile file_;
};

TEST_F(SoundVelmo, EachTrackReadsAsTheCodecDecodesIt) {
  for (uint32_t track = 0; track < 2; ++track) {
    SCOPED_TRACE(track);
    SoundInput* sound = SoundOpen((dir_ / "s.vlm").c_str(), 0, 0, 0, 0, 0, track, 0, 0, {});
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->kind, SoundKindVelmo);
    EXPECT_EQ(sound->source_rate, track == 0 ? 22050u : 16000u);
    EXPECT_EQ(sound->channels, track == 0 ? 2u : 1u);
    const std::vector<uint8_t> expected = Decoded(track);
    ASSERT_GT(expected.size(), 0u);
    EXPECT_EQ(sound->total_bytes, expected.size());
    EXPECT_TRUE(ReadAll(sound) == expected);
    // A second pass after a rewind gives the same sound.
    SoundRewind(sound);
    EXPECT_TRUE(ReadAll(sound) == expected);
    SoundClose(sound);
  }
  EXPECT_EQ(SoundOpen((dir_ / "s.vlm").c_str(), 0, 0, 0, 0, 0, 2, 0, 0, {}), nullptr);
}

TEST_F(SoundVelmo, RangeAndConversionApply) {
  const std::vector<int16_t> all = sound_test::As16(Decoded(1));  // mono, 16000 Hz
  SoundInput* sound = SoundOpen((dir_ / "s.vlm").c_str(), 8000, 16, 2, 100, 300, 1, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  const std::vector<int16_t> out = sound_test::As16(ReadAll(sound));
  SoundClose(sound);
  ASSERT_EQ(out.size(), 2u * 1600);  // 200 ms at 8000 Hz, two channels
  for (size_t k = 0; k < 1600; ++k) {
    const double mean = (all[1600 + 2 * k] + all[1600 + 2 * k + 1]) / 2.0;
    ASSERT_LT(std::abs(out[2 * k] - mean), 1.0) << k;
    ASSERT_EQ(out[2 * k], out[2 * k + 1]);
  }
}

TEST_F(SoundVelmo, DamagedFilesOpenNotOrEndEarly) {
  const std::vector<uint8_t>& whole = file_.File;
  for (size_t cut : {size_t(3), size_t(64), whole.size() / 3, whole.size() - 5}) {
    WriteBytes(dir_ / "c.vlm", std::vector<uint8_t>(whole.begin(), whole.begin() + cut));
    SoundInput* sound = SoundOpen((dir_ / "c.vlm").c_str(), 0, 0, 0, 0, 0, 0, 0, 0, {});
    if (!sound) continue;
    EXPECT_LE(ReadAll(sound).size(), Decoded(0).size()) << cut;
    SoundClose(sound);
  }
}

// ---------------------------------------------------------------------------------------------
// Switches

TEST(SoundSwitches, AllSwitchesAndTheRawForceNumber) {
  char line[] = "in.raw /R22050 /B116 /C1 /S100 /E900 /T2 /Y4 /D8000 /K44 out.wav";
  SoundSwitches s;
  ASSERT_TRUE(SoundParseSwitches(line, &s));
  EXPECT_EQ(s.rate, 22050u);
  EXPECT_EQ(s.bits, 116u);
  EXPECT_EQ(s.channels, 1u);
  EXPECT_EQ(s.start_ms, 100u);
  EXPECT_EQ(s.end_ms, 900u);
  EXPECT_EQ(s.track, 2u);
  EXPECT_EQ(s.skip, 44u);
  EXPECT_EQ((s.force + 1) & 7, 4u);
  EXPECT_EQ((s.force + 1) >> 3, 8000u);
  char rest[64];
  TakeName(rest, sizeof rest, line);
  EXPECT_STREQ(rest, "in.raw");
  EXPECT_STREQ(line, "out.wav");

  char plain[] = "/Y1 a.raw";
  ASSERT_TRUE(SoundParseSwitches(plain, &s));
  EXPECT_EQ(s.force, 1u + 11025 * 8 - 1);  // the raw rate defaults to 11025
  char none[] = "a.wav /D8000";
  ASSERT_TRUE(SoundParseSwitches(none, &s));
  EXPECT_EQ(s.force, 0u);  // a rate without a type forces nothing
  EXPECT_EQ(s.rate, 0u);
  for (const char* bad : {"/Y5", "/Y1 /D0", "/R-5", "/C-1", "/S-100"}) {
    char text[32];
    snprintf(text, sizeof text, "%s", bad);
    EXPECT_FALSE(SoundParseSwitches(text, &s)) << bad;
  }
}

}  // namespace
