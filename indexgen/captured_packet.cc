#include "indexgen/captured_packet.h"

namespace Veldrin::IndexGen {

void CapturedPacket::add_marker(int32_t position, bool is_end) {
  int64_t size = static_cast<int64_t>(packet.payload.size());
  int64_t at = position;
  if (at < 0) {
    at += size;
    if (at < 0) at = 0;
  }
  // An empty payload has no last byte: there every position is 0, so that applying the marker
  // keeps at most one byte instead of reaching for the 4 GiB that size - 1 would stand for.
  if (at > size) at = size > 0 ? size - 1 : 0;
  markers.push_back(FrameMarker{static_cast<uint32_t>(at), is_end});
}

}  // namespace Veldrin::IndexGen
