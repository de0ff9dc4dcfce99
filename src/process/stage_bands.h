// Row-band machinery shared by the stages: a job that takes bands of rows from an atomic
// counter, and chunked reading of rows through the frame's fetch.
#pragma once
#include <algorithm>
#include <cstring>

#include "process/filters.h"

inline constexpr uint32_t StageBandRows = 8;
inline constexpr uint32_t StageChunk = 256;  // pixels fetched at a time

struct StageBandJob;
typedef void (*StageRowsFn)(const StageBandJob* job, uint32_t firstRow, uint32_t endRow);

struct StageBandJob {
  const StageFrames* Frames;
  StageRowsFn Rows;
  const void* Params;
  volatile uint32_t NextBand;
  uint32_t Bands;
};

void StageRunBands(const StageFrames* frames, const char* name, StageRowsFn rows,
                   const void* params);

inline const uint8_t* StageSourceRow(const StageFrames* f, uint32_t y) {
  return f->Source + ptrdiff_t(y) * f->SourcePitch;
}
inline uint8_t* StageTargetRow(const StageFrames* f, uint32_t y) {
  return f->Target + ptrdiff_t(y) * f->TargetPitch;
}

// The float rules every stage ends with: colour under 1e-5 (or not a number) becomes 0, and
// colour is held to `limit`. Alpha is left alone.
inline void StageFloatRules(float* px, float limit) {
  for (int c = 0; c < 3; ++c) {
    const float v = px[c];
    px[c] = !(v >= FloatColourFloor) ? 0.0f : std::min(v, limit);
  }
}
