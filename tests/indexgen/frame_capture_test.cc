#include "indexgen/frame_capture.h"

#include <gtest/gtest.h>

#include "indexgen/generator_harness.h"

namespace Veldrin::IndexGen {
namespace {

using namespace VdxTest;

// ---------------------------------------------------------------------------------------------
// PES headers on the video PID

TEST(FrameCapture, UnreadablePesHeaderIsReportedAndTheRecordStillCaptured) {
  Harness h;
  h.start_mpeg2();
  h.log.clear();
  h.replace_parser([](CapturedPacket&, size_t) {});
  // The header data length runs past the payload: the reader stops after the fixed 9 bytes.
  h.video(0, hex("00 00 01 E0 00 00 80 00 20 AA BB CC"), true);
  h.video(1, hex("00 00 01 E0 00 00 80 00 00 DD"), true);
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "PES header larger than TS packet - likely to fail!");
  EXPECT_EQ(h.log.levels[0], 1);
  EXPECT_EQ(h.log.lines[1], "Could not clear PTS and DTS from PES (PES header larger than TS)");
  EXPECT_EQ(h.log.levels[1], 1);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].pes_header_length, 9u);
  EXPECT_EQ(packets[0].state, PACKET_SKIPPED);
}

TEST(FrameCapture, PesHeaderShorterThanItsFixedPartIsReported) {
  Harness h;
  h.start_mpeg2();
  h.log.clear();
  h.replace_parser([](CapturedPacket&, size_t) {});
  h.video(0, hex("00 00 01 E0 00 00"), true);
  h.video(1, hex("00 00 01 E0 00 00 80 00 00 DD"), true);
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "PES header larger than TS packet - likely to fail!");
  EXPECT_EQ(h.log.lines[1],
            "Could not clear PTS and DTS from PES (payload shorter than min PES header length)");
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  // The bytes that the failed read consumed count as the header.
  EXPECT_EQ(packets[0].pes_header_length, 6u);
  EXPECT_FALSE(packets[0].modified);
}

TEST(FrameCapture, PesHeaderIsReadIntoTheRecord) {
  Harness h;
  h.start_mpeg2();
  h.replace_parser([](CapturedPacket&, size_t) {});
  h.video(0, concat({VdxTest::pes_header(0, 90000, 45000, 2), hex("AA")}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), hex("AA")}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].pes_header_length, 21u);
  EXPECT_EQ(packets[0].pes_header.pts, 1.0);
  EXPECT_EQ(packets[0].pes_header.dts, 0.5);
  EXPECT_EQ(packets[0].pes_header.stuffing_length, 2);
  EXPECT_EQ(packets[0].freed_header_bytes, 10u);
}

// ---------------------------------------------------------------------------------------------
// Frame capture

TEST(FrameCapture, FrameInTheFirstPacketOfAPesPacketKeepsItsHeaderWithTheTimeAsPts) {
  Harness h(true, true);
  h.start_mpeg2();
  // PES A: header with PTS and DTS, junk, sequence header, GOP, picture; then more picture.
  Bytes a1 = concat(
      {VdxTest::pes_header(44, 90000, 81000), hex("AA BB CC"), kSequenceHeader, kGop, kPicture});
  Bytes a2 = hex("11 22 33 44");
  ASSERT_EQ(a1.size() + a2.size() - 6, 44u);
  h.video(7, a1, true);
  h.video(8, a2);
  // PES B opens with the second picture: it ends the frame on the last byte of a2.
  h.video(9, concat({VdxTest::pes_header(0, 93600, 90000), kPicture}), true);

  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(h.writer.order(), "TKK");
  EXPECT_EQ(h.generator.block_count, 1);

  // The junk is gone; stamps replaced by the PTS of the time base, 0.5 s; length 47 - 6.
  Bytes payload = concat({frame_pes_header(41, 45000), kSequenceHeader, kGop, kPicture});
  const CapturedPacket& first = packets[0];
  EXPECT_EQ(first.packet.payload, payload);
  EXPECT_EQ(first.state, PACKET_FRAME);
  EXPECT_TRUE(first.frame_start);
  EXPECT_TRUE(first.modified);
  EXPECT_EQ(first.packet.pcr, 0.5);
  EXPECT_EQ(first.npt, 0.5);
  EXPECT_EQ(first.packet.offset, 4u * 188);
  EXPECT_EQ(first.packet.continuity_counter, 7);
  PacketOptions head = with_pcr(13500000, true);
  head.discontinuity = true;
  const std::string first_data = as_string(ts_packet(kVideoPid, 0, payload, head));
  EXPECT_EQ(first.data, first_data);
  EXPECT_FALSE(first.ends_frame());

  const CapturedPacket& second = packets[1];
  EXPECT_EQ(second.state, PACKET_FRAME);
  EXPECT_FALSE(second.frame_start);
  EXPECT_FALSE(second.modified);
  EXPECT_EQ(second.packet.payload, a2);
  EXPECT_EQ(second.data, as_string(ts_packet(kVideoPid, 1, a2)));
  EXPECT_TRUE(second.ends_frame());

  const std::string tables = pat_packet_for() + pmt_packet_for();
  EXPECT_EQ(h.writer.calls[0].bytes, tables);
  EXPECT_EQ(h.dumped(), tables + first_data + second.data);
}

TEST(FrameCapture, FrameThatBeginsInTheThirdPacketKeepsThePesHeaderInAPacketOfItsOwn) {
  Harness h(true);
  h.start_mpeg2();
  Bytes b1 = concat({VdxTest::pes_header(0, 90000), hex("AA AA AA")});
  Bytes b2 = hex("BB BB BB");
  Bytes b3 = concat({hex("CC"), kSequenceHeader, kPicture, hex("01 02"), kPicture, hex("03")});
  h.video(0, b1, true);
  h.video(1, b2);
  h.video(2, b3);
  h.video(3, concat({VdxTest::pes_header(0, -1), kSlice}), true);

  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 3u);
  // The header only, with its PTS now the frame's time.
  Bytes kept3 = concat({kSequenceHeader, kPicture, hex("01 02")});
  Bytes header = concat({hex("00 00 01 E0"), VdxTest::be16(14 + kept3.size() - 6), hex("80 80 05"),
                         VdxTest::time_stamp(2, 45000)});
  EXPECT_EQ(packets[0].state, PACKET_FRAME);
  EXPECT_TRUE(packets[0].frame_start);
  EXPECT_EQ(packets[0].packet.payload, header);
  PacketOptions head = with_pcr(13500000, true);
  head.discontinuity = true;
  EXPECT_EQ(packets[0].data, as_string(ts_packet(kVideoPid, 0, header, head)));

  EXPECT_EQ(packets[1].state, PACKET_SKIPPED);
  EXPECT_TRUE(packets[1].data.empty());
  EXPECT_EQ(packets[1].packet.payload, b2);

  EXPECT_EQ(packets[2].state, PACKET_FRAME);
  EXPECT_TRUE(packets[2].holds_start);
  EXPECT_TRUE(packets[2].modified);
  EXPECT_EQ(packets[2].packet.payload, kept3);
  EXPECT_EQ(packets[2].data, as_string(ts_packet(kVideoPid, 1, kept3)));
  EXPECT_TRUE(packets[2].ends_frame());
}

TEST(FrameCapture, FrameThatEndsInTheMiddleOfAFullPacketIsCutAndPadded) {
  Harness h(false);
  h.start_mpeg2();
  Bytes first = concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture});
  // A full packet: picture data, the second picture's start code at 100, more behind it.
  Bytes full = concat({repeat(0x55, 100), kPicture, repeat(0x66, 184 - 100 - kPicture.size())});
  ASSERT_EQ(full.size(), 184u);
  h.video(0, first, true);
  h.video(1, full);
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[1].packet.payload, repeat(0x55, 100));
  EXPECT_TRUE(packets[1].modified);
  EXPECT_EQ(packets[1].data, as_string(ts_packet(kVideoPid, 1, repeat(0x55, 100))));
  EXPECT_EQ(packets[1].data.size(), 188u);
  EXPECT_EQ(packets[1].data.substr(4, 2), as_string(hex("53 00")));  // 83 bytes of adaptation
}

TEST(FrameCapture, PesPacketWhollyInsideAFrameLosesOnlyItsStamps) {
  Harness h(true);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, 90000), kSequenceHeader, kPicture, kSlice}), true);
  Bytes inner = concat({VdxTest::pes_header(29 - 6, 93600, 90000), kSlice, hex("77")});
  ASSERT_EQ(inner.size(), 29u);
  h.video(1, inner, true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice, kPicture, kSlice}), true);
  h.video(3, concat({VdxTest::pes_header(0, -1), kSlice}), true);

  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 3u);
  const CapturedPacket& middle = packets[1];
  EXPECT_EQ(middle.state, PACKET_FRAME);
  EXPECT_FALSE(middle.frame_start);
  EXPECT_TRUE(middle.modified);
  EXPECT_EQ(middle.packet.payload, concat({stripped_pes_header(23), kSlice, hex("77")}));
  // Neither tables nor a discontinuity ahead of it; its counter goes on from the frame's start.
  EXPECT_EQ(h.writer.order(), "TKKK");
  EXPECT_EQ(middle.data, as_string(ts_packet(kVideoPid, 1, middle.packet.payload, unit_start())));
  EXPECT_TRUE(packets[2].ends_frame());
}

TEST(FrameCapture, PesLengthOfAHugeFrameIsUnbounded) {
  Harness h(true);
  h.start_mpeg2();
  Bytes first = concat({VdxTest::pes_header(0x1234, -1), kSequenceHeader, kPicture});
  h.video(0, first, true);
  // 357 full packets bring the sum of the payloads to 25 + 65688 bytes.
  for (unsigned i = 1; i <= 357; ++i) h.video(i, repeat(0x44, 184));
  h.video(358, concat({kPicture, hex("55")}));
  h.video(359, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 359u);
  EXPECT_EQ(packets[0].packet.payload[4], 0x00);
  EXPECT_EQ(packets[0].packet.payload[5], 0x00);
  EXPECT_TRUE(packets[357].ends_frame());
  EXPECT_EQ(packets[358].state, PACKET_SKIPPED);
}

TEST(FrameCapture, PesLengthJustFittingIsWritten) {
  Harness h(true);
  h.start_mpeg2();
  // A frame whose kept payloads sum to 65541 bytes: PES_packet_length 0xFFFF.
  Bytes first = concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture});
  const size_t kept_first = first.size() + 5;  // the PTS goes in
  h.video(0, first, true);
  size_t total = kept_first;
  unsigned counter = 1;
  while (total + 184 <= 65541) {
    h.video(counter++, repeat(0x44, 184));
    total += 184;
  }
  const size_t last = 65541 - total;
  h.video(counter++, concat({repeat(0x44, last), kPicture}));
  h.video(counter++, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_FALSE(packets.empty());
  EXPECT_EQ(packets[0].packet.payload[4], 0xFF);
  EXPECT_EQ(packets[0].packet.payload[5], 0xFF);
}

TEST(FrameCapture, GroupOfSkippedRecordsAloneReachesTheWriterWithoutData) {
  Harness h(true, true);
  h.start_mpeg2();
  Bytes lone = concat({VdxTest::pes_header(20, 90000), kSlice});
  h.video(0, lone, true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].state, PACKET_SKIPPED);
  EXPECT_TRUE(packets[0].data.empty());
  EXPECT_TRUE(packets[0].modified);
  // Even its length is set, to unbounded.
  EXPECT_EQ(packets[0].packet.payload, concat({stripped_pes_header(0, 5), kSlice}));
  EXPECT_EQ(h.writer.order(), "K");
  EXPECT_EQ(h.generator.block_count, 0);
  EXPECT_TRUE(h.dumped().empty());
}

TEST(FrameCapture, StreamEndingInsideAFrameNeverDeliversItsLastGroups) {
  Harness h(true, true);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(2, kSlice);
  // The first group is out; the second and its tail stay queued, and nothing is dumped.
  EXPECT_EQ(h.writer.packets().size(), 1u);
  EXPECT_EQ(h.generator.frames.queue.size(), 2u);
  EXPECT_TRUE(h.dumped().empty());
  EXPECT_EQ(h.generator.block_count, 1);
}

TEST(FrameCapture, PacketsAheadOfTheFirstPesStartAreDropped) {
  Harness h(true);
  h.start_mpeg2();
  h.video(0, hex("11 22 33"));
  h.video(1, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].packet.continuity_counter, 1);
}

TEST(FrameCapture, HeldPacketAheadOfTheFirstPesStartBlocksTheQueue) {
  Harness h(true);
  h.start_mpeg2();
  CapturedPacket* held = nullptr;
  h.replace_parser([&held](CapturedPacket& record, size_t index) {
    if (index == 0) {
      record.state = PACKET_HELD;
      held = &record;
    }
    if (index == 4) held->state = PACKET_FREE;
  });
  h.video(0, hex("11 22 33"));
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(3, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  EXPECT_TRUE(h.writer.calls.empty());
  EXPECT_EQ(h.generator.frames.queue.size(), 4u);
  h.video(4, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  // Freed, the packet goes without a word; one group a packet follows.
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].packet.continuity_counter, 1);
  EXPECT_EQ(h.generator.frames.queue.size(), 3u);
}

TEST(FrameCapture, FrameStartInAHeaderWithoutDataGrowsTheHeaderByFiveBytes) {
  Harness h(true);
  h.start_mpeg2();
  Bytes first = concat({hex("00 00 01 E0 00 00 80 00 00"), kSequenceHeader, kPicture});
  h.video(0, first, true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  Bytes expected = concat({hex("00 00 01 E0"), VdxTest::be16(14 + 16 - 6), hex("80 80 05"),
                           VdxTest::time_stamp(2, 45000), kSequenceHeader, kPicture});
  EXPECT_EQ(packets[0].packet.payload, expected);
  EXPECT_EQ(packets[0].pes_header_length, 14u);
  EXPECT_EQ(packets[0].freed_header_bytes, 0u);
}

TEST(FrameCapture, NoPcrAheadOfTheFirstFrameGivesPtsAndPcrZero) {
  Harness h(true);
  h.pat();
  h.pmt();
  Bytes first = concat({VdxTest::pes_header(0, 90000), kSequenceHeader, kPicture});
  h.video(0, first, true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  Bytes payload =
      concat({hex("00 00 01 E0 00 18 80 80 05 21 00 01 00 01"), kSequenceHeader, kPicture});
  EXPECT_EQ(packets[0].packet.payload, payload);
  EXPECT_EQ(packets[0].packet.pcr, 0.0);
  PacketOptions head = with_pcr(0, true);
  head.discontinuity = true;
  EXPECT_EQ(packets[0].data, as_string(ts_packet(kVideoPid, 0, payload, head)));
}

TEST(FrameCapture, SourcePcrOnTheVideoPidIsDroppedFromFramesButCountsForTime) {
  Harness h(true);
  h.start_mpeg2();                                       // time base 0.5 at 1.5 s raw
  PacketOptions options = with_pcr(27000000 * 2, true);  // 2.0 s raw: 1.0
  h.feed(kVideoPid, 0, concat({VdxTest::pes_header(0, -1), kSlice}), options);
  h.feed(kVideoPid, 1, kSlice, with_pcr(27000000 * 2 + 2700000));  // 1.1
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[0].npt, 1.0);
  EXPECT_EQ(packets[0].packet.pcr, -1.0);
  EXPECT_NEAR(packets[1].npt, 1.1, 1e-9);
  EXPECT_EQ(packets[1].packet.pcr, -1.0);
  EXPECT_TRUE(packets[1].modified);
}

TEST(FrameCapture, StartCodeSplitThreeToOneStartsTheFrameInTheEarlierPacket) {
  Harness h(true);
  h.start_mpeg2();
  Bytes first = concat({VdxTest::pes_header(0, 90000), hex("AA 00 00 01")});
  Bytes second = concat({hex("B3 14 00 F0 13"), kPicture, hex("99"), kPicture});
  h.video(0, first, true);
  h.video(1, second);
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 2u);
  Bytes kept = concat({hex("00 00 01 E0"), VdxTest::be16(17 + 14 - 6), hex("80 80 05"),
                       VdxTest::time_stamp(2, 45000), hex("00 00 01")});
  EXPECT_EQ(packets[0].packet.payload, kept);
  EXPECT_TRUE(packets[0].holds_start);
  EXPECT_EQ(packets[1].packet.payload, concat({hex("B3 14 00 F0 13"), kPicture, hex("99")}));
  EXPECT_TRUE(packets[1].ends_frame());
}

TEST(FrameCapture, StartCodeSplitTwoToTwoStartsTheFrameInTheEarlierPacket) {
  Harness h(true);
  h.start_mpeg2();
  Bytes first = concat({VdxTest::pes_header(0, -1), hex("AA BB 00 00")});
  Bytes second = concat({hex("01 B3 14 00"), kPicture, hex("99"), kPicture});
  h.video(0, first, true);
  h.video(1, second);
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 2u);
  // Too short for a PTS: the header keeps none, while the packet carries the time as PCR.
  EXPECT_EQ(packets[0].packet.payload, hex("00 00 01 E0 00 12 80 00 00 00 00"));
  EXPECT_EQ(packets[0].packet.pcr, 0.5);
  EXPECT_EQ(packets[1].packet.payload, concat({hex("01 B3 14 00"), kPicture, hex("99")}));
}

TEST(FrameCapture, EachFrameCountsItsContinuityFromZero) {
  Harness h(false);
  h.start_mpeg2();
  h.video(5, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(6, kSlice);
  h.video(7, concat({VdxTest::pes_header(0, -1), kPicture, kSequenceHeader, kPicture}), true);
  h.video(8, kSlice);
  h.video(9, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 4u);
  EXPECT_EQ(h.generator.block_count, 2);
  auto counter = [](const std::string& data) { return data.at(3) & 0x0F; };
  EXPECT_EQ(counter(packets[0].data), 0);
  EXPECT_EQ(counter(packets[1].data), 1);
  // The second frame's PES packet begins with the end of the first: its header, then the frame.
  EXPECT_TRUE(packets[2].frame_start);
  EXPECT_EQ(counter(packets[2].data), 0);
  EXPECT_EQ(counter(packets[3].data), 1);
  EXPECT_EQ(packets[2].packet.payload,
            concat({hex("00 00 01 E0"), VdxTest::be16(14 + 16 + 9 - 6), hex("80 80 05"),
                    VdxTest::time_stamp(2, 45000), kSequenceHeader, kPicture}));
}

TEST(FrameCapture, DumpWithSeekOnlyWritesNothing) {
  Harness h(true, true, true);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  ASSERT_EQ(h.writer.packets().size(), 1u);
  EXPECT_TRUE(h.writer.packets()[0].ends_frame());
  EXPECT_FALSE(h.writer.packets()[0].data.empty());
  EXPECT_TRUE(h.dumped().empty());
}

TEST(FrameCapture, WithoutDumpNothingIsWritten) {
  Harness h(true, false);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  ASSERT_EQ(h.writer.packets().size(), 1u);
  EXPECT_TRUE(h.dumped().empty());
}

TEST(FrameCapture, TablesGoAheadOfEachFrameInTheirOrder) {
  Harness h(true, true, false, false, false, kCaPid);
  h.pat(3);
  h.feed(1, 0, stuffed(VdxTest::with_pointer(VdxTest::cat_section({}))), unit_start());
  h.pmt(mpeg2_pmt(), 2);
  h.feed(kCaPid, 8, repeat(0x31, 184));
  h.pcr(0);
  const std::string tables =
      pat_packet_for(3) + pmt_packet_for(mpeg2_pmt(), 2) +
      as_string(ts_packet(1, 0, VdxTest::with_pointer(VdxTest::cat_section({})), unit_start())) +
      as_string(ts_packet(kCaPid, 8, repeat(0x31, 184)));
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  ASSERT_EQ(h.writer.order(), "TKTK");
  EXPECT_EQ(h.writer.calls[0].bytes, tables);
  EXPECT_EQ(h.writer.calls[2].bytes, tables);
  std::vector<CapturedPacket> packets = h.writer.packets();
  EXPECT_EQ(h.dumped(), tables + packets[0].data + tables + packets[1].data);
}

// A parser that starts a frame with a preamble in the first packet of every PES packet and ends
// it in the last byte of the same packet.
ScriptedParser::Step preamble_frames(const std::string& preamble) {
  return [preamble](CapturedPacket& record, size_t) {
    if (record.pes_header_length == 0) return;
    record.add_marker(static_cast<int32_t>(record.pes_header_length), false);
    record.holds_start = true;
    record.preamble = preamble;
    record.add_marker(-1, true);
  };
}

std::string preamble_packets(const Bytes& preamble, int64_t seconds, unsigned continuity) {
  Bytes pes = concat({hex("00 00 01 E0"), VdxTest::be16(preamble.size() + 8), hex("80 80 05"),
                      VdxTest::time_stamp(2, static_cast<uint64_t>(seconds) * 90000), preamble});
  PacketOptions first = with_pcr(seconds * 27000000, true);
  first.discontinuity = true;
  std::string out;
  size_t done = 0;
  while (done < pes.size()) {
    size_t take = std::min<size_t>(176, pes.size() - done);
    out += as_string(ts_packet(kVideoPid, continuity++,
                               Bytes(pes.data() + done, pes.data() + done + take),
                               done == 0 ? first : with_pcr(seconds * 27000000)));
    done += take;
  }
  return out;
}

TEST(FrameCapture, PreambleGoesAheadOfTheFrameAndCarriesItsTimeInWholeSeconds) {
  Harness h(true, true);
  h.start_mpeg2();
  h.replace_parser(preamble_frames(as_string(hex("00 00 00 01 67 42 00 1E"))));
  h.pcr(27000000 * 3);             // 2 s after the first PCR
  h.pcr(27000000 * 3 + 13500000);  // 2.5 s
  Bytes first = concat({VdxTest::pes_header(0, 90000), kSlice});
  h.video(0, first, true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);

  ASSERT_EQ(h.writer.order(), "TPK");
  const std::string tables = pat_packet_for() + pmt_packet_for();
  const std::string preamble = preamble_packets(hex("00 00 00 01 67 42 00 1E"), 2, 0);
  EXPECT_EQ(h.writer.calls[0].bytes, tables);
  EXPECT_EQ(h.writer.calls[1].bytes, preamble);
  // The frame has neither PTS nor PCR nor the discontinuity flag; it counts on from the preamble.
  CapturedPacket frame = h.writer.packets()[0];
  Bytes payload = concat({stripped_pes_header(14 + 9 - 6, 5), kSlice});
  EXPECT_EQ(frame.packet.payload, payload);
  EXPECT_EQ(frame.packet.pcr, -1.0);
  EXPECT_FALSE(frame.packet.discontinuity);
  EXPECT_EQ(frame.preamble, as_string(hex("00 00 00 01 67 42 00 1E")));
  EXPECT_EQ(frame.data, as_string(ts_packet(kVideoPid, 1, payload, unit_start())));
  EXPECT_EQ(h.generator.frames.tables, tables + preamble);
  EXPECT_EQ(h.dumped(), tables + preamble + frame.data);
}

TEST(FrameCapture, PtsInsertedIntoAFullPacketSpillsIntoASecondPacket) {
  Harness h(true);
  h.start_mpeg2();
  // A full packet: a PES header without stamps or room for them, then the frame.
  Bytes full = concat(
      {hex("00 00 01 E0 00 00 80 00 00"), kSequenceHeader, kPicture, repeat(0x44, 184 - 9 - 16)});
  ASSERT_EQ(full.size(), 184u);
  h.video(0, full, true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);  // ends it at -1 of full
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 2u);
  Bytes payload = concat({hex("00 00 01 E0"), VdxTest::be16(189 - 6), hex("80 80 05"),
                          VdxTest::time_stamp(2, 45000), kSequenceHeader, kPicture,
                          repeat(0x44, 184 - 9 - 16)});
  ASSERT_EQ(payload.size(), 189u);
  EXPECT_EQ(packets[0].packet.payload, payload);
  EXPECT_TRUE(packets[0].ends_frame());
  // The first packet carries PCR and flags and so 176 bytes; the other 13 follow, padded.
  PacketOptions head = with_pcr(13500000, true);
  head.discontinuity = true;
  EXPECT_EQ(
      packets[0].data,
      as_string(ts_packet(kVideoPid, 0, Bytes(payload.begin(), payload.begin() + 176), head)) +
          as_string(ts_packet(kVideoPid, 1, Bytes(payload.begin() + 176, payload.end()))));
  EXPECT_EQ(h.generator.frames.continuity, 2);
}

TEST(FrameCapture, PreambleOfALaterRecordGoesToTheFirstRecordOfItsPesPacket) {
  Harness h(true);
  h.start_mpeg2();
  h.replace_parser([](CapturedPacket& record, size_t index) {
    if (index != 2) return;
    record.add_marker(1, false);
    record.holds_start = true;
    record.preamble = "PRE";
    record.add_marker(-1, true);
  });
  h.video(0, concat({VdxTest::pes_header(0, 90000), hex("AA AA")}), true);
  h.video(1, hex("BB BB"));
  h.video(2, hex("CC DD EE"));
  h.video(3, concat({VdxTest::pes_header(0, -1), kSlice}), true);

  ASSERT_EQ(h.writer.order(), "TPKKK");
  const std::string preamble = preamble_packets(as_bytes("PRE"), 0, 0);
  EXPECT_EQ(h.writer.calls[1].bytes, preamble);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 3u);
  // The first record carries the header alone, stripped, with no time of its own.
  Bytes header = stripped_pes_header(14 + 2 - 6, 5);
  EXPECT_EQ(packets[0].state, PACKET_FRAME);
  EXPECT_TRUE(packets[0].frame_start);
  EXPECT_FALSE(packets[0].holds_start);
  EXPECT_EQ(packets[0].preamble, "PRE");
  EXPECT_EQ(packets[0].packet.payload, header);
  EXPECT_EQ(packets[0].packet.pcr, -1.0);
  EXPECT_FALSE(packets[0].packet.discontinuity);
  EXPECT_EQ(packets[0].data, as_string(ts_packet(kVideoPid, 1, header, unit_start())));
  EXPECT_EQ(packets[1].state, PACKET_SKIPPED);
  EXPECT_EQ(packets[2].state, PACKET_FRAME);
  EXPECT_EQ(packets[2].packet.payload, hex("DD EE"));
  EXPECT_EQ(packets[2].data, as_string(ts_packet(kVideoPid, 2, hex("DD EE"))));
}

TEST(FrameCapture, LongPreambleRepeatsThePcrInEveryPacket) {
  Harness h(false);
  h.start_mpeg2();
  const std::string long_preamble(300, '\x42');
  h.replace_parser(preamble_frames(long_preamble));
  h.video(0, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  ASSERT_EQ(h.writer.order(), "PK");
  EXPECT_EQ(h.writer.calls[0].bytes, preamble_packets(as_bytes(long_preamble), 0, 0));
  EXPECT_EQ(h.writer.calls[0].bytes.size(), 2u * 188);
  EXPECT_EQ(h.writer.packets()[0].data.at(3) & 0x0F, 2);
}

TEST(FrameCapture, WithoutTablesTheDumpRepeatsEveryPreambleSoFar) {
  Harness h(false, true);
  h.start_mpeg2();
  size_t frames = 0;
  h.replace_parser([&frames](CapturedPacket& record, size_t index) {
    preamble_frames(frames++ == 0 ? "first" : "second")(record, index);
  });
  h.video(0, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  ASSERT_EQ(h.writer.order(), "PKPK");
  const std::string first = preamble_packets(as_bytes("first"), 0, 0);
  const std::string second = preamble_packets(as_bytes("second"), 0, 0);
  EXPECT_EQ(h.writer.calls[0].bytes, first);
  EXPECT_EQ(h.writer.calls[2].bytes, second);
  std::vector<CapturedPacket> packets = h.writer.packets();
  EXPECT_EQ(h.dumped(), first + packets[0].data + first + second + packets[1].data);
}

TEST(FrameCapture, WithTablesEachFrameHasOnlyItsOwnPreamble) {
  Harness h(true, true);
  h.start_mpeg2();
  size_t frames = 0;
  h.replace_parser([&frames](CapturedPacket& record, size_t index) {
    preamble_frames(frames++ == 0 ? "first" : "second")(record, index);
  });
  h.video(0, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  const std::string tables = pat_packet_for() + pmt_packet_for();
  const std::string first = preamble_packets(as_bytes("first"), 0, 0);
  const std::string second = preamble_packets(as_bytes("second"), 0, 0);
  std::vector<CapturedPacket> packets = h.writer.packets();
  EXPECT_EQ(h.dumped(), tables + first + packets[0].data + tables + second + packets[1].data);
}

}  // namespace
}  // namespace Veldrin::IndexGen
