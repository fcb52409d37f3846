#include "transport/section_assembler.h"

#include <gtest/gtest.h>

#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;
using VdxTest::with_crc;

// A PAT of program 1 on PID 0x1000, pointer_field first, with its known CRC.
const Bytes kPat = hex("00 00 B0 0D 00 01 C1 00 00 00 01 F0 00 2A B1 04 B2");

Bytes part(const Bytes& bytes, size_t from, size_t to) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
               bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

TEST(SectionAssembler, SectionSplitOverTwoPayloadsIsKeptUntilItIsWhole) {
  SectionAssembler assembler;
  PATSection first;
  EXPECT_EQ(assembler.add(part(kPat, 0, 9), first), SECTION_INCOMPLETE);
  EXPECT_EQ(assembler.data, part(kPat, 0, 9));
  PATSection second;
  EXPECT_EQ(assembler.add(part(kPat, 9, kPat.size()), second), SECTION_GOOD);
  EXPECT_EQ(second.programs, (std::map<uint16_t, uint16_t>{{1, 0x1000}}));
  EXPECT_EQ(second.id, 1);
  EXPECT_TRUE(assembler.data.empty());
}

TEST(SectionAssembler, ChangedCrcByteIsBadAndTheNextPayloadStartsAfresh) {
  SectionAssembler assembler;
  Bytes twin = kPat;
  twin.back() ^= 0x01;
  PATSection bad;
  EXPECT_EQ(assembler.add(twin, bad), SECTION_BAD);
  EXPECT_TRUE(assembler.data.empty());
  EXPECT_TRUE(bad.programs.empty());
  PATSection good;
  EXPECT_EQ(assembler.add(kPat, good), SECTION_GOOD);
  EXPECT_EQ(good.programs.size(), 1u);
}

TEST(SectionAssembler, LostMiddlePacketShowsOnlyAsABadCrc) {
  // A PMT over three payloads whose middle one is lost: the first and the last are gathered as
  // if they belonged together, and the CRC finds the gap.
  Bytes pmt = concat(
      {hex("00"), with_crc(concat({hex("02 B0 3B 00 01 C1 00 00 E1 00 F0 00"), Bytes(46, 0x55)}))});
  ASSERT_EQ(pmt.size(), 63u);
  SectionAssembler assembler;
  PMTSection model;
  EXPECT_EQ(assembler.add(part(pmt, 0, 20), model), SECTION_INCOMPLETE);
  EXPECT_EQ(assembler.add(concat({part(pmt, 40, 63), Bytes(20, 0xFF)}), model), SECTION_BAD);
  EXPECT_TRUE(assembler.data.empty());
}

TEST(SectionAssembler, PayloadThatBeginsInsideASectionIsReadFromItsFirstByte) {
  // 0x30 is taken for a pointer_field that passes over more bytes than are at hand.
  SectionAssembler assembler;
  PATSection pat;
  EXPECT_EQ(assembler.add(hex("30 11 22 33"), pat), SECTION_INCOMPLETE);
  EXPECT_EQ(assembler.data, hex("30 11 22 33"));
}

TEST(SectionAssembler, StuffingAndASecondSectionBehindAGoodOneAreDropped) {
  SectionAssembler assembler;
  PATSection pat;
  EXPECT_EQ(assembler.add(concat({kPat, part(kPat, 1, kPat.size()), Bytes(10, 0xFF)}), pat),
            SECTION_GOOD);
  EXPECT_TRUE(assembler.data.empty());
}

TEST(SectionAssembler, LengthOutOfRangeIsBadBeforeTheBodyArrives) {
  SectionAssembler assembler;
  PATSection pat;
  EXPECT_EQ(assembler.add(hex("00 00 B0 03"), pat), SECTION_BAD);
  EXPECT_TRUE(assembler.data.empty());
}

TEST(SectionAssembler, EmptyPayloadKeepsWhatWasGathered) {
  SectionAssembler assembler;
  PATSection pat;
  EXPECT_EQ(assembler.add(part(kPat, 0, 5), pat), SECTION_INCOMPLETE);
  EXPECT_EQ(assembler.add(Bytes{}, pat), SECTION_INCOMPLETE);
  EXPECT_EQ(assembler.data, part(kPat, 0, 5));
}

TEST(SectionAssembler, PmtAndCatAreGatheredTheSameWay) {
  // PMT of program 1: PCR PID 0x100, one stream of type 2 on PID 0x100.
  Bytes pmt =
      concat({hex("00"), with_crc(hex("02 B0 12 00 01 C1 00 00 E1 00 F0 00 02 E1 00 F0 00"))});
  SectionAssembler pmt_assembler;
  PMTSection model;
  EXPECT_EQ(pmt_assembler.add(part(pmt, 0, 10), model), SECTION_INCOMPLETE);
  EXPECT_EQ(pmt_assembler.add(part(pmt, 10, pmt.size()), model), SECTION_GOOD);
  ASSERT_EQ(model.streams.size(), 1u);
  EXPECT_EQ(model.streams.front().stream_type, STREAM_TYPE_MPEG2_VIDEO);
  EXPECT_EQ(model.streams.front().pid, 0x100);
  EXPECT_TRUE(pmt_assembler.data.empty());

  // CAT with one CA descriptor of 4 bytes.
  Bytes cat = concat({hex("00"), with_crc(hex("01 B0 0F FF FF C1 00 00 09 04 4B 4C E1 23"))});
  SectionAssembler cat_assembler;
  CATSection cat_model;
  EXPECT_EQ(cat_assembler.add(cat, cat_model), SECTION_GOOD);
  ASSERT_EQ(cat_model.descriptors.size(), 1u);
  EXPECT_EQ(cat_model.descriptors.front().tag, CA_DESCRIPTOR_TAG);
  EXPECT_EQ(cat_model.descriptors.front().data, hex("4B 4C E1 23"));
}

}  // namespace
}  // namespace Veldrin::IndexGen
