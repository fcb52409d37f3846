#include "indexgen/mpeg2_parser.h"

#include <vector>

namespace Veldrin::IndexGen {

void MPEG2Parser::parse(CapturedPacket& packet) {
  Payload& payload = packet.packet.payload;
  if (packet.packet.scrambling_control != 0) {
    // A prefix can't run across a packet that we can't read.
    scanner.forget();
  } else {
    // The scan starts behind the PES header of every packet; the header is never looked at.
    size_t from = static_cast<size_t>(packet.pes_header_length);
    for (;;) {
      const StartCode code = scanner.find(payload.data(), from, payload.size());
      if (!code.found()) break;
      start_code(packet, code, payload[code.index]);
      from = code.index + 1;
    }
  }
  if (payload.empty()) return;
  if (previous != nullptr) previous->state = PACKET_FREE;
  previous = &packet;
  packet.state = PACKET_HELD;
}

void MPEG2Parser::start_code(CapturedPacket& packet, const StartCode& code, unsigned char value) {
  // The frame starts at the first byte of the prefix and ends at the byte ahead of it.
  if (value == MPEG2_SEQUENCE_HEADER_CODE) {
    if (capturing) place(packet, code, MPEG2_PREFIX_LENGTH + 1, true);
    place(packet, code, MPEG2_PREFIX_LENGTH, false);
    capturing = true;
    picture_count = 0;
  } else if (value == MPEG2_PICTURE_START_CODE) {
    if (capturing) {
      ++picture_count;
      if (picture_count != 1) {
        capturing = false;
        place(packet, code, MPEG2_PREFIX_LENGTH + 1, true);
      }
    }
  }
}

void MPEG2Parser::place(CapturedPacket& packet, const StartCode& code, size_t back, bool is_end) {
  const BytePlace at = code.place_back(static_cast<size_t>(packet.pes_header_length), back);
  CapturedPacket* record = at.in_previous ? previous : &packet;
  if (record == nullptr) return;
  record->add_marker(at.position, is_end);
  if (!is_end) record->holds_start = true;
}

}  // namespace Veldrin::IndexGen
