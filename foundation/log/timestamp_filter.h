#ifndef KORVIX_LOG_TIMESTAMP_FILTER_H
#define KORVIX_LOG_TIMESTAMP_FILTER_H

#include <string>

#include "foundation/log/filter.h"

namespace Korvix::Log {

// Puts the time of each line in front of its text. format is a strftime format in local time,
// with two codes of its own replaced first: "%*L" by the level and "%*S" by the seconds within
// the minute with milliseconds ("07.250"). The message is altered in place, so channels after
// this one on the same distributor see the prefix too.
class TimestampFilter : public Filter {
 public:
  TimestampFilter(Channel& next_, std::string format_)
      : Filter(next_), format(std::move(format_)) {}
  void log(Message& message) override;

  std::string format;
};

}  // namespace Korvix::Log

#endif
