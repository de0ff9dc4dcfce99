// The tool shell in a window. The dialog fills one SDL window drawn by Dear ImGui: the caption
// as a heading (window managers without decorations show no title bar), its text lines (each
// value with its label beside it), progress bars and edit fields top to bottom, its buttons in
// a row at the bottom, and the window's title is the dialog's caption as well. Message boxes are modal popups drawn by the main
// thread; a box without a dialog is SDL's own message box.
#include "host/gui/toolframe_gui.h"

#include <SDL.h>
#include <SDL_opengl.h>
#include <backends/imgui_impl_opengl3.h>
#include <backends/imgui_impl_sdl.h>
#include <imgui.h>
#include <imgui_internal.h>
#include <imgui_stdlib.h>
#include <stb_image_write.h>

#include <cstdio>
#include <string>
#include <vector>

namespace {

constexpr int WindowWidth = 520;
constexpr float FarDown = 1.0e9f;  // a scroll past the end of any text

using EditField = ToolGuiEditField;

// Where an edit field's view stood after the last frame.
struct EditScroll {
  int id;
  float scroll, scrollMax;
};

struct GuiState {
  bool started = false;
  Uint32 wakeEvent = 0;
  SDL_Window* window = nullptr;
  SDL_GLContext gl = nullptr;
  ImGuiContext* imgui = nullptr;
  std::string shownCaption;
  std::vector<EditField> edits;
  std::vector<EditScroll> editScrolls;
  std::string screenshotPath;
  int frames = 0;
  std::vector<std::string> drawnLines;  // the heading and text lines of the last frame
};

GuiState g_gui;

// "&Done" reads "Done"; "&&" stays one "&".
std::string ButtonLabel(const char* text, int id) {
  std::string s;
  for (const char* p = text; *p; p++) {
    if (*p == '&' && p[1] != '&') continue;
    if (*p == '&') p++;
    s += *p;
  }
  return s + "##" + std::to_string(id);
}

const char* ButtonWord(int button) {
  switch (button) {
    case ToolButtonYes: return "Yes";
    case ToolButtonNo: return "No";
    case ToolButtonOk: return "OK";
    default: return "Cancel";
  }
}

int WindowHeight(ToolDialog* d) {
  int h = 56 + 34;  // the buttons, the heading
  for (int i = 0; i < ToolDialogControlCount(d); i++) {
    int kind = ToolDialogControl(d, i).kind;
    h += kind == ToolControlEdit ? 240 : kind == ToolControlButton || kind == ToolControlLabel ? 0 : 26;
  }
  return h;
}

// A text control: its label dimmed, and its value beside it.
void DrawText(const ToolControlView& c) {
  if (*c.label) {
    ImGui::TextDisabled("%s", c.label);
    if (*c.value) ImGui::SameLine();
  }
  if (*c.value) ImGui::TextWrapped("%s", c.value);
  if (!*c.label && !*c.value) ImGui::TextUnformatted("");
  char line[2048];
  ToolControlLine(c, line, sizeof line);
  g_gui.drawnLines.push_back(line);
}

bool GuiStart() {
  if (g_gui.started) return true;
  if (SDL_InitSubSystem(SDL_INIT_VIDEO) != 0) return false;
  g_gui.wakeEvent = SDL_RegisterEvents(1);
  g_gui.started = true;
  return true;
}

bool GuiOpen(ToolDialog* d) {
  if (!GuiStart()) {
    std::fprintf(stderr, "No window: %s\n", SDL_GetError());
    return false;
  }
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MAJOR_VERSION, 3);
  SDL_GL_SetAttribute(SDL_GL_CONTEXT_MINOR_VERSION, 0);
  SDL_GL_SetAttribute(SDL_GL_DOUBLEBUFFER, 1);
  Uint32 flags = SDL_WINDOW_OPENGL | SDL_WINDOW_RESIZABLE | SDL_WINDOW_ALLOW_HIGHDPI;
  flags |= ToolDialogShowState(d) == 0 ? SDL_WINDOW_HIDDEN : SDL_WINDOW_SHOWN;
  g_gui.window = SDL_CreateWindow(ToolDialogCaption(d), SDL_WINDOWPOS_CENTERED,
                                  SDL_WINDOWPOS_CENTERED, WindowWidth, WindowHeight(d), flags);
  if (!g_gui.window) {
    std::fprintf(stderr, "No window: %s\n", SDL_GetError());
    return false;
  }
  g_gui.gl = SDL_GL_CreateContext(g_gui.window);
  if (!g_gui.gl) {
    std::fprintf(stderr, "No OpenGL context: %s\n", SDL_GetError());
    SDL_DestroyWindow(g_gui.window);
    g_gui.window = nullptr;
    return false;
  }
  SDL_GL_MakeCurrent(g_gui.window, g_gui.gl);
  SDL_GL_SetSwapInterval(1);
  IMGUI_CHECKVERSION();
  g_gui.imgui = ImGui::CreateContext();
  ImGui::GetIO().IniFilename = nullptr;
  ImGui::StyleColorsDark();
  ImGui_ImplSDL2_InitForOpenGL(g_gui.window, g_gui.gl);
  ImGui_ImplOpenGL3_Init("#version 130");
  g_gui.shownCaption = ToolDialogCaption(d);
  g_gui.edits.clear();
  g_gui.frames = 0;
  return true;
}

// Takes the events of this turn: the first one may be waited for.
void TakeEvents(ToolDialog* d, int waitMs) {
  SDL_Event e;
  bool have = SDL_WaitEventTimeout(&e, waitMs > 0 ? waitMs : 1) != 0;
  while (have) {
    if (e.type != g_gui.wakeEvent) ImGui_ImplSDL2_ProcessEvent(&e);
    bool closeBox = e.type == SDL_QUIT ||
                    (e.type == SDL_WINDOWEVENT && e.window.event == SDL_WINDOWEVENT_CLOSE);
    // While a box is up the dialog behind it takes no orders, as with a modal box.
    if (closeBox && !ToolDialogTopBox(d)) ToolDialogUserClose(d);
    have = SDL_PollEvent(&e) != 0;
  }
}

EditField* EditFor(int id) {
  for (EditField& e : g_gui.edits)
    if (e.id == id) return &e;
  g_gui.edits.push_back(EditField{id, std::string(), std::string(), 0});
  return &g_gui.edits.back();
}

// With the caret in the field (the user clicked into it), the caret itself goes to the end,
// and the field keeps it in view.
int CaretToEnd(ImGuiInputTextCallbackData* data) {
  if (*static_cast<const bool*>(data->UserData))
    data->CursorPos = data->SelectionStart = data->SelectionEnd = data->BufTextLen;
  return 0;
}

// The field's inner window, which InputTextMultiline makes as a child of the current window.
ImGuiWindow* EditWindow(const char* label) {
  ImGuiWindow* parent = ImGui::GetCurrentWindow();
  char name[512];
  std::snprintf(name, sizeof name, "%s/%s_%08X", parent->Name, label, parent->GetID(label));
  return ImGui::FindWindowByName(name);
}

void DrawEdit(ToolDialog* d, const ToolControlView& c) {
  EditField* e = EditFor(c.id);
  ToolGuiTakeEditText(e, c.text);
  bool atEnd = ToolGuiEditDrawsAtEnd(e);
  ImGui::PushID(c.id);
  ImGui::BeginDisabled(!c.enabled);
  // Not in the field: its view goes to the end. The scroll is clamped to how far it reaches;
  // FLT_MAX itself would read as "no scroll asked".
  if (atEnd) ImGui::SetNextWindowScroll(ImVec2(-1.0f, FarDown));
  if (ImGui::InputTextMultiline("##edit", &e->text, ImVec2(-1, 220),
                                ImGuiInputTextFlags_CallbackAlways, CaretToEnd, &atEnd)) {
    ToolDialogUserEdit(d, c.id, e->text.c_str());
    e->synced = e->text;
  }
  if (ImGuiWindow* w = EditWindow("##edit"))
    g_gui.editScrolls.push_back(EditScroll{c.id, w->Scroll.y, w->ScrollMax.y});
  ImGui::EndDisabled();
  ImGui::PopID();
}

void DrawControls(ToolDialog* d) {
  std::vector<int> buttons;
  g_gui.drawnLines.assign(1, ToolDialogCaption(d));
  g_gui.editScrolls.clear();
  ImGui::TextUnformatted(ToolDialogCaption(d));
  ImGui::Separator();
  for (int i = 0; i < ToolDialogControlCount(d); i++) {
    ToolControlView c = ToolDialogControl(d, i);
    switch (c.kind) {
      case ToolControlText:
        DrawText(c);
        break;
      case ToolControlLabel:  // drawn beside the value that follows it
        break;
      case ToolControlProgress: {
        float fraction = c.maximum > 0 ? float(c.position) / float(c.maximum) : 0.0f;
        fraction = fraction < 0 ? 0 : fraction > 1 ? 1 : fraction;
        ImGui::ProgressBar(fraction, ImVec2(-1, 0));
        break;
      }
      case ToolControlEdit:
        DrawEdit(d, c);
        break;
      case ToolControlButton:
        buttons.push_back(i);
        break;
    }
  }
  ImGui::Spacing();
  for (size_t b = 0; b < buttons.size(); b++) {
    ToolControlView c = ToolDialogControl(d, buttons[b]);
    if (b) ImGui::SameLine();
    ImGui::BeginDisabled(!c.enabled);
    if (ImGui::Button(ButtonLabel(c.text, c.id).c_str(), ImVec2(110, 0))) ToolDialogUserCommand(d, c.id);
    ImGui::EndDisabled();
  }
}

bool KeyPressed(ImGuiKey key) { return ImGui::IsKeyPressed(ImGui::GetKeyIndex(key), false); }

void DrawBox(ToolBox* box) {
  ImGui::PushID(box);
  char name[300];
  std::snprintf(name, sizeof name, "%s##box", box->caption);
  if (!ImGui::IsPopupOpen(name)) ImGui::OpenPopup(name);
  ImGuiViewport* vp = ImGui::GetMainViewport();
  ImGui::SetNextWindowPos(vp->GetCenter(), ImGuiCond_Always, ImVec2(0.5f, 0.5f));
  ImGui::SetNextWindowSizeConstraints(ImVec2(240, 0), ImVec2(vp->Size.x - 20, vp->Size.y - 20));
  if (ImGui::BeginPopupModal(name, nullptr, ImGuiWindowFlags_AlwaysAutoResize)) {
    ImGui::PushTextWrapPos(vp->Size.x - 60);
    ImGui::TextUnformatted(box->text);
    ImGui::PopTextWrapPos();
    ImGui::Spacing();
    int chosen = -1;
    for (int i = 0; i < box->buttonCount; i++) {
      if (i) ImGui::SameLine();
      bool isDefault = i == box->defaultIndex;
      if (isDefault) ImGui::PushStyleColor(ImGuiCol_Button, ImGui::GetStyleColorVec4(ImGuiCol_ButtonActive));
      if (ImGui::Button(ButtonWord(box->buttons[i]), ImVec2(90, 0))) chosen = i;
      if (isDefault) ImGui::PopStyleColor();
    }
    if (KeyPressed(ImGuiKey_Enter) || KeyPressed(ImGuiKey_KeyPadEnter)) chosen = box->defaultIndex;
    if (KeyPressed(ImGuiKey_Escape)) {
      for (int i = 0; i < box->buttonCount; i++)
        if (box->buttons[i] == ToolButtonCancel || box->buttonCount == 1) chosen = i;
    }
    if (chosen >= 0) {
      box->answer = box->buttons[chosen];
      box->answered = true;
      ImGui::CloseCurrentPopup();
    }
    ImGui::EndPopup();
  }
  ImGui::PopID();
}

void SaveScreenshot(int width, int height) {
  std::vector<unsigned char> pixels(size_t(width) * size_t(height) * 4);
  glPixelStorei(GL_PACK_ALIGNMENT, 1);
  glReadPixels(0, 0, width, height, GL_RGBA, GL_UNSIGNED_BYTE, pixels.data());
  stbi_flip_vertically_on_write(1);
  stbi_write_png(g_gui.screenshotPath.c_str(), width, height, 4, pixels.data(), width * 4);
  stbi_flip_vertically_on_write(0);
  g_gui.screenshotPath.clear();
}

void DrawFrame(ToolDialog* d) {
  if (g_gui.shownCaption != ToolDialogCaption(d)) {
    g_gui.shownCaption = ToolDialogCaption(d);
    SDL_SetWindowTitle(g_gui.window, g_gui.shownCaption.c_str());
  }
  ImGui_ImplOpenGL3_NewFrame();
  ImGui_ImplSDL2_NewFrame();
  ImGui::NewFrame();
  ImGuiViewport* vp = ImGui::GetMainViewport();
  ImGui::SetNextWindowPos(vp->WorkPos);
  ImGui::SetNextWindowSize(vp->WorkSize);
  ImGui::Begin("##dialog", nullptr,
               ImGuiWindowFlags_NoDecoration | ImGuiWindowFlags_NoMove |
                   ImGuiWindowFlags_NoSavedSettings | ImGuiWindowFlags_NoBringToFrontOnFocus);
  DrawControls(d);
  if (ToolBox* box = ToolDialogTopBox(d)) DrawBox(box);
  ImGui::End();
  ImGui::Render();
  int w = 0, h = 0;
  SDL_GL_GetDrawableSize(g_gui.window, &w, &h);
  glViewport(0, 0, w, h);
  glClearColor(0.12f, 0.12f, 0.14f, 1.0f);
  glClear(GL_COLOR_BUFFER_BIT);
  ImGui_ImplOpenGL3_RenderDrawData(ImGui::GetDrawData());
  if (!g_gui.screenshotPath.empty()) SaveScreenshot(w, h);
  SDL_GL_SwapWindow(g_gui.window);
  g_gui.frames++;
}

void GuiStep(ToolDialog* d, int waitMs) {
  TakeEvents(d, waitMs);
  DrawFrame(d);
  ToolDialogPainted(d, g_gui.frames);
}

void GuiWake() {
  if (!g_gui.started) return;
  SDL_Event e{};
  e.type = g_gui.wakeEvent;
  SDL_PushEvent(&e);
}

void GuiClose(ToolDialog* d) {
  if (!g_gui.window) return;
  ImGui_ImplOpenGL3_Shutdown();
  ImGui_ImplSDL2_Shutdown();
  ImGui::DestroyContext(g_gui.imgui);
  g_gui.imgui = nullptr;
  SDL_GL_DeleteContext(g_gui.gl);
  g_gui.gl = nullptr;
  SDL_DestroyWindow(g_gui.window);
  g_gui.window = nullptr;
}

void GuiBox(ToolBox* box) {
  GuiStart();
  SDL_MessageBoxButtonData buttons[3] = {};
  for (int i = 0; i < box->buttonCount; i++) {
    buttons[i].buttonid = i;
    buttons[i].text = ButtonWord(box->buttons[i]);
    if (i == box->defaultIndex) buttons[i].flags |= SDL_MESSAGEBOX_BUTTON_RETURNKEY_DEFAULT;
    if (box->buttons[i] == ToolButtonCancel) buttons[i].flags |= SDL_MESSAGEBOX_BUTTON_ESCAPEKEY_DEFAULT;
  }
  SDL_MessageBoxData data{};
  data.flags = box->icon == ToolIconStop      ? SDL_MESSAGEBOX_ERROR
               : box->icon == ToolIconWarning ? SDL_MESSAGEBOX_WARNING
                                              : SDL_MESSAGEBOX_INFORMATION;
  data.window = g_gui.window;
  data.title = box->caption;
  data.message = box->text;
  data.numbuttons = box->buttonCount;
  data.buttons = buttons;
  int hit = -1;
  if (SDL_ShowMessageBox(&data, &hit) != 0 || hit < 0 || hit >= box->buttonCount)
    hit = box->defaultIndex;
  box->answer = box->buttons[hit];
  box->answered = true;
}

const ToolFrontEnd GuiFrontEnd = {
    "window", false, GuiStart, GuiOpen, GuiStep, GuiWake, GuiClose, GuiBox,
};

}  // namespace

const ToolFrontEnd* ToolGuiFrontEnd() { return &GuiFrontEnd; }
void ToolGuiRequestScreenshot(const char* path) { g_gui.screenshotPath = path ? path : ""; }
int ToolGuiFramesDrawn() { return g_gui.frames; }
std::vector<std::string> ToolGuiDrawnLines() { return g_gui.drawnLines; }

bool ToolGuiTakeEditText(ToolGuiEditField* field, const char* toolText) {
  const char* text = toolText ? toolText : "";
  if (field->synced == text) return false;
  field->text = field->synced = text;
  field->toEnd = ToolGuiEndDraws;
  return true;
}

bool ToolGuiEditDrawsAtEnd(ToolGuiEditField* field) {
  if (field->toEnd <= 0) return false;
  field->toEnd--;
  return true;
}

const ToolGuiEditField* ToolGuiEdit(int id) {
  for (const ToolGuiEditField& e : g_gui.edits)
    if (e.id == id) return &e;
  return nullptr;
}

bool ToolGuiEditScroll(int id, float* scroll, float* scrollMax) {
  for (const EditScroll& e : g_gui.editScrolls) {
    if (e.id != id) continue;
    *scroll = e.scroll;
    *scrollMax = e.scrollMax;
    return true;
  }
  return false;
}
