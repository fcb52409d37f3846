#ifndef VELDRIN_TOOL_INDEX_FORMAT_H
#define VELDRIN_TOOL_INDEX_FORMAT_H

#include <fstream>
#include <string>

namespace Veldrin::Tool {

// The two index formats, told apart by the magic in their first four bytes.
enum class IndexFormat {
  VDX2,
  VDX,
};

// The name of the format as the dumps show it: "VDX2" or "VDX".
const char* index_format_name(IndexFormat format);

// Opens the index file for reading, tells its format and leaves the stream at the start of the
// file. Throws DumpFailure: DUMP_CANT_OPEN when the file can't be opened, DUMP_BAD_INDEX when it
// is shorter than a magic or has neither magic (an unfinished VDX file has zeros there).
IndexFormat open_index(std::ifstream& in, const std::string& name);

}  // namespace Veldrin::Tool

#endif
