#include "encryption/mpeg2_encryption_marker.h"

#include <cstddef>

namespace Veldrin::IndexGen {

namespace {

// Slice start codes, the only ones that may be enciphered.
constexpr uint8_t SLICE_FIRST = 0x01;
constexpr uint8_t SLICE_LAST = 0xAF;
// The bytes of a prefix, 00 00 01, counted as MPEG-2 counts them: the value byte at an index
// below the scan's start plus this began its prefix in the previous packet.
constexpr size_t MPEG2_PREFIX_LENGTH = 3;

}  // namespace

void MPEG2EncryptionMarker::mark(MarkedPacket& packet) {
  const size_t header_length = pes_header_length(packet);
  if (header_length != 0) packet.encrypt = false;

  const unsigned char* data = packet.payload.data();
  const size_t size = packet.payload.size();
  size_t from = header_length;
  while (from < size) {
    const StartCode code = scanner.find(data, from, size);
    if (!code.found()) break;
    const uint8_t value = data[code.index];
    if (value < SLICE_FIRST || value > SLICE_LAST) {
      packet.encrypt = false;
      if (code.index < header_length + MPEG2_PREFIX_LENGTH && previous != nullptr)
        previous->encrypt = false;
    }
    from = code.index + 1;
  }

  if (previous != nullptr) previous->ready = true;
  previous = &packet;
}

}  // namespace Veldrin::IndexGen
