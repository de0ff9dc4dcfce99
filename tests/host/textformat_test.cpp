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

TEST(FormatTime, UnitsPluralsAndCutsToTheBuffer) {
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
  // Cut to the buffer, with the full length returned.
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
  const struct {
    int32_t a, b, wantA, wantB;
  } cases[] = {
      {2997, 100, 2997, 100}, {60000, 2002, 30000, 1001}, {-50, 10, -5, 1},
      {0, 10, 0, 10},         {10, 0, 10, 0},             {INT32_MIN, 2, INT32_MIN / 2, 1},
  };
  for (const auto& c : cases) {
    int32_t a = c.a, b = c.b;
    ReduceFraction(&a, &b);
    EXPECT_EQ(a, c.wantA) << c.a << "/" << c.b;
    EXPECT_EQ(b, c.wantB) << c.a << "/" << c.b;
  }
  uint32_t u = 4000000000u, v = 2000000000u;
  ReduceFraction(&u, &v);
  EXPECT_EQ(u, 2u);
  EXPECT_EQ(v, 1u);
}

// Fitting values reduce exactly (a zero stays while it fits); equal or zero sides give 1/1;
// lopsided sides become a quotient over one, capped at the limit.
TEST(ReduceFraction64, ExactReductionsAndLimits) {
  const struct {
    uint64_t num, den;
    uint32_t limit, wantN, wantD;
  } cases[] = {
      {60000, 2002, UINT32_MAX, 30000, 1001},
      {0, 5, UINT32_MAX, 0, 5},
      {30000ull << 20, 1001ull << 20, UINT32_MAX, 30000, 1001},
      {0, 1ull << 40, UINT32_MAX, 1, 1},
      {1ull << 40, 0, UINT32_MAX, 1, 1},
      {10000000000ull + 7, 3, UINT32_MAX, 3333333335u, 1},
      {5, 100000000000ull + 1, UINT32_MAX, 1, UINT32_MAX},  // 20000000000 capped
      {UINT64_MAX, 1, INT32_MAX, INT32_MAX, 1},
  };
  for (const auto& c : cases) {
    uint32_t n, d;
    ReduceFraction64(c.num, c.den, &n, &d, c.limit);
    EXPECT_EQ(n, c.wantN) << c.num << "/" << c.den;
    EXPECT_EQ(d, c.wantD) << c.num << "/" << c.den;
  }
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
