#include "foundation/channel/stream_writer.h"

namespace Korvix::Channel {

void StreamWriter::basic_write(const unsigned char* data, size_t count) {
  // The state is looked at before the write only, so a failed write surfaces on the next one.
  if (stream.fail()) throw Error(1, "Stream failed");
  stream.write(reinterpret_cast<const char*>(data), static_cast<std::streamsize>(count));
  offset += count;
}

void StreamWriter::rewind(uint64_t count) {
  if (offset < count) throw Error(1, "Rewound too far");
  offset -= count;
  stream.seekp(-static_cast<std::streamoff>(count), std::ios::cur);
  if (stream.fail()) throw Error(2, "Can't rewind");
}

}  // namespace Korvix::Channel
