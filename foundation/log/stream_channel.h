#ifndef KORVIX_LOG_STREAM_CHANNEL_H
#define KORVIX_LOG_STREAM_CHANNEL_H

#include <ostream>

#include "foundation/log/channel.h"

namespace Korvix::Log {

// The sink: each message becomes one line on an output stream, flushed at once.
class StreamChannel : public Channel {
 public:
  explicit StreamChannel(std::ostream& stream_) : stream(stream_) {}
  void log(Message& message) override;

  std::ostream& stream;
};

}  // namespace Korvix::Log

#endif
