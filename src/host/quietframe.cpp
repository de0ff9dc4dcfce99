// Boxes for the tools that have no dialog of their own.
#include "host/quietframe.h"

#include <string>

#include "host/toolframe.h"

namespace {

struct QuietFrame {
  void* instance = nullptr;
  intptr_t parent = 0;
  int flag = 0;
  std::string lastQuestion;
};

QuietFrame g_quiet;

}  // namespace

void QuietFrameInit(void* instance, intptr_t parentWindow, int flag) {
  g_quiet.instance = instance;
  g_quiet.parent = parentWindow;
  g_quiet.flag = flag;
}

intptr_t QuietFrameParent() { return g_quiet.parent; }
int QuietFrameFlag() { return g_quiet.flag; }

void PumpMessages() {}

void QuietFrameBox(const char* text, const char* caption, int icon) {
  ToolBox box{};
  box.caption = caption ? caption : "";
  box.text = text ? text : "";
  box.icon = icon;
  box.buttonCount = 1;
  box.buttons[0] = ToolButtonOk;
  ToolFrameShowBox(&box);
  PumpMessages();
}

bool QuietFrameAsk(const char* text, const char* caption) {
  ToolBox box{};
  box.caption = caption ? caption : "";
  box.text = text ? text : "";
  box.icon = ToolIconQuestion;
  box.buttonCount = 2;
  box.buttons[0] = ToolButtonYes;
  box.buttons[1] = ToolButtonNo;
  box.defaultIndex = 0;
  box.answer = ToolButtonNo;
  ToolFrameShowBox(&box);
  PumpMessages();
  bool yes = box.answer == ToolButtonYes;
  g_quiet.lastQuestion = std::string(box.text) + (yes ? " Yes." : " No.");
  return yes;
}

const char* QuietFrameLastQuestion() { return g_quiet.lastQuestion.c_str(); }
