// The ring of decoded frames that the reader library owns and the frame decoders fill.
// Decoders read the current set (the previous picture) and write the next one; the reader
// advances `Current` after a frame is complete.
#pragma once
#include <cstdint>

enum : uint32_t {
  VelmoPlaneY = 0,
  VelmoPlaneCr = 1,
  VelmoPlaneCb = 2,
  VelmoPlaneAlpha = 3,
  VelmoPlaneHdr = 4,
  VelmoPlaneCount = 5,
};

struct VelmoFrameBufferSet {
  // Y, Cr, Cb, alpha and the HDR plane; absent planes are null. Y, alpha and HDR use
  // `LumaPitch`, Cr and Cb use `ChromaPitch`.
  uint8_t* Planes[VelmoPlaneCount];
};

struct VelmoFrameBuffers {
  uint32_t Count;         // sets in the ring: 2, or 1 for a single-frame file
  uint32_t Current;       // the set that holds the picture shown now
  uint32_t Width, Height;               // picture size in pixels
  uint32_t LumaWidth, LumaHeight;       // allocated plane size (rounded to the block grid)
  uint32_t ChromaWidth, ChromaHeight;   // allocated chroma plane size
  int32_t LumaPitch, ChromaPitch;       // bytes from one line to the next
  uint32_t HasAlpha;                    // alpha planes exist
  VelmoFrameBufferSet Sets[2];
};

inline VelmoFrameBufferSet& VelmoCurrentSet(VelmoFrameBuffers& fb) { return fb.Sets[fb.Current]; }
inline VelmoFrameBufferSet& VelmoNextSet(VelmoFrameBuffers& fb) {
  return fb.Sets[(fb.Current + 1) % (fb.Count ? fb.Count : 1)];
}
