// The video switches of a switch line.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "host/switches.h"
#include "media/media.h"
#include "media/sound.h"
#include "support/progress_log.h"

namespace {

MediaSwitches Parse(const char* text, std::string* rest = nullptr) {
  char line[512];
  snprintf(line, sizeof line, "%s", text);
  MediaSwitches s;
  MediaParseSwitches(line, &s);
  if (rest) *rest = line;
  return s;
}

TEST(MediaSwitches, DefaultsWhenNothingIsGiven) {
  std::string rest;
  const MediaSwitches s = Parse("in.avi out.vlm", &rest);
  EXPECT_EQ(std::tuple(s.open_flags, s.brightness, s.gamma, s.colours, s.palette_first, s.palette_interval),
            std::tuple(uint32_t(MediaOpenCompressorDefault), 100u, 1.0, 256u, 0u, 0x10000u));
  EXPECT_EQ(std::tuple(s.force_num, s.adjust_num, s.scale_w, s.palette_file[0]), std::tuple(0, 0, 0, '\0'));
  EXPECT_EQ(rest, "in.avi out.vlm");
}

TEST(MediaSwitches, ZAndDeinterlaceValuesBecomeOpenFlags) {
  struct Case {
    const char* line;
    uint32_t flags;
  } cases[] = {
      {"/Z0", 0x40000},
      {"/Z20000", 0},
      {"/Z1", 0x40000 | 1},
      {"/Z3", 0x40000 | 3},
      {"/Z100", 0x40000 | 0x4000},
      {"/Z201", 0x40000 | 0x8000 | 1},
      {"/Z1000", 0x40000 | 0x100},
      {"/Z2000", 0x40000 | 0x100 | 0x10000},
      {"/Z3100", 0x40000 | 0x100 | 0x30000 | 0x4000},
      {"/Z10000", 0x40000 | 0x80},
      {"/Z21000", 0x100},
      {"/Z11102", 0x40000 | 0x80 | 0x100 | 0x4000 | 2},
      // De-interlace values.
      {"/Z20000 /;1", MediaOpenDeinterlaceEven},
      {"/Z20000 /;2", MediaOpenDeinterlaceOdd},
      {"/Z20000 /;9", MediaOpenDeinterlaceEven | MediaOpenDeinterlaceBlend},
      {"/Z20000 /;8", MediaOpenDeinterlaceBlend},
      {"/Z20000 /;3", 0},
  };
  for (const Case& c : cases) EXPECT_EQ(Parse(c.line).open_flags, c.flags) << c.line;
}

// Pairs of numbers: a rate as numerator and denominator, or a scale request as width and height.
TEST(MediaSwitches, RatesAndScaleRequests) {
  using Pair = int32_t MediaSwitches::*;
  struct Case {
    const char* line;
    Pair first, second;
    int32_t a, b;
  } cases[] = {
      {"/F29.97", &MediaSwitches::force_num, &MediaSwitches::force_den, 2997, 100},
      {"/A30000;1001", &MediaSwitches::adjust_num, &MediaSwitches::adjust_den, 30000, 1001},
      {"/F-40", &MediaSwitches::force_num, &MediaSwitches::force_den, 25, 1},  // 40 ms a frame
      {"/F-3336667", &MediaSwitches::force_num, &MediaSwitches::force_den, 100000, 3336667},  // 1/100000 s
      {"/(-1 /)240", &MediaSwitches::scale_w, &MediaSwitches::scale_h, -1, 240},
      // Factors of the source size at open: 1.5 is -2500, 0.5 is -1500, 2 is -3000.
      {"/(-1.5 /)-2", &MediaSwitches::scale_w, &MediaSwitches::scale_h, -2500, -3000},
      {"/(-0.5 /)320", &MediaSwitches::scale_w, &MediaSwitches::scale_h, -1500, 320},
  };
  for (const Case& c : cases) {
    const MediaSwitches s = Parse(c.line);
    EXPECT_EQ(s.*c.first, c.a) << c.line;
    EXPECT_EQ(s.*c.second, c.b) << c.line;
  }
}

TEST(MediaSwitches, CropRangeAndFilters) {
  const MediaSwitches s = Parse("/X-5 /Y7 /W320 /H200 /S-10 /E50 /~1 /:50 /{20 /[120 /]2 /}16");
  EXPECT_EQ(std::tuple(s.crop_x, s.crop_y, s.crop_w, s.crop_h, s.start, s.end),
            std::tuple(-5, 7, 320, 200, -10, 50));
  EXPECT_EQ(std::tuple(s.denoise, s.smooth, s.contrast, s.brightness, s.gamma, s.black_clamp),
            std::tuple(1u, 50u, 20u, 120u, 0.5, 16u));
  EXPECT_DOUBLE_EQ(Parse("/]1.0001").gamma, 1.0 / 1.0001);
}

// The first colour is lowered so that first + colours stay within 256.
TEST(MediaSwitches, PaletteSettingsAreHeldInRange) {
  const struct {
    const char* line;
    uint32_t colours, first, interval;
  } cases[] = {{"/Q0 /U0", 1, 127, 0x10000}, {"/Q300 /U70000", 256, 0, 0x10000}, {"/Q200 /I100 /U30", 200, 56, 30}};
  for (const auto& c : cases) {
    const MediaSwitches s = Parse(c.line);
    EXPECT_EQ(std::tuple(s.colours, s.palette_first, s.palette_interval), std::tuple(c.colours, c.first, c.interval))
        << c.line;
  }
  const MediaSwitches s = Parse("/$4 /D1 /T2 /&pal.bmp");
  EXPECT_EQ(std::tuple(s.rotation, s.system_colours, s.halftone), std::tuple(4u, 1u, 2u));
  EXPECT_STREQ(s.palette_file, "pal.bmp");
}

TEST(MediaSwitches, OpenArgumentsFollowTheSwitches) {
  const MediaSwitches s = Parse("/Z1000 /F30 /(-1 /)100 /X2 /S3");
  const MediaOpenArgs a = MediaArgsFromSwitches(&s);
  EXPECT_EQ(std::tuple(a.flags, a.force_num, a.scale_w, a.scale_h, a.crop_x, a.start),
            std::tuple(s.open_flags, 30, -1, 100, 2, 3));
  EXPECT_EQ(a.palette_file, nullptr);
  EXPECT_EQ(a.progress.fn, nullptr);
}

// A value outside what a video switch takes leaves the switch's default and names the switch as
// written with the values it takes; the media layer's own holding rules (/Q, /U) still apply.
TEST(MediaSwitches, OutOfRangeValuesAreRefusedByName) {
  const struct {
    const char* line;
    const char* message;
  } refused[] = {
      {"/F0", "/F0: the frame rate must be above 0"},
      {"/A30;0", "/A30;0: the frame rate must be above 0"},
      {"/W100000", "/W100000: the crop width must be 0 (the whole width) to 16384."},
      {"/H-4", "/H-4: the crop height must be 0"},
      {"/X20000", "/X20000: the crop left must be -16384 to 16384."},
      {"/D3", "/D3: the system colours control must be 0, 1 or 2."},
      {"/T-1", "/T-1: the halftone control must be 0, 1 or 2."},
      {"/{129", "/{129: the contrast increase must be 0 to 128."},
      {"/}256", "/}256: the black clamp must be 0 to 255."},
      {"/:101", "/:101: the smoothness must be 0 to 100 percent."},
      {"/~2", "/~2: the denoising filter must be 0 (off) or 1 (on)."},
      {"/;3", "/;3: the de-interlacing must be"},
      {"/Z5", "/Z5: the graphics options are"},
      {"/Z-1", "/Z-1: the graphics options are"},
      {"/]0", "/]0: the gamma must be above 0."},
      {"/(100000", "/(100000: the scale width must be"},
      {"/)-65", "/)-65: the scale height must be"},
      {"/I256", "/I256: the first palette index must be 0 to 255."},
      {"/$300", "/$300: the rotation entries must be 0 to 255."},
      {"/U-1", "/U-1: the palette interval must be 0 frames or more."},
  };
  for (const auto& c : refused) {
    char line[64];
    snprintf(line, sizeof line, "%s", c.line);
    MediaSwitches s;
    SwitchErrors errors;
    MediaParseSwitches(line, &s, &errors);
    EXPECT_EQ(std::string(errors.text).rfind(c.message, 0), 0u) << c.line << ": " << errors.text;
    EXPECT_FALSE(SwitchesLeft(line)) << c.line;
  }
  // The defaults stand in for refused values.
  char line[] = "/F0 /W100000 /]0 /Z5 /;3";
  MediaSwitches s;
  SwitchErrors errors;
  MediaParseSwitches(line, &s, &errors);
  EXPECT_EQ(std::tuple(s.force_num, s.crop_w, s.gamma, s.open_flags),
            std::tuple(0, 0, 1.0, uint32_t(MediaOpenCompressorDefault)));
  // Values the switches take pass without a word, the edges included.
  char good[] = "/F-5 /A0.5 /W16384 /X-16384 /D2 /T2 /{128 /}255 /:100 /~1 /;10 /Z33203 /]0.5 "
                "/(-64 /)16384 /I255 /$255 /U0 /Q300";
  SwitchErrors none;
  MediaParseSwitches(good, &s, &none);
  EXPECT_FALSE(none.Failed()) << none.text;
  EXPECT_EQ(std::tuple(s.force_num, s.force_den, s.crop_w, s.colours), std::tuple(200, 1, 16384, 256u));
}

TEST(SoundSwitches, OutOfRangeValuesAreRefusedByName) {
  const struct {
    const char* line;
    const char* message;
  } refused[] = {
      {"/B7", "/B7: the output bits must be 8 or 16."},
      {"/B10116", "/B10116: the output bits must be 8 or 16."},
      {"/C3", "/C3: the output channels must be 1 or 2."},
      {"/R2000000", "/R2000000: the sound rate must be 1 to 1000000 Hz"},
      {"/S-5", "/S-5: the start must be 0 milliseconds or more."},
      {"/Y5", "/Y5: the raw input type must be 1 to 4"},
      {"/Y1 /D0", "/D0: the raw input rate must be 1 to 1000000 Hz."},
      {"/K-1", "/K-1: the bytes to skip must be 0 or more."},
  };
  for (const auto& c : refused) {
    char line[64];
    snprintf(line, sizeof line, "%s", c.line);
    SoundSwitches s;
    SwitchErrors errors;
    EXPECT_FALSE(SoundParseSwitches(line, &s, &errors)) << c.line;
    EXPECT_EQ(std::string(errors.text).rfind(c.message, 0), 0u) << c.line << ": " << errors.text;
  }
  char line[] = "/B116 /C2 /R44100 /Y4 /D22050 /K44";
  SoundSwitches s;
  SwitchErrors errors;
  ASSERT_TRUE(SoundParseSwitches(line, &s, &errors)) << errors.text;
  EXPECT_EQ(std::tuple(s.bits, s.channels, s.rate, s.force, s.skip),
            std::tuple(116u, 2u, 44100u, uint32_t(4 + 22050 * 8 - 1), 44u));
}

// An input with alpha that the switches do not ask for is told once; asking for alpha, or for
// no alpha warnings, keeps quiet, and so does an input without alpha.
TEST(MediaSwitches, DroppedAlphaIsToldOnce) {
  const struct {
    const char* line;
    bool hasAlpha;
    int warnings;
  } cases[] = {{"", true, 1}, {"/Z1000", true, 0}, {"/Z10000", true, 0}, {"", false, 0}};
  for (const auto& c : cases) {
    char line[32];
    snprintf(line, sizeof line, "%s", c.line);
    MediaSwitches s;
    MediaParseSwitches(line, &s);
    test_support::ProgressLog log;
    MediaSayAlphaDropped(&s, c.hasAlpha, log.Sink());
    EXPECT_EQ(log.CountLevel(MediaLevelWarning), c.warnings) << c.line;
    EXPECT_EQ(log.Messages().size(), size_t(c.warnings)) << c.line;
    EXPECT_EQ(log.Said("alpha channel", MediaLevelWarning), c.warnings == 1) << c.line;
  }
}

}  // namespace
