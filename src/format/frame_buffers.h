// The ring of decoded frames that the reader library owns and the frame decoders fill. The
// records themselves are public (velmo_frame.h); these helpers pick a set. Decoders read the
// current set (the previous picture) and write the next one; the reader advances `Current`
// after a frame is complete.
#pragma once
#include "velmo_frame.h"

inline VelmoFrameBufferSet& VelmoCurrentSet(VelmoFrameBuffers& fb) { return fb.Sets[fb.Current]; }
inline VelmoFrameBufferSet& VelmoNextSet(VelmoFrameBuffers& fb) {
  return fb.Sets[(fb.Current + 1) % (fb.Count ? fb.Count : 1)];
}
