// The video switches of a switch line.
#include <climits>
#include <cstring>

#include "host/switches.h"
#include "host/textformat.h"
#include "media/media_internal.h"

namespace {

constexpr int32_t Absent = INT32_MIN;

// /Z: palette mode, kernel and alpha handling as open flags. Without /Z the compressor's
// default flag stands.
uint32_t FlagsFromZ(int32_t value) {
  uint32_t flags = MediaOpenCompressorDefault;
  if (value == Absent || value < 0) return flags;
  if (value >= 20000) {
    flags = 0;
    value %= 20000;
  }
  if (value >= 10000) {
    flags |= MediaOpenNoAlphaWarning;
    value %= 10000;
  }
  if (value >= 1000) {
    flags |= MediaOpenAlpha;
    if (value >= 3000) flags |= MediaOpenPremultiply | MediaOpenUnpremultiply;
    else if (value >= 2000) flags |= MediaOpenPremultiply;
    value %= 1000;
  }
  if (value >= 200) {
    flags |= MediaOpenBox;
    value %= 200;
  }
  if (value >= 100) {
    flags |= MediaOpenLinear;
    value -= 100;
  }
  return flags | (static_cast<uint32_t>(value) & MediaOpenPaletteMask);
}

uint32_t FlagsFromDeinterlace(int32_t value) {
  uint32_t flags = 0;
  if ((value & 7) == 1) flags |= MediaOpenDeinterlaceEven;
  if ((value & 7) == 2) flags |= MediaOpenDeinterlaceOdd;
  if (value & 8) flags |= MediaOpenDeinterlaceBlend;
  return flags;
}

// /F and /A: a rate, or with a minus sign a frame duration (milliseconds up to 1500, beyond
// that 1/100000 second).
void ReadRate(char* line, char letter, int32_t* num, int32_t* den) {
  int32_t n = 0, d = 0;
  if (!SwitchFraction(line, letter, &n, &d, 0, 0) || d <= 0) {
    *num = *den = 0;
    return;
  }
  if (n < 0) {
    const double quotient = double(n) / d;
    const int64_t unit = quotient >= -1500 ? 1000 : 100000;
    int64_t rateNum = int64_t(d) * unit, rateDen = -int64_t(n);
    while (rateNum > INT32_MAX) rateNum /= 10, rateDen = rateDen / 10 ? rateDen / 10 : 1;
    n = static_cast<int32_t>(rateNum);
    d = static_cast<int32_t>(rateDen);
  }
  ReduceFraction(&n, &d);
  *num = n;
  *den = d;
}

// /( and /): a size, or a negative factor of the source size.
int32_t ReadScale(char* line, char letter) {
  int32_t n = 0, d = 0;
  if (!SwitchFraction(line, letter, &n, &d, 0, 1) || d <= 0) return 0;
  if (n < 0 && !(n == -1 && d == 1)) {
    const int64_t v = int64_t(n) * 1000 / d - 1000;
    return v < INT32_MIN / 2 ? INT32_MIN / 2 : static_cast<int32_t>(v);
  }
  return n / d;
}

uint32_t NonNegative(int32_t v) { return v < 0 ? 0 : static_cast<uint32_t>(v); }

}  // namespace

void MediaParseSwitches(char* line, MediaSwitches* out) {
  memset(out, 0, sizeof *out);
  out->open_flags = FlagsFromZ(SwitchNumber(line, 'Z', Absent)) |
                    FlagsFromDeinterlace(SwitchNumber(line, ';', 0));
  ReadRate(line, 'F', &out->force_num, &out->force_den);
  ReadRate(line, 'A', &out->adjust_num, &out->adjust_den);
  out->denoise = NonNegative(SwitchNumber(line, '~', 0));
  out->smooth = NonNegative(SwitchNumber(line, ':', 0));
  out->contrast = NonNegative(SwitchNumber(line, '{', 0));
  out->brightness = NonNegative(SwitchNumber(line, '[', 100));
  int32_t gammaNum = 1, gammaDen = 1;
  SwitchFraction(line, ']', &gammaNum, &gammaDen, 1, 1);
  out->gamma = gammaNum > 0 && gammaDen > 0 ? double(gammaDen) / gammaNum : 1.0;
  out->black_clamp = NonNegative(SwitchNumber(line, '}', 0));
  out->scale_w = ReadScale(line, '(');
  out->scale_h = ReadScale(line, ')');
  out->crop_x = SwitchNumber(line, 'X', 0);
  out->crop_y = SwitchNumber(line, 'Y', 0);
  out->crop_w = SwitchNumber(line, 'W', 0);
  out->crop_h = SwitchNumber(line, 'H', 0);
  out->start = SwitchNumber(line, 'S', 0);
  out->end = SwitchNumber(line, 'E', 0);
  const int32_t interval = SwitchNumber(line, 'U', 0);
  out->palette_interval = interval <= 0 || interval > 0x10000 ? 0x10000 : uint32_t(interval);
  const int32_t first = SwitchNumber(line, 'I', Absent);
  int32_t colours = SwitchNumber(line, 'Q', 256);
  if (colours < 1) colours = 1;
  if (colours > 256) colours = 256;
  out->colours = uint32_t(colours);
  uint32_t firstColour = first == Absent ? (256 - out->colours) / 2 : NonNegative(first);
  if (firstColour + out->colours > 256) firstColour = 256 - out->colours;
  out->palette_first = firstColour;
  out->rotation = NonNegative(SwitchNumber(line, '$', 0));
  out->system_colours = NonNegative(SwitchNumber(line, 'D', 0));
  out->halftone = NonNegative(SwitchNumber(line, 'T', 0));
  SwitchText(line, '&', out->palette_file, sizeof out->palette_file, "");
}

MediaOpenArgs MediaArgsFromSwitches(const MediaSwitches* s) {
  MediaOpenArgs a{};
  a.flags = s->open_flags;
  a.force_num = s->force_num;
  a.force_den = s->force_den;
  a.adjust_num = s->adjust_num;
  a.adjust_den = s->adjust_den;
  a.scale_w = s->scale_w;
  a.scale_h = s->scale_h;
  a.crop_x = s->crop_x;
  a.crop_y = s->crop_y;
  a.crop_w = s->crop_w;
  a.crop_h = s->crop_h;
  a.start = s->start;
  a.end = s->end;
  a.palette_interval = s->palette_interval;
  a.palette_first = s->palette_first;
  a.colours = s->colours;
  a.rotation = s->rotation;
  a.system_colours = s->system_colours;
  a.halftone = s->halftone;
  a.palette_file = s->palette_file[0] ? s->palette_file : nullptr;
  return a;
}
