// First-generation encoder: streams that the decoder rebuilds to the encoder's own picture, rate
// against quality, budgets, key frames, alpha, odd sizes and thread independence.
#include "compress/velmo1_encoder.h"

#include <gtest/gtest.h>

#include <cmath>
#include <fstream>
#include <map>
#include <sstream>
#include <cstring>
#include <random>
#include <string>
#include <vector>

#include "decode/velmo1_decoder.h"
#include "support/encoder_pictures.h"
#include "support/files.h"
#include "host/platform.h"

namespace {

using test_support::Flat;
using test_support::Gradient;
using test_support::Noise;
using test_support::Shapes;
using Picture = test_support::EncoderPicture;
using Content = test_support::EncoderContent;
using test_support::MakeEncoderPicture;

// A reader's view: its own ring that only ever sees the sections.
struct Reader {
  std::vector<uint8_t> Memory;
  VelmoFrameBuffers Ring{};
  explicit Reader(const VelmoFrameBuffers& like) {
    Ring = like;
    Ring.Current = 0;
    size_t bytes = 0;
    const size_t sizes[4] = {
        size_t(like.LumaWidth) * like.LumaHeight, size_t(like.ChromaWidth) * like.ChromaHeight,
        size_t(like.ChromaWidth) * like.ChromaHeight, size_t(like.LumaWidth) * like.LumaHeight};
    for (size_t s : sizes) bytes += 2 * s;
    Memory.assign(bytes, 0x5a);
    uint8_t* at = Memory.data();
    for (int s = 0; s < 2; ++s)
      for (int i = 0; i < 4; ++i) {
        Ring.Sets[s].Planes[i] = like.Sets[s].Planes[i] ? at : nullptr;
        at += sizes[i];
      }
  }
  void Decode(const std::vector<uint8_t>& section, uint32_t flags, uint32_t fileFlags,
              uint32_t tag) {
    std::vector<uint8_t> padded(section);
    padded.resize(padded.size() + 4, 0);
    Velmo1DecodeFrame(&Ring, padded.data(), padded.data() + padded.size(), nullptr, flags,
                      fileFlags, tag);
    Ring.Current ^= 1;
  }
};

// Compares every present plane of two rings' current pictures.
void ExpectSamePicture(const VelmoFrameBuffers& a, const VelmoFrameBuffers& b) {
  const VelmoFrameBufferSet& sa = a.Sets[a.Current];
  const VelmoFrameBufferSet& sb = b.Sets[b.Current];
  for (int i = 0; i < 4; ++i) {
    if (!sa.Planes[i]) continue;
    const size_t n = i == 0 || i == 3 ? size_t(a.LumaWidth) * a.LumaHeight
                                      : size_t(a.ChromaWidth) * a.ChromaHeight;
    ASSERT_EQ(std::memcmp(sa.Planes[i], sb.Planes[i], n), 0) << "plane " << i;
  }
}

// Squared error of a decoded picture's plane against the input plane, over the picture alone.
uint64_t DecodedPictureError(const VelmoFrameBuffers& ring, int plane, const Picture& pic) {
  const bool luma = plane == 0 || plane == 3;
  const uint32_t w = luma ? pic.W : (pic.W + 1) / 2, h = luma ? pic.H : (pic.H + 1) / 2;
  const uint32_t pitch = luma ? ring.LumaWidth : ring.ChromaWidth;
  const uint8_t* decoded = ring.Sets[ring.Current].Planes[plane];
  uint64_t sum = 0;
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const int d = int(decoded[size_t(y) * pitch + x]) - pic.P[plane][size_t(y) * w + x];
      sum += uint64_t(d * d);
    }
  return sum;
}

double Psnr(uint64_t error, size_t samples) {
  if (error == 0) return 99.0;
  return 10 * std::log10(255.0 * 255.0 * double(samples) / double(error));
}

struct EncodeRun {
  VelmoEncoder* E;
  Reader R;
  uint32_t Flags, FileFlags, Tag;
  explicit EncodeRun(const VelmoEncoderConfig& c)
      : E(VelmoEncoderCreate(c)),
        R(*VelmoEncoderPicture(E)),
        Flags(VelmoEncoderDecodeFlags(E)),
        FileFlags(c.Flags & VelmoEncodeAlpha ? Velmo1FileHasAlpha : 0),
        Tag(Velmo1FileTagFor(c.Version)) {}
  ~EncodeRun() { VelmoEncoderFree(E); }
  VelmoEncodeResult Frame(Picture& pic, bool key, uint32_t budget) {
    VelmoEncodeResult r{};
    EXPECT_TRUE(VelmoEncodeFrame(E, pic.Input(key), budget, &r));
    R.Decode(r.Section, Flags, FileFlags, Tag);
    ExpectSamePicture(*VelmoEncoderPicture(E), R.Ring);
    return r;
  }
};

}  // namespace

TEST(Velmo1Encoder, RejectsBadConfigurations) {
  EXPECT_EQ(VelmoEncoderCreate({0, 16, 100, 0}), nullptr);
  EXPECT_EQ(VelmoEncoderCreate({16, 16, 200, 0}), nullptr);
  EXPECT_EQ(VelmoEncoderCreate({16, 16, 99, 0}), nullptr);
  VelmoEncoder* e = VelmoEncoderCreate({16, 16, 100, 0});
  ASSERT_NE(e, nullptr);
  VelmoEncodeInput none{};
  VelmoEncodeResult r{};
  EXPECT_FALSE(VelmoEncodeFrame(e, none, 1000, &r));
  VelmoEncoderFree(e);
}

// Each stage is told by its label before it runs, and the run's cancel state is read then:
// 1 (stop at the next frame) is the writer's business and the frame is coded; 2 (stop now),
// set at any stage, ends the frame unwritten, and the encoder's picture, which the decoder of
// the file also holds, stays the last written frame's.
struct Stages {
  std::vector<std::string> Seen;
  std::string StopAt;
  uint32_t State = 0;
};
void OnStage(void* context, const char* label) {
  Stages& s = *static_cast<Stages*>(context);
  s.Seen.push_back(label);
  if (s.StopAt == label) s.State = 2;
}

TEST(Velmo1Encoder, StagesAreToldAndStopNowEndsTheFrameUnwritten) {
  const std::vector<std::string> all = {
      "Compressing Y plane", "Compressing Cr plane", "Compressing Cb plane",
      "Compressing Y high-plane", "Compressing Cr high-plane", "Allocating bandwidth",
      "Merging multi-resolution planes", "Encoding Y plane", "Encoding Cr plane",
      "Encoding Cb plane"};
  EncodeRun run({48, 32, 101, 0});
  Picture first = MakeEncoderPicture(48, 32, Shapes, 0);
  Picture second = MakeEncoderPicture(48, 32, Shapes, 3);
  run.Frame(first, true, 3000);
  std::vector<std::string> stops = all;
  stops.push_back("");  // no stop
  for (const std::string& stop : stops) {
    SCOPED_TRACE(stop);
    Stages stages;
    stages.StopAt = stop;
    stages.State = stop.empty() ? 1 : 0;
    const VelmoFrameBuffers& ring = *VelmoEncoderPicture(run.E);
    const uint32_t current = ring.Current;
    const std::vector<uint8_t> before(ring.Sets[current].Planes[0],
                                      ring.Sets[current].Planes[0] + 48 * 32);
    VelmoEncodeInput in = second.Input(false);
    in.Cancel = &stages.State;
    in.Stage = OnStage;
    in.StageContext = &stages;
    VelmoEncodeResult r{};
    const bool coded = VelmoEncodeFrame(run.E, in, 3000, &r);
    if (stop.empty()) {
      ASSERT_TRUE(coded);
      EXPECT_EQ(stages.Seen, all);
      run.R.Decode(r.Section, run.Flags, run.FileFlags, run.Tag);
      ExpectSamePicture(*VelmoEncoderPicture(run.E), run.R.Ring);
    } else {
      EXPECT_FALSE(coded);
      EXPECT_EQ(stages.Seen.back(), stop);
      EXPECT_TRUE(r.Section.empty());
      EXPECT_EQ(ring.Current, current);
      EXPECT_EQ(0, std::memcmp(before.data(), ring.Sets[ring.Current].Planes[0], before.size()));
    }
  }
}

// Every content at every budget, and odd sizes down to one pixel.
TEST(Velmo1Encoder, DecoderRebuildsTheEncodersPictureForEveryContentBudgetAndSize) {
  struct Case {
    uint32_t W, H;
    Content C;
    uint32_t Budget;
  };
  std::vector<Case> cases;
  for (Content c : {Gradient, Noise, Shapes, Flat})
    for (uint32_t budget : {0u, 300u, 3000u, 30000u}) cases.push_back({96, 64, c, budget});
  for (auto [w, h] : {std::pair{37u, 23u}, {8u, 8u}, {1u, 1u}, {100u, 9u}})
    cases.push_back({w, h, Shapes, 4000});
  for (const Case& k : cases) {
    SCOPED_TRACE(testing::Message() << k.W << "x" << k.H << " content " << k.C << " budget "
                                    << k.Budget);
    EncodeRun run({k.W, k.H, 101, 0});
    for (int t = 0; t < 2; ++t) {  // a key frame, then one that may refer to it
      Picture pic = MakeEncoderPicture(k.W, k.H, k.C, t);
      const VelmoEncodeResult r = run.Frame(pic, t == 0, k.Budget);
      // The planned error is exactly what the decoder's picture has.
      EXPECT_EQ(r.PlannedError, r.Errors[0] + r.Errors[1] + r.Errors[2]);
      // The picture's own error, as the quality line reports it, is the decoded picture's.
      for (int p = 0; p < 3; ++p) {
        EXPECT_EQ(r.PictureErrors[p], DecodedPictureError(run.R.Ring, p, pic)) << "plane " << p;
        EXPECT_EQ(r.PictureSamples[p], p == 0 ? uint64_t(k.W) * k.H
                                              : uint64_t((k.W + 1) / 2) * ((k.H + 1) / 2));
      }
    }
  }
}

TEST(Velmo1Encoder, QualityRisesWithBudgetAndSizeFollowsIt) {
  double lastPsnr = 0;
  size_t lastSize = 0;
  for (uint32_t budget : {400u, 1500u, 5000u, 15000u}) {
    EncodeRun run({128, 96, 100, 0});
    Picture pic = MakeEncoderPicture(128, 96, Shapes, 0);
    const VelmoEncodeResult r = run.Frame(pic, true, budget);
    const double psnr = Psnr(r.Errors[0], 128 * 96);
    if (lastPsnr < 99.0)
      EXPECT_GT(psnr, lastPsnr) << budget;
    else
      EXPECT_EQ(psnr, 99.0) << budget;  // lossless stays lossless
    EXPECT_GE(r.Section.size(), lastSize) << budget;
    // The plan runs on estimates; the frame lands near its budget.
    if (budget >= 1500) {
      EXPECT_LT(r.Section.size(), budget * 13 / 10 + 200) << budget;
    }
    lastPsnr = psnr;
    lastSize = r.Section.size();
  }
  EXPECT_GT(lastPsnr, 35.0);
}

TEST(Velmo1Encoder, StillFramesSkipAndFlatKeyFramesAreOneColour) {
  EncodeRun run({64, 48, 100, 0});
  Picture flat = MakeEncoderPicture(64, 48, Flat, 0);
  const VelmoEncodeResult key = run.Frame(flat, true, 2000);
  EXPECT_EQ(key.Errors[0], 0u);
  EXPECT_LT(key.Sizes[0], 120u);
  EXPECT_GT(key.DoubledKinds[Velmo1One], 0u);  // a flat area is one colour at 16x16
  Picture shapes = MakeEncoderPicture(64, 48, Shapes, 0);
  const VelmoEncodeResult first = run.Frame(shapes, false, 1500);
  // The encoder's own picture as the next input: every block repeats at no error, and no 16x16
  // block has anything to offer.
  const VelmoFrameBuffers& ring = *VelmoEncoderPicture(run.E);
  const VelmoFrameBufferSet& now = ring.Sets[ring.Current];
  Picture same{64, 48, {}};
  for (int i = 0; i < 4; ++i) {
    const uint32_t w = i == 0 || i == 3 ? 64 : 32, h = i == 0 || i == 3 ? 48 : 24;
    const int32_t pitch = i == 0 || i == 3 ? ring.LumaPitch : ring.ChromaPitch;
    same.P[i].resize(size_t(w) * h);
    for (uint32_t y = 0; y < h && now.Planes[i]; ++y)
      std::memcpy(same.P[i].data() + y * w, now.Planes[i] + int64_t(y) * pitch, w);
  }
  const VelmoEncodeResult still = run.Frame(same, false, 1500);
  EXPECT_EQ(still.PlannedError, 0u);
  EXPECT_EQ(still.Kinds[Velmo1Skip], 8u * 6 + 2 * 4u * 3);
  EXPECT_EQ(still.Kinds[Velmo1Doubled], 0u);
  EXPECT_LT(still.Section.size(), first.Section.size() / 4);
}

// One colour is the value of least squared error, the mean, not the middle sample: blocks of
// six rows of 100 and two of 200 at no budget (each block at its cheapest point, one colour;
// one row of blocks, so none is merged into a 16x16 block) come back as 125 everywhere.
TEST(Velmo1Encoder, OneColourBlocksTakeTheMean) {
  EncodeRun run({24, 8, 101, 0});
  Picture pic = MakeEncoderPicture(24, 8, Flat, 0);
  for (uint32_t y = 0; y < 8; ++y)
    for (uint32_t x = 0; x < 24; ++x) pic.P[0][y * 24 + x] = y >= 6 ? 200 : 100;
  const VelmoEncodeResult r = run.Frame(pic, true, 0);
  EXPECT_EQ(r.Kinds[Velmo1Doubled], 0u);
  const VelmoFrameBuffers& ring = *VelmoEncoderPicture(run.E);
  const uint8_t* luma = ring.Sets[ring.Current].Planes[0];
  for (uint32_t y = 0; y < 8; ++y)
    for (uint32_t x = 0; x < 24; ++x) ASSERT_EQ(luma[y * ring.LumaPitch + x], 125) << x << " " << y;
}

// Sums a result's block counts over all kinds.
uint32_t BlockCount(const VelmoEncodeResult& r) {
  uint32_t n = 0;
  for (uint32_t k : r.Kinds) n += k;
  return n;
}

TEST(Velmo1Encoder, SmoothAreasTakeDoubledBlocksOfIntraSubKinds) {
  // A large, smooth gradient with a few sharp edges: at a tight budget, 16x16 blocks win.
  EncodeRun run({128, 96, 101, 0});
  Picture pic = MakeEncoderPicture(128, 96, Gradient, 0);
  const VelmoEncodeResult r = run.Frame(pic, true, 600);
  EXPECT_GT(r.Kinds[Velmo1Doubled], 10u);
  uint32_t subs = 0;
  for (uint32_t k = 0; k < 10; ++k) subs += r.DoubledKinds[k];
  EXPECT_EQ(subs, r.Kinds[Velmo1Doubled]);
  for (uint32_t k : {0u, 1u, 2u, 4u, 7u})
    EXPECT_EQ(r.DoubledKinds[k], 0u) << k;  // only intra sub-kinds
  // Every 16x16 block stands for four 8x8 places: the counts add up to the plane's blocks.
  const uint32_t places = BlockCount(r) + 3 * r.Kinds[Velmo1Doubled];
  EXPECT_EQ(places, 16u * 12 + 2 * 8u * 6);
  // With bytes to spare the same picture keeps more of its 8x8 blocks.
  EncodeRun rich({128, 96, 101, 0});
  const VelmoEncodeResult r2 = rich.Frame(pic, true, 40000);
  EXPECT_LT(r2.Kinds[Velmo1Doubled], r.Kinds[Velmo1Doubled]);
}

TEST(Velmo1Encoder, RunAndResidueBlocksUnlessLeftOut) {
  // Stripes of a few levels: runs along a scan code them exactly; motion with noise takes
  // residues. The lists of the format's first encoders, kept for comparisons, offer neither.
  for (const bool asked : {true, false}) {
    EncodeRun run({96, 64, 101, asked ? 0u : uint32_t(VelmoEncodeNoRunOrResidue)});
    Picture pic = MakeEncoderPicture(96, 64, Shapes, 0);
    for (uint32_t y = 0; y < 64; ++y)
      for (uint32_t x = 0; x < 96; ++x)
        pic.P[0][y * 96 + x] = uint8_t(((x / 3 + y) % 5) * 40 + (x > 48 ? 7 : 0));
    uint32_t runs = 0, residues = 0;
    for (int t = 0; t < 4; ++t) {
      // Small noise added frame by frame on the moving shapes: motion plus small residues.
      Picture next = pic;
      std::mt19937 rng{uint32_t(t)};
      for (uint32_t y = 0; y < 64; ++y)
        for (uint32_t x = 0; x < 96; ++x)
          next.P[0][y * 96 + x] = uint8_t(next.P[0][y * 96 + x] + int(rng() % 3) - 1 + t);
      const VelmoEncodeResult r = run.Frame(t == 0 ? pic : next, t == 0, 3000 + 2000 * t);
      runs += r.Kinds[Velmo1Run] + r.DoubledKinds[Velmo1Run];
      residues += r.Kinds[Velmo1Motz];
    }
    if (asked) {
      EXPECT_GT(runs, 0u);
      EXPECT_GT(residues, 0u);
    } else {
      EXPECT_EQ(runs, 0u);
      EXPECT_EQ(residues, 0u);
    }
  }
}

TEST(Velmo1Encoder, KeyFramesDecodeWithoutThePreviousPicture) {
  EncodeRun run({80, 48, 101, 0});
  std::vector<std::vector<uint8_t>> sections;
  for (int t = 0; t < 4; ++t) {
    Picture pic = MakeEncoderPicture(80, 48, t < 2 ? Shapes : Noise, t, 7);  // a scene cut at t = 2
    sections.push_back(run.Frame(pic, t == 2, 6000).Section);
  }
  // A fresh reader starting at the key frame gets the same picture.
  Reader late(*VelmoEncoderPicture(run.E));
  late.Decode(sections[2], run.Flags, 0, run.Tag);
  late.Decode(sections[3], run.Flags, 0, run.Tag);
  ExpectSamePicture(*VelmoEncoderPicture(run.E), late.Ring);
}

TEST(Velmo1Encoder, AlphaPlanesConstantAndCoded) {
  for (uint32_t version : {100u, 101u}) {
    EncodeRun run({64, 32, version, VelmoEncodeAlpha});
    Picture pic = MakeEncoderPicture(64, 32, Shapes, 0);
    VelmoEncodeResult r = run.Frame(pic, true, 8000);
    EXPECT_GT(r.Sizes[3], 8u);
    EXPECT_LT(Psnr(r.Errors[3], 64 * 32), 99.0 + 1);
    std::fill(pic.P[3].begin(), pic.P[3].end(), uint8_t(200));
    r = run.Frame(pic, false, 8000);
    EXPECT_EQ(r.Errors[3], 0u);
    if (version == 101) {
      EXPECT_EQ(r.Sizes[3], 4u);  // the flag bit, the value, padding
    }
  }
}

TEST(Velmo1Encoder, GrayscaleCodesNoChroma) {
  EncodeRun gray({40, 24, 100, VelmoEncodeGrayscale});
  Picture pic = MakeEncoderPicture(40, 24, Gradient, 0);
  const VelmoEncodeResult r = gray.Frame(pic, true, 3000);
  EXPECT_EQ(r.Sizes[1], 0u);
  EXPECT_EQ(r.Sizes[2], 0u);
}

TEST(Velmo1Encoder, ThreadCountDoesNotChangeTheStream) {
  std::vector<uint8_t> streams[2];
  const uint32_t threads[2] = {1, 4};
  for (int k = 0; k < 2; ++k) {
    PoolSetThreads(threads[k]);
    EncodeRun run({96, 64, 101, 0});
    for (int t = 0; t < 3; ++t) {
      Picture pic = MakeEncoderPicture(96, 64, Shapes, t);
      const VelmoEncodeResult r = run.Frame(pic, t == 0, 3000);
      streams[k].insert(streams[k].end(), r.Section.begin(), r.Section.end());
    }
  }
  PoolSetThreads(0);
  EXPECT_EQ(streams[0], streams[1]);
}

namespace {

// The statistics file's fields of one line, by name.
std::map<std::string, std::string> StatsFields(const std::string& line) {
  std::map<std::string, std::string> fields;
  std::istringstream in(line);
  for (std::string item; in >> item;) {
    const size_t eq = item.find('=');
    if (eq != std::string::npos) fields[item.substr(0, eq)] = item.substr(eq + 1);
  }
  return fields;
}

}  // namespace

// With ORN_VELMO1_STATS naming a file, each frame appends a line per plane whose bytes are the
// plane's, whose blocks cover the plane, and whose bundle bits fit in it; without, nothing.
TEST(Velmo1Encoder, StatisticsFileAccountsForEveryPlaneAndBlock) {
  test_support::ScratchDir dir;
  const std::string path = dir / "bits.txt";
  ASSERT_EQ(setenv("ORN_VELMO1_STATS", path.c_str(), 1), 0);
  std::vector<VelmoEncodeResult> results;
  {
    EncodeRun run({96, 64, 101, 0});
    for (int t = 0; t < 2; ++t) {
      Picture pic = MakeEncoderPicture(96, 64, Shapes, t);
      results.push_back(run.Frame(pic, t == 0, 3000));
    }
  }
  unsetenv("ORN_VELMO1_STATS");
  std::ifstream in(path);
  std::vector<std::map<std::string, std::string>> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(StatsFields(line));
  ASSERT_EQ(lines.size(), 6u);  // two frames of Y, Cr, Cb
  const char* planes[3] = {"Y", "Cr", "Cb"};
  const uint32_t blocks[3] = {12 * 8, 6 * 4, 6 * 4};  // 8x8 blocks of 96x64 and its chroma
  for (size_t i = 0; i < lines.size(); ++i) {
    auto& f = lines[i];
    const size_t frame = i / 3, plane = i % 3;
    SCOPED_TRACE(testing::Message() << "frame " << frame << " plane " << plane);
    EXPECT_EQ(f["frame"], std::to_string(frame));
    EXPECT_EQ(f["key"], frame == 0 ? "1" : "0");
    EXPECT_EQ(f["plane"], planes[plane]);
    EXPECT_EQ(f["bytes"], std::to_string(results[frame].Sizes[plane]));
    EXPECT_EQ(f["sse"], std::to_string(results[frame].PictureErrors[plane]));
    uint32_t covered = 0;
    uint64_t bundleBits = 0;
    for (const auto& [name, value] : f) {
      const bool k8 = name.rfind("k8.", 0) == 0, k16 = name.rfind("k16.", 0) == 0;
      const bool bundle = name.rfind("bundle.", 0) == 0;
      if (!k8 && !k16 && !bundle) continue;
      const uint32_t first = uint32_t(std::stoul(value.substr(0, value.find('/'))));
      covered += k8 ? first : k16 ? 4 * first : 0;
      bundleBits += bundle ? first : 0;
    }
    EXPECT_EQ(covered, blocks[plane]);
    EXPECT_LE(bundleBits, 8ull * results[frame].Sizes[plane]);
  }
  // Off again: the file stays as it is.
  EncodeRun run({96, 64, 101, 0});
  Picture pic = MakeEncoderPicture(96, 64, Shapes, 0);
  run.Frame(pic, true, 3000);
  std::ifstream again(path);
  size_t count = 0;
  for (std::string line; std::getline(again, line);) ++count;
  EXPECT_EQ(count, 6u);
}
