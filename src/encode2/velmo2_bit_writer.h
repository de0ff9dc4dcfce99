// Bit sinks of the second-generation encoder. The stream is a run of 32-bit little-endian words
// filled from their lowest bit; a field of n bits has its first bit lowest, so the decoder's
// bit reader takes back exactly what Put wrote.
//
// Two sinks share one interface (Put, Bits, Overflowed, PadToWord, Append):
//  - Velmo2BitSink writes into a buffer the caller owns and never past its end: a write that
//    does not fit sets the overflow flag, and the bit count goes on so the caller learns the
//    length the string would have had.
//  - Velmo2BitCounter only adds up lengths, for trial codings whose bits are not kept.
// The syntax writers (velmo2_writers.h) are templates over either.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words are stored as little-endian");

class Velmo2BitSink {
 public:
  Velmo2BitSink(uint32_t* words, size_t capacityWords)
      : Words_(words), Capacity_(capacityWords) {}

  // Appends the low n bits of `bits` (0 <= n <= 32); higher bits of `bits` are ignored.
  void Put(uint32_t bits, uint32_t n) {
    Acc_ |= (uint64_t(bits) & ((uint64_t(1) << n) - 1)) << Fill_;
    Fill_ += n;
    if (Fill_ >= 32) {
      Store(uint32_t(Acc_));
      Acc_ >>= 32;
      Fill_ -= 32;
    }
  }

  // Bits put so far, including any that did not fit.
  uint64_t Bits() const { return uint64_t(Pos_) * 32 + Fill_; }
  bool Overflowed() const { return Overflow_; }

  // Zero bits up to the next word boundary.
  void PadToWord() {
    if (Fill_ == 0) return;
    Store(uint32_t(Acc_));
    Acc_ = 0;
    Fill_ = 0;
  }

  // Stores the partly filled last word (zero above the bits put) without moving on, so that the
  // buffer holds the whole string; later puts carry on where they were.
  void Flush() {
    if (Fill_ == 0) return;
    if (Pos_ < Capacity_) {
      Words_[Pos_] = uint32_t(Acc_);
    } else {
      Overflow_ = true;
    }
  }

  // Appends a string of `bits` bits held in words (as another sink leaves them after Flush).
  void Append(const uint32_t* words, uint64_t bits) {
    const size_t whole = size_t(bits / 32);
    if (whole > 0 && Fill_ == 0 && Pos_ + whole <= Capacity_) {
      std::memcpy(Words_ + Pos_, words, whole * 4);  // word aligned: a plain copy
      Pos_ += whole;
    } else {
      for (size_t i = 0; i < whole; ++i) Put(words[i], 32);
    }
    const uint32_t rest = uint32_t(bits % 32);
    if (rest) Put(words[whole], rest);
  }

  // Replaces a whole word already passed (a table entry written as a placeholder).
  void SetWord(size_t index, uint32_t value) {
    if (index < Pos_ && index < Capacity_) Words_[index] = value;
  }

  const uint32_t* Words() const { return Words_; }
  // Words touched so far, the partly filled one included.
  size_t WordCount() const { return Pos_ + (Fill_ ? 1 : 0); }

 private:
  void Store(uint32_t word) {
    if (Pos_ < Capacity_) {
      Words_[Pos_] = word;
    } else {
      Overflow_ = true;
    }
    ++Pos_;
  }

  uint32_t* Words_;
  size_t Capacity_;
  size_t Pos_ = 0;    // index of the word being filled
  uint64_t Acc_ = 0;  // bits not yet stored, first bit lowest
  uint32_t Fill_ = 0; // bits in Acc_, below 32 between calls
  bool Overflow_ = false;
};

class Velmo2BitCounter {
 public:
  void Put(uint32_t, uint32_t n) { Bits_ += n; }
  uint64_t Bits() const { return Bits_; }
  bool Overflowed() const { return false; }
  void PadToWord() { Bits_ = (Bits_ + 31) & ~uint64_t(31); }
  void Flush() {}
  void Append(const uint32_t*, uint64_t bits) { Bits_ += bits; }

 private:
  uint64_t Bits_ = 0;
};
