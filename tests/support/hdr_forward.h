// The compressor's wide-range conversion, written out for tests from its formulas: linear
// BT.2020 RGB (1.0 = 80 nits) -> L, M, S at 80 / 10000 scale -> the ST 2084 curve -> I
// (over the peak's curve value, continued above 1 in the HDR plane) and the Ct, Cp rows scaled
// and centred by a tone-map row -> 8-bit plane values. Also the HDR block a file carries for a
// peak and a tone-map row. Flat colours only: the chroma sums of a 2 x 2 block are four times
// the pixel's value.
#pragma once
#include <algorithm>
#include <cmath>
#include <cstdint>

namespace test_support {

struct ToneRow {
  double T1, T2, C1, C2;
};
// The rows for 80, 1000 and 10000 nits.
inline constexpr ToneRow Tone80 = {1.488177, 1.724351, 0.570104, 0.366857};
inline constexpr ToneRow Tone1000 = {1.253794, 1.390863, 0.576103, 0.383459};
inline constexpr ToneRow Tone10000 = {1.220332, 1.317389, 0.579106, 0.395149};

// The ST 2084 curve value of a peak of `nits`.
inline double PeakCurveValue(uint32_t nits) {
  const double y = std::pow(nits * 0.0001, 0.15930176);
  return std::pow((18.851563 * y + 0.8359375) / (18.6875 * y + 1), 78.84375);
}

// The six values of the HDR block, each truncated and clipped to 32767.
inline void MakeHdrBlock(uint32_t nits, const ToneRow& row, int16_t out[6]) {
  auto clip = [](double v) { return int16_t(std::min(std::trunc(v), 32767.0)); };
  out[0] = clip(PeakCurveValue(nits) * 16383.5 + 0.5);
  out[1] = clip(32767 / row.T1 + 0.5);
  out[2] = clip(32767 / row.T2 + 0.5);
  out[3] = int16_t(-clip(row.C1 / row.T1 * 32767 + 0.5));
  out[4] = int16_t(-clip(row.C2 / row.T2 * 32767 + 0.5));
  out[5] = int16_t(nits);
}

// Linear light (1.0 = 10000 nits) to its ST 2084 code value.
inline double LinearToPq(double v) {
  const double y = std::pow(v, 0.1593017578125);
  return std::pow((0.8359375 + 18.8515625 * y) / (1 + 18.6875 * y), 78.84375);
}

// Plane values of one flat colour before the planes' own rounding.
struct HdrPlaneValues {
  double Y, Hdr, Ct, Cp;  // 0..255 scale, not yet rounded or clipped
};

inline HdrPlaneValues ForwardHdr(const double rgb[3], uint32_t nits, const ToneRow& row) {
  const double r = std::max(rgb[0], 0.0), g = std::max(rgb[1], 0.0), b = std::max(rgb[2], 0.0);
  double lms[3] = {0.003296875 * r + 0.004191406 * g + 0.00051171874 * b,
                   0.0013339844 * r + 0.005763672 * g + 0.0009023438 * b,
                   0.00019335937 * r + 0.0006035156 * g + 0.007203125 * b};
  for (double& v : lms) v = LinearToPq(std::clamp(v, 5.820766e-11, 1.0));
  const double i = (lms[0] + lms[1]) / PeakCurveValue(nits);
  const double ct = 1.6137695 * lms[0] - 3.3234863 * lms[1] + 1.7097168 * lms[2];
  const double cp = 4.378174 * lms[0] - 4.2456055 * lms[1] - 0.13256836 * lms[2];
  return {i * 255, (i - 1) * 255, (ct * row.T1 + row.C1) * 255, (cp * row.T2 + row.C2) * 255};
}

}  // namespace test_support
