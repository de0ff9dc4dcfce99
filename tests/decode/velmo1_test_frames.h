// Frame buffers for decoder tests and benchmarks: every plane sits inside a larger block of
// guard bytes, so that a write outside a plane shows up as a changed guard.
#pragma once
#include "format/frame_buffers.h"

#include <cstdint>
#include <cstring>
#include <vector>

struct Velmo1TestFrames {
  static constexpr int32_t Margin = 16;  // guard bytes to the right of each line
  static constexpr size_t GuardLines = 2;
  static constexpr uint8_t Guard = 0xA5;

  VelmoFrameBuffers Fb{};
  std::vector<uint8_t> Memory[2][VelmoPlaneCount];

  Velmo1TestFrames(uint32_t lumaW, uint32_t lumaH, uint32_t chromaW, uint32_t chromaH,
                   bool alpha, uint32_t count = 2) {
    Fb.Count = count;
    Fb.Current = 0;
    Fb.Width = Fb.LumaWidth = lumaW;
    Fb.Height = Fb.LumaHeight = lumaH;
    Fb.ChromaWidth = chromaW;
    Fb.ChromaHeight = chromaH;
    Fb.LumaPitch = int32_t(lumaW) + Margin;
    Fb.ChromaPitch = int32_t(chromaW) + Margin;
    Fb.HasAlpha = alpha;
    for (uint32_t s = 0; s < count; ++s) {
      for (uint32_t p = 0; p < VelmoPlaneHdr; ++p) {
        if (p == VelmoPlaneAlpha && !alpha) continue;
        const bool luma = p == VelmoPlaneY || p == VelmoPlaneAlpha;
        const size_t pitch = size_t(luma ? Fb.LumaPitch : Fb.ChromaPitch);
        const size_t lines = (luma ? lumaH : chromaH) + 2 * GuardLines;
        Memory[s][p].assign(pitch * lines, Guard);
        Fb.Sets[s].Planes[p] = Memory[s][p].data() + GuardLines * pitch;
        FillPlane(s, p, 0);
      }
    }
  }

  uint32_t Width(uint32_t p) const { return Luma(p) ? Fb.LumaWidth : Fb.ChromaWidth; }
  uint32_t Height(uint32_t p) const { return Luma(p) ? Fb.LumaHeight : Fb.ChromaHeight; }
  int32_t Pitch(uint32_t p) const { return Luma(p) ? Fb.LumaPitch : Fb.ChromaPitch; }
  static bool Luma(uint32_t p) { return p == VelmoPlaneY || p == VelmoPlaneAlpha; }

  uint8_t* Pixel(uint32_t set, uint32_t p, uint32_t x, uint32_t y) {
    return Fb.Sets[set].Planes[p] + size_t(y) * size_t(Pitch(p)) + x;
  }
  void FillPlane(uint32_t set, uint32_t p, uint8_t v) {
    for (uint32_t y = 0; y < Height(p); ++y) std::memset(Pixel(set, p, 0, y), v, Width(p));
  }
  // True when every byte outside the planes' pixels still holds the guard value.
  bool GuardsIntact() const {
    for (uint32_t s = 0; s < Fb.Count; ++s) {
      for (uint32_t p = 0; p < VelmoPlaneHdr; ++p) {
        const std::vector<uint8_t>& m = Memory[s][p];
        if (m.empty()) continue;
        const size_t pitch = size_t(Pitch(p));
        for (size_t i = 0; i < m.size(); ++i) {
          const size_t line = i / pitch, col = i % pitch;
          const bool inside = line >= GuardLines && line < GuardLines + Height(p) && col < Width(p);
          if (!inside && m[i] != Guard) return false;
        }
      }
    }
    return true;
  }
};
