#include "foundation/log/stream.h"

namespace Korvix::Log {

StreamBuf::int_type StreamBuf::overflow(int_type c) {
  if (traits_type::eq_int_type(c, traits_type::eof())) {
    // Sent once in the life of the buffer; the flag is never reset.
    if (!flushed) {
      flushed = true;
      Message message{level, Stamp::now(), buffer};
      channel.log(message);
    }
  } else if (c == '\n') {
    Message message{level, Stamp::now(), buffer};
    channel.log(message);
    buffer.clear();
  } else {
    buffer.push_back(traits_type::to_char_type(c));
  }
  return 0;
}

Stream::Stream(Channel& channel, int32_t level)
    : std::ostream(nullptr), buffer(std::make_unique<StreamBuf>(channel, level)) {
  rdbuf(buffer.get());
}

// The buffer goes with the stream, after it has been taken out of it.
Stream::~Stream() {
  rdbuf(nullptr);
}

}  // namespace Korvix::Log
