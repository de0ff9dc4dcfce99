// Fuzzes the mixer's reading of its input: arbitrary bytes are written as the input file and
// mixed with tracks that need no sound encoder (a removal of a track that may be there, and one
// that matches nothing), so every frame is copied. The first byte picks an input offset and
// whether a frame rate is forced. A mix that succeeds must have written exactly the size it
// reports, with a header that says so.
#include <unistd.h>

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

#include "compress/tool/velmomix.h"
#include "format/container.h"

namespace {

std::string g_dir;

void RemoveDir() {
  std::remove((g_dir + "/in.vlm").c_str());
  rmdir(g_dir.c_str());
}

std::vector<uint8_t> ReadAll(const std::string& name) {
  std::vector<uint8_t> bytes;
  if (FILE* f = std::fopen(name.c_str(), "rb")) {
    uint8_t chunk[4096];
    size_t n;
    while ((n = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + n);
    std::fclose(f);
  }
  return bytes;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (g_dir.empty()) {
    char pattern[] = "/tmp/velmomix_fuzz_XXXXXX";
    if (!mkdtemp(pattern)) std::abort();
    g_dir = pattern;
    std::atexit(RemoveDir);
  }
  if (size < 1) return 0;
  const uint8_t control = data[0];
  const std::string in = g_dir + "/in.vlm", out = g_dir + "/out.vlm";
  if (FILE* f = std::fopen(in.c_str(), "wb")) {
    std::fwrite(data + 1, 1, size - 1, f);
    std::fclose(f);
  }
  const uint64_t offset = (control & 0x0f) == 0x0f ? 8 : 0;
  const uint32_t rate = control & 0x10 ? 24 : 0;
  VelmoMixTrack tracks[2] = {};
  tracks[0].TrackId = control >> 5;  // ids 0 to 7: often one the file has
  tracks[1].TrackId = 0x7fffffff;
  VelmoMixProgress progress{};
  const uint64_t mixed = VelmoMixFile(in.c_str(), out.c_str(), offset, rate, rate ? 1 : 0, 0, 2,
                                      tracks, &progress);
  if (mixed) {
    const std::vector<uint8_t> file = ReadAll(out);
    VelmoHeader header{};
    if (file.size() != mixed || !VelmoParseHeader(file.data(), file.size(), &header) ||
        header.FileSizeLess8 != uint32_t(mixed - 8) || !MagicIsValid(header.Magic) ||
        progress.FramesDone != header.Frames)
      std::abort();
  }
  std::remove(out.c_str());
  std::remove((out + ".tmp").c_str());
  return 0;
}
