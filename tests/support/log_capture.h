#ifndef VDX_TESTS_SUPPORT_LOG_CAPTURE_H
#define VDX_TESTS_SUPPORT_LOG_CAPTURE_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "foundation/log/channel.h"
#include "foundation/log/distributor.h"

namespace Veldrin::Testing {

// Collects every log line sent to the logger while it lives, with its level.
class LogCapture : public Korvix::Log::Channel {
 public:
  LogCapture() { Korvix::Log::logger.connect(*this); }
  ~LogCapture() override { Korvix::Log::logger.disconnect(*this); }
  void log(Korvix::Log::Message& message) override {
    lines.push_back({message.level, message.text});
  }
  // The lines of one level, in order.
  std::vector<std::string> at(int32_t level) const {
    std::vector<std::string> out;
    for (const auto& line : lines) {
      if (line.first == level) out.push_back(line.second);
    }
    return out;
  }

  std::vector<std::pair<int32_t, std::string>> lines;
};

}  // namespace Veldrin::Testing

#endif
