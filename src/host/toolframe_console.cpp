// The tool shell on a terminal: the dialog's facts as labelled lines and its running figures as
// one progress line on stderr, questions on the terminal. On a terminal the progress line is
// redrawn in place; into a file or pipe it is printed at most once a second. At the end the
// running figures are printed as a summary, one labelled line each. Without a terminal on stdin
// a box takes its default button and says so. Ctrl-C while a tool runs is the close box; a
// second one before the first has been handled ends the process the usual way.
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
constexpr int PlainIntervalMs = 1000;  // at most one progress line a second into a file
constexpr int LiveIntervalMs = 100;   // redraws of the running line on a terminal
constexpr int BarWidth = 10;

struct ConsoleState {
  bool live = false;  // stderr is a terminal: one running line redrawn in place
  int wakePipe[2] = {-1, -1};
  std::vector<std::pair<int, std::string>> printed;  // facts as last printed, by control id
  std::vector<std::pair<int, std::string>> initial;  // the lines the dialog opened with
  std::string onScreen;  // the running line as it stands on the terminal; "" when cleared
  Clock::time_point drawnAt;
  std::string lastPlain;  // the progress line last printed into a file or pipe
  Clock::time_point lastPlainAt;
  std::string printedCaption;
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
  if (g_con.live && !g_con.onScreen.empty()) {
    std::fputs("\r\x1b[K", stderr);
    g_con.onScreen.clear();
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
// A dialog reads in two parts. The facts above the progress bar (input, output, formats) are
// printed as labelled lines when they are set or change. The running figures (the status line
// and everything below the bar) make up one progress line while the tool works, redrawn in
// place on a terminal and printed at most once a second into a file or pipe, and at the end
// they are printed as the run's summary, one labelled line each. A percentage shows only once
// the bar has moved.

using Lines = std::vector<std::pair<int, std::string>>;  // control id, its line

struct DialogLines {
  Lines facts;
  Lines running;
  int percent = -1;  // -1 until the bar has moved
};

std::string LineOf(const ToolControlView& c) {
  if (c.kind == ToolControlEdit) return c.text;
  char text[2048];
  const size_t n = ToolControlLine(c, text, sizeof text);
  return std::string(text, n < sizeof text ? n : sizeof text - 1);
}

const std::string* LineFor(const Lines& lines, int id) {
  for (const auto& [lineId, line] : lines)
    if (lineId == id) return &line;
  return nullptr;
}

DialogLines ReadDialog(ToolDialog* d) {
  DialogLines out;
  bool belowBar = false;
  for (int i = 0; i < ToolDialogControlCount(d); i++) {
    const ToolControlView c = ToolDialogControl(d, i);
    if (c.kind == ToolControlProgress) {
      belowBar = true;
      if (out.percent < 0 && c.position > 0 && c.maximum > 0) {
        const int64_t pct = int64_t(c.position) * 100 / c.maximum;
        out.percent = pct > 100 ? 100 : int(pct);
      }
      continue;
    }
    if (c.kind != ToolControlText && c.kind != ToolControlEdit) continue;
    std::string line = LineOf(c);
    if (line.empty() || (c.kind == ToolControlText && !*c.value)) continue;
    if (belowBar || c.id == ToolIdStatus)
      out.running.emplace_back(c.id, std::move(line));
    else
      out.facts.emplace_back(c.id, std::move(line));
  }
  return out;
}

std::string RunningLine(const DialogLines& lines, bool bar) {
  std::string s;
  if (lines.percent >= 0) {
    if (bar) {
      const int filled = lines.percent * BarWidth / 100;
      s = "[" + std::string(size_t(filled), '#') + std::string(size_t(BarWidth - filled), '-') + "] ";
    }
    s += std::to_string(lines.percent) + "%";
  }
  for (const auto& [id, line] : lines.running) {
    if (!s.empty()) s += "  ";
    s += line;
  }
  return s;
}

size_t TerminalWidth() {
  winsize ws{};
  if (ioctl(STDERR_FILENO, TIOCGWINSZ, &ws) == 0 && ws.ws_col > 20) return ws.ws_col;
  return 80;
}

// Redraws the running line in place: back to the start of the line, the text cut to the
// terminal's width (at a character boundary), and the rest of the old line cleared.
void DrawRunningLine(std::string line) {
  const size_t width = TerminalWidth() - 1;
  if (line.size() > width) {
    size_t cut = width;
    while (cut > 0 && (static_cast<unsigned char>(line[cut]) & 0xC0) == 0x80) cut--;
    line.resize(cut);
  }
  if (line == g_con.onScreen) return;
  if (line.empty()) {
    ClearLiveLine();
    return;
  }
  std::fprintf(stderr, "\r%s\x1b[K", line.c_str());
  g_con.onScreen = line;
}

void PrintFacts(const DialogLines& lines) {
  for (const auto& [id, line] : lines.facts) {
    std::string* was = nullptr;
    for (auto& [printedId, printed] : g_con.printed)
      if (printedId == id) was = &printed;
    if (!was) was = &g_con.printed.emplace_back(id, std::string()).second;
    if (*was == line) continue;
    *was = line;
    ClearLiveLine();
    std::fprintf(stderr, "%s\n", line.c_str());
  }
}

// The end of the run: the running figures that the tool set, one labelled line each.
void PrintSummary(const DialogLines& lines) {
  for (const auto& [id, line] : lines.running) {
    const std::string* initial = LineFor(g_con.initial, id);
    if (!initial || *initial != line) std::fprintf(stderr, "%s\n", line.c_str());
  }
}

// Compares the dialog with what was shown and brings the output up to date.
void Refresh(ToolDialog* d, bool final) {
  std::lock_guard<std::mutex> hold(g_outputLock);
  const DialogLines lines = ReadDialog(d);
  PrintFacts(lines);
  if (final) {
    ClearLiveLine();
    PrintSummary(lines);
    // A caption that starts with a figure ("45% - Velmo Converter") is progress, not news.
    const char* caption = ToolDialogCaption(d);
    if (g_con.printedCaption != caption && !std::isdigit(static_cast<unsigned char>(*caption))) {
      g_con.printedCaption = caption;
      std::fprintf(stderr, "%s\n", caption);
    }
  } else if (g_con.live) {
    // A cleared line comes back at once; a changing one at a pace the eye can follow.
    const auto now = Clock::now();
    if (g_con.onScreen.empty() || now - g_con.drawnAt >= std::chrono::milliseconds(LiveIntervalMs)) {
      g_con.drawnAt = now;
      DrawRunningLine(RunningLine(lines, true));
    }
  } else {
    const std::string line = RunningLine(lines, false);
    const auto now = Clock::now();
    if (!line.empty() && line != g_con.lastPlain &&
        now - g_con.lastPlainAt >= std::chrono::milliseconds(PlainIntervalMs)) {
      g_con.lastPlain = line;
      g_con.lastPlainAt = now;
      std::fprintf(stderr, "%s\n", line.c_str());
    }
  }
  std::fflush(stderr);
}

// ---- The front end -------------------------------------------------------------------------

bool ConsoleStart() { return true; }

bool ConsoleOpen(ToolDialog* d) {
  g_con.live = isatty(STDERR_FILENO);
  g_con.printed.clear();
  g_con.initial.clear();
  g_con.onScreen.clear();
  g_con.lastPlain.clear();
  g_con.lastPlainAt = Clock::now();
  g_con.closeQueued = false;
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
  // The texts the dialog starts with are labels and placeholders, not news.
  for (int i = 0; i < ToolDialogControlCount(d); i++) {
    const ToolControlView c = ToolDialogControl(d, i);
    if (c.kind != ToolControlText && c.kind != ToolControlEdit) continue;
    g_con.initial.emplace_back(c.id, LineOf(c));
    g_con.printed.emplace_back(c.id, LineOf(c));
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
