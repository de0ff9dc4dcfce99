// Processor feature word: read once from cpuid, consulted by every kernel that has
// vector variants. Variants of one kernel must give identical results.
#pragma once
#include <cstdint>

enum : uint32_t {
  CpuMMX   = 1,
  CpuSSE   = 4,
  CpuSSE2  = 8,
  CpuSSE3  = 16,
  CpuSSSE3 = 32,
  CpuSSE41 = 64,
  CpuAVX   = 128,
  CpuAVX2  = 256,
  CpuValid = 0x80000000u,
};

// The feature word, with CpuValid set. Detected on first call.
uint32_t ProcessorFeatures();

// Forces bits on (set) or off (clear) on top of what was detected; for tests and for users
// who need to rule out a kernel in the field. FeatureMask(0, 0) restores the detected word.
void FeatureMask(uint32_t set, uint32_t clear);

// True when every bit of `required` is present.
inline bool ProcessorHas(uint32_t required) { return (ProcessorFeatures() & required) == required; }
