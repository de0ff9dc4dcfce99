#include "host/cpu_features.h"

#include <gtest/gtest.h>

// The mask only takes bits away from the detected word; CpuValid always stays.
TEST(ProcessorFeatures, MaskSwitchesFeaturesOffOnly) {
  FeatureMask(0);
  const uint32_t detected = ProcessorFeatures();
  EXPECT_TRUE(detected & CpuValid);
#if defined(__x86_64__)
  // Every x86-64 processor has SSE2.
  EXPECT_TRUE(detected & CpuSSE2);
#endif
  for (uint32_t clear : {uint32_t(CpuSSE2 | CpuAVX2), uint32_t(CpuSSSE3), ~0u}) {
    FeatureMask(clear);
    EXPECT_EQ(ProcessorFeatures(), (detected & ~clear) | CpuValid) << clear;
    EXPECT_FALSE(ProcessorHas(clear & ~CpuValid)) << clear;
  }
  FeatureMask(0);
  EXPECT_EQ(ProcessorFeatures(), detected);
}

// A word reaches a level only with every level below it: AVX2 without SSSE3 stays at SSE2.
TEST(ProcessorFeatures, LevelIsTheLastCompleteStep) {
  EXPECT_EQ(ProcessorLevelOf(CpuValid), ProcessorLevelPlain);
  EXPECT_EQ(ProcessorLevelOf(CpuValid | CpuAVX2 | CpuSSSE3), ProcessorLevelPlain);
  EXPECT_EQ(ProcessorLevelOf(CpuSSE2), ProcessorLevelSse2);
  EXPECT_EQ(ProcessorLevelOf(CpuSSE2 | CpuAVX2), ProcessorLevelSse2);
  EXPECT_EQ(ProcessorLevelOf(CpuSSE2 | CpuSSSE3 | CpuSSE41), ProcessorLevelSsse3);
  EXPECT_EQ(ProcessorLevelOf(~0u), ProcessorLevelAvx2);
  for (int level = 0; level < ProcessorLevelCount; ++level)
    EXPECT_EQ(ProcessorLevelOf(ProcessorLevels[level].Features), level) << level;
}
