// The ALSA back end against ALSA's own devices that need no sound card: "null", which takes
// everything, and the file device, which writes what it was given to a file.
#include "player/sound/player_sound.h"
#include "player/sound/sound_alsa.h"
#include "support/files.h"
#include "support/sound_track_rig.h"

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace {

using test_support::ScratchDir;
using test_support::SoundPattern;
using test_support::SoundTrackRig;

void Quiet(const char*, int, const char*, int, const char*, ...) {}

bool NullDeviceOpens() {
  snd_lib_error_set_handler(Quiet);
  snd_pcm_t* pcm = nullptr;
  if (snd_pcm_open(&pcm, "null", SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0) return false;
  snd_pcm_close(pcm);
  return true;
}

class AlsaSoundTest : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!NullDeviceOpens())
      GTEST_SKIP() << "ALSA's \"null\" device cannot be opened on this machine (no ALSA "
                      "configuration?): the ALSA back end is not tested";
  }
  // The open of the back end for device `name`; the name must outlive the tracks.
  VelmoOpenBackEnd Select(const std::string& name) {
    Name = name;
    return AlsaSoundSelect(uintptr_t(Name.c_str()));
  }
  // What the file device wrote, after the track was closed.
  std::vector<int16_t> Written(const std::string& path) {
    const std::vector<uint8_t> bytes = test_support::ReadFile(path);
    std::vector<int16_t> out(bytes.size() / 2);
    std::memcpy(out.data(), bytes.data(), out.size() * 2);
    return out;
  }
  std::string FileDevice(const std::string& path) { return "file:'" + path + "',raw"; }
  std::string Name;
};

TEST_F(AlsaSoundTest, OpenFillsTheRecordForTheLibrary) {
  const VelmoOpenBackEnd open = Select("null");
  ASSERT_NE(open, nullptr);
  for (uint32_t channels : {1u, 2u}) {
    SCOPED_TRACE(channels);
    SoundTrackRig rig;
    rig.Track.ClockScale = 0;
    ASSERT_TRUE(rig.Open(open, 22050, channels));
    const VelmoTrack& t = rig.Track;
    // 50 ms blocks, rounded up to 32 bytes.
    EXPECT_EQ(t.DeviceBlock, (22050 * channels * 2 * 50 / 1000 + 31) & ~31u);
    EXPECT_EQ(t.ServiceMode, 0);
    EXPECT_EQ(t.Latency, 0u);  // it plays from empty: the library's lead of silence is exact
    EXPECT_EQ(t.ClockScale, 0x10000u);
    EXPECT_TRUE(t.Ops.Ready && t.Ops.Lock && t.Ops.Unlock && t.Ops.SetVolume && t.Ops.SetPan &&
                t.Ops.Pause && t.Ops.OnOff && t.Ops.Close);
    EXPECT_EQ(t.Ops.SetMix, nullptr);
  }
}

TEST_F(AlsaSoundTest, TheDeviceGetsExactlyWhatWasFedAtFullVolume) {
  ScratchDir dir;
  const std::string path = dir / "out.raw";
  const std::vector<int16_t> pattern = SoundPattern(30000, 2);
  {
    SoundTrackRig rig;
    ASSERT_TRUE(rig.Open(Select(FileDevice(path)), 44100, 2));
    ASSERT_TRUE(rig.FeedAll(pattern, 1, 5000));
  }
  EXPECT_EQ(Written(path), pattern);
}

TEST_F(AlsaSoundTest, VolumeAndPanScaleTheSamples) {
  ScratchDir dir;
  const std::vector<int16_t> pattern = SoundPattern(8000, 2);
  struct Case {
    uint32_t Volume, Pan;
    int32_t Left, Right;  // expected gains, 16.16
  };
  const Case cases[] = {{32768, 32768, 32768, 32768}, {65536, 0, 65536, 0},
                        {65536, 49152, 32768, 65536}};
  int n = 0;
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.Volume << " " << c.Pan);
    const std::string path = dir / ("out" + std::to_string(n++) + ".raw");
    {
      SoundTrackRig rig;
      ASSERT_TRUE(rig.Open(Select(FileDevice(path)), 22050, 2));
      rig.Track.Ops.SetVolume(&rig.Track, c.Volume);
      rig.Track.Ops.SetPan(&rig.Track, c.Pan);
      ASSERT_TRUE(rig.FeedAll(pattern, 1, 5000));
    }
    const std::vector<int16_t> out = Written(path);
    ASSERT_EQ(out.size(), pattern.size());
    for (size_t i = 0; i < out.size(); ++i) {
      const int64_t v = int64_t(pattern[i]) * (i % 2 ? c.Right : c.Left);
      const int64_t expected = v >= 0 ? (v + 0x8000) >> 16 : -((-v + 0x8000) >> 16);
      ASSERT_EQ(out[i], expected) << i;
    }
  }
}

TEST_F(AlsaSoundTest, PauseAndOffStopTheFeedAndOnResumesIt) {
  SoundTrackRig rig;
  ASSERT_TRUE(rig.Open(Select("null"), 22050, 1));
  VelmoTrack* t = &rig.Track;
  EXPECT_EQ(t->Ops.Ready(t), 1u);
  EXPECT_EQ(t->Ops.Pause(t, 1), 1u);
  EXPECT_EQ(t->Ops.Ready(t), 0u);
  EXPECT_EQ(t->Ops.Pause(t, 0), 0u);
  EXPECT_EQ(t->Ops.Ready(t), 1u);
  EXPECT_EQ(t->Ops.OnOff(t, 0), 0u);
  EXPECT_EQ(t->Ops.Ready(t), 0u);
  void* address = nullptr;
  uint32_t bytes = 0;
  EXPECT_EQ(t->Ops.Lock(t, &address, &bytes), 0u);
  EXPECT_EQ(t->Ops.OnOff(t, 1), 1u);
  EXPECT_EQ(t->Ops.Ready(t), 1u);
  ASSERT_EQ(t->Ops.Lock(t, &address, &bytes), 1u);
  EXPECT_GE(bytes, t->DeviceBlock);
  EXPECT_EQ(t->Underrun, 0u);
}

TEST_F(AlsaSoundTest, ADeviceThatCannotBeOpenedLeavesTheTrackOutQuietly) {
  const VelmoOpenBackEnd open = Select("orn_no_such_device");
  ASSERT_NE(open, nullptr);
  testing::internal::CaptureStderr();
  SoundTrackRig rig;
  EXPECT_FALSE(rig.Open(open, 22050, 2));
  EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST_F(AlsaSoundTest, TheZSwitchOneRegistersAlsa) {
  PlayerSoundChoice choice = PlayerSoundBackEnd(1);
  Name = "null";
  choice.Parameter = uintptr_t(Name.c_str());
  EXPECT_TRUE(PlayerSoundRegister(choice));
  VelmoSetSoundSystem(nullptr, 0);
}

}  // namespace
