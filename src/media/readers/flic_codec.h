// Frame chunk decoding of Flic animations: palette chunks and the picture codings, applied to
// an 8-bit canvas. Every read is bounded by the chunk; damaged data gives a damaged picture.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orn::media {

enum FlicChunkType {
  FLIC_COLOR_256 = 4,   // palette, 8-bit components
  FLIC_DELTA_FLC = 7,   // word-oriented line delta (SS2)
  FLIC_COLOR_64 = 11,   // palette, 6-bit components
  FLIC_DELTA_FLI = 12,  // byte-oriented line delta (LC)
  FLIC_BLACK = 13,      // clear to colour 0
  FLIC_BYTE_RUN = 15,   // run-length coding of the whole picture (BRUN)
  FLIC_COPY = 16,       // the picture uncompressed
  FLIC_PSTAMP = 18,     // postage-stamp preview, not shown
};

struct FlicCanvas {
  uint32_t width;
  uint32_t height;
  uint8_t* pixels;       // width x height, rows top down
  uint8_t palette[768];  // R, G, B
};

// Applies one sub-chunk's data (behind its 6-byte header). Returns true when the palette changed.
bool FlicApplyChunk(FlicCanvas* canvas, int type, const uint8_t* data, size_t size);

// Applies a whole frame chunk, 16-byte header included. Returns true when the palette changed.
bool FlicDecodeFrame(FlicCanvas* canvas, const uint8_t* chunk, size_t size);

}  // namespace orn::media
