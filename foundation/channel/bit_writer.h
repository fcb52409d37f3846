#ifndef KORVIX_CHANNEL_BIT_WRITER_H
#define KORVIX_CHANNEL_BIT_WRITER_H

#include <cstdint>

#include "foundation/channel/writer.h"

namespace Korvix::Channel {

// Writes single bits, most significant first; the counterpart of BitReader.
class BitWriter {
 public:
  explicit BitWriter(Writer& writer_) : writer(writer_) {}

  // Writes the low bit of bit.
  void write_bit(uint32_t bit);
  // Writes the low count bits of value, highest first.
  void write_bits(uint32_t count, uint32_t value);
  // Completes a partial byte with zero bits at the low end; nothing pending writes nothing.
  void flush();

  Writer& writer;  // not owned
  uint32_t bits_used = 0;
  uint32_t accumulator = 0;
};

}  // namespace Korvix::Channel

#endif
