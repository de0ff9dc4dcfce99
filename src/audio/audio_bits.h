// Bit input and output of the Velmo sound stream: 32-bit little-endian words, lowest bit
// first, which is the same as a byte stream read from the lowest bit of each byte.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

// Reads bits from a byte range. Reads past the end yield zero bits and never touch memory
// outside the range; the position may then stand past the end, and callers check it.
class AudioBitReader {
 public:
  AudioBitReader(const uint8_t* data, size_t size, size_t bitPosition)
      : Data(data), Size(size), Position(bitPosition) {}

  size_t BitPosition() const { return Position; }
  void Seek(size_t bitPosition) { Position = bitPosition; }
  size_t BitsLeft() const {
    const size_t total = Size * 8;
    return Position < total ? total - Position : 0;
  }

  // The next 57 bits at most, without moving.
  uint64_t Peek() const {
    const size_t byte = Position >> 3;
    uint64_t word = 0;
    if (byte + 8 <= Size) {
      std::memcpy(&word, Data + byte, 8);  // little-endian host
    } else {
      for (size_t i = 0; byte + i < Size && i < 8; ++i)
        word |= static_cast<uint64_t>(Data[byte + i]) << (8 * i);
    }
    return word >> (Position & 7);
  }

  void Skip(uint32_t count) { Position += count; }

  uint32_t Read(uint32_t count) {  // count <= 32
    if (count == 0) return 0;
    const uint32_t value = static_cast<uint32_t>(Peek() & ((uint64_t{1} << count) - 1));
    Position += count;
    return value;
  }

 private:
  const uint8_t* Data;
  size_t Size;
  size_t Position;
};

// Writes bits into a byte buffer of fixed capacity; output beyond it is dropped and noted.
class AudioBitWriter {
 public:
  AudioBitWriter(uint8_t* data, size_t capacity) : Data(data), Capacity(capacity) {}

  void Write(uint32_t value, uint32_t count) {  // count <= 32
    if (count == 0) return;
    Buffer |= static_cast<uint64_t>(value & static_cast<uint32_t>((uint64_t{1} << count) - 1))
              << Filled;
    Filled += count;
    while (Filled >= 8) {
      PutByte(static_cast<uint8_t>(Buffer));
      Buffer >>= 8;
      Filled -= 8;
    }
  }

  // Pads with zero bits to a multiple of 32 bits, counted from the start of the buffer.
  void PadToWord() {
    const size_t bits = Bytes * 8 + Filled;
    const uint32_t pad = static_cast<uint32_t>((32 - bits % 32) % 32);
    for (uint32_t left = pad; left;) {
      const uint32_t step = left > 16 ? 16 : left;
      Write(0, step);
      left -= step;
    }
  }

  // Starts the buffer over, empty.
  void Restart() {
    Bytes = 0;
    Buffer = 0;
    Filled = 0;
    Overflow = false;
  }

  size_t BitCount() const { return Bytes * 8 + Filled; }
  size_t ByteCount() const { return Bytes + (Filled ? 1 : 0); }
  bool Overflowed() const { return Overflow; }

 private:
  void PutByte(uint8_t byte) {
    if (Bytes < Capacity) Data[Bytes] = byte;
    else Overflow = true;
    ++Bytes;
  }

  uint8_t* Data;
  size_t Capacity;
  size_t Bytes = 0;
  uint64_t Buffer = 0;
  uint32_t Filled = 0;
  bool Overflow = false;
};
