#ifndef KORVIX_LOG_PATTERN_FILTER_H
#define KORVIX_LOG_PATTERN_FILTER_H

#include <string>

#include "foundation/log/filter.h"

namespace Korvix::Log {

// Passes the lines whose whole text matches a glob pattern, case significant.
class PatternFilter : public Filter {
 public:
  PatternFilter(Channel& next_, std::string pattern_)
      : Filter(next_), pattern(std::move(pattern_)) {}
  void log(Message& message) override;

  std::string pattern;
};

}  // namespace Korvix::Log

#endif
