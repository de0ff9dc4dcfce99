// SDL2 back ends. Per track: an audio device fed through SDL_QueueAudio in blocks of 62.5 ms,
// at most eight blocks queued; play begins (the device is unpaused) once the start level is
// queued. A queue that has run empty while playing is a device that ran dry.
#include "player/sound/sound_sdl.h"

#include "host/platform.h"
#include "player/sound/sound_output.h"

#include <SDL.h>
#include <alsa/asoundlib.h>

#include <algorithm>
#include <cstring>
#include <new>

namespace {

constexpr uint32_t BlockMs = 62;
constexpr uint32_t QueueBlocks = 8;
constexpr uint32_t StagingBlocks = 4;
constexpr uint32_t StartMs = 250;
// Queued sound leaves in the device's own chunks: settle and measure longer than on a device
// read sample by sample.
constexpr RateMeterTiming Timing{4800, 1200};

struct SdlOutput : SoundOutput {
  SDL_AudioDeviceID Device = 0;
  uint32_t Multi = 0;
  uint64_t QueuedBytes = 0;    // device bytes queued since play last began
  uint64_t ConsumedBytes = 0;  // of those, what the device had taken at the last look
};

SdlOutput* Out(VelmoTrack* t) { return SoundOutputOf<SdlOutput>(t); }

void Quiet(const char*, int, const char*, int, const char*, ...) {}

// SDL's audio subsystem, started once for the process; false when there is none.
bool StartAudio() {
  // SDL may reach the device through ALSA, whose complaints about a missing card would reach
  // the terminal; a player without a device plays silently.
  snd_lib_error_set_handler(Quiet);
  if (SDL_WasInit(SDL_INIT_AUDIO)) return true;
  return SDL_InitSubSystem(SDL_INIT_AUDIO) == 0;
}

void ResetPlay(SdlOutput* o) {
  o->Begun = 0;
  o->Queued = 0;
  o->QueuedBytes = 0;
  o->ConsumedBytes = 0;
  RateMeterStop(&o->Meter);
}

// Track bytes in the queue.
uint32_t QueuedTrackBytes(const SdlOutput* o) {
  const uint64_t device = SDL_GetQueuedAudioSize(o->Device);
  return uint32_t(device / o->DeviceFrameBytes * o->TrackFrameBytes);
}

uint32_t Capacity(const SdlOutput* o) { return o->BlockBytes * QueueBlocks; }

void Measure(VelmoTrack* t, SdlOutput* o, uint32_t queuedDevice) {
  if (!o->Measures || !o->Begun) return;
  const uint64_t consumed = o->QueuedBytes - std::min<uint64_t>(queuedDevice, o->QueuedBytes);
  if (consumed < o->ConsumedBytes) return;
  const uint64_t bytes = consumed - o->ConsumedBytes;
  o->ConsumedBytes = consumed;
  SoundOutputReportScale(t, RateMeterConsumed(&o->Meter, uint32_t(bytes), TimerMs()));
}

uint32_t SdlReady(VelmoTrack* t) {
  SdlOutput* o = Out(t);
  if (!o->On || o->Paused) return 0;
  const uint32_t queuedDevice = SDL_GetQueuedAudioSize(o->Device);
  if (o->Begun && queuedDevice == 0) {
    // Dry: the device is paused until the start level is queued again.
    SoundOutputReportUnderrun(t);
    SDL_PauseAudioDevice(o->Device, 1);
    ResetPlay(o);
    return 0;
  }
  Measure(t, o, queuedDevice);
  return QueuedTrackBytes(o) + o->BlockBytes <= Capacity(o) ? 1 : 0;
}

uint32_t SdlLock(VelmoTrack* t, void** address, uint32_t* bytes) {
  SdlOutput* o = Out(t);
  if (!o->On) return 0;
  const uint32_t queued = QueuedTrackBytes(o);
  if (queued >= Capacity(o)) return 0;
  const uint32_t room = std::min(Capacity(o) - queued, o->StagingBytes);
  if (room < o->TrackFrameBytes) return 0;
  *address = o->Staging.get();
  *bytes = room - room % o->TrackFrameBytes;
  return 1;
}

void SdlUnlock(VelmoTrack* t, uint32_t bytes) {
  SdlOutput* o = Out(t);
  bytes = std::min(bytes, o->StagingBytes);
  uint32_t deviceBytes = 0;
  const uint8_t* data = SoundOutputConvert(o, bytes, &deviceBytes);
  if (deviceBytes == 0 || SDL_QueueAudio(o->Device, data, deviceBytes) != 0) return;
  o->QueuedBytes += deviceBytes;
  if (!o->Begun) {
    o->Queued += bytes;
    if (o->Queued >= o->StartBytes) {
      o->Begun = 1;
      RateMeterBegin(&o->Meter, TimerMs());
      if (!o->Paused) SDL_PauseAudioDevice(o->Device, 0);
    }
  }
}

uint32_t SdlPause(VelmoTrack* t, uint32_t pause) {
  SdlOutput* o = Out(t);
  pause = pause ? 1 : 0;
  if (pause == o->Paused) return o->Paused;
  o->Paused = pause;
  if (!o->On) return o->Paused;
  // A paused device keeps its queue; the measure starts anew afterwards.
  if (pause) {
    SDL_PauseAudioDevice(o->Device, 1);
    RateMeterStop(&o->Meter);
  } else if (o->Begun) {
    SDL_PauseAudioDevice(o->Device, 0);
    RateMeterBegin(&o->Meter, TimerMs());
  }
  return o->Paused;
}

uint32_t SdlOnOff(VelmoTrack* t, uint32_t on) {
  SdlOutput* o = Out(t);
  if (!on) {
    SDL_PauseAudioDevice(o->Device, 1);
    SDL_ClearQueuedAudio(o->Device);
    ResetPlay(o);
    o->On = 0;
    return 0;
  }
  if (!o->On) {
    // The speaker mix, kept in the record, applies again as it is.
    ResetPlay(o);
    o->On = 1;
  }
  return 1;
}

void SdlClose(VelmoTrack* t) {
  SdlOutput* o = Out(t);
  if (!o) return;
  if (o->Device) SDL_CloseAudioDevice(o->Device);
  delete o;
  SoundOutputAttach(t, nullptr);
}

void SdlSetMix(VelmoTrack* t, const float* volumes, uint32_t count, uint32_t stereo,
               float volume) {
  SdlOutput* o = Out(t);
  std::memcpy(o->Mix, volumes, sizeof o->Mix);
  o->HasMix = 1;
  SoundOutputUpdateMatrix(o);
}

uint32_t OpenDevice(VelmoTrack* t, uint32_t rate, uint32_t channels, HVELMO handle, bool multi) {
  SoundOutputAttach(t, nullptr);
  if (rate == 0) rate = 44100;
  SDL_AudioSpec want{}, have{};
  want.freq = int(rate);
  want.format = AUDIO_S16SYS;
  want.channels = uint8_t(multi ? MaxDeviceChannels : channels);
  want.samples = 1024;
  // SDL converts the rate if the device has another; the channels only /Z2 lets it choose.
  const SDL_AudioDeviceID device =
      SDL_OpenAudioDevice(nullptr, 0, &want, &have, multi ? SDL_AUDIO_ALLOW_CHANNELS_CHANGE : 0);
  if (device == 0) return 0;
  SdlOutput* o = new (std::nothrow) SdlOutput;
  const uint32_t deviceChannels = multi ? have.channels : channels;
  if (!o || !SoundOutputInit(o, rate, channels, deviceChannels, BlockMs, StagingBlocks, Timing)) {
    delete o;
    SDL_CloseAudioDevice(device);
    return 0;
  }
  o->Device = device;
  o->Multi = multi ? 1 : 0;
  o->Measures = multi ? 0 : 1;
  o->StartBytes = std::min(SoundStartBytes(rate * o->TrackFrameBytes, StartMs, handle),
                           Capacity(o) / 2);
  o->StartBytes = std::max(o->StartBytes, o->TrackFrameBytes);
  SoundOutputAttach(t, o);
  t->DeviceBlock = o->BlockBytes;
  // Like the ALSA device, the queue plays from empty once the start level is in: no latency
  // for the library to make up (one told here would put the sound ahead after every start).
  t->Latency = 0;
  t->ServiceMode = 0;
  t->ClockScale = 0x10000;
  t->Ops = VelmoTrackOps{SdlReady, SdlLock,  SdlUnlock, SoundOutputSetVolume, SoundOutputSetPan,
                         SdlPause, SdlOnOff, SdlClose,  multi ? SdlSetMix : nullptr, nullptr};
  return 1;
}

uint32_t SdlOpen(VelmoTrack* t, uint32_t rate, uint32_t channels, uint32_t, HVELMO handle) {
  return OpenDevice(t, rate, channels, handle, false);
}

uint32_t SdlMultiOpen(VelmoTrack* t, uint32_t rate, uint32_t channels, uint32_t, HVELMO handle) {
  return OpenDevice(t, rate, channels, handle, true);
}

}  // namespace

VelmoOpenBackEnd SdlSoundSelect(uintptr_t) { return StartAudio() ? SdlOpen : nullptr; }

VelmoOpenBackEnd SdlMultiSoundSelect(uintptr_t, uintptr_t) {
  return StartAudio() ? SdlMultiOpen : nullptr;
}
