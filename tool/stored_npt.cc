#include "tool/stored_npt.h"

#include <cmath>

namespace Veldrin::Tool {

uint32_t stored_milliseconds(double seconds) {
  // A stored value n comes back as n / 1000.0, within far less than half a millisecond of n.
  const double milliseconds = std::round(seconds * 1000.0);
  if (!(milliseconds >= 0.0)) return 0;
  if (milliseconds >= 4294967295.0) return 4294967295u;
  return static_cast<uint32_t>(milliseconds);
}

std::string milliseconds_as_seconds(uint32_t milliseconds) {
  std::string fraction = std::to_string(milliseconds % 1000);
  fraction.insert(0, 3 - fraction.size(), '0');
  return std::to_string(milliseconds / 1000) + "." + fraction;
}

}  // namespace Veldrin::Tool
