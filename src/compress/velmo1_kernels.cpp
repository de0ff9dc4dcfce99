// The plain forms of the first-generation encoder's block difference and coefficient count, the
// count's walk over the work list shared by every form, and the table's fill.
#include "compress/velmo1_kernels.h"

#include <cstdlib>

#include "compress/velmo1_quantise.h"
#include "decode/velmo1_tables.h"

uint32_t Velmo1Sad8Plain(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch,
                         uint32_t bound) {
  uint32_t sad = 0;
  for (int r = 0; r < 8; ++r, ref += refPitch) {
    for (int i = 0; i < 8; ++i) sad += uint32_t(std::abs(int(block[r * 8 + i]) - ref[i]));
    if (r == 3 && sad >= bound) break;
  }
  return sad;
}

void Velmo1SadRowPlain(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch,
                       int count, uint32_t bound, uint32_t* sums) {
  for (int k = 0; k < count; ++k) sums[k] = Velmo1Sad8Plain(block, ref + k, refPitch, bound);
}

void Velmo1EncodeKernelsInit(Velmo1EncodeKernels* kernels, uint32_t features) {
  kernels->Sad8 = Velmo1Sad8Plain;
  kernels->SadRow = Velmo1SadRowPlain;
  kernels->CoefficientBits = Velmo1CoefficientBitsPlain;
  kernels->Quantise = Velmo1Quantise;
  kernels->QuantiseDeadZone = Velmo1QuantiseDeadZone;
#if ORN_X86_KERNELS
  const int level = ProcessorLevelOf(features);
  if (level < ProcessorLevelSse2) return;
  Velmo1EncodeKernelsSse2(kernels);
  if (level < ProcessorLevelAvx2) return;
  Velmo1EncodeKernelsAvx2(kernels);
#else
  (void)features;
#endif
}

namespace {

// A bit at the first index of every group of four (indices 0, 4, ... 60) holding a mark.
inline uint64_t GroupsOfFourHit(uint64_t marks) {
  uint64_t t = marks | (marks >> 1);
  t |= t >> 2;
  return t & 0x1111111111111111ull;
}

// The number of set bits, summed in place (the library's call for it costs more than the walk).
inline uint32_t Count(uint64_t v) {
  v -= (v >> 1) & 0x5555555555555555ull;
  v = (v & 0x3333333333333333ull) + ((v >> 2) & 0x3333333333333333ull);
  v = (v + (v >> 4)) & 0x0f0f0f0f0f0f0f0full;
  return uint32_t((v * 0x0101010101010101ull) >> 56);
}

}  // namespace

// Each plane walks every entry of the list once (one flag each). A group of 20 that fires codes
// its first four indices as children (a flag each) and leaves a group of 16 that is walked in
// the same plane; a group of 16 that fires becomes four groups of 4, walked in the same plane;
// a group of 4 that fires codes its four indices as children. A child that is not significant
// yet becomes a single index, walked from the next plane on. A significant value takes n bits
// in plane n, its length: all of them together take `valueBits`.
uint32_t Velmo1CoefficientBitsFromReach(const uint64_t reach[16], uint32_t planes, uint32_t valueBits) {
  uint32_t bits = 4;
  if (planes == 0) return bits;
  bits += valueBits;
  uint64_t singles = 0xe;  // indices 1, 2 and 3
  uint64_t fours = 0, sixteens = 0;
  uint64_t twenties = (uint64_t(1) << 4) | (uint64_t(1) << 24) | (uint64_t(1) << 44);
  for (uint32_t n = planes; n >= 1; --n) {
    const uint64_t live = reach[n - 1] & ~(n < planes ? reach[n] : 0);
    // One flag an entry. The sets never share a bit: a group's first index is no single index
    // (its values are not children yet), and the groups of 4 at 8 .. 20, 28 .. 40 and 48 .. 60
    // come only from the group of 16 at the same place once it is gone.
    bits += Count(singles | fours | sixteens | twenties);
    uint64_t children = 0;  // the first indices of groups of four coded as children
    for (uint64_t g = twenties; g; g &= g - 1) {
      const uint32_t i = uint32_t(__builtin_ctzll(g));
      if ((live >> i) & 0xfffff) {
        twenties &= ~(uint64_t(1) << i);
        children |= uint64_t(1) << i;
        sixteens |= uint64_t(1) << (i + 4);
        bits += 1;  // the group of 16 it leaves is walked now
      }
    }
    for (uint64_t g = sixteens; g; g &= g - 1) {
      const uint32_t i = uint32_t(__builtin_ctzll(g));
      if ((live >> i) & 0xffff) {
        sixteens &= ~(uint64_t(1) << i);
        fours |= uint64_t(0x1111) << i;
        bits += 4;  // its four groups of 4 are walked now
      }
    }
    const uint64_t firing = fours & GroupsOfFourHit(live);
    fours &= ~firing;
    children |= firing;
    bits += 4 * Count(children);
    singles = (singles & ~live) | ((children * 0xf) & ~live);
  }
  return bits;
}

uint32_t Velmo1CoefficientBitsPlain(const int16_t coeffs[64]) {
  uint32_t mag[64];
  mag[0] = 0;
  uint32_t largest = 0, valueBits = 0;
  for (int j = 1; j < 64; ++j) {
    mag[j] = uint32_t(std::abs(int32_t(coeffs[Velmo1CoefficientOrder[j]])));
    largest |= mag[j];
    valueBits += Velmo1BitLength(mag[j]);
  }
  const uint32_t planes = Velmo1BitLength(largest);
  uint64_t reach[16];
  for (uint32_t n = 1; n <= planes; ++n) {
    const uint32_t top = 1u << (n - 1);
    uint64_t marks = 0;
    for (int j = 1; j < 64; ++j) marks |= uint64_t(mag[j] >= top) << j;
    reach[n - 1] = marks;
  }
  return Velmo1CoefficientBitsFromReach(reach, planes, valueBits);
}
