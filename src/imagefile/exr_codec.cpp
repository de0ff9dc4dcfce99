// OpenEXR through TinyEXR: the header is checked first (version, single part, scan lines, data
// window within the limits), then the channels are loaded as floats and joined into R, G, B, A
// (grey files from Y, alpha 1.0 when absent). The writer stores R, G, B(, A) as half or full
// floats with ZIP compression.
#include "imagefile/imagefile_internal.h"

#include <cstdlib>
#include <cstring>
#include <string>

#include <tinyexr.h>

namespace orn::imagefile {

namespace {

// Frees the header in every case: a failed parse may leave parts of it allocated.
struct ExrHeaderGuard {
  EXRHeader header;
  ExrHeaderGuard() { InitEXRHeader(&header); }
  ~ExrHeaderGuard() { FreeEXRHeader(&header); }
};

int FailExr(ImageError* error, int code, const char* what, const char* message) {
  Fail(error, code, "OpenEXR: %s%s%s", what, message ? ": " : "", message ? message : "");
  if (message) FreeEXRErrorMessage(message);
  return 0;
}

// Walks a single-part header's attribute list (name, type name, 32-bit size, data) within the
// file's bytes and returns the first "type" attribute whose value is not a scan-line image, or
// an empty text when there is none. TinyEXR aborts the process on a part type it does not
// expect (it keeps the last non-empty one it reads), so every one is checked before the library
// sees the header.
std::string UnreadablePartType(const std::vector<uint8_t>& data) {
  size_t at = 8;  // past the magic number and the version field
  const auto text = [&](std::string* out) {
    const auto* begin = data.data() + at;
    const auto* end = static_cast<const uint8_t*>(std::memchr(begin, 0, data.size() - at));
    if (!end) return false;
    out->assign(reinterpret_cast<const char*>(begin), size_t(end - begin));
    at += out->size() + 1;
    return true;
  };
  std::string name, type;
  while (at < data.size() && text(&name) && !name.empty()) {
    if (!text(&type) || data.size() - at < 4) break;
    const uint32_t size = uint32_t(data[at]) | uint32_t(data[at + 1]) << 8 | uint32_t(data[at + 2]) << 16 |
                          uint32_t(data[at + 3]) << 24;
    at += 4;
    if (size > data.size() - at) break;
    if (name == "type") {
      const auto* value = reinterpret_cast<const char*>(data.data() + at);
      const std::string part(value, strnlen(value, size));
      if (!part.empty() && part != "scanlineimage") return part;
    }
    at += size;
  }
  return {};
}

// Reads and checks the version and header; shared by open and read.
int ParseHeader(const std::vector<uint8_t>& data, ExrHeaderGuard* guard, ImageError* error) {
  EXRVersion version;
  if (ParseEXRVersionFromMemory(&version, data.data(), data.size()) != TINYEXR_SUCCESS)
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: bad version field");
  if (version.multipart || version.non_image)
    return Fail(error, IMAGE_ERROR_UNSUPPORTED, "OpenEXR: multi-part and deep files are not read");
  if (version.tiled) return Fail(error, IMAGE_ERROR_UNSUPPORTED, "OpenEXR: tiled files are not read");
  const std::string type = UnreadablePartType(data);
  if (!type.empty())
    return Fail(error, IMAGE_ERROR_UNSUPPORTED, "OpenEXR: \"%s\" parts are not read", type.c_str());
  const char* message = nullptr;
  if (ParseEXRHeaderFromMemory(&guard->header, &version, data.data(), data.size(), &message) != TINYEXR_SUCCESS)
    return FailExr(error, IMAGE_ERROR_CORRUPT, "bad header", message);
  if (guard->header.tiled) return Fail(error, IMAGE_ERROR_UNSUPPORTED, "OpenEXR: tiled files are not read");
  // The library stores any channel type number it finds, and aborts when it meets one it has
  // no decoder for.
  for (int c = 0; c < guard->header.num_channels; ++c) {
    const int type = guard->header.pixel_types[c];
    if (type != TINYEXR_PIXELTYPE_UINT && type != TINYEXR_PIXELTYPE_HALF && type != TINYEXR_PIXELTYPE_FLOAT)
      return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: channel %d has an unknown sample type %d", c, type);
  }
  return 1;
}

int ExrOpen(ImageFile* file, ImageError* error) {
  ExrHeaderGuard guard;
  if (!ParseHeader(file->data, &guard, error)) return 0;
  const EXRHeader& h = guard.header;
  const int64_t width = int64_t(h.data_window.max_x) - h.data_window.min_x + 1;
  const int64_t height = int64_t(h.data_window.max_y) - h.data_window.min_y + 1;
  if (width <= 0 || height <= 0) return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: empty data window");
  if (!SizeAllowed(uint64_t(width), uint64_t(height), error)) return 0;
  ImageInfo& info = file->info;
  info.width = int(width);
  info.height = int(height);
  info.is_hdr = 1;
  info.bits_per_channel = 32;
  info.sub_format = h.compression_type;
  int bits = 0;
  for (int c = 0; c < h.num_channels; ++c) {
    bits += h.channels[c].pixel_type == TINYEXR_PIXELTYPE_HALF ? 16 : 32;
    if (std::strcmp(h.channels[c].name, "A") == 0) info.has_alpha = 1;
  }
  info.bits_per_pixel = bits;
  info.is_gray = h.num_channels == 1 || (h.num_channels == 2 && info.has_alpha);
  return 1;
}

// Which stored channel feeds R, G, B and A (-1: none). Grey files feed all three from Y.
void MapChannels(const EXRHeader& h, int source[4]) {
  static const char* kNames[4] = {"R", "G", "B", "A"};
  int grey = -1;
  for (int i = 0; i < 4; ++i) source[i] = -1;
  for (int c = 0; c < h.num_channels; ++c) {
    for (int i = 0; i < 4; ++i)
      if (std::strcmp(h.channels[c].name, kNames[i]) == 0) source[i] = c;
    if (std::strcmp(h.channels[c].name, "Y") == 0) grey = c;
  }
  if (grey < 0 && h.num_channels == 1) grey = 0;
  if (source[0] < 0 && source[1] < 0 && source[2] < 0 && grey >= 0) source[0] = source[1] = source[2] = grey;
}

float Sample(const EXRHeader& h, const EXRImage& image, int channel, size_t at) {
  if (channel < 0) return 0.0f;
  if (h.pixel_types[channel] == TINYEXR_PIXELTYPE_UINT)
    return float(reinterpret_cast<const uint32_t*>(image.images[channel])[at]);
  return reinterpret_cast<const float*>(image.images[channel])[at];
}

int ExrRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  ExrHeaderGuard guard;
  if (!ParseHeader(file->data, &guard, error)) return 0;
  EXRHeader& h = guard.header;
  for (int c = 0; c < h.num_channels; ++c)
    if (h.pixel_types[c] == TINYEXR_PIXELTYPE_HALF) h.requested_pixel_types[c] = TINYEXR_PIXELTYPE_FLOAT;
  EXRImage image;
  InitEXRImage(&image);
  // TinyEXR releases a half-decoded image itself, by this count; it sets it only on success.
  image.num_channels = h.num_channels;
  const char* message = nullptr;
  if (LoadEXRImageFromMemory(&image, &h, file->data.data(), file->data.size(), &message) != TINYEXR_SUCCESS)
    return FailExr(error, IMAGE_ERROR_CORRUPT, "cannot load the picture", message);
  int ok = 1;
  if (image.width != dest->width || image.height != dest->height || !image.images) {
    ok = Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: picture is %dx%d, header says %dx%d", image.width,
              image.height, dest->width, dest->height);
  } else {
    int source[4];
    MapChannels(h, source);
    std::vector<float> row(size_t(dest->width) * 4);
    for (int y = 0; y < dest->height; ++y) {
      for (int x = 0; x < dest->width; ++x) {
        const size_t at = size_t(y) * size_t(dest->width) + size_t(x);
        for (int i = 0; i < 3; ++i) row[size_t(x) * 4 + size_t(i)] = Sample(h, image, source[i], at);
        row[size_t(x) * 4 + 3] = source[3] >= 0 ? Sample(h, image, source[3], at) : 1.0f;
      }
      StoreRowFloat(dest, y, row.data());
    }
  }
  FreeEXRImage(&image);
  return ok;
}

}  // namespace

int WriteExr(const ImageWriteParams* params, const ImagePixels* pixels, ByteSink* out, ImageError* error) {
  const int w = pixels->width, h = pixels->height;
  const int channels = params->keep_alpha ? 4 : 3;
  // Channels in the alphabetical order that readers expect: (A,) B, G, R.
  static const char* kNames[4] = {"A", "B", "G", "R"};
  static const int kSource[4] = {3, 2, 1, 0};  // index into R, G, B, A
  const int first = channels == 4 ? 0 : 1;
  std::vector<std::vector<float>> planes(size_t(channels), std::vector<float>(size_t(w) * size_t(h)));
  for (int y = 0; y < h; ++y) {
    for (int x = 0; x < w; ++x) {
      float v[4];
      LoadFloat(pixels, x, y, v);
      for (int c = 0; c < channels; ++c) planes[size_t(c)][size_t(y) * size_t(w) + size_t(x)] = v[kSource[first + c]];
    }
  }
  std::vector<unsigned char*> plane_pointers;
  for (auto& p : planes) plane_pointers.push_back(reinterpret_cast<unsigned char*>(p.data()));

  EXRHeader header;
  InitEXRHeader(&header);
  EXRImage image;
  InitEXRImage(&image);
  image.num_channels = channels;
  image.images = plane_pointers.data();
  image.width = w;
  image.height = h;
  std::vector<EXRChannelInfo> info(static_cast<size_t>(channels));
  std::vector<int> input_types(size_t(channels), TINYEXR_PIXELTYPE_FLOAT);
  std::vector<int> stored_types(size_t(channels), params->exr_half ? TINYEXR_PIXELTYPE_HALF : TINYEXR_PIXELTYPE_FLOAT);
  for (int c = 0; c < channels; ++c) {
    std::memset(&info[size_t(c)], 0, sizeof(EXRChannelInfo));
    std::strcpy(info[size_t(c)].name, kNames[first + c]);
  }
  header.num_channels = channels;
  header.channels = info.data();
  header.pixel_types = input_types.data();
  header.requested_pixel_types = stored_types.data();
  header.compression_type = TINYEXR_COMPRESSIONTYPE_ZIP;

  unsigned char* memory = nullptr;
  const char* message = nullptr;
  const size_t size = SaveEXRImageToMemory(&image, &header, &memory, &message);
  if (size == 0 || !memory) return FailExr(error, IMAGE_ERROR_WRITE, "cannot write the picture", message);
  out->bytes.assign(memory, memory + size);
  std::free(memory);
  return 1;
}

const ImageCodec kExrCodec = {IMAGE_FORMAT_EXR, ExrOpen, ExrRead};

}  // namespace orn::imagefile
