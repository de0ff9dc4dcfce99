// Second-generation Velmo files for tool tests: every frame a key frame whose planes are each
// one flat level. The frames are written bit by bit from the stream's codes (the frame word,
// slice offsets, and intra macroblocks with no AC data whose first DC residual in each slice
// sets the whole slice's level), and the file around them with the container's writer
// functions through velmo_file.h.
//
// At the start quantiser of 16, a DC residual level L gives the DC value 1024 + 16 L and the
// pixel 128 + 2 L; so a plane can hold the even values 0 to 254, and FlatValue says which of
// them a wanted value becomes.
#pragma once
#include "support/bit_writer.h"
#include "support/files.h"
#include "support/velmo2_stream.h"
#include "support/velmo_file.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdint>
#include <cstring>
#include <string>
#include <vector>

namespace velmo_test {

// The level of each plane of one frame, as pixel values. Alpha and HDR count only in files
// that have those planes.
struct FlatFrame {
  uint8_t Y = 128, Cr = 128, Cb = 128, Alpha = 255, Hdr = 0;
};

// The nearest value a flat plane can hold.
inline uint8_t FlatValue(double wanted) {
  const double even = 2.0 * std::floor(wanted / 2.0 + 0.5);
  return uint8_t(std::clamp(even, 0.0, 254.0));
}

struct FlatFilePlan {
  uint32_t Width = 64, Height = 32;
  uint32_t Rate = 30, RateDiv = 1;
  bool Hdr = false;               // "VM2m" with an HDR block (HdrBlock below) and an HDR plane
  bool Alpha = false;             // an alpha plane
  uint32_t SliceMode = 0;         // 0..3: 2, 3, 4 or 8 slices from a padded height of 128 up
  int16_t HdrBlock[6] = {0, 0, 0, 0, 0, 1000};
  std::vector<FlatFrame> Frames;  // one entry a frame
  // Frames (from 0) written in the older stream: frame word bit 13 clear, no macroblocks.
  std::vector<uint32_t> OlderFrames;
};

// Stream pieces --------------------------------------------------------------------------------

// One intra plane without AC data after a plane whose previous mask was 0: the mask code
// (luma-like planes: mask 0 and the clone bit 0; chroma: the default mask), the "any DC" bit,
// and, if any, the levels by block with `first` on block 0.
inline void PutFlatIntraPlane(BitWriter& w, bool chroma, int32_t first) {
  w.Code(chroma ? "1" : "1 0");
  w.PutBit(first != 0);
  if (first == 0) return;
  const uint32_t blocks = chroma ? 4 : 16;
  for (uint32_t b = 0; b < blocks; ++b) velmo2_test::PutDcLevel(w, b == 0 ? first : 0);
}

// The level that gives a pixel value (even, 0..254).
inline int32_t FlatLevel(uint8_t value) { return (int32_t(value) - 128) / 2; }

// A key-frame macroblock: quantiser unchanged, then Y, Cr, Cb, alpha and HDR in that order.
// The first macroblock of a slice carries the levels, the others repeat their neighbours.
inline void PutFlatMacroblock(BitWriter& w, const FlatFilePlan& plan, const FlatFrame& f,
                              bool first) {
  w.Code("1");
  PutFlatIntraPlane(w, false, first ? FlatLevel(f.Y) : 0);
  PutFlatIntraPlane(w, true, first ? FlatLevel(f.Cr) : 0);
  PutFlatIntraPlane(w, true, first ? FlatLevel(f.Cb) : 0);
  if (plan.Alpha) PutFlatIntraPlane(w, false, first ? FlatLevel(f.Alpha) : 0);
  if (plan.Hdr) PutFlatIntraPlane(w, false, first ? FlatLevel(f.Hdr) : 0);
}

// Where the slices of a "VM2h" to "VM2m" picture end, in rows of pixels of the padded height.
inline std::vector<uint32_t> FlatSliceEnds(const FlatFilePlan& plan) {
  const uint32_t padded = (plan.Height + 31) & ~31u;
  if (padded < 128) return {padded};
  static const uint32_t counts[4] = {2, 3, 4, 8};
  const uint32_t n = counts[plan.SliceMode & 3];
  std::vector<uint32_t> ends{((n * 32 + padded - 1) / n) & ~31u};
  for (uint32_t m = n - 1; m > 1; --m) {
    const uint32_t end = ends.back();
    ends.push_back(end + (((m * 32 - end + padded - 1) / m) & ~31u));
  }
  ends.push_back(padded);
  return ends;
}

// Frame word bits: the current stream, and no edge filtering in either direction (a flat
// picture has no edges to smooth, and so no edge maps stand in the stream). The flat-block
// limit in bits 0-7 is 0.
constexpr uint32_t FlatCurrentStream = 0x2000, FlatNoEdges = 0x4000 | 0x8000;

// The video section of one frame: frame word, offsets of slices 1 and up, each slice's words.
inline std::vector<uint8_t> FlatVideo(const FlatFilePlan& plan, uint32_t index) {
  const bool older =
      std::find(plan.OlderFrames.begin(), plan.OlderFrames.end(), index) != plan.OlderFrames.end();
  const std::vector<uint32_t> ends = FlatSliceEnds(plan);
  const uint32_t n = uint32_t(ends.size());
  const uint32_t word = older ? FlatNoEdges : FlatCurrentStream | FlatNoEdges;
  std::vector<uint8_t> out(n < 3 ? 8 : n * 4, 0);
  std::memcpy(out.data(), &word, 4);
  if (older) return out;
  const uint32_t across = (plan.Width + 31) / 32;
  uint32_t top = 0;
  for (uint32_t k = 0; k < n; ++k) {
    if (k > 0) {
      const uint32_t offset = uint32_t(out.size());
      std::memcpy(out.data() + 4 * k, &offset, 4);
    }
    BitWriter w;
    const uint32_t macroblocks = (ends[k] - top) / 32 * across;
    for (uint32_t mb = 0; mb < macroblocks; ++mb)
      PutFlatMacroblock(w, plan, plan.Frames[index], mb == 0);
    const std::vector<uint8_t> bytes = w.Bytes();
    out.insert(out.end(), bytes.begin(), bytes.end());
    top = ends[k];
  }
  return out;
}

// The whole file: "VM2j" (or "VM2m" with Hdr), every frame a key frame.
inline std::vector<uint8_t> BuildFlatFile(const FlatFilePlan& plan) {
  FilePlan p;
  p.Version = 200;
  p.Width = int32_t(plan.Width);
  p.Height = int32_t(plan.Height);
  p.Rate = plan.Rate;
  p.RateDiv = plan.RateDiv;
  p.Frames = uint32_t(plan.Frames.size());
  p.KeyEvery = 1;
  p.Flags = (plan.Hdr ? uint32_t(VelmoFlagHdr) : 0u) | (plan.Alpha ? uint32_t(VelmoFlagAlpha) : 0u);
  p.SliceMode = plan.SliceMode;
  p.HdrBlock = plan.Hdr ? plan.HdrBlock : nullptr;
  p.Video = [&plan](uint32_t i) { return FlatVideo(plan, i); };
  return BuildFile(p);
}

inline void WriteFlatFile(const std::string& name, const FlatFilePlan& plan) {
  test_support::WriteFile(name, BuildFlatFile(plan));
}

}  // namespace velmo_test
