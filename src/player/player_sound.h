// The sound output that /Z picks. The back ends of real devices plug in here; until they do,
// every choice plays through the null device, which keeps the clock as a device would.
#pragma once
#include <cstdint>

#include "velmo.h"

struct PlayerSoundChoice {
  VelmoSoundSelect Select = nullptr;  // null plays silently
  uintptr_t Parameter = 0;
};

// The back end for /Z `zSwitch`: 0 the default device, 1 the direct device, 2 multichannel.
PlayerSoundChoice PlayerSoundBackEnd(int zSwitch);
