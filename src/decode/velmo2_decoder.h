// The second-generation frame decoder: the macroblock walk of a run of slices into the next
// picture of a frame buffer ring, the in-loop filters behind it, and the seam pass that joins
// slices decoded by different workers.
//
// A frame's slices may be handed out in runs ("shares") to several workers at once; each share
// writes only its own lines of the picture, and a share that starts at slice k and a share
// that ends before it both decode the first macroblock row of slice k, each keeping one half.
// After every share of a frame, Velmo2FinishSeams filters the edges between those halves.
// Concurrent shares must start at different slices (the reader's shares always do).
//
// The stream is not trusted: every read is bounded by the section, and a damaged stream gives
// a damaged picture, never a read or write outside the buffers.
#pragma once
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "decode/velmo2_syntax.h"
#include "velmo_frame.h"

struct Velmo2Decoder;

struct Velmo2DecoderSetup {
  uint32_t Width, Height;  // picture size in pixels
  char Tag[4];             // the file's four-character tag, "VM2f" .. "VM2m"
  uint32_t FileFlags;      // the header's flag word (its low two bits pick the slice count)
  bool Alpha;              // the file codes an alpha plane
  bool Hdr;                // the file codes an HDR plane
  uint32_t Features;       // processor feature word for the kernels (ProcessorFeatures())
  // Where the seam records live: one record of Layout.SeamRecordBytes per slice boundary.
  // Null: the decoder keeps its own.
  uint8_t* SeamRecords;
};

// What Velmo2DecodeFrame did with a share.
enum Velmo2FrameResult : uint32_t {
  Velmo2FrameDecoded = 0,
  Velmo2FrameDamaged = 1,    // the stream ran out or held impossible values; pixels written
  Velmo2FrameOldStream = 2,  // the deprecated stream: the previous picture was copied
  Velmo2FrameNoDecoder = 3,  // nothing written (no SSE2 on this processor, or no section)
};

// Null when out of memory or the size is out of range.
Velmo2Decoder* Velmo2DecoderCreate(const Velmo2DecoderSetup& setup);
void Velmo2DecoderDestroy(Velmo2Decoder* decoder);

const Velmo2SliceLayout& Velmo2DecoderLayout(const Velmo2Decoder* decoder);

// Decodes slices [first, first + count) of a frame's video section (`size` bytes at `section`)
// from the current set of `buffers` (the previous picture) into the next set. The buffers
// must have the second generation's geometry: planes of whole 32x16 units with the picture's
// planes present (alpha and HDR when the setup has them; they may be absent, and are then not
// written). `key` is the frame index's key-frame flag.
Velmo2FrameResult Velmo2DecodeFrame(Velmo2Decoder* decoder, VelmoFrameBuffers* buffers,
                                    const uint8_t* section, size_t size, bool key,
                                    uint32_t first, uint32_t count);

// After every share of a frame has returned: filters the seams the shares left, into the
// next set of `buffers`. Does nothing where one share decoded both sides of a boundary.
void Velmo2DecoderFinishSeams(Velmo2Decoder* decoder, VelmoFrameBuffers* buffers);
