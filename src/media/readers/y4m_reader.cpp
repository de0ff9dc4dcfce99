// YUV4MPEG2 streams (.y4m): a text header line "YUV4MPEG2" with parameters W, H, F, I, A, C
// and X, then frames, each a "FRAME" line and the Y, Cb, Cr (and alpha) planes of 8-bit samples.
// Chroma forms 4:2:0 (all sitings, taken as centred), 4:2:2, 4:4:4, 4:4:4 with alpha and mono.
// Pixels are turned into 32-bit B, G, R, A with BT.601 in limited range, or full range when the
// header says XCOLORRANGE=FULL. Chroma is repeated over the pixels it covers.
// The name "-" reads the standard input: frames only in order, the count known at the end.
#include "media/readers/stream_internal.h"

#include <algorithm>
#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>

namespace orn::media {

namespace {

constexpr size_t kMaxLine = 4096;
constexpr uint32_t kMaxScannedFrames = 10000000;

enum Chroma { kChroma420, kChroma422, kChroma444, kChroma444Alpha, kChromaMono };

struct Layout {
  Chroma chroma = kChroma420;
  uint32_t chroma_width = 0, chroma_height = 0;
  uint64_t luma_bytes = 0, chroma_bytes = 0, frame_bytes = 0;
};

// Fixed-point BT.601 tables, 16 fraction bits.
struct YuvTables {
  int32_t y[256], rv[256], gu[256], gv[256], bu[256];

  void Build(bool full_range) {
    const double ys = full_range ? 1.0 : 255.0 / 219.0;
    const double cs = full_range ? 1.0 : 255.0 / 224.0;
    const double y0 = full_range ? 0.0 : 16.0;
    for (int i = 0; i < 256; ++i) {
      const double c = (i - 128) * cs;
      y[i] = int32_t(std::lround((i - y0) * ys * 65536.0));
      rv[i] = int32_t(std::lround(1.402 * c * 65536.0));
      gu[i] = int32_t(std::lround(0.344136 * c * 65536.0));
      gv[i] = int32_t(std::lround(0.714136 * c * 65536.0));
      bu[i] = int32_t(std::lround(1.772 * c * 65536.0));
    }
  }
};

inline uint8_t Clamp16(int32_t v) {
  v = (v + 32768) >> 16;
  return uint8_t(v < 0 ? 0 : v > 255 ? 255 : v);
}

class Y4mReader final : public StreamReader {
 public:
  bool Open(StreamError* error);
  int Read(uint32_t index, StreamFrame* frame, StreamError* error) override;

 private:
  bool ReadLine(uint64_t* at, std::string* line);
  bool ParseHeader(const std::string& line, StreamError* error);
  bool ScanFrames(StreamError* error);
  int ReadFrameAt(uint64_t at, std::vector<uint8_t>* planes, uint32_t* bytes, StreamError* error);
  int NextFromPipe(StreamError* error);
  void ReadAhead();
  void Convert();
  StreamPlanes Planes() const;

  Layout layout_;
  YuvTables tables_{};
  bool full_range_ = false;
  uint64_t data_start_ = 0;         // first FRAME line
  std::vector<uint64_t> offsets_;   // FRAME line positions (seekable files)
  uint64_t pipe_position_ = 0;      // next FRAME line (pipes)
  int64_t current_ = -1;
  bool converted_ = false;          // pixels_ holds the picture of frame current_
  uint32_t last_bytes_ = 0;
  std::vector<uint8_t> planes_;
  std::vector<uint8_t> pixels_;
  // Pipes: the frame after the current one, read ahead.
  enum { kAheadNone, kAheadReady, kAheadFailed } ahead_ = kAheadNone;
  std::vector<uint8_t> ahead_planes_;
  uint32_t ahead_bytes_ = 0;
  StreamError ahead_error_{};
};

// Reads one line ending in a newline, at most kMaxLine bytes; `at` moves behind it.
bool Y4mReader::ReadLine(uint64_t* at, std::string* line) {
  line->clear();
  char buffer[256];
  while (line->size() < kMaxLine) {
    // Files are read in blocks; a pipe byte by byte so that nothing past the line is taken.
    const size_t want = source->Seekable() ? sizeof buffer : 1;
    const size_t got = source->ReadAt(*at, buffer, want);
    if (got == 0) return false;
    for (size_t i = 0; i < got; ++i) {
      if (buffer[i] == '\n') {
        *at += i + 1;
        return true;
      }
      line->push_back(buffer[i]);
    }
    *at += got;
  }
  return false;
}

// Parses "n:d"; false unless both are positive numbers.
bool ParseRatio(const char* s, uint32_t* num, uint32_t* den) {
  char* end = nullptr;
  const unsigned long n = std::strtoul(s, &end, 10);
  if (end == s || *end != ':') return false;
  const char* d_text = end + 1;
  const unsigned long d = std::strtoul(d_text, &end, 10);
  if (end == d_text || (*end && *end != ' ')) return false;
  if (n > UINT32_MAX || d > UINT32_MAX) return false;
  *num = uint32_t(n);
  *den = uint32_t(d);
  return true;
}

bool Y4mReader::ParseHeader(const std::string& line, StreamError* error) {
  if (line.compare(0, 10, "YUV4MPEG2 ") != 0 && line != "YUV4MPEG2")
    return StreamFail(error, STREAM_ERROR_FORMAT, "y4m: no YUV4MPEG2 header");
  std::string chroma = "420jpeg";
  uint64_t width = 0, height = 0;
  size_t at = 9;
  while (at < line.size()) {
    while (at < line.size() && line[at] == ' ') ++at;
    const size_t end = std::min(line.find(' ', at), line.size());
    if (end == at) break;
    const std::string token = line.substr(at, end - at);
    const char* value = token.c_str() + 1;
    switch (token[0]) {
      case 'W': width = std::strtoull(value, nullptr, 10); break;
      case 'H': height = std::strtoull(value, nullptr, 10); break;
      case 'F':
        // "F0:0" says the rate is unknown; a rate with only one side zero cannot be true.
        if (!ParseRatio(value, &info.rate_num, &info.rate_den) || (info.rate_num == 0) != (info.rate_den == 0))
          return StreamFail(error, STREAM_ERROR_CORRUPT, "y4m: the frame rate %s cannot be true", token.c_str());
        break;
      case 'A':
        if (!ParseRatio(value, &info.aspect_num, &info.aspect_den)) info.aspect_num = info.aspect_den = 0;
        break;
      case 'I':
        info.interlace = *value == 't' ? 1 : *value == 'b' ? 2 : *value == 'm' ? 3 : 0;
        break;
      case 'C': chroma = value; break;
      case 'X':
        if (token == "XCOLORRANGE=FULL") full_range_ = true;
        if (token == "XCOLORRANGE=LIMITED") full_range_ = false;
        break;
      default: break;
    }
    at = end;
  }
  if (width == 0 || height == 0) return StreamFail(error, STREAM_ERROR_CORRUPT, "y4m: no picture size");
  if (width > STREAM_MAX_DIMENSION || height > STREAM_MAX_DIMENSION || width * height > STREAM_MAX_PIXELS)
    return StreamFail(error, STREAM_ERROR_TOO_LARGE, "y4m: %llux%llu is too large", (unsigned long long)width,
                      (unsigned long long)height);
  if (info.rate_num == 0 || info.rate_den == 0) {
    info.rate_num = 25;  // the format's assumed rate when none is stated
    info.rate_den = 1;
  }
  Layout& l = layout_;
  const uint32_t w = uint32_t(width), h = uint32_t(height);
  if (chroma.compare(0, 3, "420") == 0 && (chroma.size() == 3 || chroma == "420jpeg" || chroma == "420mpeg2" ||
                                            chroma == "420paldv")) {
    l.chroma = kChroma420;
    l.chroma_width = (w + 1) / 2;
    l.chroma_height = (h + 1) / 2;
  } else if (chroma == "422") {
    l.chroma = kChroma422;
    l.chroma_width = (w + 1) / 2;
    l.chroma_height = h;
  } else if (chroma == "444") {
    l.chroma = kChroma444;
    l.chroma_width = w;
    l.chroma_height = h;
  } else if (chroma == "444alpha") {
    l.chroma = kChroma444Alpha;
    l.chroma_width = w;
    l.chroma_height = h;
  } else if (chroma == "mono") {
    l.chroma = kChromaMono;
  } else {
    return StreamFail(error, STREAM_ERROR_UNSUPPORTED, "y4m: chroma form %s", chroma.c_str());
  }
  l.luma_bytes = uint64_t(w) * h;
  l.chroma_bytes = uint64_t(l.chroma_width) * l.chroma_height;
  l.frame_bytes = l.luma_bytes * (l.chroma == kChroma444Alpha ? 2 : 1) + 2 * l.chroma_bytes;
  info.width = w;
  info.height = h;
  info.has_alpha = l.chroma == kChroma444Alpha ? 1 : 0;
  return true;
}

// Finds every whole frame of a file; a last frame that is cut short is not counted.
bool Y4mReader::ScanFrames(StreamError* error) {
  uint64_t at = data_start_;
  const uint64_t size = source->Size();
  std::string line;
  while (at < size && offsets_.size() < kMaxScannedFrames) {
    uint64_t next = at;
    if (!ReadLine(&next, &line)) {
      if (!line.empty()) info.cut_tail = 1;  // the file ends inside a frame header
      break;
    }
    if (line.compare(0, 5, "FRAME") != 0) break;
    if (next + layout_.frame_bytes > size) {
      info.cut_tail = 1;
      break;
    }
    offsets_.push_back(at);
    at = next + layout_.frame_bytes;
  }
  if (offsets_.empty()) return StreamFail(error, STREAM_ERROR_CORRUPT, "y4m: no complete frame");
  info.frame_count = uint32_t(offsets_.size());
  return true;
}

bool Y4mReader::Open(StreamError* error) {
  std::string line;
  uint64_t at = 0;
  if (!ReadLine(&at, &line)) return StreamFail(error, STREAM_ERROR_FORMAT, "y4m: no header line");
  if (!ParseHeader(line, error)) return false;
  data_start_ = pipe_position_ = at;
  // A file must hold a whole frame before its buffers are allocated.
  if (source->Seekable() && !ScanFrames(error)) return false;
  const bool pipe = !source->Seekable();
  if (!TryResize(planes_, size_t(layout_.frame_bytes)) || !TryResize(pixels_, size_t(info.width) * info.height * 4) ||
      (pipe && !TryResize(ahead_planes_, size_t(layout_.frame_bytes))))
    return StreamFail(error, STREAM_ERROR_MEMORY, "y4m: out of memory");
  tables_.Build(full_range_);
  SetTypeName(&info, "YUV4MPEG2");
  info.depth = 32;
  info.seekable = source->Seekable() ? 1 : 0;
  info.total_bytes = source->Size();
  return true;
}

void Y4mReader::Convert() {
  const uint32_t w = info.width, h = info.height;
  const uint8_t* luma = planes_.data();
  const uint8_t* cb = luma + layout_.luma_bytes;
  const uint8_t* cr = cb + layout_.chroma_bytes;
  const uint8_t* alpha = cr + layout_.chroma_bytes;
  const bool mono = layout_.chroma == kChromaMono;
  const bool has_alpha = layout_.chroma == kChroma444Alpha;
  const uint32_t hshift = layout_.chroma_width < w ? 1 : 0;
  const uint32_t vshift = layout_.chroma_height < h ? 1 : 0;
  for (uint32_t y = 0; y < h; ++y) {
    const uint8_t* ly = luma + size_t(y) * w;
    const size_t crow = size_t(y >> vshift) * layout_.chroma_width;
    uint8_t* out = &pixels_[size_t(y) * w * 4];
    for (uint32_t x = 0; x < w; ++x, out += 4) {
      const int32_t yy = tables_.y[ly[x]];
      const uint8_t u = mono ? 128 : cb[crow + (x >> hshift)];
      const uint8_t v = mono ? 128 : cr[crow + (x >> hshift)];
      out[0] = Clamp16(yy + tables_.bu[u]);
      out[1] = Clamp16(yy - tables_.gu[u] - tables_.gv[v]);
      out[2] = Clamp16(yy + tables_.rv[v]);
      out[3] = has_alpha ? alpha[size_t(y) * w + x] : 255;
    }
  }
}

// Reads the frame whose FRAME line starts at `at` into `planes`; `*bytes` is what it took.
int Y4mReader::ReadFrameAt(uint64_t at, std::vector<uint8_t>* planes, uint32_t* bytes, StreamError* error) {
  const uint64_t start = at;
  std::string line;
  if (!ReadLine(&at, &line)) {
    if (line.empty()) return StreamFail(error, STREAM_ERROR_END, "y4m: end of stream");
    info.cut_tail = 1;  // the stream ends inside a frame header
    return StreamFail(error, STREAM_ERROR_END, "y4m: last frame cut short");
  }
  if (line.compare(0, 5, "FRAME") != 0) return StreamFail(error, STREAM_ERROR_CORRUPT, "y4m: frame header missing");
  if (!source->ReadExact(at, planes->data(), planes->size())) {
    info.cut_tail = 1;  // a pipe that ends inside a frame: the frame is left out
    return StreamFail(error, STREAM_ERROR_END, "y4m: last frame cut short");
  }
  pipe_position_ = at + planes->size();
  *bytes = uint32_t(std::min<uint64_t>(pipe_position_ - start, UINT32_MAX));
  return 1;
}

// The next frame of a pipe into planes_: the one read ahead, or else a fresh read.
int Y4mReader::NextFromPipe(StreamError* error) {
  if (ahead_ == kAheadNone) return ReadFrameAt(pipe_position_, &planes_, &last_bytes_, error);
  const bool ready = ahead_ == kAheadReady;
  ahead_ = kAheadNone;
  if (!ready) {
    if (error) *error = ahead_error_;
    return 0;
  }
  planes_.swap(ahead_planes_);
  last_bytes_ = ahead_bytes_;
  return 1;
}

// A pipe tells where it ends, and whether its last frame is whole, only to a read: the frame
// after the current one is read ahead, so that the current one is known to be the last.
void Y4mReader::ReadAhead() {
  if (ahead_ != kAheadNone || info.frame_count) return;
  ahead_error_ = StreamError{};
  if (ReadFrameAt(pipe_position_, &ahead_planes_, &ahead_bytes_, &ahead_error_)) {
    ahead_ = kAheadReady;
    return;
  }
  ahead_ = kAheadFailed;
  if (ahead_error_.code == STREAM_ERROR_END) info.frame_count = uint32_t(current_ + 1);
}

int Y4mReader::Read(uint32_t index, StreamFrame* frame, StreamError* error) {
  if (int64_t(index) != current_) {
    if (source->Seekable()) {
      if (index >= offsets_.size()) return StreamFail(error, STREAM_ERROR_END, "y4m: no frame %u", index);
      if (!ReadFrameAt(offsets_[index], &planes_, &last_bytes_, error)) return 0;
    } else {
      if (int64_t(index) < current_) return StreamFail(error, STREAM_ERROR_SEEK, "y4m: frame %u lies behind the pipe's position", index);
      while (current_ < int64_t(index)) {
        if (!NextFromPipe(error)) {
          if (error && error->code == STREAM_ERROR_END) info.frame_count = uint32_t(current_ + 1);
          return 0;
        }
        ++current_;
      }
      ReadAhead();
    }
    current_ = index;
    converted_ = false;  // the picture is made when it is asked for
  }
  frame->planes = Planes();
  // A caller that takes the planes alone is spared the conversion.
  const bool planes_alone = planes_only && frame->planes.plane[0];
  if (!planes_alone && !converted_) {
    Convert();
    converted_ = true;
  }
  frame->pixels = planes_alone ? nullptr : pixels_.data();
  frame->pitch = int32_t(info.width * 4);
  frame->depth = 32;
  frame->bytes = last_bytes_;
  frame->palette = nullptr;
  frame->palette_changed = 0;
  return 1;
}

// The frame's planes as the file holds them; 4:2:2 and mono frames have none to give.
StreamPlanes Y4mReader::Planes() const {
  StreamPlanes p{};
  const Chroma c = layout_.chroma;
  if (c != kChroma420 && c != kChroma444 && c != kChroma444Alpha) return p;
  const uint8_t* luma = planes_.data();
  p.plane[0] = luma;
  p.plane[1] = luma + layout_.luma_bytes;
  p.plane[2] = p.plane[1] + layout_.chroma_bytes;
  p.plane[3] = c == kChroma444Alpha ? p.plane[2] + layout_.chroma_bytes : nullptr;
  p.pitch[0] = p.pitch[3] = int32_t(info.width);
  p.pitch[1] = p.pitch[2] = int32_t(layout_.chroma_width);
  p.chroma_shift = c == kChroma420 ? 1 : 0;
  p.full_range = full_range_ ? 1 : 0;
  return p;
}

}  // namespace

StreamReader* OpenY4mSource(std::unique_ptr<ByteSource> source, StreamError* error) {
  auto reader = std::make_unique<Y4mReader>();
  reader->source = std::move(source);
  if (!reader->Open(error)) return nullptr;
  return reader.release();
}

}  // namespace orn::media

using namespace orn::media;

static int ProbeY4m(const uint8_t* head, size_t size, const char*) {
  return head && size >= 10 && std::memcmp(head, "YUV4MPEG2 ", 10) == 0;
}

static StreamReader* OpenY4mPath(const char* path, StreamError* error) {
  return OpenPath(&kStreamReaderY4m, OpenY4mSource, path, true, error);
}

static StreamReader* OpenY4mMemory(const uint8_t* data, size_t size, StreamError* error) {
  return OpenMemory(&kStreamReaderY4m, OpenY4mSource, data, size, error);
}

extern "C" const StreamReaderOps kStreamReaderY4m = {STREAM_FORMAT_Y4M, "YUV4MPEG2", ".y4m", ProbeY4m, OpenY4mPath,
                                                    OpenY4mMemory};
