// The sound switches of a command line.
#include <cstring>

#include "host/switches.h"
#include "media/sound_source.h"

namespace {

constexpr int32_t Absent = -1;
constexpr int32_t DefaultRawRate = 11025;

bool Count(int32_t value, uint32_t* out) {
  if (value < 0) return false;
  *out = static_cast<uint32_t>(value);
  return true;
}

}  // namespace

bool SoundParseSwitches(char* line, SoundSwitches* out) {
  memset(out, 0, sizeof *out);
  bool ok = Count(SwitchNumber(line, 'R', 0), &out->rate);
  ok = Count(SwitchNumber(line, 'B', 0), &out->bits) && ok;
  ok = Count(SwitchNumber(line, 'C', 0), &out->channels) && ok;
  ok = Count(SwitchNumber(line, 'S', 0), &out->start_ms) && ok;
  ok = Count(SwitchNumber(line, 'E', 0), &out->end_ms) && ok;
  ok = Count(SwitchNumber(line, 'T', 0), &out->track) && ok;
  ok = Count(SwitchNumber(line, 'K', 0), &out->skip) && ok;
  const int32_t type = SwitchNumber(line, 'Y', Absent);
  const int32_t rate = SwitchNumber(line, 'D', DefaultRawRate);
  if (ok && out->rate > SoundMaxRate) ok = false;
  if (type == Absent || type == 0) return ok;
  if (type < 1 || type > 4 || rate < 1 || rate > static_cast<int32_t>(SoundMaxRate)) return false;
  out->force = static_cast<uint32_t>(type + rate * 8 - 1);
  return ok;
}
