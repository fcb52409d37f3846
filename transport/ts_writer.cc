#include "transport/ts_writer.h"

#include <limits>

#include "foundation/channel/string_writer.h"
#include "transport/clock.h"

namespace Veldrin::IndexGen {

namespace {

// Sizes of an adaptation field counted with its length byte: the length byte alone, and with
// the flags byte.
constexpr int32_t FIELD_LENGTH_ONLY = 1;
constexpr int32_t FIELD_WITH_FLAGS = 2;

}  // namespace

bool TSWriter::write_header(const TSPacket& packet, int32_t& payload_length, int32_t& continuity) {
  try {
    writer.write_byte(TS_SYNC_BYTE);
    writer.write_nbo_16(packet.pid + (packet.payload_unit_start ? TS_PAYLOAD_UNIT_START : 0u));

    uint32_t flags = 0;
    if (payload_length != 0) {
      flags = TS_PAYLOAD | (static_cast<uint32_t>(continuity) & TS_CONTINUITY_MASK);
      continuity = (continuity + 1) & TS_CONTINUITY_MASK;
    }
    bool has_pcr = packet.pcr >= 0.0;
    bool adaptation = packet.discontinuity || packet.random_access || has_pcr ||
                      payload_length <= TS_PAYLOAD_MAX - 1;
    if (adaptation) flags |= TS_ADAPTATION_FIELD;
    writer.write_byte(
        ((static_cast<uint32_t>(packet.scrambling_control) << TS_SCRAMBLING_SHIFT) | flags) & 0xFF);

    if (!adaptation) {
      payload_length = TS_PAYLOAD_MAX;
      return true;
    }

    uint32_t adaptation_flags = 0;
    if (packet.discontinuity) adaptation_flags |= ADAPTATION_DISCONTINUITY;
    if (packet.random_access) adaptation_flags |= ADAPTATION_RANDOM_ACCESS;
    if (has_pcr) adaptation_flags |= ADAPTATION_PCR;

    // Size of the field so far, its length byte included.
    int32_t size = (adaptation_flags != 0 || payload_length <= TS_PAYLOAD_MAX - 2)
                       ? FIELD_WITH_FLAGS
                       : FIELD_LENGTH_ONLY;
    if (has_pcr) size += static_cast<int32_t>(PCR_SIZE);
    int32_t stuffing = 0;
    if (size + payload_length <= TS_PAYLOAD_MAX - 1) {
      stuffing = TS_PAYLOAD_MAX - payload_length - size;
    }
    payload_length = TS_PAYLOAD_MAX - size - stuffing;

    writer.write_byte(static_cast<uint32_t>(size + stuffing - 1));
    if (size != FIELD_LENGTH_ONLY) writer.write_byte(adaptation_flags);
    if (has_pcr) write_pcr(writer, packet.pcr);
    for (int32_t i = 0; i < stuffing; i++) writer.write_byte(0xFF);
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

bool TSWriter::write_packet(const TSPacket& packet, const unsigned char* data,
                            int32_t& payload_length, int32_t& continuity) {
  if (!write_header(packet, payload_length, continuity)) return false;
  try {
    if (payload_length > 0) writer.write(data, static_cast<size_t>(payload_length));
    return true;
  } catch (const Korvix::Channel::Error&) {
    return false;
  }
}

bool TSWriter::write_record(const TSPacket& packet) {
  // Any count beyond what a packet holds is the same to write_packet as a full packet.
  int32_t length = packet.payload.size() > static_cast<size_t>(TS_PAYLOAD_MAX)
                       ? TS_PAYLOAD_MAX
                       : static_cast<int32_t>(packet.payload.size());
  int32_t continuity = packet.continuity_counter;
  return write_packet(packet, packet.payload.data(), length, continuity);
}

std::string packetise(const TSPacket& packet, int32_t& continuity) {
  std::string out;
  packetise(packet, continuity, out);
  return out;
}

void packetise(const TSPacket& packet, int32_t& continuity, std::string& out) {
  TSPacket header = header_fields(packet);

  out.clear();
  constexpr size_t payload_max = TS_PAYLOAD_MAX;
  out.reserve(((packet.payload.size() + payload_max - 1) / payload_max + 1) * TS_PACKET_SIZE);
  Korvix::Channel::StringWriter writer(out);
  TSWriter ts_writer(writer);
  size_t size = packet.payload.size();
  size_t remaining = size;
  while (remaining > 0) {
    int32_t length = remaining > static_cast<size_t>(std::numeric_limits<int32_t>::max())
                         ? std::numeric_limits<int32_t>::max()
                         : static_cast<int32_t>(remaining);
    if (!ts_writer.write_packet(header, packet.payload.data() + (size - remaining), length,
                                continuity) ||
        length <= 0) {
      break;
    }
    remaining -= static_cast<size_t>(length);
    // random_access stays on every continuation packet, unlike its neighbours.
    header.payload_unit_start = false;
    header.discontinuity = false;
    header.pcr = -1.0;
  }
}

}  // namespace Veldrin::IndexGen
