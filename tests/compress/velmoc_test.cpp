// The compressor tool and its writer: switches, hint files, checkpoints mid-run, cancel,
// rename failures, and whole runs through the tool shell's console front end.
#include <gtest/gtest.h>

#include <sys/stat.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "compress/frame_planes.h"
#include "compress_test_util.h"
#include "convert/output.h"
#include "host/platform.h"
#include "format/container.h"
#include "support/picture.h"
#include "support/scripted_answers.h"
#include "velmo.h"

namespace {

using namespace compress_test;
using namespace test_support;

bool Parse(const char* text, VelmocSettings* s) {
  std::vector<char> line(text, text + std::strlen(text) + 1);
  line.resize(line.size() + 64, 0);
  return VelmocParseSwitches(line.data(), s);
}

// ---- Switches --------------------------------------------------------------------------------

TEST(VelmocSwitches, JoinedSwitchesAreReadAsSwitches) {
  VelmocSettings s;
  ASSERT_TRUE(Parse("in.y4m out.vlm/L3 /v200/d5000/{0", &s));
  EXPECT_STREQ(s.Output, "out.vlm");
  EXPECT_EQ(s.SoundLevel, 3);
  EXPECT_EQ(s.VersionSwitch, 200u);
  EXPECT_EQ(s.DataRate, 5000);
  EXPECT_EQ(s.Media.contrast, 0u);
  // A letter that neither the compressor nor the media layer knows keeps the word a path.
  VelmocSettings unknown;
  ASSERT_TRUE(Parse("in.y4m out.vlm/%3", &unknown));
  EXPECT_STREQ(unknown.Output, "out.vlm/%3");
  EXPECT_EQ(unknown.SoundLevel, 4);
}

TEST(VelmocSwitches, DefaultsAndExtensions) {
  VelmocSettings s;
  ASSERT_TRUE(Parse("in.y4m out /v100", &s));
  EXPECT_STREQ(s.Input, "in.y4m");
  EXPECT_STREQ(s.Output, "out");
  EXPECT_EQ(s.PeakSetting, 300u);
  EXPECT_EQ(s.KeyInterval, 0x10000000u);
  EXPECT_EQ(s.PreviewFrames, 8u);
  EXPECT_EQ(s.SoundLevel, 4);
  EXPECT_EQ(VelmocVersion(s), 100u);
  VelmocSettings d;
  ASSERT_TRUE(Parse("a b", &d));
  EXPECT_EQ(d.Media.open_flags, uint32_t(MediaOpenCompressorDefault));
  EXPECT_EQ(d.Media.brightness, 100u);
  EXPECT_DOUBLE_EQ(d.Media.gamma, 1.0);
  EXPECT_EQ(d.StartFrame, 0);
  EXPECT_EQ(d.ForceRateNum, 0);
  const struct {
    const char* Name;
    uint32_t Version;
    const char* Want;
  } names[] = {{"out", 100, "out.vlm"}, {"dir.x/out", 200, "dir.x/out.vm2"}, {"clip.bin", 100, "clip.bin"}};
  for (const auto& n : names) {
    char name[64];
    std::strcpy(name, n.Name);
    VelmocDefaultExtension(name, sizeof name, n.Version);
    EXPECT_STREQ(name, n.Want);
  }
}

// The compressor reads its own switches first; the media layer gets what is left. Letters that
// both know (/D /T /I /U /$) keep the compressor's meaning; /S /E /F /A and /Z reach both.
TEST(VelmocSwitches, CompressorFirstThenVideoSwitches) {
  VelmocSettings s;
  ASSERT_TRUE(Parse("in.avi out /v101 /d5000 /t2 /i /u4 /$500 /s3 /e-2 /f24 /a12 /z11102 "
                    "/x4 /y2 /w32 /h16 /:50 /[90 /]2 /(160 /)-1", &s));
  EXPECT_EQ(s.DataRate, 5000);
  EXPECT_EQ(s.TrackId, 2);
  EXPECT_TRUE(s.Grayscale);
  EXPECT_EQ(s.Cpus, 4u);
  EXPECT_EQ(s.Nits, 500u);
  EXPECT_EQ(s.Graphics, 11102u);
  EXPECT_EQ(s.StartFrame, 3);
  EXPECT_EQ(s.EndFrame, -2);
  EXPECT_EQ(s.ForceRateNum, 24);
  EXPECT_EQ(s.ForceRateDen, 1);
  EXPECT_EQ(s.AdjustRateNum, 12);
  EXPECT_EQ(s.AdjustRateDen, 1);
  const MediaSwitches& m = s.Media;
  EXPECT_EQ(m.start, 3);
  EXPECT_EQ(m.end, -2);
  // 11102: no alpha warning, alpha, bi-linear scaling; the palette mode 2 is dropped.
  EXPECT_EQ(m.open_flags, uint32_t(MediaOpenCompressorDefault | MediaOpenNoAlphaWarning |
                                   MediaOpenAlpha | MediaOpenLinear));
  EXPECT_EQ(m.crop_x, 4);
  EXPECT_EQ(m.crop_y, 2);
  EXPECT_EQ(m.crop_w, 32);
  EXPECT_EQ(m.crop_h, 16);
  EXPECT_EQ(m.smooth, 50u);
  EXPECT_EQ(m.brightness, 90u);
  EXPECT_DOUBLE_EQ(m.gamma, 0.5);
  EXPECT_EQ(m.scale_w, 160);
  EXPECT_EQ(m.scale_h, -1);
  // The letters the compressor took never reach the media layer.
  EXPECT_EQ(m.system_colours, 0u);
  EXPECT_EQ(m.halftone, 0u);
  EXPECT_EQ(m.rotation, 0u);
  EXPECT_EQ(m.palette_interval, 0x10000u);
  EXPECT_STREQ(s.Input, "in.avi");
  EXPECT_STREQ(s.Output, "out");
}

// Rates below 1000 but above 200 are refused, peaks below the rate too; levels run -1 to 199.
TEST(VelmocSwitches, LinesAcceptedOrRefused) {
  const struct {
    const char* Line;
    bool Ok;
  } lines[] = {{"a b /d200", true},   {"a b /d300", false},  {"a b /d999", false},
               {"a b /d1000", true},  {"a b /d100000 /m50000", false},
               {"a b /m0.5", false},  {"a b /l-1", true},    {"a b /l199", true},
               {"a b /l200", false},  {"a b /l-2", false},   {"a", false},
               {"", false},           {"a b /g", false},     {"a b /q16", true}};
  for (const auto& l : lines) {
    VelmocSettings s;
    EXPECT_EQ(Parse(l.Line, &s), l.Ok) << l.Line;
  }
  VelmocSettings p;
  ASSERT_TRUE(Parse("a b /d100000 /m2.5", &p));
  EXPECT_EQ(p.PeakSetting, 250u);
  ASSERT_TRUE(Parse("a b /d100000 /m150000", &p));
  EXPECT_EQ(p.PeakSetting, 150000u);
  VelmocSettings d;
  ASSERT_TRUE(Parse("a b /f-40", &d));  // a 40 ms frame: 25 frames a second
  EXPECT_EQ(d.ForceRateNum, 25);
  EXPECT_EQ(d.ForceRateDen, 1);
  VelmocSettings abs;
  EXPECT_TRUE(Parse("/tmp/in.y4m /tmp/out.vlm", &abs));  // paths are not switches
  EXPECT_STREQ(abs.Output, "/tmp/out.vlm");
}

// A value that a switch does not take is named with what the switch takes; the compressor's
// holding rules (/P to 2..64, /$ to 80..10000) hold without a word.
TEST(VelmocSwitches, RefusedValuesAreNamed) {
  const struct {
    const char* Line;
    const char* Message;
  } refused[] = {
      {"a b /d-1", "/d-1: the data rate must be 1 to 200 (percent of the input) or 1000 and up"},
      {"a b /D500", "/D500: the data rate must be"},
      {"a b /M11", "/M11: the peak rate must be 1.0 to 10.0"},
      {"a b /m0.5", "/m0.5: the peak rate must be"},
      {"a b /d100000 /m50000", "/M50000: a peak rate in bytes per second must be at least"},
      {"a b /L200", "/L200: the sound level must be -1 (no sound) to 199."},
      {"a b /K-3", "/K-3: the key frame interval must be 0 frames or more."},
      {"a b /T-1", "/T-1: the track ID must be 0 or more."},
      {"a b /N-5", "/N-5: the key frame rate must be 0 bytes per second or more."},
      // One each of the shared sound and video switches (their own tests go through them all).
      {"a b /B7", "/B7: the output bits must be 8 or 16."},
      {"a b /F0", "/F0: the frame rate must be above 0"},
      {"a b /V250", "/V250: the version must be"},
      {"a b /V99", "/V99: the version must be"},
      {"a b /V100+10240", "/V100+10240: the version must be"},  // five slices
  };
  for (const auto& r : refused) {
    VelmocSettings s;
    EXPECT_FALSE(Parse(r.Line, &s)) << r.Line;
    EXPECT_EQ(std::string(s.Errors.text).rfind(r.Message, 0), 0u) << r.Line << ": " << s.Errors.text;
  }
  const struct {
    const char* Line;
    uint32_t Preview, Nits;
  } held[] = {{"a b /p1000 /$20000", 64, 10000}, {"a b /p1 /$5", 2, 80}, {"a b /p-4 /$-1", 2, 80}};
  for (const auto& h : held) {
    VelmocSettings s;
    ASSERT_TRUE(Parse(h.Line, &s)) << h.Line << ": " << s.Errors.text;
    EXPECT_EQ(s.PreviewFrames, h.Preview) << h.Line;
    EXPECT_EQ(s.Nits, h.Nits) << h.Line;
  }
  VelmocSettings ok;
  EXPECT_TRUE(Parse("a b /v101+2048+16384+65536 /b116 /c2 /r22050 /l-1 /m10 /d200", &ok))
      << ok.Errors.text;
  EXPECT_FALSE(ok.Errors.Failed());
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
  // /Z's alpha digit: version 0 takes the second generation; 1 and 2 set both or one bit.
  const struct {
    const char* Line;
    uint32_t Bits;
  } alpha[] = {{"a b /v0 /z1000", 0x180000u}, {"a b /v0 /z21000", 0x100000u}, {"a b /v0 /z20000", 0u}};
  for (const auto& a : alpha) {
    VelmocSettings z;
    ASSERT_TRUE(Parse(a.Line, &z));
    EXPECT_EQ(VelmocVersion(z), 200u);
    EXPECT_EQ(VelmocFlagWord(z) & 0x180000u, a.Bits) << a.Line;
  }
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
  // At most 1019 characters are kept, and the terminator makes 1020.
  VelmocSettings l;
  ASSERT_TRUE(Parse(("a b /*" + std::string(1500, 'x') + " /d5000").c_str(), &l));
  EXPECT_EQ(std::strlen(l.ExtraText), 1019u);
  EXPECT_EQ(l.ExtraTextLength, 1020u);
  EXPECT_EQ(l.DataRate, 5000);
}

// ---- Hint files ------------------------------------------------------------------------------

VelmocHints EmptyHints(uint32_t frames) {
  VelmocHints h;
  VelmocLoadHints(nullptr, 0, frames, 0, nullptr, &h);
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
  const ScratchDir dir;
  const std::string path = dir / "hints.txt";
  WriteText(path, "2 3 7000\n\n5 * 8000 * 1\n");
  VelmocHints h;
  ASSERT_TRUE(VelmocLoadHints(path.c_str(), 0, 6, 0, nullptr, &h));
  EXPECT_EQ(h.Rate[1], 7000u);
  EXPECT_EQ(h.Rate[2], 7000u);
  EXPECT_EQ(h.Rate[4], 0xffffffffu);  // "*" as the end: the line is dropped (no number)
  EXPECT_FALSE(VelmocLoadHints((dir / "none.txt").c_str(), 0, 6, 0, nullptr, &h));
}

TEST(VelmocHintFile, AZeroColumnTurnsTheSwitchedFilterOff) {
  VelmocSettings s;
  ASSERT_TRUE(Parse("a b /~1 /:2 /{9 /}4 /[120", &s));
  VelmocHints h;
  ASSERT_TRUE(VelmocLoadHints(nullptr, 0, 12, 0, &s.Media, &h));
  // Frames 1 to 8: contrast, smooth, black clamp, brightness and denoise all set to 0.
  VelmocApplyHintLine("1 8 * * * 0 0 0 0 * 0", 0, 12, 0, &h);
  const MediaFrameArgs off = VelmocFrameFilters(s.Media, h, 0);
  EXPECT_EQ(off.contrast, 0u);
  EXPECT_EQ(off.smooth, 0u);
  EXPECT_EQ(off.black_clamp, 0u);
  EXPECT_EQ(off.brightness, 0u);
  EXPECT_EQ(off.denoise, 0u);
  // The byte-filled columns reach two words of eight; the word columns reach all eight.
  const MediaFrameArgs mixed = VelmocFrameFilters(s.Media, h, 7);
  EXPECT_EQ(mixed.contrast, 9u);
  EXPECT_EQ(mixed.smooth, 2u * 0x1000100u);
  EXPECT_EQ(mixed.black_clamp, 4u);
  EXPECT_EQ(mixed.brightness, 0u);
  EXPECT_EQ(mixed.denoise, 0u);
  // Outside the line's range the switches stand.
  const MediaFrameArgs outside = VelmocFrameFilters(s.Media, h, 8);
  EXPECT_EQ(outside.contrast, 9u);
  EXPECT_EQ(outside.smooth, 2u * 0x1000100u);
  EXPECT_EQ(outside.black_clamp, 4u);
  EXPECT_EQ(outside.brightness, 120u);
  EXPECT_EQ(outside.denoise, 1u);
}

// ---- The writer ------------------------------------------------------------------------------

// The writer and its frame loop at 64 x 48, version 100, preview 2; messages go to `log`.
bool OpenWriter(TestCompression* c, const std::string& out, uint32_t frames, WriterLog* log) {
  return c->Open(out, 100, 64, 48, frames, 2, LogWriterMessages, log);
}

TEST(VelmoWriterFile, CancelKeepsOrDiscards) {
  const ScratchDir dir;
  const std::string kept = dir / "kept.vlm", dropped = dir / "dropped.vlm";
  WriterLog log;
  TestCompression c;
  ASSERT_TRUE(OpenWriter(&c, kept, 30, &log));
  c.Feed(0, 7);
  c.Close(false);  // keep: what was fed, queue included
  const Velmo1FileCheck check = Played(kept);
  EXPECT_EQ(check.Info.Header.Frames, 7u);
  EXPECT_EQ(check.Info.Header.IndexFrames, 30u);
  ASSERT_TRUE(OpenWriter(&c, dropped, 30, &log));
  c.Feed(0, 7);
  c.Close(true);
  EXPECT_TRUE(NoOutput(dropped));
  EXPECT_TRUE(log.empty());
}

// A run cancelled at frame 4 by the progress callback's answer (stop at the next frame) or by
// the dialog's keep (stop now): no frame is coded after it, and the kept file plays the frames
// written before. The queue's frames were never coded, so a kept file leaves them out.
struct CancelAt {
  uint32_t Frame, State, Calls;
};
int CancelProgress(uint32_t kind, VelmoWriter* w, const char*) {
  CancelAt& c = *static_cast<CancelAt*>(w->UserData);
  if (kind != VelmoProgressLabel || w->ProgressFrame != c.Frame) return 0;
  c.Calls++;
  if (c.State == VelmoCancelKeep) w->CancelRequested = VelmoCancelKeep;
  return c.State == VelmoCancelDiscard;
}

TEST(VelmoWriterFile, CancelStatesStopTheCoding) {
  const ScratchDir dir;
  for (const uint32_t state : {uint32_t(VelmoCancelDiscard), uint32_t(VelmoCancelKeep)}) {
    SCOPED_TRACE(state);
    const std::string out = dir / ("c" + std::to_string(state) + ".vlm");
    CancelAt cancel{4, state, 0};
    TestCompression c;
    ASSERT_TRUE(c.Open(out, 100, 64, 48, 12, 3, CancelProgress, &cancel));
    // Frames offered after the cancel wait in the queue until it is full.
    uint32_t offered = 0;
    while (offered < 12 && c.Add(offered, 3000, 9000)) ++offered;
    EXPECT_EQ(offered, 7u);  // the four written and a full queue of three
    EXPECT_EQ(c.Writer->CancelRequested, state);
    EXPECT_EQ(c.Writer->FramesWritten, 4u);
    EXPECT_EQ(cancel.Calls, 1u) << "the frame after the cancel is not started again";
    c.Close(false);  // the cancel holds: the queue is not coded
    EXPECT_EQ(Played(out).Info.Header.Frames, 4u);
  }
}

// The first checkpoint comes right after the first frame; later ones when 2,000,000 bytes more
// are written or 60 s have passed, whichever is first, and are then flushed so that the
// temporary file plays that far; a checkpoint that cannot have the file for 250 ms gives up
// without harm.
TEST(VelmoWriterFile, CheckpointGates) {
  const ScratchDir dir;
  WriterLog log;
  const std::string out = dir / "gates.vlm", tmp = out + ".tmp";
  auto onDisk = [&] {
    const std::vector<uint8_t> b = ReadFile(tmp);
    return b.size() < 12 ? ~0u : Le32(b, 8);
  };
  TestCompression c;
  ASSERT_TRUE(OpenWriter(&c, out, 30, &log));
  VelmoWriter* w = c.Writer;
  EXPECT_EQ(w->NextCheckpointBytes, w->FileSize) << "the first frame brings the first checkpoint";
  EXPECT_NEAR(double(w->NextCheckpointTime - TimerMs()), 60000.0, 5000.0);
  c.Feed(0, 5);
  EXPECT_EQ(onDisk(), 1u) << "the first frame's checkpoint; the next waits for its gates";
  EXPECT_GT(w->FramesWritten, 1u);
  w->NextCheckpointTime = TimerMs();  // the clock gate is due
  c.Feed(5, 6);
  EXPECT_EQ(onDisk(), w->FramesWritten);
  EXPECT_EQ(w->NextCheckpointBytes, w->FileSize + 2000000);
  const uint32_t byTime = w->FramesWritten;
  c.Feed(6, 8);
  EXPECT_EQ(onDisk(), byTime);
  w->NextCheckpointBytes = w->FileSize + 1;  // the byte gate is due at the next frame
  c.Feed(8, 9);
  EXPECT_EQ(onDisk(), w->FramesWritten);
  EXPECT_NEAR(double(w->NextCheckpointTime - TimerMs()), 60000.0, 5000.0);
  // The work thread is inside a group of writes: the checkpoint waits 250 ms, then gives up.
  AtomicAdd(&w->WriteGate, 1);
  const uint32_t start = TimerMs();
  EXPECT_FALSE(VelmoWriterCheckpoint(w));
  EXPECT_GE(TimerMs() - start, 250u);
  EXPECT_EQ(w->CheckpointGate, 0u);
  AtomicAdd(&w->WriteGate, -1);
  EXPECT_TRUE(VelmoWriterFlush(w));
}

// The last input frame drains the whole queue in one pump, also when it fills the queue.
TEST(VelmoWriterFile, LastFrameDrainsTheQueue) {
  const ScratchDir dir;
  WriterLog log;
  for (const uint32_t frames : {1u, 2u, 3u, 5u}) {  // preview 2: the last one fills it, or not
    SCOPED_TRACE(frames);
    TestCompression c;
    ASSERT_TRUE(OpenWriter(&c, dir / "d.vlm", frames, &log));
    c.Feed(0, frames);
    EXPECT_EQ(c.Writer->FramesWritten, frames);
    EXPECT_EQ(c.Loop->QueuedFrames, 0u);
  }
}

TEST(VelmoWriterFile, FailedRenameAndOverwriteAreTold) {
  const ScratchDir dir;
  WriterLog log;
  // The output name is a folder that is not empty: deleting it fails, the temporary file stays.
  const std::string busy = dir / "busy.vlm";
  mkdir(busy.c_str(), 0700);
  WriteText(busy + "/x", "");
  TestCompression c;
  ASSERT_TRUE(OpenWriter(&c, busy, 3, &log));
  c.Feed(0, 3);
  c.Close(false);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "Velmo couldn't overwrite, '" + busy +
                                 "', so the new Velmo file is called: '" + busy + ".tmp'.");
  EXPECT_TRUE(Exists(busy + ".tmp"));
  // A rename into a folder that is gone fails.
  log.clear();
  const std::string sub = dir / "sub";
  mkdir(sub.c_str(), 0700);
  ASSERT_TRUE(OpenWriter(&c, sub + "/gone.vlm", 2, &log));
  c.Feed(0, 2);
  ASSERT_EQ(std::rename((sub + "/gone.vlm.tmp").c_str(), (dir / "moved.tmp").c_str()), 0);
  c.Close(false);
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0], "Velmo couldn't rename the temporary file.");
  // No temporary file can be made in a missing folder.
  log.clear();
  EXPECT_FALSE(OpenWriter(&c, dir / "none/x.vlm", 2, &log));
  ASSERT_EQ(log.size(), 1u);
  EXPECT_EQ(log[0].rfind("Couldn't create temporary file.", 0), 0u);
}

// The writer takes coded frames from any encoder: each one's bytes land as given, and every
// nonzero key result (a key frame as asked, or one the encoder promoted) is a key in the index.
TEST(VelmoWriterFile, CodedFramesAndTheirKeyResults) {
  const ScratchDir dir;
  const std::string out = dir / "coded.vlm";
  VelmoWriter* w = VelmoWriterOpen(out.c_str(), 0, 101, 64, 48, 3, 0, nullptr, 30, 1, 0, nullptr,
                                   10000, nullptr, nullptr, nullptr);
  ASSERT_NE(w, nullptr);
  const uint32_t results[3] = {VelmoCodedKey, VelmoCodedInter, VelmoCodedPromoted};
  std::vector<std::vector<uint8_t>> frames;
  for (uint32_t f = 0; f < 3; ++f) {
    frames.emplace_back(12 + 4 * f, uint8_t(0x40 + f));
    EXPECT_EQ(VelmoWriterWriteFrame(w, frames[f].data(), uint32_t(frames[f].size()), results[f]),
              frames[f].size());
  }
  EXPECT_EQ(VelmoWriterWriteFrame(w, frames[0].data(), 4, VelmoCodedKey), 0u) << "index full";
  ASSERT_GT(VelmoWriterClose(w, false), 0u);
  Velmo1FileCheck check;
  ASSERT_EQ(Velmo1CheckOpen(out.c_str(), &check), nullptr);
  ASSERT_EQ(check.Info.Header.Frames, 3u);
  for (uint32_t f = 0; f < 3; ++f) {
    EXPECT_EQ(VelmoEntryIsKey(check.Offsets[f]), f != 1) << f;
    const uint64_t at = VelmoEntryOffset(check.Offsets[f]);
    EXPECT_EQ(VelmoEntryOffset(check.Offsets[f + 1]) - at, frames[f].size());
    EXPECT_TRUE(std::equal(frames[f].begin(), frames[f].end(), check.Bytes.begin() + long(at)));
  }
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

// Planes straight from a planar input: only the range changes, chroma 4:4:4 is averaged over
// 2x2 (odd edges counting their neighbour again), and a colour lands where its RGB form would.
TEST(VelmoWriterPixels, PlanarInputTakesNoTripThroughRgb) {
  const uint8_t y[4] = {16, 235, 126, 60}, cb[2] = {16, 128}, cr[2] = {240, 128};
  uint8_t oy[4], ocr[2], ocb[2];
  VelmoYuvFrame in{y, cb, cr, nullptr, 4, 2, 0, true, false};
  VelmoConvertYuv(in, 4, 1, false, {oy, ocr, ocb, nullptr, 4, 2});
  EXPECT_TRUE(std::equal(y, y + 4, oy)) << "limited range stays as it is";
  EXPECT_EQ(ocb[0], 16);
  EXPECT_EQ(ocr[0], 240);
  VelmoConvertYuv(in, 4, 1, true, {oy, ocr, ocb, nullptr, 4, 2});
  EXPECT_EQ(oy[0], 0);
  EXPECT_EQ(oy[1], 255);
  EXPECT_EQ(oy[2], 128);  // 110 steps of 219 over 255
  EXPECT_EQ(ocb[0], 1);   // 128 - 112 * 255 / 224, rounded
  EXPECT_EQ(ocr[0], 255);

  // 4:4:4, 3 x 2 with alpha: the second chroma column sees its last pixel twice.
  const uint8_t y6[6] = {1, 2, 3, 4, 5, 6}, a6[6] = {9, 8, 7, 6, 5, 4};
  const uint8_t c6[6] = {100, 102, 200, 104, 106, 210};
  uint8_t ty[6], ta[6], tcr[2], tcb[2];
  VelmoConvertYuv({y6, c6, c6, a6, 3, 3, 3, false, true}, 3, 2, true, {ty, tcr, tcb, ta, 3, 2});
  EXPECT_TRUE(std::equal(a6, a6 + 6, ta));
  EXPECT_EQ(tcb[0], 103);
  EXPECT_EQ(tcb[1], 205);
  EXPECT_EQ(tcr[1], 205);

  // A saturated colour in BT.601 limited range, and the same colour as RGB.
  const double r = 200, g = 60, b = 30;
  const auto limited = [](double v) { return uint8_t(std::lround(v)); };
  const uint8_t ly = limited(16 + (0.299 * r + 0.587 * g + 0.114 * b) * 219 / 255);
  const uint8_t lcb = limited(128 + (-0.168736 * r - 0.331264 * g + 0.5 * b) * 224 / 255);
  const uint8_t lcr = limited(128 + (0.5 * r - 0.418688 * g - 0.081312 * b) * 224 / 255);
  const uint8_t py[4] = {ly, ly, ly, ly}, pcb[1] = {lcb}, pcr[1] = {lcr};
  const uint32_t rgb[4] = {0xffc83c1eu, 0xffc83c1eu, 0xffc83c1eu, 0xffc83c1eu};
  for (const bool full : {false, true}) {
    uint8_t fy[4], fcr[1], fcb[1], gy[4], gcr[1], gcb[1];
    VelmoConvertYuv({py, pcb, pcr, nullptr, 2, 1, 0, true, false}, 2, 2, full, {fy, fcr, fcb, nullptr, 2, 1});
    VelmoConvertPixels(rgb, 8, false, 2, 2, full, {gy, gcr, gcb, nullptr, 2, 1});
    EXPECT_NEAR(fy[0], gy[0], 1) << full;
    EXPECT_NEAR(fcr[0], gcr[0], 1) << full;
    EXPECT_NEAR(fcb[0], gcb[0], 1) << full;
  }
}

// ---- Whole runs through the tool shell ---------------------------------------------------------

int RunTool(const std::string& tail) { return RunVelmoc(tail).code; }

TEST(VelmocRun, CompressesAClipThatDecodesWell) {
  const ScratchDir dir;
  const std::string out = dir / "clip.vlm";
  ASSERT_EQ(RunTool("clip " + out + " /v101 /d60000 /*made-by-test"), ToolExitDone);
  const Velmo1FileCheck check = Played(out);
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
  EXPECT_EQ(Played(out).Info.Header.Frames, 4u);
}

// The console front end, except that every question is answered Yes.
void AnswerYes(ToolBox* box) {
  if (box && !box->answered && box->buttonCount > 1 && box->buttons[0] == ToolButtonYes) {
    box->answer = ToolButtonYes;
    box->answered = true;
  }
}
const ToolFrontEnd* SaysYes() {
  static ToolFrontEnd yes = [] {
    ToolFrontEnd f = ConsoleStepping("yes", [](ToolDialog* d, int waitMs) {
      AnswerYes(ToolDialogTopBox(d));
      ToolConsoleFrontEnd()->step(d, waitMs);
    });
    f.box = [](ToolBox* box) {
      AnswerYes(box);
      if (!box->answered) ToolConsoleFrontEnd()->box(box);
    };
    return f;
  }();
  return &yes;
}

// A hint file named with a leading '*' is the run's own: read, then deleted when the run ends,
// also when it ends early. Its key-frame column reaches the file's index; frame 1 is a key
// frame whatever the hints say, and /K adds its own.
// A first-generation rate under the frames' least size is told once, before the frames, with
// the lowest rate the run can meet; a reachable rate and the second generation say nothing.
TEST(VelmocRun, ARateBelowTheFloorIsToldOnceWithTheLowestRate) {
  const ScratchDir dir;
  const std::string low = RunVelmoc("clip " + (dir / "low.vlm") + " /v101 /d1000").output;
  const std::string told = "the lowest rate that can be met is ";
  const size_t at = low.find(told);
  ASSERT_NE(at, std::string::npos) << low;
  EXPECT_EQ(low.find(told, at + 1), std::string::npos) << "told more than once";
  EXPECT_LT(at, low.find("Compressing")) << "told after the frames began";
  const uint32_t lowest = uint32_t(std::stoul(low.substr(at + told.size())));
  EXPECT_GT(lowest, 1000u);
  // At that rate there is nothing to tell.
  const std::string met =
      RunVelmoc("clip " + (dir / "met.vlm") + " /v101 /d" + std::to_string(lowest)).output;
  EXPECT_EQ(met.find(told), std::string::npos) << met;
  const std::string second = RunVelmoc("clip " + (dir / "low.vm2") + " /v200 /d1000").output;
  EXPECT_EQ(second.find(told), std::string::npos) << second;
}

TEST(VelmocRun, TemporaryHintFileAndKeyFrames) {
  const ScratchDir dir;
  const std::string out = dir / "h.vlm", hints = dir / "hints.txt";
  const std::string temporary = " /@\"*" + hints + "\"";  // quoted: the name holds slashes
  WriteText(hints, "1 1 * * 0\n3 3 * * 1\n");
  ASSERT_EQ(RunTool("clip " + out + " /v101 /k5" + temporary), ToolExitDone);
  EXPECT_FALSE(Exists(hints));
  const Velmo1FileCheck check = Played(out);
  std::vector<uint32_t> keys;
  for (uint32_t f = 0; f < check.Info.Header.Frames; ++f)
    if (VelmoEntryIsKey(check.Offsets[f])) keys.push_back(f);
  // Frame 0, the hint's frame 2 (which reloads the countdown), then every fifth after it.
  EXPECT_EQ(keys, (std::vector<uint32_t>{0, 2, 7, 12}));
  WriteText(hints, "1 1 * * 0\n");
  EXPECT_EQ(RunTool("clip " + out + " /v101" + temporary), ToolExitNoOverwrite);
  EXPECT_FALSE(Exists(hints));
  // A hint file that is not there ends the run before any output.
  EXPECT_EQ(RunTool("clip " + dir / "n.vlm" + " /v101" + temporary), ToolExitInputError);
  EXPECT_FALSE(Exists(dir / "n.vlm"));
}

TEST(VelmocRun, QuestionsAnsweredYes) {
  const ScratchDir dir;
  const std::string out = dir / "x.vlm";
  // Yes to the alpha question cancels the run before any output exists.
  EXPECT_EQ(RunVelmoc("clip " + out + " /v100 /z1000", &ClipOps, SaysYes()).code, ToolExitNoAlpha);
  EXPECT_TRUE(NoOutput(out));
  // ... unless the 10000 part of /Z turns the question off: alpha just goes off.
  EXPECT_EQ(RunVelmoc("clip " + out + " /v100 /z11000 /e2", &ClipOps, SaysYes()).code, ToolExitDone);
  // Yes to the overwrite question replaces the file.
  EXPECT_EQ(RunVelmoc("clip " + out + " /v100 /e3", &ClipOps, SaysYes()).code, ToolExitDone);
  const Velmo1FileCheck check = Played(out);
  EXPECT_EQ(check.Info.Header.Frames, 3u);
  EXPECT_EQ(check.Info.Header.Magic, VelmoMagicVLMi);
}

// The dialog's cancel: the user presses Cancel once frame 4 has been read, says Yes to "Cancel
// the compression?" and Yes or No to keeping the frames. The clip holds frame 4 back until
// the answer is in, so the run cannot end first.
struct CancelScript {
  int Keep = ToolButtonYes;
  volatile uint32_t FramesRead = 0, Sent = 0, Answered = 0;
  std::vector<std::string> Asked;
} g_script;

void CancelStep(ToolDialog* d, int) {
  if (ToolBox* box = ToolDialogTopBox(d)) {
    const std::string text = box->text;
    g_script.Asked.push_back(text);
    const bool keep = text.rfind("Keep the frames", 0) == 0;
    box->answer = keep ? g_script.Keep : ToolButtonYes;
    box->answered = true;
    if (keep) AtomicStore(&g_script.Answered, 1);
  }
  if (!g_script.Sent && AtomicRead(&g_script.FramesRead) >= 4) {
    g_script.Sent = 1;
    ToolDialogUserCommand(d, ToolIdCancel);
  }
  ToolConsoleFrontEnd()->step(d, 2);
}

bool HeldClipFrame(VelmocSource* s, uint32_t index, const uint32_t** pixels, int32_t* pitch) {
  AtomicAdd(&g_script.FramesRead, 1);
  for (uint32_t start = TimerMs(); index >= 4 && !AtomicRead(&g_script.Answered) &&
                                   TimerMs() - start < 10000;)
    ThreadSleep(1);
  return ClipFrame(s, index, pixels, pitch);
}
const VelmocSourceOps HeldClipOps{ClipOpen, ClipInfo, HeldClipFrame, ClipClose,
                                  nullptr, nullptr, nullptr};

TEST(VelmocRun, CancelKeepsOrDiscardsTheFrames) {
  const ScratchDir dir;
  static const ToolFrontEnd canceller = ConsoleStepping("canceller", CancelStep);
  for (const int keep : {ToolButtonYes, ToolButtonNo}) {
    SCOPED_TRACE(keep == ToolButtonYes ? "keep" : "discard");
    const std::string out = dir / (keep == ToolButtonYes ? "kept.vlm" : "dropped.vlm");
    g_script = {keep, 0, 0, 0, {}};
    EXPECT_EQ(RunVelmoc("clip " + out + " /v101 /p2", &HeldClipOps, &canceller).code,
              ToolExitCancelled);
    ASSERT_GE(g_script.Asked.size(), 2u);
    EXPECT_EQ(g_script.Asked[0], "Cancel the compression?");
    EXPECT_EQ(g_script.Asked[1], "Keep the frames that you've compressed so far?");
    if (keep == ToolButtonNo) {
      EXPECT_TRUE(NoOutput(out));
      continue;
    }
    EXPECT_FALSE(Exists(out + ".tmp"));
    const Velmo1FileCheck check = Played(out);
    EXPECT_GE(check.Info.Header.Frames, 1u);
    EXPECT_LE(check.Info.Header.Frames, 5u);
    EXPECT_EQ(check.Info.Header.IndexFrames, 16u);
  }
}

// The 500 ms progress tick while the run waits at frame 6: the status, the dialog's title, the
// projected size and rate, as the front end sees them.
struct TickWatch {
  std::string Status, Caption, Projected, Rate;
  volatile uint32_t Seen = 0;
} g_tick;

void WatchStep(ToolDialog* d, int) {
  for (int i = 0; i < ToolDialogControlCount(d) && !g_tick.Seen; ++i) {
    const ToolControlView c = ToolDialogControl(d, i);
    if (c.id != ToolIdStatus || std::string(c.text).rfind("Processing", 0) != 0) continue;
    g_tick.Status = c.text;
    g_tick.Caption = ToolDialogCaption(d);
    for (int j = 0; j < ToolDialogControlCount(d); ++j) {
      const ToolControlView k = ToolDialogControl(d, j);
      if (k.id == VelmocIdProjected) g_tick.Projected = k.text;
      if (k.id == VelmocIdRate) g_tick.Rate = k.text;
    }
    AtomicStore(&g_tick.Seen, 1);
  }
  ToolConsoleFrontEnd()->step(d, 2);
}

bool WatchedClipFrame(VelmocSource* s, uint32_t index, const uint32_t** pixels, int32_t* pitch) {
  for (uint32_t start = TimerMs(); index >= 6 && !AtomicRead(&g_tick.Seen) && TimerMs() - start < 5000;)
    ThreadSleep(1);
  return ClipFrame(s, index, pixels, pitch);
}
const VelmocSourceOps WatchedClipOps{ClipOpen, ClipInfo, WatchedClipFrame, ClipClose,
                                     nullptr, nullptr, nullptr};

TEST(VelmocRun, ProgressTickTexts) {
  const ScratchDir dir;
  static const ToolFrontEnd watcher = ConsoleStepping("watcher", WatchStep);
  g_tick = {};
  // One frame skipped.
  EXPECT_EQ(RunVelmoc("clip " + dir / "t.vlm" + " /v101 /p2 /s2", &WatchedClipOps, &watcher).code,
            ToolExitDone);
  ASSERT_TRUE(g_tick.Seen);
  unsigned done = 0, all = 0, percent = 0;
  ASSERT_EQ(std::sscanf(g_tick.Status.c_str(), "Processing %u of %u (%u%%)...", &done, &all, &percent), 3)
      << g_tick.Status;
  EXPECT_EQ(all, 16u);  // the 15 frames of the run and the one skipped before it
  EXPECT_GE(done, 2u);
  EXPECT_LE(done, 6u);
  EXPECT_EQ(percent, (done - 1) * 100 / 15);
  EXPECT_EQ(g_tick.Caption, std::to_string(percent) + "% - Velmo Video Compressor");
  unsigned long long projected = 0, rate = 0;
  unsigned whole = 0, tenth = 0;
  ASSERT_EQ(std::sscanf(g_tick.Projected.c_str(), "Projecting: %llu bytes (%u.%u to 1)", &projected,
                        &whole, &tenth), 3)
      << g_tick.Projected;
  ASSERT_EQ(std::sscanf(g_tick.Rate.c_str(), "%llu bytes per second", &rate), 1) << g_tick.Rate;
  EXPECT_EQ(rate, projected * 30 / 15);
  EXPECT_EQ((80ull * 56 * 3 * 15 * 10) / projected, whole * 10 + tenth);
}

TEST(VelmocRun, ExitCodes) {
  const ScratchDir dir;
  const std::string out = dir / "x.vlm";
  // A refused value is named alone, without the whole syntax.
  const ToolOutcome bits = RunVelmoc("clip " + out + " /v101 /B7");
  EXPECT_EQ(bits.code, ToolExitBadSwitches);
  EXPECT_EQ(bits.Times("/B7: the output bits must be 8 or 16."), 1u) << bits.output;
  EXPECT_FALSE(bits.Says("Syntax:")) << bits.output;
  EXPECT_TRUE(RunVelmoc("clip " + out + " /v101 /q").Says("Syntax:"));  // an unknown switch
  EXPECT_EQ(RunTool("clip " + out + " /d300"), ToolExitBadSwitches);
  EXPECT_EQ(RunTool("clip"), ToolExitBadSwitches);
  EXPECT_EQ(RunTool("missing " + out + " /v100"), ToolExitInputError);
  EXPECT_EQ(RunTool("clip " + out + " /v270"), ToolExitNotHdr);
  EXPECT_EQ(RunTool("missing " + out + " /v200"), ToolExitInputError);
  EXPECT_TRUE(NoOutput(out));
  // The second generation: a file that plays. Its HDR form is refused above for an input of
  // the ordinary range.
  const std::string vm2 = dir / "y.vm2";
  EXPECT_EQ(RunTool("clip " + vm2 + " /v200 /e3"), ToolExitDone);
  HVELMO h = VelmoOpen(vm2.c_str(), VelmoOpenNeverSkip);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_EQ(h->Magic, VelmoMagicVM2j);
  EXPECT_EQ(h->Frames, 3u);
  for (uint32_t f = 0; f < h->Frames; ++f) {
    EXPECT_EQ(VelmoDoFrame(h), 1u) << f;
    VelmoNextFrame(h);
  }
  VelmoClose(h);
  // Alpha asked on an input without it: the console answers the question with its default
  // (No: go on), and the run ends well without alpha.
  EXPECT_EQ(RunTool("clip " + out + " /v100 /z1000 /s1 /e2"), ToolExitDone);
  EXPECT_FALSE(Played(out).Info.Header.Flags & VelmoFlagAlpha);
}

// ---- Runs on real files through the media layer ------------------------------------------------

int RunMedia(const std::string& tail) { return RunVelmoc(tail, nullptr).code; }

// Writes `frames` test pictures with the converter's writers: an AVI (uncompressed) or, for an
// image extension, a numbered series whose first name lands in `first`.
bool WriteInput(const std::string& name, int frames, uint32_t w, uint32_t h, uint32_t rate,
                std::string* first = nullptr) {
  OutputOptions options{};
  options.codec = OutputCodecRaw;
  options.jpeg_level = -1;
  options.ask = [](const char*, void*) { return true; };
  OutputWriter* out = OutputOpen(name.c_str(), frames, rate, 1, int(w), int(h), ptrdiff_t(w),
                                 {}, OutputFlagPromptDone, &options);
  if (!out) return false;
  bool ok = true;
  for (int t = 0; t < frames; ++t) {
    const std::vector<uint32_t> pic = compress_test::Picture(w, h, uint32_t(t));
    ok = OutputWriteFrame(out, pic.data(), nullptr) != 0 && ok;
  }
  if (first) *first = out->first_name;
  return OutputClose(out) > 0 && ok;
}

void ExpectShape(const std::string& name, uint32_t frames, uint32_t w, uint32_t h, uint32_t fps) {
  const std::vector<uint8_t> bytes = ReadFile(name);
  VelmoHeader header{};
  ASSERT_EQ(VelmoReadHeader(bytes.data(), bytes.size(), &header), nullptr) << name;
  EXPECT_EQ(header.Frames, frames);
  EXPECT_EQ(VelmoHeaderWidth(header), w);
  EXPECT_EQ(VelmoHeaderHeight(header), h);
  ASSERT_NE(header.FrameRateDiv, 0u);
  EXPECT_EQ(header.FrameRate, fps * header.FrameRateDiv);
}

double PsnrAgainst(const std::string& vlm, const std::string& input, uint32_t* frames) {
  Velmo1FileCheck check;
  if (Velmo1CheckOpen(vlm.c_str(), &check) != nullptr) return -1.0;
  return Velmo1CheckPsnr(check, VelmocBuiltinSource(), input.c_str(), 0, frames);
}

// Brightness 40 from a hint file for every frame takes the frames far from the input.
TEST(VelmocMedia, CompressesAnAviWithHintsRangeRateAndCrop) {
  const ScratchDir dir;
  const std::string avi = dir / "in.avi", out = dir / "out.vlm", hints = dir / "hints.txt";
  ASSERT_TRUE(WriteInput(avi, 12, 64, 48, 24));
  ASSERT_EQ(RunMedia(avi + " " + out + " /v101 /d60000"), ToolExitDone);
  ExpectShape(out, 12, 64, 48, 24);
  uint32_t frames = 0;
  const double plain = PsnrAgainst(out, avi, &frames);
  EXPECT_EQ(frames, 12u);
  EXPECT_GT(plain, 28.0);
  WriteText(hints, "1 -1 * * * * * * 40\n");
  ASSERT_EQ(RunMedia(avi + " " + out + " /v101 /o /d60000 /@\"" + hints + "\""), ToolExitDone);
  const double dimmed = PsnrAgainst(out, avi, &frames);
  EXPECT_EQ(frames, 12u);
  EXPECT_GE(dimmed, 0.0);
  EXPECT_LT(dimmed, plain - 8.0);
  // Frames 3 to 10 (eight at 24 a second) adjusted to 12 a second, a 32 x 16 window; the last
  // five frames, /F setting the rate without changing the count; a width with /)-1 keeping
  // the shape.
  const struct {
    const char* Switches;
    uint32_t Frames, W, H, Fps;
  } runs[] = {{" /s3 /e10 /a12 /x8 /y4 /w32 /h16", 4, 32, 16, 12},
              {" /s-5 /f10", 5, 64, 48, 10},
              {" /(32 /)-1", 12, 32, 24, 24}};
  for (const auto& r : runs) {
    ASSERT_EQ(RunMedia(avi + " " + out + " /v101 /o" + r.Switches), ToolExitDone) << r.Switches;
    ExpectShape(out, r.Frames, r.W, r.H, r.Fps);
  }
}

TEST(VelmocMedia, CompressesAPngSeries) {
  const ScratchDir dir;
  const std::string out = dir / "out.vlm";
  std::string first;
  ASSERT_TRUE(WriteInput(dir / "f.png", 6, 48, 32, 30, &first));
  ASSERT_EQ(first, dir / "f0.png");
  // One numbered name of a series: the console takes the default answer, Yes, to "Treat as
  // sequence?", and all six pictures are compressed.
  ASSERT_EQ(RunMedia(first + " " + out + " /v101"), ToolExitDone);
  ExpectShape(out, 6, 48, 32, 15);  // a series has no rate of its own: 15 a second
  // The same pictures named as a series match the compressed frames.
  uint32_t frames = 0;
  EXPECT_GT(PsnrAgainst(out, dir / "f?.png*0-5", &frames), 28.0);
  EXPECT_EQ(frames, 6u);
  // Pictures 2 to 5, read as 30 a second and adjusted to 15, cropped to 40 x 24.
  ASSERT_EQ(RunMedia(first + " " + out + " /v101 /o /s2 /e5 /f30 /a15 /x2 /y2 /w40 /h24"),
            ToolExitDone);
  ExpectShape(out, 2, 40, 24, 15);
}

uint32_t FramesOf(const std::string& name) {
  const std::vector<uint8_t> bytes = ReadFile(name);
  VelmoHeader header{};
  if (VelmoReadHeader(bytes.data(), bytes.size(), &header) != nullptr) return 0;
  return header.Frames;
}

// A single numbered picture with neighbours is asked about in a box of its own, captioned
// "Treat as sequence?": Yes compresses the series, No the picture alone. A numbered picture
// without neighbours is not asked about.
TEST(VelmocMedia, ANumberedPictureWithNeighboursAsksWhetherToTakeTheSeries) {
  const ScratchDir dir;
  ASSERT_TRUE(WriteInput(dir / "f.png", 4, 48, 32, 30));  // f0.png to f3.png
  AnswerScript& script = Answers();
  for (const int answer : {ToolButtonYes, ToolButtonNo}) {
    SCOPED_TRACE(answer == ToolButtonYes ? "yes" : "no");
    script.Reset(answer);
    const std::string out = dir / (answer == ToolButtonYes ? "all.vlm" : "one.vlm");
    ASSERT_EQ(RunVelmoc(dir / "f2.png" + " " + out + " /v101", nullptr, ScriptedFrontEnd()).code,
              ToolExitDone);
    EXPECT_EQ(FramesOf(out), answer == ToolButtonYes ? 4u : 1u);
    const std::vector<ShownBox> asked = script.Questions();
    ASSERT_EQ(asked.size(), 1u);
    EXPECT_EQ(asked[0].caption, "Treat as sequence?");
    EXPECT_EQ(asked[0].icon, ToolIconQuestion);
    EXPECT_EQ(asked[0].text, "File, \"" + dir / "f2.png" +
                                 "\", appears to be part of a sequence of files (0 to 3).\n"
                                 "Do you want to treat the sequence as a single animation?");
  }
  ASSERT_TRUE(WriteImage(dir / "lone7.png", IMAGE_FORMAT_PNG, 48, 32,
                         compress_test::Picture(48, 32, 1)));
  script.Reset(ToolButtonYes);
  ASSERT_EQ(RunVelmoc(dir / "lone7.png" + " " + dir / "lone.vlm /v101", nullptr,
                      ScriptedFrontEnd()).code, ToolExitDone);
  EXPECT_TRUE(script.Questions().empty());
  EXPECT_EQ(FramesOf(dir / "lone.vlm"), 1u);
}

// The compressor's contrast increase is 8 unless /{ gives one: a picture compressed with the
// default matches one with /{8 byte for byte, and differs from one with /{0 (no contrast stage).
TEST(VelmocMedia, DefaultContrastIsApplied) {
  const ScratchDir dir;
  const std::string png = dir / "in.png";
  ASSERT_TRUE(WriteImage(png, IMAGE_FORMAT_PNG, 48, 32, compress_test::Picture(48, 32, 3)));
  const char* const runs[][2] = {{"plain.vlm", ""}, {"eight.vlm", " /{8"}, {"none.vlm", " /{0"}};
  for (const auto& r : runs)
    ASSERT_EQ(RunMedia(png + " " + dir / r[0] + " /v101 /d60000" + r[1]), ToolExitDone) << r[1];
  const std::vector<uint8_t> plain = ReadFile(dir / "plain.vlm");
  EXPECT_EQ(plain, ReadFile(dir / "eight.vlm"));
  EXPECT_NE(plain, ReadFile(dir / "none.vlm"));
}

// An OpenEXR picture of linear floats, compressed and decoded, keeps its colours: its channels
// as bytes (v x 255 + 0.5), for the full-range first generation through the writer's float
// conversion and for the old-range one through 8-bit pixels.
TEST(VelmocMedia, FloatInputKeepsItsColours) {
  const ScratchDir dir;
  const int w = 32, h = 32;
  std::vector<float> floats(size_t(w) * h * 4);
  std::vector<uint32_t> expected(size_t(w) * h);
  for (int y = 0; y < h; ++y)
    for (int x = 0; x < w; ++x) {
      const bool left = x < w / 2;  // two flat halves of different colours
      const float rgb[3] = {left ? 0.75f : 0.1f, left ? 0.5f : 0.9f, left ? 0.25f : 0.6f};
      float* p = &floats[(size_t(y) * w + x) * 4];
      for (int c = 0; c < 3; ++c) p[c] = rgb[c];
      p[3] = 1.0f;
      expected[size_t(y) * w + x] = left ? 0xFFBF8040u : 0xFF1AE699u;
    }
  ImagePixels pixels = {floats.data(), ptrdiff_t(w) * 16, w, h, IMAGE_PIXELS_FLOAT};
  ImageWriteParams params = {IMAGE_FORMAT_EXR, 0, 0, 0};
  ASSERT_TRUE(ImageWriteFile((dir / "in.exr").c_str(), &params, &pixels, nullptr));
  ASSERT_TRUE(WriteImage(dir / "want.png", IMAGE_FORMAT_PNG, w, h, expected));
  for (const char* version : {" /v101", " /v100"}) {
    const std::string out = dir / "out.vlm";
    ASSERT_EQ(RunMedia(dir / "in.exr " + out + " /o /{0 /d200000" + version), ToolExitDone)
        << version;
    uint32_t frames = 0;
    EXPECT_GT(PsnrAgainst(out, dir / "want.png", &frames), 35.0) << version;
    EXPECT_EQ(frames, 1u);
  }
}

// An input whose alpha the switches do not ask for says so once; with alpha asked, not at all.
TEST(VelmocMedia, DroppedAlphaIsToldOnce) {
  const ScratchDir dir;
  std::vector<uint32_t> pic = compress_test::Picture(16, 16, 1);
  for (uint32_t& p : pic) p = (p & 0xFFFFFF) | 0x80000000u;
  ASSERT_TRUE(WriteImage(dir / "a.png", IMAGE_FORMAT_PNG, 16, 16, pic, true));
  const ToolOutcome dropped = RunVelmoc(dir / "a.png " + dir / "a.vlm /v101", nullptr);
  EXPECT_EQ(dropped.code, ToolExitDone);
  EXPECT_EQ(dropped.Times(MediaTextAlphaDropped), 1u) << dropped.output;
  const ToolOutcome kept = RunVelmoc(dir / "a.png " + dir / "b.vlm /v101 /z1000", nullptr);
  EXPECT_EQ(kept.code, ToolExitDone);
  EXPECT_FALSE(kept.Says(MediaTextAlphaDropped)) << kept.output;
}

// A hint file named by a path is read, and a missing one ends the run with its name.
TEST(VelmocMedia, HintFileByPath) {
  const ScratchDir dir;
  const std::string png = dir / "in.png", out = dir / "out.vlm";
  ASSERT_TRUE(WriteImage(png, IMAGE_FORMAT_PNG, 16, 16, compress_test::Picture(16, 16, 1)));
  const ToolOutcome missing = RunVelmoc(png + " " + out + " /v101 /@" + dir / "none.txt", nullptr);
  EXPECT_EQ(missing.code, ToolExitInputError);
  EXPECT_TRUE(missing.Says("Couldn't read the hint file '" + dir / "none.txt" + "'.")) << missing.output;
  EXPECT_FALSE(Exists(out));
  WriteText(dir / "hints.txt", "1 -1 * * * * * * 40\n");
  EXPECT_EQ(RunMedia(png + " " + out + " /v101 /@" + dir / "hints.txt"), ToolExitDone);
}

TEST(VelmocMedia, UnreadableInputEndsWithInputError) {
  const ScratchDir dir;
  const std::string bad = dir / "bad.avi", out = dir / "out.vlm";
  WriteText(bad, std::string("RIFF\x10\0\0\0AVI junk", 16));
  EXPECT_EQ(RunMedia(bad + " " + out + " /v101"), ToolExitInputError);
  EXPECT_EQ(RunMedia(dir / "missing.avi " + out + " /v101"), ToolExitInputError);
  EXPECT_FALSE(Exists(out));
}

}  // namespace
