// What the writing tools leave when a run does not go well, run as the real program: a file
// size limit (a full disk), SIGKILL, SIGINT and SIGTERM in the middle of a run, an output
// folder that takes no file, names longer than the system takes, and a still series whose
// later names are taken. In every case the files under the output names stay as they were and
// no temporary file is left, except the compressor's, which a killed run leaves playable.
#include <signal.h>
#include <sys/stat.h>

#include <chrono>
#include <map>
#include <thread>

#include "convert/output.h"
#include "program_test_support.h"
#include "support/velmo_file.h"
#include "velmo.h"

namespace {

using namespace program_test;
using namespace std::chrono_literals;

const char DiskFull[] = "Error writing to disk - probably out of disk space.";

int Shell(int code) { return code & 255; }  // an exit code as the shell sees it

uint64_t SizeOf(const std::string& name) {
  struct stat info;
  return stat(name.c_str(), &info) == 0 ? uint64_t(info.st_size) : 0;
}

// A y4m clip of moving bars, written with the converter's own y4m writer.
void MakeClip(const std::string& name, int frames, int width, int height) {
  OutputWriter* out = OutputOpen(name.c_str(), frames, 30, 1, width, height, width, {},
                                 OutputFlagPromptDone);
  ASSERT_NE(out, nullptr);
  std::vector<uint32_t> pixels(size_t(width) * height);
  for (int f = 0; f < frames; ++f) {
    for (int y = 0; y < height; ++y)
      for (int x = 0; x < width; ++x)
        pixels[size_t(y) * width + x] = 0xff000000u | uint32_t((x + 3 * f) & 255) << 16 |
                                        uint32_t((y * 2 + f) & 255) << 8 | uint32_t((x ^ y) & 255);
    ASSERT_EQ(OutputWriteFrame(out, pixels.data(), nullptr), 1);
  }
  ASSERT_GT(OutputClose(out), 0u);
}

// Starts the program, waits until `ready()` holds, sends `number` and collects it. On a busy
// machine this process may not look in time and the run ends first, putting its output in the
// place of `old`: then the old files are written back and the run is tried again.
template <typename Ready>
ToolOutcome SignalMidway(const std::string& tail, int number, Ready ready,
                         const std::map<std::string, std::vector<uint8_t>>& old) {
  const auto replaced = [&] {
    for (const auto& [name, bytes] : old)
      if (ReadFile(name) != bytes) return true;
    return false;
  };
  for (int attempt = 0;; ++attempt) {
    RunningProgram running = StartProgram(ORN_PROGRAM_PATH, Words(tail));
    const auto until = std::chrono::steady_clock::now() + 60s;
    bool finished = false;
    while (!ready() && !(finished = replaced()) && std::chrono::steady_clock::now() < until)
      std::this_thread::sleep_for(1ms);
    if (finished && attempt < 3) {
      FinishProgram(running);
      for (const auto& [name, bytes] : old) WriteFile(name, bytes);
      continue;
    }
    EXPECT_TRUE(ready()) << "the run never got there";
    kill(running.pid, number);
    return FinishProgram(running);
  }
}

class OutputSafety : public TempDirTest {
 protected:
  void SetUp() override { MakeSeries(); }
  // A clip long enough to be stopped in the middle (the compressor takes some 50 ms a frame,
  // the converter well under 1 ms).
  std::string LongClip(int frames) const {
    MakeClip(dir + "/clip.y4m", frames, 320, 240);
    return dir + "/clip.y4m";
  }
  // Eight small pictures "in1.png" .. "in8.png".
  void MakeSeries() {
    std::vector<uint32_t> pixels(48 * 32);
    for (int f = 1; f <= 8; ++f) {
      for (size_t i = 0; i < pixels.size(); ++i) pixels[i] = 0xff000000u | uint32_t(i * 2654435761u >> (f % 8));
      ASSERT_TRUE(WriteImage(dir + "/in" + std::to_string(f) + ".png", IMAGE_FORMAT_PNG, 48, 32, pixels));
    }
  }
  std::string Series() const { return dir + "/in?.png*1-8"; }
  // What every failed run must leave: the old files as they were, no temporary file.
  void ExpectUntouched(const std::map<std::string, std::vector<uint8_t>>& old) {
    for (const auto& [name, bytes] : old) {
      EXPECT_TRUE(ReadFile(name) == bytes) << name << " was changed";
      EXPECT_FALSE(Exists(name + ".tmp")) << name << ".tmp was left";
    }
  }
  // Stops `tail` once `ready` holds: SIGINT and SIGTERM are a cancel that asks nothing (not
  // `question`) and leaves `old` untouched; SIGKILL, last, leaves the old files as they were.
  template <typename Ready>
  void ExpectStopsKeepTheOld(const std::string& tail, Ready ready, const char* question,
                             const std::map<std::string, std::vector<uint8_t>>& old) {
    for (const int number : {SIGINT, SIGTERM}) {
      SCOPED_TRACE(number);
      const ToolOutcome r = SignalMidway(tail, number, ready, old);
      EXPECT_EQ(r.code, Shell(ToolExitCancelled)) << r.output;
      EXPECT_FALSE(r.Says(question)) << r.output;
      ExpectUntouched(old);
    }
    EXPECT_EQ(SignalMidway(tail, SIGKILL, ready, old).code, 128 + SIGKILL);
    for (const auto& [name, bytes] : old) EXPECT_TRUE(ReadFile(name) == bytes) << name << " was changed";
  }
};

TEST_F(OutputSafety, AFileSizeLimitIsAFullDiskForEveryOutput) {
  // Each output kind is first written whole, then again with /O under a limit it cannot meet.
  WriteWave16(dir + "/tone.wav", 44100, 2, std::vector<int16_t>(88200, 1234));
  const struct {
    std::string input, output;
    std::vector<std::string> files;
    uint64_t limit;
  } cases[] = {
      {Series(), dir + "/a.avi", {dir + "/a.avi"}, 16384},
      {Series(), dir + "/a.y4m", {dir + "/a.y4m"}, 8192},
      {dir + "/tone.wav", dir + "/a.wav", {dir + "/a.wav"}, 65536},
      {Series(), dir + "/s.png", {dir + "/s0.png", dir + "/s4.png", dir + "/s7.png"}, 512},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.output);
    const std::string tail = "velmoconv " + c.input + " " + c.output + " /o";
    ASSERT_EQ(RunTail(tail).code, 0);
    std::map<std::string, std::vector<uint8_t>> old;
    for (const std::string& f : c.files) {
      old[f] = ReadFile(f);
      ASSERT_GT(old[f].size(), c.limit) << f;
    }
    const ToolOutcome r = RunTail(tail, c.limit);
    EXPECT_EQ(r.code, Shell(ToolExitDiskWriteError)) << r.output;
    EXPECT_TRUE(r.Says(DiskFull)) << r.output;
    ExpectUntouched(old);
  }
  // The compressor and the mixer likewise.
  const std::string vlm = dir + "/c.vlm", mixed = dir + "/m.vlm";
  ASSERT_EQ(RunTail("velmoc " + Series() + " " + vlm + " /v101").code, 0);
  ASSERT_EQ(RunTail("velmomix " + vlm + " " + dir + "/tone.wav " + mixed).code, 0);
  const std::map<std::string, std::vector<uint8_t>> old = {{vlm, ReadFile(vlm)}, {mixed, ReadFile(mixed)}};
  for (const auto& [name, bytes] : old) ASSERT_GT(bytes.size(), 2048u) << name;
  for (const std::string& tail : {"velmoc " + Series() + " " + vlm + " /v101 /o",
                                  "velmomix " + vlm + " " + dir + "/tone.wav " + mixed + " /o"}) {
    SCOPED_TRACE(tail);
    const ToolOutcome r = RunTail(tail, 2048);
    EXPECT_EQ(r.code, Shell(ToolExitDiskWriteError)) << r.output;
    EXPECT_TRUE(r.Says(DiskFull)) << r.output;
    ExpectUntouched(old);
  }
}

TEST_F(OutputSafety, SigintAndSigtermCancelAndSigkillLeavesTheOldOutput) {
  const std::string avi = dir + "/big.avi", tail = "velmoconv " + LongClip(400) + " " + avi + " /o";
  // A short run of the same clip stands under the name first.
  ASSERT_EQ(RunTail(tail + " /e2").code, 0);
  const std::map<std::string, std::vector<uint8_t>> old = {{avi, ReadFile(avi)}};
  const auto grown = [&] { return SizeOf(avi + ".tmp") >= (2u << 20); };
  ExpectStopsKeepTheOld(tail, grown, "Cancel the conversion?", old);
}

TEST_F(OutputSafety, AKilledCompressorLeavesATemporaryFileThatPlays) {
  const std::string vlm = dir + "/c.vlm", tmp = vlm + ".tmp";
  const std::string tail = "velmoc " + LongClip(100) + " " + vlm + " /v101 /o";
  ASSERT_EQ(RunTail("velmoc " + Series() + " " + vlm + " /v101").code, 0);
  const std::map<std::string, std::vector<uint8_t>> old = {{vlm, ReadFile(vlm)}};
  // The frame count in the temporary file's header: nonzero once the first checkpoint is on
  // the disk (until then the file's bytes wait in the writer's 128 KiB buffer).
  const auto checkpointed = [&] { return Le32(ReadFile(tmp), 8) >= 1; };
  // SIGINT and SIGTERM: a cancel that keeps nothing. SIGKILL as soon as the first frame is on
  // the disk: the temporary file opens with it.
  ExpectStopsKeepTheOld(tail, checkpointed, "Keep the frames", old);
  HVELMO h = VelmoOpen(tmp.c_str(), 0);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_GE(h->Frames, 1u);
  EXPECT_EQ(h->Width, 320u);
  VelmoClose(h);
}

TEST_F(OutputSafety, TheMixerStoppedOrKilledLeavesTheOldOutput) {
  // A file of many large frames and no sound, mixed with no sound: a copy long enough to stop.
  velmo_test::FilePlan plan;
  plan.Frames = 3000;
  plan.Video = [](uint32_t i) { return std::vector<uint8_t>(40000, uint8_t(i)); };
  const std::string in = dir + "/in.vlm", out = dir + "/out.vlm";
  WriteFile(in, velmo_test::BuildFile(plan));
  const std::string tail = "velmomix " + in + " - " + out + " /t3 /o";
  WriteText(out, "old mix");
  const std::map<std::string, std::vector<uint8_t>> old = {{out, ReadFile(out)}};
  const auto grown = [&] { return SizeOf(out + ".tmp") >= (4u << 20); };
  ExpectStopsKeepTheOld(tail, grown, "Cancel the mixing?", old);
}

TEST_F(OutputSafety, AFolderThatTakesNoFileIsAnError) {
  // A file stands where the folder should be: nothing can be made inside it.
  WriteText(dir + "/plain", "x");
  WriteWave16(dir + "/tone.wav", 8000, 1, std::vector<int16_t>(800, 5));
  const std::string nowhere = dir + "/plain/sub";
  ASSERT_EQ(RunTail("velmoc " + Series() + " " + dir + "/c.vlm /v101").code, 0);
  const std::string runs[] = {
      "velmoconv " + Series() + " " + nowhere + "/a.avi",
      "velmoconv " + Series() + " " + nowhere + "/a.y4m",
      "velmoconv " + Series() + " " + nowhere + "/s.png",
      "velmoconv " + dir + "/tone.wav " + nowhere + "/a.wav",
      "velmoc " + Series() + " " + nowhere + "/a.vlm /v101",
      "velmomix " + dir + "/c.vlm " + dir + "/tone.wav " + nowhere + "/m.vlm",
  };
  for (const std::string& tail : runs) {
    SCOPED_TRACE(tail);
    const ToolOutcome r = RunTail(tail);
    EXPECT_EQ(r.code, Shell(ToolExitOutputError)) << r.output;
    EXPECT_TRUE(r.Says(" - Error: ")) << r.output;  // an error box, not a note
  }
}

TEST_F(OutputSafety, LongNamesAreWrittenOrRefusedWhole) {
  WriteWave16(dir + "/tone.wav", 8000, 1, std::vector<int16_t>(800, 5));
  // About 300 bytes: written under the whole name by every tool.
  const std::string deep = NestedFolder(dir, 300);
  ASSERT_EQ(RunTail("velmoconv " + Series() + " " + deep + "/a.avi").code, 0);
  ASSERT_EQ(RunTail("velmoconv " + Series() + " " + deep + "/s.png").code, 0);
  ASSERT_EQ(RunTail("velmoc " + Series() + " " + deep + "/c.vlm /v101").code, 0);
  ASSERT_EQ(RunTail("velmomix " + deep + "/c.vlm " + dir + "/tone.wav " + deep + "/m.vlm").code, 0);
  for (const char* name : {"/a.avi", "/s0.png", "/s7.png", "/c.vlm", "/m.vlm"})
    EXPECT_GT(SizeOf(deep + name), 0u) << name;
  // About 5000 bytes: refused before anything is read or written, with the reason.
  const std::string huge = deep + "/" + std::string(4700, 'q');
  const std::string runs[] = {
      "velmoconv " + Series() + " " + huge + ".avi",
      "velmoconv " + Series() + " " + huge + ".png",
      "velmoc " + Series() + " " + huge + ".vlm /v101",
      "velmomix " + deep + "/c.vlm " + dir + "/tone.wav " + huge + ".vlm",
  };
  for (const std::string& tail : runs) {
    SCOPED_TRACE(tail.substr(0, 60));
    const ToolOutcome r = RunTail(tail);
    EXPECT_EQ(r.code, Shell(ToolExitOutputError)) << r.output.substr(0, 400);
    EXPECT_TRUE(r.Says(" - Error: The output file name is too long")) << r.output.substr(0, 400);
  }
  const ToolOutcome input = RunTail("velmoconv " + huge + ".png " + dir + "/x.avi");
  EXPECT_EQ(input.code, Shell(ToolExitInputError));
  EXPECT_TRUE(input.Says("The input file name is too long"));
  EXPECT_FALSE(Exists(dir + "/x.avi"));
  // The information tool reads nothing under a cut-short name either.
  const ToolOutcome info = RunTail("orninfo " + huge + ".png");
  EXPECT_EQ(info.code, Shell(ToolExitInputError));
  EXPECT_TRUE(info.Says("The input file name is too long")) << info.output.substr(0, 400);
}

// An AVI of `frames` small frames with a tone beside them.
void MakeAviWithSound(const std::string& name, int frames) {
  OutputWriter* out = OutputOpen(name.c_str(), frames, 10, 1, 16, 16, 16, {}, OutputFlagPromptDone);
  ASSERT_NE(out, nullptr);
  const std::vector<uint32_t> pixels(16 * 16, 0xff336699u);
  std::vector<uint8_t> sound;
  for (int f = 0; f < frames; ++f) {
    ASSERT_EQ(OutputWriteFrame(out, pixels.data(), nullptr), 1);
    sound.assign(OutputSoundWanted(out, 8000, 16, 1), 0);
    for (size_t i = 0; i < sound.size(); ++i) sound[i] = uint8_t(i * 37);
    if (!sound.empty()) {
      ASSERT_EQ(OutputWriteSound(out, sound.data(), uint32_t(sound.size())), 1);
    }
  }
  ASSERT_GT(OutputClose(out), 0u);
}

// Input names past a kilobyte: the compressor finds the input's sound under the whole name.
TEST_F(OutputSafety, AnInputPastAKilobyteKeepsItsWholeName) {
  const std::string deep = NestedFolder(dir, 1500);
  MakeAviWithSound(deep + "/in.avi", 10);
  const ToolOutcome r = RunTail("velmoc " + deep + "/in.avi " + dir + "/c.vlm /v101");
  ASSERT_EQ(r.code, 0) << r.output.substr(0, 600);
  HVELMO h = VelmoOpen((dir + "/c.vlm").c_str(), 0);
  ASSERT_NE(h, nullptr) << VelmoGetError();
  EXPECT_EQ(h->Frames, 10u);
  EXPECT_EQ(h->TrackCount, 1u);
  VelmoClose(h);
}

TEST_F(OutputSafety, TheOverwriteQuestionNamesTheOutputAsGiven) {
  // The name given exists: the question names it (not the series' first file), and the
  // console's default answer (No) leaves everything as it was.
  WriteText(dir + "/s.png", "given");
  const ToolOutcome refused = RunTail("velmoconv " + Series() + " " + dir + "/s.png");
  EXPECT_EQ(refused.code, Shell(ToolExitNoOverwrite)) << refused.output;
  EXPECT_TRUE(refused.Says("File " + dir + "/s.png exists, overwrite?")) << refused.output;
  EXPECT_FALSE(refused.Says("/s0.png exists")) << refused.output;
  EXPECT_EQ(ReadText(dir + "/s.png"), "given");
  for (int f : {0, 1, 7}) EXPECT_FALSE(Exists(dir + "/s" + std::to_string(f) + ".png")) << f;
  // With the name given free, the question is settled: the numbered files are written, a
  // taken one among them included.
  WriteText(dir + "/t4.png", "old");
  const ToolOutcome written = RunTail("velmoconv " + Series() + " " + dir + "/t.png");
  ASSERT_EQ(written.code, 0) << written.output;
  EXPECT_FALSE(written.Says("exists, overwrite?")) << written.output;
  Picture p;
  EXPECT_TRUE(ReadPicture(dir + "/t4.png", &p));
  EXPECT_TRUE(ReadPicture(dir + "/t7.png", &p));
}

}  // namespace
