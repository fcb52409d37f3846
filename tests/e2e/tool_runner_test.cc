#include "e2e/tool_runner.h"

#include <gtest/gtest.h>

namespace Veldrin::Testing {
namespace {

RunRequest shell(const std::string& script) {
  RunRequest request;
  request.executable = "/bin/sh";
  request.args = {"-c", script};
  return request;
}

TEST(ToolRunner, LargeInputComesBackWhileStandardErrorIsWritten) {
  // Far more than a pipe holds in each direction at once: only a runner that reads and writes
  // together gets to the end.
  std::string input;
  for (int i = 0; i < 3 * 1024 * 1024; ++i) input.push_back(static_cast<char>(i * 7));
  RunRequest request = shell("cat; cat /dev/zero | head -c 1000000 >&2; exit 3");
  request.input = input;
  RunResult result = run_program(request);
  EXPECT_EQ(result.status, 3);
  EXPECT_EQ(result.signal, 0);
  EXPECT_EQ(result.out, input);
  EXPECT_EQ(result.err, std::string(1000000, '\0'));
}

TEST(ToolRunner, WithoutInputStandardInputIsEmpty) {
  RunResult result = run_program(shell("wc -c"));
  EXPECT_EQ(result.status, 0);
  EXPECT_EQ(result.out, "0\n");
}

TEST(ToolRunner, ChildThatIgnoresItsInputDoesNotStopTheRunner) {
  RunRequest request = shell("exit 0");
  request.input = std::string(4 * 1024 * 1024, 'x');
  RunResult result = run_program(request);
  EXPECT_EQ(result.status, 0);
}

TEST(ToolRunner, RunsInTheGivenDirectory) {
  ScratchDir dir;
  RunRequest request = shell("pwd");
  request.working_dir = dir.path;
  RunResult result = run_program(request);
  EXPECT_EQ(result.out, dir.path + "\n");
}

TEST(ToolRunner, MissingDirectoryEndsTheChildWith127) {
  RunRequest request = shell("exit 0");
  request.working_dir = "/nonexistent/directory";
  EXPECT_EQ(run_program(request).status, 127);
}

TEST(ToolRunner, SignalIsReportedInsteadOfStatus) {
  RunResult result = run_program(shell("kill -ABRT $$"));
  EXPECT_EQ(result.status, -1);
  EXPECT_EQ(result.signal, 6);
}

TEST(ToolRunner, TimeLimitKillsTheChild) {
  RunRequest request = shell("sleep 30");
  request.timeout_seconds = 1;
  RunResult result = run_program(request);
  EXPECT_TRUE(result.timed_out);
  EXPECT_EQ(result.signal, 9);
}

TEST(ScratchDir, IsRemovedWithItsContent) {
  std::string path;
  {
    ScratchDir dir;
    path = dir.path;
    ASSERT_TRUE(write_file(dir.file("a"), "abc"));
    EXPECT_EQ(read_file(dir.file("a")), "abc");
  }
  EXPECT_FALSE(file_exists(path));
}

TEST(SplitLines, KeepsEmptyLinesAndAnUnfinishedLast) {
  EXPECT_EQ(split_lines("a\n\nb"), (std::vector<std::string>{"a", "", "b"}));
  EXPECT_EQ(split_lines("a\n"), (std::vector<std::string>{"a"}));
  EXPECT_TRUE(split_lines("").empty());
}

}  // namespace
}  // namespace Veldrin::Testing
