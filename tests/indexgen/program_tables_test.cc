#include "indexgen/program_tables.h"

#include <gtest/gtest.h>

#include "indexgen/generator_harness.h"

namespace Veldrin::IndexGen {
namespace {

using namespace VdxTest;

// ---------------------------------------------------------------------------------------------
// Names of the video types

TEST(ProgramTables, VideoTypeNamesAreFixedTexts) {
  EXPECT_STREQ(video_type_name(VIDEO_UNKNOWN), "Unknown");
  EXPECT_STREQ(video_type_name(VIDEO_MPEG2), "MPEG-2");
  EXPECT_STREQ(video_type_name(VIDEO_H264), "H.264");
  EXPECT_STREQ(video_type_name(3), "Unknown");
  EXPECT_STREQ(video_type_name(-1), "Unknown");
}

// ---------------------------------------------------------------------------------------------
// PAT

TEST(ProgramTables, PatChoosesTheLowestNonZeroProgramAndKeepsAOneProgramPacket) {
  Harness h;
  Bytes section = VdxTest::pat_section(7, {{0, 0x10}, {3, 0x300}, {2, 0x200}}, 4);
  h.feed(0, 9, stuffed(VdxTest::with_pointer(section)), unit_start());
  EXPECT_EQ(h.generator.programs.pmt_pid, 0x200);
  EXPECT_EQ(h.generator.programs.program_number, 2);
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.lines[0], "PMT on PID: 512 (program number: 2)");
  EXPECT_EQ(h.log.levels[0], 2);
  // One program, the transport_stream_id and version of the source, the input's counter.
  Bytes reduced = VdxTest::pat_section(7, {{2, 0x200}}, 4);
  EXPECT_EQ(h.generator.programs.pat_packet,
            as_string(ts_packet(0, 9, VdxTest::with_pointer(reduced), unit_start())));
}

TEST(ProgramTables, PatPacketOfOneProgramHasTheseBytes) {
  Harness h;
  h.feed(0, 0, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x100}}))), unit_start());
  Bytes expected = concat({hex("47 40 00 30 A6 00"), repeat(0xFF, 165),
                           hex("00 00 B0 0D 00 01 C1 00 00 00 01 E1 00"),
                           VdxTest::crc_bytes(hex("00 B0 0D 00 01 C1 00 00 00 01 E1 00"))});
  ASSERT_EQ(expected.size(), 188u);
  EXPECT_EQ(h.generator.programs.pat_packet, as_string(expected));
}

TEST(ProgramTables, PatPacketKeepsThePcrAndFlagsOfTheInputPacket) {
  Harness h;
  PacketOptions options = with_pcr(27000000, false);
  options.discontinuity = true;
  h.feed(0, 3, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}))), options);
  PacketOptions expected_options = with_pcr(27000000, true);
  expected_options.discontinuity = true;
  EXPECT_EQ(
      h.generator.programs.pat_packet,
      as_string(ts_packet(0, 3, VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}})),
                          expected_options)));
}

TEST(ProgramTables, PatThatKeepsThePmtPidChangesNothing) {
  Harness h;
  h.pat(0);
  const std::string first = h.generator.programs.pat_packet;
  h.feed(0, 5, stuffed(VdxTest::with_pointer(VdxTest::pat_section(9, {{4, kPmtPid}}))),
         unit_start());
  EXPECT_EQ(h.generator.programs.pat_packet, first);
  EXPECT_EQ(h.generator.programs.program_number, 1);
  EXPECT_EQ(h.log.lines.size(), 1u);
}

TEST(ProgramTables, PatThatMovesThePmtReplacesThePacketAndLogsAgain) {
  Harness h;
  h.pat(0);
  h.feed(0, 1, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}}))), unit_start());
  EXPECT_EQ(h.generator.programs.pmt_pid, 0x40);
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[1], "PMT on PID: 64 (program number: 1)");
  EXPECT_EQ(h.generator.programs.pat_packet,
            as_string(ts_packet(0, 1, VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}})),
                                unit_start())));
}

TEST(ProgramTables, PatOfNextVersionOnlyIsIgnored) {
  Harness h;
  h.feed(0, 0, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}, 0, false))),
         unit_start());
  EXPECT_EQ(h.generator.programs.pmt_pid, 0);
  EXPECT_TRUE(h.generator.programs.pat_packet.empty());
  EXPECT_TRUE(h.generator.programs.pat_section.data.empty());
  EXPECT_TRUE(h.log.lines.empty());
}

TEST(ProgramTables, PatWithOnlyTheNetworkEntryIsIgnored) {
  Harness h;
  h.feed(0, 0, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{0, 0x10}}))), unit_start());
  EXPECT_EQ(h.generator.programs.pmt_pid, 0);
  EXPECT_TRUE(h.generator.programs.pat_packet.empty());
}

TEST(ProgramTables, PatAcrossTwoPacketsIsGathered) {
  Harness h;
  Bytes payload = VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}));
  h.feed(0, 0, Bytes(payload.begin(), payload.begin() + 10), unit_start());
  EXPECT_EQ(h.generator.programs.pat_section.data.size(), 10u);
  EXPECT_EQ(h.generator.programs.pmt_pid, 0);
  h.feed(0, 1, Bytes(payload.begin() + 10, payload.end()));
  EXPECT_EQ(h.generator.programs.pmt_pid, kPmtPid);
  EXPECT_TRUE(h.generator.programs.pat_section.data.empty());
}

TEST(ProgramTables, PatWithABadCrcIsDroppedAndTheNextOneIsRead) {
  Harness h;
  Bytes payload = VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}));
  Bytes bad = payload;
  bad[bad.size() - 1] ^= 0x01;
  h.feed(0, 0, stuffed(bad), unit_start());
  EXPECT_EQ(h.generator.programs.pmt_pid, 0);
  EXPECT_TRUE(h.generator.programs.pat_section.data.empty());
  EXPECT_TRUE(h.log.lines.empty());
  h.feed(0, 1, stuffed(payload), unit_start());
  EXPECT_EQ(h.generator.programs.pmt_pid, kPmtPid);
}

TEST(ProgramTables, SectionGatheredFromAPacketWithoutUnitStartReadsItsFirstByteAsPointer) {
  Harness h;
  // The tail of some section: its first byte, 0x30, is taken for a pointer_field that runs
  // past the bytes at hand, so the bytes are kept for more.
  h.feed(0, 0, hex("30 11 22 33"));
  EXPECT_EQ(h.generator.programs.pat_section.data, hex("30 11 22 33"));
  EXPECT_EQ(h.generator.programs.pmt_pid, 0);
}

// ---------------------------------------------------------------------------------------------
// PMT

TEST(ProgramTables, LaterPatMovesOnlyThePatPacketOnceVideoIsKnown) {
  Harness h;
  h.pat();
  h.pmt();
  const std::string pmt_packets = h.generator.programs.pmt_packets;
  const Parser* parser = h.generator.parser.get();
  h.feed(0, 1, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}}))), unit_start());
  EXPECT_EQ(h.generator.programs.pmt_pid, 0x40);
  EXPECT_EQ(h.generator.programs.pat_packet,
            as_string(ts_packet(0, 1, VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}})),
                                unit_start())));
  // A PMT on the new PID isn't read: the video stream and the captured PMT stay.
  h.feed(0x40, 0,
         stuffed(VdxTest::with_pointer(VdxTest::pmt_section(1, 0x200, {}, {{27, 0x200, {}}}))),
         unit_start());
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.programs.video_pid, kVideoPid);
  EXPECT_EQ(h.generator.programs.pmt_packets, pmt_packets);
  EXPECT_EQ(h.generator.parser.get(), parser);
  EXPECT_TRUE(h.generator.programs.pmt_section.data.empty());
  ASSERT_EQ(h.log.lines.size(), 3u);
  EXPECT_EQ(h.log.lines[2], "PMT on PID: 64 (program number: 1)");
}

TEST(ProgramTables, VideoAheadOfTheFirstPmtWithVideoIsLost) {
  Harness h;
  h.pat();
  h.pcr(27000000);
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  EXPECT_TRUE(h.generator.frames.queue.empty());
  h.pmt();
  h.video(2, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(3, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].packet.continuity_counter, 2);
  EXPECT_EQ(h.generator.block_count, 1);
}

TEST(ProgramTables, PmtWithMpeg2VideoIsDetectedAndCapturedAsItCame) {
  Harness h;
  h.pat();
  h.pmt(mpeg2_pmt(), 6);
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.programs.video_pid, kVideoPid);
  ASSERT_NE(h.generator.parser, nullptr);
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "PMT on PID: 32 (program number: 1)");
  EXPECT_EQ(h.log.lines[1], "Detected MPEG-2 video stream on PID: 256");
  EXPECT_EQ(h.log.levels[1], 2);
  EXPECT_EQ(h.generator.programs.pmt_packets, pmt_packet_for(mpeg2_pmt(), 6));
}

TEST(ProgramTables, PmtWithABadCrcIsDroppedAndTheNextOneIsRead) {
  Harness h;
  h.pat();
  Bytes payload = VdxTest::with_pointer(mpeg2_pmt());
  payload[payload.size() - 2] ^= 0x80;
  h.feed(kPmtPid, 0, stuffed(payload), unit_start());
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.programs.pmt_section.data.empty());
  EXPECT_TRUE(h.generator.programs.pmt_packets.empty());
  h.pmt();
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
}

TEST(ProgramTables, PmtCutShortWaitsForTheRest) {
  Harness h;
  h.pat();
  Bytes payload = VdxTest::with_pointer(mpeg2_pmt());
  h.feed(kPmtPid, 0, Bytes(payload.begin(), payload.end() - 1), unit_start());
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  EXPECT_EQ(h.generator.programs.pmt_section.data.size(), payload.size() - 1);
  h.feed(kPmtPid, 1, Bytes(payload.end() - 1, payload.end()));
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.programs.pmt_packets, pmt_packet_for(mpeg2_pmt(), 1));
}

TEST(ProgramTables, PmtBeforeThePatIsNotLookedAt) {
  Harness h;
  h.pmt();
  h.pat();
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  h.pmt();
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
}

TEST(ProgramTables, PmtOfAnotherProgramIsIgnored) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(2, kVideoPid, {}, {{2, kVideoPid, {}}}));
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.programs.pmt_section.data.empty());
  EXPECT_TRUE(h.generator.programs.pmt_packets.empty());
}

TEST(ProgramTables, PmtWithoutVideoIsTriedAgainAtTheNextOne) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kAudioPid, {}, {{3, kAudioPid, {}}, {1, 0x300, {}}}));
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.programs.pmt_packets.empty());
  h.pmt();
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
}

TEST(ProgramTables, PmtIsCapturedOnceAndNeverRefreshed) {
  Harness h;
  h.pat();
  h.pmt();
  const std::string captured = h.generator.programs.pmt_packets;
  h.pmt(VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 3));
  EXPECT_EQ(h.generator.programs.pmt_packets, captured);
  EXPECT_TRUE(h.generator.programs.pmt_section.data.empty());
}

TEST(ProgramTables, PmtOfNextVersionIsTakenAsWell) {
  Harness h;
  h.pat();
  Bytes section = VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 0, false);
  h.pmt(section);
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.programs.pmt_packets, pmt_packet_for(section));
}

TEST(ProgramTables, LastVideoStreamOfThePmtWins) {
  Harness h;
  h.pat();
  Bytes section = VdxTest::pmt_section(1, 100, {}, {{2, 100, {}}, {27, 200, {}}, {3, 300, {}}});
  h.pmt(section);
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_H264);
  EXPECT_EQ(h.generator.programs.video_pid, 200);
  EXPECT_EQ(h.log.lines.back(), "Detected H.264 video stream on PID: 200");
  // Without trimming the section stays as read.
  EXPECT_EQ(h.generator.programs.pmt_packets, pmt_packet_for(section));
}

TEST(ProgramTables, TrimmedPmtKeepsTheVideoStreamsWithTheLastAsPcrPid) {
  Harness h(true, false, false, false, true);
  h.pat();
  Bytes info = VdxTest::descriptor(0x05, hex("48 44 4D 56"));
  h.pmt(VdxTest::pmt_section(
      1, 100, info, {{2, 100, VdxTest::descriptor(0x52, hex("01"))}, {27, 200, {}}, {3, 300, {}}},
      4));
  EXPECT_EQ(h.generator.programs.video_pid, 200);
  Bytes trimmed = VdxTest::pmt_section(
      1, 200, info, {{2, 100, VdxTest::descriptor(0x52, hex("01"))}, {27, 200, {}}}, 5);
  EXPECT_EQ(h.generator.programs.pmt_packets, pmt_packet_for(trimmed));
}

TEST(ProgramTables, TrimmedPmtKeepsTheStreamOnTheCaPidAndTheVideoTwiceIfItIsThere) {
  Harness h(true, false, false, false, true, 100);
  h.pat();
  h.pmt(VdxTest::pmt_section(1, 100, {}, {{3, 300, {}}, {2, 100, {}}, {6, 400, {}}}));
  Bytes trimmed = VdxTest::pmt_section(1, 100, {}, {{2, 100, {}}, {2, 100, {}}}, 1);
  EXPECT_EQ(h.generator.programs.pmt_packets, pmt_packet_for(trimmed));
}

TEST(ProgramTables, TrimmedPmtVersionAddsOneWithoutWrappingAtThirtyTwo) {
  Harness h(true, false, false, false, true);
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 31));
  // Version 32 spills into the reserved bits, which are ones already: it reads as version 0.
  Bytes written = VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 0);
  written[5] = 0xC1;
  EXPECT_EQ(h.generator.programs.pmt_packets,
            as_string(ts_packet(kPmtPid, 0, VdxTest::with_pointer(written), unit_start())));
}

TEST(ProgramTables, PmtLongerThanAPacketGivesPacketsThatAllStartAUnitWithOneCounter) {
  Harness h;
  h.pat();
  // Program descriptors of 200 bytes make a section of more than one packet.
  Bytes info;
  for (int i = 0; i < 10; ++i)
    info = concat(
        {info, VdxTest::descriptor(0x80, repeat(static_cast<unsigned char>(0x11 * (i % 10)), 18))});
  Bytes section = VdxTest::pmt_section(1, kVideoPid, info, {{2, kVideoPid, {}}});
  Bytes payload = VdxTest::with_pointer(section);
  ASSERT_GT(payload.size(), 184u);
  h.feed(kPmtPid, 11, Bytes(payload.begin(), payload.begin() + 184), unit_start());
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_UNKNOWN);
  h.feed(kPmtPid, 12, stuffed(Bytes(payload.begin() + 184, payload.end())));
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
  std::string expected =
      as_string(
          ts_packet(kPmtPid, 12, Bytes(payload.begin(), payload.begin() + 184), unit_start())) +
      as_string(ts_packet(kPmtPid, 12, Bytes(payload.begin() + 184, payload.end()), unit_start()));
  EXPECT_EQ(h.generator.programs.pmt_packets, expected);
}

TEST(ProgramTables, CaDescriptorOfTheProgramGivesTheCaPid) {
  Harness h;
  h.pat();
  Bytes info = concat({VdxTest::descriptor(0x09, hex("0B 00 F2")),     // wrong length
                       VdxTest::descriptor(0x09, hex("0B 00 F2 34")),  // CA PID 0x1234
                       VdxTest::descriptor(0x09, hex("0B 01 E0 99"))});
  h.pmt(VdxTest::pmt_section(1, kVideoPid, info, {{2, kVideoPid, {}}}));
  EXPECT_EQ(h.generator.programs.ca_pid, 0x1234);
  ASSERT_EQ(h.log.lines.size(), 3u);
  EXPECT_EQ(h.log.lines[1], "Detected MPEG-2 video stream on PID: 256");
  EXPECT_EQ(h.log.lines[2], "Found CA data for capture on PID: 4660");
}

TEST(ProgramTables, CaDescriptorIsReadEvenFromAPmtWithoutVideo) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kAudioPid, VdxTest::descriptor(0x09, hex("0B 00 E0 77")),
                             {{3, kAudioPid, {}}}));
  EXPECT_EQ(h.generator.programs.ca_pid, 0x77);
  EXPECT_EQ(h.log.lines.back(), "Found CA data for capture on PID: 119");
}

TEST(ProgramTables, CaPidFromTheCommandLineWinsOverTheDescriptor) {
  Harness h(true, false, false, false, false, 0x66);
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kVideoPid, VdxTest::descriptor(0x09, hex("0B 00 E0 77")),
                             {{2, kVideoPid, {}}}));
  EXPECT_EQ(h.generator.programs.ca_pid, 0x66);
  for (const std::string& line : h.log.lines) {
    EXPECT_EQ(line.find("Found CA data"), std::string::npos) << line;
  }
}

TEST(ProgramTables, CaDescriptorOfAStreamIsNotRead) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kVideoPid, {},
                             {{2, kVideoPid, VdxTest::descriptor(0x09, hex("0B 00 E0 77"))}}));
  EXPECT_EQ(h.generator.programs.ca_pid, 0);
}

// ---------------------------------------------------------------------------------------------
// CAT and CA data

TEST(ProgramTables, CatIsAnnouncedForEveryPacketUntilOneIsCaptured) {
  Harness h;
  Bytes payload =
      VdxTest::with_pointer(VdxTest::cat_section(VdxTest::descriptor(0x09, hex("0B 00 E0 77"))));
  h.feed(1, 0, Bytes(payload.begin(), payload.begin() + 5), unit_start());
  EXPECT_TRUE(h.generator.programs.cat_packets.empty());
  h.feed(1, 1, Bytes(payload.begin() + 5, payload.end()));
  h.feed(1, 2, stuffed(payload), unit_start());
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "Found CAT");
  EXPECT_EQ(h.log.lines[1], "Found CAT");
  EXPECT_EQ(h.generator.programs.cat_packets, as_string(ts_packet(1, 2, payload, unit_start())));
}

TEST(ProgramTables, LaterCatReplacesTheCapturedOne) {
  Harness h;
  Bytes first = VdxTest::with_pointer(VdxTest::cat_section({}, 0));
  Bytes second =
      VdxTest::with_pointer(VdxTest::cat_section(VdxTest::descriptor(0x09, hex("0B 00 E0 77")), 1));
  h.feed(1, 0, stuffed(first), unit_start());
  h.feed(1, 1, stuffed(second), unit_start());
  EXPECT_EQ(h.generator.programs.cat_packets, as_string(ts_packet(1, 1, second, unit_start())));
  // A CAT of the next version only doesn't.
  h.feed(1, 2, stuffed(VdxTest::with_pointer(VdxTest::cat_section({}, 2, false))), unit_start());
  EXPECT_EQ(h.generator.programs.cat_packets, as_string(ts_packet(1, 1, second, unit_start())));
  EXPECT_EQ(h.log.lines.size(), 1u);
}

TEST(ProgramTables, CaDataKeepsTheNewestPacketAndAnnouncesTheFirst) {
  Harness h(true, false, false, false, false, kCaPid);
  h.feed(kCaPid, 4, repeat(0x31, 184));
  PacketOptions options;
  options.random_access = true;
  h.feed(kCaPid, 5, repeat(0x32, 100), options);
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.lines[0], "Capturing CA data from PID: 4660");
  EXPECT_EQ(h.generator.programs.ca_packet,
            as_string(ts_packet(kCaPid, 5, repeat(0x32, 100), options)));
}

TEST(ProgramTables, CaDataLongerThanAPacketKeepsWhatOnePacketHoldsAndAShortOneIsStuffed) {
  // A key list record passed on by the encrypting stage carries the whole list.
  Harness h(true, false, false, false, false, kCaPid);
  TSPacket record;
  record.pid = kCaPid;
  record.payload_unit_start = true;
  record.continuity_counter = 0;
  record.payload = repeat(0x5A, 250);
  h.generator.programs.capture_ca(record);
  EXPECT_EQ(h.generator.programs.ca_packet,
            as_string(ts_packet(kCaPid, 0, repeat(0x5A, 184), unit_start())));
  // A shorter one after it: 174 bytes of adaptation field, stuffing to the end.
  record.payload_unit_start = false;
  record.continuity_counter = 3;
  record.payload = repeat(0xA5, 10);
  h.generator.programs.capture_ca(record);
  const std::string& packet = h.generator.programs.ca_packet;
  ASSERT_EQ(packet.size(), 188u);
  EXPECT_EQ(packet.substr(0, 6), std::string("\x47\x12\x34\x33\xAD\x00", 6));
  EXPECT_EQ(packet.substr(6, 172), std::string(172, '\xFF'));
  EXPECT_EQ(packet.substr(178), std::string(10, '\xA5'));
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.lines[0], "Capturing CA data from PID: 4660");
}

TEST(ProgramTables, CaPidOnTheVideoPidHidesTheVideo) {
  Harness h(true, false, false, false, false, kVideoPid);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  EXPECT_TRUE(h.writer.calls.empty());
  EXPECT_EQ(h.generator.programs.video_type, VIDEO_MPEG2);
  EXPECT_FALSE(h.generator.programs.ca_packet.empty());
}

}  // namespace
}  // namespace Veldrin::IndexGen
