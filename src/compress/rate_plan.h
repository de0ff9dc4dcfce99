// The data-rate plan of the compressor: the default and overall rates, each frame's target and
// peak, the frame complexity measure and the pump's sharing of a preview queue's bytes.
#pragma once
#include <cstdint>

constexpr uint32_t VelmoRateUnset = 0xffffffffu;

// Generation of the output: 1 for versions below 200, 2 from 200 up.
inline uint32_t VelmoGeneration(uint32_t version) { return version < 200 ? 1 : 2; }

// Bytes per second chosen when no rate is asked. `inputBytes` and `inputFrames` describe the
// input's own size (only the second generation caps by it).
uint32_t VelmoDefaultRate(uint32_t generation, uint32_t width, uint32_t height,
                          uint32_t rateNumerator, uint32_t rateDenominator, uint32_t runFrames,
                          uint64_t inputBytes, uint32_t inputFrames);

// The input's own bytes per second, times percent / 100, held in 64 bits and cut to 31 bits.
uint32_t VelmoInputRate(uint32_t rateNumerator, uint32_t rateDenominator, uint64_t inputBytes,
                        uint32_t inputFrames, uint32_t percent);

// `/D`: below 1 none (0), 1 to 200 percent of the input's rate, else bytes per second.
uint32_t VelmoOverallRate(int32_t dataSwitch, uint32_t rateNumerator, uint32_t rateDenominator,
                          uint64_t inputBytes, uint32_t inputFrames);

// Per-frame settings filled from the hint file; VelmoRateUnset means "not set".
struct VelmoFrameHint {
  uint32_t Rate = VelmoRateUnset;
  uint32_t Peak = VelmoRateUnset;
  uint8_t Key = 0;
};

// What the run knows once: the rates and the output frame rate.
struct VelmoRateSettings {
  uint32_t DefaultRate;
  uint32_t OverallRate;
  uint32_t PeakSetting;  // `/M`: times 100 up to 1000, bytes per second above
  uint32_t RateNumerator, RateDenominator;
};

// The three figures a frame enters the writer's queue with.
struct VelmoFrameRate {
  uint32_t TargetBytes;
  uint32_t PeakBytes;
  uint32_t IsKey;
};

VelmoFrameRate VelmoFrameRateFor(const VelmoRateSettings& settings, const VelmoFrameHint& hint);

// `/N` key-frame rate in bytes per frame (0 when not given).
uint32_t VelmoKeyFrameBytes(uint32_t keyRate, uint32_t rateNumerator, uint32_t rateDenominator);

// Zero-order entropy of a 256-bin histogram with `total` samples, in bytes. Changes `histogram`.
uint32_t EstimateBytes(uint32_t histogram[256], uint32_t total);

// One plane for the complexity measure; `previous` is null on a key frame.
struct VelmoComplexityPlane {
  const uint8_t* Pixels;
  const uint8_t* Previous;
  uint32_t Width, Height;
  int32_t Pitch;
};

// Complexity of one plane: all samples on a key frame (times 9 / 2), else those that moved by
// more than 2 from the previous frame.
uint32_t VelmoPlaneComplexity(const VelmoComplexityPlane& plane, bool key);
// The frame's complexity: luma, alpha and HDR as planes, Cr and Cb summed before the key factor.
// Absent planes have null pixels. The plane measures run on the job pool.
uint32_t MeasureFrameComplexity(const VelmoComplexityPlane& luma, const VelmoComplexityPlane& cr,
                                const VelmoComplexityPlane& cb, const VelmoComplexityPlane& alpha,
                                const VelmoComplexityPlane& hdr, bool key);

// One sound track's reservation figures.
struct VelmoRateTrack {
  uint32_t InputBytes, OutputBytes;  // running compression ratio
  uint32_t BytesPerSecond, BytesLeft;
};

// One queue slot as the pump sees it.
struct VelmoRateSlot {
  uint32_t TargetBytes, PeakBytes, IsKey, Complexity;
};

// The frame geometry that sets the first generation's floor.
struct VelmoRateGeometry {
  uint32_t Generation, Version;
  uint32_t LumaPixels, ChromaPixels;  // aligned plane sizes
  bool Alpha, Grayscale;
};

// The first generation's least budget of a frame in bytes (0 for the second generation, whose
// floors follow the frame's own target).
uint32_t VelmoFloorBytes(const VelmoRateGeometry& geometry);

// The lowest data rate in bytes per second that the floor lets a run meet at this frame rate.
uint32_t VelmoLowestRate(const VelmoRateGeometry& geometry, uint32_t rateNumerator,
                         uint32_t rateDenominator);

// The state of one pump: weights and pool worked out from the whole queue before its first slot.
struct VelmoPumpState {
  uint64_t Weights[64];
  uint64_t WeightSum;
  int64_t Pool;
  int64_t Total;
  uint32_t Frames;  // N at the start
};

// Step 1: bases, weights and the pool of the queue (at most 64 slots).
VelmoPumpState VelmoPumpBegin(const VelmoRateSlot* slots, uint32_t count, int64_t carryBytes,
                              uint32_t keyFrameBytes);
// The sound reservation of slot i (steps 2).
uint32_t VelmoSoundReservation(const VelmoRateTrack* tracks, uint32_t trackCount, uint32_t frames,
                               uint32_t slot, uint32_t rateNumerator, uint32_t rateDenominator);
// Steps 3 to 5: the budget of slot i in bytes, floors and ceilings by generation included.
uint32_t VelmoPumpBudget(const VelmoPumpState& state, const VelmoRateSlot& slot, uint32_t i,
                         uint32_t reservation, uint32_t keyFrameBytes, uint32_t framesWritten,
                         const VelmoRateGeometry& geometry);
// Step 6: books the bytes a frame used.
void VelmoPumpUsed(VelmoPumpState& state, int64_t& carryBytes, const VelmoRateSlot& slot,
                   uint32_t i, uint32_t usedBytes);
// Step 7: the carry is held to plus or minus the queue's total.
void VelmoPumpEnd(const VelmoPumpState& state, int64_t& carryBytes);
