#include "transport/ts_writer.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>

#include "foundation/channel/block_reader.h"
#include "foundation/channel/block_writer.h"
#include "foundation/channel/string_writer.h"
#include "transport/test_bytes.h"
#include "transport/ts_reader.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;

struct Written {
  bool ok;
  Bytes bytes;
  int32_t payload_length;
  int32_t continuity;
};

// Writes one packet of `waiting` payload bytes (counting 0, 1, 2, ...).
Written write_packet(const TSPacket& packet, int32_t waiting, int32_t continuity,
                     size_t room = 400) {
  Bytes data(static_cast<size_t>(waiting > 0 ? waiting : 0));
  for (size_t i = 0; i < data.size(); i++) data[i] = static_cast<unsigned char>(i);
  Bytes buffer(room, 0xEE);
  Korvix::Channel::BlockWriter writer(buffer.data(), buffer.size());
  Written w{false, {}, waiting, continuity};
  w.ok = TSWriter(writer).write_packet(packet, data.data(), w.payload_length, w.continuity);
  buffer.resize(writer.offset);
  w.bytes = buffer;
  return w;
}

Bytes counting(size_t n) {
  Bytes out(n);
  for (size_t i = 0; i < n; i++) out[i] = static_cast<unsigned char>(i);
  return out;
}

Bytes stuffing(size_t n) {
  return Bytes(n, 0xFF);
}

TSPacket on_pid(uint16_t pid) {
  TSPacket packet;
  packet.pid = pid;
  return packet;
}

// A payload of some size on one packet, and the adaptation field that fills the rest.
struct Filling {
  const char* name;
  int32_t waiting;
  int32_t continuity;  // the counter after the packet, from 5
  Bytes bytes;
};

void PrintTo(const Filling& filling, std::ostream* out) {
  *out << filling.name;
}

class TSWriterAdaptation : public ::testing::TestWithParam<Filling> {};

TEST_P(TSWriterAdaptation, FieldFillsWhatThePayloadLeaves) {
  const Filling& filling = GetParam();
  Written w = write_packet(on_pid(0x100), filling.waiting, 5);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.payload_length, filling.waiting);
  EXPECT_EQ(w.continuity, filling.continuity);
  EXPECT_EQ(w.bytes, filling.bytes);
}

INSTANTIATE_TEST_SUITE_P(
    Lengths, TSWriterAdaptation,
    ::testing::Values(
        Filling{"FullPayloadHasNoField", 184, 6, concat({hex("47 01 00 15"), counting(184)})},
        Filling{"PayloadOf183HasAnEmptyField", 183, 6,
                concat({hex("47 01 00 35 00"), counting(183)})},
        Filling{"PayloadOf182HasAFlagsByteAndNoStuffing", 182, 6,
                concat({hex("47 01 00 35 01 00"), counting(182)})},
        Filling{"PayloadOfOneByteIsStuffedWith181Bytes", 1, 6,
                concat({hex("47 01 00 35 B6 00"), stuffing(181), counting(1)})},
        // 0x20 set, 0x10 clear, continuity field 0, and the counter kept.
        Filling{"EmptyPayloadIsAllField", 0, 5, concat({hex("47 01 00 20 B7 00"), stuffing(182)})}),
    [](const ::testing::TestParamInfo<Filling>& info) { return std::string(info.param.name); });

TEST(TSWriter, LongerPayloadIsCutToOnePacket) {
  Written w = write_packet(on_pid(0x100), 300, 5);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.payload_length, 184);
  EXPECT_EQ(w.bytes.size(), 188u);
}

TEST(TSWriter, PcrWith300BytesWaitingCarries176) {
  TSPacket packet = on_pid(0x100);
  packet.pcr = 1.0;
  Written w = write_packet(packet, 300, 0);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.payload_length, 176);
  // 27,000,000 ticks: base 90,000, extension 0.
  EXPECT_EQ(w.bytes, concat({hex("47 01 00 30 07 10 00 00 AF C8 7E 00"), counting(176)}));
}

TEST(TSWriter, PcrBaseLowBitAndExtension) {
  TSPacket packet = on_pid(0x100);
  packet.pcr = 1.0 / 1024.0;  // 26,367 ticks: base 87, extension 267
  Written w = write_packet(packet, 184, 0);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(Bytes(w.bytes.begin(), w.bytes.begin() + 12),
            hex("47 01 00 30 07 10 00 00 00 2B FF 0B"));
}

TEST(TSWriter, PcrBaseIsReducedModuloTwoToThe33LessOne) {
  TSPacket packet = on_pid(0x100);
  packet.pcr = 95444.0;  // base 8,589,960,000, reduced to 25,409
  Written w = write_packet(packet, 184, 0);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(Bytes(w.bytes.begin(), w.bytes.begin() + 12),
            hex("47 01 00 30 07 10 00 00 31 A0 FE 00"));
}

TEST(TSWriter, PcrOfZeroIsWritten) {
  TSPacket packet = on_pid(0x100);
  packet.pcr = 0.0;
  Written w = write_packet(packet, 10, 0);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes,
            concat({hex("47 01 00 30 AD 10 00 00 00 00 7E 00"), stuffing(166), counting(10)}));
}

TEST(TSWriter, FlagsForceAnAdaptationFieldOnAFullPayload) {
  TSPacket packet = on_pid(0x1FFF);
  packet.discontinuity = true;
  packet.random_access = true;
  Written w = write_packet(packet, 184, 15);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.payload_length, 182);
  EXPECT_EQ(w.continuity, 0);
  EXPECT_EQ(w.bytes, concat({hex("47 1F FF 3F 01 C0"), counting(182)}));
}

TEST(TSWriter, StartFlagAndScramblingControlInTheHeader) {
  TSPacket packet = on_pid(0x21);
  packet.payload_unit_start = true;
  packet.scrambling_control = 2;
  Written w = write_packet(packet, 184, 3);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(Bytes(w.bytes.begin(), w.bytes.begin() + 4), hex("47 40 21 93"));
}

TEST(TSWriter, ThePacketsOwnCounterIsNotUsed) {
  TSPacket packet = on_pid(0x100);
  packet.continuity_counter = 9;
  Written w = write_packet(packet, 184, 2);
  ASSERT_TRUE(w.ok);
  EXPECT_EQ(w.bytes[3], 0x12);
  EXPECT_EQ(w.continuity, 3);
}

TEST(TSWriter, WriterTooShortFails) {
  Written w = write_packet(on_pid(0x100), 184, 0, 100);
  EXPECT_FALSE(w.ok);
  EXPECT_EQ(w.bytes, hex("47 01 00 10"));
  Written header_only = write_packet(on_pid(0x100), 1, 0, 3);
  EXPECT_FALSE(header_only.ok);
}

TEST(TSWriter, WrittenPacketReadsBack) {
  TSPacket packet = on_pid(0x0ABC);
  packet.payload_unit_start = true;
  packet.random_access = true;
  packet.scrambling_control = 1;
  packet.pcr = 12.5;
  Written w = write_packet(packet, 50, 7);
  ASSERT_TRUE(w.ok);
  ASSERT_EQ(w.bytes.size(), 188u);
  Korvix::Channel::BlockReader reader(w.bytes.data(), w.bytes.size());
  TSPacket back;
  int32_t payload_length = 0;
  ASSERT_TRUE(TSReader(reader).read_header(back, payload_length));
  EXPECT_EQ(back.pid, 0x0ABC);
  EXPECT_TRUE(back.payload_unit_start);
  EXPECT_TRUE(back.random_access);
  EXPECT_FALSE(back.discontinuity);
  EXPECT_EQ(back.scrambling_control, 1);
  EXPECT_EQ(back.continuity_counter, 7);
  EXPECT_EQ(back.pcr, 12.5);
  EXPECT_EQ(payload_length, 50);
  EXPECT_EQ(reader.offset, 188u - 50u);
}

// ---- One packet as its record stands ----

TEST(TSWriter, RecordGoesOutWithItsOwnHeaderFieldsAndCounter) {
  TSPacket packet;
  packet.pid = 0x1234 & 0x1FFF;
  packet.continuity_counter = 9;
  packet.payload = counting(184);
  std::string out;
  Korvix::Channel::StringWriter string_writer(out);
  EXPECT_TRUE(TSWriter(string_writer).write_record(packet));
  EXPECT_EQ(Bytes(out.begin(), out.end()), concat({hex("47 12 34 19"), counting(184)}));
}

TEST(TSWriter, RecordPayloadBeyondOnePacketIsCutOff) {
  TSPacket packet;
  packet.pid = 0x21;
  packet.payload_unit_start = true;
  packet.pcr = 1.0;
  packet.payload = counting(300);
  std::string out;
  Korvix::Channel::StringWriter string_writer(out);
  EXPECT_TRUE(TSWriter(string_writer).write_record(packet));
  // With the PCR, 176 bytes fit.
  EXPECT_EQ(Bytes(out.begin(), out.end()),
            concat({hex("47 40 21 30 07 10 00 00 AF C8 7E 00"), counting(176)}));
}

// ---- One packet composed in memory ----

Bytes composed(const TSPacket& packet) {
  unsigned char bytes[TS_PACKET_SIZE];
  const size_t size = compose_record(packet, bytes);
  return Bytes(bytes, bytes + size);
}

TEST(TSWriter, ComposedRecordWithAPcrCarries176BytesOfItsPayload) {
  TSPacket packet;
  packet.pid = 0x21;
  packet.payload_unit_start = true;
  packet.pcr = 1.0;
  packet.payload = counting(300);
  EXPECT_EQ(composed(packet), concat({hex("47 40 21 30 07 10 00 00 AF C8 7E 00"), counting(176)}));
}

TEST(TSWriter, ComposedFullRecordIsFourHeaderBytesAndThePayloadCut) {
  TSPacket packet;
  packet.pid = 0x1FFE;
  packet.payload_unit_start = true;
  packet.scrambling_control = 2;
  packet.continuity_counter = 0x1F;  // only the low four bits go out
  packet.payload = counting(200);
  EXPECT_EQ(composed(packet), concat({hex("47 5F FE 9F"), counting(184)}));
  // With random_access the same record needs an adaptation field, which takes two bytes of
  // the payload's room.
  packet.random_access = true;
  EXPECT_EQ(composed(packet), concat({hex("47 5F FE BF 01 40"), counting(182)}));
}

TEST(TSWriter, ComposedRecordOfTenBytesIsStuffedToAWholePacket) {
  TSPacket packet;
  packet.pid = 0x21;
  packet.continuity_counter = 3;
  packet.payload = counting(10);
  EXPECT_EQ(composed(packet),
            concat({hex("47 00 21 33 AD 00"), Bytes(172, 0xFF), counting(10)}));
}

TEST(TSWriter, ComposedRecordWithoutPayloadIsAllAdaptationField) {
  TSPacket packet;
  packet.pid = 0x1FFF;
  packet.continuity_counter = 7;
  EXPECT_EQ(composed(packet), concat({hex("47 1F FF 20 B7 00"), Bytes(182, 0xFF)}));
}

TEST(TSWriter, ComposedRecordIsTheWrittenOneForEveryFlagAndLength) {
  for (int flags = 0; flags < 16; ++flags) {
    for (size_t length = 0; length <= 190; ++length) {
      TSPacket packet;
      packet.pid = 0x101;
      packet.payload_unit_start = (flags & 1) != 0;
      packet.discontinuity = (flags & 2) != 0;
      packet.random_access = (flags & 4) != 0;
      packet.pcr = (flags & 8) != 0 ? 12.345 : -1.0;
      packet.scrambling_control = 2;
      packet.continuity_counter = static_cast<int32_t>(length % 16);
      packet.payload = counting(length);
      std::string out;
      Korvix::Channel::StringWriter string_writer(out);
      ASSERT_TRUE(TSWriter(string_writer).write_record(packet));
      const Bytes written(out.begin(), out.end());
      ASSERT_EQ(written.size(), 188u) << flags << " " << length;
      EXPECT_EQ(composed(packet), written) << flags << " " << length;
    }
  }
}

}  // namespace
}  // namespace Veldrin::IndexGen
