#ifndef VDX_TESTS_E2E_DUMP_SUPPORT_H
#define VDX_TESTS_E2E_DUMP_SUPPORT_H

#include <string>
#include <vector>

#include "e2e/replay_support.h"
#include "e2e/tool_runner.h"

namespace Veldrin::Testing {

// Copies a fixture of tests/fixtures into the directory and indexes it there with vdxindex and
// the given options; false if either fails.
bool index_fixture_in(const ScratchDir& dir, const std::string& fixture,
                      const std::vector<std::string>& options = {});

// The path of the built vdx2dump, its argv[0] in the runs of the tests.
std::string vdx2dump_path();

// Runs a program found on PATH with text on its standard input.
RunResult run_tool_on(const std::string& program, const std::vector<std::string>& args,
                      const std::string& input);

// The lines of the text, without the empty one after its last newline.
std::vector<std::string> output_lines(const std::string& text);

}  // namespace Veldrin::Testing

// Ends the test when a program the test needs is missing: as a failure in CI, as a skip
// elsewhere.
#define VDX_REQUIRE_PROGRAM(name)                                      \
  do {                                                                 \
    if (::Veldrin::Testing::find_program(name).empty()) {              \
      if (::Veldrin::Testing::in_ci()) FAIL() << name << " is needed"; \
      GTEST_SKIP() << name << " not installed";                        \
    }                                                                  \
  } while (0)

#endif
