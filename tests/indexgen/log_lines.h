#ifndef VDX_TESTS_INDEXGEN_LOG_LINES_H
#define VDX_TESTS_INDEXGEN_LOG_LINES_H

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "foundation/log/distributor.h"
#include "foundation/log/stream.h"

namespace VdxTest {

// Catches every log line, at every level, while it lives.
class LogLines : public Korvix::Log::Channel {
 public:
  LogLines() { Korvix::Log::logger.connect(*this); }
  ~LogLines() override { Korvix::Log::logger.disconnect(*this); }
  void log(Korvix::Log::Message& message) override {
    lines.push_back({message.level, message.text});
  }

  std::vector<std::string> at(int32_t level) const {
    std::vector<std::string> texts;
    for (const auto& [line_level, text] : lines) {
      if (line_level == level) texts.push_back(text);
    }
    return texts;
  }
  std::vector<std::string> detail() const { return at(Korvix::Log::LEVEL_DETAIL); }
  std::vector<std::string> summary() const { return at(Korvix::Log::LEVEL_SUMMARY); }
  std::vector<std::string> error() const { return at(Korvix::Log::LEVEL_ERROR); }
  // Detail lines other than the one for each NAL unit.
  std::vector<std::string> events() const {
    std::vector<std::string> texts;
    for (const std::string& text : detail()) {
      if (text.rfind("H.264 unit type: ", 0) != 0) texts.push_back(text);
    }
    return texts;
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

}  // namespace VdxTest

#endif
