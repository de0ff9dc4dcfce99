// The random section generator of tests/support, read back with the second-generation syntax
// readers: slice table, edge maps, and every macroblock of every slice walked element by
// element, which checks the generator's models of the kind list, the masks and the quantiser
// prediction against the readers.
#include "decode/velmo2_syntax.h"
#include "format/container.h"
#include "support/velmo2_file.h"
#include "support/velmo2_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdlib>
#include <cstring>
#include <random>
#include <string>
#include <tuple>
#include <vector>

using namespace velmo2_test;

namespace {

std::string TagOf(char letter) { return std::string("VM2") + letter; }

std::vector<int> Entries(const std::vector<uint32_t>& map, uint32_t n) {
  std::vector<int> out;
  for (uint32_t i = 0; i < n; ++i) out.push_back(int(map[(i + 1) / 32] >> ((i + 1) % 32) & 1));
  return out;
}

// What a syntax-only walk of one section found.
struct Walk {
  std::vector<MacroblockTrace> Macroblocks;
  std::vector<uint64_t> SliceBits;  // bits read in each slice
  std::vector<int> RowMap, ColumnMap;
  bool Overran = false;
};

// Reads the luma-like plane of a macroblock: mask, 16 DC residuals, four AC quadrants.
uint32_t ReadLumaPlane(Velmo1BitReader& r, uint32_t* previous, Velmo2FrameWord word,
                       const uint16_t* dequant, int32_t q, uint32_t* acCount) {
  const uint32_t mask = Velmo2ReadLumaMask(r, *previous, word);
  *previous = mask;
  int32_t dc[16];
  Velmo2ReadDcResiduals(r, int32_t(Velmo2DcScale(q)), dc, 16);
  for (int quadrant = 0; quadrant < 4; ++quadrant) {
    int16_t blocks[4][64] = {};
    int16_t* coef[4] = {blocks[0], blocks[1], blocks[2], blocks[3]};
    Velmo2AcBlock out[4] = {};
    const uint32_t w = mask >> (4 * quadrant);
    Velmo2ReadAcQuadrant(r, w, dequant, q, coef, out);
    for (int i = 0; i < 4; ++i) *acCount += (w >> i & 1) ? out[i].Count : 0;
  }
  return mask;
}

void ReadChromaPlane(Velmo1BitReader& r, uint32_t* previous, const uint16_t* dequant, int32_t q) {
  *previous = Velmo2ReadChromaMask(r, *previous);
  int32_t dc[4];
  Velmo2ReadDcResiduals(r, int32_t(Velmo2DcScale(q)), dc, 4);
  int16_t blocks[4][64] = {};
  int16_t* coef[4] = {blocks[0], blocks[1], blocks[2], blocks[3]};
  Velmo2AcBlock out[4];
  Velmo2ReadAcQuadrant(r, *previous, dequant, q, coef, out);
}

// Walks every slice of `section` with the readers, keeping the state the syntax needs.
Walk WalkSection(const std::vector<uint8_t>& section, const StreamPlan& plan) {
  Walk walk;
  const std::vector<uint32_t> ends = SliceEnds(plan.Tag, plan.FileFlags, plan.Height);
  const uint32_t slices = uint32_t(ends.size());
  const Velmo2FrameWord word{uint32_t(section[0]) | uint32_t(section[1]) << 8 |
                             uint32_t(section[2]) << 16 | uint32_t(section[3]) << 24};
  const uint32_t columns = (plan.Width + 31) / 32;
  const bool alpha = plan.Alpha && !word.ConstantAlpha();
  uint32_t start = 0;
  for (uint32_t k = 0; k < slices; ++k) {
    uint32_t offset = 0;
    EXPECT_TRUE(Velmo2SliceOffset(section.data(), section.size(), slices, k, &offset));
    Velmo1BitReader r = Velmo1ReaderAt(section.data() + offset, section.size() - offset,
                                       section.size() - offset);
    if (k == 0) {
      const uint32_t rowEntries = plan.Height / 8 - 1, columnEntries = plan.Width / 8 - 1;
      std::vector<uint32_t> rows(Velmo2EdgeMapWords(rowEntries)), cols(Velmo2EdgeMapWords(columnEntries));
      const Velmo2EdgeMaps maps{rows.data(), rows.size(), cols.data(), cols.size()};
      EXPECT_TRUE(Velmo2ReadEdgeMaps(r, word, plan.Width, plan.Height, maps));
      if (word.HasRowMap()) walk.RowMap = Entries(rows, rowEntries);
      if (word.HasColumnMap()) walk.ColumnMap = Entries(cols, columnEntries);
    }
    const uint32_t rowEnd = (ends[k] + 31) / 32;
    std::vector<int32_t> above[2], current[2];
    std::vector<std::array<int32_t, 8>> vectorsAbove, vectors;  // x then y of each macroblock
    for (uint32_t row = start / 32; row < rowEnd; ++row) {
      const bool firstRow = row == start / 32;
      Velmo2KindList list = Velmo2KindListAtRowStart();
      uint32_t luma[3] = {}, chroma[2] = {};
      for (int i = 0; i < 2; ++i) current[i].assign(columns, firstRow ? 16 : above[i][0]);
      vectors.assign(columns, {});
      for (uint32_t x = 0; x < columns; ++x) {
        int32_t& qi = current[0][x];
        int32_t& qr = current[1][x];
        MacroblockTrace t{plan.Key ? uint32_t(Velmo2Intra) : Velmo2ReadKind(r, list), qi, 0, false, 0, {}, {}};
        if (!plan.Key && t.Kind != Velmo2Skipped) {
          Velmo2VectorDiffs d{};
          if (t.Kind != Velmo2Intra) d = Velmo2ReadVectorDiffs(r);
          for (int c = 0; c < 2; ++c) {
            const Velmo2VectorNeighbours n{firstRow ? nullptr : &vectorsAbove[x][4 * c],
                                           x > 0 ? &vectors[x - 1][4 * c] : nullptr,
                                           !firstRow && x > 0 ? &vectorsAbove[x - 1][4 * c] : nullptr};
            Velmo2PredictVectors(n, d.Single, c ? d.Y : d.X, &vectors[x][4 * c]);
          }
        }
        std::copy(vectors[x].begin(), vectors[x].begin() + 4, t.X);
        std::copy(vectors[x].begin() + 4, vectors[x].end(), t.Y);
        if (t.Kind == Velmo2Intra) {
          t.Quantiser = qi = Velmo2ReadQuantiser(r, qi);
          const uint16_t* lumaTable = Velmo2Dequant(Velmo2DequantIntraLuma)[qi & 3];
          const uint16_t* chromaTable = Velmo2Dequant(Velmo2DequantIntraChroma)[qi & 3];
          t.LumaMask = ReadLumaPlane(r, &luma[0], word, lumaTable, qi, &t.LumaAcCount);
          t.Chroma = true;
          ReadChromaPlane(r, &chroma[0], chromaTable, qi);
          ReadChromaPlane(r, &chroma[1], chromaTable, qi);
          uint32_t unused = 0;
          if (alpha) ReadLumaPlane(r, &luma[1], word, lumaTable, qi, &unused);
          if (plan.Hdr) ReadLumaPlane(r, &luma[2], word, lumaTable, qi, &unused);
        } else if (t.Kind == Velmo2Motion || t.Kind == Velmo2Residual) {
          if (t.Kind == Velmo2Residual) {
            t.Quantiser = qr = Velmo2ReadQuantiser(r, qr);
            const uint16_t* table = Velmo2Dequant(Velmo2DequantInter)[qr & 3];
            t.LumaMask = ReadLumaPlane(r, &luma[0], word, table, qr, &t.LumaAcCount);
            t.Chroma = Velmo1ReadBit(r);
            if (t.Chroma) {
              ReadChromaPlane(r, &chroma[0], table, qr);
              ReadChromaPlane(r, &chroma[1], table, qr);
            } else {
              chroma[0] = chroma[1] = 0;
            }
            uint32_t unused = 0;
            if (alpha) ReadLumaPlane(r, &luma[1], word, table, qr, &unused);
            if (plan.Hdr) ReadLumaPlane(r, &luma[2], word, table, qr, &unused);
          }
        }
        walk.Macroblocks.push_back(t);
        for (int i = 0; x + 1 < columns && i < 2; ++i) {
          current[i][x + 1] = Velmo2PredictQuantiser(firstRow, current[i][x],
                                                     firstRow ? 0 : above[i][x + 1],
                                                     firstRow ? 0 : above[i][x]);
        }
      }
      above[0] = current[0];
      above[1] = current[1];
      vectorsAbove = vectors;
    }
    walk.SliceBits.push_back(r.Pos * 8 - r.Count);
    walk.Overran |= Velmo2Overran(r);
    start = rowEnd * 32;
  }
  return walk;
}

// The fields of a macroblock's trace, for comparing.
auto Fields(const MacroblockTrace& t) {
  return std::tuple(t.Kind, t.Quantiser, t.LumaMask, t.Chroma, t.LumaAcCount,
                    std::vector<int32_t>(t.X, t.X + 4), std::vector<int32_t>(t.Y, t.Y + 4));
}

void ExpectSameMacroblocks(const std::vector<MacroblockTrace>& got,
                           const std::vector<MacroblockTrace>& want) {
  ASSERT_EQ(got.size(), want.size());
  for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(Fields(got[i]), Fields(want[i])) << "macroblock " << i;
}

// A spread of plans: sizes that are not whole macroblocks, every slice count, key and inter,
// alpha and HDR planes, constant alpha, the wide-DC mask rule, maps present or not.
std::vector<StreamPlan> Plans() {
  return PlanGrid({{8, 8}, {100, 127}, {72, 128}, {200, 300}, {328, 96}, {64, 264}},
                  {0x10000 | 9, 0x10000 | 0x40000 | 3, 0x14000 | 0x20000,
                   0x18000 | 0x80000 | 0x7F000000, 0x0, 0x1C000 | 0x40000},
                  100, [](StreamPlan& p) { p.Key = p.Seed % 3 == 0; });
}

// ---- Element writers with state, against the readers --------------------------------------

// Random kinds over several rows: the writer's list and the reader's stay in step.
TEST(Velmo2StreamElements, KindListModelFollowsTheReader) {
  std::mt19937 rng(21);
  BitWriter w;
  std::vector<uint32_t> kinds;
  KindListModel model;
  for (int row = 0; row < 20; ++row) {
    model.Reset();
    for (int i = 0; i < 30; ++i) {
      kinds.push_back(rng() % (row % 3 == 0 ? 2 : 4));
      model.Put(w, kinds.back());
    }
  }
  const std::vector<uint8_t> bytes = w.Bytes();
  Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size());
  Velmo2KindList list;
  for (size_t i = 0; i < kinds.size(); ++i) {
    if (i % 30 == 0) list = Velmo2KindListAtRowStart();
    ASSERT_EQ(Velmo2ReadKind(r, list), kinds[i]) << i;
  }
  EXPECT_EQ(r.Pos * 8 - r.Count, w.Size());
}

// Masks of every density against previous masks of every density (so both the nibble and the
// plain form, flipped or not), with and without clone bits and the bit-18 rule.
TEST(Velmo2StreamElements, MaskWritersFollowTheReaders) {
  std::mt19937 rng(22);
  for (uint32_t frameWord : {0u, 0x40000u}) {
    BitWriter w;
    std::vector<uint32_t> want;
    uint32_t luma = 0, chroma = 0;
    for (int i = 0; i < 3000; ++i) {
      const uint32_t density = rng() % 17;
      uint32_t blocks = 0;
      for (int b = 0; b < 16; ++b) blocks |= uint32_t(rng() % 16 < density) << b;
      want.push_back(PutLumaMask(w, &luma, blocks, rng() % 2, frameWord));
      ChromaMaskChoice c;
      c.UseDefault = rng() % 3 == 0;
      c.Blocks = rng() % 16;
      c.Clone = rng() % 2;
      want.push_back(PutChromaMask(w, &chroma, c));
    }
    const std::vector<uint8_t> bytes = w.Bytes();
    Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size());
    uint32_t lumaPrev = 0, chromaPrev = 0;
    for (size_t i = 0; i < want.size(); i += 2) {
      lumaPrev = Velmo2ReadLumaMask(r, lumaPrev, Velmo2FrameWord{frameWord});
      ASSERT_EQ(lumaPrev, want[i]) << i;
      chromaPrev = Velmo2ReadChromaMask(r, chromaPrev);
      ASSERT_EQ(chromaPrev, want[i + 1]) << i;
    }
    EXPECT_EQ(r.Pos * 8 - r.Count, w.Size());
  }
}

// AC blocks with runs of levels (seven), long skips (escape), and either end: the levels come
// back at their scan positions and the reading stops on the block's last bit.
TEST(Velmo2StreamElements, AcBlockWriterFollowsTheReader) {
  std::mt19937 rng(23);
  const std::vector<uint16_t> flat(64, 128);  // with q 0 a coefficient equals its level
  for (int round = 0; round < 1000; ++round) {
    AcBlock b;
    const uint32_t density = rng() % 10;
    for (int p = 1; p < 64; ++p) {
      const int level = int(rng() % 61) - 30;
      if (rng() % 10 < density) b.Levels[p] = int16_t(level == 0 ? 1 : level);
    }
    b.EndByEscape = rng() % 2;
    const int table = 1 + round % 2;
    BitWriter w;
    PutAcBlock(w, table, b);
    const std::vector<uint8_t> bytes = w.Bytes();
    Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size());
    int16_t coef[64] = {};
    const Velmo2AcBlock got = Velmo2ReadAcBlock(r, table, flat.data(), 0, coef);
    ASSERT_EQ(got.Count, b.Count()) << round;
    for (int p = 1; p < 64; ++p) ASSERT_EQ(coef[Velmo2Scan[p]], b.Levels[p]) << round << " " << p;
    ASSERT_EQ(r.Pos * 8 - r.Count, w.Size()) << round;
  }
}

// The count of slices as the container tells it, at every height; and every end as the
// decoder's layout spreads them, for pictures of 128 lines and more.
TEST(Velmo2StreamLayout, SliceEndsAgreeWithTheContainerAndTheDecoder) {
  for (char tag : {'g', 'h', 'i', 'j', 'k', 'm'}) {
    for (uint32_t mode = 0; mode < 4; ++mode) {
      for (uint32_t height = 8; height <= 1100; height += 7) {
        SCOPED_TRACE(testing::Message() << tag << " mode " << mode << " height " << height);
        const std::vector<uint32_t> ends = SliceEnds(tag, mode, height);
        const VelmoSliceLayout c = VelmoSlicesFor(VelmoMagicOf('V', 'M', '2', tag), mode, height);
        ASSERT_EQ(ends.size(), c.Count);
        if (c.Count > 1) {
          EXPECT_EQ(ends[0], c.RowHeight);
        }
        EXPECT_EQ(ends.back(), (height + 31) / 32 * 32);
        if (height < 128) continue;
        const Velmo2SliceLayout l = Velmo2LayoutFor(TagOf(tag), mode, 64, height);
        ASSERT_EQ(l.EndsSet, ends.size());
        for (size_t k = 0; k < ends.size(); ++k) ASSERT_EQ(ends[k], l.Ends[k]) << "slice " << k;
      }
    }
  }
}

// The slice table and the edge maps read back; every macroblock reads back as written, and each
// slice's reading ends exactly on its last written bit: the kind list, the masks and the
// quantiser prediction agree with the readers.
TEST(Velmo2StreamSection, TableMapsAndEveryMacroblockReadBack) {
  for (const StreamPlan& plan : Plans()) {
    SCOPED_TRACE(testing::Message() << plan.Width << "x" << plan.Height << " VM2" << plan.Tag
                                    << " mode " << plan.FileFlags << " seed " << plan.Seed);
    StreamTrace trace;
    const std::vector<uint8_t> section = GenerateSection(plan, &trace);
    ASSERT_EQ(section.size() % 4, 0u);
    uint32_t word = 0;
    std::memcpy(&word, section.data(), 4);
    EXPECT_EQ(word, plan.FrameWord | 0x2000);
    const uint32_t slices = uint32_t(trace.SliceBytes.size());
    EXPECT_EQ(trace.SliceBytes[0], slices < 3 ? 8u : slices * 4);
    for (uint32_t k = 0; k < slices; ++k) {
      uint32_t offset = 0;
      ASSERT_TRUE(Velmo2SliceOffset(section.data(), section.size(), slices, k, &offset));
      EXPECT_EQ(offset, trace.SliceBytes[k]) << k;
      // Each slice's data is its bits padded with zeros to the next word.
      const uint32_t next = k + 1 < slices ? trace.SliceBytes[k + 1] : uint32_t(section.size());
      EXPECT_EQ(next - offset, (trace.SliceBits[k] + 31) / 32 * 4) << k;
    }
    const Walk walk = WalkSection(section, plan);
    EXPECT_EQ(walk.RowMap, trace.RowMap);
    EXPECT_EQ(walk.ColumnMap, trace.ColumnMap);
    EXPECT_FALSE(walk.Overran);
    EXPECT_EQ(walk.SliceBits, trace.SliceBits);
    ExpectSameMacroblocks(walk.Macroblocks, trace.Macroblocks);
    const uint32_t rows = (plan.Height + 31) / 32, columns = (plan.Width + 31) / 32;
    EXPECT_EQ(walk.Macroblocks.size(), size_t(rows) * columns);
  }
}

TEST(Velmo2StreamSection, SharesShapeTheFrame) {
  StreamPlan plan;
  plan.Width = 320;
  plan.Height = 192;
  plan.Key = false;
  plan.Shares.QMin = 10;
  plan.Shares.QMax = 14;
  plan.Shares.QChange = 0.9;
  plan.Shares.VectorSpread = 8;
  StreamTrace mixed;
  WalkSection(GenerateSection(plan, &mixed), plan);
  uint32_t byKind[4] = {};
  for (const MacroblockTrace& t : mixed.Macroblocks) {
    ++byKind[t.Kind];
    // Quantisers start at 16 and move into the range at the first coded one.
    if (t.Kind == Velmo2Intra || t.Kind == Velmo2Residual) {
      EXPECT_TRUE((t.Quantiser >= 10 && t.Quantiser <= 14) || t.Quantiser == 16) << t.Quantiser;
    }
    // Vectors stay within the spread of a frame-wide motion that is itself within the spread.
    if (t.Kind == Velmo2Motion || t.Kind == Velmo2Residual) {
      for (int q = 0; q < 4; ++q) {
        EXPECT_LE(std::abs(t.X[q]), 16) << q;
        EXPECT_LE(std::abs(t.Y[q]), 16) << q;
      }
    }
  }
  for (uint32_t k = 0; k < 4; ++k) EXPECT_GT(byKind[k], 0u) << "kind " << k;

  plan.Shares.Intra = plan.Shares.Motion = plan.Shares.Residual = 0;
  StreamTrace skipped;
  const std::vector<uint8_t> still = GenerateSection(plan, &skipped);
  for (const MacroblockTrace& t : skipped.Macroblocks) EXPECT_EQ(t.Kind, uint32_t(Velmo2Skipped));

  plan.Key = true;
  plan.Shares.CodedBlocks = 0.9;
  plan.Shares.AcDensity = 0.5;
  StreamTrace dense;
  const std::vector<uint8_t> full = GenerateSection(plan, &dense);
  uint64_t levels = 0;
  for (const MacroblockTrace& t : dense.Macroblocks) {
    EXPECT_EQ(t.Kind, uint32_t(Velmo2Intra));
    levels += t.LumaAcCount;
  }
  EXPECT_GT(levels, dense.Macroblocks.size() * 16 * 10);
  EXPECT_GT(full.size(), 20 * still.size());
}

TEST(Velmo2StreamSection, SameSeedSameSection) {
  StreamPlan plan;
  plan.Width = 160;
  plan.Height = 130;
  plan.Key = false;
  plan.Seed = 77;
  const std::vector<uint8_t> a = GenerateSection(plan);
  EXPECT_EQ(GenerateSection(plan), a);
  plan.Seed = 78;
  EXPECT_NE(GenerateSection(plan), a);
}

// The decoder's buffers: whole 32x16 units, chroma half, pitches of whole 64-byte units, the
// planes asked for; a write anywhere outside a plane's area is seen, none inside it.
TEST(Velmo2StreamFrames, GeometryAndGuards) {
  for (uint32_t height : {8u, 127u, 128u, 300u}) {
    Frames f(100, height, height > 100, height == 300);
    EXPECT_EQ(f.Fb.LumaWidth, 128u);
    EXPECT_EQ(f.Fb.LumaHeight % 16, 0u);
    EXPECT_GE(f.Fb.LumaHeight, height);
    EXPECT_LT(f.Fb.LumaHeight, height + 16);
    EXPECT_EQ(f.Fb.ChromaWidth * 2, f.Fb.LumaWidth);
    EXPECT_EQ(f.Fb.ChromaHeight * 2, f.Fb.LumaHeight);
    EXPECT_EQ(f.Fb.LumaPitch % 64, 0);
    EXPECT_EQ(f.Fb.ChromaPitch % 64, 0);
    EXPECT_GE(uint32_t(f.Fb.ChromaPitch), f.Fb.ChromaWidth);
    EXPECT_EQ(f.Fb.Sets[1].Planes[VelmoPlaneAlpha] != nullptr, height > 100);
    EXPECT_EQ(f.Fb.Sets[1].Planes[VelmoPlaneHdr] != nullptr, height == 300);
    f.Fill(0, 0x11);
    f.Fill(1, 0x22);
    EXPECT_TRUE(f.GuardsIntact());
    for (int s = 0; s < 2; ++s) {
      for (int p = 0; p < VelmoPlaneCount; ++p) {
        uint8_t* plane = f.Fb.Sets[s].Planes[p];
        if (!plane) continue;
        const ptrdiff_t pitch = f.Pitch(p);
        const ptrdiff_t last = ptrdiff_t(f.Lines(p) - 1) * pitch;
        for (ptrdiff_t at : {ptrdiff_t(-1), -pitch, ptrdiff_t(f.Bytes(p)), last + pitch,
                             last + ptrdiff_t(f.Bytes(p))}) {
          const uint8_t kept = plane[at];
          plane[at] = 0;
          EXPECT_FALSE(f.GuardsIntact()) << "set " << s << " plane " << p << " at " << at;
          plane[at] = kept;
        }
        plane[last + f.Bytes(p) - 1] = 0;
        EXPECT_TRUE(f.GuardsIntact()) << "set " << s << " plane " << p;
      }
    }
  }
}

// Generated sections wrapped into files of each tag read back whole, with their key flags, and
// the file's tag and flags give the slice count the sections were written for.
TEST(Velmo2StreamFile, SectionsKeyFlagsAndSliceModesReadBack) {
  for (char tag : {'g', 'h', 'j', 'm'}) {
    for (uint32_t mode = 0; mode < 4; ++mode) {
      SCOPED_TRACE(testing::Message() << "VM2" << tag << " mode " << mode);
      StreamPlan plan;
      plan.Width = 96;
      plan.Height = 288;
      plan.Tag = tag;
      plan.FileFlags = mode;
      plan.Alpha = mode % 2 == 1;
      plan.Hdr = tag == 'm';
      FileFrames f;
      f.Tag = tag;
      f.SliceMode = mode;
      f.Width = int32_t(plan.Width);
      f.Height = int32_t(plan.Height);
      f.Alpha = plan.Alpha;
      for (uint32_t i = 0; i < 3; ++i) {
        plan.Key = i == 0;
        plan.Seed = 10 * mode + i;
        f.Sections.push_back(GenerateSection(plan));
        f.Key.push_back(plan.Key);
      }
      velmo_test::ParsedFile parsed;
      ASSERT_TRUE(velmo_test::ParseFile(BuildFile(f), &parsed));
      const VelmoHeader& h = parsed.Info.Header;
      EXPECT_EQ(h.Magic, VelmoMagicOf('V', 'M', '2', tag));
      EXPECT_EQ(parsed.Key, f.Key);
      EXPECT_EQ(parsed.Video, f.Sections);
      EXPECT_EQ((h.Flags & VelmoFlagAlpha) != 0, plan.Alpha);
      EXPECT_EQ((h.Flags & VelmoFlagHdr) != 0, plan.Hdr);
      EXPECT_EQ(VelmoSlicesFor(h.Magic, h.Flags, h.Height).Count,
                SliceEnds(tag, mode, plan.Height).size());
    }
  }
}

}  // namespace
