// ORNInfo: everything the media layer and the reader library can tell about one file.
#pragma once
#include <cstdint>
#include <string>

// The report on `name`: lines that each begin "\r\n    ", in a fixed order; blocks the file
// has no use for are left out. A directory or a file no reader knows gives only the file
// system lines.
std::string OrnFileInfoText(const char* name);
// The report as above, and whether anything could be read: false when the name is missing
// (or cannot be looked at), the file is empty, or no reader knows it, with `reason` saying
// which. A directory counts as read.
bool OrnFileInfoRead(const char* name, std::string* report, std::string* reason);
// The tool's main routine (the entry hands it the tail): takes "/#" itself, shows the report
// in a box titled "Information on %s", or on the console front end writes it once as plain
// lines on standard output under that caption on standard error. Returns 0, or 8002 when no
// file was named or nothing could be read (a box names the file and the reason).
int OrnFileInfoMain(void* instance, void* previousInstance, char* commandTail, int showState);

// The frame-size lines of inputs other than Velmo files: the largest frame, and the most bytes
// in any run of `ring` frames (one second: the rate rounded, at least 1) with the run's first
// frame (from 0). The first largest run wins; with fewer frames than `ring`, or only empty
// runs, the figure is total bytes × ring ÷ count and the start is 0.
struct OrnFrameSizeSummary {
  uint64_t largest;
  uint64_t highest_second;
  uint32_t highest_second_frame;
};
OrnFrameSizeSummary OrnSummariseFrameSizes(const uint32_t* sizes, uint32_t count, uint32_t ring);
