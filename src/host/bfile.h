// Buffered files: one buffer that serves reading and writing in turn, 64-bit positions, byte,
// 16-bit and 32-bit fast paths, and a bit position for writing and reading codes. Every tool
// file goes through here; a tool never sees a system handle.
#pragma once
#include <cstddef>
#include <cstdint>

inline constexpr int FileClosed = -1;
inline constexpr uint64_t FileSizeUnknown = ~0ull;
inline constexpr uint64_t FilePosInvalid = ~0ull;
inline constexpr uint32_t FileModeReadOnly = 250;
inline constexpr size_t FileNameBytes = 4096;  // any path the system takes

struct BufferedFile {
  int Handle;             // system file descriptor, FileClosed when closed
  uint32_t WriteError;    // 1 after any short write
  char Name[FileNameBytes];
  void* BufferBlock;      // the allocation
  uint8_t* Buffer;        // the same, rounded up to 4096; null until first use when lazy
  uint32_t BufferSize;    // at least 4096
  uint32_t BufferFill;    // valid bytes when reading; BufferSize when writing
  uint32_t BufferPos;     // next byte in the buffer
  uint64_t FilePos;       // file position of the buffer's start
  uint64_t FileSize;      // FileSizeUnknown until asked
  uint32_t BitCount;      // bits waiting, 0 to 7
  uint32_t BitHold;       // those bits, in the low end
  uint32_t Writing;       // 1 when the buffer holds data to write, 0 when it holds data read
};

// A negative buffer size allocates its absolute value at the first read or write; 0 takes
// 4096 at once. Sizes are rounded up to a multiple of 4096.
// Opens an existing file; mode FileModeReadOnly (250) opens for reading only, other values
// for reading and writing. Null on failure.
BufferedFile* FileOpenRead(int32_t bufferSize, const char* name, uint32_t mode);
// Creates or replaces a file, for reading and writing. Other processes may always read it on
// this system, whatever `shareRead` says.
BufferedFile* FileCreate(int32_t bufferSize, const char* name, uint32_t shareRead);
BufferedFile* FileCreateShared(int32_t bufferSize, const char* name);
// Creates or replaces a file that stays held for writing while it is open: a second
// FileCreateExclusive of the same name, from this process or another, fails (null) and leaves
// the holder's file as it is. A file left by a process that has ended is replaced.
BufferedFile* FileCreateExclusive(int32_t bufferSize, const char* name);
// Writes out what is buffered (waiting bits padded with zeros), closes and frees.
void FileClose(BufferedFile* file);

// The position; a partial byte of written bits counts as a whole one.
uint64_t FileTell(const BufferedFile* file);
// Moves to `position` and returns the old position. Written bits waiting are padded out first;
// read bits are dropped.
uint64_t FileSeek(BufferedFile* file, uint64_t position);
// The larger of the system's size and the current position.
uint64_t FileSizeOf(BufferedFile* file);
bool FileAtEnd(BufferedFile* file);

// Returns the bytes written into the buffer or to the file (all of them unless the buffer
// could not be made); short writes to the system set WriteError.
size_t FileWrite(BufferedFile* file, const void* data, size_t bytes);
// Up to 32 bits, low bits first.
void FileWriteBits(BufferedFile* file, uint32_t value, uint32_t count);
// Pads the waiting bits with zeros to a whole byte and writes it.
void FileFlushBits(BufferedFile* file);
// Returns the bytes read; fewer at the end of the file or on a read failure.
size_t FileRead(BufferedFile* file, void* data, size_t bytes);
// Reads `count` (up to 32) bits, low bits first; bits past the end read as 0.
uint32_t FileReadBits(BufferedFile* file, uint32_t count);
// Reads up to and including a newline, or limit - 1 bytes, and ends with a zero. Returns dest,
// or null at the end of the file when nothing was read.
char* FileReadLine(BufferedFile* file, char* dest, size_t limit);
// Writes the buffer out; with `toDisk` also asks the system to put it on the disk. Bits that
// wait stay waiting. False when a write failed.
bool FileFlush(BufferedFile* file, bool toDisk);
// Copies the name (FileNameBytes at most) to dest and returns dest.
char* FileGetName(const BufferedFile* file, char* dest);

// 0 done, 1 the file was not found, 2 any other failure.
uint32_t FileDelete(const char* name);
// Renames oldName to newName, replacing a file of that name. 0, 1 or 2 as FileDelete.
uint32_t FileRename(const char* newName, const char* oldName);

// The number of read calls made to the system by this layer, for tests that prove a read
// was served from the buffer.
uint64_t FileSystemReads();

// For tests of failing disks and interrupted runs: when set, each write to the system first
// asks the filter how many of its `bytes` at `position` may go through; fewer give a short
// write, as a full disk does (WriteError is set). Null removes it. Process-wide.
typedef size_t (*FileWriteFilter)(uint64_t position, size_t bytes);
void FileSetWriteFilter(FileWriteFilter filter);

// ---------------------------------------------------------------------------------------------
// Fast paths: the same tests as the slow path, inlined. The slow path handles everything else.

uint32_t FileReadByteSlow(BufferedFile* file);
uint32_t FileReadLongSlow(BufferedFile* file);

inline void FileWriteByte(BufferedFile* file, uint32_t value) {
  if (file->Writing && file->BitCount == 0 && file->BufferPos < file->BufferFill) {
    file->Buffer[file->BufferPos++] = static_cast<uint8_t>(value);
    return;
  }
  const uint8_t byte = static_cast<uint8_t>(value);
  FileWrite(file, &byte, 1);
}

inline void FileWriteWord(BufferedFile* file, uint32_t value) {
  if (file->Writing && file->BitCount == 0 && file->BufferFill - file->BufferPos >= 2) {
    uint8_t* out = file->Buffer + file->BufferPos;
    out[0] = static_cast<uint8_t>(value);
    out[1] = static_cast<uint8_t>(value >> 8);
    file->BufferPos += 2;
    return;
  }
  const uint8_t bytes[2] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8)};
  FileWrite(file, bytes, 2);
}

inline void FileWriteLong(BufferedFile* file, uint32_t value) {
  if (file->Writing && file->BitCount == 0 && file->BufferFill - file->BufferPos >= 4) {
    uint8_t* out = file->Buffer + file->BufferPos;
    out[0] = static_cast<uint8_t>(value);
    out[1] = static_cast<uint8_t>(value >> 8);
    out[2] = static_cast<uint8_t>(value >> 16);
    out[3] = static_cast<uint8_t>(value >> 24);
    file->BufferPos += 4;
    return;
  }
  const uint8_t bytes[4] = {static_cast<uint8_t>(value), static_cast<uint8_t>(value >> 8),
                            static_cast<uint8_t>(value >> 16), static_cast<uint8_t>(value >> 24)};
  FileWrite(file, bytes, 4);
}

// The next byte, or 0xFFFFFFFF at the end of the file.
inline uint32_t FileReadByte(BufferedFile* file) {
  if (!file->Writing && file->BitCount == 0 && file->BufferPos < file->BufferFill)
    return file->Buffer[file->BufferPos++];
  return FileReadByteSlow(file);
}

// A little-endian 32-bit value; bytes past the end of the file read as 0.
inline uint32_t FileReadLong(BufferedFile* file) {
  if (!file->Writing && file->BitCount == 0 && file->BufferFill - file->BufferPos >= 4) {
    const uint8_t* in = file->Buffer + file->BufferPos;
    file->BufferPos += 4;
    return in[0] | (in[1] << 8) | (in[2] << 16) | (static_cast<uint32_t>(in[3]) << 24);
  }
  return FileReadLongSlow(file);
}
