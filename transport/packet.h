#ifndef VELDRIN_TRANSPORT_PACKET_H
#define VELDRIN_TRANSPORT_PACKET_H

#include <cstdint>
#include <vector>

#include "transport/payload.h"

namespace Veldrin::IndexGen {

// The one record that travels between stages: the fields kept of a 188-byte transport packet.
struct TSPacket {
  uint16_t pid = 0;
  bool payload_unit_start = false;
  bool discontinuity = false;
  bool random_access = false;
  int32_t scrambling_control = 0;
  double pcr = -1.0;  // seconds; -1.0 when the packet has none
  int32_t continuity_counter = 0;
  Payload payload;
  uint64_t offset = 0;  // position of the sync byte in the stream the offsets refer to
};

// The header fields of a packet, without its payload: a prototype for packets written anew.
inline TSPacket header_fields(const TSPacket& packet) {
  TSPacket header;
  header.pid = packet.pid;
  header.payload_unit_start = packet.payload_unit_start;
  header.discontinuity = packet.discontinuity;
  header.random_access = packet.random_access;
  header.scrambling_control = packet.scrambling_control;
  header.pcr = packet.pcr;
  header.continuity_counter = packet.continuity_counter;
  header.offset = packet.offset;
  return header;
}

constexpr int32_t TS_PACKET_SIZE = 188;
constexpr int32_t TS_PAYLOAD_MAX = 184;  // a packet without adaptation field
constexpr unsigned char TS_SYNC_BYTE = 0x47;

// PIDs of fixed meaning.
constexpr uint16_t PAT_PID = 0;
constexpr uint16_t CAT_PID = 1;

// The 16 bits behind the sync byte.
constexpr uint16_t TS_PID_MASK = 0x1FFF;
constexpr uint16_t TS_PAYLOAD_UNIT_START = 0x4000;

// The byte behind the PID: scrambling control in the top two bits, continuity in the low four.
constexpr uint8_t TS_ADAPTATION_FIELD = 0x20;
constexpr uint8_t TS_PAYLOAD = 0x10;
constexpr uint8_t TS_CONTINUITY_MASK = 0x0F;
constexpr int32_t TS_SCRAMBLING_SHIFT = 6;

// The flags byte of an adaptation field.
constexpr uint8_t ADAPTATION_DISCONTINUITY = 0x80;
constexpr uint8_t ADAPTATION_RANDOM_ACCESS = 0x40;
constexpr uint8_t ADAPTATION_PCR = 0x10;

}  // namespace Veldrin::IndexGen

#endif
