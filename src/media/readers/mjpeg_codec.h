// Motion-JPEG frames: decoding one frame (or two interlaced fields) through libjpeg-turbo into
// 32-bit B, G, R, A pixels, and giving frames that lack Huffman tables the standard ones.
#pragma once

#include <cstddef>
#include <cstdint>
#include <vector>

namespace orn::media {

// True when the markers before the first scan hold a DHT segment (or the data is no JPEG).
bool MjpegHasHuffmanTables(const uint8_t* data, size_t size);

// Copies a frame into `out` with the four standard tables (luma and chroma, DC and AC) placed
// before its first scan. False when the data has no scan to place them before.
bool MjpegInsertStandardTables(const uint8_t* data, size_t size, std::vector<uint8_t>* out);

// Work buffers kept between frames, so that the steady state allocates nothing.
struct MjpegBuffers {
  std::vector<uint8_t> scratch;       // one decoded row
  std::vector<uint8_t> fixed;         // a picture with tables added
  std::vector<uint8_t> fixed_second;  // the second field with tables added
};

// Decodes the JPEG pictures in `data` into a frame of width x height B, G, R, A pixels (rows
// top down, `pitch` bytes apart). A picture of half the frame height, followed by a second one,
// is taken as two fields: the first gives the even rows, the second the odd rows. Parts that a
// picture does not cover keep their old pixels. Returns false when nothing could be decoded;
// a picture that breaks off keeps the rows decoded before the damage.
bool MjpegDecodeFrame(MjpegBuffers* buffers, const uint8_t* data, size_t size, uint8_t* pixels, ptrdiff_t pitch,
                      uint32_t width, uint32_t height);

}  // namespace orn::media
