// Transforms against direct sums, inverse pairs, and kernel variants against each other.
#include "audio_test_util.h"
#include "audio/audio_transform.h"
#include "host/cpu_features.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <limits>
#include <random>
#include <vector>

namespace {

std::vector<float> RandomSamples(uint32_t length, uint32_t seed) {
  std::mt19937 random(seed);
  std::uniform_real_distribution<float> uniform(-20000.0f, 20000.0f);
  std::vector<float> x(length);
  for (auto& v : x) v = uniform(random);
  return x;
}

// The inverses against direct sums up to 1024; every length through each forward and inverse
// pair, which gives half the length times the input (the DCT pair with element 0 halved
// between them). With the inverse right, the pair fixes the forward transform too.
TEST(AudioTransform, InversesMatchDirectSumsAndPairsInvertAtEveryLength) {
  AudioTransformWork work;
  for (uint32_t length = 2; length <= 4096; length *= 2) {
    SCOPED_TRACE(length);
    const AudioTransformPlan* plan = AudioTransformPlanFor(length);
    const std::vector<float> original = RandomSamples(length, length);
    for (bool dct : {false, true}) {
      std::vector<float> x = original;
      if (length <= 1024) {
        const std::vector<double> expected = audio_test::DirectInverse(x, dct);
        (dct ? AudioDctInverse : AudioRealFftInverse)(plan, x.data(), &work, &AudioKernelsPlain);
        for (uint32_t i = 0; i < length; ++i)
          ASSERT_NEAR(x[i], expected[i], 2e-6 * length * 20000) << (dct ? "dct " : "fft ") << i;
        x = original;
      }
      (dct ? AudioDctForward : AudioRealFftForward)(plan, x.data(), &work, &AudioKernelsPlain);
      if (dct) x[0] *= 0.5f;
      (dct ? AudioDctInverse : AudioRealFftInverse)(plan, x.data(), &work, &AudioKernelsPlain);
      for (uint32_t i = 0; i < length; ++i)
        ASSERT_NEAR(x[i] * 2.0 / length, original[i], 0.05) << (dct ? "dct " : "fft ") << i;
    }
  }
}

TEST(AudioTransformDeathTest, LengthThatIsNoPowerOfTwoStops) {
  EXPECT_DEATH(AudioTransformPlanFor(768), "unsupported length");
  EXPECT_DEATH(AudioTransformPlanFor(8192), "unsupported length");
  EXPECT_DEATH(AudioTransformPlanFor(1), "unsupported length");
}

// ---- kernel variants ----

bool HaveAvx2() {
  FeatureMask(0);
  return ProcessorHas(CpuAVX2);
}

TEST(AudioKernels, SelectionFollowsFeatureMask) {
  FeatureMask(CpuAVX2);
  EXPECT_EQ(AudioKernelsSelect(), &AudioKernelsPlain);
  FeatureMask(0);
  if (ProcessorHas(CpuAVX2)) {
    EXPECT_EQ(AudioKernelsSelect(), &AudioKernelsAvx2);
  }
}

TEST(AudioKernels, TransformsIdenticalAcrossVariants) {
  if (!HaveAvx2()) GTEST_SKIP() << "no AVX2 on this processor";
  using Transform = void (*)(const AudioTransformPlan*, float*, AudioTransformWork*,
                             const AudioTransformKernels*);
  const Transform transforms[] = {AudioRealFftForward, AudioRealFftInverse, AudioDctForward,
                                  AudioDctInverse};
  for (uint32_t length = 2; length <= 4096; length *= 2)
    for (Transform transform : transforms) {
      const AudioTransformPlan* plan = AudioTransformPlanFor(length);
      AudioTransformWork work;
      std::vector<float> plain = RandomSamples(length, length * 3);
      std::vector<float> wide = plain;
      transform(plan, plain.data(), &work, &AudioKernelsPlain);
      transform(plan, wide.data(), &work, &AudioKernelsAvx2);
      ASSERT_EQ(0, std::memcmp(plain.data(), wide.data(), length * sizeof(float)))
          << "length " << length;
    }
}

TEST(AudioKernels, WholeCodecIdenticalAcrossVariants) {
  // The encoder's streams and the decoder's samples do not depend on the kernels, in either
  // form, from lossless to very lossy.
  if (!HaveAvx2()) GTEST_SKIP() << "no AVX2 on this processor";
  const audio_test::Samples music = audio_test::Music(22050, 2, 12000);
  for (int level : {0, 4, 99, 100, 160}) {
    FeatureMask(CpuAVX2);
    audio_test::Encoded plainStream;
    const audio_test::Samples plain = audio_test::RoundTrip(music, 22050, 2, level, &plainStream);
    FeatureMask(0);
    audio_test::Encoded wideStream;
    const audio_test::Samples wide = audio_test::RoundTrip(music, 22050, 2, level, &wideStream);
    EXPECT_EQ(plainStream.Stream, wideStream.Stream) << level;
    EXPECT_EQ(plain, wide) << level;
  }
}

// Rounds to even and saturates; NaN gives the lowest value. The AVX2 variant gives the same
// for every count around its width of 16, at the scales the decoder uses.
TEST(AudioKernels, FloatToPcmRoundsSaturatesAndAgreesAcrossVariants) {
  std::vector<float> in = {0.5f, 1.5f, 2.5f, -2.5f, 40000.0f, -40000.0f,
                           std::numeric_limits<float>::quiet_NaN(), 100.49f, -0.5f, -1.5f,
                           32767.4f, 32767.6f, -32768.4f, -32769.0f, 1e9f, -1e9f, -0.0f, -12.51f};
  const int16_t expected[] = {0, 2, 2, -2, 32767, -32768, -32768, 100, 0, -2, 32767, 32767,
                              -32768, -32768, 32767, -32768, 0, -13};
  std::vector<int16_t> plain(1000), wide(1000);
  AudioKernelsPlain.FloatToPcm(in.data(), 18, 1.0f, plain.data());
  for (int i = 0; i < 18; ++i) EXPECT_EQ(plain[i], expected[i]) << i;
  if (!HaveAvx2()) GTEST_SKIP() << "no AVX2 on this processor";
  std::mt19937 random(5);
  std::uniform_real_distribution<float> uniform(-50000.0f, 50000.0f);
  while (in.size() < 1000) in.push_back(uniform(random));
  for (float scale : {1.0f, 0.0441941731f, 0.0625f})
    for (uint32_t count : {1u, 15u, 16u, 17u, 1000u}) {
      AudioKernelsPlain.FloatToPcm(in.data(), count, scale, plain.data());
      AudioKernelsAvx2.FloatToPcm(in.data(), count, scale, wide.data());
      EXPECT_TRUE(std::equal(plain.begin(), plain.begin() + count, wide.begin()))
          << "count " << count << " scale " << scale;
    }
}

}  // namespace
