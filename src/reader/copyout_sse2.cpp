// SSE2 copy-out kernels: 16 pixels per step as two halves of eight 16-bit lanes. The
// arithmetic is the plain C++ kernels' step for step (multiply-high, saturating adds in the
// same order), so the bytes are identical.
#include "reader/copyout_kernels.h"

#if ORN_X86_KERNELS
#include <emmintrin.h>

namespace {

struct Channels {
  __m128i R[2], G[2], B[2], A[2];  // R, G, B in 11-bit units clamped to 0..2047; A 8-bit
};

// 3 × near + far for 8 chroma samples at p.
inline __m128i ColumnChroma(const uint8_t* near, const uint8_t* far) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i n = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(near)), zero);
  const __m128i f = _mm_unpacklo_epi8(_mm_loadl_epi64(reinterpret_cast<const __m128i*>(far)), zero);
  return _mm_add_epi16(_mm_add_epi16(_mm_slli_epi16(n, 1), n), f);
}

inline __m128i ScaleChroma(__m128i c) {
  return _mm_add_epi16(_mm_slli_epi16(c, 3), _mm_srli_epi16(c, 5));
}

// Upsampled, scaled chroma of 16 pixels; `left` is the column value left of the first pair
// and is replaced by the last pair's column value for the next group.
inline void UpsampleChroma(const uint8_t* near, const uint8_t* far, int& left, __m128i out[2]) {
  const __m128i mid = ColumnChroma(near, far);            // k = 0 .. 7
  const __m128i right = ColumnChroma(near + 1, far + 1);  // k = 1 .. 8
  const __m128i prev = _mm_insert_epi16(_mm_slli_si128(mid, 2), left, 0);  // k = −1 .. 6
  const __m128i mid3 = _mm_add_epi16(_mm_slli_epi16(mid, 1), mid);
  const __m128i even = _mm_add_epi16(mid3, prev);
  const __m128i odd = _mm_add_epi16(mid3, right);
  out[0] = ScaleChroma(_mm_unpacklo_epi16(even, odd));
  out[1] = ScaleChroma(_mm_unpackhi_epi16(even, odd));
  left = _mm_extract_epi16(mid, 7);
}

inline __m128i Clamp11(__m128i v) {
  return _mm_min_epi16(_mm_max_epi16(v, _mm_setzero_si128()), _mm_set1_epi16(2047));
}

struct Weights {
  __m128i Y, CrR, CrG, CbG, CbB, DR, DG, DB;
};

inline Weights LoadWeights(const VelmoConversionState* s, uint32_t parity) {
  Weights w;
  w.Y = _mm_set1_epi16(s->YWeight);
  w.CrR = _mm_set1_epi16(s->CrToR);
  w.CrG = _mm_set1_epi16(s->CrToG);
  w.CbG = _mm_set1_epi16(s->CbToG);
  w.CbB = _mm_set1_epi16(s->CbToB);
  w.DR = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s->OffsetR[parity & 1]));
  w.DG = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s->OffsetG[parity & 1]));
  w.DB = _mm_loadu_si128(reinterpret_cast<const __m128i*>(s->OffsetB[parity & 1]));
  return w;
}

inline void ConvertGroup(const VelmoCopyLine* line, const Weights& w, uint32_t g, int& crLeft,
                         int& cbLeft, Channels* out) {
  const uint32_t x = g * 16, c = g * 8;
  __m128i cr[2], cb[2];
  UpsampleChroma(line->CrNear + c, line->CrFar + c, crLeft, cr);
  UpsampleChroma(line->CbNear + c, line->CbFar + c, cbLeft, cb);
  const __m128i zero = _mm_setzero_si128();
  const __m128i y16 = _mm_loadu_si128(reinterpret_cast<const __m128i*>(line->Y + x));
  const __m128i a16 = line->Alpha
                          ? _mm_loadu_si128(reinterpret_cast<const __m128i*>(line->Alpha + x))
                          : _mm_set1_epi8(-1);
  for (int h = 0; h < 2; ++h) {
    const __m128i y = h ? _mm_unpackhi_epi8(y16, zero) : _mm_unpacklo_epi8(y16, zero);
    const __m128i yTerm =
        _mm_mulhi_epi16(_mm_add_epi16(_mm_slli_epi16(y, 7), _mm_srli_epi16(y, 1)), w.Y);
    __m128i r = _mm_adds_epi16(yTerm, _mm_mulhi_epi16(cr[h], w.CrR));
    r = _mm_adds_epi16(r, w.DR);
    __m128i gg = _mm_adds_epi16(yTerm, _mm_mulhi_epi16(cr[h], w.CrG));
    gg = _mm_adds_epi16(gg, _mm_mulhi_epi16(cb[h], w.CbG));
    gg = _mm_adds_epi16(gg, w.DG);
    __m128i b = _mm_adds_epi16(yTerm, _mm_mulhi_epi16(cb[h], w.CbB));
    b = _mm_adds_epi16(b, w.DB);
    out->R[h] = Clamp11(r);
    out->G[h] = Clamp11(gg);
    out->B[h] = Clamp11(b);
    out->A[h] = h ? _mm_unpackhi_epi8(a16, zero) : _mm_unpacklo_epi8(a16, zero);
  }
}

inline void Store(uint8_t* p, __m128i v) { _mm_storeu_si128(reinterpret_cast<__m128i*>(p), v); }

}  // namespace

// Blue, green, red and alpha in fixed byte lanes 0 to 3.
void VelmoCopyKernel32Sse2(const VelmoCopyLine* line, const VelmoConversionState* s) {
  const Weights w = LoadWeights(s, line->LineParity);
  int crLeft = line->CrLeft, cbLeft = line->CbLeft;
  for (uint32_t g = 0; g < line->Groups; ++g) {
    Channels ch;
    ConvertGroup(line, w, g, crLeft, cbLeft, &ch);
    uint8_t* d = line->Dest + size_t(g) * 64;
    for (int h = 0; h < 2; ++h) {
      const __m128i bg = _mm_or_si128(_mm_srli_epi16(ch.B[h], 3),
                                      _mm_slli_epi16(_mm_srli_epi16(ch.G[h], 3), 8));
      const __m128i ra = _mm_or_si128(_mm_srli_epi16(ch.R[h], 3), _mm_slli_epi16(ch.A[h], 8));
      Store(d + h * 32, _mm_unpacklo_epi16(bg, ra));
      Store(d + h * 32 + 16, _mm_unpackhi_epi16(bg, ra));
    }
  }
}

// Each channel shifted to its width and placed at its position from the state, in 32-bit
// lanes.
void VelmoCopyKernel32AltSse2(const VelmoCopyLine* line, const VelmoConversionState* s) {
  const Weights w = LoadWeights(s, line->LineParity);
  const __m128i shiftR = _mm_cvtsi32_si128(s->ShiftR), posR = _mm_cvtsi32_si128(s->PosR);
  const __m128i shiftG = _mm_cvtsi32_si128(s->ShiftG), posG = _mm_cvtsi32_si128(s->PosG);
  const __m128i shiftB = _mm_cvtsi32_si128(s->ShiftB), posB = _mm_cvtsi32_si128(s->PosB);
  const __m128i shiftA = _mm_cvtsi32_si128(s->ShiftA), posA = _mm_cvtsi32_si128(s->PosA);
  const __m128i zero = _mm_setzero_si128();
  int crLeft = line->CrLeft, cbLeft = line->CbLeft;
  for (uint32_t g = 0; g < line->Groups; ++g) {
    Channels ch;
    ConvertGroup(line, w, g, crLeft, cbLeft, &ch);
    uint8_t* d = line->Dest + size_t(g) * 64;
    for (int h = 0; h < 2; ++h) {
      const __m128i r = _mm_srl_epi16(ch.R[h], shiftR);
      const __m128i gg = _mm_srl_epi16(ch.G[h], shiftG);
      const __m128i b = _mm_srl_epi16(ch.B[h], shiftB);
      const __m128i a = _mm_srl_epi16(_mm_slli_epi16(ch.A[h], 3), shiftA);
      for (int q = 0; q < 2; ++q) {
        auto widen = [&](__m128i v) {
          return q ? _mm_unpackhi_epi16(v, zero) : _mm_unpacklo_epi16(v, zero);
        };
        __m128i px = _mm_sll_epi32(widen(r), posR);
        px = _mm_or_si128(px, _mm_sll_epi32(widen(gg), posG));
        px = _mm_or_si128(px, _mm_sll_epi32(widen(b), posB));
        px = _mm_or_si128(px, _mm_sll_epi32(widen(a), posA));
        Store(d + h * 32 + q * 16, px);
      }
    }
  }
}

void VelmoCopyKernel16Sse2(const VelmoCopyLine* line, const VelmoConversionState* s) {
  const Weights w = LoadWeights(s, line->LineParity);
  const __m128i shiftR = _mm_cvtsi32_si128(s->ShiftR), posR = _mm_cvtsi32_si128(s->PosR);
  const __m128i shiftG = _mm_cvtsi32_si128(s->ShiftG), posG = _mm_cvtsi32_si128(s->PosG);
  const __m128i shiftB = _mm_cvtsi32_si128(s->ShiftB), posB = _mm_cvtsi32_si128(s->PosB);
  const __m128i shiftA = _mm_cvtsi32_si128(s->ShiftA), posA = _mm_cvtsi32_si128(s->PosA);
  int crLeft = line->CrLeft, cbLeft = line->CbLeft;
  for (uint32_t g = 0; g < line->Groups; ++g) {
    Channels ch;
    ConvertGroup(line, w, g, crLeft, cbLeft, &ch);
    uint8_t* d = line->Dest + size_t(g) * 32;
    for (int h = 0; h < 2; ++h) {
      __m128i px = _mm_sll_epi16(_mm_srl_epi16(ch.R[h], shiftR), posR);
      px = _mm_or_si128(px, _mm_sll_epi16(_mm_srl_epi16(ch.G[h], shiftG), posG));
      px = _mm_or_si128(px, _mm_sll_epi16(_mm_srl_epi16(ch.B[h], shiftB), posB));
      const __m128i a = _mm_srl_epi16(_mm_slli_epi16(ch.A[h], 3), shiftA);
      px = _mm_or_si128(px, _mm_sll_epi16(a, posA));
      Store(d + h * 16, px);
    }
  }
}

#endif
