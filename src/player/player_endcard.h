// What the end-card shows and where a click on it leads. The clip is data of the program file:
// the program registers it before the player runs (a player without one leaves after the last
// file). The maker's page is fixed when the program is built; empty, a click does nothing.
#pragma once
#include <cstddef>

// Registers the clip (a first-generation file image, kept by the caller for the process's life).
void PlayerSetEndCardClip(const void* data, size_t size);
// The registered clip and its size; null when none is.
const void* PlayerEndCardClip(size_t* size);
// The maker's web address that the build was given; "" when none.
const char* PlayerMakerPage();
