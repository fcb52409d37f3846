#ifndef VELDRIN_TRANSPORT_TS_WRITER_H
#define VELDRIN_TRANSPORT_TS_WRITER_H

#include <cstddef>
#include <cstdint>
#include <string>

#include "foundation/channel/writer.h"
#include "transport/packet.h"

namespace Veldrin::IndexGen {

// Renders TSPacket records back into the 188-byte packet format.
class TSWriter {
 public:
  explicit TSWriter(Korvix::Channel::Writer& writer_) : writer(writer_) {}

  // payload_length: in, the bytes waiting; out, the bytes this packet carries. continuity: the
  // caller's counter for this PID, advanced when the packet carries payload.
  bool write_header(const TSPacket& packet, int32_t& payload_length, int32_t& continuity);
  bool write_packet(const TSPacket& packet, const unsigned char* data, int32_t& payload_length,
                    int32_t& continuity);
  // One packet as the record stands: its header fields, its own continuity counter and as much
  // of its payload as one packet holds; the rest of the payload isn't written.
  bool write_record(const TSPacket& packet);

  Korvix::Channel::Writer& writer;
};

// The packet that write_record writes, put into bytes, which has room for TS_PACKET_SIZE; gives
// its size. For packets assembled in memory on the hot path.
size_t compose_record(const TSPacket& packet, unsigned char* bytes);

// Whole packets that carry all of packet.payload; continuity advances as write_packet does.
std::string packetise(const TSPacket& packet, int32_t& continuity);
// The same into out, which is emptied first: a string kept for the purpose keeps its room, so
// that packetising a record on the hot path takes no heap.
void packetise(const TSPacket& packet, int32_t& continuity, std::string& out);

}  // namespace Veldrin::IndexGen

#endif
