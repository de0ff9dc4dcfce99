#include "host/textformat.h"

#include <cstdio>
#include <cstring>

namespace {

// Copies text cut to fit; returns the full length.
size_t CopyText(char* dest, size_t destSize, const char* text, size_t length) {
  if (destSize > 0) {
    const size_t n = length < destSize - 1 ? length : destSize - 1;
    memcpy(dest, text, n);
    dest[n] = 0;
  }
  return length;
}

uint32_t Magnitude(int32_t v) { return v < 0 ? 0u - static_cast<uint32_t>(v) : static_cast<uint32_t>(v); }

// Last convergent p/q of num/den with both terms <= limit. num and den are nonzero.
void Convergent(uint64_t num, uint64_t den, uint32_t limit, uint32_t* outNum, uint32_t* outDen) {
  uint64_t h1 = 1, h0 = 0;  // numerators of the last two convergents
  uint64_t k1 = 0, k0 = 1;  // denominators
  uint64_t a = num, b = den;
  while (b != 0) {
    const uint64_t q = a / b, r = a % b;
    if (h1 != 0 && q > (limit - h0) / h1) break;
    if (k1 != 0 && q > (limit - k0) / k1) break;
    const uint64_t h = q * h1 + h0, k = q * k1 + k0;
    if (h > limit || k > limit) break;
    h0 = h1, h1 = h, k0 = k1, k1 = k;
    a = b, b = r;
  }
  if (k1 == 0 || h1 == 0) {  // cannot happen within the ratio bounds of the caller
    *outNum = 1, *outDen = 1;
    return;
  }
  *outNum = static_cast<uint32_t>(h1), *outDen = static_cast<uint32_t>(k1);
}

size_t AppendUnit(char* text, size_t at, size_t size, uint64_t count, const char* unit) {
  const int n = snprintf(text + at, size - at, "%llu %s%s", static_cast<unsigned long long>(count),
                         unit, count == 1 ? "" : "s");
  return at + static_cast<size_t>(n);
}

}  // namespace

uint64_t GreatestDivisor(uint64_t a, uint64_t b) {
  while (b != 0) {
    const uint64_t r = a % b;
    a = b, b = r;
  }
  return a;
}

void ReduceFraction(uint32_t* numerator, uint32_t* denominator) {
  if (*numerator == 0 || *denominator == 0) return;
  const uint32_t g = static_cast<uint32_t>(GreatestDivisor(*numerator, *denominator));
  *numerator /= g, *denominator /= g;
}

void ReduceFraction(int32_t* numerator, int32_t* denominator) {
  if (*numerator == 0 || *denominator == 0) return;
  const uint32_t g = static_cast<uint32_t>(GreatestDivisor(Magnitude(*numerator), Magnitude(*denominator)));
  if (g <= 1) return;  // also keeps INT32_MIN / -1 style values out of harm's way
  *numerator = static_cast<int32_t>(static_cast<int64_t>(*numerator) / g);
  *denominator = static_cast<int32_t>(static_cast<int64_t>(*denominator) / g);
}

void ReduceFraction64(uint64_t numerator, uint64_t denominator, uint32_t* outNumerator,
                      uint32_t* outDenominator, uint32_t limit) {
  if (numerator != 0 && denominator != 0) {
    const uint64_t g = GreatestDivisor(numerator, denominator);
    numerator /= g, denominator /= g;
  }
  if (numerator <= limit && denominator <= limit) {
    *outNumerator = static_cast<uint32_t>(numerator), *outDenominator = static_cast<uint32_t>(denominator);
    return;
  }
  if (numerator == 0 || denominator == 0 || numerator == denominator) {
    *outNumerator = 1, *outDenominator = 1;
    return;
  }
  if (numerator / 65535 >= denominator || denominator / 65535 >= numerator) {
    const bool numeratorLarger = numerator > denominator;
    uint64_t q = numeratorLarger ? numerator / denominator : denominator / numerator;
    if (q > limit) q = limit;
    *outNumerator = numeratorLarger ? static_cast<uint32_t>(q) : 1;
    *outDenominator = numeratorLarger ? 1 : static_cast<uint32_t>(q);
    return;
  }
  Convergent(numerator, denominator, limit, outNumerator, outDenominator);
}

size_t FormatTime(char* dest, size_t destSize, uint64_t ms) {
  // The larger unit, then the next smaller one when it is not zero.
  uint64_t major = ms, minor = 0;
  const char* majorUnit = "millisecond";
  const char* minorUnit = "";
  if (ms >= 3600000) {
    major = ms / 3600000, minor = ms / 60000 % 60;
    majorUnit = "hour", minorUnit = "minute";
  } else if (ms >= 60000) {
    major = ms / 60000, minor = ms / 1000 % 60;
    majorUnit = "minute", minorUnit = "second";
  } else if (ms >= 1000) {
    major = ms / 1000;
    majorUnit = "second";
  }
  char text[128];
  size_t n = AppendUnit(text, 0, sizeof text, major, majorUnit);
  if (minor != 0) {
    text[n++] = ',', text[n++] = ' ';
    n = AppendUnit(text, n, sizeof text, minor, minorUnit);
  }
  return CopyText(dest, destSize, text, n);
}

size_t FormatThousands(char* dest, size_t destSize, int64_t value) {
  char reversed[40];
  size_t n = 0;
  uint64_t magnitude = value < 0 ? 0 - static_cast<uint64_t>(value) : static_cast<uint64_t>(value);
  int digits = 0;
  do {
    if (digits > 0 && digits % 3 == 0) reversed[n++] = ',';
    reversed[n++] = static_cast<char>('0' + magnitude % 10);
    magnitude /= 10;
    ++digits;
  } while (magnitude != 0);
  if (value < 0) reversed[n++] = '-';
  char text[40];
  for (size_t i = 0; i < n; ++i) text[i] = reversed[n - 1 - i];
  return CopyText(dest, destSize, text, n);
}
