// RLA header fields and scanline channel decoding, shared by the reader and its tests.
#pragma once

#include <cstddef>
#include <cstdint>

namespace orn::media {

struct RlaHeader {
  uint32_t width;         // active window
  uint32_t height;
  uint32_t storage_type;
  uint32_t channels;      // colour channels
  uint32_t mattes;        // matte channels
  uint32_t channel_bits;
  uint32_t matte_bits;
};

// Reads the fields this reader needs from a 740-byte header; false when the window is empty.
bool RlaParseHeader(const uint8_t* header, size_t size, RlaHeader* out);
// True for 3 channels of 8 bits, no matte or one of 8 bits, storage type 0 or 1.
bool RlaHeaderSupported(const RlaHeader& header);
// Decodes one channel's run-length data into at most `width` bytes; returns the bytes written.
size_t RlaDecodeChannel(const uint8_t* data, size_t size, uint8_t* out, size_t width);

}  // namespace orn::media
