// VelmoPlay: the tool's main routine, which the entry calls for "VelmoPlay" and "velmopl64".
#pragma once

// Reads the command tail, plays its files in a window and shows the summary with /S. Returns
// 0, or 1 when the line asks for help, a file cannot be opened or shown, or no window can be
// made. Texts go to boxes "Velmo Error", "Velmo Playback Summary" and "Velmo Video Player
// Help", which the console front end writes to the terminal.
int VelmoPlayMain(void* instance, void* previousInstance, char* commandTail, int showState);
