// OpenEXR through TinyEXR: the header is checked first (version, single part, data window within
// the limits), then the picture is loaded as four floats. The writer stores R, G, B(, A) as half
// or full floats with ZIP compression.
#include "imagefile/imagefile_internal.h"

#include <cstdlib>

#include <tinyexr.h>

namespace orn::imagefile {

namespace {

struct ExrHeaderGuard {
  EXRHeader header;
  bool parsed = false;
  ExrHeaderGuard() { InitEXRHeader(&header); }
  ~ExrHeaderGuard() {
    if (parsed) FreeEXRHeader(&header);
  }
};

int FailExr(ImageError* error, int code, const char* what, const char* message) {
  Fail(error, code, "OpenEXR: %s%s%s", what, message ? ": " : "", message ? message : "");
  if (message) FreeEXRErrorMessage(message);
  return 0;
}

int ExrOpen(ImageFile* file, ImageError* error) {
  const uint8_t* data = file->data.data();
  const size_t size = file->data.size();
  EXRVersion version;
  if (ParseEXRVersionFromMemory(&version, data, size) != TINYEXR_SUCCESS)
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: bad version field");
  if (version.multipart || version.non_image)
    return Fail(error, IMAGE_ERROR_UNSUPPORTED, "OpenEXR: multi-part and deep files are not read");
  ExrHeaderGuard guard;
  const char* message = nullptr;
  if (ParseEXRHeaderFromMemory(&guard.header, &version, data, size, &message) != TINYEXR_SUCCESS)
    return FailExr(error, IMAGE_ERROR_CORRUPT, "bad header", message);
  guard.parsed = true;
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

int ExrRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  float* rgba = nullptr;
  int width = 0, height = 0;
  const char* message = nullptr;
  if (LoadEXRFromMemory(&rgba, &width, &height, file->data.data(), file->data.size(), &message) != TINYEXR_SUCCESS)
    return FailExr(error, IMAGE_ERROR_CORRUPT, "cannot load the picture", message);
  int ok = 1;
  if (width != dest->width || height != dest->height) {
    ok = Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: picture is %dx%d, header says %dx%d", width, height,
              dest->width, dest->height);
  } else {
    for (int y = 0; y < height; ++y) StoreRowFloat(dest, y, rgba + size_t(y) * size_t(width) * 4);
  }
  std::free(rgba);
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
