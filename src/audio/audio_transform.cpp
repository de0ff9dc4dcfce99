#include "audio/audio_transform.h"

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <vector>

struct AudioTransformPlan {
  uint32_t Length = 0;
  uint32_t Half = 0;                       // complex points M = L / 2
  std::vector<uint16_t> BitReverse;        // M entries
  std::vector<float> TwiddleRe, TwiddleIm; // pass of half-span h at [h, 2h): e^(-i pi j / h)
  std::vector<float> RealRe, RealIm;       // e^(-2 pi i k / L), k <= M / 2
  std::vector<float> DctCos, DctSin;       // cos, sin of pi k / 2L, k < L / 2
};

namespace {

constexpr double Pi = 3.14159265358979323846;
constexpr uint32_t MaxLog = 12;

// e^(2 pi i turn / whole), exact at quarter turns.
void UnitRoot(int64_t turn, int64_t whole, float* re, float* im) {
  turn %= whole;
  if (turn < 0) turn += whole;
  if (4 * turn % whole == 0) {
    static const float quarterRe[4] = {1, 0, -1, 0}, quarterIm[4] = {0, 1, 0, -1};
    *re = quarterRe[4 * turn / whole];
    *im = quarterIm[4 * turn / whole];
    return;
  }
  const double angle = 2.0 * Pi * static_cast<double>(turn) / static_cast<double>(whole);
  *re = static_cast<float>(std::cos(angle));
  *im = static_cast<float>(std::sin(angle));
}

void BuildPlan(AudioTransformPlan& plan, uint32_t length) {
  const uint32_t m = length / 2;
  plan.Length = length;
  plan.Half = m;
  uint32_t bits = 0;
  while ((1u << bits) < m) ++bits;
  plan.BitReverse.resize(m);
  for (uint32_t i = 0; i < m; ++i) {
    uint32_t r = 0;
    for (uint32_t b = 0; b < bits; ++b) r |= ((i >> b) & 1) << (bits - 1 - b);
    plan.BitReverse[i] = static_cast<uint16_t>(r);
  }
  plan.TwiddleRe.assign(m + 1, 0.0f);
  plan.TwiddleIm.assign(m + 1, 0.0f);
  for (uint32_t h = 1; h < m; h *= 2)
    for (uint32_t j = 0; j < h; ++j)
      UnitRoot(-static_cast<int64_t>(j), 2 * h, &plan.TwiddleRe[h + j], &plan.TwiddleIm[h + j]);
  plan.RealRe.resize(m / 2 + 1);
  plan.RealIm.resize(m / 2 + 1);
  for (uint32_t k = 0; k <= m / 2; ++k)
    UnitRoot(-static_cast<int64_t>(k), length, &plan.RealRe[k], &plan.RealIm[k]);
  plan.DctCos.resize(m);
  plan.DctSin.resize(m);
  for (uint32_t k = 0; k < m; ++k) {
    plan.DctCos[k] = static_cast<float>(std::cos(Pi * k / (2.0 * length)));
    plan.DctSin[k] = static_cast<float>(std::sin(Pi * k / (2.0 * length)));
  }
}

struct PlanSet {
  AudioTransformPlan Plans[MaxLog + 1];
  PlanSet() {
    for (uint32_t log = 1; log <= MaxLog; ++log) BuildPlan(Plans[log], 1u << log);
  }
};

// Complex FFT of the M points in re/im (natural order in `work`, already bit-reversed).
void ComplexForward(const AudioTransformPlan* plan, float* re, float* im,
                    const AudioTransformKernels* kernels) {
  kernels->ComplexPasses(re, im, plan->Half, plan->TwiddleRe.data(), plan->TwiddleIm.data());
}

// Packs real samples as complex pairs z[n] = x[2n] + i x[2n+1] in bit-reversed order.
void LoadPairs(const AudioTransformPlan* plan, const float* x, AudioTransformWork* work) {
  const uint16_t* reverse = plan->BitReverse.data();
  for (uint32_t n = 0; n < plan->Half; ++n) {
    work->Re[reverse[n]] = x[2 * n];
    work->Im[reverse[n]] = x[2 * n + 1];
  }
}

// Splits the half-length spectrum Z into the packed real spectrum of the samples.
void SplitSpectrum(const AudioTransformPlan* plan, const AudioTransformWork* work, float* out) {
  const uint32_t m = plan->Half;
  const float* re = work->Re;
  const float* im = work->Im;
  out[0] = re[0] + im[0];
  out[1] = re[0] - im[0];
  for (uint32_t k = 1; k <= m / 2; ++k) {
    const uint32_t j = m - k;
    const float er = (re[k] + re[j]) * 0.5f, ei = (im[k] - im[j]) * 0.5f;
    const float orr = (im[k] + im[j]) * 0.5f, oi = (re[j] - re[k]) * 0.5f;
    const float wr = plan->RealRe[k], wi = plan->RealIm[k];
    const float tr = wr * orr - wi * oi, ti = wr * oi + wi * orr;
    out[2 * j] = er - tr;
    out[2 * j + 1] = ti - ei;
    out[2 * k] = er + tr;
    out[2 * k + 1] = ei + ti;
  }
}

// The reverse of SplitSpectrum, into bit-reversed order.
void JoinSpectrum(const AudioTransformPlan* plan, const float* in, AudioTransformWork* work) {
  const uint32_t m = plan->Half;
  const uint16_t* reverse = plan->BitReverse.data();
  float* re = work->Re;
  float* im = work->Im;
  re[0] = (in[0] + in[1]) * 0.5f;
  im[0] = (in[0] - in[1]) * 0.5f;
  for (uint32_t k = 1; k <= m / 2; ++k) {
    const uint32_t j = m - k;
    const float xr = in[2 * k], xi = in[2 * k + 1], yr = in[2 * j], yi = in[2 * j + 1];
    const float er = (xr + yr) * 0.5f, ei = (xi - yi) * 0.5f;
    const float dr = (xr - yr) * 0.5f, di = (xi + yi) * 0.5f;
    const float wr = plan->RealRe[k], wi = plan->RealIm[k];
    const float orr = wr * dr + wi * di, oi = wr * di - wi * dr;
    re[reverse[k]] = er - oi;
    im[reverse[k]] = ei + orr;
    re[reverse[j]] = er + oi;
    im[reverse[j]] = orr - ei;
  }
}

}  // namespace

const AudioTransformPlan* AudioTransformPlanFor(uint32_t length) {
  static const PlanSet plans;
  uint32_t log = 0;
  while (log <= MaxLog && (1u << log) != length) ++log;
  if (log == 0 || log > MaxLog) {
    std::fprintf(stderr, "audio transform: unsupported length %u\n", length);
    std::abort();
  }
  return &plans.Plans[log];
}

void AudioRealFftForward(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                         const AudioTransformKernels* kernels) {
  LoadPairs(plan, data, work);
  ComplexForward(plan, work->Re, work->Im, kernels);
  SplitSpectrum(plan, work, data);
}

void AudioRealFftInverse(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                         const AudioTransformKernels* kernels) {
  // The inverse DFT is the forward one with real and imaginary parts exchanged on the way in
  // and out.
  JoinSpectrum(plan, data, work);
  ComplexForward(plan, work->Im, work->Re, kernels);
  for (uint32_t n = 0; n < plan->Half; ++n) {
    data[2 * n] = work->Re[n];
    data[2 * n + 1] = work->Im[n];
  }
}

void AudioDctForward(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                     const AudioTransformKernels* kernels) {
  const uint32_t length = plan->Length, m = plan->Half;
  float* v = work->Reordered;
  for (uint32_t n = 0; n < m; ++n) {
    v[n] = data[2 * n];
    v[length - 1 - n] = data[2 * n + 1];
  }
  AudioRealFftForward(plan, v, work, kernels);
  data[0] = v[0];
  data[m] = v[1] * 0.70710678f;
  for (uint32_t k = 1; k < m; ++k) {
    const float a = v[2 * k], b = v[2 * k + 1];
    const float c = plan->DctCos[k], s = plan->DctSin[k];
    data[k] = c * a + s * b;
    data[length - k] = s * a - c * b;
  }
}

void AudioDctInverse(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                     const AudioTransformKernels* kernels) {
  const uint32_t length = plan->Length, m = plan->Half;
  float* v = work->Reordered;
  v[0] = 2.0f * data[0];
  v[1] = 1.41421356f * data[m];
  for (uint32_t k = 1; k < m; ++k) {
    const float a = data[k], b = data[length - k];
    const float c = plan->DctCos[k], s = plan->DctSin[k];
    v[2 * k] = c * a + s * b;
    v[2 * k + 1] = s * a - c * b;
  }
  AudioRealFftInverse(plan, v, work, kernels);
  for (uint32_t n = 0; n < m; ++n) {
    data[2 * n] = v[n];
    data[2 * n + 1] = v[length - 1 - n];
  }
}

// ---- plain kernels ----

void AudioComplexPassesPlain(float* re, float* im, uint32_t m, const float* twiddleRe,
                             const float* twiddleIm) {
  for (uint32_t h = 1; h < m; h *= 2) AudioButterflyPass(re, im, m, h, twiddleRe + h, twiddleIm + h);
}

void AudioFloatToPcmPlain(const float* in, uint32_t count, float scale, int16_t* out) {
  for (uint32_t i = 0; i < count; ++i) {
    float v = in[i] * scale;
    v = v > -32768.0f ? v : -32768.0f;  // a NaN takes the floor, as the vector form does
    v = v < 32767.0f ? v : 32767.0f;
    out[i] = static_cast<int16_t>(std::nearbyint(v));
  }
}

void AudioTransformKernelsInit(AudioTransformKernels* kernels, uint32_t features) {
  kernels->ComplexPasses = AudioComplexPassesPlain;
  kernels->FloatToPcm = AudioFloatToPcmPlain;
#if ORN_X86_KERNELS
  if (ProcessorLevelOf(features) < ProcessorLevelAvx2) return;
  kernels->ComplexPasses = AudioComplexPassesAvx2;
  kernels->FloatToPcm = AudioFloatToPcmAvx2;
#endif
}
