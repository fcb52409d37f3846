#ifndef VELDRIN_TOOL_JSON_DUMP_H
#define VELDRIN_TOOL_JSON_DUMP_H

#include <istream>
#include <ostream>
#include <string>

#include "tool/index_format.h"

namespace Veldrin::Tool {

// Writes the header and every block of an index as one JSON document, the stream standing at the
// start of the file; name is the index file's name as given.
//
// VDX2: "header" with header_size, flags, external_frames and block_size; "blocks", one object
// a block with its number, file position, source offset, npt_ms, flags and flag_names, count,
// index and group (the number of the group in the file, null outside a group), ref_length,
// ref_offset and data_length. VDX: "header" with header_size, version, blocks, precision and
// entries; "table", an object an entry with its source_position, block_page, block_position,
// npt_ms and offset; "blocks" with number, position, size, npt_ms, offset and the sizes of the
// "forward" and "backward" links. show_data adds each block's data as a hexadecimal "data".
//
// NPT is given in whole milliseconds, as the files store it, and offsets as unsigned 64-bit
// integers. A file that turns out damaged or cut after its header still gives a whole document:
// it ends with the blocks read so far and an "error" member, and the reader's
// Korvix::Channel::Error then passes to the caller.
void dump_index_json(std::istream& in, IndexFormat format, const std::string& name,
                     std::ostream& out, bool show_data);

}  // namespace Veldrin::Tool

#endif
