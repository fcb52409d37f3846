#ifndef VDX_TESTS_FOUNDATION_LOG_CAPTURING_CHANNEL_H
#define VDX_TESTS_FOUNDATION_LOG_CAPTURING_CHANNEL_H

#include <vector>

#include "foundation/log/channel.h"

// Keeps a copy of every message it gets, and the address it came at.
class CapturingChannel : public Korvix::Log::Channel {
 public:
  void log(Korvix::Log::Message& message) override {
    messages.push_back(message);
    addresses.push_back(&message);
  }

  std::vector<Korvix::Log::Message> messages;
  std::vector<const Korvix::Log::Message*> addresses;
};

#endif
