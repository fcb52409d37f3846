#include "indexgen/captured_packet.h"

namespace Veldrin::IndexGen {

void CapturedPacket::add_marker(int32_t position, bool is_end) {
  int64_t size = static_cast<int64_t>(packet.payload.size());
  int64_t at = position;
  if (at < 0) {
    at += size;
    if (at < 0) at = 0;
  }
  if (at > size) at = size - 1;
  markers.push_back(FrameMarker{static_cast<uint32_t>(at), is_end});
}

}  // namespace Veldrin::IndexGen
