#include "foundation/channel/buffered_writer.h"

#include <cstring>

namespace Korvix::Channel {

BufferedWriter::BufferedWriter(Writer& target_, size_t capacity)
    : target(target_), buffer(capacity == 0 ? 1 : capacity) {}

void BufferedWriter::basic_write(const unsigned char* data, size_t count) {
  if (count > buffer.size() - used) flush();
  if (count >= buffer.size()) {
    target.write(data, count);
  } else if (count != 0) {
    std::memcpy(buffer.data() + used, data, count);
    used += count;
  }
  offset += count;
}

unsigned char* BufferedWriter::room_after_flush(size_t count) {
  if (count > buffer.size()) return nullptr;
  flush();
  return buffer.data() + used;
}

void BufferedWriter::flush() {
  const size_t count = used;
  used = 0;
  if (count != 0) target.write(buffer.data(), count);
}

}  // namespace Korvix::Channel
