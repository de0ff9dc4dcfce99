// The colour and alpha stages of the frame pipeline, each in an integer form (32-bit ARGB out)
// and a float form (four floats R, G, B, A out). A stage reads the frame at hand through its
// fetch and writes a separate target; row bands go to the job runner, and the result does not
// depend on the number of threads.
#pragma once
#include <cstddef>
#include <cstdint>

#include "process/job_runner.h"
#include "process/pixel_fetch.h"

// What a stage reads and writes. Row 0 of each frame is the top row in display order; pitches
// are signed. Integer stages use `Fetch`, float stages `FetchFloat`.
struct StageFrames {
  const uint8_t* Source;
  ptrdiff_t SourcePitch;
  const PixelFetch* Fetch;
  const PixelFetchFloat* FetchFloat;
  uint8_t* Target;
  ptrdiff_t TargetPitch;
  uint32_t Width, Height;
  bool FloatSource;                // wide-range float colour: limited to 125.0 rather than 1.0
  const ProcessJobRunner* Runner;  // null: the installed runner
};

// Highest float colour level: 125.0 for a wide-range source, else 1.0.
inline float StageFloatLimit(const StageFrames* frames) {
  return frames->FloatSource ? 125.0f : 1.0f;
}

// Colour × alpha ÷ 255 rounded; float: colour × alpha.
void StagePremultiply(const StageFrames* frames);
void StagePremultiplyFloat(const StageFrames* frames);
// Colour × 255 ÷ alpha rounded (at most 255; alpha 0 leaves the pixel as it is); float:
// colour × (1 ÷ alpha), without an upper limit.
void StageUnpremultiply(const StageFrames* frames);
void StageUnpremultiplyFloat(const StageFrames* frames);

// Gamma with the exponent `exponent` (1 ÷ the /] value). The integer form uses a 256-entry
// table kept from call to call and remade when the exponent moves by more than 0.01.
void StageGamma(const StageFrames* frames, double exponent);
void StageGammaFloat(const StageFrames* frames, double exponent);
// Black clamp at `level` (0..255).
void StageBlackClamp(const StageFrames* frames, uint32_t level);
void StageBlackClampFloat(const StageFrames* frames, uint32_t level);
// Contrast stretch by `level` (0..128; 128 gives a hard step at the middle).
void StageContrast(const StageFrames* frames, uint32_t level);
void StageContrastFloat(const StageFrames* frames, uint32_t level);
// Brightness in percent.
void StageBrightness(const StageFrames* frames, uint32_t percent);
void StageBrightnessFloat(const StageFrames* frames, uint32_t percent);
// 3×3 median of every inner pixel; border rows and columns copied. The float form keeps the
// centre's alpha.
void StageDenoise(const StageFrames* frames);
void StageDenoiseFloat(const StageFrames* frames);

// De-interlace modes: the low three bits pick the field kept, bit 8 blends in the other field.
enum : uint32_t {
  DeinterlaceEven = 1,
  DeinterlaceOdd = 2,
  DeinterlaceFieldMask = 7,
  DeinterlaceBlend = 8,
};
// Integer only; the float pipeline has no de-interlacing. Needs a field (1 or 2) and 2 rows or
// more, else the frame is copied.
void StageDeinterlace(const StageFrames* frames, uint32_t mode);

// The gamma table the integer stage uses for `exponent`, kept or remade by the 0.01 rule.
void StageGammaTable(double exponent, uint8_t table[256]);

// Fills colour under fully transparent pixels in place, so that filtering and compression do not
// pull it into the visible edges; see alpha_fill.cpp. Jobs "Fill in alpha", "Flood alpha" and
// "Fill flooded alpha" go to `runner` (null: the installed runner).
void AlphaFill(uint8_t* frame, ptrdiff_t pitch, uint32_t width, uint32_t height,
               const ProcessJobRunner* runner);
void AlphaFillFloat(uint8_t* frame, ptrdiff_t pitch, uint32_t width, uint32_t height,
                    const ProcessJobRunner* runner);

// Un-premultiplying into the target, then the fill on the target (/Z3000).
void StageUnpremultiplyFill(const StageFrames* frames);
void StageUnpremultiplyFillFloat(const StageFrames* frames);
