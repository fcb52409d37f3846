#include "index/index_file.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <fstream>
#include <iterator>
#include <limits>
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

// The files the tests write, in one directory removed when the tests end.
std::string output_path(const std::string& name) {
  static const Testing::ScratchDir dir;
  return dir.file(name + ".vdx");
}

TEST(IndexFile, NptIsMillisecondsTruncated) {
  EXPECT_EQ(npt_milliseconds(10.0), 10000u);
  EXPECT_EQ(npt_milliseconds(11.9999), 11999u);
  EXPECT_EQ(npt_milliseconds(0.0009), 0u);
  EXPECT_EQ(npt_milliseconds(5000000.0), 705032704u);  // 5e9 ms keeps its low 32 bits
}

TEST(IndexFile, NptWithoutAWholeNumberFormIsZero) {
  EXPECT_EQ(npt_milliseconds(std::numeric_limits<double>::quiet_NaN()), 0u);
  EXPECT_EQ(npt_milliseconds(1e300), 0u);
  EXPECT_EQ(npt_milliseconds(-std::numeric_limits<double>::infinity()), 0u);
}

TEST(IndexFile, HeaderSizeIsRoundedUpFromTwentyPlusSixteenPerEntry) {
  EXPECT_EQ(header_size(0), 4096u);
  EXPECT_EQ(header_size(3), 4096u);
  EXPECT_EQ(header_size(254), 4096u);   // 4084 bytes
  EXPECT_EQ(header_size(255), 8192u);   // 4100 bytes
  EXPECT_EQ(header_size(510), 8192u);   // 8180 bytes
  EXPECT_EQ(header_size(511), 12288u);  // 8196 bytes
}

TEST(IndexFile, StartWritesAZeroPlaceholderUpToThePageBoundary) {
  std::string path = output_path("placeholder");
  LogCapture log;
  {
    IndexFile file(path);
    ASSERT_FALSE(file.stream.fail());
    file.precision = 1000;
    file.start(300000);  // 300 entries: 4820 bytes
    EXPECT_EQ(file.length, 300000u);
    EXPECT_EQ(file.writer.offset, 8192u);
    EXPECT_EQ(file.entry_count(), 300u);
  }
  EXPECT_EQ(read_all(path), std::string(8192, '\0'));
  EXPECT_EQ(log.at(3),
            (std::vector<std::string>{"Creating index placeholder with 300 index entries"}));
}

TEST(IndexFile, ZeroPrecisionHasNoEntries) {
  IndexFile file(output_path("precision0"));
  file.precision = 0;
  file.start(1000);
  EXPECT_EQ(file.entry_count(), 0u);
  file.complete();
  EXPECT_EQ(file.writer.offset, 4096u);
}

TEST(IndexFile, ABlockWaitsUntilLinksLaterBlocksAreKnown) {
  IndexFile file(output_path("waits"));
  file.links = 2;
  file.start(0);
  file.entries = {{0, 1.0, 0}, {188, 2.0, 0}, {376, 3.0, 0}};
  file.add_block("a");
  file.add_block("bb");
  EXPECT_EQ(file.blocks_written, 0u);
  EXPECT_EQ(file.blocks_queued, 2);
  file.add_block("ccc");
  EXPECT_EQ(file.blocks_written, 1u);
  EXPECT_EQ(file.blocks_queued, 2);
  EXPECT_EQ(file.entries[0].position, 4096u);
  EXPECT_EQ(file.entries[1].position, 0u);
  EXPECT_EQ(file.writer.offset, 12288u);
}

TEST(IndexFile, BlockHeadHoldsSizeTimeOffsetAndLinks) {
  std::string path = output_path("head");
  {
    IndexFile file(path);
    file.links = 1;
    file.start(0);
    file.entries = {{0, 1.0, 0}, {0x123456789ull, 2.5, 0}, {9, 3.0, 0}};
    file.add_block(std::string(10, 'a'));
    file.add_block(std::string(20, 'b'));
    file.add_block(std::string(30, 'c'));
    file.stream.flush();
  }
  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u * 5);
  size_t at = 12288;  // the second block
  EXPECT_EQ(be32(actual, at), BLOCK_MAGIC);
  EXPECT_EQ(be32(actual, at + 4), 20u);
  EXPECT_EQ(be32(actual, at + 8), 2500u);
  EXPECT_EQ(be64(actual, at + 12), 0x123456789ull);
  EXPECT_EQ(actual[at + 20], 1);
  EXPECT_EQ(actual[at + 21], 1);
  EXPECT_EQ(be32(actual, at + 22), 30u);
  EXPECT_EQ(be32(actual, at + 26), 10u);
  EXPECT_EQ(actual.substr(at + 30, 4096 - 30), std::string(4096 - 30, '\0'));
  EXPECT_EQ(actual.substr(at + 4096, 20), std::string(20, 'b'));
}

TEST(IndexFile, RecentBlocksNeverExceedTwiceTheLinksPlusOne) {
  IndexFile file(output_path("bounded"));
  file.links = 2;
  file.start(0);
  for (int j = 0; j < 10; j++) file.entries.push_back({static_cast<uint64_t>(j), 0.0, 0});
  for (int j = 0; j < 10; j++) {
    file.add_block(std::string(static_cast<size_t>(j + 1), 'x'));
    EXPECT_LE(file.blocks.size(), 5u);
  }
  EXPECT_EQ(file.blocks_written, 8u);
  file.flush_blocks();
  EXPECT_EQ(file.blocks_written, 10u);
  EXPECT_EQ(file.blocks_queued, 0);
}

TEST(IndexFile, ZeroLinksEmptiesTheBlocksEachTime) {
  IndexFile file(output_path("links0"));
  file.links = 0;
  file.start(0);
  file.entries = {{0, 0.0, 0}, {1, 0.0, 0}};
  file.add_block("a");
  EXPECT_TRUE(file.blocks.empty());
  EXPECT_EQ(file.blocks_written, 1u);
  file.add_block("b");
  EXPECT_TRUE(file.blocks.empty());
  EXPECT_EQ(file.blocks_written, 2u);
}

TEST(IndexFile, NegativeLinksWriteEachBlockAtOnce) {
  std::string path = output_path("links_negative");
  {
    IndexFile file(path);
    file.links = -1;
    file.start(0);
    file.entries = {{0, 0.0, 0}, {1, 0.0, 0}};
    file.add_block("a");
    file.add_block("b");
    EXPECT_EQ(file.blocks_written, 2u);
    EXPECT_TRUE(file.blocks.empty());
    file.stream.flush();
  }
  std::string actual = read_all(path);
  // The backward count is the low 8 bits of -1, with no sizes behind it.
  EXPECT_EQ(static_cast<unsigned char>(actual[12288 + 20]), 0);
  EXPECT_EQ(static_cast<unsigned char>(actual[12288 + 21]), 0xFF);
  EXPECT_EQ(be32(actual, 12288 + 22), 0u);
}

TEST(IndexFile, FlushBlocksWritesTheQueueWithShrinkingForwardLinks) {
  std::string path = output_path("flush_blocks");
  LogCapture log;
  {
    IndexFile file(path);
    file.links = 4;
    file.start(0);
    file.entries = {{0, 0.0, 0}, {1, 0.0, 0}, {2, 0.0, 0}};
    file.add_block("a");
    file.add_block("b");
    file.add_block("c");
    file.flush_blocks();
    EXPECT_EQ(file.blocks_written, 3u);
    EXPECT_EQ(file.blocks_queued, 0);
    file.stream.flush();
  }
  std::string actual = read_all(path);
  EXPECT_EQ(actual[4096 + 20], 2);
  EXPECT_EQ(actual[12288 + 20], 1);
  EXPECT_EQ(actual[20480 + 20], 0);
  EXPECT_EQ(actual[20480 + 21], 2);
  EXPECT_EQ(log.at(3).back(), "3 blocks output");
}

TEST(IndexFile, BlockWithoutEntryGetsOffsetZeroAndIsReported) {
  std::string path = output_path("no_entry");
  LogCapture log;
  {
    IndexFile file(path);
    file.links = 0;
    file.start(0);
    file.entries = {{77, 1.0, 0}};
    file.add_block("a");
    file.add_block("b");
    file.stream.flush();
  }
  std::string actual = read_all(path);
  EXPECT_EQ(be64(actual, 4096 + 12), 77u);
  EXPECT_EQ(be32(actual, 12288 + 8), 0u);
  EXPECT_EQ(be64(actual, 12288 + 12), 0u);
  EXPECT_EQ(be32(actual, 12288 + 4), 1u);
  EXPECT_EQ(log.at(1), (std::vector<std::string>{"Ran out of original index offsets at block 1"}));
}

TEST(IndexFile, CompleteWritesTheHeaderOverThePlaceholder) {
  std::string path = output_path("complete");
  LogCapture log;
  {
    IndexFile file(path);
    file.links = 16;
    file.precision = 100;
    file.start(250);
    file.entries = {{0, 1.0, 0}, {150, 2.0, 0}, {250, 2.0, 0}};
    file.add_block("a");
    file.add_block("b");
    file.flush_blocks();
    file.complete();
  }
  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u * 5);
  EXPECT_EQ(be32(actual, 0), VDX_MAGIC);
  EXPECT_EQ(be32(actual, 4), 4096u);
  EXPECT_EQ(be32(actual, 8), VDX_VERSION);
  EXPECT_EQ(be32(actual, 12), 2u);
  EXPECT_EQ(be32(actual, 16), 100u);
  EXPECT_EQ(be32(actual, 20), 2u);
  // Position 0 and position 100, both before the second entry at 150.
  EXPECT_EQ(be32(actual, 24), 1u);
  EXPECT_EQ(be32(actual, 28), 1000u);
  EXPECT_EQ(be32(actual, 40), 1u);
  EXPECT_EQ(actual.substr(56, 4096 - 56), std::string(4096 - 56, '\0'));
  EXPECT_EQ(log.at(3).back(), "Completing index with 2 blocks");
  EXPECT_TRUE(log.at(1).empty());
}

TEST(IndexFile, FirstEntryServesPositionsBeforeTheSecondWhereverItLies) {
  std::string path = output_path("first_entry");
  {
    IndexFile file(path);
    file.precision = 100;
    file.start(300);
    file.entries = {{250, 1.0, 0}, {260, 2.0, 0}, {300, 3.0, 0}};
    file.complete();
  }
  std::string actual = read_all(path);
  EXPECT_EQ(be64(actual, 24 + 8), 250u);
  EXPECT_EQ(be64(actual, 40 + 8), 250u);
  EXPECT_EQ(be64(actual, 56 + 8), 250u);
}

TEST(IndexFile, TableWithoutAnEndEntryUsesTheEndOfFile) {
  std::string path = output_path("no_end_entry");
  LogCapture log;
  {
    IndexFile file(path);
    file.precision = 65536;
    file.start(196608);
    file.entries = {{0, 1.0, 0}, {10000, 2.0, 0}};
    file.complete();
  }
  std::string actual = read_all(path);
  // No blocks: the block page is the entry's number.
  EXPECT_EQ(be32(actual, 24), 0u);
  EXPECT_EQ(be32(actual, 40), 1u);
  EXPECT_EQ(be64(actual, 48), 10000u);
  EXPECT_EQ(be32(actual, 56), 1u);
  EXPECT_EQ(
      log.at(1),
      (std::vector<std::string>{"Ran out of original offsets at block 1 - using end-of-file"}));
}

TEST(IndexFile, TableWithoutEntriesIsZeroAndReported) {
  std::string path = output_path("no_entries");
  LogCapture log;
  {
    IndexFile file(path);
    file.precision = 65536;
    file.start(131072);
    file.complete();
  }
  std::string actual = read_all(path);
  ASSERT_EQ(actual.size(), 4096u);
  EXPECT_EQ(be32(actual, 20), 2u);
  EXPECT_EQ(actual.substr(24), std::string(4096 - 24, '\0'));
  EXPECT_EQ(log.at(1),
            (std::vector<std::string>{"Ran out of index for file offset 0: need 0, using last (-1)",
                                      "Ran out of index for file offset 65536: need 0, using last "
                                      "(-1)"}));
}

TEST(IndexFile, ConstructorReportsAFileThatCannotBeOpened) {
  LogCapture log;
  std::string name = std::string(VDX_BINARY_DIR) + "/missing/dir/file.vdx";
  IndexFile file(name);
  EXPECT_TRUE(file.stream.fail());
  EXPECT_EQ(file.filename, name);
  EXPECT_EQ(log.at(1),
            (std::vector<std::string>{"Can't open index file " + name + " for writing"}));
}

}  // namespace
}  // namespace Veldrin::Index
