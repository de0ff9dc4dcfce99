// The SDL2 sound back ends: each track plays on an SDL audio device of its own, fed through
// SDL's queue from the sound thread.
//
// SdlSoundSelect opens devices with the track's own channels and measures the device's rate
// from what it has taken out of the queue, reporting it through ClockScale. SdlMultiSoundSelect
// opens devices with as many channels as the system offers (up to eight) and routes each track
// to speakers by the eight bins of SetMix; it does not measure.
#pragma once
#include "velmo.h"

#include <cstdint>

// `parameter` is unused (0). Both return 0 when SDL's audio cannot be started.
VelmoOpenBackEnd SdlSoundSelect(uintptr_t parameter);
VelmoOpenBackEnd SdlMultiSoundSelect(uintptr_t parameter, uintptr_t parameter2);
