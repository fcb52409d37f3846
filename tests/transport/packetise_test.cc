#include <gtest/gtest.h>

#include "transport/test_bytes.h"
#include "transport/ts_writer.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;

Bytes counting(size_t from, size_t n) {
  Bytes out(n);
  for (size_t i = 0; i < n; i++) out[i] = static_cast<unsigned char>(from + i);
  return out;
}

TSPacket with_payload(size_t n) {
  TSPacket packet;
  packet.pid = 0x100;
  packet.payload = counting(0, n);
  return packet;
}

Bytes as_bytes(const std::string& text) {
  return Bytes(text.begin(), text.end());
}

TEST(Packetise, FourHundredBytesWithStartAndPcrGiveThreePackets) {
  TSPacket packet = with_payload(400);
  packet.payload_unit_start = true;
  packet.pcr = 1.0;
  int32_t continuity = 4;
  Bytes out = as_bytes(packetise(packet, continuity));
  Bytes expected = concat({
      hex("47 41 00 34 07 10 00 00 AF C8 7E 00"), counting(0, 176),  // start, PCR
      hex("47 01 00 15"), counting(176, 184),                        // no adaptation field
      hex("47 01 00 36 8F 00"), Bytes(142, 0xFF), counting(360, 40)  // stuffed
  });
  EXPECT_EQ(out, expected);
  EXPECT_EQ(continuity, 7);
}

TEST(Packetise, RandomAccessStaysOnEveryContinuationPacket) {
  TSPacket packet = with_payload(400);
  packet.random_access = true;
  packet.discontinuity = true;
  int32_t continuity = 0;
  Bytes out = as_bytes(packetise(packet, continuity));
  Bytes expected = concat({
      hex("47 01 00 30 01 C0"), counting(0, 182),                    // both flags
      hex("47 01 00 31 01 40"), counting(182, 182),                  // random_access only
      hex("47 01 00 32 93 40"), Bytes(146, 0xFF), counting(364, 36)  // and stuffed
  });
  EXPECT_EQ(out, expected);
  EXPECT_EQ(continuity, 3);
}

TEST(Packetise, EmptyPayloadGivesNothing) {
  TSPacket packet = with_payload(0);
  packet.pcr = 1.0;
  int32_t continuity = 9;
  EXPECT_EQ(packetise(packet, continuity), "");
  EXPECT_EQ(continuity, 9);
}

TEST(Packetise, CounterWrapsAndIsTheCallers) {
  TSPacket packet = with_payload(184 * 3);
  packet.continuity_counter = 3;
  int32_t continuity = 14;
  Bytes out = as_bytes(packetise(packet, continuity));
  ASSERT_EQ(out.size(), 3u * 188u);
  EXPECT_EQ(out[3], 0x1E);
  EXPECT_EQ(out[188 + 3], 0x1F);
  EXPECT_EQ(out[376 + 3], 0x10);
  EXPECT_EQ(continuity, 1);
}

TEST(Packetise, OneFullPacket) {
  TSPacket packet = with_payload(184);
  int32_t continuity = 0;
  EXPECT_EQ(as_bytes(packetise(packet, continuity)),
            concat({hex("47 01 00 10"), counting(0, 184)}));
}

}  // namespace
}  // namespace Veldrin::IndexGen
