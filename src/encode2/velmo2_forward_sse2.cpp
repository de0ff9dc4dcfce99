// SSE2 form of the forward transform. Each output is the same sum of the same float products,
// added in the same order as in the plain form, four outputs to a vector, so both give the
// same bits (the library is built without fused multiply-add).
#include "encode2/velmo2_forward.h"

#if ORN_X86_KERNELS
#include <emmintrin.h>

namespace {

// F transposed: row c holds F[0][c] .. F[7][c], the weights of input column c.
struct Transposed {
  float T[8][8];
};

const Transposed& TransposedMatrix() {
  static const Transposed t = [] {
    Transposed m;
    const float* f = Velmo2ForwardMatrix();
    for (int k = 0; k < 8; ++k)
      for (int c = 0; c < 8; ++c) m.T[c][k] = f[k * 8 + c];
    return m;
  }();
  return t;
}

}  // namespace

void Velmo2ForwardSse2(const int16_t in[64], float out[64]) {
  const float* f = Velmo2ForwardMatrix();
  const Transposed& t = TransposedMatrix();
  // Rows: tmp[r][k] = sum over c of in[r][c] * F[k][c].
  __m128 tmp[8][2];
  for (int r = 0; r < 8; ++r) {
    __m128 lo = _mm_setzero_ps(), hi = _mm_setzero_ps();
    for (int c = 0; c < 8; ++c) {
      const __m128 x = _mm_set1_ps(float(in[r * 8 + c]));
      lo = _mm_add_ps(lo, _mm_mul_ps(x, _mm_loadu_ps(&t.T[c][0])));
      hi = _mm_add_ps(hi, _mm_mul_ps(x, _mm_loadu_ps(&t.T[c][4])));
    }
    tmp[r][0] = lo;
    tmp[r][1] = hi;
  }
  // Columns: out[k][c] = sum over r of F[k][r] * tmp[r][c].
  for (int k = 0; k < 8; ++k) {
    __m128 lo = _mm_setzero_ps(), hi = _mm_setzero_ps();
    for (int r = 0; r < 8; ++r) {
      const __m128 w = _mm_set1_ps(f[k * 8 + r]);
      lo = _mm_add_ps(lo, _mm_mul_ps(w, tmp[r][0]));
      hi = _mm_add_ps(hi, _mm_mul_ps(w, tmp[r][1]));
    }
    _mm_storeu_ps(out + k * 8, lo);
    _mm_storeu_ps(out + k * 8 + 4, hi);
  }
}

// Four coefficients to a vector: |c| (the sign bit cleared) against the threshold of its sign,
// chosen by the mask of c < 0; the comparisons' sign bits give four bits of the result.
uint64_t Velmo2LevelMaskSse2(const float coef[64], const float zeroBelow[2][64]) {
  const __m128 signBit = _mm_set1_ps(-0.0f);
  const __m128 zero = _mm_setzero_ps();
  uint64_t mask = 0;
  for (uint32_t k = 0; k < 64; k += 4) {
    const __m128 c = _mm_loadu_ps(coef + k);
    const __m128 negative = _mm_cmplt_ps(c, zero);
    const __m128 threshold = _mm_or_ps(_mm_and_ps(negative, _mm_loadu_ps(zeroBelow[1] + k)),
                                       _mm_andnot_ps(negative, _mm_loadu_ps(zeroBelow[0] + k)));
    const __m128 passes = _mm_cmpge_ps(_mm_andnot_ps(signBit, c), threshold);
    mask |= uint64_t(_mm_movemask_ps(passes)) << k;
  }
  return mask & ~uint64_t(1);
}

#endif
