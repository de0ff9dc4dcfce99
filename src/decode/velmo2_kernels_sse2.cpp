// SSE2 forms of the second-generation kernels. Every value that the plain forms hold in 16 or
// 32 bits fits a signed 16-bit lane here, so each lane does the plain arithmetic exactly: the
// transform wraps in 16 bits as defined, the fetches and filters stay far inside the range, and
// packs with unsigned saturation give the plain forms' hold between 0 and 255.
#include "decode/velmo2_kernels.h"

#if ORN_X86_KERNELS
#include <emmintrin.h>

#include <cstring>
#include <utility>

#include "decode/velmo2_filter.h"
#include "decode/velmo2_predict.h"
#include "decode/velmo2_tables.h"

namespace {

using V = __m128i;

inline V Add(V a, V b) { return _mm_add_epi16(a, b); }
inline V Sub(V a, V b) { return _mm_sub_epi16(a, b); }
inline V Sar(V a, int n) { return _mm_srai_epi16(a, n); }
inline V Set(int16_t v) { return _mm_set1_epi16(v); }

inline V LoadLow(const void* p) { return _mm_loadl_epi64(static_cast<const V*>(p)); }
inline V Load(const void* p) { return _mm_loadu_si128(static_cast<const V*>(p)); }
inline void StoreLow(void* p, V v) { _mm_storel_epi64(static_cast<V*>(p), v); }
inline void Store(void* p, V v) { _mm_storeu_si128(static_cast<V*>(p), v); }

// Bytes 0..7 (or 8..15) widened to 16-bit lanes.
inline V WidenLow(V bytes) { return _mm_unpacklo_epi8(bytes, _mm_setzero_si128()); }
inline V WidenHigh(V bytes) { return _mm_unpackhi_epi8(bytes, _mm_setzero_si128()); }

// ---- Inverse transform -----------------------------------------------------------------------

struct Odd {
  V O0, O1, O2, O3;
};

inline Odd OddPart(V p, V q, V r, V s) {
  Odd o;
  o.O0 = Sub(Add(Add(Sar(p, 2), q), Sar(q, 2)), Sar(q, 4));
  o.O3 = Add(Sub(Sub(Sar(q, 2), p), Sar(p, 2)), Sar(p, 4));
  o.O1 = Add(Sub(Sub(s, Sar(s, 2)), Sar(s, 4)), r);
  o.O2 = Sub(Sub(Sub(r, Sar(r, 2)), Sar(r, 4)), s);
  return o;
}

inline void Butterfly(V e0, V e1, V e2, V e3, const Odd& o, V x[8]) {
  x[0] = Add(e0, o.O0);
  x[7] = Sub(e0, o.O0);
  x[1] = Add(e1, o.O1);
  x[6] = Sub(e1, o.O1);
  x[2] = Add(e2, o.O2);
  x[5] = Sub(e2, o.O2);
  x[3] = Add(e3, o.O3);
  x[4] = Sub(e3, o.O3);
}

// The pass on eight lanes at once: x[k] holds input k of each lane's line.
inline void Pass(V x[8]) {
  const V a = Add(Add(x[2], Sar(x[2], 2)), Sar(x[6], 1));
  const V b = Sub(Sub(Sar(x[2], 1), x[6]), Sar(x[6], 2));
  const V sum = Add(x[0], x[4]), diff = Sub(x[0], x[4]);
  const Odd o = OddPart(Add(Sub(x[3], x[5]), x[7]), Add(Add(x[1], x[3]), x[5]),
                        Sub(Sub(x[1], x[3]), x[5]), Sub(Sub(x[3], x[5]), x[7]));
  Butterfly(Add(sum, a), Add(diff, b), Sub(diff, b), Sub(sum, a), o, x);
}

// The pass with inputs 4..7 zero: only x[0] .. x[3] are read.
inline void CornerPass(V x[8]) {
  const V a = Add(x[2], Sar(x[2], 2)), b = Sar(x[2], 1);
  const Odd o = OddPart(x[3], Add(x[1], x[3]), Sub(x[1], x[3]), x[3]);
  Butterfly(Add(x[0], a), Add(x[0], b), Sub(x[0], b), Sub(x[0], a), o, x);
}

// 8x8 transpose of 16-bit lanes.
inline void Transpose(V x[8]) {
  const V a0 = _mm_unpacklo_epi16(x[0], x[1]), a1 = _mm_unpackhi_epi16(x[0], x[1]);
  const V a2 = _mm_unpacklo_epi16(x[2], x[3]), a3 = _mm_unpackhi_epi16(x[2], x[3]);
  const V a4 = _mm_unpacklo_epi16(x[4], x[5]), a5 = _mm_unpackhi_epi16(x[4], x[5]);
  const V a6 = _mm_unpacklo_epi16(x[6], x[7]), a7 = _mm_unpackhi_epi16(x[6], x[7]);
  const V b0 = _mm_unpacklo_epi32(a0, a2), b1 = _mm_unpackhi_epi32(a0, a2);
  const V b2 = _mm_unpacklo_epi32(a1, a3), b3 = _mm_unpackhi_epi32(a1, a3);
  const V b4 = _mm_unpacklo_epi32(a4, a6), b5 = _mm_unpackhi_epi32(a4, a6);
  const V b6 = _mm_unpacklo_epi32(a5, a7), b7 = _mm_unpackhi_epi32(a5, a7);
  x[0] = _mm_unpacklo_epi64(b0, b4);
  x[1] = _mm_unpackhi_epi64(b0, b4);
  x[2] = _mm_unpacklo_epi64(b1, b5);
  x[3] = _mm_unpackhi_epi64(b1, b5);
  x[4] = _mm_unpacklo_epi64(b2, b6);
  x[5] = _mm_unpackhi_epi64(b2, b6);
  x[6] = _mm_unpacklo_epi64(b3, b7);
  x[7] = _mm_unpackhi_epi64(b3, b7);
}

// The DC input (DC + 4) * 8, wrapped to 16 bits, into lane 0 of the first row.
inline V WithDc(V row0, int16_t dc) {
  return _mm_insert_epi16(row0, int(uint16_t((uint32_t(int32_t(dc)) + 4u) * 8u)), 0);
}

inline void Finish(V x[8], int16_t out[64]) {
  for (int k = 0; k < 8; ++k) Store(out + 8 * k, Sar(x[k], 6));
}

// The rows held as vectors (lanes are columns): the column pass, a transpose, the same pass on
// the rows, the final shift and the transpose back.
void TransformSse2(const int16_t coeffs[64], int16_t out[64]) {
  V x[8];
  for (int k = 0; k < 8; ++k) x[k] = Load(coeffs + 8 * k);
  x[0] = WithDc(x[0], coeffs[0]);
  Pass(x);
  Transpose(x);
  Pass(x);
  Transpose(x);
  Finish(x, out);
}

// Only the top left 4x4 corner is loaded (lanes 4..7 zero); after the column pass columns 4..7
// stay zero, so the row pass may take inputs 4..7 as zero too.
void TransformCornerSse2(const int16_t coeffs[64], int16_t out[64]) {
  V x[8];
  for (int k = 0; k < 4; ++k) x[k] = LoadLow(coeffs + 8 * k);
  x[0] = WithDc(x[0], coeffs[0]);
  CornerPass(x);
  Transpose(x);
  CornerPass(x);
  Transpose(x);
  Finish(x, out);
}

// ---- Luma fetch, 16-bit lanes ----------------------------------------------------------------

// The six-tap half-pixel filter on 16-bit lanes, before the final hold: every intermediate of
// the plain form fits 16 bits for byte inputs and for the unclamped first-pass values.
inline V HalfTap(V a, V b, V c, V d, V e, V f) {
  const V outer = Sar(Add(a, f), 1);
  const V centre = Sar(_mm_mullo_epi16(Add(c, d), Set(19)), 1);
  const V inner = _mm_slli_epi16(Add(b, e), 1);
  return Sar(Add(Sub(Add(outer, centre), inner), Set(8)), 4);
}

// The filter on 16 byte positions whose six taps are the byte vectors t[0..5]: the low and high
// eight results.
inline void HalfTapBytes(const V t[6], V* lo, V* hi) {
  *lo = HalfTap(WidenLow(t[0]), WidenLow(t[1]), WidenLow(t[2]), WidenLow(t[3]), WidenLow(t[4]),
                WidenLow(t[5]));
  *hi = HalfTap(WidenHigh(t[0]), WidenHigh(t[1]), WidenHigh(t[2]), WidenHigh(t[3]),
                WidenHigh(t[4]), WidenHigh(t[5]));
}

// The horizontal filter of one source line: 16 results around line[0] .. line[15].
inline void HorizontalRow(const uint8_t* line, V* lo, V* hi) {
  V t[6];
  for (int k = 0; k < 6; ++k) t[k] = Load(line + k - 2);
  HalfTapBytes(t, lo, hi);
}

void LumaCopy(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  for (int r = 0; r < 16; ++r) Store(dst + r * dstPitch, Load(src + r * pitch));
}

void LumaHorizontalSse2(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  for (int r = 0; r < 16; ++r) {
    V lo, hi;
    HorizontalRow(src + r * pitch, &lo, &hi);
    Store(dst + r * dstPitch, _mm_packus_epi16(lo, hi));
  }
}

// Six source lines in a window that slides down by one line per output line.
void LumaVerticalSse2(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  V t[6];
  for (int k = 0; k < 5; ++k) t[k] = Load(src + (k - 2) * pitch);
  for (int r = 0; r < 16; ++r) {
    t[5] = Load(src + (r + 3) * pitch);
    V lo, hi;
    HalfTapBytes(t, &lo, &hi);
    Store(dst + r * dstPitch, _mm_packus_epi16(lo, hi));
    for (int k = 0; k < 5; ++k) t[k] = t[k + 1];
  }
}

void LumaBothSse2(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  alignas(16) int16_t rows[Velmo2LumaBothRows * 16];
  for (int r = 0; r < Velmo2LumaBothRows; ++r) {
    V lo, hi;
    HorizontalRow(src + (r - 2) * pitch, &lo, &hi);
    Store(rows + r * 16, lo);
    Store(rows + r * 16 + 8, hi);
  }
  Velmo2LumaVerticalPass16(rows, dst, dstPitch);
}

// ---- Chroma fetch ----------------------------------------------------------------------------

// One quarter-pixel step between lanes of samples scaled by 16 (0 .. 4080).
template <int Fraction>
inline V Quarter(V a, V b) {
  if constexpr (Fraction == 1) return Add(a, Sar(Sub(b, a), 2));
  if constexpr (Fraction == 2) return Sub(_mm_or_si128(a, b), Sar(_mm_xor_si128(a, b), 1));
  if constexpr (Fraction == 3) return Add(b, Sar(Sub(a, b), 2));
  return a;
}

// The horizontal step of one line of 8: the neighbour on the right is read only when needed.
template <int Fx>
inline V ChromaLine(const uint8_t* line) {
  const V a = _mm_slli_epi16(WidenLow(LoadLow(line)), 4);
  if constexpr (Fx == 0) return a;
  return Quarter<Fx>(a, _mm_slli_epi16(WidenLow(LoadLow(line + 1)), 4));
}

template <int Fx, int Fy>
void ChromaSse2(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  V above = ChromaLine<Fx>(src);
  for (int r = 0; r < 8; ++r) {
    V v = above;
    if constexpr (Fy != 0) {
      const V below = ChromaLine<Fx>(src + (r + 1) * pitch);
      v = Quarter<Fy>(above, below);
      above = below;
    } else if (r < 7) {
      above = ChromaLine<Fx>(src + (r + 1) * pitch);
    }
    const V pixels = Sar(Add(v, Set(8)), 4);
    StoreLow(dst + r * dstPitch, _mm_packus_epi16(pixels, pixels));
  }
}

template <int... F>
void FillChroma(Velmo2FetchKernel* out, std::integer_sequence<int, F...>) {
  ((out[F] = ChromaSse2<(F & 3), (F >> 2)>), ...);
}

// ---- Residual add ----------------------------------------------------------------------------

// A saturating 16-bit add keeps the side of 0..255 that the exact sum lies on, so the pack's
// hold gives the plain result for every residual.
void AddResidualSse2(uint8_t* dst, ptrdiff_t dstPitch, const int16_t* residual,
                     ptrdiff_t residualPitch, int w, int h) {
  for (int r = 0; r < h; ++r, dst += dstPitch, residual += residualPitch) {
    int c = 0;
    for (; c + 16 <= w; c += 16) {
      const V p = Load(dst + c);
      const V lo = _mm_adds_epi16(WidenLow(p), Load(residual + c));
      const V hi = _mm_adds_epi16(WidenHigh(p), Load(residual + c + 8));
      Store(dst + c, _mm_packus_epi16(lo, hi));
    }
    for (; c + 8 <= w; c += 8) {
      const V v = _mm_adds_epi16(WidenLow(LoadLow(dst + c)), Load(residual + c));
      StoreLow(dst + c, _mm_packus_epi16(v, v));
    }
    if (c < w) Velmo2AddResidual(dst + c, dstPitch, residual + c, residualPitch, w - c, 1);
  }
}

// ---- Edge filters ----------------------------------------------------------------------------

// Which of the four lines across an edge (p1, p0, q0, q1) the taps of the two sides change.
struct EdgeSwitches {
  bool Change[4];
};

inline EdgeSwitches Switches(uint32_t classP, uint32_t classQ) {
  const uint8_t p = Velmo2EdgeTaps[classP & 3], q = Velmo2EdgeTaps[classQ & 3];
  return {{(p & Velmo2TapOuter) != 0, (p & Velmo2TapInner) != 0, (q & Velmo2TapInner) != 0,
           (q & Velmo2TapOuter) != 0}};
}

// The filter on lanes of p1, p0, q0, q1 in place; lanes whose side is switched off keep their
// values. 16-bit wrapping arithmetic, as the residual seam filter defines it; for pixels the
// values stay far inside 16 bits.
inline void EdgeMath(V x[4], const EdgeSwitches& s) {
  const V d = Sub(x[2], x[1]);
  const V a = Sar(Add(d, Set(4)), 3), b = Sar(Add(d, Set(2)), 2);
  if (s.Change[0]) x[0] = Add(x[0], a);
  if (s.Change[1]) x[1] = Add(x[1], b);
  if (s.Change[2]) x[2] = Sub(x[2], b);
  if (s.Change[3]) x[3] = Sub(x[3], a);
}

// `count` bytes (1..8) into the low lanes, zero above; and back.
inline V LoadBytes(const uint8_t* p, uint32_t count) {
  if (count >= 8) return LoadLow(p);
  uint8_t b[8] = {};
  std::memcpy(b, p, count);
  return LoadLow(b);
}

inline void StoreBytes(uint8_t* p, V v, uint32_t count) {
  if (count >= 8) return StoreLow(p, v);
  uint8_t b[8];
  StoreLow(b, v);
  std::memcpy(p, b, count);
}

// A horizontal edge: the four lines across it are rows of contiguous pixels.
void FilterRows(uint8_t* q0, ptrdiff_t across, const EdgeSwitches& s, uint32_t count) {
  uint8_t* line[4] = {q0 - 2 * across, q0 - across, q0, q0 + across};
  V x[4];
  for (int k = 0; k < 4; ++k) x[k] = WidenLow(LoadBytes(line[k], count));
  EdgeMath(x, s);
  for (int k = 0; k < 4; ++k)
    if (s.Change[k]) StoreBytes(line[k], _mm_packus_epi16(x[k], x[k]), count);
}

// A vertical edge: each line along it holds p1 p0 q0 q1 in four bytes; eight lines are
// transposed into four vectors and back.
void FilterColumns(uint8_t* q0, ptrdiff_t along, const EdgeSwitches& s, uint32_t count) {
  uint32_t quads[8] = {};
  for (uint32_t i = 0; i < count; ++i) std::memcpy(&quads[i], q0 + ptrdiff_t(i) * along - 2, 4);
  const V lines03 = Load(quads), lines47 = Load(quads + 4);
  const V t0 = _mm_unpacklo_epi8(lines03, lines47), t1 = _mm_unpackhi_epi8(lines03, lines47);
  const V u0 = _mm_unpacklo_epi8(t0, t1), u1 = _mm_unpackhi_epi8(t0, t1);
  const V p = _mm_unpacklo_epi8(u0, u1), q = _mm_unpackhi_epi8(u0, u1);  // p1|p0, q0|q1
  V x[4] = {WidenLow(p), WidenHigh(p), WidenLow(q), WidenHigh(q)};
  EdgeMath(x, s);
  const V np = _mm_packus_epi16(x[0], x[1]), nq = _mm_packus_epi16(x[2], x[3]);
  const V pairsP = _mm_unpacklo_epi8(np, _mm_srli_si128(np, 8));
  const V pairsQ = _mm_unpacklo_epi8(nq, _mm_srli_si128(nq, 8));
  Store(quads, _mm_unpacklo_epi16(pairsP, pairsQ));
  Store(quads + 4, _mm_unpackhi_epi16(pairsP, pairsQ));
  for (uint32_t i = 0; i < count; ++i) std::memcpy(q0 + ptrdiff_t(i) * along - 2, &quads[i], 4);
}

// Rows when the pixels along the edge are contiguous and the rows apart, columns when the four
// pixels across are contiguous and the lines apart; any other layout takes the plain form.
void FilterEdgeSse2(uint8_t* q0, ptrdiff_t across, ptrdiff_t along, uint32_t code,
                    uint32_t count) {
  if (count == 0) return;
  const EdgeSwitches s = Switches(code, code >> 2);
  if (count <= 8 && along == 1 && (across >= 8 || across <= -8))
    return FilterRows(q0, across, s, count);
  if (count <= 8 && across == 1 && (along >= 4 || along <= -4))
    return FilterColumns(q0, along, s, count);
  Velmo2FilterEdge(q0, across, along, code, count);
}

// The residual seam filter: rows of 8 values are one vector each; columns are 8 lines of four
// values transposed into four vectors and back.
void SeamRows(int16_t* q0, ptrdiff_t across, const EdgeSwitches& s) {
  int16_t* line[4] = {q0 - 2 * across, q0 - across, q0, q0 + across};
  V x[4];
  for (int k = 0; k < 4; ++k) x[k] = Load(line[k]);
  EdgeMath(x, s);
  for (int k = 0; k < 4; ++k)
    if (s.Change[k]) Store(line[k], x[k]);
}

void SeamColumns(int16_t* q0, ptrdiff_t along, const EdgeSwitches& s) {
  V l[8];
  for (int i = 0; i < 8; ++i) l[i] = LoadLow(q0 + i * along - 2);
  const V a01 = _mm_unpacklo_epi16(l[0], l[1]), a23 = _mm_unpacklo_epi16(l[2], l[3]);
  const V a45 = _mm_unpacklo_epi16(l[4], l[5]), a67 = _mm_unpacklo_epi16(l[6], l[7]);
  const V b0 = _mm_unpacklo_epi32(a01, a23), b1 = _mm_unpackhi_epi32(a01, a23);
  const V c0 = _mm_unpacklo_epi32(a45, a67), c1 = _mm_unpackhi_epi32(a45, a67);
  V x[4] = {_mm_unpacklo_epi64(b0, c0), _mm_unpackhi_epi64(b0, c0), _mm_unpacklo_epi64(b1, c1),
            _mm_unpackhi_epi64(b1, c1)};
  EdgeMath(x, s);
  const V p03 = _mm_unpacklo_epi16(x[0], x[1]), p47 = _mm_unpackhi_epi16(x[0], x[1]);
  const V q03 = _mm_unpacklo_epi16(x[2], x[3]), q47 = _mm_unpackhi_epi16(x[2], x[3]);
  const V out[4] = {_mm_unpacklo_epi32(p03, q03), _mm_unpackhi_epi32(p03, q03),
                    _mm_unpacklo_epi32(p47, q47), _mm_unpackhi_epi32(p47, q47)};
  for (int i = 0; i < 4; ++i) {
    StoreLow(q0 + (2 * i) * along - 2, out[i]);
    StoreLow(q0 + (2 * i + 1) * along - 2, _mm_srli_si128(out[i], 8));
  }
}

void ResidualSeamEdgeSse2(int16_t* q0, ptrdiff_t across, ptrdiff_t along, uint16_t a,
                          uint16_t b) {
  if (!Velmo2SeamFilterActs(a, b)) return;
  const EdgeSwitches s = Switches(Velmo2InfoClass(a), Velmo2InfoClass(b));
  if (along == 1 && (across >= 8 || across <= -8)) return SeamRows(q0, across, s);
  if (across == 1 && (along >= 4 || along <= -4)) return SeamColumns(q0, along, s);
  Velmo2ResidualSeamEdge(q0, across, along, a, b);
}

// ---- Flat blocks -----------------------------------------------------------------------------

// The taper of each of 8 lanes as (near * NearWeight) >> 16 + (far * FarWeight) >> 16: a right
// shift by n is a high product with 2^(16 - n), and column 0 has far weight 0.
struct TaperWeights {
  int16_t Near[8], Far[8];
};

TaperWeights MakeTaperWeights() {
  TaperWeights w;
  for (int i = 0; i < 4; ++i) {
    const int16_t nearW = int16_t(Velmo2FlatNearWeights[i]);
    const int16_t farW = int16_t(i == 0 ? 0 : 1 << (16 - Velmo2FlatFarShifts[i]));
    w.Near[i] = w.Near[7 - i] = nearW;
    w.Far[i] = w.Far[7 - i] = farW;
  }
  return w;
}

const TaperWeights Taper = MakeTaperWeights();

inline V MulHigh(V a, V b) { return _mm_mulhi_epi16(a, b); }

// DC values of up to 13 bits keep every step in 16 bits: rows stay within about 4700 of zero
// and their differences within 9500. Larger values take the plain form.
bool FitsSixteenBits(const int32_t dc[3][3]) {
  for (int r = 0; r < 3; ++r)
    for (int c = 0; c < 3; ++c)
      if (dc[r][c] < -4096 || dc[r][c] > 4095) return false;
  return true;
}

void FlatBlockSse2(const int32_t dc[3][3], uint8_t* out, ptrdiff_t pitch, uint32_t columns,
                   uint32_t lines) {
  if (!FitsSixteenBits(dc)) return Velmo2FlatBlockPlain(dc, out, pitch, columns, lines);
  const V nearW = Load(Taper.Near), farW = Load(Taper.Far);
  // The three rows across the 8 columns: lanes 0..3 take the left side as near, 4..7 the right.
  V rows[3];
  for (int r = 0; r < 3; ++r) {
    const int16_t c = int16_t(dc[r][1]), dl = int16_t(dc[r][0] - c), dr = int16_t(dc[r][2] - c);
    const V nearSide = _mm_set_epi16(dr, dr, dr, dr, dl, dl, dl, dl);
    const V farSide = _mm_set_epi16(dl, dl, dl, dl, dr, dr, dr, dr);
    rows[r] = Add(Add(Set(int16_t(c + 4)), MulHigh(nearSide, nearW)), MulHigh(farSide, farW));
  }
  // Down the columns: line j takes the same weights as column j, between the top and bottom
  // rows.
  const V dt = Sub(rows[0], rows[1]), db = Sub(rows[2], rows[1]);
  for (uint32_t j = 0; j < lines; ++j, out += pitch) {
    const V nearSide = j < 4 ? dt : db, farSide = j < 4 ? db : dt;
    const V v = Add(Add(rows[1], MulHigh(nearSide, Set(Taper.Near[j]))),
                    MulHigh(farSide, Set(Taper.Far[j])));
    const V pixels = Sar(v, 3);
    StoreBytes(out, _mm_packus_epi16(pixels, pixels), columns);
  }
}

}  // namespace

void Velmo2LumaVerticalPass16(const int16_t* rows, uint8_t* dst, ptrdiff_t dstPitch) {
  for (int r = 0; r < 16; ++r) {
    V half[2];
    for (int h = 0; h < 2; ++h) {
      const int16_t* p = rows + r * 16 + h * 8;
      half[h] = HalfTap(Load(p), Load(p + 16), Load(p + 32), Load(p + 48), Load(p + 64),
                        Load(p + 80));
    }
    Store(dst + r * dstPitch, _mm_packus_epi16(half[0], half[1]));
  }
}

void Velmo2KernelsSse2(Velmo2Kernels* kernels) {
  kernels->Transform = TransformSse2;
  kernels->TransformCorner = TransformCornerSse2;
  kernels->FetchLuma[0] = LumaCopy;
  kernels->FetchLuma[1] = LumaHorizontalSse2;
  kernels->FetchLuma[2] = LumaVerticalSse2;
  kernels->FetchLuma[3] = LumaBothSse2;
  FillChroma(kernels->FetchChroma, std::make_integer_sequence<int, 16>());
  kernels->AddResidual = AddResidualSse2;
  kernels->FilterEdge = FilterEdgeSse2;
  kernels->ResidualSeamEdge = ResidualSeamEdgeSse2;
  kernels->FlatBlock = FlatBlockSse2;
}

#endif  // ORN_X86_KERNELS
