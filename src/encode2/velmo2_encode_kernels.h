// The second-generation encoder's kernel table: block differences between the source and a
// prediction. The table is filled plain-first from the processor feature word; every vector
// form gives the plain form's result.
//
// The measure is the sum of squared differences. The encoder's decisions weigh a distortion
// against bits (J = D * q + bits) and the reconstruction error it reports is a squared error,
// so the motion search ranks candidates in the same measure the later trials are judged by;
// a sum of absolute differences would favour predictions with many small errors over ones
// with a few large errors, which the transform then codes at a higher price.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/cpu_features.h"

// The sum of squared differences of a block of `a` (one line every aPitch bytes) and `b`.
// The 16x16 sum is at most 256 * 255^2, well inside 32 bits.
using Velmo2DiffKernel = uint32_t (*)(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b,
                                      ptrdiff_t bPitch);

struct Velmo2EncodeKernels {
  Velmo2DiffKernel Diff16;  // a 16x16 luma (alpha, HDR) block
  Velmo2DiffKernel Diff8;   // an 8x8 chroma block
};

// Fills `kernels` with the best forms the feature word (ProcessorFeatures()) allows.
void Velmo2EncodeKernelsInit(Velmo2EncodeKernels* kernels, uint32_t features);

// The plain forms.
uint32_t Velmo2Diff16Plain(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b,
                           ptrdiff_t bPitch);
uint32_t Velmo2Diff8Plain(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b, ptrdiff_t bPitch);

// ---- Vector forms ----------------------------------------------------------------------------
// Each level replaces the entries it has a form for, in order of level. SSE2 widens both
// blocks to 16-bit lanes and squares the differences with a multiply-add into 32-bit sums;
// SSSE3 forms the difference of interleaved byte pairs in one multiply-add; AVX2 does that on
// two lines of a 16x16 block at once.
#if ORN_X86_KERNELS
void Velmo2EncodeKernelsSse2(Velmo2EncodeKernels* kernels);
void Velmo2EncodeKernelsSsse3(Velmo2EncodeKernels* kernels);
void Velmo2EncodeKernelsAvx2(Velmo2EncodeKernels* kernels);
#endif
