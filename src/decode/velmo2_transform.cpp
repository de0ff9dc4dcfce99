// Inverse transform of the second-generation format, plain form.
//
// Values are held as uint16_t lanes: additions and subtractions then wrap modulo 2^16 with no
// signed overflow, and a shift reinterprets the lane as int16_t so that it is arithmetic.
#include "decode/velmo2_transform.h"

namespace {

using Lane = uint16_t;

inline Lane Sar(Lane v, int n) { return Lane(int16_t(v) >> n); }

// The odd half of the pass, shared by both forms: P, Q, R, S from x1, x3, x5, x7.
struct Odd {
  Lane O0, O1, O2, O3;
};

inline Odd OddPart(Lane p, Lane q, Lane r, Lane s) {
  Odd o;
  o.O0 = Lane(Sar(p, 2) + q + Sar(q, 2) - Sar(q, 4));
  o.O3 = Lane(Sar(q, 2) - p - Sar(p, 2) + Sar(p, 4));
  o.O1 = Lane(s - Sar(s, 2) - Sar(s, 4) + r);
  o.O2 = Lane(r - Sar(r, 2) - Sar(r, 4) - s);
  return o;
}

inline void Butterfly(Lane e0, Lane e1, Lane e2, Lane e3, const Odd& o, Lane* v, int stride) {
  v[0 * stride] = Lane(e0 + o.O0);
  v[7 * stride] = Lane(e0 - o.O0);
  v[1 * stride] = Lane(e1 + o.O1);
  v[6 * stride] = Lane(e1 - o.O1);
  v[2 * stride] = Lane(e2 + o.O2);
  v[5 * stride] = Lane(e2 - o.O2);
  v[3 * stride] = Lane(e3 + o.O3);
  v[4 * stride] = Lane(e3 - o.O3);
}

// One pass over eight values v[0], v[stride], ... v[7 * stride], in place.
void Pass(Lane* v, int stride) {
  const Lane x0 = v[0], x1 = v[stride], x2 = v[2 * stride], x3 = v[3 * stride];
  const Lane x4 = v[4 * stride], x5 = v[5 * stride], x6 = v[6 * stride], x7 = v[7 * stride];
  const Lane a = Lane(x2 + Sar(x2, 2) + Sar(x6, 1));
  const Lane b = Lane(Sar(x2, 1) - x6 - Sar(x6, 2));
  const Lane sum = Lane(x0 + x4), diff = Lane(x0 - x4);
  const Odd o = OddPart(Lane(x3 - x5 + x7), Lane(x1 + x3 + x5), Lane(x1 - x3 - x5),
                        Lane(x3 - x5 - x7));
  Butterfly(Lane(sum + a), Lane(diff + b), Lane(diff - b), Lane(sum - a), o, v, stride);
}

// The pass with x4..x7 zero: only v[0] .. v[3 * stride] are read.
void CornerPass(Lane* v, int stride) {
  const Lane x0 = v[0], x1 = v[stride], x2 = v[2 * stride], x3 = v[3 * stride];
  const Lane a = Lane(x2 + Sar(x2, 2)), b = Sar(x2, 1);
  const Odd o = OddPart(x3, Lane(x1 + x3), Lane(x1 - x3), x3);
  Butterfly(Lane(x0 + a), Lane(x0 + b), Lane(x0 - b), Lane(x0 - a), o, v, stride);
}

inline Lane DcInput(int16_t dc) { return Lane((int32_t(dc) + 4) * 8); }

void Finish(const Lane work[64], int16_t out[64]) {
  for (int k = 0; k < 64; ++k) out[k] = int16_t(Sar(work[k], 6));
}

}  // namespace

void Velmo2TransformPlain(const int16_t coeffs[64], int16_t out[64]) {
  Lane work[64];
  for (int k = 0; k < 64; ++k) work[k] = Lane(coeffs[k]);
  work[0] = DcInput(coeffs[0]);
  for (int col = 0; col < 8; ++col) Pass(work + col, 8);
  for (int row = 0; row < 8; ++row) Pass(work + row * 8, 1);
  Finish(work, out);
}

void Velmo2TransformCornerPlain(const int16_t coeffs[64], int16_t out[64]) {
  // Columns 4..7 are zero after the column pass, so the row pass may take x4..x7 as zero too.
  Lane work[64];
  for (int row = 0; row < 4; ++row)
    for (int col = 0; col < 4; ++col) work[row * 8 + col] = Lane(coeffs[row * 8 + col]);
  work[0] = DcInput(coeffs[0]);
  for (int col = 0; col < 4; ++col) CornerPass(work + col, 8);
  for (int row = 0; row < 8; ++row) CornerPass(work + row * 8, 1);
  Finish(work, out);
}

int16_t Velmo2TransformDcOnly(int16_t dc) { return int16_t(Sar(DcInput(dc), 6)); }
