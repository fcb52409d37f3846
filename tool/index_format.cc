#include "tool/index_format.h"

#include <cerrno>
#include <cstdint>
#include <cstring>

#include "index/index_file.h"
#include "index2/block.h"
#include "tool/dump_failure.h"

namespace Veldrin::Tool {

const char* index_format_name(IndexFormat format) {
  return format == IndexFormat::VDX2 ? "VDX2" : "VDX";
}

IndexFormat open_index(std::ifstream& in, const std::string& name) {
  in.open(name, std::ios::in | std::ios::binary);
  if (!in) throw DumpFailure{DUMP_CANT_OPEN, "can't open " + name + ": " + std::strerror(errno)};
  unsigned char bytes[4] = {0, 0, 0, 0};
  in.read(reinterpret_cast<char*>(bytes), sizeof(bytes));
  const bool whole = in.gcount() == sizeof(bytes);
  const uint32_t magic = (uint32_t{bytes[0]} << 24) | (uint32_t{bytes[1]} << 16) |
                         (uint32_t{bytes[2]} << 8) | bytes[3];
  if (!whole || (magic != Index2::VDX2_MAGIC && magic != Index::VDX_MAGIC))
    throw DumpFailure{DUMP_BAD_INDEX, name + " is neither a VDX2 nor a VDX index file"};
  in.clear();
  in.seekg(0);
  return magic == Index2::VDX2_MAGIC ? IndexFormat::VDX2 : IndexFormat::VDX;
}

}  // namespace Veldrin::Tool
