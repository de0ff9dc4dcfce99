// The second-generation decoder's kernel table: the inverse transforms, the motion fetches,
// the residual add, the two edge filters and the flat-block interpolation. The table is filled
// plain-first from the processor feature word; every vector form gives the plain form's bits.
#pragma once
#include <cstddef>
#include <cstdint>

#include "decode/velmo2_transform.h"

// A motion fetch from `src`, which points at the whole-pixel position of the block; the
// kernel's index holds the fractions. Luma: a 16x16 block, index (x & 1) | (y & 1) << 1 of the
// half-pixel position. Chroma: an 8x8 block, index (x & 3) | (y & 3) << 2 of the quarter-pixel
// position.
using Velmo2FetchKernel = void (*)(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst,
                                   ptrdiff_t dstPitch);

// Adds a w x h block of residuals to the prediction in dst, holding each pixel in 0..255.
using Velmo2AddKernel = void (*)(uint8_t* dst, ptrdiff_t dstPitch, const int16_t* residual,
                                 ptrdiff_t residualPitch, int w, int h);

// The edge filter of finished pixels (see Velmo2FilterEdge).
using Velmo2EdgeKernel = void (*)(uint8_t* q0, ptrdiff_t across, ptrdiff_t along, uint32_t code,
                                  uint32_t count);

// The residual seam filter between two blocks (see Velmo2ResidualSeamEdge).
using Velmo2SeamKernel = void (*)(int16_t* q0, ptrdiff_t across, ptrdiff_t along, uint16_t a,
                                  uint16_t b);

// A flat block from its 3x3 neighbourhood of DC values (row by row, centre at [1][1]): the
// first `columns` x `lines` pixels of the 8x8 block at out.
using Velmo2FlatKernel = void (*)(const int32_t dc[3][3], uint8_t* out, ptrdiff_t pitch,
                                  uint32_t columns, uint32_t lines);

struct Velmo2Kernels {
  Velmo2TransformKernel Transform;
  Velmo2TransformKernel TransformCorner;
  Velmo2FetchKernel FetchLuma[4];
  Velmo2FetchKernel FetchChroma[16];
  Velmo2AddKernel AddResidual;
  Velmo2EdgeKernel FilterEdge;
  Velmo2SeamKernel ResidualSeamEdge;
  Velmo2FlatKernel FlatBlock;
};

// Fills `kernels` with the best forms the feature word (ProcessorFeatures()) allows.
void Velmo2KernelsInit(Velmo2Kernels* kernels, uint32_t features);

// The plain flat-block interpolation.
void Velmo2FlatBlockPlain(const int32_t dc[3][3], uint8_t* out, ptrdiff_t pitch,
                          uint32_t columns, uint32_t lines);
