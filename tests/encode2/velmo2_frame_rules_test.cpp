// The frame word of a pass, read back with the decoder's accessors, and the edge maps: which
// lines of block edges are kept from the decoder's edge filter, judged on pictures filtered
// with the decoder's own edge kernel.
#include "encode2/velmo2_frame_rules.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <vector>

#include "decode/velmo2_filter.h"
#include "decode/velmo2_syntax.h"

namespace {

// ---- Frame word -----------------------------------------------------------------------------

// A pass far from the source that no rule below the defaults touches.
Velmo2FrameWordInput Plain() {
  Velmo2FrameWordInput in{};
  in.Quality = 1.0;
  in.MeanDistortion = 50000;
  in.LargestDistortion = 90000;
  return in;
}

TEST(Velmo2FrameWord, DefaultsKeepDeblockingWithTheWidestFlatLimit) {
  const Velmo2FrameWord w{Velmo2PassFrameWord(Plain(), false)};
  EXPECT_EQ(w.FlatLimit(), 255u);
  EXPECT_TRUE(w.CurrentStream());
  EXPECT_TRUE(w.ClampKeepsParity());
  EXPECT_TRUE(w.WideInterDc());
  EXPECT_FALSE(w.NoVerticalEdgeFilter());
  EXPECT_FALSE(w.NoHorizontalEdgeFilter());
  EXPECT_FALSE(w.EdgeMapsPresent());
  EXPECT_FALSE(w.ConstantAlpha());
  EXPECT_EQ(w.AlphaValue(), 0u);
}

TEST(Velmo2FrameWord, DeblockingOptionsGiveTheirBitsAndNothingElse) {
  Velmo2FrameWordInput in = Plain();
  const uint32_t base = Velmo2PassFrameWord(in, false);
  in.Options = 200 + 16384 + 2048 + 65536;  // this encoder, 2 slices, VAQ off, no vertical
  Velmo2FrameWord w{Velmo2PassFrameWord(in, false)};
  EXPECT_TRUE(w.NoVerticalEdgeFilter());
  EXPECT_FALSE(w.NoHorizontalEdgeFilter());
  EXPECT_EQ(w.Bits, base | 0x4000);
  in.Options = 270 + 32768 + 8192;
  w = Velmo2FrameWord{Velmo2PassFrameWord(in, false)};
  EXPECT_FALSE(w.NoVerticalEdgeFilter());
  EXPECT_TRUE(w.NoHorizontalEdgeFilter());
  EXPECT_EQ(w.Bits, base | 0x8000);
}

TEST(Velmo2FrameWord, HighQualityAndSmallDistortionsTurnDeblockingOff) {
  Velmo2FrameWordInput in = Plain();
  in.Quality = 32768;
  Velmo2FrameWord w{Velmo2PassFrameWord(in, true)};
  EXPECT_TRUE(w.NoVerticalEdgeFilter() && w.NoHorizontalEdgeFilter());
  EXPECT_EQ(w.FlatLimit(), 0u);
  EXPECT_FALSE(w.EdgeMapsPresent());  // no map can stand
  in.Quality = 32767.5;
  w = Velmo2FrameWord{Velmo2PassFrameWord(in, true)};
  EXPECT_FALSE(w.NoVerticalEdgeFilter() || w.NoHorizontalEdgeFilter());
  EXPECT_EQ(w.FlatLimit(), 255u);
  EXPECT_TRUE(w.HasRowMap() && w.HasColumnMap());

  // Every macroblock close: no deblocking and no blending of flat blocks, whatever the options.
  in = Plain();
  in.LargestDistortion = 3599;
  in.MeanDistortion = 2000;
  w = Velmo2FrameWord{Velmo2PassFrameWord(in, true)};
  EXPECT_TRUE(w.NoVerticalEdgeFilter() && w.NoHorizontalEdgeFilter());
  EXPECT_EQ(w.FlatLimit(), 0u);
  in.LargestDistortion = 3600;
  w = Velmo2FrameWord{Velmo2PassFrameWord(in, false)};
  EXPECT_FALSE(w.NoVerticalEdgeFilter());
  EXPECT_EQ(w.FlatLimit(), 24u);  // the mean is still below 8000

  // A mean distortion below 8000 narrows the flat limit.
  in = Plain();
  in.MeanDistortion = 7999;
  EXPECT_EQ(Velmo2FrameWord{Velmo2PassFrameWord(in, false)}.FlatLimit(), 24u);
  in.MeanDistortion = 8000;
  EXPECT_EQ(Velmo2FrameWord{Velmo2PassFrameWord(in, false)}.FlatLimit(), 255u);
}

TEST(Velmo2FrameWord, ConstantAlphaAndMapsHaveTheirBits) {
  Velmo2FrameWordInput in = Plain();
  in.ConstantAlpha = true;
  in.Alpha = 0xA7;
  Velmo2FrameWord w{Velmo2PassFrameWord(in, true)};
  EXPECT_TRUE(w.ConstantAlpha());
  EXPECT_EQ(w.AlphaValue(), 0xA7u);
  EXPECT_TRUE(w.EdgeMapsPresent());
  EXPECT_EQ(w.FlatLimit(), 255u);
  // One direction forbidden: the other's map still stands.
  in.Options = 32768;
  w = Velmo2FrameWord{Velmo2PassFrameWord(in, true)};
  EXPECT_FALSE(w.HasRowMap());
  EXPECT_TRUE(w.HasColumnMap());
}

TEST(Velmo2FrameWord, MapsAreWantedUnlessBothDirectionsAreOff) {
  for (uint32_t off : {0u, 0x4000u, 0x8000u, 0xC000u})
    EXPECT_EQ(Velmo2WantsEdgeMaps(0x2000 | off), off != 0xC000) << off;
}

TEST(Velmo2FrameWord, DistortionSummaryGivesMeanAndLargest) {
  const double d[] = {10, 4000, 30, 200};
  double mean = -1, largest = -1;
  Velmo2DistortionSummary(d, 4, &mean, &largest);
  EXPECT_DOUBLE_EQ(mean, (10 + 4000 + 30 + 200) / 4.0);
  EXPECT_DOUBLE_EQ(largest, 4000);
  Velmo2DistortionSummary(d, 0, &mean, &largest);
  EXPECT_EQ(mean, 0.0);
  EXPECT_EQ(largest, 0.0);
}

// ---- Edge maps ------------------------------------------------------------------------------

struct Plane {
  uint32_t W, H;
  std::vector<uint8_t> P;
  Plane(uint32_t w, uint32_t h, uint8_t v = 0) : W(w), H(h), P(size_t(w) * h, v) {}
  uint8_t& At(uint32_t x, uint32_t y) { return P[size_t(y) * W + x]; }
};

// Both sides of every edge of class 2: the decoder's full four-tap filter.
constexpr uint32_t kBothClass2 = Velmo2FilterCode(2, 2);

// The decoder's edge filter over every block edge inside the plane: vertical edges first. The
// test planes have no padding, so an edge whose outer pixel would lie past the plane is left
// out (the maps have no entry for it either).
Plane Filter(Plane p, bool vertical = true, bool horizontal = true) {
  for (uint32_t x = 8; vertical && x + 2 <= p.W; x += 8) {
    for (uint32_t y = 0; y < p.H; y += 8) {
      Velmo2FilterEdge(&p.At(x, y), 1, ptrdiff_t(p.W), kBothClass2, std::min(8u, p.H - y));
    }
  }
  for (uint32_t y = 8; horizontal && y + 2 <= p.H; y += 8) {
    for (uint32_t x = 0; x < p.W; x += 8) {
      Velmo2FilterEdge(&p.At(x, y), ptrdiff_t(p.W), 1, kBothClass2, std::min(8u, p.W - x));
    }
  }
  return p;
}

// Each 8x8 block replaced by its mean: what a coarse pass leaves of a smooth picture.
Plane Blocky(const Plane& src) {
  Plane out = src;
  for (uint32_t by = 0; by < src.H; by += 8) {
    for (uint32_t bx = 0; bx < src.W; bx += 8) {
      uint32_t sum = 0, n = 0;
      for (uint32_t y = by; y < std::min(by + 8, src.H); ++y) {
        for (uint32_t x = bx; x < std::min(bx + 8, src.W); ++x, ++n) sum += src.P[size_t(y) * src.W + x];
      }
      for (uint32_t y = by; y < std::min(by + 8, src.H); ++y) {
        for (uint32_t x = bx; x < std::min(bx + 8, src.W); ++x) out.At(x, y) = uint8_t((sum + n / 2) / n);
      }
    }
  }
  return out;
}

Velmo2EdgeMapPlane View(const Plane& src, const Plane& filtered, const Plane& unfiltered) {
  return {src.P.data(), ptrdiff_t(src.W), filtered.P.data(), ptrdiff_t(filtered.W),
          unfiltered.P.data(), ptrdiff_t(unfiltered.W), src.W, src.H};
}

struct Maps {
  std::vector<uint32_t> Rows, Columns;
};

Maps Fill(const Velmo2EdgeMapInput& in, uint32_t word) {
  Maps m;
  m.Rows.assign(Velmo2EdgeMapWords(Velmo2EdgeMapEntries(in.Y.Height)), 0xFFFFFFFFu);
  m.Columns.assign(Velmo2EdgeMapWords(Velmo2EdgeMapEntries(in.Y.Width)), 0xFFFFFFFFu);
  Velmo2FillEdgeMaps(in, word, m.Rows.data(), m.Rows.size(), m.Columns.data(), m.Columns.size());
  return m;
}

// The entries set in a map, as edge numbers k (bit k, the edge at pixel 8k).
std::vector<uint32_t> Set(const std::vector<uint32_t>& map) {
  std::vector<uint32_t> out;
  for (uint32_t k = 0; k < 32 * map.size(); ++k) {
    if (Velmo2EdgeMapBit(map.data(), map.size(), k)) out.push_back(k);
  }
  return out;
}

// Blocks of 40 and 200 in a checkerboard: a picture the edge filter only harms.
Plane Checkerboard(uint32_t w, uint32_t h) {
  Plane p(w, h);
  for (uint32_t y = 0; y < h; ++y) {
    for (uint32_t x = 0; x < w; ++x) p.At(x, y) = ((x / 8 + y / 8) % 2) ? 200 : 40;
  }
  return p;
}

// A smooth diagonal ramp.
Plane Ramp(uint32_t w, uint32_t h) {
  Plane p(w, h);
  for (uint32_t y = 0; y < h; ++y) {
    for (uint32_t x = 0; x < w; ++x) p.At(x, y) = uint8_t(30 + (x * 3 + y * 2) % 190);
  }
  return p;
}

TEST(Velmo2EdgeMaps, EntriesFollowThePictureSize) {
  for (auto [size, entries] : {std::pair{0u, 0u}, {7u, 0u}, {8u, 0u}, {16u, 1u}, {61u, 6u}, {1080u, 134u}})
    EXPECT_EQ(Velmo2EdgeMapEntries(size), entries) << size;
}

TEST(Velmo2EdgeMaps, SmoothedBlockinessKeepsEveryEdgeFiltered) {
  const Plane src = Ramp(64, 48);
  const Plane coded = Blocky(src);
  const Plane filtered = Filter(coded);
  const Velmo2EdgeMapInput in{View(src, filtered, coded), {}, {}};
  const Maps m = Fill(in, 0x2000);
  EXPECT_TRUE(Set(m.Rows).empty());
  EXPECT_TRUE(Set(m.Columns).empty());
}

TEST(Velmo2EdgeMaps, ASharpTrueEdgeOnABlockBoundaryIsKeptFromTheFilter) {
  // Flat areas with a step at column 16 and one at line 24, coded exactly; the rest of the
  // picture is a blocky ramp that the filter improves.
  Plane src = Ramp(64, 48);
  for (uint32_t y = 0; y < 48; ++y) {
    for (uint32_t x = 0; x < 64; ++x) {
      if (x >= 12 && x < 20) src.At(x, y) = x < 16 ? 20 : 230;
      if (y >= 20 && y < 28) src.At(x, y) = y < 24 ? 60 : 250;
    }
  }
  Plane coded = Blocky(src);
  for (uint32_t y = 0; y < 48; ++y) {
    for (uint32_t x = 0; x < 64; ++x) {
      if ((x >= 12 && x < 20) || (y >= 20 && y < 28)) coded.At(x, y) = src.At(x, y);
    }
  }
  const Plane filtered = Filter(coded);
  const Velmo2EdgeMapInput in{View(src, filtered, coded), {}, {}};
  const Maps m = Fill(in, 0x2000);
  EXPECT_EQ(Set(m.Columns), std::vector<uint32_t>{2});
  EXPECT_EQ(Set(m.Rows), std::vector<uint32_t>{3});
}

TEST(Velmo2EdgeMaps, OddSizesFillExactlyTheirEntries) {
  // A filter that only does harm: every entry is 1, and nothing beyond the entries is set.
  for (uint32_t w : {9u, 100u, 263u}) {
    for (uint32_t h : {15u, 61u, 130u}) {
      SCOPED_TRACE(testing::Message() << w << "x" << h);
      const Plane src = Checkerboard(w, h);
      const Plane filtered = Filter(src);
      const Velmo2EdgeMapInput in{View(src, filtered, src), {}, {}};
      const Maps m = Fill(in, 0x2000);
      EXPECT_EQ(m.Rows.size(), Velmo2EdgeMapWords(h / 8 - 1));
      EXPECT_EQ(m.Columns.size(), Velmo2EdgeMapWords(w / 8 - 1));
      std::vector<uint32_t> rows, columns;
      for (uint32_t k = 1; k < h / 8; ++k) rows.push_back(k);
      for (uint32_t k = 1; k < w / 8; ++k) columns.push_back(k);
      EXPECT_EQ(Set(m.Rows), rows);
      EXPECT_EQ(Set(m.Columns), columns);
    }
  }
}

TEST(Velmo2EdgeMaps, AForbiddenDirectionGetsAClearedMap) {
  const Plane src = Checkerboard(64, 64);
  // Horizontal edges not filtered (bit 15): the decodes differ only across vertical edges.
  Plane filtered = Filter(src, true, false);
  Maps m = Fill({View(src, filtered, src), {}, {}}, 0x2000 | 0x8000);
  EXPECT_TRUE(Set(m.Rows).empty());
  EXPECT_EQ(Set(m.Columns).size(), 7u);
  filtered = Filter(src, false, true);
  m = Fill({View(src, filtered, src), {}, {}}, 0x2000 | 0x4000);
  EXPECT_EQ(Set(m.Rows).size(), 7u);
  EXPECT_TRUE(Set(m.Columns).empty());
  m = Fill({View(src, filtered, src), {}, {}}, 0x2000 | 0xC000);
  EXPECT_TRUE(Set(m.Rows).empty());
  EXPECT_TRUE(Set(m.Columns).empty());
}

TEST(Velmo2EdgeMaps, ChromaSpeaksForTheEvenLumaEdges) {
  // Luma is the same in both decodes; chroma Cr has true edges on every chroma block edge,
  // which the filter blurs. Chroma edges stand at luma edges 2, 4, 6: only those get 1.
  const Plane y = Ramp(64, 64);
  Plane cr(32, 32);
  for (uint32_t j = 0; j < 32; ++j) {
    for (uint32_t i = 0; i < 32; ++i) cr.At(i, j) = ((i / 8 + j / 8) % 2) ? 220 : 30;
  }
  const Plane cb(32, 32, 128);
  const Plane crFiltered = Filter(cr);
  const Velmo2EdgeMapInput in{View(y, y, y), View(cr, crFiltered, cr), View(cb, cb, cb)};
  const Maps m = Fill(in, 0x2000);
  const std::vector<uint32_t> even = {2, 4, 6};
  EXPECT_EQ(Set(m.Rows), even);
  EXPECT_EQ(Set(m.Columns), even);
  // Without the chroma planes nothing is harmed.
  const Maps lumaOnly = Fill({View(y, y, y), {}, {}}, 0x2000);
  EXPECT_TRUE(Set(lumaOnly.Rows).empty());
}

}  // namespace
