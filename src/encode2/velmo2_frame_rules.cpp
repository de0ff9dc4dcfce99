// Frame word and edge maps of a second-generation pass; see velmo2_frame_rules.h.
#include "encode2/velmo2_frame_rules.h"

#include <algorithm>
#include <vector>

#include "decode/velmo2_syntax.h"

namespace {

constexpr uint32_t kNoDeblocking = Velmo2NoVerticalEdges | Velmo2NoHorizontalEdges;

}  // namespace

uint32_t Velmo2PassFrameWord(const Velmo2FrameWordInput& in, bool withMaps) {
  uint32_t word = in.Options & kNoDeblocking;
  uint32_t limit = 255;
  if (in.Quality >= kVelmo2NoDeblockQuality) {
    word = kNoDeblocking;
    limit = 0;
  }
  if (in.MeanDistortion < kVelmo2NarrowFlatMean) limit = kVelmo2NarrowFlatLimit;
  if (in.LargestDistortion < kVelmo2NoDeblockLargest) {
    word = kNoDeblocking;
    limit = 0;
  }
  // This encoder writes the current stream, clamps vectors keeping their parity and uses the
  // wide inter DC range, always.
  word |= Velmo2CurrentStream | Velmo2ParityClamp | Velmo2WideInter;
  if (in.ConstantAlpha) {
    word |= Velmo2ConstantAlpha | uint32_t(in.Alpha) << Velmo2ConstantAlphaShift;
  }
  if (withMaps && Velmo2WantsEdgeMaps(word)) word |= Velmo2EdgeMapsPresent;
  return word | limit;
}

bool Velmo2WantsEdgeMaps(uint32_t frameWord) {
  return (frameWord & kNoDeblocking) != kNoDeblocking;
}

void Velmo2DistortionSummary(const double* distortion, size_t n, double* mean, double* largest) {
  double sum = 0.0, top = 0.0;
  for (size_t i = 0; i < n; ++i) {
    sum += distortion[i];
    top = i == 0 ? distortion[i] : std::max(top, distortion[i]);
  }
  *mean = n ? sum / double(n) : 0.0;
  *largest = top;
}

// ---- Edge maps -----------------------------------------------------------------------------
//
// The edge filter changes two pixels on each side of a block edge, so the lines of edges do
// not touch one another within a direction: a row map entry decides alone over the four pixel
// lines around its edge line, and a column map entry over four pixel columns. Where a row band
// crosses a column band both filters act on the same pixels (vertical edges first), and the
// two decodes cannot tell their shares apart; so while the other direction is filtered at all,
// the crossings are left out of both sums and each entry is judged on the pixels only its own
// filter moves.


namespace {

// Squared error of one pixel against the source.
int64_t Squared(int a, int b) { return int64_t(a - b) * (a - b); }

// How much filtering makes one band worse: the sum over the pixels of the band across
// `first` .. `first + 3` (lines when `rows`, else columns; clipped to the plane) of the
// filtered squared error minus the unfiltered one, leaving out the positions along the band
// that `skip` marks.
int64_t BandHarm(const Velmo2EdgeMapPlane& p, bool rows, int64_t first,
                 const std::vector<uint8_t>& skip) {
  const int64_t across = rows ? p.Height : p.Width;
  const uint32_t along = rows ? p.Width : p.Height;
  int64_t harm = 0;
  for (int64_t a = std::max<int64_t>(first, 0); a < std::min(first + 4, across); ++a) {
    for (uint32_t b = 0; b < along; ++b) {
      if (skip[b]) continue;
      const ptrdiff_t x = rows ? ptrdiff_t(b) : ptrdiff_t(a);
      const ptrdiff_t y = rows ? ptrdiff_t(a) : ptrdiff_t(b);
      const int s = p.Source[y * p.SourcePitch + x];
      harm += Squared(p.Filtered[y * p.FilteredPitch + x], s) -
              Squared(p.Unfiltered[y * p.UnfilteredPitch + x], s);
    }
  }
  return harm;
}

// The positions along a band (columns of a row band, or lines of a column band) that lie in
// the bands of the other direction's edges, which are filtered unless `otherOff`. `step` is
// the distance of those edges in this plane's pixels (8), `edges` how many there are.
std::vector<uint8_t> Crossings(uint32_t along, uint32_t edges, bool otherOff) {
  std::vector<uint8_t> skip(along, 0);
  if (otherOff) return skip;
  for (uint64_t k = 1; k <= edges; ++k) {
    for (uint64_t b = 8 * k - 2; b < 8 * k + 2 && b < along; ++b) skip[b] = 1;
  }
  return skip;
}

bool Present(const Velmo2EdgeMapPlane& p) {
  return p.Source && p.Filtered && p.Unfiltered && p.Width && p.Height;
}

// Fills one map: entry i (bit i + 1) for the luma edge line k = i + 1; chroma planes have an
// edge line of their own at every even k, at k / 2 of their block edges.
void FillMap(const Velmo2EdgeMapInput& in, bool rows, bool otherOff, uint32_t* map,
             size_t words) {
  const Velmo2EdgeMapPlane* planes[3] = {&in.Y, &in.Cr, &in.Cb};
  const uint32_t entries = Velmo2EdgeMapEntries(rows ? in.Y.Height : in.Y.Width);
  const uint32_t otherEntries = Velmo2EdgeMapEntries(rows ? in.Y.Width : in.Y.Height);
  std::vector<uint8_t> skip[3];
  for (int i = 0; i < 3; ++i) {
    if (!Present(*planes[i])) continue;
    const uint32_t along = rows ? planes[i]->Width : planes[i]->Height;
    skip[i] = Crossings(along, i == 0 ? otherEntries : otherEntries / 2, otherOff);
  }
  for (uint32_t k = 1; k <= entries && k / 32 < words; ++k) {
    if (!Present(in.Y)) break;
    int64_t harm = BandHarm(in.Y, rows, int64_t(8) * k - 2, skip[0]);
    for (int i = 1; i < 3 && k % 2 == 0; ++i) {
      if (Present(*planes[i])) harm += BandHarm(*planes[i], rows, int64_t(4) * k - 2, skip[i]);
    }
    if (harm > 0) map[k / 32] |= uint32_t(1) << (k % 32);
  }
}

void Clear(uint32_t* map, size_t words) {
  for (size_t i = 0; map && i < words; ++i) map[i] = 0;
}

}  // namespace

void Velmo2FillEdgeMaps(const Velmo2EdgeMapInput& in, uint32_t frameWord, uint32_t* rowMap,
                        size_t rowWords, uint32_t* columnMap, size_t columnWords) {
  Clear(rowMap, rowWords);
  Clear(columnMap, columnWords);
  const bool noHorizontal = frameWord & Velmo2NoHorizontalEdges;
  const bool noVertical = frameWord & Velmo2NoVerticalEdges;
  if (rowMap && !noHorizontal) FillMap(in, true, noVertical, rowMap, rowWords);
  if (columnMap && !noVertical) FillMap(in, false, noHorizontal, columnMap, columnWords);
}
