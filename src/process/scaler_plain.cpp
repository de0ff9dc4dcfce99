// Plain C++ scaler loops: the rule that the vector forms match bit for bit.
#include <cstring>

#include "host/cpu_features.h"
#include "process/scaler_kernels.h"

namespace {

void HorizontalInt(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows, const ScalerSlot* slots,
                   uint32_t count, double* strip) {
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

void HorizontalFloat(const uint8_t* pixels, ptrdiff_t pitch, uint32_t rows, const ScalerSlot* slots,
                     uint32_t count, float* strip) {
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

void VerticalInt(const double* strip, const ScalerAxis* axis, uint32_t rows, uint8_t* column,
                 ptrdiff_t pitch) {
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

void VerticalFloat(const float* strip, const ScalerAxis* axis, uint32_t rows, uint8_t* column,
                   ptrdiff_t pitch) {
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

}  // namespace

const ScalerKernelSet ScalerKernelsPlain = {
    0, "c++", HorizontalInt, HorizontalFloat, VerticalInt, VerticalFloat};

const ScalerKernelSet* ScalerChooseKernels() {
  if (ProcessorHas(CpuAVX2 | CpuSSE2)) return &ScalerKernelsAvx2;
  if (ProcessorHas(CpuSSE2)) return &ScalerKernelsSse2;
  return &ScalerKernelsPlain;
}
