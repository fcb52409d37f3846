#ifndef KORVIX_CHANNEL_BIT_READER_H
#define KORVIX_CHANNEL_BIT_READER_H

#include <cstdint>

#include "foundation/channel/reader.h"

namespace Korvix::Channel {

// Reads single bits, most significant first, and the exp-Golomb codes of H.264. Reading past the
// end of the data throws the Error of Reader::read_byte; bits already taken aren't given back.
class BitReader {
 public:
  explicit BitReader(Reader& reader_) : reader(reader_) {}

  int32_t read_bit();
  // The next count bits, first bit highest; a count of 0 or below reads nothing.
  int32_t read_bits(int32_t count);
  // One ue(v) code. The run of leading zeros has no limit of its own.
  int32_t read_exp_golomb();

  Reader& reader;  // not owned
  uint32_t bits_left = 0;
  uint32_t current = 0;
};

// Maps a ue(v) code to its se(v) value: 1 gives 1, 2 gives -1, 3 gives 2.
int32_t signed_exp_golomb(int32_t code);

}  // namespace Korvix::Channel

#endif
