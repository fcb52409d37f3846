#include "foundation/log/pattern_filter.h"

#include "foundation/text/glob.h"

namespace Korvix::Log {

void PatternFilter::log(Message& message) {
  // Only reads its fields, so it takes no lock.
  if (Text::glob_match(pattern, message.text, true)) next.log(message);
}

}  // namespace Korvix::Log
