// Buffered files on POSIX descriptors. The record's FilePos is the file position of the
// buffer's start, so reads and writes go through positioned calls and the system's own file
// position is never used. Invariant: BufferPos <= BufferFill, and the current position is
// FilePos + BufferPos (plus one partial byte while written bits wait).
#include "host/bfile.h"

#include <errno.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace {

constexpr uint32_t BufferUnit = 4096;
constexpr uint32_t BufferLargest = 1u << 30;
constexpr uint64_t PositionLimit = 0x7FFFFFFFFFFFFFFFull;

std::atomic<uint64_t> systemReads{0};
std::atomic<FileWriteFilter> writeFilter{nullptr};

// ---------------------------------------------------------------------------------------------
// System wrappers

int SystemOpen(const char* name, bool create, bool writable) {
  int flags = O_CLOEXEC | (writable ? O_RDWR : O_RDONLY);
  if (create) flags |= O_CREAT | O_TRUNC;
  const int fd = open(name, flags, 0666);
  if (fd < 0) return FileClosed;
  struct stat info;
  // A folder opens on this system, but is no file to read.
  if (fstat(fd, &info) != 0 || S_ISDIR(info.st_mode)) {
    close(fd);
    return FileClosed;
  }
  if (!create) posix_fadvise(fd, 0, 0, POSIX_FADV_SEQUENTIAL);
  return fd;
}

void SystemClose(int fd) { close(fd); }

// Reads until `bytes` are in, the file ends, or the system fails.
size_t SystemRead(int fd, void* data, size_t bytes, uint64_t position) {
  size_t done = 0;
  while (done < bytes && position + done <= PositionLimit) {
    systemReads.fetch_add(1, std::memory_order_relaxed);
    const ssize_t got = pread(fd, static_cast<uint8_t*>(data) + done, bytes - done,
                              static_cast<off_t>(position + done));
    if (got < 0 && errno == EINTR) continue;
    if (got <= 0) break;
    done += static_cast<size_t>(got);
  }
  return done;
}

size_t SystemWrite(int fd, const void* data, size_t bytes, uint64_t position) {
  if (const FileWriteFilter filter = writeFilter.load(std::memory_order_relaxed))
    bytes = std::min(bytes, filter(position, bytes));
  size_t done = 0;
  while (done < bytes && position + done <= PositionLimit) {
    const ssize_t put = pwrite(fd, static_cast<const uint8_t*>(data) + done, bytes - done,
                               static_cast<off_t>(position + done));
    if (put < 0 && errno == EINTR) continue;
    if (put <= 0) break;
    done += static_cast<size_t>(put);
  }
  return done;
}

uint64_t SystemSize(int fd) {
  struct stat info;
  return fstat(fd, &info) == 0 ? static_cast<uint64_t>(info.st_size) : 0;
}

bool SystemFlushToDisk(int fd) { return fsync(fd) == 0; }

// 0 done, 1 not found, 2 anything else.
uint32_t FailureCode(int error) { return error == ENOENT || error == ENOTDIR ? 1 : 2; }

// ---------------------------------------------------------------------------------------------
// Buffer and state

uint32_t BufferBytes(int32_t requested) {
  uint64_t bytes = requested < 0 ? -static_cast<int64_t>(requested) : requested;
  bytes = std::clamp<uint64_t>(bytes, BufferUnit, BufferLargest);
  return static_cast<uint32_t>((bytes + BufferUnit - 1) & ~uint64_t(BufferUnit - 1));
}

bool EnsureBuffer(BufferedFile* file) {
  if (file->Buffer) return true;
  void* block = std::malloc(size_t(file->BufferSize) + BufferUnit - 1);
  if (!block) return false;
  file->BufferBlock = block;
  const uintptr_t start = reinterpret_cast<uintptr_t>(block);
  file->Buffer = reinterpret_cast<uint8_t*>((start + BufferUnit - 1) & ~uintptr_t(BufferUnit - 1));
  if (file->Writing) file->BufferFill = file->BufferSize;
  return true;
}

void NoteSize(BufferedFile* file, uint64_t position) {
  if (file->FileSize != FileSizeUnknown && position > file->FileSize) file->FileSize = position;
}

// Writes the buffered bytes at FilePos and moves FilePos past them.
void WriteOut(BufferedFile* file) {
  if (!file->Writing || file->BufferPos == 0) return;
  if (SystemWrite(file->Handle, file->Buffer, file->BufferPos, file->FilePos) < file->BufferPos)
    file->WriteError = 1;
  file->FilePos += file->BufferPos;
  file->BufferPos = 0;
  NoteSize(file, file->FilePos);
}

// Stores bytes in write state with no bits waiting. Large writes skip the buffer.
void PutBytes(BufferedFile* file, const uint8_t* data, size_t bytes) {
  size_t done = 0;
  while (done < bytes) {
    const size_t room = file->BufferSize - file->BufferPos;
    if (room > 0 && (file->BufferPos > 0 || bytes - done <= room)) {
      const size_t part = std::min(room, bytes - done);
      std::memcpy(file->Buffer + file->BufferPos, data + done, part);
      file->BufferPos += static_cast<uint32_t>(part);
      done += part;
      if (done == bytes) return;
    }
    WriteOut(file);
    const size_t rest = bytes - done;
    if (rest >= file->BufferSize) {
      if (SystemWrite(file->Handle, data + done, rest, file->FilePos) < rest) file->WriteError = 1;
      file->FilePos += rest;
      NoteSize(file, file->FilePos);
      return;
    }
  }
}

void PutByte(BufferedFile* file, uint8_t byte) {
  if (file->BufferPos < file->BufferFill) file->Buffer[file->BufferPos++] = byte;
  else PutBytes(file, &byte, 1);
}

// Written bits that wait become one byte, padded with zeros.
void PadBits(BufferedFile* file) {
  if (!file->Writing || file->BitCount == 0) return;
  const uint8_t byte = static_cast<uint8_t>(file->BitHold);
  file->BitCount = 0;
  file->BitHold = 0;
  PutByte(file, byte);
}

void DropBits(BufferedFile* file) {
  file->BitCount = 0;
  file->BitHold = 0;
}

// From read state: what was read is dropped, and writing starts at the current position.
void EnterWriteState(BufferedFile* file) {
  if (file->Writing) return;
  file->FilePos += file->BufferPos;
  file->BufferPos = 0;
  file->BufferFill = file->Buffer ? file->BufferSize : 0;
  file->Writing = 1;
  DropBits(file);
}

// From write state: the buffer is written out and reading starts at the current position.
void EnterReadState(BufferedFile* file) {
  if (!file->Writing) return;
  PadBits(file);
  WriteOut(file);
  file->BufferPos = 0;
  file->BufferFill = 0;
  file->Writing = 0;
}

// Takes bytes in read state, bypassing the buffer when the rest is a whole buffer or more.
size_t TakeBytes(BufferedFile* file, uint8_t* data, size_t bytes) {
  size_t done = 0;
  for (;;) {
    const size_t part = std::min<size_t>(file->BufferFill - file->BufferPos, bytes - done);
    std::memcpy(data + done, file->Buffer + file->BufferPos, part);
    file->BufferPos += static_cast<uint32_t>(part);
    done += part;
    if (done == bytes) return done;
    file->FilePos += file->BufferFill;
    file->BufferPos = 0;
    file->BufferFill = 0;
    const size_t rest = bytes - done;
    if (rest >= file->BufferSize) {
      const size_t got = SystemRead(file->Handle, data + done, rest, file->FilePos);
      file->FilePos += got;
      return done + got;
    }
    file->BufferFill =
        static_cast<uint32_t>(SystemRead(file->Handle, file->Buffer, file->BufferSize, file->FilePos));
    if (file->BufferFill == 0) return done;
  }
}

// Bytes read at a bit offset: each comes out joined with the held bits below it.
void ShiftThroughBits(BufferedFile* file, uint8_t* data, size_t bytes) {
  const uint32_t shift = file->BitCount;
  for (size_t i = 0; i < bytes; ++i) {
    const uint32_t byte = data[i];
    data[i] = static_cast<uint8_t>((byte << shift) | file->BitHold);
    file->BitHold = byte >> (8 - shift);
  }
}

BufferedFile* NewFile(int32_t bufferSize, const char* name, int fd, bool writing) {
  auto* file = static_cast<BufferedFile*>(std::calloc(1, sizeof(BufferedFile)));
  if (!file) {
    SystemClose(fd);
    return nullptr;
  }
  file->Handle = fd;
  std::snprintf(file->Name, sizeof(file->Name), "%s", name);
  file->BufferSize = BufferBytes(bufferSize);
  file->Writing = writing ? 1 : 0;
  file->FileSize = writing ? 0 : FileSizeUnknown;
  if (bufferSize >= 0 && !EnsureBuffer(file)) {
    SystemClose(fd);
    std::free(file);
    return nullptr;
  }
  return file;
}

}  // namespace

// ---------------------------------------------------------------------------------------------
// Open and close

BufferedFile* FileOpenRead(int32_t bufferSize, const char* name, uint32_t mode) {
  if (!name) return nullptr;
  const int fd = SystemOpen(name, false, mode != FileModeReadOnly);
  return fd == FileClosed ? nullptr : NewFile(bufferSize, name, fd, false);
}

BufferedFile* FileCreate(int32_t bufferSize, const char* name, uint32_t shareRead) {
  if (!name) return nullptr;
  const int fd = SystemOpen(name, true, true);
  return fd == FileClosed ? nullptr : NewFile(bufferSize, name, fd, true);
}

BufferedFile* FileCreateShared(int32_t bufferSize, const char* name) {
  return FileCreate(bufferSize, name, 1);
}

BufferedFile* FileCreateExclusive(int32_t bufferSize, const char* name) {
  if (!name) return nullptr;
  // Opened without truncating: the file is emptied only once the lock is ours, so a holder's
  // data is never touched. The lock goes with the descriptor, so a holder that dies frees it.
  const int fd = open(name, O_CLOEXEC | O_RDWR | O_CREAT, 0666);
  if (fd < 0) return nullptr;
  struct stat info;
  if (fstat(fd, &info) != 0 || !S_ISREG(info.st_mode) || flock(fd, LOCK_EX | LOCK_NB) != 0 ||
      ftruncate(fd, 0) != 0) {
    close(fd);
    return nullptr;
  }
  return NewFile(bufferSize, name, fd, true);
}

void FileClose(BufferedFile* file) {
  if (!file) return;
  if (file->Handle != FileClosed) {
    PadBits(file);
    WriteOut(file);
    SystemClose(file->Handle);
    file->Handle = FileClosed;
  }
  std::free(file->BufferBlock);
  std::free(file);
}

// ---------------------------------------------------------------------------------------------
// Position

uint64_t FileTell(const BufferedFile* file) {
  return file->FilePos + file->BufferPos + (file->Writing && file->BitCount ? 1 : 0);
}

uint64_t FileSeek(BufferedFile* file, uint64_t position) {
  const uint64_t old = FileTell(file);
  if (position == old) return old;
  // Bits still waiting are dropped, not padded out: a seek leaves the partial byte unwritten.
  DropBits(file);
  if (file->Writing) {
    WriteOut(file);
  } else {
    if (file->FilePos != FilePosInvalid && position >= file->FilePos &&
        position - file->FilePos <= file->BufferFill) {
      file->BufferPos = static_cast<uint32_t>(position - file->FilePos);
      return old;
    }
    file->BufferPos = 0;
    file->BufferFill = 0;
  }
  file->FilePos = position <= PositionLimit ? position : FilePosInvalid;
  return old;
}

uint64_t FileSizeOf(BufferedFile* file) {
  if (file->FileSize == FileSizeUnknown) file->FileSize = SystemSize(file->Handle);
  // Writes raise the known size as they go out; a position past the end only counts while the
  // reader stands there (seeking back must not leave the file longer than it is).
  return std::max(file->FileSize, FileTell(file));
}

bool FileAtEnd(BufferedFile* file) { return FileTell(file) >= FileSizeOf(file); }

// ---------------------------------------------------------------------------------------------
// Writing

size_t FileWrite(BufferedFile* file, const void* data, size_t bytes) {
  if (bytes == 0 || !EnsureBuffer(file)) return 0;
  EnterWriteState(file);
  const auto* in = static_cast<const uint8_t*>(data);
  if (file->BitCount == 0) {
    PutBytes(file, in, bytes);
    return bytes;
  }
  for (size_t i = 0; i < bytes; ++i) {
    const uint32_t joined = (uint32_t(in[i]) << file->BitCount) | file->BitHold;
    PutByte(file, static_cast<uint8_t>(joined));
    file->BitHold = joined >> 8;
  }
  return bytes;
}

void FileWriteBits(BufferedFile* file, uint32_t value, uint32_t count) {
  if (count == 0 || !EnsureBuffer(file)) return;
  count = std::min<uint32_t>(count, 32);
  EnterWriteState(file);
  const uint64_t masked = value & (count == 32 ? 0xFFFFFFFFull : (1ull << count) - 1);
  uint64_t hold = file->BitHold | (masked << file->BitCount);
  uint32_t held = file->BitCount + count;
  for (; held >= 8; held -= 8, hold >>= 8) PutByte(file, static_cast<uint8_t>(hold));
  file->BitHold = static_cast<uint32_t>(hold);
  file->BitCount = held;
}

void FileFlushBits(BufferedFile* file) {
  if (file->Writing) PadBits(file);
  else DropBits(file);
}

bool FileFlush(BufferedFile* file, bool toDisk) {
  WriteOut(file);
  if (toDisk && !SystemFlushToDisk(file->Handle)) return false;
  return file->WriteError == 0;
}

// ---------------------------------------------------------------------------------------------
// Reading

size_t FileRead(BufferedFile* file, void* data, size_t bytes) {
  if (bytes == 0 || !EnsureBuffer(file)) return 0;
  EnterReadState(file);
  if (file->FilePos == FilePosInvalid) return 0;
  auto* out = static_cast<uint8_t*>(data);
  const size_t got = TakeBytes(file, out, bytes);
  if (file->BitCount) ShiftThroughBits(file, out, got);
  return got;
}

uint32_t FileReadBits(BufferedFile* file, uint32_t count) {
  if (count == 0 || !EnsureBuffer(file)) return 0;
  count = std::min<uint32_t>(count, 32);
  EnterReadState(file);
  uint64_t hold = file->BitHold;
  uint32_t held = file->BitCount;
  while (held < count) {
    uint8_t byte = 0;
    if (file->FilePos != FilePosInvalid) TakeBytes(file, &byte, 1);
    hold |= uint64_t(byte) << held;
    held += 8;
  }
  const uint32_t value = static_cast<uint32_t>(hold & (count == 32 ? 0xFFFFFFFFull : (1ull << count) - 1));
  file->BitHold = static_cast<uint32_t>(hold >> count);
  file->BitCount = held - count;
  return value;
}

uint32_t FileReadByteSlow(BufferedFile* file) {
  uint8_t byte;
  return FileRead(file, &byte, 1) == 1 ? byte : 0xFFFFFFFFu;
}

uint32_t FileReadLongSlow(BufferedFile* file) {
  uint8_t bytes[4] = {0, 0, 0, 0};
  FileRead(file, bytes, 4);
  return bytes[0] | (bytes[1] << 8) | (bytes[2] << 16) | (uint32_t(bytes[3]) << 24);
}

char* FileReadLine(BufferedFile* file, char* dest, size_t limit) {
  if (!dest || limit == 0) return nullptr;
  size_t length = 0;
  bool ended = false;
  while (length + 1 < limit) {
    const uint32_t byte = FileReadByte(file);
    if (byte == 0xFFFFFFFFu) {
      ended = true;
      break;
    }
    dest[length++] = static_cast<char>(byte);
    if (byte == '\n') break;
  }
  dest[length] = 0;
  return ended && length == 0 ? nullptr : dest;
}

// ---------------------------------------------------------------------------------------------
// Names

char* FileGetName(const BufferedFile* file, char* dest) {
  std::memcpy(dest, file->Name, FileNameBytes);
  return dest;
}

uint32_t FileDelete(const char* name) {
  if (!name) return 1;
  return unlink(name) == 0 ? 0 : FailureCode(errno);
}

uint32_t FileRename(const char* newName, const char* oldName) {
  if (!newName || !oldName) return 2;
  if (rename(oldName, newName) == 0) return 0;
  // ENOENT also means the new name's folder is missing; only a missing old file is "not found".
  struct stat info;
  return lstat(oldName, &info) != 0 ? FailureCode(errno) : 2;
}

void FileSetWriteFilter(FileWriteFilter filter) {
  writeFilter.store(filter, std::memory_order_relaxed);
}

uint64_t FileSystemReads() { return systemReads.load(std::memory_order_relaxed); }
