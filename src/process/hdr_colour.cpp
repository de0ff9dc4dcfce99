// Inverse of the compressor's wide-range conversion: planes -> I, Ct, Cp -> L', M', S' (the
// inverse of the BT.2100 I-Ct-Cp rows) -> linear L, M, S through the ST 2084 curve -> RGB (the
// inverse of the BT.2100 RGB-to-LMS rows, taken at the compressor's 80 / 10000 scale).
#include "process/hdr_colour.h"

#include <algorithm>
#include <cmath>

namespace {

using Matrix3 = double[3][3];

// The rows the compressor converts with.
constexpr Matrix3 RgbToLms = {
    {0.003296875, 0.004191406, 0.00051171874},
    {0.0013339844, 0.005763672, 0.0009023438},
    {0.00019335937, 0.0006035156, 0.007203125},
};
// Intensity as the mean of L' and M', then the Ct and Cp rows.
constexpr Matrix3 LmsToIctcp = {
    {0.5, 0.5, 0.0},
    {1.6137695, -3.3234863, 1.7097168},
    {4.378174, -4.2456055, -0.13256836},
};

struct Inverse3 {
  double m[3][3];
  explicit Inverse3(const Matrix3& a) {
    const double c00 = a[1][1] * a[2][2] - a[1][2] * a[2][1];
    const double c01 = a[1][2] * a[2][0] - a[1][0] * a[2][2];
    const double c02 = a[1][0] * a[2][1] - a[1][1] * a[2][0];
    const double det = a[0][0] * c00 + a[0][1] * c01 + a[0][2] * c02;
    m[0][0] = c00 / det;
    m[1][0] = c01 / det;
    m[2][0] = c02 / det;
    m[0][1] = (a[0][2] * a[2][1] - a[0][1] * a[2][2]) / det;
    m[1][1] = (a[0][0] * a[2][2] - a[0][2] * a[2][0]) / det;
    m[2][1] = (a[0][1] * a[2][0] - a[0][0] * a[2][1]) / det;
    m[0][2] = (a[0][1] * a[1][2] - a[0][2] * a[1][1]) / det;
    m[1][2] = (a[0][2] * a[1][0] - a[0][0] * a[1][2]) / det;
    m[2][2] = (a[0][0] * a[1][1] - a[0][1] * a[1][0]) / det;
  }
  void Apply(const double in[3], double out[3]) const {
    for (int r = 0; r < 3; ++r) out[r] = m[r][0] * in[0] + m[r][1] * in[1] + m[r][2] * in[2];
  }
};

const Inverse3& LmsToRgb() {
  static const Inverse3 inverse(RgbToLms);
  return inverse;
}
const Inverse3& IctcpToLms() {
  static const Inverse3 inverse(LmsToIctcp);
  return inverse;
}

// ST 2084 constants.
constexpr double PqM1 = 0.1593017578125, PqM2 = 78.84375;
constexpr double PqC1 = 0.8359375, PqC2 = 18.8515625, PqC3 = 18.6875;

}  // namespace

double HdrPqToLinear(double code) {
  if (!(code > 0.0)) return 0.0;
  const double p = std::pow(std::min(code, 1.0), 1.0 / PqM2);
  return std::pow(std::max(p - PqC1, 0.0) / (PqC2 - PqC3 * p), 1.0 / PqM1);
}

void HdrIctcpToRgb(double i, double ct, double cp, double rgb[3]) {
  const double ictcp[3] = {i, ct, cp};
  double code[3], lms[3];
  IctcpToLms().Apply(ictcp, code);
  for (int k = 0; k < 3; ++k) lms[k] = HdrPqToLinear(code[k]);
  LmsToRgb().Apply(lms, rgb);
}

void HdrConversionRows(double ictcpToLms[3][3], double lmsToRgb[3][3]) {
  for (int r = 0; r < 3; ++r)
    for (int k = 0; k < 3; ++k) {
      ictcpToLms[r][k] = IctcpToLms().m[r][k];
      lmsToRgb[r][k] = LmsToRgb().m[r][k];
    }
}

void HdrPlanesToLinearRgba(const HdrPlanes& planes, const float coefficients[HdrCoefficientCount],
                           float* out, ptrdiff_t outPitch) {
  const double scale = 1.0 / 255.0;
  for (uint32_t y = 0; y < planes.Height; ++y) {
    const uint8_t* luma = planes.Y + ptrdiff_t(y) * planes.LumaPitch;
    const uint8_t* high = planes.Hdr ? planes.Hdr + ptrdiff_t(y) * planes.LumaPitch : nullptr;
    const uint8_t* alpha = planes.Alpha ? planes.Alpha + ptrdiff_t(y) * planes.LumaPitch : nullptr;
    const uint8_t* ct = planes.Ct + ptrdiff_t(y / 2) * planes.ChromaPitch;
    const uint8_t* cp = planes.Cp + ptrdiff_t(y / 2) * planes.ChromaPitch;
    float* row = out + ptrdiff_t(y) * outPitch;
    for (uint32_t x = 0; x < planes.Width; ++x) {
      const double level = double(luma[x]) + (high ? double(high[x]) : 0.0);
      const double i = level * scale * coefficients[0];
      const double t = ct[x / 2] * scale * coefficients[1] + coefficients[3];
      const double p = cp[x / 2] * scale * coefficients[2] + coefficients[4];
      double rgb[3];
      HdrIctcpToRgb(i, t, p, rgb);
      float* px = row + 4 * ptrdiff_t(x);
      for (int k = 0; k < 3; ++k) px[k] = float(std::max(rgb[k], 0.0));
      px[3] = alpha ? float(alpha[x] * scale) : 1.0f;
    }
  }
}
