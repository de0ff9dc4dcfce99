// RLA stills (Wavefront/Alias): a 740-byte big-endian header, a table of 32-bit offsets with
// one entry per scanline (bottom row first), and per scanline each channel as a 16-bit byte
// count and run-length data: a signed count byte, negative for that many literal bytes,
// otherwise the next byte repeated count + 1 times. Channels are red, green, blue, then matte.
// Accepted: 3 colour channels of 8 bits, no matte or one of 8 bits, storage type 0 or 1, up to
// 4096 x 4096. The picture comes out as 32-bit B, G, R, A, bottom-up.
#include "media/readers/rla_codec.h"
#include "media/readers/stream_internal.h"

#include <algorithm>

namespace orn::media {

namespace {

constexpr size_t kHeaderSize = 740;
constexpr uint32_t kMaxSide = 4096;

class RlaReader final : public StreamReader {
 public:
  bool Open(StreamError* error);
  int Read(uint32_t index, StreamFrame* frame, StreamError* error) override;

 private:
  bool Decode(uint32_t* cut_row);

  RlaHeader header_{};
  std::vector<uint8_t> pixels_;  // rows in file order: bottom row first
  bool decoded_ = false;
  uint32_t bytes_ = 0;
};

bool RlaReader::Open(StreamError* error) {
  uint8_t h[kHeaderSize];
  if (!source->ReadExact(0, h, sizeof h)) return StreamFail(error, STREAM_ERROR_FORMAT, "RLA: header too short");
  if (!RlaParseHeader(h, sizeof h, &header_)) return StreamFail(error, STREAM_ERROR_FORMAT, "RLA: bad header");
  if (!RlaHeaderSupported(header_))
    return StreamFail(error, STREAM_ERROR_UNSUPPORTED, "RLA: %u channels of %u bits, %u matte of %u bits, storage %u",
                      header_.channels, header_.channel_bits, header_.mattes, header_.matte_bits, header_.storage_type);
  if (header_.width > kMaxSide || header_.height > kMaxSide)
    return StreamFail(error, STREAM_ERROR_TOO_LARGE, "RLA: %ux%u is too large", header_.width, header_.height);
  if (source->Size() < kHeaderSize + uint64_t(header_.height) * 4)
    return StreamFail(error, STREAM_ERROR_CORRUPT, "RLA: scanline table truncated");
  if (!TryResize(pixels_, size_t(header_.width) * header_.height * 4)) return StreamFail(error, STREAM_ERROR_MEMORY, "RLA: out of memory");
  SetTypeName(&info, "RLA still image");
  info.width = header_.width;
  info.height = header_.height;
  info.rate_num = 15;
  info.rate_den = 1;
  info.frame_count = 1;
  info.depth = 32;
  info.has_alpha = header_.mattes ? 1 : 0;
  info.seekable = 1;
  info.total_bytes = source->Size();
  bytes_ = uint32_t(std::min<uint64_t>(info.total_bytes, UINT32_MAX));
  return true;
}

// Decodes the picture; false, with the row where the data ran out, when the file is cut short
// (a picture of one frame has no short last frame to allow).
bool RlaReader::Decode(uint32_t* cut_row) {
  const uint32_t w = header_.width, h = header_.height;
  *cut_row = 0;
  std::vector<uint8_t> table;
  if (!TryResize(table, size_t(h) * 4)) return false;
  const size_t table_got = source->ReadAt(kHeaderSize, table.data(), table.size());
  std::vector<uint8_t> line, channel;
  if (!TryResize(channel, w)) return false;
  if (table_got < table.size()) return false;
  const uint32_t channels = 3 + header_.mattes;
  static const int kByteOf[4] = {2, 1, 0, 3};  // R, G, B, matte into B, G, R, A
  for (uint32_t y = 0; y < h && (y + 1) * 4 <= table_got; ++y) {
    uint8_t* row = &pixels_[size_t(y) * w * 4];
    if (!header_.mattes)
      for (uint32_t x = 0; x < w; ++x) row[x * 4 + 3] = 255;
    uint64_t at = Be32(&table[size_t(y) * 4]);
    for (uint32_t c = 0; c < channels; ++c) {
      uint8_t count[2];
      *cut_row = y;
      if (!source->ReadExact(at, count, 2)) return false;
      const uint32_t length = Be16(count);
      if (!TryResize(line, length)) return false;
      const size_t got = source->ReadAt(at + 2, line.data(), length);
      if (got < length) return false;
      std::fill(channel.begin(), channel.end(), uint8_t(0));
      RlaDecodeChannel(line.data(), got, channel.data(), w);
      for (uint32_t x = 0; x < w; ++x) row[x * 4 + kByteOf[c]] = channel[x];
      at += 2 + uint64_t(length);
    }
  }
  return true;
}

int RlaReader::Read(uint32_t index, StreamFrame* frame, StreamError* error) {
  if (index != 0) return StreamFail(error, STREAM_ERROR_END, "RLA: no frame %u", index);
  if (!decoded_) {
    uint32_t cut_row = 0;
    if (!Decode(&cut_row))
      return StreamFail(error, STREAM_ERROR_CORRUPT, "RLA: the picture data is cut short at row %u", cut_row);
    decoded_ = true;
  }
  const int32_t pitch = int32_t(header_.width * 4);
  frame->pixels = pixels_.data() + size_t(header_.height - 1) * size_t(pitch);
  frame->pitch = -pitch;
  frame->depth = 32;
  frame->bytes = bytes_;
  frame->palette = nullptr;
  frame->palette_changed = 0;
  return 1;
}

}  // namespace

bool RlaParseHeader(const uint8_t* h, size_t size, RlaHeader* out) {
  if (size < kHeaderSize) return false;
  const int16_t left = int16_t(Be16(h + 8)), right = int16_t(Be16(h + 10));
  const int16_t bottom = int16_t(Be16(h + 12)), top = int16_t(Be16(h + 14));
  if (right < left || top < bottom) return false;
  out->width = uint32_t(right - left + 1);
  out->height = uint32_t(top - bottom + 1);
  out->storage_type = Be16(h + 18);
  out->channels = Be16(h + 20);
  out->mattes = Be16(h + 22);
  out->channel_bits = Be16(h + 658);
  out->matte_bits = Be16(h + 662);
  return true;
}

bool RlaHeaderSupported(const RlaHeader& h) {
  return h.channels == 3 && h.channel_bits == 8 && (h.mattes == 0 || (h.mattes == 1 && h.matte_bits == 8)) &&
         h.storage_type <= 1;
}

size_t RlaDecodeChannel(const uint8_t* data, size_t size, uint8_t* out, size_t width) {
  size_t in = 0, x = 0;
  while (in < size && x < width) {
    const int count = int8_t(data[in++]);
    if (count < 0) {
      const size_t n = std::min({size_t(-count), size - in, width - x});
      std::memcpy(out + x, data + in, n);
      in += size_t(-count);
      x += n;
    } else {
      if (in >= size) break;
      const uint8_t v = data[in++];
      const size_t n = std::min(size_t(count) + 1, width - x);
      std::memset(out + x, v, n);
      x += n;
    }
  }
  return x;
}

StreamReader* OpenRlaSource(std::unique_ptr<ByteSource> source, StreamError* error) {
  auto reader = std::make_unique<RlaReader>();
  reader->source = std::move(source);
  if (!reader->Open(error)) return nullptr;
  return reader.release();
}

}  // namespace orn::media

using namespace orn::media;

// RLA has no signature: the extension must say so and the header must be one this reader takes.
static int ProbeRla(const uint8_t* head, size_t size, const char* name) {
  RlaHeader h;
  return NameHasExtension(name, ".rla") && head && RlaParseHeader(head, size, &h) && RlaHeaderSupported(h);
}

static StreamReader* OpenRlaPath(const char* path, StreamError* error) {
  return OpenPath(&kStreamReaderRla, OpenRlaSource, path, false, error);
}

static StreamReader* OpenRlaMemory(const uint8_t* data, size_t size, StreamError* error) {
  return OpenMemory(&kStreamReaderRla, OpenRlaSource, data, size, error);
}

extern "C" const StreamReaderOps kStreamReaderRla = {STREAM_FORMAT_RLA, "RLA", ".rla", ProbeRla, OpenRlaPath,
                                                    OpenRlaMemory};
