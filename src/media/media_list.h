// List files (.lst) and numbered series as a walk over entry names.
//
// A list file holds one entry a line: a file name (in double quotes when it has blanks),
// optionally followed by /S (first frame, default 1), /E (last frame, default 0x3FFFFFFF) and
// /L (the line is given back that many times). A line that starts with "#" is a comment.
// Relative names are taken from the list file's folder. A name with "?" is a series (see
// host/series.h): "shot???.png*5-20" walks shot005.png to shot020.png; a start above the end
// walks downwards, and the numbers of a closed range whose files are missing are passed over;
// without an end the series runs while the files exist. On a series line /S and /E pick numbers
// within the series (counted from its first), and /L repeats it whole. The series lines that
// came up short are noted for the caller to report.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/series.h"
#include "media/media.h"

struct MediaListItem {
  char name[MediaNameBytes];
  int32_t start, end;  // the frame range for the entry's own open; 0 = whole file
};

// A series line whose walk came up short: `found` of the `expected` files of a closed range
// (expected 0: an open series of which no file was there).
struct MediaListShortfall {
  char series[MediaNameBytes];  // the line's name as written, range included
  uint32_t found, expected;
};

inline constexpr int32_t MediaListDefaultEnd = 0x3FFFFFFF;
// The walk gives no more than this many entries (repeats included), so that a hostile
// "/L2000000000" or a vast series range ends.
inline constexpr uint64_t MediaListMaxEntries = 1u << 20;

// Parses list text (not zero-terminated; `size` bytes). `folder` (may be empty) is put in
// front of relative names. Null when memory fails.
MediaList* MediaListParse(const char* text, size_t size, const char* folder);
// A list of one line: a series name as given to MediaOpen.
MediaList* MediaListFromLine(const char* line);
void MediaListFree(MediaList* list);

// The next entry; false at the end. `exists` decides where an open-ended series stops (null:
// the file system).
bool MediaListNext(MediaList* list, MediaListItem* item, SeriesExistsFn exists, void* context);
void MediaListRewind(MediaList* list);

// The shortfalls met by the walks so far, each series line at most once, in walk order.
size_t MediaListShortfallCount(const MediaList* list);
const MediaListShortfall* MediaListShortfallAt(const MediaList* list, size_t index);
