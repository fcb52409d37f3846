#include "e2e/dump_support.h"

namespace Veldrin::Testing {

bool index_fixture_in(const ScratchDir& dir, const std::string& fixture,
                      const std::vector<std::string>& options) {
  if (!write_file(dir.file(fixture), read_file(source_path("tests/fixtures/" + fixture))))
    return false;
  std::vector<std::string> args = options;
  args.push_back(fixture);
  return run_vdxindex(args, dir.path).status == 0;
}

std::string vdx2dump_path() {
  return binary_path("vdx2dump");
}

RunResult run_tool_on(const std::string& program, const std::vector<std::string>& args,
                      const std::string& input) {
  RunRequest request;
  request.executable = find_program(program);
  request.args = args;
  request.input = input;
  return run_program(request);
}

std::vector<std::string> output_lines(const std::string& text) {
  std::vector<std::string> lines = split_lines(text);
  if (!lines.empty() && lines.back().empty()) lines.pop_back();
  return lines;
}

}  // namespace Veldrin::Testing
