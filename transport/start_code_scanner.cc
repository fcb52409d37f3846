#include "transport/start_code_scanner.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif

namespace Veldrin::IndexGen {

StartCode StartCodeScanner::find(const unsigned char* data, size_t from, size_t to) {
  if (byte_by_byte) return find_byte_by_byte(data, from, to);
  // The counters live in locals here: a store through a member could alias the bytes scanned.
  int32_t prefix = prefix_length;
  uint8_t last = last_byte;
  size_t i = from;
  while (i < to) {
    if (prefix == 0) {
      // Without a prefix under way a start code can only begin at two zero bytes in a row, or
      // at a zero that ends the range. A zero followed by anything else leaves no prefix, and
      // the bytes passed over change nothing but last_byte.
      const size_t at = zero_pair(data, i, to);
      if (at == to) {
        last = data[to - 1];
        break;
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

size_t StartCodeScanner::zero_pair(const unsigned char* data, size_t from, size_t to) {
  size_t i = from;
#if defined(__SSE2__)
  // Sixteen places at a time: a zero byte at a place and another behind it. Only bytes before
  // `to` are loaded.
  const __m128i zero = _mm_setzero_si128();
  while (to - i >= 17) {
    const __m128i here = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i));
    const __m128i next = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + i + 1));
    const __m128i both = _mm_and_si128(_mm_cmpeq_epi8(here, zero), _mm_cmpeq_epi8(next, zero));
    const auto mask = static_cast<unsigned>(_mm_movemask_epi8(both));
    if (mask != 0) return i + static_cast<size_t>(__builtin_ctz(mask));
    i += 16;
  }
#endif
  // The rest, or everything where there is no SSE2: memchr finds the zeros.
  while (i < to) {
    const void* found = std::memchr(data + i, 0, to - i);
    if (found == nullptr) return to;
    const size_t at = static_cast<size_t>(static_cast<const unsigned char*>(found) - data);
    if (at + 1 == to || data[at + 1] == 0) return at;
    i = at + 2;
  }
  return to;
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
