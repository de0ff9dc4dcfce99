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

// The vector kernels are written for x86 with SSE2 at least (every x86-64 processor). Sources
// of vector kernels compile to nothing elsewhere, and kernel tables hold the plain forms only.
#if defined(__x86_64__) || (defined(__i386__) && defined(__SSE2__))
#define ORN_X86_KERNELS 1
#else
#define ORN_X86_KERNELS 0
#endif

// The feature word, with CpuValid set. Detected on first call.
uint32_t ProcessorFeatures();

// Switches features off on top of what was detected; for tests and for users who need to rule
// out a kernel in the field. Nothing can be switched on. FeatureMask(0) restores the detected
// word.
void FeatureMask(uint32_t clear);

// True when every bit of `required` is present.
inline bool ProcessorHas(uint32_t required) { return (ProcessorFeatures() & required) == required; }

// ---------------------------------------------------------------------------------------------
// Kernel levels. Every subsystem with vector kernels has one table of function pointers and
// one init function taking a feature word: it fills the table with the plain C++ forms, then
// replaces entries level by level, and stops at the first level the word lacks. Each level's
// bits therefore include those of the levels below it.

enum : int {
  ProcessorLevelPlain = 0,
  ProcessorLevelSse2 = 1,
  ProcessorLevelSsse3 = 2,
  ProcessorLevelAvx2 = 3,
  ProcessorLevelCount = 4,
};

struct ProcessorLevel {
  const char* Name;
  uint32_t Features;  // all the bits the level needs
};

inline constexpr ProcessorLevel ProcessorLevels[ProcessorLevelCount] = {
    {"plain", 0},
    {"sse2", CpuSSE2},
    {"ssse3", CpuSSE2 | CpuSSSE3},
    {"avx2", CpuSSE2 | CpuSSSE3 | CpuAVX2},
};

// The highest level whose bits are all in `features`.
inline int ProcessorLevelOf(uint32_t features) {
  int level = ProcessorLevelPlain;
  while (level + 1 < ProcessorLevelCount &&
         (features & ProcessorLevels[level + 1].Features) == ProcessorLevels[level + 1].Features)
    ++level;
  return level;
}

// ---------------------------------------------------------------------------------------------
// Floating-point state of the calling thread. FloatFlushToZero turns flush-to-zero on, and
// denormals-are-zero with `denormalsAreZero`, and returns the state to hand back to
// FloatRestore. Elsewhere than x86 both do nothing.
uint32_t FloatFlushToZero(bool denormalsAreZero);
void FloatRestore(uint32_t state);
