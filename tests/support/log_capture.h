#ifndef VDX_TESTS_SUPPORT_LOG_CAPTURE_H
#define VDX_TESTS_SUPPORT_LOG_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <vector>

#include "foundation/log/channel.h"
#include "foundation/log/distributor.h"
#include "foundation/log/stream.h"

namespace Veldrin::Testing {

// Collects every log line sent to the logger while it lives: its text in lines and its level at
// the same place in levels.
class LogCapture : public Korvix::Log::Channel {
 public:
  LogCapture() { Korvix::Log::logger.connect(*this); }
  ~LogCapture() override { Korvix::Log::logger.disconnect(*this); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void log(Korvix::Log::Message& message) override {
    levels.push_back(message.level);
    lines.push_back(message.text);
  }

  // The lines of one level, in order.
  std::vector<std::string> at(int32_t level) const {
    std::vector<std::string> out;
    for (size_t i = 0; i < lines.size(); ++i) {
      if (levels[i] == level) out.push_back(lines[i]);
    }
    return out;
  }
  std::vector<std::string> detail() const { return at(Korvix::Log::LEVEL_DETAIL); }
  std::vector<std::string> summary() const { return at(Korvix::Log::LEVEL_SUMMARY); }
  std::vector<std::string> error() const { return at(Korvix::Log::LEVEL_ERROR); }

  // The lines of a level that don't begin with prefix, in order.
  std::vector<std::string> at_without(int32_t level, const std::string& prefix) const {
    std::vector<std::string> out;
    for (const std::string& text : at(level)) {
      if (text.rfind(prefix, 0) != 0) out.push_back(text);
    }
    return out;
  }
  // The count of lines of a level that begin with prefix.
  size_t count(int32_t level, const std::string& prefix) const {
    size_t n = 0;
    for (const std::string& text : at(level)) {
      if (text.rfind(prefix, 0) == 0) ++n;
    }
    return n;
  }

  void clear() {
    levels.clear();
    lines.clear();
  }

  std::vector<int32_t> levels;
  std::vector<std::string> lines;
};

}  // namespace Veldrin::Testing

#endif
