// Second-generation files for tests, in memory: video sections (from velmo2_stream.h, or any
// bytes) wrapped with the container's writer functions through velmo_file.h, with key-frame
// flags in the index, any of the tags "VM2g", "VM2h", "VM2j", "VM2m" and a slice mode.
#pragma once
#include "support/velmo2_stream.h"
#include "support/velmo_file.h"

#include <cstdint>
#include <cstring>
#include <vector>

namespace velmo2_test {

struct FileFrames {
  char Tag = 'j';          // 'g', 'h' (no extras block), 'j' or 'm' (HDR)
  uint32_t SliceMode = 0;  // 0..3, stored in the flags' low two bits
  int32_t Width = 64, Height = 64;
  bool Alpha = false;
  std::vector<std::vector<uint8_t>> Sections;
  std::vector<bool> Key;   // one per section
};

// The file: the writer builds "VM2j" and "VM2m" (version 200, with HDR for 'm'); "VM2g" and
// "VM2h" have no extras block, so they are built as the version without one and get their tag
// and slice mode written into the finished header.
inline std::vector<uint8_t> BuildFile(const FileFrames& f) {
  static const int16_t kHdrBlock[6] = {100, -200, 300, -400, 500, 1000};
  velmo_test::FilePlan plan;
  const bool extras = f.Tag == 'j' || f.Tag == 'm';
  plan.Version = extras ? 200 : 100;
  plan.Width = f.Width;
  plan.Height = f.Height;
  plan.Frames = uint32_t(f.Sections.size());
  plan.KeyEvery = 0;
  plan.SliceMode = f.SliceMode;
  plan.Flags = (f.Alpha ? uint32_t(VelmoFlagAlpha) : 0u) | (f.Tag == 'm' ? uint32_t(VelmoFlagHdr) : 0u);
  plan.HdrBlock = f.Tag == 'm' ? kHdrBlock : nullptr;
  plan.Video = [&](uint32_t i) { return f.Sections[i]; };
  velmo_test::TestWriter w = velmo_test::BuildWriter(plan);
  for (uint32_t i = 0; i < plan.Frames; ++i) {
    if (f.Key[i]) w.Entries[i] |= 1;
  }
  velmo_test::Checkpoint(&w);
  if (!extras) {
    const uint32_t magic = VelmoMagicOf('V', 'M', '2', f.Tag);
    std::memcpy(w.File.data(), &magic, 4);
    uint32_t flags = 0;
    std::memcpy(&flags, w.File.data() + 36, 4);
    flags = (flags & ~3u) | (f.SliceMode & 3);
    std::memcpy(w.File.data() + 36, &flags, 4);
  }
  return w.File;
}

}  // namespace velmo2_test
