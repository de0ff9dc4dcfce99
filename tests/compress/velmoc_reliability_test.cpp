// The compressor when things go wrong around it: a run killed at any moment (at every write in
// turn, or within one) leaves a temporary file that plays up to its last checkpoint and does not
// stop the next run of its name, a full disk ends the run with its message and exit code and no
// broken file under the output name, and two runs writing the same output name leave each
// other's files alone.
//
// Failing writes come from the file layer's write filter rather than a small file system or a
// file size limit: the filter can stop the run at every single write in turn, and cut a write
// short at a page edge as a kill during a large write does, which no size limit can place.
#include <gtest/gtest.h>

#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "compress_test_util.h"
#include "host/bfile.h"
#include "host/platform.h"
#include "support/full_disk.h"
#include "velmo.h"

namespace {

using namespace compress_test;
using namespace test_support;

constexpr uint32_t W = 32, H = 24;

// The frame count a reader takes from the header (0 while the file is shorter than a header).
uint32_t HeaderFrames(const std::string& name) { return Le32(ReadFile(name), 8); }

int Quiet(uint32_t, VelmoWriter*, const char*) { return 0; }

// A writer with a checkpoint after every frame, and its frame loop (preview 2).
bool OpenEager(TestCompression* c, const std::string& out, uint32_t frames,
               VelmoWriterProgressFn progress = Quiet, void* user = nullptr) {
  if (!c->Open(out, 101, W, H, frames, 2, progress, user)) return false;
  c->Writer->CheckpointBytes = 1;
  c->Writer->NextCheckpointBytes = c->Writer->FileSize + 1;
  return true;
}

void Feed(TestCompression* c, uint32_t from, uint32_t to) { c->Feed(from, to, 1500, 4500); }

// The child side of a forked run: one thread (the parent's pool workers are not in the child),
// and no return into the test framework.
[[noreturn]] void ChildRun(const std::string& out, uint32_t frames) {
  PoolSetThreads(1);
  TestCompression c;
  if (!OpenEager(&c, out, frames)) _exit(2);
  Feed(&c, 0, frames);
  _exit(c.Close(false) ? 0 : 3);
}

// What a file claims and whether all of it is there: the reader library opens it with the
// same count, and every claimed frame decodes, byte for byte the frame a finished run wrote.
void ExpectPlaysUpToItsCount(const std::string& name, const Velmo1FileCheck& whole,
                             uint32_t* claimed, const std::string& where) {
  SCOPED_TRACE(where);
  *claimed = HeaderFrames(name);
  if (*claimed == 0) return;  // killed before the first checkpoint: nothing to play yet
  Velmo1FileCheck part;
  ASSERT_EQ(Velmo1CheckOpen(name.c_str(), &part), nullptr);
  ASSERT_EQ(part.Info.Header.Frames, *claimed);
  ASSERT_LE(*claimed, whole.Info.Header.Frames);
  EXPECT_EQ(Velmo1CheckDecode(part, nullptr, nullptr), *claimed);
  for (uint32_t f = 0; f < *claimed; ++f) {
    const uint64_t a = VelmoEntryOffset(part.Offsets[f]), b = VelmoEntryOffset(part.Offsets[f + 1]);
    ASSERT_EQ(a, VelmoEntryOffset(whole.Offsets[f]));
    ASSERT_EQ(b, VelmoEntryOffset(whole.Offsets[f + 1]));
    ASSERT_EQ(0, std::memcmp(part.Bytes.data() + a, whole.Bytes.data() + a, size_t(b - a)))
        << "frame " << f;
  }
  HVELMO h = VelmoOpen(name.c_str(), 0);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_EQ(h->Frames, *claimed);
  VelmoClose(h);
}

// ---- Killed runs -------------------------------------------------------------------------------

// The write filter of a child: lets `g_killAt` writes through, then kills the process, either
// before the next write or, with `g_cutShort`, after that write's first page.
uint32_t g_writes = 0, g_killAt = ~0u;
bool g_cutShort = false;
size_t KillingFilter(uint64_t position, size_t bytes) {
  if (g_writes++ < g_killAt) return bytes;
  if (!g_cutShort || g_writes > g_killAt + 1) raise(SIGKILL);
  const size_t toPageEdge = 4096 - size_t(position % 4096);
  if (toPageEdge >= bytes) raise(SIGKILL);  // within one page a write is not split
  return toPageEdge;
}
size_t CountingFilter(uint64_t, size_t bytes) {
  g_writes++;
  return bytes;
}

TEST(VelmoReliability, KilledAtEveryWriteThePartialFilePlays) {
  const ScratchDir dir;
  const uint32_t frames = 5;
  // The finished run, with its writes counted.
  const std::string whole = dir / "whole.vlm";
  g_writes = 0;
  FileSetWriteFilter(CountingFilter);
  TestCompression c;
  ASSERT_TRUE(OpenEager(&c, whole, frames));
  Feed(&c, 0, frames);
  ASSERT_GT(c.Close(false), 0u);
  FileSetWriteFilter(nullptr);
  const uint32_t writes = g_writes;
  ASSERT_GE(writes, frames * 3) << "a checkpoint after each frame writes index, flags and counts";
  Velmo1FileCheck reference;
  ASSERT_EQ(Velmo1CheckOpen(whole.c_str(), &reference), nullptr);

  for (const bool cut : {false, true}) {
    uint32_t last = 0;
    for (uint32_t k = 0; k < writes; ++k) {
      const std::string out = dir / ("k" + std::to_string(k) + (cut ? "c" : "") + ".vlm");
      const pid_t child = fork();
      ASSERT_GE(child, 0);
      if (child == 0) {
        g_writes = 0;
        g_killAt = k;
        g_cutShort = cut;
        FileSetWriteFilter(KillingFilter);
        ChildRun(out, frames);
      }
      int status = 0;
      ASSERT_EQ(waitpid(child, &status, 0), child);
      ASSERT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == SIGKILL) << "write " << k;
      EXPECT_FALSE(Exists(out)) << "a killed run never names the output";
      uint32_t claimed = 0;
      ExpectPlaysUpToItsCount(out + ".tmp", reference, &claimed,
                              "killed at write " + std::to_string(k) + (cut ? " (cut short)" : ""));
      EXPECT_GE(claimed, last) << "a later kill never plays less";
      last = claimed;
    }
    EXPECT_GE(last, frames - 1);
  }
  // The temporary file of a run that is gone does not stop the next run of that name.
  const std::string again = dir / ("k" + std::to_string(writes - 1) + "c.vlm");
  ASSERT_TRUE(Exists(again + ".tmp"));
  ASSERT_TRUE(OpenEager(&c, again, 3));
  Feed(&c, 0, 3);
  ASSERT_GT(c.Close(false), 0u);
  EXPECT_FALSE(Exists(again + ".tmp"));
  EXPECT_EQ(HeaderFrames(again), 3u);
}

// The dialog's View button checkpoints and flushes from its own thread while the run writes
// frames: each time, the temporary file plays up to its count, and the finished file is the
// same as a run without it.
TEST(VelmoReliability, PreviewFlushesWhileTheRunWrites) {
  const ScratchDir dir;
  const uint32_t frames = 24;
  const std::string whole = dir / "whole.vlm", out = dir / "seen.vlm";
  TestCompression c;
  ASSERT_TRUE(OpenEager(&c, whole, frames));
  c.Writer->CheckpointBytes = 2000000;  // the run's own checkpoints as usual
  Feed(&c, 0, frames);
  ASSERT_GT(c.Close(false), 0u);
  Velmo1FileCheck reference;
  ASSERT_EQ(Velmo1CheckOpen(whole.c_str(), &reference), nullptr);

  ASSERT_TRUE(OpenEager(&c, out, frames));
  VelmoWriter* w = c.Writer;
  w->CheckpointBytes = 2000000;
  volatile uint32_t done = 0, flushes = 0;
  std::thread preview([&] {
    while (!AtomicRead(&done)) {
      if (VelmoWriterFlush(w)) {
        uint32_t claimed = 0;
        ExpectPlaysUpToItsCount(out + ".tmp", reference, &claimed, "preview");
        AtomicAdd(&flushes, 1);
      }
      ThreadSleep(1);
    }
  });
  // Every fourth frame waits (a bounded while) for one more flush, so that flushes fall among
  // the frames however busy the machine is; in between, both threads go at their own pace.
  for (uint32_t f = 0; f < frames; ++f) {
    Feed(&c, f, f + 1);
    if (f % 4 != 0) continue;
    const uint32_t seen = AtomicRead(&flushes), start = TimerMs();
    while (AtomicRead(&flushes) == seen && TimerMs() - start < 10000) ThreadSleep(1);
  }
  AtomicStore(&done, 1);
  preview.join();
  ASSERT_GT(c.Close(false), 0u);
  EXPECT_GE(flushes, frames / 4);
  EXPECT_TRUE(ReadFile(out) == ReadFile(whole));
}

// ---- Whole runs through the tool shell -----------------------------------------------------------

TEST(VelmoReliability, FullDiskEndsWith8007AndLeavesTheOutputNameAlone) {
  const ScratchDir dir;
  const std::string out = dir / "full.vlm", old = dir / "old.vlm";
  const char* const disk = "Error writing to disk - probably out of disk space.";
  g_clipShape = {32, 24, 24};
  // The big run writes about 20 kB a frame, so the file layer's 128 kB buffer goes to the
  // disk mid-run; the small one (a smaller picture) reaches the disk only at its close.
  const std::string big = " /d600000 /m1.2 /e8", small = " /d20000 /e3";
  const ToolOutcome done = RunVelmoc("clip " + old + " /v101" + small);
  ASSERT_EQ(done.code, ToolExitDone) << done.output;
  const std::vector<uint8_t> good = ReadFile(old);
  EXPECT_TRUE(done.Says("3 total frames compressed.")) << done.output;
  EXPECT_TRUE(done.Says("Final: " + std::to_string(good.size()) + " bytes ("));
  EXPECT_TRUE(done.Says(" to 1), PSNR Y ")) << done.output;  // the quality line
  ASSERT_GT(good.size(), 1000u);
  // Each case runs on a fresh name, or with /O over the good file, or both.
  struct Case {
    uint64_t room;
    bool big, fresh, over;
    const char* what;
  } cases[] = {
      {0, false, true, true, "nothing fits"},
      {200, false, true, true, "the header's first bytes fit"},
      {1000, false, true, true, "full at the close"},
      {good.size() - 1, false, true, false, "the last byte is missing"},
      {100000, true, false, true, "full mid-run"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    g_clipShape = {c.big ? 160u : 32u, c.big ? 120u : 24u, 24};
    for (const bool fresh : {true, false}) {
      if (!(fresh ? c.fresh : c.over)) continue;
      const FullDisk full(c.room);
      const ToolOutcome r =
          RunVelmoc("clip " + (fresh ? out : old + " /o") + " /v101" + (c.big ? big : small));
      EXPECT_EQ(r.code, ToolExitDiskWriteError) << (fresh ? "fresh name" : "over a file");
      EXPECT_TRUE(r.Says(disk)) << r.output;
      EXPECT_FALSE(r.Says("total frames compressed")) << r.output;
    }
    EXPECT_TRUE(NoOutput(out));
    EXPECT_FALSE(Exists(old + ".tmp"));
    EXPECT_TRUE(ReadFile(old) == good) << "the file under the output name was changed";
  }
}

// ---- Two runs, one output name -----------------------------------------------------------------

TEST(VelmoReliability, TwoRunsOnOneOutputNameLeaveEachOtherAlone) {
  const ScratchDir dir;
  const std::string out = dir / "same.vlm", tmp = out + ".tmp", go = dir / "go";
  g_clipShape = {32, 24, 24};
  // This process's run holds the name when the tool starts: the tool is refused before it
  // writes a byte, with the reasons of the message, and the first run finishes whole.
  WriterLog texts;
  TestCompression c;
  ASSERT_TRUE(OpenEager(&c, out, 6, LogWriterMessages, &texts));
  Feed(&c, 0, 3);
  const std::vector<uint8_t> before = ReadFile(tmp);
  const ToolOutcome refusal = RunVelmoc("clip " + out + " /v101 /o");
  EXPECT_EQ(refusal.code, ToolExitOutputError);
  EXPECT_TRUE(refusal.Says("Couldn't create temporary file.")) << refusal.output;
  EXPECT_TRUE(refusal.Says("3) compressing multiple files to the same Velmo output filename."));
  EXPECT_TRUE(ReadFile(tmp) == before);
  Feed(&c, 3, 6);
  ASSERT_GT(c.Close(false), 0u);
  EXPECT_TRUE(texts.empty());
  const Velmo1FileCheck first = Played(out);
  EXPECT_EQ(first.Info.Header.Frames, 6u);
  EXPECT_EQ(first.Info.Header.IndexFrames, 6u);

  // The other way round, across processes: another process's run holds the name and waits for
  // a sign; a writer here is refused with the message, then the other run ends whole.
  const pid_t child = fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    PoolSetThreads(1);
    TestCompression cw;
    if (!OpenEager(&cw, out, 8)) _exit(2);
    Feed(&cw, 0, 4);
    for (uint32_t start = TimerMs(); !Exists(go) && TimerMs() - start < 20000;) ThreadSleep(1);
    Feed(&cw, 4, 8);
    _exit(cw.Close(false) ? 0 : 3);
  }
  for (uint32_t start = TimerMs(); HeaderFrames(tmp) < 2 && TimerMs() - start < 20000;)
    ThreadSleep(1);
  texts.clear();
  TestCompression refused;
  EXPECT_FALSE(OpenEager(&refused, out, 6, LogWriterMessages, &texts));
  ASSERT_EQ(texts.size(), 1u);
  EXPECT_EQ(texts[0].rfind("Couldn't create temporary file.", 0), 0u);
  WriteText(go, "go");
  int status = 0;
  ASSERT_EQ(waitpid(child, &status, 0), child);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
  EXPECT_EQ(Played(out).Info.Header.Frames, 8u);
  EXPECT_FALSE(Exists(tmp));
}

}  // namespace
