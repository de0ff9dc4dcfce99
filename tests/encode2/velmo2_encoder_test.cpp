// The second-generation frame encoder as a whole: what the decoder makes of each section is the
// encoder's own reference picture (the errors it reports are the decoded picture's), for every
// slice count and option; the rate search brings frames near their budget; a cancelled frame
// gives nothing.
#include "encode2/velmo2_encoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstring>
#include <string>
#include <vector>

#include "decode/velmo2_decoder.h"
#include "host/cpu_features.h"
#include "host/platform.h"
#include "support/velmo2_stream.h"

namespace {

// A picture of moving waves and a moving disc; `cut` gives an unrelated picture of noise.
struct Picture {
  uint32_t W, H;
  std::vector<uint8_t> P[4];  // Y, Cr, Cb, alpha
  Picture(uint32_t w, uint32_t h, int t, bool cut = false) : W(w), H(h) {
    const uint32_t cw = (w + 1) / 2, ch = (h + 1) / 2;
    P[0].resize(size_t(w) * h);
    P[1].resize(size_t(cw) * ch);
    P[2].resize(size_t(cw) * ch);
    uint32_t seed = 12345 + uint32_t(t);
    auto noise = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 24; };
    for (uint32_t y = 0; y < h; ++y)
      for (uint32_t x = 0; x < w; ++x) {
        const double wave = 60 * std::sin((x + 3.0 * t) / 9.0) * std::cos(y / 7.0);
        const bool disc = (int(x) - 20 - 4 * t) * (int(x) - 20 - 4 * t) + (int(y) - 30) * (int(y) - 30) < 200;
        const int v = cut ? int(noise()) : int(128 + wave) + (disc ? 40 : 0);
        P[0][size_t(y) * w + x] = uint8_t(std::clamp(v, 0, 255));
      }
    for (uint32_t y = 0; y < ch; ++y)
      for (uint32_t x = 0; x < cw; ++x) {
        P[1][size_t(y) * cw + x] = uint8_t(cut ? noise() : 100 + (x * 2 + t * 3) % 40);
        P[2][size_t(y) * cw + x] = uint8_t(cut ? noise() : 150 - (y * 2) % 30);
      }
    P[3].assign(size_t(w) * h, 255);
  }
  // An alpha plane that fades across the picture and moves with t.
  void FadeAlpha(int t) {
    for (uint32_t y = 0; y < H; ++y)
      for (uint32_t x = 0; x < W; ++x) P[3][size_t(y) * W + x] = uint8_t((x * 4 + y + 9 * t) & 255);
  }
  Velmo2EncoderFrame Frame(bool key) const {
    Velmo2EncoderFrame f{};
    const int32_t cw = int32_t((W + 1) / 2);
    for (int p = 0; p < 4; ++p) f.Planes[p] = P[p].data();
    f.Pitches[0] = f.Pitches[3] = int32_t(W);
    f.Pitches[1] = f.Pitches[2] = cw;
    f.Key = key;
    return f;
  }
};

// A decoder of the encoder's sections, with frame buffers of its own.
struct Player {
  Velmo2Decoder* D = nullptr;
  velmo2_test::Frames F;
  Player(uint32_t w, uint32_t h, uint32_t sliceMode, bool alpha = false) : F(w, h, alpha, false) {
    Velmo2DecoderSetup s{};
    s.Width = w;
    s.Height = h;
    std::memcpy(s.Tag, "VM2j", 4);
    s.FileFlags = sliceMode;
    s.Alpha = alpha;
    s.Features = ProcessorFeatures();
    D = Velmo2DecoderCreate(s);
  }
  ~Player() { Velmo2DecoderDestroy(D); }
  void Play(const std::vector<uint8_t>& section, bool key) {
    const uint32_t slices = Velmo2DecoderLayout(D).Slices;
    ASSERT_EQ(Velmo2DecodeFrame(D, &F.Fb, section.data(), section.size(), key, 0, slices),
              Velmo2FrameDecoded);
    Velmo2DecoderFinishSeams(D, &F.Fb);
    F.Fb.Current ^= 1;
  }
  uint64_t Error(const Picture& pic, int p) {
    const VelmoFrameBuffers& b = F.Fb;
    const bool chroma = p == VelmoPlaneCr || p == VelmoPlaneCb;
    const uint32_t w = chroma ? (pic.W + 1) / 2 : pic.W, h = chroma ? (pic.H + 1) / 2 : pic.H;
    const int32_t pitch = chroma ? b.ChromaPitch : b.LumaPitch;
    const uint8_t* plane = b.Sets[b.Current].Planes[p];
    uint64_t sum = 0;
    for (uint32_t y = 0; y < h; ++y)
      for (uint32_t x = 0; x < w; ++x) {
        const int d = int(plane[size_t(y) * pitch + x]) - pic.P[p][size_t(y) * w + x];
        sum += uint64_t(d * d);
      }
    return sum;
  }
};

double Psnr(uint64_t error, uint64_t samples) {
  return error ? 10 * std::log10(255.0 * 255 * double(samples) / double(error)) : 99.0;
}

struct Case {
  uint32_t W, H, Options, Budget;
};

// Every section decodes to the encoder's own reference: the errors the encoder reports are
// exactly those of the decoded picture, frame after frame, for slices 1 to 8, the deblocking
// switches and the VAQ levels.
TEST(Velmo2Encoder, DecoderRebuildsTheEncodersPictures) {
  PoolStart();
  const Case cases[] = {
      {64, 64, 0, 1500},
      {160, 96, 0, 4000},
      {100, 130, 2048 * 4 + 16384, 3000},    // 8 slices, no vertical deblocking
      {48, 40, 65536 * 3 + 32768, 800},      // heavy VAQ, no horizontal deblocking
      {72, 136, 2048 * 2 + 65536, 6000},     // 3 slices, no VAQ
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.W << "x" << c.H << " options " << c.Options);
    Velmo2EncoderSetup setup{c.W, c.H, c.Options, false, false, ProcessorFeatures()};
    Velmo2Encoder* e = Velmo2EncoderCreate(setup);
    ASSERT_NE(e, nullptr);
    Player player(c.W, c.H, Velmo2EncoderSliceMode(e));
    for (int t = 0; t < 4; ++t) {
      SCOPED_TRACE(t);
      const Picture pic(c.W, c.H, t);
      Velmo2EncodedFrame out;
      const Velmo2FrameOutcome r = Velmo2EncodeFrame(e, pic.Frame(t == 0), c.Budget, &out);
      ASSERT_NE(r, Velmo2Failed);
      EXPECT_EQ(r == Velmo2CodedKey, t == 0 || out.Promoted);
      player.Play(out.Section, r == Velmo2CodedKey);
      for (int p = 0; p < 3; ++p) EXPECT_EQ(out.PictureErrors[p], player.Error(pic, p)) << p;
      EXPECT_GT(Psnr(out.PictureErrors[0], out.PictureSamples[0]), 24.0);
    }
    Velmo2EncoderDestroy(e);
  }
}

// Inter frames land near their budget once the search has settled; a larger budget buys a
// better picture.
TEST(Velmo2Encoder, FramesComeNearTheirBudgetAndQualityFollows) {
  PoolStart();
  double lastPsnr = 0;
  // Budgets below what the finest quantiser takes (about 3300 bytes a frame here).
  for (uint32_t budget : {700u, 1400u, 2800u}) {
    SCOPED_TRACE(budget);
    Velmo2EncoderSetup setup{160, 96, 0, false, false, ProcessorFeatures()};
    Velmo2Encoder* e = Velmo2EncoderCreate(setup);
    ASSERT_NE(e, nullptr);
    double psnr = 0;
    for (int t = 0; t < 5; ++t) {
      const Picture pic(160, 96, t);
      Velmo2EncodedFrame out;
      ASSERT_NE(Velmo2EncodeFrame(e, pic.Frame(t == 0), budget, &out), Velmo2Failed);
      EXPECT_LE(out.Passes, 16u);
      if (t > 0) {
        EXPECT_LT(double(out.Section.size()), budget * 1.25 + 100) << t;
        EXPECT_GT(double(out.Section.size()), budget * 0.5) << t;
      }
      psnr = Psnr(out.PictureErrors[0], out.PictureSamples[0]);
    }
    EXPECT_GT(psnr, lastPsnr);
    lastPsnr = psnr;
    Velmo2EncoderDestroy(e);
  }
}

// Alpha: a frame whose alpha is one value codes none and decodes to that value exactly; a
// varying alpha plane is coded like luma.
TEST(Velmo2Encoder, ConstantAlphaIsCarriedByTheFrameWordOtherAlphaIsCoded) {
  PoolStart();
  Velmo2EncoderSetup setup{96, 64, 0, true, false, ProcessorFeatures()};
  Velmo2Encoder* e = Velmo2EncoderCreate(setup);
  ASSERT_NE(e, nullptr);
  Player player(96, 64, Velmo2EncoderSliceMode(e), true);
  size_t constantSize = 0;
  for (int t = 0; t < 4; ++t) {
    SCOPED_TRACE(t);
    Picture pic(96, 64, t);
    if (t >= 2) pic.FadeAlpha(t);
    Velmo2EncodedFrame out;
    const Velmo2FrameOutcome r = Velmo2EncodeFrame(e, pic.Frame(t == 0), 2500, &out);
    ASSERT_NE(r, Velmo2Failed);
    uint32_t word;
    std::memcpy(&word, out.Section.data(), 4);
    player.Play(out.Section, r == Velmo2CodedKey);
    EXPECT_EQ(out.PictureErrors[0], player.Error(pic, 0));
    if (t < 2) {
      EXPECT_EQ(word >> 19 & 1, 1u);
      EXPECT_EQ(word >> 24, 255u);
      EXPECT_EQ(player.Error(pic, VelmoPlaneAlpha), 0u);
      constantSize = out.Section.size();
    } else {
      EXPECT_EQ(word >> 19 & 1, 0u);
      EXPECT_GT(Psnr(player.Error(pic, VelmoPlaneAlpha), 96 * 64), 28.0);
    }
  }
  EXPECT_GT(constantSize, 0u);
  Velmo2EncoderDestroy(e);
}

// A frame whose run is cancelled gives nothing and leaves the reference as it was.
TEST(Velmo2Encoder, CancelledFrameGivesNothing) {
  PoolStart();
  Velmo2EncoderSetup setup{64, 32, 0, false, false, ProcessorFeatures()};
  Velmo2Encoder* e = Velmo2EncoderCreate(setup);
  ASSERT_NE(e, nullptr);
  const Picture pic(64, 32, 0);
  volatile uint32_t cancel = 2;
  Velmo2EncoderFrame f = pic.Frame(true);
  f.Cancel = &cancel;
  Velmo2EncodedFrame out;
  EXPECT_EQ(Velmo2EncodeFrame(e, f, 1000, &out), Velmo2Failed);
  cancel = 0;
  EXPECT_EQ(Velmo2EncodeFrame(e, f, 1000, &out), Velmo2CodedKey);
  Velmo2EncoderDestroy(e);
}

}  // namespace

// A cut to a new picture that intra coding predicts almost for free (a flat grey for a flat
// level with striped chroma: each intra macroblock's values come from its neighbours, while
// each residual macroblock codes the step again) comes out nearly all intra and small: the
// frame becomes a key frame, which the decoder takes as one. The same picture again stays an
// inter frame.
TEST(Velmo2Encoder, ACutToAPictureIntraCodesCheaplyIsPromotedToAKeyFrame) {
  PoolStart();
  const uint32_t w = 640, h = 480;
  Velmo2EncoderSetup setup{w, h, 0, false, false, ProcessorFeatures()};
  Velmo2Encoder* e = Velmo2EncoderCreate(setup);
  ASSERT_NE(e, nullptr);
  Player player(w, h, Velmo2EncoderSliceMode(e));
  Picture before(w, h, 0), after(w, h, 0);
  std::fill(before.P[0].begin(), before.P[0].end(), 60);
  std::fill(after.P[0].begin(), after.P[0].end(), 230);
  for (int p = 1; p < 3; ++p) std::fill(before.P[p].begin(), before.P[p].end(), 128);
  const struct {
    const Picture* Pic;
    bool Key;
    Velmo2FrameOutcome Wanted;
  } frames[] = {{&before, true, Velmo2CodedKey},
                {&after, false, Velmo2CodedKey},
                {&after, false, Velmo2CodedInter}};
  for (const auto& f : frames) {
    Velmo2EncodedFrame out;
    const Velmo2FrameOutcome r = Velmo2EncodeFrame(e, f.Pic->Frame(f.Key), 300, &out);
    ASSERT_EQ(r, f.Wanted);
    EXPECT_EQ(out.Promoted, !f.Key && r == Velmo2CodedKey);
    player.Play(out.Section, r == Velmo2CodedKey);
    for (int p = 0; p < 3; ++p) EXPECT_EQ(out.PictureErrors[p], player.Error(*f.Pic, p)) << p;
  }
  Velmo2EncoderDestroy(e);
}
