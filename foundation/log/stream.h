#ifndef KORVIX_LOG_STREAM_H
#define KORVIX_LOG_STREAM_H

#include <cstdint>
#include <memory>
#include <ostream>
#include <streambuf>
#include <string>

#include "foundation/log/distributor.h"

namespace Korvix::Log {

constexpr int32_t LEVEL_ERROR = 1;
constexpr int32_t LEVEL_SUMMARY = 2;
constexpr int32_t LEVEL_DETAIL = 3;

// Turns each finished line written to a log stream into a Message. It has no put area, so
// every character reaches overflow.
class StreamBuf : public std::streambuf {
 public:
  StreamBuf(Channel& channel_, int32_t level_) : channel(channel_), level(level_) {}

  std::string buffer;
  bool flushed = false;
  Channel& channel;
  int32_t level;

 protected:
  int_type overflow(int_type c) override;
};

// An output stream whose lines go to a log channel at a fixed level.
class Stream : public std::ostream {
 public:
  // Whether a line written now would reach a sink. Hot paths test it before they write a
  // line, so that a line below the level is never formatted nor stamped.
  bool enabled() {
    const StreamBuf* line = static_cast<const StreamBuf*>(rdbuf());
    return line->channel.accepts(line->level);
  }
  Stream(Channel& channel, int32_t level);
  ~Stream() override;

 private:
  std::unique_ptr<StreamBuf> buffer;  // installed as the stream's buffer
};

class Error : public Stream {
 public:
  explicit Error(Channel& channel = logger) : Stream(channel, LEVEL_ERROR) {}
};

class Summary : public Stream {
 public:
  explicit Summary(Channel& channel = logger) : Stream(channel, LEVEL_SUMMARY) {}
};

class Detail : public Stream {
 public:
  explicit Detail(Channel& channel = logger) : Stream(channel, LEVEL_DETAIL) {}
};

// The three streams of a class that logs, all on one channel.
struct Streams {
  explicit Streams(Channel& channel = logger) : error(channel), summary(channel), detail(channel) {}

  Error error;
  Summary summary;
  Detail detail;
};

}  // namespace Korvix::Log

#endif
