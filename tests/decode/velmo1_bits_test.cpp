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

// Reads a description from the given fields; `next` gets the four bits that follow it.
Velmo1Huffman Decode(const Velmo1EncBits& bits, uint32_t* next = nullptr) {
  Velmo1EncBitWriter w;
  w.Put(bits);
  w.Put(0xA, 4);
  const std::vector<uint8_t> bytes = w.Finish();
  Velmo1BitReader r = Velmo1ReaderAt(bytes.data(), bytes.size(), bytes.size() + 4);
  Velmo1Huffman h{};
  Velmo1ReadHuffman(r, h);
  if (next) *next = Velmo1Read(r, 4);
  return h;
}

std::vector<int> MapOf(const Velmo1Huffman& h) { return std::vector<int>(h.Map, h.Map + 16); }

// Descriptions written field by field: each is read to its last bit and no further.
TEST(Velmo1Description, FormsGiveTheirMaps) {
  const struct {
    const char* What;
    std::vector<std::pair<uint32_t, uint8_t>> Fields;  // value, width
    uint32_t Table;
    std::vector<int> Map;
  } cases[] = {
      {"table 0 is the identity", {{0, 4}}, 0, {0, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15}},
      // Table 7, prefix form, three entries, then the unused values ascending.
      {"prefix form", {{7, 4}, {1, 1}, {2, 3}, {9, 4}, {0, 4}, {15, 4}}, 7,
       {9, 0, 15, 1, 2, 3, 4, 5, 6, 7, 8, 10, 11, 12, 13, 14}},
      // Pairs, no merge rounds, every second pair swapped.
      {"pairs without merging",
       {{2, 4}, {0, 1}, {0, 2}, {0, 1}, {1, 1}, {0, 1}, {1, 1}, {0, 1}, {1, 1}, {0, 1}, {1, 1}}, 2,
       {0, 1, 3, 2, 4, 5, 7, 6, 8, 9, 11, 10, 12, 13, 15, 14}},
      // One merge round of four lists of four, all pairs swapped: (1,0) (3,2) (5,4) ... Then
      // (1,0)+(3,2): B, B -> B used up, A appended without bits: 3 2 1 0. (5,4)+(7,6): A, B, A
      // -> 5 7 4 6. (9,8)+(11,10): A, A -> 9 8 11 10. (13,12)+(15,14): B, A, B -> 15 13 14 12.
      {"a merge reads only the bits it needs",
       {{5, 4}, {0, 1}, {1, 2}, {0xFF, 8}, {1, 1}, {1, 1}, {0, 1}, {1, 1}, {0, 1}, {0, 1}, {0, 1},
        {1, 1}, {0, 1}, {1, 1}},
       5, {3, 2, 1, 0, 5, 7, 4, 6, 9, 8, 11, 10, 15, 13, 14, 12}},
      // Three merge rounds over unswapped pairs, each round done over all its lists before
      // the next. Round 1: A, A each time -> 0..3, 4..7, 8..11, 12..15. Round 2: B x4 ->
      // 4 5 6 7 0 1 2 3; A, B, A, B, A, B, A -> 8 12 9 13 10 14 11 15. Round 3: B x8.
      {"three merge rounds",
       {{9, 4}, {0, 1}, {3, 2}, {0, 8}, {0, 8}, {15, 4}, {42, 7}, {255, 8}}, 9,
       {8, 12, 9, 13, 10, 14, 11, 15, 4, 5, 6, 7, 0, 1, 2, 3}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.What);
    Velmo1EncBits b;
    b.Fields = c.Fields;
    uint32_t next = 0;
    const Velmo1Huffman h = Decode(b, &next);
    EXPECT_EQ(h.Table, c.Table);
    EXPECT_EQ(h.Longest, Velmo1LongestCode[c.Table]);
    EXPECT_EQ(MapOf(h), c.Map);
    EXPECT_EQ(next, 0xAu);
  }
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
