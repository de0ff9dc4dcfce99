#include "host/series.h"

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

namespace {

// Neighbour probes in each direction stop here, so that a fake or odd file system that answers
// "exists" to everything cannot keep the search going for ever.
constexpr int64_t ProbeLimit = 1000000;
constexpr int MaxPlaces = 9;  // digit places that still read into an int32_t
// A folder's names with digits that are tried as the start of its series, in name order.
constexpr size_t FolderTries = 16;

bool IsDigit(char c) { return c >= '0' && c <= '9'; }

int DigitCount(int64_t v) {
  int n = 1;
  while (v >= 10) v /= 10, ++n;
  return n;
}

bool CopyOut(char* dest, size_t destSize, const std::string& text) {
  if (destSize == 0) return false;
  const size_t n = text.size() < destSize - 1 ? text.size() : destSize - 1;
  memcpy(dest, text.data(), n);
  dest[n] = 0;
  return n == text.size();
}

// A printf field "%[0][width](i|d)" at text[at]; returns its length, 0 if it is none.
size_t PrintfField(const char* text, size_t at, bool* zeroFill, int* width) {
  size_t i = at + 1;
  *zeroFill = text[i] == '0';
  if (*zeroFill) ++i;
  *width = 0;
  for (; IsDigit(text[i]); ++i)
    if (*width < 1000) *width = *width * 10 + (text[i] - '0');
  if (text[i] != 'i' && text[i] != 'd') return 0;
  return i + 1 - at;
}

// "?" form: the digits fill the places from the right; extra digits go in front of the first.
bool NameFromPlaces(std::string* out, const char* pattern, int32_t n) {
  char digits[16];
  int d = snprintf(digits, sizeof digits, "%d", n);
  std::string& name = *out;
  name.assign(pattern);
  size_t firstPlace = std::string::npos;
  for (size_t i = name.size(); i-- > 0;) {
    if (name[i] != '?') continue;
    name[i] = d > 0 ? digits[--d] : '0';
    firstPlace = i;
  }
  if (firstPlace == std::string::npos) return false;
  name.insert(firstPlace, digits, static_cast<size_t>(d));
  return true;
}

// printf form: one "%0Ni" field, "%%" for a literal percent sign.
bool NameFromField(std::string* out, const char* pattern, int32_t n) {
  std::string name;
  bool fieldSeen = false;
  for (size_t i = 0; pattern[i];) {
    if (pattern[i] != '%') {
      name += pattern[i++];
      continue;
    }
    if (pattern[i + 1] == '%') {
      name += '%';
      i += 2;
      continue;
    }
    bool zeroFill;
    int width;
    const size_t length = fieldSeen ? 0 : PrintfField(pattern, i, &zeroFill, &width);
    if (length == 0) {
      name += pattern[i++];
      continue;
    }
    const std::string digits = std::to_string(n);
    if (static_cast<int>(digits.size()) < width)
      name.append(static_cast<size_t>(width) - digits.size(), zeroFill ? '0' : ' ');
    name += digits;
    fieldSeen = true;
    i += length;
  }
  if (!fieldSeen) return false;
  *out = std::move(name);
  return true;
}

bool FormName(std::string* out, const char* pattern, int32_t n) {
  if (n < 0) return false;
  return strchr(pattern, '?') ? NameFromPlaces(out, pattern, n) : NameFromField(out, pattern, n);
}

struct Range {
  int32_t first;
  int32_t last;
};

bool Exists(const char* pattern, int64_t n, SeriesExistsFn exists, void* context, std::string* name) {
  return FormName(name, pattern, static_cast<int32_t>(n)) && exists(name->c_str(), context);
}

// Walks down and up from n while the neighbours' names exist.
Range SearchAround(const char* pattern, int32_t n, SeriesExistsFn exists, void* context) {
  Range range{n, n};
  std::string name;  // reused, so that long runs do not allocate for every probe
  for (int64_t k = int64_t(n) - 1; k >= 0 && n - k <= ProbeLimit && Exists(pattern, k, exists, context, &name); --k)
    range.first = static_cast<int32_t>(k);
  for (int64_t k = int64_t(n) + 1; k <= INT32_MAX && k - n <= ProbeLimit && Exists(pattern, k, exists, context, &name);
       ++k)
    range.last = static_cast<int32_t>(k);
  return range;
}

std::string EscapePercent(const std::string& text) {
  std::string out;
  for (char c : text) {
    out += c;
    if (c == '%') out += '%';
  }
  return out;
}

// Keeps "?" only for the places that change: when first and last agree above the lowest k
// places on a value other than 0, those higher places are written as digits and the numbers
// lose that common part. Leading zeros stay "?", so Exam001..Exam003 keeps "Exam???".
void ReduceToChangingPlaces(std::string* pattern, const std::vector<size_t>& places, Range* range) {
  int64_t scale = 10;
  while (range->first / scale != range->last / scale) scale *= 10;
  int64_t high = range->first / scale;
  if (high == 0) return;
  range->first = static_cast<int32_t>(range->first - high * scale);
  range->last = static_cast<int32_t>(range->last - high * scale);
  const int changing = DigitCount(scale) - 1;
  for (int p = static_cast<int>(places.size()) - changing; p-- > 0;) {
    (*pattern)[places[static_cast<size_t>(p)]] = static_cast<char>('0' + high % 10);
    high /= 10;
  }
}

// Tries one candidate: the last `count` digits of the name as the number.
bool TryDigits(const std::string& name, const std::vector<size_t>& allDigits, size_t count,
               SeriesExistsFn exists, void* context, std::string* seriesText, Range* result) {
  const std::vector<size_t> places(allDigits.end() - static_cast<std::ptrdiff_t>(count), allDigits.end());
  int32_t n = 0;
  std::string padded = name;
  for (size_t p : places) {
    n = n * 10 + (name[p] - '0');
    padded[p] = '?';
  }
  Range range = SearchAround(padded.c_str(), n, exists, context);

  // A run without leading zeros may belong to names that are not padded (frame9, frame10).
  const bool contiguous = places.back() - places.front() == count - 1;
  if (contiguous && count > 1 && name[places.front()] != '0') {
    const std::string prefix = EscapePercent(name.substr(0, places.front()));
    const std::string suffix = EscapePercent(name.substr(places.back() + 1));
    const std::string plain = prefix + "%i" + suffix;
    const Range unpadded = SearchAround(plain.c_str(), n, exists, context);
    if (int64_t(unpadded.last) - unpadded.first > int64_t(range.last) - range.first) {
      if (unpadded.first == unpadded.last) return false;
      *result = unpadded;
      *seriesText = prefix + "%0" + std::to_string(DigitCount(unpadded.first)) + "i" + suffix;
      return true;
    }
  }
  if (range.first == range.last) return false;
  ReduceToChangingPlaces(&padded, places, &range);
  *result = range;
  *seriesText = padded;
  return true;
}

}  // namespace

bool SeriesParse(const char* seriesText, FileSeries* series) {
  const char* star = strrchr(seriesText, '*');
  if (!star || static_cast<size_t>(star - seriesText) >= SeriesPatternSize) return false;
  int64_t numbers[2] = {0, 0};
  const char* p = star + 1;
  for (int i = 0; i < 2; ++i) {
    if (i == 1 && *p++ != '-') return false;
    if (!IsDigit(*p)) return false;
    for (; IsDigit(*p); ++p) {
      numbers[i] = numbers[i] * 10 + (*p - '0');
      if (numbers[i] > INT32_MAX) return false;
    }
  }
  while (*p && static_cast<unsigned char>(*p) <= ' ') ++p;
  if (*p || numbers[0] > numbers[1]) return false;
  const size_t length = static_cast<size_t>(star - seriesText);
  memcpy(series->pattern, seriesText, length);
  series->pattern[length] = 0;
  series->first = static_cast<int32_t>(numbers[0]);
  series->last = static_cast<int32_t>(numbers[1]);
  std::string probe;
  return FormName(&probe, series->pattern, series->first);
}

bool SeriesName(char* dest, size_t destSize, const char* pattern, int32_t n) {
  std::string name;
  if (!FormName(&name, pattern, n)) {
    if (destSize > 0) dest[0] = 0;
    return false;
  }
  return CopyOut(dest, destSize, name);
}

bool SeriesFileExists(const char* path, void*) {
  const int fd = open(path, O_RDONLY | O_CLOEXEC);
  if (fd < 0) return false;
  struct stat info;
  const bool regular = fstat(fd, &info) == 0 && S_ISREG(info.st_mode);
  close(fd);
  return regular;
}

bool FindSequence(char* dest, size_t destSize, int32_t* first, int32_t* last, const char* name) {
  return FindSequenceWith(dest, destSize, first, last, name, SeriesFileExists, nullptr);
}

bool FindSequenceWith(char* dest, size_t destSize, int32_t* first, int32_t* last, const char* name,
                      SeriesExistsFn exists, void* context) {
  if (destSize > 0) dest[0] = 0;
  const std::string text = name;
  // A "?" already in the name could not be told from a digit place.
  if (text.empty() || text.size() >= SeriesPatternSize || text.find('?') != std::string::npos) return false;
  const size_t slash = text.rfind('/');
  const size_t base = slash == std::string::npos ? 0 : slash + 1;
  std::vector<size_t> digits;
  for (size_t i = base; i < text.size(); ++i)
    if (IsDigit(text[i])) digits.push_back(i);
  const size_t most = digits.size() < MaxPlaces ? digits.size() : MaxPlaces;
  for (size_t count = most; count >= 1; --count) {
    std::string seriesText;
    Range range;
    if (!TryDigits(text, digits, count, exists, context, &seriesText, &range)) continue;
    seriesText += "*" + std::to_string(range.first) + "-" + std::to_string(range.last);
    if (!CopyOut(dest, destSize, seriesText)) {
      if (destSize > 0) dest[0] = 0;
      return false;
    }
    *first = range.first, *last = range.last;
    return true;
  }
  return false;
}

bool IsFolder(const char* path) {
  struct stat info;
  return path && path[0] && stat(path, &info) == 0 && S_ISDIR(info.st_mode);
}

bool FindFolderSequence(char* dest, size_t destSize, const char* folder) {
  if (destSize > 0) dest[0] = 0;
  DIR* dir = opendir(folder);
  if (!dir) return false;
  std::vector<std::string> names;
  while (const dirent* entry = readdir(dir)) {
    const char* name = entry->d_name;
    if (name[0] == '.' || !strpbrk(name, "0123456789")) continue;
    names.push_back(name);
  }
  closedir(dir);
  std::sort(names.begin(), names.end());
  std::string base = folder;
  if (!base.empty() && base.back() != '/') base += '/';
  size_t tries = 0;
  for (const std::string& name : names) {
    const std::string path = base + name;
    if (!SeriesFileExists(path.c_str(), nullptr)) continue;  // folders and the unreadable
    int32_t first = 0, last = 0;
    if (FindSequence(dest, destSize, &first, &last, path.c_str())) return true;
    if (++tries == FolderTries) break;
  }
  return false;
}

namespace {
// The prompt's fixed parts, around the name and the two numbers.
constexpr char PromptHead[] = "File, \"";
constexpr char PromptMiddle[] = "\", appears to be part of a sequence of files (";
constexpr char PromptTail[] = ").\nDo you want to treat the sequence as a single animation?";
}  // namespace

size_t SequencePromptText(char* dest, size_t destSize, const char* name, int32_t first, int32_t last) {
  const int n = snprintf(dest, destSize, "%s%s%s%i to %i%s", PromptHead, name, PromptMiddle, first,
                         last, PromptTail);
  return n < 0 ? 0 : static_cast<size_t>(n);
}

bool IsSequencePrompt(const char* text) {
  if (!text || strncmp(text, PromptHead, sizeof PromptHead - 1) != 0) return false;
  const size_t length = strlen(text), tail = sizeof PromptTail - 1;
  if (length < tail || strcmp(text + length - tail, PromptTail) != 0) return false;
  return strstr(text, PromptMiddle) != nullptr;
}
