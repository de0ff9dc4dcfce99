#include "host/gui/displays.h"

#include <SDL.h>

#include <cstdio>
#include <cstdlib>

std::string GuiDisplayDescription() {
  const char* x = std::getenv("DISPLAY");
  const char* wl = std::getenv("WAYLAND_DISPLAY");
  if ((!x || !*x) && (!wl || !*wl)) return "";
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) return "";
  std::string out;
  const char* driver = SDL_GetCurrentVideoDriver();
  out += std::string("Display device: ") + (driver ? driver : "unknown");
  const int count = SDL_GetNumVideoDisplays();
  for (int i = 0; i < count; ++i) {
    SDL_DisplayMode mode;
    if (SDL_GetCurrentDisplayMode(i, &mode) != 0) continue;
    char line[160];
    std::snprintf(line, sizeof line, "\nDisplay %d resolution: %i x %i with %li-bit color", i + 1,
                  mode.w, mode.h, long(SDL_BITSPERPIXEL(mode.format)));
    out += line;
  }
  SDL_QuitSubSystem(SDL_INIT_VIDEO);
  return out;
}
