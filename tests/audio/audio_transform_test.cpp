// Transforms against direct sums and inverse pairs, with the plain kernels. (The vector kernels
// are compared with the plain ones in tests/kernels.)
#include "audio_test_util.h"
#include "audio/audio_transform.h"
#include "kernel_levels.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <random>
#include <vector>

namespace {

const AudioTransformKernels Plain =
    kerneltest::TableAt(AudioTransformKernelsInit, ProcessorLevelPlain);

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
        (dct ? AudioDctInverse : AudioRealFftInverse)(plan, x.data(), &work, &Plain);
        for (uint32_t i = 0; i < length; ++i)
          ASSERT_NEAR(x[i], expected[i], 2e-6 * length * 20000) << (dct ? "dct " : "fft ") << i;
        x = original;
      }
      (dct ? AudioDctForward : AudioRealFftForward)(plan, x.data(), &work, &Plain);
      if (dct) x[0] *= 0.5f;
      (dct ? AudioDctInverse : AudioRealFftInverse)(plan, x.data(), &work, &Plain);
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

// ---- plain kernels ----

// Rounds to even and saturates; NaN gives the lowest value.
TEST(AudioKernels, FloatToPcmRoundsToEvenAndSaturates) {
  const float in[] = {0.5f, 1.5f, 2.5f, -2.5f, 40000.0f, -40000.0f,
                      std::numeric_limits<float>::quiet_NaN(), 100.49f, -0.5f, -1.5f,
                      32767.4f, 32767.6f, -32768.4f, -32769.0f, 1e9f, -1e9f, -0.0f, -12.51f};
  const int16_t expected[] = {0, 2, 2, -2, 32767, -32768, -32768, 100, 0, -2, 32767, 32767,
                              -32768, -32768, 32767, -32768, 0, -13};
  int16_t out[18];
  Plain.FloatToPcm(in, 18, 1.0f, out);
  for (int i = 0; i < 18; ++i) EXPECT_EQ(out[i], expected[i]) << i;
}

}  // namespace
