// Colour fill under transparent pixels: inside tiles, flooded across empty tiles, in rounds,
// integer and float, any number of threads.
#include <gtest/gtest.h>

#include <cmath>

#include "process_test_util.h"

using namespace processtest;

namespace {

constexpr uint32_t Red = 0x00FF0000u, Green = 0x0000FF00u, Blue = 0x000000FFu;
constexpr uint32_t Opaque = 0xFF000000u;

struct Frame {
  uint32_t W, H;
  std::vector<uint32_t> Pixels;
  Frame(uint32_t w, uint32_t h, uint32_t fill = 0) : W(w), H(h), Pixels(size_t(w) * h, fill) {}
  uint32_t& At(uint32_t x, uint32_t y) { return Pixels[size_t(y) * W + x]; }
  void FillRect(uint32_t x0, uint32_t y0, uint32_t w, uint32_t h, uint32_t px) {
    for (uint32_t y = y0; y < y0 + h; ++y)
      for (uint32_t x = x0; x < x0 + w; ++x) At(x, y) = px;
  }
};

std::vector<std::string> Fill(Frame* f, uint32_t threads = 1) {
  RecordingRunner runner;
  InitRecordingRunner(&runner, threads);
  AlphaFill(Bytes(f->Pixels.data()), f->W * 4, f->W, f->H, &runner.Runner);
  return runner.Names;
}

const std::vector<std::string> OneRound = {"Fill in alpha", "Flood alpha", "Fill flooded alpha"};
const std::vector<std::string> TwoRounds = {"Fill in alpha", "Flood alpha", "Flood alpha",
                                            "Fill flooded alpha"};

TEST(AlphaFill, OpaqueAndEmptyFramesAreLeftAlone) {
  Frame opaque(40, 20);
  for (auto& px : opaque.Pixels) px = 0xFF000000u | (px * 7 + 0x123456);
  Frame before = opaque;
  EXPECT_EQ(Fill(&opaque), std::vector<std::string>{"Fill in alpha"});
  EXPECT_EQ(opaque.Pixels, before.Pixels);
  Frame empty(40, 20, 0x00123456u);
  EXPECT_EQ(Fill(&empty), std::vector<std::string>{"Fill in alpha"});
  EXPECT_EQ(empty.Pixels, std::vector<uint32_t>(800, 0x00123456u));
}

TEST(AlphaFill, UnpremultiplyFillOnOpaqueFrameChangesNothing) {
  const uint32_t w = 33, h = 17;
  std::vector<uint32_t> src = RandomFrame(w, h, 4);
  for (auto& px : src) px |= Opaque;
  std::vector<uint32_t> dst(src.size());
  const PixelFetch fetch = Fetch32();
  RecordingRunner runner;
  InitRecordingRunner(&runner, 2);
  const StageFrames f{
      Bytes(src.data()), w * 4, &fetch, nullptr, Bytes(dst.data()), w * 4, w, h, false,
      &runner.Runner};
  StageUnpremultiplyFill(&f);
  EXPECT_EQ(dst, src);
  EXPECT_EQ(runner.Names, (std::vector<std::string>{"Unpremultiply", "Fill in alpha"}));
}

TEST(AlphaFill, InsideATileTransparentPixelsTakeNeighbourColour) {
  Frame f(16, 16);
  f.FillRect(0, 0, 8, 16, Opaque | Red);
  Fill(&f);
  for (uint32_t y = 0; y < 16; ++y)
    for (uint32_t x = 0; x < 16; ++x) ASSERT_EQ(f.At(x, y), (x < 8 ? Opaque : 0) | Red);
}

TEST(AlphaFill, MostSurroundedPixelsAreFilledFirst) {
  // Transparent centre and corners; the centre has four opaque neighbours and is filled from
  // them alone before any corner gets colour. Corners then take their two edge neighbours.
  Frame f(3, 3);
  f.At(1, 0) = Opaque | 0 << 16;
  f.At(0, 1) = Opaque | 40 << 16;
  f.At(2, 1) = Opaque | 80 << 16;
  f.At(1, 2) = Opaque | 120 << 16;
  Fill(&f);
  EXPECT_EQ(f.At(1, 1), 60u << 16);
  EXPECT_EQ(f.At(0, 0), 20u << 16);
  EXPECT_EQ(f.At(2, 0), 40u << 16);
  EXPECT_EQ(f.At(0, 2), 80u << 16);
  EXPECT_EQ(f.At(2, 2), 100u << 16);
}

TEST(AlphaFill, TwoColoursMeet) {
  Frame f(3, 1);
  f.At(0, 0) = Opaque | Red;
  f.At(2, 0) = Opaque | Blue;
  Fill(&f);
  EXPECT_EQ(f.At(1, 0), 0x00800080u);  // (255 + 0) ÷ 2 rounded, both ways
}

TEST(AlphaFill, IsolatedTileFloodsItsRowAndColumnThenTheRest) {
  Frame f(48, 48);
  const uint32_t colour = 0x000AC81Eu;
  f.FillRect(16, 16, 16, 16, Opaque | colour);
  EXPECT_EQ(Fill(&f), TwoRounds);  // corners are reached from the flooded side tiles
  for (uint32_t y = 0; y < 48; ++y)
    for (uint32_t x = 0; x < 48; ++x) {
      const bool inside = x >= 16 && x < 32 && y >= 16 && y < 32;
      ASSERT_EQ(f.At(x, y), (inside ? Opaque : 0) | colour) << x << "," << y;
    }
}

TEST(AlphaFill, OneRoundWhenEverySweepLineHasContent) {
  Frame f(48, 16);
  f.FillRect(16, 0, 16, 16, Opaque | Green);
  EXPECT_EQ(Fill(&f), OneRound);
  EXPECT_EQ(f.At(0, 0), Green);
  EXPECT_EQ(f.At(47, 15), Green);
}

TEST(AlphaFill, SweepsCarryTheEdgeFacingTheirDirection) {
  // Left column blue, the rest red: the tile to the left gets the left edge, the one to the
  // right the right edge.
  Frame row(48, 16);
  row.FillRect(16, 0, 16, 16, Opaque | Red);
  row.FillRect(16, 0, 1, 16, Opaque | Blue);
  Fill(&row);
  EXPECT_EQ(row.At(5, 5), Blue);
  EXPECT_EQ(row.At(40, 5), Red);
  // Top row green: upward the top edge, downward the bottom edge.
  Frame column(16, 48);
  column.FillRect(0, 16, 16, 16, Opaque | Red);
  column.FillRect(0, 16, 16, 1, Opaque | Green);
  Fill(&column);
  EXPECT_EQ(column.At(5, 5), Green);
  EXPECT_EQ(column.At(5, 40), Red);
}

TEST(AlphaFill, EmptyTilesAverageWhatTheSweepsBring) {
  Frame f(64, 16);
  f.FillRect(0, 0, 16, 16, Opaque | Red);
  f.FillRect(48, 0, 16, 16, Opaque | Blue);
  Fill(&f);
  // Red from the left, blue from the right: 255 × 8192 >> 14 = 127 each.
  EXPECT_EQ(f.At(20, 3), 0x007F007Fu);
  EXPECT_EQ(f.At(47, 15), 0x007F007Fu);
  EXPECT_EQ(f.At(0, 0), Opaque | Red);
}

TEST(AlphaFill, PartialTilesAtTheEdges) {
  Frame f(21, 19);
  f.FillRect(0, 0, 4, 4, Opaque | Blue);
  EXPECT_EQ(Fill(&f), TwoRounds);
  for (uint32_t y = 0; y < 19; ++y)
    for (uint32_t x = 0; x < 21; ++x) ASSERT_EQ(f.At(x, y) & 0x00FFFFFFu, Blue) << x << "," << y;
}

// Sparse content: a few opaque or half-transparent blobs on a transparent frame.
Frame SparseFrame(uint32_t w, uint32_t h, uint32_t seed) {
  Frame f(w, h);
  std::mt19937 random(seed);
  for (int blob = 0; blob < 6; ++blob) {
    const uint32_t x0 = random() % w, y0 = random() % h;
    const uint32_t bw = std::min<uint32_t>(w - x0, 1 + random() % 12);
    const uint32_t bh = std::min<uint32_t>(h - y0, 1 + random() % 12);
    const uint32_t colour = random() & 0x00FFFFFFu;
    const uint32_t alpha = blob % 2 ? 255u : 1 + random() % 254;
    f.FillRect(x0, y0, bw, bh, alpha << 24 | colour);
  }
  return f;
}

TEST(AlphaFill, ThreadsDoNotChangeTheResult) {
  for (uint32_t seed = 0; seed < 5; ++seed) {
    const Frame start = SparseFrame(203, 131, seed);
    Frame alone = start;
    Fill(&alone, 1);
    for (uint32_t threads : {2u, 5u}) {
      Frame many = start;
      Fill(&many, threads);
      ASSERT_EQ(many.Pixels, alone.Pixels) << "seed " << seed << " threads " << threads;
    }
    Frame pooled = start;
    PoolSetThreads(4);
    AlphaFill(Bytes(pooled.Pixels.data()), pooled.W * 4, pooled.W, pooled.H, ProcessPoolRunner());
    PoolSetThreads(0);
    ASSERT_EQ(pooled.Pixels, alone.Pixels);
    // Visible pixels are never touched.
    for (size_t i = 0; i < start.Pixels.size(); ++i)
      if (start.Pixels[i] >> 24) {
        ASSERT_EQ(alone.Pixels[i], start.Pixels[i]);
      }
  }
}

TEST(AlphaFill, FloatFormAgreesWithInteger) {
  // The integer form rounds every mean it takes, and filled pixels feed the next means, so
  // long chains inside a tile drift by a few levels; the two forms must otherwise agree.
  size_t channels = 0, close = 0;
  for (uint32_t seed = 10; seed < 14; ++seed) {
    Frame f = SparseFrame(90, 70, seed);
    std::vector<float> ff = ToFloat(f.Pixels);
    Fill(&f);
    RecordingRunner runner;
    InitRecordingRunner(&runner, 3);
    AlphaFillFloat(Bytes(ff.data()), f.W * 16, f.W, f.H, &runner.Runner);
    EXPECT_EQ(runner.Names.front(), "Fill in alpha");
    EXPECT_EQ(runner.Names.back(), "Fill flooded alpha");
    const int order[4] = {2, 1, 0, 3};
    for (size_t i = 0; i < f.Pixels.size(); ++i)
      for (int c = 0; c < 4; ++c) {
        const double difference =
            std::fabs(ff[4 * i + c] * 255.0 - ChannelOf(f.Pixels[i], order[c]));
        ASSERT_LE(difference, 6.0) << "seed " << seed << " pixel " << i << " channel " << c;
        ++channels;
        close += difference <= 1.0;
      }
  }
  EXPECT_GE(double(close), 0.98 * double(channels));
}

TEST(AlphaFill, FloatFlatFillWritesAlphaZero) {
  std::vector<float> f(32 * 16 * 4, 0.0f);
  for (uint32_t y = 0; y < 16; ++y)
    for (uint32_t x = 0; x < 16; ++x) {
      float* px = &f[(y * 32 + x) * 4];
      px[0] = 0.25f, px[1] = 0.5f, px[2] = 2.0f, px[3] = 1.0f;
    }
  f[(3 * 32 + 20) * 4 + 3] = 0.0f;
  AlphaFillFloat(Bytes(f.data()), 32 * 16, 32, 16, ProcessInlineRunner());
  const float* filled = &f[(10 * 32 + 25) * 4];
  EXPECT_FLOAT_EQ(filled[0], 0.25f);
  EXPECT_FLOAT_EQ(filled[1], 0.5f);
  EXPECT_FLOAT_EQ(filled[2], 2.0f);
  EXPECT_EQ(filled[3], 0.0f);
}

TEST(AlphaFill, UnpremultipliesBeforeFilling) {
  std::vector<uint32_t> src = {Argb(128, 64, 0, 0), 0};
  std::vector<uint32_t> dst(2);
  const PixelFetch fetch = Fetch32();
  const StageFrames f{Bytes(src.data()),    8, &fetch, nullptr, Bytes(dst.data()), 8, 2, 1, false,
                      ProcessInlineRunner()};
  StageUnpremultiplyFill(&f);
  EXPECT_EQ(dst[0], Argb(128, 128, 0, 0));
  EXPECT_EQ(dst[1], Argb(0, 128, 0, 0));
}

}  // namespace
