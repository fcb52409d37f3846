#ifndef KORVIX_CHANNEL_STRING_WRITER_H
#define KORVIX_CHANNEL_STRING_WRITER_H

#include <string>

#include "foundation/channel/writer.h"

namespace Korvix::Channel {

// Appends to a string, which it does not own: the bytes a StreamWriter over a string stream
// would give, without building a stream for every short-lived use on the packet path.
class StringWriter : public Writer {
 public:
  explicit StringWriter(std::string& text_) : text(text_) {}

  void basic_write(const unsigned char* data, size_t count) override;

  std::string& text;
};

}  // namespace Korvix::Channel

#endif
