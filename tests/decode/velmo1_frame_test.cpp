// Frame layout: the alpha size word, the chroma offset word, the old revisions' chaining,
// partial decoding by the skip flags, and the change figure.
#include "decode/velmo1_decoder.h"
#include "decode/video_decoder.h"
#include "format/container.h"
#include "velmo1_stream_builder.h"
#include "velmo1_test_frames.h"

#include <gtest/gtest.h>

namespace {

constexpr uint32_t TagVLMh = VelmoMagicVLMh, TagVLMi = VelmoMagicVLMi, TagVLMk = VelmoMagicVLMk;
constexpr uint8_t Before = 0x11;  // what the next set holds before decoding

// A plane of ONE blocks with the given colours, and SKIP where the colour is negative.
std::vector<uint8_t> Plane(uint32_t w, std::vector<std::vector<int>> rows, bool vlmk) {
  Velmo1EncPlaneSpec p;
  p.Width = w;
  for (const auto& row : rows) {
    std::vector<Velmo1EncRawBlock> blocks;
    for (int c : row) blocks.push_back(c < 0 ? Velmo1EncSkipBlock() : Velmo1EncOneBlock(uint8_t(c)));
    p.Rows.push_back(blocks);
  }
  Velmo1EncPlaneOptions o;
  o.VlmK = vlmk;
  return Velmo1EncBuildPlane(p, o);
}

// Y: 4 x 2 blocks, two of them SKIP. Cr, Cb: 2 x 1 blocks.
const std::vector<std::vector<int>> LumaRows = {{10, -1, 30, 40}, {50, 60, -1, 80}};

// The frame most cases decode: alpha 7 (when present), Y of LumaRows, Cr 1 2, Cb 3 4.
std::vector<uint8_t> Section(bool alpha) {
  return Velmo1EncBuildSection(alpha, false, alpha ? Plane(32, {{7, 7, 7, 7}, {7, 7, 7, 7}}, false)
                                                   : std::vector<uint8_t>{},
                               Plane(32, LumaRows, false), Plane(16, {{1, 2}}, false),
                               Plane(16, {{3, 4}}, false));
}

// Two frame sets of 32 x 16 with alpha: the previous picture in set 0, set 1 to decode into.
struct FrameCase {
  Velmo1TestFrames F{32, 16, 16, 8, true};
  FrameCase() {
    for (uint32_t p = 0; p < VelmoPlaneHdr; ++p) {
      F.FillPlane(0, p, uint8_t(0x60 + p));  // the previous picture
      F.FillPlane(1, p, Before);
    }
  }
  // Decodes from an exact-size heap copy, so that a read past the section is caught.
  uint32_t Decode(const std::vector<uint8_t>& section, uint32_t flags, uint32_t fileFlags,
                  uint32_t tag, const uint32_t* bundleSizes = nullptr) {
    const auto copy = Velmo1ExactCopy(section);
    return Velmo1DecodeFrame(&F.Fb, copy.get(), copy.get() + section.size() + 4, bundleSizes, flags,
                             fileFlags, tag);
  }
  uint8_t At(uint32_t p, uint32_t x, uint32_t y) { return *F.Pixel(1, p, x, y); }
};

TEST(Velmo1Frame, VlmkFrameWithConstantAlpha) {
  FrameCase c;
  const auto section = Velmo1EncBuildSection(true, false, Velmo1EncConstantAlphaPlane(0x99),
                                          Plane(32, LumaRows, true), Plane(16, {{1, 2}}, true),
                                          Plane(16, {{3, -1}}, true));
  const uint32_t figure = c.Decode(section, Velmo1AlphaPlane, Velmo1FileHasAlpha, TagVLMk);
  EXPECT_EQ(c.At(VelmoPlaneAlpha, 31, 15), 0x99);
  EXPECT_EQ(c.At(VelmoPlaneY, 0, 0), 10);
  EXPECT_EQ(c.At(VelmoPlaneY, 8, 0), 0x60);  // SKIP takes the previous picture
  EXPECT_EQ(c.At(VelmoPlaneY, 31, 15), 80);
  EXPECT_EQ(c.At(VelmoPlaneCr, 15, 7), 2);
  EXPECT_EQ(c.At(VelmoPlaneCb, 0, 0), 3);
  EXPECT_EQ(c.At(VelmoPlaneCb, 8, 0), 0x62);
  EXPECT_EQ(figure, 100u);  // the constant alpha plane skipped nothing
  EXPECT_EQ(c.F.Fb.Current, 0u);
  EXPECT_EQ(*c.F.Pixel(0, VelmoPlaneY, 0, 0), 0x60);  // the current set is only read
  EXPECT_TRUE(c.F.GuardsIntact());
}

TEST(Velmo1Frame, ChangeFigureTakesTheLeastChangedPlane) {
  FrameCase c;
  // N = 8 luma blocks. Y skips 2, Cr skips 1 (counts 4), Cb skips 2 (counts 8): S = 2.
  const auto section = Velmo1EncBuildSection(false, false, {}, Plane(32, LumaRows, false),
                                          Plane(16, {{-1, 2}}, false), Plane(16, {{-1, -1}}, false));
  EXPECT_EQ(c.Decode(section, 0, 0, TagVLMi), 75u);
  EXPECT_EQ(c.At(VelmoPlaneCb, 15, 0), 0x62);
  // Without luma the chroma planes decide: S = min(4, 8).
  FrameCase d;
  EXPECT_EQ(d.Decode(section, Velmo1SkipLuma, 0, TagVLMi), 50u);
  EXPECT_EQ(d.At(VelmoPlaneY, 0, 0), Before);
  EXPECT_EQ(d.At(VelmoPlaneCr, 15, 0), 2);
}

// Planes left out by the flags keep what the set held: luma alone as the reader may ask,
// chroma with alpha, and everything.
TEST(Velmo1Frame, SkipFlagsLeavePlanesUntouched) {
  const std::vector<uint8_t> section = Section(true);
  const struct {
    uint32_t Flags;
    uint8_t Alpha, Y, Cr, Cb;  // at (8, 0)
  } cases[] = {{Velmo1SkipChroma, Before, 0x60, Before, Before},
               {Velmo1SkipLuma | Velmo1AlphaPlane, 7, Before, 2, 4},
               {Velmo1AlphaPlane, 7, 0x60, 2, 4}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.Flags);
    FrameCase f;
    f.Decode(section, c.Flags, Velmo1FileHasAlpha, TagVLMi);
    EXPECT_EQ(f.At(VelmoPlaneAlpha, 8, 0), c.Alpha);
    EXPECT_EQ(f.At(VelmoPlaneY, 8, 0), c.Y);  // a SKIP block: the previous picture
    EXPECT_EQ(f.At(VelmoPlaneY, 16, 0), c.Y == Before ? Before : 30);
    EXPECT_EQ(f.At(VelmoPlaneCr, 8, 0), c.Cr);
    EXPECT_EQ(f.At(VelmoPlaneCb, 8, 0), c.Cb);
    EXPECT_TRUE(f.F.GuardsIntact());
  }
}

TEST(Velmo1Frame, OldRevisionChainsPlanesWithoutAChromaWord) {
  FrameCase c;
  // Colours are sign-magnitude: 0x05 is 133, 0x85 is 123.
  const auto section = Velmo1EncBuildSection(false, true, {}, Plane(32, {{5, 5, 5, 5}, {0x85, 5, 5, 5}}, false),
                                          Plane(16, {{0x10, 0x90}}, false), Plane(16, {{0x7F, 0xFF}}, false));
  c.Decode(section, Velmo1OldRevision, 0, TagVLMh);
  EXPECT_EQ(c.At(VelmoPlaneY, 0, 0), 133);
  EXPECT_EQ(c.At(VelmoPlaneY, 0, 8), 123);
  EXPECT_EQ(c.At(VelmoPlaneCr, 0, 0), 144);
  EXPECT_EQ(c.At(VelmoPlaneCr, 8, 0), 112);
  EXPECT_EQ(c.At(VelmoPlaneCb, 0, 0), 255);
  EXPECT_EQ(c.At(VelmoPlaneCb, 8, 0), 1);
}

TEST(Velmo1Frame, OffsetsOutsideTheSectionLeavePlanesAsTheyWere) {
  const std::vector<uint8_t> section = Section(true);
  // The alpha size word pointing past the section: alpha decodes, nothing after it does.
  auto badAlpha = section;
  badAlpha[0] = 0xF0;
  badAlpha[1] = 0xFF;
  FrameCase a;
  a.Decode(badAlpha, Velmo1AlphaPlane, Velmo1FileHasAlpha, TagVLMi);
  EXPECT_EQ(a.At(VelmoPlaneAlpha, 0, 0), 7);
  EXPECT_EQ(a.At(VelmoPlaneY, 0, 0), Before);
  EXPECT_EQ(a.At(VelmoPlaneCr, 0, 0), Before);

  // The chroma offset pointing past the section: Y decodes, chroma stays.
  const size_t chromaWord = section[0] | section[1] << 8;
  auto badChroma = section;
  badChroma[chromaWord + 2] = 0x7F;
  FrameCase b;
  b.Decode(badChroma, Velmo1AlphaPlane, Velmo1FileHasAlpha, TagVLMi);
  EXPECT_EQ(b.At(VelmoPlaneY, 0, 0), 10);
  EXPECT_EQ(b.At(VelmoPlaneCr, 0, 0), Before);
  EXPECT_EQ(b.At(VelmoPlaneCb, 0, 0), Before);
  EXPECT_TRUE(b.F.GuardsIntact());
}

TEST(Velmo1Frame, SingleBufferRingReadsAndWritesTheSameSet) {
  Velmo1TestFrames f(32, 16, 16, 8, false, 1);
  f.FillPlane(0, VelmoPlaneY, 0x44);
  const std::vector<uint8_t> section = Section(false);
  EXPECT_EQ(Velmo1DecodeFrame(&f.Fb, section.data(), section.data() + section.size() + 4, nullptr,
                              0, 0, TagVLMi),
            100u);  // the chroma planes skipped nothing
  EXPECT_EQ(*f.Pixel(0, VelmoPlaneY, 8, 0), 0x44);
  EXPECT_EQ(*f.Pixel(0, VelmoPlaneY, 0, 0), 10);
  EXPECT_TRUE(f.GuardsIntact());
}

TEST(Velmo1Frame, SmallGivenBundleSizesAreRaised) {
  FrameCase c;
  const uint32_t tiny[Velmo1BundleCount] = {1, 1, 1, 1, 1, 1, 1, 1, 1};
  c.Decode(Section(false), 0, 0, TagVLMi, tiny);
  EXPECT_EQ(c.At(VelmoPlaneY, 24, 8), 80);
  EXPECT_EQ(c.At(VelmoPlaneCb, 8, 0), 4);
}

// The reader's record: the luma share, then the chroma share with alpha, give the picture of one
// whole decode; the luma share alone leaves chroma and alpha, and the alpha open bit decides.
TEST(Velmo1Frame, DecoderRecordSharesAddUpToTheWholeFrame) {
  EXPECT_EQ(VelmoDecoderForTag(TagVLMi), &Velmo1VideoDecoder);
  EXPECT_EQ(VelmoDecoderForTag(VelmoMagicVM2j), &Velmo2VideoDecoder);
  EXPECT_EQ(VelmoDecoderForTag(0x41424344), nullptr);
  const std::vector<uint8_t> section = Section(true);
  FrameCase whole;
  whole.Decode(section, Velmo1AlphaPlane, Velmo1FileHasAlpha, TagVLMi);

  const VelmoDecoderConfig config{TagVLMi, Velmo1FileHasAlpha, 32, 16, Velmo1AlphaPlane, nullptr};
  void* decoder = Velmo1VideoDecoder.Create(&config);
  ASSERT_NE(decoder, nullptr);
  FrameCase shares;
  uint32_t figure = 0;
  const auto share = [&](uint32_t first, uint32_t count) {
    return Velmo1VideoDecoder.DecodeSlices(decoder, &shares.F.Fb, section.data(),
                                           uint32_t(section.size()), false, first, count,
                                           &figure);
  };
  ASSERT_TRUE(share(0, 1));
  EXPECT_EQ(shares.At(VelmoPlaneY, 0, 0), 10);
  EXPECT_EQ(shares.At(VelmoPlaneCr, 0, 0), Before);
  EXPECT_EQ(shares.At(VelmoPlaneAlpha, 0, 0), Before);
  ASSERT_TRUE(share(1, 1));
  for (uint32_t p = 0; p < VelmoPlaneHdr; ++p)
    for (uint32_t y = 0; y < shares.F.Height(p); ++y)
      for (uint32_t x = 0; x < shares.F.Width(p); ++x)
        ASSERT_EQ(shares.At(p, x, y), whole.At(p, x, y)) << p << " " << x << "," << y;
  Velmo1VideoDecoder.Destroy(decoder);
}

}  // namespace
