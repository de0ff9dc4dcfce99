// In-loop filters of the second-generation decoder, on finished 8-bit pixels: the edge filter
// across block edges of Y, Cr and Cb, the interpolation of intra flat blocks (class 3) from
// their 3x3 neighbourhood of DC values, and the seam records that let two workers share a
// slice's first macroblock row. Nothing here allocates; all work is on the caller's planes.
//
// Scheduling is the caller's: for each pixel the vertical edges must be filtered before the
// horizontal ones, and a flat block must be settled before any edge filter touches it. A
// macroblock's vertical edges include its left edge, which changes the two rightmost columns
// of the macroblock to its left; its horizontal edges include its top edge, which changes the
// two bottom lines of the macroblock above. So the walk filters the vertical edges of
// macroblock x and then the horizontal edges of macroblock x - 1.
#pragma once
#include "decode/velmo2_syntax.h"

#include <cstddef>
#include <cstdint>

// One 8-bit plane: Width x Height pixels of the picture in this plane (chroma at half size).
struct Velmo2Plane {
  uint8_t* Pixels;
  ptrdiff_t Pitch;
  uint32_t Width;
  uint32_t Height;
};

// The block info words of one plane, one per 8x8 block, row by row. Blocks outside Columns x
// Rows, or above FirstRow, count as absent (a picture edge, or a slice edge where no words are
// kept). Info holds the words from block row FirstRow on.
struct Velmo2InfoGrid {
  const uint16_t* Info;
  size_t Stride;  // words from one block row to the next
  uint32_t Columns;
  uint32_t Rows;
  uint32_t FirstRow = 0;
};

// What decides which edges are filtered: the frame word bits 14 and 15 and the two edge maps
// (bit k set: the block edge at luma line or column 8 * k is not filtered). Null maps are all
// zero.
struct Velmo2EdgeRules {
  Velmo2FrameWord Word;
  const uint32_t* RowMap;     // horizontal edges
  size_t RowWords;
  const uint32_t* ColumnMap;  // vertical edges
  size_t ColumnWords;
};

// ---- Edge filter ---------------------------------------------------------------------------

// Filters one edge of 8 pixels with a filter code (Velmo2FilterCode). `q0` points at the first
// pixel on the right of (or below) the edge; `across` steps over the edge, `along` along it.
// Only the first `count` pixels along are filtered (fewer than 8 at the picture's edge).
void Velmo2FilterEdge(uint8_t* q0, ptrdiff_t across, ptrdiff_t along, uint32_t code,
                      uint32_t count = 8);

// The word of block (bx, by), or false when the grid has none there.
inline bool Velmo2InfoAt(const Velmo2InfoGrid& grid, int64_t bx, int64_t by, uint16_t* info) {
  if (bx < 0 || by < grid.FirstRow || bx >= grid.Columns || by >= grid.Rows) return false;
  *info = grid.Info[size_t(by - grid.FirstRow) * grid.Stride + size_t(bx)];
  return true;
}

// Entry k of an edge map (null: all zero).
inline bool Velmo2EdgeMapBit(const uint32_t* map, size_t words, uint32_t k) {
  return map && k / 32 < words && ((map[k / 32] >> (k % 32)) & 1);
}

// The code of the edge between blocks a (left or upper) and b, 0 when one is missing or the
// pair of classes leaves the edge alone.
inline uint32_t Velmo2PairCode(const Velmo2InfoGrid& grid, int64_t ax, int64_t ay, int64_t bx,
                               int64_t by) {
  uint16_t a, b;
  if (!Velmo2InfoAt(grid, ax, ay, &a) || !Velmo2InfoAt(grid, bx, by, &b)) return 0;
  const uint32_t code = Velmo2FilterCode(Velmo2InfoClass(a), Velmo2InfoClass(b));
  return Velmo2FilterCodeActs(code) ? code : 0;
}

// The filter code of the vertical edge on the left of block (bx, by) of a plane, or 0 when
// that edge is not filtered. `chroma` reads the maps at half size: one chroma edge per two
// luma edges. (Inline: the walk asks it for every block edge.)
inline uint32_t Velmo2VerticalEdgeCode(const Velmo2EdgeRules& rules, const Velmo2InfoGrid& grid,
                                       bool chroma, uint32_t width, uint32_t bx, uint32_t by) {
  if (bx == 0 || uint64_t(bx) * 8 >= width || rules.Word.NoVerticalEdgeFilter()) return 0;
  if (Velmo2EdgeMapBit(rules.ColumnMap, rules.ColumnWords, chroma ? 2 * bx : bx)) return 0;
  return Velmo2PairCode(grid, int64_t(bx) - 1, by, bx, by);
}

// The same for the horizontal edge above block (bx, by).
inline uint32_t Velmo2HorizontalEdgeCode(const Velmo2EdgeRules& rules,
                                         const Velmo2InfoGrid& grid, bool chroma, uint32_t height,
                                         uint32_t bx, uint32_t by) {
  if (by == 0 || uint64_t(by) * 8 >= height || rules.Word.NoHorizontalEdgeFilter()) return 0;
  if (Velmo2EdgeMapBit(rules.RowMap, rules.RowWords, chroma ? 2 * by : by)) return 0;
  return Velmo2PairCode(grid, bx, int64_t(by) - 1, bx, by);
}

// The vertical edges on the left of each block of a macroblock (4x4 blocks in luma, 2x2 in
// chroma) at macroblock (mbx, mby). Each block row is filtered only where it lies in the plane.
void Velmo2FilterVerticalEdges(const Velmo2EdgeRules& rules, const Velmo2Plane& plane,
                               const Velmo2InfoGrid& grid, bool chroma, uint32_t mbx,
                               uint32_t mby);
// The horizontal edges above each block of the macroblock.
void Velmo2FilterHorizontalEdges(const Velmo2EdgeRules& rules, const Velmo2Plane& plane,
                                 const Velmo2InfoGrid& grid, bool chroma, uint32_t mbx,
                                 uint32_t mby);

// ---- Residual seam filter -------------------------------------------------------------------

// Smooths the residuals across the edge between two neighbouring blocks with block info words
// a (left or upper) and b, before the prediction is added: 8 lines, `q0` at the first value on
// b's side, `across` stepping over the edge and `along` along it (in values). Nothing happens
// when neither side has class 1 or above, or when both are flat with DC values at most 32
// apart. The arithmetic wraps in 16 bits as the vector form's does.
void Velmo2ResidualSeamEdge(int16_t* q0, ptrdiff_t across, ptrdiff_t along, uint16_t a,
                            uint16_t b);

// The seams inside one macroblock plane's residual (grid 4: 32x32 values for luma, alpha and
// HDR; grid 2: 16x16 for a chroma plane), `pitch` values a line: the vertical seams row by row
// unless frame word bit 14 or 18 is set, then the horizontal ones unless bit 15 or 18 is.
// `info` holds the plane's block words in macroblock block order (Velmo2BlockIndex).
// `seam` is the per-edge kernel (the decoder's table entry).
void Velmo2ResidualSeams(int16_t* residual, ptrdiff_t pitch, const uint16_t* info, uint32_t grid,
                         Velmo2FrameWord word,
                         void (*seam)(int16_t*, ptrdiff_t, ptrdiff_t, uint16_t,
                                      uint16_t) = Velmo2ResidualSeamEdge);

// ---- Flat blocks ---------------------------------------------------------------------------

// Settles block (bx, by) if it is an intra block of class 3: its 8x8 pixels are interpolated
// from the DC values of its 3x3 neighbourhood; a neighbour counts only when its word is within
// limit * 8 of the block's own (limit: the frame word's T). Returns whether it wrote.
// `flat` interpolates the pixels (the decoder's table entry; null: the plain form).
bool Velmo2SettleFlatBlock(const Velmo2Plane& plane, const Velmo2InfoGrid& grid, uint32_t limit,
                           uint32_t bx, uint32_t by,
                           void (*flat)(const int32_t[3][3], uint8_t*, ptrdiff_t, uint32_t,
                                        uint32_t) = nullptr);

// ---- Seams ---------------------------------------------------------------------------------

// A seam record: a 32-bit count of macroblocks, then two 16-bit codes per macroblock, luma
// first, then chroma. The luma code holds the filter codes of the four 8-pixel parts of the
// edge, lowest nibble leftmost; the chroma code those of Cr (nibbles 0-1) and Cb (2-3).
// The record is the horizontal edge 16 luma lines (8 chroma lines) below a slice's start.
struct Velmo2SeamGrids {
  Velmo2InfoGrid Luma, Cr, Cb;
};

// Writes the codes of macroblock mbx whose row starts at luma line `top` into `record` (of
// `bytes` bytes, the layout's SeamRecordBytes) and raises the record's count to cover it.
// False, writing nothing, when the macroblock has no room in the record.
bool Velmo2WriteSeamCodes(uint8_t* record, size_t bytes, const Velmo2EdgeRules& rules,
                          const Velmo2SeamGrids& grids, uint32_t height, uint32_t top,
                          uint32_t mbx);

// Applies a record to the seam at luma line `boundary` (luma at boundary + 14, Cr and Cb at
// boundary / 2 + 6) and sets its count to 0. A record of count 0 is passed over; `bytes`
// is the record's size, which bounds the macroblocks read.
void Velmo2ApplySeam(uint8_t* record, size_t bytes, const Velmo2Plane& y, const Velmo2Plane& cr,
                     const Velmo2Plane& cb, uint32_t boundary);

// After all workers of a frame: applies the record of each slice boundary, record k (for the
// boundary at the end of slice k) standing at records + k * layout.SeamRecordBytes.
void Velmo2FinishSeams(uint8_t* records, const Velmo2SliceLayout& layout, const Velmo2Plane& y,
                       const Velmo2Plane& cr, const Velmo2Plane& cb);
