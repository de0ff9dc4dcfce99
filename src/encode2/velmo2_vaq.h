// Variance adaptive quantisation: a macroblock's activity and the factor by which the pass's
// quality is divided for it. A busy macroblock gets a lower lambda and spends fewer bits per
// unit of distortion; a flat one the reverse.
#pragma once
#include <cstddef>
#include <cstdint>

enum class Velmo2VaqLevel : uint32_t { Medium, Off, Light, Heavy };

// A level's bounds on the factor and the word the compressor shows for it.
struct Velmo2VaqBounds {
  double Lower;
  double Upper;
  const char* Word;
};

const Velmo2VaqBounds& Velmo2VaqBoundsOf(Velmo2VaqLevel level);

// The level chosen by the file version number: 65536, 131072 and 196608 added to it ask for
// no, light and heavy adaptation; without any the level is medium.
Velmo2VaqLevel Velmo2VaqLevelOfVersion(uint32_t version);

// One plane of a macroblock's transform coefficients: `Blocks` blocks of 64 values in raster
// order, the DC first.
struct Velmo2ActivityPlane {
  const int16_t* Coef;
  uint32_t Blocks;
  bool Chroma;
};

// The sum of squares of the AC coefficient values, weighted 2 on luma, alpha and HDR and 1 on
// chroma. The DC terms are left out: they tell the brightness of a block, not how busy it is,
// so a perfectly flat macroblock has an activity of 0 whatever its level.
uint64_t Velmo2MacroblockActivity(const Velmo2ActivityPlane* planes, size_t count);

// The factor for an activity E: sqrt(E) / 1024 held between the level's bounds. The
// macroblock's quality is the pass's quality divided by it.
double Velmo2VaqFactor(uint64_t activity, Velmo2VaqLevel level);
