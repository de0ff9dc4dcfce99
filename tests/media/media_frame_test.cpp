// Reading frames: rate conversion, ranges, crop and pad, lists, stages, cancel, crash guards
// and read-ahead.
#include <signal.h>

#include <algorithm>
#include <cstring>
#include <tuple>

#include "media/media.h"
#include "media_test_util.h"
#include "support/stream_files.h"

// The guard's own fault handler must see the injected faults under AddressSanitizer too.
extern "C" const char* __asan_default_options() { return "allow_user_segv_handler=1:handle_segv=1"; }

namespace {

using namespace media_test;

using FrameTest = MediaTest;

std::vector<uint32_t> Tags(std::initializer_list<uint32_t> list) { return list; }

// ---- Frame order, rates and ranges ------------------------------------------------------------

// A ten-frame series at 15 frames a second under ranges (from 1, negative from the end) and
// forced and adjusted rates: the frames skipped and left, the rates, the frames given, and which
// frames they are where listed. An adjusted rate that would leave no frame is not taken.
TEST_F(FrameTest, RangesAndRatesPickTheFrames) {
  Series(10);
  const struct {
    int32_t start, end, forceNum, forceDen, adjustNum, adjustDen;
    uint32_t skip, source, in[2], out[2], frames;
    std::vector<uint32_t> tags;  // empty: not read
  } cases[] = {
      {0, 0, 0, 0, 0, 0, 0, 10, {15, 1}, {15, 1}, 10, {1, 2, 3, 4, 5, 6, 7, 8, 9, 10}},
      {3, 5, 0, 0, 0, 0, 2, 3, {15, 1}, {15, 1}, 3, {3, 4, 5}},
      {-3, 0, 0, 0, 0, 0, 7, 3, {15, 1}, {15, 1}, 3, {8, 9, 10}},
      {-2, 0, 0, 0, 0, 0, 8, 2, {15, 1}, {15, 1}, 2, {9, 10}},
      {5, 2, 0, 0, 0, 0, 4, 1, {15, 1}, {15, 1}, 1, {5}},
      {20, 0, 0, 0, 0, 0, 9, 1, {15, 1}, {15, 1}, 1, {10}},
      {-20, 0, 0, 0, 0, 0, 0, 10, {15, 1}, {15, 1}, 10, {}},
      {2, -2, 0, 0, 0, 0, 1, 8, {15, 1}, {15, 1}, 8, {2, 3, 4, 5, 6, 7, 8, 9}},
      {10, 10, 0, 0, 0, 0, 9, 1, {15, 1}, {15, 1}, 1, {10}},
      {0, 0, 30, 1, 0, 0, 0, 10, {30, 1}, {30, 1}, 10, {}},
      {0, 0, 0, 0, 30, 1, 0, 10, {15, 1}, {30, 1}, 20, {}},
      {0, 3, 0, 0, 30, 1, 0, 3, {15, 1}, {30, 1}, 6, {1, 1, 2, 2, 3, 3}},  // double rate repeats
      {0, 0, 0, 0, 15, 2, 0, 10, {15, 1}, {15, 2}, 5, {}},
      {0, 7, 0, 0, 15, 2, 0, 7, {15, 1}, {15, 2}, 3, {1, 3, 5}},  // half rate drops every other
      {0, 6, 30, 1, 20, 1, 0, 6, {30, 1}, {20, 1}, 4, {1, 2, 4, 5}},  // three to two pulls evenly
      {0, 0, 20, 2, 5, 1, 0, 10, {10, 1}, {5, 1}, 5, {}},
      {0, 0, 0, 0, 1, 100, 0, 10, {15, 1}, {15, 1}, 10, {}},
      {0, 0, 0, 0, 30000, 1001, 0, 10, {15, 1}, {30000, 1001}, 19, {}},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << "range " << c.start << " to " << c.end << ", rate " << c.forceNum
                                    << "/" << c.forceDen << " adjusted " << c.adjustNum << "/" << c.adjustDen);
    MediaOpenArgs args{};
    args.start = c.start;
    args.end = c.end;
    args.force_num = c.forceNum;
    args.force_den = c.forceDen;
    args.adjust_num = c.adjustNum;
    args.adjust_den = c.adjustDen;
    MediaInput* in = Open(SeriesName(10), args);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(std::tuple(in->skip_frames, in->source_frames, in->total_frames), std::tuple(c.skip, c.source, 10u));
    EXPECT_EQ(std::tuple(in->input_rate_num, in->input_rate_den, in->output_rate_num, in->output_rate_den),
              std::tuple(c.in[0], c.in[1], c.out[0], c.out[1]));
    EXPECT_EQ(in->output_frames, c.frames);
    EXPECT_EQ(in->frame_period, -int32_t(uint64_t(c.out[1]) * 100000 / c.out[0]));
    std::vector<uint32_t> tags;
    while (!c.tags.empty() && !in->at_end && tags.size() < 20) {
      ASSERT_TRUE(NextFrame(in));
      tags.push_back((OutPixel(in, 0, 0) >> 16) & 255);
      // The end comes with the last output frame, not with the last source frame.
      EXPECT_EQ(in->at_end != 0, tags.size() == c.tags.size());
    }
    EXPECT_EQ(tags, c.tags);
    if (c.adjustNum == 0) {
      EXPECT_EQ(in->frames_read, tags.size());  // one source frame each
    }
    MediaClose(in);
  }
}

// ---- Lists ------------------------------------------------------------------------------------

TEST_F(FrameTest, ListRepeatsLinesAndWalksSeriesLines) {
  Series(3);
  ASSERT_TRUE(WritePng(dir / "x.png", 8, 6, 50));
  WriteText(dir / "l.lst", "# the opening\nx.png /L2\n\n  f???.png*1-3 /S2  \n\"x.png\"\n");
  MediaInput* in = Open(dir / "l.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::tuple(in->type, std::string(in->type_name), in->source_frames, in->output_frames),
            std::tuple(uint32_t(MediaTypeList), "List", 5u, 5u));
  EXPECT_TRUE(Log.Said("Opening " + dir / "x.png...", MediaLevelStatus));
  EXPECT_EQ(FrameTags(in), Tags({50, 50, 2, 3, 50}));
  MediaClose(in);
}

TEST_F(FrameTest, ListStartSkipsWholeEntriesAndEntersTheNext) {
  Series(6);
  WriteText(dir / "a.lst", "f???.png*1-6\n");
  WriteText(dir / "l.lst", "f001.png\na.lst\nf002.png\n");  // 1 + 6 + 1 frames
  MediaOpenArgs args{};
  args.start = 4;
  MediaInput* in = Open(dir / "l.lst", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->source_frames, 5u);
  EXPECT_EQ(FrameTags(in), Tags({3, 4, 5, 6, 2}));
  MediaClose(in);
}

TEST_F(FrameTest, ListEntriesOfOtherSizesLieAtTheCropPositionOnBlack) {
  ASSERT_TRUE(WritePng(dir / "big.png", 8, 6, 1));
  ASSERT_TRUE(WritePng(dir / "small.png", 4, 2, 2));
  WriteText(dir / "l.lst", "big.png\nsmall.png\nbig.png\n");
  MediaOpenArgs args{};
  args.crop_x = 1;
  args.crop_y = 1;
  MediaInput* in = Open(dir / "l.lst", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::tuple(in->output_width, in->output_height), std::tuple(8u, 6u));
  const uint32_t tags[] = {1, 2, 1}, widths[] = {8, 4, 8}, heights[] = {6, 2, 6};
  for (int k = 0; k < 3; ++k) {
    ASSERT_TRUE(NextFrame(in));
    for (uint32_t y = 0; y < 6; ++y)
      for (uint32_t x = 0; x < 8; ++x) {
        const bool inside = x + 1 < widths[k] && y + 1 < heights[k];
        ASSERT_EQ(OutPixel(in, x, y), inside ? PatternPixel(tags[k], x + 1, y + 1, 0) : 0u) << k << ": " << x << "," << y;
      }
  }
  MediaClose(in);
}

TEST_F(FrameTest, ContrastIsNotAppliedToListsButBrightnessIs) {
  ASSERT_TRUE(WritePng(dir / "a.png", 4, 4, 100));
  WriteText(dir / "l.lst", "a.png\n");
  const uint32_t plain = PatternPixel(100, 2, 2, 0);
  for (auto [contrast, brightness] : {std::pair{100u, 100u}, {0u, 50u}}) {
    MediaInput* single = Open(dir / "a.png");
    MediaInput* list = Open(dir / "l.lst");
    ASSERT_NE(single, nullptr);
    ASSERT_NE(list, nullptr);
    ASSERT_TRUE(MediaGetFrame(single, 0, 0, contrast, brightness, 1.0, 0));
    ASSERT_TRUE(MediaGetFrame(list, 0, 0, contrast, brightness, 1.0, 0));
    EXPECT_NE(OutPixel(single, 2, 2), plain) << contrast;
    EXPECT_EQ(OutPixel(list, 2, 2), contrast ? plain : OutPixel(single, 2, 2)) << contrast;
    MediaClose(single);
    MediaClose(list);
  }
}

// ---- Crop, pad, scaling and stages ------------------------------------------------------------

TEST_F(FrameTest, ScalingDeliversTheAskedSize) {
  ASSERT_TRUE(WriteImage(dir / "flat.png", IMAGE_FORMAT_PNG, 8, 6,
                         std::vector<uint32_t>(48, 0xFF406080u)));
  MediaOpenArgs args{};
  args.scale_w = 16;
  args.scale_h = -1;
  MediaInput* in = Open(dir / "flat.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::tuple(in->output_width, in->output_height), std::tuple(16u, 12u));
  ASSERT_TRUE(NextFrame(in));
  for (uint32_t y = 0; y < 12; y += 5)
    for (uint32_t x = 0; x < 16; x += 3) EXPECT_EQ(OutPixel(in, x, y), 0x00406080u);
  MediaClose(in);
}

TEST_F(FrameTest, GammaBelowTheThresholdRunsNoStage) {
  ASSERT_TRUE(WritePng(dir / "a.png", 4, 4, 100));
  MediaInput* in = Open(dir / "a.png");
  ASSERT_NE(in, nullptr);
  ASSERT_TRUE(MediaGetFrame(in, 0, 0, 0, 100, 1.0 / 1.0001, 0));
  EXPECT_EQ(in->work_buffer[0], nullptr);  // straight from the reader to the output
  EXPECT_EQ(OutPixel(in, 3, 1), PatternPixel(100, 3, 1, 0));
  MediaClose(in);
  in = Open(dir / "a.png");
  ASSERT_TRUE(MediaGetFrame(in, 0, 0, 0, 100, 0.5, 0));
  EXPECT_NE(OutPixel(in, 3, 1), PatternPixel(100, 3, 1, 0));
  MediaClose(in);
}

// A planar input's own planes stand for the output frame only while nothing in the pipeline
// changes the picture: a filter, smoothing, scaling or a crop each take them away.
TEST_F(FrameTest, PlanesOfAPlanarInputWhileNothingChangesThePicture) {
  std::string y4m = "YUV4MPEG2 W6 H4 F25:1 C444alpha\n";
  for (uint32_t f = 0; f < 2; ++f) {
    y4m += "FRAME\n";
    for (uint32_t i = 0; i < 6 * 4 * 4; ++i) y4m += char(uint8_t(f * 50 + i * 3));
  }
  WriteText(dir / "in.y4m", y4m);
  const size_t data = y4m.find("FRAME\n") + 6;
  MediaOpenArgs alpha{};
  alpha.flags = MediaOpenAlpha;
  MediaInput* in = Open(dir / "in.y4m", alpha);
  ASSERT_NE(in, nullptr);
  MediaPlanes planes{};
  EXPECT_FALSE(MediaFramePlanes(in, &planes)) << "no frame read yet";
  ASSERT_TRUE(NextFrame(in));
  ASSERT_TRUE(MediaFramePlanes(in, &planes));
  EXPECT_EQ(std::tuple(planes.width, planes.chroma_shift, planes.full_range), std::tuple(6u, 0u, 0u));
  for (int p = 0; p < 4; ++p) {
    ASSERT_NE(planes.plane[p], nullptr) << p;
    EXPECT_EQ(0, std::memcmp(planes.plane[p], y4m.data() + data + size_t(p) * 24, 24)) << p;
  }
  ASSERT_TRUE(MediaGetFrame(in, 0, 0, 0, 120, 1.0, 0));  // brightness: a stage ran
  EXPECT_FALSE(MediaFramePlanes(in, &planes));
  MediaClose(in);

  in = Open(dir / "in.y4m");
  ASSERT_NE(in, nullptr);
  ASSERT_TRUE(MediaGetFrame(in, 0, 0x1000100u * 50, 0, 100, 1.0, 0));  // smoothing
  EXPECT_FALSE(MediaFramePlanes(in, &planes));
  ASSERT_TRUE(NextFrame(in));
  ASSERT_TRUE(MediaFramePlanes(in, &planes)) << "the next plain frame has them again";
  EXPECT_EQ(planes.plane[3], nullptr) << "alpha was not asked for";
  EXPECT_EQ(uint8_t(planes.plane[0][0]), 50);
  MediaClose(in);

  for (const bool crop : {false, true}) {
    MediaOpenArgs args{};
    (crop ? args.crop_w : args.scale_w) = 4;
    in = Open(dir / "in.y4m", args);
    ASSERT_NE(in, nullptr);
    ASSERT_TRUE(NextFrame(in));
    EXPECT_FALSE(MediaFramePlanes(in, &planes)) << (crop ? "cropped" : "scaled");
    MediaClose(in);
  }
  ASSERT_TRUE(WritePng(dir / "a.png", 4, 4, 1));
  in = Open(dir / "a.png");
  ASSERT_TRUE(NextFrame(in));
  EXPECT_FALSE(MediaFramePlanes(in, &planes)) << "a PNG holds no planes";
  MediaClose(in);
}

// The planes of the frame at hand, row by row without padding: Y, Cb, Cr, then alpha if given.
std::vector<uint8_t> PlaneBytes(const MediaPlanes& p) {
  std::vector<uint8_t> bytes;
  for (int i = 0; i < 4; ++i) {
    if (!p.plane[i]) continue;
    const bool chroma = i == 1 || i == 2;
    const uint32_t w = chroma ? (p.width + p.chroma_shift) >> p.chroma_shift : p.width;
    const uint32_t h = chroma ? (p.height + p.chroma_shift) >> p.chroma_shift : p.height;
    for (uint32_t y = 0; y < h; ++y)
      bytes.insert(bytes.end(), p.plane[i] + ptrdiff_t(y) * p.pitch[i], p.plane[i] + ptrdiff_t(y) * p.pitch[i] + w);
  }
  return bytes;
}

// One frame as the caller saw it: the planes when it got them, and the output picture.
struct SeenFrame {
  bool planar = false;
  std::vector<uint8_t> planes;
  std::vector<uint8_t> picture;
  bool operator==(const SeenFrame&) const = default;
};

// Reads every frame with the filter arguments `brightness[f]` (100: none).
std::vector<SeenFrame> ReadSeen(MediaInput* in, bool preferPlanes, const std::vector<uint32_t>& brightness) {
  MediaPreferPlanes(in, preferPlanes);
  std::vector<SeenFrame> seen;
  while (!in->at_end && seen.size() < brightness.size()) {
    if (!MediaGetFrame(in, 0, 0, 0, brightness[seen.size()], 1.0, 0)) break;
    SeenFrame f;
    MediaPlanes planes{};
    f.planar = MediaFramePlanes(in, &planes);
    if (f.planar) f.planes = PlaneBytes(planes);
    f.picture.assign(in->output_buffer, in->output_buffer + in->output_buffer_bytes);
    seen.push_back(std::move(f));
  }
  return seen;
}

// A caller that prefers planes gets the same planes as one that does not, for 4:2:0, 4:4:4 and
// 4:4:4 with alpha at odd sizes, without the picture being made; a frame that a filter changes
// is made as a picture all the same, the same picture as without the preference.
TEST_F(FrameTest, PlanesAloneAreThePlanesOfTheWholePath) {
  const struct {
    const char* chroma;
    int width, height;
    bool halfChroma, alpha;
  } forms[] = {{"420jpeg", 7, 5, true, false}, {"420mpeg2", 33, 18, true, false},
               {"444", 9, 3, false, false},    {"444alpha", 5, 7, false, true}};
  for (const auto& form : forms) {
    SCOPED_TRACE(form.chroma);
    const size_t luma = size_t(form.width) * form.height;
    const size_t chroma = form.halfChroma ? size_t((form.width + 1) / 2) * ((form.height + 1) / 2) : luma;
    std::vector<std::vector<uint8_t>> frames;
    for (uint32_t f = 0; f < 4; ++f) {
      std::vector<uint8_t> planes(luma * (form.alpha ? 2 : 1) + 2 * chroma);
      for (size_t i = 0; i < planes.size(); ++i) planes[i] = uint8_t(16 + (i * 37 + f * 91 + i * i) % 224);
      frames.push_back(planes);
    }
    const std::string name = dir / (std::string(form.chroma) + ".y4m");
    WriteText(name, test_support::Y4mFile(form.width, form.height, frames, form.chroma));
    MediaOpenArgs args{};
    args.flags = form.alpha ? MediaOpenAlpha : 0;
    const std::vector<uint32_t> plain = {100, 100, 100, 100}, filtered = {100, 100, 120, 100};
    std::vector<SeenFrame> got[2][2];
    for (int prefer = 0; prefer < 2; ++prefer)
      for (int filter = 0; filter < 2; ++filter) {
        MediaInput* in = Open(name, args);
        ASSERT_NE(in, nullptr);
        got[prefer][filter] = ReadSeen(in, prefer != 0, filter ? filtered : plain);
        MediaClose(in);
        ASSERT_EQ(got[prefer][filter].size(), frames.size());
      }
    for (size_t f = 0; f < frames.size(); ++f) {
      SCOPED_TRACE(f);
      const SeenFrame& whole = got[0][0][f];
      const SeenFrame& alone = got[1][0][f];
      ASSERT_TRUE(whole.planar);
      ASSERT_TRUE(alone.planar);
      EXPECT_EQ(alone.planes, whole.planes);
      std::vector<uint8_t> expected(frames[f].begin(), frames[f].begin() + ptrdiff_t(luma + 2 * chroma));
      if (form.alpha) expected.insert(expected.end(), frames[f].begin() + ptrdiff_t(luma + 2 * chroma), frames[f].end());
      EXPECT_EQ(alone.planes, expected);
      // The picture was not made: the buffer is as it was allocated, black.
      EXPECT_TRUE(std::all_of(alone.picture.begin(), alone.picture.end(), [](uint8_t v) { return v == 0; }));
      EXPECT_FALSE(std::all_of(whole.picture.begin(), whole.picture.end(), [](uint8_t v) { return v == 0; }));
      // With a filter on frame 2, that frame is a picture, and the same one either way.
      EXPECT_EQ(got[1][1][f].planar, f != 2);
      if (f == 2) EXPECT_EQ(got[1][1][f].picture, got[0][1][f].picture);
    }
  }
}

TEST_F(FrameTest, FloatPipelineForOpenExr) {
  std::vector<float> pixels(4 * 3 * 4);
  for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = float(i % 4 == 3 ? 1.0 : i * 0.125);
  ImagePixels p = {pixels.data(), 4 * 16, 4, 3, IMAGE_PIXELS_FLOAT};
  ImageWriteParams params = {IMAGE_FORMAT_EXR, 1, 0, 0};
  ASSERT_TRUE(ImageWriteFile((dir / "a.exr").c_str(), &params, &p, nullptr));
  MediaOpenArgs args{};
  args.flags = MediaOpenAlpha;
  MediaInput* in = Open(dir / "a.exr", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::tuple(in->type, in->float_frames, in->peak_value, in->output_pitch),
            std::tuple(uint32_t(MediaTypeExr), 1u, 10000u, 4u * 16));
  ASSERT_TRUE(NextFrame(in));
  const float* out = reinterpret_cast<const float*>(in->output_buffer + in->output_pitch * 2);
  EXPECT_FLOAT_EQ(out[4 * 3 + 0], pixels[(2 * 4 + 3) * 4 + 0]);
  EXPECT_FLOAT_EQ(out[4 * 3 + 2], pixels[(2 * 4 + 3) * 4 + 2]);
  EXPECT_FLOAT_EQ(out[4 * 3 + 3], 1.0f);
  MediaClose(in);
}

// ---- Cancel -----------------------------------------------------------------------------------

TEST_F(FrameTest, CancelThroughProgress) {
  Series(3);
  MediaInput* in = Open(SeriesName(3));
  ASSERT_NE(in, nullptr);
  ASSERT_TRUE(NextFrame(in));
  Log.answer = [](const char* text, int) { return strstr(text, " frame ") ? 1 : 0; };
  EXPECT_FALSE(NextFrame(in));
  EXPECT_EQ(in->output_index, 1u);  // nothing was read after the cancel
  MediaClose(in);
}

// ---- Crash guards -----------------------------------------------------------------------------

// A test reader: five 4 × 4 frames tagged 1 to 5; frames in `Crashing` fault inside the read.
uint32_t Crashing = 0;  // bit n: frame n faults
struct TestReaderState {
  uint32_t next;
  uint32_t pixels[16];
};

bool ProbeTest(MediaInput* in) {
  in->reader_state = calloc(1, sizeof(TestReaderState));
  in->type = MediaTypeTest;
  snprintf(in->type_name, sizeof in->type_name, "Test");
  in->source_width = in->source_height = 4;
  in->source_frames = 5;
  in->file_rate_num = 15;
  in->file_rate_den = 1;
  in->input_depth = 32;
  return in->reader_state != nullptr;
}

// A real fault where no sanitizer watches memory; under the sanitizers the same signal is raised
// directly, since their instrumentation would report the bad store before it faults.
#if defined(__has_feature)
#if __has_feature(address_sanitizer) || __has_feature(undefined_behavior_sanitizer)
#define MEDIA_TEST_RAISE 1
#endif
#endif
#if defined(__SANITIZE_ADDRESS__)
#define MEDIA_TEST_RAISE 1
#endif

__attribute__((noinline)) void Fault() {
#ifdef MEDIA_TEST_RAISE
  raise(SIGSEGV);
#else
  static volatile uintptr_t address = 16;  // no page is ever mapped there
  *reinterpret_cast<volatile int*>(address) = 1;
#endif
}

bool ReadTest(MediaInput* in) {
  TestReaderState* s = static_cast<TestReaderState*>(in->reader_state);
  const uint32_t frame = ++s->next;
  in->frame_base = reinterpret_cast<uint8_t*>(s->pixels);
  in->frame_pitch = 16;
  in->frame_depth = 32;
  in->frame_width = in->frame_height = 4;
  for (uint32_t i = 0; i < 16; ++i) s->pixels[i] = frame << 16;
  if (Crashing & (1u << frame)) {
    s->pixels[0] = 0xFFFFFFFF;  // half written when the fault hits
    Fault();
  }
  return true;
}

void CloseTest(MediaInput* in) {
  free(in->reader_state);
  in->reader_state = nullptr;
}

const MediaReaderOps TestOps = {"Test", MediaGuardStill, ProbeTest, ReadTest, nullptr, nullptr, CloseTest};

class CrashTest : public FrameTest {
 protected:
  void SetUp() override {
    FrameTest::SetUp();
    MediaClearAddedRows();
    ASSERT_TRUE(MediaAddReaderRow(".crashtest", &TestOps));
    MediaResetCrashWarnings();
    WriteText(dir / "a.crashtest", "x");
  }
  void TearDown() override {
    MediaClearAddedRows();
    Crashing = 0;
    FrameTest::TearDown();
  }
};

// A fault inside the read keeps the frame before (black before the first), and warns once.
TEST_F(CrashTest, FaultingReaderKeepsThePreviousFrameAndWarnsOnce) {
  Crashing = 1u << 1 | 1u << 3 | 1u << 4;
  MediaInput* in = Open(dir / "a.crashtest");
  ASSERT_NE(in, nullptr);
  EXPECT_STREQ(in->type_name, "Test");
  ASSERT_TRUE(NextFrame(in));
  EXPECT_EQ(std::tuple(OutPixel(in, 0, 0), OutPixel(in, 3, 3)), std::tuple(0u, 0u));
  EXPECT_EQ(FrameTags(in), Tags({2, 2, 2, 5}));
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  EXPECT_TRUE(Log.Said("Crashed while reading this file (possibly corrupted)!!", MediaLevelWarning));
  int crashLines = 0;
  for (const auto& m : Log.Messages()) crashLines += m.text == "Crash while reading input file...";
  EXPECT_EQ(crashLines, 3);
  MediaClose(in);
}

TEST_F(CrashTest, FaultOutsideAGuardIsNotSwallowed) {
  EXPECT_DEATH(Fault(), "");
}

// ---- Read-ahead -------------------------------------------------------------------------------

TEST_F(FrameTest, ReadAheadGivesTheSameFramesAsReadingInTurn) {
  Series(6, 12, 10);
  MediaOpenArgs args{};
  args.adjust_num = 25;
  args.adjust_den = 1;
  args.crop_x = -2;
  args.crop_y = 1;
  args.crop_w = 12;
  args.crop_h = 8;
  args.scale_w = 16;
  MediaInput* plain = Open(SeriesName(6), args);
  MediaInput* ahead = Open(SeriesName(6), args);
  ASSERT_NE(plain, nullptr);
  ASSERT_NE(ahead, nullptr);
  const MediaFrameArgs filters = {0, 0, 20, 90, 0.8, 4};
  MediaReadAhead* reader = MediaReadAheadStart(ahead, &filters);
  ASSERT_NE(reader, nullptr);
  const size_t bytes = size_t(plain->output_height) * plain->output_pitch;
  uint32_t frames = 0;
  bool end = false;
  while (!end) {
    ASSERT_TRUE(MediaGetFrame(plain, filters.denoise, filters.smooth, filters.contrast,
                              filters.brightness, filters.gamma, filters.black_clamp));
    const uint8_t* pixels = nullptr;
    ASSERT_TRUE(MediaReadAheadNext(reader, &pixels, &end));
    ASSERT_EQ(memcmp(pixels, plain->output_buffer, bytes), 0) << "frame " << frames;
    EXPECT_EQ(end, plain->at_end != 0);
    ++frames;
  }
  EXPECT_EQ(frames, plain->output_frames);
  EXPECT_EQ(frames, 10u);
  MediaReadAheadStop(reader);
  MediaClose(plain);
  MediaClose(ahead);
}

// ---- Two jobs at once -------------------------------------------------------------------------

std::vector<std::string> Texts(const test_support::ProgressLog& log) {
  std::vector<std::string> texts;
  for (const auto& m : log.Messages()) texts.push_back(m.text);
  return texts;
}

// Two inputs read side by side, the second on a read-ahead job's thread, each reporting to a
// log of its own: each log hears its own input's lines and nothing else, and the second job's
// cancel (its answer to frame 5) stops that job alone.
TEST_F(FrameTest, TwoInputsReportToTheirOwnSinks) {
  Series(6);
  for (int i = 1; i <= 6; ++i)
    ASSERT_TRUE(WritePng(dir / ("g00" + std::to_string(i) + ".png"), 8, 6, uint32_t(10 + i)));
  WriteText(dir / "a.lst", "f???.png*1-3\nf???.png*4-6\n");
  test_support::ProgressLog first, second;
  second.answer = [](const char* text, int) { return text && strstr(text, "frame 5 of") ? 1 : 0; };
  MediaOpenArgs a{};
  a.title = "Converting";
  a.progress = first.Sink();
  MediaOpenArgs b{};
  b.title = "Reading";
  b.start = 3;
  b.progress = second.Sink();
  MediaInput* one = MediaOpenWith((dir / "a.lst").c_str(), &a);
  MediaInput* two = MediaOpenWith((dir / "g???.png*1-6").c_str(), &b);
  ASSERT_NE(one, nullptr);
  ASSERT_NE(two, nullptr);
  MediaReadAhead* ahead = MediaReadAheadStart(two, &MediaNoFilters);
  ASSERT_NE(ahead, nullptr);

  std::vector<uint32_t> tagsOne, tagsTwo;
  bool twoGoes = true, twoEnded = false;
  while (!one->at_end) {
    ASSERT_TRUE(NextFrame(one));
    tagsOne.push_back((OutPixel(one, 0, 0) >> 16) & 255);
    if (!twoGoes || twoEnded) continue;
    const uint8_t* pixels = nullptr;
    twoGoes = MediaReadAheadNext(ahead, &pixels, &twoEnded);
    if (twoGoes) tagsTwo.push_back((reinterpret_cast<const uint32_t*>(pixels)[0] >> 16) & 255);
  }
  MediaReadAheadStop(ahead);
  MediaClose(two);
  MediaClose(one);

  EXPECT_EQ(tagsOne, Tags({1, 2, 3, 4, 5, 6}));
  EXPECT_EQ(tagsTwo, Tags({13, 14}));
  EXPECT_FALSE(twoGoes);
  std::vector<std::string> saidFirst, saidSecond;
  for (int i = 1; i <= 6; ++i) {
    saidFirst.push_back("Opening " + dir / ("f00" + std::to_string(i) + ".png..."));
    saidSecond.push_back("Opening " + dir / ("g00" + std::to_string(i) + ".png..."));
  }
  for (int i = 1; i <= 6; ++i) saidFirst.push_back("Converting frame " + std::to_string(i) + " of 6...");
  for (int i = 3; i <= 5; ++i) saidSecond.push_back("Reading frame " + std::to_string(i) + " of 6...");
  EXPECT_EQ(Texts(first), saidFirst);
  EXPECT_EQ(Texts(second), saidSecond);
}

}  // namespace
