// Bit and byte reads of a buffered file, driven by the input and checked against a model of the
// file as one stream of bits. The file is the input's body repeated up to eight times (so it
// can outgrow the 4096-byte buffer), held in a memory file; the input's tail is the list of
// operations: bit reads of 0 to 32 bits, byte, 32-bit and block reads, seeks anywhere (also
// past the end) and position checks.
#include <sys/mman.h>
#include <unistd.h>

#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "host/bfile.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

// The file as the reader should see it: one stream of bits, zero past the end; the bytes taken
// from the file so far (whole bytes are taken as bits are needed, none past the end), and the
// reader's place in the stream.
struct Model {
  std::vector<uint8_t> bytes;
  uint64_t taken = 0;
  uint64_t bitPos = 0;
  uint32_t held = 0;  // bits taken but not yet read; past the end, the zeros stand in for bytes

  uint32_t Bit(uint64_t at) const {
    return at / 8 < bytes.size() ? (bytes[size_t(at / 8)] >> (at % 8)) & 1u : 0u;
  }
  uint32_t ReadBits(uint32_t count) {
    uint32_t value = 0;
    for (uint32_t i = 0; i < count; ++i) value |= Bit(bitPos + i) << i;
    bitPos += count;
    while (held < count) {
      if (taken < bytes.size()) ++taken;
      held += 8;
    }
    held -= count;
    return value;
  }
  // Bytes come through the same bit stream; the count is what the file still had.
  size_t ReadBytes(size_t count, std::vector<uint8_t>* out) {
    const size_t got = taken < bytes.size() ? std::min<size_t>(count, size_t(bytes.size() - taken)) : 0;
    out->assign(got, 0);
    for (size_t i = 0; i < got; ++i)
      for (uint32_t b = 0; b < 8; ++b) (*out)[i] |= uint8_t(Bit(bitPos + i * 8 + b) << b);
    taken += got;
    bitPos += got * 8;
    return got;
  }
  // A seek to where the reader already is keeps the bits it holds.
  void Seek(uint64_t position) {
    if (position == taken) return;
    taken = position;
    bitPos = position * 8;
    held = 0;
  }
};

int MemoryFile() {
  static const int fd = memfd_create("bfile_fuzz", 0);
  return fd;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 2 || MemoryFile() < 0) return 0;
  const size_t repeats = 1 + (data[0] & 7);
  const size_t bodySize = std::min<size_t>(data[1], size - 2) * 16;  // up to 4080 bytes
  const size_t bodyEnd = 2 + std::min(bodySize, size - 2);
  Model model;
  for (size_t r = 0; r < repeats; ++r) model.bytes.insert(model.bytes.end(), data + 2, data + bodyEnd);

  const int fd = MemoryFile();
  if (ftruncate(fd, 0) != 0 ||
      pwrite(fd, model.bytes.data(), model.bytes.size(), 0) != ssize_t(model.bytes.size()))
    return 0;
  char name[64];
  std::snprintf(name, sizeof name, "/proc/self/fd/%d", fd);
  BufferedFile* file = FileOpenRead((data[0] & 8) ? -4096 : 0, name, FileModeReadOnly);
  Check(file != nullptr);
  Check(FileSizeOf(file) == model.bytes.size());

  std::vector<uint8_t> got, want;
  for (size_t at = bodyEnd; at + 1 < size; at += 2) {
    const uint8_t op = data[at], arg = data[at + 1];
    switch (op % 6) {
      case 0: {  // bits
        const uint32_t count = arg % 33;
        Check(FileReadBits(file, count) == model.ReadBits(count));
        break;
      }
      case 1: {  // one byte: all ones at the end
        std::vector<uint8_t> one;
        const uint32_t byte = FileReadByte(file);
        Check(model.ReadBytes(1, &one) == 1 ? byte == one[0] : byte == 0xFFFFFFFFu);
        break;
      }
      case 2: {  // 32 bits little-endian, missing bytes as zero
        std::vector<uint8_t> four;
        const uint32_t value = FileReadLong(file);
        model.ReadBytes(4, &four);
        four.resize(4, 0);
        Check(value == (four[0] | four[1] << 8 | four[2] << 16 | uint32_t(four[3]) << 24));
        break;
      }
      case 3: {  // a block, up to twice the buffer
        const size_t count = size_t(arg) * 37;
        got.assign(count, 0xA5);
        const size_t n = FileRead(file, got.data(), count);
        Check(n == model.ReadBytes(count, &want));
        got.resize(n);
        Check(got == want);
        break;
      }
      case 4: {  // a seek, sometimes past the end
        const uint64_t position = uint64_t(arg) * (model.bytes.size() + 64) / 255;
        FileSeek(file, position);
        model.Seek(position);
        break;
      }
      default:
        Check(FileTell(file) == model.taken);
        Check(FileSizeOf(file) == std::max<uint64_t>(model.bytes.size(), model.taken));
        break;
    }
  }
  FileClose(file);
  return 0;
}
