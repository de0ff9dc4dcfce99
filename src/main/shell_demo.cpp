// A stand-in tool for demonstrations: it "processes" a few dozen frames behind the tool
// shell, with the progress texts, the timer, a question and the cancel pattern that the real
// tools use, so the shell can be watched at work before those tools exist.
#include <atomic>
#include <chrono>
#include <cstdio>
#include <thread>

#include "host/gui/toolframe_gui.h"
#include "host/toolframe.h"

namespace {

constexpr int DemoFrames = 40;

const ToolControlDesc DemoControls[] = {
    {300, ToolControlText, "Input: (a built-in test pattern)"},
    {ToolIdStatus, ToolControlText, "Starting..."},
    {ToolIdProgress, ToolControlProgress, ""},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
};
const ToolDialogDesc DemoDialog = {"shelldemo", "Tool Shell Demo", DemoControls, 4};

// The demo's run record, handed to the dialog by the main routine.
struct DemoRun {
  std::atomic<int> framesDone{0};
  std::atomic<int> cancel{0};
  volatile int finished = 0;
  int shownFrames = -1;
};

DemoRun* RunOf(ToolDialog* dialog) { return static_cast<DemoRun*>(ToolFrameState(dialog)); }

void DemoTick(ToolDialog* dialog) {
  DemoRun* run = RunOf(dialog);
  if (!run) return;
  int done = run->framesDone;
  if (done == run->shownFrames) return;
  run->shownFrames = done;
  int percent = done * 100 / DemoFrames;
  char text[128];
  std::snprintf(text, sizeof text, "Processing %i of %i (%i%%)...", done, DemoFrames, percent);
  ToolFrameSetText(ToolIdStatus, text);
  std::snprintf(text, sizeof text, "%i%% - Tool Shell Demo", percent);
  ToolFrameSetCaption(text);
  ToolFrameSetProgress(ToolIdProgress, percent);
}

int DemoMain(char* tail, ToolDialog* dialog) {
  DemoRun* run = new DemoRun();
  ToolFrameSetState(dialog, run, [](void* state) { delete static_cast<DemoRun*>(state); });
  int result = ToolExitCancelled;
  ToolFrameSetProgressRange(ToolIdProgress, 100);
  ToolFrameSetTimer(DemoTick, 100);
  for (int frame = 0; frame < DemoFrames && !run->cancel; frame++) {
    if (frame == DemoFrames / 2 &&
        ToolFrameAsk("Half of the frames are done. Go on with the second half?", 1) != 1)
      break;
    std::this_thread::sleep_for(std::chrono::milliseconds(40));
    run->framesDone = frame + 1;
  }
  ToolFrameSetTimer(nullptr, 0);
  run->finished = 1;
  if (run->framesDone == DemoFrames) {
    char text[64];
    std::snprintf(text, sizeof text, "Finished: %i frames.", DemoFrames);
    ToolFrameSetText(ToolIdStatus, text);
    ToolFrameSetProgress(ToolIdProgress, 100);
    result = ToolExitDone;
  }
  return result;
}

int DemoCommand(int id, ToolDialog* dialog) {
  DemoRun* run = RunOf(dialog);
  if (id != ToolIdCancel || !run) return 1;
  if (run->finished) return 0;
  if (ToolFrameConfirmCancel("Cancel the demo?", "The demo finished before you cancelled!",
                             &run->finished)) {
    run->cancel = 1;
    ToolFrameShowCancelling(ToolIdCancel);
  }
  return 1;
}

}  // namespace

int main(int argc, char** argv) {
  ToolFrameSetWindowCandidate(ToolGuiFrontEnd());
  ToolDialogRegister(&DemoDialog);
  char tail[] = "";
  int code = ToolFrameRun(nullptr, 0, tail, 1, false, DemoMain, DemoCommand, "shelldemo");
  std::printf("Tool shell demo ended with exit code %d.\n", code);
  return code;
}
