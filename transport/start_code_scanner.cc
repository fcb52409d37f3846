#include "transport/start_code_scanner.h"

#include <cstring>

#if defined(__SSE2__)
#include <emmintrin.h>
#endif
#if defined(__x86_64__) && (defined(__GNUC__) || defined(__clang__))
#define VDX_WIDE_SCAN 1
#include <immintrin.h>
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
      // Without a prefix under way a start code can only begin at two zero bytes followed by a
      // zero or a one, or at zeros that end the range: anywhere else the counting comes back to
      // no prefix within two bytes, and the bytes passed over change nothing but last_byte.
      const size_t at = prefix_start(data, i, to, wide);
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

namespace {

#if defined(__SSE2__)
// Bit k set where data[at + k] and data[at + k + 1] are zero and data[at + k + 2] is 0 or 1, for
// k from 0 to 15: the places where a prefix can begin that goes on past its second zero.
inline unsigned prefix_starts_at(const unsigned char* data, size_t at) {
  const __m128i zero = _mm_setzero_si128();
  const __m128i one = _mm_set1_epi8(1);
  const __m128i first = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at));
  const __m128i second = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at + 1));
  const __m128i third = _mm_loadu_si128(reinterpret_cast<const __m128i*>(data + at + 2));
  const __m128i zeros = _mm_and_si128(_mm_cmpeq_epi8(first, zero), _mm_cmpeq_epi8(second, zero));
  const __m128i small = _mm_cmpeq_epi8(_mm_min_epu8(third, one), third);
  return static_cast<unsigned>(_mm_movemask_epi8(_mm_and_si128(zeros, small)));
}
#endif

#if defined(VDX_WIDE_SCAN)
// The same for 32 places, k from 0 to 31.
__attribute__((target("avx2"))) inline unsigned wide_prefix_starts_at(const unsigned char* data,
                                                                      size_t at) {
  const __m256i zero = _mm256_setzero_si256();
  const __m256i one = _mm256_set1_epi8(1);
  const __m256i first = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + at));
  const __m256i second = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + at + 1));
  const __m256i third = _mm256_loadu_si256(reinterpret_cast<const __m256i*>(data + at + 2));
  const __m256i zeros =
      _mm256_and_si256(_mm256_cmpeq_epi8(first, zero), _mm256_cmpeq_epi8(second, zero));
  const __m256i small = _mm256_cmpeq_epi8(_mm256_min_epu8(third, one), third);
  return static_cast<unsigned>(_mm256_movemask_epi8(_mm256_and_si256(zeros, small)));
}

// The places from i up to, not including, the last two before `to`, 32 at a time; to - i is at
// least 34. Gives the first place found, or to - 2 when there is none among them. The places
// left at the end are looked at by one more load that overlaps those already looked at.
__attribute__((target("avx2"))) size_t wide_prefix_start(const unsigned char* data, size_t i,
                                                         size_t to) {
  while (to - i >= 34) {
    const unsigned mask = wide_prefix_starts_at(data, i);
    if (mask != 0) return i + static_cast<size_t>(__builtin_ctz(mask));
    i += 32;
  }
  if (to - i > 2) {
    const size_t last = to - 34;
    const unsigned mask = wide_prefix_starts_at(data, last) & (~0u << (i - last));
    if (mask != 0) return last + static_cast<size_t>(__builtin_ctz(mask));
  }
  return to - 2;
}
#endif

// The test of one place, as prefix_start gives it.
inline bool prefix_starts(const unsigned char* data, size_t at, size_t to) {
  if (data[at] != 0) return false;
  if (at + 1 == to) return true;
  if (data[at + 1] != 0) return false;
  return at + 2 == to || data[at + 2] <= 1;
}

}  // namespace

bool StartCodeScanner::wide_scan_available() {
#if defined(VDX_WIDE_SCAN)
  static const bool available = __builtin_cpu_supports("avx2");
  return available;
#else
  return false;
#endif
}

size_t StartCodeScanner::prefix_start(const unsigned char* data, size_t from, size_t to,
                                      bool wide) {
  size_t i = from;
#if defined(VDX_WIDE_SCAN)
  if (wide && to - i >= 34) {
    const size_t at = wide_prefix_start(data, i, to);
    if (at != to - 2) return at;
    i = at;
  }
#else
  (void)wide;
#endif
#if defined(__SSE2__)
  // Sixteen places at a time, thirty-two while there is room; only bytes before `to` are
  // loaded. The places left at the end but two are looked at by one more load that overlaps
  // those already looked at, which are masked off.
  if (to - i >= 18) {
    while (to - i >= 34) {
      const unsigned low = prefix_starts_at(data, i);
      const unsigned high = prefix_starts_at(data, i + 16);
      if ((low | high) != 0) {
        return low != 0 ? i + static_cast<size_t>(__builtin_ctz(low))
                        : i + 16 + static_cast<size_t>(__builtin_ctz(high));
      }
      i += 32;
    }
    if (to - i >= 18) {
      const unsigned mask = prefix_starts_at(data, i);
      if (mask != 0) return i + static_cast<size_t>(__builtin_ctz(mask));
      i += 16;
    }
    if (to - i > 2) {
      const size_t last = to - 18;
      const unsigned mask = prefix_starts_at(data, last) & (~0u << (i - last));
      if (mask != 0) return last + static_cast<size_t>(__builtin_ctz(mask));
      i = to - 2;
    }
  }
#else
  // Without SSE2 memchr finds the zeros.
  while (to - i > 2) {
    const void* found = std::memchr(data + i, 0, to - i - 2);
    if (found == nullptr) {
      i = to - 2;
      break;
    }
    i = static_cast<size_t>(static_cast<const unsigned char*>(found) - data);
    if (prefix_starts(data, i, to)) return i;
    ++i;
  }
#endif
  // A short range, or the last two places, where the range ends inside a prefix.
  for (; i < to; ++i) {
    if (prefix_starts(data, i, to)) return i;
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
