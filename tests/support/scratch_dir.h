#ifndef VDX_TESTS_SUPPORT_SCRATCH_DIR_H
#define VDX_TESTS_SUPPORT_SCRATCH_DIR_H

#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <string>

namespace Veldrin::Testing {

// A fresh directory under the system's temporary directory, removed with all it holds at the end
// of the object's life.
class ScratchDir {
 public:
  ScratchDir() {
    std::string pattern = (std::filesystem::temp_directory_path() / "vdx-unit-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    path = pattern;
  }
  ~ScratchDir() {
    std::error_code ignored;
    std::filesystem::remove_all(path, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;

  // The path of a name inside the directory.
  std::string file(const std::string& name) const { return path + "/" + name; }

  // Writes bytes to a file of the directory and gives its path.
  std::string write(const std::string& name, const std::string& bytes) const {
    std::ofstream out(file(name), std::ios::binary | std::ios::trunc);
    out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
    if (!out) throw std::runtime_error("can't write " + file(name));
    return file(name);
  }

  std::string path;
};

}  // namespace Veldrin::Testing

#endif
