// AVX2 scaler loops: each pixel's four channel sums in one register of four doubles.
#include "process/scaler_kernels.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

namespace {

inline __m256d WidenBytes(const uint8_t* p) {
  int32_t word;
  __builtin_memcpy(&word, p, 4);
  return _mm256_cvtepi32_pd(_mm_cvtepu8_epi32(_mm_cvtsi32_si128(word)));
}

inline __m256d WidenFloats(const float* p) { return _mm256_cvtps_pd(_mm_loadu_ps(p)); }

}  // namespace

void ScalerHorizontalIntAvx2(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                             const ScalerSlot* slots, uint32_t count, double* strip) {
  for (uint32_t y = 0; y < rows; ++y, pixels += pitch, strip += 4) {
    __m256d sum = _mm256_setzero_pd();
    for (uint32_t k = 0; k < count; ++k)
      sum = _mm256_add_pd(
          sum, _mm256_mul_pd(_mm256_set1_pd(slots[k].Weight), WidenBytes(pixels + 4 * k)));
    _mm256_storeu_pd(strip, sum);
  }
}

void ScalerHorizontalFloatAvx2(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                               const ScalerSlot* slots, uint32_t count, float* strip) {
  for (uint32_t y = 0; y < rows; ++y, pixels += pitch, strip += 4) {
    const float* p = reinterpret_cast<const float*>(pixels);
    __m256d sum = _mm256_setzero_pd();
    for (uint32_t k = 0; k < count; ++k)
      sum = _mm256_add_pd(sum,
                          _mm256_mul_pd(_mm256_set1_pd(slots[k].Weight), WidenFloats(p + 4 * k)));
    _mm_storeu_ps(strip, _mm256_cvtpd_ps(sum));
  }
}

void ScalerVerticalIntAvx2(const double* strip, const ScalerAxis* axis, uint32_t rows,
                           uint8_t* column, ptrdiff_t pitch) {
  const __m256d top = _mm256_set1_pd(ScalerTopLevel);
  const __m256d bias = _mm256_set1_pd(ScalerRoundBias);
  const __m256d full = _mm256_set1_pd(255.0);
  for (uint32_t y = 0; y < rows; ++y, column += pitch) {
    const ScalerSlot* slots = axis->Entries + size_t(y) * axis->MaxEntries;
    __m256d sum = _mm256_setzero_pd();
    for (uint32_t k = 0; k < axis->Counts[y]; ++k)
      sum = _mm256_add_pd(sum, _mm256_mul_pd(_mm256_set1_pd(slots[k].Weight),
                                             _mm256_loadu_pd(strip + 4 * size_t(slots[k].Index))));
    const __m256d rounded = _mm256_add_pd(_mm256_max_pd(sum, _mm256_setzero_pd()), bias);
    const __m256d levels = _mm256_blendv_pd(rounded, full, _mm256_cmp_pd(sum, top, _CMP_GE_OQ));
    const __m128i words = _mm256_cvttpd_epi32(levels);
    const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(words, words), words);
    const int32_t pixel = _mm_cvtsi128_si32(bytes);
    __builtin_memcpy(column, &pixel, 4);
  }
}

void ScalerVerticalFloatAvx2(const float* strip, const ScalerAxis* axis, uint32_t rows,
                             uint8_t* column, ptrdiff_t pitch) {
  for (uint32_t y = 0; y < rows; ++y, column += pitch) {
    const ScalerSlot* slots = axis->Entries + size_t(y) * axis->MaxEntries;
    __m256d sum = _mm256_setzero_pd();
    for (uint32_t k = 0; k < axis->Counts[y]; ++k)
      sum = _mm256_add_pd(sum, _mm256_mul_pd(_mm256_set1_pd(slots[k].Weight),
                                             WidenFloats(strip + 4 * size_t(slots[k].Index))));
    _mm_storeu_ps(reinterpret_cast<float*>(column), _mm256_cvtpd_ps(sum));
  }
}

#endif
