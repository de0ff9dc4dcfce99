// Transforms of the Velmo sound codec, all of a power-of-two length L from 2 to 4096:
//
//  - packed real FFT: X[k] = sum x[n] e^(-2 pi i n k / L); element 0 holds X[0], element 1
//    holds X[L/2], elements 2k and 2k + 1 hold the real and imaginary parts of X[k];
//  - its inverse, which gives L / 2 times the samples back;
//  - DCT: X[k] = sum x[n] cos(pi (2n + 1) k / 2L), and the inverse sum over all k (element 0
//    at full weight), which gives L / 2 times the samples back when element 0 was halved.
//
// Each runs as a real FFT of half length on complex pairs with pre- and post-passes. The
// radix-2 passes and the float-to-PCM step have vector forms chosen by processor; every
// form performs the same float operations in the same order, so results are identical.
#pragma once
#include <cstdint>

#include "host/cpu_features.h"

constexpr uint32_t AudioTransformMaxLength = 4096;

struct AudioTransformPlan;

// Scratch for one transform at a time; one per thread.
struct alignas(32) AudioTransformWork {
  float Re[AudioTransformMaxLength / 2];
  float Im[AudioTransformMaxLength / 2];
  float Reordered[AudioTransformMaxLength];
};

// All radix-2 passes of a complex FFT of `m` points held in bit-reversed order; the pass of
// half-span h takes its twiddles from twiddleRe/Im + h.
using AudioComplexPassesKernel = void(float* re, float* im, uint32_t m, const float* twiddleRe,
                                      const float* twiddleIm);
// out[i] := saturate16(round-to-nearest-even(in[i] * scale)), NaN giving -32768.
using AudioFloatToPcmKernel = void(const float* in, uint32_t count, float scale, int16_t* out);

// The transforms' kernel table.
struct AudioTransformKernels {
  AudioComplexPassesKernel* ComplexPasses;
  AudioFloatToPcmKernel* FloatToPcm;
};

// Fills `kernels` with the best forms the feature word allows. The codec passes
// ProcessorFeatures() for every block, so that a changed feature mask takes effect at once.
void AudioTransformKernelsInit(AudioTransformKernels* kernels, uint32_t features);

AudioComplexPassesKernel AudioComplexPassesPlain;
AudioFloatToPcmKernel AudioFloatToPcmPlain;
#if ORN_X86_KERNELS
AudioComplexPassesKernel AudioComplexPassesAvx2;
AudioFloatToPcmKernel AudioFloatToPcmAvx2;
#endif

// The plan of a length; a length that is not a power of two from 2 to 4096 is a programming
// fault and stops the program.
const AudioTransformPlan* AudioTransformPlanFor(uint32_t length);

// In place on data[0..L-1], with the kernels given.
void AudioRealFftForward(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                         const AudioTransformKernels* kernels);
void AudioRealFftInverse(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                         const AudioTransformKernels* kernels);
void AudioDctForward(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                     const AudioTransformKernels* kernels);
void AudioDctInverse(const AudioTransformPlan* plan, float* data, AudioTransformWork* work,
                     const AudioTransformKernels* kernels);

// One radix-2 pass over butterflies of half-span h; shared by the kernels for short spans.
inline void AudioButterflyPass(float* re, float* im, uint32_t m, uint32_t h, const float* wr,
                               const float* wi) {
  for (uint32_t s = 0; s < m; s += 2 * h) {
    float* ar = re + s;
    float* ai = im + s;
    float* br = ar + h;
    float* bi = ai + h;
    for (uint32_t j = 0; j < h; ++j) {
      const float tr = br[j] * wr[j] - bi[j] * wi[j];
      const float ti = br[j] * wi[j] + bi[j] * wr[j];
      br[j] = ar[j] - tr;
      bi[j] = ai[j] - ti;
      ar[j] = ar[j] + tr;
      ai[j] = ai[j] + ti;
    }
  }
}
