// Tables and the inverse transform of the first-generation frame format.
#include "decode/velmo1_tables.h"

#include "host/cpu_features.h"

#include <array>

// ---------------------------------------------------------------------------------------------
// Bundles

Velmo1BundleLimits Velmo1LimitsFor(uint32_t bundle, uint32_t planeWidth) {
  const uint64_t w = planeWidth, bw = planeWidth / 8;
  auto round16 = [](uint64_t v) { return uint32_t(v & ~uint64_t(15)); };
  auto bits = [](uint64_t v) { return Velmo1BitLength(uint32_t(v)); };
  switch (bundle) {
    case Velmo1BlockTypes:
    case Velmo1XMotion:
    case Velmo1YMotion: return {bits(bw + 511), round16(bw + 527), 1, 0};
    case Velmo1SubBlockTypes: return {bits(w / 16 + 511), round16(w / 16 + 527), 1, 0};
    case Velmo1Colors: return {bits(bw * 64 + 511), round16(bw * 64 + 527), 1, 64};
    case Velmo1Patterns: return {bits(bw * 8 + 511), round16(bw * 8 + 527), 1, 8};
    case Velmo1IntraDC:
    case Velmo1InterDC: return {bits(bw + 511), round16(bw * 2 + 1039) / 2, 2, 0};
    case Velmo1Runs: return {bits(bw * 48 + 511), round16(bw * 48 + 527), 1, 64};
    default: return {0, 0, 1, 0};
  }
}

// ---------------------------------------------------------------------------------------------
// Huffman tables

const uint8_t Velmo1CodeLengths[16][16] = {
    {4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4},
    {1, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5},
    {2, 2, 4, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5},
    {2, 3, 3, 4, 4, 4, 5, 5, 5, 5, 5, 5, 5, 5, 5, 5},
    {3, 3, 3, 3, 4, 4, 4, 4, 5, 5, 5, 5, 5, 5, 5, 5},
    {3, 3, 4, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 5},
    {2, 4, 4, 4, 4, 4, 4, 4, 4, 4, 5, 5, 5, 5, 5, 5},
    {1, 3, 3, 5, 5, 5, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6},
    {1, 2, 5, 5, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6},
    {1, 3, 4, 4, 5, 5, 5, 5, 6, 6, 6, 6, 6, 6, 6, 6},
    {2, 2, 3, 4, 4, 5, 5, 5, 5, 5, 6, 6, 6, 6, 6, 6},
    {1, 4, 4, 4, 4, 5, 5, 5, 5, 5, 6, 6, 6, 6, 6, 6},
    {2, 2, 2, 5, 5, 5, 6, 6, 6, 6, 6, 6, 6, 6, 6, 6},
    {1, 3, 3, 3, 6, 6, 6, 6, 7, 7, 7, 7, 7, 7, 7, 7},
    {1, 3, 3, 3, 5, 6, 7, 7, 7, 7, 7, 7, 7, 7, 7, 7},
    {2, 2, 3, 3, 3, 6, 6, 6, 6, 6, 7, 7, 7, 7, 7, 7},
};

const uint8_t Velmo1LongestCode[16] = {4, 5, 5, 5, 5, 5, 5, 6, 6, 6, 6, 6, 6, 7, 7, 7};

namespace {

struct HuffTables {
  uint32_t Codes[16][16];     // canonical codes, first bit read on top
  uint8_t Lookup[16][128];    // 2^longest entries used of each
};

HuffTables BuildHuffTables() {
  HuffTables h{};
  for (uint32_t t = 0; t < 16; ++t) {
    uint32_t code = 0;
    for (uint32_t i = 0; i < 16; ++i) {
      if (i > 0) code = (code + 1) << (Velmo1CodeLengths[t][i] - Velmo1CodeLengths[t][i - 1]);
      h.Codes[t][i] = code;
    }
    const uint32_t longest = Velmo1LongestCode[t];
    for (uint32_t i = 0; i < 16; ++i) {
      const uint32_t len = Velmo1CodeLengths[t][i];
      uint32_t reversed = 0;
      for (uint32_t b = 0; b < len; ++b) reversed |= ((h.Codes[t][i] >> (len - 1 - b)) & 1u) << b;
      // Every index whose low `len` bits are the code read first-bit-lowest decodes to it.
      for (uint32_t rest = 0; rest < (1u << (longest - len)); ++rest)
        h.Lookup[t][reversed | (rest << len)] = uint8_t(i | (len << 4));
    }
  }
  return h;
}

const HuffTables& Huff() {
  static const HuffTables tables = BuildHuffTables();
  return tables;
}

}  // namespace

uint32_t Velmo1CanonicalCode(uint32_t table, uint32_t code) { return Huff().Codes[table & 15][code & 15]; }

uint32_t Velmo1StreamCode(uint32_t table, uint32_t code) {
  const uint32_t len = Velmo1CodeLengths[table & 15][code & 15];
  const uint32_t c = Velmo1CanonicalCode(table, code);
  uint32_t reversed = 0;
  for (uint32_t b = 0; b < len; ++b) reversed |= ((c >> (len - 1 - b)) & 1u) << b;
  return reversed;
}

const uint8_t* Velmo1HuffLookup(uint32_t table) { return Huff().Lookup[table & 15]; }

// ---------------------------------------------------------------------------------------------
// Scans and orders

const uint8_t Velmo1RunScans[16][64] = {
    {0, 8, 16, 24, 32, 40, 48, 56, 57, 49, 41, 33, 25, 17, 9, 1, 2, 10, 18, 26, 34, 42, 50, 58, 59, 51, 43, 35, 27, 19, 11, 3,
     4, 12, 20, 28, 36, 44, 52, 60, 61, 53, 45, 37, 29, 21, 13, 5, 6, 14, 22, 30, 38, 46, 54, 62, 63, 55, 47, 39, 31, 23, 15, 7},
    {59, 58, 57, 56, 48, 49, 50, 51, 43, 42, 41, 40, 32, 33, 34, 35, 27, 26, 25, 24, 16, 17, 18, 19, 11, 10, 9, 8, 0, 1, 2, 3,
     4, 5, 6, 7, 15, 14, 13, 12, 20, 21, 22, 23, 31, 30, 29, 28, 36, 37, 38, 39, 47, 46, 45, 44, 52, 53, 54, 55, 63, 62, 61, 60},
    {25, 17, 18, 26, 27, 19, 11, 3, 2, 10, 9, 1, 0, 8, 16, 24, 32, 40, 48, 56, 57, 49, 41, 42, 50, 58, 59, 51, 43, 35, 34, 33,
     29, 21, 22, 30, 31, 23, 15, 7, 6, 14, 13, 5, 4, 12, 20, 28, 36, 44, 52, 60, 61, 53, 45, 46, 54, 62, 63, 55, 47, 39, 38, 37},
    {3, 11, 2, 10, 1, 9, 0, 8, 16, 24, 17, 25, 18, 26, 19, 27, 35, 43, 34, 42, 33, 41, 32, 40, 48, 56, 49, 57, 50, 58, 51, 59,
     60, 52, 61, 53, 62, 54, 63, 55, 47, 39, 46, 38, 45, 37, 44, 36, 28, 20, 29, 21, 30, 22, 31, 23, 15, 7, 14, 6, 13, 5, 12, 4},
    {24, 25, 16, 17, 8, 9, 0, 1, 2, 3, 10, 11, 18, 19, 26, 27, 28, 29, 20, 21, 12, 13, 4, 5, 6, 7, 14, 15, 22, 23, 30, 31,
     39, 38, 47, 46, 55, 54, 63, 62, 61, 60, 53, 52, 45, 44, 37, 36, 35, 34, 43, 42, 51, 50, 59, 58, 57, 56, 49, 48, 41, 40, 33, 32},
    {0, 1, 2, 3, 8, 9, 10, 11, 16, 17, 18, 19, 24, 25, 26, 27, 32, 33, 34, 35, 40, 41, 42, 43, 48, 49, 50, 51, 56, 57, 58, 59,
     4, 5, 6, 7, 12, 13, 14, 15, 20, 21, 22, 23, 28, 29, 30, 31, 36, 37, 38, 39, 44, 45, 46, 47, 52, 53, 54, 55, 60, 61, 62, 63},
    {6, 7, 15, 14, 13, 5, 12, 4, 3, 11, 2, 10, 9, 1, 0, 8, 16, 24, 17, 25, 18, 26, 19, 27, 20, 28, 21, 29, 22, 30, 23, 31,
     39, 47, 38, 46, 37, 45, 36, 44, 35, 43, 34, 42, 33, 41, 32, 40, 49, 48, 56, 57, 58, 50, 59, 51, 60, 52, 61, 53, 54, 55, 63, 62},
    {0, 1, 2, 3, 4, 5, 6, 7, 15, 14, 13, 12, 11, 10, 9, 8, 16, 17, 18, 19, 20, 21, 22, 23, 31, 30, 29, 28, 27, 26, 25, 24,
     32, 33, 34, 35, 36, 37, 38, 39, 47, 46, 45, 44, 43, 42, 41, 40, 48, 49, 50, 51, 52, 53, 54, 55, 63, 62, 61, 60, 59, 58, 57, 56},
    {0, 8, 9, 1, 2, 3, 11, 10, 18, 19, 27, 26, 25, 17, 16, 24, 32, 40, 41, 33, 34, 35, 43, 42, 50, 49, 48, 56, 57, 58, 59, 51,
     52, 60, 61, 62, 63, 55, 54, 53, 45, 44, 36, 37, 38, 46, 47, 39, 31, 23, 22, 30, 29, 28, 20, 21, 13, 12, 4, 5, 6, 14, 15, 7},
    {24, 25, 16, 17, 8, 9, 0, 1, 2, 3, 10, 11, 18, 19, 26, 27, 28, 29, 20, 21, 12, 13, 4, 5, 6, 7, 14, 15, 22, 23, 30, 31,
     38, 39, 46, 47, 54, 55, 62, 63, 60, 61, 52, 53, 44, 45, 36, 37, 34, 35, 42, 43, 50, 51, 58, 59, 56, 57, 48, 49, 40, 41, 32, 33},
    {0, 8, 1, 9, 2, 10, 3, 11, 19, 27, 18, 26, 17, 25, 16, 24, 32, 40, 33, 41, 34, 42, 35, 43, 51, 59, 50, 58, 49, 57, 48, 56,
     60, 52, 61, 53, 62, 54, 63, 55, 47, 39, 46, 38, 45, 37, 44, 36, 31, 23, 30, 22, 29, 21, 28, 20, 12, 4, 13, 5, 14, 6, 15, 7},
    {0, 8, 16, 24, 25, 26, 27, 19, 11, 3, 2, 1, 9, 17, 18, 10, 4, 12, 20, 28, 29, 30, 31, 23, 15, 7, 6, 5, 13, 21, 22, 14,
     36, 44, 52, 60, 61, 62, 63, 55, 47, 39, 38, 37, 45, 53, 54, 46, 32, 40, 48, 56, 57, 58, 59, 51, 43, 35, 34, 33, 41, 49, 50, 42},
    {0, 8, 9, 1, 2, 3, 11, 10, 19, 27, 26, 18, 17, 16, 24, 25, 33, 32, 40, 41, 42, 34, 35, 43, 51, 59, 58, 50, 49, 57, 56, 48,
     52, 60, 61, 53, 54, 62, 63, 55, 47, 39, 38, 46, 45, 44, 36, 37, 29, 28, 20, 21, 22, 30, 31, 23, 14, 15, 7, 6, 5, 13, 12, 4},
    {24, 16, 8, 0, 1, 2, 3, 11, 19, 27, 26, 25, 17, 10, 9, 18, 28, 20, 12, 4, 5, 6, 7, 15, 23, 31, 30, 29, 21, 14, 13, 22,
     60, 52, 44, 36, 37, 38, 39, 47, 55, 63, 62, 61, 53, 46, 45, 54, 56, 48, 40, 32, 33, 34, 35, 43, 51, 59, 58, 57, 49, 42, 41, 50},
    {0, 8, 9, 1, 2, 10, 18, 17, 16, 24, 25, 26, 27, 19, 11, 3, 7, 6, 14, 15, 23, 22, 21, 13, 5, 4, 12, 20, 28, 29, 30, 31,
     63, 62, 54, 55, 47, 46, 45, 53, 61, 60, 52, 44, 36, 37, 38, 39, 56, 48, 49, 57, 58, 50, 42, 41, 40, 32, 33, 34, 35, 43, 51, 59},
    {0, 1, 8, 9, 16, 17, 24, 25, 32, 33, 40, 41, 48, 49, 56, 57, 58, 59, 50, 51, 42, 43, 34, 35, 26, 27, 18, 19, 10, 11, 2, 3,
     4, 5, 12, 13, 20, 21, 28, 29, 36, 37, 44, 45, 52, 53, 60, 61, 62, 63, 54, 55, 46, 47, 38, 39, 30, 31, 22, 23, 14, 15, 6, 7},
};

const uint8_t Velmo1CoefficientOrder[64] = {
    0,  1,  8,  9,  2,  3,  10, 11, 4,  5,  12, 13, 6,  7,  14, 15, 20, 21, 28, 29, 22, 23,
    30, 31, 16, 17, 24, 25, 32, 33, 40, 41, 34, 35, 42, 43, 48, 49, 56, 57, 50, 51, 58, 59,
    18, 19, 26, 27, 36, 37, 44, 45, 38, 39, 46, 47, 52, 53, 60, 61, 54, 55, 62, 63,
};

// ---------------------------------------------------------------------------------------------
// Dequantisation

const Velmo1Fraction Velmo1ScaleFactors[16] = {
    {1, 1}, {4, 3}, {5, 3}, {2, 1}, {8, 3}, {7, 2}, {4, 1}, {5, 1},
    {6, 1}, {8, 1}, {12, 1}, {17, 1}, {22, 1}, {28, 1}, {34, 1}, {44, 1},
};

const uint32_t Velmo1IntraBaseMilli[64] = {
    65536000, 90901049, 85626914, 91511347, 65536000, 61145923, 48768266, 24861847,
    124988940, 173364640, 192997899, 160332487, 147714200, 98203179, 67643528, 42321726,
    144495414, 200420897, 181800049, 163615726, 139143737, 121938900, 83992974, 42819244,
    130042442, 180374049, 169908640, 147250256, 163757147, 128663166, 88624726, 38536305,
    118784000, 164758147, 144495414, 130042442, 151552000, 109419026, 75369140, 36162682,
    102982616, 129449640, 121938900, 143800000, 119073653, 88498506, 60958834, 30188640,
    77585881, 122988226, 115852379, 104264392, 84236095, 66183875, 57585153, 29356653,
    51983862, 72103682, 85638494, 74414935, 63284698, 61265179, 42200192, 25878528,
};

const uint32_t Velmo1InterBaseMilli[64] = {
    65536000, 96582360, 90978596, 86694962, 73728000, 57927718, 42118049, 21471596,
    107944994, 149724000, 148459929, 133610404, 113626308, 89275621, 61494119, 32916899,
    112385327, 155882923, 146838506, 132151161, 112385327, 92505371, 63718811, 32483565,
    105960506, 146971445, 138444077, 124596375, 110776892, 87036847, 59952026, 30563274,
    94208000, 130670256, 123088689, 110776892, 98304000, 77236962, 53201744, 28252095,
    77236962, 107130744, 100914951, 94605274, 83673371, 65741744, 45283702, 23085429,
    55418484, 83017055, 78200360, 70378462, 59851962, 47025384, 33591339, 17124718,
    31642347, 43889200, 44295774, 39865140, 33902516, 27524940, 18959506, 10289049,
};

namespace {

using DequantSet = std::array<std::array<std::array<uint32_t, 64>, 16>, 2>;

DequantSet BuildDequant() {
  DequantSet d{};
  for (int inter = 0; inter < 2; ++inter) {
    const uint32_t* base = inter ? Velmo1InterBaseMilli : Velmo1IntraBaseMilli;
    for (uint32_t s = 0; s < 16; ++s) {
      const uint64_t num = Velmo1ScaleFactors[s].Num, den = Velmo1ScaleFactors[s].Den * 1000ull;
      // base * f rounded to nearest, exactly in integers: (2 * b * num + den) / (2 * den).
      for (int k = 0; k < 64; ++k) d[inter][s][k] = uint32_t((2 * base[k] * num + den) / (2 * den));
    }
  }
  return d;
}

}  // namespace

const uint32_t* Velmo1DequantTable(bool inter, uint32_t scale) {
  static const DequantSet tables = BuildDequant();
  return tables[inter ? 1 : 0][scale & 15].data();
}

// ---------------------------------------------------------------------------------------------
// Inverse transform, plain C++. Wrapping 32-bit arithmetic is spelled out through unsigned
// operations so that damaged coefficients give the same values as the vector kernels.

namespace {

inline int32_t Add(int32_t a, int32_t b) { return int32_t(uint32_t(a) + uint32_t(b)); }
inline int32_t Sub(int32_t a, int32_t b) { return int32_t(uint32_t(a) - uint32_t(b)); }
inline int32_t MulShift(int32_t a, int32_t k) { return int32_t(uint32_t(a) * uint32_t(k)) >> 11; }

// One 8-point pass over p[0], p[stride] ... p[7 * stride], in place.
inline void IdctPass(int32_t* p, int stride) {
  const int32_t x0 = p[0], x1 = p[stride], x2 = p[2 * stride], x3 = p[3 * stride];
  const int32_t x4 = p[4 * stride], x5 = p[5 * stride], x6 = p[6 * stride], x7 = p[7 * stride];
  const int32_t s = Add(x2, x6);
  const int32_t d = Sub(MulShift(Sub(x2, x6), 2896), s);
  const int32_t a = Add(x0, x4), b = Sub(x0, x4);
  const int32_t e0 = Add(a, s), e3 = Sub(a, s), e1 = Add(b, d), e2 = Sub(b, d);
  const int32_t pp = Add(x5, x3), m = Sub(x5, x3), u = Add(x1, x7), v = Sub(x1, x7);
  const int32_t o0 = Add(u, pp);
  const int32_t t = MulShift(Add(v, m), 3784);
  const int32_t o1 = Add(Sub(MulShift(m, -5352), o0), t);
  const int32_t o2 = Sub(MulShift(Sub(u, pp), 2896), o1);
  const int32_t o3 = Add(Sub(MulShift(v, 2217), t), o2);
  p[0] = Add(e0, o0);
  p[7 * stride] = Sub(e0, o0);
  p[stride] = Add(e1, o1);
  p[6 * stride] = Sub(e1, o1);
  p[2 * stride] = Add(e2, o2);
  p[5 * stride] = Sub(e2, o2);
  p[3 * stride] = Sub(e3, o3);
  p[4 * stride] = Add(e3, o3);
}

}  // namespace

void Velmo1IdctPlain(const int16_t coeffs[64], const uint32_t table[64], int32_t out[64]) {
  for (int k = 0; k < 64; ++k) out[k] = int32_t(uint32_t(int32_t(coeffs[k])) * table[k]) >> 11;
  for (int col = 0; col < 8; ++col) IdctPass(out + col, 8);
  for (int row = 0; row < 8; ++row) IdctPass(out + row * 8, 1);
  for (int k = 0; k < 64; ++k) out[k] = Add(out[k], 127) >> 8;
}

void Velmo1KernelsInit(Velmo1Kernels* kernels, uint32_t features) {
  kernels->Idct = Velmo1IdctPlain;
#if ORN_X86_KERNELS
  if (ProcessorLevelOf(features) < ProcessorLevelAvx2) return;
  kernels->Idct = Velmo1IdctAvx2;
#endif
}
