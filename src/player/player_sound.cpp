// The sound output choice: every /Z value plays through the null device for now.
#include "player/player_sound.h"

#include "reader/velmo_sound_null.h"

PlayerSoundChoice PlayerSoundBackEnd(int zSwitch) {
  (void)zSwitch;
  // The device keeps time by the platform clock and plays at its nominal speed.
  static VelmoNullSoundConfig config;
  config.ServiceMode = 0;
  PlayerSoundChoice choice;
  choice.Select = VelmoNullSoundSelect;
  choice.Parameter = reinterpret_cast<uintptr_t>(&config);
  return choice;
}
