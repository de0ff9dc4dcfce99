// The first-generation Velmo frame decoder. A frame's video section holds up to four planes
// (alpha, Y, Cr, Cb) of 8x8 blocks; each row of blocks reads nine bundles of values and then
// rebuilds its blocks into the next frame buffer, reading the current one as the previous
// picture. Damaged data gives a damaged picture: nothing is reported, no read leaves the
// section, no write leaves the planes, and every loop is bounded by the plane's size.
#pragma once
#include "decode/velmo1_tables.h"
#include "format/frame_buffers.h"

#include <cstdint>

// Decode flags, formed by the reader from its open flags and the slices asked for.
enum : uint32_t {
  Velmo1SkipLuma = 0x200,       // leave the Y plane as it is
  Velmo1OldRevision = 0x8000,   // "VLMf", "VLMg", "VLMh": sign-magnitude colours, no chroma word
  Velmo1SkipChroma = 0x20000,   // leave the Cr and Cb planes as they are
  Velmo1AlphaPlane = 0x100000,  // decode the alpha plane (cleared for the other planes)
};

// The file flag that says a frame carries an alpha plane (header flags bit 20).
constexpr uint32_t Velmo1FileHasAlpha = 0x100000;

// Buffer sizes in bytes of the nine bundles for a luma width: each bundle's largest count (in
// bytes for the DC bundles) plus what one block may take beyond it. Chroma fits in the same.
void Velmo1BundleSizes(uint32_t lumaWidth, uint32_t sizes[Velmo1BundleCount]);

// The buffers one frame decodes with: nine bundle buffers, aligned to 16 bytes, and the RUN
// scratch block, which is not cleared between blocks or planes.
struct Velmo1Workspace {
  uint8_t* Bundles[Velmo1BundleCount];
  uint32_t Sizes[Velmo1BundleCount];
  uint8_t RunScratch[64];
};

// Decodes one plane of `width` x `height` (whole 8x8 blocks; pitch >= width) from the stream at
// `stream`. `limit` is four bytes past the end of the section: only bytes before limit - 4
// are read, anything after reads as zero bits. `source` is the previous picture of this
// plane (it may equal `dest`). Returns the word at which the plane stopped (at most `limit`)
// and stores the number of SKIP blocks in *skipCount. A workspace whose buffers are smaller
// than this width needs, or a pitch below the width, decodes nothing and returns `stream`.
// Motion: a block whose motion source's top-left address lies outside [plane start, last 8x8
// block position] is passed without consuming its further data, as the format requires. With
// pitch >= width this address rule alone keeps every read inside the plane's memory (a source
// may wrap to the end of the line above, which is still plane memory), so nothing is clamped.
const uint8_t* Velmo1DecodePlane(uint8_t* dest, const uint8_t* source, uint32_t width,
                                 uint32_t height, int32_t pitch, const uint8_t* stream,
                                 const uint8_t* limit, Velmo1Workspace* work,
                                 uint32_t decodeFlags, uint32_t fileTag, uint32_t* skipCount);

// Decodes one frame section into the next set of the ring, reading the current set. `limit`
// is four bytes past the section's end. `sizes` may be null (they are then computed from the
// buffers); sizes too small for the buffers are raised. Returns the change figure: the share
// of luma blocks, in percent, that were not skipped in the least changed decoded plane.
uint32_t Velmo1DecodeFrame(VelmoFrameBuffers* buffers, const uint8_t* section,
                           const uint8_t* limit, const uint32_t* sizes, uint32_t decodeFlags,
                           uint32_t fileFlags, uint32_t fileTag);
