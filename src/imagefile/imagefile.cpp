// Opening, type probing, limits, frame reads and the stb-based pixel writers.
#include "imagefile/imagefile_internal.h"

#include <stb_image_write.h>

#include <atomic>
#include <cctype>
#include <cstdio>
#include <cstdlib>
#include <new>
#include <string>

using namespace orn::imagefile;

namespace orn::imagefile {

namespace {
std::atomic<uint32_t> g_max_side{IMAGE_DEFAULT_MAX_SIDE};
std::atomic<uint64_t> g_max_pixels{IMAGE_DEFAULT_MAX_PIXELS};
}  // namespace

int Fail(ImageError* error, int code, const char* format, ...) {
  if (error) {
    error->code = code;
    va_list args;
    va_start(args, format);
    std::vsnprintf(error->text, sizeof error->text, format, args);
    va_end(args);
  }
  return 0;
}

bool SizeAllowed(uint64_t width, uint64_t height, ImageError* error) {
  if (width == 0 || height == 0) {
    Fail(error, IMAGE_ERROR_CORRUPT, "Picture size %llux%llu is empty",
         (unsigned long long)width, (unsigned long long)height);
    return false;
  }
  const uint64_t side = g_max_side.load(std::memory_order_relaxed);
  if (width > side || height > side || width * height > g_max_pixels.load(std::memory_order_relaxed)) {
    Fail(error, IMAGE_ERROR_TOO_LARGE, "Picture size %llux%llu is over the limits",
         (unsigned long long)width, (unsigned long long)height);
    return false;
  }
  return true;
}

int WriteFileBytes(const char* name, const std::vector<uint8_t>& bytes, ImageError* error) {
  FILE* f = std::fopen(name, "wb");
  if (!f) return Fail(error, IMAGE_ERROR_WRITE, "Cannot create %s", name);
  const bool ok = std::fwrite(bytes.data(), 1, bytes.size(), f) == bytes.size();
  if (std::fclose(f) != 0 || !ok) return Fail(error, IMAGE_ERROR_WRITE, "Cannot write %s", name);
  return 1;
}

}  // namespace orn::imagefile

namespace {

const ImageCodec* CodecFor(int format) {
  switch (format) {
    case IMAGE_FORMAT_BMP: return &kBmpCodec;
    case IMAGE_FORMAT_GIF: return &kGifCodec;
    case IMAGE_FORMAT_JPEG: return &kJpegCodec;
    case IMAGE_FORMAT_PNG: return &kPngCodec;
    case IMAGE_FORMAT_TIFF: return &kTiffCodec;
    case IMAGE_FORMAT_TGA: return &kTgaCodec;
    case IMAGE_FORMAT_EXR: return &kExrCodec;
    default: return nullptr;
  }
}

std::string LowerExtension(const char* name) {
  if (!name) return {};
  const char* dot = std::strrchr(name, '.');
  const char* slash = std::strrchr(name, '/');
  const char* backslash = std::strrchr(name, '\\');
  if (!dot || (slash && slash > dot) || (backslash && backslash > dot)) return {};
  std::string ext(dot + 1);
  for (char& c : ext) c = char(std::tolower(static_cast<unsigned char>(c)));
  return ext;
}

bool StartsWith(const uint8_t* data, size_t size, const void* magic, size_t length) {
  return size >= length && std::memcmp(data, magic, length) == 0;
}

int FormatByMagic(const uint8_t* p, size_t size) {
  static const uint8_t kPng[8] = {0x89, 'P', 'N', 'G', 0x0D, 0x0A, 0x1A, 0x0A};
  static const uint8_t kJpeg[3] = {0xFF, 0xD8, 0xFF};
  static const uint8_t kExr[4] = {0x76, 0x2F, 0x31, 0x01};
  if (StartsWith(p, size, kPng, 8)) return IMAGE_FORMAT_PNG;
  if (StartsWith(p, size, kJpeg, 3)) return IMAGE_FORMAT_JPEG;
  if (StartsWith(p, size, "GIF87a", 6) || StartsWith(p, size, "GIF89a", 6)) return IMAGE_FORMAT_GIF;
  if (StartsWith(p, size, "II*\0", 4) || StartsWith(p, size, "MM\0*", 4) ||
      StartsWith(p, size, "II+\0", 4) || StartsWith(p, size, "MM\0+", 4))
    return IMAGE_FORMAT_TIFF;
  if (StartsWith(p, size, kExr, 4)) return IMAGE_FORMAT_EXR;
  if (StartsWith(p, size, "BM", 2) && size >= 26) return IMAGE_FORMAT_BMP;
  return IMAGE_FORMAT_UNKNOWN;
}

bool ValidPixels(const ImagePixels* p) {
  return p && p->base && p->width > 0 && p->height > 0 && p->kind >= IMAGE_PIXELS_ARGB32 &&
         p->kind <= IMAGE_PIXELS_FLOAT;
}

void StbAppend(void* context, void* data, int size) {
  auto* sink = static_cast<ByteSink*>(context);
  const auto* bytes = static_cast<const uint8_t*>(data);
  sink->bytes.insert(sink->bytes.end(), bytes, bytes + size);
}

// PNG, TGA and BMP through stb_image_write, from R, G, B(, A) bytes packed top-down.
int WriteStb(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out,
             ImageError* error) {
  const int comp = params->keep_alpha ? 4 : 3;
  const int w = pixels->width, h = pixels->height;
  std::vector<uint8_t> packed;
  try {
    packed.resize(size_t(w) * size_t(h) * size_t(comp));
  } catch (const std::bad_alloc&) {
    return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  }
  uint8_t* dst = packed.data();
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      const uint32_t p = LoadArgb(pixels, x, y);
      *dst++ = uint8_t(p >> 16);
      *dst++ = uint8_t(p >> 8);
      *dst++ = uint8_t(p);
      if (comp == 4) *dst++ = uint8_t(p >> 24);
    }
  }
  int ok = 0;
  switch (params->format) {
    case IMAGE_FORMAT_PNG:
      ok = stbi_write_png_to_func(StbAppend, out, w, h, comp, packed.data(), w * comp);
      break;
    case IMAGE_FORMAT_TGA:
      ok = stbi_write_tga_to_func(StbAppend, out, w, h, comp, packed.data());
      break;
    default:
      ok = stbi_write_bmp_to_func(StbAppend, out, w, h, comp, packed.data());
      break;
  }
  return ok ? 1 : Fail(error, IMAGE_ERROR_WRITE, "The %s writer failed", ImageFormatName(params->format));
}

int WriteToSink(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out,
                ImageError* error) {
  if (!params || !ValidPixels(pixels)) return Fail(error, IMAGE_ERROR_ARGUMENT, "Bad write arguments");
  if (!SizeAllowed(uint64_t(pixels->width), uint64_t(pixels->height), error)) return 0;
  switch (params->format) {
    case IMAGE_FORMAT_PNG:
    case IMAGE_FORMAT_TGA:
    case IMAGE_FORMAT_BMP:
      return WriteStb(params, pixels, out, error);
    case IMAGE_FORMAT_JPEG:
      return WriteJpeg(params, pixels, out, error);
    case IMAGE_FORMAT_TIFF:
      return WriteTiff(params, pixels, out, error);
    case IMAGE_FORMAT_EXR:
      return WriteExr(params, pixels, out, error);
    default:
      return Fail(error, IMAGE_ERROR_ARGUMENT, "No writer for format %d", params->format);
  }
}

}  // namespace

extern "C" {

void ImageSetLimits(uint32_t max_side, uint64_t max_pixels) {
  g_max_side.store(max_side, std::memory_order_relaxed);
  g_max_pixels.store(max_pixels, std::memory_order_relaxed);
}

void ImageGetLimits(uint32_t* max_side, uint64_t* max_pixels) {
  if (max_side) *max_side = g_max_side.load(std::memory_order_relaxed);
  if (max_pixels) *max_pixels = g_max_pixels.load(std::memory_order_relaxed);
}

int ImageFormatFromName(const char* name) {
  const std::string ext = LowerExtension(name);
  if (ext == "bmp" || ext == "dib") return IMAGE_FORMAT_BMP;
  if (ext == "gif") return IMAGE_FORMAT_GIF;
  if (ext == "jpg" || ext == "jpeg" || ext == "jpe" || ext == "jfif") return IMAGE_FORMAT_JPEG;
  if (ext == "png") return IMAGE_FORMAT_PNG;
  if (ext == "tif" || ext == "tiff") return IMAGE_FORMAT_TIFF;
  if (ext == "tga" || ext == "icb" || ext == "vda" || ext == "vst") return IMAGE_FORMAT_TGA;
  if (ext == "exr") return IMAGE_FORMAT_EXR;
  return IMAGE_FORMAT_UNKNOWN;
}

const char* ImageFormatName(int format) {
  switch (format) {
    case IMAGE_FORMAT_BMP: return "BMP";
    case IMAGE_FORMAT_GIF: return "GIF";
    case IMAGE_FORMAT_TIFF: return "TIFF";
    case IMAGE_FORMAT_JPEG: return "JPEG";
    case IMAGE_FORMAT_TGA: return "TGA";
    case IMAGE_FORMAT_PNG: return "PNG";
    case IMAGE_FORMAT_EXR: return "OpenEXR";
    default: return "unknown";
  }
}

int ImageProbeFormat(const void* data, size_t size, const char* name) {
  const auto* p = static_cast<const uint8_t*>(data);
  if (!p) return IMAGE_FORMAT_UNKNOWN;
  const int by_magic = FormatByMagic(p, size);
  if (by_magic != IMAGE_FORMAT_UNKNOWN) return by_magic;
  // TGA has no signature: the name decides with a loose header test, else a strict one.
  const bool named_tga = ImageFormatFromName(name) == IMAGE_FORMAT_TGA;
  if (LooksLikeTga(p, size, !named_tga)) return IMAGE_FORMAT_TGA;
  return IMAGE_FORMAT_UNKNOWN;
}

ImageFile* ImageFileOpenMemoryAs(const void* data, size_t size, int format, ImageError* error) {
  if (!data && size) {
    Fail(error, IMAGE_ERROR_ARGUMENT, "No data");
    return nullptr;
  }
  const ImageCodec* codec = CodecFor(format);
  if (!codec) {
    Fail(error, IMAGE_ERROR_UNKNOWN_TYPE, "Unknown image file type");
    return nullptr;
  }
  ImageFile* file = new (std::nothrow) ImageFile;
  if (!file) {
    Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
    return nullptr;
  }
  try {
    file->data.assign(static_cast<const uint8_t*>(data), static_cast<const uint8_t*>(data) + size);
  } catch (const std::bad_alloc&) {
    delete file;
    Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
    return nullptr;
  }
  file->codec = codec;
  file->info.format = format;
  file->info.frame_count = 1;
  file->info.bits_per_channel = 8;
  file->info.loop_count = -1;
  int opened = 0;
  try {
    opened = codec->open(file, error);
  } catch (const std::bad_alloc&) {
    opened = Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  }
  if (!opened) {
    ImageFileClose(file);
    return nullptr;
  }
  if (error) *error = ImageError{};
  return file;
}

ImageFile* ImageFileOpenMemory(const void* data, size_t size, const char* name, ImageError* error) {
  if (!data && size) {
    Fail(error, IMAGE_ERROR_ARGUMENT, "No data");
    return nullptr;
  }
  return ImageFileOpenMemoryAs(data, size, ImageProbeFormat(data, size, name), error);
}

ImageFile* ImageFileOpen(const char* name, ImageError* error) {
  if (!name) {
    Fail(error, IMAGE_ERROR_ARGUMENT, "No file name");
    return nullptr;
  }
  FILE* f = std::fopen(name, "rb");
  if (!f) {
    Fail(error, IMAGE_ERROR_OPEN, "Cannot open %s", name);
    return nullptr;
  }
  std::vector<uint8_t> bytes;
  uint8_t chunk[65536];
  size_t got = 0;
  bool ok = true;
  try {
    while ((got = std::fread(chunk, 1, sizeof chunk, f)) > 0) bytes.insert(bytes.end(), chunk, chunk + got);
  } catch (const std::bad_alloc&) {
    ok = false;
  }
  const bool read_error = std::ferror(f) != 0;
  std::fclose(f);
  if (!ok || read_error) {
    Fail(error, ok ? IMAGE_ERROR_OPEN : IMAGE_ERROR_MEMORY, "Cannot read %s", name);
    return nullptr;
  }
  return ImageFileOpenMemory(bytes.data(), bytes.size(), name, error);
}

void ImageFileClose(ImageFile* file) {
  if (!file) return;
  delete file->state;
  delete file;
}

const ImageInfo* ImageFileInfo(const ImageFile* file) { return file ? &file->info : nullptr; }

int ImageFileFrameDelay(const ImageFile* file, int frame) {
  if (!file || frame < 0 || size_t(frame) >= file->delays.size()) return 0;
  return file->delays[size_t(frame)];
}

int ImageFilePalette(const ImageFile* file, uint32_t palette[256]) {
  if (!file || !palette) return 0;
  const size_t n = std::min<size_t>(file->palette.size(), 256);
  if (n) std::memcpy(palette, file->palette.data(), n * 4);
  return int(n);
}

int ImageFileReadFrame(ImageFile* file, int frame, const ImagePixels* dest, ImageError* error) {
  if (!file || !ValidPixels(dest)) return Fail(error, IMAGE_ERROR_ARGUMENT, "Bad read arguments");
  if (frame < 0 || frame >= file->info.frame_count)
    return Fail(error, IMAGE_ERROR_ARGUMENT, "No frame %d", frame);
  if (dest->width != file->info.width || dest->height != file->info.height)
    return Fail(error, IMAGE_ERROR_ARGUMENT, "Destination is %dx%d, picture is %dx%d", dest->width,
                dest->height, file->info.width, file->info.height);
  const ptrdiff_t row_bytes = ptrdiff_t(dest->width) * (dest->kind == IMAGE_PIXELS_ARGB32 ? 4
                                                        : dest->kind == IMAGE_PIXELS_RGBA16 ? 8 : 16);
  if (dest->height > 1 && (dest->pitch < 0 ? -dest->pitch : dest->pitch) < row_bytes)
    return Fail(error, IMAGE_ERROR_ARGUMENT, "Destination pitch is too small");
  try {
    return file->codec->read(file, frame, dest, error);
  } catch (const std::bad_alloc&) {
    return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  }
}

int ImageWriteMemory(const ImageWriteParams* params, const ImagePixels* pixels, void** data,
                     size_t* size, ImageError* error) {
  if (!data || !size) return Fail(error, IMAGE_ERROR_ARGUMENT, "No output buffer");
  *data = nullptr;
  *size = 0;
  ByteSink sink;
  try {
    if (!WriteToSink(params, pixels, &sink, error)) return 0;
  } catch (const std::bad_alloc&) {
    return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  }
  void* copy = std::malloc(sink.bytes.empty() ? 1 : sink.bytes.size());
  if (!copy) return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  if (!sink.bytes.empty()) std::memcpy(copy, sink.bytes.data(), sink.bytes.size());
  *data = copy;
  *size = sink.bytes.size();
  return 1;
}

int ImageWriteFile(const char* name, const ImageWriteParams* params, const ImagePixels* pixels,
                   ImageError* error) {
  if (!name) return Fail(error, IMAGE_ERROR_ARGUMENT, "No file name");
  ByteSink sink;
  try {
    if (!WriteToSink(params, pixels, &sink, error)) return 0;
  } catch (const std::bad_alloc&) {
    return Fail(error, IMAGE_ERROR_MEMORY, "Out of memory");
  }
  return WriteFileBytes(name, sink.bytes, error);
}

void ImageFreeMemory(void* data) { std::free(data); }

}  // extern "C"
