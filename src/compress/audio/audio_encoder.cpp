// Velmo sound encoder: a psychoacoustic model gives each critical band a noise allowance,
// a binary search finds each band's coarsest quantiser inside it, and the coefficients are
// written in groups of eight with shared bit widths.
#include "compress/audio/audio_bits.h"
#include "compress/audio/audio_encoder_internal.h"

#include <algorithm>
#include <cmath>
#include <cstring>
#include <new>

namespace {

constexpr float SpreadTable[11] = {0.0000038f, 0.0010497f, 0.13477f,   1.0f,
                                   0.07875f,   0.0146941f, 0.0052495f, 0.0005273f,
                                   0.0000507f, 0.0000048f, 0.0000004f};

constexpr float PowerFloor = 0.0005f;

// Threshold of hearing in quiet, dB, at f kHz.
double QuietCurve(double f) {
  return 3.64 * std::pow(f, -0.8) - 6.5 * std::exp(-0.6 * (f - 3.3) * (f - 3.3)) +
         0.001 * f * f * f * f;
}

void BuildQuietTables(VelmoAudioEncoder* e, uint32_t bandRate) {
  const uint64_t nyquist = VelmoAudioNyquist(bandRate);
  const uint32_t length = e->Length;
  const double divide = e->IsCurrentForm ? 1.0 : static_cast<double>(e->Channels);
  e->QuietThreshold.resize(length);
  e->QuietPower.resize(length);
  for (uint32_t k = 0; k < length; ++k) {
    const uint64_t hz = k * nyquist / length;
    const double threshold = QuietCurve(static_cast<double>(hz) * 0.001 / divide);
    e->QuietThreshold[k] = static_cast<float>(threshold);
    e->QuietPower[k] = std::pow(10.0, static_cast<double>(e->QuietThreshold[k]) / 10.0);
  }
  e->CoefficientBand.assign(length, 0);
  for (uint32_t b = 0; b < e->BandCount; ++b) {
    float least = 1000.0f;
    for (uint32_t k = 2 * e->BandBounds[b]; k < 2 * e->BandBounds[b + 1] && k < length; ++k) {
      least = std::min(least, e->QuietThreshold[k]);
      e->CoefficientBand[k] = static_cast<uint8_t>(b);
    }
    e->BandQuiet[b] = least;
  }
}

float ClampQuality(float quality) {
  if (!(quality > 0.0f)) return 0.0f;
  return std::min(quality, 99.0f);
}

// Tonality of band b, 0 for noise-like to about 1 for a steady tone, from how well the
// last two frames predict each pair's magnitude and phase.
float Tonality(float* history, uint32_t half, uint32_t from, uint32_t to, const float* power,
               const float* phase) {
  float* m1 = history;
  float* m2 = history + half;
  float* f1 = history + 2 * half;
  float* f2 = history + 3 * half;
  double sumW = 0, sumV = 0;
  for (uint32_t k = from; k < to; ++k) {
    const float r = std::sqrt(power[k]);
    const float rp = 2 * m1[k] - m2[k];
    const float pp = 2 * f1[k] - f2[k];
    m2[k] = m1[k];
    m1[k] = r;
    f2[k] = f1[k];
    f1[k] = phase[k];
    const float s = std::fabs(rp) + r;
    float c = 0.5f;
    if (s >= 2.5f) {
      c = std::sqrt((rp - r) * (rp - r) + (pp - phase[k]) * (pp - phase[k])) / s;
      if (c > 0.5f || !(c >= 0.05f)) c = 0.5f;
    }
    sumW += r;
    sumV += r * (-0.43f * std::log(c) - 0.29f);
  }
  if (to <= from || sumW < 2.5 * (to - from)) return 0.0f;
  return static_cast<float>(sumV / sumW);
}

// Writes the coefficients from index 2 in groups of eight, runs of equal width joined.
void WriteGroups(AudioBitWriter& out, const int32_t* magnitudes, uint32_t length) {
  const uint32_t groups = (length - 2 + 7) / 8;
  uint8_t widths[VelmoAudioMaxLength / 8];
  for (uint32_t g = 0; g < groups; ++g) {
    uint32_t largest = 0;
    for (uint32_t i = 2 + 8 * g; i < std::min(length, 10 + 8 * g); ++i)
      largest = std::max<uint32_t>(largest, static_cast<uint32_t>(std::abs(magnitudes[i])));
    uint32_t width = 0;
    while (largest >> width) ++width;
    widths[g] = static_cast<uint8_t>(width);
  }
  uint32_t g = 0;
  while (g < groups) {
    const uint32_t width = widths[g];
    const uint32_t remaining = groups - g;
    uint32_t same = 1;
    while (same < 64 && g + same < groups && widths[g + same] == width) ++same;
    uint32_t covered = 1;
    if (same == 1) {
      out.Write(0, 1);
    } else {
      uint32_t code = 15;  // all that remain match: the longest run, cut by the end
      if (same < remaining)
        while (VelmoAudioRunGroups[code] > same) --code;
      out.Write(1, 1);
      out.Write(code, 4);
      covered = std::min(VelmoAudioRunGroups[code], remaining);
    }
    out.Write(width, 4);
    const uint32_t end = std::min(length, 2 + 8 * (g + covered));
    if (width)
      for (uint32_t i = 2 + 8 * g; i < end; ++i) {
        const int32_t m = magnitudes[i];
        out.Write(static_cast<uint32_t>(std::abs(m)), width);
        if (m) out.Write(m < 0 ? 1 : 0, 1);
      }
    g += covered;
  }
}

// Takes one channel's samples as floats, repeating the last when fewer than L are given.
void LoadChannel(const VelmoAudioEncoder* e, const uint8_t* data, uint32_t dataBytes,
                 uint32_t channel, float* out) {
  const uint32_t stride = e->IsCurrentForm ? e->Channels : 1;
  const uint32_t available = dataBytes / 2 / stride;
  const uint32_t count = std::min(available, e->Length);
  for (uint32_t j = 0; j < count; ++j) {
    int16_t sample;
    std::memcpy(&sample, data + 2 * (j * stride + channel), 2);
    out[j] = sample;
  }
  const float last = count ? out[count - 1] : 0.0f;
  std::fill(out + count, out + e->Length, last);
}

void CodeChannel(VelmoAudioEncoder* e, uint32_t channel, const uint8_t* data, uint32_t dataBytes,
                 float quality, AudioBitWriter& out) {
  const uint32_t length = e->Length;
  const AudioTransformKernels* kernels = AudioKernelsSelect();
  float* analysis = e->Analysis.data();
  float* coding = e->Coding.data();

  // Analysis block: the faded ends come out as zero.
  LoadChannel(e, data, dataBytes, channel, analysis);
  const uint32_t fade = length / 32;
  std::fill(analysis, analysis + fade, 0.0f);
  std::fill(analysis + length - fade, analysis + length, 0.0f);
  AudioRealFftForward(e->Plan, analysis, e->Work.get(), kernels);
  for (uint32_t i = 0; i < length; ++i) analysis[i] *= e->InverseRoot;
  float allowance[VelmoAudioMaxBands];
  VelmoAudioMaskingThreshold(e, channel, analysis, quality, allowance);

  // Coding block.
  LoadChannel(e, data, dataBytes, channel, coding);
  if (e->IsCurrentForm) AudioDctForward(e->Plan, coding, e->Work.get(), kernels);
  else AudioRealFftForward(e->Plan, coding, e->Work.get(), kernels);
  for (uint32_t i = 0; i < length; ++i) coding[i] *= e->InverseRoot;
  if (e->IsCurrentForm) coding[0] *= 0.5f;

  uint32_t indices[VelmoAudioMaxBands];
  VelmoAudioChooseBandQuantisers(e, coding, allowance, indices);
  for (uint32_t b = 0; b < e->BandCount; ++b) {
    if (indices[b] >= 255) continue;
    const float v = quality + e->BandQuiet[b];
    if (v > indices[b] * 0.664f)
      indices[b] = std::min<uint32_t>(255, static_cast<uint32_t>((v + 0.3319f) * 1.5060241f));
  }

  out.Write(VelmoAudioPackFloat(coding[0]), 29);
  out.Write(VelmoAudioPackFloat(coding[1]), 29);
  for (uint32_t b = 0; b < e->BandCount; ++b) out.Write(indices[b], 8);
  VelmoAudioQuantiseCoefficients(e, coding, indices, quality, e->Magnitudes.data());
  WriteGroups(out, e->Magnitudes.data(), length);
}

}  // namespace

float VelmoAudioSpread(int distance) {
  if (distance < -3 || distance > 7) return 0.0f;
  return SpreadTable[distance + 3];
}

void VelmoAudioMaskingThreshold(VelmoAudioEncoder* e, uint32_t channel, const float* spectrum,
                                float quality, float* allowance) {
  const uint32_t half = e->Length / 2;
  float power[VelmoAudioMaxLength / 2], phase[VelmoAudioMaxLength / 2];
  power[0] = 1.0f;  // DC and Nyquist don't count
  phase[0] = 0.0f;
  for (uint32_t k = 1; k < half; ++k) {
    const float re = spectrum[2 * k], im = spectrum[2 * k + 1];
    const float p = re * re + im * im;
    if (p > PowerFloor) {
      power[k] = p;
      phase[k] = std::atan2(-im, re);
    } else {
      power[k] = PowerFloor;
      phase[k] = 0.0f;
    }
  }
  float* history = e->History.data() + size_t{channel} * 4 * half;
  const uint32_t bands = e->BandCount;
  float energy[VelmoAudioMaxBands], tonal[VelmoAudioMaxBands];
  for (uint32_t b = 0; b < bands; ++b) {
    const uint32_t from = e->BandBounds[b], to = e->BandBounds[b + 1];
    double sum = 0;
    for (uint32_t k = from; k < to; ++k) sum += power[k];
    energy[b] = static_cast<float>(sum);
    tonal[b] = Tonality(history, half, from, to, power, phase) * energy[b];
  }
  const float base = e->LoudnessBase;
  for (uint32_t j = 0; j < bands; ++j) {
    double spreadEnergy = 0, spreadTonal = 0;
    for (uint32_t b = 0; b < bands; ++b) {
      const float weight = VelmoAudioSpread(static_cast<int>(j) - static_cast<int>(b));
      spreadEnergy += weight * energy[b];
      spreadTonal += weight * tonal[b];
    }
    float a = 0.0f;
    if (spreadEnergy > PowerFloor)
      a = std::clamp(static_cast<float>(spreadTonal / spreadEnergy), 0.0f, 1.0f);
    float value = (j + 15) * a + (1 - a) * 6 + base;
    if (j < 8) value += base;
    value -= 2 * quality;
    allowance[j] = std::max(value, 0.0f);
  }
}

void VelmoAudioChooseBandQuantisers(const VelmoAudioEncoder* e, const float* coefficients,
                                    const float* allowance, uint32_t* indices) {
  for (uint32_t b = 0; b < e->BandCount; ++b) {
    const uint32_t from = 2 * e->BandBounds[b];
    const uint32_t to = std::min(e->Length, 2 * e->BandBounds[b + 1]);
    double energy = 0;
    float largest = 0;
    for (uint32_t i = from; i < to; ++i) {
      energy += double{coefficients[i]} * coefficients[i];
      largest = std::max(largest, std::fabs(coefficients[i]));
    }
    uint32_t top = 0;
    for (uint32_t i = 94; i > 0; --i)
      if (VelmoAudioQuantStep(i) <= largest) {
        top = i;
        break;
      }
    uint32_t high = top + 2, low = 0, mid = high / 2, result = 0;
    double best = 0;
    const double limit = energy / std::pow(10.0, allowance[b] / 10.0) * (1.0 + 1e-7);
    for (;;) {
      const float step = VelmoAudioQuantStep(mid);
      double noise = 0;
      for (uint32_t i = from; i < to; ++i) {
        const float magnitude = std::fabs(coefficients[i]);
        const float level = std::min(std::trunc(magnitude / step + 0.5f), 32767.0f);
        const double error = double{level * step} - magnitude;
        noise += error * error;
      }
      if (noise > limit) {
        high = mid;
      } else {
        if (noise >= best) {
          best = noise;
          result = mid;
        }
        low = mid;
      }
      const uint32_t next = (high + low) / 2;
      if (next == mid) break;
      mid = next;
    }
    indices[b] = result;
  }
}

void VelmoAudioQuantiseCoefficients(const VelmoAudioEncoder* e, const float* coefficients,
                                    const uint32_t* indices, float quality, int32_t* magnitudes) {
  const double raised = std::pow(10.0, static_cast<double>(quality));
  for (uint32_t i = 2; i < e->Length; ++i) {
    const uint32_t band = e->CoefficientBand[i];
    const float x = coefficients[i];
    double threshold = e->QuietPower[i];
    if (band >= 8) threshold *= raised;
    int32_t magnitude = 0;
    if (e->BandCount && double{x} * x >= threshold) {
      const float step = VelmoAudioQuantStep(indices[band]);
      magnitude = static_cast<int32_t>(std::min(std::trunc(std::fabs(x) / step + 0.5f), 32767.0f));
      if (x < 0) magnitude = -magnitude;
    }
    magnitudes[i] = magnitude;
  }
}

VelmoAudioEncoder* VelmoAudioEncoderOpen(uint32_t rate, uint32_t channels, int isCurrentForm) {
  if (channels < 1 || channels > 2 || rate == 0 || rate > 65535) return nullptr;
  auto* e = new (std::nothrow) VelmoAudioEncoder;
  if (!e) return nullptr;
  const uint32_t samples = VelmoAudioBlockSamples(rate);
  e->Rate = rate;
  e->Channels = channels;
  e->IsCurrentForm = isCurrentForm ? 1 : 0;
  e->Length = e->IsCurrentForm ? samples : samples * channels;
  if (e->Length > VelmoAudioMaxLength) {
    delete e;
    return nullptr;
  }
  e->BlockBytes = 2 * samples * channels;
  e->OverlapBytes = e->BlockBytes / 16;
  e->ChannelsCoded = e->IsCurrentForm ? channels : 1;
  e->InverseRoot = 1.0f / std::sqrt(static_cast<float>(e->Length));
  e->LoudnessBase = e->IsCurrentForm ? 12.0f : 12.0f * channels;
  const uint32_t bandRate = e->IsCurrentForm ? rate : rate * channels;
  e->BandCount = VelmoAudioBandCount(bandRate);
  VelmoAudioBandBounds(bandRate, e->Length, false, e->BandCount, e->BandBounds);
  for (uint32_t b = 0; b < e->BandCount; ++b) {
    float sum = 0;
    for (uint32_t j = 0; j < e->BandCount; ++j)
      sum += VelmoAudioSpread(static_cast<int>(j) - static_cast<int>(b));
    e->SpreadNorm[b] = 1.0f / sum;
  }
  try {
    BuildQuietTables(e, bandRate);
    e->History.assign(size_t{e->ChannelsCoded} * 4 * (e->Length / 2), 0.0f);
    e->InputBuffer.assign(e->BlockBytes, 0);
    e->OutputBuffer.assign(e->BlockBytes + e->BlockBytes / 2, 0);
    e->Analysis.assign(e->Length, 0.0f);
    e->Coding.assign(e->Length, 0.0f);
    e->Magnitudes.assign(e->Length, 0);
    e->Work = std::make_unique<AudioTransformWork>();
  } catch (const std::bad_alloc&) {
    delete e;
    return nullptr;
  }
  e->Plan = AudioTransformPlanFor(e->Length);
  return e;
}

void VelmoAudioEncoderBuffer(VelmoAudioEncoder* e, uint8_t** bufferOut, uint32_t* bytesOut) {
  if (!e) {
    if (bufferOut) *bufferOut = nullptr;
    if (bytesOut) *bytesOut = 0;
    return;
  }
  const uint32_t skip = e->First ? 0 : e->OverlapBytes;
  if (bufferOut) *bufferOut = e->InputBuffer.data() + skip;
  if (bytesOut) *bytesOut = e->BlockBytes - skip;
}

bool VelmoAudioEncodeBlock(VelmoAudioEncoder* e, float quality, uint32_t bytes,
                           const uint8_t** outOut, uint32_t* outSizeOut, uint32_t* consumedOut) {
  if (!e) return false;
  const uint32_t room = e->First ? e->BlockBytes : e->BlockBytes - e->OverlapBytes;
  bytes = std::min(bytes, room);
  e->BytesGiven += bytes;
  const uint32_t dataBytes = e->First ? bytes : bytes + e->OverlapBytes;
  e->First = 0;
  quality = ClampQuality(quality);

  AudioBitWriter out(e->OutputBuffer.data(), e->OutputBuffer.size());
  if (e->IsCurrentForm) out.Write(0, 2);
  for (uint32_t c = 0; c < e->ChannelsCoded; ++c)
    CodeChannel(e, c, e->InputBuffer.data(), dataBytes, quality, out);
  out.PadToWord();

  std::memmove(e->InputBuffer.data(), e->InputBuffer.data() + e->BlockBytes - e->OverlapBytes,
               e->OverlapBytes);
  const uint64_t left = e->BytesGiven - e->BytesConsumed;
  const uint32_t consumed =
      static_cast<uint32_t>(std::min<uint64_t>(e->BlockBytes - e->OverlapBytes, left));
  e->BytesConsumed += consumed;
  if (outOut) *outOut = e->OutputBuffer.data();
  if (outSizeOut)
    *outSizeOut = static_cast<uint32_t>(std::min(out.ByteCount(), e->OutputBuffer.size()));
  if (consumedOut) *consumedOut = consumed;
  return true;
}

void VelmoAudioEncoderClose(VelmoAudioEncoder* e) { delete e; }

uint32_t VelmoAudioEncoderBlockBytes(const VelmoAudioEncoder* e) { return e ? e->BlockBytes : 0; }

uint32_t VelmoAudioEncoderOverlapBytes(const VelmoAudioEncoder* e) {
  return e ? e->OverlapBytes : 0;
}
