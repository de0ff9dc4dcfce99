// The tool shell: the small frame that every dialog tool of the program runs behind.
//
// The main thread owns the tool's dialog and only pumps its events; a worker thread with a
// 16 MiB stack runs the tool's main routine. The worker talks to the dialog through posted
// updates (texts, progress, caption), which never block it, and through message boxes, which
// wait for the user's answer. The dialog is shown by one of two front ends behind the same
// table of functions: a window (SDL2 + Dear ImGui) when a display is at hand, or the terminal
// (labelled lines, one running progress line and a closing summary on stderr; questions on
// the terminal). Both show each value beside its label.
//
// A process shows one dialog at a time, so the frame's own state is process-wide and most calls
// need no handle. The state of a tool's run is not: the main routine makes a run record and
// hands it to its dialog (ToolFrameSetState), where its command handler and timer find it.
#pragma once
#include <cstddef>
#include <cstdint>

// Results of the tools' main routines; the batch scheduler turns them back into words. Every
// run starts from Cancelled, so that an early return reads as a cancel.
enum ToolExit {
  ToolExitDone = 0,
  ToolExitCancelled = 8001,
  ToolExitInputError = 8002,
  ToolExitNoOverwrite = 8003,
  ToolExitNoAlpha = 8004,
  ToolExitBadSwitches = 8005,
  ToolExitOutputError = 8006,
  ToolExitDiskWriteError = 8007,
  ToolExitAlphaStop = 8008,
  ToolExitNotHdr = 8010,
};

// ---- Dialog descriptions -----------------------------------------------------------------
// A dialog is a title and a short list of controls, registered under a name. Tools register
// their own before they call ToolFrameRun; "progress" is always there.

enum ToolControlKind {
  ToolControlText = 0,      // a line of static text
  ToolControlProgress = 1,  // a progress bar; its text is unused
  ToolControlButton = 2,    // a push button; pressing it sends its id to the command handler
  ToolControlEdit = 3,      // a multi-line text field (logs, the batch list)
  ToolControlLabel = 4,     // static text naming the value of the text control right after it
};

struct ToolControlDesc {
  int id;
  ToolControlKind kind;
  // Initial text. For a text control, an initial text ending in ":" (blanks may follow) is the
  // control's label: the front ends show it beside whatever value the tool sets.
  const char* text;
};

struct ToolDialogDesc {
  const char* name;   // resource name, compared without regard to case
  const char* title;  // the dialog's own caption
  const ToolControlDesc* controls;
  int controlCount;
};

// Well-known control ids of the generic progress dialog. Button 2 is Cancel, later "&Done".
enum ToolProgressControl {
  ToolIdCancel = 2,
  ToolIdStatus = 303,
  ToolIdProgress = 200,
};

// Registers (or replaces) a description; the table and its texts must outlive the run.
// Returns false when the table of descriptions is full or the description is malformed.
bool ToolDialogRegister(const ToolDialogDesc* desc);
// The description registered under `name`, or null.
const ToolDialogDesc* ToolDialogFind(const char* name);

// ---- Running a tool ----------------------------------------------------------------------

struct ToolDialog;  // the live dialog; null once it is gone

typedef int (*ToolMainRoutine)(char* commandTail, ToolDialog* dialog);
// Runs on the main thread; commandId 2 is the close box, Cancel/Done and Ctrl-C. A nonzero
// return keeps the window, 0 destroys it.
typedef int (*ToolCommandHandler)(int commandId, ToolDialog* dialog);
typedef void (*ToolTimerCallback)(ToolDialog* dialog);

// What the frame's main thread handles, as the message hook sees it.
enum ToolMessageCode {
  ToolMsgCommand = 1,   // a = command id
  ToolMsgClose = 2,     // close box or Ctrl-C
  ToolMsgTimer = 3,
  ToolMsgSetText = 4,   // a = control id, text = new text
  ToolMsgFinished = 5,  // the worker has returned; a = exit value
  ToolMsgPaint = 6,     // a frame of the window was drawn; a = frames so far (window only)
  ToolMsgUser = 7,      // a message posted by ToolFramePostUser; a, b and text as given
};

struct ToolMessage {
  int code;
  intptr_t a;
  intptr_t b;
  const char* text;
};

// Sees each message first; a nonzero return ends the message there.
typedef int (*ToolMessageHook)(ToolDialog* dialog, const ToolMessage* message);

// Runs the frame until the dialog is gone and the worker has returned; returns the main
// routine's value. commandTail is copied; the routine gets a writable copy.
// A dialog that cannot be created shows "Couldn't create window." and returns 0.
int ToolFrameRun(void* instance, intptr_t parentWindow, const char* commandTail, int showState,
                 bool closeWhenDone, ToolMainRoutine mainRoutine, ToolCommandHandler commandHandler,
                 const char* dialogName);

// The run record of the tool behind `dialog`. The main routine sets it once, first thing; the
// frame calls `release` (when not null) after the run, once the worker has returned and the
// dialog is gone, so that the command handler may use the record up to its last call. Until
// the main routine has set it, ToolFrameState gives null; a second record releases the first
// at once. Either call may come from any thread.
typedef void (*ToolStateRelease)(void* state);
void ToolFrameSetState(ToolDialog* dialog, void* state, ToolStateRelease release);
void* ToolFrameState(ToolDialog* dialog);

// Timer 1: calls `callback` on the main thread every `milliseconds`; null or 0 stops it.
// May be called from any thread.
void ToolFrameSetTimer(ToolTimerCallback callback, int milliseconds);
void ToolFrameSetHook(ToolMessageHook hook);

// ---- Updates (any thread; posted, never block) ---------------------------------------------
void ToolFrameSetText(int control, const char* text);
void ToolFrameSetCaption(const char* text);
void ToolFrameSetProgressRange(int control, int maximum);
void ToolFrameSetProgress(int control, int position);
void ToolFrameEnableControl(int control, bool enabled);
// Queues a button press as if the user made it (used by tests and by tools driving themselves).
void ToolFramePostCommand(int commandId);
// Queues a private message for the hook (inter-tool requests and the like).
void ToolFramePostUser(intptr_t a, intptr_t b, const char* text);

// Copies a control's current text (as posted or as edited) into dest. Returns its length, or
// -1 when there is no dialog or no such control.
int ToolFrameGetText(int control, char* dest, size_t destSize);
// The caption the dialog description gave ("title"), for captions of boxes and Done texts.
const char* ToolFrameTitle();
// True while the worker runs its main routine.
bool ToolFrameWorkerRunning();

// ---- Message boxes (any thread; wait for the answer) ---------------------------------------
// Box styles: the low five bits pick the default button (see each call), the upper bits pick
// the buttons.
enum ToolBoxStyle {
  ToolBoxDefaultSecond = 0,   // ToolFrameAsk: 0 = second button is the default
  ToolBoxDefaultFirst = 1,
  ToolBoxDefaultThird = 2,    // ToolFrameAsk: 2 = third; ToolFrameTell: 2 = second
  ToolBoxThreeButtons = 32,   // Ask: Yes/No/Cancel; Tell: OK/Cancel
};

// Yes-or-no question; returns 1 Yes, 0 No, 2 anything else.
int ToolFrameAsk(const char* text, int style);
// The same in a box captioned `caption` (null: the tool's title).
int ToolFrameAskTitled(const char* caption, const char* text, int style);
// A question that a tool's message sink received (from the media layer, for one): the
// sequence question ("Treat as sequence?") gets its own box with Yes the default, any other
// is asked as ToolFrameAsk(text, style).
int ToolFrameAskQuestion(const char* text, int style);
// Information box; returns 0 for OK, 2 otherwise.
int ToolFrameTell(const char* text, int style);
// A stop box with one OK button: how tools report failures before they return non-zero.
void ToolFrameError(const char* text);
// A warning box with one OK button.
void ToolFrameWarn(const char* text);

// ---- The cancel pattern of the tools --------------------------------------------------------
// A SIGINT or SIGTERM during a run is the tool's Cancel: the frame hands it to the command
// handler as the close box, and the questions below answer themselves (cancel, keep nothing).
// True from such a signal to the end of the run.
bool ToolFrameStopRequested();
// Asks `question` (Yes/No, Yes default), or after a stop signal takes Yes without asking.
// Returns true when the user said Yes while the run was still going (the caller then sets its cancel flag). When the run finished while the box was
// up (`*runFinished` nonzero), tells `finishedText` and returns false.
bool ToolFrameConfirmCancel(const char* question, const char* finishedText,
                            const volatile int* runFinished);
// Turns the button into a disabled "Cancelling...".
void ToolFrameShowCancelling(int buttonId);

// ---- Process-wide values of the entry --------------------------------------------------------
// Directory of the program file, ending in "/"; "" if unknown.
const char* ToolProgramDirectory();
// The user's documents folder with "/Velmo 2" appended; "" if the folder cannot be found.
const char* ToolDocumentsDirectory();
inline constexpr const char* ToolProgramName = "ORNVideo64";

// ---- The front ends' side ------------------------------------------------------------------
// Everything below is for the two front ends (and tests that pick one); tools do not need it.

enum ToolBoxIcon { ToolIconInformation = 0, ToolIconQuestion = 1, ToolIconStop = 2, ToolIconWarning = 3 };
enum ToolBoxButton { ToolButtonOk = 0, ToolButtonCancel = 2, ToolButtonYes = 6, ToolButtonNo = 7 };

// One message box while it is up. The front end sets `answer` (a ToolBoxButton) and then
// `answered`; both only on the main thread.
struct ToolBox {
  const char* caption;
  const char* text;
  int icon;              // ToolBoxIcon
  int buttonCount;       // 1 to 3
  int buttons[3];        // ToolBoxButton values, left to right
  int defaultIndex;      // index into buttons
  int answer;
  bool answered;
};

// What a front end draws for one control.
struct ToolControlView {
  int id;
  int kind;          // ToolControlKind
  const char* text;  // valid until the next update on the main thread
  bool enabled;
  int position;      // progress bars
  int maximum;
  // A text control as people read it: the label shown beside the value (a label control's
  // text in front of it, else its own label, and none when the value carries a label of its
  // own, as in "Total time: 0:00:04"), and the value ("" while only the label is there).
  const char* label;
  const char* value;
};

// "label value", or either alone, for a text control's view; "" for other kinds and for a
// value-less control. Returns the full length, as snprintf does.
size_t ToolControlLine(const ToolControlView& view, char* dest, size_t destSize);

struct ToolFrontEnd {
  const char* name;
  bool autoDone;  // presses Done by itself when a run ended well (no one to press it)
  // Probes and prepares the front end once; false: it cannot run in this session.
  bool (*start)();
  // Main thread: shows the dialog. False: it could not be created.
  bool (*open)(ToolDialog* dialog);
  // Main thread: takes input, draws, answers the top box, and waits at most waitMs (or until
  // woken) for something to happen.
  void (*step)(ToolDialog* dialog, int waitMs);
  // Any thread: ends a step's wait early.
  void (*wake)();
  // Main thread: the dialog is gone.
  void (*close)(ToolDialog* dialog);
  // A box with no dialog around it; blocks until answered.
  void (*box)(ToolBox* box);
};

const ToolFrontEnd* ToolConsoleFrontEnd();
// The front end in use. On first use it is chosen: console when ORN_CONSOLE is set (and not
// "0"), the window when DISPLAY or WAYLAND_DISPLAY is set and the window candidate starts,
// else console.
const ToolFrontEnd* ToolFrameFrontEnd();
// Forces a front end (tests), or with null returns to choosing.
void ToolFrameSetFrontEnd(const ToolFrontEnd* frontEnd);
// The windowed front end that ToolFrameFrontEnd may choose; the program installs it.
void ToolFrameSetWindowCandidate(const ToolFrontEnd* frontEnd);
// Shows a box through the front end in use, outside any dialog.
void ToolFrameShowBox(ToolBox* box);

// The dialog as the front ends see it (main thread).
const char* ToolDialogCaption(const ToolDialog* dialog);
int ToolDialogControlCount(const ToolDialog* dialog);
ToolControlView ToolDialogControl(const ToolDialog* dialog, int index);
ToolBox* ToolDialogTopBox(ToolDialog* dialog);
int ToolDialogShowState(const ToolDialog* dialog);
// Input from the user, queued for the frame (main thread).
void ToolDialogUserCommand(ToolDialog* dialog, int commandId);
void ToolDialogUserClose(ToolDialog* dialog);
// How many close requests the frame has finished handling so far.
int ToolDialogClosesHandled(const ToolDialog* dialog);
// A text field that the user edited.
void ToolDialogUserEdit(ToolDialog* dialog, int control, const char* text);
// Lets the hook see that a frame was drawn.
void ToolDialogPainted(ToolDialog* dialog, int frames);
