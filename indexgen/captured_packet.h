#ifndef VELDRIN_INDEXGEN_CAPTURED_PACKET_H
#define VELDRIN_INDEXGEN_CAPTURED_PACKET_H

#include <cstdint>
#include <string>
#include <vector>

#include "transport/packet.h"
#include "transport/pes.h"

namespace Veldrin::IndexGen {

enum PacketState {
  PACKET_FREE = 0,     // no parser needs it any more; no outcome yet
  PACKET_HELD = 1,     // a parser may still mark it; it must not be processed
  PACKET_SKIPPED = 2,  // nothing of it goes out; its offset and time still go to the writer
  PACKET_FRAME = 3,    // it goes out as frame data
};

// False is a start marker: the frame's first byte stands at position. True is an end marker:
// the frame's last byte stands at position.
struct FrameMarker {
  uint32_t position = 0;
  bool is_end = false;
};

// The record of one packet of the video PID, from capture to the index writer.
struct CapturedPacket {
  CapturedPacket() = default;
  explicit CapturedPacket(const TSPacket& packet_) : packet(packet_) {}

  // A negative position counts from the end of the payload; one before the start becomes 0, one
  // beyond the size the last byte. On an empty payload every position becomes 0.
  void add_marker(int32_t position, bool is_end);
  bool ends_frame() const { return !markers.empty() && markers.back().is_end; }
  bool starts_frame() const { return !markers.empty() && !markers.back().is_end; }

  std::vector<FrameMarker> markers;
  TSPacket packet;
  PESHeader pes_header;
  uint64_t pes_header_length = 0;
  uint64_t freed_header_bytes = 0;
  bool frame_start = false;
  bool holds_start = false;
  PacketState state = PACKET_FREE;
  double npt = 0.0;
  bool modified = false;
  std::string data;
  std::string preamble;
};

}  // namespace Veldrin::IndexGen

#endif
