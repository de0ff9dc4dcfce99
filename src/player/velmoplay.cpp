// VelmoPlay's main routine: the command line, the window, the loop, and the closing boxes.
#include "player/velmoplay.h"

#include <string>

#include "host/quietframe.h"
#include "host/settings.h"
#include "host/toolframe.h"
#include "player/player_loop.h"
#include "player/player_sound.h"
#include "player/player_window.h"

int VelmoPlayMain(void*, void*, char* commandTail, int) {
  QuietFrameInit(nullptr, 0, 0);
  char quickPlay[512];
  SettingsReadText(SettingsMainSection, "VelmoQuickPlay", quickPlay, sizeof quickPlay, "");
  // The tail's buffer has room behind the line for the appended quick-play text.
  std::string line = commandTail;
  line.resize(line.size() + sizeof quickPlay + 2, 0);
  PlayerState state;
  if (!PlayerReadLine(line.data(), line.size(), quickPlay, &state.Options, &state.Names)) {
    QuietFrameBox(PlayerHelpText(), "Velmo Video Player Help", ToolIconInformation);
    return 1;
  }
  PlayerWindow* window = PlayerWindowCreate(state.Options);
  if (!window) {
    QuietFrameBox("Error creating window.", "Windows", ToolIconStop);
    return 1;
  }
  PlayerHost host = PlayerWindowHost(window);
  const PlayerSoundChoice sound = PlayerSoundBackEnd(state.Options.SoundOutput);
  host.SoundSelect = sound.Select;
  host.SoundParameter = sound.Parameter;
  const int code = PlayerRun(&state, host);
  PlayerWindowDestroy(window);
  if (code != 0) {
    QuietFrameBox(state.Error.c_str(), "Velmo Error", ToolIconStop);
    return code;
  }
  if (!state.Summary.empty())
    QuietFrameBox(state.Summary.c_str(), "Velmo Playback Summary", ToolIconInformation);
  return 0;
}
