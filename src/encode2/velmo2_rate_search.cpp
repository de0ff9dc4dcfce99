// The quality search of the second-generation encoder; see velmo2_rate_search.h.
#include "encode2/velmo2_rate_search.h"

#include <algorithm>
#include <cmath>

namespace {

// log2 of a byte count; a count below one byte counts as one.
double LogBytes(double bytes) { return std::log2(std::max(bytes, 1.0)); }

// A log-quality held in the range the search hands out. A value that is no number (a zero
// slope over a zero distance) stays where the last pass was.
double Clamp(double x, double fallback) {
  if (std::isnan(x)) return fallback;
  return std::clamp(x, kVelmo2RateLowest, kVelmo2RateHighest);
}

double Floor(const Velmo2RateSearch& s) { return s.FloorLog[s.FloorIndex]; }

const Velmo2RateSample& Last(const Velmo2RateSearch& s) { return s.Samples[s.Count - 1]; }

// The x where the line through (a, fa) and (b, fb) crosses zero; the midpoint when the line
// is level and crosses nowhere.
double Secant(double a, double fa, double b, double fb) {
  if (fb == fa) return (a + b) * 0.5;
  return b - (b - a) * fb / (fb - fa);
}

// Inverse quadratic interpolation: the x at which the parabola in f through the three points
// gives f = 0. False when two of the f values are equal.
bool InverseQuadratic(double a, double fa, double b, double fb, double c, double fc, double* x) {
  if (fa == fb || fa == fc || fb == fc) return false;
  *x = a * fb * fc / ((fa - fb) * (fa - fc)) + b * fa * fc / ((fb - fa) * (fb - fc)) +
       c * fa * fb / ((fc - fa) * (fc - fb));
  return std::isfinite(*x);
}

// State 2: the first two samples make the first bracket, or tell that both were too small.
void FirstBracket(Velmo2RateSearch& s) {
  const double t = s.TargetLog;
  const Velmo2RateSample* lo = &s.Samples[0];
  const Velmo2RateSample* hi = &s.Samples[1];
  if (hi->X < lo->X) std::swap(lo, hi);
  if (lo->Y < t && hi->Y < t) {
    s.State = 3;
    return;
  }
  if (lo->Y > t && hi->Y > t) {
    // Both too large: the floor at the lowest quality is the other end.
    s.A = kVelmo2RateLowest;
    s.FA = Floor(s) - t;
    s.B = lo->X;
    s.FB = lo->Y - t;
  } else {
    s.A = lo->X;
    s.FA = lo->Y - t;
    s.B = hi->X;
    s.FB = hi->Y - t;
  }
  s.State = 4;
}

// State 8: the next point from A, B and C: inverse quadratic interpolation when it lands
// inside the bracket, else a secant on the side where the sign changes.
double Interpolate(const Velmo2RateSearch& s) {
  double d = 0.0;
  if (s.FA != s.FC && s.FB != s.FC &&
      InverseQuadratic(s.A, s.FA, s.B, s.FB, s.C, s.FC, &d) && s.A < d && d < s.B) {
    return d;
  }
  if (s.FA * s.FC < 0) return Secant(s.A, s.FA, s.C, s.FC);
  return Secant(s.C, s.FC, s.B, s.FB);
}

// State 9: narrow the bracket with C and D, taken in order of x.
void Narrow(Velmo2RateSearch& s) {
  s.FD = Last(s).Y - s.TargetLog;
  double c = s.C, fc = s.FC, d = s.D, fd = s.FD;
  if (d < c) {
    std::swap(c, d);
    std::swap(fc, fd);
  }
  if (fc * fd <= 0) {
    s.A = c;
    s.FA = fc;
    s.B = d;
    s.FB = fd;
  } else if (fc * s.FA < 0) {
    s.B = c;
    s.FB = fc;
  } else {
    s.A = d;
    s.FA = fd;
  }
}

}  // namespace

Velmo2RateSearch Velmo2RateSearchCreate(double floorInterBytes, double floorKeyBytes) {
  Velmo2RateSearch s{};
  s.FloorLog[Velmo2FloorInter] = LogBytes(floorInterBytes);
  s.FloorLog[Velmo2FloorKey] = LogBytes(floorKeyBytes);
  s.FloorIndex = Velmo2FloorInter;
  s.LastValue = -3.0;
  s.Slope = 0.6;
  return s;
}

int Velmo2RateSearchStart(Velmo2RateSearch& s, uint32_t floorIndex, double budgetBytes) {
  s.FloorIndex = floorIndex ? Velmo2FloorKey : Velmo2FloorInter;
  s.TargetLog = LogBytes(budgetBytes);
  s.Count = 0;
  s.State = 0;
  return Velmo2RateSearchStep(s);
}

int Velmo2RateSearchAdd(Velmo2RateSearch& s, double quality, double sizeBytes,
                        double distortion) {
  if (s.Count == kVelmo2RateSamples) return 0;
  const Velmo2RateSample n{std::log2(quality), LogBytes(sizeBytes), distortion};
  // L: the nearest earlier sample below the new x that stands clear of the floor;
  // U: the nearest earlier sample above it. The new sample stands in for a missing one.
  const double clear = Floor(s) + 1.0;
  const Velmo2RateSample* lower = &n;
  const Velmo2RateSample* upper = &n;
  for (uint32_t i = 0; i < s.Count; ++i) {
    const Velmo2RateSample& e = s.Samples[i];
    if (e.X < n.X && e.Y >= clear && (lower == &n || e.X > lower->X)) lower = &e;
    if (e.X > n.X && (upper == &n || e.X < upper->X)) upper = &e;
  }
  s.Samples[s.Count++] = n;
  s.LastValue = n.X;
  if (lower != upper && lower->Y > clear) s.Slope = (upper->Y - lower->Y) / (upper->X - lower->X);
  return Velmo2RateSearchStep(s);
}

int Velmo2RateSearchStep(Velmo2RateSearch& s) {
  const double t = s.TargetLog;
  if (s.Count > 0 && s.State != 10) {
    // At either end of the range with the size still on the wrong side: nowhere left to go.
    const double y = Last(s).Y;
    if ((s.Value == kVelmo2RateLowest && y > t) || (s.Value == kVelmo2RateHighest && y < t)) {
      s.State = 10;
    }
  }
  for (;;) {
    switch (s.State) {
      case 0:
        if (Floor(s) > t) {
          s.Value = kVelmo2RateLowest;  // one pass at the floor, and no more
          s.State = 10;
        } else {
          s.Value = s.LastValue;
          s.State = 1;
        }
        return 1;
      case 1: {
        const double y0 = s.Samples[0].Y;
        const double x = (y0 > t || y0 > Floor(s) + 1.0) ? s.LastValue + (t - y0) / s.Slope
                                                          : s.LastValue + 2.0;
        s.Value = Clamp(x, s.LastValue);
        s.State = 2;
        return 1;
      }
      case 2:
        FirstBracket(s);
        continue;
      case 3:
        if (Last(s).Y >= t) {
          const Velmo2RateSample& a = s.Samples[s.Count - 2];
          const Velmo2RateSample& b = s.Samples[s.Count - 1];
          s.A = a.X;
          s.FA = a.Y - t;
          s.B = b.X;
          s.FB = b.Y - t;
          s.State = 4;
          continue;
        }
        s.Value = s.Count == 2 ? Clamp(s.LastValue + 2.0, s.LastValue) : kVelmo2RateHighest;
        return 1;
      case 4:
        s.C = Secant(s.A, s.FA, s.B, s.FB);
        s.Value = s.C;
        s.State = 5;
        return 1;
      case 5:
      case 7:
        s.FC = Last(s).Y - t;
        s.State = 8;
        continue;
      case 6:
        s.C = (s.A + s.B) * 0.5;
        s.Value = s.C;
        s.State = 7;
        return 1;
      case 8:
        s.D = Interpolate(s);
        s.Value = s.D;
        s.State = 9;
        return 1;
      case 9:
        Narrow(s);
        s.State = 6;
        continue;
      default:
        s.State = 10;
        return 0;
    }
  }
}

// ---- Floors --------------------------------------------------------------------------------

namespace {

// Bits of a row of n SKIPPED macroblocks through the kind list, which starts each row as
// (MOTION, RESIDUAL, SKIPPED, INTRA): the first SKIPPED is the third entry (code 000, and it
// moves to second place), the second is then second (01, and it moves to first), and every
// later one first (1).
uint64_t SkippedRowBits(uint64_t n) {
  if (n == 0) return 0;
  if (n == 1) return 3;
  return 5 + (n - 2);
}

// Bits of the cheapest INTRA macroblock: the quantiser unchanged (1), then per luma-like plane
// an empty mask (1, and with the wide-inter word no clone bit) and "no DC residual" (1), per
// chroma plane the default mask of 0 (1) and "no DC residual" (1). No AC follows.
uint64_t FlatIntraBits(uint32_t extraLumaPlanes) { return 1 + 2 * (1 + 2 + extraLumaPlanes); }

}  // namespace

double Velmo2FloorBytes(const Velmo2SliceLayout& layout, uint32_t width, uint32_t height,
                        bool key, uint32_t extraLumaPlanes) {
  const uint64_t columns = (uint64_t(width) + 31) / 32;
  const uint64_t padded = (uint64_t(height) + 31) / 32 * 32;
  const uint32_t slices = std::max<uint32_t>(layout.Slices, 1);
  // The frame word and the offsets of slices 1 and up; slice 0 starts at byte 8 at least.
  uint64_t bytes = slices < 3 ? 8 : 4 * uint64_t(slices);
  uint64_t start = 0;
  for (uint32_t k = 0; k < slices; ++k) {
    const uint64_t end = std::min<uint64_t>(k < layout.EndsSet ? layout.Ends[k] : padded, padded);
    const uint64_t rows = end > start ? (end - start + 31) / 32 : 0;
    start = std::max(start, end);
    const uint64_t bits = key ? rows * columns * FlatIntraBits(extraLumaPlanes)
                              : rows * SkippedRowBits(columns);
    bytes += (bits + 31) / 32 * 4;  // each slice starts at a fresh word
  }
  return double(bytes);
}
