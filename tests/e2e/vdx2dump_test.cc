#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/replay_support.h"
#include "e2e/streams.h"
#include "e2e/tool_runner.h"

namespace Veldrin::Testing {
namespace {

const std::string FIXTURE = "mpeg2_bframes.ts";

// A directory with the fixture and its VDX2 index made with the given options.
void index_fixture(const ScratchDir& dir, const std::vector<std::string>& options = {}) {
  ASSERT_TRUE(write_file(dir.file(FIXTURE), read_file(source_path("tests/fixtures/" + FIXTURE))));
  std::vector<std::string> args = options;
  args.push_back(FIXTURE);
  RunResult indexed = run_vdxindex(args, dir.path);
  ASSERT_EQ(indexed.status, 0) << indexed.err;
}

size_t lines_starting(const std::string& text, const std::string& start) {
  size_t n = 0;
  for (const std::string& line : split_lines(text))
    if (line.rfind(start, 0) == 0) ++n;
  return n;
}

std::string program() {
  return binary_path("vdx2dump");
}

TEST(Vdx2Dump, HelpPrintsUsageOnStandardOutputWithStatusZero) {
  RunResult result = run_vdx2dump({"--help"});
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out.rfind("Usage:\n  " + program() + " [options] <index file>\n", 0), 0u)
      << result.out;
  EXPECT_NE(result.out.find("--replay <source>"), std::string::npos);
  EXPECT_EQ(result.err, "");
}

TEST(Vdx2Dump, NoIndexFileIsABadCommandLine) {
  RunResult result = run_vdx2dump({});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.rfind("Usage:\n", 0), 0u);
}

TEST(Vdx2Dump, UnknownOptionIsABadCommandLine) {
  RunResult result = run_vdx2dump({"-z", "x.vdx2"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(split_lines(result.err).front(), program() + ": unknown option -z");
}

TEST(Vdx2Dump, ReplayWithoutItsSourceIsABadCommandLine) {
  RunResult result = run_vdx2dump({"x.vdx2", "--replay"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, program() + ": --replay needs the source file\n");
}

TEST(Vdx2Dump, DumpShowsTheHeaderAndEveryBlock) {
  ScratchDir dir;
  index_fixture(dir);
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  ASSERT_TRUE(file.valid);
  size_t with_refs = 0;
  for (const Vdx2Block& block : file.blocks)
    if (block.ref_length != 0) ++with_refs;

  RunResult result = run_vdx2dump({FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const auto lines = split_lines(result.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "VDX2 file, flags 0, block size 256");
  EXPECT_EQ(lines_starting(result.out, "Index2 block[256]: NPT "), file.blocks.size());
  EXPECT_EQ(lines_starting(result.out, "  Ref data: "), with_refs);
  EXPECT_EQ(lines_starting(result.out, "  Inline data ("), 0u);
  EXPECT_EQ(lines.size(), 1 + file.blocks.size() + with_refs);
  // The first block holds the tables ahead of the first frame.
  EXPECT_EQ(lines[1].rfind("Index2 block[256]: NPT 0@", 0), 0u) << lines[1];
  EXPECT_NE(lines[1].find(" INTRA ("), std::string::npos) << lines[1];
}

TEST(Vdx2Dump, InlineOptionAddsTheDataOfEachBlockInHex) {
  ScratchDir dir;
  index_fixture(dir);
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  size_t with_data = 0;
  for (const Vdx2Block& block : file.blocks)
    if (!block.data.empty()) ++with_data;
  ASSERT_GT(with_data, 0u);

  RunResult result = run_vdx2dump({"-x", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(lines_starting(result.out, "  Inline data ("), with_data);
  const auto lines = split_lines(result.out);
  ASSERT_GE(lines.size(), 4u);
  EXPECT_EQ(lines[2], "  Inline data (" + std::to_string(file.blocks[0].data.size()) + "):");
  // Every inline string starts with a sync byte: 47 in the first place.
  EXPECT_EQ(lines[3].rfind("0000: 47", 0), 0u) << lines[3];
  EXPECT_EQ(run_vdx2dump({"--inline", FIXTURE + ".vdx2"}, dir.path).out, result.out);
}

TEST(Vdx2Dump, FileThatIsNeitherFormatIsRefused) {
  ScratchDir dir;
  index_fixture(dir);
  RunResult result = run_vdx2dump({FIXTURE}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, program() + ": " + FIXTURE + " is neither a VDX2 nor a VDX index file\n");
}

TEST(Vdx2Dump, FileShorterThanAMagicIsRefused) {
  ScratchDir dir;
  ASSERT_TRUE(write_file(dir.file("short.vdx2"), "VDX"));
  RunResult result = run_vdx2dump({"short.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, program() + ": short.vdx2 is neither a VDX2 nor a VDX index file\n");
}

TEST(Vdx2Dump, UnfinishedVdxFileWithItsZeroHeaderIsRefused) {
  ScratchDir dir;
  ASSERT_TRUE(write_file(dir.file("open.vdx"), std::string(8192, '\0')));
  RunResult result = run_vdx2dump({"open.vdx"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, program() + ": open.vdx is neither a VDX2 nor a VDX index file\n");
}

TEST(Vdx2Dump, MissingIndexFileCannotBeOpened) {
  ScratchDir dir;
  RunResult result = run_vdx2dump({"missing.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err.rfind(program() + ": can't open missing.vdx2: ", 0), 0u) << result.err;
}

TEST(Vdx2Dump, CutIndexShowsItsWholeBlocksAndThenFails) {
  ScratchDir dir;
  index_fixture(dir);
  const std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  ASSERT_GT(bytes.size(), 1024u);
  ASSERT_TRUE(write_file(dir.file("cut.vdx2"), bytes.substr(0, 256 * 3 + 100)));
  RunResult result = run_vdx2dump({"cut.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(lines_starting(result.out, "VDX2 file, "), 1u);
  EXPECT_EQ(lines_starting(result.out, "Index2 block["), 2u);
  EXPECT_EQ(result.err.rfind(program() + ": cut.vdx2: damaged or cut short (", 0), 0u)
      << result.err;
}

TEST(Vdx2Dump, IndexWithAnOverlongBlockIsDamaged) {
  ScratchDir dir;
  index_fixture(dir);
  std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  bytes[256 + 35] = static_cast<char>(0xDD);  // the first block's data length: 221
  ASSERT_TRUE(write_file(dir.file("bad.vdx2"), bytes));
  RunResult result = run_vdx2dump({"bad.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, program() + ": bad.vdx2: damaged or cut short (Block data too long)\n");
}

TEST(Vdx2Dump, ReplayWithAMissingSourceCannotOpenIt) {
  ScratchDir dir;
  index_fixture(dir);
  RunResult result = run_vdx2dump({"-r", "gone.ts", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.rfind(program() + ": can't open source gone.ts: ", 0), 0u) << result.err;
}

TEST(Vdx2Dump, ReplayFromASourceThatIsTooShortFails) {
  ScratchDir dir;
  index_fixture(dir);
  const std::string source = read_file(dir.file(FIXTURE));
  ASSERT_TRUE(write_file(dir.file("half.ts"), source.substr(0, source.size() / 2)));
  RunResult result = run_vdx2dump({"-r", "half.ts", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_NE(result.err.find("half.ts: reference of "), std::string::npos) << result.err;
  EXPECT_NE(result.err.find(" runs past its end\n"), std::string::npos) << result.err;
}

TEST(Vdx2Dump, ReplayOfAVdx2IndexIsInlineDataFollowedByReferencedBytes) {
  ScratchDir dir;
  index_fixture(dir);
  const std::string source = read_file(dir.file(FIXTURE));
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  ASSERT_TRUE(file.valid);
  std::string expected;
  for (const Vdx2Block& block : file.blocks) {
    expected += block.data;
    if (block.flags & 4) expected += source.substr(block.ref_offset, block.ref_length);
  }
  RunResult result = run_vdx2dump({"--replay", FIXTURE, FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  ASSERT_FALSE(expected.empty());
  EXPECT_EQ(result.out, expected);
}

TEST(Vdx2Dump, VdxIndexDumpShowsHeaderTableAndBlocks) {
  ScratchDir dir;
  index_fixture(dir, {"-f", "vdx"});
  const std::string index = read_file(dir.file(FIXTURE + ".vdx"));
  ASSERT_GE(index.size(), 24u);
  const uint32_t blocks = read_be32(index, 12);
  const uint32_t entries = read_be32(index, 20);
  ASSERT_GT(blocks, 0u);

  RunResult result = run_vdx2dump({FIXTURE + ".vdx"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  const auto lines = split_lines(result.out);
  ASSERT_FALSE(lines.empty());
  EXPECT_EQ(lines[0], "VDX file, version 1, header size 4096, " + std::to_string(blocks) +
                          " blocks, precision 65536, " + std::to_string(entries) + " entries");
  EXPECT_EQ(lines_starting(result.out, "  Entry "), entries);
  EXPECT_EQ(lines_starting(result.out, "Index block "), blocks);
  EXPECT_EQ(lines_starting(result.out, "Index block 0 at 4096: NPT "), 1u);
  EXPECT_EQ(lines_starting(result.out, "  Frame data ("), 0u);
  RunResult with_data = run_vdx2dump({"-x", FIXTURE + ".vdx"}, dir.path);
  EXPECT_EQ(lines_starting(with_data.out, "  Frame data ("), blocks);
}

TEST(Vdx2Dump, VdxIndexReplaysExactlyTheFramesOfTheDump) {
  ScratchDir dir;
  index_fixture(dir, {"-f", "vdx"});
  RunResult dumped = run_vdxindex({"-d", FIXTURE, "dump.vdx2"}, dir.path);
  ASSERT_EQ(dumped.status, 0);
  ASSERT_FALSE(dumped.out.empty());
  // The frames are in the index: the source isn't read, and may not exist.
  RunResult result = run_vdx2dump({"--replay", "none.ts", FIXTURE + ".vdx"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, dumped.out);
}

TEST(Vdx2Dump, CutVdxIndexFails) {
  ScratchDir dir;
  index_fixture(dir, {"-f", "vdx"});
  const std::string index = read_file(dir.file(FIXTURE + ".vdx"));
  ASSERT_GT(index.size(), 4096u + 5000u);
  ASSERT_TRUE(write_file(dir.file("cut.vdx"), index.substr(0, 4096 + 5000)));
  RunResult result = run_vdx2dump({"cut.vdx"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err.rfind(program() + ": cut.vdx: damaged or cut short (", 0), 0u) << result.err;
}

}  // namespace
}  // namespace Veldrin::Testing
