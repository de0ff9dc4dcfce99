// Wide-range pixel conversion: the ST 2084 table, the tone-map table, the HDR block, the plane
// conversion and the closing remark on the peak found.
#include "compress/hdr_planes.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <vector>

#include "format/container.h"
#include "host/platform.h"

namespace {

// ---- ST 2084 ---------------------------------------------------------------------------------

constexpr double PqM1 = 2610.0 / 16384, PqM2 = 2523.0 / 4096 * 128;
constexpr double PqC1 = 3424.0 / 4096, PqC2 = 2413.0 / 4096 * 32, PqC3 = 2392.0 / 4096 * 32;

double PqCurve(double linear) {
  const double y = std::pow(linear, PqM1);
  return std::pow((PqC1 + PqC2 * y) / (1 + PqC3 * y), PqM2);
}

// The curve sampled at 32 points an octave of the float's exponent: entry i holds it at the
// float whose bits are (i + 2976) << 18, so the top bits of a float pick the entry and its low
// 18 bits interpolate towards the next. Entry 0 stands for 2^-34 and reads 0; entry 1088 is
// 1.0, and the one behind it repeats it for the interpolation at 1.0 itself.
constexpr uint32_t PqFirstBits = 2976, PqEntries = 1090;

struct PqTable {
  float Entry[PqEntries];
  PqTable() {
    Entry[0] = 0.0f;
    for (uint32_t i = 1; i < 1088; ++i) {
      const uint32_t bits = (i + PqFirstBits) << 18;
      float v;
      std::memcpy(&v, &bits, 4);
      Entry[i] = float(PqCurve(v));
    }
    Entry[1088] = Entry[1089] = 1.0f;
  }
};

const PqTable& Pq() {
  static const PqTable table;  // built once, on first use
  return table;
}

// ---- Tone-map table ----------------------------------------------------------------------------

// The rows known at 80, 1000 and 10000 nits. Between and beyond them each figure follows
//   f(u) = a + b e^(-k (u - ln 80)),  u = ln(nits),
// through the three: the figures change most over the low peaks and level off towards 10000,
// which this curve follows smoothly and monotonically (a quadratic through the same three
// points turns back before 10000 for the chroma scales).
struct KnownRow {
  double Nits;
  double Figures[4];
};
constexpr KnownRow Known[3] = {{80, {1.488177, 1.724351, 0.570104, 0.366857}},
                               {1000, {1.253794, 1.390863, 0.576103, 0.383459}},
                               {10000, {1.220332, 1.317389, 0.579106, 0.395149}}};

struct LevelCurve {
  double A, B, K;
  double At(double nits) const { return A + B * std::exp(-K * (std::log(nits) - std::log(80.0))); }
};

// The curve through the known rows' figure `figure`. The second step over the first,
// r = (f2 - f1) / (f1 - f0), fixes k: it falls from d2 / d1 towards 0 as k grows (d1, d2 the
// steps in u), and is found by bisection; the known rows have r between 0.1 and 0.8.
LevelCurve FitFigure(int figure) {
  const double d1 = std::log(Known[1].Nits / Known[0].Nits);
  const double d2 = std::log(Known[2].Nits / Known[1].Nits);
  const double f0 = Known[0].Figures[figure], f1 = Known[1].Figures[figure];
  const double r = (Known[2].Figures[figure] - f1) / (f1 - f0);
  auto ratio = [&](double k) {
    return (std::exp(-k * d1) - std::exp(-k * (d1 + d2))) / (1 - std::exp(-k * d1));
  };
  double low = 1e-9, high = 50;
  for (int i = 0; i < 200; ++i) {
    const double mid = (low + high) / 2;
    (ratio(mid) > r ? low : high) = mid;
  }
  const double k = (low + high) / 2;
  const double b = (f1 - f0) / (std::exp(-k * d1) - 1);
  return {f0 - b, b, k};
}

struct ToneTable {
  VelmoToneRow Rows[VelmoToneRows];
  ToneTable() {
    LevelCurve curves[4];
    for (int f = 0; f < 4; ++f) curves[f] = FitFigure(f);
    for (uint32_t r = 0; r < VelmoToneRows; ++r) {
      // Row r + 1 stands for r x 10 nits; peaks are never below 80, so the rows below it repeat
      // the row of 80.
      const double nits = std::max(double(r) * 10, 80.0);
      Rows[r] = {float(curves[0].At(nits)), float(curves[1].At(nits)), float(curves[2].At(nits)),
                 float(curves[3].At(nits))};
    }
  }
};

int16_t Stored(double v) { return int16_t(std::min(std::trunc(v), 32767.0)); }

// ---- Conversion --------------------------------------------------------------------------------

inline uint8_t ToByte(float v) { return v <= 0.0f ? 0 : v >= 255.0f ? 255 : uint8_t(v); }
inline float NotBelowZero(float v) { return v > 0.0f ? v : 0.0f; }  // NaN reads 0 too

// L', M', S' of one pixel: BT.2100's RGB-to-LMS rows at 80 / 10000 scale, then the curve.
void PixelLms(const float* f, float out[3]) {
  const float r = NotBelowZero(f[0]), g = NotBelowZero(f[1]), b = NotBelowZero(f[2]);
  out[0] = VelmoPqFromLinear(0.003296875f * r + 0.004191406f * g + 0.00051171874f * b);
  out[1] = VelmoPqFromLinear(0.0013339844f * r + 0.005763672f * g + 0.0009023438f * b);
  out[2] = VelmoPqFromLinear(0.00019335937f * r + 0.0006035156f * g + 0.007203125f * b);
}

struct HdrJob {
  const uint8_t* Base;
  int32_t Pitch;
  uint32_t Width, Height;
  const VelmoHdrSetup* Setup;
  VelmoHdrTargets Out;
  volatile uint32_t NextPair;
};

// One display row: Y, HDR and alpha, and the row's L', M', S' for the chroma sums.
void ConvertRow(const HdrJob& job, uint32_t y, float* lms) {
  const float* src = reinterpret_cast<const float*>(job.Base + int64_t(job.Pitch) * y);
  uint8_t* ly = job.Out.Y + size_t(y) * job.Out.LumaPitch;
  uint8_t* lh = job.Out.Hdr + size_t(y) * job.Out.LumaPitch;
  uint8_t* la = job.Out.Alpha ? job.Out.Alpha + size_t(y) * job.Out.LumaPitch : nullptr;
  for (uint32_t x = 0; x < job.Width; ++x) {
    float f[4];
    std::memcpy(f, src + size_t(x) * 4, sizeof f);
    float* p = lms + size_t(x) * 3;
    PixelLms(f, p);
    const float i = (p[0] + p[1]) * job.Setup->InversePeak;
    ly[x] = ToByte(i * 255.0f + 0.5f);
    lh[x] = ToByte((i - 1.0f) * 255.0f + 0.5f);
    if (la) la[x] = ToByte(f[3] * 255.0f + 0.5f);
  }
}

// Two display rows and the chroma row between them.
void ConvertLinePair(const HdrJob& job, uint32_t pair, float* top, float* bottom) {
  const uint32_t y0 = pair * 2;
  ConvertRow(job, y0, top);
  const bool second = y0 + 1 < job.Height;
  if (second) ConvertRow(job, y0 + 1, bottom);
  const float* rows[2] = {top, second ? bottom : top};
  const VelmoToneRow& t = job.Setup->Row;
  uint8_t* ct = job.Out.Ct + size_t(pair) * job.Out.ChromaPitch;
  uint8_t* cp = job.Out.Cp + size_t(pair) * job.Out.ChromaPitch;
  for (uint32_t cx = 0; cx < (job.Width + 1) / 2; ++cx) {
    const uint32_t x0 = cx * 2, x1 = std::min(x0 + 1, job.Width - 1);
    float s[3] = {0, 0, 0};
    for (const float* row : rows)
      for (uint32_t x : {x0, x1})
        for (int c = 0; c < 3; ++c) s[c] += row[size_t(x) * 3 + c];
    const float vt = (1.6137695f * s[0] - 3.3234863f * s[1] + 1.7097168f * s[2]) * t.T1 / 4 + t.C1;
    const float vp = (4.378174f * s[0] - 4.2456055f * s[1] - 0.13256836f * s[2]) * t.T2 / 4 + t.C2;
    ct[cx] = ToByte(vt * 255.0f + 0.5f);
    cp[cx] = ToByte(vp * 255.0f + 0.5f);
  }
}

void HdrWorker(void* context, uint32_t) {
  HdrJob& job = *static_cast<HdrJob*>(context);
  const uint32_t pairs = (job.Height + 1) / 2;
  std::vector<float> top(size_t(job.Width) * 3), bottom(size_t(job.Width) * 3);
  for (;;) {
    const uint32_t pair = AtomicAdd(&job.NextPair, 1);
    if (pair >= pairs) return;
    ConvertLinePair(job, pair, top.data(), bottom.data());
  }
}

const char TextNoHdrData[] =
    "@Velmo never found any HDR data in the input frames.\n\nThis probably isn't an HDR input file.";

}  // namespace

VelmoToneRow VelmoToneMapRow(uint32_t row) {
  static const ToneTable table;  // built once, on first use
  return table.Rows[std::clamp<uint32_t>(row, 1, VelmoToneRows) - 1];
}

VelmoHdrSetup VelmoHdrSetupFor(uint32_t nits) {
  VelmoHdrSetup s{};
  s.Nits = std::clamp<uint32_t>(nits, VelmoMinNits, VelmoMaxNits);
  const double y = std::pow(s.Nits * 0.0001, 0.15930176);
  const double p = std::pow((18.851563 * y + 0.8359375) / (18.6875 * y + 1), 78.84375);
  s.InversePeak = float(1.0 / p);
  s.Row = VelmoToneMapRow(s.Nits / 10 + 1);
  const double t1 = s.Row.T1, t2 = s.Row.T2, c1 = s.Row.C1, c2 = s.Row.C2;
  s.Block[0] = Stored(p * 16383.5 + 0.5);
  s.Block[1] = Stored(32767 / t1 + 0.5);
  s.Block[2] = Stored(32767 / t2 + 0.5);
  s.Block[3] = int16_t(-Stored(c1 / t1 * 32767 + 0.5));
  s.Block[4] = int16_t(-Stored(c2 / t2 * 32767 + 0.5));
  s.Block[5] = int16_t(s.Nits);
  return s;
}

float VelmoPqFromLinear(float linear) {
  // 2^-34 is where the table starts; the comparisons also send NaN to the bottom.
  const float held = linear >= 1.0f ? 1.0f : linear >= 0x1p-34f ? linear : 0x1p-34f;
  uint32_t bits;
  std::memcpy(&bits, &held, 4);
  const uint32_t index = (bits >> 18) - PqFirstBits;
  const float fraction = float(bits & 0x3ffff) * 3.8146973e-6f;
  const float* e = Pq().Entry + index;
  return e[0] + (e[1] - e[0]) * fraction;
}

void VelmoConvertHdrPixels(const void* pixels, int32_t pitch, uint32_t width, uint32_t height,
                           const VelmoHdrSetup& setup, const VelmoHdrTargets& out) {
  if (!pixels || !width || !height || !out.Y || !out.Hdr || !out.Ct || !out.Cp) return;
  Pq();  // the table is built before the workers start
  HdrJob job{static_cast<const uint8_t*>(pixels), pitch, width, height, &setup, out, 0};
  PoolRun(HdrWorker, &job);
}

uint8_t VelmoHdrPlaneMax(const uint8_t* plane, uint32_t pitch, uint32_t width, uint32_t height,
                         uint8_t seen) {
  for (uint32_t y = 0; width && y < height && seen < 255; ++y) {
    const uint8_t* row = plane + size_t(y) * pitch;
    seen = std::max(seen, *std::max_element(row, row + width));
  }
  return seen;
}

bool VelmoHdrPeakRemark(uint32_t maxCode, uint32_t inputNits, char* text, size_t size) {
  if (maxCode > 240) return false;
  uint32_t nits = 0;
  if (maxCode) {
    // The inverse of the curve, from the plane's code to linear light, at the run's peak.
    const double x = std::pow((maxCode + 255) / 511.0, 1 / 78.84375);
    const double linear =
        std::pow(std::max(x - 0.8359375, 0.0) / (18.851563 - 18.6875 * x), 1 / 0.15930176);
    nits = uint32_t(linear * inputNits + 0.5);
    nits = nits >= 1000 ? (nits + 50) / 100 * 100 : (nits + 5) / 10 * 10;
  }
  if (nits <= 90) {
    std::snprintf(text, size, "%s", TextNoHdrData);
    return true;
  }
  // Unsigned on purpose: a peak found below the one given always earns the remark.
  if (nits - inputNits <= 160) return false;
  std::snprintf(text, size,
                "@The input file had a max nits of %d and you passed in %d.\n\nYou should reset "
                "the max nits to the lower value and recompress!",
                int(nits), int(inputNits));
  return true;
}
