// File series: one name that stands for a numbered run of files.
//
// "Exam???.BMP*1-149" means Exam001.BMP through Exam149.BMP. The "?" are the digit places of
// the number, filled with leading zeros from the right (they may be split by other characters,
// as in "shot?_????.tga"); a number too large for the places makes the name grow. A name
// without leading zeros uses a printf field instead: "frame%01i.png*8-12" gives frame8.png to
// frame12.png ("%%" is a literal percent sign in that form). Behind the last "*" stand the
// first and last numbers, separated by "-".
#pragma once
#include <cstddef>
#include <cstdint>

inline constexpr size_t SeriesPatternSize = 4096;

struct FileSeries {
  char pattern[SeriesPatternSize];  // the name with its digit places
  int32_t first;
  int32_t last;
};

// Splits "pattern*first-last". False when there is no "*", the numbers are missing or
// reversed (0 <= first <= last is required), or the pattern has no digit places.
bool SeriesParse(const char* seriesText, FileSeries* series);

// The name of number `n` in the series pattern. False when the pattern has no digit places,
// `n` is negative, or dest is too small (dest then holds as much as fits).
bool SeriesName(char* dest, size_t destSize, const char* pattern, int32_t n);

// Whether a file exists and opens for reading. Tests install a fake file set.
typedef bool (*SeriesExistsFn)(const char* path, void* context);
bool SeriesFileExists(const char* path, void* context);  // the real file system

// Finds the series a numbered file name belongs to, by trying its neighbours' names. On
// success dest holds "pattern*first-last", first and last are set, and the result is true;
// otherwise dest is empty. Only the digits of the last path component count.
bool FindSequence(char* dest, size_t destSize, int32_t* first, int32_t* last, const char* name);
bool FindSequenceWith(char* dest, size_t destSize, int32_t* first, int32_t* last, const char* name,
                      SeriesExistsFn exists, void* context);

// A folder given where a file is expected stands for the numbered series in it: the first file
// name (in name order) that belongs to a series of two or more gives the series, as
// FindSequence writes it, into dest. False (dest empty) when the folder holds none.
bool IsFolder(const char* path);
bool FindFolderSequence(char* dest, size_t destSize, const char* folder);

// The question a dialog asks before it replaces a single name by its series.
inline constexpr const char* SequencePromptTitle = "Treat as sequence?";
size_t SequencePromptText(char* dest, size_t destSize, const char* name, int32_t first, int32_t last);
// True when `text` is a question that SequencePromptText wrote, so that whoever shows questions
// can give it its own box.
bool IsSequencePrompt(const char* text);
