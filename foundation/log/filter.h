#ifndef KORVIX_LOG_FILTER_H
#define KORVIX_LOG_FILTER_H

#include "foundation/log/channel.h"

namespace Korvix::Log {

// A channel that passes what it lets through to next, which it does not own.
class Filter : public Channel {
 public:
  explicit Filter(Channel& next_) : next(next_) {}
  bool accepts(int32_t level) override { return next.accepts(level); }

  Channel& next;
};

}  // namespace Korvix::Log

#endif
