#ifndef KORVIX_CHANNEL_ERROR_H
#define KORVIX_CHANNEL_ERROR_H

#include <cstdint>
#include <string>

namespace Korvix::Channel {

// The one exception of the binary layer. Code 0 is end of data, 1 a failure of the source or sink
// or a bound, 2 that the source cannot go back.
class Error {
 public:
  Error(int32_t error_, std::string text_) : error(error_), text(std::move(text_)) {}

  int32_t error;
  std::string text;
};

}  // namespace Korvix::Channel

#endif
