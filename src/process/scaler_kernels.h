// The inner loops of the scaler, in a plain C++ form and SSE2 and AVX2 forms that give the same
// bits: every sum is taken in the same order, in doubles, with no fused multiply-add.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/cpu_features.h"
#include "process/scaler.h"

// For each of `rows` rows (`pitch` bytes apart), the weighted sum of `count` consecutive pixels
// from `pixels` with slots[k].Weight, four channels apart, into strip + 4 × row. Integer pixels
// are ARGB words, summed in memory order B, G, R, A; float pixels are R, G, B, A.
using ScalerHorizontalIntKernel = void(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                                       const ScalerSlot* slots, uint32_t count, double* strip);
using ScalerHorizontalFloatKernel = void(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                                         const ScalerSlot* slots, uint32_t count, float* strip);
// For each output row of `axis`, the weighted sum of strip entries, written to the pixel at
// column + row × pitch: rounded and clamped ARGB, or four floats.
using ScalerVerticalIntKernel = void(const double* strip, const ScalerAxis* axis, uint32_t rows,
                                     uint8_t* column, ptrdiff_t pitch);
using ScalerVerticalFloatKernel = void(const float* strip, const ScalerAxis* axis, uint32_t rows,
                                       uint8_t* column, ptrdiff_t pitch);

struct ScalerKernels {
  ScalerHorizontalIntKernel* HorizontalInt;
  ScalerHorizontalFloatKernel* HorizontalFloat;
  ScalerVerticalIntKernel* VerticalInt;
  ScalerVerticalFloatKernel* VerticalFloat;
};

// Fills `kernels` with the best forms the feature word allows. The scaler passes
// ProcessorFeatures() at every run, so that FeatureMask takes effect at once.
void ScalerKernelsInit(ScalerKernels* kernels, uint32_t features);

ScalerHorizontalIntKernel ScalerHorizontalIntPlain;
ScalerHorizontalFloatKernel ScalerHorizontalFloatPlain;
ScalerVerticalIntKernel ScalerVerticalIntPlain;
ScalerVerticalFloatKernel ScalerVerticalFloatPlain;
#if ORN_X86_KERNELS
ScalerHorizontalIntKernel ScalerHorizontalIntSse2, ScalerHorizontalIntAvx2;
ScalerHorizontalFloatKernel ScalerHorizontalFloatSse2, ScalerHorizontalFloatAvx2;
ScalerVerticalIntKernel ScalerVerticalIntSse2, ScalerVerticalIntAvx2;
ScalerVerticalFloatKernel ScalerVerticalFloatSse2, ScalerVerticalFloatAvx2;
#endif

// Integer output of one channel sum: 0 at or below 0, 255 from 254.5, else rounded by adding a
// hair under one half and truncating.
inline constexpr double ScalerRoundBias = 0.4999989867210388;
inline constexpr double ScalerTopLevel = 254.5;
inline uint32_t ScalerChannelByte(double v) {
  if (v <= 0.0) return 0;
  if (v >= ScalerTopLevel) return 255;
  return uint32_t(v + ScalerRoundBias);
}
