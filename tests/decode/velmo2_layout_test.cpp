// Second-generation frame word, slice offsets, slice layouts and edge maps.
#include "decode/velmo2_syntax.h"
#include "velmo2_test_stream.h"
#include "support/velmo2_stream.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstring>
#include <random>
#include <vector>

namespace {

TEST(Velmo2FrameWord, FieldsAndMapPresence) {
  const Velmo2FrameWord w{0xC5000000u | 0x80000 | 0x40000 | 0x20000 | 0x2000 | 0x37};
  EXPECT_EQ(w.FlatLimit(), 0x37u);
  EXPECT_EQ(w.AlphaValue(), 0xC5u);
  EXPECT_TRUE(w.CurrentStream());
  EXPECT_TRUE(w.ClampKeepsParity());
  EXPECT_TRUE(w.WideInterDc());
  EXPECT_TRUE(w.ConstantAlpha());
  EXPECT_FALSE(w.EdgeMapsPresent());
  EXPECT_FALSE(w.HasRowMap());
  EXPECT_FALSE(w.HasColumnMap());

  EXPECT_FALSE(Velmo2FrameWord{0x0}.CurrentStream());
}

// Bit 16 brings the maps; bits 15 and 14 take away the row and the column map. A 40x24 picture
// has a row map of 2 entries and a column map of 4; a map not brought reads as all zero.
TEST(Velmo2EdgeMaps, FrameWordPicksTheMaps) {
  const struct {
    uint32_t Bits;
    const char* Code;
    bool Rows, Columns;
  } cases[] = {{0x10000, "0 11 0 1001", true, true},
               {0x18000, "0 1001", false, true},
               {0x14000, "0 11", true, false},
               {0x0, "0 11 0 1001", false, false}};
  for (const auto& c : cases) {
    const Velmo2FrameWord word{c.Bits};
    EXPECT_EQ(std::pair(word.HasRowMap(), word.HasColumnMap()), std::pair(c.Rows, c.Columns)) << c.Bits;
    BitWriter w;
    w.Code(c.Code);
    Velmo2TestStream s(w);
    uint32_t rows[1] = {0xFFFFFFFF}, cols[1] = {0xFFFFFFFF};
    ASSERT_TRUE(Velmo2ReadEdgeMaps(s.Reader, word, 40, 24, Velmo2EdgeMaps{rows, 1, cols, 1}));
    EXPECT_EQ(rows[0], c.Rows ? 0b110u : 0u) << c.Bits;
    EXPECT_EQ(cols[0], c.Columns ? 0b10010u : 0u) << c.Bits;
  }
}

TEST(Velmo2SliceOffset, FirstSliceFollowsTheTableOthersComeFromIt) {
  std::vector<uint8_t> section(64, 0);
  const uint32_t offsets[3] = {40, 48, 56};  // words 1..3 of a four-slice frame
  for (int i = 0; i < 3; ++i) std::memcpy(section.data() + 4 * (i + 1), &offsets[i], 4);
  uint32_t at = 0;
  // Fewer than 3 slices: byte 8, even with a single slice.
  for (auto [slices, first] : {std::pair{1u, 8u}, {2u, 8u}, {3u, 12u}, {8u, 32u}}) {
    ASSERT_TRUE(Velmo2SliceOffset(section.data(), section.size(), slices, 0, &at));
    EXPECT_EQ(at, first) << slices;
  }
  for (uint32_t k = 1; k < 4; ++k) {
    ASSERT_TRUE(Velmo2SliceOffset(section.data(), section.size(), 4, k, &at));
    EXPECT_EQ(at, offsets[k - 1]);
  }
  // Out of the section: a slice beyond the count, a table word past the end, a far offset.
  EXPECT_FALSE(Velmo2SliceOffset(section.data(), section.size(), 4, 4, &at));
  EXPECT_FALSE(Velmo2SliceOffset(section.data(), 8, 4, 2, &at));
  EXPECT_FALSE(Velmo2SliceOffset(section.data(), 44, 4, 2, &at));
}

struct LayoutCase {
  const char* Tag;
  uint32_t Flags, Width, Height;
  std::vector<uint32_t> Ends;  // the ends that are set
  uint32_t Slices;
  uint32_t Seam;
};

TEST(Velmo2SliceLayout, EndsCountsAndSeamRecords) {
  const LayoutCase cases[] = {
      // Oldest tag: two slices on the true height; the second unset when the first covers all.
      {"VM2f", 0, 64, 64, {32, 64}, 2, 12},
      {"VM2f", 0, 64, 32, {32}, 2, 12},
      {"VM2f", 0, 64, 127, {64, 127}, 2, 12},
      // The count follows the height rounded up to 32: 96 lines are one slice, 97 and 127
      // round up to 128 and have the file's count.
      {"VM2g", 0, 64, 96, {96}, 1, 12},
      {"VM2g", 0, 64, 97, {64, 128}, 2, 12},
      {"VM2g", 0, 64, 127, {64, 128}, 2, 12},
      {"VM2g", 0, 64, 128, {64, 128}, 2, 12},
      {"VM2g", 3, 1280, 720, {352, 736}, 2, 164},
      {"VM2h", 0, 64, 96, {96}, 1, 12},
      {"VM2h", 0, 64, 127, {64, 128}, 2, 12},
      {"VM2h", 0, 64, 128, {64, 128}, 2, 12},
      {"VM2i", 1, 64, 128, {64, 96, 128}, 3, 12},
      {"VM2j", 2, 64, 128, {32, 64, 96, 128}, 4, 12},
      {"VM2m", 3, 1920, 1080, {160, 320, 448, 576, 704, 832, 960, 1088}, 8, 244},
      {"VM2k", 3, 8, 100, {32, 64, 96, 128, 128, 128, 128, 128}, 8, 8},
      {"VM2k", 3, 8, 129, {32, 64, 96, 128, 160, 160, 160, 160}, 8, 8},
      // Unknown tags: two slices, no ends, no seam records.
      {"VM1x", 0, 1920, 1080, {}, 2, 0},
  };
  for (const LayoutCase& c : cases) {
    SCOPED_TRACE(testing::Message() << c.Tag << " flags " << c.Flags << " " << c.Width << "x"
                                    << c.Height);
    const Velmo2SliceLayout l = Velmo2LayoutFor(c.Tag, c.Flags, c.Width, c.Height);
    EXPECT_EQ(l.Slices, c.Slices);
    EXPECT_EQ(l.SeamRecordBytes, c.Seam);
    ASSERT_EQ(l.EndsSet, c.Ends.size());
    EXPECT_EQ(std::vector<uint32_t>(l.Ends, l.Ends + l.EndsSet), c.Ends);
  }
}

// Over many sizes, every layout of the numbered tags is whole rows, never falling, and ends at
// the rounded height; short pictures have one slice.
TEST(Velmo2SliceLayout, EndsAreRisingWholeRows) {
  for (const char* tag : {"VM2h", "VM2i", "VM2j", "VM2k", "VM2m"}) {
    for (uint32_t flags = 0; flags < 4; ++flags) {
      for (uint32_t h = 1; h <= 2200; h += 7) {
        const Velmo2SliceLayout l = Velmo2LayoutFor(tag, flags, 640, h);
        const uint32_t a = (h + 31) / 32 * 32;
        ASSERT_EQ(l.EndsSet, l.Slices);
        EXPECT_EQ(l.Slices, a > 127 ? (flags == 3 ? 8u : flags + 2) : 1u);
        EXPECT_EQ(l.Ends[l.Slices - 1], a);
        for (uint32_t i = 0; i < l.Slices; ++i) {
          EXPECT_EQ(l.Ends[i] % 32, 0u) << tag << " " << h;
          if (i > 0) {
            EXPECT_GE(l.Ends[i], l.Ends[i - 1]) << tag << " " << h;
          }
        }
      }
    }
  }
}

// Entries of a map as a list of 0/1, from bit 1 on.
std::vector<int> Entries(const uint32_t* map, uint32_t n) {
  std::vector<int> out;
  for (uint32_t i = 1; i <= n; ++i) out.push_back((map[i / 32] >> (i % 32)) & 1);
  return out;
}

TEST(Velmo2EdgeMap, RawEntriesStartAtBitOne) {
  BitWriter w;
  w.Code("0 10110").Code("101");  // raw flag, five entries, then what follows the map
  Velmo2TestStream s(w);
  uint32_t map[1] = {0xFFFFFFFF};
  ASSERT_TRUE(Velmo2ReadEdgeMap(s.Reader, 5, map, 1));
  EXPECT_EQ(map[0], 0x1Au);  // entries 0, 2, 3 at bits 1, 3, 4; bit 0 stays clear
  EXPECT_EQ(Velmo1Read(s.Reader, 3), 0b101u);
}

TEST(Velmo2EdgeMap, RunsAndLiteralGroups) {
  {
    // Ten entries: a run of value 1 (6 + 2 more), then a literal group whose value flips.
    BitWriter w;
    w.Code("1");                 // run coded
    w.Code("1 1").Put(2, 4);     // run, v = 1, at least 6; rem 4 left so e (4 bits) = 2
    w.Code("0 1");               // literal group: v flips to 0; rem 2 -> one more entry: 1
    w.Code("0110");              // marker after the map
    Velmo2TestStream s(w);
    uint32_t map[1];
    ASSERT_TRUE(Velmo2ReadEdgeMap(s.Reader, 10, map, 1));
    EXPECT_EQ(Entries(map, 10), (std::vector<int>{1, 1, 1, 1, 1, 1, 1, 1, 0, 1}));
    EXPECT_EQ(map[0] & 1, 0u);
    EXPECT_EQ(Velmo1Read(s.Reader, 4), 0b0110u);
  }
  {
    // Fifty entries: a run of 0 whose extension is all ones keeps the value open, so the next
    // run reads its value again; five-bit extensions while 16 or more are left.
    BitWriter w;
    w.Code("1");
    w.Code("1 0").Put(31, 5);  // 7 + 31 zeros, rem 12
    w.Code("1 1").Put(6, 4);   // state 1: the value is read (1); 6 + 6 ones
    Velmo2TestStream s(w);
    uint32_t map[2];
    ASSERT_TRUE(Velmo2ReadEdgeMap(s.Reader, 50, map, 2));
    std::vector<int> want(38, 0);
    want.insert(want.end(), 12, 1);
    EXPECT_EQ(Entries(map, 50), want);
  }
}

// After a run that closed (its extension not all ones) the next run or literal group flips
// the value and reads none; a literal group with 5 or more left takes four entries after its
// own, one with 1 to 4 left takes the rest.
TEST(Velmo2EdgeMap, ClosedRunFlipsValue) {
  BitWriter w;
  w.Code("1");
  w.Code("1 0").Put(1, 5);  // rem 30: b 5, n 7, v 0; rem 23; e 1 -> 8 zeros, rem 22
  w.Code("1").Put(0, 5);    // state 3: v 1, n 6, rem 16; e (5 bits) 0 -> 6 ones, rem 16
  w.Code("0 1011");         // state 3: v 0; entries 0, 1, 0, 1, 1; rem 11
  w.Code("0 1 0110");       // state 2: v read 1; entries 1, 0, 1, 1, 0; rem 6
  w.Code("0 0 1110");       // state 2: v read 0; rem 6 is not in 1..4: four more; rem 1
  w.Code("0 1");            // literal: v read 1; rem 1: nothing more
  Velmo2TestStream s(w);
  uint32_t map[1];
  ASSERT_TRUE(Velmo2ReadEdgeMap(s.Reader, 30, map, 1));
  std::vector<int> want(8, 0);
  want.insert(want.end(), 6, 1);
  for (int v : {0, 1, 0, 1, 1, 1, 0, 1, 1, 0, 0, 1, 1, 1, 0, 1}) want.push_back(v);
  EXPECT_EQ(Entries(map, 30), want);
  EXPECT_FALSE(Velmo2Overran(s.Reader));
}

TEST(Velmo2EdgeMap, BadRunsAndShortStreamsFail) {
  const struct {
    const char* What;
    const char* Code;
    uint32_t Entries, Words;
  } cases[] = {{"ten entries: 6, then an extension of 15 with 4 left", "1 1 1 1111", 10, 1},
               {"a raw map of 200 entries over a single word", "0 1", 200, 8},
               {"41 bits in a map of one word", "0", 40, 1}};
  for (const auto& c : cases) {
    BitWriter w;
    w.Code(c.Code);
    Velmo2TestStream s(w);
    uint32_t map[8];
    EXPECT_FALSE(Velmo2ReadEdgeMap(s.Reader, c.Entries, map, c.Words)) << c.What;
  }
}

// Random maps, with runs of random lengths, written raw and run coded, read back.
TEST(Velmo2EdgeMap, RandomMapsRoundTrip) {
  std::mt19937 rng(7);
  for (int round = 0; round < 400; ++round) {
    const uint32_t n = rng() % 300;
    std::vector<int> entries;
    int v = rng() & 1;
    while (entries.size() < n) {
      const uint32_t len = std::min<uint32_t>(n - uint32_t(entries.size()), 1 + rng() % (round % 2 ? 60 : 6));
      entries.insert(entries.end(), len, v);
      v ^= 1;
    }
    for (int coded = 0; coded < 2; ++coded) {
      BitWriter w;
      if (coded) {
        velmo2_test::PutEdgeMapRunCoded(w, entries);
      } else {
        w.Code("0");
        for (int e : entries) w.PutBit(e);
      }
      w.Put(0x2D, 6);  // marker
      Velmo2TestStream s(w);
      std::vector<uint32_t> map(Velmo2EdgeMapWords(n));
      ASSERT_TRUE(Velmo2ReadEdgeMap(s.Reader, n, map.data(), map.size())) << n << " " << coded;
      EXPECT_EQ(Entries(map.data(), n), entries) << coded;
      EXPECT_EQ(Velmo1Read(s.Reader, 6), 0x2Du) << coded;
    }
  }
}

}  // namespace
