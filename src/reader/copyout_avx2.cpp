// AVX2 copy-out kernels: 16 pixels per step in one register of sixteen 16-bit lanes. Chroma
// upsampling runs in 128-bit registers (eight pairs); the arithmetic is the plain C++
// kernels' step for step, so the bytes are identical. Compiled with AVX2 enabled and chosen
// at run time only when the processor has it.
#include "reader/copyout_kernels.h"

#if ORN_X86_KERNELS
#include <immintrin.h>

namespace {

struct Channels {
  __m256i R, G, B, A;  // R, G, B in 11-bit units clamped to 0..2047; A 8-bit
};

inline __m128i ColumnChroma(const uint8_t* near, const uint8_t* far) {
  const __m128i n = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(near)));
  const __m128i f = _mm_cvtepu8_epi16(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(far)));
  return _mm_add_epi16(_mm_add_epi16(_mm_slli_epi16(n, 1), n), f);
}

inline __m256i UpsampleChroma(const uint8_t* near, const uint8_t* far, int& left) {
  const __m128i mid = ColumnChroma(near, far);
  const __m128i right = ColumnChroma(near + 1, far + 1);
  const __m128i prev = _mm_insert_epi16(_mm_slli_si128(mid, 2), left, 0);
  const __m128i mid3 = _mm_add_epi16(_mm_slli_epi16(mid, 1), mid);
  const __m128i even = _mm_add_epi16(mid3, prev);
  const __m128i odd = _mm_add_epi16(mid3, right);
  left = _mm_extract_epi16(mid, 7);
  const __m256i c = _mm256_set_m128i(_mm_unpackhi_epi16(even, odd), _mm_unpacklo_epi16(even, odd));
  return _mm256_add_epi16(_mm256_slli_epi16(c, 3), _mm256_srli_epi16(c, 5));
}

inline __m256i Clamp11(__m256i v) {
  return _mm256_min_epi16(_mm256_max_epi16(v, _mm256_setzero_si256()), _mm256_set1_epi16(2047));
}

struct Weights {
  __m256i Y, CrR, CrG, CbG, CbB, DR, DG, DB;
};

inline __m256i LoadDither(const int16_t* row) {
  return _mm256_broadcastsi128_si256(_mm_loadu_si128(reinterpret_cast<const __m128i*>(row)));
}

inline Weights LoadWeights(const VelmoConversionState* s, uint32_t parity) {
  Weights w;
  w.Y = _mm256_set1_epi16(s->YWeight);
  w.CrR = _mm256_set1_epi16(s->CrToR);
  w.CrG = _mm256_set1_epi16(s->CrToG);
  w.CbG = _mm256_set1_epi16(s->CbToG);
  w.CbB = _mm256_set1_epi16(s->CbToB);
  w.DR = LoadDither(s->OffsetR[parity & 1]);
  w.DG = LoadDither(s->OffsetG[parity & 1]);
  w.DB = LoadDither(s->OffsetB[parity & 1]);
  return w;
}

inline void ConvertGroup(const VelmoCopyLine* line, const Weights& w, uint32_t g, int& crLeft,
                         int& cbLeft, Channels* out) {
  const uint32_t x = g * 16, c = g * 8;
  const __m256i cr = UpsampleChroma(line->CrNear + c, line->CrFar + c, crLeft);
  const __m256i cb = UpsampleChroma(line->CbNear + c, line->CbFar + c, cbLeft);
  const __m256i y =
      _mm256_cvtepu8_epi16(_mm_loadu_si128(reinterpret_cast<const __m128i*>(line->Y + x)));
  const __m256i yTerm =
      _mm256_mulhi_epi16(_mm256_add_epi16(_mm256_slli_epi16(y, 7), _mm256_srli_epi16(y, 1)), w.Y);
  __m256i r = _mm256_adds_epi16(yTerm, _mm256_mulhi_epi16(cr, w.CrR));
  r = _mm256_adds_epi16(r, w.DR);
  __m256i gg = _mm256_adds_epi16(yTerm, _mm256_mulhi_epi16(cr, w.CrG));
  gg = _mm256_adds_epi16(gg, _mm256_mulhi_epi16(cb, w.CbG));
  gg = _mm256_adds_epi16(gg, w.DG);
  __m256i b = _mm256_adds_epi16(yTerm, _mm256_mulhi_epi16(cb, w.CbB));
  b = _mm256_adds_epi16(b, w.DB);
  out->R = Clamp11(r);
  out->G = Clamp11(gg);
  out->B = Clamp11(b);
  out->A = line->Alpha ? _mm256_cvtepu8_epi16(
                             _mm_loadu_si128(reinterpret_cast<const __m128i*>(line->Alpha + x)))
                       : _mm256_set1_epi16(255);
}

inline void Store(uint8_t* p, __m256i v) { _mm256_storeu_si256(reinterpret_cast<__m256i*>(p), v); }

}  // namespace

// Blue, green, red and alpha in fixed byte lanes 0 to 3.
void VelmoCopyKernel32Avx2(const VelmoCopyLine* line, const VelmoConversionState* s) {
  const Weights w = LoadWeights(s, line->LineParity);
  int crLeft = line->CrLeft, cbLeft = line->CbLeft;
  for (uint32_t g = 0; g < line->Groups; ++g) {
    Channels ch;
    ConvertGroup(line, w, g, crLeft, cbLeft, &ch);
    const __m256i bg = _mm256_or_si256(_mm256_srli_epi16(ch.B, 3),
                                       _mm256_slli_epi16(_mm256_srli_epi16(ch.G, 3), 8));
    const __m256i ra = _mm256_or_si256(_mm256_srli_epi16(ch.R, 3), _mm256_slli_epi16(ch.A, 8));
    // Unpacking works per 128-bit lane: lo holds pixels 0-3 and 8-11, hi 4-7 and 12-15.
    const __m256i lo = _mm256_unpacklo_epi16(bg, ra);
    const __m256i hi = _mm256_unpackhi_epi16(bg, ra);
    uint8_t* d = line->Dest + size_t(g) * 64;
    Store(d, _mm256_permute2x128_si256(lo, hi, 0x20));
    Store(d + 32, _mm256_permute2x128_si256(lo, hi, 0x31));
  }
}

// Each channel shifted to its width and placed at its position from the state, in 32-bit
// lanes.
void VelmoCopyKernel32AltAvx2(const VelmoCopyLine* line, const VelmoConversionState* s) {
  const Weights w = LoadWeights(s, line->LineParity);
  const __m128i shiftR = _mm_cvtsi32_si128(s->ShiftR), posR = _mm_cvtsi32_si128(s->PosR);
  const __m128i shiftG = _mm_cvtsi32_si128(s->ShiftG), posG = _mm_cvtsi32_si128(s->PosG);
  const __m128i shiftB = _mm_cvtsi32_si128(s->ShiftB), posB = _mm_cvtsi32_si128(s->PosB);
  const __m128i shiftA = _mm_cvtsi32_si128(s->ShiftA), posA = _mm_cvtsi32_si128(s->PosA);
  int crLeft = line->CrLeft, cbLeft = line->CbLeft;
  for (uint32_t g = 0; g < line->Groups; ++g) {
    Channels ch;
    ConvertGroup(line, w, g, crLeft, cbLeft, &ch);
    const __m256i r = _mm256_srl_epi16(ch.R, shiftR);
    const __m256i gg = _mm256_srl_epi16(ch.G, shiftG);
    const __m256i b = _mm256_srl_epi16(ch.B, shiftB);
    const __m256i a = _mm256_srl_epi16(_mm256_slli_epi16(ch.A, 3), shiftA);
    uint8_t* d = line->Dest + size_t(g) * 64;
    for (int q = 0; q < 2; ++q) {
      auto widen = [&](__m256i v) {
        return _mm256_cvtepu16_epi32(q ? _mm256_extracti128_si256(v, 1)
                                       : _mm256_castsi256_si128(v));
      };
      __m256i px = _mm256_sll_epi32(widen(r), posR);
      px = _mm256_or_si256(px, _mm256_sll_epi32(widen(gg), posG));
      px = _mm256_or_si256(px, _mm256_sll_epi32(widen(b), posB));
      px = _mm256_or_si256(px, _mm256_sll_epi32(widen(a), posA));
      Store(d + q * 32, px);
    }
  }
}

void VelmoCopyKernel16Avx2(const VelmoCopyLine* line, const VelmoConversionState* s) {
  const Weights w = LoadWeights(s, line->LineParity);
  const __m128i shiftR = _mm_cvtsi32_si128(s->ShiftR), posR = _mm_cvtsi32_si128(s->PosR);
  const __m128i shiftG = _mm_cvtsi32_si128(s->ShiftG), posG = _mm_cvtsi32_si128(s->PosG);
  const __m128i shiftB = _mm_cvtsi32_si128(s->ShiftB), posB = _mm_cvtsi32_si128(s->PosB);
  const __m128i shiftA = _mm_cvtsi32_si128(s->ShiftA), posA = _mm_cvtsi32_si128(s->PosA);
  int crLeft = line->CrLeft, cbLeft = line->CbLeft;
  for (uint32_t g = 0; g < line->Groups; ++g) {
    Channels ch;
    ConvertGroup(line, w, g, crLeft, cbLeft, &ch);
    __m256i px = _mm256_sll_epi16(_mm256_srl_epi16(ch.R, shiftR), posR);
    px = _mm256_or_si256(px, _mm256_sll_epi16(_mm256_srl_epi16(ch.G, shiftG), posG));
    px = _mm256_or_si256(px, _mm256_sll_epi16(_mm256_srl_epi16(ch.B, shiftB), posB));
    const __m256i a = _mm256_srl_epi16(_mm256_slli_epi16(ch.A, 3), shiftA);
    px = _mm256_or_si256(px, _mm256_sll_epi16(a, posA));
    Store(line->Dest + size_t(g) * 32, px);
  }
}

#endif
