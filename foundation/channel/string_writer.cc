#include "foundation/channel/string_writer.h"

namespace Korvix::Channel {

// Out of line, so that every user calls the one copy that is compiled here.
void StringWriter::basic_write(const unsigned char* data, size_t count) {
  text.append(reinterpret_cast<const char*>(data), count);
  offset += count;
}

}  // namespace Korvix::Channel
