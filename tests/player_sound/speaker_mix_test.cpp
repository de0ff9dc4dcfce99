// Speaker routing: bins to device channels for the usual layouts, the mixing itself, the
// player's bins per track, and the volume and pan gains.
#include "player/sound/player_sound.h"
#include "player/sound/sound_output.h"
#include "player/sound/speaker_mix.h"

#include <gtest/gtest.h>

#include <random>
#include <vector>

namespace {

constexpr int32_t Unity = 0x10000;
constexpr int32_t Minus3dB = 46341;  // 0x10000 / sqrt(2), rounded

SpeakerMatrix MatrixOf(std::initializer_list<float> bins, uint32_t track, uint32_t device) {
  float b[SpeakerBins] = {};
  uint32_t i = 0;
  for (float v : bins) b[i++] = v;
  return SpeakerMatrixFor(b, track, device);
}

TEST(SpeakerMatrixTest, EveryBinHasItsOwnChannelInSevenOne) {
  for (uint32_t k = 0; k < SpeakerBins; ++k) {
    SCOPED_TRACE(k);
    float bins[SpeakerBins] = {};
    bins[k] = 0.5f;
    for (uint32_t track : {1u, 2u}) {
      const SpeakerMatrix m = SpeakerMatrixFor(bins, track, 8);
      const uint32_t source = track == 2 ? k % 2 : 0;
      for (uint32_t c = 0; c < 8; ++c)
        for (uint32_t s = 0; s < track; ++s)
          EXPECT_EQ(m.Gain[c][s], c == k && s == source ? Unity / 2 : 0) << c << " " << s;
    }
  }
}

TEST(SpeakerMatrixTest, MissingSpeakersFoldIntoTheNearestOnes) {
  // Stereo device: centre at -3 dB on both fronts, back and side on their front, LFE dropped.
  SpeakerMatrix m = MatrixOf({0, 0, 1, 1, 0, 0, 0, 0}, 1, 2);
  EXPECT_EQ(m.Gain[0][0], Minus3dB);
  EXPECT_EQ(m.Gain[1][0], Minus3dB);
  m = MatrixOf({0, 0, 0, 0, 1, 0, 0, 0.5f}, 2, 2);
  EXPECT_EQ(m.Gain[0][0], Unity);  // back left, fed by the left channel
  EXPECT_EQ(m.Gain[1][1], Unity / 2);  // side right, fed by the right channel
  EXPECT_EQ(m.Gain[0][1], 0);
  // 5.1: the back pair plays on the sides; LFE has its channel.
  m = MatrixOf({0, 0, 0, 1, 1, 1, 0, 0}, 2, 6);
  EXPECT_EQ(m.Gain[3][1], Unity);
  EXPECT_EQ(m.Gain[4][0], Unity);
  EXPECT_EQ(m.Gain[5][1], Unity);
  // Quad: the sides play on the back pair.
  m = MatrixOf({0, 0, 0, 0, 0, 0, 1, 1}, 2, 4);
  EXPECT_EQ(m.Gain[2][0], Unity);
  EXPECT_EQ(m.Gain[3][1], Unity);
  // Mono device: the two fronts are mixed at half each, so a plain stereo track is their mean.
  m = SpeakerMatrixPlain(2, 1, Unity);
  EXPECT_EQ(m.Gain[0][0], Unity / 2);
  EXPECT_EQ(m.Gain[0][1], Unity / 2);
  // Gains are limited to 2.0 however the bins add up.
  m = MatrixOf({2, 2, 2, 0, 2, 2, 2, 2}, 1, 1);
  EXPECT_EQ(m.Gain[0][0], 2 * Unity);
}

TEST(SpeakerMixTest, UnityPassesSamplesAndGainsRoundAndSaturate) {
  std::mt19937 random(5);
  std::uniform_int_distribution<int> sample(-32768, 32767);
  std::vector<int16_t> in(2000);
  for (int16_t& v : in) v = int16_t(sample(random));
  std::vector<int16_t> out(in.size());
  SpeakerMix(SpeakerMatrixPlain(2, 2, Unity), in.data(), out.data(), 1000);
  EXPECT_EQ(out, in);

  // Mono into 5.1 fronts at 2.0 and the centre at half.
  const SpeakerMatrix m = MatrixOf({2, 2, 0.5f, 0, 0, 0, 0, 0}, 1, 6);
  const int16_t mono[3] = {30000, -30000, -3};
  int16_t six[18];
  SpeakerMix(m, mono, six, 3);
  EXPECT_EQ(six[0], 32767);
  EXPECT_EQ(six[1], 32767);
  EXPECT_EQ(six[2], 15000);
  EXPECT_EQ(six[3], 0);
  EXPECT_EQ(six[6], -32768);
  EXPECT_EQ(six[8], -15000);
  EXPECT_EQ(six[14], -2);  // -1.5 rounds away from zero
}

TEST(SpeakerBinsTest, TracksTakeRunningBinsAndALoneMonoTrackAPair) {
  struct Case {
    std::vector<uint32_t> Channels;
    std::vector<uint32_t> First, Count;
  };
  const Case cases[] = {
      {{2}, {0}, {2}},
      {{1}, {0}, {2}},                  // lone mono: the front pair
      {{1, 1}, {0, 1}, {1, 1}},         // the last stands at bin 1: one bin
      {{2, 1}, {0, 2}, {2, 1}},         // at bin 2: one bin
      {{2, 2, 1}, {0, 2, 4}, {2, 2, 2}},  // at bin 4: the back pair
      {{1, 2}, {0, 2}, {1, 2}},         // a pair starts at an even bin
      {{2, 2, 2, 1}, {0, 2, 4, 6}, {2, 2, 2, 2}},
      {{2, 2, 2, 2, 2}, {0, 2, 4, 6, 0}, {2, 2, 2, 2, 0}},  // no bin left for the fifth
      {{1, 1, 1, 1, 1, 1, 1, 2}, {0, 1, 2, 3, 4, 5, 6, 0}, {1, 1, 1, 1, 1, 1, 1, 0}},
  };
  for (const Case& c : cases) {
    const uint32_t n = uint32_t(c.Channels.size());
    std::vector<uint32_t> first(n, 99), count(n, 99);
    SpeakerBinsForTracks(c.Channels.data(), n, first.data(), count.data());
    EXPECT_EQ(count, c.Count) << testing::PrintToString(c.Channels);
    for (uint32_t i = 0; i < n; ++i) {
      if (c.Count[i]) {
        EXPECT_EQ(first[i], c.First[i]) << testing::PrintToString(c.Channels) << i;
      }
    }
  }
}

TEST(SoundGainsTest, PanLowersTheFarSideOnly) {
  struct Case {
    uint32_t Volume, Pan;
    int32_t Left, Right;
  };
  const Case cases[] = {{65536, 32768, 65536, 65536}, {65536, 0, 65536, 0},
                        {65536, 65536, 0, 65536},     {32768, 49152, 16384, 32768},
                        {40000, 16384, 40000, 20000}, {99999, 99999, 0, 65536}};
  for (const Case& c : cases) {
    int32_t left = -1, right = -1;
    SoundGains(c.Volume, c.Pan, &left, &right);
    EXPECT_EQ(left, c.Left) << c.Volume << " " << c.Pan;
    EXPECT_EQ(right, c.Right) << c.Volume << " " << c.Pan;
  }
}

TEST(SoundBytesTest, BlocksRoundUpAndTheStartLevelFitsTheFile) {
  EXPECT_EQ(SoundBytesOf(88200, 50), 4416u);  // 4410 rounded up to 32
  EXPECT_EQ(SoundBytesOf(44100, 62), 2752u);
  VelmoHandle h{};
  h.Frames = 3;
  h.FrameRate = 30;
  h.FrameRateDiv = 1;
  // The whole file lasts 100 ms: the start level is that, not 200 ms.
  EXPECT_EQ(SoundStartBytes(88200, 200, &h), 8820u);
  h.Frames = 300;
  EXPECT_EQ(SoundStartBytes(88200, 200, &h), SoundBytesOf(88200, 200));
  EXPECT_EQ(SoundStartBytes(88200, 200, nullptr), SoundBytesOf(88200, 200));
}

TEST(PlayerSoundTest, TheZSwitchChoosesTheBackEnd) {
  EXPECT_NE(PlayerSoundBackEnd(0).Select, nullptr);
  EXPECT_EQ(PlayerSoundBackEnd(0).Select, PlayerSoundBackEnd(7).Select);
  EXPECT_NE(PlayerSoundBackEnd(1).Select, nullptr);
  EXPECT_NE(PlayerSoundBackEnd(1).Select, PlayerSoundBackEnd(0).Select);
  EXPECT_EQ(PlayerSoundBackEnd(2).Select, nullptr);
  EXPECT_NE(PlayerSoundBackEnd(2).Select2, nullptr);
  EXPECT_FALSE(PlayerSoundRegister(PlayerSoundChoice{}));
}

}  // namespace
