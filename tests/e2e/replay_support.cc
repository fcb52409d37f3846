#include "e2e/replay_support.h"

#include <unistd.h>

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <sstream>

namespace Veldrin::Testing {

std::string find_program(const std::string& name) {
  const char* path = std::getenv("PATH");
  std::istringstream dirs(path != nullptr ? path : "/usr/bin:/bin");
  std::string dir;
  while (std::getline(dirs, dir, ':')) {
    if (dir.empty()) continue;
    const std::string candidate = dir + "/" + name;
    if (::access(candidate.c_str(), X_OK) == 0) return candidate;
  }
  return {};
}

bool in_ci() {
  const char* ci = std::getenv("CI");
  return ci != nullptr && std::string(ci) == "true";
}

Decoded decode(const std::string& path) {
  Decoded decoded;
  RunRequest request;
  request.executable = find_program("ffmpeg");
  request.args = {"-nostdin", "-v", "error", "-i", path, "-map", "0:v:0", "-f", "framemd5", "-"};
  RunResult result = run_program(request);
  decoded.status = result.status;
  decoded.errors = result.err;
  for (const std::string& line : split_lines(result.out)) {
    if (line.empty() || line[0] == '#') continue;
    const size_t last = line.rfind(", ");
    if (last != std::string::npos) decoded.hashes.push_back(line.substr(last + 2));
  }

  request.executable = find_program("ffprobe");
  request.args = {"-v",  "error",         "-select_streams",
                  "v:0", "-show_entries", "frame=pict_type",
                  "-of", "csv=p=0",       path};
  result = run_program(request);
  if (result.status != 0) decoded.status = result.status;
  decoded.errors += result.err;
  for (const std::string& line : split_lines(result.out)) {
    // Some versions add a separator after the last field.
    std::string type = line.substr(0, line.find(','));
    if (!type.empty()) decoded.picture_types.push_back(type);
  }
  return decoded;
}

RunResult run_vdx2dump(const std::vector<std::string>& args, const std::string& working_dir) {
  RunRequest request;
  request.executable = binary_path("vdx2dump");
  request.args = args;
  request.working_dir = working_dir;
  return run_program(request);
}

std::vector<std::string> mpeg2_fixtures() {
  std::vector<std::string> names;
  for (const auto& entry : std::filesystem::directory_iterator(source_path("tests/fixtures"))) {
    const std::string name = entry.path().filename().string();
    if (name.rfind("mpeg2_", 0) == 0 && entry.path().extension() == ".ts") names.push_back(name);
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace Veldrin::Testing
