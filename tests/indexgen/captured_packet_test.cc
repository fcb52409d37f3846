#include "indexgen/captured_packet.h"

#include <gtest/gtest.h>

#include <vector>

#include "indexgen/pes_edits.h"

namespace Veldrin::IndexGen {
namespace {

CapturedPacket with_payload(size_t size) {
  TSPacket packet;
  packet.payload.assign(size, 0xAA);
  return CapturedPacket(packet);
}

TEST(CapturedPacket, NegativePositionCountsFromTheEndOfThePayload) {
  CapturedPacket record = with_payload(184);
  record.add_marker(-3, false);
  ASSERT_EQ(record.markers.size(), 1u);
  EXPECT_EQ(record.markers[0].position, 181u);
  EXPECT_FALSE(record.markers[0].is_end);
}

TEST(CapturedPacket, PositionBeforeTheStartIsZero) {
  CapturedPacket record = with_payload(184);
  record.add_marker(-200, false);
  ASSERT_EQ(record.markers.size(), 1u);
  EXPECT_EQ(record.markers[0].position, 0u);
}

TEST(CapturedPacket, PositionEqualToTheSizeIsKept) {
  CapturedPacket record = with_payload(100);
  record.add_marker(100, true);
  ASSERT_EQ(record.markers.size(), 1u);
  EXPECT_EQ(record.markers[0].position, 100u);
  EXPECT_TRUE(record.markers[0].is_end);
}

TEST(CapturedPacket, PositionBeyondTheSizeIsTheLastByte) {
  CapturedPacket record = with_payload(100);
  record.add_marker(101, false);
  ASSERT_EQ(record.markers.size(), 1u);
  EXPECT_EQ(record.markers[0].position, 99u);
}

TEST(CapturedPacket, EveryPositionOnAnEmptyPayloadIsZero) {
  CapturedPacket record = with_payload(0);
  record.add_marker(5, true);
  record.add_marker(0, true);
  record.add_marker(-3, false);
  record.add_marker(2147483647, true);
  ASSERT_EQ(record.markers.size(), 4u);
  for (const FrameMarker& marker : record.markers) EXPECT_EQ(marker.position, 0u);
}

TEST(CapturedPacket, EndMarkerOnAnEmptyPayloadCutsToOneByteAtMost) {
  // Applied as frame capture applies markers: the end keeps its byte, which is filled up.
  CapturedPacket record = with_payload(0);
  record.add_marker(1, true);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, std::vector<unsigned char>{0x00});
  CapturedPacket start = with_payload(0);
  start.add_marker(7, false);
  apply_markers(start);
  EXPECT_TRUE(start.packet.payload.empty());
}

TEST(CapturedPacket, MarkersKeepTheirOrderOfPlacing) {
  CapturedPacket record = with_payload(100);
  record.add_marker(50, true);
  record.add_marker(10, false);
  ASSERT_EQ(record.markers.size(), 2u);
  EXPECT_EQ(record.markers[0].position, 50u);
  EXPECT_TRUE(record.markers[0].is_end);
  EXPECT_EQ(record.markers[1].position, 10u);
  EXPECT_FALSE(record.markers[1].is_end);
}

TEST(CapturedPacket, WithoutMarkersItNeitherStartsNorEndsAFrame) {
  CapturedPacket record = with_payload(10);
  EXPECT_FALSE(record.ends_frame());
  EXPECT_FALSE(record.starts_frame());
}

TEST(CapturedPacket, EndThenStartStartsAFrame) {
  CapturedPacket record = with_payload(10);
  record.add_marker(3, true);
  record.add_marker(4, false);
  EXPECT_TRUE(record.starts_frame());
  EXPECT_FALSE(record.ends_frame());
}

TEST(CapturedPacket, StartThenEndEndsAFrame) {
  CapturedPacket record = with_payload(10);
  record.add_marker(2, false);
  record.add_marker(8, true);
  EXPECT_TRUE(record.ends_frame());
  EXPECT_FALSE(record.starts_frame());
}

TEST(CapturedPacket, NewRecordHasNoTimeStampsAndIsFree) {
  TSPacket packet;
  packet.pid = 0x100;
  packet.payload = {1, 2, 3};
  CapturedPacket record(packet);
  EXPECT_EQ(record.packet.pid, 0x100);
  EXPECT_EQ(record.packet.payload, (std::vector<unsigned char>{1, 2, 3}));
  EXPECT_EQ(record.pes_header.pts, -1.0);
  EXPECT_EQ(record.pes_header.dts, -1.0);
  EXPECT_EQ(record.pes_header_length, 0u);
  EXPECT_EQ(record.freed_header_bytes, 0u);
  EXPECT_EQ(record.state, PACKET_FREE);
  EXPECT_EQ(record.npt, 0.0);
  EXPECT_FALSE(record.frame_start);
  EXPECT_FALSE(record.holds_start);
  EXPECT_FALSE(record.modified);
  EXPECT_TRUE(record.data.empty());
  EXPECT_TRUE(record.preamble.empty());
}

}  // namespace
}  // namespace Veldrin::IndexGen
