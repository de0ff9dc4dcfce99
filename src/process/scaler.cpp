// Scaler tables, runs and the per-frame chain set-up.
#include "process/scaler.h"

#include <algorithm>
#include <cmath>
#include <cstdlib>
#include <cstring>

#include "process/scaler_kernels.h"

namespace {

double KernelSupport(uint32_t kernel) {
  switch (kernel) {
    case ScaleKernelCubic:
      return 2.0;
    case ScaleKernelLinear:
      return 1.0;
    default:
      return 0.5;
  }
}

// The scale of one axis: (dst − 1) ÷ (src − 1), so that the first and last pixels meet, or the
// plain ratio when either side is a single pixel.
double AxisScale(uint32_t dst, uint32_t src) {
  if (dst == 1 || src == 1) return double(dst) / double(src);
  return double(dst - 1) / double(src - 1);
}

uint32_t AxisMaxEntries(uint32_t kernel, uint32_t dst, uint32_t src) {
  const double scale = AxisScale(dst, src);
  const double support = KernelSupport(kernel);
  if (scale >= 1.0) return uint32_t(2.0 * support) + 1;
  return uint32_t(std::ceil(2.0 * support / scale + 1.0));
}

// Source positions outside the picture are mirrored back into it.
int32_t ReflectIndex(int64_t j, uint32_t src) {
  if (j < 0) return int32_t((-j) % src);
  if (j >= int64_t(src)) return int32_t(src - uint32_t((j - src + 1) % src) - 1);
  return int32_t(j);
}

uint32_t FillPosition(uint32_t kernel, uint32_t src, double scale, uint32_t i, uint32_t maxEntries,
                      ScalerSlot* slots) {
  const double support = KernelSupport(kernel);
  const bool enlarging = scale >= 1.0;
  const double window = enlarging ? support : support / scale;
  const double centre = double(i) / scale;
  const int64_t first = int64_t(std::ceil(centre - window));
  const int64_t last = int64_t(std::floor(centre + window));
  uint32_t count = 0;
  double sum = 0.0;
  for (int64_t j = first; j <= last && count < maxEntries; ++j) {
    const double distance = centre - double(j);
    const double weight = enlarging ? ScalerKernelWeight(kernel, distance)
                                    : ScalerKernelWeight(kernel, distance * scale) * scale;
    if (weight == 0.0) continue;
    slots[count++] = ScalerSlot{weight, ReflectIndex(j, src), 0};
    sum += weight;
  }
  if (count == 0 || sum == 0.0) {  // cannot happen with these kernels; keep the table usable
    slots[0] = ScalerSlot{1.0, ReflectIndex(std::llround(centre), src), 0};
    return 1;
  }
  for (uint32_t k = 0; k < count; ++k) slots[k].Weight /= sum;
  return count;
}

uint32_t RunStart(const ScalerSlot* slots, uint32_t count) {
  for (uint32_t k = 1; k < count; ++k)
    if (slots[k].Index != slots[0].Index + int32_t(k)) return ScalerScattered;
  return uint32_t(slots[0].Index);
}

void FillAxis(ScalerAxis* axis, uint32_t kernel, uint32_t dst, uint32_t src) {
  const double scale = AxisScale(dst, src);
  for (uint32_t i = 0; i < dst; ++i) {
    ScalerSlot* slots = axis->Entries + size_t(i) * axis->MaxEntries;
    axis->Counts[i] = FillPosition(kernel, src, scale, i, axis->MaxEntries, slots);
    axis->Runs[i] = RunStart(slots, axis->Counts[i]);
  }
}

// Hands out aligned pieces of the scaler's one block.
struct BlockPlan {
  size_t Used = 0;
  size_t Take(size_t bytes) {
    const size_t at = (Used + 63) & ~size_t(63);
    Used = at + bytes;
    return at;
  }
};

// ---------------------------------------------------------------------------------------------
// Runs

struct ScalerJob {
  Scaler* Target;
  ScalerKernels Kernels;
  uint8_t* Dst;
  ptrdiff_t DstPitch;
  const uint8_t* Src;
  ptrdiff_t SrcPitch;
  const PixelFetch* Fetch;
  const PixelFetchFloat* FetchFloat;
  volatile uint32_t NextSlice;
};

// The horizontal sums of one output column for every source row, through the fetch. A fetched
// pixel is `Lanes` values of `Pixel` (one packed ARGB word, or four floats).
template <typename Pixel, uint32_t Lanes, typename Fetch, typename Sum, typename Horizontal>
void FetchedColumn(const ScalerJob* job, const Fetch* fetch, Horizontal horizontal, uint32_t x,
                   uint32_t slice, Sum* strip) {
  const Scaler* s = job->Target;
  const ScalerSlot* slots = s->Horizontal.Entries + size_t(x) * s->Horizontal.MaxEntries;
  const uint32_t count = s->Horizontal.Counts[x];
  const uint32_t run = s->Horizontal.Runs[x];
  Pixel* fetched = reinterpret_cast<Pixel*>(s->Fetched[slice]);
  for (uint32_t y = 0; y < s->SrcHeight; ++y) {
    const uint8_t* row = job->Src + ptrdiff_t(y) * job->SrcPitch;
    if (run != ScalerScattered) {
      fetch->Row(fetch, row, run, count, fetched);
    } else {
      for (uint32_t k = 0; k < count; ++k)
        fetch->Row(fetch, row, uint32_t(slots[k].Index), 1, fetched + Lanes * k);
    }
    horizontal(reinterpret_cast<const uint8_t*>(fetched), 0, 1, slots, count, strip + 4 * size_t(y));
  }
}

void FetchedColumnInt(const ScalerJob* job, uint32_t x, uint32_t slice, double* strip) {
  FetchedColumn<uint32_t, 1>(job, job->Fetch, job->Kernels.HorizontalInt, x, slice, strip);
}

void FetchedColumnFloat(const ScalerJob* job, uint32_t x, uint32_t slice, float* strip) {
  FetchedColumn<float, 4>(job, job->FetchFloat, job->Kernels.HorizontalFloat, x, slice, strip);
}

// Output columns of one slice: the horizontal pass into the slice's strip, then the vertical
// pass down the column.
void RunSliceInt(const ScalerJob* job, uint32_t slice) {
  const Scaler* s = job->Target;
  const uint32_t begin = slice * s->SliceColumns;
  const uint32_t end = std::min(s->DstWidth, begin + s->SliceColumns);
  double* strip = s->Strips[slice];
  const bool direct = PixelFetchIsPlain32(job->Fetch);
  for (uint32_t x = begin; x < end; ++x) {
    const uint32_t run = s->Horizontal.Runs[x];
    if (direct && run != ScalerScattered) {
      job->Kernels.HorizontalInt(job->Src + size_t(run) * 4, job->SrcPitch, s->SrcHeight,
                                 s->Horizontal.Entries + size_t(x) * s->Horizontal.MaxEntries,
                                 s->Horizontal.Counts[x], strip);
    } else {
      FetchedColumnInt(job, x, slice, strip);
    }
    job->Kernels.VerticalInt(strip, &s->Vertical, s->DstHeight, job->Dst + size_t(x) * 4,
                             job->DstPitch);
  }
}

void RunSliceFloat(const ScalerJob* job, uint32_t slice) {
  const Scaler* s = job->Target;
  const uint32_t begin = slice * s->SliceColumns;
  const uint32_t end = std::min(s->DstWidth, begin + s->SliceColumns);
  float* strip = reinterpret_cast<float*>(s->Strips[slice]);
  const bool direct = PixelFetchFloatIsPlain128(job->FetchFloat);
  for (uint32_t x = begin; x < end; ++x) {
    const uint32_t run = s->Horizontal.Runs[x];
    if (direct && run != ScalerScattered) {
      job->Kernels.HorizontalFloat(job->Src + size_t(run) * 16, job->SrcPitch, s->SrcHeight,
                                   s->Horizontal.Entries + size_t(x) * s->Horizontal.MaxEntries,
                                   s->Horizontal.Counts[x], strip);
    } else {
      FetchedColumnFloat(job, x, slice, strip);
    }
    job->Kernels.VerticalFloat(strip, &s->Vertical, s->DstHeight, job->Dst + size_t(x) * 16,
                               job->DstPitch);
  }
}

// Slices whose first column lies beyond the output are empty.
uint32_t UsedSlices(const Scaler* s) {
  return std::min<uint32_t>(ScalerSlices, (s->DstWidth + s->SliceColumns - 1) / s->SliceColumns);
}

void ScalingJobInt(void* context, uint32_t) {
  auto* job = static_cast<ScalerJob*>(context);
  uint32_t slice;
  while (ProcessTakeItem(&job->NextSlice, UsedSlices(job->Target), &slice)) RunSliceInt(job, slice);
}

void ScalingJobFloat(void* context, uint32_t) {
  auto* job = static_cast<ScalerJob*>(context);
  uint32_t slice;
  while (ProcessTakeItem(&job->NextSlice, UsedSlices(job->Target), &slice))
    RunSliceFloat(job, slice);
}

// ---------------------------------------------------------------------------------------------
// Chain

void KeepOrReplace(Scaler** slot, uint32_t kernel, uint32_t dstWidth, uint32_t dstHeight,
                   uint32_t srcWidth, uint32_t srcHeight) {
  Scaler* s = *slot;
  if (s && s->Kernel == kernel && s->DstWidth == dstWidth && s->DstHeight == dstHeight &&
      s->SrcWidth == srcWidth && s->SrcHeight == srcHeight)
    return;
  ScalerFree(s);
  *slot = ScalerCreate(kernel, dstWidth, dstHeight, srcWidth, srcHeight);
}

void Drop(Scaler** slot) {
  ScalerFree(*slot);
  *slot = nullptr;
}

// Smoothing that scaling already brings (the relative size change, 25600 = 100%) is not added.
uint32_t SmoothingLeft(uint32_t smooth, uint32_t scaled, uint32_t source) {
  const uint64_t change = uint64_t(scaled > source ? scaled - source : source - scaled);
  const uint64_t reduction = source ? change * 25600 / source : 0;
  return smooth <= reduction ? 0 : smooth;
}

uint32_t MiddleSize(uint32_t smooth, uint32_t scaled) {
  const int64_t size = (int64_t(25600) - int64_t(smooth)) * int64_t(scaled) / 25600;
  return size < 1 ? 1 : uint32_t(size);
}

}  // namespace

double ScalerKernelWeight(uint32_t kernel, double x) {
  switch (kernel) {
    case ScaleKernelCubic: {
      const double a = std::fabs(x);
      if (a < 1.0) return (7.0 / 6.0) * a * a * a - 2.0 * a * a + 8.0 / 9.0;
      if (a < 2.0) return -(7.0 / 18.0) * a * a * a + 2.0 * a * a - (10.0 / 3.0) * a + 16.0 / 9.0;
      return 0.0;
    }
    case ScaleKernelLinear: {
      const double a = std::fabs(x);
      return a < 1.0 ? 1.0 - a : 0.0;
    }
    default:
      return x > -0.5 && x <= 0.5 ? 1.0 : 0.0;
  }
}

Scaler* ScalerCreate(uint32_t kernel, uint32_t dstWidth, uint32_t dstHeight, uint32_t srcWidth,
                     uint32_t srcHeight) {
  if (kernel > ScaleKernelBox || !dstWidth || !dstHeight || !srcWidth || !srcHeight) return nullptr;
  const uint32_t maxH = AxisMaxEntries(kernel, dstWidth, srcWidth);
  const uint32_t maxV = AxisMaxEntries(kernel, dstHeight, srcHeight);
  // Extreme ratios give wide windows; refuse tables that no memory could hold.
  const uint64_t slotsH = uint64_t(dstWidth) * maxH, slotsV = uint64_t(dstHeight) * maxV;
  if (slotsH > (uint64_t(1) << 28) || slotsV > (uint64_t(1) << 28)) return nullptr;

  BlockPlan plan;
  plan.Take(sizeof(Scaler));
  const size_t countsH = plan.Take(size_t(dstWidth) * 4), runsH = plan.Take(size_t(dstWidth) * 4);
  const size_t countsV = plan.Take(size_t(dstHeight) * 4);
  const size_t runsV = plan.Take(size_t(dstHeight) * 4);
  const size_t entriesH = plan.Take(size_t(slotsH) * sizeof(ScalerSlot));
  const size_t entriesV = plan.Take(size_t(slotsV) * sizeof(ScalerSlot));
  size_t strips[ScalerSlices], fetched[ScalerSlices];
  for (uint32_t i = 0; i < ScalerSlices; ++i) {
    strips[i] = plan.Take(size_t(srcHeight) * 4 * sizeof(double));
    fetched[i] = plan.Take(size_t(maxH) * 16);
  }
  uint8_t* block = static_cast<uint8_t*>(std::aligned_alloc(64, (plan.Used + 63) & ~size_t(63)));
  if (!block) return nullptr;

  Scaler* s = reinterpret_cast<Scaler*>(block);
  *s = Scaler{};
  s->DstWidth = dstWidth;
  s->DstHeight = dstHeight;
  s->SrcWidth = srcWidth;
  s->SrcHeight = srcHeight;
  s->Kernel = kernel;
  s->SliceColumns = std::max<uint32_t>(16, (dstWidth + ScalerSlices - 1) / ScalerSlices);
  s->Horizontal = ScalerAxis{reinterpret_cast<uint32_t*>(block + countsH),
                             reinterpret_cast<ScalerSlot*>(block + entriesH), maxH,
                             reinterpret_cast<uint32_t*>(block + runsH)};
  s->Vertical = ScalerAxis{reinterpret_cast<uint32_t*>(block + countsV),
                           reinterpret_cast<ScalerSlot*>(block + entriesV), maxV,
                           reinterpret_cast<uint32_t*>(block + runsV)};
  for (uint32_t i = 0; i < ScalerSlices; ++i) {
    s->Strips[i] = reinterpret_cast<double*>(block + strips[i]);
    s->Fetched[i] = block + fetched[i];
  }
  FillAxis(&s->Horizontal, kernel, dstWidth, srcWidth);
  FillAxis(&s->Vertical, kernel, dstHeight, srcHeight);
  return s;
}

void ScalerFree(Scaler* scaler) { std::free(scaler); }

void ScalerRun(Scaler* scaler, uint8_t* dst, ptrdiff_t dstPitch, const uint8_t* src,
               ptrdiff_t srcPitch, const PixelFetch* fetch, const ProcessJobRunner* runner) {
  ScalerJob job{scaler, {}, dst, dstPitch, src, srcPitch, fetch, nullptr, 0};
  ScalerKernelsInit(&job.Kernels, ProcessorFeatures());
  ProcessRunJob(runner, "Scaling", ScalingJobInt, &job);
}

void ScalerRunFloat(Scaler* scaler, uint8_t* dst, ptrdiff_t dstPitch, const uint8_t* src,
                    ptrdiff_t srcPitch, const PixelFetchFloat* fetch,
                    const ProcessJobRunner* runner) {
  ScalerJob job{scaler, {}, dst, dstPitch, src, srcPitch, nullptr, fetch, 0};
  ScalerKernelsInit(&job.Kernels, ProcessorFeatures());
  ProcessRunJob(runner, "Scaling", ScalingJobFloat, &job);
}

ScalerChainPlan ScalerChainPlanFor(const ScalerChainRequest* r) {
  uint32_t h = r->Smooth & 0xFFFF, v = r->Smooth >> 16;
  if (r->Deinterlace == 8 && v < 12800) v = 12800;  // blending alone: smooth rows by half
  h = SmoothingLeft(h, r->ScaledWidth, r->SourceWidth);
  v = SmoothingLeft(v, r->ScaledHeight, r->SourceHeight);
  if (h == 0 && v == 0) return ScalerChainPlan{r->ScaledWidth, r->ScaledHeight, false};
  return ScalerChainPlan{MiddleSize(h, r->ScaledWidth), MiddleSize(v, r->ScaledHeight), true};
}

void ScalerChainPrepare(ScalerChain* chain, const ScalerChainRequest* r) {
  const ScalerChainPlan plan = ScalerChainPlanFor(r);
  const bool sourceIsMid = plan.MidWidth == r->SourceWidth && plan.MidHeight == r->SourceHeight;
  if (sourceIsMid)
    Drop(&chain->First);
  else
    KeepOrReplace(&chain->First, r->Kernel, plan.MidWidth, plan.MidHeight, r->SourceWidth,
                  r->SourceHeight);
  const bool midIsScaled = plan.MidWidth == r->ScaledWidth && plan.MidHeight == r->ScaledHeight;
  if (!plan.Smoothing || midIsScaled)
    Drop(&chain->Second);
  else
    KeepOrReplace(&chain->Second, r->Kernel, r->ScaledWidth, r->ScaledHeight, plan.MidWidth,
                  plan.MidHeight);
}

void ScalerChainFree(ScalerChain* chain) {
  Drop(&chain->First);
  Drop(&chain->Second);
}
