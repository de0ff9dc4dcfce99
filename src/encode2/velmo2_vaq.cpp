#include "encode2/velmo2_vaq.h"

#include <algorithm>
#include <cmath>

namespace {

constexpr Velmo2VaqBounds kBounds[] = {
    {0.5, 2.0, "Use default of median VAQ"},
    {1.0, 1.0, "No VAQ (best videos with mix of static and moving data)"},
    {0.75, 4.0 / 3.0, "Light VAQ (best on easy to compress videos)"},
    {0.25, 4.0, "Heavy VAQ (best on fast moving videos)"},
};

uint64_t AcEnergy(const int16_t* coef, uint32_t blocks) {
  uint64_t sum = 0;
  for (uint32_t b = 0; b < blocks; ++b, coef += 64)
    for (int i = 1; i < 64; ++i) sum += uint64_t(int64_t(coef[i]) * coef[i]);
  return sum;
}

}  // namespace

const Velmo2VaqBounds& Velmo2VaqBoundsOf(Velmo2VaqLevel level) {
  return kBounds[uint32_t(level) & 3];
}

Velmo2VaqLevel Velmo2VaqLevelOfVersion(uint32_t version) {
  return Velmo2VaqLevel((version >> 16) & 3);
}

uint64_t Velmo2MacroblockActivity(const Velmo2ActivityPlane* planes, size_t count) {
  uint64_t sum = 0;
  for (size_t p = 0; p < count; ++p)
    sum += AcEnergy(planes[p].Coef, planes[p].Blocks) * (planes[p].Chroma ? 1u : 2u);
  return sum;
}

double Velmo2VaqFactor(uint64_t activity, Velmo2VaqLevel level) {
  const Velmo2VaqBounds& b = Velmo2VaqBoundsOf(level);
  const double a = std::sqrt(double(activity)) * 0.0009765625;
  return std::clamp(a, b.Lower, b.Upper);
}
