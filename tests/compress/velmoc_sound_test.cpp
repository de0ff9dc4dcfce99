// Velmoc with sound: whole runs through the tool shell and the media layer on inputs that carry
// sound (a wave file, an AVI file with a PCM stream, and a Velmo file with a track), read back
// through the sound input, which opens the output's track with the reader library; the /L, /T,
// /R, /C switches and the span of a run that starts later; the sound lines of the dialog.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <mutex>
#include <string>
#include <vector>

#include "compress_test_util.h"
#include "convert/avi_writer.h"
#include "media/sound.h"
#include "format/container.h"

namespace {

using audio_test::Samples;

// The texts the run put on the dialog's sound line.
std::mutex g_textsLock;
std::vector<std::string> g_soundTexts;

int RecordTexts(ToolDialog*, const ToolMessage* m) {
  if (m->code == ToolMsgSetText && m->a == VelmocIdSound && m->text) {
    std::lock_guard<std::mutex> hold(g_textsLock);
    g_soundTexts.push_back(m->text);
  }
  return 0;
}

std::vector<std::string> SoundTexts() {
  std::lock_guard<std::mutex> hold(g_textsLock);
  return g_soundTexts;
}

int RunMedia(const std::string& tail) {
  {
    std::lock_guard<std::mutex> hold(g_textsLock);
    g_soundTexts.clear();
  }
  ToolFrameSetHook(RecordTexts);
  const int code = compress_test::RunVelmoc(tail, nullptr).code;
  ToolFrameSetHook(nullptr);
  return code;
}

// The output's sound as the sound input reads it back (through the reader library).
struct Heard {
  uint32_t Rate = 0, Channels = 0;
  Samples Pcm;
};
Heard ReadBack(const std::string& name) {
  Heard out;
  SoundInput* s = SoundOpen(name.c_str(), 0, 16, 0, 0, 0, 0, 0, 0, {});
  if (!s) return out;
  out.Rate = s->rate;
  out.Channels = s->channels;
  int16_t buffer[4096];
  uint32_t got;
  while ((got = SoundRead(s, buffer, sizeof buffer)) > 0) out.Pcm.insert(out.Pcm.end(), buffer, buffer + got / 2);
  SoundClose(s);
  return out;
}

// The output parsed, with the given number of tracks.
::testing::AssertionResult Open(const std::string& name, Velmo1FileCheck* check, uint32_t tracks) {
  if (const char* e = Velmo1CheckOpen(name.c_str(), check)) return ::testing::AssertionFailure() << e;
  if (check->Info.TrackCount != tracks)
    return ::testing::AssertionFailure() << check->Info.TrackCount << " tracks";
  return ::testing::AssertionSuccess();
}

VelmoTrackInfo FirstTrack(const Velmo1FileCheck& check) { return VelmoTableTrack(check.Info.Tables, 0); }

// The wave's own format, coded in the current form.
constexpr uint32_t StereoTrack = 22050u | VelmoTrackCurrent | VelmoTrackStereo | VelmoTrack16Bit;

class VelmocSound : public ::testing::Test {
 protected:
  void SetUp() override {
    wav = dir / "tune.wav";
    music = audio_test::Music(22050, 2, 22050 * 2);  // two seconds of stereo
    test_support::WriteWave16(wav, 22050, 2, music);
  }
  std::string Out(const char* name) { return dir / name; }
  test_support::ScratchDir dir;
  std::string wav;
  Samples music;
};

TEST_F(VelmocSound, WaveInputGivesATrackTheReaderPlays) {
  const std::string out = Out("tune.vlm");
  ASSERT_EQ(RunMedia(wav + " " + out + " /v101 /t9"), ToolExitDone);
  const Velmo1FileCheck check = compress_test::Played(out);
  ASSERT_EQ(check.Info.TrackCount, 1u);
  EXPECT_EQ(FirstTrack(check).Id, 9u);
  EXPECT_EQ(FirstTrack(check).Format, StereoTrack);
  EXPECT_GT(FirstTrack(check).MaxBytes, 0u);
  // A wave file as video is 4 x 4 frames at 15 a second for as long as the sound.
  EXPECT_EQ(check.Info.Header.Frames, 31u);
  const std::vector<std::string> texts = SoundTexts();
  ASSERT_FALSE(texts.empty());
  EXPECT_EQ(texts.front(), "22050 hz, 16-bit, stereo.");
  if (texts.size() > 1) {
    // The tick's line: the running ratio of the sound coding.
    EXPECT_EQ(texts.back().rfind("22050 hz, 16-bit, stereo (", 0), 0u);
    EXPECT_NE(texts.back().find(" to 1)"), std::string::npos);
  }
  const Heard back = ReadBack(out);
  EXPECT_EQ(back.Rate, 22050u);
  EXPECT_EQ(back.Channels, 2u);
  // The video's span, 31 frames at 15 a second, is longer than the sound: silence follows.
  const size_t span = size_t(22050) * 31 / 15 * 2;
  EXPECT_GE(back.Pcm.size() + 16, span);
  EXPECT_LE(back.Pcm.size(), span + 2);
  EXPECT_GT(audio_test::Snr(music, back.Pcm), 20.0);
}

TEST_F(VelmocSound, LevelSwitchAndFormatSwitches) {
  const std::string none = Out("none.vlm"), old = Out("old.vlm"), mono = Out("mono.vlm");
  Velmo1FileCheck check;
  // /L-1: the input's sound is left out.
  ASSERT_EQ(RunMedia(wav + " " + none + " /v101 /l-1"), ToolExitDone);
  EXPECT_TRUE(Open(none, &check, 0));
  ASSERT_FALSE(SoundTexts().empty());
  EXPECT_EQ(SoundTexts().front(), "None.");
  // Levels from 100 write the older form.
  ASSERT_EQ(RunMedia(wav + " " + old + " /v101 /l104"), ToolExitDone);
  ASSERT_TRUE(Open(old, &check, 1));
  EXPECT_EQ(FirstTrack(check).Format, 22050u | VelmoTrackOlder | VelmoTrackStereo | VelmoTrack16Bit);
  EXPECT_EQ(FirstTrack(check).Id, 0u);
  // /R and /C convert the sound before it is coded.
  ASSERT_EQ(RunMedia(wav + " " + mono + " /v101 /r11025 /c1"), ToolExitDone);
  ASSERT_TRUE(Open(mono, &check, 1));
  EXPECT_EQ(FirstTrack(check).Format, 11025u | VelmoTrackCurrent | VelmoTrack16Bit);
}

// The largest root mean square over runs of 16 samples.
double PeakRms(const Samples& pcm) {
  double peak = 0;
  for (size_t from = 0; from + 16 <= pcm.size(); from += 16) {
    double sum = 0;
    for (size_t i = from; i < from + 16; ++i) sum += double(pcm[i]) * pcm[i];
    peak = std::max(peak, std::sqrt(sum / 16));
  }
  return peak;
}

// /B5008 asks for 8 bits and normalising to 50 percent of full scale: the track stays 16-bit, and the
// hundreds still normalise.
TEST_F(VelmocSound, BitsAreSixteenAndTheHundredsNormalise) {
  const std::string out = Out("loud.vlm");
  ASSERT_EQ(RunMedia(wav + " " + out + " /v101 /b5008"), ToolExitDone);
  Velmo1FileCheck check;
  ASSERT_TRUE(Open(out, &check, 1));
  EXPECT_TRUE(FirstTrack(check).Format & VelmoTrack16Bit);
  const double half = 32768 * 0.5;
  ASSERT_LT(PeakRms(music), half * 0.7);  // the source is well below the asked level
  EXPECT_NEAR(PeakRms(ReadBack(out).Pcm), half, half * 0.15);
}

// A run from a later frame takes the sound from that frame's time on.
TEST_F(VelmocSound, StartFrameMovesTheSound) {
  const std::string out = Out("later.vlm");
  ASSERT_EQ(RunMedia(wav + " " + out + " /v101 /s7 /e21"), ToolExitDone);
  Velmo1FileCheck check;
  ASSERT_TRUE(Open(out, &check, 1));
  EXPECT_EQ(check.Info.Header.Frames, 15u);
  const Samples back = ReadBack(out).Pcm;
  // Six frames at 15 a second skipped: 400 ms, then one second of sound.
  const size_t skip = size_t(22050) * 400 / 1000 * 2;
  ASSERT_GE(back.size() + 16, size_t(22050) * 2);
  const Samples later(music.begin() + long(skip), music.begin() + long(skip + back.size()));
  EXPECT_GT(audio_test::Snr(later, back), 20.0);
  EXPECT_LT(audio_test::Snr(music, back), 3.0);
}

// An AVI file's PCM stream is the input's sound: the frames and the sound both go through.
TEST_F(VelmocSound, AviInputGivesItsSoundATrack) {
  const std::string avi = Out("clip.avi"), out = Out("clip.vlm");
  // 30 frames of 16 x 16 at 15 a second, each with one frame's length of the music behind it.
  const AviVideoFormat format = {16, 16, 15, 1, 24, 0, 0, 0};
  AviFile* file = AviCreate(avi.c_str(), &format);
  ASSERT_NE(file, nullptr);
  ASSERT_TRUE(AviAddSound(file, 22050, 16, 2));
  const size_t perFrame = 22050 / 15 * 2;
  ASSERT_EQ(music.size(), 30 * perFrame);
  std::vector<uint8_t> pixels(16 * 16 * 3);
  for (size_t i = 0; i < 30; ++i) {
    std::fill(pixels.begin(), pixels.end(), uint8_t(i * 8));
    ASSERT_TRUE(AviWriteVideo(file, pixels.data(), uint32_t(pixels.size())));
    ASSERT_TRUE(AviWriteSound(file, &music[i * perFrame], uint32_t(perFrame * 2)));
  }
  ASSERT_GT(AviClose(file), 0u);

  ASSERT_EQ(RunMedia(avi + " " + out + " /v101 /t4"), ToolExitDone);
  Velmo1FileCheck check;
  ASSERT_TRUE(Open(out, &check, 1));
  EXPECT_EQ(check.Info.Header.Frames, 30u);
  EXPECT_EQ(FirstTrack(check).Id, 4u);
  EXPECT_EQ(FirstTrack(check).Format, StereoTrack);
  ASSERT_FALSE(SoundTexts().empty());
  EXPECT_EQ(SoundTexts().front(), "22050 hz, 16-bit, stereo.");
  const Heard back = ReadBack(out);
  EXPECT_EQ(back.Rate, 22050u);
  EXPECT_EQ(back.Channels, 2u);
  EXPECT_GE(back.Pcm.size() + 16, music.size());
  EXPECT_GT(audio_test::Snr(music, back.Pcm), 20.0);
}

// A Velmo file with a track is an input with sound: its track is decoded and coded anew.
TEST_F(VelmocSound, VelmoInputKeepsItsSound) {
  const std::string first = Out("first.vlm"), second = Out("second.vlm");
  ASSERT_EQ(RunMedia(wav + " " + first + " /v101 /l0"), ToolExitDone);
  ASSERT_EQ(RunMedia(first + " " + second + " /v101 /l0 /t3"), ToolExitDone);
  Velmo1FileCheck check;
  ASSERT_TRUE(Open(second, &check, 1));
  EXPECT_EQ(FirstTrack(check).Id, 3u);
  const Heard back = ReadBack(second);
  EXPECT_EQ(back.Rate, 22050u);
  EXPECT_EQ(back.Channels, 2u);
  EXPECT_GT(audio_test::Snr(music, back.Pcm), 18.0);
}

}  // namespace
