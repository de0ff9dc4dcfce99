// The ring of decoded frames that the reader library owns and the frame decoders fill. The
// records themselves are public (velmo_frame.h); these helpers pick a set. Decoders read the
// current set (the previous picture) and write the next one; the reader advances `Current`
// after a frame is complete.
#pragma once
#include "velmo_frame.h"

#include <cstddef>
#include <cstring>

inline VelmoFrameBufferSet& VelmoCurrentSet(VelmoFrameBuffers& fb) { return fb.Sets[fb.Current]; }
// Copies a w x h plane into an outW x outH one (outW >= w, outH >= h, `outPitch` bytes a
// line), repeating its last column and line into the padding; encoders take their input so.
inline void VelmoPadPlane(const uint8_t* in, ptrdiff_t pitch, uint32_t w, uint32_t h, uint8_t* out,
                          ptrdiff_t outPitch, uint32_t outW, uint32_t outH) {
  for (uint32_t y = 0; y < outH; ++y) {
    const uint8_t* line = in + ptrdiff_t(y < h ? y : h - 1) * pitch;
    uint8_t* dst = out + ptrdiff_t(y) * outPitch;
    std::memcpy(dst, line, w);
    std::memset(dst + w, line[w - 1], outW - w);
  }
}

inline VelmoFrameBufferSet& VelmoNextSet(VelmoFrameBuffers& fb) {
  return fb.Sets[(fb.Current + 1) % (fb.Count ? fb.Count : 1)];
}
