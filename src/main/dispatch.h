// The entry: the first word of the command line picks the tool, the rest is its tail.
//
// Each tool word is a row of one table, tested in order. A row names its entry function and
// whatever that entry needs: dialog tools give their main routine, command handler and dialog
// name to the tool shell; window tools give their own main routine. A tool that is not in the
// build yet has null routines, and its entry says so and ends with 1.
#pragma once
#include <cstddef>
#include <string>

#include "host/toolframe.h"

// The player, the analyser and the system information tool: their own main routines.
typedef int (*ToolAppMain)(void* instance, void* previousInstance, char* commandTail, int showState);

struct ToolWordRow;

struct ToolEntryArgs {
  const ToolWordRow* row;
  char* tail;       // the command line behind the tool word, writable
  size_t tailSize;  // room in `tail`, with space for appended switches
  int showState;
};

typedef int (*ToolEntryFn)(const ToolEntryArgs* args);

struct ToolWordRow {
  const char* words[3];   // compared without regard to case; unused slots null
  const char* toolName;   // how messages name the tool
  ToolEntryFn entry;
  const char* dialogName;             // dialog tools
  ToolMainRoutine mainRoutine;        // dialog tools; null while not built
  ToolCommandHandler commandHandler;  // dialog tools
  ToolAppMain appMain;                // window tools; null while not built
  const char* versionSwitch;          // compressors: appended when the tail has no /V number
  const char* about;                  // what the tool does, for the program's usage
};

// The table in its order, ending with a row whose entry is null.
const ToolWordRow* DispatchTable();
// The row for a tool word, or null for an unknown word.
const ToolWordRow* DispatchFindTool(const char* word);

// Joins the program's arguments into one command line; arguments holding blanks between other
// characters are put in double quotes. Returns false when it did not fit (dest is then cut).
bool DispatchJoinArguments(int argc, char** argv, char* dest, size_t destSize);
// The program's usage: how to run a tool, and the tool words with what each does.
std::string DispatchUsage();
// Runs the tool named by the line's first word; the line is trimmed first and is the buffer
// the tool's tail lives in. Returns the process's exit code. "--help", "-h" and "/?" print the
// usage on standard output (0); an empty line opens the launcher, which without a display is
// the usage on standard error (1).
int DispatchLine(char* line, size_t lineSize);
int DispatchMain(int argc, char** argv);

// Entries that rows share.
int DispatchShellTool(const ToolEntryArgs* args);      // "/#" handling, then the tool shell
int DispatchCompressor(const ToolEntryArgs* args);     // version switch, then the tool shell
int DispatchWindowTool(const ToolEntryArgs* args);     // the tool's own main routine
int DispatchNotBuilt(const ToolEntryArgs* args);       // says the tool is missing; 1
