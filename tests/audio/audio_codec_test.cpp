// Encoder and decoder together: round trips of synthetic sounds at the rates and levels the
// tools use, bit rate against level, stream accounting, determinism, block joins, and the
// encoder's model on chosen inputs.
#include "audio_test_util.h"
#include "audio/audio_encoder_internal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

namespace {

using namespace audio_test;

Samples Channel(const Samples& stereo, size_t which) {
  Samples out;
  for (size_t i = which; i < stereo.size(); i += 2) out.push_back(stereo[i]);
  return out;
}

// Level 0 is lossless in all but rounding: some 75 dB on this music at every rate and in both
// forms. Level 4 keeps the model's own allowances, some 29 to 33 dB, at better than 6 to 1;
// level 60 is still the music at better than 20 to 1.
TEST(AudioRoundTrip, MusicComesBackAboveItsFloorAndSize) {
  const struct {
    uint32_t Rate, Channels;
    int Level;
    double MinSnr, MinRatio;  // of the PCM's size to the stream's
  } cases[] = {{8000, 1, 0, 70, 1},      {11025, 1, 0, 70, 1},     {11025, 2, 0, 70, 1},
               {22050, 1, 0, 70, 1},     {22050, 2, 0, 70, 1},     {44100, 1, 0, 70, 1},
               {44100, 2, 0, 70, 1},     {48000, 2, 0, 70, 1},     {65535, 1, 0, 70, 1},
               {65535, 2, 0, 70, 1},     {11025, 1, 100, 70, 1},   {22050, 2, 100, 70, 1},
               {44100, 1, 100, 70, 1},   {44100, 2, 100, 70, 1},   {65535, 2, 100, 70, 1},
               {8000, 1, 4, 26, 1},      {22050, 2, 4, 28, 1},     {44100, 2, 4, 28, 6},
               {65535, 2, 4, 28, 1},     {22050, 1, 104, 28, 1},   {44100, 2, 104, 29, 1},
               {44100, 2, 60, 14, 20}};
  for (const auto& c : cases) {
    SCOPED_TRACE(::testing::Message() << c.Rate << " Hz, " << c.Channels << " channels, level "
                                      << c.Level);
    const Samples music = Music(c.Rate, c.Channels, c.Rate);
    Encoded encoded;
    const Samples decoded = RoundTrip(music, c.Rate, c.Channels, c.Level, &encoded);
    ASSERT_GE(decoded.size(), music.size());
    EXPECT_GT(Snr(music, decoded), c.MinSnr);
    EXPECT_LT(encoded.Stream.size() * c.MinRatio, music.size() * 2);
  }
}

// Quality and size fall with every step up each form's list of levels, in mono and stereo;
// in the current form no step costs more than 20 dB.
TEST(AudioRoundTrip, QualityAndBitsFallSmoothlyAsTheLevelRises) {
  const struct {
    uint32_t Rate;
    std::vector<int> Levels;
    double Floor, Ceiling;  // of the last level's SNR
  } forms[] = {{22050, {0, 1, 2, 3, 4, 10, 20, 30, 45, 60, 80, 99}, 8, 16},
               {11025, {100, 104, 110, 130, 160, 199}, 8, 1e9}};
  for (const auto& form : forms)
    for (uint32_t channels : {1u, 2u}) {
      const Samples music = Music(form.Rate, channels, 11025);
      double lastSnr = 1e9;
      size_t lastBytes = SIZE_MAX;
      for (int level : form.Levels) {
        SCOPED_TRACE(::testing::Message() << channels << " channels, level " << level);
        Encoded encoded;
        const double snr = Snr(music, RoundTrip(music, form.Rate, channels, level, &encoded));
        EXPECT_LT(snr, lastSnr);
        EXPECT_LT(encoded.Stream.size(), lastBytes);
        if (level > 0 && level < 100) { EXPECT_GT(snr, lastSnr - 20); }
        lastSnr = snr;
        lastBytes = encoded.Stream.size();
      }
      // Very lossy, yet still the music: the last level keeps the loud partials.
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
  // Steady tones are tonal to the model, so level 4 codes them far finer than noise. A
  // full-scale tone: the finest steps would overflow the 15-bit magnitudes. White noise reaches
  // Nyquist, where the threshold in quiet is highest; level 0 keeps it.
  const struct {
    const char* Name;
    Samples Sound;
    uint32_t Rate, Channels;
    int Level;
    double MinSnr;
  } cases[] = {{"200 Hz", Sine(44100, 1, 22050, 200, 12000), 44100, 1, 0, 70},
               {"200 Hz", Sine(44100, 1, 22050, 200, 12000), 44100, 1, 4, 26},
               {"5 kHz", Sine(44100, 1, 22050, 5000, 12000), 44100, 1, 0, 70},
               {"5 kHz", Sine(44100, 1, 22050, 5000, 12000), 44100, 1, 4, 26},
               {"full scale", Sine(44100, 1, 20000, 3000, 32000), 44100, 1, 0, 60},
               {"low noise", Noise(1, 11025, 3000, 7), 11025, 1, 0, 65},
               {"low noise", Noise(1, 11025, 3000, 7), 11025, 1, 4, 18},
               {"sweep", Sweep(44100), 44100, 1, 0, 65},
               {"white noise", Noise(2, 22050, 4000, 11), 44100, 2, 0, 65},
               {"white noise", Noise(2, 22050, 4000, 11), 44100, 2, 100, 65},
               {"clicks", Clicks(11025), 11025, 1, 0, 60},
               {"clicks", Clicks(11025), 11025, 1, 4, 15}};
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
    EXPECT_GT(Snr(left, Channel(decoded, 0)), fine ? 65 : 25);
    EXPECT_GT(Snr(right, Channel(decoded, 1)), fine ? 65 : 12);
    // Swapped or mixed channels would match the other source better than this.
    EXPECT_LT(Snr(left, Channel(decoded, 1)), 1);
    EXPECT_LT(Snr(right, Channel(decoded, 0)), 1);
    // One silent channel stays silent.
    if (level >= 100) continue;
    const Samples half = RoundTrip(oneSided, rate, 2, level);
    for (int16_t s : Channel(half, 0)) ASSERT_EQ(s, 0);
    EXPECT_GT(Snr(left, Channel(half, 1)), level ? 25 : 65);
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
      if (level % 100 == 0) { EXPECT_GT(Snr(source, whole), 65); }
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

TEST(AudioModel, SilenceGivesTheBaseAllowancesAndTheLevelsShiftThem) {
  // Spreading reaches three bands down and seven up.
  EXPECT_FLOAT_EQ(VelmoAudioSpread(0), 1.0f);
  EXPECT_GT(VelmoAudioSpread(-3), 0.0f);
  EXPECT_GT(VelmoAudioSpread(7), 0.0f);
  EXPECT_EQ(VelmoAudioSpread(-4), 0.0f);
  EXPECT_EQ(VelmoAudioSpread(8), 0.0f);

  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  std::vector<float> spectrum(encoder->Length, 0.0f);
  float allowance[VelmoAudioMaxBands], last[VelmoAudioMaxBands];
  VelmoAudioMaskingThreshold(encoder, 0, spectrum.data(), 4, allowance);
  for (uint32_t b = 0; b < encoder->BandCount; ++b)
    EXPECT_FLOAT_EQ(allowance[b], b < 8 ? 6 + 24 : 6 + 12) << b;  // no tonality
  // Level 0 asks lossless figures of every band; level 99 loosens, but a low band keeps some.
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
    spectrum[2 * pair] = magnitude(frame) * std::cos(phaseStep * frame);
    spectrum[2 * pair + 1] = -magnitude(frame) * std::sin(phaseStep * frame);
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

TEST(AudioModel, BandSearchKeepsNoiseWithinTheAllowanceAndNeverOverflows) {
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
  // A loud band asked for more than any step gives: the finest step that still holds its
  // largest value, not index 0, whose magnitudes would be cut at 32767.
  std::fill(coefficients.begin(), coefficients.end(), 0.0f);
  const uint32_t band = 9, at = 2 * encoder->BandBounds[band] + 3;
  coefficients[at] = 300000.0f;
  coefficients[at + 1] = -2000.0f;
  std::fill(allowance, allowance + VelmoAudioMaxBands, 120.0f);
  VelmoAudioChooseBandQuantisers(encoder, coefficients.data(), allowance, indices);
  EXPECT_LE(std::trunc(300000.0f / VelmoAudioQuantStep(indices[band]) + 0.5f), 32767.0f);
  EXPECT_GT(std::trunc(300000.0f / VelmoAudioQuantStep(indices[band] - 1) + 0.5f), 32767.0f);
  VelmoAudioEncoderClose(encoder);
}

TEST(AudioModel, QuietCoefficientsAreDroppedByLevelInDecibels) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(22050, 1, 1);
  std::vector<float> coefficients(encoder->Length, 0.0f);
  const uint32_t quiet = 2 * encoder->BandBounds[12] + 1, soft = quiet + 2, loud = quiet + 4,
                 low = 2 * encoder->BandBounds[6] + 1;
  coefficients[quiet] = 0.9f;   // below the threshold of hearing (about 0 dB here)
  coefficients[soft] = 100.0f;  // 40 dB
  coefficients[loud] = -5000.0f;
  coefficients[low] = 100.0f;
  uint32_t indices[VelmoAudioMaxBands] = {};
  std::vector<int32_t> magnitudes(encoder->Length);
  // Level 0 drops nothing; level 4 drops what is not heard.
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 0, magnitudes.data());
  EXPECT_EQ(magnitudes[quiet], 1);
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 4, magnitudes.data());
  EXPECT_EQ(magnitudes[quiet], 0);
  EXPECT_EQ(magnitudes[soft], 100);
  EXPECT_EQ(magnitudes[loud], -5000);
  // Level 99 raises the threshold by some 50 dB: the soft one goes, the loud one stays; in the
  // bands below 8 the level does not raise it.
  VelmoAudioQuantiseCoefficients(encoder, coefficients.data(), indices, 99, magnitudes.data());
  EXPECT_EQ(magnitudes[soft], 0);
  EXPECT_EQ(magnitudes[loud], -5000);
  EXPECT_EQ(magnitudes[low], 100);
  VelmoAudioEncoderClose(encoder);
}

TEST(AudioModel, QuietFloorSquaresTheStepToTheThreshold) {
  VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 1, 1);
  for (float quality : {0.0f, 4.0f, 30.0f, 99.0f}) {
    uint32_t indices[VelmoAudioMaxBands] = {}, coarse[VelmoAudioMaxBands];
    VelmoAudioFloorByQuiet(encoder, quality, indices);
    std::fill(coarse, coarse + VelmoAudioMaxBands, 90u);
    VelmoAudioFloorByQuiet(encoder, quality, coarse);
    const float raise = VelmoAudioShapeOfQuality(quality).QuietRaise;
    for (uint32_t b = 0; b < encoder->BandCount; ++b) {
      SCOPED_TRACE(::testing::Message() << quality << " band " << b);
      EXPECT_EQ(coarse[b], 90u);  // a band already coarser keeps its step
      // Level 0 puts no floor anywhere.
      if (quality == 0) { EXPECT_EQ(indices[b], 0u); }
      // The step's square, in dB, is within one index (1.33 dB) below the raised threshold.
      const double squared = 20 * std::log10(VelmoAudioQuantStep(indices[b]));
      const double threshold = encoder->BandQuiet[b] + raise;
      if (quality == 0 || threshold <= 0) continue;
      EXPECT_LE(squared, threshold + 1e-3);
      EXPECT_GT(squared, threshold - 1.34);
    }
  }
  VelmoAudioEncoderClose(encoder);
}

}  // namespace
