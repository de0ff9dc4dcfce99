// Constant tables of the second-generation frame format.
#include "decode/velmo2_tables.h"

#include <algorithm>
#include <cmath>
#include <utility>

const uint8_t Velmo2InitialKindList[4] = {Velmo2Motion, Velmo2Residual, Velmo2Skipped,
                                          Velmo2Intra};

uint32_t Velmo2TakeKind(uint8_t list[4], uint32_t peek, uint32_t* consumed) {
  auto take = [&](uint32_t slot, uint32_t bits, uint32_t swapA, uint32_t swapB) {
    const uint32_t kind = list[slot];
    std::swap(list[swapA], list[swapB]);
    *consumed = bits;
    return kind;
  };
  if (peek & 1) return take(0, 1, 0, 0);  // "1": the most likely kind, no change
  if (peek & 2) return take(1, 2, 0, 1);  // "01"
  if (peek & 4) return take(3, 3, 2, 3);  // "001"
  return take(2, 3, 1, 2);                // "000"
}

const Velmo2QuantiserCode Velmo2QuantiserCodes[Velmo2QuantiserCodeCount] = {
    {0b1, 1, 0}, {0b10, 2, 1}, {0b100, 3, 2}, {0b01000, 5, 3}, {0b11000, 5, 4}, {0b0000, 4, 5},
};

uint32_t Velmo2QuantiserCodeOf(uint32_t peek) {
  if (peek & 1) return 0;
  if (peek & 2) return 1;
  if (peek & 4) return 2;
  if (peek & 8) return (peek & 16) ? 4 : 3;
  return Velmo2QuantiserEscape;
}

// ---------------------------------------------------------------------------------------------
// Coefficients

const uint8_t Velmo2Scan[64] = {
    0,  8,  1,  2,  9,  16, 24, 17, 10, 3,  4,  11, 18, 25, 32, 40,
    33, 26, 19, 12, 5,  6,  13, 20, 27, 34, 41, 48, 56, 49, 42, 35,
    28, 21, 14, 7,  15, 22, 29, 36, 43, 50, 57, 58, 51, 44, 37, 30,
    23, 31, 38, 45, 52, 59, 60, 53, 46, 39, 47, 54, 61, 62, 55, 63,
};

const uint16_t Velmo2DequantRow0[Velmo2DequantKindCount][64] = {
    // Intra luma, alpha and HDR.
    {1024, 1432, 1506, 1181, 1843, 2025,  5271,  8592,
     1313, 1669, 1630, 1672, 2625, 3442,  8023,  12794,
     1076, 1755, 1808, 1950, 3980, 4875,  8813,  11909,
     1350, 1868, 2127, 2016, 4725, 4450,  7712,  9637,
     2458, 3103, 4303, 4303, 6963, 6835,  11079, 13365,
     3375, 5704, 5052, 6049, 9198, 7232,  10725, 9834,
     5486, 7521, 7797, 7091, 11079, 10016, 13559, 12912,
     7279, 7649, 7020, 6097, 9189, 9047,  12661, 13768},
    // Intra chroma.
    {1024, 1193, 1434, 2203, 5632, 4641, 5916, 6563,
     1193, 1622, 1811, 3606, 6563, 5408, 6894, 7649,
     1434, 1811, 3515, 4875, 5916, 4875, 6215, 6894,
     2203, 3606, 4875, 3824, 4641, 3824, 4875, 5408,
     5632, 6563, 5916, 4641, 5632, 4641, 5916, 6563,
     4641, 5408, 4875, 3824, 4641, 3824, 4875, 5408,
     5916, 6894, 6215, 4875, 5916, 4875, 6215, 6894,
     6563, 7649, 6894, 5408, 6563, 5408, 6894, 7649},
    // Inter, all planes.
    {1024, 1193, 1076, 844,  1052, 914,  1225, 1492,
     1193, 1391, 1254, 983,  1227, 1065, 1463, 1816,
     1076, 1254, 1161, 936,  1195, 1034, 1444, 1741,
     844,  983,  936,  811,  1055, 927,  1305, 1584,
     1052, 1227, 1195, 1055, 1451, 1336, 1912, 2354,
     914,  1065, 1034, 927,  1336, 1313, 1945, 2486,
     1225, 1463, 1444, 1305, 1912, 1945, 3044, 4039,
     1492, 1816, 1741, 1584, 2354, 2486, 4039, 5679},
};

namespace {

struct DequantTables {
  Velmo2DequantTable Tables[Velmo2DequantKindCount];
};

// Row i is row 0 scaled by a quarter octave per step, rounded to the nearest integer.
DequantTables BuildDequantTables() {
  DequantTables t{};
  for (uint32_t kind = 0; kind < Velmo2DequantKindCount; ++kind)
    for (uint32_t row = 0; row < 4; ++row) {
      const double factor = std::exp2(row / 4.0);
      for (uint32_t k = 0; k < 64; ++k)
        t.Tables[kind][row][k] = uint16_t(std::lround(Velmo2DequantRow0[kind][k] * factor));
    }
  return t;
}

}  // namespace

const Velmo2DequantTable& Velmo2Dequant(Velmo2DequantKind kind) {
  static const DequantTables tables = BuildDequantTables();
  return tables.Tables[kind < Velmo2DequantKindCount ? kind : Velmo2DequantInter];
}

int16_t Velmo2DequantCoefficient(int32_t signedMagnitude, const Velmo2DequantTable& table,
                                 uint32_t q, uint32_t position) {
  return Velmo2Dequantise(signedMagnitude, table[q & 3][position & 63], q);
}

// ---------------------------------------------------------------------------------------------
// DC residual scales

// Entries for Q below 8 repeat that of Q = 8.
const uint32_t Velmo2DcScales[Velmo2DcScaleCount] = {
    4096,  4096,  4096,   4096,   4096,   4096,   4096,   4096,   4096,   4871,
    5793,  6889,  8192,   9742,   11585,  13777,  16384,  19484,  23170,  27554,
    32768, 38968, 46341,  55109,  65536,  77936,  92682,  110218, 131072, 155872,
    185364, 220436, 262144, 311744, 370728, 440872, 524288,
};

uint32_t Velmo2DcScale(int32_t q) {
  return Velmo2DcScales[std::clamp(q, 0, int32_t(Velmo2DcScaleCount) - 1)];
}

// ---------------------------------------------------------------------------------------------
// AC run codes

namespace {

// A code written as in the tables, first bit read first, in the bit reader's order.
constexpr Velmo2RunCode Code(const char* text, uint8_t skip, uint8_t repeat = 0) {
  uint16_t bits = 0;
  uint8_t length = 0;
  for (; text[length]; ++length)
    if (text[length] == '1') bits = uint16_t(bits | (1u << length));
  return {bits, length, skip, repeat};
}

}  // namespace

const Velmo2RunCode Velmo2RunCodes[2][Velmo2RunSymbolCount] = {
    {Code("1", 0), Code("000", 1), Code("0010", 2), Code("001101000", 3), Code("001101100", 4),
     Code("0011000", 5), Code("0011001", 6), Code("001101010", 7), Code("00110111", 8),
     Code("001101001", 9), Code("001101101", 10), Code("001101011", 0), Code("01", 64),
     Code("00111", 0, 7)},
    {Code("1", 0), Code("001", 1), Code("0000", 2), Code("0001", 3), Code("01000", 4),
     Code("0100110", 5), Code("01010", 6), Code("010010", 7), Code("0101110", 8),
     Code("01011110", 9), Code("01011111", 10), Code("0100111", 0), Code("011", 64),
     Code("010110", 0, 7)},
};

namespace {

struct RunLookups {
  uint8_t Entries[2][1u << Velmo2RunLongestCode];
};

// Every index whose low bits are a symbol's code maps to that symbol.
RunLookups BuildRunLookups() {
  RunLookups l{};
  for (uint32_t t = 0; t < 2; ++t)
    for (uint32_t symbol = 0; symbol < Velmo2RunSymbolCount; ++symbol) {
      const Velmo2RunCode& c = Velmo2RunCodes[t][symbol];
      for (uint32_t high = 0; high < (1u << (Velmo2RunLongestCode - c.Length)); ++high)
        l.Entries[t][c.Bits | (high << c.Length)] = uint8_t(symbol | (c.Length << 4));
    }
  return l;
}

}  // namespace

const uint8_t* Velmo2RunLookup(uint32_t table) {
  static const RunLookups lookups = BuildRunLookups();
  return lookups.Entries[table & 1];
}

// ---------------------------------------------------------------------------------------------
// Edge filters and flat blocks

const uint8_t Velmo2EdgeTaps[4] = {0, Velmo2TapInner, Velmo2TapInner | Velmo2TapOuter,
                                   Velmo2TapInner | Velmo2TapOuter};

const int32_t Velmo2FlatNearWeights[4] = {26624, 18432, 12288, 7168};
const uint8_t Velmo2FlatFarShifts[4] = {0, 7, 5, 4};

int32_t Velmo2FlatTaper(uint32_t column, int32_t dl, int32_t dr) {
  // Columns 4..7 mirror columns 3..0 with the two sides exchanged.
  const bool right = (column & 7) >= 4;
  const uint32_t i = right ? 7 - (column & 7) : column & 3;
  const int32_t nearSide = right ? dr : dl, farSide = right ? dl : dr;
  const int32_t nearPart = int32_t(int64_t(nearSide) * Velmo2FlatNearWeights[i] >> 16);
  return i == 0 ? nearPart : nearPart + (farSide >> Velmo2FlatFarShifts[i]);
}
