// Byte sources, the format table and the calls common to every stream reader.
#include "media/readers/stream_internal.h"

#include <algorithm>
#include <cctype>
#include <cstdio>
#include <new>

namespace orn::media {

namespace {

// A regular file, read with 64-bit positions through stdio's buffer.
class FileSource final : public ByteSource {
 public:
  FileSource(FILE* file, uint64_t size) : file_(file), size_(size) {}
  ~FileSource() override { std::fclose(file_); }
  bool Seekable() const override { return true; }
  uint64_t Size() const override { return size_; }

  size_t ReadAt(uint64_t offset, void* dest, size_t bytes) override {
    if (offset >= size_ || bytes == 0) return 0;
    if (bytes > size_ - offset) bytes = size_t(size_ - offset);
    if (offset != position_) {
      if (fseeko(file_, off_t(offset), SEEK_SET) != 0) {
        position_ = UINT64_MAX;
        return 0;
      }
      position_ = offset;
    }
    const size_t got = std::fread(dest, 1, bytes, file_);
    position_ += got;
    if (got < bytes) {
      std::clearerr(file_);
      position_ = UINT64_MAX;  // unknown: seek again next time
    }
    return got;
  }

 private:
  FILE* file_;
  uint64_t size_;
  uint64_t position_ = 0;
};

// The standard input or any other stream that can only be read forwards.
class PipeSource final : public ByteSource {
 public:
  explicit PipeSource(FILE* file) : file_(file) {}
  bool Seekable() const override { return false; }
  uint64_t Size() const override { return 0; }

  size_t ReadAt(uint64_t offset, void* dest, size_t bytes) override {
    if (offset < position_) return 0;
    while (position_ < offset) {
      uint8_t scratch[4096];
      const size_t want = size_t(std::min<uint64_t>(sizeof scratch, offset - position_));
      const size_t got = std::fread(scratch, 1, want, file_);
      position_ += got;
      if (got < want) return 0;
    }
    const size_t got = std::fread(dest, 1, bytes, file_);
    position_ += got;
    return got;
  }

  bool EndsAt(uint64_t offset) override {
    if (offset != position_) return false;
    const int c = std::fgetc(file_);
    if (c == EOF) return true;
    std::ungetc(c, file_);
    return false;
  }

 private:
  FILE* file_;
  uint64_t position_ = 0;
};

class MemorySource final : public ByteSource {
 public:
  MemorySource(const uint8_t* data, size_t size) : data_(data), size_(size) {}
  bool Seekable() const override { return true; }
  uint64_t Size() const override { return size_; }
  size_t ReadAt(uint64_t offset, void* dest, size_t bytes) override {
    if (offset >= size_) return 0;
    if (bytes > size_ - offset) bytes = size_t(size_ - offset);
    if (bytes) std::memcpy(dest, data_ + offset, bytes);
    return bytes;
  }

 private:
  const uint8_t* data_;
  size_t size_;
};

}  // namespace

std::unique_ptr<ByteSource> OpenFileSource(const char* path, bool allow_stdin, StreamError* error) {
  if (!path || !*path) {
    StreamFail(error, STREAM_ERROR_ARGUMENT, "no file name");
    return nullptr;
  }
  if (allow_stdin && std::strcmp(path, "-") == 0) return std::make_unique<PipeSource>(stdin);
  FILE* file = std::fopen(path, "rb");
  if (!file) {
    StreamFail(error, STREAM_ERROR_OPEN, "cannot open %s", path);
    return nullptr;
  }
  if (fseeko(file, 0, SEEK_END) != 0) {
    // Not seekable (a named pipe): read it forwards when the format allows.
    if (allow_stdin) return std::make_unique<PipeSource>(file);
    std::fclose(file);
    StreamFail(error, STREAM_ERROR_OPEN, "cannot seek in %s", path);
    return nullptr;
  }
  const off_t size = ftello(file);
  if (size < 0 || fseeko(file, 0, SEEK_SET) != 0) {
    std::fclose(file);
    StreamFail(error, STREAM_ERROR_OPEN, "cannot read %s", path);
    return nullptr;
  }
  return std::make_unique<FileSource>(file, uint64_t(size));
}

std::unique_ptr<ByteSource> OpenMemorySource(const uint8_t* data, size_t size) {
  return std::make_unique<MemorySource>(data, data ? size : 0);
}

int StreamFail(StreamError* error, int code, const char* format, ...) {
  if (!error) return 0;
  error->code = code;
  va_list args;
  va_start(args, format);
  std::vsnprintf(error->text, sizeof error->text, format, args);
  va_end(args);
  return 0;
}

void SetTypeName(StreamInfo* info, const char* name) {
  std::snprintf(info->type_name, sizeof info->type_name, "%s", name);
}

static StreamReader* Finish(const StreamReaderOps* ops, std::unique_ptr<ByteSource> source, SourceOpener open,
                            StreamError* error) {
  if (!source) return nullptr;
  StreamReader* reader = open(std::move(source), error);
  if (reader) {
    reader->ops = ops;
    if (error) {
      error->code = STREAM_OK;
      error->text[0] = 0;
    }
  }
  return reader;
}

StreamReader* OpenPath(const StreamReaderOps* ops, SourceOpener open, const char* path, bool allow_stdin,
                       StreamError* error) {
  return Finish(ops, OpenFileSource(path, allow_stdin, error), open, error);
}

StreamReader* OpenMemory(const StreamReaderOps* ops, SourceOpener open, const uint8_t* data, size_t size,
                         StreamError* error) {
  return Finish(ops, OpenMemorySource(data, size), open, error);
}

bool NameHasExtension(const char* name, const char* extension) {
  if (!name || !extension) return false;
  const size_t n = std::strlen(name), e = std::strlen(extension);
  if (n < e) return false;
  for (size_t i = 0; i < e; ++i)
    if (std::tolower(uint8_t(name[n - e + i])) != std::tolower(uint8_t(extension[i]))) return false;
  return true;
}

}  // namespace orn::media

using namespace orn::media;

extern "C" {

const StreamReaderOps* const* StreamReaderTable(size_t* count) {
  static const StreamReaderOps* const kTable[] = {&kStreamReaderFlic, &kStreamReaderAvi, &kStreamReaderY4m,
                                                  &kStreamReaderRaw, &kStreamReaderRla};
  if (count) *count = sizeof kTable / sizeof kTable[0];
  return kTable;
}

const StreamReaderOps* StreamReaderFind(int format) {
  size_t count = 0;
  const StreamReaderOps* const* table = StreamReaderTable(&count);
  for (size_t i = 0; i < count; ++i)
    if (table[i]->format == format) return table[i];
  return nullptr;
}

const StreamReaderOps* StreamReaderProbe(const uint8_t* head, size_t head_size, const char* name) {
  size_t count = 0;
  const StreamReaderOps* const* table = StreamReaderTable(&count);
  for (size_t i = 0; i < count; ++i)
    if (table[i]->probe(head, head_size, name)) return table[i];
  return nullptr;
}

StreamReader* StreamReaderOpen(const StreamReaderOps* ops, const char* path, StreamError* error) {
  if (!ops) {
    StreamFail(error, STREAM_ERROR_ARGUMENT, "no reader");
    return nullptr;
  }
  return ops->open(path, error);
}

StreamReader* StreamReaderOpenMemory(const StreamReaderOps* ops, const uint8_t* data, size_t size,
                                     StreamError* error) {
  if (!ops) {
    StreamFail(error, STREAM_ERROR_ARGUMENT, "no reader");
    return nullptr;
  }
  return ops->open_memory(data, size, error);
}

const StreamInfo* StreamReaderInfo(const StreamReader* reader) { return reader ? &reader->info : nullptr; }

const StreamReaderOps* StreamReaderOpsOf(const StreamReader* reader) { return reader ? reader->ops : nullptr; }

int StreamReaderRead(StreamReader* reader, uint32_t index, StreamFrame* frame, StreamError* error) {
  if (!reader || !frame) return StreamFail(error, STREAM_ERROR_ARGUMENT, "no reader or frame");
  if (reader->info.frame_count && index >= reader->info.frame_count)
    return StreamFail(error, STREAM_ERROR_END, "frame %u is past the last frame (%u)", index,
                      reader->info.frame_count);
  frame->planes = StreamPlanes{};  // only readers of planar files describe planes
  frame->cut_short = 0;
  return reader->Read(index, frame, error);
}

void StreamReaderPlanesOnly(StreamReader* reader, int on) {
  if (reader) reader->planes_only = on != 0;
}

void StreamReaderClose(StreamReader* reader) { delete reader; }

uint32_t StreamReaderAudioTrackCount(const StreamReader* reader) { return reader ? reader->AudioTrackCount() : 0; }

int StreamReaderAudioTrack(const StreamReader* reader, uint32_t index, StreamAudioTrack* track) {
  if (!reader || !track) return 0;
  return reader->AudioTrack(index, track);
}

size_t StreamReaderReadAudio(StreamReader* reader, uint32_t track, uint32_t chunk, void* buffer, size_t size) {
  StreamAudioTrack info;
  if (!reader || !buffer || !StreamReaderAudioTrack(reader, track, &info) || chunk >= info.chunk_count) return 0;
  const StreamAudioChunk& c = info.chunks[chunk];
  return reader->source->ReadAt(c.offset, buffer, std::min<size_t>(size, c.size));
}

}  // extern "C"
