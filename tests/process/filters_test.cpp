// Colour stages and alpha arithmetic on crafted frames, checked against values worked out here;
// integer and float forms against each other; results independent of threads.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>

#include "process_test_util.h"

using namespace processtest;

namespace {

uint32_t One(uint32_t px, const Stage& stage) { return ApplyInt({px}, 1, 1, stage)[0]; }

// Every (colour, alpha) pair once: R = colour, G = 255 − colour, B = colour ÷ 2.
std::vector<uint32_t> AllPairs() {
  std::vector<uint32_t> frame;
  for (uint32_t a = 0; a < 256; ++a)
    for (uint32_t c = 0; c < 256; ++c) frame.push_back(Argb(a, c, 255 - c, c / 2));
  return frame;
}

// ---------------------------------------------------------------------------------------------
// Alpha arithmetic

TEST(Premultiply, IntegerIsRoundedProductOverAllPairs) {
  const std::vector<uint32_t> src = AllPairs();
  const std::vector<uint32_t> out = ApplyInt(src, 256, 256, StagePremultiply);
  for (size_t i = 0; i < src.size(); ++i) {
    const uint32_t a = ChannelOf(src[i], 3);
    for (int ch = 0; ch < 3; ++ch) {
      const uint32_t c = ChannelOf(src[i], ch);
      // c × a ÷ 255 is never exactly half way, so rounding half up is rounding.
      ASSERT_EQ(ChannelOf(out[i], ch), (2 * c * a + 255) / 510) << c << " " << a;
    }
    ASSERT_EQ(ChannelOf(out[i], 3), a);
  }
}

TEST(Unpremultiply, IntegerRoundTripStaysWithinBounds) {
  const std::vector<uint32_t> src = AllPairs();
  const std::vector<uint32_t> pre = ApplyInt(src, 256, 256, StagePremultiply);
  const std::vector<uint32_t> back = ApplyInt(pre, 256, 256, StageUnpremultiply);
  for (size_t i = 0; i < src.size(); ++i) {
    const uint32_t a = ChannelOf(src[i], 3);
    if (a == 0) {
      ASSERT_EQ(back[i], pre[i] & 0xFF000000u) << "colour premultiplied away";
      continue;
    }
    const double bound = 0.5 + 127.5 / a;
    for (int ch = 0; ch < 3; ++ch) {
      const int error = int(ChannelOf(back[i], ch)) - int(ChannelOf(src[i], ch));
      ASSERT_LE(std::abs(error), bound) << "alpha " << a;
      if (a == 255) {
        ASSERT_EQ(error, 0);
      }
    }
  }
}

TEST(Unpremultiply, FloatRoundTripAndRules) {
  std::vector<float> src;
  for (int i = 0; i < 400; ++i) {
    const float a = (i % 20 + 1) / 20.0f;
    src.insert(src.end(), {(i % 7) / 6.0f, (i % 11) / 10.0f, 0.3f, a});
  }
  const uint32_t w = 400;
  const std::vector<float> pre = ApplyFloat(src, w, 1, StagePremultiplyFloat);
  const std::vector<float> back = ApplyFloat(pre, w, 1, StageUnpremultiplyFloat);
  for (size_t i = 0; i < src.size(); ++i) {
    if (i % 4 == 3) {
      ASSERT_EQ(back[i], src[i]);
      continue;
    }
    ASSERT_FLOAT_EQ(pre[i], src[i] * src[i - i % 4 + 3]);
    ASSERT_NEAR(back[i], src[i], 2e-6);
  }
}

// ---------------------------------------------------------------------------------------------
// Gamma

TEST(Gamma, TwoBrightensThroughTheTable) {
  uint8_t table[256];
  StageGammaTable(0.5, table);
  for (int i = 0; i < 256; ++i) {
    const int expected = int(std::sqrt(i * 0.003921569) * 255.0);
    ASSERT_EQ(table[i], std::min(expected, 255)) << i;
    ASSERT_GE(table[i], i);
  }
  EXPECT_EQ(table[64], 127);  // sqrt(0.25098) × 255 = 127.75
}

TEST(Gamma, TableIsSharedWithinOneHundredth) {
  uint8_t first[256], near[256], far[256];
  StageGammaTable(2.0, first);
  StageGammaTable(2.009, near);  // within 0.01: the 2.0 table stands
  EXPECT_EQ(0, std::memcmp(first, near, 256));
  StageGammaTable(2.2, far);
  EXPECT_NE(0, std::memcmp(first, far, 256));
  EXPECT_EQ(far[128], uint8_t(std::pow(128 * 0.003921569, 2.2) * 255.0));
  StageGammaTable(2.0, first);  // a new table again, more than 0.01 from 2.2
  EXPECT_EQ(first[128], uint8_t(std::pow(128 * 0.003921569, 2.0) * 255.0));
}

// ---------------------------------------------------------------------------------------------
// Black clamp, contrast, brightness

int ContrastModel(int x, int p) {
  if (x >= 255 - p) return 255;
  if (x <= p) return 0;
  return int(std::floor((x - p) * 255.0 / (255 - 2 * p)));
}

TEST(Contrast, IntegerOverAllLevels) {
  std::vector<uint32_t> ramp(256);
  for (uint32_t x = 0; x < 256; ++x) ramp[x] = Argb(255 - x, x, 255 - x, x / 3);
  for (uint32_t p : {0u, 1u, 50u, 100u, 127u, 128u}) {
    const std::vector<uint32_t> out =
        ApplyInt(ramp, 256, 1, [p](const StageFrames* f) { StageContrast(f, p); });
    for (uint32_t x = 0; x < 256; ++x) {
      for (int ch = 0; ch < 3; ++ch)
        ASSERT_EQ(int(ChannelOf(out[x], ch)), ContrastModel(int(ChannelOf(ramp[x], ch)), int(p)))
            << "p " << p << " x " << x;
      ASSERT_EQ(ChannelOf(out[x], 3), 255 - x);
    }
    if (p == 0) {
      EXPECT_EQ(out, ramp);
    }
  }
}

// Single pixels through each stage, against values worked out by hand.
TEST(Stages, IntegerKnownValues) {
  struct Case {
    const char* name;
    Stage stage;
    uint32_t in, out;
  };
  const Stage clamp10 = [](const StageFrames* f) { StageBlackClamp(f, 10); };
  const Case cases[] = {
      {"unpremultiply", StageUnpremultiply, Argb(200, 100, 0, 200), Argb(200, 128, 0, 255)},
      {"unpremultiply", StageUnpremultiply, Argb(3, 1, 2, 3), Argb(3, 85, 170, 255)},
      {"unpremultiply alpha 0", StageUnpremultiply, Argb(0, 1, 2, 3), Argb(0, 1, 2, 3)},
      // Colour above alpha cannot come from premultiplying; it is held at 255.
      {"unpremultiply overflow", StageUnpremultiply, Argb(10, 11, 200, 0), Argb(10, 255, 255, 0)},
      {"gamma 2", [](const StageFrames* f) { StageGamma(f, 0.5); }, Argb(77, 64, 0, 255),
       Argb(77, 127, 0, 255)},
      {"clamp, B above", clamp10, Argb(200, 5, 10, 11), Argb(200, 5, 10, 11)},
      {"clamp colour", clamp10, Argb(200, 10, 10, 10), Argb(200, 0, 0, 0)},
      {"clamp alpha", clamp10, Argb(10, 50, 60, 70), Argb(0, 50, 60, 70)},
      {"clamp colour only", clamp10, Argb(11, 1, 2, 3), Argb(11, 0, 0, 0)},
      {"clamp 255", [](const StageFrames* f) { StageBlackClamp(f, 255); }, 0xFFFFFFFFu, 0},
      {"contrast 200 held to 128", [](const StageFrames* f) { StageContrast(f, 200); },
       Argb(9, 127, 128, 126), Argb(9, 255, 255, 0)},
      {"brightness 200", [](const StageFrames* f) { StageBrightness(f, 200); },
       Argb(33, 200, 100, 1), Argb(33, 255, 200, 2)},
      {"brightness 0", [](const StageFrames* f) { StageBrightness(f, 0); },
       Argb(33, 200, 100, 1), Argb(33, 0, 0, 0)},
      {"brightness 150", [](const StageFrames* f) { StageBrightness(f, 150); },
       Argb(255, 101, 3, 170), Argb(255, 151, 4, 255)},
  };
  for (const Case& c : cases) EXPECT_EQ(One(c.in, c.stage), c.out) << c.name;
  for (uint32_t px : ApplyInt(RandomFrame(16, 16, 3), 16, 16, cases[9].stage)) ASSERT_EQ(px, 0u);
}

TEST(Stages, FloatKnownValues) {
  struct Case {
    const char* name;
    Stage stage;
    bool wide;  // wide-range source: colour limited to 125 rather than 1
    std::vector<float> in, out;
  };
  const Stage gamma2 = [](const StageFrames* f) { StageGammaFloat(f, 0.5); };
  const Stage clamp51 = [](const StageFrames* f) { StageBlackClampFloat(f, 51); };  // 0.2
  const Stage bright200 = [](const StageFrames* f) { StageBrightnessFloat(f, 200); };
  const Case cases[] = {
      // No upper limit after un-premultiplying; colour under 1e-5 is dropped.
      {"unpremultiply", StageUnpremultiplyFloat, false, {0.5f, 5e-7f, 0.1f, 0.1f}, {5, 0, 1, 0.1f}},
      {"unpremultiply alpha 0", StageUnpremultiplyFloat, false, {0.5f, 0.2f, 0.1f, 0}, {0.5f, 0.2f, 0.1f, 0}},
      {"gamma", gamma2, false, {0.25f, 0, 4, 0.7f}, {0.5f, 0, 1, 0.7f}},
      {"gamma wide", gamma2, true, {0.25f, 0, 4, 0.7f}, {0.5f, 0, 2, 0.7f}},
      // Negative colour (overshoot of a scaler) has no power: it becomes black.
      {"gamma negative", gamma2, false, {-0.1f, 0, 0, 1}, {0, 0, 0, 1}},
      {"clamp", clamp51, false, {0.2f, 0.1f, 0, 0.2f}, {0, 0, 0, 0}},
      {"clamp above", clamp51, false, {0.1f, 0.21f, 0, 0.21f}, {0.1f, 0.21f, 0, 0.21f}},
      // (0.1 − 0.5) × 255 ÷ 155 + 0.5 < 0
      {"contrast", [](const StageFrames* f) { StageContrastFloat(f, 50); }, false,
       {0.6f, 0.5f, 0.1f, 0.3f}, {0.1f * 255 / 155 + 0.5f, 0.5f, 0, 0.3f}},
      {"brightness", bright200, false, {0.8f, 0.25f, 0, 3}, {1, 0.5f, 0, 3}},
      {"brightness wide", bright200, true, {0.8f, 100, 0, 3}, {1.6f, 125, 0, 3}},  // alpha unlimited
  };
  for (const Case& c : cases) {
    const std::vector<float> out = ApplyFloat(c.in, 1, 1, c.stage, c.wide);
    for (int i = 0; i < 4; ++i) EXPECT_NEAR(out[i], c.out[i], 2e-6) << c.name << " channel " << i;
  }
}

// ---------------------------------------------------------------------------------------------
// Denoise

uint32_t MedianPixel(const std::vector<uint32_t>& frame, uint32_t w, uint32_t x, uint32_t y) {
  uint32_t out = 0;
  for (int ch = 0; ch < 4; ++ch) {
    std::vector<uint32_t> v;
    for (int dy = -1; dy <= 1; ++dy)
      for (int dx = -1; dx <= 1; ++dx) v.push_back(ChannelOf(frame[(y + dy) * w + x + dx], ch));
    std::nth_element(v.begin(), v.begin() + 4, v.end());
    out |= v[4] << (8 * ch);
  }
  return out;
}

TEST(Denoise, MedianInsideBordersCopied) {
  // Rows of 700 are longer than one fetched chunk: the window crosses chunk edges.
  for (auto [w, h] : {std::pair<uint32_t, uint32_t>{3, 3}, {17, 9}, {300, 5}, {1, 4}, {2, 7}, {12, 2}, {700, 3}}) {
    SCOPED_TRACE(testing::Message() << w << "x" << h);
    const std::vector<uint32_t> src = RandomFrame(w, h, w * h);
    const std::vector<uint32_t> out = ApplyInt(src, w, h, StageDenoise);
    for (uint32_t y = 0; y < h; ++y)
      for (uint32_t x = 0; x < w; ++x) {
        const bool border = x == 0 || y == 0 || x + 1 == w || y + 1 == h;
        ASSERT_EQ(out[y * w + x], border ? src[y * w + x] : MedianPixel(src, w, x, y))
            << x << "," << y;
      }
  }
}

TEST(Denoise, MostlyBlackNeighbourhoodsSettleOnBlack) {
  std::vector<uint32_t> dark(3 * 3, 0);
  dark[4] = 0xFFFFFFFFu;
  dark[0] = dark[8] = 0x01010101u;
  EXPECT_EQ(ApplyInt(dark, 3, 3, StageDenoise)[4], 0u);
}

TEST(Denoise, FloatColourMedianKeepsCentreAlpha) {
  std::vector<float> src(3 * 3 * 4);
  for (int i = 0; i < 9; ++i) {
    src[4 * i + 0] = float(i) / 10.0f;   // median 0.4
    src[4 * i + 1] = float(8 - i) / 8;   // median 0.5
    src[4 * i + 2] = i == 4 ? 0.9f : 0;  // median 0
    src[4 * i + 3] = float(i);           // alpha: centre 4, not limited
  }
  const std::vector<float> out = ApplyFloat(src, 3, 3, StageDenoiseFloat);
  EXPECT_FLOAT_EQ(out[16 + 0], 0.4f);
  EXPECT_FLOAT_EQ(out[16 + 1], 0.5f);
  EXPECT_EQ(out[16 + 2], 0.0f);
  EXPECT_EQ(out[16 + 3], 4.0f);
  // Border pixels keep their colour.
  EXPECT_FLOAT_EQ(out[0 + 1], 1.0f);
}

TEST(Denoise, FloatValuesThatAreNotNumbersCountAsHighest) {
  // Five of nine are not numbers: the five smallest running values keep their starting level,
  // which the colour limit then brings down to 1.0 (or 125.0 for a wide-range source).
  std::vector<float> src(3 * 3 * 4, 0.2f);
  for (int i = 0; i < 5; ++i) src[4 * (2 * i) + 0] = std::nanf("");
  EXPECT_EQ(ApplyFloat(src, 3, 3, StageDenoiseFloat)[16], 1.0f);
  EXPECT_EQ(ApplyFloat(src, 3, 3, StageDenoiseFloat, true)[16], 125.0f);
  // Four are not numbers: the fifth smallest is one of the 0.2 values.
  src[0] = 0.2f;
  EXPECT_FLOAT_EQ(ApplyFloat(src, 3, 3, StageDenoiseFloat)[16], 0.2f);
}

// ---------------------------------------------------------------------------------------------
// De-interlace

std::vector<uint32_t> Deinterlace(const std::vector<uint32_t>& src, uint32_t mode) {
  const uint32_t h = uint32_t(src.size() / 3);
  return ApplyInt(src, 3, h, [mode](const StageFrames* f) { StageDeinterlace(f, mode); });
}

// No field, or one row: a copy.
TEST(Deinterlace, NoFieldOrOneRowIsACopy) {
  const std::vector<uint32_t> one = RandomFrame(3, 1, 2), many = RandomFrame(3, 5, 2);
  EXPECT_EQ(Deinterlace(one, 1), one);
  EXPECT_EQ(Deinterlace(many, 8), many);
}

// Output row y of a de-interlaced frame, one channel at a time. The kept field's rows stay (with
// blending, (3 × kept + partner) ÷ 4, the partner being the row below, or above at the end); a
// row between two kept rows is their mean; rows past the last kept one repeat it.
uint32_t DeinterlaceModel(const std::vector<uint32_t>& src, uint32_t w, uint32_t h, uint32_t x,
                          uint32_t y, bool odd, bool blend) {
  const uint32_t first = odd ? 1 : 0, kept = (h - first + 1) / 2;
  auto keptRow = [&](uint32_t i, int ch) {
    const uint32_t row = first + 2 * i;
    const uint32_t k = ChannelOf(src[row * w + x], ch);
    if (!blend) return k;
    const uint32_t partner = row + 1 < h ? row + 1 : row - 1;
    return (3 * k + ChannelOf(src[partner * w + x], ch)) / 4;
  };
  uint32_t out = 0;
  for (int ch = 0; ch < 4; ++ch) {
    uint32_t v;
    if (y >= 2 * (kept - 1))
      v = keptRow(kept - 1, ch);
    else if (y % 2 == 0)
      v = keptRow(y / 2, ch);
    else
      v = (keptRow(y / 2, ch) + keptRow(y / 2 + 1, ch)) / 2;
    out |= v << (8 * ch);
  }
  return out;
}

TEST(Deinterlace, RandomFramesMatchTheRowModel) {
  for (uint32_t h = 2; h <= 9; ++h)
    for (uint32_t mode : {1u, 2u, 9u, 10u}) {
      const uint32_t w = 5;
      const std::vector<uint32_t> src = RandomFrame(w, h, h * 16 + mode);
      const std::vector<uint32_t> out =
          ApplyInt(src, w, h, [mode](const StageFrames* f) { StageDeinterlace(f, mode); });
      for (uint32_t y = 0; y < h; ++y)
        for (uint32_t x = 0; x < w; ++x)
          ASSERT_EQ(out[y * w + x], DeinterlaceModel(src, w, h, x, y, mode % 8 == 2, mode & 8))
              << "height " << h << " mode " << mode << " at " << x << "," << y;
    }
}

// ---------------------------------------------------------------------------------------------
// Forms and threads

struct StagePair {
  const char* Name;
  Stage Int;
  Stage Float;
  int Tolerance;          // in 8-bit levels
  bool SameAlpha = true;  // false where the float form keeps alpha and the integer form does not
};

std::vector<StagePair> ColourStages() {
  return {
      {"gamma", [](const StageFrames* f) { StageGamma(f, 0.7); },
       [](const StageFrames* f) { StageGammaFloat(f, 0.7); }, 1},
      {"black clamp", [](const StageFrames* f) { StageBlackClamp(f, 60); },
       [](const StageFrames* f) { StageBlackClampFloat(f, 60); }, 1},
      {"contrast", [](const StageFrames* f) { StageContrast(f, 40); },
       [](const StageFrames* f) { StageContrastFloat(f, 40); }, 1},
      {"brightness", [](const StageFrames* f) { StageBrightness(f, 130); },
       [](const StageFrames* f) { StageBrightnessFloat(f, 130); }, 1},
      {"denoise", StageDenoise, StageDenoiseFloat, 1, false},
      {"premultiply", StagePremultiply, StagePremultiplyFloat, 1},
  };
}

TEST(StageForms, IntegerAndFloatAgreeWithinRounding) {
  const uint32_t w = 37, h = 23;
  const std::vector<uint32_t> src = RandomFrame(w, h, 77);
  const std::vector<float> srcF = ToFloat(src);
  for (const StagePair& stage : ColourStages()) {
    SCOPED_TRACE(stage.Name);
    const std::vector<uint32_t> outI = ApplyInt(src, w, h, stage.Int);
    const std::vector<float> outF = ApplyFloat(srcF, w, h, stage.Float);
    for (size_t i = 0; i < outI.size(); ++i) {
      const int channels[4] = {2, 1, 0, 3};  // R, G, B, A in the float frame
      for (int c = 0; c < 4; ++c) {
        const double level = outF[4 * i + c] * 255.0;
        if (c == 3 && !stage.SameAlpha) continue;
        ASSERT_NEAR(level, double(ChannelOf(outI[i], channels[c])), stage.Tolerance + 1e-3)
            << "pixel " << i << " channel " << c;
      }
    }
  }
}

TEST(StageThreads, ResultsDoNotDependOnThreads) {
  const uint32_t w = 203, h = 77;
  const std::vector<uint32_t> src = RandomFrame(w, h, 5);
  const std::vector<float> srcF = ToFloat(src);
  std::vector<StagePair> stages = ColourStages();
  stages.push_back({"de-interlace", [](const StageFrames* f) { StageDeinterlace(f, 9); },
                    StageUnpremultiplyFloat, 0});
  stages.push_back({"unpremultiply", StageUnpremultiply, StageUnpremultiplyFloat, 0});
  for (const StagePair& stage : stages) {
    SCOPED_TRACE(stage.Name);
    const std::vector<uint32_t> alone = ApplyInt(src, w, h, stage.Int);
    const std::vector<float> aloneF = ApplyFloat(srcF, w, h, stage.Float);
    for (uint32_t threads : {1u, 4u}) {
      PoolSetThreads(threads);
      EXPECT_EQ(ApplyInt(src, w, h, stage.Int, ProcessPoolRunner()), alone);
      EXPECT_EQ(ApplyFloat(srcF, w, h, stage.Float, false, ProcessPoolRunner()), aloneF);
    }
    RecordingRunner own;
    InitRecordingRunner(&own, 3);
    EXPECT_EQ(ApplyInt(src, w, h, stage.Int, &own.Runner), alone);
    EXPECT_EQ(own.Names.size(), 1u);
  }
  PoolSetThreads(0);
}

TEST(StageFrames, NegativePitchesWalkBottomUp) {
  const uint32_t w = 9, h = 6;
  const std::vector<uint32_t> src = RandomFrame(w, h, 12);
  const std::vector<uint32_t> expected = ApplyInt(src, w, h, StageDenoise);
  std::vector<uint32_t> flipped(src.size()), out(src.size());
  for (uint32_t y = 0; y < h; ++y) std::memcpy(&flipped[(h - 1 - y) * w], &src[y * w], w * 4);
  const PixelFetch fetch = Fetch32();
  const StageFrames f{Bytes(flipped.data()) + (h - 1) * w * 4, -ptrdiff_t(w * 4), &fetch, nullptr,
                      Bytes(out.data()), ptrdiff_t(w * 4), w, h, false, ProcessInlineRunner()};
  StageDenoise(&f);
  EXPECT_EQ(out, expected);
}

}  // namespace
