#include "tool/source_file.h"

#include <limits>

#include "transport/packet.h"

namespace Veldrin::Tool {

bool SourceFile::open(const std::string& name) {
  stream.open(name, std::ios::in | std::ios::binary);
  if (!stream) return false;
  stream.seekg(0, std::ios::end);
  const std::streamoff end = stream.tellg();
  if (!stream || end < 0) return false;
  size = static_cast<uint64_t>(end);
  return true;
}

bool SourceFile::read(uint64_t offset, unsigned char* data, size_t length) {
  if (offset > size || length > size - offset) return false;
  if (offset > static_cast<uint64_t>(std::numeric_limits<std::streamoff>::max())) return false;
  stream.clear();
  stream.seekg(static_cast<std::streamoff>(offset));
  stream.read(reinterpret_cast<char*>(data), static_cast<std::streamsize>(length));
  return static_cast<size_t>(stream.gcount()) == length;
}

bool SourceFile::packet_starts(uint64_t offset) {
  constexpr auto packet = static_cast<uint64_t>(IndexGen::TS_PACKET_SIZE);
  unsigned char byte = 0;
  if (!read(offset, &byte, 1) || byte != IndexGen::TS_SYNC_BYTE) return false;
  if (offset + packet == size) return true;
  return read(offset + packet, &byte, 1) && byte == IndexGen::TS_SYNC_BYTE;
}

}  // namespace Veldrin::Tool
