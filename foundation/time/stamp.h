#ifndef KORVIX_TIME_STAMP_H
#define KORVIX_TIME_STAMP_H

#include <cstdint>
#include <string>

#include "foundation/time/broken_down_time.h"

namespace Korvix {

// Unsigned 64-bit time: 32 bits of whole seconds above 32 bits of fraction, counted from
// 1 January 1900 00:00:00 UTC as in NTP. The value 0 means invalid or not set.
class Stamp {
 public:
  // Seconds from 1900 to 1970.
  static constexpr uint64_t unix_epoch_offset = 2208988800ULL;

  Stamp() = default;
  explicit Stamp(uint64_t value_) : value(value_) {}
  // A month outside 1 to 12 gives the invalid stamp. Whole seconds beyond the 32 bits of the
  // era wrap.
  explicit Stamp(const BrokenDownTime& time);

  static Stamp now();
  // The same, from a given Unix time; now() is this on gettimeofday.
  static Stamp from_unix(int64_t seconds, int64_t microseconds);
  // "YYYYMMDDTHHMMSS", with optional "-" in the date and ":" in the time, and a blank or "T"
  // between them; seconds may carry a fraction. Fewer than 15 characters, or any other
  // character where a digit is due, give the invalid stamp.
  static Stamp from_iso(const std::string& text);

  bool valid() const { return value != 0; }
  bool operator==(const Stamp& other) const = default;

  BrokenDownTime broken_down() const;
  // 1 is Monday, 7 Sunday.
  int32_t weekday() const;

  // strftime forms, following the locale: "%x %H:%M", "%X" and "%x".
  std::string date_time_text() const;
  std::string time_text() const;
  std::string date_text() const;
  // "%a, %d %b %Y %T GMT"; empty for the invalid stamp.
  std::string gmt_text() const;

  // YYYYMMDDTHHMMSS.
  std::string iso_compact() const;
  std::string iso_date(const std::string& separator = "-") const;
  std::string iso_time(const std::string& separator = ":", bool seconds = true) const;
  // YYYY-MM-DDTHH:MM:SS.sssZ, milliseconds truncated.
  std::string iso() const;

  // The same instant read as a wall clock: a UTC stamp to the local time of the process's
  // zone, and back.
  Stamp utc_to_local() const;
  Stamp local_to_utc() const;

  uint64_t value = 0;
};

}  // namespace Korvix

#endif
