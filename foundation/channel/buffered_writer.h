#ifndef KORVIX_CHANNEL_BUFFERED_WRITER_H
#define KORVIX_CHANNEL_BUFFERED_WRITER_H

#include <cstddef>
#include <vector>

#include "foundation/channel/writer.h"

namespace Korvix::Channel {

// Gathers small writes in memory and hands them on to another writer, which it does not own, in
// writes of its capacity: one virtual call and a copy for each small write instead of a passage
// through a stream's layers. The owner flushes what is left at the end; nothing is handed on by
// the destructor.
class BufferedWriter : public Writer {
 public:
  BufferedWriter(Writer& target_, size_t capacity);

  // A write that doesn't fit behind what is gathered flushes first; one as large as the
  // capacity goes to the target at once. When the target throws, the bytes of the failed
  // write and those gathered before it are lost and the exception goes on to the caller.
  void basic_write(const unsigned char* data, size_t count) override;
  // Hands what is gathered to the target and empties the buffer, also when the target throws.
  void flush();

  // For a caller that composes bytes in place: room for count bytes behind what is gathered,
  // flushing first when they don't fit (which may throw); null when count is beyond the
  // capacity. The bytes count as written when commit is called with the number filled.
  unsigned char* room(size_t count) {
    // Inline for the usual case, a packet at a time: there is room.
    if (count <= buffer.size() - used) return buffer.data() + used;
    return room_after_flush(count);
  }
  void commit(size_t count) {
    used += count;
    offset += count;
  }

  Writer& target;
  std::vector<unsigned char> buffer;
  size_t used = 0;  // bytes of buffer gathered

 private:
  unsigned char* room_after_flush(size_t count);
};

}  // namespace Korvix::Channel

#endif
