// The second-generation decoder on generated sections (tests/support/velmo2_stream.h): every
// valid frame decodes whole without touching a byte outside the planes, a frame decoded slice
// by slice in separate shares gives the same pictures as one share, and every kernel level the
// processor has gives the same pictures.
#include "decode/velmo2_decoder.h"
#include "host/cpu_features.h"
#include "support/velmo2_stream.h"

#include <gtest/gtest.h>

#include <vector>

using namespace velmo2_test;

namespace {

struct Decoded {
  Velmo2FrameResult Key, Inter;
  bool GuardsIntact;
  std::vector<uint8_t> Pictures;  // every plane of both sets, guards included
};

// Decodes a key and an inter section of `plan` (the plan's Key is ignored) into fresh frames:
// in one share, or in one share per slice, and the seams after each frame.
Decoded DecodeKeyAndInter(StreamPlan plan, uint32_t features, bool sharePerSlice) {
  plan.Key = true;
  const std::vector<uint8_t> key = GenerateSection(plan);
  plan.Key = false;
  plan.Seed += 1000;
  const std::vector<uint8_t> inter = GenerateSection(plan);

  Velmo2DecoderSetup setup{};
  setup.Width = plan.Width;
  setup.Height = plan.Height;
  setup.Tag[0] = 'V';
  setup.Tag[1] = 'M';
  setup.Tag[2] = '2';
  setup.Tag[3] = plan.Tag;
  setup.FileFlags = plan.FileFlags;
  setup.Alpha = plan.Alpha;
  setup.Hdr = plan.Hdr;
  setup.Features = features;
  Velmo2Decoder* decoder = Velmo2DecoderCreate(setup);
  EXPECT_NE(decoder, nullptr);
  Decoded out{Velmo2FrameNoDecoder, Velmo2FrameNoDecoder, false, {}};
  if (!decoder) return out;
  const uint32_t slices = Velmo2DecoderLayout(decoder).Slices;
  EXPECT_EQ(slices, SliceEnds(plan.Tag, plan.FileFlags, plan.Height).size());

  Frames frames(plan.Width, plan.Height, plan.Alpha, plan.Hdr);
  frames.Fill(0, 0x80);
  frames.Fill(1, 0x80);
  const auto decode = [&](const std::vector<uint8_t>& section, bool isKey) {
    Velmo2FrameResult worst = Velmo2FrameDecoded;
    const uint32_t step = sharePerSlice ? 1 : slices;
    for (uint32_t first = 0; first < slices; first += step) {
      const Velmo2FrameResult r = Velmo2DecodeFrame(decoder, &frames.Fb, section.data(),
                                                    section.size(), isKey, first, step);
      if (r > worst) worst = r;
    }
    Velmo2DecoderFinishSeams(decoder, &frames.Fb);
    return worst;
  };
  out.Key = decode(key, true);
  frames.Fb.Current ^= 1;
  out.Inter = decode(inter, false);
  out.GuardsIntact = frames.GuardsIntact();
  for (int s = 0; s < 2; ++s) {
    for (int p = 0; p < VelmoPlaneCount; ++p) {
      out.Pictures.insert(out.Pictures.end(), frames.Memory[s][p].begin(), frames.Memory[s][p].end());
    }
  }
  Velmo2DecoderDestroy(decoder);
  return out;
}

// Sizes around whole macroblocks and the slice thresholds, every tag and slice mode, frame
// words with and without edge maps, the wide-DC rule, parity clamping and constant alpha.
std::vector<StreamPlan> Plans() {
  return PlanGrid({{8, 8}, {100, 96}, {72, 97}, {40, 128}, {200, 300}, {328, 64}},
                  {0x10000 | 4, 0x10000 | 0x40000 | 0x20000 | 9, 0x1C000 | 2,
                   0x10000 | 0x80000 | 0x55000000, 0x0},
                  500, [](StreamPlan& p) {
                    // Vectors far outside the picture now and then.
                    p.Shares.VectorSpread = p.Seed % 3 == 0 ? 200 : 8;
                  });
}

#define PLAN_TRACE(p)                                                                    \
  SCOPED_TRACE(testing::Message() << (p).Width << "x" << (p).Height << " VM2" << (p).Tag \
                                  << " mode " << (p).FileFlags << " word " << std::hex   \
                                  << (p).FrameWord << std::dec << " seed " << (p).Seed)

TEST(Velmo2GeneratedFrames, DecodeWholeInOneShareOrShareBySlice) {
  for (const StreamPlan& plan : Plans()) {
    PLAN_TRACE(plan);
    const Decoded one = DecodeKeyAndInter(plan, ProcessorFeatures(), false);
    EXPECT_EQ(one.Key, Velmo2FrameDecoded);
    EXPECT_EQ(one.Inter, Velmo2FrameDecoded);
    EXPECT_TRUE(one.GuardsIntact);
    const Decoded shared = DecodeKeyAndInter(plan, ProcessorFeatures(), true);
    EXPECT_EQ(shared.Key, Velmo2FrameDecoded);
    EXPECT_EQ(shared.Inter, Velmo2FrameDecoded);
    EXPECT_TRUE(shared.Pictures == one.Pictures) << "shares by slice differ from one share";
  }
}

TEST(Velmo2GeneratedFrames, EveryKernelLevelGivesTheSamePictures) {
  const ProcessorLevel& base = ProcessorLevels[ProcessorLevelSse2];
  if (!ProcessorHas(base.Features)) GTEST_SKIP() << "the decoder needs SSE2";
  for (const StreamPlan& plan : Plans()) {
    PLAN_TRACE(plan);
    const Decoded want = DecodeKeyAndInter(plan, base.Features | CpuValid, false);
    ASSERT_EQ(want.Key, Velmo2FrameDecoded);
    for (int level = ProcessorLevelSse2 + 1; level < ProcessorLevelCount; ++level) {
      const ProcessorLevel& l = ProcessorLevels[level];
      if (!ProcessorHas(l.Features)) continue;
      const Decoded got = DecodeKeyAndInter(plan, l.Features | CpuValid, false);
      EXPECT_TRUE(got.Pictures == want.Pictures) << "level " << l.Name;
    }
  }
}

}  // namespace
