// Inputs that end early or whose headers claim what the file cannot hold: a frame that cannot
// be read completely fails the input with one error naming the file; a format whose last frame
// may be cut (a stopped recording) warns once and goes on; an impossible count, size or rate is
// refused at the open, before anything is sized by it.
#include <gtest/gtest.h>

#include <unistd.h>

#include <algorithm>
#include <cstring>

#include "format/container.h"
#include "media/media.h"
#include "media/sound.h"
#include "avi_test_util.h"
#include "media_test_util.h"
#include "support/files.h"
#include "support/picture.h"
#include "support/stdin_file.h"
#include "support/stream_files.h"
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
  // A sound cut short opens with what is there, `bytes` of it, and says so once, naming `path`.
  void ExpectCutSoundWarnsOnce(const std::string& path, uint64_t bytes) {
    Log.Clear();
    SoundInput* sound = SoundOpen(path.c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
    ASSERT_NE(sound, nullptr) << path;
    EXPECT_EQ(sound->total_bytes, bytes) << path;
    EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 1) << path;
    EXPECT_TRUE(Log.Said(path, MediaLevelWarning)) << path;
    SoundClose(sound);
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
  // What a reading of a whole input came to.
  struct Reading {
    bool opened = false;
    uint32_t frames = 0;
    bool failed = false;        // a frame could not be read
    uint32_t readFailed = 0;    // as the input counts it
    int warnings = 0, errors = 0;
    bool operator==(const Reading&) const = default;
    friend std::ostream& operator<<(std::ostream& os, const Reading& r) {
      return os << "opened " << r.opened << ", " << r.frames << " frames, failed " << r.failed << " (" << r.readFailed << "), "
                << r.warnings << " warnings, " << r.errors << " errors";
    }
  };
  // Opens `name` with a clear log and reads it through.
  static Reading ReadThrough(const std::string& name) {
    Log.Clear();
    Reading r;
    MediaInput* in = Open(name);
    r.opened = in != nullptr;
    if (in) r.frames = ReadAll(in, &r.failed), r.readFailed = in->read_failed;
    MediaClose(in);
    r.warnings = Log.CountLevel(MediaLevelWarning);
    r.errors = Log.CountLevel(MediaLevelError);
    return r;
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
    EXPECT_EQ(ReadThrough(dir / kind.name), (Reading{true, 1, false, 0, 0, 0}));
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
    bool failed = false;
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

// An animation cut inside a frame keeps its whole frames with one warning naming the file; one
// cut inside its first frame has nothing to show and is refused.
TEST_F(TruncatedInputTest, CutGifAnimationKeepsItsWholeFrames) {
  const std::vector<uint8_t> gif = test_support::GifAnimation(16, 8, 4);
  ASSERT_FALSE(gif.empty());
  WriteFile(dir / "whole.gif", gif);
  EXPECT_EQ(ReadThrough(dir / "whole.gif"), (Reading{true, 4, false, 0, 0, 0}));
  const std::string cut = Cut("whole.gif", gif.size() - 10, "cut.gif");
  EXPECT_EQ(ReadThrough(cut), (Reading{true, 3, false, 0, 1, 0}));
  EXPECT_TRUE(Log.Said(cut, MediaLevelWarning));

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
  EXPECT_EQ(ReadThrough(dir / "l.lst"), (Reading{true, 1, true, 1, 0, 1}));
  EXPECT_TRUE(Log.Said(dir / "half.png", MediaLevelError));
}

velmo_test::FilePlan SmallVelmo(uint32_t frames) {
  velmo_test::FilePlan plan;
  plan.Width = 32;
  plan.Height = 16;
  plan.Frames = frames;
  plan.Rate = 24;
  return plan;
}

// A Velmo file cut short (a compression that was stopped) gives the frames that are whole in
// it, and ends there with one warning naming the file; whichever frame the cut falls in.
TEST_F(TruncatedInputTest, CutVelmoFileGivesItsWholeFramesAndEnds) {
  const std::vector<uint8_t> file = velmo_test::BuildFile(SmallVelmo(12));
  velmo_test::ParsedFile parsed;
  ASSERT_TRUE(velmo_test::ParseFile(file, &parsed));
  WriteFile(dir / "whole.vlm", file);
  EXPECT_EQ(ReadThrough(dir / "whole.vlm"), (Reading{true, 12, false, 0, 0, 0}));
  MediaInput* whole = Open(dir / "whole.vlm");
  ASSERT_NE(whole, nullptr);
  std::vector<std::vector<uint8_t>> frames;
  while (!whole->at_end && NextFrame(whole))
    frames.emplace_back(whole->output_buffer, whole->output_buffer + whole->output_buffer_bytes);
  MediaClose(whole);
  ASSERT_EQ(frames.size(), 12u);

  for (const uint32_t cutFrame : {1u, 7u, 11u}) {
    SCOPED_TRACE(cutFrame);
    // Cut 3 bytes into frame `cutFrame` (from 0): the frames before it stay whole.
    const uint64_t cutAt = VelmoEntryOffset(VelmoTableFrameEntry(parsed.Info.Tables, cutFrame)) + 3;
    const std::string cut = Cut("whole.vlm", size_t(cutAt), "cut" + std::to_string(cutFrame) + ".vlm");
    EXPECT_EQ(ReadThrough(cut), (Reading{true, cutFrame, false, 0, 1, 0}));
    EXPECT_TRUE(Log.Said(cut, MediaLevelWarning));
    // They are the frames of the whole file.
    MediaInput* in = Open(cut);
    ASSERT_NE(in, nullptr);
    EXPECT_EQ(in->output_frames, cutFrame);
    for (uint32_t f = 0; f < cutFrame; ++f) {
      ASSERT_TRUE(NextFrame(in));
      EXPECT_TRUE(std::equal(frames[f].begin(), frames[f].end(), in->output_buffer)) << "frame " << f;
    }
    EXPECT_TRUE(in->at_end);
    MediaClose(in);
  }
  // Cut inside its first frame, it has nothing to show and is refused, naming the file.
  const uint64_t firstCut = VelmoEntryOffset(VelmoTableFrameEntry(parsed.Info.Tables, 0)) + 3;
  const std::string head = Cut("whole.vlm", size_t(firstCut), "head.vlm");
  Log.Clear();
  EXPECT_EQ(Open(head), nullptr);
  EXPECT_TRUE(Log.Said(head, MediaLevelError));
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
    EXPECT_FALSE(ReadThrough(dir / lie.name).opened);
    EXPECT_TRUE(Log.Said(dir / lie.name, MediaLevelError));
    EXPECT_TRUE(Log.Said(lie.reason, MediaLevelError));
  }
  // The honest header opens.
  WriteFile(dir / "honest.vlm", file);
  EXPECT_TRUE(ReadThrough(dir / "honest.vlm").opened);
}

// A Flic of `realFrames` frames of 8 x 4 whose header claims `claimedFrames`.
std::vector<uint8_t> Flic(uint16_t claimedFrames, uint32_t realFrames) {
  std::vector<test_support::FlicFrame> frames(realFrames);
  for (uint32_t i = 0; i < realFrames; ++i) {
    frames[i].pixels.assign(8 * 4, uint8_t(i));
    frames[i].palette.fill(uint8_t(i * 10));
  }
  std::vector<uint8_t> file = test_support::FlicFile(8, 4, frames, 40);
  file[6] = uint8_t(claimedFrames), file[7] = uint8_t(claimedFrames >> 8);
  return file;
}

// A Flic that claims far more frames than its bytes can hold is refused; one that is cut inside
// a frame fails at that frame.
TEST_F(TruncatedInputTest, FlicFrameCountsAndCutFrames) {
  WriteFile(dir / "good.flc", Flic(5, 5));
  EXPECT_EQ(ReadThrough(dir / "good.flc"), (Reading{true, 5, false, 0, 0, 0}));

  // More frames than the bytes can hold, and more than the chunks that are there.
  WriteFile(dir / "claims.flc", Flic(65535, 5));
  EXPECT_FALSE(ReadThrough(dir / "claims.flc").opened);
  EXPECT_TRUE(Log.Said("65535 frames", MediaLevelError));
  WriteFile(dir / "count.flc", Flic(20, 5));
  EXPECT_FALSE(ReadThrough(dir / "count.flc").opened);
  EXPECT_TRUE(Log.Said("claims 20 frames; the file holds 5", MediaLevelError));

  const size_t size = ReadFile(dir / "good.flc").size();
  const std::string cut = Cut("good.flc", size - 100, "cut.flc");
  EXPECT_EQ(ReadThrough(cut), (Reading{true, 4, true, 1, 0, 1}));
  EXPECT_TRUE(Log.Said("Error reading: " + cut, MediaLevelError));
  EXPECT_TRUE(Log.Said("frame 5 is cut short", MediaLevelError));
}

// A y4m stream of `frames` flat frames of 8 x 4.
std::string FlatY4m(int frames) {
  std::vector<std::vector<uint8_t>> planes;
  for (int i = 0; i < frames; ++i) planes.emplace_back(8 * 4 * 3, uint8_t(16 + i));
  return test_support::Y4mFile(8, 4, planes);
}

// A YUV4MPEG2 stream may end inside its last frame (a capture that was stopped): the whole
// frames are delivered, with one warning naming the file.
TEST_F(TruncatedInputTest, CutLastFrameOfAStreamWarnsOnce) {
  const std::string y4m = FlatY4m(4);
  WriteText(dir / "cut.y4m", y4m.substr(0, y4m.size() - 20));
  EXPECT_EQ(ReadThrough(dir / "cut.y4m"), (Reading{true, 3, false, 0, 1, 0}));
  EXPECT_TRUE(Log.Said(dir / "cut.y4m", MediaLevelWarning));
  // A whole stream says nothing.
  WriteText(dir / "whole.y4m", y4m);
  EXPECT_EQ(ReadThrough(dir / "whole.y4m"), (Reading{true, 4, false, 0, 0, 0}));
}

// A stream read from a pipe (the standard input) that is cut off inside a frame ends with its
// last whole frame, delivered once, with one warning; a pipe that ends behind a whole frame says
// nothing.
TEST_F(TruncatedInputTest, PipeCutInsideAFrameEndsAtItsLastWholeFrame) {
  // Grey frames, each lighter than the one before.
  std::vector<std::vector<uint8_t>> planes;
  for (int i = 0; i < 4; ++i) {
    planes.emplace_back(8 * 4 * 3, uint8_t(128));
    std::fill_n(planes.back().begin(), 8 * 4, uint8_t(30 + 40 * i));
  }
  const std::string y4m = test_support::Y4mFile(8, 4, planes);
  const size_t frameBytes = 6 + 8 * 4 * 3;
  for (const size_t cut : {size_t(20), frameBytes - 3, frameBytes + 20, size_t(0)}) {
    SCOPED_TRACE(cut);
    WriteText(dir / "piped.y4m", y4m.substr(0, y4m.size() - cut));
    test_support::StdinFromFile input(dir / "piped.y4m");
    ASSERT_TRUE(input.ok());
    Log.Clear();
    MediaInput* in = Open("-");
    ASSERT_NE(in, nullptr);
    std::vector<uint32_t> blues;
    while (!in->at_end && blues.size() < 10 && NextFrame(in)) blues.push_back(OutPixel(in, 0, 0) & 0xFF);
    const uint32_t whole = cut == 0 ? 4 : cut <= frameBytes ? 3 : 2;
    EXPECT_EQ(blues.size(), whole);
    for (size_t i = 1; i < blues.size(); ++i) EXPECT_LT(blues[i - 1], blues[i]) << "frame " << i << " repeats";
    EXPECT_EQ(in->read_failed, 0u);
    EXPECT_EQ(Log.CountLevel(MediaLevelWarning), cut == 0 ? 0 : 1);
    EXPECT_EQ(Log.CountLevel(MediaLevelError), 0);
    MediaClose(in);
  }
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
  EXPECT_EQ(ReadThrough(soundCut), (Reading{true, 3, false, 0, 0, 0}));
  ExpectCutSoundWarnsOnce(soundCut, 4500);

  // Frame 3's chunk starts 8 bytes behind the second sound chunk's 2000 bytes.
  const std::string frameCut = Cut("rec.avi", avi.sound_at[1] + 2000 + 8 + 30, "frame_cut.avi");
  EXPECT_EQ(ReadThrough(frameCut), (Reading{true, 3, false, 0, 1, 0}));
  EXPECT_TRUE(Log.Said(frameCut, MediaLevelWarning));

  // The whole file says nothing.
  EXPECT_EQ(ReadThrough(dir / "rec.avi"), (Reading{true, 3, false, 0, 0, 0}));
  SoundInput* sound = SoundOpen((dir / "rec.avi").c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  ASSERT_NE(sound, nullptr);
  EXPECT_EQ(sound->total_bytes, 6000u);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  SoundClose(sound);
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
  ExpectCutSoundWarnsOnce(part, 3000);

  Log.Clear();
  SoundInput* whole = SoundOpen((dir / "s.wav").c_str(), 0, 0, 0, 0, 0, 0, 0, 0, Log.Sink());
  ASSERT_NE(whole, nullptr);
  EXPECT_EQ(whole->total_bytes, samples.size() * 2);
  EXPECT_EQ(Log.CountLevel(MediaLevelWarning), 0);
  SoundClose(whole);
}

// A sound file cut after it was opened (a short read): the sound ends where the data does, with
// one warning naming the file, also when it is read through again.
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
    EXPECT_TRUE(sound->at_end);
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
