// The second-generation in-loop filters against references written here straight from the
// format rules: a whole-plane edge filter (all vertical edges, then all horizontal ones) with
// its own tap and skip logic, and a flat-block interpolation with its own weight table.
#include "decode/velmo2_filter.h"

#include <gtest/gtest.h>

#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

// A plane of W x H pixels inside a buffer with a guard band of G pixels on every side.
struct TestPlane {
  static constexpr int G = 8;
  static constexpr uint8_t Guard = 0xA5;
  int W, H, Pitch;
  std::vector<uint8_t> Buf;
  TestPlane(int w, int h) : W(w), H(h), Pitch(w + 2 * G), Buf(size_t(Pitch) * (h + 2 * G), Guard) {}
  uint8_t& At(int x, int y) { return Buf[size_t(y + G) * Pitch + x + G]; }
  Velmo2Plane View() { return Velmo2Plane{&At(0, 0), Pitch, uint32_t(W), uint32_t(H)}; }
  void Fill(std::mt19937& rng) {
    for (int y = 0; y < H; ++y)
      for (int x = 0; x < W; ++x) At(x, y) = uint8_t(rng() & 255);
  }
};

struct TestGrid {
  int Cols, Rows;
  std::vector<uint16_t> Info;
  TestGrid(int c, int r) : Cols(c), Rows(r), Info(size_t(c) * r, 0) {}
  uint16_t& At(int bx, int by) { return Info[size_t(by) * Cols + bx]; }
  Velmo2InfoGrid View() const {
    return Velmo2InfoGrid{Info.data(), size_t(Cols), uint32_t(Cols), uint32_t(Rows)};
  }
};

uint16_t Word(bool intra, int cls, int dc) {
  return uint16_t((intra ? 0x8000 : 0) | (cls << 13) | (dc & 0x1FFF));
}
int ClassOf(uint16_t w) { return (w >> 13) & 3; }

// ---- Reference edge filter --------------------------------------------------------------------

int Hold(int v) { return v < 0 ? 0 : v > 255 ? 255 : v; }

// One line across an edge: p1, p0 | q0, q1, with the classes of the two sides.
void ReferenceLine(uint8_t& p1, uint8_t& p0, uint8_t& q0, uint8_t& q1, int ca, int cb) {
  const int d = q0 - p0, a = (d + 4) >> 3, b = (d + 2) >> 2;
  const int np1 = p1 + a, np0 = p0 + b, nq0 = q0 - b, nq1 = q1 - a;
  // Class 1 changes the inner pixel only; classes 2 and 3 change both; class 0 neither.
  if (ca >= 2) p1 = uint8_t(Hold(np1));
  if (ca >= 1) p0 = uint8_t(Hold(np0));
  if (cb >= 1) q0 = uint8_t(Hold(nq0));
  if (cb >= 2) q1 = uint8_t(Hold(nq1));
}

struct Rules {
  uint32_t Word = 0x2000;
  std::vector<uint32_t> RowMap = std::vector<uint32_t>(4, 0);
  std::vector<uint32_t> ColumnMap = std::vector<uint32_t>(4, 0);
  void Mark(std::vector<uint32_t>& map, int k) { map[k / 32] |= 1u << (k % 32); }
  bool Marked(const std::vector<uint32_t>& map, int k) const {
    return (map[k / 32] >> (k % 32)) & 1;
  }
  Velmo2EdgeRules View() const {
    return Velmo2EdgeRules{Velmo2FrameWord{Word}, RowMap.data(), RowMap.size(), ColumnMap.data(),
                           ColumnMap.size()};
  }
};

bool PairSkipped(int ca, int cb) { return (ca == 0 && cb == 0) || (ca == 3 && cb == 3); }

// The whole plane: every vertical edge, then every horizontal one, with the format's skips.
void ReferencePlane(TestPlane& p, TestGrid& g, const Rules& r, bool chroma) {
  const int scale = chroma ? 2 : 1;
  if (!(r.Word & 0x4000))
    for (int bx = 1; bx * 8 < p.W; ++bx)
      for (int by = 0; by * 8 < p.H; ++by) {
        const int ca = ClassOf(g.At(bx - 1, by)), cb = ClassOf(g.At(bx, by));
        if (r.Marked(r.ColumnMap, bx * scale) || PairSkipped(ca, cb)) continue;
        for (int y = by * 8; y < by * 8 + 8 && y < p.H; ++y)
          ReferenceLine(p.At(bx * 8 - 2, y), p.At(bx * 8 - 1, y), p.At(bx * 8, y),
                        p.At(bx * 8 + 1, y), ca, cb);
      }
  if (!(r.Word & 0x8000))
    for (int by = 1; by * 8 < p.H; ++by)
      for (int bx = 0; bx * 8 < p.W; ++bx) {
        const int ca = ClassOf(g.At(bx, by - 1)), cb = ClassOf(g.At(bx, by));
        if (r.Marked(r.RowMap, by * scale) || PairSkipped(ca, cb)) continue;
        for (int x = bx * 8; x < bx * 8 + 8 && x < p.W; ++x)
          ReferenceLine(p.At(x, by * 8 - 2), p.At(x, by * 8 - 1), p.At(x, by * 8),
                        p.At(x, by * 8 + 1), ca, cb);
      }
}

// The decoder's order: vertical edges of macroblock x, then horizontal edges of x - 1.
void WalkPlane(TestPlane& p, const TestGrid& g, const Rules& r, bool chroma) {
  const int mbSize = chroma ? 16 : 32;
  const int mbCols = (p.W + mbSize - 1) / mbSize, mbRows = (p.H + mbSize - 1) / mbSize;
  const Velmo2EdgeRules rules = r.View();
  for (int my = 0; my < mbRows; ++my) {
    for (int mx = 0; mx < mbCols; ++mx) {
      Velmo2FilterVerticalEdges(rules, p.View(), g.View(), chroma, mx, my);
      if (mx > 0) Velmo2FilterHorizontalEdges(rules, p.View(), g.View(), chroma, mx - 1, my);
    }
    Velmo2FilterHorizontalEdges(rules, p.View(), g.View(), chroma, mbCols - 1, my);
  }
}

void RandomClasses(TestGrid& g, std::mt19937& rng) {
  for (auto& w : g.Info) w = Word(rng() & 1, int(rng() & 3), int(rng() & 2047));
}

void ExpectSamePixels(TestPlane& a, TestPlane& b) {
  ASSERT_EQ(a.Buf.size(), b.Buf.size());
  for (size_t i = 0; i < a.Buf.size(); ++i)
    ASSERT_EQ(a.Buf[i], b.Buf[i]) << "at buffer offset " << i;
}

struct EdgeCase {
  const char* Name;
  int W, H;
  bool Chroma;
  uint32_t Word;
  std::vector<int> RowMarks, ColumnMarks;
};

class Velmo2EdgeFilterTest : public ::testing::TestWithParam<EdgeCase> {};

TEST_P(Velmo2EdgeFilterTest, WalkMatchesWholePlaneReference) {
  const EdgeCase& c = GetParam();
  Rules r;
  r.Word = c.Word;
  for (int k : c.RowMarks) r.Mark(r.RowMap, k);
  for (int k : c.ColumnMarks) r.Mark(r.ColumnMap, k);
  for (uint32_t seed = 1; seed <= 8; ++seed) {
    std::mt19937 rng(seed);
    TestPlane got(c.W, c.H);
    got.Fill(rng);
    TestGrid g((c.W + 7) / 8 + 4, (c.H + 7) / 8 + 4);
    RandomClasses(g, rng);
    TestPlane want = got;
    ReferencePlane(want, g, r, c.Chroma);
    WalkPlane(got, g, r, c.Chroma);
    ExpectSamePixels(got, want);  // the guard bands are compared too
  }
}

INSTANTIATE_TEST_SUITE_P(
    Rules, Velmo2EdgeFilterTest,
    ::testing::Values(EdgeCase{"Luma", 96, 64, false, 0x2000, {}, {}},
                      EdgeCase{"LumaOddSize", 84, 50, false, 0x2000, {}, {}},
                      EdgeCase{"NoVertical", 64, 64, false, 0x6000, {}, {}},
                      EdgeCase{"NoHorizontal", 64, 64, false, 0xA000, {}, {}},
                      EdgeCase{"LumaMaps", 96, 64, false, 0x12000, {1, 4, 6}, {2, 3, 7, 11}},
                      EdgeCase{"Chroma", 48, 32, true, 0x2000, {}, {}},
                      EdgeCase{"ChromaMaps", 48, 32, true, 0x12000, {1, 2, 6}, {2, 3, 4, 9}}),
    [](const auto& info) { return std::string(info.param.Name); });

// ---- Single edges: which pixels each rule lets change ----------------------------------------

// A 64x32 luma plane with a step at the vertical edge x = 8: 40 on the left, 200 on the right.
struct StepCase {
  TestPlane P{64, 32};
  TestGrid G{8, 4};
  StepCase(int ca, int cb) {
    for (int y = 0; y < 32; ++y)
      for (int x = 0; x < 64; ++x) P.At(x, y) = x < 8 ? 40 : 200;
    for (int by = 0; by < 4; ++by) {
      G.At(0, by) = Word(true, ca, 0);
      for (int bx = 1; bx < 8; ++bx) G.At(bx, by) = Word(true, cb, 0);
    }
  }
  // Which of the columns 6, 7, 8, 9 changed in line 3.
  std::vector<bool> Changed() {
    return {P.At(6, 3) != 40, P.At(7, 3) != 40, P.At(8, 3) != 200, P.At(9, 3) != 200};
  }
  void Run(const Rules& r) { Velmo2FilterVerticalEdges(r.View(), P.View(), G.View(), false, 0, 0); }
};

// Class pairs switch their pixels, and each skip rule leaves the edge alone.
TEST(Velmo2EdgeFilterTaps, ClassPairsAndSkipRules) {
  Rules marked, noVertical, noHorizontal;
  marked.Mark(marked.ColumnMap, 1);
  noVertical.Word |= 0x4000;
  noHorizontal.Word |= 0x8000;
  const std::vector<bool> none{false, false, false, false}, all{true, true, true, true};
  const struct {
    const char* What;
    int Ca, Cb;
    Rules R;
    std::vector<bool> Changed;  // columns 6, 7, 8, 9
  } cases[] = {
      {"2 and 2", 2, 2, {}, all},
      {"0 and 1", 0, 1, {}, {false, false, true, false}},
      {"1 and 3", 1, 3, {}, {false, true, true, true}},
      {"0 and 0", 0, 0, {}, none},
      {"3 and 3", 3, 3, {}, none},
      {"marked column", 2, 2, marked, none},
      {"no vertical edges", 2, 2, noVertical, none},
      {"no horizontal edges", 2, 2, noHorizontal, all},
  };
  for (const auto& c : cases) {
    StepCase step(c.Ca, c.Cb);
    step.Run(c.R);
    EXPECT_EQ(step.Changed(), c.Changed) << c.What;
  }
  // The format's values for d = 160: a = 20, b = 40.
  StepCase twoTwo(2, 2);
  twoTwo.Run(Rules());
  EXPECT_EQ(std::vector<int>({twoTwo.P.At(6, 3), twoTwo.P.At(7, 3), twoTwo.P.At(8, 3), twoTwo.P.At(9, 3)}),
            (std::vector<int>{60, 80, 160, 180}));
  // The picture's own left and top edges have no code, whatever the classes; nor has an edge at
  // or past the picture's right side.
  EXPECT_EQ(Velmo2VerticalEdgeCode(Rules().View(), twoTwo.G.View(), false, 64, 0, 1), 0u);
  EXPECT_EQ(Velmo2HorizontalEdgeCode(Rules().View(), twoTwo.G.View(), false, 32, 1, 0), 0u);
  EXPECT_EQ(Velmo2VerticalEdgeCode(Rules().View(), twoTwo.G.View(), false, 56, 7, 1), 0u);
  EXPECT_NE(Velmo2VerticalEdgeCode(Rules().View(), twoTwo.G.View(), false, 57, 7, 1), 0u);
}

TEST(Velmo2EdgeFilterTaps, ChromaReadsEveryOtherLumaMapEntry) {
  TestGrid g(4, 4);
  for (auto& w : g.Info) w = Word(true, 2, 0);
  Rules odd;
  odd.Mark(odd.ColumnMap, 1);
  odd.Mark(odd.RowMap, 1);
  Rules even;
  even.Mark(even.ColumnMap, 2);
  even.Mark(even.RowMap, 2);
  // Chroma edge 1 lies on luma edge 2: only an even luma entry stops it.
  EXPECT_NE(Velmo2VerticalEdgeCode(odd.View(), g.View(), true, 32, 1, 0), 0u);
  EXPECT_NE(Velmo2HorizontalEdgeCode(odd.View(), g.View(), true, 32, 0, 1), 0u);
  EXPECT_EQ(Velmo2VerticalEdgeCode(even.View(), g.View(), true, 32, 1, 0), 0u);
  EXPECT_EQ(Velmo2HorizontalEdgeCode(even.View(), g.View(), true, 32, 0, 1), 0u);
  // Luma reads the entries as they stand.
  EXPECT_EQ(Velmo2VerticalEdgeCode(odd.View(), g.View(), false, 32, 1, 0), 0u);
  EXPECT_NE(Velmo2VerticalEdgeCode(even.View(), g.View(), false, 32, 1, 0), 0u);
}

TEST(Velmo2EdgeFilterTaps, OneMacroblockWritesOnlyItsRegionAndTwoPixelsBeforeIt) {
  std::mt19937 rng(7);
  TestPlane p(96, 96);
  p.Fill(rng);
  TestGrid g(12, 12);
  for (auto& w : g.Info) w = Word(true, 2, 0);
  const TestPlane before = p;
  const Rules r;
  Velmo2FilterVerticalEdges(r.View(), p.View(), g.View(), false, 1, 1);
  Velmo2FilterHorizontalEdges(r.View(), p.View(), g.View(), false, 1, 1);
  int changedInside = 0;
  for (int y = -TestPlane::G; y < 96 + TestPlane::G; ++y)
    for (int x = -TestPlane::G; x < 96 + TestPlane::G; ++x) {
      const bool inside = x >= 30 && x < 64 && y >= 30 && y < 64;
      const size_t at = size_t(y + TestPlane::G) * p.Pitch + x + TestPlane::G;
      if (!inside)
        ASSERT_EQ(p.Buf[at], before.Buf[at]) << x << "," << y;
      else
        changedInside += p.Buf[at] != before.Buf[at];
    }
  EXPECT_GT(changedInside, 0);
}

// ---- Flat blocks --------------------------------------------------------------------------

// f of the format's table, column i, near side l, far side r.
int ReferenceTaper(int i, int l, int r) {
  switch (i) {
    case 0: return (l * 26624) >> 16;
    case 1: return ((l * 18432) >> 16) + (r >> 7);
    case 2: return ((l * 12288) >> 16) + (r >> 5);
    case 3: return ((l * 7168) >> 16) + (r >> 4);
    case 4: return ((r * 7168) >> 16) + (l >> 4);
    case 5: return ((r * 12288) >> 16) + (l >> 5);
    case 6: return ((r * 18432) >> 16) + (l >> 7);
    default: return (r * 26624) >> 16;
  }
}

// The 8x8 pixels of flat block (bx, by) from the format's three steps.
std::vector<int> ReferenceFlat(TestGrid& g, int bx, int by, int limit) {
  const int c = g.At(bx, by);
  int dc[3][3];
  for (int dy = -1; dy <= 1; ++dy)
    for (int dx = -1; dx <= 1; ++dx) {
      const int x = bx + dx, y = by + dy;
      const bool inside = x >= 0 && y >= 0 && x < g.Cols && y < g.Rows;
      const int n = inside ? g.At(x, y) : 0;
      const bool close = inside && std::abs(c - n) < limit * 8;
      const int w = close ? n : c;
      dc[dy + 1][dx + 1] = (w & 0x1000) ? (w & 0x1FFF) - 0x2000 : (w & 0x1FFF);
    }
  int rows[3][8];
  for (int r = 0; r < 3; ++r)
    for (int i = 0; i < 8; ++i)
      rows[r][i] = dc[r][1] + 4 + ReferenceTaper(i, dc[r][0] - dc[r][1], dc[r][2] - dc[r][1]);
  std::vector<int> out(64);
  for (int j = 0; j < 8; ++j)
    for (int i = 0; i < 8; ++i) {
      const int m = rows[1][i];
      out[j * 8 + i] = Hold((m + ReferenceTaper(j, rows[0][i] - m, rows[2][i] - m)) >> 3);
    }
  return out;
}

std::vector<int> BlockPixels(TestPlane& p, int bx, int by) {
  std::vector<int> out(64);
  for (int j = 0; j < 8; ++j)
    for (int i = 0; i < 8; ++i) out[j * 8 + i] = p.At(bx * 8 + i, by * 8 + j);
  return out;
}

// A 4x3 block grid whose blocks are all intra and flat, with DC values that differ by small
// and large steps so that some neighbours are close and others not.
TestGrid FlatGrid(std::mt19937& rng) {
  TestGrid g(4, 3);
  for (auto& w : g.Info) w = Word(true, 3, 900 + int(rng() % 160));
  return g;
}

TEST(Velmo2FlatBlocks, EveryPositionMatchesTheInterpolationRule) {
  for (uint32_t seed = 1; seed <= 20; ++seed) {
    std::mt19937 rng(seed);
    TestGrid g = FlatGrid(rng);
    const int limit = int(rng() % 24);
    for (int by = 0; by < 3; ++by)
      for (int bx = 0; bx < 4; ++bx) {  // corners, edges and the middle
        TestPlane p(32, 24);
        ASSERT_TRUE(Velmo2SettleFlatBlock(p.View(), g.View(), limit, bx, by));
        EXPECT_EQ(BlockPixels(p, bx, by), ReferenceFlat(g, bx, by, limit))
            << "seed " << seed << " block " << bx << "," << by;
      }
  }
}

TEST(Velmo2FlatBlocks, WithNoCloseNeighbourTheBlockIsPlain) {
  std::mt19937 rng(3);
  TestGrid g = FlatGrid(rng);
  g.At(1, 1) = Word(true, 3, 1003);
  for (int limit : {0, 255}) {
    if (limit) {  // neighbours that are not flat intra blocks are never close
      for (auto& w : g.Info) w = Word(false, 3, 1000);
      g.At(1, 1) = Word(true, 3, 1003);
    }
    TestPlane p(32, 24);
    ASSERT_TRUE(Velmo2SettleFlatBlock(p.View(), g.View(), limit, 1, 1));
    EXPECT_EQ(BlockPixels(p, 1, 1), std::vector<int>(64, (1003 + 4) >> 3)) << "T " << limit;
  }
}

TEST(Velmo2FlatBlocks, OnlyIntraClassThreeBlocksAreWrittenAndOnlyTheirPixels) {
  std::mt19937 rng(5);
  TestGrid g = FlatGrid(rng);
  g.At(2, 1) = Word(true, 2, 1000);
  g.At(3, 1) = Word(false, 3, 1000);
  TestPlane p(32, 24);
  const TestPlane before = p;
  EXPECT_FALSE(Velmo2SettleFlatBlock(p.View(), g.View(), 8, 2, 1));
  EXPECT_FALSE(Velmo2SettleFlatBlock(p.View(), g.View(), 8, 3, 1));
  EXPECT_EQ(p.Buf, before.Buf);
  ASSERT_TRUE(Velmo2SettleFlatBlock(p.View(), g.View(), 8, 1, 2));
  for (int y = -TestPlane::G; y < 24 + TestPlane::G; ++y)
    for (int x = -TestPlane::G; x < 32 + TestPlane::G; ++x) {
      if (x >= 8 && x < 16 && y >= 16 && y < 24) continue;
      const size_t at = size_t(y + TestPlane::G) * p.Pitch + x + TestPlane::G;
      ASSERT_EQ(p.Buf[at], before.Buf[at]) << x << "," << y;
    }
}

// ---- Seams --------------------------------------------------------------------------------

// A picture's three planes filled at random, with a block grid each.
struct SeamPicture {
  TestPlane Y, Cr, Cb;
  TestGrid GY, GR, GB;
  SeamPicture(int w, int h, std::mt19937& rng)
      : Y(w, h), Cr(w / 2, h / 2), Cb(w / 2, h / 2), GY((w + 31) / 32 * 4, h / 8), GR(GY.Cols / 2, h / 16),
        GB(GY.Cols / 2, h / 16) {
    for (TestPlane* p : {&Y, &Cr, &Cb}) p->Fill(rng);
  }
  Velmo2SeamGrids Grids() const { return {GY.View(), GR.View(), GB.View()}; }
  // The whole-plane reference run on a copy with every row edge but `seamEdge` (in luma
  // blocks) marked: the seam's edges alone filtered.
  SeamPicture SeamOnly(const Rules& r, int seamEdge) const {
    Rules only = r;
    for (int k = 1; k < 32; ++k)
      if (k != seamEdge) only.Mark(only.RowMap, k);
    SeamPicture want = *this;
    ReferencePlane(want.Y, want.GY, only, false);
    ReferencePlane(want.Cr, want.GR, only, true);
    ReferencePlane(want.Cb, want.GB, only, true);
    return want;
  }
  void ExpectSame(SeamPicture& want) {
    ExpectSamePixels(Y, want.Y);
    ExpectSamePixels(Cr, want.Cr);
    ExpectSamePixels(Cb, want.Cb);
  }
};

TEST(Velmo2Seams, RecordAppliesTheHorizontalEdgeOnceAtTheSeamLines) {
  const int w = 80, h = 96, boundary = 32;  // three macroblocks wide, the last one partly
  std::mt19937 rng(11);
  SeamPicture pic(w, h, rng);
  for (TestGrid* g : {&pic.GY, &pic.GR, &pic.GB}) RandomClasses(*g, rng);
  Rules r;
  r.Word |= 0x4000;  // horizontal edges only: the reference is then the seam edge alone
  r.Mark(r.RowMap, 3);  // not the seam's edge (luma 6, chroma 3 -> luma 6)
  std::vector<uint8_t> record(4 + 4 * ((w + 31) / 32), 0);
  for (uint32_t mbx = 0; mbx < 3; ++mbx)
    ASSERT_TRUE(Velmo2WriteSeamCodes(record.data(), record.size(), r.View(), pic.Grids(), h, boundary, mbx));
  const std::vector<uint8_t> written = record;
  EXPECT_FALSE(Velmo2WriteSeamCodes(record.data(), record.size(), r.View(), pic.Grids(), h, boundary, 3));
  EXPECT_EQ(record, written);
  SeamPicture want = pic.SeamOnly(r, (boundary + 16) / 8);
  Velmo2ApplySeam(record.data(), record.size(), pic.Y.View(), pic.Cr.View(), pic.Cb.View(), boundary);
  pic.ExpectSame(want);
  // The count is now 0, so a second run changes nothing.
  Velmo2ApplySeam(record.data(), record.size(), pic.Y.View(), pic.Cr.View(), pic.Cb.View(), boundary);
  pic.ExpectSame(want);
  uint32_t count = 1;
  std::memcpy(&count, record.data(), 4);
  EXPECT_EQ(count, 0u);
}

TEST(Velmo2Seams, FinishSeamsRunsEachBoundaryOnce) {
  const int w = 64, h = 128;
  Velmo2SliceLayout layout = Velmo2LayoutFor("VM2h", 1, w, h);  // three slices
  ASSERT_EQ(layout.Slices, 3u);
  std::mt19937 rng(13);
  SeamPicture pic(w, h, rng);
  for (TestGrid* g : {&pic.GY, &pic.GR, &pic.GB})
    for (auto& v : g->Info) v = Word(true, 2, 0);
  Rules r;
  r.Word |= 0x4000;
  std::vector<uint8_t> records(layout.SeamRecordBytes * 2, 0);
  // Only the second boundary gets a record; the first stays at count 0 and is passed over.
  for (uint32_t mbx = 0; mbx < 2; ++mbx)
    ASSERT_TRUE(Velmo2WriteSeamCodes(records.data() + layout.SeamRecordBytes, layout.SeamRecordBytes, r.View(),
                                     pic.Grids(), h, layout.Ends[1], mbx));
  SeamPicture want = pic.SeamOnly(r, int(layout.Ends[1] + 16) / 8);
  Velmo2FinishSeams(records.data(), layout, pic.Y.View(), pic.Cr.View(), pic.Cb.View());
  Velmo2FinishSeams(records.data(), layout, pic.Y.View(), pic.Cr.View(), pic.Cb.View());
  pic.ExpectSame(want);
}

// ---- Residual seam filter -----------------------------------------------------------------

int Wrap(int v) { return ((v + 32768) & 0xFFFF) - 32768; }
int SignedDc(uint16_t w) { return (w & 0x1000) ? (w & 0x1FFF) - 0x2000 : (w & 0x1FFF); }

// One line of residuals across a seam, by the format's rule, with 16-bit wrapping.
void ReferenceResidualLine(int16_t& p1, int16_t& p0, int16_t& q0, int16_t& q1, uint16_t wa,
                           uint16_t wb) {
  const int ca = ClassOf(wa), cb = ClassOf(wb);
  if (ca == 0 && cb == 0) return;
  if (ca == 3 && cb == 3 && std::abs(SignedDc(wa) - SignedDc(wb)) <= 32) return;
  const int d = Wrap(q0 - p0), a = Wrap(d + 4) >> 3, b = Wrap(d + 2) >> 2;
  const int np1 = p1 + a, np0 = p0 + b, nq0 = q0 - b, nq1 = q1 - a;
  if (ca >= 2) p1 = int16_t(Wrap(np1));
  if (ca >= 1) p0 = int16_t(Wrap(np0));
  if (cb >= 1) q0 = int16_t(Wrap(nq0));
  if (cb >= 2) q1 = int16_t(Wrap(nq1));
}

// A macroblock plane's residual by the reference: blocks given by column and row.
void ReferenceResidual(std::vector<int16_t>& r, int n, const std::vector<uint16_t>& byPos,
                       uint32_t word) {
  const int size = n * 8;
  auto at = [&](int x, int y) -> int16_t& { return r[size_t(y) * size + x]; };
  const bool wide = word & 0x40000;
  if (!(word & 0x4000) && !wide)
    for (int by = 0; by < n; ++by)
      for (int bx = 1; bx < n; ++bx)
        for (int y = by * 8; y < by * 8 + 8; ++y)
          ReferenceResidualLine(at(bx * 8 - 2, y), at(bx * 8 - 1, y), at(bx * 8, y),
                                at(bx * 8 + 1, y), byPos[by * n + bx - 1], byPos[by * n + bx]);
  if (!(word & 0x8000) && !wide)
    for (int by = 1; by < n; ++by)
      for (int bx = 0; bx < n; ++bx)
        for (int x = bx * 8; x < bx * 8 + 8; ++x)
          ReferenceResidualLine(at(x, by * 8 - 2), at(x, by * 8 - 1), at(x, by * 8),
                                at(x, by * 8 + 1), byPos[(by - 1) * n + bx], byPos[by * n + bx]);
}

TEST(Velmo2ResidualSeams, MacroblockPlanesMatchTheReference) {
  for (uint32_t word : {0x2000u, 0x6000u, 0xA000u, 0x42000u}) {
    for (int n : {4, 2}) {
      for (uint32_t seed = 1; seed <= 10; ++seed) {
        std::mt19937 rng(seed * 31 + n);
        std::vector<int16_t> got(size_t(n) * 8 * n * 8);
        for (auto& v : got) v = int16_t(int(rng() % 1201) - 600);
        // Values at the ends of the range, and differences near them, wrap as 16-bit values.
        const int16_t extremes[8] = {-32768, -32767, 0, 1, 32764, 32765, 32766, 32767};
        if (seed >= 9)
          for (auto& v : got) v = extremes[rng() % 8];
        std::vector<uint16_t> byPos(size_t(n) * n), blockOrder(byPos.size());
        for (int i = 0; i < n * n; ++i) {
          // Flat pairs get DC values near one another, so that both sides of the 32 limit occur.
          byPos[i] = Word(false, int(rng() & 3), int(rng() % 70) - 35);
          blockOrder[Velmo2BlockIndex(i % n, i / n)] = byPos[i];
        }
        std::vector<int16_t> want = got;
        ReferenceResidual(want, n, byPos, word);
        Velmo2ResidualSeams(got.data(), n * 8, blockOrder.data(), n, Velmo2FrameWord{word});
        ASSERT_EQ(got, want) << "word " << std::hex << word << " grid " << n << " seed " << seed;
      }
    }
  }
}

TEST(Velmo2ResidualSeams, FlatPairsAreLeftAloneUpTo32Apart) {
  for (int diff : {-40, -33, -32, -1, 0, 31, 32, 33, 40}) {
    for (int base : {-100, 0, 500}) {
      int16_t line[4 * 8];
      for (int i = 0; i < 32; ++i) line[i] = int16_t(i % 4 < 2 ? -50 : 70);
      const int16_t before = line[2];
      Velmo2ResidualSeamEdge(line + 2, 1, 4, Word(false, 3, base), Word(false, 3, base + diff));
      EXPECT_EQ(line[2] == before, std::abs(diff) <= 32) << "DC " << base << " and " << base + diff;
    }
  }
  // Class 0 against class 0 never changes; class 0 against class 1 changes the class 1 side's
  // inner value only.
  int16_t line[4 * 8];
  for (int i = 0; i < 32; ++i) line[i] = int16_t(i % 4 < 2 ? -50 : 70);
  Velmo2ResidualSeamEdge(line + 2, 1, 4, Word(false, 0, 0), Word(false, 0, 900));
  EXPECT_EQ(line[0], -50);
  EXPECT_EQ(line[1], -50);
  EXPECT_EQ(line[2], 70);
  EXPECT_EQ(line[3], 70);
  Velmo2ResidualSeamEdge(line + 2, 1, 4, Word(false, 0, 0), Word(false, 1, 0));
  EXPECT_EQ(line[0], -50);
  EXPECT_EQ(line[1], -50);
  EXPECT_EQ(line[2], 70 - ((120 + 2) >> 2));
  EXPECT_EQ(line[3], 70);
}

}  // namespace
