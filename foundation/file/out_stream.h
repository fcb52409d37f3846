#ifndef KORVIX_FILE_OUT_STREAM_H
#define KORVIX_FILE_OUT_STREAM_H

#include <fstream>
#include <string>

#include "foundation/file/path.h"

namespace Korvix::File {

// A file opened for binary writing; an existing file is truncated.
class OutStream : public std::ofstream {
 public:
  OutStream() = default;
  explicit OutStream(const std::string& name)
      : std::ofstream(name, std::ios::out | std::ios::binary | std::ios::trunc) {}
  explicit OutStream(const Path& path) : OutStream(path.path) {}
};

}  // namespace Korvix::File

#endif
