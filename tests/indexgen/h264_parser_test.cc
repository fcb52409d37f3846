#include "indexgen/h264_parser.h"

#include <gtest/gtest.h>

#include <list>
#include <ostream>
#include <random>
#include <string>
#include <utility>
#include <vector>

#include "indexgen/h264_units.h"
#include "support/log_capture.h"

namespace Veldrin::IndexGen {
namespace {

using VdxTest::aud;
using VdxTest::Bits;
using VdxTest::idr;
using VdxTest::nal;
using VdxTest::nonref_slice;
using VdxTest::pps;
using VdxTest::recovery_point;
using VdxTest::ref_slice;
using VdxTest::sei;
using VdxTest::sps;
using VdxTest::user_data;
using Veldrin::Testing::LogCapture;

// Detail lines other than the one for each NAL unit.
std::vector<std::string> events(const LogCapture& log) {
  return log.at_without(Korvix::Log::LEVEL_DETAIL, "H.264 unit type: ");
}

// A PES header of 9 bytes that holds a start code itself; the parser must never look at it.
const std::string kPesHeader("\x00\x00\x01\xE0\x00\x00\x80\x00\x00", 9);

// Feeds records to a parser as the frame capture does, but keeps every record.
struct Harness {
  CapturedPacket& feed(const std::string& payload, uint64_t header_length = 0,
                       int32_t scrambling = 0) {
    TSPacket packet;
    packet.pid = 0x100;
    packet.payload.assign(payload.begin(), payload.end());
    packet.offset = 188 * records.size();
    packet.scrambling_control = scrambling;
    packet.payload_unit_start = header_length != 0;
    records.emplace_back(packet);
    records.back().pes_header_length = header_length;
    parser.parse(records.back());
    return records.back();
  }
  // Cuts an elementary stream into payloads of chunk bytes; the first gets a PES header.
  void feed_stream(const std::string& es, size_t chunk = 184) {
    stream_chunk = chunk;
    for (size_t at = 0; at < es.size(); at += chunk) {
      if (at == 0) {
        feed(kPesHeader + es.substr(0, chunk), kPesHeader.size());
      } else {
        feed(es.substr(at, chunk));
      }
    }
  }
  CapturedPacket& record(size_t k) {
    auto it = records.begin();
    std::advance(it, k);
    return *it;
  }
  // Every marker as "record:start@position" or "record:end@position".
  std::vector<std::string> marks() {
    std::vector<std::string> out;
    size_t k = 0;
    for (const CapturedPacket& r : records) {
      for (const FrameMarker& m : r.markers) {
        out.push_back(std::to_string(k) + (m.is_end ? ":end@" : ":start@") +
                      std::to_string(m.position));
      }
      ++k;
    }
    return out;
  }
  std::string mark(size_t k, bool is_end, size_t position) {
    return std::to_string(k) + (is_end ? ":end@" : ":start@") + std::to_string(position);
  }
  // The marker for a place in the elementary stream given to feed_stream.
  std::string mark_in_stream(size_t at, bool is_end) {
    if (at < stream_chunk) return mark(0, is_end, kPesHeader.size() + at);
    return mark(at / stream_chunk, is_end, at % stream_chunk);
  }

  size_t stream_chunk = 184;

  LogCapture log;
  H264Parser parser;
  std::list<CapturedPacket> records;
};

// Splits an elementary stream into the pieces it was built from, to know where each begins.
struct Stream {
  size_t add(const std::string& piece) {
    size_t at = es.size();
    es += piece;
    return at;
  }
  std::string es;
};

// ---- Start codes and kept units ----

TEST(H264Parser, FourByteStartCodeIsKeptWholeAndMarkedAtItsFirstZero) {
  Harness h;
  Stream s;
  std::string a = aud(true), q = sps(66, 0, true), p = pps(true);
  s.add(a);
  s.add(q);
  s.add(p);
  size_t first = s.add(idr(0, 4, 0, true));
  size_t second = s.add(ref_slice(1, 4, true));
  h.feed(kPesHeader + s.es, 9);

  CapturedPacket& r = h.record(0);
  EXPECT_TRUE(r.holds_start);
  EXPECT_EQ(r.preamble, a + q + p);
  EXPECT_EQ(r.preamble.substr(0, 4), std::string("\0\0\0\1", 4));
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, 9 + first),
                                                 h.mark(0, true, 9 + second - 1)}));
  EXPECT_EQ(h.log.detail(), (std::vector<std::string>{
                                "H.264 unit type: 9 (offset: 0)",
                                "H.264 unit type: 7 REF IDC (offset: 0)",
                                "H.264 unit type: 8 REF IDC (offset: 0)",
                                "H.264 unit type: 5 REF IDC (offset: 0)",
                                "[start IDR capture (offset: 0)]",
                                "H.264 unit type: 1 REF IDC (offset: 0)",
                                "[end capture (offset: 0)]",
                            }));
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
  EXPECT_EQ(r.state, PACKET_HELD);
}

TEST(H264Parser, ThreeByteStartCodeIsMarkedAtItsFirstZero) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  size_t first = s.add(idr(0));
  size_t second = s.add(ref_slice(1));
  h.feed(s.es);
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(0, false, first), h.mark(0, true, second - 1)}));
  EXPECT_EQ(h.record(0).preamble, sps(66, 0) + pps());
}

TEST(H264Parser, ZerosAheadOfAStartCodeCountAsFourBytesAtMost) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  s.add(std::string("\0", 1));
  // With the zero before it, five bytes 00 00 00 00 01: the start code is the last four.
  size_t first = s.add(idr(0, 4, 0, true));
  size_t second = s.add(ref_slice(1));
  h.feed(s.es);
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(0, false, first), h.mark(0, true, second - 1)}));
  // The zero that isn't part of the start code ran into the PPS.
  EXPECT_EQ(h.parser.pps, pps() + std::string("\0", 1));
  EXPECT_EQ(h.record(0).preamble, sps(66, 0) + pps() + std::string("\0", 1));
}

TEST(H264Parser, UnitsKeepTheirStartCodesAndCollectedState) {
  Harness h;
  std::string q = sps(66, 2);
  h.feed(aud() + q);
  EXPECT_EQ(h.parser.state, COLLECT_SPS);
  EXPECT_EQ(h.parser.aud, aud());
  EXPECT_EQ(h.parser.unit, q);
  h.feed(pps());
  EXPECT_EQ(h.parser.state, COLLECT_PPS);
  EXPECT_EQ(h.parser.sps, q);
  EXPECT_EQ(h.parser.frame_num_bits, 6);
  h.feed(sei(user_data(3)));
  EXPECT_EQ(h.parser.state, COLLECT_SEI);
  EXPECT_EQ(h.parser.pps, pps());
  h.feed(sei(user_data(4)));
  h.feed(nal(0x0C, "\xFF\xFF"));  // filler data: not kept
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
  EXPECT_EQ(h.parser.sei, sei(user_data(3)) + sei(user_data(4)));
  EXPECT_EQ(h.parser.last_unit_type, 12);
}

TEST(H264Parser, EmulationPreventionBytesStayInKeptUnitsAndAreReadAsData) {
  Harness h;
  // RBSP 42 00 00 01 FE A0: seq_parameter_set_id 254, log2_max_frame_num_minus4 1. As sent, a
  // 03 stands between the two zeros and the 01; read as data, the second code becomes 6.
  std::string q = nal(0x67, std::string("\x42\x00\x00\x03\x01\xFE\xA0", 7));
  h.feed(q + pps());
  EXPECT_EQ(h.parser.sps, q);
  EXPECT_EQ(h.parser.frame_num_bits, 10);
}

TEST(H264Parser, UnitTypeLineShowsTheTypeInHexAndTheOffsetInDecimal) {
  Harness h;
  h.feed(std::string(20, '\x5A'));
  h.feed(std::string(20, '\x5A'));
  h.feed(nal(0x1C, "\xAA\xBB") + nal(0x7C, "\xAA\xBB"));
  EXPECT_EQ(h.log.detail(), (std::vector<std::string>{
                                "H.264 unit type: 1c (offset: 376)",
                                "H.264 unit type: 1c REF IDC (offset: 376)",
                            }));
}

TEST(H264Parser, PesHeaderIsNeverScanned) {
  Harness h;
  h.feed(kPesHeader + std::string(20, '\x5A'), 9);
  EXPECT_TRUE(h.log.detail().empty());
  EXPECT_EQ(h.parser.scanner.prefix_length, 0);
  EXPECT_EQ(h.parser.scanner.last_byte, 0x5A);
}

// ---- Start codes across records ----

TEST(H264Parser, StartCodeAcrossPacketsMarksThePreviousRecordFromItsEnd) {
  Harness h;
  std::string head = sps(66, 0) + pps() + std::string("\xAA\x00\x00\x01", 4);
  std::string body = idr(0).substr(3) + ref_slice(1);
  h.feed(head);
  h.feed(kPesHeader + body, 9);
  CapturedPacket& a = h.record(0);
  CapturedPacket& b = h.record(1);
  EXPECT_TRUE(a.holds_start);
  EXPECT_FALSE(b.holds_start);
  // The byte between the PPS and the start code ran into the PPS.
  EXPECT_EQ(a.preamble, sps(66, 0) + pps() + "\xAA");
  EXPECT_TRUE(b.preamble.empty());
  size_t end = 9 + idr(0).size() - 3 - 1;
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(0, false, head.size() - 3), h.mark(1, true, end)}));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{"[start IDR capture (offset: 0)]",
                                                     "[end capture (offset: 188)]"}));
}

TEST(H264Parser, StartCodeSplitAfterTwoZerosIsTwoBytesFromTheEnd) {
  Harness h;
  std::string head = sps(66, 0) + pps() + std::string("\xAA\x00\x00", 3);
  h.feed(head);
  h.feed(kPesHeader + std::string("\x01", 1) + idr(0).substr(3), 9);
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, head.size() - 2)}));
  EXPECT_TRUE(h.record(0).holds_start);
}

TEST(H264Parser, SliceRightAfterPesHeaderEndsTheFrameOnTheLastByteOfThePreviousRecord) {
  Harness h;
  h.feed(sps(66, 0) + pps() + idr(0));
  h.feed(kPesHeader + ref_slice(1), 9);
  size_t size = h.record(0).packet.payload.size();
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, sps(66, 0).size() + pps().size()),
                                                 h.mark(0, true, size - 1)}));
}

TEST(H264Parser, StartCodeAcrossPacketsWithoutPreviousStartsTheCaptureWithoutMarker) {
  Harness h;
  h.parser.sps = sps(66, 0);
  h.parser.pps = pps();
  h.parser.frame_num_bits = 4;
  h.parser.scanner.prefix_length = 3;
  h.parser.scanner.last_byte = 1;
  h.feed(idr(0).substr(3) + ref_slice(1));
  CapturedPacket& r = h.record(0);
  EXPECT_FALSE(r.holds_start);
  EXPECT_TRUE(r.preamble.empty());
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, true, idr(0).size() - 3 - 1)}));
  EXPECT_EQ(events(h.log),
            (std::vector<std::string>{"[start IDR capture]", "[end capture (offset: 0)]"}));
}

TEST(H264Parser, EndOfCaptureWithoutPreviousRecordPlacesNoMarker) {
  Harness h;
  // An IDR capture is open, and the start code of the next slice ran in from before the first
  // record: its end would lie in a previous record that doesn't exist.
  h.parser.sps = sps(66, 0);
  h.parser.pps = pps();
  h.parser.frame_num_bits = 4;
  h.parser.state = CAPTURE_IDR;
  h.parser.last_unit_type = 5;
  h.parser.last_frame_num = 0;
  h.parser.scanner.prefix_length = 3;
  h.parser.scanner.last_byte = 1;
  h.feed(ref_slice(1).substr(3));
  EXPECT_TRUE(h.marks().empty());
  EXPECT_EQ(h.log.detail(),
            (std::vector<std::string>{"H.264 unit type: 1 REF IDC (offset: 0)", "[end capture]"}));
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
  EXPECT_EQ(h.parser.capture_end, nullptr);
}

TEST(H264Parser, SliceStartCodeRightAtTheStartOfARecordIsMarkedInThatRecord) {
  // Behind a PES header: the first zero is at index h, the NAL header at h + 3.
  Harness h;
  h.feed(sps(66, 0) + pps());
  h.feed(kPesHeader + idr(0) + ref_slice(1), 9);
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(1, false, 9),
                                                 h.mark(1, true, 9 + idr(0).size() - 1)}));
  EXPECT_TRUE(h.record(1).holds_start);
  EXPECT_FALSE(h.record(0).holds_start);
  EXPECT_EQ(h.record(1).preamble, sps(66, 0) + pps());
  // Without a PES header: the first zero is at index 0.
  Harness g;
  g.feed(sps(66, 0) + pps());
  g.feed(idr(0) + ref_slice(1));
  EXPECT_EQ(g.marks(),
            (std::vector<std::string>{g.mark(1, false, 0), g.mark(1, true, idr(0).size() - 1)}));
  EXPECT_TRUE(g.record(1).holds_start);
}

TEST(H264Parser, FrameWhoseLastByteIsTheFirstOfARecordEndsInThatRecord) {
  Harness h;
  std::string frame = sps(66, 0) + pps() + idr(0);
  h.feed(frame.substr(0, frame.size() - 1));
  // One byte of the slice behind the PES header, then the next picture's start code.
  h.feed(kPesHeader + frame.substr(frame.size() - 1) + ref_slice(1), 9);
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, sps(66, 0).size() + pps().size()),
                                                 h.mark(1, true, 9)}));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{"[start IDR capture (offset: 0)]",
                                                     "[end capture (offset: 188)]"}));
}

TEST(H264Parser, PacketWithEmptyPayloadDoesNotBecomePrevious) {
  Harness h;
  std::string head = sps(66, 0) + pps() + std::string("\xAA\x00\x00\x01", 4);
  h.feed(head);
  CapturedPacket& empty = h.feed("");
  h.feed(idr(0).substr(3));
  EXPECT_EQ(empty.state, PACKET_FREE);
  EXPECT_TRUE(empty.markers.empty());
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, head.size() - 3)}));
  EXPECT_EQ(h.parser.previous, &h.record(2));
}

TEST(H264Parser, PreviousRecordIsFreedWhenTheNextPacketComes) {
  Harness h;
  h.feed(std::string(30, '\x5A'));
  EXPECT_EQ(h.record(0).state, PACKET_HELD);
  h.feed(std::string(30, '\x5A'));
  EXPECT_EQ(h.record(0).state, PACKET_FREE);
  EXPECT_EQ(h.record(1).state, PACKET_HELD);
  EXPECT_EQ(h.parser.previous, &h.record(1));
}

// ---- Captures ----

TEST(H264Parser, TwoIdrPicturesWithFrameNumZeroFormOneFrame) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  size_t first = s.add(idr(0));
  s.add(idr(0));
  size_t next = s.add(ref_slice(1));
  h.feed(s.es);
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(0, false, first), h.mark(0, true, next - 1)}));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{"[start IDR capture (offset: 0)]",
                                                     "[end capture (offset: 0)]"}));
}

TEST(H264Parser, StreamOfIdrPicturesWithFrameNumZeroIsOneCaptureThatNeverEnds) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  size_t first = s.add(idr(0));
  for (int k = 0; k < 20; ++k) s.add(idr(0));
  h.feed_stream(s.es);
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, 9 + first)}));
  EXPECT_EQ(h.parser.state, CAPTURE_IDR);
  EXPECT_EQ(events(h.log), (std::vector<std::string>{"[start IDR capture (offset: 0)]"}));
  ASSERT_NE(h.parser.capture_end, nullptr);
  EXPECT_EQ(h.parser.capture_end->state, PACKET_HELD);
}

TEST(H264Parser, RecoveryPointWithCountZeroCapturesOnePicture) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  s.add(sei(recovery_point(0)));
  size_t start = s.add(ref_slice(0));
  size_t end = s.add(ref_slice(1));
  s.add(ref_slice(2));
  h.feed(s.es);
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(0, false, start), h.mark(0, true, end - 1)}));
  EXPECT_EQ(h.record(0).preamble, sps(66, 0) + pps() + sei(recovery_point(0)));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{
                               "Recovery Point found in SEI",
                               "Recovery Point in 0 frames",
                               "[start RP capture (offset: 0)]",
                               "[end capture (offset: 0)]",
                           }));
  EXPECT_TRUE(h.parser.entry_seen);
}

TEST(H264Parser, RecoveryPointWithCountTwoCapturesThreePictures) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  s.add(sei(recovery_point(2)));
  size_t start = s.add(ref_slice(0));
  s.add(ref_slice(1));
  s.add(ref_slice(2));
  size_t end = s.add(ref_slice(3));
  s.add(ref_slice(4));
  h.feed_stream(s.es, 40);
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark_in_stream(start, false),
                                                 h.mark_in_stream(end - 1, true)}));
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
}

TEST(H264Parser, IdrCaptureDropsAPendingRecoveryPoint) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  s.add(sei(recovery_point(3)));
  size_t start = s.add(idr(0));
  size_t end = s.add(ref_slice(1));
  s.add(ref_slice(2));
  s.add(ref_slice(3));
  h.feed(s.es);
  // The IDR takes the recovery point's place; the reference slices after it start nothing.
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(0, false, start), h.mark(0, true, end - 1)}));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{
                               "Recovery Point found in SEI",
                               "Recovery Point in 3 frames",
                               "[start IDR capture (offset: 0)]",
                               "[end capture (offset: 0)]",
                           }));
  EXPECT_EQ(h.record(0).preamble, sps(66, 0) + pps() + sei(recovery_point(3)));
  // Counted down from -1 by the changes to frame_num 2 and 3 outside the capture.
  EXPECT_EQ(h.parser.recovery_frames, -3);
}

TEST(H264Parser, RecoveryCountOfElevenIsIgnoredButTheSeiIsKept) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  s.add(sei(recovery_point(11)));
  s.add(ref_slice(0));
  s.add(ref_slice(1));
  h.feed(s.es);
  EXPECT_EQ(h.log.summary(), (std::vector<std::string>{"Ignoring recovery point with 11 frames"}));
  // The reference slice right after the SPS is a first entry, and carries the SEI along.
  EXPECT_EQ(events(h.log), (std::vector<std::string>{
                               "Recovery Point found in SEI",
                               "Recovery Point in 11 frames",
                               "[start non-IDR capture (offset: 0)]",
                               "[end capture (offset: 0)]",
                           }));
  EXPECT_EQ(h.record(0).preamble, sps(66, 0) + pps() + sei(recovery_point(11)));
  EXPECT_EQ(h.parser.recovery_frames, -1);
}

// A recovery point once an entry was seen: the stream opens with an IDR picture, then a second
// packet brings the SEI and the slices after it.
struct RecoveryRun {
  const char* name;
  std::string first;   // the packet with the IDR picture
  uint32_t count;      // recovery_frame_cnt of the SEI that opens the second packet
  std::string slices;  // the rest of the second packet
  std::vector<std::string> summary;
  std::vector<std::string> events;
  // The markers of the second packet, as (is_end, position).
  std::vector<std::pair<bool, size_t>> marks;
};

void PrintTo(const RecoveryRun& run, std::ostream* out) {
  *out << run.name;
}

class H264RecoveryCount : public ::testing::TestWithParam<RecoveryRun> {};

TEST_P(H264RecoveryCount, CountDecidesWhetherACaptureStarts) {
  const RecoveryRun& run = GetParam();
  Harness h;
  h.feed(run.first);
  h.feed(sei(recovery_point(run.count)) + run.slices);
  EXPECT_EQ(h.log.summary(), run.summary);
  EXPECT_EQ(events(h.log), run.events);
  std::vector<std::string> expected;
  for (const auto& [is_end, position] : run.marks) expected.push_back(h.mark(1, is_end, position));
  std::vector<std::string> marks;
  for (const FrameMarker& m : h.record(1).markers) marks.push_back(h.mark(1, m.is_end, m.position));
  EXPECT_EQ(marks, expected);
}

const std::vector<std::string> kIdrCaptured = {"[start IDR capture (offset: 0)]",
                                               "[end capture (offset: 0)]"};

std::vector<std::string> idr_then(std::vector<std::string> more) {
  std::vector<std::string> out = kIdrCaptured;
  out.insert(out.end(), more.begin(), more.end());
  return out;
}

INSTANTIATE_TEST_SUITE_P(
    AfterAnEntry, H264RecoveryCount,
    ::testing::Values(
        RecoveryRun{"ElevenStartsNoCapture",
                    sps(66, 0) + pps() + idr(0) + ref_slice(1) + ref_slice(2),
                    11,
                    ref_slice(3) + ref_slice(4),
                    {"Ignoring recovery point with 11 frames"},
                    idr_then({"Recovery Point found in SEI", "Recovery Point in 11 frames"}),
                    {}},
        RecoveryRun{"TenCounts",
                    sps(66, 0) + pps() + idr(0) + ref_slice(1) + ref_slice(2),
                    10,
                    ref_slice(3) + ref_slice(4),
                    {},
                    idr_then({"Recovery Point found in SEI", "Recovery Point in 10 frames",
                              "[start RP capture (offset: 188)]"}),
                    {{false, sei(recovery_point(10)).size()}}},
        // Non-reference slices count down as well: the point is lost before a reference slice.
        RecoveryRun{"OneRunsDownOnNonReferenceSlicesAndIsLost",
                    sps(66, 0) + pps() + idr(0) + ref_slice(1),
                    1,
                    nonref_slice(2) + nonref_slice(3) + ref_slice(4) + ref_slice(5),
                    {},
                    idr_then({"Recovery Point found in SEI", "Recovery Point in 1 frames"}),
                    {}},
        // Picked up with count 0: the first change of frame_num ends it.
        RecoveryRun{
            "TwoStillPendingAfterNonReferenceSlicesStartsACapture",
            sps(66, 0) + pps() + idr(0) + ref_slice(1),
            2,
            nonref_slice(2) + nonref_slice(3) + ref_slice(4) + ref_slice(5),
            {},
            idr_then({"Recovery Point found in SEI", "Recovery Point in 2 frames",
                      "[start RP capture (offset: 188)]", "[end capture (offset: 188)]"}),
            {{false, (sei(recovery_point(2)) + nonref_slice(2) + nonref_slice(3)).size()},
             {true,
              (sei(recovery_point(2)) + nonref_slice(2) + nonref_slice(3) + ref_slice(4)).size() -
                  1}}}),
    [](const ::testing::TestParamInfo<RecoveryRun>& info) { return std::string(info.param.name); });

TEST(H264Parser, RecoveryCountOfTenKeepsTheHeadersInForceAndCountsDown) {
  Harness h;
  h.feed(sps(66, 0) + pps() + idr(0) + ref_slice(1) + ref_slice(2));
  h.feed(sei(recovery_point(10)) + ref_slice(3) + ref_slice(4));
  // The SPS and PPS stay in force; the AUD and SEI were cleared by the slices before.
  EXPECT_EQ(h.record(1).preamble, sps(66, 0) + pps() + sei(recovery_point(10)));
  EXPECT_EQ(h.parser.state, CAPTURE_RECOVERY);
  EXPECT_EQ(h.parser.recovery_frames, 9);
}

TEST(H264Parser, AudBeforeSpsKeepsTheFirstEntry) {
  Harness h;
  Stream s;
  s.add(aud());
  s.add(sps(66, 0));
  s.add(pps());
  s.add(sei(user_data(3)));
  size_t start = s.add(ref_slice(0));
  s.add(ref_slice(1));
  h.feed(s.es);
  EXPECT_EQ(events(h.log), (std::vector<std::string>{"[start non-IDR capture (offset: 0)]",
                                                     "[end capture (offset: 0)]"}));
  EXPECT_EQ(h.marks().front(), h.mark(0, false, start));
  EXPECT_EQ(h.record(0).preamble, aud() + sps(66, 0) + pps() + sei(user_data(3)));
  EXPECT_FALSE(h.parser.entry_seen);
}

TEST(H264Parser, AudBetweenPpsAndSeiClearsHeadersSeen) {
  Harness h;
  h.feed(sps(66, 0) + pps() + aud() + sei(user_data(3)) + ref_slice(0) + ref_slice(1));
  EXPECT_TRUE(events(h.log).empty());
  EXPECT_TRUE(h.marks().empty());
}

TEST(H264Parser, OnceAnIdrWasSeenAReferenceSliceAfterAnSpsStartsNothing) {
  Harness h;
  h.feed(sps(66, 0) + pps() + idr(0) + ref_slice(1));
  h.feed(sps(66, 0) + pps() + ref_slice(2) + ref_slice(3));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{"[start IDR capture (offset: 0)]",
                                                     "[end capture (offset: 0)]"}));
  EXPECT_TRUE(h.record(1).markers.empty());
}

TEST(H264Parser, NonReferenceSliceAfterAnSpsStartsNothing) {
  Harness h;
  h.feed(sps(66, 0) + pps() + nonref_slice(0) + nonref_slice(1));
  EXPECT_TRUE(h.marks().empty());
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
}

TEST(H264Parser, SlicesWithoutSpsOrPpsStartNothing) {
  Harness h;
  h.feed(sps(66, 0) + idr(0) + idr(1));
  EXPECT_TRUE(h.marks().empty());
  EXPECT_TRUE(events(h.log).empty());
  Harness g;
  g.feed(pps() + idr(0) + idr(1));
  EXPECT_TRUE(g.marks().empty());
}

TEST(H264Parser, SliceInCaptureNoneClearsKeptAudAndSeiButNotSpsAndPps) {
  Harness h;
  h.feed(aud() + sei(user_data(2)) + nonref_slice(0));
  EXPECT_TRUE(h.parser.aud.empty());
  EXPECT_TRUE(h.parser.sei.empty());
  h.feed(sps(66, 0) + pps() + nonref_slice(0));
  EXPECT_EQ(h.parser.sps, sps(66, 0));
  EXPECT_EQ(h.parser.pps, pps());
}

TEST(H264Parser, FrameNumWithBitSevenSetIsNotCompared) {
  Harness h;
  Stream s;
  s.add(sps(66, 4));  // eight bits of frame_num
  s.add(pps());
  size_t start = s.add(idr(0x80, 8));
  s.add(ref_slice(5, 8));  // -128 before: not compared
  size_t end = s.add(ref_slice(6, 8));
  h.feed(s.es);
  EXPECT_EQ(h.parser.frame_num_bits, 8);
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(0, false, start), h.mark(0, true, end - 1)}));
  EXPECT_EQ(h.parser.last_frame_num, 6);
}

TEST(H264Parser, FrameNumIsNarrowedToEightBits) {
  Harness h;
  Stream s;
  s.add(sps(66, 6));  // ten bits of frame_num
  s.add(pps());
  s.add(idr(0x003, 10));
  s.add(ref_slice(0x103, 10));  // same low eight bits: no change seen
  size_t end = s.add(ref_slice(0x104, 10));
  h.feed(s.es);
  ASSERT_EQ(h.marks().size(), 2u);
  EXPECT_EQ(h.marks()[1], h.mark(0, true, end - 1));
}

TEST(H264Parser, MultiSlicePictureEndsBehindItsLastSliceAndLeavesLaterUnitsOut) {
  Harness h;
  Stream s;
  s.add(sps(66, 0));
  s.add(pps());
  size_t start = s.add(idr(0, 4, 0));
  size_t second = s.add(idr(0, 4, 10));
  size_t third = s.add(idr(0, 4, 20));
  size_t after = s.add(sei(user_data(30)));
  size_t next = s.add(ref_slice(1));
  const size_t chunk = 20;
  // Packets of 20 bytes, no PES header, so that the held record can be watched.
  auto packet_of = [&](size_t at) { return at / chunk; };
  for (size_t at = 0; at < s.es.size(); at += chunk) {
    h.feed(s.es.substr(at, chunk));
    size_t k = h.records.size() - 1;
    if (at + chunk > second + 3 && at + chunk <= third + 3) {
      EXPECT_EQ(h.parser.capture_end, &h.record(packet_of(second - 1))) << k;
    }
    if (at + chunk > after + 3 && at + chunk <= next + 3 + 8) {
      // The record with the last byte of the last slice stays held until the next picture.
      EXPECT_EQ(h.parser.capture_end, &h.record(packet_of(after - 1))) << k;
      EXPECT_EQ(h.record(packet_of(after - 1)).state, PACKET_HELD) << k;
      EXPECT_EQ(h.parser.capture_end_position, static_cast<int32_t>((after - 1) % chunk));
    }
  }
  EXPECT_EQ(h.marks(),
            (std::vector<std::string>{h.mark(packet_of(start), false, start % chunk),
                                      h.mark(packet_of(after - 1), true, (after - 1) % chunk)}));
  EXPECT_EQ(h.record(packet_of(after - 1)).state,
            packet_of(after - 1) == h.records.size() - 1 ? PACKET_HELD : PACKET_FREE);
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
  EXPECT_EQ(h.parser.capture_end, nullptr);
}

TEST(H264Parser, HeadersInsideACaptureAreNotKept) {
  Harness h;
  h.feed(sps(66, 0) + pps() + idr(0));
  h.feed(sps(66, 4) + pps() + ref_slice(1));
  EXPECT_EQ(h.parser.sps, sps(66, 0));
  EXPECT_EQ(h.parser.frame_num_bits, 4);
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
  // The frame ends ahead of the SPS that followed its slice.
  EXPECT_EQ(h.marks().back(), h.mark(0, true, h.record(0).packet.payload.size() - 1));
}

TEST(H264Parser, SliceHeaderLongerThanEightBytesChangesNothing) {
  Harness h;
  // frame_num_bits of 64: the three codes and frame_num don't fit in the eight bytes.
  h.feed(sps(66, 60) + pps() + idr(0) + ref_slice(1) + ref_slice(2));
  EXPECT_EQ(h.parser.frame_num_bits, 64);
  EXPECT_EQ(h.parser.state, CAPTURE_IDR);
  EXPECT_EQ(h.parser.last_frame_num, -1);
  EXPECT_EQ(h.marks().size(), 1u);
}

// ---- Scrambled packets ----

TEST(H264Parser, ScrambledPacketIsTakenIntoTheOpenFrameToItsLastByte) {
  Harness h;
  h.feed(sps(66, 0) + pps() + idr(0));
  CapturedPacket& scrambled =
      h.feed(std::string("\x00\x00\x01\x65\x88", 5) + std::string(50, 'x'), 0, 3);
  EXPECT_EQ(h.parser.capture_end, &scrambled);
  EXPECT_EQ(h.parser.capture_end_position, -1);
  EXPECT_EQ(scrambled.state, PACKET_HELD);
  EXPECT_EQ(h.record(0).state, PACKET_FREE);
  h.feed(sei(user_data(2)) + ref_slice(1));
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, sps(66, 0).size() + pps().size()),
                                                 h.mark(1, true, 54)}));
  EXPECT_EQ(h.log.detail(), (std::vector<std::string>{
                                "H.264 unit type: 7 REF IDC (offset: 0)",
                                "H.264 unit type: 8 REF IDC (offset: 0)",
                                "H.264 unit type: 5 REF IDC (offset: 0)",
                                "[start IDR capture (offset: 0)]",
                                "H.264 unit type: 6 (offset: 376)",
                                "H.264 unit type: 1 REF IDC (offset: 376)",
                                "[end capture (offset: 188)]",
                            }));
  EXPECT_EQ(scrambled.state, PACKET_FREE);
}

TEST(H264Parser, ScrambledPacketWithoutPayloadLeavesThePreviousRecordHeld) {
  Harness h;
  // Two slices of one picture: the frame so far ends ahead of the second, in this record.
  std::string frame = sps(66, 0) + pps() + idr(0) + idr(0, 4, 10);
  CapturedPacket& first = h.feed(frame);
  ASSERT_EQ(h.parser.capture_end, &first);
  CapturedPacket& scrambled = h.feed("", 0, 3);
  EXPECT_EQ(h.parser.capture_end, &scrambled);
  // Still the previous record: a start code right at the start of the next payload puts the
  // frame's end on it, so it must not be given up yet.
  EXPECT_EQ(h.parser.previous, &first);
  EXPECT_EQ(first.state, PACKET_HELD);
  h.feed(ref_slice(1));
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(0, false, sps(66, 0).size() + pps().size()),
                                                 h.mark(0, true, frame.size() - 1)}));
  EXPECT_TRUE(scrambled.markers.empty());
  EXPECT_EQ(scrambled.state, PACKET_FREE);
  EXPECT_EQ(first.state, PACKET_FREE);
}

TEST(H264Parser, ScrambledPacketLosesTheUnitBeingCollected) {
  Harness h;
  std::string q = sps(66, 0);
  h.feed(q.substr(0, 6));
  EXPECT_EQ(h.parser.state, COLLECT_SPS);
  h.feed(std::string(20, 'x'), 0, 2);
  EXPECT_EQ(h.parser.state, CAPTURE_NONE);
  EXPECT_TRUE(h.parser.unit.empty());
  h.feed(q.substr(6) + pps() + idr(0) + idr(1));
  EXPECT_TRUE(h.parser.sps.empty());
  EXPECT_TRUE(h.marks().empty());
}

TEST(H264Parser, ScrambledPacketInTheMiddleOfAPrefixForgetsIt) {
  Harness h;
  // A filler unit last, so that the scrambled packet finds nothing being collected.
  h.feed(sps(66, 0) + pps() + nal(0x0C, "\xFF\xAA") + std::string("\x00\x00", 2));
  h.feed(std::string(20, 'x'), 0, 1);
  h.feed(std::string("\x01", 1) + idr(0).substr(3) + idr(0));
  EXPECT_EQ(h.parser.scanner.prefix_length, 0);
  // Only the second IDR, with a start code of its own, is seen.
  EXPECT_EQ(h.marks(), (std::vector<std::string>{h.mark(2, false, idr(0).size() - 2)}));
}

// ---- SPS reading ----

TEST(H264Parser, BaselineSpsGivesLog2MaxFrameNum) {
  Harness h;
  h.feed(sps(66, 3) + pps());
  EXPECT_EQ(h.parser.frame_num_bits, 7);
}

TEST(H264Parser, HighProfileSpsReadsTheScalingMatrixBeforeFrameNum) {
  auto lists = [](Bits& bits) {
    bits.ue(1).ue(0).ue(0).u(1, 0).u(1, 1);  // 4:2:0, 8 bits, bypass off, matrix present
    bits.u(1, 1);                            // list 0: sixteen deltas, never reaching 0
    for (int k = 0; k < 16; ++k) bits.se(k == 3 ? -300 : 1);
    for (int list = 1; list < 6; ++list) bits.u(1, 0);
    bits.u(1, 1).se(-8);  // list 6: next becomes 0 at once, one code only
    bits.u(1, 1);         // list 7: sixty-four deltas
    // se(2) is ue(3): had the list been read as sixteen deltas, the seventeenth would give a
    // frame_num length of 7.
    for (int k = 0; k < 64; ++k) bits.se(2);
  };
  for (const uint8_t profile : {uint8_t{100}, uint8_t{110}, uint8_t{122}, uint8_t{144}}) {
    Harness h;
    h.feed(sps(profile, 5, false, lists) + pps());
    EXPECT_EQ(h.parser.frame_num_bits, 9) << int(profile);
    EXPECT_TRUE(h.log.error().empty());
  }
}

TEST(H264Parser, ChromaFormatWithLowBitsThreeReadsTheSeparateColourPlaneFlag) {
  for (uint32_t chroma : {3u, 259u}) {
    auto high = [chroma](Bits& bits) { bits.ue(chroma).u(1, 1).ue(2).ue(2).u(1, 1).u(1, 0); };
    Harness h;
    h.feed(sps(100, 2, false, high) + pps());
    EXPECT_EQ(h.parser.frame_num_bits, 6) << chroma;
  }
}

TEST(H264Parser, High444SpsIsReadOnTheShortPath) {
  // Profile 244 carries the same fields as profile 100, but they aren't skipped: the first of
  // them, chroma_format_idc 3, is read as log2_max_frame_num_minus4.
  auto high = [](Bits& bits) { bits.ue(3).u(1, 0).ue(0).ue(0).u(1, 0).u(1, 0); };
  Harness h;
  h.feed(sps(244, 0, false, high) + pps());
  EXPECT_EQ(h.parser.frame_num_bits, 7);
}

TEST(H264Parser, OtherProfileDoesNotReadHighFields) {
  // Main profile: the code after seq_parameter_set_id is log2_max_frame_num_minus4 itself.
  Harness h;
  h.feed(sps(77, 2) + pps());
  EXPECT_EQ(h.parser.frame_num_bits, 6);
}

TEST(H264Parser, UnreadableSpsLogsAnErrorAndGivesZeroFrameNumBits) {
  Harness h;
  h.feed(nal(0x67, "\x64") + pps() + idr(0, 0) + ref_slice(1, 4) + ref_slice(2, 4));
  EXPECT_EQ(h.log.error(), (std::vector<std::string>{"Could not read frame num length from SPS"}));
  EXPECT_EQ(h.parser.frame_num_bits, 0);
  EXPECT_EQ(h.parser.sps, nal(0x67, "\x64"));
  // Every frame_num reads as 0: the capture never ends.
  EXPECT_EQ(h.parser.state, CAPTURE_IDR);
  EXPECT_EQ(h.marks().size(), 1u);
}

// ---- SEI reading ----

TEST(H264Parser, RecoveryPointIsFoundBehindOtherMessages) {
  Harness h;
  // A user data message, one of type 256 (coded FF 01) with a size of 257 (coded FF 02).
  std::string big = std::string("\xFF\x01\xFF\x02", 4) + std::string(257, '\x5A');
  h.feed(sps(66, 0) + pps() + idr(0) + ref_slice(1));
  h.feed(sei(user_data(5) + big + recovery_point(1)) + ref_slice(2));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{
                               "[start IDR capture (offset: 0)]",
                               "[end capture (offset: 0)]",
                               "Recovery Point found in SEI",
                               "Recovery Point in 1 frames",
                               "[start RP capture (offset: 188)]",
                           }));
}

TEST(H264Parser, UnreadableRecoveryPointLogsAnErrorAndIsIgnored) {
  Harness h;
  h.feed(sps(66, 0) + pps() + idr(0) + ref_slice(1));
  // A recovery point message whose payload is cut off by the next start code.
  h.feed(nal(0x06, "\x06\x01") + ref_slice(2) + ref_slice(3));
  EXPECT_EQ(h.log.error(), (std::vector<std::string>{"Failed to read recovery point information"}));
  EXPECT_EQ(events(h.log), (std::vector<std::string>{
                               "[start IDR capture (offset: 0)]",
                               "[end capture (offset: 0)]",
                               "Recovery Point found in SEI",
                           }));
  // Counted down from -1 by the two changes of frame_num outside a capture.
  EXPECT_EQ(h.parser.recovery_frames, -3);
}

TEST(H264Parser, SeiWithoutRecoveryPointIsSilent) {
  Harness h;
  h.feed(sei(user_data(3)) + sei(user_data(200)) + nal(0x0C, "\xFF"));
  EXPECT_TRUE(events(h.log).empty());
  EXPECT_TRUE(h.log.error().empty());
  EXPECT_EQ(h.parser.recovery_frames, -1);
}

// ---- The fast scan against the byte-by-byte reference ----

// A random stream of NAL units with zeros sprinkled in, cut into packets of random sizes, some
// with PES headers, some scrambled, some empty.
struct RandomRun {
  explicit RandomRun(uint32_t seed) : random(seed) {}

  std::string unit() {
    static const uint8_t headers[] = {0x09, 0x67, 0x68, 0x06, 0x65, 0x41, 0x01, 0x0C, 0x61};
    uint8_t header = headers[random() % sizeof headers];
    std::string body;
    if (header == 0x67) {
      body = sps(random() % 2 ? 66 : 100, random() % 4).substr(4);
    } else if (header == 0x06) {
      body = recovery_point(static_cast<uint32_t>(random() % 13)) + "\x80";
    } else if ((header & 31) == 1 || (header & 31) == 5) {
      body = VdxTest::slice(header, static_cast<uint32_t>(random() % 6), 4).substr(4);
    }
    size_t extra = random() % 300;
    for (size_t k = 0; k < extra; ++k) {
      uint32_t pick = random() % 16;
      body.push_back(pick < 3 ? '\0' : pick < 4 ? '\1' : static_cast<char>(random()));
    }
    if (random() % 20 == 0) body += std::string("\0\0\0", 3);  // a long run of zeros
    return start_code(random() % 3 == 0) + static_cast<char>(header) + body;
  }
  std::string start_code(bool four) { return VdxTest::start_code(four); }

  std::mt19937 random;
};

struct Outcome {
  std::vector<std::string> marks;
  std::vector<std::string> lines;
  std::vector<std::string> states;
};

Outcome run(uint32_t seed, bool byte_by_byte) {
  RandomRun source(seed);
  std::string es;
  for (int k = 0; k < 400; ++k) es += source.unit();
  Outcome outcome;
  {
    Harness h;
    h.parser.scanner.byte_by_byte = byte_by_byte;
    size_t at = 0;
    while (at < es.size()) {
      const auto kind = source.random() % 20;
      size_t size = 1 + source.random() % 184;
      if (kind == 0) {
        h.feed("");
        continue;
      }
      if (kind == 1) {
        h.feed(es.substr(at, size), 0, 2);
      } else if (kind < 4) {
        h.feed(kPesHeader + es.substr(at, size), 9);
      } else {
        h.feed(es.substr(at, size));
      }
      at += size;
      const H264Parser& p = h.parser;
      outcome.states.push_back(
          std::to_string(p.scanner.prefix_length) + "," + std::to_string(p.scanner.last_byte) +
          "," + std::to_string(p.state) + "," + std::to_string(p.recovery_frames) + "," +
          std::to_string(p.last_frame_num) + "," + std::to_string(p.entry_seen) +
          std::to_string(p.headers_seen) + "," + std::to_string(p.unit.size()) + "," +
          std::to_string(p.frame_num_bits) + "," + std::to_string(p.capture_end_position) + "," +
          std::to_string(p.last_unit_type) + "," + std::to_string(p.aud.size()) + "," +
          std::to_string(p.sps.size()) + "," + std::to_string(p.pps.size()) + "," +
          std::to_string(p.sei.size()));
    }
    outcome.marks = h.marks();
    size_t k = 0;
    for (const CapturedPacket& r : h.records) {
      outcome.states.push_back(std::to_string(k++) + ":" + std::to_string(r.state) +
                               std::to_string(r.holds_start) + ":" + r.preamble);
    }
    for (size_t i = 0; i < h.log.lines.size(); ++i) {
      outcome.lines.push_back(std::to_string(h.log.levels[i]) + " " + h.log.lines[i]);
    }
  }
  return outcome;
}

TEST(H264Parser, FastScanAgreesWithByteByByteScanOnRandomStreams) {
  size_t captures = 0;
  for (uint32_t seed = 1; seed <= 30; ++seed) {
    Outcome reference = run(seed, true);
    Outcome fast = run(seed, false);
    EXPECT_EQ(fast.marks, reference.marks) << seed;
    EXPECT_EQ(fast.lines, reference.lines) << seed;
    EXPECT_EQ(fast.states, reference.states) << seed;
    captures += reference.marks.size();
  }
  // The streams must exercise captures, or the comparison says little.
  EXPECT_GT(captures, 30u);
}

}  // namespace
}  // namespace Veldrin::IndexGen
