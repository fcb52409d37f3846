#ifndef VELDRIN_TOOL_SOURCE_FILE_H
#define VELDRIN_TOOL_SOURCE_FILE_H

#include <cstddef>
#include <cstdint>
#include <fstream>
#include <string>

namespace Veldrin::Tool {

// The recording (or frame file) that an index refers to, read at the places the index names.
class SourceFile {
 public:
  // False if the file can't be opened; errno tells why.
  bool open(const std::string& name);

  // Copies length bytes from offset; false, with nothing promised about data, when they are
  // not all in the file.
  bool read(uint64_t offset, unsigned char* data, size_t length);

  // A transport packet starts at offset: its sync byte stands there, and the next packet's
  // stands 188 bytes on, unless the file ends there. Judged from the bytes themselves, so that
  // a recording with a gap in its packet grid still shows its packets where they are.
  bool packet_starts(uint64_t offset);

  uint64_t size = 0;

 private:
  std::ifstream stream;
};

}  // namespace Veldrin::Tool

#endif
