#include "transport/ts_reader.h"

namespace Veldrin::IndexGen {

bool TSReader::read_header(TSPacket& packet, int32_t& payload_length) {
  try {
    if (reader.read_byte() != TS_SYNC_BYTE) return false;
    uint16_t word = reader.read_nbo_16();
    packet.pid = word & 0x1FFF;
    packet.payload_unit_start = (word & 0x4000) != 0;
    packet.pcr = -1.0;
    uint8_t c = reader.read_byte();
    packet.scrambling_control = c >> 6;
    packet.continuity_counter = c & 0x0F;
    // The payload flag (0x10) is never looked at: no adaptation field means 184 bytes.
    if ((c & 0x20) == 0) {
      payload_length = 184;
      return true;
    }
    uint8_t a = reader.read_byte();
    if (a == 0) {
      payload_length = 183;
      return true;
    }
    uint8_t flags = reader.read_byte();
    packet.discontinuity = (flags & 0x80) != 0;
    packet.random_access = (flags & 0x40) != 0;
    int consumed = 1;
    if (flags & 0x10) {
      uint64_t h = reader.read_nbo_32();
      uint16_t l = reader.read_nbo_16();
      uint64_t base = h * 2 + ((l >> 15) & 1);
      uint64_t extension = l & 0x1FF;
      packet.pcr = static_cast<double>(base * 300 + extension) / 27000000.0;
      consumed = 7;
    }
    if (consumed < a) reader.skip(static_cast<uint64_t>(a - consumed));
    payload_length = 183 - a;
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
