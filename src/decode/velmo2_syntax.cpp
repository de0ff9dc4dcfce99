// Readers of the second-generation stream's syntax elements; see velmo2_syntax.h.
#include "decode/velmo2_syntax.h"

#include <algorithm>
#include <bit>

// ---- Frame layout and slice layout ---------------------------------------------------------

bool Velmo2SliceOffset(const uint8_t* section, size_t size, uint32_t slices, uint32_t k,
                       uint32_t* offset) {
  if (k >= slices) return false;
  uint32_t at = 0;
  if (k == 0) {
    at = slices < 3 ? 8 : slices * 4;
  } else {
    if (size_t(k) * 4 + 4 > size) return false;
    std::memcpy(&at, section + size_t(k) * 4, 4);  // little-endian host
  }
  if (at > size) return false;
  *offset = at;
  return true;
}

namespace {

uint32_t Down32(uint32_t v) { return v & ~31u; }

// Ends for n slices spread over A lines: each slice gets the remaining lines shared among the
// slices still to place, rounded down to whole rows; the last ends at A.
void SpreadEnds(Velmo2SliceLayout& l, uint32_t n, uint32_t a) {
  l.Slices = n;
  l.EndsSet = n;
  uint32_t end = 0;
  for (uint32_t i = 0; i + 1 < n; ++i) {
    const uint32_t m = n - i;
    end += Down32((m * 32 - end + a - 1) / m);
    l.Ends[i] = end;
  }
  l.Ends[n - 1] = a;
}

}  // namespace

Velmo2SliceLayout Velmo2LayoutFor(std::string_view tag, uint32_t fileFlags, uint32_t width,
                                  uint32_t height) {
  Velmo2SliceLayout l{};
  l.SeamRecordBytes = ((width + 31) / 8 & ~3u) + 4;
  const uint32_t a = (height + 31) & ~31u;
  // The count follows the height rounded up to whole macroblock rows: one slice up to 96 lines.
  const bool tall = a > 127;
  if (tag == "VM2f") {
    l.Slices = 2;
    l.Ends[0] = Down32((height + 32) / 2);
    l.EndsSet = 1;
    if (l.Ends[0] != height) {
      l.Ends[1] = height;
      l.EndsSet = 2;
    }
  } else if (tag == "VM2g") {
    if (tall) {
      l.Slices = 2;
      l.EndsSet = 2;
      l.Ends[0] = Down32(a / 2);
      l.Ends[1] = a;
    } else {
      SpreadEnds(l, 1, a);
    }
  } else if (tag == "VM2h" || tag == "VM2i" || tag == "VM2j" || tag == "VM2k" ||
             tag == "VM2m") {
    static constexpr uint32_t kCounts[4] = {2, 3, 4, 8};
    SpreadEnds(l, tall ? kCounts[fileFlags & 3] : 1, a);
  } else {
    l.Slices = 2;
    l.SeamRecordBytes = 0;
  }
  return l;
}

// ---- Edge maps -----------------------------------------------------------------------------

namespace {

// Appends entries to a map; entry i goes to bit i + 1.
struct MapOut {
  uint32_t* Map;
  uint32_t Next;  // index of the next entry

  void Put(uint32_t v) {
    if (v) Map[(Next + 1) / 32] |= 1u << ((Next + 1) % 32);
    ++Next;
  }
  void PutBits(uint32_t bits, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) Put((bits >> i) & 1);
  }
};

// The run-coded form. Returns false for a run longer than the entries left.
bool ReadRunCodedMap(Velmo1BitReader& r, uint32_t rem, MapOut& out) {
  uint32_t state = 0;
  uint32_t v = 0;
  while (rem > 0) {
    if (Velmo1ReadBit(r)) {
      const uint32_t b = rem < 4 ? 2 : rem < 16 ? 4 : 5;
      uint32_t n = b + 1;
      if (state != 3) {
        n += 1;
        v = Velmo1ReadBit(r);
      } else {
        v = 1 - v;
      }
      uint32_t m = rem < n ? rem : n;
      rem -= m;
      if (rem != 0) {
        const uint32_t e = Velmo1Read(r, b);
        state = e == (1u << b) - 1 ? 1 : 3;
        if (e > rem) return false;
        m += e;
        rem -= e;
      }
      for (uint32_t i = 0; i < m; ++i) out.Put(v);
    } else {
      v = state != 3 ? Velmo1ReadBit(r) : 1 - v;
      state = 2;
      out.Put(v);
      const uint32_t more = rem <= 4 ? rem - 1 : 4;
      out.PutBits(Velmo1Read(r, more), more);
      rem = rem <= 4 ? 0 : rem - 5;
    }
  }
  return true;
}

}  // namespace

bool Velmo2ReadEdgeMap(Velmo1BitReader& r, uint32_t entries, uint32_t* map, size_t words) {
  if (Velmo2EdgeMapWords(entries) > words) return false;
  for (size_t i = 0; i < words; ++i) map[i] = 0;
  MapOut out{map, 0};
  bool ok = true;
  if (Velmo1ReadBit(r) == 0) {
    for (uint32_t i = 0; i < entries; ++i) out.Put(Velmo1ReadBit(r));
  } else {
    ok = ReadRunCodedMap(r, entries, out);
  }
  return ok && !Velmo2Overran(r);
}

namespace {

uint32_t MapEntries(uint32_t size) { return size >= 8 ? size / 8 - 1 : 0; }

void Clear(uint32_t* map, size_t words) {
  for (size_t i = 0; i < words; ++i) map[i] = 0;
}

}  // namespace

bool Velmo2ReadEdgeMaps(Velmo1BitReader& r, Velmo2FrameWord word, uint32_t width,
                        uint32_t height, const Velmo2EdgeMaps& maps) {
  Clear(maps.Rows, maps.RowWords);
  Clear(maps.Columns, maps.ColumnWords);
  if (word.HasRowMap() &&
      !Velmo2ReadEdgeMap(r, MapEntries(height), maps.Rows, maps.RowWords)) {
    return false;
  }
  if (word.HasColumnMap() &&
      !Velmo2ReadEdgeMap(r, MapEntries(width), maps.Columns, maps.ColumnWords)) {
    return false;
  }
  return true;
}

// ---- Peeking at codes ----------------------------------------------------------------------

namespace {

// The next n bits (n at most 32) without consuming them; a code's table lookup works on them.
uint32_t Peek(Velmo1BitReader& r, uint32_t n) {
  if (r.Count < n) Velmo1Fetch(r);
  return uint32_t(r.Buffer & ((uint64_t(1) << n) - 1));
}

}  // namespace

// ---- Macroblock kinds ----------------------------------------------------------------------

uint32_t Velmo2ReadKind(Velmo1BitReader& r, Velmo2KindList& list) {
  uint32_t consumed = 0;
  const uint32_t kind = Velmo2TakeKind(list.Kinds, Peek(r, 3), &consumed);
  Velmo1Read(r, consumed);
  return kind;
}

// ---- Quantisers ----------------------------------------------------------------------------

int32_t Velmo2ReadQuantiserDiff(Velmo1BitReader& r) {
  const uint32_t index = Velmo2QuantiserCodeOf(Peek(r, Velmo2QuantiserLongestCode));
  const Velmo2QuantiserCode& code = Velmo2QuantiserCodes[index];
  Velmo1Read(r, code.Length);
  int32_t mag = code.Magnitude;
  if (index == Velmo2QuantiserEscape) mag += int32_t(Velmo1Read(r, Velmo2QuantiserEscapeBits));
  if (mag != 0 && Velmo1ReadBit(r)) return -mag;
  return mag;
}

// ---- Masks ---------------------------------------------------------------------------------

uint32_t Velmo2ReadLumaMask(Velmo1BitReader& r, uint32_t previous, Velmo2FrameWord word) {
  const int c = std::popcount(previous & 0xFFFF);
  const bool flip = c >= 8;
  const int z = flip ? 16 - c : c;
  uint32_t m = 0;
  if (Velmo1ReadBit(r) == 0) {
    if (z < 4) {
      for (uint32_t i = 0; i < 4; ++i) {
        if (Velmo1ReadBit(r) == 0) m |= Velmo1Read(r, 4) << (4 * i);
      }
    } else {
      m = Velmo1Read(r, 16);
    }
  }
  const uint32_t mask = flip ? m ^ 0xFFFF : m;
  if (word.WideInterDc() && mask == 0) return 0;
  return Velmo1ReadBit(r) ? mask | mask << 16 : mask;
}

uint32_t Velmo2ReadChromaMask(Velmo1BitReader& r, uint32_t previous) {
  if (Velmo1ReadBit(r)) {
    const uint32_t fallback = std::popcount(previous & 15) >= 2 ? 15 : 0;
    return fallback | (previous & 0xF0000);
  }
  const uint32_t x = Velmo1Read(r, 4);
  return Velmo1ReadBit(r) ? x | x << 16 : x;
}

// ---- Shared magnitude prefix ---------------------------------------------------------------

namespace {

// The 12 bits ahead: n is the count of 1 bits below the lowest 0, at most 11, and the bit
// after them is consumed too, a 0 or, behind eleven 1 bits, whatever it is.
inline uint32_t OnesCount(Velmo1BitReader& r) {
  const uint32_t ahead = Peek(r, 12);
  const uint32_t n = std::min<uint32_t>(uint32_t(__builtin_ctz(~ahead)), 11);
  Velmo1Read(r, n + 1);
  return n;
}

}  // namespace

uint32_t Velmo2ReadOnesCount(Velmo1BitReader& r) { return OnesCount(r); }

// ---- DC residuals --------------------------------------------------------------------------

int32_t Velmo2ReadDcLevel(Velmo1BitReader& r) {
  const uint32_t n = OnesCount(r);
  if (n == 0) return 0;
  int32_t mag = int32_t(n);
  if (n >= 4) mag = int32_t(Velmo1Read(r, n - 3) + (1u << (n - 3)) + 2);
  return Velmo1ReadBit(r) ? -mag : mag;
}

void Velmo2ReadDcResiduals(Velmo1BitReader& r, int32_t scale, int32_t* out, uint32_t count) {
  const bool any = Velmo1ReadBit(r);
  for (uint32_t i = 0; i < count; ++i) out[i] = any ? Velmo2ScaleDc(Velmo2ReadDcLevel(r), scale) : 0;
}

// ---- DC prediction -----------------------------------------------------------------------

namespace {

int32_t Clamp(int32_t v, int32_t lo, int32_t hi) { return v < lo ? lo : v > hi ? hi : v; }

// 2a - b held between a and b.
int32_t Extend(int32_t a, int32_t b) {
  return Clamp(2 * a - b, a < b ? a : b, a < b ? b : a);
}

// l + t - c held between the least and the greatest of the three.
int32_t Gradient(int32_t l, int32_t t, int32_t c) {
  const int32_t lo = std::min({l, t, c});
  const int32_t hi = std::max({l, t, c});
  return Clamp(l + t - c, lo, hi);
}

// Value of the block at (x, y), where -1 reaches into the left, upper or corner neighbour.
int32_t DcAt(const Velmo2DcContext& c, const int32_t* own, int32_t x, int32_t y) {
  const uint32_t last = c.Grid - 1;
  if (x < 0 && y < 0) return c.AboveLeft[Velmo2BlockIndex(last, last)];
  if (x < 0) return c.Left[Velmo2BlockIndex(last, uint32_t(y))];
  if (y < 0) return c.Above[Velmo2BlockIndex(uint32_t(x), last)];
  return own[Velmo2BlockIndex(uint32_t(x), uint32_t(y))];
}

int32_t PredictDcAt(const Velmo2DcContext& c, const int32_t* own, int32_t x, int32_t y) {
  if (y == 0 && !c.Above) {
    if (x == 0) return c.Left ? Extend(DcAt(c, own, -1, 0), DcAt(c, own, -1, 1)) : c.Start;
    if (x == 2) return Extend(DcAt(c, own, 1, 0), DcAt(c, own, 1, 1));
    return DcAt(c, own, x - 1, 0);
  }
  if (x == 0 && !c.Left) return Extend(DcAt(c, own, 0, y - 1), DcAt(c, own, 1, y - 1));
  return Gradient(DcAt(c, own, x - 1, y), DcAt(c, own, x, y - 1), DcAt(c, own, x - 1, y - 1));
}

}  // namespace

int32_t Velmo2PredictDcBlock(const Velmo2DcContext& c, const int32_t* values, uint32_t i) {
  return PredictDcAt(c, values, int32_t(Velmo2BlockColumn(i)), int32_t(Velmo2BlockRow(i)));
}

void Velmo2PredictDc(const Velmo2DcContext& c, const int32_t* residuals, int32_t* out) {
  const uint32_t blocks = c.Grid * c.Grid;
  for (uint32_t i = 0; i < blocks; ++i)
    out[i] = Clamp(Velmo2PredictDcBlock(c, out, i) + residuals[i], c.Lo, c.Hi);
}

// ---- Motion vector differences -------------------------------------------------------------

int32_t Velmo2ReadVectorDiff(Velmo1BitReader& r) {
  uint32_t z = 0;
  while (z < 16 && Velmo1ReadBit(r) == 0) ++z;
  const uint32_t i = z == 16 ? Velmo1Read(r, 16) + 65535 : Velmo1Read(r, z) + (1u << z) - 1;
  return (i & 1) ? -int32_t((i + 1) / 2) : int32_t(i / 2);
}

Velmo2VectorDiffs Velmo2ReadVectorDiffs(Velmo1BitReader& r) {
  Velmo2VectorDiffs d{};
  d.Single = Velmo1ReadBit(r);
  const uint32_t n = d.Single ? 1 : 4;
  for (uint32_t i = 0; i < n; ++i) d.X[i] = Velmo2ReadVectorDiff(r);
  for (uint32_t i = 0; i < n; ++i) d.Y[i] = Velmo2ReadVectorDiff(r);
  return d;
}

namespace {

// Sums of vector components wrap as 32-bit values, so hostile differences cannot overflow.
int32_t Add(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }

// Vector 0's prediction.
int32_t PredictFirst(const Velmo2VectorNeighbours& n) {
  const int32_t* t = n.Above;
  const int32_t* l = n.Left;
  if (t && l) return Velmo2Median(t[2], l[1], n.AboveLeft[3]);
  if (t) return Velmo2Median(t[2], t[0], t[3]);
  if (l) return Velmo2Median(l[1], l[0], l[3]);
  return 0;
}

}  // namespace

void Velmo2PredictVectors(const Velmo2VectorNeighbours& n, bool single, const int32_t diff[4],
                          int32_t out[4]) {
  int32_t* v = out;
  v[0] = Add(PredictFirst(n), diff[0]);
  if (single) {
    v[1] = v[2] = v[3] = v[0];
    return;
  }
  const int32_t* t = n.Above;
  const int32_t* l = n.Left;
  if (t && l) {
    v[1] = Add(Velmo2Median(v[0], t[2], t[3]), diff[1]);
    v[2] = Add(Velmo2Median(v[0], l[1], l[3]), diff[2]);
  } else if (t) {
    v[1] = Add(Velmo2Median(v[0], t[2], t[3]), diff[1]);
    v[2] = Add(Velmo2Median(v[0], v[1], t[2]), diff[2]);
  } else if (l) {
    v[2] = Add(Velmo2Median(v[0], l[1], l[3]), diff[2]);  // vector 2 comes before vector 1 here
    v[1] = Add(Velmo2Median(v[0], v[2], l[1]), diff[1]);
  } else {
    v[1] = Add(v[0], diff[1]);
    v[2] = Add(v[0], diff[2]);
  }
  v[3] = Add(Velmo2Median(v[0], v[1], v[2]), diff[3]);
}

// ---- AC coefficients -----------------------------------------------------------------------

namespace {

// A run code through a table's lookup (Velmo2RunLookup) and its symbols.
inline Velmo2Run RunCode(Velmo1BitReader& r, const uint8_t* lookup, const Velmo2RunCode* codes) {
  const uint8_t entry = lookup[Peek(r, Velmo2RunLongestCode)];
  const uint32_t symbol = entry & 15;
  Velmo1Read(r, entry >> 4);
  if (symbol == Velmo2RunEscape) return Velmo2Run{Velmo1Read(r, Velmo2RunEscapeBits), 0};
  return Velmo2Run{codes[symbol].Skip, codes[symbol].Repeat};
}

inline int32_t AcLevel(Velmo1BitReader& r) {
  const uint32_t n = OnesCount(r);
  const int32_t mag =
      n < 3 ? int32_t(n + 1) : int32_t(Velmo1Read(r, n - 2) + (1u << (n - 2)) + 2);
  return Velmo1ReadBit(r) ? -mag : mag;
}

}  // namespace

Velmo2Run Velmo2ReadRunCode(Velmo1BitReader& r, int table) {
  const uint32_t t = table == 2 ? 1 : 0;
  return RunCode(r, Velmo2RunLookup(t), Velmo2RunCodes[t]);
}

int32_t Velmo2ReadAcLevel(Velmo1BitReader& r) { return AcLevel(r); }

Velmo2AcBlock Velmo2ReadAcBlock(Velmo1BitReader& r, int table, const uint16_t* dequant, int32_t q,
                                int16_t* coef) {
  Velmo2AcBlock b{0, 0, 3};
  const uint32_t t = table == 2 ? 1 : 0;
  const uint8_t* lookup = Velmo2RunLookup(t);
  const Velmo2RunCode* codes = Velmo2RunCodes[t];
  uint32_t p = 1;
  int32_t repeat = 0;
  while (p < 64) {
    if (--repeat < 1) {
      const Velmo2Run code = RunCode(r, lookup, codes);
      p += code.Skip;
      repeat = int32_t(code.Repeat);
      if (p > 63) break;
    }
    const int32_t level = AcLevel(r);
    const uint32_t k = Velmo2Scan[p];
    coef[k] = Velmo2Dequantise(level, dequant[k], uint32_t(q));
    ++b.Count;
    b.Last = p;
    ++p;
  }
  b.Class = Velmo2CoefficientClass(b.Count);
  return b;
}

void Velmo2ReadAcQuadrant(Velmo1BitReader& r, uint32_t mask, const uint16_t* dequant, int32_t q,
                          int16_t* coef[4], Velmo2AcBlock out[4]) {
  const int table = mask < 0x10000 ? 1 : 2;
  for (uint32_t i = 0; i < 4; ++i) {
    out[i] = Velmo2AcBlock{0, 0, 3};
    if (mask & (1u << i)) out[i] = Velmo2ReadAcBlock(r, table, dequant, q, coef[i]);
  }
}
