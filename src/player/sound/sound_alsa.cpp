// ALSA back end. Per track: a non-blocking PCM with about 400 ms of buffer, written in 50 ms
// blocks from a staging buffer; play begins once 200 ms are queued. Ready runs at the sound
// service's period: it notices a device that ran dry (the PCM's under-run state), and feeds the
// rate meter with the samples the device consumed since the last look.
#include "player/sound/sound_alsa.h"

#include "host/platform.h"
#include "player/sound/sound_output.h"

#include <alsa/asoundlib.h>

#include <algorithm>
#include <new>

namespace {

constexpr uint32_t BlockMs = 50;
constexpr uint32_t StagingBlocks = 4;
constexpr uint32_t BufferUs = 400000;
constexpr uint32_t StartMs = 200;
// As for a device played through a wave-out style queue: it settles quickly.
constexpr RateMeterTiming Timing{1600, 500};

const char* DeviceName = "default";

struct AlsaOutput : SoundOutput {
  snd_pcm_t* Pcm = nullptr;
  snd_pcm_uframes_t BufferFrames = 0;
  uint64_t WrittenFrames = 0;   // frames given since play last began
  uint64_t ConsumedFrames = 0;  // of those, what the device had played at the last look
  uint32_t CanPause = 0;
};

// The library prints its own complaints to the terminal; a player without a device plays
// silently instead.
void Quiet(const char*, int, const char*, int, const char*, ...) {}

AlsaOutput* Out(VelmoTrack* t) { return SoundOutputOf<AlsaOutput>(t); }

void ResetPlay(AlsaOutput* o) {
  o->Begun = 0;
  o->Queued = 0;
  o->WrittenFrames = 0;
  o->ConsumedFrames = 0;
  RateMeterStop(&o->Meter);
}

bool Configure(AlsaOutput* o) {
  if (snd_pcm_set_params(o->Pcm, SND_PCM_FORMAT_S16_LE, SND_PCM_ACCESS_RW_INTERLEAVED,
                         o->TrackChannels, o->Rate, 1, BufferUs) < 0)
    return false;
  snd_pcm_uframes_t period = 0;
  if (snd_pcm_get_params(o->Pcm, &o->BufferFrames, &period) < 0 || o->BufferFrames == 0)
    return false;
  snd_pcm_hw_params_t* hw;
  snd_pcm_hw_params_alloca(&hw);
  if (snd_pcm_hw_params_current(o->Pcm, hw) == 0) o->CanPause = snd_pcm_hw_params_can_pause(hw);
  // Play begins when we say so, not at a fill level of ALSA's choosing.
  snd_pcm_sw_params_t* sw;
  snd_pcm_sw_params_alloca(&sw);
  snd_pcm_uframes_t boundary = 0;
  if (snd_pcm_sw_params_current(o->Pcm, sw) < 0 ||
      snd_pcm_sw_params_get_boundary(sw, &boundary) < 0 ||
      snd_pcm_sw_params_set_start_threshold(o->Pcm, sw, boundary) < 0 ||
      snd_pcm_sw_params(o->Pcm, sw) < 0)
    return false;
  return snd_pcm_prepare(o->Pcm) == 0;
}

// The device's state; a device that ran dry is made ready again and reported.
void CheckDry(VelmoTrack* t, AlsaOutput* o) {
  const snd_pcm_state_t state = snd_pcm_state(o->Pcm);
  if (state != SND_PCM_STATE_XRUN) return;
  SoundOutputReportUnderrun(t);
  snd_pcm_prepare(o->Pcm);
  ResetPlay(o);
}

// Feeds the meter with what the device consumed since the last look: the frames written less
// the frames still waiting (the PCM's delay).
void Measure(VelmoTrack* t, AlsaOutput* o) {
  if (!o->Begun || snd_pcm_state(o->Pcm) != SND_PCM_STATE_RUNNING) return;
  snd_pcm_sframes_t delay = 0;
  if (snd_pcm_delay(o->Pcm, &delay) < 0) return;
  delay = std::clamp<snd_pcm_sframes_t>(delay, 0, snd_pcm_sframes_t(o->WrittenFrames));
  const uint64_t consumed = o->WrittenFrames - uint64_t(delay);
  if (consumed < o->ConsumedFrames) return;  // a delay read during the driver's update
  const uint64_t frames = consumed - o->ConsumedFrames;
  o->ConsumedFrames = consumed;
  const uint32_t scale =
      RateMeterConsumed(&o->Meter, uint32_t(frames * o->DeviceFrameBytes), TimerMs());
  SoundOutputReportScale(t, scale);
}

uint32_t FreeBytes(AlsaOutput* o) {
  const snd_pcm_sframes_t avail = snd_pcm_avail_update(o->Pcm);
  if (avail <= 0) return 0;
  return uint32_t(std::min<uint64_t>(uint64_t(avail) * o->TrackFrameBytes, o->StagingBytes));
}

uint32_t AlsaReady(VelmoTrack* t) {
  AlsaOutput* o = Out(t);
  if (!o->On || o->Paused) return 0;
  CheckDry(t, o);
  Measure(t, o);
  return FreeBytes(o) >= std::min(o->BlockBytes, o->StagingBytes) ? 1 : 0;
}

uint32_t AlsaLock(VelmoTrack* t, void** address, uint32_t* bytes) {
  AlsaOutput* o = Out(t);
  if (!o->On) return 0;
  const uint32_t free = FreeBytes(o);
  if (free < o->TrackFrameBytes) return 0;
  *address = o->Staging.get();
  *bytes = free - free % o->TrackFrameBytes;
  return 1;
}

void Begin(AlsaOutput* o) {
  if (snd_pcm_state(o->Pcm) == SND_PCM_STATE_PREPARED) snd_pcm_start(o->Pcm);
  o->Begun = 1;
  RateMeterBegin(&o->Meter, TimerMs());
}

void AlsaUnlock(VelmoTrack* t, uint32_t bytes) {
  AlsaOutput* o = Out(t);
  uint32_t deviceBytes = 0;
  const uint8_t* data = SoundOutputConvert(o, std::min(bytes, o->StagingBytes), &deviceBytes);
  snd_pcm_uframes_t frames = deviceBytes / o->DeviceFrameBytes;
  while (frames > 0) {
    snd_pcm_sframes_t done = snd_pcm_writei(o->Pcm, data, frames);
    if (done == -EPIPE) {  // dry between Ready and now
      CheckDry(t, o);
      done = snd_pcm_writei(o->Pcm, data, frames);
    }
    if (done <= 0) break;  // full, or the device is gone: the rest is lost
    o->WrittenFrames += uint64_t(done);
    data += size_t(done) * o->DeviceFrameBytes;
    frames -= snd_pcm_uframes_t(done);
  }
  if (!o->Begun) {
    o->Queued += bytes;
    if (o->Queued >= o->StartBytes) Begin(o);
  }
}

uint32_t AlsaPause(VelmoTrack* t, uint32_t pause) {
  AlsaOutput* o = Out(t);
  pause = pause ? 1 : 0;
  if (pause == o->Paused) return o->Paused;
  o->Paused = pause;
  if (!o->On) return o->Paused;
  if (pause) {
    // A device that cannot hold its place drops what it had; play begins anew afterwards.
    if (!(o->CanPause && o->Begun && snd_pcm_pause(o->Pcm, 1) == 0)) {
      snd_pcm_drop(o->Pcm);
      snd_pcm_prepare(o->Pcm);
      ResetPlay(o);
    }
    RateMeterStop(&o->Meter);
  } else if (o->Begun) {
    if (snd_pcm_state(o->Pcm) == SND_PCM_STATE_PAUSED) snd_pcm_pause(o->Pcm, 0);
    RateMeterBegin(&o->Meter, TimerMs());
  }
  return o->Paused;
}

uint32_t AlsaOnOff(VelmoTrack* t, uint32_t on) {
  AlsaOutput* o = Out(t);
  if (!on) {
    if (o->On) {
      snd_pcm_drop(o->Pcm);
      ResetPlay(o);
    }
    o->On = 0;
    return 0;
  }
  if (!o->On) {
    if (snd_pcm_prepare(o->Pcm) < 0) return 0;
    ResetPlay(o);
    o->On = 1;
  }
  return 1;
}

void AlsaClose(VelmoTrack* t) {
  AlsaOutput* o = Out(t);
  if (!o) return;
  if (o->Pcm) snd_pcm_close(o->Pcm);
  delete o;
  SoundOutputAttach(t, nullptr);
}

uint32_t AlsaOpen(VelmoTrack* t, uint32_t rate, uint32_t channels, uint32_t, HVELMO handle) {
  SoundOutputAttach(t, nullptr);
  if (rate == 0) rate = 44100;
  AlsaOutput* o = new (std::nothrow) AlsaOutput;
  if (!o) return 0;
  if (!SoundOutputInit(o, rate, channels, channels, BlockMs, StagingBlocks, Timing) ||
      snd_pcm_open(&o->Pcm, DeviceName, SND_PCM_STREAM_PLAYBACK, SND_PCM_NONBLOCK) < 0) {
    o->Pcm = nullptr;
    delete o;
    return 0;
  }
  if (!Configure(o)) {
    snd_pcm_close(o->Pcm);
    delete o;
    return 0;
  }
  const uint64_t bufferBytes = uint64_t(o->BufferFrames) * o->TrackFrameBytes;
  o->StartBytes = uint32_t(std::min<uint64_t>(
      SoundStartBytes(rate * o->TrackFrameBytes, StartMs, handle), bufferBytes / 2));
  o->StartBytes = std::max(o->StartBytes, o->TrackFrameBytes);
  o->Measures = 1;
  SoundOutputAttach(t, o);
  t->DeviceBlock = std::min(o->BlockBytes, o->StagingBytes);
  // The device starts playing from an empty buffer as soon as the start level is in, so it
  // holds nothing back that the library's lead of silence must make up: a latency told here
  // would put the sound that far ahead of the picture after every start.
  t->Latency = 0;
  t->ServiceMode = 0;
  t->ClockScale = 0x10000;
  t->Ops = VelmoTrackOps{AlsaReady, AlsaLock,  AlsaUnlock, SoundOutputSetVolume, SoundOutputSetPan,
                         AlsaPause, AlsaOnOff, AlsaClose,  nullptr, nullptr};
  return 1;
}

}  // namespace

VelmoOpenBackEnd AlsaSoundSelect(uintptr_t parameter) {
  snd_lib_error_set_handler(Quiet);
  DeviceName = parameter ? reinterpret_cast<const char*>(parameter) : "default";
  return AlsaOpen;
}
