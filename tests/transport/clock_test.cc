#include "transport/clock.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/error.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::hex;

Bytes time_stamp(uint8_t prefix, uint64_t ticks) {
  Bytes out(TIME_STAMP_SIZE);
  Korvix::Channel::BlockWriter writer(out.data(), out.size());
  write_time_stamp_ticks(writer, prefix, ticks);
  return out;
}

Bytes time_stamp_of(uint8_t prefix, double seconds) {
  Bytes out(TIME_STAMP_SIZE);
  Korvix::Channel::BlockWriter writer(out.data(), out.size());
  write_time_stamp(writer, prefix, seconds);
  return out;
}

Bytes pcr(uint64_t ticks) {
  Bytes out(PCR_SIZE);
  Korvix::Channel::BlockWriter writer(out.data(), out.size());
  write_pcr_ticks(writer, ticks);
  return out;
}

double read_stamp(const Bytes& bytes) {
  Korvix::Channel::BlockReader reader(bytes.data(), bytes.size());
  return read_time_stamp(reader);
}

double read_pcr_of(const Bytes& bytes) {
  Korvix::Channel::BlockReader reader(bytes.data(), bytes.size());
  return read_pcr(reader);
}

// ---- Seconds and ticks ----

TEST(Clock, OneSecondIsNinetyThousandTimeStampTicksAndTwentySevenMillionPcrTicks) {
  EXPECT_EQ(to_ticks(1.0, TIME_STAMP_CLOCK), 90000u);
  EXPECT_EQ(to_ticks(1.0, PCR_CLOCK), 27000000u);
  EXPECT_EQ(to_seconds(90000, TIME_STAMP_CLOCK), 1.0);
  EXPECT_EQ(to_seconds(13500000, PCR_CLOCK), 0.5);
}

TEST(Clock, TicksAreTruncated) {
  // 2.75 ticks of 90 kHz.
  EXPECT_EQ(to_ticks(2.75 / 90000.0, TIME_STAMP_CLOCK), 2u);
  EXPECT_EQ(to_ticks(0.0, TIME_STAMP_CLOCK), 0u);
}

TEST(Clock, NegativeNotANumberAndHugeValuesGiveZeroTicks) {
  EXPECT_EQ(to_ticks(-1.0, TIME_STAMP_CLOCK), 0u);
  EXPECT_EQ(to_ticks(std::nan(""), PCR_CLOCK), 0u);
  EXPECT_EQ(to_ticks(std::numeric_limits<double>::infinity(), PCR_CLOCK), 0u);
  EXPECT_EQ(to_ticks(1e30, TIME_STAMP_CLOCK), 0u);
}

// ---- PTS and DTS ----

TEST(Clock, PtsOfOneSecondIsCodedAsNinetyThousandTicks) {
  // 90000 = 0x15F90: bits 32..30 are 0; bits 29..15 are 2; bits 14..0 are 0x5F90.
  EXPECT_EQ(time_stamp_of(PREFIX_PTS_ONLY, 1.0), hex("21 00 05 BF 21"));
  EXPECT_EQ(read_stamp(hex("21 00 05 BF 21")), 1.0);
}

TEST(Clock, ZeroTicksAreThePrefixAndTheMarkerBitsAlone) {
  EXPECT_EQ(time_stamp(PREFIX_PTS_ONLY, 0), hex("21 00 01 00 01"));
  EXPECT_EQ(time_stamp(PREFIX_PTS_WITH_DTS, 0), hex("31 00 01 00 01"));
  EXPECT_EQ(time_stamp(PREFIX_DTS, 0), hex("11 00 01 00 01"));
  EXPECT_EQ(read_stamp(hex("21 00 01 00 01")), 0.0);
}

TEST(Clock, AllThirtyThreeBitsSetFillEveryValueBit) {
  EXPECT_EQ(time_stamp(PREFIX_PTS_ONLY, 0x1FFFFFFFF), hex("2F FF FF FF FF"));
  EXPECT_EQ(read_stamp(hex("2F FF FF FF FF")), 8589934591.0 / 90000.0);
}

TEST(Clock, TicksBeyondThirtyThreeBitsWrapInTheCoding) {
  EXPECT_EQ(time_stamp(PREFIX_PTS_ONLY, 0x200000000), hex("21 00 01 00 01"));
  EXPECT_EQ(time_stamp(PREFIX_PTS_ONLY, 0x200000000 + 90000), hex("21 00 05 BF 21"));
}

TEST(Clock, ReadingLooksAtNeitherThePrefixNorTheMarkerBits) {
  // The twin of 21 00 05 BF 21 with prefix and marker bits cleared reads the same.
  EXPECT_EQ(read_stamp(hex("00 00 04 BF 20")), 1.0);
  EXPECT_EQ(read_stamp(hex("F1 00 05 BF 21")), 1.0);
}

TEST(Clock, TimeStampCutShortThrowsTheChannelError) {
  EXPECT_THROW(read_stamp(hex("21 00 05 BF")), Korvix::Channel::Error);
  Bytes room(4);
  Korvix::Channel::BlockWriter writer(room.data(), room.size());
  EXPECT_THROW(write_time_stamp(writer, PREFIX_PTS_ONLY, 1.0), Korvix::Channel::Error);
}

// ---- PCR ----

TEST(Clock, PcrOfOneSecondIsABaseOfNinetyThousandAndNoExtension) {
  // Base 90000: its top 32 bits 45000 = 0xAFC8, its low bit 0; reserved bits 0x7E00.
  EXPECT_EQ(pcr(27000000), hex("00 00 AF C8 7E 00"));
  Bytes written(PCR_SIZE);
  Korvix::Channel::BlockWriter writer(written.data(), written.size());
  write_pcr(writer, 1.0);
  EXPECT_EQ(written, hex("00 00 AF C8 7E 00"));
  EXPECT_EQ(read_pcr_of(hex("00 00 AF C8 7E 00")), 1.0);
}

TEST(Clock, PcrExtensionCountsTheTicksBetweenBaseTicks) {
  // 27000299 ticks: base 90000, extension 299 = 0x12B.
  EXPECT_EQ(pcr(27000299), hex("00 00 AF C8 7F 2B"));
  EXPECT_EQ(read_pcr_of(hex("00 00 AF C8 7F 2B")), 27000299.0 / 27000000.0);
}

TEST(Clock, PcrBaseLowBitStandsInTheTopBitOfTheLastWord) {
  // Base 90001: 45000 and a low bit of 1.
  EXPECT_EQ(pcr(90001 * 300), hex("00 00 AF C8 FE 00"));
  EXPECT_EQ(read_pcr_of(hex("00 00 AF C8 FE 00")), 90001.0 * 300.0 / 27000000.0);
}

TEST(Clock, PcrBaseIsReducedModuloTwoToTheThirtyThreeLessOne) {
  // 2^33 - 1 reduces to 0, and 2^33 to 1: a modulus of 2^33 would give 2^33 - 1 and 0.
  EXPECT_EQ(pcr(0x1FFFFFFFFull * 300), hex("00 00 00 00 7E 00"));
  EXPECT_EQ(pcr(0x200000000ull * 300), hex("00 00 00 00 FE 00"));
  EXPECT_EQ(pcr(0x1FFFFFFFEull * 300 + 7), hex("FF FF FF FF 7E 07"));
}

TEST(Clock, PcrReadingIgnoresTheReservedBits) {
  EXPECT_EQ(read_pcr_of(hex("00 00 AF C8 00 00")), 1.0);
}

TEST(Clock, PcrCutShortThrowsTheChannelError) {
  EXPECT_THROW(read_pcr_of(hex("00 00 AF C8 7E")), Korvix::Channel::Error);
}

}  // namespace
}  // namespace Veldrin::IndexGen
