// Inputs that end early or whose headers claim what the file cannot hold: a frame that cannot
// be read completely fails the input with one error naming the file; a format whose last frame
// may be cut (a stopped recording) warns once and goes on; an impossible count, size or rate is
// refused at the open, before anything is sized by it.
#include <gtest/gtest.h>

#include <unistd.h>

#include <cstring>

#include "format/container.h"
#include "media/media.h"
#include "media/sound.h"
#include "avi_test_util.h"
#include "media_test_util.h"
#include "support/files.h"
#include "support/velmo_file.h"
#include "support/wave.h"

namespace {

using namespace media_test;
using test_support::ReadFile;
using test_support::WriteFile;

class TruncatedInputTest : public MediaTest {
 protected:
  // The file `name` cut to its first `keep` bytes, as `cut`.
  std::string Cut(const std::string& name, size_t keep, const std::string& cut) {
    std::vector<uint8_t> bytes = ReadFile(dir / name);
    EXPECT_GT(bytes.size(), keep) << name;
    bytes.resize(std::min(bytes.size(), keep));
    WriteFile(dir / cut, bytes);
    return dir / cut;
  }
  // Reads every frame; the count of frames delivered before the first failure.
  static uint32_t ReadAll(MediaInput* in, bool* failed) {
    uint32_t frames = 0;
    *failed = false;
    while (!in->at_end) {
      if (!NextFrame(in)) {
        *failed = true;
        break;
      }
      ++frames;
    }
    return frames;
  }
};

// A still picture cut short either cannot be opened or fails at its frame with an error naming
// the file: never a black frame that passes for the picture.
TEST_F(TruncatedInputTest, CutStillPicturesAreInputErrors) {
  const struct {
    const char* name;
    int format;
  } kinds[] = {{"p.png", IMAGE_FORMAT_PNG}, {"p.bmp", IMAGE_FORMAT_BMP},
               {"p.tga", IMAGE_FORMAT_TGA}, {"p.tif", IMAGE_FORMAT_TIFF},
               {"p.jpg", IMAGE_FORMAT_JPEG}};
  for (const auto& kind : kinds) {
    SCOPED_TRACE(kind.name);
    ASSERT_TRUE(WriteImage(dir / kind.name, kind.format, 64, 48, Pattern(64, 48, 7)));
    // The whole file reads.
    Log.Clear();
    MediaInput* whole = Open(dir / kind.name);
    ASSERT_NE(whole, nullptr);
    bool failed = true;
    EXPECT_EQ(ReadAll(whole, &failed), 1u);
    EXPECT_FALSE(failed);
    EXPECT_EQ(whole->read_failed, 0u);
    MediaClose(whole);
    // Cut to two thirds of its length.
    const size_t size = ReadFile(dir / kind.name).size();
    const std::string cutName = std::string("cut_") + kind.name;
    const std::string cut = Cut(kind.name, size * 2 / 3, cutName);
    Log.Clear();
    MediaInput* in = Open(cut);
    if (!in) {
      EXPECT_TRUE(Log.Said(cut, MediaLevelError));
      continue;
    }
    EXPECT_EQ(ReadAll(in, &failed), 0u);
    EXPECT_TRUE(failed);
    EXPECT_EQ(in->read_failed, 1u);
    EXPECT_TRUE(Log.Said("Error reading: " + cut, MediaLevelError));
    EXPECT_EQ(Log.CountLevel(MediaLevelError), 1);
    // The input stays failed.
    EXPECT_FALSE(NextFrame(in));
    EXPECT_EQ(Log.CountLevel(MediaLevelError), 1);
    MediaClose(in);
  }
}

// A GIF animation of `frames` frames of 16 x 8, each a flat colour index.
std::vector<uint8_t> GifAnimation(int frames) {
  ImageError error{};
  ImageGifWriter* writer = ImageGifWriterOpen(16, 8, 0, &error);
  EXPECT_NE(writer, nullptr) << error.text;
  uint32_t palette[256];
  for (int i = 0; i < 256; ++i) palette[i] = uint32_t(i) << 16 | uint32_t(255 - i);
  for (int f = 0; f < frames; ++f) {
    std::vector<uint8_t> indices(16 * 8);
    for (size_t i = 0; i < indices.size(); ++i) indices[i] = uint8_t(f * 40 + i % 7);
    const ImageGifFrame frame{indices.data(), 16, palette, 10, 1, -1, 0, 0, 0, 0, 0};
    EXPECT_EQ(ImageGifWriterAddFrame(writer, &frame, &error), 1) << error.text;
  }
  void* data = nullptr;
  size_t size = 0;
  EXPECT_EQ(ImageGifWriterFinish(writer, nullptr, &data, &size, &error), 1) << error.text;
  std::vector<uint8_t> bytes(static_cast<uint8_t*>(data), static_cast<uint8_t*>(data) + size);
  ImageFreeMemory(data);
  return bytes;
}

// An animation cut inside a frame keeps its whole frames with one warning naming the file; one
// cut inside its first frame has nothing to show and is refused.
TEST_F(TruncatedInputTest, CutGifAnimationKeepsItsWholeFrames) {
  const std::vector<uint8_t> gif = GifAnimation(4);
  WriteFile(dir / "whole.gif", gif);
  MediaInput* whole = Open(dir / "whole.gif");
  ASSERT_NE(whole, nullptr);
  bool failed = true;
  EXPECT_EQ(ReadAll(whole, &failed), 4u);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  MediaClose(whole);

  const std::string cut = Cut("whole.gif", gif.size() - 10, "cut.gif");
  Log.Clear();
  MediaInput* in = Open(cut);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(in, &failed), 3u);
  EXPECT_FALSE(failed);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  EXPECT_TRUE(Log.Said(cut, MediaLevelWarning));
  MediaClose(in);

  const std::string head = Cut("whole.gif", 40, "head.gif");
  Log.Clear();
  EXPECT_EQ(Open(head), nullptr);
  EXPECT_TRUE(Log.Said(head, MediaLevelError));
}

// A cut picture inside a list fails the list at that entry, after the entries before it, with
// the error naming the entry's file (whether the cut shows at its open or at its frame).
TEST_F(TruncatedInputTest, CutEntryOfAListFailsTheList) {
  Series(3);
  const size_t size = ReadFile(dir / "f002.png").size();
  Cut("f002.png", size / 2, "half.png");
  WriteText(dir / "l.lst", "f001.png\nhalf.png\nf003.png\n");
  MediaInput* in = Open(dir / "l.lst");
  ASSERT_NE(in, nullptr);
  bool failed = false;
  EXPECT_EQ(ReadAll(in, &failed), 1u);
  EXPECT_TRUE(failed);
  EXPECT_EQ(in->read_failed, 1u);
  EXPECT_TRUE(Log.Said(dir / "half.png", MediaLevelError));
  EXPECT_EQ(Log.CountLevel(MediaLevelError), 1);
  MediaClose(in);
}

velmo_test::FilePlan SmallVelmo(uint32_t frames) {
  velmo_test::FilePlan plan;
  plan.Width = 32;
  plan.Height = 16;
  plan.Frames = frames;
  plan.Rate = 24;
  return plan;
}

// A Velmo file whose frames are not all in the file fails, at the latest at the first missing
// frame.
TEST_F(TruncatedInputTest, CutVelmoFileFailsBeforeItsFirstMissingFrame) {
  const std::vector<uint8_t> file = velmo_test::BuildFile(SmallVelmo(12));
  velmo_test::ParsedFile parsed;
  ASSERT_TRUE(velmo_test::ParseFile(file, &parsed));
  WriteFile(dir / "whole.vlm", file);
  MediaInput* whole = Open(dir / "whole.vlm");
  ASSERT_NE(whole, nullptr);
  bool failed = true;
  EXPECT_EQ(ReadAll(whole, &failed), 12u);
  EXPECT_FALSE(failed);
  MediaClose(whole);

  // Cut inside frame 8: frames 1 to 7 stay whole.
  const uint64_t cutAt = VelmoEntryOffset(VelmoTableFrameEntry(parsed.Info.Tables, 7)) + 3;
  const std::string cut = Cut("whole.vlm", size_t(cutAt), "cut.vlm");
  Log.Clear();
  MediaInput* in = Open(cut);
  ASSERT_NE(in, nullptr);
  // The reader may find the damage at its first read of the file: never past the cut.
  EXPECT_LE(ReadAll(in, &failed), 7u);
  EXPECT_TRUE(failed);
  EXPECT_TRUE(Log.Said("Error reading: " + cut, MediaLevelError));
  EXPECT_TRUE(Log.Said("of 12 is missing from the file", MediaLevelError));
  MediaClose(in);
}

// Header fields that cannot be true are refused at the open: a rate divisor that makes a frame
// last for ages, or a largest packet larger than any step between frames (which would size the
// packet buffer).
TEST_F(TruncatedInputTest, VelmoHeaderLiesAreRefusedAtTheOpen) {
  const std::vector<uint8_t> file = velmo_test::BuildFile(SmallVelmo(6));
  VelmoHeader header{};
  ASSERT_TRUE(VelmoParseHeader(file.data(), file.size(), &header));
  // Each is refused for the reason it gives (a picture larger than the pipeline takes before
  // the reader sizes its frame buffers by it).
  const struct {
    const char* name;
    void (*lie)(VelmoHeader*);
    const char* reason;
  } lies[] = {
      {"slow.vlm", [](VelmoHeader* h) { h->FrameRateDiv = 0xFFFFFFFFu; }, VelmoTextCorruptHeader},
      {"fast.vlm", [](VelmoHeader* h) { h->FrameRate = 0xFFFFFFFFu; }, VelmoTextCorruptHeader},
      {"packet.vlm", [](VelmoHeader* h) { h->LargestFrameSize = 0xFFFFFFFFu; }, VelmoTextCorruptHeader},
      {"size.vlm", [](VelmoHeader* h) { h->FileSizeLess8 = 100; }, VelmoTextBadFrameSize},
      {"huge.vlm", [](VelmoHeader* h) { h->Width = h->Height = 32767; }, "is out of range"},
  };
  for (const auto& lie : lies) {
    SCOPED_TRACE(lie.name);
    VelmoHeader told = header;
    lie.lie(&told);
    std::vector<uint8_t> bytes = file;
    VelmoStoreHeader(told, bytes.data());
    WriteFile(dir / lie.name, bytes);
    Log.Clear();
    MediaInput* in = Open(dir / lie.name);
    EXPECT_EQ(in, nullptr);
    EXPECT_TRUE(Log.Said(dir / lie.name, MediaLevelError));
    EXPECT_TRUE(Log.Said(lie.reason, MediaLevelError));
    MediaClose(in);
  }
  // The honest header opens.
  WriteFile(dir / "honest.vlm", file);
  MediaInput* in = Open(dir / "honest.vlm");
  EXPECT_NE(in, nullptr);
  MediaClose(in);
}

// A Flic file: the 128-byte header and frame chunks with one 256-colour palette chunk each.
std::vector<uint8_t> Flic(uint16_t claimedFrames, uint32_t realFrames) {
  std::vector<uint8_t> f(128, 0);
  auto put16 = [&f](size_t at, uint32_t v) {
    f[at] = uint8_t(v);
    f[at + 1] = uint8_t(v >> 8);
  };
  auto put32 = [&](size_t at, uint32_t v) {
    put16(at, v & 0xFFFF);
    put16(at + 2, v >> 16);
  };
  put16(4, 0xAF12);  // FLC
  put16(6, claimedFrames);
  put16(8, 8);  // width
  put16(10, 4);  // height
  put16(12, 8);
  put32(16, 40);  // milliseconds a frame
  for (uint32_t i = 0; i < realFrames; ++i) {
    // A COLOR_256 chunk: one packet, skip 0, count 0 (= 256 colours), grey level i.
    std::vector<uint8_t> chunk = {0, 0, 0, 0, 4, 0, 1, 0, 0, 0};
    for (int c = 0; c < 256 * 3; ++c) chunk.push_back(uint8_t(i * 10));
    const uint32_t chunkSize = uint32_t(chunk.size());
    chunk[0] = uint8_t(chunkSize), chunk[1] = uint8_t(chunkSize >> 8);
    const size_t at = f.size();
    f.resize(at + 16, 0);
    put32(at, uint32_t(16 + chunk.size()));
    put16(at + 4, 0xF1FA);
    put16(at + 6, 1);
    f.insert(f.end(), chunk.begin(), chunk.end());
  }
  put32(0, uint32_t(f.size()));
  return f;
}

// A Flic that claims far more frames than its bytes can hold is refused; one that is cut inside
// a frame fails at that frame.
TEST_F(TruncatedInputTest, FlicFrameCountsAndCutFrames) {
  WriteFile(dir / "good.flc", Flic(5, 5));
  MediaInput* good = Open(dir / "good.flc");
  ASSERT_NE(good, nullptr);
  bool failed = true;
  EXPECT_EQ(ReadAll(good, &failed), 5u);
  EXPECT_FALSE(failed);
  MediaClose(good);

  // More frames than the bytes can hold, and more than the chunks that are there.
  WriteFile(dir / "claims.flc", Flic(65535, 5));
  Log.Clear();
  EXPECT_EQ(Open(dir / "claims.flc"), nullptr);
  EXPECT_TRUE(Log.Said("65535 frames", MediaLevelError));
  WriteFile(dir / "count.flc", Flic(20, 5));
  Log.Clear();
  EXPECT_EQ(Open(dir / "count.flc"), nullptr);
  EXPECT_TRUE(Log.Said("claims 20 frames; the file holds 5", MediaLevelError));

  const size_t size = ReadFile(dir / "good.flc").size();
  const std::string cut = Cut("good.flc", size - 100, "cut.flc");
  Log.Clear();
  MediaInput* in = Open(cut);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(in, &failed), 4u);
  EXPECT_TRUE(failed);
  EXPECT_TRUE(Log.Said("Error reading: " + cut, MediaLevelError));
  EXPECT_TRUE(Log.Said("frame 5 is cut short", MediaLevelError));
  MediaClose(in);
}

std::string FlatY4m(int frames, int width = 8, int height = 4) {
  std::string s = "YUV4MPEG2 W" + std::to_string(width) + " H" + std::to_string(height) +
                  " F25:1 C444\n";
  for (int i = 0; i < frames; ++i) s += "FRAME\n" + std::string(size_t(width) * height * 3, char(16 + i));
  return s;
}

// A YUV4MPEG2 stream may end inside its last frame (a capture that was stopped): the whole
// frames are delivered, with one warning naming the file.
TEST_F(TruncatedInputTest, CutLastFrameOfAStreamWarnsOnce) {
  const std::string y4m = FlatY4m(4);
  WriteText(dir / "cut.y4m", y4m.substr(0, y4m.size() - 20));
  MediaInput* in = Open(dir / "cut.y4m");
  ASSERT_NE(in, nullptr);
  bool failed = true;
  EXPECT_EQ(ReadAll(in, &failed), 3u);
  EXPECT_FALSE(failed);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  EXPECT_TRUE(Log.Said(dir / "cut.y4m", MediaLevelWarning));
  EXPECT_EQ(Log.CountLevel(MediaLevelError), 0);
  MediaClose(in);
  // A whole stream says nothing.
  Log.Clear();
  WriteText(dir / "whole.y4m", y4m);
  in = Open(dir / "whole.y4m");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(in, &failed), 4u);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  MediaClose(in);
}

// An AVI recording that was cut off: three frames of 6 x 4, each followed by 2000 bytes of
// 16-bit mono sound, with the index at the end.
avi_test::Built RecordedAvi() {
  avi_test::AviSpec shape;
  for (int f = 0; f < 3; ++f) shape.frames.push_back(std::vector<uint8_t>(6 * 4 * 3, uint8_t(50 + f)));
  avi_test::AviSound sound;
  sound.format = avi_test::WaveFormat(1, 1, 8000, 16);
  for (int c = 0; c < 3; ++c) sound.chunks.push_back(std::vector<uint8_t>(2000, uint8_t(c + 1)));
  shape.sound.push_back(sound);
  return avi_test::BuildAvi(shape);
}

// Cut inside its last sound chunk, an AVI keeps all its frames and the sound that is there,
// with one warning; cut inside its last frame, that frame goes as far as it goes, with one
// warning.
TEST_F(TruncatedInputTest, CutAviRecordingsWarnOnce) {
  const avi_test::Built avi = RecordedAvi();
  ASSERT_EQ(avi.sound_at.size(), 3u);
  WriteFile(dir / "rec.avi", avi.file);
  const std::string soundCut = Cut("rec.avi", avi.sound_at[2] + 500, "sound_cut.avi");
  MediaInput* in = Open(soundCut);
  ASSERT_NE(in, nullptr);
  bool failed = true;
  EXPECT_EQ(ReadAll(in, &failed), 3u);
  EXPECT_FALSE(failed);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  MediaClose(in);
  Log.Clear();
  SoundInput* sound = SoundOpen(soundCut.c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 4500u);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  EXPECT_TRUE(Log.Said(soundCut, MediaLevelWarning));
  SoundClose(sound);

  // Frame 3's chunk starts 8 bytes behind the second sound chunk's 2000 bytes.
  const std::string frameCut = Cut("rec.avi", avi.sound_at[1] + 2000 + 8 + 30, "frame_cut.avi");
  Log.Clear();
  in = Open(frameCut);
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(in, &failed), 3u);
  EXPECT_FALSE(failed);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  EXPECT_TRUE(Log.Said(frameCut, MediaLevelWarning));
  EXPECT_EQ(Log.CountLevel(MediaLevelError), 0);
  MediaClose(in);

  // The whole file says nothing.
  Log.Clear();
  in = Open(dir / "rec.avi");
  ASSERT_NE(in, nullptr);
  EXPECT_EQ(ReadAll(in, &failed), 3u);
  sound = SoundOpen((dir / "rec.avi").c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 6000u);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  SoundClose(sound);
  MediaClose(in);
}

// A wave file with its header and no samples is no input; one whose data chunk claims more
// than the file holds gives what is there, with one warning.
TEST_F(TruncatedInputTest, WaveFilesWithoutAllTheirSamples) {
  const std::vector<int16_t> samples = test_support::Noise(4000, 5);
  test_support::WriteWave16(dir / "s.wav", 8000, 1, samples);
  const size_t header = ReadFile(dir / "s.wav").size() - samples.size() * 2;
  const std::string bare = Cut("s.wav", header, "bare.wav");
  Log.Clear();
  EXPECT_EQ(Open(bare), nullptr);
  EXPECT_TRUE(Log.Said("no sound samples", MediaLevelError));
  Log.Clear();
  SoundInput* none = SoundOpen(bare.c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  EXPECT_EQ(none, nullptr);
  EXPECT_TRUE(Log.Said(bare, MediaLevelWarning));
  SoundClose(none);

  const std::string part = Cut("s.wav", header + 3000, "part.wav");
  Log.Clear();
  SoundInput* sound = SoundOpen(part.c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 3000u);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  EXPECT_TRUE(Log.Said(part, MediaLevelWarning));
  SoundClose(sound);

  Log.Clear();
  SoundInput* whole = SoundOpen((dir / "s.wav").c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(whole->total_bytes, samples.size() * 2);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  SoundClose(whole);
}

// A sound file cut after it was opened: the sound ends where the data does, with one warning
// naming the file, also when it is read through again.
TEST_F(TruncatedInputTest, SoundThatGivesOutBeforeItsLengthWarnsOnce) {
  const std::vector<int16_t> samples = test_support::Noise(20000, 9);
  test_support::WriteWave16(dir / "s.wav", 8000, 1, samples);
  SoundInput* sound = SoundOpen((dir / "s.wav").c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  ASSERT_NE(sound, nullptr);
  const size_t header = ReadFile(dir / "s.wav").size() - samples.size() * 2;
  ASSERT_EQ(truncate((dir / "s.wav").c_str(), off_t(header + 10000)), 0);
  for (int pass = 0; pass < 2; ++pass) {
    std::vector<uint8_t> block(4096);
    uint64_t got = 0;
    while (uint32_t n = SoundRead(sound, block.data(), uint32_t(block.size()))) got += n;
    EXPECT_EQ(got, 10000u);
    SoundRewind(sound);
  }
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  EXPECT_TRUE(Log.Said(dir / "s.wav", MediaLevelWarning));
  SoundClose(sound);
}

// Raw sound: a partial last sample is left out with one warning; a file with no whole sample
// is no input.
TEST_F(TruncatedInputTest, RawSoundWithAPartialLastSample) {
  const uint32_t force = 4 + 8000 * 8 - 1;  // 16-bit stereo at 8000 Hz
  WriteFile(dir / "odd.raw", std::vector<uint8_t>(4 * 100 + 3, 0x11));
  Log.Clear();
  SoundInput* sound = SoundOpen((dir / "odd.raw").c_str(), 0, 0, 0, 0, 0, 0, force, 0, Log.Sink());
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 400u);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1);
  SoundClose(sound);
  WriteFile(dir / "tiny.raw", std::vector<uint8_t>(3, 0x11));
  Log.Clear();
  EXPECT_EQ(SoundOpen((dir / "tiny.raw").c_str(), 0, 0, 0, 0, 0, 0, force, 0, Log.Sink()), nullptr);
  EXPECT_TRUE(Log.Said(dir / "tiny.raw", MediaLevelWarning));
}

}  // namespace
