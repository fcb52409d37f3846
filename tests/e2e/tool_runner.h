#ifndef VDX_TESTS_E2E_TOOL_RUNNER_H
#define VDX_TESTS_E2E_TOOL_RUNNER_H

#include <optional>
#include <string>
#include <vector>

#include "support/scratch_dir.h"

namespace Veldrin::Testing {

// What a finished child process left behind.
struct RunResult {
  int status = -1;         // exit status; -1 when the process didn't exit normally
  int signal = 0;          // the signal that ended it, 0 if it exited
  bool timed_out = false;  // killed by the runner after the time limit
  std::string out;         // standard output, byte for byte
  std::string err;         // standard error, byte for byte
};

// How to start a child process.
struct RunRequest {
  std::string executable;            // path of the program
  std::vector<std::string> args;     // arguments behind argv[0]
  std::string working_dir;           // empty: the test's own
  std::optional<std::string> input;  // bytes on standard input; none: /dev/null
  std::optional<std::string> argv0;  // argv[0]; none: the executable's path
  int timeout_seconds = 600;         // killed with SIGKILL beyond this
};

// Runs the program, feeds its standard input and collects both output streams without deadlock.
RunResult run_program(const RunRequest& request);

// Path of a program built into the build tree, e.g. binary_path("vdxindex").
std::string binary_path(const std::string& name);
// Path of a file below the source tree, e.g. source_path("tests/fixtures/mpeg2_bframes.ts").
std::string source_path(const std::string& relative);

// Runs build/vdxindex with the given arguments. argv[0] is the path of the executable.
RunResult run_vdxindex(const std::vector<std::string>& args, const std::string& working_dir = "",
                       const std::optional<std::string>& input = std::nullopt);

// The whole content of a file; empty if it can't be read.
std::string read_file(const std::string& path);
// Writes bytes to a file, replacing it; false on failure.
bool write_file(const std::string& path, const std::string& bytes);
bool file_exists(const std::string& path);

// The text split into lines at each "\n"; a last line without one is kept as well.
std::vector<std::string> split_lines(const std::string& text);

}  // namespace Veldrin::Testing

#endif
