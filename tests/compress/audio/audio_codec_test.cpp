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
  EXPECT_GT(SegmentalSnr(music, decoded), c.MinSnr - 2);
}

// The older form codes stereo as one interleaved channel whose upper half is cut by the
// hearing threshold at 44100 Hz and up, so its floor there is lower.
INSTANTIATE_TEST_SUITE_P(
    Rates, AudioRoundTrip,
    ::testing::Values(RateCase{8000, 1, 0, 26}, RateCase{11025, 1, 0, 28},
                      RateCase{11025, 2, 0, 28}, RateCase{22050, 1, 0, 28},
                      RateCase{22050, 2, 0, 28}, RateCase{44100, 1, 0, 28},
                      RateCase{44100, 2, 0, 28}, RateCase{48000, 2, 0, 28},
                      RateCase{65535, 1, 0, 28}, RateCase{65535, 2, 0, 28},
                      RateCase{11025, 1, 100, 28}, RateCase{22050, 2, 100, 27},
                      RateCase{44100, 1, 100, 28}, RateCase{44100, 2, 100, 13},
                      RateCase{65535, 2, 100, 13}, RateCase{44100, 2, 4, 23},
                      RateCase{22050, 1, 104, 23}));

// ---- level against quality and size ----

TEST(AudioLevels, QualityAndBitsFallAsTheLevelRises) {
  for (uint32_t channels : {1u, 2u}) {
    const uint32_t rate = 22050;
    const Samples music = Music(rate, channels, rate);
    double lastSnr = 1e9;
    size_t lastBytes = SIZE_MAX;
    for (int level : {0, 1, 2, 4, 10, 30, 60, 99}) {
      Encoded encoded;
      const double snr = Snr(music, RoundTrip(music, rate, channels, level, &encoded));
      EXPECT_LE(snr, lastSnr + 0.2) << "level " << level;
      EXPECT_LE(encoded.Stream.size(), lastBytes) << "level " << level;
      lastSnr = snr;
      lastBytes = encoded.Stream.size();
    }
    EXPECT_LT(lastSnr, 1.0);  // level 99 keeps almost nothing but the two leading floats
  }
}

TEST(AudioLevels, LevelFourIsMuchSmallerThanPcmAndStillClose) {
  const uint32_t rate = 44100;
  const Samples music = Music(rate, 2, rate * 2);
  Encoded encoded;
  const double snr = Snr(music, RoundTrip(music, rate, 2, 4, &encoded));
  EXPECT_GT(snr, 23);
  EXPECT_LT(encoded.Stream.size() * 10, music.size() * 2);  // better than 10 to 1
}

TEST(AudioLevels, OlderFormLevelsFollowTheSameOrder) {
  const Samples music = Music(11025, 1, 11025);
  Encoded fine, coarse;
  const double fineSnr = Snr(music, RoundTrip(music, 11025, 1, 100, &fine));
  const double coarseSnr = Snr(music, RoundTrip(music, 11025, 1, 110, &coarse));
  EXPECT_GT(fineSnr, coarseSnr + 5);
  EXPECT_LT(coarse.Stream.size() * 2, fine.Stream.size());
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

TEST(AudioSignals, NoiseAtLowRateKeepsItsShape) {
  const Samples noise = Noise(1, 11025, 3000, 7);
  EXPECT_GT(Snr(noise, RoundTrip(noise, 11025, 1, 0)), 19);
  EXPECT_GT(Snr(noise, RoundTrip(noise, 11025, 1, 4)), 12);
}

TEST(AudioSignals, SinesKeepPitchAndLevel) {
  const Samples sine = Sine(44100, 1, 44100, 200, 12000);
  const Samples decoded = RoundTrip(sine, 44100, 1, 0);
  EXPECT_GT(Snr(sine, decoded), 27);
  EXPECT_GT(Snr(sine, RoundTrip(sine, 44100, 1, 4)), 20);
}

TEST(AudioSignals, ClicksStayInPlace) {
  const uint32_t rate = 11025;
  Samples clicks(rate * 2, 0);
  for (size_t i = 500; i + 1 < clicks.size(); i += 3001) {
    clicks[i] = 20000;
    clicks[i + 1] = -12000;
  }
  EXPECT_GT(Snr(clicks, RoundTrip(clicks, rate, 1, 0)), 15);
  // At 44100 Hz the top of a click's spectrum is dropped, but the click stays where it was.
  Samples wide(44100, 0);
  wide[10000] = 25000;
  const Samples decoded = RoundTrip(wide, 44100, 1, 0);
  size_t peak = 0;
  for (size_t i = 0; i < wide.size(); ++i)
    if (std::abs(decoded[i]) > std::abs(decoded[peak])) peak = i;
  EXPECT_NEAR(static_cast<double>(peak), 10000.0, 2.0);
  EXPECT_GT(decoded[peak], 10000);
  for (size_t i = 0; i < 5000; ++i) ASSERT_LT(std::abs(decoded[i]), 200) << i;
}

TEST(AudioSignals, StereoChannelsStayApart) {
  const uint32_t rate = 22050;
  const size_t frames = rate;
  const Samples left = Sine(rate, 1, frames, 440, 8000);
  const Samples right = Noise(1, frames, 2000, 3);
  Samples stereo(frames * 2);
  for (size_t i = 0; i < frames; ++i) {
    stereo[2 * i] = left[i];
    stereo[2 * i + 1] = right[i];
  }
  for (int level : {0, 100}) {
    const Channels decoded = Split(RoundTrip(stereo, rate, 2, level));
    EXPECT_GT(Snr(left, decoded.Left), 27) << level;
    EXPECT_GT(Snr(right, decoded.Right), 20) << level;
  }
  // One silent channel stays nearly silent.
  Samples oneSided(frames * 2, 0);
  for (size_t i = 0; i < frames; ++i) oneSided[2 * i] = left[i];
  const Channels decoded = Split(RoundTrip(oneSided, rate, 2, 0));
  for (int16_t s : decoded.Right) ASSERT_EQ(s, 0);
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

TEST(AudioModel, SpreadingTable) {
  EXPECT_FLOAT_EQ(VelmoAudioSpread(0), 1.0f);
  EXPECT_FLOAT_EQ(VelmoAudioSpread(-3), 0.0000038f);
  EXPECT_FLOAT_EQ(VelmoAudioSpread(-1), 0.13477f);
  EXPECT_FLOAT_EQ(VelmoAudioSpread(1), 0.07875f);
  EXPECT_FLOAT_EQ(VelmoAudioSpread(7), 0.0000004f);
  EXPECT_EQ(VelmoAudioSpread(-4), 0.0f);
  EXPECT_EQ(VelmoAudioSpread(8), 0.0f);
}

TEST(AudioModel, SilenceGivesBaseAllowancesLessTwiceTheQuality) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> spectrum(encoder->Length, 0.0f);
  float allowance[VelmoAudioMaxBands];
  VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 0, allowance);
  for (uint32_t b = 0; b < encoder->BandCount; ++b)
    EXPECT_FLOAT_EQ(allowance[b], b < 8 ? 6 + 24 : 6 + 12) << b;  // no tonality
  VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 10, allowance);
  EXPECT_FLOAT_EQ(allowance[0], 30 - 20);
  EXPECT_FLOAT_EQ(allowance[20], 0);  // 18 - 20, held at 0
  VelmoAudioEncoderClose(encoder);

  VelmoAudioEncoder* older = VelmoAudioEncoderOpen(22050, 2, 0);
  EXPECT_FLOAT_EQ(older->LoudnessBase, 24);
  std::vector<float> wide(older->Length, 0.0f);
  VelmoAudioMaskingThreshold(older, 0, wide.data(), 0, allowance);
  EXPECT_FLOAT_EQ(allowance[3], 6 + 48);
  EXPECT_FLOAT_EQ(allowance[12], 6 + 24);
  VelmoAudioEncoderClose(older);
}

TEST(AudioModel, ModeratelyPredictableTonesRaiseTheAllowance) {
  // A tone whose magnitude wobbles a little from block to block is predicted well but not
  // perfectly: its band counts as tonal, and the allowance rises above the noise figure.
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> spectrum(encoder->Length, 0.0f);
  float allowance[VelmoAudioMaxBands];
  const uint32_t pair = (encoder->BandBounds[10] + encoder->BandBounds[11]) / 2;
  for (int frame = 0; frame < 4; ++frame) {
    std::fill(spectrum.begin(), spectrum.end(), 0.0f);
    spectrum[2 * pair] = 1000.0f + (frame % 2 ? 150.0f : 0.0f);
    VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 0, allowance);
  }
  EXPECT_GT(allowance[10], 6 + 12 + 1);
  EXPECT_LE(allowance[10], 10 + 15 + 12);
  EXPECT_FLOAT_EQ(allowance[20], 18);
  VelmoAudioEncoderClose(encoder);
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

TEST(AudioModel, QuietCoefficientsAreDroppedAndHighLevelsStoreLargeIndices) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(22050, 1, 1);
  std::vector<float> coefficients(encoder->Length, 0.0f);
  const uint32_t quiet = 2 * encoder->BandBounds[12] + 1, loud = quiet + 2;
  coefficients[quiet] = 0.5f;  // below the threshold of hearing
  coefficients[loud] = 5000.0f;
  uint32_t indices[VelmoAudioMaxBands] = {};
  std::vector<int32_t> magnitudes(encoder->Length);
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 0, magnitudes.data());
  EXPECT_EQ(magnitudes[quiet], 0);
  EXPECT_EQ(magnitudes[loud], 5000);
  coefficients[loud] = -5000.0f;
  // At quality 10 bands from 8 on need 100 dB more: 5000 is no longer enough.
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 10, magnitudes.data());
  EXPECT_EQ(magnitudes[loud], 0);
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 0, magnitudes.data());
  EXPECT_EQ(magnitudes[loud], -5000);
  VelmoAudioEncoderClose(encoder);

  // Level 99: the quiet-threshold floor pushes stored indices far past 95.
  const Samples music = Music(22050, 1, 4000);
  const Encoded encoded = EncodeAll(music, 22050, 1, 99);
  const uint8_t* block = encoded.Stream.data();
  uint32_t largest = 0;
  for (uint32_t b = 0; b < 23; ++b) {
    const size_t bit = 2 + 58 + 8 * b;
    uint32_t value = 0;
    for (int k = 0; k < 8; ++k) value |= ((block[(bit + k) / 8] >> ((bit + k) % 8)) & 1u) << k;
    largest = std::max(largest, value);
  }
  EXPECT_GT(largest, 95u);
}

}  // namespace
