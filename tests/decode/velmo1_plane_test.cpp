// Plane decoding: every block kind against pixels worked out here, the bundle forms, and the
// damage rules of bundles and blocks.
#include "decode/velmo1_decoder.h"
#include "format/container.h"
#include "velmo1_stream_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstring>
#include <functional>
#include <random>
#include <tuple>

namespace {

constexpr uint8_t Untouched = 0xEE;

// A destination and a source plane with a pitch wider than the plane, and a workspace.
struct PlaneFixture {
  uint32_t W, H;
  int32_t Pitch;
  std::vector<uint8_t> Dest, Source;
  std::vector<std::vector<uint8_t>> Buffers;
  Velmo1Workspace Work{};
  uint32_t Skips = 0;
  size_t Consumed = 0;

  PlaneFixture(uint32_t w, uint32_t h, uint8_t workFill = 0) : W(w), H(h), Pitch(int32_t(w) + 8) {
    Dest.assign(size_t(Pitch) * h, Untouched);
    Source.resize(Dest.size());
    for (size_t i = 0; i < Source.size(); ++i) Source[i] = uint8_t(i * 7 + i / size_t(Pitch) * 13);
    Velmo1BundleSizes(w, Work.Sizes);
    for (uint32_t b = 0; b < Velmo1BundleCount; ++b) {
      Buffers.emplace_back(Work.Sizes[b], workFill);
      Work.Bundles[b] = Buffers.back().data();
    }
    std::memset(Work.RunScratch, 0, 64);
  }
  uint8_t& D(uint32_t x, uint32_t y) { return Dest[size_t(y) * Pitch + x]; }
  uint8_t S(uint32_t x, uint32_t y) const { return Source[size_t(y) * Pitch + x]; }

  void Decode(const std::vector<uint8_t>& stream, uint32_t flags = 0, uint32_t tag = VelmoMagicVLMi) {
    const auto copy = Velmo1ExactCopy(stream);
    const uint8_t* end = Velmo1DecodePlane(Dest.data(), Source.data(), W, H, Pitch, copy.get(),
                                           copy.get() + stream.size() + 4, &Work, flags, tag, &Skips);
    Consumed = size_t(end - copy.get());
  }
};

using Blocks = std::vector<Velmo1EncRawBlock>;

std::vector<uint8_t> Build(const Velmo1EncPlaneSpec& p, Velmo1EncPlaneOptions o = {}) { return Velmo1EncBuildPlane(p, o); }
// The stream of a plane of `width` made of the rows of blocks.
std::vector<uint8_t> Build(uint32_t width, std::vector<Blocks> rows) { return Build({width, std::move(rows)}); }

void RandomPixels(std::mt19937& rng, uint8_t px[64]) {
  for (int i = 0; i < 64; ++i) px[i] = uint8_t(rng());
}

// ---------------------------------------------------------------------------------------------
// Intra kinds

TEST(Velmo1Plane, OneTwoBangFillTheirBlocks) {
  std::mt19937 rng(1);
  uint8_t px[64];
  RandomPixels(rng, px);
  const uint8_t patterns[8] = {0x00, 0xFF, 0x01, 0x80, 0x55, 0xAA, 0x0F, 0xF0};
  PlaneFixture f(24, 8);
  f.Decode(Build(24, {{Velmo1EncOneBlock(77), Velmo1EncTwoBlock(10, 200, patterns), Velmo1EncBangBlock(px)}}));
  for (uint32_t y = 0; y < 8; ++y)
    for (uint32_t x = 0; x < 8; ++x) {
      EXPECT_EQ(f.D(x, y), 77);
      EXPECT_EQ(f.D(8 + x, y), ((patterns[y] >> x) & 1) ? 200 : 10) << x << "," << y;
      EXPECT_EQ(f.D(16 + x, y), px[y * 8 + x]);
    }
  EXPECT_EQ(f.Skips, 0u);
  EXPECT_EQ(f.D(24, 0), Untouched);  // the pitch's spare bytes stay as they were
}

TEST(Velmo1Plane, RunBlocksFollowEveryScan) {
  std::mt19937 rng(2);
  for (uint32_t scan = 0; scan < 16; ++scan) {
    uint8_t px[64];
    for (int i = 0; i < 64; ++i) px[i] = uint8_t((i / 5) * 20 + (rng() % 3 == 0 ? rng() % 7 : 0));
    PlaneFixture f(8, 8);
    f.Decode(Build(8, {{Velmo1EncRunBlock(scan, px)}}));
    for (int i = 0; i < 64; ++i) ASSERT_EQ(f.D(i % 8, i / 8), px[i]) << "scan " << scan << " pixel " << i;
  }
}

// A RUN block from explicit runs: (length, shared colour) pairs and the colours taken.
Velmo1EncRawBlock RawRun(uint32_t scan, std::vector<std::pair<int, bool>> runs, std::vector<uint8_t> colours) {
  Velmo1EncRawBlock b;
  b.Type = Velmo1Run;
  b.Bits.Put(scan, 4);
  for (auto [len, shared] : runs) {
    b.Runs.push_back(uint8_t(len - 1));
    if (len <= 64) b.Bits.Put(shared, 1);
  }
  b.Colors = std::move(colours);
  return b;
}

TEST(Velmo1Plane, RunsEndingAt63TakeALastColourAndOverflowsKeepTheScratchBlock) {
  // 16 + 16 + 16 + 15 = 63: scan[63] takes one more colour. Then 4 x 16 = 64 takes none, which
  // the ONE block after it proves by finding its own colour.
  PlaneFixture f(24, 8);
  f.Decode(Build(24, {{RawRun(0, {{16, true}, {16, true}, {16, true}, {15, true}}, {1, 2, 3, 4, 99}),
                             RawRun(7, {{16, true}, {16, true}, {16, true}, {16, true}}, {5, 6, 7, 8}),
                             Velmo1EncOneBlock(42)}}));
  for (int k = 0; k < 64; ++k) {
    const int pos = Velmo1RunScans[0][k];
    EXPECT_EQ(f.D(pos % 8, pos / 8), k == 63 ? 99 : 1 + k / 16) << k;
    const int pos7 = Velmo1RunScans[7][k];
    EXPECT_EQ(f.D(8 + pos7 % 8, pos7 / 8), 5 + k / 16) << k;
  }
  EXPECT_EQ(f.D(16, 0), 42);

  // Here the second block's runs stop at 58 (a run of 16 with 6 left): its last six scan pixels
  // keep what the first RUN block left in the scratch block.
  uint8_t first[64];
  for (int i = 0; i < 64; ++i) first[i] = uint8_t(100 + i);
  Velmo1EncRawBlock second = RawRun(5, {{16, false}, {16, true}, {16, true}, {10, true}, {16, true}}, {});
  for (int i = 0; i < 16; ++i) second.Colors.push_back(uint8_t(i));
  second.Colors.insert(second.Colors.end(), {20, 21, 22});
  second.Bits.Fields.pop_back();  // the overflowing run reads no flag
  PlaneFixture g(24, 8);
  g.Decode(Build(24, {{Velmo1EncBangBlock(first), Velmo1EncRunBlock(0, first), second}}));
  for (int k = 0; k < 64; ++k) {
    const int pos = Velmo1RunScans[5][k];
    const uint8_t want = k < 16 ? uint8_t(k) : k < 32 ? 20 : k < 48 ? 21 : k < 58 ? 22 : first[pos];
    EXPECT_EQ(g.D(16 + pos % 8, pos / 8), want) << k;
  }
}

TEST(Velmo1Plane, IntraDcMatchesTheFloatTransform) {
  const int16_t none[64] = {};
  const uint16_t dcs[4] = {1024, 1000, 37, 2040};
  const uint32_t scales[4] = {0, 1, 5, 0};
  PlaneFixture f(32, 8);
  std::vector<Velmo1EncRawBlock> blocks;
  for (int i = 0; i < 4; ++i) blocks.push_back(Velmo1EncIntraBlock(dcs[i], none, scales[i]));
  f.Decode(Build(32, {blocks}));
  for (int i = 0; i < 4; ++i) {
    const double scale = double(Velmo1ScaleFactors[scales[i]].Num) / Velmo1ScaleFactors[scales[i]].Den;
    const double ideal = dcs[i] * scale / 8;  // a DC of c * f stands for pixels of c * f / 8
    for (uint32_t y = 0; y < 8; ++y)
      for (uint32_t x = 0; x < 8; ++x) EXPECT_NEAR(f.D(i * 8 + x, y), ideal, 1.0) << i;
  }
  EXPECT_EQ(f.D(0, 0), 128);  // 1024 * 32 + 127 >> 8
  EXPECT_EQ(f.D(8, 0), 167);  // (1000 * 87381 >> 11) = 42666; + 127 >> 8
}

TEST(Velmo1Plane, IntraWithAcMatchesTheFloatTransform) {
  std::mt19937 rng(5);
  for (int round = 0; round < 40; ++round) {
    int16_t coeffs[64] = {};
    for (int n = 0; n < 12; ++n) coeffs[1 + rng() % 63] = int16_t(int(rng() % 41) - 20);
    if (round % 5 == 0) coeffs[63] = 300;  // a deep bit plane
    const uint32_t scale = rng() % 3;
    PlaneFixture f(8, 8);
    f.Decode(Build(8, {{Velmo1EncIntraBlock(1024, coeffs, scale)}}));
    coeffs[0] = 1024;
    double ideal[64];
    Velmo1FloatIdct(coeffs, Velmo1DequantTable(false, scale), ideal);
    for (int y = 0; y < 8; ++y)
      for (int x = 0; x < 8; ++x) {
        const int want = int(std::lround(ideal[y * 8 + x])) & 255;
        const int got = f.D(x, y);
        const int diff = std::abs(((got - want + 128) & 255) - 128);  // the result wraps
        ASSERT_LE(diff, 2) << round << " " << x << "," << y;
      }
  }
}

// ---------------------------------------------------------------------------------------------
// Every block kind from a stream written here bit by bit after the layout, not through the
// encoder's stream writer, so that a misreading shared by both sides shows up. One "VLMi"
// plane: all 23 descriptions are table 0 (4-bit codes, identity map), every count field is 10
// bits wide at these widths except that of SubBlockTypes on an 8 wide plane (9 bits:
// bitlen(0 + 511)), and bundles a row does not use are killed with a count of 0.

// Fields go in lowest bit first; a table-0 symbol is its four code bits, most significant first.
struct HandBits {
  uint32_t Width = 8;  // of the plane, for the width of the count fields
  std::vector<uint8_t> Bytes;
  size_t Total = 0;
  void Put(uint32_t v, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i, ++Total) {
      if (Total % 8 == 0) Bytes.push_back(0);
      Bytes.back() |= uint8_t(((v >> i) & 1) << (Total % 8));
    }
  }
  void Sym(uint32_t v) {
    for (int i = 3; i >= 0; --i) Put((v >> i) & 1, 1);
  }
  void Colour(uint8_t c) { Sym(c >> 4), Sym(c & 15); }
  // The stream padded to its last word, which is where the plane ends.
  std::vector<uint8_t> Words() const {
    std::vector<uint8_t> out = Bytes;
    out.resize((Total + 31) / 32 * 4, 0);
    return out;
  }
};

enum HandBundle { HTypes, HSubTypes, HColours, HPatterns, HX, HY, HIntraDc, HInterDc, HRuns };
using HandRefills = std::vector<std::pair<HandBundle, std::function<void(HandBits&)>>>;

// One row's refills in bundle order; a bundle not named reads a count of 0, one already dead
// (or not used up) reads nothing.
void HandRow(HandBits& w, const HandRefills& fills, std::vector<HandBundle> idle = {}) {
  for (int b = HTypes; b <= HRuns; ++b) {
    if (std::find(idle.begin(), idle.end(), b) != idle.end()) continue;
    bool given = false;
    for (const auto& [which, write] : fills)
      if (which == b) write(w), given = true;
    if (!given) w.Put(0, b == HSubTypes && w.Width < 16 ? 9 : 10);
  }
}
auto FillTypes(uint32_t n, uint32_t kind) {
  return [=](HandBits& w) { w.Put(n, 10), w.Put(1, 1), w.Put(kind, 4); };
}
auto Colours(std::vector<uint8_t> cs) {
  return [=](HandBits& w) {
    w.Put(uint32_t(cs.size()), 10), w.Put(0, 1);
    for (uint8_t c : cs) w.Colour(c);
  };
}
auto Motion(int v) {  // one signed element, symbol form
  return [=](HandBits& w) {
    w.Put(1, 10), w.Put(0, 1), w.Sym(uint32_t(std::abs(v)));
    if (v) w.Put(v < 0, 1);
  };
}

TEST(Velmo1Plane, EveryKindFromAHandWrittenStream) {
  const uint32_t intra = 5, inter = 7;
  // Scan 2 and the first coefficient positions, as the format lists them.
  const int scan2[64] = {25, 17, 18, 26, 27, 19, 11, 3,  2,  10, 9,  1,  0,  8,  16, 24,
                         32, 40, 48, 56, 57, 49, 41, 42, 50, 58, 59, 51, 43, 35, 34, 33,
                         29, 21, 22, 30, 31, 23, 15, 7,  6,  14, 13, 5,  4,  12, 20, 28,
                         36, 44, 52, 60, 61, 53, 45, 46, 54, 62, 63, 55, 47, 39, 38, 37};
  const uint8_t patterns[8] = {0x00, 0xFF, 0x81, 0x3C, 0x5A, 0x0F, 0xE1, 0x96};
  auto patternBundle = [&](HandBits& w) {
    w.Put(8, 10);
    for (uint8_t p : patterns) w.Sym(p & 15), w.Sym(p >> 4);
  };
  auto fromTransform = [](int16_t c[64], bool isInter, uint32_t scale, uint32_t x, uint32_t y) {
    int32_t out[64];
    Velmo1IdctPlain(c, Velmo1DequantTable(isInter, scale), out);
    return out[y * 8 + x];
  };
  // Intra AC coefficients by list index, then by position: 1 -> 1, 3 -> 9, 4 -> 2, 6 -> 10,
  // 7 -> 11, 8 -> 4.
  int16_t intraCoeffs[64] = {};
  intraCoeffs[0] = 600, intraCoeffs[2] = 3, intraCoeffs[11] = -2, intraCoeffs[1] = -3;
  intraCoeffs[10] = 1, intraCoeffs[4] = -1, intraCoeffs[9] = 1;
  int16_t interCoeffs[64] = {};
  interCoeffs[0] = -300, interCoeffs[1] = 1;
  // RUN colours in the order taken, and the pixels they give along the scan.
  std::vector<uint8_t> runColours, runPixels;
  for (auto [len, shared, first] : {std::tuple{3, true, 7}, {16, false, 100}, {1, true, 30}, {16, false, 120},
                                    {2, true, 40}, {16, false, 140}, {9, true, 70}}) {
    for (int i = 0; i < len; ++i) runPixels.push_back(uint8_t(shared ? first : first + i));
    for (int i = 0; i < (shared ? 1 : len); ++i) runColours.push_back(uint8_t(first + i));
  }
  runColours.push_back(222);
  runPixels.push_back(222);
  // MOTZ residue by list index 0..3 (positions 0, 1, 8, 9): +3, +1, -1, -2.
  const int residue[4][2] = {{0, 3}, {1, 1}, {8, -1}, {9, -2}};

  struct Case {
    const char* Name;
    uint32_t W, H, Skips;
    std::function<void(HandBits&)> Write;
    std::function<int(PlaneFixture&, uint32_t, uint32_t)> Want;  // -1: same as the source
  };
  const Case cases[] = {
      {"SKIP", 8, 8, 1, [&](HandBits& w) { HandRow(w, {{HTypes, FillTypes(1, Velmo1Skip)}}); },
       [](PlaneFixture&, uint32_t, uint32_t) { return -1; }},
      {"DOUBLED of TWO", 16, 16, 0,
       [&](HandBits& w) {
         HandRow(w, {{HTypes, FillTypes(1, Velmo1Doubled)}, {HSubTypes, FillTypes(1, Velmo1Two)},
                     {HColours, Colours({0x21, 0xD4})}, {HPatterns, patternBundle}});
         // The lower half reads nothing; the used-up bundles are killed.
         HandRow(w, {{HTypes, FillTypes(1, Velmo1Doubled)}}, {HX, HY, HIntraDc, HInterDc, HRuns});
       },
       [&](PlaneFixture&, uint32_t x, uint32_t y) { return (patterns[y / 2] >> (x / 2)) & 1 ? 0xD4 : 0x21; }},
      {"MOT", 16, 16, 3,
       [&](HandBits& w) {
         HandRow(w, {{HTypes, [](HandBits& w) { w.Put(2, 10), w.Put(0, 1), w.Sym(Velmo1Skip), w.Sym(Velmo1Mot); }},
                     {HX, Motion(-5)}, {HY, Motion(3)}});
         HandRow(w, {{HTypes, FillTypes(2, Velmo1Skip)}}, {HSubTypes, HColours, HPatterns, HIntraDc, HInterDc, HRuns});
       },
       [](PlaneFixture& f, uint32_t x, uint32_t y) { return x >= 8 && y < 8 ? f.S(x - 5, y + 3) : -1; }},
      {"RUN", 8, 8, 0,
       [&](HandBits& w) {
         // Runs of 3 shared, 16 one by one, 1 shared, 16, 2 shared, 16, 9 shared: 63 pixels, so
         // scan[63] takes a last colour.
         HandRow(w, {{HTypes, FillTypes(1, Velmo1Run)}, {HColours, Colours(runColours)},
                     {HRuns, [](HandBits& w) {
                        w.Put(7, 10), w.Put(0, 1);
                        for (uint32_t r : {2, 15, 0, 15, 1, 15, 8}) w.Sym(r);
                      }}});
         w.Put(2, 4);
         for (uint32_t shared : {1, 0, 1, 0, 1, 0, 1}) w.Put(shared, 1);
       },
       [&](PlaneFixture&, uint32_t x, uint32_t y) {
         int k = 0;
         while (scan2[k] != int(y * 8 + x)) ++k;
         return int(runPixels[k]);
       }},
      {"MOTZ", 16, 8, 1,
       [&](HandBits& w) {
         HandRow(w, {{HTypes, [](HandBits& w) { w.Put(2, 10), w.Put(0, 1), w.Sym(Velmo1Motz), w.Sym(Velmo1Skip); }},
                     {HX, Motion(7)}, {HY, Motion(0)}});
         w.Put(127, 7);  // the limit
         w.Put(1, 3);    // two planes, M = 2 then 1
         // M = 2: groups at 4, 24, 44 stay; (0, 4 singles) opens: 0 now (+2), 1 and 2 wait
         // at the front (2 ahead of 1), 3 now (-2).
         for (uint32_t b : {0, 0, 0, 1, 0, 0, 1, 1, 0, 1}) w.Put(b, 1);
         // M = 1: refine 0 (+1 -> 3) and not 3; then 2 (-1), 1 (+1), and the three groups stay.
         for (uint32_t b : {1, 0, 1, 1, 1, 0, 0, 0, 0}) w.Put(b, 1);
       },
       [&](PlaneFixture& f, uint32_t x, uint32_t y) {
         if (x >= 8) return -1;
         int add = 0;
         for (const auto& [pos, v] : residue)
           if (int(y * 8 + x) == pos) add = v;
         return (f.S(x + 7, y) + add) & 255;
       }},
      {"DCT_INTRA", 8, 8, 0,
       [&](HandBits& w) {
         HandRow(w, {{HTypes, FillTypes(1, intra)}, {HIntraDc, [](HandBits& w) { w.Put(1, 10), w.Put(600, 11); }}});
         w.Put(2, 4);  // two bit planes
         // n = 2: group 4 opens: 4 now (+3), 5 and 6 wait (6 ahead), 7 now (-2); its next
         // group (8, 16 coefficients) stays; 24 and 44 stay; 1 is -3; 2 and 3 stay.
         w.Put(1, 1), w.Put(0, 1), w.Put(1, 2), w.Put(1, 1), w.Put(1, 1), w.Put(0, 1), w.Put(2, 2);
         w.Put(0, 1), w.Put(0, 1), w.Put(0, 1), w.Put(1, 1), w.Put(3, 2), w.Put(0, 1), w.Put(0, 1);
         // n = 1: 6 is +1, 5 stays; group 8 splits into fours, 8..11 opens at once: 8 now (-1),
         // 9..11 wait; 24, 44, 2 stay; 3 is +1; the new fours at 12, 16, 20 stay.
         w.Put(1, 1), w.Put(0, 1), w.Put(0, 1), w.Put(1, 1), w.Put(1, 1), w.Put(0, 1), w.Put(1, 1);
         w.Put(1, 1), w.Put(1, 1), w.Put(1, 1), w.Put(0, 1), w.Put(0, 1), w.Put(0, 1), w.Put(1, 1);
         w.Put(0, 1), w.Put(0, 1), w.Put(0, 1), w.Put(0, 1);
         w.Put(3, 4);  // scale 3
       },
       [&](PlaneFixture&, uint32_t x, uint32_t y) { return fromTransform(intraCoeffs, false, 3, x, y) & 255; }},
      {"IntraDC groups", 64, 16, 0,
       [&](HandBits& w) {
         // Sixteen values for two rows: the first, a group of 8 deltas of 4 bits (a delta of 0
         // has no sign bit), and a group of 7 of width 0; the second row refills nothing.
         HandRow(w, {{HTypes, FillTypes(8, intra)}, {HIntraDc, [](HandBits& w) {
                        w.Put(16, 10), w.Put(100, 11), w.Put(4, 4);
                        for (int d : {15, -3, 0, 7, -15, 1, -9, 2}) {
                          w.Put(uint32_t(std::abs(d)), 4);
                          if (d) w.Put(d < 0, 1);
                        }
                        w.Put(0, 4);
                      }}});
         for (int b = 0; b < 8; ++b) w.Put(0, 4), w.Put(15, 4);  // no AC, scale 15
         HandRow(w, {{HTypes, FillTypes(8, intra)}},
                 {HSubTypes, HColours, HPatterns, HX, HY, HIntraDc, HInterDc, HRuns});
         for (int b = 0; b < 8; ++b) w.Put(0, 4), w.Put(15, 4);
       },
       [&](PlaneFixture&, uint32_t x, uint32_t y) {
         const int dcs[8] = {100, 115, 112, 112, 119, 104, 105, 96};
         const int dc = y < 8 ? dcs[x / 8] : 98;
         return ((dc * 1408 + 127) >> 8) & 255;  // t[0] = 65536 * 44, >> 11
       }},
      {"ONE", 8, 8, 0,
       [&](HandBits& w) { HandRow(w, {{HTypes, FillTypes(1, Velmo1One)}, {HColours, Colours({0x9C})}}); },
       [](PlaneFixture&, uint32_t, uint32_t) { return 0x9C; }},
      {"DCT_INTER", 16, 8, 1,
       [&](HandBits& w) {
         HandRow(w, {{HTypes, [=](HandBits& w) { w.Put(2, 10), w.Put(0, 1), w.Sym(Velmo1Skip), w.Sym(inter); }},
                     {HX, Motion(-8)}, {HY, Motion(0)},
                     {HInterDc, [](HandBits& w) { w.Put(1, 10), w.Put(300, 10), w.Put(1, 1); }}});
         w.Put(1, 4);  // one bit plane: only list index 1, +1
         for (uint32_t b : {0, 0, 0, 1, 0, 0, 0}) w.Put(b, 1);
         w.Put(2, 4);  // scale 2
       },
       [&](PlaneFixture& f, uint32_t x, uint32_t y) {
         return x < 8 ? -1 : (f.S(x - 8, y) + fromTransform(interCoeffs, true, 2, x - 8, y)) & 255;
       }},
      {"TWO", 8, 8, 0,
       [&](HandBits& w) {
         HandRow(w, {{HTypes, FillTypes(1, Velmo1Two)}, {HColours, Colours({0x12, 0xE7})}, {HPatterns, patternBundle}});
       },
       [&](PlaneFixture&, uint32_t x, uint32_t y) { return (patterns[y] >> x) & 1 ? 0xE7 : 0x12; }},
      {"BANG", 8, 8, 0,
       [&](HandBits& w) {
         std::vector<uint8_t> raw;
         for (int i = 0; i < 64; ++i) raw.push_back(uint8_t(i * 37 + 5));
         HandRow(w, {{HTypes, FillTypes(1, Velmo1Bang)}, {HColours, Colours(raw)}});
       },
       [](PlaneFixture&, uint32_t x, uint32_t y) { return int(uint8_t((y * 8 + x) * 37 + 5)); }},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.Name);
    HandBits w;
    w.Width = c.W;
    for (int i = 0; i < 23; ++i) w.Put(0, 4);
    c.Write(w);
    PlaneFixture f(c.W, c.H);
    f.Decode(w.Words());
    for (uint32_t y = 0; y < c.H; ++y)
      for (uint32_t x = 0; x < c.W; ++x) {
        const int want = c.Want(f, x, y);
        ASSERT_EQ(f.D(x, y), want < 0 ? f.S(x, y) : want) << x << "," << y;
      }
    EXPECT_EQ(f.Skips, c.Skips);
    EXPECT_EQ(f.Consumed, w.Words().size());  // every bit written was read, and no more
  }
}

// ---------------------------------------------------------------------------------------------
// Kinds that read the previous picture

TEST(Velmo1Plane, SkipAndMotionCopyThePreviousPicture) {
  // The first row's outer blocks are SKIP, the rest MOT blocks with these vectors.
  const int vec[3][4][2] = {{{0, 0}, {3, 5}, {-8, 0}, {0, 0}},
                            {{0, -8}, {-1, -1}, {15, 8}, {0, 0}},
                            {{15, 0}, {-8, -15}, {8, 0}, {1, 0}}};
  std::vector<Blocks> rows(3);
  for (int by = 0; by < 3; ++by)
    for (int bx = 0; bx < 4; ++bx)
      rows[by].push_back(by == 0 && bx % 3 == 0 ? Velmo1EncSkipBlock()
                                                : Velmo1EncMotBlock(int8_t(vec[by][bx][0]), int8_t(vec[by][bx][1])));
  PlaneFixture f(32, 24);
  f.Decode(Build(32, rows));
  for (int by = 0; by < 3; ++by)
    for (int bx = 0; bx < 4; ++bx) {
      const int x0 = bx * 8, y0 = by * 8, mx = vec[by][bx][0], my = vec[by][bx][1];
      // (16 + 15, 8 + 8) and (24 + 1, 16) lie past the last block position (24, 16), which
      // (16 + 8, 16) hits exactly.
      const bool passed = (by == 1 && bx == 2) || (by == 2 && bx == 3);
      for (int y = 0; y < 8; ++y)
        for (int x = 0; x < 8; ++x) {
          const uint8_t want = passed ? Untouched : f.S(x0 + mx + x, y0 + my + y);
          ASSERT_EQ(f.D(x0 + x, y0 + y), want) << bx << "," << by;
        }
    }
  EXPECT_EQ(f.Skips, 2u);
}

TEST(Velmo1Plane, MotionAddressRangeAllowsRowWrapInsideThePlane) {
  // The range check is on the address: x - 8 in the second row of blocks reads the end of the
  // lines above, which still lies inside the plane.
  PlaneFixture f(16, 16);
  f.Decode(Build(16, {{Velmo1EncMotBlock(-3, 8), Velmo1EncOneBlock(9)}}));
  const size_t from = size_t(8 * f.Pitch - 3);
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) EXPECT_EQ(f.D(x, y), f.Source[from + size_t(y * f.Pitch + x)]);
  EXPECT_EQ(f.D(8, 0), 9);
  PlaneFixture g(16, 16);
  g.Decode(Build(16, {{Velmo1EncMotBlock(-1, 0), Velmo1EncOneBlock(9)}}));
  EXPECT_EQ(g.D(0, 0), Untouched);  // before the plane's start: passed
}

TEST(Velmo1Plane, InterTransformAndResidueAddToTheMotionSource) {
  const int16_t none[64] = {};
  std::mt19937 rng(6);
  int8_t residue[64];
  for (int8_t& r : residue) r = int8_t(int(rng() % 15) - 7);
  residue[10] = 100;
  residue[11] = -127;
  PlaneFixture f(32, 16);
  f.Decode(Build(32, {{Velmo1EncInterBlock(2, 3, 80, none, 0), Velmo1EncInterBlock(-4, 0, -80, none, 0),
                       Velmo1EncMotzBlock(1, 1, 127, residue), Velmo1EncOneBlock(1)},
                      {Velmo1EncOneBlock(2), Velmo1EncOneBlock(3), Velmo1EncOneBlock(4), Velmo1EncOneBlock(5)}}));
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) {
      EXPECT_EQ(f.D(x, y), uint8_t(f.S(x + 2, y + 3) + 10));      // (2560 + 127) >> 8
      EXPECT_EQ(f.D(8 + x, y), uint8_t(f.S(4 + x, y) - 10));      // (-2433) >> 8
    }
  for (int i = 0; i < 64; ++i) {
    const int pos = Velmo1CoefficientOrder[i];
    EXPECT_EQ(f.D(16 + pos % 8, pos / 8), uint8_t(f.S(17 + pos % 8, 1 + pos / 8) + residue[i])) << i;
  }
  EXPECT_EQ(f.D(24, 0), 1);
  EXPECT_EQ(f.D(31, 15), 5);
}

TEST(Velmo1Plane, ResidueLimitEndsAtTheFirstEvent) {
  int8_t residue[64] = {};
  residue[5] = 4;
  residue[30] = -4;
  residue[0] = 1;
  PlaneFixture f(16, 8);
  // With L = 0 one event is decoded: index 5, the first significant one of the walk.
  f.Decode(Build(16, {{Velmo1EncMotzBlock(0, 0, 0, residue), Velmo1EncOneBlock(60)}}));
  for (int i = 0; i < 64; ++i) {
    const int pos = Velmo1CoefficientOrder[i];
    EXPECT_EQ(f.D(pos % 8, pos / 8), uint8_t(f.S(pos % 8, pos / 8) + (i == 5 ? 4 : 0))) << i;
  }
  EXPECT_EQ(f.D(8, 0), 60);  // the stream stayed in step
}

// ---------------------------------------------------------------------------------------------
// DOUBLED

TEST(Velmo1Plane, DoubledBlocksEnlargeEverySubKind) {
  std::mt19937 rng(7);
  uint8_t bang[64], run[64];
  RandomPixels(rng, bang);
  for (int i = 0; i < 64; ++i) run[i] = uint8_t(i / 9 * 30);
  const uint8_t patterns[8] = {1, 2, 4, 8, 16, 32, 64, 128};
  const int16_t none[64] = {};
  PlaneFixture f(80, 16);
  f.Decode(Build(80, {{Velmo1EncDoubledBlock(Velmo1EncOneBlock(50)), Velmo1EncDoubledBlock(Velmo1EncBangBlock(bang)),
                       Velmo1EncDoubledBlock(Velmo1EncTwoBlock(3, 4, patterns)),
                       Velmo1EncDoubledBlock(Velmo1EncRunBlock(2, run)), Velmo1EncDoubledBlock(Velmo1EncIntraBlock(800, none, 0))},
                      Blocks(5, Velmo1EncDoubledLower())}));
  for (uint32_t y = 0; y < 16; ++y)
    for (uint32_t x = 0; x < 16; ++x) {
      const int half = (y / 2) * 8 + x / 2;
      ASSERT_EQ(f.D(x, y), 50);
      ASSERT_EQ(f.D(16 + x, y), bang[half]);
      ASSERT_EQ(f.D(32 + x, y), ((patterns[y / 2] >> (x / 2)) & 1) ? 4 : 3);
      ASSERT_EQ(f.D(48 + x, y), run[half]);
      ASSERT_EQ(f.D(64 + x, y), 100);  // 800 * 32 + 127 >> 8
    }
}

// Blocks that are passed write nothing, and the blocks after them still decode: a DOUBLED block
// of an unknown sub-kind, a kind above nine, and a DOUBLED type at x = 32 of a 40 wide plane,
// where only 8 pixels are left and no sub-type is read.
TEST(Velmo1Plane, PassedBlocksWriteNothingAndKeepTheStreamInStep) {
  PlaneFixture f(40, 16);
  Velmo1EncRawBlock odd, bad, edge;
  odd.Type = edge.Type = Velmo1Doubled;
  odd.SubTypes = {Velmo1Mot};
  bad.Type = 11;
  f.Decode(Build(40, {{odd, bad, Velmo1EncOneBlock(8), edge},
                      {Velmo1EncDoubledLower(), Velmo1EncOneBlock(10), Velmo1EncOneBlock(11), Velmo1EncOneBlock(5)}}));
  for (auto [x, y] : {std::pair{0, 0}, {15, 15}, {16, 0}, {23, 7}, {32, 0}, {39, 7}})
    EXPECT_EQ(f.D(x, y), Untouched) << x << "," << y;
  EXPECT_EQ(f.D(24, 0), 8);
  EXPECT_EQ(f.D(16, 8), 10);
  EXPECT_EQ(f.D(31, 15), 11);
  EXPECT_EQ(f.D(32, 8), 5);

  // A plane of one block row: the sub-type is read, then the block is passed with 8.
  PlaneFixture g(16, 8);
  Velmo1EncRawBlock low;
  low.Type = Velmo1Doubled;
  low.SubTypes = {Velmo1One};
  g.Decode(Build(16, {{low, Velmo1EncOneBlock(7)}}));
  EXPECT_EQ(g.D(0, 0), Untouched);
  EXPECT_EQ(g.D(8, 0), 7);
  EXPECT_EQ(g.D(15, 7), 7);
}

// ---------------------------------------------------------------------------------------------
// Bundle forms and revisions

TEST(Velmo1Plane, EveryRefillFormGivesTheSamePicture) {
  for (uint32_t seed = 1; seed <= 6; ++seed) {
    const bool inter = seed % 2 == 0;
    const Velmo1EncPlaneSpec planeSpec = Velmo1MixedPlane(64, 48, seed, inter);
    PlaneFixture reference(64, 48);
    reference.Decode(Build(planeSpec));
    const Velmo1EncPlaneOptions variants[] = {
        {false, false, false, false, 0}, {false, false, true, true, 0}, {false, false, true, true, 1},
        {false, false, true, true, 2},   {true, false, true, true, 0},  {true, true, true, false, 0}};
    for (const Velmo1EncPlaneOptions& o : variants) {
      PlaneFixture f(64, 48);
      f.Decode(Build(planeSpec, o), 0, o.VlmK ? VelmoMagicVLMk : VelmoMagicVLMi);
      ASSERT_EQ(f.Dest, reference.Dest) << "seed " << seed << " fill " << o.FillForms << " tables "
                                        << o.ChooseTables << " form " << o.DescriptionForm;
    }
    EXPECT_EQ(reference.Consumed, Build(planeSpec).size());  // the plane ends where it was written
  }
}

TEST(Velmo1Plane, VlmkCountsAreMaskedAndItsFlagBitIsMeaninglessOutsideAlpha) {
  const Velmo1EncPlaneSpec planeSpec = Velmo1MixedPlane(48, 32, 9, false);
  PlaneFixture plain(48, 32), masked(48, 32), wrong(48, 32);
  plain.Decode(Build(planeSpec));
  Velmo1EncPlaneOptions k;
  k.VlmK = true;
  k.FlagBitSet = true;  // a Y plane ignores it
  masked.Decode(Build(planeSpec, k), 0, VelmoMagicVLMk);
  EXPECT_EQ(masked.Dest, plain.Dest);
  // The same stream read as "VLMi" loses step at once.
  wrong.Decode(Build(planeSpec, k), 0, VelmoMagicVLMi);
  EXPECT_NE(wrong.Dest, plain.Dest);
}

TEST(Velmo1Plane, ConstantAlphaPlaneFillsAndEndsAtOnce) {
  PlaneFixture f(16, 16);
  std::vector<uint8_t> stream = Velmo1EncConstantAlphaPlane(0x42);
  ASSERT_EQ(stream.size(), 4u);
  stream.resize(12, 0xFF);  // whatever follows belongs to the next plane
  f.Decode(stream, Velmo1AlphaPlane, VelmoMagicVLMk);
  for (uint32_t y = 0; y < 16; ++y)
    for (uint32_t x = 0; x < 16; ++x) ASSERT_EQ(f.D(x, y), 0x42);
  EXPECT_EQ(f.Consumed, 4u);
  EXPECT_EQ(f.Skips, 0u);
}

TEST(Velmo1Plane, OldRevisionColoursAreSignMagnitude) {
  uint8_t raw[64];
  for (int i = 0; i < 64; ++i) raw[i] = uint8_t(i * 4 + 1);
  PlaneFixture f(24, 8);
  f.Decode(Build(24, {{Velmo1EncOneBlock(0x85), Velmo1EncOneBlock(0x05), Velmo1EncBangBlock(raw)}}),
           Velmo1OldRevision);
  EXPECT_EQ(f.D(0, 0), 123);  // 128 - 5
  EXPECT_EQ(f.D(8, 0), 133);  // 128 + 5
  for (int i = 0; i < 64; ++i) {
    const uint8_t want = raw[i] & 0x80 ? uint8_t(128 - (raw[i] & 127)) : uint8_t(128 + raw[i]);
    EXPECT_EQ(f.D(16 + i % 8, i / 8), want) << i;
  }
}

TEST(Velmo1Plane, DcAndMotionBundlesCarryOverRows) {
  // Rows with no DC blocks between rows with many: the refill of an unused row carries the
  // next row's values, and groups with equal values use a width of 0.
  const int16_t none[64] = {};
  const uint16_t dcs[10] = {1024, 1024, 1024, 1024, 1024, 1024, 1024, 1024, 1024, 1000};
  Blocks dcRow, motionRow(10, Velmo1EncMotBlock(-3, 2));
  for (uint16_t dc : dcs) dcRow.push_back(Velmo1EncIntraBlock(dc, none, 0));
  motionRow[4] = Velmo1EncMotBlock(5, -8);
  PlaneFixture f(80, 32);
  f.Decode(Build(80, {Blocks(10, Velmo1EncOneBlock(1)), dcRow, motionRow,
                      Blocks(10, Velmo1EncMotBlock(1, -1))}));  // the last a fill refill
  for (int b = 0; b < 10; ++b) {
    EXPECT_EQ(f.D(b * 8, 8), uint8_t((dcs[b] * 32 + 127) >> 8)) << b;
    const int mx = b == 4 ? 5 : -3, my = b == 4 ? -8 : 2;
    const bool inside = b * 8 + mx >= 0 && b * 8 + mx <= 72;
    if (inside) {
      EXPECT_EQ(f.D(b * 8 + 3, 16 + 3), f.S(b * 8 + 3 + mx, 16 + 3 + my)) << b;
    }
    EXPECT_EQ(f.D(b * 8 + 1, 24 + 1), f.S(b * 8 + 2, 24 + 0)) << b;
  }
}

// ---------------------------------------------------------------------------------------------
// Damage rules, on streams written field by field

// A "VLMi" plane head: 23 table-0 descriptions.
Velmo1EncBitWriter Head() {
  Velmo1EncBitWriter w;
  for (int i = 0; i < 23; ++i) w.Put(0, 4);
  return w;
}

TEST(Velmo1Plane, CountOfZeroKillsABundleForThePlane) {
  PlaneFixture f(16, 16, 0x3C);
  Velmo1EncBitWriter w = Head();
  // Row 0: BlockTypes fills two ONE blocks; the other eight bundles are dead, Colors among them,
  // so that ONE blocks take from four bytes into its buffer.
  w.Put(Velmo1EncBits{{{2, 10}, {1, 1}, {Velmo1One, 4}}});
  for (int b = 0; b < 8; ++b) w.Put(0, 10);
  // Row 1: the used-up BlockTypes refills; the dead bundles read nothing.
  w.Put(Velmo1EncBits{{{2, 10}, {0, 1}}});
  w.PutCode(0, Velmo1Skip);
  w.PutCode(0, Velmo1One);
  f.Decode(w.Finish());
  EXPECT_EQ(f.D(0, 0), 0x3C);
  EXPECT_EQ(f.D(15, 7), 0x3C);
  EXPECT_EQ(f.D(0, 8), f.S(0, 8));
  EXPECT_EQ(f.D(8, 8), 0x3C);
  EXPECT_EQ(f.Skips, 1u);
}

TEST(Velmo1Plane, DeadBlockTypesPassEveryBlock) {
  PlaneFixture f(16, 16);
  Velmo1EncBitWriter w = Head();
  w.Put(600, 10);  // above the largest count of 528
  f.Decode(w.Finish());
  for (uint8_t v : f.Dest) ASSERT_EQ(v, Untouched);
}

TEST(Velmo1Plane, RepeatPastTheCountStopsTheRefill) {
  // Six types: ONE, then "repeat 4" (five written), then "repeat 4" with one left: the refill
  // stops and the sixth element is whatever the buffer held (0, SKIP).
  PlaneFixture f(48, 8);
  Velmo1EncBitWriter w = Head();
  w.Put(Velmo1EncBits{{{6, 10}, {0, 1}}});
  for (uint32_t code : {uint32_t(Velmo1One), 12u, 12u}) w.PutCode(0, code);
  w.Put(Velmo1EncBits{{{0, 10}, {5, 10}, {1, 1}}});  // no SubBlockTypes; Colors: five of 0x40
  w.PutCode(0, 4);
  w.PutCode(0, 0);
  for (int b = 0; b < 6; ++b) w.Put(0, 10);
  f.Decode(w.Finish());
  for (uint32_t x = 0; x < 40; ++x) EXPECT_EQ(f.D(x, 3), 0x40) << x;
  EXPECT_EQ(f.D(40, 0), f.S(40, 0));
  EXPECT_EQ(f.Skips, 1u);
}

TEST(Velmo1Plane, TruncatedStreamPassesTheRestAndStopsAtTheLimit) {
  const Velmo1EncPlaneSpec planeSpec = Velmo1MixedPlane(64, 64, 21, true);
  const std::vector<uint8_t> full = Build(planeSpec);
  PlaneFixture whole(64, 64);
  whole.Decode(full);
  EXPECT_EQ(whole.Consumed, full.size());
  for (size_t cut : {size_t(0), size_t(4), full.size() / 3, full.size() / 2, full.size() - 4}) {
    PlaneFixture f(64, 64);
    f.Decode(std::vector<uint8_t>(full.begin(), full.begin() + cut));
    EXPECT_LE(f.Consumed, cut + 4);
    // The top rows, which lie wholly before the cut, decode as in the full stream.
    if (cut > full.size() / 2) {
      for (uint32_t x = 0; x < 64; ++x) EXPECT_EQ(f.D(x, 0), whole.D(x, 0));
    }
  }
}

TEST(Velmo1Plane, BadGeometryOrWorkspaceDecodesNothing) {
  const std::vector<uint8_t> stream = Build(16, {{Velmo1EncOneBlock(1), Velmo1EncOneBlock(2)}});
  PlaneFixture f(16, 8);
  uint32_t skips = 7;
  // Pitch below the width.
  EXPECT_EQ(Velmo1DecodePlane(f.Dest.data(), f.Source.data(), 16, 8, 8, stream.data(),
                              stream.data() + stream.size() + 4, &f.Work, 0, VelmoMagicVLMi, &skips),
            stream.data());
  EXPECT_EQ(skips, 0u);
  // A workspace made for a narrower plane.
  PlaneFixture narrow(8, 8);
  EXPECT_EQ(Velmo1DecodePlane(f.Dest.data(), f.Source.data(), 4096, 8, 5000, stream.data(),
                              stream.data() + stream.size() + 4, &narrow.Work, 0, VelmoMagicVLMi, &skips),
            stream.data());
  // A limit before the stream: nothing can be read.
  f.Decode(std::vector<uint8_t>{});
  for (uint8_t v : f.Dest) ASSERT_EQ(v, Untouched);
}

}  // namespace
