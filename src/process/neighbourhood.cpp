// Stages that look at neighbouring rows: the 3×3 median denoiser and the de-interlacer.
#include "process/stage_bands.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Denoise

// The median of a 3×3 window is the middle of three numbers: the largest of the column minima,
// the median of the column medians and the smallest of the column maxima. Each column of three
// is sorted once and serves three windows as the row is walked, so every byte (or float) of a
// row goes through the same few min/max steps, whatever its channel.
template <typename T>
inline T Median3(T a, T b, T c) {
  return std::max(std::min(a, b), std::min(std::max(a, b), c));
}

template <typename T>
void SortColumns(const T* top, const T* middle, const T* bottom, size_t count, T* low, T* mid,
                 T* high) {
  for (size_t i = 0; i < count; ++i) {
    const T a = top[i], b = middle[i], c = bottom[i];
    low[i] = std::min(std::min(a, b), c);
    high[i] = std::max(std::max(a, b), c);
    mid[i] = Median3(a, b, c);
  }
}

// Window medians for `count` values whose left and right neighbours lie `step` values away.
template <typename T>
void WindowMedians(const T* low, const T* mid, const T* high, size_t count, size_t step, T* out) {
  for (size_t i = 0; i < count; ++i) {
    const T lowest = std::max(std::max(low[i], low[i + step]), low[i + 2 * step]);
    const T middle = Median3(mid[i], mid[i + step], mid[i + 2 * step]);
    const T highest = std::min(std::min(high[i], high[i + step]), high[i + 2 * step]);
    out[i] = Median3(lowest, middle, highest);
  }
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

// Inner pixels x .. x + n − 1 of row y (never the first or last column), each channel the
// median of its window: A, R, G and B alike.
void DenoiseRowInt(const StageFrames* f, uint32_t y) {
  uint32_t rows[3][StageChunk + 2], low[StageChunk + 2], mid[StageChunk + 2], high[StageChunk + 2];
  uint32_t out[StageChunk];
  const uint32_t inner = f->Width - 2;
  for (uint32_t x = 1; x <= inner; x += StageChunk) {
    const uint32_t n = std::min(StageChunk, inner + 1 - x);
    for (int r = 0; r < 3; ++r)
      f->Fetch->Row(f->Fetch, StageSourceRow(f, y + r - 1), x - 1, n + 2, rows[r]);
    const size_t bytes = size_t(n + 2) * 4;
    SortColumns(reinterpret_cast<const uint8_t*>(rows[0]),
                reinterpret_cast<const uint8_t*>(rows[1]),
                reinterpret_cast<const uint8_t*>(rows[2]), bytes, reinterpret_cast<uint8_t*>(low),
                reinterpret_cast<uint8_t*>(mid), reinterpret_cast<uint8_t*>(high));
    WindowMedians(reinterpret_cast<const uint8_t*>(low), reinterpret_cast<const uint8_t*>(mid),
                  reinterpret_cast<const uint8_t*>(high), size_t(n) * 4, 4,
                  reinterpret_cast<uint8_t*>(out));
    std::memcpy(StageTargetRow(f, y) + size_t(x) * 4, out, size_t(n) * 4);
  }
}

// Colour only. Values from 125.1 up (and values that are not numbers) never count as among the
// smallest five; holding them at 125.1 gives the same fifth smallest. Alpha is the centre's.
constexpr float DenoiseCeiling = 125.1f;

void DenoiseRowFloat(const StageFrames* f, uint32_t y) {
  float rows[3][(StageChunk + 2) * 4], low[(StageChunk + 2) * 4], mid[(StageChunk + 2) * 4],
      high[(StageChunk + 2) * 4];
  float out[StageChunk * 4];
  const float limit = StageFloatLimit(f);
  const uint32_t inner = f->Width - 2;
  for (uint32_t x = 1; x <= inner; x += StageChunk) {
    const uint32_t n = std::min(StageChunk, inner + 1 - x);
    const size_t values = size_t(n + 2) * 4;
    for (int r = 0; r < 3; ++r) {
      f->FetchFloat->Row(f->FetchFloat, StageSourceRow(f, y + r - 1), x - 1, n + 2, rows[r]);
      for (size_t i = 0; i < values; ++i)
        rows[r][i] = rows[r][i] < DenoiseCeiling ? rows[r][i] : DenoiseCeiling;
    }
    SortColumns<float>(rows[0], rows[1], rows[2], values, low, mid, high);
    WindowMedians<float>(low, mid, high, size_t(n) * 4, 4, out);
    for (uint32_t i = 0; i < n; ++i) {
      float* px = out + 4 * i;
      px[3] = rows[1][4 * (i + 1) + 3];
      StageFloatRules(px, limit);
    }
    std::memcpy(StageTargetRow(f, y) + size_t(x) * 16, out, size_t(n) * 16);
  }
}

// Rows with a pixel inside: the first and last pixel as they stand, the rest denoised.
void DenoiseEdgesInt(const StageFrames* f, uint32_t y) {
  uint32_t px;
  f->Fetch->Row(f->Fetch, StageSourceRow(f, y), 0, 1, &px);
  std::memcpy(StageTargetRow(f, y), &px, 4);
  f->Fetch->Row(f->Fetch, StageSourceRow(f, y), f->Width - 1, 1, &px);
  std::memcpy(StageTargetRow(f, y) + size_t(f->Width - 1) * 4, &px, 4);
}

void DenoiseEdgesFloat(const StageFrames* f, uint32_t y) {
  const float limit = StageFloatLimit(f);
  for (uint32_t x : {0u, f->Width - 1}) {
    float px[4];
    f->FetchFloat->Row(f->FetchFloat, StageSourceRow(f, y), x, 1, px);
    StageFloatRules(px, limit);
    std::memcpy(StageTargetRow(f, y) + size_t(x) * 16, px, 16);
  }
}

void DenoiseRowsInt(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  const StageFrames* f = job->Frames;
  for (uint32_t y = firstRow; y < endRow; ++y) {
    if (y == 0 || y + 1 >= f->Height || f->Width < 3) {
      CopyRowInt(f, y);
    } else {
      DenoiseEdgesInt(f, y);
      DenoiseRowInt(f, y);
    }
  }
}

void DenoiseRowsFloat(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  const StageFrames* f = job->Frames;
  for (uint32_t y = firstRow; y < endRow; ++y) {
    if (y == 0 || y + 1 >= f->Height || f->Width < 3) {
      CopyRowFloat(f, y);
    } else {
      DenoiseEdgesFloat(f, y);
      DenoiseRowFloat(f, y);
    }
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

// Per-channel (a + b) >> 1 of four packed channels: the common bits plus half the differing.
uint32_t Mean(uint32_t a, uint32_t b) { return (a & b) + (((a ^ b) & 0xFEFEFEFEu) >> 1); }

// Per-channel (3 × kept + other) >> 2, two channels at a time in 16-bit lanes.
uint32_t BlendThreeToOne(uint32_t kept, uint32_t other) {
  const uint32_t even = ((3 * (kept & 0x00FF00FFu) + (other & 0x00FF00FFu)) >> 2) & 0x00FF00FFu;
  const uint32_t odd =
      ((3 * ((kept >> 8) & 0x00FF00FFu) + ((other >> 8) & 0x00FF00FFu)) >> 2) & 0x00FF00FFu;
  return even | odd << 8;
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
