// Second-generation Velmo files as inputs: plain frames in order through the file's colour
// table, wide-range files delivered as linear floats that match the colours they were made
// from, and the warning about frames of the older stream.
#include <cmath>
#include <cstring>

#include "format/container.h"
#include "media_test_util.h"
#include "reader/velmo_handle.h"
#include "support/hdr_forward.h"
#include "support/velmo2_flat_file.h"

namespace {

using namespace media_test;
using velmo_test::FlatFilePlan;
using velmo_test::FlatFrame;
using velmo_test::FlatValue;

// A channel of the video-range table for flat planes, 0..255, before the copy's rounding.
double TableChannel(const float table[16], int c, const FlatFrame& f) {
  const double v = table[VelmoColourRowY + c] * f.Y / 255.0 + table[VelmoColourRowCr + c] * f.Cr / 255.0 +
                   table[VelmoColourRowCb + c] * f.Cb / 255.0 + table[VelmoColourRowOffset + c];
  return std::clamp(v, 0.0, 1.0) * 255.0;
}

const float* FloatPixel(const MediaInput* in, uint32_t x, uint32_t y) {
  return reinterpret_cast<const float*>(in->output_buffer + size_t(y) * in->output_pitch) + 4 * x;
}

using Velmo2Input = MediaTest;

TEST_F(Velmo2Input, PlainFramesInOrderThroughTheColourTable) {
  FlatFilePlan plan;
  plan.Width = 40;
  plan.Height = 136;  // more than one slice
  plan.SliceMode = 1;
  plan.Frames = {{100, 160, 90}, {180, 110, 140}, {60, 128, 200}, {130, 140, 120}};
  velmo_test::WriteFlatFile(dir / "c.vm2", plan);
  MediaInput* in = Open(dir / "c.vm2");
  ASSERT_NE(in, nullptr);
  EXPECT_STREQ(in->type_name, "Velmo 2.5");
  EXPECT_EQ(in->float_frames, 0u);
  EXPECT_EQ(in->source_frames, plan.Frames.size());
  float table[16];
  VelmoDefaultColourTable(VelmoMagicVM2j, 0, table);
  for (const FlatFrame& f : plan.Frames) {
    ASSERT_TRUE(NextFrame(in));
    for (uint32_t y : {0u, 67u, 135u})
      for (uint32_t x : {0u, 39u}) {
        const uint32_t p = OutPixel(in, x, y);
        for (int c = 0; c < 3; ++c)
          EXPECT_NEAR(double((p >> (16 - 8 * c)) & 255), TableChannel(table, c, f), 2.0)
              << "channel " << c << " at " << x << "," << y << " of Y " << int(f.Y);
      }
  }
  MediaClose(in);
}

// Colours made into planes by the compressor's conversion come back as those colours. The
// flat planes hold even values only, 0 to 254, so each plane may be one unit of 255 off (the
// intensity of a colour beyond full scale also loses the unit of 255 that the Y plane cannot
// hold). At these levels one unit of intensity moves all channels by about 1.5 %, one unit of
// chroma single channels by up to 3 % of the largest; together they stay under 6 % of the
// largest channel, plus 0.01 for the darkest colours.
TEST_F(Velmo2Input, WideRangeFramesComeAsLinearFloats) {
  const double colours[][3] = {{1.0, 1.0, 1.0}, {0.2, 0.5, 0.1}, {4.0, 2.0, 1.0},
                               {10.0, 9.0, 11.0}, {0.05, 0.02, 0.3}};
  FlatFilePlan plan;
  plan.Hdr = true;
  plan.Alpha = true;
  test_support::MakeHdrBlock(1000, test_support::Tone1000, plan.HdrBlock);
  bool beyond = false;
  for (const auto& rgb : colours) {
    const test_support::HdrPlaneValues v = test_support::ForwardHdr(rgb, 1000, test_support::Tone1000);
    FlatFrame f{FlatValue(v.Y), FlatValue(v.Ct), FlatValue(v.Cp), 200, FlatValue(v.Hdr)};
    beyond |= f.Hdr > 0;
    plan.Frames.push_back(f);
  }
  ASSERT_TRUE(beyond) << "no colour reaches the HDR plane";
  velmo_test::WriteFlatFile(dir / "h.vm2", plan);
  MediaOpenArgs args{};
  args.flags = MediaOpenAlpha;
  MediaInput* in = Open(dir / "h.vm2", args);
  ASSERT_NE(in, nullptr);
  EXPECT_STREQ(in->type_name, "Velmo 2.7");
  EXPECT_EQ(in->float_source, 1u);
  EXPECT_EQ(in->float_frames, 1u);
  EXPECT_EQ(in->input_depth, 128u);
  EXPECT_EQ(in->peak_value, 1000u);
  for (const auto& rgb : colours) {
    ASSERT_TRUE(NextFrame(in));
    const double peak = std::max({rgb[0], rgb[1], rgb[2]});
    for (uint32_t y : {0u, 31u})
      for (uint32_t x : {0u, 63u}) {
        const float* px = FloatPixel(in, x, y);
        for (int c = 0; c < 3; ++c)
          EXPECT_NEAR(px[c], rgb[c], 0.06 * peak + 0.01) << "channel " << c << " of " << rgb[0];
        EXPECT_NEAR(px[3], 200 / 255.0, 1e-6);
      }
  }
  MediaClose(in);
}

TEST_F(Velmo2Input, OlderStreamFramesAreToldOnce) {
  FlatFilePlan plan;
  plan.Frames = {{100, 128, 128}, {120, 128, 128}, {140, 128, 128}, {160, 128, 128}};
  plan.OlderFrames = {1, 2};
  velmo_test::WriteFlatFile(dir / "o.vm2", plan);
  MediaInput* in = Open(dir / "o.vm2");
  ASSERT_NE(in, nullptr);
  std::vector<uint32_t> greens;
  for (size_t i = 0; i < plan.Frames.size(); ++i) {
    ASSERT_TRUE(NextFrame(in));
    greens.push_back((OutPixel(in, 5, 5) >> 8) & 255);
  }
  MediaClose(in);
  int told = 0;
  for (const test_support::ProgressMessage& m : Log.Messages())
    told += m.level == MediaLevelWarning && m.text == VelmoOldStreamText;
  EXPECT_EQ(told, 1);
  // The undecoded frames keep the picture before them.
  EXPECT_EQ(greens[1], greens[0]);
  EXPECT_EQ(greens[2], greens[0]);
  EXPECT_GT(greens[3], greens[0]);
}

}  // namespace
