// Sound codec speed: the transforms per kernel variant, and whole blocks of the encoder and
// decoder on a synthetic chord.
#include "audio/audio_transform.h"
#include "audio/velmo_audio.h"
#include "host/cpu_features.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <cstring>
#include <random>
#include <vector>

namespace {

// Variant 0 is the plain level, 1 the AVX2 level.
const ProcessorLevel& LevelFor(int64_t variant) {
  return ProcessorLevels[variant ? ProcessorLevelAvx2 : ProcessorLevelPlain];
}

AudioTransformKernels KernelsFor(int64_t variant) {
  AudioTransformKernels kernels;
  AudioTransformKernelsInit(&kernels, LevelFor(variant).Features | CpuValid);
  return kernels;
}

bool Available(benchmark::State& state, int64_t variant) {
  if (!ProcessorHas(LevelFor(variant).Features)) {
    state.SkipWithError("processor lacks the level");
    return false;
  }
  state.SetLabel(LevelFor(variant).Name);
  return true;
}

std::vector<float> Random(uint32_t length) {
  std::mt19937 random(1);
  std::uniform_real_distribution<float> uniform(-1000.0f, 1000.0f);
  std::vector<float> x(length);
  for (auto& v : x) v = uniform(random);
  return x;
}

void BM_DctInverse(benchmark::State& state) {
  const uint32_t length = static_cast<uint32_t>(state.range(0));
  if (!Available(state, state.range(1))) return;
  const AudioTransformKernels kernels = KernelsFor(state.range(1));
  const AudioTransformPlan* plan = AudioTransformPlanFor(length);
  AudioTransformWork work;
  std::vector<float> x = Random(length);
  for (auto _ : state) {
    AudioDctInverse(plan, x.data(), &work, &kernels);
    benchmark::DoNotOptimize(x.data());
  }
}
BENCHMARK(BM_DctInverse)->ArgsProduct({{512, 2048}, {0, 1}});

void BM_RealFftInverse(benchmark::State& state) {
  const uint32_t length = static_cast<uint32_t>(state.range(0));
  if (!Available(state, state.range(1))) return;
  const AudioTransformKernels kernels = KernelsFor(state.range(1));
  const AudioTransformPlan* plan = AudioTransformPlanFor(length);
  AudioTransformWork work;
  std::vector<float> x = Random(length);
  for (auto _ : state) {
    AudioRealFftInverse(plan, x.data(), &work, &kernels);
    benchmark::DoNotOptimize(x.data());
  }
}
BENCHMARK(BM_RealFftInverse)->ArgsProduct({{4096}, {0, 1}});

void BM_FloatToPcm(benchmark::State& state) {
  if (!Available(state, state.range(0))) return;
  const AudioTransformKernels kernels = KernelsFor(state.range(0));
  std::vector<float> x = Random(2048);
  std::vector<int16_t> out(2048);
  for (auto _ : state) {
    kernels.FloatToPcm(x.data(), 2048, 0.0441941731f, out.data());
    benchmark::DoNotOptimize(out.data());
  }
}
BENCHMARK(BM_FloatToPcm)->Arg(0)->Arg(1);

std::vector<int16_t> Chord(uint32_t rate, uint32_t channels, size_t frames) {
  std::vector<int16_t> pcm(frames * channels);
  for (size_t i = 0; i < frames; ++i)
    for (uint32_t c = 0; c < channels; ++c)
      pcm[i * channels + c] = static_cast<int16_t>(
          4000 * (std::sin(0.0313 * i) + std::sin(0.0394 * i) + std::sin(0.0469 * i)));
  return pcm;
}

// Encodes 44100 Hz stereo at a level; items are sample frames.
void BM_Encode(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  const std::vector<int16_t> pcm = Chord(44100, 2, 44100);
  for (auto _ : state) {
    VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 2, level < 100);
    size_t read = 0;
    while (read < pcm.size() * 2) {
      uint8_t* buffer;
      uint32_t want;
      VelmoAudioEncoderBuffer(encoder, &buffer, &want);
      const size_t got = std::min<size_t>(want, pcm.size() * 2 - read);
      std::memcpy(buffer, reinterpret_cast<const uint8_t*>(pcm.data()) + read, got);
      read += got;
      const uint8_t* out;
      uint32_t size, consumed;
      VelmoAudioEncodeBlock(encoder, VelmoAudioLevelQuality(level), static_cast<uint32_t>(got),
                            &out, &size, &consumed);
      benchmark::DoNotOptimize(out);
    }
    VelmoAudioEncoderClose(encoder);
  }
  state.SetItemsProcessed(state.iterations() * 44100);
}
BENCHMARK(BM_Encode)->Arg(0)->Arg(4)->Arg(104)->Unit(benchmark::kMillisecond);

// Decodes one second of 44100 Hz stereo coded at a level.
void BM_Decode(benchmark::State& state) {
  const int level = static_cast<int>(state.range(0));
  const std::vector<int16_t> pcm = Chord(44100, 2, 44100);
  std::vector<uint8_t> stream;
  size_t blocks = 0;
  {
    VelmoAudioEncoder* encoder = VelmoAudioEncoderOpen(44100, 2, level < 100);
    size_t read = 0;
    while (read < pcm.size() * 2) {
      uint8_t* buffer;
      uint32_t want;
      VelmoAudioEncoderBuffer(encoder, &buffer, &want);
      const size_t got = std::min<size_t>(want, pcm.size() * 2 - read);
      std::memcpy(buffer, reinterpret_cast<const uint8_t*>(pcm.data()) + read, got);
      read += got;
      const uint8_t* out;
      uint32_t size, consumed;
      VelmoAudioEncodeBlock(encoder, VelmoAudioLevelQuality(level), static_cast<uint32_t>(got),
                            &out, &size, &consumed);
      stream.insert(stream.end(), out, out + size);
      ++blocks;
    }
    VelmoAudioEncoderClose(encoder);
  }
  const bool wide = state.range(1) != 0;
  if (!Available(state, wide)) return;
  if (!wide) FeatureMask(ProcessorLevels[ProcessorLevelAvx2].Features);
  std::vector<uint8_t> memory(VelmoAudioDecoderSize(44100, 2));
  std::vector<uint8_t> ring(16384);
  for (auto _ : state) {
    VelmoAudioDecoder* decoder =
        VelmoAudioDecoderOpen(memory.data(), 44100, 2, level < 100 ? VelmoAudioCurrentForm : 0);
    VelmoAudioInput input{stream.data(), stream.size(), 0};
    for (size_t b = 0; b < blocks; ++b) {
      VelmoAudioRing output{ring.data(), ring.data() + ring.size(), ring.data(), 16384, 0, 0, 16};
      VelmoAudioDecodeBlock(decoder, &output, &input);
    }
    benchmark::DoNotOptimize(ring.data());
  }
  FeatureMask(0);
  state.SetItemsProcessed(state.iterations() * 44100);
}
BENCHMARK(BM_Decode)->ArgsProduct({{0, 4, 104}, {0, 1}})->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();
