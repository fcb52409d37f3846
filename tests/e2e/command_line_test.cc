#include <gtest/gtest.h>

#include <filesystem>
#include <string>
#include <vector>

#include "e2e/streams.h"
#include "e2e/tool_runner.h"
#include "support/usage_text.h"

namespace Veldrin::Testing {
namespace {

// Compares line by line, so that a failure names the line, and then as a whole, so that the
// final newline counts too.
void expect_usage(const std::string& out, const std::string& program) {
  std::vector<std::string> expected = expected_usage(program);
  std::vector<std::string> lines = split_lines(out);
  ASSERT_EQ(lines.size(), expected.size()) << out;
  for (size_t i = 0; i < lines.size(); ++i) EXPECT_EQ(lines[i], expected[i]) << "line " << i;
  std::string whole;
  for (const std::string& line : expected) whole += line + "\n";
  EXPECT_EQ(out, whole);
}

// Nothing but what the test put there: a run that ends early writes no file.
bool directory_holds_only(const ScratchDir& dir, const std::vector<std::string>& names) {
  size_t count = 0;
  for (const auto& entry : std::filesystem::directory_iterator(dir.path)) {
    ++count;
    bool known = false;
    for (const std::string& name : names) known = known || entry.path().filename() == name;
    if (!known) return false;
  }
  return count == names.size();
}

TEST(CommandLine, NoArgumentsPrintUsageWithStatusOne) {
  RunResult result = run_vdxindex({});
  EXPECT_EQ(result.status, 1);
  expect_usage(result.out, binary_path("vdxindex"));
  EXPECT_EQ(result.err, "");
}

TEST(CommandLine, ProgramNameInTheUsageIsTheFirstArgumentAsGiven) {
  RunRequest request;
  request.executable = binary_path("vdxindex");
  request.argv0 = "some name";
  RunResult result = run_program(request);
  EXPECT_EQ(result.status, 1);
  expect_usage(result.out, "some name");
}

TEST(CommandLine, HelpPrintsUsageWithStatusZero) {
  for (const char* option : {"-?", "--help"}) {
    RunResult result = run_vdxindex({option});
    EXPECT_EQ(result.status, 0) << option;
    expect_usage(result.out, binary_path("vdxindex"));
    EXPECT_EQ(result.err, "") << option;
  }
}

TEST(CommandLine, HelpAfterOtherOptionsActsAtOnce) {
  ScratchDir dir;
  RunResult result = run_vdxindex({"-q", "--help", "-x", "-f", "xyz", "missing.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  expect_usage(result.out, binary_path("vdxindex"));
  EXPECT_EQ(result.err, "");
  EXPECT_TRUE(directory_holds_only(dir, {}));
}

TEST(CommandLine, VerboseAloneConnectsTheLogAndPrintsUsage) {
  RunResult result = run_vdxindex({"-v"});
  EXPECT_EQ(result.status, 1);
  expect_usage(result.out, binary_path("vdxindex"));
  EXPECT_EQ(result.err, "");
}

TEST(CommandLine, UnknownFormatNamesTheNumberAndEndsWithStatusTwo) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100));
  RunResult result = run_vdxindex({"-f", "xyz", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "Unknown format 1 specified\n");
  EXPECT_EQ(result.out, "");
  result = run_vdxindex({"-f", "vdx", "-f", "xyz", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "Unknown format 0 specified\n");
  EXPECT_TRUE(directory_holds_only(dir, {"in.ts"}));
}

TEST(CommandLine, UnknownFormatIsPrintedWhateverTheLogLevel) {
  RunResult result = run_vdxindex({"-q", "-q", "-q", "-f", "mpeg", "in.ts"});
  EXPECT_EQ(result.status, 2);
  EXPECT_EQ(result.err, "Unknown format 1 specified\n");
}

TEST(CommandLine, FormatAsLastArgumentIsUnknownAndUsageFollows) {
  RunResult result = run_vdxindex({"-f"});
  EXPECT_EQ(result.status, 1);
  EXPECT_EQ(result.err, "Unknown option -f ignored\n");
  expect_usage(result.out, binary_path("vdxindex"));
}

TEST(CommandLine, EveryOptionWithAnArgumentFailsItsOwnNameAtTheEnd) {
  for (const char* option : {"-e", "--encrypt", "-c", "-O", "-Is", "-In", "-Ip", "-If", "-Ib",
                             "-IX", "-Ek", "-Ee", "--key-encrypt"}) {
    RunResult result = run_vdxindex({"-q", "-q", option});
    EXPECT_EQ(result.status, 1) << option;
    EXPECT_EQ(result.err, std::string("Unknown option ") + option + " ignored\n");
  }
}

TEST(CommandLine, UnknownOptionIsReportedWhateverTheLogLevelAndTheRunGoesOn) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100));
  RunResult result = run_vdxindex({"-q", "-q", "-x", "in.ts"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.err, "Unknown option -x ignored\n");
  EXPECT_TRUE(file_exists(dir.file("in.ts.vdx2")));
}

TEST(CommandLine, FormatNamesInAnyCaseGiveTheSameRun) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100));
  RunResult plain = run_vdxindex({"in.ts", "plain.vdx2"}, dir.path);
  ASSERT_EQ(plain.status, 0);
  for (const char* name : {"VDX2", "Vdx2", "vdx2"}) {
    RunResult result = run_vdxindex({"-f", name, "in.ts", "plain.vdx2"}, dir.path);
    EXPECT_EQ(result.status, 0) << name;
    EXPECT_EQ(result.err, plain.err) << name;
  }
  RunResult vdx = run_vdxindex({"-f", "VDX", "in.ts"}, dir.path);
  EXPECT_EQ(vdx.status, 0);
  EXPECT_NE(vdx.err.find("Indexing in.ts into in.ts.vdx\n"), std::string::npos) << vdx.err;
  EXPECT_NE(vdx.err.find("Output index format: VDX\n"), std::string::npos) << vdx.err;
  EXPECT_TRUE(file_exists(dir.file("in.ts.vdx")));
}

TEST(CommandLine, OptionsAfterTheInputNameAreTakenAsNames) {
  ScratchDir dir;
  write_file(dir.file("in.ts"), make_packets(0x100, 1100));
  RunResult result = run_vdxindex({"in.ts", "-v", "-q"}, dir.path);
  EXPECT_EQ(result.status, 0);
  EXPECT_NE(result.err.find("Indexing in.ts into -v\n"), std::string::npos) << result.err;
  EXPECT_TRUE(file_exists(dir.file("-v")));
  EXPECT_FALSE(file_exists(dir.file("-q")));
}

}  // namespace
}  // namespace Veldrin::Testing
