#ifndef KORVIX_CHANNEL_BLOCK_WRITER_H
#define KORVIX_CHANNEL_BLOCK_WRITER_H

#include "foundation/channel/writer.h"

namespace Korvix::Channel {

// Writes into the caller's block of memory; never beyond its length.
class BlockWriter : public Writer {
 public:
  BlockWriter(unsigned char* data_, uint64_t length_) : data(data_), length(length_) {}

  void basic_write(const unsigned char* in, size_t count) override;
  void skip(uint64_t count) override;
  bool rewindable() override { return true; }
  void rewind(uint64_t count) override;

  unsigned char* data;
  uint64_t length;
};

}  // namespace Korvix::Channel

#endif
