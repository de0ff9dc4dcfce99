// The second-generation decoder's kernel table: the inverse transforms, the motion fetches,
// the residual add, the two edge filters and the flat-block interpolation. The table is filled
// plain-first from the processor feature word; every vector form gives the plain form's bits.
#pragma once
#include <cstddef>
#include <cstdint>

#include "decode/velmo2_tables.h"
#include "decode/velmo2_transform.h"
#include "host/cpu_features.h"

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

// Whether the residual seam filter changes anything between blocks with words a and b: some
// side has class 1 or above, and the two are not both flat with DC fields at most 32 apart
// (the offset-binary difference plus 32 is below 65 in unsigned arithmetic exactly then).
inline bool Velmo2SeamFilterActs(uint16_t a, uint16_t b) {
  const bool flatAndClose = (a & b) >= Velmo2InfoClassMask &&
                            (uint32_t(a ^ 0x1000u) - uint32_t(b ^ 0x1000u) + 32u) < 65u;
  return uint32_t(a | b) >= 0x2000u && !flatAndClose;
}

// ---- Vector forms ----------------------------------------------------------------------------
// Each level's source replaces the entries it has a form for; Velmo2KernelsInit calls them in
// order of level. SSE2 has a form of every entry (the luma fetches on 16-bit lanes); SSSE3
// replaces the filtering luma fetches with byte-pair multiply-adds; AVX2 runs those on two
// lines a vector.

// The rows of the horizontal pass of a luma fetch at two odd fractions: lines -2 .. 18.
constexpr int Velmo2LumaBothRows = 21;

#if ORN_X86_KERNELS
void Velmo2KernelsSse2(Velmo2Kernels* kernels);
void Velmo2KernelsSsse3(Velmo2Kernels* kernels);
void Velmo2KernelsAvx2(Velmo2Kernels* kernels);

// The vertical pass of that fetch on its 16-bit rows (16 values a row, unclamped), held
// between 0 and 255 into the 16x16 block at dst. SSE2; shared by the levels above.
void Velmo2LumaVerticalPass16(const int16_t* rows, uint8_t* dst, ptrdiff_t dstPitch);
#endif
