#include <gtest/gtest.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <functional>
#include <ostream>
#include <string>
#include <vector>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"

namespace Veldrin::Testing {
namespace {

const std::string BANNER = "Veldrin MPEG2 Transport Stream indexer version 3.1.6\n";

// A PCR every 100 packets, 0.125 seconds apart from 1.0 on: values that a double holds exactly,
// so that every time and rate below is exact.
std::optional<uint64_t> pcr_every_100(size_t index) {
  if (index % 100 != 0) return std::nullopt;
  return 27000000 + (index / 100) * 3375000;
}

// 1100 packets on one PID with eleven PCRs at offsets 0, 18800, ..., 188000.
std::string timed_stream() {
  return make_packets(0x100, 1100, pcr_every_100);
}

// The 256 bytes of a VDX2 header with the given flags and the default block size.
std::string vdx2_header(uint32_t flags) {
  std::string header(256, '\0');
  header.replace(0, 16, std::string("VDX2\x00\x00\x01\x00\x00\x00\x00\x00\x00\x00\x01\x00", 16));
  header[11] = static_cast<char>(flags);
  return header;
}

std::string system_text(int error) {
  return std::strerror(error);
}

// The closing lines of a run over timed_stream(): 188000 bytes in 1.25 seconds, and each 0.125
// seconds 100 packets.
const std::string TIMED_CLOSE =
    "Duration:\t1.25\tseconds\n"
    "Average rate:\t1203200\tbits/sec\n"
    "Maximum rate:\t1203200\tbits/sec\n"
    "Minimum rate:\t1203200\tbits/sec\n"
    "Done\n";

// The ten blocks of a seek index over timed_stream(): one at each PCR after the first.
void expect_ten_pcr_blocks(const std::string& bytes) {
  Vdx2File index = parse_vdx2(bytes);
  ASSERT_TRUE(index.valid);
  ASSERT_EQ(index.blocks.size(), 10u);
  for (size_t j = 1; j <= 10; ++j) {
    const Vdx2Block& block = index.blocks[j - 1];
    EXPECT_EQ(block.offset, j * 18800) << j;
    EXPECT_EQ(block.npt, j * 125) << j;
    EXPECT_EQ(block.flags, 1u) << j;
    EXPECT_EQ(block.count, 0) << j;
    EXPECT_EQ(block.ref_length, 0u) << j;
    EXPECT_EQ(block.data, "") << j;
  }
}

// One run that ends well, the whole of its standard error, and what it leaves in its directory.
struct Transcript {
  const char* name;
  std::string input;       // in.ts; given on standard input instead when the arguments say "-"
  std::string clean_copy;  // clean.ts when not empty
  std::vector<std::string> args;
  std::string err;  // behind the banner
  std::function<void(const ScratchDir&)> check_files;
};

void PrintTo(const Transcript& transcript, std::ostream* out) {
  *out << transcript.name;
}

class RunTranscript : public ::testing::TestWithParam<Transcript> {};

TEST_P(RunTranscript, StandardErrorHoldsEveryLineOfTheRun) {
  const Transcript& t = GetParam();
  ScratchDir dir;
  const bool on_standard_input = std::find(t.args.begin(), t.args.end(), "-") != t.args.end();
  if (!on_standard_input) write_file(dir.file("in.ts"), t.input);
  if (!t.clean_copy.empty()) write_file(dir.file("clean.ts"), t.clean_copy);
  RunResult result =
      on_standard_input ? run_vdxindex(t.args, dir.path, t.input) : run_vdxindex(t.args, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, BANNER + t.err);
  EXPECT_EQ(result.out, "");
  t.check_files(dir);
}

INSTANTIATE_TEST_SUITE_P(
    Run, RunTranscript,
    ::testing::Values(Transcript{"StreamWithPcrGivesEveryLineOfTheRun",
                                 timed_stream(),
                                 "",
                                 {"in.ts"},
                                 "Indexing in.ts into in.ts.vdx2\n"
                                 "Output index format: VDX2\n"
                                 "Creating index of 0 blocks\n" +
                                     TIMED_CLOSE,
                                 [](const ScratchDir& dir) {
                                   EXPECT_EQ(read_file(dir.file("in.ts.vdx2")), vdx2_header(0));
                                 }},
                      Transcript{"StreamWithoutPcrPrintsDurationMinusOneAndNoRates",
                                 make_packets(0x100, 1100),
                                 "",
                                 {"in.ts", "out.idx"},
                                 "Indexing in.ts into out.idx\n"
                                 "Output index format: VDX2\n"
                                 "Creating index of 0 blocks\n"
                                 "Duration:\t-1\tseconds\n"
                                 "Done\n",
                                 [](const ScratchDir& dir) {
                                   EXPECT_EQ(read_file(dir.file("out.idx")), vdx2_header(0));
                                   EXPECT_FALSE(file_exists(dir.file("in.ts.vdx2")));
                                 }},
                      Transcript{"SeekPcrOnlyLogsBothLinesAndIndexesEachAcceptedPcr",
                                 timed_stream(),
                                 "",
                                 {"-S", "in.ts"},
                                 "Indexing in.ts into in.ts.vdx2\n"
                                 "Offset index for seek only\n"
                                 "Capturing only PCR timing, not video frames\n"
                                 "Output index format: VDX2\n"
                                 "Creating index of 10 blocks\n" +
                                     TIMED_CLOSE,
                                 [](const ScratchDir& dir) {
                                   expect_ten_pcr_blocks(read_file(dir.file("in.ts.vdx2")));
                                 }},
                      // The offsets, and with them the rates, are those of the clean copy.
                      Transcript{"AlignmentSyncSeekAndPcrLinesComeInThisOrder",
                                 std::string(100, '\x01') + timed_stream(),
                                 timed_stream(),
                                 {"-S", "-O", "clean.ts", "in.ts"},
                                 "Indexing in.ts into in.ts.vdx2\n"
                                 "Aligned with start of TS stream at byte 100\n"
                                 "Syncing to clean.ts for offsets\n"
                                 "Offset index for seek only\n"
                                 "Capturing only PCR timing, not video frames\n"
                                 "Output index format: VDX2\n"
                                 "Creating index of 10 blocks\n" +
                                     TIMED_CLOSE,
                                 [](const ScratchDir& dir) {
                                   expect_ten_pcr_blocks(read_file(dir.file("in.ts.vdx2")));
                                 }},
                      Transcript{"StandardInputIsNamedPipeAfterTheNamesAreDerived",
                                 timed_stream(),
                                 "",
                                 {"-"},
                                 "Indexing pipe into -.vdx2\n"
                                 "Output index format: VDX2\n"
                                 "Creating index of 0 blocks\n" +
                                     TIMED_CLOSE,
                                 [](const ScratchDir& dir) {
                                   EXPECT_EQ(read_file(dir.file("-.vdx2")), vdx2_header(0));
                                   EXPECT_FALSE(file_exists(dir.file("pipe.vdx2")));
                                 }}),
    [](const ::testing::TestParamInfo<Transcript>& info) { return std::string(info.param.name); });

TEST(Run, SeekOnlyLogsItsLineAlone) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"--seek-only", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("Indexing in.ts into in.ts.vdx2\nOffset index for seek only\n"
                            "Output index format: VDX2\n"),
            std::string::npos)
      << result.err;
}

TEST(Run, OneQuietLeavesOnlyErrors) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"-q", "-S", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "");
  EXPECT_EQ(parse_vdx2(read_file(dir.file("in.ts.vdx2"))).blocks.size(), 10u);

  result = run_vdxindex({"-q", "missing.ts"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "Can't open input file: " + system_text(ENOENT) + "\n");
}

TEST(Run, TwoQuietSilenceEvenErrors) {
  ScratchDir dir;
  RunResult result = run_vdxindex({"-q", "--quiet", "missing.ts"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "");
}

TEST(Run, VerboseShowsDetailLinesAndMoreVerboseChangesNothing) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult plain = run_vdxindex({"-S", "in.ts"}, dir.path);
  RunResult verbose = run_vdxindex({"-v", "-S", "in.ts"}, dir.path);
  RunResult more = run_vdxindex({"-v", "--verbose", "-v", "-S", "in.ts"}, dir.path);
  EXPECT_EQ(plain.err.find("Captured PCR value "), std::string::npos);
  EXPECT_NE(verbose.err.find("Captured PCR value "), std::string::npos) << verbose.err;
  EXPECT_GT(split_lines(verbose.err).size(), split_lines(plain.err).size());
  EXPECT_EQ(more.err, verbose.err);
}

TEST(Run, InputThatCannotBeOpenedEndsWithStatusTwo) {
  ScratchDir dir;
  RunResult result = run_vdxindex({"missing.ts"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, BANNER + "Can't open input file: " + system_text(ENOENT) + "\n");
  EXPECT_FALSE(file_exists(dir.file("missing.ts.vdx2")));
}

TEST(Run, OutputThatCannotBeOpenedEndsWithStatusTwo) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"in.ts", "nowhere/out.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, BANNER +
                            "Indexing in.ts into nowhere/out.vdx2\n"
                            "Output index format: VDX2\n"
                            "Can't open output file: " +
                            system_text(ENOENT) + "\n");

  std::filesystem::create_directory(dir.file("adir"));
  result = run_vdxindex({"in.ts", "adir"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(split_lines(result.err).back(), "Can't open output file: " + system_text(EISDIR));
}

TEST(Run, VdxOutputThatCannotBeOpenedIsReportedByTheWriterToo) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"-f", "vdx", "in.ts", "nowhere/out.vdx"}, dir.path);
  EXPECT_EQ(result.status, 2);
  std::vector<std::string> lines = split_lines(result.err);
  ASSERT_EQ(lines.size(), 5u) << result.err;
  EXPECT_EQ(lines[1], "Indexing in.ts into nowhere/out.vdx");
  EXPECT_EQ(lines[2], "Output index format: VDX");
  EXPECT_EQ(lines[3], "Can't open index file nowhere/out.vdx for writing");
  EXPECT_EQ(lines[4].rfind("Can't open output file: ", 0), 0u) << lines[4];
}

TEST(Run, ExternalFramesNameTheFrameFileAndSetBitZero) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"-If", "2", "-Ix", "in.ts", "out.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("Indexing in.ts into out.vdx2 with external frame file in.ts.vdf\n"),
            std::string::npos)
      << result.err;
  EXPECT_EQ(read_file(dir.file("out.vdx2")), vdx2_header(3));
  EXPECT_TRUE(file_exists(dir.file("in.ts.vdf")));
}

TEST(Run, IndexFlagsAloneAreStoredAsGiven) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"-If", "2", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(read_file(dir.file("in.ts.vdx2")), vdx2_header(2));
  EXPECT_FALSE(file_exists(dir.file("in.ts.vdf")));
}

TEST(Run, ExternalFileGivenByNameIsMade) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"-IX", "frames.bin", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find(" with external frame file frames.bin\n"), std::string::npos);
  EXPECT_EQ(read_file(dir.file("in.ts.vdx2")), vdx2_header(1));
  EXPECT_TRUE(file_exists(dir.file("frames.bin")));
}

TEST(Run, ExternalFramesWithVdxAreNamedButNotMade) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"-Ix", "-f", "vdx", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("Indexing in.ts into in.ts.vdx with external frame file in.ts.vdf\n"),
            std::string::npos)
      << result.err;
  EXPECT_TRUE(file_exists(dir.file("in.ts.vdx")));
  EXPECT_FALSE(file_exists(dir.file("in.ts.vdf")));
}

TEST(Run, VdxTableIsSizedByTheInputFilesLength) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());  // 206800 bytes
  RunResult result = run_vdxindex({"-f", "vdx", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  std::string index = read_file(dir.file("in.ts.vdx"));
  ASSERT_GE(index.size(), 24u);
  EXPECT_EQ(read_be32(index, 0), 0x56445846u);
  EXPECT_EQ(read_be32(index, 12), 0u);      // blocks
  EXPECT_EQ(read_be32(index, 16), 65536u);  // precision
  EXPECT_EQ(read_be32(index, 20), 3u);      // 206800 / 65536 entries

  result = run_vdxindex({"-f", "vdx", "-Ip", "100000", "in.ts", "coarse.vdx"}, dir.path);
  EXPECT_EQ(result.status, 0);
  index = read_file(dir.file("coarse.vdx"));
  ASSERT_GE(index.size(), 24u);
  EXPECT_EQ(read_be32(index, 16), 100000u);
  EXPECT_EQ(read_be32(index, 20), 2u);
}

TEST(Run, BlockSizeThatTheWriterRefusesEndsTheProcessAbnormally) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), timed_stream());
  RunResult result = run_vdxindex({"-Ib", "8", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, -1);
  EXPECT_EQ(result.signal, 6);
  EXPECT_NE(result.err.find("terminate called after throwing an instance of "
                            "'Korvix::Channel::Error'"),
            std::string::npos)
      << result.err;
}

TEST(Run, FrameFileOfStandardInputIsDashVdf) {
  ScratchDir dir;
  RunResult result = run_vdxindex({"-Ix", "-"}, dir.path, timed_stream());
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("Indexing pipe into -.vdx2 with external frame file -.vdf\n"),
            std::string::npos)
      << result.err;
  EXPECT_TRUE(file_exists(dir.file("-.vdf")));
}

TEST(Run, VdxOfStandardInputIsSizedByAFileCalledPipe) {
  ScratchDir dir;
  RunResult result = run_vdxindex({"-f", "vdx", "-"}, dir.path, timed_stream());
  EXPECT_EQ(result.status, 0);
  std::string index = read_file(dir.file("-.vdx"));
  ASSERT_GE(index.size(), 24u);
  EXPECT_EQ(read_be32(index, 20), 0u);

  write_file(dir.file("pipe"), std::string(200000, 'x'));
  result = run_vdxindex({"-f", "vdx", "-", "second.vdx"}, dir.path, timed_stream());
  EXPECT_EQ(result.status, 0);
  index = read_file(dir.file("second.vdx"));
  ASSERT_GE(index.size(), 24u);
  EXPECT_EQ(read_be32(index, 20), 3u);  // 200000 / 65536
}

TEST(Run, StandardOutputStaysEmptyWithoutDump) {
  ScratchDir dir;
  RunResult result = run_vdxindex({source_path("samples/sample.ts"), "out.vdx2"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "");
  EXPECT_EQ(split_lines(result.err).back(), "Done");
}

}  // namespace
}  // namespace Veldrin::Testing
