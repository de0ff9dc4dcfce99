// The encoder's side of the second-generation transform: the forward 8x8 transform matched to
// the decoder's inverse (decode/velmo2_transform.h), and the quantisers of DC and AC values.
//
// Coefficient scale. Velmo2Forward gives float coefficients by position (row * 8 + column) on
// the scale the inverse takes: the AC values are what a dequantised coefficient should be, and
// position 0 is 8 times the block's DC value (the inverse multiplies the DC value by 8 and adds
// the rounding of the whole transform itself). Velmo2DcValue turns it into a DC value, on the
// scale of 8 times the block mean.
//
// Distortion. D of a block is the weighted squared error of its AC coefficients, the weight of
// each position (Velmo2CoefficientWeight) making it the squared pixel error the difference
// causes after the inverse transform (the pass's basis vectors are orthogonal, so the errors of
// all positions add up). The cost of a choice is J = lambda * D + bits: lambda
// is the price of a unit of squared error in bits, as in the macroblock cost J = D * q + bits.
#pragma once
#include "encode2/velmo2_writers.h"
#include "host/cpu_features.h"

#include <cstdint>

// ---- Transform -----------------------------------------------------------------------------

// Forward transform of 64 samples (pixels or residuals) by position: out = F in F^T, each sum
// taken in the order of its index so that every form gives the same bits.
using Velmo2ForwardKernel = void (*)(const int16_t in[64], float out[64]);
void Velmo2ForwardPlain(const int16_t in[64], float out[64]);
#if ORN_X86_KERNELS
void Velmo2ForwardSse2(const int16_t in[64], float out[64]);
#endif

// The form for a processor feature word, and the transform in the form this processor runs.
Velmo2ForwardKernel Velmo2ForwardFor(uint32_t features);
void Velmo2Forward(const int16_t in[64], float out[64]);

// F, row by row: 8 times the inverse of the matrix of the inverse transform's pass.
const float* Velmo2ForwardMatrix();

// The DC value of a block from its coefficient 0: coefficient / 8, rounded to nearest.
int32_t Velmo2DcValue(float coefficient0);

// The weight of a coefficient's squared error at a position in the pixel error it causes.
float Velmo2CoefficientWeight(uint32_t position);

// ---- DC ------------------------------------------------------------------------------------

// The DC residual level, |level| <= Velmo2MaxDcLevel, whose scaled value
// (Velmo2ScaleDc(level, scale)) is nearest to `wanted`; of two as near, the smaller one.
int32_t Velmo2DcLevelFor(int32_t wanted, uint32_t scale);

// ---- AC ------------------------------------------------------------------------------------

// The largest AC level magnitude whose dequantised value at this entry and quantiser stays a
// positive 16-bit value (at most Velmo2MaxAcLevel; 0 when not even 1 fits).
int32_t Velmo2MaxAcLevelFor(uint32_t entry, uint32_t q);

// The level of coefficient c at a table entry and quantiser. `rounding` in (0, 0.5] places the
// decision between two neighbouring levels: c goes to the higher one once it passes the
// fraction 1 - rounding of the way between their dequantised values. 0.5 gives the level
// whose dequantised value is nearest to c; less gives a dead zone around 0 and biases every
// level towards 0.
int32_t Velmo2QuantiseAc(float c, uint32_t entry, uint32_t q, float rounding);

// A block's quantised AC coefficients.
struct Velmo2QuantisedBlock {
  Velmo2AcLevels Ac;  // levels by scan position, their count and the last position
  int16_t Recon[64];  // by position: each level dequantised as the decoder does, 0 elsewhere
                      // (position 0 too: the DC value is coded apart)
};

// What quantises the AC coefficients of a block. Built once for a plane's table row and
// quantiser and then used for each of its blocks: it holds, by position and sign, the
// magnitude under which a coefficient quantises to 0, so that the common case costs one
// comparison.
struct Velmo2AcQuantiser {
  Velmo2AcQuantiser(const uint16_t* dequant, uint32_t q, float rounding);

  const uint16_t* Dequant;  // row Q & 3 of the plane's dequantisation table, by position
  uint32_t Q;               // the macroblock quantiser
  float Rounding;           // as Velmo2QuantiseAc
  // [c < 0][position]: |c| below this gives level 0. It is the smallest float whose value
  // reaches the exact threshold, so a float comparison decides as the exact one would.
  float ZeroBelow[2][64];
};

// The quantiser of table `kind` at q (0 to 36) that rounds to the nearest value (rounding 0.5),
// built once for every table and quantiser.
const Velmo2AcQuantiser& Velmo2NearestQuantiser(uint32_t kind, uint32_t q);

// The positions (bit k for position k) whose coefficient passes the quantiser's ZeroBelow
// threshold, position 0 left out: the coefficients that quantise to a level other than 0.
using Velmo2LevelMaskKernel = uint64_t (*)(const float coef[64], const float zeroBelow[2][64]);
uint64_t Velmo2LevelMaskPlain(const float coef[64], const float zeroBelow[2][64]);
#if ORN_X86_KERNELS
uint64_t Velmo2LevelMaskSse2(const float coef[64], const float zeroBelow[2][64]);
#endif
Velmo2LevelMaskKernel Velmo2LevelMaskFor(uint32_t features);

// Plain quantisation of positions 1..63 of `coef` (Velmo2Forward's output or a residual's).
void Velmo2QuantiseBlock(const float coef[64], const Velmo2AcQuantiser& quantiser,
                         Velmo2QuantisedBlock& out);

// D of a block: the weighted squared error of its reconstructed AC coefficients.
double Velmo2AcDistortion(const float coef[64], const int16_t recon[64]);

// Rate-distortion optimised quantisation: plain quantisation, then, from the last level back to
// the first, each level is lowered by one or dropped when that lowers J = lambda * D + bits,
// the bits being the block's exact code length under run code table `table` (1 or 2); last,
// the empty block is taken if it costs less still. The result's J is never above that of plain
// quantisation. Returns the result's code length under `table`.
uint32_t Velmo2QuantiseBlockRdo(const float coef[64], const Velmo2AcQuantiser& quantiser,
                            double lambda, int table, Velmo2QuantisedBlock& out);
