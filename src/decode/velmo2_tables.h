// Constants of the second-generation (Velmo 2) frame format that its decoder and its encoder
// share: frame word flags, macroblock kinds and their adaptive list, the quantiser codes, the
// block info word, the coefficient scan, the dequantisation tables, the DC residual scales, the
// two AC run code tables, the tap mask of the edge filters and the tapers of flat blocks.
#pragma once
#include <cstdint>

// ---------------------------------------------------------------------------------------------
// Frame word: the first 32-bit word of a frame's video section.

enum : uint32_t {
  Velmo2FlatLimitMask = 0xFF,        // T: DC values are close when they differ by less than T * 8
  Velmo2CurrentStream = 0x2000,      // clear: the deprecated stream
  Velmo2NoVerticalEdges = 0x4000,    // no filtering across vertical block edges, no column map
  Velmo2NoHorizontalEdges = 0x8000,  // no filtering across horizontal block edges, no row map
  Velmo2EdgeMapsPresent = 0x10000,   // the edge maps stand at the start of slice 0
  Velmo2ParityClamp = 0x20000,       // vectors are clamped keeping their half-pixel parity
  Velmo2WideInter = 0x40000,         // wide inter DC range; the luma mask may end early
  Velmo2ConstantAlpha = 0x80000,     // alpha is the constant of bits 24-31
  Velmo2ConstantAlphaShift = 24,
};

// ---------------------------------------------------------------------------------------------
// Macroblocks: 32x32 luma pixels, sixteen 8x8 luma blocks and four 8x8 blocks per chroma plane.

enum : uint32_t {
  Velmo2Intra = 0,     // quantiser, then each plane's masks, DC and AC
  Velmo2Skipped = 1,   // copied from the previous frame in all planes
  Velmo2Motion = 2,    // vectors only
  Velmo2Residual = 3,  // vectors, quantiser, plane residuals
};

// The kind list at each row start, most likely first.
extern const uint8_t Velmo2InitialKindList[4];

// Reads a kind through the list, which adapts as it goes: `peek` holds the next 3 stream bits
// (first read lowest). Returns the kind, sets *consumed to the bits it took (1 to 3) and swaps
// the list entries the code asks for.
uint32_t Velmo2TakeKind(uint8_t list[4], uint32_t peek, uint32_t* consumed);

// Quantiser differences. The magnitude codes, first bit read first: 1, 01, 001, 00010, 00011,
// and 0000 followed by 5 bits x for 5 + x. A non-zero magnitude is followed by a sign bit.
struct Velmo2QuantiserCode {
  uint8_t Bits;       // the code, first bit read in bit 0
  uint8_t Length;     // in bits
  uint8_t Magnitude;  // for the escape: the base that the 5 bits are added to
};
enum : uint32_t {
  Velmo2QuantiserEscape = 5,  // index of the escape in Velmo2QuantiserCodes
  Velmo2QuantiserCodeCount = 6,
  Velmo2QuantiserEscapeBits = 5,
  Velmo2QuantiserLongestCode = 5,
};
extern const Velmo2QuantiserCode Velmo2QuantiserCodes[Velmo2QuantiserCodeCount];

// The index into Velmo2QuantiserCodes of the code that begins the 5 stream bits `peek`.
uint32_t Velmo2QuantiserCodeOf(uint32_t peek);

// Blocks of a macroblock stand in quadrant order: the index bits are, from high to low,
// y1 x1 y0 x0 of the block's position on the 4x4 grid (2x2 for chroma, index bits y0 x0).
constexpr uint32_t Velmo2BlockColumn(uint32_t index) { return (index & 1) | ((index >> 1) & 2); }
constexpr uint32_t Velmo2BlockRow(uint32_t index) { return ((index >> 1) & 1) | ((index >> 2) & 2); }
// The index of the block at column x, row y: the inverse of the two above.
constexpr uint32_t Velmo2BlockIndex(uint32_t x, uint32_t y) {
  return (y >> 1) << 3 | (x >> 1) << 2 | (y & 1) << 1 | (x & 1);
}

// Block info word: one 16-bit word per 8x8 block.
enum : uint16_t {
  Velmo2InfoIntra = 0x8000,      // the block is intra coded
  Velmo2InfoClassShift = 13,     // bits 13-14: coefficient class
  Velmo2InfoClassMask = 0x6000,
  Velmo2InfoDcMask = 0x1FFF,     // bits 0-12: the DC value, two's complement
};

// Coefficient class of a block from its number of AC coefficients: 0 with 8 or more, 1 with
// 4 to 7, 2 with 1 to 3, 3 with none.
constexpr uint32_t Velmo2CoefficientClass(uint32_t acCount) {
  return acCount >= 8 ? 0 : acCount >= 4 ? 1 : acCount >= 1 ? 2 : 3;
}

// ---------------------------------------------------------------------------------------------
// Coefficients. Positions are row * 8 + column.

// The coefficient scan: Velmo2Scan[p] is the position of the p-th coefficient of a block.
extern const uint8_t Velmo2Scan[64];

// A block whose last scan index is at most this has coefficients only in its top left 4x4
// corner, and the corner form of the inverse transform serves for it.
constexpr uint32_t Velmo2CornerLastIndex = 9;

// Dequantisation: three tables of 4 rows by 64 positions. The row is Q & 3, and the
// coefficient at position k is ((signed magnitude * table[Q & 3][k]) << (Q >> 2) + 64) >> 7.
enum Velmo2DequantKind : uint32_t {
  Velmo2DequantIntraLuma = 0,    // intra luma, alpha and HDR
  Velmo2DequantIntraChroma = 1,  // intra Cr and Cb
  Velmo2DequantInter = 2,        // residuals of all planes
  Velmo2DequantKindCount = 3,
};

// Row 0 of each table, by position; row i is the row 0 entry times 2^(i/4), rounded.
extern const uint16_t Velmo2DequantRow0[Velmo2DequantKindCount][64];

using Velmo2DequantTable = uint16_t[4][64];
const Velmo2DequantTable& Velmo2Dequant(Velmo2DequantKind kind);

// The dequantisation rule for one table entry: ((signed magnitude * entry) << (q >> 2) + 64)
// >> 7 in wrapping 32-bit arithmetic, stored as 16 bits. The shift has no upper bound of its own
// (only the DC scales stop at 36); it is taken modulo 32 so that a damaged quantiser stays
// defined.
inline int16_t Velmo2Dequantise(int32_t signedMagnitude, uint32_t entry, uint32_t q) {
  // 32-bit wrapping arithmetic done unsigned.
  const uint32_t product = uint32_t(signedMagnitude) * entry;
  const uint32_t scaled = (product << ((q >> 2) & 31)) + 64u;
  return int16_t(int32_t(scaled) >> 7);
}

// The same with the entry of `table` for q and position.
int16_t Velmo2DequantCoefficient(int32_t signedMagnitude, const Velmo2DequantTable& table,
                                 uint32_t q, uint32_t position);

// ---------------------------------------------------------------------------------------------
// DC residuals. The scale for quantiser Q is 2^(10 + Q/4) rounded to the nearest integer, with
// Q taken as at least 8; the table holds entries for Q 0 to 36 with that floor applied, so it
// is indexed with the quantiser as it stands.

constexpr uint32_t Velmo2DcScaleCount = 37;
constexpr uint32_t Velmo2DcScaleFloorQ = 8;
extern const uint32_t Velmo2DcScales[Velmo2DcScaleCount];

// The scale for any quantiser: below 0 counts as 0 and above 36 as 36, so that a damaged
// quantiser never reads outside the table.
uint32_t Velmo2DcScale(int32_t q);

// ---------------------------------------------------------------------------------------------
// AC run codes. Each of the two tables has 14 symbols. A code is read first bit first; in Bits
// its first bit is the lowest, as the bit reader delivers it.

enum : uint32_t {
  Velmo2RunEscape = 11,   // 6 bits follow: the skip
  Velmo2RunEnd = 12,      // skip 64: the block ends
  Velmo2RunSeven = 13,    // repeat 7: the next seven coefficients follow with no run code
  Velmo2RunSymbolCount = 14,
  Velmo2RunEscapeBits = 6,
  Velmo2RunLongestCode = 9,
};

struct Velmo2RunCode {
  uint16_t Bits;    // the code, first bit read in bit 0
  uint8_t Length;   // in bits
  uint8_t Skip;     // added to the scan index (escape: read from the stream)
  uint8_t Repeat;   // coefficients that follow with no further run code
};

// Table 1 serves a quadrant whose mask word is below 0x10000, table 2 the others.
extern const Velmo2RunCode Velmo2RunCodes[2][Velmo2RunSymbolCount];

// The decoder's lookup of table t (0 or 1): 2^9 entries indexed by the next 9 stream bits
// (first bit lowest); an entry holds the symbol in its low 4 bits and the length above them.
const uint8_t* Velmo2RunLookup(uint32_t table);

// ---------------------------------------------------------------------------------------------
// Edge filters. Each side of an edge switches its taps by its block's coefficient class.

enum : uint8_t {
  Velmo2TapInner = 1,  // the pixel next to the edge may change
  Velmo2TapOuter = 2,  // the pixel one further may change
};
extern const uint8_t Velmo2EdgeTaps[4];

// A filter code holds the classes of the two sides: the left or upper block's class in the
// low two bits. Both classes 0 or both 3 leave the edge alone.
constexpr uint32_t Velmo2FilterCode(uint32_t classA, uint32_t classB) {
  return (classA & 3) | ((classB & 3) << 2);
}
constexpr bool Velmo2FilterCodeActs(uint32_t code) { return code != 0 && code != 15; }

// ---------------------------------------------------------------------------------------------
// Flat blocks. An intra block of class 3 is interpolated from its 3x3 neighbourhood of DC
// values. Along one line of 8 samples, with dl and dr the differences of the left and right
// (or upper and lower) neighbour from the centre, sample i is offset by Velmo2FlatTaper(i,...):
// columns 0..3 weigh the near (left) side and add the far one shifted down; 4..7 mirror them.

extern const int32_t Velmo2FlatNearWeights[4];  // columns 0..3, times the near side, >> 16
extern const uint8_t Velmo2FlatFarShifts[4];    // columns 1..3, the far side shifted right;
                                                // column 0 has no far term

int32_t Velmo2FlatTaper(uint32_t column, int32_t dl, int32_t dr);
