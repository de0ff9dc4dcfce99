// A full disk for tests of writers: while a FullDisk lives, the file layer's writes find room
// for only so many bytes of any one file; a write that reaches past them stops there.
#pragma once
#include <algorithm>
#include <cstddef>
#include <cstdint>

#include "host/bfile.h"

namespace test_support {

class FullDisk {
 public:
  explicit FullDisk(uint64_t room) {
    Room() = room;
    FileSetWriteFilter(Filter);
  }
  ~FullDisk() { FileSetWriteFilter(nullptr); }
  FullDisk(const FullDisk&) = delete;
  FullDisk& operator=(const FullDisk&) = delete;

 private:
  static uint64_t& Room() {
    static uint64_t room = 0;
    return room;
  }
  static size_t Filter(uint64_t position, size_t bytes) {
    return position >= Room() ? 0 : size_t(std::min<uint64_t>(bytes, Room() - position));
  }
};

}  // namespace test_support
