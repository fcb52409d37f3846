#ifndef VDX_TESTS_ENCRYPTION_MARKER_SUPPORT_H
#define VDX_TESTS_ENCRYPTION_MARKER_SUPPORT_H

// Packets for the tests of the markers and the encrypting stage, built from bytes written out.

#include <cstdint>
#include <list>
#include <string>
#include <vector>

#include "encryption/encryption_marker.h"
#include "encryption/marked_packet.h"
#include "transport/test_bytes.h"

namespace Veldrin::Testing {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;

// A video packet with the payload given, as the stage queues it: encrypt true, ready false.
inline IndexGen::MarkedPacket video_packet(const Bytes& payload, bool unit_start = false,
                                           uint16_t pid = 0x100) {
  IndexGen::TSPacket packet;
  packet.pid = pid;
  packet.payload_unit_start = unit_start;
  packet.payload.assign(payload.begin(), payload.end());
  return IndexGen::MarkedPacket(packet);
}

// A payload of the given size holding no zero byte, so no start code.
inline Bytes filler(size_t size, unsigned char value = 0x55) {
  return Bytes(size, value);
}

// Filler behind the given bytes, or ahead of them, up to a payload of 184 bytes.
inline Bytes starting_with(const Bytes& head, size_t size = 184) {
  Bytes payload = head;
  payload.resize(size, 0x55);
  return payload;
}
inline Bytes ending_with(const Bytes& tail, size_t size = 184) {
  Bytes payload(size - tail.size(), 0x55);
  payload.insert(payload.end(), tail.begin(), tail.end());
  return payload;
}

// A PES header of a video stream without time stamps: 9 bytes.
inline Bytes pes_header_bytes() {
  return hex("00 00 01 E0 00 00 80 00 00");
}
// A PES header of a video stream with a PTS: 14 bytes.
inline Bytes pes_header_with_pts() {
  return hex("00 00 01 E0 00 00 80 80 05 21 00 01 00 01");
}

// Marks each payload in turn in a list whose records don't move, as the stage's queue holds
// them, and gives the records.
inline std::list<IndexGen::MarkedPacket> mark_all(IndexGen::EncryptionMarker& marker,
                                                  const std::vector<IndexGen::MarkedPacket>& in) {
  std::list<IndexGen::MarkedPacket> out;
  for (const IndexGen::MarkedPacket& packet : in) marker.mark(out.emplace_back(packet));
  return out;
}

// The indexes of the records whose encrypt is false.
inline std::vector<size_t> clear_indexes(const std::list<IndexGen::MarkedPacket>& records) {
  std::vector<size_t> clear;
  size_t i = 0;
  for (const IndexGen::MarkedPacket& record : records) {
    if (!record.encrypt) clear.push_back(i);
    ++i;
  }
  return clear;
}

inline std::vector<bool> ready_flags(const std::list<IndexGen::MarkedPacket>& records) {
  std::vector<bool> ready;
  for (const IndexGen::MarkedPacket& record : records) ready.push_back(record.ready);
  return ready;
}

}  // namespace Veldrin::Testing

#endif
