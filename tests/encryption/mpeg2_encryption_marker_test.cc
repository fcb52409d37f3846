#include "encryption/mpeg2_encryption_marker.h"

#include <gtest/gtest.h>

#include <vector>

#include "encryption/marker_support.h"

namespace Veldrin::Testing {
namespace {

using IndexGen::MarkedPacket;
using IndexGen::MPEG2EncryptionMarker;

TEST(MPEG2EncryptionMarker, APacketOfNothingButAPesHeaderStaysInClear) {
  MPEG2EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(pes_header_with_pts(), true),
                                   video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0}));
}

TEST(MPEG2EncryptionMarker, APacketWithoutStartCodesIsEncrypted) {
  MPEG2EncryptionMarker marker;
  MarkedPacket packet = video_packet(filler(184));
  marker.mark(packet);
  EXPECT_TRUE(packet.encrypt);
}

TEST(MPEG2EncryptionMarker, EachPacketIsReadyOnlyWhenTheNextOneOfItsPidIsMarked) {
  MPEG2EncryptionMarker marker;
  std::list<MarkedPacket> records;
  marker.mark(records.emplace_back(video_packet(filler(184))));
  EXPECT_EQ(ready_flags(records), (std::vector<bool>{false}));
  marker.mark(records.emplace_back(video_packet(filler(184))));
  EXPECT_EQ(ready_flags(records), (std::vector<bool>{true, false}));
  marker.mark(records.emplace_back(video_packet(filler(184))));
  // The last packet is never ready.
  EXPECT_EQ(ready_flags(records), (std::vector<bool>{true, true, false}));
  EXPECT_EQ(marker.previous, &records.back());
}

TEST(MPEG2EncryptionMarker, APrefixAtTheEndBeforeANonSliceValueKeepsBothPacketsInClear) {
  for (unsigned char value : Bytes{0x00, 0xB3, 0xB8, 0xB0, 0xFF}) {
    MPEG2EncryptionMarker marker;
    auto records = mark_all(marker, {video_packet(ending_with(hex("00 00 01"))),
                                     video_packet(starting_with({value})),
                                     video_packet(filler(184))});
    EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1})) << int(value);
  }
}

TEST(MPEG2EncryptionMarker, APrefixAtTheEndBeforeASliceValueLeavesBothEncrypted) {
  for (unsigned char value : Bytes{0x01, 0x02, 0x50, 0xAF}) {
    MPEG2EncryptionMarker marker;
    auto records = mark_all(marker, {video_packet(ending_with(hex("00 00 01"))),
                                     video_packet(starting_with({value})),
                                     video_packet(filler(184))});
    EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{})) << int(value);
  }
}

TEST(MPEG2EncryptionMarker, ZeroRunCountsTwoZerosAtMostThenThreeForTheOne) {
  MPEG2EncryptionMarker marker;
  std::list<MarkedPacket> records;
  marker.mark(records.emplace_back(video_packet(ending_with(hex("00")))));
  EXPECT_EQ(marker.zero_run(), 1);
  marker.mark(records.emplace_back(video_packet(ending_with(hex("00 00")))));
  EXPECT_EQ(marker.zero_run(), 2);
  marker.mark(records.emplace_back(video_packet(ending_with(hex("00 00 00")))));
  EXPECT_EQ(marker.zero_run(), 2);
  marker.mark(records.emplace_back(video_packet(ending_with(hex("00 00 00 01")))));
  EXPECT_EQ(marker.zero_run(), 3);
  marker.mark(records.emplace_back(video_packet(ending_with(hex("00 00 01 B3")))));
  EXPECT_EQ(marker.zero_run(), 0);
  marker.mark(records.emplace_back(video_packet(ending_with(hex("00 00 02")))));
  EXPECT_EQ(marker.zero_run(), 0);
}

TEST(MPEG2EncryptionMarker, ThreeZerosAndAOneFindTheSequenceHeader) {
  MPEG2EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(filler(184)),
                                   video_packet(starting_with(hex("55 00 00 00 01 B3 14 00"))),
                                   video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{1}));
}

TEST(MPEG2EncryptionMarker, TheValueByteBelowIndexThreeClearsThePreviousPacket) {
  // 00 | 00 01 B3: the value at index 2 of its packet.
  MPEG2EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(ending_with(hex("00"))),
                                   video_packet(starting_with(hex("00 01 B3"))),
                                   video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1}));
}

TEST(MPEG2EncryptionMarker, AFourthByteOfPrefixInThePreviousPacketDoesNotClearIt) {
  // 00 | 00 00 01 B3: the value at index 3; the MPEG-2 count is three bytes, whatever came before.
  MPEG2EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(ending_with(hex("00"))),
                                   video_packet(starting_with(hex("00 00 01 B3"))),
                                   video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{1}));
}

TEST(MPEG2EncryptionMarker, APesHeaderDoesNotResetThePrefixAndTheValueFollowsIt) {
  // 00 00 01 | PES header, B3: the byte behind the header completes the start code.
  MPEG2EncryptionMarker marker;
  auto records =
      mark_all(marker, {video_packet(ending_with(hex("00 00 01"))),
                        video_packet(starting_with(concat({pes_header_bytes(), hex("B3")})), true),
                        video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1}));

  // A slice value there leaves the previous packet encrypted; the header keeps its own clear.
  MPEG2EncryptionMarker slice;
  records =
      mark_all(slice, {video_packet(ending_with(hex("00 00 01"))),
                       video_packet(starting_with(concat({pes_header_bytes(), hex("05")})), true),
                       video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{1}));
}

TEST(MPEG2EncryptionMarker, AnUnreadablePesHeaderIsScannedFromTheFirstByte) {
  // PES_header_data_length 2 is shorter than the PTS it announces: no header. The scan finds the
  // PES start code 00 00 01 E0, which isn't a slice's.
  MPEG2EncryptionMarker marker;
  auto records = mark_all(
      marker, {video_packet(filler(184)),
               video_packet(starting_with(hex("00 00 01 E0 00 00 80 80 02 21 00 01 00 01")), true),
               video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{1}));

  // Without any start code, a packet with payload_unit_start and no header is encrypted.
  MPEG2EncryptionMarker other;
  records = mark_all(other, {video_packet(filler(184), true), video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{}));
}

TEST(MPEG2EncryptionMarker, AHeaderIsReadOnlyWithPayloadUnitStart) {
  // The same bytes without the flag: the scanner still finds the PES start code.
  MPEG2EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(starting_with(pes_header_bytes())),
                                   video_packet(starting_with(hex("00 00 01 E0")))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1}));
  EXPECT_EQ(IndexGen::pes_header_length(records.front()), 0u);
}

TEST(MPEG2EncryptionMarker, ASliceAndAPictureStartCodeInOnePacketKeepItInClear) {
  MPEG2EncryptionMarker marker;
  auto records = mark_all(
      marker, {video_packet(starting_with(hex("00 00 01 01 22 33 00 00 01 00 10 FF"))),
               video_packet(starting_with(hex("00 00 01 02 22 33 00 00 01 AF 10 FF"))),
               video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0}));
}

// A known MPEG-2 elementary stream cut into 10 packets: PES header, sequence header, GOP and
// picture in packet 0; slices through packets 1 to 3; a picture start code across packets 3
// and 4 (00 00 | 01 00); slices in 5; user data across 5 and 6 (00 | 00 01 B2, value at index 2);
// a slice across 6 and 7; a PES header with a slice behind it in 8; slices in 9.
TEST(MPEG2EncryptionMarker, CountsTheClearPacketsOfAKnownStream) {
  std::vector<MarkedPacket> in = {
      video_packet(starting_with(concat({pes_header_with_pts(),
                                         hex("00 00 01 B3 16 00 F0 15 FF FF E0 18 "
                                             "00 00 01 B8 00 08 00 40 00 00 01 00 00 0F FF F8 "
                                             "00 00 01 01 23 45")})),
                   true),
      video_packet(starting_with(hex("11 00 00 01 02 34"))),
      video_packet(filler(184, 0x66)),
      video_packet(ending_with(hex("00 00 01 03 44 00 00"))),
      video_packet(starting_with(hex("01 00 00 4F FF F8"))),
      video_packet(ending_with(hex("00 00 01 01 47 00"))),
      video_packet(concat({hex("00 01 B2 47 41 39 34"), filler(175), hex("00 00")})),
      video_packet(starting_with(hex("01 02 33"))),
      video_packet(starting_with(concat({pes_header_bytes(), hex("00 00 01 01 77")})), true),
      video_packet(filler(184, 0x77)),
  };
  MPEG2EncryptionMarker marker;
  auto records = mark_all(marker, in);
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 3, 4, 5, 6, 8}));
  EXPECT_EQ(ready_flags(records),
            (std::vector<bool>{true, true, true, true, true, true, true, true, true, false}));
}

}  // namespace
}  // namespace Veldrin::Testing
