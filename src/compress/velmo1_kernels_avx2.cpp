// AVX2 block difference: four lines of the reference gathered into one register and compared
// with four lines of the block by one _mm256_sad_epu8, which leaves a sum in each 64-bit lane.
#include "compress/velmo1_kernels.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

namespace {

inline __m128i TwoLines(const uint8_t* ref, ptrdiff_t pitch) {
  const __m128i a = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref));
  const __m128i b = _mm_loadl_epi64(reinterpret_cast<const __m128i*>(ref + pitch));
  return _mm_unpacklo_epi64(a, b);
}

inline __m256i FourLines(const uint8_t* ref, ptrdiff_t pitch) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(TwoLines(ref, pitch)),
                                 TwoLines(ref + 2 * pitch, pitch), 1);
}

uint32_t Sad8Avx2(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch, uint32_t) {
  const __m256i top = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block));
  const __m256i bottom = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(block + 32));
  const __m256i sum = _mm256_add_epi32(_mm256_sad_epu8(top, FourLines(ref, refPitch)),
                                       _mm256_sad_epu8(bottom, FourLines(ref + 4 * refPitch, refPitch)));
  __m128i s = _mm_add_epi32(_mm256_castsi256_si128(sum), _mm256_extracti128_si256(sum, 1));
  s = _mm_add_epi32(s, _mm_unpackhi_epi64(s, s));
  return uint32_t(_mm_cvtsi128_si32(s));
}

}  // namespace

void Velmo1EncodeKernelsAvx2(Velmo1EncodeKernels* kernels) { kernels->Sad8 = Sad8Avx2; }

#endif  // ORN_X86_KERNELS
