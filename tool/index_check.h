#ifndef VELDRIN_TOOL_INDEX_CHECK_H
#define VELDRIN_TOOL_INDEX_CHECK_H

#include <cstdint>
#include <istream>
#include <ostream>
#include <string>

#include "tool/index_format.h"
#include "tool/source_file.h"

namespace Veldrin::Tool {

// What a check looked at and what it found.
struct CheckReport {
  uint64_t blocks = 0;      // blocks of the index read
  uint64_t references = 0;  // places in the source looked at
  uint64_t problems = 0;
};

// Checks an index against the file its references point into: the recording, or the frame file
// of a VDX2 index made with external frames. The index stream stands at its start; source_name
// is the name of source as the user gave it.
//
// Every problem is one line on out, "<index>: <where>: <what>", in the order found (what needs
// a whole group is judged at the group's end); a summary line follows: "<index>: <n> problems; <b>
// blocks and <r> references checked against <source>". A file that turns out damaged or cut stops
// the check after the lines found so far, without the summary, with the reader's
// Korvix::Channel::Error.
//
// Of the source, a place is "at a packet start" when a sync byte stands there and another 188
// bytes on (or the file ends there); in the frame file, which holds whole packets from its first
// byte, packets start at every multiple of 188.
//
// VDX2: every block's source offset is at a packet start and the packet is whole in the source;
// a reference lies wholly inside its file, starts at a packet start, ends at one (or at the end
// of the file), in the frame file is whole packets, and starts with a packet of the frame's own
// PID (that of the frame's rendered packets); reference fields are set only with the reference
// flag; groups run from index 0 to count - 1 without a gap; a group's inline data is whole
// packets; with the recording, a frame starts at a PES packet start, and each packet the index
// rewrote inline has the PID and continuity counter of the packet at its offset in the source.
//
// VDX: the header's version and header size; the table's size fits the source's length; every
// table entry points at a block with its NPT and offset (or, for a frame that got no block, at
// the last block, with a later offset), offsets never go back, and none lies after its position
// in the source except the first entry's; each block's links give the sizes of its neighbours,
// as many each way as the file's link count allows; frame data is whole packets; every source
// offset is at a packet start (a table entry may also stand at the very end of the source), and
// a block's offset holds a PES packet start of the frame's PID; nothing follows the last block.
CheckReport check_index(std::istream& in, IndexFormat format, const std::string& index_name,
                        SourceFile& source, const std::string& source_name, std::ostream& out);

}  // namespace Veldrin::Tool

#endif
