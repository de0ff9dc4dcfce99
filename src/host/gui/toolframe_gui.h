// The tool shell's window: SDL2 with Dear ImGui over OpenGL.
#pragma once
#include <string>
#include <vector>

#include "host/toolframe.h"

// The windowed front end; the program hands it to ToolFrameSetWindowCandidate.
const ToolFrontEnd* ToolGuiFrontEnd();
// Saves the next drawn frame of the dialog as a PNG file (for people looking at test runs).
void ToolGuiRequestScreenshot(const char* path);
// Frames drawn since the dialog opened.
int ToolGuiFramesDrawn();
// The lines the last frame drew: the caption heading first, then each text control as
// "label value".
std::vector<std::string> ToolGuiDrawnLines();
