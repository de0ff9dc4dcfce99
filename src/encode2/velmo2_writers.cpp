// Bit costs of the syntax writers that are not templates.
#include "encode2/velmo2_writers.h"

uint32_t Velmo2AcBlockBits(const Velmo2AcLevels& b, int table) {
  // The writer itself over a counting sink: the cost cannot drift from what is written.
  Velmo2BitCounter counter;
  Velmo2WriteAcBlock(counter, b, table);
  return uint32_t(counter.Bits());
}

namespace {

// Costs of the run codes of one table, as Velmo2WriteAcBlock spends them.
struct RunCosts {
  const Velmo2RunCode* Codes;

  uint32_t Skip(uint32_t skip) const {
    return skip <= 10 ? Codes[skip].Length : Codes[Velmo2RunEscape].Length + Velmo2RunEscapeBits;
  }

  // Levels at first..last (all non-zero, last + 1 not), each behind a skip of 0: seven
  // symbols for whole windows of seven, and for the rest when it reaches 63 and that is
  // shorter; single codes otherwise. Empty when first > last.
  uint32_t Group(uint32_t first, uint32_t last) const {
    if (first > last) return 0;
    const uint32_t single = Codes[0].Length, seven = Codes[Velmo2RunSeven].Length;
    const uint32_t length = last - first + 1;
    if (seven >= 7 * single) return length * single;
    const uint32_t rest = length % 7;
    const uint32_t restBits =
        last == 63 && rest > 0 && seven < rest * single ? seven : rest * single;
    return length / 7 * seven + restBits;
  }

  // The codes of a run of levels a..b entered at position `entry` (<= a).
  uint32_t Run(uint32_t a, uint32_t b, uint32_t entry) const {
    return a > entry ? Skip(a - entry) + Group(a + 1, b) : Group(a, b);
  }
};

}  // namespace

int32_t Velmo2AcDropBits(const Velmo2AcLevels& b, uint32_t p, int table) {
  const RunCosts costs{Velmo2RunCodes[table == 2 ? 1 : 0]};
  const int16_t* levels = b.Levels;
  // The run of consecutive levels around p, where it was entered, and the next level behind it.
  uint32_t first = p, last = p;
  while (first > 1 && levels[first - 1] != 0) --first;
  while (last < 63 && levels[last + 1] != 0) ++last;
  uint32_t entry = first > 1 ? first - 1 : 1;
  while (entry > 1 && levels[entry - 1] == 0) --entry;
  uint32_t next = last + 1;
  while (next <= b.Last && levels[next] == 0) ++next;
  const bool hasNext = next <= b.Last && next < 64;

  int32_t before = int32_t(costs.Run(first, last, entry));
  int32_t after = 0;
  if (first < p) after += int32_t(costs.Run(first, p - 1, entry));
  // Behind p the codes go on from p when levels stand before it in the run, else from where
  // the run was entered.
  const uint32_t resume = first < p ? p : entry;
  if (p < last) after += int32_t(costs.Run(p + 1, last, resume));
  if (hasNext) {
    const uint32_t newEntry = p < last ? last + 1 : resume;
    before += int32_t(costs.Skip(next - (last + 1)));
    after += int32_t(costs.Skip(next - newEntry));
  }
  // A level at 63 spared the end code; without it the end code comes back.
  if (p == 63) after += costs.Codes[Velmo2RunEnd].Length;
  return after - before - int32_t(Velmo2AcLevelBits(levels[p]));
}
