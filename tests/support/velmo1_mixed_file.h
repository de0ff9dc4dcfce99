// First-generation Velmo files of mixed content for the reader's tests and benchmarks: every
// block kind the stream has, intra blocks in key frames and inter blocks (motion included) in
// the others, built with the decoder tests' stream builder (tests/decode, library
// orn_decode_testutil).
#pragma once
#include "support/velmo_file.h"
#include "velmo1_stream_builder.h"

#include <cstdint>

namespace velmo_test {

// A "VLMk" file of `frames` frames of `width` x `height` (multiples of 16), a key frame every
// `keyEvery`; frame i's planes come from seeds derived from i, so that every frame differs.
inline FilePlan MixedFirstGenerationPlan(int32_t width, int32_t height, uint32_t frames,
                                         uint32_t keyEvery = 4) {
  FilePlan s;
  s.Version = 101;
  s.Width = width;
  s.Height = height;
  s.Frames = frames;
  s.KeyEvery = keyEvery;
  s.Video = [=](uint32_t i) {
    const bool inter = i % keyEvery != 0;
    const uint32_t w = uint32_t(width), h = uint32_t(height);
    Velmo1EncPlaneOptions o;
    o.VlmK = true;
    o.ChooseTables = true;
    return Velmo1EncBuildSection(
        false, false, {}, Velmo1EncBuildPlane(Velmo1MixedPlane(w, h, 3 * i + 1, inter), o),
        Velmo1EncBuildPlane(Velmo1MixedPlane(w / 2, h / 2, 3 * i + 2, inter), o),
        Velmo1EncBuildPlane(Velmo1MixedPlane(w / 2, h / 2, 3 * i + 3, inter), o));
  };
  return s;
}

}  // namespace velmo_test
