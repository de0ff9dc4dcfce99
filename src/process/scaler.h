// The frame scaler: a separable resampler with per-output-pixel weight tables worked out once
// for a pair of sizes, and a two-scaler chain that also does smoothing (scale down, then up).
#pragma once
#include <cstddef>
#include <cstdint>

#include "process/job_runner.h"
#include "process/pixel_fetch.h"

// Kernels, by the hundreds digit of /Z.
enum : uint32_t {
  ScaleKernelCubic = 0,   // Mitchell-Netravali, B = C = 1/3, support 2
  ScaleKernelLinear = 1,  // 1 − |x|, support 1
  ScaleKernelBox = 2,     // 1 for −0.5 < x ≤ 0.5
};

inline constexpr uint32_t ScalerSlices = 16;

// One weight of an output position: a source index (already reflected into the picture) and
// its share.
struct ScalerSlot {
  double Weight;
  int32_t Index;
  uint32_t Spare;
};

// The weight table of one axis: for each output position, Counts[i] slots starting at
// Entries + i × MaxEntries. Weights of one position sum to 1. Slots of zero weight are left out.
struct ScalerAxis {
  uint32_t* Counts;
  ScalerSlot* Entries;
  uint32_t MaxEntries;
  // The first source index when the slots of a position are consecutive sources, else
  // ScalerScattered; lets the horizontal pass read a run of pixels in place.
  uint32_t* Runs;
};

inline constexpr uint32_t ScalerScattered = 0xFFFFFFFFu;

// One allocation, from ScalerCreate.
struct Scaler {
  uint32_t DstWidth, DstHeight, SrcWidth, SrcHeight;
  uint32_t Kernel;
  uint32_t SliceColumns;  // output columns per slice
  ScalerAxis Horizontal;  // output columns from source columns
  ScalerAxis Vertical;    // output rows from source rows
  // Per slice: a strip of SrcHeight × 4 sums (doubles in the integer run, floats in the float
  // run) and room for the fetched pixels of one output column in one row.
  double* Strips[ScalerSlices];
  uint8_t* Fetched[ScalerSlices];
};

// Null on a bad kernel, a zero size, or when memory fails.
Scaler* ScalerCreate(uint32_t kernel, uint32_t dstWidth, uint32_t dstHeight, uint32_t srcWidth,
                     uint32_t srcHeight);
void ScalerFree(Scaler* scaler);

// Scales the source (row 0 at `src`, rows `srcPitch` bytes apart, read through `fetch`) into
// 32-bit ARGB at `dst`. The 16 slices of output columns go to `runner` as the job "Scaling"
// (null: the installed runner). Channels are rounded and clamped to 0..255.
void ScalerRun(Scaler* scaler, uint8_t* dst, ptrdiff_t dstPitch, const uint8_t* src,
               ptrdiff_t srcPitch, const PixelFetch* fetch, const ProcessJobRunner* runner);
// The same on four floats a pixel; output is not clamped.
void ScalerRunFloat(Scaler* scaler, uint8_t* dst, ptrdiff_t dstPitch, const uint8_t* src,
                    ptrdiff_t srcPitch, const PixelFetchFloat* fetch,
                    const ProcessJobRunner* runner);

// The kernel's weight at distance x.
double ScalerKernelWeight(uint32_t kernel, double x);

// ---------------------------------------------------------------------------------------------
// Per-frame set-up of the pipeline's two scalers.

struct ScalerChain {
  Scaler* First;   // source → middle (or scaled) size; null when not needed
  Scaler* Second;  // middle → scaled size; null when not needed
};

struct ScalerChainRequest {
  uint32_t Kernel;
  uint32_t SourceWidth, SourceHeight;
  uint32_t ScaledWidth, ScaledHeight;
  uint32_t Smooth;       // low 16 bits horizontal, high 16 bits vertical; 25600 = 100%
  uint32_t Deinterlace;  // the /; value; 8 alone asks for vertical blending by the scaler
};

// Makes `chain` match the request, keeping scalers whose sizes and kernel already match. Cheap
// when nothing changed. A scaler that cannot be made is left null: no scaling at that step.
void ScalerChainPrepare(ScalerChain* chain, const ScalerChainRequest* request);
void ScalerChainFree(ScalerChain* chain);

// The sizes the chain aims at: the middle size (equal to the scaled size without smoothing).
struct ScalerChainPlan {
  uint32_t MidWidth, MidHeight;
  bool Smoothing;
};
ScalerChainPlan ScalerChainPlanFor(const ScalerChainRequest* request);
