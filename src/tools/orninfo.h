// ORNInfo: everything the media layer and the reader library can tell about one file.
#pragma once
#include <string>

// The report on `name`: lines that each begin "\r\n    ", in a fixed order; blocks the file
// has no use for are left out. A directory or a file no reader knows gives only the file
// system lines.
std::string OrnFileInfoText(const char* name);
// The tool's main routine (the entry hands it the tail): takes "/#" itself, shows the report
// in a box titled "Information on %s", and writes it as plain lines on standard output when
// the console front end is in use. Returns 0, or 8002 when no file was named.
int OrnFileInfoMain(void* instance, void* previousInstance, char* commandTail, int showState);
