#ifndef KORVIX_CHANNEL_BLOCK_READER_H
#define KORVIX_CHANNEL_BLOCK_READER_H

#include "foundation/channel/reader.h"

namespace Korvix::Channel {

// Reads from the caller's block of memory. data always equals the start of the block plus
// offset, and offset never exceeds length.
class BlockReader : public Reader {
 public:
  BlockReader(const unsigned char* data_, uint64_t length_) : data(data_), length(length_) {}

  // Reads only what the block holds; a call never leaves it.
  size_t basic_read(unsigned char* out, size_t count) override {
    uint64_t left = length - offset;
    size_t n = count < left ? count : static_cast<size_t>(left);
    if (n == 0) return 0;
    if (out != nullptr) __builtin_memcpy(out, data, n);
    data += n;
    offset += n;
    return n;
  }
  void skip(uint64_t count) override;
  bool rewindable() override { return true; }
  void rewind(uint64_t count) override;

  const unsigned char* data;
  uint64_t length;
};

}  // namespace Korvix::Channel

#endif
