// Fuzz target: list file text, parsed and walked. Which names "exist" follows from the bytes of
// the name, so open-ended series end in varied places without touching the disk.
#include <cstddef>
#include <cstdint>

#include "fuzz_exists.h"
#include "media/media_list.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  MediaList* list = MediaListParse(reinterpret_cast<const char*>(data), size, "folder/");
  if (!list) return 0;
  MediaListItem item;
  for (int pass = 0; pass < 2; ++pass) {
    for (int i = 0; i < 4096 && MediaListNext(list, &item, HashExists, nullptr); ++i) {
    }
    MediaListRewind(list);
  }
  MediaListFree(list);
  return 0;
}
