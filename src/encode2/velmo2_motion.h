// Motion search of the second-generation encoder: the four 16x16 quadrant vectors of a
// macroblock against the previous reconstruction, each chosen by the cost
//   vector bits / lambda + weighted distortion of luma, alpha, HDR and chroma,
// where the distortion is the block difference of the encoder's kernel table between the
// source and the decoder's own motion fetch at that vector. Every vector it gives lies inside
// the decoder's position clamp (with the parity-keeping clamp the encoder always asks for), so
// the decoder fetches exactly the block that was costed.
#pragma once
#include <cstddef>
#include <cstdint>

#include "decode/velmo2_kernels.h"
#include "decode/velmo2_syntax.h"
#include "encode2/velmo2_encode_kernels.h"

// Plane order of the search: luma, the two chroma planes, alpha, HDR.
enum Velmo2MotionPlane : uint32_t {
  Velmo2MotionY,
  Velmo2MotionCr,
  Velmo2MotionCb,
  Velmo2MotionAlpha,
  Velmo2MotionHdr,
  Velmo2MotionPlanes
};

// A plane as its line 0 and pitch; null Line0 for a plane that is not there.
struct Velmo2MotionPlaneRef {
  const uint8_t* Line0;
  ptrdiff_t Pitch;
};

struct Velmo2MotionInput {
  // The current frame's source planes and the previous reconstruction, in the geometry of the
  // decoder's frame buffers: luma, alpha and HDR planes cover the picture rounded up to 32
  // pixels each way, chroma planes half of that. Alpha and HDR take part only when present in
  // both.
  Velmo2MotionPlaneRef Source[Velmo2MotionPlanes];
  Velmo2MotionPlaneRef Reference[Velmo2MotionPlanes];
  uint32_t Width, Height;  // picture size in pixels
  uint32_t MbX, MbY;       // the macroblock's top left corner in pixels
  // The vectors of the macroblocks above, left and above-left as decoded (half pixels), one
  // component each, null where there is no such macroblock.
  Velmo2VectorNeighbours NeighbourX, NeighbourY;
  double InverseLambda;  // weight of one vector bit
  // Weights of the distortion of each plane kind (the two chroma planes share one).
  double LumaWeight, AlphaWeight, HdrWeight, ChromaWeight;
  // Quadrants (bit q for quadrant q) that lie outside the picture: their distortion counts
  // next to nothing, so only the vector bits choose them (Velmo2OutsideMask).
  uint32_t OutsideMask;
  const Velmo2Kernels* Fetch;
  const Velmo2EncodeKernels* Diff;
};

struct Velmo2MotionResult {
  // The chosen vectors in half pixels, as decoded: the absolute position minus twice the
  // quadrant's position in pixels.
  int32_t Vx[4], Vy[4];
  double Cost;  // the sum of the four quadrants' costs
};

// The quadrants of the macroblock at (mbX, mbY) that begin outside a width x height picture.
uint32_t Velmo2OutsideMask(uint32_t width, uint32_t height, uint32_t mbX, uint32_t mbY);

// The vector bits of a difference (dx, dy) from the predicted vector, each component
// zigzagged (2|d| for d >= 0, 2|d| - 1 below) and coded with 2 floor(log2(z + 1)) + 1 bits.
uint32_t Velmo2VectorBits(int64_t dx, int64_t dy);

// Searches the four quadrants' vectors. Returns false, with `out` undefined, when some
// quadrant had no candidate inside the clamp bounds (a picture too small for a block).
bool Velmo2MotionSearch(const Velmo2MotionInput& in, Velmo2MotionResult* out);
