// AVX2 block difference: four lines of the reference gathered into one register and compared
// with four lines of the block by one _mm256_sad_epu8, which leaves a sum in each 64-bit lane.
// AVX2 coefficient count: sixteen values a register; the two halves of a pack are put back in
// order before their signs are gathered.
#include "compress/velmo1_kernels.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

#include <algorithm>

#include "decode/velmo1_tables.h"

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

// Eight candidates at ref .. ref + 7, reading 16 bytes of each line. Each 128-bit lane holds
// one line of the reference; _mm256_mpsadbw_epu8 slides four bytes of the block's line over
// it, eight positions at once, and a second call does the line's other four bytes. The
// 16-bit sums cannot overflow: each is at most 64 * 255.
void EightSums(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch, uint32_t* sums) {
  __m256i acc = _mm256_setzero_si256();
  for (int r = 0; r < 8; r += 2, ref += 2 * refPitch) {
    const __m256i lines = _mm256_inserti128_si256(
        _mm256_castsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(ref))),
        _mm_loadu_si128(reinterpret_cast<const __m128i*>(ref + refPitch)), 1);
    // Both lanes hold block lines r and r + 1; the low lane compares line r, the high one r + 1.
    const __m256i pair =
        _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(block + r * 8)));
    acc = _mm256_add_epi16(acc, _mm256_mpsadbw_epu8(lines, pair, 0x10));  // bytes 0-3
    acc = _mm256_add_epi16(acc, _mm256_mpsadbw_epu8(lines, pair, 0x3d));  // bytes 4-7
  }
  const __m128i total = _mm_add_epi16(_mm256_castsi256_si128(acc), _mm256_extracti128_si256(acc, 1));
  _mm256_storeu_si256(reinterpret_cast<__m256i*>(sums), _mm256_cvtepu16_epi32(total));
}

// Groups of eight while a group's 16-byte reads stay within the count + 7 bytes a line may
// give; the last group is moved back to end there and overlaps the one before it. What is
// left (fewer than nine candidates, or the very last) is summed one at a time.
void SadRowAvx2(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch, int count,
                uint32_t bound, uint32_t* sums) {
  int k = 0;
  if (count >= 9) {
    for (int start = 0; start < count - 1; start += 8) {
      const int at = std::min(start, count - 9);
      EightSums(block, ref + at, refPitch, sums + at);
    }
    k = count - 1;
  }
  for (; k < count; ++k) sums[k] = Sad8Avx2(block, ref + k, refPitch, bound);
}

// Marks of 32 values from two registers of 16: set where the value reaches the plane.
inline uint64_t Reaching32(__m256i a, __m256i b, __m128i shift) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i low = _mm256_cmpeq_epi16(_mm256_srl_epi16(a, shift), zero);
  const __m256i high = _mm256_cmpeq_epi16(_mm256_srl_epi16(b, shift), zero);
  const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi16(low, high), 0xd8);
  return ~uint64_t(uint32_t(_mm256_movemask_epi8(packed))) & 0xffffffffu;
}

uint32_t CoefficientBitsAvx2(const int16_t coeffs[64]) {
  alignas(32) int16_t list[64];
  list[0] = 0;
  for (int j = 1; j < 64; ++j) list[j] = coeffs[Velmo1CoefficientOrder[j]];
  __m256i mag[4];
  __m256i any = _mm256_setzero_si256();
  for (int k = 0; k < 4; ++k) {
    mag[k] = _mm256_abs_epi16(_mm256_load_si256(reinterpret_cast<const __m256i*>(list + 16 * k)));
    any = _mm256_or_si256(any, mag[k]);
  }
  __m128i all = _mm_or_si128(_mm256_castsi256_si128(any), _mm256_extracti128_si256(any, 1));
  all = _mm_or_si128(all, _mm_srli_si128(all, 8));
  all = _mm_or_si128(all, _mm_srli_si128(all, 4));
  all = _mm_or_si128(all, _mm_srli_si128(all, 2));
  const uint32_t planes = Velmo1BitLength(uint32_t(_mm_cvtsi128_si32(all)) & 0xffff);
  uint64_t reach[16];
  for (uint32_t n = 1; n <= planes; ++n) {
    const __m128i shift = _mm_cvtsi32_si128(int(n - 1));
    reach[n - 1] = Reaching32(mag[0], mag[1], shift) | Reaching32(mag[2], mag[3], shift) << 32;
  }
  return Velmo1CoefficientBitsFromReach(reach, planes);
}

}  // namespace

void Velmo1EncodeKernelsAvx2(Velmo1EncodeKernels* kernels) {
  kernels->Sad8 = Sad8Avx2;
  kernels->SadRow = SadRowAvx2;
  kernels->CoefficientBits = CoefficientBitsAvx2;
}

#endif  // ORN_X86_KERNELS
