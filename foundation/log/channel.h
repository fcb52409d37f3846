#ifndef KORVIX_LOG_CHANNEL_H
#define KORVIX_LOG_CHANNEL_H

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
  virtual ~Channel() = default;

 protected:
  std::mutex mutex;
};

}  // namespace Korvix::Log

#endif
