// The player's window: an SDL window fed by the OpenGL path (player_gl.h), or by the 2-D path
// through an SDL renderer (the frame copied out into a picture, alpha over the checker, the
// slider, then a scaled blit), with the statistics strip above the video. /!1 asks for the 2-D
// path; otherwise the OpenGL one is used where a 3.3 core context can be had. The window is the
// host of the loop: clock, sleep, events and presentation.
#pragma once
#include "player/player_loop.h"
#include "player/player_picture.h"

struct PlayerWindow;

// Makes the window (hidden until the first file is set up); null when there is no display.
PlayerWindow* PlayerWindowCreate(const PlayerOptions& options);
void PlayerWindowDestroy(PlayerWindow* window);
// Whether frames go through the OpenGL path (after the last file's setup, which may have
// fallen back to the 2-D path).
bool PlayerWindowUsesGl(const PlayerWindow* window);
std::string PlayerWindowTitle(const PlayerWindow* window);
// The loop's host record for this window.
PlayerHost PlayerWindowHost(PlayerWindow* window);
// The picture of the last frame presented (for tests that compare it with the screen).
const PlayerPicture* PlayerWindowPicture(const PlayerWindow* window);
// With capture on, each present reads the window's pixels back just before the flip (for tests
// and screenshots); PlayerWindowReadPixels hands over the last frame's (blue, green, red, alpha
// bytes), `width` x `height`. False before any capture.
void PlayerWindowCapture(PlayerWindow* window, bool on);
bool PlayerWindowReadPixels(PlayerWindow* window, std::vector<uint32_t>* out, int32_t* width,
                            int32_t* height);
// Composes the 2-D picture of the frame now shown: the copy-out (unless seeking), alpha over
// the checker when the file has alpha, and the slider when it shows. Returns false when the
// copy reported a skipped frame.
bool PlayerCompose2D(PlayerState* state, PlayerPicture* picture, bool sliderShows);
