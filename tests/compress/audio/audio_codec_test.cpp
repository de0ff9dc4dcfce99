// Encoder and decoder together: round trips of synthetic sounds at the rates and levels the
// tools use, bit rate against level, stream accounting, determinism, the crossfade seen in
// the output, and the encoder's model on chosen inputs.
#include "audio_test_util.h"
#include "compress/audio/audio_encoder_internal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using namespace audio_test;

struct Channels {
  Samples Left, Right;
};

Channels Split(const Samples& stereo) {
  Channels out;
  for (size_t i = 0; i + 1 < stereo.size(); i += 2) {
    out.Left.push_back(stereo[i]);
    out.Right.push_back(stereo[i + 1]);
  }
  return out;
}

// ---- round trips across rates and forms ----

struct RateCase {
  uint32_t Rate, Channels;
  int Level;
  double MinSnr;
};

class AudioRoundTrip : public ::testing::TestWithParam<RateCase> {};

TEST_P(AudioRoundTrip, MusicComesBackAboveItsFloor) {
  const RateCase c = GetParam();
  const Samples music = Music(c.Rate, c.Channels, c.Rate);
  Encoded encoded;
  const Samples decoded = RoundTrip(music, c.Rate, c.Channels, c.Level, &encoded);
  ASSERT_GE(decoded.size(), music.size());
  EXPECT_GT(Snr(music, decoded), c.MinSnr);
  EXPECT_GT(SegmentalSnr(music, decoded), std::min(c.MinSnr, 35.0) - 2);  // segments held at 35
}

// Level 0 is lossless in all but rounding: some 75 dB on this music at every rate and in
// both forms. Level 4 keeps the model's own allowances, some 29 to 33 dB.
INSTANTIATE_TEST_SUITE_P(
    Rates, AudioRoundTrip,
    ::testing::Values(RateCase{8000, 1, 0, 70}, RateCase{11025, 1, 0, 70},
                      RateCase{11025, 2, 0, 70}, RateCase{22050, 1, 0, 70},
                      RateCase{22050, 2, 0, 70}, RateCase{44100, 1, 0, 70},
                      RateCase{44100, 2, 0, 70}, RateCase{48000, 2, 0, 70},
                      RateCase{65535, 1, 0, 70}, RateCase{65535, 2, 0, 70},
                      RateCase{11025, 1, 100, 70}, RateCase{22050, 2, 100, 70},
                      RateCase{44100, 1, 100, 70}, RateCase{44100, 2, 100, 70},
                      RateCase{65535, 2, 100, 70}, RateCase{8000, 1, 4, 26},
                      RateCase{44100, 2, 4, 28}, RateCase{65535, 2, 4, 28},
                      RateCase{22050, 1, 104, 28}, RateCase{44100, 2, 104, 29}));

// ---- level against quality and size ----

// Quality and size fall with every step up each form's list of levels, in mono and stereo;
// in the current form no step costs more than 20 dB. Level 0 is near lossless, level 4 close.
TEST(AudioLevels, QualityAndBitsFallSmoothlyAsTheLevelRises) {
  const struct {
    uint32_t Rate;
    size_t Frames;
    std::vector<int> Levels;
    double Floor, Ceiling;  // of the last level's SNR
  } forms[] = {{22050, 11025, {0, 1, 2, 3, 4, 10, 20, 30, 45, 60, 80, 99}, 8, 16},
               {11025, 11025, {100, 104, 110, 130, 160, 199}, 8, 1e9}};
  for (const auto& form : forms)
    for (uint32_t channels : {1u, 2u}) {
      const Samples music = Music(form.Rate, channels, form.Frames);
      double lastSnr = 1e9;
      size_t lastBytes = SIZE_MAX;
      for (int level : form.Levels) {
        SCOPED_TRACE(::testing::Message() << channels << " channels, level " << level);
        Encoded encoded;
        const double snr = Snr(music, RoundTrip(music, form.Rate, channels, level, &encoded));
        EXPECT_LT(snr, lastSnr);
        EXPECT_LT(encoded.Stream.size(), lastBytes);
        if (level > 0 && level < 100) {
          EXPECT_GT(snr, lastSnr - 20);
        }
        if (level == 0) {
          EXPECT_GT(snr, 70);
        }
        if (level == 4) {
          EXPECT_GT(snr, 28);
        }
        lastSnr = snr;
        lastBytes = encoded.Stream.size();
      }
      // Very lossy, yet still the music: the last level keeps the loud partials.
      EXPECT_GT(lastSnr, form.Floor);
      EXPECT_LT(lastSnr, form.Ceiling);
    }
}

TEST(AudioLevels, LevelFourIsMuchSmallerThanPcmAndStillClose) {
  const uint32_t rate = 44100;
  const Samples music = Music(rate, 2, rate);
  Encoded encoded;
  const double snr = Snr(music, RoundTrip(music, rate, 2, 4, &encoded));
  EXPECT_GT(snr, 28);
  EXPECT_LT(encoded.Stream.size() * 6, music.size() * 2);  // better than 6 to 1
  Encoded lossy;
  EXPECT_GT(Snr(music, RoundTrip(music, rate, 2, 60, &lossy)), 14);
  EXPECT_LT(lossy.Stream.size() * 20, music.size() * 2);  // better than 20 to 1
}

// ---- kinds of sound ----

TEST(AudioSignals, SilenceStaysExactlySilentWithEveryWidthZero) {
  for (int level : {0, 4, 104}) {
    const Samples silence(44100 * 2, 0);
    Encoded encoded;
    const Samples decoded = RoundTrip(silence, 44100, 2, level, &encoded);
    for (int16_t s : decoded) ASSERT_EQ(s, 0);
    // Per block: floats, 25 indices and a few zero runs per coded channel.
    const uint32_t coded = level < 100 ? 2 : 1;
    for (uint32_t size : encoded.BlockSizes) EXPECT_LE(size, 4 + coded * (8 + 25 + 8));
  }
}

TEST(AudioSignals, SinesKeepPitchAndLevel) {
  // A steady tone is tonal to the model, so level 4 codes it far finer than noise.
  for (double hz : {200.0, 1000.0, 5000.0}) {
    const Samples sine = Sine(44100, 1, 22050, hz, 12000);
    EXPECT_GT(Snr(sine, RoundTrip(sine, 44100, 1, 0)), 70) << hz;
    EXPECT_GT(Snr(sine, RoundTrip(sine, 44100, 1, 4)), 26) << hz;
  }
  // A full-scale tone: the finest steps would overflow the 15-bit magnitudes.
  const Samples loud = Sine(44100, 1, 20000, 3000, 32000);
  EXPECT_GT(Snr(loud, RoundTrip(loud, 44100, 1, 0)), 60);
}

TEST(AudioSignals, SweepAndNoiseComeBackNearlyExactAtLevelZero) {
  // Noise at a low rate keeps its shape even at level 4.
  const Samples low = Noise(1, 11025, 3000, 7);
  EXPECT_GT(Snr(low, RoundTrip(low, 11025, 1, 0)), 65);
  EXPECT_GT(Snr(low, RoundTrip(low, 11025, 1, 4)), 18);
  const uint32_t rate = 44100;
  Samples sweep(rate);
  for (size_t i = 0; i < sweep.size(); ++i) {
    const double t = static_cast<double>(i) / rate;
    sweep[i] = Clip(8000 * std::sin(2 * Pi * (50 * t + 0.5 * 18000 * t * t)));
  }
  EXPECT_GT(Snr(sweep, RoundTrip(sweep, rate, 1, 0)), 65);
  // White noise reaches Nyquist, where the threshold in quiet is highest; level 0 keeps it.
  const Samples noise = Noise(2, rate / 2, 4000, 11);
  EXPECT_GT(Snr(noise, RoundTrip(noise, rate, 2, 0)), 65);
  EXPECT_GT(Snr(noise, RoundTrip(noise, rate, 2, 100)), 65);
}

TEST(AudioSignals, ClicksStayInPlace) {
  const uint32_t rate = 11025;
  Samples clicks(rate * 2, 0);
  for (size_t i = 500; i + 1 < clicks.size(); i += 3001) {
    clicks[i] = 20000;
    clicks[i + 1] = -12000;
  }
  EXPECT_GT(Snr(clicks, RoundTrip(clicks, rate, 1, 0)), 60);
  EXPECT_GT(Snr(clicks, RoundTrip(clicks, rate, 1, 4)), 15);
  // At 44100 Hz level 4 drops the top of a click's spectrum, but the click stays in place.
  Samples wide(44100, 0);
  wide[10000] = 25000;
  const Samples decoded = RoundTrip(wide, 44100, 1, 4);
  size_t peak = 0;
  for (size_t i = 0; i < wide.size(); ++i)
    if (std::abs(decoded[i]) > std::abs(decoded[peak])) peak = i;
  EXPECT_NEAR(static_cast<double>(peak), 10000.0, 2.0);
  EXPECT_GT(decoded[peak], 10000);
  for (size_t i = 0; i < 5000; ++i) ASSERT_LT(std::abs(decoded[i]), 200) << i;
}

TEST(AudioSignals, StereoChannelsStayApart) {
  const uint32_t rate = 22050;
  const size_t frames = rate / 2;
  const Samples left = Sine(rate, 1, frames, 440, 8000);
  const Samples right = Noise(1, frames, 2000, 3);
  Samples stereo(frames * 2);
  for (size_t i = 0; i < frames; ++i) {
    stereo[2 * i] = left[i];
    stereo[2 * i + 1] = right[i];
  }
  for (int level : {0, 4, 100, 104}) {
    const Channels decoded = Split(RoundTrip(stereo, rate, 2, level));
    const bool fine = level % 100 == 0;
    EXPECT_GT(Snr(left, decoded.Left), fine ? 65 : 25) << level;
    EXPECT_GT(Snr(right, decoded.Right), fine ? 65 : 12) << level;
    // Swapped or mixed channels would match the other source better than this.
    EXPECT_LT(Snr(left, decoded.Right), 1) << level;
    EXPECT_LT(Snr(right, decoded.Left), 1) << level;
  }
  // One silent channel stays silent.
  Samples oneSided(frames * 2, 0);
  for (size_t i = 0; i < frames; ++i) oneSided[2 * i + 1] = left[i];
  for (int level : {0, 4}) {
    const Channels decoded = Split(RoundTrip(oneSided, rate, 2, level));
    for (int16_t s : decoded.Left) ASSERT_EQ(s, 0) << level;
    EXPECT_GT(Snr(left, decoded.Right), level ? 25 : 65) << level;
  }
}

// ---- lengths and block joins ----

TEST(AudioLengths, VeryShortInputsDecodeToTheirLength) {
  for (size_t frames : {size_t{1}, size_t{10}, size_t{479}, size_t{480}, size_t{481}, size_t{512},
                        size_t{513}, size_t{959}, size_t{961}}) {
    const Samples sine = Sine(11025, 2, frames, 300, 9000);
    Encoded encoded;
    const Samples decoded = RoundTrip(sine, 11025, 2, 0, &encoded);
    ASSERT_GE(decoded.size(), sine.size()) << frames;
    // Zero-padded reads: whole steps are accounted, the first one covering the end.
    EXPECT_GE(encoded.Consumed, sine.size() * 2) << frames;
    EXPECT_LT(encoded.Consumed, sine.size() * 2 + 2 * 2 * 480) << frames;
    if (frames >= 100) {
      EXPECT_GT(Snr(sine, decoded), 20) << frames;
    }
  }
}

TEST(AudioLengths, ShortLastReadRepeatsTheLastSample) {
  // Handing the encoder fewer bytes than it asked for: it completes the block with the
  // last sample, and accounts only for what it was given.
  const Samples sine = Sine(11025, 1, 700, 300, 9000);
  const Encoded encoded = EncodeAll(sine, 11025, 1, 0, false);
  EXPECT_EQ(encoded.Consumed, sine.size() * 2);
  const Samples decoded =
      DecodeAll(encoded.Stream, 11025, 1, VelmoAudioCurrentForm, encoded.BlockSizes.size());
  EXPECT_GT(Snr(sine, decoded), 20);
}

TEST(AudioLengths, BlockJoinsAreSmooth) {
  // A slow sine changes by under 30 per sample; the decode must not jump at the joins. The
  // older form's blocks are periodic in their transform, so their ends fit less well.
  const struct {
    int Level;
    double Limit;
  } cases[] = {{0, 45}, {4, 45}, {100, 150}};
  for (const auto [level, limit] : cases) {
    const uint32_t rate = 22050;
    const Samples sine = Sine(rate, 1, rate, 50, 2000);
    const Samples decoded = RoundTrip(sine, rate, 1, level);
    const size_t step = 1024 - 64;
    double worstAtJoin = 0, worstElsewhere = 0;
    for (size_t i = 1; i < sine.size(); ++i) {
      const double jump = std::fabs(static_cast<double>(decoded[i]) - decoded[i - 1]);
      const size_t inBlock = i % step;
      if (inBlock < 64 || inBlock > step - 2) worstAtJoin = std::fmax(worstAtJoin, jump);
      else worstElsewhere = std::fmax(worstElsewhere, jump);
    }
    EXPECT_LT(worstAtJoin, limit) << level;
    EXPECT_LT(worstAtJoin, worstElsewhere * 2 + 20) << level;
  }
}

TEST(AudioStream, EncodingAndDecodingAreDeterministic) {
  const Samples music = Music(44100, 2, 30000);
  const Encoded first = EncodeAll(music, 44100, 2, 4);
  const Encoded second = EncodeAll(music, 44100, 2, 4);
  EXPECT_EQ(first.Stream, second.Stream);
  const size_t blocks = first.BlockSizes.size();
  EXPECT_EQ(DecodeAll(first.Stream, 44100, 2, VelmoAudioCurrentForm, blocks),
            DecodeAll(second.Stream, 44100, 2, VelmoAudioCurrentForm, blocks));
}

TEST(AudioStream, BlocksAreWholeWordsAndDecodeOneByOne) {
  const Samples music = Music(22050, 2, 22050);
  const Encoded encoded = EncodeAll(music, 22050, 2, 4);
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(22050, 2));
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), 22050, 2, VelmoAudioCurrentForm);
  std::vector<uint8_t> out(8192);
  VelmoAudioInput input{encoded.Stream.data(), encoded.Stream.size(), 0};
  for (uint32_t size : encoded.BlockSizes) {
    EXPECT_EQ(size % 4, 0u);
    VelmoAudioRing ring{out.data(), out.data() + out.size(), out.data(), 8192, 0, 0, 16};
    EXPECT_EQ(VelmoAudioDecodeBlock(decoder, &ring, &input), size);
  }
  EXPECT_EQ(input.Position, encoded.Stream.size());
}

// Decodes each block as the last of its packet: the input ends where the block does.
Samples DecodeEachAsPacket(const Encoded& encoded, uint32_t rate, uint32_t channels,
                           uint32_t mode) {
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(rate, channels));
  VelmoAudioDecoder* decoder = VelmoAudioDecoderOpen(memory.data(), rate, channels, mode);
  std::vector<uint8_t> out(encoded.BlockSizes.size() * VelmoAudioDecoderStepBytes(decoder));
  VelmoAudioRing ring{out.data(), out.data() + out.size(), out.data(),
                      static_cast<uint32_t>(out.size()), 0, 0, 16};
  VelmoAudioInput input{encoded.Stream.data(), 0, 0};
  for (uint32_t size : encoded.BlockSizes) {
    input.Size += size;
    VelmoAudioDecodeBlock(decoder, &ring, &input);
  }
  Samples pcm(ring.Offered / 2);
  std::memcpy(pcm.data(), out.data(), pcm.size() * 2);
  return pcm;
}

TEST(AudioStream, EveryBlockSurvivesEndingItsPacket) {
  // A reader gives up a group whose longest reach passes the packet; the encoder lays its
  // blocks out so that this never happens. Loud low partials (the widest first groups),
  // noise up to Nyquist (coded to the last group at level 0), both forms, both layouts.
  const uint32_t rate = 44100;
  const Samples noise = Noise(2, 20000, 1500, 5);
  const Samples bass = Sine(rate, 2, 20000, 60, 26000, 90);
  Samples stereo(noise.size()), mono(noise.size() / 2);
  for (size_t i = 0; i < stereo.size(); ++i) stereo[i] = Clip(noise[i] + bass[i]);
  for (size_t i = 0; i < mono.size(); ++i) mono[i] = stereo[2 * i];
  for (uint32_t channels : {1u, 2u}) {
    const Samples& source = channels == 1 ? mono : stereo;
    for (int level : {0, 4, 99, 100, 104}) {
      const Encoded encoded = EncodeAll(source, rate, channels, level);
      const uint32_t mode = VelmoAudioLevelIsCurrentForm(level) ? VelmoAudioCurrentForm : 0;
      const Samples whole =
          DecodeAll(encoded.Stream, rate, channels, mode, encoded.BlockSizes.size());
      EXPECT_EQ(DecodeEachAsPacket(encoded, rate, channels, mode), whole)
          << channels << " channels, level " << level;
      if (level % 100 == 0) {
        EXPECT_GT(Snr(source, whole), 65) << channels << " " << level;
      }
    }
  }
}

TEST(AudioStream, EncoderBufferAndAccounting) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 2, 1);
  ASSERT_NE(encoder, nullptr);
  EXPECT_EQ(VelmoAudioEncoderBlockBytes(encoder), 8192u);
  EXPECT_EQ(VelmoAudioEncoderOverlapBytes(encoder), 512u);
  uint8_t* buffer;
  uint32_t want;
  VelmoAudioEncoderBuffer(encoder, &buffer, &want);
  EXPECT_EQ(want, 8192u);
  uint8_t* const start = buffer;
  const uint8_t* out;
  uint32_t size, consumed;
  std::memset(buffer, 0, want);
  ASSERT_TRUE(VelmoAudioEncodeBlock(encoder, 4, want, &out, &size, &consumed));
  EXPECT_EQ(consumed, 8192u - 512u);
  VelmoAudioEncoderBuffer(encoder, &buffer, &want);
  EXPECT_EQ(buffer, start + 512);
  EXPECT_EQ(want, 8192u - 512u);
  // A last read of 100 bytes: what was given but not yet accounted is 612 bytes.
  ASSERT_TRUE(VelmoAudioEncodeBlock(encoder, 4, 100, &out, &size, &consumed));
  EXPECT_EQ(consumed, 612u);
  ASSERT_TRUE(VelmoAudioEncodeBlock(encoder, 4, 0, &out, &size, &consumed));
  EXPECT_EQ(consumed, 0u);
  VelmoAudioEncoderClose(encoder);

  EXPECT_EQ(VelmoAudioEncoderOpen(44100, 3, 1), nullptr);
  EXPECT_EQ(VelmoAudioEncoderOpen(0, 1, 1), nullptr);
  EXPECT_EQ(VelmoAudioEncoderOpen(70000, 1, 1), nullptr);
  EXPECT_FALSE(VelmoAudioEncodeBlock(nullptr, 4, 0, &out, &size, &consumed));
}

// ---- the encoder's model ----

TEST(AudioModel, SpreadingReachesThreeBandsDownAndSevenUp) {
  EXPECT_FLOAT_EQ(VelmoAudioSpread(0), 1.0f);
  EXPECT_GT(VelmoAudioSpread(-3), 0.0f);
  EXPECT_GT(VelmoAudioSpread(7), 0.0f);
  EXPECT_EQ(VelmoAudioSpread(-4), 0.0f);
  EXPECT_EQ(VelmoAudioSpread(8), 0.0f);
}

TEST(AudioModel, SilenceGivesTheBaseAllowancesAtLevelFourAndTheLevelsShiftThem) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> spectrum(encoder->Length, 0.0f);
  float allowance[VelmoAudioMaxBands];
  VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 4, allowance);
  for (uint32_t b = 0; b < encoder->BandCount; ++b)
    EXPECT_FLOAT_EQ(allowance[b], b < 8 ? 6 + 24 : 6 + 12) << b;  // no tonality
  // Level 0 asks lossless figures of every band; level 99 loosens, but a low band keeps some.
  float last[VelmoAudioMaxBands];
  VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 0, last);
  for (uint32_t b = 0; b < encoder->BandCount; ++b) EXPECT_GE(last[b], 66) << b;
  for (float quality : {1.0f, 4.0f, 10.0f, 30.0f, 60.0f, 99.0f}) {
    VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), quality, allowance);
    EXPECT_LT(allowance[0], last[0]) << quality;
    EXPECT_LE(allowance[20], last[20]) << quality;
    std::copy(allowance, allowance + VelmoAudioMaxBands, last);
  }
  EXPECT_GT(allowance[0], 3);
  EXPECT_EQ(allowance[20], 0);  // 18 less some 24, held at 0
  VelmoAudioEncoderClose(encoder);

  VelmoAudioEncoder* older = VelmoAudioEncoderOpen(22050, 2, 0);
  EXPECT_FLOAT_EQ(older->LoudnessBase, 24);
  std::vector<float> wide(older->Length, 0.0f);
  VelmoAudioMaskingThreshold(older, 0, wide.data(), 4, allowance);
  EXPECT_FLOAT_EQ(allowance[3], 6 + 48);
  EXPECT_FLOAT_EQ(allowance[12], 6 + 24);
  VelmoAudioEncoderClose(older);
}

// Four frames of one pair in band 10 and the allowance of band 10 after them, at level 4.
float ToneAllowance(float (*magnitude)(int), float phaseStep) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> spectrum(encoder->Length, 0.0f);
  float allowance[VelmoAudioMaxBands];
  const uint32_t pair = (encoder->BandBounds[10] + encoder->BandBounds[11]) / 2;
  for (int frame = 0; frame < 4; ++frame) {
    std::fill(spectrum.begin(), spectrum.end(), 0.0f);
    const float phase = phaseStep * frame;
    spectrum[2 * pair] = magnitude(frame) * std::cos(phase);
    spectrum[2 * pair + 1] = -magnitude(frame) * std::sin(phase);
    VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 4, allowance);
  }
  VelmoAudioEncoderClose(encoder);
  return allowance[10];
}

TEST(AudioModel, SteadyTonesAreTonalAndNoiseIsNot) {
  // Band 10 of a tone: up to 10 + 15 + 12 dB; of noise: 6 + 12.
  // A perfectly steady tone, its phase turning by the same angle each frame (past a half
  // turn, so that the phase wraps): fully predictable, fully tonal.
  EXPECT_GT(ToneAllowance([](int) { return 1000.0f; }, 2.5f), 10 + 15 + 12 - 0.5);
  // A slow decay is still predicted well.
  EXPECT_GT(ToneAllowance([](int f) { return 1000.0f - 20.0f * f; }, 1.0f), 10 + 15 + 12 - 0.5);
  // A tone that wobbles a little is less tonal, but above the noise figure.
  const float wobbly = ToneAllowance([](int f) { return f % 2 ? 1150.0f : 1000.0f; }, 1.0f);
  EXPECT_GT(wobbly, 6 + 12 + 1);
  EXPECT_LT(wobbly, 10 + 15 + 12 - 1);
  // A magnitude that jumps around is noise.
  EXPECT_NEAR(ToneAllowance([](int f) { return f % 2 ? 3000.0f : 300.0f; }, 1.0f), 6 + 12, 0.5);
}

TEST(AudioModel, BandSearchKeepsNoiseWithinTheAllowance) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(22050, 1, 1);
  std::mt19937 random(3);
  std::normal_distribution<float> normal(0.0f, 3000.0f);
  std::vector<float> coefficients(encoder->Length);
  for (auto& c : coefficients) c = normal(random);
  for (float level : {6.0f, 18.0f, 30.0f, 45.0f}) {
    float allowance[VelmoAudioMaxBands];
    std::fill(allowance, allowance + VelmoAudioMaxBands, level);
    uint32_t indices[VelmoAudioMaxBands];
    VelmoAudioChooseBandQuantisers(encoder, coefficients.data(), allowance, indices);
    for (uint32_t b = 0; b < encoder->BandCount; ++b) {
      double energy = 0, noise = 0;
      const float step = VelmoAudioQuantStep(indices[b]);
      for (uint32_t i = 2 * encoder->BandBounds[b]; i < 2 * encoder->BandBounds[b + 1]; ++i) {
        const double x = std::fabs(coefficients[i]);
        const double q = std::min(std::trunc(x / step + 0.5), 32767.0) * step;
        energy += x * x;
        noise += (q - x) * (q - x);
      }
      EXPECT_LE(noise, energy / std::pow(10.0, level / 10.0) * 1.0001) << "band " << b;
      EXPECT_LE(indices[b], 95u);
    }
  }
  VelmoAudioEncoderClose(encoder);
}

TEST(AudioModel, BandSearchNeverOverflowsTheMagnitudes) {
  // A loud band asked for more than any step gives: the finest step that still holds its
  // largest value, not index 0, whose magnitudes would be cut at 32767.
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> coefficients(encoder->Length, 0.0f);
  const uint32_t band = 9, at = 2 * encoder->BandBounds[band] + 3;
  coefficients[at] = 300000.0f;
  coefficients[at + 1] = -2000.0f;
  float allowance[VelmoAudioMaxBands];
  std::fill(allowance, allowance + VelmoAudioMaxBands, 120.0f);
  uint32_t indices[VelmoAudioMaxBands];
  VelmoAudioChooseBandQuantisers(encoder, coefficients.data(), allowance, indices);
  const float step = VelmoAudioQuantStep(indices[band]);
  EXPECT_LE(std::trunc(300000.0f / step + 0.5f), 32767.0f);
  EXPECT_GT(std::trunc(300000.0f / VelmoAudioQuantStep(indices[band] - 1) + 0.5f), 32767.0f);
  VelmoAudioEncoderClose(encoder);
}

TEST(AudioModel, QuietCoefficientsAreDroppedByLevelInDecibels) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(22050, 1, 1);
  std::vector<float> coefficients(encoder->Length, 0.0f);
  const uint32_t quiet = 2 * encoder->BandBounds[12] + 1, soft = quiet + 2, loud = quiet + 4;
  coefficients[quiet] = 0.9f;   // below the threshold of hearing (about 0 dB here)
  coefficients[soft] = 100.0f;  // 40 dB
  coefficients[loud] = -5000.0f;
  uint32_t indices[VelmoAudioMaxBands] = {};
  std::vector<int32_t> magnitudes(encoder->Length);
  // Level 0 drops nothing; level 4 drops what is not heard.
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 0, magnitudes.data());
  EXPECT_EQ(magnitudes[quiet], 1);
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 4, magnitudes.data());
  EXPECT_EQ(magnitudes[quiet], 0);
  EXPECT_EQ(magnitudes[soft], 100);
  EXPECT_EQ(magnitudes[loud], -5000);
  // Level 99 raises the threshold by some 50 dB: the soft one goes, the loud one stays.
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 99, magnitudes.data());
  EXPECT_EQ(magnitudes[soft], 0);
  EXPECT_EQ(magnitudes[loud], -5000);
  // In the bands below 8 the level does not raise it.
  const uint32_t low = 2 * encoder->BandBounds[6] + 1;
  coefficients[low] = 100.0f;
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 99, magnitudes.data());
  EXPECT_EQ(magnitudes[low], 100);
  VelmoAudioEncoderClose(encoder);
}

TEST(AudioModel, QuietFloorSquaresTheStepToTheThreshold) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  for (float quality : {4.0f, 30.0f, 99.0f}) {
    uint32_t indices[VelmoAudioMaxBands] = {};
    VelmoAudioFloorByQuiet(encoder, quality, indices);
    const float raise = VelmoAudioShapeOfQuality(quality).QuietRaise;
    for (uint32_t b = 0; b < encoder->BandCount; ++b) {
      // The step's square, in dB, is within one index (1.33 dB) below the raised threshold.
      const double squared = 20 * std::log10(VelmoAudioQuantStep(indices[b]));
      const double threshold = encoder->BandQuiet[b] + raise;
      if (threshold <= 0) continue;
      EXPECT_LE(squared, threshold + 1e-3) << quality << " band " << b;
      EXPECT_GT(squared, threshold - 1.34) << quality << " band " << b;
    }
    // A band already coarser keeps its step.
    uint32_t coarse[VelmoAudioMaxBands];
    std::fill(coarse, coarse + VelmoAudioMaxBands, 90u);
    VelmoAudioFloorByQuiet(encoder, quality, coarse);
    for (uint32_t b = 0; b < encoder->BandCount; ++b) EXPECT_EQ(coarse[b], 90u);
  }
  // Level 0 puts no floor anywhere.
  uint32_t indices[VelmoAudioMaxBands] = {};
  VelmoAudioFloorByQuiet(encoder, 0, indices);
  for (uint32_t b = 0; b < encoder->BandCount; ++b) EXPECT_EQ(indices[b], 0u) << b;
  VelmoAudioEncoderClose(encoder);
}

}  // namespace
