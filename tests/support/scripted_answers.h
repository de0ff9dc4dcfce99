// A front end for tool runs in this process that answers questions as the test says and keeps
// every box it was shown: the console front end, except that a question (a box whose first
// button is Yes) takes the script's answer instead of its default.
#pragma once
#include <mutex>
#include <string>
#include <vector>

#include "host/toolframe.h"

namespace test_support {

struct ShownBox {
  std::string caption, text;
  int icon = 0;
  bool question = false;
};

struct AnswerScript {
  int answer = ToolButtonYes;  // what every question gets
  std::vector<ShownBox> shown;
  std::mutex lock;

  void Reset(int nextAnswer) {
    std::lock_guard<std::mutex> hold(lock);
    answer = nextAnswer;
    shown.clear();
  }
  std::vector<ShownBox> Questions() {
    std::lock_guard<std::mutex> hold(lock);
    std::vector<ShownBox> out;
    for (const ShownBox& b : shown)
      if (b.question) out.push_back(b);
    return out;
  }
};

inline AnswerScript& Answers() {
  static AnswerScript script;
  return script;
}

// Notes a box that is still open, and answers it when it is a question.
inline void ScriptBox(ToolBox* box) {
  if (!box || box->answered) return;
  AnswerScript& script = Answers();
  std::lock_guard<std::mutex> hold(script.lock);
  const bool question = box->buttonCount > 1 && box->buttons[0] == ToolButtonYes;
  script.shown.push_back({box->caption ? box->caption : "", box->text ? box->text : "", box->icon,
                          question});
  if (!question) return;
  box->answer = script.answer;
  box->answered = true;
}

inline const ToolFrontEnd* ScriptedFrontEnd() {
  static const ToolFrontEnd scripted = [] {
    ToolFrontEnd f = *ToolConsoleFrontEnd();
    f.name = "scripted";
    f.step = [](ToolDialog* d, int waitMs) {
      ScriptBox(ToolDialogTopBox(d));
      ToolConsoleFrontEnd()->step(d, waitMs);
    };
    f.box = [](ToolBox* box) {
      ScriptBox(box);
      if (!box->answered) ToolConsoleFrontEnd()->box(box);
    };
    return f;
  }();
  return &scripted;
}

}  // namespace test_support
