#include "transport/ts_writer.h"

#include <limits>

#include "foundation/channel/string_writer.h"

namespace Veldrin::IndexGen {

namespace {

constexpr int32_t TS_PAYLOAD_MAX = 184;
constexpr double PCR_CLOCK = 27000000.0;
// The base is reduced modulo 2^33 - 1, not 2^33; the written streams depend on it.
constexpr uint64_t PCR_BASE_MODULUS = 0x1FFFFFFFF;

constexpr uint32_t FLAG_ADAPTATION = 0x20;
constexpr uint32_t FLAG_PAYLOAD = 0x10;
constexpr uint32_t ADAPTATION_DISCONTINUITY = 0x80;
constexpr uint32_t ADAPTATION_RANDOM_ACCESS = 0x40;
constexpr uint32_t ADAPTATION_PCR = 0x10;

// Seconds to 27 MHz ticks, truncated. Values beyond 64 bits, which no stream holds, give 0.
uint64_t to_ticks(double seconds) {
  double ticks = seconds * PCR_CLOCK;
  if (!(ticks >= 0.0 && ticks < 18446744073709551616.0)) return 0;
  return static_cast<uint64_t>(ticks);
}

}  // namespace

bool TSWriter::write_header(const TSPacket& packet, int32_t& payload_length, int32_t& continuity) {
  try {
    writer.write_byte(TS_SYNC_BYTE);
    writer.write_nbo_16(packet.pid + (packet.payload_unit_start ? 0x4000u : 0u));

    uint32_t flags = 0;
    if (payload_length != 0) {
      flags = FLAG_PAYLOAD | (static_cast<uint32_t>(continuity) & 0x0F);
      continuity = (continuity + 1) & 0x0F;
    }
    bool has_pcr = packet.pcr >= 0.0;
    bool adaptation = packet.discontinuity || packet.random_access || has_pcr ||
                      payload_length <= TS_PAYLOAD_MAX - 1;
    if (adaptation) flags |= FLAG_ADAPTATION;
    writer.write_byte(((static_cast<uint32_t>(packet.scrambling_control) << 6) | flags) & 0xFF);

    if (!adaptation) {
      payload_length = TS_PAYLOAD_MAX;
      return true;
    }

    uint32_t adaptation_flags = 0;
    if (packet.discontinuity) adaptation_flags |= ADAPTATION_DISCONTINUITY;
    if (packet.random_access) adaptation_flags |= ADAPTATION_RANDOM_ACCESS;
    if (has_pcr) adaptation_flags |= ADAPTATION_PCR;

    // Size of the field so far, its length byte included.
    int32_t size = (adaptation_flags != 0 || payload_length <= TS_PAYLOAD_MAX - 2) ? 2 : 1;
    if (has_pcr) size += 6;
    int32_t stuffing = 0;
    if (size + payload_length <= TS_PAYLOAD_MAX - 1) {
      stuffing = TS_PAYLOAD_MAX - payload_length - size;
    }
    payload_length = TS_PAYLOAD_MAX - size - stuffing;

    writer.write_byte(static_cast<uint32_t>(size + stuffing - 1));
    if (size != 1) writer.write_byte(adaptation_flags);
    if (has_pcr) {
      uint64_t n = to_ticks(packet.pcr);
      uint64_t base = n / 300;
      uint64_t extension = n - base * 300;
      base %= PCR_BASE_MODULUS;
      writer.write_nbo_32(static_cast<uint32_t>(base >> 1));
      writer.write_nbo_16(static_cast<uint32_t>((base & 1) * 0x8000 + 0x7E00 + extension));
    }
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

std::string packetise(const TSPacket& packet, int32_t& continuity) {
  TSPacket header;
  header.pid = packet.pid;
  header.payload_unit_start = packet.payload_unit_start;
  header.discontinuity = packet.discontinuity;
  header.random_access = packet.random_access;
  header.scrambling_control = packet.scrambling_control;
  header.pcr = packet.pcr;
  header.continuity_counter = packet.continuity_counter;
  header.offset = packet.offset;

  std::string out;
  out.reserve(((packet.payload.size() + 183) / 184 + 1) * TS_PACKET_SIZE);
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
  return out;
}

}  // namespace Veldrin::IndexGen
