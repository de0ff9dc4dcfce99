// The encoder's bit sinks and syntax writers: every element written for random values is read
// back by the decoder's readers to the same value, with no bit too many or too few, and the
// counting sink agrees with the length written.
#include "encode2/velmo2_writers.h"

#include "decode/velmo2_syntax.h"

#include <gtest/gtest.h>

#include <bit>
#include <random>
#include <type_traits>
#include <vector>

namespace {

constexpr uint32_t kMarker = 0x2D;  // six bits behind the elements: they must read back next

// A sink over its own buffer, and a reader over what it wrote.
struct Written {
  std::vector<uint32_t> Words;
  Velmo2BitSink Sink;

  explicit Written(size_t words = 4096) : Words(words, 0), Sink(Words.data(), Words.size()) {}

  Velmo1BitReader Reader() {
    Sink.Flush();
    const size_t bytes = Sink.WordCount() * 4;
    return Velmo1ReaderAt(reinterpret_cast<const uint8_t*>(Words.data()), bytes, bytes);
  }
};

// Checks that the reader stands just before the marker, and that it did not overrun.
void ExpectMarker(Velmo1BitReader& r) {
  EXPECT_EQ(Velmo1Read(r, 6), kMarker);
  EXPECT_FALSE(Velmo2Overran(r));
}

// Writes `write` into a real sink and a counting one; the counts must agree.
template <typename Write>
Written WriteBoth(Write write) {
  Written w;
  Velmo2BitCounter counter;
  write(w.Sink);
  write(counter);
  EXPECT_EQ(counter.Bits(), w.Sink.Bits());
  w.Sink.Put(kMarker, 6);
  return w;
}

// ---- Bit sinks -----------------------------------------------------------------------------

TEST(Velmo2BitSink, FieldsOfEveryWidthReadBackInOrder) {
  std::mt19937 rng(1);
  for (int round = 0; round < 200; ++round) {
    Written w;
    Velmo2BitCounter counter;
    std::vector<std::pair<uint32_t, uint32_t>> fields;
    for (int i = 0; i < 300; ++i) {
      const uint32_t n = rng() % 33;
      const uint32_t v = rng();  // bits above n must be ignored
      fields.push_back({n == 32 ? v : v & ((1u << n) - 1), n});
      w.Sink.Put(v, n);
      counter.Put(v, n);
    }
    EXPECT_EQ(counter.Bits(), w.Sink.Bits());
    Velmo1BitReader r = w.Reader();
    for (const auto& [value, n] : fields) ASSERT_EQ(Velmo1Read(r, n), value);
  }
}

TEST(Velmo2BitSink, OverflowIsFlaggedAndNothingIsWrittenPastTheEnd) {
  for (size_t capacity = 0; capacity < 9; ++capacity) {
    std::vector<uint32_t> words(capacity + 2, 0xA5A5A5A5u);
    Velmo2BitSink sink(words.data(), capacity);
    for (int i = 0; i < 10; ++i) sink.Put(0xFFFFFFFFu, 21);
    sink.Flush();
    EXPECT_EQ(sink.Bits(), 210u);
    EXPECT_EQ(sink.Overflowed(), capacity * 32 < 210);
    EXPECT_EQ(words[capacity], 0xA5A5A5A5u);
    EXPECT_EQ(words[capacity + 1], 0xA5A5A5A5u);
    for (size_t i = 0; i < capacity && i < 6; ++i) EXPECT_EQ(words[i], 0xFFFFFFFFu);
  }
}

TEST(Velmo2BitSink, PaddingMovesToTheNextWordInBothSinks) {
  for (uint32_t n = 0; n < 70; ++n) {
    Written w;
    Velmo2BitCounter counter;
    for (uint32_t i = 0; i < n; ++i) {
      w.Sink.Put(1, 1);
      counter.Put(1, 1);
    }
    w.Sink.PadToWord();
    counter.PadToWord();
    EXPECT_EQ(w.Sink.Bits(), (n + 31) / 32 * 32);
    EXPECT_EQ(counter.Bits(), w.Sink.Bits());
    w.Sink.Put(kMarker, 6);
    Velmo1BitReader r = w.Reader();
    for (uint32_t i = 0; i < n; ++i) EXPECT_EQ(Velmo1ReadBit(r), 1u);
    Velmo1Read(r, (32 - n % 32) % 32);
    ExpectMarker(r);
  }
}

TEST(Velmo2BitSink, AppendedStringsFollowAtAnyOffset) {
  std::mt19937 rng(2);
  for (int round = 0; round < 500; ++round) {
    // A string of random length, written on its own.
    const uint32_t length = rng() % 200;
    std::vector<uint32_t> bits(length);
    Written piece;
    for (uint32_t& b : bits) {
      b = rng() & 1;
      piece.Sink.Put(b, 1);
    }
    piece.Sink.Flush();
    // Appended behind a random head, into a sink and a counter.
    const uint32_t head = rng() % 70;
    Written w;
    Velmo2BitCounter counter;
    w.Sink.Put(0, head % 32);
    for (uint32_t i = 32; i <= head; i += 32) w.Sink.Put(0, 32);
    counter.Put(0, uint32_t(w.Sink.Bits()));
    w.Sink.Append(piece.Words.data(), piece.Sink.Bits());
    counter.Append(piece.Words.data(), piece.Sink.Bits());
    EXPECT_EQ(counter.Bits(), w.Sink.Bits());
    w.Sink.Put(kMarker, 6);
    Velmo1BitReader r = w.Reader();
    const uint64_t skip = w.Sink.Bits() - 6 - length;
    for (uint64_t i = 0; i < skip; ++i) ASSERT_EQ(Velmo1ReadBit(r), 0u);
    for (uint32_t i = 0; i < length; ++i) ASSERT_EQ(Velmo1ReadBit(r), bits[i]) << i;
    ExpectMarker(r);
  }
}

// ---- Kinds and quantisers ------------------------------------------------------------------

TEST(Velmo2Writers, KindsReadBackThroughTheAdaptiveList) {
  std::mt19937 rng(3);
  for (int round = 0; round < 200; ++round) {
    std::vector<uint32_t> kinds(60);
    for (uint32_t& k : kinds) k = rng() % 4;
    Velmo2KindList writeList = Velmo2KindListAtRowStart();
    Velmo2KindList countList = Velmo2KindListAtRowStart();
    Written w = WriteBoth([&](auto& sink) {
      auto& list = std::is_same_v<std::decay_t<decltype(sink)>, Velmo2BitSink> ? writeList
                                                                               : countList;
      for (uint32_t k : kinds) Velmo2WriteKind(sink, list, k);
    });
    Velmo1BitReader r = w.Reader();
    Velmo2KindList readList = Velmo2KindListAtRowStart();
    for (uint32_t k : kinds) ASSERT_EQ(Velmo2ReadKind(r, readList), k);
    ExpectMarker(r);
    for (int i = 0; i < 4; ++i) EXPECT_EQ(writeList.Kinds[i], readList.Kinds[i]);
  }
}

TEST(Velmo2Writers, QuantiserDifferencesReadBackAndOutOfReachOnesAreRefused) {
  std::vector<int32_t> diffs;
  for (int32_t d = -Velmo2MaxQuantiserDiff; d <= Velmo2MaxQuantiserDiff; ++d) diffs.push_back(d);
  std::mt19937 rng(4);
  for (int i = 0; i < 2000; ++i) diffs.push_back(int32_t(rng() % 73) - 36);
  Written w = WriteBoth([&](auto& sink) {
    for (int32_t d : diffs) EXPECT_TRUE(Velmo2WriteQuantiserDiff(sink, d));
  });
  Velmo1BitReader r = w.Reader();
  for (int32_t d : diffs) ASSERT_EQ(Velmo2ReadQuantiserDiff(r), d);
  ExpectMarker(r);

  Velmo2BitCounter counter;
  EXPECT_FALSE(Velmo2WriteQuantiserDiff(counter, Velmo2MaxQuantiserDiff + 1));
  EXPECT_FALSE(Velmo2WriteQuantiserDiff(counter, -Velmo2MaxQuantiserDiff - 1));
  EXPECT_EQ(counter.Bits(), 0u);
}

// ---- Masks ---------------------------------------------------------------------------------

// A random 16-bit mask with a random number of set bits, so that every form of the code turns
// up.
uint32_t RandomMask16(std::mt19937& rng) {
  const uint32_t density = rng() % 17;
  uint32_t m = 0;
  for (uint32_t i = 0; i < 16; ++i)
    if (rng() % 16 < density) m |= 1u << i;
  return m;
}

TEST(Velmo2Writers, LumaMasksReadBackUnderEveryPreviousMask) {
  std::mt19937 rng(5);
  for (int round = 0; round < 300; ++round) {
    const Velmo2FrameWord word{Velmo2CurrentStream | (rng() % 2 ? Velmo2WideInter : 0u)};
    std::vector<uint32_t> blocks(40);
    std::vector<bool> clones(40);
    std::vector<uint32_t> expected;
    for (size_t i = 0; i < blocks.size(); ++i) {
      blocks[i] = rng() % 5 == 0 ? 0 : RandomMask16(rng);
      clones[i] = rng() % 2;
    }
    uint32_t previousWrite = 0, previousCount = 0;
    Written w = WriteBoth([&](auto& sink) {
      const bool real = std::is_same_v<std::decay_t<decltype(sink)>, Velmo2BitSink>;
      uint32_t& previous = real ? previousWrite : previousCount;
      for (size_t i = 0; i < blocks.size(); ++i) {
        previous = Velmo2WriteLumaMask(sink, previous, blocks[i], clones[i], word);
        if (real) expected.push_back(previous);
      }
    });
    Velmo1BitReader r = w.Reader();
    uint32_t previous = 0;
    for (size_t i = 0; i < blocks.size(); ++i) {
      previous = Velmo2ReadLumaMask(r, previous, word);
      ASSERT_EQ(previous, expected[i]);
      EXPECT_EQ(previous & 0xFFFF, blocks[i]);
      // Every coded quadrant runs on the table the caller asked for.
      for (uint32_t q = 0; q < 4; ++q) {
        if (previous >> (4 * q) & 15) {
          EXPECT_EQ(Velmo2QuadrantTable(previous >> (4 * q)), clones[i] ? 2 : 1);
        }
      }
    }
    ExpectMarker(r);
  }
}

TEST(Velmo2Writers, ChromaMasksReadBackAndTakeTheDefaultWhenItServes) {
  std::mt19937 rng(6);
  for (int round = 0; round < 3000; ++round) {
    const uint32_t previous = (rng() & 15) | (rng() % 3 == 0 ? 0u : (rng() & 15) << 16);
    const uint32_t blocks = rng() % 3 == 0 ? (std::popcount(previous & 15) >= 2 ? 15 : 0)
                                           : rng() & 15;
    const bool clone = rng() % 2;
    uint32_t written = 0;
    Written w = WriteBoth([&](auto& sink) {
      written = Velmo2WriteChromaMask(sink, previous, blocks, clone);
    });
    const uint64_t length = w.Sink.Bits() - 6;
    Velmo1BitReader r = w.Reader();
    const uint32_t read = Velmo2ReadChromaMask(r, previous);
    ASSERT_EQ(read, written);
    ExpectMarker(r);
    EXPECT_EQ(read & 15, blocks);
    if (blocks != 0) {
      EXPECT_EQ(Velmo2QuadrantTable(read), clone ? 2 : 1);
    }
    // The one-bit default is missed only when it would give other blocks or another table.
    const uint32_t fallback = std::popcount(previous & 15) >= 2 ? 15 : 0;
    const bool defaultServes =
        fallback == blocks && (blocks == 0 || ((previous & 0xF0000) != 0) == clone);
    EXPECT_EQ(length, defaultServes ? 1u : 6u);
  }
}

// ---- DC residuals --------------------------------------------------------------------------

TEST(Velmo2Writers, DcLevelSetsReadBackWithTheirCountedLength) {
  std::mt19937 rng(7);
  for (int round = 0; round < 2000; ++round) {
    const uint32_t count = rng() % 2 ? 16 : 4;
    int32_t levels[16] = {};
    const uint32_t spread = rng() % 4;  // all zero, small, medium, up to the largest
    uint64_t expectedBits = 1;
    for (uint32_t i = 0; i < count; ++i) {
      const int32_t reach = spread == 0 ? 0 : spread == 1 ? 4 : spread == 2 ? 40 : 513;
      levels[i] = int32_t(rng() % uint32_t(2 * reach + 1)) - reach;
    }
    bool any = false;
    for (uint32_t i = 0; i < count; ++i) any |= levels[i] != 0;
    for (uint32_t i = 0; any && i < count; ++i) expectedBits += Velmo2DcLevelBits(levels[i]);
    Written w = WriteBoth([&](auto& sink) { Velmo2WriteDcLevels(sink, levels, count); });
    EXPECT_EQ(w.Sink.Bits() - 6, expectedBits);
    Velmo1BitReader r = w.Reader();
    int32_t read[16];
    Velmo2ReadDcResiduals(r, 1024, read, count);  // scale 1024: each residual is its level
    for (uint32_t i = 0; i < count; ++i) ASSERT_EQ(read[i], levels[i]);
    ExpectMarker(r);
  }
}

// ---- AC coefficients -----------------------------------------------------------------------

// A random block: runs of levels, gaps short and long (past the run symbols), sometimes a
// level at 63, sometimes none at all.
Velmo2AcLevels RandomAcBlock(std::mt19937& rng) {
  Velmo2AcLevels b{};
  const uint32_t style = rng() % 5;
  uint32_t p = 1 + rng() % (style == 0 ? 40 : 4);
  while (style != 4 && p < 64) {
    const uint32_t run = rng() % (style == 1 ? 12 : 4) + 1;
    for (uint32_t i = 0; i < run && p < 64; ++i, ++p) {
      const int32_t reach = rng() % 6 == 0 ? Velmo2MaxAcLevel : 6;
      int32_t level = int32_t(rng() % uint32_t(reach)) + 1;
      b.Levels[p] = int16_t(rng() % 2 ? -level : level);
    }
    p += style == 0 ? rng() % 25 : rng() % 3;
  }
  for (uint32_t q = 1; q < 64; ++q) {
    if (b.Levels[q]) {
      ++b.Count;
      b.Last = q;
    }
  }
  return b;
}

// A dequantisation of 1 with quantiser 0: every entry 128.
const std::vector<uint16_t> kUnit(64, 128);

// The levels the reader gives with a dequantisation of 1.
void ExpectBlockReadsBack(Velmo1BitReader& r, int table, const Velmo2AcLevels& b) {
  int16_t coef[64] = {};
  const Velmo2AcBlock read = Velmo2ReadAcBlock(r, table, kUnit.data(), 0, coef);
  EXPECT_EQ(read.Count, b.Count);
  EXPECT_EQ(read.Last, b.Last);
  for (uint32_t p = 1; p < 64; ++p) ASSERT_EQ(coef[Velmo2Scan[p]], b.Levels[p]) << p;
}

// Reads a quadrant of mask word `word` back; the blocks its low four bits code must come back
// as `blocks`, the others with class 3.
void ExpectQuadrantReadsBack(Velmo1BitReader& r, uint32_t word, const Velmo2AcLevels* const blocks[4]) {
  int16_t coef[4][64] = {};
  int16_t* coefs[4] = {coef[0], coef[1], coef[2], coef[3]};
  Velmo2AcBlock out[4];
  Velmo2ReadAcQuadrant(r, word, kUnit.data(), 0, coefs, out);
  for (uint32_t i = 0; i < 4; ++i) {
    if (!(word >> i & 1)) {
      EXPECT_EQ(out[i].Class, 3u);
      continue;
    }
    EXPECT_EQ(out[i].Count, blocks[i]->Count);
    for (uint32_t p = 1; p < 64; ++p) ASSERT_EQ(coef[i][Velmo2Scan[p]], blocks[i]->Levels[p]);
  }
}

TEST(Velmo2Writers, AcBlocksReadBackUnderBothTablesWithExactCosts) {
  std::mt19937 rng(8);
  for (int round = 0; round < 4000; ++round) {
    const Velmo2AcLevels b = RandomAcBlock(rng);
    const int table = 1 + int(rng() % 2);
    Written w = WriteBoth([&](auto& sink) { Velmo2WriteAcBlock(sink, b, table); });
    EXPECT_EQ(w.Sink.Bits() - 6, Velmo2AcBlockBits(b, table));
    Velmo1BitReader r = w.Reader();
    ExpectBlockReadsBack(r, table, b);
    ExpectMarker(r);
  }
}

TEST(Velmo2Writers, DroppingALevelChangesTheLengthAsTold) {
  std::mt19937 rng(13);
  for (int round = 0; round < 3000; ++round) {
    const Velmo2AcLevels b = RandomAcBlock(rng);
    for (int table = 1; table <= 2; ++table) {
      const uint32_t whole = Velmo2AcBlockBits(b, table);
      for (uint32_t p = 1; p <= b.Last; ++p) {
        if (b.Levels[p] == 0) continue;
        Velmo2AcLevels dropped = b;
        dropped.Levels[p] = 0;
        --dropped.Count;
        while (dropped.Last > 0 && dropped.Levels[dropped.Last] == 0) --dropped.Last;
        ASSERT_EQ(int64_t(whole) + Velmo2AcDropBits(b, p, table),
                  int64_t(Velmo2AcBlockBits(dropped, table)))
            << table << " " << p;
      }
    }
  }
}

TEST(Velmo2Writers, SevenConsecutiveLevelsTakeTheSevenSymbol) {
  // Seven levels in a row that need no run code in front: at the block's start, or behind a
  // level reached by a skip.
  for (int table = 1; table <= 2; ++table) {
    const Velmo2RunCode* codes = Velmo2RunCodes[table - 1];
    for (uint32_t start = 1; start + 7 < 63; start += 5) {
      const uint32_t run = start == 1 ? 7 : 8;
      Velmo2AcLevels b{};
      for (uint32_t p = start; p < start + run; ++p) b.Levels[p] = 1;
      b.Count = run;
      b.Last = start + run - 1;
      // With single codes: the skip to the first, skips of 0 for the others, the levels, the end.
      const uint32_t skip = start - 1;
      const uint32_t skipBits = skip <= 10 ? codes[skip].Length
                                           : codes[Velmo2RunEscape].Length + Velmo2RunEscapeBits;
      const uint32_t single = skipBits + (run - 1) * codes[0].Length +
                              run * Velmo2AcLevelBits(1) + codes[Velmo2RunEnd].Length;
      EXPECT_LT(Velmo2AcBlockBits(b, table), single) << table << " " << start;
    }
  }
}

TEST(Velmo2Writers, QuadrantsReadBackWithTheTableTheirMaskPicks) {
  std::mt19937 rng(9);
  for (int round = 0; round < 1500; ++round) {
    Velmo2AcLevels blocks[4];
    const Velmo2AcLevels* pointers[4];
    for (int i = 0; i < 4; ++i) {
      blocks[i] = RandomAcBlock(rng);
      pointers[i] = &blocks[i];
    }
    const uint32_t bits = rng() & 15;
    const bool clone = rng() % 2;
    uint32_t word = 0;
    Written w = WriteBoth([&](auto& sink) {
      word = Velmo2WriteChromaMask(sink, 0, bits, clone);
      Velmo2WriteAcQuadrant(sink, word, pointers);
    });
    Velmo1BitReader r = w.Reader();
    const uint32_t read = Velmo2ReadChromaMask(r, 0);
    ASSERT_EQ(read, word);
    ASSERT_EQ(read & 15, bits);
    ExpectQuadrantReadsBack(r, read, pointers);
    ExpectMarker(r);
  }
}

TEST(Velmo2Writers, LumaPlanesReadBackQuadrantByQuadrant) {
  std::mt19937 rng(14);
  for (int round = 0; round < 500; ++round) {
    const Velmo2FrameWord word{Velmo2CurrentStream | (rng() % 2 ? Velmo2WideInter : 0u)};
    Velmo2AcLevels blocks[16];
    for (Velmo2AcLevels& b : blocks) b = RandomAcBlock(rng);
    const uint32_t previous = RandomMask16(rng);
    const uint32_t bits = rng() % 4 == 0 ? 0 : RandomMask16(rng);
    const bool clone = rng() % 2;
    Written w = WriteBoth([&](auto& sink) {
      const uint32_t mask = Velmo2WriteLumaMask(sink, previous, bits, clone, word);
      for (uint32_t q = 0; q < 4; ++q) {
        const Velmo2AcLevels* quadrant[4] = {&blocks[4 * q], &blocks[4 * q + 1],
                                             &blocks[4 * q + 2], &blocks[4 * q + 3]};
        Velmo2WriteAcQuadrant(sink, mask >> (4 * q), quadrant);
      }
    });
    Velmo1BitReader r = w.Reader();
    const uint32_t mask = Velmo2ReadLumaMask(r, previous, word);
    ASSERT_EQ(mask & 0xFFFF, bits);
    for (uint32_t q = 0; q < 4; ++q) {
      const Velmo2AcLevels* quadrant[4] = {&blocks[4 * q], &blocks[4 * q + 1], &blocks[4 * q + 2], &blocks[4 * q + 3]};
      ExpectQuadrantReadsBack(r, mask >> (4 * q), quadrant);  // the high bits pick the table
    }
    ExpectMarker(r);
  }
}

// ---- Motion vector differences -------------------------------------------------------------

TEST(Velmo2Writers, VectorDifferencesReadBackAcrossEveryCodeLength) {
  std::mt19937 rng(10);
  for (int round = 0; round < 1000; ++round) {
    Velmo2VectorDiffs d{};
    d.Single = rng() % 2;
    uint64_t expectedBits = 1;
    for (int i = 0; i < 4; ++i) {
      // A random code length, then a random value of that length (escape included).
      const uint32_t z = rng() % 18;
      const int32_t reach = z >= 17 ? Velmo2MaxVectorDiff : int32_t(1u << z);
      d.X[i] = int32_t(rng() % uint32_t(2 * reach + 1)) - reach;
      d.Y[i] = int32_t(rng() % 7) - 3;
    }
    if (d.Single) {
      for (int i = 1; i < 4; ++i) d.X[i] = d.Y[i] = 0;
    }
    const int n = d.Single ? 1 : 4;
    for (int i = 0; i < n; ++i)
      expectedBits += Velmo2VectorDiffBits(d.X[i]) + Velmo2VectorDiffBits(d.Y[i]);
    Written w =
        WriteBoth([&](auto& sink) { Velmo2WriteVectorDiffs(sink, d.Single, d.X, d.Y); });
    EXPECT_EQ(w.Sink.Bits() - 6, expectedBits);
    Velmo1BitReader r = w.Reader();
    const Velmo2VectorDiffs read = Velmo2ReadVectorDiffs(r);
    EXPECT_EQ(read.Single, d.Single);
    for (int i = 0; i < 4; ++i) {
      ASSERT_EQ(read.X[i], d.X[i]);
      ASSERT_EQ(read.Y[i], d.Y[i]);
    }
    ExpectMarker(r);
  }
  for (int32_t v : {-Velmo2MaxVectorDiff, -32768, -32767, 32767, 32768, Velmo2MaxVectorDiff}) {
    Written w = WriteBoth([&](auto& sink) { Velmo2WriteVectorDiff(sink, v); });
    Velmo1BitReader r = w.Reader();
    EXPECT_EQ(Velmo2ReadVectorDiff(r), v);
    ExpectMarker(r);
  }
}

// ---- Edge maps -----------------------------------------------------------------------------

// A random map of `entries` entries: sparse, in runs, or dense, as the reader lays it out.
std::vector<uint32_t> RandomEdgeMap(std::mt19937& rng, uint32_t entries) {
  std::vector<uint32_t> map(Velmo2EdgeMapWords(entries), 0);
  const uint32_t style = rng() % 4;
  uint32_t value = rng() % 2;
  for (uint32_t i = 0; i < entries; ++i) {
    if (style == 0) value = rng() % 16 == 0;
    if (style == 1 && rng() % 12 == 0) value ^= 1;
    if (style == 2) value = rng() % 2;
    if (style == 3 && rng() % 40 == 0) value ^= 1;
    if (value) map[(i + 1) / 32] |= 1u << ((i + 1) % 32);
  }
  return map;
}

TEST(Velmo2Writers, EdgeMapsReadBackInBothFormsAndTheShorterIsTaken) {
  std::mt19937 rng(11);
  for (int round = 0; round < 3000; ++round) {
    const uint32_t entries = rng() % 4 == 0 ? rng() % 8 : rng() % 300;
    const std::vector<uint32_t> map = RandomEdgeMap(rng, entries);
    Written coded =
        WriteBoth([&](auto& sink) { Velmo2WriteRunCodedMap(sink, map.data(), entries); });
    Written chosen = WriteBoth([&](auto& sink) { Velmo2WriteEdgeMap(sink, map.data(), entries); });
    const uint64_t codedBits = coded.Sink.Bits() - 6, chosenBits = chosen.Sink.Bits() - 6;
    EXPECT_EQ(chosenBits, std::min<uint64_t>(codedBits, entries + 1));
    for (Written* w : {&coded, &chosen}) {
      Velmo1BitReader r = w->Reader();
      std::vector<uint32_t> read(map.size() + 1, 0);
      ASSERT_TRUE(Velmo2ReadEdgeMap(r, entries, read.data(), read.size())) << entries;
      for (size_t i = 0; i < map.size(); ++i) ASSERT_EQ(read[i], map[i]) << entries;
      ExpectMarker(r);
    }
  }
}

TEST(Velmo2Writers, EdgeMapsOfAFrameFollowItsFrameWord) {
  std::mt19937 rng(12);
  const uint32_t present = Velmo2EdgeMapsPresent;
  for (uint32_t flags : {0u, present, present | Velmo2NoVerticalEdges,
                         present | Velmo2NoHorizontalEdges}) {
    const Velmo2FrameWord word{Velmo2CurrentStream | flags};
    const uint32_t width = 8 * (1 + rng() % 100), height = 8 * (1 + rng() % 60);
    const auto rows = RandomEdgeMap(rng, Velmo2EdgeMapEntries(height));
    const auto columns = RandomEdgeMap(rng, Velmo2EdgeMapEntries(width));
    Written w = WriteBoth([&](auto& sink) {
      Velmo2WriteEdgeMaps(sink, word, width, height, rows.data(), columns.data());
    });
    Velmo1BitReader r = w.Reader();
    std::vector<uint32_t> readRows(rows.size() + 1), readColumns(columns.size() + 1);
    const Velmo2EdgeMaps maps{readRows.data(), readRows.size(), readColumns.data(),
                              readColumns.size()};
    ASSERT_TRUE(Velmo2ReadEdgeMaps(r, word, width, height, maps));
    for (size_t i = 0; i < rows.size(); ++i)
      EXPECT_EQ(readRows[i], word.HasRowMap() ? rows[i] : 0u);
    for (size_t i = 0; i < columns.size(); ++i)
      EXPECT_EQ(readColumns[i], word.HasColumnMap() ? columns[i] : 0u);
    ExpectMarker(r);
  }
}

// ---- Frame header --------------------------------------------------------------------------

TEST(Velmo2Writers, FrameHeaderCarriesTheWordAndTheSliceOffsets) {
  for (uint32_t slices : {1u, 2u, 3u, 4u, 8u}) {
    std::vector<uint32_t> words(256, 0xFFFFFFFFu);
    Velmo2BitSink sink(words.data(), words.size());
    const uint32_t frameWord = Velmo2CurrentStream | 0x21;
    Velmo2WriteFrameHeader(sink, frameWord, slices);
    EXPECT_EQ(sink.Bits(), uint64_t(Velmo2SliceDataStart(slices)) * 8);
    std::vector<uint32_t> offsets(slices, uint32_t(sink.Bits() / 8));
    for (uint32_t k = 1; k < slices; ++k) {
      for (uint32_t i = 0; i < 3 + k; ++i) sink.Put(k, 32);  // the slice before k
      offsets[k] = uint32_t(sink.Bits() / 8);
      Velmo2SetSliceOffset(sink, k, offsets[k]);
    }
    sink.Put(0, 32);
    const auto* section = reinterpret_cast<const uint8_t*>(words.data());
    const size_t size = sink.Bits() / 8;
    EXPECT_EQ(words[0], frameWord);
    for (uint32_t k = 0; k < slices; ++k) {
      uint32_t at = 0;
      ASSERT_TRUE(Velmo2SliceOffset(section, size, slices, k, &at));
      EXPECT_EQ(at, offsets[k]) << slices << " " << k;
    }
  }
}

}  // namespace
