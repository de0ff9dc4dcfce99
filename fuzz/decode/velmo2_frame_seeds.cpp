// Writes the seeds of velmo2_frame_fuzz into the folder given as the only argument: generated
// key and inter sections (tests/support/velmo2_stream.h) behind the fuzz target's five control
// bytes, one seed per picture size, tag, slice mode, plane set and share split worth covering.
#include "support/velmo2_stream.h"

#include <cstdint>
#include <cstdio>
#include <string>
#include <vector>

namespace {

struct Seed {
  const char* Name;
  uint8_t SizeIndex;  // into the fuzz target's picture sizes
  uint32_t Width, Height;
  uint8_t TagIndex;   // "VM2g", "VM2h", "VM2j", "VM2m"
  uint32_t Mode;
  bool Alpha, Hdr;
  uint32_t Split, Cuts;
  uint32_t FrameWord;
};

constexpr char kTags[4] = {'g', 'h', 'j', 'm'};

const Seed kSeeds[] = {
    {"one_block", 0, 8, 8, 2, 0, false, false, 0, 0, 0x10000 | 4},
    {"rounded_up_to_three_slices_alpha", 1, 40, 127, 1, 1, true, false, 1, 0, 0x10000 | 0x20000 | 6},
    {"eight_slices_at_128", 2, 72, 128, 2, 3, false, false, 1, 0, 0x10000 | 0x40000 | 5},
    {"old_tag_two_slices", 3, 100, 97, 0, 0, false, false, 0, 0, 0x4000 | 0x10000 | 2},
    {"one_slice_at_96", 4, 48, 96, 3, 3, true, true, 1, 0, 0x10000 | 0x40000 | 0x20000 | 1},
    {"hdr_const_alpha_pairs", 5, 200, 160, 3, 2, true, true, 2, 0,
     0x10000 | 0x80000 | 0xC0000000u | 3},
    {"cut_shares_reversed", 6, 136, 264, 2, 3, false, false, 3, 0x80 | 0x15, 0x18000 | 0x40000 | 7},
    {"tall_narrow_alpha", 7, 24, 300, 1, 2, true, false, 1, 0, 0x10000 | 8},
};

}  // namespace

int main(int argc, char** argv) {
  if (argc != 2) {
    std::fprintf(stderr, "usage: velmo2_frame_seeds <folder>\n");
    return 2;
  }
  for (const Seed& s : kSeeds) {
    velmo2_test::StreamPlan plan;
    plan.Width = s.Width;
    plan.Height = s.Height;
    plan.Tag = kTags[s.TagIndex];
    plan.FileFlags = s.Mode;
    plan.Alpha = s.Alpha;
    plan.Hdr = s.Hdr;
    plan.FrameWord = s.FrameWord;
    plan.Shares.CodedBlocks = 0.15;
    plan.Shares.AcDensity = 0.06;
    plan.Seed = 1000 + s.SizeIndex;
    plan.Key = true;
    const std::vector<uint8_t> key = velmo2_test::GenerateSection(plan);
    plan.Key = false;
    plan.Seed += 1;
    const std::vector<uint8_t> inter = velmo2_test::GenerateSection(plan);
    if (key.size() > 0xFFFF) return 1;
    std::vector<uint8_t> input = {
        s.SizeIndex,
        uint8_t(s.Mode | s.TagIndex << 2 | (s.Alpha ? 16 : 0) | (s.Hdr ? 32 : 0) | s.Split << 6),
        uint8_t(s.Cuts), uint8_t(key.size()), uint8_t(key.size() >> 8)};
    input.insert(input.end(), key.begin(), key.end());
    input.insert(input.end(), inter.begin(), inter.end());
    const std::string path = std::string(argv[1]) + "/" + s.Name;
    FILE* f = std::fopen(path.c_str(), "wb");
    if (!f || std::fwrite(input.data(), 1, input.size(), f) != input.size()) return 1;
    std::fclose(f);
  }
  return 0;
}
