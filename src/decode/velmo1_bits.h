// The first-generation bit reader and Huffman symbol reading, shared by the plane decoder and
// its tests. Consecutive 32-bit little-endian words, bits taken from the low end; a field's
// first bit is its least significant. A word is fetched only when a read needs more bits than
// are buffered. Bytes past the readable span read as zeros, and the word position goes on
// counting, so "reached the limit" stays meaningful for a stream that overran.
#pragma once
#include <cstddef>
#include <cstdint>
#include <cstring>

static_assert(__BYTE_ORDER__ == __ORDER_LITTLE_ENDIAN__, "words are read as little-endian");

struct Velmo1BitReader {
  const uint8_t* Data;  // first byte of the stream
  size_t Readable;      // bytes from Data that may be read
  size_t Limit;         // offset of the limit from Data
  size_t Pos;           // offset of the next word to fetch
  uint64_t Buffer;      // unread bits, next bit lowest
  uint32_t Count;       // bits in Buffer
};

inline Velmo1BitReader Velmo1ReaderAt(const uint8_t* data, size_t readable, size_t limit) {
  return Velmo1BitReader{data, readable, limit, 0, 0, 0};
}

inline void Velmo1Fetch(Velmo1BitReader& r) {
  uint32_t word = 0;
  if (r.Pos < r.Readable) {
    const size_t left = r.Readable - r.Pos;
    if (left >= 4) {
      std::memcpy(&word, r.Data + r.Pos, 4);  // little-endian host
    } else {
      for (size_t i = 0; i < left; ++i) word |= uint32_t(r.Data[r.Pos + i]) << (8 * i);
    }
  }
  r.Buffer |= uint64_t(word) << r.Count;
  r.Count += 32;
  r.Pos += 4;
}

// Reads n bits, 0 <= n <= 32.
inline uint32_t Velmo1Read(Velmo1BitReader& r, uint32_t n) {
  if (r.Count < n) Velmo1Fetch(r);
  const uint32_t v = uint32_t(r.Buffer & ((uint64_t(1) << n) - 1));
  r.Buffer >>= n;
  r.Count -= n;
  return v;
}

inline uint32_t Velmo1ReadBit(Velmo1BitReader& r) { return Velmo1Read(r, 1); }

inline bool Velmo1AtLimit(const Velmo1BitReader& r) { return r.Pos >= r.Limit; }

// A bundle's code: its table's lookup and the symbol map from code number to value.
struct Velmo1Huffman {
  const uint8_t* Lookup;
  uint32_t Mask;      // 2^longest - 1
  uint32_t Longest;
  uint32_t Table;
  uint8_t Map[16];
};

// Reads a symbol, or returns -1 when fewer bits than the longest code are buffered while the
// reader has reached the limit (the bundle then goes dead).
inline int Velmo1ReadSymbol(Velmo1BitReader& r, const Velmo1Huffman& h) {
  if (r.Count < h.Longest) {
    if (Velmo1AtLimit(r)) return -1;
    Velmo1Fetch(r);
  }
  const uint8_t entry = h.Lookup[r.Buffer & h.Mask];
  const uint32_t len = entry >> 4;
  r.Buffer >>= len;
  r.Count -= len;
  return h.Map[entry & 15];
}

// Reads a Huffman description: the 4-bit table index and the symbol map, in either the
// explicit prefix form or the pair-and-merge form.
void Velmo1ReadHuffman(Velmo1BitReader& r, Velmo1Huffman& h);
