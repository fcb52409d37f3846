#include <gtest/gtest.h>

#include <algorithm>
#include <string>
#include <vector>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"
#include "e2e/vdx_file.h"

namespace Veldrin::Testing {
namespace {

std::string fixture_bytes(const std::string& name) {
  return read_file(source_path("tests/fixtures/" + name));
}

bool has_line(const std::string& err, const std::string& line) {
  std::vector<std::string> lines = split_lines(err);
  return std::find(lines.begin(), lines.end(), line) != lines.end();
}

// Every block's links give the sizes of its neighbours, nearest first, as many as links allows.
void expect_links_match_neighbours(const VdxFile& file, size_t links) {
  const std::vector<VdxBlock>& blocks = file.blocks;
  for (size_t k = 0; k < blocks.size(); k++) {
    SCOPED_TRACE("block " + std::to_string(k));
    size_t f = std::min(links, blocks.size() - 1 - k);
    size_t b = std::min(links, k);
    ASSERT_EQ(blocks[k].forward, f);
    ASSERT_EQ(blocks[k].backward, b);
    for (size_t j = 1; j <= f; j++) EXPECT_EQ(blocks[k].forward_sizes[j - 1], blocks[k + j].size);
    for (size_t j = 1; j <= b; j++) EXPECT_EQ(blocks[k].backward_sizes[j - 1], blocks[k - j].size);
  }
}

// Each table position refers to the last block at or before it (the first block serving the
// positions ahead of it), with that block's time and offset.
void expect_table_refers_back(const VdxFile& file) {
  ASSERT_FALSE(file.blocks.empty());
  for (size_t i = 0; i < file.table.size(); i++) {
    SCOPED_TRACE("entry " + std::to_string(i));
    uint64_t p = static_cast<uint64_t>(i) * file.precision;
    const VdxEntry& entry = file.table[i];
    auto found = std::find_if(file.blocks.begin(), file.blocks.end(), [&](const VdxBlock& b) {
      return b.position == static_cast<uint64_t>(entry.page) * 4096;
    });
    ASSERT_NE(found, file.blocks.end());
    EXPECT_EQ(entry.offset, found->offset);
    EXPECT_EQ(entry.npt, found->npt);
    if (found != file.blocks.begin()) {
      EXPECT_LE(found->offset, p);
    }
    if (found + 1 != file.blocks.end()) {
      EXPECT_GT((found + 1)->offset, p);
    }
  }
}

struct Dumped {
  RunResult result;
  VdxFile file;
};

Dumped run_dump(const ScratchDir& dir, const std::string& fixture,
                const std::vector<std::string>& options) {
  std::string input = dir.file(fixture);
  write_file(input, fixture_bytes(fixture));
  std::vector<std::string> args = {"-f", "vdx", "-d"};
  args.insert(args.end(), options.begin(), options.end());
  args.push_back(input);
  Dumped dumped;
  dumped.result = run_vdxindex(args, dir.path);
  dumped.file = parse_vdx(read_file(input + ".vdx"));
  return dumped;
}

TEST(VdxIndex, FormatVdxWritesAFinishedFileUnderTheDefaultName) {
  ScratchDir dir;
  std::string input = dir.file("in.ts");
  std::string bytes = fixture_bytes("mpeg2_bframes.ts");
  ASSERT_TRUE(write_file(input, bytes));
  RunResult result = run_vdxindex({"-f", "vdx", input}, dir.path);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(has_line(result.err, "Output index format: VDX"));
  VdxFile file = parse_vdx(read_file(input + ".vdx"));
  ASSERT_TRUE(file.valid);
  EXPECT_EQ(file.version, 1u);
  EXPECT_EQ(file.header_size, 4096u);
  EXPECT_EQ(file.precision, 65536u);
  EXPECT_EQ(file.entry_count, bytes.size() / 65536);
  EXPECT_EQ(file.block_count, file.blocks.size());
  EXPECT_GT(file.blocks.size(), 1u);
  EXPECT_TRUE(
      has_line(result.err, "Creating index of " + std::to_string(file.blocks.size()) + " blocks"));
}

TEST(VdxIndex, VerboseRunShowsThePlaceholderAndTheCompletion) {
  ScratchDir dir;
  std::string input = dir.file("in.ts");
  ASSERT_TRUE(write_file(input, fixture_bytes("mpeg2_bframes.ts")));  // 601036 bytes
  RunResult result = run_vdxindex({"-v", "-f", "vdx", input}, dir.path);
  ASSERT_EQ(result.status, 0) << result.err;
  VdxFile file = parse_vdx(read_file(input + ".vdx"));
  std::string n = std::to_string(file.blocks.size());
  std::vector<std::string> lines = split_lines(result.err);
  auto placeholder =
      std::find(lines.begin(), lines.end(), "Creating index placeholder with 9 index entries");
  auto creating = std::find(lines.begin(), lines.end(), "Creating index of " + n + " blocks");
  auto output = std::find(lines.begin(), lines.end(), n + " blocks output");
  auto completing = std::find(lines.begin(), lines.end(), "Completing index with " + n + " blocks");
  ASSERT_NE(placeholder, lines.end());
  ASSERT_NE(completing, lines.end());
  EXPECT_LT(placeholder, creating);
  EXPECT_LT(creating, output);
  EXPECT_LT(output, completing);
}

TEST(VdxIndex, BlocksHoldTheDumpedFramesInOrderWithLinksToTheirNeighbours) {
  for (const char* fixture : {"mpeg2_bframes.ts", "mpeg2_short_gop.ts", "h264_closed_gop.ts",
                              "h264_open_gop.ts", "h264_multi_slice.ts"}) {
    SCOPED_TRACE(fixture);
    ScratchDir dir;
    Dumped dumped = run_dump(dir, fixture, {});
    ASSERT_EQ(dumped.result.status, 0) << dumped.result.err;
    ASSERT_TRUE(dumped.file.valid);
    ASSERT_GT(dumped.file.blocks.size(), 0u);
    std::string frames;
    for (const VdxBlock& block : dumped.file.blocks) {
      EXPECT_EQ(block.data.size() % 188, 0u);
      EXPECT_EQ(block.data[0], '\x47');
      frames += block.data;
    }
    EXPECT_EQ(frames, dumped.result.out);
    for (size_t k = 1; k < dumped.file.blocks.size(); k++) {
      EXPECT_GT(dumped.file.blocks[k].offset, dumped.file.blocks[k - 1].offset);
      EXPECT_GE(dumped.file.blocks[k].npt, dumped.file.blocks[k - 1].npt);
    }
    expect_links_match_neighbours(dumped.file, 16);
  }
}

TEST(VdxIndex, TableEntriesReferToTheLastBlockAtOrBeforeTheirPosition) {
  for (const char* fixture : {"mpeg2_bframes.ts", "mpeg2_short_gop.ts", "h264_closed_gop.ts"}) {
    for (const char* precision : {"65536", "10000"}) {
      SCOPED_TRACE(std::string(fixture) + " -Ip " + precision);
      ScratchDir dir;
      Dumped dumped = run_dump(dir, fixture, {"-Ip", precision});
      ASSERT_EQ(dumped.result.status, 0) << dumped.result.err;
      ASSERT_TRUE(dumped.file.valid);
      EXPECT_EQ(dumped.file.precision, std::stoul(precision));
      expect_table_refers_back(dumped.file);
    }
  }
}

TEST(VdxIndex, LinksOptionSetsTheNumberOfLinksEachWay) {
  for (size_t links : {0u, 1u, 3u}) {
    SCOPED_TRACE("-In " + std::to_string(links));
    ScratchDir dir;
    Dumped dumped = run_dump(dir, "mpeg2_short_gop.ts", {"-In", std::to_string(links)});
    ASSERT_EQ(dumped.result.status, 0) << dumped.result.err;
    ASSERT_TRUE(dumped.file.valid);
    ASSERT_GT(dumped.file.blocks.size(), 2 * links + 1);
    expect_links_match_neighbours(dumped.file, links);
  }
}

TEST(VdxIndex, PrecisionOptionSetsTheStepAndTheNumberOfEntries) {
  ScratchDir dir;
  std::string input = dir.file("in.ts");
  std::string bytes = fixture_bytes("mpeg2_short_gop.ts");  // 601412 bytes
  ASSERT_TRUE(write_file(input, bytes));
  RunResult result = run_vdxindex({"-f", "vdx", "-Ip", "1000", input}, dir.path);
  ASSERT_EQ(result.status, 0) << result.err;
  VdxFile file = parse_vdx(read_file(input + ".vdx"));
  ASSERT_TRUE(file.valid);
  EXPECT_EQ(file.precision, 1000u);
  EXPECT_EQ(file.entry_count, 601u);
  // 20 + 16 * 601 = 9636 bytes, rounded up to whole pages.
  EXPECT_EQ(file.header_size, 12288u);
  EXPECT_EQ(file.blocks.front().position, 12288u);
}

TEST(VdxIndex, StandardInputTakesTheLengthOfAFileNamedPipe) {
  ScratchDir dir;
  std::string bytes = fixture_bytes("mpeg2_bframes.ts");
  RunResult result = run_vdxindex({"-f", "vdx", "-"}, dir.path, bytes);
  ASSERT_EQ(result.status, 0) << result.err;
  EXPECT_TRUE(has_line(result.err, "Indexing pipe into -.vdx"));
  VdxFile file = parse_vdx(read_file(dir.file("-.vdx")));
  ASSERT_TRUE(file.valid);
  EXPECT_EQ(file.entry_count, 0u);
  EXPECT_EQ(file.header_size, 4096u);
  EXPECT_GT(file.blocks.size(), 1u);

  ASSERT_TRUE(write_file(dir.file("pipe"), std::string(200000, 'p')));
  result = run_vdxindex({"-f", "vdx", "-"}, dir.path, bytes);
  ASSERT_EQ(result.status, 0) << result.err;
  file = parse_vdx(read_file(dir.file("-.vdx")));
  ASSERT_TRUE(file.valid);
  EXPECT_EQ(file.entry_count, 3u);
}

TEST(VdxIndex, StandardInputGivesTheSameBlocksAsTheFile) {
  ScratchDir dir;
  std::string bytes = fixture_bytes("h264_closed_gop.ts");
  std::string input = dir.file("in.ts");
  ASSERT_TRUE(write_file(input, bytes));
  ASSERT_EQ(run_vdxindex({"-f", "vdx", input}, dir.path).status, 0);
  ASSERT_EQ(run_vdxindex({"-f", "vdx", "-"}, dir.path, bytes).status, 0);
  VdxFile from_file = parse_vdx(read_file(input + ".vdx"));
  VdxFile from_pipe = parse_vdx(read_file(dir.file("-.vdx")));
  ASSERT_TRUE(from_file.valid);
  ASSERT_TRUE(from_pipe.valid);
  ASSERT_EQ(from_file.blocks.size(), from_pipe.blocks.size());
  for (size_t k = 0; k < from_file.blocks.size(); k++) {
    EXPECT_EQ(from_file.blocks[k].offset, from_pipe.blocks[k].offset);
    EXPECT_EQ(from_file.blocks[k].data, from_pipe.blocks[k].data);
  }
}

TEST(VdxIndex, UnwritableOutputIsReportedByTheIndexFileAndTheTool) {
  ScratchDir dir;
  std::string input = dir.file("in.ts");
  ASSERT_TRUE(write_file(input, fixture_bytes("mpeg2_bframes.ts")));
  std::string output = dir.file("missing/out.vdx");
  RunResult result = run_vdxindex({"-f", "vdx", input, output}, dir.path);
  EXPECT_EQ(result.status, 2);
  std::vector<std::string> lines = split_lines(result.err);
  ASSERT_GE(lines.size(), 2u);
  EXPECT_EQ(lines[lines.size() - 2], "Can't open index file " + output + " for writing");
  EXPECT_EQ(lines.back(), "Can't open output file: No such file or directory");
}

}  // namespace
}  // namespace Veldrin::Testing
