#include "foundation/channel/bit_writer.h"

namespace Korvix::Channel {

void BitWriter::write_bit(uint32_t bit) {
  accumulator = accumulator * 2 + (bit & 1);
  if (++bits_used == 8) {
    writer.write_byte(accumulator & 0xFF);
    bits_used = 0;
    accumulator = 0;
  }
}

void BitWriter::write_bits(uint32_t count, uint32_t value) {
  for (uint32_t n = count; n > 0; --n) write_bit(n - 1 < 32 ? value >> (n - 1) : 0);
}

void BitWriter::flush() {
  if (bits_used == 0) return;
  accumulator <<= 8 - bits_used;
  writer.write_byte(accumulator & 0xFF);
  bits_used = 0;
  accumulator = 0;
}

}  // namespace Korvix::Channel
