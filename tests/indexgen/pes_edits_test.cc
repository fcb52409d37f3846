#include "indexgen/pes_edits.h"

#include <gtest/gtest.h>

#include "indexgen/generator_harness.h"
#include "support/log_capture.h"

namespace Veldrin::IndexGen {
namespace {

using namespace VdxTest;

// ---------------------------------------------------------------------------------------------
// The record operations of frame capture

CapturedPacket record_of(const Bytes& payload, uint64_t header_length) {
  TSPacket packet;
  packet.payload = payload;
  CapturedPacket record(packet);
  record.pes_header_length = header_length;
  return record;
}

TEST(PesEdits, StrippingMovesTheRestOfTheHeaderDownAndStuffsItsEnd) {
  Bytes payload = concat({VdxTest::pes_header(0, 90000, 81000, 3), hex("AB")});
  payload[19] = 0x11;  // the first stuffing byte stands for other header data
  CapturedPacket record = record_of(payload, payload.size() - 1);
  ASSERT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload,
            concat({hex("00 00 01 E0 00 00 80 00 0D 11 FF FF"), repeat(0xFF, 10), hex("AB")}));
  EXPECT_EQ(record.freed_header_bytes, 10u);
}

TEST(PesEdits, StrippingWithoutStampsStillSucceeds) {
  CapturedPacket record = record_of(hex("00 00 01 E0 00 00 80 00 00 AB"), 9);
  EXPECT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 00 00 AB"));
  EXPECT_EQ(record.freed_header_bytes, 0u);
}

TEST(PesEdits, StrippingOutsideAUnitStartDoesNothing) {
  CapturedPacket record = record_of(VdxTest::pes_header(0, 90000), 0);
  EXPECT_FALSE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, VdxTest::pes_header(0, 90000));
}

TEST(PesEdits, StrippingStampsThatRunPastThePayloadFailsQuietly) {
  Veldrin::Testing::LogCapture log;
  CapturedPacket record = record_of(hex("00 00 01 E0 00 00 80 C0 00 21 00 01"), 9);
  EXPECT_FALSE(strip_time_stamps(record));
  EXPECT_TRUE(log.lines.empty());
}

TEST(PesEdits, StrippingAHeaderShorterThanItsStampsStaysWithinIt) {
  // PES_header_data_length 3 while the flags announce both stamps.
  CapturedPacket record =
      record_of(hex("00 00 01 E0 00 00 80 C0 03 01 02 03 04 05 06 07 08 09 0A"), 9);
  EXPECT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 00 03 FF FF FF 04 05 06 07 08 09 0A"));
}

TEST(PesEdits, MarkersCutEverythingOutsideTheFrame) {
  CapturedPacket record = record_of(hex("E0 E1 E2 10 11 12 13 14 15 16 17"), 3);
  record.add_marker(5, true);   // end of one frame at 12
  record.add_marker(8, false);  // next frame from 15
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("E0 E1 E2 10 11 12 15 16 17"));
  EXPECT_TRUE(record.modified);
}

TEST(PesEdits, MarkersStartAndEndInOnePacket) {
  CapturedPacket record = record_of(hex("E0 10 11 12 13 14 15"), 1);
  record.add_marker(2, false);
  record.add_marker(4, true);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("E0 11 12 13"));
}

TEST(PesEdits, EndMarkerOnTheLastByteChangesNothing) {
  CapturedPacket record = record_of(hex("10 11 12"), 0);
  record.add_marker(2, true);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("10 11 12"));
  EXPECT_FALSE(record.modified);
}

TEST(PesEdits, StartMarkerBehindAnotherStartDeletesFromTheFront) {
  // -1 keeps all to the end, so a second start counts its gap from the payload's first byte.
  CapturedPacket record = record_of(hex("E0 10 11 12 13"), 1);
  record.add_marker(2, false);
  record.add_marker(4, false);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("13"));
}

TEST(PesEdits, StartMarkerAheadOfTheKeptBytesGrowsThePayloadWithZeros) {
  CapturedPacket record = record_of(hex("10 11 12 13"), 0);
  record.add_marker(2, true);
  record.add_marker(1, false);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("10 11 12 13 00 00"));
}

TEST(PesEdits, InsertedPtsUsesTheRoomOfStrippedStamps) {
  Bytes payload = concat({VdxTest::pes_header(0, 90000, 81000, 2), hex("AB CD")});
  CapturedPacket record = record_of(payload, 21);
  ASSERT_TRUE(strip_time_stamps(record));
  record.packet.pcr = 1.0;
  ASSERT_TRUE(insert_pts(record));
  // Of twelve header bytes, five carry the PTS and seven stay stuffing.
  EXPECT_EQ(record.packet.payload, concat({hex("00 00 01 E0 00 00 80 80 0C"), hex("21 00 05 BF 21"),
                                           repeat(0xFF, 7), hex("AB CD")}));
  EXPECT_EQ(record.pes_header_length, 21u);
}

TEST(PesEdits, InsertedPtsKeepsOtherHeaderData) {
  Bytes payload = hex("00 00 01 E0 00 00 80 80 07 21 00 01 00 01 51 52 AB CD");
  CapturedPacket record = record_of(payload, 16);
  ASSERT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 00 07 51 52 FF FF FF FF FF AB CD"));
  record.packet.pcr = 2.0;
  ASSERT_TRUE(insert_pts(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 80 07 21 00 0B 7E 41 51 52 AB CD"));
}

TEST(PesEdits, InsertedPtsOfTheTopBitsOfThirtyThreeBitTime) {
  CapturedPacket record = record_of(hex("00 00 01 E0 00 00 80 00 00 01 02 03 04 05 06"), 9);
  record.freed_header_bytes = 0;
  record.packet.pcr = 95000.0;  // 8,550,000,000 ticks, above 2^32
  ASSERT_TRUE(insert_pts(record));
  EXPECT_EQ(record.packet.payload,
            concat({hex("00 00 01 E0 00 00 80 80 05"), VdxTest::time_stamp(2, 8550000000ULL),
                    hex("01 02 03 04 05 06")}));
  EXPECT_EQ(record.pes_header_length, 14u);
}

TEST(PesEdits, PtsIsNotInsertedWithoutRoom) {
  // Fewer than 14 bytes, or no room behind the header for the growth: nothing changes.
  CapturedPacket shorter = record_of(hex("00 00 01 E0 00 00 80 00 00 01 02 03 04"), 9);
  shorter.packet.pcr = 1.0;
  EXPECT_FALSE(insert_pts(shorter));
  EXPECT_EQ(shorter.packet.payload, hex("00 00 01 E0 00 00 80 00 00 01 02 03 04"));
  CapturedPacket tight = record_of(hex("00 00 01 E0 00 00 80 00 02 FF FF 01 02 03 04"), 11);
  tight.packet.pcr = 1.0;
  EXPECT_FALSE(insert_pts(tight));
  CapturedPacket no_time = record_of(hex("00 00 01 E0 00 00 80 00 00 01 02 03 04 05 06"), 9);
  EXPECT_FALSE(insert_pts(no_time));
  EXPECT_EQ(no_time.packet.payload, hex("00 00 01 E0 00 00 80 00 00 01 02 03 04 05 06"));
}

}  // namespace
}  // namespace Veldrin::IndexGen
