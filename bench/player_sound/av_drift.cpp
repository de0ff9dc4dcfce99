// An hour of play on a sound device whose crystal is off its nominal rate, through the reader
// library: how far apart picture and sound are at the end.
//
// The clip is made here with our own writer, frame loop and sound encoder: a tiny moving
// picture at 30 frames a second with a 22050 Hz stereo tone track, one hour long (a short clip
// played in a loop would not do: a loop point restarts sound and frame clock every few
// minutes, which would hide the drift). It is opened with the reader library and its sound goes
// to the null back end, whose device plays at `speed` times nominal; it is set up as ALSA's
// back end is (50 ms blocks, 400 ms of buffer told as its Latency). Time is simulated: the
// library's clock and the device's are one counter, moved 1 ms at a time while the library says
// the next frame is not due (as the player's loop sleeps); every 13 ms the sound service is
// ticked, as the sound thread would. Frames are decoded and presented when VelmoWait says so.
//
// At each present, the picture's time (the frame shown) is compared with the sound's (the
// place in the file of the sample the device is playing: what the library decoded into the
// ring, less what the ring and the device still hold). Drift is how much that difference moved
// from the first minute to the last.
//
// Three ways of telling the library the device's speed (ClockScale):
//   meter     the player's rate meter, fed with the bytes the device consumed (as ALSA's back
//             end does), from 1.6 s after play begins
//   device    the null device states its true speed
//   off       nothing is reported: the frame clock runs on the system's time
//
//   player_av_drift [--seconds N] [--clip FILE] [--latency MS] [speed ...]
// Default speeds: 1.001 0.999 1.0. --clip keeps the clip in FILE (made when missing) instead of
// a temporary file; --latency sets the device's buffer and the Latency it tells (default 400).
#include "compress/frame_loop.h"
#include "compress/velmo_sound_track.h"
#include "compress/velmo_writer.h"
#include "format/container.h"
#include "player/sound/rate_meter.h"
#include "reader/velmo_handle.h"
#include "reader/velmo_sound.h"
#include "reader/velmo_sound_null.h"
#include "velmo.h"

#include <atomic>
#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <iterator>
#include <string>
#include <unistd.h>
#include <vector>

namespace {

constexpr uint32_t Fps = 30, Width = 32, Height = 24;
constexpr uint32_t SoundRate = 22050, SoundChannels = 2;
constexpr uint32_t BytesPerSecond = SoundRate * SoundChannels * 2;
constexpr uint32_t TickMs = 13;
uint32_t LatencyMs = 400;  // the device's buffer, and the Latency it tells: ALSA's 400 ms
constexpr double FrameMs = 1000.0 / Fps;

// ---- the clip ---------------------------------------------------------------------------------

// A tone that glides up and down, so that every block codes something.
struct Tone {
  uint64_t Sample = 0;
  double Phase = 0;
};

uint32_t ReadTone(void* source, void* buffer, uint32_t bytes) {
  Tone* t = static_cast<Tone*>(source);
  int16_t* out = static_cast<int16_t*>(buffer);
  const uint32_t samples = bytes / (2 * SoundChannels);
  for (uint32_t i = 0; i < samples; ++i, ++t->Sample) {
    const double seconds = double(t->Sample) / SoundRate;
    const double hz = 440.0 + 220.0 * std::sin(seconds * 0.5);
    t->Phase += 2 * M_PI * hz / SoundRate;
    if (t->Phase > 2 * M_PI) t->Phase -= 2 * M_PI;
    const int16_t v = int16_t(8000 * std::sin(t->Phase));
    out[i * 2] = v;
    out[i * 2 + 1] = int16_t(-v / 2);
  }
  return samples * 2 * SoundChannels;
}

// A small picture: a gradient that moves one step a frame.
std::vector<uint32_t> Picture(uint32_t frame) {
  std::vector<uint32_t> p(Width * Height);
  for (uint32_t y = 0; y < Height; ++y)
    for (uint32_t x = 0; x < Width; ++x) {
      const uint32_t r = (x * 8 + frame) & 255, g = (y * 10) & 255, b = ((x + y) * 4) & 255;
      p[y * Width + x] = 0xff000000u | r << 16 | g << 8 | b;
    }
  return p;
}

bool MakeClip(const std::string& path, uint32_t seconds) {
  const uint32_t frames = seconds * Fps;
  Tone tone;
  VelmoWriterTrack track{};
  track.TrackId = 0;
  track.SampleRate = SoundRate;
  track.Bits = 16;
  track.Channels = SoundChannels;
  track.Source = &tone;
  track.ReadSamples = ReadTone;
  if (!VelmoWriterTrackStart(&track, 0, frames, Fps, 1)) return false;
  VelmoWriter* w = VelmoWriterOpen(path.c_str(), 0, 101, Width, Height, frames, 0, nullptr, Fps,
                                   1, 1, &track, 10000, nullptr, nullptr, nullptr);
  if (!w) {
    VelmoWriterTrackEnd(&track);
    return false;
  }
  VelmoFrameLoop* loop = VelmoFrameLoopOpen(w, 4, 0, 0);
  bool ok = loop != nullptr;
  for (uint32_t f = 0; ok && f < frames; ++f) {
    const std::vector<uint32_t> pic = Picture(f);
    ok = VelmoFrameLoopAdd(loop, 300, 900, false, pic.data(), int32_t(Width * 4), false);
    if (ok) VelmoFrameLoopCommit(loop);
  }
  if (ok) VelmoFrameLoopPump(loop, true);
  if (loop) VelmoFrameLoopFree(loop);
  return VelmoWriterClose(w, !ok) != 0 && ok;
}

// Sound bytes decoded into the ring by the end of each frame (index: frame from 1), from the
// packets of the file: the library decodes each packet's DecodedBytes.
std::vector<uint64_t> DecodedThrough(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  const std::vector<uint8_t> file((std::istreambuf_iterator<char>(in)),
                                  std::istreambuf_iterator<char>());
  std::vector<uint64_t> through;
  HVELMO h = VelmoOpen(path.c_str(), VelmoOpenNoBackground);
  if (!h) return through;
  through.assign(h->Frames + 1, 0);
  for (uint32_t f = 1; f <= h->Frames; ++f) {
    const uint64_t start = VelmoEntryOffset(h->FrameTable[f - 1]);
    const uint64_t end = VelmoEntryOffset(h->FrameTable[f]);
    VelmoSoundPacket sound{};
    if (end <= file.size() && start < end)
      VelmoWalkFramePacket(file.data() + start, size_t(end - start), 1, &sound);
    through[f] = through[f - 1] + (sound.PacketSize ? sound.DecodedBytes : 0);
  }
  VelmoClose(h);
  return through;
}

// ---- simulated time ---------------------------------------------------------------------------

std::atomic<uint32_t> SimMs{1000};
uint32_t SimClock() { return SimMs.load(); }

// ---- the device: the null back end, watched ---------------------------------------------------

enum class Report { Meter, Device, Off };
const char* ReportName(Report r) {
  return r == Report::Meter ? "meter" : r == Report::Device ? "device" : "off";
}

// What the bench adds to the null device of the one track: the rate meter fed with the bytes
// the device played, and the bytes a switch-off threw away (so that what the device holds is
// known at every moment).
struct Watch {
  Report Mode = Report::Meter;
  VelmoOpenBackEnd NullOpen = nullptr;
  VelmoTrackOps Null{};
  VelmoNullSoundLog* Log = nullptr;
  RateMeter Meter;
  uint32_t Begun = 0;
  uint64_t LastPlayed = 0;
  uint32_t SeenUnderruns = 0;
  uint64_t Dropped = 0;
};
Watch W;

void Observe(VelmoTrack* t) {
  if (W.Log->Underruns != W.SeenUnderruns) {  // ran dry: the measure starts again with play
    W.SeenUnderruns = W.Log->Underruns;
    RateMeterStop(&W.Meter);
    W.Begun = 0;
  }
  if (!W.Begun) return;
  const uint64_t played = W.Log->Played;
  const uint32_t bytes = uint32_t(played - W.LastPlayed);
  W.LastPlayed = played;
  const uint32_t scale = RateMeterConsumed(&W.Meter, bytes, SimClock());
  if (W.Mode == Report::Meter) std::atomic_ref<uint32_t>(t->ClockScale).store(scale);
}

uint32_t WatchReady(VelmoTrack* t) {
  const uint32_t ready = W.Null.Ready(t);
  Observe(t);
  return ready;
}

void WatchUnlock(VelmoTrack* t, uint32_t bytes) {
  W.Null.Unlock(t, bytes);
  if (!W.Begun && bytes) {  // the device has sound again: it plays from now
    W.Begun = 1;
    W.LastPlayed = W.Log->Played;
    RateMeterBegin(&W.Meter, SimClock());
  }
}

uint32_t WatchOnOff(VelmoTrack* t, uint32_t on) {
  const uint32_t state = W.Null.OnOff(t, on);
  if (!on) {
    W.Dropped = W.Log->Received - W.Log->Played;  // the null device forgets what it held
    RateMeterStop(&W.Meter);
    W.Begun = 0;
  }
  return state;
}

uint32_t WatchOpen(VelmoTrack* t, uint32_t rate, uint32_t channels, uint32_t flags, HVELMO h) {
  if (!W.NullOpen(t, rate, channels, flags, h)) return 0;
  W.Null = t->Ops;
  t->Ops.Ready = WatchReady;
  t->Ops.Unlock = WatchUnlock;
  t->Ops.OnOff = WatchOnOff;
  RateMeterInit(&W.Meter, rate, channels * 2, RateMeterTiming{1600, 500});
  if (W.Mode == Report::Meter) t->ClockScale = 0x10000;
  return 1;
}

VelmoOpenBackEnd WatchSelect(uintptr_t parameter) {
  W.NullOpen = VelmoNullSoundSelect(parameter);
  return W.NullOpen ? WatchOpen : nullptr;
}

// ---- one hour ---------------------------------------------------------------------------------

struct Outcome {
  bool Ok = false;
  double StartOffsetMs = 0, EndOffsetMs = 0;  // picture - sound, over the first and last minute
  double WorstMs = 0;                         // the largest move from the start's offset
  uint32_t Scale = 0, SoundSkips = 0, Underruns = 0, Skipped = 0, Frames = 0;
  // Without restarts: the place in the file the device plays less the bytes it played, the
  // sound a full ring could not take (0 when every decoded byte was heard).
  int64_t LostBytes = 0;
};

void Advance(uint32_t ms, uint32_t* nextTick) {
  for (uint32_t i = 0; i < ms; ++i) {
    ++SimMs;
    if (int32_t(SimMs.load() - *nextTick) >= 0) {
      VelmoSoundTick();
      *nextTick += TickMs;
    }
  }
}

Outcome Play(const std::string& path, const std::vector<uint64_t>& through, double speed,
             Report mode) {
  Outcome out;
  SimMs = 1000;
  W = Watch{};
  W.Mode = mode;
  VelmoNullSoundConfig config;
  config.RateScale = uint32_t(std::lround(speed * 65536.0));
  config.ReportScale = mode == Report::Device ? 1 : 0;
  config.DeviceBlock = (BytesPerSecond * 50 / 1000 + 31) & ~31u;  // 50 ms, as ALSA's blocks
  config.Latency = LatencyMs;
  config.ServiceMode = 2;  // fed on the host's tick
  config.Clock = SimClock;
  W.Log = &config.Logs[0];
  if (!VelmoSetSoundSystem(WatchSelect, uintptr_t(&config))) return out;
  HVELMO h = VelmoOpen(path.c_str(), VelmoOpenNoBackground);
  if (!h || h->OpenTracks != 1) {
    std::fprintf(stderr, "the clip did not open with its sound: %s\n", VelmoGetError());
    if (h) VelmoClose(h);
    return out;
  }
  VelmoState* s = VelmoStateOf(h);
  VelmoTrack* track = &h->Tracks[0];

  const uint32_t frames = h->Frames;
  std::vector<double> offsets(frames + 1, 0.0);
  auto sample = [&](uint32_t shown) {
    VelmoNullSoundAdvance(track);  // the device plays on to the present
    const int64_t ring = track->RingWrite - track->RingRead;
    const uint64_t inRing = uint64_t(ring < 0 ? ring + track->RingSize : ring);
    const uint64_t inDevice = W.Log->Received - W.Log->Played - W.Dropped;
    // Silence put in front at a restart counts as sound from before the ring's oldest byte.
    const int64_t place = int64_t(through[s->LastSoundFrame]) - int64_t(inRing + inDevice);
    out.LostBytes = place - int64_t(W.Log->Played);
    offsets[shown] = (shown - 1) * FrameMs - double(place) * 1000.0 / BytesPerSecond;
  };

  uint32_t nextTick = SimMs + TickMs;
  VelmoDoFrame(h);
  for (;;) {
    if (VelmoWait(h)) {
      Advance(1, &nextTick);
      continue;
    }
    const uint32_t shown = h->FrameNum;
    if (shown >= frames) {
      sample(shown);
      break;
    }
    VelmoNextFrame(h);
    VelmoDoFrame(h);
    sample(shown);
  }

  // Over the first minute after the meter has settled (10 to 70 s), and over the last minute.
  auto mean = [&](uint32_t from, uint32_t to) {
    double sum = 0;
    uint32_t n = 0;
    for (uint32_t f = std::max(from, 1u); f <= std::min(to, frames); ++f, ++n) sum += offsets[f];
    return n ? sum / n : 0.0;
  };
  out.StartOffsetMs = mean(10 * Fps, 70 * Fps);
  out.EndOffsetMs = mean(frames > 60 * Fps ? frames - 60 * Fps : 1, frames);
  for (uint32_t f = 10 * Fps; f <= frames; ++f)
    out.WorstMs = std::max(out.WorstMs, std::fabs(offsets[f] - out.StartOffsetMs));
  out.Scale = VelmoSoundClockScale(s);
  out.SoundSkips = s->SoundSkips;
  out.Underruns = W.Log->Underruns;
  out.Skipped = s->SkippedFrames;
  out.Frames = frames;
  out.Ok = true;
  VelmoClose(h);
  VelmoSetSoundSystem(nullptr, 0);
  return out;
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t seconds = 3600;
  std::string clip;
  std::vector<double> speeds;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--seconds") && i + 1 < argc) seconds = uint32_t(std::atoi(argv[++i]));
    else if (!std::strcmp(argv[i], "--clip") && i + 1 < argc) clip = argv[++i];
    else if (!std::strcmp(argv[i], "--latency") && i + 1 < argc) LatencyMs = uint32_t(std::atoi(argv[++i]));
    else speeds.push_back(std::atof(argv[i]));
  }
  if (speeds.empty()) speeds = {1.001, 0.999, 1.0};
  if (seconds < 140) seconds = 140;  // a first and a last minute that do not overlap

  bool temporary = false;
  if (clip.empty()) {
    char name[] = "/tmp/av_drift_XXXXXX";
    const int fd = mkstemp(name);
    if (fd < 0) return 1;
    close(fd);
    clip = std::string(name) + ".vlm";
    unlink(name);
    temporary = true;
  }
  if (access(clip.c_str(), R_OK) != 0 || temporary) {
    std::printf("Making a %u s clip (%ux%u, %u fps, %u Hz stereo sound) in %s ...\n", seconds,
                Width, Height, Fps, SoundRate, clip.c_str());
    std::fflush(stdout);
    if (!MakeClip(clip, seconds)) {
      std::fprintf(stderr, "the clip could not be made\n");
      return 1;
    }
  }
  const std::vector<uint64_t> through = DecodedThrough(clip);
  if (through.size() < 2) {
    std::fprintf(stderr, "the clip does not open: %s\n", VelmoGetError());
    return 1;
  }
  VelmoSetClockForTest(SimClock);

  std::printf("%zu frames at %u fps (a frame is %.1f ms); the device buffers %u ms and is "
              "served every %u ms.\n",
              through.size() - 1, Fps, FrameMs, LatencyMs, TickMs);
  std::printf("Offset = picture time - sound time, mean over the first minute (from 10 s) and "
              "the last; drift = the change.\n\n");
  std::printf("| device speed | ClockScale from | ClockScale at end | offset start (ms) | "
              "offset end (ms) | drift (ms) | drift (frames) | largest move (ms) | sound "
              "restarts | underruns | frames skipped | sound lost (ms) |\n"
              "|---|---|---|---|---|---|---|---|---|---|---|---|\n");
  int status = 0;
  for (double speed : speeds) {
    for (Report mode : {Report::Meter, Report::Device, Report::Off}) {
      const Outcome o = Play(clip, through, speed, mode);
      if (!o.Ok) {
        status = 1;
        continue;
      }
      const double drift = o.EndOffsetMs - o.StartOffsetMs;
      char lost[32] = "-";  // restarts throw sound away and put silence in: not counted
      if (o.SoundSkips == 0)
        std::snprintf(lost, sizeof lost, "%.0f", double(o.LostBytes) * 1000.0 / BytesPerSecond);
      std::printf("| %.4f | %s | %u | %.1f | %.1f | %.1f | %.2f | %.1f | %u | %u | %u | %s |\n",
                  double(uint32_t(std::lround(speed * 65536.0))) / 65536.0, ReportName(mode),
                  o.Scale, o.StartOffsetMs, o.EndOffsetMs, drift, drift / FrameMs, o.WorstMs,
                  o.SoundSkips, o.Underruns, o.Skipped, lost);
      std::fflush(stdout);
    }
  }
  VelmoSetClockForTest(nullptr);
  if (temporary) unlink(clip.c_str());
  return status;
}
