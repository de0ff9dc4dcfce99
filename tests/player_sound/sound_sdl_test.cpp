// The SDL2 back ends on SDL's disk driver, which plays into a file at a real device's pace and
// needs no hardware: what reaches the file, speaker routing of the multichannel form, and a
// device that runs dry.
#include "player/sound/player_sound.h"
#include "player/sound/sound_output.h"
#include "player/sound/sound_sdl.h"
#include "support/files.h"
#include "support/sound_track_rig.h"

#include <SDL.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <chrono>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

namespace {

using test_support::ScratchDir;
using test_support::SoundPattern;
using test_support::SoundTrackRig;

class SdlSoundTest : public ::testing::Test {
 protected:
  void SetUp() override {
    // Every test runs in a process of its own: SDL's audio starts here, on the disk driver.
    setenv("SDL_AUDIODRIVER", "disk", 1);
    setenv("SDL_DISKAUDIOFILE", Path.c_str(), 1);
    setenv("SDL_DISKAUDIODELAY", "2", 1);
    if (!SdlSoundSelect(0))
      GTEST_SKIP() << "SDL's disk audio driver cannot be started here: " << SDL_GetError();
  }
  void TearDown() override { SDL_QuitSubSystem(SDL_INIT_AUDIO); }

  // The file's samples, read after the device was closed.
  std::vector<int16_t> Written() {
    const std::vector<uint8_t> bytes = test_support::ReadFile(Path);
    std::vector<int16_t> out(bytes.size() / 2);
    std::memcpy(out.data(), bytes.data(), out.size() * 2);
    return out;
  }
  // Waits until the device has written `samples` samples of `channels`-sample frames that are
  // not silence (up to 10 s: the driver's thread may get little processor time on a busy
  // machine).
  void WaitFor(size_t samples, uint32_t channels) {
    for (int i = 0; i < 2000 && Heard(channels).size() < samples; ++i)
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  // The file without the device's silence: before play began, after it ended, and where a
  // feeder that came late let the device run dry (every frame of the pattern has a sample that
  // is not 0, so only silence is left out).
  std::vector<int16_t> Heard(uint32_t channels) {
    const std::vector<int16_t> all = Written();
    std::vector<int16_t> out;
    for (size_t at = 0; at + channels <= all.size(); at += channels)
      if (std::any_of(all.begin() + at, all.begin() + at + channels, [](int16_t v) { return v != 0; }))
        out.insert(out.end(), all.begin() + at, all.begin() + at + channels);
    return out;
  }

  ScratchDir Dir;
  std::string Path = Dir / "device.raw";
};

TEST_F(SdlSoundTest, OpenFillsTheRecordAndTheDeviceGetsWhatWasFed) {
  const std::vector<int16_t> pattern = SoundPattern(22050, 2);
  {
    SoundTrackRig rig;
    ASSERT_TRUE(rig.Open(SdlSoundSelect(0), 22050, 2));
    const VelmoTrack& t = rig.Track;
    EXPECT_EQ(t.DeviceBlock, (22050 * 4 * 62 / 1000 + 31) & ~31u);
    EXPECT_EQ(t.ServiceMode, 0);
    EXPECT_EQ(t.Latency, 0u);  // it plays from empty: the library's lead of silence is exact
    EXPECT_EQ(t.ClockScale, 0x10000u);
    EXPECT_EQ(t.Ops.SetMix, nullptr);
    ASSERT_TRUE(rig.FeedAll(pattern));
    WaitFor(pattern.size(), 2);
  }
  EXPECT_EQ(Heard(2), pattern);
}

TEST_F(SdlSoundTest, TheMultichannelFormRoutesToTheSpeakersOfSetMix) {
  const std::vector<int16_t> pattern = SoundPattern(11025, 2);
  const VelmoOpenBackEnd open = SdlMultiSoundSelect(0, 0);
  ASSERT_NE(open, nullptr);
  uint32_t deviceChannels = 0;
  {
    SoundTrackRig rig;
    ASSERT_TRUE(rig.Open(open, 22050, 2));
    ASSERT_NE(rig.Track.Ops.SetMix, nullptr);
    // The track on the back pair only, at half its volume.
    const float bins[8] = {0, 0, 0, 0, 0.5f, 0.5f, 0, 0};
    rig.Track.Ops.SetMix(&rig.Track, bins, 2, 1, 0.5f);
    deviceChannels = SoundOutputOf(&rig.Track)->DeviceChannels;
    EXPECT_GE(deviceChannels, 6u);  // eight asked for; the disk driver grants what it is asked
    ASSERT_TRUE(rig.FeedAll(pattern));
    WaitFor(pattern.size() / 2 * deviceChannels, deviceChannels);
  }
  const std::vector<int16_t> heard = Heard(deviceChannels);
  ASSERT_EQ(heard.size(), pattern.size() / 2 * deviceChannels);
  for (size_t i = 0; i < pattern.size() / 2; ++i) {
    const int16_t* frame = &heard[i * deviceChannels];
    for (uint32_t c = 0; c < deviceChannels; ++c) {
      int16_t expected = 0;
      if (c == 4 || c == 5) {
        const int32_t v = pattern[i * 2 + (c - 4)];
        expected = int16_t(v >= 0 ? (v + 1) / 2 : -((-v + 1) / 2));
      }
      ASSERT_EQ(frame[c], expected) << "sample " << i << " channel " << c;
    }
  }
}

TEST_F(SdlSoundTest, ADeviceThatRunsDryReportsItOnceAndBeginsAgain) {
  SoundTrackRig rig;
  ASSERT_TRUE(rig.Open(SdlSoundSelect(0), 22050, 1));
  VelmoTrack* t = &rig.Track;
  // A quarter of a second: the start level, so play begins, and then nothing more.
  const std::vector<int16_t> start = SoundPattern(22050 / 4, 1);
  size_t at = 0;
  rig.FeedOnce(start, &at);
  ASSERT_EQ(at, start.size() * 2);
  bool dry = false;
  for (int i = 0; i < 300 && !dry; ++i) {
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
    t->Ops.Ready(t);
    dry = t->Underrun != 0;
  }
  ASSERT_TRUE(dry) << "the device never ran dry";
  t->Underrun = 0;
  // A dry device waits for the start level again: it does not run dry anew meanwhile.
  EXPECT_EQ(t->Ops.Ready(t), 1u);
  std::this_thread::sleep_for(std::chrono::milliseconds(300));
  EXPECT_EQ(t->Ops.Ready(t), 1u);
  EXPECT_EQ(t->Underrun, 0u);
}

TEST_F(SdlSoundTest, TheDefaultAndTheMultichannelFormsRegister) {
  EXPECT_TRUE(PlayerSoundRegister(PlayerSoundBackEnd(0)));
  EXPECT_TRUE(PlayerSoundRegister(PlayerSoundBackEnd(2)));
  VelmoSetSoundSystem(nullptr, 0);
}

}  // namespace
