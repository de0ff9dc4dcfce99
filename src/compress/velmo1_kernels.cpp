// The plain form of the first-generation encoder's block difference, and the table's fill.
#include "compress/velmo1_kernels.h"

#include <cstdlib>

uint32_t Velmo1Sad8Plain(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch,
                         uint32_t bound) {
  uint32_t sad = 0;
  for (int r = 0; r < 8; ++r, ref += refPitch) {
    for (int i = 0; i < 8; ++i) sad += uint32_t(std::abs(int(block[r * 8 + i]) - ref[i]));
    if (r == 3 && sad >= bound) break;
  }
  return sad;
}

void Velmo1SadRowPlain(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch,
                       int count, uint32_t bound, uint32_t* sums) {
  for (int k = 0; k < count; ++k) sums[k] = Velmo1Sad8Plain(block, ref + k, refPitch, bound);
}

void Velmo1EncodeKernelsInit(Velmo1EncodeKernels* kernels, uint32_t features) {
  kernels->Sad8 = Velmo1Sad8Plain;
  kernels->SadRow = Velmo1SadRowPlain;
#if ORN_X86_KERNELS
  const int level = ProcessorLevelOf(features);
  if (level < ProcessorLevelSse2) return;
  Velmo1EncodeKernelsSse2(kernels);
  if (level < ProcessorLevelAvx2) return;
  Velmo1EncodeKernelsAvx2(kernels);
#else
  (void)features;
#endif
}
