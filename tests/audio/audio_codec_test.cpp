// Encoder and decoder together: round trips of synthetic sounds at the rates and levels the
// tools use, bit rate against level, stream accounting, determinism, block joins, and the
// encoder's model on chosen inputs.
#include "audio_test_util.h"
#include "audio/audio_encoder_internal.h"

#include <gtest/gtest.h>

#include <tuple>

#include <cmath>
#include <vector>

namespace {

using namespace audio_test;

Samples Channel(const Samples& stereo, size_t which) {
  Samples out;
  for (size_t i = which; i < stereo.size(); i += 2) out.push_back(stereo[i]);
  return out;
}

// The model's allowances are 6 dB and up plus the loudness base, less 2 dB a level, and the
// threshold in quiet is a floor under every step from level 0 on: level 0 gives some 29 to 33
// dB on this music at every rate (the older form's stereo, coded as one signal at twice the
// rate, some 15), level 4 some 24 dB at better than 6 to 1; by level 60 the thresholds,
// raised 10 dB a level above band 8, have dropped all of it.
TEST(AudioRoundTrip, MusicComesBackAboveItsFloorAndSize) {
  const struct {
    uint32_t Rate, Channels;
    int Level;
    double MinSnr, MinRatio;  // of the PCM's size to the stream's
  } cases[] = {{8000, 1, 0, 27.5, 1},    {11025, 1, 0, 29, 1},     {11025, 2, 0, 29, 1},
               {22050, 1, 0, 29, 1},     {22050, 2, 0, 29, 1},     {44100, 1, 0, 29, 1},
               {44100, 2, 0, 29, 1},     {48000, 2, 0, 29, 1},     {65535, 1, 0, 31, 1},
               {65535, 2, 0, 31, 1},     {11025, 1, 100, 29, 1},   {22050, 2, 100, 28.5, 1},
               {44100, 1, 100, 29, 1},   {44100, 2, 100, 14, 1},   {65535, 2, 100, 14, 1},
               {8000, 1, 4, 23, 1},      {22050, 2, 4, 23.5, 1},   {44100, 2, 4, 23.5, 6},
               {65535, 2, 4, 23.5, 1},   {22050, 1, 104, 23.5, 1}, {44100, 2, 104, 14, 1},
               {44100, 2, 60, -1, 20}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.Rate << " Hz, " << c.Channels << " channels, level "
                                      << c.Level);
    const Samples music = Music(c.Rate, c.Channels, c.Rate);
    Encoded encoded;
    const Samples decoded = RoundTrip(music, c.Rate, c.Channels, c.Level, &encoded);
    ASSERT_GE(decoded.size(), music.size());
    EXPECT_GT(Snr(music, decoded), c.MinSnr);
    if (c.MinSnr < 0) { EXPECT_LT(Snr(music, decoded), 0.1); }  // nothing left
    EXPECT_LT(encoded.Stream.size() * c.MinRatio, music.size() * 2);
  }
}

// Quality and size fall with every step up each form's list of levels, in mono and stereo,
// until the raised thresholds have dropped everything: from there on they stay.
TEST(AudioRoundTrip, QualityAndBitsFallSmoothlyAsTheLevelRises) {
  const struct {
    uint32_t Rate;
    std::vector<int> Levels;
    double Floor, Ceiling;  // of the last level's SNR
  } forms[] = {{22050, {0, 1, 2, 3, 4, 10, 20, 30, 45, 60, 80, 99}, -0.1, 0.1},
               {11025, {100, 104, 110, 130, 160, 199}, -0.1, 0.1}};
  for (const auto& form : forms)
    for (uint32_t channels : {1u, 2u}) {
      const Samples music = Music(form.Rate, channels, 11025);
      double lastSnr = 1e9;
      size_t lastBytes = SIZE_MAX;
      for (int level : form.Levels) {
        SCOPED_TRACE(::testing::Message() << channels << " channels, level " << level);
        Encoded encoded;
        const double snr = Snr(music, RoundTrip(music, form.Rate, channels, level, &encoded));
        if (lastSnr > 0.1) {
          EXPECT_LT(snr, lastSnr);
          EXPECT_LT(encoded.Stream.size(), lastBytes);
        } else {
          EXPECT_LE(snr, lastSnr + 1e-9);
          EXPECT_LE(encoded.Stream.size(), lastBytes);
        }
        lastSnr = snr;
        lastBytes = encoded.Stream.size();
      }
      // The last level has dropped all of the music.
      EXPECT_GT(lastSnr, form.Floor);
      EXPECT_LT(lastSnr, form.Ceiling);
    }
}

// ---- kinds of sound ----

Samples Sweep(uint32_t rate) {
  Samples sweep(rate);
  for (size_t i = 0; i < sweep.size(); ++i) {
    const double t = static_cast<double>(i) / rate;
    sweep[i] = Clip(8000 * std::sin(2 * Pi * (50 * t + 0.5 * 18000 * t * t)));
  }
  return sweep;
}

Samples Clicks(uint32_t rate) {
  Samples clicks(rate * 2, 0);
  for (size_t i = 500; i + 1 < clicks.size(); i += 3001) {
    clicks[i] = 20000;
    clicks[i + 1] = -12000;
  }
  return clicks;
}

TEST(AudioSignals, EachKindOfSoundKeepsItsFloor) {
  // What each kind keeps at levels 0 and 4, where the threshold in quiet floors every step:
  // white noise and the sweep, reaching Nyquist where that threshold is highest, keep least.
  const struct {
    const char* Name;
    Samples Sound;
    uint32_t Rate, Channels;
    int Level;
    double MinSnr;
  } cases[] = {{"200 Hz", Sine(44100, 1, 22050, 200, 12000), 44100, 1, 0, 29},
               {"200 Hz", Sine(44100, 1, 22050, 200, 12000), 44100, 1, 4, 22},
               {"5 kHz", Sine(44100, 1, 22050, 5000, 12000), 44100, 1, 0, 20},
               {"5 kHz", Sine(44100, 1, 22050, 5000, 12000), 44100, 1, 4, 11.5},
               {"full scale", Sine(44100, 1, 20000, 3000, 32000), 44100, 1, 0, 19},
               {"low noise", Noise(1, 11025, 3000, 7), 11025, 1, 0, 21},
               {"low noise", Noise(1, 11025, 3000, 7), 11025, 1, 4, 14},
               {"sweep", Sweep(44100), 44100, 1, 0, 7},
               {"white noise", Noise(2, 22050, 4000, 11), 44100, 2, 0, 4.5},
               {"white noise", Noise(2, 22050, 4000, 11), 44100, 2, 100, 5},
               {"clicks", Clicks(11025), 11025, 1, 0, 17},
               {"clicks", Clicks(11025), 11025, 1, 4, 9}};
  for (const auto& c : cases)
    EXPECT_GT(Snr(c.Sound, RoundTrip(c.Sound, c.Rate, c.Channels, c.Level)), c.MinSnr)
        << c.Name << ", level " << c.Level;
}

TEST(AudioSignals, SilenceStaysExactlySilentWithEveryWidthZero) {
  for (int level : {0, 4, 104}) {
    Encoded encoded;
    for (int16_t s : RoundTrip(Samples(44100 * 2, 0), 44100, 2, level, &encoded)) ASSERT_EQ(s, 0);
    // Per block: floats and 25 indices per coded channel, and zero runs short enough near the
    // block's end that a reader never gives them up (9 bits a run, growing by about a group a
    // run from the end: some 35 to 40 bytes, for two channels of 255 groups or one of 511).
    const uint32_t coded = level < 100 ? 2 : 1;
    for (uint32_t size : encoded.BlockSizes) EXPECT_LE(size, 4 + coded * (8 + 25) + 40);
  }
}

TEST(AudioSignals, ClickStaysInPlace) {
  // At 44100 Hz level 4 drops the top of a click's spectrum, but the click stays in place.
  Samples wide(44100, 0);
  wide[10000] = 25000;
  const Samples decoded = RoundTrip(wide, 44100, 1, 4);
  const auto louder = [](int16_t a, int16_t b) { return std::abs(a) < std::abs(b); };
  const size_t peak =
      std::max_element(decoded.begin(), decoded.begin() + wide.size(), louder) - decoded.begin();
  EXPECT_NEAR(static_cast<double>(peak), 10000.0, 2.0);
  EXPECT_GT(decoded[peak], 10000);
  for (size_t i = 0; i < 5000; ++i) ASSERT_LT(std::abs(decoded[i]), 200) << i;
}

TEST(AudioSignals, StereoChannelsStayApart) {
  const uint32_t rate = 22050, frames = rate / 2;
  const Samples left = Sine(rate, 1, frames, 440, 8000), right = Noise(1, frames, 2000, 3);
  Samples stereo(frames * 2), oneSided(frames * 2, 0);
  for (size_t i = 0; i < frames; ++i) {
    stereo[2 * i] = left[i];
    stereo[2 * i + 1] = right[i];
    oneSided[2 * i + 1] = left[i];
  }
  for (int level : {0, 4, 100, 104}) {
    SCOPED_TRACE(level);
    const Samples decoded = RoundTrip(stereo, rate, 2, level);
    const bool fine = level % 100 == 0;
    EXPECT_GT(Snr(left, Channel(decoded, 0)), fine ? 28 : 22);
    EXPECT_GT(Snr(right, Channel(decoded, 1)), fine ? 21 : 12);
    // Swapped or mixed channels would match the other source better than this.
    EXPECT_LT(Snr(left, Channel(decoded, 1)), 1);
    EXPECT_LT(Snr(right, Channel(decoded, 0)), 1);
    // One silent channel stays silent.
    if (level >= 100) continue;
    const Samples half = RoundTrip(oneSided, rate, 2, level);
    for (int16_t s : Channel(half, 0)) ASSERT_EQ(s, 0);
    EXPECT_GT(Snr(left, Channel(half, 1)), level ? 22 : 28);
  }
}

// ---- lengths, block joins, the stream ----

TEST(AudioLengths, VeryShortInputsDecodeToTheirLength) {
  for (size_t frames : {1, 10, 479, 480, 481, 512, 513, 959, 961}) {
    SCOPED_TRACE(frames);
    const Samples sine = Sine(11025, 2, frames, 300, 9000);
    Encoded encoded;
    const Samples decoded = RoundTrip(sine, 11025, 2, 0, &encoded);
    ASSERT_GE(decoded.size(), sine.size());
    // Zero-padded reads: whole steps are accounted, the first one covering the end.
    EXPECT_GE(encoded.Consumed, sine.size() * 2);
    EXPECT_LT(encoded.Consumed, sine.size() * 2 + 2 * 2 * 480);
    if (frames >= 100) { EXPECT_GT(Snr(sine, decoded), 20); }
  }
  // Handing the encoder fewer bytes than it asked for: it completes the block with the last
  // sample, and accounts only for what it was given.
  const Samples sine = Sine(11025, 1, 700, 300, 9000);
  const Encoded encoded = EncodeAll(sine, 11025, 1, 0, false);
  EXPECT_EQ(encoded.Consumed, sine.size() * 2);
  EXPECT_GT(Snr(sine, DecodeAll(encoded, 11025, 1, VelmoAudioCurrentForm)), 20);
}

TEST(AudioLengths, BlockJoinsAreSmooth) {
  // A slow sine changes by under 30 per sample; the decode must not jump at the joins. The
  // older form's blocks are periodic in their transform, so their ends fit less well.
  const Samples sine = Sine(22050, 1, 22050, 50, 2000);
  for (const auto& [level, limit] : {std::pair{0, 45.0}, {4, 45.0}, {100, 150.0}}) {
    const Samples decoded = RoundTrip(sine, 22050, 1, level);
    const size_t step = 1024 - 64;
    double worstAtJoin = 0, worstElsewhere = 0;
    for (size_t i = 1; i < sine.size(); ++i) {
      const double jump = std::fabs(static_cast<double>(decoded[i]) - decoded[i - 1]);
      double& worst = (i % step < 64 || i % step > step - 2) ? worstAtJoin : worstElsewhere;
      worst = std::fmax(worst, jump);
    }
    EXPECT_LT(worstAtJoin, limit) << level;
    EXPECT_LT(worstAtJoin, worstElsewhere * 2 + 20) << level;
  }
}

TEST(AudioStream, EveryBlockSurvivesEndingItsPacketAndCodingIsDeterministic) {
  // A reader gives up a group whose longest reach passes the packet; the encoder lays its
  // blocks out so that this never happens. Loud low partials (the widest first groups),
  // noise up to Nyquist (coded to the last group at level 0), both forms, both layouts.
  const uint32_t rate = 44100;
  const Samples noise = Noise(2, 20000, 1500, 5), bass = Sine(rate, 2, 20000, 60, 26000, 90);
  Samples stereo(noise.size()), mono(noise.size() / 2);
  for (size_t i = 0; i < stereo.size(); ++i) stereo[i] = Clip(noise[i] + bass[i]);
  for (size_t i = 0; i < mono.size(); ++i) mono[i] = stereo[2 * i];
  for (uint32_t channels : {1u, 2u}) {
    const Samples& source = channels == 1 ? mono : stereo;
    for (int level : {0, 4, 99, 100, 104}) {
      SCOPED_TRACE(::testing::Message() << channels << " channels, level " << level);
      const Encoded encoded = EncodeAll(source, rate, channels, level);
      EXPECT_EQ(EncodeAll(source, rate, channels, level).Stream, encoded.Stream);
      const Samples whole = DecodeAll(encoded, rate, channels, ModeOf(level));
      EXPECT_EQ(DecodeAll(encoded, rate, channels, ModeOf(level), true), whole);
      if (level % 100 == 0) { EXPECT_GT(Snr(source, whole), 2); }
    }
  }
  // Sound with nothing at the top of its spectrum ends every block in long zero runs.
  for (uint32_t channels : {1u, 2u}) {
    const Samples music = Music(rate, channels, 30000);
    for (int level : {0, 4, 30, 60, 99, 104, 199}) {
      SCOPED_TRACE(::testing::Message() << "music, " << channels << " channels, level " << level);
      const Encoded encoded = EncodeAll(music, rate, channels, level);
      EXPECT_EQ(DecodeAll(encoded, rate, channels, ModeOf(level), true),
                DecodeAll(encoded, rate, channels, ModeOf(level)));
    }
  }
}

TEST(AudioStream, EncoderBufferAndAccounting) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 2, 1);
  ASSERT_NE(encoder, nullptr);
  EXPECT_EQ(VelmoAudioEncoderBlockBytes(encoder), 8192u);
  EXPECT_EQ(VelmoAudioEncoderOverlapBytes(encoder), 512u);
  uint8_t* buffer;
  uint32_t want, size, consumed;
  VelmoAudioEncoderBuffer(encoder, &buffer, &want);
  EXPECT_EQ(want, 8192u);
  uint8_t* const start = buffer;
  const uint8_t* out;
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

TEST(AudioModel, SilenceGivesTheBaseAllowancesLessTwoDecibelsALevel) {
  // Spreading reaches three bands down and seven up.
  EXPECT_FLOAT_EQ(VelmoAudioSpread(0), 1.0f);
  EXPECT_GT(VelmoAudioSpread(-3), 0.0f);
  EXPECT_GT(VelmoAudioSpread(7), 0.0f);
  EXPECT_EQ(VelmoAudioSpread(-4), 0.0f);
  EXPECT_EQ(VelmoAudioSpread(8), 0.0f);

  // No tonality: 6 + the loudness base, twice the base below band 8, less 2 dB a level, never
  // below 0.
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> spectrum(encoder->Length, 0.0f);
  float allowance[VelmoAudioMaxBands];
  for (float quality : {0.0f, 1.0f, 4.0f, 8.5f, 12.0f, 99.0f}) {
    VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), quality, allowance);
    for (uint32_t b = 0; b < encoder->BandCount; ++b)
      EXPECT_FLOAT_EQ(allowance[b], std::max(0.0f, (b < 8 ? 6 + 24 : 6 + 12) - 2 * quality))
          << quality << " band " << b;
  }
  VelmoAudioEncoderClose(encoder);

  VelmoAudioEncoder* older = VelmoAudioEncoderOpen(22050, 2, 0);
  EXPECT_FLOAT_EQ(older->LoudnessBase, 24);
  std::vector<float> wide(older->Length, 0.0f);
  VelmoAudioMaskingThreshold(older, 0, wide.data(), 4, allowance);
  EXPECT_FLOAT_EQ(allowance[3], 6 + 48 - 8);
  EXPECT_FLOAT_EQ(allowance[12], 6 + 24 - 8);
  VelmoAudioEncoderClose(older);
}

// Four frames of one pair in band 10 and the allowance of band 10 after them, at level 4.
float ToneAllowance(float (*magnitude)(int), float phaseStep) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> spectrum(encoder->Length, 0.0f);
  float allowance[VelmoAudioMaxBands];
  const uint32_t pair = (encoder->BandBounds[10] + encoder->BandBounds[11]) / 2;
  for (int frame = 0; frame < 4; ++frame) {
    spectrum[2 * pair] = magnitude(frame) * std::cos(phaseStep * frame);
    spectrum[2 * pair + 1] = -magnitude(frame) * std::sin(phaseStep * frame);
    VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 4, allowance);
  }
  VelmoAudioEncoderClose(encoder);
  return allowance[10];
}

// The allowance of band 10 at level 4 for a tonality t (nothing else in the spectrum).
double AllowanceForTonality(double t) { return (10 + 15) * t + (1 - t) * 6 + 12 - 8; }

TEST(AudioModel, TonalityCountsPredictionsBetweenOneTwentiethAndOneHalf) {
  // The last frame's magnitude 1250 against a prediction of 1000, phases on the line: the
  // unpredictability is 250 / 2250, a tonality of -0.43 ln(1 / 9) - 0.29.
  const double t = -0.43 * std::log(250.0 / 2250.0) - 0.29;
  EXPECT_NEAR(ToneAllowance([](int f) { return f == 3 ? 1250.0f : 1000.0f; }, 1.0f),
              AllowanceForTonality(t), 0.05);
  // A tone predicted exactly (unpredictability 0, not at least 0.05) counts as 0.5: nearly
  // noise, a tonality of -0.43 ln(0.5) - 0.29.
  const double half = -0.43 * std::log(0.5) - 0.29;
  EXPECT_NEAR(ToneAllowance([](int) { return 1000.0f; }, 1.0f), AllowanceForTonality(half), 0.05);
  // The phase error is not taken modulo a turn: a steady tone whose phase wraps at the
  // third frame is badly predicted, 0.5 as well.
  EXPECT_NEAR(ToneAllowance([](int) { return 1000.0f; }, 2.5f), AllowanceForTonality(half), 0.05);
  // A magnitude that jumps around is noise.
  EXPECT_NEAR(ToneAllowance([](int f) { return f % 2 ? 3000.0f : 300.0f; }, 1.0f),
              AllowanceForTonality(half), 0.05);
}

TEST(AudioModel, BandSearchKeepsNoiseWithinTheAllowanceOrEndsAtIndexZero) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(22050, 1, 1);
  std::mt19937 random(3);
  std::normal_distribution<float> normal(0.0f, 3000.0f);
  std::vector<float> coefficients(encoder->Length);
  for (auto& c : coefficients) c = normal(random);
  float allowance[VelmoAudioMaxBands];
  uint32_t indices[VelmoAudioMaxBands];
  for (float level : {6.0f, 18.0f, 30.0f, 45.0f}) {
    std::fill(allowance, allowance + VelmoAudioMaxBands, level);
    VelmoAudioChooseBandQuantisers(encoder, coefficients.data(), allowance, indices);
    for (uint32_t b = 0; b < encoder->BandCount; ++b) {
      auto noiseAt = [&](uint32_t index) {
        double energy = 0, noise = 0;
        const float step = VelmoAudioQuantStep(index);
        for (uint32_t i = 2 * encoder->BandBounds[b]; i < 2 * encoder->BandBounds[b + 1]; ++i) {
          const double x = std::fabs(coefficients[i]);
          const double q = std::min(std::trunc(x / step + 0.5), 32767.0) * step;
          energy += x * x;
          noise += (q - x) * (q - x);
        }
        return noise / (energy / std::pow(10.0, level / 10.0));
      };
      EXPECT_LE(noiseAt(indices[b]), 1.0001) << "band " << b;
      EXPECT_LE(indices[b], 95u);
    }
  }
  // A loud band asked for more than any step gives: the search finds nothing within the
  // limit and leaves the index at 0, magnitudes cut at 32767.
  std::fill(coefficients.begin(), coefficients.end(), 0.0f);
  const uint32_t band = 9, at = 2 * encoder->BandBounds[band] + 3;
  coefficients[at] = 300000.0f;
  coefficients[at + 1] = -2000.0f;
  std::fill(allowance, allowance + VelmoAudioMaxBands, 120.0f);
  VelmoAudioChooseBandQuantisers(encoder, coefficients.data(), allowance, indices);
  EXPECT_EQ(indices[band], 0u);
  VelmoAudioEncoderClose(encoder);
}

// The threshold of hearing in quiet, dB, at f kHz.
double Quiet(double f) {
  return 3.64 * std::pow(f, -0.8) - 6.5 * std::exp(-0.6 * (f - 3.3) * (f - 3.3)) +
         0.001 * std::pow(f, 4);
}

TEST(AudioModel, QuietThresholdFollowsTheCurveAtEachCoefficient) {
  // Current form, and the older form whose frequencies are divided by the channels: no cap
  // and no mirroring, up to the top of the spectrum.
  for (auto [rate, channels, current] : {std::tuple{44100u, 1u, 1}, {22050u, 2u, 0}}) {
    VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(rate, channels, current);
    const uint64_t nyquist = (uint64_t{rate} * (current ? 1 : channels) + 1) / 2;
    for (uint32_t k : {1u, 2u, 100u, 700u, 1500u, 2047u}) {
      const double hz = double(k * nyquist / encoder->Length);
      EXPECT_NEAR(encoder->QuietThreshold[k], Quiet(hz * 0.001 / (current ? 1 : channels)),
                  1e-3 * std::max(1.0, std::fabs(Quiet(hz * 0.001))))
          << rate << " k " << k;
    }
    if (current) { EXPECT_GT(encoder->QuietThreshold[2047], 200.0f); }
    for (uint32_t b = 0; b < encoder->BandCount; ++b) {
      float least = 1000.0f;
      for (uint32_t k = 2 * encoder->BandBounds[b]; k < 2 * encoder->BandBounds[b + 1]; ++k)
        least = std::min(least, encoder->QuietThreshold[k]);
      EXPECT_EQ(encoder->BandQuiet[b], least) << b;
    }
    VelmoAudioEncoderClose(encoder);
  }
}

TEST(AudioModel, QuietCoefficientsAreDroppedTenDecibelsALevelFromBandEight) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(22050, 1, 1);
  std::vector<float> coefficients(encoder->Length, 0.0f);
  const uint32_t high = 2 * encoder->BandBounds[12] + 1, low = 2 * encoder->BandBounds[6] + 1;
  auto amplitude = [&](uint32_t k, double db) {
    return float(std::sqrt(std::pow(10.0, (encoder->QuietThreshold[k] + db) / 10.0)));
  };
  uint32_t indices[VelmoAudioMaxBands] = {};
  std::vector<int32_t> magnitudes(encoder->Length);
  for (int level : {0, 1, 3}) {
    SCOPED_TRACE(level);
    // Just above and just below the threshold, raised by 10 dB a level in band 12 only.
    coefficients[high] = -amplitude(high, 10.0 * level + 0.1);
    coefficients[high + 2] = amplitude(high + 2, 10.0 * level - 0.1);
    coefficients[low] = amplitude(low, 0.1);
    coefficients[low + 2] = amplitude(low + 2, -0.1);
    VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, float(level),
                                   magnitudes.data());
    EXPECT_EQ(magnitudes[high], -int32_t(std::trunc(-coefficients[high] + 0.5f)));
    EXPECT_EQ(magnitudes[high + 2], 0);
    EXPECT_EQ(magnitudes[low], int32_t(std::trunc(coefficients[low] + 0.5f)));
    EXPECT_EQ(magnitudes[low + 2], 0);
  }
  VelmoAudioEncoderClose(encoder);
}

TEST(AudioModel, QuietFloorTakesTheIndexOfTheRaisedThreshold) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  for (float quality : {0.0f, 4.0f, 30.0f, 99.0f}) {
    uint32_t indices[VelmoAudioMaxBands] = {}, coarse[VelmoAudioMaxBands];
    VelmoAudioFloorByQuiet(encoder, quality, indices);
    std::fill(coarse, coarse + VelmoAudioMaxBands, 90u);
    VelmoAudioFloorByQuiet(encoder, quality, coarse);
    for (uint32_t b = 0; b < encoder->BandCount; ++b) {
      SCOPED_TRACE(::testing::Message() << quality << " band " << b);
      const double v = quality + encoder->BandQuiet[b];
      // From index 0: raised whenever v is above 0, to (v + 0.3319) × 1.5060241, at most 255.
      const uint32_t want =
          v > 0 ? std::min<uint32_t>(255, uint32_t((float(v) + 0.3319f) * 1.5060241f)) : 0;
      EXPECT_EQ(indices[b], want);
      // A band already coarser than v keeps its step.
      EXPECT_EQ(coarse[b], v > 90 * 0.664 ? want : 90u);
    }
  }
  VelmoAudioEncoderClose(encoder);
}

}  // namespace
