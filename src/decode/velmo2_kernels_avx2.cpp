// AVX2 luma fetches: the SSSE3 forms' byte-pair multiply-adds (see velmo2_kernels_ssse3.cpp
// for why they give the plain filter's values) on two lines at once, one per 128-bit half, and
// the vertical pass of the two-pass case on 16 values of a line at once.
#include "decode/velmo2_kernels.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

namespace {

using Y = __m256i;

inline __m128i Load128(const void* p) { return _mm_loadu_si128(static_cast<const __m128i*>(p)); }
inline Y Load(const void* p) { return _mm256_loadu_si256(static_cast<const Y*>(p)); }

// Line a in the low half, line b in the high half.
inline Y Pair(const uint8_t* a, const uint8_t* b) {
  return _mm256_inserti128_si256(_mm256_castsi128_si256(Load128(a)), Load128(b), 1);
}

inline void StorePair(void* a, void* b, Y v) {
  _mm_storeu_si128(static_cast<__m128i*>(a), _mm256_castsi256_si128(v));
  _mm_storeu_si128(static_cast<__m128i*>(b), _mm256_extracti128_si256(v, 1));
}

inline Y TapPairs(Y af, Y be, Y cd, Y lowBits) {
  const Y outer = _mm256_maddubs_epi16(af, _mm256_set1_epi8(1));
  const Y inner = _mm256_maddubs_epi16(be, _mm256_set1_epi8(-4));
  const Y centre = _mm256_maddubs_epi16(cd, _mm256_set1_epi8(19));
  const Y dropped = _mm256_maddubs_epi16(lowBits, _mm256_set1_epi8(-1));
  const Y sum = _mm256_add_epi16(_mm256_add_epi16(outer, inner), _mm256_add_epi16(centre, dropped));
  return _mm256_srai_epi16(_mm256_add_epi16(sum, _mm256_set1_epi16(16)), 5);
}

// The filter of 16 positions of each half from taps t[0..5]: `lo` holds positions 0..7 of each
// half, `hi` positions 8..15.
inline void Tap(const Y t[6], Y* lo, Y* hi) {
  const Y one = _mm256_set1_epi8(1);
  const Y bitAF = _mm256_and_si256(_mm256_xor_si256(t[0], t[5]), one);
  const Y bitCD = _mm256_and_si256(_mm256_xor_si256(t[2], t[3]), one);
  *lo = TapPairs(_mm256_unpacklo_epi8(t[0], t[5]), _mm256_unpacklo_epi8(t[1], t[4]),
                 _mm256_unpacklo_epi8(t[2], t[3]), _mm256_unpacklo_epi8(bitAF, bitCD));
  *hi = TapPairs(_mm256_unpackhi_epi8(t[0], t[5]), _mm256_unpackhi_epi8(t[1], t[4]),
                 _mm256_unpackhi_epi8(t[2], t[3]), _mm256_unpackhi_epi8(bitAF, bitCD));
}

// The horizontal filter of lines a and b.
inline void HorizontalPair(const uint8_t* a, const uint8_t* b, Y* lo, Y* hi) {
  Y t[6];
  for (int k = 0; k < 6; ++k) t[k] = Pair(a + k - 2, b + k - 2);
  Tap(t, lo, hi);
}

void LumaHorizontalAvx2(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  for (int r = 0; r < 16; r += 2) {
    Y lo, hi;
    HorizontalPair(src + r * pitch, src + (r + 1) * pitch, &lo, &hi);
    StorePair(dst + r * dstPitch, dst + (r + 1) * dstPitch, _mm256_packus_epi16(lo, hi));
  }
}

// t[k] holds source lines r + k - 2 and r + k - 1 for the output lines r and r + 1; the window
// slides down two lines at a time.
void LumaVerticalAvx2(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  Y t[6];
  for (int k = 0; k < 4; ++k) t[k] = Pair(src + (k - 2) * pitch, src + (k - 1) * pitch);
  for (int r = 0; r < 16; r += 2) {
    t[4] = Pair(src + (r + 2) * pitch, src + (r + 3) * pitch);
    t[5] = Pair(src + (r + 3) * pitch, src + (r + 4) * pitch);
    Y lo, hi;
    Tap(t, &lo, &hi);
    StorePair(dst + r * dstPitch, dst + (r + 1) * dstPitch, _mm256_packus_epi16(lo, hi));
    for (int k = 0; k < 4; ++k) t[k] = t[k + 2];
  }
}

// The six-tap filter on 16-bit lanes (the first pass's unclamped values).
inline Y HalfTap16(const int16_t* p) {
  const Y a = Load(p), b = Load(p + 16), c = Load(p + 32), d = Load(p + 48), e = Load(p + 64),
          f = Load(p + 80);
  const Y outer = _mm256_srai_epi16(_mm256_add_epi16(a, f), 1);
  const Y centre =
      _mm256_srai_epi16(_mm256_mullo_epi16(_mm256_add_epi16(c, d), _mm256_set1_epi16(19)), 1);
  const Y inner = _mm256_slli_epi16(_mm256_add_epi16(b, e), 1);
  const Y t = _mm256_add_epi16(_mm256_sub_epi16(_mm256_add_epi16(outer, centre), inner),
                               _mm256_set1_epi16(8));
  return _mm256_srai_epi16(t, 4);
}

// One line of 16 first-pass values from its two halves.
inline void StoreRow(int16_t* row, __m128i lo, __m128i hi) {
  _mm_store_si128(reinterpret_cast<__m128i*>(row), lo);
  _mm_store_si128(reinterpret_cast<__m128i*>(row + 8), hi);
}

void LumaBothAvx2(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  alignas(32) int16_t rows[Velmo2LumaBothRows * 16];
  for (int r = 0; r < Velmo2LumaBothRows; r += 2) {
    // The last line alone: its pair partner reads it again and is not stored.
    const bool two = r + 1 < Velmo2LumaBothRows;
    const uint8_t* a = src + (r - 2) * pitch;
    Y lo, hi;
    HorizontalPair(a, two ? a + pitch : a, &lo, &hi);
    StoreRow(rows + r * 16, _mm256_castsi256_si128(lo), _mm256_castsi256_si128(hi));
    if (!two) break;
    StoreRow(rows + r * 16 + 16, _mm256_extracti128_si256(lo, 1), _mm256_extracti128_si256(hi, 1));
  }
  // Two output lines a step: the pack interleaves their halves, the permute puts each line in
  // its own 128-bit half.
  for (int r = 0; r < 16; r += 2) {
    const Y packed = _mm256_packus_epi16(HalfTap16(rows + r * 16), HalfTap16(rows + r * 16 + 16));
    StorePair(dst + r * dstPitch, dst + (r + 1) * dstPitch, _mm256_permute4x64_epi64(packed, 0xD8));
  }
}

}  // namespace

void Velmo2KernelsAvx2(Velmo2Kernels* kernels) {
  kernels->FetchLuma[1] = LumaHorizontalAvx2;
  kernels->FetchLuma[2] = LumaVerticalAvx2;
  kernels->FetchLuma[3] = LumaBothAvx2;
}

#endif  // ORN_X86_KERNELS
