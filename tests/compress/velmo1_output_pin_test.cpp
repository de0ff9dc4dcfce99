// First-generation encoder: the exact bytes of a few small encodes, pinned by checksum. The
// encoder's speed work must not change a single output byte; a change of output on purpose
// replaces this test.
#include "compress/velmo1_encoder.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "support/encoder_pictures.h"

namespace {

using test_support::EncoderContent;
using test_support::MakeEncoderPicture;

// 64-bit FNV-1a, continued over several sections.
uint64_t Fnv1a(uint64_t h, const std::vector<uint8_t>& bytes) {
  for (uint8_t b : bytes) h = (h ^ b) * 0x100000001b3ull;
  return h;
}

struct Pinned {
  const char* Name;
  VelmoEncoderConfig Config;
  EncoderContent Content;
  int Frames;
  int SecondKey;  // a frame after the first that is asked to be a key frame, or -1
  uint32_t Budget;
  uint64_t Checksum;
  size_t Bytes;
};

// The sections of all frames of one encode, with the checksum over them.
void Encode(const Pinned& p, uint64_t* checksum, size_t* bytes) {
  VelmoEncoder* e = VelmoEncoderCreate(p.Config);
  ASSERT_NE(e, nullptr);
  uint64_t h = 0xcbf29ce484222325ull;
  *bytes = 0;
  for (int t = 0; t < p.Frames; ++t) {
    auto pic = MakeEncoderPicture(p.Config.Width, p.Config.Height, p.Content, t, 7 + t);
    VelmoEncodeResult r{};
    ASSERT_TRUE(VelmoEncodeFrame(e, pic.Input(t == 0 || t == p.SecondKey), p.Budget, &r));
    h = Fnv1a(h, r.Section);
    *bytes += r.Section.size();
  }
  VelmoEncoderFree(e);
  *checksum = h;
}

}  // namespace

TEST(Velmo1OutputPin, SmallEncodesKeepTheirExactBytes) {
  using test_support::Gradient;
  using test_support::Noise;
  using test_support::Shapes;
  // name, encoder, content, frames, second key frame, budget, checksum, bytes
  const Pinned pinned[] = {
      {"64x64 low rate", {64, 64, 101, 0}, Shapes, 4, -1, 600, 0x063e2d37ca7133e7ull, 3052},
      {"64x64 high rate", {64, 64, 101, 0}, Shapes, 4, -1, 4000, 0x2cf8cdb0cdfa9d64ull, 5800},
      {"160x120 alpha", {160, 120, 101, VelmoEncodeAlpha}, Shapes, 3, -1, 2500,
       0x4d3fdb1a55fd8b58ull, 8152},
      {"96x72 run and residue", {96, 72, 101, VelmoEncodeRunAndResidue}, Shapes, 4, 2, 1500,
       0x6d43772884ea6f21ull, 4824},
      {"120x88 grayscale noise", {120, 88, 101, VelmoEncodeGrayscale}, Noise, 3, 2, 5000,
       0x261fd4ece0ec88f9ull, 16924},
      {"160x120 old revision", {160, 120, 100, 0}, Gradient, 3, -1, 20000,
       0x083ff96e1882242cull, 14868},
      {"100x60 residue, alpha", {100, 60, 101, VelmoEncodeRunAndResidue | VelmoEncodeAlpha}, Noise,
       3, -1, 9000, 0xa7e58157eb3ba17eull, 19928},
  };
  for (const Pinned& p : pinned) {
    uint64_t checksum = 0;
    size_t bytes = 0;
    Encode(p, &checksum, &bytes);
    EXPECT_EQ(bytes, p.Bytes) << p.Name;
    EXPECT_EQ(checksum, p.Checksum) << p.Name << std::hex << " checksum 0x" << checksum;
  }
}
