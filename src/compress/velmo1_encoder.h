// The first-generation Velmo frame encoder. Each frame: every 8x8 block of every plane offers
// a short list of operating points (bits, squared error) from its candidate kinds; a greedy
// best-slope walk over all blocks of all planes spends the byte budget; the chosen blocks are
// written as plane streams and the frame is then decoded with the decoder's own code into the
// encoder's reference buffers, so that encoder and decoder never drift. Bit costs are predicted
// by a per-plane cost model (in 1/256 bit) that is corrected from the real stream after each
// frame.
#pragma once
#include "compress/video_encoder.h"
#include "format/frame_buffers.h"

#include <cstdint>
#include <vector>

// Encoder flags, as in the writer's flag word.
enum : uint32_t {
  VelmoEncodeGrayscale = 0x20000,  // no chroma planes
  VelmoEncodeAlpha = 0x100000,     // an alpha plane
  // Leave RUN and residue blocks out of the candidate lists, as the format's first encoders did.
  // They are offered by default: screen content and noisy motion code in fewer bits with them.
  // This bit is for comparisons.
  VelmoEncodeNoRunOrResidue = 0x1,
};

struct VelmoEncoderConfig {
  uint32_t Width, Height;  // picture size in pixels
  uint32_t Version;        // 100 to 199
  uint32_t Flags;          // VelmoEncode*
};

struct VelmoEncodeResult {
  std::vector<uint8_t> Section;  // the frame's video section
  uint32_t Sizes[4];             // plane bytes: Y, Cr, Cb, alpha
  uint64_t Errors[4];            // squared error of each reconstructed plane against the input
  // The same over the picture alone (no padding), and the samples it counts.
  uint64_t PictureErrors[4];
  uint64_t PictureSamples[4];
  uint64_t PlannedError;         // the sum of the chosen points' errors
  // Blocks written, by block kind (a 16x16 block counts once, as DOUBLED, at its head), and
  // the sub-kinds of the DOUBLED blocks. All planes together.
  uint32_t Kinds[10];
  uint32_t DoubledKinds[10];
};

struct VelmoEncoder;

// Plane sizes of the first generation: luma and chroma rounded up to whole 8x8 blocks.
inline uint32_t Velmo1LumaSize(uint32_t pixels) { return (pixels + 7) & ~7u; }
inline uint32_t Velmo1ChromaSize(uint32_t pixels) { return ((pixels + 1) / 2 + 7) & ~7u; }
// The file tag the streams are written for: "VLMi" below 101, "VLMk" from 101.
uint32_t Velmo1FileTagFor(uint32_t version);

// Returns null for a size or version this encoder cannot take, or when memory runs out.
VelmoEncoder* VelmoEncoderCreate(const VelmoEncoderConfig& config);
void VelmoEncoderFree(VelmoEncoder* encoder);

// Encodes one frame within about `budgetBytes`. Returns false (and writes nothing) on bad
// input. Plane analysis runs on the job pool; everything else on the calling thread.
// With the environment variable ORN_VELMO1_STATS naming a file, each frame appends a line per
// plane of where its bits went (bench/velmo1_bits.py sums them up); nothing is written without it.
bool VelmoEncodeFrame(VelmoEncoder* encoder, const VelmoEncodeInput& input, uint32_t budgetBytes,
                      VelmoEncodeResult* result);

// The encoder's reconstruction of the last frame (the decoder's picture), and its ring.
const VelmoFrameBuffers* VelmoEncoderPicture(const VelmoEncoder* encoder);
// The decode flags that a reader would pass for this encoder's frames.
uint32_t VelmoEncoderDecodeFlags(const VelmoEncoder* encoder);
