// The sound switches of a command line.
#include <cstring>

#include "host/switches.h"
#include "media/sound_source.h"

// Forcing the output format: the compressors and the converter read /R, /B and /C by these
// same rules. /B's hundreds ask for normalising to that percentage of full scale.
namespace {
bool OutputBits(int32_t value) {
  const int32_t bits = value % 100;
  return (bits == 0 || bits == 8 || bits == 16) && value / 100 <= 100;
}
}  // namespace

const SwitchRule SoundRateRule = {'R', 0, int32_t(SoundMaxRate),
                                  "the sound rate must be 1 to 1000000 Hz (0 for the input's)"};
const SwitchRule SoundBitsRule = {'B', 0, 10016, "the output bits must be 8 or 16", OutputBits};
const SwitchRule SoundChannelsRule = {'C', 0, 2, "the output channels must be 1 or 2"};

namespace {

constexpr int32_t Absent = -1;
constexpr int32_t DefaultRawRate = 11025;

const SwitchRule Rules[] = {
    {'S', 0, INT32_MAX, "the start must be 0 milliseconds or more"},
    {'E', 0, INT32_MAX, "the end must be 0 milliseconds or more"},
    {'T', 0, INT32_MAX, "the sound track must be 0 or more"},
    {'K', 0, INT32_MAX, "the bytes to skip must be 0 or more"},
    {'Y', 0, 4, "the raw input type must be 1 to 4 (8-bit mono, 8-bit stereo, 16-bit mono, "
                "16-bit stereo)"},
    {'D', 1, int32_t(SoundMaxRate), "the raw input rate must be 1 to 1000000 Hz"},
};

uint32_t Count(char* line, char letter, SwitchErrors* errors) {
  return uint32_t(SwitchNumberIn(line, Rules, letter, 0, errors));
}

}  // namespace

bool SoundParseSwitches(char* line, SoundSwitches* out, SwitchErrors* errors) {
  memset(out, 0, sizeof *out);
  SwitchErrors own;
  if (!errors) errors = &own;
  out->rate = uint32_t(SwitchNumberIn(line, SoundRateRule, 0, errors));
  out->bits = uint32_t(SwitchNumberIn(line, SoundBitsRule, 0, errors));
  out->channels = uint32_t(SwitchNumberIn(line, SoundChannelsRule, 0, errors));
  out->start_ms = Count(line, 'S', errors);
  out->end_ms = Count(line, 'E', errors);
  out->track = Count(line, 'T', errors);
  out->skip = Count(line, 'K', errors);
  const int32_t type = SwitchNumberIn(line, Rules, 'Y', Absent, errors);
  const int32_t rate = SwitchNumberIn(line, Rules, 'D', DefaultRawRate, errors);
  if (type > 0) out->force = static_cast<uint32_t>(type + rate * 8 - 1);
  return !errors->Failed();
}
