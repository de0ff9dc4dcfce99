// SSE2 scaler loops: each pixel's four channel sums in two registers of two doubles.
#include "process/scaler_kernels.h"

#if ORN_X86_KERNELS
#include <emmintrin.h>

namespace {

// Four bytes → channels (0, 1) and (2, 3) as doubles.
inline void WidenBytes(const uint8_t* p, __m128d* low, __m128d* high) {
  const __m128i zero = _mm_setzero_si128();
  int32_t word;
  __builtin_memcpy(&word, p, 4);
  const __m128i v = _mm_unpacklo_epi16(_mm_unpacklo_epi8(_mm_cvtsi32_si128(word), zero), zero);
  *low = _mm_cvtepi32_pd(v);
  *high = _mm_cvtepi32_pd(_mm_shuffle_epi32(v, _MM_SHUFFLE(1, 0, 3, 2)));
}

inline void WidenFloats(const float* p, __m128d* low, __m128d* high) {
  const __m128 v = _mm_loadu_ps(p);
  *low = _mm_cvtps_pd(v);
  *high = _mm_cvtps_pd(_mm_movehl_ps(v, v));
}

inline void StoreFloats(float* p, __m128d low, __m128d high) {
  _mm_storeu_ps(p, _mm_movelh_ps(_mm_cvtpd_ps(low), _mm_cvtpd_ps(high)));
}

// The rule of ScalerChannelByte on two channels, as doubles ready to truncate.
inline __m128d ChannelLevels(__m128d v) {
  const __m128d top = _mm_cmpge_pd(v, _mm_set1_pd(ScalerTopLevel));
  const __m128d rounded = _mm_add_pd(_mm_max_pd(v, _mm_setzero_pd()), _mm_set1_pd(ScalerRoundBias));
  return _mm_or_pd(_mm_and_pd(top, _mm_set1_pd(255.0)), _mm_andnot_pd(top, rounded));
}

}  // namespace

void ScalerHorizontalIntSse2(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                             const ScalerSlot* slots, uint32_t count, double* strip) {
  for (uint32_t y = 0; y < rows; ++y, pixels += pitch, strip += 4) {
    __m128d sumLow = _mm_setzero_pd(), sumHigh = _mm_setzero_pd();
    for (uint32_t k = 0; k < count; ++k) {
      const __m128d w = _mm_set1_pd(slots[k].Weight);
      __m128d low, high;
      WidenBytes(pixels + 4 * k, &low, &high);
      sumLow = _mm_add_pd(sumLow, _mm_mul_pd(w, low));
      sumHigh = _mm_add_pd(sumHigh, _mm_mul_pd(w, high));
    }
    _mm_storeu_pd(strip, sumLow);
    _mm_storeu_pd(strip + 2, sumHigh);
  }
}

void ScalerHorizontalFloatSse2(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                               const ScalerSlot* slots, uint32_t count, float* strip) {
  for (uint32_t y = 0; y < rows; ++y, pixels += pitch, strip += 4) {
    __m128d sumLow = _mm_setzero_pd(), sumHigh = _mm_setzero_pd();
    const float* p = reinterpret_cast<const float*>(pixels);
    for (uint32_t k = 0; k < count; ++k) {
      const __m128d w = _mm_set1_pd(slots[k].Weight);
      __m128d low, high;
      WidenFloats(p + 4 * k, &low, &high);
      sumLow = _mm_add_pd(sumLow, _mm_mul_pd(w, low));
      sumHigh = _mm_add_pd(sumHigh, _mm_mul_pd(w, high));
    }
    StoreFloats(strip, sumLow, sumHigh);
  }
}

void ScalerVerticalIntSse2(const double* strip, const ScalerAxis* axis, uint32_t rows,
                           uint8_t* column, ptrdiff_t pitch) {
  for (uint32_t y = 0; y < rows; ++y, column += pitch) {
    const ScalerSlot* slots = axis->Entries + size_t(y) * axis->MaxEntries;
    __m128d sumLow = _mm_setzero_pd(), sumHigh = _mm_setzero_pd();
    for (uint32_t k = 0; k < axis->Counts[y]; ++k) {
      const __m128d w = _mm_set1_pd(slots[k].Weight);
      const double* s = strip + 4 * size_t(slots[k].Index);
      sumLow = _mm_add_pd(sumLow, _mm_mul_pd(w, _mm_loadu_pd(s)));
      sumHigh = _mm_add_pd(sumHigh, _mm_mul_pd(w, _mm_loadu_pd(s + 2)));
    }
    const __m128i low = _mm_cvttpd_epi32(ChannelLevels(sumLow));
    const __m128i high = _mm_cvttpd_epi32(ChannelLevels(sumHigh));
    const __m128i words = _mm_unpacklo_epi64(low, high);
    const __m128i bytes = _mm_packus_epi16(_mm_packs_epi32(words, words), words);
    const int32_t pixel = _mm_cvtsi128_si32(bytes);
    __builtin_memcpy(column, &pixel, 4);
  }
}

void ScalerVerticalFloatSse2(const float* strip, const ScalerAxis* axis, uint32_t rows,
                             uint8_t* column, ptrdiff_t pitch) {
  for (uint32_t y = 0; y < rows; ++y, column += pitch) {
    const ScalerSlot* slots = axis->Entries + size_t(y) * axis->MaxEntries;
    __m128d sumLow = _mm_setzero_pd(), sumHigh = _mm_setzero_pd();
    for (uint32_t k = 0; k < axis->Counts[y]; ++k) {
      const __m128d w = _mm_set1_pd(slots[k].Weight);
      __m128d low, high;
      WidenFloats(strip + 4 * size_t(slots[k].Index), &low, &high);
      sumLow = _mm_add_pd(sumLow, _mm_mul_pd(w, low));
      sumHigh = _mm_add_pd(sumHigh, _mm_mul_pd(w, high));
    }
    StoreFloats(reinterpret_cast<float*>(column), sumLow, sumHigh);
  }
}

#endif
