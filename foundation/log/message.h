#ifndef KORVIX_LOG_MESSAGE_H
#define KORVIX_LOG_MESSAGE_H

#include <cstdint>
#include <string>

#include "foundation/time/stamp.h"

namespace Korvix::Log {

// One finished log line, without its newline.
struct Message {
  int32_t level = 0;
  Stamp timestamp;
  std::string text;
};

}  // namespace Korvix::Log

#endif
