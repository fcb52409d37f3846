#ifndef KORVIX_LOG_CHANNEL_H
#define KORVIX_LOG_CHANNEL_H

#include <cstdint>
#include <mutex>

#include "foundation/log/message.h"

namespace Korvix::Log {

// A node of the log graph: a filter or a sink.
class Channel {
 public:
  Channel() = default;
  Channel(const Channel&) = delete;
  Channel& operator=(const Channel&) = delete;
  virtual void log(Message& message) = 0;
  // Whether a line of this level would get past every filter to some sink. Streams ask it
  // before they build a line, so that a line nobody takes costs nothing more.
  virtual bool accepts(int32_t level) {
    (void)level;
    return true;
  }
  virtual ~Channel() = default;

 protected:
  std::mutex mutex;
};

}  // namespace Korvix::Log

#endif
