// The entry's table of tool words and the entries behind them.
#include "main/dispatch.h"

#include <spawn.h>
#include <strings.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host/quietframe.h"
#include "host/settings.h"
#include "host/switches.h"
#include "host/toolframe.h"
#include "compress/tool/velmoc.h"
#include "compress/tool/velmomix.h"
#include "tools/orninfo.h"
#include "tools/ornsi.h"
#include "convert/velmoconv.h"
#include "player/player_builtin.h"
#include "player/velmoplay.h"

extern char** environ;

namespace {

constexpr const char* MainCaption = "ORN Video Tools";
constexpr const char* InfoCaption = "ORN File Info...";
constexpr size_t WordSize = 256;
constexpr size_t TailRoom = 64;  // room for switches that entries append

// With ORN_TRACE_DISPATCH set, each tool's tail is written to stderr as the tool receives it,
// so that scripts and tests can see what the entry made of a line.
void TraceTail(const ToolEntryArgs* args) {
  const char* trace = std::getenv("ORN_TRACE_DISPATCH");
  if (!trace || !*trace || std::strcmp(trace, "0") == 0) return;
  std::fprintf(stderr, "ORN dispatch: %s tail \"%s\"\n", args->row->toolName, args->tail);
}

void StopBox(const char* text) {
  ToolBox box{};
  box.caption = MainCaption;
  box.text = text;
  box.icon = ToolIconStop;
  box.buttonCount = 1;
  box.buttons[0] = ToolButtonOk;
  ToolFrameShowBox(&box);
}

// "versioncheck": any tail turns the check off, an empty one turns it on again.
int DispatchVersionCheck(const ToolEntryArgs* args) {
  TraceTail(args);
  QuietFrameInit(nullptr, 0, 0);
  bool off = args->tail[0] != 0;
  SettingsWriteText(SettingsMainSection, "NoLastVersionCheck", off ? "1" : "", false);
  QuietFrameBox(off ? "Velmo version will be not checked." : "Velmo version will be checked.",
                InfoCaption, ToolIconInformation);
  return 0;
}

// "tarvplay" and friends: the palette player is a program of its own beside this one.
int DispatchPalettePlayer(const ToolEntryArgs* args) {
  TraceTail(args);
  std::string program = std::string(ToolProgramDirectory()) + "TarvPlw";
  if (access(program.c_str(), X_OK) != 0) {
    std::fprintf(stderr, "%s could not be started.\n", program.c_str());
    return 1;
  }
  // The tail is a command line of its own, so a shell splits it as the user wrote it.
  std::string line = "exec \"" + program + "\" " + args->tail;
  const char* argv[] = {"sh", "-c", line.c_str(), nullptr};
  pid_t pid;
  if (posix_spawn(&pid, "/bin/sh", nullptr, nullptr, const_cast<char**>(argv), environ) != 0)
    return 1;
  return 0;
}

// The tool words in the order they are tested.
const ToolWordRow Table[] = {
    {{"velmoplay", "velmopl64"}, "VelmoPlay", DispatchWindowTool, nullptr, nullptr, nullptr, VelmoPlayMain, nullptr,
     "play a Velmo file"},
    {{"ornbatch"}, "ORNBatch", DispatchShellTool, "ornbatch", nullptr, nullptr, nullptr, nullptr,
     "run a list of tool lines one after another"},
    {{"orn2exe"}, "ORN2EXE", DispatchShellTool, "orn2exe", nullptr, nullptr, nullptr, nullptr,
     "make a program that plays a file"},
    {{"orninfo"}, "ORNInfo", DispatchWindowTool, nullptr, nullptr, nullptr, OrnFileInfoMain, nullptr,
     "tell what a file holds"},
    {{"versioncheck"}, "versioncheck", DispatchVersionCheck, nullptr, nullptr, nullptr, nullptr, nullptr,
     "turn version checks off (any text after it) or on"},
    {{"velmoconv"}, "VelmoConv", DispatchShellTool, "velmoconv", VelmoConvMain, VelmoConvCommand, nullptr, nullptr,
     "convert to AVI, y4m, still images or wave"},
    {{"velmomix"}, "VelmoMix", DispatchShellTool, "velmomix", VelmoMixMain, VelmoMixCommand, nullptr, nullptr,
     "lay a sound track into a Velmo file"},
    {{"tarvmix"}, "TarvMix", DispatchShellTool, "tarvmix", nullptr, nullptr, nullptr, nullptr,
     "lay a sound track into a Tarvin file"},
    {{"tarv"}, "Tarv", DispatchShellTool, "tarv", nullptr, nullptr, nullptr, nullptr,
     "compress to a Tarvin (palette) file"},
    {{"velmo", "velmoc"}, "Velmoc", DispatchCompressor, "velmoc", VelmocMain, VelmocCommand, nullptr, " /v100",
     "compress to a Velmo file (/V picks the version)"},
    {{"velmo2c", "velmo2c64"}, "Velmo2c", DispatchCompressor, "velmoc", VelmocMain, VelmocCommand, nullptr, " /v200",
     "compress to a Velmo 2 file"},
    {{"ornana"}, "ORNAna", DispatchWindowTool, nullptr, nullptr, nullptr, nullptr, nullptr,
     "analyse a file's data rate"},
    {{"ornsi"}, "ORNSI", DispatchWindowTool, nullptr, nullptr, nullptr, OrnSystemInfoMain, nullptr,
     "tell what this system offers"},
    {{"tarvplw", "tarvply", "tarvplay"}, "TarvPlw", DispatchPalettePlayer, nullptr, nullptr, nullptr, nullptr, nullptr,
     "play a Tarvin file (TarvPlw beside this program)"},
    {{nullptr}, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr, nullptr},
};

// The words that ask for the program's usage instead of a tool.
bool AsksForUsage(const char* word) {
  for (const char* w : {"--help", "-h", "/?"})
    if (strcasecmp(word, w) == 0) return true;
  return false;
}

// Tools whose code is in this build: shell and window tools need their routines.
bool Built(const ToolWordRow* row) {
  if (row->entry == DispatchShellTool || row->entry == DispatchCompressor) return row->mainRoutine;
  if (row->entry == DispatchWindowTool) return row->appMain;
  return true;
}

}  // namespace

namespace {

// Without a display there is no launcher to open: the usage says how to run a tool instead.
int DispatchLauncher() {
  if (ToolFrameFrontEnd() == ToolConsoleFrontEnd()) {
    std::fputs(DispatchUsage().c_str(), stderr);
    return 1;
  }
  StopBox("The launcher is not part of this build yet.");
  return 1;
}

}  // namespace

const ToolWordRow* DispatchTable() { return Table; }

std::string DispatchUsage() {
  std::string text = std::string("Usage: ") + ToolProgramName +
                     " <tool word> [files and switches]\n\nTool words (in any case):\n";
  std::string missing;
  for (const ToolWordRow* row = Table; row->entry; row++) {
    std::string words;
    for (const char* w : row->words)
      if (w) words += (words.empty() ? "" : ", ") + std::string(w);
    if (!Built(row)) {
      missing += (missing.empty() ? "" : ", ") + std::string(row->words[0]);
      continue;
    }
    char line[300];
    std::snprintf(line, sizeof line, "  %-27s %s\n", words.c_str(), row->about);
    text += line;
  }
  if (!missing.empty()) text += "Not in this build yet: " + missing + ".\n";
  text += "\nGiven alone, most tool words show their tool's syntax and switches. With no\n"
          "tool word the program opens its launcher when there is a display.\n"
          "--help, -h or /? show this text.\n";
  return text;
}

const ToolWordRow* DispatchFindTool(const char* word) {
  for (const ToolWordRow* row = Table; row->entry; row++)
    for (const char* w : row->words)
      if (w && strcasecmp(w, word) == 0) return row;
  return nullptr;
}

int DispatchNotBuilt(const ToolEntryArgs* args) {
  TraceTail(args);
  char text[200];
  std::snprintf(text, sizeof text, "%s is not part of this build yet.", args->row->toolName);
  StopBox(text);
  return 1;
}

int DispatchShellTool(const ToolEntryArgs* args) {
  // "/#n" is the window of the tool that started this one; a bare "/#" asks to close when done.
  intptr_t parent = SwitchNumber(args->tail, '#', 0);
  bool closeWhenDone = SwitchFlag(args->tail, '#');
  TrimLine(args->tail);
  const ToolWordRow* row = args->row;
  if (!row->mainRoutine) return DispatchNotBuilt(args);
  TraceTail(args);
  return ToolFrameRun(nullptr, parent, args->tail, args->showState, closeWhenDone,
                      row->mainRoutine, row->commandHandler, row->dialogName);
}

int DispatchCompressor(const ToolEntryArgs* args) {
  // One compressor serves both generations; /V picks which, and the word gives the default.
  if (SwitchPeekNumber(args->tail, 'V', -1) == -1) {
    size_t used = std::strlen(args->tail);
    std::snprintf(args->tail + used, args->tailSize - used, "%s", args->row->versionSwitch);
  }
  return DispatchShellTool(args);
}

int DispatchWindowTool(const ToolEntryArgs* args) {
  if (!args->row->appMain) return DispatchNotBuilt(args);
  TraceTail(args);
  return args->row->appMain(nullptr, nullptr, args->tail, args->showState);
}

bool DispatchJoinArguments(int argc, char** argv, char* dest, size_t destSize) {
  if (!destSize) return false;
  std::string line;
  for (int i = 1; i < argc; i++) {
    const char* a = argv[i];
    if (i > 1) line += ' ';
    // Blank-only arguments stay unquoted: they are spacing, and a line of them is empty.
    bool quote = std::strpbrk(a, " \t") != nullptr && a[std::strspn(a, " \t")] != 0;
    if (quote) line += '"';
    line += a;
    if (quote) line += '"';
  }
  size_t n = line.size() < destSize - 1 ? line.size() : destSize - 1;
  std::memcpy(dest, line.data(), n);
  dest[n] = 0;
  return n == line.size();
}

int DispatchLine(char* line, size_t lineSize) {
  TrimLine(line);
  if (!line[0]) return DispatchLauncher();
  char word[WordSize];
  TakeWord(word, sizeof word, line);
  if (AsksForUsage(word)) {
    std::fputs(DispatchUsage().c_str(), stdout);
    return 0;
  }
  const ToolWordRow* row = DispatchFindTool(word);
  if (!row) {
    StopBox("Unknown command line command.");
    return 1;
  }
  ToolEntryArgs args{row, line, lineSize, 1};
  return row->entry(&args);
}

int DispatchMain(int argc, char** argv) {
  size_t length = 1;
  for (int i = 1; i < argc; i++) length += std::strlen(argv[i]) + 3;
  std::vector<char> line(length + TailRoom);
  DispatchJoinArguments(argc, argv, line.data(), line.size());
  // A self-playing program or a screen saver is the player, whatever its line holds.
  PlayerSetProgramName(argc > 0 ? argv[0] : "");
  if (PlayerRunsItself()) {
    TrimLine(line.data());
    return VelmoPlayMain(nullptr, nullptr, line.data(), 1);
  }
  return DispatchLine(line.data(), line.size());
}
