// SSE2 block difference: two lines of the reference gathered into one register and compared
// with two lines of the block by one _mm_sad_epu8, which leaves a sum in each 64-bit half.
// SSE2 coefficient count: the marks of a plane from eight values a register, shifted down by
// the plane and tested against zero.
#include "compress/velmo1_kernels.h"

#if ORN_X86_KERNELS
#include <emmintrin.h>

#include "decode/velmo1_tables.h"

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

// The magnitudes come out unsigned: max(v, -v) leaves -32768 as 0x8000, and the logical shift
// reads it as 32768.
uint32_t CoefficientBitsSse2(const int16_t coeffs[64]) {
  alignas(16) int16_t list[64];
  list[0] = 0;
  for (int j = 1; j < 64; ++j) list[j] = coeffs[Velmo1CoefficientOrder[j]];
  const V zero = _mm_setzero_si128();
  V mag[8];
  V any = zero;
  for (int k = 0; k < 8; ++k) {
    const V v = _mm_load_si128(reinterpret_cast<const V*>(list + 8 * k));
    mag[k] = _mm_max_epi16(v, _mm_sub_epi16(zero, v));
    any = _mm_or_si128(any, mag[k]);
  }
  any = _mm_or_si128(any, _mm_srli_si128(any, 8));
  any = _mm_or_si128(any, _mm_srli_si128(any, 4));
  any = _mm_or_si128(any, _mm_srli_si128(any, 2));
  const uint32_t planes = Velmo1BitLength(uint32_t(_mm_cvtsi128_si32(any)) & 0xffff);
  // Each byte of `below` counts down the planes its values do not reach (at most 4 * 16): every
  // value is as long as the planes it reaches.
  uint64_t reach[16];
  V below = zero;
  for (uint32_t n = 1; n <= planes; ++n) {
    const V shift = _mm_cvtsi32_si128(int(n - 1));
    uint64_t marks = 0;
    for (int k = 0; k < 4; ++k) {
      const V low = _mm_cmpeq_epi16(_mm_srl_epi16(mag[2 * k], shift), zero);
      const V high = _mm_cmpeq_epi16(_mm_srl_epi16(mag[2 * k + 1], shift), zero);
      const V packed = _mm_packs_epi16(low, high);
      below = _mm_add_epi8(below, packed);
      marks |= uint64_t(~uint32_t(_mm_movemask_epi8(packed)) & 0xffff) << (16 * k);
    }
    reach[n - 1] = marks;
  }
  const V counted = _mm_sad_epu8(_mm_sub_epi8(zero, below), zero);
  const uint32_t misses = uint32_t(_mm_cvtsi128_si32(counted) + _mm_cvtsi128_si32(_mm_srli_si128(counted, 8)));
  return Velmo1CoefficientBitsFromReach(reach, planes, 64 * planes - misses);
}

}  // namespace

void Velmo1EncodeKernelsSse2(Velmo1EncodeKernels* kernels) {
  kernels->Sad8 = Sad8Sse2;
  kernels->SadRow = SadRowSse2;
  kernels->CoefficientBits = CoefficientBitsSse2;
}

#endif  // ORN_X86_KERNELS
