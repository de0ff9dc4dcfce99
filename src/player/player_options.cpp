// VelmoPlay's switches and file-name rules.
#include "player/player_options.h"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>

#include "host/switches.h"

namespace {

constexpr const char* Letters = "PLFTZSXYWHRCMEGKUNQJIA!DB#+$";

// /A: 100 grayscale, 1000 luma and alpha exchanged, 10000 no alpha; the digits add up.
void ReadAlphaSwitch(char* line, PlayerOptions* o) {
  const int32_t a = SwitchNumber(line, 'A', 0);
  if (a / 100 % 10) o->OpenFlags |= VelmoOpenGrayscale;
  if (a / 1000 % 10) o->OpenFlags |= uint32_t(VelmoOpenAlpha) | uint32_t(VelmoCopyFlipAlpha);
  if (a / 10000 % 10) o->OpenFlags &= ~uint32_t(VelmoOpenAlpha);
}

// "/T1;2;3": track ids in speaker order, at most eight.
void ReadTracks(char* line, PlayerOptions* o) {
  char text[256];
  if (!SwitchText(line, 'T', text, sizeof text, "")) return;
  o->OpenFlags |= VelmoOpenTrackList;
  const char* p = text;
  while (*p && o->TrackCount < PlayerMaxTracks) {
    char* end;
    const unsigned long id = std::strtoul(p, &end, 10);
    if (end == p) break;
    o->TrackIds[o->TrackCount++] = uint32_t(id);
    p = *end == ';' ? end + 1 : end;
  }
}

void ReadSize(char* line, char letter, int32_t* num, int32_t* den) {
  if (!SwitchFraction(line, letter, num, den, 0, 1) || *den == 0) *num = 0, *den = 1;
}

void ReadFlagSwitches(char* line, PlayerOptions* o) {
  struct FlagSwitch {
    char letter;
    uint32_t flag;
  };
  static const FlagSwitch flags[] = {{'P', VelmoOpenPreload}, {'G', VelmoOpenNoFill},
                                     {'K', VelmoOpenNoBackground}, {'N', VelmoOpenNeverSkip}};
  for (const FlagSwitch& f : flags)
    if (SwitchFlag(line, f.letter)) o->OpenFlags |= f.flag;
}

void ReadRate(char* line, PlayerOptions* o) {
  int32_t num, den;
  if (SwitchFraction(line, 'F', &num, &den, 0, 1)) {
    o->ForceRate = true;
    o->Rate = num > 0 && den > 0 ? uint32_t(num) : 0;
    o->RateDiv = num > 0 && den > 0 ? uint32_t(den) : 1;
  } else if (SwitchFlag(line, 'F')) {
    o->ForceRate = true;
    o->Rate = 0;
    o->RateDiv = 1;
  }
  if (o->ForceRate) o->OpenFlags |= VelmoOpenForceRate;
}

void ReadWindowSwitches(char* line, PlayerOptions* o) {
  o->X = SwitchNumber(line, 'X', PlayerCentred);
  o->Y = SwitchNumber(line, 'Y', PlayerCentred);
  ReadSize(line, 'W', &o->WidthNum, &o->WidthDiv);
  ReadSize(line, 'H', &o->HeightNum, &o->HeightDiv);
  o->BlackScreen = SwitchFlag(line, 'R');
  o->HideCursor = SwitchFlag(line, 'C');
  const int32_t style = SwitchNumber(line, 'I', 0);
  o->WindowStyle = style % 100;
  o->AlwaysOnTop = style >= 100;
  if (o->BlackScreen) o->WindowStyle = 2;
  o->DisplayWidth = SwitchNumber(line, 'D', 0);
  o->DisplayHeight = SwitchNumber(line, 'B', 0);
  o->Parent = SwitchNumber(line, '#', 0);
}

void ReadMediumSwitches(char* line, PlayerOptions* o) {
  const int32_t simulate = SwitchNumber(line, 'M', 0);
  if (simulate > 0) {
    o->SimulateRate = uint32_t(simulate);
    o->OpenFlags |= VelmoOpenSimulate;
  }
  const int64_t buffer = SwitchNumber64(line, 'E', 0);
  if (buffer > 0) {
    o->ReadBufferSize = uint64_t(buffer);
    o->OpenFlags |= VelmoOpenIOSize;
  }
}

// A bare "/!" appends the stored quick-play text before anything else is read.
void AppendQuickPlay(char* line, size_t lineSize, const char* quickPlay) {
  char* bang = nullptr;
  for (char* p = std::strstr(line, "/!"); p; p = std::strstr(p + 2, "/!")) {
    const bool starts = p == line || p[-1] == ' ' || p[-1] == '\t';
    if (starts && (p[2] == 0 || p[2] == ' ' || p[2] == '\t')) {
      bang = p;
      break;
    }
  }
  if (!bang || !quickPlay || !*quickPlay) return;
  const size_t used = std::strlen(line);
  if (used + 1 + std::strlen(quickPlay) + 1 > lineSize) return;
  line[used] = ' ';
  std::strcpy(line + used + 1, quickPlay);
}

}  // namespace

bool PlayerReadLine(char* line, size_t lineSize, const char* quickPlay, PlayerOptions* o,
                    std::vector<std::string>* names) {
  SwitchLetters letters(Letters);
  AppendQuickPlay(line, lineSize, quickPlay);
  SwitchCancels(line);
  *o = PlayerOptions{};
  ReadFlagSwitches(line, o);
  const int32_t loops = SwitchNumber(line, 'L', -1);
  o->LoopCount = loops >= 0 ? loops : SwitchFlag(line, 'L') ? 0 : 1;
  ReadRate(line, o);
  ReadTracks(line, o);
  o->SoundOutput = SwitchNumber(line, 'Z', 0);
  o->Summary = SwitchFlag(line, 'S');
  ReadWindowSwitches(line, o);
  ReadMediumSwitches(line, o);
  o->DisabledControls = uint32_t(SwitchNumber(line, 'U', 0));
  o->Statistics = SwitchFlag(line, 'Q');
  o->PauseOnFocusLoss = SwitchFlag(line, 'J');
  ReadAlphaSwitch(line, o);
  const int32_t draw = SwitchNumber(line, '!', -1);
  if (draw >= 0) o->DrawType = draw & 0x1F;
  SwitchFlag(line, '!');
  char ignored[512];
  SwitchText(line, '+', ignored, sizeof ignored, "");
  SwitchNumber(line, '$', 0);
  if (SwitchesLeft(line)) return false;
  names->clear();
  char name[4096];
  for (;;) {
    TakeName(name, sizeof name, line);
    if (!name[0]) break;
    names->push_back(name);
  }
  return !names->empty();
}

const char* PlayerHelpText() {
  return "VelmoPlay <Velmo1 Velmo2 ...> [/Switches]\n\n"
         "/P  preload the whole file\n"
         "/L##  play ## times (bare /L: forever)\n"
         "/F#.#  force the frame rate (bare /F: as fast as possible)\n"
         "/T##;##;##  play these sound tracks, in speaker order\n"
         "/Z##  sound output: 0 default, 1 direct device, 2 multichannel\n"
         "/S  show the playback summary at the end\n"
         "/X## /Y##  window position (default centred)\n"
         "/W#.# /H#.#  stretch to a size; negative: scale factor; -1: full screen\n"
         "/R  black background across the whole screen\n"
         "/C  hide the cursor\n"
         "/M##  simulate a read speed in bytes per second\n"
         "/E##  read buffer size\n"
         "/G  do not fill the read buffer while opening\n"
         "/K  read in the playing thread\n"
         "/U##  disable controls: 1 pause, 2 skip, 4 quit, 8 slider\n"
         "/N  never skip frames\n"
         "/Q  show the statistics line\n"
         "/J  pause when the window loses the focus\n"
         "/I#  window style: 0 normal, 1 no caption, 2 none; +100 always on top\n"
         "/A##  100 grayscale, 1000 flip luma and alpha, 10000 no alpha\n"
         "/!#  draw type: 1 2-D blit, 2 OpenGL\n"
         "/D## /B##  switch the display to this width and height\n"
         "/#n  place the window relative to window n\n\n"
         "Keys: Space pause, Enter resume, Escape quit, . next file, Home/End first/last frame,\n"
         "Left/Right step, Up/Down exposure, B background, H next HDR look.";
}

// ---- File names -----------------------------------------------------------------------------

bool PlayerFileExists(const char* path, void*) {
  struct stat st;
  return stat(path, &st) == 0 && !S_ISDIR(st.st_mode);
}

PlayerNamePlan PlayerPlanName(const std::string& name, PlayerExistsFn exists, void* context) {
  PlayerNamePlan plan;
  if (!name.empty() && name[0] == ':') {
    plan.OwnFile = plan.UseOffset = plan.Exists = true;
    plan.Offset = std::strtoull(name.c_str() + 1, nullptr, 10);
    return plan;
  }
  std::string base = name;
  const size_t bar = name.find('|');
  if (bar != std::string::npos) {
    base = name.substr(0, bar);
    plan.UseOffset = true;
    plan.Offset = std::strtoull(name.c_str() + bar + 1, nullptr, 10);
    if (!exists(base.c_str(), context)) base += ".vlm";
  }
  plan.Path = base;
  for (const char* extension : {"", ".vm2", ".vlm"}) {
    const std::string candidate = base + extension;
    if (exists(candidate.c_str(), context)) {
      plan.Path = candidate;
      plan.Exists = true;
      break;
    }
  }
  return plan;
}

HVELMO PlayerOpenPlan(const PlayerNamePlan& plan, const PlayerOptions& o, int* ownHandle) {
  *ownHandle = -1;
  VelmoOpenOptions options{};
  uint32_t flags = o.OpenFlags;
  options.ForcedRate = o.Rate;
  options.ForcedRateDiv = o.RateDiv;
  options.SimulateRate = o.SimulateRate;
  options.IOBufferSize = o.ReadBufferSize;
  options.TrackCount = o.TrackCount;
  options.TrackIds = o.TrackIds;
  if (plan.UseOffset) {
    flags |= VelmoOpenFileOffset;
    options.FileOffset = plan.Offset;
  }
  const std::string path = plan.OwnFile ? "/proc/self/exe" : plan.Path;
  if (HVELMO h = VelmoOpenWithOptions(path.c_str(), &options, flags)) return h;
  if (!plan.Exists) return nullptr;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return nullptr;
  HVELMO h = VelmoOpenWithOptions(reinterpret_cast<const char*>(intptr_t(fd)), &options,
                                  flags | VelmoOpenFileHandle);
  if (!h) {
    ::close(fd);
    return nullptr;
  }
  *ownHandle = fd;
  return h;
}
