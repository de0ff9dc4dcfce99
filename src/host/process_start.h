// Programs that the tools start: the player that shows a compressor's growing file, and the
// desktop's handler for a web address. A started program is waited for by its id, or (for an
// address) reaped in the background so that it leaves no zombie behind.
#pragma once
#include <cstdint>

// Starts `program` (a path) with `arguments` (null-terminated; the first is the program's own
// name as it sees it), with this process's environment. With `lowPriority` the program runs
// at the lowest scheduling priority. Returns its id, or -1 when it could not be started.
int64_t ProcessStart(const char* program, const char* const* arguments, bool lowPriority);
// Waits for a started program to end. Returns its exit code, or -1 when it ended by a signal
// or the id is not a child of this process.
int ProcessWait(int64_t id);
// Hands `address` to the desktop's handler (xdg-open, found on the path) without waiting.
// False when the handler could not be started.
bool ProcessOpenAddress(const char* address);
