// Sound input from wave and raw files: rate, channel and bit conversion, sample formats,
// normalising, ranges, rewind and progress.
#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <string>
#include <tuple>
#include <vector>

#include "media_test_util.h"
#include "sound_test_util.h"

namespace {

using namespace sound_test;

// `values` as a 16-bit wave file, read back at `toRate` with `toChannels` (0: as they are).
std::vector<int16_t> Converted(const std::vector<int16_t>& values, uint32_t rate, uint32_t channels,
                               uint32_t toRate, uint32_t toChannels = 0) {
  ScratchDir dir;
  WriteWave16(dir / "c.wav", rate, channels, values);
  return ReadAll16(dir / "c.wav", toRate, toChannels);
}

TEST(SoundRates, RaisingTheRateDoublesTheCountWithLinearValuesBetween) {
  ScratchDir dir;
  const std::vector<int16_t> source = Noise(300, 7);
  WriteWave16(dir / "a.wav", 22050, 1, source);
  SoundInput* sound = Open(dir / "a.wav", 44100, 16, 1);
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->source_rate, 22050u);
  EXPECT_EQ(sound->total_bytes, source.size() * 2 * 2);
  const std::vector<int16_t> out = As16(ReadAll(sound, 998));
  SoundClose(sound);
  ASSERT_EQ(out.size(), source.size() * 2);
  for (size_t k = 0; k + 1 < source.size(); ++k) {
    ASSERT_EQ(out[2 * k], source[k]) << k;
    const double middle = (source[k] + source[k + 1]) / 2.0;
    ASSERT_NEAR(out[2 * k + 1], middle, 1.0) << k;
  }
  EXPECT_EQ(out[out.size() - 2], source.back());
  EXPECT_EQ(out.back(), source.back());  // nothing to move towards after the last sample
}

TEST(SoundRates, ThreeToSevenInterpolatesBetweenNeighbours) {
  std::vector<int16_t> ramp;
  for (int i = 0; i < 60; ++i) ramp.push_back(int16_t(i * 300 - 9000));
  const std::vector<int16_t> out = Converted(ramp, 3000, 1, 7000);
  ASSERT_EQ(out.size(), ramp.size() * 7 / 3);
  // Each source sample lands on its output position, and the values between climb evenly.
  for (size_t k = 0; k < ramp.size(); ++k) ASSERT_EQ(out[k * 7 / 3], ramp[k]) << k;
  for (size_t n = 1; n < out.size(); ++n) {
    ASSERT_GE(out[n], out[n - 1]) << n;
    ASSERT_LE(out[n] - out[n - 1], 300) << n;
  }
}

TEST(SoundRates, LoweringTheRateFourfoldAveragesFourSamples) {
  const std::vector<int16_t> source = Noise(4 * 250 + 3, 11);
  const std::vector<int16_t> out = Converted(source, 44100, 1, 11025);
  ASSERT_EQ(out.size(), source.size() / 4);
  for (size_t k = 0; k < out.size(); ++k) {
    const double mean =
        (source[4 * k] + source[4 * k + 1] + source[4 * k + 2] + source[4 * k + 3]) / 4.0;
    ASSERT_LT(std::fabs(out[k] - mean), 1.0) << k;
  }
}

TEST(SoundChannels, StereoToMonoIsTheMeanAndMonoToStereoDuplicates) {
  const std::vector<int16_t> stereo = Noise(2 * 500, 3), mono = Converted(stereo, 8000, 2, 0, 1);
  ASSERT_EQ(mono.size(), stereo.size() / 2);
  for (size_t k = 0; k < mono.size(); ++k)
    ASSERT_LE(std::fabs(mono[k] - (stereo[2 * k] + stereo[2 * k + 1]) / 2.0), 0.5) << k;

  const std::vector<int16_t> single = Noise(400, 5), both = Converted(single, 8000, 1, 0, 2);
  ASSERT_EQ(both.size(), single.size() * 2);
  for (size_t k = 0; k < single.size(); ++k) {
    ASSERT_EQ(both[2 * k], single[k]);
    ASSERT_EQ(both[2 * k + 1], single[k]);
  }
}

TEST(SoundBits, EightBitInAndOut) {
  ScratchDir dir;
  std::vector<uint8_t> bytes;
  for (int v = 0; v < 256; ++v) bytes.push_back(static_cast<uint8_t>(v));
  WaveShape w;
  w.bits = 8;
  w.rate = 11025;
  WriteFile(dir / "e.wav", WaveBytes(w, bytes));
  // Widened to 16 bits, and back to 8 bits unchanged (8 bits is also the default output).
  const std::vector<int16_t> wide = ReadAll16(dir / "e.wav");
  ASSERT_EQ(wide.size(), 256u);
  for (int v = 0; v < 256; ++v) ASSERT_EQ(wide[v], (v - 128) * 256);
  SoundInput* sound = Open(dir / "e.wav");
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->bits, 8u);
  EXPECT_EQ(ReadAll(sound), bytes);
  SoundClose(sound);

  // 16-bit values to 8 bits: the high byte with its sign bit turned.
  const std::vector<int16_t> values = {-32768, -257, -256, -1, 0, 255, 256, 32767};
  WriteWave16(dir / "w.wav", 11025, 1, values);
  sound = Open(dir / "w.wav", 0, 8);
  ASSERT_NE(sound, nullptr);
  const std::vector<uint8_t> narrow = ReadAll(sound);
  SoundClose(sound);
  ASSERT_EQ(narrow.size(), values.size());
  for (size_t i = 0; i < values.size(); ++i)
    EXPECT_EQ(narrow[i], std::floor(values[i] / 256.0) + 128) << values[i];
}

TEST(SoundFormats, TwentyFourAndThirtyTwoBitsGiveTheirTopSixteen) {
  ScratchDir dir;
  const std::vector<int16_t> top = Noise(200, 21);
  for (uint32_t bits : {24u, 32u}) {
    std::vector<uint8_t> data;
    for (size_t i = 0; i < top.size(); ++i) {
      for (uint32_t b = 0; b < bits / 8 - 2; ++b) data.push_back(static_cast<uint8_t>(i * 37 + b));
      Put16(&data, static_cast<uint16_t>(top[i]));
    }
    WriteFile(dir / "d.wav", WaveBytes({.channels = 2, .bits = bits}, data));
    SoundInput* sound = Open(dir / "d.wav");
    ASSERT_NE(sound, nullptr) << bits;
    EXPECT_EQ(std::tuple(sound->bits, sound->source_bits), std::tuple(16u, bits));
    EXPECT_EQ(As16(ReadAll(sound)), top) << bits;
    SoundClose(sound);
  }
}

TEST(SoundFormats, FloatWavesScaleAndClamp) {
  ScratchDir dir;
  const std::vector<double> values = {0.0, 0.5,   -0.5, -1.0, 0.999, 1.0,      1.5,
                                      -2.0, 0.25, 1e30, -1e300, NAN, INFINITY, -INFINITY};
  const std::vector<int16_t> expected = {0,      16384, -16384, -32768, 32735, 32767, 32767,
                                         -32768, 8192,  32767,  -32768, 0,     32767, -32768};
  for (uint32_t bits : {32u, 64u}) {
    WriteFile(dir / "f.wav", WaveBytes({.tag = 3, .bits = bits}, FloatBytes(values, bits)));
    EXPECT_EQ(ReadAll16(dir / "f.wav"), expected) << bits;
    SoundInput* sound = Open(dir / "f.wav");
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(std::tuple(sound->source_float, sound->source_bits, sound->bits), std::tuple(1, bits, 16u));
    SoundClose(sound);
  }
}

TEST(SoundFormats, ExtensibleWavesByTheirSubFormat) {
  ScratchDir dir;
  const std::vector<int16_t> values = Noise(64, 9);
  WaveShape w;
  w.tag = 0xFFFE;
  w.channels = 2;
  WriteFile(dir / "x.wav", WaveBytes(w, Pcm16(values)));
  EXPECT_EQ(ReadAll16(dir / "x.wav"), values);

  w.sub_tag = 3;
  w.bits = 32;
  std::vector<double> floats;
  for (int16_t v : values) floats.push_back(v / 32768.0);
  WriteFile(dir / "xf.wav", WaveBytes(w, FloatBytes(floats, 32)));
  EXPECT_EQ(ReadAll16(dir / "xf.wav"), values);
}

// The loudest run of 16 values, taken as the normalising pass takes them.
double LoudestRun(const std::vector<int16_t>& v) {
  double loudest = 0;
  for (size_t block = 0; block < v.size(); block += 512)
    for (size_t i = block; i + 16 <= std::min(v.size(), block + 512); i += 17) {
      double sum = 0;
      for (size_t j = i; j < i + 16; ++j) sum += double(v[j]) * v[j];
      loudest = std::max(loudest, std::sqrt(sum / 16));
    }
  return loudest;
}

// What a sound reported, as "level:text" lines.
std::vector<std::string> Said(const test_support::ProgressLog& log) {
  std::vector<std::string> lines;
  for (const auto& m : log.Messages()) lines.push_back(std::to_string(m.level) + ":" + m.text);
  return lines;
}

TEST(SoundNormalise, OneHundredAndSixteenBitsIsOnePercentOfFullScaleInSixteenBits) {
  ScratchDir dir;
  std::vector<int16_t> tone(3000);
  for (size_t i = 0; i < tone.size(); ++i)
    tone[i] = static_cast<int16_t>(std::lround(9000 * std::sin(i * 0.05) * (i < 1500 ? 0.3 : 1.0)));
  WriteWave16(dir / "t.wav", 22050, 1, tone);
  test_support::ProgressLog log;
  SoundInput* sound = SoundOpen((dir / "t.wav").c_str(), 0, 116, 0, 0, 0, 0, 0, 0, log.Sink());
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->bits, 16u);
  ASSERT_FALSE(Said(log).empty());
  EXPECT_EQ(Said(log)[0], "0:Normalizing audio...");
  const std::vector<int16_t> out = As16(ReadAll(sound));
  SoundClose(sound);
  ASSERT_EQ(out.size(), tone.size());
  EXPECT_NEAR(LoudestRun(out), 327.68, 2.0);
  // The shape stays: the quieter first half keeps its ratio to the louder second half.
  const std::vector<int16_t> quiet(out.begin(), out.begin() + 1500);
  const std::vector<int16_t> loud(out.begin() + 1500, out.end());
  EXPECT_NEAR(LoudestRun(quiet) / LoudestRun(loud), 0.3, 0.02);

  // Fifty percent in 8 bits: the loudest run comes to half of full scale.
  sound = SoundOpen((dir / "t.wav").c_str(), 0, 5008, 0, 0, 0, 0, 0, 0, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->bits, 8u);
  const std::vector<uint8_t> narrow = ReadAll(sound);
  SoundClose(sound);
  int peak = 0;
  for (uint8_t b : narrow) peak = std::max(peak, std::abs(b - 128));
  EXPECT_GE(peak, 60);  // a sine's peak is sqrt(2) times its RMS: about 90 of 128
  EXPECT_LE(peak, 95);
}

TEST(SoundNormalise, SilenceKeepsItsLevel) {
  ScratchDir dir;
  WriteWave16(dir / "z.wav", 22050, 1, std::vector<int16_t>(500, 0));
  SoundInput* sound = Open(dir / "z.wav", 0, 10016);
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->gain, 0);
  EXPECT_EQ(As16(ReadAll(sound)), std::vector<int16_t>(500, 0));
  SoundClose(sound);
}

TEST(SoundRange, StartAndEndInMillisecondsPickTheSourceSpan) {
  ScratchDir dir;
  std::vector<int16_t> index(2000);
  for (size_t i = 0; i < index.size(); ++i) index[i] = static_cast<int16_t>(i);
  WriteWave16(dir / "i.wav", 1000, 1, index);
  // At twice the rate the same span gives twice the samples, and an end past the sound stops
  // there; an end before the start is an empty sound.
  struct Case {
    uint32_t rate, start, end;
    size_t count;
    int16_t front, back;
  } cases[] = {{0, 100, 250, 150, 100, 249}, {2000, 1500, 9000, 1000, 1500, 1999}, {0, 900, 300, 0, 0, 0}};
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.start << " to " << c.end << " ms");
    SoundInput* sound = SoundOpen((dir / "i.wav").c_str(), c.rate, 16, 0, c.start, c.end, 0, 0, 0, {});
    ASSERT_NE(sound, nullptr);
    EXPECT_EQ(sound->total_bytes, c.count * 2);
    const std::vector<int16_t> out = As16(ReadAll(sound, 64));
    EXPECT_TRUE(sound->at_end);
    SoundClose(sound);
    ASSERT_EQ(out.size(), c.count);
    if (c.count) {
      EXPECT_EQ(out.front(), c.front);
      EXPECT_EQ(out.back(), c.back);
    }
  }
}

TEST(SoundRaw, ForcedTypeRateAndSkip) {
  ScratchDir dir;
  const std::vector<int16_t> values = Noise(300, 13);
  std::vector<uint8_t> file(37, 0xEE);  // a header of some other program
  const std::vector<uint8_t> pcm = Pcm16(values);
  file.insert(file.end(), pcm.begin(), pcm.end());
  file.push_back(0x55);  // half a sample at the end
  WriteFile(dir / "s.raw", file);
  const uint32_t force = 4 + 16000 * 8 - 1;  // 16-bit stereo at 16000 Hz
  SoundInput* sound = SoundOpen((dir / "s.raw").c_str(), 0, 0, 0, 0, 0, 0, force, 37, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(std::tuple(sound->source_rate, sound->channels, sound->bits), std::tuple(16000u, 2u, 16u));
  EXPECT_EQ(As16(ReadAll(sound)), values);
  SoundClose(sound);

  // The same bytes as 8-bit mono: every byte one sample; a raw type needs no wave header.
  sound = SoundOpen((dir / "s.raw").c_str(), 0, 0, 0, 0, 0, 0, 1 + 8000 * 8 - 1, 0, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(std::tuple(sound->bits, sound->channels), std::tuple(8u, 1u));
  EXPECT_EQ(ReadAll(sound), file);
  SoundClose(sound);

  // A wave file under a forced raw type is read as raw bytes, header and all.
  WriteWave16(dir / "w.wav", 8000, 1, values);
  sound = SoundOpen((dir / "w.wav").c_str(), 0, 0, 0, 0, 0, 0, 3 + 8000 * 8 - 1, 0, {});
  ASSERT_NE(sound, nullptr);
  EXPECT_GT(sound->total_bytes, values.size() * 2);
  SoundClose(sound);
  // Type 0 and types over 4 are no raw types.
  EXPECT_EQ(SoundOpen((dir / "s.raw").c_str(), 0, 0, 0, 0, 0, 0, 5 + 8000 * 8 - 1, 0, {}), nullptr);
}

TEST(SoundRead, RewindRepeatsAndProgressStartsAStepOnce) {
  ScratchDir dir;
  const std::vector<int16_t> values = Noise(1000, 17);
  WriteWave16(dir / "p.wav", 8000, 1, values);
  test_support::ProgressLog log;
  SoundInput* sound = SoundOpen((dir / "p.wav").c_str(), 16000, 16, 0, 0, 0, 0, 0, 0, log.Sink());
  ASSERT_NE(sound, nullptr);
  std::vector<uint8_t> half(2000);
  ASSERT_EQ(SoundRead(sound, half.data(), 2001), 2000u);  // rounded down to whole samples
  const std::vector<uint8_t> rest = ReadAll(sound, 1000);
  EXPECT_EQ(Said(log), (std::vector<std::string>{"1:Processing sound data (0%)...",
                                                 "0:Processing sound data (50%)...",
                                                 "0:Processing sound data (75%)...",
                                                 "0:Processing sound data (100%)..."}));
  EXPECT_EQ(SoundRead(sound, half.data(), 2000), 0u);

  SoundRewind(sound);
  EXPECT_FALSE(sound->at_end);
  EXPECT_EQ(sound->output_count, 0u);
  std::vector<uint8_t> first = ReadAll(sound, 2000);
  std::vector<uint8_t> whole = half;
  whole.insert(whole.end(), rest.begin(), rest.end());
  EXPECT_EQ(first, whole);
  SoundClose(sound);
}

}  // namespace
