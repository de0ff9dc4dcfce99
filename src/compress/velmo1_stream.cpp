// Writer of first-generation plane streams: bit fields, Huffman descriptions, bit-plane coders,
// per-row bundle refills and the frame section layout, laid out exactly as the decoder reads them.
#include "compress/velmo1_stream.h"

#include "decode/velmo1_tables.h"

#include <algorithm>
#include <cstdlib>
#include <initializer_list>
#include <random>

namespace {

void Require(bool ok) {
  if (!ok) std::abort();  // the encoder asked for something the format cannot carry
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Bit writer

void Velmo1EncBitWriter::Put(uint32_t value, uint32_t n) {
  if (n == 0) return;
  if (n < 32) value &= (1u << n) - 1;  // bits above the field are not part of it
  Pending |= uint64_t(value) << PendingBits;
  PendingBits += n;
  Position += n;
  if (PendingBits >= 32) {
    Words.push_back(uint32_t(Pending));
    Pending >>= 32;
    PendingBits -= 32;
  }
  Reach = std::max(Reach, Position);
}

void Velmo1EncBitWriter::Put(const Velmo1EncBits& bits) {
  for (const auto& [value, n] : bits.Fields) Put(value, n);
}

void Velmo1EncBitWriter::PutCode(uint32_t table, uint32_t code) {
  Reach = std::max(Reach, Position + Velmo1LongestCode[table]);
  Put(Velmo1StreamCode(table, code), Velmo1CodeLengths[table][code]);
}

std::vector<uint8_t> Velmo1EncBitWriter::Finish() {
  std::vector<uint8_t> out;
  out.reserve((Words.size() + 1) * 4);
  auto word = [&](uint32_t w) {
    for (int i = 0; i < 4; ++i) out.push_back(uint8_t(w >> (8 * i)));
  };
  for (uint32_t w : Words) word(w);
  if (PendingBits) word(uint32_t(Pending));
  out.resize((std::max(Reach, Position) + 31) / 32 * 4, 0);
  return out;
}

// ---------------------------------------------------------------------------------------------
// Huffman descriptions

namespace {

bool IsPermutation(const uint8_t map[16]) {
  bool seen[16] = {};
  for (int i = 0; i < 16; ++i) {
    if (map[i] > 15 || seen[map[i]]) return false;
    seen[map[i]] = true;
  }
  return true;
}

// The shortest explicit prefix (1..8 entries) after which the map lists the unused values in
// ascending order, or 0 when there is none.
uint32_t PrefixLength(const uint8_t map[16]) {
  for (uint32_t given = 1; given <= 8; ++given) {
    bool used[16] = {};
    for (uint32_t i = 0; i < given; ++i) used[map[i]] = true;
    uint32_t next = given;
    bool ok = true;
    for (uint32_t v = 0; v < 16; ++v)
      if (!used[v]) ok = ok && map[next++] == v;
    if (ok) return given;
  }
  return 0;
}

// The map's order of the values in [lo, lo + len).
std::vector<uint8_t> OrderOf(const uint8_t map[16], uint32_t lo, uint32_t len) {
  std::vector<uint8_t> out;
  for (int i = 0; i < 16; ++i)
    if (map[i] >= lo && map[i] < lo + len) out.push_back(map[i]);
  return out;
}

// Whether `merges` rounds give the map: each final list must hold its own range of values.
bool MergeFits(const uint8_t map[16], uint32_t merges) {
  const uint32_t len = 2u << merges;
  for (uint32_t i = 0; i < 16; ++i)
    if (map[i] / len != i / len) return false;
  return true;
}

Velmo1EncBits MergeForm(uint32_t table, const uint8_t map[16], uint32_t merges) {
  Velmo1EncBits bits;
  bits.Put(table, 4);
  bits.Put(0, 1);
  bits.Put(merges, 2);
  for (uint32_t p = 0; p < 16; p += 2) bits.Put(OrderOf(map, p, 2)[0] == p + 1 ? 1 : 0, 1);
  for (uint32_t round = 1, half = 2; round <= merges; ++round, half *= 2) {
    for (uint32_t start = 0; start < 16; start += 2 * half) {
      uint32_t fromA = 0, fromB = 0;
      for (uint8_t v : OrderOf(map, start, 2 * half)) {
        if (fromA == half || fromB == half) break;  // the rest is appended unread
        const bool inB = v >= start + half;
        bits.Put(inB ? 1 : 0, 1);
        (inB ? fromB : fromA)++;
      }
    }
  }
  return bits;
}

size_t BitCount(const Velmo1EncBits& bits) {
  size_t n = 0;
  for (const auto& f : bits.Fields) n += f.second;
  return n;
}

}  // namespace

Velmo1EncBits Velmo1EncDescribeCode(uint32_t table, const uint8_t map[16], int form) {
  Velmo1EncBits bits;
  if (table == 0) {
    bits.Put(0, 4);
    return bits;
  }
  Require(IsPermutation(map));
  Velmo1EncBits prefix, merge;
  if (const uint32_t given = PrefixLength(map)) {
    prefix.Put(table, 4);
    prefix.Put(1, 1);
    prefix.Put(given - 1, 3);
    for (uint32_t i = 0; i < given; ++i) prefix.Put(map[i], 4);
  }
  for (uint32_t merges = 0; merges < 4; ++merges) {
    if (MergeFits(map, merges)) {
      merge = MergeForm(table, map, merges);
      break;
    }
  }
  if (form == 1 && !prefix.Fields.empty()) return prefix;
  if (form == 2 || prefix.Fields.empty()) return merge;
  return BitCount(prefix) <= BitCount(merge) ? prefix : merge;
}

// ---------------------------------------------------------------------------------------------
// Bit-plane coders, mirroring the decoder's work list.

namespace {

struct Entry {
  uint8_t Index, Kind;  // kind 0: a group of 20, 1: of 16, 2: of 4, 3: a single index
};

// The coder's work list, kept for all planes of a block. Single indices go to the front and
// groups to the back; the list never holds more than the three groups of 20, their splits and
// the 64 indices, so it lives in a fixed array with room on both sides of where it starts.
struct WorkList {
  static constexpr uint32_t Room = 80;  // each side: 64 front insertions, 15 at the back
  Entry E[2 * Room];
  uint32_t Head = Room, Tail = Room;

  WorkList(std::initializer_list<Entry> start) {
    for (const Entry& e : start) E[Tail++] = e;
  }
  void PushFront(Entry e) {
    Require(Head > 0);
    E[--Head] = e;
  }
  void PushBack(Entry e) {
    Require(Tail < 2 * Room);
    E[Tail++] = e;
  }
};

// Walks one bit plane. Bit j of `live` tells whether the value at list index j is significant
// in this plane; a group's flag is whether any member is. `significant(j)` writes what follows
// for a single index that is significant now and returns false to stop.
template <typename Sink, typename Significant>
bool WalkPlane(Sink& bits, WorkList& list, uint64_t live, Significant significant) {
  auto any = [&](uint32_t i, uint32_t n) { return ((live >> i) & ((uint64_t(1) << n) - 1)) != 0; };
  auto is = [&](uint32_t j) { return ((live >> j) & 1) != 0; };
  // Front insertions move the head, not the walk: `at` stays on the same entry. Entries that
  // are used up leave the list: those kept move down to `kept`, behind the walk.
  uint32_t at = list.Head, kept = list.Head;
  auto children = [&](uint32_t i) {
    for (uint32_t j = i; j < i + 4; ++j) {
      if (is(j)) {
        bits.Put(0, 1);
        if (!significant(j)) return false;
      } else {
        bits.Put(1, 1);
        list.PushFront(Entry{uint8_t(j), 3});
      }
    }
    return true;
  };
  auto stop = [&] {  // the entries not walked stay, in order
    std::copy(list.E + at, list.E + list.Tail, list.E + kept);
    list.Tail = kept + (list.Tail - at);
    return false;
  };
  while (at < list.Tail) {
    const Entry e = list.E[at];
    const uint32_t size = e.Kind == 0 ? 20 : e.Kind == 1 ? 16 : e.Kind == 2 ? 4 : 1;
    const bool fires = any(e.Index, size);
    bits.Put(fires ? 1 : 0, 1);
    if (!fires) {
      list.E[kept++] = e;
      ++at;
    } else if (e.Kind == 3) {
      ++at;
      if (!significant(e.Index)) return stop();
    } else if (e.Kind == 2) {
      ++at;
      if (!children(e.Index)) return stop();
    } else if (e.Kind == 0) {  // the rest of the group is tested next
      list.E[at] = {uint8_t(e.Index + 4), 1};
      if (!children(e.Index)) return stop();
    } else {
      list.E[at].Kind = 2;
      list.PushBack({uint8_t(e.Index + 4), 2});
      list.PushBack({uint8_t(e.Index + 8), 2});
      list.PushBack({uint8_t(e.Index + 12), 2});
    }
  }
  list.Tail = kept;
  return true;
}

// The indices whose size reaches `top`, as bits.
uint64_t Reaching(const uint32_t mag[64], uint32_t top) {
  uint64_t mask = 0;
  for (uint32_t j = 0; j < 64; ++j) mask |= uint64_t(mag[j] >= top) << j;
  return mask;
}

template <typename Sink>
void CoefficientCoder(Sink& bits, const int16_t coeffs[64]) {
  uint32_t mag[64] = {};
  uint64_t nonzero = 0, negative = 0;
  for (uint32_t i = 1; i < 64; ++i) {
    const int32_t c = coeffs[Velmo1CoefficientOrder[i]];
    mag[i] = uint32_t(std::abs(c));
    nonzero |= uint64_t(c != 0) << i;
    negative |= uint64_t(c < 0) << i;
  }
  // Bit j of lengths[n]: the value at list index j is n bits long, so it is coded in plane n.
  uint64_t lengths[17] = {};
  uint32_t largest = 0;
  for (uint64_t rest = nonzero; rest; rest &= rest - 1) {
    const uint32_t j = uint32_t(__builtin_ctzll(rest));
    Require(mag[j] != 32768);
    lengths[Velmo1BitLength(mag[j])] |= uint64_t(1) << j;
    largest = std::max(largest, mag[j]);
  }
  const uint32_t planes = Velmo1BitLength(largest);
  bits.Put(planes, 4);
  if (planes == 0) return;
  WorkList list = {{4, 0}, {24, 0}, {44, 0}, {1, 3}, {2, 3}, {3, 3}};
  for (uint32_t n = planes; n >= 1; --n) {
    // Coded values leave the game: only the values of this length are significant now.
    const uint32_t top = 1u << (n - 1);
    WalkPlane(bits, list, lengths[n], [&](uint32_t j) {
      bits.Put((mag[j] - top) | uint32_t((negative >> j) & 1) << (n - 1), n);
      return true;
    });
  }
}

template <typename Sink>
void ResidueCoder(Sink& bits, const int8_t residue[64], uint32_t limit) {
  uint32_t mag[64], largest = 0;
  for (int i = 0; i < 64; ++i) {
    mag[i] = uint32_t(std::abs(int(residue[i])));
    largest = std::max(largest, mag[i]);
  }
  const uint32_t v = largest ? Velmo1BitLength(largest) - 1 : 0;
  bits.Put(limit, 7);
  bits.Put(v, 3);
  WorkList list = {{4, 0}, {24, 0}, {44, 0}, {0, 2}};
  uint8_t significant[64];
  uint32_t significantCount = 0;
  uint32_t events = 0;
  uint64_t coded = 0;
  auto event = [&] {
    if (events == limit) return false;
    ++events;
    return true;
  };
  for (uint32_t top = 1u << v; top >= 1; top >>= 1) {
    for (uint32_t k = 0; k < significantCount; ++k) {
      const bool one = (mag[significant[k]] & top) != 0;
      bits.Put(one, 1);
      if (one && !event()) return;
    }
    // Values already coded only give their lower bits above; the rest may become significant.
    const bool going = WalkPlane(bits, list, Reaching(mag, top) & ~coded, [&](uint32_t j) {
      significant[significantCount++] = uint8_t(j);
      coded |= uint64_t(1) << j;
      bits.Put(residue[j] < 0, 1);
      return event();
    });
    if (!going) break;
  }
}

}  // namespace

Velmo1EncBits Velmo1EncCoefficientBits(const int16_t coeffs[64]) {
  Velmo1EncBits bits;
  CoefficientCoder(bits, coeffs);
  return bits;
}

uint32_t Velmo1EncCoefficientBitCount(const int16_t coeffs[64]) {
  Velmo1EncBitCount count;
  CoefficientCoder(count, coeffs);
  return count.Bits;
}

Velmo1EncBits Velmo1EncResidueBits(const int8_t residue[64], uint32_t limit) {
  Velmo1EncBits bits;
  ResidueCoder(bits, residue, limit);
  return bits;
}

uint32_t Velmo1EncResidueBitCount(const int8_t residue[64], uint32_t limit) {
  Velmo1EncBitCount count;
  ResidueCoder(count, residue, limit);
  return count.Bits;
}

// ---------------------------------------------------------------------------------------------
// Blocks

Velmo1EncRawBlock Velmo1EncSkipBlock() { return Velmo1EncRawBlock{}; }

Velmo1EncRawBlock Velmo1EncMotBlock(int8_t mx, int8_t my) {
  Velmo1EncRawBlock b;
  b.Type = Velmo1Mot;
  b.XMotion = {mx};
  b.YMotion = {my};
  return b;
}

Velmo1EncRawBlock Velmo1EncOneBlock(uint8_t colour) {
  Velmo1EncRawBlock b;
  b.Type = Velmo1One;
  b.Colors = {colour};
  return b;
}

Velmo1EncRawBlock Velmo1EncTwoBlock(uint8_t c0, uint8_t c1, const uint8_t patterns[8]) {
  Velmo1EncRawBlock b;
  b.Type = Velmo1Two;
  b.Colors = {c0, c1};
  b.Patterns.assign(patterns, patterns + 8);
  return b;
}

Velmo1EncRawBlock Velmo1EncBangBlock(const uint8_t pixels[64]) {
  Velmo1EncRawBlock b;
  b.Type = Velmo1Bang;
  b.Colors.assign(pixels, pixels + 64);
  return b;
}

Velmo1EncRawBlock Velmo1EncRunBlock(uint32_t scan, const uint8_t pixels[64]) {
  Velmo1EncRawBlock b;
  b.Type = Velmo1Run;
  b.Bits.Put(scan, 4);
  uint8_t q[64];
  for (int k = 0; k < 64; ++k) q[k] = pixels[Velmo1RunScans[scan][k]];
  uint32_t k = 0;
  while (k < 63) {  // with one pixel left the decoder takes it as a last colour
    uint32_t same = 1;
    while (k + same < 64 && same < 16 && q[k + same] == q[k]) ++same;
    if (same >= 2) {
      b.Runs.push_back(uint8_t(same - 1));
      b.Bits.Put(1, 1);
      b.Colors.push_back(q[k]);
      k += same;
      continue;
    }
    uint32_t singles = 1;  // pixels up to the next pair of equal neighbours
    while (k + singles < 64 && singles < 16 &&
           !(k + singles + 1 < 64 && q[k + singles] == q[k + singles + 1]))
      ++singles;
    b.Runs.push_back(uint8_t(singles - 1));
    b.Bits.Put(0, 1);
    for (uint32_t i = 0; i < singles; ++i) b.Colors.push_back(q[k + i]);
    k += singles;
  }
  if (k == 63) b.Colors.push_back(q[63]);
  return b;
}

Velmo1EncRawBlock Velmo1EncIntraBlock(uint16_t dc, const int16_t coeffs[64], uint32_t scale) {
  Velmo1EncRawBlock b;
  b.Type = Velmo1DctIntra;
  b.IntraDC = {dc};
  b.Bits = Velmo1EncCoefficientBits(coeffs);
  b.Bits.Put(scale, 4);
  return b;
}

Velmo1EncRawBlock Velmo1EncInterBlock(int8_t mx, int8_t my, int16_t dc, const int16_t coeffs[64],
                                uint32_t scale) {
  Velmo1EncRawBlock b = Velmo1EncMotBlock(mx, my);
  b.Type = Velmo1DctInter;
  b.InterDC = {uint16_t(dc)};
  b.Bits = Velmo1EncCoefficientBits(coeffs);
  b.Bits.Put(scale, 4);
  return b;
}

Velmo1EncRawBlock Velmo1EncMotzBlock(int8_t mx, int8_t my, uint32_t limit, const int8_t residue[64]) {
  Velmo1EncRawBlock b = Velmo1EncMotBlock(mx, my);
  b.Type = Velmo1Motz;
  b.Bits = Velmo1EncResidueBits(residue, limit);
  return b;
}

Velmo1EncRawBlock Velmo1EncDoubledBlock(const Velmo1EncRawBlock& sub) {
  Velmo1EncRawBlock b = sub;
  b.Type = Velmo1Doubled;
  b.SubTypes = {sub.Type};
  return b;
}

Velmo1EncRawBlock Velmo1EncDoubledLower() {
  Velmo1EncRawBlock b;
  b.Type = Velmo1Doubled;
  return b;
}

// ---------------------------------------------------------------------------------------------
// Planes

namespace {

// Code contexts in description order: block types, sub-types, 16 colour high nibbles, colour
// low nibble, patterns, x motion, y motion, runs.
enum : uint32_t {
  CodeTypes = 0, CodeSubTypes = 1, CodeColorHigh = 2, CodeColorLow = 18, CodePatterns = 19,
  CodeXMotion = 20, CodeYMotion = 21, CodeRuns = 22, CodeCount = 23,
};

struct Code {
  uint32_t Table = 0;
  uint8_t Map[16];     // code number -> value
  uint8_t Inverse[16]; // value -> code number
};

class PlaneEmitter {
 public:
  PlaneEmitter(const Velmo1EncPlaneSpec& plane, const Velmo1EncPlaneOptions& options,
               Velmo1EncBitWriter* out, const Code* codes)
      : Plane(plane), Options(options), Out(out), Codes(codes) {}

  uint32_t Counts[CodeCount][16] = {};
  Velmo1EncPlaneStats Stats = {};

  void Run() {
    if (Options.VlmK) Put(Options.FlagBitSet ? 1 : 0, 1);
    for (uint32_t c = 0; c < CodeCount; ++c)
      if (Out) Out->Put(Velmo1EncDescribeCode(Codes[c].Table, Codes[c].Map, Options.DescriptionForm));
    const size_t rows = Plane.Rows.size();
    std::vector<std::vector<uint32_t>> taken[Velmo1BundleCount];
    for (auto& t : taken) t.resize(rows);
    for (size_t r = 0; r < rows; ++r) {
      for (const Velmo1EncRawBlock& b : Plane.Rows[r]) {
        taken[Velmo1BlockTypes][r].push_back(b.Type);
        for (auto v : b.SubTypes) taken[Velmo1SubBlockTypes][r].push_back(v);
        for (auto v : b.Colors) taken[Velmo1Colors][r].push_back(v);
        for (auto v : b.Patterns) taken[Velmo1Patterns][r].push_back(v);
        for (auto v : b.XMotion) taken[Velmo1XMotion][r].push_back(uint32_t(int32_t(v)));
        for (auto v : b.YMotion) taken[Velmo1YMotion][r].push_back(uint32_t(int32_t(v)));
        for (auto v : b.IntraDC) taken[Velmo1IntraDC][r].push_back(v);
        for (auto v : b.InterDC) taken[Velmo1InterDC][r].push_back(v);
        for (auto v : b.Runs) taken[Velmo1Runs][r].push_back(v);
      }
    }
    size_t remaining[Velmo1BundleCount] = {};
    for (size_t r = 0; r < rows; ++r) {
      for (uint32_t b = 0; b < Velmo1BundleCount; ++b) {
        if (remaining[b] != 0) continue;
        // A refill carries what the rows from here take, up to the first row that takes any.
        std::vector<uint32_t> elements;
        for (size_t rr = r; rr < rows && elements.empty(); ++rr) elements = taken[b][rr];
        remaining[b] = elements.empty() ? SIZE_MAX : elements.size();
        const size_t before = Out ? Out->BitPosition() : 0;
        Stats.Elements[b] += uint32_t(elements.size());
        if (elements.empty()) elements = {0};  // never taken; the bundle must not read 0
        Refill(b, elements);
        if (Out) Stats.Bits[b] += Out->BitPosition() - before;
      }
      for (const Velmo1EncRawBlock& b : Plane.Rows[r])
        if (Out) Out->Put(b.Bits);
      for (uint32_t b = 0; b < Velmo1BundleCount; ++b)
        if (remaining[b] != SIZE_MAX) remaining[b] -= taken[b][r].size();
    }
  }

 private:
  void Put(uint32_t value, uint32_t n) {
    if (Out) Out->Put(value, n);
  }
  void Symbol(uint32_t code, uint32_t value) {
    Require(value < 16);
    ++Counts[code][value];
    if (Out) Out->PutCode(Codes[code].Table, Codes[code].Inverse[value]);
  }
  void Colour(uint32_t c) {
    Symbol(CodeColorHigh + Context, c >> 4);
    Symbol(CodeColorLow, c & 15);
    Context = c >> 4;
  }
  void Motion(uint32_t code, int32_t v) {
    Require(v >= -15 && v <= 15);
    Symbol(code, uint32_t(std::abs(v)));
    if (v) Put(v < 0, 1);
  }
  static bool AllEqual(const std::vector<uint32_t>& e) {
    return std::all_of(e.begin(), e.end(), [&](uint32_t v) { return v == e[0]; });
  }

  void Refill(uint32_t bundle, const std::vector<uint32_t>& e) {
    const Velmo1BundleLimits limits = Velmo1LimitsFor(bundle, Plane.Width);
    const uint32_t count = uint32_t(e.size());
    Require(count <= limits.Largest);
    const bool types = bundle == Velmo1BlockTypes || bundle == Velmo1SubBlockTypes;
    Put(count ^ (types && Options.VlmK ? 0xBB : 0), limits.CountBits);
    const bool fill = Options.FillForms && AllEqual(e);
    switch (bundle) {
      case Velmo1BlockTypes:
      case Velmo1SubBlockTypes: {
        const uint32_t code = bundle == Velmo1BlockTypes ? CodeTypes : CodeSubTypes;
        if (fill && e[0] < 16) {
          Put(1, 1);
          Put(e[0], 4);
          return;
        }
        Put(0, 1);
        uint32_t last = 0;
        for (size_t n = 0; n < e.size();) {
          size_t same = 0;
          while (n + same < e.size() && e[n + same] == last) ++same;
          const uint32_t repeat = same >= 32 ? 32 : same >= 12 ? 12 : same >= 8 ? 8 : same >= 4 ? 4 : 0;
          if (Options.FillForms && repeat) {
            Symbol(code, repeat == 32 ? 15 : repeat == 12 ? 14 : repeat == 8 ? 13 : 12);
            n += repeat;
          } else {
            Require(e[n] < 12);
            Symbol(code, e[n]);
            last = e[n++];
          }
        }
        return;
      }
      case Velmo1Colors:
        Put(fill, 1);
        if (fill) return Colour(e[0]);
        for (uint32_t c : e) Colour(c);
        return;
      case Velmo1Patterns:
        for (uint32_t p : e) {
          Symbol(CodePatterns, p & 15);
          Symbol(CodePatterns, p >> 4);
        }
        return;
      case Velmo1XMotion:
      case Velmo1YMotion: {
        const uint32_t code = bundle == Velmo1XMotion ? CodeXMotion : CodeYMotion;
        Put(fill, 1);
        if (fill) {
          const int32_t v = int32_t(e[0]);
          Put(uint32_t(std::abs(v)), 4);
          if (v) Put(v < 0, 1);
          return;
        }
        for (uint32_t v : e) Motion(code, int32_t(v));
        return;
      }
      case Velmo1IntraDC:
      case Velmo1InterDC: {
        if (bundle == Velmo1IntraDC) {
          Require(e[0] < 2048);
          Put(e[0], 11);
        } else {
          const int32_t v = int16_t(e[0]);
          Require(v > -1024 && v < 1024);
          Put(uint32_t(std::abs(v)), 10);
          if (v) Put(v < 0, 1);
        }
        for (size_t n = 1; n < e.size(); n += 8) {
          const size_t end = std::min(e.size(), n + 8);
          uint32_t width = 0;
          for (size_t i = n; i < end; ++i)
            width = std::max(width, Velmo1BitLength(uint32_t(std::abs(int16_t(e[i] - e[i - 1])))));
          Require(width < 16);
          Put(width, 4);
          if (width == 0) continue;
          for (size_t i = n; i < end; ++i) {
            const int32_t d = int16_t(e[i] - e[i - 1]);
            Put(uint32_t(std::abs(d)), width);
            if (d) Put(d < 0, 1);
          }
        }
        return;
      }
      default:  // runs
        if (fill && e[0] < 16) {
          Put(1, 1);
          Put(e[0], 4);
          return;
        }
        Put(0, 1);
        for (uint32_t v : e) Symbol(CodeRuns, v);
        return;
    }
  }

  const Velmo1EncPlaneSpec& Plane;
  const Velmo1EncPlaneOptions& Options;
  Velmo1EncBitWriter* Out;
  const Code* Codes;
  uint32_t Context = 0;
};

// The table and map that suit a histogram: values ranked by count (a stable order) take the
// short codes, and each table's cost counts its description (in the cheaper or asked form)
// as well as the coded symbols.
Code FitCode(const uint32_t counts[16], int descriptionForm) {
  uint8_t ranked[16];
  for (int i = 0; i < 16; ++i) ranked[i] = uint8_t(i);
  std::stable_sort(ranked, ranked + 16, [&](uint8_t a, uint8_t b) { return counts[a] > counts[b]; });
  const size_t rankedDescription = BitCount(Velmo1EncDescribeCode(1, ranked, descriptionForm));
  Code best;
  uint64_t bestCost = UINT64_MAX;
  for (uint32_t t = 0; t < Velmo1TableCount; ++t) {
    uint64_t cost = t ? rankedDescription : 4;  // the description does not depend on the row
    for (int k = 0; k < 16; ++k) cost += uint64_t(counts[t ? ranked[k] : k]) * Velmo1CodeLengths[t][k];
    if (cost < bestCost) {
      bestCost = cost;
      best.Table = t;
      for (int k = 0; k < 16; ++k) best.Map[k] = t ? ranked[k] : uint8_t(k);
    }
  }
  return best;
}

}  // namespace

std::vector<uint8_t> Velmo1EncBuildPlane(const Velmo1EncPlaneSpec& plane,
                                         const Velmo1EncPlaneOptions& options,
                                         Velmo1EncPlaneStats* stats) {
  Code codes[CodeCount];
  for (Code& c : codes)
    for (int i = 0; i < 16; ++i) c.Map[i] = uint8_t(i);
  if (options.ChooseTables) {
    PlaneEmitter count(plane, options, nullptr, codes);
    count.Run();
    for (uint32_t c = 0; c < CodeCount; ++c) codes[c] = FitCode(count.Counts[c], options.DescriptionForm);
  }
  for (Code& c : codes)
    for (int i = 0; i < 16; ++i) c.Inverse[c.Map[i]] = uint8_t(i);
  Velmo1EncBitWriter out;
  PlaneEmitter emit(plane, options, &out, codes);
  emit.Run();
  if (stats) *stats = emit.Stats;
  return out.Finish();
}

std::vector<uint8_t> Velmo1EncConstantAlphaPlane(uint8_t value) {
  Velmo1EncBitWriter out;
  out.Put(1, 1);
  out.Put(value, 8);
  return out.Finish();
}

namespace {

void PutWord(std::vector<uint8_t>& out, uint32_t v) {
  for (int i = 0; i < 4; ++i) out.push_back(uint8_t(v >> (8 * i)));
}

}  // namespace

std::vector<uint8_t> Velmo1EncBuildSection(bool hasAlpha, bool oldRevision,
                                        const std::vector<uint8_t>& alpha,
                                        const std::vector<uint8_t>& y,
                                        const std::vector<uint8_t>& cr,
                                        const std::vector<uint8_t>& cb) {
  std::vector<uint8_t> out;
  if (hasAlpha) {
    PutWord(out, uint32_t(4 + alpha.size()));
    out.insert(out.end(), alpha.begin(), alpha.end());
  }
  if (!oldRevision) PutWord(out, uint32_t(4 + y.size()));
  out.insert(out.end(), y.begin(), y.end());
  out.insert(out.end(), cr.begin(), cr.end());
  out.insert(out.end(), cb.begin(), cb.end());
  return out;
}

