// AVX2 inverse transform: the column pass runs on eight rows held as vectors (one lane per
// column), then the block is transposed and the same pass runs over the rows. The operations
// (32-bit wrapping adds, low 32-bit products, arithmetic shifts) are the plain kernel's own.
#include "decode/velmo1_tables.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

namespace {

inline __m256i MulShift(__m256i a, int32_t k) {
  return _mm256_srai_epi32(_mm256_mullo_epi32(a, _mm256_set1_epi32(k)), 11);
}

inline void Pass(__m256i x[8]) {
  const __m256i s = _mm256_add_epi32(x[2], x[6]);
  const __m256i d = _mm256_sub_epi32(MulShift(_mm256_sub_epi32(x[2], x[6]), 2896), s);
  const __m256i a = _mm256_add_epi32(x[0], x[4]), b = _mm256_sub_epi32(x[0], x[4]);
  const __m256i e0 = _mm256_add_epi32(a, s), e3 = _mm256_sub_epi32(a, s);
  const __m256i e1 = _mm256_add_epi32(b, d), e2 = _mm256_sub_epi32(b, d);
  const __m256i p = _mm256_add_epi32(x[5], x[3]), m = _mm256_sub_epi32(x[5], x[3]);
  const __m256i u = _mm256_add_epi32(x[1], x[7]), v = _mm256_sub_epi32(x[1], x[7]);
  const __m256i o0 = _mm256_add_epi32(u, p);
  const __m256i t = MulShift(_mm256_add_epi32(v, m), 3784);
  const __m256i o1 = _mm256_add_epi32(_mm256_sub_epi32(MulShift(m, -5352), o0), t);
  const __m256i o2 = _mm256_sub_epi32(MulShift(_mm256_sub_epi32(u, p), 2896), o1);
  const __m256i o3 = _mm256_add_epi32(_mm256_sub_epi32(MulShift(v, 2217), t), o2);
  x[0] = _mm256_add_epi32(e0, o0);
  x[7] = _mm256_sub_epi32(e0, o0);
  x[1] = _mm256_add_epi32(e1, o1);
  x[6] = _mm256_sub_epi32(e1, o1);
  x[2] = _mm256_add_epi32(e2, o2);
  x[5] = _mm256_sub_epi32(e2, o2);
  x[3] = _mm256_sub_epi32(e3, o3);
  x[4] = _mm256_add_epi32(e3, o3);
}

inline void Transpose(__m256i r[8]) {
  const __m256i t0 = _mm256_unpacklo_epi32(r[0], r[1]), t1 = _mm256_unpackhi_epi32(r[0], r[1]);
  const __m256i t2 = _mm256_unpacklo_epi32(r[2], r[3]), t3 = _mm256_unpackhi_epi32(r[2], r[3]);
  const __m256i t4 = _mm256_unpacklo_epi32(r[4], r[5]), t5 = _mm256_unpackhi_epi32(r[4], r[5]);
  const __m256i t6 = _mm256_unpacklo_epi32(r[6], r[7]), t7 = _mm256_unpackhi_epi32(r[6], r[7]);
  const __m256i u0 = _mm256_unpacklo_epi64(t0, t2), u1 = _mm256_unpackhi_epi64(t0, t2);
  const __m256i u2 = _mm256_unpacklo_epi64(t1, t3), u3 = _mm256_unpackhi_epi64(t1, t3);
  const __m256i u4 = _mm256_unpacklo_epi64(t4, t6), u5 = _mm256_unpackhi_epi64(t4, t6);
  const __m256i u6 = _mm256_unpacklo_epi64(t5, t7), u7 = _mm256_unpackhi_epi64(t5, t7);
  r[0] = _mm256_permute2x128_si256(u0, u4, 0x20);
  r[1] = _mm256_permute2x128_si256(u1, u5, 0x20);
  r[2] = _mm256_permute2x128_si256(u2, u6, 0x20);
  r[3] = _mm256_permute2x128_si256(u3, u7, 0x20);
  r[4] = _mm256_permute2x128_si256(u0, u4, 0x31);
  r[5] = _mm256_permute2x128_si256(u1, u5, 0x31);
  r[6] = _mm256_permute2x128_si256(u2, u6, 0x31);
  r[7] = _mm256_permute2x128_si256(u3, u7, 0x31);
}

}  // namespace

void Velmo1IdctAvx2(const int16_t coeffs[64], const uint32_t table[64], int32_t out[64]) {
  __m256i r[8];
  for (int row = 0; row < 8; ++row) {
    const __m256i c = _mm256_cvtepi16_epi32(
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(coeffs + row * 8)));
    const __m256i t = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(table + row * 8));
    r[row] = _mm256_srai_epi32(_mm256_mullo_epi32(c, t), 11);
  }
  Pass(r);  // columns: lane j of r[i] is row i, column j
  Transpose(r);
  Pass(r);  // rows: lane j of r[i] is column i, row j
  Transpose(r);
  const __m256i round = _mm256_set1_epi32(127);
  for (int row = 0; row < 8; ++row)
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + row * 8),
                        _mm256_srai_epi32(_mm256_add_epi32(r[row], round), 8));
}

#endif
