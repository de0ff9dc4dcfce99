// Fuzzes the first-generation frame decoder on a few small frame sizes, all with an alpha
// plane: 48x32 luma (24x16 chroma), a single block 8x8 whose chroma (8x8) is as large as its
// luma, an odd block width of 40x16 (24x8 chroma), and a tall 16x72 (8x40). The first byte
// picks the file tag and the decode flags, the second the frame size; the rest is the frame
// section, copied to an exact-size buffer so that any read past it is caught. Writes outside
// the planes are caught by guard bytes around each plane.
#include "decode/velmo1_decoder.h"

#include <cstddef>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <vector>

namespace {

constexpr uint32_t Margin = 8;
constexpr uint8_t Guard = 0x5A;

struct Frames {
  uint32_t LumaW, LumaH, ChromaW, ChromaH;
  VelmoFrameBuffers Fb{};
  std::vector<uint8_t> Memory[2][4];
  Frames(uint32_t lw, uint32_t lh, uint32_t cw, uint32_t ch)
      : LumaW(lw), LumaH(lh), ChromaW(cw), ChromaH(ch) {
    Fb.Count = 2;
    Fb.Width = Fb.LumaWidth = LumaW;
    Fb.Height = Fb.LumaHeight = LumaH;
    Fb.ChromaWidth = ChromaW;
    Fb.ChromaHeight = ChromaH;
    Fb.LumaPitch = LumaW + Margin;
    Fb.ChromaPitch = ChromaW + Margin;
    Fb.HasAlpha = 1;
    for (int s = 0; s < 2; ++s)
      for (int p = 0; p < 4; ++p) {
        const bool luma = p == VelmoPlaneY || p == VelmoPlaneAlpha;
        const size_t pitch = luma ? Fb.LumaPitch : Fb.ChromaPitch;
        Memory[s][p].assign(pitch * ((luma ? LumaH : ChromaH) + 2), Guard);
        Fb.Sets[s].Planes[p] = Memory[s][p].data() + pitch;
      }
  }
  void Check() const {
    for (int s = 0; s < 2; ++s)
      for (int p = 0; p < 4; ++p) {
        const bool luma = p == VelmoPlaneY || p == VelmoPlaneAlpha;
        const size_t pitch = luma ? Fb.LumaPitch : Fb.ChromaPitch, h = luma ? LumaH : ChromaH;
        const size_t w = luma ? LumaW : ChromaW;
        const std::vector<uint8_t>& m = Memory[s][p];
        for (size_t i = 0; i < m.size(); ++i) {
          const size_t line = i / pitch, col = i % pitch;
          if (!(line >= 1 && line <= h && col < w) && m[i] != Guard) std::abort();
        }
      }
  }
};

constexpr uint32_t Tag(char letter) { return 'V' | 'L' << 8 | 'M' << 16 | uint32_t(uint8_t(letter)) << 24; }

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2) return 0;
  static Frames sizes[4] = {{48, 32, 24, 16}, {8, 8, 8, 8}, {40, 16, 24, 8}, {16, 72, 8, 40}};
  Frames& frames = sizes[data[1] & 3];
  const uint8_t control = data[0];
  static const uint32_t tags[4] = {Tag('g'), Tag('h'), Tag('i'), Tag('k')};
  const uint32_t tag = tags[control & 3];
  uint32_t flags = 0;
  if (control & 4) flags |= Velmo1AlphaPlane;
  if (control & 8) flags |= Velmo1SkipLuma;
  if (control & 16) flags |= Velmo1SkipChroma;
  if ((control & 3) < 2) flags |= Velmo1OldRevision;
  const uint32_t fileFlags = (control & 32) ? Velmo1FileHasAlpha : 0;

  const size_t n = size - 2;
  std::unique_ptr<uint8_t[]> section(new uint8_t[n ? n : 1]);
  if (n) std::memcpy(section.get(), data + 2, n);
  const uint32_t figure =
      Velmo1DecodeFrame(&frames.Fb, section.get(), section.get() + n + 4, nullptr, flags, fileFlags, tag);
  if (figure > 100) std::abort();
  frames.Check();
  frames.Fb.Current ^= (control >> 6) & 1;
  return 0;
}
