#include "indexgen/mpeg2_parser.h"

#include <cstring>
#include <vector>

namespace Veldrin::IndexGen {

void MPEG2Parser::parse(CapturedPacket& packet) {
  std::vector<unsigned char>& payload = packet.packet.payload;
  if (packet.packet.scrambling_control != 0) {
    // A prefix can't run across a packet that we can't read.
    scan_state = 0;
  } else {
    const unsigned char* bytes = payload.data();
    const size_t size = payload.size();
    size_t i = static_cast<size_t>(packet.pes_header_length);
    while (i < size) {
      if (scan_state == 0) {
        // Nothing pending: only a zero byte can begin a prefix.
        const void* zero = std::memchr(bytes + i, 0, size - i);
        if (zero == nullptr) break;
        i = static_cast<size_t>(static_cast<const unsigned char*>(zero) - bytes);
      }
      const unsigned char b = bytes[i];
      if (scan_state == 3) {
        // The value byte never counts as a zero of a next prefix.
        scan_state = 0;
        start_code(packet, i, b);
      } else if (b == 0) {
        if (scan_state < 2) ++scan_state;
      } else if (b == 1) {
        scan_state = scan_state == 2 ? 3 : 0;
      } else {
        scan_state = 0;
      }
      ++i;
    }
  }
  if (payload.empty()) return;
  if (previous != nullptr) previous->state = PACKET_FREE;
  previous = &packet;
  packet.state = PACKET_HELD;
}

void MPEG2Parser::start_code(CapturedPacket& packet, size_t index, unsigned char value) {
  if (value == MPEG2_SEQUENCE_HEADER_CODE) {
    if (capturing) place(packet, index, 4, true);
    place(packet, index, 3, false);
    capturing = true;
    picture_count = 0;
  } else if (value == MPEG2_PICTURE_START_CODE) {
    if (capturing) {
      ++picture_count;
      if (picture_count != 1) {
        capturing = false;
        place(packet, index, 4, true);
      }
    }
  }
}

void MPEG2Parser::place(CapturedPacket& packet, size_t index, size_t back, bool is_end) {
  const size_t start = static_cast<size_t>(packet.pes_header_length);
  if (index >= start + back) {
    packet.add_marker(static_cast<int32_t>(index - back), is_end);
    if (!is_end) packet.holds_start = true;
    return;
  }
  if (previous == nullptr) return;
  // The place lies in the previous payload, counted from its end.
  const int32_t position = static_cast<int32_t>(index - start) - static_cast<int32_t>(back);
  previous->add_marker(position, is_end);
  if (!is_end) previous->holds_start = true;
}

}  // namespace Veldrin::IndexGen
