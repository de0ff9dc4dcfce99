// Constants and kernels of the first-generation Velmo frame format that the decoder and the
// first-generation encoder share: block kinds and bundles, the 16 fixed Huffman code-length
// rows with their canonical codes and lookups, the run scans, the coefficient order, the
// dequantisation tables and the integer inverse transform.
#pragma once
#include <cstdint>

#include "host/cpu_features.h"

// ---------------------------------------------------------------------------------------------
// Block kinds, the values of the BlockTypes bundle. Anything above 9 is a damaged block.

enum : uint8_t {
  Velmo1Skip = 0,       // copy from the previous frame at the same place
  Velmo1Doubled = 1,    // a 16x16 block coded as 8x8 of a sub-kind and enlarged
  Velmo1Mot = 2,        // copy from the previous frame at a motion offset
  Velmo1Run = 3,        // runs of colours along a scan
  Velmo1Motz = 4,       // motion copy plus a bit-plane coded residue
  Velmo1DctIntra = 5,   // transform block
  Velmo1One = 6,        // one colour
  Velmo1DctInter = 7,   // motion copy plus a transform block
  Velmo1Two = 8,        // two colours and a one-bit pattern
  Velmo1Bang = 9,       // raw samples
  Velmo1KindCount = 10,
};

// The nine bundles, in the order their counts and data stand in each row of blocks.
enum : uint32_t {
  Velmo1BlockTypes = 0,
  Velmo1SubBlockTypes = 1,
  Velmo1Colors = 2,
  Velmo1Patterns = 3,
  Velmo1XMotion = 4,
  Velmo1YMotion = 5,
  Velmo1IntraDC = 6,
  Velmo1InterDC = 7,
  Velmo1Runs = 8,
  Velmo1BundleCount = 9,
};

// Geometry of one bundle for a plane of a given width (in pixels).
struct Velmo1BundleLimits {
  uint32_t CountBits;   // width of the count field
  uint32_t Largest;     // largest valid count, in elements
  uint32_t ElementSize; // bytes per element: 2 for the DC bundles, 1 for the others
  uint32_t Slack;       // bytes a block may take beyond the end: 64 Colors, 8 Patterns, 64 Runs
};
Velmo1BundleLimits Velmo1LimitsFor(uint32_t bundle, uint32_t planeWidth);

// Number of significant bits of x (0 for 0).
inline uint32_t Velmo1BitLength(uint32_t x) { return x ? 32u - uint32_t(__builtin_clz(x)) : 0u; }

// ---------------------------------------------------------------------------------------------
// Huffman tables. Each of the 16 tables has 16 codes; code i has length Velmo1CodeLengths[t][i].
// Codes are canonical in order of i; the first bit read is the most significant bit of a code.

constexpr uint32_t Velmo1TableCount = 16;
extern const uint8_t Velmo1CodeLengths[16][16];
extern const uint8_t Velmo1LongestCode[16];

// The canonical code of code number i in table t, as a number whose top bit is read first.
uint32_t Velmo1CanonicalCode(uint32_t table, uint32_t code);

// The code as it is written into the stream: bit-reversed, so that writing its length in bits
// with the lowest bit first gives the code's first bit first.
uint32_t Velmo1StreamCode(uint32_t table, uint32_t code);

// The decoder's lookup of table t: 2^longest entries indexed by the next stream bits (first
// bit lowest); an entry holds the code number in its low nibble and the length in its high one.
const uint8_t* Velmo1HuffLookup(uint32_t table);

// ---------------------------------------------------------------------------------------------
// Scans and orders. Positions are row * 8 + column.

extern const uint8_t Velmo1RunScans[16][64];      // pixel order of RUN blocks, by scan index
extern const uint8_t Velmo1CoefficientOrder[64];  // position of coefficient list index 0..63

// ---------------------------------------------------------------------------------------------
// Dequantisation. Two tables, intra and inter, of 16 scales by 64 positions, in 16.16 fixed
// point with the transform's fixed scale folded in: entry [s][k] = base[k] * f[s], rounded.

struct Velmo1Fraction {
  uint32_t Num, Den;
};
extern const Velmo1Fraction Velmo1ScaleFactors[16];  // f[s]: 1, 4/3, 5/3, 2, ... 44

// The bases in thousandths (the printed three decimals), by position.
extern const uint32_t Velmo1IntraBaseMilli[64];
extern const uint32_t Velmo1InterBaseMilli[64];

// The entries of scale s of the intra (inter = false) or inter table: 64 values by position.
const uint32_t* Velmo1DequantTable(bool inter, uint32_t scale);

// ---------------------------------------------------------------------------------------------
// Inverse transform. Input: 64 signed 16-bit coefficients by position, and a dequantisation
// row. Output: each pixel's (y + 127) >> 8 as a full 32-bit value; callers keep the low 8 bits
// (no clamp: values out of range wrap). All arithmetic is 32-bit two's complement with wrap.

using Velmo1IdctKernel = void (*)(const int16_t coeffs[64], const uint32_t table[64],
                                  int32_t out[64]);

void Velmo1IdctPlain(const int16_t coeffs[64], const uint32_t table[64], int32_t out[64]);
#if ORN_X86_KERNELS
void Velmo1IdctAvx2(const int16_t coeffs[64], const uint32_t table[64], int32_t out[64]);
#endif

// The decoder's kernel table.
struct Velmo1Kernels {
  Velmo1IdctKernel Idct;
};

// Fills `kernels` with the best forms the feature word allows; the decoder passes
// ProcessorFeatures() for every plane, so that FeatureMask takes effect at once.
void Velmo1KernelsInit(Velmo1Kernels* kernels, uint32_t features);
