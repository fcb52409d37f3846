#include "transport/start_code_scanner.h"

#include <cstring>

namespace Veldrin::IndexGen {

StartCode StartCodeScanner::find(const unsigned char* data, size_t from, size_t to) {
  if (byte_by_byte) return find_byte_by_byte(data, from, to);
  // The counters live in locals here: a store through a member could alias the bytes scanned.
  int32_t prefix = prefix_length;
  uint8_t last = last_byte;
  size_t i = from;
  while (i < to) {
    if (prefix == 0) {
      // Without a prefix under way only a zero byte can begin one, and the bytes ahead of it
      // change nothing but last_byte, which the zero then replaces.
      const void* zero = std::memchr(data + i, 0, to - i);
      if (zero == nullptr) {
        last = data[to - 1];
        break;
      }
      const size_t at = static_cast<size_t>(static_cast<const unsigned char*>(zero) - data);
      if (at + 1 < to && data[at + 1] != 0) {
        // A single zero begins nothing: the byte behind it leaves no prefix either.
        last = data[at + 1];
        i = at + 2;
        continue;
      }
      i = at + 1;
      prefix = 1;
      last = 0;
      continue;
    }
    const uint8_t b = data[i];
    if (last == 1 && prefix >= 3) {
      // The value byte never counts as a zero of a next prefix.
      prefix_length = 0;
      last_byte = b;
      return StartCode{i, prefix};
    }
    if (b == 0) {
      if (prefix < 3) ++prefix;
    } else if (b == 1) {
      prefix = (prefix == 2 || prefix == 3) ? prefix + 1 : 0;
    } else {
      prefix = 0;
    }
    last = b;
    ++i;
  }
  prefix_length = prefix;
  last_byte = last;
  return StartCode{to, 0};
}

StartCode StartCodeScanner::find_byte_by_byte(const unsigned char* data, size_t from, size_t to) {
  for (size_t i = from; i < to; ++i) {
    const uint8_t b = data[i];
    if (last_byte == 1 && prefix_length >= 3) {
      const StartCode code{i, prefix_length};
      prefix_length = 0;
      last_byte = b;
      return code;
    }
    if (b == 0) {
      if (prefix_length < 3) ++prefix_length;
    } else if (b == 1) {
      prefix_length = (prefix_length == 2 || prefix_length == 3) ? prefix_length + 1 : 0;
    } else {
      prefix_length = 0;
    }
    last_byte = b;
  }
  return StartCode{to, 0};
}

int32_t StartCodeScanner::scan_state() const {
  if (last_byte == 1 && prefix_length >= 3) return 3;
  return prefix_length < 2 ? prefix_length : 2;
}

}  // namespace Veldrin::IndexGen
