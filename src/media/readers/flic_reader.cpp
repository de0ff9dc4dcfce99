// Flic animations (.fli, .flc): a 128-byte header, then frame chunks (0xF1FA) holding sub-chunks
// that change an 8-bit canvas and its palette. The chunk after the last frame, the ring frame,
// turns the last picture back into the first, so a loop needs no rewind.
#include "media/readers/flic_codec.h"
#include "media/readers/stream_internal.h"

#include <algorithm>

namespace orn::media {

namespace {

constexpr uint16_t kMagicFli = 0xAF11;
constexpr uint16_t kMagicFlc = 0xAF12;
constexpr uint16_t kFrameChunk = 0xF1FA;
constexpr size_t kHeaderSize = 128;
constexpr size_t kFrameHeaderSize = 16;
constexpr int kMaxSkippedChunks = 64;  // non-frame chunks tolerated between two frames

class FlicReader final : public StreamReader {
 public:
  bool Open(StreamError* error);
  int Read(uint32_t index, StreamFrame* frame, StreamError* error) override;

 private:
  bool SkipToFrame(uint64_t* at);
  bool FindFrame(uint32_t index, uint64_t* offset, uint32_t* size);
  bool DecodeAt(uint32_t index, StreamError* error);
  void Restart();
  void Describe(StreamFrame* frame, uint32_t bytes);

  FlicCanvas canvas_{};
  std::vector<uint8_t> pixels_;
  std::vector<uint8_t> chunk_;
  std::vector<uint64_t> offsets_;  // frame chunk positions found so far, frame 0 first
  uint32_t frames_ = 0;            // frames without the ring frame
  int64_t current_ = -1;           // frame on the canvas, -1 before the first
  uint32_t last_bytes_ = 0;
  bool changed_since_read_ = false;
};

bool FlicReader::Open(StreamError* error) {
  uint8_t h[kHeaderSize];
  if (!source->ReadExact(0, h, sizeof h)) return StreamFail(error, STREAM_ERROR_FORMAT, "Flic: header too short");
  const uint16_t magic = Le16(h + 4);
  if (magic != kMagicFli && magic != kMagicFlc) return StreamFail(error, STREAM_ERROR_FORMAT, "Flic: bad magic");
  frames_ = Le16(h + 6);
  const uint32_t width = Le16(h + 8), height = Le16(h + 10), depth = Le16(h + 12);
  if (frames_ == 0 || width == 0 || height == 0) return StreamFail(error, STREAM_ERROR_CORRUPT, "Flic: empty header");
  if (depth != 0 && depth != 8) return StreamFail(error, STREAM_ERROR_UNSUPPORTED, "Flic: depth %u", depth);
  if (uint64_t(width) * height > STREAM_MAX_PIXELS)
    return StreamFail(error, STREAM_ERROR_TOO_LARGE, "Flic: %ux%u is too large", width, height);

  if (magic == kMagicFli) {
    const uint32_t jiffies = Le16(h + 16);  // 1/70 second
    info.rate_num = jiffies ? 70 : 15;
    info.rate_den = jiffies ? jiffies : 1;
  } else {
    const int32_t speed = int32_t(Le32(h + 16));
    if (speed < 0) {
      info.rate_num = 100000;
      info.rate_den = uint32_t(-int64_t(speed));
    } else {
      info.rate_num = speed ? 1000 : 15;
      info.rate_den = speed ? uint32_t(speed) : 1;
    }
  }
  uint64_t first = kHeaderSize;
  const uint32_t frame1 = Le32(h + 80);
  if (magic == kMagicFlc && frame1 >= kHeaderSize && frame1 < source->Size()) first = frame1;
  if (!SkipToFrame(&first)) return StreamFail(error, STREAM_ERROR_CORRUPT, "Flic: no frame chunk");
  // Every frame takes at least its chunk header: a count the file cannot hold is a lie.
  const uint64_t room = (source->Size() - first) / kFrameHeaderSize;
  if (frames_ > room)
    return StreamFail(error, STREAM_ERROR_CORRUPT, "Flic: the header claims %u frames; the file holds at most %llu",
                      frames_, (unsigned long long)room);
  offsets_.push_back(first);

  SetTypeName(&info, "Flic");
  info.width = width;
  info.height = height;
  info.frame_count = frames_;
  info.depth = 8;
  info.seekable = 1;
  info.total_bytes = source->Size();
  if (!TryResize(pixels_, size_t(width) * height)) return StreamFail(error, STREAM_ERROR_MEMORY, "Flic: out of memory");
  canvas_.width = width;
  canvas_.height = height;
  canvas_.pixels = pixels_.data();

  // Every frame the header counts must have its chunk in the file: the walk over the chunk
  // headers costs little, and a count that the file does not hold is refused here rather than
  // met frame by frame.
  uint64_t last_offset = 0;
  uint32_t last_size = 0;
  if (!FindFrame(frames_ - 1, &last_offset, &last_size))
    return StreamFail(error, STREAM_ERROR_CORRUPT, "Flic: the header claims %u frames; the file holds %zu",
                      frames_, offsets_.size());
  // The first frame is decoded now: it proves the file and gives the starting palette.
  if (!DecodeAt(0, error)) return false;
  current_ = 0;
  std::memcpy(info.palette, canvas_.palette, sizeof info.palette);
  changed_since_read_ = true;
  return true;
}

// Steps from the chunk at `at` over chunks of other kinds (prefix, segment tables) to the next
// frame chunk; false when there is none.
bool FlicReader::SkipToFrame(uint64_t* at) {
  uint8_t h[6];
  for (int skipped = 0; skipped <= kMaxSkippedChunks; ++skipped) {
    if (!source->ReadExact(*at, h, sizeof h)) return false;
    if (Le16(h + 4) == kFrameChunk) return true;
    if (Le32(h) < 6) return false;
    *at += Le32(h);
  }
  return false;
}

// Finds frame chunk `index` (the ring frame is index frames_), walking chunks as far as needed.
bool FlicReader::FindFrame(uint32_t index, uint64_t* offset, uint32_t* size) {
  uint8_t h[6];
  while (offsets_.size() <= index) {
    uint64_t at = offsets_.back();
    if (!source->ReadExact(at, h, sizeof h) || Le32(h) < kFrameHeaderSize) return false;
    at += Le32(h);
    if (!SkipToFrame(&at)) return false;
    offsets_.push_back(at);
  }
  *offset = offsets_[index];
  if (!source->ReadExact(*offset, h, sizeof h)) return false;
  *size = Le32(h);
  return *size >= kFrameHeaderSize;
}

bool FlicReader::DecodeAt(uint32_t index, StreamError* error) {
  uint64_t offset = 0;
  uint32_t size = 0;
  if (!FindFrame(index, &offset, &size))
    return StreamFail(error, STREAM_ERROR_CORRUPT, "Flic: frame %u is missing (the file ends at byte %llu)", index + 1,
                      (unsigned long long)source->Size());
  // A frame chunk that the file does not hold whole is damage, not a frame to guess at.
  if (size > source->Size() - offset)
    return StreamFail(error, STREAM_ERROR_CORRUPT, "Flic: frame %u is cut short: %llu of its %u bytes are in the file",
                      index + 1, (unsigned long long)(source->Size() - offset), size);
  // A frame never needs more than a raw copy of the canvas, a palette and chunk headers.
  const size_t cap = size_t(canvas_.width) * canvas_.height * 2 + 65536;
  const size_t take = std::min<size_t>(size, cap);
  if (!TryResize(chunk_, take)) return StreamFail(error, STREAM_ERROR_MEMORY, "Flic: out of memory");
  const size_t got = source->ReadAt(offset, chunk_.data(), take);
  if (got < kFrameHeaderSize) return StreamFail(error, STREAM_ERROR_CORRUPT, "Flic: frame %u truncated", index);
  if (FlicDecodeFrame(&canvas_, chunk_.data(), got)) changed_since_read_ = true;
  last_bytes_ = size;
  return true;
}

void FlicReader::Restart() {
  std::fill(pixels_.begin(), pixels_.end(), uint8_t(0));
  std::memset(canvas_.palette, 0, sizeof canvas_.palette);
  current_ = -1;
}

void FlicReader::Describe(StreamFrame* frame, uint32_t bytes) {
  frame->pixels = pixels_.data();
  frame->pitch = int32_t(canvas_.width);
  frame->depth = 8;
  frame->bytes = bytes;
  frame->palette = canvas_.palette;
  frame->palette_changed = changed_since_read_ ? 1 : 0;
  changed_since_read_ = false;
}

int FlicReader::Read(uint32_t index, StreamFrame* frame, StreamError* error) {
  if (index >= frames_) return StreamFail(error, STREAM_ERROR_END, "Flic: no frame %u", index);
  if (int64_t(index) == current_) {
    Describe(frame, last_bytes_);
    return 1;
  }
  if (index == 0 && current_ == int64_t(frames_) - 1 && frames_ > 1 && DecodeAt(frames_, nullptr)) {
    current_ = 0;  // the ring frame led back to the first picture
  } else {
    if (int64_t(index) < current_) Restart();
    while (current_ < int64_t(index)) {
      if (!DecodeAt(uint32_t(current_ + 1), error)) return 0;
      ++current_;
    }
  }
  Describe(frame, last_bytes_);
  return 1;
}

}  // namespace

StreamReader* OpenFlicSource(std::unique_ptr<ByteSource> source, StreamError* error) {
  auto reader = std::make_unique<FlicReader>();
  reader->source = std::move(source);
  if (!reader->Open(error)) return nullptr;
  return reader.release();
}

}  // namespace orn::media

using namespace orn::media;

static int ProbeFlic(const uint8_t* head, size_t size, const char*) {
  if (!head || size < 16) return 0;
  const uint16_t magic = Le16(head + 4);
  return (magic == 0xAF11 || magic == 0xAF12) && Le16(head + 6) && Le16(head + 8) && Le16(head + 10);
}

static StreamReader* OpenFlicPath(const char* path, StreamError* error) {
  return OpenPath(&kStreamReaderFlic, OpenFlicSource, path, false, error);
}

static StreamReader* OpenFlicMemory(const uint8_t* data, size_t size, StreamError* error) {
  return OpenMemory(&kStreamReaderFlic, OpenFlicSource, data, size, error);
}

extern "C" const StreamReaderOps kStreamReaderFlic = {STREAM_FORMAT_FLIC, "Flic", ".flc .fli", ProbeFlic,
                                                     OpenFlicPath, OpenFlicMemory};
