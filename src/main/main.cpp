#include "host/gui/toolframe_gui.h"
#include "host/toolframe.h"
#include "main/dispatch.h"

int main(int argc, char** argv) {
  // The window is used when a display can be reached; the terminal otherwise.
  ToolFrameSetWindowCandidate(ToolGuiFrontEnd());
  return DispatchMain(argc, argv);
}
