// The tool shell driven by small test tools, through the terminal front end and through the
// window front end on a display (xvfb-run in the suite).
#include "host/toolframe.h"

#include <SDL.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "host/gui/toolframe_gui.h"
#include "host/quietframe.h"
#include "support/leak_check.h"
#include "support/run.h"
#include "support/terminal.h"


namespace {

using namespace std::chrono_literals;

const ToolControlDesc TestControls[] = {
    {300, ToolControlText, "Input:"},
    {ToolIdStatus, ToolControlText, "Starting..."},
    {ToolIdProgress, ToolControlProgress, ""},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
    {500, ToolControlButton, "&View"},
};
const ToolDialogDesc TestDialog = {"shelltest", "Test Tool", TestControls, 5};

// What the test tools and hooks saw, reset before each run.
struct Seen {
  std::atomic<int> finishedCount{0};
  std::string doneButton;
  std::string statusAtEnd;
  std::atomic<int> handlerCalls{0};
  std::atomic<int> handlerOffMain{0};
  std::vector<int> commands;
  std::vector<std::string> texts;
  std::atomic<int> cancel{0};
  std::atomic<int> timerTicks{0};
  std::atomic<int> timerOffMain{0};
  std::atomic<bool> workerReturned{false};
  int answers[12] = {};
  std::thread::id mainThread;
  std::vector<int> recordsSeen;  // by each handler call: the run record's id, 0 for none
  std::vector<int> released;     // the ids of released records, in order
  size_t callsBeforeRelease = 0;
  int ticksAtRelease = 0;
};

Seen* g_seen = nullptr;

void Reset(Seen* seen) {
  g_seen = seen;
  seen->mainThread = std::this_thread::get_id();
  ToolFrameSetHook(nullptr);
}

int RecordFinish(ToolDialog*, const ToolMessage* m) {
  if (m->code == ToolMsgFinished) {
    char text[256];
    ToolFrameGetText(ToolIdCancel, text, sizeof text);
    g_seen->doneButton = text;
    ToolFrameGetText(ToolIdStatus, text, sizeof text);
    g_seen->statusAtEnd = text;
    g_seen->finishedCount++;
  }
  if (m->code == ToolMsgSetText && m->a == ToolIdStatus) g_seen->texts.push_back(m->text);
  return 0;
}

// The usual handler: Cancel asks, Done (after the end) closes.
int CancelHandler(int id, ToolDialog*) {
  g_seen->handlerCalls++;
  g_seen->commands.push_back(id);
  if (std::this_thread::get_id() != g_seen->mainThread) g_seen->handlerOffMain++;
  if (id != 2) return 1;
  if (!ToolFrameWorkerRunning()) return 0;
  static volatile int finished = 0;
  if (ToolFrameConfirmCancel("Cancel the test?", "The test finished before you cancelled!",
                             &finished)) {
    g_seen->cancel = 1;
    ToolFrameShowCancelling(ToolIdCancel);
  }
  return 1;
}

int SucceedingTool(char* tail, ToolDialog* dialog) {
  ToolFrameSetText(300, tail);
  ToolFrameSetText(ToolIdStatus, "Working...");
  ToolFrameSetProgress(ToolIdProgress, 50);
  ToolFrameSetText(ToolIdStatus, "All done.");
  ToolFrameSetProgress(ToolIdProgress, 100);
  return ToolExitDone;
}

int FailingTool(char*, ToolDialog*) {
  ToolFrameSetText(ToolIdStatus, "Input went missing.");
  return ToolExitInputError;
}

// A run of the frame: the tool's code and what went to stderr.
test_support::ToolOutcome RunFrame(ToolMainRoutine tool, ToolCommandHandler handler,
                                   bool closeWhenDone = false, const char* tail = "",
                                   const char* dialog = "shelltest") {
  testing::internal::CaptureStderr();
  const int code = ToolFrameRun(nullptr, 0, tail, 1, closeWhenDone, tool, handler, dialog);
  return {code, testing::internal::GetCapturedStderr()};
}

class ConsoleShell : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    // No terminal on stdin: every box takes its default button.
    ASSERT_NE(std::freopen("/dev/null", "r", stdin), nullptr);
    ASSERT_TRUE(ToolDialogRegister(&TestDialog));
  }
  void SetUp() override {
    ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
    Reset(&seen);
  }
  void TearDown() override { ToolFrameSetHook(nullptr); }
  Seen seen;
};

TEST_F(ConsoleShell, SuccessShowsDoneAndReturnsZero) {
  ToolFrameSetHook(RecordFinish);
  const auto [code, out] = RunFrame(SucceedingTool, CancelHandler, false, "in.avi out.vlm", "SHELLTEST");
  EXPECT_EQ(code, 0);
  EXPECT_EQ(seen.finishedCount, 1);
  EXPECT_EQ(seen.doneButton, "&Done");
  EXPECT_EQ(seen.statusAtEnd, "All done.");
  // Nobody at the console presses Done, so the frame presses it: one command 2, after the end.
  ASSERT_EQ(seen.commands.size(), 1u);
  EXPECT_EQ(seen.commands[0], 2);
  EXPECT_EQ(seen.handlerOffMain, 0);
  EXPECT_NE(out.find("Test Tool - Done!"), std::string::npos) << out;
  EXPECT_NE(out.find("All done."), std::string::npos) << out;
  EXPECT_NE(out.find("in.avi out.vlm"), std::string::npos) << out;
}

TEST_F(ConsoleShell, FailureClosesWithTheToolsCode) {
  ToolFrameSetHook(RecordFinish);
  const auto [code, out] = RunFrame(FailingTool, CancelHandler);
  EXPECT_EQ(code, ToolExitInputError);
  EXPECT_EQ(seen.finishedCount, 1);
  EXPECT_EQ(seen.doneButton, "&Cancel");  // no Done on failure
  EXPECT_EQ(seen.handlerCalls, 0);        // closed by itself, not through the handler
  EXPECT_EQ(out.find("Done!"), std::string::npos) << out;
}

TEST_F(ConsoleShell, UnknownDialogCannotBeCreated) {
  const auto [code, out] = RunFrame(SucceedingTool, CancelHandler, false, "", "nosuchdialog");
  EXPECT_EQ(code, 0);
  EXPECT_NE(out.find("Couldn't create window."), std::string::npos);
}

TEST(ToolDialogTable, RegisterFindAndReplace) {
  static const ToolControlDesc one[] = {{1, ToolControlText, "a"}};
  static const ToolDialogDesc first = {"Replaceable", "First", one, 1};
  static const ToolDialogDesc second = {"REPLACEABLE", "Second", one, 1};
  static const ToolDialogDesc broken = {"broken", "Broken", nullptr, 2};
  EXPECT_EQ(ToolDialogFind("replaceable"), nullptr);
  ASSERT_TRUE(ToolDialogRegister(&first));
  EXPECT_STREQ(ToolDialogFind("replaceable")->title, "First");
  ASSERT_TRUE(ToolDialogRegister(&second));
  EXPECT_STREQ(ToolDialogFind("Replaceable")->title, "Second");
  EXPECT_FALSE(ToolDialogRegister(&broken));
  EXPECT_FALSE(ToolDialogRegister(nullptr));
  const ToolDialogDesc* progress = ToolDialogFind("progress");
  ASSERT_NE(progress, nullptr);
  bool hasCancel = false;
  for (int i = 0; i < progress->controlCount; i++)
    hasCancel |= progress->controls[i].id == ToolIdCancel &&
                 progress->controls[i].kind == ToolControlButton;
  EXPECT_TRUE(hasCancel);
}

// Every box style, asked from the worker with no terminal: the default button answers.
int AskingTool(char*, ToolDialog*) {
  int* a = g_seen->answers;
  a[0] = ToolFrameAsk("zero", 0);                              // No is the default
  a[1] = ToolFrameAsk("one", 1);                               // Yes
  a[2] = ToolFrameAsk("two of two", 2);                        // no third button: Yes
  a[3] = ToolFrameAsk("three", ToolBoxThreeButtons | 2);       // Cancel
  a[4] = ToolFrameAsk("three none", ToolBoxThreeButtons | 0);  // No
  a[5] = ToolFrameAsk("three other", ToolBoxThreeButtons | 5); // Yes
  a[6] = ToolFrameTell("ok", 0);                               // OK
  a[7] = ToolFrameTell("ok cancel", ToolBoxThreeButtons);      // OK
  a[8] = ToolFrameTell("ok cancel 2", ToolBoxThreeButtons | 2);  // Cancel
  a[9] = ToolFrameTell("ok only 2", 2);                        // a lone OK
  return 0;
}

TEST_F(ConsoleShell, BoxesTakeTheDefaultButtonWithoutATerminal) {
  const auto [code, out] = RunFrame(AskingTool, CancelHandler);
  EXPECT_EQ(code, 0);
  const int expected[] = {0, 1, 1, 2, 0, 1, 0, 0, 2, 0};
  for (int i = 0; i < 10; i++) EXPECT_EQ(seen.answers[i], expected[i]) << "box " << i;
  // The question, its caption and the answer taken are all on stderr.
  EXPECT_NE(out.find("Test Tool - Question: three"), std::string::npos) << out;
  EXPECT_NE(out.find("default answer: Cancel"), std::string::npos) << out;
  EXPECT_NE(out.find("default answer: No"), std::string::npos) << out;
}

TEST(ToolFrameBoxes, OutsideAFrameTheyStillAnswer) {
  std::freopen("/dev/null", "r", stdin);
  ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
  testing::internal::CaptureStderr();
  EXPECT_EQ(ToolFrameAsk("alone", 0), 0);
  EXPECT_EQ(ToolFrameAsk("alone", ToolBoxThreeButtons | 2), 2);
  EXPECT_EQ(ToolFrameTell("alone", 0), 0);
  QuietFrameInit(nullptr, 77, 3);
  EXPECT_EQ(QuietFrameParent(), 77);
  EXPECT_STREQ(QuietFrameLastQuestion(), "");
  EXPECT_TRUE(QuietFrameAsk("Keep going?", "ORN File Info..."));
  EXPECT_STREQ(QuietFrameLastQuestion(), "Keep going? Yes.");
  QuietFrameBox("Shown.", "ORN File Info...", ToolIconInformation);
  std::string out = testing::internal::GetCapturedStderr();
  EXPECT_NE(out.find("ORN File Info... - Note: Shown."), std::string::npos) << out;
}

// 2000 texts posted without waiting arrive all, in order, and the last one stands. Closing when
// done, the frame shows Done but does not wait for it to be pressed.
int ChattyTool(char*, ToolDialog*) {
  char text[32];
  for (int i = 0; i < 2000; i++) {
    std::snprintf(text, sizeof text, "step %d", i);
    ToolFrameSetText(ToolIdStatus, text);
  }
  return 0;
}

TEST_F(ConsoleShell, PostedTextsKeepTheirOrder) {
  ToolFrameSetHook(RecordFinish);
  const auto [code, out] = RunFrame(ChattyTool, CancelHandler, true);
  EXPECT_EQ(code, 0);
  ASSERT_EQ(seen.texts.size(), 2000u);
  for (int i = 0; i < 2000; i++) ASSERT_EQ(seen.texts[size_t(i)], "step " + std::to_string(i));
  EXPECT_EQ(seen.statusAtEnd, "step 1999");
  EXPECT_EQ(seen.doneButton, "&Done");
  EXPECT_EQ(seen.handlerCalls, 0);
  // Into a file the console prints changes sparsely: far fewer than 2000 lines, but the last.
  EXPECT_NE(out.find("step 1999"), std::string::npos);
  EXPECT_LT(std::count(out.begin(), out.end(), '\n'), 50);
}

// Sends itself a stop signal (SIGINT as a user at the terminal would, or SIGTERM as a system
// shutting down does), then runs on until told to stop, and lingers a little so that an early
// return of the frame would show.
int g_stopSignal = SIGINT;
int InterruptedTool(char*, ToolDialog*) {
  kill(getpid(), g_stopSignal);
  for (int i = 0; i < 500 && !g_seen->cancel; i++) std::this_thread::sleep_for(10ms);
  std::this_thread::sleep_for(150ms);
  g_seen->workerReturned = true;
  return g_seen->cancel ? ToolExitCancelled : 0;
}

// The tool's run record, which the frame waits for before it hands a stop signal over.
int g_record = 0;
int RecordedInterruptedTool(char* tail, ToolDialog* dialog) {
  ToolFrameSetState(dialog, &g_record, nullptr);
  return InterruptedTool(tail, dialog);
}

TEST_F(ConsoleShell, AStopSignalIsTheCancelWithoutQuestions) {
  for (const int number : {SIGINT, SIGTERM}) {
    SCOPED_TRACE(number);
    Reset(&seen);
    seen.cancel = 0;
    seen.handlerCalls = 0;
    ToolFrameSetHook(RecordFinish);
    g_stopSignal = number;
    auto start = std::chrono::steady_clock::now();
    const auto [code, out] = RunFrame(RecordedInterruptedTool, CancelHandler);
    auto took = std::chrono::steady_clock::now() - start;
    EXPECT_EQ(code, ToolExitCancelled);
    EXPECT_TRUE(seen.workerReturned);
    EXPECT_GE(took, 150ms);
    EXPECT_EQ(seen.handlerCalls, 1);
    EXPECT_EQ(seen.handlerOffMain, 0);
    EXPECT_EQ(seen.doneButton, "Cancelling...");
    // Nobody is asked: a signal cannot answer, and a script that sends one means it.
    EXPECT_EQ(out.find("Cancel the test?"), std::string::npos) << out;
    EXPECT_FALSE(ToolFrameStopRequested());
    // The frame gives the signal back when it ends.
    struct sigaction now {};
    sigaction(number, nullptr, &now);
    EXPECT_EQ(now.sa_handler, SIG_DFL);
  }
}

// A handler that answers No keeps everything running: the tool then ends well.
int RefusingHandler(int id, ToolDialog*) {
  g_seen->handlerCalls++;
  if (id == 2 && ToolFrameWorkerRunning() && ToolFrameAsk("Cancel the test?", 0) == 1)
    g_seen->cancel = 1;
  return ToolFrameWorkerRunning() ? 1 : 0;
}

int CloseTwiceTool(char*, ToolDialog*) {
  ToolFramePostCommand(2);
  std::this_thread::sleep_for(100ms);
  return g_seen->cancel ? ToolExitCancelled : 0;
}

TEST_F(ConsoleShell, NoToCancelKeepsTheRunGoing) {
  const auto [code, out] = RunFrame(CloseTwiceTool, RefusingHandler);
  EXPECT_EQ(code, 0);
  EXPECT_EQ(seen.cancel, 0);
  EXPECT_EQ(seen.handlerCalls, 2);  // the refused cancel, then Done
}

// A handler that destroys the dialog while the worker runs: the frame still waits for the
// worker, and the worker's later boxes still get answers.
int ViewClosesHandler(int id, ToolDialog*) { return id == 500 ? 0 : 1; }

int OutlivingTool(char*, ToolDialog*) {
  ToolFramePostCommand(500);
  for (int i = 0; i < 300 && ToolFrameGetText(ToolIdStatus, nullptr, 0) >= 0; i++)
    std::this_thread::sleep_for(5ms);
  g_seen->answers[0] = ToolFrameGetText(ToolIdStatus, nullptr, 0);
  g_seen->answers[1] = ToolFrameAsk("Still there?", 1);
  g_seen->workerReturned = true;
  return 42;
}

TEST_F(ConsoleShell, WorkerOutlivesItsDialog) {
  const auto [code, out] = RunFrame(OutlivingTool, ViewClosesHandler);
  EXPECT_EQ(code, 42);
  EXPECT_TRUE(seen.workerReturned);
  EXPECT_EQ(seen.answers[0], -1);  // the dialog was gone
  EXPECT_EQ(seen.answers[1], 1);
  EXPECT_NE(out.find("Still there?"), std::string::npos);
}

// The worker's stack holds 8 MiB of locals and more.
int DeepStackTool(char*, ToolDialog*) {
  volatile unsigned char big[8 << 20];
  for (size_t i = 0; i < sizeof big; i += 4096) big[i] = static_cast<unsigned char>(i >> 12);
  unsigned sum = 0;
  for (size_t i = 0; i < sizeof big; i += 4096) sum += big[i];
  return sum == 8u * (255u * 256u / 2) ? 0 : 1;  // 2048 pages, the byte pattern wraps 8 times
}

TEST_F(ConsoleShell, WorkerHasA16MiBStack) {
  const auto [code, out] = RunFrame(DeepStackTool, CancelHandler, true);
  EXPECT_EQ(code, 0);
}

// A tool's run record as the frame carries it from the main routine to the handler and timer.
struct RunRecord {
  int id;
  std::atomic<int> ticks{0};
};

int RecordHandler(int id, ToolDialog* dialog) {
  const RunRecord* r = static_cast<const RunRecord*>(ToolFrameState(dialog));
  g_seen->recordsSeen.push_back(r ? r->id : 0);
  g_seen->handlerCalls++;
  return id == ToolIdCancel ? 0 : 1;
}

void RecordTick(ToolDialog* dialog) {
  g_seen->timerTicks++;
  if (std::this_thread::get_id() != g_seen->mainThread) g_seen->timerOffMain++;
  if (RunRecord* r = static_cast<RunRecord*>(ToolFrameState(dialog))) r->ticks++;
}

void ReleaseRecord(void* state) {
  RunRecord* r = static_cast<RunRecord*>(state);
  g_seen->released.push_back(r->id);
  g_seen->callsBeforeRelease = g_seen->recordsSeen.size();
  g_seen->ticksAtRelease = r->ticks;
  delete r;
}

void WaitForHandlerCalls(int calls) {
  for (int i = 0; i < 400 && g_seen->handlerCalls < calls; i++) std::this_thread::sleep_for(5ms);
}

// Presses View before it has a record and once after, ticks until the record saw two ticks,
// stops the timer and notes the ticks a while after, and ends well; the tail is the record's id.
int RecordingTool(char* tail, ToolDialog* dialog) {
  ToolFramePostCommand(500);
  WaitForHandlerCalls(1);
  RunRecord* r = new RunRecord{std::atoi(tail)};
  ToolFrameSetState(dialog, r, ReleaseRecord);
  g_seen->answers[0] = ToolFrameState(dialog) == r;
  ToolFrameSetTimer(RecordTick, 5);
  for (int i = 0; i < 400 && r->ticks < 2; i++) std::this_thread::sleep_for(5ms);
  ToolFrameSetTimer(nullptr, 0);
  std::this_thread::sleep_for(30ms);  // a tick under way when the timer stopped
  g_seen->answers[1] = g_seen->timerTicks;
  std::this_thread::sleep_for(60ms);
  g_seen->answers[2] = g_seen->timerTicks;
  ToolFramePostCommand(500);
  WaitForHandlerCalls(2);
  return 0;
}

// Two runs in turn: each record reaches the timer and every later command, Done after the
// worker's return included, and is released once after the last; the next run starts with none.
// The timer ticks on the main thread until it is stopped.
TEST_F(ConsoleShell, TheRunRecordLastsUntilTheFrameIsDone) {
  for (const int id : {7, 8}) {
    SCOPED_TRACE(id);
    seen.recordsSeen.clear();
    seen.released.clear();
    seen.handlerCalls = 0;
    const auto [code, out] = RunFrame(RecordingTool, RecordHandler, false,
                                      std::to_string(id).c_str());
    EXPECT_EQ(code, 0);
    EXPECT_EQ(seen.answers[0], 1);
    EXPECT_EQ(seen.recordsSeen, (std::vector<int>{0, id, id}));  // View, View, Done
    EXPECT_EQ(seen.released, std::vector<int>{id});
    EXPECT_EQ(seen.callsBeforeRelease, 3u);
    EXPECT_GE(seen.ticksAtRelease, 2);
    EXPECT_EQ(seen.answers[1], seen.answers[2]);
    EXPECT_EQ(seen.timerOffMain, 0);
  }
}

// ---- Labels, the running line and the summary -------------------------------------------

// A dialog laid out as the tools' are: facts above the bar, running figures below it, one of
// them named by a label control in front of it.
const ToolControlDesc LabelControls[] = {
    {300, ToolControlText, "Input: "},
    {301, ToolControlText, "Sound: "},
    {ToolIdStatus, ToolControlText, "Starting..."},
    {ToolIdProgress, ToolControlProgress, ""},
    {304, ToolControlText, "Elapsed: "},
    {105, ToolControlLabel, "Time left:"},
    {305, ToolControlText, ""},
    {307, ToolControlText, ""},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
};
const ToolDialogDesc LabelDialog = {"labeltest", "Label Tool", LabelControls, 9};

std::chrono::milliseconds g_phase{0};  // how long each phase of LabelledTool lasts
const std::string LongStatus = "Reading " + std::string(120, 'x') + ".avi...";

// Works in three phases: reading (the bar has not moved), halfway, and the end with its totals.
int LabelledTool(char*, ToolDialog*) {
  ToolFrameSetText(300, "in.avi");
  ToolFrameSetText(301, "None.");
  ToolFrameSetText(ToolIdStatus, LongStatus.c_str());
  std::this_thread::sleep_for(g_phase);
  ToolFrameSetText(ToolIdStatus, "Processing 5 of 10...");
  ToolFrameSetText(304, "0:00:01");
  ToolFrameSetText(305, "0:00:02");
  ToolFrameSetProgress(ToolIdProgress, 50);
  std::this_thread::sleep_for(g_phase);
  ToolFrameSetText(ToolIdStatus, "10 total frames converted.");
  ToolFrameSetText(105, "Total time:");
  ToolFrameSetText(304, "Done!");
  ToolFrameSetText(305, "0:00:04");
  ToolFrameSetText(307, "Final: 1,234 bytes");
  ToolFrameSetProgress(ToolIdProgress, 100);
  return 0;
}

int IdleTool(char*, ToolDialog*) { return 0; }

std::vector<std::string> g_linesAtEnd;

// The text controls as the front ends read them once the tool has returned.
int RecordLines(ToolDialog* dialog, const ToolMessage* m) {
  if (m->code != ToolMsgFinished) return 0;
  g_linesAtEnd.clear();
  for (int i = 0; i < ToolDialogControlCount(dialog); i++) {
    const ToolControlView c = ToolDialogControl(dialog, i);
    if (c.kind != ToolControlText) continue;
    char line[256];
    ToolControlLine(c, line, sizeof line);
    g_linesAtEnd.push_back(line);
  }
  return 0;
}

std::vector<std::string> SplitLines(const std::string& text, const std::string& end) {
  std::vector<std::string> lines;
  size_t at = 0;
  for (size_t next; (next = text.find(end, at)) != std::string::npos; at = next + end.size())
    lines.push_back(text.substr(at, next - at));
  return lines;
}

// Where `wanted` stand in `lines`, each after the one before; -1 for the first one missing.
long FirstMissingInOrder(const std::vector<std::string>& lines, const std::vector<std::string>& wanted) {
  size_t from = 0;
  for (size_t w = 0; w < wanted.size(); w++) {
    auto it = std::find(lines.begin() + long(from), lines.end(), wanted[w]);
    if (it == lines.end()) return long(w);
    from = size_t(it - lines.begin()) + 1;
  }
  return -1;
}

TEST_F(ConsoleShell, ValuesAreShownWithTheirLabels) {
  ASSERT_TRUE(ToolDialogRegister(&LabelDialog));
  ToolFrameSetHook(RecordLines);
  g_phase = 0ms;
  // Untouched, each control shows its label alone (or its placeholder text), and the label
  // control's text stands in front of the value after it.
  EXPECT_EQ(RunFrame(IdleTool, CancelHandler, true, "", "labeltest").code, 0);
  EXPECT_EQ(g_linesAtEnd, (std::vector<std::string>{"Input:", "Sound:", "Starting...", "Elapsed:",
                                                     "Time left:", ""}));
  // Set, values stand beside their labels, unless they carry one of their own.
  EXPECT_EQ(RunFrame(LabelledTool, CancelHandler, true, "", "labeltest").code, 0);
  EXPECT_EQ(g_linesAtEnd,
            (std::vector<std::string>{"Input: in.avi", "Sound: None.", "10 total frames converted.",
                                      "Elapsed: Done!", "Total time: 0:00:04",
                                      "Final: 1,234 bytes"}));
}

// Into a file: facts as labelled lines, then at most one plain progress line a second (with a
// percentage only once the bar has moved), then the summary, one labelled line each.
TEST_F(ConsoleShell, RedirectedOutputIsPlainLinesAndASummary) {
  ASSERT_TRUE(ToolDialogRegister(&LabelDialog));
  g_phase = 1600ms;
  const auto [code, out] = RunFrame(LabelledTool, CancelHandler, false, "", "labeltest");
  g_phase = 0ms;
  EXPECT_EQ(code, 0);
  EXPECT_EQ(out.find('\r'), std::string::npos) << out;
  EXPECT_EQ(out.find("\x1b["), std::string::npos) << out;
  const std::vector<std::string> lines = SplitLines(out, "\n");
  const std::string halfway = "50%  Processing 5 of 10...  Elapsed: 0:00:01  Time left: 0:00:02";
  EXPECT_EQ(FirstMissingInOrder(lines, {"Label Tool", "Input: in.avi", "Sound: None.", LongStatus,
                                        halfway, "10 total frames converted.", "Elapsed: Done!",
                                        "Total time: 0:00:04", "Final: 1,234 bytes",
                                        "Label Tool - Done!"}),
            -1)
      << out;
  EXPECT_EQ(out.substr(0, out.find(halfway)).find('%'), std::string::npos) << out;
  EXPECT_EQ(std::count(lines.begin(), lines.end(), halfway), 1) << out;
  EXPECT_EQ(out.find("progress"), std::string::npos) << out;
}

// On a terminal: one running line redrawn in place (back to its start, cut to the width,
// cleared to the end), facts and the summary as lines of their own above it.
TEST(ConsoleTerminal, ProgressIsOneLineRedrawnInPlace) {
  const test_support::ToolOutcome o = test_support::RunInTerminal([] {
    Seen seen;
    Reset(&seen);
    ToolDialogRegister(&LabelDialog);
    ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
    g_phase = 600ms;
    return ToolFrameRun(nullptr, 0, "", 1, false, LabelledTool, CancelHandler, "labeltest");
  });
  ASSERT_EQ(o.code, 0) << o.output;
  const std::string& out = o.output;
  EXPECT_TRUE(o.Says("Input: in.avi\r\n")) << out;
  EXPECT_TRUE(o.Says("\r[#####-----] 50%  Processing 5 of 10...  Elapsed: 0:00:01  Time left: "
                     "0:00:02\x1b[K"))
      << out;
  // Redrawn lines fit the terminal: nothing between a return and a clear is wider.
  size_t drawn = 0;
  for (size_t at = 0; (at = out.find('\r', at)) != std::string::npos; at++) {
    const size_t clear = out.find("\x1b[K", at), next = out.find('\r', at + 1);
    if (clear == std::string::npos || clear > next) continue;
    EXPECT_LT(clear - at - 1, size_t(test_support::TerminalColumns)) << out.substr(at, clear - at);
    drawn++;
  }
  EXPECT_GE(drawn, 2u) << out;
  EXPECT_TRUE(o.Says("\r" + LongStatus.substr(0, 20))) << out;
  EXPECT_EQ(out.substr(0, out.find("50%")).find('%'), std::string::npos) << out;
  // The summary: the running line cleared, then one labelled line each.
  EXPECT_TRUE(o.Says("\r\x1b[K10 total frames converted.\r\nElapsed: Done!\r\nTotal time: "
                     "0:00:04\r\nFinal: 1,234 bytes\r\nLabel Tool - Done!\r\n"))
      << out;
  EXPECT_FALSE(o.Says("progress")) << out;
}

// ---- The window front end on a display ------------------------------------------------------
// ctest runs these under xvfb-run (see CMakeLists.txt); where no display is reachable they skip.

struct GuiSeen {
  int paintsAfterFinish = -1;
  int boxKeysSent = 0;
  bool boxShot = false;
  std::string caption;
  std::string screenshot;
};
GuiSeen* g_gui = nullptr;

// Drives the window like a user: Enter on a box, Done some frames after the end.
int GuiDriver(ToolDialog* dialog, const ToolMessage* m) {
  RecordFinish(dialog, m);
  if (m->code == ToolMsgFinished) g_gui->paintsAfterFinish = 0;
  if (m->code != ToolMsgPaint) return 0;
  if (ToolDialogTopBox(dialog) && !g_gui->boxShot) {
    g_gui->boxShot = true;
    ToolGuiRequestScreenshot("toolframe_window_box.png");
  }
  if (ToolDialogTopBox(dialog) && m->a % 3 == 0) {
    SDL_Event e{};
    e.type = (g_gui->boxKeysSent++ % 2 == 0) ? SDL_KEYDOWN : SDL_KEYUP;
    e.key.keysym.scancode = SDL_SCANCODE_RETURN;
    e.key.keysym.sym = SDLK_RETURN;
    SDL_PushEvent(&e);
  }
  if (g_gui->paintsAfterFinish >= 0) {
    int n = ++g_gui->paintsAfterFinish;
    if (n == 3) {
      g_gui->caption = ToolDialogCaption(dialog);
      ToolGuiRequestScreenshot(g_gui->screenshot.c_str());
    }
    if (n == 6) ToolFramePostCommand(ToolIdCancel);  // press Done
  }
  return 0;
}

int GuiTool(char* tail, ToolDialog*) {
  ToolFrameSetText(300, tail);
  ToolFrameSetText(ToolIdStatus, "Processing 5 of 10 (50%)...");
  ToolFrameSetProgress(ToolIdProgress, 50);
  g_seen->answers[0] = ToolFrameAsk("Keep the frames that you've compressed so far?",
                                    ToolBoxThreeButtons | 2);
  ToolFrameSetText(ToolIdStatus, "Finished.");
  ToolFrameSetProgress(ToolIdProgress, 100);
  return 0;
}

// The window front end with SDL's video up on the display; all undone after.
class WindowShell : public ::testing::Test {
 protected:
  void SetUp() override {
    const char* display = std::getenv("DISPLAY");
    if (!display || !*display)
      GTEST_SKIP() << "no display: the window tests run under xvfb-run (ctest runs them so)";
    onDisplay = true;
    setenv("SDL_VIDEODRIVER", "x11", 1);
    // The same frame code is leak-checked by the console tests.
    LeakCheckPause();
    ASSERT_EQ(SDL_InitSubSystem(SDL_INIT_VIDEO), 0) << display << ": " << SDL_GetError();
    Reset(&seen);
  }
  void TearDown() override {
    if (!onDisplay) return;
    ToolFrameSetHook(nullptr);
    ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
    SDL_Quit();
    LeakCheckResume();
  }
  // Runs `tool` of `dialog` in the window, driven by `hook`.
  int Run(const ToolDialogDesc* dialog, ToolMainRoutine tool, ToolMessageHook hook,
          const char* tail) {
    ToolDialogRegister(dialog);
    ToolFrameSetFrontEnd(ToolGuiFrontEnd());
    ToolFrameSetHook(hook);
    const int code = ToolFrameRun(nullptr, 0, tail, 1, false, tool, CancelHandler, dialog->name);
    ToolFrameSetHook(nullptr);
    return code;
  }
  bool onDisplay = false;
  Seen seen;
};

TEST_F(WindowShell, RunsAToolHeadlessUnderXvfb) {
  GuiSeen gui;
  g_gui = &gui;
  // Left in the test's working folder (the build tree) for a person to look at.
  gui.screenshot = "toolframe_window.png";
  ::unlink(gui.screenshot.c_str());
  const int code = Run(&TestDialog, GuiTool, GuiDriver, "window.avi");

  EXPECT_EQ(code, 0);
  EXPECT_EQ(seen.answers[0], 2);  // Enter took the default: the third button, Cancel
  EXPECT_GT(gui.boxKeysSent, 0);
  EXPECT_EQ(seen.doneButton, "&Done");
  EXPECT_EQ(gui.caption, "Test Tool - Done!");
  // The last frame: the caption as a heading, each value beside its label.
  const std::vector<std::string> drawn = ToolGuiDrawnLines();
  ASSERT_FALSE(drawn.empty());
  EXPECT_EQ(drawn[0], "Test Tool - Done!");
  EXPECT_EQ(std::vector<std::string>(drawn.begin() + 1, drawn.end()),
            (std::vector<std::string>{"Input: window.avi", "Finished."}));
  EXPECT_GE(ToolGuiFramesDrawn(), 6);
  ASSERT_EQ(seen.commands.size(), 1u);  // Done, pressed once
  struct stat st {};
  EXPECT_EQ(stat(gui.screenshot.c_str(), &st), 0) << gui.screenshot;
  EXPECT_GT(st.st_size, 1000);
}


// ---- Edit fields in the window ----------------------------------------------------------------

// The log text "line 1\n" to "line N\n".
std::string LogLines(int lines) {
  std::string log;
  for (int i = 1; i <= lines; i++) log += "line " + std::to_string(i) + "\n";
  return log;
}

// The field's model: a text that the tool sets moves the caret and the view to its end for the
// next draws; the same text handed again each frame does not, so a user who scrolled up stays.
TEST(WindowEditField, ATextTheToolSetsIsShownFromItsEnd) {
  ToolGuiEditField field;
  EXPECT_FALSE(ToolGuiEditDrawsAtEnd(&field));
  EXPECT_TRUE(ToolGuiTakeEditText(&field, LogLines(3).c_str()));
  EXPECT_EQ(field.text, LogLines(3));
  for (int draw = 0; draw < ToolGuiEndDraws; draw++) EXPECT_TRUE(ToolGuiEditDrawsAtEnd(&field));
  EXPECT_FALSE(ToolGuiEditDrawsAtEnd(&field));
  EXPECT_FALSE(ToolGuiTakeEditText(&field, LogLines(3).c_str()));
  EXPECT_FALSE(ToolGuiEditDrawsAtEnd(&field));
  // What the user typed stays until the tool sets a text of its own.
  field.text += "typed";
  EXPECT_FALSE(ToolGuiTakeEditText(&field, LogLines(3).c_str()));
  EXPECT_EQ(field.text, LogLines(3) + "typed");
  EXPECT_TRUE(ToolGuiTakeEditText(&field, LogLines(4).c_str()));
  EXPECT_EQ(field.text, LogLines(4));
  EXPECT_TRUE(ToolGuiEditDrawsAtEnd(&field));
  EXPECT_TRUE(ToolGuiTakeEditText(&field, nullptr));  // no text is an empty one
  EXPECT_EQ(field.text, "");
}

constexpr int LogId = 400;
const ToolControlDesc LogControls[] = {
    {ToolIdStatus, ToolControlText, "Starting..."},
    {LogId, ToolControlEdit, ""},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
};
const ToolDialogDesc LogDialog = {"logtest", "Log Tool", LogControls, 3};

// Where the log field's view stood: after the tool's log, and after a longer one.
struct LogSeen {
  int paints = -1;
  float scroll[2] = {-1, -1}, scrollMax[2] = {-1, -1};
} g_log;

int LogTool(char*, ToolDialog*) {
  ToolFrameSetText(LogId, LogLines(200).c_str());
  ToolFrameSetText(ToolIdStatus, "Finished.");
  return 0;
}

// Some frames after the end: notes the view, sets a longer log, notes again, presses Done.
int LogDriver(ToolDialog* dialog, const ToolMessage* m) {
  RecordFinish(dialog, m);
  if (m->code == ToolMsgFinished) g_log.paints = 0;
  if (m->code != ToolMsgPaint || g_log.paints < 0) return 0;
  const int n = ++g_log.paints;
  if (n == 5 || n == 10) {
    const int i = n == 5 ? 0 : 1;
    ToolGuiEditScroll(LogId, &g_log.scroll[i], &g_log.scrollMax[i]);
    ToolFrameSetText(LogId, LogLines(400).c_str());
  }
  if (n == 11) ToolFramePostCommand(ToolIdCancel);  // press Done
  return 0;
}

TEST_F(WindowShell, ALogTheToolSetsShowsItsLastLine) {
  g_log = LogSeen{};
  EXPECT_EQ(Run(&LogDialog, LogTool, LogDriver, ""), 0);
  ASSERT_EQ(g_log.paints, 11);
  // 200 lines do not fit the field: the view stands at its end, and again after 400.
  EXPECT_GT(g_log.scrollMax[0], 0.0f);
  EXPECT_EQ(g_log.scroll[0], g_log.scrollMax[0]);
  EXPECT_GT(g_log.scrollMax[1], g_log.scrollMax[0]);
  EXPECT_EQ(g_log.scroll[1], g_log.scrollMax[1]);
}

}  // namespace
