// Raw 8-bit frame files: "RAWB", then 32-bit frames, width, height and a signed speed (a
// positive speed counts 1/100000 second, otherwise 1/1000 second with the sign removed). Each
// frame is a sequence of 32-bit markers: 0 is followed by a 768-byte palette and another marker,
// 1 by width x height bytes of pixels, and any other value is a frame with no data, in which
// the previous picture stands.
#include "media/readers/stream_internal.h"

#include <algorithm>

namespace orn::media {

namespace {

constexpr uint64_t kHeaderSize = 20;
constexpr uint32_t kMarkerPalette = 0;
constexpr uint32_t kMarkerPixels = 1;

class RawReader final : public StreamReader {
 public:
  bool Open(StreamError* error);
  int Read(uint32_t index, StreamFrame* frame, StreamError* error) override;

 private:
  bool Step(StreamError* error);
  void Restart();

  std::vector<uint8_t> pixels_;
  uint32_t pitch_ = 0;
  uint8_t palette_[768] = {};
  uint64_t position_ = kHeaderSize;  // the next frame's first marker
  bool cut_short_ = false;  // the frame on hand was cut by the end of the file
  int64_t current_ = -1;
  uint32_t last_bytes_ = 0;
  bool palette_changed_ = false;
};

bool RawReader::Open(StreamError* error) {
  uint8_t h[kHeaderSize];
  if (!source->ReadExact(0, h, sizeof h) || std::memcmp(h, "RAWB", 4) != 0)
    return StreamFail(error, STREAM_ERROR_FORMAT, "raw frames: no RAWB header");
  const uint32_t frames = Le32(h + 4), width = Le32(h + 8), height = Le32(h + 12);
  const int32_t speed = int32_t(Le32(h + 16));
  if (frames == 0 || width == 0 || height == 0) return StreamFail(error, STREAM_ERROR_CORRUPT, "raw frames: empty header");
  if (width > STREAM_MAX_DIMENSION || height > STREAM_MAX_DIMENSION || uint64_t(width) * height > STREAM_MAX_PIXELS)
    return StreamFail(error, STREAM_ERROR_TOO_LARGE, "raw frames: %ux%u is too large", width, height);
  if (speed > 0) {
    info.rate_num = 100000;
    info.rate_den = uint32_t(speed);
  } else {
    info.rate_num = speed ? 1000 : 15;
    info.rate_den = speed ? uint32_t(-int64_t(speed)) : 1;
  }
  info.width = width;
  info.height = height;
  info.frame_count = frames;
  info.depth = 8;
  info.seekable = 1;
  info.total_bytes = source->Size();
  // A file that cannot hold one frame of pixels is no raw frame file (and must not cost a
  // giant buffer).
  if (source->Size() < kHeaderSize + 4 + uint64_t(width) * height)
    return StreamFail(error, STREAM_ERROR_CORRUPT, "raw frames: file too short for one frame");
  // Every frame takes at least its 4-byte marker: a count the file cannot hold is a lie.
  const uint64_t room = (source->Size() - kHeaderSize) / 4;
  if (frames > room)
    return StreamFail(error, STREAM_ERROR_CORRUPT, "raw frames: the header claims %u frames; the file holds at most %llu",
                      frames, (unsigned long long)room);
  pitch_ = (width + 3) & ~3u;
  if (!TryResize(pixels_, size_t(pitch_) * height)) return StreamFail(error, STREAM_ERROR_MEMORY, "raw frames: out of memory");
  StreamFrame first;
  if (!Read(0, &first, error)) return false;
  std::memcpy(info.palette, palette_, sizeof palette_);
  palette_changed_ = true;
  return true;
}

void RawReader::Restart() {
  std::fill(pixels_.begin(), pixels_.end(), uint8_t(0));
  std::memset(palette_, 0, sizeof palette_);
  position_ = kHeaderSize;
  current_ = -1;
}

// Reads the markers and pixels of the next frame.
bool RawReader::Step(StreamError* error) {
  const uint64_t start = position_;
  const uint64_t frame_bytes = uint64_t(info.width) * info.height;
  uint8_t before[768];
  std::memcpy(before, palette_, sizeof before);
  for (;;) {
    uint8_t m[4];
    if (!source->ReadExact(position_, m, 4)) return StreamFail(error, STREAM_ERROR_CORRUPT, "raw frames: frame %lld missing", (long long)current_ + 1);
    position_ += 4;
    const uint32_t marker = Le32(m);
    if (marker == kMarkerPalette) {
      uint8_t palette[768];
      if (!source->ReadExact(position_, palette, sizeof palette)) return StreamFail(error, STREAM_ERROR_CORRUPT, "raw frames: palette truncated");
      position_ += sizeof palette;
      std::memcpy(palette_, palette, sizeof palette);
      continue;
    }
    if (marker == kMarkerPixels) {
      // Only the last frame may be cut by the end of the file (a capture that was stopped): it
      // keeps the old pixels where its data stops. Any other short frame is damage.
      cut_short_ = false;
      for (uint32_t y = 0; y < info.height; ++y) {
        const size_t got = source->ReadAt(position_ + uint64_t(y) * info.width, &pixels_[size_t(y) * pitch_], info.width);
        if (got == info.width) continue;
        if (current_ + 2 < int64_t(info.frame_count))
          return StreamFail(error, STREAM_ERROR_CORRUPT, "raw frames: frame %lld is cut short at row %u",
                            (long long)current_ + 2, y);
        cut_short_ = true;
        break;
      }
      position_ += frame_bytes;
    }
    break;
  }
  if (std::memcmp(before, palette_, sizeof before) != 0) palette_changed_ = true;
  last_bytes_ = uint32_t(std::min<uint64_t>(position_ - start, UINT32_MAX));
  ++current_;
  return true;
}

int RawReader::Read(uint32_t index, StreamFrame* frame, StreamError* error) {
  if (index >= info.frame_count) return StreamFail(error, STREAM_ERROR_END, "raw frames: no frame %u", index);
  if (int64_t(index) < current_) Restart();
  // Frames before the wanted one are decoded too: their palettes and pixels carry over.
  while (current_ < int64_t(index)) {
    if (!Step(error)) return 0;
  }
  frame->pixels = pixels_.data();
  frame->pitch = int32_t(pitch_);
  frame->depth = 8;
  frame->bytes = last_bytes_;
  frame->palette = palette_;
  frame->palette_changed = palette_changed_ ? 1 : 0;
  frame->cut_short = cut_short_ ? 1 : 0;
  palette_changed_ = false;
  return 1;
}

}  // namespace

StreamReader* OpenRawSource(std::unique_ptr<ByteSource> source, StreamError* error) {
  auto reader = std::make_unique<RawReader>();
  reader->source = std::move(source);
  if (!reader->Open(error)) return nullptr;
  return reader.release();
}

}  // namespace orn::media

using namespace orn::media;

static int ProbeRaw(const uint8_t* head, size_t size, const char*) {
  return head && size >= 4 && std::memcmp(head, "RAWB", 4) == 0;
}

static StreamReader* OpenRawPath(const char* path, StreamError* error) {
  return OpenPath(&kStreamReaderRaw, OpenRawSource, path, false, error);
}

static StreamReader* OpenRawMemory(const uint8_t* data, size_t size, StreamError* error) {
  return OpenMemory(&kStreamReaderRaw, OpenRawSource, data, size, error);
}

extern "C" const StreamReaderOps kStreamReaderRaw = {STREAM_FORMAT_RAW, "raw frames", ".raw", ProbeRaw, OpenRawPath,
                                                    OpenRawMemory};
