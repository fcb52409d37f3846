#include "transport/pipeline.h"

#include <gtest/gtest.h>

#include <stdexcept>

#include "foundation/channel/block_reader.h"
#include "support/log_capture.h"
#include "transport/test_bytes.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;
using Veldrin::Testing::LogCapture;

class Collector : public TSPipe {
 public:
  void process(TSPacket& packet) override { packets.push_back(packet); }
  std::vector<TSPacket> packets;
};

// Throws from its process when it sees the packet at `at`, once.
class FailingStage : public TSPipe {
 public:
  explicit FailingStage(uint64_t at_, bool channel_error_ = true)
      : at(at_), channel_error(channel_error_) {}
  void process(TSPacket& packet) override {
    seen++;
    if (packet.offset == at && !thrown) {
      thrown = true;
      if (channel_error) throw Korvix::Channel::Error(1, "stage failed");
      throw std::runtime_error("other");
    }
  }
  uint64_t at;
  bool channel_error;
  bool thrown = false;
  int seen = 0;
};

// A packet of PID `pid` whose payload is 184 bytes of `fill`.
Bytes plain_packet(uint16_t pid, unsigned char fill = 0xAA, unsigned char cc = 0) {
  return concat(
      {Bytes{0x47, static_cast<unsigned char>(pid >> 8), static_cast<unsigned char>(pid & 0xFF),
             static_cast<unsigned char>(0x10 | cc)},
       Bytes(184, fill)});
}

void feed(TSPipeline& pipeline, const Bytes& bytes) {
  pipeline.read(bytes.data(), static_cast<int32_t>(bytes.size()));
}

TEST(TSPipeline, PacketsAreDeliveredInOrderWithTheirOffsets) {
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  feed(pipeline, concat({plain_packet(0x100), plain_packet(0x101, 0xBB, 1)}));
  ASSERT_EQ(collector.packets.size(), 2u);
  EXPECT_EQ(collector.packets[0].pid, 0x100);
  EXPECT_EQ(collector.packets[0].offset, 0u);
  EXPECT_EQ(collector.packets[0].payload, Bytes(184, 0xAA));
  EXPECT_EQ(collector.packets[0].pcr, -1.0);
  EXPECT_EQ(collector.packets[1].pid, 0x101);
  EXPECT_EQ(collector.packets[1].offset, 188u);
  EXPECT_EQ(collector.packets[1].continuity_counter, 1);
  EXPECT_TRUE(pipeline.buffer.empty());
  EXPECT_EQ(pipeline.offset, 376u);
}

TEST(TSPipeline, OffsetsCountFromTheStartOffset) {
  TSPipeline pipeline(100);
  Collector collector;
  pipeline.attach(&collector);
  feed(pipeline, plain_packet(0x100));
  ASSERT_EQ(collector.packets.size(), 1u);
  EXPECT_EQ(collector.packets[0].offset, 100u);
}

TEST(TSPipeline, EveryStageGetsEveryPacketInOrderOfAttachment) {
  TSPipeline pipeline;
  Collector first;
  Collector second;
  pipeline.attach(&first);
  pipeline.attach(&second);
  feed(pipeline, plain_packet(0x100));
  EXPECT_EQ(first.packets.size(), 1u);
  EXPECT_EQ(second.packets.size(), 1u);
  TSPacket packet;
  packet.pid = 0x77;
  pipeline.process(packet);
  ASSERT_EQ(second.packets.size(), 2u);
  EXPECT_EQ(second.packets[1].pid, 0x77);
}

TEST(TSPipeline, ChunkBoundaryInsideAPacketDeliversItOnTheNextRead) {
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  Bytes stream = concat({plain_packet(0x100), plain_packet(0x101), plain_packet(0x102)});
  pipeline.read(stream.data(), 300);
  ASSERT_EQ(collector.packets.size(), 1u);
  EXPECT_EQ(pipeline.buffer.size(), 112u);
  EXPECT_EQ(pipeline.offset, 188u);
  pipeline.read(stream.data() + 300, static_cast<int32_t>(stream.size() - 300));
  ASSERT_EQ(collector.packets.size(), 3u);
  EXPECT_EQ(collector.packets[1].pid, 0x101);
  EXPECT_EQ(collector.packets[1].offset, 188u);
  EXPECT_EQ(collector.packets[1].payload, Bytes(184, 0xAA));
  EXPECT_EQ(collector.packets[2].offset, 376u);
}

TEST(TSPipeline, ByteByByteFeedingDeliversTheSamePackets) {
  TSPipeline pipeline(5);
  Collector collector;
  pipeline.attach(&collector);
  Bytes stream = concat({plain_packet(0x100), hex("01 02"), plain_packet(0x101)});
  for (unsigned char b : stream) pipeline.read(&b, 1);
  ASSERT_EQ(collector.packets.size(), 2u);
  EXPECT_EQ(collector.packets[0].offset, 5u);
  EXPECT_EQ(collector.packets[1].offset, 5u + 190u);
}

TEST(TSPipeline, StrayBytesBetweenPacketsAreDroppedSilently) {
  LogCapture log;
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  feed(pipeline, concat({plain_packet(0x100), Bytes(10, 0x00), plain_packet(0x101)}));
  ASSERT_EQ(collector.packets.size(), 2u);
  EXPECT_EQ(collector.packets[1].offset, 198u);
  EXPECT_TRUE(log.lines.empty());
}

TEST(TSPipeline, StrayZeroX47IsTakenForAPacketAndTheHuntRecoversAtTheNextSync) {
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  // The stray sync at 1 swallows 188 bytes, over the real sync at 10; the next hunt finds 198.
  Bytes stream =
      concat({hex("00 47 1F FE 10 00 00 00 00 00"), plain_packet(0x100), plain_packet(0x101)});
  feed(pipeline, stream);
  ASSERT_EQ(collector.packets.size(), 2u);
  EXPECT_EQ(collector.packets[0].offset, 1u);
  EXPECT_EQ(collector.packets[0].pid, 0x1FFE);
  EXPECT_EQ(collector.packets[1].offset, 198u);
  EXPECT_EQ(collector.packets[1].pid, 0x101);
}

TEST(TSPipeline, GarbageWithoutSyncIsConsumed) {
  TSPipeline pipeline;
  feed(pipeline, Bytes(50, 0x00));
  EXPECT_TRUE(pipeline.buffer.empty());
  EXPECT_EQ(pipeline.offset, 50u);
}

TEST(TSPipeline, SyncWithFewerThan188BytesBehindItWaits) {
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  Bytes packet = plain_packet(0x100);
  feed(pipeline, concat({Bytes(10, 0x00), Bytes(packet.begin(), packet.begin() + 187)}));
  EXPECT_TRUE(collector.packets.empty());
  EXPECT_EQ(pipeline.offset, 10u);
  EXPECT_EQ(pipeline.buffer.size(), 187u);
  feed(pipeline, Bytes(packet.end() - 1, packet.end()));
  ASSERT_EQ(collector.packets.size(), 1u);
  EXPECT_EQ(collector.packets[0].offset, 10u);
}

TEST(TSPipeline, AdaptationFieldOf183GivesAnEmptyPayloadAndIsDelivered) {
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  feed(pipeline, concat({hex("47 01 00 20 B7 00"), Bytes(182, 0xFF)}));
  ASSERT_EQ(collector.packets.size(), 1u);
  EXPECT_TRUE(collector.packets[0].payload.empty());
}

TEST(TSPipeline, AdaptationFieldOf184LogsBadPayloadSize) {
  LogCapture log;
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  feed(pipeline, concat({hex("47 01 00 30 B8 00"), Bytes(182, 0xFF), plain_packet(0x101),
                         plain_packet(0x102)}));
  ASSERT_EQ(log.lines, std::vector<std::string>{"Bad TS payload size"});
  EXPECT_EQ(log.levels, std::vector<int32_t>{1});
  // The field's skip ran one byte past the next sync byte; the hunt goes on from there and
  // finds the packet after it.
  ASSERT_EQ(collector.packets.size(), 1u);
  EXPECT_EQ(collector.packets[0].pid, 0x102);
  EXPECT_EQ(collector.packets[0].offset, 376u);
}

TEST(TSPipeline, AdaptationFieldOf184AtTheEndOfTheBufferCannotBeRead) {
  LogCapture log;
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  // The field's skip would leave the buffer, so the header itself fails.
  feed(pipeline, concat({hex("47 01 00 30 B8 00"), Bytes(182, 0xFF)}));
  EXPECT_EQ(log.lines, std::vector<std::string>{"Could not read TS header"});
  EXPECT_TRUE(collector.packets.empty());
  EXPECT_TRUE(pipeline.buffer.empty());
  EXPECT_EQ(pipeline.offset, 188u);
}

TEST(TSPipeline, PacketRunningPastTheBufferLogsTruncated) {
  LogCapture log;
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  // A field of 1 byte with the PCR flag: 12 header bytes and 182 of payload, 194 in all.
  feed(pipeline, concat({hex("47 01 00 30 01 10 00 00 AF C8 7E 00"), Bytes(176, 0xEE)}));
  EXPECT_EQ(log.lines, std::vector<std::string>{"TS packet truncated"});
  EXPECT_TRUE(collector.packets.empty());
  // The failed read consumed the rest: nothing is kept.
  EXPECT_TRUE(pipeline.buffer.empty());
}

TEST(TSPipeline, PcrOfZeroReachesTheStages) {
  TSPipeline pipeline;
  Collector collector;
  pipeline.attach(&collector);
  feed(pipeline, concat({hex("47 01 00 30 07 10 00 00 00 00 7E 00"), Bytes(176, 0xEE)}));
  ASSERT_EQ(collector.packets.size(), 1u);
  EXPECT_EQ(collector.packets[0].pcr, 0.0);
  EXPECT_EQ(collector.packets[0].payload.size(), 176u);
}

TEST(TSPipeline, ReadPacketLogsCouldNotReadHeader) {
  LogCapture log;
  TSPipeline pipeline;
  Bytes cut = hex("47 01");
  Korvix::Channel::BlockReader reader(cut.data(), cut.size());
  TSPacket packet;
  EXPECT_FALSE(pipeline.read_packet(reader, packet));
  Bytes wrong = concat({hex("46 01 00 10"), Bytes(184, 0)});
  Korvix::Channel::BlockReader wrong_reader(wrong.data(), wrong.size());
  EXPECT_FALSE(pipeline.read_packet(wrong_reader, packet));
  EXPECT_EQ(log.lines,
            (std::vector<std::string>{"Could not read TS header", "Could not read TS header"}));
  EXPECT_EQ(log.levels, (std::vector<int32_t>{1, 1}));
}

TEST(TSPipeline, ReadPacketLogsTruncatedPayload) {
  LogCapture log;
  TSPipeline pipeline;
  Bytes cut = concat({hex("47 01 00 10"), Bytes(100, 0)});
  Korvix::Channel::BlockReader reader(cut.data(), cut.size());
  TSPacket packet;
  EXPECT_FALSE(pipeline.read_packet(reader, packet));
  EXPECT_EQ(log.lines, std::vector<std::string>{"TS packet truncated"});
}

TEST(TSPipeline, ReadPacketFillsThePayload) {
  LogCapture log;
  TSPipeline pipeline;
  Bytes whole = concat({hex("47 01 00 30 02 40 FF"), Bytes(181, 0x12)});
  Korvix::Channel::BlockReader reader(whole.data(), whole.size());
  TSPacket packet;
  ASSERT_TRUE(pipeline.read_packet(reader, packet));
  EXPECT_TRUE(packet.random_access);
  EXPECT_EQ(packet.payload, Bytes(181, 0x12));
  EXPECT_EQ(reader.offset, 188u);
  EXPECT_TRUE(log.lines.empty());
}

TEST(TSPipeline, ChannelErrorInAStageDefersTheRestOfTheChunk) {
  LogCapture log;
  TSPipeline pipeline;
  FailingStage stage(188);
  Collector collector;
  pipeline.attach(&stage);
  pipeline.attach(&collector);
  feed(pipeline, concat({plain_packet(0x100), plain_packet(0x101), plain_packet(0x102)}));
  EXPECT_EQ(stage.seen, 2);
  ASSERT_EQ(collector.packets.size(), 1u);
  EXPECT_EQ(pipeline.offset, 376u);
  EXPECT_EQ(pipeline.buffer.size(), 188u);
  EXPECT_TRUE(log.lines.empty());
  pipeline.read(nullptr, 0);
  ASSERT_EQ(collector.packets.size(), 2u);
  EXPECT_EQ(collector.packets[1].pid, 0x102);
  EXPECT_EQ(collector.packets[1].offset, 376u);
}

TEST(TSPipeline, OtherExceptionsPassThroughWithBufferAndOffsetUntouched) {
  TSPipeline pipeline(40);
  FailingStage stage(40 + 188, false);
  pipeline.attach(&stage);
  Bytes stream = concat({plain_packet(0x100), plain_packet(0x101), plain_packet(0x102)});
  EXPECT_THROW(feed(pipeline, stream), std::runtime_error);
  EXPECT_EQ(pipeline.offset, 40u);
  EXPECT_EQ(pipeline.buffer, stream);
}

}  // namespace
}  // namespace Veldrin::IndexGen
