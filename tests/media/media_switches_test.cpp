// The video switches of a switch line.
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <tuple>

#include "media/media.h"

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

}  // namespace
