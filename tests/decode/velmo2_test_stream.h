// A written test stream held together with a second-generation reader over it.
#pragma once
#include "support/bit_writer.h"
#include "decode/velmo2_syntax.h"

#include <vector>

// Owns the bytes so the reader stays valid. The reader may read exactly the written words;
// its limit is the end of them.
struct Velmo2TestStream {
  std::vector<uint8_t> Bytes;
  Velmo1BitReader Reader;

  explicit Velmo2TestStream(const BitWriter& w) : Bytes(w.Bytes()) {
    Reader = Velmo1ReaderAt(Bytes.data(), Bytes.size(), Bytes.size());
  }
  Velmo2TestStream(const Velmo2TestStream&) = delete;
  Velmo2TestStream& operator=(const Velmo2TestStream&) = delete;
};
