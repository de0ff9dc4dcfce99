// The tool shell on a terminal: status lines and a progress bar on stderr, questions on the
// terminal. On a terminal one status line is redrawn in place; into a file or pipe, changed
// texts are printed sparsely. Without a terminal on stdin a box takes its default button and
// says so. Ctrl-C while a tool runs is the close box; a second one before the first has been
// handled ends the process the usual way.
#include <fcntl.h>
#include <poll.h>
#include <signal.h>
#include <sys/ioctl.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <cctype>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <mutex>
#include <string>
#include <vector>

#include "host/toolframe.h"

namespace {

using Clock = std::chrono::steady_clock;
constexpr int SparseIntervalMs = 500;

struct Shown {
  int id;
  std::string printed;  // what was last printed for this control
  bool pending = false;
};

struct ConsoleState {
  bool live = false;  // stderr is a terminal: redraw one line in place
  int wakePipe[2] = {-1, -1};
  std::vector<Shown> shown;
  std::string status;   // the text most recently changed, for the live line
  int percent = -1;     // last percent shown
  int printedTenth = -1;
  size_t lineWidth = 0;  // characters of the live line on screen
  std::string printedCaption;
  Clock::time_point lastSparse;
  bool closeQueued = false;
  int closesBefore = 0;
  struct sigaction oldInt {};
  bool handlerSet = false;
};

ConsoleState g_con;
std::mutex g_outputLock;  // boxes may come from the worker and the main thread
std::atomic<int> g_interrupts{0};

void OnInterrupt(int) {
  if (g_interrupts.fetch_add(1) >= 1) {
    signal(SIGINT, SIG_DFL);
    raise(SIGINT);
    return;
  }
  if (g_con.wakePipe[1] >= 0) {
    char c = 'i';
    ssize_t ignored = write(g_con.wakePipe[1], &c, 1);
    (void)ignored;
  }
}

const char* ButtonWord(int button) {
  switch (button) {
    case ToolButtonYes: return "Yes";
    case ToolButtonNo: return "No";
    case ToolButtonOk: return "OK";
    default: return "Cancel";
  }
}

// Button texts with their key letters marked: "[Y]es/[N]o".
std::string ButtonPrompt(const ToolBox* box) {
  std::string s;
  for (int i = 0; i < box->buttonCount; i++) {
    const char* w = ButtonWord(box->buttons[i]);
    if (i) s += "/";
    s += "[";
    s += w[0];
    s += "]";
    s += w + 1;
  }
  return s;
}

void ClearLiveLine() {
  if (g_con.live && g_con.lineWidth) {
    std::fprintf(stderr, "\r%*s\r", int(g_con.lineWidth), "");
    g_con.lineWidth = 0;
  }
}

const char* IconWord(int icon) {
  switch (icon) {
    case ToolIconStop: return "Error";
    case ToolIconWarning: return "Warning";
    case ToolIconQuestion: return "Question";
    default: return "Note";
  }
}

// Reads one answer line from the terminal; false when there is none to read.
bool ReadAnswer(FILE* tty, const ToolBox* box, int* index) {
  char line[256];
  for (;;) {
    std::fprintf(tty, "%s (Enter = %s): ", ButtonPrompt(box).c_str(),
                 ButtonWord(box->buttons[box->defaultIndex]));
    std::fflush(tty);
    errno = 0;
    if (!std::fgets(line, sizeof line, tty)) {
      if (errno == EINTR) {
        clearerr(tty);
        continue;
      }
      return false;
    }
    char* p = line;
    while (*p == ' ' || *p == '\t') p++;
    if (*p == '\n' || *p == 0) {
      *index = box->defaultIndex;
      return true;
    }
    for (int i = 0; i < box->buttonCount; i++) {
      if (std::toupper(static_cast<unsigned char>(*p)) == ButtonWord(box->buttons[i])[0]) {
        *index = i;
        return true;
      }
    }
  }
}

void ConsoleBox(ToolBox* box) {
  std::lock_guard<std::mutex> hold(g_outputLock);
  ClearLiveLine();
  std::fprintf(stderr, "%s - %s: %s\n", box->caption ? box->caption : "", IconWord(box->icon),
               box->text ? box->text : "");
  int index = box->defaultIndex;
  bool asked = false;
  if (box->buttonCount > 1 && isatty(STDIN_FILENO)) {
    if (FILE* tty = std::fopen("/dev/tty", "r+")) {
      asked = ReadAnswer(tty, box, &index);
      std::fclose(tty);
    }
  }
  if (!asked && box->buttonCount > 1)
    std::fprintf(stderr, "(no terminal to ask: taking the default answer: %s)\n",
                 ButtonWord(box->buttons[index]));
  std::fflush(stderr);
  box->answer = box->buttons[index];
  box->answered = true;
}

// ---- Status output ---------------------------------------------------------------------------

Shown* ShownFor(int id) {
  for (Shown& s : g_con.shown)
    if (s.id == id) return &s;
  g_con.shown.push_back(Shown{id, std::string()});
  return &g_con.shown.back();
}

size_t TerminalWidth() {
  winsize ws{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 20) return ws.ws_col;
  return 80;
}

void DrawLiveLine() {
  std::string line;
  if (g_con.percent >= 0) {
    char bar[64];
    int filled = g_con.percent / 5;
    std::snprintf(bar, sizeof bar, "[%.*s%.*s] %3d%% ", filled, "####################",
                  20 - filled, "--------------------", g_con.percent);
    line = bar;
  }
  line += g_con.status;
  size_t width = TerminalWidth() - 1;
  if (line.size() > width) line.resize(width);
  size_t old = g_con.lineWidth;
  std::fprintf(stderr, "\r%s", line.c_str());
  if (old > line.size()) std::fprintf(stderr, "%*s\r%s", int(old - line.size()), "", line.c_str());
  g_con.lineWidth = line.size();
  std::fflush(stderr);
}

void PrintPending(bool all) {
  for (Shown& s : g_con.shown) {
    if (!s.pending) continue;
    s.pending = false;
    if (!s.printed.empty() || all) std::fprintf(stderr, "%s\n", s.printed.c_str());
  }
}

// Compares the dialog with what was shown and brings the output up to date.
void Refresh(ToolDialog* d, bool final) {
  std::lock_guard<std::mutex> hold(g_outputLock);
  bool changed = false;
  for (int i = 0; i < ToolDialogControlCount(d); i++) {
    ToolControlView c = ToolDialogControl(d, i);
    if (c.kind == ToolControlProgress) {
      int pct = c.maximum > 0 ? int(int64_t(c.position) * 100 / c.maximum) : 0;
      pct = pct < 0 ? 0 : pct > 100 ? 100 : pct;
      if (pct != g_con.percent) {
        g_con.percent = pct;
        changed = true;
        if (!g_con.live && pct / 10 != g_con.printedTenth && pct > 0) {
          g_con.printedTenth = pct / 10;
          std::fprintf(stderr, "progress %d%%\n", pct);
        }
      }
    } else if (c.kind == ToolControlText || c.kind == ToolControlEdit) {
      Shown* s = ShownFor(c.id);
      if (s->printed != c.text) {
        s->printed = c.text;
        s->pending = true;
        if (*c.text) g_con.status = c.text;
        changed = true;
      }
    }
  }
  if (g_con.live) {
    if (final) {
      ClearLiveLine();
      PrintPending(false);
    } else if (changed) {
      DrawLiveLine();
    }
  } else {
    auto now = Clock::now();
    if (final || now - g_con.lastSparse >= std::chrono::milliseconds(SparseIntervalMs)) {
      g_con.lastSparse = now;
      PrintPending(false);
    }
  }
  if (final && g_con.printedCaption != ToolDialogCaption(d)) {
    g_con.printedCaption = ToolDialogCaption(d);
    std::fprintf(stderr, "%s\n", g_con.printedCaption.c_str());
  }
  std::fflush(stderr);
}

// ---- The front end -------------------------------------------------------------------------

bool ConsoleStart() { return true; }

bool ConsoleOpen(ToolDialog* d) {
  g_con.live = isatty(STDERR_FILENO);
  g_con.shown.clear();
  g_con.status.clear();
  g_con.percent = -1;
  g_con.printedTenth = -1;
  g_con.lineWidth = 0;
  g_con.closeQueued = false;
  g_con.lastSparse = Clock::now();
  if (g_con.wakePipe[0] < 0) {
    if (pipe(g_con.wakePipe) != 0) return false;
    for (int fd : g_con.wakePipe) {
      fcntl(fd, F_SETFL, fcntl(fd, F_GETFL) | O_NONBLOCK);
      fcntl(fd, F_SETFD, FD_CLOEXEC);
    }
  }
  g_interrupts = 0;
  struct sigaction sa {};
  sa.sa_handler = OnInterrupt;
  sigemptyset(&sa.sa_mask);
  g_con.handlerSet = sigaction(SIGINT, &sa, &g_con.oldInt) == 0;
  g_con.printedCaption = ToolDialogCaption(d);
  std::lock_guard<std::mutex> hold(g_outputLock);
  std::fprintf(stderr, "%s\n", g_con.printedCaption.c_str());
  // The texts the dialog starts with are labels, not news.
  for (int i = 0; i < ToolDialogControlCount(d); i++) {
    ToolControlView c = ToolDialogControl(d, i);
    if (c.kind != ToolControlButton) ShownFor(c.id)->printed = c.text;
  }
  return true;
}

void ConsoleWake() {
  if (g_con.wakePipe[1] >= 0) {
    char c = 'w';
    ssize_t ignored = write(g_con.wakePipe[1], &c, 1);
    (void)ignored;
  }
}

void ConsoleStep(ToolDialog* d, int waitMs) {
  // A Ctrl-C counts as handled once the frame has dealt with the close it caused.
  if (g_con.closeQueued && ToolDialogClosesHandled(d) > g_con.closesBefore) {
    g_con.closeQueued = false;
    g_interrupts = 0;
  }
  if (ToolBox* box = ToolDialogTopBox(d)) {
    ConsoleBox(box);
    return;
  }
  Refresh(d, false);
  pollfd p{g_con.wakePipe[0], POLLIN, 0};
  if (poll(&p, 1, waitMs) > 0) {
    char buf[64];
    while (read(g_con.wakePipe[0], buf, sizeof buf) > 0) {
    }
  }
  if (g_interrupts > 0 && !g_con.closeQueued) {
    g_con.closeQueued = true;
    g_con.closesBefore = ToolDialogClosesHandled(d);
    {
      std::lock_guard<std::mutex> hold(g_outputLock);
      ClearLiveLine();
      std::fprintf(stderr, "(interrupted: asking the tool to stop; Ctrl-C again ends it at once)\n");
    }
    ToolDialogUserClose(d);
  }
}

void ConsoleClose(ToolDialog* d) {
  Refresh(d, true);
  if (g_con.handlerSet) sigaction(SIGINT, &g_con.oldInt, nullptr);
  g_con.handlerSet = false;
}

const ToolFrontEnd ConsoleFrontEnd = {
    "console", true, ConsoleStart, ConsoleOpen, ConsoleStep, ConsoleWake, ConsoleClose, ConsoleBox,
};

}  // namespace

const ToolFrontEnd* ToolConsoleFrontEnd() { return &ConsoleFrontEnd; }
