#include "transport/ts_reader.h"

#include "transport/clock.h"

namespace Veldrin::IndexGen {

bool TSReader::read_header(TSPacket& packet, int32_t& payload_length) {
  try {
    if (reader.read_byte() != TS_SYNC_BYTE) return false;
    const uint16_t word = reader.read_nbo_16();
    packet.pid = word & TS_PID_MASK;
    packet.payload_unit_start = (word & TS_PAYLOAD_UNIT_START) != 0;
    packet.pcr = -1.0;
    const uint8_t c = reader.read_byte();
    packet.scrambling_control = c >> TS_SCRAMBLING_SHIFT;
    packet.continuity_counter = c & TS_CONTINUITY_MASK;
    // The payload flag is never looked at: no adaptation field means 184 bytes.
    if ((c & TS_ADAPTATION_FIELD) == 0) {
      payload_length = TS_PAYLOAD_MAX;
      return true;
    }
    // The length byte of the adaptation field takes one byte of the payload's room.
    const int32_t room = TS_PAYLOAD_MAX - 1;
    const uint8_t a = reader.read_byte();
    if (a == 0) {
      payload_length = room;
      return true;
    }
    const uint8_t flags = reader.read_byte();
    packet.discontinuity = (flags & ADAPTATION_DISCONTINUITY) != 0;
    packet.random_access = (flags & ADAPTATION_RANDOM_ACCESS) != 0;
    size_t consumed = 1;
    if (flags & ADAPTATION_PCR) {
      packet.pcr = read_pcr(reader);
      consumed += PCR_SIZE;
    }
    if (consumed < a) reader.skip(a - consumed);
    payload_length = room - a;
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

bool TSReader::skip_packet(TSPacket& packet) {
  try {
    int32_t payload_length = 0;
    if (!read_header(packet, payload_length)) return false;
    reader.align(TS_PACKET_SIZE);
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

}  // namespace Veldrin::IndexGen
