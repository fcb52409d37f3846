#ifndef KORVIX_TIME_STAMP_H
#define KORVIX_TIME_STAMP_H

#include <cstdint>

namespace Korvix {

// Unsigned 64-bit time: 32 bits of whole seconds above 32 bits of fraction, counted from
// 1 January 1900 00:00:00 UTC as in NTP. The value 0 means invalid or not set.
class Stamp {
 public:
  // Seconds from 1900 to 1970.
  static constexpr uint64_t unix_epoch_offset = 2208988800ULL;

  Stamp() = default;
  explicit Stamp(uint64_t value_) : value(value_) {}

  static Stamp now();
  // The same, from a given Unix time; now() is this on gettimeofday.
  static Stamp from_unix(int64_t seconds, int64_t microseconds);

  bool valid() const { return value != 0; }
  bool operator==(const Stamp& other) const = default;

  uint64_t value = 0;
};

}  // namespace Korvix

#endif
