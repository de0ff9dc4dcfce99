// The first-generation encoder's kernel table: the block difference its motion search ranks
// candidates by, and the length of a block's coefficients as the bit-plane coder writes them.
// The table is filled plain-first from the processor feature word; every vector
// form gives the plain form's result.
#pragma once
#include <cstddef>
#include <cstdint>

#include "host/cpu_features.h"

// The sum of absolute differences of an 8x8 block (64 bytes, one line every 8) and the block
// at `ref` (one line every refPitch bytes). The sum is at most 64 * 255.
//
// `bound` lets a form stop early: when the sum is below bound the exact sum comes back; when it
// is not, any value of at least bound may come back. The search keeps a candidate only when its
// sum is below the best so far, so stopping early never changes its choice.
using Velmo1SadKernel = uint32_t (*)(const uint8_t block[64], const uint8_t* ref,
                                     ptrdiff_t refPitch, uint32_t bound);

// The sums of the block against `count` candidates side by side: sums[k] is Sad8 at ref + k,
// with the same bound. Reads count + 7 bytes of each of the eight lines.
using Velmo1SadRowKernel = void (*)(const uint8_t block[64], const uint8_t* ref,
                                    ptrdiff_t refPitch, int count, uint32_t bound,
                                    uint32_t* sums);

// The number of bits the bit-plane coder writes for the AC values of a block (by position,
// entry 0 unused; magnitudes below 16384), the 4-bit plane count included: what
// Velmo1EncCoefficientBitCount gives.
using Velmo1CoefficientBitsKernel = uint32_t (*)(const int16_t coeffs[64]);

// Quantises a block's coefficients with row `scale` as Velmo1Quantise (or, for the dead-zone
// entry, Velmo1QuantiseDeadZone) does; returns whether any AC value is not zero.
using Velmo1QuantiseKernel = bool (*)(const int32_t coeffs[64], uint32_t scale, bool inter,
                                      int16_t out[64]);

struct Velmo1EncodeKernels {
  Velmo1SadKernel Sad8;        // an 8x8 block against a motion candidate
  Velmo1SadRowKernel SadRow;   // against a line of candidates
  Velmo1CoefficientBitsKernel CoefficientBits;  // a trial's coefficient bits
  Velmo1QuantiseKernel Quantise;                // a trial's values at one scale
  Velmo1QuantiseKernel QuantiseDeadZone;        // the same with the dead zone
};

// Fills `kernels` with the best forms the feature word (ProcessorFeatures()) allows.
void Velmo1EncodeKernelsInit(Velmo1EncodeKernels* kernels, uint32_t features);

// The plain form: gives up after four lines once the sum has reached the bound.
uint32_t Velmo1Sad8Plain(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch,
                         uint32_t bound);

void Velmo1SadRowPlain(const uint8_t block[64], const uint8_t* ref, ptrdiff_t refPitch,
                       int count, uint32_t bound, uint32_t* sums);

// The plain form gathers the values in list order and marks, plane by plane, which of them
// reach the plane (bit j of reach[n - 1]: the value at list index j is at least 2^(n - 1)).
uint32_t Velmo1CoefficientBitsPlain(const int16_t coeffs[64]);

// The count from those marks, `planes` of them (the bit length of the largest value; the
// entries from `planes` on are not read), and `valueBits`, the sum of the values' bit lengths
// (each significant value takes as many bits as it is long); shared by every form. The coder's
// flags depend only on which entries its work list holds in each plane, not on their order, so
// the list is kept as sets: single indices, and groups of 4, 16 and 20 by their first index.
uint32_t Velmo1CoefficientBitsFromReach(const uint64_t reach[16], uint32_t planes, uint32_t valueBits);

// ---- Vector forms ----------------------------------------------------------------------------
// Each level replaces the entries it has a form for, in order of level. The vector forms sum
// all eight lines: a test after four lines costs more than the four lines it would save. SSE2
// sums two lines per _mm_sad_epu8, AVX2 four; AVX2's line of candidates takes eight of them
// at a time with _mm256_mpsadbw_epu8. The coefficient count's marks: SSE2 tests eight values a
// register against each plane; AVX2 finds every value's bit length at once (from the exponent of
// its float), puts the lengths in list order with byte shuffles and compares them with the
// plane.
#if ORN_X86_KERNELS
void Velmo1EncodeKernelsSse2(Velmo1EncodeKernels* kernels);
void Velmo1EncodeKernelsAvx2(Velmo1EncodeKernels* kernels);
#endif
