// AVX2 block difference: four lines of the reference gathered into one register and compared
// with four lines of the block by one _mm256_sad_epu8, which leaves a sum in each 64-bit lane.
// AVX2 coefficient count: the bit lengths of all values as bytes, shuffled into list order,
// each plane's marks from one compare of the lengths.
#include "compress/velmo1_kernels.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

#include <algorithm>

#include "compress/velmo1_quantise.h"
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

// The bit lengths of 32 values as bytes, in order. A float holds every magnitude exactly, so
// its exponent less 126 is the length (0 stays 0).
__m256i Lengths32(const int16_t* values) {
  __m256i lengths[4];
  for (int k = 0; k < 4; ++k) {
    const __m256i v = _mm256_abs_epi32(
        _mm256_cvtepi16_epi32(_mm_loadu_si128(reinterpret_cast<const __m128i*>(values + 8 * k))));
    const __m256i exponent = _mm256_srli_epi32(_mm256_castps_si256(_mm256_cvtepi32_ps(v)), 23);
    lengths[k] = _mm256_subs_epu16(exponent, _mm256_set1_epi32(126));
  }
  // The packs work in 128-bit lanes: the bytes come out as runs of four, which the last step
  // puts back in order.
  const __m256i bytes = _mm256_packus_epi16(_mm256_packus_epi32(lengths[0], lengths[1]),
                                            _mm256_packus_epi32(lengths[2], lengths[3]));
  return _mm256_permutevar8x32_epi32(bytes, _mm256_setr_epi32(0, 4, 1, 5, 2, 6, 3, 7));
}

// Byte shuffles that put the lengths in list order: entry [half][chunk] takes, for each list
// index of the half (0-31, 32-63), the byte of its position when that position lies in the
// chunk (positions 16 * chunk to 16 * chunk + 15) and 0 otherwise; index 0 is always 0.
struct ListShuffles {
  __m256i Take[2][4];
};

const ListShuffles& ListOrder() {
  static const ListShuffles table = [] {
    ListShuffles t;
    for (int half = 0; half < 2; ++half)
      for (int chunk = 0; chunk < 4; ++chunk) {
        alignas(32) uint8_t take[32];
        for (int j = 0; j < 32; ++j) {
          const int index = 32 * half + j;
          const int pos = Velmo1CoefficientOrder[index] - 16 * chunk;
          take[j] = index != 0 && pos >= 0 && pos < 16 ? uint8_t(pos) : uint8_t(0x80);
        }
        t.Take[half][chunk] = _mm256_load_si256(reinterpret_cast<const __m256i*>(take));
      }
    return t;
  }();
  return table;
}

uint32_t CoefficientBitsAvx2(const int16_t coeffs[64]) {
  const ListShuffles& order = ListOrder();
  const __m256i first = Lengths32(coeffs), second = Lengths32(coeffs + 32);
  const __m256i chunks[4] = {_mm256_permute2x128_si256(first, first, 0x00),
                             _mm256_permute2x128_si256(first, first, 0x11),
                             _mm256_permute2x128_si256(second, second, 0x00),
                             _mm256_permute2x128_si256(second, second, 0x11)};
  __m256i list[2];
  for (int half = 0; half < 2; ++half) {
    list[half] = _mm256_shuffle_epi8(chunks[0], order.Take[half][0]);
    for (int chunk = 1; chunk < 4; ++chunk)
      list[half] = _mm256_or_si256(list[half], _mm256_shuffle_epi8(chunks[chunk], order.Take[half][chunk]));
  }
  const __m256i zero = _mm256_setzero_si256();
  const __m256i sums = _mm256_add_epi64(_mm256_sad_epu8(list[0], zero), _mm256_sad_epu8(list[1], zero));
  __m128i total = _mm_add_epi64(_mm256_castsi256_si128(sums), _mm256_extracti128_si256(sums, 1));
  total = _mm_add_epi64(total, _mm_srli_si128(total, 8));
  __m128i longest = _mm_max_epu8(_mm256_castsi256_si128(_mm256_max_epu8(list[0], list[1])),
                                 _mm256_extracti128_si256(_mm256_max_epu8(list[0], list[1]), 1));
  longest = _mm_max_epu8(longest, _mm_srli_si128(longest, 8));
  longest = _mm_max_epu8(longest, _mm_srli_si128(longest, 4));
  longest = _mm_max_epu8(longest, _mm_srli_si128(longest, 2));
  longest = _mm_max_epu8(longest, _mm_srli_si128(longest, 1));
  const uint32_t planes = uint32_t(_mm_cvtsi128_si32(longest)) & 0xff;
  uint64_t reach[16];
  for (uint32_t n = 1; n <= planes; ++n) {
    const __m256i shorter = _mm256_set1_epi8(char(n - 1));
    const uint32_t low = uint32_t(_mm256_movemask_epi8(_mm256_cmpgt_epi8(list[0], shorter)));
    const uint32_t high = uint32_t(_mm256_movemask_epi8(_mm256_cmpgt_epi8(list[1], shorter)));
    reach[n - 1] = uint64_t(low) | uint64_t(high) << 32;
  }
  return Velmo1CoefficientBitsFromReach(reach, planes, uint32_t(_mm_cvtsi128_si32(total)));
}

}  // namespace

namespace {

// (row * value + rounding) >> 30 for eight values, the products in 64 bits, even and odd
// elements apart. AVX2 has no arithmetic 64-bit shift, but the result fits 32 bits, and there
// the low half of the logical shift is that of the arithmetic one.
inline __m256i RowTimes(__m256i values, __m256i row, __m256i rounding) {
  const __m256i even =
      _mm256_srli_epi64(_mm256_add_epi64(_mm256_mul_epi32(values, row), rounding), 30);
  const __m256i odd = _mm256_srli_epi64(
      _mm256_add_epi64(_mm256_mul_epi32(_mm256_srli_epi64(values, 32), _mm256_srli_epi64(row, 32)),
                       rounding),
      30);
  return _mm256_blend_epi32(even, _mm256_slli_epi64(odd, 32), 0xAA);
}

// Both quantisers: the AC values held to +-16383 and stored as 16 bits, the DC held as the
// plain form holds it.
template <bool DeadZone>
bool QuantiseAvx2(const int32_t coeffs[64], uint32_t scale, bool inter, int16_t out[64]) {
  const uint32_t* row = Velmo1QuantiserRow(scale);
  const __m256i rounding = _mm256_set1_epi64x(DeadZone ? Velmo1DeadZoneRounding : 0x1fffffff);
  const __m256i high = _mm256_set1_epi32(16383), low = _mm256_set1_epi32(-16383);
  __m256i any = _mm256_setzero_si256();
  for (int k = 0; k < 64; k += 16) {
    __m256i q[2];
    for (int h = 0; h < 2; ++h) {
      const __m256i c = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(coeffs + k + 8 * h));
      const __m256i r = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(row + k + 8 * h));
      if (DeadZone) {
        const __m256i magnitude =
            _mm256_min_epi32(RowTimes(_mm256_abs_epi32(c), r, rounding), high);
        q[h] = _mm256_sign_epi32(magnitude, c);
      } else {
        q[h] = _mm256_max_epi32(_mm256_min_epi32(RowTimes(c, r, rounding), high), low);
      }
    }
    if (k == 0) q[0] = _mm256_blend_epi32(q[0], _mm256_setzero_si256(), 1);  // DC below
    any = _mm256_or_si256(any, _mm256_or_si256(q[0], q[1]));
    const __m256i packed = _mm256_permute4x64_epi64(_mm256_packs_epi32(q[0], q[1]), 0xD8);
    _mm256_storeu_si256(reinterpret_cast<__m256i*>(out + k), packed);
  }
  out[0] = Velmo1HeldDc(Velmo1QuantiseCoefficient(coeffs[0], row[0]), inter);
  return !_mm256_testz_si256(any, any);
}

}  // namespace

void Velmo1EncodeKernelsAvx2(Velmo1EncodeKernels* kernels) {
  kernels->Sad8 = Sad8Avx2;
  kernels->SadRow = SadRowAvx2;
  kernels->CoefficientBits = CoefficientBitsAvx2;
  kernels->Quantise = QuantiseAvx2<false>;
  kernels->QuantiseDeadZone = QuantiseAvx2<true>;
}

#endif  // ORN_X86_KERNELS
