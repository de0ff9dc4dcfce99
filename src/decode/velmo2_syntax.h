// Syntax elements of the second-generation frame stream: the frame word and the slice layout,
// the edge maps, macroblock kinds, quantisers, masks, DC residuals, motion vector differences
// and AC coefficients. Each reader is a pure function over the first generation's bit reader
// (the word and bit order are the same) and allocates nothing.
//
// Bounds: the reader yields zeros past its readable span and its position goes on counting
// (see velmo1_bits.h), so no read leaves the buffer. Every loop here is bounded by a count the
// caller gives or by a fixed code length. Whether a stream ran past its end is told by
// Velmo2Overran; readers that can meet an impossible value also return false for it.
#pragma once
#include "decode/velmo1_bits.h"

#include <cstddef>
#include <cstdint>
#include <string_view>

// True when more bits have been consumed than lie before the reader's limit.
inline bool Velmo2Overran(const Velmo1BitReader& r) {
  return r.Pos * 8 - r.Count > r.Limit * 8;
}

// ---- Frame word ----------------------------------------------------------------------------

// The first word of a frame's video section, with an accessor per field.
struct Velmo2FrameWord {
  uint32_t Bits;

  // Two DC values count as close when they differ by less than FlatLimit() * 8.
  uint32_t FlatLimit() const { return Bits & 0xFF; }
  // Set: the current stream. Clear: the deprecated stream, which these readers do not cover.
  bool CurrentStream() const { return Bits & 0x2000; }
  bool NoVerticalEdgeFilter() const { return Bits & 0x4000; }
  bool NoHorizontalEdgeFilter() const { return Bits & 0x8000; }
  bool EdgeMapsPresent() const { return Bits & 0x10000; }
  bool ClampKeepsParity() const { return Bits & 0x20000; }
  // Wide inter DC range, and no clone bit after an all-zero luma mask.
  bool WideInterDc() const { return Bits & 0x40000; }
  bool ConstantAlpha() const { return Bits & 0x80000; }
  uint32_t AlphaValue() const { return Bits >> 24; }

  // The row map (horizontal edges) and the column map (vertical edges) stand in the stream.
  bool HasRowMap() const { return EdgeMapsPresent() && !NoHorizontalEdgeFilter(); }
  bool HasColumnMap() const { return EdgeMapsPresent() && !NoVerticalEdgeFilter(); }
};

// ---- Frame layout and slice layout ---------------------------------------------------------

// Byte offset, from the start of the section, of slice k's data. Slice 0 starts after the
// offset table (at byte 8 with fewer than 3 slices, else at slices * 4); slice k above 0 at
// the offset in word k. False when the table word or the offset lies outside the section.
bool Velmo2SliceOffset(const uint8_t* section, size_t size, uint32_t slices, uint32_t k,
                       uint32_t* offset);

constexpr uint32_t kVelmo2MaxSlices = 8;

struct Velmo2SliceLayout {
  uint32_t Slices;                 // 1, 2, 3, 4 or 8
  uint32_t EndsSet;                // how many entries of Ends hold a value
  uint32_t Ends[kVelmo2MaxSlices]; // the line at which each slice ends
  uint32_t SeamRecordBytes;
};

// The layout of every frame of a file, from its tag (four characters), the low two bits of
// its file flags and the picture size.
Velmo2SliceLayout Velmo2LayoutFor(std::string_view tag, uint32_t fileFlags, uint32_t width,
                                  uint32_t height);

// ---- Edge maps -----------------------------------------------------------------------------

// Words a map of n entries needs: entry i is bit i + 1, bit 0 (the picture edge) stays 0.
constexpr size_t Velmo2EdgeMapWords(uint32_t entries) { return (size_t(entries) + 1 + 31) / 32; }

// Reads one map of `entries` entries, raw or run coded, into map[0 .. words). False when the
// map does not fit, when a run goes past the last entry, or when the reader overran.
bool Velmo2ReadEdgeMap(Velmo1BitReader& r, uint32_t entries, uint32_t* map, size_t words);

struct Velmo2EdgeMaps {
  uint32_t* Rows;     // row map: (height / 8) - 1 entries, one per horizontal block edge
  size_t RowWords;
  uint32_t* Columns;  // column map: (width / 8) - 1 entries, one per vertical block edge
  size_t ColumnWords;
};

// Reads the maps the frame word calls for (row map first) and clears those it leaves out.
bool Velmo2ReadEdgeMaps(Velmo1BitReader& r, Velmo2FrameWord word, uint32_t width,
                        uint32_t height, const Velmo2EdgeMaps& maps);

// ---- Macroblock kinds ----------------------------------------------------------------------

enum Velmo2Kind : uint8_t { kVelmo2Intra = 0, kVelmo2Skipped = 1, kVelmo2Motion = 2, kVelmo2Residual = 3 };

// Move-to-front list of kinds, most likely first; reset at every row start.
struct Velmo2KindList {
  uint8_t Kinds[4];
};

inline Velmo2KindList Velmo2KindListAtRowStart() {
  return Velmo2KindList{{kVelmo2Motion, kVelmo2Residual, kVelmo2Skipped, kVelmo2Intra}};
}

// Reads a kind through the list and updates the list.
Velmo2Kind Velmo2ReadKind(Velmo1BitReader& r, Velmo2KindList& list);

// ---- Quantisers ----------------------------------------------------------------------------

// Reads a quantiser difference (magnitude code, then a sign bit when non-zero).
int32_t Velmo2ReadQuantiserDiff(Velmo1BitReader& r);

inline int32_t Velmo2ReadQuantiser(Velmo1BitReader& r, int32_t predicted) {
  return predicted + Velmo2ReadQuantiserDiff(r);
}

inline int32_t Velmo2Median(int32_t a, int32_t b, int32_t c) {
  const int32_t lo = a < b ? a : b;
  const int32_t hi = a < b ? b : a;
  return c < lo ? lo : (c > hi ? hi : c);
}

// The quantiser predicted for the next macroblock: in a slice's first row the current value,
// else the median of the left one, the one above and the one above-left.
inline int32_t Velmo2PredictQuantiser(bool firstRowOfSlice, int32_t current, int32_t above,
                                      int32_t aboveLeft) {
  return firstRowOfSlice ? current : Velmo2Median(current, above, aboveLeft);
}

// ---- Masks ---------------------------------------------------------------------------------

// Luma (also alpha and HDR) mask: low 16 bits mark blocks with AC data, the high 16 bits a
// copy of them when the clone bit is 1. `previous` is the plane's last mask.
uint32_t Velmo2ReadLumaMask(Velmo1BitReader& r, uint32_t previous, Velmo2FrameWord word);

// Chroma mask: bits 0-3 per block, bits 16-19 as in the stream or kept from `previous`.
uint32_t Velmo2ReadChromaMask(Velmo1BitReader& r, uint32_t previous);

// ---- Shared magnitude prefix ---------------------------------------------------------------

// The count n of 1 bits before the next 0 bit, at most 11. The 0 is consumed; a code of
// eleven 1 bits has no 0 after it.
uint32_t Velmo2ReadOnesCount(Velmo1BitReader& r);

// ---- DC residuals --------------------------------------------------------------------------

constexpr int32_t kVelmo2MaxQuantiser = 36;

// The DC scale for quantiser q: 2^(10 + q/4) to the nearest integer, q taken as at least 8.
// False for q outside 0..36.
bool Velmo2DcScale(int32_t q, int32_t* scale);

// One residual's magnitude code (n, extra bits, sign), before scaling.
int32_t Velmo2ReadDcLevel(Velmo1BitReader& r);

// A level times the scale, rounded: (|level| * scale + 512) >> 10 with the sign after.
inline int32_t Velmo2ScaleDc(int32_t level, int32_t scale) {
  const int64_t mag = level < 0 ? -int64_t(level) : level;
  const int32_t v = int32_t((mag * scale + 512) >> 10);
  return level < 0 ? -v : v;
}

// Reads the residuals of one plane of a macroblock (16 for luma-like planes, 4 for chroma),
// in block order: a 0 flag bit makes all of them 0.
void Velmo2ReadDcResiduals(Velmo1BitReader& r, int32_t scale, int32_t* out, uint32_t count);

// ---- Block info words ----------------------------------------------------------------------

// One 16-bit word per 8x8 block: bit 15 intra, bits 13-14 the coefficient class, bits 0-12
// the DC value in two's complement.
inline uint16_t Velmo2BlockInfo(bool intra, uint32_t coefficientClass, int32_t dc) {
  return uint16_t((intra ? 0x8000u : 0u) | (coefficientClass & 3) << 13 | (uint32_t(dc) & 0x1FFF));
}
inline bool Velmo2InfoIntra(uint16_t info) { return info & 0x8000; }
inline uint32_t Velmo2InfoClass(uint16_t info) { return info >> 13 & 3; }
// The DC value as the row store gives it back: bits 0-11 as a signed 12-bit value.
inline int32_t Velmo2InfoDc(uint16_t info) { return int32_t(uint32_t(info) << 20) >> 20; }

// ---- DC prediction -----------------------------------------------------------------------

// Index in block order of the block at (x, y) on a macroblock plane's grid (4x4 or 2x2): the
// bits are, high to low, y1 x1 y0 x0, so the blocks go by quadrant.
constexpr uint32_t Velmo2BlockIndex(uint32_t x, uint32_t y) {
  return (y >> 1) << 3 | (x >> 1) << 2 | (y & 1) << 1 | (x & 1);
}

// What one plane of a macroblock predicts its DC values from. The neighbours' values are in
// block order, null for a neighbour without them; with Left and Above, AboveLeft must be given.
struct Velmo2DcContext {
  uint32_t Grid;             // 4 for luma, alpha and HDR; 2 for chroma
  const int32_t* Left;
  const int32_t* Above;
  const int32_t* AboveLeft;
  int32_t Start;             // for the first block when neither left nor above is there
  int32_t Lo, Hi;            // each value is held within these
};

// The context of an intra plane: full range, start 1024.
inline Velmo2DcContext Velmo2IntraDc(uint32_t grid, const int32_t* left, const int32_t* above,
                                     const int32_t* aboveLeft) {
  return Velmo2DcContext{grid, left, above, aboveLeft, 1024, 0, 2047};
}

// The context of a residual plane: no neighbours, start 0, range by frame word bit 18.
inline Velmo2DcContext Velmo2ResidualDc(uint32_t grid, Velmo2FrameWord word) {
  const int32_t range = word.WideInterDc() ? 2047 : 1023;
  return Velmo2DcContext{grid, nullptr, nullptr, nullptr, 0, -range, range};
}

// Predicts each DC value in block order, adds its residual and holds it in range.
void Velmo2PredictDc(const Velmo2DcContext& c, const int32_t* residuals, int32_t* out);

// ---- Motion vector differences -------------------------------------------------------------

// One signed Exp-Golomb difference, with the escape of sixteen 0 bits.
int32_t Velmo2ReadVectorDiff(Velmo1BitReader& r);

struct Velmo2VectorDiffs {
  bool Single;     // one vector for the macroblock: only index 0 is read
  int32_t X[4];    // quadrants top left, top right, bottom left, bottom right
  int32_t Y[4];
};

// The count flag, then the x differences, then the y differences. Unread entries are 0.
Velmo2VectorDiffs Velmo2ReadVectorDiffs(Velmo1BitReader& r);

// One component (x or y) of the vectors of a macroblock's neighbours, four each in quadrant
// order; null for a neighbour that is not there (outside the picture or the slice).
struct Velmo2VectorNeighbours {
  const int32_t* Above;
  const int32_t* Left;
  const int32_t* AboveLeft;  // read (its vector 3) only when above and left are both there
};

// Predicts one component of the four vectors from the neighbours and adds the differences, each
// vector's before the next is predicted. With `single` the vector 0 prediction plus diff[0]
// goes to all four. A non-key intra macroblock stores the result with all differences 0.
void Velmo2PredictVectors(const Velmo2VectorNeighbours& n, bool single, const int32_t diff[4],
                          int32_t out[4]);

// ---- AC coefficients -----------------------------------------------------------------------

// A run code: the coefficient position moves on by Skip, and Repeat coefficients follow
// without a run code. Skip 64 ends the block.
struct Velmo2RunCode {
  uint32_t Skip;
  uint32_t Repeat;
};

// Reads a run code from run code table 1 or 2 (escape already resolved).
Velmo2RunCode Velmo2ReadRunCode(Velmo1BitReader& r, int table);

// A magnitude code and its sign: the signed AC level.
int32_t Velmo2ReadAcLevel(Velmo1BitReader& r);

extern const uint8_t kVelmo2Scan[64];

struct Velmo2AcBlock {
  uint32_t Count;    // coefficients written
  uint32_t Last;     // last scan position written, 0 when none
  uint32_t Class;    // coefficient class of the block info word
};

// Coefficient class: 0 with 8 or more coefficients, 1 with 4-7, 2 with 1-3, 3 with none.
inline uint32_t Velmo2CoefficientClass(uint32_t count) {
  return count >= 8 ? 0 : count >= 4 ? 1 : count >= 1 ? 2 : 3;
}

// Reads one block's AC coefficients into coef (64 entries in raster order, written only at
// the positions read). `dequant` is the row table[q & 3] of the plane's table, by raster
// position; q is the macroblock quantiser (0..36).
Velmo2AcBlock Velmo2ReadAcBlock(Velmo1BitReader& r, int table, const uint16_t* dequant, int32_t q,
                                int16_t* coef);

// Reads one quadrant: `mask` has this quadrant's bits lowest and the clone bits 16 up. The
// blocks whose bit is clear are left untouched and get class 3.
void Velmo2ReadAcQuadrant(Velmo1BitReader& r, uint32_t mask, const uint16_t* dequant, int32_t q,
                          int16_t* coef[4], Velmo2AcBlock out[4]);
