// The 2-D path's picture work: alpha over the checker (the vector form against the plain loop,
// and both against exact division), the slider's pixels and clicks, and the bitmap font.
#include "player/player_picture.h"

#include <gtest/gtest.h>

#include <random>

namespace {

PlayerPicture RandomPicture(int32_t w, int32_t h, uint32_t seed) {
  PlayerPicture p;
  EXPECT_TRUE(p.Make(w, h));
  std::mt19937 rng(seed);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) p.Row(y)[x] = rng();
  return p;
}

bool SamePixels(const PlayerPicture& a, const PlayerPicture& b) {
  for (int32_t y = 0; y < a.Height; ++y)
    for (int32_t x = 0; x < a.Width; ++x)
      if (a.Row(y)[x] != b.Row(y)[x]) return false;
  return true;
}

TEST(PlayerAlpha, PitchIsRoundedTo32Bytes) {
  PlayerPicture p;
  ASSERT_TRUE(p.Make(13, 3));
  EXPECT_EQ(p.Pitch, 64);
  EXPECT_EQ(reinterpret_cast<uintptr_t>(p.Bits) % 32, 0u);
  EXPECT_FALSE(p.Make(0, 3));
}

TEST(PlayerAlpha, VectorFormRoundsLikeThePlainLoop) {
  for (int32_t w : {1, 3, 4, 7, 8, 17, 64, 99})
    for (bool light : {false, true}) {
      PlayerPicture plain = RandomPicture(w, 19, uint32_t(w * 7 + light));
      PlayerPicture vector = RandomPicture(w, 19, uint32_t(w * 7 + light));
      PlayerAlphaOverCheckerPlain(&plain, light);
      PlayerAlphaOverCheckerVector(&vector, light);
      EXPECT_TRUE(SamePixels(plain, vector)) << w << " " << light;
    }
}

TEST(PlayerAlpha, EqualsIntegerDivisionOverTheCells) {
  PlayerPicture p = RandomPicture(40, 24, 5);
  PlayerPicture original = RandomPicture(40, 24, 5);
  PlayerAlphaOverChecker(&p, false);
  for (int32_t y = 0; y < 24; ++y)
    for (int32_t x = 0; x < 40; ++x) {
      const uint32_t in = original.Row(y)[x], out = p.Row(y)[x], a = in >> 24;
      const uint32_t cell = ((x / 8 + y / 8) % 2) ? 0x30 : 0x20;
      EXPECT_EQ(out >> 24, a);
      for (int shift = 0; shift < 24; shift += 8) {
        const uint32_t c = (in >> shift) & 0xFF;
        ASSERT_EQ((out >> shift) & 0xFF, c * a / 255 + cell * (255 - a) / 255)
            << x << "," << y << " shift " << shift;
      }
    }
}

TEST(PlayerAlpha, OpaqueStaysAndClearShowsTheLightCells) {
  PlayerPicture p;
  ASSERT_TRUE(p.Make(16, 16));
  for (int32_t y = 0; y < 16; ++y)
    for (int32_t x = 0; x < 16; ++x) p.Row(y)[x] = x < 8 ? 0xFF123456u : 0x00ABCDEFu;
  PlayerAlphaOverChecker(&p, true);
  EXPECT_EQ(p.Row(0)[0], 0xFF123456u);
  EXPECT_EQ(p.Row(0)[8], 0x00FFFFFFu);   // second cell of the first row
  EXPECT_EQ(p.Row(8)[8], 0x00E0E0E0u);   // first cell again, a row of cells down
}

constexpr uint32_t Black = 0xFF000000u, White = 0xFFFFFFFFu, Clear = 0x11223344u;

PlayerPicture Filled(int32_t w, int32_t h) {
  PlayerPicture p;
  p.Make(w, h);
  for (int32_t y = 0; y < h; ++y)
    for (int32_t x = 0; x < w; ++x) p.Row(y)[x] = Clear;
  return p;
}

TEST(PlayerSlider, TrackLines) {
  PlayerPicture p = Filled(100, 40);
  PlayerDrawSlider(&p, 1, 2, false);
  const int32_t top = 40 - 9;
  EXPECT_EQ(p.Row(top)[6], Clear);
  EXPECT_EQ(p.Row(top)[50], Black);
  EXPECT_EQ(p.Row(top)[100 - 8], Black);
  EXPECT_EQ(p.Row(top)[100 - 7], Clear);  // 86 pixels from x = 7
  EXPECT_EQ(p.Row(top + 1)[50], White);
  EXPECT_EQ(p.Row(top + 2)[7 + 0 + 50], White);
  EXPECT_EQ(p.Row(top + 1)[100 - 8], Black);
  EXPECT_EQ(p.Row(top + 3)[60], Black);
  EXPECT_EQ(p.Row(top + 4)[60], Clear);
}

TEST(PlayerSlider, ThumbPositionAndSeeking) {
  for (uint32_t frame : {1u, 5u, 10u}) {
    PlayerPicture p = Filled(100, 40);
    PlayerDrawSlider(&p, frame, 10, false);
    const int32_t x = 7 + (100 - 16) * int32_t(frame - 1) / 9;
    EXPECT_EQ(p.Row(40 - 13)[x], Black) << frame;
    EXPECT_EQ(p.Row(40 - 13)[x + 3], Black) << frame;
    EXPECT_EQ(p.Row(40 - 12)[x], Black) << frame;
    EXPECT_EQ(p.Row(40 - 12)[x + 1], White) << frame;
    EXPECT_EQ(p.Row(40 - 12)[x + 2], White) << frame;
    EXPECT_EQ(p.Row(40 - 12)[x + 3], Black) << frame;
    EXPECT_EQ(p.Row(40 - 2)[x + 1], Black) << frame;
    EXPECT_EQ(p.Row(40 - 14)[x + 1], Clear) << frame;
  }
  PlayerPicture seeking = Filled(100, 40);
  PlayerDrawSlider(&seeking, 1, 10, true);
  EXPECT_EQ(seeking.Row(40 - 12)[7], White);
  EXPECT_EQ(seeking.Row(40 - 12)[10], White);
}

TEST(PlayerSlider, WhenItShows) {
  PlayerSliderView v;
  v.Frames = 2;
  v.MouseRecent = true;
  EXPECT_TRUE(PlayerSliderShows(v, 25, 13));
  EXPECT_FALSE(PlayerSliderShows(v, 24, 13));
  EXPECT_FALSE(PlayerSliderShows(v, 25, 12));
  v.MouseRecent = false;
  EXPECT_FALSE(PlayerSliderShows(v, 100, 100));
  v.Paused = true;
  EXPECT_TRUE(PlayerSliderShows(v, 100, 100));
  v.Disabled = true;
  EXPECT_FALSE(PlayerSliderShows(v, 100, 100));
  v.Disabled = false;
  v.Frames = 1;
  EXPECT_FALSE(PlayerSliderShows(v, 100, 100));
}

TEST(PlayerSlider, ClicksMapToFrames) {
  // A 200 x 100 picture shown twice as large at (10, 20).
  const PlayerShownRect shown{10, 20, 400, 200};
  const int32_t bottom = 20 + 198;
  // x in the picture is (cx - 10) / 2; frame = (100 * (x - 8) + 95) / 192 + 1, so the first
  // pixel of the zone already rounds to frame 2.
  EXPECT_EQ(PlayerSliderClick(10 + 2 * 9, bottom, shown, 200, 100, 100), 2u);
  EXPECT_EQ(PlayerSliderClick(10 + 2 * 104, bottom, shown, 200, 100, 100), 51u);
  EXPECT_EQ(PlayerSliderClick(10 + 2 * 191, bottom, shown, 200, 100, 100), 96u);
  EXPECT_EQ(PlayerSliderClick(10 + 2 * 8, bottom, shown, 200, 100, 100), 0u);    // left of it
  EXPECT_EQ(PlayerSliderClick(10 + 2 * 192, bottom, shown, 200, 100, 100), 0u);  // right of it
  // The height is scaled by the picture's width: y = 84 * 200 / 200 is at the line's limit.
  EXPECT_EQ(PlayerSliderClick(10 + 2 * 100, 20 + 84, shown, 200, 100, 100), 0u);
  EXPECT_NE(PlayerSliderClick(10 + 2 * 100, 20 + 85, shown, 200, 100, 100), 0u);
}

TEST(PlayerFont, DrawsYellowGlyphsInTheirCells) {
  PlayerPicture p = Filled(64, 12);
  PlayerDrawText(p.Bits, p.Pitch, p.Width, p.Height, 2, 1, "1.", 0xFFFFFF00u);
  int set = 0;
  for (int32_t y = 0; y < 12; ++y)
    for (int32_t x = 0; x < 64; ++x)
      if (p.Row(y)[x] == 0xFFFFFF00u) {
        ++set;
        EXPECT_GE(y, 1);
        EXPECT_LT(y, 1 + PlayerFontHeight);
        EXPECT_LT(x, 2 + 2 * PlayerFontAdvance);
      }
  EXPECT_EQ(set, 10 + 4);  // the "1" and the full stop
  EXPECT_EQ(PlayerTextWidth("Fr: 1"), 5 * PlayerFontAdvance);
  // Clipped at the edges without writing outside.
  PlayerDrawText(p.Bits, p.Pitch, p.Width, p.Height, 60, 8, "8888", 0xFFFFFF00u);
}

}  // namespace
