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

// An edit field as the window keeps it between frames: what it shows (and the user edits),
// the tool's text it last took, and how many more draws put the caret and the view at the end
// of the text, where a log's newest line is.
struct ToolGuiEditField {
  int id = 0;
  std::string text;
  std::string synced;
  int toEnd = 0;
};
// Draws that move to the end after the tool set a text: the first draw lays the new text out,
// the second can scroll as far as it reaches.
inline constexpr int ToolGuiEndDraws = 2;
// Takes the tool's text for the field (the control's text in the dialog). A text other than
// the one last taken replaces what the field shows and marks it for the move to the end.
// Returns true when it did.
bool ToolGuiTakeEditText(ToolGuiEditField* field, const char* toolText);
// A draw of the field: true when this draw moves to the end (the mark counts down).
bool ToolGuiEditDrawsAtEnd(ToolGuiEditField* field);
// The window's field for control `id` as the last frame left it; null when none was drawn.
const ToolGuiEditField* ToolGuiEdit(int id);
// How far the window's field for control `id` was scrolled in the last frame, and how far it
// could be; false when none was drawn.
bool ToolGuiEditScroll(int id, float* scroll, float* scrollMax);
