// Plays one file through the player's window and loop as VelmoPlay does, but with the number of
// async decoding threads given, and prints which path drew it and the summary text. With
// --shot, the window's pixels at the first showing of a frame are written to a PNG file.
//
//   player_play_run [--threads N] [--shot FRAME OUT.png] file [player switches]
//
// It needs a display (run it under xvfb-run); bench/player_play.py drives it.
#include "imagefile/imagefile.h"
#include "player/player_loop.h"
#include "player/player_window.h"
#include "player/sound/player_sound.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <vector>

namespace {

struct Shot {
  PlayerWindow* Window = nullptr;
  PlayerHost Inner;
  uint32_t Frame = 0;
  std::string Path;
  bool Written = false;
};
Shot G;

void Save(const std::vector<uint32_t>& pixels, int32_t width, int32_t height) {
  std::vector<uint32_t> opaque(pixels);
  for (uint32_t& p : opaque) p |= 0xFF000000u;
  ImagePixels image{opaque.data(), ptrdiff_t(width) * 4, width, height, IMAGE_PIXELS_ARGB32};
  ImageWriteParams params{IMAGE_FORMAT_PNG, 0, 90, 0};
  ImageError error{};
  if (!ImageWriteFile(G.Path.c_str(), &params, &image, &error))
    std::fprintf(stderr, "could not write %s\n", G.Path.c_str());
  G.Written = true;
}

void PresentAndShoot(void* context, PlayerState* s) {
  G.Inner.Present(context, s);
  if (G.Written || s->Seeking || s->ShownFrame != G.Frame) return;
  std::vector<uint32_t> pixels;
  int32_t width = 0, height = 0;
  if (PlayerWindowReadPixels(G.Window, &pixels, &width, &height)) Save(pixels, width, height);
}

int Usage() {
  std::fprintf(stderr, "player_play_run [--threads N] [--shot FRAME OUT.png] file [switches]\n");
  return 2;
}

}  // namespace

int main(int argc, char** argv) {
  uint32_t threads = 0;
  std::string line;
  for (int i = 1; i < argc; ++i) {
    if (!std::strcmp(argv[i], "--threads") && i + 1 < argc) {
      threads = uint32_t(std::atoi(argv[++i]));
    } else if (!std::strcmp(argv[i], "--shot") && i + 2 < argc) {
      G.Frame = uint32_t(std::atoi(argv[++i]));
      G.Path = argv[++i];
    } else {
      line += (line.empty() ? "" : " ") + std::string(argv[i]);
    }
  }
  if (line.empty()) return Usage();
  line.resize(line.size() + 1024, 0);
  PlayerState state;
  if (!PlayerReadLine(line.data(), line.size(), "", &state.Options, &state.Names)) return Usage();
  PlayerWindow* window = PlayerWindowCreate(state.Options);
  if (!window) {
    std::fprintf(stderr, "no window: a display is needed\n");
    return 1;
  }
  PlayerHost host = PlayerWindowHost(window);
  host.AsyncThreadCount = threads;
  if (!G.Path.empty()) {
    G.Window = window;
    G.Inner = host;
    PlayerWindowCapture(window, true);
    host.Present = PresentAndShoot;
  }
  PlayerSoundRegister(PlayerSoundBackEnd(state.Options.SoundOutput));
  const int code = PlayerRun(&state, host);
  const bool gl = PlayerWindowUsesGl(window);
  PlayerWindowDestroy(window);
  if (code != 0) {
    std::fprintf(stderr, "%s\n", state.Error.c_str());
    return code;
  }
  std::printf("Path: %s\nAsync threads asked: %u\n%s", gl ? "OpenGL" : "2-D", threads,
              state.Summary.c_str());
  if (!G.Path.empty() && !G.Written) std::fprintf(stderr, "frame %u was not shown\n", G.Frame);
  return 0;
}
