// A small writer of first-generation frame streams for tests and benchmarks. Blocks are given
// as the raw values they take from each bundle plus their own bits; the builder lays out the
// Huffman descriptions, the per-row bundle refills (in every form the decoder knows) and the
// blocks' bits exactly as the decoder reads them.
#pragma once
#include <cstddef>
#include <cstdint>
#include <vector>

// Bits in stream order, each field written lowest bit first.
struct Velmo1Bits {
  std::vector<std::pair<uint32_t, uint8_t>> Fields;
  void Put(uint32_t value, uint32_t n) { Fields.push_back({value, uint8_t(n)}); }
};

// 32-bit little-endian words, lowest bit first. Tracks how far the decoder's reads reach,
// including the look-ahead of a Huffman symbol, so that a plane ends where the decoder stops.
class Velmo1BitWriter {
 public:
  void Put(uint32_t value, uint32_t n);
  void Put(const Velmo1Bits& bits);
  // Writes code number `code` of table `table`; the decoder looks ahead by the longest code.
  void PutCode(uint32_t table, uint32_t code);
  size_t BitPosition() const { return Position; }
  // Pads to the word at which the decoder's reads end, and returns the stream's bytes.
  std::vector<uint8_t> Finish();

 private:
  std::vector<uint8_t> Bytes;
  size_t Position = 0;
  size_t Reach = 0;  // bits the decoder will have fetched
};

// The bits of a Huffman description: table t and the map from code number to value, in the
// prefix form (form 1, where the map allows it), the merge form (form 2, with the fewest merge
// rounds that give the map), or whichever is shorter (form 0).
Velmo1Bits Velmo1DescribeCode(uint32_t table, const uint8_t map[16], int form = 0);

// The AC coefficients of a block (by position, entry 0 unused) by bit planes.
Velmo1Bits Velmo1CoefficientBits(const int16_t coeffs[64]);
// A residue (by list index) under the event limit; the 3-bit plane count comes first.
Velmo1Bits Velmo1ResidueBits(const int8_t residue[64], uint32_t limit);

// What one block takes from each bundle, and its own bits.
struct Velmo1RawBlock {
  uint8_t Type = 0;
  std::vector<uint8_t> SubTypes, Colors, Patterns, Runs;
  std::vector<int8_t> XMotion, YMotion;
  std::vector<uint16_t> IntraDC, InterDC;
  Velmo1Bits Bits;
};

Velmo1RawBlock Velmo1SkipBlock();
Velmo1RawBlock Velmo1MotBlock(int8_t mx, int8_t my);
Velmo1RawBlock Velmo1OneBlock(uint8_t colour);
Velmo1RawBlock Velmo1TwoBlock(uint8_t c0, uint8_t c1, const uint8_t patterns[8]);
Velmo1RawBlock Velmo1BangBlock(const uint8_t pixels[64]);
// Runs of at most 16 along the scan; equal neighbours share a colour.
Velmo1RawBlock Velmo1RunBlock(uint32_t scan, const uint8_t pixels[64]);
Velmo1RawBlock Velmo1IntraBlock(uint16_t dc, const int16_t coeffs[64], uint32_t scale);
Velmo1RawBlock Velmo1InterBlock(int8_t mx, int8_t my, int16_t dc, const int16_t coeffs[64],
                                uint32_t scale);
Velmo1RawBlock Velmo1MotzBlock(int8_t mx, int8_t my, uint32_t limit, const int8_t residue[64]);
// A 16x16 block of a sub-kind (RUN, DCT_INTRA, ONE, TWO, BANG), and the marker that the odd
// row below it carries.
Velmo1RawBlock Velmo1DoubledBlock(const Velmo1RawBlock& sub);
Velmo1RawBlock Velmo1DoubledLower();

struct Velmo1PlaneSpec {
  uint32_t Width = 0;
  std::vector<std::vector<Velmo1RawBlock>> Rows;
};

struct Velmo1PlaneOptions {
  bool VlmK = false;          // the plane flag bit and the 0xBB count mask
  bool FlagBitSet = false;    // write the plane flag bit as 1 (meaningless outside alpha)
  bool FillForms = true;      // use fill and repeat forms where the data allows
  bool ChooseTables = false;  // fit tables and maps to the symbol counts (else table 0)
  int DescriptionForm = 0;    // as Velmo1DescribeCode
};

std::vector<uint8_t> Velmo1BuildPlane(const Velmo1PlaneSpec& plane, const Velmo1PlaneOptions& options);
// A "VLMk" alpha plane of one value: the flag bit, the value, padding.
std::vector<uint8_t> Velmo1ConstantAlphaPlane(uint8_t value);

// A frame section from plane streams. Alpha is written (with its size word) when `hasAlpha`;
// the chroma offset word is left out for the old revisions.
std::vector<uint8_t> Velmo1BuildSection(bool hasAlpha, bool oldRevision,
                                        const std::vector<uint8_t>& alpha,
                                        const std::vector<uint8_t>& y,
                                        const std::vector<uint8_t>& cr,
                                        const std::vector<uint8_t>& cb);

// A plane of mixed content for benchmarks and smoke tests: every kind of block, chosen by a
// seeded generator; motion only when `inter`.
Velmo1PlaneSpec Velmo1MixedPlane(uint32_t width, uint32_t height, uint32_t seed, bool inter);
