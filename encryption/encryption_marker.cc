#include "encryption/encryption_marker.h"

#include <cstdint>

#include "foundation/channel/block_reader.h"
#include "transport/pes.h"

namespace Veldrin::IndexGen {

size_t pes_header_length(const MarkedPacket& packet) {
  if (!packet.payload_unit_start) return 0;
  Korvix::Channel::BlockReader block(packet.payload.data(), packet.payload.size());
  PESReader reader(block);
  PESHeader header;
  int32_t payload_length = 0;
  if (!reader.read_header(header, payload_length)) return 0;
  return static_cast<size_t>(block.offset);
}

}  // namespace Veldrin::IndexGen
