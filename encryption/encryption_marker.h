#ifndef VELDRIN_ENCRYPTION_ENCRYPTION_MARKER_H
#define VELDRIN_ENCRYPTION_ENCRYPTION_MARKER_H

#include <cstddef>

#include "encryption/marked_packet.h"

namespace Veldrin::IndexGen {

// Decides, packet by packet on one PID, which packets may be enciphered: what the indexer behind
// the encrypting stage needs to read (PES headers, the start codes that matter) stays in clear.
// A marker works at packet grain and never touches the payload.
class EncryptionMarker {
 public:
  virtual ~EncryptionMarker() = default;

  // Sets encrypt and ready of the packet; may clear encrypt of the packet marked before it, which
  // a video marker holds back until it has seen this one.
  virtual void mark(MarkedPacket& packet) = 0;
};

// The length of the PES header at the start of the payload of a packet that has
// payload_unit_start: the start code prefix, stream id, length field and optional fields. 0
// without payload_unit_start and when no header can be read.
size_t pes_header_length(const MarkedPacket& packet);

}  // namespace Veldrin::IndexGen

#endif
