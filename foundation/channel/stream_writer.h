#ifndef KORVIX_CHANNEL_STREAM_WRITER_H
#define KORVIX_CHANNEL_STREAM_WRITER_H

#include <ostream>

#include "foundation/channel/writer.h"

namespace Korvix::Channel {

// Writes to a standard output stream, which it does not own.
class StreamWriter : public Writer {
 public:
  explicit StreamWriter(std::ostream& stream_) : stream(stream_) {}

  void basic_write(const unsigned char* data, size_t count) override;
  bool rewindable() override { return true; }
  void rewind(uint64_t count) override;

  std::ostream& stream;
};

}  // namespace Korvix::Channel

#endif
