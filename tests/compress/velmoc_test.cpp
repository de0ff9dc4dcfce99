// The compressor tool and its writer: switches, hint files, checkpoints mid-run, cancel,
// rename failures, and whole runs through the tool shell's console front end.
#include <gtest/gtest.h>

#include <sys/stat.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "compress/velmo1_file_check.h"
#include "compress/velmo_writer.h"
#include "compress/velmoc.h"
#include "compress/velmoc_source.h"
#include "host/toolframe.h"

namespace {

std::string TempDir() {
  char pattern[] = "/tmp/velmoc_test_XXXXXX";
  return mkdtemp(pattern);
}

bool Exists(const std::string& p) { return access(p.c_str(), F_OK) == 0; }

bool Parse(const char* text, VelmocSettings* s) {
  std::vector<char> line(text, text + std::strlen(text) + 1);
  line.resize(line.size() + 64, 0);
  return VelmocParseSwitches(line.data(), s);
}

// ---- Switches --------------------------------------------------------------------------------

TEST(VelmocSwitches, DefaultsAndNames) {
  VelmocSettings s;
  ASSERT_TRUE(Parse("in.y4m out /v100", &s));
  EXPECT_STREQ(s.Input, "in.y4m");
  EXPECT_STREQ(s.Output, "out");
  EXPECT_EQ(s.PeakSetting, 300u);
  EXPECT_EQ(s.KeyInterval, 0x10000000u);
  EXPECT_EQ(s.PreviewFrames, 8u);
  EXPECT_EQ(s.SoundLevel, 4);
  EXPECT_EQ(VelmocVersion(s), 100u);
  char name[64] = "out";
  VelmocDefaultExtension(name, sizeof name, 100);
  EXPECT_STREQ(name, "out.vlm");
  std::strcpy(name, "dir.x/out");
  VelmocDefaultExtension(name, sizeof name, 200);
  EXPECT_STREQ(name, "dir.x/out.vm2");
  std::strcpy(name, "clip.bin");
  VelmocDefaultExtension(name, sizeof name, 100);
  EXPECT_STREQ(name, "clip.bin");
}

TEST(VelmocSwitches, RateAndPeakChecks) {
  VelmocSettings s;
  EXPECT_TRUE(Parse("a b /d200", &s));
  EXPECT_FALSE(Parse("a b /d300", &s));
  EXPECT_FALSE(Parse("a b /d999", &s));
  EXPECT_TRUE(Parse("a b /d1000", &s));
  VelmocSettings p;
  ASSERT_TRUE(Parse("a b /d100000 /m2.5", &p));
  EXPECT_EQ(p.PeakSetting, 250u);
  EXPECT_FALSE(Parse("a b /d100000 /m50000", &s));
  VelmocSettings q;
  ASSERT_TRUE(Parse("a b /d100000 /m150000", &q));
  EXPECT_EQ(q.PeakSetting, 150000u);
  EXPECT_FALSE(Parse("a b /m0.5", &s));
}

TEST(VelmocSwitches, SoundLevelNamesAndUnknownSwitches) {
  VelmocSettings s;
  EXPECT_TRUE(Parse("a b /l-1", &s));
  EXPECT_TRUE(Parse("a b /l199", &s));
  EXPECT_FALSE(Parse("a b /l200", &s));
  EXPECT_FALSE(Parse("a b /l-2", &s));
  EXPECT_FALSE(Parse("a", &s));
  EXPECT_FALSE(Parse("", &s));
  EXPECT_FALSE(Parse("a b /g", &s));  // a switch nobody knows
  VelmocSettings abs;
  EXPECT_TRUE(Parse("/tmp/in.y4m /tmp/out.vlm", &abs));  // paths are not switches
  EXPECT_STREQ(abs.Output, "/tmp/out.vlm");
}

TEST(VelmocSwitches, VersionArithmeticAndFlagWord) {
  VelmocSettings s;
  ASSERT_TRUE(Parse("a b /v200+8192+16384+131072 /i", &s));
  EXPECT_EQ(VelmocVersion(s), 200u);
  const uint32_t f = VelmocFlagWord(s);
  EXPECT_EQ(f & 3u, 3u);  // 8 slices: field 4, less one; /I ORs bit 0
  EXPECT_EQ(f & 0xc000u, 0x4000u);
  EXPECT_EQ(f & 0x3000000u, 0x2000000u);
  EXPECT_EQ(f & ~0x31ac007u, 0u);
  VelmocSettings h;
  ASSERT_TRUE(Parse("a b /v270", &h));
  EXPECT_TRUE(VelmocWantsHdr(h));
  EXPECT_EQ(VelmocVersion(h), 200u);
  EXPECT_TRUE(VelmocFlagWord(h) & VelmoWriterHdr);
  VelmocSettings z;
  ASSERT_TRUE(Parse("a b /v0 /z1000", &z));
  EXPECT_EQ(VelmocVersion(z), 200u);
  EXPECT_EQ(VelmocFlagWord(z) & 0x180000u, 0x180000u);
  ASSERT_TRUE(Parse("a b /z21000", &z));
  EXPECT_EQ(VelmocFlagWord(z) & 0x180000u, 0x100000u);
  ASSERT_TRUE(Parse("a b /z20000", &z));
  EXPECT_EQ(VelmocFlagWord(z) & 0x180000u, 0u);
}

TEST(VelmocSwitches, ExtraTextAndHintName) {
  VelmocSettings s;
  ASSERT_TRUE(Parse("a b /*hello /@hints.txt /+ignored", &s));
  EXPECT_STREQ(s.ExtraText, "hello");
  EXPECT_EQ(s.ExtraTextLength, 6u);  // the terminator counts
  EXPECT_STREQ(s.HintFile, "hints.txt");
  VelmocSettings w;
  ASSERT_TRUE(Parse("in.y4m out.vlm /*- /d5000", &w));
  // The whole line as it stands once /* itself is taken out.
  EXPECT_EQ(std::string(w.ExtraText).rfind("in.y4m out.vlm", 0), 0u);
  EXPECT_NE(std::strstr(w.ExtraText, "/d5000"), nullptr);
  EXPECT_EQ(std::strstr(w.ExtraText, "/*"), nullptr);
}

// ---- Hint files ------------------------------------------------------------------------------

VelmocHints EmptyHints(uint32_t frames) {
  VelmocHints h;
  VelmocLoadHints(nullptr, 0, frames, 0, &h);
  return h;
}

TEST(VelmocHintFile, ColumnsRangesAndStars) {
  VelmocHints h = EmptyHints(20);
  VelmocApplyHintLine("3 5 50000 2.5 1 * * * 120 2.2 3", 0, 20, 80000, &h);
  EXPECT_EQ(h.Rate[1], 0xffffffffu);
  for (int i = 2; i <= 4; ++i) {
    EXPECT_EQ(h.Rate[i], 50000u);
    EXPECT_EQ(h.Peak[i], 250u);
    EXPECT_EQ(h.Key[i], 1);
    EXPECT_EQ(h.Bright[i], 120u);
    EXPECT_FLOAT_EQ(h.Gamma[i], 2.2f);
    EXPECT_EQ(h.Denoise[i], 3);
  }
  EXPECT_EQ(h.Rate[5], 0xffffffffu);
  // Percent rates, reversed and negative ranges, the end cut to the run.
  VelmocApplyHintLine("-1 18 50", 0, 20, 80000, &h);
  for (int i = 17; i < 20; ++i) EXPECT_EQ(h.Rate[i], 40000u) << i;
  VelmocApplyHintLine("19 100 *", 0, 20, 80000, &h);
  EXPECT_EQ(h.Rate[19], 40000u);
}

TEST(VelmocHintFile, LinesWithoutEffect) {
  VelmocHints h = EmptyHints(10);
  const VelmocHints before = h;
  VelmocApplyHintLine("0 5 9000", 0, 10, 0, &h);      // start 0
  VelmocApplyHintLine("11 12 9000", 0, 10, 0, &h);    // beyond the run
  VelmocApplyHintLine("7", 0, 10, 0, &h);             // one column
  VelmocApplyHintLine("3 4 9000", 5, 10, 0, &h);      // before a run that starts at frame 6
  VelmocApplyHintLine("", 0, 10, 0, &h);
  EXPECT_EQ(h.Rate, before.Rate);
  EXPECT_EQ(h.Key, before.Key);
  VelmocApplyHintLine("-1 -1 9000", 5, 10, 0, &h);    // the run's last frame (input frame 15)
  EXPECT_EQ(h.Rate[9], 9000u);
  EXPECT_EQ(h.Rate[8], 0xffffffffu);
}

TEST(VelmocHintFile, ByteFillReachesAQuarterOfTheRange) {
  VelmocHints h = EmptyHints(16);
  VelmocApplyHintLine("1 8 * * * 0x105 7 9", 0, 16, 0, &h);  // contrast parses as 0
  VelmocApplyHintLine("1 8 * * * 261", 0, 16, 0, &h);       // 261 = 0x105: low byte 5
  EXPECT_EQ(h.Contrast[0], 0x05050505u);
  EXPECT_EQ(h.Contrast[1], 0x05050505u);
  EXPECT_EQ(h.Contrast[2], 0u);  // eight bytes reach two words only
  EXPECT_EQ(h.Smooth[1], 0x07070707u);
  EXPECT_EQ(h.BlackClamp[1], 0x09090909u);
  EXPECT_EQ(h.BlackClamp[2], 0u);
}

TEST(VelmocHintFile, ReadFromFile) {
  const std::string dir = TempDir();
  const std::string path = dir + "/hints.txt";
  FILE* f = std::fopen(path.c_str(), "w");
  std::fputs("2 3 7000\n\n5 * 8000 * 1\n", f);
  std::fclose(f);
  VelmocHints h;
  ASSERT_TRUE(VelmocLoadHints(path.c_str(), 0, 6, 0, &h));
  EXPECT_EQ(h.Rate[1], 7000u);
  EXPECT_EQ(h.Rate[2], 7000u);
  EXPECT_EQ(h.Rate[4], 0xffffffffu);  // "*" as the end: the line is dropped (no number)
  EXPECT_FALSE(VelmocLoadHints((dir + "/none.txt").c_str(), 0, 6, 0, &h));
  std::remove(path.c_str());
  rmdir(dir.c_str());
}

// ---- The writer ------------------------------------------------------------------------------

std::vector<uint32_t> Picture(uint32_t w, uint32_t h, uint32_t t) {
  std::vector<uint32_t> p(size_t(w) * h);
  for (uint32_t y = 0; y < h; ++y)
    for (uint32_t x = 0; x < w; ++x) {
      const uint32_t r = (x * 7 + t * 3) & 255, g = (y * 5 + ((x / 8 + y / 8 + t) & 1) * 90) & 255,
                     b = (x ^ y) & 255;
      p[size_t(y) * w + x] = 0xff000000u | r << 16 | g << 8 | b;
    }
  return p;
}

struct WriterLog {
  std::vector<std::string> messages;
  std::string path;
  std::vector<uint32_t> framesAtLabel, parsedFrames;
};

int LogProgress(uint32_t kind, VelmoWriter* w, const char* text) {
  WriterLog* log = static_cast<WriterLog*>(w->UserData);
  if (kind == VelmoProgressMessage) log->messages.push_back(text);
  if (kind == VelmoProgressLabel && !log->path.empty()) {
    // What a player sees of the growing file right now.
    Velmo1FileCheck check;
    if (!Velmo1CheckOpen(log->path.c_str(), &check)) {
      log->framesAtLabel.push_back(w->FramesWritten);
      log->parsedFrames.push_back(check.Info.Header.Frames);
      EXPECT_EQ(Velmo1CheckDecode(check, nullptr, nullptr), check.Info.Header.Frames);
    }
  }
  return 0;
}

VelmoWriter* OpenWriter(const std::string& out, uint32_t frames, WriterLog* log, uint32_t w = 64,
                        uint32_t h = 48) {
  return VelmoWriterOpen(out.c_str(), 0, 100, w, h, frames, 0, nullptr, 0, 30, 1, 0, nullptr, 2,
                         10000, nullptr, 0, LogProgress, log);
}

void Feed(VelmoWriter* w, uint32_t from, uint32_t to) {
  for (uint32_t t = from; t < to; ++t) {
    std::vector<uint32_t> pic = Picture(w->Width, w->Height, t);
    ASSERT_TRUE(VelmoWriterAddFrame(w, 3000, 9000, false, pic.data(), int32_t(w->Width * 4), false));
    VelmoWriterCommit(w);
  }
}

TEST(VelmoWriterFile, CheckpointsKeepTheGrowingFilePlayable) {
  const std::string dir = TempDir(), out = dir + "/grow.vlm";
  WriterLog log;
  VelmoWriter* w = OpenWriter(out, 12, &log);
  ASSERT_NE(w, nullptr);
  EXPECT_TRUE(Exists(out + ".tmp"));
  w->CheckpointBytes = 1;  // a checkpoint after every frame
  w->NextCheckpointBytes = w->FileSize + 1;
  log.path = out + ".tmp";
  Feed(w, 0, 12);
  // Before each frame is encoded, the file on disk holds exactly the frames written so far
  // (from the first checkpoint on), and they decode.
  ASSERT_GE(log.parsedFrames.size(), 8u);
  for (size_t i = 0; i < log.parsedFrames.size(); ++i)
    EXPECT_EQ(log.parsedFrames[i], log.framesAtLabel[i]) << i;
  EXPECT_GT(VelmoWriterClose(w, false), 0u);
  EXPECT_FALSE(Exists(out + ".tmp"));
  Velmo1FileCheck check;
  ASSERT_EQ(Velmo1CheckOpen(out.c_str(), &check), nullptr);
  EXPECT_EQ(check.Info.Header.Frames, 12u);
  EXPECT_TRUE(VelmoEntryIsKey(check.Offsets[0]));
  std::remove(out.c_str());
  rmdir(dir.c_str());
}

TEST(VelmoWriterFile, CancelKeepsOrDiscards) {
  const std::string dir = TempDir(), kept = dir + "/kept.vlm", dropped = dir + "/dropped.vlm";
  WriterLog log;
  VelmoWriter* w = OpenWriter(kept, 30, &log);
  ASSERT_NE(w, nullptr);
  Feed(w, 0, 7);
  VelmoWriterClose(w, false);  // keep: what was fed, queue included
  Velmo1FileCheck check;
  ASSERT_EQ(Velmo1CheckOpen(kept.c_str(), &check), nullptr);
  EXPECT_EQ(check.Info.Header.Frames, 7u);
  EXPECT_EQ(check.Info.Header.IndexFrames, 30u);
  EXPECT_EQ(Velmo1CheckDecode(check, nullptr, nullptr), 7u);

  w = OpenWriter(dropped, 30, &log);
  ASSERT_NE(w, nullptr);
  Feed(w, 0, 7);
  VelmoWriterClose(w, true);
  EXPECT_FALSE(Exists(dropped));
  EXPECT_FALSE(Exists(dropped + ".tmp"));
  EXPECT_TRUE(log.messages.empty());
  std::remove(kept.c_str());
  rmdir(dir.c_str());
}

TEST(VelmoWriterFile, FailedRenameAndOverwriteAreTold) {
  const std::string dir = TempDir();
  WriterLog log;
  // The output name is a folder that is not empty: deleting it fails, the temporary file stays.
  const std::string busy = dir + "/busy.vlm";
  mkdir(busy.c_str(), 0700);
  const std::string inside = busy + "/x";
  std::fclose(std::fopen(inside.c_str(), "w"));
  VelmoWriter* w = OpenWriter(busy, 3, &log);
  ASSERT_NE(w, nullptr);
  Feed(w, 0, 3);
  VelmoWriterClose(w, false);
  ASSERT_EQ(log.messages.size(), 1u);
  EXPECT_EQ(log.messages[0], "Velmo couldn't overwrite, '" + busy +
                                 "', so the new Velmo file is called: '" + busy + ".tmp'.");
  EXPECT_TRUE(Exists(busy + ".tmp"));
  // A rename into a folder that is gone fails.
  log.messages.clear();
  const std::string sub = dir + "/sub";
  mkdir(sub.c_str(), 0700);
  w = OpenWriter(sub + "/gone.vlm", 2, &log);
  ASSERT_NE(w, nullptr);
  Feed(w, 0, 2);
  ASSERT_EQ(std::rename((sub + "/gone.vlm.tmp").c_str(), (dir + "/moved.tmp").c_str()), 0);
  VelmoWriterClose(w, false);
  ASSERT_EQ(log.messages.size(), 1u);
  EXPECT_EQ(log.messages[0], "Velmo couldn't rename the temporary file.");
  // No temporary file can be made in a missing folder.
  log.messages.clear();
  EXPECT_EQ(OpenWriter(dir + "/none/x.vlm", 2, &log), nullptr);
  ASSERT_EQ(log.messages.size(), 1u);
  EXPECT_EQ(log.messages[0].rfind("Couldn't create temporary file.", 0), 0u);
  std::remove(inside.c_str());
  std::remove((busy + ".tmp").c_str());
  std::remove((dir + "/moved.tmp").c_str());
  rmdir(busy.c_str());
  rmdir(sub.c_str());
  rmdir(dir.c_str());
}

TEST(VelmoWriterPixels, IntegerMatricesOnGreyAndPrimaries) {
  const uint32_t px[4] = {0xff000000u, 0xffffffffu, 0xffff0000u, 0xff0000ffu};
  uint8_t y[4], cr[2], cb[2];
  VelmoConvertPixels(px, 16, false, 4, 1, false, {y, cr, cb, nullptr, 4, 1});
  EXPECT_EQ(y[0], 16);
  EXPECT_EQ(y[1], 235);
  VelmoConvertPixels(px, 16, false, 4, 1, true, {y, cr, cb, nullptr, 4, 1});
  EXPECT_EQ(y[0], 0);
  EXPECT_EQ(y[1], 255);
  const uint32_t grey[4] = {0xff808080u, 0xff808080u, 0xff808080u, 0xff808080u};
  uint8_t a[4];
  VelmoConvertPixels(grey, 8, false, 2, 2, true, {y, cr, cb, a, 2, 1});
  EXPECT_EQ(cr[0], 128);
  EXPECT_EQ(cb[0], 128);
  EXPECT_EQ(a[3], 255);
  const uint32_t red[4] = {0xffff0000u, 0xffff0000u, 0xffff0000u, 0xffff0000u};
  VelmoConvertPixels(red, 8, false, 2, 2, true, {y, cr, cb, nullptr, 2, 1});
  EXPECT_EQ(cr[0], 255);  // clipped at the top
  const float fred[16] = {1, 0, 0, 1, 1, 0, 0, 1, 1, 0, 0, 1, 1, 0, 0, 1};
  uint8_t fy[4], fcr[1], fcb[1];
  VelmoConvertPixels(fred, 32, true, 2, 2, true, {fy, fcr, fcb, nullptr, 2, 1});
  EXPECT_NEAR(fy[0], y[0], 1);
  EXPECT_NEAR(fcr[0], 255, 1);
}

// ---- Whole runs through the tool shell ---------------------------------------------------------

// A generated clip served through the source table.
struct ClipSource {
  uint32_t frames, first;
  std::vector<uint32_t> pic;
};
VelmocSource* ClipOpen(const char* name, uint32_t first, uint32_t last, char* error, size_t size) {
  if (std::strcmp(name, "clip") != 0) {
    std::snprintf(error, size, "no such clip");
    return nullptr;
  }
  ClipSource* c = new ClipSource{std::min<uint32_t>(last, 15) - first + 1, first, {}};
  return reinterpret_cast<VelmocSource*>(c);
}
void ClipInfo(const VelmocSource* s, VelmocSourceInfo* out) {
  const ClipSource* c = reinterpret_cast<const ClipSource*>(s);
  *out = {};
  out->Width = 80;
  out->Height = 56;
  out->RateNumerator = 30;
  out->RateDenominator = 1;
  out->Frames = c->frames;
  out->SkippedFrames = c->first;
  out->InputFrames = 16;
  out->InputBytes = 80 * 56 * 3 * 16;
}
bool ClipFrame(VelmocSource* s, uint32_t index, const uint32_t** pixels, int32_t* pitch) {
  ClipSource* c = reinterpret_cast<ClipSource*>(s);
  if (index >= c->frames) return false;
  c->pic = Picture(80, 56, c->first + index);
  *pixels = c->pic.data();
  *pitch = 80 * 4;
  return true;
}
void ClipClose(VelmocSource* s) { delete reinterpret_cast<ClipSource*>(s); }
const VelmocSourceOps ClipOps{ClipOpen, ClipInfo, ClipFrame, ClipClose, nullptr, nullptr};

int RunTool(const std::string& tail) {
  VelmocRegisterDialog();
  ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
  VelmocSetSource(&ClipOps);
  const int code = ToolFrameRun(nullptr, 0, tail.c_str(), 1, true, VelmocMain, VelmocCommand, "velmoc");
  VelmocSetSource(nullptr);
  return code;
}

TEST(VelmocRun, CompressesAClipThatDecodesWell) {
  const std::string dir = TempDir(), out = dir + "/clip.vlm";
  ASSERT_EQ(RunTool("clip " + out + " /v101 /d60000 /*made-by-test"), ToolExitDone);
  Velmo1FileCheck check;
  ASSERT_EQ(Velmo1CheckOpen(out.c_str(), &check), nullptr);
  EXPECT_EQ(check.Info.Header.Magic, VelmoMagicVLMk);
  EXPECT_EQ(check.Info.Header.Frames, 16u);
  EXPECT_TRUE(check.Info.Header.Flags & VelmoFlagFullRange);
  EXPECT_EQ(check.Info.Extras.TextSize, 16u);  // "made-by-test" and its zero, padded
  uint32_t frames = 0;
  const double psnr = Velmo1CheckPsnr(check, &ClipOps, "clip", 0, &frames);
  EXPECT_EQ(frames, 16u);
  EXPECT_GT(psnr, 28.0);
  EXPECT_LT(psnr, 99.0);
  // A second run without /O meets the existing file; the console takes the default answer No.
  EXPECT_EQ(RunTool("clip " + out + " /v101"), ToolExitNoOverwrite);
  EXPECT_EQ(RunTool("clip " + out + " /v101 /o /s5 /e8"), ToolExitDone);
  ASSERT_EQ(Velmo1CheckOpen(out.c_str(), &check), nullptr);
  EXPECT_EQ(check.Info.Header.Frames, 4u);
  std::remove(out.c_str());
  rmdir(dir.c_str());
}

TEST(VelmocRun, ExitCodes) {
  const std::string dir = TempDir(), out = dir + "/x.vlm";
  EXPECT_EQ(RunTool("clip " + out + " /d300"), ToolExitBadSwitches);
  EXPECT_EQ(RunTool("clip"), ToolExitBadSwitches);
  EXPECT_EQ(RunTool("missing " + out + " /v100"), ToolExitInputError);
  EXPECT_EQ(RunTool("clip " + out + " /v270"), ToolExitNotHdr);
  EXPECT_EQ(RunTool("missing " + out + " /v200"), ToolExitOutputError);  // said before the input
  EXPECT_FALSE(Exists(out));
  EXPECT_FALSE(Exists(out + ".tmp"));
  // Alpha asked on an input without it: the console answers the question with its default
  // (No: go on), and the run ends well without alpha.
  EXPECT_EQ(RunTool("clip " + out + " /v100 /z1000"), ToolExitDone);
  Velmo1FileCheck check;
  ASSERT_EQ(Velmo1CheckOpen(out.c_str(), &check), nullptr);
  EXPECT_FALSE(check.Info.Header.Flags & VelmoFlagAlpha);
  EXPECT_EQ(RunTool("clip " + dir + "/y.vm2 /v200"), ToolExitOutputError);
  std::remove(out.c_str());
  rmdir(dir.c_str());
}

}  // namespace
