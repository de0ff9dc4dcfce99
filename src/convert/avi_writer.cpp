// AVI container writer (RIFF with OpenDML extensions). See avi_writer.h.
#include "convert/avi_writer.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <vector>

#include "host/bfile.h"

namespace {

constexpr uint32_t FourCC(const char* t) {
  return uint32_t(uint8_t(t[0])) | uint32_t(uint8_t(t[1])) << 8 | uint32_t(uint8_t(t[2])) << 16 |
         uint32_t(uint8_t(t[3])) << 24;
}

constexpr uint32_t AviFlagHasIndex = 0x10;
constexpr uint32_t AviFlagInterleaved = 0x100;
constexpr uint32_t Idx1KeyFrame = 0x10;
constexpr uint32_t DefaultIndexCapacity = 1024;
constexpr uint32_t DmlhBytes = 248;
constexpr int StreamCount = 2;

struct IndexEntry {
  uint64_t offset;  // file position of the chunk's data
  uint32_t size;
};

struct SuperEntry {
  uint64_t offset;  // file position of the ix chunk
  uint32_t size;    // the ix chunk with its header
  uint32_t duration;
};

struct Idx1Entry {
  uint32_t id, flags, offset, size;
};

struct StreamState {
  uint32_t chunkId = 0;
  uint32_t indexId = 0;
  std::vector<IndexEntry> segment;  // chunks of the current RIFF segment
  std::vector<SuperEntry> supers;
  uint64_t chunks = 0;
  uint64_t bytes = 0;
  uint32_t largest = 0;
};

// Little-endian bytes assembled in memory before they go out in one write.
struct Bytes {
  std::vector<uint8_t> data;
  void U8(uint32_t v) { data.push_back(uint8_t(v)); }
  void U16(uint32_t v) { U8(v); U8(v >> 8); }
  void U32(uint32_t v) { U16(v & 0xFFFF); U16(v >> 16); }
  void U64(uint64_t v) { U32(uint32_t(v)); U32(uint32_t(v >> 32)); }
  void Zeros(size_t n) { data.insert(data.end(), n, 0); }
  size_t Mark() const { return data.size(); }
  void Patch32(size_t at, uint32_t v) {
    for (int i = 0; i < 4; ++i) data[at + i] = uint8_t(v >> (8 * i));
  }
  // Opens a chunk or list; returns the position of its size field.
  size_t Open(uint32_t id, uint32_t listType = 0) {
    U32(id);
    size_t at = Mark();
    U32(0);
    if (listType) U32(listType);
    return at;
  }
  void Close(size_t sizeAt) {
    Patch32(sizeAt, uint32_t(data.size() - sizeAt - 4));
    if (data.size() & 1) U8(0);
  }
};

}  // namespace

struct AviFile {
  OutFile out{};                // the file under its temporary name until the close
  BufferedFile* file = nullptr;  // out.File
  AviVideoFormat format{};
  uint64_t riffLimit = 0;
  uint32_t capacity = 0;
  bool hasSound = false;
  uint32_t soundRate = 0, soundBits = 0, soundChannels = 0, blockAlign = 0;
  StreamState streams[StreamCount];
  std::vector<Idx1Entry> idx1;
  uint64_t headerRoom = 0;  // bytes from 12 to the first movi list
  uint64_t riffStart = 0;
  uint64_t moviStart = 0;  // position of the 'LIST' of the current movi
  uint64_t position = 0;   // end of what was written
  int segment = 0;
  uint32_t firstRiffSize = 0;
  uint32_t firstRiffFrames = 0;
  bool firstDone = false;
  bool failed = false;
};

namespace {

uint32_t IndexBytes(uint32_t capacity) { return 8 + 24 + 16 * capacity; }

// The largest header list, with a sound stream, plus a JUNK header.
uint64_t HeaderRoom(uint32_t capacity) {
  const uint64_t avih = 8 + 56;
  const uint64_t video = 12 + (8 + 56) + (8 + 40) + IndexBytes(capacity);
  const uint64_t sound = 12 + (8 + 56) + (8 + 18) + IndexBytes(capacity);
  const uint64_t odml = 12 + 8 + DmlhBytes;
  return 12 + avih + video + sound + odml + 8;
}

void Emit(AviFile* avi, const void* data, size_t bytes) {
  if (FileWrite(avi->file, data, bytes) != bytes || avi->file->WriteError) avi->failed = true;
  avi->position += bytes;
}

void EmitBytes(AviFile* avi, const Bytes& b) { Emit(avi, b.data.data(), b.data.size()); }

// Rewrites bytes at an earlier position and comes back to the end.
void PatchAt(AviFile* avi, uint64_t at, const Bytes& b) {
  FileSeek(avi->file, at);
  if (FileWrite(avi->file, b.data.data(), b.data.size()) != b.data.size()) avi->failed = true;
  FileSeek(avi->file, avi->position);
}

void Patch32At(AviFile* avi, uint64_t at, uint32_t value) {
  Bytes b;
  b.U32(value);
  PatchAt(avi, at, b);
}

void StartMovi(AviFile* avi) {
  avi->moviStart = avi->position;
  Bytes b;
  b.U32(FourCC("LIST"));
  b.U32(0);
  b.U32(FourCC("movi"));
  EmitBytes(avi, b);
}

// Bytes that the indexes of the current segment will take, with `extra` more chunks of `stream`.
uint64_t PendingIndexBytes(const AviFile* avi, int stream, uint32_t extra) {
  uint64_t total = 0;
  for (int s = 0; s < StreamCount; ++s) {
    uint64_t n = avi->streams[s].segment.size() + (s == stream ? extra : 0);
    if (n) total += 8 + 24 + 8 * n;
  }
  if (avi->segment == 0) total += 8 + 16 * (avi->idx1.size() + extra);
  return total;
}

uint32_t SegmentDuration(const AviFile* avi, int stream) {
  const StreamState& st = avi->streams[stream];
  if (stream == 0) return uint32_t(st.segment.size());
  uint64_t bytes = 0;
  for (const IndexEntry& e : st.segment) bytes += e.size;
  return avi->blockAlign ? uint32_t(bytes / avi->blockAlign) : 0;
}

void WriteStandardIndex(AviFile* avi, int stream) {
  StreamState& st = avi->streams[stream];
  if (st.segment.empty()) return;
  if (st.supers.size() >= avi->capacity) {
    avi->failed = true;
    return;
  }
  const uint64_t at = avi->position;
  Bytes b;
  size_t sizeAt = b.Open(st.indexId);
  b.U16(2);  // longs per entry
  b.U8(0);   // sub type
  b.U8(1);   // index of chunks
  b.U32(uint32_t(st.segment.size()));
  b.U32(st.chunkId);
  b.U64(avi->riffStart);
  b.U32(0);
  for (const IndexEntry& e : st.segment) {
    b.U32(uint32_t(e.offset - avi->riffStart));
    b.U32(e.size);  // bit 31 clear: a key frame
  }
  b.Close(sizeAt);
  EmitBytes(avi, b);
  st.supers.push_back({at, uint32_t(b.data.size()), SegmentDuration(avi, stream)});
}

void EndSegment(AviFile* avi) {
  for (int s = 0; s < StreamCount; ++s) WriteStandardIndex(avi, s);
  Patch32At(avi, avi->moviStart + 4, uint32_t(avi->position - avi->moviStart - 8));
  if (avi->segment == 0) {
    Bytes b;
    size_t sizeAt = b.Open(FourCC("idx1"));
    for (const Idx1Entry& e : avi->idx1) {
      b.U32(e.id);
      b.U32(e.flags);
      b.U32(e.offset);
      b.U32(e.size);
    }
    b.Close(sizeAt);
    EmitBytes(avi, b);
    avi->firstRiffSize = uint32_t(avi->position - 8);
    avi->firstRiffFrames = uint32_t(avi->streams[0].segment.size());
    avi->firstDone = true;
  } else {
    Patch32At(avi, avi->riffStart + 4, uint32_t(avi->position - avi->riffStart - 8));
  }
  for (StreamState& st : avi->streams) st.segment.clear();
}

void StartSegment(AviFile* avi) {
  ++avi->segment;
  avi->riffStart = avi->position;
  Bytes b;
  b.U32(FourCC("RIFF"));
  b.U32(0);
  b.U32(FourCC("AVIX"));
  EmitBytes(avi, b);
  StartMovi(avi);
}

bool WriteChunk(AviFile* avi, int stream, const void* data, uint32_t bytes) {
  if (!avi || avi->failed) return false;
  StreamState& st = avi->streams[stream];
  const uint64_t padded = bytes + (bytes & 1);
  const bool segmentHasChunks = !avi->streams[0].segment.empty() || !avi->streams[1].segment.empty();
  const uint64_t needed =
      avi->position + 8 + padded - avi->riffStart + PendingIndexBytes(avi, stream, 1);
  if (segmentHasChunks && needed > avi->riffLimit) {
    EndSegment(avi);
    // A new segment needs one more super index entry at its end.
    for (const StreamState& s : avi->streams)
      if (s.supers.size() >= avi->capacity) avi->failed = true;
    if (avi->failed) return false;
    StartSegment(avi);
    if (avi->failed) return false;
  }
  const uint64_t chunkAt = avi->position;
  Bytes head;
  head.U32(st.chunkId);
  head.U32(bytes);
  EmitBytes(avi, head);
  Emit(avi, data, bytes);
  if (bytes & 1) {
    const uint8_t zero = 0;
    Emit(avi, &zero, 1);
  }
  st.segment.push_back({chunkAt + 8, bytes});
  if (avi->segment == 0)
    avi->idx1.push_back({st.chunkId, stream == 0 ? Idx1KeyFrame : 0,
                         uint32_t(chunkAt - (avi->moviStart + 8)), bytes});
  ++st.chunks;
  st.bytes += bytes;
  st.largest = std::max(st.largest, bytes);
  return !avi->failed;
}

void WriteSuperIndex(Bytes& b, const AviFile* avi, int stream) {
  const StreamState& st = avi->streams[stream];
  size_t sizeAt = b.Open(FourCC("indx"));
  b.U16(4);  // longs per entry
  b.U8(0);
  b.U8(0);  // index of indexes
  b.U32(uint32_t(st.supers.size()));
  b.U32(st.chunkId);
  b.Zeros(12);
  for (const SuperEntry& e : st.supers) {
    b.U64(e.offset);
    b.U32(e.size);
    b.U32(e.duration);
  }
  b.Zeros(16 * (avi->capacity - st.supers.size()));
  b.Close(sizeAt);
}

void WriteStreamHeader(Bytes& b, uint32_t type, uint32_t handler, uint32_t scale, uint32_t rate,
                       uint32_t length, uint32_t buffer, uint32_t sampleSize, int width,
                       int height) {
  size_t at = b.Open(FourCC("strh"));
  b.U32(type);
  b.U32(handler);
  b.U32(0);  // flags
  b.U16(0);  // priority
  b.U16(0);  // language
  b.U32(0);  // initial frames
  b.U32(scale);
  b.U32(rate);
  b.U32(0);  // start
  b.U32(length);
  b.U32(buffer);
  b.U32(0xFFFFFFFF);  // quality
  b.U32(sampleSize);
  b.U16(0);
  b.U16(0);
  b.U16(uint32_t(width));
  b.U16(uint32_t(height));
  b.Close(at);
}

uint32_t RowBytes(const AviVideoFormat& f) { return ((uint32_t(f.bits) * f.width + 31) / 32) * 4; }

void BuildHeader(Bytes& b, const AviFile* avi) {
  const AviVideoFormat& f = avi->format;
  const StreamState& video = avi->streams[0];
  const StreamState& sound = avi->streams[1];
  b.U32(FourCC("RIFF"));
  b.U32(avi->firstRiffSize);
  b.U32(FourCC("AVI "));
  size_t hdrl = b.Open(FourCC("LIST"), FourCC("hdrl"));

  const uint32_t usPerFrame = f.rate_num ? uint32_t(uint64_t(f.rate_den) * 1000000 / f.rate_num) : 0;
  const uint64_t videoRate = f.rate_den ? uint64_t(video.largest) * f.rate_num / f.rate_den : 0;
  const uint64_t soundRate = avi->hasSound ? uint64_t(avi->blockAlign) * avi->soundRate : 0;
  size_t avih = b.Open(FourCC("avih"));
  b.U32(usPerFrame);
  b.U32(uint32_t(std::min<uint64_t>(videoRate + soundRate, 0xFFFFFFFF)));
  b.U32(0);
  b.U32(AviFlagHasIndex | AviFlagInterleaved);
  b.U32(avi->firstRiffFrames);
  b.U32(0);
  b.U32(avi->hasSound ? 2 : 1);
  b.U32(std::max(video.largest, sound.largest) + 8);
  b.U32(uint32_t(f.width));
  b.U32(uint32_t(f.height));
  b.Zeros(16);
  b.Close(avih);

  size_t strl = b.Open(FourCC("LIST"), FourCC("strl"));
  WriteStreamHeader(b, FourCC("vids"), f.mjpeg ? FourCC("MJPG") : FourCC("DIB "), f.rate_den,
                    f.rate_num, uint32_t(video.chunks), video.largest, 0, f.width, f.height);
  size_t strf = b.Open(FourCC("strf"));
  b.U32(40);
  b.U32(uint32_t(f.width));
  b.U32(uint32_t(f.height));  // positive: rows bottom-up
  b.U16(1);
  b.U16(uint32_t(f.bits));
  b.U32(f.mjpeg ? FourCC("MJPG") : 0);
  b.U32(f.mjpeg ? uint32_t(f.width) * f.height * 3 : RowBytes(f) * uint32_t(f.height));
  b.Zeros(16);
  b.Close(strf);
  WriteSuperIndex(b, avi, 0);
  b.Close(strl);

  if (avi->hasSound) {
    strl = b.Open(FourCC("LIST"), FourCC("strl"));
    WriteStreamHeader(b, FourCC("auds"), 0, avi->blockAlign, avi->blockAlign * avi->soundRate,
                      uint32_t(sound.bytes / avi->blockAlign), sound.largest, avi->blockAlign, 0,
                      0);
    strf = b.Open(FourCC("strf"));
    b.U16(1);  // PCM
    b.U16(avi->soundChannels);
    b.U32(avi->soundRate);
    b.U32(avi->blockAlign * avi->soundRate);
    b.U16(avi->blockAlign);
    b.U16(avi->soundBits);
    b.U16(0);
    b.Close(strf);
    WriteSuperIndex(b, avi, 1);
    b.Close(strl);
  }

  size_t odml = b.Open(FourCC("LIST"), FourCC("odml"));
  size_t dmlh = b.Open(FourCC("dmlh"));
  b.U32(uint32_t(video.chunks));
  b.Zeros(DmlhBytes - 4);
  b.Close(dmlh);
  b.Close(odml);
  b.Close(hdrl);

  // The rest of the reserved room up to the movi list.
  const uint64_t moviAt = 12 + avi->headerRoom;
  size_t junk = b.Open(FourCC("JUNK"));
  b.Zeros(size_t(moviAt - b.data.size()));
  b.Close(junk);
}

}  // namespace

AviFile* AviCreate(const char* name, const AviVideoFormat* format) {
  if (!name || !format || format->width <= 0 || format->height <= 0 || !format->rate_num ||
      !format->rate_den)
    return nullptr;
  AviFile* avi = new (std::nothrow) AviFile;
  if (!avi) return nullptr;
  avi->format = *format;
  if (avi->format.bits != 32 || avi->format.mjpeg) avi->format.bits = 24;
  avi->riffLimit = format->riff_limit ? format->riff_limit : (1ull << 30);
  avi->riffLimit = std::min<uint64_t>(avi->riffLimit, 0xF0000000ull);
  avi->capacity = format->index_capacity ? format->index_capacity : DefaultIndexCapacity;
  avi->headerRoom = HeaderRoom(avi->capacity);
  avi->streams[0].chunkId = avi->format.mjpeg ? FourCC("00dc") : FourCC("00db");
  avi->streams[0].indexId = FourCC("ix00");
  avi->streams[1].chunkId = FourCC("01wb");
  avi->streams[1].indexId = FourCC("ix01");
  if (OutFileCreate(&avi->out, name, 1 << 20) != OutFileDone) {
    delete avi;
    return nullptr;
  }
  avi->file = avi->out.File;
  std::vector<uint8_t> room(size_t(12 + avi->headerRoom), 0);
  Emit(avi, room.data(), room.size());
  StartMovi(avi);
  return avi;
}

bool AviAddSound(AviFile* avi, uint32_t rate, uint32_t bits, uint32_t channels) {
  if (!avi || avi->hasSound || !rate || !channels || (bits != 8 && bits != 16)) return false;
  avi->hasSound = true;
  avi->soundRate = rate;
  avi->soundBits = bits;
  avi->soundChannels = channels;
  avi->blockAlign = channels * bits / 8;
  return true;
}

bool AviWriteVideo(AviFile* avi, const void* data, uint32_t bytes) {
  return WriteChunk(avi, 0, data, bytes);
}

bool AviWriteSound(AviFile* avi, const void* data, uint32_t bytes) {
  if (!avi || !avi->hasSound) return false;
  return WriteChunk(avi, 1, data, bytes);
}

uint64_t AviBytes(const AviFile* avi) { return avi ? avi->position : 0; }

uint64_t AviClose(AviFile* avi, bool discard, uint32_t* result) {
  if (result) *result = OutFileDone;
  if (!avi) return 0;
  OutFileResult done = OutFileDone;
  if (discard) {
    OutFileDiscard(&avi->out);
  } else {
    EndSegment(avi);
    Bytes header;
    BuildHeader(header, avi);
    PatchAt(avi, 0, header);
    if (!FileFlush(avi->file, false)) avi->failed = true;
    if (avi->failed || avi->file->WriteError) {
      OutFileDiscard(&avi->out);
      done = OutFileWriteFailed;
    } else {
      done = OutFileCommit(&avi->out);
      if (done != OutFileDone) OutFileDiscard(&avi->out);
    }
  }
  const uint64_t size = avi->position;
  delete avi;
  if (result) *result = done;
  return done == OutFileDone && !discard ? size : 0;
}
