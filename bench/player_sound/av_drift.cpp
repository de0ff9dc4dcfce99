// A simulated hour of play on a sound device whose crystal is off its nominal rate: how far
// apart picture and sound are at the end. The device plays at `speed` times nominal and moves
// its position in whole periods; every 13 ms the sound service looks at it, and the rate meter
// turns what it consumed into the frame clock's factor; frames are shown when the frame clock,
// scaled by that factor as the reader's wait does, says they are due. At the end, the picture's
// time (the frame on screen) is compared with the sound's (the samples the device has played).
//
//   player_av_drift [speed ...]       default: 1.001 0.999 1.0005 1.0
#include "player/sound/rate_meter.h"

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

namespace {

struct Setup {
  uint32_t Rate = 44100, Channels = 2, Period = 1024;
  uint32_t Fps = 30, FpsDiv = 1;
  uint32_t Seconds = 3600;
  uint32_t TickMs = 13;
};

struct Outcome {
  double DriftMs;
  uint32_t Scale;
};

// The frame clock of the reader: frame n (from 0) is due `n` frame times after the start, the
// frame time in whole ms scaled by the factor.
uint64_t DueMs(const Setup& s, uint64_t frame, uint32_t scale) {
  const uint64_t target = frame * s.FpsDiv * 1000 / s.Fps;
  return (target * scale) >> 16;
}

Outcome Simulate(const Setup& s, double speed, bool measure) {
  const uint32_t frameBytes = s.Channels * 2;
  RateMeter meter;
  RateMeterInit(&meter, s.Rate, frameBytes, RateMeterTiming{1600, 500});
  RateMeterBegin(&meter, 0);
  uint64_t reported = 0, frame = 0, played = 0;
  uint32_t scale = 0x10000;
  const uint64_t endMs = uint64_t(s.Seconds) * 1000;
  for (uint64_t now = 0; now <= endMs; now += s.TickMs) {
    played = uint64_t(double(now) * s.Rate * speed / 1000.0) / s.Period * s.Period;
    if (measure) scale = RateMeterConsumed(&meter, uint32_t((played - reported) * frameBytes),
                                           uint32_t(now));
    reported = played;
    while (DueMs(s, frame + 1, scale) <= now) ++frame;
  }
  const double pictureMs = double(frame) * s.FpsDiv * 1000.0 / s.Fps;
  const double soundMs = double(played) * 1000.0 / s.Rate;
  return {pictureMs - soundMs, scale};
}

}  // namespace

int main(int argc, char** argv) {
  std::vector<double> speeds;
  for (int i = 1; i < argc; ++i) speeds.push_back(std::atof(argv[i]));
  if (speeds.empty()) speeds = {1.001, 0.999, 1.0005, 1.0};
  const Setup s;
  const double frameMs = 1000.0 * s.FpsDiv / s.Fps;
  std::printf("One hour at %u/%u frames per second, %u Hz %u channels, device periods of %u "
              "samples, a look every %u ms.\n",
              s.Fps, s.FpsDiv, s.Rate, s.Channels, s.Period, s.TickMs);
  std::printf("Drift = picture time - sound time at the end (a frame is %.1f ms; the frame on "
              "screen is up to one frame behind by itself).\n\n",
              frameMs);
  std::printf("| device speed | ClockScale | ideal | drift measured (ms) | in frames | drift "
              "without measuring (ms) |\n|---|---|---|---|---|---|\n");
  for (double speed : speeds) {
    const Outcome m = Simulate(s, speed, true);
    const Outcome plain = Simulate(s, speed, false);
    std::printf("| %.4f | %u | %.1f | %.1f | %.2f | %.1f |\n", speed, m.Scale, 65536.0 / speed,
                m.DriftMs, m.DriftMs / frameMs, plain.DriftMs);
  }
  return 0;
}
