// The compressor dialog's View button: a preview of the growing temporary file while frames go
// in (at low priority), of the output once the run is over, one at a time; the end of the run
// waits for the preview with a text that says what closing it will do. The player is replaced
// by a starter that records what it was asked to show and stays "open" until the test lets it
// end; a user is played by a front end whose step presses the buttons and answers the boxes.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "compress_test_util.h"
#include "host/platform.h"
#include "support/files.h"

namespace {

using namespace compress_test;
using namespace test_support;

const char DoneText[] = "Compression is done, close the preview window to save the Velmo file.";
const char CancelText[] = "Close the preview window to cancel the compression...";

// What the starter and the user's steps saw, and the switches between them.
struct PreviewScript {
  std::string Output;      // the run's output name
  bool CancelAfter = false;  // the user cancels (keeping nothing) once the preview is open
  bool ViewWhenDone = false;  // the user presses View only after the run, then closes
  // The starter (on the preview thread).
  std::vector<std::string> Files;
  std::vector<bool> Low;
  std::vector<uint32_t> FramesOnDisk;  // the file's frame count when the player started
  volatile uint32_t Open = 0;          // a preview is showing
  volatile uint32_t Release = 0;       // the preview may end
  volatile uint32_t Ended = 0;         // previews that have ended
  // The user (on the main thread).
  volatile uint32_t FramesRead = 0;
  volatile uint32_t Held = 1;  // frames from 6 on wait while set
  int Presses = 0;
  std::vector<std::string> Told;  // the waiting texts seen in the status line
  bool OutputThereWhenTold = false;
  bool Closed = false;
  bool Finished = false;  // the shell has seen the worker return
};
PreviewScript g;

// The frame count that the header holds (the checkpoint writes it at offset 8).
uint32_t FramesInHeader(const std::string& name) {
  const std::vector<uint8_t> bytes = ReadFile(name);
  if (bytes.size() < 12) return 0;
  return uint32_t(bytes[8]) | uint32_t(bytes[9]) << 8 | uint32_t(bytes[10]) << 16 |
         uint32_t(bytes[11]) << 24;
}

int FakePlayer(const char* file, bool lowPriority) {
  g.Files.push_back(file);
  g.Low.push_back(lowPriority);
  g.FramesOnDisk.push_back(FramesInHeader(file));
  AtomicStore(&g.Open, 1);
  for (const uint32_t start = TimerMs(); !AtomicRead(&g.Release) && TimerMs() - start < 10000;)
    ThreadSleep(1);
  AtomicStore(&g.Open, 0);
  AtomicAdd(&g.Ended, 1);
  return 0;
}

bool HeldFrame(VelmocSource* s, uint32_t index, const uint32_t** pixels, int32_t* pitch) {
  AtomicAdd(&g.FramesRead, 1);
  for (const uint32_t start = TimerMs();
       index >= 6 && AtomicRead(&g.Held) && TimerMs() - start < 10000;)
    ThreadSleep(1);
  return ClipFrame(s, index, pixels, pitch);
}
const VelmocSourceOps HeldOps{ClipOpen, ClipInfo, HeldFrame, ClipClose, nullptr, nullptr, nullptr};

std::string TextOf(ToolDialog* d, int id) {
  for (int i = 0; i < ToolDialogControlCount(d); ++i) {
    const ToolControlView c = ToolDialogControl(d, i);
    if (c.id == id) return c.text;
  }
  return "";
}

// Yes to "Cancel the compression?", No to keeping the frames.
void AnswerCancelBoxes(ToolDialog* d) {
  ToolBox* box = ToolDialogTopBox(d);
  if (!box || box->answered) return;
  const bool keep = std::string(box->text).rfind("Keep the frames", 0) == 0;
  box->answer = keep ? ToolButtonNo : ToolButtonYes;
  box->answered = true;
  if (keep) AtomicStore(&g.Held, 0);
}

// During the run: View once six frames are read, View again while the preview is open, then
// (optionally) Cancel; the held frames go on after that. The waiting text lets the preview end.
void DuringRunStep(ToolDialog* d) {
  if (g.Presses == 0 && AtomicRead(&g.FramesRead) >= 6) {
    ToolDialogUserCommand(d, VelmocIdView);
    g.Presses = 1;
  } else if (g.Presses == 1 && AtomicRead(&g.Open)) {
    ToolDialogUserCommand(d, VelmocIdView);
    if (g.CancelAfter) ToolDialogUserCommand(d, ToolIdCancel);
    g.Presses = 2;
  } else if (g.Presses == 2 && !g.CancelAfter) {
    AtomicStore(&g.Held, 0);  // the second press has been handled by now
    g.Presses = 3;
  }
  const std::string status = TextOf(d, ToolIdStatus);
  if ((status == DoneText || status == CancelText) && !AtomicRead(&g.Release)) {
    g.Told.push_back(status);
    g.OutputThereWhenTold = Exists(g.Output);
    AtomicStore(&g.Release, 1);
  }
}

// The shell has taken the run as finished: a close before that would ask to cancel.
int SeeFinished(ToolDialog*, const ToolMessage* m) {
  if (m->code == ToolMsgFinished) g.Finished = true;
  return 0;
}

// After the run: View once the run says it is done, then close once the preview has ended and
// the shell knows the run is over.
void AfterRunStep(ToolDialog* d) {
  if (g.Presses == 0 && TextOf(d, VelmocIdRemaining) == "Done!") {
    ToolDialogUserCommand(d, VelmocIdView);
    g.Presses = 1;
  } else if (g.Presses == 1 && AtomicRead(&g.Ended) && g.Finished && !g.Closed) {
    ToolDialogUserClose(d);
    g.Closed = true;
  }
}

void UserStep(ToolDialog* d, int) {
  AnswerCancelBoxes(d);
  if (g.ViewWhenDone) AfterRunStep(d);
  else DuringRunStep(d);
  ToolConsoleFrontEnd()->step(d, 2);
}

class VelmocPreview : public ::testing::Test {
 protected:
  void SetUp() override {
    g = PreviewScript{};
    g.Output = dir / "out.vlm";
    VelmocSetPreviewStarter(FakePlayer);
    ToolFrameSetHook(SeeFinished);
  }
  void TearDown() override {
    VelmocSetPreviewStarter(nullptr);
    ToolFrameSetHook(nullptr);
  }
  // With `closeWhenDone` false the dialog stays after the run until the user closes it.
  int Run(bool closeWhenDone = true) {
    static ToolFrontEnd user = [] {
      ToolFrontEnd f = ConsoleStepping("user", UserStep);
      f.autoDone = false;
      return f;
    }();
    return RunVelmoc("clip " + g.Output + " /v101 /p2", &HeldOps, &user, closeWhenDone).code;
  }
  ScratchDir dir;
};

TEST_F(VelmocPreview, DuringTheRunTheTemporaryFilePlaysAndTheRunWaitsForIt) {
  EXPECT_EQ(Run(), ToolExitDone);
  EXPECT_EQ(g.Presses, 3);
  // One preview for two presses: the second came while the first was open.
  ASSERT_EQ(g.Files.size(), 1u);
  EXPECT_EQ(g.Files[0], g.Output + ".tmp");
  EXPECT_TRUE(g.Low[0]);
  // The file was brought up to date on disk before the player started.
  EXPECT_GE(g.FramesOnDisk[0], 1u);
  EXPECT_LE(g.FramesOnDisk[0], 6u);
  // The frames' end waited for the preview, telling the user, before the output was saved.
  EXPECT_EQ(g.Told, std::vector<std::string>{DoneText});
  EXPECT_FALSE(g.OutputThereWhenTold);
  EXPECT_EQ(Played(g.Output).Info.Header.Frames, 16u);
  EXPECT_FALSE(Exists(g.Output + ".tmp"));
}

TEST_F(VelmocPreview, ACancelWhileThePreviewIsOpenDiscardsWhenItCloses) {
  g.CancelAfter = true;
  EXPECT_EQ(Run(), ToolExitCancelled);
  ASSERT_EQ(g.Files.size(), 1u);
  EXPECT_EQ(g.Files[0], g.Output + ".tmp");
  EXPECT_EQ(g.Told, std::vector<std::string>{CancelText});
  EXPECT_TRUE(NoOutput(g.Output));
}

TEST_F(VelmocPreview, AfterTheRunTheOutputPlays) {
  g.ViewWhenDone = true;
  AtomicStore(&g.Held, 0);
  AtomicStore(&g.Release, 1);
  EXPECT_EQ(Run(false), ToolExitDone);
  ASSERT_EQ(g.Files.size(), 1u);
  EXPECT_EQ(g.Files[0], g.Output);
  EXPECT_FALSE(g.Low[0]);
  EXPECT_EQ(g.FramesOnDisk[0], 16u);
  // Nothing was open when the frames ended: no waiting text.
  EXPECT_TRUE(g.Told.empty());
}

}  // namespace
