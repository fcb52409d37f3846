#include "foundation/channel/block_writer.h"

#include <cstring>

namespace Korvix::Channel {

void BlockWriter::basic_write(const unsigned char* in, size_t count) {
  if (length - offset < count) throw Error(1, "Data block overflowed");
  if (count > 0) std::memcpy(data, in, count);
  data += count;
  offset += count;
}

void BlockWriter::skip(uint64_t count) {
  if (count > length - offset) throw Error(1, "Data block overflowed in skip");
  if (count > 0) std::memset(data, 0, static_cast<size_t>(count));
  data += count;
  offset += count;
}

void BlockWriter::rewind(uint64_t count) {
  if (offset < count) throw Error(1, "Rewound too far");
  data -= count;
  offset -= count;
}

}  // namespace Korvix::Channel
