// The plain forms of the second-generation kernels, and the table's fill.
#include "decode/velmo2_kernels.h"

#include <algorithm>
#include <utility>

#include "decode/velmo2_filter.h"
#include "decode/velmo2_predict.h"
#include "decode/velmo2_tables.h"

namespace {

// The plain fetches are the general ones at a position whose whole-pixel part is 0.
template <int Fraction>
void FetchLumaPlain(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  Velmo2FetchLuma(src, pitch, Fraction & 1, Fraction >> 1, dst, dstPitch);
}

template <int Fraction>
void FetchChromaPlain(const uint8_t* src, ptrdiff_t pitch, uint8_t* dst, ptrdiff_t dstPitch) {
  Velmo2FetchChroma(src, pitch, Fraction & 3, Fraction >> 2, dst, dstPitch);
}

template <int... F>
void FillChroma(Velmo2FetchKernel* out, std::integer_sequence<int, F...>) {
  ((out[F] = FetchChromaPlain<F>), ...);
}

}  // namespace

void Velmo2FlatBlockPlain(const int32_t dc[3][3], uint8_t* out, ptrdiff_t pitch,
                          uint32_t columns, uint32_t lines) {
  // Each row of the neighbourhood tapered across its 8 columns, then down each column the
  // same taper between the top and bottom rows.
  int32_t rows[3][8];
  for (int r = 0; r < 3; ++r) {
    const int32_t c = dc[r][1], dl = dc[r][0] - c, dr = dc[r][2] - c;
    for (uint32_t i = 0; i < 8; ++i) rows[r][i] = c + 4 + Velmo2FlatTaper(i, dl, dr);
  }
  for (uint32_t j = 0; j < lines; ++j, out += pitch) {
    for (uint32_t i = 0; i < columns; ++i) {
      const int32_t m = rows[1][i], dt = rows[0][i] - m, db = rows[2][i] - m;
      out[i] = uint8_t(std::clamp((m + Velmo2FlatTaper(j, dt, db)) >> 3, 0, 255));
    }
  }
}

void Velmo2KernelsInit(Velmo2Kernels* kernels, uint32_t features) {
  kernels->Transform = Velmo2TransformPlain;
  kernels->TransformCorner = Velmo2TransformCornerPlain;
  kernels->FetchLuma[0] = FetchLumaPlain<0>;
  kernels->FetchLuma[1] = FetchLumaPlain<1>;
  kernels->FetchLuma[2] = FetchLumaPlain<2>;
  kernels->FetchLuma[3] = FetchLumaPlain<3>;
  FillChroma(kernels->FetchChroma, std::make_integer_sequence<int, 16>());
  kernels->AddResidual = Velmo2AddResidual;
  kernels->FilterEdge = Velmo2FilterEdge;
  kernels->ResidualSeamEdge = Velmo2ResidualSeamEdge;
  kernels->FlatBlock = Velmo2FlatBlockPlain;
#if ORN_X86_KERNELS
  const int level = ProcessorLevelOf(features);
  if (level < ProcessorLevelSse2) return;
  Velmo2KernelsSse2(kernels);
  if (level < ProcessorLevelSsse3) return;
  Velmo2KernelsSsse3(kernels);
  if (level < ProcessorLevelAvx2) return;
  Velmo2KernelsAvx2(kernels);
#else
  (void)features;
#endif
}
