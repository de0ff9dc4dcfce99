// The program's built-in command line: a slot of "~" filler in the program's data, in wide
// characters, that a self-playing program's maker overwrites with the line it wants played.
//
// The slot is 1024 bytes of UTF-16 "~" (512 characters). Its maker finds it as a run of 128
// bytes of filler with a second run of 128 bytes 768 bytes behind the first one's end, and
// writes the line over its start, each character as a low byte and a zero byte, with no
// terminator: the filler behind the line ends it. An unwritten slot holds no line.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string>

constexpr size_t PlayerSlotBytes = 1024;
constexpr size_t PlayerSlotRunBytes = 128;
constexpr size_t PlayerSlotGapBytes = 768;
// The most characters the player takes from the slot.
constexpr size_t PlayerSlotMaxChars = 511;

// The line held in a slot of `bytes` bytes: its wide characters up to the first "~" or zero,
// at most PlayerSlotMaxChars of them; characters outside one byte become "?".
std::string PlayerReadSlot(const uint8_t* slot, size_t bytes);

// The line in this program's own slot ("" while it is unwritten).
std::string PlayerBuiltinLine();

// The program's file name as it was started (argv[0]), for the screen saver's rules; the
// entry sets it before the player runs.
void PlayerSetProgramName(const char* name);
const char* PlayerProgramName();

// Whether a program file of this name is a screen saver: the name ends in "scr".
bool PlayerIsScreenSaverName(const char* name);

// Whether the program should run as the player whatever its command line says: its slot
// holds a line, or its file name ends in "scr" (a screen saver).
bool PlayerRunsItself();

// The command line the player reads: the built-in line, then (unless the program is a
// screen saver, which takes only the built-in line) the real command tail behind it.
std::string PlayerJoinLine(const std::string& builtin, const char* tail, bool screenSaver);
