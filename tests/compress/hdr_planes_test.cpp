// The wide-range conversion of the compressor: the tone-map table and the HDR block it gives,
// the ST 2084 table, the I-Ct-Cp planes against the formulas written out in the test support,
// the trip back through the reader's conversion, and the closing remark on the peak found.
#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "compress/frame_loop.h"
#include "compress/hdr_planes.h"
#include "process/hdr_colour.h"
#include "support/files.h"
#include "support/hdr_forward.h"
#include "velmo_frame.h"

namespace {

using test_support::ToneRow;

uint8_t Rounded(double v) { return uint8_t(std::clamp(std::trunc(v + 0.5), 0.0, 255.0)); }

// ---- Tone-map table and HDR block --------------------------------------------------------------

struct KnownPeak {
  uint32_t Nits;
  ToneRow Row;
};
const KnownPeak KnownPeaks[] = {{80, test_support::Tone80},
                                {1000, test_support::Tone1000},
                                {10000, test_support::Tone10000}};

TEST(HdrTone, KnownPeaksGiveTheirRowsAndBlocks) {
  for (const KnownPeak& k : KnownPeaks) {
    const VelmoHdrSetup s = VelmoHdrSetupFor(k.Nits);
    EXPECT_EQ(s.Nits, k.Nits);
    EXPECT_NEAR(s.Row.T1, k.Row.T1, 1e-6) << k.Nits;
    EXPECT_NEAR(s.Row.T2, k.Row.T2, 1e-6) << k.Nits;
    EXPECT_NEAR(s.Row.C1, k.Row.C1, 1e-6) << k.Nits;
    EXPECT_NEAR(s.Row.C2, k.Row.C2, 1e-6) << k.Nits;
    EXPECT_NEAR(s.InversePeak * test_support::PeakCurveValue(k.Nits), 1.0, 1e-6) << k.Nits;
    int16_t want[6];
    test_support::MakeHdrBlock(k.Nits, k.Row, want);
    for (int i = 0; i < 6; ++i) EXPECT_EQ(s.Block[i], want[i]) << k.Nits << " value " << i;
  }
  // Peaks outside 80 .. 10000 are held to them.
  const VelmoHdrSetup low = VelmoHdrSetupFor(10), high = VelmoHdrSetupFor(50000);
  EXPECT_EQ(low.Nits, 80u);
  EXPECT_EQ(low.Block[5], 80);
  EXPECT_EQ(high.Nits, 10000u);
  EXPECT_EQ(high.Block[0], VelmoHdrSetupFor(10000).Block[0]);
}

// Between the known rows every figure moves one way only, by steps that never grow (the figures
// level off towards the high peaks, without jumps), and the rows below 80 nits repeat the row
// of 80.
TEST(HdrTone, RowsMoveSmoothlyBetweenTheKnownOnes) {
  auto figure = [](const VelmoToneRow& r, int f) {
    const float v[4] = {r.T1, r.T2, r.C1, r.C2};
    return double(v[f]);
  };
  for (int f = 0; f < 4; ++f) {
    const double first = figure(VelmoToneMapRow(9), f), last = figure(VelmoToneMapRow(1001), f);
    const double direction = last > first ? 1 : -1;
    double previous = 1.0;
    for (uint32_t row = 1; row < 9; ++row)
      EXPECT_EQ(figure(VelmoToneMapRow(row), f), first) << "row " << row << " figure " << f;
    for (uint32_t row = 10; row <= VelmoToneRows; ++row) {
      const double step = figure(VelmoToneMapRow(row), f) - figure(VelmoToneMapRow(row - 1), f);
      EXPECT_GE(step * direction, -1e-7) << "row " << row << " figure " << f;
      EXPECT_LE(std::fabs(step), previous + 3e-7) << "row " << row << " figure " << f;
      previous = std::fabs(step);
    }
  }
}

// ---- ST 2084 table ---------------------------------------------------------------------------

TEST(HdrPq, TableFollowsTheCurve) {
  std::mt19937 random(7);
  std::uniform_real_distribution<double> exponent(-30, 0);
  for (int i = 0; i < 2000; ++i) {
    const float v = float(std::pow(2.0, exponent(random)));
    EXPECT_NEAR(VelmoPqFromLinear(v), test_support::LinearToPq(v), 2e-4) << v;
  }
  EXPECT_EQ(VelmoPqFromLinear(1.0f), 1.0f);
  EXPECT_EQ(VelmoPqFromLinear(7.0f), 1.0f);
  EXPECT_EQ(VelmoPqFromLinear(std::numeric_limits<float>::infinity()), 1.0f);
  // The bottom of the table reads 0, and so does anything below it.
  for (float v : {0.0f, -1.0f, 1e-20f, std::numeric_limits<float>::quiet_NaN()})
    EXPECT_EQ(VelmoPqFromLinear(v), 0.0f) << v;
}

// ---- Planes ----------------------------------------------------------------------------------

// A picture of `w` x `h` pixels whose 2 x 2 blocks are each one colour (so that the flat-colour
// formulas of the test support hold for the chroma too), with the block colours and alphas.
struct BlockPicture {
  uint32_t W, H;
  std::vector<float> Pixels;             // four floats a pixel
  std::vector<std::vector<double>> Rgb;  // a block's colour, blocks in rows
  std::vector<float> Alpha;
  const double* BlockColour(uint32_t x, uint32_t y) const {
    return Rgb[size_t(y / 2) * ((W + 1) / 2) + x / 2].data();
  }
};

BlockPicture MakeBlocks(uint32_t w, uint32_t h, const std::vector<std::vector<double>>& colours,
                        uint32_t seed) {
  BlockPicture p{w, h, std::vector<float>(size_t(w) * h * 4), {}, {}};
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> alpha(0, 1);
  const uint32_t blocks = ((w + 1) / 2) * ((h + 1) / 2);
  for (uint32_t b = 0; b < blocks; ++b) {
    p.Rgb.push_back(colours[b % colours.size()]);
    p.Alpha.push_back(float(alpha(random)));
  }
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const size_t block = size_t(y / 2) * ((w + 1) / 2) + x / 2;
      float* px = &p.Pixels[(size_t(y) * w + x) * 4];
      for (int c = 0; c < 3; ++c) px[c] = float(p.Rgb[block][c]);
      px[3] = p.Alpha[block];
    }
  return p;
}

struct Planes {
  uint32_t W, H, CW, CH;
  std::vector<uint8_t> Y, Hdr, Alpha, Ct, Cp;
  Planes(uint32_t w, uint32_t h)
      : W(w), H(h), CW((w + 1) / 2), CH((h + 1) / 2), Y(w * h), Hdr(w * h), Alpha(w * h),
        Ct(CW * CH), Cp(CW * CH) {}
  VelmoHdrTargets Targets() {
    return {Y.data(), Ct.data(), Cp.data(), Alpha.data(), Hdr.data(), W, CW};
  }
};

Planes Convert(const BlockPicture& p, const VelmoHdrSetup& setup) {
  Planes out(p.W, p.H);
  VelmoConvertHdrPixels(p.Pixels.data(), int32_t(p.W * 16), p.W, p.H, setup, out.Targets());
  return out;
}

std::vector<std::vector<double>> TestColours(uint32_t count, double top, uint32_t seed) {
  std::vector<std::vector<double>> colours = {
      {0, 0, 0},    {1, 1, 1},        {-1, -0.5, -2}, {top, top, top}, {top, 0, 0},
      {0, top, 0},  {0, 0, top},      {0.01, 0.02, 0.005}, {top, top / 2, 0.1}};
  std::mt19937 random(seed);
  std::uniform_real_distribution<double> channel(0, top);
  while (colours.size() < count) colours.push_back({channel(random), channel(random), channel(random)});
  return colours;
}

// Each plane value is the formula's, rounded, within one step (the curve comes from a table),
// on colours from black and below-zero to far past the peak, on a picture of odd size.
TEST(HdrConvert, PlanesFollowTheFormulas) {
  for (const KnownPeak& k : KnownPeaks) {
    std::vector<std::vector<double>> colours = TestColours(60, k.Nits / 80.0, k.Nits);
    colours.push_back({1e6, 1e6, 1e6});
    const BlockPicture pic = MakeBlocks(21, 13, colours, 3);
    const Planes out = Convert(pic, VelmoHdrSetupFor(k.Nits));
    for (uint32_t y = 0; y < pic.H; ++y)
      for (uint32_t x = 0; x < pic.W; ++x) {
        const test_support::HdrPlaneValues v =
            test_support::ForwardHdr(pic.BlockColour(x, y), k.Nits, k.Row);
        const size_t at = size_t(y) * pic.W + x;
        EXPECT_NEAR(out.Y[at], Rounded(v.Y), 1) << k.Nits << " at " << x << "," << y;
        EXPECT_NEAR(out.Hdr[at], Rounded(v.Hdr), 1) << k.Nits << " at " << x << "," << y;
        EXPECT_EQ(out.Alpha[at], Rounded(pic.Alpha[size_t(y / 2) * out.CW + x / 2] * 255.0));
        if (x % 2 || y % 2) continue;
        const size_t c = size_t(y / 2) * out.CW + x / 2;
        EXPECT_NEAR(out.Ct[c], Rounded(v.Ct), 1) << k.Nits << " at " << x << "," << y;
        EXPECT_NEAR(out.Cp[c], Rounded(v.Cp), 1) << k.Nits << " at " << x << "," << y;
      }
  }
}

// Chroma comes from the sums over each 2 x 2 block: a block of two colours gives a value between
// theirs, and the last column of an odd picture counts its pixels twice.
TEST(HdrConvert, ChromaFromBlockSums) {
  const VelmoHdrSetup setup = VelmoHdrSetupFor(1000);
  const uint32_t w = 3, h = 2;
  const float red[4] = {8, 0, 0, 1}, blue[4] = {0, 0, 8, 1};
  std::vector<float> px(w * h * 4);
  for (uint32_t i = 0; i < w * h; ++i)
    std::copy(i % w == 1 ? blue : red, (i % w == 1 ? blue : red) + 4, &px[i * 4]);
  Planes mixed(w, h);
  VelmoConvertHdrPixels(px.data(), int32_t(w * 16), w, h, setup, mixed.Targets());
  const Planes reds = Convert(MakeBlocks(w, h, {{8, 0, 0}}, 1), setup);
  const Planes blues = Convert(MakeBlocks(w, h, {{0, 0, 8}}, 1), setup);
  EXPECT_NE(reds.Ct[0], blues.Ct[0]);
  EXPECT_GT(mixed.Ct[0], std::min(reds.Ct[0], blues.Ct[0]));
  EXPECT_LT(mixed.Ct[0], std::max(reds.Ct[0], blues.Ct[0]));
  EXPECT_EQ(mixed.Ct[1], reds.Ct[1]);  // the odd column: red only
  EXPECT_EQ(mixed.Cp[1], reds.Cp[1]);
}

// Forward here, back through the reader's conversion with the block's coefficients: every
// colour up to the peak comes back within 6 % of its largest channel plus 0.01.
TEST(HdrConvert, ReaderTurnsThePlanesBackIntoTheColours) {
  for (const KnownPeak& k : KnownPeaks) {
    const double top = k.Nits / 80.0;
    const BlockPicture pic = MakeBlocks(22, 14, TestColours(77, top, k.Nits + 1), 5);
    const VelmoHdrSetup setup = VelmoHdrSetupFor(k.Nits);
    const Planes out = Convert(pic, setup);
    float coefficients[HdrCoefficientCount];
    for (uint32_t i = 0; i < HdrCoefficientCount; ++i) coefficients[i] = setup.Block[i] / 32767.0f;
    const HdrPlanes planes{out.Y.data(), out.Hdr.data(), out.Ct.data(), out.Cp.data(),
                           out.Alpha.data(), ptrdiff_t(out.W), ptrdiff_t(out.CW), out.W, out.H};
    std::vector<float> back(size_t(pic.W) * pic.H * 4);
    HdrPlanesToLinearRgba(planes, coefficients, back.data(), ptrdiff_t(pic.W) * 4);
    for (uint32_t y = 0; y < pic.H; ++y)
      for (uint32_t x = 0; x < pic.W; ++x) {
        const double* rgb = pic.BlockColour(x, y);
        const double want[3] = {std::max(rgb[0], 0.0), std::max(rgb[1], 0.0), std::max(rgb[2], 0.0)};
        const double bound = 0.06 * std::max({want[0], want[1], want[2]}) + 0.01;
        const float* got = &back[(size_t(y) * pic.W + x) * 4];
        for (int c = 0; c < 3; ++c)
          EXPECT_NEAR(got[c], want[c], bound)
              << k.Nits << " nits, colour " << want[0] << "," << want[1] << "," << want[2]
              << " channel " << c;
        EXPECT_NEAR(got[3], pic.Pixels[(size_t(y) * pic.W + x) * 4 + 3], 0.5 / 255 + 1e-6);
      }
  }
}

// ---- The frame loop --------------------------------------------------------------------------

// A wide-range writer's frame loop converts its frames into the I-Ct-Cp planes and the HDR
// plane, integer pixels as floats of 1.0 at 255, raises the writer's greatest HDR code, and
// writes a "VM2m" file.
TEST(HdrFrameLoop, FramesGoThroughTheWideRangeConversion) {
  const test_support::ScratchDir dir;
  const std::string out = dir.path + "/w.vm2";
  const uint32_t w = 34, h = 18, nits = 1000;
  VelmoWriter* writer = VelmoWriterOpen(out.c_str(), VelmoWriterHdr, 200, w, h, 2, 0, nullptr, 25,
                                        1, 0, nullptr, nits, nullptr, nullptr, nullptr);
  ASSERT_NE(writer, nullptr);
  ASSERT_TRUE(writer->Flags & VelmoWriterHdr);
  VelmoFrameLoop* loop = VelmoFrameLoopOpen(writer, 2, 0, 0);
  ASSERT_NE(loop, nullptr);
  ASSERT_EQ(loop->Ring[0].Planes[VelmoPlaneHdr].size(), size_t(loop->PlaneWidth) * loop->PlaneHeight);

  // Frame 0: ARGB words.
  std::vector<uint32_t> argb(size_t(w) * h);
  std::vector<float> asFloats(argb.size() * 4);
  for (size_t i = 0; i < argb.size(); ++i) {
    argb[i] = 0xFF000000u | uint32_t(i * 7 % 256) << 16 | uint32_t(i * 13 % 256) << 8 | uint32_t(i % 256);
    for (int c = 0; c < 4; ++c)
      asFloats[i * 4 + c] = float((argb[i] >> (c == 3 ? 24 : 16 - 8 * c)) & 255) / 255.0f;
  }
  ASSERT_TRUE(VelmoFrameLoopAdd(loop, 100000, 300000, false, argb.data(), int32_t(w * 4), false));
  Planes want(w, h);
  VelmoConvertHdrPixels(asFloats.data(), int32_t(w * 16), w, h, writer->Hdr, want.Targets());
  const VelmoQueueSlot& slot = loop->Ring[loop->QueueStart];
  for (uint32_t y = 0; y < h; ++y) {
    for (uint32_t x = 0; x < w; ++x) {
      const size_t at = size_t(y) * loop->PlaneWidth + x;
      ASSERT_EQ(slot.Planes[VelmoPlaneY][at], want.Y[y * w + x]) << x << "," << y;
      ASSERT_EQ(slot.Planes[VelmoPlaneHdr][at], want.Hdr[y * w + x]) << x << "," << y;
    }
    for (uint32_t x = 0; y < want.CH && x < want.CW; ++x) {
      ASSERT_EQ(slot.Planes[VelmoPlaneCr][size_t(y) * loop->ChromaWidth + x], want.Ct[y * want.CW + x]);
      ASSERT_EQ(slot.Planes[VelmoPlaneCb][size_t(y) * loop->ChromaWidth + x], want.Cp[y * want.CW + x]);
    }
  }
  const uint8_t first = *std::max_element(want.Hdr.begin(), want.Hdr.end());
  EXPECT_EQ(writer->HdrMaxCode, first);
  VelmoFrameLoopCommit(loop);

  // Frame 1: floats, one pixel far past the peak.
  std::vector<float> floats(asFloats);
  floats[(5 * w + 9) * 4] = floats[(5 * w + 9) * 4 + 1] = floats[(5 * w + 9) * 4 + 2] = 40.0f;
  ASSERT_TRUE(VelmoFrameLoopAdd(loop, 100000, 300000, false, floats.data(), int32_t(w * 16), true));
  Planes bright(w, h);
  VelmoConvertHdrPixels(floats.data(), int32_t(w * 16), w, h, writer->Hdr, bright.Targets());
  const uint8_t top = *std::max_element(bright.Hdr.begin(), bright.Hdr.end());
  EXPECT_GT(top, first);
  EXPECT_EQ(writer->HdrMaxCode, top);
  VelmoFrameLoopCommit(loop);
  VelmoFrameLoopPump(loop, true);
  VelmoFrameLoopFree(loop);
  EXPECT_GT(VelmoWriterClose(writer, false), 0u);
  const std::vector<uint8_t> file = test_support::ReadFile(out);
  ASSERT_GT(file.size(), 56u);
  EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "VM2m");
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(int16_t(file[44 + 2 * i] | file[45 + 2 * i] << 8), VelmoHdrSetupFor(nits).Block[i])
        << "HDR value " << i;
}

// ---- The peak found ----------------------------------------------------------------------------

TEST(HdrPeak, PlaneMaxStopsAtFullScale) {
  std::vector<uint8_t> plane(8 * 4, 0);
  plane[8 * 2 + 5] = 77;
  plane[8 * 3 + 7] = 200;  // past the width: not counted
  EXPECT_EQ(VelmoHdrPlaneMax(plane.data(), 8, 7, 4, 0), 77);
  EXPECT_EQ(VelmoHdrPlaneMax(plane.data(), 8, 8, 4, 0), 200);
  EXPECT_EQ(VelmoHdrPlaneMax(plane.data(), 8, 7, 4, 90), 90);  // the frames before count
  EXPECT_EQ(VelmoHdrPlaneMax(plane.data(), 8, 7, 0, 0), 0);
}

const std::string NeverFound =
    "@Velmo never found any HDR data in the input frames.\n\nThis probably isn't an HDR input file.";

// The nits a remark names for a plane's greatest code, taken back through the curve: the code
// stands for (code + 255) / 511 on the curve, at the scale of the nits given.
double CodeOfNits(double nits, uint32_t given) {
  return test_support::LinearToPq(nits / given) * 511 - 255;
}

TEST(HdrPeak, RemarksOnThePeakFound) {
  char text[400];
  ASSERT_TRUE(VelmoHdrPeakRemark(0, 1000, text, sizeof text));
  EXPECT_EQ(text, NeverFound);
  for (uint32_t code : {241u, 250u, 255u}) EXPECT_FALSE(VelmoHdrPeakRemark(code, 1000, text, sizeof text)) << code;
  // A code low on the curve stands for a few nits only: as good as nothing found.
  ASSERT_TRUE(VelmoHdrPeakRemark(1, 1000, text, sizeof text));
  EXPECT_EQ(text, NeverFound);
  // Higher codes name the peak they stand for, rounded to 10 below 1000 nits and to 100 above;
  // being lower than the nits given, it always earns the remark.
  for (uint32_t given : {10000u, 4000u})
    for (uint32_t code : {60u, 120u, 180u, 240u}) {
      ASSERT_TRUE(VelmoHdrPeakRemark(code, given, text, sizeof text)) << code;
      int found = 0, passed = 0;
      ASSERT_EQ(std::sscanf(text,
                            "@The input file had a max nits of %d and you passed in %d.\n\nYou "
                            "should reset the max nits to the lower value and recompress!",
                            &found, &passed), 2) << text;
      EXPECT_EQ(passed, int(given));
      EXPECT_LT(found, int(given));
      EXPECT_EQ(found % (found >= 1000 ? 100 : 10), 0) << found;
      const double step = found >= 1000 ? 50 : 5;
      EXPECT_LE(CodeOfNits(found - step, given), code + 1e-9) << found;
      EXPECT_GE(CodeOfNits(found + step, given), code - 1e-9) << found;
      EXPECT_TRUE(std::string(text).find("You should reset the max nits") != std::string::npos);
    }
}

}  // namespace
