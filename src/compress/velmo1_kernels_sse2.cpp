// SSE2 block difference: two lines of the reference gathered into one register and compared
// with two lines of the block by one _mm_sad_epu8, which leaves a sum in each 64-bit half.
#include "compress/velmo1_kernels.h"

#if ORN_X86_KERNELS
#include <emmintrin.h>

namespace {

using V = __m128i;

inline V TwoLines(const uint8_t* ref, ptrdiff_t pitch) {
  const V a = _mm_loadl_epi64(reinterpret_cast<const V*>(ref));
  const V b = _mm_loadl_epi64(reinterpret_cast<const V*>(ref + pitch));
  return _mm_unpacklo_epi64(a, b);
}

uint32_t Sad8Sse2(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch, uint32_t) {
  V sum = _mm_setzero_si128();
  for (int r = 0; r < 8; r += 2, ref += 2 * refPitch) {
    const V b = _mm_loadu_si128(reinterpret_cast<const V*>(block + r * 8));
    sum = _mm_add_epi32(sum, _mm_sad_epu8(b, TwoLines(ref, refPitch)));
  }
  sum = _mm_add_epi32(sum, _mm_unpackhi_epi64(sum, sum));
  return uint32_t(_mm_cvtsi128_si32(sum));
}

void SadRowSse2(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch, int count,
                uint32_t bound, uint32_t* sums) {
  for (int k = 0; k < count; ++k) sums[k] = Sad8Sse2(block, ref + k, refPitch, bound);
}

}  // namespace

void Velmo1EncodeKernelsSse2(Velmo1EncodeKernels* kernels) {
  kernels->Sad8 = Sad8Sse2;
  kernels->SadRow = SadRowSse2;
}

#endif  // ORN_X86_KERNELS
