// Second-generation video sections for tests, fuzz seeds and benchmarks, written from the
// format's coding rules: single syntax elements over BitWriter, writer-side models of the state
// the syntax depends on (the adaptive kind list, each plane's previous mask, the quantiser
// prediction), and a generator of complete random valid sections that is deterministic from a
// seed. Nothing here calls the decoder's readers; tests read the results back with them.
//
// Also the frame buffers the second-generation decoder writes into, with guard bytes around
// every plane. This header needs no test framework, so fuzz targets and benchmarks use it too.
#pragma once
#include "support/bit_writer.h"
#include "velmo_frame.h"

#include <algorithm>
#include <cstdint>
#include <cstring>
#include <random>
#include <string_view>
#include <utility>
#include <vector>

namespace velmo2_test {

// ---- Single elements ------------------------------------------------------------------------

// Quantiser difference: magnitude code, then a sign bit (1 subtracts) unless 0. |d| <= 36.
inline void PutQuantiserDiff(BitWriter& w, int32_t d) {
  const uint32_t mag = uint32_t(d < 0 ? -d : d);
  static const char* kShort[5] = {"1", "01", "001", "00010", "00011"};
  if (mag < 5) {
    w.Code(kShort[mag]);
  } else {
    w.Code("0000").Put(mag - 5, 5);
  }
  if (mag != 0) w.PutBit(d < 0);
}

// Magnitude prefix: n ones, then a 0 unless n is 11.
inline void PutOnes(BitWriter& w, uint32_t n) {
  for (uint32_t i = 0; i < n; ++i) w.PutBit(1);
  w.PutBit(0);  // behind eleven 1 bits, the twelfth bit is read as the end all the same
}

// A DC residual level, |level| <= 513: the prefix n, n - 3 extra bits from n = 4, a sign bit
// behind any non-zero level.
inline void PutDcLevel(BitWriter& w, int32_t level) {
  const uint32_t mag = uint32_t(level < 0 ? -level : level);
  if (mag == 0) {
    PutOnes(w, 0);
    return;
  }
  if (mag <= 3) {
    PutOnes(w, mag);
  } else {
    uint32_t n = 4;
    while (mag > (2u << (n - 3)) + 1) ++n;  // n covers 2^(n-3) + 2 .. 2^(n-2) + 1
    PutOnes(w, n);
    w.Put(mag - (1u << (n - 3)) - 2, n - 3);
  }
  w.PutBit(level < 0);
}

// An AC level, 1 <= |level| <= 1025: prefix n (magnitude n + 1 below 3), then n - 2 extra
// bits, then the sign.
inline void PutAcLevel(BitWriter& w, int32_t level) {
  const uint32_t mag = uint32_t(level < 0 ? -level : level);
  if (mag <= 3) {
    PutOnes(w, mag - 1);
  } else {
    uint32_t n = 3;
    while (mag > (2u << (n - 2)) + 1) ++n;
    PutOnes(w, n);
    w.Put(mag - (1u << (n - 2)) - 2, n - 2);
  }
  w.PutBit(level < 0);
}

// A signed Exp-Golomb vector difference, with the escape of sixteen 0 bits for the largest.
inline void PutVectorDiff(BitWriter& w, int32_t v) {
  const uint32_t i = v >= 0 ? uint32_t(2 * v) : uint32_t(-2 * int64_t(v) - 1);
  if (i >= 65535) {
    w.Put(0, 16).Put(i - 65535, 16);
    return;
  }
  uint32_t z = 0;
  while ((2u << z) - 1 <= i) ++z;  // z codes i in 2^z - 1 .. 2^(z+1) - 2
  w.Put(0, z).PutBit(1).Put(i + 1 - (1u << z), z);
}

// The count flag (1: one vector), then the x differences, then the y differences.
inline void PutVectorDiffs(BitWriter& w, bool single, const int32_t x[4], const int32_t y[4]) {
  w.PutBit(single);
  const uint32_t n = single ? 1 : 4;
  for (uint32_t i = 0; i < n; ++i) PutVectorDiff(w, x[i]);
  for (uint32_t i = 0; i < n; ++i) PutVectorDiff(w, y[i]);
}

// ---- AC run codes ---------------------------------------------------------------------------

struct RunSymbol {
  const char* Code[2];  // tables 1 and 2
  uint32_t Skip;
  uint32_t Repeat;
};

// The run code tables, escape left out: skips 0 to 10, end (skip 64) and seven (repeat 7).
inline constexpr RunSymbol kRunSymbols[] = {
    {{"1", "1"}, 0, 0},
    {{"000", "001"}, 1, 0},
    {{"0010", "0000"}, 2, 0},
    {{"001101000", "0001"}, 3, 0},
    {{"001101100", "01000"}, 4, 0},
    {{"0011000", "0100110"}, 5, 0},
    {{"0011001", "01010"}, 6, 0},
    {{"001101010", "010010"}, 7, 0},
    {{"00110111", "0101110"}, 8, 0},
    {{"001101001", "01011110"}, 9, 0},
    {{"001101101", "01011111"}, 10, 0},
    {{"01", "011"}, 64, 0},
    {{"00111", "010110"}, 0, 7},
};
inline constexpr const char* kRunEscape[2] = {"001101011", "0100111"};

// A run code of table 1 or 2 for `skip`: its own symbol up to 10, end for 64, else the escape
// with 6 bits.
inline void PutRun(BitWriter& w, int table, uint32_t skip) {
  const int t = table - 1;
  if (skip == 64) {
    w.Code(t ? "011" : "01");
  } else if (skip <= 10) {
    w.Code(kRunSymbols[skip].Code[t]);
  } else {
    w.Code(kRunEscape[t]).Put(skip, 6);
  }
}

inline void PutRunEscape(BitWriter& w, int table, uint32_t skip) {
  w.Code(kRunEscape[table - 1]).Put(skip, 6);
}

inline void PutSeven(BitWriter& w, int table) { w.Code(table == 1 ? "00111" : "010110"); }

// The run code table of a quadrant whose mask word (shifted to the quadrant) is `word`.
inline int RunTableFor(uint32_t word) { return word < 0x10000 ? 1 : 2; }

// One block's AC levels by scan index (Levels[0] unused; 0 = no coefficient). The writer
// takes seven where the next seven indexes (up to 63) all hold levels and no skip is needed,
// else a run code for the skip to the next level, and ends with the end code, or with an
// escape whose skip passes 63 when EndByEscape is set. A block whose last level is at 63
// needs no end.
struct AcBlock {
  int16_t Levels[64] = {};
  bool EndByEscape = false;

  uint32_t Count() const {
    uint32_t n = 0;
    for (int p = 1; p < 64; ++p) n += Levels[p] != 0;
    return n;
  }
};

inline void PutAcBlock(BitWriter& w, int table, const AcBlock& b) {
  uint32_t p = 1;
  while (p < 64) {
    uint32_t next = p;
    while (next < 64 && b.Levels[next] == 0) ++next;
    if (next == 64) {
      if (b.EndByEscape) {
        PutRunEscape(w, table, 63);
      } else {
        PutRun(w, table, 64);
      }
      return;
    }
    bool seven = next == p;
    for (uint32_t k = p; seven && k < p + 7 && k < 64; ++k) seven = b.Levels[k] != 0;
    if (seven) {
      PutSeven(w, table);
      for (uint32_t k = p; k < p + 7 && k < 64; ++k) PutAcLevel(w, b.Levels[k]);
      p += 7;
      continue;
    }
    PutRun(w, table, next - p);
    PutAcLevel(w, b.Levels[next]);
    p = next + 1;
  }
}

// One quadrant: `word` is the mask word shifted so that this quadrant's bits are lowest; the
// blocks whose bit is set are written, with the table the word picks.
inline void PutAcQuadrant(BitWriter& w, uint32_t word, const AcBlock* blocks[4]) {
  const int table = RunTableFor(word);
  for (int i = 0; i < 4; ++i) {
    if (word >> i & 1) PutAcBlock(w, table, *blocks[i]);
  }
}

// ---- DC residuals ---------------------------------------------------------------------------

// The flag bit (0: every level is 0), then one level per block in block order.
inline void PutDcResiduals(BitWriter& w, const int32_t* levels, uint32_t count) {
  bool any = false;
  for (uint32_t i = 0; i < count; ++i) any |= levels[i] != 0;
  w.PutBit(any);
  if (!any) return;
  for (uint32_t i = 0; i < count; ++i) PutDcLevel(w, levels[i]);
}

// ---- Macroblock kinds -----------------------------------------------------------------------

// The writer's copy of the adaptive kind list: the code of a kind depends on its place, and
// the list changes with every code as the reader's does.
struct KindListModel {
  uint8_t Kinds[4] = {2, 3, 1, 0};  // motion, residual, skipped, intra: at every row start

  void Reset() { *this = KindListModel{}; }

  void Put(BitWriter& w, uint32_t kind) {
    int i = 0;
    while (Kinds[i] != kind) ++i;
    switch (i) {
      case 0: w.Code("1"); break;
      case 1: w.Code("01"); std::swap(Kinds[0], Kinds[1]); break;
      case 3: w.Code("001"); std::swap(Kinds[2], Kinds[3]); break;
      default: w.Code("000"); std::swap(Kinds[1], Kinds[2]); break;
    }
  }
};

// ---- Masks ----------------------------------------------------------------------------------

inline uint32_t BitCount(uint32_t v) {
  uint32_t n = 0;
  for (; v; v &= v - 1) ++n;
  return n;
}

// Writes a luma-like mask with AC blocks `blocks` (16 bits) and the clone choice, coded
// against the plane's previous mask `*previous`, which becomes the word the reader makes.
// With frame word bit 18 an all-zero mask has no clone bit (and is never cloned).
inline uint32_t PutLumaMask(BitWriter& w, uint32_t* previous, uint32_t blocks, bool clone,
                            uint32_t frameWord) {
  blocks &= 0xFFFF;
  const uint32_t c = BitCount(*previous & 0xFFFF);
  const bool flip = c >= 8;
  const uint32_t z = flip ? 16 - c : c;
  const uint32_t m = flip ? ~blocks & 0xFFFF : blocks;
  if (m == 0) {
    w.PutBit(1);
  } else {
    w.PutBit(0);
    if (z < 4) {
      for (int i = 0; i < 4; ++i) {
        const uint32_t nibble = m >> (4 * i) & 0xF;
        w.PutBit(nibble == 0);
        if (nibble) w.Put(nibble, 4);
      }
    } else {
      w.Put(m, 16);
    }
  }
  uint32_t word = blocks;
  if (!((frameWord & 0x40000) && blocks == 0)) {
    w.PutBit(clone);
    if (clone) word |= blocks << 16;
  }
  *previous = word;
  return word;
}

// A chroma mask: with UseDefault the one-bit code (15 when the previous low nibble has two or
// more bits set, else 0, with the previous bits 16-19 kept), else Blocks (4 bits) and the
// clone bit.
struct ChromaMaskChoice {
  bool UseDefault = false;
  uint32_t Blocks = 0;
  bool Clone = false;
};

inline uint32_t PutChromaMask(BitWriter& w, uint32_t* previous, const ChromaMaskChoice& c) {
  uint32_t word;
  if (c.UseDefault) {
    w.PutBit(1);
    word = (BitCount(*previous & 0xF) >= 2 ? 15u : 0u) | (*previous & 0xF0000);
  } else {
    const uint32_t x = c.Blocks & 0xF;
    w.PutBit(0).Put(x, 4).PutBit(c.Clone);
    word = c.Clone ? x | x << 16 : x;
  }
  *previous = word;
  return word;
}

// ---- Edge maps ------------------------------------------------------------------------------

// Raw: the flag 0, then one bit per entry.
inline void PutEdgeMapRaw(BitWriter& w, const std::vector<int>& entries) {
  w.PutBit(0);
  for (int e : entries) w.PutBit(e);
}

// Run coded: the flag 1, then a run wherever one of the least length fits, else a literal
// group. It keeps the reader's state to know which values the stream may leave out.
inline void PutEdgeMapRunCoded(BitWriter& w, const std::vector<int>& entries) {
  w.Code("1");
  const uint32_t n = uint32_t(entries.size());
  uint32_t i = 0, state = 0;
  while (i < n) {
    const uint32_t rem = n - i;
    uint32_t same = 1;
    while (i + same < n && entries[i + same] == entries[i]) ++same;
    const uint32_t b = rem < 4 ? 2 : rem < 16 ? 4 : 5;
    const uint32_t least = state == 3 ? b + 1 : b + 2;
    if (same >= least) {
      w.Code("1");
      if (state != 3) w.PutBit(entries[i]);
      uint32_t m = least;
      if (rem > m) {
        const uint32_t e = std::min(same - m, (1u << b) - 1);
        w.Put(e, b);
        state = e == (1u << b) - 1 ? 1 : 3;
        m += e;
      }
      i += m;
    } else {
      w.Code("0");
      if (state != 3) w.PutBit(entries[i]);
      state = 2;
      const uint32_t more = rem <= 4 ? rem - 1 : 4;
      for (uint32_t k = 1; k <= more; ++k) w.PutBit(entries[i + k]);
      i += more + 1;
    }
  }
}

inline void PutEdgeMap(BitWriter& w, const std::vector<int>& entries, bool runCoded) {
  if (runCoded) {
    PutEdgeMapRunCoded(w, entries);
  } else {
    PutEdgeMapRaw(w, entries);
  }
}

// Entries of the row map ((height / 8) - 1) and of the column map ((width / 8) - 1).
inline uint32_t RowMapEntries(uint32_t height) { return height / 8 - 1; }
inline uint32_t ColumnMapEntries(uint32_t width) { return width / 8 - 1; }
inline bool HasRowMap(uint32_t frameWord) { return (frameWord & 0x10000) && !(frameWord & 0x8000); }
inline bool HasColumnMap(uint32_t frameWord) {
  return (frameWord & 0x10000) && !(frameWord & 0x4000);
}

// ---- Frame layout ---------------------------------------------------------------------------

// Byte at which slice 0's data begins: after the offset table, at 8 below 3 slices.
inline uint32_t FirstSliceByte(uint32_t slices) { return slices < 3 ? 8 : slices * 4; }

// The section: frame word, the offsets of slices 1 and up, then each slice's data (each a
// whole number of words, as BitWriter::Bytes pads them).
inline std::vector<uint8_t> AssembleSection(uint32_t frameWord,
                                            const std::vector<std::vector<uint8_t>>& slices) {
  std::vector<uint8_t> out(FirstSliceByte(uint32_t(slices.size())), 0);
  std::memcpy(out.data(), &frameWord, 4);
  for (size_t k = 0; k < slices.size(); ++k) {
    if (k > 0) {
      const uint32_t offset = uint32_t(out.size());
      std::memcpy(out.data() + 4 * k, &offset, 4);
    }
    out.insert(out.end(), slices[k].begin(), slices[k].end());
  }
  return out;
}

// Slice ends in lines, by the tag's letter ('f' .. 'm'), the file flags' slice mode and the
// picture height. Rows of the last slice run to the rounded height (for 'f', to the height).
inline std::vector<uint32_t> SliceEnds(char letter, uint32_t fileFlags, uint32_t height) {
  const uint32_t a = (height + 31) & ~31u;
  if (letter == 'f') {
    const uint32_t first = ((height + 32) / 2) & ~31u;
    return first >= height ? std::vector<uint32_t>{height} : std::vector<uint32_t>{first, height};
  }
  uint32_t n = 1;
  if (a > 127) {  // by the rounded height: one slice up to 96 lines
    static const uint32_t kByMode[4] = {2, 3, 4, 8};
    n = letter == 'g' ? 2 : kByMode[fileFlags & 3];
  }
  if (n == 1) return {a};
  if (letter == 'g') return {(a / 2) & ~31u, a};
  std::vector<uint32_t> ends;
  uint32_t end = ((n * 32 + a - 1) / n) & ~31u;
  ends.push_back(end);
  for (uint32_t m = n - 1; m > 1; --m) {
    end += ((m * 32 - end + a - 1) / m) & ~31u;
    ends.push_back(end);
  }
  ends.push_back(a);
  return ends;
}

// ---- Random valid sections ------------------------------------------------------------------

struct StreamShares {
  // Kinds of the macroblocks of an inter frame (a key frame has only intra ones); weights.
  double Intra = 0.1, Skipped = 0.3, Motion = 0.3, Residual = 0.3;
  double CodedBlocks = 0.4;  // chance that a block of a coded plane has AC data (its mask bit)
  double AcDensity = 0.15;   // chance of a level at each scan index of such a block, near the
                             // start; it falls off linearly towards index 63
  uint32_t LevelSpread = 6;  // AC and DC levels mostly within this; now and then far larger
  uint32_t VectorSpread = 8; // half pixels: a frame-wide motion within this, and each vector
                             // within this of that motion
  int32_t QMin = 4, QMax = 28;  // quantisers stay within, inside 0 .. 36
  double QChange = 0.3;      // chance that a macroblock codes a new quantiser
  double ChromaResidual = 0.6;  // chance that a residual macroblock codes Cr and Cb
};

struct StreamPlan {
  uint32_t Width = 64, Height = 64;
  char Tag = 'j';          // the tag's letter: 'f' .. 'm'
  uint32_t FileFlags = 0;  // its low two bits pick the slice count
  bool Key = true;
  bool Alpha = false, Hdr = false;
  // Frame word; the current-stream bit is always added. Bits 14 to 16 decide the edge maps,
  // bit 18 the luma mask rule, bit 19 whether alpha data is coded.
  uint32_t FrameWord = 0x10000 | 4;
  double EdgeDensity = 0.1;  // chance that a map entry starts a run of 1 entries
  StreamShares Shares;
  uint64_t Seed = 1;
};

// What the generator wrote for one macroblock, for tests that read the section back.
struct MacroblockTrace {
  uint32_t Kind;
  int32_t Quantiser;     // the one it codes (intra or residual), else the predicted intra one
  uint32_t LumaMask;     // the Y mask word as the reader makes it; 0 without Y data
  bool Chroma;           // Cr and Cb data were written
  uint32_t LumaAcCount;  // Y AC levels written
  int32_t X[4], Y[4];    // the vectors the reader keeps, quadrant order; 0 in key frames
};

struct StreamTrace {
  std::vector<int> RowMap, ColumnMap;        // as written; empty when absent
  std::vector<uint32_t> SliceBytes;          // offset of each slice's data in the section
  std::vector<uint64_t> SliceBits;           // bits written for each slice, before padding
  std::vector<uint32_t> SliceEnds;           // in lines
  std::vector<MacroblockTrace> Macroblocks;  // in stream order
};

// ---- Motion vectors -------------------------------------------------------------------------

inline int32_t Median3(int32_t a, int32_t b, int32_t c) {
  return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

// One component of a macroblock's four vectors, coded against the prediction from the
// neighbours (four values each, quadrant order; null where a neighbour is missing; aboveLeft
// is used only with both above and left). Each vector is predicted after the ones before it
// have their values, in the order 0 1 2 3, or 0 2 1 3 with only a left neighbour. `want`
// holds the values to reach (with `single`, want[0] for all four); with `zero` each vector
// takes its prediction instead, as a non-key intra macroblock's. Gives the differences to write
// and the values the reader ends with.
inline void CodeVectorComponent(const int32_t* above, const int32_t* left,
                                const int32_t* aboveLeft, bool single, bool zero,
                                const int32_t want[4], int32_t diff[4], int32_t out[4]) {
  const auto predict = [&](int i) -> int32_t {
    if (i == 3) return Median3(out[0], out[1], out[2]);
    if (above && left) {
      if (i == 0) return Median3(above[2], left[1], aboveLeft[3]);
      return i == 1 ? Median3(out[0], above[2], above[3]) : Median3(out[0], left[1], left[3]);
    }
    if (above) {
      if (i == 0) return Median3(above[2], above[0], above[3]);
      return i == 1 ? Median3(out[0], above[2], above[3]) : Median3(out[0], out[1], above[2]);
    }
    if (left) {
      if (i == 0) return Median3(left[1], left[0], left[3]);
      return i == 1 ? Median3(out[0], out[2], left[1]) : Median3(out[0], left[1], left[3]);
    }
    return i == 0 ? 0 : out[0];
  };
  static const int kOrder[2][4] = {{0, 1, 2, 3}, {0, 2, 1, 3}};
  const int* order = kOrder[!above && left];
  for (int k = 0; k < 4; ++k) {
    const int i = order[k];
    const int32_t predicted = predict(i);
    out[i] = zero ? predicted : want[single ? 0 : i];
    diff[i] = out[i] - predicted;
    if (single && i == 0) {
      out[1] = out[2] = out[3] = out[0];
      diff[1] = diff[2] = diff[3] = 0;
      return;
    }
  }
}

class StreamGenerator {
 public:
  explicit StreamGenerator(const StreamPlan& plan) : P(plan), Rng(plan.Seed) {
    Word = P.FrameWord | 0x2000;
    Columns = (P.Width + 31) / 32;
    const int32_t s = int32_t(P.Shares.VectorSpread);
    MotionX = Between(-s, s);
    MotionY = Between(-s, s);
  }

  std::vector<uint8_t> Section(StreamTrace* trace) {
    Trace = trace;
    const std::vector<uint32_t> ends = SliceEnds(P.Tag, P.FileFlags, P.Height);
    std::vector<std::vector<uint8_t>> slices;
    uint32_t start = 0;
    for (size_t k = 0; k < ends.size(); ++k) {
      BitWriter w;
      if (k == 0) WriteEdgeMaps(w);
      const uint32_t rowEnd = (ends[k] + 31) / 32;
      for (uint32_t row = start / 32; row < rowEnd; ++row) WriteRow(w, row == start / 32);
      if (Trace) Trace->SliceBits.push_back(w.Size());
      slices.push_back(w.Bytes());
      start = rowEnd * 32;
    }
    std::vector<uint8_t> section = AssembleSection(Word, slices);
    if (Trace) {
      Trace->SliceEnds = ends;
      uint32_t at = FirstSliceByte(uint32_t(slices.size()));
      for (const auto& s : slices) {
        Trace->SliceBytes.push_back(at);
        at += uint32_t(s.size());
      }
    }
    return section;
  }

 private:
  struct Quantisers {
    int32_t Q[2];  // intra, residual
  };
  struct Vectors {
    int32_t X[4], Y[4];
  };

  StreamPlan P;
  std::mt19937_64 Rng;
  uint32_t Word;
  uint32_t Columns;
  StreamTrace* Trace = nullptr;
  KindListModel Kinds;
  uint32_t LumaPrev[3] = {};    // Y, alpha, HDR
  uint32_t ChromaPrev[2] = {};  // Cr, Cb
  std::vector<Quantisers> Above, Current;
  std::vector<Vectors> VectorsAbove, VectorsNow;
  int32_t MotionX = 0, MotionY = 0;  // the frame-wide motion

  double Uniform() { return std::uniform_real_distribution<double>(0.0, 1.0)(Rng); }
  int32_t Between(int32_t lo, int32_t hi) {
    return std::uniform_int_distribution<int32_t>(lo, hi)(Rng);
  }
  bool AlphaCoded() const { return P.Alpha && !(Word & 0x80000); }

  std::vector<int> RandomMap(uint32_t entries) {
    std::vector<int> map;
    while (map.size() < entries) {
      const bool edge = Uniform() < P.EdgeDensity;
      const uint32_t len = uint32_t(Between(1, edge ? 12 : 40));
      map.insert(map.end(), std::min<size_t>(len, entries - map.size()), edge ? 1 : 0);
    }
    return map;
  }

  void WriteEdgeMaps(BitWriter& w) {
    if (HasRowMap(Word)) {
      const std::vector<int> map = RandomMap(RowMapEntries(P.Height));
      PutEdgeMap(w, map, Uniform() < 0.5);
      if (Trace) Trace->RowMap = map;
    }
    if (HasColumnMap(Word)) {
      const std::vector<int> map = RandomMap(ColumnMapEntries(P.Width));
      PutEdgeMap(w, map, Uniform() < 0.5);
      if (Trace) Trace->ColumnMap = map;
    }
  }

  uint32_t PickKind() {
    if (P.Key) return 0;
    const StreamShares& s = P.Shares;
    double x = Uniform() * (s.Intra + s.Skipped + s.Motion + s.Residual);
    if ((x -= s.Intra) < 0) return 0;
    if ((x -= s.Skipped) < 0) return 1;
    if ((x -= s.Motion) < 0) return 2;
    return 3;
  }

  void WriteRow(BitWriter& w, bool firstRowOfSlice) {
    Kinds.Reset();
    for (uint32_t& p : LumaPrev) p = 0;
    for (uint32_t& p : ChromaPrev) p = 0;
    if (firstRowOfSlice) Above.clear();
    Current.assign(Columns, Quantisers{{16, 16}});
    if (!firstRowOfSlice) Current[0] = Above[0];
    VectorsNow.assign(Columns, Vectors{});
    for (uint32_t x = 0; x < Columns; ++x) {
      WriteMacroblock(w, Current[x], x, firstRowOfSlice);
      if (x + 1 < Columns) {
        for (int i = 0; i < 2; ++i) {
          const int32_t cur = Current[x].Q[i];
          Current[x + 1].Q[i] = firstRowOfSlice
                                    ? cur
                                    : Median3(cur, Above[x + 1].Q[i], Above[x].Q[i]);
        }
      }
    }
    Above = Current;
    VectorsAbove = VectorsNow;
  }

  void WriteMacroblock(BitWriter& w, Quantisers& q, uint32_t x, bool firstRowOfSlice) {
    const uint32_t kind = PickKind();
    MacroblockTrace t{kind, q.Q[0], 0, false, 0, {}, {}};
    if (!P.Key) Kinds.Put(w, kind);
    Vectors& v = VectorsNow[x];
    if (!P.Key && kind != 1) {
      const Vectors* above = firstRowOfSlice ? nullptr : &VectorsAbove[x];
      const Vectors* left = x > 0 ? &VectorsNow[x - 1] : nullptr;
      const Vectors* aboveLeft = above && left ? &VectorsAbove[x - 1] : nullptr;
      WriteVectors(w, kind == 0, above, left, aboveLeft, &v);
    }
    std::copy(v.X, v.X + 4, t.X);
    std::copy(v.Y, v.Y + 4, t.Y);
    if (kind == 0) {
      t.Quantiser = q.Q[0] = WriteQuantiser(w, q.Q[0]);
      WritePlanes(w, true, &t);
    } else if (kind == 2 || kind == 3) {
      if (kind == 3) {
        t.Quantiser = q.Q[1] = WriteQuantiser(w, q.Q[1]);
        WritePlanes(w, false, &t);
      }
    }
    if (Trace) Trace->Macroblocks.push_back(t);
  }

  int32_t WriteQuantiser(BitWriter& w, int32_t predicted) {
    int32_t q = predicted;
    if (Uniform() < P.Shares.QChange) q = Between(P.Shares.QMin, P.Shares.QMax);
    PutQuantiserDiff(w, q - predicted);
    return q;
  }

  // The vectors of a motion or residual macroblock around the frame's motion, coded against
  // their prediction; an intra one (`zero`) writes nothing and keeps the prediction.
  void WriteVectors(BitWriter& w, bool zero, const Vectors* above, const Vectors* left,
                    const Vectors* aboveLeft, Vectors* out) {
    const bool single = !zero && Uniform() < 0.6;
    const int32_t s = int32_t(P.Shares.VectorSpread);
    int32_t wantX[4], wantY[4], dx[4], dy[4];
    for (int i = 0; i < 4; ++i) {
      wantX[i] = MotionX + Between(-s, s);
      wantY[i] = MotionY + Between(-s, s);
    }
    CodeVectorComponent(above ? above->X : nullptr, left ? left->X : nullptr,
                        aboveLeft ? aboveLeft->X : nullptr, single, zero, wantX, dx, out->X);
    CodeVectorComponent(above ? above->Y : nullptr, left ? left->Y : nullptr,
                        aboveLeft ? aboveLeft->Y : nullptr, single, zero, wantY, dy, out->Y);
    if (!zero) PutVectorDiffs(w, single, dx, dy);
  }

  // Y, then Cr and Cb (behind a flag bit in a residual macroblock), then alpha and HDR.
  void WritePlanes(BitWriter& w, bool intra, MacroblockTrace* t) {
    t->LumaMask = WriteLumaPlane(w, &LumaPrev[0], &t->LumaAcCount);
    t->Chroma = intra || Uniform() < P.Shares.ChromaResidual;
    if (!intra) w.PutBit(t->Chroma);
    if (t->Chroma) {
      WriteChromaPlane(w, &ChromaPrev[0]);
      WriteChromaPlane(w, &ChromaPrev[1]);
    } else {
      ChromaPrev[0] = ChromaPrev[1] = 0;
    }
    uint32_t unused = 0;
    if (AlphaCoded()) WriteLumaPlane(w, &LumaPrev[1], &unused);
    if (P.Hdr) WriteLumaPlane(w, &LumaPrev[2], &unused);
  }

  uint32_t WriteLumaPlane(BitWriter& w, uint32_t* previous, uint32_t* acCount) {
    uint32_t blocks = 0;
    for (int i = 0; i < 16; ++i) blocks |= uint32_t(Uniform() < P.Shares.CodedBlocks) << i;
    const uint32_t mask = PutLumaMask(w, previous, blocks, Uniform() < 0.3, Word);
    WriteDc(w, 16);
    for (int quadrant = 0; quadrant < 4; ++quadrant) {
      *acCount += WriteQuadrant(w, mask >> (4 * quadrant));
    }
    return mask;
  }

  void WriteChromaPlane(BitWriter& w, uint32_t* previous) {
    ChromaMaskChoice c;
    c.UseDefault = Uniform() < 0.3;
    for (int i = 0; i < 4; ++i) c.Blocks |= uint32_t(Uniform() < P.Shares.CodedBlocks) << i;
    c.Clone = Uniform() < 0.3;
    const uint32_t mask = PutChromaMask(w, previous, c);
    WriteDc(w, 4);
    WriteQuadrant(w, mask);
  }

  int32_t Level(int32_t most) {
    const double x = Uniform();
    const int32_t spread = int32_t(P.Shares.LevelSpread);
    const int32_t mag = x < 0.97 ? Between(1, spread) : x < 0.995 ? Between(1, 8 * spread)
                                                                   : Between(1, most);
    return Uniform() < 0.5 ? -mag : mag;
  }

  void WriteDc(BitWriter& w, uint32_t count) {
    int32_t levels[16] = {};
    if (Uniform() < 0.75) {
      for (uint32_t i = 0; i < count; ++i) levels[i] = Uniform() < 0.3 ? 0 : Level(513);
    }
    PutDcResiduals(w, levels, count);
  }

  uint32_t WriteQuadrant(BitWriter& w, uint32_t word) {
    if ((word & 0xF) == 0) return 0;
    AcBlock blocks[4];
    const AcBlock* order[4];
    uint32_t count = 0;
    for (int i = 0; i < 4; ++i) {
      order[i] = &blocks[i];
      if (!(word >> i & 1)) continue;
      for (int p = 1; p < 64; ++p) {
        if (Uniform() < P.Shares.AcDensity * (64 - p) / 32.0) blocks[i].Levels[p] = int16_t(Level(1025));
      }
      blocks[i].EndByEscape = Uniform() < 0.1;
      count += blocks[i].Count();
    }
    PutAcQuadrant(w, word, order);
    return count;
  }
};

// A complete valid video section for `plan`; with `trace`, what was written.
inline std::vector<uint8_t> GenerateSection(const StreamPlan& plan, StreamTrace* trace = nullptr) {
  return StreamGenerator(plan).Section(trace);
}

// Plans over a grid of picture sizes, every tag and every slice mode, with frame words taken
// in turn from `words` and a fresh seed for each; alpha on every second plan, HDR with "VM2m".
// `adjust` changes each plan further (its key flag, its vector spread).
template <class Adjust>
std::vector<StreamPlan> PlanGrid(const std::vector<std::pair<uint32_t, uint32_t>>& sizes,
                                 const std::vector<uint32_t>& words, uint64_t seed,
                                 Adjust adjust) {
  std::vector<StreamPlan> plans;
  for (const auto& [w, h] : sizes) {
    for (char tag : {'g', 'h', 'j', 'm'}) {
      for (uint32_t mode = 0; mode < 4; ++mode) {
        StreamPlan p;
        p.Width = w;
        p.Height = h;
        p.Tag = tag;
        p.FileFlags = mode;
        p.Alpha = seed % 2 == 0;
        p.Hdr = tag == 'm';
        p.FrameWord = words[seed % words.size()];
        p.Seed = seed++;
        adjust(p);
        plans.push_back(p);
      }
    }
  }
  return plans;
}

// A frame of mixed kinds at a realistic density for speed measurements: the block and
// coefficient shares are scaled until the section comes close under `bitsPerPixel`.
inline StreamPlan RealisticPlan(uint32_t width, uint32_t height, bool key, uint32_t fileFlags,
                                double bitsPerPixel, uint64_t seed) {
  StreamPlan plan;
  plan.Width = width;
  plan.Height = height;
  plan.Tag = 'j';
  plan.FileFlags = fileFlags;
  plan.Key = key;
  plan.FrameWord = 0x10000 | 0x20000 | 6;
  plan.Seed = seed;
  plan.Shares.Intra = 0.04;
  plan.Shares.Skipped = 0.36;
  plan.Shares.Motion = 0.3;
  plan.Shares.Residual = 0.3;
  plan.Shares.LevelSpread = 4;
  plan.Shares.QMin = 8;
  plan.Shares.QMax = 24;
  const double blocks = key ? 0.6 : 0.3, density = key ? 0.12 : 0.08;
  const auto bpp = [&](double f) {
    plan.Shares.CodedBlocks = std::min(1.0, blocks * f);
    plan.Shares.AcDensity = density * f;
    return double(GenerateSection(plan).size()) * 8 / (double(width) * height);
  };
  double lo = 0.01, hi = 1.5;
  for (int step = 0; step < 10; ++step) {
    const double f = (lo + hi) / 2;
    (bpp(f) < bitsPerPixel ? lo : hi) = f;
  }
  bpp(lo);
  return plan;
}

// ---- Frame buffers --------------------------------------------------------------------------

// Two sets of planes with the second generation's geometry (luma in 32-wide, 16-high units,
// chroma half of it, pitches multiples of 64), alpha and HDR planes when asked, each plane with
// guard lines above and below and a guard margin to the right; all guard bytes hold Guard.
struct Frames {
  static constexpr uint8_t Guard = 0x5A;
  static constexpr uint32_t GuardLines = 2;

  VelmoFrameBuffers Fb{};
  std::vector<uint8_t> Memory[2][VelmoPlaneCount];

  Frames(uint32_t width, uint32_t height, bool alpha, bool hdr) {
    Fb.Count = 2;
    Fb.Width = width;
    Fb.Height = height;
    Fb.LumaWidth = (width + 31) & ~31u;
    Fb.LumaHeight = (height + 15) & ~15u;
    Fb.ChromaWidth = Fb.LumaWidth / 2;
    Fb.ChromaHeight = Fb.LumaHeight / 2;
    // One 64-byte unit more than the width needs, so that a write past a line's end lands in a
    // guard byte.
    Fb.LumaPitch = int32_t(((Fb.LumaWidth + 63) & ~63u) + 64);
    Fb.ChromaPitch = int32_t(((Fb.ChromaWidth + 63) & ~63u) + 64);
    Fb.HasAlpha = alpha || hdr;
    for (int s = 0; s < 2; ++s) {
      for (int p = 0; p < VelmoPlaneCount; ++p) {
        if ((p == VelmoPlaneAlpha && !alpha) || (p == VelmoPlaneHdr && !hdr)) continue;
        const size_t pitch = size_t(Pitch(p));
        Memory[s][p].assign(pitch * (Lines(p) + 2 * GuardLines), Guard);
        Fb.Sets[s].Planes[p] = Memory[s][p].data() + pitch * GuardLines;
      }
    }
  }
  Frames(const Frames&) = delete;
  Frames& operator=(const Frames&) = delete;

  int32_t Pitch(int plane) const { return Luma(plane) ? Fb.LumaPitch : Fb.ChromaPitch; }
  uint32_t Lines(int plane) const { return Luma(plane) ? Fb.LumaHeight : Fb.ChromaHeight; }
  uint32_t Bytes(int plane) const { return Luma(plane) ? Fb.LumaWidth : Fb.ChromaWidth; }

  // Fills the plane area of every present plane of set `s` with `value`.
  void Fill(int s, uint8_t value) {
    for (int p = 0; p < VelmoPlaneCount; ++p) {
      uint8_t* plane = Fb.Sets[s].Planes[p];
      if (!plane) continue;
      for (uint32_t y = 0; y < Lines(p); ++y) std::memset(plane + size_t(Pitch(p)) * y, value, Bytes(p));
    }
  }

  // True while no byte outside the plane areas has changed.
  bool GuardsIntact() const {
    for (int s = 0; s < 2; ++s) {
      for (int p = 0; p < VelmoPlaneCount; ++p) {
        const std::vector<uint8_t>& m = Memory[s][p];
        const size_t pitch = size_t(Pitch(p));
        for (size_t line = 0; line * pitch < m.size(); ++line) {
          const bool inside = line >= GuardLines && line < GuardLines + Lines(p);
          const uint8_t* from = m.data() + line * pitch + (inside ? Bytes(p) : 0);
          const uint8_t* to = m.data() + (line + 1) * pitch;
          if (std::find_if(from, to, [](uint8_t b) { return b != Guard; }) != to) return false;
        }
      }
    }
    return true;
  }

 private:
  static bool Luma(int plane) {
    return plane == VelmoPlaneY || plane == VelmoPlaneAlpha || plane == VelmoPlaneHdr;
  }
};

}  // namespace velmo2_test
