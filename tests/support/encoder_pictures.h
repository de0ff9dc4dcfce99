// Frames for the first-generation encoder's tests: four planes at picture size (luma, the two
// half-size chroma planes, alpha) of generated content that may move with the frame number.
#pragma once
#include <cstdint>
#include <cstdlib>
#include <random>
#include <vector>

#include "compress/video_encoder.h"

namespace test_support {

// A picture of four planes at picture size.
struct EncoderPicture {
  uint32_t W, H;
  std::vector<uint8_t> P[4];
  VelmoEncodeInput Input(bool key) {
    VelmoEncodeInput in{};
    const uint32_t cw = (W + 1) / 2;
    const int32_t pitches[4] = {int32_t(W), int32_t(cw), int32_t(cw), int32_t(W)};
    for (int i = 0; i < 4; ++i) in.Planes[i] = P[i].data(), in.Pitches[i] = pitches[i];
    in.Key = key;
    return in;
  }
};

enum EncoderContent { Gradient, Noise, Shapes, Flat };

// Content at time t: a gradient, noise, or shapes moving over a textured background.
inline EncoderPicture MakeEncoderPicture(uint32_t w, uint32_t h, EncoderContent content, int t,
                                         uint32_t seed = 1) {
  EncoderPicture pic{w, h, {}};
  const uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
  std::mt19937 rng(seed);
  pic.P[0].resize(size_t(w) * h);
  pic.P[3].resize(size_t(w) * h);
  pic.P[1].resize(size_t(cw) * ch);
  pic.P[2].resize(size_t(cw) * ch);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      uint8_t v = 0;
      switch (content) {
        case Gradient:
          v = uint8_t((x * 255) / (w ? w : 1) / 2 + (y * 255) / (h ? h : 1) / 2);
          break;
        case Noise:
          v = uint8_t(rng());
          break;
        case Flat:
          v = 77;
          break;
        case Shapes: {
          v = uint8_t(60 + ((x / 4 + y / 4) & 1) * 20 + (x * 40) / w);
          const int cx = 20 + 3 * t, cy = 16 + t;
          if (std::abs(int(x) - cx) < 10 && std::abs(int(y) - cy) < 8) v = 220;
          const int dx = int(x) - (int(w) - 30 - 2 * t), dy = int(y) - int(h) / 2;
          if (dx * dx + dy * dy < 120) v = uint8_t(30 + (x & 7) * 4);
          break;
        }
      }
      pic.P[0][size_t(y) * w + x] = v;
      pic.P[3][size_t(y) * w + x] = uint8_t(x < w / 2 ? 255 : (y * 4));
    }
  for (uint32_t y = 0; y < ch; ++y)
    for (uint32_t x = 0; x < cw; ++x) {
      pic.P[1][size_t(y) * cw + x] = uint8_t(128 + (int(x) - int(cw) / 2) / 2 + t);
      pic.P[2][size_t(y) * cw + x] = uint8_t(100 + y);
    }
  return pic;
}

}  // namespace test_support
