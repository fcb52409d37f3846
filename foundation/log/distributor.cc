#include "foundation/log/distributor.h"

#include <algorithm>

namespace Korvix::Log {

Distributor logger;

void Distributor::connect(Channel& channel) {
  std::lock_guard<std::mutex> lock(mutex);
  channels.push_back(&channel);
}

void Distributor::disconnect(Channel& channel) {
  std::lock_guard<std::mutex> lock(mutex);
  channels.erase(std::remove(channels.begin(), channels.end(), &channel), channels.end());
}

bool Distributor::accepts(int32_t level) {
  std::lock_guard<std::mutex> lock(mutex);
  return std::any_of(channels.begin(), channels.end(),
                     [level](Channel* channel) { return channel->accepts(level); });
}

void Distributor::log(Message& message) {
  std::lock_guard<std::mutex> lock(mutex);
  for (Channel* channel : channels) channel->log(message);
}

}  // namespace Korvix::Log
