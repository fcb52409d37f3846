#ifndef VELDRIN_TOOL_STATISTICS_H
#define VELDRIN_TOOL_STATISTICS_H

#include <cstdint>
#include <ostream>

namespace Veldrin::Tool {

// What the index generator measured over the run.
struct RunStatistics {
  double duration = -1.0;  // seconds from the first to the last accepted PCR; -1 without PCR
  uint64_t first_offset = 0;
  uint64_t last_offset = 0;
  int32_t max_rate = 0;
  int32_t min_rate = 2147483647;
};

// The duration line and, when the offsets advanced, the three rate lines, each ended.
void write_statistics(std::ostream& summary, const RunStatistics& statistics);

}  // namespace Veldrin::Tool

#endif
