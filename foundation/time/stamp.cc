#include "foundation/time/stamp.h"

#include <sys/time.h>

namespace Korvix {

Stamp Stamp::from_unix(int64_t seconds, int64_t microseconds) {
  uint64_t high = static_cast<uint64_t>(seconds) + unix_epoch_offset;
  uint64_t low = (static_cast<uint64_t>(microseconds) << 32) / 1000000;
  return Stamp((high << 32) + low);
}

Stamp Stamp::now() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return from_unix(tv.tv_sec, tv.tv_usec);
}

}  // namespace Korvix
