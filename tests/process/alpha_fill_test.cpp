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

// One block of colour in an empty frame: the block is kept, every transparent pixel takes its
// colour, in the rounds that the tiles around the block need.
TEST(AlphaFill, OneBlockColoursTheWholeFrame) {
  struct Case {
    uint32_t w, h, x, y, bw, bh, colour;
    std::vector<std::string> rounds;
  } cases[] = {
      {16, 16, 0, 0, 8, 16, Red, {"Fill in alpha"}},  // inside one tile
      {48, 16, 16, 0, 16, 16, Green, OneRound},        // every sweep line has content
      {48, 48, 16, 16, 16, 16, 0x0AC81E, TwoRounds},   // corners reached from the side tiles
      {21, 19, 0, 0, 4, 4, Blue, TwoRounds},           // partial tiles at the edges
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.w << "x" << c.h);
    Frame f(c.w, c.h);
    f.FillRect(c.x, c.y, c.bw, c.bh, Opaque | c.colour);
    EXPECT_EQ(Fill(&f), c.rounds);
    for (uint32_t y = 0; y < c.h; ++y)
      for (uint32_t x = 0; x < c.w; ++x) {
        const bool inside = x >= c.x && x < c.x + c.bw && y >= c.y && y < c.y + c.bh;
        ASSERT_EQ(f.At(x, y), (inside ? Opaque : 0) | c.colour) << x << "," << y;
      }
  }
}

// Opaque rectangles on a transparent frame, then chosen pixels against values worked out here.
TEST(AlphaFill, HandWorkedFills) {
  struct Rect {
    uint32_t x, y, w, h, px;
  };
  struct Pixel {
    uint32_t x, y, px;
  };
  struct Case {
    const char* why;
    uint32_t w, h;
    std::vector<Rect> rects;
    std::vector<Pixel> want;
  } cases[] = {
      // The centre has four opaque neighbours and is filled from them alone before any corner
      // gets colour; the corners then take their two edge neighbours.
      {"most surrounded first", 3, 3,
       {{1, 0, 1, 1, Opaque}, {0, 1, 1, 1, Opaque | 40 << 16}, {2, 1, 1, 1, Opaque | 80 << 16},
        {1, 2, 1, 1, Opaque | 120 << 16}},
       {{1, 1, 60 << 16}, {0, 0, 20 << 16}, {2, 0, 40 << 16}, {0, 2, 80 << 16}, {2, 2, 100 << 16}}},
      // (255 + 0) ÷ 2 rounded, both ways.
      {"two colours meet", 3, 1, {{0, 0, 1, 1, Opaque | Red}, {2, 0, 1, 1, Opaque | Blue}}, {{1, 0, 0x800080}}},
      // Sweeps carry the edge facing their direction: the tile to the left gets the left edge,
      // the one to the right the right edge; upward the top edge, downward the bottom edge.
      {"row sweeps", 48, 16, {{16, 0, 16, 16, Opaque | Red}, {16, 0, 1, 16, Opaque | Blue}},
       {{5, 5, Blue}, {40, 5, Red}}},
      {"column sweeps", 16, 48, {{0, 16, 16, 16, Opaque | Red}, {0, 16, 16, 1, Opaque | Green}},
       {{5, 5, Green}, {5, 40, Red}}},
      // Empty tiles average what the sweeps bring: red from the left, blue from the right,
      // 255 × 8192 >> 14 = 127 of each.
      {"empty tiles average", 64, 16, {{0, 0, 16, 16, Opaque | Red}, {48, 0, 16, 16, Opaque | Blue}},
       {{20, 3, 0x7F007F}, {47, 15, 0x7F007F}, {0, 0, Opaque | Red}}},
  };
  for (const Case& c : cases) {
    Frame f(c.w, c.h);
    for (const Rect& r : c.rects) f.FillRect(r.x, r.y, r.w, r.h, r.px);
    Fill(&f);
    for (const Pixel& p : c.want) EXPECT_EQ(f.At(p.x, p.y), p.px) << c.why << " at " << p.x << "," << p.y;
  }
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

TEST(AlphaFill, UnpremultiplyFillUnpremultipliesFirst) {
  EXPECT_EQ(ApplyInt({Argb(128, 64, 0, 0), 0}, 2, 1, StageUnpremultiplyFill),
            (std::vector<uint32_t>{Argb(128, 128, 0, 0), Argb(0, 128, 0, 0)}));
  // An opaque frame comes through unchanged, on any number of threads.
  std::vector<uint32_t> src = RandomFrame(33, 17, 4);
  for (auto& px : src) px |= Opaque;
  RecordingRunner runner;
  InitRecordingRunner(&runner, 2);
  EXPECT_EQ(ApplyInt(src, 33, 17, StageUnpremultiplyFill, &runner.Runner), src);
  EXPECT_EQ(runner.Names, (std::vector<std::string>{"Unpremultiply", "Fill in alpha"}));
}

}  // namespace
