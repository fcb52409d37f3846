#include "tool/statistics.h"

#include "indexgen/time_base.h"

namespace Veldrin::Tool {

void write_statistics(std::ostream& summary, const RunStatistics& statistics) {
  summary << "Duration:\t" << statistics.duration << "\tseconds" << std::endl;
  if (statistics.last_offset > statistics.first_offset) {
    double bits = static_cast<double>((statistics.last_offset - statistics.first_offset) * 8);
    summary << "Average rate:\t" << IndexGen::truncate_to_int32(bits / statistics.duration)
            << "\tbits/sec" << std::endl;
    summary << "Maximum rate:\t" << statistics.max_rate << "\tbits/sec" << std::endl;
    summary << "Minimum rate:\t" << statistics.min_rate << "\tbits/sec" << std::endl;
  }
}

}  // namespace Veldrin::Tool
