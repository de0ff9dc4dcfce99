// The compressor's built-in frame source: YUV4MPEG2 streams (4:2:0, 4:4:4 and mono, 8 bits),
// and still images, animated GIF or numbered image series through the image file library.
#include "compress/velmoc_source.h"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <new>
#include <strings.h>
#include <string>
#include <vector>

#include "host/bfile.h"
#include "host/series.h"
#include "imagefile/imagefile.h"

namespace {

constexpr uint32_t MaxSide = 16384;
constexpr uint32_t MaxFrames = 1000000;

const VelmocSourceOps* g_installed = nullptr;

enum class Kind { Y4m, Image, Series };
enum class Chroma { C420, C444, Mono };

struct Source {
  Kind kind;
  VelmocSourceInfo info{};
  std::vector<uint32_t> argb;
  // y4m
  BufferedFile* file = nullptr;
  Chroma chroma = Chroma::C420;
  std::vector<uint64_t> offsets;  // data offset of each frame of the run
  std::vector<uint8_t> raw;
  // images
  ImageFile* image = nullptr;
  FileSeries series{};
  uint32_t first = 0;
};

void Fail(char* error, size_t size, const char* text) {
  if (error && size) std::snprintf(error, size, "%s", text);
}

uint8_t Clip(int v) { return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v); }

// Studio-range BT.601 to ARGB.
uint32_t YuvToArgb(int y, int cb, int cr) {
  const int c = 298 * (y - 16), d = cb - 128, e = cr - 128;
  const int r = (c + 409 * e + 128) >> 8, g = (c - 100 * d - 208 * e + 128) >> 8,
            b = (c + 516 * d + 128) >> 8;
  return 0xff000000u | uint32_t(Clip(r)) << 16 | uint32_t(Clip(g)) << 8 | Clip(b);
}

size_t Y4mFrameBytes(const Source& s) {
  const size_t w = s.info.Width, h = s.info.Height;
  switch (s.chroma) {
    case Chroma::C444: return w * h * 3;
    case Chroma::Mono: return w * h;
    default: return w * h + 2 * ((w + 1) / 2) * ((h + 1) / 2);
  }
}

bool ParseY4mHeader(Source* s, const char* line) {
  if (std::strncmp(line, "YUV4MPEG2 ", 10) != 0) return false;
  s->info.RateNumerator = 25;
  s->info.RateDenominator = 1;
  std::string text(line + 10);
  size_t at = 0;
  while (at < text.size()) {
    size_t end = text.find_first_of(" \r\n", at);
    if (end == std::string::npos) end = text.size();
    const std::string word = text.substr(at, end - at);
    at = end + 1;
    if (word.empty()) continue;
    const char* v = word.c_str() + 1;
    switch (word[0]) {
      case 'W': s->info.Width = uint32_t(std::strtoul(v, nullptr, 10)); break;
      case 'H': s->info.Height = uint32_t(std::strtoul(v, nullptr, 10)); break;
      case 'F': {
        unsigned long n = 0, d = 0;
        if (std::sscanf(v, "%lu:%lu", &n, &d) == 2 && n && d && n < 0x7fffffff && d < 0x7fffffff) {
          s->info.RateNumerator = uint32_t(n);
          s->info.RateDenominator = uint32_t(d);
        }
        break;
      }
      case 'C':
        if (std::strncmp(v, "444", 3) == 0 && std::strcmp(v, "444alpha") != 0) s->chroma = Chroma::C444;
        else if (std::strncmp(v, "mono", 4) == 0) s->chroma = Chroma::Mono;
        else if (std::strncmp(v, "420", 3) == 0) s->chroma = Chroma::C420;
        else return false;
        break;
      default: break;
    }
  }
  return s->info.Width && s->info.Height && s->info.Width <= MaxSide && s->info.Height <= MaxSide;
}

bool OpenY4m(Source* s, const char* name, uint32_t first, uint32_t last, char* error, size_t size) {
  s->file = FileOpenRead(-0x10000, name, FileModeReadOnly);
  if (!s->file) return Fail(error, size, "Couldn't open the input file."), false;
  char line[512];
  if (!FileReadLine(s->file, line, sizeof line) || !ParseY4mHeader(s, line))
    return Fail(error, size, "Not a YUV4MPEG2 stream this reader takes."), false;
  const uint64_t fileSize = FileSizeOf(s->file);
  const size_t frameBytes = Y4mFrameBytes(*s);
  uint32_t index = 0;
  for (;;) {
    if (!FileReadLine(s->file, line, sizeof line)) break;
    if (std::strncmp(line, "FRAME", 5) != 0) break;
    const uint64_t data = FileTell(s->file);
    if (data + frameBytes > fileSize || index >= MaxFrames) break;
    if (index >= first && index <= last) s->offsets.push_back(data);
    index++;
    FileSeek(s->file, data + frameBytes);
  }
  s->info.InputFrames = index;
  s->info.InputBytes = fileSize;
  s->info.SkippedFrames = first;
  s->info.Frames = uint32_t(s->offsets.size());
  if (!s->info.Frames) return Fail(error, size, "The input file has no frames to compress."), false;
  std::snprintf(s->info.TypeName, sizeof s->info.TypeName, "YUV4MPEG2 stream");
  s->raw.resize(frameBytes);
  return true;
}

bool ReadY4m(Source* s, uint32_t index) {
  if (index >= s->offsets.size()) return false;
  FileSeek(s->file, s->offsets[index]);
  if (FileRead(s->file, s->raw.data(), s->raw.size()) != s->raw.size()) return false;
  const uint32_t w = s->info.Width, h = s->info.Height, cw = (w + 1) / 2, ch = (h + 1) / 2;
  const uint8_t* y = s->raw.data();
  for (uint32_t r = 0; r < h; ++r)
    for (uint32_t x = 0; x < w; ++x) {
      int cb = 128, cr = 128;
      if (s->chroma == Chroma::C444) {
        cb = y[size_t(w) * h + size_t(r) * w + x];
        cr = y[size_t(w) * h * 2 + size_t(r) * w + x];
      } else if (s->chroma == Chroma::C420) {
        cb = y[size_t(w) * h + size_t(r / 2) * cw + x / 2];
        cr = y[size_t(w) * h + size_t(cw) * ch + size_t(r / 2) * cw + x / 2];
      }
      s->argb[size_t(r) * w + x] = YuvToArgb(y[size_t(r) * w + x], cb, cr);
    }
  return true;
}

bool ReadImageInto(Source* s, ImageFile* file, int frame) {
  ImagePixels px{s->argb.data(), ptrdiff_t(s->info.Width) * 4, int(s->info.Width),
                 int(s->info.Height), IMAGE_PIXELS_ARGB32};
  ImageError e{};
  return ImageFileReadFrame(file, frame, &px, &e) != 0;
}

bool OpenImages(Source* s, const char* name, uint32_t first, uint32_t last, char* error, size_t size) {
  ImageError e{};
  char path[4096];
  uint32_t available = 1;
  if (std::strchr(name, '*') && SeriesParse(name, &s->series)) {
    s->kind = Kind::Series;
    if (!SeriesName(path, sizeof path, s->series.pattern, s->series.first))
      return Fail(error, size, "Bad image series name."), false;
    available = uint32_t(s->series.last - s->series.first + 1);
  } else {
    s->kind = Kind::Image;
    std::snprintf(path, sizeof path, "%s", name);
  }
  ImageFile* probe = ImageFileOpen(path, &e);
  if (!probe) return Fail(error, size, e.text[0] ? e.text : "Couldn't open the input file."), false;
  const ImageInfo* ii = ImageFileInfo(probe);
  s->info.Width = uint32_t(ii->width);
  s->info.Height = uint32_t(ii->height);
  s->info.HasAlpha = ii->has_alpha != 0;
  s->info.IsHdr = ii->format == IMAGE_FORMAT_EXR;
  if (s->kind == Kind::Image) available = uint32_t(std::max(ii->frame_count, 1));
  std::snprintf(s->info.TypeName, sizeof s->info.TypeName, "%s", ImageFormatName(ii->format));
  s->info.RateNumerator = 30;
  s->info.RateDenominator = 1;
  s->info.IsImage = s->kind == Kind::Image && available == 1;
  if (s->kind == Kind::Image) s->image = probe;
  else ImageFileClose(probe);
  s->info.InputFrames = available;
  if (first >= available) return Fail(error, size, "The input file has no frames to compress."), false;
  s->first = first;
  s->info.SkippedFrames = first;
  s->info.Frames = std::min(last, available - 1) - first + 1;
  s->info.InputBytes = uint64_t(s->info.Width) * s->info.Height * 3 * available;
  return true;
}

VelmocSource* Open(const char* name, uint32_t first, uint32_t last, char* error, size_t size) {
  Source* s = new (std::nothrow) Source();
  if (!s) return Fail(error, size, "Out of memory!"), nullptr;
  const size_t length = std::strlen(name);
  const bool y4m = length > 4 && strcasecmp(name + length - 4, ".y4m") == 0;
  s->kind = y4m ? Kind::Y4m : Kind::Image;
  const bool ok = y4m ? OpenY4m(s, name, first, last, error, size)
                      : OpenImages(s, name, first, last, error, size);
  if (ok) {
    try {
      s->argb.assign(size_t(s->info.Width) * s->info.Height, 0);
    } catch (const std::bad_alloc&) {
      Fail(error, size, "Out of memory!");
      s->info.Frames = 0;
    }
  }
  if (!ok || !s->info.Frames) {
    if (s->file) FileClose(s->file);
    if (s->image) ImageFileClose(s->image);
    delete s;
    return nullptr;
  }
  return reinterpret_cast<VelmocSource*>(s);
}

void Info(const VelmocSource* source, VelmocSourceInfo* out) {
  *out = reinterpret_cast<const Source*>(source)->info;
}

bool Frame(VelmocSource* source, uint32_t index, const uint32_t** pixels, int32_t* pitch) {
  Source* s = reinterpret_cast<Source*>(source);
  if (index >= s->info.Frames) return false;
  bool ok = false;
  if (s->kind == Kind::Y4m) {
    ok = ReadY4m(s, index);
  } else if (s->kind == Kind::Image) {
    ok = ReadImageInto(s, s->image, int(s->first + index));
  } else {
    char path[4096];
    ImageError e{};
    if (SeriesName(path, sizeof path, s->series.pattern, int32_t(s->series.first + s->first + index))) {
      ImageFile* f = ImageFileOpen(path, &e);
      if (f) {
        const ImageInfo* ii = ImageFileInfo(f);
        ok = uint32_t(ii->width) == s->info.Width && uint32_t(ii->height) == s->info.Height &&
             ReadImageInto(s, f, 0);
        ImageFileClose(f);
      }
    }
  }
  if (!ok) return false;
  *pixels = s->argb.data();
  *pitch = int32_t(s->info.Width * 4);
  return true;
}

void Close(VelmocSource* source) {
  Source* s = reinterpret_cast<Source*>(source);
  if (!s) return;
  if (s->file) FileClose(s->file);
  if (s->image) ImageFileClose(s->image);
  delete s;
}

const VelmocSourceOps Builtin{Open, Info, Frame, Close};

}  // namespace

const VelmocSourceOps* VelmocBuiltinSource() { return &Builtin; }
const VelmocSourceOps* VelmocCurrentSource() { return g_installed ? g_installed : &Builtin; }
void VelmocSetSource(const VelmocSourceOps* ops) { g_installed = ops; }
