// The bit reader, Huffman symbols and the two forms of Huffman description.
#include "decode/velmo1_bits.h"
#include "decode/velmo1_tables.h"
#include "velmo1_stream_builder.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <numeric>
#include <random>

namespace {

TEST(Velmo1BitReader, FieldsComeLowestBitFirstAcrossWords) {
  const uint8_t data[8] = {0xB4, 0x00, 0x00, 0x80, 0x03, 0x00, 0x00, 0x00};
  Velmo1BitReader r = Velmo1ReaderAt(data, 8, 12);
  EXPECT_EQ(r.Pos, 0u);
  EXPECT_EQ(Velmo1Read(r, 2), 0u);    // 0xB4 = 1011 0100: bits 0, 0
  EXPECT_EQ(r.Pos, 4u);               // one word fetched, no more
  EXPECT_EQ(Velmo1Read(r, 3), 0b101u);
  EXPECT_EQ(Velmo1Read(r, 26), 0b101u);  // bits 5..30: bits 5 and 7 of the first byte
  EXPECT_EQ(r.Pos, 4u);
  EXPECT_EQ(Velmo1Read(r, 3), 0b111u);  // bit 31 of word 0, then bits 0-1 of word 1
  EXPECT_EQ(r.Pos, 8u);
}

TEST(Velmo1BitReader, BytesPastTheReadableSpanAreZero) {
  const uint8_t data[6] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF};
  Velmo1BitReader r = Velmo1ReaderAt(data, 5, 8);  // the sixth byte is not ours to read
  EXPECT_EQ(Velmo1Read(r, 32), 0xFFFFFFFFu);
  EXPECT_FALSE(Velmo1AtLimit(r));
  EXPECT_EQ(Velmo1Read(r, 32), 0xFFu);
  EXPECT_TRUE(Velmo1AtLimit(r));
  EXPECT_EQ(Velmo1Read(r, 32), 0u);
  EXPECT_EQ(Velmo1Read(r, 17), 0u);
  EXPECT_EQ(r.Pos, 16u);  // the position goes on counting
}

Velmo1Huffman Decode(const Velmo1EncBits& bits) {
  Velmo1EncBitWriter w;
  w.Put(bits);
  const std::vector<uint8_t> bytes = w.Finish();
  Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size() + 4);
  Velmo1Huffman h{};
  Velmo1ReadHuffman(r, h);
  return h;
}

std::vector<int> MapOf(const Velmo1Huffman& h) { return std::vector<int>(h.Map, h.Map + 16); }

TEST(Velmo1Description, TableZeroIsTheIdentity) {
  Velmo1EncBits b;
  b.Put(0, 4);
  b.Put(0xF, 4);  // not part of the description
  const Velmo1Huffman h = Decode(b);
  EXPECT_EQ(h.Table, 0u);
  EXPECT_EQ(h.Longest, 4u);
  std::vector<int> identity(16);
  std::iota(identity.begin(), identity.end(), 0);
  EXPECT_EQ(MapOf(h), identity);
}

TEST(Velmo1Description, PrefixFormThenUnusedValuesAscending) {
  Velmo1EncBits b;
  b.Put(7, 4);   // table 7
  b.Put(1, 1);   // prefix form
  b.Put(2, 3);   // three entries
  b.Put(9, 4);
  b.Put(0, 4);
  b.Put(15, 4);
  const Velmo1Huffman h = Decode(b);
  EXPECT_EQ(h.Table, 7u);
  EXPECT_EQ(h.Longest, 6u);
  EXPECT_EQ(MapOf(h), (std::vector<int>{9, 0, 15, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14}));
}

TEST(Velmo1Description, PairsWithoutMerging) {
  Velmo1EncBits b;
  b.Put(2, 4);
  b.Put(0, 1);   // pairs
  b.Put(0, 2);   // no merges
  for (int p = 0; p < 8; ++p) b.Put(p & 1, 1);  // every second pair swapped
  EXPECT_EQ(MapOf(Decode(b)), (std::vector<int>{0, 1, 3, 2, 4, 5, 7, 6, 8, 9, 11, 10, 12, 13, 15, 14}));
}

TEST(Velmo1Description, MergeReadsOnlyTheBitsItNeeds) {
  Velmo1EncBits b;
  b.Put(5, 4);
  b.Put(0, 1);
  b.Put(1, 2);  // one merge round: four lists of four
  b.Put(0xFF, 8);  // all pairs swapped: (1,0) (3,2) (5,4) ...
  // Lists (1,0)+(3,2): take B, B -> B used up, A appended without bits: 3 2 1 0.
  b.Put(1, 1);
  b.Put(1, 1);
  // (5,4)+(7,6): A, B, A -> A used up: 5 7 4 6.
  b.Put(0, 1);
  b.Put(1, 1);
  b.Put(0, 1);
  // (9,8)+(11,10): A A -> 9 8 11 10.
  b.Put(0, 1);
  b.Put(0, 1);
  // (13,12)+(15,14): B A B A? B, A, B -> B used up: 15 13 14 12.
  b.Put(1, 1);
  b.Put(0, 1);
  b.Put(1, 1);
  b.Put(0xA, 4);  // a sentinel that must not be consumed
  Velmo1EncBitWriter w;
  w.Put(b);
  const std::vector<uint8_t> bytes = w.Finish();
  Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size() + 4);
  Velmo1Huffman h{};
  Velmo1ReadHuffman(r, h);
  EXPECT_EQ(MapOf(h), (std::vector<int>{3, 2, 1, 0, 5, 7, 4, 6, 9, 8, 11, 10, 15, 13, 14, 12}));
  EXPECT_EQ(Velmo1Read(r, 4), 0xAu);
}

TEST(Velmo1Description, WriterFormsRoundTripForRandomMaps) {
  std::mt19937 rng(3);
  for (int round = 0; round < 400; ++round) {
    uint8_t map[16];
    std::iota(map, map + 16, 0);
    switch (round % 4) {
      case 0: std::shuffle(map, map + 16, rng); break;                // needs three merges
      case 1: std::shuffle(map, map + 8, rng); std::shuffle(map + 8, map + 16, rng); break;
      case 2: std::swap(map[rng() % 16], map[rng() % 16]); break;     // prefix form fits
      default: for (int i = 0; i < 16; i += 4) std::shuffle(map + i, map + i + 4, rng); break;
    }
    const uint32_t table = 1 + rng() % 15;
    for (int form : {0, 1, 2}) {
      const Velmo1Huffman h = Decode(Velmo1EncDescribeCode(table, map, form));
      ASSERT_EQ(h.Table, table);
      ASSERT_EQ(MapOf(h), std::vector<int>(map, map + 16)) << "round " << round << " form " << form;
    }
  }
}

TEST(Velmo1Description, DamagedPrefixStillGivesSixteenValues) {
  Velmo1EncBits b;
  b.Put(4, 4);
  b.Put(1, 1);
  b.Put(7, 3);
  for (int i = 0; i < 8; ++i) b.Put(3, 4);  // the same value eight times
  const Velmo1Huffman h = Decode(b);
  for (int v : MapOf(h)) EXPECT_LT(v, 16);
  EXPECT_EQ(h.Map[8], 0);
  EXPECT_EQ(h.Map[9], 1);
}

TEST(Velmo1Symbols, EveryCodeOfEveryTableDecodes) {
  for (uint32_t t = 0; t < 16; ++t) {
    Velmo1EncBitWriter w;
    for (uint32_t c = 0; c < 16; ++c) w.PutCode(t, 15 - c);
    const std::vector<uint8_t> bytes = w.Finish();
    Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size() + 4);
    Velmo1Huffman h{};
    h.Table = t;
    h.Longest = Velmo1LongestCode[t];
    h.Mask = (1u << h.Longest) - 1;
    h.Lookup = Velmo1HuffLookup(t);
    for (int i = 0; i < 16; ++i) h.Map[i] = uint8_t(i);
    for (uint32_t c = 0; c < 16; ++c) ASSERT_EQ(Velmo1ReadSymbol(r, h), int(15 - c)) << t;
  }
}

TEST(Velmo1Symbols, ShortBufferAtTheLimitFails) {
  const uint8_t data[4] = {0, 0, 0, 0};
  Velmo1BitReader r = Velmo1ReaderAt(data, 4, 4);  // limit reached after one word
  Velmo1Huffman h{};
  h.Longest = 7;
  h.Mask = 127;
  h.Lookup = Velmo1HuffLookup(13);
  EXPECT_EQ(Velmo1Read(r, 26), 0u);
  EXPECT_EQ(Velmo1ReadSymbol(r, h), -1);  // six bits buffered, seven needed, at the limit
  EXPECT_EQ(r.Count, 6u);
}

}  // namespace
