// OpenEXR inputs at the media layer: a whole file opens with float frames; one that is cut
// short fails the open with the file's name and the reason, before any frame is delivered.
#include <cstring>

#include "media_test_util.h"

namespace {

using namespace media_test;

using OpenExrInput = MediaTest;

TEST_F(OpenExrInput, ACutFileFailsTheOpenByName) {
  const std::string whole = dir / "whole.exr";
  ASSERT_TRUE(WriteImage(whole, IMAGE_FORMAT_EXR, 40, 30, Pattern(40, 30, 9)));
  MediaInput* in = Open(whole);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(in->float_frames, 1u);
  EXPECT_EQ(in->source_width, 40u);
  MediaClose(in);

  const std::vector<uint8_t> bytes = test_support::ReadFile(whole);
  ASSERT_GT(bytes.size(), 800u);
  for (const size_t size : {size_t(400), bytes.size() / 2, bytes.size() - 10}) {
    const std::string cut = dir / ("cut" + std::to_string(size) + ".exr");
    test_support::WriteFile(cut, std::vector<uint8_t>(bytes.begin(), bytes.begin() + std::ptrdiff_t(size)));
    Log.Clear();
    EXPECT_EQ(Open(cut), nullptr) << size;
    EXPECT_TRUE(Log.Said("Error opening: " + cut, MediaLevelError)) << size;
    EXPECT_TRUE(Log.Said("OpenEXR", MediaLevelError)) << "the reason goes with it";
  }
}

}  // namespace
