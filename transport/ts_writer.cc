#include "transport/ts_writer.h"

#include <cstring>
#include <limits>

#include "foundation/channel/block_writer.h"
#include "foundation/channel/string_writer.h"
#include "transport/clock.h"

namespace Veldrin::IndexGen {

namespace {

// Sizes of an adaptation field counted with its length byte: the length byte alone, and with
// the flags byte.
constexpr int32_t FIELD_LENGTH_ONLY = 1;
constexpr int32_t FIELD_WITH_FLAGS = 2;

// Puts the bytes of a header straight into memory that has room for a whole packet; for packets
// assembled in memory, where the writer's checks buy nothing.
struct ByteCursor {
  unsigned char* at;
  void write_byte(uint32_t value) { *at++ = static_cast<unsigned char>(value); }
  void write_nbo_16(uint32_t value) {
    at[0] = static_cast<unsigned char>(value >> 8);
    at[1] = static_cast<unsigned char>(value);
    at += 2;
  }
};

void put_pcr(Korvix::Channel::Writer& writer, double seconds) { write_pcr(writer, seconds); }
void put_pcr(ByteCursor& cursor, double seconds) {
  Korvix::Channel::BlockWriter block(cursor.at, PCR_SIZE);
  write_pcr(block, seconds);
  cursor.at += PCR_SIZE;
}

// Stuffing goes byte by byte to a writer, so that a failure leaves written what came before it;
// in memory it is one fill.
void put_stuffing(Korvix::Channel::Writer& writer, int32_t count) {
  for (int32_t i = 0; i < count; i++) writer.write_byte(0xFF);
}
void put_stuffing(ByteCursor& cursor, int32_t count) {
  if (count <= 0) return;
  std::memset(cursor.at, 0xFF, static_cast<size_t>(count));
  cursor.at += count;
}

// The header rules, once, for a channel writer and for a cursor in memory.
template <typename Sink>
void put_header(Sink& sink, const TSPacket& packet, int32_t& payload_length, int32_t& continuity) {
  sink.write_byte(TS_SYNC_BYTE);
  sink.write_nbo_16(packet.pid + (packet.payload_unit_start ? TS_PAYLOAD_UNIT_START : 0u));

  uint32_t flags = 0;
  if (payload_length != 0) {
    flags = TS_PAYLOAD | (static_cast<uint32_t>(continuity) & TS_CONTINUITY_MASK);
    continuity = (continuity + 1) & TS_CONTINUITY_MASK;
  }
  bool has_pcr = packet.pcr >= 0.0;
  bool adaptation = packet.discontinuity || packet.random_access || has_pcr ||
                    payload_length <= TS_PAYLOAD_MAX - 1;
  if (adaptation) flags |= TS_ADAPTATION_FIELD;
  sink.write_byte(
      ((static_cast<uint32_t>(packet.scrambling_control) << TS_SCRAMBLING_SHIFT) | flags) & 0xFF);

  if (!adaptation) {
    payload_length = TS_PAYLOAD_MAX;
    return;
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

  sink.write_byte(static_cast<uint32_t>(size + stuffing - 1));
  if (size != FIELD_LENGTH_ONLY) sink.write_byte(adaptation_flags);
  if (has_pcr) put_pcr(sink, packet.pcr);
  put_stuffing(sink, stuffing);
}

// The bytes of a record's payload that one packet carries.
int32_t record_length(const TSPacket& packet) {
  // Any count beyond what a packet holds is the same to the header rules as a full packet.
  return packet.payload.size() > static_cast<size_t>(TS_PAYLOAD_MAX)
             ? TS_PAYLOAD_MAX
             : static_cast<int32_t>(packet.payload.size());
}

}  // namespace

bool TSWriter::write_header(const TSPacket& packet, int32_t& payload_length, int32_t& continuity) {
  try {
    put_header(writer, packet, payload_length, continuity);
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
  int32_t length = record_length(packet);
  int32_t continuity = packet.continuity_counter;
  return write_packet(packet, packet.payload.data(), length, continuity);
}

size_t compose_record(const TSPacket& packet, unsigned char* bytes) {
  int32_t length = record_length(packet);
  int32_t continuity = packet.continuity_counter;
  ByteCursor cursor{bytes};
  put_header(cursor, packet, length, continuity);
  // A copy of known size for the usual full payload: the compiler makes it a few wide moves,
  // where a copy of any size may become a slow string instruction.
  if (length == TS_PAYLOAD_MAX) {
    std::memcpy(cursor.at, packet.payload.data(), TS_PAYLOAD_MAX);
  } else if (length > 0) {
    std::memcpy(cursor.at, packet.payload.data(), static_cast<size_t>(length));
  }
  cursor.at += length > 0 ? length : 0;
  return static_cast<size_t>(cursor.at - bytes);
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
