// SSSE3 luma fetches: the six-tap filter as byte-pair multiply-adds. The plain filter halves
// its outer and centre sums separately, (A + F) >> 1 and (19 (C + D)) >> 1; their sum is half
// of A + F + 19 (C + D) less the two dropped low bits, (A ^ F) & 1 and (C ^ D) & 1. So
//   t >> 4 == (A + F + 19 (C + D) - 4 (B + E) + 16 - ((A ^ F) & 1) - ((C ^ D) & 1)) >> 5,
// every term of which is one multiply-add of byte pairs, and no pair sum saturates (at most
// 19 * 510).
#include "decode/velmo2_kernels.h"

#if ORN_X86_KERNELS
#include <tmmintrin.h>

namespace {

using V = __m128i;

inline V Load(const void* p) { return _mm_loadu_si128(static_cast<const V*>(p)); }
inline void Store(void* p, V v) { _mm_storeu_si128(static_cast<V*>(p), v); }

// The filter of 8 positions from the pairs (A, F), (B, E), (C, D) and their low bits, each
// interleaved as bytes.
inline V TapPairs(V af, V be, V cd, V lowBits) {
  const V outer = _mm_maddubs_epi16(af, _mm_set1_epi8(1));
  const V inner = _mm_maddubs_epi16(be, _mm_set1_epi8(-4));
  const V centre = _mm_maddubs_epi16(cd, _mm_set1_epi8(19));
  const V dropped = _mm_maddubs_epi16(lowBits, _mm_set1_epi8(-1));
  const V sum = _mm_add_epi16(_mm_add_epi16(outer, inner), _mm_add_epi16(centre, dropped));
  return _mm_srai_epi16(_mm_add_epi16(sum, _mm_set1_epi16(16)), 5);
}

// The filter of 16 byte positions whose taps are t[0..5] (A .. F): low and high eight results,
// exactly the plain filter's values before the hold.
inline void Tap(const V t[6], V* lo, V* hi) {
  const V one = _mm_set1_epi8(1);
  const V bitAF = _mm_and_si128(_mm_xor_si128(t[0], t[5]), one);
  const V bitCD = _mm_and_si128(_mm_xor_si128(t[2], t[3]), one);
  *lo = TapPairs(_mm_unpacklo_epi8(t[0], t[5]), _mm_unpacklo_epi8(t[1], t[4]),
                 _mm_unpacklo_epi8(t[2], t[3]), _mm_unpacklo_epi8(bitAF, bitCD));
  *hi = TapPairs(_mm_unpackhi_epi8(t[0], t[5]), _mm_unpackhi_epi8(t[1], t[4]),
                 _mm_unpackhi_epi8(t[2], t[3]), _mm_unpackhi_epi8(bitAF, bitCD));
}

inline void HorizontalRow(const uint8_t* line, V* lo, V* hi) {
  V t[6];
  for (int k = 0; k < 6; ++k) t[k] = Load(line + k - 2);
  Tap(t, lo, hi);
}

void LumaHorizontalSsse3(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  for (int r = 0; r < 16; ++r) {
    V lo, hi;
    HorizontalRow(src + r * pitch, &lo, &hi);
    Store(dst + r * dstPitch, _mm_packus_epi16(lo, hi));
  }
}

void LumaVerticalSsse3(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  V t[6];
  for (int k = 0; k < 5; ++k) t[k] = Load(src + (k - 2) * pitch);
  for (int r = 0; r < 16; ++r) {
    t[5] = Load(src + (r + 3) * pitch);
    V lo, hi;
    Tap(t, &lo, &hi);
    Store(dst + r * dstPitch, _mm_packus_epi16(lo, hi));
    for (int k = 0; k < 5; ++k) t[k] = t[k + 1];
  }
}

// The horizontal pass here; its unclamped 16-bit rows go through the shared vertical pass.
void LumaBothSsse3(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  alignas(16) int16_t rows[Velmo2LumaBothRows * 16];
  for (int r = 0; r < Velmo2LumaBothRows; ++r) {
    V lo, hi;
    HorizontalRow(src + (r - 2) * pitch, &lo, &hi);
    Store(rows + r * 16, lo);
    Store(rows + r * 16 + 8, hi);
  }
  Velmo2LumaVerticalPass16(rows, dst, dstPitch);
}

}  // namespace

void Velmo2KernelsSsse3(Velmo2Kernels* kernels) {
  kernels->FetchLuma[1] = LumaHorizontalSsse3;
  kernels->FetchLuma[2] = LumaVerticalSsse3;
  kernels->FetchLuma[3] = LumaBothSsse3;
}

#endif  // ORN_X86_KERNELS
