// Damaged and hostile frame sections: random bytes, cut and bit-flipped valid frames. Run under
// the address sanitizer these catch any read outside the section; the guard bytes around the
// planes catch any write outside them.
#include "decode/velmo1_decoder.h"
#include "format/container.h"
#include "velmo1_stream_builder.h"
#include "velmo1_test_frames.h"

#include <gtest/gtest.h>

#include <random>

namespace {

constexpr uint32_t Tags[3] = {VelmoMagicVLMg, VelmoMagicVLMi, VelmoMagicVLMk};

// Decodes from an exact-size heap copy and checks the guards.
void DecodeSafely(Velmo1TestFrames& f, const std::vector<uint8_t>& section, uint32_t flags,
                  uint32_t fileFlags, uint32_t tag) {
  const auto copy = Velmo1ExactCopy(section);
  Velmo1DecodeFrame(&f.Fb, copy.get(), copy.get() + section.size() + 4, nullptr, flags, fileFlags, tag);
  ASSERT_TRUE(f.GuardsIntact());
}

std::vector<uint8_t> ValidFrame(uint32_t seed) {
  Velmo1EncPlaneOptions k;
  k.VlmK = true;
  k.ChooseTables = true;
  auto plane = [&](uint32_t w, uint32_t h, uint32_t s) { return Velmo1EncBuildPlane(Velmo1MixedPlane(w, h, s, true), k); };
  return Velmo1EncBuildSection(true, false, plane(64, 48, seed), plane(64, 48, seed + 1), plane(32, 24, seed + 2),
                            plane(32, 24, seed + 3));
}

TEST(Velmo1Hostile, RandomBytes) {
  std::mt19937 rng(99);
  Velmo1TestFrames f(64, 48, 32, 24, true);
  for (int round = 0; round < 600; ++round) {
    std::vector<uint8_t> section(rng() % 1500);
    const bool sparse = round % 3 == 0;  // mostly zeros: long-lived bundles, counts near limits
    for (uint8_t& b : section) b = uint8_t(sparse ? (rng() % 16 == 0 ? rng() : 0) : rng());
    if (section.size() >= 8 && round % 2) {  // plausible offset words
      section[0] = uint8_t(8 + rng() % 64);
      section[1] = section[2] = section[3] = 0;
    }
    const uint32_t flags = (round & 1 ? uint32_t(Velmo1AlphaPlane) : 0u) |
                           (round % 5 == 0 ? uint32_t(Velmo1OldRevision) : 0u) |
                           (round % 7 == 0 ? uint32_t(Velmo1SkipLuma) : 0u);
    DecodeSafely(f, section, flags, round % 4 ? Velmo1FileHasAlpha : 0u, Tags[round % 3]);
    f.Fb.Current ^= 1;
  }
}

TEST(Velmo1Hostile, CutValidFrames) {
  const std::vector<uint8_t> full = ValidFrame(5);
  Velmo1TestFrames f(64, 48, 32, 24, true);
  for (size_t cut = 0; cut <= full.size(); cut += (cut < 64 ? 1 : 7)) {
    DecodeSafely(f, std::vector<uint8_t>(full.begin(), full.begin() + cut), Velmo1AlphaPlane,
                 Velmo1FileHasAlpha, Tags[2]);
  }
}

TEST(Velmo1Hostile, BitFlippedValidFrames) {
  std::mt19937 rng(17);
  Velmo1TestFrames f(64, 48, 32, 24, true);
  std::vector<std::vector<uint8_t>> frames;
  for (uint32_t seed = 0; seed < 8; ++seed) frames.push_back(ValidFrame(seed));
  for (int round = 0; round < 400; ++round) {
    std::vector<uint8_t> section = frames[round % 8];
    for (int flips = 1 + round % 4; flips > 0; --flips) section[rng() % section.size()] ^= uint8_t(1u << (rng() % 8));
    DecodeSafely(f, section, Velmo1AlphaPlane, Velmo1FileHasAlpha, Tags[round % 3]);
    f.Fb.Current ^= 1;
  }
}

TEST(Velmo1Hostile, OddFrameBuffersAreRefusedOrKeptInBounds) {
  const std::vector<uint8_t> frame = ValidFrame(1);
  // Plane sizes that are not whole blocks decode the whole blocks only.
  Velmo1TestFrames odd(61, 45, 29, 21, true);
  DecodeSafely(odd, frame, Velmo1AlphaPlane, Velmo1FileHasAlpha, Tags[2]);
  // Missing planes are passed over.
  Velmo1TestFrames missing(64, 48, 32, 24, false);
  missing.Fb.Sets[1].Planes[VelmoPlaneCr] = nullptr;
  DecodeSafely(missing, frame, Velmo1AlphaPlane, Velmo1FileHasAlpha, Tags[2]);
  // A null section or a limit before it.
  EXPECT_EQ(Velmo1DecodeFrame(&missing.Fb, nullptr, nullptr, nullptr, 0, 0, Tags[1]), 0u);
  EXPECT_EQ(Velmo1DecodeFrame(&missing.Fb, frame.data() + 8, frame.data(), nullptr, 0, 0, Tags[1]), 0u);
  Velmo1TestFrames empty(0, 0, 0, 0, false);
  EXPECT_EQ(Velmo1DecodeFrame(&empty.Fb, frame.data(), frame.data() + frame.size() + 4, nullptr, 0, 0, Tags[1]), 0u);
}

}  // namespace
