// Video decoders behind one record of functions, one record per generation. The reader picks
// the record by the file's tag when it opens a file and from then on calls only through it; a
// decoder knows nothing of the reader's handle, only the picture it writes.
#pragma once
#include <cstdint>

#include "format/frame_buffers.h"

// What a decoder is created for.
struct VelmoDecoderConfig {
  uint32_t FileTag;    // the file's magic word
  uint32_t FileFlags;  // the header's flag word
  uint32_t Width, Height;
  uint32_t OpenFlags;  // the reader's completed open flags (alpha, old revision, ...)
  // Scratch for work that joins slices decoded apart (one record per slice boundary); null
  // where the decoder keeps its own.
  uint8_t* SliceScratch;
};

struct VelmoVideoDecoder {
  const char* Name;
  // A decoder for pictures of the configured size; null when out of memory or when this
  // machine cannot run it.
  void* (*Create)(const VelmoDecoderConfig* config);
  // Decodes slices [first, first + count) of a frame's video section into the next picture of
  // `picture`, reading the current one as the previous picture; nothing outside the `videoSize`
  // bytes at `video` is read. `key` is the frame index's key-frame flag. Returns false when the
  // share had nothing to decode; otherwise *figure gets the decoder's figure for the share.
  bool (*DecodeSlices)(void* decoder, VelmoFrameBuffers* picture, const uint8_t* video,
                       uint32_t videoSize, bool key, uint32_t first, uint32_t count,
                       uint32_t* figure);
  // After every share of a frame: passes that need the whole picture. May be null.
  void (*FinishFrame)(void* decoder, VelmoFrameBuffers* picture);
  void (*Destroy)(void* decoder);
};

// The decoder of a file tag's generation, or null when this build has none for it.
const VelmoVideoDecoder* VelmoDecoderForTag(uint32_t fileTag);

extern const VelmoVideoDecoder Velmo1VideoDecoder;
extern const VelmoVideoDecoder Velmo2VideoDecoder;

// The figure a second-generation share gives back when its frame uses the older stream that
// this decoder leaves undecoded (the previous picture stays).
constexpr uint32_t Velmo2FigureOldStream = 0x80000000u;
