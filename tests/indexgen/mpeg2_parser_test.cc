#include "indexgen/mpeg2_parser.h"

#include <gtest/gtest.h>

#include <list>

#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;

// Records live in a list, as in the generator's queue, so that the parser's pointer stays good.
class Feed {
 public:
  CapturedPacket& add(const Bytes& payload, uint64_t header_length = 0, int scrambling = 0) {
    TSPacket packet;
    packet.payload = payload;
    packet.scrambling_control = scrambling;
    CapturedPacket& record = records.emplace_back(packet);
    record.pes_header_length = header_length;
    parser.parse(record);
    return record;
  }

  MPEG2Parser parser;
  std::list<CapturedPacket> records;
};

void expect_markers(const CapturedPacket& record,
                    const std::vector<std::pair<uint32_t, bool>>& expected) {
  ASSERT_EQ(record.markers.size(), expected.size());
  for (size_t i = 0; i < expected.size(); ++i) {
    EXPECT_EQ(record.markers[i].position, expected[i].first) << "marker " << i;
    EXPECT_EQ(record.markers[i].is_end, expected[i].second) << "marker " << i;
  }
}

const Bytes kHeader = hex("00 00 01 E0 00 00 80 00 00");  // PES header without stamps: 9 bytes

TEST(MPEG2Parser, SequenceHeaderRightAfterThePesHeaderStartsAFrameThere) {
  Feed feed;
  CapturedPacket& first = feed.add(concat({kHeader, hex("00 00 01 B3 11 22")}), 9);
  // No previous record: no end marker is wanted.
  expect_markers(first, {{9, false}});
  EXPECT_TRUE(first.holds_start);
  EXPECT_TRUE(feed.parser.capturing);
  EXPECT_EQ(feed.parser.picture_count, 0);
  EXPECT_EQ(first.state, PACKET_HELD);
  EXPECT_EQ(feed.parser.previous, &first);
}

TEST(MPEG2Parser, PrefixSplitThreeToOneMarksThePreviousRecord) {
  Feed feed;
  CapturedPacket& earlier = feed.add(hex("AA BB CC DD 00 00 01"));
  CapturedPacket& later = feed.add(hex("B3 11 22 33"));
  // The prefix began 3 bytes before the end of the earlier payload: index 4 of 7.
  expect_markers(earlier, {{4, false}});
  EXPECT_TRUE(earlier.holds_start);
  EXPECT_TRUE(later.markers.empty());
  EXPECT_FALSE(later.holds_start);
  EXPECT_EQ(earlier.state, PACKET_FREE);
  EXPECT_EQ(later.state, PACKET_HELD);
}

TEST(MPEG2Parser, PrefixSplitTwoToTwoMarksThePreviousRecord) {
  Feed feed;
  CapturedPacket& earlier = feed.add(hex("AA BB CC DD EE 00 00"));
  CapturedPacket& later = feed.add(hex("01 B3 11 22"));
  expect_markers(earlier, {{5, false}});
  EXPECT_TRUE(earlier.holds_start);
  EXPECT_TRUE(later.markers.empty());
}

TEST(MPEG2Parser, PrefixSplitOneToThreeMarksThePreviousRecord) {
  Feed feed;
  CapturedPacket& earlier = feed.add(hex("AA BB CC DD EE FF 00"));
  CapturedPacket& later = feed.add(hex("00 01 B3 11"));
  expect_markers(earlier, {{6, false}});
  EXPECT_TRUE(later.markers.empty());
}

TEST(MPEG2Parser, StartCodeRightAfterAPesHeaderEndsTheOpenFrameOnThePreviousRecord) {
  Feed feed;
  CapturedPacket& earlier = feed.add(concat({kHeader, hex("00 00 01 B3 55 66 77 88")}), 9);
  CapturedPacket& later = feed.add(concat({kHeader, hex("00 00 01 B3 99")}), 9);
  // i is h + 3: start at index h in the new record, end at -1 of the previous one.
  expect_markers(earlier, {{9, false}, {16, true}});
  expect_markers(later, {{9, false}});
  EXPECT_TRUE(later.holds_start);
}

TEST(MPEG2Parser, PrefixAcrossAPesHeaderIsFound) {
  Feed feed;
  CapturedPacket& earlier = feed.add(hex("AA BB 00 00"));
  CapturedPacket& later = feed.add(concat({kHeader, hex("01 B3 11")}), 9);
  expect_markers(earlier, {{2, false}});
  EXPECT_TRUE(later.markers.empty());
}

TEST(MPEG2Parser, PesHeaderBytesAreNeverScanned) {
  Feed feed;
  // The header's own bytes read 00 00 01 E0, and more start code bytes follow in its stuffing.
  Bytes header = hex("00 00 01 E0 00 00 80 00 04 00 00 01 B3");
  CapturedPacket& record = feed.add(concat({header, hex("11 22")}), header.size());
  EXPECT_TRUE(record.markers.empty());
  EXPECT_FALSE(feed.parser.capturing);
}

TEST(MPEG2Parser, FrameRunsFromSequenceHeaderToTheSecondPictureStartCode) {
  Feed feed;
  // Sequence header at 2, a GOP header, picture one at 12, picture two at 20.
  CapturedPacket& record =
      feed.add(hex("AA BB 00 00 01 B3 01 02 00 00 01 B8 00 00 01 00 03 04 05 06 00 00 01 00 07"));
  expect_markers(record, {{2, false}, {19, true}});
  EXPECT_FALSE(feed.parser.capturing);
  EXPECT_EQ(feed.parser.picture_count, 2);
}

TEST(MPEG2Parser, LaterPicturesOutsideAFrameAreIgnored) {
  Feed feed;
  CapturedPacket& record =
      feed.add(hex("00 00 01 B3 00 00 01 00 11 00 00 01 00 22 00 00 01 00 33 00 00 01 00 44"));
  expect_markers(record, {{0, false}, {8, true}});
  EXPECT_EQ(feed.parser.picture_count, 2);
}

TEST(MPEG2Parser, SequenceHeaderInsideAnOpenFrameEndsItAndStartsANewOne) {
  Feed feed;
  CapturedPacket& record = feed.add(hex("00 00 01 B3 00 00 01 00 11 00 00 01 B3 22"));
  expect_markers(record, {{0, false}, {8, true}, {9, false}});
  EXPECT_TRUE(feed.parser.capturing);
  EXPECT_EQ(feed.parser.picture_count, 0);
}

TEST(MPEG2Parser, EndMarkerOfASplitPictureStartCodeGoesOnThePreviousRecord) {
  Feed feed;
  CapturedPacket& earlier = feed.add(hex("00 00 01 B3 00 00 01 00 11 22 00 00"));
  CapturedPacket& later = feed.add(hex("01 00 33"));
  // Last byte ahead of the prefix: 4 back from the value byte, that is -3 from the earlier end.
  expect_markers(earlier, {{0, false}, {9, true}});
  EXPECT_TRUE(later.markers.empty());
}

TEST(MPEG2Parser, ThreeZerosBeforeTheOneStillMakeAPrefix) {
  Feed feed;
  CapturedPacket& record = feed.add(hex("AA 00 00 00 01 B3 77"));
  expect_markers(record, {{2, false}});
}

TEST(MPEG2Parser, ValueByteZeroDoesNotCountAsAZeroOfTheNextPrefix) {
  Feed feed;
  // 00 00 01 00 is a picture start code; the 00 01 B3 behind it has one zero only.
  CapturedPacket& record = feed.add(hex("00 00 01 00 00 01 B3 11"));
  EXPECT_TRUE(record.markers.empty());
  EXPECT_FALSE(feed.parser.capturing);
}

TEST(MPEG2Parser, OneZeroAndAOneIsNoPrefix) {
  Feed feed;
  CapturedPacket& record = feed.add(hex("11 00 01 B3 22"));
  EXPECT_TRUE(record.markers.empty());
}

TEST(MPEG2Parser, PictureStartWithoutAnOpenFrameChangesNothing) {
  Feed feed;
  CapturedPacket& record = feed.add(hex("00 00 01 00 11 00 00 01 00 22"));
  EXPECT_TRUE(record.markers.empty());
  EXPECT_FALSE(feed.parser.capturing);
  EXPECT_EQ(feed.parser.picture_count, 0);
}

TEST(MPEG2Parser, EmptyPayloadDoesNotBecomePrevious) {
  Feed feed;
  CapturedPacket& earlier = feed.add(hex("AA BB 00 00"));
  CapturedPacket& empty = feed.add(Bytes{});
  EXPECT_EQ(empty.state, PACKET_FREE);
  EXPECT_EQ(earlier.state, PACKET_HELD);
  EXPECT_EQ(feed.parser.previous, &earlier);
  // The prefix goes on across the empty packet, and the marker lands on the earlier record.
  CapturedPacket& later = feed.add(hex("01 B3 11"));
  expect_markers(earlier, {{2, false}});
  EXPECT_TRUE(empty.markers.empty());
  EXPECT_TRUE(later.markers.empty());
}

TEST(MPEG2Parser, ScrambledPacketInTheMiddleOfAPrefixForgetsIt) {
  Feed feed;
  CapturedPacket& earlier = feed.add(hex("AA BB 00 00"));
  CapturedPacket& scrambled = feed.add(hex("01 B3 01 B3"), 0, 2);
  CapturedPacket& later = feed.add(hex("01 B3 11"));
  EXPECT_TRUE(earlier.markers.empty());
  EXPECT_TRUE(scrambled.markers.empty());
  EXPECT_TRUE(later.markers.empty());
  // The scrambled packet still became the previous record, and was then let go.
  EXPECT_EQ(earlier.state, PACKET_FREE);
  EXPECT_EQ(scrambled.state, PACKET_FREE);
  EXPECT_EQ(later.state, PACKET_HELD);
}

TEST(MPEG2Parser, ScrambledPacketLeavesAnOpenFrameOpen) {
  Feed feed;
  feed.add(hex("00 00 01 B3 11"));
  feed.add(hex("00 00 01 00 22"), 0, 3);
  EXPECT_TRUE(feed.parser.capturing);
  EXPECT_EQ(feed.parser.picture_count, 0);
}

TEST(MPEG2Parser, OnlyTheLastRecordWithAPayloadIsHeld) {
  Feed feed;
  CapturedPacket& a = feed.add(hex("11"));
  EXPECT_EQ(a.state, PACKET_HELD);
  CapturedPacket& b = feed.add(hex("22"));
  EXPECT_EQ(a.state, PACKET_FREE);
  EXPECT_EQ(b.state, PACKET_HELD);
}

TEST(MPEG2Parser, SplitStartCodeWithoutAPreviousRecordPlacesNothing) {
  Feed feed;
  // The prefix lies ahead of this record's PES header, in a packet that the parser never saw.
  feed.parser.scanner.prefix_length = 2;
  CapturedPacket& record = feed.add(hex("01 B3 11"));
  EXPECT_TRUE(record.markers.empty());
  EXPECT_FALSE(record.holds_start);
  EXPECT_TRUE(feed.parser.capturing);
}

}  // namespace
}  // namespace Veldrin::IndexGen
