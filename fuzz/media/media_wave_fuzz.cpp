// Fuzz target: the RIFF chunk walk that finds a wave file's format and data size.
#include <cstddef>
#include <cstdint>
#include <cstdio>

#include "media/media_internal.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size == 0) return 0;
  FILE* file = fmemopen(const_cast<uint8_t*>(data), size, "rb");
  if (!file) return 0;
  MediaWaveInfo info;
  MediaReadWaveInfo(file, &info);
  fclose(file);
  return 0;
}
