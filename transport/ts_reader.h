#ifndef VELDRIN_TRANSPORT_TS_READER_H
#define VELDRIN_TRANSPORT_TS_READER_H

#include "foundation/channel/reader.h"
#include "transport/packet.h"

namespace Veldrin::IndexGen {

// Parses the 188-byte packet format over a Reader.
class TSReader {
 public:
  explicit TSReader(Korvix::Channel::Reader& reader_) : reader(reader_) {}

  // Fills every field but payload and offset; payload_length is the count of payload bytes
  // behind the header, negative for an adaptation field longer than a packet.
  bool read_header(TSPacket& packet, int32_t& payload_length);
  // Reads the header, then passes to the next multiple of 188 of the reader's offset.
  bool skip_packet(TSPacket& packet);

  Korvix::Channel::Reader& reader;
};

}  // namespace Veldrin::IndexGen

#endif
