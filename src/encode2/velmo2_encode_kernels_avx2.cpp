// AVX2 16x16 block difference: the SSSE3 form (interleaved byte pairs times (1, -1), then a
// squaring multiply-add) on two lines at once, one per 128-bit half.
#include "encode2/velmo2_encode_kernels.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

namespace {

using Y = __m256i;

inline Y TwoLines(const uint8_t* p, ptrdiff_t pitch) {
  const __m128i lo = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p));
  const __m128i hi = _mm_loadu_si128(reinterpret_cast<const __m128i*>(p + pitch));
  return _mm256_inserti128_si256(_mm256_castsi128_si256(lo), hi, 1);
}

inline Y Squares(Y pairs, Y plusMinus) {
  const Y d = _mm256_maddubs_epi16(pairs, plusMinus);
  return _mm256_madd_epi16(d, d);
}

uint32_t Diff16Avx2(const uint8_t* a, ptrdiff_t aPitch, const uint8_t* b, ptrdiff_t bPitch) {
  const Y plusMinus = _mm256_set1_epi16(int16_t(0xff01));
  Y sum = _mm256_setzero_si256();
  for (int r = 0; r < 16; r += 2, a += 2 * aPitch, b += 2 * bPitch) {
    const Y x = TwoLines(a, aPitch), y = TwoLines(b, bPitch);
    sum = _mm256_add_epi32(sum, Squares(_mm256_unpacklo_epi8(x, y), plusMinus));
    sum = _mm256_add_epi32(sum, Squares(_mm256_unpackhi_epi8(x, y), plusMinus));
  }
  __m128i s = _mm_add_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(1, 0, 3, 2)));
  s = _mm_add_epi32(s, _mm_shuffle_epi32(s, _MM_SHUFFLE(2, 3, 0, 1)));
  return uint32_t(_mm_cvtsi128_si32(s));
}

}  // namespace

void Velmo2EncodeKernelsAvx2(Velmo2EncodeKernels* kernels) { kernels->Diff16 = Diff16Avx2; }

#endif  // ORN_X86_KERNELS
