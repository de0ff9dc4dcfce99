// The tool shell's core: the frame record, the worker thread, posted updates, message boxes and
// the main loop that the front ends step.
#include "host/toolframe.h"

#include "host/series.h"
#include "host/signals.h"

#include <pthread.h>
#include <strings.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cctype>
#include <climits>
#include <condition_variable>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <deque>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace {

constexpr size_t WorkerStackBytes = 0x1000000;
constexpr int MaxDialogDescs = 64;
constexpr int IdleWaitMs = 250;

// ---- Dialog descriptions -------------------------------------------------------------------

const ToolControlDesc ProgressControls[] = {
    {ToolIdStatus, ToolControlText, "Starting..."},
    {ToolIdProgress, ToolControlProgress, ""},
    {ToolIdCancel, ToolControlButton, "&Cancel"},
};
const ToolDialogDesc ProgressDialog = {"progress", "ORN Video Tools", ProgressControls, 3};

const ToolDialogDesc* g_descs[MaxDialogDescs] = {&ProgressDialog};
int g_descCount = 1;
std::mutex g_descLock;

// ---- The frame record ------------------------------------------------------------------------

struct Control {
  int id;
  ToolControlKind kind;
  std::string text;
  bool enabled = true;
  int position = 0;
  int maximum = 100;
  std::string initial;  // the description's text
  std::string label;    // a text control's own label, "Elapsed:" of "Elapsed: "; else ""
};

// The label an initial text gives a text control: the text without trailing blanks when it
// ends in ":".
std::string LabelOf(ToolControlKind kind, const char* text) {
  if (kind != ToolControlText || !text) return std::string();
  std::string s = text;
  while (!s.empty() && (s.back() == ' ' || s.back() == '\t')) s.pop_back();
  return !s.empty() && s.back() == ':' ? s : std::string();
}

// True when a value starts with a label of its own: words, then ":" and a blank or the end.
bool CarriesLabel(const std::string& value) {
  size_t i = 0;
  while (i < value.size() && (std::isalpha(static_cast<unsigned char>(value[i])) || value[i] == ' '))
    i++;
  return i > 0 && std::isalpha(static_cast<unsigned char>(value[0])) && i < value.size() &&
         value[i] == ':' && (i + 1 == value.size() || value[i + 1] == ' ');
}

enum PostKind { PostText, PostCaption, PostRange, PostPosition, PostEnable, PostCommand,
                PostClose, PostUser, PostBox, PostFinished, PostTimer };

struct Post {
  PostKind kind;
  int control;
  intptr_t a, b;
  std::string text;
  ToolBox* box;
};

// A box asked for by another thread, answered by the main thread.
struct BoxWaiter {
  ToolBox* box;
  bool done = false;
};

}  // namespace

struct ToolDialog {
  // Set by ToolFrameRun, read by all.
  intptr_t parentWindow = 0;
  int showState = 1;
  std::atomic<bool> closeWhenDone{false};
  ToolCommandHandler commandHandler = nullptr;
  std::string title;
  std::atomic<bool> alive{false};
  std::atomic<bool> workerFinished{false};
  std::atomic<bool> running{false};  // a ToolFrameRun is in progress
  int exitValue = 0;
  std::thread::id mainThread;

  // Main thread only (written under `lock` so that other threads may read).
  std::string caption;
  std::vector<Control> controls;
  std::vector<ToolBox*> boxes;  // open boxes, top last
  int closesHandled = 0;
  bool stopHandled = false;  // a SIGINT or SIGTERM has been handed to the tool as its Cancel

  // Timer 1.
  ToolTimerCallback timerCallback = nullptr;
  int timerMs = 0;
  std::chrono::steady_clock::time_point timerDue;

  ToolMessageHook hook = nullptr;

  // The tool's run record (under `lock`).
  void* state = nullptr;
  ToolStateRelease releaseState = nullptr;

  // Posted from any thread.
  std::mutex lock;
  std::condition_variable posted;
  std::condition_variable answered;
  std::deque<Post> queue;
  std::vector<BoxWaiter*> waiters;  // worker boxes on the stack or waiting for one
};

namespace {

ToolDialog g_frame;
const ToolFrontEnd* g_frontEnd = nullptr;
const ToolFrontEnd* g_windowCandidate = nullptr;
std::mutex g_frontEndLock;

struct WorkerArgs {
  ToolMainRoutine routine;
  std::string tail;
};

Control* FindControl(ToolDialog* d, int id) {
  for (Control& c : d->controls)
    if (c.id == id) return &c;
  return nullptr;
}

int CallHook(ToolDialog* d, int code, intptr_t a, intptr_t b, const char* text) {
  if (!d->hook) return 0;
  ToolMessage m{code, a, b, text};
  return d->hook(d, &m);
}

bool OnMainThread() {
  return g_frame.running && std::this_thread::get_id() == g_frame.mainThread;
}

void PostToFrame(Post post) {
  {
    std::lock_guard<std::mutex> hold(g_frame.lock);
    g_frame.queue.push_back(std::move(post));
  }
  g_frame.posted.notify_all();
  const ToolFrontEnd* fe = g_frontEnd;
  if (fe && fe->wake) fe->wake();
}

bool EnvSet(const char* name) {
  const char* v = std::getenv(name);
  return v && *v;
}

// ---- Dialog life -------------------------------------------------------------------------------

void DestroyDialog(ToolDialog* d) {
  if (!d->alive) return;
  ToolFrameFrontEnd()->close(d);
  std::lock_guard<std::mutex> hold(d->lock);
  d->alive = false;
  // Boxes of main-thread questions stay with their nested loops; the worker's boxes are
  // answered later by the loop that waits for the worker.
  d->boxes.clear();
}

void ArmTimer(ToolDialog* d) {
  d->timerDue = std::chrono::steady_clock::now() + std::chrono::milliseconds(d->timerMs);
}

void HandleCommand(ToolDialog* d, int id) {
  if (CallHook(d, ToolMsgCommand, id, 0, nullptr)) return;
  if (!d->commandHandler || d->commandHandler(id, d) == 0) DestroyDialog(d);
}

void HandleClose(ToolDialog* d) {
  if (!CallHook(d, ToolMsgClose, 0, 0, nullptr)) {
    if (d->workerFinished)
      DestroyDialog(d);
    else if (d->commandHandler)
      d->commandHandler(2, d);
  }
  d->closesHandled++;
}

void SetControlText(ToolDialog* d, int id, const std::string& text) {
  if (CallHook(d, ToolMsgSetText, id, 0, text.c_str())) return;
  std::lock_guard<std::mutex> hold(d->lock);
  if (Control* c = FindControl(d, id)) c->text = text;
}

void HandleFinished(ToolDialog* d, int exitValue) {
  if (CallHook(d, ToolMsgFinished, exitValue, 0, nullptr)) return;
  if (d->closeWhenDone) {
    DestroyDialog(d);
  } else if (ToolFrameFrontEnd()->autoDone) {
    // Nobody is there to press Done: press it, and close even if the handler keeps the window,
    // as the close box would after the end.
    HandleCommand(d, ToolIdCancel);
    DestroyDialog(d);
  }
}

void HandlePost(ToolDialog* d, Post& p) {
  switch (p.kind) {
    case PostText: SetControlText(d, p.control, p.text); break;
    case PostCaption: {
      std::lock_guard<std::mutex> hold(d->lock);
      d->caption = p.text;
      break;
    }
    case PostRange:
    case PostPosition:
    case PostEnable: {
      std::lock_guard<std::mutex> hold(d->lock);
      Control* c = FindControl(d, p.control);
      if (!c) break;
      if (p.kind == PostRange) c->maximum = p.a > 0 ? int(p.a) : 1;
      if (p.kind == PostPosition) c->position = int(p.a);
      if (p.kind == PostEnable) c->enabled = p.a != 0;
      break;
    }
    case PostCommand: HandleCommand(d, p.control); break;
    case PostClose: HandleClose(d); break;
    case PostUser: CallHook(d, ToolMsgUser, p.a, p.b, p.text.c_str()); break;
    case PostBox: d->boxes.push_back(p.box); break;
    case PostFinished: HandleFinished(d, int(p.a)); break;
    case PostTimer: break;  // the timer fields were set under the lock; nothing else to do
  }
}

int MsUntilTimer(ToolDialog* d) {
  std::lock_guard<std::mutex> hold(d->lock);
  if (!d->timerCallback || d->timerMs <= 0) return IdleWaitMs;
  auto left = std::chrono::duration_cast<std::chrono::milliseconds>(d->timerDue -
                                                                    std::chrono::steady_clock::now());
  if (left.count() <= 0) return 0;
  return left.count() < IdleWaitMs ? int(left.count()) : IdleWaitMs;
}

void RunTimer(ToolDialog* d) {
  ToolTimerCallback callback = nullptr;
  {
    std::lock_guard<std::mutex> hold(d->lock);
    if (!d->timerCallback || d->timerMs <= 0) return;
    if (std::chrono::steady_clock::now() < d->timerDue) return;
    ArmTimer(d);
    callback = d->timerCallback;
  }
  if (CallHook(d, ToolMsgTimer, 0, 0, nullptr)) return;
  callback(d);
}

// Answered worker boxes leave the stack and wake their threads.
void ReleaseAnsweredBoxes(ToolDialog* d) {
  bool any = false;
  std::lock_guard<std::mutex> hold(d->lock);
  for (BoxWaiter* w : d->waiters) {
    if (w->done || !w->box->answered) continue;
    w->done = true;
    any = true;
    for (size_t i = 0; i < d->boxes.size(); i++)
      if (d->boxes[i] == w->box) d->boxes.erase(d->boxes.begin() + long(i));
  }
  if (any) d->answered.notify_all();
}

// A SIGINT or SIGTERM reaches the tool as the close box once its run record is there (its
// command handler needs it); ToolFrameConfirmCancel then says yes without asking.
void HandleStopSignal(ToolDialog* d) {
  if (d->stopHandled || !SignalStopRequests() || !ToolFrameState(d)) return;
  d->stopHandled = true;
  HandleClose(d);
}

// One turn of the main loop: input and drawing, then what was posted, then the timer.
void RunOnce(ToolDialog* d) {
  const ToolFrontEnd* fe = ToolFrameFrontEnd();
  fe->step(d, MsUntilTimer(d));
  ReleaseAnsweredBoxes(d);
  HandleStopSignal(d);
  for (;;) {
    Post p;
    {
      std::lock_guard<std::mutex> hold(d->lock);
      if (d->queue.empty()) break;
      p = std::move(d->queue.front());
      d->queue.pop_front();
    }
    if (!d->alive) {
      if (p.kind == PostFinished) CallHook(d, ToolMsgFinished, p.a, 0, nullptr);
      continue;
    }
    HandlePost(d, p);
  }
  if (d->alive) RunTimer(d);
}

// After the dialog is gone: answer the worker's boxes with plain boxes until it returns.
void ServeUntilWorkerEnds(ToolDialog* d) {
  std::unique_lock<std::mutex> hold(d->lock);
  for (;;) {
    BoxWaiter* waiting = nullptr;
    for (BoxWaiter* w : d->waiters) {
      if (!w->done && w->box->answered) {
        w->done = true;
        d->answered.notify_all();
      }
      if (!w->done) waiting = w;
    }
    if (waiting) {
      hold.unlock();
      ToolFrameFrontEnd()->box(waiting->box);
      hold.lock();
      waiting->done = true;
      d->answered.notify_all();
      continue;
    }
    if (d->workerFinished) break;
    d->posted.wait_for(hold, std::chrono::milliseconds(IdleWaitMs));
    d->queue.clear();
  }
  d->queue.clear();
}

void* WorkerThread(void* raw) {
  WorkerArgs* args = static_cast<WorkerArgs*>(raw);
  std::vector<char> tail(args->tail.begin(), args->tail.end());
  tail.push_back(0);
  int value = args->routine(tail.data(), &g_frame);
  g_frame.exitValue = value;
  if (g_frame.alive) {
    if (value == 0) {
      ToolFrameSetText(ToolIdCancel, "&Done");
      char caption[1100];
      std::snprintf(caption, sizeof caption, "%s - Done!", g_frame.title.c_str());
      ToolFrameSetCaption(caption);
    } else {
      g_frame.closeWhenDone = true;
    }
    PostToFrame(Post{PostFinished, 0, value, 0, {}, nullptr});
  }
  {
    std::lock_guard<std::mutex> hold(g_frame.lock);
    g_frame.workerFinished = true;
  }
  g_frame.posted.notify_all();
  if (g_frontEnd && g_frontEnd->wake) g_frontEnd->wake();
  return nullptr;
}

bool StartWorker(pthread_t* thread, WorkerArgs* args) {
  pthread_attr_t attr;
  if (pthread_attr_init(&attr) != 0) return false;
  pthread_attr_setstacksize(&attr, WorkerStackBytes);
  bool ok = pthread_create(thread, &attr, WorkerThread, args) == 0;
  pthread_attr_destroy(&attr);
  return ok;
}

// The run is over: nothing reaches the tool's record any more.
void ReleaseState(ToolDialog* d) {
  void* state;
  ToolStateRelease release;
  {
    std::lock_guard<std::mutex> hold(d->lock);
    state = d->state;
    release = d->releaseState;
    d->state = nullptr;
    d->releaseState = nullptr;
  }
  if (release) release(state);
}

void ResetFrame(ToolDialog* d) {
  std::lock_guard<std::mutex> hold(d->lock);
  d->controls.clear();
  d->boxes.clear();
  d->waiters.clear();
  d->queue.clear();
  d->closesHandled = 0;
  d->stopHandled = false;
  d->timerCallback = nullptr;
  d->timerMs = 0;
  d->exitValue = 0;
  d->workerFinished = false;
  d->closeWhenDone = false;
}

void FillBox(ToolBox* box, const char* text, int icon) {
  box->caption = g_frame.title.empty() ? "ORN Video Tools" : g_frame.title.c_str();
  box->text = text ? text : "";
  box->icon = icon;
  box->answer = ToolButtonCancel;
  box->answered = false;
}

// Shows a box on the dialog when there is one, else on its own, from any thread.
void RunBox(ToolBox* box) {
  ToolDialog* d = &g_frame;
  if (OnMainThread() && d->alive) {
    d->boxes.push_back(box);
    while (!box->answered) {
      if (!d->alive) {
        ToolFrameFrontEnd()->box(box);
        break;
      }
      RunOnce(d);
    }
    for (size_t i = 0; i < d->boxes.size(); i++)
      if (d->boxes[i] == box) d->boxes.erase(d->boxes.begin() + long(i));
    return;
  }
  if (d->running && !OnMainThread()) {
    // The main thread answers, with the dialog or after it; this thread waits.
    BoxWaiter waiter{box};
    {
      std::lock_guard<std::mutex> hold(d->lock);
      d->waiters.push_back(&waiter);
    }
    if (d->alive) PostToFrame(Post{PostBox, 0, 0, 0, {}, box});
    d->posted.notify_all();
    std::unique_lock<std::mutex> hold(d->lock);
    d->answered.wait(hold, [&] { return waiter.done; });
    for (size_t i = 0; i < d->waiters.size(); i++)
      if (d->waiters[i] == &waiter) d->waiters.erase(d->waiters.begin() + long(i));
    return;
  }
  ToolFrameFrontEnd()->box(box);
}

}  // namespace

// ---- Dialog descriptions --------------------------------------------------------------------

bool ToolDialogRegister(const ToolDialogDesc* desc) {
  if (!desc || !desc->name || !desc->title || desc->controlCount < 0 ||
      (desc->controlCount > 0 && !desc->controls))
    return false;
  std::lock_guard<std::mutex> hold(g_descLock);
  for (int i = 0; i < g_descCount; i++) {
    if (strcasecmp(g_descs[i]->name, desc->name) == 0) {
      g_descs[i] = desc;
      return true;
    }
  }
  if (g_descCount >= MaxDialogDescs) return false;
  g_descs[g_descCount++] = desc;
  return true;
}

const ToolDialogDesc* ToolDialogFind(const char* name) {
  if (!name) return nullptr;
  std::lock_guard<std::mutex> hold(g_descLock);
  for (int i = 0; i < g_descCount; i++)
    if (strcasecmp(g_descs[i]->name, name) == 0) return g_descs[i];
  return nullptr;
}

// ---- Front end choice --------------------------------------------------------------------------

const ToolFrontEnd* ToolFrameFrontEnd() {
  std::lock_guard<std::mutex> hold(g_frontEndLock);
  if (g_frontEnd) return g_frontEnd;
  const char* console = std::getenv("ORN_CONSOLE");
  bool forceConsole = console && *console && std::strcmp(console, "0") != 0;
  bool display = EnvSet("DISPLAY") || EnvSet("WAYLAND_DISPLAY");
  if (!forceConsole && display && g_windowCandidate && g_windowCandidate->start())
    g_frontEnd = g_windowCandidate;
  else
    g_frontEnd = ToolConsoleFrontEnd();
  return g_frontEnd;
}

void ToolFrameSetFrontEnd(const ToolFrontEnd* frontEnd) {
  std::lock_guard<std::mutex> hold(g_frontEndLock);
  g_frontEnd = frontEnd;
}

void ToolFrameSetWindowCandidate(const ToolFrontEnd* frontEnd) {
  std::lock_guard<std::mutex> hold(g_frontEndLock);
  g_windowCandidate = frontEnd;
}

void ToolFrameShowBox(ToolBox* box) { ToolFrameFrontEnd()->box(box); }

// ---- Running a tool ----------------------------------------------------------------------------

int ToolFrameRun(void* instance, intptr_t parentWindow, const char* commandTail, int showState,
                 bool closeWhenDone, ToolMainRoutine mainRoutine, ToolCommandHandler commandHandler,
                 const char* dialogName) {
  ToolDialog* d = &g_frame;
  const ToolFrontEnd* fe = ToolFrameFrontEnd();
  ResetFrame(d);
  d->parentWindow = parentWindow;
  d->showState = showState;
  d->closeWhenDone = closeWhenDone;
  d->commandHandler = commandHandler;
  d->mainThread = std::this_thread::get_id();

  const ToolDialogDesc* desc = ToolDialogFind(dialogName);
  if (!desc || !mainRoutine) {
    d->title.clear();
    ToolBox box{};
    FillBox(&box, "Couldn't create window.", ToolIconStop);
    box.buttonCount = 1;
    box.buttons[0] = ToolButtonOk;
    fe->box(&box);
    return 0;
  }
  d->title = desc->title;
  d->caption = desc->title;
  for (int i = 0; i < desc->controlCount; i++) {
    const ToolControlDesc& c = desc->controls[i];
    const char* text = c.text ? c.text : "";
    d->controls.push_back(Control{c.id, c.kind, text, true, 0, 100, text, LabelOf(c.kind, text)});
  }
  d->alive = true;
  d->running = true;
  if (!fe->open(d)) {
    d->alive = false;
    d->running = false;
    ToolBox box{};
    FillBox(&box, "Couldn't create window.", ToolIconStop);
    box.buttonCount = 1;
    box.buttons[0] = ToolButtonOk;
    fe->box(&box);
    return 0;
  }

  // After the front end has opened: the shell's handlers replace any it set for itself.
  SignalsInstall();
  WorkerArgs args{mainRoutine, commandTail ? commandTail : ""};
  pthread_t worker;
  if (!StartWorker(&worker, &args)) {
    DestroyDialog(d);
    SignalsRestore();
    d->running = false;
    return ToolExitCancelled;
  }
  while (d->alive) RunOnce(d);
  ServeUntilWorkerEnds(d);
  pthread_join(worker, nullptr);
  SignalsRestore();
  d->running = false;
  ReleaseState(d);
  return d->exitValue;
}

void ToolFrameSetState(ToolDialog* dialog, void* state, ToolStateRelease release) {
  if (!dialog) return;
  ReleaseState(dialog);  // a second record replaces the first
  std::lock_guard<std::mutex> hold(dialog->lock);
  dialog->state = state;
  dialog->releaseState = release;
}

void* ToolFrameState(ToolDialog* dialog) {
  if (!dialog) return nullptr;
  std::lock_guard<std::mutex> hold(dialog->lock);
  return dialog->state;
}

void ToolFrameSetTimer(ToolTimerCallback callback, int milliseconds) {
  {
    std::lock_guard<std::mutex> hold(g_frame.lock);
    g_frame.timerCallback = milliseconds > 0 ? callback : nullptr;
    g_frame.timerMs = callback ? milliseconds : 0;
    ArmTimer(&g_frame);
  }
  PostToFrame(Post{PostTimer, 0, 0, 0, {}, nullptr});
}

void ToolFrameSetHook(ToolMessageHook hook) { g_frame.hook = hook; }

// ---- Updates -----------------------------------------------------------------------------------

void ToolFrameSetText(int control, const char* text) {
  PostToFrame(Post{PostText, control, 0, 0, text ? text : "", nullptr});
}
void ToolFrameSetCaption(const char* text) {
  PostToFrame(Post{PostCaption, 0, 0, 0, text ? text : "", nullptr});
}
void ToolFrameSetProgressRange(int control, int maximum) {
  PostToFrame(Post{PostRange, control, maximum, 0, {}, nullptr});
}
void ToolFrameSetProgress(int control, int position) {
  PostToFrame(Post{PostPosition, control, position, 0, {}, nullptr});
}
void ToolFrameEnableControl(int control, bool enabled) {
  PostToFrame(Post{PostEnable, control, enabled ? 1 : 0, 0, {}, nullptr});
}
void ToolFramePostCommand(int commandId) {
  PostToFrame(Post{PostCommand, commandId, 0, 0, {}, nullptr});
}
void ToolFramePostUser(intptr_t a, intptr_t b, const char* text) {
  PostToFrame(Post{PostUser, 0, a, b, text ? text : "", nullptr});
}

int ToolFrameGetText(int control, char* dest, size_t destSize) {
  std::lock_guard<std::mutex> hold(g_frame.lock);
  if (!g_frame.alive) return -1;
  Control* c = FindControl(&g_frame, control);
  if (!c) return -1;
  if (dest && destSize) {
    size_t n = c->text.size() < destSize - 1 ? c->text.size() : destSize - 1;
    std::memcpy(dest, c->text.data(), n);
    dest[n] = 0;
  }
  return int(c->text.size());
}

const char* ToolFrameTitle() { return g_frame.title.c_str(); }
bool ToolFrameWorkerRunning() { return g_frame.running && !g_frame.workerFinished; }

// ---- Boxes -------------------------------------------------------------------------------------

int ToolFrameAsk(const char* text, int style) { return ToolFrameAskTitled(nullptr, text, style); }

int ToolFrameAskQuestion(const char* text, int style) {
  if (IsSequencePrompt(text))
    return ToolFrameAskTitled(SequencePromptTitle, text, ToolBoxDefaultFirst);
  return ToolFrameAsk(text, style);
}

int ToolFrameAskTitled(const char* caption, const char* text, int style) {
  ToolBox box{};
  FillBox(&box, text, ToolIconQuestion);
  if (caption) box.caption = caption;
  bool three = (style & ~31) == ToolBoxThreeButtons;
  box.buttonCount = three ? 3 : 2;
  box.buttons[0] = ToolButtonYes;
  box.buttons[1] = ToolButtonNo;
  box.buttons[2] = ToolButtonCancel;
  int low = style & 31;
  box.defaultIndex = low == 0 ? 1 : low == 2 ? 2 : 0;
  if (box.defaultIndex >= box.buttonCount) box.defaultIndex = 0;
  RunBox(&box);
  return box.answer == ToolButtonYes ? 1 : box.answer == ToolButtonNo ? 0 : 2;
}

int ToolFrameTell(const char* text, int style) {
  ToolBox box{};
  FillBox(&box, text, ToolIconInformation);
  bool two = (style & ~31) == ToolBoxThreeButtons;
  box.buttonCount = two ? 2 : 1;
  box.buttons[0] = ToolButtonOk;
  box.buttons[1] = ToolButtonCancel;
  box.defaultIndex = two && (style & 31) == 2 ? 1 : 0;
  RunBox(&box);
  return box.answer == ToolButtonOk ? 0 : 2;
}

static void OneButtonBox(const char* text, int icon) {
  ToolBox box{};
  FillBox(&box, text, icon);
  box.buttonCount = 1;
  box.buttons[0] = ToolButtonOk;
  RunBox(&box);
}

void ToolFrameError(const char* text) { OneButtonBox(text, ToolIconStop); }
void ToolFrameWarn(const char* text) { OneButtonBox(text, ToolIconWarning); }

bool ToolFrameStopRequested() { return g_frame.running && SignalStopRequests() > 0; }

bool ToolFrameConfirmCancel(const char* question, const char* finishedText,
                            const volatile int* runFinished) {
  if (ToolFrameStopRequested()) return !(runFinished && *runFinished);
  if (ToolFrameAsk(question, ToolBoxDefaultFirst) != 1) return false;
  if (runFinished && *runFinished) {
    ToolFrameTell(finishedText, 0);
    return false;
  }
  return true;
}

void ToolFrameShowCancelling(int buttonId) {
  ToolFrameSetText(buttonId, "Cancelling...");
  ToolFrameEnableControl(buttonId, false);
}

// ---- Front ends' view --------------------------------------------------------------------------

const char* ToolDialogCaption(const ToolDialog* dialog) { return dialog->caption.c_str(); }
int ToolDialogControlCount(const ToolDialog* dialog) { return int(dialog->controls.size()); }

ToolControlView ToolDialogControl(const ToolDialog* dialog, int index) {
  const Control& c = dialog->controls[size_t(index)];
  ToolControlView v{c.id, c.kind, c.text.c_str(), c.enabled, c.position, c.maximum, "", ""};
  if (c.kind == ToolControlLabel || c.kind == ToolControlEdit) v.value = v.text;
  if (c.kind != ToolControlText) return v;
  const bool onlyLabel = !c.label.empty() && c.text == c.initial;
  v.value = onlyLabel ? "" : c.text.c_str();
  if (!onlyLabel && CarriesLabel(c.text)) return v;
  const Control* before = index > 0 ? &dialog->controls[size_t(index) - 1] : nullptr;
  if (before && before->kind == ToolControlLabel && !before->text.empty())
    v.label = before->text.c_str();
  else
    v.label = c.label.c_str();
  return v;
}

size_t ToolControlLine(const ToolControlView& view, char* dest, size_t destSize) {
  const char* label = view.label ? view.label : "";
  const char* value = view.value ? view.value : "";
  if (view.kind != ToolControlText) label = value = "";
  const char* gap = *label && *value ? " " : "";
  const int n = std::snprintf(dest, destSize, "%s%s%s", label, gap, value);
  return n > 0 ? size_t(n) : 0;
}

ToolBox* ToolDialogTopBox(ToolDialog* dialog) {
  for (size_t i = dialog->boxes.size(); i-- > 0;)
    if (!dialog->boxes[i]->answered) return dialog->boxes[i];
  return nullptr;
}

int ToolDialogShowState(const ToolDialog* dialog) { return dialog->showState; }

void ToolDialogUserCommand(ToolDialog* dialog, int commandId) { ToolFramePostCommand(commandId); }
void ToolDialogUserClose(ToolDialog* dialog) {
  PostToFrame(Post{PostClose, 0, 0, 0, {}, nullptr});
}
int ToolDialogClosesHandled(const ToolDialog* dialog) { return dialog->closesHandled; }

void ToolDialogUserEdit(ToolDialog* dialog, int control, const char* text) {
  std::lock_guard<std::mutex> hold(dialog->lock);
  if (Control* c = FindControl(dialog, control)) c->text = text ? text : "";
}

void ToolDialogPainted(ToolDialog* dialog, int frames) {
  CallHook(dialog, ToolMsgPaint, frames, 0, nullptr);
}

// ---- Process-wide values -----------------------------------------------------------------------

const char* ToolProgramDirectory() {
  static std::string dir = [] {
    char path[4096];
    ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n <= 0) return std::string();
    path[n] = 0;
    std::string p(path);
    size_t slash = p.find_last_of('/');
    return slash == std::string::npos ? std::string() : p.substr(0, slash + 1);
  }();
  return dir.c_str();
}

const char* ToolDocumentsDirectory() {
  static std::string dir = [] {
    std::string docs;
    if (const char* xdg = std::getenv("XDG_DOCUMENTS_DIR"); xdg && *xdg)
      docs = xdg;
    else if (const char* home = std::getenv("HOME"); home && *home)
      docs = std::string(home) + "/Documents";
    if (docs.empty() || access(docs.c_str(), F_OK) != 0) return std::string();
    return docs + "/Velmo 2";
  }();
  return dir.c_str();
}
