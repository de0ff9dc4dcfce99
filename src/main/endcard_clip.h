// The player's end-card clip, made at build time by orn_make_endcard (a first-generation file
// image) and linked into the program as data.
#pragma once
#include <cstddef>

extern const unsigned char OrnEndCardClip[];
extern const size_t OrnEndCardClipSize;
