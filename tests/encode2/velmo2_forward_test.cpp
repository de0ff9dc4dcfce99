// The encoder's forward transform against the decoder's inverse, and the quantisers: their
// levels dequantise as the decoder does, and rate-distortion optimisation never costs more than
// plain quantisation. Costs here are J = lambda * D + bits.
#include "encode2/velmo2_forward.h"

#include "decode/velmo2_syntax.h"
#include "decode/velmo2_tables.h"
#include "decode/velmo2_transform.h"
#include "encode2/velmo2_writers.h"
#include "host/cpu_features.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <cstring>
#include <random>
#include <vector>

namespace {

// The decoder's reconstruction of forward-transformed samples: the DC value and each AC
// coefficient rounded, then the inverse transform.
void RoundTrip(const int16_t in[64], int16_t out[64]) {
  float coef[64];
  Velmo2Forward(in, coef);
  int16_t input[64];
  input[0] = int16_t(Velmo2DcValue(coef[0]));
  for (int k = 1; k < 64; ++k) input[k] = int16_t(std::lround(coef[k]));
  Velmo2TransformPlain(input, out);
}

// A smooth random block: a gradient and a few waves over a base, held in 0..255, like picture
// content; or pure noise over the whole range when `noise`.
void RandomBlock(std::mt19937& rng, bool noise, int16_t out[64]) {
  const double base = rng() % 256, gx = int(rng() % 31) - 15, gy = int(rng() % 31) - 15;
  const double wave = rng() % 40, fx = (rng() % 8) * 0.4, fy = (rng() % 8) * 0.4;
  for (int y = 0; y < 8; ++y) {
    for (int x = 0; x < 8; ++x) {
      double v = base + gx * (x - 3.5) + gy * (y - 3.5) + wave * std::sin(fx * x + fy * y);
      if (noise) v = rng() % 256;
      out[y * 8 + x] = int16_t(std::lround(std::fmin(255, std::fmax(0, v))));
    }
  }
}

// ---- Transform -----------------------------------------------------------------------------

TEST(Velmo2Forward, FlatBlocksComeBackExactly) {
  for (int16_t v = -255; v <= 255; ++v) {
    int16_t in[64], out[64];
    for (int16_t& s : in) s = v;
    float coef[64];
    Velmo2Forward(in, coef);
    EXPECT_EQ(Velmo2DcValue(coef[0]), 8 * v);
    for (int k = 1; k < 64; ++k) EXPECT_NEAR(coef[k], 0, 1e-3) << k;
    RoundTrip(in, out);
    for (int k = 0; k < 64; ++k) ASSERT_EQ(out[k], v);
    // The DC value's flat block is the block mean, as the decoder forms it.
    EXPECT_EQ(Velmo2TransformDcOnly(int16_t(Velmo2DcValue(coef[0]))), v);
  }
}

TEST(Velmo2Forward, RandomBlocksComeBackExactly) {
  std::mt19937 rng(20);
  for (int noise = 0; noise < 2; ++noise) {
    double sumSquares = 0;
    int worst = 0;
    const int rounds = 4000;
    for (int round = 0; round < rounds; ++round) {
      int16_t in[64], out[64];
      RandomBlock(rng, noise, in);
      if (rng() % 2) {
        for (int16_t& s : in) s = int16_t(s - 128);  // residual-like: signed samples
      }
      if (noise && rng() % 2) {
        for (int16_t& s : in) s = int16_t(int(rng() % 511) - 255);  // the widest residuals
      }
      RoundTrip(in, out);
      for (int k = 0; k < 64; ++k) {
        const int e = std::abs(out[k] - in[k]);
        worst = std::max(worst, e);
        sumSquares += e * e;
      }
    }
    // The rounding of the coefficients and of the inverse's shifts cancel out: the samples
    // come back exactly, as far as these blocks tell.
    EXPECT_EQ(worst, 0) << noise;
    EXPECT_EQ(sumSquares, 0) << noise;
  }
}

TEST(Velmo2Forward, EveryFormGivesThePlainFormsBits) {
  std::mt19937 rng(27);
  const Velmo2ForwardKernel vector = Velmo2ForwardFor(ProcessorFeatures());
  EXPECT_EQ(Velmo2ForwardFor(0), &Velmo2ForwardPlain);
  for (int round = 0; round < 5000; ++round) {
    int16_t in[64];
    if (round % 3 == 0) {
      for (int16_t& s : in) s = int16_t(int(rng() % 65536) - 32768);  // any 16-bit input
    } else {
      RandomBlock(rng, round % 3 == 1, in);
    }
    float plain[64], other[64];
    Velmo2ForwardPlain(in, plain);
    vector(in, other);
    for (int k = 0; k < 64; ++k) ASSERT_EQ(std::memcmp(&plain[k], &other[k], 4), 0) << k;
  }
}

TEST(Velmo2Forward, WeightsGiveThePixelErrorOfACoefficientError) {
  std::mt19937 rng(21);
  for (uint32_t k = 1; k < 64; ++k) {
    int16_t base[64] = {}, changed[64] = {}, a[64], b[64];
    base[0] = changed[0] = 1024;
    const int16_t delta = int16_t(1024 + rng() % 512);
    changed[k] = delta;
    Velmo2TransformPlain(base, a);
    Velmo2TransformPlain(changed, b);
    double pixel = 0;
    for (int i = 0; i < 64; ++i) pixel += double(b[i] - a[i]) * double(b[i] - a[i]);
    const double predicted = Velmo2CoefficientWeight(k) * double(delta) * delta;
    EXPECT_NEAR(pixel / predicted, 1.0, 0.08) << k;
  }
  // The pass's basis is orthogonal: errors in many positions at once add up as well.
  for (int round = 0; round < 200; ++round) {
    int16_t base[64] = {}, changed[64] = {}, a[64], b[64];
    base[0] = changed[0] = 1024;
    double predicted = 0;
    for (uint32_t k = 1; k < 64; ++k) {
      if (rng() % 3) continue;
      changed[k] = int16_t(int(rng() % 1025) - 512);
      predicted += Velmo2CoefficientWeight(k) * double(changed[k]) * changed[k];
    }
    Velmo2TransformPlain(base, a);
    Velmo2TransformPlain(changed, b);
    double pixel = 0;
    for (int i = 0; i < 64; ++i) pixel += double(b[i] - a[i]) * double(b[i] - a[i]);
    EXPECT_NEAR(pixel / predicted, 1.0, 0.05) << round;
  }
}

// ---- DC ------------------------------------------------------------------------------------

TEST(Velmo2Quantise, DcLevelsAreTheNearestTheCodeCarries) {
  std::mt19937 rng(22);
  for (int32_t q = 0; q < int32_t(Velmo2DcScaleCount); ++q) {
    const int32_t scale = int32_t(Velmo2DcScale(q));
    for (int i = 0; i < 400; ++i) {
      const int32_t wanted = int32_t(rng() % 8191) - 4095;
      const int32_t level = Velmo2DcLevelFor(wanted, uint32_t(scale));
      ASSERT_LE(std::abs(level), Velmo2MaxDcLevel);
      const int32_t error = std::abs(Velmo2ScaleDc(level, scale) - wanted);
      for (int32_t other : {level - 1, level + 1, -level}) {
        if (std::abs(other) > Velmo2MaxDcLevel) continue;
        EXPECT_LE(error, std::abs(Velmo2ScaleDc(other, scale) - wanted))
            << q << " " << wanted << " " << level;
      }
    }
  }
}

// ---- AC ------------------------------------------------------------------------------------

TEST(Velmo2Quantise, AcLevelsAreNearestAndAlwaysDequantiseWithoutWrapping) {
  std::mt19937 rng(23);
  const Velmo2DequantTable& table = Velmo2Dequant(Velmo2DequantIntraLuma);
  for (int i = 0; i < 20000; ++i) {
    const uint32_t q = rng() % 40, k = 1 + rng() % 63;
    const uint32_t entry = table[q & 3][k];
    const float c = float(int(rng() % 80001) - 40000) * (rng() % 2 ? 1.0f : 0.05f);
    const int32_t level = Velmo2QuantiseAc(c, entry, q, 0.5f);
    const int32_t most = Velmo2MaxAcLevelFor(entry, q);
    ASSERT_LE(std::abs(level), most);
    const int16_t value = Velmo2Dequantise(level, entry, q);
    // The sign is kept (no wrap), and no level the code carries here is nearer.
    EXPECT_TRUE(level == 0 || (value < 0) == (c < 0)) << c << " " << level;
    const float error = std::fabs(float(value) - c);
    for (int32_t other : {level - 1, level + 1}) {
      if (std::abs(other) > most) continue;
      EXPECT_LE(error, std::fabs(float(Velmo2Dequantise(other, entry, q)) - c) + 1e-3f)
          << c << " " << q << " " << entry << " " << level;
    }
    // A dead zone only ever lowers a level.
    const int32_t dead = Velmo2QuantiseAc(c, entry, q, 0.2f);
    EXPECT_LE(std::abs(dead), std::abs(level));
    EXPECT_TRUE(dead == 0 || (dead < 0) == (level < 0));
  }
  // Below the dead zone's threshold nothing is coded.
  const uint32_t entry = table[0][9], q = 16;
  const float step = float(entry << (q >> 2)) / 128;
  EXPECT_EQ(Velmo2QuantiseAc(0.75f * step, entry, q, 0.2f), 0);
  EXPECT_EQ(Velmo2QuantiseAc(-0.75f * step, entry, q, 0.2f), 0);
  EXPECT_EQ(Velmo2QuantiseAc(0.75f * step, entry, q, 0.5f), 1);
}

// Coefficients of a random block, intra or residual-like.
void RandomCoefficients(std::mt19937& rng, float coef[64]) {
  int16_t in[64];
  RandomBlock(rng, rng() % 3 == 0, in);
  if (rng() % 2) {
    for (int16_t& s : in) s = int16_t((s - 128) / int(1 + rng() % 4));
  }
  Velmo2Forward(in, coef);
}

Velmo2AcQuantiser RandomQuantiser(std::mt19937& rng, bool nearest = false) {
  const auto kind = Velmo2DequantKind(rng() % Velmo2DequantKindCount);
  const uint32_t q = rng() % 37;
  const float rounding = rng() % 2 || nearest ? 0.5f : 0.3f;
  return Velmo2AcQuantiser{Velmo2Dequant(kind)[q & 3], q, rounding};
}

// Reads a quantised block back through the decoder after writing it: the decoder's
// coefficients must be the quantiser's reconstruction.
void ExpectDecoderAgrees(const Velmo2QuantisedBlock& b, const Velmo2AcQuantiser& quantiser,
                         int table) {
  std::vector<uint32_t> words(256);
  Velmo2BitSink sink(words.data(), words.size());
  Velmo2WriteAcBlock(sink, b.Ac, table);
  sink.Flush();
  const size_t bytes = sink.WordCount() * 4;
  Velmo1BitReader r = Velmo1ReaderAt(reinterpret_cast<const uint8_t*>(words.data()), bytes, bytes);
  int16_t coef[64] = {};
  const Velmo2AcBlock read = Velmo2ReadAcBlock(r, table, quantiser.Dequant,
                                               int32_t(quantiser.Q), coef);
  EXPECT_EQ(read.Count, b.Ac.Count);
  EXPECT_EQ(read.Last, b.Ac.Last);
  for (int k = 0; k < 64; ++k) ASSERT_EQ(coef[k], b.Recon[k]) << k;
  EXPECT_EQ(r.Pos * 8 - r.Count, sink.Bits());  // the decoder took exactly the bits written
}

TEST(Velmo2Quantise, BlocksReconstructExactlyAsTheDecoderDequantises) {
  std::mt19937 rng(24);
  for (int round = 0; round < 3000; ++round) {
    float coef[64];
    RandomCoefficients(rng, coef);
    const Velmo2AcQuantiser quantiser = RandomQuantiser(rng);
    Velmo2QuantisedBlock b;
    Velmo2QuantiseBlock(coef, quantiser, b);
    uint32_t count = 0, last = 0;
    for (uint32_t p = 1; p < 64; ++p) {
      const uint32_t k = Velmo2Scan[p];
      EXPECT_EQ(b.Ac.Levels[p], Velmo2QuantiseAc(coef[k], quantiser.Dequant[k], quantiser.Q,
                                                 quantiser.Rounding));
      EXPECT_EQ(b.Recon[k], Velmo2Dequantise(b.Ac.Levels[p], quantiser.Dequant[k], quantiser.Q));
      if (b.Ac.Levels[p]) {
        ++count;
        last = p;
      }
    }
    EXPECT_EQ(b.Recon[0], 0);
    EXPECT_EQ(b.Ac.Count, count);
    EXPECT_EQ(b.Ac.Last, last);
    ExpectDecoderAgrees(b, quantiser, 1 + int(rng() % 2));
  }
}

// Coefficients just below, at and just above the level-1 threshold of every position (floats
// next to it): the block quantiser's quick zero test must decide exactly as the level search.
TEST(Velmo2Quantise, CoefficientsAtTheZeroThresholdDecideAsTheLevelSearch) {
  for (const float rounding : {0.5f, 0.3f, 0.17f}) {
    for (uint32_t q = 0; q < 37; ++q) {
      const Velmo2AcQuantiser quantiser{Velmo2Dequant(Velmo2DequantIntraLuma)[q & 3], q, rounding};
      for (int step = -2; step <= 2; ++step) {
        for (const float sign : {1.0f, -1.0f}) {
          float coef[64] = {};
          for (uint32_t k = 1; k < 64; ++k) {
            float c = quantiser.ZeroBelow[sign < 0][k];
            if (std::isinf(c)) continue;
            for (int i = 0; i < std::abs(step); ++i)
              c = std::nextafter(c, step < 0 ? 0.0f : HUGE_VALF);
            coef[k] = sign * c;
          }
          Velmo2QuantisedBlock b;
          Velmo2QuantiseBlock(coef, quantiser, b);
          for (uint32_t p = 1; p < 64; ++p) {
            const uint32_t k = Velmo2Scan[p];
            ASSERT_EQ(b.Ac.Levels[p], Velmo2QuantiseAc(coef[k], quantiser.Dequant[k], q, rounding))
                << "q " << q << " position " << k << " step " << step << " sign " << sign;
          }
        }
      }
    }
  }
}

TEST(Velmo2Quantise, EveryLevelMaskFormGivesThePlainMask) {
  std::mt19937 rng(28);
  const Velmo2LevelMaskKernel vector = Velmo2LevelMaskFor(ProcessorFeatures());
  EXPECT_EQ(Velmo2LevelMaskFor(0), &Velmo2LevelMaskPlain);
  for (int round = 0; round < 5000; ++round) {
    float coef[64];
    RandomCoefficients(rng, coef);
    if (round % 5 == 0) coef[rng() % 64] = -0.0f;
    if (round % 7 == 0) coef[rng() % 64] = std::nanf("");
    const Velmo2AcQuantiser quantiser = RandomQuantiser(rng);
    ASSERT_EQ(vector(coef, quantiser.ZeroBelow), Velmo2LevelMaskPlain(coef, quantiser.ZeroBelow))
        << round;
  }
}

// J = lambda * D + bits, the bits counted by writing the block.
double Cost(const float coef[64], const Velmo2QuantisedBlock& b, double lambda, int table) {
  Velmo2BitCounter counter;
  Velmo2WriteAcBlock(counter, b.Ac, table);
  return lambda * Velmo2AcDistortion(coef, b.Recon) + double(counter.Bits());
}

TEST(Velmo2Quantise, RateDistortionOptimisationNeverCostsMoreThanPlainQuantisation) {
  std::mt19937 rng(25);
  int improved = 0;
  for (int round = 0; round < 3000; ++round) {
    float coef[64];
    RandomCoefficients(rng, coef);
    const Velmo2AcQuantiser quantiser = RandomQuantiser(rng);
    const double lambda = std::pow(10.0, double(rng() % 800) / 100.0 - 6.0);  // 1e-6 .. 1e2
    const int table = 1 + int(rng() % 2);
    Velmo2QuantisedBlock plain, rdo;
    Velmo2QuantiseBlock(coef, quantiser, plain);
    Velmo2QuantiseBlockRdo(coef, quantiser, lambda, table, rdo);
    const double plainCost = Cost(coef, plain, lambda, table);
    const double rdoCost = Cost(coef, rdo, lambda, table);
    EXPECT_LE(rdoCost, plainCost + 1e-6 * plainCost) << round;
    improved += rdoCost < plainCost;
    // Levels only ever move towards 0.
    for (uint32_t p = 1; p < 64; ++p) {
      EXPECT_LE(std::abs(rdo.Ac.Levels[p]), std::abs(plain.Ac.Levels[p]));
      EXPECT_TRUE(rdo.Ac.Levels[p] == 0 || (rdo.Ac.Levels[p] < 0) == (plain.Ac.Levels[p] < 0));
    }
    ExpectDecoderAgrees(rdo, quantiser, table);
  }
  EXPECT_GT(improved, 300);  // it does find savings
}

TEST(Velmo2Quantise, RateDistortionOptimisationFollowsLambdaToItsEnds) {
  std::mt19937 rng(26);
  for (int round = 0; round < 300; ++round) {
    float coef[64];
    RandomCoefficients(rng, coef);
    const Velmo2AcQuantiser quantiser = RandomQuantiser(rng, true);
    Velmo2QuantisedBlock plain, rdo;
    Velmo2QuantiseBlock(coef, quantiser, plain);
    // Error priced beyond any bits: no error is added (a level moves only between two values
    // exactly as near).
    Velmo2QuantiseBlockRdo(coef, quantiser, 1e12, 1, rdo);
    EXPECT_DOUBLE_EQ(Velmo2AcDistortion(coef, rdo.Recon), Velmo2AcDistortion(coef, plain.Recon));
    // Error for free: every level goes.
    Velmo2QuantiseBlockRdo(coef, quantiser, 0.0, 2, rdo);
    EXPECT_EQ(rdo.Ac.Count, 0u);
    EXPECT_EQ(rdo.Ac.Last, 0u);
    for (int k = 0; k < 64; ++k) EXPECT_EQ(rdo.Recon[k], 0);
  }
}

}  // namespace
