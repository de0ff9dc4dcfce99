// The player's loop over files, messages and frames.
#include "player/player_loop.h"

#include <algorithm>
#include <unistd.h>

#include "host/platform.h"
#include "player/player_picture.h"
#include "player/player_text.h"

namespace {

uint32_t Now(const PlayerHost& host) { return host.Now(host.Context); }

void StartAsyncThreads(PlayerState* s, const PlayerHost& host) {
  uint32_t count = host.AsyncThreadCount ? host.AsyncThreadCount : ProcessorCount();
  count = std::clamp<uint32_t>(count, 1, 8);
  s->AsyncCount = 0;
  for (uint32_t n = 0; n < count; ++n)
    if (VelmoStartAsyncThread(n)) s->AsyncThreads[s->AsyncCount++] = n;
}

void StopAsyncThreads(PlayerState* s) {
  for (uint32_t i = 0; i < s->AsyncCount; ++i) VelmoWaitStopAsyncThread(s->AsyncThreads[i]);
  s->AsyncCount = 0;
}

// Decoding of the selected frame on the async threads, or here when none runs.
void StartDecode(PlayerState* s) {
  if (s->AsyncCount)
    VelmoDoFrameAsync(s->Handle, s->AsyncThreads, s->AsyncCount);
  else
    VelmoDoFrame(s->Handle);
}

void CloseFile(PlayerState* s) {
  if (!s->Handle) return;
  VelmoClose(s->Handle);
  s->Handle = nullptr;
  if (s->OwnHandle >= 0) ::close(s->OwnHandle);
  s->OwnHandle = -1;
}

std::string TitleOf(const std::string& name) {
  const size_t slash = name.find_last_of('/');
  return slash == std::string::npos ? name : name.substr(slash + 1);
}

// Opens the next name and makes its presentation; false with the error text on failure.
bool OpenNext(PlayerState* s, const PlayerHost& host) {
  const std::string& name = s->Names[s->NextName++];
  const PlayerNamePlan plan = PlayerPlanName(name, PlayerFileExists, nullptr);
  s->Handle = PlayerOpenPlan(plan, s->Options, &s->OwnHandle);
  if (!s->Handle) {
    s->Error = VelmoGetError();
    return false;
  }
  s->FileTitle = TitleOf(plan.OwnFile ? name : plan.Path);
  s->LoopCount = s->Options.LoopCount;
  s->Seeking = 0;
  s->ShownFrame = 0;
  s->GoNextFile = false;
  if (host.Opened) host.Opened(s->Handle);
  if (host.Setup && !host.Setup(host.Context, s)) return false;
  if (s->Paused) VelmoPause(s->Handle, 1);
  StartDecode(s);
  return true;
}

// With /S: the summary of the file now open, formed before its handle closes.
void FormSummary(PlayerState* s) {
  VelmoSummary summary{};
  VelmoGetSummary(s->Handle, &summary);
  PlayerSummaryExtras extras;
  extras.SkippedBlits = s->SkippedBlits;
  extras.OpenGL = s->UsesGpu;
  extras.ScreenWidth = s->ScreenWidth;
  extras.ScreenHeight = s->ScreenHeight;
  s->Summary = PlayerSummaryText(summary, extras);
}

void StartEndCard(PlayerState* s, const PlayerHost& host);

// The end of a file: the next name, the list anew, or the end-card and leaving.
void EndOfFile(PlayerState* s, const PlayerHost& host) {
  const bool quit = s->QuitState == 1;
  s->GoNextFile = false;
  s->QuitState = 0;
  VelmoDoFrameAsyncWait(s->Handle, -1);
  VelmoPause(s->Handle, 1);
  if (quit) {
    s->Leaving = true;
    return;
  }
  if (s->NextName >= s->Names.size()) {
    if (s->RepeatAll <= 1) return StartEndCard(s, host);
    --s->RepeatAll;
    s->NextName = 0;
  }
  CloseFile(s);
}

// One frame: complete it, move the walk on, start the next decode, present.
void Present(PlayerState* s, const PlayerHost& host) {
  HVELMO h = s->Handle;
  if (!VelmoDoFrameAsyncWait(h, -1)) return;
  const uint32_t completed = h->FrameNum;  // its picture is the buffer set shown now
  bool advanced = false;
  if (h->FrameNum == h->Frames && !s->Seeking && --s->LoopCount == 0) {
    s->GoNextFile = true;
  } else {
    VelmoNextFrame(h);
    advanced = true;
  }
  if (s->LoopCount != 1) VelmoSetFileLoop(h, 1);
  s->ShownFrame = completed;
  if (s->Seeking && s->ShownFrame >= s->Seeking) s->Seeking = 0;
  if (advanced) StartDecode(s);
  ++s->FramesPresented;
  if (host.Present) host.Present(host.Context, s);
  if (s->Paused) VelmoPause(h, 1);
}

void TogglePause(PlayerState* s) {
  s->Paused = !s->Paused;
  s->UserPaused = s->Paused;
  VelmoPause(s->Handle, s->Paused ? 1 : 0);
  if (!s->Paused && s->SoundOffBySeek) {
    VelmoSetSoundOn(s->Handle, 1);
    s->SoundOffBySeek = false;
  }
}

void Click(PlayerState* s, const PlayerHost& host, int32_t x, int32_t y) {
  const uint32_t frame = host.SliderFrame ? host.SliderFrame(host.Context, s, x, y) : 0;
  if (frame)
    PlayerSeek(s, host, int32_t(frame), false);
  else
    TogglePause(s);
}

void Key(PlayerState* s, const PlayerHost& host, int32_t key) {
  const uint32_t off = s->Options.DisabledControls;
  const bool characterKey =
      key == PlayerKeyDot || key == PlayerKeyBackground || key == PlayerKeyLook;
  // With pausing disabled, every other key acts as a click.
  if ((off & PlayerDisablePause) && !characterKey) return Click(s, host, -1, -1);
  switch (key) {
    case PlayerKeySpace: return TogglePause(s);
    case PlayerKeyEnter:
      if (s->Paused) TogglePause(s);
      return;
    case PlayerKeyEscape:
      if (!(off & PlayerDisableQuit)) s->QuitState = 1;
      return;
    case PlayerKeyDot:
      if (!(off & PlayerDisableSkip)) s->GoNextFile = true;
      return;
    case PlayerKeyHome: return PlayerSeek(s, host, 1, false);
    case PlayerKeyEnd: return PlayerSeek(s, host, int32_t(s->Handle->Frames), false);
    case PlayerKeyLeft: return PlayerSeek(s, host, -1, true);
    case PlayerKeyRight: return PlayerSeek(s, host, 1, true);
    case PlayerKeyUp:
      s->Exposure = std::min(s->Exposure + 1, PlayerExposureHigh);
      return;
    case PlayerKeyDown:
      s->Exposure = std::max(s->Exposure - 1, PlayerExposureLow);
      return;
    case PlayerKeyBackground: s->LightBackground = !s->LightBackground; return;
    case PlayerKeyLook: s->HdrLook = (s->HdrLook + 1) % PlayerHdrLooks; return;
    default: return;
  }
}

void Focus(PlayerState* s, bool gained) {
  s->HasFocus = gained;
  if (!s->Options.PauseOnFocusLoss || !s->Handle) return;
  const bool user = s->UserPaused;
  const bool pause = gained ? user : true;
  if (pause != s->Paused) TogglePause(s);
  s->UserPaused = user;
}

// The sleep policy of one turn of the message loop.
void Pace(PlayerState* s, const PlayerHost& host) {
  if (!s->Seeking) {
    if (s->Paused) s->SleepDebt += 5;
    if (!s->HasFocus) s->SleepDebt += 1;
  }
  s->SleepDebt = std::min(s->SleepDebt, PlayerSleepDebtLimit);
  if (s->SleepDebt <= 0) return;
  const uint32_t before = Now(host);
  host.Sleep(host.Context, uint32_t(std::min(s->SleepDebt, PlayerSleepDebtLimit)));
  const uint32_t after = Now(host);
  s->SleepDebt = std::max(s->SleepDebt + int32_t(before - after), -PlayerSleepDebtLimit);
}

// /D and /B together switch the display's mode for the run.
void SwitchDisplay(PlayerState* s, const PlayerHost& host) {
  const PlayerOptions& o = s->Options;
  if (o.DisplayWidth <= 0 || o.DisplayHeight <= 0 || !host.SwitchDisplay) return;
  s->DisplaySwitched = host.SwitchDisplay(host.Context, o.DisplayWidth, o.DisplayHeight);
}

// Every way out of a run puts the display's mode back.
void RestoreDisplay(PlayerState* s, const PlayerHost& host) {
  if (!s->DisplaySwitched) return;
  s->DisplaySwitched = false;
  if (host.RestoreDisplay) host.RestoreDisplay(host.Context);
}

void Leave(PlayerState* s, const PlayerHost& host) {
  if (s->Handle) VelmoDoFrameAsyncWait(s->Handle, -1);
  if (s->Options.Summary && s->Handle && !s->EndCard) FormSummary(s);
  if (host.Leave) host.Leave(host.Context, s);
  CloseFile(s);
  StopAsyncThreads(s);
  RestoreDisplay(s, host);
}

// ---- The end-card ----------------------------------------------------------------------------

// After the last file: the clip from memory, at its own size in the same window, looping for
// its time, without statistics and unpaused. Without a clip, or with one that does not open
// or cannot be shown, the player leaves at once.
void StartEndCard(PlayerState* s, const PlayerHost& host) {
  if (s->Options.Summary) FormSummary(s);
  CloseFile(s);
  s->Leaving = true;
  if (!s->EndCardClip || !s->EndCardSize) return;
  VelmoOpenOptions options{};
  options.ImageSize = s->EndCardSize;
  const uint32_t flags = VelmoOpenImage | (s->Options.OpenFlags & VelmoOpenNoBackground);
  s->Handle = VelmoOpenWithOptions(static_cast<const char*>(s->EndCardClip), &options, flags);
  if (!s->Handle) return;
  s->EndCard = true;
  s->LoopCount = PlayerEndCardLoops;
  s->Options.Statistics = false;
  s->Options.WidthNum = s->Options.HeightNum = 0;
  s->Paused = s->UserPaused = false;
  s->Seeking = 0;
  s->ShownFrame = 0;
  if (host.Setup && !host.Setup(host.Context, s)) {
    s->Error.clear();
    s->EndCard = false;
    CloseFile(s);
    return;
  }
  s->Leaving = false;
  s->EndCardStart = Now(host);
  StartDecode(s);
}

// Events while the card shows: a quitting key or the close box leaves, a click opens the
// maker's page (the run goes on), everything else is let be.
void EndCardEvent(PlayerState* s, const PlayerHost& host, const PlayerEvent& e) {
  switch (e.Type) {
    case PlayerEventKey:
      if (e.Value == PlayerKeyEscape && !(s->Options.DisabledControls & PlayerDisableQuit))
        s->QuitState = 2;
      return;
    case PlayerEventClose: s->QuitState = 2; return;
    case PlayerEventClick:
      if (!s->MakerPage.empty() && host.OpenPage)
        host.OpenPage(host.Context, (s->MakerPage + PlayerMakerQuery).c_str());
      return;
    case PlayerEventFocus: s->HasFocus = e.Value != 0; return;
    case PlayerEventMouseMove: return;
  }
}

bool EndCardOver(const PlayerState* s, const PlayerHost& host) {
  return s->QuitState == 2 || Now(host) - s->EndCardStart >= PlayerEndCardMs;
}

}  // namespace

void PlayerSeek(PlayerState* s, const PlayerHost& host, int32_t target, bool relative) {
  (void)host;
  HVELMO h = s->Handle;
  if (!h || !h->Frames) return;
  s->Paused = true;
  VelmoPause(h, 1);
  if (h->SoundOn) {
    VelmoSetSoundOn(h, 0);
    s->SoundOffBySeek = true;
  }
  VelmoDoFrameAsyncWait(h, -1);
  const int64_t wanted = relative ? int64_t(s->ShownFrame) + target : target;
  const uint32_t t = uint32_t(std::clamp<int64_t>(wanted, 1, h->Frames));
  const uint32_t key = VelmoGetKeyFrame(h, t, VelmoKeyBackward);
  const uint32_t current = h->FrameNum;
  if (!(t >= current && current >= key)) VelmoGoto(h, key, 0);
  s->Seeking = t;
  StartDecode(s);
}

namespace {

// Whether a mouse report puts the pointer somewhere else than the last one did. The first
// report only tells where the pointer is.
bool MovedElsewhere(PlayerState* s, const PlayerEvent& e) {
  const bool moved = s->SaverMouseKnown && (e.X != s->SaverMouseX || e.Y != s->SaverMouseY);
  s->SaverMouseKnown = true;
  s->SaverMouseX = e.X;
  s->SaverMouseY = e.Y;
  return moved;
}

// A full-screen saver ends on a key, a click, the focus going, or the mouse moved to another
// place more than five times (a single nudge of the desk does not end it).
bool EndsSaver(PlayerState* s, const PlayerEvent& e) {
  switch (e.Type) {
    case PlayerEventKey: case PlayerEventClick: case PlayerEventClose: return true;
    case PlayerEventFocus: return e.Value == 0;
    case PlayerEventMouseMove: return MovedElsewhere(s, e) && ++s->SaverMoves > 5;
  }
  return false;
}

// A screen saver's start-up delay is running: no frame yet.
bool SaverStarting(const PlayerState* s, const PlayerHost& host) {
  return s->ScreenSaver != 0 && Now(host) - s->StartTime < PlayerSaverStartDelay;
}

}  // namespace

void PlayerHandleEvent(PlayerState* s, const PlayerHost& host, const PlayerEvent& e) {
  if (s->EndCard) return EndCardEvent(s, host, e);
  if ((s->ScreenSaver == 1 || s->ScreenSaver == 2) && EndsSaver(s, e)) {
    s->QuitState = 1;
    return;
  }
  switch (e.Type) {
    case PlayerEventKey:
      if (s->Handle) Key(s, host, e.Value);
      return;
    case PlayerEventClick:
      if (s->Handle) Click(s, host, e.X, e.Y);
      return;
    case PlayerEventMouseMove:
      s->MouseTime = Now(host);
      s->MouseMoved = true;
      return;
    case PlayerEventFocus: return Focus(s, e.Value != 0);
    case PlayerEventClose: s->QuitState = 1; return;
  }
}

void PlayerPlayStep(PlayerState* s, const PlayerHost& host) {
  if (s->Leaving || !s->Handle) return;
  const uint32_t wait = VelmoWait(s->Handle);
  if (wait && !s->Seeking && s->QuitState != 1) {
    ++s->SleepDebt;
    return;
  }
  if (s->EndCard) {
    s->SleepDebt += 100;
    return Present(s, host);
  }
  if (s->GoNextFile || s->QuitState == 1) return EndOfFile(s, host);
  Present(s, host);
}

int PlayerRun(PlayerState* s, const PlayerHost& host) {
  if (host.SoundSelect) VelmoSetSoundSystem(host.SoundSelect, host.SoundParameter);
  s->StartTime = Now(host);
  SwitchDisplay(s, host);
  StartAsyncThreads(s, host);
  s->NextName = 0;
  while (!s->Leaving) {
    if (!OpenNext(s, host)) {
      CloseFile(s);
      StopAsyncThreads(s);
      RestoreDisplay(s, host);
      return 1;
    }
    while (!s->Leaving && s->Handle) {
      if (s->EndCard && EndCardOver(s, host)) {
        s->Leaving = true;
        break;
      }
      PlayerEvent event;
      if (host.NextEvent && host.NextEvent(host.Context, &event)) {
        PlayerHandleEvent(s, host, event);
        continue;
      }
      // While a screen saver waits for its first frame, the loop sleeps as for a frame not due.
      if (SaverStarting(s, host))
        ++s->SleepDebt;
      else
        PlayerPlayStep(s, host);
      Pace(s, host);
    }
  }
  Leave(s, host);
  return 0;
}

namespace {

// One axis of the window's place within `start` .. `start` + `room`: the switch's value as an
// offset, or centred: half of what remains, taken down to a multiple of `step`, or the start
// when the window is larger.
int32_t Place(int32_t value, int32_t size, int32_t start, int32_t room, int32_t step) {
  if (value != PlayerCentred) return start + value;
  return start + (size > room ? 0 : (room - size) / 2 / step * step);
}

}  // namespace

PlayerWindowPlan PlayerPlanWindow(const PlayerOptions& o, int32_t frameWidth, int32_t frameHeight,
                                  int32_t screenWidth, int32_t screenHeight,
                                  const PlayerArea* parent) {
  PlayerWindowPlan p;
  auto scaled = [](int32_t size, int32_t num, int32_t den) {
    if (num == 0) return size;
    if (num > 0) return den > 1 ? int32_t(int64_t(num) / den) : num;
    return int32_t(int64_t(size) * -num / (den ? den : 1));
  };
  p.VideoWidth = scaled(frameWidth, o.WidthNum, o.WidthDiv);
  p.VideoHeight = scaled(frameHeight, o.HeightNum, o.HeightDiv);
  const bool fullScreen = o.WidthNum == -1 && o.WidthDiv == 1 && o.HeightNum == -1 &&
                          o.HeightDiv == 1 && frameWidth > 0 && frameHeight > 0;
  if (fullScreen) {
    p.VideoWidth = screenWidth;
    p.VideoHeight = int32_t(int64_t(frameHeight) * screenWidth / frameWidth);
    if (p.VideoHeight > screenHeight) {
      p.VideoHeight = screenHeight;
      p.VideoWidth = int32_t(int64_t(frameWidth) * screenHeight / frameHeight);
    }
  }
  p.Simple = p.VideoWidth == frameWidth && p.VideoHeight == frameHeight;
  p.Width = p.VideoWidth;
  p.Height = p.VideoHeight;
  if (o.Statistics) {
    p.StripHeight = PlayerFontHeight + 8;
    p.Height += p.StripHeight;
    p.Width = std::max(p.Width, PlayerTextWidth(PlayerStatisticsSample));
  }
  const PlayerArea area = parent ? *parent : PlayerArea{0, 0, screenWidth, screenHeight};
  p.X = Place(o.X, p.Width, area.X, area.Width, 4);
  p.Y = Place(o.Y, p.Height, area.Y, area.Height, 1);
  return p;
}
