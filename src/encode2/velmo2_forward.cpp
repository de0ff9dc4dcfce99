// Forward transform and quantisers of the second-generation encoder.
#include "encode2/velmo2_forward.h"

#include "decode/velmo2_tables.h"
#include "host/cpu_features.h"

#include <algorithm>
#include <cfloat>
#include <cmath>
#include <cstring>
#include <utility>
#include <vector>

namespace {

// The inverse transform's pass as exact arithmetic: each shift right by k taken as a division
// by 2^k. The decoder's pass is this map with its rounding; the forward transform inverts it.
void LinearPass(const double x[8], double y[8]) {
  const double a = x[2] + x[2] / 4 + x[6] / 2;
  const double b = x[2] / 2 - x[6] - x[6] / 4;
  const double e0 = x[0] + x[4] + a, e3 = x[0] + x[4] - a;
  const double e1 = x[0] - x[4] + b, e2 = x[0] - x[4] - b;
  const double p = x[3] - x[5] + x[7], q = x[1] + x[3] + x[5];
  const double r = x[1] - x[3] - x[5], s = x[3] - x[5] - x[7];
  const double o0 = p / 4 + q + q / 4 - q / 16;
  const double o3 = q / 4 - p - p / 4 + p / 16;
  const double o1 = s - s / 4 - s / 16 + r;
  const double o2 = r - r / 4 - r / 16 - s;
  y[0] = e0 + o0, y[7] = e0 - o0, y[1] = e1 + o1, y[6] = e1 - o1;
  y[2] = e2 + o2, y[5] = e2 - o2, y[3] = e3 + o3, y[4] = e3 - o3;
}

struct ForwardTables {
  float F[8][8];       // 8 times the inverse of the pass's matrix: out = F in F^T
  float Weight[64];    // squared pixel error per squared coefficient error, by position
  uint8_t ScanPosition[64];  // the scan position of each coefficient position
};

ForwardTables BuildTables() {
  // M: column j is the pass applied to unit vector j.
  double m[8][8];
  for (int j = 0; j < 8; ++j) {
    double x[8] = {}, y[8];
    x[j] = 1;
    LinearPass(x, y);
    for (int i = 0; i < 8; ++i) m[i][j] = y[i];
  }
  // Invert M by Gauss-Jordan elimination with partial pivoting.
  double a[8][16];
  for (int i = 0; i < 8; ++i) {
    for (int j = 0; j < 8; ++j) {
      a[i][j] = m[i][j];
      a[i][8 + j] = i == j ? 1 : 0;
    }
  }
  for (int c = 0; c < 8; ++c) {
    int pivot = c;
    for (int i = c + 1; i < 8; ++i)
      if (std::fabs(a[i][c]) > std::fabs(a[pivot][c])) pivot = i;
    for (int j = 0; j < 16; ++j) std::swap(a[c][j], a[pivot][j]);
    const double d = a[c][c];
    for (int j = 0; j < 16; ++j) a[c][j] /= d;
    for (int i = 0; i < 8; ++i) {
      if (i == c) continue;
      const double f = a[i][c];
      for (int j = 0; j < 16; ++j) a[i][j] -= f * a[c][j];
    }
  }
  ForwardTables t;
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 8; ++j) t.F[i][j] = float(8 * a[i][8 + j]);
  // A coefficient error e at (row i, column j) changes the pixels by e * M[:, i] M[:, j]^T / 64.
  double norm[8];
  for (int j = 0; j < 8; ++j) {
    norm[j] = 0;
    for (int i = 0; i < 8; ++i) norm[j] += m[i][j] * m[i][j];
  }
  for (int i = 0; i < 8; ++i)
    for (int j = 0; j < 8; ++j) t.Weight[i * 8 + j] = float(norm[i] * norm[j] / 4096);
  for (uint32_t p = 0; p < 64; ++p) t.ScanPosition[Velmo2Scan[p]] = uint8_t(p);
  return t;
}

const ForwardTables& Tables() {
  static const ForwardTables tables = BuildTables();
  return tables;
}

inline float Square(float v) { return v * v; }

}  // namespace

// ---- Transform -----------------------------------------------------------------------------

const float* Velmo2ForwardMatrix() { return &Tables().F[0][0]; }

void Velmo2ForwardPlain(const int16_t in[64], float out[64]) {
  const ForwardTables& t = Tables();
  // Rows: tmp = in F^T, then columns: out = F tmp.
  float tmp[64];
  for (int r = 0; r < 8; ++r) {
    for (int k = 0; k < 8; ++k) {
      float sum = 0;
      for (int c = 0; c < 8; ++c) sum += float(in[r * 8 + c]) * t.F[k][c];
      tmp[r * 8 + k] = sum;
    }
  }
  for (int c = 0; c < 8; ++c) {
    for (int k = 0; k < 8; ++k) {
      float sum = 0;
      for (int r = 0; r < 8; ++r) sum += t.F[k][r] * tmp[r * 8 + c];
      out[k * 8 + c] = sum;
    }
  }
}

Velmo2ForwardKernel Velmo2ForwardFor(uint32_t features) {
#if ORN_X86_KERNELS
  if ((features & CpuSSE2) == CpuSSE2) return Velmo2ForwardSse2;
#endif
  return Velmo2ForwardPlain;
}

void Velmo2Forward(const int16_t in[64], float out[64]) {
  static const Velmo2ForwardKernel kernel = Velmo2ForwardFor(ProcessorFeatures());
  kernel(in, out);
}

int32_t Velmo2DcValue(float coefficient0) { return int32_t(std::lround(coefficient0 / 8)); }

float Velmo2CoefficientWeight(uint32_t position) { return Tables().Weight[position & 63]; }

// ---- DC ------------------------------------------------------------------------------------

int32_t Velmo2DcLevelFor(int32_t wanted, uint32_t scale) {
  const int64_t target = wanted < 0 ? -int64_t(wanted) : wanted;
  int64_t guess = (target * 1024 + scale / 2) / scale;
  int32_t best = 0;
  int64_t bestError = target;
  for (int64_t l = guess - 1; l <= guess + 1; ++l) {
    if (l < 0 || l > Velmo2MaxDcLevel) continue;
    const int64_t diff = Velmo2ScaleDc(int32_t(l), int32_t(scale)) - target;
    const int64_t error = diff < 0 ? -diff : diff;
    if (error < bestError) {
      best = int32_t(l);
      bestError = error;
    }
  }
  if (guess > Velmo2MaxDcLevel) best = Velmo2MaxDcLevel;
  return wanted < 0 ? -best : best;
}

// ---- AC ------------------------------------------------------------------------------------

namespace {

// The dequantised value is ((level * entry) << shift + 64) >> 7; it stays a positive 16-bit
// value while level * (entry << shift) + 64 is below 32768 * 128.
constexpr uint64_t kDequantLimit = 32768u * 128u - 65u;

inline uint64_t StepOf(uint32_t entry, uint32_t q) { return uint64_t(entry) << ((q >> 2) & 31); }

// |dequantised value| of level l (>= 0) with the sign s (+1 or -1).
inline int32_t Magnitude(int32_t l, int32_t s, uint32_t entry, uint32_t q) {
  const int32_t v = Velmo2Dequantise(s * l, entry, q);
  return v < 0 ? -v : v;
}

}  // namespace

int32_t Velmo2MaxAcLevelFor(uint32_t entry, uint32_t q) {
  const uint64_t step = StepOf(entry, q);
  if (step == 0) return Velmo2MaxAcLevel;
  const uint64_t most = kDequantLimit / step;
  return most < uint64_t(Velmo2MaxAcLevel) ? int32_t(most) : Velmo2MaxAcLevel;
}

int32_t Velmo2QuantiseAc(float c, uint32_t entry, uint32_t q, float rounding) {
  const int32_t s = c < 0 ? -1 : 1;
  const double a = std::fabs(double(c));
  const double pass = 1.0 - rounding;
  const uint64_t step = StepOf(entry, q);
  // A level fits while its dequantised value stays a positive 16-bit value.
  auto fits = [&](int64_t level) {
    return level <= Velmo2MaxAcLevel && uint64_t(level) * step <= kDequantLimit;
  };
  // Most coefficients fall short of level 1: this is the test between 0 and 1 below.
  if (!(a >= pass * Magnitude(1, s, entry, q)) || !fits(1)) return 0;
  const double guess = std::floor(a * 128 / double(step) + rounding);
  int32_t l = guess < 1 ? 1 : fits(int64_t(std::fmin(guess, 1e6))) ? int32_t(guess)
                                                                    : Velmo2MaxAcLevelFor(entry, q);
  // Settle on the exact dequantised values: a level l holds when c has passed the fraction
  // 1 - rounding of the way from l - 1 to l, and not that of the way from l to l + 1.
  auto below = [&](int32_t level) {  // c is short of the threshold between level - 1 and level
    const double lo = Magnitude(level - 1, s, entry, q), hi = Magnitude(level, s, entry, q);
    return a < lo + pass * (hi - lo);
  };
  while (l > 1 && below(l)) --l;
  while (fits(l + 1) && !below(l + 1)) ++l;
  return s * l;
}

namespace {

// The smallest float f with double(f) >= t: |c| >= f as floats exactly when |c| >= t.
float FloatAtLeast(double t) {
  if (!(t < double(FLT_MAX))) return HUGE_VALF;
  float f = float(t);
  if (double(f) < t) f = std::nextafter(f, HUGE_VALF);
  return f;
}

}  // namespace

Velmo2AcQuantiser::Velmo2AcQuantiser(const uint16_t* dequant, uint32_t q, float rounding)
    : Dequant(dequant), Q(q), Rounding(rounding) {
  // The first test of Velmo2QuantiseAc, level 0 against level 1, worked out once.
  const double pass = 1.0 - rounding;
  for (uint32_t k = 0; k < 64; ++k) {
    const bool fits = Velmo2MaxAcLevelFor(dequant[k], q) >= 1;
    for (int32_t negative = 0; negative < 2; ++negative)
      ZeroBelow[negative][k] =
          fits ? FloatAtLeast(pass * Magnitude(1, negative ? -1 : 1, dequant[k], q)) : HUGE_VALF;
  }
}

const Velmo2AcQuantiser& Velmo2NearestQuantiser(uint32_t kind, uint32_t q) {
  constexpr uint32_t kQuantisers = 37;
  static const std::vector<Velmo2AcQuantiser> all = [] {
    std::vector<Velmo2AcQuantiser> v;
    v.reserve(Velmo2DequantKindCount * kQuantisers);
    for (uint32_t k = 0; k < Velmo2DequantKindCount; ++k)
      for (uint32_t n = 0; n < kQuantisers; ++n)
        v.emplace_back(Velmo2Dequant(Velmo2DequantKind(k))[n & 3], n, 0.5f);
    return v;
  }();
  return all[std::min(kind, uint32_t(Velmo2DequantKindCount) - 1) * kQuantisers +
             std::min(q, kQuantisers - 1)];
}

uint64_t Velmo2LevelMaskPlain(const float coef[64], const float zeroBelow[2][64]) {
  uint64_t mask = 0;
  for (uint32_t k = 1; k < 64; ++k) {
    const float c = coef[k];
    mask |= uint64_t(std::fabs(c) >= zeroBelow[c < 0][k]) << k;
  }
  return mask;
}

Velmo2LevelMaskKernel Velmo2LevelMaskFor(uint32_t features) {
#if ORN_X86_KERNELS
  if ((features & CpuSSE2) == CpuSSE2) return Velmo2LevelMaskSse2;
#endif
  return Velmo2LevelMaskPlain;
}

double Velmo2AcDistortion(const float coef[64], const int16_t recon[64]) {
  double d = 0;
  for (uint32_t k = 1; k < 64; ++k) d += Tables().Weight[k] * Square(coef[k] - float(recon[k]));
  return d;
}

namespace {

void SetLevel(Velmo2QuantisedBlock& out, const Velmo2AcQuantiser& quantiser, uint32_t p,
              int32_t level) {
  const uint32_t k = Velmo2Scan[p];
  out.Ac.Levels[p] = int16_t(level);
  out.Recon[k] = level ? Velmo2Dequantise(level, quantiser.Dequant[k], quantiser.Q) : 0;
}

// Count and Last after the level at p was set to 0.
void Drop(Velmo2AcLevels& ac, uint32_t p) {
  --ac.Count;
  if (p != ac.Last) return;
  while (p > 0 && ac.Levels[p] == 0) --p;
  ac.Last = p;
}

}  // namespace

void Velmo2QuantiseBlock(const float coef[64], const Velmo2AcQuantiser& quantiser,
                         Velmo2QuantisedBlock& out) {
  static const Velmo2LevelMaskKernel levelMask = Velmo2LevelMaskFor(ProcessorFeatures());
  std::memset(out.Ac.Levels, 0, sizeof out.Ac.Levels);
  std::memset(out.Recon, 0, sizeof out.Recon);
  out.Ac.Count = 0;
  out.Ac.Last = 0;
  // Most coefficients quantise to 0: only those that pass the threshold are worked out.
  for (uint64_t mask = levelMask(coef, quantiser.ZeroBelow); mask; mask &= mask - 1) {
    const uint32_t k = uint32_t(__builtin_ctzll(mask));
    const uint32_t p = Tables().ScanPosition[k];
    const int32_t level = Velmo2QuantiseAc(coef[k], quantiser.Dequant[k], quantiser.Q,
                                           quantiser.Rounding);
    if (level == 0) continue;
    SetLevel(out, quantiser, p, level);
    ++out.Ac.Count;
    out.Ac.Last = std::max(out.Ac.Last, p);
  }
}

uint32_t Velmo2QuantiseBlockRdo(const float coef[64], const Velmo2AcQuantiser& quantiser,
                                double lambda, int table, Velmo2QuantisedBlock& out) {
  Velmo2QuantiseBlock(coef, quantiser, out);
  const float* weight = Tables().Weight;
  uint32_t bits = Velmo2AcBlockBits(out.Ac, table);
  for (uint32_t p = out.Ac.Last; p >= 1; --p) {
    const int32_t level = out.Ac.Levels[p];
    if (level == 0) continue;
    const uint32_t k = Velmo2Scan[p];
    const double now = weight[k] * Square(coef[k] - float(out.Recon[k]));
    // Lowering a level by one keeps the run codes: only the level's own code changes.
    double bestDelta = 0;
    int32_t bestLevel = level;
    uint32_t bestBits = bits;
    if (level > 1 || level < -1) {
      const int32_t lower = level > 0 ? level - 1 : level + 1;
      const int16_t v = Velmo2Dequantise(lower, quantiser.Dequant[k], quantiser.Q);
      const uint32_t newBits = bits - Velmo2AcLevelBits(level) + Velmo2AcLevelBits(lower);
      const double delta =
          lambda * (weight[k] * Square(coef[k] - float(v)) - now) + double(newBits) - bits;
      if (delta < bestDelta) {
        bestDelta = delta;
        bestLevel = lower;
        bestBits = newBits;
      }
    }
    // Dropping it changes the runs around it.
    const uint32_t dropBits = uint32_t(int32_t(bits) + Velmo2AcDropBits(out.Ac, p, table));
    const double dropDelta = lambda * (weight[k] * Square(coef[k]) - now) + double(dropBits) - bits;
    if (dropDelta < bestDelta) {
      bestLevel = 0;
      bestBits = dropBits;
    }
    if (bestLevel != level) {
      SetLevel(out, quantiser, p, bestLevel);
      if (bestLevel == 0) Drop(out.Ac, p);
    }
    bits = bestBits;
  }
  // One level at a time cannot see that dropping several together pays (a level at 63 saves
  // the end code, a group under the seven symbol its single codes): last, the empty block.
  // Positions at level 0 add the same error to both, so only the coded ones are compared.
  if (out.Ac.Count == 0) return bits;
  double added = 0;  // the error the empty block adds over this one
  for (uint32_t p = 1; p <= out.Ac.Last; ++p) {
    if (out.Ac.Levels[p] == 0) continue;
    const uint32_t k = Velmo2Scan[p];
    added += weight[k] * (Square(coef[k]) - Square(coef[k] - float(out.Recon[k])));
  }
  const Velmo2AcLevels none{};
  const uint32_t emptyBits = Velmo2AcBlockBits(none, table);
  if (lambda * added + double(emptyBits) < double(bits)) {
    out = Velmo2QuantisedBlock{};
    return emptyBits;
  }
  return bits;
}
