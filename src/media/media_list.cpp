#include "media/media_list.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "host/switches.h"

namespace {

struct ListLine {
  std::string name;  // folder already in front; a series pattern without its "*" range
  std::string given; // the name as written (folder in front), for messages
  int32_t start = 1, end = MediaListDefaultEnd;
  uint32_t repeat = 1;
  bool series = false;
  bool hasFirst = false, hasLast = false;
  int32_t first = 0, last = 0;
  bool tallied = false;  // a shortfall of this series line has been looked at
};

}  // namespace

struct MediaList {
  std::vector<ListLine> lines;
  size_t line = 0;
  uint32_t repeat = 0;     // repeats of the current line done
  int64_t index = -1;      // position within a series line; -1 before its first number
  int32_t seriesFirst = 0; // the first number in use for the current series line
  uint64_t given = 0;      // entries handed out since the rewind
  bool passGave = false;   // the current pass over the current line gave an entry
  uint32_t expected = 0;   // numbers of the current series pass looked at
  uint32_t found = 0;      // ... and how many of their files exist
  std::vector<MediaListShortfall> shortfalls;
};

namespace {

constexpr size_t LineBytes = 4096;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

bool IsAbsolute(const char* name) { return name[0] == '/' || name[0] == '\\'; }

// Reads "first[-last]" behind the last "*"; false when the tail is not of that form.
bool SplitRange(std::string* name, ListLine* line) {
  const size_t star = name->rfind('*');
  if (star == std::string::npos) return false;
  const char* p = name->c_str() + star + 1;
  if (!IsDigit(*p)) return false;
  int64_t first = 0, last = 0;
  while (IsDigit(*p) && first < 1000000000) first = first * 10 + (*p++ - '0');
  bool hasLast = false;
  if (*p == '-') {
    ++p;
    if (IsDigit(*p)) {
      hasLast = true;
      while (IsDigit(*p) && last < 1000000000) last = last * 10 + (*p++ - '0');
    }
  }
  if (*p != 0) return false;
  line->hasFirst = true;
  line->first = static_cast<int32_t>(first);
  line->hasLast = hasLast;
  line->last = static_cast<int32_t>(last);
  name->resize(star);
  return true;
}

bool LooksLikeSeries(const std::string& name, bool rangeGiven) {
  if (name.find('?') != std::string::npos) return true;
  if (!rangeGiven) return false;
  char probe[MediaNameBytes];
  return SeriesName(probe, sizeof probe, name.c_str(), 1);
}

void AddLine(MediaList* list, char* text, const char* folder) {
  TrimLine(text);
  if (text[0] == 0 || text[0] == '#') return;
  ListLine line;
  line.start = SwitchNumber(text, 'S', 1);
  line.end = SwitchNumber(text, 'E', MediaListDefaultEnd);
  const int32_t repeat = SwitchNumber(text, 'L', 1);
  line.repeat = repeat > 1 ? static_cast<uint32_t>(repeat) : 1;
  char name[LineBytes];
  TakeName(name, sizeof name, text);
  if (name[0] == 0) return;
  std::string full = name;
  const bool rangeGiven = SplitRange(&full, &line);
  line.given = name;
  line.series = LooksLikeSeries(full, rangeGiven);
  if (!line.series && rangeGiven) full = name;  // a "*" that belongs to the name
  if (folder && folder[0] && !IsAbsolute(full.c_str())) {
    std::string withFolder = folder;
    if (withFolder.back() != '/') withFolder += '/';
    full = withFolder + full;
    line.given = withFolder + line.given;
  }
  line.name = full;
  list->lines.push_back(std::move(line));
}

bool NameOf(const ListLine& line, int32_t n, char* dest, size_t destSize) {
  return SeriesName(dest, destSize, line.name.c_str(), n);
}

bool Exists(SeriesExistsFn exists, void* context, const char* name) {
  return exists ? exists(name, context) : SeriesFileExists(name, nullptr);
}

// The number at `index` of a series line, or false when the line has no more.
bool SeriesNumber(const MediaList* list, const ListLine& line, int64_t index, int32_t* n) {
  const int32_t first = list->seriesFirst;
  const bool down = line.hasLast && line.last < first;
  int64_t start = line.start, end = line.end;
  if (line.hasLast) {
    const int64_t count = (down ? first - line.last : line.last - first) + 1;
    if (start < 0) start += count + 1;
    if (end < 0) end += count + 1;
    if (end > count) end = count;
  }
  if (start < 1) start = 1;
  if (end < start) end = start;
  const int64_t k = start - 1 + index;
  if (k > end - 1) return false;
  const int64_t value = down ? first - k : first + k;
  if (line.hasLast && (down ? value < line.last : value > line.last)) return false;
  if (value < 0 || value > 0x7FFFFFFF) return false;
  *n = static_cast<int32_t>(value);
  return true;
}

bool NextInSeries(MediaList* list, const ListLine& line, MediaListItem* item, SeriesExistsFn exists,
                  void* context) {
  if (list->index < 0) {
    list->seriesFirst = line.first;
    if (!line.hasFirst && NameOf(line, 0, item->name, sizeof item->name) &&
        !Exists(exists, context, item->name))
      list->seriesFirst = 1;  // no range given: the series starts at 0 or at 1
  }
  // A closed range passes over the numbers whose files are missing (they are counted); an
  // open one ends at the first.
  for (;;) {
    int32_t n;
    if (list->expected >= MediaListMaxEntries) return false;  // a vast range of missing files
    if (!SeriesNumber(list, line, list->index + 1, &n)) return false;
    if (!NameOf(line, n, item->name, sizeof item->name)) return false;
    const bool there = Exists(exists, context, item->name);
    if (!line.hasLast && !there) return false;
    ++list->index;
    if (list->expected < UINT32_MAX) ++list->expected;
    if (!there) continue;
    ++list->found;
    item->start = 0;
    item->end = 0;
    return true;
  }
}

// At the end of a series line's first pass: notes a range whose files were not all there, or
// a series of which no file was found.
void TallySeries(MediaList* list, ListLine* line) {
  if (!line->series || line->tallied) return;
  line->tallied = true;
  const bool none = list->found == 0;
  if (none || (line->hasLast && list->found < list->expected)) {
    MediaListShortfall shortfall;
    snprintf(shortfall.series, sizeof shortfall.series, "%s", line->given.c_str());
    shortfall.found = list->found;
    shortfall.expected = line->hasLast ? list->expected : 0;
    list->shortfalls.push_back(shortfall);
  }
}

bool NextInLine(MediaList* list, const ListLine& line, MediaListItem* item, SeriesExistsFn exists,
                void* context) {
  if (line.series) return NextInSeries(list, line, item, exists, context);
  if (list->index >= 0) return false;
  ++list->index;
  snprintf(item->name, sizeof item->name, "%s", line.name.c_str());
  const bool whole = line.start == 1 && line.end == MediaListDefaultEnd;
  item->start = whole ? 0 : line.start;
  item->end = whole ? 0 : line.end;
  return true;
}

}  // namespace

MediaList* MediaListParse(const char* text, size_t size, const char* folder) {
  MediaList* list = new (std::nothrow) MediaList;
  if (!list) return nullptr;
  char line[LineBytes];
  size_t at = 0;
  while (at < size) {
    size_t n = 0;
    while (at < size && text[at] != '\n' && text[at] != '\r') {
      if (n + 1 < sizeof line) line[n++] = text[at] ? text[at] : ' ';
      ++at;
    }
    while (at < size && (text[at] == '\n' || text[at] == '\r')) ++at;
    line[n] = 0;
    AddLine(list, line, folder);
  }
  return list;
}

MediaList* MediaListFromLine(const char* text) {
  MediaList* list = new (std::nothrow) MediaList;
  if (!list) return nullptr;
  ListLine line;
  std::string name = text;
  SplitRange(&name, &line);
  line.given = text;
  line.series = true;
  line.name = name;
  list->lines.push_back(std::move(line));
  return list;
}

void MediaListFree(MediaList* list) { delete list; }

void MediaListRewind(MediaList* list) {
  list->line = 0;
  list->repeat = 0;
  list->index = -1;
  list->given = 0;
  list->passGave = false;
  list->expected = list->found = 0;
}

size_t MediaListShortfallCount(const MediaList* list) { return list->shortfalls.size(); }

const MediaListShortfall* MediaListShortfallAt(const MediaList* list, size_t index) {
  return index < list->shortfalls.size() ? &list->shortfalls[index] : nullptr;
}

bool MediaListNext(MediaList* list, MediaListItem* item, SeriesExistsFn exists, void* context) {
  while (list->line < list->lines.size()) {
    if (list->given >= MediaListMaxEntries) return false;
    const ListLine& line = list->lines[list->line];
    if (NextInLine(list, line, item, exists, context)) {
      ++list->given;
      list->passGave = true;
      return true;
    }
    TallySeries(list, &list->lines[list->line]);
    list->index = -1;
    list->expected = list->found = 0;
    const bool gave = list->passGave;
    list->passGave = false;
    if (++list->repeat < line.repeat && gave) continue;  // a pass that gave nothing ends it
    list->repeat = 0;
    ++list->line;
  }
  return false;
}
