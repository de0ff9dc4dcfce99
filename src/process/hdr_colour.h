// Wide-range pictures stored as I-Ct-Cp planes, turned back into linear light: the intensity in
// the Y plane with its continuation above full scale in the HDR plane, the two chroma planes
// at half size, and the five figures of the file's HDR block that say how the planes were
// scaled. The result is linear BT.2020 RGB with 1.0 meaning 80 nits, as the compressor takes
// its wide-range input.
#pragma once
#include <cstddef>
#include <cstdint>

// The planes of one picture. Y, HDR and alpha have `width` x `height` samples, one line every
// `lumaPitch` bytes; Ct and Cp have (width + 1) / 2 x (height + 1) / 2, one line every
// `chromaPitch`. Alpha may be null (then alpha is 1.0); HDR may be null (then it reads 0).
struct HdrPlanes {
  const uint8_t* Y;
  const uint8_t* Hdr;
  const uint8_t* Ct;
  const uint8_t* Cp;
  const uint8_t* Alpha;
  ptrdiff_t LumaPitch, ChromaPitch;
  uint32_t Width, Height;
};

// The HDR block's five coefficients as a reader holds them (stored value / 32767):
//   [0] P / 2, P being the curve value of the file's peak: intensity = (Y + HDR) / 255 * [0]
//   [1] 1 / T1 and [3] -C1 / T1: Ct = Ct plane / 255 * [1] + [3]
//   [2] 1 / T2 and [4] -C2 / T2: Cp = Cp plane / 255 * [2] + [4]
enum : uint32_t { HdrCoefficientCount = 5 };

// Writes four floats R, G, B, A a pixel, `outPitch` floats from one line to the next. Each
// pixel takes the chroma of the 2 x 2 block it lies in. Colours below 0 come out as 0.
void HdrPlanesToLinearRgba(const HdrPlanes& planes, const float coefficients[HdrCoefficientCount],
                           float* out, ptrdiff_t outPitch);

// The steps of the conversion, for tests and for callers that work on single pixels.
// The ST 2084 curve from its code value (0..1) to linear light (1.0 = 10000 nits).
double HdrPqToLinear(double code);
// One pixel from intensity (BT.2100 I, 0..1) and the two chroma values to linear RGB, 1.0 = 80
// nits, not held at 0.
void HdrIctcpToRgb(double i, double ct, double cp, double rgb[3]);
// The two matrices of that conversion, for programs that run it elsewhere (in a shader): I, Ct,
// Cp to L'M'S' code values, and linear L, M, S to RGB (1.0 = 80 nits); rows first.
void HdrConversionRows(double ictcpToLms[3][3], double lmsToRgb[3][3]);
