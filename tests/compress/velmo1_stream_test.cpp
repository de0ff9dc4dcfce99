// First-generation stream writer: the word-wise bit writer against the decoder's bit reader,
// the stream end it pads to, and code descriptions chosen by cost.
#include "compress/velmo1_stream.h"

#include "decode/velmo1_bits.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <random>
#include <vector>

TEST(Velmo1Stream, BitWriterFieldsReadBackThroughTheDecodersReader) {
  std::mt19937 rng(3);
  std::vector<std::pair<uint32_t, uint32_t>> fields;  // value, width
  Velmo1EncBitWriter w;
  for (int i = 0; i < 5000; ++i) {
    const uint32_t n = rng() % 33;
    const uint32_t raw = rng();
    w.Put(raw, n);  // bits above the width are dropped
    fields.push_back({n == 32 ? raw : raw & ((1u << n) - 1), n});
  }
  const size_t bits = w.BitPosition();
  const std::vector<uint8_t> out = w.Finish();
  ASSERT_EQ(out.size(), (bits + 31) / 32 * 4);
  Velmo1BitReader r = Velmo1ReaderAt(out.data(), out.size(), out.size());
  for (const auto& [value, n] : fields) ASSERT_EQ(Velmo1Read(r, n), value);
}

TEST(Velmo1Stream, FinishPadsToWholeWordsAndCoversTheCodeLookAhead) {
  Velmo1EncBitWriter empty;
  EXPECT_TRUE(empty.Finish().empty());
  Velmo1EncBitWriter one;
  one.Put(1, 1);
  EXPECT_EQ(one.Finish(), (std::vector<uint8_t>{1, 0, 0, 0}));
  Velmo1EncBitWriter exact;
  exact.Put(0xdeadbeef, 32);
  EXPECT_EQ(exact.Finish(), (std::vector<uint8_t>{0xef, 0xbe, 0xad, 0xde}));
  // A short code at the end of a word: the decoder looks ahead by the longest code, which
  // reaches into the next word, so that word is written too.
  uint32_t table = 1;
  while (table < Velmo1TableCount && Velmo1LongestCode[table] < 2) ++table;
  ASSERT_LT(table, Velmo1TableCount);
  uint32_t shortest = 0;
  for (uint32_t c = 1; c < 16; ++c)
    if (Velmo1CodeLengths[table][c] < Velmo1CodeLengths[table][shortest]) shortest = c;
  Velmo1EncBitWriter ahead;
  ahead.Put(0, 32 - Velmo1CodeLengths[table][shortest]);
  ahead.PutCode(table, shortest);
  EXPECT_EQ(ahead.BitPosition(), 32u);
  EXPECT_EQ(ahead.Finish().size(), Velmo1CodeLengths[table][shortest] < Velmo1LongestCode[table] ? 8u : 4u);
}

TEST(Velmo1Stream, DescriptionFormsAndTheirLengths) {
  uint8_t identity[16], swapped[16];
  for (int i = 0; i < 16; ++i) identity[i] = uint8_t(i), swapped[i] = uint8_t(i ^ 1);
  // Table 0 is four bits whatever the map.
  size_t n = 0;
  for (const auto& f : Velmo1EncDescribeCode(0, swapped).Fields) n += f.second;
  EXPECT_EQ(n, 4u);
  // The identity map: one explicit entry (4 + 1 + 3 + 4 bits) beats any merge form.
  n = 0;
  for (const auto& f : Velmo1EncDescribeCode(5, identity).Fields) n += f.second;
  EXPECT_EQ(n, 12u);
  // Swapped pairs need no merge round: 4 + 1 + 2 + 8 pair bits.
  n = 0;
  for (const auto& f : Velmo1EncDescribeCode(5, swapped, 2).Fields) n += f.second;
  EXPECT_EQ(n, 15u);
}

namespace {

size_t Length(const Velmo1EncBits& bits) {
  size_t n = 0;
  for (const auto& f : bits.Fields) n += f.second;
  return n;
}

}  // namespace

TEST(Velmo1Stream, BitCountsOfTheCoefficientAndResidueCodersMatchTheBitsWritten) {
  std::mt19937 rng(11);
  for (int k = 0; k < 3000; ++k) {
    // Sparse to dense blocks, small to large values, and the empty block.
    const uint32_t density = k % 5, range = 1u << (k % 15);
    int16_t coeffs[64] = {};
    int8_t residue[64] = {};
    for (int i = 0; i < 64; ++i) {
      if (rng() % 4 >= density) continue;
      const int32_t v = int32_t(rng() % range) * (rng() & 1 ? -1 : 1);
      coeffs[i] = int16_t(std::clamp(v, -16383, 16383));
      residue[i] = int8_t(std::clamp(v, -127, 127));
    }
    ASSERT_EQ(Velmo1EncCoefficientBitCount(coeffs), Length(Velmo1EncCoefficientBits(coeffs)));
    // The event limit cuts the residue short anywhere, or not at all.
    for (uint32_t limit : {0u, 1u, 7u, uint32_t(rng() % 128), 127u})
      ASSERT_EQ(Velmo1EncResidueBitCount(residue, limit),
                Length(Velmo1EncResidueBits(residue, limit)));
  }
}
