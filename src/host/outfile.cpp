// Output files written under a temporary name and renamed over the target when complete.
#include "host/outfile.h"

#include <cstdio>
#include <cstring>

#include "host/toolframe.h"

static_assert(FileNameBytes == PathMax, "a buffered file keeps any path the system takes");

bool PathFits(const char* name) { return name && std::strlen(name) < PathMax; }

bool OutFileNameFits(const char* target) {
  return target && std::strlen(target) + sizeof OutFileSuffix - 1 < PathMax;
}

void PathTooLongText(char* dest, size_t destSize, const char* what, const char* name) {
  const bool output = std::strcmp(what, "output") == 0;
  std::snprintf(dest, destSize,
                "The %s file name is too long (%zu bytes; this system takes paths of up to %zu "
                "bytes%s):\n%.80s...",
                what, name ? std::strlen(name) : 0, PathMax - 1,
                output ? ", the \".tmp\" of the temporary file included" : "", name ? name : "");
}

OutFileResult OutFileCreate(OutFile* out, const char* target, int32_t bufferSize) {
  out->File = nullptr;
  out->Target[0] = out->Temporary[0] = 0;
  if (!target) return OutFileNotCreated;
  const int n = std::snprintf(out->Temporary, sizeof out->Temporary, "%s%s", target, OutFileSuffix);
  if (n < 0 || size_t(n) >= sizeof out->Temporary) {
    out->Temporary[0] = 0;
    return OutFileTooLong;
  }
  std::snprintf(out->Target, sizeof out->Target, "%s", target);
  out->File = FileCreateExclusive(bufferSize, out->Temporary);
  return out->File ? OutFileDone : OutFileNotCreated;
}

bool OutFileClose(OutFile* out) {
  if (!out->File) return out->Temporary[0] != 0;
  const bool ok = FileFlush(out->File, false) && !out->File->WriteError;
  FileClose(out->File);
  out->File = nullptr;
  if (!ok) OutFileDiscard(out);
  return ok;
}

OutFileResult OutFileCommit(OutFile* out) {
  if (!out->Temporary[0]) return OutFileNotCreated;
  if (out->File && (!FileFlush(out->File, false) || out->File->WriteError)) {
    OutFileDiscard(out);
    return OutFileWriteFailed;
  }
  // Renamed while still open and held, so that no other run can take the temporary name in
  // between and have its own file renamed by this one.
  const uint32_t renamed = FileRename(out->Target, out->Temporary);
  if (out->File) FileClose(out->File);
  out->File = nullptr;
  if (renamed == 1) {
    out->Temporary[0] = 0;
    return OutFileLost;
  }
  if (renamed != 0) return OutFileNotReplaced;
  out->Temporary[0] = 0;
  return OutFileDone;
}

void OutFileDiscard(OutFile* out) {
  // Removed while still held, as a commit renames it; what the buffer still holds then goes to
  // a file that no name reaches.
  if (out->Temporary[0]) FileDelete(out->Temporary);
  out->Temporary[0] = 0;
  if (out->File) FileClose(out->File);
  out->File = nullptr;
}

int ToolRefuseLongNames(const char* input, const char* output) {
  char text[400];
  if (input && !PathFits(input)) {
    PathTooLongText(text, sizeof text, "input", input);
    ToolFrameError(text);
    return ToolExitInputError;
  }
  if (output && !OutFileNameFits(output)) {
    PathTooLongText(text, sizeof text, "output", output);
    ToolFrameError(text);
    return ToolExitOutputError;
  }
  return 0;
}
