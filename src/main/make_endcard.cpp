// The build's end-card maker: draws the card's picture (the program's name on a dark
// gradient, fading in), compresses it with the compressor tool into a short first-generation
// clip, and writes the clip as a C++ byte array that the program links.
//   orn_make_endcard <work folder> <out.cpp>
// The compressor runs in this process on the terminal front end; its lines go to a log in the
// work folder, shown only when the run fails.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "compress/tool/velmoc.h"
#include "host/toolframe.h"

namespace {

constexpr int Width = 256, Height = 144;
constexpr int Frames = 48, Rate = 20;  // 2.4 s: more than the card's time, so it never loops
constexpr int FadeFrames = 10;

// Glyphs of 5 x 7 cells, a row a string, for the few letters the card spells.
struct Glyph {
  char Letter;
  const char* Rows[7];
};
const Glyph Glyphs[] = {
    {'O', {".###.", "#...#", "#...#", "#...#", "#...#", "#...#", ".###."}},
    {'R', {"####.", "#...#", "#...#", "####.", "#.#..", "#..#.", "#...#"}},
    {'N', {"#...#", "##..#", "#.#.#", "#..##", "#...#", "#...#", "#...#"}},
    {'V', {"#...#", "#...#", "#...#", "#...#", "#...#", ".#.#.", "..#.."}},
    {'I', {"#####", "..#..", "..#..", "..#..", "..#..", "..#..", "#####"}},
    {'D', {"####.", "#...#", "#...#", "#...#", "#...#", "#...#", "####."}},
    {'E', {"#####", "#....", "#....", "####.", "#....", "#....", "#####"}},
    {'T', {"#####", "..#..", "..#..", "..#..", "..#..", "..#..", "..#.."}},
    {'L', {"#....", "#....", "#....", "#....", "#....", "#....", "#####"}},
    {'S', {".####", "#....", "#....", ".###.", "....#", "....#", "####."}},
};

const Glyph* GlyphOf(char c) {
  for (const Glyph& g : Glyphs)
    if (g.Letter == c) return &g;
  return nullptr;
}

struct Rgb {
  int R, G, B;
};

struct Picture {
  std::vector<Rgb> Pixels = std::vector<Rgb>(size_t(Width) * Height);
  Rgb& At(int x, int y) { return Pixels[size_t(y) * Width + x]; }
};

// Text centred on row `top`, each cell `cell` pixels square, one blank cell between letters.
void DrawText(Picture* p, const char* text, int top, int cell, Rgb colour) {
  const int letters = int(std::strlen(text));
  const int width = (letters * 6 - 1) * cell;
  int left = (Width - width) / 2;
  for (const char* c = text; *c; ++c, left += 6 * cell) {
    const Glyph* g = GlyphOf(*c);
    if (!g) continue;
    for (int row = 0; row < 7; ++row)
      for (int col = 0; col < 5; ++col)
        if (g->Rows[row][col] == '#')
          for (int y = 0; y < cell; ++y)
            for (int x = 0; x < cell; ++x) p->At(left + col * cell + x, top + row * cell + y) = colour;
  }
}

// The card at full strength: a dark blue-to-teal gradient, "ORN" in large amber letters and
// "VIDEO TOOLS" below it in white.
Picture CardPicture() {
  Picture p;
  for (int y = 0; y < Height; ++y)
    for (int x = 0; x < Width; ++x)
      p.At(x, y) = {10 + 20 * y / Height, 20 + 60 * x / Width, 60 + 70 * y / Height};
  DrawText(&p, "ORN", 22, 8, {255, 176, 32});
  DrawText(&p, "VIDEO TOOLS", 96, 3, {235, 235, 235});
  return p;
}

int Clip(int v) { return std::clamp(v, 0, 255); }

// The clip as a YUV4MPEG2 stream: the picture fading in from black, then held.
bool WriteClip(const std::string& path) {
  FILE* f = std::fopen(path.c_str(), "wb");
  if (!f) return false;
  std::fprintf(f, "YUV4MPEG2 W%d H%d F%d:1 Ip A1:1 C420jpeg\n", Width, Height, Rate);
  Picture card = CardPicture();
  const int cw = Width / 2, ch = Height / 2;
  std::vector<unsigned char> y(size_t(Width) * Height), cb(size_t(cw) * ch), cr(size_t(cw) * ch);
  for (int t = 0; t < Frames; ++t) {
    const int level = std::min(t + 1, FadeFrames);  // of FadeFrames
    auto scaled = [&](int v) { return v * level / FadeFrames; };
    for (int j = 0; j < Height; ++j)
      for (int i = 0; i < Width; ++i) {
        const Rgb c = card.At(i, j);
        y[size_t(j) * Width + i] = (unsigned char)Clip(
            (77 * scaled(c.R) + 150 * scaled(c.G) + 29 * scaled(c.B) + 128) >> 8);
      }
    for (int j = 0; j < ch; ++j)
      for (int i = 0; i < cw; ++i) {
        const Rgb c = card.At(i * 2, j * 2);
        const int r = scaled(c.R), g = scaled(c.G), b = scaled(c.B);
        cb[size_t(j) * cw + i] = (unsigned char)Clip((-43 * r - 85 * g + 128 * b + 128) / 256 + 128);
        cr[size_t(j) * cw + i] = (unsigned char)Clip((128 * r - 107 * g - 21 * b + 128) / 256 + 128);
      }
    std::fputs("FRAME\n", f);
    std::fwrite(y.data(), 1, y.size(), f);
    std::fwrite(cb.data(), 1, cb.size(), f);
    std::fwrite(cr.data(), 1, cr.size(), f);
  }
  return std::fclose(f) == 0;
}

// Runs the compressor on the clip, its terminal lines going to `log`.
int Compress(const std::string& input, const std::string& output, const std::string& log) {
  const int saved = dup(2);
  const int logFile = open(log.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  if (logFile >= 0) dup2(logFile, 2), close(logFile);
  VelmocRegisterDialog();
  ToolFrameSetFrontEnd(ToolConsoleFrontEnd());
  const std::string tail = "\"" + input + "\" \"" + output + "\" /v101 /o /l-1";
  const int code = ToolFrameRun(nullptr, 0, tail.c_str(), 1, true, VelmocMain, VelmocCommand,
                                "velmoc");
  fflush(stderr);
  if (saved >= 0) dup2(saved, 2), close(saved);
  return code;
}

bool ReadAll(const std::string& path, std::vector<unsigned char>* out) {
  FILE* f = std::fopen(path.c_str(), "rb");
  if (!f) return false;
  unsigned char buffer[65536];
  size_t n;
  while ((n = std::fread(buffer, 1, sizeof buffer, f)) > 0) out->insert(out->end(), buffer, buffer + n);
  std::fclose(f);
  return !out->empty();
}

// The byte array, written under a temporary name and renamed, so that a failed run leaves no
// half source for the next build to take.
bool WriteSource(const std::string& path, const std::vector<unsigned char>& bytes) {
  const std::string temporary = path + ".part";
  FILE* f = std::fopen(temporary.c_str(), "wb");
  if (!f) return false;
  std::fprintf(f,
               "// Made by orn_make_endcard at build time: the player's end-card clip.\n"
               "#include <cstddef>\n\n"
               "alignas(16) extern const unsigned char OrnEndCardClip[] = {");
  for (size_t i = 0; i < bytes.size(); ++i)
    std::fprintf(f, "%s%u,", i % 24 ? "" : "\n", unsigned(bytes[i]));
  std::fprintf(f, "\n};\nextern const size_t OrnEndCardClipSize = %zu;\n", bytes.size());
  if (std::fclose(f) != 0) return false;
  return std::rename(temporary.c_str(), path.c_str()) == 0;
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: orn_make_endcard <work folder> <out.cpp>\n");
    return 2;
  }
  const std::string work = argv[1];
  mkdir(work.c_str(), 0755);
  const std::string picture = work + "/endcard.y4m", clip = work + "/endcard.vlm",
                    log = work + "/endcard.log";
  if (!WriteClip(picture)) {
    std::fprintf(stderr, "orn_make_endcard: couldn't write %s\n", picture.c_str());
    return 1;
  }
  const int code = Compress(picture, clip, log);
  std::vector<unsigned char> bytes;
  if (code != ToolExitDone || !ReadAll(clip, &bytes)) {
    std::fprintf(stderr, "orn_make_endcard: the compressor ended with %d; its log:\n", code);
    std::vector<unsigned char> text;
    if (ReadAll(log, &text)) std::fwrite(text.data(), 1, text.size(), stderr);
    return 1;
  }
  if (!WriteSource(argv[2], bytes)) {
    std::fprintf(stderr, "orn_make_endcard: couldn't write %s\n", argv[2]);
    return 1;
  }
  return 0;
}
