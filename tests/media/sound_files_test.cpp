// Sound input from lists, series, FLAC and Ogg Vorbis files, a Velmo file's sound tracks (against
// the codec's own decode of the packets), damaged waves, and the sound switches of a command line.
#include <FLAC/stream_encoder.h>
#include <gtest/gtest.h>
#include <unistd.h>
#include <vorbis/vorbisenc.h>

#include <cmath>
#include <cstring>
#include <string>
#include <tuple>
#include <vector>

#include "host/switches.h"
#include "media_test_util.h"
#include "sound_test_files.h"
#include "sound_test_util.h"

namespace {

using namespace sound_test;

// The pieces one after the other.
template <typename T>
std::vector<T> Cat(std::initializer_list<std::vector<T>> pieces) {
  std::vector<T> out;
  for (const std::vector<T>& p : pieces) out.insert(out.end(), p.begin(), p.end());
  return out;
}

// sign × i for i from `from` up to (not including) `to`.
std::vector<int16_t> Ramp(int from, int to, int sign = 1) {
  std::vector<int16_t> out;
  for (int i = from; i < to; ++i) out.push_back(int16_t(sign * i));
  return out;
}

// ---------------------------------------------------------------------------------------------
// Lists and series

TEST(SoundList, EntriesOfOtherRatesReadAsOneSoundAtTheFirstRate) {
  ScratchDir dir;
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
  EXPECT_EQ(out, Cat({ReadAll16(dir / "a.wav", 22050), ReadAll16(dir / "b.wav", 22050),
                      ReadAll16(dir / "c.wav", 22050)}));
  EXPECT_LT(std::abs(out[a.size()] - (b[0] + b[1]) / 2), 1);
}

TEST(SoundList, LineRangesAndAStartInsideTheSecondEntry) {
  ScratchDir dir;
  WriteWave16(dir / "p.wav", 1000, 1, Ramp(0, 1000));
  WriteWave16(dir / "n.wav", 1000, 1, Ramp(0, 1000, -1));
  WriteText(dir / "r.lst", "p.wav /S200 /E300\nn.wav\np.wav /E50\n");
  EXPECT_EQ(ReadAll16(dir / "r.lst"), Cat({Ramp(200, 300), Ramp(0, 1000, -1), Ramp(0, 50)}));
  // 350 ms in: the first entry (100 ms) is passed over, the second opens 250 ms in; the end
  // lands in the third.
  SoundInput* sound = SoundOpen((dir / "r.lst").c_str(), 0, 16, 0, 350, 1120, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  const std::vector<int16_t> part = Cat({Ramp(250, 1000, -1), Ramp(0, 20)});
  EXPECT_EQ(As16(ReadAll(sound)), part);
  // Rewinding goes back to the same start.
  SoundRewind(sound);
  EXPECT_EQ(As16(ReadAll(sound)), part);
  SoundClose(sound);
}

TEST(SoundList, SeriesWithAndWithoutAnEnd) {
  ScratchDir dir;
  std::vector<int16_t> all;
  for (int n = 1; n <= 3; ++n) {
    const std::vector<int16_t> part(10 * n, int16_t(n * 100));
    WriteWave16(dir / ("take" + std::to_string(n) + ".wav"), 8000, 2, part);
    all.insert(all.end(), part.begin(), part.end());
  }
  EXPECT_EQ(ReadAll16(dir / "take?.wav*1-3"), all);
  EXPECT_EQ(ReadAll16(dir / "take?.wav"), all);  // an open end: as long as the files exist
}

TEST(SoundList, ARawTypeAppliesToEveryEntry) {
  ScratchDir dir;
  const std::vector<int16_t> a = Noise(2 * 100, 31), b = Noise(2 * 60, 32);
  const std::vector<uint8_t> header(6, 0x77);  // to skip
  WriteFile(dir / "a.raw", Cat({header, Pcm16(a)}));
  WriteFile(dir / "b.raw", Cat({header, Pcm16(b)}));
  WriteText(dir / "r.lst", "a.raw\nb.raw\n");
  const uint32_t force = 4 + 8000 * 8 - 1;
  SoundInput* sound = SoundOpen((dir / "r.lst").c_str(), 0, 0, 0, 0, 0, 0, force, 6, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->rate, 8000u);
  EXPECT_EQ(As16(ReadAll(sound)), Cat({a, b}));
  SoundClose(sound);
}

// ---------------------------------------------------------------------------------------------
// Damaged and hostile waves

TEST(SoundDamaged, EveryTruncationOpensSafelyOrNotAtAll) {
  ScratchDir dir;
  WaveShape w;
  w.channels = 2;
  const std::vector<uint8_t> whole = WaveBytes(w, Pcm16(Noise(200, 4)));
  for (size_t size = 0; size <= whole.size(); size += (size < 80 ? 1 : 37)) {
    WriteFile(dir / "t.wav", std::vector<uint8_t>(whole.begin(), whole.begin() + size));
    SoundInput* sound = SoundOpen((dir / "t.wav").c_str(), 44100, 8, 1, 0, 0, 0, 0, 0, {});
    if (!sound) continue;
    // A data chunk cut short holds what is there, in whole samples.
    const size_t header = whole.size() - 400;  // 200 values of two bytes
    EXPECT_EQ(sound->total_bytes, (size - header) / 4 * 2) << size;
    EXPECT_EQ(ReadAll(sound).size(), sound->total_bytes) << size;
    SoundClose(sound);
  }
}

// Files that are no sound, or no sound this layer reads, open to nothing.
TEST(SoundOpenFails, MissingForeignHostileAndRefusedFiles) {
  ScratchDir dir;
  const std::vector<uint8_t> data = Pcm16(Noise(50, 5)), good = WaveBytes({}, data);
  // The first chunk claims 4 GB: the walk steps past the end and finds nothing. "data" before
  // "fmt ". Thousands of empty chunks before the format: the walk gives up.
  std::vector<uint8_t> big = good, early, many;
  big[16] = big[17] = big[18] = big[19] = 0xFF;
  PutTag(&early, "RIFF"), Put32(&early, 100), PutTag(&early, "WAVE"), PutTag(&early, "data");
  Put32(&early, 4), Put32(&early, 0);
  PutTag(&many, "RIFF"), Put32(&many, 0), PutTag(&many, "WAVE");
  for (int i = 0; i < 5000; ++i) PutTag(&many, "junk"), Put32(&many, 0);
  many.insert(many.end(), good.begin() + 12, good.end());
  WriteFile(dir / "big.wav", big);
  WriteFile(dir / "early.wav", early);
  WriteFile(dir / "many.wav", many);
  // Zero or three channels, no rate, ADPCM plain and inside the extensible form, 12-bit PCM.
  const WaveShape refused[] = {{.channels = 0}, {.channels = 3}, {.rate = 0}, {.tag = 2},
                               {.tag = 0xFFFE, .sub_tag = 2, .channels = 2, .bits = 32}, {.bits = 12}};
  std::vector<std::string> names = {"", dir / "none.wav", dir / "t.txt", dir / "big.wav",
                                    dir / "early.wav", dir / "many.wav", dir / "self.lst",
                                    dir / "gap.lst", dir / "empty.lst", dir / "absent.lst"};
  for (const WaveShape& shape : refused) {
    names.push_back(dir / ("refused" + std::to_string(names.size()) + ".wav"));
    WriteFile(names.back(), WaveBytes(shape, data));
  }
  WriteText(dir / "t.txt", "RIFF is not enough here");
  WriteFile(dir / "ok.wav", good);
  WriteText(dir / "self.lst", "self.lst\n");
  WriteText(dir / "gap.lst", "ok.wav\nmissing.wav\n");
  WriteText(dir / "empty.lst", "# nothing\n\n");
  for (const std::string& name : names) EXPECT_EQ(Open(name), nullptr) << name;
  EXPECT_EQ(Open(dir / "ok.wav", 2000000), nullptr);  // a rate beyond any sound card
  // Random bytes behind a good header start open or not, and read safely.
  std::vector<uint8_t> noise(good.begin(), good.begin() + 12);
  for (int16_t v : Noise(3000, 8)) noise.push_back(uint8_t(v));
  WriteFile(dir / "noise.wav", noise);
  if (SoundInput* sound = Open(dir / "noise.wav")) {
    ReadAll(sound);
    SoundClose(sound);
  }
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
  ScratchDir dir;
  const std::vector<int16_t> values = Noise(2 * 9000, 10);
  const std::vector<int32_t> wide(values.begin(), values.end());
  ASSERT_TRUE(WriteFlac(dir / "s.flac", 16000, 2, 16, wide));
  SoundInput* sound = Open(dir / "s.flac");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(std::tuple(std::string(sound->type_name), sound->source_rate, sound->channels),
            std::tuple("FLAC", 16000u, 2u));
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
  ScratchDir dir;
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
  ScratchDir dir;
  const std::vector<int16_t> values = Noise(4000, 14);
  ASSERT_TRUE(WriteFlac(dir / "d.flac", 8000, 1, 16, std::vector<int32_t>(values.begin(), values.end())));
  const std::vector<uint8_t> bytes = ReadFile(dir / "d.flac");
  for (size_t cut : {size_t(3), size_t(30), bytes.size() / 2}) {
    WriteFile(dir / "c.flac", std::vector<uint8_t>(bytes.begin(), bytes.begin() + cut));
    SoundInput* sound = Open(dir / "c.flac");
    if (!sound) continue;
    EXPECT_LT(ReadAll(sound).size(), values.size() * 2);
    EXPECT_TRUE(sound->at_end);
    SoundClose(sound);
  }
  std::vector<uint8_t> scrambled = bytes;
  for (size_t i = 200; i < scrambled.size(); i += 7) scrambled[i] ^= 0x5A;
  WriteFile(dir / "x.flac", scrambled);
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
  ScratchDir dir;
  const uint32_t rate = 22050, count = 11025;
  std::vector<float> tone;
  for (uint32_t i = 0; i < count; ++i) {
    tone.push_back(0.5f * std::sin(i * 2 * M_PI * 440 / rate));
    tone.push_back(0.25f * std::sin(i * 2 * M_PI * 660 / rate));
  }
  ASSERT_TRUE(WriteVorbis(dir / "t.ogg", rate, 2, tone));
  SoundInput* sound = Open(dir / "t.ogg");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(std::tuple(std::string(sound->type_name), sound->source_rate, sound->channels),
            std::tuple("Ogg Vorbis", rate, 2u));
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
  const std::vector<uint8_t> bytes = ReadFile(dir / "t.ogg");
  WriteFile(dir / "h.ogg", std::vector<uint8_t>(bytes.begin(), bytes.begin() + bytes.size() / 2));
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
    WriteFile(dir_ / "s.vlm", file_.File);
  }
  std::vector<uint8_t> Decoded(size_t track) const {
    const sound_test::TrackStream& s = file_.Streams[track];
    return sound_test::DecodeFrames(s, 0, static_cast<uint32_t>(s.Packets.size()));
  }
  ScratchDir dir_;
  sound_test::SoundFile file_;
};

TEST_F(SoundVelmo, EachTrackReadsAsTheCodecDecodesIt) {
  for (uint32_t track = 0; track < 2; ++track) {
    SCOPED_TRACE(track);
    SoundInput* sound = SoundOpen((dir_ / "s.vlm").c_str(), 0, 0, 0, 0, 0, track, 0, 0, {});
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(std::tuple(sound->kind, sound->source_rate, sound->channels),
              std::tuple(SoundKindVelmo, track == 0 ? 22050u : 16000u, track == 0 ? 2u : 1u));
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
  const std::vector<int16_t> all = As16(Decoded(1));  // mono, 16000 Hz
  SoundInput* sound = SoundOpen((dir_ / "s.vlm").c_str(), 8000, 16, 2, 100, 300, 1, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  const std::vector<int16_t> out = As16(ReadAll(sound));
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
    WriteFile(dir_ / "c.vlm", std::vector<uint8_t>(whole.begin(), whole.begin() + cut));
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
  EXPECT_EQ(std::tuple(s.rate, s.bits, s.channels, s.start_ms, s.end_ms, s.track, s.skip),
            std::tuple(22050u, 116u, 1u, 100u, 900u, 2u, 44u));
  EXPECT_EQ((s.force + 1) & 7, 4u);  // the raw type, and the rate above it
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
