#ifndef VDX_TESTS_SUPPORT_LOG_CAPTURE_H
#define VDX_TESTS_SUPPORT_LOG_CAPTURE_H

#include <cstddef>
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "foundation/log/channel.h"
#include "foundation/log/distributor.h"
#include "foundation/log/stream.h"

namespace Veldrin::Testing {

// Collects every log line sent to the logger while it lives, with its level.
class LogCapture : public Korvix::Log::Channel {
 public:
  LogCapture() { Korvix::Log::logger.connect(*this); }
  ~LogCapture() override { Korvix::Log::logger.disconnect(*this); }
  LogCapture(const LogCapture&) = delete;
  LogCapture& operator=(const LogCapture&) = delete;

  void log(Korvix::Log::Message& message) override {
    lines.push_back({message.level, message.text});
  }

  // Every line's text, in order.
  std::vector<std::string> texts() const {
    std::vector<std::string> out;
    for (const auto& line : lines) out.push_back(line.second);
    return out;
  }
  // Every line's level, in order.
  std::vector<int32_t> levels() const {
    std::vector<int32_t> out;
    for (const auto& line : lines) out.push_back(line.first);
    return out;
  }
  // The lines of one level, in order.
  std::vector<std::string> at(int32_t level) const {
    std::vector<std::string> out;
    for (const auto& line : lines) {
      if (line.first == level) out.push_back(line.second);
    }
    return out;
  }
  std::vector<std::string> detail() const { return at(Korvix::Log::LEVEL_DETAIL); }
  std::vector<std::string> summary() const { return at(Korvix::Log::LEVEL_SUMMARY); }
  std::vector<std::string> error() const { return at(Korvix::Log::LEVEL_ERROR); }
  // Detail lines other than the one for each H.264 unit.
  std::vector<std::string> events() const {
    std::vector<std::string> out;
    for (const std::string& text : detail()) {
      if (text.rfind("H.264 unit type: ", 0) != 0) out.push_back(text);
    }
    return out;
  }
  // Lines of a level that begin with prefix.
  size_t count(int32_t level, const std::string& prefix) const {
    size_t n = 0;
    for (const std::string& text : at(level)) {
      if (text.rfind(prefix, 0) == 0) ++n;
    }
    return n;
  }

  std::vector<std::pair<int32_t, std::string>> lines;
};

}  // namespace Veldrin::Testing

#endif
