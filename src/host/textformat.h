// Numbers and times for people, and exact fractions for rates.
//
// The formatters write into caller buffers like snprintf: the text is cut to fit, always
// zero-terminated when destSize > 0, and the return value is the length of the full text.
#pragma once
#include <cstddef>
#include <cstdint>

// Euclid's rule. GreatestDivisor(0, b) is b, and (0, 0) is 0.
uint64_t GreatestDivisor(uint64_t a, uint64_t b);

// Divides both by their greatest divisor. A 0 in either leaves both as they are; signs stay.
void ReduceFraction(int32_t* numerator, int32_t* denominator);
void ReduceFraction(uint32_t* numerator, uint32_t* denominator);

// Brings a 64-bit quotient into two values no greater than `limit`. Values that fit after
// reduction are reduced exactly (a 0 stays). Otherwise: equal values or a 0 give 1/1; a side
// at least 65535 times the other becomes their quotient (capped at `limit`) over 1; anything
// else becomes the last continued-fraction convergent whose terms both fit.
void ReduceFraction64(uint64_t numerator, uint64_t denominator, uint32_t* outNumerator,
                      uint32_t* outDenominator, uint32_t limit = UINT32_MAX);

// "1 millisecond", "12 seconds", "2 minutes, 5 seconds", "1 hour, 1 minute". Below a
// minute only the largest unit shows; a zero second or minute part is left out.
size_t FormatTime(char* dest, size_t destSize, uint64_t milliseconds);

// Decimal with comma thousands separators: "-1,234,567".
size_t FormatThousands(char* dest, size_t destSize, int64_t value);
