#include "transport/ts_reader.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "foundation/channel/block_reader.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;

struct Header {
  bool ok;
  TSPacket packet;
  int32_t payload_length;
  uint64_t consumed;
};

// Reads the header of `head` padded with 0xFF to a whole packet.
Header read_header(const Bytes& head, size_t total = 188) {
  Bytes bytes = head;
  if (bytes.size() < total) bytes.resize(total, 0xFF);
  Korvix::Channel::BlockReader reader(bytes.data(), bytes.size());
  Header h{false, TSPacket{}, -999, 0};
  h.packet.pcr = 123.0;
  h.ok = TSReader(reader).read_header(h.packet, h.payload_length);
  h.consumed = reader.offset;
  return h;
}

TEST(TSReader, HeaderWithoutAdaptationFieldHas184PayloadBytes) {
  Header h = read_header(hex("47 41 00 1A"));
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.packet.pid, 0x100);
  EXPECT_TRUE(h.packet.payload_unit_start);
  EXPECT_EQ(h.packet.scrambling_control, 0);
  EXPECT_EQ(h.packet.continuity_counter, 10);
  EXPECT_EQ(h.packet.pcr, -1.0);
  EXPECT_FALSE(h.packet.discontinuity);
  EXPECT_FALSE(h.packet.random_access);
  EXPECT_EQ(h.payload_length, 184);
  EXPECT_EQ(h.consumed, 4u);
}

TEST(TSReader, ErrorAndPriorityBitsAreNotKept) {
  Header h = read_header(hex("47 BF FF 10"));
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.packet.pid, 0x1FFF);
  EXPECT_FALSE(h.packet.payload_unit_start);
  Header start = read_header(hex("47 E0 11 10"));
  ASSERT_TRUE(start.ok);
  EXPECT_EQ(start.packet.pid, 0x11);
  EXPECT_TRUE(start.packet.payload_unit_start);
}

TEST(TSReader, ScramblingControlIsTheTopTwoBits) {
  Header h = read_header(hex("47 01 00 DF"));
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.packet.scrambling_control, 3);
  EXPECT_EQ(h.packet.continuity_counter, 15);
  Header two = read_header(hex("47 01 00 90"));
  EXPECT_EQ(two.packet.scrambling_control, 2);
}

TEST(TSReader, PayloadFlagIsNotLookedAt) {
  Header h = read_header(hex("47 01 00 00"));
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.payload_length, 184);
}

// A header with an adaptation field of some length, and what is left for the payload.
struct FieldLength {
  const char* name;
  const char* head;
  size_t total;  // bytes present, the header's included
  int32_t payload_length;
  uint64_t consumed;
};

void PrintTo(const FieldLength& field, std::ostream* out) {
  *out << field.name;
}

class TSReaderAdaptation : public ::testing::TestWithParam<FieldLength> {};

TEST_P(TSReaderAdaptation, PayloadIsWhatTheFieldLeavesOfThe184Bytes) {
  const FieldLength& field = GetParam();
  Header h = read_header(hex(field.head), field.total);
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.payload_length, field.payload_length);
  EXPECT_EQ(h.consumed, field.consumed);
}

const FieldLength kFieldLengths[] = {
    {"NoFieldLeaves184", "47 01 00 10", 188, 184, 4},
    {"EmptyFieldLeaves183", "47 01 00 30 00", 188, 183, 5},
    {"FieldOf183LeavesNoPayload", "47 01 00 30 B7 00", 188, 0, 188},
    // One byte more than the packet holds: read all the same, the payload length negative.
    {"FieldOf184GivesNegativeLength", "47 01 00 30 B8 00", 189, -1, 189},
};

INSTANTIATE_TEST_SUITE_P(Lengths, TSReaderAdaptation, ::testing::ValuesIn(kFieldLengths),
                         [](const ::testing::TestParamInfo<FieldLength>& info) {
                           return std::string(info.param.name);
                         });

TEST(TSReader, FlagsOfTheAdaptationField) {
  Header h = read_header(hex("47 01 00 30 01 C0"));
  ASSERT_TRUE(h.ok);
  EXPECT_TRUE(h.packet.discontinuity);
  EXPECT_TRUE(h.packet.random_access);
  EXPECT_EQ(h.packet.pcr, -1.0);
  EXPECT_EQ(h.payload_length, 182);
  Header ra = read_header(hex("47 01 00 30 01 40"));
  EXPECT_FALSE(ra.packet.discontinuity);
  EXPECT_TRUE(ra.packet.random_access);
}

TEST(TSReader, PcrOfZeroIsARealValue) {
  Header h = read_header(hex("47 01 00 30 07 10 00 00 00 00 7E 00"));
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.packet.pcr, 0.0);
  EXPECT_EQ(h.payload_length, 176);
  EXPECT_EQ(h.consumed, 12u);
}

TEST(TSReader, PcrBaseAndExtension) {
  Header one = read_header(hex("47 01 00 30 07 10 00 00 AF C8 7E 00"));
  ASSERT_TRUE(one.ok);
  EXPECT_EQ(one.packet.pcr, 1.0);
  // Base 87 (low bit in the second word), extension 267.
  Header odd = read_header(hex("47 01 00 30 07 10 00 00 00 2B FF 0B"));
  ASSERT_TRUE(odd.ok);
  EXPECT_EQ(odd.packet.pcr, (87.0 * 300 + 267) / 27000000.0);
  // The reserved bits are not part of the value.
  Header top = read_header(hex("47 01 00 30 07 10 FF FF FF FF FF FF"));
  ASSERT_TRUE(top.ok);
  EXPECT_EQ(top.packet.pcr, (8589934591.0 * 300 + 511) / 27000000.0);
}

TEST(TSReader, RestOfTheAdaptationFieldIsSkipped) {
  Header h = read_header(hex("47 01 00 30 0A 12 00 00 AF C8 7E 00 47 47 47 47"));
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.packet.pcr, 1.0);
  EXPECT_EQ(h.payload_length, 173);
  EXPECT_EQ(h.consumed, 15u);
}

TEST(TSReader, FieldTooShortForItsPcrIsReadAllTheSame) {
  Header h = read_header(hex("47 01 00 30 01 10 00 00 AF C8 7E 00"));
  ASSERT_TRUE(h.ok);
  EXPECT_EQ(h.packet.pcr, 1.0);
  EXPECT_EQ(h.payload_length, 182);
  EXPECT_EQ(h.consumed, 12u);
}

TEST(TSReader, WrongSyncByteFails) {
  Header h = read_header(hex("48 01 00 10"));
  EXPECT_FALSE(h.ok);
  EXPECT_EQ(h.consumed, 1u);
}

TEST(TSReader, HeaderCutAtEveryLengthFails) {
  Bytes head = hex("47 01 00 30 0A 12 00 00 AF C8 7E 00 FF FF FF");
  for (size_t n = 0; n < head.size(); n++) {
    Bytes cut(head.begin(), head.begin() + static_cast<std::ptrdiff_t>(n));
    EXPECT_FALSE(read_header(cut, 0).ok) << n;
  }
  EXPECT_TRUE(read_header(head, 0).ok);
}

TEST(TSReader, SkipPacketGoesToTheNextPacketBoundary) {
  Bytes two = concat({hex("47 01 00 30 07 10 00 00 AF C8 7E 00"), Bytes(176, 0x55),
                      hex("47 02 00 11"), Bytes(184, 0x66)});
  Korvix::Channel::BlockReader reader(two.data(), two.size());
  TSReader ts_reader(reader);
  TSPacket first;
  ASSERT_TRUE(ts_reader.skip_packet(first));
  EXPECT_EQ(first.pid, 0x100);
  EXPECT_EQ(first.pcr, 1.0);
  EXPECT_EQ(reader.offset, 188u);
  TSPacket second;
  ASSERT_TRUE(ts_reader.skip_packet(second));
  EXPECT_EQ(second.pid, 0x200);
  EXPECT_EQ(second.continuity_counter, 1);
  EXPECT_EQ(reader.offset, 376u);
  TSPacket none;
  EXPECT_FALSE(ts_reader.skip_packet(none));
}

TEST(TSReader, SkipPacketOfACutPacketFails) {
  Bytes cut = concat({hex("47 01 00 10"), Bytes(100, 0)});
  Korvix::Channel::BlockReader reader(cut.data(), cut.size());
  TSPacket packet;
  EXPECT_FALSE(TSReader(reader).skip_packet(packet));
}

}  // namespace
}  // namespace Veldrin::IndexGen
