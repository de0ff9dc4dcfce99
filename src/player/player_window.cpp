// The SDL window of the player and the 2-D presentation into it.
#include "player/player_window.h"

#include <SDL.h>

#include <algorithm>
#include <cstdio>

#include "host/platform.h"
#include "host/process_start.h"
#include "player/player_gl.h"
#include "player/player_text.h"

namespace {

constexpr uint32_t Yellow = 0xFFFFFF00u;
constexpr const char* HdrNeedsGpu = "You need to use Direct3D 11 for viewing Velmo HDR videos.";

}  // namespace

struct PlayerWindow {
  PlayerOptions Options;
  SDL_Window* Window = nullptr;
  SDL_Renderer* Renderer = nullptr;
  SDL_Texture* Texture = nullptr;
  SDL_Texture* Strip = nullptr;
  PlayerPicture Picture;
  PlayerPicture StripPicture;
  PlayerGl* Gl = nullptr;        // the OpenGL path; null on the 2-D path
  PlayerPicture SliderPicture;   // the OpenGL path's slider lines, laid over the frame
  uint32_t LastUpload = 0;       // when the OpenGL path last took new planes while seeking
  PlayerWindowPlan Plan;
  PlayerShownRect Shown;
  bool Capture = false;  // read the pixels back before each flip
  std::vector<uint32_t> Captured;
  int32_t CapturedWidth = 0, CapturedHeight = 0;
  int32_t ScreenWidth = 0, ScreenHeight = 0;
  bool Foreign = false;  // another program's window (a screen saver's): filled, never moved
  // /D and /B switched the display's mode: the window then covers the screen at that mode, and
  // the video and strip sit where the window would have been placed on it.
  bool ModeSwitched = false;
  int32_t StripX = 0, StripY = 0;  // the statistics strip's top-left corner in the window
};

namespace {

PlayerWindow* Of(void* context) { return static_cast<PlayerWindow*>(context); }

bool SliderShows(const PlayerWindow* w, const PlayerState* s, uint32_t now) {
  if (!s->Handle || s->EndCard) return false;
  PlayerSliderView view;
  view.Frames = s->Handle->Frames;
  view.Disabled = (s->Options.DisabledControls & PlayerDisableSlider) != 0;
  view.MouseRecent = s->MouseMoved && now - s->MouseTime < 1000;
  view.Paused = s->Paused;
  (void)w;
  return PlayerSliderShows(view, int32_t(s->Handle->Width), int32_t(s->Handle->Height));
}

int32_t KeyOf(const SDL_KeyboardEvent& key) {
  switch (key.keysym.sym) {
    case SDLK_SPACE: return PlayerKeySpace;
    case SDLK_RETURN: case SDLK_KP_ENTER: return PlayerKeyEnter;
    case SDLK_ESCAPE: return PlayerKeyEscape;
    case SDLK_HOME: return PlayerKeyHome;
    case SDLK_END: return PlayerKeyEnd;
    case SDLK_LEFT: return PlayerKeyLeft;
    case SDLK_RIGHT: return PlayerKeyRight;
    case SDLK_UP: return PlayerKeyUp;
    case SDLK_DOWN: return PlayerKeyDown;
    case SDLK_PERIOD: case SDLK_KP_PERIOD: return PlayerKeyDot;
    case SDLK_b: return PlayerKeyBackground;
    case SDLK_h: return PlayerKeyLook;
    default: return PlayerKeyOther;
  }
}

bool NextEvent(void*, PlayerEvent* out) {
  SDL_Event e;
  while (SDL_PollEvent(&e)) {
    *out = PlayerEvent{};
    switch (e.type) {
      case SDL_QUIT: out->Type = PlayerEventClose; return true;
      case SDL_KEYDOWN:
        out->Type = PlayerEventKey;
        out->Value = KeyOf(e.key);
        return true;
      case SDL_MOUSEBUTTONDOWN:
        out->Type = PlayerEventClick;
        out->X = e.button.x;
        out->Y = e.button.y;
        return true;
      case SDL_MOUSEMOTION:
        out->Type = PlayerEventMouseMove;
        out->X = e.motion.x;
        out->Y = e.motion.y;
        return true;
      case SDL_WINDOWEVENT:
        if (e.window.event == SDL_WINDOWEVENT_FOCUS_GAINED ||
            e.window.event == SDL_WINDOWEVENT_FOCUS_LOST) {
          out->Type = PlayerEventFocus;
          out->Value = e.window.event == SDL_WINDOWEVENT_FOCUS_GAINED;
          return true;
        }
        break;
      default: break;
    }
  }
  return false;
}

SDL_Texture* MakeTexture(SDL_Renderer* r, SDL_Texture* old, int32_t w, int32_t h) {
  if (old) SDL_DestroyTexture(old);
  SDL_Texture* t = SDL_CreateTexture(r, SDL_PIXELFORMAT_ARGB8888, SDL_TEXTUREACCESS_STREAMING, w, h);
  // A plain copy of the source: alpha has been dealt with in the picture.
  if (t) SDL_SetTextureBlendMode(t, SDL_BLENDMODE_NONE);
  return t;
}

// A renderer made for the window's present size: one made before a resize may keep drawing at
// the old size until the display server's event comes, so each new size gets a new renderer.
bool MakeRenderer(PlayerWindow* w) {
  for (SDL_Texture** t : {&w->Texture, &w->Strip})
    if (*t) SDL_DestroyTexture(*t), *t = nullptr;
  if (w->Renderer) SDL_DestroyRenderer(w->Renderer);
  w->Renderer = SDL_CreateRenderer(w->Window, -1, 0);
  if (!w->Renderer) w->Renderer = SDL_CreateRenderer(w->Window, -1, SDL_RENDERER_SOFTWARE);
  return w->Renderer != nullptr;
}

// The 2-D path's picture, renderer and textures for the file.
bool Setup2D(PlayerWindow* w, PlayerState* s, bool resized) {
  HVELMO h = s->Handle;
  // Only the OpenGL path shows HDR frames.
  if (h->FileFlags & VelmoFlagHdr) {
    s->Error = HdrNeedsGpu;
    return false;
  }
  if (!w->Picture.Make(int32_t(h->Width), int32_t(h->Height))) {
    s->Error = "Unable to create DIBSection.";
    return false;
  }
  if ((resized || !w->Renderer) && !MakeRenderer(w)) {
    s->Error = "Error creating window.";
    return false;
  }
  w->Texture = MakeTexture(w->Renderer, w->Texture, w->Picture.Width, w->Picture.Height);
  if (!w->Texture) {
    s->Error = "Unable to create DIBSection.";
    return false;
  }
  if (w->Plan.StripHeight)
    w->Strip = MakeTexture(w->Renderer, w->Strip, w->Plan.Width, w->Plan.StripHeight);
  return true;
}

// The window that /# names: an id of a window of this process (SDL's window id). False when
// there is none, so that the window is placed on the screen.
bool ParentArea(const PlayerWindow* w, PlayerArea* area) {
  const intptr_t id = w->Options.Parent;
  if (id <= 0 || id > intptr_t(UINT32_MAX) || w->Foreign || w->ModeSwitched) return false;
  SDL_Window* parent = SDL_GetWindowFromID(uint32_t(id));
  if (!parent || parent == w->Window) return false;
  SDL_GetWindowPosition(parent, &area->X, &area->Y);
  SDL_GetWindowSize(parent, &area->Width, &area->Height);
  return area->Width > 0 && area->Height > 0;
}

bool Setup(void* context, PlayerState* s) {
  PlayerWindow* w = Of(context);
  HVELMO h = s->Handle;
  PlayerArea parent;
  const bool hasParent = ParentArea(w, &parent);
  w->Plan = PlayerPlanWindow(s->Options, int32_t(h->Width), int32_t(h->Height), w->ScreenWidth,
                             w->ScreenHeight, hasParent ? &parent : nullptr);
  int32_t width = 0, height = 0;
  SDL_GetWindowSize(w->Window, &width, &height);
  const bool placed = !w->Foreign && !w->ModeSwitched;
  const bool resized = placed && (width != w->Plan.Width || height != w->Plan.Height);
  if (resized) {
    SDL_SetWindowSize(w->Window, w->Plan.Width, w->Plan.Height);
    SDL_PumpEvents();
  }
  // The OpenGL path, or the 2-D path when its textures cannot be made for this file.
  if (w->Gl && !PlayerGlSetup(w->Gl, h)) {
    PlayerGlDestroy(w->Gl);
    w->Gl = nullptr;
  }
  if (!w->Gl && !Setup2D(w, s, resized)) return false;
  s->UsesGpu = w->Gl != nullptr;
  if (w->Plan.StripHeight) w->StripPicture.Make(w->Plan.Width, w->Plan.StripHeight);
  w->StripX = w->ModeSwitched ? w->Plan.X : 0;
  w->StripY = w->ModeSwitched ? w->Plan.Y : 0;
  w->Shown = {w->StripX + (w->Plan.Width - w->Plan.VideoWidth) / 2, w->StripY + w->Plan.StripHeight,
              w->Plan.VideoWidth, w->Plan.VideoHeight};
  if (!w->Foreign) {
    const std::string title = s->FileTitle + " - Velmo Video Player";
    SDL_SetWindowTitle(w->Window, title.c_str());
  }
  if (placed) {
    SDL_SetWindowPosition(w->Window, w->Plan.X, w->Plan.Y);
    SDL_ShowWindow(w->Window);
  }
  if (w->Gl) PlayerGlBlank(w->Gl);
  s->ScreenWidth = w->ScreenWidth;
  s->ScreenHeight = w->ScreenHeight;
  return true;
}

// The statistics line in yellow on black.
void ComposeStrip(PlayerWindow* w, const PlayerState* s) {
  PlayerPicture& p = w->StripPicture;
  for (int32_t y = 0; y < p.Height; ++y) std::fill_n(p.Row(y), p.Width, 0xFF000000u);
  HVELMO h = s->Handle;
  const uint32_t ring = h->FrameRateDiv ? std::max<uint32_t>(1, h->FrameRate / h->FrameRateDiv) : 1;
  VelmoRealtime realtime{};
  VelmoGetRealtime(h, &realtime, ring);
  const std::string line =
      PlayerStatisticsLine(realtime, (h->FileFlags & VelmoFlagHdr) != 0, s->Exposure);
  PlayerDrawText(p.Bits, p.Pitch, p.Width, p.Height, 16, 4, line.c_str(), Yellow);
}

void DrawStrip(PlayerWindow* w, const PlayerState* s) {
  ComposeStrip(w, s);
  const PlayerPicture& p = w->StripPicture;
  SDL_UpdateTexture(w->Strip, nullptr, p.Bits, p.Pitch);
  SDL_Rect top{w->StripX, w->StripY, p.Width, p.Height};
  SDL_RenderCopy(w->Renderer, w->Strip, nullptr, &top);
}

// The frame as drawn, before the flip leaves the back buffer undefined.
void ReadBack(PlayerWindow* w) {
  int32_t width = 0, height = 0;
  w->Captured.clear();
  if (SDL_GetRendererOutputSize(w->Renderer, &width, &height) != 0) return;
  w->Captured.assign(size_t(width) * size_t(height), 0);
  if (SDL_RenderReadPixels(w->Renderer, nullptr, SDL_PIXELFORMAT_ARGB8888, w->Captured.data(),
                           width * 4) != 0) {
    w->Captured.clear();
    return;
  }
  w->CapturedWidth = width;
  w->CapturedHeight = height;
}

void PresentGl(PlayerWindow* w, PlayerState* s) {
  HVELMO h = s->Handle;
  const uint32_t now = TimerMs();
  PlayerGlView v;
  SDL_GL_GetDrawableSize(w->Window, &v.WindowWidth, &v.WindowHeight);
  v.X = w->Shown.X, v.Y = w->Shown.Y, v.Width = w->Shown.Width, v.Height = w->Shown.Height;
  // While seeking, the frames passed on the way go up at most every 500 ms.
  v.Upload = !s->Seeking || now - w->LastUpload >= 500;
  if (v.Upload) w->LastUpload = now;
  v.Checker = (h->OpenFlags & VelmoOpenAlpha) && !(h->OpenFlags & VelmoCopyFlipAlpha);
  v.LightBackground = s->LightBackground;
  v.Exposure = s->Exposure;
  v.HdrLook = s->HdrLook;
  if (SliderShows(w, s, now) && w->SliderPicture.Make(int32_t(h->Width), 13)) {
    PlayerDrawSlider(&w->SliderPicture, s->ShownFrame, h->Frames, s->Seeking != 0);
    v.Slider = &w->SliderPicture;
  }
  if (w->Plan.StripHeight) {
    ComposeStrip(w, s);
    v.Strip = &w->StripPicture;
    v.StripX = w->StripX;
    v.StripY = w->StripY;
  }
  PlayerGlDraw(w->Gl, h, v);
  if (w->Capture) {
    w->Captured.clear();
    if (PlayerGlReadPixels(w->Gl, v.WindowWidth, v.WindowHeight, &w->Captured)) {
      w->CapturedWidth = v.WindowWidth;
      w->CapturedHeight = v.WindowHeight;
    }
  }
  PlayerGlSwap(w->Gl);
}

void Present(void* context, PlayerState* s) {
  PlayerWindow* w = Of(context);
  if (w->Gl) return PresentGl(w, s);
  const bool slider = SliderShows(w, s, TimerMs());
  if (!PlayerCompose2D(s, &w->Picture, slider)) ++s->SkippedBlits;
  SDL_UpdateTexture(w->Texture, nullptr, w->Picture.Bits, w->Picture.Pitch);
  // The borders around the picture are black.
  SDL_SetRenderDrawColor(w->Renderer, 0, 0, 0, 255);
  SDL_RenderClear(w->Renderer);
  SDL_Rect shown{w->Shown.X, w->Shown.Y, w->Shown.Width, w->Shown.Height};
  SDL_RenderCopy(w->Renderer, w->Texture, nullptr, &shown);
  if (w->Plan.StripHeight && w->Strip) DrawStrip(w, s);
  if (w->Capture) ReadBack(w);
  SDL_RenderPresent(w->Renderer);
}

uint32_t SliderFrame(void* context, const PlayerState* s, int32_t x, int32_t y) {
  PlayerWindow* w = Of(context);
  if (!SliderShows(w, s, TimerMs())) return 0;
  HVELMO h = s->Handle;
  return PlayerSliderClick(x, y, w->Shown, int32_t(h->Width), int32_t(h->Height), h->Frames);
}

// Another program's window, filled on the 2-D path: its size stands for the screen's.
PlayerWindow* CreateInWindow(PlayerWindow* w) {
  w->Foreign = true;
  w->Window = SDL_CreateWindowFrom(reinterpret_cast<void*>(uintptr_t(w->Options.InWindow)));
  if (!w->Window || !MakeRenderer(w)) {
    PlayerWindowDestroy(w);
    return nullptr;
  }
  SDL_GetWindowSize(w->Window, &w->ScreenWidth, &w->ScreenHeight);
  if (w->Options.HideCursor) SDL_ShowCursor(SDL_DISABLE);
  return w;
}

// The display's mode for /D and /B: the window goes full screen in a mode of that size with the
// present depth (SDL changes the display's mode only for a full-screen window).
bool SwitchDisplay(void* context, int32_t width, int32_t height) {
  PlayerWindow* w = Of(context);
  if (w->Foreign) return false;
  const int display = std::max(0, SDL_GetWindowDisplayIndex(w->Window));
  SDL_DisplayMode current, mode;
  if (SDL_GetCurrentDisplayMode(display, &current) != 0) return false;
  const SDL_DisplayMode wanted{current.format, width, height, 0, nullptr};
  if (!SDL_GetClosestDisplayMode(display, &wanted, &mode) || mode.w != width ||
      mode.h != height || SDL_BITSPERPIXEL(mode.format) != SDL_BITSPERPIXEL(current.format))
    return false;
  // The window first covers the screen as a plain window too, for displays without a window
  // manager to carry out the full-screen request.
  SDL_SetWindowSize(w->Window, width, height);
  SDL_SetWindowPosition(w->Window, 0, 0);
  if (SDL_SetWindowDisplayMode(w->Window, &mode) != 0 ||
      SDL_SetWindowFullscreen(w->Window, SDL_WINDOW_FULLSCREEN) != 0) {
    SDL_SetWindowFullscreen(w->Window, 0);
    return false;
  }
  SDL_ShowWindow(w->Window);
  SDL_PumpEvents();
  w->ModeSwitched = true;
  w->ScreenWidth = width;
  w->ScreenHeight = height;
  // The 2-D path's renderer is made anew for the window's new size.
  if (!w->Gl) MakeRenderer(w);
  return true;
}

// Leaving full screen puts the display's own mode back.
void RestoreDisplay(void* context) {
  PlayerWindow* w = Of(context);
  if (!w->ModeSwitched) return;
  SDL_SetWindowFullscreen(w->Window, 0);
  SDL_HideWindow(w->Window);
  w->ModeSwitched = false;
}

}  // namespace

bool PlayerCompose2D(PlayerState* s, PlayerPicture* p, bool sliderShows) {
  HVELMO h = s->Handle;
  bool shown = true;
  if (!s->Seeking) {
    const uint32_t flags = VelmoSurfaceArgb32 | (s->Options.OpenFlags & VelmoCopyFlipAlpha);
    shown = VelmoCopyToBuffer(h, p->Bits, p->Pitch, p->Height, 0, 0, flags) == 0;
    if ((h->OpenFlags & VelmoOpenAlpha) && !(h->OpenFlags & VelmoCopyFlipAlpha))
      PlayerAlphaOverChecker(p, s->LightBackground);
  }
  if (sliderShows) PlayerDrawSlider(p, s->ShownFrame, h->Frames, s->Seeking != 0);
  return shown;
}

PlayerWindow* PlayerWindowCreate(const PlayerOptions& options) {
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) return nullptr;
  PlayerWindow* w = new PlayerWindow;
  w->Options = options;
  SDL_DisplayMode mode;
  if (SDL_GetCurrentDisplayMode(0, &mode) == 0) {
    w->ScreenWidth = mode.w;
    w->ScreenHeight = mode.h;
  }
  if (options.InWindow) return CreateInWindow(w);
  uint32_t flags = SDL_WINDOW_HIDDEN;
  if (options.WindowStyle >= 1) flags |= SDL_WINDOW_BORDERLESS;
  if (options.AlwaysOnTop) flags |= SDL_WINDOW_ALWAYS_ON_TOP;
  // The OpenGL path unless the 2-D one is asked for; without a 3.3 core context, the 2-D one.
  if (options.DrawType != PlayerDraw2D) {
    PlayerGlRequestAttributes();
    w->Window = SDL_CreateWindow("Velmo Video Player", 0, 0, 64, 64, flags | SDL_WINDOW_OPENGL);
    w->Gl = PlayerGlCreate(w->Window);
    if (!w->Gl && w->Window) SDL_DestroyWindow(w->Window), w->Window = nullptr;
    SDL_GL_ResetAttributes();
  }
  if (!w->Gl) w->Window = SDL_CreateWindow("Velmo Video Player", 0, 0, 64, 64, flags);
  if (!w->Window || (!w->Gl && !MakeRenderer(w))) {
    PlayerWindowDestroy(w);
    return nullptr;
  }
  if (options.HideCursor) SDL_ShowCursor(SDL_DISABLE);
  return w;
}

void PlayerWindowDestroy(PlayerWindow* w) {
  if (!w) return;
  RestoreDisplay(w);
  if (w->Texture) SDL_DestroyTexture(w->Texture);
  if (w->Strip) SDL_DestroyTexture(w->Strip);
  if (w->Renderer) SDL_DestroyRenderer(w->Renderer);
  PlayerGlDestroy(w->Gl);
  if (w->Window) SDL_DestroyWindow(w->Window);
  delete w;
}

PlayerHost PlayerWindowHost(PlayerWindow* w) {
  PlayerHost host;
  host.Context = w;
  host.Now = [](void*) { return TimerMs(); };
  host.Sleep = [](void*, uint32_t ms) { ThreadSleep(ms); };
  host.NextEvent = NextEvent;
  host.Setup = Setup;
  host.Present = Present;
  host.SliderFrame = SliderFrame;
  host.OpenPage = [](void*, const char* address) { ProcessOpenAddress(address); };
  host.SwitchDisplay = SwitchDisplay;
  host.RestoreDisplay = RestoreDisplay;
  return host;
}

bool PlayerWindowUsesGl(const PlayerWindow* w) { return w->Gl != nullptr; }

std::string PlayerWindowTitle(const PlayerWindow* w) {
  const char* title = SDL_GetWindowTitle(w->Window);
  return title ? title : "";
}

const PlayerPicture* PlayerWindowPicture(const PlayerWindow* w) { return &w->Picture; }

void PlayerWindowCapture(PlayerWindow* w, bool on) { w->Capture = on; }

bool PlayerWindowReadPixels(PlayerWindow* w, std::vector<uint32_t>* out, int32_t* width,
                            int32_t* height) {
  if (w->Captured.empty()) return false;
  *out = w->Captured;
  *width = w->CapturedWidth;
  *height = w->CapturedHeight;
  return true;
}
