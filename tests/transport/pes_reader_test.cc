#include "transport/pes.h"

#include <gtest/gtest.h>

#include "foundation/channel/block_reader.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::hex;

struct Result {
  bool ok;
  PESHeader header;
  int32_t payload_length;
  uint64_t consumed;
};

Result read(const Bytes& bytes) {
  Korvix::Channel::BlockReader reader(bytes.data(), bytes.size());
  PESReader pes(reader);
  Result result{false, PESHeader{}, 12345, 0};
  result.ok = pes.read_header(result.header, result.payload_length);
  result.consumed = reader.offset;
  return result;
}

// A video header with PTS only, h 5, PES_packet_length 0x20.
const char* VIDEO_PTS = "00 00 01 E0 00 20 80 80 05 21 00 05 BF 21";

TEST(PESReader, VideoStreamIdsGiveClassZeroAndLowFourBits) {
  Result e0 = read(hex("00 00 01 E0 00 00 80 00 00"));
  ASSERT_TRUE(e0.ok);
  EXPECT_EQ(e0.header.stream_class, PES_CLASS_VIDEO);
  EXPECT_EQ(e0.header.stream_number, 0);
  Result ef = read(hex("00 00 01 EF 00 00 80 00 00"));
  ASSERT_TRUE(ef.ok);
  EXPECT_EQ(ef.header.stream_class, PES_CLASS_VIDEO);
  EXPECT_EQ(ef.header.stream_number, 15);
}

TEST(PESReader, AudioStreamIdsGiveClassOneAndLowFiveBits) {
  Result c0 = read(hex("00 00 01 C0 00 00 80 00 00"));
  ASSERT_TRUE(c0.ok);
  EXPECT_EQ(c0.header.stream_class, PES_CLASS_AUDIO);
  EXPECT_EQ(c0.header.stream_number, 0);
  Result df = read(hex("00 00 01 DF 00 00 80 00 00"));
  ASSERT_TRUE(df.ok);
  EXPECT_EQ(df.header.stream_class, PES_CLASS_AUDIO);
  EXPECT_EQ(df.header.stream_number, 31);
}

TEST(PESReader, PrivateStreamOneCountsAsOtherAndSkipsItsWholeLength) {
  // An optional header is present, but it isn't parsed: the whole length is skipped.
  Result bd = read(hex("00 00 01 BD 00 08 81 80 05 21 00 05 BF 21 AA"));
  ASSERT_TRUE(bd.ok);
  EXPECT_EQ(bd.header.stream_class, PES_CLASS_OTHER);
  EXPECT_EQ(bd.header.stream_number, 0xBD);
  EXPECT_EQ(bd.header.scrambling_control, 0);
  EXPECT_FALSE(bd.header.data_alignment);
  EXPECT_EQ(bd.payload_length, 0);
  EXPECT_EQ(bd.header.pts, -1.0);
  EXPECT_EQ(bd.consumed, 14u);
}

TEST(PESReader, OtherStreamWhoseLengthRunsOffTheEndFails) {
  EXPECT_FALSE(read(hex("00 00 01 BE 00 08 FF FF")).ok);
}

TEST(PESReader, WrongStartCodeFailsAfterFourBytes) {
  Result r = read(hex("00 00 02 E0 00 00 80 00 00"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.consumed, 4u);
  EXPECT_FALSE(read(hex("01 00 01 E0 00 00 80 00 00")).ok);
}

TEST(PESReader, ZeroPacketLengthOnVideoIsUnbounded) {
  Result r = read(hex("00 00 01 E0 00 00 80 80 05 21 00 05 BF 21"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.payload_length, -1);
}

TEST(PESReader, PayloadLengthIsPacketLengthLessThreeLessHeaderDataLength) {
  Result r = read(hex(VIDEO_PTS));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.payload_length, 0x20 - 3 - 5);
  EXPECT_EQ(r.consumed, 14u);
}

TEST(PESReader, PtsOfZeroTicks) {
  Result r = read(hex("00 00 01 E0 00 20 80 80 05 21 00 01 00 01"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.pts, 0.0);
  EXPECT_EQ(r.header.dts, -1.0);
}

TEST(PESReader, PtsOfNinetyThousandTicksIsOneSecond) {
  Result r = read(hex(VIDEO_PTS));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.pts, 1.0);
  EXPECT_EQ(r.header.dts, -1.0);
  EXPECT_EQ(r.header.stuffing_length, 0);
}

TEST(PESReader, PtsUsesAllThirtyThreeBits) {
  Result r = read(hex("00 00 01 E0 00 20 80 80 05 2F FF FF FF FF"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.pts, 8589934591.0 / 90000.0);
}

TEST(PESReader, MarkerBitsAndPrefixAreNotExamined) {
  // All marker bits clear and a wrong prefix: the same value as with them set.
  Result r = read(hex("00 00 01 E0 00 20 80 80 05 00 00 04 BF 20"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.pts, 1.0);
}

TEST(PESReader, PtsAndDtsBothRead) {
  Result r = read(hex("00 00 01 E0 00 00 80 C0 0A 31 00 05 BF 21 11 00 03 5F 91"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.pts, 1.0);
  EXPECT_EQ(r.header.dts, 0.5);
  EXPECT_EQ(r.header.stuffing_length, 0);
  EXPECT_EQ(r.consumed, 19u);
}

TEST(PESReader, DtsFlagAloneReadsDtsAndNoPts) {
  Result r = read(hex("00 00 01 E0 00 00 80 40 05 11 00 05 BF 21"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.pts, -1.0);
  EXPECT_EQ(r.header.dts, 1.0);
}

TEST(PESReader, EmptyOptionalHeaderLeavesStampsAsPreset) {
  Result r = read(hex("00 00 01 E0 00 10 80 00 00"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.stuffing_length, 0);
  EXPECT_EQ(r.header.pts, -1.0);
  EXPECT_EQ(r.header.dts, -1.0);
  EXPECT_EQ(r.payload_length, 0x10 - 3);
  EXPECT_EQ(r.consumed, 9u);
}

TEST(PESReader, StuffingBeyondStampsIsSkipped) {
  Result r = read(hex("00 00 01 E0 00 20 80 80 08 21 00 05 BF 21 FF FF FF 00"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.stuffing_length, 3);
  EXPECT_EQ(r.payload_length, 0x20 - 3 - 8);
  EXPECT_EQ(r.consumed, 17u);
}

TEST(PESReader, ScramblingControlAndDataAlignmentFromFlags) {
  Result r = read(hex("00 00 01 E0 00 00 B4 00 00"));
  ASSERT_TRUE(r.ok);
  EXPECT_EQ(r.header.scrambling_control, 3);
  EXPECT_TRUE(r.header.data_alignment);
  Result plain = read(hex("00 00 01 E0 00 00 80 00 00"));
  ASSERT_TRUE(plain.ok);
  EXPECT_EQ(plain.header.scrambling_control, 0);
  EXPECT_FALSE(plain.header.data_alignment);
}

TEST(PESReader, HeaderShorterThanItsStampsFailsWithoutSteppingBack) {
  // PES_header_data_length 3 with a PTS of 5 bytes: the skip of -2 fails.
  Result r = read(hex("00 00 01 E0 00 20 80 80 03 21 00 05 BF 21 00 00 00"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.consumed, 14u);
  EXPECT_EQ(r.header.pts, 1.0);
}

TEST(PESReader, HeaderCutOffInDtsFailsWithPtsAlreadySet) {
  Result r = read(hex("00 00 01 E0 00 00 80 C0 0A 31 00 05 BF 21 11 00"));
  EXPECT_FALSE(r.ok);
  EXPECT_EQ(r.header.pts, 1.0);
  EXPECT_EQ(r.header.dts, -1.0);
}

TEST(PESReader, HeaderCutAtEveryLengthFails) {
  Bytes full = hex("00 00 01 E0 00 00 80 C0 0A 31 00 05 BF 21 11 00 03 5F 91");
  for (size_t n = 0; n < full.size(); n++) {
    Bytes cut(full.begin(), full.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_FALSE(read(cut).ok) << n;
  }
  EXPECT_TRUE(read(full).ok);
}

TEST(PESReader, StuffingCutOffFails) {
  EXPECT_FALSE(read(hex("00 00 01 E0 00 20 80 80 08 21 00 05 BF 21 FF FF")).ok);
}

}  // namespace
}  // namespace Veldrin::IndexGen
