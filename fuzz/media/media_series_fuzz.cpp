// Fuzz target: series names as MediaOpen takes them ("shot???.png*5-20", "frame%02i.png*8-",
// with /S /E /L behind). The bytes (up to the first zero) are one name; it is parsed and
// walked as a one-line list, split and expanded number by number, and searched for the series
// a plain numbered name belongs to (the "Treat as sequence?" path). Which names "exist"
// follows from a hash of the name, so walks end in varied places without touching the disk.
#include <cstddef>
#include <cstdint>
#include <string>

#include "host/series.h"
#include "fuzz_exists.h"
#include "media/media_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size > 2 * SeriesPatternSize) return 0;
  const std::string name(reinterpret_cast<const char*>(data), size);
  const char* text = name.c_str();  // stops at the first zero byte, as a C caller's name would

  if (MediaList* list = MediaListFromLine(text)) {
    MediaListItem item;
    for (int pass = 0; pass < 2; ++pass) {
      for (int i = 0; i < 4096 && MediaListNext(list, &item, HashExists, nullptr); ++i) {
      }
      MediaListRewind(list);
    }
    MediaListFree(list);
  }

  FileSeries series;
  if (SeriesParse(text, &series)) {
    char one[256];
    for (int32_t n : {series.first, series.last, series.last - 1, 0, 99999, INT32_MAX})
      SeriesName(one, sizeof one, series.pattern, n);
  }

  char found[MediaNameBytes];
  int32_t first = 0, last = 0;
  if (FindSequenceWith(found, sizeof found, &first, &last, text, HashExists, nullptr)) {
    char prompt[2 * MediaNameBytes];
    SequencePromptText(prompt, sizeof prompt, text, first, last);
  }
  return 0;
}
