#ifndef VELDRIN_ENCRYPTION_MPEG2_ENCRYPTION_MARKER_H
#define VELDRIN_ENCRYPTION_MPEG2_ENCRYPTION_MARKER_H

#include <cstdint>

#include "encryption/encryption_marker.h"
#include "transport/start_code_scanner.h"

namespace Veldrin::IndexGen {

// MPEG-2 video: a packet stays in clear when it holds a PES header or a start code other than a
// slice's (0x01 to 0xAF); slices are enciphered with their start codes. A start code whose prefix
// began in the packet before keeps that one in clear too, so each packet waits for the next one
// of its PID before it is ready.
class MPEG2EncryptionMarker : public EncryptionMarker {
 public:
  void mark(MarkedPacket& packet) override;

  // Zero bytes seen (0, 1, 2 for two or more), or 3 when 00 00 01 has been seen and the next
  // byte is the start code's value.
  int32_t zero_run() const { return scanner.scan_state(); }

  StartCodeScanner scanner;  // carries a prefix across packets; a PES header doesn't reset it
  MarkedPacket* previous = nullptr;  // the packet marked last, still in the stage's queue
};

}  // namespace Veldrin::IndexGen

#endif
