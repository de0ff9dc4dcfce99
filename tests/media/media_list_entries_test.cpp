// Lists and series opened for real: every input type gives the same frames inside a list as
// alone, a series that is short of files says so, and a folder stands for the series in it.
#include <sys/stat.h>

#include <algorithm>
#include <cstring>

#include "avi_test_util.h"
#include "media_test_util.h"
#include "support/stream_files.h"
#include "support/velmo_file.h"

namespace {

using namespace media_test;
using Picture = std::vector<uint32_t>;
using test_support::WriteFile;

constexpr int W = 16, H = 16;

// Every frame the input delivers, as its output pixels.
std::vector<Picture> ReadAll(MediaInput* input, size_t limit = 200) {
  std::vector<Picture> frames;
  while (!input->at_end && frames.size() < limit) {
    if (!NextFrame(input)) break;
    Picture p;
    for (uint32_t y = 0; y < input->output_height; ++y)
      for (uint32_t x = 0; x < input->output_width; ++x) p.push_back(OutPixel(input, x, y));
    frames.push_back(std::move(p));
  }
  return frames;
}

// A palette of `shade`-tinted ramps, different for every `shade`.
test_support::FlicPalette Palette(int shade) {
  test_support::FlicPalette p{};
  for (int i = 0; i < 256; ++i) {
    p[size_t(i) * 3] = uint8_t(i);
    p[size_t(i) * 3 + 1] = uint8_t(shade * 60 + i / 2);
    p[size_t(i) * 3 + 2] = uint8_t(255 - i);
  }
  return p;
}

std::vector<uint8_t> Indices(int frame) {
  std::vector<uint8_t> pixels(size_t(W) * H);
  for (int y = 0; y < H; ++y)
    for (int x = 0; x < W; ++x) pixels[size_t(y) * W + size_t(x)] = uint8_t((x * 13 + y * 7 + frame * 40) & 255);
  return pixels;
}

class ListEntries : public MediaTest {
 protected:
  // One file of every input type that this program reads itself, each W × H.
  void MakeEntries() {
    ASSERT_TRUE(WritePng(dir / "still.png", W, H, 1));
    for (const auto& [name, format, tag] : {std::tuple{"still.tga", IMAGE_FORMAT_TGA, 2},
                                            std::tuple{"still.bmp", IMAGE_FORMAT_BMP, 3},
                                            std::tuple{"still.tif", IMAGE_FORMAT_TIFF, 4},
                                            std::tuple{"still.jpg", IMAGE_FORMAT_JPEG, 5},
                                            std::tuple{"still.exr", IMAGE_FORMAT_EXR, 6}})
      ASSERT_TRUE(WriteImage(dir / name, format, W, H, Pattern(W, H, uint32_t(tag))));
    for (int i = 1; i <= 3; ++i) ASSERT_TRUE(WritePng(dir / ("s00" + std::to_string(i) + ".png"), W, H, 20 + i));
    MakeGif();
    std::vector<test_support::FlicFrame> flic;
    for (int f = 0; f < 3; ++f) flic.push_back({Indices(f), Palette(f)});
    WriteFile(dir / "clip.flc", test_support::FlicFile(W, H, flic, 40));
    std::vector<test_support::FlicFrame> raw;
    for (int f = 0; f < 2; ++f) raw.push_back({Indices(f + 7), Palette(f + 2)});
    WriteFile(dir / "clip.raw", test_support::RawFramesFile(W, H, raw, 50));
    std::vector<std::vector<uint8_t>> y4m;
    for (int f = 0; f < 2; ++f) {
      std::vector<uint8_t> planes(size_t(W) * H * 3);
      for (size_t i = 0; i < planes.size(); ++i) planes[i] = uint8_t(40 + (i * 5 + size_t(f) * 30) % 170);
      y4m.push_back(planes);
    }
    WriteText(dir / "clip.y4m", test_support::Y4mFile(W, H, y4m));
    avi_test::AviSpec avi;
    avi.width = W, avi.height = H;
    for (int f = 0; f < 3; ++f) {
      std::vector<uint8_t> bgr(size_t(W) * H * 3);
      for (size_t i = 0; i < bgr.size(); ++i) bgr[i] = uint8_t(i * 3 + size_t(f) * 50);
      avi.frames.push_back(bgr);
    }
    WriteFile(dir / "clip.avi", avi_test::BuildAvi(avi).file);
    velmo_test::FilePlan velmo;
    velmo.Width = W, velmo.Height = H, velmo.Frames = 4, velmo.Rate = 24;
    WriteFile(dir / "clip.vlm", velmo_test::BuildFile(velmo));
  }
  void MakeGif() {
    ImageGifWriter* writer = ImageGifWriterOpen(W, H, 0, nullptr);
    ASSERT_NE(writer, nullptr);
    for (int f = 0; f < 4; ++f) {
      uint32_t palette[256];
      const test_support::FlicPalette p = Palette(f + 1);
      for (int i = 0; i < 256; ++i)
        palette[i] = 0xFF000000u | uint32_t(p[size_t(i) * 3]) << 16 | uint32_t(p[size_t(i) * 3 + 1]) << 8 |
                     p[size_t(i) * 3 + 2];
      const std::vector<uint8_t> indices = Indices(f + 3);
      const ImageGifFrame frame{indices.data(), W, palette, 8, 1, -1, 0, 0, 0, 0, 0};
      ASSERT_EQ(ImageGifWriterAddFrame(writer, &frame, nullptr), 1);
    }
    ASSERT_EQ(ImageGifWriterFinish(writer, (dir / "anim.gif").c_str(), nullptr, nullptr, nullptr), 1);
  }
  std::vector<Picture> Alone(const std::string& name) {
    MediaInput* in = Open(dir / name);
    EXPECT_NE(in, nullptr) << name;
    if (!in) return {};
    std::vector<Picture> frames = ReadAll(in);
    EXPECT_EQ(frames.size(), in->output_frames) << name;
    MediaClose(in);
    return frames;
  }
};

bool ShowsSomething(const std::vector<Picture>& frames) {
  for (const Picture& p : frames)
    for (uint32_t v : p)
      if (v & 0xFFFFFF) return true;
  return false;
}

// Each entry's frames in the list are the frames it gives alone, in order; animated and palette
// entries after the first among them.
TEST_F(ListEntries, EveryTypeGivesTheSameFramesInAListAsAlone) {
  MakeEntries();
  const std::vector<std::string> entries = {"still.png", "anim.gif", "clip.flc", "clip.y4m", "clip.avi",
                                            "clip.vlm",  "still.tga", "still.bmp", "still.tif", "still.jpg", "clip.raw",
                                            "s00?.png*1-3", "anim.gif", "clip.flc", "still.exr"};
  std::string text;
  for (const std::string& e : entries) text += e + "\n";
  WriteText(dir / "all.lst", text);

  std::vector<Picture> expected;
  std::vector<size_t> ends;  // where each entry's frames end in the list
  for (const std::string& e : entries) {
    std::vector<std::string> names = {e};
    if (e.find('?') != std::string::npos) names = {"s001.png", "s002.png", "s003.png"};
    for (const std::string& name : names) {
      if (name == "still.exr") {
        // Float pictures come out of a list of 32-bit frames as 32-bit pixels, 1.0 giving 255.
        Picture picture = Pattern(W, H, 6);
        for (uint32_t& v : picture) v &= 0xFFFFFF;
        expected.push_back(picture);
        continue;
      }
      const std::vector<Picture> alone = Alone(name);
      EXPECT_FALSE(alone.empty()) << name;
      EXPECT_TRUE(ShowsSomething(alone) || name == "clip.vlm") << name << " alone is black";
      expected.insert(expected.end(), alone.begin(), alone.end());
    }
    ends.push_back(expected.size());
  }
  ASSERT_EQ(Alone("anim.gif").size(), 4u);
  ASSERT_EQ(Alone("clip.flc").size(), 3u);
  ASSERT_EQ(Alone("clip.raw").size(), 2u);

  MediaInput* list = Open(dir / "all.lst");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->type, uint32_t(MediaTypeList));
  EXPECT_EQ(list->output_width, uint32_t(W));
  EXPECT_EQ(list->output_height, uint32_t(H));
  EXPECT_EQ(list->output_frames, expected.size());
  const std::vector<Picture> got = ReadAll(list);
  MediaClose(list);
  ASSERT_EQ(got.size(), expected.size());
  size_t from = 0;
  for (size_t e = 0; e < entries.size(); ++e) {
    for (size_t f = from; f < ends[e]; ++f) EXPECT_TRUE(got[f] == expected[f]) << entries[e] << ", list frame " << f;
    from = ends[e];
  }
}

// A list of several stills, each named on its own line, gives every still's own picture (the
// stills after the first are counted at the open without being opened, and opened when their
// frame is read), also with a start, a doubled rate, a rewind, a repeated line, and read ahead.
TEST_F(ListEntries, EveryStillOfAListGivesItsOwnPicture) {
  ASSERT_TRUE(WritePng(dir / "a.png", W, H, 1));
  ASSERT_TRUE(WriteImage(dir / "b.bmp", IMAGE_FORMAT_BMP, W, H, Pattern(W, H, 2)));
  ASSERT_TRUE(WritePng(dir / "c.png", W, H, 3));
  ASSERT_TRUE(WriteImage(dir / "d.jpg", IMAGE_FORMAT_JPEG, W, H, Pattern(W, H, 200)));
  WriteText(dir / "stills.lst", "a.png\nb.bmp\nc.png\nd.jpg\n");
  WriteText(dir / "repeat.lst", "a.png\nc.png /L2\nb.bmp\n");
  // The red tag; the JPEG's is near 200.
  auto tags = [](MediaInput* in) {
    std::vector<uint32_t> t = FrameTags(in);
    for (uint32_t& v : t) v = v > 100 ? 200 : v;
    return t;
  };
  const std::vector<uint32_t> all = {1, 2, 3, 200};
  MediaInput* in = Open(dir / "stills.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->output_frames, 4u);
  EXPECT_EQ(tags(in), all);
  ASSERT_TRUE(MediaRewind(in));
  EXPECT_EQ(tags(in), all) << "after a rewind";
  MediaClose(in);

  MediaOpenArgs from2{};
  from2.start = 2;
  in = Open(dir / "stills.lst", from2);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(tags(in), (std::vector<uint32_t>{2, 3, 200}));
  MediaClose(in);

  MediaOpenArgs doubled{};
  doubled.adjust_num = 30, doubled.adjust_den = 1;
  in = Open(dir / "stills.lst", doubled);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(tags(in), (std::vector<uint32_t>{1, 1, 2, 2, 3, 3, 200, 200}));
  MediaClose(in);

  in = Open(dir / "repeat.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(tags(in), (std::vector<uint32_t>{1, 3, 3, 2}));
  MediaClose(in);

  in = Open(dir / "stills.lst");
  ASSERT_NE(in, nullptr);
  MediaReadAhead* ahead = MediaReadAheadStart(in, &MediaNoFilters);
  ASSERT_NE(ahead, nullptr);
  std::vector<uint32_t> read;
  bool end = false;
  const uint8_t* pixels = nullptr;
  while (!end && read.size() < 10 && MediaReadAheadNext(ahead, &pixels, &end))
    read.push_back((reinterpret_cast<const uint32_t*>(pixels)[0] >> 16) & 255);
  MediaReadAheadStop(ahead);
  MediaClose(in);
  for (uint32_t& v : read) v = v > 100 ? 200 : v;
  EXPECT_EQ(read, all) << "read ahead";
}

// A list of float pictures only keeps them as floats: the same four floats a pixel as alone.
TEST_F(ListEntries, FloatEntriesStayFloatInAListOfThem) {
  std::vector<std::vector<float>> alone;
  for (int tag = 1; tag <= 2; ++tag) {
    const std::string name = "f" + std::to_string(tag) + ".exr";
    ASSERT_TRUE(WriteImage(dir / name, IMAGE_FORMAT_EXR, W, H, Pattern(W, H, uint32_t(tag * 50))));
    MediaInput* in = Open(dir / name);
    ASSERT_NE(in, nullptr);
    ASSERT_EQ(in->float_frames, 1u);
    ASSERT_TRUE(NextFrame(in));
    const float* f = reinterpret_cast<const float*>(in->output_buffer);
    alone.emplace_back(f, f + size_t(W) * H * 4);
    EXPECT_FLOAT_EQ(alone.back()[0], float(tag * 50) / 255.0f) << "red holds the tag";
    MediaClose(in);
  }
  WriteText(dir / "floats.lst", "f1.exr\nf2.exr\n");
  MediaInput* list = Open(dir / "floats.lst");
  ASSERT_NE(list, nullptr);
  EXPECT_EQ(list->float_frames, 1u);
  for (const std::vector<float>& want : alone) {
    ASSERT_TRUE(NextFrame(list));
    const float* f = reinterpret_cast<const float*>(list->output_buffer);
    EXPECT_TRUE(std::equal(want.begin(), want.end(), f));
  }
  MediaClose(list);
}

// A closed range with files missing gives the files there are and says how many of how many;
// one with no file at all fails the open and names the series.
TEST_F(ListEntries, ShortSeriesAreSaidAndEmptyOnesFail) {
  Series(5);
  ASSERT_EQ(unlink((dir / "f002.png").c_str()), 0);
  MediaInput* in = Open(SeriesName(7));
  ASSERT_NE(in, nullptr);
  EXPECT_TRUE(Log.Said("Only 4 of the 7 files of the series " + SeriesName(7) + " were found.", MediaLevelWarning));
  EXPECT_EQ(in->output_frames, 4u);
  EXPECT_EQ(FrameTags(in), (std::vector<uint32_t>{1, 3, 4, 5}));
  MediaClose(in);

  Log.Clear();
  in = Open(SeriesName(4));
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1) << "3 of 4";
  MediaClose(in);

  Log.Clear();
  in = Open(SeriesName(5).substr(0, SeriesName(5).size() - 3) + "2-5");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1) << "the missing first file counts too";
  MediaClose(in);

  // Inside a list, beside other entries.
  Log.Clear();
  WriteText(dir / "short.lst", "f001.png\nf???.png*1-9\n");
  in = Open(dir / "short.lst");
  ASSERT_NE(in, nullptr);
  EXPECT_TRUE(Log.Said("Only 4 of the 9 files", MediaLevelWarning));
  EXPECT_EQ(FrameTags(in), (std::vector<uint32_t>{1, 1, 3, 4, 5}));
  MediaClose(in);

  // Complete series say nothing.
  Log.Clear();
  in = Open(dir / "f00?.png*3-5");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  MediaClose(in);

  for (const std::string& none : {dir / "g???.png*1-6", dir / "g???.png"}) {
    Log.Clear();
    EXPECT_EQ(Open(none), nullptr) << none;
    EXPECT_TRUE(Log.Said("No file of the series " + none + " was found.", MediaLevelError)) << none;
  }
  WriteText(dir / "none.lst", "f001.png\ng???.png*1-3\n");
  Log.Clear();
  EXPECT_EQ(Open(dir / "none.lst"), nullptr);
  EXPECT_TRUE(Log.Said("No file of the series " + dir / "g???.png*1-3", MediaLevelError));
}

// A folder of numbered pictures given as the input is their series; files and folders beside
// them that are no series do not matter.
TEST_F(ListEntries, AFolderIsTheSeriesInIt) {
  ASSERT_EQ(mkdir((dir / "frames").c_str(), 0755), 0);
  ASSERT_EQ(mkdir((dir / "frames/sub1").c_str(), 0755), 0);
  WriteText(dir / "frames/notes.txt", "not a picture");
  WriteText(dir / "frames/a1 cover.txt", "a numbered name that sorts first but has no series");
  for (int i = 1; i <= 12; ++i) {
    char name[32];
    snprintf(name, sizeof name, "frames/img%03d.png", i);
    ASSERT_TRUE(WritePng(dir / name, 8, 6, uint32_t(i * 10)));
  }
  std::vector<uint32_t> tags;
  for (int i = 1; i <= 12; ++i) tags.push_back(uint32_t(i * 10));
  for (const std::string& folder : {dir / "frames", dir / "frames/"}) {
    MediaInput* in = Open(folder);
    ASSERT_NE(in, nullptr) << folder;
    EXPECT_EQ(in->type, uint32_t(MediaTypeList));
    EXPECT_EQ(FrameTags(in), tags) << folder;
    MediaClose(in);
  }
  ASSERT_EQ(mkdir((dir / "empty").c_str(), 0755), 0);
  Log.Clear();
  EXPECT_EQ(Open(dir / "empty"), nullptr);
  EXPECT_TRUE(Log.Said("No numbered series of files in the folder " + dir / "empty", MediaLevelError));
}

}  // namespace
