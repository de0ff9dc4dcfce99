// Velmo files as inputs, through the reader library: the file is built with the container's
// writer functions (its frames are not real pictures, which the decoder survives).
#include "media/media.h"
#include "media_test_util.h"
#include "reader/velmo_test_files.h"
#include "sound_test_util.h"

namespace {

using namespace media_test;

class VelmoInputTest : public MediaTest {
 protected:
  std::string Write(const velmo_test::FileSpec& file) {
    sound_test::WriteBytes(dir / "clip.vlm", velmo_test::BuildFile(file));
    return dir / "clip.vlm";
  }
};

uint32_t FramesToTheEnd(MediaInput* in) {
  uint32_t frames = 0;
  while (!in->at_end && frames < 20 && NextFrame(in)) ++frames;
  return frames;
}

TEST_F(VelmoInputTest, HeaderGivesSizesRateAndFrames) {
  velmo_test::FileSpec file;
  file.Width = 32;
  file.Height = 16;
  file.Frames = 6;
  file.Rate = 24;
  MediaInput* in = Open(Write(file));
  ASSERT_NE(in, nullptr) << (Messages.empty() ? "" : Messages.back().text);
  EXPECT_EQ(in->type, MediaTypeVelmo);
  EXPECT_STREQ(in->type_name, "Velmo 1");
  EXPECT_EQ(in->source_width, 32u);
  EXPECT_EQ(in->source_height, 16u);
  EXPECT_EQ(in->source_frames, 6u);
  EXPECT_EQ(in->file_rate_num, 24u);
  EXPECT_EQ(in->file_rate_den, 1u);
  EXPECT_EQ(in->has_sound, 0u);
  EXPECT_EQ(FramesToTheEnd(in), 6u);
  MediaClose(in);
  // A range skips frames at the first read.
  MediaOpenArgs args{};
  args.start = 2;
  args.end = 4;
  in = Open(Write(file), args);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->source_frames, 3u);
  EXPECT_EQ(FramesToTheEnd(in), 3u);
  MediaClose(in);
}

TEST_F(VelmoInputTest, DamagedHeaderFailsTheOpen) {
  WriteText(dir / "bad.vlm", std::string(200, 'x'));
  EXPECT_EQ(Open(dir / "bad.vlm"), nullptr);
  EXPECT_TRUE(Said("Error opening", MediaLevelError));
}

}  // namespace
