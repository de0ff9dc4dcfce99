#include "host/gui/toolframe_gui.h"
#include "host/toolframe.h"
#include "main/dispatch.h"
#include "main/endcard_clip.h"
#include "player/player_endcard.h"

int main(int argc, char** argv) {
  // The window is used when a display can be reached; the terminal otherwise.
  ToolFrameSetWindowCandidate(ToolGuiFrontEnd());
  PlayerSetEndCardClip(OrnEndCardClip, OrnEndCardClipSize);
  return DispatchMain(argc, argv);
}
