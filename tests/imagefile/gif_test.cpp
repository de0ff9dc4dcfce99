// GIF: animations built with giflib's encoder, composed by disposal value and transparency;
// interlaced frames; the library's own animated writer.
#include "test_support.h"

#include <gif_lib.h>

using namespace imagefile_test;

namespace {

struct RawFrame {
  int left, top, width, height;
  std::vector<uint8_t> indices;  // rows in display order
  int transparent = -1;
  int disposal = 0;
  int delay = 0;
  bool interlace = false;
};

int Append(GifFileType* gif, const GifByteType* data, int length) {
  auto* out = static_cast<std::vector<uint8_t>*>(gif->UserData);
  out->insert(out->end(), data, data + length);
  return length;
}

// Writes an animation with giflib directly: a 4-entry global palette, a loop extension.
std::vector<uint8_t> EncodeGif(int width, int height, const std::vector<RawFrame>& frames, int background = 0) {
  std::vector<uint8_t> out;
  int err = 0;
  GifFileType* gif = EGifOpen(&out, Append, &err);
  EXPECT_NE(gif, nullptr);
  GifColorType colours[4] = {{0, 0, 0}, {255, 0, 0}, {0, 255, 0}, {0, 0, 255}};
  ColorMapObject* map = GifMakeMapObject(4, colours);
  EGifSetGifVersion(gif, true);
  EXPECT_EQ(EGifPutScreenDesc(gif, width, height, 2, background, map), GIF_OK);
  const GifByteType loop[3] = {1, 3, 0};
  EGifPutExtensionLeader(gif, APPLICATION_EXT_FUNC_CODE);
  EGifPutExtensionBlock(gif, 11, "NETSCAPE2.0");
  EGifPutExtensionBlock(gif, 3, loop);
  EGifPutExtensionTrailer(gif);
  for (const RawFrame& f : frames) {
    GraphicsControlBlock gcb{f.disposal, false, f.delay, f.transparent};
    GifByteType ext[4];
    EGifGCBToExtension(&gcb, ext);
    EXPECT_EQ(EGifPutExtension(gif, GRAPHICS_EXT_FUNC_CODE, 4, ext), GIF_OK);
    EXPECT_EQ(EGifPutImageDesc(gif, f.left, f.top, f.width, f.height, f.interlace, nullptr), GIF_OK);
    std::vector<int> order;
    if (f.interlace) {
      for (int start : {0, 4, 2, 1})
        for (int y = start; y < f.height; y += start == 0 ? 8 : start == 4 ? 8 : start == 2 ? 4 : 2) order.push_back(y);
    } else {
      for (int y = 0; y < f.height; ++y) order.push_back(y);
    }
    for (int y : order) {
      std::vector<GifPixelType> row(f.indices.begin() + y * f.width, f.indices.begin() + (y + 1) * f.width);
      EXPECT_EQ(EGifPutLine(gif, row.data(), f.width), GIF_OK);
    }
  }
  EXPECT_EQ(EGifCloseFile(gif, &err), GIF_OK);
  GifFreeMapObject(map);
  return out;
}

// Frame 1 fills a 3x2 screen with red; frame 2 paints a 2x1 strip at (1,1): blue, transparent.
std::vector<RawFrame> TwoFrames(int first_disposal) {
  RawFrame first{0, 0, 3, 2, {1, 1, 1, 1, 1, 1}, -1, first_disposal, 10};
  RawFrame second{1, 1, 2, 1, {3, 0}, 0, 0, 25};
  return {first, second};
}

TEST(Gif, AnimationHeaderFramesDelaysLoopAndTransparency) {
  const std::vector<uint8_t> bytes = EncodeGif(3, 2, TwoFrames(1));
  const OpenFile file = Open(bytes);
  ASSERT_NE(file, nullptr);
  const ImageInfo* info = ImageFileInfo(file.get());
  EXPECT_EQ(info->format, IMAGE_FORMAT_GIF);
  EXPECT_EQ(info->frame_count, 2);
  EXPECT_EQ(info->width, 3);
  EXPECT_EQ(info->height, 2);
  EXPECT_TRUE(info->has_alpha);
  EXPECT_TRUE(info->is_palette);
  EXPECT_EQ(info->loop_count, 3);
  EXPECT_EQ(ImageFileFrameDelay(file.get(), 0), 10);
  EXPECT_EQ(ImageFileFrameDelay(file.get(), 1), 25);
  EXPECT_EQ(ImageFileFrameDelay(file.get(), 2), 0);
  uint32_t palette[256];
  EXPECT_EQ(ImageFilePalette(file.get(), palette), 4);
  EXPECT_EQ(palette[3], B);
  // Transparent pixels keep the canvas under them.
  EXPECT_EQ(Read(bytes, nullptr, 0).pixels, (std::vector<uint32_t>(6, R)));
  EXPECT_EQ(Read(bytes, nullptr, 1).pixels, (std::vector<uint32_t>{R, R, R, R, B, R}));
}

// Canvases composed frame by frame: disposal to background and to the previous canvas, the
// background colour around an opaque still, interlaced rows and frames out of the screen.
TEST(Gif, FramesComposeOnTheCanvas) {
  // Frame 1 covers the left 2x2 of a 3x2 screen and is disposed to background: as the
  // animation uses transparency, the background is transparent black.
  const std::vector<uint8_t> to_background =
      EncodeGif(3, 2, {{0, 0, 2, 2, {1, 1, 1, 1}, -1, DISPOSE_BACKGROUND, 5}, {2, 0, 1, 1, {2}, 0, 0, 5}});
  const std::vector<uint8_t> to_previous =
      EncodeGif(2, 1, {{0, 0, 2, 1, {1, 1}, -1, DISPOSE_DO_NOT, 5}, {0, 0, 1, 1, {3}, -1, DISPOSE_PREVIOUS, 5},
                       {1, 0, 1, 1, {2}, -1, DISPOSE_DO_NOT, 5}});
  RawFrame interlaced{0, 0, 1, 10, {}, -1, 0, 0, true};
  for (int y = 0; y < 10; ++y) interlaced.indices.push_back(uint8_t(y % 4));
  const struct {
    const char* what;
    std::vector<uint8_t> file;
    int frame;
    std::vector<uint32_t> want;
  } cases[] = {
      {"before disposal to background", to_background, 0, {R, R, T, R, R, T}},
      {"after disposal to background", to_background, 1, {T, T, G, T, T, T}},
      {"before disposal to previous", to_previous, 1, {B, R}},
      {"after disposal to previous", to_previous, 2, {R, G}},
      {"opaque still on its background colour", EncodeGif(2, 1, {{1, 0, 1, 1, {2}, -1, 0, 0}}, 3), 0, {B, G}},
      {"interlaced rows in display order", EncodeGif(1, 10, {interlaced}), 0, {K, R, G, B, K, R, G, B, K, R}},
      {"clipped to the screen", EncodeGif(2, 2, {{1, 1, 3, 3, std::vector<uint8_t>(9, 3), -1, 0, 0}}), 0, {K, K, K, B}},
  };
  for (const auto& c : cases) EXPECT_EQ(Read(c.file, nullptr, c.frame).pixels, c.want) << c.what;
  const ImageInfo still = InfoOf(cases[4].file);
  EXPECT_FALSE(still.has_alpha);
  EXPECT_EQ(still.frame_count, 1);
}

TEST(Gif, ReadingBackwardsRestartsTheAnimation) {
  const std::vector<uint8_t> bytes = EncodeGif(3, 2, TwoFrames(DISPOSE_BACKGROUND));
  const OpenFile file = Open(bytes);
  ASSERT_NE(file, nullptr);
  Picture p(3, 2);
  ImagePixels view = p.View();
  for (int frame : {1, 0, 1, 1, 0}) {
    ASSERT_EQ(ImageFileReadFrame(file.get(), frame, &view, nullptr), 1);
    const std::vector<uint32_t> want = frame == 0 ? std::vector<uint32_t>(6, R) : std::vector<uint32_t>{T, T, T, T, B, T};
    EXPECT_EQ(p.pixels, want) << "frame " << frame;
  }
}

TEST(Gif, TruncatedAnimationKeepsItsCompleteFrames) {
  std::vector<uint8_t> bytes = EncodeGif(3, 2, TwoFrames(1));
  // Cut inside the second frame's data: one frame remains.
  bytes.resize(bytes.size() - 6);
  ImageInfo info{};
  const Picture p = Read(bytes, nullptr, 0, nullptr, &info);
  EXPECT_EQ(info.frame_count, 1);
  EXPECT_EQ(info.cut_short, 1);
  EXPECT_EQ(p.pixels, (std::vector<uint32_t>(6, R)));
  // The whole file says nothing of the kind.
  ImageInfo whole{};
  Read(EncodeGif(3, 2, TwoFrames(1)), nullptr, 0, nullptr, &whole);
  EXPECT_EQ(whole.frame_count, 2);
  EXPECT_EQ(whole.cut_short, 0);
}

TEST(GifWriter, AnimationRoundTripsThroughTheReader) {
  ImageError error{};
  ImageGifWriter* writer = ImageGifWriterOpen(4, 3, 0, &error);
  ASSERT_NE(writer, nullptr) << error.text;
  uint32_t palette[256] = {};
  for (int i = 0; i < 256; ++i) palette[i] = uint32_t(i) << 16 | uint32_t(255 - i);
  std::vector<uint8_t> first(12), second(4, 7);
  for (int i = 0; i < 12; ++i) first[size_t(i)] = uint8_t(i * 20);
  const ImageGifFrame frame1{first.data(), 4, palette, 12, 1, -1, 0, 0, 0, 0, 1};
  const ImageGifFrame frame2{second.data(), 2, palette, 30, 1, 7, 1, 1, 2, 2, 0};  // all transparent
  ASSERT_EQ(ImageGifWriterAddFrame(writer, &frame1, &error), 1) << error.text;
  ASSERT_EQ(ImageGifWriterAddFrame(writer, &frame2, &error), 1) << error.text;
  void* data = nullptr;
  size_t size = 0;
  ASSERT_EQ(ImageGifWriterFinish(writer, nullptr, &data, &size, &error), 1) << error.text;
  std::vector<uint8_t> bytes(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
  ImageFreeMemory(data);

  ImageInfo info{};
  const Picture p0 = Read(bytes, nullptr, 0, nullptr, &info);
  EXPECT_EQ(info.frame_count, 2);
  EXPECT_EQ(info.loop_count, 0);
  for (int i = 0; i < 12; ++i) EXPECT_EQ(p0.pixels[size_t(i)], palette[i * 20] | 0xFF000000u) << i;
  EXPECT_EQ(Read(bytes, nullptr, 1).pixels, p0.pixels);  // a wholly transparent frame changes nothing
}

TEST(GifWriter, FramesOutsideTheScreenAreRefused) {
  ImageGifWriter* writer = ImageGifWriterOpen(4, 4, -1, nullptr);
  ASSERT_NE(writer, nullptr);
  uint32_t palette[256] = {};
  std::vector<uint8_t> pixels(16);
  const ImageGifFrame outside{pixels.data(), 4, palette, 0, 0, -1, 2, 2, 4, 4, 0};
  ImageError error{};
  EXPECT_EQ(ImageGifWriterAddFrame(writer, &outside, &error), 0);
  EXPECT_EQ(error.code, IMAGE_ERROR_ARGUMENT);
  void* data = nullptr;
  size_t size = 0;
  EXPECT_EQ(ImageGifWriterFinish(writer, nullptr, &data, &size, &error), 1);  // an empty animation
  ImageFreeMemory(data);
  EXPECT_EQ(ImageGifWriterOpen(0, 4, 0, &error), nullptr);
}

}  // namespace
