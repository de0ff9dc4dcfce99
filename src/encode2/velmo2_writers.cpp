// Bit costs of the syntax writers that are not templates.
#include "encode2/velmo2_writers.h"

uint32_t Velmo2AcBlockBits(const Velmo2AcLevels& b, int table) {
  // The writer itself over a counting sink: the cost cannot drift from what is written.
  Velmo2BitCounter counter;
  Velmo2WriteAcBlock(counter, b, table);
  return uint32_t(counter.Bits());
}
