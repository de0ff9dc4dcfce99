// The first-generation encoder's stream writer. Blocks are given as the raw values they take
// from each bundle plus their own bits; the writer lays out the Huffman descriptions (fitted to
// the symbol counts), the per-row bundle refills and the blocks' bits exactly as the decoder
// reads them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

#include "decode/velmo1_tables.h"

// Bits in stream order, each field written lowest bit first.
struct Velmo1EncBits {
  std::vector<std::pair<uint32_t, uint8_t>> Fields;
  void Put(uint32_t value, uint32_t n) { Fields.push_back({value, uint8_t(n)}); }
};

// The length alone of what a coder writes: the same coders write into Velmo1EncBits or count
// here, so that a count never differs from the bits that are written.
struct Velmo1EncBitCount {
  uint32_t Bits = 0;
  void Put(uint32_t, uint32_t n) { Bits += n; }
};

// 32-bit little-endian words, lowest bit first, gathered a word at a time. Tracks how far the decoder's reads reach,
// including the look-ahead of a Huffman symbol, so that a plane ends where the decoder stops.
class Velmo1EncBitWriter {
 public:
  void Put(uint32_t value, uint32_t n);
  void Put(const Velmo1EncBits& bits);
  // Writes code number `code` of table `table`; the decoder looks ahead by the longest code.
  void PutCode(uint32_t table, uint32_t code);
  size_t BitPosition() const { return Position; }
  // Pads to the word at which the decoder's reads end, and returns the stream's bytes.
  std::vector<uint8_t> Finish();

 private:
  std::vector<uint32_t> Words;  // whole words written
  uint64_t Pending = 0;         // bits not yet in a whole word, lowest first
  uint32_t PendingBits = 0;
  size_t Position = 0;
  size_t Reach = 0;  // bits the decoder will have fetched
};

// The bits of a Huffman description: table t and the map from code number to value, in the
// prefix form (form 1, where the map allows it), the merge form (form 2, with the fewest merge
// rounds that give the map), or whichever is shorter (form 0).
Velmo1EncBits Velmo1EncDescribeCode(uint32_t table, const uint8_t map[16], int form = 0);

// The AC coefficients of a block (by position, entry 0 unused) by bit planes.
Velmo1EncBits Velmo1EncCoefficientBits(const int16_t coeffs[64]);
// A residue (by list index) under the event limit; the 3-bit plane count comes first.
Velmo1EncBits Velmo1EncResidueBits(const int8_t residue[64], uint32_t limit);
// The number of bits the two coders above write, without keeping them.
uint32_t Velmo1EncCoefficientBitCount(const int16_t coeffs[64]);
uint32_t Velmo1EncResidueBitCount(const int8_t residue[64], uint32_t limit);

// What one block takes from each bundle, and its own bits.
struct Velmo1EncRawBlock {
  uint8_t Type = 0;
  std::vector<uint8_t> SubTypes, Colors, Patterns, Runs;
  std::vector<int8_t> XMotion, YMotion;
  std::vector<uint16_t> IntraDC, InterDC;
  Velmo1EncBits Bits;
};

Velmo1EncRawBlock Velmo1EncSkipBlock();
Velmo1EncRawBlock Velmo1EncMotBlock(int8_t mx, int8_t my);
Velmo1EncRawBlock Velmo1EncOneBlock(uint8_t colour);
Velmo1EncRawBlock Velmo1EncTwoBlock(uint8_t c0, uint8_t c1, const uint8_t patterns[8]);
Velmo1EncRawBlock Velmo1EncBangBlock(const uint8_t pixels[64]);
// Runs of at most 16 along the scan; equal neighbours share a colour.
Velmo1EncRawBlock Velmo1EncRunBlock(uint32_t scan, const uint8_t pixels[64]);
Velmo1EncRawBlock Velmo1EncIntraBlock(uint16_t dc, const int16_t coeffs[64], uint32_t scale);
Velmo1EncRawBlock Velmo1EncInterBlock(int8_t mx, int8_t my, int16_t dc, const int16_t coeffs[64],
                                uint32_t scale);
Velmo1EncRawBlock Velmo1EncMotzBlock(int8_t mx, int8_t my, uint32_t limit, const int8_t residue[64]);
// A 16x16 block of a sub-kind (RUN, DCT_INTRA, ONE, TWO, BANG), and the marker that the odd
// row below it carries.
Velmo1EncRawBlock Velmo1EncDoubledBlock(const Velmo1EncRawBlock& sub);
Velmo1EncRawBlock Velmo1EncDoubledLower();

struct Velmo1EncPlaneSpec {
  uint32_t Width = 0;
  std::vector<std::vector<Velmo1EncRawBlock>> Rows;
};

struct Velmo1EncPlaneOptions {
  bool VlmK = false;          // the plane flag bit and the 0xBB count mask
  bool FlagBitSet = false;    // write the plane flag bit as 1 (meaningless outside alpha)
  bool FillForms = true;      // use fill and repeat forms where the data allows
  bool ChooseTables = false;  // fit tables and maps to the symbol counts (else table 0)
  int DescriptionForm = 0;    // as Velmo1EncDescribeCode
};

// What each bundle cost in the written plane: bits of its refills and elements carried.
struct Velmo1EncPlaneStats {
  uint64_t Bits[Velmo1BundleCount];
  uint32_t Elements[Velmo1BundleCount];
};

std::vector<uint8_t> Velmo1EncBuildPlane(const Velmo1EncPlaneSpec& plane,
                                         const Velmo1EncPlaneOptions& options,
                                         Velmo1EncPlaneStats* stats = nullptr);
// A "VLMk" alpha plane of one value: the flag bit, the value, padding.
std::vector<uint8_t> Velmo1EncConstantAlphaPlane(uint8_t value);

// A frame section from plane streams. Alpha is written (with its size word) when `hasAlpha`;
// the chroma offset word is left out for the old revisions.
std::vector<uint8_t> Velmo1EncBuildSection(bool hasAlpha, bool oldRevision,
                                        const std::vector<uint8_t>& alpha,
                                        const std::vector<uint8_t>& y,
                                        const std::vector<uint8_t>& cr,
                                        const std::vector<uint8_t>& cb);

