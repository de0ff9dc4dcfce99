// Output writers: kind selection, still-image series, AVI frames and sound, y4m streams.
#include "convert/output.h"

#include <strings.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "convert/avi_writer.h"
#include "host/bfile.h"
#include "host/settings.h"
#include "host/toolframe.h"
#include "imagefile/imagefile.h"

namespace {

constexpr const char* UnsupportedText = "Unsupported output file type or color depth.";
constexpr const char* AviCreateText = "Error creating the output AVI file.";
constexpr const char* SoundCreateText = "Error creating the output sound track.";
constexpr const char* MemoryText = "Out of memory.";
constexpr const char* TerminalText =
    "Standard output is a terminal: the y4m stream is written to \"-\" only when standard "
    "output goes to a file or a pipe (for example \"> out.y4m\").";

int Say(OutputWriter* w, const char* text, int level) {
  return ProgressSend(w->message, text, level);
}

bool FileExists(const char* name) {
  struct stat st;
  return stat(name, &st) == 0;
}

// The overwrite question on `name`, asked when `exists`; true when the output may be written.
bool MayWrite(OutputWriter* w, const char* name, bool exists) {
  if (!exists) return true;
  char question[OutputNameBytes + 40];
  std::snprintf(question, sizeof question, "File %s exists, overwrite?", name);
  const bool yes = w->options.ask ? w->options.ask(question, w->options.ask_context)
                                  : ToolFrameAsk(question, ToolBoxDefaultFirst) == 1;
  if (!yes) Say(w, "", 3);
  return yes;
}

// The extension of the last path component, dot included; "" when none.
const char* Extension(const char* name) {
  const char* slash = std::strrchr(name, '/');
  const char* dot = std::strrchr(slash ? slash + 1 : name, '.');
  return dot ? dot : "";
}

int KindOf(const char* ext) {
  static const struct {
    const char* ext;
    int kind;
  } table[] = {{".JPG", OutputKindJpeg}, {".JPEG", OutputKindJpeg}, {".TIF", OutputKindTiff},
               {".TIFF", OutputKindTiff}, {".GIF", OutputKindGif},  {".PNG", OutputKindPng},
               {".TGA", OutputKindTga},   {".BMP", OutputKindBmp},  {".EXR", OutputKindExr},
               {".Y4M", OutputKindY4m},   {".AVI", OutputKindAvi}};
  for (const auto& row : table)
    if (strcasecmp(ext, row.ext) == 0) return row.kind;
  return 0;
}

void Free(OutputWriter* w) {
  std::free(w->conversion);
  std::free(w->float_buffer);
  std::free(w->frame_bytes);
  std::free(w);
}

// ---- Pixel forms ---------------------------------------------------------------------------

uint32_t FloatToArgb(const float* p) {
  auto channel = [](float v) -> uint32_t {
    float scaled = v * 255.0f;
    if (!(scaled > 0.0f)) return 0;  // also NaN
    return scaled >= 255.0f ? 255u : uint32_t(scaled);
  };
  return channel(p[3]) << 24 | channel(p[0]) << 16 | channel(p[1]) << 8 | channel(p[2]);
}

// The frame as 32-bit pixels (converted when floats came in); returns the top row and pitch.
const uint32_t* ArgbFrame(OutputWriter* w, const void* pixels, ptrdiff_t* pitch) {
  if (!w->float_frames) {
    *pitch = w->pitch;
    return static_cast<const uint32_t*>(pixels);
  }
  const float* src = static_cast<const float*>(pixels);
  for (int y = 0; y < w->height; ++y) {
    const float* row = src + y * w->pitch * 4;
    uint32_t* out = w->conversion + size_t(y) * w->width;
    for (int x = 0; x < w->width; ++x) out[x] = FloatToArgb(row + 4 * x);
  }
  *pitch = w->width;
  return w->conversion;
}

// 32-bit frames for OpenEXR: colours through the 2.2 power curve, alpha linear.
const float* FloatFrame(OutputWriter* w, const void* pixels) {
  if (w->float_frames) return static_cast<const float*>(pixels);
  // Filled once, by whichever writer comes first (several jobs may write at the same time).
  static const struct Curve {
    float v[256];
    Curve() {
      for (int i = 0; i < 256; ++i) v[i] = float(std::pow(i / 255.0, 2.2));
    }
  } curve;
  const uint32_t* src = static_cast<const uint32_t*>(pixels);
  for (int y = 0; y < w->height; ++y) {
    const uint32_t* row = src + y * w->pitch;
    float* out = w->float_buffer + size_t(y) * w->width * 4;
    for (int x = 0; x < w->width; ++x) {
      const uint32_t p = row[x];
      out[4 * x + 0] = curve.v[(p >> 16) & 255];
      out[4 * x + 1] = curve.v[(p >> 8) & 255];
      out[4 * x + 2] = curve.v[p & 255];
      out[4 * x + 3] = float(p >> 24) / 255.0f;
    }
  }
  return w->float_buffer;
}

// ---- Still images --------------------------------------------------------------------------

int ImageFormatOf(int kind) {
  switch (kind) {
    case OutputKindJpeg: return IMAGE_FORMAT_JPEG;
    case OutputKindTiff: return IMAGE_FORMAT_TIFF;
    case OutputKindPng: return IMAGE_FORMAT_PNG;
    case OutputKindTga: return IMAGE_FORMAT_TGA;
    case OutputKindBmp: return IMAGE_FORMAT_BMP;
    case OutputKindExr: return IMAGE_FORMAT_EXR;
  }
  return IMAGE_FORMAT_UNKNOWN;
}

void SetStatus(OutputWriter* w) {
  std::snprintf(w->status, sizeof w->status, "%s to %s", w->first_name, w->last_name);
  Say(w, w->status, 0);
}

void StillName(const OutputWriter* w, int number, char* name) {
  std::snprintf(name, OutputNameBytes, w->name_pattern, number);
}

// The series as it stands on the disk: true when any of its names is taken. The question is
// asked on the first name even when only a later one is there.
bool SeriesExists(const OutputWriter* w) {
  char name[OutputNameBytes];
  for (int i = 0; i < std::max(w->frames, 1); ++i) {
    StillName(w, i, name);
    if (FileExists(name)) return true;
  }
  return false;
}

// One picture's bytes to "<name>.tmp"; the close renames it. False (and nothing left) when
// the file could not be made or a write fell short.
bool WriteStillFile(const char* name, const void* data, size_t size) {
  OutFile out{};
  if (OutFileCreate(&out, name, 1 << 16) != OutFileDone) return false;
  const bool written = FileWrite(out.File, data, size) == size;
  if (!OutFileClose(&out)) return false;
  if (!written) OutFileDiscard(&out);
  return written;
}

// Renames (or with `discard` removes) the series' temporary files; false when a rename failed,
// and the rest are then removed.
bool FinishStills(OutputWriter* w, bool discard) {
  char name[OutputNameBytes], temporary[OutputNameBytes + sizeof OutFileSuffix];
  bool ok = true;
  for (int i = 0; i < w->stills_made; ++i) {
    StillName(w, i, name);
    std::snprintf(temporary, sizeof temporary, "%s%s", name, OutFileSuffix);
    if (discard || !ok || FileRename(name, temporary) != 0) {
      if (!discard) ok = false;
      FileDelete(temporary);
    }
  }
  w->stills_made = 0;
  return ok;
}

int WriteStill(OutputWriter* w, const void* pixels) {
  char name[OutputNameBytes];
  StillName(w, w->next_number++, name);
  ImageWriteParams params{};
  params.format = ImageFormatOf(w->kind);
  params.keep_alpha = w->keep_alpha;
  params.jpeg_quality = w->jpeg_level;
  ImagePixels image{};
  image.width = w->width;
  image.height = w->height;
  if (w->float_output) {
    image.base = const_cast<float*>(FloatFrame(w, pixels));
    image.pitch = ptrdiff_t(w->float_frames ? w->pitch : w->width) * 16;
    image.kind = IMAGE_PIXELS_FLOAT;
  } else {
    ptrdiff_t pitch = 0;
    image.base = const_cast<uint32_t*>(ArgbFrame(w, pixels, &pitch));
    image.pitch = pitch * 4;
    image.kind = IMAGE_PIXELS_ARGB32;
  }
  void* data = nullptr;
  size_t size = 0;
  if (ImageWriteMemory(&params, &image, &data, &size, nullptr) &&
      WriteStillFile(name, data, size) && w->stills_made == w->next_number - 1) {
    w->stills_made = w->next_number;
    w->bytes_written += size;
  } else {
    w->failed = 1;
  }
  ImageFreeMemory(data);
  if (!w->first_name[0]) std::snprintf(w->first_name, sizeof w->first_name, "%s", name);
  std::snprintf(w->last_name, sizeof w->last_name, "%s", name);
  SetStatus(w);
  return w->failed ? 0 : 1;
}

// ---- AVI -----------------------------------------------------------------------------------

// Frames go out as 24-bit rows: an AVI keeps no alpha (only TGA, PNG and OpenEXR do).
constexpr int AviDepth = 24;

uint32_t AviRowBytes(const OutputWriter* w) {
  return ((uint32_t(AviDepth) * w->width + 31) / 32) * 4;
}

int WriteAviFrame(OutputWriter* w, const void* pixels) {
  ptrdiff_t pitch = 0;
  const uint32_t* argb = ArgbFrame(w, pixels, &pitch);
  bool ok;
  if (w->options.codec == OutputCodecMjpeg) {
    ImageWriteParams params{};
    params.format = IMAGE_FORMAT_JPEG;
    params.jpeg_quality = w->jpeg_level;
    ImagePixels image{const_cast<uint32_t*>(argb), pitch * 4, w->width, w->height,
                      IMAGE_PIXELS_ARGB32};
    void* jpeg = nullptr;
    size_t size = 0;
    ok = ImageWriteMemory(&params, &image, &jpeg, &size, nullptr) && size <= 0xFFFFFFF0u &&
         AviWriteVideo(w->avi, jpeg, uint32_t(size));
    ImageFreeMemory(jpeg);
  } else {
    // Bottom-up DIB rows: B, G, R.
    const uint32_t rowBytes = AviRowBytes(w);
    for (int y = 0; y < w->height; ++y) {
      const uint32_t* src = argb + (w->height - 1 - y) * pitch;
      uint8_t* out = w->frame_bytes + size_t(y) * rowBytes;
      for (int x = 0; x < w->width; ++x, out += 3) {
        const uint32_t p = src[x];
        out[0] = uint8_t(p);
        out[1] = uint8_t(p >> 8);
        out[2] = uint8_t(p >> 16);
      }
    }
    ok = AviWriteVideo(w->avi, w->frame_bytes, rowBytes * uint32_t(w->height));
  }
  ++w->next_number;
  w->bytes_written = AviBytes(w->avi);
  if (!ok) {
    w->failed = 1;
    Say(w, "Error writing frame...", 0);
  }
  return ok ? 1 : 0;
}

bool OpenAvi(OutputWriter* w, const char* name) {
  AviVideoFormat format{};
  format.width = w->width;
  format.height = w->height;
  format.rate_num = w->rate_num;
  format.rate_den = w->rate_den;
  format.mjpeg = w->options.codec == OutputCodecMjpeg;
  format.bits = AviDepth;
  format.riff_limit = w->options.riff_limit;
  format.index_capacity = w->options.index_capacity;
  w->avi = AviCreate(name, &format);
  if (!w->avi) {
    Say(w, AviCreateText, 2);
    return false;
  }
  if (!format.mjpeg) {
    w->frame_bytes = static_cast<uint8_t*>(std::malloc(size_t(AviRowBytes(w)) * w->height));
    if (!w->frame_bytes) {
      Say(w, MemoryText, 2);
      return false;
    }
  }
  w->takes_sound = 1;
  return true;
}

// ---- y4m -----------------------------------------------------------------------------------

// BT.601 studio range, 8 fractional bits.
inline int LumaOf(uint32_t p) {
  const int r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
  return ((66 * r + 129 * g + 25 * b + 128) >> 8) + 16;
}
// Chroma sums carry an offset of 128 << 8 so that they stay positive.
inline int CbScaled(uint32_t p) {
  const int r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
  return -38 * r - 74 * g + 112 * b + (128 << 8);
}
inline int CrScaled(uint32_t p) {
  const int r = (p >> 16) & 255, g = (p >> 8) & 255, b = p & 255;
  return 112 * r - 94 * g - 18 * b + (128 << 8);
}

void Y4mWrite(OutputWriter* w, const void* data, size_t bytes) {
  size_t done = w->y4m_stdout ? std::fwrite(data, 1, bytes, stdout) : FileWrite(w->y4m_file, data, bytes);
  if (done != bytes || (w->y4m_file && w->y4m_file->WriteError)) w->failed = 1;
  w->bytes_written += bytes;
}

size_t Y4mFrameBytes(const OutputWriter* w) {
  const size_t luma = size_t(w->width) * w->height;
  if (w->options.y4m_chroma == 444) return luma * 3;
  return luma + 2 * size_t((w->width + 1) / 2) * ((w->height + 1) / 2);
}

int WriteY4mFrame(OutputWriter* w, const void* pixels) {
  ptrdiff_t pitch = 0;
  const uint32_t* argb = ArgbFrame(w, pixels, &pitch);
  uint8_t* out = w->frame_bytes;
  for (int y = 0; y < w->height; ++y)
    for (int x = 0; x < w->width; ++x) *out++ = uint8_t(LumaOf(argb[y * pitch + x]));
  if (w->options.y4m_chroma == 444) {
    uint8_t* cr = out + size_t(w->width) * w->height;
    for (int y = 0; y < w->height; ++y)
      for (int x = 0; x < w->width; ++x) {
        const uint32_t p = argb[y * pitch + x];
        *out++ = uint8_t((CbScaled(p) + 128) >> 8);
        *cr++ = uint8_t((CrScaled(p) + 128) >> 8);
      }
  } else {
    const int cw = (w->width + 1) / 2, ch = (w->height + 1) / 2;
    uint8_t* cr = out + size_t(cw) * ch;
    for (int cy = 0; cy < ch; ++cy)
      for (int cx = 0; cx < cw; ++cx) {
        int cb = 0, crs = 0, n = 0;
        for (int y = 2 * cy; y < std::min(2 * cy + 2, w->height); ++y)
          for (int x = 2 * cx; x < std::min(2 * cx + 2, w->width); ++x) {
            const uint32_t p = argb[y * pitch + x];
            cb += CbScaled(p);
            crs += CrScaled(p);
            ++n;
          }
        *out++ = uint8_t((cb + n * 128) / (n * 256));
        *cr++ = uint8_t((crs + n * 128) / (n * 256));
      }
  }
  static const char frameTag[] = "FRAME\n";
  Y4mWrite(w, frameTag, 6);
  Y4mWrite(w, w->frame_bytes, Y4mFrameBytes(w));
  ++w->next_number;
  return w->failed ? 0 : 1;
}

bool OpenY4m(OutputWriter* w, const char* name) {
  if (w->options.y4m_chroma != 444) w->options.y4m_chroma = 420;
  w->frame_bytes = static_cast<uint8_t*>(std::malloc(Y4mFrameBytes(w)));
  if (!w->frame_bytes) {
    Say(w, MemoryText, 2);
    return false;
  }
  if (!w->y4m_stdout) {
    OutFileCreate(&w->y4m_out, name, 1 << 20);
    w->y4m_file = w->y4m_out.File;
    if (!w->y4m_file) {
      Say(w, "Error opening output file.", 2);
      return false;
    }
  }
  char header[160];
  const int n = std::snprintf(header, sizeof header, "YUV4MPEG2 W%d H%d F%u:%u Ip A1:1 %s\n",
                              w->width, w->height, w->rate_num, w->rate_den,
                              w->options.y4m_chroma == 444 ? "C444" : "C420jpeg");
  Y4mWrite(w, header, size_t(n));
  return !w->failed;
}

// ---- Opening -------------------------------------------------------------------------------

bool OpenStills(OutputWriter* w, const char* name) {
  switch (w->kind) {
    case OutputKindExr:
      w->supports_alpha = 1;
      w->float_output = 1;
      break;
    case OutputKindPng:
    case OutputKindTga:
      w->supports_alpha = 1;
      break;
    default:
      break;
  }
  char first[OutputNameBytes], last[OutputNameBytes];
  if (!OutputSeriesPattern(w->name_pattern, sizeof w->name_pattern, name, w->frames)) {
    PathTooLongText(first, sizeof first, "output", name);
    Say(w, first, 2);
    return false;
  }
  StillName(w, 0, first);
  StillName(w, std::max(w->frames - 1, 0), last);
  if (!OutFileNameFits(first) || !OutFileNameFits(last)) {
    PathTooLongText(w->status, sizeof w->status, "output", last);
    Say(w, w->status, 2);
    return false;
  }
  // A folder that takes no file fails here, before any frame is made.
  OutFile probe{};
  const OutFileResult made = OutFileCreate(&probe, first, 0);
  OutFileDiscard(&probe);
  if (made != OutFileDone) {
    Say(w, "Error opening output file.", 2);
    return false;
  }
  return true;
}

}  // namespace

bool OutputSeriesPattern(char* dest, size_t destSize, const char* name, int frames) {
  const char* ext = Extension(name);
  const size_t extLen = std::strlen(ext);
  std::string base;
  for (const char* p = name; *p;) {
    if (extLen && strncasecmp(p, ext, extLen) == 0) {
      p += extLen;
      continue;
    }
    if (*p == '%') base += '%';  // a literal percent sign in the printf pattern
    base += *p++;
  }
  const char* field = frames >= 10000 ? "%05i"
                      : frames >= 1000 ? "%04i"
                      : frames >= 100  ? "%03i"
                      : frames >= 10   ? "%02i"
                      : frames >= 2    ? "%01i"
                                       : "";
  std::string escapedExt;
  for (const char* p = ext; *p; ++p) {
    if (*p == '%') escapedExt += '%';
    escapedExt += *p;
  }
  const int n = std::snprintf(dest, destSize, "%s%s%s", base.c_str(), field, escapedExt.c_str());
  return n >= 0 && size_t(n) < destSize;
}

OutputWriter* OutputOpen(const char* name, int frames, uint32_t rate_num, uint32_t rate_den,
                         int width, int height, ptrdiff_t pitch, ProgressSink message, uint32_t flags,
                         const OutputOptions* options) {
  if (!name || width <= 0 || height <= 0 || !rate_num || !rate_den) return nullptr;
  OutputWriter* w = static_cast<OutputWriter*>(std::calloc(1, sizeof(OutputWriter)));
  if (!w) {
    ProgressSend(message, MemoryText, 2);
    return nullptr;
  }
  if (options)
    w->options = *options;
  else
    w->options.jpeg_level = -1;
  w->message = message;
  w->width = width;
  w->height = height;
  w->frames = frames;
  w->rate_num = rate_num;
  w->rate_den = rate_den;
  w->pitch = pitch;
  w->float_frames = (flags & OutputFlagFloat) != 0;
  const bool stdoutStream = std::strcmp(name, "-") == 0;
  // Binary frames would only garble a terminal.
  if (stdoutStream && isatty(STDOUT_FILENO)) {
    Say(w, TerminalText, 2);
    Free(w);
    return nullptr;
  }
  w->kind = stdoutStream ? OutputKindY4m : KindOf(Extension(name));
  // Palette frames wait for the palette writers; true colour is all that is taken here.
  const bool palette = (flags & OutputFlagPalette) != 0;
  w->depth = palette ? 8 : 24;
  w->true_colour = palette ? 0 : 1;
  if (!w->kind || w->kind == OutputKindGif || palette) {
    if (!(flags & OutputFlagQuietUnknown)) Say(w, UnsupportedText, 2);
    Free(w);
    return nullptr;
  }
  w->jpeg_level = w->options.jpeg_level >= 0
                      ? std::min(w->options.jpeg_level, 100)
                      : int(SettingsReadInt(SettingsMainSection, "JPEGLevel", 100));
  std::snprintf(w->name_pattern, sizeof w->name_pattern, "%s", name);
  if (!stdoutStream && !OutFileNameFits(name)) {
    PathTooLongText(w->status, sizeof w->status, "output", name);
    Say(w, w->status, 2);
    Free(w);
    return nullptr;
  }

  const bool ask = !(flags & OutputFlagPromptDone);
  bool ok = true;
  if (w->kind == OutputKindAvi) {
    ok = (!ask || MayWrite(w, name, FileExists(name))) && OpenAvi(w, name);
  } else if (w->kind == OutputKindY4m) {
    w->y4m_stdout = stdoutStream;
    ok = (stdoutStream || !ask || MayWrite(w, name, FileExists(name))) && OpenY4m(w, name);
  } else {
    ok = OpenStills(w, name);
    if (ok && ask) {
      char first[OutputNameBytes];
      StillName(w, 0, first);
      ok = MayWrite(w, first, SeriesExists(w));
    }
    w->keep_alpha = (flags & OutputFlagAlpha) && w->supports_alpha;
  }
  if (ok && w->float_frames && !w->float_output) {
    w->conversion = static_cast<uint32_t*>(std::malloc(size_t(width) * height * 4));
    ok = w->conversion != nullptr;
    if (!ok) Say(w, MemoryText, 2);
  }
  if (ok && !w->float_frames && w->float_output) {
    w->float_buffer = static_cast<float*>(std::malloc(size_t(width) * height * 16));
    ok = w->float_buffer != nullptr;
    if (!ok) Say(w, MemoryText, 2);
  }
  if (!ok) {
    if (w->avi) AviClose(w->avi, true);
    OutFileDiscard(&w->y4m_out);
    Free(w);
    return nullptr;
  }
  return w;
}

int OutputWriteFrame(OutputWriter* w, const void* pixels, const uint32_t* palette) {
  if (!w || !pixels) return 0;
  if (w->kind == OutputKindAvi) return WriteAviFrame(w, pixels);
  if (w->kind == OutputKindY4m) return WriteY4mFrame(w, pixels);
  return WriteStill(w, pixels);
}

uint32_t OutputSoundWanted(OutputWriter* w, uint32_t rate, uint32_t bits, uint32_t channels) {
  if (!w || !w->takes_sound) return 0;
  if (!w->sound_open) {
    if (!AviAddSound(w->avi, rate, bits, channels)) {
      Say(w, SoundCreateText, 2);
      w->takes_sound = 0;
      return 0;
    }
    w->sound_open = 1;
    w->sound_rate = rate;
    w->sound_bits = bits;
    w->sound_channels = channels;
    w->block_align = channels * bits / 8;
    w->bytes_per_second = rate * w->block_align;
    const uint64_t allowance =
        uint64_t(w->bytes_per_second) * w->rate_den * uint64_t(std::max(w->frames, 0)) / w->rate_num;
    w->sound_allowance = allowance - allowance % w->block_align;
    const uint64_t leadSamples = (uint64_t(rate) * 3 / 4 + 3) & ~uint64_t(3);
    w->sound_lead = leadSamples * w->block_align;
  }
  const uint64_t due = uint64_t(w->bytes_per_second) * uint64_t(w->next_number) * w->rate_den /
                           w->rate_num + w->sound_lead;
  uint64_t wanted = due > w->sound_written ? due - w->sound_written : 0;
  const uint64_t left = w->sound_allowance > w->sound_written ? w->sound_allowance - w->sound_written : 0;
  wanted = std::min(wanted, left);
  wanted -= wanted % w->block_align;
  return uint32_t(std::min<uint64_t>(wanted, 0x7FFFFFF0u));
}

int OutputWriteSound(OutputWriter* w, const void* bytes, uint32_t count) {
  if (!w || !w->sound_open) return 0;
  w->sound_written += count;
  if (!count) return 1;
  if (!AviWriteSound(w->avi, bytes, count)) {
    w->failed = 1;
    return 0;
  }
  w->bytes_written = AviBytes(w->avi);
  return 1;
}

uint64_t OutputClose(OutputWriter* w, bool discard, uint32_t* result) {
  if (result) *result = OutFileDone;
  if (!w) return 0;
  // A failed frame leaves the run unfinished: nothing of it takes the old files' place.
  discard = discard || w->failed;
  uint32_t done = OutFileDone;
  if (w->avi) {
    w->bytes_written = AviClose(w->avi, discard, &done);
  } else if (w->y4m_stdout) {
    if (std::fflush(stdout) != 0) done = OutFileWriteFailed;
  } else if (w->kind == OutputKindY4m) {
    if (discard) OutFileDiscard(&w->y4m_out);
    else done = OutFileCommit(&w->y4m_out);
    if (done == OutFileNotReplaced) OutFileDiscard(&w->y4m_out);
  } else if (!FinishStills(w, discard)) {
    done = OutFileNotReplaced;
  }
  if (w->failed) done = OutFileWriteFailed;
  const uint64_t bytes = done == OutFileDone && !discard ? w->bytes_written : 0;
  if (result) *result = done;
  Free(w);
  return bytes;
}

// ---- Wave files ----------------------------------------------------------------------------

struct WaveFile {
  OutFile out;
  BufferedFile* file;  // out.File
  bool raw;
  bool failed;
};

WaveFile* WaveCreate(const char* name, uint32_t rate, uint32_t bits, uint32_t channels, bool raw) {
  if (!name || !rate || !channels || (bits != 8 && bits != 16)) return nullptr;
  WaveFile* wave = static_cast<WaveFile*>(std::calloc(1, sizeof(WaveFile)));
  if (!wave) return nullptr;
  if (OutFileCreate(&wave->out, name, 16384) != OutFileDone) {
    std::free(wave);
    return nullptr;
  }
  BufferedFile* file = wave->file = wave->out.File;
  wave->raw = raw;
  if (!raw) {
    const uint32_t align = channels * bits / 8;
    FileWrite(file, "RIFF", 4);
    FileWriteLong(file, 0);
    FileWrite(file, "WAVEfmt ", 8);
    FileWriteLong(file, 16);
    FileWriteWord(file, 1);
    FileWriteWord(file, channels);
    FileWriteLong(file, rate);
    FileWriteLong(file, rate * align);
    FileWriteWord(file, align);
    FileWriteWord(file, bits);
    FileWrite(file, "data", 4);
    FileWriteLong(file, 0);
  }
  return wave;
}

bool WaveWrite(WaveFile* wave, const void* data, size_t bytes) {
  if (!wave) return false;
  if (FileWrite(wave->file, data, bytes) != bytes || wave->file->WriteError) wave->failed = true;
  return !wave->failed;
}

uint64_t WaveClose(WaveFile* wave, bool discard, uint32_t* result) {
  if (result) *result = OutFileDone;
  if (!wave) return 0;
  const uint64_t size = FileTell(wave->file);
  OutFileResult done = OutFileDone;
  if (discard || wave->failed) {
    OutFileDiscard(&wave->out);
    if (wave->failed) done = OutFileWriteFailed;
  } else {
    if (!wave->raw) {
      FileSeek(wave->file, 4);
      FileWriteLong(wave->file, uint32_t(std::min<uint64_t>(size - 8, 0xFFFFFFFF)));
      FileSeek(wave->file, 40);
      FileWriteLong(wave->file, uint32_t(std::min<uint64_t>(size - 44, 0xFFFFFFFF)));
      FileSeek(wave->file, size);
    }
    done = OutFileCommit(&wave->out);
    if (done == OutFileNotReplaced) OutFileDiscard(&wave->out);
  }
  std::free(wave);
  if (result) *result = done;
  return done == OutFileDone && !discard ? size : 0;
}
