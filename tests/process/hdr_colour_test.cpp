// The wide-range planes back to linear light: the inverse undoes the compressor's conversion
// (written from its formulas in support/hdr_forward.h) to rounding, and the plane walk takes
// each pixel's intensity, its 2 x 2 block's chroma, the HDR continuation and alpha.
#include "process/hdr_colour.h"

#include <gtest/gtest.h>

#include <cmath>
#include <vector>

#include "support/hdr_forward.h"

namespace {

using namespace test_support;

// The HDR block's coefficients as a reader holds them.
void Coefficients(uint32_t nits, const ToneRow& row, float out[5]) {
  int16_t block[6];
  MakeHdrBlock(nits, row, block);
  for (int k = 0; k < 5; ++k) out[k] = block[k] / 32767.0f;
}

TEST(HdrColour, InverseUndoesTheForwardConversionBeforeRounding) {
  const double colours[][3] = {{1, 1, 1}, {0.01, 0.02, 0.005}, {6, 0.5, 0.2}, {0.1, 3, 9},
                               {100, 120, 80}, {0.4, 0.4, 0.0}};
  for (const uint32_t nits : {80u, 1000u, 10000u}) {
    const double p = PeakCurveValue(nits);
    for (const auto& rgb : colours) {
      const HdrPlaneValues v = ForwardHdr(rgb, nits, Tone1000);
      const double i = v.Y / 255 * p / 2;
      const double ct = (v.Ct / 255 - Tone1000.C1) / Tone1000.T1;
      const double cp = (v.Cp / 255 - Tone1000.C2) / Tone1000.T2;
      double back[3];
      HdrIctcpToRgb(i, ct, cp, back);
      for (int c = 0; c < 3; ++c) EXPECT_NEAR(back[c], rgb[c], 1e-6 * (1 + rgb[c])) << nits << " " << c;
    }
  }
}

TEST(HdrColour, CurveEndsAndMiddle) {
  EXPECT_EQ(HdrPqToLinear(0.0), 0.0);
  EXPECT_NEAR(HdrPqToLinear(1.0), 1.0, 1e-12);
  EXPECT_NEAR(HdrPqToLinear(LinearToPq(0.008)), 0.008, 1e-12);
  EXPECT_EQ(HdrPqToLinear(-0.5), 0.0);
}

// A 5 x 3 picture (odd both ways) against 1 x 1 pictures of each pixel's own values: intensity
// and HDR by pixel, chroma by 2 x 2 block, alpha by pixel, and the pitches of both plane kinds.
TEST(HdrColour, PlaneWalkTakesEachPixelsOwnValues) {
  float k[5];
  Coefficients(1000, Tone1000, k);
  const uint32_t w = 5, h = 3;
  const ptrdiff_t lumaPitch = 8, chromaPitch = 4, outPitch = 4 * 7;
  std::vector<uint8_t> y(lumaPitch * h), hdr(lumaPitch * h), alpha(lumaPitch * h);
  std::vector<uint8_t> ct(chromaPitch * 2), cp(chromaPitch * 2);
  for (size_t n = 0; n < y.size(); ++n) {
    y[n] = uint8_t(100 + 10 * n);
    hdr[n] = uint8_t(n % 3 == 0 ? 0 : 5 * n);
    alpha[n] = uint8_t(255 - 7 * n);
  }
  for (size_t n = 0; n < ct.size(); ++n) {
    ct[n] = uint8_t(120 + 9 * n);
    cp[n] = uint8_t(130 - 11 * n);
  }
  HdrPlanes planes{y.data(), hdr.data(), ct.data(), cp.data(), alpha.data(), lumaPitch, chromaPitch, w, h};
  std::vector<float> out(size_t(outPitch) * h, -1.0f);
  HdrPlanesToLinearRgba(planes, k, out.data(), outPitch);
  for (uint32_t py = 0; py < h; ++py)
    for (uint32_t px = 0; px < w; ++px) {
      const size_t l = py * lumaPitch + px, c = (py / 2) * chromaPitch + px / 2;
      HdrPlanes one{&y[l], &hdr[l], &ct[c], &cp[c], &alpha[l], 1, 1, 1, 1};
      float expect[4];
      HdrPlanesToLinearRgba(one, k, expect, 4);
      for (int ch = 0; ch < 4; ++ch)
        EXPECT_EQ(out[py * outPitch + 4 * px + ch], expect[ch]) << px << "," << py << " " << ch;
      EXPECT_FLOAT_EQ(expect[3], alpha[l] / 255.0f);
    }
  // Nothing is written beyond the picture's width on a line.
  for (uint32_t py = 0; py < h; ++py)
    for (ptrdiff_t x = 4 * w; x < outPitch; ++x) EXPECT_EQ(out[py * outPitch + x], -1.0f);
}

// The HDR plane continues the intensity of the Y plane: Y 255 with HDR 40 is intensity 295,
// and a missing HDR plane or alpha plane reads as 0 and full alpha.
TEST(HdrColour, HdrPlaneContinuesIntensity) {
  float k[5];
  Coefficients(1000, Tone1000, k);
  uint8_t y = 255, high = 40, grey_ct = 147, grey_cp = 98, none = 0;
  float split[4], plain[4], without[4];
  HdrPlanesToLinearRgba({&y, &high, &grey_ct, &grey_cp, nullptr, 1, 1, 1, 1}, k, split, 4);
  HdrPlanesToLinearRgba({&y, &none, &grey_ct, &grey_cp, nullptr, 1, 1, 1, 1}, k, plain, 4);
  HdrPlanesToLinearRgba({&y, nullptr, &grey_ct, &grey_cp, nullptr, 1, 1, 1, 1}, k, without, 4);
  double rgb[3];
  HdrIctcpToRgb(295 / 255.0 * k[0], grey_ct / 255.0 * k[1] + k[3], grey_cp / 255.0 * k[2] + k[4], rgb);
  for (int c = 0; c < 3; ++c) {
    EXPECT_FLOAT_EQ(split[c], float(rgb[c]));
    EXPECT_GT(split[c], plain[c]);
    EXPECT_EQ(without[c], plain[c]);
  }
  EXPECT_EQ(split[3], 1.0f);
}

}  // namespace
