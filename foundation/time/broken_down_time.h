#ifndef KORVIX_TIME_BROKEN_DOWN_TIME_H
#define KORVIX_TIME_BROKEN_DOWN_TIME_H

#include <cstdint>

namespace Korvix {

// A calendar date and time of day; sec carries the fraction.
struct BrokenDownTime {
  int32_t year = 1900;
  int32_t month = 1;  // 1 to 12
  int32_t day = 1;    // 1 to 31
  int32_t hour = 0;
  int32_t min = 0;
  double sec = 0.0;

  bool operator==(const BrokenDownTime& other) const = default;
};

}  // namespace Korvix

#endif
