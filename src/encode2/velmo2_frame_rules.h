// Frame-level choices of the second-generation encoder for a finished pass: the frame word
// (deblocking, the flat-block limit T, constant alpha, whether edge maps follow) and the
// contents of the two edge maps, which switch the decoder's edge filter off along whole lines
// of block edges where it would take the picture further from the source.
#pragma once
#include <cstddef>
#include <cstdint>

#include "encode2/velmo2_writers.h"

// What the frame word of a pass is made from.
struct Velmo2FrameWordInput {
  uint32_t Options;          // the compressor's option number: 16384 forbids filtering across
                             // vertical block edges (word bit 14), 32768 across horizontal ones
                             // (bit 15); its other bits are not looked at
  double Quality;            // the quality the pass was coded at
  double MeanDistortion;     // the mean over all macroblocks of their distortion measure
  double LargestDistortion;  // the largest single macroblock's measure
  bool ConstantAlpha;        // the alpha plane is one value, Alpha, and is not coded
  uint8_t Alpha;
};

// Quality from which a frame is sharp enough to go without any deblocking.
constexpr double kVelmo2NoDeblockQuality = 32768.0;
// Below this mean distortion a frame is close enough for a narrow flat-block limit.
constexpr double kVelmo2NarrowFlatMean = 8000.0;
constexpr uint32_t kVelmo2NarrowFlatLimit = 24;
// Below this largest distortion no macroblock needs deblocking or flat-block blending.
constexpr double kVelmo2NoDeblockLargest = 3600.0;

// The frame word of a pass. `withMaps` sets the bit that says edge maps follow, when the word
// lets any map stand (Velmo2WantsEdgeMaps).
uint32_t Velmo2PassFrameWord(const Velmo2FrameWordInput& in, bool withMaps);

// Whether edge maps are worked out at all for a frame word: not when it forbids filtering
// across both vertical and horizontal edges.
bool Velmo2WantsEdgeMaps(uint32_t frameWord);

// The mean and the largest of n macroblock distortions (both 0 when n is 0).
void Velmo2DistortionSummary(const double* distortion, size_t n, double* mean, double* largest);

// ---- Edge maps -----------------------------------------------------------------------------

// The entries of each map are Velmo2EdgeMapEntries (velmo2_writers.h) of the picture side.

// One plane as the rule sees it: the source, the decoded picture with every map entry 0
// (filtered wherever the decoder filters) and the same decode with no edge filtering (every
// entry 1, or frame word bits 14 and 15 set), all Width x Height. A null Source leaves the
// plane out.
struct Velmo2EdgeMapPlane {
  const uint8_t* Source;
  ptrdiff_t SourcePitch;
  const uint8_t* Filtered;
  ptrdiff_t FilteredPitch;
  const uint8_t* Unfiltered;
  ptrdiff_t UnfilteredPitch;
  uint32_t Width, Height;
};

// Y decides; Cr and Cb (half size), when given, add their say where a luma edge line carries a
// chroma edge line (every second entry: chroma edges lie 16 luma pixels apart).
struct Velmo2EdgeMapInput {
  Velmo2EdgeMapPlane Y, Cr, Cb;
};

// Fills the row map (unless the word forbids horizontal-edge filtering) and the column map
// (unless it forbids vertical-edge filtering), in the decoder's layout; the maps left out
// and all bits beyond the entries are cleared. An entry is 1 where filtering its line of edges
// makes the sum of squared errors against the source larger than leaving it.
void Velmo2FillEdgeMaps(const Velmo2EdgeMapInput& in, uint32_t frameWord, uint32_t* rowMap,
                        size_t rowWords, uint32_t* columnMap, size_t columnWords);
