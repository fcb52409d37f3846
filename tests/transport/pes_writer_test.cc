#include "transport/pes.h"

#include <gtest/gtest.h>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::hex;

struct Written {
  bool ok;
  Bytes bytes;
};

Written write_header(const PESHeader& header, int32_t payload_length, size_t room = 64) {
  Bytes buffer(room, 0xEE);
  Korvix::Channel::BlockWriter writer(buffer.data(), buffer.size());
  PESWriter pes(writer);
  bool ok = pes.write_header(header, payload_length);
  buffer.resize(writer.offset);
  return {ok, buffer};
}

PESHeader video(double pts, double dts = -1.0) {
  PESHeader header;
  header.stream_class = PES_CLASS_VIDEO;
  header.pts = pts;
  header.dts = dts;
  return header;
}

TEST(PESWriter, PtsOfOneSecondIsNinetyThousandTicks) {
  Written w = write_header(video(1.0), 10);
  ASSERT_TRUE(w.ok);
  // Length 10 + 5 + 3.
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 12 80 80 05 21 00 05 BF 21"));
}

TEST(PESWriter, PtsOfZeroHasOnlyMarkerBits) {
  Written w = write_header(video(0.0), 0);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 08 80 80 05 21 00 01 00 01"));
}

TEST(PESWriter, PtsAndDtsTakeTheirOwnPrefixes) {
  Written w = write_header(video(1.0, 0.5), -1);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 00 80 C0 0A 31 00 05 BF 21 11 00 03 5F 91"));
}

TEST(PESWriter, DtsWithoutPtsIsWrittenAndCountedButNotFlagged) {
  Written w = write_header(video(-1.0, 1.0), 0);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 08 80 00 05 11 00 05 BF 21"));
}

TEST(PESWriter, HighBitsOfAThirtyThreeBitStamp) {
  // 95443 s = 8,589,870,000 ticks = 0x1FFFF03B0.
  Written w = write_header(video(95443.0), -1);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 00 80 80 05 2F FF FD 07 61"));
}

TEST(PESWriter, LengthThatDoesNotFitIsWrittenAsZero) {
  Written w = write_header(video(1.0), 65530);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes[4], 0x00);
  EXPECT_EQ(w.bytes[5], 0x00);
}

TEST(PESWriter, LargestLengthThatFits) {
  Written w = write_header(video(1.0), 65527);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes[4], 0xFF);
  EXPECT_EQ(w.bytes[5], 0xFF);
}

TEST(PESWriter, NegativePayloadLengthIsUnbounded) {
  Written w = write_header(video(-1.0), -1);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 00 80 00 00"));
}

TEST(PESWriter, StuffingIsCountedAndWrittenAsFF) {
  PESHeader header = video(1.0);
  header.stuffing_length = 2;
  Written w = write_header(header, 1);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 0B 80 80 07 21 00 05 BF 21 FF FF"));
}

TEST(PESWriter, ScramblingAndAlignmentInFlags) {
  PESHeader header = video(-1.0);
  header.scrambling_control = 2;
  header.data_alignment = true;
  Written w = write_header(header, -1);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 00 A4 00 00"));
}

TEST(PESWriter, StreamNumberIsOredIntoTheClassId) {
  PESHeader header = video(-1.0);
  header.stream_number = 5;
  EXPECT_EQ(write_header(header, -1).bytes[3], 0xE5);
  header.stream_class = PES_CLASS_AUDIO;
  header.stream_number = 0x13;
  EXPECT_EQ(write_header(header, -1).bytes[3], 0xD3);
}

TEST(PESWriter, OtherClassWritesNoOptionalHeaderButCountsIt) {
  PESHeader header = video(1.0);
  header.stream_class = PES_CLASS_OTHER;
  header.stream_number = 0xBD;
  Written w = write_header(header, 4);
  ASSERT_TRUE(w.ok);
  // 4 + 5 + 3 counted, six bytes written.
  EXPECT_EQ(w.bytes, hex("00 00 01 BD 00 0C"));
}

TEST(PESWriter, WritePacketAppendsTheData) {
  Bytes buffer(64, 0);
  Korvix::Channel::BlockWriter writer(buffer.data(), buffer.size());
  PESWriter pes(writer);
  ASSERT_TRUE(pes.write_packet(video(1.0), "abc"));
  buffer.resize(writer.offset);
  EXPECT_EQ(buffer, hex("00 00 01 E0 00 0B 80 80 05 21 00 05 BF 21 61 62 63"));
}

TEST(PESWriter, OverflowingTheWriterFails) {
  Written w = write_header(video(1.0, 0.5), 0, 12);
  EXPECT_FALSE(w.ok);
  // What was written before the failure stays.
  EXPECT_EQ(w.bytes, hex("00 00 01 E0 00 0D 80 C0 0A 31"));
  Bytes buffer(15, 0);
  Korvix::Channel::BlockWriter writer(buffer.data(), buffer.size());
  PESWriter pes(writer);
  EXPECT_FALSE(pes.write_packet(video(1.0), "abc"));
}

TEST(PESWriter, WrittenHeaderReadsBack) {
  PESHeader header = video(3600.04, 3599.96);
  header.stream_number = 2;
  header.stuffing_length = 1;
  header.data_alignment = true;
  Written w = write_header(header, 1000);
  ASSERT_TRUE(w.ok);
  Korvix::Channel::BlockReader reader(w.bytes.data(), w.bytes.size());
  PESHeader back;
  int32_t payload_length = 0;
  ASSERT_TRUE(PESReader(reader).read_header(back, payload_length));
  EXPECT_EQ(back.stream_class, PES_CLASS_VIDEO);
  EXPECT_EQ(back.stream_number, 2);
  EXPECT_TRUE(back.data_alignment);
  EXPECT_EQ(back.stuffing_length, 1);
  EXPECT_EQ(payload_length, 1000);
  // Truncation to ticks: within one tick.
  EXPECT_NEAR(back.pts, 3600.04, 1.0 / 90000.0);
  EXPECT_NEAR(back.dts, 3599.96, 1.0 / 90000.0);
  EXPECT_EQ(reader.offset, w.bytes.size());
}

}  // namespace
}  // namespace Veldrin::IndexGen
