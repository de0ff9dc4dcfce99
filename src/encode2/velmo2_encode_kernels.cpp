// The plain forms of the encoder's block differences, and the table's fill.
#include "encode2/velmo2_encode_kernels.h"

namespace {

template <int Size>
uint32_t DiffPlain(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b, ptrdiff_t bPitch) {
  uint32_t sum = 0;
  for (int r = 0; r < Size; ++r, a += aPitch, b += bPitch)
    for (int c = 0; c < Size; ++c) {
      const int32_t d = int32_t(a[c]) - int32_t(b[c]);
      sum += uint32_t(d * d);
    }
  return sum;
}

}  // namespace

uint32_t Velmo2Diff16Plain(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b,
                           ptrdiff_t bPitch) {
  return DiffPlain<16>(a, aPitch, b, bPitch);
}

uint32_t Velmo2Diff8Plain(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b,
                          ptrdiff_t bPitch) {
  return DiffPlain<8>(a, aPitch, b, bPitch);
}

void Velmo2EncodeKernelsInit(Velmo2EncodeKernels* kernels, uint32_t features) {
  kernels->Diff16 = Velmo2Diff16Plain;
  kernels->Diff8 = Velmo2Diff8Plain;
#if ORN_X86_KERNELS
  const int level = ProcessorLevelOf(features);
  if (level < ProcessorLevelSse2) return;
  Velmo2EncodeKernelsSse2(kernels);
  if (level < ProcessorLevelSsse3) return;
  Velmo2EncodeKernelsSsse3(kernels);
  if (level < ProcessorLevelAvx2) return;
  Velmo2EncodeKernelsAvx2(kernels);
#else
  (void)features;
#endif
}
