// The player's choice of sound output by its /Z switch: 0 (or absent) SDL2 audio, 1 ALSA
// directly, 2 SDL2 with several channels and speaker routing. A back end that cannot be started
// leaves the player silent, with no message.
#pragma once
#include "velmo.h"

#include <cstdint>

struct PlayerSoundChoice {
  VelmoSoundSelect Select = nullptr;    // one-parameter back ends
  VelmoSoundSelect2 Select2 = nullptr;  // two-parameter back ends
  uintptr_t Parameter = 0, Parameter2 = 0;
  const char* Name = "";
};

// The back end for a /Z value; other values take the default.
PlayerSoundChoice PlayerSoundBackEnd(int zSwitch);

// Registers the back end with the reader library; true when one is set (false: play silently).
bool PlayerSoundRegister(const PlayerSoundChoice& choice);

// After a file is opened with /Z2: routes its open tracks to speakers, in track order, with the
// running bin numbers of SpeakerBinsForTracks.
void PlayerSoundRouteTracks(HVELMO handle);
