#include "index/index_writer.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <fstream>
#include <initializer_list>
#include <iterator>
#include <string>
#include <vector>

#include "support/bytes.h"
#include "support/log_capture.h"
#include "support/scratch_dir.h"

namespace Veldrin::Index {
namespace {

using Testing::be32;
using Testing::be64;
using Testing::LogCapture;
using Testing::read_all;

using IndexGen::CapturedPacket;
using IndexGen::PACKET_FRAME;
using IndexGen::PACKET_SKIPPED;

// The files the tests write, in one directory removed when the tests end.
std::string output_path(const std::string& name) {
  static const Testing::ScratchDir dir;
  return dir.file(name + ".vdx");
}

void put(std::string& s, size_t at, std::initializer_list<int> bytes) {
  for (int b : bytes) s.at(at++) = static_cast<char>(b);
}

// One record of a frame's packets as the generator hands it over.
CapturedPacket frame_record(uint64_t offset, double npt, const std::string& data, bool start,
                            bool end) {
  CapturedPacket captured;
  captured.packet.offset = offset;
  captured.npt = npt;
  captured.state = PACKET_FRAME;
  captured.frame_start = start;
  captured.data = data;
  if (end) captured.markers.push_back({0, true});
  return captured;
}

// A whole frame in one record.
void add_frame(IndexWriter& writer, uint64_t offset, double npt, const std::string& data) {
  CapturedPacket captured = frame_record(offset, npt, data, true, true);
  writer.add_packet(captured);
}

std::string filled(size_t count, char c) {
  return std::string(count, c);
}

// The example file: links 2, precision 65536, source length 200000, three frames at 0, 100000
// and 150000 with 10, 11 and 12 seconds. The first frame is 188 bytes each of tables, preamble
// and frame packets; the second is two records of 188; the third one record of 188.
void write_worked_example(IndexWriter& writer, size_t middle_frame_records = 2) {
  writer.set_tables(filled(188, 'T'));
  writer.set_frame_preamble(filled(188, 'P'));
  add_frame(writer, 0, 10.0, filled(188, 'A'));
  writer.set_tables("");
  writer.set_frame_preamble("");
  for (size_t r = 0; r < middle_frame_records; r++) {
    CapturedPacket captured =
        frame_record(100000 + 188 * r, 11.0, filled(188, static_cast<char>('B' + r)), r == 0,
                     r + 1 == middle_frame_records);
    writer.add_packet(captured);
  }
  add_frame(writer, 150000, 12.0, filled(188, 'D'));
}

TEST(IndexWriter, WorkedExampleIsReproducedByteForByte) {
  std::string path = output_path("worked");
  LogCapture log;
  {
    IndexWriter writer(2, 65536, 200000);
    ASSERT_TRUE(writer.open(path));
    write_worked_example(writer);
    writer.close();
  }

  std::string expected(28672, '\0');
  put(expected, 0, {0x56, 0x44, 0x58, 0x46});
  put(expected, 4, {0x00, 0x00, 0x10, 0x00});
  put(expected, 8, {0x00, 0x00, 0x00, 0x01});
  put(expected, 12, {0x00, 0x00, 0x00, 0x03});
  put(expected, 16, {0x00, 0x01, 0x00, 0x00});
  put(expected, 20, {0x00, 0x00, 0x00, 0x03});
  put(expected, 24, {0, 0, 0, 1, 0, 0, 0x27, 0x10, 0, 0, 0, 0, 0, 0, 0, 0});
  put(expected, 40, {0, 0, 0, 1, 0, 0, 0x27, 0x10, 0, 0, 0, 0, 0, 0, 0, 0});
  put(expected, 56, {0, 0, 0, 3, 0, 0, 0x2A, 0xF8, 0, 0, 0, 0, 0, 0x01, 0x86, 0xA0});
  // Block 0.
  put(expected, 4096, {0x4D, 0x54, 0x53, 0x51});
  put(expected, 4100, {0x00, 0x00, 0x02, 0x34});
  put(expected, 4104, {0x00, 0x00, 0x27, 0x10});
  put(expected, 4108, {0, 0, 0, 0, 0, 0, 0, 0});
  put(expected, 4116, {0x02, 0x00});
  put(expected, 4118, {0x00, 0x00, 0x01, 0x78, 0x00, 0x00, 0x00, 0xBC});
  expected.replace(8192, 564, filled(188, 'T') + filled(188, 'P') + filled(188, 'A'));
  // Block 1: 376 bytes, 11000 ms, offset 100000; one link each way.
  put(expected, 12288, {0x4D, 0x54, 0x53, 0x51});
  put(expected, 12292, {0x00, 0x00, 0x01, 0x78});
  put(expected, 12296, {0x00, 0x00, 0x2A, 0xF8});
  put(expected, 12300, {0, 0, 0, 0, 0, 0x01, 0x86, 0xA0});
  put(expected, 12308, {0x01, 0x01});
  put(expected, 12310, {0x00, 0x00, 0x00, 0xBC, 0x00, 0x00, 0x02, 0x34});
  expected.replace(16384, 376, filled(188, 'B') + filled(188, 'C'));
  // Block 2: 188 bytes, 12000 ms, offset 150000; two links back.
  put(expected, 20480, {0x4D, 0x54, 0x53, 0x51});
  put(expected, 20484, {0x00, 0x00, 0x00, 0xBC});
  put(expected, 20488, {0x00, 0x00, 0x2E, 0xE0});
  put(expected, 20492, {0, 0, 0, 0, 0, 0x02, 0x49, 0xF0});
  put(expected, 20500, {0x00, 0x02});
  put(expected, 20502, {0x00, 0x00, 0x01, 0x78, 0x00, 0x00, 0x02, 0x34});
  expected.replace(24576, 188, filled(188, 'D'));

  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 28672u);
  EXPECT_EQ(actual, expected);
  EXPECT_TRUE(log.at(1).empty());
  EXPECT_EQ(log.at(3),
            (std::vector<std::string>{"Creating index placeholder with 3 index entries",
                                      "3 blocks output", "Completing index with 3 blocks"}));
}

TEST(IndexWriter, ShorterMiddleFrameChangesTheLinksOfItsNeighbours) {
  std::string path = output_path("worked_short");
  {
    IndexWriter writer(2, 65536, 200000);
    ASSERT_TRUE(writer.open(path));
    write_worked_example(writer, 1);
    writer.close();
  }
  std::string actual = read_all(path);
  // The middle block now holds one packet: its size and its neighbours' links say 188.
  ASSERT_EQ(actual.size(), 28672u);
  EXPECT_EQ(be32(actual, 12292), 188u);
  EXPECT_EQ(be32(actual, 4118), 188u);
  EXPECT_NE(be32(actual, 4118), 376u);
  EXPECT_EQ(be32(actual, 4122), 188u);
  EXPECT_EQ(be32(actual, 20480 + 22), 188u);
  EXPECT_EQ(be32(actual, 20480 + 26), 564u);
}

TEST(IndexWriter, SourceShorterThanPrecisionGivesAOnePageHeaderWithoutTable) {
  std::string path = output_path("short_source");
  LogCapture log;
  {
    IndexWriter writer(16, 65536, 65535);
    ASSERT_TRUE(writer.open(path));
    add_frame(writer, 0, 1.0, filled(188, 'A'));
    writer.close();
  }
  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u * 3);
  std::string header(4096, '\0');
  put(header, 0, {0x56, 0x44, 0x58, 0x46, 0, 0, 0x10, 0, 0, 0, 0, 1, 0, 0, 0, 1, 0, 1, 0, 0});
  EXPECT_EQ(actual.substr(0, 4096), header);
  EXPECT_EQ(be32(actual, 4096), BLOCK_MAGIC);
  EXPECT_EQ(log.at(3).front(), "Creating index placeholder with 0 index entries");
}

TEST(IndexWriter, PipeWithLengthZeroGivesAnEmptyTable) {
  std::string path = output_path("pipe");
  {
    IndexWriter writer(16, 65536, 0);
    ASSERT_TRUE(writer.open(path));
    writer.close();
  }
  std::string header(4096, '\0');
  put(header, 0, {0x56, 0x44, 0x58, 0x46, 0, 0, 0x10, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0});
  EXPECT_EQ(read_all(path), header);
}

TEST(IndexWriter, HeaderGrowsByAPageOnceTheTableFillsOne) {
  // 255 entries take 20 + 16 * 255 = 4100 bytes of the rounding: two pages.
  std::string path = output_path("two_pages");
  {
    IndexWriter writer(16, 1, 255);
    ASSERT_TRUE(writer.open(path));
    writer.close();
  }
  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 8192u);
  EXPECT_EQ(be32(actual, 4), 8192u);
  EXPECT_EQ(be32(actual, 20), 255u);
  // Every entry uses the end entry, at block page 0.
  EXPECT_EQ(be64(actual, 24 + 16 * 254 + 8), 255u);
}

TEST(IndexWriter, ZeroLinksWritesEachBlockAtOnceWithoutLinks) {
  std::string path = output_path("links0");
  IndexWriter writer(0, 65536, 131072);
  ASSERT_TRUE(writer.open(path));
  add_frame(writer, 0, 1.0, filled(188, 'A'));
  EXPECT_EQ(writer.file->blocks_written, 1u);
  EXPECT_TRUE(writer.file->blocks.empty());
  add_frame(writer, 70000, 2.0, filled(376, 'B'));
  EXPECT_EQ(writer.file->blocks_written, 2u);
  EXPECT_TRUE(writer.file->blocks.empty());
  writer.close();

  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u * 5);
  EXPECT_EQ(be32(actual, 4096 + 4), 188u);
  EXPECT_EQ(actual.substr(4096 + 20, 2), std::string("\0\0", 2));
  EXPECT_EQ(be32(actual, 4096 + 22), 0u);
  EXPECT_EQ(be32(actual, 12288 + 4), 376u);
  EXPECT_EQ(be64(actual, 12288 + 12), 70000u);
  EXPECT_EQ(actual.substr(12288 + 20, 2), std::string("\0\0", 2));
  // Table: position 65536 is before the second frame and uses the first block.
  EXPECT_EQ(be32(actual, 24), 1u);
  EXPECT_EQ(be32(actual, 40), 1u);
}

TEST(IndexWriter, FewerFramesThanLinksAreWrittenOnlyAtClose) {
  std::string path = output_path("few_frames");
  IndexWriter writer(16, 65536, 65536 * 3);
  ASSERT_TRUE(writer.open(path));
  add_frame(writer, 0, 1.0, filled(188, 'A'));
  add_frame(writer, 70000, 2.0, filled(188, 'B'));
  add_frame(writer, 140000, 3.0, filled(188, 'C'));
  EXPECT_EQ(writer.file->blocks_written, 0u);
  EXPECT_EQ(writer.file->blocks_queued, 3);
  writer.flush();
  EXPECT_EQ(read_all(path), std::string(4096, '\0'));
  writer.close();

  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u * 7);
  EXPECT_EQ(be32(actual, 12), 3u);
  // f, b of the three blocks: 2 0, 1 1, 0 2; the data in order.
  EXPECT_EQ(actual.substr(4096 + 20, 2), std::string("\2\0", 2));
  EXPECT_EQ(actual.substr(12288 + 20, 2), std::string("\1\1", 2));
  EXPECT_EQ(actual.substr(20480 + 20, 2), std::string("\0\2", 2));
  EXPECT_EQ(actual.substr(8192, 188), filled(188, 'A'));
  EXPECT_EQ(actual.substr(16384, 188), filled(188, 'B'));
  EXPECT_EQ(actual.substr(24576, 188), filled(188, 'C'));
}

TEST(IndexWriter, LinksAbove255KeepTheLowEightBitsOfTheCountsButAllSizes) {
  std::string path = output_path("links300");
  const size_t frames = 258;
  {
    IndexWriter writer(300, 65536, 0);
    ASSERT_TRUE(writer.open(path));
    for (size_t j = 0; j < frames; j++) add_frame(writer, 188 * j, 1.0, filled(j + 1, 'x'));
    EXPECT_EQ(writer.file->blocks_written, 0u);
    writer.close();
  }
  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u + frames * 8192);
  // First block: 257 following sizes, counted as 1.
  EXPECT_EQ(static_cast<unsigned char>(actual[4096 + 20]), 1);
  EXPECT_EQ(static_cast<unsigned char>(actual[4096 + 21]), 0);
  for (size_t j = 1; j < frames; j++) EXPECT_EQ(be32(actual, 4096 + 22 + 4 * (j - 1)), j + 1);
  // Last block: no forward link, 257 preceding sizes counted as 1, nearest first.
  size_t last = 4096 + (frames - 1) * 8192;
  EXPECT_EQ(be32(actual, last + 4), frames);
  EXPECT_EQ(static_cast<unsigned char>(actual[last + 20]), 0);
  EXPECT_EQ(static_cast<unsigned char>(actual[last + 21]), 1);
  EXPECT_EQ(be32(actual, last + 22), frames - 1);
  EXPECT_EQ(be32(actual, last + 22 + 4 * 256), 1u);
}

TEST(IndexWriter, PcrOnlyIndexingMakesEntriesWithoutBlocks) {
  std::string path = output_path("pcr_only");
  LogCapture log;
  {
    IndexWriter writer(16, 65536, 262144);
    ASSERT_TRUE(writer.open(path));
    writer.add_pcr(0, 1.0);
    writer.add_pcr(70000, 2.0);
    writer.add_pcr(150000, 3.0);
    writer.close();
  }
  std::string expected(4096, '\0');
  put(expected, 0, {0x56, 0x44, 0x58, 0x46, 0, 0, 0x10, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0});
  put(expected, 20, {0, 0, 0, 4});
  // The block page is the number of the entry used.
  put(expected, 24, {0, 0, 0, 0, 0, 0, 0x03, 0xE8, 0, 0, 0, 0, 0, 0, 0, 0});
  put(expected, 40, {0, 0, 0, 0, 0, 0, 0x03, 0xE8, 0, 0, 0, 0, 0, 0, 0, 0});
  put(expected, 56, {0, 0, 0, 1, 0, 0, 0x07, 0xD0, 0, 0, 0, 0, 0, 0x01, 0x11, 0x70});
  put(expected, 72, {0, 0, 0, 2, 0, 0, 0x0B, 0xB8, 0, 0, 0, 0, 0, 0x02, 0x49, 0xF0});
  EXPECT_EQ(read_all(path), expected);
  EXPECT_TRUE(log.at(1).empty());
}

TEST(IndexWriter, TwoFramesInOnePrecisionStepAreReachedAtTheNextStep) {
  std::string path = output_path("two_in_step");
  {
    IndexWriter writer(16, 65536, 196608);
    ASSERT_TRUE(writer.open(path));
    add_frame(writer, 0, 1.0, filled(188, 'A'));
    add_frame(writer, 10000, 1.5, filled(188, 'B'));
    add_frame(writer, 70000, 2.0, filled(188, 'C'));
    writer.close();
  }
  std::string actual = read_all(path);
  // Blocks at pages 1, 3, 5.
  EXPECT_EQ(be32(actual, 24), 1u);
  EXPECT_EQ(be32(actual, 28), 1000u);
  EXPECT_EQ(be64(actual, 32), 0u);
  EXPECT_EQ(be32(actual, 40), 3u);
  EXPECT_EQ(be32(actual, 44), 1500u);
  EXPECT_EQ(be64(actual, 48), 10000u);
  EXPECT_EQ(be32(actual, 56), 5u);
  EXPECT_EQ(be64(actual, 64), 70000u);
}

TEST(IndexWriter, PcrBetweenFramesShiftsThePairingOfEntriesAndBlocks) {
  std::string path = output_path("pcr_between");
  LogCapture log;
  {
    IndexWriter writer(16, 65536, 196608);
    ASSERT_TRUE(writer.open(path));
    add_frame(writer, 0, 1.0, filled(188, 'A'));
    writer.add_pcr(50000, 1.5);
    add_frame(writer, 100000, 2.0, filled(188, 'B'));
    writer.close();
  }
  std::string actual = read_all(path);
  // The second block takes the time and offset of the PCR's entry, not of its frame.
  EXPECT_EQ(be32(actual, 12288 + 8), 1500u);
  EXPECT_EQ(be64(actual, 12288 + 12), 50000u);
  EXPECT_EQ(be32(actual, 24), 1u);
  EXPECT_EQ(be32(actual, 40), 3u);
  EXPECT_EQ(be64(actual, 48), 50000u);
  // The frame's own entry has no block of its own number any more.
  EXPECT_EQ(be32(actual, 56), 3u);
  EXPECT_EQ(be32(actual, 60), 2000u);
  EXPECT_EQ(be64(actual, 64), 100000u);
  EXPECT_EQ(log.at(1), (std::vector<std::string>{
                           "Ran out of extracted blocks for file offset 131072: need 2, using last "
                           "(1)"}));
}

TEST(IndexWriter, UnfinishedLastFrameLeavesPositionsBehindItOnTheLastBlock) {
  std::string path = output_path("unfinished");
  LogCapture log;
  {
    IndexWriter writer(16, 65536, 262144);
    ASSERT_TRUE(writer.open(path));
    add_frame(writer, 0, 1.0, filled(188, 'A'));
    CapturedPacket open_frame = frame_record(100000, 2.0, filled(188, 'B'), true, false);
    writer.add_packet(open_frame);
    writer.close();
  }
  std::string actual = read_all(path);
  EXPECT_EQ(be32(actual, 12), 1u);
  EXPECT_EQ(be32(actual, 56), 1u);
  EXPECT_EQ(be64(actual, 64), 100000u);
  EXPECT_EQ(be32(actual, 72), 1u);
  EXPECT_EQ(log.at(1), (std::vector<std::string>{
                           "Ran out of extracted blocks for file offset 131072: need 1, using last "
                           "(0)",
                           "Ran out of extracted blocks for file offset 196608: need 1, using last "
                           "(0)"}));
}

TEST(IndexWriter, WithoutAnyFrameEveryTablePositionUsesTheEndEntry) {
  std::string path = output_path("end_entry_only");
  LogCapture log;
  {
    IndexWriter writer(16, 65536, 131072);
    ASSERT_TRUE(writer.open(path));
    CapturedPacket timing;
    timing.state = PACKET_SKIPPED;
    timing.npt = 5.0;
    writer.add_packet(timing);
    writer.close();
  }
  std::string expected(4096, '\0');
  put(expected, 0, {0x56, 0x44, 0x58, 0x46, 0, 0, 0x10, 0, 0, 0, 0, 1, 0, 0, 0, 0, 0, 1, 0, 0});
  put(expected, 20, {0, 0, 0, 2});
  put(expected, 24, {0, 0, 0, 0, 0, 0, 0x13, 0x88, 0, 0, 0, 0, 0, 0x02, 0, 0});
  put(expected, 40, {0, 0, 0, 0, 0, 0, 0x13, 0x88, 0, 0, 0, 0, 0, 0x02, 0, 0});
  EXPECT_EQ(read_all(path), expected);
  EXPECT_TRUE(log.at(1).empty());
}

TEST(IndexWriter, RecordsWithoutTimeKeepTheLastTime) {
  std::string path = output_path("last_npt");
  {
    IndexWriter writer(16, 65536, 131072);
    ASSERT_TRUE(writer.open(path));
    CapturedPacket timing;
    timing.state = PACKET_SKIPPED;
    timing.npt = 7.25;
    writer.add_packet(timing);
    // A frame record with 0.0 is taken as no time of its own.
    add_frame(writer, 0, 0.0, filled(188, 'A'));
    writer.close();
  }
  std::string actual = read_all(path);
  EXPECT_EQ(be32(actual, 4096 + 8), 7250u);
  EXPECT_EQ(be32(actual, 28), 7250u);
}

TEST(IndexWriter, FrameDataIsTablesThenPreambleThenTheFramePackets) {
  std::string path = output_path("frame_data");
  {
    IndexWriter writer(16, 65536, 0);
    ASSERT_TRUE(writer.open(path));
    writer.set_tables("tables");
    writer.set_frame_preamble("pre");
    CapturedPacket first = frame_record(0, 1.0, "one", true, false);
    CapturedPacket skipped = frame_record(188, 1.0, "never", false, false);
    skipped.state = PACKET_SKIPPED;
    CapturedPacket last = frame_record(376, 1.0, "two", false, true);
    writer.add_packet(first);
    writer.add_packet(skipped);
    // Tables set during a frame apply to the next one.
    writer.set_tables("later");
    writer.add_packet(last);
    writer.close();
  }
  std::string actual = read_all(path);
  EXPECT_EQ(be32(actual, 4096 + 4), 15u);
  EXPECT_EQ(actual.substr(8192, 15), "tablespreonetwo");
}

TEST(IndexWriter, FlushLeavesAZeroHeaderAndTheBlocksWrittenSoFar) {
  std::string path = output_path("flush");
  IndexWriter writer(0, 65536, 200000);
  ASSERT_TRUE(writer.open(path));
  add_frame(writer, 0, 1.0, filled(188, 'A'));
  writer.flush();
  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u * 3);
  EXPECT_EQ(actual.substr(0, 4096), std::string(4096, '\0'));
  EXPECT_EQ(be32(actual, 4096), BLOCK_MAGIC);
  EXPECT_EQ(actual.substr(8192, 188), filled(188, 'A'));
  EXPECT_NE(writer.file, nullptr);
}

TEST(IndexWriter, OpenFailsOnAPathThatCannotBeWritten) {
  LogCapture log;
  IndexWriter writer(16, 65536, 0);
  std::string name = std::string(VDX_BINARY_DIR) + "/no/such/dir/x.vdx";
  EXPECT_FALSE(writer.open(name));
  EXPECT_EQ(writer.file, nullptr);
  EXPECT_EQ(log.at(1),
            (std::vector<std::string>{"Can't open index file " + name + " for writing"}));
}

TEST(IndexWriter, NothingIsRecordedWhileClosed) {
  IndexWriter writer(16, 65536, 0);
  CapturedPacket captured = frame_record(0, 3.0, "x", true, true);
  writer.add_packet(captured);
  writer.add_pcr(10, 4.0);
  EXPECT_EQ(writer.last_npt, 0.0);
  writer.close();
  EXPECT_EQ(writer.file, nullptr);
}

TEST(IndexWriter, OpeningAgainClosesTheFirstFile) {
  std::string first = output_path("reopen_first");
  std::string second = output_path("reopen_second");
  IndexWriter writer(16, 65536, 0);
  ASSERT_TRUE(writer.open(first));
  add_frame(writer, 0, 1.0, "abc");
  ASSERT_TRUE(writer.open(second));
  std::string closed = read_all(first);
  ASSERT_EQ(closed.size(), 4096u * 3);
  EXPECT_EQ(be32(closed, 0), VDX_MAGIC);
  EXPECT_EQ(be32(closed, 12), 1u);
}

TEST(IndexWriter, DestructorCompletesAnOpenFile) {
  std::string path = output_path("destructor");
  {
    IndexWriter writer(16, 65536, 0);
    ASSERT_TRUE(writer.open(path));
    add_frame(writer, 0, 1.0, "abc");
  }
  std::string actual = read_all(path);
  EXPECT_EQ(be32(actual, 0), VDX_MAGIC);
  EXPECT_EQ(be32(actual, 12), 1u);
}

TEST(IndexWriter, SourcesBeyondFourGigabytesIndexLikeAnyOther) {
  std::string path = output_path("large");
  uint64_t length = 0x180000000ull;  // 6 GiB
  {
    IndexWriter writer(16, 0x40000000u, length);
    ASSERT_TRUE(writer.open(path));
    add_frame(writer, 0, 1.0, "a");
    add_frame(writer, 0x140000000ull, 2.0, "b");
    writer.close();
  }
  std::string actual = read_all(path);
  EXPECT_EQ(be32(actual, 20), 6u);
  EXPECT_EQ(be32(actual, 24 + 16 * 4), 1u);
  EXPECT_EQ(be32(actual, 24 + 16 * 5), 3u);
  EXPECT_EQ(be64(actual, 24 + 16 * 5 + 8), 0x140000000ull);
}

}  // namespace
}  // namespace Veldrin::Index
