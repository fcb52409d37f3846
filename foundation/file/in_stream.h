#ifndef KORVIX_FILE_IN_STREAM_H
#define KORVIX_FILE_IN_STREAM_H

#include <fstream>
#include <string>

#include "foundation/file/path.h"

namespace Korvix::File {

// A file opened for binary reading.
class InStream : public std::ifstream {
 public:
  InStream() = default;
  explicit InStream(const std::string& name)
      : std::ifstream(name, std::ios::in | std::ios::binary) {}
  explicit InStream(const Path& path) : InStream(path.path) {}
};

}  // namespace Korvix::File

#endif
