// Pixel fetches: how a stage reads the frame at hand, whatever its depth. A fetch turns a run of
// pixels of one frame row into integer ARGB words (A in the top byte) or into four floats
// R, G, B, A. The first stage of a frame reads the source through the fetch for its depth; later
// stages read 32-bit (or 128-bit) work buffers through the plain fetch.
#pragma once
#include <cstddef>
#include <cstdint>

struct PixelFetch;
typedef void (*PixelFetchRowFn)(const PixelFetch* fetch, const uint8_t* row, uint32_t x,
                                uint32_t count, uint32_t* out);

struct PixelFetch {
  PixelFetchRowFn Row;      // converts pixels x .. x + count − 1 of `row`
  const uint32_t* Palette;  // 0RGB entries, for depths of 8 bits and below
  uint32_t Depth;
  uint32_t Premultiply;  // 1 when the fetch premultiplies colour by alpha
};

struct PixelFetchFloat;
typedef void (*PixelFetchFloatRowFn)(const PixelFetchFloat* fetch, const uint8_t* row, uint32_t x,
                                     uint32_t count, float* out);

struct PixelFetchFloat {
  PixelFetchFloatRowFn Row;  // four floats R, G, B, A for each pixel
  uint32_t Depth;
  uint32_t Premultiply;
};

// Picks the fetch for a frame depth:
//   1, 2, 4, 8: palette index (bits packed from the high end of each byte) → `palette` entry;
//   16: 1-5-5-5, each 5-bit channel shifted left by 3, top byte 0;
//   24: B, G, R → 0RGB;   32: B, G, R, A as it stands;
//   64: four 16-bit big-endian channels A, R, G, B → the high byte of each.
// `premultiply` builds premultiplying into the fetch; it is honoured at depths 32 and 64 only,
// the depths that carry alpha. False for an unknown depth, or a palette depth without palette.
bool PixelFetchSelect(PixelFetch* fetch, uint32_t depth, const uint32_t* palette, bool premultiply);

// Float fetches: 128 (four floats copied), 64 (each 16-bit value ÷ 65535) and 32 (each byte
// ÷ 255). Premultiplying multiplies colour by alpha and drops colour under 1e-5 to 0.
bool PixelFetchFloatSelect(PixelFetchFloat* fetch, uint32_t depth, bool premultiply);

// True for the fetch that reads 32-bit ARGB unchanged, which fast paths read directly.
inline bool PixelFetchIsPlain32(const PixelFetch* fetch) {
  return fetch->Depth == 32 && !fetch->Premultiply;
}
inline bool PixelFetchFloatIsPlain128(const PixelFetchFloat* fetch) {
  return fetch->Depth == 128 && !fetch->Premultiply;
}

// Premultiplies the colour of one ARGB pixel: c × a ÷ 255, rounded.
inline uint32_t PremultiplyChannel(uint32_t c, uint32_t a) { return ((c * a + 127) * 32897) >> 23; }
inline uint32_t PremultiplyPixel(uint32_t argb) {
  const uint32_t a = argb >> 24;
  return (argb & 0xFF000000u) | PremultiplyChannel((argb >> 16) & 255, a) << 16 |
         PremultiplyChannel((argb >> 8) & 255, a) << 8 | PremultiplyChannel(argb & 255, a);
}

// Colour below this is taken as black by every float stage.
inline constexpr float FloatColourFloor = 1e-5f;
