// AVI files by a RIFF parser of our own: the header list (avih, one strl list per stream with
// strh, strf, indx), the movi lists of the first RIFF and of any AVIX extensions, and the
// indexes. The frame index comes from the OpenDML super index (indx pointing at ix## standard
// indexes) when the video stream has one, else from idx1, else from a walk over the movi lists.
// Video: uncompressed 8-bit (with palette), 16-bit 5-5-5, 24 and 32-bit, and Motion-JPEG.
// Sound streams are not decoded; their formats and chunk positions are kept for the sound layer,
// which may also open a file for its sound alone (any video coding, or no video stream).
#include "media/readers/mjpeg_codec.h"
#include "media/readers/stream_internal.h"

#include <algorithm>
#include <set>

namespace orn::media {

namespace {

constexpr uint32_t kMaxHeaderList = 16u << 20;      // bytes of the hdrl list read into memory
constexpr uint32_t kMaxIndexEntries = 8u << 20;     // index entries per stream
constexpr uint32_t kMaxSuperEntries = 1u << 16;     // standard indexes behind one super index
constexpr uint32_t kMaxWalkedChunks = 8u << 20;     // chunks visited when no index exists
constexpr uint32_t kMaxTopChunks = 1u << 16;        // top-level chunks and RIFF extensions
constexpr uint64_t kMaxFrameBytes = 1ull << 30;     // an uncompressed frame, and a compressed one

// A chunk's data position (behind its header) and size; the same record the sound layer gets.
using IndexEntry = StreamAudioChunk;

struct StreamDesc {
  uint32_t type = 0;  // 'vids', 'auds', ...
  uint32_t handler = 0;
  uint32_t scale = 0, rate = 0, start = 0, length = 0, sample_size = 0;
  std::vector<uint8_t> format;  // strf
  std::vector<uint8_t> index;   // indx, body only
  std::vector<IndexEntry> entries;
};

struct MoviRange {
  uint64_t list;  // position of the 'movi' word (idx1 offsets count from here)
  uint64_t end;
};

enum class VideoCoding { kUncompressed, kMjpeg };

// Two decimal digits at the start of a chunk id give its stream number; -1 otherwise.
int StreamNumberOf(uint32_t id) {
  const int a = int(id & 0xFF) - '0', b = int(id >> 8 & 0xFF) - '0';
  if (a < 0 || a > 9 || b < 0 || b > 9) return -1;
  return a * 10 + b;
}

class AviReader final : public StreamReader {
 public:
  explicit AviReader(bool sound_only) : sound_only_(sound_only) {}
  bool Open(StreamError* error);
  int Read(uint32_t index, StreamFrame* frame, StreamError* error) override;
  uint32_t AudioTrackCount() const override { return uint32_t(audio_.size()); }
  int AudioTrack(uint32_t index, StreamAudioTrack* track) const override;

 private:
  bool OpenSound(StreamError* error);
  bool ReadTopLevel(StreamError* error);
  bool ParseHeaderList(uint64_t at, uint32_t size, StreamError* error);
  void ParseStreamList(const uint8_t* d, size_t size);
  bool SetUpVideo(StreamError* error);
  void IndexFromSuper(StreamDesc* stream);
  void ReadStandardIndex(uint64_t at, StreamDesc* stream, std::vector<IndexEntry>* out);
  void IndexFromIdx1();
  void IndexByWalking();
  void AddChunk(uint32_t id, uint64_t data, uint32_t size);
  bool Decode(uint32_t entry, StreamError* error);

  std::vector<StreamDesc> streams_;
  std::vector<MoviRange> movi_;
  uint64_t idx1_at_ = 0;
  uint32_t idx1_size_ = 0;
  uint32_t avih_usec_ = 0;
  uint32_t avih_frames_ = 0;
  int video_ = -1;
  std::vector<int> audio_;  // stream numbers of the sound streams
  bool sound_only_;         // opened for the sound: no video is set up, no frames are read

  VideoCoding coding_ = VideoCoding::kUncompressed;
  uint32_t bits_ = 0;
  uint32_t stride_ = 0;
  bool bottom_up_ = true;
  uint8_t palette_[768] = {};
  std::vector<uint8_t> pixels_;
  std::vector<uint8_t> compressed_;
  MjpegBuffers jpeg_;
  int64_t decoded_ = -1;  // index entry whose picture is in pixels_
  bool cut_short_ = false;  // the decoded chunk reaches past the end of the file
  uint32_t last_bytes_ = 0;
};

bool AviReader::Open(StreamError* error) {
  uint8_t h[12];
  if (!source->ReadExact(0, h, 12) || std::memcmp(h, "RIFF", 4) != 0 || std::memcmp(h + 8, "AVI ", 4) != 0)
    return StreamFail(error, STREAM_ERROR_FORMAT, "AVI: no RIFF AVI header");
  if (!ReadTopLevel(error)) return false;
  for (size_t i = 0; i < streams_.size(); ++i) {
    if (streams_[i].type == FourCC("vids") && video_ < 0) video_ = int(i);
    if (streams_[i].type == FourCC("auds")) audio_.push_back(int(i));
  }
  if (sound_only_) return OpenSound(error);
  if (video_ < 0) return StreamFail(error, STREAM_ERROR_UNSUPPORTED, "AVI: no video stream");
  if (!SetUpVideo(error)) return false;

  // Indexes: OpenDML super indexes per stream, then idx1 for streams still without one, then a walk.
  for (auto& stream : streams_) IndexFromSuper(&stream);
  const bool any_empty =
      std::any_of(streams_.begin(), streams_.end(), [](const StreamDesc& s) { return s.entries.empty(); });
  if (any_empty && idx1_size_) IndexFromIdx1();
  if (streams_[size_t(video_)].entries.empty()) IndexByWalking();
  const auto& entries = streams_[size_t(video_)].entries;
  if (entries.empty()) return StreamFail(error, STREAM_ERROR_CORRUPT, "AVI: no video frames");

  const StreamDesc& v = streams_[size_t(video_)];
  if (v.rate && v.scale) {
    info.rate_num = v.rate;
    info.rate_den = v.scale;
  } else if (avih_usec_) {
    info.rate_num = 1000000;
    info.rate_den = avih_usec_;
  } else {
    info.rate_num = 15;
    info.rate_den = 1;
  }
  info.frame_count = uint32_t(entries.size());
  info.has_sound = audio_.empty() ? 0 : 1;
  info.seekable = 1;
  info.total_bytes = source->Size();
  std::memcpy(info.palette, palette_, sizeof palette_);
  return true;
}

// The sound streams alone: the first one's OpenDML index, else idx1, else a walk over the movi
// lists. Other streams keep what the same index or walk names of them.
bool AviReader::OpenSound(StreamError* error) {
  if (audio_.empty()) return StreamFail(error, STREAM_ERROR_UNSUPPORTED, "AVI: no sound stream");
  video_ = -1;
  StreamDesc& first = streams_[size_t(audio_[0])];
  IndexFromSuper(&first);
  if (first.entries.empty() && idx1_size_) IndexFromIdx1();
  if (first.entries.empty()) IndexByWalking();
  info.has_sound = 1;
  info.rate_num = 1;
  info.rate_den = 1;
  info.total_bytes = source->Size();
  SetTypeName(&info, "AVI (sound)");
  return true;
}

// Walks the top-level chunks of the first RIFF and of the AVIX extensions behind it.
bool AviReader::ReadTopLevel(StreamError* error) {
  const uint64_t file_size = source->Size();
  uint64_t riff = 0;
  bool have_header = false;
  for (uint32_t visits = 0; riff + 12 <= file_size && visits < kMaxTopChunks; ++visits) {
    uint8_t h[12];
    if (!source->ReadExact(riff, h, 12) || std::memcmp(h, "RIFF", 4) != 0) break;
    const bool first = riff == 0;
    if (!first && std::memcmp(h + 8, "AVIX", 4) != 0) break;
    const uint64_t riff_end = std::min<uint64_t>(riff + 8 + Le32(h + 4), file_size);
    uint64_t at = riff + 12;
    for (; at + 8 <= riff_end && visits < kMaxTopChunks; ++visits) {
      uint8_t c[12];
      if (!source->ReadExact(at, c, 8)) break;
      const uint32_t id = Le32(c), size = Le32(c + 4);
      const uint64_t next = at + 8 + size + (size & 1);
      if (id == FourCC("LIST") && source->ReadExact(at + 8, c + 8, 4)) {
        const uint32_t kind = Le32(c + 8);
        if (first && kind == FourCC("hdrl") && !have_header) {
          if (!ParseHeaderList(at + 12, size >= 4 ? size - 4 : 0, error)) return false;
          have_header = true;
        } else if (kind == FourCC("movi")) {
          movi_.push_back({at + 8, std::min<uint64_t>(next, riff_end)});
        }
      } else if (first && id == FourCC("idx1")) {
        idx1_at_ = at + 8;
        idx1_size_ = uint32_t(std::min<uint64_t>(size, riff_end - idx1_at_));
      }
      at = next;
    }
    // RIFF sizes of files that were never finished may be wrong; the next RIFF starts at the end.
    riff = riff + 8 + uint64_t(Le32(h + 4)) + (Le32(h + 4) & 1);
  }
  if (!have_header) return StreamFail(error, STREAM_ERROR_CORRUPT, "AVI: no header list");
  return true;
}

bool AviReader::ParseHeaderList(uint64_t at, uint32_t size, StreamError* error) {
  const uint64_t left = source->Size() > at ? source->Size() - at : 0;
  size = uint32_t(std::min<uint64_t>({size, kMaxHeaderList, left}));
  std::vector<uint8_t> d;
  if (!TryResize(d, size)) return StreamFail(error, STREAM_ERROR_MEMORY, "AVI: out of memory");
  d.resize(source->ReadAt(at, d.data(), size));
  size_t p = 0;
  while (p + 8 <= d.size()) {
    const uint32_t id = Le32(&d[p]);
    const size_t len = std::min<size_t>(Le32(&d[p + 4]), d.size() - p - 8);
    const uint8_t* body = &d[p + 8];
    if (id == FourCC("avih") && len >= 40) {
      avih_usec_ = Le32(body);
      avih_frames_ = Le32(body + 16);
    } else if (id == FourCC("LIST") && len >= 4 && Le32(body) == FourCC("strl")) {
      ParseStreamList(body + 4, len - 4);
    } else if (id == FourCC("LIST") && len >= 4 && Le32(body) == FourCC("odml")) {
      // dmlh holds the total frame count over all RIFFs; the index gives the same.
    }
    p += 8 + len + (len & 1);
  }
  return true;
}

void AviReader::ParseStreamList(const uint8_t* d, size_t size) {
  if (streams_.size() >= 100) return;  // stream numbers have two digits
  StreamDesc s;
  size_t p = 0;
  while (p + 8 <= size) {
    const uint32_t id = Le32(d + p);
    const size_t len = std::min<size_t>(Le32(d + p + 4), size - p - 8);
    const uint8_t* body = d + p + 8;
    if (id == FourCC("strh") && len >= 48) {
      s.type = Le32(body);
      s.handler = Le32(body + 4);
      s.scale = Le32(body + 20);
      s.rate = Le32(body + 24);
      s.start = Le32(body + 28);
      s.length = Le32(body + 32);
      s.sample_size = Le32(body + 44);
    } else if (id == FourCC("strf")) {
      s.format.assign(body, body + len);
    } else if (id == FourCC("indx")) {
      s.index.assign(body, body + len);
    }
    p += 8 + len + (len & 1);
  }
  streams_.push_back(std::move(s));
}

bool AviReader::SetUpVideo(StreamError* error) {
  const StreamDesc& v = streams_[size_t(video_)];
  if (v.format.size() < 40) return StreamFail(error, STREAM_ERROR_CORRUPT, "AVI: no bitmap header");
  const uint8_t* f = v.format.data();
  const int32_t width = int32_t(Le32(f + 4)), height = int32_t(Le32(f + 8));
  const uint32_t bits = Le16(f + 14), compression = Le32(f + 16), header_size = Le32(f);
  const int64_t abs_height = height < 0 ? -int64_t(height) : height;
  if (width <= 0 || abs_height == 0) return StreamFail(error, STREAM_ERROR_CORRUPT, "AVI: empty picture");
  if (width > STREAM_MAX_DIMENSION || abs_height > STREAM_MAX_DIMENSION ||
      uint64_t(width) * uint64_t(abs_height) > STREAM_MAX_PIXELS)
    return StreamFail(error, STREAM_ERROR_TOO_LARGE, "AVI: %dx%lld is too large", width, (long long)abs_height);
  info.width = uint32_t(width);
  info.height = uint32_t(abs_height);

  const bool uncompressed = compression == 0 || compression == FourCC("DIB ") || compression == FourCC("RAW ");
  const bool bitfields_555 = compression == 3 && bits == 16 && v.format.size() >= 52 && Le32(f + 40) == 0x7C00 &&
                             Le32(f + 44) == 0x03E0 && Le32(f + 48) == 0x001F;
  if (uncompressed || bitfields_555) {
    if (bits != 8 && bits != 16 && bits != 24 && bits != 32)
      return StreamFail(error, STREAM_ERROR_UNSUPPORTED, "AVI: uncompressed %u-bit video", bits);
    coding_ = VideoCoding::kUncompressed;
    bits_ = bits;
    stride_ = ((uint32_t(width) * bits + 31) / 32) * 4;
    bottom_up_ = height > 0;
    info.depth = bits;
    info.has_alpha = bits == 32 ? 1 : 0;
    SetTypeName(&info, "AVI (uncompressed)");
    if (bits == 8) {
      // RGBQUAD entries behind the header, as many as stated (all 256 when 0).
      const uint32_t used = Le32(f + 32);
      const uint32_t count = std::min<uint32_t>(used ? used : 256, 256);
      const size_t base = std::min<size_t>(std::max<uint32_t>(header_size, 40), v.format.size());
      for (uint32_t i = 0; i < count && base + i * 4 + 3 <= v.format.size(); ++i) {
        palette_[i * 3 + 0] = f[base + i * 4 + 2];
        palette_[i * 3 + 1] = f[base + i * 4 + 1];
        palette_[i * 3 + 2] = f[base + i * 4 + 0];
      }
    }
    return true;
  }
  if (compression == FourCC("MJPG") || compression == FourCC("mjpg")) {
    coding_ = VideoCoding::kMjpeg;
    stride_ = uint32_t(width) * 4;
    bottom_up_ = false;
    info.depth = 32;
    SetTypeName(&info, "AVI (Motion-JPEG)");
    return true;
  }
  char name[5] = {char(compression), char(compression >> 8), char(compression >> 16), char(compression >> 24), 0};
  for (char& c : name)
    if (c && (c < 32 || c > 126)) c = '?';
  return StreamFail(error, STREAM_ERROR_UNSUPPORTED, "AVI: video coding '%s' is not read", name);
}

// Reads one ix## standard index (entries of 2 or more 32-bit words) and appends its chunks.
void AviReader::ReadStandardIndex(uint64_t at, StreamDesc* stream, std::vector<IndexEntry>* out) {
  uint8_t h[32];
  if (!source->ReadExact(at, h, sizeof h)) return;
  const uint32_t size = Le32(h + 4);
  const uint32_t longs = Le16(h + 8);
  const uint8_t type = h[11];
  if (type != 1 || longs < 2 || size < 24) return;  // not an index of chunks
  const uint64_t base = Le64(h + 20);
  const uint64_t stride = uint64_t(longs) * 4;
  const uint64_t count = std::min<uint64_t>(Le32(h + 12), (size - 24) / stride);
  std::vector<uint8_t> block;
  const uint64_t per_block = 4096;
  for (uint64_t done = 0; done < count && out->size() < kMaxIndexEntries;) {
    const uint64_t n = std::min(per_block, count - done);
    if (!TryResize(block, size_t(n * stride))) return;
    const size_t got = source->ReadAt(at + 32 + done * stride, block.data(), block.size());
    const uint64_t whole = got / stride;
    for (uint64_t i = 0; i < whole && out->size() < kMaxIndexEntries; ++i) {
      const uint8_t* e = &block[size_t(i * stride)];
      out->push_back({base + Le32(e), Le32(e + 4) & 0x7FFFFFFFu});
    }
    if (whole < n) return;
    done += n;
  }
}

// The super index in the stream's indx chunk: entries of 16 bytes, each naming an ix## chunk.
// A standard index named twice is read once, so that a looping index cannot multiply frames.
void AviReader::IndexFromSuper(StreamDesc* stream) {
  const std::vector<uint8_t>& x = stream->index;
  if (x.size() < 24) return;
  const uint32_t longs = Le16(&x[0]);
  const uint8_t type = x[3];
  if (type == 1) {
    // An index of chunks in the header itself: same layout as a standard index body.
    const uint64_t base = x.size() >= 20 ? Le64(&x[12]) : 0;
    const size_t stride = size_t(std::max<uint32_t>(longs, 2)) * 4;
    const size_t count = std::min<size_t>(Le32(&x[4]), (x.size() - 24) / stride);
    for (size_t i = 0; i < count && stream->entries.size() < kMaxIndexEntries; ++i)
      stream->entries.push_back({base + Le32(&x[24 + i * stride]), Le32(&x[28 + i * stride]) & 0x7FFFFFFFu});
    return;
  }
  if (type != 0 || longs != 4) return;
  const size_t count = std::min<size_t>({Le32(&x[4]), (x.size() - 24) / 16, kMaxSuperEntries});
  std::set<uint64_t> seen;
  for (size_t i = 0; i < count; ++i) {
    const uint64_t at = Le64(&x[24 + i * 16]);
    if (!seen.insert(at).second) continue;
    ReadStandardIndex(at, stream, &stream->entries);
  }
}

void AviReader::AddChunk(uint32_t id, uint64_t data, uint32_t size) {
  const int n = StreamNumberOf(id);
  if (n < 0 || size_t(n) >= streams_.size()) return;
  StreamDesc& s = streams_[size_t(n)];
  if (s.entries.size() >= kMaxIndexEntries) return;
  const uint32_t kind = id >> 16;
  const bool video_chunk = kind == ('d' | 'b' << 8) || kind == ('d' | 'c' << 8);
  const bool audio_chunk = kind == ('w' | 'b' << 8);
  if ((s.type == FourCC("vids") && video_chunk) || (s.type == FourCC("auds") && audio_chunk))
    s.entries.push_back({data, size});
}

// idx1 entries (id, flags, offset, size) count their offsets from the 'movi' word, or in some
// writers' files from the start of the file: the first entry tells which.
void AviReader::IndexFromIdx1() {
  const uint64_t movi = movi_.empty() ? 0 : movi_[0].list;
  const uint32_t count = idx1_size_ / 16;
  std::vector<uint8_t> block;
  uint64_t base = movi;
  bool base_known = false;
  // Streams that already have an OpenDML index keep it.
  std::vector<bool> filled(streams_.size());
  for (size_t i = 0; i < streams_.size(); ++i) filled[i] = !streams_[i].entries.empty();
  for (uint32_t done = 0; done < count;) {
    const uint32_t n = std::min<uint32_t>(4096, count - done);
    if (!TryResize(block, size_t(n) * 16)) return;
    const size_t got = source->ReadAt(idx1_at_ + uint64_t(done) * 16, block.data(), block.size()) / 16;
    for (size_t i = 0; i < got; ++i) {
      const uint8_t* e = &block[i * 16];
      const uint32_t id = Le32(e), offset = Le32(e + 8), size = Le32(e + 12);
      const int stream = StreamNumberOf(id);
      if (stream < 0 || size_t(stream) >= streams_.size() || filled[size_t(stream)]) continue;
      if (!base_known) {
        uint8_t c[4];
        if (!(source->ReadExact(movi + offset, c, 4) && Le32(c) == id) && source->ReadExact(offset, c, 4) &&
            Le32(c) == id)
          base = 0;
        base_known = true;
      }
      AddChunk(id, base + offset + 8, size);
    }
    if (got < n) break;
    done += n;
  }
}

// Without an index, the movi lists are walked chunk by chunk ('rec ' lists are entered).
void AviReader::IndexByWalking() {
  for (auto& s : streams_) s.entries.clear();
  uint32_t visits = 0;
  for (const MoviRange& range : movi_) {
    uint64_t at = range.list + 4;
    while (at + 8 <= range.end && visits++ < kMaxWalkedChunks) {
      uint8_t c[12];
      if (!source->ReadExact(at, c, 8)) break;
      const uint32_t id = Le32(c), size = Le32(c + 4);
      if (id == FourCC("LIST")) {
        at += 12;  // step inside: its chunks follow
        continue;
      }
      AddChunk(id, at + 8, size);
      at += 8 + uint64_t(size) + (size & 1);
    }
  }
}

// Decodes the picture of one index entry into pixels_. A chunk that the file does not hold
// whole is an error, except for the last frame of a recording that was cut off: that one is
// decoded as far as it goes (cut_short_ tells the caller).
bool AviReader::Decode(uint32_t entry, StreamError* error) {
  const auto& entries = streams_[size_t(video_)].entries;
  const IndexEntry& e = entries[entry];
  const size_t frame_bytes = size_t(stride_) * info.height;
  if (pixels_.size() < frame_bytes && !TryResize(pixels_, frame_bytes))
    return StreamFail(error, STREAM_ERROR_MEMORY, "AVI: out of memory");
  const uint64_t size = source->Size();
  cut_short_ = e.offset > size || e.size > size - e.offset;
  if (cut_short_ && entry + 1 < entries.size())
    return StreamFail(error, STREAM_ERROR_CORRUPT, "AVI: frame %u lies beyond the end of the file (byte %llu)",
                      entry + 1, (unsigned long long)size);
  if (coding_ == VideoCoding::kUncompressed) {
    // A short chunk leaves the rest of the picture black.
    const size_t got = source->ReadAt(e.offset, pixels_.data(), std::min<size_t>(e.size, frame_bytes));
    std::fill(pixels_.begin() + ptrdiff_t(got), pixels_.begin() + ptrdiff_t(frame_bytes), uint8_t(0));
  } else {
    const uint64_t left = source->Size() > e.offset ? source->Size() - e.offset : 0;
    const size_t take = size_t(std::min<uint64_t>({e.size, kMaxFrameBytes, left}));
    if (!TryResize(compressed_, take)) return StreamFail(error, STREAM_ERROR_MEMORY, "AVI: out of memory");
    const size_t got = source->ReadAt(e.offset, compressed_.data(), take);
    MjpegDecodeFrame(&jpeg_, compressed_.data(), got, pixels_.data(), ptrdiff_t(stride_), info.width, info.height);
  }
  decoded_ = entry;
  return true;
}

int AviReader::Read(uint32_t index, StreamFrame* frame, StreamError* error) {
  if (video_ < 0) return StreamFail(error, STREAM_ERROR_END, "AVI: opened for its sound, no frames");
  const auto& entries = streams_[size_t(video_)].entries;
  if (index >= entries.size()) return StreamFail(error, STREAM_ERROR_END, "AVI: no frame %u", index);
  // An empty chunk is a dropped frame: the last picture before it stands.
  uint32_t entry = index;
  while (entry > 0 && entries[entry].size == 0) --entry;
  if (int64_t(entry) != decoded_ && entries[entry].size && !Decode(entry, error)) return 0;
  if (pixels_.empty() && !TryResize(pixels_, size_t(stride_) * info.height))
    return StreamFail(error, STREAM_ERROR_MEMORY, "AVI: out of memory");
  last_bytes_ = entries[index].size;
  const ptrdiff_t pitch = ptrdiff_t(stride_);
  frame->pixels = bottom_up_ ? pixels_.data() + (ptrdiff_t(info.height) - 1) * pitch : pixels_.data();
  frame->pitch = int32_t(bottom_up_ ? -pitch : pitch);
  frame->depth = info.depth;
  frame->bytes = last_bytes_;
  frame->palette = info.depth == 8 ? palette_ : nullptr;
  frame->palette_changed = (info.depth == 8 && index == 0) ? 1 : 0;
  frame->cut_short = int64_t(entry) == decoded_ && cut_short_ ? 1 : 0;
  return 1;
}

int AviReader::AudioTrack(uint32_t index, StreamAudioTrack* track) const {
  if (index >= audio_.size()) return 0;
  const StreamDesc& s = streams_[size_t(audio_[index])];
  std::memset(track, 0, sizeof *track);
  const std::vector<uint8_t>& f = s.format;
  if (f.size() >= 16) {
    track->format_tag = Le16(&f[0]);
    track->channels = Le16(&f[2]);
    track->samples_per_second = Le32(&f[4]);
    track->bytes_per_second = Le32(&f[8]);
    track->block_align = Le16(&f[12]);
    track->bits_per_sample = Le16(&f[14]);
  }
  if (f.size() >= 18) {
    track->extra_size = uint16_t(std::min<size_t>(Le16(&f[16]), f.size() - 18));
    track->extra = track->extra_size ? &f[18] : nullptr;
  }
  track->scale = s.scale;
  track->rate = s.rate;
  track->sample_size = s.sample_size;
  track->start = s.start;
  track->chunk_count = uint32_t(s.entries.size());
  track->chunks = s.entries.data();
  for (const IndexEntry& e : s.entries) track->total_bytes += e.size;
  return 1;
}

}  // namespace

StreamReader* OpenAviSource(std::unique_ptr<ByteSource> source, StreamError* error) {
  auto reader = std::make_unique<AviReader>(false);
  reader->source = std::move(source);
  if (!reader->Open(error)) return nullptr;
  return reader.release();
}

static StreamReader* OpenAviSoundSource(std::unique_ptr<ByteSource> source, StreamError* error) {
  auto reader = std::make_unique<AviReader>(true);
  reader->source = std::move(source);
  if (!reader->Open(error)) return nullptr;
  return reader.release();
}

}  // namespace orn::media

using namespace orn::media;

static int ProbeAvi(const uint8_t* head, size_t size, const char*) {
  return head && size >= 12 && std::memcmp(head, "RIFF", 4) == 0 && std::memcmp(head + 8, "AVI ", 4) == 0;
}

static StreamReader* OpenAviPath(const char* path, StreamError* error) {
  return OpenPath(&kStreamReaderAvi, OpenAviSource, path, false, error);
}

static StreamReader* OpenAviMemory(const uint8_t* data, size_t size, StreamError* error) {
  return OpenMemory(&kStreamReaderAvi, OpenAviSource, data, size, error);
}

extern "C" const StreamReaderOps kStreamReaderAvi = {STREAM_FORMAT_AVI, "AVI", ".avi", ProbeAvi, OpenAviPath,
                                                    OpenAviMemory};

extern "C" StreamReader* StreamReaderOpenAviSound(const char* path, StreamError* error) {
  return OpenPath(&kStreamReaderAvi, OpenAviSoundSource, path, false, error);
}
