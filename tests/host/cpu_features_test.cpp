#include "host/cpu_features.h"

#include <gtest/gtest.h>

TEST(ProcessorFeatures, WordIsValidAndMaskable) {
  FeatureMask(0, 0);
  const uint32_t detected = ProcessorFeatures();
  EXPECT_TRUE(detected & CpuValid);
#if defined(__x86_64__)
  // Every x86-64 processor has SSE2.
  EXPECT_TRUE(detected & CpuSSE2);
#endif
  FeatureMask(0, CpuSSE2 | CpuAVX2);
  EXPECT_FALSE(ProcessorHas(CpuSSE2));
  EXPECT_FALSE(ProcessorHas(CpuAVX2));
  EXPECT_TRUE(ProcessorFeatures() & CpuValid);
  FeatureMask(CpuSSSE3, 0);
  EXPECT_TRUE(ProcessorHas(CpuSSSE3));
  FeatureMask(0, 0);
  EXPECT_EQ(ProcessorFeatures(), detected);
}
