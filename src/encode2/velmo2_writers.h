// Writers of the second-generation stream's syntax elements, the exact inverses of the
// decoder's readers (decode/velmo2_syntax.h), with its tables. Each writer is a template over a
// bit sink (velmo2_bit_writer.h): Velmo2BitSink to write, Velmo2BitCounter to learn a trial's
// length without writing it. Writers allocate nothing and keep no state of their own: the
// state the syntax depends on (the kind list, each plane's previous mask) is passed in and
// updated as the reader updates it.
#pragma once
#include "decode/velmo2_syntax.h"
#include "decode/velmo2_tables.h"
#include "encode2/velmo2_bit_writer.h"

#include <bit>
#include <cstddef>
#include <cstdint>

// ---- Kinds and quantisers ------------------------------------------------------------------

// Writes `kind` through the list and updates the list as the reader does.
template <class Sink>
void Velmo2WriteKind(Sink& s, Velmo2KindList& list, uint32_t kind) {
  // The codes of slots 0..3, first bit lowest: "1", "01", "000", "001".
  static constexpr uint8_t kBits[4] = {1, 2, 0, 4};
  static constexpr uint8_t kLength[4] = {1, 2, 3, 3};
  uint32_t slot = 0;
  while (slot < 3 && list.Kinds[slot] != kind) ++slot;
  s.Put(kBits[slot], kLength[slot]);
  uint32_t consumed = 0;
  Velmo2TakeKind(list.Kinds, kBits[slot], &consumed);  // the list moves as the reader's does
}

// The largest quantiser difference the code carries.
constexpr int32_t Velmo2MaxQuantiserDiff = 5 + 31;

// Writes a quantiser difference; false (nothing written) when |d| is above the code's reach.
template <class Sink>
bool Velmo2WriteQuantiserDiff(Sink& s, int32_t d) {
  const uint32_t mag = uint32_t(d < 0 ? -d : d);
  if (mag > uint32_t(Velmo2MaxQuantiserDiff)) return false;
  if (mag < Velmo2QuantiserEscape) {
    const Velmo2QuantiserCode& c = Velmo2QuantiserCodes[mag];
    s.Put(c.Bits, c.Length);
  } else {
    const Velmo2QuantiserCode& c = Velmo2QuantiserCodes[Velmo2QuantiserEscape];
    s.Put(c.Bits | (mag - c.Magnitude) << c.Length, c.Length + Velmo2QuantiserEscapeBits);
  }
  if (mag != 0) s.Put(d < 0, 1);
  return true;
}

// ---- Masks ---------------------------------------------------------------------------------

// Writes a luma (also alpha, HDR) mask: `blocks` has a bit per block with AC data (low 16 bits),
// `clone` asks for the high copy, which makes every coded quadrant of the plane use run code
// table 2 instead of table 1. With frame word bit 18 an empty mask has no clone bit. Returns
// the mask word as the reader will hold it: the plane's next previous mask, and the word whose
// quadrants the AC writers take.
template <class Sink>
uint32_t Velmo2WriteLumaMask(Sink& s, uint32_t previous, uint32_t blocks, bool clone,
                             Velmo2FrameWord word) {
  blocks &= 0xFFFF;
  const int c = std::popcount(previous & 0xFFFF);
  const bool flip = c >= 8;
  const int z = flip ? 16 - c : c;
  const uint32_t m = flip ? blocks ^ 0xFFFF : blocks;
  if (m == 0) {
    s.Put(1, 1);
  } else if (z < 4) {
    s.Put(0, 1);
    for (uint32_t i = 0; i < 4; ++i) {
      const uint32_t nibble = m >> (4 * i) & 15;
      if (nibble == 0) {
        s.Put(1, 1);
      } else {
        s.Put(nibble << 1, 5);  // the 0 flag, then the nibble
      }
    }
  } else {
    s.Put(0, 1);
    s.Put(m, 16);
  }
  if (word.WideInterDc() && blocks == 0) return 0;
  s.Put(clone, 1);
  return clone ? blocks | blocks << 16 : blocks;
}

// Writes a chroma mask: `blocks` has the four block bits, `clone` asks for run code table 2.
// The one-bit default is taken when it gives these blocks and that table. Returns the mask
// word as the reader will hold it (the plane's next previous mask).
template <class Sink>
uint32_t Velmo2WriteChromaMask(Sink& s, uint32_t previous, uint32_t blocks, bool clone) {
  blocks &= 15;
  const uint32_t fallback = std::popcount(previous & 15) >= 2 ? 15u : 0u;
  const uint32_t kept = previous & 0xF0000;
  // With no block coded the table is never used, so the default serves whatever it keeps.
  if (fallback == blocks && (blocks == 0 || (kept != 0) == clone)) {
    s.Put(1, 1);
    return fallback | kept;
  }
  s.Put((blocks << 1) | uint32_t(clone) << 5, 6);  // the 0 flag, 4 bits, the clone bit
  return clone ? blocks | blocks << 16 : blocks;
}

// The run code table (1 or 2) of the quadrant whose bits are lowest in `maskWord`.
constexpr int Velmo2QuadrantTable(uint32_t maskWord) { return maskWord < 0x10000 ? 1 : 2; }

// ---- Magnitude codes -----------------------------------------------------------------------

// The largest DC level and AC level magnitudes the codes carry.
constexpr int32_t Velmo2MaxDcLevel = 513;
constexpr int32_t Velmo2MaxAcLevel = 1025;

// Bits of a DC level's code (prefix, extra bits, sign), |level| <= Velmo2MaxDcLevel.
constexpr uint32_t Velmo2DcLevelBits(int32_t level) {
  const uint32_t mag = uint32_t(level < 0 ? -level : level);
  if (mag == 0) return 1;
  if (mag <= 3) return mag + 2;
  return 2 * (uint32_t(std::bit_width(mag - 2)) + 2) - 1;
}

// Bits of an AC level's code, 1 <= |level| <= Velmo2MaxAcLevel.
constexpr uint32_t Velmo2AcLevelBits(int32_t level) {
  const uint32_t mag = uint32_t(level < 0 ? -level : level);
  if (mag <= 3) return mag + 1;
  return 2 * (uint32_t(std::bit_width(mag - 2)) + 1);
}

template <class Sink>
void Velmo2WriteDcLevel(Sink& s, int32_t level) {
  const uint32_t mag = uint32_t(level < 0 ? -level : level);
  const uint32_t sign = level < 0;
  if (mag == 0) {
    s.Put(0, 1);
  } else if (mag <= 3) {
    s.Put(((1u << mag) - 1) | sign << (mag + 1), mag + 2);  // mag ones, 0, sign
  } else {
    const uint32_t x = uint32_t(std::bit_width(mag - 2)) - 1;  // extra bits: n - 3
    const uint32_t n = x + 3;
    const uint32_t e = mag - (1u << x) - 2;
    s.Put(((1u << n) - 1) | e << (n + 1) | sign << (n + 1 + x), 2 * n - 1);
  }
}

template <class Sink>
void Velmo2WriteAcLevel(Sink& s, int32_t level) {
  const uint32_t mag = uint32_t(level < 0 ? -level : level);
  const uint32_t sign = level < 0;
  if (mag <= 3) {
    s.Put(((1u << (mag - 1)) - 1) | sign << mag, mag + 1);  // mag - 1 ones, 0, sign
  } else {
    const uint32_t x = uint32_t(std::bit_width(mag - 2)) - 1;  // extra bits: n - 2
    const uint32_t n = x + 2;
    const uint32_t e = mag - (1u << x) - 2;
    s.Put(((1u << n) - 1) | e << (n + 1) | sign << (n + 1 + x), 2 * n);
  }
}

// ---- DC residuals --------------------------------------------------------------------------

// The flag (0 when every level is 0), then each level in block order, |level| <= 513.
template <class Sink>
void Velmo2WriteDcLevels(Sink& s, const int32_t* levels, uint32_t count) {
  bool any = false;
  for (uint32_t i = 0; i < count; ++i) any |= levels[i] != 0;
  s.Put(any, 1);
  if (!any) return;
  for (uint32_t i = 0; i < count; ++i) Velmo2WriteDcLevel(s, levels[i]);
}

// ---- AC coefficients -----------------------------------------------------------------------

// One block's AC levels by scan position. Levels[0] is unused; positions past Last hold 0;
// Levels[Last] is not 0 unless Last is 0 (no level at all).
struct Velmo2AcLevels {
  int16_t Levels[64];
  uint32_t Count;  // non-zero levels
  uint32_t Last;   // last scan position with a level, 0 when none
};

// Writes one block with run code table 1 or 2. Skips up to 10 have their own symbols, longer
// ones take the escape; the seven symbol stands for the next seven positions (or the rest up to
// 63) when all hold levels and it is shorter than their single codes; the end code follows the
// last level unless that level is at 63.
template <class Sink>
void Velmo2WriteAcBlock(Sink& s, const Velmo2AcLevels& b, int table) {
  const Velmo2RunCode* codes = Velmo2RunCodes[table == 2 ? 1 : 0];
  const Velmo2RunCode& seven = codes[Velmo2RunSeven];
  const Velmo2RunCode& escape = codes[Velmo2RunEscape];
  const int16_t* levels = b.Levels;
  const uint32_t last = b.Last;
  uint32_t p = 1;
  while (p <= last) {
    uint32_t next = p;
    while (levels[next] == 0) ++next;  // stops at last at the latest
    if (next == p) {
      const uint32_t end = p + 6 < 63 ? p + 6 : 63;
      uint32_t run = p;
      while (run <= end && run <= last && levels[run] != 0) ++run;
      if (run > end && seven.Length < (end - p + 1) * codes[0].Length) {
        s.Put(seven.Bits, seven.Length);
        for (; p <= end; ++p) Velmo2WriteAcLevel(s, levels[p]);
        continue;
      }
    }
    const uint32_t skip = next - p;
    if (skip <= 10) {
      s.Put(codes[skip].Bits, codes[skip].Length);
    } else {
      s.Put(escape.Bits | skip << escape.Length, escape.Length + Velmo2RunEscapeBits);
    }
    Velmo2WriteAcLevel(s, levels[next]);
    p = next + 1;
  }
  if (p < 64) s.Put(codes[Velmo2RunEnd].Bits, codes[Velmo2RunEnd].Length);
}

// Exact length in bits of a block's code under run code table 1 or 2.
uint32_t Velmo2AcBlockBits(const Velmo2AcLevels& b, int table);

// Exactly what the block's code length changes by when the level at scan position p (not 0)
// is dropped; only the run of levels around p and the code behind it are looked at.
int32_t Velmo2AcDropBits(const Velmo2AcLevels& b, uint32_t p, int table);

// Writes one quadrant: `maskWord` has this quadrant's block bits lowest (and the clone bits from
// bit 16 up), and picks the run code table as the reader does; blocks whose bit is clear are
// not written.
template <class Sink>
void Velmo2WriteAcQuadrant(Sink& s, uint32_t maskWord, const Velmo2AcLevels* const blocks[4]) {
  const int table = Velmo2QuadrantTable(maskWord);
  for (uint32_t i = 0; i < 4; ++i) {
    if (maskWord >> i & 1) Velmo2WriteAcBlock(s, *blocks[i], table);
  }
}

// ---- Motion vector differences -------------------------------------------------------------

// The largest vector difference magnitude the code carries (the escape's 16 bits).
constexpr int32_t Velmo2MaxVectorDiff = 65535;

// One signed Exp-Golomb difference, |d| <= Velmo2MaxVectorDiff.
template <class Sink>
void Velmo2WriteVectorDiff(Sink& s, int32_t d) {
  const uint32_t i = d > 0 ? uint32_t(d) * 2 : uint32_t(-int64_t(d)) * 2 - (d < 0 ? 1 : 0);
  if (i >= 65535) {
    s.Put(0, 16);
    s.Put(i - 65535, 16);
    return;
  }
  const uint32_t z = uint32_t(std::bit_width(i + 1)) - 1;
  const uint32_t e = i + 1 - (1u << z);
  s.Put(1u << z | e << (z + 1), 2 * z + 1);  // z zeros, a 1, then e
}

constexpr uint32_t Velmo2VectorDiffBits(int32_t d) {
  const uint32_t i = d > 0 ? uint32_t(d) * 2 : uint32_t(-int64_t(d)) * 2 - (d < 0 ? 1 : 0);
  return i >= 65535 ? 32 : 2 * (uint32_t(std::bit_width(i + 1)) - 1) + 1;
}

// The count flag (1: one vector for the macroblock), the x differences, then the y ones.
template <class Sink>
void Velmo2WriteVectorDiffs(Sink& s, bool single, const int32_t x[4], const int32_t y[4]) {
  s.Put(single, 1);
  const uint32_t n = single ? 1 : 4;
  for (uint32_t i = 0; i < n; ++i) Velmo2WriteVectorDiff(s, x[i]);
  for (uint32_t i = 0; i < n; ++i) Velmo2WriteVectorDiff(s, y[i]);
}

// ---- Edge maps -----------------------------------------------------------------------------

// A map of `entries` entries as the reader leaves it: entry i is bit i + 1 of map[].
inline uint32_t Velmo2EdgeMapEntry(const uint32_t* map, uint32_t i) {
  return map[(i + 1) / 32] >> ((i + 1) % 32) & 1;
}

// Writes the run-coded form of a map (its leading 1 included).
template <class Sink>
void Velmo2WriteRunCodedMap(Sink& s, const uint32_t* map, uint32_t entries) {
  s.Put(1, 1);
  uint32_t at = 0;     // next entry to cover
  uint32_t state = 0;  // 3: the next group's value is the opposite of the last, unwritten
  while (at < entries) {
    const uint32_t rem = entries - at;
    const uint32_t v = Velmo2EdgeMapEntry(map, at);
    uint32_t same = 1;
    while (same < rem && Velmo2EdgeMapEntry(map, at + same) == v) ++same;
    const uint32_t b = rem < 4 ? 2 : rem < 16 ? 4 : 5;
    const uint32_t n = b + 1 + (state != 3 ? 1 : 0);
    const bool explicitValue = state != 3;
    if (same >= (n < rem ? n : rem)) {
      // A run: n entries (or all that are left), then b bits for up to 2^b - 1 more.
      s.Put(1, 1);
      if (explicitValue) s.Put(v, 1);
      uint32_t m = n < rem ? n : rem;
      if (m < rem) {
        const uint32_t most = (1u << b) - 1;
        const uint32_t e = same - m < most ? same - m : most;
        s.Put(e, b);
        state = e == most ? 1 : 3;
        m += e;
      }
      at += m;
    } else {
      // A literal group: one entry (its value implied after a run that ended on a change), then
      // up to four raw entries.
      s.Put(0, 1);
      if (explicitValue) s.Put(v, 1);
      state = 2;
      const uint32_t more = rem <= 4 ? rem - 1 : 4;
      for (uint32_t i = 1; i <= more; ++i) s.Put(Velmo2EdgeMapEntry(map, at + i), 1);
      at += more + 1;
    }
  }
}

// Writes one map in the shorter of the raw and the run-coded form.
template <class Sink>
void Velmo2WriteEdgeMap(Sink& s, const uint32_t* map, uint32_t entries) {
  Velmo2BitCounter coded;
  Velmo2WriteRunCodedMap(coded, map, entries);
  if (coded.Bits() < uint64_t(entries) + 1) {
    Velmo2WriteRunCodedMap(s, map, entries);
    return;
  }
  s.Put(0, 1);
  for (uint32_t i = 0; i < entries; ++i) s.Put(Velmo2EdgeMapEntry(map, i), 1);
}

// Entries of the map along a picture dimension: one per inner block edge.
constexpr uint32_t Velmo2EdgeMapEntries(uint32_t size) { return size >= 8 ? size / 8 - 1 : 0; }

// Writes the maps the frame word calls for, row map first.
template <class Sink>
void Velmo2WriteEdgeMaps(Sink& s, Velmo2FrameWord word, uint32_t width, uint32_t height,
                         const uint32_t* rows, const uint32_t* columns) {
  if (word.HasRowMap()) Velmo2WriteEdgeMap(s, rows, Velmo2EdgeMapEntries(height));
  if (word.HasColumnMap()) Velmo2WriteEdgeMap(s, columns, Velmo2EdgeMapEntries(width));
}

// ---- Frame header --------------------------------------------------------------------------

// Byte offset of slice 0's data: after the frame word and the offset table.
constexpr uint32_t Velmo2SliceDataStart(uint32_t slices) { return slices < 3 ? 8 : slices * 4; }

// Writes the frame word and room for the slice offset table (zeros), up to where slice 0's data
// begins. The sink must be at the start of the section.
inline void Velmo2WriteFrameHeader(Velmo2BitSink& s, uint32_t frameWord, uint32_t slices) {
  s.Put(frameWord, 32);
  for (uint32_t i = 4; i < Velmo2SliceDataStart(slices); i += 4) s.Put(0, 32);
}

// Enters slice k's (k >= 1) byte offset into the table written by Velmo2WriteFrameHeader.
inline void Velmo2SetSliceOffset(Velmo2BitSink& s, uint32_t k, uint32_t byteOffset) {
  s.SetWord(k, byteOffset);
}
