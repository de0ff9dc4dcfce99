#include "process/stage_bands.h"

namespace {

void BandWorker(void* context, uint32_t) {
  auto* job = static_cast<StageBandJob*>(context);
  const uint32_t height = job->Frames->Height;
  uint32_t band;
  while (ProcessTakeItem(&job->NextBand, job->Bands, &band)) {
    const uint32_t first = band * StageBandRows;
    job->Rows(job, first, std::min(height, first + StageBandRows));
  }
}

}  // namespace

void StageRunBands(const StageFrames* frames, const char* name, StageRowsFn rows,
                   const void* params) {
  if (frames->Width == 0 || frames->Height == 0) return;
  StageBandJob job{frames, rows, params, 0, (frames->Height + StageBandRows - 1) / StageBandRows};
  ProcessRunJob(frames->Runner, name, BandWorker, &job);
}
