#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"
#include "e2e/vdx_file.h"

namespace Veldrin::Testing {
namespace {

constexpr uint16_t AUDIO_PID = 0x101;

std::string fixture_bytes(const std::string& name) {
  return read_file(source_path("tests/fixtures/" + name));
}

uint16_t pid_at(const std::string& stream, size_t at) {
  return static_cast<uint16_t>(((static_cast<unsigned char>(stream[at + 1]) & 0x1F) << 8) |
                               static_cast<unsigned char>(stream[at + 2]));
}

// The stream without the packets of one PID, taken out packet by packet.
std::string without_pid(const std::string& stream, uint16_t pid) {
  std::string out;
  for (size_t at = 0; at + 188 <= stream.size(); at += 188) {
    if (pid_at(stream, at) != pid) out.append(stream, at, 188);
  }
  return out;
}

std::vector<uint64_t> block_offsets(const VdxFile& file) {
  std::vector<uint64_t> offsets;
  for (const VdxBlock& block : file.blocks) offsets.push_back(block.offset);
  return offsets;
}

// Runs "-f vdx [options] input output" and reads the output back.
struct Indexed {
  RunResult result;
  std::string bytes;
  VdxFile file;
};

Indexed index(const ScratchDir& dir, const std::string& input, const std::string& output,
              const std::vector<std::string>& options = {}) {
  std::vector<std::string> args = {"-f", "vdx"};
  args.insert(args.end(), options.begin(), options.end());
  args.push_back(input);
  args.push_back(output);
  Indexed indexed;
  indexed.result = run_vdxindex(args, dir.path);
  indexed.bytes = read_file(output);
  indexed.file = parse_vdx(indexed.bytes);
  return indexed;
}

TEST(SyncedOffsets, IdenticalCopyLeavesTheIndexUnchanged) {
  for (const char* fixture : {"mpeg2_bframes.ts", "h264_closed_gop.ts"}) {
    SCOPED_TRACE(fixture);
    ScratchDir dir;
    std::string bytes = fixture_bytes(fixture);
    ASSERT_TRUE(write_file(dir.file("a.ts"), bytes));
    ASSERT_TRUE(write_file(dir.file("b.ts"), bytes));
    Indexed plain = index(dir, dir.file("a.ts"), dir.file("plain.vdx"));
    Indexed synced = index(dir, dir.file("a.ts"), dir.file("synced.vdx"), {"-O", dir.file("b.ts")});
    Indexed synonym =
        index(dir, dir.file("a.ts"), dir.file("synonym.vdx"), {"-Is", dir.file("b.ts")});
    ASSERT_EQ(plain.result.status, 0) << plain.result.err;
    ASSERT_EQ(synced.result.status, 0) << synced.result.err;
    ASSERT_EQ(synonym.result.status, 0) << synonym.result.err;
    ASSERT_TRUE(plain.file.valid);
    ASSERT_GT(plain.file.blocks.size(), 0u);
    EXPECT_EQ(synced.bytes, plain.bytes);
    EXPECT_EQ(synonym.bytes, plain.bytes);
    std::vector<std::string> lines = split_lines(synced.result.err);
    EXPECT_NE(
        std::find(lines.begin(), lines.end(), "Syncing to " + dir.file("b.ts") + " for offsets"),
        lines.end());
    EXPECT_EQ(lines.back(), "Done");
  }
}

TEST(SyncedOffsets, GarbageHeadAgainstTheCleanCopyGivesOffsetsOneHundredLess) {
  ScratchDir dir;
  std::string clean = fixture_bytes("mpeg2_bframes.ts");
  ASSERT_TRUE(write_file(dir.file("clean.ts"), clean));
  ASSERT_TRUE(write_file(dir.file("head.ts"), std::string(100, '\0') + clean));
  Indexed plain = index(dir, dir.file("head.ts"), dir.file("plain.vdx"));
  Indexed synced =
      index(dir, dir.file("head.ts"), dir.file("synced.vdx"), {"-O", dir.file("clean.ts")});
  Indexed reference = index(dir, dir.file("clean.ts"), dir.file("clean.vdx"));
  ASSERT_EQ(plain.result.status, 0) << plain.result.err;
  ASSERT_EQ(synced.result.status, 0) << synced.result.err;
  ASSERT_TRUE(synced.file.valid);
  ASSERT_EQ(synced.file.blocks.size(), plain.file.blocks.size());
  ASSERT_GT(synced.file.blocks.size(), 0u);
  for (size_t k = 0; k < synced.file.blocks.size(); k++) {
    EXPECT_EQ(synced.file.blocks[k].offset + 100, plain.file.blocks[k].offset);
    EXPECT_EQ(synced.file.blocks[k].data, plain.file.blocks[k].data);
  }
  EXPECT_EQ(block_offsets(synced.file), block_offsets(reference.file));
  for (size_t i = 0; i < synced.file.table.size(); i++) {
    EXPECT_EQ(synced.file.table[i].offset + 100, plain.file.table[i].offset);
  }
}

TEST(SyncedOffsets, InputWithAPidRemovedGetsThePositionsInTheFullStream) {
  for (const char* fixture : {"mpeg2_bframes.ts", "h264_closed_gop.ts"}) {
    SCOPED_TRACE(fixture);
    ScratchDir dir;
    std::string full = fixture_bytes(fixture);
    std::string filtered = without_pid(full, AUDIO_PID);
    ASSERT_LT(filtered.size(), full.size());
    ASSERT_TRUE(write_file(dir.file("full.ts"), full));
    ASSERT_TRUE(write_file(dir.file("filtered.ts"), filtered));
    Indexed plain = index(dir, dir.file("filtered.ts"), dir.file("plain.vdx"));
    Indexed synced =
        index(dir, dir.file("filtered.ts"), dir.file("synced.vdx"), {"-O", dir.file("full.ts")});
    ASSERT_EQ(synced.result.status, 0) << synced.result.err;
    ASSERT_TRUE(synced.file.valid);
    ASSERT_EQ(synced.file.blocks.size(), plain.file.blocks.size());
    ASSERT_GT(synced.file.blocks.size(), 0u);
    size_t moved = 0;
    for (size_t k = 0; k < synced.file.blocks.size(); k++) {
      uint64_t in_full = synced.file.blocks[k].offset;
      uint64_t in_filtered = plain.file.blocks[k].offset;
      EXPECT_EQ(in_full % 188, 0u);
      EXPECT_GE(in_full, in_filtered);
      if (in_full != in_filtered) moved++;
      EXPECT_EQ(full.substr(in_full, 188), filtered.substr(in_filtered, 188)) << "block " << k;
    }
    // Behind the first packet removed, the positions differ.
    EXPECT_GT(moved, 0u);
  }
}

TEST(SyncedOffsets, OffsetFileLackingAPidEndsWithStatusNineAndAnUnfinishedIndex) {
  ScratchDir dir;
  std::string full = fixture_bytes("mpeg2_bframes.ts");
  ASSERT_TRUE(write_file(dir.file("full.ts"), full));
  ASSERT_TRUE(write_file(dir.file("filtered.ts"), without_pid(full, AUDIO_PID)));
  Indexed synced =
      index(dir, dir.file("full.ts"), dir.file("synced.vdx"), {"-O", dir.file("filtered.ts")});
  EXPECT_EQ(synced.result.status, 9);
  std::vector<std::string> lines = split_lines(synced.result.err);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "Could not synchronise with offset file. Aborting.");
  EXPECT_EQ(std::count(lines.begin(), lines.end(), "Done"), 0);
  // The writer isn't closed: the placeholder stays all zero.
  ASSERT_GE(synced.bytes.size(), 4096u);
  EXPECT_EQ(synced.bytes.substr(0, 4096), std::string(4096, '\0'));
  EXPECT_FALSE(synced.file.valid);
}

TEST(SyncedOffsets, StatusNineLeavesTheBlocksWrittenBeforeTheFailure) {
  ScratchDir dir;
  std::string full = fixture_bytes("mpeg2_bframes.ts");
  // A packet of a PID the offset file doesn't have, well inside the input.
  size_t at = 2500 * 188;
  std::string input = full.substr(0, at) + make_packet(0x1234, 0) + full.substr(at);
  ASSERT_TRUE(write_file(dir.file("full.ts"), full));
  ASSERT_TRUE(write_file(dir.file("input.ts"), input));
  Indexed reference = index(dir, dir.file("full.ts"), dir.file("reference.vdx"), {"-In", "0"});
  Indexed synced = index(dir, dir.file("input.ts"), dir.file("synced.vdx"),
                         {"-In", "0", "-O", dir.file("full.ts")});
  ASSERT_EQ(synced.result.status, 9);
  ASSERT_TRUE(reference.file.valid);
  EXPECT_EQ(synced.bytes.substr(0, 4096), std::string(4096, '\0'));
  bool ok = false;
  std::vector<VdxBlock> blocks = parse_vdx_blocks(synced.bytes, 4096, ok);
  EXPECT_TRUE(ok);
  ASSERT_GT(blocks.size(), 0u);
  ASSERT_LT(blocks.size(), reference.file.blocks.size());
  for (size_t k = 0; k < blocks.size(); k++) {
    EXPECT_LT(blocks[k].offset, at);
    EXPECT_EQ(blocks[k].offset, reference.file.blocks[k].offset);
    EXPECT_EQ(blocks[k].data, reference.file.blocks[k].data);
  }
}

TEST(SyncedOffsets, FailureInTheLastChunkOfTheInputEndsNormally) {
  ScratchDir dir;
  std::string full = fixture_bytes("mpeg2_bframes.ts");
  // The extra packet lies in the last chunk of 65536 bytes, which is shorter than a whole one.
  std::string input = full + make_packet(0x1234, 0);
  ASSERT_NE(input.size() % 65536, 0u);
  ASSERT_GT(full.size(), input.size() / 65536 * 65536);
  ASSERT_TRUE(write_file(dir.file("full.ts"), full));
  ASSERT_TRUE(write_file(dir.file("input.ts"), input));
  Indexed synced =
      index(dir, dir.file("input.ts"), dir.file("synced.vdx"), {"-O", dir.file("full.ts")});
  EXPECT_EQ(synced.result.status, 0) << synced.result.err;
  std::vector<std::string> lines = split_lines(synced.result.err);
  EXPECT_EQ(
      std::count(lines.begin(), lines.end(), "Could not synchronise with offset file. Aborting."),
      0);
  EXPECT_EQ(lines.back(), "Done");
  EXPECT_TRUE(synced.file.valid);
  EXPECT_GT(synced.file.blocks.size(), 0u);
}

TEST(SyncedOffsets, FailureInAWholeLastChunkEndsWithStatusNine) {
  ScratchDir dir;
  std::string full = fixture_bytes("mpeg2_bframes.ts");
  // Input of exactly nine chunks, the extra packet in the ninth and zero bytes after it: the
  // read of the last chunk doesn't yet meet the end of the file.
  size_t total = 9 * 65536;
  size_t packets = (total - 188 - 100) / 188;
  std::string input = full.substr(0, packets * 188) + make_packet(0x1234, 0);
  input.resize(total, '\0');
  ASSERT_GT(packets * 188, 8u * 65536);
  ASSERT_TRUE(write_file(dir.file("full.ts"), full));
  ASSERT_TRUE(write_file(dir.file("input.ts"), input));
  Indexed synced =
      index(dir, dir.file("input.ts"), dir.file("synced.vdx"), {"-O", dir.file("full.ts")});
  EXPECT_EQ(synced.result.status, 9);
  EXPECT_EQ(split_lines(synced.result.err).back(),
            "Could not synchronise with offset file. Aborting.");
}

TEST(SyncedOffsets, OffsetFileThatCannotBeOpenedEndsWithStatusSeven) {
  ScratchDir dir;
  std::string bytes = fixture_bytes("mpeg2_bframes.ts");  // 9 table entries: one page
  ASSERT_TRUE(write_file(dir.file("in.ts"), bytes));
  std::string missing = dir.file("missing.ts");
  Indexed synced = index(dir, dir.file("in.ts"), dir.file("out.vdx"), {"-O", missing});
  EXPECT_EQ(synced.result.status, 7);
  std::vector<std::string> lines = split_lines(synced.result.err);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines.back(), "Could not open offset sync file: " + missing);
  EXPECT_EQ(synced.bytes, std::string(4096, '\0'));
}

}  // namespace
}  // namespace Veldrin::Testing
