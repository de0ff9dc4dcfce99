// Second-generation macroblock syntax: kinds, quantisers, masks, DC residuals, vector
// differences and AC coefficients, read from streams written bit by bit.
#include "decode/velmo2_syntax.h"
#include "velmo2_test_stream.h"
#include "support/velmo2_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <string>
#include <string_view>
#include <tuple>
#include <vector>

using namespace velmo2_test;

namespace {

constexpr uint32_t kMarker = 0x2D;  // six bits written after an element: it must read back

void PutMarker(BitWriter& w) { w.Put(kMarker, 6); }

// Reads one element with `read` from the stream `code`, and checks that the marker written
// behind it comes next (no bit too many or too few); the element's value.
template <typename Read>
auto ReadAlone(std::string_view code, Read read) {
  BitWriter w;
  w.Code(code);
  PutMarker(w);
  Velmo2TestStream s(w);
  const auto value = read(s.Reader);
  EXPECT_EQ(Velmo1Read(s.Reader, 6), kMarker) << code;
  return value;
}

using ReadElement = int32_t (*)(Velmo1BitReader&);

// ---- Kinds ---------------------------------------------------------------------------------

TEST(Velmo2Kind, ListMovesKindsForward) {
  BitWriter w;
  // list 2 3 1 0
  w.Code("1");    // 2
  w.Code("01");   // 3, list 3 2 1 0
  w.Code("01");   // 2, list 2 3 1 0
  w.Code("001");  // 0, list 2 3 0 1
  w.Code("000");  // 0, list 2 0 3 1
  w.Code("1");    // 2
  w.Code("01");   // 0, list 0 2 3 1
  w.Code("001");  // 1, list 0 2 1 3
  w.Code("000");  // 1, list 0 1 2 3
  PutMarker(w);
  Velmo2TestStream s(w);
  Velmo2KindList list = Velmo2KindListAtRowStart();
  std::vector<int> kinds;
  for (int i = 0; i < 9; ++i) kinds.push_back(Velmo2ReadKind(s.Reader, list));
  EXPECT_EQ(kinds, (std::vector<int>{2, 3, 2, 0, 0, 2, 0, 1, 1}));
  EXPECT_EQ(std::vector<int>(list.Kinds, list.Kinds + 4), (std::vector<int>{0, 1, 2, 3}));
  EXPECT_EQ(Velmo1Read(s.Reader, 6), kMarker);

  // A new row starts over from the fixed order: the same three codes give the same kinds.
  BitWriter again;
  again.Code("000 000 001");
  Velmo2TestStream t(again);
  list = Velmo2KindListAtRowStart();
  EXPECT_EQ(Velmo2ReadKind(t.Reader, list), Velmo2Skipped);
  EXPECT_EQ(Velmo2ReadKind(t.Reader, list), Velmo2Residual);
  EXPECT_EQ(Velmo2ReadKind(t.Reader, list), Velmo2Intra);
}

// ---- Quantisers ----------------------------------------------------------------------------

// Each element's codes at their bounds, read alone: the value, and not a bit more or less (zero
// reads no sign bit).
TEST(Velmo2Codes, EachElementReadsItsValue) {
  const ReadElement quantiser = [](Velmo1BitReader& r) { return Velmo2ReadQuantiser(r, 20) - 20; };
  const std::string zeros16(16, '0');
  const struct {
    const char* Element;
    ReadElement Read;
    std::vector<std::pair<std::string, int32_t>> Codes;
  } elements[] = {
      {"quantiser",
       quantiser,
       {{"1", 0}, {"01 0", 1}, {"01 1", -1}, {"001 0", 2}, {"00010 1", -3}, {"00011 0", 4},
        {"0000 00000 1", -5}, {"0000 10000 0", 6}, {"0000 11111 0", 36}, {"0000 11111 1", -36}}},
      {"DC level",
       Velmo2ReadDcLevel,
       {{"0", 0}, {"10 0", 1}, {"110 1", -2}, {"1110 0", 3}, {"11110 0 0", 4}, {"11110 1 1", -5},
        {"111110 00 0", 6}, {"111110 11 0", 9}, {"1111110 000 1", -10}, {"11111111110 1111111 0", 257},
        // Eleven ones: the twelfth bit ends the prefix whatever it is.
        {"11111111111 0 00000000 1", -258}, {"11111111111 1 11111111 0", 513}}},
      {"vector",
       Velmo2ReadVectorDiff,
       {{"1", 0}, {"010", -1}, {"011", 1}, {"00100", -2}, {"00111", 3},
        {zeros16.substr(1) + "1" + std::string(15, '1'), 32767},  // i = 65534
        {zeros16 + zeros16, -32768},                              // i = 65535: the escape
        {zeros16 + "1" + zeros16.substr(1), 32768},               // i = 65536
        {zeros16 + std::string(16, '1'), 65535}}},                // i = 131070
      {"AC level",
       Velmo2ReadAcLevel,
       {{"0 0", 1}, {"0 1", -1}, {"10 0", 2}, {"110 1", -3}, {"1110 0 0", 4}, {"1110 1 1", -5},
        {"11110 00 0", 6}, {"11110 11 0", 9},
        // Eleven ones and one more bit.
        {"11111111111 0 000000000 1", -514}, {"11111111111 1 111111111 0", 1025}}},
  };
  for (const auto& e : elements)
    for (const auto& [code, value] : e.Codes) EXPECT_EQ(ReadAlone(code, e.Read), value) << e.Element << " " << code;
}

// Random values over each element's whole range, written one after another and read back in
// order (the AC level has no zero).
TEST(Velmo2Codes, RandomValuesRoundTrip) {
  const struct {
    const char* Element;
    void (*Put)(BitWriter&, int32_t);
    ReadElement Read;
    std::vector<uint32_t> Ranges;  // taken in turn: values from -range / 2 to range / 2
  } elements[] = {{"quantiser", PutQuantiserDiff, Velmo2ReadQuantiserDiff, {73}},
                  {"DC level", PutDcLevel, Velmo2ReadDcLevel, {1027}},
                  {"vector", PutVectorDiff, Velmo2ReadVectorDiff, {40, 70000, 131071}},
                  {"AC level", PutAcLevel, Velmo2ReadAcLevel, {2051}}};
  std::mt19937 rng(5);
  for (const auto& e : elements) {
    SCOPED_TRACE(e.Element);
    std::vector<int32_t> values;
    for (size_t i = 0; i < 3000; ++i) {
      const uint32_t range = e.Ranges[i % e.Ranges.size()];
      const int32_t v = int32_t(rng() % range) - int32_t(range / 2);
      values.push_back(v == 0 && e.Put == PutAcLevel ? 1 : v);
    }
    BitWriter w;
    for (int32_t v : values) e.Put(w, v);
    PutMarker(w);
    Velmo2TestStream s(w);
    for (int32_t v : values) ASSERT_EQ(e.Read(s.Reader), v);
    EXPECT_EQ(Velmo1Read(s.Reader, 6), kMarker);
  }
}

TEST(Velmo2Quantiser, PredictionIsMedianBelowTheFirstRow) {
  EXPECT_EQ(Velmo2PredictQuantiser(true, 12, 30, 2), 12);
  EXPECT_EQ(Velmo2PredictQuantiser(false, 12, 30, 2), 12);
  EXPECT_EQ(Velmo2PredictQuantiser(false, 40, 30, 2), 30);
  EXPECT_EQ(Velmo2PredictQuantiser(false, 1, 30, 2), 2);
  EXPECT_EQ(Velmo2PredictQuantiser(false, 9, 9, 2), 9);
}

// ---- Masks ---------------------------------------------------------------------------------

// Luma masks in every form, flipped and cloned; with frame word bit 18 an all-zero luma mask
// reads no clone bit (a non-zero one still does). A chroma mask by default keeps its high bits.
TEST(Velmo2Mask, FormsFlipAndClone) {
  const struct {
    const char* What;
    uint32_t Previous;
    uint32_t Frame;
    std::string Code;
    uint32_t Mask;
    bool Chroma = false;
  } cases[] = {
      {"zero", 0x0, 0, "1 0", 0x0},
      {"zero cloned", 0x0, 0, "1 1", 0x0},
      // Few bits before (z < 4): nibbles, each a flag (1 for zero) or four bits.
      {"nibbles", 0x0007, 0, "0 1 0" "0101" "1 0" "1100" "0", 0x30A0},
      {"nibbles cloned", 0x0, 0, "0 0" "1000" "1 1 1 1", 0x00010001},
      // Four or more bits before: 16 plain bits.
      {"plain", 0x000F, 0, "0 " "0100000000000001 0", 0x8002},
      // Eight or more: inverted; 12 set gives z 4 (plain), 14 set gives z 2 (nibbles).
      {"flipped plain", 0x0FFF, 0, "0 " "1111111100000000 0", 0xFF00},
      {"flipped zero", 0x3FFF, 0, "1 0", 0xFFFF},
      {"flipped nibbles", 0x3FFF, 0, "0 1 1" "0" "1111" "1 1", 0xF0FFF0FF},
      // The high half of the previous word plays no part.
      {"high half ignored", 0xFFFF0000, 0, "0 1 1 1 1 0", 0x0},
      {"wide DC: zero", 0x0, 0x40000, "1", 0x0},
      {"wide DC: zero by inversion", 0x0FFF, 0x40000, "0 " "1111111111111111", 0x0},
      {"wide DC: zero nibbles", 0x0, 0x40000, "0 1 1 1 1", 0x0},
      {"wide DC: non-zero", 0x0, 0x40000, "0 1 1 1 0 1000 1", 0x10001000},
      {"wide DC: flipped to all ones", 0xFFFF, 0x40000, "1 0", 0xFFFF},
      {"narrow DC: without the bit", 0x0FFF, 0x0, "0 " "1111111111111111 1", 0x0},
      {"chroma default of two set", 0xA0006, 0, "1", 0xA000F, true},
      {"chroma default of one set", 0x50004, 0, "1", 0x50000, true},
      {"chroma default of none", 0x0, 0, "1", 0x0, true},
      {"chroma explicit cloned", 0xF000F, 0, "0 1010 1", 0x50005, true},
      {"chroma explicit alone", 0xF000F, 0, "0 1010 0", 0x5, true},
  };
  for (const auto& c : cases) {
    EXPECT_EQ(ReadAlone(c.Code,
                        [&](Velmo1BitReader& r) {
                          return c.Chroma ? Velmo2ReadChromaMask(r, c.Previous)
                                          : Velmo2ReadLumaMask(r, c.Previous, Velmo2FrameWord{c.Frame});
                        }),
              c.Mask)
        << c.What;
  }
}

// ---- DC residuals --------------------------------------------------------------------------

TEST(Velmo2DcResidual, ScaledRoundedSignAfterShift) {
  EXPECT_EQ(Velmo2ScaleDc(0, 4096), 0);
  EXPECT_EQ(Velmo2ScaleDc(1, 4096), 4);
  EXPECT_EQ(Velmo2ScaleDc(-3, 4871), -14);  // 14613 + 512 = 15125 -> 14
  EXPECT_EQ(Velmo2ScaleDc(-1, 1536), -2);   // a half rounds away from zero on both sides
  EXPECT_EQ(Velmo2ScaleDc(1, 1536), 2);
  EXPECT_EQ(Velmo2ScaleDc(-513, 524288), -262656);
}

TEST(Velmo2DcResidual, FlagThenOneCodePerBlock) {
  const auto residuals = [](uint32_t scale, uint32_t count) {
    return [=](Velmo1BitReader& r) {
      std::vector<int32_t> out(count, 99);
      Velmo2ReadDcResiduals(r, scale, out.data(), count);
      return out;
    };
  };
  EXPECT_EQ(ReadAlone("0", residuals(4096, 16)), std::vector<int32_t>(16, 0));
  EXPECT_EQ(ReadAlone("1 10 1 0 11110 1 0 1110 0", residuals(8192, 4)), (std::vector<int32_t>{-8, 0, 40, 24}));
}

// ---- Block info words ----------------------------------------------------------------------

TEST(Velmo2BlockInfo, FieldsComeBackForEveryDcValue) {
  for (int32_t dc = -2047; dc <= 2047; ++dc) {
    for (uint32_t cls = 0; cls < 4; ++cls) {
      const bool intra = (dc + int32_t(cls)) & 1;
      const uint16_t info = Velmo2BlockInfo(intra, cls, dc);
      ASSERT_EQ(Velmo2InfoDc(info), dc);
      ASSERT_EQ(Velmo2InfoClass(info), cls);
      ASSERT_EQ(Velmo2InfoIsIntra(info), intra);
    }
  }
  EXPECT_EQ(Velmo2BlockInfo(true, 3, -1), 0xFFFF);
  EXPECT_EQ(Velmo2BlockInfo(false, 1, 5), 0x2005);
  EXPECT_EQ(Velmo2InfoDc(0x1800), -2048) << "bit 12 is not read back";
}

// ---- DC prediction -----------------------------------------------------------------------

TEST(Velmo2DcPrediction, IntraWithAllNeighbours) {
  std::vector<int32_t> above(16, -777), left(16, -777), corner(16, -777);
  const int32_t aboveRow[4] = {100, 200, 300, 400};
  const int32_t leftColumn[4] = {50, 60, 70, 80};
  for (uint32_t i = 0; i < 4; ++i) {
    above[Velmo2BlockIndex(i, 3)] = aboveRow[i];
    left[Velmo2BlockIndex(3, i)] = leftColumn[i];
  }
  corner[15] = 90;
  const int32_t residuals[16] = {};
  int32_t out[16];
  Velmo2PredictDc(Velmo2IntraDc(4, left.data(), above.data(), corner.data()), residuals, out);
  EXPECT_EQ(std::vector<int32_t>(out, out + 16),
            (std::vector<int32_t>{60, 160, 60, 160, 260, 360, 260, 360, 70, 160, 80, 160, 260,
                                  360, 260, 360}));
}

TEST(Velmo2DcPrediction, IntraChromaAtPictureEdges) {
  const int32_t left[4] = {-777, 500, -777, 520}, above[4] = {-777, -777, 300, 340};
  const struct {
    const char* What;
    const int32_t *Left, *Above;
    int32_t Residuals[4];
    std::vector<int32_t> Want;  // the first blocks' DCs
  } cases[] = {
      {"no neighbours", nullptr, nullptr, {10, 5, -3, 7}, {1034, 1039, 1031, 1043}},
      {"left", left, nullptr, {4, 0, 0, 0}, {504, 504, 520, 520}},
      {"above", nullptr, above, {0, 0, 0, 0}, {300, 340, 300, 340}},
      {"held within 0 .. 2047", nullptr, nullptr, {-2000, 3000, 0, 0}, {0, 2047}},
  };
  for (const auto& c : cases) {
    int32_t out[4];
    Velmo2PredictDc(Velmo2IntraDc(2, c.Left, c.Above, nullptr), c.Residuals, out);
    EXPECT_EQ(std::vector<int32_t>(out, out + c.Want.size()), c.Want) << c.What;
  }
}

TEST(Velmo2DcPrediction, ResidualPlanesStartAtZeroWithinTheirRange) {
  int32_t residuals[16] = {};
  residuals[0] = 1000;
  residuals[1] = 100;
  for (uint32_t wide = 0; wide < 2; ++wide) {
    const int32_t m = wide ? 1100 : 1023;
    int32_t out[16];
    Velmo2PredictDc(Velmo2ResidualDc(4, Velmo2FrameWord{wide ? 0x40000u : 0u}), residuals, out);
    EXPECT_EQ(std::vector<int32_t>(out, out + 16),
              (std::vector<int32_t>{1000, m, 1000, m, m, m, m, m, 1000, m, 1000, m, m, m, m, m}))
        << wide;
  }
  const int32_t low[4] = {-3000, 0, 0, 0};
  int32_t out[4];
  Velmo2PredictDc(Velmo2ResidualDc(2, Velmo2FrameWord{0x40000}), low, out);
  EXPECT_EQ(std::vector<int32_t>(out, out + 4), (std::vector<int32_t>{-2047, -2047, -2047, -2047}));
}

// ---- Motion vector differences -------------------------------------------------------------

TEST(Velmo2VectorDiff, OneOrFourVectorsXFirst) {
  const Velmo2VectorDiffs one = ReadAlone("1 011 010", Velmo2ReadVectorDiffs);
  EXPECT_TRUE(one.Single);
  EXPECT_EQ(std::tuple(one.X[0], one.Y[0], one.X[3]), std::tuple(1, -1, 0));
  const Velmo2VectorDiffs four = ReadAlone("0 011 010 1 00111 00100 1 1 011", Velmo2ReadVectorDiffs);
  EXPECT_FALSE(four.Single);
  EXPECT_EQ(std::vector<int32_t>(four.X, four.X + 4), (std::vector<int32_t>{1, -1, 0, 3}));
  EXPECT_EQ(std::vector<int32_t>(four.Y, four.Y + 4), (std::vector<int32_t>{-2, 0, 0, 1}));
}

}  // namespace

// Neighbours chosen so that each median picks a different one of its three inputs.
TEST(Velmo2VectorPrediction, EachNeighbourCase) {
  const int32_t above[4] = {10, 20, 30, 40};
  const int32_t left[4] = {-5, 7, 1, 3};
  const int32_t aboveLeft[4] = {0, 0, 0, 12};
  const int32_t diff[4] = {1, 2, 3, 4};
  const int32_t zero[4] = {0, 0, 0, 0};
  const struct {
    const char* What;
    Velmo2VectorNeighbours N;
    bool Single;
    const int32_t* Diff;
    std::vector<int32_t> Want;
  } cases[] = {
      {"left and above", {above, left, aboveLeft}, false, diff, {13, 32, 10, 17}},
      {"above only", {above, nullptr, nullptr}, false, diff, {31, 33, 34, 37}},
      {"left only, vector 2 first", {nullptr, left, nullptr}, false, diff, {4, 9, 7, 11}},
      {"neither", {nullptr, nullptr, nullptr}, false, diff, {1, 3, 4, 7}},
      {"single, left and above", {above, left, aboveLeft}, true, diff, {13, 13, 13, 13}},
      {"single, left only", {nullptr, left, nullptr}, true, diff, {4, 4, 4, 4}},
      {"single, neither", {nullptr, nullptr, nullptr}, true, diff, {1, 1, 1, 1}},
      {"intra store", {above, left, aboveLeft}, false, zero, {12, 30, 7, 12}},
  };
  for (const auto& c : cases) {
    int32_t out[4] = {-99, -99, -99, -99};
    Velmo2PredictVectors(c.N, c.Single, c.Diff, out);
    EXPECT_EQ(std::vector<int32_t>(out, out + 4), c.Want) << c.What;
  }
}

// ---- AC coefficients -----------------------------------------------------------------------

namespace {

// A flat dequantisation row: with 128 and q below 4 a coefficient equals its level.
std::vector<uint16_t> Flat(uint16_t v) { return std::vector<uint16_t>(64, v); }

// Puts the marker behind the codes in `w`, reads one block of run table `table` into `coef` with
// the flat row of 128 at quantiser 0, and checks that the marker comes next.
Velmo2AcBlock ReadBlock(BitWriter& w, int table, int16_t coef[64]) {
  PutMarker(w);
  Velmo2TestStream s(w);
  const std::vector<uint16_t> dq = Flat(128);
  const Velmo2AcBlock b = Velmo2ReadAcBlock(s.Reader, table, dq.data(), 0, coef);
  EXPECT_EQ(Velmo1Read(s.Reader, 6), kMarker);
  return b;
}

}  // namespace

TEST(Velmo2RunCode, EverySymbolOfBothTables) {
  for (int table = 1; table <= 2; ++table) {
    for (const RunSymbol& sym : kRunSymbols) {
      const Velmo2Run c = ReadAlone(sym.Code[table - 1], [&](Velmo1BitReader& r) { return Velmo2ReadRunCode(r, table); });
      EXPECT_EQ(std::pair(c.Skip, c.Repeat), std::pair(sym.Skip, sym.Repeat)) << table << " " << sym.Code[table - 1];
    }
    for (uint32_t skip : {0u, 11u, 42u, 63u}) {
      BitWriter w;
      w.Code(kRunEscape[table - 1]).Put(skip, 6);
      PutMarker(w);
      Velmo2TestStream s(w);
      const Velmo2Run c = Velmo2ReadRunCode(s.Reader, table);
      EXPECT_EQ(c.Skip, skip);
      EXPECT_EQ(c.Repeat, 0u);
      EXPECT_EQ(Velmo1Read(s.Reader, 6), kMarker);
    }
  }
}

TEST(Velmo2AcBlock, RunsPlaceLevelsAlongTheScan) {
  BitWriter w;
  w.Code("1").Code("0 0");        // skip 0: position 1 (raster 8), level 1
  w.Code("000").Code("10 1");     // skip 1: position 3 (raster 2), level -2
  w.Code("0010").Code("1110 1 0");  // skip 2: position 6 (raster 24), level 5
  w.Code("01");                   // end
  int16_t coef[64] = {};
  coef[0] = 77;  // the DC position is not the AC reader's
  const Velmo2AcBlock b = ReadBlock(w, 1, coef);
  EXPECT_EQ(b.Count, 3u);
  EXPECT_EQ(b.Last, 6u);
  EXPECT_EQ(b.Class, 2u);
  int16_t want[64] = {};
  want[0] = 77;
  want[8] = 1;
  want[2] = -2;
  want[24] = 5;
  EXPECT_EQ(std::vector<int16_t>(coef, coef + 64), std::vector<int16_t>(want, want + 64));
}

// The reader dequantises each level with the entry at its raster position and the macroblock
// quantiser's shift, at any quantiser: unlike the DC scales, the shift does not stop at 36.
TEST(Velmo2AcBlock, DequantisesByRasterPositionAndQuantiser) {
  const struct {
    uint16_t Entry;
    int32_t Q;
    int16_t Coef;
  } cases[] = {
      {1024, 0, 8},       // (1024 + 64) >> 7
      {1000, 9, 31},      // (1000 << 2 + 64) >> 7 = 4064 >> 7
      {64, 36, 256},      // (64 << 9 + 64) >> 7
      {64, 40, 512},      // (64 << 10 + 64) >> 7
      {64, 60, 16384},    // (64 << 15 + 64) >> 7
  };
  for (const auto& c : cases) {
    BitWriter w;
    w.Code("000").Code("0 0").Code("01");  // skip 1: position 2, raster 1; level 1; end
    Velmo2TestStream s(w);
    std::vector<uint16_t> dq = Flat(7);
    dq[1] = c.Entry;
    int16_t coef[64] = {};
    Velmo2ReadAcBlock(s.Reader, 1, dq.data(), c.Q, coef);
    EXPECT_EQ(coef[1], c.Coef) << c.Entry << " q " << c.Q;
  }
}

// The seven symbol lets seven coefficients follow without run codes, the block ending when the
// position reaches 64 even inside the seven.
TEST(Velmo2AcBlock, SevenReachesTheLastPositionAndStops) {
  BitWriter w;
  PutRun(w, 1, 56);             // escape: position 57
  PutAcLevel(w, 1);
  PutSeven(w, 1);               // positions 58 .. 63, then the block ends
  for (int32_t l : {2, -3, 4, -5, 6, 7}) PutAcLevel(w, l);
  int16_t coef[64] = {};
  const Velmo2AcBlock b = ReadBlock(w, 1, coef);
  EXPECT_EQ(std::tuple(b.Count, b.Last, b.Class), std::tuple(7u, 63u, 1u));
  EXPECT_EQ(coef[Velmo2Scan[57]], 1);
  EXPECT_EQ(coef[63], 7);
}

TEST(Velmo2AcBlock, SevenInTheMiddleThenRunCodesAgain) {
  BitWriter w;
  PutSeven(w, 2);
  for (int i = 0; i < 7; ++i) PutAcLevel(w, i + 1);  // positions 1 .. 7
  PutRun(w, 2, 3);                                   // position 11
  PutAcLevel(w, -9);
  PutRun(w, 2, 64);
  int16_t coef[64] = {};
  const Velmo2AcBlock b = ReadBlock(w, 2, coef);
  EXPECT_EQ(std::tuple(b.Count, b.Last, b.Class), std::tuple(8u, 11u, 0u));
  for (int p = 1; p <= 7; ++p) EXPECT_EQ(coef[Velmo2Scan[p]], p) << p;
  EXPECT_EQ(coef[Velmo2Scan[11]], -9);
}

TEST(Velmo2AcBlock, SkipPastTheEndReadsNothingMore) {
  for (uint32_t skip : {63u, 62u}) {
    BitWriter w;
    PutRun(w, 1, 2);  // position 3
    PutAcLevel(w, 4);
    PutRun(w, 1, skip);  // 4 + skip is past 63
    int16_t coef[64] = {};
    const Velmo2AcBlock b = ReadBlock(w, 1, coef);
    EXPECT_EQ(std::tuple(b.Count, b.Last), std::tuple(1u, 3u)) << skip;
  }
}

TEST(Velmo2AcBlock, ClassFollowsTheCount) {
  const struct {
    uint32_t Count, Class;
  } cases[] = {{0, 3}, {1, 2}, {3, 2}, {4, 1}, {7, 1}, {8, 0}, {63, 0}};
  for (const auto& c : cases) {
    BitWriter w;
    for (uint32_t i = 0; i < c.Count; ++i) {
      PutRun(w, 1, 0);
      PutAcLevel(w, 1);
    }
    if (c.Count < 63) PutRun(w, 1, 64);
    int16_t coef[64] = {};
    const Velmo2AcBlock b = ReadBlock(w, 1, coef);
    EXPECT_EQ(std::tuple(b.Count, b.Class), std::tuple(c.Count, c.Class));
  }
}

TEST(Velmo2AcQuadrant, MaskPicksBlocksAndTheCloneBitsPickTheTable) {
  for (uint32_t mask : {0x5u, 0x10005u}) {
    const int table = mask < 0x10000 ? 1 : 2;
    BitWriter w;
    for (int block = 0; block < 2; ++block) {  // blocks 0 and 2
      PutRun(w, table, 1);                      // position 2: raster 1
      PutAcLevel(w, block + 1);
      PutRun(w, table, 64);
    }
    PutMarker(w);
    Velmo2TestStream s(w);
    int16_t blocks[4][64] = {};
    int16_t* coef[4] = {blocks[0], blocks[1], blocks[2], blocks[3]};
    Velmo2AcBlock out[4];
    const std::vector<uint16_t> dq = Flat(128);
    Velmo2ReadAcQuadrant(s.Reader, mask, dq.data(), 0, coef, out);
    EXPECT_EQ(blocks[0][1], 1) << mask;
    EXPECT_EQ(blocks[2][1], 2) << mask;
    EXPECT_EQ(blocks[1][1], 0) << mask;
    EXPECT_EQ(out[0].Class, 2u);
    EXPECT_EQ(out[1].Class, 3u);
    EXPECT_EQ(out[2].Class, 2u);
    EXPECT_EQ(out[3].Class, 3u);
    EXPECT_EQ(Velmo1Read(s.Reader, 6), kMarker) << mask;
  }
}

// ---- Reads past the end --------------------------------------------------------------------

// Streams cut short read zeros past their end from a buffer of exactly their size (the
// sanitizer builds would flag any byte beyond it), and the overrun is reported.
TEST(Velmo2Bounds, ShortStreamsStayInTheirBuffer) {
  BitWriter w;
  w.Put(0xFFFFFFFF, 32).Put(0x7, 3);  // two words; the second mostly zero
  std::vector<uint8_t> bytes = w.Bytes();
  bytes.resize(5);  // keep one byte of the second word
  const std::vector<uint16_t> dq = Flat(128);
  Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size());
  for (int i = 0; i < 50; ++i) Velmo2ReadDcLevel(r);
  for (int i = 0; i < 50; ++i) Velmo2ReadVectorDiff(r);  // all-zero bits: the escape path
  int16_t coef[64] = {};
  Velmo2ReadAcBlock(r, 1, dq.data(), 36, coef);
  Velmo2ReadLumaMask(r, 0x00FF, Velmo2FrameWord{0});
  uint32_t map[8];
  EXPECT_FALSE(Velmo2ReadEdgeMap(r, 200, map, 8));
  EXPECT_TRUE(Velmo2Overran(r));
  EXPECT_TRUE(Velmo1AtLimit(r));
}

TEST(Velmo2Bounds, OverrunIsToldOnlyPastTheLimit) {
  BitWriter w;
  w.Put(0, 32).Put(0, 32);
  const std::vector<uint8_t> bytes = w.Bytes();
  Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size());
  Velmo1Read(r, 32);
  Velmo1Read(r, 31);
  EXPECT_FALSE(Velmo2Overran(r));
  Velmo1Read(r, 1);
  EXPECT_FALSE(Velmo2Overran(r)) << "the last bit of the stream is still inside";
  Velmo1Read(r, 1);
  EXPECT_TRUE(Velmo2Overran(r));
}
