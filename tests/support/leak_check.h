// Pausing the leak checker around code that talks to the display: X, GL drivers and D-Bus keep
// allocations for the life of the process that the checker would report as leaks. Outside
// AddressSanitizer builds both calls do nothing.
#pragma once

#if defined(__has_feature)
#if __has_feature(address_sanitizer)
#define ORN_TEST_LSAN 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__) && !defined(ORN_TEST_LSAN)
#define ORN_TEST_LSAN 1
#endif
#ifdef ORN_TEST_LSAN
#include <sanitizer/lsan_interface.h>
#endif

// Allocations made on this thread until LeakCheckResume are not reported.
inline void LeakCheckPause() {
#ifdef ORN_TEST_LSAN
  __lsan_disable();
#endif
}

inline void LeakCheckResume() {
#ifdef ORN_TEST_LSAN
  __lsan_enable();
#endif
}
