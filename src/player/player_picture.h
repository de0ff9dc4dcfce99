// The 2-D path's picture and what is drawn into it on the processor: the frame over a checker
// background where it has alpha, the slider, and the statistics text in a small bitmap font.
#pragma once
#include <cstdint>
#include <vector>

// A 32-bit top-down picture (blue, green, red, alpha bytes), its pitch width x 4 rounded up to a
// multiple of 32 bytes.
struct PlayerPicture {
  int32_t Width = 0, Height = 0, Pitch = 0;
  std::vector<uint8_t> Storage;
  uint8_t* Bits = nullptr;

  bool Make(int32_t width, int32_t height);
  uint32_t* Row(int32_t y) { return reinterpret_cast<uint32_t*>(Bits + int64_t(y) * Pitch); }
  const uint32_t* Row(int32_t y) const {
    return reinterpret_cast<const uint32_t*>(Bits + int64_t(y) * Pitch);
  }
};

// The checker's two grey cell values: dark by default, light after the "b" key.
void PlayerCheckerCells(bool light, uint32_t* first, uint32_t* second);

// Lays each pixel over a checker of 8-pixel cells by its alpha byte: colour x a / 255 plus
// cell x (255 - a) / 255, per colour channel, in the integer form x * 32897 >> 23. The alpha
// byte stays. The plain loop and the vector form (four pixels a step) round alike; the first
// picks the vector form where the processor has it.
void PlayerAlphaOverChecker(PlayerPicture* picture, bool light);
void PlayerAlphaOverCheckerPlain(PlayerPicture* picture, bool light);
void PlayerAlphaOverCheckerVector(PlayerPicture* picture, bool light);

// Whether the slider shows: a file of at least 2 frames, no screen saver, a picture at least 25
// pixels wide and 13 high, /U8 not set, and the mouse moved in the last second or paused.
struct PlayerSliderView {
  uint32_t Frames = 0;
  bool ScreenSaver = false;
  bool Disabled = false;
  bool MouseRecent = false;
  bool Paused = false;
};
bool PlayerSliderShows(const PlayerSliderView& view, int32_t width, int32_t height);

// Draws the slider's track and thumb for `frame` (from 1) of `frames` into the picture's bottom
// lines; while seeking the thumb is white inside.
void PlayerDrawSlider(PlayerPicture* picture, uint32_t frame, uint32_t frames, bool seeking);

// Where the picture lies in the window.
struct PlayerShownRect {
  int32_t X = 0, Y = 0, Width = 0, Height = 0;
};

// The frame a click at (x, y) in the window seeks to, or 0 when it is not in the slider zone
// (the slider must be showing for the caller to ask).
uint32_t PlayerSliderClick(int32_t x, int32_t y, const PlayerShownRect& shown,
                           int32_t pictureWidth, int32_t pictureHeight, uint32_t frames);

// ---- The bitmap font ------------------------------------------------------------------------
inline constexpr int32_t PlayerFontHeight = 7;
inline constexpr int32_t PlayerFontAdvance = 6;
int32_t PlayerTextWidth(const char* text);
// Draws `text` with its top-left corner at (x, y) into a 32-bit surface of `width` x `height`
// pixels; the glyphs' set pixels get `colour`, the rest is left. Clipped to the surface.
void PlayerDrawText(uint8_t* bits, int32_t pitch, int32_t width, int32_t height, int32_t x,
                    int32_t y, const char* text, uint32_t colour);
