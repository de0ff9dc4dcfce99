// Stages that look at neighbouring rows: the 3×3 median denoiser and the de-interlacer.
#include "process/stage_bands.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Denoise

// The fifth smallest of nine: the five smallest seen are kept in order, starting from `ceiling`;
// a value of 0 in the fifth place cannot move any more.
template <typename T>
T FifthSmallest(const T values[9], T ceiling) {
  T low[5] = {ceiling, ceiling, ceiling, ceiling, ceiling};
  for (int i = 0; i < 9; ++i) {
    const T v = values[i];
    if (!(v < low[4])) continue;
    int at = 4;
    while (at > 0 && v < low[at - 1]) {
      low[at] = low[at - 1];
      --at;
    }
    low[at] = v;
    if (low[4] == T(0)) break;
  }
  return low[4];
}

void CopyRowInt(const StageFrames* f, uint32_t y) {
  uint32_t chunk[StageChunk];
  for (uint32_t x = 0; x < f->Width; x += StageChunk) {
    const uint32_t n = std::min(StageChunk, f->Width - x);
    f->Fetch->Row(f->Fetch, StageSourceRow(f, y), x, n, chunk);
    std::memcpy(StageTargetRow(f, y) + size_t(x) * 4, chunk, size_t(n) * 4);
  }
}

void CopyRowFloat(const StageFrames* f, uint32_t y) {
  float chunk[StageChunk * 4];
  const float limit = StageFloatLimit(f);
  for (uint32_t x = 0; x < f->Width; x += StageChunk) {
    const uint32_t n = std::min(StageChunk, f->Width - x);
    f->FetchFloat->Row(f->FetchFloat, StageSourceRow(f, y), x, n, chunk);
    for (uint32_t i = 0; i < n; ++i) StageFloatRules(chunk + 4 * i, limit);
    std::memcpy(StageTargetRow(f, y) + size_t(x) * 16, chunk, size_t(n) * 16);
  }
}

void DenoiseRowInt(const StageFrames* f, uint32_t y) {
  uint32_t rows[3][StageChunk + 2];
  uint32_t out[StageChunk];
  for (uint32_t x = 0; x < f->Width; x += StageChunk) {
    const uint32_t n = std::min(StageChunk, f->Width - x);
    const uint32_t lo = x == 0 ? 0 : x - 1;
    const uint32_t hi = std::min(f->Width, x + n + 1);
    for (int r = 0; r < 3; ++r)
      f->Fetch->Row(f->Fetch, StageSourceRow(f, y + r - 1), lo, hi - lo, rows[r]);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t column = x + i, at = column - lo;
      if (column == 0 || column + 1 == f->Width) {
        out[i] = rows[1][at];
        continue;
      }
      uint32_t pixel = 0;
      for (int shift = 0; shift < 32; shift += 8) {
        uint32_t values[9];
        for (int r = 0; r < 3; ++r)
          for (int d = 0; d < 3; ++d) values[r * 3 + d] = (rows[r][at + d - 1] >> shift) & 255;
        pixel |= FifthSmallest<uint32_t>(values, 255) << shift;
      }
      out[i] = pixel;
    }
    std::memcpy(StageTargetRow(f, y) + size_t(x) * 4, out, size_t(n) * 4);
  }
}

// Colour only: the five running values start just above the highest level, and alpha is the
// centre's.
void DenoiseRowFloat(const StageFrames* f, uint32_t y) {
  float rows[3][(StageChunk + 2) * 4];
  float out[StageChunk * 4];
  const float limit = StageFloatLimit(f);
  for (uint32_t x = 0; x < f->Width; x += StageChunk) {
    const uint32_t n = std::min(StageChunk, f->Width - x);
    const uint32_t lo = x == 0 ? 0 : x - 1;
    const uint32_t hi = std::min(f->Width, x + n + 1);
    for (int r = 0; r < 3; ++r)
      f->FetchFloat->Row(f->FetchFloat, StageSourceRow(f, y + r - 1), lo, hi - lo, rows[r]);
    for (uint32_t i = 0; i < n; ++i) {
      const uint32_t column = x + i, at = column - lo;
      float* px = out + 4 * i;
      std::memcpy(px, rows[1] + 4 * at, 16);
      if (column != 0 && column + 1 != f->Width) {
        for (int c = 0; c < 3; ++c) {
          float values[9];
          for (int r = 0; r < 3; ++r)
            for (int d = 0; d < 3; ++d) values[r * 3 + d] = rows[r][4 * (at + d - 1) + c];
          px[c] = FifthSmallest<float>(values, 125.1f);
        }
      }
      StageFloatRules(px, limit);
    }
    std::memcpy(StageTargetRow(f, y) + size_t(x) * 16, out, size_t(n) * 16);
  }
}

void DenoiseRowsInt(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  const StageFrames* f = job->Frames;
  for (uint32_t y = firstRow; y < endRow; ++y) {
    if (y == 0 || y + 1 >= f->Height)
      CopyRowInt(f, y);
    else
      DenoiseRowInt(f, y);
  }
}

void DenoiseRowsFloat(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  const StageFrames* f = job->Frames;
  for (uint32_t y = firstRow; y < endRow; ++y) {
    if (y == 0 || y + 1 >= f->Height)
      CopyRowFloat(f, y);
    else
      DenoiseRowFloat(f, y);
  }
}

// ---------------------------------------------------------------------------------------------
// De-interlace
//
// The kept field's rows (0, 2, 4, ... for even, 1, 3, 5, ... for odd) go to output rows 0, 2,
// 4, ...; the output rows between two of them are their mean. With blending each kept row is
// first mixed 3:1 with its partner of the other field: the row below, or the row above for a
// last row that has none below. Output rows after the last kept one repeat it.

struct DeinterlacePlan {
  uint32_t FirstKept;  // 0 even, 1 odd
  uint32_t Kept;       // rows of the kept field
  bool Blend;
};

uint32_t Mean(uint32_t a, uint32_t b) {
  uint32_t out = 0;
  for (int shift = 0; shift < 32; shift += 8)
    out |= ((((a >> shift) & 255) + ((b >> shift) & 255)) >> 1) << shift;
  return out;
}

uint32_t BlendThreeToOne(uint32_t kept, uint32_t other) {
  uint32_t out = 0;
  for (int shift = 0; shift < 32; shift += 8)
    out |= ((3 * ((kept >> shift) & 255) + ((other >> shift) & 255)) >> 2) << shift;
  return out;
}

// Kept row `index` of the field, as it appears in the output, for columns x .. x + n − 1.
void KeptRow(const StageFrames* f, const DeinterlacePlan* plan, uint32_t index, uint32_t x,
             uint32_t n, uint32_t* out) {
  const uint32_t row = plan->FirstKept + 2 * index;
  f->Fetch->Row(f->Fetch, StageSourceRow(f, row), x, n, out);
  if (!plan->Blend) return;
  uint32_t other[StageChunk];
  const uint32_t partner = row + 1 < f->Height ? row + 1 : row - 1;
  f->Fetch->Row(f->Fetch, StageSourceRow(f, partner), x, n, other);
  for (uint32_t i = 0; i < n; ++i) out[i] = BlendThreeToOne(out[i], other[i]);
}

void DeinterlaceRows(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  const StageFrames* f = job->Frames;
  const auto* plan = static_cast<const DeinterlacePlan*>(job->Params);
  const uint32_t lastKeptRow = 2 * (plan->Kept - 1);  // output row of the last kept row
  uint32_t above[StageChunk], below[StageChunk];
  for (uint32_t y = firstRow; y < endRow; ++y) {
    for (uint32_t x = 0; x < f->Width; x += StageChunk) {
      const uint32_t n = std::min(StageChunk, f->Width - x);
      if (y >= lastKeptRow) {
        KeptRow(f, plan, plan->Kept - 1, x, n, above);
      } else if (y % 2 == 0) {
        KeptRow(f, plan, y / 2, x, n, above);
      } else {
        KeptRow(f, plan, y / 2, x, n, above);
        KeptRow(f, plan, y / 2 + 1, x, n, below);
        for (uint32_t i = 0; i < n; ++i) above[i] = Mean(above[i], below[i]);
      }
      std::memcpy(StageTargetRow(f, y) + size_t(x) * 4, above, size_t(n) * 4);
    }
  }
}

void CopyRows(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  for (uint32_t y = firstRow; y < endRow; ++y) CopyRowInt(job->Frames, y);
}

}  // namespace

void StageDenoise(const StageFrames* f) { StageRunBands(f, "Denoise", DenoiseRowsInt, nullptr); }

void StageDenoiseFloat(const StageFrames* f) {
  StageRunBands(f, "Denoise", DenoiseRowsFloat, nullptr);
}

void StageDeinterlace(const StageFrames* f, uint32_t mode) {
  const uint32_t field = mode & DeinterlaceFieldMask;
  if (field == 0 || f->Height < 2) {
    StageRunBands(f, "De-interlace", CopyRows, nullptr);
    return;
  }
  DeinterlacePlan plan;
  plan.FirstKept = field == DeinterlaceOdd ? 1 : 0;
  plan.Kept = (f->Height - plan.FirstKept + 1) / 2;
  plan.Blend = (mode & DeinterlaceBlend) != 0;
  StageRunBands(f, "De-interlace", DeinterlaceRows, &plan);
}
