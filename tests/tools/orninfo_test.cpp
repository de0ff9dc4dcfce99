// ORNInfo: the report's lines for a picture, a palette animation, an AVI file with its frame
// sizes, wave files, a Velmo file with and without sound tracks, a directory and an unknown
// file, and the program run with the console front end; the one-second window rule of the
// frame-size lines.
#include "compress/tool/velmomix.h"
#include "convert/output.h"
#include "tools/orninfo.h"
#include "../convert/program_test_support.h"
#include "support/hdr_forward.h"
#include "support/velmo2_flat_file.h"

namespace {

using namespace program_test;

// A picture whose pixels all differ, half transparent when it has alpha.
void WritePng(const std::string& name, int width, int height, bool alpha) {
  std::vector<uint32_t> pixels(size_t(width) * height);
  for (size_t i = 0; i < pixels.size(); ++i)
    pixels[i] = (alpha ? 0x80000000u : 0xFF000000u) | uint32_t(i * 2654435761u >> 8);
  ASSERT_TRUE(WriteImage(name, IMAGE_FORMAT_PNG, width, height, pixels, alpha));
}

bool Has(const std::string& text, const std::string& part) {
  return text.find(part) != std::string::npos;
}

using OrnFileInfo = TempDirTest;

// Every one of `lines` is in `text`, each at or after the one before it.
template <size_t N>
void ExpectInOrder(const std::string& text, const char* const (&lines)[N]) {
  size_t at = 0;
  for (const char* line : lines) {
    const size_t found = text.find(line, at);
    ASSERT_NE(found, std::string::npos) << line << "\n" << text;
    at = found;
  }
}

TEST_F(OrnFileInfo, PictureLinesInOrder) {
  const std::string png = dir + "/pic.png";
  WritePng(png, 40, 24, true);
  const std::string text = OrnFileInfoText(png.c_str());
  const char* const lines[] = {"\r\n    Video format: ", "\r\n    Width: 40",
                               "\r\n    Height: 24",     "\r\n    Frames: 1",
                               "\r\n    Color depth: 32", "\r\n    Alpha plane: Yes.",
                               "\r\n    Frames per second: ", "\r\n    Milliseconds per frame: ",
                               "\r\n    Total time: 0 minutes ", "\r\n    Total size: ",
                               "\r\n    Average data rate: ", "\r\n    Average frame size: ",
                               "\r\n    Size: ", "\r\n    Last modified on ",
                               "\r\n    Attributes: archive-"};
  ExpectInOrder(text, lines);
  EXPECT_FALSE(Has(text, "Velmo")) << text;
  EXPECT_FALSE(Has(text, "This is a directory."));
}

// The lines of `text` from the one starting with `first` up to (not including) the one
// starting with `end`, as found in order; empty when `first` is missing.
std::string Between(const std::string& text, const std::string& first, const std::string& end) {
  const size_t from = text.find(first);
  if (from == std::string::npos) return "";
  const size_t to = text.find(end, from);
  return text.substr(from, to == std::string::npos ? std::string::npos : to - from);
}

TEST_F(OrnFileInfo, PaletteAnimationIsEightBitWithNoFrameSizes) {
  const std::string name = dir + "/anim.gif";
  const std::vector<uint8_t> gif = test_support::GifAnimation(12, 10, 3, 25);
  ASSERT_FALSE(gif.empty());
  WriteFile(name, gif);
  const std::string text = OrnFileInfoText(name.c_str());
  // 25 hundredths a frame: 4 frames a second, 250 ms each, no alpha in an opaque palette.
  EXPECT_EQ(Between(text, "\r\n    Width:", "\r\n    Total time:"),
            "\r\n    Width: 12\r\n    Height: 10\r\n    Frames: 3\r\n    Color depth: 8"
            "\r\n    Alpha plane: No.\r\n    Frames per second: 4.00"
            "\r\n    Milliseconds per frame: 250.00")
      << text;
  EXPECT_FALSE(Has(text, "Largest frame size")) << text;
  EXPECT_FALSE(Has(text, "Sound info")) << text;
  EXPECT_FALSE(Has(text, "File type:")) << text;
}

TEST_F(OrnFileInfo, AviFrameSizesOverOneSecondWindows) {
  // Raw 24-bit frames of 10 × 6 pixels: rows of 32 bytes (30 padded to 4), 192 bytes a frame.
  const int w = 10, h = 6, frames = 7;
  const std::string name = dir + "/clip.avi";
  OutputOptions options{};
  options.codec = OutputCodecRaw;
  options.jpeg_level = 90;
  OutputWriter* out =
      OutputOpen(name.c_str(), frames, 5, 1, w, h, w, {}, OutputFlagPromptDone, &options);
  ASSERT_TRUE(out);
  std::vector<uint32_t> pixels(size_t(w) * h, 0xFF336699u);
  for (int f = 0; f < frames; ++f) ASSERT_EQ(OutputWriteFrame(out, pixels.data(), nullptr), 1);
  ASSERT_GT(OutputClose(out), 0u);
  const std::string text = OrnFileInfoText(name.c_str());
  EXPECT_TRUE(Has(text, "\r\n    Frames: 7\r\n    Color depth: 32\r\n")) << text;
  // Five frames make a second at 5 frames a second; all windows are equal, the first wins.
  EXPECT_TRUE(Has(text, "\r\n    Average frame size: "));
  EXPECT_LT(text.find("\r\n    Average frame size: "), text.find("\r\n    Largest frame size:"));
  EXPECT_EQ(Between(text, "\r\n    Largest frame size:", "\r\n    Size:"),
            "\r\n    Largest frame size: 192\r\n    Highest one second data rate: 960"
            "\r\n    Highest one second data rate start frame: 1")
      << text;
  EXPECT_FALSE(Has(text, "File type:")) << text;
}

TEST(OrnFrameSizes, OneSecondWindowRule) {
  // The window of `perSecond` frames that holds the most bytes, and the first of equal ones.
  const struct {
    std::vector<uint32_t> sizes;
    uint32_t perSecond, largest, highest, frame;
  } cases[] = {
      {{10, 50, 10, 10, 60, 0, 0, 60, 1, 0}, 3, 60, 80, 2},  // frames 2..4: 10 + 10 + 60
      {{5, 5, 5, 5}, 2, 5, 10, 0},                           // equal windows: the earliest
      {{1, 1, 1, 1, 9, 9}, 2, 9, 18, 4},                     // the peak at the very end
      {{100, 200}, 30, 200, 300 * 30 / 2, 0},  // shorter than a second: the average scaled up
      {{0, 0, 0}, 2, 0, 0, 0},                 // only empty frames
      {{1, 1, 1, 1, 9, 9}, 0, 9, 9, 4},        // under one frame a second
      {{}, 5, 0, 0, 0},                        // no frames at all
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(testing::Message() << c.sizes.size() << " frames, " << c.perSecond << " a second");
    const OrnFrameSizeSummary s =
        OrnSummariseFrameSizes(c.sizes.data(), uint32_t(c.sizes.size()), c.perSecond);
    EXPECT_EQ(s.largest, c.largest);
    EXPECT_EQ(s.highest_second, c.highest);
    EXPECT_EQ(s.highest_second_frame, c.frame);
  }
}

// A wave file with one "fmt " chunk of the given tag and a second of silence.
void WriteSilence(const std::string& name, uint32_t tag, uint32_t channels, uint32_t rate,
                  uint32_t bits) {
  std::vector<uint8_t> file = WaveHeader(tag, channels, rate, bits, rate * channels * bits / 8);
  file.resize(file.size() + rate * channels * bits / 8);
  WriteFile(name, file);
}

TEST_F(OrnFileInfo, SoundFilesShowTheSourceFormat) {
  WriteSilence(dir + "/pcm.wav", 1, 2, 22050, 16);
  const std::string pcm = OrnFileInfoText((dir + "/pcm.wav").c_str());
  EXPECT_EQ(pcm.find("\r\n    Sound info (Wave file):\r\n      22050 Hz, 16 bit, 2 channel sound "
                     "data.\r\n    Size: 88244"),
            0u)
      << pcm;
  WriteSilence(dir + "/float.wav", 3, 1, 8000, 32);
  const std::string flt = OrnFileInfoText((dir + "/float.wav").c_str());
  EXPECT_TRUE(Has(flt, "\r\n      8000 Hz, 32 bit(float), 1 channel sound data.")) << flt;
  EXPECT_FALSE(Has(flt, "Video format")) << flt;
}

TEST_F(OrnFileInfo, DirectoryAndUnknownFileShowOnlyFileSystemLines) {
  const std::string dirText = OrnFileInfoText(dir.c_str());
  EXPECT_EQ(dirText.find("\r\n    This is a directory."), 0u) << dirText;
  EXPECT_FALSE(Has(dirText, "Video format"));
  const std::string junk = dir + "/junk.dat";
  WriteText(junk, "nothing any reader knows");
  const std::string text = OrnFileInfoText(junk.c_str());
  EXPECT_EQ(text.find("\r\n    Size: 24"), 0u) << text;
  EXPECT_TRUE(Has(text, "Attributes: archive-no  read only-no  hidden-no  system-no"));
  EXPECT_EQ(OrnFileInfoText((dir + "/missing").c_str()), "");
}

// Nothing read is an input error that names the file and the reason: a missing name, an empty
// file, and a file no reader knows (whose file system lines still go out). A directory is read.
TEST_F(OrnFileInfo, NothingReadIsAnInputErrorWithTheReason) {
  std::string text, reason;
  EXPECT_TRUE(OrnFileInfoRead(dir.c_str(), &text, &reason));
  EXPECT_EQ(reason, "");
  const std::string missing = dir + "/missing.png";
  EXPECT_FALSE(OrnFileInfoRead(missing.c_str(), &text, &reason));
  EXPECT_EQ(reason, "No such file or directory");
  const std::string empty = dir + "/empty.png", junk = dir + "/junk.dat";
  WriteText(empty, "");
  WriteText(junk, "nothing any reader knows");
  EXPECT_FALSE(OrnFileInfoRead(empty.c_str(), &text, &reason));
  EXPECT_EQ(reason, "the file is empty");
  EXPECT_FALSE(OrnFileInfoRead(junk.c_str(), &text, &reason));
  EXPECT_EQ(reason, "no reader knows this kind of file");
  EXPECT_TRUE(Has(text, "Size: 24"));

  const struct {
    std::string name, says;
  } runs[] = {{missing, "Couldn't read '" + missing + "': No such file or directory."},
              {empty, "Couldn't read '" + empty + "': the file is empty."},
              {junk, "Couldn't read '" + junk + "': no reader knows this kind of file."}};
  for (const auto& r : runs) {
    const ToolOutcome run = RunTail("orninfo " + r.name);
    EXPECT_EQ(run.code, 8002 & 255) << r.name;
    EXPECT_EQ(run.Times(r.says), 1u) << run.output;
  }
  EXPECT_TRUE(RunTail("orninfo " + junk).Says("    Size: 24\n"));
  EXPECT_EQ(RunTail("orninfo " + dir).code, 0);
}

// The report of `name` alone on standard output, as the program prints it.
std::string InfoReport(const std::string& name) {
  const ToolOutcome report = RunShell("ORN_CONSOLE=1 '" + std::string(ORN_PROGRAM_PATH) +
                                      "' ORNInfo /#77 '" + name + "' </dev/null 2>/dev/null");
  EXPECT_EQ(report.code, 0) << name;
  return report.output;
}

// A first-generation Velmo file of two frames made by the compressor, with extra switches.
void MakeVelmo(const std::string& dir, int size, const std::string& name, const std::string& extra) {
  WritePng(dir + "/in1.png", size, size, false);
  WritePng(dir + "/in2.png", size, size, false);
  ASSERT_EQ(RunTail("velmoc " + dir + "/in?.png*1-2 " + name + " /v101" + extra).code, 0);
}

TEST_F(OrnFileInfo, VelmoFileThroughTheProgram) {
  const std::string vlm = dir + "/clip.vlm";
  MakeVelmo(dir, 32, vlm, " /*hello");
  // The report alone on standard output, its lines ended by newlines.
  const std::string out = InfoReport(vlm);
  EXPECT_FALSE(Has(out, "\r"));
  EXPECT_EQ(out.find("    Video format: "), 0u) << out;
  const char* const lines[] = {"\n    Width: 32\n",
                               "\n    Frames: 2\n",
                               "\n    Alpha plane: No.\n",
                               "\n    Largest frame size: ",
                               "\n    Highest one second data rate: ",
                               "\n    Highest one second data rate start frame: 1\n",
                               "\n    File type: VLMk\n",
                               "\n    Uses full y-cr-cb colorspace.\n",
                               "\n    Compressed with Velmo ",
                               "\n    Extra text: hello\n",
                               "\n    Video slices (max simultaneous CPUs): 1\n",
                               "\n    Size: "};
  ExpectInOrder(out, lines);
  // The report goes out once, under its caption; no name is an input error.
  const ToolOutcome both = RunTail("orninfo " + vlm);
  EXPECT_EQ(both.Times("Information on " + vlm), 1u) << both.output;
  EXPECT_EQ(both.Times("Video format: "), 1u) << both.output;
  EXPECT_EQ(both.Times("Extra text: hello"), 1u) << both.output;
  EXPECT_EQ(RunTail("orninfo").code, 8002 & 255);
}

TEST_F(OrnFileInfo, SecondGenerationFilesShowTypeSizeFramesAndColourSpace) {
  velmo_test::FlatFilePlan plain;
  plain.Width = 72;
  plain.Height = 40;
  plain.Frames.assign(3, velmo_test::FlatFrame{});
  velmo_test::WriteFlatFile(dir + "/plain.vm2", plain);
  const std::string out = InfoReport(dir + "/plain.vm2");
  const char* const lines[] = {"    Video format: Velmo 2.5\n", "\n    Width: 72\n",
                               "\n    Height: 40\n",           "\n    Frames: 3\n",
                               "\n    Color depth: 32\n",      "\n    File type: VM2j\n",
                               "\n    Uses old y-cr-cb colorspace.\n"};
  ExpectInOrder(out, lines);
  EXPECT_FALSE(Has(out, "Max HDR nits")) << out;

  velmo_test::FlatFilePlan hdr;
  hdr.Hdr = true;
  hdr.Alpha = true;
  test_support::MakeHdrBlock(4000, test_support::Tone1000, hdr.HdrBlock);
  hdr.Frames.assign(2, velmo_test::FlatFrame{});
  velmo_test::WriteFlatFile(dir + "/hdr.vm2", hdr);
  const std::string wide = InfoReport(dir + "/hdr.vm2");
  const char* const hdrLines[] = {"    Video format: Velmo 2.7\n", "\n    Width: 64\n",
                                  "\n    Height: 32\n",          "\n    Frames: 2\n",
                                  "\n    Color depth: HDR\n",    "\n    Alpha plane: Yes.\n",
                                  "\n    File type: VM2m\n",     "\n    Uses HDR I-Ct-Cp colorspace.\n",
                                  "\n    Max HDR nits: 4000\n"};
  ExpectInOrder(wide, hdrLines);
}

TEST_F(OrnFileInfo, VelmoTracksAndTheirSound) {
  const std::string plain = dir + "/plain.vlm";
  MakeVelmo(dir, 16, plain, "");
  // Two tracks laid in by the mixer: id 7 mono at 11025 Hz, then id 2 stereo at 22050 Hz.
  WriteWave16(dir + "/mono.wav", 11025, 1, std::vector<int16_t>(11025));
  WriteWave16(dir + "/stereo.wav", 22050, 2, std::vector<int16_t>(2 * 22050));
  SoundInput* mono = SoundOpen((dir + "/mono.wav").c_str(), 0, 16, 0, 0, 0, 0, 0, 0, {});
  SoundInput* stereo =
      SoundOpen((dir + "/stereo.wav").c_str(), 0, 16, 0, 0, 0, 0, 0, 0, {});
  ASSERT_TRUE(mono && stereo);
  const VelmoMixTrack tracks[2] = {{7, 11025, 16, 1, 4, mono, ReadSoundInput},
                                   {2, 22050, 16, 2, 4, stereo, ReadSoundInput}};
  const std::string vlm = dir + "/tracks.vlm";
  const uint64_t size =
      VelmoMixFile(plain.c_str(), vlm.c_str(), 0, 0, 0, 0, 2, tracks, nullptr);
  SoundClose(mono);
  SoundClose(stereo);
  ASSERT_GT(size, 0u);
  const std::string text = OrnFileInfoText(vlm.c_str());
  // The track lines follow the slices line; the sound block (the first track) follows them.
  EXPECT_EQ(Between(text, "\r\n    Video slices", "\r\n    Size:"),
            "\r\n    Video slices (max simultaneous CPUs): 1"
            "\r\n    Track ID 7: 11025 Hz, 16 bit, Mono sound data."
            "\r\n    Track ID 2: 22050 Hz, 16 bit, Stereo sound data."
            "\r\n    Sound info (Velmo track file):"
            "\r\n      11025 Hz, 16 bit, 1 channel sound data.")
      << text;
  // Without tracks there are neither.
  const std::string none = OrnFileInfoText(plain.c_str());
  EXPECT_FALSE(Has(none, "Track ID")) << none;
  EXPECT_FALSE(Has(none, "Sound info")) << none;
}

}  // namespace
