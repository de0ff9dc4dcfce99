#include "audio/audio_tables.h"

#include <cmath>

const uint32_t VelmoAudioBandEdges[VelmoAudioMaxBands] = {
    0,    100,  200,  300,  400,  510,  630,  770,  920,  1080,  1270,  1480, 1720,
    2000, 2320, 2700, 3150, 3700, 4400, 5300, 6400, 7700, 9500, 12000, 15500};

const uint32_t VelmoAudioRunGroups[16] = {2, 3, 4, 5, 6, 8, 9, 10, 11, 12, 13, 14, 15, 16, 32, 64};

namespace {

struct QuantTable {
  float Step[VelmoAudioQuantSteps];
  float Exponent[32];
  QuantTable() {
    for (uint32_t i = 0; i < VelmoAudioQuantSteps; ++i)
      Step[i] = static_cast<float>(std::pow(10.0, i * 0.066399999));
    for (int e = 0; e < 32; ++e) Exponent[e] = std::ldexp(1.0f, e - 23);
  }
};

const QuantTable& Tables() {
  static const QuantTable table;
  return table;
}

}  // namespace

uint32_t VelmoAudioBlockSamples(uint32_t rate) {
  if (rate < 22050) return 512;
  if (rate < 44100) return 1024;
  return 2048;
}

uint32_t VelmoAudioBandCount(uint32_t bandRate) {
  const uint32_t nyquist = VelmoAudioNyquist(bandRate);
  uint32_t count = 0;
  while (count < VelmoAudioMaxBands && VelmoAudioBandEdges[count] < nyquist) ++count;
  return count;
}

void VelmoAudioBandBounds(uint32_t bandRate, uint32_t length, bool raiseZero,
                          uint32_t bandCount, uint32_t* bounds) {
  const uint64_t nyquist = VelmoAudioNyquist(bandRate);
  const uint64_t half = length / 2;
  for (uint32_t b = 0; b < bandCount; ++b) {
    uint32_t bound = nyquist ? static_cast<uint32_t>(VelmoAudioBandEdges[b] * half / nyquist) : 0;
    if (raiseZero && bound == 0) bound = 1;
    bounds[b] = bound;
  }
  bounds[bandCount] = static_cast<uint32_t>(half);
}

float VelmoAudioQuantStep(uint32_t index) {
  return Tables().Step[index > VelmoAudioMaxIndex ? VelmoAudioMaxIndex : index];
}

uint32_t VelmoAudioPackFloat(float value) {
  float magnitude = std::fabs(value);
  if (!(magnitude < 2147483648.0f)) magnitude = 2147483520.0f;  // largest float below 2^31
  uint32_t whole = static_cast<uint32_t>(magnitude);
  uint32_t exponent = 0;
  while (whole) {
    ++exponent;
    whole >>= 1;
  }
  const uint32_t mantissa =
      static_cast<uint32_t>(std::ldexp(static_cast<double>(magnitude), 23 - static_cast<int>(exponent)));
  return exponent | (mantissa & 0x7FFFFF) << 5 | (value < 0 ? 0x10000000u : 0u);
}

float VelmoAudioUnpackFloat(uint32_t bits) {
  const float value = static_cast<float>((bits >> 5) & 0x7FFFFF) * Tables().Exponent[bits & 31];
  return (bits & 0x10000000u) ? -value : value;
}
