// VelmoPlay's main routine: the command line, the window, the loop, and the closing boxes.
#include "player/velmoplay.h"

#include <cstdlib>
#include <string>

#include "host/quietframe.h"
#include "host/settings.h"
#include "host/toolframe.h"
#include "player/player_builtin.h"
#include "player/player_endcard.h"
#include "player/player_loop.h"
#include "player/player_saver.h"
#include "player/player_window.h"
#include "player/sound/player_sound.h"

int VelmoPlayMain(void*, void*, char* commandTail, int) {
  QuietFrameInit(nullptr, 0, 0);
  char quickPlay[512];
  SettingsReadText(SettingsMainSection, "VelmoQuickPlay", quickPlay, sizeof quickPlay, "");
  // A self-playing program's line comes first; the tail's buffer has room behind the line for
  // the appended quick-play text.
  const PlayerSaverMode saver =
      PlayerDecideSaver(PlayerProgramName(), commandTail, std::getenv("XSCREENSAVER_WINDOW"));
  if (saver.Kind == PlayerSaverSettings) {
    QuietFrameBox("There are no settings for this screensaver.", "Velmo Video Player",
                  ToolIconInformation);
    return 0;
  }
  std::string line =
      PlayerJoinLine(PlayerBuiltinLine(), commandTail, saver.Kind != PlayerSaverNone);
  line.resize(line.size() + sizeof quickPlay + 2, 0);
  PlayerState state;
  if (!PlayerReadLine(line.data(), line.size(), quickPlay, &state.Options, &state.Names)) {
    QuietFrameBox(PlayerHelpText(), "Velmo Video Player Help", ToolIconInformation);
    return 1;
  }
  PlayerApplySaver(saver, &state.Options);
  state.ScreenSaver = PlayerSaverValue(saver);
  // A plain run ends with the end-card; a screen saver does not.
  if (saver.Kind == PlayerSaverNone) {
    state.EndCardClip = PlayerEndCardClip(&state.EndCardSize);
    state.MakerPage = PlayerMakerPage();
  }
  PlayerWindow* window = PlayerWindowCreate(state.Options);
  if (!window) {
    QuietFrameBox("Error creating window.", "Windows", ToolIconStop);
    return 1;
  }
  PlayerHost host = PlayerWindowHost(window);
  // The device the /Z switch names; one that cannot start leaves the player silent.
  PlayerSoundRegister(PlayerSoundBackEnd(state.Options.SoundOutput));
  if (state.Options.SoundOutput == 2) host.Opened = PlayerSoundRouteTracks;
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
