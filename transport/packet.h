#ifndef VELDRIN_TRANSPORT_PACKET_H
#define VELDRIN_TRANSPORT_PACKET_H

#include <cstdint>
#include <vector>

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
  std::vector<unsigned char> payload;
  uint64_t offset = 0;  // position of the sync byte in the stream the offsets refer to
};

constexpr int TS_PACKET_SIZE = 188;
constexpr unsigned char TS_SYNC_BYTE = 0x47;

}  // namespace Veldrin::IndexGen

#endif
