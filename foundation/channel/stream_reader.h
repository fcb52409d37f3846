#ifndef KORVIX_CHANNEL_STREAM_READER_H
#define KORVIX_CHANNEL_STREAM_READER_H

#include <istream>

#include "foundation/channel/reader.h"

namespace Korvix::Channel {

// Reads from a standard input stream, which it does not own.
class StreamReader : public Reader {
 public:
  explicit StreamReader(std::istream& stream_) : stream(stream_) {}

  size_t basic_read(unsigned char* data, size_t count) override;
  bool rewindable() override { return true; }
  void rewind(uint64_t count) override;

  std::istream& stream;
};

}  // namespace Korvix::Channel

#endif
