#include <gtest/gtest.h>

#include <cstdint>
#include <string>
#include <vector>

#include "e2e/dump_support.h"
#include "e2e/streams.h"
#include "e2e/vdx_file.h"
#include "support/json_value.h"

namespace Veldrin::Testing {
namespace {

const std::string FIXTURE = "mpeg2_bframes.ts";

// A frame start as the blocks show it, found here from the file's own fields.
struct Start {
  size_t block = 0;
  uint32_t npt = 0;  // milliseconds
  uint64_t offset = 0;
  bool has_reference = false;
  uint64_t first_reference = 0;
};

// The groups of a VDX2 file: each begins with a block of index 0 and a count above 0.
std::vector<Start> frame_starts(const Vdx2File& file) {
  std::vector<Start> starts;
  for (size_t n = 0; n < file.blocks.size(); ++n) {
    const Vdx2Block& block = file.blocks[n];
    if (block.count != 0 && block.index == 0) starts.push_back({n, block.npt, block.offset});
    if (!starts.empty() && block.count != 0 && (block.flags & 4) && !starts.back().has_reference &&
        n < starts.back().block + file.blocks[starts.back().block].count) {
      starts.back().has_reference = true;
      starts.back().first_reference = block.ref_offset;
    }
  }
  return starts;
}

std::string seconds_text(uint32_t ms) {
  std::string fraction = std::to_string(ms % 1000);
  return std::to_string(ms / 1000) + "." + std::string(3 - fraction.size(), '0') + fraction;
}

std::string expected_line(size_t entry, const Start& start) {
  return "entry=" + std::to_string(entry) + " block=" + std::to_string(start.block) +
         " position=" + std::to_string(256 * (start.block + 1)) +
         " npt=" + seconds_text(start.npt) + " offset=" + std::to_string(start.offset) + "\n";
}

class Vdx2DumpAt : public ::testing::Test {
 protected:
  void SetUp() override {
    ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
    source = read_file(dir.file(FIXTURE));
    const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
    ASSERT_TRUE(file.valid);
    starts = frame_starts(file);
    ASSERT_GE(starts.size(), 3u);
    // The frames have times of their own, in order.
    for (size_t k = 1; k < starts.size(); ++k) ASSERT_LT(starts[k - 1].npt, starts[k].npt);
  }

  ScratchDir dir;
  std::string source;
  std::vector<Start> starts;
};

TEST_F(Vdx2DumpAt, TimeOfAFrameGivesThatFrame) {
  const Start& start = starts[2];
  RunResult result = run_vdx2dump({"--at", seconds_text(start.npt), FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, expected_line(2, start));
}

TEST_F(Vdx2DumpAt, TimeJustBeforeAFrameGivesTheOneBefore) {
  const std::string time = seconds_text(starts[2].npt - 1);
  RunResult result = run_vdx2dump({"-a", time, FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, expected_line(1, starts[1]));
}

TEST_F(Vdx2DumpAt, EntryPointIsAPesStartOfTheSource) {
  RunResult result = run_vdx2dump({"--at", "1.5", FIXTURE + ".vdx2"}, dir.path);
  ASSERT_EQ(result.status, 0);
  const size_t at = result.out.find(" offset=");
  ASSERT_NE(at, std::string::npos);
  const uint64_t offset = std::stoull(result.out.substr(at + 8));
  ASSERT_LT(offset + 188, source.size());
  EXPECT_EQ(source[offset], '\x47');
  EXPECT_TRUE(source[offset + 1] & 0x40) << "payload_unit_start";
}

TEST_F(Vdx2DumpAt, TimeBeforeTheFirstFrameGivesTheFirst) {
  RunResult result = run_vdx2dump({"--at", "-1", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, expected_line(0, starts[0]));
}

TEST_F(Vdx2DumpAt, TimePastTheEndGivesTheLast) {
  RunResult result = run_vdx2dump({"--at", "86400", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, expected_line(starts.size() - 1, starts.back()));
}

TEST_F(Vdx2DumpAt, JsonHoldsTheSameAnswer) {
  const Start& start = starts[1];
  RunResult result = run_vdx2dump({"--json", "--at", "2e-3", FIXTURE + ".vdx2"}, dir.path);
  ASSERT_EQ(result.status, 0);
  const JsonValue doc = parse_json(result.out);
  // 2 ms lies before the second frame's time: the first frame answers.
  ASSERT_GT(start.npt, 2u);
  EXPECT_EQ(doc["index"].text, FIXTURE + ".vdx2");
  EXPECT_EQ(doc["format"].text, "VDX2");
  EXPECT_EQ(doc["seconds"].number(), 0.002);
  EXPECT_EQ(doc["entry_points"].u64(), starts.size());
  EXPECT_EQ(doc["entry"].u64(), 0u);
  EXPECT_EQ(doc["block"].u64(), starts[0].block);
  EXPECT_EQ(doc["position"].u64(), 256 * (starts[0].block + 1));
  EXPECT_EQ(doc["npt_ms"].u64(), starts[0].npt);
  EXPECT_EQ(doc["offset"].u64(), starts[0].offset);
  EXPECT_FALSE(doc.has("frame_offset"));
}

TEST_F(Vdx2DumpAt, JqReadsTheOffset) {
  VDX_REQUIRE_PROGRAM("jq");
  RunResult result = run_vdx2dump({"-j", "-a", "86400", FIXTURE + ".vdx2"}, dir.path);
  ASSERT_EQ(result.status, 0);
  RunResult jq = run_tool_on("jq", {".offset"}, result.out);
  EXPECT_EQ(jq.status, 0) << jq.err;
  EXPECT_EQ(jq.out, std::to_string(starts.back().offset) + "\n");
}

TEST(Vdx2DumpAtFrames, ExternalFrameFileOffsetIsTheFramesFirstReference) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-Ix"}));
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  const std::string frames = read_file(dir.file(FIXTURE + ".vdf"));
  const std::vector<Start> starts = frame_starts(file);
  ASSERT_GE(starts.size(), 2u);
  const Start& start = starts[1];
  ASSERT_TRUE(start.has_reference);
  RunResult result = run_vdx2dump({"--at", seconds_text(start.npt), FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  const std::string line = expected_line(1, start);
  EXPECT_EQ(result.out, line.substr(0, line.size() - 1) +
                            " frame_offset=" + std::to_string(start.first_reference) + "\n");
  // The frame file holds whole packets: the frame's bytes there start with a sync byte.
  ASSERT_LT(start.first_reference, frames.size());
  EXPECT_EQ(start.first_reference % 188, 0u);
  EXPECT_EQ(frames[start.first_reference], '\x47');

  RunResult json =
      run_vdx2dump({"-j", "--at", seconds_text(start.npt), FIXTURE + ".vdx2"}, dir.path);
  ASSERT_EQ(json.status, 0);
  EXPECT_EQ(parse_json(json.out)["frame_offset"].u64(), start.first_reference);
}

TEST(Vdx2DumpAtVdx, EntryPointsOfAVdxIndexAreItsBlocks) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  const VdxFile file = parse_vdx(read_file(dir.file(FIXTURE + ".vdx")));
  ASSERT_TRUE(file.valid);
  ASSERT_GE(file.blocks.size(), 3u);
  const VdxBlock& block = file.blocks[2];
  RunResult result =
      run_vdx2dump({"--at", seconds_text(block.npt + 1), FIXTURE + ".vdx"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(result.out, "entry=2 block=2 position=" + std::to_string(block.position) +
                            " npt=" + seconds_text(block.npt) +
                            " offset=" + std::to_string(block.offset) + "\n");
}

TEST(Vdx2DumpAtTimes, IndexOfTimesOnlyHasNoEntryPoint) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-S"}));
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-S", "-f", "vdx"}));
  for (const std::string& index : {FIXTURE + ".vdx2", FIXTURE + ".vdx"}) {
    for (const std::vector<std::string>& json : {std::vector<std::string>{}, {"--json"}}) {
      std::vector<std::string> args = json;
      args.insert(args.end(), {"--at", "1", index});
      RunResult result = run_vdx2dump(args, dir.path);
      EXPECT_EQ(result.status, 3) << index;
      EXPECT_EQ(result.out, "");
      EXPECT_EQ(result.err,
                vdx2dump_path() + ": " + index + ": no entry points: no frame is indexed\n");
    }
  }
}

TEST(Vdx2DumpAtDamaged, CutIndexIsDamaged) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  const std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  ASSERT_TRUE(write_file(dir.file("cut.vdx2"), bytes.substr(0, 256 * 5 + 17)));
  RunResult result = run_vdx2dump({"--at", "1", "cut.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.rfind(vdx2dump_path() + ": cut.vdx2: damaged or cut short (", 0), 0u)
      << result.err;
}

TEST(Vdx2DumpAtDamaged, VdxBlockWithABadMagicIsDamaged) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  std::string bytes = read_file(dir.file(FIXTURE + ".vdx"));
  bytes[4096] = 'X';
  ASSERT_TRUE(write_file(dir.file("bad.vdx"), bytes));
  RunResult result = run_vdx2dump({"--at", "1", "bad.vdx"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err, vdx2dump_path() + ": bad.vdx: damaged or cut short (Not a VDX block)\n");
}

TEST(Vdx2DumpAtDamaged, GarbageIsNoIndex) {
  ScratchDir dir;
  ASSERT_TRUE(write_file(dir.file("junk.vdx2"), std::string(1000, '\xA5')));
  RunResult result = run_vdx2dump({"--at", "1", "junk.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err, vdx2dump_path() + ": junk.vdx2 is neither a VDX2 nor a VDX index file\n");
}

TEST(Vdx2DumpAtDamaged, HugeBlockSizeEndsAsACutFile) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  bytes[12] = '\x7F';  // block size of about two thousand million bytes
  ASSERT_TRUE(write_file(dir.file("huge.vdx2"), bytes));
  RunResult result = run_vdx2dump({"--at", "1", "huge.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err.rfind(vdx2dump_path() + ": huge.vdx2: damaged or cut short (", 0), 0u)
      << result.err;
}

}  // namespace
}  // namespace Veldrin::Testing
