#ifndef KORVIX_LOG_LEVEL_FILTER_H
#define KORVIX_LOG_LEVEL_FILTER_H

#include <cstdint>

#include "foundation/log/filter.h"

namespace Korvix::Log {

// Passes messages whose level is at most level; smaller is more important.
class LevelFilter : public Filter {
 public:
  LevelFilter(Channel& next_, int32_t level_) : Filter(next_), level(level_) {}
  void log(Message& message) override {
    if (message.level <= level) next.log(message);
  }
  bool accepts(int32_t message_level) override {
    return message_level <= level && next.accepts(message_level);
  }

  int32_t level;
};

}  // namespace Korvix::Log

#endif
