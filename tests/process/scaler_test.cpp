// Scaler: weight tables against a model built here from the kernel definitions, whole runs
// against a direct two-dimensional double-precision resample, edge sizes, threads, and the
// per-frame chain set-up. (The vector kernels are compared with the plain ones in tests/kernels.)
#include <gtest/gtest.h>

#include <cmath>
#include <map>
#include <random>

#include "process/scaler_kernels.h"
#include "process_test_util.h"

using namespace processtest;

namespace {

// ---------------------------------------------------------------------------------------------
// Independent model

// Mitchell-Netravali in its general form, evaluated with B = C = 1/3.
long double Mitchell(long double x) {
  const long double B = 1.0L / 3, C = 1.0L / 3;
  const long double a = std::fabs(x);
  if (a < 1)
    return ((12 - 9 * B - 6 * C) * a * a * a + (-18 + 12 * B + 6 * C) * a * a + (6 - 2 * B)) / 6;
  if (a < 2)
    return ((-B - 6 * C) * a * a * a + (6 * B + 30 * C) * a * a + (-12 * B - 48 * C) * a +
            (8 * B + 24 * C)) /
           6;
  return 0;
}

long double ModelKernel(uint32_t kernel, long double x) {
  if (kernel == ScaleKernelCubic) return Mitchell(x);
  if (kernel == ScaleKernelLinear) return std::fabs(x) < 1 ? 1 - std::fabs(x) : 0;
  return (x > -0.5L && x <= 0.5L) ? 1 : 0;
}

int ModelReflect(long long j, int src) {
  if (j < 0) return int((-j) % src);
  if (j >= src) return int(src - ((j - src + 1) % src) - 1);
  return int(j);
}

// For each output position: source index → total weight.
typedef std::vector<std::map<int, long double>> ModelAxis;

ModelAxis BuildModelAxis(uint32_t kernel, int dst, int src) {
  const double support = kernel == 0 ? 2.0 : kernel == 1 ? 1.0 : 0.5;
  // Positions are found in double, as a table of doubles would; weights are summed wider.
  const double s = (dst == 1 || src == 1) ? double(dst) / src : double(dst - 1) / (src - 1);
  ModelAxis axis(dst);
  for (int i = 0; i < dst; ++i) {
    const double c = i / s;
    const double window = s >= 1 ? support : support / s;
    long double total = 0;
    for (long long j = (long long)std::ceil(c - window); j <= (long long)std::floor(c + window);
         ++j) {
      const double d = c - double(j);
      const long double w = s >= 1 ? ModelKernel(kernel, d) : ModelKernel(kernel, d * s) * s;
      axis[i][ModelReflect(j, src)] += w;
      total += w;
    }
    for (auto& [index, w] : axis[i]) w /= total;
  }
  return axis;
}

std::map<int, long double> TableWeights(const ScalerAxis& axis, uint32_t position) {
  std::map<int, long double> out;
  const ScalerSlot* slots = axis.Entries + size_t(position) * axis.MaxEntries;
  for (uint32_t k = 0; k < axis.Counts[position]; ++k) out[slots[k].Index] += slots[k].Weight;
  return out;
}

void ExpectAxisMatchesModel(const ScalerAxis& axis, uint32_t kernel, int dst, int src) {
  const ModelAxis model = BuildModelAxis(kernel, dst, src);
  for (int i = 0; i < dst; ++i) {
    ASSERT_GE(axis.Counts[i], 1u);
    ASSERT_LE(axis.Counts[i], axis.MaxEntries);
    std::map<int, long double> table = TableWeights(axis, i);
    for (const auto& [index, w] : model[i]) {
      if (std::fabs(w) < 1e-15L) continue;
      ASSERT_TRUE(table.count(index)) << "position " << i << " index " << index;
      EXPECT_NEAR(double(table[index]), double(w), 1e-12) << "position " << i;
    }
    for (const auto& [index, w] : table) {
      EXPECT_GE(index, 0);
      EXPECT_LT(index, src);
      EXPECT_TRUE(model[i].count(index)) << "position " << i << " index " << index;
    }
  }
}

// A direct two-dimensional resample of ARGB words, channel by channel, in long double.
std::vector<long double> ModelResample(uint32_t kernel, const std::vector<uint32_t>& src, int srcW,
                                       int srcH, int dstW, int dstH) {
  const ModelAxis columns = BuildModelAxis(kernel, dstW, srcW);
  const ModelAxis rows = BuildModelAxis(kernel, dstH, srcH);
  std::vector<long double> out(size_t(dstW) * dstH * 4, 0);
  for (int y = 0; y < dstH; ++y)
    for (int x = 0; x < dstW; ++x)
      for (const auto& [sy, wy] : rows[y])
        for (const auto& [sx, wx] : columns[x])
          for (int c = 0; c < 4; ++c)
            out[(size_t(y) * dstW + x) * 4 + c] +=
                wy * wx * ChannelOf(src[size_t(sy) * srcW + sx], c);
  return out;
}

uint32_t ModelByte(long double v) {
  if (v <= 0) return 0;
  if (v >= 254.5L) return 255;
  return uint32_t(v + 0.4999989867210388L);
}

std::vector<uint32_t> RunInt(Scaler* s, const std::vector<uint32_t>& src, const PixelFetch& fetch,
                             const ProcessJobRunner* runner) {
  std::vector<uint32_t> dst(size_t(s->DstWidth) * s->DstHeight, 0xDEADBEEF);
  ScalerRun(s, Bytes(dst.data()), s->DstWidth * 4, Bytes(src.data()), s->SrcWidth * 4, &fetch,
            runner);
  return dst;
}

std::vector<float> RunFloat(Scaler* s, const std::vector<float>& src, const PixelFetchFloat& fetch,
                            const ProcessJobRunner* runner) {
  std::vector<float> dst(size_t(s->DstWidth) * s->DstHeight * 4, -7.0f);
  ScalerRunFloat(s, Bytes(dst.data()), s->DstWidth * 16, Bytes(src.data()), s->SrcWidth * 16,
                 &fetch, runner);
  return dst;
}

struct ScalerDeleter {
  void operator()(Scaler* s) const { ScalerFree(s); }
};
typedef std::unique_ptr<Scaler, ScalerDeleter> ScalerPtr;

ScalerPtr Make(uint32_t kernel, uint32_t dw, uint32_t dh, uint32_t sw, uint32_t sh) {
  return ScalerPtr(ScalerCreate(kernel, dw, dh, sw, sh));
}

const ProcessJobRunner* Inline() { return ProcessInlineRunner(); }

// ---------------------------------------------------------------------------------------------
// Weight tables

TEST(ScalerKernel, WeightsFollowTheirDefinitions) {
  EXPECT_DOUBLE_EQ(ScalerKernelWeight(ScaleKernelCubic, 0.0), 8.0 / 9.0);
  EXPECT_NEAR(ScalerKernelWeight(ScaleKernelCubic, 1.0), 1.0 / 18.0, 1e-15);
  EXPECT_EQ(ScalerKernelWeight(ScaleKernelCubic, 2.5), 0.0);
  for (double x = -2.5; x <= 2.5; x += 0.0625)
    EXPECT_NEAR(ScalerKernelWeight(ScaleKernelCubic, x), double(Mitchell(x)), 1e-14) << x;
  EXPECT_DOUBLE_EQ(ScalerKernelWeight(ScaleKernelLinear, 0.25), 0.75);
  EXPECT_EQ(ScalerKernelWeight(ScaleKernelLinear, -1.0), 0.0);
  EXPECT_EQ(ScalerKernelWeight(ScaleKernelBox, 0.5), 1.0);
  EXPECT_EQ(ScalerKernelWeight(ScaleKernelBox, -0.5), 0.0);
  EXPECT_EQ(ScalerKernelWeight(ScaleKernelBox, 0.0), 1.0);
}

TEST(ScalerTable, MaxEntriesFollowTheWindow) {
  // Enlarging 10 to 20: (int) 2r + 1. Reducing 19 to 10 (s = 0.5): ceil(2r ÷ s + 1).
  const uint32_t enlarge[3] = {5, 3, 2}, reduce[3] = {9, 5, 3};
  for (uint32_t kernel = 0; kernel < 3; ++kernel) {
    EXPECT_EQ(Make(kernel, 20, 1, 10, 1)->Horizontal.MaxEntries, enlarge[kernel]) << kernel;
    EXPECT_EQ(Make(kernel, 10, 1, 19, 1)->Horizontal.MaxEntries, reduce[kernel]) << kernel;
  }
}

// The model's weights are normalised, so a match also says the table's weights sum to one and
// its indices stay inside the source.
TEST(ScalerTable, MatchesTheModelForEveryKernelAndDirection) {
  std::vector<std::pair<int, int>> cases = {{720, 1080}, {1280, 640}, {3, 1000}, {1000, 3}, {17, 16}, {641, 2}, {1, 641}};
  for (int dst : {1, 2, 3, 5, 16, 33})
    for (int src : {1, 2, 3, 4, 15, 64}) cases.push_back({dst, src});
  for (uint32_t kernel = 0; kernel < 3; ++kernel)
    for (auto [dst, src] : cases) {
      SCOPED_TRACE(testing::Message() << "kernel " << kernel << " " << dst << " from " << src);
      ScalerPtr s = Make(kernel, dst, src, src, dst);
      ASSERT_TRUE(s);
      ExpectAxisMatchesModel(s->Horizontal, kernel, dst, src);
      ExpectAxisMatchesModel(s->Vertical, kernel, src, dst);
    }
}

TEST(ScalerTable, BoxEnlargingTakesOneSourcePixelEach) {
  for (uint32_t src : {2u, 5u, 64u}) {
    ScalerPtr s = Make(ScaleKernelBox, src * 2, src * 2, src, src);
    for (uint32_t i = 0; i < src * 2; ++i) {
      EXPECT_EQ(s->Horizontal.Counts[i], 1u);
      EXPECT_EQ(s->Horizontal.Entries[i * s->Horizontal.MaxEntries].Weight, 1.0);
    }
  }
  // Exactly twice the spacing: output 2i is source i.
  ScalerPtr s = Make(ScaleKernelBox, 9, 1, 5, 1);
  for (uint32_t i = 0; i < 9; i += 2)
    EXPECT_EQ(s->Horizontal.Entries[i * s->Horizontal.MaxEntries].Index, int32_t(i / 2));
}

TEST(ScalerTable, OnePixelSidesUseThePlainRatioAndReflect) {
  // From one pixel: every window position reflects to 0.
  ScalerPtr up = Make(ScaleKernelCubic, 6, 1, 1, 1);
  for (uint32_t i = 0; i < 6; ++i) {
    const ScalerSlot* slots = up->Horizontal.Entries + i * up->Horizontal.MaxEntries;
    for (uint32_t k = 0; k < up->Horizontal.Counts[i]; ++k) EXPECT_EQ(slots[k].Index, 0);
  }
  // To one pixel from 4: s = 1/4, centre 0, window ±4. Positions −3 .. 3 weigh 1 − |j| ÷ 4;
  // −j reflects to j, so index 0 has 1, 1 has 1.5, 2 has 1, 3 has 0.5, out of 4.
  ScalerPtr down = Make(ScaleKernelLinear, 1, 1, 4, 1);
  EXPECT_EQ(down->Horizontal.MaxEntries, 9u);
  std::map<int, long double> w = TableWeights(down->Horizontal, 0);
  ASSERT_EQ(w.size(), 4u);
  EXPECT_DOUBLE_EQ(double(w[0]), 0.25);
  EXPECT_DOUBLE_EQ(double(w[1]), 0.375);
  EXPECT_DOUBLE_EQ(double(w[2]), 0.25);
  EXPECT_DOUBLE_EQ(double(w[3]), 0.125);
}

TEST(ScalerCreate, RefusesBadArguments) {
  const uint32_t bad[][5] = {{3, 4, 4, 4, 4}, {0, 0, 4, 4, 4}, {0, 4, 0, 4, 4}, {0, 4, 4, 0, 4},
                             {0, 4, 4, 4, 0}};
  for (const auto& b : bad) EXPECT_FALSE(Make(b[0], b[1], b[2], b[3], b[4])) << b[0] << b[1] << b[2] << b[3] << b[4];
  EXPECT_TRUE(Make(0, 1, 1, 1, 1));
}

// ---------------------------------------------------------------------------------------------
// Runs

TEST(ScalerRun, SameSizeIsIdentityForLinearAndBox) {
  const std::vector<uint32_t> src = RandomFrame(23, 17, 1);
  const std::vector<float> srcF = ToFloat(src);
  for (uint32_t kernel : {ScaleKernelLinear, ScaleKernelBox}) {
    ScalerPtr s = Make(kernel, 23, 17, 23, 17);
    EXPECT_EQ(RunInt(s.get(), src, Fetch32(), Inline()), src);
    EXPECT_EQ(RunFloat(s.get(), srcF, Fetch128(), Inline()), srcF);
  }
}

TEST(ScalerRun, ConstantImagesStayConstant) {
  std::mt19937 random(3);
  for (int round = 0; round < 40; ++round) {
    const uint32_t kernel = round % 3;
    // The first rounds spread a single source pixel.
    const uint32_t sw = round < 3 ? 1 : 1 + random() % 60, sh = round < 3 ? 1 : 1 + random() % 60;
    const uint32_t dw = 1 + random() % 60, dh = 1 + random() % 60;
    const uint32_t colour = random();
    SCOPED_TRACE(testing::Message()
                 << kernel << ": " << sw << "x" << sh << " → " << dw << "x" << dh);
    ScalerPtr s = Make(kernel, dw, dh, sw, sh);
    const std::vector<uint32_t> src(size_t(sw) * sh, colour);
    for (uint32_t px : RunInt(s.get(), src, Fetch32(), Inline())) ASSERT_EQ(px, colour);
    const std::vector<float> srcF = ToFloat(src);
    const std::vector<float> dstF = RunFloat(s.get(), srcF, Fetch128(), Inline());
    for (size_t i = 0; i < dstF.size(); ++i) ASSERT_NEAR(dstF[i], srcF[i % 4], 2e-7);
  }
}

// At the same size the cubic kernel does not interpolate: it blurs by 1/18, 8/9, 1/18.
TEST(ScalerRun, MatchesTheTwoDimensionalModel) {
  const int cases[][4] = {{1920 / 40, 1080 / 40, 1280 / 40, 720 / 40},
                          {9, 3, 9, 3},
                          {16, 9, 32, 18},
                          {13, 7, 5, 3},
                          {5, 3, 29, 31},
                          {1, 1, 7, 4},
                          {9, 6, 1, 1},
                          {40, 2, 3, 9}};
  for (uint32_t kernel = 0; kernel < 3; ++kernel)
    for (const auto& c : cases) {
      const int sw = c[0], sh = c[1], dw = c[2], dh = c[3];
      SCOPED_TRACE(testing::Message()
                   << kernel << ": " << sw << "x" << sh << " → " << dw << "x" << dh);
      const std::vector<uint32_t> src = RandomFrame(sw, sh, kernel * 100 + sw);
      ScalerPtr s = Make(kernel, dw, dh, sw, sh);
      const std::vector<long double> model = ModelResample(kernel, src, sw, sh, dw, dh);
      const std::vector<uint32_t> dst = RunInt(s.get(), src, Fetch32(), Inline());
      const std::vector<float> dstF = RunFloat(s.get(), ToFloat(src), Fetch128(), Inline());
      int exact = 0;
      for (size_t i = 0; i < dst.size(); ++i)
        for (int ch = 0; ch < 4; ++ch) {
          const long double m = model[4 * i + ch];
          const int got = int(ChannelOf(dst[i], ch));
          ASSERT_LE(std::abs(got - int(ModelByte(m))), 1) << "pixel " << i << " channel " << ch;
          exact += got == int(ModelByte(m));
          // Float channels are R, G, B, A; the model runs in memory order B, G, R, A.
          const int floatChannel = ch == 3 ? 3 : 2 - ch;
          ASSERT_NEAR(dstF[4 * i + floatChannel] * 255.0, double(m), 2e-4);
        }
      EXPECT_GE(exact, int(dst.size() * 4) - 2);
    }
}

TEST(ScalerRun, IntegerClampsOvershootAndRoundsAsSpecified) {
  // A hard edge under the cubic kernel overshoots above 255 and below 0.
  std::vector<uint32_t> src(8);
  for (int x = 0; x < 8; ++x) src[x] = x < 4 ? 0xFF000000u : 0xFFFFFFFFu;
  ScalerPtr s = Make(ScaleKernelCubic, 29, 1, 8, 1);
  const std::vector<long double> model = ModelResample(ScaleKernelCubic, src, 8, 1, 29, 1);
  bool under = false, over = false;
  for (long double v : model) {
    under |= v < 0;
    over |= v > 255;
  }
  ASSERT_TRUE(under && over);
  const std::vector<uint32_t> dst = RunInt(s.get(), src, Fetch32(), Inline());
  for (size_t i = 0; i < dst.size(); ++i)
    for (int ch = 0; ch < 3; ++ch) EXPECT_EQ(ChannelOf(dst[i], ch), ModelByte(model[4 * i + ch]));
  EXPECT_EQ(ScalerChannelByte(-0.1), 0u);
  EXPECT_EQ(ScalerChannelByte(0.0), 0u);
  EXPECT_EQ(ScalerChannelByte(0.5), 0u);
  EXPECT_EQ(ScalerChannelByte(0.500002), 1u);
  EXPECT_EQ(ScalerChannelByte(254.49), 254u);
  EXPECT_EQ(ScalerChannelByte(254.5), 255u);
  EXPECT_EQ(ScalerChannelByte(300.0), 255u);
}

TEST(ScalerRun, NegativePitchReadsBottomUpFrames) {
  const uint32_t w = 11, h = 9;
  const std::vector<uint32_t> src = RandomFrame(w, h, 5);
  std::vector<uint32_t> flipped(src.size());
  for (uint32_t y = 0; y < h; ++y) std::memcpy(&flipped[(h - 1 - y) * w], &src[y * w], w * 4);
  ScalerPtr s = Make(ScaleKernelCubic, 7, 13, w, h);
  const PixelFetch fetch = Fetch32();
  const std::vector<uint32_t> expected = RunInt(s.get(), src, fetch, Inline());
  std::vector<uint32_t> dst(7 * 13);
  // Source row 0 is the last row in memory; the output is written bottom-up too.
  ScalerRun(s.get(), Bytes(dst.data()) + 12 * 7 * 4, -7 * 4,
            Bytes(flipped.data()) + (h - 1) * w * 4, -ptrdiff_t(w * 4), &fetch, Inline());
  for (uint32_t y = 0; y < 13; ++y)
    for (uint32_t x = 0; x < 7; ++x) EXPECT_EQ(dst[(12 - y) * 7 + x], expected[y * 7 + x]);
}

TEST(ScalerRun, ReadsOtherDepthsThroughTheirFetch) {
  const uint32_t w = 19, h = 6;
  const std::vector<uint32_t> argb = RandomFrame(w, h, 9);
  // The same picture as 24-bit B, G, R: the result is the 32-bit one with alpha 0.
  std::vector<uint8_t> rgb(w * h * 3);
  std::vector<uint32_t> opaqueless(argb.size());
  for (size_t i = 0; i < argb.size(); ++i) {
    std::memcpy(&rgb[3 * i], &argb[i], 3);
    opaqueless[i] = argb[i] & 0x00FFFFFFu;
  }
  PixelFetch fetch24;
  ASSERT_TRUE(PixelFetchSelect(&fetch24, 24, nullptr, false));
  for (uint32_t kernel = 0; kernel < 3; ++kernel) {
    ScalerPtr s = Make(kernel, 31, 4, w, h);
    std::vector<uint32_t> dst(31 * 4);
    ScalerRun(s.get(), Bytes(dst.data()), 31 * 4, rgb.data(), w * 3, &fetch24, Inline());
    EXPECT_EQ(dst, RunInt(s.get(), opaqueless, Fetch32(), Inline()));
  }
}

TEST(ScalerRun, PremultiplyingFetchScalesPremultipliedColour) {
  const uint32_t w = 14, h = 5;
  const std::vector<uint32_t> src = RandomFrame(w, h, 11);
  std::vector<uint32_t> premultiplied(src.size());
  for (size_t i = 0; i < src.size(); ++i) premultiplied[i] = PremultiplyPixel(src[i]);
  ScalerPtr s = Make(ScaleKernelLinear, 9, 8, w, h);
  EXPECT_EQ(RunInt(s.get(), src, Fetch32(true), Inline()),
            RunInt(s.get(), premultiplied, Fetch32(), Inline()));
}

// ---------------------------------------------------------------------------------------------
// Threads

TEST(ScalerThreads, ResultDoesNotDependOnThreads) {
  const std::vector<uint32_t> src = RandomFrame(300, 170, 4);
  const std::vector<float> srcF = ToFloat(src);
  ScalerPtr s = Make(ScaleKernelCubic, 211, 97, 300, 170);
  const std::vector<uint32_t> alone = RunInt(s.get(), src, Fetch32(), Inline());
  const std::vector<float> aloneF = RunFloat(s.get(), srcF, Fetch128(), Inline());
  for (uint32_t threads : {1u, 3u, 8u}) {
    PoolSetThreads(threads);
    EXPECT_EQ(RunInt(s.get(), src, Fetch32(), ProcessPoolRunner()), alone) << threads;
    EXPECT_EQ(RunFloat(s.get(), srcF, Fetch128(), ProcessPoolRunner()), aloneF) << threads;
    RecordingRunner own;
    InitRecordingRunner(&own, threads);
    EXPECT_EQ(RunInt(s.get(), src, Fetch32(), &own.Runner), alone) << threads;
    EXPECT_EQ(own.Names, std::vector<std::string>{"Scaling"});
  }
  PoolSetThreads(0);
  // No runner: the installed one, the pool by default.
  EXPECT_EQ(RunInt(s.get(), src, Fetch32(), nullptr), alone);
}

TEST(ScalerRun, NarrowOutputUsesOneSliceAndWideOutputSixteen) {
  ScalerPtr narrow = Make(ScaleKernelLinear, 15, 4, 40, 4);
  EXPECT_EQ(narrow->SliceColumns, 16u);
  ScalerPtr medium = Make(ScaleKernelLinear, 100, 4, 40, 4);
  EXPECT_EQ(medium->SliceColumns, 16u);  // 7 slices used
  ScalerPtr wide = Make(ScaleKernelLinear, 1280, 4, 40, 4);
  EXPECT_EQ(wide->SliceColumns, 80u);
  // Every column of a partly used slice set is written.
  const std::vector<uint32_t> src(40 * 4, 0x12345678u);
  for (uint32_t px : RunInt(medium.get(), src, Fetch32(), ProcessPoolRunner()))
    EXPECT_EQ(px, 0x12345678u);
}

TEST(ScalerRun, ExtremeRatiosStayStable) {
  const std::pair<uint32_t, uint32_t> cases[] = {{1, 3000}, {2, 4000}, {3000, 1}, {4000, 3}};
  for (uint32_t kernel = 0; kernel < 3; ++kernel)
    for (auto [dst, src] : cases) {
      SCOPED_TRACE(testing::Message() << kernel << ": " << dst << " from " << src);
      ScalerPtr s = Make(kernel, dst, 2, src, 2);
      ASSERT_TRUE(s);
      const std::vector<uint32_t> flat(size_t(src) * 2, 0x80FF4020u);
      for (uint32_t px : RunInt(s.get(), flat, Fetch32(), Inline())) ASSERT_EQ(px, 0x80FF4020u);
      // A ramp stays within its range and in order.
      std::vector<uint32_t> ramp(size_t(src) * 2);
      for (uint32_t x = 0; x < src; ++x) ramp[x] = ramp[src + x] = x * 255 / std::max(1u, src - 1);
      const std::vector<uint32_t> out = RunInt(s.get(), ramp, Fetch32(), Inline());
      for (uint32_t x = 0; x < dst; ++x) ASSERT_LE(out[x], 255u);
      if (kernel != ScaleKernelCubic) {
        for (uint32_t x = 1; x < dst; ++x) ASSERT_GE(out[x], out[x - 1]);
      }
    }
}

// ---------------------------------------------------------------------------------------------
// Chain set-up

ScalerChainRequest Request(uint32_t sw, uint32_t sh, uint32_t dw, uint32_t dh, uint32_t smooth,
                           uint32_t deinterlace = 0) {
  return ScalerChainRequest{ScaleKernelCubic, sw, sh, dw, dh, smooth, deinterlace};
}

// Where the chain smooths, and the size it passes through on the way.
TEST(ScalerChain, PlanForSmoothingAndBlend) {
  struct Case {
    const char* why;
    ScalerChainRequest request;
    bool smoothing;
    uint32_t midW, midH;  // when smoothing
  } cases[] = {
      {"no scaling", Request(64, 48, 64, 48, 0), false, 0, 0},
      // /:100 in both halves is 25600 | 25600 << 16: the middle size is 1 × 1.
      {"full smoothing", Request(20, 10, 20, 10, 25600u * 0x10001u), true, 1, 1},
      {"full smoothing of one pixel", Request(1, 1, 1, 1, 25600u * 0x10001u), true, 1, 1},
      // Halving the width reduces by 50% (12800): asking for 25% (6400) adds nothing, 60% does:
      // middle width (25600 − 15360) × 50 ÷ 25600 = 20.
      {"smoothing within scaling", Request(100, 100, 50, 100, 6400), false, 0, 0},
      {"smoothing beyond scaling", Request(100, 100, 50, 100, 15360), true, 20, 100},
      // Doubling the size changes it by 100%, so 50% smoothing is dropped.
      {"enlarging", Request(40, 30, 80, 60, 12800u * 0x10001u), false, 0, 0},
      {"vertical alone", Request(40, 30, 40, 30, 12800u << 16), true, 40, 15},
      // The blend bit alone smooths rows by half; with a field as well the scaler leaves rows
      // alone; a stronger vertical smoothing stands; halving the height already does it.
      {"blend", Request(64, 48, 64, 48, 0, 8), true, 64, 24},
      {"blend with field", Request(64, 48, 64, 48, 0, 9), false, 0, 0},
      {"blend and smoothing", Request(64, 48, 64, 48, 19200u << 16, 8), true, 64, 12},
      {"blend while halving", Request(64, 48, 64, 24, 0, 8), false, 0, 0},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.why);
    const ScalerChainPlan plan = ScalerChainPlanFor(&c.request);
    EXPECT_EQ(plan.Smoothing, c.smoothing);
    if (c.smoothing) {
      EXPECT_EQ(plan.MidWidth, c.midW);
      EXPECT_EQ(plan.MidHeight, c.midH);
    }
  }
}

TEST(ScalerChain, PrepareMakesKeepsAndDropsScalers) {
  ScalerChain chain{};
  ScalerChainRequest r = Request(64, 48, 64, 48, 0);
  ScalerChainPrepare(&chain, &r);
  EXPECT_FALSE(chain.First || chain.Second);
  // A size change: one scaler, kept while the request stands.
  r.ScaledWidth = 32;
  r.ScaledHeight = 24;
  ScalerChainPrepare(&chain, &r);
  ASSERT_TRUE(chain.First);
  EXPECT_FALSE(chain.Second);
  EXPECT_EQ(chain.First->DstWidth, 32u);
  EXPECT_EQ(chain.First->SrcHeight, 48u);
  Scaler* kept = chain.First;
  ScalerChainPrepare(&chain, &r);
  EXPECT_EQ(chain.First, kept);
  r.ScaledWidth = 33;
  ScalerChainPrepare(&chain, &r);
  ASSERT_TRUE(chain.First);
  EXPECT_EQ(chain.First->DstWidth, 33u);
  // Smoothing beyond the scaling: down to the middle size and up again.
  r = Request(100, 100, 50, 100, 15360);
  ScalerChainPrepare(&chain, &r);
  ASSERT_TRUE(chain.First && chain.Second);
  EXPECT_EQ(chain.First->DstWidth, 20u);
  EXPECT_EQ(chain.Second->SrcWidth, 20u);
  EXPECT_EQ(chain.Second->DstWidth, 50u);
  r = Request(40, 30, 40, 30, 12800u << 16);
  ScalerChainPrepare(&chain, &r);
  ASSERT_TRUE(chain.First && chain.Second);
  EXPECT_EQ(chain.First->DstHeight, 15u);
  EXPECT_EQ(chain.Second->DstHeight, 30u);
  // Smoothing switched off again: no scaler at all.
  r.Smooth = 0;
  ScalerChainPrepare(&chain, &r);
  EXPECT_FALSE(chain.First || chain.Second);
  // One-pixel frames smooth to their own size: nothing to run.
  r = Request(1, 1, 1, 1, 25600u * 0x10001u);
  ScalerChainPrepare(&chain, &r);
  EXPECT_FALSE(chain.First || chain.Second);
  ScalerChainFree(&chain);
}

TEST(ScalerChain, FullSmoothingAtTheSameSizeGivesAFlatFrame) {
  ScalerChain chain{};
  ScalerChainRequest r = Request(20, 10, 20, 10, 25600u * 0x10001u);
  ScalerChainPrepare(&chain, &r);
  ASSERT_TRUE(chain.First && chain.Second);
  const std::vector<uint32_t> src = RandomFrame(20, 10, 2);
  std::vector<uint32_t> mid(1), out(200);
  const PixelFetch fetch = Fetch32();
  ScalerRun(chain.First, Bytes(mid.data()), 4, Bytes(src.data()), 80, &fetch, Inline());
  ScalerRun(chain.Second, Bytes(out.data()), 80, Bytes(mid.data()), 4, &fetch, Inline());
  for (uint32_t px : out) EXPECT_EQ(px, mid[0]);
  ScalerChainFree(&chain);
  EXPECT_FALSE(chain.First);
}

}  // namespace
