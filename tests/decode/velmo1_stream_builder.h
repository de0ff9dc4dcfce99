// Test-side helpers for first-generation streams. The stream writer itself is the encoder's
// (compress/velmo1_stream.h); this adds generated content that exercises every block kind.
#pragma once
#include <cstdint>

#include "compress/velmo1_stream.h"

// A plane of random rows mixing all block kinds (inter kinds only when `inter`), with DOUBLED
// pairs where they fit.
Velmo1EncPlaneSpec Velmo1MixedPlane(uint32_t width, uint32_t height, uint32_t seed, bool inter);
