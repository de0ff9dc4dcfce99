// The plainer frame of the tools without a dialog (file information, version check): they only
// show boxes, through the same front end as the tool shell.
#pragma once
#include <cstdint>

// Stores the program instance, the parent window number (from "/#") and the tool's flag.
void QuietFrameInit(void* instance, intptr_t parentWindow, int flag);
intptr_t QuietFrameParent();
int QuietFrameFlag();
// Lets the front end catch up between boxes. Both front ends show each box as a whole, so
// there is nothing queued between them; kept so that tools read the same on every front end.
void PumpMessages();
// Shows `text` under `caption` with one OK button; icon is a ToolBoxIcon.
void QuietFrameBox(const char* text, const char* caption, int icon);
// Yes-or-no question (Yes default). Remembers the question with " Yes." or " No." behind it
// as the last question asked. Returns true for Yes.
bool QuietFrameAsk(const char* text, const char* caption);
// The last question with its answer, "" before the first.
const char* QuietFrameLastQuestion();
