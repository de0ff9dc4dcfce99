// Inverse transform of the second-generation format. All arithmetic is wrapping signed 16-bit
// with arithmetic shifts, so that every form gives the same bits as the reference decoder's
// vector code: the pass below runs on each column, then on each row of that result, and each
// output is finally shifted right by 6.
//
// Input: 64 coefficients by position (row * 8 + column). Position 0 holds the block's DC value
// as predicted (not yet scaled: the transform takes (DC + 4) * 8, which carries the rounding of
// the whole transform); the others hold the dequantised AC coefficients. Output: 64 signed
// 16-bit values by position, before any clamping or adding to a prediction.
#pragma once
#include <cstdint>

using Velmo2TransformKernel = void (*)(const int16_t coeffs[64], int16_t out[64]);

// The full transform.
void Velmo2TransformPlain(const int16_t coeffs[64], int16_t out[64]);

// The same for a block whose coefficients all lie in the top left 4x4 corner (its last scan
// index is at most Velmo2CornerLastIndex): reads only that corner and gives the full form's
// result in less work.
void Velmo2TransformCornerPlain(const int16_t coeffs[64], int16_t out[64]);

// The value of every pixel of a block with no AC coefficient: (DC + 4) * 8 >> 6.
int16_t Velmo2TransformDcOnly(int16_t dc);
