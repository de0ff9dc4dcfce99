// TIFF through libtiff on memory streams. Plain strip files of 8 or 16-bit grey or RGB (with or
// without alpha) are read line by line, keeping 16-bit precision and straight alpha; everything
// else (palette, bilevel, CMYK, YCbCr, tiles, planes) goes through libtiff's RGBA interface.
// The writer stores 8-bit RGB or RGBA with LZW compression.
#include "imagefile/imagefile_internal.h"

#include <cstdio>

#include <tiffio.h>

namespace orn::imagefile {

namespace {

// Larger single allocations are refused inside libtiff (strip buffers, tag arrays).
constexpr tmsize_t kMaxTiffAlloc = tmsize_t(1) << 30;

struct Stream {
  const uint8_t* data = nullptr;  // reading
  std::vector<uint8_t>* out = nullptr;  // writing
  size_t size = 0;
  size_t at = 0;
  char text[200] = {};
};

tmsize_t StreamRead(thandle_t h, void* buf, tmsize_t n) {
  auto* s = static_cast<Stream*>(h);
  if (!s->data || n < 0 || s->at >= s->size) return 0;
  const size_t count = std::min(size_t(n), s->size - s->at);
  std::memcpy(buf, s->data + s->at, count);
  s->at += count;
  return tmsize_t(count);
}

tmsize_t StreamWrite(thandle_t h, void* buf, tmsize_t n) {
  auto* s = static_cast<Stream*>(h);
  if (!s->out || n < 0) return -1;
  if (n == 0) return 0;
  try {
    if (s->out->size() < s->at + size_t(n)) s->out->resize(s->at + size_t(n));
  } catch (const std::bad_alloc&) {
    return -1;
  }
  std::memcpy(s->out->data() + s->at, buf, size_t(n));
  s->at += size_t(n);
  s->size = s->out->size();
  return n;
}

toff_t StreamSeek(thandle_t h, toff_t offset, int whence) {
  auto* s = static_cast<Stream*>(h);
  uint64_t base = whence == SEEK_CUR ? s->at : whence == SEEK_END ? s->size : 0;
  const uint64_t target = base + offset;
  if (target > (uint64_t(1) << 40)) return toff_t(-1);
  s->at = size_t(target);
  return target;
}

int StreamClose(thandle_t) { return 0; }
toff_t StreamSize(thandle_t h) { return static_cast<Stream*>(h)->size; }
int StreamMap(thandle_t, void**, toff_t*) { return 0; }
void StreamUnmap(thandle_t, void*, toff_t) {}

int OnError(TIFF*, void* user, const char* module, const char* format, va_list args) {
  auto* s = static_cast<Stream*>(user);
  if (!s->text[0]) std::vsnprintf(s->text, sizeof s->text, format, args);
  return 1;  // handled: libtiff's global handler stays silent
}

int OnWarning(TIFF*, void*, const char*, const char*, va_list) { return 1; }

TIFF* OpenStream(Stream* s, const char* mode) {
  TIFFOpenOptions* options = TIFFOpenOptionsAlloc();
  if (!options) return nullptr;
  TIFFOpenOptionsSetMaxSingleMemAlloc(options, kMaxTiffAlloc);
  TIFFOpenOptionsSetErrorHandlerExtR(options, OnError, s);
  TIFFOpenOptionsSetWarningHandlerExtR(options, OnWarning, s);
  TIFF* tif = TIFFClientOpenExt("memory", mode, s, StreamRead, StreamWrite, StreamSeek, StreamClose,
                                StreamSize, StreamMap, StreamUnmap, options);
  TIFFOpenOptionsFree(options);
  return tif;
}

struct TiffLayout {
  uint32_t width = 0, height = 0;
  uint16_t bits = 1, samples = 1, photometric = 0, compression = 1, planar = 1, format = 1;
  uint16_t extra_count = 0, extra_kind = 0;
  bool tiled = false;

  void Read(TIFF* tif) {
    TIFFGetField(tif, TIFFTAG_IMAGEWIDTH, &width);
    TIFFGetField(tif, TIFFTAG_IMAGELENGTH, &height);
    TIFFGetFieldDefaulted(tif, TIFFTAG_BITSPERSAMPLE, &bits);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLESPERPIXEL, &samples);
    TIFFGetFieldDefaulted(tif, TIFFTAG_COMPRESSION, &compression);
    TIFFGetFieldDefaulted(tif, TIFFTAG_PLANARCONFIG, &planar);
    TIFFGetFieldDefaulted(tif, TIFFTAG_SAMPLEFORMAT, &format);
    if (!TIFFGetField(tif, TIFFTAG_PHOTOMETRIC, &photometric)) photometric = samples >= 3 ? PHOTOMETRIC_RGB : PHOTOMETRIC_MINISBLACK;
    uint16_t* kinds = nullptr;
    if (TIFFGetField(tif, TIFFTAG_EXTRASAMPLES, &extra_count, &kinds) && extra_count && kinds) extra_kind = kinds[0];
    tiled = TIFFIsTiled(tif) != 0;
  }

  int ColourSamples() const { return photometric == PHOTOMETRIC_RGB ? 3 : 1; }

  // Grey or RGB in one plane of strips at 8 or 16 unsigned bits, at most one extra sample.
  bool Plain() const {
    if ((bits != 8 && bits != 16) || format != SAMPLEFORMAT_UINT || planar != PLANARCONFIG_CONTIG || tiled) return false;
    if (photometric != PHOTOMETRIC_RGB && photometric != PHOTOMETRIC_MINISBLACK) return false;
    return samples == ColourSamples() || samples == ColourSamples() + 1;
  }
  bool PlainAlpha() const { return Plain() && samples == ColourSamples() + 1; }
};

struct TiffState : ReaderState {
  TiffLayout layout;
};

int TiffOpen(ImageFile* file, ImageError* error) {
  Stream s;
  s.data = file->data.data();
  s.size = file->data.size();
  TIFF* tif = OpenStream(&s, "rm");
  if (!tif) return Fail(error, IMAGE_ERROR_CORRUPT, "TIFF: %s", s.text[0] ? s.text : "cannot read the header");
  auto* st = new TiffState;
  file->state = st;
  TiffLayout& l = st->layout;
  l.Read(tif);
  char reason[1024] = {};
  const bool rgba_ok = TIFFRGBAImageOK(tif, reason) != 0;
  TIFFClose(tif);
  if (!SizeAllowed(l.width, l.height, error)) return 0;
  if (!l.Plain() && !rgba_ok) return Fail(error, IMAGE_ERROR_UNSUPPORTED, "TIFF: %s", reason);
  ImageInfo& info = file->info;
  info.width = int(l.width);
  info.height = int(l.height);
  info.bits_per_channel = l.Plain() && l.bits == 16 ? 16 : 8;
  info.bits_per_pixel = l.bits * l.samples;
  info.sub_format = l.photometric;
  info.compression = l.compression;
  info.extra_samples = l.extra_count;
  info.alpha_bits = l.extra_count ? l.extra_kind + 1 : 0;
  info.is_gray = l.photometric == PHOTOMETRIC_MINISBLACK || l.photometric == PHOTOMETRIC_MINISWHITE;
  info.is_palette = l.photometric == PHOTOMETRIC_PALETTE;
  info.has_alpha = l.PlainAlpha() || (l.extra_count > 0 && (l.extra_kind != EXTRASAMPLE_UNSPECIFIED || l.samples > 3));
  return 1;
}

// Premultiplied colour back to straight colour, in 16-bit units.
void Unpremultiply16(uint16_t* rgba, int width) {
  for (int x = 0; x < width; ++x) {
    uint16_t* p = rgba + 4 * x;
    const uint32_t a = p[3];
    if (a == 0 || a == 65535) continue;
    for (int c = 0; c < 3; ++c) p[c] = uint16_t(std::min<uint32_t>(65535, (uint32_t(p[c]) * 65535 + a / 2) / a));
  }
}

int ReadPlain(TIFF* tif, const TiffLayout& l, const ImagePixels* dest, Stream* s, ImageError* error) {
  const tmsize_t line_size = TIFFScanlineSize(tif);
  const size_t needed = size_t(l.width) * l.samples * (l.bits / 8);
  if (line_size <= 0 || size_t(line_size) < needed) return Fail(error, IMAGE_ERROR_CORRUPT, "TIFF: bad line size");
  std::vector<uint8_t> line(static_cast<size_t>(line_size));
  std::vector<uint16_t> rgba(size_t(l.width) * 4);
  const int colours = l.ColourSamples();
  const bool alpha = l.PlainAlpha();
  for (uint32_t y = 0; y < l.height; ++y) {
    if (TIFFReadScanline(tif, line.data(), y, 0) < 0) {
      std::fill(rgba.begin(), rgba.end(), uint16_t(0));
      for (uint32_t r = y; r < l.height; ++r) StoreRowRgba16(dest, int(r), rgba.data());
      return Fail(error, IMAGE_ERROR_CORRUPT, "TIFF: %s", s->text[0] ? s->text : "cannot read a line");
    }
    for (uint32_t x = 0; x < l.width; ++x) {
      uint16_t v[4];
      for (int c = 0; c < l.samples; ++c) {
        const size_t i = size_t(x) * l.samples + size_t(c);
        v[c] = l.bits == 16 ? reinterpret_cast<const uint16_t*>(line.data())[i] : uint16_t(line[i] * 257);
      }
      uint16_t* p = &rgba[size_t(x) * 4];
      p[0] = v[0];
      p[1] = colours == 3 ? v[1] : v[0];
      p[2] = colours == 3 ? v[2] : v[0];
      p[3] = alpha ? v[colours] : 65535;
    }
    if (alpha && l.extra_kind == EXTRASAMPLE_ASSOCALPHA) Unpremultiply16(rgba.data(), int(l.width));
    StoreRowRgba16(dest, int(y), rgba.data());
  }
  return 1;
}

int ReadThroughRgba(TIFF* tif, const TiffLayout& l, const ImagePixels* dest, Stream* s, ImageError* error) {
  std::vector<uint32_t> raster(size_t(l.width) * l.height, 0);
  const int ok = TIFFReadRGBAImageOriented(tif, l.width, l.height, raster.data(), ORIENTATION_TOPLEFT, 0);
  // libtiff hands back associated alpha; straight alpha is what the caller gets.
  const bool straight = l.extra_count > 0 && l.extra_kind == EXTRASAMPLE_UNASSALPHA;
  std::vector<uint32_t> row(l.width);
  for (uint32_t y = 0; y < l.height; ++y) {
    const uint32_t* src = &raster[size_t(y) * l.width];
    for (uint32_t x = 0; x < l.width; ++x) {
      const uint32_t p = src[x];  // A B G R from the low byte up: R is the lowest byte
      uint32_t r = p & 255, g = (p >> 8) & 255, b = (p >> 16) & 255;
      const uint32_t a = p >> 24;
      if (straight && a != 0 && a != 255) {
        r = std::min<uint32_t>(255, (r * 255 + a / 2) / a);
        g = std::min<uint32_t>(255, (g * 255 + a / 2) / a);
        b = std::min<uint32_t>(255, (b * 255 + a / 2) / a);
      }
      row[x] = a << 24 | r << 16 | g << 8 | b;
    }
    StoreRowArgb(dest, int(y), row.data());
  }
  return ok ? 1 : Fail(error, IMAGE_ERROR_CORRUPT, "TIFF: %s", s->text[0] ? s->text : "cannot read the picture");
}

int TiffRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  Stream s;
  s.data = file->data.data();
  s.size = file->data.size();
  TIFF* tif = OpenStream(&s, "rm");
  if (!tif) return Fail(error, IMAGE_ERROR_CORRUPT, "TIFF: %s", s.text);
  TiffLayout l;
  l.Read(tif);
  int ok = 0;
  if (l.width != uint32_t(dest->width) || l.height != uint32_t(dest->height)) {
    ok = Fail(error, IMAGE_ERROR_CORRUPT, "TIFF: size changed");
  } else {
    ok = l.Plain() ? ReadPlain(tif, l, dest, &s, error) : ReadThroughRgba(tif, l, dest, &s, error);
  }
  TIFFClose(tif);
  return ok;
}

}  // namespace

int WriteTiff(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out, ImageError* error) {
  Stream s;
  s.out = &out->bytes;
  TIFF* tif = OpenStream(&s, "w");
  if (!tif) return Fail(error, IMAGE_ERROR_WRITE, "TIFF: %s", s.text);
  const int samples = params->keep_alpha ? 4 : 3;
  const uint32_t w = uint32_t(pixels->width), h = uint32_t(pixels->height);
  TIFFSetField(tif, TIFFTAG_IMAGEWIDTH, w);
  TIFFSetField(tif, TIFFTAG_IMAGELENGTH, h);
  TIFFSetField(tif, TIFFTAG_BITSPERSAMPLE, 8);
  TIFFSetField(tif, TIFFTAG_SAMPLESPERPIXEL, samples);
  TIFFSetField(tif, TIFFTAG_PHOTOMETRIC, PHOTOMETRIC_RGB);
  TIFFSetField(tif, TIFFTAG_PLANARCONFIG, PLANARCONFIG_CONTIG);
  TIFFSetField(tif, TIFFTAG_ORIENTATION, ORIENTATION_TOPLEFT);
  TIFFSetField(tif, TIFFTAG_COMPRESSION, COMPRESSION_LZW);
  TIFFSetField(tif, TIFFTAG_PREDICTOR, PREDICTOR_HORIZONTAL);
  if (params->keep_alpha) {
    const uint16_t kind = EXTRASAMPLE_UNASSALPHA;
    TIFFSetField(tif, TIFFTAG_EXTRASAMPLES, 1, &kind);
  }
  TIFFSetField(tif, TIFFTAG_ROWSPERSTRIP, TIFFDefaultStripSize(tif, 0));
  std::vector<uint8_t> line(size_t(w) * size_t(samples));
  bool ok = true;
  for (uint32_t y = 0; y < h && ok; ++y) {
    for (uint32_t x = 0; x < w; ++x) {
      const uint32_t p = LoadArgb(pixels, int(x), int(y));
      uint8_t* d = &line[size_t(x) * size_t(samples)];
      d[0] = uint8_t(p >> 16);
      d[1] = uint8_t(p >> 8);
      d[2] = uint8_t(p);
      if (samples == 4) d[3] = uint8_t(p >> 24);
    }
    ok = TIFFWriteScanline(tif, line.data(), y, 0) >= 0;
  }
  TIFFClose(tif);  // flushes the last strip and the directory
  if (!ok || s.text[0]) return Fail(error, IMAGE_ERROR_WRITE, "TIFF: %s", s.text[0] ? s.text : "write failed");
  return 1;
}

const ImageCodec kTiffCodec = {IMAGE_FORMAT_TIFF, TiffOpen, TiffRead};

}  // namespace orn::imagefile
