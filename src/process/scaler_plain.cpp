// Plain C++ scaler loops: the rule that the vector forms match bit for bit.
#include <cstring>

#include "process/scaler_kernels.h"

void ScalerHorizontalIntPlain(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                              const ScalerSlot* slots, uint32_t count, double* strip) {
  for (uint32_t y = 0; y < rows; ++y, pixels += pitch, strip += 4) {
    double sum[4] = {0.0, 0.0, 0.0, 0.0};
    for (uint32_t k = 0; k < count; ++k) {
      const double w = slots[k].Weight;
      const uint8_t* p = pixels + 4 * k;
      for (int c = 0; c < 4; ++c) sum[c] = sum[c] + w * double(p[c]);
    }
    std::memcpy(strip, sum, sizeof(sum));
  }
}

void ScalerHorizontalFloatPlain(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows,
                                const ScalerSlot* slots, uint32_t count, float* strip) {
  for (uint32_t y = 0; y < rows; ++y, pixels += pitch, strip += 4) {
    double sum[4] = {0.0, 0.0, 0.0, 0.0};
    for (uint32_t k = 0; k < count; ++k) {
      const double w = slots[k].Weight;
      float p[4];
      std::memcpy(p, pixels + 16 * k, 16);
      for (int c = 0; c < 4; ++c) sum[c] = sum[c] + w * double(p[c]);
    }
    for (int c = 0; c < 4; ++c) strip[c] = float(sum[c]);
  }
}

void ScalerVerticalIntPlain(const double* strip, const ScalerAxis* axis, uint32_t rows,
                            uint8_t* column, ptrdiff_t pitch) {
  for (uint32_t y = 0; y < rows; ++y, column += pitch) {
    const ScalerSlot* slots = axis->Entries + size_t(y) * axis->MaxEntries;
    double sum[4] = {0.0, 0.0, 0.0, 0.0};
    for (uint32_t k = 0; k < axis->Counts[y]; ++k) {
      const double w = slots[k].Weight;
      const double* s = strip + 4 * size_t(slots[k].Index);
      for (int c = 0; c < 4; ++c) sum[c] = sum[c] + w * s[c];
    }
    for (int c = 0; c < 4; ++c) column[c] = uint8_t(ScalerChannelByte(sum[c]));
  }
}

void ScalerVerticalFloatPlain(const float* strip, const ScalerAxis* axis, uint32_t rows,
                              uint8_t* column, ptrdiff_t pitch) {
  for (uint32_t y = 0; y < rows; ++y, column += pitch) {
    const ScalerSlot* slots = axis->Entries + size_t(y) * axis->MaxEntries;
    double sum[4] = {0.0, 0.0, 0.0, 0.0};
    for (uint32_t k = 0; k < axis->Counts[y]; ++k) {
      const double w = slots[k].Weight;
      const float* s = strip + 4 * size_t(slots[k].Index);
      for (int c = 0; c < 4; ++c) sum[c] = sum[c] + w * double(s[c]);
    }
    float out[4];
    for (int c = 0; c < 4; ++c) out[c] = float(sum[c]);
    std::memcpy(column, out, 16);
  }
}

void ScalerKernelsInit(ScalerKernels* kernels, uint32_t features) {
  *kernels = {ScalerHorizontalIntPlain, ScalerHorizontalFloatPlain, ScalerVerticalIntPlain,
              ScalerVerticalFloatPlain};
#if ORN_X86_KERNELS
  const int level = ProcessorLevelOf(features);
  if (level < ProcessorLevelSse2) return;
  kernels->HorizontalInt = ScalerHorizontalIntSse2;
  kernels->HorizontalFloat = ScalerHorizontalFloatSse2;
  kernels->VerticalInt = ScalerVerticalIntSse2;
  kernels->VerticalFloat = ScalerVerticalFloatSse2;
  if (level < ProcessorLevelAvx2) return;
  kernels->HorizontalInt = ScalerHorizontalIntAvx2;
  kernels->HorizontalFloat = ScalerHorizontalFloatAvx2;
  kernels->VerticalInt = ScalerVerticalIntAvx2;
  kernels->VerticalFloat = ScalerVerticalFloatAvx2;
#endif
}
