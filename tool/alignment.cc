#include "tool/alignment.h"

#include <vector>

#include "transport/packet.h"

namespace Veldrin::Tool {

bool find_alignment(const unsigned char* window, uint32_t& position) {
  using IndexGen::TS_PACKET_SIZE;
  using IndexGen::TS_SYNC_BYTE;
  for (uint32_t i = 0; i < ALIGNMENT_LIMIT; ++i) {
    uint32_t k = 0;
    while (k < ALIGNMENT_PACKETS && window[i + k * TS_PACKET_SIZE] == TS_SYNC_BYTE) ++k;
    if (k == ALIGNMENT_PACKETS) {
      position = i;
      return true;
    }
  }
  return false;
}

bool align_stream(std::istream& stream, uint32_t& start_offset) {
  std::vector<unsigned char> window(ALIGNMENT_WINDOW, 0);
  stream.read(reinterpret_cast<char*>(window.data()), ALIGNMENT_WINDOW);
  uint32_t position = 0;
  if (!find_alignment(window.data(), position)) return false;
  // The stream isn't cleared first: after a short file this seek fails and the stream stays
  // failed, so that nothing is fed.
  stream.seekg(position, std::ios::beg);
  start_offset = position;
  return true;
}

}  // namespace Veldrin::Tool
