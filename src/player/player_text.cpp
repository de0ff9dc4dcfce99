// The statistics line and the playback summary.
#include "player/player_text.h"

#include <cstdarg>
#include <cstdio>

#include "host/textformat.h"

namespace {

std::string Format(const char* format, ...) {
  char text[4096];
  va_list args;
  va_start(args, format);
  std::vsnprintf(text, sizeof text, format, args);
  va_end(args);
  return text;
}

// A value in tenths as "12.3".
std::string Tenths(uint64_t tenths) {
  return Format("%llu.%llu", (unsigned long long)(tenths / 10), (unsigned long long)(tenths % 10));
}

// ms of `total` as a percentage with one decimal.
std::string Share(uint32_t ms, uint32_t total) {
  return Tenths(total ? uint64_t(ms) * 1000 / total : 0) + "%";
}

std::string Time(uint64_t ms) {
  char text[64];
  FormatTime(text, sizeof text, ms);
  return text;
}

int Percent(uint32_t ms, uint32_t total) { return int(total ? uint64_t(ms) * 100 / total : 0); }

}  // namespace

std::string PlayerStatisticsLine(const VelmoRealtime& r, bool hdr, int32_t exposure) {
  const uint32_t time = r.Time ? r.Time : 1;
  const uint64_t fps = uint64_t(r.Span) * 10000 / time;
  const uint64_t fill = (r.BufferUsed + 1) * 1000 / (r.BufferSize + 1);
  std::string line = Format(
      "Fr: %i, FPS: %i.%0i, Buf: %i%%, Vid: %i%%, Aud: %i%%, Blit: %i%%, Read: %i%%, Back: %i%%, "
      "Rate: %i",
      int(r.FrameNum), int(fps / 10), int(fps % 10), int((fill + 5) / 10),
      Percent(r.VideoTime, time), Percent(r.SoundTime, time), Percent(r.BlitTime, time),
      Percent(r.ReadTime + r.IdleReadTime, time), Percent(r.ThreadReadTime, time),
      int(r.DataRate));
  if (hdr) {
    const int32_t stops = exposure * 10 / 4;
    const int32_t magnitude = stops < 0 ? -stops : stops;
    line += Format(", Expo: 2**%s%i.%0i", stops < 0 ? "-" : "+", magnitude / 10, magnitude % 10);
  }
  return line;
}

std::string PlayerSummaryText(const VelmoSummary& s, const PlayerSummaryExtras& e) {
  if (s.FramesPlayed == 0) return "";
  const uint32_t total = s.TotalTime ? s.TotalTime : 1;
  const std::string fileRate =
      Tenths(s.FileRateDiv ? uint64_t(s.FileRate) * 10 / s.FileRateDiv : 0);
  const std::string played =
      s.FrameRate && s.FrameRateDiv
          ? Tenths(uint64_t(s.FrameRate) * 10 / s.FrameRateDiv) + " frames/sec"
          : std::string("As fast as possible");
  const std::string obtained = Tenths(uint64_t(s.FramesPlayed) * 10000 / total);
  auto rateOf = [](uint32_t ms) { return Tenths(10000 / (ms ? ms : 1)); };
  const std::string second =
      s.FramesPlayed < 2 ? std::string()
                         : Format("Second slowest frame: %i (%s frames/sec)\n",
                                  int(s.SecondSlowestFrame), rateOf(s.SecondSlowest).c_str());
  return Format(
      "Video: %i x %i at %s frames/sec\nTotal frames: %i\n\nTotal frames played: %i\n"
      "Frame rate played: %s\nFrame rate obtained: %s frames/sec\nSkipped frames: %i\n"
      "Skipped blits: %i\nSound skips: %i\n\nPercentage spent decompressing video: %s\n"
      "Percentage spent decompressing audio: %s\nPercentage spent blitting: %s\n"
      "Percentage spent reading: %s\nPercentage spent reading while idle: %s\n"
      "Percentage spent reading in background: %s\nSpeed of playback device: %lli bytes/sec\n\n"
      "Total playback time: %s\nTotal open time: %s\nSlowest frame: %i (%s frames/sec)\n%s"
      "Average data rate: %i\nAverage frame size: %i\nPeak data rate: %lli bytes/sec (frame: %i)\n\n"
      "Total memory used: %lli\nTotal input memory: %lli\nHighest input memory used: %lli\n\n"
      "Blitting style: %s\nVideo mode: %i x %i\n",
      int(s.Width), int(s.Height), fileRate.c_str(), int(s.Frames), int(s.FramesPlayed),
      played.c_str(), obtained.c_str(), int(s.SkippedFrames), int(e.SkippedBlits),
      int(s.SoundSkips), Share(s.VideoTime, total).c_str(), Share(s.SoundTime, total).c_str(),
      Share(s.BlitTime, total).c_str(), Share(s.ReadTime, total).c_str(),
      Share(s.IdleReadTime, total).c_str(), Share(s.ThreadReadTime, total).c_str(),
      (long long)s.ReadSpeed, Time(s.TotalTime).c_str(), Time(s.OpenTime).c_str(),
      int(s.SlowestFrame), rateOf(s.Slowest).c_str(), second.c_str(), int(s.AverageRate),
      int(s.AverageFrame), (long long)s.HighestSecondBytes, int(s.HighestSecondFrame),
      (long long)s.TotalMemory, (long long)s.ReadBufferSize, (long long)s.HighestBufferUsed,
      e.OpenGL ? "Direct3D 11" : "Windows 2D Blit", int(e.ScreenWidth), int(e.ScreenHeight));
}
