// Kernel tables at each level of ProcessorLevels, for tests that run every level the processor
// has.
#pragma once
#include <gtest/gtest.h>

#include <cstdio>

#include "host/cpu_features.h"

namespace kerneltest {

// The table that `init` builds at `level`.
template <typename Table>
Table TableAt(void (*init)(Table*, uint32_t), int level) {
  Table table;
  init(&table, ProcessorLevels[level].Features | CpuValid);
  return table;
}

// Calls check(table) for the table at every level the processor has, lowest first; says which
// levels it lacks.
template <typename Table, typename Check>
void ForEachLevel(void (*init)(Table*, uint32_t), Check check) {
  for (int level = 0; level < ProcessorLevelCount; ++level) {
    const ProcessorLevel& l = ProcessorLevels[level];
    if (!ProcessorHas(l.Features)) {
      std::printf("[   NOTE   ] level %s skipped: the processor lacks it\n", l.Name);
      continue;
    }
    SCOPED_TRACE(testing::Message() << "level " << l.Name);
    check(TableAt(init, level));
  }
}

}  // namespace kerneltest
