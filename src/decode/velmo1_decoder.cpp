// First-generation plane and frame decoding: Huffman descriptions, bundle refills, the ten
// block kinds, the bit-plane coefficient and residue coders, and the frame layout.
#include "decode/velmo1_decoder.h"

#include "decode/velmo1_bits.h"

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>

namespace {

constexpr uint32_t TagVLMk = 'V' | 'L' << 8 | 'M' << 16 | uint32_t('k') << 24;
constexpr uint32_t MaxPlaneWidth = 1u << 20;  // keeps every count computation inside 32 bits
constexpr uint8_t EntryDead = 4;               // work list entry that has been used up

}  // namespace

// ---------------------------------------------------------------------------------------------
// Huffman descriptions

void Velmo1ReadHuffman(Velmo1BitReader& r, Velmo1Huffman& h) {
  const uint32_t t = Velmo1Read(r, 4);
  h.Table = t;
  h.Longest = Velmo1LongestCode[t];
  h.Mask = (1u << h.Longest) - 1;
  h.Lookup = Velmo1HuffLookup(t);
  for (uint32_t i = 0; i < 16; ++i) h.Map[i] = uint8_t(i);
  if (t == 0) return;

  if (Velmo1ReadBit(r)) {
    // Explicit prefix: c + 1 nibbles, then the unused values in ascending order.
    const uint32_t given = Velmo1Read(r, 3) + 1;
    bool used[16] = {};
    for (uint32_t i = 0; i < given; ++i) {
      h.Map[i] = uint8_t(Velmo1Read(r, 4));
      used[h.Map[i]] = true;
    }
    uint32_t next = given;
    for (uint32_t v = 0; v < 16 && next < 16; ++v)
      if (!used[v]) h.Map[next++] = uint8_t(v);
    while (next < 16) h.Map[next++] = 0;  // a damaged prefix repeated a value
    return;
  }

  // Eight ordered pairs, then `merges` rounds of merging neighbouring lists.
  const uint32_t merges = Velmo1Read(r, 2);
  uint8_t lists[16];
  for (uint32_t p = 0; p < 16; p += 2) {
    const bool swap = Velmo1ReadBit(r) != 0;
    lists[p] = uint8_t(swap ? p + 1 : p);
    lists[p + 1] = uint8_t(swap ? p : p + 1);
  }
  for (uint32_t len = 2, round = 0; round < merges; ++round, len *= 2) {
    uint8_t merged[16];
    for (uint32_t start = 0; start < 16; start += 2 * len) {
      const uint8_t* a = lists + start;
      const uint8_t* b = lists + start + len;
      uint32_t ia = 0, ib = 0, out = start;
      while (ia < len && ib < len) merged[out++] = Velmo1ReadBit(r) ? b[ib++] : a[ia++];
      while (ia < len) merged[out++] = a[ia++];
      while (ib < len) merged[out++] = b[ib++];
    }
    std::memcpy(lists, merged, 16);
  }
  std::memcpy(h.Map, lists, 16);
}

namespace {

// ---------------------------------------------------------------------------------------------
// Bundles

struct Bundle {
  uint8_t* Buf;
  uint32_t Cursor, End;  // element indexes
  uint32_t Largest, CountBits;
  uint32_t Restart;      // element index four bytes into the buffer
  Velmo1Huffman Huff;

  uint16_t* Words() { return reinterpret_cast<uint16_t*>(Buf); }
  void Kill() {
    End = 0;
    Cursor = Restart;
  }
  // The check a block makes before it takes: past the end, go on from four bytes in.
  void Check() {
    if (Cursor >= End) Cursor = Restart;
  }
};

struct PlaneState {
  Velmo1BitReader R;
  Bundle B[Velmo1BundleCount];
  Velmo1Huffman ColorHigh[16];  // by context; B[Velmo1Colors].Huff is the low-nibble code
  uint32_t ColorContext;
  uint32_t CountMask;           // 0xBB on the two block type counts of "VLMk"
  bool OldColors;
  uint8_t* Dest;
  const uint8_t* Source;
  uint32_t Width, Height;
  int32_t Pitch;
  uint8_t* RunScratch;
  uint32_t Skips;
  Velmo1IdctKernel Idct;
};

// Reads a refill's count. A count of 0 or above the largest kills the bundle.
bool StartRefill(PlaneState& p, Bundle& b, uint32_t mask) {
  const uint32_t count = Velmo1Read(p.R, b.CountBits) ^ mask;
  if (count == 0 || count > b.Largest) {
    b.Kill();
    return false;
  }
  b.Cursor = 0;
  b.End = count;
  return true;
}

void RefillTypes(PlaneState& p, Bundle& b) {
  if (b.Cursor != b.End || !StartRefill(p, b, p.CountMask)) return;
  const uint32_t count = b.End;
  if (Velmo1ReadBit(p.R)) {
    std::memset(b.Buf, int(Velmo1Read(p.R, 4)), count);
    return;
  }
  static const uint32_t repeats[4] = {4, 8, 12, 32};
  uint8_t last = 0;
  for (uint32_t n = 0; n < count;) {
    const int sym = Velmo1ReadSymbol(p.R, b.Huff);
    if (sym < 0) return b.Kill();
    if (sym < 12) {
      last = uint8_t(sym);
      b.Buf[n++] = last;
      continue;
    }
    const uint32_t rep = repeats[sym - 12];
    if (rep > count - n) return;  // the rest of the buffer keeps old data
    std::memset(b.Buf + n, last, rep);
    n += rep;
  }
}

// One colour element: high nibble in the context of the last one, then the low nibble.
int ReadColor(PlaneState& p) {
  const int h = Velmo1ReadSymbol(p.R, p.ColorHigh[p.ColorContext]);
  if (h < 0) return -1;
  const int l = Velmo1ReadSymbol(p.R, p.B[Velmo1Colors].Huff);
  if (l < 0) return -1;
  p.ColorContext = uint32_t(h);
  const uint32_t c = uint32_t(h) * 16 + uint32_t(l);
  if (!p.OldColors) return int(c);
  return int(((c & 128) ? 128 - (c & 127) : 128 + c) & 255);  // sign-magnitude about 128
}

void RefillColors(PlaneState& p) {
  Bundle& b = p.B[Velmo1Colors];
  if (b.Cursor != b.End || !StartRefill(p, b, 0)) return;
  if (Velmo1ReadBit(p.R)) {
    const int c = ReadColor(p);
    if (c < 0) return b.Kill();
    std::memset(b.Buf, c, b.End);
    return;
  }
  for (uint32_t n = 0; n < b.End; ++n) {
    const int c = ReadColor(p);
    if (c < 0) return b.Kill();
    b.Buf[n] = uint8_t(c);
  }
}

void RefillPatterns(PlaneState& p) {
  Bundle& b = p.B[Velmo1Patterns];
  if (b.Cursor != b.End || !StartRefill(p, b, 0)) return;
  for (uint32_t n = 0; n < b.End; ++n) {
    const int lo = Velmo1ReadSymbol(p.R, b.Huff);
    if (lo < 0) return b.Kill();
    const int hi = Velmo1ReadSymbol(p.R, b.Huff);
    if (hi < 0) return b.Kill();
    b.Buf[n] = uint8_t(hi * 16 + lo);
  }
}

void RefillMotion(PlaneState& p, Bundle& b) {
  if (b.Cursor != b.End || !StartRefill(p, b, 0)) return;
  if (Velmo1ReadBit(p.R)) {
    const uint32_t v = Velmo1Read(p.R, 4);
    const bool negative = v != 0 && Velmo1ReadBit(p.R);
    std::memset(b.Buf, int(negative ? -int(v) : int(v)) & 255, b.End);
    return;
  }
  for (uint32_t n = 0; n < b.End; ++n) {
    const int v = Velmo1ReadSymbol(p.R, b.Huff);
    if (v < 0) return b.Kill();
    const bool negative = v != 0 && Velmo1ReadBit(p.R);
    b.Buf[n] = uint8_t(negative ? -v : v);
  }
}

void RefillRuns(PlaneState& p) {
  Bundle& b = p.B[Velmo1Runs];
  if (b.Cursor != b.End || !StartRefill(p, b, 0)) return;
  if (Velmo1ReadBit(p.R)) {
    std::memset(b.Buf, int(Velmo1Read(p.R, 4)), b.End);
    return;
  }
  for (uint32_t n = 0; n < b.End; ++n) {
    const int v = Velmo1ReadSymbol(p.R, b.Huff);
    if (v < 0) return b.Kill();
    b.Buf[n] = uint8_t(v);
  }
}

// DC values: a first value, then groups of eight as deltas of a per-group bit width.
void RefillDC(PlaneState& p, Bundle& b, bool inter) {
  if (b.Cursor != b.End || !StartRefill(p, b, 0)) return;
  uint16_t* out = b.Words();
  uint16_t prev;
  if (inter) {
    const uint32_t v = Velmo1Read(p.R, 10);
    prev = uint16_t((v != 0 && Velmo1ReadBit(p.R)) ? 0u - v : v);
  } else {
    prev = uint16_t(Velmo1Read(p.R, 11));
  }
  out[0] = prev;
  for (uint32_t n = 1; n < b.End;) {
    const uint32_t group = std::min<uint32_t>(8, b.End - n);
    const uint32_t bits = Velmo1Read(p.R, 4);
    for (uint32_t i = 0; i < group; ++i, ++n) {
      if (bits != 0) {
        const uint32_t delta = Velmo1Read(p.R, bits);
        const bool negative = delta != 0 && Velmo1ReadBit(p.R);
        prev = uint16_t(negative ? prev - delta : prev + delta);
      }
      out[n] = prev;
    }
  }
}

void RefillRow(PlaneState& p) {
  RefillTypes(p, p.B[Velmo1BlockTypes]);
  RefillTypes(p, p.B[Velmo1SubBlockTypes]);
  RefillColors(p);
  RefillPatterns(p);
  RefillMotion(p, p.B[Velmo1XMotion]);
  RefillMotion(p, p.B[Velmo1YMotion]);
  p.B[Velmo1XMotion].Cursor = p.B[Velmo1YMotion].Cursor;  // the two move in lock step
  RefillDC(p, p.B[Velmo1IntraDC], false);
  RefillDC(p, p.B[Velmo1InterDC], true);
  RefillRuns(p);
}

// ---------------------------------------------------------------------------------------------
// Bit-plane coding of coefficients and residues. The work list holds (list index, kind):
// kind 0 a group of 20 from the index, kind 1 of 16, kind 2 of 4, kind 3 a single index.
// Entries put at the front wait for the next plane; entries appended join the current walk.

struct WorkEntry {
  uint8_t Index, Kind;
};

struct WorkList {
  static constexpr uint32_t FrontRoom = 64;  // each of the 64 indexes goes to the front once
  WorkEntry E[FrontRoom + 24];
  uint32_t Head = FrontRoom, Tail = FrontRoom;

  void Append(uint8_t index, uint8_t kind) {
    if (Tail < sizeof E / sizeof E[0]) E[Tail++] = {index, kind};
  }
  void PushFront(uint8_t index) {
    if (Head > 0) E[--Head] = {index, 3};
  }
};

// Walks one plane of the work list. `significant(j)` handles index j becoming significant and
// returns false to end decoding; `single(j)` likewise for a kind 3 entry that reads a 1.
template <typename Significant>
bool WalkPlane(Velmo1BitReader& r, WorkList& list, Significant significant) {
  auto children = [&](uint32_t i) {
    for (uint32_t j = i; j < i + 4; ++j) {
      if (Velmo1ReadBit(r))
        list.PushFront(uint8_t(j));
      else if (!significant(j))
        return false;
    }
    return true;
  };
  for (uint32_t at = list.Head; at < list.Tail;) {
    WorkEntry& e = list.E[at];
    if (e.Kind == EntryDead || !Velmo1ReadBit(r)) {
      ++at;
      continue;
    }
    const uint32_t i = e.Index;
    switch (e.Kind) {
      case 3:
        e.Kind = EntryDead;
        ++at;
        if (!significant(i)) return false;
        break;
      case 2:
        e.Kind = EntryDead;
        ++at;
        if (!children(i)) return false;
        break;
      case 0:
        e = {uint8_t(i + 4), 1};
        if (!children(i)) return false;
        break;  // the same entry, now of 16, reads its next bit at once
      default:  // kind 1
        e.Kind = 2;
        list.Append(uint8_t(i + 4), 2);
        list.Append(uint8_t(i + 8), 2);
        list.Append(uint8_t(i + 12), 2);
        break;
    }
  }
  return true;
}

// AC coefficients by bit planes into coeffs (by position); coefficient 0 is not touched.
void ReadCoefficients(Velmo1BitReader& r, int16_t coeffs[64]) {
  const uint32_t planes = Velmo1Read(r, 4);
  if (planes == 0) return;
  WorkList list;
  list.Append(4, 0);
  list.Append(24, 0);
  list.Append(44, 0);
  list.Append(1, 3);
  list.Append(2, 3);
  list.Append(3, 3);
  for (uint32_t n = planes; n >= 1; --n) {
    const uint32_t top = 1u << (n - 1);
    WalkPlane(r, list, [&](uint32_t j) {
      const uint32_t v = Velmo1Read(r, n);
      const int32_t magnitude = int32_t(top + (v & (top - 1)));
      coeffs[Velmo1CoefficientOrder[j]] = int16_t((v >> (n - 1)) ? -magnitude : magnitude);
      return true;
    });
  }
}

// A residue under a limit of L + 1 events, into res (by list index).
void ReadResidue(Velmo1BitReader& r, uint32_t limit, int8_t res[64]) {
  const uint32_t v = Velmo1Read(r, 3);
  WorkList list;
  list.Append(4, 0);
  list.Append(24, 0);
  list.Append(44, 0);
  list.Append(0, 2);
  uint8_t significant[64];
  uint32_t significantCount = 0, events = 0;
  auto event = [&] {
    if (events == limit) return false;
    ++events;
    return true;
  };
  for (int32_t m = int32_t(1u << v); m >= 1; m >>= 1) {
    for (uint32_t k = 0; k < significantCount; ++k) {
      if (!Velmo1ReadBit(r)) continue;
      int8_t& value = res[significant[k]];
      value = int8_t(value < 0 ? value - m : value + m);
      if (!event()) return;
    }
    const bool going = WalkPlane(r, list, [&](uint32_t j) {
      if (significantCount < 64) significant[significantCount++] = uint8_t(j);
      res[j] = int8_t(Velmo1ReadBit(r) ? -m : m);
      return event();
    });
    if (!going) return;
  }
}

// ---------------------------------------------------------------------------------------------
// Blocks

inline void Put8(uint8_t* dst, int32_t pitch, const uint8_t block[64]) {
  for (int row = 0; row < 8; ++row) std::memcpy(dst + row * pitch, block + row * 8, 8);
}

inline void PutDoubled(uint8_t* dst, int32_t pitch, const uint8_t block[64]) {
  for (int row = 0; row < 8; ++row) {
    uint8_t line[16];
    for (int col = 0; col < 8; ++col) line[2 * col] = line[2 * col + 1] = block[row * 8 + col];
    std::memcpy(dst + (2 * row) * pitch, line, 16);
    std::memcpy(dst + (2 * row + 1) * pitch, line, 16);
  }
}

inline void Fill(uint8_t* dst, int32_t pitch, uint8_t value, int size) {
  for (int row = 0; row < size; ++row) std::memset(dst + row * pitch, value, size_t(size));
}

inline void Get8(const uint8_t* src, int32_t pitch, uint8_t block[64]) {
  for (int row = 0; row < 8; ++row) std::memcpy(block + row * 8, src + row * pitch, 8);
}

// Through a block of its own, so that a source overlapping the destination reads old pixels.
inline void Copy8(uint8_t* dst, const uint8_t* src, int32_t pitch) {
  uint8_t block[64];
  Get8(src, pitch, block);
  Put8(dst, pitch, block);
}

void DecodeRun(PlaneState& p, uint8_t block[64]) {
  Bundle& runs = p.B[Velmo1Runs];
  Bundle& colors = p.B[Velmo1Colors];
  runs.Check();
  colors.Check();
  const uint8_t* scan = Velmo1RunScans[Velmo1Read(p.R, 4)];
  uint8_t* scratch = p.RunScratch;
  uint32_t left = 64, filled = 0, at = 0;
  while (left > 1) {
    const uint32_t run = uint32_t(runs.Buf[runs.Cursor++]) + 1;
    if (run > left) break;
    left -= run;
    filled += run;
    if (Velmo1ReadBit(p.R)) {
      const uint8_t c = colors.Buf[colors.Cursor++];
      for (uint32_t i = 0; i < run; ++i) scratch[scan[at++]] = c;
    } else {
      for (uint32_t i = 0; i < run; ++i) scratch[scan[at++]] = colors.Buf[colors.Cursor++];
    }
  }
  if (filled == 63) scratch[scan[63]] = colors.Buf[colors.Cursor++];
  std::memcpy(block, scratch, 64);
}

void DecodeTwo(PlaneState& p, uint8_t block[64]) {
  Bundle& colors = p.B[Velmo1Colors];
  Bundle& patterns = p.B[Velmo1Patterns];
  colors.Check();
  patterns.Check();
  const uint8_t c0 = colors.Buf[colors.Cursor++];
  const uint8_t c1 = colors.Buf[colors.Cursor++];
  for (int row = 0; row < 8; ++row) {
    const uint32_t bits = patterns.Buf[patterns.Cursor++];
    for (int col = 0; col < 8; ++col) block[row * 8 + col] = ((bits >> col) & 1) ? c1 : c0;
  }
}

void DecodeBang(PlaneState& p, uint8_t block[64]) {
  Bundle& colors = p.B[Velmo1Colors];
  colors.Check();
  std::memcpy(block, colors.Buf + colors.Cursor, 64);
  colors.Cursor += 64;
}

uint8_t TakeColor(PlaneState& p) {
  Bundle& colors = p.B[Velmo1Colors];
  colors.Check();
  return colors.Buf[colors.Cursor++];
}

// The transform part of DCT_INTRA and DCT_INTER: DC from its bundle, AC, the scale, and the
// inverse transform's values.
void DecodeTransform(PlaneState& p, bool inter, int32_t values[64]) {
  Bundle& dc = p.B[inter ? Velmo1InterDC : Velmo1IntraDC];
  dc.Check();
  int16_t coeffs[64] = {};
  coeffs[0] = int16_t(dc.Words()[dc.Cursor++]);
  ReadCoefficients(p.R, coeffs);
  const uint32_t scale = Velmo1Read(p.R, 4);
  p.Idct(coeffs, Velmo1DequantTable(inter, scale), values);
}

void DecodeIntra(PlaneState& p, uint8_t block[64]) {
  int32_t values[64];
  DecodeTransform(p, false, values);
  for (int k = 0; k < 64; ++k) block[k] = uint8_t(values[k]);
}

// Takes a motion offset and returns the motion source, or null when its top left pixel lies
// outside the plane's range of 8x8 block positions (the block is then passed).
const uint8_t* TakeMotion(PlaneState& p, uint32_t x, uint32_t y) {
  Bundle& bx = p.B[Velmo1XMotion];
  Bundle& by = p.B[Velmo1YMotion];
  if (by.Cursor >= by.End) {
    by.Cursor = by.Restart;
    bx.Cursor = bx.Restart;
  }
  const int32_t mx = int8_t(bx.Buf[bx.Cursor++]);
  const int32_t my = int8_t(by.Buf[by.Cursor++]);
  const int64_t offset = (int64_t(y) + my) * p.Pitch + int64_t(x) + mx;
  const int64_t last = int64_t(p.Height - 8) * p.Pitch + p.Width - 8;
  if (offset < 0 || offset > last) return nullptr;
  return p.Source + offset;
}

// The sub-kinds that a DOUBLED block may carry, decoded into an 8x8 block.
bool DecodeContent(PlaneState& p, uint8_t kind, uint8_t block[64]) {
  switch (kind) {
    case Velmo1Run: DecodeRun(p, block); return true;
    case Velmo1DctIntra: DecodeIntra(p, block); return true;
    case Velmo1One: std::memset(block, TakeColor(p), 64); return true;
    case Velmo1Two: DecodeTwo(p, block); return true;
    case Velmo1Bang: DecodeBang(p, block); return true;
    default: return false;
  }
}

// Decodes the block at (x, y) and returns how far the row moves on.
uint32_t DecodeBlock(PlaneState& p, uint8_t kind, uint32_t x, uint32_t y) {
  const size_t at = size_t(y) * size_t(p.Pitch) + x;
  uint8_t* dst = p.Dest + at;
  uint8_t block[64];
  switch (kind) {
    case Velmo1Skip:
      if (p.Source != p.Dest) Copy8(dst, p.Source + at, p.Pitch);
      ++p.Skips;
      return 8;
    case Velmo1Mot: {
      const uint8_t* src = TakeMotion(p, x, y);
      if (src) Copy8(dst, src, p.Pitch);
      return 8;
    }
    case Velmo1Motz: {
      const uint8_t* src = TakeMotion(p, x, y);
      if (!src) return 8;
      int8_t residue[64] = {};
      ReadResidue(p.R, Velmo1Read(p.R, 7), residue);
      Get8(src, p.Pitch, block);
      for (int i = 0; i < 64; ++i) block[Velmo1CoefficientOrder[i]] += uint8_t(residue[i]);
      Put8(dst, p.Pitch, block);
      return 8;
    }
    case Velmo1DctInter: {
      const uint8_t* src = TakeMotion(p, x, y);
      if (!src) return 8;
      int32_t values[64];
      DecodeTransform(p, true, values);
      Get8(src, p.Pitch, block);
      for (int k = 0; k < 64; ++k) block[k] = uint8_t(block[k] + values[k]);
      Put8(dst, p.Pitch, block);
      return 8;
    }
    case Velmo1One:
      Fill(dst, p.Pitch, TakeColor(p), 8);
      return 8;
    case Velmo1Doubled: break;
    default:
      if (DecodeContent(p, kind, block)) Put8(dst, p.Pitch, block);
      return 8;
  }

  // DOUBLED: a 16x16 block whose lower half the odd row of blocks passes over.
  if (p.Width - x < 16) return 8;
  if (y & 8) return 16;
  Bundle& sub = p.B[Velmo1SubBlockTypes];
  if (sub.Cursor >= sub.End) return 16;
  const uint8_t subKind = sub.Buf[sub.Cursor++];
  if (subKind != Velmo1Run && subKind != Velmo1DctIntra && subKind != Velmo1One &&
      subKind != Velmo1Two && subKind != Velmo1Bang)
    return 16;
  if (p.Height - y < 16) return 8;
  if (subKind == Velmo1One) {
    Fill(dst, p.Pitch, TakeColor(p), 16);
  } else {
    DecodeContent(p, subKind, block);
    PutDoubled(dst, p.Pitch, block);
  }
  return 16;
}

bool WorkspaceFits(const Velmo1Workspace* work, uint32_t width) {
  for (uint32_t i = 0; i < Velmo1BundleCount; ++i) {
    const Velmo1BundleLimits l = Velmo1LimitsFor(i, width);
    if (!work->Bundles[i] || work->Sizes[i] < l.Largest * l.ElementSize + l.Slack) return false;
  }
  return true;
}

void SetUpBundles(PlaneState& p, Velmo1Workspace* work) {
  for (uint32_t i = 0; i < Velmo1BundleCount; ++i) {
    const Velmo1BundleLimits l = Velmo1LimitsFor(i, p.Width);
    Bundle& b = p.B[i];
    b.Buf = work->Bundles[i];
    b.Cursor = b.End = 0;
    b.Largest = l.Largest;
    b.CountBits = l.CountBits;
    b.Restart = 4 / l.ElementSize;
    b.Huff = {};
  }
}

void ReadDescriptions(PlaneState& p) {
  Velmo1ReadHuffman(p.R, p.B[Velmo1BlockTypes].Huff);
  Velmo1ReadHuffman(p.R, p.B[Velmo1SubBlockTypes].Huff);
  for (Velmo1Huffman& h : p.ColorHigh) Velmo1ReadHuffman(p.R, h);
  Velmo1ReadHuffman(p.R, p.B[Velmo1Colors].Huff);
  Velmo1ReadHuffman(p.R, p.B[Velmo1Patterns].Huff);
  Velmo1ReadHuffman(p.R, p.B[Velmo1XMotion].Huff);
  Velmo1ReadHuffman(p.R, p.B[Velmo1YMotion].Huff);
  Velmo1ReadHuffman(p.R, p.B[Velmo1Runs].Huff);
}

void DecodeRows(PlaneState& p) {
  Bundle& types = p.B[Velmo1BlockTypes];
  for (uint32_t y = 0; y < p.Height; y += 8) {
    RefillRow(p);
    for (uint32_t x = 0; x < p.Width;) {
      if (Velmo1AtLimit(p.R)) return;  // the rest of the plane is passed
      if (types.Cursor >= types.End) {
        x += 8;
        continue;
      }
      const uint8_t kind = types.Buf[types.Cursor++];
      x += kind < Velmo1KindCount ? DecodeBlock(p, kind, x, y) : 8;
    }
  }
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Planes and frames

void Velmo1BundleSizes(uint32_t lumaWidth, uint32_t sizes[Velmo1BundleCount]) {
  for (uint32_t i = 0; i < Velmo1BundleCount; ++i) {
    const Velmo1BundleLimits l = Velmo1LimitsFor(i, lumaWidth);
    sizes[i] = l.Largest * l.ElementSize + l.Slack;
  }
}

const uint8_t* Velmo1DecodePlane(uint8_t* dest, const uint8_t* source, uint32_t width,
                                 uint32_t height, int32_t pitch, const uint8_t* stream,
                                 const uint8_t* limit, Velmo1Workspace* work,
                                 uint32_t decodeFlags, uint32_t fileTag, uint32_t* skipCount) {
  if (skipCount) *skipCount = 0;
  width &= ~7u;
  height &= ~7u;
  if (!dest || !stream || !limit || !work || width > MaxPlaneWidth || pitch < int32_t(width) ||
      !WorkspaceFits(work, width))
    return stream;
  const size_t limitOffset = limit > stream ? size_t(limit - stream) : 0;

  PlaneState p{};
  p.R = Velmo1ReaderAt(stream, limitOffset > 4 ? limitOffset - 4 : 0, limitOffset);
  p.Dest = dest;
  p.Source = source ? source : dest;
  p.Width = width;
  p.Height = height;
  p.Pitch = pitch;
  p.RunScratch = work->RunScratch;
  p.OldColors = (decodeFlags & Velmo1OldRevision) != 0;
  Velmo1Kernels kernels;
  Velmo1KernelsInit(&kernels, ProcessorFeatures());
  p.Idct = kernels.Idct;
  const bool vlmk = fileTag == TagVLMk;
  p.CountMask = vlmk ? 0xBB : 0;

  if (vlmk && Velmo1ReadBit(p.R) && (decodeFlags & Velmo1AlphaPlane)) {
    const uint8_t value = uint8_t(Velmo1Read(p.R, 8));  // a constant alpha plane
    for (uint32_t row = 0; row < height; ++row) std::memset(dest + size_t(row) * pitch, value, width);
    return stream + std::min(p.R.Pos, limitOffset);
  }
  SetUpBundles(p, work);
  ReadDescriptions(p);
  p.ColorContext = 0;
  if (width > 0) DecodeRows(p);
  if (skipCount) *skipCount = p.Skips;
  return stream + std::min(p.R.Pos, limitOffset);
}

namespace {

// Bundle buffers for one frame, on the stack when they fit.
class FrameWorkspace {
 public:
  FrameWorkspace(uint32_t width, const uint32_t* given) {
    Velmo1BundleSizes(width, W.Sizes);
    size_t total = 0;
    for (uint32_t i = 0; i < Velmo1BundleCount; ++i) {
      if (given) W.Sizes[i] = std::max(W.Sizes[i], given[i]);
      W.Sizes[i] = (W.Sizes[i] + 15) & ~15u;
      total += W.Sizes[i];
    }
    uint8_t* base = Stack;
    if (total > sizeof Stack) {
      Heap.reset(new (std::align_val_t(16)) uint8_t[total]);
      base = Heap.get();
    }
    std::memset(base, 0, total);  // a dead bundle reads zeros, not stale memory
    std::memset(W.RunScratch, 0, sizeof W.RunScratch);
    for (uint32_t i = 0; i < Velmo1BundleCount; ++i) {
      W.Bundles[i] = base;
      base += W.Sizes[i];
    }
  }
  Velmo1Workspace W;

 private:
  struct AlignedDelete {
    void operator()(uint8_t* p) const { operator delete[](p, std::align_val_t(16)); }
  };
  alignas(16) uint8_t Stack[48 * 1024];
  std::unique_ptr<uint8_t[], AlignedDelete> Heap;
};

uint32_t WordAt(const uint8_t* section, size_t bytes, size_t at) {
  uint32_t v = 0;
  for (size_t i = 0; i < 4; ++i)
    if (at < bytes && i < bytes - at) v |= uint32_t(section[at + i]) << (8 * i);
  return v;
}

}  // namespace

uint32_t Velmo1DecodeFrame(VelmoFrameBuffers* buffers, const uint8_t* section,
                           const uint8_t* limit, const uint32_t* sizes, uint32_t decodeFlags,
                           uint32_t fileFlags, uint32_t fileTag) {
  if (!buffers || !section || !limit || limit < section) return 0;
  VelmoFrameBuffers& fb = *buffers;
  const uint32_t blocks = fb.LumaWidth * fb.LumaHeight / 64;
  if (blocks == 0) return 0;

  uint32_t least = 0;
  bool anyPlane = false;
  auto note = [&](uint32_t skips) {
    least = anyPlane ? std::min(least, skips) : skips;
    anyPlane = true;
  };
  auto figure = [&] { return (blocks - (anyPlane ? least : blocks)) * 100u / blocks; };

  const size_t limitOffset = size_t(limit - section);
  const size_t sectionBytes = limitOffset > 4 ? limitOffset - 4 : 0;
  const bool old = (decodeFlags & Velmo1OldRevision) != 0;
  const uint32_t planeFlags = decodeFlags & ~Velmo1AlphaPlane;
  VelmoFrameBufferSet& dst = VelmoNextSet(fb);
  const VelmoFrameBufferSet& src = VelmoCurrentSet(fb);
  FrameWorkspace work(std::max(fb.LumaWidth, fb.ChromaWidth), sizes);

  auto plane = [&](uint32_t index, size_t at, uint32_t flags, uint32_t* skips) -> size_t {
    const bool luma = index == VelmoPlaneY || index == VelmoPlaneAlpha;
    const uint8_t* end = Velmo1DecodePlane(
        dst.Planes[index], src.Planes[index], luma ? fb.LumaWidth : fb.ChromaWidth,
        luma ? fb.LumaHeight : fb.ChromaHeight, luma ? fb.LumaPitch : fb.ChromaPitch,
        section + at, limit, &work.W, flags, fileTag, skips);
    return size_t(end - section);
  };

  size_t at = 0;
  if (fileFlags & Velmo1FileHasAlpha) {
    if ((decodeFlags & Velmo1AlphaPlane) && fb.HasAlpha && dst.Planes[VelmoPlaneAlpha]) {
      uint32_t skips = 0;
      plane(VelmoPlaneAlpha, 4, decodeFlags, &skips);
      note(skips);
    }
    at = WordAt(section, sectionBytes, 0);
  }
  if (at >= limitOffset) return figure();

  const size_t chromaWord = at;
  const uint32_t chromaOffset = old ? 0 : WordAt(section, sectionBytes, at);
  if (!old) at += 4;
  size_t lumaEnd = at;
  if (!(decodeFlags & Velmo1SkipLuma) && dst.Planes[VelmoPlaneY]) {
    uint32_t skips = 0;
    lumaEnd = plane(VelmoPlaneY, at, planeFlags, &skips);
    note(skips);
  }
  at = old ? lumaEnd : chromaWord + chromaOffset;
  if ((decodeFlags & Velmo1SkipChroma) || at >= sectionBytes) return figure();
  if (dst.Planes[VelmoPlaneCr]) {
    uint32_t skips = 0;
    at = plane(VelmoPlaneCr, at, planeFlags, &skips);
    note(4 * skips);
    if (at < sectionBytes && dst.Planes[VelmoPlaneCb]) {
      plane(VelmoPlaneCb, at, planeFlags, &skips);
      note(4 * skips);
    }
  }
  return figure();
}
