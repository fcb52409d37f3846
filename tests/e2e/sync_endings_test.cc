#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"

namespace Veldrin::Testing {
namespace {

// How a run with an offset file ends: its messages, its status and what its files hold then.

const std::string BANNER = "Veldrin MPEG2 Transport Stream indexer version 3.1.6\n";
const std::string SYNC_FAILED = "Could not synchronise with offset file. Aborting.";

std::optional<uint64_t> pcr_every_100(size_t index) {
  if (index % 100 != 0) return std::nullopt;
  return 27000000 + (index / 100) * 3375000;
}

// The 256 bytes of a VDX2 header with no flags and the default block size.
std::string vdx2_header() {
  std::string header(256, '\0');
  header.replace(0, 16, std::string("VDX2\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x01\x00", 16));
  return header;
}

TEST(SyncEndings, UnopenedOffsetFileLeavesTheVdx2HeaderFlushed) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100, pcr_every_100));
  RunResult result = run_vdxindex({"-O", "missing.ts", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(result.err, BANNER +
                            "Indexing in.ts into in.ts.vdx2\n"
                            "Syncing to missing.ts for offsets\n"
                            "Output index format: VDX2\n"
                            "Could not open offset sync file: missing.ts\n");
  EXPECT_EQ(read_file(dir.file("in.ts.vdx2")), vdx2_header());
}

TEST(SyncEndings, UnopenedSyncFileLeavesTheVdxPlaceholderAllZero) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100, pcr_every_100));
  RunResult result = run_vdxindex({"-f", "vdx", "-Is", "missing.ts", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 7);
  EXPECT_EQ(split_lines(result.err).back(), "Could not open offset sync file: missing.ts");
  // Three table entries for 206800 bytes: 68 bytes, one page, all zero.
  EXPECT_EQ(read_file(dir.file("in.ts.vdx")), std::string(4096, '\0'));
}

// Input of 1046 packets without PCR: chunks of 65536 bytes end at 65536, 131072 and 196608;
// packet 1044 (196272 to 196459) lies in the third chunk, packet 1045 (196460 to 196647) ends
// in the fourth, the last.
TEST(SyncEndings, FailureBeforeTheLastChunkSkipsTheEndOfTheRun) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1046));
  write_file(dir.file("short.ts"), make_packets(0x100, 1044));
  RunResult result = run_vdxindex({"-O", "short.ts", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 9);
  EXPECT_EQ(result.err, BANNER +
                            "Indexing in.ts into in.ts.vdx2\n"
                            "Syncing to short.ts for offsets\n"
                            "Output index format: VDX2\n" +
                            SYNC_FAILED + "\n");
  EXPECT_EQ(read_file(dir.file("in.ts.vdx2")), vdx2_header());
}

TEST(SyncEndings, VdxFileOfAFailedSyncIsNotCompleted) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1046));
  write_file(dir.file("short.ts"), make_packets(0x100, 1044));
  RunResult result = run_vdxindex({"-f", "vdx", "-O", "short.ts", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 9);
  EXPECT_EQ(split_lines(result.err).back(), SYNC_FAILED);
  EXPECT_EQ(read_file(dir.file("in.ts.vdx")), std::string(4096, '\0'));
}

TEST(SyncEndings, FailureInTheLastChunkIsForgiven) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1046));
  write_file(dir.file("short.ts"), make_packets(0x100, 1045));
  RunResult result = run_vdxindex({"-O", "short.ts", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, BANNER +
                            "Indexing in.ts into in.ts.vdx2\n"
                            "Syncing to short.ts for offsets\n"
                            "Output index format: VDX2\n"
                            "Creating index of 0 blocks\n"
                            "Duration:\t-1\tseconds\n"
                            "Done\n");
}

TEST(SyncEndings, FailureInTheLastChunkOfStandardInputIsForgiven) {
  ScratchDir dir;
  write_file(dir.file("short.ts"), make_packets(0x100, 1045));
  RunResult result = run_vdxindex({"-O", "short.ts", "-"}, dir.path, make_packets(0x100, 1046));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(split_lines(result.err).back(), "Done");
}

TEST(SyncEndings, FailureInAFullSizedLastChunkOfStandardInputEndsWithStatusNine) {
  // 196608 bytes: the third read delivers a whole chunk and the stream doesn't report its end.
  std::string input = make_packets(0x100, 1046).substr(0, 196608);
  ScratchDir dir;
  write_file(dir.file("short.ts"), make_packets(0x100, 1044));
  RunResult result = run_vdxindex({"-O", "short.ts", "-"}, dir.path, input);
  EXPECT_EQ(result.status, 9);
  EXPECT_EQ(split_lines(result.err).back(), SYNC_FAILED);
  EXPECT_EQ(read_file(dir.file("-.vdx2")), vdx2_header());
}

TEST(SyncEndings, SeekIndexUpToAFailureReachesTheFile) {
  ScratchDir dir;
  std::string input = make_packets(0x100, 1100, pcr_every_100);
  write_file(dir.file("in.ts"), input);
  // The offset file stops after packet 499: packet 500 fails in the second chunk.
  write_file(dir.file("short.ts"), input.substr(0, 500 * 188));
  RunResult result = run_vdxindex({"-S", "-O", "short.ts", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 9);
  Vdx2File index = parse_vdx2(read_file(dir.file("in.ts.vdx2")));
  ASSERT_TRUE(index.valid);
  ASSERT_EQ(index.blocks.size(), 4u);
  for (size_t j = 1; j <= 4; ++j) EXPECT_EQ(index.blocks[j - 1].offset, j * 18800) << j;
}

TEST(SyncEndings, FrameFileOfAFailedSyncHoldsEveryFrameWrittenBeforeTheFailure) {
  ScratchDir dir;
  std::string full = read_file(source_path("tests/fixtures/mpeg2_bframes.ts"));
  // A packet of a PID that the offset file doesn't have, well inside the input and ahead of its
  // last chunk.
  size_t at = 2500 * 188;
  ASSERT_LT(at, full.size() / 65536 * 65536);
  write_file(dir.file("full.ts"), full);
  write_file(dir.file("input.ts"), full.substr(0, at) + make_packet(0x1234, 0) + full.substr(at));

  RunResult whole = run_vdxindex({"-IX", "whole.vdf", "full.ts", "whole.vdx2"}, dir.path);
  ASSERT_EQ(whole.status, 0) << whole.err;
  RunResult failed =
      run_vdxindex({"-IX", "failed.vdf", "-O", "full.ts", "input.ts", "failed.vdx2"}, dir.path);
  ASSERT_EQ(failed.status, 9);
  EXPECT_EQ(split_lines(failed.err).back(), SYNC_FAILED);

  // The frames written up to the failure, packet by packet, as the whole run wrote them.
  std::string frames = read_file(dir.file("failed.vdf"));
  std::string all_frames = read_file(dir.file("whole.vdf"));
  ASSERT_FALSE(frames.empty());
  EXPECT_LT(frames.size(), all_frames.size());
  EXPECT_EQ(frames.size() % 188, 0u);
  EXPECT_EQ(all_frames.substr(0, frames.size()), frames);
  // Whatever the index written so far refers to is in the frame file.
  Vdx2File index = parse_vdx2(read_file(dir.file("failed.vdx2")));
  ASSERT_TRUE(index.valid);
  ASSERT_FALSE(index.blocks.empty());
  for (const Vdx2Block& block : index.blocks)
    EXPECT_LE(block.ref_offset + block.ref_length, frames.size());
}

}  // namespace
}  // namespace Veldrin::Testing
