// Frames and destination surfaces for the copy-out tests: planes with pitches wider than the
// picture (or exactly as large as it), surfaces with guard bytes around them, and the files'
// colour tables.
#pragma once
#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "format/container.h"
#include "reader/copyout.h"

namespace copyouttest {

struct Table {
  float V[16];
};

// The files' default tables (their values are checked in the container tests).
inline Table DefaultTable(uint32_t fileFlags) {
  Table t;
  VelmoDefaultColourTable(VelmoMagicVM2j, fileFlags, t.V);
  return t;
}
inline const Table Video = DefaultTable(0), Full = DefaultTable(VelmoFlagFullRange);
inline const float* const VideoTable = Video.V;
inline const float* const FullTable = Full.V;

// A table with the Cr and Cb rows exchanged.
inline Table SwappedChroma(const float* table) {
  Table t;
  std::memcpy(t.V, table, sizeof t.V);
  for (int i = 0; i < 3; ++i) std::swap(t.V[i], t.V[4 + i]);
  return t;
}

inline constexpr uint32_t ValidFormats[] = {3, 4, 5, 6, 8, 9, 10, 12};

inline int BytesOf(uint32_t format) { return format >= 8 && format <= 10 ? 2 : 4; }

// A frame's planes, with pitches wider than the picture.
struct Frame {
  uint32_t W = 0, H = 0;
  int32_t LumaPitch = 0, ChromaPitch = 0;
  std::vector<uint8_t> Y, Cr, Cb, A;

  // Tight planes are exactly as large as the picture, each in its own allocation.
  Frame(uint32_t w, uint32_t h, bool alpha, bool tight = false) : W(w), H(h) {
    LumaPitch = int32_t(tight ? w : w + 7);
    ChromaPitch = int32_t((w + 1) / 2 + (tight ? 0 : 5));
    Y.assign(size_t(LumaPitch) * h, 0);
    Cr.assign(size_t(ChromaPitch) * ((h + 1) / 2), 128);
    Cb = Cr;
    if (alpha) A.assign(Y.size(), 255);
  }
  void Randomize(std::mt19937& rng) {
    for (auto* p : {&Y, &Cr, &Cb, &A})
      for (auto& v : *p) v = uint8_t(rng());
  }
  void Fill(uint8_t y, uint8_t cr, uint8_t cb) {
    std::fill(Y.begin(), Y.end(), y);
    std::fill(Cr.begin(), Cr.end(), cr);
    std::fill(Cb.begin(), Cb.end(), cb);
  }
  uint8_t& ChromaAt(std::vector<uint8_t>& p, uint32_t x, uint32_t y) {
    return p[size_t(y) * ChromaPitch + x];
  }
  VelmoCopySource Source(const float* table = VideoTable) const {
    VelmoCopySource s{};
    s.Y = Y.data();
    s.Cr = Cr.data();
    s.Cb = Cb.data();
    s.Alpha = A.empty() ? nullptr : A.data();
    s.LumaPitch = LumaPitch;
    s.ChromaPitch = ChromaPitch;
    s.Width = W;
    s.Height = H;
    std::memcpy(s.ColourTable, table, sizeof s.ColourTable);
    return s;
  }
};

// A destination surface with guard bytes in front and behind.
inline constexpr size_t Guard = 64;
inline constexpr uint8_t GuardByte = 0xA5;

struct Surface {
  int32_t Pitch, Lines;
  std::vector<uint8_t> Mem;
  Surface(int32_t pitch, int32_t lines)
      : Pitch(pitch), Lines(lines), Mem(Guard * 2 + size_t(std::abs(pitch)) * lines, GuardByte) {}
  uint8_t* Base() { return Mem.data() + Guard; }
  // Byte offset of pixel (x, y) counted from the top line.
  size_t Offset(int32_t x, int32_t y, int bytes) const {
    const int32_t line = Pitch < 0 ? Lines - 1 - y : y;
    return Guard + size_t(line) * std::abs(Pitch) + size_t(x) * bytes;
  }
  uint32_t Pixel(int32_t x, int32_t y, int bytes) const {
    uint32_t v = 0;
    for (int k = 0; k < bytes; ++k) v |= uint32_t(Mem[Offset(x, y, bytes) + k]) << (8 * k);
    return v;
  }
};

}  // namespace copyouttest
