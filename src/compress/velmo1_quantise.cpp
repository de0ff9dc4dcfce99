// Forward transform and quantiser rows of the first-generation encoder.
#include "compress/velmo1_quantise.h"

#include "decode/velmo1_tables.h"

#include <algorithm>
#include <array>
#include <cmath>
#include <mutex>

namespace {

// The decoder's one-dimensional pass as a matrix in exact arithmetic: column k holds what a
// unit input at k gives (its multiplies by c >> 11 taken as c / 2048).
void PassMatrix(double m[8][8]) {
  for (int k = 0; k < 8; ++k) {
    double x[8] = {};
    x[k] = 1;
    const double s = x[2] + x[6];
    const double d = (x[2] - x[6]) * 2896 / 2048 - s;
    const double a = x[0] + x[4], b = x[0] - x[4];
    const double e0 = a + s, e3 = a - s, e1 = b + d, e2 = b - d;
    const double p = x[5] + x[3], n = x[5] - x[3], u = x[1] + x[7], v = x[1] - x[7];
    const double o0 = u + p;
    const double t = (v + n) * 3784 / 2048;
    const double o1 = n * -5352 / 2048 - o0 + t;
    const double o2 = (u - p) * 2896 / 2048 - o1;
    const double o3 = v * 2217 / 2048 - t + o2;
    const double y[8] = {e0 + o0, e1 + o1, e2 + o2, e3 - o3, e3 + o3, e2 - o2, e1 - o1, e0 - o0};
    for (int i = 0; i < 8; ++i) m[i][k] = y[i];
  }
}

// The inverse of an 8x8 matrix by Gauss-Jordan elimination with partial pivoting.
void Invert(double m[8][8], double out[8][8]) {
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 8; ++j) out[i][j] = i == j;
  for (int col = 0; col < 8; ++col) {
    int pivot = col;
    for (int r = col + 1; r < 8; ++r)
      if (std::fabs(m[r][col]) > std::fabs(m[pivot][col])) pivot = r;
    for (int j = 0; j < 8; ++j) std::swap(m[col][j], m[pivot][j]), std::swap(out[col][j], out[pivot][j]);
    const double inv = 1 / m[col][col];
    for (int j = 0; j < 8; ++j) m[col][j] *= inv, out[col][j] *= inv;
    for (int r = 0; r < 8; ++r) {
      if (r == col || m[r][col] == 0) continue;
      const double f = m[r][col];
      for (int j = 0; j < 8; ++j) m[r][j] -= f * m[col][j], out[r][j] -= f * out[col][j];
    }
  }
}

// The forward matrix: the pass's inverse times 2^7 (half of the 2^14 the two directions give)
// with 8 more bits kept for rounding between the passes.
constexpr int ForwardBits = 15;

struct Forward {
  int32_t M[8][8];  // [frequency][sample]
};

const Forward& ForwardMatrix() {
  static Forward f;
  static std::once_flag once;
  std::call_once(once, [] {
    double pass[8][8], inverse[8][8];
    PassMatrix(pass);
    Invert(pass, inverse);
    for (int u = 0; u < 8; ++u)
      for (int x = 0; x < 8; ++x) f.M[u][x] = int32_t(std::lround(std::ldexp(inverse[u][x], ForwardBits)));
  });
  return f;
}

using RowSet = std::array<std::array<uint32_t, 64>, 16>;

// Row 0 is 2^35 over the intra base (in its 16.16 units, given in thousandths), rounded; row s
// is row 0 over f[s], rounded.
RowSet BuildRows() {
  RowSet rows{};
  const uint32_t* base = Velmo1IntraBaseMilli;
  for (int k = 0; k < 64; ++k) {
    const uint64_t first = ((uint64_t(1000) << 36) + base[k]) / (2 * uint64_t(base[k]));
    for (uint32_t s = 0; s < 16; ++s) {
      const uint64_t num = Velmo1ScaleFactors[s].Num, den = Velmo1ScaleFactors[s].Den;
      rows[s][k] = uint32_t((2 * first * den + num) / (2 * num));
    }
  }
  return rows;
}

}  // namespace

void Velmo1ForwardTransform(const int32_t block[64], int32_t coeffs[64]) {
  const Forward& f = ForwardMatrix();
  constexpr int Shift = ForwardBits - 7;
  int32_t half[64];  // vertical frequency by row, horizontal sample by column, at 2^7
  for (int u = 0; u < 8; ++u)
    for (int c = 0; c < 8; ++c) {
      int32_t sum = 0;
      for (int r = 0; r < 8; ++r) sum += f.M[u][r] * block[r * 8 + c];
      half[u * 8 + c] = (sum + (1 << (Shift - 1))) >> Shift;
    }
  for (int u = 0; u < 8; ++u)
    for (int v = 0; v < 8; ++v) {
      int64_t sum = 0;
      for (int c = 0; c < 8; ++c) sum += int64_t(f.M[v][c]) * half[u * 8 + c];
      coeffs[u * 8 + v] = int32_t((sum + (1 << (Shift - 1))) >> Shift);
    }
}

const uint32_t* Velmo1QuantiserRow(uint32_t scale) {
  static const RowSet rows = BuildRows();
  return rows[scale & 15].data();
}


bool Velmo1Quantise(const int32_t coeffs[64], uint32_t scale, bool inter, int16_t out[64]) {
  const uint32_t* row = Velmo1QuantiserRow(scale);
  int any = 0;
  for (int k = 1; k < 64; ++k) {
    const int32_t v = std::clamp(Velmo1QuantiseCoefficient(coeffs[k], row[k]), -16383, 16383);
    out[k] = int16_t(v);
    any |= v;
  }
  out[0] = Velmo1HeldDc(Velmo1QuantiseCoefficient(coeffs[0], row[0]), inter);
  return any != 0;
}

bool Velmo1QuantiseDeadZone(const int32_t coeffs[64], uint32_t scale, bool inter, int16_t out[64]) {
  const uint32_t* row = Velmo1QuantiserRow(scale);
  int any = 0;
  for (int k = 1; k < 64; ++k) {
    const int64_t magnitude = (int64_t(row[k]) * std::abs(coeffs[k]) + Velmo1DeadZoneRounding) >> 30;
    const int32_t v = int32_t(std::min<int64_t>(magnitude, 16383));
    out[k] = int16_t(coeffs[k] < 0 ? -v : v);
    any |= v;
  }
  out[0] = Velmo1HeldDc(Velmo1QuantiseCoefficient(coeffs[0], row[0]), inter);
  return any != 0;
}
