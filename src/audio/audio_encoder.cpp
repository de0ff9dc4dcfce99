// Velmo sound encoder: a psychoacoustic model gives each critical band a noise allowance,
// a binary search finds each band's coarsest quantiser inside it, and the coefficients are
// written in groups of eight with shared bit widths.
#include "audio/audio_bits.h"
#include "audio/audio_encoder_internal.h"

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
  // The frequency of coefficient k in whole Hz; in the older form the interleaved channels
  // make one signal at channels times the rate, so the frequency is divided back by them.
  const double perChannel = e->IsCurrentForm ? 1.0 : static_cast<double>(e->Channels);
  e->QuietThreshold.resize(length);
  e->QuietPower.resize(length);
  for (uint32_t k = 0; k < length; ++k) {
    const uint64_t hz = k * nyquist / length;
    // At 0 Hz the curve is infinite: that coefficient is the leading float, never judged.
    const double threshold = QuietCurve(static_cast<double>(hz) * 0.001 / perChannel);
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
      // Magnitude and phase errors go into one root, the phase as it comes, unwrapped. The
      // unpredictability counts between 0.05 and 0.5; outside that range (a prediction that
      // is very good or very bad) it is taken as 0.5, noise.
      const float dp = pp - phase[k];
      c = std::sqrt((rp - r) * (rp - r) + dp * dp) / s;
      if (c > 0.5f || !(c >= 0.05f)) c = 0.5f;
    }
    sumW += r;
    sumV += r * (-0.43f * std::log(c) - 0.29f);
  }
  if (to <= from || sumW < 2.5 * (to - from)) return 0.0f;
  return static_cast<float>(sumV / sumW);
}

// How a block's groups are laid out beyond the plain rule.
struct GroupLayout {
  uint32_t WidenBy = 0;      // the last channel's first group with room: alone, this much wider
  uint32_t SplitFrom = ~0u;  // from this coefficient on, groups stand alone
};

// Bits that surely follow a channel's groups in its block: none after the last channel (its
// padding may be none), the next channel's two leading floats and band indices otherwise.
size_t BitsAfterChannel(bool lastChannel, uint32_t bandCount) {
  return lastChannel ? 0 : 2 * 29 + 8 * size_t{bandCount};
}

// Plans the runs of the trailing groups of width 0 (from `from` to the end), from the end
// backwards: a reader judges a run of n zero coefficients at 9 + n bits, and only the runs
// behind it (and `after`) lie between it and the end, so each run may cover about as many
// coefficients as there are bits behind it. With nothing after it the last group stands alone:
// either the block's padding holds its reach, or a reader gives it up in the word where it
// starts, which ends the channel as the encoder did (see BlockAgrees). runAt[g] gets the
// groups of the run that starts at g.
void PlanZeroTail(uint32_t from, uint32_t groups, uint32_t length, size_t after,
                  uint8_t* runAt) {
  size_t behind = after;
  uint32_t end = groups;
  while (end > from) {
    const uint32_t most = std::min(end - from, 64u);
    uint32_t run = 1;
    for (uint32_t r = most; r > 1; --r) {
      // A run that ends the channel may be of any length (the longest code, cut by the end);
      // others must be a length of the run list.
      bool codable = end == groups;
      for (uint32_t k = 0; k < 16 && !codable; ++k) codable = VelmoAudioRunGroups[k] == r;
      const size_t coefficients = std::min(length, 2 + 8 * end) - (2 + 8 * (end - r));
      if (codable && 9 + coefficients <= 9 + behind) {
        run = r;
        break;
      }
    }
    runAt[end - run] = static_cast<uint8_t>(run);
    behind += run == 1 ? 5 : 9;
    end -= run;
  }
}

// The run code for `run` groups from g, `remaining` groups being left.
uint32_t RunCode(uint32_t run, uint32_t remaining) {
  if (run == remaining) return 15;  // the longest run, cut by the end
  uint32_t code = 15;
  while (VelmoAudioRunGroups[code] > run) --code;
  return code;
}

// Writes the coefficients from index 2 in groups of eight, runs of equal width joined; the
// trailing groups of width 0 in runs planned to stay within the bits behind them (`after` is
// what surely follows the channel). With `widenBy`, the first group whose width can take it is
// written alone and that much wider than it needs: the same values in more bits, which moves
// the end of the block. Groups starting at or after `splitFrom` are not joined into runs.
void WriteGroups(AudioBitWriter& out, const int32_t* magnitudes, uint32_t length,
                 uint32_t channel, uint32_t widenBy, uint32_t splitFrom, size_t after,
                 std::vector<VelmoAudioGroupReach>& reach) {
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
  uint32_t widen = ~0u;
  for (uint32_t g = 0; widenBy && g < groups; ++g)
    if (widths[g] + widenBy <= 15) {
      widen = g;
      widths[g] = static_cast<uint8_t>(widths[g] + widenBy);
      break;
    }
  uint32_t tail = groups;
  while (tail > 0 && widths[tail - 1] == 0) --tail;
  uint8_t runAt[VelmoAudioMaxLength / 8] = {};
  PlanZeroTail(tail, groups, length, after, runAt);

  uint32_t g = 0;
  while (g < groups) {
    const size_t start = out.BitCount();
    const uint32_t width = widths[g];
    const uint32_t remaining = groups - g;
    uint32_t same = 1;
    if (g >= tail) {
      same = runAt[g];
    } else if (g != widen) {
      while (same < 64 && g + same < tail && widths[g + same] == width && g + same != widen &&
             2 + 8 * (g + same) < splitFrom)
        ++same;
    }
    uint32_t covered = 1;
    if (same == 1) {
      out.Write(0, 1);
    } else {
      const uint32_t code = RunCode(same, remaining);
      out.Write(1, 1);
      out.Write(code, 4);
      covered = std::min(VelmoAudioRunGroups[code], remaining);
    }
    out.Write(width, 4);
    const uint32_t first = 2 + 8 * g;
    const uint32_t end = std::min(length, 2 + 8 * (g + covered));
    // The reader judges every group at 9 bits and w + 1 bits a coefficient, zero runs too.
    reach.push_back({start, 9 + size_t{end - first} * (width + 1), channel, first});
    if (width) {
      for (uint32_t i = first; i < end; ++i) {
        const int32_t m = magnitudes[i];
        out.Write(static_cast<uint32_t>(std::abs(m)), width);
        if (m) out.Write(m < 0 ? 1 : 0, 1);
      }
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

// Models and quantises one channel: its two leading floats, band indices and magnitudes go
// to the channel's slots of the encoder's block record.
void PrepareChannel(VelmoAudioEncoder* e, uint32_t channel, const uint8_t* data,
                    uint32_t dataBytes, float quality) {
  const uint32_t length = e->Length;
  AudioTransformKernels kernels;
  AudioTransformKernelsInit(&kernels, ProcessorFeatures());
  float* analysis = e->Analysis.data();
  float* coding = e->Coding.data();

  // Analysis block: the faded ends come out as zero.
  LoadChannel(e, data, dataBytes, channel, analysis);
  const uint32_t fade = length / 32;
  std::fill(analysis, analysis + fade, 0.0f);
  std::fill(analysis + length - fade, analysis + length, 0.0f);
  AudioRealFftForward(e->Plan, analysis, e->Work.get(), &kernels);
  for (uint32_t i = 0; i < length; ++i) analysis[i] *= e->InverseRoot;
  float allowance[VelmoAudioMaxBands];
  VelmoAudioMaskingThreshold(e, channel, analysis, quality, allowance);

  // Coding block.
  LoadChannel(e, data, dataBytes, channel, coding);
  if (e->IsCurrentForm) AudioDctForward(e->Plan, coding, e->Work.get(), &kernels);
  else AudioRealFftForward(e->Plan, coding, e->Work.get(), &kernels);
  for (uint32_t i = 0; i < length; ++i) coding[i] *= e->InverseRoot;
  if (e->IsCurrentForm) coding[0] *= 0.5f;

  uint32_t* indices = e->Indices + channel * VelmoAudioMaxBands;
  VelmoAudioChooseBandQuantisers(e, coding, allowance, indices);
  VelmoAudioFloorByQuiet(e, quality, indices);
  e->Leading[2 * channel] = VelmoAudioPackFloat(coding[0]);
  e->Leading[2 * channel + 1] = VelmoAudioPackFloat(coding[1]);
  VelmoAudioQuantiseCoefficients(e, coding, indices, quality,
                                 e->Magnitudes.data() + size_t{channel} * length);
}

// A reader that gives up group `r` of a block ending at bit `end` goes back to the group's
// start, takes the rest of the channel as zeros and moves on to the next word. When that is
// the last channel, its coefficients from the group on are zeros anyway and the group starts
// in the block's last word, the reader ends the block just as it was written.
bool GivingUpIsHarmless(const VelmoAudioEncoder* e, const VelmoAudioGroupReach& r, size_t end) {
  if (r.Channel != e->ChannelsCoded - 1 || (r.Start + 31) / 32 * 32 != end) return false;
  const int32_t* magnitudes = e->Magnitudes.data() + size_t{r.Channel} * e->Length;
  return std::all_of(magnitudes + r.First, magnitudes + e->Length,
                     [](int32_t m) { return m == 0; });
}

// Writes the prepared channels as one block; returns whether every group's longest reach
// stays within the block, and if not, the first group that passes it.
bool WriteBlock(VelmoAudioEncoder* e, AudioBitWriter& out, const GroupLayout& layout,
                VelmoAudioGroupReach* failing) {
  std::vector<VelmoAudioGroupReach>& reach = e->Reach;
  reach.clear();
  if (e->IsCurrentForm) out.Write(0, 2);
  const uint32_t last = e->ChannelsCoded - 1;
  for (uint32_t c = 0; c <= last; ++c) {
    out.Write(e->Leading[2 * c], 29);
    out.Write(e->Leading[2 * c + 1], 29);
    for (uint32_t b = 0; b < e->BandCount; ++b) out.Write(e->Indices[c * VelmoAudioMaxBands + b], 8);
    WriteGroups(out, e->Magnitudes.data() + size_t{c} * e->Length, e->Length, c,
                c == last ? layout.WidenBy : 0, layout.SplitFrom,
                BitsAfterChannel(c == last, e->BandCount), reach);
  }
  out.PadToWord();
  const size_t end = out.BitCount();
  for (const VelmoAudioGroupReach& r : reach)
    if (r.Start + r.Longest > end) {
      if (GivingUpIsHarmless(e, r, end)) return true;
      *failing = r;
      return false;
    }
  return true;
}

// A packet may end right after any block, and a reader ends a channel at a group that could
// run past the packet, judging it at 9 + (w + 1) bits a coefficient, a width of 0 included.
// Trailing zero runs are planned for that (WriteGroups); a group with zeros among coded
// magnitudes takes less than its reach too, so near the end of a block its reach may pass the
// last word. Then the block is written again: with a group of its last channel (the first
// with room) one, two or three bits wider (8 to 24 bits more, which moves the padding); then
// also with the groups from the one that reaches too far on standing alone, so that no long
// run of mostly zero magnitudes reaches far; failing all that, the channel's coefficients from
// the group that reaches too far on are dropped, as the reader would drop them, until the
// block ends in zero runs that always agree.
void CodeBlock(VelmoAudioEncoder* e, AudioBitWriter& out) {
  VelmoAudioGroupReach failing{};
  GroupLayout layout;
  uint32_t splitFrom = ~0u;
  for (uint32_t pass = 0; pass < 2; ++pass) {
    if (pass == 1) layout.SplitFrom = splitFrom;
    for (layout.WidenBy = 0; layout.WidenBy <= 3; ++layout.WidenBy) {
      out.Restart();
      if (WriteBlock(e, out, layout, &failing)) return;
      splitFrom = std::min(splitFrom, failing.First);
      if (pass == 1) layout.SplitFrom = splitFrom;
    }
  }
  // Each round drops at least the failing group's coefficients, so the rounds are bounded by
  // the groups; the widenings are tried again each time, as the end of the block moves.
  for (uint32_t round = 0; round <= e->Length / 8; ++round) {
    int32_t* magnitudes = e->Magnitudes.data() + size_t{failing.Channel} * e->Length;
    std::fill(magnitudes + failing.First, magnitudes + e->Length, 0);
    for (layout.WidenBy = 0; layout.WidenBy <= 3; ++layout.WidenBy) {
      out.Restart();
      if (WriteBlock(e, out, layout, &failing)) return;
    }
  }
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
  const VelmoAudioLevelShape shape = VelmoAudioShapeOfQuality(quality);
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
    value += shape.AllowanceShift;
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

VelmoAudioLevelShape VelmoAudioShapeOfQuality(float quality) {
  quality = ClampQuality(quality);
  VelmoAudioLevelShape shape;
  shape.AllowanceShift = -2.0f * quality;  // 2 dB less allowance a level
  shape.FloorRaise = quality;              // the quiet floor under the steps: 1 dB a level
  shape.HighBandRaise = 10.0f * quality;   // the threshold of bands 8 and up: 10 dB a level
  return shape;
}

void VelmoAudioFloorByQuiet(const VelmoAudioEncoder* e, float quality, uint32_t* indices) {
  // A band's step need not be finer than what its threshold in quiet (raised by the level)
  // lets pass unheard: the index whose step, 0.664 dB an index, reaches that level.
  const float raise = VelmoAudioShapeOfQuality(quality).FloorRaise;
  for (uint32_t b = 0; b < e->BandCount; ++b) {
    if (indices[b] >= 255) continue;
    const float v = raise + e->BandQuiet[b];
    if (v > indices[b] * 0.664f)
      indices[b] = std::min<uint32_t>(255, static_cast<uint32_t>((v + 0.3319f) * 1.5060241f));
  }
}

void VelmoAudioQuantiseCoefficients(const VelmoAudioEncoder* e, const float* coefficients,
                                    const uint32_t* indices, float quality, int32_t* magnitudes) {
  // The level raises the threshold in quiet of the bands from 8 on: 10 dB a level is a factor
  // of 10 in power.
  const double raised =
      std::pow(10.0, static_cast<double>(VelmoAudioShapeOfQuality(quality).HighBandRaise) / 10.0);
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
    e->Magnitudes.assign(size_t{e->ChannelsCoded} * e->Length, 0);
    e->Reach.reserve(2 * (e->Length / 8 + 1));
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
  for (uint32_t c = 0; c < e->ChannelsCoded; ++c)
    PrepareChannel(e, c, e->InputBuffer.data(), dataBytes, quality);
  CodeBlock(e, out);

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
