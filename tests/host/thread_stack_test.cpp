// A thread asked for a small stack still starts when the program's static thread-local blocks
// are larger than that stack (the system would refuse it as it was asked).
#include "host/platform.h"

#include <gtest/gtest.h>

#include <cstring>

namespace {

// 128 KiB of thread-local memory: more than any small stack of the library's threads.
thread_local unsigned char Scratch[128 * 1024];

uint32_t TouchScratch(void* argument) {
  std::memset(Scratch, 0x5A, sizeof Scratch);
  return Scratch[sizeof Scratch - 1] + *static_cast<uint32_t*>(argument);
}

TEST(ThreadStack, SmallStacksGrowToHoldThreadLocalBlocks) {
  for (size_t stack : {size_t(32768), size_t(65536), size_t(0)}) {
    SCOPED_TRACE(stack);
    PlatformThread thread;
    uint32_t add = 7;
    ASSERT_TRUE(ThreadStart(&thread, TouchScratch, &add, stack, PriorityNormal, 0, "Small"));
    EXPECT_EQ(ThreadJoin(&thread), 0x5Au + 7);
  }
}

}  // namespace
