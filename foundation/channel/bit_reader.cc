#include "foundation/channel/bit_reader.h"

namespace Korvix::Channel {

int32_t BitReader::read_bit() {
  if (bits_left == 0) {
    current = reader.read_byte();
    bits_left = 8;
  }
  --bits_left;
  return static_cast<int32_t>((current >> bits_left) & 1);
}

int32_t BitReader::read_bits(int32_t count) {
  // Built unsigned: bits shifted out at the top are dropped without overflow.
  uint32_t value = 0;
  for (int32_t n = 0; n < count; ++n) value = (value << 1) | static_cast<uint32_t>(read_bit());
  return static_cast<int32_t>(value);
}

int32_t BitReader::read_exp_golomb() {
  uint32_t zeros = 0;
  while (read_bit() == 0) ++zeros;
  // Read bit by bit: a run longer than 32 zeros still consumes all of its suffix.
  uint32_t suffix = 0;
  for (uint32_t n = 0; n < zeros; ++n) suffix = (suffix << 1) | static_cast<uint32_t>(read_bit());
  return static_cast<int32_t>((1u << (zeros % 32)) - 1u + suffix);
}

int32_t signed_exp_golomb(int32_t code) {
  // code + 1 wraps in 32 bits and stays signed, so the shift is arithmetic: a negative code,
  // which a run of 31 zeros gives, keeps its sign.
  const int32_t next = static_cast<int32_t>(static_cast<uint32_t>(code) + 1u);
  const int32_t magnitude = next >> 1;
  return (code % 2 == 0) ? -magnitude : magnitude;
}

}  // namespace Korvix::Channel
