// First-generation frame encoder: block candidates, operating-point lists, the global
// best-slope allocation, plane writing and the cost model.
#include "compress/velmo1_encoder.h"

#include "compress/rate_plan.h"
#include "compress/velmo1_kernels.h"
#include "compress/velmo1_quantise.h"
#include "compress/velmo1_stream.h"
#include "decode/velmo1_decoder.h"
#include "format/frame_buffers.h"
#include "host/cpu_features.h"
#include "host/platform.h"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <thread>

namespace {

constexpr uint32_t MaxPoints = 32;
constexpr uint8_t ModeKeepFour = 15;  // a 16x16 plan's point that keeps its four 8x8 blocks
constexpr uint32_t TagVLMi = 'V' | 'L' << 8 | 'M' << 16 | uint32_t('i') << 24;
constexpr uint32_t TagVLMk = 'V' | 'L' << 8 | 'M' << 16 | uint32_t('k') << 24;

// ---------------------------------------------------------------------------------------------
// Cost model: eight estimates in 1/256 bit, each but the colour byte with four frames of history.

enum : uint32_t {
  CostType = 0, CostSubType = 1, CostColour = 2, CostPattern = 3, CostMotion = 4,
  CostIntraDC = 5, CostInterDC = 6, CostRun = 7, CostCount = 8,
};

constexpr uint32_t CostFloor[CostCount] = {102, 76, 640, 8192, 1024, 1152, 947, 384};
constexpr uint32_t CostCeiling[CostCount] = {1024, 1024, 2048, 16384, 2560, 2816, 2816, 1024};
// First history bits over 10 symbols, by plane kind: luma, chroma, alpha.
constexpr uint32_t CostStart[3][CostCount] = {
    {17, 13, 0, 510, 80, 94, 60, 35}, {12, 10, 0, 550, 90, 98, 65, 35}, {13, 9, 0, 510, 70, 92, 57, 31}};

struct CostModel {
  uint32_t E[CostCount];
  uint32_t HistoryBits[CostCount][4], HistorySymbols[CostCount][4];
  int32_t PixelBias, BiasCarry;
};

void InitCostModel(CostModel& m, uint32_t kind) {
  m = {};
  for (uint32_t i = 0; i < CostCount; ++i)
    for (uint32_t h = 0; h < 4; ++h) m.HistoryBits[i][h] = CostStart[kind][i], m.HistorySymbols[i][h] = 10;
  m.E[CostColour] = CostFloor[CostColour];
}

void UpdateCostModel(CostModel& m) {
  for (uint32_t i = 0; i < CostCount; ++i) {
    if (i == CostColour) continue;
    uint64_t bits = 0, symbols = 0;
    for (uint32_t h = 0; h < 4; ++h) bits += m.HistoryBits[i][h], symbols += m.HistorySymbols[i][h];
    for (uint32_t h = 3; h > 0; --h)  // the newest pair stays to be overwritten
      m.HistoryBits[i][h] = m.HistoryBits[i][h - 1], m.HistorySymbols[i][h] = m.HistorySymbols[i][h - 1];
    const uint64_t e = symbols ? (bits << 8) / symbols : CostCeiling[i];
    m.E[i] = uint32_t(std::clamp<uint64_t>(e, CostFloor[i], CostCeiling[i]));
  }
}

// Actual bits and symbols of a bundle replace the newest history pair.
void NoteActual(CostModel& m, uint32_t i, uint64_t bits, uint32_t symbols) {
  if (symbols <= 10) return;
  m.HistoryBits[i][0] = uint32_t(std::min<uint64_t>(bits, 0xffffffffu));
  m.HistorySymbols[i][0] = symbols + 1;
}

// ---------------------------------------------------------------------------------------------
// Transform blocks: the forward transform once per block, then each scale's quantiser row. Inter
// blocks take the same rows as intra blocks, although the decoder dequantises them with its
// inter table: measured on real footage, rows fitted to the inter table spent more bits for
// the same picture.

void Transform(const int32_t block[64], int32_t coeffs[64]) { Velmo1ForwardTransform(block, coeffs); }

// A transform point's Param: the scale in the low four bits, and this bit when the AC values
// were quantised with the dead zone. Every 8x8 block offers both forms at each scale; the
// allocation keeps whichever gives the better trade of bits for error.
constexpr uint16_t ParamDeadZone = 0x10;


// ---------------------------------------------------------------------------------------------
// Blocks and their operating points

struct Point {
  uint32_t Bits;   // 1/256 bit
  uint32_t Error;  // squared error
  uint8_t Mode;
  uint16_t Param;
};

struct BlockPlan {
  Point P[MaxPoints];
  int8_t Count, Current;
  int8_t MotionX, MotionY;
  uint32_t StepBits;
};

struct PlaneInfo {
  uint32_t Index;      // VelmoPlane*
  uint32_t Width, Height;
  const uint8_t* Source;    // padded input, pitch = width
  const uint8_t* Previous;  // the reference picture
  int32_t RefPitch;
  CostModel* Model;
  BlockPlan* Plans;    // raster order of 8x8 blocks
  bool Key;
  BlockPlan* Plans16 = nullptr;  // raster order of the whole 16x16 blocks
  uint8_t* Layout = nullptr;     // per 8x8 block: LayoutOwn, LayoutHead, LayoutCovered, LayoutLower
  bool RunAndResidue = true;     // offer RUN and residue candidates
  Velmo1IdctKernel Idct = Velmo1IdctPlain;  // the decoder's inverse transform
  Velmo1SadRowKernel SadRow = Velmo1SadRowPlain;  // the motion search's block differences
  Velmo1CoefficientBitsKernel CoefficientBits = Velmo1CoefficientBitsPlain;  // a trial's bits
  Velmo1QuantiseKernel QuantiseNearest = Velmo1Quantise;          // a trial's values
  Velmo1QuantiseKernel QuantiseDeadZone = Velmo1QuantiseDeadZone;  // ... with the dead zone
};

// Quantises with a point's scale and form (see ParamDeadZone) through the plane's kernels.
bool Quantise(const PlaneInfo& p, const int32_t coeffs[64], bool inter, uint32_t param, int16_t out[64]) {
  const Velmo1QuantiseKernel form = param & ParamDeadZone ? p.QuantiseDeadZone : p.QuantiseNearest;
  return form(coeffs, param & 15, inter, out);
}

// How an 8x8 block is written once the resolutions are merged.
enum : uint8_t { LayoutOwn = 0, LayoutHead = 1, LayoutCovered = 2, LayoutLower = 3 };

// Sorts samples by counting them: the order any sort gives, without comparisons.
void SortSamples(uint8_t* v, uint32_t n) {
  uint16_t count[256] = {};
  for (uint32_t i = 0; i < n; ++i) ++count[v[i]];
  uint32_t at = 0;
  for (uint32_t x = 0; x < 256; ++x)
    for (uint32_t c = count[x]; c; --c) v[at++] = uint8_t(x);
}

void Get8(const uint8_t* p, int32_t pitch, uint8_t out[64]) {
  for (int r = 0; r < 8; ++r) std::memcpy(out + r * 8, p + int64_t(r) * pitch, 8);
}

uint32_t Sse(const uint8_t a[64], const uint8_t b[64]) {
  uint32_t s = 0;
  for (int i = 0; i < 64; ++i) s += uint32_t((int(a[i]) - b[i]) * (int(a[i]) - b[i]));
  return s;
}

uint32_t SseValue(const uint8_t a[64], uint8_t v) {
  uint32_t s = 0;
  for (int i = 0; i < 64; ++i) s += uint32_t((int(a[i]) - v) * (int(a[i]) - v));
  return s;
}

uint32_t Sse256(const uint8_t a[256], const uint8_t b[256]) {
  uint32_t s = 0;
  for (int i = 0; i < 256; ++i) s += uint32_t((int(a[i]) - b[i]) * (int(a[i]) - b[i]));
  return s;
}

// Doubles an 8x8 block in both directions by repetition, as the decoder enlarges it.
void Up(const uint8_t h[64], uint8_t out[256]) {
  for (int r = 0; r < 16; ++r)
    for (int x = 0; x < 16; ++x) out[r * 16 + x] = h[(r / 2) * 8 + x / 2];
}

// The half-size block: each sample from its 2x2 square a b / c d as the mean of the middle two
// of (max(a, d), max(b, c)) and (min(a, d), min(b, c)).
void Half(const uint8_t f[256], uint8_t h[64]) {
  for (int r = 0; r < 8; ++r)
    for (int x = 0; x < 8; ++x) {
      const int a = f[(2 * r) * 16 + 2 * x], b = f[(2 * r) * 16 + 2 * x + 1];
      const int c = f[(2 * r + 1) * 16 + 2 * x], d = f[(2 * r + 1) * 16 + 2 * x + 1];
      h[r * 8 + x] = uint8_t((std::min(std::max(a, d), std::max(b, c)) + std::max(std::min(a, d), std::min(b, c))) >> 1);
    }
}

// The rounded mean of n samples: the one value of least squared error.
uint8_t MeanOf(const uint8_t* v, uint32_t n) {
  uint32_t sum = 0;
  for (uint32_t i = 0; i < n; ++i) sum += v[i];
  return uint8_t((2 * sum + n) / (2 * n));
}

// The two colours of a sorted block: for each split between two different values, the rounded
// means of the samples below and above it; the pair whose squared error is least, each sample
// taking the nearer value (a tie the high one), as the block will be coded. Returns false when
// all samples are equal.
bool FindTwoColours(const uint8_t sorted[64], uint8_t& low, uint8_t& high) {
  if (sorted[0] == sorted[63]) return false;
  uint32_t total = 0;
  for (int i = 0; i < 64; ++i) total += sorted[i];
  uint64_t best = UINT64_MAX;
  uint32_t below = 0;
  for (int k = 1; k < 64; ++k) {
    below += sorted[k - 1];
    if (sorted[k] == sorted[k - 1]) continue;
    const int lo = int((2 * below + uint32_t(k)) / uint32_t(2 * k));
    const int hi = int((2 * (total - below) + uint32_t(64 - k)) / uint32_t(2 * (64 - k)));
    uint64_t cost = 0;
    for (int i = 0; i < 64; ++i) {
      const int v = sorted[i];
      const int d = v - (std::abs(v - hi) <= std::abs(v - lo) ? hi : lo);
      cost += uint64_t(d * d);
    }
    if (cost < best) best = cost, low = uint8_t(lo), high = uint8_t(hi);
  }
  return true;
}

// Each sample takes the value it is strictly nearer to; a tie takes the high value.
void TwoColourBlock(const uint8_t c[64], uint8_t low, uint8_t high, uint8_t out[64], uint8_t rows[8]) {
  for (int r = 0; r < 8; ++r) {
    rows[r] = 0;
    for (int x = 0; x < 8; ++x) {
      const int v = c[r * 8 + x];
      const bool isHigh = std::abs(v - high) <= std::abs(v - low);
      out[r * 8 + x] = isHigh ? high : low;
      if (isHigh) rows[r] |= uint8_t(1u << x);
    }
  }
}

// Reconstruction of a transform block as the decoder does it.
void Rebuild(const PlaneInfo& p, const int16_t coeffs[64], bool inter, uint32_t s, const uint8_t* base,
             uint8_t out[64]) {
  int32_t values[64];
  p.Idct(coeffs, Velmo1DequantTable(inter, s), values);
  for (int k = 0; k < 64; ++k) out[k] = uint8_t((base ? base[k] : 0) + values[k]);
}

// Motion search over the reference: range 15, the block kept inside the plane, (0, 0) first,
// sum of absolute differences. The first candidate with the least sum wins. The sums of a line
// of candidates come together, bounded by the best sum before the line: a candidate at or above
// that bound cannot win, whatever its exact sum.
void FindMotion(const PlaneInfo& p, uint32_t x, uint32_t y, const uint8_t c[64], int& bestX, int& bestY) {
  const int loY = -int(std::min<uint32_t>(15, y)), hiY = int(std::min<uint32_t>(15, p.Height - 8 - y));
  const int loX = -int(std::min<uint32_t>(15, x)), hiX = int(std::min<uint32_t>(15, p.Width - 8 - x));
  auto order = [](int lo, int hi, int n) { return n <= hi ? n : lo + (n - hi - 1); };
  uint32_t best = 0x7ffffff;
  bestX = bestY = 0;
  uint32_t sums[31];
  for (int ny = 0; ny <= hiY - loY; ++ny) {
    const int dy = order(loY, hiY, ny);
    const uint8_t* line = p.Previous + int64_t(int(y) + dy) * p.RefPitch + int(x) + loX;
    p.SadRow(c, line, p.RefPitch, hiX - loX + 1, best, sums);
    for (int nx = 0; nx <= hiX - loX; ++nx) {
      const int dx = order(loX, hiX, nx);
      const uint32_t sad = sums[dx - loX];
      if (sad < best) {
        best = sad, bestX = dx, bestY = dy;
        if (sad == 0) return;  // nothing can beat it
      }
    }
  }
}

// Keeps the lower convex hull of (bits, error), from the fewest bits to the least error.
uint32_t KeepConvexHull(Point* pts, uint32_t n) {
  if (n == 0) return 0;
  uint32_t first = 0;
  uint32_t leastError = pts[0].Error;
  for (uint32_t i = 1; i < n; ++i) {
    leastError = std::min(leastError, pts[i].Error);
    if (pts[i].Bits < pts[first].Bits || (pts[i].Bits == pts[first].Bits && pts[i].Error < pts[first].Error)) first = i;
  }
  std::swap(pts[0], pts[first]);
  uint32_t kept = 1;
  while (pts[kept - 1].Error != leastError) {
    const Point& last = pts[kept - 1];
    uint32_t w = kept;
    for (uint32_t i = kept; i < n; ++i)
      if (pts[i].Bits > last.Bits && pts[i].Error < last.Error) pts[w++] = pts[i];
    n = w;
    if (n == kept) break;
    uint32_t pick = kept;
    double bestSlope = -1;
    for (uint32_t i = kept; i < n; ++i) {
      const double slope = double(last.Error - pts[i].Error) / double(pts[i].Bits - last.Bits);
      if (slope > bestSlope || (slope == bestSlope && pts[i].Bits < pts[pick].Bits)) bestSlope = slope, pick = i;
    }
    std::swap(pts[kept], pts[pick]);
    ++kept;
  }
  return kept;
}

uint32_t ThinPoints(Point* pts, uint32_t n, uint32_t limit) {
  if (n <= limit) return n;
  Point out[MaxPoints];
  out[0] = pts[0];
  for (uint32_t k = 1; k < limit; ++k) out[k] = pts[k * (n - 1) / (limit - 1)];
  std::copy(out, out + limit, pts);
  return limit;
}

// ---------------------------------------------------------------------------------------------
// Run blocks: samples along a scan merged into runs of at most 16 whose spread stays within
// twice the threshold; each run takes the middle of its range.

constexpr uint32_t RunThresholds[] = {0, 2, 5, 10};
constexpr uint32_t RunScansTried = 2;  // the scans of least total change along them

void RunApprox(const uint8_t c[64], uint32_t scan, uint32_t threshold, uint8_t out[64]) {
  const uint8_t* order = Velmo1RunScans[scan];
  for (uint32_t k = 0; k < 64;) {
    int lo = c[order[k]], hi = lo;
    uint32_t n = 1;
    while (k + n < 64 && n < 16) {
      const int v = c[order[k + n]];
      if (std::max(hi, v) - std::min(lo, v) > int(2 * threshold)) break;
      lo = std::min(lo, v), hi = std::max(hi, v), ++n;
    }
    for (uint32_t i = 0; i < n; ++i) out[order[k + i]] = uint8_t((lo + hi + 1) >> 1);
    k += n;
  }
}

// The runs and colours Velmo1EncRunBlock writes for a block, counted the same way.
void RunCounts(const uint8_t pixels[64], uint32_t scan, uint32_t& runs, uint32_t& colours) {
  uint8_t q[64];
  for (int k = 0; k < 64; ++k) q[k] = pixels[Velmo1RunScans[scan][k]];
  runs = colours = 0;
  uint32_t k = 0;
  while (k < 63) {
    uint32_t same = 1;
    while (k + same < 64 && same < 16 && q[k + same] == q[k]) ++same;
    if (same >= 2) {
      ++runs, ++colours, k += same;
      continue;
    }
    uint32_t singles = 1;
    while (k + singles < 64 && singles < 16 && !(k + singles + 1 < 64 && q[k + singles] == q[k + singles + 1]))
      ++singles;
    ++runs, colours += singles, k += singles;
  }
  if (k == 63) ++colours;
}

uint32_t RunBits(const uint8_t pixels[64], uint32_t scan, const uint32_t* e) {
  uint32_t runs, colours;
  RunCounts(pixels, scan, runs, colours);
  return ((4 + runs) << 8) + runs * e[CostRun] + colours * e[CostColour];
}

// The scans along which a block changes least, best first.
void BestRunScans(const uint8_t c[64], uint32_t out[RunScansTried]) {
  uint32_t change[16];
  for (uint32_t s = 0; s < 16; ++s) {
    const uint8_t* order = Velmo1RunScans[s];
    uint32_t sum = 0;
    for (int k = 1; k < 64; ++k) sum += uint32_t(std::abs(int(c[order[k]]) - c[order[k - 1]]));
    change[s] = sum;
  }
  for (uint32_t i = 0; i < RunScansTried; ++i) {
    uint32_t best = 0;
    for (uint32_t s = 1; s < 16; ++s)
      if (change[s] < change[best]) best = s;
    out[i] = best;
    change[best] = UINT32_MAX;
  }
}

// Param of a run point: the scan in the low four bits, the threshold above.
uint16_t RunParam(uint32_t scan, uint32_t threshold) { return uint16_t(scan | threshold << 4); }

// ---------------------------------------------------------------------------------------------
// Residue blocks: the difference to the motion source, rounded to multiples of 2^shift and
// held to +-127, coded completely by the bit-plane coder. Its event limit is set to stop right
// after the last one bit, so no lower plane is spent on zeros.

constexpr uint32_t ResidueShifts = 5;

// Fills the residue by list index and returns the number of events it takes (its one bits).
uint32_t MakeResidue(const uint8_t c[64], const uint8_t m[64], uint32_t shift, int8_t residue[64]) {
  uint32_t events = 0;
  const int half = shift ? 1 << (shift - 1) : 0;
  for (int i = 0; i < 64; ++i) {
    const int pos = Velmo1CoefficientOrder[i];
    const int d = int(c[pos]) - m[pos];
    int mag = std::min(127, ((std::abs(d) + half) >> shift) << shift);
    if (mag > 127) mag = 127;
    residue[i] = int8_t(d < 0 ? -mag : mag);
    events += uint32_t(__builtin_popcount(uint32_t(mag)));
  }
  return events;
}

void ApplyResidue(const uint8_t m[64], const int8_t residue[64], uint8_t out[64]) {
  std::copy(m, m + 64, out);
  for (int i = 0; i < 64; ++i) out[Velmo1CoefficientOrder[i]] += uint8_t(residue[i]);
}

// Builds the candidate list of one 8x8 block.
void AnalyseBlock(const PlaneInfo& p, uint32_t x, uint32_t y, BlockPlan& plan) {
  const uint32_t* e = p.Model->E;
  uint8_t c[64], sorted[64], rebuilt[64];
  Get8(p.Source + int64_t(y) * p.Width + x, int32_t(p.Width), c);
  Point pts[128];
  uint32_t n = 0;
  plan.MotionX = plan.MotionY = 0;
  auto finish = [&] {
    n = ThinPoints(pts, KeepConvexHull(pts, n), MaxPoints);
    for (uint32_t i = 0; i < n; ++i) pts[i].Bits += e[CostType];
    std::copy(pts, pts + n, plan.P);
    plan.Count = int8_t(n);
    plan.Current = 0;
  };
  const uint8_t* prevAt = p.Key ? nullptr : p.Previous + int64_t(y) * p.RefPitch + x;
  if (prevAt) {
    uint8_t prev[64];
    Get8(prevAt, p.RefPitch, prev);
    pts[n++] = {0, Sse(c, prev), Velmo1Skip, 0};
    if (pts[0].Error == 0) return finish();
  }
  std::copy(c, c + 64, sorted);
  SortSamples(sorted, 64);
  const uint8_t one = MeanOf(c, 64);
  pts[n++] = {e[CostColour], SseValue(c, one), Velmo1One, one};
  if (pts[n - 1].Error == 0) return finish();
  uint8_t low = 0, high = 0;
  if (FindTwoColours(sorted, low, high)) {
    uint8_t rows[8];
    TwoColourBlock(c, low, high, rebuilt, rows);
    pts[n++] = {e[CostPattern] + 2 * e[CostColour], Sse(c, rebuilt), Velmo1Two, uint16_t(high * 256 + low)};
  }
  uint32_t scans[RunScansTried];
  const uint32_t scanCount = p.RunAndResidue ? RunScansTried : 0;
  if (scanCount) BestRunScans(c, scans);
  for (uint32_t s = 0; s < scanCount; ++s)
    for (uint32_t t : RunThresholds) {
      const uint32_t scan = scans[s];
      RunApprox(c, scan, t, rebuilt);
      pts[n++] = {RunBits(rebuilt, scan, e), Sse(c, rebuilt), Velmo1Run, RunParam(scan, t)};
    }
  int32_t wide[64];
  int32_t projection[64];
  int16_t coeffs[64];
  for (int i = 0; i < 64; ++i) wide[i] = c[i];
  Transform(wide, projection);
  for (uint16_t zone : {uint16_t(0), ParamDeadZone})
    for (uint32_t q = 0; q < 16; ++q) {
      if (!Quantise(p, projection, false, q | zone, coeffs)) break;
      Rebuild(p, coeffs, false, q, nullptr, rebuilt);
      pts[n++] = {((p.CoefficientBits(coeffs) + 4) << 8) + e[CostIntraDC], Sse(c, rebuilt), Velmo1DctIntra,
                  uint16_t(q | zone)};
    }
  if (prevAt) {
    int mx, my;
    FindMotion(p, x, y, c, mx, my);
    plan.MotionX = int8_t(mx), plan.MotionY = int8_t(my);
    uint8_t m[64];
    Get8(p.Previous + int64_t(int(y) + my) * p.RefPitch + int(x) + mx, p.RefPitch, m);
    for (int i = 0; i < 64; ++i) wide[i] = int(c[i]) - m[i];
    Transform(wide, projection);
    for (uint16_t zone : {uint16_t(0), ParamDeadZone})
      for (uint32_t q = 0; q < 16; ++q) {
        const bool any = Quantise(p, projection, true, q | zone, coeffs);
        Rebuild(p, coeffs, true, q, m, rebuilt);
        pts[n++] = {((p.CoefficientBits(coeffs) + 4) << 8) + e[CostInterDC] + e[CostMotion], Sse(c, rebuilt),
                    Velmo1DctInter, uint16_t(q | zone)};
        if (!any) break;
      }
    pts[n++] = {e[CostMotion], Sse(c, m), Velmo1Mot, 0};
    for (uint32_t shift = 0; p.RunAndResidue && shift < ResidueShifts; ++shift) {
      int8_t residue[64];
      const uint32_t events = MakeResidue(c, m, shift, residue);
      if (events == 0 || events > 128) continue;
      ApplyResidue(m, residue, rebuilt);
      const size_t bits = Velmo1EncResidueBitCount(residue, events - 1);
      pts[n++] = {uint32_t(bits << 8) + e[CostMotion], Sse(c, rebuilt), Velmo1Motz, uint16_t(shift)};
    }
  }
  pts[n++] = {e[CostColour] << 6, 0, Velmo1Bang, 0};
  finish();
}

// Keeps a staircase of points: from the fewest bits, each next point the cheapest one with both
// more bits and less error than the last kept. Ends at error 0.
uint32_t KeepStaircase(Point* pts, uint32_t n) {
  std::stable_sort(pts, pts + n, [](const Point& a, const Point& b) {
    return a.Bits != b.Bits ? a.Bits < b.Bits : a.Error < b.Error;
  });
  uint32_t kept = 0;
  for (uint32_t i = 0; i < n; ++i) {
    if (kept && (pts[i].Bits <= pts[kept - 1].Bits || pts[i].Error >= pts[kept - 1].Error)) continue;
    pts[kept++] = pts[i];
    if (pts[kept - 1].Error == 0) break;
  }
  return kept;
}

void Get16(const uint8_t* p, int32_t pitch, uint8_t out[256]) {
  for (int r = 0; r < 16; ++r) std::memcpy(out + r * 16, p + int64_t(r) * pitch, 16);
}

// Builds the candidate list of one 16x16 block from its half-size version; errors at full size.
void AnalyseBlock16(const PlaneInfo& p, uint32_t x, uint32_t y, BlockPlan& plan) {
  const uint32_t* e = p.Model->E;
  uint8_t f[256], h[64], up[256], sorted[64], rebuilt[64];
  Get16(p.Source + int64_t(y) * p.Width + x, int32_t(p.Width), f);
  Half(f, h);
  Up(h, up);
  plan.MotionX = plan.MotionY = 0;
  plan.Current = 0;
  plan.Count = 0;
  if (!p.Key) {
    uint8_t prev[256];
    Get16(p.Previous + int64_t(y) * p.RefPitch + x, p.RefPitch, prev);
    // Unchanged (or its enlargement is what is there): the 8x8 blocks copy it for free.
    if (std::memcmp(prev, up, 256) == 0 || std::memcmp(prev, f, 256) == 0) return;
  }
  Point pts[64];
  uint32_t n = 0;
  auto finish = [&] {
    n = ThinPoints(pts, KeepStaircase(pts, n), MaxPoints - 1);
    for (uint32_t i = 0; i < n; ++i) pts[i].Bits += e[CostSubType] + 2 * e[CostType];
    std::copy(pts, pts + n, plan.P);
    plan.Count = int8_t(n);
  };
  const uint8_t one = MeanOf(f, 256);
  uint8_t flat[256];
  std::memset(flat, one, 256);
  pts[n++] = {e[CostColour], Sse256(f, flat), Velmo1One, one};
  if (pts[0].Error == 0) return finish();
  std::copy(h, h + 64, sorted);
  SortSamples(sorted, 64);
  uint8_t low = 0, high = 0, big[256];
  if (FindTwoColours(sorted, low, high)) {
    uint8_t rows[8];
    TwoColourBlock(h, low, high, rebuilt, rows);
    Up(rebuilt, big);
    pts[n++] = {e[CostPattern] + 2 * e[CostColour], Sse256(f, big), Velmo1Two, uint16_t(high * 256 + low)};
  }
  uint32_t scans[RunScansTried];
  const uint32_t scanCount = p.RunAndResidue ? RunScansTried : 0;
  if (scanCount) BestRunScans(h, scans);
  for (uint32_t s = 0; s < scanCount; ++s)
    for (uint32_t t : RunThresholds) {
      const uint32_t scan = scans[s];
      RunApprox(h, scan, t, rebuilt);
      Up(rebuilt, big);
      pts[n++] = {RunBits(rebuilt, scan, e), Sse256(f, big), Velmo1Run, RunParam(scan, t)};
    }
  int32_t wide[64];
  int32_t projection[64];
  int16_t coeffs[64];
  for (int i = 0; i < 64; ++i) wide[i] = h[i];
  Transform(wide, projection);
  for (uint32_t q = 0; q < 16; ++q) {
    if (!Quantise(p, projection, false, q, coeffs)) break;
    Rebuild(p, coeffs, false, q, nullptr, rebuilt);
    Up(rebuilt, big);
    pts[n++] = {((p.CoefficientBits(coeffs) + 4) << 8) + e[CostIntraDC], Sse256(f, big), Velmo1DctIntra, uint16_t(q)};
  }
  pts[n++] = {e[CostColour] << 6, Sse256(f, up), Velmo1Bang, 0};
  finish();
}

// The colour-byte estimate of each plane from the entropy of the samples likely to be coded.
// Four strips of rows a plane, one job each, with a histogram per strip; a strip's first sample
// is compared with the sample before it in scan order. The strips of every plane go to the job
// pool in one run.
constexpr uint32_t PixelStrips = 4;

struct PixelCostJob {
  const PlaneInfo* Planes[4];
  uint32_t Count = 0;
  uint32_t Histogram[4][PixelStrips][256];
  uint32_t Samples[4][PixelStrips];
  std::atomic<uint32_t> Next{0};
};

void PixelStrip(const PlaneInfo& p, uint32_t strip, uint32_t h[256], uint32_t& samples) {
  const uint32_t rows = (p.Height + PixelStrips - 1) / PixelStrips;
  const uint32_t y0 = std::min(p.Height, strip * rows), y1 = std::min(p.Height, y0 + rows);
  if (y0 >= y1) return;
  int last = y0 ? p.Source[size_t(y0) * p.Width - 1] : p.Source[0] - 1;
  for (uint32_t y = y0; y < y1; ++y) {
    const uint8_t* row = p.Source + size_t(y) * p.Width;
    const uint8_t* prev = p.Key ? nullptr : p.Previous + int64_t(y) * p.RefPitch;
    for (uint32_t x = 0; x < p.Width; ++x) {
      const int v = row[x];
      const bool differs = v != last;
      last = v;
      if (!differs) continue;
      if (prev && std::abs(v - int(prev[x])) <= 1) continue;
      ++h[v];
      ++samples;
    }
  }
}

void PixelCostWorker(void* context, uint32_t) {
  auto* job = static_cast<PixelCostJob*>(context);
  for (uint32_t n; (n = job->Next.fetch_add(1)) < job->Count * PixelStrips;) {
    const uint32_t k = n / PixelStrips, s = n % PixelStrips;
    PixelStrip(*job->Planes[k], s, job->Histogram[k][s], job->Samples[k][s]);
  }
}

// The estimate of plane k of the job, from its strips.
void FinishPixelCost(CostModel& m, const PixelCostJob& job, uint32_t k) {
  uint32_t h[256] = {}, samples = 0;
  for (uint32_t s = 0; s < PixelStrips; ++s) {
    samples += job.Samples[k][s];
    for (int v = 0; v < 256; ++v) h[v] += job.Histogram[k][s][v];
  }
  const int32_t cost = samples ? int32_t((uint64_t(EstimateBytes(h, samples)) << 11) / samples)
                               : int32_t(CostFloor[CostColour]);
  const int32_t estimate = std::clamp<int32_t>(m.PixelBias + cost, CostFloor[CostColour], CostCeiling[CostColour]);
  m.E[CostColour] = uint32_t(estimate);
  m.BiasCarry = estimate - cost;
  m.PixelBias = estimate >> 8;
}

// Every pass of a frame's analysis, the 8x8 blocks of each coded plane and then their 16x16
// blocks, in one run of the job pool: the passes read only the pictures and the cost models, so
// no thread need wait for another between them. The calling thread tells each pass's stage
// label, and reads the stop state, when its claims first reach the pass (or at its end for the
// passes the other threads finished), so the labels come in the order of the passes.
struct AnalysisPass {
  const PlaneInfo* Plane;
  bool Whole16;  // the 16x16 blocks
  uint32_t BlocksX;
  const char* Label;
};

struct AnalysisJob {
  AnalysisPass Passes[8];
  uint32_t Ends[8];  // the claim number at which each pass ends
  uint32_t Count = 0;
  const VelmoEncodeInput* Input;
  std::thread::id Caller;
  uint32_t Told = 0;  // passes whose label has been told; the caller's alone
  std::atomic<uint32_t> Next{0};
  std::atomic<bool> Stopped{false};

  void Add(const PlaneInfo* plane, bool whole16, uint32_t blocks, const char* label) {
    Passes[Count] = {plane, whole16, plane->Width / (whole16 ? 16 : 8), label};
    Ends[Count] = (Count ? Ends[Count - 1] : 0) + blocks;
    ++Count;
  }
};

bool StopBefore(const VelmoEncodeInput& input, const char* label);

// Tells the labels of the passes up to `pass`; false once the run is to stop.
bool TellPassesTo(AnalysisJob& job, uint32_t pass) {
  for (; job.Told <= pass && job.Told < job.Count; ++job.Told)
    if (StopBefore(*job.Input, job.Passes[job.Told].Label)) {
      job.Stopped.store(true);
      return false;
    }
  return true;
}

void AnalysisWorker(void* context, uint32_t) {
  auto* job = static_cast<AnalysisJob*>(context);
  const bool caller = std::this_thread::get_id() == job->Caller;
  const uint32_t total = job->Count ? job->Ends[job->Count - 1] : 0;
  uint32_t pass = 0;
  for (uint32_t n; !job->Stopped.load(std::memory_order_relaxed) && (n = job->Next.fetch_add(1)) < total;) {
    while (n >= job->Ends[pass]) ++pass;
    if (caller && !TellPassesTo(*job, pass)) return;
    const AnalysisPass& a = job->Passes[pass];
    const uint32_t b = n - (pass ? job->Ends[pass - 1] : 0);
    if (a.Whole16)
      AnalyseBlock16(*a.Plane, (b % a.BlocksX) * 16, (b / a.BlocksX) * 16, a.Plane->Plans16[b]);
    else
      AnalyseBlock(*a.Plane, (b % a.BlocksX) * 8, (b / a.BlocksX) * 8, a.Plane->Plans[b]);
  }
  if (caller && job->Count) TellPassesTo(*job, job->Count - 1);
}

// The greedy best-slope walk: every block starts at its cheapest point; the step of greatest
// error drop per bit is taken while bits are left, and steps worth at least 4096 of error may
// run into an overrun of a tenth of the budget.
void AllocateBits(BlockPlan* const* plans, size_t count, uint32_t budgetBytes) {
  int64_t left = budgetBytes >= (1u << 20) ? 0x7fffffff : int64_t(budgetBytes) << 11;
  const int64_t overrun = budgetBytes >= (1u << 20) ? 0x7fffffff : left / 10;
  // Each block's next step, steepest first; of equal slopes the step offered last goes first.
  struct Step {
    double Slope;
    uint64_t Order;
    BlockPlan* Plan;
    bool operator<(const Step& o) const { return Slope < o.Slope || (Slope == o.Slope && Order < o.Order); }
  };
  std::vector<Step> steps;  // a heap; a block has at most one step in it
  steps.reserve(count);
  uint64_t offered = 0;
  auto push = [&](BlockPlan* b) {
    const Point& now = b->P[b->Current];
    const Point& next = b->P[b->Current + 1];
    b->StepBits = next.Bits - now.Bits;
    steps.push_back({double(int64_t(now.Error) - int64_t(next.Error)) / b->StepBits, offered++, b});
    std::push_heap(steps.begin(), steps.end());
  };
  for (size_t i = 0; i < count; ++i) {
    BlockPlan* b = plans[i];
    b->Current = 0;
    left -= b->P[0].Bits;
    if (b->Count > 1) push(b);
  }
  while (left >= 1 || -left < overrun) {
    if (steps.empty()) break;
    BlockPlan* b = steps.front().Plan;
    const int64_t gain = int64_t(b->P[b->Current].Error) - int64_t(b->P[b->Current + 1].Error);
    if (left < 1 && gain < 4096) break;
    std::pop_heap(steps.begin(), steps.end());
    steps.pop_back();
    ++b->Current;
    left -= b->StepBits;
    if (b->Current + 1 < b->Count) push(b);
  }
}

// Decides per plane where a 16x16 block beats its four 8x8 blocks: each 16x16 plan gains the
// point "keep four" (the sum of the four chosen 8x8 points) and a second walk spends the bits
// the first walk gave the plane. Blocks outside whole 16x16 blocks keep their 8x8 choice.
void MergeResolutions(const PlaneInfo& p) {
  const uint32_t bx = p.Width / 8, by = p.Height / 8, bx16 = bx / 2, by16 = by / 2;
  auto chosen = [&](uint32_t c, uint32_t r) -> const Point& {
    const BlockPlan& b = p.Plans[r * bx + c];
    return b.P[b.Current];
  };
  uint64_t planeBits = 0, oddBits = 0;
  for (uint32_t r = 0; r < by; ++r)
    for (uint32_t c = 0; c < bx; ++c) {
      planeBits += chosen(c, r).Bits;
      if (c >= 2 * bx16 || r >= 2 * by16) oddBits += chosen(c, r).Bits;
      p.Layout[r * bx + c] = LayoutOwn;
    }
  std::vector<BlockPlan*> plans;
  plans.reserve(size_t(bx16) * by16);
  for (uint32_t r = 0; r < by16; ++r)
    for (uint32_t c = 0; c < bx16; ++c) {
      BlockPlan& b = p.Plans16[r * bx16 + c];
      Point keep{0, 0, ModeKeepFour, 0};
      for (uint32_t k = 0; k < 4; ++k) {
        keep.Bits += chosen(2 * c + k % 2, 2 * r + k / 2).Bits;
        keep.Error += chosen(2 * c + k % 2, 2 * r + k / 2).Error;
      }
      b.P[b.Count] = keep;
      b.Count = int8_t(KeepConvexHull(b.P, uint32_t(b.Count) + 1));
      plans.push_back(&b);
    }
  const uint64_t spare = planeBits > oddBits ? (planeBits - oddBits) >> 11 : 0;
  AllocateBits(plans.data(), plans.size(), uint32_t(std::min<uint64_t>(spare, 0xfffff)));
  for (uint32_t r = 0; r < by16; ++r)
    for (uint32_t c = 0; c < bx16; ++c) {
      const BlockPlan& b = p.Plans16[r * bx16 + c];
      if (b.P[b.Current].Mode == ModeKeepFour) continue;
      uint8_t* at = p.Layout + size_t(2 * r) * bx + 2 * c;
      at[0] = LayoutHead, at[1] = LayoutCovered;
      at[bx] = LayoutLower, at[bx + 1] = LayoutCovered;
    }
}

// The error the merged plan expects for a plane.
uint64_t PlannedPlaneError(const PlaneInfo& p) {
  const uint32_t bx = p.Width / 8, by = p.Height / 8, bx16 = bx / 2;
  uint64_t sum = 0;
  for (uint32_t r = 0; r < by; ++r)
    for (uint32_t c = 0; c < bx; ++c) {
      const uint8_t layout = p.Layout[r * bx + c];
      if (layout == LayoutOwn) {
        const BlockPlan& b = p.Plans[r * bx + c];
        sum += b.P[b.Current].Error;
      } else if (layout == LayoutHead) {
        const BlockPlan& b = p.Plans16[(r / 2) * bx16 + c / 2];
        sum += b.P[b.Current].Error;
      }
    }
  return sum;
}

// Where one plane's bits went, for the statistics file: each bundle's bits and values, and each
// block kind's count and planned bits (8x8 blocks by kind, 16x16 blocks by sub-kind).
struct PlaneStats {
  Velmo1EncPlaneStats Bundles;
  uint32_t Bytes;
  uint64_t Error;
  uint32_t Count8[Velmo1KindCount], Count16[Velmo1KindCount];
  uint64_t Planned8[Velmo1KindCount], Planned16[Velmo1KindCount];
};

}  // namespace

// ---------------------------------------------------------------------------------------------
// The encoder

struct VelmoEncoder {
  VelmoEncoderConfig Config;
  uint32_t Tag;
  uint32_t PlaneWidth[4], PlaneHeight[4];
  bool Present[4];
  std::vector<uint8_t> Source[4];
  std::vector<uint8_t> Pictures;  // two sets of planes
  VelmoFrameBuffers Ring;
  CostModel Models[4];
  std::vector<BlockPlan> Plans[4];
  std::vector<BlockPlan> Plans16[4];
  std::vector<uint8_t> Layout[4];
  bool HaveReference = false;
  uint32_t FramesCoded = 0;
  PlaneStats Stats[4];
};

uint32_t Velmo1FileTagFor(uint32_t version) { return version < 101 ? TagVLMi : TagVLMk; }

VelmoEncoder* VelmoEncoderCreate(const VelmoEncoderConfig& config) {
  if (config.Width == 0 || config.Height == 0 || config.Width > 16384 || config.Height > 16384 ||
      config.Version < 100 || config.Version > 199)
    return nullptr;
  auto* e = new (std::nothrow) VelmoEncoder();
  if (!e) return nullptr;
  e->Config = config;
  e->Tag = Velmo1FileTagFor(config.Version);
  const uint32_t lw = Velmo1LumaSize(config.Width), lh = Velmo1LumaSize(config.Height);
  const uint32_t cw = Velmo1ChromaSize(config.Width), ch = Velmo1ChromaSize(config.Height);
  const bool gray = config.Flags & VelmoEncodeGrayscale, alpha = config.Flags & VelmoEncodeAlpha;
  const uint32_t widths[4] = {lw, cw, cw, lw}, heights[4] = {lh, ch, ch, lh};
  const bool present[4] = {true, !gray, !gray, alpha};
  size_t setBytes = 0;
  for (int i = 0; i < 4; ++i) {
    e->PlaneWidth[i] = widths[i], e->PlaneHeight[i] = heights[i], e->Present[i] = present[i];
    setBytes += size_t(widths[i]) * heights[i];
    e->Source[i].assign(size_t(widths[i]) * heights[i], 0);
    if (present[i]) {
      e->Plans[i].resize(size_t(widths[i] / 8) * (heights[i] / 8));
      e->Plans16[i].resize(size_t(widths[i] / 16) * (heights[i] / 16));
      e->Layout[i].assign(e->Plans[i].size(), LayoutOwn);
    }
    InitCostModel(e->Models[i], i == 0 ? 0 : i == 3 ? 2 : 1);
  }
  e->Pictures.assign(2 * setBytes, 0);
  VelmoFrameBuffers& fb = e->Ring;
  fb = {};
  fb.Count = 2;
  fb.Width = config.Width, fb.Height = config.Height;
  fb.LumaWidth = lw, fb.LumaHeight = lh, fb.ChromaWidth = cw, fb.ChromaHeight = ch;
  fb.LumaPitch = int32_t(lw), fb.ChromaPitch = int32_t(cw);
  fb.HasAlpha = alpha;
  uint8_t* at = e->Pictures.data();
  for (int s = 0; s < 2; ++s)
    for (int i = 0; i < 4; ++i) {
      fb.Sets[s].Planes[i] = at;
      at += size_t(widths[i]) * heights[i];
    }
  // Planes the stream does not carry stay null, as a reader's would.
  for (int s = 0; s < 2; ++s)
    for (int i = 0; i < 4; ++i)
      if (!present[i]) fb.Sets[s].Planes[i] = nullptr;
  return e;
}

void VelmoEncoderFree(VelmoEncoder* encoder) { delete encoder; }

const VelmoFrameBuffers* VelmoEncoderPicture(const VelmoEncoder* e) { return e ? &e->Ring : nullptr; }

uint32_t VelmoEncoderDecodeFlags(const VelmoEncoder* e) {
  uint32_t flags = 0;
  if (e && (e->Config.Flags & VelmoEncodeAlpha)) flags |= Velmo1AlphaPlane;
  if (e && (e->Config.Flags & VelmoEncodeGrayscale)) flags |= Velmo1SkipChroma;
  return flags;
}

namespace {

// The stream block of a point of a kind that needs no reference (RUN, DCT_INTRA, ONE, TWO,
// BANG), from the 8x8 samples it was planned on.
Velmo1EncRawBlock ContentBlock(const PlaneInfo& p, const Point& pt, const uint8_t c[64]) {
  switch (pt.Mode) {
    case Velmo1One: return Velmo1EncOneBlock(uint8_t(pt.Param));
    case Velmo1Run: {
      uint8_t approx[64];
      RunApprox(c, pt.Param & 15, pt.Param >> 4, approx);
      return Velmo1EncRunBlock(pt.Param & 15, approx);
    }
    case Velmo1DctIntra: {
      int32_t wide[64];
      for (int i = 0; i < 64; ++i) wide[i] = c[i];
      int32_t projection[64];
      int16_t coeffs[64];
      Transform(wide, projection);
      Quantise(p, projection, false, pt.Param, coeffs);
      return Velmo1EncIntraBlock(uint16_t(coeffs[0]), coeffs, pt.Param & 15);
    }
    case Velmo1Two: {
      uint8_t rebuilt[64], rows[8];
      const uint8_t high = uint8_t(pt.Param >> 8), low = uint8_t(pt.Param);
      TwoColourBlock(c, low, high, rebuilt, rows);
      uint32_t lows = 0;
      for (int i = 0; i < 64; ++i) lows += rebuilt[i] == low && low != high;
      if (lows < 32) {  // the value of fewer samples takes the set bits
        for (uint8_t& r : rows) r = uint8_t(~r);
        return Velmo1EncTwoBlock(high, low, rows);
      }
      return Velmo1EncTwoBlock(low, high, rows);
    }
    default: return Velmo1EncBangBlock(c);
  }
}

// The stream block of a chosen 8x8 point, recomputed from the source and the reference.
Velmo1EncRawBlock BlockFor(const PlaneInfo& p, uint32_t x, uint32_t y, const BlockPlan& plan) {
  const Point& pt = plan.P[plan.Current];
  uint8_t c[64], m[64];
  Get8(p.Source + int64_t(y) * p.Width + x, int32_t(p.Width), c);
  switch (pt.Mode) {
    case Velmo1Skip: return Velmo1EncSkipBlock();
    case Velmo1Mot: return Velmo1EncMotBlock(plan.MotionX, plan.MotionY);
    case Velmo1DctInter: {
      Get8(p.Previous + int64_t(int(y) + plan.MotionY) * p.RefPitch + int(x) + plan.MotionX, p.RefPitch, m);
      int32_t wide[64];
      for (int i = 0; i < 64; ++i) wide[i] = int(c[i]) - m[i];
      int32_t projection[64];
      int16_t coeffs[64];
      Transform(wide, projection);
      Quantise(p, projection, true, pt.Param, coeffs);
      return Velmo1EncInterBlock(plan.MotionX, plan.MotionY, coeffs[0], coeffs, pt.Param & 15);
    }
    case Velmo1Motz: {
      Get8(p.Previous + int64_t(int(y) + plan.MotionY) * p.RefPitch + int(x) + plan.MotionX, p.RefPitch, m);
      int8_t residue[64];
      const uint32_t events = MakeResidue(c, m, pt.Param, residue);
      return Velmo1EncMotzBlock(plan.MotionX, plan.MotionY, events - 1, residue);
    }
    default: return ContentBlock(p, pt, c);
  }
}

// The DOUBLED block of a chosen 16x16 point: its sub-kind coded on the half-size samples.
Velmo1EncRawBlock Block16For(const PlaneInfo& p, uint32_t x, uint32_t y, const BlockPlan& plan) {
  uint8_t f[256], h[64];
  Get16(p.Source + int64_t(y) * p.Width + x, int32_t(p.Width), f);
  Half(f, h);
  return Velmo1EncDoubledBlock(ContentBlock(p, plan.P[plan.Current], h));
}

// The stream blocks of one row of 8x8 blocks.
void BuildRow(const PlaneInfo& p, uint32_t y, std::vector<Velmo1EncRawBlock>& row) {
  const uint32_t bx = p.Width / 8, bx16 = bx / 2;
  row.reserve(bx);
  for (uint32_t x = 0; x < p.Width; x += 8) {
    const uint32_t b = (y / 8) * bx + x / 8;
    switch (p.Layout[b]) {
      case LayoutOwn: row.push_back(BlockFor(p, x, y, p.Plans[b])); break;
      case LayoutHead: row.push_back(Block16For(p, x, y, p.Plans16[(y / 16) * bx16 + x / 16])); break;
      case LayoutLower: row.push_back(Velmo1EncDoubledLower()); break;
      default: break;  // covered by the 16x16 block to its left
    }
  }
}

// The rows of a plane spread over the job pool: each row's blocks are rebuilt from the source,
// the reference and the chosen points alone.
struct RowsJob {
  const PlaneInfo* Plane;
  Velmo1EncPlaneSpec* Out;  // the plane's rows, one a job
  std::atomic<uint32_t> Next{0};
};

void RowsWorker(void* context, uint32_t) {
  auto* job = static_cast<RowsJob*>(context);
  const uint32_t rows = uint32_t(job->Out->Rows.size());
  for (uint32_t r; (r = job->Next.fetch_add(1)) < rows;) BuildRow(*job->Plane, r * 8, job->Out->Rows[r]);
}

// Counts the kinds of the written blocks; a 16x16 block counts once, at its head, with the
// kind of its sub-block. The plane's statistics get the chosen modes and their planned bits.
void CountKinds(const PlaneInfo& p, const Velmo1EncPlaneSpec& written, VelmoEncodeResult* result,
                PlaneStats& stats) {
  const uint32_t bx = p.Width / 8, bx16 = bx / 2;
  for (uint32_t r = 0; r < written.Rows.size(); ++r) {
    size_t at = 0;
    for (uint32_t c = 0; c < bx; ++c) {
      const uint8_t layout = p.Layout[r * bx + c];
      if (layout == LayoutCovered) continue;
      const Velmo1EncRawBlock& block = written.Rows[r][at++];
      if (layout == LayoutLower) continue;
      if (layout == LayoutHead) {
        const BlockPlan& plan = p.Plans16[(r / 2) * bx16 + c / 2];
        const Point& chosen = plan.P[plan.Current];
        ++result->DoubledKinds[chosen.Mode];
        ++stats.Count16[chosen.Mode];
        stats.Planned16[chosen.Mode] += chosen.Bits;
      } else {
        const BlockPlan& plan = p.Plans[r * bx + c];
        const Point& chosen = plan.P[plan.Current];
        ++stats.Count8[chosen.Mode];
        stats.Planned8[chosen.Mode] += chosen.Bits;
      }
      ++result->Kinds[block.Type];
    }
  }
}

// Writes one plane from its chosen points and feeds the real costs back to the model.
std::vector<uint8_t> WritePlane(const PlaneInfo& p, bool vlmk, CostModel& model, VelmoEncodeResult* result,
                                PlaneStats& planeStats) {
  planeStats = {};
  Velmo1EncPlaneSpec planeSpec;
  planeSpec.Width = p.Width;
  planeSpec.Rows.resize((p.Height + 7) / 8);
  RowsJob rows;
  rows.Plane = &p;
  rows.Out = &planeSpec;
  PoolRun(RowsWorker, &rows);
  CountKinds(p, planeSpec, result, planeStats);
  Velmo1EncPlaneOptions options;
  options.VlmK = vlmk;
  options.ChooseTables = true;
  Velmo1EncPlaneStats stats{};
  std::vector<uint8_t> out = Velmo1EncBuildPlane(planeSpec, options, &stats);
  planeStats.Bundles = stats;
  NoteActual(model, CostType, stats.Bits[Velmo1BlockTypes], stats.Elements[Velmo1BlockTypes]);
  NoteActual(model, CostSubType, stats.Bits[Velmo1SubBlockTypes], stats.Elements[Velmo1SubBlockTypes]);
  NoteActual(model, CostPattern, stats.Bits[Velmo1Patterns], stats.Elements[Velmo1Patterns] / 8);
  NoteActual(model, CostMotion, stats.Bits[Velmo1XMotion] + stats.Bits[Velmo1YMotion], stats.Elements[Velmo1XMotion]);
  NoteActual(model, CostIntraDC, stats.Bits[Velmo1IntraDC], stats.Elements[Velmo1IntraDC]);
  NoteActual(model, CostInterDC, stats.Bits[Velmo1InterDC], stats.Elements[Velmo1InterDC]);
  NoteActual(model, CostRun, stats.Bits[Velmo1Runs], stats.Elements[Velmo1Runs]);
  if (const uint32_t colours = stats.Elements[Velmo1Colors])
    model.PixelBias = int32_t((stats.Bits[Velmo1Colors] << 8) / colours) - int32_t(model.E[CostColour]) + model.BiasCarry;
  return out;
}

uint64_t PlaneError(const uint8_t* a, const uint8_t* b, size_t n) {
  uint64_t s = 0;
  for (size_t i = 0; i < n; ++i) s += uint64_t((int(a[i]) - b[i]) * (int(a[i]) - b[i]));
  return s;
}

// The squared error of the top-left w x h of two planes of `pitch` bytes a line.
uint64_t PictureError(const uint8_t* a, const uint8_t* b, size_t pitch, uint32_t w, uint32_t h) {
  uint64_t s = 0;
  for (uint32_t y = 0; y < h; ++y) s += PlaneError(a + y * pitch, b + y * pitch, w);
  return s;
}

}  // namespace

namespace {

// The merge of resolutions of every coded plane over the job pool, one plane a job, in plane
// order (Y, the largest, first). Each plane's merge reads and writes only its own plans.
struct MergeJob {
  const PlaneInfo* Planes[4];
  uint64_t Error[4] = {};
  uint32_t Count = 0;
  std::atomic<uint32_t> Next{0};
};

void MergeWorker(void* context, uint32_t) {
  auto* job = static_cast<MergeJob*>(context);
  for (uint32_t k; (k = job->Next.fetch_add(1)) < job->Count;) {
    MergeResolutions(*job->Planes[k]);
    job->Error[k] = PlannedPlaneError(*job->Planes[k]);
  }
}

// The errors of the decoded picture against the source, one plane a job.
struct ErrorJob {
  const VelmoEncoder* Encoder;
  const VelmoFrameBufferSet* Now;
  VelmoEncodeResult* Result;
  uint32_t InW[4], InH[4];
  std::atomic<uint32_t> Next{0};
};

void ErrorWorker(void* context, uint32_t) {
  auto* job = static_cast<ErrorJob*>(context);
  const VelmoEncoder* e = job->Encoder;
  for (uint32_t i; (i = job->Next.fetch_add(1)) < 4;) {
    const bool present = e->Present[i];
    const uint8_t* decoded = job->Now->Planes[i];
    const uint8_t* source = e->Source[i].data();
    job->Result->Errors[i] = present ? PlaneError(decoded, source, e->Source[i].size()) : 0;
    job->Result->PictureErrors[i] =
        present ? PictureError(decoded, source, e->PlaneWidth[i], job->InW[i], job->InH[i]) : 0;
    job->Result->PictureSamples[i] = present ? uint64_t(job->InW[i]) * job->InH[i] : 0;
  }
}

constexpr const char* KindNames[Velmo1KindCount] = {"skip", "doubled", "mot", "run", "motz",
                                                    "dct", "one", "dctinter", "two", "bang"};
constexpr const char* BundleNames[Velmo1BundleCount] = {"types", "subtypes", "colours", "patterns", "xmotion",
                                                        "ymotion", "intradc", "interdc", "runs"};
constexpr const char* PlaneNames[4] = {"Y", "Cr", "Cb", "A"};

// Appends one line a plane for the frame: where its bytes went. Bundle bits are those of their
// refills in the stream; the rest of a plane's bits are the blocks' own (coefficients, scales,
// raw bits) and the plane's code tables. A kind's planned bits are the allocation's estimates
// (1/256 bit) of the blocks that took it.
void AppendStats(const char* path, uint32_t frame, bool key, uint32_t budget, const bool present[4],
                 const PlaneStats stats[4], const VelmoEncodeResult& result) {
  std::FILE* f = std::fopen(path, "a");
  if (!f) return;
  for (uint32_t i = 0; i < 4; ++i) {
    if (!present[i]) continue;
    const PlaneStats& s = stats[i];
    std::fprintf(f, "frame=%u key=%d budget=%u plane=%s bytes=%u sse=%llu samples=%llu", frame, key ? 1 : 0,
                 budget, PlaneNames[i], result.Sizes[i], static_cast<unsigned long long>(result.PictureErrors[i]),
                 static_cast<unsigned long long>(result.PictureSamples[i]));
    for (uint32_t b = 0; b < Velmo1BundleCount; ++b)
      std::fprintf(f, " bundle.%s=%llu/%u", BundleNames[b], static_cast<unsigned long long>(s.Bundles.Bits[b]),
                   s.Bundles.Elements[b]);
    for (uint32_t k = 0; k < Velmo1KindCount; ++k) {
      if (s.Count8[k])
        std::fprintf(f, " k8.%s=%u/%llu", KindNames[k], s.Count8[k], static_cast<unsigned long long>(s.Planned8[k] >> 8));
      if (s.Count16[k])
        std::fprintf(f, " k16.%s=%u/%llu", KindNames[k], s.Count16[k],
                     static_cast<unsigned long long>(s.Planned16[k] >> 8));
    }
    std::fputc('\n', f);
  }
  std::fclose(f);
}

}  // namespace

namespace {
// Tells a stage's label, then reads the run's "stop now" state (2): true to stop.
bool StopBefore(const VelmoEncodeInput& input, const char* label) {
  if (label && input.Stage) input.Stage(input.StageContext, label);
  return input.Cancel && *input.Cancel == 2;
}
const char* const AnalyseLabels[4] = {"Compressing Y plane", "Compressing Cr plane",
                                      "Compressing Cb plane", "Compressing alpha plane"};
const char* const Analyse16Labels[4] = {"Compressing Y high-plane", "Compressing Cr high-plane",
                                        nullptr, "Compressing alpha high-plane"};
const char* const EncodeLabels[4] = {"Encoding Y plane", "Encoding Cr plane", "Encoding Cb plane",
                                     "Encoding alpha plane"};
}  // namespace

bool VelmoEncodeFrame(VelmoEncoder* e, const VelmoEncodeInput& input, uint32_t budgetBytes,
                      VelmoEncodeResult* result) {
  if (!e || !result) return false;
  const VelmoEncoderConfig& cfg = e->Config;
  const uint32_t cw = (cfg.Width + 1) / 2, ch = (cfg.Height + 1) / 2;
  const uint32_t inW[4] = {cfg.Width, cw, cw, cfg.Width}, inH[4] = {cfg.Height, ch, ch, cfg.Height};
  for (int i = 0; i < 4; ++i)
    if (e->Present[i] && (!input.Planes[i] || input.Pitches[i] < int32_t(inW[i]))) return false;
  const bool key = input.Key || !e->HaveReference;
  const bool vlmk = e->Tag == TagVLMk;
  VelmoFrameBufferSet& previous = VelmoCurrentSet(e->Ring);

  PlaneInfo planes[4];
  bool constantAlpha = false;
  Velmo1Kernels kernels;
  Velmo1KernelsInit(&kernels, ProcessorFeatures());
  Velmo1EncodeKernels encodeKernels;
  Velmo1EncodeKernelsInit(&encodeKernels, ProcessorFeatures());
  for (uint32_t i = 0; i < 4; ++i) {
    if (!e->Present[i]) continue;
    VelmoPadPlane(input.Planes[i], input.Pitches[i], inW[i], inH[i], e->Source[i].data(),
                  e->PlaneWidth[i], e->PlaneWidth[i], e->PlaneHeight[i]);
    planes[i] = {i, e->PlaneWidth[i], e->PlaneHeight[i], e->Source[i].data(), previous.Planes[i],
                 int32_t(e->PlaneWidth[i]), &e->Models[i], e->Plans[i].data(), key,
                 e->Plans16[i].data(), e->Layout[i].data(), (cfg.Flags & VelmoEncodeNoRunOrResidue) == 0};
    planes[i].Idct = kernels.Idct;
    planes[i].SadRow = encodeKernels.SadRow;
    planes[i].CoefficientBits = encodeKernels.CoefficientBits;
    planes[i].QuantiseNearest = encodeKernels.Quantise;
    planes[i].QuantiseDeadZone = encodeKernels.QuantiseDeadZone;
  }
  auto pixelCost = std::make_unique<PixelCostJob>();
  std::memset(pixelCost->Histogram, 0, sizeof pixelCost->Histogram);
  std::memset(pixelCost->Samples, 0, sizeof pixelCost->Samples);
  for (uint32_t i = 0; i < 4; ++i)
    if (e->Present[i]) pixelCost->Planes[pixelCost->Count++] = &planes[i];
  PoolRun(PixelCostWorker, pixelCost.get());
  for (uint32_t k = 0; k < pixelCost->Count; ++k) {
    const uint32_t i = pixelCost->Planes[k]->Index;
    FinishPixelCost(e->Models[i], *pixelCost, k);
    UpdateCostModel(e->Models[i]);
  }
  if (e->Present[VelmoPlaneAlpha] && cfg.Version > 100) {
    const std::vector<uint8_t>& a = e->Source[VelmoPlaneAlpha];
    constantAlpha = std::all_of(a.begin(), a.end(), [&](uint8_t v) { return v == a[0]; });
  }

  // Candidates of every block, then one allocation over all planes.
  std::vector<BlockPlan*> all;
  AnalysisJob analysis;
  analysis.Input = &input;
  analysis.Caller = std::this_thread::get_id();
  for (uint32_t i = 0; i < 4; ++i) {
    if (!e->Present[i] || (i == VelmoPlaneAlpha && constantAlpha)) continue;
    analysis.Add(&planes[i], false, uint32_t(e->Plans[i].size()), AnalyseLabels[i]);
    for (BlockPlan& b : e->Plans[i]) all.push_back(&b);
  }
  for (uint32_t i = 0; i < 4; ++i) {
    if (!e->Present[i] || (i == VelmoPlaneAlpha && constantAlpha)) continue;
    analysis.Add(&planes[i], true, uint32_t(e->Plans16[i].size()), Analyse16Labels[i]);
  }
  if (!TellPassesTo(analysis, 0)) return false;  // stopped before any work
  PoolRun(AnalysisWorker, &analysis);
  if (analysis.Stopped.load()) return false;
  if (StopBefore(input, "Allocating bandwidth")) return false;
  AllocateBits(all.data(), all.size(), budgetBytes);
  result->PlannedError = 0;
  std::fill(std::begin(result->Kinds), std::end(result->Kinds), 0u);
  std::fill(std::begin(result->DoubledKinds), std::end(result->DoubledKinds), 0u);
  if (StopBefore(input, "Merging multi-resolution planes")) return false;
  MergeJob merge;
  for (uint32_t i = 0; i < 4; ++i)
    if (e->Present[i] && !(i == VelmoPlaneAlpha && constantAlpha)) merge.Planes[merge.Count++] = &planes[i];
  PoolRun(MergeWorker, &merge);
  for (uint32_t k = 0; k < merge.Count; ++k) result->PlannedError += merge.Error[k];

  std::vector<uint8_t> streams[4];
  for (uint32_t i = 0; i < 4; ++i) {
    if (!e->Present[i]) continue;
    if (StopBefore(input, EncodeLabels[i])) return false;
    if (i == VelmoPlaneAlpha && constantAlpha) streams[i] = Velmo1EncConstantAlphaPlane(e->Source[i][0]);
    else streams[i] = WritePlane(planes[i], vlmk, e->Models[i], result, e->Stats[i]);
    result->Sizes[i] = uint32_t(streams[i].size());
  }
  for (uint32_t i = 0; i < 4; ++i)
    if (!e->Present[i]) result->Sizes[i] = 0;
  result->Section = Velmo1EncBuildSection(e->Present[VelmoPlaneAlpha], false, streams[VelmoPlaneAlpha],
                                          streams[VelmoPlaneY], streams[VelmoPlaneCr], streams[VelmoPlaneCb]);

  // The reference for the next frame is the decoder's own picture of this one.
  std::vector<uint8_t> padded(result->Section);
  padded.resize(padded.size() + 4, 0);
  Velmo1DecodeFrame(&e->Ring, padded.data(), padded.data() + padded.size(), nullptr,
                    VelmoEncoderDecodeFlags(e), (cfg.Flags & VelmoEncodeAlpha) ? Velmo1FileHasAlpha : 0, e->Tag);
  e->Ring.Current ^= 1;
  e->HaveReference = true;
  ErrorJob errors;
  errors.Encoder = e;
  errors.Now = &VelmoCurrentSet(e->Ring);
  errors.Result = result;
  for (uint32_t i = 0; i < 4; ++i) errors.InW[i] = inW[i], errors.InH[i] = inH[i];
  PoolRun(ErrorWorker, &errors);
  if (const char* path = std::getenv("ORN_VELMO1_STATS"); path && *path)
    AppendStats(path, e->FramesCoded, key, budgetBytes, e->Present, e->Stats, *result);
  e->FramesCoded++;
  return true;
}
