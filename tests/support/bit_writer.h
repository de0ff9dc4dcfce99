// Writes bit streams in the video frame order: consecutive 32-bit little-endian words, each
// filled from its lowest bit; a field's first bit is its least significant bit. Tests build
// exact streams with it, field by field or as code strings written first bit first.
#pragma once
#include <cstdint>
#include <string_view>
#include <vector>

class BitWriter {
 public:
  // Writes the low n bits of value (n up to 32), lowest first.
  BitWriter& Put(uint32_t value, uint32_t n) {
    for (uint32_t i = 0; i < n; ++i) PutBit((value >> i) & 1);
    return *this;
  }

  // Writes a code given as '0'/'1' characters, first bit first; other characters are skipped,
  // so "0001 1" may be spaced for reading.
  BitWriter& Code(std::string_view bits) {
    for (char c : bits) {
      if (c == '0' || c == '1') PutBit(c == '1');
    }
    return *this;
  }

  BitWriter& PutBit(uint32_t bit) {
    if (Bits % 32 == 0) Words.push_back(0);
    Words.back() |= (bit & 1u) << (Bits % 32);
    ++Bits;
    return *this;
  }

  // Bits written so far.
  uint64_t Size() const { return Bits; }

  // The stream as bytes, padded with zero bits to a whole word.
  std::vector<uint8_t> Bytes() const {
    std::vector<uint8_t> out;
    out.reserve(Words.size() * 4);
    for (uint32_t w : Words) {
      for (int i = 0; i < 4; ++i) out.push_back(uint8_t(w >> (8 * i)));
    }
    return out;
  }

 private:
  std::vector<uint32_t> Words;
  uint64_t Bits = 0;
};
