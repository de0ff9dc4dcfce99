// Velmo files as inputs, through the reader library: the file is built with the container's
// writer functions (its frames are not real pictures, which the decoder survives).
#include <cstdio>

#include "media/media.h"
#include "media_test_util.h"
#include "reader/velmo_test_files.h"

namespace {

using namespace media_test;

class VelmoInputTest : public MediaTest {
 protected:
  std::string Write(const velmo_test::FileSpec& file, const char* name) {
    const std::vector<uint8_t> bytes = velmo_test::BuildFile(file);
    const std::string path = dir / name;
    FILE* f = fopen(path.c_str(), "wb");
    EXPECT_NE(f, nullptr);
    if (f) {
      fwrite(bytes.data(), 1, bytes.size(), f);
      fclose(f);
    }
    return path;
  }
};

TEST_F(VelmoInputTest, HeaderGivesSizesRateAndFrames) {
  velmo_test::FileSpec file;
  file.Width = 32;
  file.Height = 16;
  file.Frames = 6;
  file.Rate = 24;
  const std::string name = Write(file, "clip.vlm");
  MediaInput* in = Open(name);
  ASSERT_NE(in, nullptr) << (Messages.empty() ? "" : Messages.back().text);
  EXPECT_EQ(in->type, MediaTypeVelmo);
  EXPECT_STREQ(in->type_name, "Velmo 1");
  EXPECT_EQ(in->source_width, 32u);
  EXPECT_EQ(in->source_height, 16u);
  EXPECT_EQ(in->source_frames, 6u);
  EXPECT_EQ(in->file_rate_num, 24u);
  EXPECT_EQ(in->file_rate_den, 1u);
  EXPECT_EQ(in->has_sound, 0u);
  uint32_t frames = 0;
  while (!in->at_end && frames < 20) {
    ASSERT_TRUE(NextFrame(in));
    ++frames;
  }
  EXPECT_EQ(frames, 6u);
  MediaClose(in);
}

TEST_F(VelmoInputTest, RangeSkipsFramesAtTheFirstRead) {
  velmo_test::FileSpec file;
  file.Frames = 10;
  const std::string name = Write(file, "clip.vlm");
  MediaOpenArgs args{};
  args.start = 4;
  args.end = 6;
  MediaInput* in = Open(name, args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->source_frames, 3u);
  uint32_t frames = 0;
  while (!in->at_end && frames < 20) {
    ASSERT_TRUE(NextFrame(in));
    ++frames;
  }
  EXPECT_EQ(frames, 3u);
  MediaClose(in);
}

TEST_F(VelmoInputTest, DamagedHeaderFailsTheOpen) {
  WriteText(dir / "bad.vlm", std::string(200, 'x'));
  EXPECT_EQ(Open(dir / "bad.vlm"), nullptr);
  EXPECT_TRUE(Said("Error opening", MediaLevelError));
}

}  // namespace
