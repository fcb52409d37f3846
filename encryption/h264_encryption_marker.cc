#include "encryption/h264_encryption_marker.h"

#include <cstddef>

namespace Veldrin::IndexGen {

namespace {

constexpr uint8_t NAL_UNIT_TYPE_MASK = 0x1F;
// Coded slices and data partitions: 1 to 5.
constexpr uint8_t NAL_SLICE_FIRST = 1;
constexpr uint8_t NAL_SLICE_LAST = 5;
// SEI, sequence and picture parameter sets, access unit delimiter: 6 to 9.
constexpr uint8_t NAL_CLEAR_FIRST = 6;
constexpr uint8_t NAL_CLEAR_LAST = 9;

}  // namespace

void H264EncryptionMarker::mark(MarkedPacket& packet) {
  const size_t header_length = pes_header_length(packet);
  if (hold_clear) {
    packet.encrypt = false;
    hold_clear = false;
  } else {
    packet.encrypt = encrypt_next;
  }
  if (header_length != 0) packet.encrypt = false;

  const unsigned char* data = packet.payload.data();
  const size_t size = packet.payload.size();
  size_t from = header_length;
  while (from < size) {
    const StartCode code = scanner.find(data, from, size);
    if (!code.found()) break;
    packet.encrypt = false;
    // The prefix, three or four bytes as counted, began in the previous packet.
    if (header_length + static_cast<size_t>(code.prefix_length) > code.index &&
        previous != nullptr)
      previous->encrypt = false;
    const uint8_t type = data[code.index] & NAL_UNIT_TYPE_MASK;
    if (type >= NAL_SLICE_FIRST && type <= NAL_SLICE_LAST) {
      encrypt_next = true;
      hold_clear = true;
    } else if (type >= NAL_CLEAR_FIRST && type <= NAL_CLEAR_LAST) {
      encrypt_next = false;
    } else {
      encrypt_next = true;
    }
    from = code.index + 1;
  }

  if (previous != nullptr) previous->ready = true;
  previous = &packet;
}

}  // namespace Veldrin::IndexGen
