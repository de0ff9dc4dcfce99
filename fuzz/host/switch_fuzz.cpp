// Random lines through every switch-line and file-series function. Each call gets its own
// exactly sized copy, so a read or write past the terminator trips the address sanitizer; the
// line may only shrink (EnsureTrailingSlash may add one byte into the room it is given).
#include <cstdint>
#include <cstdlib>
#include <cstring>
#include <vector>

#include "host/series.h"
#include "host/switches.h"
#include "host/textformat.h"

namespace {

void Check(bool condition) {
  if (!condition) abort();
}

struct Copy {
  std::vector<char> buffer;
  size_t length;
  Copy(const uint8_t* data, size_t size, size_t room = 1) : buffer(size + room), length(size) {
    memcpy(buffer.data(), data, size);
    buffer[size] = 0;
    length = strlen(buffer.data());  // an embedded zero ends the line
  }
  char* text() { return buffer.data(); }
  void CheckShrunk() { Check(strlen(buffer.data()) <= length); }
};

// Answers "exists" by a hash of the name, for at most a few hundred probes.
bool FakeExists(const char* path, void* context) {
  int* budget = static_cast<int*>(context);
  if (--*budget < 0) return false;
  uint32_t h = 2166136261u;
  for (const char* p = path; *p; ++p) h = (h ^ static_cast<uint8_t>(*p)) * 16777619u;
  return h % 4 != 0;
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t* data, size_t size) {
  if (size < 1 || size > 4096) return 0;
  const char letter = static_cast<char>(data[0]);
  data += 1, size -= 1;
  char small[8], dest[64];
  int32_t n, d;

  { Copy c(data, size); SwitchNumber(c.text(), letter, 0); c.CheckShrunk(); }
  { Copy c(data, size); SwitchPeekNumber(c.text(), letter, 0); c.CheckShrunk(); }
  { Copy c(data, size); SwitchNumber64(c.text(), letter, 0); c.CheckShrunk(); }
  { Copy c(data, size); SwitchFlag(c.text(), letter); c.CheckShrunk(); }
  { Copy c(data, size); SwitchText(c.text(), letter, small, sizeof small, "default"); c.CheckShrunk();
    Check(strlen(small) < sizeof small); }
  { Copy c(data, size); SwitchFraction(c.text(), letter, &n, &d, 1, 1); c.CheckShrunk(); }
  { Copy c(data, size); SwitchCancels(c.text()); c.CheckShrunk(); SwitchesLeft(c.text()); }
  { Copy c(data, size); TakeWord(small, sizeof small, c.text()); c.CheckShrunk(); }
  { Copy c(data, size); TakeName(dest, sizeof dest, c.text()); c.CheckShrunk(); }
  { Copy c(data, size); TrimLine(c.text()); c.CheckShrunk(); }
  { Copy c(data, size); TrimQuotes(c.text()); c.CheckShrunk(); }
  { Copy c(data, size, 2); EnsureTrailingSlash(c.text(), c.buffer.size()); Check(strlen(c.text()) <= c.length + 1); }

  // A tool's way through a line: all questions, then the names.
  {
    Copy c(data, size);
    SwitchCancels(c.text());
    for (const char* l = "VDLMXRO#"; *l; ++l) {
      SwitchNumber(c.text(), *l, 0);
      SwitchFraction(c.text(), *l, &n, &d, 0, 1);
      SwitchText(c.text(), *l, dest, sizeof dest, nullptr);
      SwitchFlag(c.text(), *l);
    }
    for (int i = 0; i < 64 && c.text()[0]; ++i) TakeName(dest, sizeof dest, c.text());
    c.CheckShrunk();
  }

  // The line as a file series and as a name to find a series for.
  {
    Copy c(data, size);
    FileSeries* series = new FileSeries;
    if (SeriesParse(c.text(), series)) {
      SeriesName(dest, sizeof dest, series->pattern, series->first);
      SeriesName(dest, sizeof dest, series->pattern, series->last);
    }
    delete series;
    SeriesName(small, sizeof small, c.text(), static_cast<uint8_t>(letter) * 1000003);
    int budget = 300;
    int32_t first, last;
    FindSequenceWith(dest, sizeof dest, &first, &last, c.text(), FakeExists, &budget);
    Check(strlen(dest) < sizeof dest);
  }
  FormatTime(small, sizeof small, static_cast<uint64_t>(size) << (letter & 63));
  FormatThousands(small, sizeof small, -static_cast<int64_t>(size) << (letter & 31));
  return 0;
}
