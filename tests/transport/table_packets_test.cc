#include "transport/table_packets.h"

#include <gtest/gtest.h>

#include <string>

#include "foundation/channel/block_writer.h"
#include "foundation/channel/string_writer.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;

// A PAT of program 1 on PID 0x1000, pointer_field first, with its known CRC.
const Bytes kPat = hex("00 00 B0 0D 00 01 C1 00 00 00 01 F0 00 2A B1 04 B2");

Bytes counting(size_t n) {
  Bytes out(n);
  for (size_t i = 0; i < n; i++) out[i] = static_cast<unsigned char>(i);
  return out;
}

Bytes bytes_of(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

Bytes part(const Bytes& bytes, size_t from, size_t to) {
  return Bytes(bytes.begin() + static_cast<std::ptrdiff_t>(from),
               bytes.begin() + static_cast<std::ptrdiff_t>(to));
}

TSPacket input(uint16_t pid, int32_t continuity) {
  TSPacket packet;
  packet.pid = pid;
  packet.continuity_counter = continuity;
  packet.payload = hex("AA BB");  // never written: only the header fields count
  return packet;
}

TEST(TablePackets, ShortSectionIsOnePacketWithUnitStartTheInputCounterAndStuffing) {
  // 17 bytes of section: an adaptation field of 167 bytes, 165 of them stuffing.
  std::string out = table_packets(input(0, 7), kPat);
  EXPECT_EQ(bytes_of(out), concat({hex("47 40 00 37 A6 00"), Bytes(165, 0xFF), kPat}));
}

TEST(TablePackets, EveryPacketOfALongSectionRepeatsUnitStartAndTheCounter) {
  Bytes section = counting(200);
  std::string out = table_packets(input(0x20, 3), section);
  ASSERT_EQ(out.size(), 376u);
  EXPECT_EQ(bytes_of(out.substr(0, 188)), concat({hex("47 40 20 13"), part(section, 0, 184)}));
  // The rest, 16 bytes, behind 168 bytes of adaptation field.
  EXPECT_EQ(bytes_of(out.substr(188)),
            concat({hex("47 40 20 33 A7 00"), Bytes(166, 0xFF), part(section, 184, 200)}));
}

TEST(TablePackets, InputPcrRepeatsOnEveryPacket) {
  TSPacket packet = input(0x20, 0);
  packet.pcr = 1.0;
  std::string out = table_packets(packet, counting(200));
  ASSERT_EQ(out.size(), 376u);
  // 176 bytes and then 24, each behind a field with the PCR of one second.
  EXPECT_EQ(bytes_of(out.substr(0, 12)), hex("47 40 20 30 07 10 00 00 AF C8 7E 00"));
  EXPECT_EQ(bytes_of(out.substr(188, 12)), hex("47 40 20 30 9F 10 00 00 AF C8 7E 00"));
}

TEST(TablePackets, EmptySectionGivesNoPacket) {
  EXPECT_TRUE(table_packets(input(0, 0), Bytes{}).empty());
}

TEST(TablePackets, UnitStartOnTheFirstPacketOnlyIsClearedAfterItIsPassedOn) {
  // The key list shape: the record is its own prototype, and the stages behind see it after
  // each packet, the first time with the flag, then without.
  TSPacket record;
  record.pid = 0x1FFE;
  record.payload_unit_start = true;
  record.payload = counting(200);
  std::string out;
  Korvix::Channel::StringWriter string_writer(out);
  TSWriter writer(string_writer);
  TablePackets cut(record, record.payload.data(), record.payload.size(), UNIT_START_FIRST_PACKET);
  std::vector<bool> seen;
  while (!cut.done()) {
    EXPECT_TRUE(cut.write_next(writer));
    seen.push_back(record.payload_unit_start);
  }
  EXPECT_EQ(seen, (std::vector<bool>{true, false}));
  ASSERT_EQ(out.size(), 376u);
  // Both with continuity counter 0.
  EXPECT_EQ(bytes_of(out.substr(0, 4)), hex("47 5F FE 10"));
  EXPECT_EQ(bytes_of(out.substr(188, 6)), hex("47 1F FE 30 A7 00"));
  EXPECT_EQ(record.payload, counting(200));
}

TEST(TablePackets, WriterThatFailsAtItsFirstByteEndsTheCutAfterOnePacket) {
  TSPacket record;
  record.payload_unit_start = true;
  record.payload = counting(400);
  Korvix::Channel::BlockWriter full(nullptr, 0);
  TSWriter writer(full);
  TablePackets cut(record, record.payload.data(), record.payload.size(), UNIT_START_FIRST_PACKET);
  size_t packets = 0;
  while (!cut.done()) {
    EXPECT_FALSE(cut.write_next(writer));
    ++packets;
  }
  EXPECT_EQ(packets, 1u);
  EXPECT_TRUE(record.payload_unit_start);
}

TEST(TablePackets, WriterThatFailsInsideAPacketGoesOnWithWhatThePacketTook) {
  // Room for the header of the first packet only: its count is known, so the cut moves on.
  Bytes room(5, 0xEE);
  Korvix::Channel::BlockWriter block(room.data(), room.size());
  TSWriter writer(block);
  TSPacket record;
  record.payload = counting(200);
  TablePackets cut(record, record.payload.data(), record.payload.size(), UNIT_START_EVERY_PACKET);
  EXPECT_FALSE(cut.write_next(writer));
  EXPECT_EQ(cut.taken, 184u);
  EXPECT_FALSE(cut.write_next(writer));
  EXPECT_TRUE(cut.done());
}

}  // namespace
}  // namespace Veldrin::IndexGen
