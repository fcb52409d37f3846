#include "foundation/channel/stream_writer.h"

namespace Korvix::Channel {

void StreamWriter::basic_write(const unsigned char* data, size_t count) {
  // The state is looked at before the write only, so a failed write surfaces on the next one.
  if (stream.fail()) throw Error(1, "Stream failed");
  const auto size = static_cast<std::streamsize>(count);
  std::streambuf* buffer = stream.rdbuf();
  if (stream.tie() != nullptr || (stream.flags() & std::ios::unitbuf) != 0 || buffer == nullptr) {
    stream.write(reinterpret_cast<const char*>(data), size);
  } else if (buffer->sputn(reinterpret_cast<const char*>(data), size) != size) {
    // Straight into the buffer, which is all that write does for a stream without a tied
    // stream or unit buffering; a short put fails the stream as write would.
    stream.setstate(std::ios::badbit);
  }
  offset += count;
}

void StreamWriter::rewind(uint64_t count) {
  if (offset < count) throw Error(1, "Rewound too far");
  offset -= count;
  stream.seekp(-static_cast<std::streamoff>(count), std::ios::cur);
  if (stream.fail()) throw Error(2, "Can't rewind");
}

}  // namespace Korvix::Channel
