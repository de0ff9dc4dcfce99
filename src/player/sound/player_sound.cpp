// The /Z switch's back ends and the speaker routing of the multichannel one.
#include "player/sound/player_sound.h"

#include "player/sound/sound_alsa.h"
#include "player/sound/sound_sdl.h"
#include "player/sound/speaker_mix.h"

PlayerSoundChoice PlayerSoundBackEnd(int zSwitch) {
  PlayerSoundChoice c;
  switch (zSwitch) {
    case 1:
      c.Select = AlsaSoundSelect;
      c.Name = "ALSA";
      break;
    case 2:
      c.Select2 = SdlMultiSoundSelect;
      c.Name = "SDL2 multichannel";
      break;
    default:
      c.Select = SdlSoundSelect;
      c.Name = "SDL2";
      break;
  }
  return c;
}

bool PlayerSoundRegister(const PlayerSoundChoice& choice) {
  if (choice.Select2)
    return VelmoSetSoundSystem2(choice.Select2, choice.Parameter, choice.Parameter2) != 0;
  if (choice.Select) return VelmoSetSoundSystem(choice.Select, choice.Parameter) != 0;
  return false;
}

void PlayerSoundRouteTracks(HVELMO handle) {
  if (!handle || handle->OpenTracks == 0) return;
  const uint32_t tracks = handle->OpenTracks;
  uint32_t channels[8], first[8], count[8];
  const uint32_t n = tracks < 8 ? tracks : 8;
  for (uint32_t i = 0; i < n; ++i)
    channels[i] = handle->Tracks[i].Channels == 2 ? 2 : 1;
  SpeakerBinsForTracks(channels, n, first, count);
  for (uint32_t i = 0; i < n; ++i) {
    if (count[i] == 0) continue;
    // A stereo entry i goes to bin * 2 + i % 2, a mono one to its bin.
    uint32_t bins[2];
    for (uint32_t k = 0; k < count[i]; ++k)
      bins[k] = channels[i] == 2 ? (first[i] + k) / 2 : first[i] + k;
    VelmoSetTrackVolumes(handle, handle->TrackIds[handle->TrackIndexes[i]], bins, nullptr, count[i]);
  }
}
