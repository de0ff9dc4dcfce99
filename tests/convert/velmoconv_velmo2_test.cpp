// VelmoConv on second-generation files, run as the real program: plain frames to PNG through
// the file's colour table and in order, the alpha plane kept, a wide-range file to OpenEXR as
// the linear colours it was made from, and the warning about frames of the older stream.
#include <algorithm>
#include <cmath>
#include <string>
#include <vector>

#include "format/container.h"
#include "program_test_support.h"
#include "reader/velmo_handle.h"
#include "support/hdr_forward.h"
#include "support/velmo2_flat_file.h"

namespace {

using namespace program_test;
using velmo_test::FlatFilePlan;
using velmo_test::FlatFrame;
using velmo_test::FlatValue;

using VelmoConvSecondGeneration = TempDirTest;

double TableChannel(const float table[16], int c, const FlatFrame& f) {
  const double v = table[VelmoColourRowY + c] * f.Y / 255.0 + table[VelmoColourRowCr + c] * f.Cr / 255.0 +
                   table[VelmoColourRowCb + c] * f.Cb / 255.0 + table[VelmoColourRowOffset + c];
  return std::clamp(v, 0.0, 1.0) * 255.0;
}

// Frame 0 of an OpenEXR file as four floats a pixel.
bool ReadFloats(const std::string& name, int* width, int* height, std::vector<float>* out) {
  ImageFile* file = ImageFileOpen(name.c_str(), nullptr);
  if (!file) return false;
  *width = ImageFileInfo(file)->width;
  *height = ImageFileInfo(file)->height;
  out->assign(size_t(*width) * *height * 4, 0.0f);
  ImagePixels p{out->data(), ptrdiff_t(*width) * 16, *width, *height, IMAGE_PIXELS_FLOAT};
  const bool ok = ImageFileReadFrame(file, 0, &p, nullptr) != 0;
  ImageFileClose(file);
  return ok;
}

TEST_F(VelmoConvSecondGeneration, PlainFramesToPngInOrderWithAlpha) {
  FlatFilePlan plan;
  plan.Width = 48;
  plan.Height = 24;
  plan.Alpha = true;
  plan.Frames = {{100, 160, 90, 40}, {180, 110, 140, 250}, {60, 128, 200, 128}};
  velmo_test::WriteFlatFile(dir + "/c.vm2", plan);
  const ToolOutcome run = RunTail("velmoconv " + dir + "/c.vm2 " + dir + "/out.png /Z1000");
  ASSERT_EQ(run.code, 0) << run.output;
  float table[16];
  VelmoDefaultColourTable(VelmoMagicVM2j, 0, table);
  for (size_t i = 0; i < plan.Frames.size(); ++i) {
    const FlatFrame& f = plan.Frames[i];
    Picture p;
    ASSERT_TRUE(ReadPicture(dir + "/out" + std::to_string(i) + ".png", &p)) << i;
    ASSERT_EQ(p.width, 48);
    ASSERT_EQ(p.height, 24);
    EXPECT_TRUE(p.has_alpha);
    for (size_t k : {size_t(0), p.pixels.size() / 2 + 7, p.pixels.size() - 1}) {
      const uint32_t px = p.pixels[k];
      for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(double((px >> (16 - 8 * c)) & 255), TableChannel(table, c, f), 2.0)
            << "frame " << i << " channel " << c;
      EXPECT_EQ(px >> 24, f.Alpha) << "frame " << i;
    }
  }
}

// The round trip of wide-range colours: linear RGB -> the compressor's conversion (written in
// support/hdr_forward.h from its formulas) -> flat planes of even values -> a "VM2m" file ->
// VelmoConv -> OpenEXR. Each plane may be one unit of 255 off (even values only, and 254 at
// most in Y); at these levels that moves a channel by under 6 % of the colour's largest
// channel, and OpenEXR's half floats add 0.1 %. Bound: 6 % of the largest channel plus 0.01.
TEST_F(VelmoConvSecondGeneration, WideRangeFileToOpenExrGivesItsLinearColours) {
  const double colours[][3] = {{1.0, 1.0, 1.0}, {0.3, 0.6, 0.15}, {5.0, 1.5, 0.5},
                               {11.0, 10.0, 9.0}, {0.1, 0.05, 0.4}, {0.0, 0.0, 0.0}};
  const uint32_t nits = 1000;
  FlatFilePlan plan;
  plan.Hdr = true;
  plan.Width = 40;
  plan.Height = 20;
  test_support::MakeHdrBlock(nits, test_support::Tone1000, plan.HdrBlock);
  for (const auto& rgb : colours) {
    const test_support::HdrPlaneValues v = test_support::ForwardHdr(rgb, nits, test_support::Tone1000);
    plan.Frames.push_back({FlatValue(v.Y), FlatValue(v.Ct), FlatValue(v.Cp), 255, FlatValue(v.Hdr)});
  }
  ASSERT_GT(plan.Frames[3].Hdr, 0) << "the bright colour must reach the HDR plane";
  velmo_test::WriteFlatFile(dir + "/h.vm2", plan);
  const ToolOutcome run = RunTail("velmoconv " + dir + "/h.vm2 " + dir + "/out.exr");
  ASSERT_EQ(run.code, 0) << run.output;
  for (size_t i = 0; i < std::size(colours); ++i) {
    int w = 0, h = 0;
    std::vector<float> px;
    ASSERT_TRUE(ReadFloats(dir + "/out" + std::to_string(i) + ".exr", &w, &h, &px)) << i;
    ASSERT_EQ(w, 40);
    ASSERT_EQ(h, 20);
    const double* rgb = colours[i];
    const double peak = std::max({rgb[0], rgb[1], rgb[2]});
    for (size_t at : {size_t(0), px.size() / 2 + 12, px.size() - 4})
      for (int c = 0; c < 3; ++c)
        EXPECT_NEAR(px[at + c], rgb[c], 0.06 * peak + 0.01) << "colour " << i << " channel " << c;
  }
}

// Linear wide-range colours as an OpenEXR series, compressed by the real program with /v270
// and turned back into OpenEXR by VelmoConv: the file is a "VM2m" with the HDR block of its
// peak, the run names no missing or lower peak (the bright halves reach far into the HDR
// plane) unless the peak given is far too high, and the flat halves of each frame come back within 6 % of the largest channel plus
// 0.01, as the planes alone allow.
TEST_F(VelmoConvSecondGeneration, WideRangeSeriesCompressedAndBackToOpenExr) {
  const int w = 64, h = 32;
  const double colours[3][2][3] = {{{0.5, 0.3, 0.2}, {10, 11, 12}},
                                   {{6, 4, 2}, {0.05, 0.2, 0.1}},
                                   {{1, 1, 1}, {12, 3, 0.5}}};
  for (int f = 0; f < 3; ++f) {
    std::vector<float> px(size_t(w) * h * 4);
    for (int y = 0; y < h; ++y)
      for (int x = 0; x < w; ++x) {
        float* p = &px[(size_t(y) * w + x) * 4];
        for (int c = 0; c < 3; ++c) p[c] = float(colours[f][x < w / 2 ? 0 : 1][c]);
        p[3] = 1.0f;
      }
    ImagePixels pixels = {px.data(), ptrdiff_t(w) * 16, w, h, IMAGE_PIXELS_FLOAT};
    ImageWriteParams params = {IMAGE_FORMAT_EXR, 0, 0, 0};
    const std::string name = dir + "/in_00" + std::to_string(f + 1) + ".exr";
    ASSERT_TRUE(ImageWriteFile(name.c_str(), &params, &pixels, nullptr)) << name;
  }
  const std::string vm2 = dir + "/hdr.vm2";
  const ToolOutcome made =
      RunTail("velmoc " + dir + "/in_???.exr*1-3 " + vm2 + " /v270 /$1000 /{0 /d3000000 /o");
  ASSERT_EQ(made.code, 0) << made.output;
  EXPECT_FALSE(made.Says("never found any HDR data")) << made.output;
  EXPECT_FALSE(made.Says("max nits of")) << made.output;
  // Given a far higher peak, the same frames hardly reach the HDR plane, and the run says so.
  const ToolOutcome high =
      RunTail("velmoc " + dir + "/in_???.exr*1-3 " + dir + "/high.vm2 /v270 /$4000 /{0 /o");
  ASSERT_EQ(high.code, 0) << high.output;
  EXPECT_TRUE(high.Says("and you passed in 4000.")) << high.output;
  const std::vector<uint8_t> file = ReadFile(vm2);
  ASSERT_GT(file.size(), 56u);
  EXPECT_EQ(std::string(file.begin(), file.begin() + 4), "VM2m");
  int16_t block[6];
  test_support::MakeHdrBlock(1000, test_support::Tone1000, block);
  for (int i = 0; i < 6; ++i)
    EXPECT_EQ(int16_t(file[44 + 2 * i] | file[45 + 2 * i] << 8), block[i]) << "HDR value " << i;

  const ToolOutcome back = RunTail("velmoconv " + vm2 + " " + dir + "/back.exr");
  ASSERT_EQ(back.code, 0) << back.output;
  for (int f = 0; f < 3; ++f) {
    int bw = 0, bh = 0;
    std::vector<float> px;
    ASSERT_TRUE(ReadFloats(dir + "/back" + std::to_string(f) + ".exr", &bw, &bh, &px)) << f;
    ASSERT_EQ(bw, w);
    ASSERT_EQ(bh, h);
    for (int x : {2, w / 4, w / 2 - 4, w / 2 + 4, 3 * w / 4, w - 3})
      for (int y : {1, h / 2, h - 2}) {
        const double* rgb = colours[f][x < w / 2 ? 0 : 1];
        const double bound = 0.06 * std::max({rgb[0], rgb[1], rgb[2]}) + 0.01;
        for (int c = 0; c < 3; ++c)
          EXPECT_NEAR(px[(size_t(y) * w + x) * 4 + c], rgb[c], bound)
              << "frame " << f << " at " << x << "," << y << " channel " << c;
      }
  }
}

TEST_F(VelmoConvSecondGeneration, FramesOfTheOlderStreamAreToldOnce) {
  FlatFilePlan plan;
  plan.Frames = {{100, 128, 128}, {120, 128, 128}, {140, 128, 128}};
  plan.OlderFrames = {1, 2};
  velmo_test::WriteFlatFile(dir + "/o.vm2", plan);
  const ToolOutcome run = RunTail("velmoconv " + dir + "/o.vm2 " + dir + "/o.png");
  EXPECT_EQ(run.code, 0) << run.output;
  EXPECT_EQ(run.Times(VelmoOldStreamText), 1u) << run.output;
  const ToolOutcome plain = RunTail("velmoconv " + dir + "/o.vm2 " + dir + "/p.png /S1 /E1");
  EXPECT_EQ(plain.code, 0) << plain.output;
  EXPECT_TRUE(Exists(dir + "/p.png") || Exists(dir + "/p0.png"));
  EXPECT_EQ(plain.Times(VelmoOldStreamText), 0u) << plain.output;
}

}  // namespace
