#include "host/cpu_features.h"

#include <atomic>

#if defined(__x86_64__) || defined(__i386__)
#include <cpuid.h>
#endif

namespace {

std::atomic<uint32_t> detectedWord{0};
std::atomic<uint32_t> forcedOff{0};

uint32_t Detect() {
  uint32_t word = CpuValid;
#if defined(__x86_64__) || defined(__i386__)
  unsigned eax, ebx, ecx, edx;
  if (__get_cpuid(1, &eax, &ebx, &ecx, &edx)) {
    if (edx & (1u << 23)) word |= CpuMMX;
    if (edx & (1u << 25)) word |= CpuSSE;
    if (edx & (1u << 26)) word |= CpuSSE2;
    if (ecx & (1u << 0)) word |= CpuSSE3;
    if (ecx & (1u << 9)) word |= CpuSSSE3;
    if (ecx & (1u << 19)) word |= CpuSSE41;
    // AVX needs the OS to save the YMM state (OSXSAVE and XCR0 bits 1 and 2).
    bool osSavesYmm = false;
    if ((ecx & (1u << 27)) && (ecx & (1u << 28))) {
      unsigned lo, hi;
      __asm__ volatile("xgetbv" : "=a"(lo), "=d"(hi) : "c"(0));
      osSavesYmm = (lo & 6) == 6;
    }
    if (osSavesYmm) {
      word |= CpuAVX;
      if (__get_cpuid_count(7, 0, &eax, &ebx, &ecx, &edx) && (ebx & (1u << 5))) word |= CpuAVX2;
    }
  }
#endif
  return word;
}

}  // namespace

uint32_t ProcessorFeatures() {
  uint32_t word = detectedWord.load(std::memory_order_acquire);
  if (word == 0) {
    word = Detect();
    detectedWord.store(word, std::memory_order_release);
  }
  return (word & ~forcedOff.load()) | CpuValid;
}

void FeatureMask(uint32_t clear) {
  forcedOff.store(clear);
}

#if ORN_X86_KERNELS
#include <xmmintrin.h>

uint32_t FloatFlushToZero(bool denormalsAreZero) {
  const uint32_t saved = _mm_getcsr();
  constexpr uint32_t kFlushToZero = 0x8000, kDenormalsAreZero = 0x40;
  _mm_setcsr(saved | kFlushToZero | (denormalsAreZero ? kDenormalsAreZero : 0));
  return saved;
}

void FloatRestore(uint32_t state) { _mm_setcsr(state); }
#else
uint32_t FloatFlushToZero(bool) { return 0; }
void FloatRestore(uint32_t) {}
#endif
