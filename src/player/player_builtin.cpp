// The built-in command line slot and its reading.
#include "player/player_builtin.h"

#include <cstring>

namespace {

struct Slot {
  char16_t Text[PlayerSlotBytes / 2];
};

constexpr Slot Filler() {
  Slot s{};
  for (char16_t& c : s.Text) c = u'~';
  return s;
}

const char* ProgramName = "";

bool EndsWithScr(const char* name) {
  const size_t n = std::strlen(name);
  if (n < 3) return false;
  const char* end = name + n - 3;
  for (int i = 0; i < 3; i++)
    if ((end[i] | 0x20) != "scr"[i]) return false;
  return true;
}

}  // namespace

// Writable data with outside linkage, so that it lands once in the program file as written
// here and no reader can assume its contents: a self-playing program's maker changes it in
// the file.
extern Slot PlayerBuiltinSlot;
Slot PlayerBuiltinSlot = Filler();

std::string PlayerReadSlot(const uint8_t* slot, size_t bytes) {
  std::string line;
  for (size_t i = 0; i + 1 < bytes && line.size() < PlayerSlotMaxChars; i += 2) {
    const uint32_t c = uint32_t(slot[i]) | uint32_t(slot[i + 1]) << 8;
    if (c == '~' || c == 0) break;
    line += c < 0x100 ? char(c) : '?';
  }
  return line;
}

std::string PlayerBuiltinLine() {
  const uint8_t* bytes = reinterpret_cast<const uint8_t*>(PlayerBuiltinSlot.Text);
  // The compiler must read the bytes the file holds, not the filler it was built with.
  asm volatile("" : "+r"(bytes) : : "memory");
  return PlayerReadSlot(bytes, sizeof PlayerBuiltinSlot.Text);
}

void PlayerSetProgramName(const char* name) { ProgramName = name ? name : ""; }

const char* PlayerProgramName() { return ProgramName; }

bool PlayerIsScreenSaverName(const char* name) { return EndsWithScr(name); }

bool PlayerRunsItself() {
  return EndsWithScr(ProgramName) || !PlayerBuiltinLine().empty();
}

std::string PlayerJoinLine(const std::string& builtin, const char* tail, bool screenSaver) {
  std::string line = builtin;
  if (screenSaver || !tail || !*tail) return line;
  // The built-in line's last word and the tail's first stay apart.
  if (!line.empty() && line.back() != ' ' && *tail != ' ') line += ' ';
  return line + tail;
}
