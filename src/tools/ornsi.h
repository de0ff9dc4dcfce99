// ORNSI: what a support request needs to know about the machine, as plain lines.
#pragma once
#include <cstddef>
#include <string>

// The report, every line ending in "\n". Queries that fail leave their line out.
std::string OrnSystemInfoText();
// The report's sound line for the default sound card, as the system's files under `procRoot`
// ("/proc" for the machine's own) describe it: "Audio device: " with the card's name, its
// driver's name and the sound driver's version ("HDA Intel PCH HDA-Intel 6.1"). "" when there
// is no card.
std::string OrnAudioDeviceLine(const std::string& procRoot);
// The tool's main routine: a box titled "ORN System Info...", or on the console front end the
// text once on standard output under that caption on standard error. Returns 0.
int OrnSystemInfoMain(void* instance, void* previousInstance, char* commandTail, int showState);
