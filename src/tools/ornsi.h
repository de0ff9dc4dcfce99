// ORNSI: what a support request needs to know about the machine, as plain lines.
#pragma once
#include <cstddef>
#include <string>

// The report, every line ending in "\n". Queries that fail leave their line out.
std::string OrnSystemInfoText();
// The tool's main routine: a box titled "ORN System Info...", and the text on standard output
// when the console front end is in use. Returns 0.
int OrnSystemInfoMain(void* instance, void* previousInstance, char* commandTail, int showState);
