// The 2-D path's picture work on the processor.
#include "player/player_picture.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace {

constexpr uint32_t Black = 0xFF000000u;
constexpr uint32_t White = 0xFFFFFFFFu;

// x / 255 for x up to 255 * 255, in the form that the vector code computes.
inline uint32_t Div255(uint32_t x) { return x * 32897u >> 23; }

uint32_t Cell(int32_t x, int32_t y, uint32_t first, uint32_t second) {
  return ((x >> 3) + (y >> 3)) & 1 ? second : first;
}

inline uint32_t Blend(uint32_t pixel, uint32_t cell) {
  const uint32_t a = pixel >> 24;
  uint32_t out = pixel & 0xFF000000u;
  for (int shift = 0; shift < 24; shift += 8) {
    const uint32_t c = (pixel >> shift) & 0xFF;
    out |= (Div255(c * a) + Div255(cell * (255 - a))) << shift;
  }
  return out;
}

void HLine(PlayerPicture* p, int32_t x, int32_t y, int32_t length, uint32_t colour) {
  if (y < 0 || y >= p->Height) return;
  uint32_t* row = p->Row(y);
  for (int32_t i = x < 0 ? 0 : x; i < x + length && i < p->Width; ++i) row[i] = colour;
}

void Dot(PlayerPicture* p, int32_t x, int32_t y, uint32_t colour) { HLine(p, x, y, 1, colour); }

}  // namespace

bool PlayerPicture::Make(int32_t width, int32_t height) {
  if (width <= 0 || height <= 0) return false;
  Width = width;
  Height = height;
  Pitch = (width * 4 + 31) & ~31;
  Storage.assign(size_t(Pitch) * size_t(height) + 32, 0);
  // The rows start on a 32-byte boundary.
  const uintptr_t start = reinterpret_cast<uintptr_t>(Storage.data());
  Bits = Storage.data() + ((32 - start % 32) % 32);
  return true;
}

void PlayerCheckerCells(bool light, uint32_t* first, uint32_t* second) {
  *first = light ? 0xE0 : 0x20;
  *second = light ? 0xFF : 0x30;
}

void PlayerAlphaOverCheckerPlain(PlayerPicture* p, bool light) {
  uint32_t first, second;
  PlayerCheckerCells(light, &first, &second);
  for (int32_t y = 0; y < p->Height; ++y) {
    uint32_t* row = p->Row(y);
    for (int32_t x = 0; x < p->Width; ++x) row[x] = Blend(row[x], Cell(x, y, first, second));
  }
}

void PlayerAlphaOverCheckerVector(PlayerPicture* p, bool light) {
#if defined(__SSE2__)
  uint32_t first, second;
  PlayerCheckerCells(light, &first, &second);
  const __m128i zero = _mm_setzero_si128();
  const __m128i k255 = _mm_set1_epi16(255);
  const __m128i scale = _mm_set1_epi16(short(32897));
  const __m128i alphaMask = _mm_set1_epi32(int(0xFF000000u));
  // Multiplies 16-bit lanes and divides by 255 as Div255 does: the high half of x * 32897,
  // shifted by 7 more, is x * 32897 >> 23.
  auto div255 = [&](__m128i x) { return _mm_srli_epi16(_mm_mulhi_epu16(x, scale), 7); };
  // Each lane's pixel alpha in all four of its 16-bit channels.
  auto spread = [](__m128i half) {
    half = _mm_shufflelo_epi16(half, _MM_SHUFFLE(3, 3, 3, 3));
    return _mm_shufflehi_epi16(half, _MM_SHUFFLE(3, 3, 3, 3));
  };
  for (int32_t y = 0; y < p->Height; ++y) {
    uint32_t* row = p->Row(y);
    int32_t x = 0;
    for (; x + 4 <= p->Width; x += 4) {
      const __m128i v = _mm_set1_epi16(short(Cell(x, y, first, second)));
      const __m128i pixels = _mm_loadu_si128(reinterpret_cast<const __m128i*>(row + x));
      __m128i halves[2] = {_mm_unpacklo_epi8(pixels, zero), _mm_unpackhi_epi8(pixels, zero)};
      for (__m128i& h : halves) {
        const __m128i a = spread(h);
        h = _mm_add_epi16(div255(_mm_mullo_epi16(h, a)),
                          div255(_mm_mullo_epi16(v, _mm_sub_epi16(k255, a))));
      }
      __m128i out = _mm_packus_epi16(halves[0], halves[1]);
      out = _mm_or_si128(_mm_andnot_si128(alphaMask, out), _mm_and_si128(alphaMask, pixels));
      _mm_storeu_si128(reinterpret_cast<__m128i*>(row + x), out);
    }
    for (; x < p->Width; ++x) row[x] = Blend(row[x], Cell(x, y, first, second));
  }
#else
  PlayerAlphaOverCheckerPlain(p, light);
#endif
}

void PlayerAlphaOverChecker(PlayerPicture* p, bool light) { PlayerAlphaOverCheckerVector(p, light); }

bool PlayerSliderShows(const PlayerSliderView& v, int32_t width, int32_t height) {
  return v.Frames >= 2 && !v.ScreenSaver && width >= 25 && height >= 13 && !v.Disabled &&
         (v.MouseRecent || v.Paused);
}

void PlayerDrawSlider(PlayerPicture* p, uint32_t frame, uint32_t frames, bool seeking) {
  const int32_t w = p->Width, top = p->Height - 9;
  HLine(p, 7, top, w - 14, Black);
  for (int32_t line = 1; line <= 2; ++line) {
    HLine(p, 8, top + line, w - 16, White);
    Dot(p, 7, top + line, Black);
    Dot(p, w - 8, top + line, Black);
  }
  HLine(p, 7, top + 3, w - 14, Black);
  if (frame < 1) frame = 1;
  if (frame > frames) frame = frames;
  const int32_t thumb = 7 + int32_t(int64_t(w - 16) * (frame - 1) / (frames - 1));
  const int32_t thumbTop = p->Height - 13;
  HLine(p, thumb, thumbTop, 4, Black);
  for (int32_t line = 1; line < 11; ++line) {
    HLine(p, thumb, thumbTop + line, 4, seeking ? White : Black);
    if (!seeking) HLine(p, thumb + 1, thumbTop + line, 2, White);
  }
  HLine(p, thumb, thumbTop + 11, 4, Black);
}

uint32_t PlayerSliderClick(int32_t cx, int32_t cy, const PlayerShownRect& shown,
                           int32_t pictureWidth, int32_t pictureHeight, uint32_t frames) {
  if (shown.Width <= 0 || shown.Height <= 0 || pictureWidth <= 8) return 0;
  const int64_t x = int64_t(cx - shown.X) * pictureWidth / shown.Width;
  // The vertical position is scaled by the picture's width, as the player always did.
  const int64_t y = int64_t(cy - shown.Y) * pictureWidth / shown.Height;
  if (y <= pictureHeight - 16 || x < 9 || x > pictureWidth - 9) return 0;
  const int64_t span = pictureWidth - 8;
  const int64_t f = (int64_t(frames) * (x - 8) + span / 2 - 1) / span + 1;
  return uint32_t(f < 1 ? 1 : f > frames ? frames : f);
}

// ---- The bitmap font ------------------------------------------------------------------------

namespace {

struct Glyph {
  char c;
  uint8_t rows[7];  // five columns, the leftmost in bit 4
};

constexpr Glyph Glyphs[] = {
    {'0', {0x0E, 0x11, 0x13, 0x15, 0x19, 0x11, 0x0E}}, {'1', {0x04, 0x0C, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'2', {0x0E, 0x11, 0x01, 0x02, 0x04, 0x08, 0x1F}}, {'3', {0x1F, 0x02, 0x04, 0x02, 0x01, 0x11, 0x0E}},
    {'4', {0x02, 0x06, 0x0A, 0x12, 0x1F, 0x02, 0x02}}, {'5', {0x1F, 0x10, 0x1E, 0x01, 0x01, 0x11, 0x0E}},
    {'6', {0x06, 0x08, 0x10, 0x1E, 0x11, 0x11, 0x0E}}, {'7', {0x1F, 0x01, 0x02, 0x04, 0x08, 0x08, 0x08}},
    {'8', {0x0E, 0x11, 0x11, 0x0E, 0x11, 0x11, 0x0E}}, {'9', {0x0E, 0x11, 0x11, 0x0F, 0x01, 0x02, 0x0C}},
    {'A', {0x0E, 0x11, 0x11, 0x1F, 0x11, 0x11, 0x11}}, {'B', {0x1E, 0x11, 0x11, 0x1E, 0x11, 0x11, 0x1E}},
    {'E', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x1F}}, {'F', {0x1F, 0x10, 0x10, 0x1E, 0x10, 0x10, 0x10}},
    {'P', {0x1E, 0x11, 0x11, 0x1E, 0x10, 0x10, 0x10}}, {'R', {0x1E, 0x11, 0x11, 0x1E, 0x14, 0x12, 0x11}},
    {'S', {0x0F, 0x10, 0x10, 0x0E, 0x01, 0x01, 0x1E}}, {'V', {0x11, 0x11, 0x11, 0x11, 0x11, 0x0A, 0x04}},
    {'a', {0x00, 0x00, 0x0E, 0x01, 0x0F, 0x11, 0x0F}}, {'c', {0x00, 0x00, 0x0E, 0x10, 0x10, 0x11, 0x0E}},
    {'d', {0x01, 0x01, 0x0D, 0x13, 0x11, 0x11, 0x0F}}, {'e', {0x00, 0x00, 0x0E, 0x11, 0x1F, 0x10, 0x0E}},
    {'f', {0x06, 0x09, 0x08, 0x1C, 0x08, 0x08, 0x08}}, {'i', {0x04, 0x00, 0x0C, 0x04, 0x04, 0x04, 0x0E}},
    {'k', {0x10, 0x10, 0x12, 0x14, 0x18, 0x14, 0x12}}, {'l', {0x0C, 0x04, 0x04, 0x04, 0x04, 0x04, 0x0E}},
    {'o', {0x00, 0x00, 0x0E, 0x11, 0x11, 0x11, 0x0E}}, {'p', {0x00, 0x00, 0x1E, 0x11, 0x1E, 0x10, 0x10}},
    {'r', {0x00, 0x00, 0x16, 0x19, 0x10, 0x10, 0x10}}, {'t', {0x08, 0x08, 0x1C, 0x08, 0x08, 0x09, 0x06}},
    {'u', {0x00, 0x00, 0x11, 0x11, 0x11, 0x13, 0x0D}}, {'x', {0x00, 0x00, 0x11, 0x0A, 0x04, 0x0A, 0x11}},
    {':', {0x00, 0x0C, 0x0C, 0x00, 0x0C, 0x0C, 0x00}}, {',', {0x00, 0x00, 0x00, 0x00, 0x0C, 0x04, 0x08}},
    {'.', {0x00, 0x00, 0x00, 0x00, 0x00, 0x0C, 0x0C}}, {'%', {0x18, 0x19, 0x02, 0x04, 0x08, 0x13, 0x03}},
    {'*', {0x00, 0x04, 0x15, 0x0E, 0x15, 0x04, 0x00}}, {'-', {0x00, 0x00, 0x00, 0x1F, 0x00, 0x00, 0x00}},
    {'+', {0x00, 0x04, 0x04, 0x1F, 0x04, 0x04, 0x00}},
};

const Glyph* Find(char c) {
  for (const Glyph& g : Glyphs)
    if (g.c == c) return &g;
  return nullptr;  // blank
}

}  // namespace

int32_t PlayerTextWidth(const char* text) { return int32_t(std::strlen(text)) * PlayerFontAdvance; }

void PlayerDrawText(uint8_t* bits, int32_t pitch, int32_t width, int32_t height, int32_t x,
                    int32_t y, const char* text, uint32_t colour) {
  for (; *text; ++text, x += PlayerFontAdvance) {
    const Glyph* g = Find(*text);
    if (!g) continue;
    for (int32_t r = 0; r < PlayerFontHeight; ++r) {
      if (y + r < 0 || y + r >= height) continue;
      uint32_t* row = reinterpret_cast<uint32_t*>(bits + int64_t(y + r) * pitch);
      for (int32_t c = 0; c < 5; ++c)
        if ((g->rows[r] >> (4 - c)) & 1 && x + c >= 0 && x + c < width) row[x + c] = colour;
    }
  }
}
