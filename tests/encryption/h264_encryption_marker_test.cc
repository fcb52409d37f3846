#include "encryption/h264_encryption_marker.h"

#include <gtest/gtest.h>

#include <vector>

#include "encryption/marker_support.h"

namespace Veldrin::Testing {
namespace {

using IndexGen::H264EncryptionMarker;
using IndexGen::MarkedPacket;

TEST(H264EncryptionMarker, TheStreamStartsInClear) {
  H264EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(filler(184)), video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1}));
}

TEST(H264EncryptionMarker, APacketOfNothingButAPesHeaderStaysInClear) {
  H264EncryptionMarker marker;
  marker.encrypt_next = true;
  auto records = mark_all(marker, {video_packet(pes_header_with_pts(), true),
                                   video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0}));
}

TEST(H264EncryptionMarker, AFourByteStartOfAnIdrSliceKeepsThisAndTheNextPacketInClear) {
  H264EncryptionMarker marker;
  std::list<MarkedPacket> records;
  marker.mark(records.emplace_back(video_packet(ending_with(hex("00 00 00 01")))));
  EXPECT_EQ(marker.prefix_length(), 4);
  EXPECT_EQ(marker.last_byte(), 0x01);
  marker.mark(records.emplace_back(video_packet(starting_with(hex("65 88 84")))));
  EXPECT_TRUE(marker.hold_clear);
  EXPECT_TRUE(marker.encrypt_next);
  EXPECT_EQ(marker.prefix_length(), 0);
  marker.mark(records.emplace_back(video_packet(filler(184))));
  EXPECT_FALSE(marker.hold_clear);
  marker.mark(records.emplace_back(video_packet(filler(184))));
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1, 2}));
}

TEST(H264EncryptionMarker, OneIdrSlicePacketThenClearThenEncrypted) {
  H264EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(starting_with(hex("00 00 00 01 65 88"))),
                                   video_packet(filler(184)), video_packet(filler(184)),
                                   video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1}));
}

TEST(H264EncryptionMarker, APesHeaderAfterASliceStartUsesUpTheHold) {
  H264EncryptionMarker marker;
  auto records =
      mark_all(marker, {video_packet(ending_with(hex("00 00 01 41 9A"))),
                        video_packet(starting_with(pes_header_bytes()), true),
                        video_packet(filler(184)), video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1}));
  EXPECT_FALSE(marker.hold_clear);
}

TEST(H264EncryptionMarker, AfterAParameterSetEveryPacketStaysInClearUntilASlice) {
  std::vector<MarkedPacket> in = {video_packet(starting_with(hex("00 00 00 01 67 64 00 28")))};
  for (int i = 0; i < 5; i++) in.push_back(video_packet(filler(184)));
  in.push_back(video_packet(starting_with(hex("00 00 01 65 88"))));
  in.push_back(video_packet(filler(184)));
  in.push_back(video_packet(filler(184)));
  in.push_back(video_packet(filler(184)));
  H264EncryptionMarker marker;
  auto records = mark_all(marker, in);
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1, 2, 3, 4, 5, 6, 7}));
}

TEST(H264EncryptionMarker, EveryKindOfUnitSetsTheFlagsByItsType) {
  struct Case {
    unsigned char value;
    bool encrypt_next;
    bool hold_clear;
  };
  // The low five bits are the type: 0 unspecified, 1 to 5 slices, 6 to 9 kept in clear, the rest.
  for (const Case& c : {Case{0x00, true, false}, Case{0x01, true, true}, Case{0x25, true, true},
                        Case{0x06, false, false}, Case{0x68, false, false},
                        Case{0x09, false, false}, Case{0x0A, true, false},
                        Case{0x0C, true, false}, Case{0x1F, true, false},
                        Case{0xE0, true, false}}) {
    H264EncryptionMarker marker;
    MarkedPacket packet = video_packet(starting_with(concat({hex("00 00 01"), Bytes{c.value}})));
    marker.mark(packet);
    EXPECT_FALSE(packet.encrypt) << int(c.value);
    EXPECT_EQ(marker.encrypt_next, c.encrypt_next) << int(c.value);
    EXPECT_EQ(marker.hold_clear, c.hold_clear) << int(c.value);
  }
}

TEST(H264EncryptionMarker, AParameterSetLeavesAnEarlierHoldAsItIs) {
  H264EncryptionMarker marker;
  MarkedPacket packet = video_packet(starting_with(hex("00 00 01 41 9A 00 00 01 68 CE")));
  marker.mark(packet);
  EXPECT_TRUE(marker.hold_clear);
  EXPECT_FALSE(marker.encrypt_next);
}

TEST(H264EncryptionMarker, APrefixOfFourBytesThatBeganInThePreviousPacketClearsIt) {
  // 00 | 00 00 01 41: the value at index 3 and a prefix of 4, so the first zero lay before.
  H264EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(starting_with(hex("00 00 01 65"))),
                                   video_packet(filler(184)),
                                   video_packet(ending_with(hex("00"))),
                                   video_packet(starting_with(hex("00 00 01 41 9A"))),
                                   video_packet(filler(184)), video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1, 2, 3, 4}));
}

TEST(H264EncryptionMarker, AThreeBytePrefixWhollyInItsPacketLeavesThePreviousEncrypted) {
  // 55 | 00 00 01 41: index 3 with a prefix of 3.
  H264EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(starting_with(hex("00 00 01 65"))),
                                   video_packet(filler(184)),
                                   video_packet(filler(184)),
                                   video_packet(starting_with(hex("00 00 01 41 9A"))),
                                   video_packet(filler(184)), video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1, 3, 4}));
}

TEST(H264EncryptionMarker, AValueAtTheHeadOfThePacketAfterTheWholePrefixClearsThePrevious) {
  H264EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(starting_with(hex("00 00 01 65"))),
                                   video_packet(filler(184)),
                                   video_packet(ending_with(hex("00 00 01"))),
                                   video_packet(starting_with(hex("41 9A"))),
                                   video_packet(filler(184)), video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1, 2, 3, 4}));
}

TEST(H264EncryptionMarker, AnUnreadablePesHeaderIsReadAsAUnitOfTypeZero) {
  // The PES start code's 0xE0 has the low bits 0: encrypt_next becomes true, no hold.
  H264EncryptionMarker marker;
  auto records = mark_all(
      marker, {video_packet(starting_with(hex("00 00 01 E0 00 00 80 80 02 21 00 01 00 01")), true),
               video_packet(filler(184)), video_packet(filler(184))});
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0}));
}

TEST(H264EncryptionMarker, TheLastPacketIsNeverReady) {
  H264EncryptionMarker marker;
  auto records = mark_all(marker, {video_packet(filler(184)), video_packet(filler(184)),
                                   video_packet(filler(184))});
  EXPECT_EQ(ready_flags(records), (std::vector<bool>{true, true, false}));
}

// A known H.264 elementary stream cut into 12 packets: PES header, delimiter, SPS, PPS and the
// start of an IDR slice in 0; its data through 4; a P slice whose four-byte prefix straddles 4
// and 5 (00 00 | 00 01 41); its data through 8; SEI in 9 then nothing in 10; a PES header and a
// P slice in 11.
TEST(H264EncryptionMarker, CountsTheClearPacketsOfAKnownStream) {
  std::vector<MarkedPacket> in = {
      video_packet(starting_with(concat({pes_header_with_pts(),
                                         hex("00 00 00 01 09 10 00 00 00 01 67 64 00 28 AC "
                                             "00 00 00 01 68 EE 3C 80 00 00 01 65 88 84")})),
                   true),
      video_packet(filler(184, 0x91)),
      video_packet(filler(184, 0x92)),
      video_packet(filler(184, 0x93)),
      video_packet(ending_with(hex("00 00"))),
      video_packet(starting_with(hex("00 01 41 9A 02"))),
      video_packet(filler(184, 0x94)),
      video_packet(filler(184, 0x95)),
      video_packet(filler(184, 0x96)),
      video_packet(starting_with(hex("00 00 01 06 05 FF"))),
      video_packet(filler(184, 0x97)),
      video_packet(starting_with(concat({pes_header_bytes(), hex("00 00 00 01 41 9B")})), true),
  };
  H264EncryptionMarker marker;
  auto records = mark_all(marker, in);
  EXPECT_EQ(clear_indexes(records), (std::vector<size_t>{0, 1, 4, 5, 6, 9, 10, 11}));
}

}  // namespace
}  // namespace Veldrin::Testing
