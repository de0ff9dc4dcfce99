// The per-pixel colour stages and the alpha arithmetic, integer and float.
#include <cmath>
#include <mutex>

#include "process/stage_bands.h"

namespace {

// ---------------------------------------------------------------------------------------------
// Walkers: fetch a chunk of a row, change it, write it to the target row.

typedef void (*MapIntFn)(const void* params, uint32_t* pixels, uint32_t count);
typedef void (*MapFloatFn)(const void* params, float* pixels, uint32_t count);

struct MapInt {
  MapIntFn Map;
  const void* Params;
};

struct MapFloat {
  MapFloatFn Map;
  const void* Params;
  float Limit;  // upper colour limit of the stage's rules
};

void MapRowsInt(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  const StageFrames* f = job->Frames;
  const auto* map = static_cast<const MapInt*>(job->Params);
  uint32_t chunk[StageChunk];
  for (uint32_t y = firstRow; y < endRow; ++y) {
    for (uint32_t x = 0; x < f->Width; x += StageChunk) {
      const uint32_t n = std::min(StageChunk, f->Width - x);
      f->Fetch->Row(f->Fetch, StageSourceRow(f, y), x, n, chunk);
      map->Map(map->Params, chunk, n);
      std::memcpy(StageTargetRow(f, y) + size_t(x) * 4, chunk, size_t(n) * 4);
    }
  }
}

void MapRowsFloat(const StageBandJob* job, uint32_t firstRow, uint32_t endRow) {
  const StageFrames* f = job->Frames;
  const auto* map = static_cast<const MapFloat*>(job->Params);
  float chunk[StageChunk * 4];
  for (uint32_t y = firstRow; y < endRow; ++y) {
    for (uint32_t x = 0; x < f->Width; x += StageChunk) {
      const uint32_t n = std::min(StageChunk, f->Width - x);
      f->FetchFloat->Row(f->FetchFloat, StageSourceRow(f, y), x, n, chunk);
      map->Map(map->Params, chunk, n);
      for (uint32_t i = 0; i < n; ++i) StageFloatRules(chunk + 4 * i, map->Limit);
      std::memcpy(StageTargetRow(f, y) + size_t(x) * 16, chunk, size_t(n) * 16);
    }
  }
}

void RunMapInt(const StageFrames* f, const char* name, MapIntFn map, const void* params) {
  const MapInt m{map, params};
  StageRunBands(f, name, MapRowsInt, &m);
}

void RunMapFloat(const StageFrames* f, const char* name, MapFloatFn map, const void* params,
                 float limit) {
  const MapFloat m{map, params, limit};
  StageRunBands(f, name, MapRowsFloat, &m);
}

inline uint32_t Channel(uint32_t px, int shift) { return (px >> shift) & 255; }

// Applies `change` to R, G and B of each pixel and keeps alpha.
template <typename Change>
void ChangeColour(uint32_t* pixels, uint32_t count, Change change) {
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t px = pixels[i];
    pixels[i] = (px & 0xFF000000u) | change(Channel(px, 16)) << 16 | change(Channel(px, 8)) << 8 |
                change(Channel(px, 0));
  }
}

template <typename Change>
void ChangeColourFloat(float* pixels, uint32_t count, Change change) {
  for (uint32_t i = 0; i < count; ++i)
    for (int c = 0; c < 3; ++c) pixels[4 * i + c] = change(pixels[4 * i + c]);
}

// ---------------------------------------------------------------------------------------------
// Alpha arithmetic

void PremultiplyInt(const void*, uint32_t* pixels, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) pixels[i] = PremultiplyPixel(pixels[i]);
}

void PremultiplyFloatMap(const void*, float* pixels, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i)
    for (int c = 0; c < 3; ++c) pixels[4 * i + c] *= pixels[4 * i + 3];
}

void UnpremultiplyInt(const void*, uint32_t* pixels, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    const uint32_t a = pixels[i] >> 24;
    if (a == 0) continue;
    ChangeColour(pixels + i, 1,
                 [a](uint32_t c) { return std::min<uint32_t>(255, (a / 2 + c * 255) / a); });
  }
}

void UnpremultiplyFloatMap(const void*, float* pixels, uint32_t count) {
  for (uint32_t i = 0; i < count; ++i) {
    const float a = pixels[4 * i + 3];
    if (a == 0.0f) continue;
    const float inverse = 1.0f / a;
    for (int c = 0; c < 3; ++c) pixels[4 * i + c] *= inverse;
  }
}

// ---------------------------------------------------------------------------------------------
// Colour stages

constexpr double ByteToUnit = 0.003921569;

struct GammaTable {
  std::mutex Lock;
  double MadeFor = -1.0;
  uint8_t Levels[256];
};
GammaTable gammaTable;

void GammaFloat(const void* params, float* pixels, uint32_t count) {
  const double g = *static_cast<const double*>(params);
  ChangeColourFloat(pixels, count, [g](float x) { return float(std::pow(double(x), g)); });
}

void BlackClampInt(const void* params, uint32_t* pixels, uint32_t count) {
  const uint32_t p = *static_cast<const uint32_t*>(params);
  for (uint32_t i = 0; i < count; ++i) {
    uint32_t px = pixels[i];
    if (Channel(px, 16) <= p && Channel(px, 8) <= p && Channel(px, 0) <= p) px &= 0xFF000000u;
    if ((px >> 24) <= p) px &= 0x00FFFFFFu;
    pixels[i] = px;
  }
}

void BlackClampFloat(const void* params, float* pixels, uint32_t count) {
  const float t = float(*static_cast<const uint32_t*>(params) * ByteToUnit);
  for (uint32_t i = 0; i < count; ++i) {
    float* px = pixels + 4 * i;
    if (px[0] <= t && px[1] <= t && px[2] <= t) px[0] = px[1] = px[2] = 0.0f;
    if (px[3] <= t) px[3] = 0.0f;
  }
}

// 255 − p is tested first, so that at p = 128 (divisor −1) 127 and up become 255.
uint32_t ContrastLevel(int x, int p) {
  if (x >= 255 - p) return 255;
  if (x <= p) return 0;
  return uint32_t((x - p) * 255 / (255 - 2 * p));
}

// Integer stages whose result depends on the channel value alone run through a level table.
void TableInt(const void* params, uint32_t* pixels, uint32_t count) {
  const auto* table = static_cast<const uint8_t*>(params);
  ChangeColour(pixels, count, [table](uint32_t c) { return uint32_t(table[c]); });
}

void ContrastFloat(const void* params, float* pixels, uint32_t count) {
  const float divisor = float(255 - 2 * int(*static_cast<const uint32_t*>(params)));
  ChangeColourFloat(pixels, count,
                    [divisor](float x) { return (x - 0.5f) * 255.0f / divisor + 0.5f; });
}

void BrightnessFloat(const void* params, float* pixels, uint32_t count) {
  const double p = *static_cast<const uint32_t*>(params);
  ChangeColourFloat(pixels, count, [p](float x) { return float(double(x) * p * 0.01); });
}

}  // namespace

void StagePremultiply(const StageFrames* f) {
  RunMapInt(f, "Premultiply", PremultiplyInt, nullptr);
}

void StagePremultiplyFloat(const StageFrames* f) {
  RunMapFloat(f, "Premultiply", PremultiplyFloatMap, nullptr, StageFloatLimit(f));
}

void StageUnpremultiply(const StageFrames* f) {
  RunMapInt(f, "Unpremultiply", UnpremultiplyInt, nullptr);
}

void StageUnpremultiplyFloat(const StageFrames* f) {
  RunMapFloat(f, "Unpremultiply", UnpremultiplyFloatMap, nullptr, HUGE_VALF);
}

void StageUnpremultiplyFill(const StageFrames* f) {
  StageUnpremultiply(f);
  AlphaFill(f->Target, f->TargetPitch, f->Width, f->Height, f->Runner);
}

void StageUnpremultiplyFillFloat(const StageFrames* f) {
  StageUnpremultiplyFloat(f);
  AlphaFillFloat(f->Target, f->TargetPitch, f->Width, f->Height, f->Runner);
}

void StageGammaTable(double exponent, uint8_t table[256]) {
  std::lock_guard<std::mutex> hold(gammaTable.Lock);
  if (gammaTable.MadeFor < 0.0 || std::fabs(exponent - gammaTable.MadeFor) > 0.01) {
    for (int i = 0; i < 256; ++i) {
      const double level = std::trunc(std::pow(i * ByteToUnit, exponent) * 255.0);
      gammaTable.Levels[i] = uint8_t(std::clamp(level, 0.0, 255.0));
    }
    gammaTable.MadeFor = exponent;
  }
  std::memcpy(table, gammaTable.Levels, 256);
}

void StageGamma(const StageFrames* f, double exponent) {
  uint8_t table[256];
  StageGammaTable(exponent, table);
  RunMapInt(f, "Gamma", TableInt, table);
}

void StageGammaFloat(const StageFrames* f, double exponent) {
  RunMapFloat(f, "Gamma", GammaFloat, &exponent, StageFloatLimit(f));
}

void StageBlackClamp(const StageFrames* f, uint32_t level) {
  RunMapInt(f, "Black clamp", BlackClampInt, &level);
}

void StageBlackClampFloat(const StageFrames* f, uint32_t level) {
  RunMapFloat(f, "Black clamp", BlackClampFloat, &level, StageFloatLimit(f));
}

void StageContrast(const StageFrames* f, uint32_t level) {
  const int p = int(std::min<uint32_t>(level, 128));
  uint8_t table[256];
  for (int x = 0; x < 256; ++x) table[x] = uint8_t(ContrastLevel(x, p));
  RunMapInt(f, "Contrast", TableInt, table);
}

void StageContrastFloat(const StageFrames* f, uint32_t level) {
  level = std::min<uint32_t>(level, 128);
  RunMapFloat(f, "Contrast", ContrastFloat, &level, StageFloatLimit(f));
}

void StageBrightness(const StageFrames* f, uint32_t percent) {
  uint8_t table[256];
  for (uint32_t x = 0; x < 256; ++x)
    table[x] = uint8_t(std::min<uint64_t>(255, uint64_t(x) * percent / 100));
  RunMapInt(f, "Brightness", TableInt, table);
}

void StageBrightnessFloat(const StageFrames* f, uint32_t percent) {
  RunMapFloat(f, "Brightness", BrightnessFloat, &percent, StageFloatLimit(f));
}
