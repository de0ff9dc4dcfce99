#include "host/textformat.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>

namespace {

std::string Time(uint64_t ms) {
  char text[64];
  FormatTime(text, sizeof text, ms);
  return text;
}

std::string Thousands(int64_t v) {
  char text[64];
  FormatThousands(text, sizeof text, v);
  return text;
}

TEST(FormatTime, UnitsAndPlurals) {
  EXPECT_EQ(Time(0), "0 milliseconds");
  EXPECT_EQ(Time(1), "1 millisecond");
  EXPECT_EQ(Time(999), "999 milliseconds");
  EXPECT_EQ(Time(1000), "1 second");
  EXPECT_EQ(Time(1999), "1 second");
  EXPECT_EQ(Time(59999), "59 seconds");
  EXPECT_EQ(Time(60000), "1 minute");
  EXPECT_EQ(Time(61000), "1 minute, 1 second");
  EXPECT_EQ(Time(125000), "2 minutes, 5 seconds");
  EXPECT_EQ(Time(3599999), "59 minutes, 59 seconds");
  EXPECT_EQ(Time(3600000), "1 hour");
  EXPECT_EQ(Time(3660000), "1 hour, 1 minute");
  EXPECT_EQ(Time(7200000 + 30 * 60000 + 59000), "2 hours, 30 minutes");
  EXPECT_EQ(Time(UINT64_MAX), "5124095576030 hours, 25 minutes");
}

TEST(FormatTime, CutsToBufferAndReportsFullLength) {
  char small[6];
  EXPECT_EQ(FormatTime(small, sizeof small, 125000), strlen("2 minutes, 5 seconds"));
  EXPECT_STREQ(small, "2 min");
  EXPECT_EQ(FormatTime(nullptr, 0, 1), strlen("1 millisecond"));
}

TEST(FormatThousands, GroupsOfThree) {
  EXPECT_EQ(Thousands(0), "0");
  EXPECT_EQ(Thousands(999), "999");
  EXPECT_EQ(Thousands(1000), "1,000");
  EXPECT_EQ(Thousands(123456), "123,456");
  EXPECT_EQ(Thousands(1234567), "1,234,567");
  EXPECT_EQ(Thousands(-1000), "-1,000");
  EXPECT_EQ(Thousands(-999), "-999");
  EXPECT_EQ(Thousands(INT64_MAX), "9,223,372,036,854,775,807");
  EXPECT_EQ(Thousands(INT64_MIN), "-9,223,372,036,854,775,808");
}

TEST(GreatestDivisor, EuclidAndZeros) {
  EXPECT_EQ(GreatestDivisor(12, 18), 6u);
  EXPECT_EQ(GreatestDivisor(18, 12), 6u);
  EXPECT_EQ(GreatestDivisor(17, 5), 1u);
  EXPECT_EQ(GreatestDivisor(0, 7), 7u);
  EXPECT_EQ(GreatestDivisor(7, 0), 7u);
  EXPECT_EQ(GreatestDivisor(0, 0), 0u);
  EXPECT_EQ(GreatestDivisor(1ull << 62, 3ull << 40), 1ull << 40);
}

TEST(ReduceFraction, ReducesAndKeepsZerosAndSigns) {
  int32_t a = 2997, b = 100;
  ReduceFraction(&a, &b);
  EXPECT_EQ(a, 2997);
  EXPECT_EQ(b, 100);
  a = 60000, b = 2002;
  ReduceFraction(&a, &b);
  EXPECT_EQ(a, 30000);
  EXPECT_EQ(b, 1001);
  a = -50, b = 10;
  ReduceFraction(&a, &b);
  EXPECT_EQ(a, -5);
  EXPECT_EQ(b, 1);
  a = 0, b = 10;
  ReduceFraction(&a, &b);
  EXPECT_EQ(b, 10);
  a = 10, b = 0;
  ReduceFraction(&a, &b);
  EXPECT_EQ(a, 10);
  a = INT32_MIN, b = 2;
  ReduceFraction(&a, &b);
  EXPECT_EQ(a, INT32_MIN / 2);
  EXPECT_EQ(b, 1);
  uint32_t u = 4000000000u, v = 2000000000u;
  ReduceFraction(&u, &v);
  EXPECT_EQ(u, 2u);
  EXPECT_EQ(v, 1u);
}

TEST(ReduceFraction64, FittingValuesReduceExactly) {
  uint32_t n, d;
  ReduceFraction64(60000, 2002, &n, &d);
  EXPECT_EQ(n, 30000u);
  EXPECT_EQ(d, 1001u);
  ReduceFraction64(0, 5, &n, &d);  // a zero stays while it fits
  EXPECT_EQ(n, 0u);
  EXPECT_EQ(d, 5u);
  ReduceFraction64(30000ull << 20, 1001ull << 20, &n, &d);  // large, but a common divisor fixes it
  EXPECT_EQ(n, 30000u);
  EXPECT_EQ(d, 1001u);
}

TEST(ReduceFraction64, EqualOrZeroGiveOne) {
  uint32_t n, d;
  ReduceFraction64(0, 1ull << 40, &n, &d);
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(d, 1u);
  ReduceFraction64(1ull << 40, 0, &n, &d);
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(d, 1u);
}

TEST(ReduceFraction64, LopsidedSidesBecomeAQuotientOverOne) {
  uint32_t n, d;
  ReduceFraction64(10000000000ull + 7, 3, &n, &d);
  EXPECT_EQ(n, 3333333335u);
  EXPECT_EQ(d, 1u);
  ReduceFraction64(5, 100000000000ull + 1, &n, &d);
  EXPECT_EQ(n, 1u);
  EXPECT_EQ(d, UINT32_MAX);  // 20000000000 capped
  ReduceFraction64(UINT64_MAX, 1, &n, &d, INT32_MAX);
  EXPECT_EQ(n, static_cast<uint32_t>(INT32_MAX));
  EXPECT_EQ(d, 1u);
}

TEST(ReduceFraction64, ConvergentsApproximateTheQuotient) {
  // pi to 18 digits over 1e17; the continued fraction gives the best fits within 32 bits.
  const uint64_t num = 314159265358979323ull, den = 100000000000000000ull;
  uint32_t n, d;
  ReduceFraction64(num, den, &n, &d);
  EXPECT_LE(n, UINT32_MAX);
  EXPECT_NEAR(static_cast<double>(n) / d, 3.14159265358979323, 1e-15);
  // Convergents of pi within 16 bits: ... 355/113, then 103993/33102 passes the limit.
  ReduceFraction64(num, den, &n, &d, 65535);
  EXPECT_EQ(n, 355u);
  EXPECT_EQ(d, 113u);
  // Both terms of a near-1 quotient grow together.
  ReduceFraction64((1ull << 40) + 1, 1ull << 40, &n, &d);
  EXPECT_LE(d, UINT32_MAX);
  EXPECT_NEAR(static_cast<double>(n) / d, 1.0 + 1.0 / (1ull << 40), 1e-12);
}

}  // namespace
