#ifndef VELDRIN_ENCRYPTION_H264_ENCRYPTION_MARKER_H
#define VELDRIN_ENCRYPTION_H264_ENCRYPTION_MARKER_H

#include <cstdint>

#include "encryption/encryption_marker.h"
#include "transport/start_code_scanner.h"

namespace Veldrin::IndexGen {

// H.264 video: every packet that holds a start code or a PES header stays in clear; after the
// start of a coded slice the next packet stays in clear as well, so that the whole slice header
// can be read, and the packets after it are enciphered; after a parameter set, SEI or access
// unit delimiter, packets stay in clear until the next slice. The stream starts in clear. Each
// packet waits for the next one of its PID before it is ready.
class H264EncryptionMarker : public EncryptionMarker {
 public:
  void mark(MarkedPacket& packet) override;

  // Bytes of the start code prefix seen so far, 0 to 4, and the byte scanned last.
  int32_t prefix_length() const { return scanner.prefix_length; }
  uint8_t last_byte() const { return scanner.last_byte; }

  StartCodeScanner scanner;  // carries a prefix across packets
  bool encrypt_next = false;  // encrypt of the next packet
  bool hold_clear = false;    // the next packet stays in clear, once
  MarkedPacket* previous = nullptr;  // the packet marked last, still in the stage's queue
};

}  // namespace Veldrin::IndexGen

#endif
