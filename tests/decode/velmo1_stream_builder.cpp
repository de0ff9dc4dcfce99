// Mixed first-generation content for the decoder's tests and benchmarks: random rows of every
// block kind, written with the encoder's stream writer.
#include "velmo1_stream_builder.h"

#include <algorithm>
#include <cmath>
#include <random>

// ---------------------------------------------------------------------------------------------
// Mixed content

Velmo1EncPlaneSpec Velmo1MixedPlane(uint32_t width, uint32_t height, uint32_t seed, bool inter) {
  std::mt19937 rng(seed);
  auto pick = [&](uint32_t n) { return uint32_t(rng() % n); };
  Velmo1EncPlaneSpec plane;
  plane.Width = width;
  std::vector<bool> doubledAbove(width / 8 + 2, false);
  for (uint32_t y = 0; y < height; y += 8) {
    std::vector<Velmo1EncRawBlock> row;
    std::vector<bool> doubledHere(width / 8 + 2, false);
    const uint8_t base = uint8_t(pick(256));
    for (uint32_t x = 0; x < width;) {
      if (y & 8) {
        if (doubledAbove[x / 8]) {
          row.push_back(Velmo1EncDoubledLower());
          x += 16;
          continue;
        }
      }
      uint8_t pixels[64];
      for (uint8_t& p : pixels) p = uint8_t(base + pick(24));
      int16_t coeffs[64] = {};
      for (int i = 0; i < 6; ++i) coeffs[1 + pick(63)] = int16_t(int(pick(41)) - 20);
      const uint32_t kind = pick(inter ? 10 : 6);
      const bool canDouble = !(y & 8) && x + 16 <= width && y + 16 <= height;
      auto motion = [&](uint32_t at, uint32_t size) {
        const int lo = std::max(-15, -int(at)), hi = std::min(15, int(size) - 8 - int(at));
        return int8_t(lo + int(pick(uint32_t(hi - lo + 1))));
      };
      Velmo1EncRawBlock b;
      switch (kind) {
        case 0: b = Velmo1EncOneBlock(base); break;
        case 1: {
          uint8_t patterns[8];
          for (uint8_t& p : patterns) p = uint8_t(pick(256));
          b = Velmo1EncTwoBlock(base, uint8_t(base + 40), patterns);
          break;
        }
        case 2: b = Velmo1EncBangBlock(pixels); break;
        case 3: {
          for (int i = 0; i < 64; ++i) pixels[i] = uint8_t(base + (i / 12) * 9);
          b = Velmo1EncRunBlock(pick(16), pixels);
          break;
        }
        case 4: b = Velmo1EncIntraBlock(uint16_t(base * 8), coeffs, pick(16)); break;
        case 5:
          if (canDouble) {
            b = Velmo1EncDoubledBlock(pick(2) ? Velmo1EncOneBlock(base) : Velmo1EncIntraBlock(uint16_t(base * 8), coeffs, 3));
            doubledHere[x / 8] = true;
            row.push_back(b);
            x += 16;
            continue;
          }
          b = Velmo1EncOneBlock(base);
          break;
        case 6: b = Velmo1EncSkipBlock(); break;
        case 7: b = Velmo1EncMotBlock(motion(x, width), motion(y, height)); break;
        case 8: {
          int8_t residue[64] = {};
          for (int i = 0; i < 8; ++i) residue[pick(64)] = int8_t(int(pick(15)) - 7);
          b = Velmo1EncMotzBlock(motion(x, width), motion(y, height), 127, residue);
          break;
        }
        default:
          b = Velmo1EncInterBlock(motion(x, width), motion(y, height), int16_t(int(pick(64)) - 32), coeffs, pick(16));
          break;
      }
      row.push_back(b);
      x += 8;
    }
    if (!(y & 8)) doubledAbove = doubledHere;
    plane.Rows.push_back(std::move(row));
  }
  return plane;
}

// ---------------------------------------------------------------------------------------------
// Float reference transform

double Velmo1AanScale(int k) { return k == 0 ? 1.0 : std::sqrt(2.0) * std::cos(k * M_PI / 16); }

void Velmo1FloatIdct(const int16_t coeffs[64], const uint32_t table[64], double out[64]) {
  for (int y = 0; y < 8; ++y)
    for (int x = 0; x < 8; ++x) {
      double sum = 0;
      for (int u = 0; u < 8; ++u)
        for (int v = 0; v < 8; ++v) {
          const double f = coeffs[u * 8 + v] * double(table[u * 8 + v]) / 65536.0 /
                           Velmo1AanScale(u) / Velmo1AanScale(v);
          const double cu = u ? 1 : M_SQRT1_2, cv = v ? 1 : M_SQRT1_2;
          sum += cu * cv * f * std::cos((2 * y + 1) * u * M_PI / 16) *
                 std::cos((2 * x + 1) * v * M_PI / 16);
        }
      out[y * 8 + x] = sum / 4;
    }
}
