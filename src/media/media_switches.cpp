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

// The values each video switch takes. Where the media layer has its own rule for a value (a
// /Q beyond 1..256 is held to it, a /U of 0 or beyond 0x10000 means "never", a /I is lowered to
// fit /Q), the switch takes the value and the rule applies; the rest is refused.
static_assert(MediaMaxSide == 16384, "the crop and scale messages name the largest side");

// /Z: 0 to 3 for the palette, plus 100 or 200 for the scaler, 1000 to 3000 for the alpha plane,
// 10000 and 20000 for the warnings and the default flag.
bool GraphicsOptions(int32_t value) {
  value %= 10000;
  value %= 1000;
  value %= 200;
  if (value >= 100) value -= 100;
  return value <= 3;
}
bool Deinterlace(int32_t value) { return (value & 7) <= 2; }

const SwitchRule Rules[] = {
    {'Z', 0, INT32_MAX, "the graphics options are 0 to 3 (palette), plus 100 or 200 (scaling), "
                        "1000 to 3000 (alpha), 10000 and 20000", GraphicsOptions},
    {';', 0, 15, "the de-interlacing must be 0 (none), 1 (even) or 2 (odd), plus 8 to blend",
     Deinterlace},
    {'~', 0, 1, "the denoising filter must be 0 (off) or 1 (on)"},
    {':', 0, 100, "the smoothness must be 0 to 100 percent"},
    {'{', 0, 128, "the contrast increase must be 0 to 128"},
    {'[', 0, 1000, "the brightness must be 0 to 1000 percent"},
    {'}', 0, 255, "the black clamp must be 0 to 255"},
    {'X', -16384, 16384, "the crop left must be -16384 to 16384"},
    {'Y', -16384, 16384, "the crop top must be -16384 to 16384"},
    {'W', 0, 16384, "the crop width must be 0 (the whole width) to 16384"},
    {'H', 0, 16384, "the crop height must be 0 (the whole height) to 16384"},
    {'U', 0, INT32_MAX, "the palette interval must be 0 frames or more"},
    {'I', 0, 255, "the first palette index must be 0 to 255"},
    {'Q', 1, 256, "", nullptr, true},
    {'$', 0, 255, "the rotation entries must be 0 to 255"},
    {'D', 0, 2, "the system colours control must be 0, 1 or 2"},
    {'T', 0, 2, "the halftone control must be 0, 1 or 2"},
};

int32_t Number(char* line, char letter, int32_t defaultValue, SwitchErrors* errors) {
  return SwitchNumberIn(line, Rules, letter, defaultValue, errors);
}

// A rate above 0, or a frame duration (a negative number); a zero second number is no rate.
bool Rate(int32_t n, int32_t d) { return n != 0 && d > 0; }
// A size of 1 to 16384, 0 for the source's, -1 to keep the aspect, or a negative factor of the
// source size up to 64 times.
bool Scale(int32_t n, int32_t d) {
  if (d <= 0) return false;
  if (n >= 0) return n / d <= 16384;
  return -int64_t(n) <= int64_t(d) * 64;
}
bool Gamma(int32_t n, int32_t d) { return n > 0 && d > 0; }

const SwitchFractionRule ForceRate = {
    'F', Rate, "the frame rate must be above 0 (or a negative frame time in milliseconds)"};
const SwitchFractionRule AdjustRate = {
    'A', Rate, "the frame rate must be above 0 (or a negative frame time in milliseconds)"};
const SwitchFractionRule ScaleWidth = {
    '(', Scale, "the scale width must be 1 to 16384, or a negative factor up to -64"};
const SwitchFractionRule ScaleHeight = {
    ')', Scale, "the scale height must be 1 to 16384, or a negative factor up to -64"};
const SwitchFractionRule GammaRule = {']', Gamma, "the gamma must be above 0"};

// /F and /A: a rate, or with a minus sign a frame duration (milliseconds up to 1500, beyond
// that 1/100000 second).
void ReadRate(char* line, const SwitchFractionRule& rule, int32_t* num, int32_t* den,
              SwitchErrors* errors) {
  int32_t n = 0, d = 0;
  if (!SwitchFractionIn(line, rule, &n, &d, 0, 0, errors)) {
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
int32_t ReadScale(char* line, const SwitchFractionRule& rule, SwitchErrors* errors) {
  int32_t n = 0, d = 0;
  if (!SwitchFractionIn(line, rule, &n, &d, 0, 1, errors)) return 0;
  if (n < 0 && !(n == -1 && d == 1)) {
    const int64_t v = int64_t(n) * 1000 / d - 1000;
    return v < INT32_MIN / 2 ? INT32_MIN / 2 : static_cast<int32_t>(v);
  }
  return n / d;
}

uint32_t NonNegative(int32_t v) { return v < 0 ? 0 : static_cast<uint32_t>(v); }

}  // namespace

void MediaParseSwitches(char* line, MediaSwitches* out, SwitchErrors* errors) {
  memset(out, 0, sizeof *out);
  out->open_flags = FlagsFromZ(Number(line, 'Z', Absent, errors)) |
                    FlagsFromDeinterlace(Number(line, ';', 0, errors));
  ReadRate(line, ForceRate, &out->force_num, &out->force_den, errors);
  ReadRate(line, AdjustRate, &out->adjust_num, &out->adjust_den, errors);
  out->denoise = NonNegative(Number(line, '~', 0, errors));
  out->smooth = NonNegative(Number(line, ':', 0, errors));
  out->contrast = NonNegative(Number(line, '{', 0, errors));
  out->brightness = NonNegative(Number(line, '[', 100, errors));
  int32_t gammaNum = 1, gammaDen = 1;
  SwitchFractionIn(line, GammaRule, &gammaNum, &gammaDen, 1, 1, errors);
  out->gamma = double(gammaDen) / gammaNum;
  out->black_clamp = NonNegative(Number(line, '}', 0, errors));
  out->scale_w = ReadScale(line, ScaleWidth, errors);
  out->scale_h = ReadScale(line, ScaleHeight, errors);
  out->crop_x = Number(line, 'X', 0, errors);
  out->crop_y = Number(line, 'Y', 0, errors);
  out->crop_w = Number(line, 'W', 0, errors);
  out->crop_h = Number(line, 'H', 0, errors);
  out->start = SwitchNumber(line, 'S', 0);
  out->end = SwitchNumber(line, 'E', 0);
  const int32_t interval = Number(line, 'U', 0, errors);
  out->palette_interval = interval <= 0 || interval > 0x10000 ? 0x10000 : uint32_t(interval);
  const int32_t first = Number(line, 'I', Absent, errors);
  out->colours = uint32_t(Number(line, 'Q', 256, errors));
  uint32_t firstColour = first == Absent ? (256 - out->colours) / 2 : NonNegative(first);
  if (firstColour + out->colours > 256) firstColour = 256 - out->colours;
  out->palette_first = firstColour;
  out->rotation = NonNegative(Number(line, '$', 0, errors));
  out->system_colours = NonNegative(Number(line, 'D', 0, errors));
  out->halftone = NonNegative(Number(line, 'T', 0, errors));
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

void MediaSayAlphaDropped(const MediaSwitches* switches, bool inputHasAlpha, ProgressSink progress) {
  const uint32_t flags = switches->open_flags;
  if (!inputHasAlpha || (flags & (MediaOpenAlpha | MediaOpenNoAlphaWarning))) return;
  ProgressSend(progress, MediaTextAlphaDropped, MediaLevelWarning);
}
