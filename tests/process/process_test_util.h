// Frames and runners shared by the frame processing tests.
#pragma once
#include <cstdint>
#include <cstring>
#include <functional>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "process/filters.h"
#include "process/scaler.h"

namespace processtest {

inline uint32_t Argb(uint32_t a, uint32_t r, uint32_t g, uint32_t b) {
  return a << 24 | r << 16 | g << 8 | b;
}
inline uint32_t ChannelOf(uint32_t px, int index) { return (px >> (8 * index)) & 255; }

inline std::vector<uint32_t> RandomFrame(uint32_t width, uint32_t height, uint32_t seed) {
  std::mt19937 random(seed);
  std::vector<uint32_t> frame(size_t(width) * height);
  for (auto& px : frame) px = random();
  return frame;
}

// Four floats a pixel from ARGB words, each byte ÷ 255.
inline std::vector<float> ToFloat(const std::vector<uint32_t>& frame) {
  std::vector<float> out(frame.size() * 4);
  for (size_t i = 0; i < frame.size(); ++i) {
    out[4 * i + 0] = float(ChannelOf(frame[i], 2)) / 255.0f;
    out[4 * i + 1] = float(ChannelOf(frame[i], 1)) / 255.0f;
    out[4 * i + 2] = float(ChannelOf(frame[i], 0)) / 255.0f;
    out[4 * i + 3] = float(ChannelOf(frame[i], 3)) / 255.0f;
  }
  return out;
}

inline const uint8_t* Bytes(const void* p) { return static_cast<const uint8_t*>(p); }
inline uint8_t* Bytes(void* p) { return static_cast<uint8_t*>(p); }

inline PixelFetch Fetch32(bool premultiply = false) {
  PixelFetch fetch;
  PixelFetchSelect(&fetch, 32, nullptr, premultiply);
  return fetch;
}

inline PixelFetchFloat Fetch128(bool premultiply = false) {
  PixelFetchFloat fetch;
  PixelFetchFloatSelect(&fetch, 128, premultiply);
  return fetch;
}

// A stage run on one frame: the stage functions, or a lambda binding their level.
typedef std::function<void(const StageFrames*)> Stage;

// Runs `stage` from a 32-bit frame into a new one (first filled with a marker), `w` × `h`.
inline std::vector<uint32_t> ApplyInt(const std::vector<uint32_t>& src, uint32_t w, uint32_t h,
                                      const Stage& stage,
                                      const ProcessJobRunner* runner = ProcessInlineRunner()) {
  std::vector<uint32_t> dst(src.size(), 0xA5A5A5A5u);
  const PixelFetch fetch = Fetch32();
  const StageFrames f{Bytes(src.data()), ptrdiff_t(w) * 4, &fetch, nullptr,
                      Bytes(dst.data()), ptrdiff_t(w) * 4, w, h, false, runner};
  stage(&f);
  return dst;
}

// The same on frames of four floats a pixel; `floatSource` marks wide-range colour.
inline std::vector<float> ApplyFloat(const std::vector<float>& src, uint32_t w, uint32_t h,
                                     const Stage& stage, bool floatSource = false,
                                     const ProcessJobRunner* runner = ProcessInlineRunner()) {
  std::vector<float> dst(src.size(), -3.0f);
  const PixelFetchFloat fetch = Fetch128();
  const StageFrames f{Bytes(src.data()), ptrdiff_t(w) * 16, nullptr, &fetch,
                      Bytes(dst.data()), ptrdiff_t(w) * 16, w, h, floatSource, runner};
  stage(&f);
  return dst;
}

// A runner that notes the job names it is given and runs each job on `threads` threads of its
// own, each call with its own index.
struct RecordingRunner {
  ProcessJobRunner Runner;
  std::vector<std::string> Names;
  uint32_t Threads = 1;
};

inline void RecordingRun(const ProcessJobRunner* runner, const char* name, PoolFunction function,
                         void* context) {
  auto* r = static_cast<RecordingRunner*>(runner->Owner);
  r->Names.push_back(name);
  std::vector<std::thread> threads;
  for (uint32_t i = 1; i < r->Threads; ++i) threads.emplace_back(function, context, i);
  function(context, 0);
  for (auto& t : threads) t.join();
}

inline void InitRecordingRunner(RecordingRunner* r, uint32_t threads) {
  r->Runner = ProcessJobRunner{RecordingRun, r};
  r->Threads = threads;
}

}  // namespace processtest
