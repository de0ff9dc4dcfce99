// ORNSI: what a support request needs to know about the machine, as plain lines.
#pragma once
#include <cstddef>
#include <string>

// The report, every line ending in "\n". Queries that fail leave their line out.
std::string OrnSystemInfoText();
// The tool's main routine: a box titled "ORN System Info...", or on the console front end the
// text once on standard output under that caption on standard error. Returns 0.
int OrnSystemInfoMain(void* instance, void* previousInstance, char* commandTail, int showState);
