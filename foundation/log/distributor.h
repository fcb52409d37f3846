#ifndef KORVIX_LOG_DISTRIBUTOR_H
#define KORVIX_LOG_DISTRIBUTOR_H

#include <vector>

#include "foundation/log/channel.h"

namespace Korvix::Log {

// Passes each message to every connected channel, in order of connection. Never owns them.
class Distributor : public Channel {
 public:
  void connect(Channel& channel);
  // Removes every entry equal to channel.
  void disconnect(Channel& channel);
  void log(Message& message) override;
  bool accepts(int32_t level) override;

  std::vector<Channel*> channels;
};

// The process-wide root of the log graph.
extern Distributor logger;

}  // namespace Korvix::Log

#endif
