#ifndef VELDRIN_TOOL_INDEX_REPLAY_H
#define VELDRIN_TOOL_INDEX_REPLAY_H

#include <istream>
#include <ostream>
#include <string>

#include "tool/index_format.h"

namespace Veldrin::Tool {

// Writes the frames of an index to out as the transport stream that a player sends: for VDX2
// each block's inline data followed by the bytes of its reference in source (the recording, or
// the frame file of an index made with external frames), for VDX each block's frame data; a
// VDX index doesn't open source at all. The index stream stands at its start.
//
// Throws DumpFailure with DUMP_CANT_OPEN when source can't be opened and DUMP_BAD_INDEX when a
// reference runs past its end; a damaged index gives the reader's Korvix::Channel::Error.
void replay_index(std::istream& in, IndexFormat format, const std::string& source,
                  std::ostream& out);

}  // namespace Veldrin::Tool

#endif
