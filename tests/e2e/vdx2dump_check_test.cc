#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "e2e/dump_support.h"
#include "e2e/streams.h"
#include "e2e/vdx_file.h"

namespace Veldrin::Testing {
namespace {

const std::string FIXTURE = "mpeg2_bframes.ts";
const std::string OTHER = "mpeg2_no_bframes.ts";

std::string summary(const std::string& index, size_t problems, size_t blocks, size_t references,
                    const std::string& source) {
  return index + ": " + std::to_string(problems) + (problems == 1 ? " problem; " : " problems; ") +
         std::to_string(blocks) + " blocks and " + std::to_string(references) +
         " references checked against " + source + "\n";
}

size_t references_of(const Vdx2File& file) {
  size_t n = 0;
  for (const Vdx2Block& block : file.blocks)
    if (block.flags & 4) ++n;
  return n;
}

// The output of a check that found problems: every line but the last names one, in the form
// "<index>: <where>: <what>", and the last sums them up.
void expect_problems(const RunResult& result, const std::string& index, const std::string& source,
                     size_t blocks, size_t references) {
  EXPECT_EQ(result.status, 4);
  EXPECT_EQ(result.err, "");
  const std::vector<std::string> lines = output_lines(result.out);
  ASSERT_GE(lines.size(), 2u);
  for (size_t i = 0; i + 1 < lines.size(); ++i)
    EXPECT_EQ(lines[i].rfind(index + ": ", 0), 0u) << lines[i];
  EXPECT_EQ(lines.back() + "\n", summary(index, lines.size() - 1, blocks, references, source));
}

TEST(Vdx2DumpCheck, Vdx2IndexOfItsRecordingIsClean) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  ASSERT_TRUE(file.valid);
  RunResult result = run_vdx2dump({"--check", FIXTURE, FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  // Each block's offset and each reference.
  EXPECT_EQ(result.out, summary(FIXTURE + ".vdx2", 0, file.blocks.size(),
                                file.blocks.size() + references_of(file), FIXTURE));
}

TEST(Vdx2DumpCheck, EveryFixtureIndexedEachWayIsClean) {
  ScratchDir dir;
  const std::vector<std::vector<std::string>> ways{
      {}, {"-n"}, {"-S"}, {"-Ib", "512"}, {"-f", "vdx"}};
  for (const std::string& fixture : {std::string("h264_aud.ts"), std::string("h264_no_aud.ts"),
                                     std::string("mpeg2_short_gop.ts")}) {
    for (const auto& way : ways) {
      std::vector<std::string> options = way;
      const std::string index = fixture + (way.size() == 2 && way[1] == "vdx" ? ".vdx" : ".vdx2");
      ASSERT_TRUE(index_fixture_in(dir, fixture, options));
      RunResult result = run_vdx2dump({"-c", fixture, index}, dir.path);
      EXPECT_EQ(result.status, 0) << fixture << " " << (way.empty() ? "" : way[0]) << "\n"
                                  << result.out;
    }
  }
}

TEST(Vdx2DumpCheck, VdxIndexOfItsRecordingIsClean) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  const VdxFile file = parse_vdx(read_file(dir.file(FIXTURE + ".vdx")));
  ASSERT_TRUE(file.valid);
  RunResult result = run_vdx2dump({"--check", FIXTURE, FIXTURE + ".vdx"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  // Each block's offset and each table entry's.
  EXPECT_EQ(result.out, summary(FIXTURE + ".vdx", 0, file.blocks.size(),
                                file.blocks.size() + file.table.size(), FIXTURE));
}

TEST(Vdx2DumpCheck, IndexWithExternalFramesIsCheckedAgainstItsFrameFile) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-Ix"}));
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  RunResult result = run_vdx2dump({"--check", FIXTURE + ".vdf", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, summary(FIXTURE + ".vdx2", 0, file.blocks.size(), references_of(file),
                                FIXTURE + ".vdf"));
  // The recording in the frame file's place: its packets at those places are not the frame's.
  RunResult wrong = run_vdx2dump({"--check", FIXTURE, FIXTURE + ".vdx2"}, dir.path);
  expect_problems(wrong, FIXTURE + ".vdx2", FIXTURE, file.blocks.size(), references_of(file));
}

TEST(Vdx2DumpCheck, Vdx2IndexOfAnotherRecordingIsCaught) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  ASSERT_TRUE(write_file(dir.file(OTHER), read_file(source_path("tests/fixtures/" + OTHER))));
  const Vdx2File file = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  RunResult result = run_vdx2dump({"--check", OTHER, FIXTURE + ".vdx2"}, dir.path);
  expect_problems(result, FIXTURE + ".vdx2", OTHER, file.blocks.size(),
                  file.blocks.size() + references_of(file));
  // The other recording is a stream of the same kind: what gives it away is its packets.
  EXPECT_NE(result.out.find(" in " + OTHER + " has PID 256 and counter "), std::string::npos)
      << result.out;
}

TEST(Vdx2DumpCheck, VdxIndexOfAnotherRecordingIsCaught) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  ASSERT_TRUE(write_file(dir.file(OTHER), read_file(source_path("tests/fixtures/" + OTHER))));
  const VdxFile file = parse_vdx(read_file(dir.file(FIXTURE + ".vdx")));
  RunResult result = run_vdx2dump({"--check", OTHER, FIXTURE + ".vdx"}, dir.path);
  expect_problems(result, FIXTURE + ".vdx", OTHER, file.blocks.size(),
                  file.blocks.size() + file.table.size());
  EXPECT_NE(result.out.find(" in " + OTHER + " starts no PES packet\n"), std::string::npos)
      << result.out;
}

TEST(Vdx2DumpCheck, IndexOfARecordingCutAfterIndexingIsCaught) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  const std::string source = read_file(dir.file(FIXTURE));
  const size_t half = source.size() / 2;
  ASSERT_TRUE(write_file(dir.file("cut.ts"), source.substr(0, half)));
  const std::string end = " lies beyond the end of cut.ts (" + std::to_string(half) + " bytes)\n";

  const Vdx2File vdx2 = parse_vdx2(read_file(dir.file(FIXTURE + ".vdx2")));
  RunResult result = run_vdx2dump({"--check", "cut.ts", FIXTURE + ".vdx2"}, dir.path);
  expect_problems(result, FIXTURE + ".vdx2", "cut.ts", vdx2.blocks.size(),
                  vdx2.blocks.size() + references_of(vdx2));
  EXPECT_NE(result.out.find(end), std::string::npos) << result.out;

  const VdxFile vdx = parse_vdx(read_file(dir.file(FIXTURE + ".vdx")));
  result = run_vdx2dump({"--check", "cut.ts", FIXTURE + ".vdx"}, dir.path);
  expect_problems(result, FIXTURE + ".vdx", "cut.ts", vdx.blocks.size(),
                  vdx.blocks.size() + vdx.table.size());
  EXPECT_NE(result.out.find(end), std::string::npos) << result.out;
  EXPECT_NE(result.out.find(FIXTURE + ".vdx: header: "), std::string::npos) << result.out;
}

TEST(Vdx2DumpCheck, RecordingAlignedAfterLeadingBytesIsCheckedWhereItsPacketsStand) {
  ScratchDir dir;
  const std::string source = read_file(source_path("tests/fixtures/" + FIXTURE));
  // The indexer aligns to the first packet at 100: every offset is 100 on.
  ASSERT_TRUE(write_file(dir.file("late.ts"), std::string(100, '\0') + source));
  ASSERT_EQ(run_vdxindex({"late.ts"}, dir.path).status, 0);
  const Vdx2File file = parse_vdx2(read_file(dir.file("late.ts.vdx2")));
  ASSERT_TRUE(file.valid);
  ASSERT_FALSE(file.blocks.empty());
  EXPECT_EQ(file.blocks[0].offset % 188, 100u);
  RunResult clean = run_vdx2dump({"-c", "late.ts", "late.ts.vdx2"}, dir.path);
  EXPECT_EQ(clean.status, 0) << clean.out;
  // The same stream without the leading bytes: nothing stands where the index says.
  ASSERT_TRUE(write_file(dir.file(FIXTURE), source));
  RunResult shifted = run_vdx2dump({"-c", FIXTURE, "late.ts.vdx2"}, dir.path);
  expect_problems(shifted, "late.ts.vdx2", FIXTURE, file.blocks.size(),
                  file.blocks.size() + references_of(file));
  EXPECT_NE(shifted.out.find(" is not at a packet start in " + FIXTURE + "\n"), std::string::npos);
}

TEST(Vdx2DumpCheck, MissingSourceCannotBeOpened) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  RunResult result = run_vdx2dump({"--check", "gone.ts", FIXTURE + ".vdx2"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            vdx2dump_path() + ": can't open source gone.ts: No such file or directory\n");
}

TEST(Vdx2DumpCheck, CutIndexIsDamaged) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  const std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  ASSERT_TRUE(write_file(dir.file("cut.vdx2"), bytes.substr(0, bytes.size() - 100)));
  RunResult result = run_vdx2dump({"--check", FIXTURE, "cut.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err.rfind(vdx2dump_path() + ": cut.vdx2: damaged or cut short (", 0), 0u)
      << result.err;
}

TEST(Vdx2DumpCheck, DamagedVdxHeaderIsDamaged) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE, {"-f", "vdx"}));
  std::string bytes = read_file(dir.file(FIXTURE + ".vdx"));
  bytes[20] = '\x7F';  // more table entries than the header holds
  ASSERT_TRUE(write_file(dir.file("bad.vdx"), bytes));
  RunResult result = run_vdx2dump({"--check", FIXTURE, "bad.vdx"}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(result.err,
            vdx2dump_path() + ": bad.vdx: damaged or cut short (Table larger than header)\n");
}

TEST(Vdx2DumpCheck, DamagedFieldsOfAReadableVdx2AreProblems) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  std::string bytes = read_file(dir.file(FIXTURE + ".vdx2"));
  const Vdx2File file = parse_vdx2(bytes);
  // The first block's offset, moved into the middle of a packet.
  bytes[256 + 7] = static_cast<char>(bytes[256 + 7] + 1);
  ASSERT_TRUE(write_file(dir.file("moved.vdx2"), bytes));
  RunResult result = run_vdx2dump({"--check", FIXTURE, "moved.vdx2"}, dir.path);
  expect_problems(result, "moved.vdx2", FIXTURE, file.blocks.size(),
                  file.blocks.size() + references_of(file));
  EXPECT_EQ(output_lines(result.out)[0], "moved.vdx2: block 0: offset " +
                                             std::to_string(file.blocks[0].offset + 1) +
                                             " is not at a packet start in " + FIXTURE);
}

TEST(Vdx2DumpCheck, GarbageIsNoIndex) {
  ScratchDir dir;
  ASSERT_TRUE(index_fixture_in(dir, FIXTURE));
  RunResult result = run_vdx2dump({"--check", FIXTURE, FIXTURE}, dir.path);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.err,
            vdx2dump_path() + ": " + FIXTURE + " is neither a VDX2 nor a VDX index file\n");
}

}  // namespace
}  // namespace Veldrin::Testing
