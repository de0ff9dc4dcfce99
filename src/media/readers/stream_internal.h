// Shared parts of the stream readers: byte sources (file, pipe, memory), the reader record
// every format extends, and small helpers for errors and byte order.
#pragma once

#include "media/readers/stream_readers.h"

#include <cstdarg>
#include <cstdint>
#include <cstring>
#include <memory>
#include <vector>

namespace orn::media {

// Where a reader's bytes come from. A pipe reads only forwards: ReadAt with an offset behind
// the current position fails, one ahead of it skips what lies between.
class ByteSource {
 public:
  virtual ~ByteSource() = default;
  virtual bool Seekable() const = 0;
  // Size in bytes; 0 for a pipe.
  virtual uint64_t Size() const = 0;
  // Reads up to `bytes` at `offset`; returns the count read (short at the end or on failure).
  virtual size_t ReadAt(uint64_t offset, void* dest, size_t bytes) = 0;

  // True when nothing lies at `offset` or after it. A pipe can tell only at its current
  // position (the next read's), by looking at one byte that it keeps for that read.
  virtual bool EndsAt(uint64_t offset) { return offset >= Size(); }

  // True when all `bytes` could be read.
  bool ReadExact(uint64_t offset, void* dest, size_t bytes) { return ReadAt(offset, dest, bytes) == bytes; }
};

// "-" opens the standard input when `allow_stdin` is set.
std::unique_ptr<ByteSource> OpenFileSource(const char* path, bool allow_stdin, StreamError* error);
std::unique_ptr<ByteSource> OpenMemorySource(const uint8_t* data, size_t size);

}  // namespace orn::media

// The record behind the public handle; each format derives its own.
struct StreamReader {
  const StreamReaderOps* ops = nullptr;
  StreamInfo info{};
  std::unique_ptr<orn::media::ByteSource> source;
  bool planes_only = false;  // StreamReaderPlanesOnly: frames with planes leave `pixels` null

  virtual ~StreamReader() = default;
  virtual int Read(uint32_t index, StreamFrame* frame, StreamError* error) = 0;
  virtual uint32_t AudioTrackCount() const { return 0; }
  virtual int AudioTrack(uint32_t, StreamAudioTrack*) const { return 0; }
};

namespace orn::media {

// Fills `error` (may be null) and returns 0.
int StreamFail(StreamError* error, int code, const char* format, ...) __attribute__((format(printf, 3, 4)));
// Copies a type name into the info record.
void SetTypeName(StreamInfo* info, const char* name);

// Opens through a format's reader constructor: makes the source, runs `open`, returns the handle.
using SourceOpener = StreamReader* (*)(std::unique_ptr<ByteSource> source, StreamError* error);
StreamReader* OpenPath(const StreamReaderOps* ops, SourceOpener open, const char* path, bool allow_stdin,
                       StreamError* error);
StreamReader* OpenMemory(const StreamReaderOps* ops, SourceOpener open, const uint8_t* data, size_t size,
                         StreamError* error);

// True when `name` ends in `extension` (compared without regard to case).
bool NameHasExtension(const char* name, const char* extension);

inline uint16_t Le16(const uint8_t* p) { return uint16_t(p[0] | p[1] << 8); }
inline uint32_t Le32(const uint8_t* p) { return uint32_t(p[0]) | uint32_t(p[1]) << 8 | uint32_t(p[2]) << 16 | uint32_t(p[3]) << 24; }
inline uint64_t Le64(const uint8_t* p) { return uint64_t(Le32(p)) | uint64_t(Le32(p + 4)) << 32; }
inline uint16_t Be16(const uint8_t* p) { return uint16_t(p[0] << 8 | p[1]); }
inline uint32_t Be32(const uint8_t* p) { return uint32_t(p[0]) << 24 | uint32_t(p[1]) << 16 | uint32_t(p[2]) << 8 | uint32_t(p[3]); }
inline uint32_t FourCC(const char* s) { return Le32(reinterpret_cast<const uint8_t*>(s)); }

// Resizes without throwing; false when memory runs out.
template <typename T>
bool TryResize(std::vector<T>& v, size_t n) {
  try {
    v.resize(n);
    return true;
  } catch (...) {
    return false;
  }
}

// Reader constructors, one per format.
StreamReader* OpenFlicSource(std::unique_ptr<ByteSource> source, StreamError* error);
StreamReader* OpenAviSource(std::unique_ptr<ByteSource> source, StreamError* error);
StreamReader* OpenY4mSource(std::unique_ptr<ByteSource> source, StreamError* error);
StreamReader* OpenRlaSource(std::unique_ptr<ByteSource> source, StreamError* error);
StreamReader* OpenRawSource(std::unique_ptr<ByteSource> source, StreamError* error);

}  // namespace orn::media
