#include "tool/statistics.h"

#include <limits>

namespace Veldrin::Tool {

int32_t truncate_to_int32(double value) {
  // Written as a range test that a NaN fails too, so that no conversion is undefined.
  if (value > -2147483649.0 && value < 2147483648.0) return static_cast<int32_t>(value);
  return std::numeric_limits<int32_t>::min();
}

void write_statistics(std::ostream& summary, const RunStatistics& statistics) {
  summary << "Duration:\t" << statistics.duration << "\tseconds" << std::endl;
  if (statistics.last_offset > statistics.first_offset) {
    double bits = static_cast<double>((statistics.last_offset - statistics.first_offset) * 8);
    summary << "Average rate:\t" << truncate_to_int32(bits / statistics.duration) << "\tbits/sec"
            << std::endl;
    summary << "Maximum rate:\t" << statistics.max_rate << "\tbits/sec" << std::endl;
    summary << "Minimum rate:\t" << statistics.min_rate << "\tbits/sec" << std::endl;
  }
}

}  // namespace Veldrin::Tool
