// The pieces of the Velmo sound encoder, open to its tests: the encoder record, the
// psychoacoustic model and the per-band quantiser search.
#pragma once
#include "audio/audio_tables.h"
#include "audio/audio_transform.h"
#include "audio/velmo_audio.h"

#include <cstdint>
#include <memory>
#include <vector>

// Where a group with coded coefficients starts in the block and the most bits a reader may
// assume it takes (9 of head and w + 1 per coefficient); a reader that finds this reaching
// past the packet ends the channel at the group.
struct VelmoAudioGroupReach {
  size_t Start;
  size_t Longest;
  uint32_t Channel;
  uint32_t First;  // index of the group's first coefficient
};

struct VelmoAudioEncoder {
  uint32_t Rate = 0;
  uint32_t Channels = 0;
  uint32_t Length = 0;         // L: N in the current form, N times channels in the older
  uint32_t BlockBytes = 0;     // 2 N channels
  uint32_t OverlapBytes = 0;   // BlockBytes / 16
  uint32_t ChannelsCoded = 0;  // channels in the current form, 1 in the older
  uint32_t IsCurrentForm = 0;
  float InverseRoot = 0;       // 1 / sqrt(L)
  float LoudnessBase = 0;      // 12, or 12 times channels in the older form
  uint32_t First = 1;
  uint64_t BytesConsumed = 0;
  uint64_t BytesGiven = 0;
  uint32_t BandCount = 0;
  uint32_t BandBounds[VelmoAudioMaxBands + 1] = {};  // in pairs; band 0 starts at 0
  float SpreadNorm[VelmoAudioMaxBands] = {};         // kept for reference; not used
  float BandQuiet[VelmoAudioMaxBands] = {};
  std::vector<float> QuietThreshold;  // dB per coefficient
  std::vector<double> QuietPower;     // 10 ^ (QuietThreshold / 10)
  std::vector<uint8_t> CoefficientBand;
  std::vector<float> History;         // per coded channel: m1, m2, f1, f2 of L / 2 each
  std::vector<uint8_t> InputBuffer;
  std::vector<uint8_t> OutputBuffer;
  // Work areas of one block.
  std::vector<float> Analysis, Coding;
  // The block being coded: per coded channel, the two leading floats in their 29-bit form,
  // the band indices and the signed magnitudes of all L coefficients.
  uint32_t Leading[4] = {};
  uint32_t Indices[2 * VelmoAudioMaxBands] = {};
  std::vector<int32_t> Magnitudes;
  std::vector<VelmoAudioGroupReach> Reach;  // groups of the block last written
  std::unique_ptr<AudioTransformWork> Work;
  const AudioTransformPlan* Plan = nullptr;
};

// What a level (the quality, 0 to 99) does to the coding, in dB: a shift of every band's
// noise allowance, a rise of the threshold in quiet under which a band's step is not made
// finer, and a rise of the threshold below which the coefficients of bands 8 and up are
// dropped.
struct VelmoAudioLevelShape {
  float AllowanceShift = 0;
  float FloorRaise = 0;
  float HighBandRaise = 0;
};
VelmoAudioLevelShape VelmoAudioShapeOfQuality(float quality);

// Raises each band's index (below 255) to the step its threshold in quiet allows.
void VelmoAudioFloorByQuiet(const VelmoAudioEncoder* encoder, float quality, uint32_t* indices);

// Spreading of energy from band b to band j, by j - b, from -3 to 7.
float VelmoAudioSpread(int distance);

// Noise allowance in dB per band from a channel's packed FFT (already scaled by 1 / sqrt(L)),
// moving the channel's phase and magnitude history along.
void VelmoAudioMaskingThreshold(VelmoAudioEncoder* encoder, uint32_t channel,
                                const float* spectrum, float quality, float* allowance);

// The coarsest quantiser index of each band whose noise stays within its allowance.
void VelmoAudioChooseBandQuantisers(const VelmoAudioEncoder* encoder, const float* coefficients,
                                    const float* allowance, uint32_t* indices);

// Quantised magnitudes (signed) of coefficients 2 .. L - 1 into magnitudes[2..].
void VelmoAudioQuantiseCoefficients(const VelmoAudioEncoder* encoder, const float* coefficients,
                                    const uint32_t* indices, float quality, int32_t* magnitudes);
