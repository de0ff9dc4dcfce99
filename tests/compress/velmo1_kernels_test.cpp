// The first-generation encoder's kernel table: every form at every level the processor has
// against the plain form, on random and extreme blocks at any pitch and alignment, and whole
// encodes that must not change by a byte from one level to another or with the size of the
// job pool.
#include "compress/velmo1_kernels.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <array>
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

#include "compress/velmo1_encoder.h"
#include "compress/velmo1_quantise.h"
#include "compress/velmo1_stream.h"
#include "host/platform.h"
#include "support/encoder_pictures.h"
#include "support/kernel_levels.h"

namespace {

using kerneltest::ForEachLevel;
using kerneltest::TableAt;

// A new entry in the table fails to compile here until it has a check below.
static_assert(sizeof(Velmo1EncodeKernels) == 5 * sizeof(void (*)()), "encoder entry unchecked");

// The sum counted one pixel at a time, with no bound.
uint32_t CountedSad(const uint8_t block[64], const uint8_t* ref, ptrdiff_t pitch) {
  uint32_t sum = 0;
  for (int r = 0; r < 8; ++r)
    for (int i = 0; i < 8; ++i) sum += uint32_t(std::abs(int(block[r * 8 + i]) - ref[r * pitch + i]));
  return sum;
}

// A block and a reference picture of eight lines of `lineBytes` bytes placed at the very end of
// its buffer, so that a read past the last byte leaves it. The pitch may be negative, the start
// unaligned.
struct Case {
  uint8_t Block[64];
  std::vector<uint8_t> Picture;
  ptrdiff_t Pitch;
  const uint8_t* Ref;
};

Case MakeCase(std::mt19937& rng, int index, int lineBytes = 8) {
  Case c;
  const ptrdiff_t span = lineBytes + ptrdiff_t(rng() % 73);  // up to 72 bytes more a line
  c.Pitch = index % 5 == 4 ? -span : span;
  const size_t lead = rng() % 32;                     // any alignment of the first line
  c.Picture.resize(lead + size_t(7 * span + lineBytes));
  c.Ref = c.Picture.data() + lead + (c.Pitch < 0 ? 7 * span : 0);
  // Random bytes, both extremes against each other, or a reference close to the block.
  const int kind = index % 4;
  for (uint8_t& v : c.Block) v = kind == 1 ? 0 : kind == 2 ? 255 : uint8_t(rng());
  for (uint8_t& v : c.Picture) v = kind == 1 ? 255 : kind == 2 ? 0 : uint8_t(rng());
  if (kind == 3)  // every candidate of the line near the block
    for (int r = 0; r < 8; ++r)
      for (int i = 0; i < lineBytes; ++i) {
        const int near = int(c.Block[r * 8 + i % 8]) + int(rng() % 7) - 3;
        const_cast<uint8_t*>(c.Ref)[r * c.Pitch + i] = uint8_t(std::clamp(near, 0, 255));
      }
  return c;
}

TEST(Velmo1EncodeKernels, EveryFormGivesThePlainSums) {
  const Velmo1EncodeKernels plain = TableAt(Velmo1EncodeKernelsInit, ProcessorLevelPlain);
  ForEachLevel(Velmo1EncodeKernelsInit, [&](const Velmo1EncodeKernels& t) {
    std::mt19937 rng(31);
    for (int i = 0; i < 4000; ++i) {
      const Case c = MakeCase(rng, i);
      const uint32_t want = CountedSad(c.Block, c.Ref, c.Pitch);
      ASSERT_EQ(plain.Sad8(c.Block, c.Ref, c.Pitch, UINT32_MAX), want) << "case " << i;
      ASSERT_EQ(t.Sad8(c.Block, c.Ref, c.Pitch, UINT32_MAX), want)
          << "case " << i << ", pitch " << c.Pitch;
    }
  });
}

// Under a bound, a sum below it is exact and one at or above it stays at or above it, in every
// form; the plain form does stop early when the first four lines reach the bound.
TEST(Velmo1EncodeKernels, BoundedSumsDecideAlike) {
  int stoppedEarly = 0;
  ForEachLevel(Velmo1EncodeKernelsInit, [&](const Velmo1EncodeKernels& t) {
    std::mt19937 rng(32);
    for (int i = 0; i < 4000; ++i) {
      const Case c = MakeCase(rng, i);
      const uint32_t exact = CountedSad(c.Block, c.Ref, c.Pitch);
      const uint32_t bound = i % 3 == 0 ? exact : i % 3 == 1 ? exact + 1 : uint32_t(rng() % (exact + 2));
      const uint32_t got = t.Sad8(c.Block, c.Ref, c.Pitch, bound);
      if (exact < bound)
        ASSERT_EQ(got, exact) << "case " << i << ", bound " << bound;
      else
        ASSERT_GE(got, bound) << "case " << i << ", sum " << exact;
      if (t.Sad8 == Velmo1Sad8Plain && got != exact) ++stoppedEarly;
    }
  });
  EXPECT_GT(stoppedEarly, 0);
}

// A line of candidates gives, at every level, the plain sum of each candidate: any count up to
// the search's 31, with the line's last byte the last one of the buffer.
TEST(Velmo1EncodeKernels, LinesOfCandidatesGiveThePlainSums) {
  ForEachLevel(Velmo1EncodeKernelsInit, [&](const Velmo1EncodeKernels& t) {
    std::mt19937 rng(33);
    for (int i = 0; i < 3000; ++i) {
      const int count = 1 + i % 31;
      const Case c = MakeCase(rng, i / 31, count + 7);
      uint32_t sums[31];
      t.SadRow(c.Block, c.Ref, c.Pitch, count, UINT32_MAX, sums);
      for (int k = 0; k < count; ++k)
        ASSERT_EQ(sums[k], CountedSad(c.Block, c.Ref + k, c.Pitch))
            << "case " << i << ", candidate " << k << " of " << count << ", pitch " << c.Pitch;
      // Under a bound each candidate decides as the plain single sum does.
      const uint32_t bound = sums[rng() % count] + rng() % 2;
      t.SadRow(c.Block, c.Ref, c.Pitch, count, bound, sums);
      for (int k = 0; k < count; ++k) {
        const uint32_t exact = CountedSad(c.Block, c.Ref + k, c.Pitch);
        if (exact < bound)
          ASSERT_EQ(sums[k], exact) << "case " << i << ", candidate " << k;
        else
          ASSERT_GE(sums[k], bound) << "case " << i << ", candidate " << k;
      }
    }
  });
}

// The length of what the bit-plane coder writes for a block, field by field.
uint32_t WrittenBits(const int16_t coeffs[64]) {
  uint32_t bits = 0;
  for (const auto& field : Velmo1EncCoefficientBits(coeffs).Fields) bits += field.second;
  return bits;
}

// Blocks the coder meets: empty, one value at any list index, a few low values, dense ones,
// large ones up to the quantiser's limit of 16383 of either sign, values at the edges of the
// planes (2^n - 1 and 2^n), and every group of the work list firing or not in turn.
void MakeCoefficients(std::mt19937& rng, int index, int16_t coeffs[64]) {
  std::fill(coeffs, coeffs + 64, int16_t(0));
  auto at = [&](int listIndex) -> int16_t& { return coeffs[Velmo1CoefficientOrder[listIndex]]; };
  const int kind = index % 6;
  const int count = kind == 0 ? 0 : kind == 1 ? 1 : kind == 2 ? int(rng() % 6) : kind == 3 ? 63 : int(rng() % 64);
  const int top = kind == 4 ? 16383 : kind == 5 ? 1 << (rng() % 14) : 1 + int(rng() % 40);
  for (int k = 0; k < count; ++k) {
    int v = 1 + int(rng() % uint32_t(top));
    if (kind == 5 && rng() % 2) v = top - int(rng() % 2);  // just below or at a plane's edge
    if (rng() % 2) v = -v;
    at(1 + int(rng() % 63)) = int16_t(std::max(-16383, std::min(16383, v)));
  }
  if (kind == 1) at(1 + index / 6 % 63) = int16_t(index % 4 ? 1 : -16383);
  coeffs[0] = int16_t(rng());  // the DC value is not the coder's
}

// The count of every form is the length of the bits the coder writes.
TEST(Velmo1EncodeKernels, CoefficientCountsAreTheLengthsWritten) {
  ForEachLevel(Velmo1EncodeKernelsInit, [&](const Velmo1EncodeKernels& t) {
    std::mt19937 rng(34);
    for (int i = 0; i < 20000; ++i) {
      int16_t coeffs[64];
      MakeCoefficients(rng, i, coeffs);
      ASSERT_EQ(t.CoefficientBits(coeffs), WrittenBits(coeffs)) << "case " << i;
    }
  });
}

// Both quantisers of every form give the plain form's values and answer, on the transforms of
// random, flat and extreme blocks (the DC at its largest both ways) and on raw values past what
// a transform gives, which the AC ranges must hold; every scale, intra and inter.
TEST(Velmo1EncodeKernels, QuantisersGiveThePlainValues) {
  std::mt19937 rng(35);
  std::vector<std::array<int32_t, 64>> cases;
  for (int i = 0; i < 3000; ++i) {
    int32_t block[64];
    const int kind = i % 6;
    for (int k = 0; k < 64; ++k) {
      const int32_t random = int32_t(rng() % 511) - 255;
      block[k] = kind == 0 ? 255 : kind == 1 ? -255 : kind == 2 ? ((k + k / 8) % 2 ? 255 : -255)
               : kind == 3 ? int32_t(rng() % 5) - 2 : random;
    }
    std::array<int32_t, 64> coeffs;
    if (kind == 5)  // raw values, far past the rows' reach
      for (int32_t& c : coeffs) c = int32_t(rng() % (1u << 24)) - (1 << 23);
    else
      Velmo1ForwardTransform(block, coeffs.data());
    cases.push_back(coeffs);
  }
  ForEachLevel(Velmo1EncodeKernelsInit, [&](const Velmo1EncodeKernels& t) {
    for (size_t i = 0; i < cases.size(); ++i)
      for (uint32_t scale = 0; scale < 16; ++scale)
        for (const bool inter : {false, true}) {
          int16_t want[64], got[64];
          ASSERT_EQ(t.Quantise(cases[i].data(), scale, inter, got),
                    Velmo1Quantise(cases[i].data(), scale, inter, want))
              << "case " << i << " scale " << scale;
          ASSERT_EQ(0, std::memcmp(want, got, sizeof want)) << "case " << i << " scale " << scale;
          ASSERT_EQ(t.QuantiseDeadZone(cases[i].data(), scale, inter, got),
                    Velmo1QuantiseDeadZone(cases[i].data(), scale, inter, want))
              << "dead zone, case " << i << " scale " << scale;
          ASSERT_EQ(0, std::memcmp(want, got, sizeof want))
              << "dead zone, case " << i << " scale " << scale;
        }
  });
}

// Every entry is set at every level, and the fill stops at the first level the word lacks.
TEST(Velmo1EncodeKernels, EveryEntrySetAndLevelsStopAtTheFirstGap) {
  for (int level = 0; level < ProcessorLevelCount; ++level) {
    const Velmo1EncodeKernels t = TableAt(Velmo1EncodeKernelsInit, level);
    EXPECT_NE(t.Sad8, nullptr) << level;
    EXPECT_NE(t.SadRow, nullptr) << level;
    EXPECT_NE(t.CoefficientBits, nullptr) << level;
    EXPECT_NE(t.Quantise, nullptr) << level;
    EXPECT_NE(t.QuantiseDeadZone, nullptr) << level;
  }
  Velmo1EncodeKernels noSse2;
  Velmo1EncodeKernelsInit(&noSse2, CpuValid | CpuAVX2 | CpuSSSE3 | CpuAVX);
  EXPECT_EQ(noSse2.Sad8, &Velmo1Sad8Plain);
  EXPECT_EQ(noSse2.SadRow, &Velmo1SadRowPlain);
  EXPECT_EQ(noSse2.CoefficientBits, &Velmo1CoefficientBitsPlain);
  EXPECT_EQ(noSse2.Quantise, &Velmo1Quantise);
  EXPECT_EQ(noSse2.QuantiseDeadZone, &Velmo1QuantiseDeadZone);
  Velmo1EncodeKernels all;
  Velmo1EncodeKernelsInit(&all, ~0u);
  const Velmo1EncodeKernels avx2 = TableAt(Velmo1EncodeKernelsInit, ProcessorLevelAvx2);
  EXPECT_EQ(all.Sad8, avx2.Sad8);
  EXPECT_EQ(all.SadRow, avx2.SadRow);
  EXPECT_EQ(all.CoefficientBits, avx2.CoefficientBits);
  EXPECT_EQ(all.Quantise, avx2.Quantise);
  EXPECT_EQ(all.QuantiseDeadZone, avx2.QuantiseDeadZone);
}

// Everything an encode gives for a few frames of moving shapes: the sections, the kinds of
// blocks, the planned and the real errors.
std::vector<uint64_t> EncodeShapes(const VelmoEncoderConfig& config, uint32_t budget, int seed) {
  std::vector<uint64_t> out;
  VelmoEncoder* e = VelmoEncoderCreate(config);
  EXPECT_NE(e, nullptr);
  for (int t = 0; e && t < 4; ++t) {
    auto pic = test_support::MakeEncoderPicture(config.Width, config.Height, test_support::Shapes, t, seed + t);
    VelmoEncodeResult r{};
    EXPECT_TRUE(VelmoEncodeFrame(e, pic.Input(t == 0), budget, &r));
    out.insert(out.end(), r.Section.begin(), r.Section.end());
    out.insert(out.end(), std::begin(r.Kinds), std::end(r.Kinds));
    out.insert(out.end(), std::begin(r.DoubledKinds), std::end(r.DoubledKinds));
    out.insert(out.end(), std::begin(r.Errors), std::end(r.Errors));
    out.insert(out.end(), std::begin(r.PictureErrors), std::end(r.PictureErrors));
    out.push_back(r.PlannedError);
  }
  VelmoEncoderFree(e);
  return out;
}

// The same with the processor's features cut down to one level's.
std::vector<uint64_t> EncodeAtLevel(int level, const VelmoEncoderConfig& config, uint32_t budget) {
  FeatureMask(~(ProcessorLevels[level].Features | CpuValid));
  std::vector<uint64_t> out = EncodeShapes(config, budget, 3);
  FeatureMask(0);
  return out;
}

// The motion search picks the same vectors and the trials count the same bits at every level:
// the encoded bytes agree.
TEST(Velmo1EncodeKernels, EncodesAgreeAtEveryLevel) {
  const VelmoEncoderConfig configs[] = {{96, 80, 101, 0}, {72, 56, 101, VelmoEncodeAlpha}};
  for (const VelmoEncoderConfig& config : configs) {
    const std::vector<uint64_t> plain = EncodeAtLevel(ProcessorLevelPlain, config, 3000);
    ASSERT_FALSE(plain.empty());
    for (int level = 1; level < ProcessorLevelCount; ++level) {
      if (!ProcessorHas(ProcessorLevels[level].Features)) continue;
      EXPECT_TRUE(EncodeAtLevel(level, config, 3000) == plain)
          << ProcessorLevels[level].Name << " " << config.Width << "x" << config.Height;
    }
  }
}

// The same with the job pool at `threads`.
std::vector<uint64_t> EncodeWithThreads(uint32_t threads, const VelmoEncoderConfig& config, uint32_t budget) {
  PoolSetThreads(threads);
  std::vector<uint64_t> out = EncodeShapes(config, budget, 5);
  PoolSetThreads(0);
  return out;
}

// The passes spread over the job pool (analysis, merge, rows, errors) give what one thread
// gives, with more threads than blocks in a pass as well.
TEST(Velmo1EncodeKernels, EncodesAgreeForEveryPoolSize) {
  const VelmoEncoderConfig configs[] = {{200, 120, 101, 0}, {40, 24, 101, VelmoEncodeAlpha}};
  for (const VelmoEncoderConfig& config : configs) {
    const std::vector<uint64_t> alone = EncodeWithThreads(1, config, 6000);
    ASSERT_FALSE(alone.empty());
    for (uint32_t threads : {2u, 3u, 8u})
      EXPECT_TRUE(EncodeWithThreads(threads, config, 6000) == alone)
          << threads << " threads, " << config.Width << "x" << config.Height;
  }
}

}  // namespace
