// SSE2 block differences: both blocks widened to 16-bit lanes, the differences squared and
// summed in pairs by one multiply-add into 32-bit lanes. No lane can overflow: a lane gathers
// at most 2 * 16 * 255^2 per 16x16 block.
#include "encode2/velmo2_encode_kernels.h"

#if ORN_X86_KERNELS
#include <emmintrin.h>

namespace {

using V = __m128i;

inline V Squares(V a, V b) {
  const V d = _mm_sub_epi16(a, b);
  return _mm_madd_epi16(d, d);
}

inline uint32_t Total(V sum) {
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(1, 0, 3, 2)));
  sum = _mm_add_epi32(sum, _mm_shuffle_epi32(sum, _MM_SHUFFLE(2, 3, 0, 1)));
  return uint32_t(_mm_cvtsi128_si32(sum));
}

uint32_t Diff16Sse2(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b, ptrdiff_t bPitch) {
  const V zero = _mm_setzero_si128();
  V sum = zero;
  for (int r = 0; r < 16; ++r, a += aPitch, b += bPitch) {
    const V x = _mm_loadu_si128(reinterpret_cast<const V*>(a));
    const V y = _mm_loadu_si128(reinterpret_cast<const V*>(b));
    sum = _mm_add_epi32(sum, Squares(_mm_unpacklo_epi8(x, zero), _mm_unpacklo_epi8(y, zero)));
    sum = _mm_add_epi32(sum, Squares(_mm_unpackhi_epi8(x, zero), _mm_unpackhi_epi8(y, zero)));
  }
  return Total(sum);
}

uint32_t Diff8Sse2(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b, ptrdiff_t bPitch) {
  const V zero = _mm_setzero_si128();
  V sum = zero;
  for (int r = 0; r < 8; ++r, a += aPitch, b += bPitch) {
    const V x = _mm_loadl_epi64(reinterpret_cast<const V*>(a));
    const V y = _mm_loadl_epi64(reinterpret_cast<const V*>(b));
    sum = _mm_add_epi32(sum, Squares(_mm_unpacklo_epi8(x, zero), _mm_unpacklo_epi8(y, zero)));
  }
  return Total(sum);
}

}  // namespace

void Velmo2EncodeKernelsSse2(Velmo2EncodeKernels* kernels) {
  kernels->Diff16 = Diff16Sse2;
  kernels->Diff8 = Diff8Sse2;
}

#endif  // ORN_X86_KERNELS
