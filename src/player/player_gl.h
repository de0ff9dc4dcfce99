// The player's OpenGL path: an OpenGL 3.3 core context on the SDL window. The decoder's planes
// go up as one-channel textures, one update a plane straight from the frame buffers, and the
// shaders do the rest: colour conversion by the file's colour table (with the copy-out's
// chroma upsampling and dither, so that both paths show the same pixels), alpha over the
// checker background, and the HDR looks with exposure for wide-range files. Overlays drawn on
// the processor (the slider, the statistics strip) are laid over as textures.
#pragma once
#include <cstdint>
#include <vector>

#include "velmo.h"

struct SDL_Window;
struct PlayerGl;
struct PlayerPicture;

// The swap interval for a playback rate: 1 (wait for the vertical sync), or 0 at 62 frames per
// second and up and for rate 0 (as fast as possible).
int PlayerSwapInterval(uint32_t rate, uint32_t rateDiv);

// Makes a 3.3 core context on `window` (made with SDL_WINDOW_OPENGL, with the context
// attributes PlayerGlRequestAttributes set before), loads the entry points and builds the
// shaders. Null when any of that fails: the caller falls back to the 2-D path.
void PlayerGlRequestAttributes();
PlayerGl* PlayerGlCreate(SDL_Window* window);
void PlayerGlDestroy(PlayerGl* gl);

// Textures for a file just opened (the frame's plane sizes), and the swap interval for its
// rate. False when the file has no frame buffers or a texture cannot be made.
bool PlayerGlSetup(PlayerGl* gl, HVELMO handle);

// Where and how a frame is drawn. Rectangles are in window pixels, top-left origin.
struct PlayerGlView {
  int32_t WindowWidth = 0, WindowHeight = 0;
  int32_t X = 0, Y = 0, Width = 0, Height = 0;  // the frame's place
  bool Upload = true;          // the planes changed since the last draw
  bool Checker = false;        // lay a frame with alpha over the checker
  bool LightBackground = false;
  int32_t Exposure = 0;        // HDR frames: quarter stops
  int32_t HdrLook = 1;         // 0 clip, 1 and 2 roll-offs near the peak
  const PlayerPicture* Slider = nullptr;  // the slider's lines (alpha 0 elsewhere), frame wide
  const PlayerPicture* Strip = nullptr;   // the statistics strip, its top-left corner at
  int32_t StripX = 0, StripY = 0;         // (StripX, StripY)
};

// Draws the frame now shown (the frame buffers' current set) with its overlays into the back
// buffer. Then PlayerGlReadPixels may read it (blue, green, red, alpha words, top-down) before
// PlayerGlSwap shows it.
void PlayerGlDraw(PlayerGl* gl, HVELMO handle, const PlayerGlView& view);
bool PlayerGlReadPixels(PlayerGl* gl, int32_t width, int32_t height, std::vector<uint32_t>* out);
void PlayerGlSwap(PlayerGl* gl);
// Shows a black window: after the window changed size, so that the next frame is drawn into
// buffers of the new size.
void PlayerGlBlank(PlayerGl* gl);
