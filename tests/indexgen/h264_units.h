#ifndef VDX_TESTS_INDEXGEN_H264_UNITS_H
#define VDX_TESTS_INDEXGEN_H264_UNITS_H

// H.264 NAL units for the parser's tests, with their bits written out one field at a time.

#include <gtest/gtest.h>

#include <cstdint>
#include <functional>
#include <sstream>
#include <string>

#include "foundation/channel/bit_writer.h"
#include "foundation/channel/stream_writer.h"

namespace VdxTest {

// Fixed and exp-Golomb fields into bytes, most significant bit first.
class Bits {
 public:
  Bits& u(uint32_t count, uint32_t value) {
    writer.write_bits(count, value);
    return *this;
  }
  Bits& ue(uint32_t value) {
    uint64_t code = uint64_t{value} + 1;
    uint32_t zeros = 0;
    while ((code >> (zeros + 1)) != 0) ++zeros;
    writer.write_bits(zeros, 0);
    writer.write_bits(zeros + 1, static_cast<uint32_t>(code));
    return *this;
  }
  // Positive values map to odd codes, the others to even ones: the code is never negative.
  Bits& se(int32_t value) {
    return ue(static_cast<uint32_t>(value > 0 ? 2 * value - 1 : -2 * value));
  }
  // Byte-aligns with zero bits and gives everything written.
  std::string bytes() {
    writer.flush();
    return out.str();
  }

 private:
  std::ostringstream out;
  Korvix::Channel::StreamWriter stream{out};
  Korvix::Channel::BitWriter writer{stream};
};

inline std::string start_code(bool four = false) {
  return four ? std::string("\0\0\0\1", 4) : std::string("\0\0\1", 3);
}

// A NAL unit with its start code. The body must not end in a zero byte nor hold 00 00 followed
// by 00, 01 or 02: either would change where the next start code begins.
inline std::string nal(uint8_t header, const std::string& body, bool four = false) {
  if (!body.empty() && body.back() == '\0') ADD_FAILURE() << "NAL body ends in a zero byte";
  for (size_t k = 0; k + 2 < body.size(); ++k) {
    if (body[k] == '\0' && body[k + 1] == '\0' && static_cast<unsigned char>(body[k + 2]) < 3) {
      ADD_FAILURE() << "NAL body holds a start code at " << k;
    }
  }
  return start_code(four) + static_cast<char>(header) + body;
}

inline std::string aud(bool four = false) {
  return nal(0x09, "\xF0", four);
}

// An SPS up to log2_max_frame_num_minus4, then a few bits that no one reads. high writes the
// fields that profiles 100, 110, 122, 144 (and 244) carry after seq_parameter_set_id.
inline std::string sps(uint8_t profile, uint32_t log2_max_frame_num_minus4, bool four = false,
                       const std::function<void(Bits&)>& high = {}) {
  Bits bits;
  bits.u(8, profile).u(8, 0xE0).u(8, 30).ue(0);
  if (high) high(bits);
  bits.ue(log2_max_frame_num_minus4).ue(2).ue(1).u(8, 0xA5).u(1, 1);
  return nal(0x67, bits.bytes(), four);
}

inline std::string pps(bool four = false) {
  return nal(0x68, "\xCE\x3C\x80", four);
}

// One slice: first_mb_in_slice, slice_type, pic_parameter_set_id, frame_num on frame_num_bits,
// then filler enough for the eight bytes that the parser reads.
inline std::string slice(uint8_t header, uint32_t frame_num, uint32_t frame_num_bits,
                         uint32_t first_mb = 0, bool four = false) {
  Bits bits;
  bits.ue(first_mb).ue((header & 31) == 5 ? 7 : 5).ue(0).u(frame_num_bits, frame_num);
  for (int k = 0; k < 12; ++k) bits.u(8, 0xA5);
  bits.u(1, 1);
  return nal(header, bits.bytes(), four);
}

inline std::string idr(uint32_t frame_num, uint32_t bits = 4, uint32_t first_mb = 0,
                       bool four = false) {
  return slice(0x65, frame_num, bits, first_mb, four);
}
inline std::string ref_slice(uint32_t frame_num, uint32_t bits = 4, bool four = false) {
  return slice(0x41, frame_num, bits, 0, four);
}
inline std::string nonref_slice(uint32_t frame_num, uint32_t bits = 4) {
  return slice(0x01, frame_num, bits);
}

// An SEI NAL unit holding the given messages, each already coded as type, size and payload.
inline std::string sei(const std::string& messages, bool four = false) {
  return nal(0x06, messages + "\x80", four);
}

// A recovery point message: recovery_frame_cnt, exact_match, broken_link, changing_slice_group.
inline std::string recovery_point(uint32_t count) {
  Bits bits;
  bits.ue(count).u(1, 1).u(1, 0).u(2, 0).u(1, 1);
  std::string payload = bits.bytes();
  return std::string("\x06", 1) + static_cast<char>(payload.size()) + payload;
}

// A message of another type that the parser passes over.
inline std::string user_data(size_t size) {
  return std::string("\x05", 1) + static_cast<char>(size) + std::string(size, '\x5A');
}

}  // namespace VdxTest

#endif
