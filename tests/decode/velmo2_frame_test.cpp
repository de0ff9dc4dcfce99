// Whole second-generation frames through the decoder: streams written bit by bit from the
// format's codes, decoded into guarded frame buffers, and checked pixel by pixel against what
// the format's rules give for them.
#include "decode/velmo2_decoder.h"

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "bit_writer.h"
#include "support/velmo2_stream.h"
#include "host/cpu_features.h"
#include "velmo1_test_frames.h"
#include "velmo_flags.h"

namespace {

using velmo2_test::PutDcLevel;
using velmo2_test::PutVectorDiff;

constexpr uint32_t kCurrent = 0x2000, kNoVertical = 0x4000, kNoHorizontal = 0x8000;
constexpr uint32_t kConstantAlpha = 0x80000;
constexpr uint32_t kNoEdges = kCurrent | kNoVertical | kNoHorizontal;

// Frame buffers in the second generation's geometry: planes of whole 32x16 units.
struct Frames : Velmo1TestFrames {
  Frames(uint32_t w, uint32_t h, bool alpha)
      : Velmo1TestFrames((w + 31) & ~31u, (h + 15) & ~15u, ((w + 31) & ~31u) / 2,
                         ((h + 15) & ~15u) / 2, alpha) {
    Fb.Width = w;
    Fb.Height = h;
  }
  // The picture the decoder writes (the next set) and the one it reads.
  uint8_t Out(uint32_t p, uint32_t x, uint32_t y) { return *Pixel(1 - Fb.Current, p, x, y); }
  void SetPrevious(uint32_t p, const std::function<uint8_t(uint32_t, uint32_t)>& f) {
    for (uint32_t y = 0; y < Height(p); ++y)
      for (uint32_t x = 0; x < Width(p); ++x) *Pixel(Fb.Current, p, x, y) = f(x, y);
  }
};

// A video section: the frame word, the offsets of slices 1 and up, then each slice's words.
std::vector<uint8_t> Section(uint32_t word, const std::vector<BitWriter>& slices) {
  const uint32_t n = uint32_t(slices.size());
  std::vector<uint8_t> out(n < 3 ? 8 : n * 4, 0);
  std::memcpy(out.data(), &word, 4);
  for (uint32_t k = 0; k < n; ++k) {
    if (k > 0) {
      const uint32_t offset = uint32_t(out.size());
      std::memcpy(out.data() + 4 * k, &offset, 4);
    }
    const std::vector<uint8_t> bytes = slices[k].Bytes();
    out.insert(out.end(), bytes.begin(), bytes.end());
  }
  return out;
}

struct Decoder {
  Velmo2Decoder* D;
  Decoder(uint32_t w, uint32_t h, const char* tag, uint32_t flags, bool alpha) {
    Velmo2DecoderSetup s{};
    s.Width = w;
    s.Height = h;
    std::memcpy(s.Tag, tag, 4);
    s.FileFlags = flags;
    s.Alpha = alpha;
    s.Features = ProcessorFeatures();
    D = Velmo2DecoderCreate(s);
  }
  ~Decoder() { Velmo2DecoderDestroy(D); }
  // Decodes `count` slices from `first` of a section into the frames.
  Velmo2FrameResult Decode(Frames& f, const std::vector<uint8_t>& section, bool key, uint32_t first = 0,
                           uint32_t count = 1) {
    return Velmo2DecodeFrame(D, &f.Fb, section.data(), section.size(), key, first, count);
  }
};

// ---- Codes ------------------------------------------------------------------------------------

// An intra plane with no AC data, after a plane whose previous mask was 0: the mask (luma: 0
// and the clone bit 0; chroma: the default), then the DC residual levels by block.
void PutFlatPlane(BitWriter& w, bool chroma, const std::vector<int32_t>& levels) {
  w.Code(chroma ? "1" : "1 0");
  bool any = false;
  for (int32_t l : levels) any |= l != 0;
  w.PutBit(any);
  if (any)
    for (int32_t l : levels) PutDcLevel(w, l);
}

// An intra macroblock of a key frame with no AC data: quantiser unchanged, then Y, Cr, Cb (and
// alpha) with the given luma levels.
void PutFlatIntra(BitWriter& w, const std::vector<int32_t>& luma, bool alpha = false) {
  w.Code("1");
  PutFlatPlane(w, false, luma);
  PutFlatPlane(w, true, {0, 0, 0, 0});
  PutFlatPlane(w, true, {0, 0, 0, 0});
  if (alpha) PutFlatPlane(w, false, std::vector<int32_t>(16, 0));
}

std::vector<int32_t> Levels(std::initializer_list<std::pair<int, int32_t>> set) {
  std::vector<int32_t> l(16, 0);
  for (auto [index, level] : set) l[size_t(index)] = level;
  return l;
}

// Pixel value of a DC-only block at quantiser 16 (residual step 16) with no flat smoothing.
uint8_t FlatPixel(int32_t dc) { return uint8_t(((dc + 4) * 8) >> 6); }

void ExpectBlock(Frames& f, uint32_t p, uint32_t x0, uint32_t y0, uint32_t size, uint8_t v) {
  for (uint32_t y = y0; y < y0 + size; ++y)
    for (uint32_t x = x0; x < x0 + size; ++x)
      ASSERT_EQ(f.Out(p, x, y), v) << "plane " << p << " at " << x << "," << y;
}

// ---- Key frames -------------------------------------------------------------------------------

// DC values run from the first block of the picture through its neighbours: the first
// macroblock's block 0 raises all of it, the second macroblock predicts from it and lowers only
// its last block. Chroma stays at the start value.
TEST(Velmo2Frame, KeyFrameDcFlowsThroughBothMacroblocks) {
  Decoder d(64, 32, "VM2j", 0, false);
  Frames f(64, 32, false);
  BitWriter w;
  PutFlatIntra(w, Levels({{0, 1}}));
  PutFlatIntra(w, Levels({{15, -2}}));
  const auto section = Section(kNoEdges, {w});
  ASSERT_EQ(d.Decode(f, section, true), Velmo2FrameDecoded);
  ExpectBlock(f, VelmoPlaneY, 0, 0, 32, FlatPixel(1040));
  // Block 15 is at (3, 3) of the second macroblock.
  ExpectBlock(f, VelmoPlaneY, 32 + 24, 24, 8, FlatPixel(1008));
  ExpectBlock(f, VelmoPlaneY, 32, 0, 24, FlatPixel(1040));
  ExpectBlock(f, VelmoPlaneCr, 0, 0, 16, FlatPixel(1024));
  ExpectBlock(f, VelmoPlaneCb, 16, 0, 16, FlatPixel(1024));
  EXPECT_TRUE(f.GuardsIntact());
}

// A second slice starts afresh: its first macroblock predicts from the start value, not from
// the slice above. Decoded whole, or as two shares, the picture is the same.
TEST(Velmo2Frame, SlicesStartAfreshAndSharesAgree) {
  Decoder d(64, 128, "VM2h", 0, false);
  ASSERT_EQ(Velmo2DecoderLayout(d.D).Slices, 2u);
  BitWriter top, bottom;
  for (int mb = 0; mb < 4; ++mb) PutFlatIntra(top, mb == 0 ? Levels({{0, 1}}) : Levels({}));
  for (int mb = 0; mb < 4; ++mb) PutFlatIntra(bottom, Levels({}));
  const auto section = Section(kNoEdges, {top, bottom});

  Frames whole(64, 128, false), split(64, 128, false);
  ASSERT_EQ(d.Decode(whole, section, true, 0, 2), Velmo2FrameDecoded);
  Velmo2DecoderFinishSeams(d.D, &whole.Fb);
  ExpectBlock(whole, VelmoPlaneY, 0, 0, 64, FlatPixel(1040));
  ExpectBlock(whole, VelmoPlaneY, 0, 64, 64, FlatPixel(1024));

  for (uint32_t k : {1u, 0u})
    ASSERT_EQ(d.Decode(split, section, true, k, 1), Velmo2FrameDecoded);
  Velmo2DecoderFinishSeams(d.D, &split.Fb);
  for (uint32_t p = 0; p < VelmoPlaneAlpha; ++p)
    for (uint32_t y = 0; y < split.Height(p); ++y)
      for (uint32_t x = 0; x < split.Width(p); ++x)
        ASSERT_EQ(split.Out(p, x, y), whole.Out(p, x, y)) << p << " " << x << "," << y;
  EXPECT_TRUE(split.GuardsIntact());
}

// With a constant alpha the frame carries no alpha data: the plane is filled with the value of
// the frame word, and the macroblocks read on in step (the second one's DC shows it).
TEST(Velmo2Frame, ConstantAlphaFillsThePlaneAndReadsNoAlphaData) {
  Decoder d(64, 32, "VM2j", VelmoFlagAlpha, true);
  Frames f(64, 32, true);
  BitWriter w;
  PutFlatIntra(w, Levels({}));
  PutFlatIntra(w, Levels({{0, 3}}));
  const auto section = Section(kNoEdges | kConstantAlpha | 77u << 24, {w});
  ASSERT_EQ(d.Decode(f, section, true), Velmo2FrameDecoded);
  ExpectBlock(f, VelmoPlaneAlpha, 0, 0, 32, 77);
  ExpectBlock(f, VelmoPlaneAlpha, 32, 0, 32, 77);
  ExpectBlock(f, VelmoPlaneY, 32, 0, 32, FlatPixel(1024 + 48));

  // Without the constant, the same planes come with alpha data of their own.
  BitWriter coded;
  PutFlatIntra(coded, Levels({}), true);
  PutFlatIntra(coded, Levels({{0, 3}}), true);
  const auto withAlpha = Section(kNoEdges, {coded});
  ASSERT_EQ(d.Decode(f, withAlpha, true), Velmo2FrameDecoded);
  ExpectBlock(f, VelmoPlaneAlpha, 0, 0, 32, FlatPixel(1024));
  ExpectBlock(f, VelmoPlaneY, 32, 0, 32, FlatPixel(1024 + 48));
}

// ---- Inter frames -----------------------------------------------------------------------------

uint8_t Pattern(uint32_t x, uint32_t y) { return uint8_t(x * 3 + y * 5); }

// Every kind through the adaptive list: skipped macroblocks copy the previous picture; one
// vector of one pixel to the right moves luma and chroma, clamped at the right edge.
TEST(Velmo2Frame, SkippedCopiesAndMotionFetchesClamped) {
  const uint32_t w = 96, h = 64;
  Decoder d(w, h, "VM2j", 0, false);
  Frames f(w, h, false);
  for (uint32_t p = 0; p < VelmoPlaneAlpha; ++p) f.SetPrevious(p, [p](uint32_t x, uint32_t y) {
    return uint8_t(Pattern(x, y) + 40 * p);
  });

  // Skipped is third in the list; once taken it moves up, so a row reads 000, 01, 1.
  BitWriter skipped;
  for (int row = 0; row < 2; ++row) skipped.Code("000 01 1");
  const auto still = Section(kNoEdges, {skipped});
  ASSERT_EQ(d.Decode(f, still, false), Velmo2FrameDecoded);
  for (uint32_t p = 0; p < VelmoPlaneAlpha; ++p)
    for (uint32_t y = 0; y < f.Height(p); ++y)
      for (uint32_t x = 0; x < f.Width(p); ++x)
        ASSERT_EQ(f.Out(p, x, y), *f.Pixel(0, p, x, y)) << p << " " << x << "," << y;

  // Motion is first in the list. The first vector is (2, 0) half pixels; every later one is
  // predicted as the same, with differences of 0.
  BitWriter moved;
  for (int mb = 0; mb < 6; ++mb) {
    moved.Code("1 1");  // kind, one vector
    PutVectorDiff(moved, mb == 0 ? 2 : 0);
    PutVectorDiff(moved, 0);
  }
  const auto shifted = Section(kNoEdges, {moved});
  ASSERT_EQ(d.Decode(f, shifted, false), Velmo2FrameDecoded);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      // The last quadrant column would reach past the picture: it is clamped back to 0.
      const uint32_t from = x >= w - 16 ? x : x + 1;
      ASSERT_EQ(f.Out(VelmoPlaneY, x, y), *f.Pixel(0, VelmoPlaneY, from, y)) << x << "," << y;
    }
  // Chroma moves half a pixel: the rounded-up mean of each pair, on values scaled by 16.
  for (uint32_t p : {uint32_t(VelmoPlaneCr), uint32_t(VelmoPlaneCb)})
    for (uint32_t y = 0; y < h / 2; ++y)
      for (uint32_t x = 0; x < w / 2; ++x) {
        const int32_t a = *f.Pixel(0, p, x, y) * 16, b = *f.Pixel(0, p, x + 1, y) * 16;
        const int32_t half = ((a | b) - ((a ^ b) >> 1) + 8) >> 4;
        const int32_t expected = x >= w / 2 - 8 ? *f.Pixel(0, p, x, y) : half;
        ASSERT_EQ(f.Out(p, x, y), expected) << p << " " << x << "," << y;
      }
  EXPECT_TRUE(f.GuardsIntact());
}

// A residual macroblock adds its residual to the prediction at its vectors. A DC level of 1 on
// block 0 (a residual of 16) is predicted into every other block of its macroblock, which all
// rise by 2; the next macroblock's prediction starts at 0 again. A chroma flag of 0 leaves Cr
// and Cb predicted only.
TEST(Velmo2Frame, ResidualAddsToThePredictionBlockByBlock) {
  Decoder d(64, 32, "VM2j", 0, false);
  Frames f(64, 32, false);
  for (uint32_t p = 0; p < VelmoPlaneAlpha; ++p) f.SetPrevious(p, [](uint32_t x, uint32_t y) {
    return Pattern(x, y);
  });
  BitWriter w;
  for (int mb = 0; mb < 2; ++mb) {
    w.Code(mb == 0 ? "01" : "1");  // residual: second in the list, then first
    w.Code("1 1 1");                // one vector, differences 0 and 0
    w.Code("1");                    // quantiser unchanged
    PutFlatPlane(w, false, mb == 0 ? Levels({{0, 1}}) : Levels({}));
    w.Code("0");  // no chroma residual
  }
  const auto section = Section(kCurrent, {w});
  ASSERT_EQ(d.Decode(f, section, false), Velmo2FrameDecoded);
  for (uint32_t p = 0; p < VelmoPlaneAlpha; ++p)
    for (uint32_t y = 0; y < f.Height(p); ++y)
      for (uint32_t x = 0; x < f.Width(p); ++x) {
        const bool raised = p == VelmoPlaneY && x < 32;
        ASSERT_EQ(f.Out(p, x, y), Pattern(x, y) + (raised ? 2 : 0)) << p << " " << x << "," << y;
      }
}

// An intra macroblock beside a skipped one predicts its DC values from the block means of the
// skipped pixels (eight times their level), not from the start value.
TEST(Velmo2Frame, IntraBesideInterPredictsFromBlockMeans) {
  Decoder d(64, 32, "VM2j", 0, false);
  Frames f(64, 32, false);
  f.SetPrevious(VelmoPlaneY, [](uint32_t, uint32_t) { return uint8_t(100); });
  f.SetPrevious(VelmoPlaneCr, [](uint32_t, uint32_t) { return uint8_t(60); });
  f.SetPrevious(VelmoPlaneCb, [](uint32_t, uint32_t) { return uint8_t(200); });
  BitWriter w;
  w.Code("000");  // skipped: third in the list
  w.Code("001");  // intra: fourth in the list
  PutFlatIntra(w, Levels({}));
  const auto section = Section(kNoEdges, {w});
  ASSERT_EQ(d.Decode(f, section, false), Velmo2FrameDecoded);
  ExpectBlock(f, VelmoPlaneY, 0, 0, 32, 100);
  ExpectBlock(f, VelmoPlaneY, 32, 0, 32, FlatPixel(8 * 100));
  ExpectBlock(f, VelmoPlaneCr, 16, 0, 16, FlatPixel(8 * 60));
  ExpectBlock(f, VelmoPlaneCb, 16, 0, 16, FlatPixel(8 * 200));
  EXPECT_EQ(FlatPixel(8 * 100), 100);
}

// A frame of the older stream is left undecoded: the previous picture is carried over.
TEST(Velmo2Frame, OlderStreamKeepsThePreviousPicture) {
  Decoder d(64, 32, "VM2j", 0, false);
  Frames f(64, 32, false);
  f.SetPrevious(VelmoPlaneY, Pattern);
  BitWriter w;
  w.Put(0xFFFFFFFF, 32);
  const auto section = Section(kNoVertical, {w});
  ASSERT_EQ(d.Decode(f, section, false), Velmo2FrameOldStream);
  for (uint32_t y = 0; y < 32; ++y)
    for (uint32_t x = 0; x < 64; ++x) ASSERT_EQ(f.Out(VelmoPlaneY, x, y), Pattern(x, y));
}

// A section cut short is a damaged frame, decoded within its buffers.
TEST(Velmo2Frame, ShortSectionIsDamagedNotOverrun) {
  Decoder d(64, 128, "VM2h", 0, false);
  Frames f(64, 128, false);
  BitWriter w;
  PutFlatIntra(w, Levels({{0, 1}}));
  const auto section = Section(kNoEdges, {w, BitWriter()});
  for (uint32_t first : {0u, 1u})
    EXPECT_EQ(d.Decode(f, section, true, first, 1), Velmo2FrameDamaged);
  EXPECT_TRUE(f.GuardsIntact());
}

}  // namespace
