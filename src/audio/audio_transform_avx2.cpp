// AVX2 forms of the sound transform kernels: eight butterflies or samples a step, with the
// same operations in the same order as the plain forms (no fused multiply-add).
#include "audio/audio_transform.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

#include <cmath>

namespace {

void WidePass(float* re, float* im, uint32_t m, uint32_t h, const float* wr, const float* wi) {
  for (uint32_t s = 0; s < m; s += 2 * h) {
    float* ar = re + s;
    float* ai = im + s;
    float* br = ar + h;
    float* bi = ai + h;
    for (uint32_t j = 0; j < h; j += 8) {
      const __m256 xr = _mm256_loadu_ps(br + j), xi = _mm256_loadu_ps(bi + j);
      const __m256 cr = _mm256_loadu_ps(wr + j), ci = _mm256_loadu_ps(wi + j);
      const __m256 tr = _mm256_sub_ps(_mm256_mul_ps(xr, cr), _mm256_mul_ps(xi, ci));
      const __m256 ti = _mm256_add_ps(_mm256_mul_ps(xr, ci), _mm256_mul_ps(xi, cr));
      const __m256 pr = _mm256_loadu_ps(ar + j), pi = _mm256_loadu_ps(ai + j);
      _mm256_storeu_ps(br + j, _mm256_sub_ps(pr, tr));
      _mm256_storeu_ps(bi + j, _mm256_sub_ps(pi, ti));
      _mm256_storeu_ps(ar + j, _mm256_add_ps(pr, tr));
      _mm256_storeu_ps(ai + j, _mm256_add_ps(pi, ti));
    }
  }
}

}  // namespace

void AudioComplexPassesAvx2(float* re, float* im, uint32_t m, const float* twiddleRe,
                            const float* twiddleIm) {
  for (uint32_t h = 1; h < m; h *= 2) {
    if (h < 8) AudioButterflyPass(re, im, m, h, twiddleRe + h, twiddleIm + h);
    else WidePass(re, im, m, h, twiddleRe + h, twiddleIm + h);
  }
}

void AudioFloatToPcmAvx2(const float* in, uint32_t count, float scale, int16_t* out) {
  const __m256 factor = _mm256_set1_ps(scale);
  const __m256 low = _mm256_set1_ps(-32768.0f), high = _mm256_set1_ps(32767.0f);
  uint32_t i = 0;
  for (; i + 16 <= count; i += 16) {
    // max/min take the second operand for a NaN, as the plain comparisons do.
    __m256 a = _mm256_mul_ps(_mm256_loadu_ps(in + i), factor);
    __m256 b = _mm256_mul_ps(_mm256_loadu_ps(in + i + 8), factor);
    a = _mm256_min_ps(_mm256_max_ps(a, low), high);
    b = _mm256_min_ps(_mm256_max_ps(b, low), high);
    const __m256i packed = _mm256_packs_epi32(_mm256_cvtps_epi32(a), _mm256_cvtps_epi32(b));
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + i),
                        _mm256_permute4x64_epi64(packed, 0xD8));
  }
  for (; i < count; ++i) {
    float v = in[i] * scale;
    v = v > -32768.0f ? v : -32768.0f;
    v = v < 32767.0f ? v : 32767.0f;
    out[i] = static_cast<int16_t>(std::nearbyint(v));
  }
}

#endif
