// OpenEXR. Reading goes through the OpenEXR library, which knows every compression that
// production files use (NONE, RLE, ZIPS, ZIP, PIZ, PXR24, B44, B44A, DWAA, DWAB), tiled files
// and the first part of multi-part files. The headers are checked first (image parts, data
// windows within the limits, no more tiles or chunks than the file's length can hold); then
// the first part's channels are decoded as floats in bands of rows and joined into R, G, B, A
// (grey files from Y, alpha 1.0 when absent). Opening decodes the whole picture once, so that a
// file that is cut short or damaged is refused at open instead of giving a black picture later.
// The writer, through TinyEXR, stores R, G, B(, A) as half or full floats with ZIP compression.
#include "imagefile/imagefile_internal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <exception>
#include <string>

#include <Iex.h>
#include <ImfChannelList.h>
#include <ImfFrameBuffer.h>
#include <ImfHeader.h>
#include <ImfIO.h>
#include <ImfInputFile.h>

#include <tinyexr.h>

namespace orn::imagefile {

namespace {

int FailExr(ImageError* error, int code, const char* what, const char* message) {
  Fail(error, code, "OpenEXR: %s%s%s", what, message ? ": " : "", message ? message : "");
  if (message) FreeEXRErrorMessage(message);
  return 0;
}

// What a part's header says before the library sees it: its type, data window, tile size
// and chunk count.
struct PartHeader {
  std::string unreadable_type;  // the first part type that is neither scan lines nor tiles
  bool has_window = false;
  int32_t window[4] = {0, 0, 0, 0};  // min x, min y, max x, max y
  uint32_t tile_width = 0, tile_height = 0;  // 0: no tile description
  int64_t chunks = -1;                       // the stated chunk count; -1: none stated
};

constexpr uint32_t kMultiPartFlag = 0x1000;

// Walks the headers' attribute lists (name, type name, 32-bit size, data) within the file's
// bytes: one header, or for a multi-part file every header up to the empty one that ends them.
// The part types decide whether the file is read at all (deep parts are not); the data windows,
// tile sizes and chunk counts are checked before the library allocates for them.
std::vector<PartHeader> WalkHeaders(const std::vector<uint8_t>& data) {
  std::vector<PartHeader> parts;
  if (data.size() < 8) return parts;
  const bool multiPart = (Le32(data.data() + 4) & kMultiPartFlag) != 0;
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
  while (at < data.size()) {
    PartHeader part;
    bool ended = false;  // the header's closing empty name was met
    while (at < data.size() && text(&name)) {
      if (name.empty()) {
        ended = true;
        break;
      }
      if (!text(&type) || data.size() - at < 4) break;
      const uint32_t size = Le32(data.data() + at);
      at += 4;
      if (size > data.size() - at) break;
      const uint8_t* value = data.data() + at;
      if (name == "type" && part.unreadable_type.empty()) {
        const std::string kind(reinterpret_cast<const char*>(value), strnlen(reinterpret_cast<const char*>(value), size));
        if (!kind.empty() && kind != "scanlineimage" && kind != "tiledimage") part.unreadable_type = kind;
      } else if (name == "dataWindow" && type == "box2i" && size == 16) {
        part.has_window = true;
        for (int i = 0; i < 4; ++i) part.window[i] = int32_t(Le32(value + 4 * i));
      } else if (name == "tiles" && type == "tiledesc" && size == 9) {
        part.tile_width = Le32(value);
        part.tile_height = Le32(value + 4);
      } else if (name == "chunkCount" && type == "int" && size == 4) {
        part.chunks = int32_t(Le32(value));
      }
      at += size;
    }
    parts.push_back(part);
    if (!ended || !multiPart || at >= data.size() || data[at] == 0) break;
  }
  return parts;
}

// The file's bytes as the library's input stream. A read past the end throws, as the
// library's own file stream does.
class MemoryStream : public Imf::IStream {
 public:
  explicit MemoryStream(const std::vector<uint8_t>& data) : Imf::IStream("OpenEXR data"), data_(data) {}
  bool read(char c[], int n) override {
    if (n < 0 || uint64_t(n) > data_.size() - at_) throw Iex::InputExc("the file ends early");
    std::memcpy(c, data_.data() + at_, size_t(n));
    at_ += uint64_t(n);
    return at_ < data_.size();
  }
  uint64_t tellg() override { return at_; }
  void seekg(uint64_t pos) override { at_ = std::min<uint64_t>(pos, data_.size()); }

 private:
  const std::vector<uint8_t>& data_;
  uint64_t at_ = 0;
};

// Which stored channel feeds R, G, B and A (empty: none, filled with 0, or 1 for alpha).
// Grey files feed R from Y (or from their only channel) and `grey` is set.
struct ChannelMap {
  std::string source[4];
  bool grey = false;
};

bool FullResolution(const Imf::Channel& channel) { return channel.xSampling == 1 && channel.ySampling == 1; }

ChannelMap MapChannels(const Imf::ChannelList& channels) {
  static const char* kNames[4] = {"R", "G", "B", "A"};
  ChannelMap map;
  for (int i = 0; i < 4; ++i) {
    const Imf::Channel* c = channels.findChannel(kNames[i]);
    if (c && FullResolution(*c)) map.source[i] = kNames[i];
  }
  if (!map.source[0].empty() || !map.source[1].empty() || !map.source[2].empty()) return map;
  const Imf::Channel* y = channels.findChannel("Y");
  if (y && FullResolution(*y)) {
    map.source[0] = "Y";
    map.grey = true;
  } else if (channels.begin() != channels.end() && ++channels.begin() == channels.end() &&
             FullResolution(channels.begin().channel())) {
    map.source[0] = channels.begin().name();
    map.grey = true;
  }
  return map;
}

constexpr int kBandRows = 64;

// Decodes the data window band by band into four floats a pixel and hands every row, top row
// first, to `row(y, pixels)`. Library failures come back as exceptions.
template <typename RowFn>
void DecodeRows(Imf::InputFile& file, RowFn row) {
  const Imath::Box2i window = file.header().dataWindow();
  const int64_t width = int64_t(window.max.x) - window.min.x + 1;
  const ChannelMap map = MapChannels(file.header().channels());
  std::vector<float> band(size_t(width) * kBandRows * 4);
  for (int64_t top = window.min.y; top <= window.max.y; top += kBandRows) {
    const int64_t rows = std::min<int64_t>(kBandRows, int64_t(window.max.y) - top + 1);
    Imf::FrameBuffer buffer;
    for (int i = 0; i < 4; ++i) {
      if (map.source[i].empty()) continue;
      buffer.insert(map.source[i],
                    Imf::Slice::Make(Imf::FLOAT, band.data() + i, Imath::V2i(window.min.x, int(top)), width, rows,
                                     4 * sizeof(float), size_t(width) * 4 * sizeof(float)));
    }
    file.setFrameBuffer(buffer);
    file.readPixels(int(top), int(top + rows - 1));
    for (int64_t r = 0; r < rows; ++r) {
      float* pixels = band.data() + size_t(r) * size_t(width) * 4;
      for (int64_t x = 0; x < width; ++x) {
        float* p = pixels + x * 4;
        if (map.source[1].empty()) p[1] = map.grey ? p[0] : 0.0f;
        if (map.source[2].empty()) p[2] = map.grey ? p[0] : 0.0f;
        if (map.source[3].empty()) p[3] = 1.0f;
      }
      row(int(top - window.min.y + r), pixels);
    }
  }
}

// A data window's size against the limits.
bool WindowAllowed(const int32_t window[4], ImageError* error) {
  const int64_t width = int64_t(window[2]) - window[0] + 1;
  const int64_t height = int64_t(window[3]) - window[1] + 1;
  if (width <= 0 || height <= 0) return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: empty data window");
  return SizeAllowed(uint64_t(width), uint64_t(height), error);
}

// A part's claims against the limits and the file's length: every chunk (a tile, or a band of
// scan lines) has an offset of 8 bytes in the file, so a file cannot hold more chunks than an
// eighth of its bytes.
bool PartAllowed(const PartHeader& part, size_t fileBytes, ImageError* error) {
  if (part.has_window && !WindowAllowed(part.window, error)) return false;
  const int64_t most = int64_t(fileBytes / 8);
  if (part.chunks < -1 || part.chunks > most)
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: %lld chunks stated in a file of %zu bytes",
                static_cast<long long>(part.chunks), fileBytes);
  if (part.tile_width == 0 && part.tile_height == 0) return true;
  if (part.tile_width == 0 || part.tile_height == 0)
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: empty tiles");
  if (!part.has_window) return true;
  const int64_t width = int64_t(part.window[2]) - part.window[0] + 1;
  const int64_t height = int64_t(part.window[3]) - part.window[1] + 1;
  const int64_t tiles = ((width + part.tile_width - 1) / part.tile_width) * ((height + part.tile_height - 1) / part.tile_height);
  if (tiles > most)
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: %lld tiles of %ux%u in a file of %zu bytes",
                static_cast<long long>(tiles), part.tile_width, part.tile_height, fileBytes);
  return true;
}

// Runs `work` on the file opened by the library, turning its exceptions into an error.
template <typename Work>
int WithExrFile(const ImageFile* file, ImageError* error, Work work) {
  const std::vector<PartHeader> parts = WalkHeaders(file->data);
  if (!parts.empty() && !parts[0].unreadable_type.empty())
    return Fail(error, IMAGE_ERROR_UNSUPPORTED, "OpenEXR: \"%s\" parts are not read",
                parts[0].unreadable_type.c_str());
  for (const PartHeader& part : parts)
    if (!PartAllowed(part, file->data.size(), error)) return 0;
  try {
    MemoryStream stream(file->data);
    Imf::InputFile exr(stream, 0);
    return work(exr);
  } catch (const std::exception& e) {
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: %s", e.what());
  } catch (...) {
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: the file cannot be read");
  }
}

int DescribeExr(ImageFile* file, const Imf::Header& h, ImageError* error) {
  const Imath::Box2i window = h.dataWindow();
  const int32_t corners[4] = {window.min.x, window.min.y, window.max.x, window.max.y};
  if (!WindowAllowed(corners, error)) return 0;
  const int64_t width = int64_t(window.max.x) - window.min.x + 1;
  const int64_t height = int64_t(window.max.y) - window.min.y + 1;
  ImageInfo& info = file->info;
  info.width = int(width);
  info.height = int(height);
  info.is_hdr = 1;
  info.bits_per_channel = 32;
  info.sub_format = int(h.compression());
  int bits = 0;
  for (auto c = h.channels().begin(); c != h.channels().end(); ++c) {
    bits += c.channel().type == Imf::HALF ? 16 : 32;
    if (std::strcmp(c.name(), "A") == 0) info.has_alpha = 1;
  }
  info.bits_per_pixel = bits;
  info.is_gray = MapChannels(h.channels()).grey ? 1 : 0;
  return 1;
}

int ExrOpen(ImageFile* file, ImageError* error) {
  return WithExrFile(file, error, [&](Imf::InputFile& exr) {
    if (!DescribeExr(file, exr.header(), error)) return 0;
    if (!exr.isComplete()) return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: the file is cut short");
    // A trial decode: a chunk that is missing or damaged shows now, not as a black picture.
    DecodeRows(exr, [](int, const float*) {});
    return 1;
  });
}

int ExrRead(ImageFile* file, int, const ImagePixels* dest, ImageError* error) {
  if (dest->width != file->info.width || dest->height != file->info.height)
    return Fail(error, IMAGE_ERROR_CORRUPT, "OpenEXR: picture is %dx%d, asked for %dx%d", file->info.width,
                file->info.height, dest->width, dest->height);
  return WithExrFile(file, error, [&](Imf::InputFile& exr) {
    DecodeRows(exr, [&](int y, const float* row) { StoreRowFloat(dest, y, row); });
    return 1;
  });
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
