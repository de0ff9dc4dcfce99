// The ALSA sound back end: each track plays on its own PCM of the device named at selection
// ("default" when none is named), fed without blocking from the sound thread. It measures the
// device's true rate from the samples the device has really consumed (written minus the PCM's
// delay) and reports it through ClockScale, so that the frame clock follows the sound.
#pragma once
#include "velmo.h"

#include <cstdint>

// Select function for VelmoSetSoundSystem. `parameter`: a PCM name (const char*, which must
// outlive the tracks), or 0 for "default". Returns 0 when ALSA cannot be used at all.
VelmoOpenBackEnd AlsaSoundSelect(uintptr_t parameter);
