// Opening inputs: the type table, sizes, ranges, scaling, crop, rates, lists and series; Velmo
// files through the reader library (built with the container's writer functions, their frames
// not real pictures, which the decoder survives).
#include <cstring>

#include "media/media.h"
#include "media_test_util.h"
#include "reader/velmo_test_files.h"
#include "sound_test_util.h"

namespace {

using namespace media_test;

using OpenTest = MediaTest;

// A 16-bit wave of silence, `seconds` long.
void WriteWave(const std::string& name, uint32_t rate, uint32_t channels, uint32_t seconds) {
  sound_test::WriteWave16(name, rate, channels, std::vector<int16_t>(rate * channels * seconds));
}

// A y4m stream of `frames` flat 4 × 2 pictures at 25 a second, each brighter than the last.
std::string FlatY4m(int frames) {
  std::string y4m = "YUV4MPEG2 W4 H2 F25:1\n";
  for (int frame = 0; frame < frames; ++frame)
    y4m += "FRAME\n" + std::string(8, char(40 + 80 * frame)) + std::string(4, char(128));
  return y4m;
}

// ---- The type table -------------------------------------------------------------------------

TEST_F(OpenTest, PngStillHasItsSizesAndOneFrame) {
  ASSERT_TRUE(WritePng(dir / "a.png", 7, 5, 1));
  MediaInput* in = Open(dir / "a.png");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypePng);
  EXPECT_STREQ(in->type_name, "PNG still image");
  EXPECT_EQ(in->source_width, 7u);
  EXPECT_EQ(in->source_height, 5u);
  EXPECT_EQ(in->output_width, 7u);
  EXPECT_EQ(in->output_height, 5u);
  EXPECT_EQ(in->output_pitch, 8u * 4);  // width rounded up to 4 pixels
  EXPECT_EQ(in->source_frames, 1u);
  EXPECT_EQ(in->output_frames, 1u);
  EXPECT_EQ(in->file_rate_num, 15u);
  EXPECT_EQ(in->file_rate_den, 1u);
  EXPECT_EQ(in->frame_period, -6666);
  EXPECT_EQ(in->has_alpha, 0u);
  EXPECT_STREQ(in->title, "Processing");
  EXPECT_GT(in->total_bytes, 0u);
  MediaClose(in);
}

TEST_F(OpenTest, NameWithoutExtensionFindsTheFirstContentProbeWhoseFileExists) {
  ASSERT_TRUE(WriteImage(dir / "clip.bmp", IMAGE_FORMAT_BMP, 4, 4, Pattern(4, 4, 1)));
  MediaInput* in = Open(dir / "clip");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeBmp);
  EXPECT_STREQ(in->type_name, "BMP still image");
  EXPECT_EQ(in->file_name, dir / "clip.bmp");
  MediaClose(in);
  WriteWave(dir / "clip.wav", 8000, 1, 1);  // the wave row comes first
  in = Open(dir / "clip");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeSoundOnly);
  MediaClose(in);
}

TEST_F(OpenTest, WaveFileIsSoundOnlyWithFramesForItsLength) {
  WriteWave(dir / "s.wav", 8000, 2, 2);
  MediaInput* in = Open(dir / "s.wav");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeSoundOnly);
  EXPECT_STREQ(in->type_name, "Sound-only");
  EXPECT_EQ(in->source_width, 4u);
  EXPECT_EQ(in->source_height, 4u);
  EXPECT_EQ(in->has_sound, 1u);
  EXPECT_EQ(in->source_frames, 31u);  // 2 s × 15 + 1
  ASSERT_TRUE(NextFrame(in));
  EXPECT_EQ(OutPixel(in, 3, 3), 0u);
  MediaClose(in);
}

TEST_F(OpenTest, StreamReadersAreRowsOfTheTable) {
  const std::string y4m = FlatY4m(2);
  WriteText(dir / "a.y4m", y4m);
  MediaInput* in = Open(dir / "a.y4m");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeY4m);
  EXPECT_EQ(in->total_bytes, y4m.size());  // the reader's count of the file
  EXPECT_EQ(in->source_width, 4u);
  EXPECT_EQ(in->source_height, 2u);
  EXPECT_EQ(in->source_frames, 2u);
  EXPECT_EQ(in->file_rate_num, 25u);
  ASSERT_TRUE(NextFrame(in));
  const uint32_t dark = OutPixel(in, 1, 1) & 0xFF;
  ASSERT_TRUE(NextFrame(in));
  EXPECT_GT(OutPixel(in, 1, 1) & 0xFF, dark + 80);
  EXPECT_EQ(in->at_end, 1u);
  MediaClose(in);
  // The same stream under a name without extension is found by its content.
  WriteText(dir / "stream.dat", y4m);
  in = Open(dir / "stream.dat");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeY4m);
  MediaClose(in);
}

TEST_F(OpenTest, VelmoHeaderGivesSizesRateAndFrames) {
  velmo_test::FileSpec file;
  file.Width = 32;
  file.Height = 16;
  file.Frames = 6;
  file.Rate = 24;
  sound_test::WriteBytes(dir / "clip.vlm", velmo_test::BuildFile(file));
  MediaInput* in = Open(dir / "clip.vlm");
  ASSERT_NE(in, nullptr) << (Log.Messages().empty() ? "" : Log.Messages().back().text);
  EXPECT_EQ(in->type, MediaTypeVelmo);
  EXPECT_STREQ(in->type_name, "Velmo 1");
  EXPECT_EQ(in->source_width, 32u);
  EXPECT_EQ(in->source_height, 16u);
  EXPECT_EQ(in->source_frames, 6u);
  EXPECT_EQ(in->file_rate_num, 24u);
  EXPECT_EQ(in->file_rate_den, 1u);
  EXPECT_EQ(in->has_sound, 0u);
  EXPECT_EQ(FrameTags(in, 20).size(), 6u);
  MediaClose(in);
  // A range skips frames at the first read.
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
  const int saved = dup(0);
  FILE* source = fopen((dir / "pipe.y4m").c_str(), "rb");
  ASSERT_NE(source, nullptr);
  ASSERT_EQ(dup2(fileno(source), 0), 0);
  MediaInput* in = Open("-");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeY4m);
  std::vector<uint32_t> blues;
  while (!in->at_end && blues.size() < 10) {
    ASSERT_TRUE(NextFrame(in));
    blues.push_back(OutPixel(in, 0, 0) & 0xFF);
  }
  // The end of a pipe is met by one read too many: that frame repeats the last.
  ASSERT_EQ(blues.size(), 4u);
  EXPECT_LT(blues[0], blues[1]);
  EXPECT_LT(blues[1], blues[2]);
  EXPECT_EQ(blues[2], blues[3]);
  MediaClose(in);
  dup2(saved, 0);
  close(saved);
  fclose(source);
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
  {
    ASSERT_TRUE(WritePng(dir / "whole.png", 64, 64, 3));
    FILE* file = fopen((dir / "whole.png").c_str(), "rb");
    ASSERT_NE(file, nullptr);
    std::string bytes(40, 0);
    ASSERT_EQ(fread(&bytes[0], 1, bytes.size(), file), bytes.size());
    fclose(file);
    WriteText(dir / "cut.png", bytes);
  }
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
    if (c.reason) EXPECT_TRUE(reasonGiven) << c.name;
  }
}

TEST_F(OpenTest, BarNumberBehindTheNameIsCutOff) {
  ASSERT_TRUE(WritePng(dir / "a.png", 4, 4, 1));
  MediaInput* in = Open(dir / "a.png|12");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->file_name, dir / "a.png");
  MediaClose(in);
}

TEST_F(OpenTest, AlphaOnlyFromFilesThatCarryIt) {
  ASSERT_TRUE(WriteImage(dir / "rgba.png", IMAGE_FORMAT_PNG, 4, 4, Pattern(4, 4, 1, 128), true));
  ASSERT_TRUE(WriteImage(dir / "rgb.png", IMAGE_FORMAT_PNG, 4, 4, Pattern(4, 4, 1), false));
  MediaOpenArgs args{};
  args.flags = MediaOpenAlpha | MediaOpenPremultiply | MediaOpenUnpremultiply;
  MediaInput* with = Open(dir / "rgba.png", args);
  MediaInput* without = Open(dir / "rgb.png", args);
  ASSERT_NE(with, nullptr);
  ASSERT_NE(without, nullptr);
  EXPECT_EQ(with->has_alpha, 1u);
  EXPECT_EQ(with->input_depth, 32u);
  EXPECT_EQ(with->premultiply, 1u);
  EXPECT_EQ(without->has_alpha, 0u);
  EXPECT_EQ(without->input_depth, 24u);
  EXPECT_EQ(without->premultiply, 0u);  // nothing to premultiply without alpha
  EXPECT_EQ(without->unpremultiply, 0u);
  MediaClose(with);
  MediaClose(without);
}

// ---- Range, scaling, crop, rates --------------------------------------------------------------

TEST_F(OpenTest, FrameRangeFromStartAndEnd) {
  Series(10);
  struct Case {
    int32_t start, end;
    uint32_t skip, frames;
  } cases[] = {
      {0, 0, 0, 10},   {3, 5, 2, 3},    {-3, 0, 7, 3},   {5, 2, 4, 1},
      {20, 0, 9, 1},   {-20, 0, 0, 10}, {2, -2, 1, 8},   {10, 10, 9, 1},
  };
  for (const Case& c : cases) {
    MediaOpenArgs args{};
    args.start = c.start;
    args.end = c.end;
    MediaInput* in = Open(dir / "f???.png*1-10", args);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(in->skip_frames, c.skip) << c.start << " " << c.end;
    EXPECT_EQ(in->source_frames, c.frames) << c.start << " " << c.end;
    EXPECT_EQ(in->total_frames, 10u);
    MediaClose(in);
  }
}

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
    EXPECT_EQ(in->scaled_width, c.sw) << c.w << " " << c.h;
    EXPECT_EQ(in->scaled_height, c.sh) << c.w << " " << c.h;
    EXPECT_EQ(in->output_width, c.sw);
    const bool scaling = c.sw != 64 || c.sh != 48;
    EXPECT_EQ(in->input_depth, scaling ? 32u : 24u);
    MediaClose(in);
  }
}

TEST_F(OpenTest, CropWindowAndPadding) {
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
    MediaOpenArgs args{};
    args.crop_x = c.x;
    args.crop_y = c.y;
    args.crop_w = c.w;
    args.crop_h = c.h;
    MediaInput* in = Open(dir / "a.png", args);
    ASSERT_NE(in, nullptr);
    SCOPED_TRACE(testing::Message() << c.x << "," << c.y << " " << c.w << "x" << c.h);
    EXPECT_EQ(in->crop_x, c.cropX);
    EXPECT_EQ(in->crop_y, c.cropY);
    EXPECT_EQ(in->visible_width, c.visibleW);
    EXPECT_EQ(in->visible_height, c.visibleH);
    EXPECT_EQ(in->pad_left, c.left);
    EXPECT_EQ(in->pad_top, c.top);
    EXPECT_EQ(in->pad_right, c.right);
    EXPECT_EQ(in->pad_bottom, c.bottom);
    MediaClose(in);
  }
}

TEST_F(OpenTest, MultipleOf32Flag) {
  ASSERT_TRUE(WritePng(dir / "a.png", 70, 40, 1));
  MediaOpenArgs args{};
  args.flags = MediaOpenMultiple32;
  MediaInput* in = Open(dir / "a.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->output_width, 64u);
  EXPECT_EQ(in->output_height, 32u);
  MediaClose(in);
  args.crop_w = 10;
  in = Open(dir / "a.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->output_width, 32u);  // under 32 first gets 31 added
  MediaClose(in);
}

TEST_F(OpenTest, RatesForcedAndAdjusted) {
  Series(10);
  struct Case {
    int32_t fn, fd, an, ad;
    uint32_t inNum, inDen, outNum, outDen, frames;
  } cases[] = {
      {0, 0, 0, 0, 15, 1, 15, 1, 10},     {30, 1, 0, 0, 30, 1, 30, 1, 10},
      {0, 0, 30, 1, 15, 1, 30, 1, 20},    {0, 0, 15, 2, 15, 1, 15, 2, 5},
      {20, 2, 5, 1, 10, 1, 5, 1, 5},      {0, 0, 1, 100, 15, 1, 15, 1, 10},  // would leave 0
      {0, 0, 30000, 1001, 15, 1, 30000, 1001, 19},
  };
  for (const Case& c : cases) {
    MediaOpenArgs args{};
    args.force_num = c.fn;
    args.force_den = c.fd;
    args.adjust_num = c.an;
    args.adjust_den = c.ad;
    MediaInput* in = Open(dir / "f???.png*1-10", args);
    ASSERT_NE(in, nullptr);
    SCOPED_TRACE(testing::Message() << c.fn << "/" << c.fd << " " << c.an << "/" << c.ad);
    EXPECT_EQ(in->input_rate_num, c.inNum);
    EXPECT_EQ(in->input_rate_den, c.inDen);
    EXPECT_EQ(in->output_rate_num, c.outNum);
    EXPECT_EQ(in->output_rate_den, c.outDen);
    EXPECT_EQ(in->output_frames, c.frames);
    EXPECT_EQ(in->frame_period, -int32_t(uint64_t(c.outDen) * 100000 / c.outNum));
    MediaClose(in);
  }
}

// ---- Lists and series -----------------------------------------------------------------------

TEST_F(OpenTest, ListTakesTheLargestEntrySize) {
  Series(3, 8, 6);
  ASSERT_TRUE(WritePng(dir / "wide.png", 16, 4, 9));
  WriteText(dir / "l.lst", "f???.png*1-3\nwide.png\n");
  MediaInput* in = Open(dir / "l.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->source_width, 8u);  // the still behind the first entry is counted, not opened
  EXPECT_EQ(in->output_frames, 4u);
  MediaClose(in);
  WriteText(dir / "m.lst", "wide.png\nf???.png*1-3\n");
  in = Open(dir / "m.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->output_frames, 4u);
  MediaClose(in);
  // A list whose second entry is itself a list opens that entry and merges its size.
  WriteText(dir / "n.lst", "f001.png\nm.lst\n");
  in = Open(dir / "n.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->source_width, 16u);
  EXPECT_EQ(in->source_height, 6u);
  EXPECT_EQ(in->output_frames, 5u);
  MediaClose(in);
}

TEST_F(OpenTest, StillsAfterTheFirstEntryAreCountedWithoutOpening) {
  ASSERT_TRUE(WritePng(dir / "a.png", 8, 6, 1));
  WriteText(dir / "l.lst", "a.png\nnot_there.png\nalso_missing.jpg\n");
  MediaInput* in = Open(dir / "l.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->output_frames, 3u);
  MediaClose(in);
}

TEST_F(OpenTest, CancelWhileOpeningAList) {
  ASSERT_TRUE(WritePng(dir / "a.png", 8, 6, 1));
  WriteText(dir / "l.lst", "a.png\na.png\n");
  Log.answer = [](const char* text, int) { return strncmp(text, "Opening", 7) == 0 ? 1 : 0; };
  EXPECT_EQ(Open(dir / "l.lst"), nullptr);
}

TEST_F(OpenTest, SeriesWithAndWithoutRange) {
  Series(5);
  // A range, an open end that runs while the files exist, and a range downwards.
  for (auto [name, frames] : {std::pair{"f???.png*2-4", 3u}, {"f???.png", 5u}, {"f???.png*4-1", 4u}}) {
    MediaInput* in = Open(dir / name);
    ASSERT_NE(in, nullptr) << name;
    EXPECT_EQ(in->type, MediaTypeList);
    EXPECT_EQ(in->output_frames, frames) << name;
    MediaClose(in);
  }
}

TEST_F(OpenTest, SingleNumberedNameBecomesItsSeriesWhenTheAnswerIsYes) {
  Series(5);
  MediaOpenArgs args{};
  args.flags = MediaOpenAskSequence;
  Log.answer = [](const char*, int level) { return level == MediaLevelQuestion ? 1 : 0; };
  MediaInput* in = Open(dir / "f003.png", args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->type, MediaTypeList);
  EXPECT_EQ(in->output_frames, 5u);
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
