#include "foundation/log/stream_channel.h"

namespace Korvix::Log {

void StreamChannel::log(Message& message) {
  std::lock_guard<std::mutex> lock(mutex);
  stream << message.text << std::endl;
}

}  // namespace Korvix::Log
