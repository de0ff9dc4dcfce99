// Opening inputs: the type table, sizes, scaling, crop, lists and series; Velmo files through the
// reader library (built with the container's writer functions, their frames not real pictures,
// which the decoder survives). Ranges and rates are tested with the frames they pick.
#include <cstring>
#include <sstream>
#include <tuple>

#include "media/media.h"
#include "media_test_util.h"
#include "support/stdin_file.h"
#include "support/velmo_file.h"
#include "support/wave.h"

namespace {

using namespace media_test;
using test_support::WriteFile;
using test_support::WriteWave16;

using OpenTest = MediaTest;

// A y4m stream of `frames` flat 4 × 2 pictures at 25 a second, each brighter than the last.
std::string FlatY4m(int frames) {
  std::string y4m = "YUV4MPEG2 W4 H2 F25:1\n";
  for (int frame = 0; frame < frames; ++frame)
    y4m += "FRAME\n" + std::string(8, char(40 + 80 * frame)) + std::string(4, char(128));
  return y4m;
}

// What an opened input says of its source, in one line.
std::string Source(const MediaInput* in) {
  std::ostringstream s;
  s << in->type_name << " " << in->source_width << "x" << in->source_height << ", "
    << in->source_frames << " frames at " << in->file_rate_num << "/" << in->file_rate_den
    << (in->has_sound ? ", sound" : "");
  return s.str();
}

// ---- The type table -------------------------------------------------------------------------

// Each row opens its files by extension, or without one by content; a bar number behind the
// name is cut off. Every frame the source has is delivered.
TEST_F(OpenTest, TypeTableRowsGiveTheSourceAndItsFrames) {
  ASSERT_TRUE(WritePng(dir / "a.png", 7, 5, 1));
  ASSERT_TRUE(WriteImage(dir / "clip.bmp", IMAGE_FORMAT_BMP, 4, 4, Pattern(4, 4, 1)));
  WriteWave16(dir / "s.wav", 8000, 2, std::vector<int16_t>(2 * 8000 * 2));  // two seconds
  const std::string y4m = FlatY4m(2);
  WriteText(dir / "a.y4m", y4m);
  WriteText(dir / "stream.dat", y4m);
  velmo_test::FilePlan velmo;
  velmo.Width = 32;
  velmo.Height = 16;
  velmo.Frames = 6;
  velmo.Rate = 24;
  WriteFile(dir / "clip.vlm", velmo_test::BuildFile(velmo));
  const struct {
    const char *name, *file;
    uint32_t type;
    const char* source;
  } rows[] = {
      {"a.png", "a.png", MediaTypePng, "PNG still image 7x5, 1 frames at 15/1"},
      {"a.png|12", "a.png", MediaTypePng, "PNG still image 7x5, 1 frames at 15/1"},
      {"clip", "clip.bmp", MediaTypeBmp, "BMP still image 4x4, 1 frames at 15/1"},
      {"s.wav", "s.wav", MediaTypeSoundOnly, "Sound-only 4x4, 31 frames at 15/1, sound"},  // 2 s × 15 + 1
      {"a.y4m", "a.y4m", MediaTypeY4m, "YUV4MPEG2 4x2, 2 frames at 25/1"},
      {"stream.dat", "stream.dat", MediaTypeY4m, "YUV4MPEG2 4x2, 2 frames at 25/1"},
      {"clip.vlm", "clip.vlm", MediaTypeVelmo, "Velmo 1 32x16, 6 frames at 24/1"},
  };
  for (const auto& r : rows) {
    SCOPED_TRACE(r.name);
    MediaInput* in = Open(dir / r.name);
    ASSERT_NE(in, nullptr) << (Log.Messages().empty() ? "" : Log.Messages().back().text);
    EXPECT_EQ(in->type, r.type);
    EXPECT_EQ(in->file_name, dir / r.file);
    EXPECT_EQ(Source(in), r.source);
    EXPECT_EQ(FrameTags(in, 50).size(), in->source_frames);
    if (r.type == MediaTypeSoundOnly) {
      EXPECT_EQ(OutPixel(in, 3, 3), 0u);
    }
    MediaClose(in);
  }
  // Without an extension the wave row comes before the still rows.
  WriteWave16(dir / "clip.wav", 8000, 1, std::vector<int16_t>(8000));
  MediaInput* in = Open(dir / "clip");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeSoundOnly);
  MediaClose(in);
  // A still's output is the source's size in rows of whole groups of 4 pixels, at 15 a second.
  in = Open(dir / "a.png");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::tuple(in->output_width, in->output_height, in->output_pitch, in->output_frames,
                       in->frame_period, in->has_alpha),
            std::tuple(7u, 5u, 8u * 4, 1u, -6666, 0u));
  EXPECT_STREQ(in->title, "Processing");
  EXPECT_GT(in->total_bytes, 0u);
  MediaClose(in);
  // The y4m frames come in turn, each brighter; the size is the reader's count of the file.
  in = Open(dir / "a.y4m");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->total_bytes, y4m.size());
  ASSERT_TRUE(NextFrame(in));
  const uint32_t dark = OutPixel(in, 1, 1) & 0xFF;
  ASSERT_TRUE(NextFrame(in));
  EXPECT_GT(OutPixel(in, 1, 1) & 0xFF, dark + 80);
  MediaClose(in);
  // A range of a Velmo file skips frames at the first read.
  MediaOpenArgs args{};
  args.start = 2;
  args.end = 4;
  in = Open(dir / "clip.vlm", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->source_frames, 3u);
  EXPECT_EQ(FrameTags(in, 20).size(), 3u);
  MediaClose(in);
}

TEST_F(OpenTest, StandardInputIsReadAsAY4mPipe) {
  WriteText(dir / "pipe.y4m", FlatY4m(3));
  test_support::StdinFromFile input(dir / "pipe.y4m");
  ASSERT_TRUE(input.ok());
  MediaInput* in = Open("-");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeY4m);
  std::vector<uint32_t> blues;
  while (!in->at_end && blues.size() < 10) {
    ASSERT_TRUE(NextFrame(in));
    blues.push_back(OutPixel(in, 0, 0) & 0xFF);
  }
  // The pipe's end is seen right behind its last frame: no frame repeats it.
  ASSERT_EQ(blues.size(), 3u);
  EXPECT_LT(blues[0], blues[1]);
  EXPECT_LT(blues[1], blues[2]);
  MediaClose(in);
}

TEST_F(OpenTest, FailuresAreReportedAtLevelTwo) {
  ASSERT_TRUE(WritePng(dir / "a.png", 4, 4, 1));
  WriteText(dir / "junk.xyz", "nothing that any reader knows");
  WriteText(dir / "film.mov", "not a movie");
  // A bitmap under a PNG name: the matched extension fails and content is not tried.
  ASSERT_TRUE(WriteImage(dir / "real.bmp", IMAGE_FORMAT_BMP, 4, 4, Pattern(4, 4, 1)));
  ASSERT_EQ(rename((dir / "real.bmp").c_str(), (dir / "fake.png").c_str()), 0);
  WriteText(dir / "empty.lst", "# nothing\n\n");
  WriteText(dir / "bad.lst", "missing.avi\n");
  WriteText(dir / "self.lst", "self.lst\n");  // a list that holds itself ends
  WriteText(dir / "bad.vlm", std::string(200, 'x'));
  // Files whose head names their format but whose body is damaged: the message says why.
  ASSERT_TRUE(WritePng(dir / "whole.png", 64, 64, 3));
  WriteText(dir / "cut.png", test_support::ReadText(dir / "whole.png").substr(0, 40));
  WriteText(dir / "zero.y4m", "YUV4MPEG2 W0 H16 F25:1\nFRAME\n");
  WriteText(dir / "huge.y4m", "YUV4MPEG2 W99999 H99999 F25:1\nFRAME\n");
  struct Case {
    std::string name;
    uint32_t flags;
    std::string said;
    bool reason = false;  // a reason follows the name after a blank line
  } cases[] = {
      {"cut.png", 0, "Error opening: " + dir / "cut.png" + "\n\n", true},
      {"zero.y4m", 0, "Error opening: " + dir / "zero.y4m" + "\n\n", true},
      {"huge.y4m", 0, "Error opening: " + dir / "huge.y4m" + "\n\n", true},
      {"none.png", 0, "File not found: " + dir / "none.png"},
      {"junk.xyz", 0, "Error opening: " + dir / "junk.xyz"},
      {"film.mov", 0, "You specified an MP4 or QuickTime video file"},
      {"fake.png", 0, "Error opening: " + dir / "fake.png"},
      {"a.png", 2, "/Z0"},  // palette output is refused
      {"none.lst", 0, "Error opening: " + dir / "none.lst"},
      {"empty.lst", 0, "No files in the list file."},
      {"bad.lst", 0, "File not found"},
      {"self.lst", 0, ""},
      {"bad.vlm", 0, "Error opening: " + dir / "bad.vlm"},
  };
  for (const Case& c : cases) {
    Log.Clear();
    MediaOpenArgs args{};
    args.flags = c.flags;
    EXPECT_EQ(Open(dir / c.name, args), nullptr) << c.name;
    if (!c.said.empty()) {
      EXPECT_TRUE(Log.Said(c.said, MediaLevelError)) << c.name;
    }
    bool reasonGiven = false;
    for (const auto& m : Log.Messages())
      if (m.level == MediaLevelError && m.text.find("\n\n") != std::string::npos)
        reasonGiven = m.text.size() > m.text.find("\n\n") + 2;
    if (c.reason) {
      EXPECT_TRUE(reasonGiven) << c.name;
    }
  }
}

TEST_F(OpenTest, AlphaOnlyFromFilesThatCarryItWhenAskedFor) {
  ASSERT_TRUE(WriteImage(dir / "rgba.png", IMAGE_FORMAT_PNG, 4, 4, Pattern(4, 4, 9, 128), true));
  ASSERT_TRUE(WriteImage(dir / "rgb.png", IMAGE_FORMAT_PNG, 4, 4, Pattern(4, 4, 9), false));
  MediaOpenArgs args{};
  args.flags = MediaOpenAlpha | MediaOpenPremultiply | MediaOpenUnpremultiply;
  for (const uint32_t alpha : {1u, 0u}) {
    MediaInput* in = Open(dir / (alpha ? "rgba.png" : "rgb.png"), args);
    ASSERT_NE(in, nullptr) << alpha;
    // Nothing to premultiply without alpha.
    EXPECT_EQ(std::tuple(in->has_alpha, in->input_depth, in->premultiply),
              std::tuple(alpha, alpha ? 32u : 24u, alpha));
    if (!alpha) {
      EXPECT_EQ(in->unpremultiply, 0u);
    }
    MediaClose(in);
  }
  // The alpha plane is delivered only when asked for.
  for (const uint32_t flags : {0u, uint32_t(MediaOpenAlpha)}) {
    args.flags = flags;
    MediaInput* in = Open(dir / "rgba.png", args);
    ASSERT_NE(in, nullptr);
    ASSERT_TRUE(NextFrame(in));
    EXPECT_EQ(OutPixel(in, 1, 2), PatternPixel(9, 1, 2, flags ? 128 : 0)) << flags;
    MediaClose(in);
  }
}

// ---- Scaling and crop -------------------------------------------------------------------------

TEST_F(OpenTest, ScaleRequests) {
  ASSERT_TRUE(WritePng(dir / "a.png", 64, 48, 1));
  struct Case {
    int32_t w, h;
    uint32_t sw, sh;
  } cases[] = {
      {-1, 24, 32, 24},   {-1, -1, 64, 48},  {0, 0, 64, 48},    {100, 0, 100, 48},
      {-2, -3, 128, 144}, {-1500, -1, 32, 24}, {-2500, -1, 96, 72}, {20, -1, 20, 15}, {-1001, -1001, 1, 1},
  };
  for (const Case& c : cases) {
    MediaOpenArgs args{};
    args.scale_w = c.w;
    args.scale_h = c.h;
    MediaInput* in = Open(dir / "a.png", args);
    ASSERT_NE(in, nullptr);
    const bool scaling = c.sw != 64 || c.sh != 48;
    EXPECT_EQ(std::tuple(in->scaled_width, in->scaled_height, in->output_width, in->input_depth),
              std::tuple(c.sw, c.sh, c.sw, scaling ? 32u : 24u))
        << c.w << " " << c.h;
    MediaClose(in);
  }
}

// The window and padding a crop request comes to, and the pixels it delivers: the source's
// inside the picture, black beyond it.
TEST_F(OpenTest, CropWindowPaddingAndPixels) {
  ASSERT_TRUE(WritePng(dir / "a.png", 20, 10, 1));
  struct Case {
    int32_t x, y, w, h;
    int32_t cropX, cropY;
    uint32_t visibleW, visibleH;
    int32_t left, top, right, bottom;
  } cases[] = {
      {0, 0, 0, 0, 0, 0, 20, 10, 0, 0, 0, 0},
      {2, 3, 5, 4, 2, 3, 5, 4, 0, 0, 0, 0},
      {-4, -2, 8, 6, 0, 0, 4, 4, -4, -2, 0, 0},
      {16, 8, 8, 4, 16, 8, 4, 2, 0, 0, 4, 2},
      {30, 0, 8, 4, 0, 0, 0, 4, 0, 0, 8, 0},  // wholly right of the picture
      {-2, -2, 24, 14, 0, 0, 20, 10, -2, -2, 2, 2},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(testing::Message() << c.x << "," << c.y << " " << c.w << "x" << c.h);
    MediaOpenArgs args{};
    args.crop_x = c.x;
    args.crop_y = c.y;
    args.crop_w = c.w;
    args.crop_h = c.h;
    MediaInput* in = Open(dir / "a.png", args);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(std::tuple(in->crop_x, in->crop_y, in->visible_width, in->visible_height,
                         in->pad_left, in->pad_top, in->pad_right, in->pad_bottom),
              std::tuple(c.cropX, c.cropY, c.visibleW, c.visibleH, c.left, c.top, c.right, c.bottom));
    const int32_t w = c.w ? c.w : 20, h = c.h ? c.h : 10;
    ASSERT_EQ(std::tuple(in->output_width, in->output_height), std::tuple(uint32_t(w), uint32_t(h)));
    ASSERT_TRUE(NextFrame(in));
    for (int32_t y = 0; y < h; ++y)
      for (int32_t x = 0; x < w; ++x) {
        const int32_t sx = x + c.x, sy = y + c.y;
        const bool inside = sx >= 0 && sx < 20 && sy >= 0 && sy < 10;
        ASSERT_EQ(OutPixel(in, x, y), inside ? PatternPixel(1, sx, sy, 0) : 0u) << x << "," << y;
      }
    MediaClose(in);
  }
}

TEST_F(OpenTest, MultipleOf32Flag) {
  ASSERT_TRUE(WritePng(dir / "a.png", 70, 40, 1));
  MediaOpenArgs args{};
  args.flags = MediaOpenMultiple32;
  MediaInput* in = Open(dir / "a.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::tuple(in->output_width, in->output_height), std::tuple(64u, 32u));
  MediaClose(in);
  args.crop_w = 10;
  in = Open(dir / "a.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->output_width, 32u);  // under 32 first gets 31 added
  MediaClose(in);
}

// ---- Lists and series -----------------------------------------------------------------------

// A list counts the frames of every entry, stills after the first without opening them, and
// takes the largest size of the entries it opens: the first, and lists. A series runs over its
// range, up or down, or while its files exist.
TEST_F(OpenTest, ListsAndSeriesCountTheirFrames) {
  Series(5, 8, 6);
  ASSERT_TRUE(WritePng(dir / "wide.png", 16, 4, 9));
  const struct {
    const char *name, *text;  // text: the list file's, or none for a series
    uint32_t width, height, frames;
  } cases[] = {
      {"l.lst", "f???.png*1-3\nwide.png\n", 8, 6, 4},
      {"m.lst", "wide.png\nf???.png*1-3\n", 16, 4, 4},
      {"n.lst", "f001.png\nm.lst\n", 16, 6, 5},
      {"s.lst", "f001.png\nnot_there.png\nalso_missing.jpg\n", 8, 6, 3},
      {"f???.png*2-4", nullptr, 8, 6, 3},
      {"f???.png", nullptr, 8, 6, 5},
      {"f???.png*4-1", nullptr, 8, 6, 4},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.name);
    if (c.text) WriteText(dir / c.name, c.text);
    MediaInput* in = Open(dir / c.name);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(in->type, MediaTypeList);
    EXPECT_EQ(std::tuple(in->source_width, in->source_height, in->output_frames),
              std::tuple(c.width, c.height, c.frames));
    MediaClose(in);
  }
}

// A start beyond the input's frames is held to them, and said once as a warning.
TEST_F(OpenTest, StartBeyondTheFramesIsHeldAndSaid) {
  Series(3);
  const struct {
    int32_t start;
    uint32_t skipped;
    const char* said;
  } cases[] = {{5, 2, "/S5: the input has only 3 frames, so it starts at its last frame."},
               {-7, 0, "/S-7: the input has only 3 frames, so it starts at its first frame."},
               {3, 2, nullptr},
               {-3, 0, nullptr}};
  for (const auto& c : cases) {
    Log.Clear();
    MediaOpenArgs args{};
    args.start = c.start;
    MediaInput* in = Open(SeriesName(3), args);
    ASSERT_NE(in, nullptr) << c.start;
    EXPECT_EQ(in->skip_frames, c.skipped) << c.start;
    EXPECT_EQ(Log.CountLevel(MediaLevelWarning), c.said ? 1 : 0) << c.start;
    if (c.said) {
      EXPECT_TRUE(Log.Said(c.said, MediaLevelWarning)) << c.start;
    }
    MediaClose(in);
  }
}

TEST_F(OpenTest, CancelWhileOpeningAList) {
  ASSERT_TRUE(WritePng(dir / "a.png", 8, 6, 1));
  WriteText(dir / "l.lst", "a.png\na.png\n");
  Log.answer = [](const char* text, int) { return strncmp(text, "Opening", 7) == 0 ? 1 : 0; };
  EXPECT_EQ(Open(dir / "l.lst"), nullptr);
}

TEST_F(OpenTest, SingleNumberedNameBecomesItsSeriesWhenTheAnswerIsYes) {
  Series(5);
  MediaOpenArgs args{};
  args.flags = MediaOpenAskSequence;
  Log.answer = [](const char*, int level) { return level == MediaLevelQuestion ? 1 : 0; };
  MediaInput* in = Open(dir / "f003.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(std::tuple(in->type, in->output_frames), std::tuple(uint32_t(MediaTypeList), 5u));
  EXPECT_TRUE(Log.Said("appears to be part of a sequence of files (1 to 5)", MediaLevelQuestion));
  MediaClose(in);

  Log.answer = nullptr;  // no: the single file
  in = Open(dir / "f003.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypePng);
  MediaClose(in);

  Log.Clear();  // without the flag nobody is asked
  in = Open(dir / "f003.png");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(Log.CountLevel(MediaLevelQuestion), 0);
  MediaClose(in);
}

TEST_F(OpenTest, AskSequenceLeavesLoneFilesAlone) {
  ASSERT_TRUE(WritePng(dir / "shot7.png", 4, 4, 1));
  char name[MediaNameBytes];
  snprintf(name, sizeof name, "%s", (dir / "shot7.png").c_str());
  EXPECT_FALSE(MediaAskSequence(name, sizeof name, Log.Sink()));
  EXPECT_EQ(Log.CountLevel(MediaLevelQuestion), 0);
  EXPECT_EQ(std::string(name), dir / "shot7.png");
}

}  // namespace
