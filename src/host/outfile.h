// Output files that appear whole or not at all. A tool writes its output under a temporary name
// beside the target ("<target>.tmp", in the same folder so that the rename stays on one file
// system) and puts it in the target's place only once every byte went through; a failure, a
// cancel or a kill leaves whatever was under the target's name as it was.
//
// Path limits live here too: every tool keeps its names in buffers of PathBytes, which hold any
// path the system takes and one byte more, so that a name that was cut short shows as too long.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/bfile.h"

// The longest path the system takes, its terminating zero included.
inline constexpr size_t PathMax = 4096;
// Name buffers of the tools.
inline constexpr size_t PathBytes = PathMax + 1;
inline constexpr char OutFileSuffix[] = ".tmp";

// True when the system can take `name` as a path (it is shorter than PathMax).
bool PathFits(const char* name);
// True when `target` and its temporary name both fit.
bool OutFileNameFits(const char* target);
// The text that refuses a name the system cannot take, with the name's start; `what` says whose
// name it is ("output", "input").
void PathTooLongText(char* dest, size_t destSize, const char* what, const char* name);

enum OutFileResult : uint32_t {
  OutFileDone = 0,
  OutFileTooLong = 1,      // the target's name, or its temporary name, does not fit
  OutFileNotCreated = 2,   // the temporary file could not be made (read-only folder, held)
  OutFileWriteFailed = 3,  // a write fell short (full disk, size limit); the temporary is gone
  OutFileNotReplaced = 4,  // all written, but the rename failed; the temporary is still there
  OutFileLost = 5,         // the temporary file was gone at the rename (moved or removed)
};

// One output on its way. Caller-owned; all zeros is "nothing open".
struct OutFile {
  BufferedFile* File;  // open on Temporary from OutFileCreate until the commit or discard
  char Target[PathMax];
  char Temporary[PathMax];
};

// Makes "<target>.tmp" for writing, held as FileCreateExclusive holds it (a second run on the
// same target is refused). On failure nothing is left behind and File is null.
OutFileResult OutFileCreate(OutFile* out, const char* target, int32_t bufferSize);
// Writes out what is buffered and closes the file, keeping the temporary name; false (and the
// temporary file removed) when any write fell short. For outputs that are renamed later.
bool OutFileClose(OutFile* out);
// Puts the finished temporary file in the target's place: writes out what is buffered, renames
// while the file is still held, and closes. A short write discards it (OutFileWriteFailed); a
// failed rename leaves it under its temporary name for the caller to keep or discard.
OutFileResult OutFileCommit(OutFile* out);
// Closes (if open) and removes the temporary file; the target is untouched.
void OutFileDiscard(OutFile* out);

// The tools' check of their names before they read or write anything: an input name the system
// cannot take is an error box and ToolExitInputError, an output name that does not fit with its
// temporary suffix an error box and ToolExitOutputError. 0 when both fit; either may be null.
int ToolRefuseLongNames(const char* input, const char* output);
