#include <gtest/gtest.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include "e2e/replay_support.h"
#include "e2e/streams.h"
#include "e2e/tool_runner.h"

namespace Veldrin::Testing {
namespace {

constexpr uint32_t FLAG_NEW_NPT = 1;
constexpr uint32_t FLAG_INTRA = 2;
constexpr uint32_t FLAG_REF = 4;
constexpr uint32_t FLAG_VIDEO_START = 8;

void copy_fixture(const ScratchDir& dir, const std::string& name) {
  ASSERT_TRUE(write_file(dir.file(name), read_file(source_path("tests/fixtures/" + name))));
}

// The frames that -d writes to standard output, in dir/dump.ts.
void dump_frames(const ScratchDir& dir, const std::string& name) {
  RunResult dumped = run_vdxindex({"-d", name, "dump.vdx2"}, dir.path);
  ASSERT_EQ(dumped.status, 0) << dumped.err;
  ASSERT_FALSE(dumped.out.empty());
  ASSERT_TRUE(write_file(dir.file("dump.ts"), dumped.out));
}

// What a player would send for the index, in dir/<out>.
void replay(const ScratchDir& dir, const std::string& index, const std::string& source,
            const std::string& out) {
  RunResult replayed = run_vdx2dump({"--replay", source, index}, dir.path);
  ASSERT_EQ(replayed.status, 0) << replayed.err;
  EXPECT_EQ(replayed.err, "");
  ASSERT_TRUE(write_file(dir.file(out), replayed.out));
}

void expect_same_intra_pictures(const ScratchDir& dir, const std::string& replayed) {
  const Decoded dump = decode(dir.file("dump.ts"));
  const Decoded replay = decode(dir.file(replayed));
  EXPECT_EQ(dump.status, 0);
  EXPECT_EQ(replay.status, 0);
  EXPECT_EQ(replay.errors, "");
  ASSERT_FALSE(dump.hashes.empty());
  EXPECT_EQ(replay.hashes, dump.hashes);
  EXPECT_EQ(replay.picture_types, std::vector<std::string>(dump.hashes.size(), "I"));
}

// Blocks written outside a group are bare time points; the blocks of a group stand together,
// numbered from 0 to count - 1, the first with the tables and one of them starting the video.
// Gives the number of groups.
size_t check_groups(const Vdx2File& file, uint64_t referenced_size) {
  size_t groups = 0;
  size_t i = 0;
  while (i < file.blocks.size()) {
    const Vdx2Block& head = file.blocks[i];
    if (head.count == 0) {
      EXPECT_EQ(head.flags, FLAG_NEW_NPT) << "block " << i;
      EXPECT_EQ(head.data, "") << "block " << i;
      EXPECT_EQ(head.ref_length, 0u) << "block " << i;
      ++i;
      continue;
    }
    const size_t count = head.count;
    if (i + count > file.blocks.size()) {
      ADD_FAILURE() << "group at block " << i << " of " << count << " runs past the end";
      return groups;
    }
    EXPECT_NE(head.flags & FLAG_INTRA, 0u) << "block " << i;
    size_t video_starts = 0;
    size_t inline_bytes = 0;
    for (size_t k = 0; k < count; ++k) {
      const Vdx2Block& block = file.blocks[i + k];
      EXPECT_EQ(block.count, count) << "block " << i + k;
      EXPECT_EQ(block.index, k) << "block " << i + k;
      if (block.flags & FLAG_VIDEO_START) ++video_starts;
      if (block.flags & FLAG_REF) {
        EXPECT_LE(block.ref_offset + block.ref_length, referenced_size) << "block " << i + k;
      } else {
        EXPECT_EQ(block.ref_length, 0u) << "block " << i + k;
      }
      inline_bytes += block.data.size();
    }
    EXPECT_EQ(video_starts, 1u) << "group at block " << i;
    EXPECT_EQ(inline_bytes % 188, 0u) << "group at block " << i;
    ++groups;
    i += count;
  }
  return groups;
}

size_t frames_counted(const RunResult& run) {
  const std::string marker = "Creating index of ";
  const size_t at = run.err.find(marker);
  if (at == std::string::npos) return 0;
  return std::stoul(run.err.substr(at + marker.size()));
}

TEST(IndexReplay, ReplayDecodesToTheIntraPicturesOfTheDump) {
  VDX_REQUIRE_FFMPEG();
  const auto fixtures = mpeg2_fixtures();
  ASSERT_FALSE(fixtures.empty());
  for (const std::string& name : fixtures) {
    SCOPED_TRACE(name);
    ScratchDir dir;
    copy_fixture(dir, name);
    RunResult indexed = run_vdxindex({name}, dir.path);
    ASSERT_EQ(indexed.status, 0) << indexed.err;
    dump_frames(dir, name);
    replay(dir, name + ".vdx2", name, "replay.ts");
    expect_same_intra_pictures(dir, "replay.ts");
  }
}

TEST(IndexReplay, ExternalFrameFileReplaysTheSamePictures) {
  VDX_REQUIRE_FFMPEG();
  for (const std::string& name : mpeg2_fixtures()) {
    SCOPED_TRACE(name);
    ScratchDir dir;
    copy_fixture(dir, name);
    RunResult indexed = run_vdxindex({"-Ix", name}, dir.path);
    ASSERT_EQ(indexed.status, 0) << indexed.err;
    ASSERT_TRUE(file_exists(dir.file(name + ".vdf")));
    dump_frames(dir, name);
    replay(dir, name + ".vdx2", name + ".vdf", "replay.ts");
    expect_same_intra_pictures(dir, "replay.ts");
  }
}

TEST(IndexReplay, OtherBlockSizesCutTheDataDifferentlyButReplayTheSamePictures) {
  VDX_REQUIRE_FFMPEG();
  const std::string name = "mpeg2_bframes.ts";
  ScratchDir dir;
  copy_fixture(dir, name);
  dump_frames(dir, name);
  for (const std::string size : {"37", "100", "4096"}) {
    SCOPED_TRACE(size);
    const std::string index = "b" + std::string(size) + ".vdx2";
    RunResult indexed = run_vdxindex({"-Ib", size, name, index}, dir.path);
    ASSERT_EQ(indexed.status, 0) << indexed.err;
    const std::string bytes = read_file(dir.file(index));
    EXPECT_EQ(bytes.size() % std::stoul(size), 0u);
    const Vdx2File file = parse_vdx2(bytes);
    EXPECT_TRUE(file.valid);
    EXPECT_EQ(file.block_size, std::stoul(size));
    EXPECT_GE(check_groups(file, read_file(dir.file(name)).size()), 1u);
    replay(dir, index, name, "replay.ts");
    expect_same_intra_pictures(dir, "replay.ts");
  }
}

TEST(IndexReplay, IndexIsWholeBlocksAndEveryGroupNumbersItsBlocks) {
  for (const std::string& name : mpeg2_fixtures()) {
    for (const bool external : {false, true}) {
      SCOPED_TRACE(name + (external ? " with external frames" : ""));
      ScratchDir dir;
      copy_fixture(dir, name);
      std::vector<std::string> args = {name};
      if (external) args.insert(args.begin(), "-Ix");
      RunResult indexed = run_vdxindex(args, dir.path);
      ASSERT_EQ(indexed.status, 0) << indexed.err;

      const std::string bytes = read_file(dir.file(name + ".vdx2"));
      EXPECT_EQ(bytes.size() % 256, 0u);
      const Vdx2File file = parse_vdx2(bytes);
      ASSERT_TRUE(file.valid);
      EXPECT_EQ(file.header_size, 256u);
      EXPECT_EQ(file.flags, external ? 1u : 0u);
      const std::string referenced = external ? name + ".vdf" : name;
      const size_t groups = check_groups(file, read_file(dir.file(referenced)).size());
      EXPECT_GE(groups, 1u);
      // Frames still in the generator's hands when the input ends never reach the writer.
      EXPECT_LE(groups, frames_counted(indexed));
    }
  }
}

TEST(IndexReplay, BlockSizeBelowSixteenEndsTheProcessAbnormallyAtOpen) {
  ScratchDir dir;
  copy_fixture(dir, "mpeg2_bframes.ts");
  RunResult result = run_vdxindex({"-Ib", "15", "mpeg2_bframes.ts"}, dir.path);
  EXPECT_EQ(result.status, -1);
  EXPECT_EQ(result.signal, 6);
  EXPECT_NE(result.err.find("terminate called after throwing an instance of "
                            "'Korvix::Channel::Error'"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(result.err.find("Creating index of "), std::string::npos);
}

TEST(IndexReplay, BlockSizesFrom16To35FailEveryBlockWriteWhileTheRunEndsNormally) {
  for (const uint32_t size : {16u, 20u, 35u}) {
    SCOPED_TRACE(size);
    ScratchDir dir;
    copy_fixture(dir, "mpeg2_bframes.ts");
    RunResult result =
        run_vdxindex({"-Ib", std::to_string(size), "mpeg2_bframes.ts", "out.vdx2"}, dir.path);
    EXPECT_EQ(result.status, 0);
    EXPECT_EQ(split_lines(result.err).back(), "Done");
    const std::string bytes = read_file(dir.file("out.vdx2"));
    ASSERT_GT(bytes.size(), size);
    EXPECT_EQ(read_be32(bytes, 0), 0x56445832u);
    EXPECT_EQ(read_be32(bytes, 4), size);
    EXPECT_EQ(read_be32(bytes, 12), size);
    // Each write got as far as the fixed fields ahead of the data length, 32 bytes, and failed
    // there: always on the first block of its group.
    EXPECT_EQ((bytes.size() - size) % 32, 0u);
    for (size_t at = size; at + 32 <= bytes.size(); at += 32) {
      EXPECT_EQ(read_be32(bytes, at + 16) & 0xFFFF, 0u) << "index of the block at " << at;
    }
  }
}

TEST(IndexReplay, OutputThatCannotBeOpenedEndsWithStatusTwo) {
  ScratchDir dir;
  copy_fixture(dir, "mpeg2_bframes.ts");
  RunResult result = run_vdxindex({"mpeg2_bframes.ts", "nowhere/out.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(split_lines(result.err).back(),
            std::string("Can't open output file: ") + std::strerror(ENOENT));
}

TEST(IndexReplay, FrameFileThatCannotBeOpenedEndsWithStatusTwo) {
  ScratchDir dir;
  copy_fixture(dir, "mpeg2_bframes.ts");
  RunResult result =
      run_vdxindex({"-IX", "nowhere/frames.vdf", "mpeg2_bframes.ts", "out.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(split_lines(result.err).back(),
            std::string("Can't open output file: ") + std::strerror(ENOENT));
}

}  // namespace
}  // namespace Veldrin::Testing
