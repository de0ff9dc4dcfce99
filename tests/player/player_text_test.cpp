// The statistics line and the playback summary, from figures chosen so that each field's
// arithmetic shows.
#include "player/player_text.h"

#include <gtest/gtest.h>

#include <string>

namespace {

VelmoRealtime Realtime() {
  VelmoRealtime r{};
  r.FrameNum = 321;
  r.Span = 25;
  r.Time = 1040;            // 25 frames in 1.04 s: 24.0 fps
  r.VideoTime = 520;        // 50 %
  r.SoundTime = 104;        // 10 %
  r.BlitTime = 52;          // 5 %
  r.ReadTime = 100;
  r.IdleReadTime = 4;       // with ReadTime: 10 %
  r.ThreadReadTime = 208;   // 20 %
  r.BufferSize = 999;
  r.BufferUsed = 494;       // (495 * 1000 / 1000) = 495 per mille: 50 % after rounding
  r.DataRate = 123456;
  return r;
}

TEST(PlayerStatistics, FieldsOfTheLine) {
  EXPECT_EQ(PlayerStatisticsLine(Realtime(), false, 0),
            "Fr: 321, FPS: 24.0, Buf: 50%, Vid: 50%, Aud: 10%, Blit: 5%, Read: 10%, Back: 20%, "
            "Rate: 123456");
}

TEST(PlayerStatistics, ExposureOfHdrFiles) {
  const std::string base = PlayerStatisticsLine(Realtime(), false, 0);
  EXPECT_EQ(PlayerStatisticsLine(Realtime(), true, -6), base + ", Expo: 2**-1.5");
  EXPECT_EQ(PlayerStatisticsLine(Realtime(), true, 4), base + ", Expo: 2**+1.0");
  EXPECT_EQ(PlayerStatisticsLine(Realtime(), true, -40), base + ", Expo: 2**-10.0");
}

TEST(PlayerStatistics, EmptyBufferAndNoTime) {
  VelmoRealtime r{};
  r.Span = 1;
  const std::string line = PlayerStatisticsLine(r, false, 0);
  EXPECT_NE(line.find("FPS: 1000.0"), std::string::npos) << line;  // a span of no time is 1 ms
  EXPECT_NE(line.find("Buf: 100%"), std::string::npos) << line;    // (0 + 1) * 1000 / (0 + 1)
}

VelmoSummary Summary() {
  VelmoSummary s{};
  s.Width = 320;
  s.Height = 240;
  s.FileRate = 30000;
  s.FileRateDiv = 1001;
  s.FrameRate = 25;
  s.FrameRateDiv = 1;
  s.Frames = 500;
  s.FramesPlayed = 100;
  s.TotalTime = 4000;
  s.OpenTime = 1500;
  s.SkippedFrames = 3;
  s.SoundSkips = 1;
  s.VideoTime = 1000;
  s.SoundTime = 2;
  s.BlitTime = 400;
  s.ReadTime = 40;
  s.IdleReadTime = 80;
  s.ThreadReadTime = 120;
  s.ReadSpeed = 5000000;
  s.Slowest = 80;
  s.SlowestFrame = 17;
  s.SecondSlowest = 60;
  s.SecondSlowestFrame = 42;
  s.AverageRate = 250000;
  s.AverageFrame = 10000;
  s.HighestSecondBytes = 400000;
  s.HighestSecondFrame = 7;
  s.TotalMemory = 9000000;
  s.ReadBufferSize = 4194304;
  s.HighestBufferUsed = 1048576;
  return s;
}

TEST(PlayerSummary, TemplateFilledFromTheFigures) {
  PlayerSummaryExtras e;
  e.SkippedBlits = 2;
  e.ScreenWidth = 1920;
  e.ScreenHeight = 1080;
  EXPECT_EQ(PlayerSummaryText(Summary(), e),
            "Video: 320 x 240 at 29.9 frames/sec\nTotal frames: 500\n\n"
            "Total frames played: 100\nFrame rate played: 25.0 frames/sec\n"
            "Frame rate obtained: 25.0 frames/sec\nSkipped frames: 3\nSkipped blits: 2\n"
            "Sound skips: 1\n\nPercentage spent decompressing video: 25.0%\n"
            "Percentage spent decompressing audio: 0.0%\nPercentage spent blitting: 10.0%\n"
            "Percentage spent reading: 1.0%\nPercentage spent reading while idle: 2.0%\n"
            "Percentage spent reading in background: 3.0%\n"
            "Speed of playback device: 5000000 bytes/sec\n\n"
            "Total playback time: 4 seconds\nTotal open time: 1 second\n"
            "Slowest frame: 17 (12.5 frames/sec)\nSecond slowest frame: 42 (16.6 frames/sec)\n"
            "Average data rate: 250000\nAverage frame size: 10000\n"
            "Peak data rate: 400000 bytes/sec (frame: 7)\n\n"
            "Total memory used: 9000000\nTotal input memory: 4194304\n"
            "Highest input memory used: 1048576\n\n"
            "Blitting style: Windows 2D Blit\nVideo mode: 1920 x 1080\n");
}

TEST(PlayerSummary, RateZeroOneFrameAndNone) {
  VelmoSummary s = Summary();
  s.FrameRate = 0;
  s.FramesPlayed = 1;
  const std::string text = PlayerSummaryText(s, PlayerSummaryExtras{});
  EXPECT_NE(text.find("Frame rate played: As fast as possible\n"), std::string::npos);
  EXPECT_EQ(text.find("Second slowest"), std::string::npos);
  EXPECT_NE(text.find("(12.5 frames/sec)\nAverage data rate"), std::string::npos);
  PlayerSummaryExtras gpu;
  gpu.OpenGL = true;
  EXPECT_NE(PlayerSummaryText(s, gpu).find("Blitting style: Direct3D 11\n"), std::string::npos);
  s.FramesPlayed = 0;
  EXPECT_EQ(PlayerSummaryText(s, PlayerSummaryExtras{}), "");
}

}  // namespace
