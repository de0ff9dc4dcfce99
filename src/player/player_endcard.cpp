// The registered end-card clip.
#include "player/player_endcard.h"

namespace {

const void* g_clip = nullptr;
size_t g_clipSize = 0;

}  // namespace

void PlayerSetEndCardClip(const void* data, size_t size) {
  g_clip = size ? data : nullptr;
  g_clipSize = g_clip ? size : 0;
}

const void* PlayerEndCardClip(size_t* size) {
  *size = g_clipSize;
  return g_clip;
}
