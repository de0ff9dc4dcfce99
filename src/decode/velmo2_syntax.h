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
#include "decode/velmo2_tables.h"

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
  uint32_t FlatLimit() const { return Bits & Velmo2FlatLimitMask; }
  // Set: the current stream. Clear: the deprecated stream, which these readers do not cover.
  bool CurrentStream() const { return Bits & Velmo2CurrentStream; }
  bool NoVerticalEdgeFilter() const { return Bits & Velmo2NoVerticalEdges; }
  bool NoHorizontalEdgeFilter() const { return Bits & Velmo2NoHorizontalEdges; }
  bool EdgeMapsPresent() const { return Bits & Velmo2EdgeMapsPresent; }
  bool ClampKeepsParity() const { return Bits & Velmo2ParityClamp; }
  // Wide inter DC range, and no clone bit after an all-zero luma mask.
  bool WideInterDc() const { return Bits & Velmo2WideInter; }
  bool ConstantAlpha() const { return Bits & Velmo2ConstantAlpha; }
  uint32_t AlphaValue() const { return Bits >> Velmo2ConstantAlphaShift; }

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

// The adaptive list of kinds (Velmo2Intra .. Velmo2Residual), most likely first; reset at
// every row start.
struct Velmo2KindList {
  uint8_t Kinds[4];
};

inline Velmo2KindList Velmo2KindListAtRowStart() {
  Velmo2KindList list;
  for (int i = 0; i < 4; ++i) list.Kinds[i] = Velmo2InitialKindList[i];
  return list;
}

// Reads a kind through the list (Velmo2TakeKind) and updates the list.
uint32_t Velmo2ReadKind(Velmo1BitReader& r, Velmo2KindList& list);

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

// The count n of 1 bits before the next 0 bit, at most 11. The 0 is consumed; behind eleven
// 1 bits the twelfth bit is consumed in its place, whatever it is.
uint32_t Velmo2ReadOnesCount(Velmo1BitReader& r);

// ---- DC residuals --------------------------------------------------------------------------

// One residual's magnitude code (n, extra bits, sign), before scaling.
int32_t Velmo2ReadDcLevel(Velmo1BitReader& r);

// A level times the scale, rounded: (|level| * scale + 512) >> 10 with the sign after.
inline int32_t Velmo2ScaleDc(int32_t level, int32_t scale) {
  const int64_t mag = level < 0 ? -int64_t(level) : level;
  const int32_t v = int32_t((mag * scale + 512) >> 10);
  return level < 0 ? -v : v;
}

// Reads the residuals of one plane of a macroblock (16 for luma-like planes, 4 for chroma),
// in block order: a 0 flag bit makes all of them 0. `scale` is Velmo2DcScale(q).
void Velmo2ReadDcResiduals(Velmo1BitReader& r, int32_t scale, int32_t* out, uint32_t count);

// ---- Block info words ----------------------------------------------------------------------

// One 16-bit word per 8x8 block: bit 15 intra, bits 13-14 the coefficient class, bits 0-12
// the DC value in two's complement.
inline uint16_t Velmo2BlockInfo(bool intra, uint32_t coefficientClass, int32_t dc) {
  return uint16_t((intra ? uint32_t(Velmo2InfoIntra) : 0u) |
                  (coefficientClass << Velmo2InfoClassShift & Velmo2InfoClassMask) |
                  (uint32_t(dc) & Velmo2InfoDcMask));
}
inline bool Velmo2InfoIsIntra(uint16_t info) { return info & Velmo2InfoIntra; }
inline uint32_t Velmo2InfoClass(uint16_t info) {
  return uint32_t(info & Velmo2InfoClassMask) >> Velmo2InfoClassShift;
}
// The DC value as the row store gives it back: bits 0-11 as a signed 12-bit value.
inline int32_t Velmo2InfoDc(uint16_t info) { return int32_t(uint32_t(info) << 20) >> 20; }

// ---- DC prediction -----------------------------------------------------------------------

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

// The prediction of block i's value alone, from the values of the blocks before it in `values`
// (as Velmo2PredictDc has them when it reaches block i).
int32_t Velmo2PredictDcBlock(const Velmo2DcContext& c, const int32_t* values, uint32_t i);

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

// A run code as read: the coefficient position moves on by Skip, and Repeat coefficients
// follow without a run code. Skip 64 ends the block.
struct Velmo2Run {
  uint32_t Skip;
  uint32_t Repeat;
};

// Reads a run code from run code table 1 or 2 (Velmo2RunCodes[0] or [1]), with the escape's
// 6-bit skip read.
Velmo2Run Velmo2ReadRunCode(Velmo1BitReader& r, int table);

// A magnitude code and its sign: the signed AC level.
int32_t Velmo2ReadAcLevel(Velmo1BitReader& r);

struct Velmo2AcBlock {
  uint32_t Count;    // coefficients written
  uint32_t Last;     // last scan position written, 0 when none
  uint32_t Class;    // coefficient class of the block info word
};

// Reads one block's AC coefficients into coef (64 entries in raster order, written only at
// the positions read). `dequant` is the row table[q & 3] of the plane's table, by raster
// position; q is the macroblock quantiser. Each coefficient is Velmo2Dequantise(level,
// dequant[k], q).
Velmo2AcBlock Velmo2ReadAcBlock(Velmo1BitReader& r, int table, const uint16_t* dequant, int32_t q,
                                int16_t* coef);

// Reads one quadrant: `mask` has this quadrant's bits lowest and the clone bits 16 up. The
// blocks whose bit is clear are left untouched and get class 3.
void Velmo2ReadAcQuadrant(Velmo1BitReader& r, uint32_t mask, const uint16_t* dequant, int32_t q,
                          int16_t* coef[4], Velmo2AcBlock out[4]);
