// Sound input from a Velmo file's sound tracks, against the codec's own decode of the packets.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "media/sound.h"
#include "media_test_util.h"
#include "sound_test_files.h"
#include "sound_test_util.h"

namespace {

using media_test::TempDir;

using sound_test::ReadAll;
using sound_test::WriteBytes;

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
    SoundInput* sound = SoundOpen((dir_ / "s.vlm").c_str(), 0, 0, 0, 0, 0, track, 0, 0, nullptr);
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
  EXPECT_EQ(SoundOpen((dir_ / "s.vlm").c_str(), 0, 0, 0, 0, 0, 2, 0, 0, nullptr), nullptr);
}

TEST_F(SoundVelmo, RangeAndConversionApply) {
  const std::vector<int16_t> all = sound_test::As16(Decoded(1));  // mono, 16000 Hz
  SoundInput* sound = SoundOpen((dir_ / "s.vlm").c_str(), 8000, 16, 2, 100, 300, 1, 0, 0, nullptr);
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
    SoundInput* sound = SoundOpen((dir_ / "c.vlm").c_str(), 0, 0, 0, 0, 0, 0, 0, 0, nullptr);
    if (!sound) continue;
    EXPECT_LE(ReadAll(sound).size(), Decoded(0).size()) << cut;
    SoundClose(sound);
  }
}

}  // namespace
