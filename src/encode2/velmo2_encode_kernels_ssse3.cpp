// SSSE3 block differences: the two blocks' bytes interleaved in pairs (a, b) and multiplied
// with the signed pair (1, -1) give a - b in 16-bit lanes in one step, exactly (at most 255
// in size, far from saturating); a multiply-add then squares and sums them in pairs.
#include "encode2/velmo2_encode_kernels.h"

#if ORN_X86_KERNELS
#include <tmmintrin.h>

namespace {

using V = __m128i;

inline V Squares(V pairs, V plusMinus) {
  const V d = _mm_maddubs_epi16(pairs, plusMinus);
  return _mm_madd_epi16(d, d);
}

inline uint32_t Total(V sum) {
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 0, 3, 2)));
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(2, 3, 0, 1)));
  return uint32_t(_mm_cvtsi128_si32(sum));
}

uint32_t Diff16Ssse3(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b, ptrdiff_t bPitch) {
  const V plusMinus = _mm_set1_epi16(int16_t(0xff01));  // bytes 1, -1
  V sum = _mm_setzero_si128();
  for (int r = 0; r < 16; ++r, a += aPitch, b += bPitch) {
    const V x = _mm_loadu_si128(reinterpret_cast<const V*>(a));
    const V y = _mm_loadu_si128(reinterpret_cast<const V*>(b));
    sum = _mm_add_epi32(sum, Squares(_mm_unpacklo_epi8(x, y), plusMinus));
    sum = _mm_add_epi32(sum, Squares(_mm_unpackhi_epi8(x, y), plusMinus));
  }
  return Total(sum);
}

uint32_t Diff8Ssse3(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b, ptrdiff_t bPitch) {
  const V plusMinus = _mm_set1_epi16(int16_t(0xff01));
  V sum = _mm_setzero_si128();
  for (int r = 0; r < 8; ++r, a += aPitch, b += bPitch) {
    const V x = _mm_loadl_epi64(reinterpret_cast<const V*>(a));
    const V y = _mm_loadl_epi64(reinterpret_cast<const V*>(b));
    sum = _mm_add_epi32(sum, Squares(_mm_unpacklo_epi8(x, y), plusMinus));
  }
  return Total(sum);
}

}  // namespace

void Velmo2EncodeKernelsSsse3(Velmo2EncodeKernels* kernels) {
  kernels->Diff16 = Diff16Ssse3;
  kernels->Diff8 = Diff8Ssse3;
}

#endif  // ORN_X86_KERNELS
