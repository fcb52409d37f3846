#include <gtest/gtest.h>

#include <climits>
#include <functional>
#include <sstream>

#include "indexgen/generator.h"
#include "indexgen/recording_writer.h"
#include "indexgen/stream_builder.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::as_bytes;
using VdxTest::as_string;
using VdxTest::Bytes;
using VdxTest::concat;
using VdxTest::hex;
using VdxTest::PacketOptions;
using VdxTest::RecordingWriter;
using VdxTest::repeat;
using VdxTest::ts_packet;

constexpr uint16_t kPmtPid = 0x20;
constexpr uint16_t kVideoPid = 0x100;
constexpr uint16_t kAudioPid = 0x101;
constexpr uint16_t kPcrPid = 0x1FF;
constexpr uint16_t kCaPid = 0x1234 & 0x1FFF;

PacketOptions unit_start() {
  PacketOptions options;
  options.payload_unit_start = true;
  return options;
}

PacketOptions with_pcr(int64_t ticks_27mhz, bool start = false) {
  PacketOptions options;
  options.pcr_27mhz = ticks_27mhz;
  options.payload_unit_start = start;
  return options;
}

// A section payload as it stands in a packet: stuffed up to 184 bytes.
Bytes stuffed(const Bytes& payload) {
  return payload.size() >= 184 ? payload : concat({payload, repeat(0xFF, 184 - payload.size())});
}

Bytes pat_payload(uint16_t pmt_pid = kPmtPid) {
  return stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, pmt_pid}})));
}

Bytes mpeg2_pmt(const Bytes& program_info = {}, uint32_t pcr_pid = kVideoPid) {
  return VdxTest::pmt_section(
      1, pcr_pid, program_info,
      {{2, kVideoPid, {}}, {3, kAudioPid, VdxTest::descriptor(0x0A, hex("65 6E 67 00"))}});
}

// Elementary stream pieces, free of start code prefixes inside.
const Bytes kSequenceHeader = hex("00 00 01 B3 14 00 F0 13");
const Bytes kGop = hex("00 00 01 B8 00 08 00 40");
const Bytes kPicture = hex("00 00 01 00 00 0F FF F8");
const Bytes kSlice = hex("00 00 01 01 12 34 56 78 9A");

// The PES header that frame capture gives a frame: stamps gone, the PTS of the time inserted,
// the rest of the header data stuffing.
Bytes frame_pes_header(uint32_t length, uint64_t pts_ticks, size_t header_data = 10) {
  return concat({hex("00 00 01 E0"), VdxTest::be16(length), hex("80 80"),
                 Bytes{static_cast<unsigned char>(header_data)}, VdxTest::time_stamp(2, pts_ticks),
                 repeat(0xFF, header_data - 5)});
}

// The PES header that stripping leaves without a PTS: the flags cleared, the data all stuffing.
Bytes stripped_pes_header(uint32_t length, size_t header_data = 10) {
  return concat({hex("00 00 01 E0"), VdxTest::be16(length), hex("80 00"),
                 Bytes{static_cast<unsigned char>(header_data)}, repeat(0xFF, header_data)});
}

// A parser whose behaviour the test gives, per record in order.
class ScriptedParser : public Parser {
 public:
  using Step = std::function<void(CapturedPacket&, size_t)>;
  explicit ScriptedParser(Step step_) : step(std::move(step_)) {}
  void parse(CapturedPacket& packet) override { step(packet, count++); }
  Step step;
  size_t count = 0;
};

struct Harness {
  explicit Harness(bool include_tables = true, bool dump = false, bool seek_only = false,
                   bool pcr_only = false, bool trim_pmt = false, uint16_t ca_pid = 0)
      : generator(&writer, include_tables, dump, seek_only, pcr_only, trim_pmt, ca_pid, out) {}

  void feed(uint32_t pid, unsigned continuity, const Bytes& payload,
            const PacketOptions& options = {}) {
    TSPacket packet = VdxTest::packet_record(pid, continuity, payload, offset, options);
    offset += 188;
    generator.process(packet);
  }
  void pcr(int64_t ticks_27mhz) { feed(kPcrPid, 0, {}, with_pcr(ticks_27mhz)); }
  void pat(unsigned continuity = 0) { feed(0, continuity, pat_payload(), unit_start()); }
  void pmt(const Bytes& section = mpeg2_pmt(), unsigned continuity = 0) {
    feed(kPmtPid, continuity, stuffed(VdxTest::with_pointer(section)), unit_start());
  }
  // PAT, PMT, then PCRs at 1.0 and 1.5 seconds: the time base stands at 0.5.
  void start_mpeg2() {
    pat();
    pmt();
    pcr(27000000);
    pcr(40500000);
  }
  void video(unsigned continuity, const Bytes& payload, bool start = false) {
    feed(kVideoPid, continuity, payload, start ? unit_start() : PacketOptions{});
  }
  void replace_parser(ScriptedParser::Step step) {
    delete generator.parser;
    generator.parser = new ScriptedParser(std::move(step));
  }
  std::string dumped() const { return out.str(); }

  VdxTest::LogCapture log;
  RecordingWriter writer;
  std::ostringstream out;
  IndexGenerator generator;
  uint64_t offset = 0;
};

std::string pat_packet_for(unsigned continuity = 0) {
  return as_string(ts_packet(
      0, continuity, VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}})), unit_start()));
}

std::string pmt_packet_for(const Bytes& section = mpeg2_pmt(), unsigned continuity = 0) {
  return as_string(ts_packet(kPmtPid, continuity, VdxTest::with_pointer(section), unit_start()));
}

// ---------------------------------------------------------------------------------------------
// Names of the video types

TEST(IndexGenerator, VideoTypeNamesAreFixedTexts) {
  EXPECT_STREQ(video_type_name(VIDEO_UNKNOWN), "Unknown");
  EXPECT_STREQ(video_type_name(VIDEO_MPEG2), "MPEG-2");
  EXPECT_STREQ(video_type_name(VIDEO_H264), "H.264");
  EXPECT_STREQ(video_type_name(3), "Unknown");
  EXPECT_STREQ(video_type_name(-1), "Unknown");
}

TEST(IndexGenerator, NewGeneratorStartsWithoutTimeOrRates) {
  Harness h(true, false, false, false, false, 0x55);
  EXPECT_EQ(h.generator.first_pcr, -1.0);
  EXPECT_EQ(h.generator.duration, -1.0);
  EXPECT_EQ(h.generator.first_offset, 0u);
  EXPECT_EQ(h.generator.last_offset, 0u);
  EXPECT_EQ(h.generator.min_rate, 2147483647);
  EXPECT_EQ(h.generator.max_rate, 0);
  EXPECT_EQ(h.generator.block_count, 0);
  EXPECT_EQ(h.generator.ca_pid, 0x55);
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  EXPECT_EQ(h.generator.parser, nullptr);
}

// ---------------------------------------------------------------------------------------------
// Time and rate

TEST(IndexGenerator, FirstPcrSetsTheTimeBaseWithoutARate) {
  Harness h;
  h.offset = 1000;
  h.pcr(27000000);
  EXPECT_EQ(h.generator.first_pcr, 1.0);
  EXPECT_EQ(h.generator.duration, 0.0);
  EXPECT_EQ(h.generator.first_offset, 1000u);
  EXPECT_EQ(h.generator.last_offset, 1000u);
  EXPECT_EQ(h.generator.min_rate, 2147483647);
  EXPECT_EQ(h.generator.max_rate, 0);
  EXPECT_TRUE(h.log.lines.empty());
}

TEST(IndexGenerator, RateIsTheBitsSinceTheLastPcrOverItsDistance) {
  Harness h;
  h.pcr(27000000);                  // offset 0, 1.0 s
  h.feed(0x30, 0, repeat(0, 184));  // offset 188
  h.pcr(27000000 + 13500000);       // offset 376, 1.5 s: 376 * 8 bits in 0.5 s
  EXPECT_EQ(h.generator.duration, 0.5);
  EXPECT_EQ(h.generator.last_offset, 376u);
  EXPECT_EQ(h.generator.min_rate, 6016);
  EXPECT_EQ(h.generator.max_rate, 6016);
  h.pcr(27000000 + 13500000 + 6750000);  // offset 564, 1.75 s: 188 * 8 bits in 0.25 s
  EXPECT_EQ(h.generator.duration, 0.75);
  EXPECT_EQ(h.generator.min_rate, 6016);
  EXPECT_EQ(h.generator.max_rate, 6016);
  h.pcr(27000000 + 13500000 + 6750000 + 27000000);  // 188 * 8 bits in 1 s
  EXPECT_EQ(h.generator.min_rate, 1504);
  EXPECT_EQ(h.generator.max_rate, 6016);
  EXPECT_TRUE(h.log.lines.empty());
}

TEST(IndexGenerator, PcrCloserThanTenMillisecondsIsAGapAndKeepsTheTimeBase) {
  Harness h;
  h.pcr(27000000);           // 1.0 s at offset 0
  h.pcr(27000000 + 105469);  // 3.9 ms later at offset 188
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.levels[0], 2);
  EXPECT_EQ(h.log.lines[0], "PCR gap of 0.00390626 after 0 ignored for rate calculation");
  EXPECT_EQ(h.generator.duration, 0.0);
  EXPECT_EQ(h.generator.last_offset, 0u);
  EXPECT_EQ(h.generator.max_rate, 0);
  // 15.625 ms after the first: measured over all of it, from the bytes since the first.
  h.pcr(27000000 + 421875);  // offset 376
  EXPECT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.generator.duration, 0.015625);
  EXPECT_EQ(h.generator.last_offset, 376u);
  EXPECT_EQ(h.generator.max_rate, 192512);  // 3008 bits / 0.015625 s
  EXPECT_EQ(h.generator.min_rate, 192512);
}

TEST(IndexGenerator, PcrExactlyTenMillisecondsLaterIsMeasured) {
  Harness h;
  h.pcr(0);
  h.pcr(270000);  // 0.01 s
  EXPECT_TRUE(h.log.lines.empty());
  EXPECT_EQ(h.generator.duration, 0.01);
  EXPECT_EQ(h.generator.max_rate, 150400);
}

TEST(IndexGenerator, PcrTenSecondsLaterIsMeasuredAndAnyFurtherIsAGap) {
  Harness h;
  h.pcr(0);
  h.pcr(270000000);  // exactly 10 s later
  EXPECT_TRUE(h.log.lines.empty());
  EXPECT_EQ(h.generator.duration, 10.0);
  EXPECT_EQ(h.generator.max_rate, 150);  // 1504 bits in 10 s
  h.pcr(270000000 + 270000001);          // one tick more than 10 s
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.lines[0], "PCR gap of 10 after 10 ignored for rate calculation");
  EXPECT_EQ(h.generator.duration, 10.0);
  EXPECT_EQ(h.generator.last_offset, 188u);
}

TEST(IndexGenerator, EqualPcrIsReportedAsAGap) {
  Harness h;
  h.pcr(27000000);
  h.pcr(27000000);
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.lines[0], "PCR gap of 0 after 0 ignored for rate calculation");
}

TEST(IndexGenerator, PcrJumpOfTwentySecondsFreezesTheTimeBase) {
  Harness h;
  h.pcr(27000000);                  // 1 s
  h.pcr(27000000 * 2);              // 2 s: accepted, duration 1
  h.pcr(27000000 * 22);             // 22 s: 20 s jump
  h.pcr(27000000 * 22 + 13500000);  // 22.5 s
  h.pcr(27000000 * 10);             // 10 s: within 10 s of the old time base again
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "PCR gap of 20 after 1 ignored for rate calculation");
  EXPECT_EQ(h.log.lines[1], "PCR gap of 20.5 after 1 ignored for rate calculation");
  EXPECT_EQ(h.generator.duration, 9.0);
  EXPECT_EQ(h.generator.last_offset, 4u * 188);
}

TEST(IndexGenerator, PacketsCarryTheTimeOfTheLastAcceptedPcr) {
  Harness h;
  h.start_mpeg2();       // time base 0.5
  h.pcr(27000000 * 40);  // a jump: ignored
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_FALSE(packets.empty());
  for (const CapturedPacket& packet : packets) EXPECT_EQ(packet.npt, 0.5);
}

TEST(IndexGenerator, PcrWrapBelowTheFirstPcrIsCorrectedOnce) {
  Harness h;
  // First PCR 5 s below the top of the 33-bit clock; the next, 1 s after the wrap.
  const int64_t top = (int64_t{1} << 33) * 300;
  h.pcr(top - 27000000LL * 5);
  h.pcr(27000000);
  EXPECT_TRUE(h.log.lines.empty());
  // The period taken is 95443.71765555555 s, a little short of 2^33 / 90000.
  const double first = static_cast<double>(top - 27000000LL * 5) / 27000000.0;
  EXPECT_EQ(h.generator.duration, 1.0 - first + 95443.71765555555);
  EXPECT_NEAR(h.generator.duration, 6.0, 1e-4);
  EXPECT_GT(h.generator.max_rate, 0);
}

TEST(IndexGenerator, PcrWrapIsCorrectedInTheDistanceEvenWhenTheTimeIsNot) {
  Harness h;
  // Walk the time base up in steps of 9.5 s until it stands beyond half the clock period.
  int64_t ticks = 0;
  h.pcr(ticks);
  const int64_t step = 27000000LL * 19 / 2;
  while (h.generator.duration < 95430.0) {
    ticks += step;
    h.pcr(ticks);
  }
  ASSERT_TRUE(h.log.lines.empty());
  const double before = h.generator.duration;
  // A PCR that wrapped: raw 2 s. Its elapsed time (2 s) is not corrected, being above the
  // first PCR; its distance to the time base is, and lands within the 10 s.
  h.pcr(27000000LL * 2);
  ASSERT_LT(2.0 - before + 95443.71765555555, 10.0);
  EXPECT_TRUE(h.log.lines.empty());
  EXPECT_EQ(h.generator.duration, 2.0);
}

TEST(IndexGenerator, RateBeyondThirtyTwoBitsIsTheLowestValue) {
  Harness h;
  h.pcr(27000000);
  h.offset = uint64_t{1} << 40;
  h.pcr(27000000 + 13500000);
  EXPECT_EQ(h.generator.min_rate, INT32_MIN);
  EXPECT_EQ(h.generator.max_rate, 0);
}

TEST(IndexGenerator, OffsetGoingBackGivesTheLowestRate) {
  Harness h;
  h.offset = 10000;
  h.pcr(27000000);
  h.offset = 188;
  h.pcr(27000000 + 13500000);
  EXPECT_EQ(h.generator.min_rate, INT32_MIN);
  EXPECT_EQ(h.generator.last_offset, 188u);
}

TEST(IndexGenerator, NoPcrLeavesTimeAndRatesAtTheirStart) {
  Harness h;
  h.pat();
  h.pmt();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  EXPECT_EQ(h.generator.duration, -1.0);
  EXPECT_EQ(h.generator.first_offset, 0u);
  EXPECT_EQ(h.generator.last_offset, 0u);
  EXPECT_EQ(h.generator.min_rate, 2147483647);
  EXPECT_EQ(h.generator.max_rate, 0);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_FALSE(packets.empty());
  for (const CapturedPacket& packet : packets) EXPECT_EQ(packet.npt, 0.0);
}

TEST(IndexGenerator, PcrOnlyWritesEachAcceptedPcrButNotTheFirst) {
  Harness h(true, false, true, true);
  h.pcr(27000000);                // offset 0: the first, nothing written
  h.pcr(27000000 + 13500000);     // offset 188: accepted
  h.pcr(27000000 + 13500001);     // offset 376: a gap
  h.pcr(27000000 * 2 + 6750000);  // offset 564: accepted, 1.25 s
  ASSERT_EQ(h.writer.calls.size(), 2u);
  EXPECT_EQ(h.writer.order(), "CC");
  EXPECT_EQ(h.writer.calls[0].offset, 188u);
  EXPECT_EQ(h.writer.calls[0].npt, 0.5);
  EXPECT_EQ(h.writer.calls[1].offset, 564u);
  EXPECT_EQ(h.writer.calls[1].npt, 1.25);
  EXPECT_EQ(h.generator.block_count, 2);
  ASSERT_EQ(h.log.lines.size(), 3u);
  EXPECT_EQ(h.log.lines[0], "Captured PCR value 0.5 at offset 188");
  EXPECT_EQ(h.log.levels[0], 3);
  EXPECT_EQ(h.log.lines[1], "PCR gap of 3.7037e-08 after 0.5 ignored for rate calculation");
  EXPECT_EQ(h.log.lines[2], "Captured PCR value 1.25 at offset 564");
}

TEST(IndexGenerator, PcrOnlyDoesNoTableOrVideoWork) {
  Harness h(true, false, true, true);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  EXPECT_EQ(h.generator.pmt_pid, 0);
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.pat_packet.empty());
  EXPECT_EQ(h.writer.order(), "C");
  EXPECT_EQ(h.generator.block_count, 1);
}

// ---------------------------------------------------------------------------------------------
// PAT

TEST(IndexGenerator, PatChoosesTheLowestNonZeroProgramAndKeepsAOneProgramPacket) {
  Harness h;
  Bytes section = VdxTest::pat_section(7, {{0, 0x10}, {3, 0x300}, {2, 0x200}}, 4);
  h.feed(0, 9, stuffed(VdxTest::with_pointer(section)), unit_start());
  EXPECT_EQ(h.generator.pmt_pid, 0x200);
  EXPECT_EQ(h.generator.program_number, 2);
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.lines[0], "PMT on PID: 512 (program number: 2)");
  EXPECT_EQ(h.log.levels[0], 2);
  // One program, the transport_stream_id and version of the source, the input's counter.
  Bytes reduced = VdxTest::pat_section(7, {{2, 0x200}}, 4);
  EXPECT_EQ(h.generator.pat_packet,
            as_string(ts_packet(0, 9, VdxTest::with_pointer(reduced), unit_start())));
}

TEST(IndexGenerator, PatPacketOfOneProgramHasTheseBytes) {
  Harness h;
  h.feed(0, 0, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x100}}))), unit_start());
  Bytes expected = concat({hex("47 40 00 30 A6 00"), repeat(0xFF, 165),
                           hex("00 00 B0 0D 00 01 C1 00 00 00 01 E1 00"),
                           VdxTest::crc_bytes(hex("00 B0 0D 00 01 C1 00 00 00 01 E1 00"))});
  ASSERT_EQ(expected.size(), 188u);
  EXPECT_EQ(h.generator.pat_packet, as_string(expected));
}

TEST(IndexGenerator, PatPacketKeepsThePcrAndFlagsOfTheInputPacket) {
  Harness h;
  PacketOptions options = with_pcr(27000000, false);
  options.discontinuity = true;
  h.feed(0, 3, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}))), options);
  PacketOptions expected_options = with_pcr(27000000, true);
  expected_options.discontinuity = true;
  EXPECT_EQ(
      h.generator.pat_packet,
      as_string(ts_packet(0, 3, VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}})),
                          expected_options)));
}

TEST(IndexGenerator, PatThatKeepsThePmtPidChangesNothing) {
  Harness h;
  h.pat(0);
  const std::string first = h.generator.pat_packet;
  h.feed(0, 5, stuffed(VdxTest::with_pointer(VdxTest::pat_section(9, {{4, kPmtPid}}))),
         unit_start());
  EXPECT_EQ(h.generator.pat_packet, first);
  EXPECT_EQ(h.generator.program_number, 1);
  EXPECT_EQ(h.log.lines.size(), 1u);
}

TEST(IndexGenerator, PatThatMovesThePmtReplacesThePacketAndLogsAgain) {
  Harness h;
  h.pat(0);
  h.feed(0, 1, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}}))), unit_start());
  EXPECT_EQ(h.generator.pmt_pid, 0x40);
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[1], "PMT on PID: 64 (program number: 1)");
  EXPECT_EQ(h.generator.pat_packet,
            as_string(ts_packet(0, 1, VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}})),
                                unit_start())));
}

TEST(IndexGenerator, PatOfNextVersionOnlyIsIgnored) {
  Harness h;
  h.feed(0, 0, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}, 0, false))),
         unit_start());
  EXPECT_EQ(h.generator.pmt_pid, 0);
  EXPECT_TRUE(h.generator.pat_packet.empty());
  EXPECT_TRUE(h.generator.pat_section.data.empty());
  EXPECT_TRUE(h.log.lines.empty());
}

TEST(IndexGenerator, PatWithOnlyTheNetworkEntryIsIgnored) {
  Harness h;
  h.feed(0, 0, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{0, 0x10}}))), unit_start());
  EXPECT_EQ(h.generator.pmt_pid, 0);
  EXPECT_TRUE(h.generator.pat_packet.empty());
}

TEST(IndexGenerator, PatAcrossTwoPacketsIsGathered) {
  Harness h;
  Bytes payload = VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}));
  h.feed(0, 0, Bytes(payload.begin(), payload.begin() + 10), unit_start());
  EXPECT_EQ(h.generator.pat_section.data.size(), 10u);
  EXPECT_EQ(h.generator.pmt_pid, 0);
  h.feed(0, 1, Bytes(payload.begin() + 10, payload.end()));
  EXPECT_EQ(h.generator.pmt_pid, kPmtPid);
  EXPECT_TRUE(h.generator.pat_section.data.empty());
}

TEST(IndexGenerator, PatWithABadCrcIsDroppedAndTheNextOneIsRead) {
  Harness h;
  Bytes payload = VdxTest::with_pointer(VdxTest::pat_section(1, {{1, kPmtPid}}));
  Bytes bad = payload;
  bad[bad.size() - 1] ^= 0x01;
  h.feed(0, 0, stuffed(bad), unit_start());
  EXPECT_EQ(h.generator.pmt_pid, 0);
  EXPECT_TRUE(h.generator.pat_section.data.empty());
  EXPECT_TRUE(h.log.lines.empty());
  h.feed(0, 1, stuffed(payload), unit_start());
  EXPECT_EQ(h.generator.pmt_pid, kPmtPid);
}

TEST(IndexGenerator, SectionGatheredFromAPacketWithoutUnitStartReadsItsFirstByteAsPointer) {
  Harness h;
  // The tail of some section: its first byte, 0x30, is taken for a pointer_field that runs
  // past the bytes at hand, so the bytes are kept for more.
  h.feed(0, 0, hex("30 11 22 33"));
  EXPECT_EQ(h.generator.pat_section.data, hex("30 11 22 33"));
  EXPECT_EQ(h.generator.pmt_pid, 0);
}

// ---------------------------------------------------------------------------------------------
// PMT

TEST(IndexGenerator, LaterPatMovesOnlyThePatPacketOnceVideoIsKnown) {
  Harness h;
  h.pat();
  h.pmt();
  const std::string pmt_packets = h.generator.pmt_packets;
  const Parser* parser = h.generator.parser;
  h.feed(0, 1, stuffed(VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}}))), unit_start());
  EXPECT_EQ(h.generator.pmt_pid, 0x40);
  EXPECT_EQ(h.generator.pat_packet,
            as_string(ts_packet(0, 1, VdxTest::with_pointer(VdxTest::pat_section(1, {{1, 0x40}})),
                                unit_start())));
  // A PMT on the new PID isn't read: the video stream and the captured PMT stay.
  h.feed(0x40, 0,
         stuffed(VdxTest::with_pointer(VdxTest::pmt_section(1, 0x200, {}, {{27, 0x200, {}}}))),
         unit_start());
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.video_pid, kVideoPid);
  EXPECT_EQ(h.generator.pmt_packets, pmt_packets);
  EXPECT_EQ(h.generator.parser, parser);
  EXPECT_TRUE(h.generator.pmt_section.data.empty());
  ASSERT_EQ(h.log.lines.size(), 3u);
  EXPECT_EQ(h.log.lines[2], "PMT on PID: 64 (program number: 1)");
}

TEST(IndexGenerator, VideoAheadOfTheFirstPmtWithVideoIsLost) {
  Harness h;
  h.pat();
  h.pcr(27000000);
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  EXPECT_TRUE(h.generator.queue.empty());
  h.pmt();
  h.video(2, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(3, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].packet.continuity_counter, 2);
  EXPECT_EQ(h.generator.block_count, 1);
}

TEST(IndexGenerator, PmtWithMpeg2VideoIsDetectedAndCapturedAsItCame) {
  Harness h;
  h.pat();
  h.pmt(mpeg2_pmt(), 6);
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.video_pid, kVideoPid);
  ASSERT_NE(h.generator.parser, nullptr);
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "PMT on PID: 32 (program number: 1)");
  EXPECT_EQ(h.log.lines[1], "Detected MPEG-2 video stream on PID: 256");
  EXPECT_EQ(h.log.levels[1], 2);
  EXPECT_EQ(h.generator.pmt_packets, pmt_packet_for(mpeg2_pmt(), 6));
}

TEST(IndexGenerator, PmtWithABadCrcIsDroppedAndTheNextOneIsRead) {
  Harness h;
  h.pat();
  Bytes payload = VdxTest::with_pointer(mpeg2_pmt());
  payload[payload.size() - 2] ^= 0x80;
  h.feed(kPmtPid, 0, stuffed(payload), unit_start());
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.pmt_section.data.empty());
  EXPECT_TRUE(h.generator.pmt_packets.empty());
  h.pmt();
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
}

TEST(IndexGenerator, PmtCutShortWaitsForTheRest) {
  Harness h;
  h.pat();
  Bytes payload = VdxTest::with_pointer(mpeg2_pmt());
  h.feed(kPmtPid, 0, Bytes(payload.begin(), payload.end() - 1), unit_start());
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  EXPECT_EQ(h.generator.pmt_section.data.size(), payload.size() - 1);
  h.feed(kPmtPid, 1, Bytes(payload.end() - 1, payload.end()));
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.pmt_packets, pmt_packet_for(mpeg2_pmt(), 1));
}

TEST(IndexGenerator, PmtBeforeThePatIsNotLookedAt) {
  Harness h;
  h.pmt();
  h.pat();
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  h.pmt();
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
}

TEST(IndexGenerator, PmtOfAnotherProgramIsIgnored) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(2, kVideoPid, {}, {{2, kVideoPid, {}}}));
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.pmt_section.data.empty());
  EXPECT_TRUE(h.generator.pmt_packets.empty());
}

TEST(IndexGenerator, PmtWithoutVideoIsTriedAgainAtTheNextOne) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kAudioPid, {}, {{3, kAudioPid, {}}, {1, 0x300, {}}}));
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  EXPECT_TRUE(h.generator.pmt_packets.empty());
  h.pmt();
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
}

TEST(IndexGenerator, PmtIsCapturedOnceAndNeverRefreshed) {
  Harness h;
  h.pat();
  h.pmt();
  const std::string captured = h.generator.pmt_packets;
  h.pmt(VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 3));
  EXPECT_EQ(h.generator.pmt_packets, captured);
  EXPECT_TRUE(h.generator.pmt_section.data.empty());
}

TEST(IndexGenerator, PmtOfNextVersionIsTakenAsWell) {
  Harness h;
  h.pat();
  Bytes section = VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 0, false);
  h.pmt(section);
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
  EXPECT_EQ(h.generator.pmt_packets, pmt_packet_for(section));
}

TEST(IndexGenerator, LastVideoStreamOfThePmtWins) {
  Harness h;
  h.pat();
  Bytes section = VdxTest::pmt_section(1, 100, {}, {{2, 100, {}}, {27, 200, {}}, {3, 300, {}}});
  h.pmt(section);
  EXPECT_EQ(h.generator.video_type, VIDEO_H264);
  EXPECT_EQ(h.generator.video_pid, 200);
  EXPECT_EQ(h.log.lines.back(), "Detected H.264 video stream on PID: 200");
  // Without trimming the section stays as read.
  EXPECT_EQ(h.generator.pmt_packets, pmt_packet_for(section));
}

TEST(IndexGenerator, TrimmedPmtKeepsTheVideoStreamsWithTheLastAsPcrPid) {
  Harness h(true, false, false, false, true);
  h.pat();
  Bytes info = VdxTest::descriptor(0x05, hex("48 44 4D 56"));
  h.pmt(VdxTest::pmt_section(
      1, 100, info, {{2, 100, VdxTest::descriptor(0x52, hex("01"))}, {27, 200, {}}, {3, 300, {}}},
      4));
  EXPECT_EQ(h.generator.video_pid, 200);
  Bytes trimmed = VdxTest::pmt_section(
      1, 200, info, {{2, 100, VdxTest::descriptor(0x52, hex("01"))}, {27, 200, {}}}, 5);
  EXPECT_EQ(h.generator.pmt_packets, pmt_packet_for(trimmed));
}

TEST(IndexGenerator, TrimmedPmtKeepsTheStreamOnTheCaPidAndTheVideoTwiceIfItIsThere) {
  Harness h(true, false, false, false, true, 100);
  h.pat();
  h.pmt(VdxTest::pmt_section(1, 100, {}, {{3, 300, {}}, {2, 100, {}}, {6, 400, {}}}));
  Bytes trimmed = VdxTest::pmt_section(1, 100, {}, {{2, 100, {}}, {2, 100, {}}}, 1);
  EXPECT_EQ(h.generator.pmt_packets, pmt_packet_for(trimmed));
}

TEST(IndexGenerator, TrimmedPmtVersionAddsOneWithoutWrappingAtThirtyTwo) {
  Harness h(true, false, false, false, true);
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 31));
  // Version 32 spills into the reserved bits, which are ones already: it reads as version 0.
  Bytes written = VdxTest::pmt_section(1, kVideoPid, {}, {{2, kVideoPid, {}}}, 0);
  written[5] = 0xC1;
  EXPECT_EQ(h.generator.pmt_packets,
            as_string(ts_packet(kPmtPid, 0, VdxTest::with_pointer(written), unit_start())));
}

TEST(IndexGenerator, PmtLongerThanAPacketGivesPacketsThatAllStartAUnitWithOneCounter) {
  Harness h;
  h.pat();
  // Program descriptors of 200 bytes make a section of more than one packet.
  Bytes info;
  for (int i = 0; i < 10; ++i)
    info = concat({info, VdxTest::descriptor(0x80, repeat(0x11 * (i % 10), 18))});
  Bytes section = VdxTest::pmt_section(1, kVideoPid, info, {{2, kVideoPid, {}}});
  Bytes payload = VdxTest::with_pointer(section);
  ASSERT_GT(payload.size(), 184u);
  h.feed(kPmtPid, 11, Bytes(payload.begin(), payload.begin() + 184), unit_start());
  EXPECT_EQ(h.generator.video_type, VIDEO_UNKNOWN);
  h.feed(kPmtPid, 12, stuffed(Bytes(payload.begin() + 184, payload.end())));
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
  std::string expected =
      as_string(
          ts_packet(kPmtPid, 12, Bytes(payload.begin(), payload.begin() + 184), unit_start())) +
      as_string(ts_packet(kPmtPid, 12, Bytes(payload.begin() + 184, payload.end()), unit_start()));
  EXPECT_EQ(h.generator.pmt_packets, expected);
}

TEST(IndexGenerator, CaDescriptorOfTheProgramGivesTheCaPid) {
  Harness h;
  h.pat();
  Bytes info = concat({VdxTest::descriptor(0x09, hex("0B 00 F2")),     // wrong length
                       VdxTest::descriptor(0x09, hex("0B 00 F2 34")),  // CA PID 0x1234
                       VdxTest::descriptor(0x09, hex("0B 01 E0 99"))});
  h.pmt(VdxTest::pmt_section(1, kVideoPid, info, {{2, kVideoPid, {}}}));
  EXPECT_EQ(h.generator.ca_pid, 0x1234);
  ASSERT_EQ(h.log.lines.size(), 3u);
  EXPECT_EQ(h.log.lines[1], "Detected MPEG-2 video stream on PID: 256");
  EXPECT_EQ(h.log.lines[2], "Found CA data for capture on PID: 4660");
}

TEST(IndexGenerator, CaDescriptorIsReadEvenFromAPmtWithoutVideo) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kAudioPid, VdxTest::descriptor(0x09, hex("0B 00 E0 77")),
                             {{3, kAudioPid, {}}}));
  EXPECT_EQ(h.generator.ca_pid, 0x77);
  EXPECT_EQ(h.log.lines.back(), "Found CA data for capture on PID: 119");
}

TEST(IndexGenerator, CaPidFromTheCommandLineWinsOverTheDescriptor) {
  Harness h(true, false, false, false, false, 0x66);
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kVideoPid, VdxTest::descriptor(0x09, hex("0B 00 E0 77")),
                             {{2, kVideoPid, {}}}));
  EXPECT_EQ(h.generator.ca_pid, 0x66);
  for (const std::string& line : h.log.lines) {
    EXPECT_EQ(line.find("Found CA data"), std::string::npos) << line;
  }
}

TEST(IndexGenerator, CaDescriptorOfAStreamIsNotRead) {
  Harness h;
  h.pat();
  h.pmt(VdxTest::pmt_section(1, kVideoPid, {},
                             {{2, kVideoPid, VdxTest::descriptor(0x09, hex("0B 00 E0 77"))}}));
  EXPECT_EQ(h.generator.ca_pid, 0);
}

// ---------------------------------------------------------------------------------------------
// CAT and CA data

TEST(IndexGenerator, CatIsAnnouncedForEveryPacketUntilOneIsCaptured) {
  Harness h;
  Bytes payload =
      VdxTest::with_pointer(VdxTest::cat_section(VdxTest::descriptor(0x09, hex("0B 00 E0 77"))));
  h.feed(1, 0, Bytes(payload.begin(), payload.begin() + 5), unit_start());
  EXPECT_TRUE(h.generator.cat_packets.empty());
  h.feed(1, 1, Bytes(payload.begin() + 5, payload.end()));
  h.feed(1, 2, stuffed(payload), unit_start());
  ASSERT_EQ(h.log.lines.size(), 2u);
  EXPECT_EQ(h.log.lines[0], "Found CAT");
  EXPECT_EQ(h.log.lines[1], "Found CAT");
  EXPECT_EQ(h.generator.cat_packets, as_string(ts_packet(1, 2, payload, unit_start())));
}

TEST(IndexGenerator, LaterCatReplacesTheCapturedOne) {
  Harness h;
  Bytes first = VdxTest::with_pointer(VdxTest::cat_section({}, 0));
  Bytes second =
      VdxTest::with_pointer(VdxTest::cat_section(VdxTest::descriptor(0x09, hex("0B 00 E0 77")), 1));
  h.feed(1, 0, stuffed(first), unit_start());
  h.feed(1, 1, stuffed(second), unit_start());
  EXPECT_EQ(h.generator.cat_packets, as_string(ts_packet(1, 1, second, unit_start())));
  // A CAT of the next version only doesn't.
  h.feed(1, 2, stuffed(VdxTest::with_pointer(VdxTest::cat_section({}, 2, false))), unit_start());
  EXPECT_EQ(h.generator.cat_packets, as_string(ts_packet(1, 1, second, unit_start())));
  EXPECT_EQ(h.log.lines.size(), 1u);
}

TEST(IndexGenerator, CaDataKeepsTheNewestPacketAndAnnouncesTheFirst) {
  Harness h(true, false, false, false, false, kCaPid);
  h.feed(kCaPid, 4, repeat(0x31, 184));
  PacketOptions options;
  options.random_access = true;
  h.feed(kCaPid, 5, repeat(0x32, 100), options);
  ASSERT_EQ(h.log.lines.size(), 1u);
  EXPECT_EQ(h.log.lines[0], "Capturing CA data from PID: 4660");
  EXPECT_EQ(h.generator.ca_packet, as_string(ts_packet(kCaPid, 5, repeat(0x32, 100), options)));
}

TEST(IndexGenerator, CaPidOnTheVideoPidHidesTheVideo) {
  Harness h(true, false, false, false, false, kVideoPid);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  EXPECT_TRUE(h.writer.calls.empty());
  EXPECT_EQ(h.generator.video_type, VIDEO_MPEG2);
  EXPECT_FALSE(h.generator.ca_packet.empty());
}

// ---------------------------------------------------------------------------------------------
// PES headers on the video PID

TEST(IndexGenerator, UnreadablePesHeaderIsReportedAndTheRecordStillCaptured) {
  Harness h;
  h.start_mpeg2();
  h.log.lines.clear();
  h.log.levels.clear();
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

TEST(IndexGenerator, PesHeaderShorterThanItsFixedPartIsReported) {
  Harness h;
  h.start_mpeg2();
  h.log.lines.clear();
  h.log.levels.clear();
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

TEST(IndexGenerator, PesHeaderIsReadIntoTheRecord) {
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

TEST(IndexGenerator, FrameInTheFirstPacketOfAPesPacketKeepsItsHeaderWithTheTimeAsPts) {
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

TEST(IndexGenerator, FrameThatBeginsInTheThirdPacketKeepsThePesHeaderInAPacketOfItsOwn) {
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

TEST(IndexGenerator, FrameThatEndsInTheMiddleOfAFullPacketIsCutAndPadded) {
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

TEST(IndexGenerator, PesPacketWhollyInsideAFrameLosesOnlyItsStamps) {
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

TEST(IndexGenerator, PesLengthOfAHugeFrameIsUnbounded) {
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

TEST(IndexGenerator, PesLengthJustFittingIsWritten) {
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

TEST(IndexGenerator, GroupOfSkippedRecordsAloneReachesTheWriterWithoutData) {
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

TEST(IndexGenerator, StreamEndingInsideAFrameNeverDeliversItsLastGroups) {
  Harness h(true, true);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  h.video(2, kSlice);
  // The first group is out; the second and its tail stay queued, and nothing is dumped.
  EXPECT_EQ(h.writer.packets().size(), 1u);
  EXPECT_EQ(h.generator.queue.size(), 2u);
  EXPECT_TRUE(h.dumped().empty());
  EXPECT_EQ(h.generator.block_count, 1);
}

TEST(IndexGenerator, PacketsAheadOfTheFirstPesStartAreDropped) {
  Harness h(true);
  h.start_mpeg2();
  h.video(0, hex("11 22 33"));
  h.video(1, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture}), true);
  h.video(2, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].packet.continuity_counter, 1);
}

TEST(IndexGenerator, HeldPacketAheadOfTheFirstPesStartBlocksTheQueue) {
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
  EXPECT_EQ(h.generator.queue.size(), 4u);
  h.video(4, concat({VdxTest::pes_header(0, -1), kSlice}), true);
  // Freed, the packet goes without a word; one group a packet follows.
  std::vector<CapturedPacket> packets = h.writer.packets();
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0].packet.continuity_counter, 1);
  EXPECT_EQ(h.generator.queue.size(), 3u);
}

TEST(IndexGenerator, FrameStartInAHeaderWithoutDataGrowsTheHeaderByFiveBytes) {
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

TEST(IndexGenerator, NoPcrAheadOfTheFirstFrameGivesPtsAndPcrZero) {
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

TEST(IndexGenerator, SourcePcrOnTheVideoPidIsDroppedFromFramesButCountsForTime) {
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

TEST(IndexGenerator, StartCodeSplitThreeToOneStartsTheFrameInTheEarlierPacket) {
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

TEST(IndexGenerator, StartCodeSplitTwoToTwoStartsTheFrameInTheEarlierPacket) {
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

TEST(IndexGenerator, EachFrameCountsItsContinuityFromZero) {
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

TEST(IndexGenerator, DumpWithSeekOnlyWritesNothing) {
  Harness h(true, true, true);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  ASSERT_EQ(h.writer.packets().size(), 1u);
  EXPECT_TRUE(h.writer.packets()[0].ends_frame());
  EXPECT_FALSE(h.writer.packets()[0].data.empty());
  EXPECT_TRUE(h.dumped().empty());
}

TEST(IndexGenerator, WithoutDumpNothingIsWritten) {
  Harness h(true, false);
  h.start_mpeg2();
  h.video(0, concat({VdxTest::pes_header(0, -1), kSequenceHeader, kPicture, kPicture}), true);
  h.video(1, concat({VdxTest::pes_header(0, -1), kPicture}), true);
  ASSERT_EQ(h.writer.packets().size(), 1u);
  EXPECT_TRUE(h.dumped().empty());
}

TEST(IndexGenerator, TablesGoAheadOfEachFrameInTheirOrder) {
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
                               Bytes(pes.begin() + done, pes.begin() + done + take),
                               done == 0 ? first : with_pcr(seconds * 27000000)));
    done += take;
  }
  return out;
}

TEST(IndexGenerator, PreambleGoesAheadOfTheFrameAndCarriesItsTimeInWholeSeconds) {
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
  EXPECT_EQ(h.generator.tables, tables + preamble);
  EXPECT_EQ(h.dumped(), tables + preamble + frame.data);
}

TEST(IndexGenerator, PtsInsertedIntoAFullPacketSpillsIntoASecondPacket) {
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
  EXPECT_EQ(h.generator.continuity, 2);
}

TEST(IndexGenerator, PreambleOfALaterRecordGoesToTheFirstRecordOfItsPesPacket) {
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

TEST(IndexGenerator, LongPreambleRepeatsThePcrInEveryPacket) {
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

TEST(IndexGenerator, WithoutTablesTheDumpRepeatsEveryPreambleSoFar) {
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

TEST(IndexGenerator, WithTablesEachFrameHasOnlyItsOwnPreamble) {
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

// ---------------------------------------------------------------------------------------------
// The record operations of frame capture

CapturedPacket record_of(const Bytes& payload, uint64_t header_length) {
  TSPacket packet;
  packet.payload = payload;
  CapturedPacket record(packet);
  record.pes_header_length = header_length;
  return record;
}

TEST(IndexGenerator, StrippingMovesTheRestOfTheHeaderDownAndStuffsItsEnd) {
  Bytes payload = concat({VdxTest::pes_header(0, 90000, 81000, 3), hex("AB")});
  payload[19] = 0x11;  // the first stuffing byte stands for other header data
  CapturedPacket record = record_of(payload, payload.size() - 1);
  ASSERT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload,
            concat({hex("00 00 01 E0 00 00 80 00 0D 11 FF FF"), repeat(0xFF, 10), hex("AB")}));
  EXPECT_EQ(record.freed_header_bytes, 10u);
}

TEST(IndexGenerator, StrippingWithoutStampsStillSucceeds) {
  CapturedPacket record = record_of(hex("00 00 01 E0 00 00 80 00 00 AB"), 9);
  EXPECT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 00 00 AB"));
  EXPECT_EQ(record.freed_header_bytes, 0u);
}

TEST(IndexGenerator, StrippingOutsideAUnitStartDoesNothing) {
  CapturedPacket record = record_of(VdxTest::pes_header(0, 90000), 0);
  EXPECT_FALSE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, VdxTest::pes_header(0, 90000));
}

TEST(IndexGenerator, StrippingStampsThatRunPastThePayloadFailsQuietly) {
  VdxTest::LogCapture log;
  CapturedPacket record = record_of(hex("00 00 01 E0 00 00 80 C0 00 21 00 01"), 9);
  EXPECT_FALSE(strip_time_stamps(record));
  EXPECT_TRUE(log.lines.empty());
}

TEST(IndexGenerator, StrippingAHeaderShorterThanItsStampsStaysWithinIt) {
  // PES_header_data_length 3 while the flags announce both stamps.
  CapturedPacket record =
      record_of(hex("00 00 01 E0 00 00 80 C0 03 01 02 03 04 05 06 07 08 09 0A"), 9);
  EXPECT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 00 03 FF FF FF 04 05 06 07 08 09 0A"));
}

TEST(IndexGenerator, MarkersCutEverythingOutsideTheFrame) {
  CapturedPacket record = record_of(hex("E0 E1 E2 10 11 12 13 14 15 16 17"), 3);
  record.add_marker(5, true);   // end of one frame at 12
  record.add_marker(8, false);  // next frame from 15
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("E0 E1 E2 10 11 12 15 16 17"));
  EXPECT_TRUE(record.modified);
}

TEST(IndexGenerator, MarkersStartAndEndInOnePacket) {
  CapturedPacket record = record_of(hex("E0 10 11 12 13 14 15"), 1);
  record.add_marker(2, false);
  record.add_marker(4, true);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("E0 11 12 13"));
}

TEST(IndexGenerator, EndMarkerOnTheLastByteChangesNothing) {
  CapturedPacket record = record_of(hex("10 11 12"), 0);
  record.add_marker(2, true);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("10 11 12"));
  EXPECT_FALSE(record.modified);
}

TEST(IndexGenerator, StartMarkerBehindAnotherStartDeletesFromTheFront) {
  // -1 keeps all to the end, so a second start counts its gap from the payload's first byte.
  CapturedPacket record = record_of(hex("E0 10 11 12 13"), 1);
  record.add_marker(2, false);
  record.add_marker(4, false);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("13"));
}

TEST(IndexGenerator, StartMarkerAheadOfTheKeptBytesGrowsThePayloadWithZeros) {
  CapturedPacket record = record_of(hex("10 11 12 13"), 0);
  record.add_marker(2, true);
  record.add_marker(1, false);
  apply_markers(record);
  EXPECT_EQ(record.packet.payload, hex("10 11 12 13 00 00"));
}

TEST(IndexGenerator, InsertedPtsUsesTheRoomOfStrippedStamps) {
  Bytes payload = concat({VdxTest::pes_header(0, 90000, 81000, 2), hex("AB CD")});
  CapturedPacket record = record_of(payload, 21);
  ASSERT_TRUE(strip_time_stamps(record));
  record.packet.pcr = 1.0;
  ASSERT_TRUE(insert_pts(record));
  // Of twelve header bytes, five carry the PTS and seven stay stuffing.
  EXPECT_EQ(record.packet.payload, concat({hex("00 00 01 E0 00 00 80 80 0C"), hex("21 00 05 BF 21"),
                                           repeat(0xFF, 7), hex("AB CD")}));
  EXPECT_EQ(record.pes_header_length, 21u);
}

TEST(IndexGenerator, InsertedPtsKeepsOtherHeaderData) {
  Bytes payload = hex("00 00 01 E0 00 00 80 80 07 21 00 01 00 01 51 52 AB CD");
  CapturedPacket record = record_of(payload, 16);
  ASSERT_TRUE(strip_time_stamps(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 00 07 51 52 FF FF FF FF FF AB CD"));
  record.packet.pcr = 2.0;
  ASSERT_TRUE(insert_pts(record));
  EXPECT_EQ(record.packet.payload, hex("00 00 01 E0 00 00 80 80 07 21 00 0B 7E 41 51 52 AB CD"));
}

TEST(IndexGenerator, InsertedPtsOfTheTopBitsOfThirtyThreeBitTime) {
  CapturedPacket record = record_of(hex("00 00 01 E0 00 00 80 00 00 01 02 03 04 05 06"), 9);
  record.freed_header_bytes = 0;
  record.packet.pcr = 95000.0;  // 8,550,000,000 ticks, above 2^32
  ASSERT_TRUE(insert_pts(record));
  EXPECT_EQ(record.packet.payload,
            concat({hex("00 00 01 E0 00 00 80 80 05"), VdxTest::time_stamp(2, 8550000000ULL),
                    hex("01 02 03 04 05 06")}));
  EXPECT_EQ(record.pes_header_length, 14u);
}

TEST(IndexGenerator, PtsIsNotInsertedWithoutRoom) {
  // Fewer than 14 bytes, or no room behind the header for the growth: nothing changes.
  CapturedPacket shorter = record_of(hex("00 00 01 E0 00 00 80 00 00 01 02 03 04"), 9);
  shorter.packet.pcr = 1.0;
  EXPECT_FALSE(insert_pts(shorter));
  EXPECT_EQ(shorter.packet.payload, hex("00 00 01 E0 00 00 80 00 00 01 02 03 04"));
  CapturedPacket tight = record_of(hex("00 00 01 E0 00 00 80 00 02 FF FF 01 02 03 04"), 11);
  tight.packet.pcr = 1.0;
  EXPECT_FALSE(insert_pts(tight));
  CapturedPacket no_time = record_of(hex("00 00 01 E0 00 00 80 00 00 01 02 03 04 05 06"), 9);
  EXPECT_FALSE(insert_pts(no_time));
  EXPECT_EQ(no_time.packet.payload, hex("00 00 01 E0 00 00 80 00 00 01 02 03 04 05 06"));
}

}  // namespace
}  // namespace Veldrin::IndexGen
